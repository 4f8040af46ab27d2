// SPDX-License-Identifier: Apache-2.0
// A change map on a simulated disk, driven by a fuzzer's input, and a model beside it.
#ifndef PENSTOCK_FUZZ_DRIVEN_MAP_H_
#define PENSTOCK_FUZZ_DRIVEN_MAP_H_

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <optional>
#include <set>
#include <vector>

#include "engine/change_map.h"
#include "fuzz/byte_source.h"

namespace penstock::fuzz {

inline constexpr std::uint64_t kExtent = 4096;
inline constexpr std::size_t kBitBytes = kMapSectorBytes - kMapHashBytes;
inline constexpr std::uint64_t kPerSector = kExtentsPerSector;

inline UuidT IdOf(std::uint8_t byte) {
  UuidT id;
  id.bytes.fill(byte);
  return id;
}

// Sizes at which something ends: an extent, a word of bits, a sector.
inline std::uint64_t SomeSize(ByteSource& in) {
  constexpr std::uint64_t kExtents[] = {1, 3, 5, 63, 64, 65, 130, 131, 200, kPerSector + 1};
  const std::uint64_t extents = kExtents[in.Below(std::size(kExtents))];
  return in.Flag() ? extents * kExtent : (extents - 1) * kExtent + 1 + in.Byte();
}

class Driven {
 public:
  explicit Driven(ByteSource& in)
      : m_in(in),
        m_bytes(SomeSize(in)),
        m_extents((m_bytes + kExtent - 1) / kExtent),
        m_map(kId, m_bytes, kExtent, in.Below(4)),
        m_model(m_extents) {
    const std::array<std::uint8_t, kBitBytes> none{};
    const std::array<std::uint8_t, kBitBytes> first = [&] {
      auto bits = none;
      bits[0] = in.Byte();
      return bits;
    }();
    for (std::uint64_t i = 0; i * kPerSector < m_extents; ++i) {
      m_disk.push_back(EncodeBits(kId, i, i == 0 ? first : none));
      m_map.Load(i, m_disk.back());
    }
    for (std::uint64_t e = 0; e < std::min<std::uint64_t>(8, m_extents); ++e) {
      if ((first[0] >> e & 1U) != 0) m_model[e].isStale = true;
      Watch(e, e);
    }
  }

  void Run() {
    while (!m_in.AtEnd()) {
      Step();
      Check();
    }
    Crash();
  }

 private:
  struct Extent {
    bool isStale = false;
    std::uint64_t refusedAt = 0;  // the dataset that was open then; 0: it is not refused
    std::uint32_t writers = 0;    // that may have written
    std::uint64_t n = 0;          // the newest dataset that has something of it
    std::uint64_t writtenAt = 0;  // in the volume, as m_clock counts
    std::uint64_t markedBy = 0;   // what is stale without a write is on disk from here on
  };
  struct Writer {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    std::uint64_t waitsFor = 0;
    bool isThrough = false;
  };
  static inline const UuidT kId = IdOf(9);

  void Step() {
    switch (m_in.Below(13)) {
      case 0:
      case 1: return Begin();
      case 2:
      case 3: return End();
      case 4: return Take();
      case 5: return Saved();
      case 6: return Flushed();
      case 7: return TakeStale();
      case 8: return Lose();
      case 9: return Clear();
      case 10: return m_map.Cool();
      case 11: return CompareRefused(m_open + m_in.Below(2));
      default:
        if (m_in.Below(16) == 0) MarkAll();
    }
  }

  void Begin() {
    // Close to where a word or a sector of bits ends, so that writes meet.
    const std::uint64_t places[] = {0, 62, kPerSector - 2, m_extents - 1, 2 * kPerSector - 1};
    const std::uint64_t extent =
        std::min(places[m_in.Below(std::size(places))] + m_in.Below(4), m_extents - 1);
    Writer writer;
    writer.offset = std::min(extent * kExtent + std::uint64_t{m_in.Byte()} * 16, m_bytes - 1);
    writer.length =
        std::min<std::uint64_t>(1 + std::uint64_t{m_in.Byte()} * 48, m_bytes - writer.offset);
    writer.waitsFor = m_map.Begin(writer.offset, writer.length);
    FUZZ_CHECK(writer.waitsFor == 0 || writer.waitsFor > m_map.SavedGeneration());
    Watch(writer.offset / kExtent, LastOf(writer));
    m_writers.push_back(writer);
    LetThrough();
  }

  static std::uint64_t LastOf(const Writer& writer) {
    return (writer.offset + writer.length - 1) / kExtent;
  }
  void Watch(std::uint64_t first, std::uint64_t last) {
    for (std::uint64_t e = first; e <= last; ++e) m_watched.insert(e);
  }

  // Whoever need not wait any more writes to the volume.
  void LetThrough() {
    for (Writer& writer : m_writers) {
      if (writer.isThrough || writer.waitsFor > m_map.SavedGeneration()) continue;
      writer.isThrough = true;
      for (auto e = writer.offset / kExtent; e <= LastOf(writer); ++e) ++m_model[e].writers;
    }
  }

  void End() {
    if (m_writers.empty()) return;
    const auto place = m_writers.begin() + m_in.Byte() % static_cast<int>(m_writers.size());
    if (!place->isThrough) return;
    const std::uint32_t how = m_in.Below(5);
    const bool isRefused = how == 1;
    const std::uint64_t n = how <= 1 ? 0 : m_open;
    if (isRefused) {
      m_map.Refuse(place->offset, place->length, m_open);
    } else {
      m_map.End(place->offset, place->length, n);
    }
    for (auto e = place->offset / kExtent; e <= LastOf(*place); ++e) {
      --m_model[e].writers;
      m_model[e].n = std::max(m_model[e].n, n);
      m_model[e].isStale = m_model[e].isStale || how == 0;
      if (isRefused) m_model[e].refusedAt = m_open;
      m_model[e].writtenAt = m_clock;
    }
    ++m_clock;
    m_writers.erase(place);
  }

  void Take() {
    if (m_save || !m_map.HasUnsaved()) return;
    const std::uint64_t wanted = m_map.UnsavedGeneration();
    m_save = m_map.TakeUnsaved();
    FUZZ_CHECK(m_save->generation >= wanted && !m_map.HasUnsaved());
    for (const auto& [index, sector] : m_save->sectors) {
      FUZZ_CHECK(index >= 1 && index <= m_disk.size());
      FUZZ_CHECK(CheckBits(kId, index - 1, sector));
    }
  }

  void Saved() {
    if (!m_save) return;
    for (const auto& [index, sector] : m_save->sectors) m_disk[index - 1] = sector;
    m_map.Saved(m_save->generation);
    FUZZ_CHECK(m_map.SavedGeneration() == m_save->generation);
    m_save.reset();
    LetThrough();
  }

  // Datasets are closed one by one, and flushed in order; what is open never is.
  void Flushed() {
    m_open += m_in.Below(3);
    m_flushed = std::min(m_open - 1, m_flushed + m_in.Below(3));
    m_map.Flushed(m_flushed);
  }

  void TakeStale() {
    const std::uint64_t n = m_open++;
    const std::uint64_t unit = m_in.Flag() ? 1 : 4 * kExtent;
    const std::uint64_t most = std::uint64_t{m_in.Below(6)} * 3 * kExtent;
    const std::uint64_t before = m_map.StaleBytes();
    std::uint64_t taken = 0;
    std::uint64_t end = 0;
    const auto ranges = m_map.TakeStale(n, most, unit);
    for (const auto& range : ranges) {
      FUZZ_CHECK(range.length > 0 && range.offset % kExtent == 0);
      FUZZ_CHECK(taken == 0 || range.offset > end);
      FUZZ_CHECK(&range == &ranges.back() || range.length % unit == 0);
      end = range.offset + range.length;
      FUZZ_CHECK(end <= m_bytes && (end == m_bytes || end % kExtent == 0));
      taken += range.length;
      for (auto e = range.offset / kExtent; e * kExtent < end; ++e) {
        FUZZ_CHECK(m_model[e].isStale);
        m_model[e].isStale = false;
        m_model[e].n = std::max(m_model[e].n, n);
        Watch(e, e);
      }
    }
    FUZZ_CHECK(taken == before - m_map.StaleBytes());
    FUZZ_CHECK(taken <= std::max(most, kExtent) && (taken > 0 || before == 0));
  }

  void CompareRefused(std::uint64_t n) {
    bool any = false;
    for (Extent& extent : m_model) {
      if (extent.refusedAt == 0 || extent.refusedAt >= n) continue;
      extent.refusedAt = 0;
      extent.isStale = any = true;
    }
    FUZZ_CHECK(m_map.CompareRefused(n) == any);
  }

  // The numbers of what is captured from here on are above those that were lost.
  void Lose() {
    m_map.Lose();
    ++m_open;
    for (Extent& extent : m_model) {
      extent.isStale = extent.isStale || extent.refusedAt != 0;
      extent.refusedAt = 0;
      if (extent.n <= m_flushed) continue;
      extent.isStale = true;
      extent.n = 0;
    }
  }

  // In between, the volume is synced: as early as can be.
  void Clear() {
    const std::uint32_t what = m_in.Below(3);
    if (what != 1) {
      m_map.BeginClear();
      m_syncing = m_clock;
    }
    if (what == 0) return;
    m_map.EndClear();
    m_synced = m_syncing;
  }

  // What is stale without a write before it need not be on disk before the next save.
  void MarkAll() {
    m_map.MarkAll();
    const std::uint64_t by = m_map.UnsavedGeneration();
    for (std::uint64_t e = 0; e < m_extents; ++e) {
      if (!IsNeeded(e)) m_model[e].markedBy = by;
      m_model[e].isStale = true;
      m_model[e].refusedAt = 0;
    }
  }

  bool IsNeeded(std::uint64_t e) {
    Extent& extent = m_model[e];
    if (extent.markedBy != 0) {
      if (m_map.SavedGeneration() < extent.markedBy) return extent.writers > 0;
      extent.markedBy = 0;
    }
    // What the target has and the volume may lose has to be compared as well.
    return extent.isStale || extent.refusedAt != 0 || extent.writers > 0 || extent.n > m_flushed ||
           extent.writtenAt >= m_synced;
  }

  static bool IsMarked(const MapSector& sector, std::uint64_t e) {
    return (sector[e % kPerSector / 8] >> (e % 8) & 1U) != 0;
  }

  void CheckOne(std::uint64_t e) {
    if (!IsNeeded(e)) return;
    FUZZ_CHECK(IsMarked(m_disk[e / kPerSector], e));
    if (!m_save) return;
    // A save that is under way may be on disk already.
    for (const auto& [index, sector] : m_save->sectors) {
      FUZZ_CHECK(index != e / kPerSector + 1 || IsMarked(sector, e));
    }
  }

  void Check() {
    for (const std::uint64_t e : m_watched) CheckOne(e);
    FUZZ_CHECK(m_map.IsClean() == (m_map.MarkedExtents() == 0));
    FUZZ_CHECK(m_map.MarkedExtents() <= m_extents);
  }

  // The power goes in the middle of a save, if there is one: any of its sectors are on disk.
  void Crash() {
    std::uint64_t bytes = 0;
    std::uint64_t refused = 0;
    for (std::uint64_t e = 0; e < m_extents; ++e) {
      CheckOne(e);
      const std::uint64_t size = std::min(kExtent, m_bytes - e * kExtent);
      if (m_model[e].isStale) bytes += size;
      if (m_model[e].refusedAt != 0) refused += size;
    }
    FUZZ_CHECK(m_map.StaleBytes() == bytes && m_map.RefusedBytes() == refused);
    if (m_save) {
      for (const auto& [index, sector] : m_save->sectors) {
        if (index % 2 == 0) m_disk[index - 1] = sector;
      }
    }
    ChangeMap after(kId, m_bytes, kExtent, 4);
    for (std::uint64_t i = 0; i < m_disk.size(); ++i) after.Load(i, m_disk[i]);
    std::vector<bool> stale(m_extents);
    for (const auto& range : after.TakeStale(1, ~std::uint64_t{0})) {
      for (auto e = range.offset / kExtent; e * kExtent < range.offset + range.length; ++e) {
        stale[e] = true;
      }
    }
    for (std::uint64_t e = 0; e < m_extents; ++e) FUZZ_CHECK(stale[e] || !IsNeeded(e));
  }

  ByteSource& m_in;
  const std::uint64_t m_bytes;
  const std::uint64_t m_extents;
  ChangeMap m_map;
  std::vector<Extent> m_model;
  std::set<std::uint64_t> m_watched;  // those that are looked at after each step
  std::vector<Writer> m_writers;
  std::vector<MapSector> m_disk;  // without the header
  std::optional<ChangeMap::Save> m_save;
  std::uint64_t m_open = 1;
  std::uint64_t m_flushed = 0;
  std::uint64_t m_clock = 1;  // of writes that ended
  std::uint64_t m_syncing = 1;
  std::uint64_t m_synced = 1;  // the volume: what was written before
};

}  // namespace penstock::fuzz

#endif  // PENSTOCK_FUZZ_DRIVEN_MAP_H_
