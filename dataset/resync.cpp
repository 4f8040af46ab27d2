// SPDX-License-Identifier: Apache-2.0
#include <utility>

#include "common/log.h"
#include "penstock/dataset.h"

// The fingerprints of a resync dataset: block fingerprints go to the requester; the two buffer
// fingerprints, once both are there, drop or keep their buffer.

namespace {

constexpr int kFingerprintsPerBatch = 256;  // a batch covers 1 MiB of 4 KiB blocks

}  // namespace

void Dataset::InitFingerprintRequester(SendFingerprintsFn sendFn) {
  if (m_foRequester) {
    PENSTOCK_LOG(LOG_ERROR, "Calling InitFingerprintRequester on existing FORequester ");
    return;
  }
  m_foRequester = std::make_unique<FingerprintRequester>(std::move(sendFn), m_dsNum, m_max_capacity,
                                                         kFingerprintsPerBatch);
}

void Dataset::SendFingerprint4Match(InternalData::Fingerprint fp) {
  if (!m_foRequester) {
    PENSTOCK_LOG(LOG_ERROR, "Calling SendFingerprint4Match on non-existent FORequester ");
    return;
  }
  m_foRequester->AddFingerprint(fp, m_complete.load());
}

DS_ERROR Dataset::AddLocalFingerprint(const InternalData& buf, const BufFingerprint& fp) {
  PENSTOCK_LOG(LOG_INFO, "DS: " << Address(this) << " N: " << m_dsNum << "  adding " << fp
                                << " to buffer " << buf);
  return ResyncHandleFingerprints(buf, fp, m_localFingerprints, m_remoteFingerprints,
                                  "Destination");
}

DS_ERROR Dataset::AddRemoteFingerprint(const InternalData& buf, const BufFingerprint& fp) {
  PENSTOCK_LOG(LOG_INFO, "DS: " << Address(this) << " N: " << m_dsNum << "  adding " << fp
                                << " to buffer " << buf);
  return ResyncHandleFingerprints(buf, fp, m_remoteFingerprints, m_localFingerprints, "Source");
}

DS_ERROR Dataset::ResyncHandleFingerprints(InternalData buf, const BufFingerprint& fp,
                                           ResyncFingerprintsMap& mine,
                                           const ResyncFingerprintsMap& other,
                                           // NOLINTNEXTLINE(performance-unnecessary-value-param)
                                           std::string otherName) {  // the interface's form
  PENSTOCK_LOG(LOG_INFO, "DS: " << Address(this) << " N: " << m_dsNum << "  adding " << fp
                                << " to buffer " << buf);
  if (mine.contains(buf)) {
    PENSTOCK_LOG(LOG_INFO, "Buffer fingerprint already added");
    return DS_ERROR_ALREADY_EXISTS;
  }
  mine.emplace(buf, fp);
  const auto counterpart = other.find(buf);
  if (counterpart == other.end()) {
    PENSTOCK_LOG(LOG_INFO, otherName << " fingerprint not found");
    return DS_ERROR_OK;
  }
  if (ResyncVerifyFingerprintsMatch(buf) == DS_ERROR_BUFS_FP_EQUAL) {
    MarkFinalized(buf);
    PENSTOCK_LOG(LOG_INFO, "Buffer fingerprints matched so buffer was removed  DS: "
                               << Address(this) << " N: " << m_dsNum << "  " << buf
                               << "  m_finalizedBufs.size()=" << m_finalizedBufs.size());
    if (IsSealed()) m_xmitCb();
    return DS_ERROR_OK;
  }
  // The side that came second may have come without the payload.
  if (!buf.data) buf = counterpart->first;
  if (m_dsReceivedCb) {
    m_dsReceivedCb(shared_from_this(), buf);
  } else {
    FinalizeBuffer(buf);
  }
  return DS_ERROR_OK;
}

DS_ERROR Dataset::ResyncCalcFingerprintsMatching(const InternalData& buf) const {
  const auto local = m_localFingerprints.find(buf);
  if (local == m_localFingerprints.end()) {
    PENSTOCK_LOG(LOG_INFO, "source fingerprint is missing");
    return DS_ERROR_LOCAL_FP_MISSING;
  }
  const auto remote = m_remoteFingerprints.find(buf);
  if (remote == m_remoteFingerprints.end()) {
    PENSTOCK_LOG(LOG_INFO, "destination fingerprint is missing");
    return DS_ERROR_REMOTE_FP_MISSING;
  }
  // Zeroes are the target's way of saying that it has no fingerprint: never equal to anything.
  if (remote->second.bytes == BufFingerprint{}.bytes) {
    PENSTOCK_LOG(LOG_INFO, "remote fingerprints are all zeroes - keep buffer "
                               << buf << " " << local->second << " " << remote->second);
  } else if (local->second.bytes == remote->second.bytes) {
    return DS_ERROR_BUFS_FP_EQUAL;
  } else {
    PENSTOCK_LOG(LOG_INFO, "fingerprints don't match - keep buffer " << buf << " " << local->second
                                                                     << " " << remote->second);
  }
  PENSTOCK_LOG(LOG_INFO, "buffer kept because fingerprints mismatch " << buf);
  return DS_ERROR_OK;
}

DS_ERROR Dataset::ResyncVerifyFingerprintsMatch(const InternalData& buf) const {
  const DS_ERROR matching = ResyncCalcFingerprintsMatching(buf);
  if (matching != DS_ERROR_BUFS_FP_EQUAL) return matching;
  if (IsFinalized(buf)) {
    PENSTOCK_LOG(LOG_INFO, "DS: " << Address(this) << " N: " << m_dsNum << "  " << buf
                                  << " already finalized");
    return DS_ERROR_ALREADY_FINALIZED;
  }
  PENSTOCK_LOG(LOG_INFO, "DS: " << Address(this) << " N: " << m_dsNum << "  buffer " << buf
                                << "  will not be transmitted");
  return DS_ERROR_BUFS_FP_EQUAL;
}
