// SPDX-License-Identifier: Apache-2.0
// The target's datasets of one group as they arrive: written, closed, ready to be committed.
#include <algorithm>
#include <utility>

#include "engine/planted.h"
#include "engine/target_group.h"

namespace penstock {

// --- Commands and their answers. ---

Ticket TargetGroup::Ask(Then then) {
  const Ticket ticket = m_port.newTicket(m_index);
  m_then.emplace(ticket, std::move(then));
  return ticket;
}

void TargetGroup::Completed(const IoDone& done, const Moment& now) {
  const auto place = m_then.find(done.ticket);
  if (place == m_then.end() || m_halted) return;
  const Then then = std::move(place->second);
  m_then.erase(place);
  then(done);
  Advance(now);
}

// The state in memory can't be trusted any more: only a new start reads it from disk again. A
// failed sync is never tried again, because the second call may succeed without the data.
void TargetGroup::Fail(const std::string& what, const IoDone& done) {
  m_halted = true;
  m_port.commands.emplace_back(Halt{"group " + m_state.group + ": " + what + ": " + done.error});
}

void TargetGroup::Advance(const Moment& now) {
  if (m_halted) return;
  for (const auto& arrival : m_arrivals) StepArrival(*arrival);
  RemoveDropped();
  TryApply(now);
  TrySync();
  TryCommit();
  if (!m_recovered && m_removing == 0 && m_toApply.empty() && !m_opening && !m_committing &&
      m_state.flushed == m_state.durable && m_changed.empty()) {
    m_recovered = true;
    m_trouble.clear();
  }
  TryWelcome();
}

// --- Writing what arrives. ---

Arrival* TargetGroup::FindArrival(std::uint64_t n) {
  for (const auto& arrival : m_arrivals) {
    if (arrival->n == n) return arrival.get();
  }
  return nullptr;
}

void TargetGroup::Append(Arrival& arrival, const std::string& volume, const BlockPtr& block,
                         std::uint32_t size) {
  const std::uint64_t n = arrival.n;
  if (arrival.files.insert(volume).second) {
    ++arrival.outstanding;
    const Ticket ticket = Ask([this, n](const IoDone& done) { AfterWrite(n, 0, done); });
    m_port.commands.emplace_back(JournalOpen{ticket, m_state.group, volume, n, arrival.record});
  }
  ++arrival.outstanding;
  const Ticket ticket = Ask([this, n, size](const IoDone& done) { AfterWrite(n, size, done); });
  m_port.commands.emplace_back(JournalAppend{ticket, m_state.group, volume, n, block, size,
                                             m_volumes.at(volume).record.size});
  Keep(arrival, volume, {block, size});
}

// Whether blocks of a resync may go to their volume: everything before them is in the volumes, and
// the committed state says that the volume is being resynced.
bool TargetGroup::MayWriteDirect(const Arrival& arrival) {
  if (arrival.allowed) return true;
  for (const auto& before : m_arrivals) {
    if (before.get() == &arrival) break;
    // One that begins a resync holds back those behind it, too.
    if (!before->direct || !before->allowed) return false;
  }
  if (m_applied != m_state.durable || m_volumes.empty()) return false;
  const std::string& name = arrival.volumes.front();
  const VolumeRecord& record = m_volumes.at(name).record;
  const bool begins = (arrival.start.flags & kStartPassBegins) != 0;
  if (begins) {
    // The end of an earlier resync must not be mistaken for the end of this one.
    const bool alone = m_arrivals.front().get() == &arrival && m_state.flushed == m_state.durable;
    if (!alone || m_committing) return false;
  }
  const auto sync = [&](const VolumeRecord& volume) {
    VolumeRecord changed = volume;
    changed.goodAt = volume.state == VolumeState::kGood ? m_state.flushed : volume.goodAt;
    changed.state = VolumeState::kSyncing;
    m_changed[volume.name] = std::move(changed);
  };
  // A resync of one volume takes all that its source has from their common point.
  bool isReady = true;
  for (const std::string& other : arrival.passVolumes) {
    const VolumeRecord& known = m_volumes.at(other).record;
    if (known.state != VolumeState::kGood) continue;
    sync(known);
    isReady = false;
  }
  const bool stays = record.state == VolumeState::kNeedsResync && !begins;
  if (record.state == VolumeState::kSyncing || stays) return isReady;
  sync(record);
  return false;
}

void TargetGroup::WriteDirect(Arrival& arrival) {
  arrival.allowed = MayWriteDirect(arrival);
  if (!arrival.allowed) return;
  const std::uint64_t n = arrival.n;
  const std::string& volume = arrival.volumes.front();
  while (!arrival.waiting.empty()) {
    auto [block, size] = std::move(arrival.waiting.front());
    arrival.waiting.pop_front();
    ++arrival.outstanding;
    const Ticket ticket = Ask([this, n, size = size, volume](const IoDone& done) {
      m_volumes.at(volume).dirty = true;
      AfterWrite(n, size, done);
    });
    m_port.commands.emplace_back(WriteBlock{ticket, m_state.group, volume, std::move(block), size,
                                            m_volumes.at(volume).record.size});
  }
}

void TargetGroup::AfterWrite(std::uint64_t n, std::uint32_t size, const IoDone& done) {
  Arrival* arrival = FindArrival(n);
  if (arrival == nullptr) return;
  --arrival->outstanding;
  const ConnId conn = arrival->conn;
  Unqueue(conn, size);
  const std::string what = "dataset " + std::to_string(n);
  switch (done.status) {
    case IoStatus::kOk: return;
    case IoStatus::kFailed: return Fail(what + " could not be written", done);
    case IoStatus::kDamaged:
      if (arrival->dropped) return;
      DropFrom(n);
      if (FindPeer(conn) == nullptr) {
        ++m_counters.refused;
        return;
      }
      return Refuse(conn, ErrorCode::kDamaged, what + ": " + done.error, n);
    case IoStatus::kNoSpace:
      if (arrival->dropped) return;
      DropFrom(n);
      m_trouble = "no space for " + what + " (" + std::to_string(size) + " bytes): " + done.error;
      m_port.commands.emplace_back(Note{NoteLevel::kError, m_trouble});
      if (FindPeer(conn) != nullptr) Refuse(conn, ErrorCode::kNoSpace, m_trouble, n);
      return;
  }
}

// Gives up this dataset and those behind it: none of them was acknowledged.
void TargetGroup::DropFrom(std::uint64_t n) {
  for (const auto& arrival : m_arrivals) {
    if (arrival->n < n) continue;
    arrival->dropped = true;
    arrival->waiting.clear();
    Release(arrival->kept);
  }
}

void TargetGroup::RemoveDropped() {
  for (const auto& arrival : m_arrivals) {
    if (!arrival->dropped || arrival->outstanding != 0 ||
        arrival->stage == ArrivalStage::kDropping || arrival->stage == ArrivalStage::kSyncing) {
      continue;
    }
    arrival->stage = ArrivalStage::kDropping;
    const std::uint64_t n = arrival->n;
    for (const std::string& volume : arrival->files) {
      ++arrival->outstanding;
      const Ticket ticket = Ask([this, n](const IoDone& done) {
        if (done.status != IoStatus::kOk) return Fail("can't remove a journal file", done);
        if (Arrival* left = FindArrival(n)) --left->outstanding;
      });
      m_port.commands.emplace_back(JournalRemove{ticket, m_state.group, volume, n, false});
    }
  }
  std::erase_if(m_arrivals, [](const auto& arrival) {
    return arrival->stage == ArrivalStage::kDropping && arrival->outstanding == 0;
  });
}

// --- Making it durable. ---

void TargetGroup::StepArrival(Arrival& arrival) {
  if (arrival.dropped) return;
  switch (arrival.stage) {
    case ArrivalStage::kArriving:
      if (arrival.direct) WriteDirect(arrival);
      if (!arrival.ended || arrival.outstanding != 0) return;
      if (arrival.direct) {
        if (arrival.allowed) arrival.stage = ArrivalStage::kWritten;
      } else {
        CloseFiles(arrival);
      }
      return;
    case ArrivalStage::kClosing:
      if (arrival.outstanding == 0) SyncDirs(arrival);
      return;
    case ArrivalStage::kNaming:
      if (arrival.outstanding == 0) arrival.stage = ArrivalStage::kReady;
      return;
    case ArrivalStage::kWritten:
    case ArrivalStage::kSyncing:
    case ArrivalStage::kReady:
    case ArrivalStage::kDropping: return;
  }
}

void TargetGroup::CloseFiles(Arrival& arrival) {
  if (arrival.files.empty()) {
    arrival.stage = ArrivalStage::kReady;
    return;
  }
  arrival.stage = ArrivalStage::kClosing;
  const std::uint64_t n = arrival.n;
  for (const std::string& volume : arrival.files) {
    ++arrival.outstanding;
    const Ticket ticket = Ask([this, n](const IoDone& done) {
      if (Arrival* closed = FindArrival(n)) closed->fileBytes += done.bytes;
      if (done.status == IoStatus::kFailed && Planted(Fault::kRetryFsync)) {
        return AfterWrite(n, 0, IoDone{});
      }
      AfterWrite(n, 0, done);
    });
    m_port.commands.emplace_back(JournalClose{ticket, m_state.group, volume, n});
  }
}

void TargetGroup::SyncDirs(Arrival& arrival) {
  arrival.stage = ArrivalStage::kNaming;
  if (Planted(Fault::kApplyBeforeCommit)) {
    for (const std::string& volume : arrival.files) {
      const Ticket ticket = Ask([](const IoDone&) {});
      m_port.commands.emplace_back(ApplyFile{
          ticket, m_state.group, volume, arrival.n, m_volumes.at(volume).record.size, {}});
    }
  }
  if (Planted(Fault::kNoDirectorySync)) {
    arrival.stage = ArrivalStage::kReady;
    return;
  }
  const std::uint64_t n = arrival.n;
  std::vector<std::pair<std::uint64_t, std::string>> files;
  for (const std::string& volume : arrival.files) files.emplace_back(n, volume);
  ++arrival.outstanding;
  const Ticket ticket = Ask([this, n](const IoDone& done) { AfterWrite(n, 0, done); });
  m_port.commands.emplace_back(JournalSyncDirs{ticket, m_state.group, std::move(files)});
}

}  // namespace penstock
