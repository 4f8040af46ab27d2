// SPDX-License-Identifier: Apache-2.0
#include "replicator/slab_pool.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace penstock {

namespace {

// Of x86-64. Pieces at least that large are mapped so that the kernel can use such pages: a fault
// for each 4 KiB costs more than filling them does, above all in a virtual machine.
constexpr std::size_t kHugePage = 2U << 20U;
constexpr std::size_t kPage = 4096;

struct Release {
  std::size_t mapped = 0;  // bytes; 0: it is the allocator's
  void operator()(std::uint8_t* data) const {
    if (mapped == 0) {
      delete[] data;
    } else {
      ::munmap(data, mapped);
    }
  }
};
using Slab = std::unique_ptr<std::uint8_t[], Release>;

// Maps a huge page more than is needed, and gives back what is before and behind the aligned part.
Slab Map(std::size_t bytes) {
  const std::size_t all = bytes + kHugePage;
  void* const place =
      ::mmap(nullptr, all, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (place == MAP_FAILED) throw std::bad_alloc();
  auto* const begin = static_cast<std::uint8_t*>(place);
  const std::size_t before =
      (kHugePage - reinterpret_cast<std::uintptr_t>(begin) % kHugePage) % kHugePage;
  if (before > 0) ::munmap(begin, before);
  if (before < kHugePage) ::munmap(begin + before + bytes, kHugePage - before);
  ::madvise(begin + before, bytes, MADV_HUGEPAGE);  // without them it is only slower
  return {begin + before, Release{bytes}};
}

Slab Make(std::size_t bytes) {
  if (bytes >= kHugePage && bytes % kPage == 0) return Map(bytes);
  return {new std::uint8_t[bytes], Release{}};
}

}  // namespace

struct SlabPool::Impl {
  Impl(std::size_t theBytes, std::size_t theKeep) : bytes(theBytes), keep(theKeep) {
    kept.reserve(keep);
  }

  Slab Take() {
    const std::lock_guard lock(mutex);
    if (kept.empty()) return nullptr;
    Slab slab = std::move(kept.back());
    kept.pop_back();
    unused = std::min(unused, kept.size());
    return slab;
  }
  void Give(Slab slab) {
    const std::lock_guard lock(mutex);
    if (kept.size() < keep) kept.push_back(std::move(slab));
  }
  // What has waited the longest; it is released without the lock.
  std::vector<Slab> TakeUnused() {
    const std::lock_guard lock(mutex);
    const auto end = kept.begin() + static_cast<std::ptrdiff_t>(unused);
    std::vector<Slab> gone(std::move_iterator(kept.begin()), std::move_iterator(end));
    kept.erase(kept.begin(), end);
    unused = kept.size();
    return gone;
  }

  const std::size_t bytes;
  const std::size_t keep;
  std::mutex mutex;
  std::vector<Slab> kept;
  std::size_t unused = 0;  // the least that waited since the last Trim
};

SlabPool::SlabPool(std::size_t bytes, std::size_t keep)
    : m_impl(std::make_shared<Impl>(bytes, keep)) {}

std::shared_ptr<std::uint8_t[]> SlabPool::Take() {
  Slab slab = m_impl->Take();
  if (!slab) slab = Make(m_impl->bytes);
  auto* const data = slab.get();
  // The deleter owns the piece until then, so that none is lost when the counter can't be made.
  return {data, [impl = m_impl, owned = std::make_shared<Slab>(std::move(slab))](std::uint8_t*) {
            impl->Give(std::move(*owned));
          }};
}

void SlabPool::Trim() { m_impl->TakeUnused(); }

std::size_t SlabPool::Bytes() const { return m_impl->bytes; }

std::size_t SlabPool::Kept() const {
  const std::lock_guard lock(m_impl->mutex);
  return m_impl->kept.size();
}

}  // namespace penstock
