// SPDX-License-Identifier: Apache-2.0
// What the target knows of a group, and keeps across crashes.
#ifndef PENSTOCK_ENGINE_STATE_H_
#define PENSTOCK_ENGINE_STATE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "codec/hash.h"
#include "engine/wire/messages.h"
#include "penstock/host/uuid.h"

namespace penstock {

struct VolumeRecord {
  std::string name;
  std::uint64_t size = 0;
  VolumeState state = VolumeState::kNew;
  std::uint64_t goodAt = 0;  // the point it was at when it was last good
};

// A dataset that is durable and may still have to be applied. One without blocks has no volumes.
struct JournalRecord {
  std::uint64_t n = 0;
  std::uint32_t flags = 0;           // of its START
  Digest chain{};                    // up to and with n
  std::vector<std::string> volumes;  // those of which it has a file
  std::uint64_t bytes = 0;           // of its files
  std::uint64_t timestampMs = 0;     // of its START
};

// A point that somebody gave a name.
struct PointRecord {
  std::uint64_t n = 0;
  std::uint64_t timestampMs = 0;  // of its START
  std::string name;
  friend bool operator==(const PointRecord&, const PointRecord&) = default;
};
inline constexpr std::size_t kMaxPoints = 100;  // of a group that either side keeps: the newest

// Only ever grow. Counted per group.
struct Counters {
  std::uint64_t datasets = 0;       // made durable
  std::uint64_t rawBytes = 0;       // of their blocks, before compression
  std::uint64_t receivedBytes = 0;  // of their blocks, as they came
  std::uint64_t equalBytes = 0;     // that a comparison found equal
  std::uint64_t refused = 0;        // damaged or forbidden inputs
  std::uint64_t quarantined = 0;    // files of the journal that were damaged
  std::uint64_t connections = 0;    // that were welcomed
};

// The whole of a group's state, as it is read at the start.
struct GroupState {
  std::string group;
  std::uint64_t epoch = 0;
  std::uint64_t durable = 0;
  std::uint64_t flushed = 0;      // applied and synced: the number that survives a crash
  Digest chain{};                 // of `durable`
  std::uint64_t flushedAtMs = 0;  // the timestamp of dataset `flushed`: wall clock of the source
  std::vector<VolumeRecord> volumes;
  std::vector<JournalRecord> journal;  // flushed < n <= durable, ascending
  std::vector<PointRecord> points;     // with names, ascending, n <= durable; at most kMaxPoints
  Counters counters;
};

// One atomic, durable change. What is absent stays as it is.
struct StateChange {
  std::uint64_t epoch = 0;
  std::uint64_t durable = 0;
  std::uint64_t flushed = 0;
  Digest chain{};
  std::uint64_t flushedAtMs = 0;
  Counters counters;
  std::vector<VolumeRecord> volumes;  // inserted, or replaced by name
  std::vector<JournalRecord> addJournal;
  std::uint64_t dropJournalUpTo = 0;  // records with n up to this one go; 0: none
  std::vector<PointRecord> addPoints;
  std::vector<std::uint64_t> dropPoints;  // by number
};

// What the change does to a group's points.
inline void Apply(const StateChange& change, std::vector<PointRecord>& points) {
  for (const std::uint64_t n : change.dropPoints) {
    std::erase_if(points, [n](const PointRecord& point) { return point.n == n; });
  }
  points.insert(points.end(), change.addPoints.begin(), change.addPoints.end());
}

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_STATE_H_
