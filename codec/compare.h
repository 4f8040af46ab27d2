// SPDX-License-Identifier: Apache-2.0
// Comparing a window of a volume with its copy: 64-bit fingerprints of 4 KiB blocks first, then
// strong ones of the runs that look equal. Pure functions, safe from any thread.
#ifndef PENSTOCK_CODEC_COMPARE_H_
#define PENSTOCK_CODEC_COMPARE_H_

#include <cstdint>
#include <span>
#include <vector>

#include "codec/block.h"
#include "codec/hash.h"
#include "codec/run_hasher.h"
#include "penstock/records.h"

namespace penstock {

inline constexpr std::uint32_t kWindowBlocks = 256;  // at most, of kCompareBytes
inline constexpr std::uint32_t kWindowBytes = kWindowBlocks * kCompareBytes;

// Consecutive blocks of a window that are all equal on the two sides, or all different.
struct Run {
  std::uint16_t firstBlock = 0;  // within the window
  std::uint16_t blocks = 0;      // at least 1
  bool equal = false;
  BufFingerprint strong;  // of the answering side's run, when equal
  friend bool operator==(const Run& a, const Run& b) {
    return a.firstBlock == b.firstBlock && a.blocks == b.blocks && a.equal == b.equal &&
           a.strong.bytes == b.strong.bytes;
  }
};

// One fingerprint for each 4 KiB of `window`; the last block may be shorter.
std::vector<std::uint64_t> Fingerprints(Bytes window, std::uint64_t seed);

// Compares `theirs` with the blocks of `window`. `firstBlock` is the window's first block within
// the dataset: it enters the nonce of each equal run's strong fingerprint.
//
// Returns runs that cover the window in order. REQUIRES: one fingerprint a block.
std::vector<Run> CompareWindow(Bytes window, std::span<const std::uint64_t> theirs,
                               std::uint64_t seed, RunHasher& hasher, std::uint64_t dataset,
                               std::uint32_t firstBlock);

// The bytes of `window` that `run` stands for. REQUIRES: the run is within the window.
Bytes RunBytes(Bytes window, const Run& run);

// Whether `runs` cover exactly `blocks` blocks in order, without gap or overlap, none empty.
bool RunsCover(std::span<const Run> runs, std::uint32_t blocks);

// The ranges of `window` that are not zero, at a granularity of kCompareBytes, neighbours joined.
std::vector<Run> NonZeroRuns(Bytes window);  // equal = false in all of them

}  // namespace penstock

#endif  // PENSTOCK_CODEC_COMPARE_H_
