// SPDX-License-Identifier: Apache-2.0
// Change maps. An input is either what a disk holds where a map should be, opened as a start does
// it: what is believed must be exactly what a map of this volume says, and anything else means that
// all of the volume is compared. Or it is a string of writes, saves, reports and clearings on one
// map, with a model beside it: whatever is under way or has to be compared must be marked on the
// disk at every moment, for the power may go at any.
#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "capture/map_file.h"
#include "fuzz/byte_source.h"
#include "fuzz/scratch_folder.h"

namespace {

using penstock::Capture;
using penstock::ChangeMap;
using penstock::MapFile;
using penstock::MapHeader;
using penstock::MapSector;
using ByteString = std::vector<std::uint8_t>;

constexpr std::uint64_t kExtent = 4096;
constexpr std::size_t kBitBytes = penstock::kMapSectorBytes - penstock::kMapHashBytes;
constexpr std::uint64_t kPerSector = penstock::kExtentsPerSector;

UuidT IdOf(std::uint8_t byte) {
  UuidT id;
  id.bytes.fill(byte);
  return id;
}

// Sizes at which something ends: an extent, a word of bits, a sector.
std::uint64_t SomeSize(ByteSource& in) {
  constexpr std::uint64_t kExtents[] = {1, 3, 5, 63, 64, 65, 130, 131, 200, kPerSector + 1};
  const std::uint64_t extents = kExtents[in.Below(std::size(kExtents))];
  return in.Flag() ? extents * kExtent : (extents - 1) * kExtent + 1 + in.Byte();
}

// --- A map as it is found. ---

MapSector SectorAt(const ByteString& file, std::size_t index) {
  MapSector sector{};
  std::copy_n(file.begin() + static_cast<std::ptrdiff_t>(index * sector.size()), sector.size(),
              sector.begin());
  return sector;
}

// What the file says by itself, read without the code under test: which extents are marked; nothing
// when it is no whole map of this volume.
std::optional<std::vector<bool>> MarksOf(const ByteString& file, const MapHeader& wanted) {
  const std::uint64_t extents = (wanted.volumeBytes + kExtent - 1) / kExtent;
  const std::uint64_t sectors = (extents + kPerSector - 1) / kPerSector;
  MapHeader header;
  if (file.size() < (1 + sectors) * penstock::kMapSectorBytes) return std::nullopt;
  if (!penstock::Decode(SectorAt(file, 0), header).empty()) return std::nullopt;
  if (penstock::Encode(header) != SectorAt(file, 0)) return std::nullopt;
  if (header.volume != wanted.volume || header.volumeBytes != wanted.volumeBytes ||
      header.extentBytes != wanted.extentBytes) {
    return std::nullopt;
  }
  std::vector<bool> marks(extents);
  for (std::uint64_t i = 0; i < sectors; ++i) {
    const MapSector sector = SectorAt(file, 1 + i);
    std::array<std::uint8_t, kBitBytes> bits{};
    std::copy_n(sector.begin(), bits.size(), bits.begin());
    if (penstock::EncodeBits(header.id, i, bits) != sector) return std::nullopt;
    for (std::uint64_t bit = 0; bit < kPerSector && i * kPerSector + bit < extents; ++bit) {
      marks[i * kPerSector + bit] = (bits[bit / 8] >> (bit % 8) & 1U) != 0;
    }
  }
  return marks;
}

ByteString FileOf(ByteSource& in, const MapHeader& header) {
  const std::uint64_t sectors = penstock::MapSectors(header.volumeBytes, header.extentBytes);
  const MapSector first = penstock::Encode(header);
  ByteString file(first.begin(), first.end());
  for (std::uint64_t i = 0; i + 1 < sectors; ++i) {
    std::array<std::uint8_t, kBitBytes> bits{};
    if (in.Flag()) bits.fill(in.Byte());
    bits[in.Byte()] = in.Byte();
    bits[kBitBytes - 1] ^= in.Byte();
    const MapSector sector = penstock::EncodeBits(header.id, i, bits);
    file.insert(file.end(), sector.begin(), sector.end());
  }
  return file;
}

// One change: of a byte, of the length, of whole sectors, or a header that is right in itself.
void Damage(ByteSource& in, ByteString& file, const MapHeader& wanted) {
  if (file.empty()) return;
  const std::size_t at = (in.Byte() * 256U + in.Byte()) % file.size();
  const std::size_t sectors = file.size() / penstock::kMapSectorBytes;
  switch (in.Below(6)) {
    case 0: file[at] ^= static_cast<std::uint8_t>(1U << in.Below(8)); break;
    case 1: file.resize(at); break;
    case 2: file.insert(file.end(), in.Byte(), in.Byte()); break;
    case 3: {
      if (sectors < 2) break;
      const MapSector sector = SectorAt(file, in.Byte() % sectors);
      const std::size_t to = in.Byte() % sectors;
      std::copy(sector.begin(), sector.end(),
                file.begin() + static_cast<std::ptrdiff_t>(to * sector.size()));
      break;
    }
    default: {
      if (sectors < 1) break;
      MapHeader header = wanted;
      if (in.Flag()) header.id = IdOf(in.Byte());
      if (in.Flag()) header.volume = IdOf(in.Byte());
      if (in.Flag()) header.volumeBytes = in.Offset();
      if (in.Flag()) header.extentBytes = in.Offset();
      const MapSector sector = penstock::Encode(header);
      std::copy(sector.begin(), sector.end(), file.begin());
      break;
    }
  }
}

// Opens the map as a start does. Returns which extents are stale then. `isKnown`: nothing was said
// against the file before its bits were read.
std::vector<bool> StaleAtStart(const std::string& path, const MapHeader& wanted, bool& isKnown) {
  std::unique_ptr<MapFile> map;
  std::string note;
  FUZZ_CHECK(MapFile::Open(path, wanted.volume, wanted.volumeBytes, kExtent, map, note).empty());
  FUZZ_CHECK(map != nullptr);
  isKnown = note.empty();
  Capture capture(
      {.volumes = {{map->Id(), wanted.volumeBytes}}, .extentBytes = kExtent, .hotExtents = 8});
  FUZZ_CHECK(map->Load(capture, 0).empty());
  FUZZ_CHECK(map->SaveAll());
  const std::uint64_t extents = (wanted.volumeBytes + kExtent - 1) / kExtent;
  std::vector<bool> stale(extents);
  std::uint64_t bytes = capture.StaleBytes(0);
  std::uint64_t end = 0;
  for (const auto& range : capture.m_maps[0].TakeStale(1, ~std::uint64_t{0})) {
    FUZZ_CHECK(range.offset >= end && range.length > 0 && range.length <= bytes);
    end = range.offset + range.length;
    FUZZ_CHECK(end <= wanted.volumeBytes && range.offset % kExtent == 0);
    for (auto i = range.offset / kExtent; i * kExtent < end; ++i) stale[i] = true;
    bytes -= range.length;
  }
  FUZZ_CHECK(bytes == 0);
  return stale;
}

void OpenFound(ByteSource& in) {
  static const ScratchFolder folder;
  const std::string path = folder.Path() + "/v.map";
  MapHeader wanted;
  wanted.volume = IdOf(7);
  wanted.id = IdOf(in.Byte());
  wanted.volumeBytes = SomeSize(in);
  wanted.extentBytes = kExtent;
  ByteString file;
  if (in.Flag()) {
    while (!in.AtEnd()) file.push_back(in.Byte());
  } else {
    file = FileOf(in, wanted);
    for (std::uint32_t i = in.Below(4); i > 0; --i) Damage(in, file, wanted);
  }
  WriteWhole(path, file);
  const auto marks = MarksOf(file, wanted);
  bool isKnown = false;
  const std::vector<bool> stale = StaleAtStart(path, wanted, isKnown);
  if (marks) {
    FUZZ_CHECK(isKnown && stale == *marks);
    FUZZ_CHECK(ReadWhole(path) == file);
    return;
  }
  FUZZ_CHECK(std::find(stale.begin(), stale.end(), false) == stale.end());
  // What was made of it says so on the disk, too.
  const auto made = MarksOf(ReadWhole(path), wanted);
  FUZZ_CHECK(made && *made == stale);
  FUZZ_CHECK(StaleAtStart(path, wanted, isKnown) == stale && isKnown);
}

// --- A map that is used. ---

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
      m_disk.push_back(penstock::EncodeBits(kId, i, i == 0 ? first : none));
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
    switch (m_in.Below(12)) {
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
    const std::uint64_t n = m_in.Below(4) == 0 ? 0 : m_open;
    m_map.End(place->offset, place->length, n);
    for (auto e = place->offset / kExtent; e <= LastOf(*place); ++e) {
      --m_model[e].writers;
      m_model[e].n = std::max(m_model[e].n, n);
      m_model[e].isStale = m_model[e].isStale || n == 0;
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
      FUZZ_CHECK(penstock::CheckBits(kId, index - 1, sector));
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

  // The numbers of what is captured from here on are above those that were lost.
  void Lose() {
    m_map.Lose();
    ++m_open;
    for (Extent& extent : m_model) {
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
    }
  }

  bool IsNeeded(std::uint64_t e) {
    Extent& extent = m_model[e];
    if (extent.markedBy != 0) {
      if (m_map.SavedGeneration() < extent.markedBy) return extent.writers > 0;
      extent.markedBy = 0;
    }
    // What the target has and the volume may lose has to be compared as well.
    return extent.isStale || extent.writers > 0 || extent.n > m_flushed ||
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
    for (std::uint64_t e = 0; e < m_extents; ++e) {
      CheckOne(e);
      if (m_model[e].isStale) bytes += std::min(kExtent, m_bytes - e * kExtent);
    }
    FUZZ_CHECK(m_map.StaleBytes() == bytes);
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ByteSource in(data, size);
  if (in.Flag()) {
    OpenFound(in);
  } else {
    Driven(in).Run();
  }
  return 0;
}
