// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_ENGINE_SOURCE_FEED_H_
#define PENSTOCK_ENGINE_SOURCE_FEED_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "engine/change_map.h"

namespace penstock {

// A write that a volume already has.
struct CapturedWrite {
  std::uint8_t volume = 0;
  std::uint64_t offset = 0;
  std::uint32_t length = 0;                    // bytes, at least 1
  std::shared_ptr<const std::uint8_t[]> data;  // null: zeros
};
// What a write takes beside its data, at most: its places in the dataset, its unit, the change map.
inline constexpr std::uint64_t kWriteOverhead = 256;

// Where a SourceEngine gets the writes of running volumes from, and who remembers across a crash
// what the target may not have. A source without one makes datasets of what it is given by
// SourceEngine::Write, and its passes go over whole volumes.
//
// Threads: the engine calls it from its own; an implementation takes writes from others.
class SourceFeed {
 public:
  virtual ~SourceFeed() = default;

  // From here on datasets have numbers, and writes are to be kept for them. `whole`, by volume:
  // nothing that the target has of it can be relied on.
  virtual void Begin(const std::vector<bool>& whole) = 0;
  // The backlog is gone: what was in datasets that are not flushed, or was kept for one, is only
  // marked now, and so is what is written until the next Begin.
  virtual void Lose() = 0;
  virtual bool IsRecording() const = 0;

  virtual bool HasWrites() const = 0;
  // Makes `out` what was kept since the last call, in order. It goes into dataset n.
  virtual void TakeWrites(std::uint64_t n, std::vector<CapturedWrite>& out) = 0;

  // Bytes that the engine holds in memory now: of writes, and for comparisons. `drains`: the writes
  // get less by themselves, the link takes them, or the spool.
  virtual void Carried(std::uint64_t writes, std::uint64_t comparisons, bool drains) = 0;

  // What of a volume has to be compared, and the part of it that dataset n, a resync, takes: see
  // ChangeMap.
  virtual std::uint64_t StaleBytes(std::uint8_t volume) const = 0;
  virtual std::vector<ChangeMap::Range> TakeStale(std::uint8_t volume, std::uint64_t n,
                                                  std::uint64_t most) = 0;
  // What a refused write left and could not be read since, in a group that is otherwise in order:
  // see ChangeMap. Refusals counts such writes: it only rises. CompareRefused makes it stale, but
  // for what is not in order yet with writes that were not taken, and nothing at all when
  // `refusals` are not all of them: what came since was not tried. Returns whether anything became
  // so.
  virtual bool HasRefused() const = 0;
  virtual std::uint64_t Refusals() const = 0;
  virtual ChangeMap::Range NextRefused(std::uint8_t volume, std::uint64_t from,
                                       std::uint64_t most) const = 0;
  virtual bool CompareRefused(std::uint64_t refusals) = 0;
  // Every dataset up to n is flushed at the target.
  virtual void Flushed(std::uint64_t n) = 0;

  // Clearing of marks that are not needed any more: see ChangeMap.
  virtual std::size_t ColdExtents() const = 0;
  virtual void BeginClear() = 0;
  virtual void EndClear() = 0;
  virtual void Cool() = 0;
};

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_SOURCE_FEED_H_
