// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_DATASET_RESYNC_FIXTURE_H_
#define PENSTOCK_TESTS_DATASET_RESYNC_FIXTURE_H_

#include <initializer_list>
#include <string>

#include "tests/dataset/dataset_fixture.h"

// The records of one resync dataset, and its verbs.
class ResyncTest : public DatasetTest {
 protected:
  void SetUp() override {
    UseResync();
    MarkXmits();
  }
  // The records with which an entry point takes a fingerprint, its own and that of the common part.
  Lines Adding(const std::string& side, const std::string& digits, const std::string& buf) const {
    const std::string text = Ds() + "  adding " + FpText(digits) + " to buffer " + buf;
    return {"I Dataset::Add" + side + "Fingerprint() " + text,
            "I Dataset::ResyncHandleFingerprints() " + text};
  }
  static Lines Mismatch(const std::string& buf, const std::string& local,
                        const std::string& remote) {
    return {"I Dataset::ResyncCalcFingerprintsMatching() fingerprints don't match - keep buffer " +
                buf + " " + FpText(local) + " " + FpText(remote),
            "I Dataset::ResyncCalcFingerprintsMatching() buffer kept because fingerprints "
            "mismatch " +
                buf};
  }
  // The records of a buffer that is kept without a received callback.
  Lines Finalizing(const std::string& buf, const std::string& unit) const {
    return {"D Dataset::FinalizeBuffer() " + Ds() + " " + buf + " compressed size: 0",
            "D Dataset::FinalizeBuffer() Pushed " + unit + " compressed data to xmit buf.",
            "? host xmit"};
  }
  // The records of a buffer that is dropped, with `finalized` of them so far.
  Lines Dropping(const std::string& buf, const std::string& finalized) const {
    return {"I Dataset::ResyncVerifyFingerprintsMatch() " + Ds() + "  buffer " + buf +
                "  will not be transmitted",
            "D Dataset::MarkFinalized() " + Ds() + "  m_finalizedBufs.size(): " + finalized + " OK",
            "I Dataset::ResyncHandleFingerprints() Buffer fingerprints matched so buffer was "
            "removed  " +
                Ds() + "  " + buf + "  m_finalizedBufs.size()=" + finalized};
  }
  static Lines Join(std::initializer_list<Lines> parts) {
    Lines all;
    for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
  }
  void Local(const InternalData& buf, std::uint8_t fill) {
    ASSERT_EQ(m_ds->AddLocalFingerprint(buf, Print(fill)), DS_ERROR_OK);
    Log();
  }
  void Remote(const InternalData& buf, std::uint8_t fill) {
    ASSERT_EQ(m_ds->AddRemoteFingerprint(buf, Print(fill)), DS_ERROR_OK);
    Log();
  }
  // Lets the received callback leave the mark "received" and keep what it was given.
  void KeepReceived() {
    m_ds->SetDSReceivedCb([this](const std::shared_ptr<Dataset>& ds, InternalData& buf) {
      EXPECT_EQ(ds, m_ds);
      m_received = buf;
      Mark("received");
    });
  }

  const InternalData m_buf = Buf(1, 4096, 8);
  const std::string m_text = BufText(1, "0x1000", "8");
  InternalData m_received;
};

#endif  // PENSTOCK_TESTS_DATASET_RESYNC_FIXTURE_H_
