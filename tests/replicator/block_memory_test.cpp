// SPDX-License-Identifier: Apache-2.0
// Goal: every block has memory of its own, large ones get pieces that are used again, and one that
// stays holds back no other. Method: addresses and contents, and how many pieces wait.
#include "replicator/block_memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "codec/block.h"

namespace penstock {
namespace {

constexpr std::size_t kLargestPiece = sizeof(OM_DP::CompressedData) + kMaxBodyBytes;
constexpr std::size_t kMegabyte = std::size_t{1} << 20U;
constexpr std::uint64_t kEightPieces = 8 * (kLargestPiece + 64);

TEST(BlockMemory, ALargePieceIsUsedAgain) {
  BlockPieces pieces(kEightPieces);
  auto first = pieces.Take(kMegabyte);
  const std::uint8_t* const place = first.get();
  first.reset();
  EXPECT_EQ(pieces.Kept(), 1U);
  EXPECT_EQ(pieces.Take(kLargestPiece).get(), place) << "a piece fits every block";
}

TEST(BlockMemory, OneThatStaysHoldsBackNoOther) {
  BlockPieces pieces(kEightPieces);
  std::vector<std::shared_ptr<std::uint8_t[]>> held;
  for (int i = 0; i < 8; ++i) held.push_back(pieces.Take(kMegabyte));
  const auto stays = held[3];
  held.clear();
  EXPECT_EQ(pieces.Kept(), 7U);
}

TEST(BlockMemory, AllOfAPieceCanBeWritten) {
  BlockPieces pieces(kEightPieces);
  std::vector<std::shared_ptr<std::uint8_t[]>> held;
  for (std::uint8_t i = 0; i < 4; ++i) {
    held.push_back(pieces.Take(kLargestPiece));
    std::fill_n(held.back().get(), kLargestPiece, i);
  }
  for (std::uint8_t i = 0; i < 4; ++i) {
    EXPECT_EQ(std::count(held[i].get(), held[i].get() + kLargestPiece, i),
              static_cast<std::ptrdiff_t>(kLargestPiece));
  }
}

TEST(BlockMemory, ASmallOneTakesNoPiece) {
  BlockPieces pieces(kEightPieces);
  pieces.Take(4096).reset();
  pieces.Take(kLargestPiece / 2).reset();
  EXPECT_EQ(pieces.Kept(), 0U);
}

TEST(BlockMemory, WhatNoBlockHasTakesNoPiece) {
  BlockPieces pieces(kEightPieces);
  const auto larger = pieces.Take(kLargestPiece + 64);
  std::fill_n(larger.get(), kLargestPiece + 64, std::uint8_t{1});
  EXPECT_EQ(larger.use_count(), 1);
}

TEST(BlockMemory, NoMoreIsKeptThanAsked) {
  BlockPieces pieces(kEightPieces);
  std::vector<std::shared_ptr<std::uint8_t[]>> held;
  for (int i = 0; i < 20; ++i) held.push_back(pieces.Take(kMegabyte));
  held.clear();
  EXPECT_EQ(pieces.Kept(), 8U);
  pieces.Trim();
  pieces.Trim();
  EXPECT_EQ(pieces.Kept(), 0U) << "nobody wanted any between the two";
}

// The default is the allocator: so that tools which look for overruns see those of blocks.
TEST(BlockMemory, BlocksComeFromWhereTheyAreTold) {
  static int asked = 0;
  SetBlockMemory([](std::size_t bytes) {
    ++asked;
    EXPECT_EQ(bytes, sizeof(OM_DP::CompressedData) + 100);
    return std::shared_ptr<std::uint8_t[]>(new std::uint8_t[bytes]);
  });
  const BlockPtr block = AllocateBlock(100);
  SetBlockMemory({});
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(block->length, 100U);
  AllocateBlock(100);
  EXPECT_EQ(asked, 1);
}

}  // namespace
}  // namespace penstock
