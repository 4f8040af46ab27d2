// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <memory>
#include <sstream>

#include <penstock/host.h>
#include <penstock/penstock.h>

// A stranger's program: carries one dataset through a pipeline with the installed headers and
// prints the pipeline. It calls nothing of the host support itself, so that a linker which drops
// what nothing needs is put to the test.
int main() {
  Pipeline pipeline;
  int calls = 0;
  pipeline.SetTransmitterCb([&calls](std::shared_ptr<Dataset>&) { return ++calls; });
  pipeline.SetDoneCb([](unsigned long, bool, bool, bool) {});
  pipeline.SetFlushedCb([](unsigned long, bool, bool) {});
  if (pipeline.PushDs(std::make_shared<Dataset>(1, true, 0, 0U), false) != DS_ERROR_OK) return 1;
  InternalData buf{{}, 4096, 4096, nullptr, 0};
  if (pipeline.PushBuf(buf, 4096) != DS_ERROR_OK) return 1;
  pipeline.BumpDs();
  std::ostringstream text;
  text << pipeline << " calls " << calls << " version " << PENSTOCK_VERSION_STRING;
  std::puts(text.str().c_str());
  return 0;
}
