// SPDX-License-Identifier: Apache-2.0
#include "codec/compare.h"

#include <algorithm>

namespace penstock {

namespace {

std::size_t BlockCount(Bytes window) { return (window.size() + kCompareBytes - 1) / kCompareBytes; }

// Block `index` of the window, the last one as short as it is.
Bytes BlockOf(Bytes window, std::size_t index) {
  const std::size_t at = index * kCompareBytes;
  return window.subspan(at, std::min<std::size_t>(kCompareBytes, window.size() - at));
}

// Adds block `index` to the last run, or begins one.
void Extend(std::vector<Run>& runs, std::size_t index, bool equal) {
  const bool continues = !runs.empty() && runs.back().equal == equal &&
                         std::size_t{runs.back().firstBlock} + runs.back().blocks == index;
  if (!continues) {
    Run run;
    run.firstBlock = static_cast<std::uint16_t>(index);
    run.equal = equal;
    runs.push_back(run);
  }
  ++runs.back().blocks;
}

}  // namespace

std::vector<std::uint64_t> Fingerprints(Bytes window, std::uint64_t seed) {
  std::vector<std::uint64_t> prints(BlockCount(window));
  for (std::size_t i = 0; i < prints.size(); ++i) prints[i] = Hash64(BlockOf(window, i), seed);
  return prints;
}

std::vector<Run> CompareWindow(Bytes window, std::span<const std::uint64_t> theirs,
                               std::uint64_t seed, RunHasher& hasher, std::uint64_t dataset,
                               std::uint32_t firstBlock) {
  std::vector<Run> runs;
  const std::size_t blocks = BlockCount(window);
  for (std::size_t i = 0; i < blocks; ++i) {
    // A block without a fingerprint is different: it is sent, which is never wrong.
    const bool equal = i < theirs.size() && Hash64(BlockOf(window, i), seed) == theirs[i];
    Extend(runs, i, equal);
  }
  for (Run& run : runs) {
    if (run.equal) {
      run.strong = hasher.Of(dataset, firstBlock + run.firstBlock, RunBytes(window, run));
    }
  }
  return runs;
}

Bytes RunBytes(Bytes window, const Run& run) {
  const std::size_t begin = std::size_t{run.firstBlock} * kCompareBytes;
  if (begin >= window.size()) return {};
  const std::size_t length = std::size_t{run.blocks} * kCompareBytes;
  return window.subspan(begin, std::min(length, window.size() - begin));
}

bool RunsCover(std::span<const Run> runs, std::uint32_t blocks) {
  std::uint64_t next = 0;
  for (const Run& run : runs) {
    if (run.firstBlock != next || run.blocks == 0) return false;
    next += run.blocks;
  }
  return next == blocks;
}

std::vector<Run> NonZeroRuns(Bytes window) {
  std::vector<Run> runs;
  const std::size_t blocks = BlockCount(window);
  for (std::size_t i = 0; i < blocks; ++i) {
    if (!IsZero(BlockOf(window, i))) Extend(runs, i, false);
  }
  return runs;
}

}  // namespace penstock
