// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_ENGINE_TARGET_GROUP_H_
#define PENSTOCK_ENGINE_TARGET_GROUP_H_

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "engine/commands.h"
#include "engine/state.h"
#include "engine/target_parts.h"

namespace penstock {

// What a group shares with the engine around it.
struct TargetPort {
  const TargetConfig& config;
  std::vector<TargetCommand>& commands;
  std::function<Ticket(std::uint64_t group)> newTicket;  // routed to the group when answered
  std::function<void(ConnId)> forget;                    // the connection is not ours any more
  std::uint64_t& keptBytes;                              // of all groups' KeptBlocks
};

// A file that the journal's folder holds, as it was found at the start.
struct JournalFile {
  std::string group, volume;
  std::uint64_t n = 0;
};

// One group at the target: takes datasets in, makes them durable, applies them, says so.
//
// A dataset becomes durable by one commit of the group's state, after its files and their
// directories are synced; resync datasets are written to their volumes, which are synced instead.
// The committed state is the only truth: memory follows it when the commit is answered, and
// whatever it does not know is removed at the next start. Commits, syncs of volumes and applying
// each run one at a time, and gather what has become ready meanwhile.
//
// Threads: one at a time, that of its TargetEngine.
class TargetGroup {
 public:
  // `index` names the group in tickets.
  TargetGroup(TargetPort port, std::uint64_t index, GroupState state);
  TargetGroup(const TargetGroup&) = delete;
  TargetGroup& operator=(const TargetGroup&) = delete;

  // Begins recovery: removes files that were never committed, applies what was.
  void Start(const std::vector<JournalFile>& found, const Moment& now);
  bool Recovered() const { return m_recovered; }
  bool Halted() const { return m_halted; }

  // A connection that said HELLO for this group, and may do what it asks for.
  void Greet(ConnId conn, const std::string& identity, const Hello& hello, const Moment& now);
  void Received(ConnId conn, const Frame& frame, const Moment& now);
  // The connection is gone, or sent what is no frame of ours.
  void Gone(ConnId conn, const Moment& now);
  void Damaged(ConnId conn, const std::string& why, const Moment& now);
  void Completed(const IoDone& done, const Moment& now);
  void Completed(const VolumeOpened& opened, const Moment& now);
  void Completed(const WindowCompared& compared, const Moment& now);
  void Tick(const Moment& now);
  Millis NextDeadline() const { return m_retryAt; }

  GroupStatus Status() const;
  // Nothing is being read from the connection, for want of room.
  bool IsPaused(ConnId conn) const;

 private:
  static constexpr Millis kNever = ~Millis{0};
  using Then = std::function<void(const IoDone&)>;
  struct Volume {
    VolumeRecord record;
    bool known = false;  // in the committed state
    bool open = false;
    bool dirty = false;  // written since the last sync began
  };

  // target_group.cpp and target_frames.cpp: peers and frames.
  TargetPeer* FindPeer(ConnId conn);
  void Refuse(ConnId conn, ErrorCode code, const std::string& why, std::uint64_t n = 0);
  void Drop(ConnId conn, const std::string& why);
  void Forget(ConnId conn);
  void OpenNext(const Moment& now);
  void TryWelcome();
  bool MayWelcomeSource();
  void Welcome(TargetPeer& peer);
  void TakeStart(TargetPeer& peer, const Frame& frame);
  void TakeBlock(TargetPeer& peer, const Frame& frame);
  void TakeEnd(TargetPeer& peer, const Frame& frame);
  void TakeQuery(TargetPeer& peer, const Frame& frame);
  void TakeProgress(const TargetPeer& peer, const Frame& frame);
  std::string CheckStart(const TargetPeer& peer, const DatasetStart& start) const;
  bool TakeVolumes(const TargetPeer& peer, const DatasetStart& start, Arrival& arrival) const;
  std::string CheckEnd(const DatasetEnd& end, Arrival& arrival);
  bool IsGranted(const TargetPeer& peer, const std::string& volume) const;
  void Throttle(TargetPeer& peer);
  std::uint64_t JournalBytes() const;
  void Unqueue(ConnId conn, std::uint64_t bytes);

  // target_store.cpp, target_commit.cpp, target_apply.cpp: arriving, durable, flushed, applied.
  Ticket Ask(Then then);
  std::string NextToOpen() const;
  void Fail(const std::string& what, const IoDone& done);
  void Advance(const Moment& now);
  void Append(Arrival& arrival, const std::string& volume, const BlockPtr& block,
              std::uint32_t size);
  void WriteDirect(Arrival& arrival);
  bool MayWriteDirect(const Arrival& arrival);
  void AfterWrite(std::uint64_t n, std::uint32_t size, const IoDone& done);
  void StepArrival(Arrival& arrival);
  void CloseFiles(Arrival& arrival);
  void SyncDirs(Arrival& arrival);
  void DropFrom(std::uint64_t n);
  void RemoveDropped();
  Arrival* FindArrival(std::uint64_t n);
  void TrySync();
  void TryCommit();
  void IssueSync(const std::vector<std::string>& volumes, std::uint64_t applied);
  std::size_t AddReady(StateChange& change, std::map<std::string, VolumeRecord>& volumes);
  void DropPoints(StateChange& change) const;
  void AddFlushed(StateChange& change, std::map<std::string, VolumeRecord>& volumes);
  void Committed(const StateChange& change, std::size_t taken, bool wasEpoch);
  void Report(FrameType type, std::uint64_t n, const Digest& chain);
  void TryApply(const Moment& now);
  void ApplyOne(const JournalRecord& record, const Moment& now);
  void FileApplied(const JournalRecord& record, const std::string& volume, const IoDone& done,
                   const Moment& now);
  void Keep(Arrival& arrival, const std::string& volume, const ArrivedBlock& block);
  void Release(KeptBlocks& kept);
  void LoseFile(std::uint64_t n, const std::string& volume, const std::string& why);
  void RecordApplied(const JournalRecord& record);
  void RemoveFlushed(std::uint64_t upTo);
  bool IsDrained() const { return m_arrivals.empty(); }

  TargetPort m_port;
  std::uint64_t m_index;
  GroupState m_state;  // committed
  std::map<std::string, Volume> m_volumes;
  Counters m_counters;  // ahead of the committed ones
  bool m_recovered = false;
  bool m_halted = false;
  std::string m_trouble;
  std::string m_applyTrouble;  // of the dataset that waits to be applied

  std::map<ConnId, TargetPeer> m_peers;
  ConnId m_source = 0;                            // the peer that replicates
  ConnId m_newest = 0;                            // the newest that ever did, since the start
  Progress m_progress;                            // what a source said of itself last
  std::map<std::string, std::uint64_t> m_passed;  // by volume, of m_progress
  std::deque<ConnId> m_greetings;  // peers to be welcomed: their volumes are being opened
  bool m_opening = false;
  std::string m_openName;
  std::uint64_t m_epoch = 0;  // committed, or being committed
  bool m_wantEpoch = false;   // m_source takes the group up anew: commit the next epoch first

  std::deque<std::unique_ptr<Arrival>> m_arrivals;  // ascending n
  bool m_syncing = false;
  std::uint64_t m_synced = 0;  // applied before the last finished sync: may be committed as flushed
  bool m_committing = false;
  std::map<std::string, VolumeRecord> m_changed;  // to be committed with the next change
  std::uint64_t m_applied = 0;
  std::deque<JournalRecord> m_toApply;
  std::map<std::uint64_t, KeptBlocks> m_kept;  // by number: some of m_toApply
  std::uint32_t m_applying = 0;                // files under way
  std::uint32_t m_removing = 0;                // files found at the start that are being removed
  std::set<std::pair<std::uint64_t, std::string>> m_lost;  // files that were put aside
  Millis m_retryAt = kNever;
  bool m_applyBlocked = false;

  std::map<Ticket, Then> m_then;
  std::map<Ticket, std::pair<ConnId, Query>> m_queries;
  std::map<Ticket, ConnId> m_opens;
};

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_TARGET_GROUP_H_
