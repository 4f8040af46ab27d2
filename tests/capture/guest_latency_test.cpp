// SPDX-License-Identifier: Apache-2.0
// Goal: counts, their percentiles and what of them is recent; and when a comparison will be done.
#include "capture/guest_latency.h"

#include <gtest/gtest.h>

#include <chrono>

namespace penstock {
namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;

TEST(GuestLatencies, EachIsCountedBelowTheFirstBoundThatHoldsIt) {
  GuestLatency latency;
  for (const std::int64_t ns : {-5L, 0L, 1'000L, 1'001L, 2'000L, 2'001L, 4'000L}) {
    latency.Add(nanoseconds(ns));
  }
  latency.Add(microseconds(1U << 20U));
  latency.Add(microseconds((1U << 20U) + 1));
  const LatencyCounts counts = latency.Read();
  EXPECT_EQ(counts.counts[0], 3U);
  EXPECT_EQ(counts.counts[1], 2U);
  EXPECT_EQ(counts.counts[2], 2U);
  EXPECT_EQ(counts.counts[20], 1U);
  EXPECT_EQ(counts.counts[21], 1U);
  EXPECT_EQ(counts.Total(), 9U);
}

TEST(GuestLatencies, APercentileIsABoundThatSoManyAreNotAbove) {
  LatencyCounts counts;
  EXPECT_EQ(counts.PercentileUs(99), 0U);
  counts.counts[0] = 98;
  counts.counts[5] = 1;
  EXPECT_EQ(counts.PercentileUs(98), 1U);
  EXPECT_EQ(counts.PercentileUs(99), 32U) << "98 of 99 are less than 99 %";
  counts.counts[21] = 1;
  EXPECT_EQ(counts.PercentileUs(99), 32U);
  EXPECT_EQ(counts.PercentileUs(100), 1U << 21U);
  counts.sumNs = 1'000'000;
  EXPECT_EQ(counts.MeanUs(), 10U);
}

TEST(GuestLatencies, RecentIsTheLastHalfOfAMinuteToAMinute) {
  RecentLatency recent;
  LatencyCounts now;
  now.counts[0] = 7;
  EXPECT_EQ(recent.See(now, 1'000'000).Total(), 7U) << "all there is at first";
  now.counts[0] = 10;
  EXPECT_EQ(recent.See(now, 1'030'000).Total(), 3U);
  now.counts[0] = 20;
  EXPECT_EQ(recent.See(now, 1'059'999).Total(), 13U);
  EXPECT_EQ(recent.See(now, 1'060'000).Total(), 10U);
  EXPECT_EQ(recent.See(now, 1'200'000).Total(), 0U) << "nobody looked for long";
}

TEST(Etas, FollowFromWhatWasDoneSinceTheComparisonBegan) {
  EtaClock clock;
  clock.See(0, 0, 1'000);
  EXPECT_EQ(clock.Seconds(2'000), 0U);
  clock.See(10, 100, 5'000);
  EXPECT_EQ(clock.Seconds(6'000), 0U) << "nothing was done yet";
  clock.See(40, 100, 8'000);
  EXPECT_EQ(clock.Seconds(8'000), 7U) << "10 a second";
  clock.See(100, 100, 14'000);
  EXPECT_EQ(clock.Seconds(14'000), 0U);
  clock.See(5, 100, 20'000);
  EXPECT_EQ(clock.Seconds(30'000), 0U) << "another one";
}

}  // namespace
}  // namespace penstock
