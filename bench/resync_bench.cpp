// SPDX-License-Identifier: Apache-2.0
#include <benchmark/benchmark.h>

#include "bench/workload.h"

// Resync: both fingerprints of each buffer, equal (dropped) or different (finalized), and block
// fingerprints through the requester.

namespace {

void BM_FingerprintMatch(benchmark::State& state) {
  auto bufs = MakeBuffers(state.range(0), Order::kRandom);
  const BufFingerprint local{};
  BufFingerprint remote{};
  BufFingerprint mine = local;
  mine.bytes[0] = 1;
  remote.bytes[0] = state.range(1) != 0 ? 1 : 2;
  const auto size = static_cast<std::uint64_t>(state.range(0)) * 4096;
  for (auto _ : state) {
    const auto ds = std::make_shared<Dataset>(
        1, std::vector<FingerprintRange>{{bufs[0].volume, 0, size}}, size);
    ds->SetXmitCb([] {});
    for (InternalData& buf : bufs) ds->AddBuffer(buf, 4096);
    const auto start = std::chrono::steady_clock::now();
    for (const InternalData& buf : bufs) {
      ds->AddLocalFingerprint(buf, mine);
      ds->AddRemoteFingerprint(buf, remote);
    }
    state.SetIterationTime(Since(start));
    if (!ds->IsSealed()) state.SkipWithError("not sealed");
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FingerprintMatch)
    ->ArgsProduct({{1000, 100000, 1000000}, {0, 1}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_RequestFingerprints(benchmark::State& state) {
  const auto blocks = static_cast<std::uint64_t>(state.range(0));
  for (auto _ : state) {
    FingerprintRequester requester([](const std::vector<std::uint64_t>&, std::uint64_t) {}, 1,
                                   blocks * 4096, 256);
    const auto start = std::chrono::steady_clock::now();
    for (std::uint64_t i = 0; i < blocks; ++i) requester.AddFingerprint(i, false);
    state.SetIterationTime(Since(start));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_RequestFingerprints)
    ->Arg(1000)
    ->Arg(100000)
    ->Arg(1000000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
