// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_KEEP_MEMORY_H_
#define PENSTOCK_REPLICATOR_KEEP_MEMORY_H_

#include <cstdint>

namespace penstock {

// Blocks of a megabyte come and go all the time. By default each of them would be mapped and
// unmapped, page by page; from here on they stay in the process's heap, up to `bytes` that nobody
// uses, and are used again. For the whole process, before it has threads.
void KeepFreedMemory(std::uint64_t bytes);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_KEEP_MEMORY_H_
