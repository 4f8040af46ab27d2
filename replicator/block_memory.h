// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_BLOCK_MEMORY_H_
#define PENSTOCK_REPLICATOR_BLOCK_MEMORY_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "replicator/event_loop.h"
#include "replicator/slab_pool.h"

namespace penstock {

// Memory for blocks. A large one gets a piece that fits every block, and that is used again for the
// next: the allocator would give the megabytes of a dataset back to the system when it ends, and
// have each page cleared anew for the one after. Pieces are of one size, so that a block that stays
// for long holds back no other. What is not larger than half a piece is the allocator's.
//
// Threads: any.
class BlockPieces {
 public:
  // Up to `keepBytes` of pieces that nobody uses are kept.
  explicit BlockPieces(std::uint64_t keepBytes);

  std::shared_ptr<std::uint8_t[]> Take(std::size_t bytes);
  // Releases the pieces that nobody needed since the last call.
  void Trim() { m_pieces.Trim(); }
  std::size_t Kept() const { return m_pieces.Kept(); }

 private:
  SlabPool m_pieces;
};

// Has all blocks of this process come from such memory, until it ends. Once, before anything else.
void PoolBlocks(std::uint64_t keepBytes);
// As BlockPieces::Trim(), for these. Does nothing without PoolBlocks.
void TrimBlocks();
// The same every ten seconds, while the loop runs.
void KeepTrimmingBlocks(EventLoop& loop);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_BLOCK_MEMORY_H_
