// SPDX-License-Identifier: Apache-2.0
// The packing half of block.h.
#include "codec/block.h"

#include <lz4.h>
#include <zstd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <new>

namespace penstock {

namespace {

struct FreeCompressor {
  void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
};

// Compressing contexts are large and slow to make: one for each thread.
ZSTD_CCtx* ZstdCompressor() {
  thread_local std::unique_ptr<ZSTD_CCtx, FreeCompressor> context;
  if (!context) context.reset(ZSTD_createCCtx());
  if (!context) throw std::bad_alloc();
  return context.get();
}

// The most bytes that are worth it: at least 1/16 less than there were.
std::size_t WorthIt(std::size_t size) { return size * 15 / 16; }

// Both compress to `out`, which has room for the worst case, so that no codec stops early a few
// bytes before what is worth it. They return the number of bytes, 0 when they can't.
std::size_t CompressLz4(Bytes data, std::span<std::uint8_t> out) {
  const int size = LZ4_compress_default(
      reinterpret_cast<const char*>(data.data()), reinterpret_cast<char*>(out.data()),
      static_cast<int>(data.size()), static_cast<int>(out.size()));
  return size > 0 ? static_cast<std::size_t>(size) : 0;
}

std::size_t CompressZstd(Bytes data, int level, std::span<std::uint8_t> out) {
  const std::size_t size =
      ZSTD_compressCCtx(ZstdCompressor(), out.data(), out.size(), data.data(), data.size(), level);
  return ZSTD_isError(size) != 0 ? 0 : size;
}

std::size_t TotalSize(std::span<const Piece> pieces) {
  std::size_t size = 0;
  for (const Piece& piece : pieces) size += piece.data.size();
  return size;
}

// out.size() bytes of the pieces' data, from `skip` on.
void CopyPart(std::span<const Piece> pieces, std::size_t skip, std::span<std::uint8_t> out) {
  for (const Piece& piece : pieces) {
    if (skip >= piece.data.size()) {
      skip -= piece.data.size();
      continue;
    }
    const Bytes part =
        piece.data.subspan(skip).first(std::min(out.size(), piece.data.size() - skip));
    std::copy(part.begin(), part.end(), out.begin());
    out = out.subspan(part.size());
    if (out.empty()) return;
    skip = 0;
  }
}

// Whether samples of the beginning, the middle and the end shrink together. lz4 is asked for zstd,
// too: what it can't shrink at all rarely pays for the slower codec.
bool ProbeShrinks(std::span<const Piece> pieces, std::size_t size) {
  constexpr std::size_t kSample = 4096;
  constexpr std::size_t kSamples = 3;
  if (size <= kSamples * kSample) return true;  // as cheap to try
  std::array<std::uint8_t, kSample> sample;
  std::array<std::uint8_t, LZ4_COMPRESSBOUND(kSample)> out;
  std::size_t compressed = 0;
  for (std::size_t i = 0; i < kSamples; ++i) {
    CopyPart(pieces, (size - kSample) * i / (kSamples - 1), sample);
    compressed += CompressLz4(sample, out);
  }
  return compressed <= WorthIt(kSamples * kSample);
}

bool IsWorthTrying(std::span<const Piece> pieces, std::size_t size, const CompressSpec& spec) {
  if (spec.codec != Codec::kLz4 && spec.codec != Codec::kZstd) return false;
  return !spec.automatic || ProbeShrinks(pieces, size);
}

// Makes a record with its extents in front of `dataBytes` bytes of data, which are left to the
// caller. `extentAt(i)` gives the extents.
template <class ExtentAt>
BlockPtr MakeBlock(std::uint8_t volumeIndex, Codec codec, std::size_t extents, ExtentAt extentAt,
                   std::size_t dataBytes) {
  BlockPtr block = AllocateBlock(static_cast<std::uint32_t>(extents * kExtentBytes + dataBytes));
  block->volumeIndex = volumeIndex;
  block->codec = static_cast<std::uint8_t>(codec);
  block->extentCount = static_cast<std::uint16_t>(extents);
  std::uint8_t* at = OM_DP::Body(*block);
  std::uint32_t rawLength = 0;
  for (std::size_t i = 0; i < extents; ++i) {
    const Extent extent = extentAt(i);
    std::memcpy(at, &extent.offset, sizeof(extent.offset));
    std::memcpy(at + sizeof(extent.offset), &extent.length, sizeof(extent.length));
    at += kExtentBytes;
    rawLength += extent.length;
  }
  block->rawLength = rawLength;
  return block;
}

void Seal(OM_DP::CompressedData& block) {
  block.bodyHash = Hash64({OM_DP::Body(block), block.length});
}

std::uint8_t* Data(OM_DP::CompressedData& block) {
  return OM_DP::Body(block) + std::size_t{block.extentCount} * kExtentBytes;
}

void CopyPieces(std::span<const Piece> pieces, std::uint8_t* to) {
  for (const Piece& piece : pieces) to = std::copy(piece.data.begin(), piece.data.end(), to);
}

// The pieces' data in one place: where it is when there is one, in this thread's buffer otherwise.
Bytes Gather(std::span<const Piece> pieces, std::size_t size) {
  if (pieces.size() == 1) return pieces.front().data;
  thread_local std::vector<std::uint8_t> buffer;
  if (buffer.size() < size) buffer.resize(size);
  CopyPieces(pieces, buffer.data());
  return {buffer.data(), size};
}

BlockMemory& Memory() {
  static BlockMemory memory;
  return memory;
}

// Returns the compressed bytes in this thread's buffer, or nothing when it is not worth it.
Bytes Compress(Bytes data, const CompressSpec& spec) {
  constexpr std::size_t kWorstCase =
      std::max<std::size_t>(LZ4_COMPRESSBOUND(kMaxBlockBytes), ZSTD_COMPRESSBOUND(kMaxBlockBytes));
  thread_local std::vector<std::uint8_t> buffer(kWorstCase);
  const std::size_t size = spec.codec == Codec::kLz4 ? CompressLz4(data, buffer)
                                                     : CompressZstd(data, spec.level, buffer);
  if (size > WorthIt(data.size())) return {};
  return {buffer.data(), size};
}

}  // namespace

void SetBlockMemory(BlockMemory memory) { Memory() = std::move(memory); }

BlockPtr AllocateBlock(std::uint32_t length) {
  const std::size_t size = sizeof(OM_DP::CompressedData) + length;
  const BlockMemory& memory = Memory();
  const auto bytes = memory ? memory(size) : std::make_shared_for_overwrite<std::uint8_t[]>(size);
  auto* const record = new (bytes.get()) OM_DP::CompressedData{};
  record->length = length;
  return {bytes, record};
}

BlockPtr PackBlock(std::uint8_t volumeIndex, std::span<const Piece> pieces,
                   const CompressSpec& spec) {
  const auto extentAt = [&](std::size_t i) {
    return Extent{pieces[i].offset, static_cast<std::uint32_t>(pieces[i].data.size())};
  };
  const auto make = [&](Codec codec, std::size_t dataBytes) {
    return MakeBlock(volumeIndex, codec, pieces.size(), extentAt, dataBytes);
  };

  BlockPtr block;
  const std::size_t size = TotalSize(pieces);
  if (std::all_of(pieces.begin(), pieces.end(), [](const Piece& p) { return IsZero(p.data); })) {
    block = make(Codec::kZero, 0);
  } else if (!IsWorthTrying(pieces, size, spec)) {
    block = make(Codec::kRaw, size);
    CopyPieces(pieces, Data(*block));
  } else {
    const Bytes raw = Gather(pieces, size);
    const Bytes compressed = Compress(raw, spec);
    const Bytes data = compressed.empty() ? raw : compressed;
    block = make(compressed.empty() ? Codec::kRaw : spec.codec, data.size());
    std::copy(data.begin(), data.end(), Data(*block));
  }
  Seal(*block);
  return block;
}

BlockPtr PackZeros(std::uint8_t volumeIndex, std::span<const Extent> extents) {
  BlockPtr block = MakeBlock(
      volumeIndex, Codec::kZero, extents.size(), [&](std::size_t i) { return extents[i]; }, 0);
  Seal(*block);
  return block;
}

BlockPtr BeginRawBlock(std::uint8_t volumeIndex, const Extent& extent) {
  return MakeBlock(
      volumeIndex, Codec::kRaw, 1, [&](std::size_t) { return extent; }, extent.length);
}

std::span<std::uint8_t> RawData(OM_DP::CompressedData& block) {
  return {Data(block), block.rawLength};
}

void SealRawBlock(OM_DP::CompressedData& block) { Seal(block); }

Bytes RecordBytes(const OM_DP::CompressedData& block) {
  return {reinterpret_cast<const std::uint8_t*>(&block), sizeof(block) + block.length};
}

}  // namespace penstock
