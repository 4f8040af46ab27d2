// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_BENCH_WORKLOAD_H_
#define PENSTOCK_BENCH_WORKLOAD_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "penstock/host.h"
#include "penstock/penstock.h"

// The order in which a guest writes its blocks.
enum class Order : std::int64_t { kRising = 0, kRandom = 1 };

// Returns `count` distinct 4 KiB buffers of one volume, all sharing one payload, in that order. The
// same ones each time.
std::vector<InternalData> MakeBuffers(std::int64_t count, Order order);

// A pipeline whose callbacks do nothing, ready for datasets.
std::unique_ptr<Pipeline> MakePipeline();

// A normal dataset with a new-buffer callback that does nothing.
std::shared_ptr<Dataset> MakeDataset(std::uint64_t n);

// Seconds since `start`.
inline double Since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

#endif  // PENSTOCK_BENCH_WORKLOAD_H_
