// SPDX-License-Identifier: Apache-2.0
// Goal: the rule that keeps or drops a resync buffer: which fingerprint is missing, which two are
// equal, and the target's zeroes. Method: fingerprints that differ in one byte; complete lists of
// records.
#include "tests/dataset/resync_fixture.h"

namespace {

class KeepOrDrop : public ResyncTest {};

TEST_F(KeepOrDrop, NeedsTheLocalFingerprintFirst) {
  EXPECT_EQ(m_ds->ResyncCalcFingerprintsMatching(m_buf), DS_ERROR_LOCAL_FP_MISSING);
  EXPECT_EQ(m_ds->ResyncVerifyFingerprintsMatch(m_buf), DS_ERROR_LOCAL_FP_MISSING);
  const std::string missing =
      "I Dataset::ResyncCalcFingerprintsMatching() source fingerprint is missing";
  EXPECT_EQ(Log(), (Lines{missing, missing}));
}

TEST_F(KeepOrDrop, NeedsTheRemoteFingerprintToo) {
  Local(m_buf, 0);
  EXPECT_EQ(m_ds->ResyncCalcFingerprintsMatching(m_buf), DS_ERROR_REMOTE_FP_MISSING);
  EXPECT_EQ(m_ds->ResyncVerifyFingerprintsMatch(m_buf), DS_ERROR_REMOTE_FP_MISSING);
  const std::string missing =
      "I Dataset::ResyncCalcFingerprintsMatching() destination fingerprint is missing";
  EXPECT_EQ(Log(), (Lines{missing, missing}));
}

TEST_F(KeepOrDrop, MissesTheLocalFingerprintThoughTheRemoteOneIsThere) {
  Remote(m_buf, 0);
  EXPECT_EQ(m_ds->ResyncCalcFingerprintsMatching(m_buf), DS_ERROR_LOCAL_FP_MISSING);
}

TEST_F(KeepOrDrop, KeepsWhenTheRemoteFingerprintIsAllZeroes) {
  m_ds->m_localFingerprints[m_buf] = Print(0x12);
  m_ds->m_remoteFingerprints[m_buf] = Print(0);
  EXPECT_EQ(m_ds->ResyncCalcFingerprintsMatching(m_buf), DS_ERROR_OK);
  EXPECT_EQ(Log(),
            (Lines{"I Dataset::ResyncCalcFingerprintsMatching() remote fingerprints are all zeroes "
                   "- keep buffer " +
                       m_text + " " + FpText("21") + " " + FpText("00"),
                   "I Dataset::ResyncCalcFingerprintsMatching() buffer kept because fingerprints "
                   "mismatch " +
                       m_text}));
}

TEST_F(KeepOrDrop, KeepsWhenBothFingerprintsAreAllZeroes) {
  Admit({m_buf});
  Local(m_buf, 0);
  EXPECT_EQ(m_ds->AddRemoteFingerprint(m_buf, Print(0)), DS_ERROR_OK);
  const Lines zeroes{
      "I Dataset::ResyncCalcFingerprintsMatching() remote fingerprints are all zeroes - keep "
      "buffer " +
          m_text + " " + FpText("00") + " " + FpText("00"),
      "I Dataset::ResyncCalcFingerprintsMatching() buffer kept because fingerprints mismatch " +
          m_text};
  EXPECT_EQ(Log(), Join({Adding("Remote", "00", m_text), zeroes, zeroes, Finalizing(m_text, "1")}));
}

TEST_F(KeepOrDrop, ComparesEveryByteOfTheFingerprints) {
  for (std::size_t i = 0; i < 20; ++i) {
    m_ds->m_localFingerprints[m_buf] = Print(7);
    m_ds->m_remoteFingerprints[m_buf] = Print(7);
    m_ds->m_remoteFingerprints[m_buf].bytes[i] = 8;
    EXPECT_EQ(m_ds->ResyncCalcFingerprintsMatching(m_buf), DS_ERROR_OK) << "byte " << i;
  }
}

TEST_F(KeepOrDrop, LooksAtEveryByteForZeroes) {
  for (std::size_t i = 0; i < 20; ++i) {
    BufFingerprint fp;
    fp.bytes[i] = 1;
    m_ds->m_localFingerprints[m_buf] = fp;
    m_ds->m_remoteFingerprints[m_buf] = fp;
    EXPECT_EQ(m_ds->ResyncCalcFingerprintsMatching(m_buf), DS_ERROR_BUFS_FP_EQUAL) << "byte " << i;
  }
}

TEST_F(KeepOrDrop, DropsEqualFingerprintsSilently) {
  m_ds->m_localFingerprints[m_buf] = Print(7);
  m_ds->m_remoteFingerprints[m_buf] = Print(7);
  EXPECT_EQ(m_ds->ResyncCalcFingerprintsMatching(m_buf), DS_ERROR_BUFS_FP_EQUAL);
  EXPECT_EQ(Log(), Lines{});
}

TEST_F(KeepOrDrop, VerifiesThatAnEqualBufferWasNotFinalized) {
  m_ds->m_localFingerprints[m_buf] = Print(7);
  m_ds->m_remoteFingerprints[m_buf] = Print(7);
  EXPECT_EQ(m_ds->ResyncVerifyFingerprintsMatch(m_buf), DS_ERROR_BUFS_FP_EQUAL);
  EXPECT_EQ(Log(), (Lines{"I Dataset::ResyncVerifyFingerprintsMatch() " + Ds() + "  buffer " +
                          m_text + "  will not be transmitted"}));
  m_ds->MarkFinalized(m_buf);
  Log();
  EXPECT_EQ(m_ds->ResyncVerifyFingerprintsMatch(m_buf), DS_ERROR_ALREADY_FINALIZED);
  EXPECT_EQ(Log(), (Lines{"I Dataset::ResyncVerifyFingerprintsMatch() " + Ds() + "  " + m_text +
                          " already finalized"}));
}

TEST_F(KeepOrDrop, VerifiesADifferentBufferAsKeptThoughItWasFinalized) {
  m_ds->m_localFingerprints[m_buf] = Print(0x12);
  m_ds->m_remoteFingerprints[m_buf] = Print(0x34);
  m_ds->MarkFinalized(m_buf);
  Log();
  EXPECT_EQ(m_ds->ResyncVerifyFingerprintsMatch(m_buf), DS_ERROR_OK);
  EXPECT_EQ(Log(), Mismatch(m_text, "21", "43"));
}

TEST_F(KeepOrDrop, KeptAndDroppedBuffersSealTheDatasetTogether) {
  const InternalData kept = Buf(2, 0, 8);
  Admit({m_buf, kept});
  Local(kept, 1);
  Remote(kept, 2);
  EXPECT_FALSE(m_ds->IsSealed());
  Local(m_buf, 1);
  m_ds->AddRemoteFingerprint(m_buf, Print(1));
  EXPECT_EQ(Log().back(), "? host xmit");
  EXPECT_TRUE(m_ds->IsSealed());
}

}  // namespace
