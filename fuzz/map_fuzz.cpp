// SPDX-License-Identifier: Apache-2.0
// Change maps. An input is either what a disk holds where a map should be, opened as a start does
// it: what is believed must be exactly what a map of this volume says, and anything else means that
// all of the volume is compared. Or it is a string of writes, saves, reports and clearings on one
// map, with a model beside it: whatever is under way or has to be compared must be marked on the
// disk at every moment, for the power may go at any.
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "capture/map_file.h"
#include "fuzz/byte_source.h"
#include "fuzz/driven_map.h"
#include "fuzz/scratch_folder.h"

namespace {

using penstock::Capture;
using penstock::MapFile;
using penstock::MapHeader;
using penstock::MapSector;
using penstock::fuzz::Driven;
using penstock::fuzz::IdOf;
using penstock::fuzz::kBitBytes;
using penstock::fuzz::kExtent;
using penstock::fuzz::kPerSector;
using penstock::fuzz::SomeSize;
using ByteString = std::vector<std::uint8_t>;

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
