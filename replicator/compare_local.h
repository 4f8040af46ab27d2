// SPDX-License-Identifier: Apache-2.0
// Two files or devices of one machine, compared byte by byte.
#ifndef PENSTOCK_REPLICATOR_COMPARE_LOCAL_H_
#define PENSTOCK_REPLICATOR_COMPARE_LOCAL_H_

#include <cstdint>
#include <string>
#include <vector>

namespace penstock {

// A range of a volume that is not the same on both sides, in units of 4 KiB.
struct DifferingRange {
  std::string volume;
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
};

// Puts ranges in order and joins neighbours.
void JoinRanges(std::vector<DifferingRange>& ranges);

// What a comparison found.
struct Comparison {
  // Beyond so many ranges they are counted and not kept: the memory stays bounded.
  static constexpr std::size_t kMostRanges = 100'000;

  std::uint64_t bytes = 0;  // compared
  std::uint64_t differingBytes = 0;
  std::vector<DifferingRange> differing;
  bool isCut = false;  // there are more

  void Add(DifferingRange range);
};

// Compares on `jobs` threads. What one of them has beyond the other's end differs. Returns an empty
// text, or why it could not be done.
std::string CompareLocal(const std::string& from, const std::string& to, unsigned jobs,
                         Comparison& out);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_COMPARE_LOCAL_H_
