// SPDX-License-Identifier: Apache-2.0
// The target's durable datasets on their way to the volumes, at run time and after a start.
#include <algorithm>
#include <utility>

#include "engine/planted.h"
#include "engine/target_group.h"

namespace penstock {

// --- Recovery. ---

void TargetGroup::Start(const std::vector<JournalFile>& found, const Moment& now) {
  m_toApply.assign(m_state.journal.begin(), m_state.journal.end());
  for (const JournalFile& file : found) {
    const bool wanted =
        std::any_of(m_toApply.begin(), m_toApply.end(), [&](const JournalRecord& record) {
          return record.n == file.n &&
                 std::count(record.volumes.begin(), record.volumes.end(), file.volume) != 0;
        });
    if (wanted) continue;
    // Written but never committed, or not needed any more. It must be gone before its name is used
    // again: files are only ever made, never opened.
    ++m_removing;
    const Ticket ticket = Ask([this](const IoDone& done) {
      --m_removing;
      if (done.status != IoStatus::kOk) Fail("can't remove an uncommitted journal file", done);
    });
    m_port.commands.emplace_back(JournalRemove{ticket, m_state.group, file.volume, file.n, false});
  }
  if (Planted(Fault::kRecoverySkipsLast) && !m_toApply.empty()) {
    m_toApply.pop_back();
    if (m_toApply.empty()) m_applied = m_state.durable;
  }
  OpenNext(now);
  Advance(now);
}

// --- Applying. ---

void TargetGroup::TryApply(const Moment& now) {
  if (m_retryAt != kNever && now.steady < m_retryAt) return;
  while (m_applying == 0 && !m_toApply.empty()) {
    const JournalRecord record = m_toApply.front();
    for (const std::string& volume : record.volumes) {
      if (!m_volumes.at(volume).open) return OpenNext(now);
    }
    m_retryAt = kNever;
    m_applyBlocked = false;
    if (record.volumes.empty()) {
      RecordApplied(record);
    } else {
      ApplyOne(record, now);
    }
  }
}

void TargetGroup::ApplyOne(const JournalRecord& record, const Moment& now) {
  for (const std::string& volume : record.volumes) {
    ++m_applying;
    const Ticket ticket = Ask([this, record, volume, now](const IoDone& done) {
      FileApplied(record, volume, done, now);
    });
    ApplyFile apply{ticket, m_state.group, volume, record.n, m_volumes.at(volume).record.size, {}};
    if (const auto kept = m_kept.find(record.n); kept != m_kept.end()) {
      apply.blocks = kept->second.byVolume.at(volume);
    }
    m_port.commands.emplace_back(std::move(apply));
  }
}

void TargetGroup::FileApplied(const JournalRecord& record, const std::string& volume,
                              const IoDone& done, const Moment& now) {
  --m_applying;
  m_volumes.at(volume).dirty = true;
  switch (done.status) {
    case IoStatus::kOk: break;
    case IoStatus::kFailed:
      return Fail("dataset " + std::to_string(record.n) + " could not be applied", done);
    case IoStatus::kDamaged: LoseFile(record.n, volume, done.error); break;
    case IoStatus::kNoSpace:
      m_applyBlocked = true;
      m_applyTrouble = "no space to apply dataset " + std::to_string(record.n) + ": " + done.error;
      m_port.commands.emplace_back(Note{NoteLevel::kError, m_applyTrouble});
      break;
  }
  if (m_applying > 0) return;
  if (m_applyBlocked) {
    m_retryAt = now.steady + m_port.config.retryAfter;
    return;
  }
  RecordApplied(record);
}

void TargetGroup::RecordApplied(const JournalRecord& record) {
  m_toApply.pop_front();
  m_applied = record.n;
  if (const auto kept = m_kept.find(record.n); kept != m_kept.end()) {
    Release(kept->second);
    m_kept.erase(kept);
  }
  m_applyTrouble.clear();
  Report(FrameType::kDone, record.n, record.chain);
}

// --- Blocks that stay in memory. ---

// A dataset that has no room keeps nothing: it is read back from its files, which takes it as a
// whole. Nobody waits for room, so that no group can hold up another.
void TargetGroup::Keep(Arrival& arrival, const std::string& volume, const ArrivedBlock& block) {
  if (!arrival.kept.isWhole) return;
  const std::uint64_t bytes = block.size + kKeptOverhead;
  if (bytes > m_port.config.keepBytes - std::min(m_port.config.keepBytes, m_port.keptBytes)) {
    Release(arrival.kept);
    arrival.kept.isWhole = false;
    return;
  }
  auto& blocks = arrival.kept.byVolume[volume];
  if (!blocks) blocks = std::make_shared<ArrivedBlocks>();
  blocks->push_back(block);
  arrival.kept.bytes += bytes;
  m_port.keptBytes += bytes;
}

void TargetGroup::Release(KeptBlocks& kept) {
  m_port.keptBytes -= kept.bytes;
  kept.bytes = 0;
  kept.byVolume.clear();
}

// --- Damaged files. ---

// An acknowledged dataset can't be had again from the source: no volume of the group is a point of
// the source from here on, and the state says so before anything else is flushed.
void TargetGroup::LoseFile(std::uint64_t n, const std::string& volume, const std::string& why) {
  ++m_counters.quarantined;
  m_lost.insert({n, volume});
  m_port.commands.emplace_back(
      Note{NoteLevel::kError, "journal file of dataset " + std::to_string(n) + ", volume " +
                                  volume + ", is damaged and was put aside: " + why +
                                  "; the group needs a resync"});
  const Ticket ticket = Ask([](const IoDone&) {});
  m_port.commands.emplace_back(JournalRemove{ticket, m_state.group, volume, n, true});
  for (const auto& [name, each] : m_volumes) {
    VolumeRecord& record = m_changed[name] = each.record;
    record.state = VolumeState::kNeedsResync;
  }
  if (m_source != 0) Refuse(m_source, ErrorCode::kBusy, "the group needs a resync");
}

void TargetGroup::Tick(const Moment& now) {
  if (m_retryAt == kNever || now.steady < m_retryAt) return;
  m_retryAt = kNever;
  OpenNext(now);
  Advance(now);
}

}  // namespace penstock
