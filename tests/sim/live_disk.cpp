// SPDX-License-Identifier: Apache-2.0
// What can be wrong with the disk of a source with live capture: places that can't be got at, syncs
// that fail, a map that can't be written; and the reads of comparisons, which meet all that.
#include <algorithm>
#include <memory>
#include <utility>

#include "engine/planted.h"
#include "engine/work.h"
#include "tests/sim/live_node.h"

namespace penstock::sim {

// --- Places that can't be got at. ---

void LiveNode::BreakSector() {
  Bad bad;
  bad.volume = static_cast<std::uint8_t>(m_world.rng.Below(m_options.volumes.size()));
  const std::uint64_t size = m_options.volumes[bad.volume].size;
  bad.offset = m_world.rng.Below(size);
  bad.length = std::min<std::uint64_t>(size - bad.offset, m_world.rng.Between(1, 20'000));
  if (m_engine && !m_capture->m_writes.empty() && m_world.rng.Chance(0.5)) {
    // Under a write that was captured and is not sent yet: the guest writes there again.
    const CapturedWrite& last = m_capture->m_writes.back();
    bad = {last.volume, last.offset, last.length};
    m_again = bad;
  }
  m_world.Log("source: can't get at v" + std::to_string(bad.volume) + " " +
              std::to_string(bad.offset) + " + " + std::to_string(bad.length));
  m_bad = bad;
}

bool LiveNode::IsBad(std::uint8_t volume, std::uint64_t offset, std::uint64_t length) const {
  return m_bad && m_bad->volume == volume && m_bad->offset < offset + length &&
         offset < m_bad->offset + m_bad->length;
}

// Returns whether what the write left could be read back: then `write` is that.
bool LiveNode::EndRefused(const Op& op, CapturedWrite& write) {
  auto data = std::make_shared<std::uint8_t[]>(op.length);
  m_disk.Read(Volume(op.volume), op.offset, data.get(), op.length);
  if (!IsBad(op.volume, op.offset, op.length)) {
    write.data = std::move(data);
    return true;
  }
  m_world.Log("source: refuses v" + std::to_string(op.volume) + " " + std::to_string(op.offset) +
              " + " + std::to_string(op.length));
  ++refused;
  m_left.push_back({op.volume,
                    op.offset,
                    {data.get(), data.get() + op.length},
                    m_stamp + m_capture->m_writes.size()});
  m_capture->Failed(op.volume, op.offset, op.length);
  if (m_world.rng.Chance(0.3)) MendSector();  // a cable, say: what was captured before still waits
  return false;
}

void LiveNode::PatchLeft(const CapturedWrite& write) {
  for (Left& left : m_left) {
    if (left.volume != write.volume) continue;
    const std::uint64_t begin = std::max(left.offset, write.offset);
    const std::uint64_t end = std::min(left.offset + left.data.size(), write.offset + write.length);
    for (std::uint64_t at = begin; at < end; ++at) {
      left.data[at - left.offset] = write.data ? write.data.get()[at - write.offset] : 0;
    }
  }
}

// Whether it is still to be compared, whatever else reads it.
bool LiveNode::IsRefused(const Left& left) const {
  const auto next = m_capture->NextRefused(left.volume, left.offset, 1);
  return next.length > 0 && next.offset < left.offset + left.data.size();
}

// A write that is in a dataset. What was refused after it and is compared already stays.
void LiveNode::Take(const TakenWrite& taken) {
  const CapturedWrite& write = taken.write;
  Apply(m_taken, write);
  for (const Left& left : m_left) {
    if (left.volume != write.volume || taken.stamp >= left.stamp || IsRefused(left)) continue;
    const std::uint64_t begin = std::max(left.offset, write.offset);
    const std::uint64_t end = std::min(left.offset + left.data.size(), write.offset + write.length);
    for (std::uint64_t at = begin; at < end; ++at) {
      m_taken[left.volume][at] = left.data[at - left.offset];
    }
  }
}

// The comparison of dataset n reads it: what follows has it, but for what later datasets bring.
void LiveNode::SeeLeft(const FetchWindow& command, std::uint64_t n) {
  for (const Left& left : m_left) {
    if (left.volume != command.volume) continue;
    const std::uint64_t begin = std::max(left.offset, command.offset);
    const std::uint64_t end =
        std::min(left.offset + left.data.size(), command.offset + command.length);
    for (std::uint64_t at = begin; at < end; ++at) {
      m_live[left.volume][at] = m_taken[left.volume][at] = left.data[at - left.offset];
    }
  }
  for (auto place = m_takenBy.upper_bound(n); place != m_takenBy.end(); ++place) {
    Take(place->second);
  }
}

// --- Syncs. ---

// After one that failed nothing of the volume is known to be on the disk, whatever a later one
// says.
IoStatus LiveNode::SyncVolume(std::size_t index) {
  if (m_unsynced.contains(index) && !Planted(Fault::kSyncsAgain)) return IoStatus::kFailed;
  if (m_world.Strikes(m_world.faults.syncFails)) m_disk.FailNextSync();
  const IoStatus status = m_disk.Sync(Volume(index));
  if (status != IoStatus::kOk) {
    m_world.Log("source: a sync of v" + std::to_string(index) + " fails");
    m_unsynced.insert(index);
  }
  return status;
}

// A map that lacks a mark is worse than none.
IoStatus LiveNode::SyncMap(std::uint8_t volume) {
  if (m_mapGone.contains(volume)) return IoStatus::kOk;
  if (m_world.Strikes(m_world.faults.syncFails)) m_disk.FailNextSync();
  if (m_disk.Sync(Map(volume)) == IoStatus::kOk) return IoStatus::kOk;
  m_world.Log("source: the map of v" + std::to_string(volume) + " can't be written");
  m_disk.Remove(Map(volume));
  m_disk.SyncName(Map(volume));
  m_mapGone.insert(volume);
  return IoStatus::kFailed;
}

// What is compared after a start is what the disk has: of what a failed sync lost the system may
// still have the pages.
void LiveNode::ForgetPages(std::uint8_t volume) {
  if (m_boot == 1 || m_capture->StaleBytes(volume) == 0 || Planted(Fault::kComparesPages)) return;
  SyncVolume(volume);
  m_disk.Forget(Volume(volume));
}

// A comparison's reads keep out of the way of writes, as they keep out of each other's.
void LiveNode::Fetch(const FetchWindow& command) {
  After(m_world.Latency(), [this, c = command] {
    if (Overlaps(c.volume, c.offset, c.length)) return Fetch(c);
    WindowFetched result;
    const auto job = m_engine->m_jobs.find(c.ticket);
    if (IsBad(c.volume, c.offset, c.length)) {
      result.ticket = c.ticket;
      result.status = IoStatus::kFailed;
      result.error = "bad sector";
    } else if (c.compare) {
      auto data = std::make_shared<std::uint8_t[]>(c.length);
      m_disk.Read(Volume(c.volume), c.offset, data.get(), c.length);
      result = FingerprintWindow(c, data);
      if (m_world.faults.weakPrints) {
        for (std::uint64_t& print : result.fingerprints) print &= 3U;
      }
    } else {
      const BlockPtr raw = BeginRawBlock(0, {c.offset, c.length});
      m_disk.Read(Volume(c.volume), c.offset, RawData(*raw).data(), c.length);
      result = CopyWindow(c, raw);
    }
    // One that only tries whether it can be read sends nothing.
    const bool isSent = job != m_engine->m_jobs.end() && job->second.n != 0;
    if (result.status == IoStatus::kOk && isSent) SeeLeft(c, job->second.n);
    m_engine->Completed(std::move(result), m_world.Now());
    Settle();
  });
}

}  // namespace penstock::sim
