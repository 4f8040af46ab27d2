// SPDX-License-Identifier: Apache-2.0
#include "replicator/block_memory.h"

#include <cstddef>

#include "codec/block.h"

namespace penstock {

namespace {

// Every block fits, and a piece begins at a boundary of its own cache lines.
constexpr std::size_t kLine = 64;
constexpr std::size_t kPiece =
    (sizeof(OM_DP::CompressedData) + kMaxBodyBytes + kLine - 1) / kLine * kLine;

// Never destroyed: blocks may be released by whatever ends last.
BlockPieces*& Pooled() {
  static BlockPieces* pieces = nullptr;
  return pieces;
}

}  // namespace

BlockPieces::BlockPieces(std::uint64_t keepBytes) : m_pieces(kPiece, keepBytes / kPiece) {}

std::shared_ptr<std::uint8_t[]> BlockPieces::Take(std::size_t bytes) {
  if (bytes > kPiece / 2 && bytes <= kPiece) return m_pieces.Take();
  return std::make_shared_for_overwrite<std::uint8_t[]>(bytes);
}

void PoolBlocks(std::uint64_t keepBytes) {
  Pooled() = new BlockPieces(keepBytes);
  SetBlockMemory([](std::size_t bytes) { return Pooled()->Take(bytes); });
}

void TrimBlocks() {
  if (Pooled() != nullptr) Pooled()->Trim();
}

void KeepTrimmingBlocks(EventLoop& loop) {
  constexpr std::uint64_t kTrimMs = 10'000;
  TrimBlocks();
  loop.After(kTrimMs, [&loop] { KeepTrimmingBlocks(loop); });
}

}  // namespace penstock
