// SPDX-License-Identifier: Apache-2.0
// The example of README.md: three datasets through a pipeline.

// [quote: quickstart]
#include <iostream>

#include "penstock/host.h"
#include "penstock/penstock.h"

int main() {
  Pipeline pipeline;
  pipeline.SetTransmitterCb([](std::shared_ptr<Dataset>& ds) {
    std::cout << "transmit " << ds->GetN() << ", units: " << ds->GetCompressedDataNum() << '\n';
    return 0;
  });
  pipeline.SetDoneCb([](unsigned long n, bool, bool, bool) { std::cout << "done " << n << '\n'; });
  pipeline.SetFlushedCb([](unsigned long n, bool, bool) { std::cout << "flushed " << n << '\n'; });

  for (std::uint64_t n = 1; n <= 3; ++n) {
    pipeline.PushDs(std::make_shared<Dataset>(n, true, 1 << 20, 0U), false);
    InternalData write{UuidT{}, n * 4096, 4096, std::make_shared<std::uint8_t[]>(4096)};
    pipeline.PushBuf(write, write.length);
  }
  std::cout << pipeline << '\n';
  pipeline.Ack(1, nullptr);
  pipeline.Done(2, true, false);  // held back: 1 is not done
  std::cout << pipeline << '\n';
  pipeline.Done(1, true, false);
  pipeline.Flushed(1, true);
  std::cout << pipeline << '\n';
}
// [end]
