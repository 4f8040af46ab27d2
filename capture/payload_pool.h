// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_CAPTURE_PAYLOAD_POOL_H_
#define PENSTOCK_CAPTURE_PAYLOAD_POOL_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "replicator/slab_pool.h"

namespace penstock {

// Memory for the data of captured writes. Writes that follow each other share a slab, which is used
// again when the last of them is gone; they end together, as their dataset does. One by one they
// would be allocated on the guest's thread and freed on another, which scatters them over the
// allocator's arenas and has the kernel clear each page anew.
//
// Threads: any.
class PayloadPool {
 public:
  // Slabs of `slabBytes`; up to `keepBytes` of those that nobody uses are kept.
  PayloadPool(std::size_t slabBytes, std::size_t keepBytes);

  // `bytes` (at least 1) with whatever was in them. What is larger than a quarter of a slab is
  // allocated alone, so that no more than that is lost at a slab's end.
  std::shared_ptr<std::uint8_t[]> Take(std::size_t bytes);
  // Releases the slabs that nobody needed since the last call.
  void Trim() { m_slabs.Trim(); }

 private:
  SlabPool m_slabs;
  std::mutex m_mutex;
  std::shared_ptr<std::uint8_t[]> m_slab;  // that is being filled
  std::size_t m_used = 0;                  // bytes of it
};

}  // namespace penstock

#endif  // PENSTOCK_CAPTURE_PAYLOAD_POOL_H_
