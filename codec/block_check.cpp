// SPDX-License-Identifier: Apache-2.0
// The unpacking half of block.h. Whatever comes here may come from a stranger.
#include <lz4.h>
#include <zstd.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "codec/block.h"

namespace penstock {

namespace {

constexpr std::uint64_t kRecordBytes = sizeof(OM_DP::CompressedData);

// Reads the extents of a body that is long enough for them.
BlockFault ReadExtents(const OM_DP::CompressedData& block, std::uint64_t volumeSize,
                       std::vector<Extent>& extents) {
  const std::uint8_t* at = OM_DP::Body(block);
  std::uint64_t sum = 0;  // at most 65535 x 2^32
  bool isInside = true;
  for (std::uint32_t i = 0; i < block.extentCount; ++i, at += kExtentBytes) {
    Extent extent;
    std::memcpy(&extent.offset, at, sizeof(extent.offset));
    std::memcpy(&extent.length, at + sizeof(extent.offset), sizeof(extent.length));
    if (extent.length == 0) return BlockFault::kExtents;
    sum += extent.length;
    isInside =
        isInside && extent.length <= volumeSize && extent.offset <= volumeSize - extent.length;
    extents.push_back(extent);
  }
  if (sum != block.rawLength || sum > kMaxBlockBytes) return BlockFault::kExtents;
  return isInside ? BlockFault::kNone : BlockFault::kOutside;
}

// The bytes behind the extents.
Bytes DataOf(const OM_DP::CompressedData& block) {
  const std::size_t extentBytes = std::size_t{block.extentCount} * kExtentBytes;
  return {OM_DP::Body(block) + extentBytes, block.length - extentBytes};
}

// Whether the codec is known, and there is as much data as it can have.
bool IsDataPlausible(const OM_DP::CompressedData& block) {
  const std::size_t size = DataOf(block).size();
  switch (static_cast<Codec>(block.codec)) {
    case Codec::kZero: return size == 0;
    case Codec::kRaw: return size == block.rawLength;
    case Codec::kLz4:
    case Codec::kZstd: return size > 0;
  }
  return false;
}

bool DecompressLz4(Bytes data, std::vector<std::uint8_t>& space) {
  const int size = LZ4_decompress_safe(
      reinterpret_cast<const char*>(data.data()), reinterpret_cast<char*>(space.data()),
      static_cast<int>(data.size()), static_cast<int>(space.size()));
  return size >= 0 && static_cast<std::size_t>(size) == space.size();
}

struct FreeDecompressor {
  void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

ZSTD_DCtx* ZstdDecompressor() {
  thread_local std::unique_ptr<ZSTD_DCtx, FreeDecompressor> context;
  if (!context) context.reset(ZSTD_createDCtx());
  if (!context) throw std::bad_alloc();
  return context.get();
}

// Whether `data` is one frame of today's format that declares `rawLength` bytes: no skippable
// frames, none of the old formats with decoders of their own, nothing behind it.
bool IsOneZstdFrame(Bytes data, std::size_t rawLength) {
  constexpr std::array<std::uint8_t, 4> kMagic{0x28, 0xb5, 0x2f, 0xfd};
  return data.size() > kMagic.size() &&
         std::memcmp(data.data(), kMagic.data(), kMagic.size()) == 0 &&
         ZSTD_getFrameContentSize(data.data(), data.size()) == rawLength &&
         ZSTD_findFrameCompressedSize(data.data(), data.size()) == data.size();
}

// In one call, from memory to memory: the destination is the window, and no other is allocated,
// whatever the frame asks for.
bool DecompressZstd(Bytes data, std::vector<std::uint8_t>& space) {
  if (!IsOneZstdFrame(data, space.size())) return false;
  return ZSTD_decompressDCtx(ZstdDecompressor(), space.data(), space.size(), data.data(),
                             data.size()) == space.size();
}

}  // namespace

const char* Text(BlockFault fault) {
  switch (fault) {
    case BlockFault::kNone: return "nothing is wrong";
    case BlockFault::kLength: return "the block's length is not its record's, or beyond the limit";
    case BlockFault::kHash: return "the block's hash differs from its bytes";
    case BlockFault::kExtents: return "the block's extents do not fit its length";
    case BlockFault::kOutside: return "the block reaches beyond the volume";
    case BlockFault::kCodec: return "the block's data can't be decompressed to its length";
  }
  return "unknown fault";
}

BlockFault CheckBlock(const OM_DP::CompressedData& block, std::size_t size,
                      std::uint64_t volumeSize, std::vector<Extent>& extents) {
  extents.clear();
  if (size < kRecordBytes || size - kRecordBytes != block.length || block.length > kMaxBodyBytes) {
    return BlockFault::kLength;
  }
  if (Hash64({OM_DP::Body(block), block.length}) != block.bodyHash) return BlockFault::kHash;
  if (block.extentCount == 0 || block.extentCount > kMaxExtents ||
      std::size_t{block.extentCount} * kExtentBytes > block.length) {
    return BlockFault::kExtents;
  }
  BlockFault fault = ReadExtents(block, volumeSize, extents);
  if (fault == BlockFault::kNone && !IsDataPlausible(block)) fault = BlockFault::kCodec;
  if (fault != BlockFault::kNone) extents.clear();
  return fault;
}

BlockFault UnpackBlock(const OM_DP::CompressedData& block, std::vector<std::uint8_t>& space,
                       Bytes& raw) {
  raw = {};
  // CheckBlock has seen to these. Memory is bounded even for a caller that forgot it.
  if (block.rawLength > kMaxBlockBytes ||
      std::size_t{block.extentCount} * kExtentBytes > block.length || !IsDataPlausible(block)) {
    return BlockFault::kCodec;
  }
  const auto codec = static_cast<Codec>(block.codec);
  if (codec == Codec::kZero) return BlockFault::kNone;
  const Bytes data = DataOf(block);
  if (codec == Codec::kRaw) {
    raw = data;
    return BlockFault::kNone;
  }
  space.resize(block.rawLength);
  const bool isWhole =
      codec == Codec::kLz4 ? DecompressLz4(data, space) : DecompressZstd(data, space);
  if (!isWhole) return BlockFault::kCodec;
  raw = space;
  return BlockFault::kNone;
}

}  // namespace penstock
