// SPDX-License-Identifier: Apache-2.0
#include "penstock/fingerprint_requester.h"

#include <algorithm>
#include <utility>

#include "common/log.h"

FingerprintRequester::FingerprintRequester(SendFingerprintsFn sendFn, std::uint64_t dsNum,
                                           std::size_t maxDatasetSize, int batchSize)
    : m_sendFn(std::move(sendFn)),
      m_dsNum(dsNum),
      m_batchSize(static_cast<std::uint64_t>(batchSize)),
      m_maxNumBlocks(maxDatasetSize >> 12U) {
  PENSTOCK_LOG(LOG_INFO, "maxDatasetSize " << maxDatasetSize << " m_maxNumBlocks " << m_maxNumBlocks
                                           << " m_batchSize " << m_batchSize);
  // One slot more than there are blocks: the bound of AddFingerprint is inclusive.
  m_fingerprints.resize(m_maxNumBlocks + 1);
}

void FingerprintRequester::AddFingerprint(const InternalData::Fingerprint& fp, bool isComplete) {
  PENSTOCK_LOG(LOG_INFO, "N: " << m_dsNum << " fp: 0x" << Hex16{fp});
  const auto idx = static_cast<std::uint32_t>(m_nextFingerprint.fetch_add(1));
  if (idx > m_maxNumBlocks) {
    PENSTOCK_LOG(LOG_ERROR, "can't store fingerprint as dataset has too many 4K blocks  fpIdx: "
                                << idx << "   m_maxNumBlocks: " << m_maxNumBlocks);
    return;
  }
  // Another thread may be reading this slot for a batch that it decided to send in the meantime.
  std::atomic_ref<std::uint64_t>(m_fingerprints[idx]).store(fp);
  PENSTOCK_LOG(LOG_INFO, "N: " << m_dsNum << " fp: 0x" << Hex16{fp} << " fpIdx: " << idx);
  CheckIfReadyToSend(isComplete);
}

void FingerprintRequester::CheckIfReadyToSend(bool isComplete) {
  const std::uint64_t next = m_nextFingerprint.load();
  const std::uint64_t fpIdx = next - 1;
  PENSTOCK_LOG(LOG_INFO, "N: " << m_dsNum << " m_nextFingerprint: " << m_nextFingerprint.load()
                               << " fpIdx: " << fpIdx << " totalFPs " << m_totalFPs.load()
                               << " isComplete " << Word(isComplete) << " m_lastFpIdxSent "
                               << m_lastFpIdxSent.load() << " bucket size ");
  if (m_nextFingerprint.load() == m_lastFpIdxSent.load()) return;
  const bool batchIsFull = fpIdx % m_batchSize == m_batchSize - 1;
  if (!batchIsFull && !(isComplete && fpIdx == m_totalFPs.load() - 1)) return;
  const std::uint32_t batchStart =
      static_cast<std::uint32_t>(fpIdx / m_batchSize) * static_cast<std::uint32_t>(m_batchSize);
  const auto count = static_cast<std::uint32_t>(next - batchStart);
  PENSTOCK_LOG(LOG_INFO, "N: " << m_dsNum << " fpIdx: " << fpIdx << "   length: " << m_batchSize
                               << "  batchStart: " << batchStart << " totalFPs "
                               << m_totalFPs.load() << " isComplete " << Word(isComplete));
  SendBatch(batchStart, count);
}

void FingerprintRequester::SendBatch(unsigned int start, unsigned int count) {
  // Refused fingerprints are counted but not stored: a batch may reach beyond the store.
  const std::uint64_t begin = std::min<std::uint64_t>(start, m_fingerprints.size());
  const std::uint64_t end =
      std::min<std::uint64_t>(std::uint64_t{start} + count, m_fingerprints.size());
  std::vector<std::uint64_t> batch;
  batch.reserve(end - begin);
  for (std::uint64_t i = begin; i < end; ++i) {
    batch.push_back(std::atomic_ref<std::uint64_t>(m_fingerprints[i]).load());
  }
  m_sendFn(std::move(batch), (m_dsNum << 16U) + start);
  m_lastFpIdxSent.store(start + count);
}
