// SPDX-License-Identifier: Apache-2.0
#include "bench/workload.h"

#include <algorithm>
#include <random>

std::vector<InternalData> MakeBuffers(std::int64_t count, Order order) {
  const std::shared_ptr<const std::uint8_t[]> payload(new std::uint8_t[4096]{});
  UuidT volume;
  volume.bytes.fill(0x5a);
  std::vector<InternalData> bufs;
  bufs.reserve(static_cast<std::size_t>(count));
  for (std::int64_t i = 0; i < count; ++i) {
    bufs.push_back({volume, static_cast<std::uint64_t>(i) * 4096, 4096, payload, 0});
  }
  if (order == Order::kRandom) std::shuffle(bufs.begin(), bufs.end(), std::mt19937_64(1));
  return bufs;
}

std::unique_ptr<Pipeline> MakePipeline() {
  auto pipeline = std::make_unique<Pipeline>();
  pipeline->SetTransmitterCb([](std::shared_ptr<Dataset>&) { return 0; });
  pipeline->SetDoneCb([](unsigned long, bool, bool, bool) {});
  pipeline->SetFlushedCb([](unsigned long, bool, bool) {});
  return pipeline;
}

std::shared_ptr<Dataset> MakeDataset(std::uint64_t n) {
  auto ds = std::make_shared<Dataset>(n, true, 0, 0U);
  ds->SetNewBufCb([](const std::shared_ptr<Dataset>&, InternalData&) {});
  return ds;
}
