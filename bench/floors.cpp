// SPDX-License-Identifier: Apache-2.0
#include <benchmark/benchmark.h>

#include <functional>
#include <sstream>
#include <string>
#include <unordered_map>

#include "bench/workload.h"

// The floors: the least that the work of admission can cost with the standard library's own parts.
// Admission streams two records, keeps one key and calls one callback for each buffer.

namespace {

// The same pieces as the two records of one admission, into plain streams.
void StreamTwoRecords(const InternalData& buf, const std::string& volume, std::uint64_t n) {
  std::ostringstream first;
  first << 0 << "N: " << n << " m_recvPipe " << std::size_t{1};
  benchmark::DoNotOptimize(first);
  std::ostringstream second;
  second << 0 << "N: " << n << " adding "
         << "InternalData[v=" << volume << " o: " << std::hex << std::showbase << buf.offset
         << std::dec << ", l=" << buf.length << "]"
         << " origDataSize: " << std::uint64_t{4096};
  benchmark::DoNotOptimize(second);
}

void BM_FloorStreams(benchmark::State& state) {
  const auto bufs = MakeBuffers(state.range(0), Order::kRising);
  const std::string volume = UUID::MakeUUID(bufs[0].volume).String();
  for (auto _ : state) {
    for (const InternalData& buf : bufs) StreamTwoRecords(buf, volume, 1);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FloorStreams)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void BM_FloorMap(benchmark::State& state) {
  const auto bufs = MakeBuffers(state.range(0), Order{state.range(1)});
  for (auto _ : state) {
    std::unordered_map<InternalData, std::uint64_t, BufInfoHash, BufInfoEqual> map;
    const auto start = std::chrono::steady_clock::now();
    for (const InternalData& buf : bufs) map.emplace(buf, 0);
    benchmark::DoNotOptimize(map);
    state.SetIterationTime(Since(start));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FloorMap)
    ->ArgsProduct({{1000, 100000, 1000000}, {0, 1}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_FloorCall(benchmark::State& state) {
  const std::function<void(const std::shared_ptr<Dataset>&, InternalData&)> call =
      [](const std::shared_ptr<Dataset>&, InternalData&) {};
  auto bufs = MakeBuffers(state.range(0), Order::kRising);
  const auto ds = MakeDataset(1);
  for (auto _ : state) {
    for (InternalData& buf : bufs) {
      call(ds, buf);
      benchmark::DoNotOptimize(buf);
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FloorCall)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

}  // namespace
