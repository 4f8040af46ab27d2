// SPDX-License-Identifier: Apache-2.0
// Goal: the fingerprints of a resync buffer as they arrive: what the first one leaves behind, and
// what happens to the buffer when the second comes. Method: both orders of arrival; complete lists
// of records, with the host's callbacks between them.
#include "tests/dataset/resync_fixture.h"

namespace {

class AddFingerprint : public ResyncTest {};

TEST_F(AddFingerprint, LocalFirstWaitsForTheDestination) {
  EXPECT_EQ(m_ds->AddLocalFingerprint(m_buf, Print(0xab)), DS_ERROR_OK);
  EXPECT_EQ(Log(), Join({Adding("Local", "BA", m_text),
                         {"I Dataset::ResyncHandleFingerprints() Destination fingerprint not "
                          "found"}}));
  EXPECT_TRUE(m_ds->m_finalizedBufs.empty());
  EXPECT_EQ(m_ds->m_localFingerprints.at(m_buf).bytes, Print(0xab).bytes);
  EXPECT_TRUE(m_ds->m_remoteFingerprints.empty());
}

TEST_F(AddFingerprint, RemoteFirstWaitsForTheSource) {
  EXPECT_EQ(m_ds->AddRemoteFingerprint(m_buf, Print(0x0f)), DS_ERROR_OK);
  EXPECT_EQ(Log(), Join({Adding("Remote", "F0", m_text),
                         {"I Dataset::ResyncHandleFingerprints() Source fingerprint not found"}}));
  EXPECT_EQ(m_ds->m_remoteFingerprints.at(m_buf).bytes, Print(0x0f).bytes);
  EXPECT_TRUE(m_ds->m_localFingerprints.empty());
}

TEST_F(AddFingerprint, EqualDropsTheBufferAndSealsWithOneTransmitCall) {
  Admit({m_buf});
  Local(m_buf, 0xab);
  EXPECT_EQ(m_ds->AddRemoteFingerprint(m_buf, Print(0xab)), DS_ERROR_OK);
  EXPECT_EQ(Log(),
            Join({Adding("Remote", "BA", m_text),
                  Dropping(m_text, "1"),
                  {"I Dataset::IsSealed() N: 7 finalized  total buffers: 1", "? host xmit"}}));
  EXPECT_EQ(m_ds->m_finalizedBufs.size(), 1U);
  EXPECT_TRUE(m_ds->IsFinalized(m_buf));
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 0U);
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 0U);
}

TEST_F(AddFingerprint, EqualDropsTheBufferWhenTheRemoteCameFirstToo) {
  Admit({m_buf});
  Remote(m_buf, 0xab);
  EXPECT_EQ(m_ds->AddLocalFingerprint(m_buf, Print(0xab)), DS_ERROR_OK);
  EXPECT_EQ(Log(),
            Join({Adding("Local", "BA", m_text),
                  Dropping(m_text, "1"),
                  {"I Dataset::IsSealed() N: 7 finalized  total buffers: 1", "? host xmit"}}));
}

TEST_F(AddFingerprint, EqualDoesNotTransmitWhileTheDatasetIsOpen) {
  Admit({m_buf, Buf(2, 0, 8)});
  Local(m_buf, 1);
  EXPECT_EQ(m_ds->AddRemoteFingerprint(m_buf, Print(1)), DS_ERROR_OK);
  EXPECT_EQ(Log(), Join({Adding("Remote", "10", m_text),
                         Dropping(m_text, "1"),
                         {"I Dataset::IsSealed() " + Ds() +
                          "  numBufs: 2  m_finalizedBufs.size(): 1 not finalized"}}));
}

TEST_F(AddFingerprint, EqualReportsToTheFinalizedCallback) {
  Admit({m_buf, Buf(2, 0, 8)});
  MarkFinalizes();
  Local(m_buf, 1);
  m_ds->AddRemoteFingerprint(m_buf, Print(1));
  Lines expected = Join({Adding("Remote", "10", m_text),
                         Dropping(m_text, "1"),
                         {"I Dataset::IsSealed() " + Ds() +
                          "  numBufs: 2  m_finalizedBufs.size(): 1 not finalized"}});
  expected.insert(expected.begin() + 4,
                  {"D Dataset::MarkFinalized() " + Ds() + " m_finalizeDsCb data: " + m_text,
                   "? host finalized " + m_text + " of " + Ptr(m_ds.get())});
  EXPECT_EQ(Log(), expected);
}

TEST_F(AddFingerprint, EqualNeverReachesTheReceivedCallback) {
  Admit({m_buf});
  KeepReceived();
  Local(m_buf, 1);
  m_ds->AddRemoteFingerprint(m_buf, Print(1));
  EXPECT_THAT(Log(), testing::Not(testing::Contains("? host received")));
}

TEST_F(AddFingerprint, EqualOnASealedDatasetRaisesBadFunctionCallWithoutTransmitCallback) {
  Admit({m_buf});
  m_ds->SetXmitCb({});
  Local(m_buf, 1);
  EXPECT_THROW(m_ds->AddRemoteFingerprint(m_buf, Print(1)), std::bad_function_call);
  EXPECT_EQ(m_ds->m_remoteFingerprints.size(), 1U);
  EXPECT_TRUE(m_ds->IsFinalized(m_buf));
}

TEST_F(AddFingerprint, EqualButFinalizedBeforeIsKept) {
  Admit({m_buf});
  m_ds->MarkFinalized(m_buf);
  Local(m_buf, 1);
  EXPECT_EQ(m_ds->AddRemoteFingerprint(m_buf, Print(1)), DS_ERROR_OK);
  EXPECT_EQ(Log(),
            Join({Adding("Remote", "10", m_text),
                  {"I Dataset::ResyncVerifyFingerprintsMatch() " + Ds() + "  " + m_text +
                       " already finalized",
                   "D Dataset::FinalizeBuffer() " + Ds() + " " + m_text + " compressed size: 0",
                   "I Dataset::FinalizeBuffer() " + Ds() + " " + m_text + " already finalized"}}));
}

TEST_F(AddFingerprint, EqualButFinalizedBeforeReachesTheReceivedCallback) {
  m_ds->MarkFinalized(m_buf);
  KeepReceived();
  Local(m_buf, 1);
  m_ds->AddRemoteFingerprint(m_buf, Print(1));
  EXPECT_EQ(Log(), Join({Adding("Remote", "10", m_text),
                         {"I Dataset::ResyncVerifyFingerprintsMatch() " + Ds() + "  " + m_text +
                              " already finalized",
                          "? host received"}}));
}

TEST_F(AddFingerprint, DifferentFinalizesTheBufferWithoutReceivedCallback) {
  Admit({m_buf});
  Local(m_buf, 0x12);
  EXPECT_EQ(m_ds->AddRemoteFingerprint(m_buf, Print(0x34)), DS_ERROR_OK);
  EXPECT_EQ(Log(), Join({Adding("Remote", "43", m_text), Mismatch(m_text, "21", "43"),
                         Mismatch(m_text, "21", "43"), Finalizing(m_text, "1")}));
  EXPECT_TRUE(m_ds->IsFinalized(m_buf));
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 8U);
  EXPECT_TRUE(m_ds->IsSealed());
}

TEST_F(AddFingerprint, DifferentWritesTheLocalFingerprintFirstInEitherOrderOfArrival) {
  Remote(m_buf, 0x34);
  EXPECT_EQ(m_ds->AddLocalFingerprint(m_buf, Print(0x12)), DS_ERROR_OK);
  EXPECT_EQ(Log(), Join({Adding("Local", "21", m_text), Mismatch(m_text, "21", "43"),
                         Mismatch(m_text, "21", "43"), Finalizing(m_text, "1")}));
}

TEST_F(AddFingerprint, DifferentReachesTheReceivedCallbackAndFinalizesNothing) {
  Admit({m_buf});
  KeepReceived();
  Local(m_buf, 0x12);
  EXPECT_EQ(m_ds->AddRemoteFingerprint(m_buf, Print(0x34)), DS_ERROR_OK);
  EXPECT_EQ(
      Log(),
      Join({Adding("Remote", "43", m_text), Mismatch(m_text, "21", "43"), {"? host received"}}));
  EXPECT_TRUE(BufInfoEqual{}(m_received, m_buf));
  EXPECT_FALSE(m_ds->IsFinalized(m_buf));
}

TEST_F(AddFingerprint, AKeptBufferTakesThePayloadOfTheFirstSide) {
  KeepReceived();
  InternalData first = BufWithData(1, 4096, 8);
  first.opaque = 31;
  InternalData second = m_buf;
  second.opaque = 32;
  Local(first, 1);
  m_ds->AddRemoteFingerprint(second, Print(2));
  EXPECT_EQ(m_received.data, first.data);
  EXPECT_EQ(m_received.opaque, 31U);
  EXPECT_EQ(m_ds->m_remoteFingerprints.find(m_buf)->first.data, nullptr);
}

TEST_F(AddFingerprint, AKeptBufferKeepsItsOwnPayload) {
  KeepReceived();
  InternalData first = BufWithData(1, 4096, 8);
  InternalData second = BufWithData(1, 4096, 8);
  second.opaque = 32;
  Remote(first, 2);
  m_ds->AddLocalFingerprint(second, Print(1));
  EXPECT_EQ(m_received.data, second.data);
  EXPECT_EQ(m_received.opaque, 32U);
}

TEST_F(AddFingerprint, AKeptBufferWithoutAnyPayloadStaysWithout) {
  KeepReceived();
  InternalData first = m_buf;
  first.opaque = 31;
  Local(first, 1);
  m_ds->AddRemoteFingerprint(m_buf, Print(2));
  EXPECT_EQ(m_received.data, nullptr);
  EXPECT_EQ(m_received.opaque, 31U);
}

TEST_F(AddFingerprint, AKeptBufferIsQueuedWithThePayloadOfTheFirstSide) {
  const InternalData first = BufWithData(1, 4096, 8);
  Local(first, 1);
  m_ds->AddRemoteFingerprint(m_buf, Print(2));
  ASSERT_EQ(m_ds->m_compressedBufs.size(), 1U);
  EXPECT_EQ(m_ds->m_compressedBufs[0].first.data, first.data);
  EXPECT_EQ(m_ds->m_compressedBufs[0].second.payload, nullptr);
}

TEST_F(AddFingerprint, TheReceivedCallbackMayFinalizeTheBuffer) {
  Admit({m_buf});
  m_ds->SetDSReceivedCb([](const std::shared_ptr<Dataset>& ds, InternalData& buf) {
    EXPECT_EQ(ds->FinalizeBuffer(buf, Unit({buf})), DS_ERROR_OK);
  });
  Local(m_buf, 1);
  m_ds->AddRemoteFingerprint(m_buf, Print(2));
  EXPECT_TRUE(m_ds->IsSealed());
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 1U);
}

TEST_F(AddFingerprint, TwiceForTheSameSideIsRefused) {
  Local(m_buf, 1);
  EXPECT_EQ(m_ds->AddLocalFingerprint(BufWithData(1, 4096, 8), Print(2)), DS_ERROR_ALREADY_EXISTS);
  EXPECT_EQ(Log(),
            Join({Adding("Local", "20", m_text),
                  {"I Dataset::ResyncHandleFingerprints() Buffer fingerprint already added"}}));
  EXPECT_EQ(m_ds->m_localFingerprints.at(m_buf).bytes, Print(1).bytes);
  EXPECT_EQ(m_ds->m_localFingerprints.find(m_buf)->first.data, nullptr);
}

TEST_F(AddFingerprint, TwiceForTheRemoteSideIsRefusedAfterTheDecisionToo) {
  Admit({m_buf});
  Local(m_buf, 1);
  Remote(m_buf, 1);
  EXPECT_EQ(m_ds->AddRemoteFingerprint(m_buf, Print(3)), DS_ERROR_ALREADY_EXISTS);
  EXPECT_EQ(Log(),
            Join({Adding("Remote", "30", m_text),
                  {"I Dataset::ResyncHandleFingerprints() Buffer fingerprint already added"}}));
  EXPECT_EQ(m_ds->m_remoteFingerprints.at(m_buf).bytes, Print(1).bytes);
}

TEST_F(AddFingerprint, StaysWhenTheReceivedCallbackThrows) {
  m_ds->SetDSReceivedCb([](auto, auto&) { throw HostFailure(); });
  Local(m_buf, 1);
  EXPECT_THROW(m_ds->AddRemoteFingerprint(m_buf, Print(2)), HostFailure);
  EXPECT_EQ(m_ds->m_remoteFingerprints.size(), 1U);
  EXPECT_FALSE(m_ds->IsFinalized(m_buf));
  EXPECT_EQ(m_ds->AddRemoteFingerprint(m_buf, Print(2)), DS_ERROR_ALREADY_EXISTS);
}

TEST_F(AddFingerprint, StaysWhenTheFinalizedCallbackThrows) {
  Admit({m_buf});
  m_ds->SetDSFinalizedCb([](auto, auto&) { throw HostFailure(); });
  Local(m_buf, 1);
  EXPECT_THROW(m_ds->AddRemoteFingerprint(m_buf, Print(1)), HostFailure);
  EXPECT_EQ(m_ds->m_remoteFingerprints.size(), 1U);
  EXPECT_TRUE(m_ds->IsFinalized(m_buf));
  EXPECT_EQ(Log().back(), "D Dataset::MarkFinalized() " + Ds() + " m_finalizeDsCb data: " + m_text);
}

TEST_F(AddFingerprint, RaisesBadWeakPtrForAReceivedCallbackWithoutSharedOwner) {
  const std::vector<FingerprintRange> ranges{{Volume(1), 0, 8192}};
  Dataset ds(7, ranges, 0);
  ds.SetDSReceivedCb([](auto, auto&) { Mark("received"); });
  ds.AddLocalFingerprint(m_buf, Print(1));
  EXPECT_THROW(ds.AddRemoteFingerprint(m_buf, Print(2)), std::bad_weak_ptr);
  EXPECT_EQ(ds.m_remoteFingerprints.size(), 1U);
  EXPECT_THAT(Log(), testing::Not(testing::Contains("? host received")));
}

TEST_F(AddFingerprint, TakesTheOtherSidesNameAsItIsGiven) {
  ResyncFingerprintsMap mine;
  const ResyncFingerprintsMap other;
  EXPECT_EQ(m_ds->ResyncHandleFingerprints(m_buf, Print(1), mine, other, "Somewhere"), DS_ERROR_OK);
  EXPECT_EQ(Log(),
            (Lines{"I Dataset::ResyncHandleFingerprints() " + Ds() + "  adding " + FpText("10") +
                       " to buffer " + m_text,
                   "I Dataset::ResyncHandleFingerprints() Somewhere fingerprint not found"}));
  EXPECT_EQ(mine.size(), 1U);
}

}  // namespace
