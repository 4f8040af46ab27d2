// SPDX-License-Identifier: Apache-2.0
// Goal: pieces come back and are handed out again, no more are kept than was said, and a piece may
// outlive its pool. Method: addresses and counts; two threads that take and give.
#include "replicator/slab_pool.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <thread>
#include <vector>

namespace penstock {
namespace {

constexpr std::size_t kPieceBytes = 4096;

// So many at the same time.
void TakeAndGive(SlabPool& pool, std::size_t count) {
  std::vector<std::shared_ptr<std::uint8_t[]>> pieces(count);
  for (auto& piece : pieces) piece = pool.Take();
}

TEST(SlabPool, APieceComesBackAndIsTakenAgain) {
  SlabPool pool(kPieceBytes, 4);
  auto piece = pool.Take();
  const auto* const first = piece.get();
  std::memset(piece.get(), 7, kPieceBytes);
  EXPECT_EQ(pool.Kept(), 0U);
  piece.reset();
  EXPECT_EQ(pool.Kept(), 1U);
  piece = pool.Take();
  EXPECT_EQ(piece.get(), first);
  EXPECT_EQ(piece[kPieceBytes - 1], 7);
}

TEST(SlabPool, APieceIsUsedUntilItsLastOwnerIsGone) {
  SlabPool pool(kPieceBytes, 4);
  auto piece = pool.Take();
  std::shared_ptr<const std::uint8_t[]> other = piece;
  piece.reset();
  EXPECT_EQ(pool.Kept(), 0U);
  EXPECT_NE(pool.Take().get(), other.get());
  other.reset();
  EXPECT_EQ(pool.Kept(), 2U);
}

TEST(SlabPool, NoMoreAreKeptThanWasSaid) {
  SlabPool pool(kPieceBytes, 2);
  TakeAndGive(pool, 5);
  EXPECT_EQ(pool.Kept(), 2U);
}

TEST(SlabPool, WhatNobodyNeedsIsReleased) {
  SlabPool pool(kPieceBytes, 8);
  TakeAndGive(pool, 5);
  pool.Trim();  // all of them were in use since the pool was made
  EXPECT_EQ(pool.Kept(), 5U);
  TakeAndGive(pool, 2);
  pool.Trim();
  EXPECT_EQ(pool.Kept(), 2U);
  pool.Trim();
  EXPECT_EQ(pool.Kept(), 0U);
}

// Larger than a page of the largest kind that is used.
TEST(SlabPool, LargePiecesAreWholeAndApart) {
  constexpr std::size_t kLarge = 3'280 << 10U;
  SlabPool pool(kLarge, 1);
  auto first = pool.Take();
  auto second = pool.Take();
  std::memset(first.get(), 1, kLarge);
  std::memset(second.get(), 2, kLarge);
  EXPECT_EQ(first[0] + first[kLarge - 1], 2);
  first.reset();
  EXPECT_EQ(second[0] + second[kLarge - 1], 4);
  second.reset();
  EXPECT_EQ(pool.Kept(), 1U);
}

TEST(SlabPool, APieceMayOutliveItsPool) {
  std::optional<SlabPool> pool(std::in_place, kPieceBytes, 2U);
  auto piece = pool->Take();
  pool.reset();
  std::memset(piece.get(), 1, kPieceBytes);
  piece.reset();
}

TEST(SlabPool, ThreadsShareIt) {
  SlabPool pool(kPieceBytes, 3);
  const auto work = [&](std::uint8_t mark) {
    for (int i = 0; i < 20'000; ++i) {
      const auto piece = pool.Take();
      std::memset(piece.get(), mark, kPieceBytes);
      EXPECT_EQ(piece[static_cast<std::size_t>(i) % kPieceBytes], mark)
          << "another thread has it, too";
    }
  };
  std::thread other([&] { work(1); });
  work(2);
  other.join();
  EXPECT_LE(pool.Kept(), 3U);
}

}  // namespace
}  // namespace penstock
