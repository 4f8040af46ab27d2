// SPDX-License-Identifier: Apache-2.0
// Goal: overlapping ranges are held one after the other, in the order in which they came; others
// at the same time. Method: threads that enter in a known order, watched through the lock's list;
// and many threads at random over bytes that only the lock guards.
#include "capture/range_lock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/engine/engine_rig.h"

namespace penstock {
namespace {

using Hold = RangeLock::Hold;

class RangesInUse : public testing::Test {
 protected:
  // Starts a thread that takes the range, writes its name down and leaves. Returns once it stands
  // in the line.
  void Send(char name, std::uint64_t offset, std::uint64_t length) {
    const std::size_t before = Entered();
    m_threads.emplace_back([this, name, offset, length] {
      const Hold held(m_lock, offset, length);
      const std::lock_guard lock(m_mutex);
      m_order += name;
    });
    while (Entered() == before) std::this_thread::yield();
  }
  // Everybody who ever stood in the line, while nobody left.
  std::size_t Entered() {
    const std::lock_guard lock(m_lock.m_mutex);
    return m_lock.m_entries.size();
  }
  std::uint32_t Waiting() {
    const std::lock_guard lock(m_lock.m_mutex);
    return m_lock.m_waiting;
  }
  std::string Order() {
    for (std::thread& thread : m_threads) thread.join();
    m_threads.clear();
    return m_order;
  }

  RangeLock m_lock;
  std::mutex m_mutex;
  std::string m_order;
  std::vector<std::thread> m_threads;
};

TEST_F(RangesInUse, RangesThatOnlyTouchDoNotWait) {
  const Hold first(m_lock, 4096, 4096);
  const Hold before(m_lock, 0, 4096);
  const Hold behind(m_lock, 8192, 1);
  EXPECT_EQ(Entered(), 3U);
  EXPECT_EQ(Waiting(), 0U);
}

TEST_F(RangesInUse, OverlappingOnesWaitInTheOrderOfTheirComing) {
  auto held = std::make_unique<Hold>(m_lock, 0, 100);
  for (const char name : {'a', 'b', 'c', 'd', 'e'}) Send(name, 50, 10);
  EXPECT_EQ(Waiting(), 5U);
  held.reset();
  EXPECT_EQ(Order(), "abcde");
}

TEST_F(RangesInUse, OneSharedByteIsAnOverlap) {
  for (const std::uint64_t offset : {0U, 109U}) {
    auto held = std::make_unique<Hold>(m_lock, 9, 101);
    Send('x', offset, 10);
    EXPECT_EQ(Waiting(), 1U) << offset;
    held.reset();
    EXPECT_EQ(Order(), "x");
    m_order.clear();
  }
}

// Whoever came later must not overtake, or a long range would wait for ever.
TEST_F(RangesInUse, NobodyOvertakesOneThatWaits) {
  auto held = std::make_unique<Hold>(m_lock, 0, 10);
  Send('w', 0, 100);  // waits for the one that is held
  Send('s', 50, 10);  // is free of that, and waits for w
  EXPECT_EQ(Waiting(), 2U);
  held.reset();
  EXPECT_EQ(Order(), "ws");
}

TEST_F(RangesInUse, WhoeverIsFreeOfAllDoesNotWaitForThoseThatDo) {
  auto held = std::make_unique<Hold>(m_lock, 0, 10);
  Send('w', 5, 10);
  {
    const Hold other(m_lock, 100, 10);  // or the test never ends
    EXPECT_EQ(Waiting(), 1U);
  }
  held.reset();
  EXPECT_EQ(Order(), "w");
}

TEST_F(RangesInUse, ThreadsNeverHaveAByteAtTheSameTime) {
  constexpr std::uint64_t kBytes = 64;
  auto chance = Chance();
  std::vector<std::uint64_t> counts(kBytes);  // guarded by the lock alone
  std::uint64_t expected = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
    for (int k = 0; k < 300; ++k) {
      const std::uint64_t offset = chance() % kBytes;
      ranges.emplace_back(offset, 1 + chance() % std::min<std::uint64_t>(16, kBytes - offset));
      expected += ranges.back().second;
    }
    threads.emplace_back([this, &counts, ranges] {
      for (const auto& [offset, length] : ranges) {
        const Hold held(m_lock, offset, length);
        for (std::uint64_t k = offset; k < offset + length; ++k) {
          const std::uint64_t value = counts[k];
          if (k % 16 == 0) std::this_thread::yield();
          counts[k] = value + 1;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::uint64_t sum = 0;
  for (const std::uint64_t count : counts) sum += count;
  EXPECT_EQ(sum, expected);
  EXPECT_EQ(Entered(), 0U);
}

}  // namespace
}  // namespace penstock
