// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_ENGINE_CHANGE_MAP_H_
#define PENSTOCK_ENGINE_CHANGE_MAP_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <list>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "codec/hash.h"
#include "penstock/host/uuid.h"

namespace penstock {

// A change map says, across a crash of the source, which extents of a volume may differ from the
// target. It is a file of sectors of 512 bytes, each of which a disk writes as a whole or not at
// all: a header and then one bit an extent. Every sector has its own hash.
inline constexpr std::size_t kMapSectorBytes = 512;
inline constexpr std::size_t kMapHashBytes = 8;
inline constexpr std::uint64_t kExtentsPerSector = (kMapSectorBytes - kMapHashBytes) * 8;
using MapSector = std::array<std::uint8_t, kMapSectorBytes>;

// The first sector. A map whose header names another volume, size or extent is none of ours.
struct MapHeader {
  UuidT id;      // of this map: drawn when it was made; every hash depends on it
  UuidT volume;  // VolumeId
  std::uint64_t volumeBytes = 0;
  std::uint64_t extentBytes = 0;
};
MapSector Encode(const MapHeader& header);
// Returns an empty text, or why the sector is no header of a map.
std::string Decode(const MapSector& sector, MapHeader& out);

// A sector of bits: `index` from 0.
MapSector EncodeBits(const UuidT& map, std::uint64_t index,
                     const std::array<std::uint8_t, kMapSectorBytes - kMapHashBytes>& bits);
// Returns whether the sector's hash is right.
bool CheckBits(const UuidT& map, std::uint64_t index, const MapSector& sector);
// Sectors of a map, the header included.
std::uint64_t MapSectors(std::uint64_t volumeBytes, std::uint64_t extentBytes);

// Which extents of one volume may differ from the target, and which of these are marked on disk.
//
// An extent is marked durably before the first write to it reaches the volume, and stays so until
// every write to it is flushed at the target. Extents of which that is true are not cleared at
// once, because the next write would have to mark them again: the last `hotExtents` of them stay.
// What is colder is cleared in batches, by BeginClear and EndClear: in between, its owner syncs the
// volume. Without that a power cut could take back, here only, what the target has already.
//
// States of an extent:
//   clear     the target has it
//   busy      marked; writes to it are under way, or in datasets that are not flushed
//   hot       marked; the target has it, too
//   cold      marked; the target has it, and it may be cleared
//   stale     marked; something of it is in no dataset: it has to be compared
//   refused   busy; what a refused write left there could not be read, so that it is in no dataset
//             either: it becomes stale once it can be, and once the writes before it are sent
//
// It has no I/O: its owner writes the sectors of TakeUnsaved, syncs them and says Saved.
// Threads: one at a time.
class ChangeMap {
 public:
  static constexpr std::uint64_t kDefaultExtentBytes = 1U << 20U;

  struct Range {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    friend bool operator==(const Range&, const Range&) = default;
  };
  struct Save {
    std::uint64_t generation = 0;
    std::vector<std::pair<std::uint64_t, MapSector>>
        sectors;  // by index, from 1: behind the header
  };

  // REQUIRES: volumeBytes >= 1; extentBytes a multiple of 4096.
  ChangeMap(const UuidT& id, std::uint64_t volumeBytes,
            std::uint64_t extentBytes = kDefaultExtentBytes, std::size_t hotExtents = 4096);

  // Takes what is on disk after a start: every extent that is marked there is stale.
  // REQUIRES: `sector` passed CheckBits.
  void Load(std::uint64_t index, const MapSector& sector);
  // Nothing is known: every extent is stale.
  void MarkAll();

  // A write begins. Returns the generation that has to be saved before it may reach the volume, or
  // 0 when it may at once. REQUIRES: the range lies in the volume, length >= 1.
  std::uint64_t Begin(std::uint64_t offset, std::uint64_t length);
  // It has reached the volume, and dataset n. 0: no dataset has it, the extents are stale.
  void End(std::uint64_t offset, std::uint64_t length, std::uint64_t n);

  // The volume refused it, and what it left is in no dataset: the extents are refused from dataset
  // n on, the one that is open.
  void Refuse(std::uint64_t offset, std::uint64_t length, std::uint64_t n);
  // Makes those stale that were refused before dataset n was open. Returns whether there were any.
  bool CompareRefused(std::uint64_t n);
  std::uint64_t RefusedBytes() const;
  // The first refused bytes from `from` on, of one extent, at most `most`; length 0: there are
  // none.
  Range NextRefused(std::uint64_t from, std::uint64_t most) const;

  // What has to be written. At most one save is under way.
  bool HasUnsaved() const { return !m_unsaved.empty(); }
  // The generation with which everything up to now is saved; 0: it is.
  std::uint64_t UnsavedGeneration() const {
    if (HasUnsaved()) return m_next;
    return m_saved + 1 < m_next ? m_next - 1 : 0;
  }
  Save TakeUnsaved();
  void Saved(std::uint64_t generation);
  std::uint64_t SavedGeneration() const { return m_saved; }

  // Every dataset up to n is flushed at the target.
  void Flushed(std::uint64_t n);
  // Of the datasets that are not flushed nothing is kept: what they held is stale.
  void Lose();
  // The stale ranges, merged, in order. They are compared by dataset n, which is being made: from
  // here on they are busy. `most` bounds the number of bytes taken at a time (one extent at least);
  // the rest stays stale. All ranges but the last are multiples of `unit` long.
  std::vector<Range> TakeStale(std::uint64_t n, std::uint64_t most, std::uint64_t unit = 1);

  // Clears what is cold: between the two calls the volume has to be synced, and the number of the
  // newest dataset that is known to be flushed has to be made durable. What was written to
  // meanwhile stays. One at a time; a begun one may be given up by beginning another.
  std::size_t ColdExtents() const { return m_cold.size(); }
  void BeginClear();
  void EndClear();
  // Makes the hot extents cold, too: the source stops.
  void Cool();

  std::uint64_t StaleBytes() const;
  std::uint64_t MarkedExtents() const { return m_marked; }
  // Nothing is marked.
  bool IsClean() const { return m_marked == 0; }
  // Saves that a write had to wait for.
  std::uint64_t Marks() const { return m_marks; }

 private:
  enum class Kind : std::uint8_t { kBusy, kHot, kCold };
  struct Extent {
    Kind kind = Kind::kBusy;
    bool clearing = false;  // of a cold one
    std::uint32_t writers = 0;
    std::uint64_t n = 0;  // the newest dataset that has something of it; 0: none yet
    std::list<std::uint64_t>::iterator place;  // of a hot or cold one
  };
  using Bits = std::vector<std::uint64_t>;

  static bool Has(const Bits& bits, std::uint64_t extent) {
    return (bits[extent / 64] >> (extent % 64) & 1U) != 0;
  }
  static void Set(Bits& bits, std::uint64_t extent, bool value);
  void Mark(std::uint64_t extent);
  void Unmark(std::uint64_t extent);
  void Heat(std::uint64_t extent, Extent& state);
  void CoolOne();
  void MakeStale(std::uint64_t extent);
  Extent& Touch(std::uint64_t extent);
  // The part of an extent behind `from`.
  Range PartOf(std::uint64_t extent, std::uint64_t from) const;
  MapSector SectorOf(std::uint64_t index) const;
  std::uint64_t Last(std::uint64_t offset, std::uint64_t length) const {
    return (offset + length - 1) / m_extentBytes;
  }

  UuidT m_id;
  std::uint64_t m_volumeBytes;
  std::uint64_t m_extentBytes;
  std::uint64_t m_extents;
  std::size_t m_hotLimit;

  Bits m_bits;   // marked, as they are to be on disk
  Bits m_stale;  // of those
  std::uint64_t m_marked = 0;
  std::uint64_t m_staleCount = 0;
  std::unordered_map<std::uint64_t, Extent> m_known;  // busy, hot and cold ones
  std::list<std::uint64_t> m_hot;                     // the coldest first
  std::list<std::uint64_t> m_cold;
  std::map<std::uint64_t, std::uint64_t> m_refused;  // since which dataset
  std::uint64_t m_flushed = 0;

  // A mark is in generation `m_next` until that is taken to be saved.
  std::unordered_map<std::uint64_t, std::uint64_t> m_unsaved;   // sector -> generation
  std::unordered_map<std::uint64_t, std::uint64_t> m_markedAt;  // extent -> generation, until saved
  std::uint64_t m_next = 1;
  std::uint64_t m_saved = 0;
  std::uint64_t m_marks = 0;
};

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_CHANGE_MAP_H_
