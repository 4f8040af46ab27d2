// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_ENGINE_TARGET_ENGINE_H_
#define PENSTOCK_ENGINE_TARGET_ENGINE_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "engine/commands.h"
#include "engine/target_group.h"

namespace penstock {

// Keeps copies of groups of volumes, as sources tell it to.
//
// Before a connection has said HELLO nothing is kept for it but this engine's few words, and
// nothing it says reaches a group before its identity has been checked against the grants. Groups
// are made by the first source that may.
//
// The engine has no thread, clock or I/O: it is told events and the time, and leaves commands.
// Threads: one at a time.
class TargetEngine {
 public:
  // `groups` are the committed states, `found` every file of the journal.
  TargetEngine(TargetConfig config, std::vector<GroupState> groups, std::vector<JournalFile> found);
  TargetEngine(const TargetEngine&) = delete;
  TargetEngine& operator=(const TargetEngine&) = delete;

  // Begins the recovery of every group. Listen once Recovered() says so.
  void Start(const Moment& now);
  bool Recovered() const;
  bool Halted() const;

  void Connected(ConnId conn, const std::string& identity, const Moment& now);
  void Received(ConnId conn, const Frame& frame, const Moment& now);
  void ConnClosed(ConnId conn, const Moment& now);
  // The connection sent what is no frame of ours.
  void Damaged(ConnId conn, const std::string& why, const Moment& now);
  void Completed(const IoDone& done, const Moment& now);
  void Completed(const VolumeOpened& opened, const Moment& now);
  void Completed(const WindowCompared& compared, const Moment& now);
  void Tick(const Moment& now);
  Millis NextDeadline() const;

  std::vector<TargetCommand> TakeCommands();

  std::vector<GroupStatus> Status() const;
  std::uint64_t RefusedConnections() const { return m_refused; }
  // Of blocks in memory until they are applied, in all groups; at most TargetConfig::keepBytes.
  std::uint64_t KeptBytes() const { return m_keptBytes; }
  // Connections that asked for the status, to be answered with SendStatus.
  std::vector<ConnId> TakeStatusAsked() { return std::exchange(m_statusAsked, {}); }
  void SendStatus(ConnId conn, const std::string& json);
  // Of a connection that asked: which groups it may see.
  bool MaySee(ConnId conn, const std::string& group) const;

 private:
  static constexpr std::uint64_t kNoGroup = ~std::uint64_t{0};
  static constexpr unsigned kTicketShift = 16;  // the low bits of a ticket name the group

  struct Conn {
    std::string identity;
    Millis deadline = 0;  // for HELLO, then for any frame
    Millis heard = 0;     // the last frame, or our last ping while we don't listen
    std::uint64_t group = kNoGroup;
    bool asksStatus = false;
  };

  TargetGroup* GroupOf(Ticket ticket);
  bool IsPaused(ConnId conn, const Conn& known) const;
  TargetPort Port();
  void TakeHello(ConnId conn, const Frame& frame, const Moment& now);
  void Refuse(ConnId conn, ErrorCode code, const std::string& why);
  std::string CheckGrants(const std::string& identity, const Hello& hello) const;

  TargetConfig m_config;
  std::vector<TargetCommand> m_commands;
  std::uint64_t m_keptBytes = 0;
  std::vector<std::unique_ptr<TargetGroup>> m_groups;
  std::map<std::string, std::uint64_t> m_byName;
  std::vector<JournalFile> m_found;
  std::map<ConnId, Conn> m_conns;
  std::vector<ConnId> m_statusAsked;
  std::uint64_t m_lastTicket = 0;
  std::uint64_t m_refused = 0;
};

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_TARGET_ENGINE_H_
