// SPDX-License-Identifier: Apache-2.0
#include "replicator/keep_memory.h"

#include <malloc.h>

#include <algorithm>
#include <limits>

namespace penstock {

void KeepFreedMemory(std::uint64_t bytes) {
  constexpr int kMapAbove = 32 << 20;  // the most that the C library takes
  constexpr std::uint64_t kMost = std::numeric_limits<int>::max();
  ::mallopt(M_MMAP_THRESHOLD, kMapAbove);
  ::mallopt(M_TRIM_THRESHOLD, static_cast<int>(std::min(bytes, kMost)));
  ::mallopt(M_TOP_PAD, 16 << 20);
}

}  // namespace penstock
