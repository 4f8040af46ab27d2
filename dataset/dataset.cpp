// SPDX-License-Identifier: Apache-2.0
#include "penstock/dataset.h"

#include <chrono>
#include <iomanip>
#include <ios>
#include <locale>
#include <sstream>
#include <utility>

#include "common/log.h"
#include "dataset/dataset_type.h"

// Construction, the facts and flags of a dataset, and the admission of its buffers.

Dataset::Dataset(std::uint64_t n, bool isNormal, std::uint64_t maxCapacity, unsigned int userParam)
    : m_dsNum(n),
      m_isNormal(isNormal),
      m_max_capacity(maxCapacity),
      m_dsType(kDatasetNormal),
      m_userParam(userParam) {
  PENSTOCK_LOG_AS(LOG_INFO, "Dataset()", "N: " << m_dsNum << " m_hasBuffers: " << m_hasBuffers);
}

Dataset::Dataset(std::uint64_t n, const std::vector<FingerprintRange>& ranges,
                 std::uint64_t maxCapacity)
    : m_dsNum(n),
      m_isNormal(false),
      m_max_capacity(maxCapacity),
      m_dsType(kDatasetResync),
      m_userParam(0) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << " [";
  for (const FingerprintRange& range : ranges) {
    m_ranges.insert(range);
    text << "v: " << UUID::MakeUUID(range.volume) << " o: 0x" << std::hex << range.offset
         << std::dec << " l: " << range.length << ", ";
  }
  text << "]";
  PENSTOCK_LOG(LOG_INFO, "N: " << m_dsNum << text.str() << " m_hasBuffers: " << m_hasBuffers);
}

Dataset::~Dataset() = default;

void Dataset::SetNewBufCb(BufferCb cb) { m_newBufCb = std::move(cb); }
void Dataset::SetDSReceivedCb(BufferCb cb) { m_dsReceivedCb = std::move(cb); }
void Dataset::SetDSFinalizedCb(FinalizedCb cb) { m_dsFinalizedCb = std::move(cb); }
void Dataset::SetXmitCb(XmitCb cb) { m_xmitCb = std::move(cb); }

std::uint64_t Dataset::GetN() const { return m_dsNum; }
bool Dataset::IsNormal() const { return m_isNormal; }
bool Dataset::IsFingerprinted() const { return m_dsType == kDatasetResync; }

std::uint32_t Dataset::GetDsType() const {
  if (IsNormal()) return 0;
  return IsFingerprinted() ? 2 : 1;
}

std::uint64_t Dataset::GetCompressedDataNum() const { return m_compressedDataNum.load(); }
std::uint64_t Dataset::GetBuffersSize() const { return m_total_added; }
std::uint64_t Dataset::GetXmitBuffersSize() const { return m_xmitBuffersSize; }
std::uint64_t Dataset::GetOrigBuffersSize() const { return m_origBuffersSize; }

std::uint64_t Dataset::GetTotalBuffers() const {
  std::uint64_t total = 0;
  for (const auto& [volume, coalescer] : m_coalescers) total += coalescer->Count();
  return total;
}

bool Dataset::GetWaitForNext() const { return m_waitForNext; }
bool Dataset::GetApplConsistentSnapshot() const { return m_applConsistentSnapshot; }
bool Dataset::GetInitialSyncComplete() const { return m_initialSyncComplete; }
std::uint64_t Dataset::GetDsTimestamp() const { return m_dsTimestamp; }

std::uint64_t Dataset::GetCurTimestamp() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count();
  return static_cast<std::uint64_t>(ns / 1'000'000);
}

std::pair<std::unordered_map<UuidT, std::uint8_t>&, std::uint8_t&> Dataset::GetVolIdx() {
  return {m_volIdx, m_nextVolIdx};
}

BufInfoEnumerator Dataset::GetEnumerator() const { return {m_compressedBufs, m_dsNum}; }

void Dataset::MarkNoWaitForNext() { m_waitForNext = false; }
void Dataset::SetApplConsistentSnapshot() { m_applConsistentSnapshot = true; }
void Dataset::SetInitialSyncComplete() { m_initialSyncComplete = true; }

void Dataset::SetDsTimestamp(std::uint64_t t) {
  m_dsTimestamp = t;
  PENSTOCK_LOG(LOG_INFO, "DS: setting Ds timestamp " << std::fixed
                                                     << static_cast<double>(m_dsTimestamp) / 1000.0
                                                     << " secs");
}

void Dataset::SetDsTimestamp() {
  m_dsTimestamp = GetCurTimestamp();
  PENSTOCK_LOG(LOG_INFO, "DS: setting Ds timestamp from clock "
                             << std::fixed << static_cast<double>(m_dsTimestamp) / 1000.0
                             << " secs");
}

void Dataset::SetComplete() {
  m_complete.store(true);
  if (m_foRequester) m_foRequester->CheckIfReadyToSend(true);
}

DS_ERROR Dataset::AddBuffer(InternalData& data, std::uint64_t origDataSize) {
  PENSTOCK_LOG(LOG_DEBUG,
               "N: " << m_dsNum << " adding " << data << " origDataSize: " << origDataSize);
  if (m_dsType == kDatasetResync) {
    const DS_ERROR inRange = VerifyBufferRanges(data);
    if (inRange != DS_ERROR_OK) return inRange;
  }
  const DS_ERROR hasRoom = VerifyCapacity(data);
  if (hasRoom != DS_ERROR_OK) {
    PENSTOCK_LOG(LOG_ERROR, "Capacity error N: " << m_dsNum << " data " << data);
    return hasRoom;
  }
  if (m_volIdx.try_emplace(data.volume, m_nextVolIdx).second) ++m_nextVolIdx;
  m_origBuffersSize += origDataSize;
  auto coalescer = m_coalescers.find(data.volume);
  if (coalescer == m_coalescers.end()) {
    coalescer = m_coalescers.emplace(data.volume, std::make_unique<Coalescer>(data.volume)).first;
  }
  coalescer->second->AddData(data);
  m_total_added += data.length;
  if (m_newBufCb) m_newBufCb(shared_from_this(), data);
  return DS_ERROR_OK;
}

DS_ERROR Dataset::VerifyCapacity(const InternalData& data) const {
  if (m_max_capacity == 0 || m_total_added + data.length <= m_max_capacity) return DS_ERROR_OK;
  PENSTOCK_LOG(LOG_ERROR, "failed to add excessive data to N: "
                              << m_dsNum << " m_total_added:" << m_total_added
                              << " m_max_capacity:" << m_max_capacity << " ");
  return DS_ERROR_OUT_OF_RANGE;
}

DS_ERROR Dataset::VerifyBufferRanges(const InternalData& data) const {
  const auto range = m_ranges.find(FingerprintRange{data.volume});
  if (range == m_ranges.end()) {
    PENSTOCK_LOG(LOG_INFO, "resync buffer for unknown volume");
    return DS_ERROR_UNKNOWN_VOLUME;
  }
  if (data.offset >= range->offset && data.offset + data.length <= range->offset + range->length) {
    return DS_ERROR_OK;
  }
  PENSTOCK_LOG(LOG_INFO, "resync buffer out of range  N: " << m_dsNum << " " << data << " ["
                                                           << range->offset << ", " << range->length
                                                           << "]");
  return DS_ERROR_OUT_OF_RANGE;
}

void Dataset::IncTotal4KBlocks() {
  ++m_total4KBlocks;
  if (m_foRequester) m_foRequester->m_totalFPs.fetch_add(1);
}
