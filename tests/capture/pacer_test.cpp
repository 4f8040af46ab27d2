// SPDX-License-Identifier: Apache-2.0
// Goal: a guest that writes faster than its backlog leaves is slowed down to that, evenly, and
// never held up for longer than was promised. Method: a guest, a link and a clock of the test's
// own.
#include "capture/pacer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

namespace penstock {
namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t kMib = 1U << 20U;
constexpr std::uint64_t kMemory = 192 * kMib;

class PacerTest : public testing::Test {
 protected:
  // A write, when so much is held and so much has left.
  Pacer::Clock::duration Wait(std::uint64_t bytes, std::uint64_t held, std::uint64_t left = 0) {
    return m_pacer->Wait(bytes, held + left, held, m_now);
  }
  // One thread writes as fast as it may, while `rate` bytes a second leave, by `piece` at a time.
  // Returns the bytes a second that it wrote in the second half of the time.
  double Drive(double rate, std::uint64_t bytes, std::uint64_t piece, std::chrono::seconds time,
               Pacer::Clock::duration own = 100us) {
    const auto begin = m_now;
    std::uint64_t half = 0;
    while (m_now < begin + time) {
      m_taken += bytes;
      const double due = rate * std::chrono::duration<double>(m_now - begin).count();
      m_left = std::min(m_taken, static_cast<std::uint64_t>(due) / piece * piece);
      m_most = std::max(m_most, m_taken - m_left);
      const auto wait = m_pacer->Wait(bytes, m_taken, m_taken - m_left, m_now);
      m_longest = std::max(m_longest, wait);
      m_now += own + wait;
      if (m_now < begin + time / 2) half = m_taken;
    }
    return static_cast<double>(m_taken - half) / std::chrono::duration<double>(time / 2).count();
  }

  std::optional<Pacer> m_pacer{std::in_place, kMemory};
  Pacer::Clock::time_point m_now{1h};
  std::uint64_t m_taken = 0;
  std::uint64_t m_left = 0;
  std::uint64_t m_most = 0;
  Pacer::Clock::duration m_longest{};
};

TEST_F(PacerTest, UpToThreeQuartersOfTheMemoryNothingWaits) {
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(Wait(kMib, kMemory / 4 * 3), 0s);
    m_now += 1us;
  }
}

// Until what leaves is known, it is taken for all of the memory in a second.
TEST_F(PacerTest, AWriteWaitsForThePartsOfThoseBefore) {
  const std::uint64_t held = kMemory / 8 * 7;
  EXPECT_EQ(Wait(kMib, held), 0s);
  const std::chrono::duration<double> part{1.0 / 192};
  EXPECT_NEAR(std::chrono::duration<double>(Wait(kMib, held)).count(), part.count(), 1e-6);
  EXPECT_NEAR(std::chrono::duration<double>(Wait(kMib, held)).count(), 2 * part.count(), 1e-6);
  m_now += 1s;
  EXPECT_EQ(Wait(kMib, held), 0s) << "what was not waited for is not owed for ever";
}

TEST_F(PacerTest, TheLessIsLeftTheLongerItIs) {
  const auto after = [](std::uint64_t held) {
    Pacer pacer(kMemory);
    const Pacer::Clock::time_point now{1h};
    pacer.Wait(kMib, held, held, now);
    return pacer.Wait(kMib, held, held, now);
  };
  EXPECT_LT(after(kMemory / 100 * 80), after(kMemory / 100 * 85));
  EXPECT_LT(after(kMemory / 100 * 85), after(kMemory / 100 * 90));
  EXPECT_LT(after(kMemory / 100 * 90), after(kMemory / 100 * 95));
}

TEST_F(PacerTest, NothingWaitsForLongerThanWasPromised) {
  for (int i = 0; i < 1000; ++i) {
    EXPECT_LE(Wait(4096, 2 * kMemory), Pacer::kDelay);
    EXPECT_LE(Wait(256 * 1024, 2 * kMemory), 3 * Pacer::kDelay);
    EXPECT_LE(Wait(32 * kMib, 2 * kMemory), Pacer::kLongest);
    m_now += 1ms;
  }
}

TEST_F(PacerTest, WhatIsTooShortToBeWaitedForIsNotForgotten) {
  const std::uint64_t held = kMemory / 8 * 7;
  Pacer::Clock::duration all{};
  for (int i = 0; i < 1000; ++i) {
    const auto wait = Wait(512, held);  // 2.5 us
    EXPECT_TRUE(wait == 0s || wait >= Pacer::kLeast);
    all += wait;
    m_now += wait;
  }
  EXPECT_NEAR(std::chrono::duration<double>(all).count(), 512'000.0 / static_cast<double>(kMemory),
              1e-4);
}

TEST_F(PacerTest, AGuestGetsWhatLeaves) {
  for (const double rate : {30e6, 100e6, 400e6, 1500e6}) {
    for (const std::uint64_t bytes : {std::uint64_t{4096}, 64 * 1024UL, kMib}) {
      m_pacer.emplace(kMemory);
      m_taken = m_left = m_most = 0;
      const auto own = std::chrono::nanoseconds(bytes / 3);  // 3 GB/s
      const double got = Drive(rate, bytes, 16 * kMib, 8s, own);
      EXPECT_NEAR(got / rate, 1.0, 0.1) << rate << " with writes of " << bytes;
      EXPECT_LT(m_most, kMemory + kMemory / 8) << rate << " with writes of " << bytes;
    }
  }
}

TEST_F(PacerTest, WhatLeavesIsLearntAnew) {
  Drive(400e6, 64 * 1024, 16 * kMib, 4s);
  EXPECT_NEAR(m_pacer->Rate() / 400e6, 1.0, 0.2);
  m_taken = m_left = 0;
  Drive(100e6, 64 * 1024, 16 * kMib, 4s);
  EXPECT_NEAR(m_pacer->Rate() / 100e6, 1.0, 0.3);
}

// What a guest writes that is not slowed down says nothing of what the link could take.
TEST_F(PacerTest, WithLittleInMemoryNothingIsLearnt) {
  for (int i = 0; i < 100; ++i) {
    Wait(4096, kMemory / 2, static_cast<std::uint64_t>(i) * 4096);
    m_now += 20ms;
  }
  EXPECT_EQ(m_pacer->Rate(), static_cast<double>(kMemory));
}

TEST_F(PacerTest, ALinkThatStandsStillIsNoneOfZero) {
  for (int i = 0; i < 100; ++i) {
    EXPECT_LE(Wait(kMib, kMemory / 8 * 7), Pacer::kLongest);
    m_now += 20ms;
  }
  EXPECT_EQ(m_pacer->Rate(), static_cast<double>(kMemory) / 64);
}

}  // namespace
}  // namespace penstock
