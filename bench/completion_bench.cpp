// SPDX-License-Identifier: Apache-2.0
#include <benchmark/benchmark.h>

#include "bench/workload.h"

// Completion: finalising buffers one by one, closing a dataset into one unit, and walking units.

namespace {

std::shared_ptr<Dataset> Filled(std::vector<InternalData>& bufs) {
  auto ds = MakeDataset(1);
  ds->SetXmitCb([] {});
  for (InternalData& buf : bufs) ds->AddBuffer(buf, 4096);
  return ds;
}

void BM_FinalizeBuffer(benchmark::State& state) {
  auto bufs = MakeBuffers(state.range(0), Order::kRandom);
  PipeCompressedData unit;
  unit.totalBufs = 1;
  for (auto _ : state) {
    const auto ds = Filled(bufs);
    const auto start = std::chrono::steady_clock::now();
    for (const InternalData& buf : bufs) ds->FinalizeBuffer(buf, unit);
    state.SetIterationTime(Since(start));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FinalizeBuffer)
    ->Arg(1000)
    ->Arg(100000)
    ->Arg(1000000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// A normal dataset is closed: every buffer goes into one unit, which is queued.
void BM_CloseDataset(benchmark::State& state) {
  auto bufs = MakeBuffers(state.range(0), Order::kRandom);
  for (auto _ : state) {
    const auto ds = Filled(bufs);
    const auto start = std::chrono::steady_clock::now();
    ds->NotifyRecvBuffers();
    state.SetIterationTime(Since(start));
    if (!ds->IsSealed()) state.SkipWithError("not sealed");
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_CloseDataset)
    ->Arg(1000)
    ->Arg(100000)
    ->Arg(1000000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_Enumerate(benchmark::State& state) {
  auto bufs = MakeBuffers(state.range(0), Order::kRandom);
  const auto ds = Filled(bufs);
  for (const InternalData& buf : bufs) ds->FinalizeBuffer(buf);
  std::pair<InternalData, PipeCompressedData> unit;
  for (auto _ : state) {
    BufInfoEnumerator units = ds->GetEnumerator();
    while (units.Next()) units.Current(unit);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Enumerate)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

}  // namespace
