// SPDX-License-Identifier: Apache-2.0
// Blocks from strangers: bytes as a record as they are, or with the length and the hash put right,
// so that the fuzzer gets behind them. And the way back: what is packed from chosen pieces is good.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "codec/block.h"
#include "fuzz/byte_source.h"

namespace {

using penstock::BlockFault;
using penstock::BlockPtr;
using penstock::Bytes;
using penstock::Codec;
using penstock::Extent;

constexpr std::size_t kRecordBytes = sizeof(OM_DP::CompressedData);
constexpr std::uint64_t kVolumeSizes[] = {0, 4096, 1ULL << 40U, ~0ULL};

// Memory of exactly `size` bytes: one byte beyond is a finding.
std::shared_ptr<std::uint8_t[]> Memory(const std::uint8_t* data, std::size_t size) {
  std::shared_ptr<std::uint8_t[]> memory(new std::uint8_t[size]);
  std::copy_n(data, size, memory.get());
  return memory;
}

std::uint64_t SumOf(const std::vector<Extent>& extents) {
  std::uint64_t sum = 0;
  for (const Extent& extent : extents) sum += extent.length;
  return sum;
}

// Every promise of a check that passed, and of the unpacking behind it.
bool CheckAndUnpack(const OM_DP::CompressedData& record, std::size_t size,
                    std::uint64_t volumeSize) {
  std::vector<Extent> extents{{1, 1}};  // left from before
  const BlockFault fault = penstock::CheckBlock(record, size, volumeSize, extents);
  FUZZ_CHECK(Text(fault) != nullptr);
  if (fault != BlockFault::kNone) {
    FUZZ_CHECK(extents.empty());
    return false;
  }
  FUZZ_CHECK(size == kRecordBytes + record.length && record.length <= penstock::kMaxBodyBytes);
  FUZZ_CHECK(!extents.empty() && extents.size() <= penstock::kMaxExtents);
  FUZZ_CHECK(SumOf(extents) == record.rawLength && record.rawLength <= penstock::kMaxBlockBytes);
  for (const Extent& extent : extents) {
    FUZZ_CHECK(extent.length > 0);
    FUZZ_CHECK(extent.offset < volumeSize && extent.length <= volumeSize - extent.offset);
  }
  std::vector<std::uint8_t> space;
  Bytes raw;
  const BlockFault unpacked = penstock::UnpackBlock(record, space, raw);
  FUZZ_CHECK(unpacked == BlockFault::kNone || unpacked == BlockFault::kCodec);
  FUZZ_CHECK(space.capacity() <= penstock::kMaxBlockBytes);
  if (unpacked == BlockFault::kCodec) {
    FUZZ_CHECK(raw.empty());
    return false;
  }
  FUZZ_CHECK(raw.size() == (record.codec == 0 ? 0 : record.rawLength));
  return true;
}

// The rest of the input as a record.
void AsRecord(const std::uint8_t* data, std::size_t size, std::uint64_t volumeSize, bool repair) {
  auto memory = Memory(data, size);
  auto& record = *reinterpret_cast<OM_DP::CompressedData*>(memory.get());
  if (repair && size >= kRecordBytes) {
    record.length = static_cast<std::uint32_t>(size - kRecordBytes);
    record.bodyHash = penstock::Hash64({OM_DP::Body(record), record.length});
  }
  CheckAndUnpack(record, size, volumeSize);
}

// A record that is right in everything but, maybe, its compressed bytes, which are the input's.
void AsCompressed(ByteSource& in, const std::uint8_t* data, std::size_t size) {
  const std::uint32_t rawLength = 1 + in.Byte() * 256U + in.Byte();
  const Extent extent{0, rawLength};
  const BlockPtr record =
      OM_DP::MakeCompressedData(static_cast<std::uint32_t>(penstock::kExtentBytes + size));
  record->rawLength = rawLength;
  record->codec = static_cast<std::uint8_t>(in.Flag() ? Codec::kLz4 : Codec::kZstd);
  record->extentCount = 1;
  std::uint8_t* body = OM_DP::Body(*record);
  std::memcpy(body, &extent.offset, 8);
  std::memcpy(body + 8, &extent.length, 4);
  if (size > 0) std::memcpy(body + penstock::kExtentBytes, data, size);
  record->bodyHash = penstock::Hash64({body, record->length});
  CheckAndUnpack(*record, kRecordBytes + record->length, ~0ULL);
}

// Pieces of zeros, of runs, of noise and of the input's own bytes.
std::vector<std::uint8_t> PieceData(ByteSource& in) {
  const std::uint8_t kind = in.Byte();
  std::vector<std::uint8_t> data(1 + std::size_t{in.Byte()} * (kind < 128 ? 1 : 97));
  std::uint32_t noise = in.Byte();
  for (std::uint8_t& byte : data) {
    noise = noise * 1664525U + 1013904223U;
    switch (kind % 4) {
      case 0: break;
      case 1: byte = static_cast<std::uint8_t>(noise >> 30U); break;
      case 2: byte = static_cast<std::uint8_t>(noise >> 24U); break;
      default: byte = in.Byte(); break;
    }
  }
  return data;
}

penstock::CompressSpec Spec(ByteSource& in) {
  penstock::CompressSpec spec;
  spec.codec = static_cast<Codec>(1 + in.Below(3));
  spec.level = static_cast<int>(1 + in.Below(3));
  spec.automatic = spec.codec != Codec::kRaw && in.Flag();
  return spec;
}

void RoundTrip(ByteSource& in) {
  const penstock::CompressSpec spec = Spec(in);
  std::vector<std::vector<std::uint8_t>> parts(1 + in.Below(8));
  std::vector<penstock::Piece> pieces;
  std::vector<std::uint8_t> all;
  for (auto& part : parts) {
    part = PieceData(in);
    pieces.push_back({std::uint64_t{in.Byte()} << (in.Byte() % 50U), part});
    all.insert(all.end(), part.begin(), part.end());
  }
  const BlockPtr block = PackBlock(in.Byte(), pieces, spec);
  const Bytes bytes = penstock::RecordBytes(*block);
  FUZZ_CHECK(CheckAndUnpack(*block, bytes.size(), ~0ULL));

  std::vector<Extent> extents;
  FUZZ_CHECK(penstock::CheckBlock(*block, bytes.size(), ~0ULL, extents) == BlockFault::kNone);
  FUZZ_CHECK(extents.size() == pieces.size());
  for (std::size_t i = 0; i < extents.size(); ++i) {
    FUZZ_CHECK(extents[i].offset == pieces[i].offset);
    FUZZ_CHECK(extents[i].length == pieces[i].data.size());
  }
  std::vector<std::uint8_t> space;
  Bytes raw;
  FUZZ_CHECK(penstock::UnpackBlock(*block, space, raw) == BlockFault::kNone);
  const bool isZero = penstock::IsZero(all);
  FUZZ_CHECK(isZero == (block->codec == 0));
  FUZZ_CHECK(isZero || std::equal(raw.begin(), raw.end(), all.begin(), all.end()));
  FUZZ_CHECK(block->length <= extents.size() * penstock::kExtentBytes + all.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kChoices = 4;  // the bytes in front, which say what the rest is
  ByteSource in(data, size);
  const std::uint8_t choice = in.Byte();
  const std::size_t left = size > kChoices ? size - kChoices : 0;
  const std::uint8_t* rest = left > 0 ? data + kChoices : data;
  switch (choice % 4) {
    case 0: AsRecord(rest, left, kVolumeSizes[in.Below(4)], false); break;
    case 1: AsRecord(rest, left, kVolumeSizes[in.Below(4)], true); break;
    case 2: AsCompressed(in, rest, left); break;
    default: RoundTrip(in); break;
  }
  return 0;
}
