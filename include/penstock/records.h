// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_RECORDS_H_
#define PENSTOCK_RECORDS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <unordered_map>
#include <vector>

#include "penstock/export.h"
#include "penstock/host/uuid.h"

// The value types that every other header passes around. All are plain aggregates with public
// fields; copies share their payload and never copy its bytes.
//
// Threads: as any value: concurrent reads are safe, a write needs the owner's care.

namespace OM_DP {
struct CompressedData;
}  // namespace OM_DP

// One buffer of changed volume data. A buffer is identified by (volume, offset, length); `data` and
// `opaque` take no part in hashing or equality.
struct InternalData {
  // The fingerprint of one 4 KiB block, as FingerprintRequester numbers and sends it. Not to be
  // confused with BufFingerprint, the 20-byte fingerprint of a whole buffer.
  using Fingerprint = std::uint64_t;

  UuidT volume{};                              // the volume that the data belongs to
  std::uint64_t offset = 0;                    // first byte in the volume
  std::uint32_t length = 0;                    // bytes
  std::shared_ptr<const std::uint8_t[]> data;  // the bytes, shared by every copy; may be null
  std::uint64_t opaque = 0;                    // the producer's own word; only ever copied
};

// The 20-byte fingerprint of one buffer. Twenty zero bytes from the target mean "unknown": such a
// buffer is always kept.
struct BufFingerprint {
  std::array<std::uint8_t, 20> bytes{};
};

// The one range of a volume that a resync dataset may receive.
struct FingerprintRange {
  UuidT volume{};
  std::uint64_t offset = 0;  // first byte
  std::uint64_t length = 0;  // bytes
};

// One unit of compressed output: what a dataset holds until it is sent.
struct PipeCompressedData {
  // The number of distinct buffers in `origBuffers`; 0 for a buffer finalized without output.
  std::uint64_t totalBufs = 0;
  // Whether the unit is queued for transmission; one that is not is only accounted.
  bool toXmit = true;
  // The compressed record, shared by every copy; null when there is none.
  std::shared_ptr<OM_DP::CompressedData> payload;
  // For each volume of the unit, the buffers that it contains, in the order of their arrival.
  std::unordered_map<UuidT, std::vector<InternalData>> origBuffers;
};

// Mixes `value` into `seed`: the step on which every hash here is built. Wrapping 64-bit
// arithmetic. Source of the constant: 2^64 divided by the golden ratio, as in Boost's hash_combine.
constexpr void hash_combine(std::uint64_t& seed, std::uint64_t value) {
  seed ^= value + kHashCombineConstant + (seed << 6U) + (seed >> 2U);
}

// Hash of a buffer's identity: offset, then length, then volume.
struct BufInfoHash {
  std::size_t operator()(const InternalData& buf) const {
    std::uint64_t seed = 0;
    hash_combine(seed, buf.offset);
    hash_combine(seed, buf.length);
    hash_combine(seed, std::hash<UuidT>{}(buf.volume));
    return seed;
  }
};

// Equality of two buffers' identities.
struct BufInfoEqual {
  bool operator()(const InternalData& a, const InternalData& b) const {
    return a.offset == b.offset && a.length == b.length && a.volume == b.volume;
  }
};

// Hash of a range: of its volume alone, so that a set of ranges holds one range a volume and a
// range that carries only a volume finds it.
struct FingerprintRangeHash {
  std::size_t operator()(const FingerprintRange& range) const {
    std::uint64_t seed = 0;
    hash_combine(seed, std::hash<UuidT>{}(range.volume));
    return seed;
  }
};

// Equality of two ranges: of their volumes alone.
struct FingerprintRangeEqual {
  bool operator()(const FingerprintRange& a, const FingerprintRange& b) const {
    return a.volume == b.volume;
  }
};

// The fingerprints of one side of a resync dataset, by buffer. The key keeps the descriptor with
// which the entry was inserted, its `data` included.
using ResyncFingerprintsMap =
    std::unordered_map<InternalData, BufFingerprint, BufInfoHash, BufInfoEqual>;

// Writes "InternalData[v=<volume> o: <offset in hexadecimal>, l=<length>]". The offset carries a
// base prefix unless it is 0. The stream is put back to decimal; its show-base flag stays set.
//
// Threads: any.
PENSTOCK_EXPORT std::ostream& operator<<(std::ostream& out, const InternalData& buf);

// Writes " Fingerprint[<40 digits>]". Within a byte the digit of the low nibble comes first: a byte
// 0xAB is written "BA".
//
// Threads: any.
PENSTOCK_EXPORT std::ostream& operator<<(std::ostream& out, const BufFingerprint& fp);

#endif  // PENSTOCK_RECORDS_H_
