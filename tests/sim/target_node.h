// SPDX-License-Identifier: Apache-2.0
// The target's machine: an engine, a disk and a state that survives.
#ifndef PENSTOCK_TESTS_SIM_TARGET_NODE_H_
#define PENSTOCK_TESTS_SIM_TARGET_NODE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "engine/target_engine.h"
#include "engine/work.h"
#include "tests/sim/check.h"
#include "tests/sim/disk.h"
#include "tests/sim/link.h"
#include "tests/sim/world.h"

namespace penstock::sim {

class TargetNode {
 public:
  TargetNode(World& world, Link& link, Checker& checker)
      : m_world(world), m_link(link), m_checker(checker), m_disk(world.rng) {}

  void Boot();
  bool IsUp() const { return m_engine != nullptr; }
  bool Listens() const { return m_engine != nullptr && m_engine->Recovered(); }
  void Crash(const std::string& why);

  // A peer connects: what its end of the connection is told goes to `source`.
  ConnId Accept(EndEvents source, const std::string& identity);

  // With nothing under way, what is said to be good has to be. I1.
  void CheckQuiet();
  Disk& disk() { return m_disk; }
  const TargetEngine* engine() const { return m_engine.get(); }
  // The epoch that each connection's source believes in, and the connections of rogues.
  std::map<ConnId, std::uint64_t> epochs;
  std::map<ConnId, std::string> rogues;
  std::uint64_t refused = 0;

 private:
  // Does the work, and returns what is to be told to the engine afterwards.
  using Io = std::function<std::function<void()>()>;

  void Settle();
  void CarryOut(TargetCommand& command);
  void Run(const std::string& key, Io io);
  template <class Command>
  void RunIo(const std::string& key, const Command& command, std::function<IoStatus(IoDone&)> work);
  void Commit(const CommitState& command);
  void Compare(const CompareVolume& command);
  void JournalCommands(TargetCommand& command);
  void OpenFile(const JournalOpen& open);
  void AppendToFile(const JournalAppend& append);
  void CloseFile(const JournalClose& close);
  void VolumeCommands(TargetCommand& command);
  void CheckSent(const SendFrame& send);
  std::string FilePath(const std::string& volume, std::uint64_t n) const;
  void Timer();
  void Tamper();

  World& m_world;
  Link& m_link;
  Checker& m_checker;
  Disk m_disk;
  std::vector<GroupState> m_states;  // durable
  std::unique_ptr<TargetEngine> m_engine;
  std::uint64_t m_boot = 0;  // what belongs to an earlier one is void
  bool m_wasRecovered = false;
  std::uint64_t m_lastOp = 0;
  std::map<std::uint64_t, Io> m_pending;
  std::map<std::string, Millis> m_busy;  // by key: when its last operation ends
  std::map<std::string, std::unique_ptr<DatasetFileSum>> m_sums;
  std::set<ConnId> m_conns;
  bool m_settling = false;
};

// Makes the change to the state, as a store would.
void Apply(const StateChange& change, GroupState& state);

}  // namespace penstock::sim

#endif  // PENSTOCK_TESTS_SIM_TARGET_NODE_H_
