// SPDX-License-Identifier: Apache-2.0
// What makes the target's datasets durable and flushed: syncs of volumes, commits of the state.
#include <algorithm>
#include <utility>

#include "engine/planted.h"
#include "engine/target_group.h"

namespace penstock {

// Syncs what was written to the volumes, directly or from the journal: one sync for all of it.
void TargetGroup::TrySync() {
  if (m_syncing) return;
  std::vector<Arrival*> written;
  for (const auto& arrival : m_arrivals) {
    if (arrival->stage == ArrivalStage::kWritten && !arrival->dropped) {
      written.push_back(arrival.get());
    }
  }
  const bool greets = m_source != 0 && !m_peers.at(m_source).welcomed && IsDrained();
  if (written.empty() && m_applied <= m_synced && !greets) return;
  std::vector<std::string> dirty;
  for (auto& [name, volume] : m_volumes) {
    if (volume.dirty) dirty.push_back(name);
  }
  const std::uint64_t applied = m_applied;
  if (dirty.empty()) {
    for (Arrival* arrival : written) arrival->stage = ArrivalStage::kReady;
    m_synced = applied;
    return;
  }
  for (const std::string& name : dirty) m_volumes.at(name).dirty = false;
  for (Arrival* arrival : written) arrival->stage = ArrivalStage::kSyncing;
  m_syncing = true;
  IssueSync(dirty, applied);
}

void TargetGroup::IssueSync(const std::vector<std::string>& volumes, std::uint64_t applied) {
  const Ticket ticket = Ask([this, volumes, applied](const IoDone& done) {
    if (done.status != IoStatus::kOk) {
      if (Planted(Fault::kRetryFsync)) return IssueSync(volumes, applied);
      return Fail("can't sync its volumes", done);
    }
    m_syncing = false;
    m_synced = std::max(m_synced, applied);
    for (const auto& arrival : m_arrivals) {
      if (arrival->stage == ArrivalStage::kSyncing) arrival->stage = ArrivalStage::kReady;
    }
  });
  m_port.commands.emplace_back(SyncVolumes{ticket, m_state.group, volumes});
}

// --- The commit. ---

void TargetGroup::TryCommit() {
  if (m_committing) return;
  StateChange change;
  change.epoch = m_state.epoch;
  change.durable = m_state.durable;
  change.flushed = m_state.flushed;
  change.chain = m_state.chain;
  change.flushedAtMs = m_state.flushedAtMs;
  std::map<std::string, VolumeRecord> volumes;
  const std::size_t taken = AddReady(change, volumes);
  DropPoints(change);
  AddFlushed(change, volumes);
  const bool isEpoch = m_wantEpoch && m_source != 0 && IsDrained() && m_recovered &&
                       m_state.flushed == m_state.durable;
  if (isEpoch) {
    m_epoch = ++change.epoch;
    for (const auto& [name, volume] : m_volumes) {
      if (volume.record.state != VolumeState::kGood) continue;
      volumes[name] = volume.record;
      volumes[name].state = VolumeState::kHeld;
      volumes[name].goodAt = m_state.flushed;
    }
  }
  if (change.flushed > m_state.flushed) change.dropJournalUpTo = change.flushed;
  for (auto& [name, record] : m_changed) volumes[name] = record;
  m_changed.clear();
  if (taken == 0 && !isEpoch && volumes.empty() && change.flushed == m_state.flushed) return;
  for (auto& [name, record] : volumes) change.volumes.push_back(record);
  change.counters = m_counters;
  m_committing = true;
  const Ticket ticket = Ask([this, change, taken, isEpoch](const IoDone& done) {
    m_committing = false;
    if (done.status != IoStatus::kOk) return Fail("can't record its state", done);
    Committed(change, taken, isEpoch);
  });
  m_port.commands.emplace_back(CommitState{ticket, m_state.group, change});
}

// Takes the datasets at the front that may become durable. Returns how many.
std::size_t TargetGroup::AddReady(StateChange& change,
                                  std::map<std::string, VolumeRecord>& volumes) {
  std::size_t taken = 0;
  for (const auto& arrival : m_arrivals) {
    if (arrival->stage != ArrivalStage::kReady || arrival->dropped) break;
    ++taken;
    change.durable = arrival->n;
    change.chain = arrival->chain;
    ++m_counters.datasets;
    m_counters.rawBytes += arrival->rawBytes;
    m_counters.receivedBytes += arrival->receivedBytes;
    if (!arrival->name.empty()) {
      change.addPoints.push_back({arrival->n, arrival->start.timestampMs, arrival->name});
    }
    if (arrival->direct) {
      // Its blocks are synced, and so is everything before: it was in the volumes first.
      change.flushed = arrival->n;
      change.flushedAtMs = arrival->start.timestampMs;
      continue;
    }
    JournalRecord record{arrival->n,
                         arrival->start.flags,
                         arrival->chain,
                         {arrival->files.begin(), arrival->files.end()},
                         arrival->fileBytes};
    record.timestampMs = arrival->start.timestampMs;
    for (const std::string& name : record.volumes) {
      // Writes without a comparison before them: what it was is gone, what it becomes is no point.
      const VolumeRecord& known = m_volumes.at(name).record;
      if (known.state != VolumeState::kNew && known.state != VolumeState::kHeld) continue;
      volumes[name] = known;
      volumes[name].state = VolumeState::kSyncing;
    }
    change.addJournal.push_back(std::move(record));
  }
  return taken;
}

// Of the points with names the newest stay.
void TargetGroup::DropPoints(StateChange& change) const {
  const std::size_t count = m_state.points.size() + change.addPoints.size();
  for (std::size_t i = 0; i + kMaxPoints < count && i < m_state.points.size(); ++i) {
    change.dropPoints.push_back(m_state.points[i].n);
  }
  while (change.addPoints.size() > kMaxPoints) change.addPoints.erase(change.addPoints.begin());
}

// What was applied before the last sync is flushed; a resync that ended there has made its volumes
// good.
void TargetGroup::AddFlushed(StateChange& change, std::map<std::string, VolumeRecord>& volumes) {
  if (m_synced <= m_state.flushed) return;
  bool complete = false;
  for (const JournalRecord& record : m_state.journal) {
    if (record.n > m_synced) break;
    complete = complete || (record.flags & kStartSyncComplete) != 0;
    if (record.n > change.flushed) change.flushedAtMs = record.timestampMs;
  }
  change.flushed = std::max(change.flushed, m_synced);
  if (!complete) return;
  for (const auto& [name, volume] : m_volumes) {
    if (volume.record.state != VolumeState::kSyncing) continue;
    volumes[name] = volume.record;
    volumes[name].state = VolumeState::kGood;
    volumes[name].goodAt = m_synced;
  }
}

void TargetGroup::Committed(const StateChange& change, std::size_t taken, bool wasEpoch) {
  const std::uint64_t flushedBefore = m_state.flushed;
  m_state.epoch = change.epoch;
  m_state.durable = change.durable;
  m_state.flushed = change.flushed;
  m_state.chain = change.chain;
  m_state.flushedAtMs = change.flushedAtMs;
  m_state.counters = change.counters;
  if (wasEpoch) m_wantEpoch = false;
  for (const VolumeRecord& record : change.volumes) {
    Volume& volume = m_volumes[record.name];
    volume.record = record;
    volume.known = true;
  }
  Digest flushedChain = m_state.chain;
  for (const JournalRecord& record : m_state.journal) {
    if (record.n <= m_state.flushed) flushedChain = record.chain;
  }
  if (taken > 0) Report(FrameType::kAck, m_state.durable, m_state.chain);
  for (std::size_t i = 0; i < taken; ++i) {
    const auto arrival = std::move(m_arrivals.front());
    m_arrivals.pop_front();
    if (!arrival->direct) {
      if (arrival->kept.bytes > 0) m_kept.emplace(arrival->n, std::move(arrival->kept));
      continue;
    }
    flushedChain = arrival->chain;
    m_applied = m_synced = std::max(m_applied, arrival->n);
    Report(FrameType::kDone, arrival->n, arrival->chain);
  }
  if (taken > 0) m_trouble.clear();
  Apply(change, m_state.points);
  for (const JournalRecord& record : change.addJournal) {
    m_toApply.push_back(record);
    m_state.journal.push_back(record);
  }
  if (m_state.flushed > flushedBefore) {
    Report(FrameType::kFlushed, m_state.flushed, flushedChain);
    RemoveFlushed(change.dropJournalUpTo);
  }
  if (TargetPeer* peer = FindPeer(m_source)) Throttle(*peer);
}

void TargetGroup::Report(FrameType type, std::uint64_t n, const Digest& chain) {
  const TargetPeer* peer = FindPeer(m_source);
  if (peer == nullptr || !peer->welcomed) return;
  struct Report report;
  report.n = n;
  report.chain = chain;
  m_port.commands.emplace_back(SendFrame{m_source, Encode(type, report)});
}

void TargetGroup::RemoveFlushed(std::uint64_t upTo) {
  while (!m_state.journal.empty() && m_state.journal.front().n <= upTo) {
    const JournalRecord record = std::move(m_state.journal.front());
    m_state.journal.erase(m_state.journal.begin());
    for (const std::string& volume : record.volumes) {
      if (m_lost.erase({record.n, volume}) != 0) continue;  // kept aside
      const Ticket ticket = Ask([this](const IoDone& done) {
        if (done.status == IoStatus::kOk) return;
        m_port.commands.emplace_back(
            Note{NoteLevel::kError, "can't remove a flushed journal file: " + done.error});
      });
      m_port.commands.emplace_back(JournalRemove{ticket, m_state.group, volume, record.n, false});
    }
  }
}

}  // namespace penstock
