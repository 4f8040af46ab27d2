// SPDX-License-Identifier: Apache-2.0
// Blocks: CompressedData records that carry ranges of one volume, packed and unpacked.
//
//   body    := extent{extentCount} data
//   extent  := offset:u64 length:u32           ranges of the volume, in the order of the data
//   data    := nothing (codec zero) | rawLength bytes (raw) | compressed bytes (lz4, zstd)
//
// rawLength is the sum of the extents' lengths, at most kMaxBlockBytes. bodyHash is Hash64 of the
// body; nothing in the record repeats volumeIndex, which the carrier's hash has to cover (the
// frame's, the file's). Pure functions, safe from any thread.
#ifndef PENSTOCK_CODEC_BLOCK_H_
#define PENSTOCK_CODEC_BLOCK_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "codec/hash.h"
#include "penstock/host/commands.h"

namespace penstock {

inline constexpr std::uint32_t kMaxBlockBytes = 1U << 20U;  // volume data in one block
inline constexpr std::uint32_t kMaxExtents = 4096;          // extents in one block
inline constexpr std::uint32_t kExtentBytes = 12;           // on the wire and in files
inline constexpr std::uint32_t kCompareBytes = 4096;        // what one fingerprint stands for
// The longest body: all extents, and data that did not shrink.
inline constexpr std::uint32_t kMaxBodyBytes = kMaxExtents * kExtentBytes + kMaxBlockBytes;

enum class Codec : std::uint8_t {
  kZero = 0,  // the extents read as zeros
  kRaw = 1,   // as it is
  kLz4 = 2,   // one lz4 block
  kZstd = 3,  // one zstd frame
};

struct Extent {
  std::uint64_t offset = 0;  // bytes, in the volume
  std::uint32_t length = 0;  // bytes, at least 1
  friend bool operator==(const Extent&, const Extent&) = default;
};

// How to compress. `automatic` probes a sample of the block first and sends raw what does not
// shrink by 1/16; with an explicit codec the whole block is tried, with the same threshold.
struct CompressSpec {
  Codec codec = Codec::kRaw;  // kRaw: none
  int level = 1;              // zstd's
  bool automatic = false;     // with kLz4 or kZstd

  // "none", "lz4", "zstd" (level 1), "zstd:LEVEL" (1 to 19), "auto" (lz4 where the probe says that
  // it is worth it). Nothing for anything else.
  static std::optional<CompressSpec> Parse(const std::string& text);
  std::string Text() const;  // which Parse takes; the level is always said
};

using BlockPtr = std::shared_ptr<OM_DP::CompressedData>;

// Gives the memory of a block: `bytes`, at least 1, with whatever is in them. Called by any thread.
using BlockMemory = std::function<std::shared_ptr<std::uint8_t[]>(std::size_t bytes)>;
// Where AllocateBlock gets memory from, instead of the allocator. REQUIRES: there is no block yet,
// and no second thread.
void SetBlockMemory(BlockMemory memory);

// A record with room for `length` bytes of body, which are left as they are, for whoever fills all
// of them: zeroing a megabyte first costs as much as copying half of it.
BlockPtr AllocateBlock(std::uint32_t length);

// One piece of volume data to pack.
struct Piece {
  std::uint64_t offset = 0;  // in the volume
  Bytes data;                // 1 to kMaxBlockBytes
};

// Packs the pieces in order into one block: codec zero when all of them are zero, compressed as
// `spec` says when that is worth it, raw otherwise.
//
// REQUIRES: 1 to kMaxExtents pieces, together at most kMaxBlockBytes.
BlockPtr PackBlock(std::uint8_t volumeIndex, std::span<const Piece> pieces,
                   const CompressSpec& spec);

// Packs extents that read as zeros. REQUIRES: 1 to kMaxExtents, together at most kMaxBlockBytes.
BlockPtr PackZeros(std::uint8_t volumeIndex, std::span<const Extent> extents);

// A raw block of one extent whose data the caller writes to RawData() and then seals: nothing is
// copied in between. REQUIRES: 1 <= length <= kMaxBlockBytes.
BlockPtr BeginRawBlock(std::uint8_t volumeIndex, const Extent& extent);
std::span<std::uint8_t> RawData(OM_DP::CompressedData& block);  // of a block of BeginRawBlock
void SealRawBlock(OM_DP::CompressedData& block);                // computes the hash

// What is wrong with a record, in words an operator can use.
enum class BlockFault : std::uint8_t {
  kNone,
  kLength,   // the record's length is not its payload's, or beyond the limit
  kHash,     // the body's hash differs
  kExtents,  // none, too many, an empty one, a sum that is not rawLength or beyond the limit
  kOutside,  // an extent that is not within the volume
  kCodec,    // unknown, or bytes that don't decompress to exactly rawLength
};
const char* Text(BlockFault fault);

// Looks at everything but the compressed bytes: lengths, hash, extents within `volumeSize`. Sums
// can't overflow. `size` is the number of bytes at `block`: the record is not believed before.
//
// Returns kNone, and the extents in `extents`.
BlockFault CheckBlock(const OM_DP::CompressedData& block, std::size_t size,
                      std::uint64_t volumeSize, std::vector<Extent>& extents);

// The raw bytes of a block that CheckBlock passed: a view into the block for raw, into `space` for
// the compressed codecs (resized to rawLength, never beyond), empty for zero.
//
// Returns kNone or kCodec.
BlockFault UnpackBlock(const OM_DP::CompressedData& block, std::vector<std::uint8_t>& space,
                       Bytes& raw);

// The bytes of the record as they travel: 20 and the body.
Bytes RecordBytes(const OM_DP::CompressedData& block);

}  // namespace penstock

#endif  // PENSTOCK_CODEC_BLOCK_H_
