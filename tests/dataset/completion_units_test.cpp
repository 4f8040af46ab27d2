// SPDX-License-Identifier: Apache-2.0
// Goal: one unit for a whole dataset: how NotifyBufferReady takes one from the host and how
// NotifyRecvBuffers makes one of everything admitted. Method: complete lists of records, with the
// host's callbacks between them; the units are read as a transmitter would.
#include <algorithm>

#include "tests/dataset/dataset_fixture.h"

namespace {

constexpr auto kAlreadyWaiting = static_cast<DS_ERROR>(-14);

class NotifyBufferReady : public DatasetTest {
 protected:
  std::string Ready(const std::string& volumes, const std::string& bufs) const {
    return "I Dataset::NotifyBufferReady() " + Ds() + " is ready to transmit, vol Num: " + volumes +
           ", total size: " + bufs;
  }
  void ExpectNothingQueued() {
    EXPECT_EQ(m_ds->GetCompressedDataNum(), 0U);
    EXPECT_TRUE(m_ds->m_compressedBufs.empty());
    EXPECT_EQ(m_ds->GetXmitBuffersSize(), 0U);
  }
};
class NotifyRecvBuffers : public NotifyBufferReady {};

TEST_F(NotifyBufferReady, QueuesOneUnitForThreeBuffersOfTwoVolumes) {
  UseNormal();
  MarkXmits();
  EXPECT_EQ(m_ds->NotifyBufferReady(Unit({Buf(1, 0, 8), Buf(1, 8, 8), Buf(2, 0, 8)})), DS_ERROR_OK);
  EXPECT_EQ(Log(), (Lines{Ready("2", "3"),
                          "D Dataset::NotifyBufferReady() Pushed 1 compressed data to xmit buf.",
                          "? host xmit"}));
  EXPECT_EQ(m_ds->m_finalizedBufs.size(), 3U);
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 1U);
  EXPECT_EQ(m_ds->m_compressedBufs.size(), 1U);
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 0U);
}

TEST_F(NotifyBufferReady, KeysTheUnitByTheFirstBufferVisited) {
  UseNormal();
  MarkXmits();
  PipeCompressedData unit;
  unit.totalBufs = 4;
  for (std::uint8_t volume = 1; volume <= 2; ++volume) {
    for (std::uint64_t offset = 8; offset <= 16; offset += 8) {
      InternalData buf = BufWithData(volume, offset, 8);
      buf.opaque = volume * 100 + offset;
      unit.origBuffers[buf.volume].push_back(buf);
    }
  }
  const InternalData first = unit.origBuffers.begin()->second.front();
  ASSERT_EQ(m_ds->NotifyBufferReady(unit), DS_ERROR_OK);
  const InternalData& key = m_ds->m_compressedBufs.at(0).first;
  EXPECT_TRUE(BufInfoEqual{}(key, first));
  EXPECT_EQ(key.data, first.data);
  EXPECT_EQ(key.opaque, first.opaque);
}

TEST_F(NotifyBufferReady, QueuesACopyThatSharesThePayload) {
  UseNormal();
  MarkXmits();
  PipeCompressedData unit = Unit({Buf(1, 0, 8)});
  unit.payload = OM_DP::MakeCompressedData(3);
  unit.toXmit = false;  // read by FinalizeBuffer alone
  ASSERT_EQ(m_ds->NotifyBufferReady(unit), DS_ERROR_OK);
  const PipeCompressedData& queued = m_ds->m_compressedBufs.at(0).second;
  EXPECT_EQ(queued.payload, unit.payload);
  EXPECT_EQ(queued.totalBufs, 1U);
  EXPECT_FALSE(queued.toXmit);
  EXPECT_EQ(queued.origBuffers.size(), 1U);
  EXPECT_EQ(unit.origBuffers.size(), 1U);
}

TEST_F(NotifyBufferReady, RefusesAUnitThatCountsOneBufferTooMany) {
  UseNormal();
  MarkXmits();
  PipeCompressedData unit = Unit({Buf(1, 0, 8), Buf(1, 8, 8), Buf(2, 0, 8)});
  unit.totalBufs = 4;
  EXPECT_EQ(m_ds->NotifyBufferReady(unit), DS_ERROR_FAILED);
  EXPECT_EQ(Log(), (Lines{Ready("2", "4"),
                          "E Dataset::NotifyBufferReady() Finalize buffer size error: 3"}));
  ExpectNothingQueued();
  EXPECT_EQ(m_ds->m_finalizedBufs.size(), 3U) << "the buffers stay finalized";
}

TEST_F(NotifyBufferReady, RefusesTheUnitAfterAFailedOneWithACodeWithoutName) {
  UseNormal();
  MarkXmits();
  PipeCompressedData unit = Unit({Buf(1, 0, 8)});
  unit.totalBufs = 2;
  ASSERT_EQ(m_ds->NotifyBufferReady(unit), DS_ERROR_FAILED);
  Log();
  const DS_ERROR refused = m_ds->NotifyBufferReady(Unit({Buf(1, 8, 8)}));
  EXPECT_EQ(refused, kAlreadyWaiting);
  EXPECT_EQ(static_cast<int>(refused), -14);
  EXPECT_EQ(Text(refused), "UNDEFINED DS_ERROR VALUE");
  EXPECT_EQ(Log(), (Lines{Ready("1", "1"),
                          "E Dataset::NotifyBufferReady() Finalize buffer is not empty N: 7"}));
  ExpectNothingQueued();
  EXPECT_FALSE(m_ds->IsFinalized(Buf(1, 8, 8)));
}

TEST_F(NotifyBufferReady, RefusesASecondUnit) {
  UseNormal();
  MarkXmits();
  ASSERT_EQ(m_ds->NotifyBufferReady(Unit({Buf(1, 0, 8)})), DS_ERROR_OK);
  EXPECT_EQ(m_ds->NotifyBufferReady(Unit({Buf(1, 8, 8)})), kAlreadyWaiting);
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 1U);
}

TEST_F(NotifyBufferReady, RefusesAUnitAfterASingleFinalizedBuffer) {
  UseNormal();
  MarkXmits();
  m_ds->FinalizeBuffer(Buf(1, 0, 8));
  EXPECT_EQ(m_ds->NotifyBufferReady(Unit({})), kAlreadyWaiting);
  EXPECT_EQ(m_ds->m_finalizedBufs.size(), 1U);
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 1U);
}

TEST_F(NotifyBufferReady, CountsABufferThatComesTwiceOnce) {
  UseNormal();
  MarkXmits();
  const PipeCompressedData twice = Unit({Buf(1, 0, 8), Buf(1, 0, 8)});
  EXPECT_EQ(m_ds->NotifyBufferReady(twice), DS_ERROR_FAILED);
  EXPECT_EQ(Log(), (Lines{Ready("1", "2"),
                          "E Dataset::NotifyBufferReady() Finalize buffer size error: 1"}));
  UseNormal();
  MarkXmits();
  PipeCompressedData counted = twice;
  counted.totalBufs = 1;
  EXPECT_EQ(m_ds->NotifyBufferReady(counted), DS_ERROR_OK);
}

TEST_F(NotifyBufferReady, QueuesAnEmptyUnitUnderAnEmptyKey) {
  UseNormal();
  MarkXmits();
  EXPECT_EQ(m_ds->NotifyBufferReady(Unit({})), DS_ERROR_OK);
  EXPECT_EQ(Log(),
            (Lines{Ready("0", "0"), "I Dataset::NotifyBufferReady() Finalize buffer is empty N: 7",
                   "D Dataset::NotifyBufferReady() Pushed 1 compressed data to xmit buf.",
                   "? host xmit"}));
  ASSERT_EQ(m_ds->m_compressedBufs.size(), 1U);
  const InternalData& key = m_ds->m_compressedBufs[0].first;
  EXPECT_TRUE(BufInfoEqual{}(key, InternalData{}));
  EXPECT_EQ(key.data, nullptr);
  EXPECT_EQ(key.opaque, 0U);
}

TEST_F(NotifyBufferReady, TakesASecondEmptyUnit) {
  UseNormal();
  MarkXmits();
  m_ds->NotifyBufferReady(Unit({}));
  Log();
  EXPECT_EQ(m_ds->NotifyBufferReady(Unit({})), DS_ERROR_OK);
  EXPECT_EQ(Log().at(2), "D Dataset::NotifyBufferReady() Pushed 2 compressed data to xmit buf.");
}

TEST_F(NotifyBufferReady, RefusesAnEmptyUnitThatCountsBuffers) {
  UseNormal();
  MarkXmits();
  PipeCompressedData unit;
  unit.totalBufs = 1;
  EXPECT_EQ(m_ds->NotifyBufferReady(unit), DS_ERROR_FAILED);
  EXPECT_EQ(Log(), (Lines{Ready("0", "1"),
                          "E Dataset::NotifyBufferReady() Finalize buffer size error: 0"}));
  ExpectNothingQueued();
}

TEST_F(NotifyBufferReady, QueuesAUnitOfAVolumeWithoutBuffersUnderAnEmptyKey) {
  UseNormal();
  MarkXmits();
  PipeCompressedData unit;
  unit.origBuffers[Volume(1)];
  EXPECT_EQ(m_ds->NotifyBufferReady(unit), DS_ERROR_OK);
  EXPECT_EQ(Log(),
            (Lines{Ready("1", "0"), "I Dataset::NotifyBufferReady() Finalize buffer is empty N: 7",
                   "D Dataset::NotifyBufferReady() Pushed 1 compressed data to xmit buf.",
                   "? host xmit"}));
  EXPECT_TRUE(BufInfoEqual{}(m_ds->m_compressedBufs.at(0).first, InternalData{}));
}

TEST_F(NotifyBufferReady, RaisesBadFunctionCallWithoutTransmitCallback) {
  UseNormal();
  EXPECT_THROW(m_ds->NotifyBufferReady(Unit({Buf(1, 0, 8)})), std::bad_function_call);
  EXPECT_EQ(Log(), (Lines{Ready("1", "1"),
                          "D Dataset::NotifyBufferReady() Pushed 1 compressed data to xmit buf."}));
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 1U);
  EXPECT_EQ(m_ds->m_compressedBufs.size(), 1U);
}

TEST_F(NotifyBufferReady, KeepsTheUnitWhenTheTransmitCallbackThrows) {
  UseNormal();
  m_ds->SetXmitCb([] { throw HostFailure(); });
  EXPECT_THROW(m_ds->NotifyBufferReady(Unit({Buf(1, 0, 8)})), HostFailure);
  EXPECT_TRUE(m_ds->IsFinalized(Buf(1, 0, 8)));
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 1U);
  EXPECT_EQ(m_ds->m_compressedBufs.size(), 1U);
}

TEST_F(NotifyRecvBuffers, MakesOneUnitOfTheBuffersOfAVolumeInOrder) {
  UseNormal();
  MarkXmits();
  Admit({Buf(1, 4096, 8), Buf(1, 0, 9)});
  m_ds->NotifyRecvBuffers();
  const std::string each = "D Dataset::NotifyRecvBuffers() " + Ds() + "  ";
  EXPECT_EQ(Log(),
            (Lines{"D Dataset::NotifyRecvBuffers() doing the _received_DS_cb() loop",
                   each + BufText(1, "0x1000", "8"), each + BufText(1, "0", "9"), Ready("1", "2"),
                   "D Dataset::NotifyBufferReady() Pushed 1 compressed data to xmit buf.",
                   "? host xmit"}));
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 17U);
  EXPECT_TRUE(m_ds->IsSealed());
}

TEST_F(NotifyRecvBuffers, CoversEveryVolumeWithSharedPayloads) {
  UseNormal();
  MarkXmits();
  const InternalData a = BufWithData(1, 0, 8);
  const InternalData b = BufWithData(2, 0, 8);
  const InternalData c = BufWithData(2, 8, 8);
  Admit({a, b, c});
  m_ds->NotifyRecvBuffers();
  ASSERT_EQ(m_ds->m_compressedBufs.size(), 1U);
  const PipeCompressedData& unit = m_ds->m_compressedBufs[0].second;
  EXPECT_EQ(unit.totalBufs, 3U);
  EXPECT_TRUE(unit.toXmit);
  EXPECT_EQ(unit.payload, nullptr);
  ASSERT_EQ(unit.origBuffers.size(), 2U);
  EXPECT_EQ(unit.origBuffers.at(Volume(1)).at(0).data, a.data);
  EXPECT_EQ(unit.origBuffers.at(Volume(2)).at(0).data, b.data);
  EXPECT_EQ(unit.origBuffers.at(Volume(2)).at(1).data, c.data);
}

TEST_F(NotifyRecvBuffers, ListsTheBuffersOfAllVolumesBeforeTheUnit) {
  UseNormal();
  MarkXmits();
  Admit({Buf(1, 0, 8), Buf(2, 0, 8), Buf(3, 0, 8)});
  m_ds->NotifyRecvBuffers();
  Lines lines = Log();
  ASSERT_EQ(lines.size(), 7U);
  std::sort(lines.begin() + 1, lines.begin() + 4);  // volumes come in the map's order
  const std::string each = "D Dataset::NotifyRecvBuffers() " + Ds() + "  ";
  EXPECT_EQ(lines, (Lines{"D Dataset::NotifyRecvBuffers() doing the _received_DS_cb() loop",
                          each + BufText(1, "0", "8"), each + BufText(2, "0", "8"),
                          each + BufText(3, "0", "8"), Ready("3", "3"),
                          "D Dataset::NotifyBufferReady() Pushed 1 compressed data to xmit buf.",
                          "? host xmit"}));
}

TEST_F(NotifyRecvBuffers, FilesABufferUnderItsOwnVolume) {
  UseNormal();
  MarkXmits();
  Admit({Buf(1, 0, 8)});
  m_ds->m_coalescers.at(Volume(1))->AddData(Buf(2, 64, 8));
  m_ds->NotifyRecvBuffers();
  const auto& filed = m_ds->m_compressedBufs.at(0).second.origBuffers;
  EXPECT_EQ(filed.size(), 2U);
  EXPECT_EQ(filed.count(Volume(2)), 1U);
}

TEST_F(NotifyRecvBuffers, ResetsThePendingMarkerOfEveryCoalescer) {
  UseNormal();
  MarkXmits();
  Admit({Buf(1, 0, 8), Buf(2, 0, 8)});
  m_ds->NotifyRecvBuffers();
  for (const auto& [volume, coalescer] : m_ds->m_coalescers) EXPECT_FALSE(coalescer->Pending());
  EXPECT_EQ(m_ds->GetTotalBuffers(), 2U);
}

TEST_F(NotifyRecvBuffers, OfAnEmptyDatasetQueuesAnEmptyUnit) {
  UseNormal();
  MarkXmits();
  m_ds->NotifyRecvBuffers();
  EXPECT_EQ(Log(),
            (Lines{"D Dataset::NotifyRecvBuffers() doing the _received_DS_cb() loop",
                   Ready("0", "0"), "I Dataset::NotifyBufferReady() Finalize buffer is empty N: 7",
                   "D Dataset::NotifyBufferReady() Pushed 1 compressed data to xmit buf.",
                   "? host xmit"}));
}

TEST_F(NotifyRecvBuffers, DoesNothingWhileDisabled) {
  UseNormal();
  MarkXmits();
  Admit({Buf(1, 0, 8)});
  m_ds->m_recvNotifyEnabled = false;
  m_ds->NotifyRecvBuffers();
  EXPECT_EQ(Log(), Lines{});
  ExpectNothingQueued();
  EXPECT_TRUE(m_ds->m_coalescers.at(Volume(1))->Pending());
}

TEST_F(NotifyRecvBuffers, NeverCallsTheReceivedCallback) {
  UseNormal();
  MarkXmits();
  m_ds->SetDSReceivedCb([](auto, auto&) { Mark("received"); });
  Admit({Buf(1, 0, 8)});
  m_ds->NotifyRecvBuffers();
  EXPECT_THAT(Log(), testing::Not(testing::Contains("? host received")));
}

TEST_F(NotifyRecvBuffers, IgnoresARefusalButHasCountedTheBytes) {
  UseNormal();
  MarkXmits();
  Admit({Buf(1, 0, 8)});
  m_ds->MarkFinalized(Buf(1, 0, 8));
  Log();
  m_ds->NotifyRecvBuffers();
  EXPECT_EQ(Log(), (Lines{"D Dataset::NotifyRecvBuffers() doing the _received_DS_cb() loop",
                          "D Dataset::NotifyRecvBuffers() " + Ds() + "  " + BufText(1, "0", "8"),
                          Ready("1", "1"),
                          "E Dataset::NotifyBufferReady() Finalize buffer is not empty N: 7"}));
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 8U);
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 0U);
}

TEST_F(NotifyRecvBuffers, RaisesBadFunctionCallWithoutTransmitCallback) {
  UseNormal();
  Admit({Buf(1, 0, 8)});
  EXPECT_THROW(m_ds->NotifyRecvBuffers(), std::bad_function_call);
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 1U);
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 8U);
}

}  // namespace
