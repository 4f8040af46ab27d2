// SPDX-License-Identifier: Apache-2.0
// Goal: payloads never overlap while anybody has them, and a slab is used again once nobody has
// anything of it. Method: addresses and contents; many threads that fill what they take.
#include "capture/payload_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <set>
#include <thread>
#include <vector>

namespace penstock {
namespace {

constexpr std::size_t kSlab = 64U << 10U;

TEST(Payloads, FollowEachOtherInASlab) {
  PayloadPool pool(kSlab, 4 * kSlab);
  const auto first = pool.Take(4096);
  const auto second = pool.Take(1);
  const auto third = pool.Take(512);
  EXPECT_EQ(first.get() + 4096, second.get());
  EXPECT_EQ(second.get() + 1, third.get());
}

TEST(Payloads, WhatDoesNotFitIsInTheNextSlab) {
  PayloadPool pool(kSlab, 4 * kSlab);
  std::vector<std::shared_ptr<std::uint8_t[]>> held;
  std::set<const std::uint8_t*> places;
  for (int i = 0; i < 9; ++i) {
    held.push_back(pool.Take(15'000));  // four of them in a slab
    places.insert(held.back().get());
    std::fill_n(held.back().get(), 15'000, static_cast<std::uint8_t>(i));
  }
  for (std::size_t i = 0; i < held.size(); ++i) {
    EXPECT_EQ(std::count(held[i].get(), held[i].get() + 15'000, static_cast<std::uint8_t>(i)),
              15'000);
  }
  EXPECT_EQ(places.size(), held.size());
}

TEST(Payloads, ALargeOneIsAlone) {
  PayloadPool pool(kSlab, 4 * kSlab);
  const auto small = pool.Take(16);
  const auto large = pool.Take(kSlab / 4 + 1);
  EXPECT_EQ(large.use_count(), 1);
  EXPECT_EQ(pool.Take(16).get(), small.get() + 16);
}

TEST(Payloads, ASlabComesBackWithTheLastOfItsPayloads) {
  PayloadPool pool(kSlab, 4 * kSlab);
  const std::size_t part = kSlab / 4;
  std::vector<std::shared_ptr<std::uint8_t[]>> first(4);
  for (auto& payload : first) payload = pool.Take(part);
  const std::uint8_t* const slab = first.front().get();
  const auto second = pool.Take(part);  // of another slab
  auto last = first.back();
  first.clear();
  EXPECT_NE(pool.Take(kSlab / 4).get(), slab) << "one of its payloads is still held";
  std::vector<std::shared_ptr<std::uint8_t[]>> rest{pool.Take(part), pool.Take(part)};
  last.reset();
  EXPECT_EQ(pool.Take(part).get(), slab);
}

TEST(Payloads, OutliveThePool) {
  std::shared_ptr<std::uint8_t[]> payload;
  {
    PayloadPool pool(kSlab, kSlab);
    payload = pool.Take(4096);
  }
  std::fill_n(payload.get(), 4096, std::uint8_t{7});
  EXPECT_EQ(payload[4095], 7);
}

TEST(Payloads, OfManyThreadsNeverOverlap) {
  PayloadPool pool(kSlab, 2 * kSlab);
  std::vector<std::thread> threads;
  std::vector<int> wrong(4);
  for (std::size_t t = 0; t < wrong.size(); ++t) {
    threads.emplace_back([&pool, &wrong, t] {
      std::array<std::shared_ptr<std::uint8_t[]>, 64> held;
      std::array<std::ptrdiff_t, 64> sizes{};
      for (std::size_t i = 0; i < 20'000; ++i) {
        const std::size_t at = i % held.size();
        const auto mark = static_cast<std::uint8_t>(t * 64 + at);
        if (held[at] && (held[at][0] != mark || held[at][sizes[at] - 1] != mark)) ++wrong[t];
        sizes[at] = static_cast<std::ptrdiff_t>(1 + i * 37 % 4096);
        held[at] = pool.Take(static_cast<std::size_t>(sizes[at]));
        held[at][0] = held[at][sizes[at] - 1] = mark;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(4));
}

}  // namespace
}  // namespace penstock
