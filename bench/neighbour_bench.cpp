// SPDX-License-Identifier: Apache-2.0
#include <benchmark/benchmark.h>

#include <algorithm>

#include "bench/workload.h"

// The steps of one small dataset (accepted, filled, closed, transmitted) while a neighbour holds
// many buffers in the transmit pipe. No step may look at the neighbour's buffers, so neither the
// mean nor the worst call may grow with their number.

namespace {

void BM_BesideNeighbour(benchmark::State& state) {
  auto bufs = MakeBuffers(std::max<std::int64_t>(state.range(0), 1), Order::kRandom);
  const auto pipeline = MakePipeline();
  pipeline->PushDs(MakeDataset(1), false);
  if (state.range(0) > 0) {
    for (InternalData& buf : bufs) pipeline->PushBuf(buf, 4096);
  }
  pipeline->BumpDs();
  std::uint64_t n = 2;
  double worst = 0;
  const auto timed = [&worst](auto step) {
    const auto start = std::chrono::steady_clock::now();
    step();
    worst = std::max(worst, Since(start));
  };
  for (auto _ : state) {
    const auto ds = MakeDataset(n++);
    timed([&] { pipeline->PushDs(ds, false); });
    timed([&] { pipeline->PushBuf(bufs[0], 4096); });
    timed([&] { pipeline->BumpDs(); });
    timed([&] { pipeline->UpdateTransmitter(); });
    timed([&] { benchmark::DoNotOptimize(ds->IsSealed()); });
  }
  state.counters["worst_us"] = worst * 1e6;
}
BENCHMARK(BM_BesideNeighbour)
    ->Arg(0)
    ->Arg(1000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(2000)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
