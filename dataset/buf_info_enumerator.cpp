// SPDX-License-Identifier: Apache-2.0
#include "penstock/buf_info_enumerator.h"

#include "common/log.h"

BufInfoEnumerator::BufInfoEnumerator(
    const std::vector<std::pair<InternalData, PipeCompressedData>>& bufs, unsigned long n)
    : m_bufs(&bufs), m_dsNum(n) {}

bool BufInfoEnumerator::Next() {
  if (m_idx + 1 >= CurrentSize()) return false;
  ++m_idx;
  return true;
}

std::int64_t BufInfoEnumerator::CurrentSize() const {
  return static_cast<std::int64_t>(m_bufs->size());
}

bool BufInfoEnumerator::Current(std::pair<InternalData, PipeCompressedData>& out) {
  if (m_idx >= CurrentSize()) {
    // The name under which this record has always been written.
    PENSTOCK_LOG_AS(LOG_ERROR, "Current()",
                    "iterator usage failure  " << m_bufs->size() << "  " << m_idx);
    return false;
  }
  out = (*m_bufs)[static_cast<std::size_t>(m_idx)];
  return true;
}
