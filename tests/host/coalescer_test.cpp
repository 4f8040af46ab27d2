// SPDX-License-Identifier: Apache-2.0
// Goal: rewrites fold, nothing else does, and the last write wins. Method: a few buffers a test,
// named by their ranges; an arrival number in `opaque` tells equal ranges apart.
#include "penstock/host/coalescer.h"

#include <gtest/gtest.h>

#include <concepts>
#include <cstdint>
#include <limits>
#include <memory>
#include <ostream>
#include <ranges>
#include <type_traits>
#include <vector>

#include "tests/support/make.h"

namespace {

constexpr std::uint64_t kMax64 = std::numeric_limits<std::uint64_t>::max();

static_assert(!std::is_copy_constructible_v<Coalescer>);
static_assert(
    std::same_as<std::ranges::range_value_t<decltype(std::declval<const Coalescer&>().Buffers())>,
                 InternalData>);

// One buffer held: its range and the how-manieth that arrived.
struct Held {
  std::uint64_t offset;
  std::uint32_t length;
  std::uint64_t arrival;

  friend bool operator==(const Held&, const Held&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Held& held) {
    return out << "[" << held.offset << " +" << held.length << " #" << held.arrival << "]";
  }
};
using HeldBuffers = std::vector<Held>;

class CoalescerTest : public testing::Test {
 protected:
  // Adds a buffer; the first one is arrival 1.
  void Add(std::uint64_t offset, std::uint32_t length) {
    InternalData buf = Buf(1, offset, length);
    buf.opaque = ++m_arrivals;
    m_coalescer.AddData(buf);
  }

  HeldBuffers Buffers() const {
    HeldBuffers held;
    for (const InternalData& buf : m_coalescer.Buffers()) {
      held.push_back({buf.offset, buf.length, buf.opaque});
    }
    EXPECT_EQ(m_coalescer.Count(), held.size());
    return held;
  }

  Coalescer m_coalescer{Volume(1)};
  std::uint64_t m_arrivals = 0;
};

TEST_F(CoalescerTest, IsEmptyAtFirst) {
  EXPECT_EQ(m_coalescer.Count(), 0U);
  EXPECT_EQ(Buffers(), HeldBuffers{});
}

TEST_F(CoalescerTest, KeepsBuffersInOrderOfArrival) {
  Add(300, 10);
  Add(100, 10);
  Add(200, 10);
  EXPECT_EQ(Buffers(), (HeldBuffers{{300, 10, 1}, {100, 10, 2}, {200, 10, 3}}));
}

TEST_F(CoalescerTest, FoldsARewriteOfTheSameRangeToTheEnd) {
  Add(0, 10);
  Add(50, 10);
  Add(0, 10);
  EXPECT_EQ(Buffers(), (HeldBuffers{{50, 10, 2}, {0, 10, 3}}));
}

TEST_F(CoalescerTest, FoldsWhatLiesInside) {
  Add(15, 3);
  Add(10, 20);
  EXPECT_EQ(Buffers(), (HeldBuffers{{10, 20, 2}}));
}

TEST_F(CoalescerTest, FoldsWhatSharesTheStart) {
  Add(10, 3);
  Add(10, 20);
  EXPECT_EQ(Buffers(), (HeldBuffers{{10, 20, 2}}));
}

TEST_F(CoalescerTest, FoldsWhatSharesTheEnd) {
  Add(27, 3);
  Add(10, 20);
  EXPECT_EQ(Buffers(), (HeldBuffers{{10, 20, 2}}));
}

TEST_F(CoalescerTest, FoldsSeveralAtOnceAndKeepsTheOrderOfTheRest) {
  Add(10, 5);
  Add(100, 5);
  Add(12, 5);
  Add(0, 11);
  Add(200, 5);
  Add(10, 10);
  EXPECT_EQ(Buffers(), (HeldBuffers{{100, 5, 2}, {0, 11, 4}, {200, 5, 5}, {10, 10, 6}}));
}

TEST_F(CoalescerTest, KeepsALargerBufferWhenASmallerOneRewritesPartOfIt) {
  Add(10, 20);
  Add(15, 3);
  EXPECT_EQ(Buffers(), (HeldBuffers{{10, 20, 1}, {15, 3, 2}}));
}

TEST_F(CoalescerTest, KeepsWhatSticksOutByOneByte) {
  Add(9, 10);
  Add(11, 20);
  Add(10, 20);
  EXPECT_EQ(Buffers(), (HeldBuffers{{9, 10, 1}, {11, 20, 2}, {10, 20, 3}}));
}

TEST_F(CoalescerTest, KeepsPartialOverlapsOnBothSides) {
  Add(0, 20);
  Add(30, 20);
  Add(10, 30);
  EXPECT_EQ(Buffers(), (HeldBuffers{{0, 20, 1}, {30, 20, 2}, {10, 30, 3}}));
}

TEST_F(CoalescerTest, DoesNotMergeNeighbours) {
  Add(0, 10);
  Add(10, 10);
  Add(20, 10);
  EXPECT_EQ(m_coalescer.Count(), 3U);
}

TEST_F(CoalescerTest, DoesNotFoldWhatOnlyTwoTogetherCover) {
  Add(0, 20);
  Add(0, 10);
  Add(10, 10);
  EXPECT_EQ(m_coalescer.Count(), 3U);
}

TEST_F(CoalescerTest, HoldsAHotBlockOnce) {
  for (int i = 0; i < 10'000; ++i) Add(4096, 4096);
  EXPECT_EQ(Buffers(), (HeldBuffers{{4096, 4096, 10'000}}));
}

TEST_F(CoalescerTest, HoldsAHotBlockOnceAmongOthers) {
  for (std::uint64_t i = 0; i < 1'000; ++i) {
    Add(0, 4096);
    Add(4096 * (i + 1), 4096);
  }
  Add(0, 4096);
  EXPECT_EQ(m_coalescer.Count(), 1'001U);
  EXPECT_EQ(Buffers().front(), (Held{4096, 4096, 2}));
  EXPECT_EQ(Buffers().back(), (Held{0, 4096, 2'001}));
}

TEST_F(CoalescerTest, FoldsGrowingNestedBuffersIntoTheLast) {
  for (std::uint32_t i = 0; i < 100; ++i) Add(100 - i, 2 * i + 1);
  EXPECT_EQ(Buffers(), (HeldBuffers{{1, 199, 100}}));
}

TEST_F(CoalescerTest, KeepsShrinkingNestedBuffers) {
  for (std::uint32_t i = 100; i > 0; --i) Add(100 - i, 2 * i);
  EXPECT_EQ(m_coalescer.Count(), 100U);
}

TEST_F(CoalescerTest, FoldsEverythingUnderOneLargeBuffer) {
  for (std::uint64_t i = 0; i < 5'000; ++i) Add(i * 7919 % 5'000, 3);
  Add(0, 6'000);
  EXPECT_EQ(Buffers(), (HeldBuffers{{0, 6'000, 5'001}}));
}

TEST_F(CoalescerTest, IsEmptyEnoughForMoreAfterFoldingEverything) {
  for (std::uint64_t round = 0; round < 5; ++round) {
    for (std::uint64_t i = 0; i < 2'000; ++i) Add(i * 10, 9);
    Add(0, 20'000);
    ASSERT_EQ(m_coalescer.Count(), 1U);
  }
  Add(5, 5);
  EXPECT_EQ(m_coalescer.Count(), 2U);
}

TEST_F(CoalescerTest, FoldsAnEmptyBufferInsideOrAtAnEndOfALaterOne) {
  Add(10, 0);
  Add(15, 0);
  Add(20, 0);
  Add(9, 0);
  Add(21, 0);
  Add(10, 10);
  EXPECT_EQ(Buffers(), (HeldBuffers{{9, 0, 4}, {21, 0, 5}, {10, 10, 6}}));
}

TEST_F(CoalescerTest, FoldsOnlyAnEqualBufferUnderAnEmptyOne) {
  Add(10, 0);
  Add(10, 1);
  Add(9, 1);
  Add(11, 0);
  Add(10, 0);
  EXPECT_EQ(Buffers(), (HeldBuffers{{10, 1, 2}, {9, 1, 3}, {11, 0, 4}, {10, 0, 5}}));
}

TEST_F(CoalescerTest, FoldsTheLastBlockOfTheNumberSpace) {
  Add(kMax64 - 4095, 4096);
  Add(kMax64 - 4095, 4096);
  EXPECT_EQ(Buffers(), (HeldBuffers{{kMax64 - 4095, 4096, 2}}));
  Add(kMax64 - 8191, 8192);
  EXPECT_EQ(Buffers(), (HeldBuffers{{kMax64 - 8191, 8192, 3}}));
}

TEST_F(CoalescerTest, LetsNoBufferWrapAroundToTheBeginning) {
  Add(0, 10);
  Add(kMax64 - 20, 10);
  Add(kMax64 - 5, 100);
  EXPECT_EQ(m_coalescer.Count(), 3U);
  Add(kMax64 - 30, 4'000'000'000U);
  EXPECT_EQ(Buffers(), (HeldBuffers{{0, 10, 1}, {kMax64 - 30, 4'000'000'000U, 4}}));
}

TEST_F(CoalescerTest, TakesTheLargestLength) {
  Add(4'294'967'294U, 1);
  Add(0, 4'294'967'295U);
  Add(4'294'967'295U, 1);
  EXPECT_EQ(Buffers(), (HeldBuffers{{0, 4'294'967'295U, 2}, {4'294'967'295U, 1, 3}}));
}

TEST_F(CoalescerTest, HoldsACopyThatSharesThePayload) {
  const InternalData buf = BufWithData(1, 0, 8);
  m_coalescer.AddData(buf);
  EXPECT_EQ(m_coalescer.Buffers().front().data, buf.data);
  EXPECT_EQ(buf.data.use_count(), 2);
}

TEST_F(CoalescerTest, ReleasesThePayloadOfAFoldedBuffer) {
  const InternalData before = BufWithData(1, 0, 8, 1);
  const InternalData after = BufWithData(1, 0, 8, 2);
  m_coalescer.AddData(before);
  m_coalescer.AddData(after);
  EXPECT_EQ(before.data.use_count(), 1);
  EXPECT_EQ(m_coalescer.Buffers().front().data, after.data);
}

TEST_F(CoalescerTest, ReleasesEveryPayloadWhenItGoes) {
  const InternalData buf = BufWithData(1, 0, 8);
  {
    Coalescer coalescer(Volume(1));
    coalescer.AddData(buf);
    EXPECT_EQ(buf.data.use_count(), 2);
  }
  EXPECT_EQ(buf.data.use_count(), 1);
}

TEST_F(CoalescerTest, TakesItsOwnElementAsAnArgument) {
  const InternalData buf = BufWithData(1, 100, 8);
  m_coalescer.AddData(buf);
  m_coalescer.AddData(m_coalescer.Buffers().front());
  EXPECT_EQ(m_coalescer.Count(), 1U);
  EXPECT_EQ(m_coalescer.Buffers().front().offset, 100U);
  EXPECT_EQ(buf.data.use_count(), 2);
}

TEST_F(CoalescerTest, LeavesAnElementWhereItIsWhileItLives) {
  Add(0, 10);
  const InternalData* const first = &m_coalescer.Buffers().front();
  for (std::uint64_t i = 1; i < 1'000; ++i) Add(i * 10, 10);
  Add(10, 9'990);
  EXPECT_EQ(&m_coalescer.Buffers().front(), first);
  EXPECT_EQ(first->length, 10U);
}

TEST_F(CoalescerTest, DoesNotCompareTheVolume) {
  Add(0, 10);
  m_coalescer.AddData(Buf(2, 0, 10));
  EXPECT_EQ(m_coalescer.Count(), 1U);
  EXPECT_EQ(m_coalescer.Buffers().front().volume, Volume(2));
}

TEST_F(CoalescerTest, IsNotPendingAtFirst) { EXPECT_FALSE(m_coalescer.Pending()); }

TEST_F(CoalescerTest, IsPendingFromAnAdditionToTheReset) {
  Add(0, 10);
  EXPECT_TRUE(m_coalescer.Pending());
  m_coalescer.ResetPending();
  EXPECT_FALSE(m_coalescer.Pending());
  EXPECT_EQ(m_coalescer.Count(), 1U);
}

TEST_F(CoalescerTest, IsPendingAgainAfterARewrite) {
  Add(0, 10);
  m_coalescer.ResetPending();
  Add(0, 10);
  EXPECT_TRUE(m_coalescer.Pending());
}

TEST_F(CoalescerTest, MayBeResetWhileEmpty) {
  m_coalescer.ResetPending();
  EXPECT_FALSE(m_coalescer.Pending());
}

}  // namespace
