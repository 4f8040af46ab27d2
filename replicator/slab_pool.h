// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_SLAB_POOL_H_
#define PENSTOCK_REPLICATOR_SLAB_POOL_H_

#include <cstddef>
#include <cstdint>
#include <memory>

namespace penstock {

// Memory in pieces of one size that come back and are handed out again: megabytes that are read on
// one thread and released on another would otherwise be faulted in each time, or scatter over the
// allocator's arenas.
//
// Threads: any.
class SlabPool {
 public:
  // Keeps up to `keep` pieces of `bytes` that nobody uses.
  SlabPool(std::size_t bytes, std::size_t keep);

  // A piece with whatever was in it. It comes back with its last owner, which may outlive the pool.
  std::shared_ptr<std::uint8_t[]> Take();
  std::size_t Bytes() const;  // of a piece
  std::size_t Kept() const;   // pieces that wait
  // Releases what nobody has taken since the last call. Called from time to time, it has an idle
  // pool become empty, while a busy one keeps all that it needs.
  void Trim();

 private:
  struct Impl;
  std::shared_ptr<Impl> m_impl;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_SLAB_POOL_H_
