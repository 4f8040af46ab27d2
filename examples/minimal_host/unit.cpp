// SPDX-License-Identifier: Apache-2.0
#include "minimal_host/unit.h"

#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <span>

namespace {

std::shared_ptr<OM_DP::CompressedData> MakeUnit(std::span<const InternalData> bufs) {
  std::uint32_t dataBytes = 0;
  for (const InternalData& buf : bufs) dataBytes += buf.length;
  const auto extents = static_cast<std::uint16_t>(bufs.size());
  auto unit = OM_DP::MakeCompressedData(extents * kExtentBytes + dataBytes);
  std::uint8_t* extent = OM_DP::Body(*unit);
  std::uint8_t* data = extent + std::size_t{extents} * kExtentBytes;
  for (const InternalData& buf : bufs) {
    std::memcpy(extent, &buf.offset, sizeof(buf.offset));
    std::memcpy(extent + sizeof(buf.offset), &buf.length, sizeof(buf.length));
    std::memcpy(data, buf.data.get(), buf.length);
    extent += kExtentBytes;
    data += buf.length;
  }
  unit->bodyHash = XXH3_64bits(OM_DP::Body(*unit), unit->length);
  unit->rawLength = dataBytes;
  unit->codec = kCodecRaw;
  unit->extentCount = extents;
  return unit;
}

}  // namespace

std::shared_ptr<OM_DP::DatasetStartv2> MakeStart(const Dataset& ds, const UuidT& volume) {
  auto start = OM_DP::MakeDatasetStartv2(1);
  start->n = ds.GetN();
  start->timestampMs = ds.GetDsTimestamp();
  start->datasetType = ds.GetDsType();
  start->formatVersion = kFormatVersion;
  std::copy(volume.bytes.begin(), volume.bytes.end(), OM_DP::Entries(*start));
  return start;
}

std::vector<std::shared_ptr<OM_DP::CompressedData>> MakeUnits(
    const std::vector<InternalData>& bufs) {
  std::vector<std::shared_ptr<OM_DP::CompressedData>> units;
  const std::span<const InternalData> all(bufs);
  std::size_t begin = 0;
  while (begin < all.size()) {
    std::size_t end = begin;
    std::uint64_t bytes = 0;
    do {
      bytes += all[end++].length;
    } while (end < all.size() && bytes + all[end].length <= kMaxUnitBytes);
    units.push_back(MakeUnit(all.subspan(begin, end - begin)));
    begin = end;
  }
  return units;
}
