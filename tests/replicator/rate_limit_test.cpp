// SPDX-License-Identifier: Apache-2.0
// Goal: over any stretch of time no more is sent than the rate and one burst, and not much less.
// Method: a simulated sender and clock.
#include "replicator/rate_limit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

namespace penstock {
namespace {

// Sends as much as it may for a time. Returns the bytes.
std::uint64_t SendFor(RateLimit& limit, std::uint64_t beginMs, std::uint64_t ms) {
  std::uint64_t sent = 0;
  for (auto now = beginMs; now < beginMs + ms;) {
    const auto bytes = limit.Allowed(1U << 20U, now);
    limit.Take(bytes);
    sent += bytes;
    now += std::max<std::uint64_t>(limit.WaitMs(), 1);
  }
  return sent;
}

TEST(RateLimit, WithoutOneEverythingIsAllowed) {
  RateLimit limit;
  EXPECT_EQ(limit.Allowed(~std::uint64_t{0}, 0), ~std::uint64_t{0});
}

TEST(RateLimit, IsKeptAndUsed) {
  for (const std::uint64_t rate : {1'000ULL, 100'000ULL, 10'000'000ULL, 3'000'000'000ULL}) {
    RateLimit limit(rate, 5);
    const auto burst = std::max<std::uint64_t>(rate / 20, 64U << 10U);
    const auto sent = SendFor(limit, 5, 10'000);
    EXPECT_LE(sent, rate * 10 + burst) << rate;
    if (rate < 1'000'000'000) {
      EXPECT_GE(sent, rate * 95 / 10) << rate;
    }
  }
}

TEST(RateLimit, AnIdleTimeIsNotSavedUp) {
  RateLimit limit(1'000'000, 0);
  limit.Take(limit.Allowed(1U << 30U, 0));
  EXPECT_LE(limit.Allowed(1U << 30U, 1'000'000'000), 64U << 10U);
}

TEST(RateLimit, FractionsOfBytesAreNotLost) {
  RateLimit limit(10, 0);
  limit.Take(limit.Allowed(1U << 30U, 0));
  for (std::uint64_t now = 1; now < 1000; ++now) EXPECT_LE(limit.Allowed(100, now), 9U);
  EXPECT_EQ(limit.Allowed(100, 1000), 10U);
}

TEST(RateLimit, AClockThatStandsGivesNothing) {
  RateLimit limit(1000, 7);
  limit.Take(limit.Allowed(1U << 30U, 7));
  EXPECT_EQ(limit.Allowed(1, 7), 0U);
  EXPECT_GE(limit.WaitMs(), 1U);
}

TEST(RateLimit, TheGreatestRateIsHarmless) {
  RateLimit limit(~std::uint64_t{0}, 0);
  limit.Take(limit.Allowed(~std::uint64_t{0}, 0));
  EXPECT_GT(limit.Allowed(~std::uint64_t{0}, ~std::uint64_t{0}), 0U);
}

}  // namespace
}  // namespace penstock
