// SPDX-License-Identifier: Apache-2.0
#include <utility>

#include "common/log.h"
#include "dataset/dataset_type.h"
#include "penstock/dataset.h"

// The completion of a dataset: which buffers are finalized, the units that are queued for
// transmission, and whether the dataset is sealed.

namespace {

// Returned by NotifyBufferReady when a buffer was finalized before its unit came. It has no name,
// so that callers can tell it from every named failure.
constexpr auto kBufferAlreadyWaiting = static_cast<DS_ERROR>(-14);

}  // namespace

bool Dataset::IsFinalized(const InternalData& d) const { return m_finalizedBufs.contains(d); }

DS_ERROR Dataset::MarkFinalized(const InternalData& d) {
  const bool isNew = m_finalizedBufs.insert(d).second;
  PENSTOCK_LOG(LOG_DEBUG, "DS: " << Address(this) << " N: " << m_dsNum
                                 << "  m_finalizedBufs.size(): " << m_finalizedBufs.size()
                                 << (isNew ? " OK" : " ALREADY EXISTS"));
  if (m_dsFinalizedCb) {
    PENSTOCK_LOG(LOG_DEBUG,
                 "DS: " << Address(this) << " N: " << m_dsNum << " m_finalizeDsCb data: " << d);
    m_dsFinalizedCb(shared_from_this(), d);
  }
  return isNew ? DS_ERROR_OK : DS_ERROR_ALREADY_EXISTS;
}

DS_ERROR Dataset::FinalizeBuffer(const InternalData& d, const PipeCompressedData& c) {
  if (m_dsType == kDatasetResync) {
    const DS_ERROR matching = ResyncCalcFingerprintsMatching(d);
    if (matching == DS_ERROR_REMOTE_FP_MISSING || matching == DS_ERROR_LOCAL_FP_MISSING) {
      return matching;
    }
  }
  PENSTOCK_LOG(LOG_DEBUG, "DS: " << Address(this) << " N: " << m_dsNum << " " << d
                                 << " compressed size: " << c.totalBufs);
  if (IsFinalized(d)) {
    PENSTOCK_LOG(LOG_INFO,
                 "DS: " << Address(this) << " N: " << m_dsNum << " " << d << " already finalized");
    return DS_ERROR_ALREADY_FINALIZED;
  }
  m_finalizedBufs.insert(d);
  if (c.toXmit) {
    m_compressedDataNum.fetch_add(1);
    m_compressedBufs.emplace_back(d, c);
    PENSTOCK_LOG(LOG_DEBUG,
                 "Pushed " << m_compressedDataNum.load() << " compressed data to xmit buf.");
  }
  m_xmitBuffersSize += d.length;
  if (m_xmitCb) m_xmitCb();
  return DS_ERROR_OK;
}

DS_ERROR Dataset::FinalizeBuffer(const InternalData& d) {
  return FinalizeBuffer(d, PipeCompressedData{});
}

DS_ERROR Dataset::NotifyBufferReady(const PipeCompressedData& c) {
  return NotifyBufferReady(PipeCompressedData(c));
}

DS_ERROR Dataset::NotifyBufferReady(PipeCompressedData&& c) {
  PENSTOCK_LOG(LOG_INFO, "DS: " << Address(this) << " N: " << m_dsNum
                                << " is ready to transmit, vol Num: " << c.origBuffers.size()
                                << ", total size: " << c.totalBufs);
  if (!m_finalizedBufs.empty()) {
    PENSTOCK_LOG(LOG_ERROR, "Finalize buffer is not empty N: " << m_dsNum);
    return kBufferAlreadyWaiting;
  }
  const InternalData* first = nullptr;  // the unit's key
  for (const auto& [volume, bufs] : c.origBuffers) {
    m_finalizedBufs.reserve(m_finalizedBufs.size() + bufs.size());
    for (const InternalData& buf : bufs) {
      if (first == nullptr) first = &buf;
      m_finalizedBufs.insert(buf);
    }
  }
  if (m_finalizedBufs.size() != c.totalBufs) {
    PENSTOCK_LOG(LOG_ERROR, "Finalize buffer size error: " << m_finalizedBufs.size());
    return DS_ERROR_FAILED;
  }
  if (m_finalizedBufs.empty()) PENSTOCK_LOG(LOG_INFO, "Finalize buffer is empty N: " << m_dsNum);
  m_compressedDataNum.fetch_add(1);
  m_compressedBufs.emplace_back(first == nullptr ? InternalData{} : *first, std::move(c));
  PENSTOCK_LOG(LOG_DEBUG,
               "Pushed " << m_compressedDataNum.load() << " compressed data to xmit buf.");
  m_xmitCb();
  return DS_ERROR_OK;
}

void Dataset::CheckIfReadyAndCompress() {
  PENSTOCK_LOG(LOG_INFO, "N: " << m_dsNum << " blocks4K " << m_total4KBlocks << " done4K "
                               << m_done4KBlocks << " complete: " << m_complete.load());
  if (m_dsType != kDatasetOffload || m_total4KBlocks != m_done4KBlocks || !m_complete.load()) {
    return;
  }
  PENSTOCK_LOG(LOG_NOTICE, "All offload data received for N: " << m_dsNum << " blocks4K "
                                                               << m_total4KBlocks << " done4K "
                                                               << m_done4KBlocks);
  // Several threads may complete blocks at once; the first to get here compresses.
  if (m_compressStarted.fetch_add(1) != 0) return;
  PENSTOCK_LOG(LOG_INFO, "Sending offloaded data to compress for N: " << m_dsNum);
  NotifyRecvBuffers();
}

void Dataset::NotifyRecvBuffers() {
  if (!m_recvNotifyEnabled) return;
  PENSTOCK_LOG(LOG_DEBUG, "doing the _received_DS_cb() loop");
  PipeCompressedData unit;
  for (const auto& [volume, coalescer] : m_coalescers) {
    coalescer->ResetPending();
    for (const InternalData& d : coalescer->Buffers()) {
      PENSTOCK_LOG(LOG_DEBUG, "DS: " << Address(this) << " N: " << m_dsNum << "  " << d);
      const auto [entry, isNew] = unit.origBuffers.try_emplace(d.volume);
      if (isNew) entry->second.reserve(coalescer->Count());
      entry->second.push_back(d);
      m_xmitBuffersSize += d.length;
      ++unit.totalBufs;
    }
  }
  // The unit is handed over whole: a copy of a large dataset's descriptors would be made for
  // nothing.
  NotifyBufferReady(std::move(unit));
}

std::int32_t Dataset::MarkHasBuffers() {
  ++m_hasBuffers;
  PENSTOCK_LOG(LOG_INFO, "N: " << m_dsNum << " m_hasBuffers: " << m_hasBuffers);
  return m_hasBuffers;
}

std::int32_t Dataset::MarkDoneBuffers() {
  --m_hasBuffers;
  PENSTOCK_LOG(LOG_INFO, "N: " << m_dsNum << " m_hasBuffers: " << m_hasBuffers);
  if (m_hasBuffers == 0) m_xmitCb();
  return m_hasBuffers;
}

bool Dataset::IsSealed() const {
  const std::uint64_t numBufs = GetTotalBuffers();
  if (numBufs != m_finalizedBufs.size()) {
    PENSTOCK_LOG(LOG_INFO, "DS: " << Address(this) << " N: " << m_dsNum << "  numBufs: " << numBufs
                                  << "  m_finalizedBufs.size(): " << m_finalizedBufs.size()
                                  << " not finalized");
    return false;
  }
  if (m_hasBuffers != 0) {
    PENSTOCK_LOG(LOG_INFO, "DS: " << Address(this) << " N: " << m_dsNum << " m_hasBuffers: "
                                  << m_hasBuffers << " - buffers are still being decompressed");
    return false;
  }
  if (m_coalescers.empty()) {
    PENSTOCK_LOG(LOG_INFO, "N: " << m_dsNum << " no buffers  " << Address(this));
  }
  PENSTOCK_LOG(LOG_INFO, "N: " << m_dsNum << " finalized "
                               << " total buffers: " << numBufs);
  return true;
}
