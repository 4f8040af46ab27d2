// SPDX-License-Identifier: Apache-2.0
// Goal: finalized buffers, one by one: what MarkFinalized and FinalizeBuffer answer, change, write
// and call, and what stays when a callback throws. Method: complete lists of records, with the
// host's callbacks between them.
#include "tests/dataset/dataset_fixture.h"

namespace {

class MarkFinalized : public DatasetTest {};
class FinalizeBuffer : public DatasetTest {
 protected:
  static PipeCompressedData Unqueued() {
    PipeCompressedData unit = Unit({});
    unit.toXmit = false;
    return unit;
  }
};

TEST_F(MarkFinalized, OfANewBuffer) {
  UseNormal();
  EXPECT_FALSE(m_ds->IsFinalized(Buf(1, 0, 8)));
  EXPECT_EQ(m_ds->MarkFinalized(Buf(1, 0, 8)), DS_ERROR_OK);
  EXPECT_EQ(Log(),
            (Lines{"D Dataset::MarkFinalized() " + Ds() + "  m_finalizedBufs.size(): 1 OK"}));
  EXPECT_TRUE(m_ds->IsFinalized(Buf(1, 0, 8)));
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 0U);
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 0U);
}

TEST_F(MarkFinalized, OfTheSameBufferAgain) {
  UseNormal();
  m_ds->MarkFinalized(Buf(1, 0, 8));
  m_ds->MarkFinalized(Buf(1, 8, 8));
  Log();
  EXPECT_EQ(m_ds->MarkFinalized(BufWithData(1, 0, 8)), DS_ERROR_ALREADY_EXISTS);
  EXPECT_EQ(Log(), (Lines{"D Dataset::MarkFinalized() " + Ds() +
                          "  m_finalizedBufs.size(): 2 ALREADY EXISTS"}));
}

TEST_F(MarkFinalized, TellsBuffersApartByVolumeOffsetAndLength) {
  UseNormal();
  m_ds->MarkFinalized(Buf(1, 0, 8));
  EXPECT_FALSE(m_ds->IsFinalized(Buf(2, 0, 8)));
  EXPECT_FALSE(m_ds->IsFinalized(Buf(1, 1, 8)));
  EXPECT_FALSE(m_ds->IsFinalized(Buf(1, 0, 9)));
}

TEST_F(MarkFinalized, CallsTheCallbackAfterItsRecords) {
  UseNormal();
  const InternalData buf = Buf(1, 4096, 8);
  m_ds->SetDSFinalizedCb([&](const std::shared_ptr<Dataset>& ds, const InternalData& given) {
    EXPECT_EQ(ds, m_ds);
    EXPECT_EQ(&given, &buf);
    EXPECT_TRUE(ds->IsFinalized(buf));
    Mark("finalized");
  });
  EXPECT_EQ(m_ds->MarkFinalized(buf), DS_ERROR_OK);
  EXPECT_EQ(Log(), (Lines{"D Dataset::MarkFinalized() " + Ds() + "  m_finalizedBufs.size(): 1 OK",
                          "D Dataset::MarkFinalized() " + Ds() +
                              " m_finalizeDsCb data: " + BufText(1, "0x1000", "8"),
                          "? host finalized"}));
}

TEST_F(MarkFinalized, CallsTheCallbackForADuplicateToo) {
  UseNormal();
  m_ds->MarkFinalized(Buf(1, 0, 8));
  MarkFinalizes();
  Log();
  EXPECT_EQ(m_ds->MarkFinalized(Buf(1, 0, 8)), DS_ERROR_ALREADY_EXISTS);
  EXPECT_EQ(
      Log(),
      (Lines{"D Dataset::MarkFinalized() " + Ds() + "  m_finalizedBufs.size(): 1 ALREADY EXISTS",
             "D Dataset::MarkFinalized() " + Ds() + " m_finalizeDsCb data: " + BufText(1, "0", "8"),
             "? host finalized " + BufText(1, "0", "8") + " of " + Ptr(m_ds.get())}));
}

TEST_F(MarkFinalized, KeepsTheBufferWhenTheCallbackThrows) {
  UseNormal();
  m_ds->SetDSFinalizedCb([](auto, auto&) { throw HostFailure(); });
  EXPECT_THROW(m_ds->MarkFinalized(Buf(1, 0, 8)), HostFailure);
  EXPECT_TRUE(m_ds->IsFinalized(Buf(1, 0, 8)));
}

TEST_F(MarkFinalized, WithACallbackRaisesBadWeakPtrWithoutSharedOwner) {
  Dataset ds(7, true, 0, 0);
  EXPECT_EQ(ds.MarkFinalized(Buf(1, 0, 8)), DS_ERROR_OK);
  ds.SetDSFinalizedCb([](auto, auto&) { Mark("finalized"); });
  Log();
  const std::string head = "D Dataset::MarkFinalized() DS: " + Ptr(&ds) + " N: 7";
  EXPECT_THROW(ds.MarkFinalized(Buf(1, 8, 8)), std::bad_weak_ptr);
  EXPECT_EQ(Log(), (Lines{head + "  m_finalizedBufs.size(): 2 OK",
                          head + " m_finalizeDsCb data: " + BufText(1, "0x8", "8")}));
  EXPECT_TRUE(ds.IsFinalized(Buf(1, 8, 8)));
}

TEST_F(FinalizeBuffer, QueuesTheUnitAndCallsTheTransmitCallback) {
  UseNormal();
  MarkXmits();
  EXPECT_EQ(m_ds->FinalizeBuffer(Buf(1, 4096, 8), Unit({Buf(1, 4096, 8)})), DS_ERROR_OK);
  EXPECT_EQ(Log(), (Lines{"D Dataset::FinalizeBuffer() " + Ds() + " " + BufText(1, "0x1000", "8") +
                              " compressed size: 1",
                          "D Dataset::FinalizeBuffer() Pushed 1 compressed data to xmit buf.",
                          "? host xmit"}));
  EXPECT_TRUE(m_ds->IsFinalized(Buf(1, 4096, 8)));
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 1U);
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 8U);
}

TEST_F(FinalizeBuffer, QueuesACopyThatSharesThePayloads) {
  UseNormal();
  InternalData buf = BufWithData(1, 0, 8);
  buf.opaque = 5;
  PipeCompressedData unit = Unit({buf});
  unit.payload = OM_DP::MakeCompressedData(3);
  m_ds->FinalizeBuffer(buf, unit);
  ASSERT_EQ(m_ds->m_compressedBufs.size(), 1U);
  const auto& [key, queued] = m_ds->m_compressedBufs[0];
  EXPECT_TRUE(BufInfoEqual{}(key, buf));
  EXPECT_EQ(key.data, buf.data);
  EXPECT_EQ(key.opaque, 5U);
  EXPECT_EQ(queued.totalBufs, 1U);
  EXPECT_TRUE(queued.toXmit);
  EXPECT_EQ(queued.payload, unit.payload);
  EXPECT_EQ(queued.origBuffers.at(Volume(1)).size(), 1U);
  EXPECT_EQ(unit.origBuffers.size(), 1U) << "the caller's unit stays";
}

TEST_F(FinalizeBuffer, CountsEachQueuedUnit) {
  UseNormal();
  m_ds->FinalizeBuffer(Buf(1, 0, 8), Unit({}));
  m_ds->FinalizeBuffer(Buf(1, 8, 9), Unqueued());
  Log();
  m_ds->FinalizeBuffer(Buf(1, 32, 10), Unit({}));
  EXPECT_EQ(Log(), (Lines{"D Dataset::FinalizeBuffer() " + Ds() + " " + BufText(1, "0x20", "10") +
                              " compressed size: 0",
                          "D Dataset::FinalizeBuffer() Pushed 2 compressed data to xmit buf."}));
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 2U);
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 27U);
  EXPECT_EQ(m_ds->m_compressedBufs.size(), 2U);
}

TEST_F(FinalizeBuffer, AccountsAUnitThatIsNotToBeTransmittedButDoesNotQueueIt) {
  UseNormal();
  MarkXmits();
  EXPECT_EQ(m_ds->FinalizeBuffer(Buf(1, 0, 8), Unqueued()), DS_ERROR_OK);
  EXPECT_EQ(Log(), (Lines{"D Dataset::FinalizeBuffer() " + Ds() + " " + BufText(1, "0", "8") +
                              " compressed size: 0",
                          "? host xmit"}));
  EXPECT_TRUE(m_ds->IsFinalized(Buf(1, 0, 8)));
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 0U);
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 8U);
  EXPECT_TRUE(m_ds->m_compressedBufs.empty());
}

TEST_F(FinalizeBuffer, WorksWithoutTransmitCallback) {
  UseNormal();
  EXPECT_NO_THROW(m_ds->FinalizeBuffer(Buf(1, 0, 8), Unit({})));
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 1U);
}

TEST_F(FinalizeBuffer, NeedsNoSharedOwner) {
  Dataset ds(7, true, 0, 0);
  ds.SetXmitCb([] { Mark("xmit"); });
  EXPECT_EQ(ds.FinalizeBuffer(Buf(1, 0, 8)), DS_ERROR_OK);
  EXPECT_EQ(Log().back(), "? host xmit");
}

TEST_F(FinalizeBuffer, OfTheSameBufferAgainQueuesNothing) {
  UseNormal();
  MarkXmits();
  MarkFinalizes();
  m_ds->FinalizeBuffer(Buf(1, 0, 8), Unit({}));
  Log();
  EXPECT_EQ(m_ds->FinalizeBuffer(BufWithData(1, 0, 8), Unit({Buf(1, 0, 8)})),
            DS_ERROR_ALREADY_FINALIZED);
  EXPECT_EQ(Log(), (Lines{"D Dataset::FinalizeBuffer() " + Ds() + " " + BufText(1, "0", "8") +
                              " compressed size: 1",
                          "I Dataset::FinalizeBuffer() " + Ds() + " " + BufText(1, "0", "8") +
                              " already finalized"}));
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 1U);
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 8U);
  EXPECT_EQ(m_ds->m_compressedBufs.size(), 1U);
}

TEST_F(FinalizeBuffer, AgainAfterAUnitThatWasNotQueuedIsRefusedToo) {
  UseNormal();
  m_ds->FinalizeBuffer(Buf(1, 0, 8), Unqueued());
  EXPECT_EQ(m_ds->FinalizeBuffer(Buf(1, 0, 8), Unit({})), DS_ERROR_ALREADY_FINALIZED);
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 0U);
}

TEST_F(FinalizeBuffer, AfterMarkFinalizedIsRefused) {
  UseNormal();
  m_ds->MarkFinalized(Buf(1, 0, 8));
  EXPECT_EQ(m_ds->FinalizeBuffer(Buf(1, 0, 8)), DS_ERROR_ALREADY_FINALIZED);
}

TEST_F(FinalizeBuffer, MakesALaterMarkFinalizedADuplicate) {
  UseNormal();
  m_ds->FinalizeBuffer(Buf(1, 0, 8));
  EXPECT_EQ(m_ds->MarkFinalized(Buf(1, 0, 8)), DS_ERROR_ALREADY_EXISTS);
}

TEST_F(FinalizeBuffer, FinalizesSilently) {
  UseNormal();
  MarkFinalizes();
  m_ds->FinalizeBuffer(Buf(1, 0, 8), Unqueued());
  EXPECT_EQ(Log(), (Lines{"D Dataset::FinalizeBuffer() " + Ds() + " " + BufText(1, "0", "8") +
                          " compressed size: 0"}));
}

TEST_F(FinalizeBuffer, WithoutAUnitQueuesAnEmptyOne) {
  UseNormal();
  MarkXmits();
  EXPECT_EQ(m_ds->FinalizeBuffer(Buf(1, 0, 8)), DS_ERROR_OK);
  EXPECT_EQ(Log(), (Lines{"D Dataset::FinalizeBuffer() " + Ds() + " " + BufText(1, "0", "8") +
                              " compressed size: 0",
                          "D Dataset::FinalizeBuffer() Pushed 1 compressed data to xmit buf.",
                          "? host xmit"}));
  ASSERT_EQ(m_ds->m_compressedBufs.size(), 1U);
  const PipeCompressedData& unit = m_ds->m_compressedBufs[0].second;
  EXPECT_EQ(unit.totalBufs, 0U);
  EXPECT_TRUE(unit.toXmit);
  EXPECT_EQ(unit.payload, nullptr);
  EXPECT_TRUE(unit.origBuffers.empty());
}

TEST_F(FinalizeBuffer, SealsTheDatasetOnceEveryBufferIsFinalized) {
  UseNormal();
  Admit({Buf(1, 0, 8), Buf(2, 0, 8)});
  m_ds->FinalizeBuffer(Buf(1, 0, 8), Unit({}));
  EXPECT_FALSE(m_ds->IsSealed());
  m_ds->FinalizeBuffer(Buf(2, 0, 8), Unqueued());
  EXPECT_TRUE(m_ds->IsSealed());
}

TEST_F(FinalizeBuffer, KeepsTheUnitWhenTheTransmitCallbackThrows) {
  UseNormal();
  m_ds->SetXmitCb([] { throw HostFailure(); });
  EXPECT_THROW(m_ds->FinalizeBuffer(Buf(1, 0, 8), Unit({})), HostFailure);
  EXPECT_TRUE(m_ds->IsFinalized(Buf(1, 0, 8)));
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 1U);
  EXPECT_EQ(m_ds->m_compressedBufs.size(), 1U);
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 8U);
}

TEST_F(FinalizeBuffer, OfAResyncDatasetNeedsTheLocalFingerprint) {
  UseResync();
  MarkXmits();
  EXPECT_EQ(m_ds->FinalizeBuffer(Buf(1, 0, 8), Unit({})), DS_ERROR_LOCAL_FP_MISSING);
  EXPECT_EQ(Log(),
            (Lines{"I Dataset::ResyncCalcFingerprintsMatching() source fingerprint is missing"}));
  EXPECT_FALSE(m_ds->IsFinalized(Buf(1, 0, 8)));
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 0U);
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 0U);
}

TEST_F(FinalizeBuffer, OfAResyncDatasetNeedsTheRemoteFingerprint) {
  UseResync();
  MarkXmits();
  m_ds->m_localFingerprints[Buf(1, 0, 8)] = Print(1);
  EXPECT_EQ(m_ds->FinalizeBuffer(Buf(1, 0, 8)), DS_ERROR_REMOTE_FP_MISSING);
  EXPECT_EQ(
      Log(),
      (Lines{"I Dataset::ResyncCalcFingerprintsMatching() destination fingerprint is missing"}));
  EXPECT_FALSE(m_ds->IsFinalized(Buf(1, 0, 8)));
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 0U);
}

TEST_F(FinalizeBuffer, OfAResyncDatasetQueuesABufferThatDiffers) {
  UseResync();
  m_ds->m_localFingerprints[Buf(1, 0, 8)] = Print(0x12);
  m_ds->m_remoteFingerprints[Buf(1, 0, 8)] = Print(0x34);
  EXPECT_EQ(m_ds->FinalizeBuffer(Buf(1, 0, 8), Unit({})), DS_ERROR_OK);
  EXPECT_EQ(
      Log(),
      (Lines{"I Dataset::ResyncCalcFingerprintsMatching() fingerprints don't match - keep buffer " +
                 BufText(1, "0", "8") + " " + FpText("21") + " " + FpText("43"),
             "I Dataset::ResyncCalcFingerprintsMatching() buffer kept because fingerprints "
             "mismatch " +
                 BufText(1, "0", "8"),
             "D Dataset::FinalizeBuffer() " + Ds() + " " + BufText(1, "0", "8") +
                 " compressed size: 0",
             "D Dataset::FinalizeBuffer() Pushed 1 compressed data to xmit buf."}));
  EXPECT_EQ(m_ds->FinalizeBuffer(Buf(1, 0, 8), Unit({})), DS_ERROR_ALREADY_FINALIZED);
}

TEST_F(FinalizeBuffer, OfAResyncDatasetQueuesAnEqualBufferToo) {
  UseResync();
  m_ds->m_localFingerprints[Buf(1, 0, 8)] = Print(1);
  m_ds->m_remoteFingerprints[Buf(1, 0, 8)] = Print(1);
  EXPECT_EQ(m_ds->FinalizeBuffer(Buf(1, 0, 8), Unit({})), DS_ERROR_OK);
  EXPECT_EQ(Log(), (Lines{"D Dataset::FinalizeBuffer() " + Ds() + " " + BufText(1, "0", "8") +
                              " compressed size: 0",
                          "D Dataset::FinalizeBuffer() Pushed 1 compressed data to xmit buf."}));
  EXPECT_TRUE(m_ds->IsFinalized(Buf(1, 0, 8)));
}

}  // namespace
