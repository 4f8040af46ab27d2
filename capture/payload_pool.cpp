// SPDX-License-Identifier: Apache-2.0
#include "capture/payload_pool.h"

#include <utility>

namespace penstock {

PayloadPool::PayloadPool(std::size_t slabBytes, std::size_t keepBytes)
    : m_slabs(slabBytes, keepBytes / slabBytes) {}

std::shared_ptr<std::uint8_t[]> PayloadPool::Take(std::size_t bytes) {
  if (bytes > m_slabs.Bytes() / 4) {
    return std::shared_ptr<std::uint8_t[]>(new std::uint8_t[bytes]);
  }
  const std::lock_guard lock(m_mutex);
  if (!m_slab || m_slabs.Bytes() - m_used < bytes) {
    m_slab = m_slabs.Take();
    m_used = 0;
  }
  std::uint8_t* const place = m_slab.get() + std::exchange(m_used, m_used + bytes);
  return {m_slab, place};
}

}  // namespace penstock
