// SPDX-License-Identifier: Apache-2.0
#include "replicator/slab_pool.h"

#include <mutex>
#include <utility>
#include <vector>

namespace penstock {

using Slab = std::unique_ptr<std::uint8_t[]>;

struct SlabPool::Impl {
  Impl(std::size_t theBytes, std::size_t theKeep) : bytes(theBytes), keep(theKeep) {
    kept.reserve(keep);
  }

  Slab Take() {
    const std::lock_guard lock(mutex);
    if (kept.empty()) return nullptr;
    Slab slab = std::move(kept.back());
    kept.pop_back();
    return slab;
  }
  void Give(Slab slab) {
    const std::lock_guard lock(mutex);
    if (kept.size() < keep) kept.push_back(std::move(slab));
  }

  const std::size_t bytes;
  const std::size_t keep;
  std::mutex mutex;
  std::vector<Slab> kept;
};

SlabPool::SlabPool(std::size_t bytes, std::size_t keep)
    : m_impl(std::make_shared<Impl>(bytes, keep)) {}

std::shared_ptr<std::uint8_t[]> SlabPool::Take() {
  Slab slab = m_impl->Take();
  if (!slab) slab = std::make_unique_for_overwrite<std::uint8_t[]>(m_impl->bytes);
  auto* const data = slab.get();
  // The deleter owns the piece until then, so that none is lost when the counter can't be made.
  return {data, [impl = m_impl, owned = std::make_shared<Slab>(std::move(slab))](std::uint8_t*) {
            impl->Give(std::move(*owned));
          }};
}

std::size_t SlabPool::Bytes() const { return m_impl->bytes; }

std::size_t SlabPool::Kept() const {
  const std::lock_guard lock(m_impl->mutex);
  return m_impl->kept.size();
}

}  // namespace penstock
