// SPDX-License-Identifier: Apache-2.0
// Goal: every thread has a request id of its own. Method: ids are written and read from several
// threads.
#include "penstock/host/request_id.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <thread>
#include <vector>

namespace {

TEST(RequestId, IsZeroAtFirst) {
  std::uint64_t id = 99;
  std::thread([&id] { id = *TSP_RequestID.get(); }).join();
  EXPECT_EQ(id, 0U);
}

TEST(RequestId, IsWritableThroughThePointer) {
  *TSP_RequestID.get() = 0xffff'ffff'ffff'ffffU;
  EXPECT_EQ(*TSP_RequestID.get(), 0xffff'ffff'ffff'ffffU);
  *TSP_RequestID.get() = 0;
}

TEST(RequestId, StaysWhereItIsForItsThread) {
  EXPECT_NE(TSP_RequestID.get(), nullptr);
  EXPECT_EQ(TSP_RequestID.get(), TSP_RequestID.get());
}

TEST(RequestId, IsItsThreadsOwn) {
  *TSP_RequestID.get() = 1;
  std::vector<std::uint64_t> seen(4);
  std::vector<std::thread> threads;
  for (std::uint64_t t = 0; t < seen.size(); ++t) {
    threads.emplace_back([&seen, t] {
      for (int i = 0; i < 1000; ++i) *TSP_RequestID.get() += t + 1;
      seen[t] = *TSP_RequestID.get();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(seen, (std::vector<std::uint64_t>{1000, 2000, 3000, 4000}));
  EXPECT_EQ(*TSP_RequestID.get(), 1U);
  *TSP_RequestID.get() = 0;
}

}  // namespace
