// SPDX-License-Identifier: Apache-2.0
#include <benchmark/benchmark.h>

#include <sstream>

#include "bench/workload.h"

// Done and flush tracking of many datasets, and the dump.

namespace {

// Pushes datasets 1 to `count` and acknowledges all but the newest.
std::unique_ptr<Pipeline> Tracked(std::uint64_t count) {
  auto pipeline = MakePipeline();
  for (std::uint64_t n = 1; n <= count; ++n) {
    pipeline->PushDs(MakeDataset(n), false);
    if (n > 1) pipeline->Ack(n - 1, nullptr);
  }
  return pipeline;
}

void BM_DoneAndFlushed(benchmark::State& state) {
  const auto count = static_cast<std::uint64_t>(state.range(0));
  for (auto _ : state) {
    const auto pipeline = Tracked(count);
    const auto start = std::chrono::steady_clock::now();
    for (std::uint64_t n = 1; n <= count; ++n) pipeline->Done(n, true, false);
    for (std::uint64_t n = 1; n <= count; ++n) pipeline->Flushed(n, true);
    state.SetIterationTime(Since(start));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_DoneAndFlushed)
    ->Arg(1000)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_Dump(benchmark::State& state) {
  const auto pipeline = Tracked(static_cast<std::uint64_t>(state.range(0)));
  for (auto _ : state) {
    std::ostringstream out;
    out << *pipeline;
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_Dump)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

}  // namespace
