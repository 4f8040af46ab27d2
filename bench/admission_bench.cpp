// SPDX-License-Identifier: Apache-2.0
#include <benchmark/benchmark.h>

#include "bench/workload.h"

// Admission of buffers into one dataset, with the log threshold above LOG_DEBUG, so that both
// records of each buffer are streamed and dropped.

namespace {

void BM_Admission(benchmark::State& state) {
  auto bufs = MakeBuffers(state.range(0), Order{state.range(1)});
  for (auto _ : state) {
    const auto pipeline = MakePipeline();
    pipeline->PushDs(MakeDataset(1), false);
    const auto start = std::chrono::steady_clock::now();
    for (InternalData& buf : bufs) {
      if (pipeline->PushBuf(buf, 4096) != DS_ERROR_OK) state.SkipWithError("refused");
    }
    state.SetIterationTime(Since(start));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Admission)
    ->ArgsProduct({{1000, 100000, 1000000}, {0, 1}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// The coalescer alone: what of admission is the host support's.
void BM_Coalescer(benchmark::State& state) {
  const auto bufs = MakeBuffers(state.range(0), Order{state.range(1)});
  for (auto _ : state) {
    Coalescer coalescer(bufs[0].volume);
    const auto start = std::chrono::steady_clock::now();
    for (const InternalData& buf : bufs) coalescer.AddData(buf);
    state.SetIterationTime(Since(start));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Coalescer)
    ->ArgsProduct({{1000, 100000, 1000000}, {0, 1}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// One hot block, written over and over.
void BM_CoalescerHotBlock(benchmark::State& state) {
  const auto buf = MakeBuffers(1, Order::kRising).front();
  Coalescer coalescer(buf.volume);
  for (auto _ : state) coalescer.AddData(buf);
  if (coalescer.Count() != 1) state.SkipWithError("not folded");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CoalescerHotBlock);

// One log record that is not emitted, beside the stream that it is made of.
void BM_RecordBelowThreshold(benchmark::State& state) {
  const auto pipeline = MakePipeline();
  pipeline->PushDs(MakeDataset(1), false);
  for (auto _ : state) benchmark::DoNotOptimize(pipeline->ShouldQueueDataset(1));
}
BENCHMARK(BM_RecordBelowThreshold);

// The same record by the statement that a host writes: the function's name cut each time, and every
// piece inserted into the stream. It shows what the library's own statement saves.
void BM_PlainRecordBelowThreshold(benchmark::State& state) {
  for (auto _ : state) {
    LogProxy(LOG_INFO, GetMsgPrefix(), *TSP_RequestID.get(),
             GetFunctionName("bool Pipeline::ShouldQueueDataset(long unsigned int) const"), 1)
        << 0 << "m_xmitPipe.size: " << std::size_t{0} << "  m_recvPipe.size: " << std::size_t{1}
        << "  N: " << std::uint64_t{1};
  }
}
BENCHMARK(BM_PlainRecordBelowThreshold);

void BM_FloorRecord(benchmark::State& state) {
  for (auto _ : state) {
    std::ostringstream out;
    out << 0 << "m_xmitPipe.size: " << std::size_t{0} << "  m_recvPipe.size: " << std::size_t{1}
        << "  N: " << std::uint64_t{1};
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_FloorRecord);

}  // namespace
