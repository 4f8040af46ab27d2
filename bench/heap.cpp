// SPDX-License-Identifier: Apache-2.0
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <new>

#include "bench/workload.h"

// Prints the heap that one queued buffer holds beyond its payload, as JSON: after admission, and
// after the dataset was closed and its unit queued, which is the state in which it waits for the
// target. Counts every allocation of the process with the allocator's own overhead.

namespace {

std::size_t heapBytes = 0;
std::size_t peakBytes = 0;

constexpr std::size_t kAllocatorOverhead = 8;  // glibc: one size word for each block

double PerBuffer(std::size_t bytes, std::int64_t count) {
  return static_cast<double>(bytes) / static_cast<double>(count);
}

void Measure(std::int64_t count, Order order, const char* separator) {
  auto bufs = MakeBuffers(count, order);
  const auto pipeline = MakePipeline();
  const std::size_t before = heapBytes;
  peakBytes = heapBytes;
  pipeline->PushDs(MakeDataset(1), false);
  for (InternalData& buf : bufs) pipeline->PushBuf(buf, 4096);
  const std::size_t admitted = heapBytes - before;
  pipeline->BumpDs();
  const std::size_t queued = heapBytes - before;
  std::printf(
      "  {\"buffers\": %ld, \"order\": \"%s\", \"admitted\": %.0f, \"queued\": %.0f, "
      "\"peak\": %.0f}%s\n",
      static_cast<long>(count), order == Order::kRising ? "rising" : "random",
      PerBuffer(admitted, count), PerBuffer(queued, count), PerBuffer(peakBytes - before, count),
      separator);
}

}  // namespace

void* operator new(std::size_t size) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  heapBytes += malloc_usable_size(block) + kAllocatorOverhead;
  if (heapBytes > peakBytes) peakBytes = heapBytes;
  return block;
}

void operator delete(void* block) noexcept {
  if (block == nullptr) return;
  heapBytes -= malloc_usable_size(block) + kAllocatorOverhead;
  std::free(block);
}

void operator delete(void* block, std::size_t) noexcept { operator delete(block); }

int main() {
  std::printf("[\n");
  for (const std::int64_t count : {1000, 100000, 1000000}) {
    Measure(count, Order::kRising, ",");
    Measure(count, Order::kRandom, count == 1000000 ? "" : ",");
  }
  std::printf("]\n");
}
