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

constexpr std::size_t kLargest = sizeof(OM_DP::CompressedData) + kMaxBodyBytes;
constexpr std::size_t kLarge = std::size_t{1} << 20U;
constexpr std::uint64_t kKeep = 8 * (kLargest + 64);

TEST(BlockMemory, ALargePieceIsUsedAgain) {
  BlockPieces pieces(kKeep);
  auto first = pieces.Take(kLarge);
  const std::uint8_t* const place = first.get();
  first.reset();
  EXPECT_EQ(pieces.Kept(), 1U);
  EXPECT_EQ(pieces.Take(kLargest).get(), place) << "a piece fits every block";
}

TEST(BlockMemory, OneThatStaysHoldsBackNoOther) {
  BlockPieces pieces(kKeep);
  std::vector<std::shared_ptr<std::uint8_t[]>> held;
  for (int i = 0; i < 8; ++i) held.push_back(pieces.Take(kLarge));
  const auto stays = held[3];
  held.clear();
  EXPECT_EQ(pieces.Kept(), 7U);
}

TEST(BlockMemory, AllOfAPieceCanBeWritten) {
  BlockPieces pieces(kKeep);
  std::vector<std::shared_ptr<std::uint8_t[]>> held;
  for (std::uint8_t i = 0; i < 4; ++i) {
    held.push_back(pieces.Take(kLargest));
    std::fill_n(held.back().get(), kLargest, i);
  }
  for (std::uint8_t i = 0; i < 4; ++i) {
    EXPECT_EQ(std::count(held[i].get(), held[i].get() + kLargest, i),
              static_cast<std::ptrdiff_t>(kLargest));
  }
}

TEST(BlockMemory, ASmallOneTakesNoPiece) {
  BlockPieces pieces(kKeep);
  pieces.Take(4096).reset();
  pieces.Take(kLargest / 2).reset();
  EXPECT_EQ(pieces.Kept(), 0U);
}

TEST(BlockMemory, WhatNoBlockHasTakesNoPiece) {
  BlockPieces pieces(kKeep);
  const auto larger = pieces.Take(kLargest + 64);
  std::fill_n(larger.get(), kLargest + 64, std::uint8_t{1});
  EXPECT_EQ(larger.use_count(), 1);
}

TEST(BlockMemory, NoMoreIsKeptThanAsked) {
  BlockPieces pieces(kKeep);
  std::vector<std::shared_ptr<std::uint8_t[]>> held;
  for (int i = 0; i < 20; ++i) held.push_back(pieces.Take(kLarge));
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
