// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <memory>
#include <type_traits>
#include <utility>

#include "tests/support/pipeline_rig.h"

// The intake side: each operation is run on a pipeline in a known state, and its result, its whole
// trace (log records and callbacks, in order) and the four queues afterwards are compared.

namespace {

constexpr auto kNotAccepting = static_cast<DS_ERROR>(-15);
constexpr std::uint64_t kNoIntake = std::numeric_limits<std::uint64_t>::max();

using Number = std::pair<bool, std::uint64_t>;

class Intake : public PipelineRig {};

class PushDs : public Intake {};
class PushBuf : public Intake {};
class BumpDs : public Intake {};
class DropUnfinishedDs : public Intake {};

TEST_F(Intake, AFreshPipelineIsEmptyAndAccepts) {
  EXPECT_EQ(Queues(), "recv xmit done flush");
  EXPECT_TRUE(m_pipeline.GetAcceptStatus());
  EXPECT_EQ(m_pipeline.m_lastReceived, 0U);
  EXPECT_EQ(m_pipeline.m_xmitEnumerator, nullptr);
  EXPECT_EQ(m_pipeline.m_serializers.size(), 0U);
  EXPECT_EQ(m_pipeline.GetCurRecvDsNum(), Number(false, kNoIntake));
  EXPECT_EQ(m_pipeline.GetCurXmitDsNum(), Number(false, kNoIntake));
  EXPECT_EQ(Take(), "");
}

TEST_F(Intake, APipelineHasNoVirtualsAndIsNotCopied) {
  EXPECT_FALSE(std::is_polymorphic_v<Pipeline>);
  EXPECT_FALSE(std::is_copy_constructible_v<Pipeline>);
}

TEST_F(Intake, ANewPipelineHasNoCallbacks) {
  const Pipeline fresh;
  EXPECT_FALSE(fresh.m_transmitter);
  EXPECT_FALSE(fresh.m_doneCb);
  EXPECT_FALSE(fresh.m_flushedCb);
}

TEST_F(Intake, DestructionCallsAndLogsNothing) {
  auto pipeline = std::make_unique<Pipeline>();
  int calls = 0;
  pipeline->SetTransmitterCb([&](std::shared_ptr<Dataset>&) { return ++calls; });
  pipeline->SetDoneCb([&](unsigned long, bool, bool, bool) { ++calls; });
  pipeline->SetFlushedCb([&](unsigned long, bool, bool) { ++calls; });
  const std::shared_ptr<Dataset> ds = Normal(1);
  pipeline->PushDs(ds, false);
  calls = 0;
  EXPECT_EQ(TraceOf([&] { pipeline.reset(); }), "");
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(ds.use_count(), 1);
}

TEST_F(Intake, ASetterReplacesTheCallbackByACopy) {
  int first = 0;
  int second = 0;
  Pipeline::TransmitterCb cb = [&](std::shared_ptr<Dataset>&) { return ++first; };
  m_pipeline.SetTransmitterCb(cb);
  cb = nullptr;
  SendAll({1});
  EXPECT_EQ(first, 2);
  m_pipeline.SetTransmitterCb([&](std::shared_ptr<Dataset>&) { return ++second; });
  SendAll({2});
  EXPECT_EQ(first, 2);
  EXPECT_EQ(second, 2);
}

TEST_F(PushDs, RefusesNumberZeroOnAFreshPipeline) {
  const std::shared_ptr<Dataset> ds = Normal(0);
  DS_ERROR result{};
  EXPECT_EQ(TraceOf([&] { result = m_pipeline.PushDs(ds, false); }),
            rec::PushDs(0, 0) + rec::TooOld(0, 0));
  EXPECT_EQ(result, DS_ERROR_DS_TOO_OLD);
  EXPECT_EQ(Queues(), "recv xmit done flush");
}

TEST_F(PushDs, AcceptsNumberOneOnAFreshPipelineAndClosesNothing) {
  const std::shared_ptr<Dataset> ds = Normal(1);
  DS_ERROR result{};
  EXPECT_EQ(TraceOf([&] { result = m_pipeline.PushDs(ds, false); }), rec::PushDs(1, 0));
  EXPECT_EQ(result, DS_ERROR_OK);
  EXPECT_EQ(Queues(), "recv 1 xmit done 1s flush");
  EXPECT_EQ(m_pipeline.m_lastReceived, 1U);
  EXPECT_FALSE(ds->m_complete.load());
  EXPECT_TRUE(ds->GetWaitForNext());
  EXPECT_EQ(ds.use_count(), 2);
}

TEST_F(PushDs, RefusesTheSameNumberTwiceAndAcceptsAGap) {
  Push(5);
  const std::shared_ptr<Dataset> again = Normal(5);
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.PushDs(again, false), DS_ERROR_DS_TOO_OLD); }),
            rec::PushDs(5, 5) + rec::TooOld(5, 5));
  EXPECT_FALSE(again->m_xmitCb);
  EXPECT_EQ(again.use_count(), 1);
  EXPECT_EQ(Queues(), "recv 5 xmit done 5s flush");
  EXPECT_EQ(Push(4), DS_ERROR_DS_TOO_OLD);
  EXPECT_EQ(Push(9), DS_ERROR_OK);
  EXPECT_EQ(m_pipeline.GetCurRecvDsNum(), Number(true, 9));
  EXPECT_EQ(m_pipeline.m_lastReceived, 9U);
}

TEST_F(PushDs, AcceptsTheHighestNumber) {
  EXPECT_EQ(Push(kNoIntake), DS_ERROR_OK);
  EXPECT_EQ(Push(kNoIntake), DS_ERROR_DS_TOO_OLD);
}

TEST_F(PushDs, ARefusingPipelineNeverSaysTooOld) {
  Push(5);
  m_pipeline.SetAcceptStatus(false);
  for (const std::uint64_t n : Numbers{5, 6}) {
    const std::shared_ptr<Dataset> ds = Normal(n);
    EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.PushDs(ds, false), kNotAccepting); }),
              rec::PushDs(n, 5) + rec::NotAccepting());
    EXPECT_FALSE(ds->m_xmitCb);
    EXPECT_EQ(ds.use_count(), 1);
  }
  EXPECT_EQ(Queues(), "recv 5 xmit done 5s flush");
  EXPECT_EQ(m_pipeline.m_lastReceived, 5U);
  m_pipeline.SetAcceptStatus(true);
  EXPECT_EQ(Push(6), DS_ERROR_OK);
}

TEST_F(PushDs, TheRefusalOfAClosedPipelineHasNoName) {
  EXPECT_EQ(Text(kNotAccepting), "UNDEFINED DS_ERROR VALUE");
}

TEST_F(PushDs, ClosesANormalPredecessorBeforeItsOwnDoneRecord) {
  Push(1);
  std::string queuesInside;
  m_onTransmit = [&](std::shared_ptr<Dataset>&) {
    queuesInside = Queues();
    return 0;
  };
  EXPECT_EQ(TraceOf([&] { Push(2); }),
            rec::Constructed(2) + rec::PushDs(2, 1) + rec::ClosingEmpty(1) + rec::Pushing(1) +
                rec::Calling(1, 3) + rec::Transmit(1) + rec::Newest(2, 2) +
                rec::FirstOffers(1, 2, 1) + rec::Transmit(1) + rec::Newest(2, 2));
  EXPECT_EQ(queuesInside, "recv 2 xmit 1 done 1s flush");
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s 2s flush");
  EXPECT_TRUE(m_pipeline.GetDs(1)->m_complete.load());
  EXPECT_TRUE(m_pipeline.GetDs(1)->GetWaitForNext());
}

TEST_F(PushDs, ClosesAResyncPredecessorByTheReadyCheck) {
  const std::shared_ptr<Dataset> resync = Resync(1);
  resync->IncTotal4KBlocks();
  m_pipeline.PushDs(resync, false);
  EXPECT_EQ(TraceOf([&] { Push(2); }), rec::Constructed(2) + rec::PushDs(2, 1) + rec::Prev(1) +
                                           rec::ReadyCheck(1, 1, 0, true) + rec::Pushing(1) +
                                           rec::Calling(1, 4) + rec::Transmit(1) +
                                           rec::Newest(2, 2));
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1fs 2s flush");
}

TEST_F(PushDs, TheTypeMemberAndNotGetDsTypeChoosesHowADatasetIsClosed) {
  // Built by the normal constructor with the flag false: GetDsType answers 1, the member is 1 too,
  // and an embedding system's own value of the member goes the other way.
  const auto offload = Known(std::make_shared<Dataset>(1, false, 0, 0U));
  offload->m_dsType = 7;
  m_pipeline.PushDs(offload, false);
  EXPECT_EQ(TraceOf([&] { m_pipeline.ProcessPreviousDatasets(offload); }),
            rec::Prev(1) + rec::ReadyCheck(1, 0, 0, true) + rec::Newest(1, 1));
}

TEST_F(PushDs, InstallsATransmitCallbackThatDrivesThePipeline) {
  const std::shared_ptr<Dataset> ds = Normal(1);
  m_pipeline.PushDs(ds, false);
  ASSERT_TRUE(ds->m_xmitCb);
  EXPECT_EQ(TraceOf([&] { ds->m_xmitCb(); }), rec::Newest(1, 1));
}

TEST_F(PushDs, AMissingTransmitterLeavesTheDatasetAcceptedWithoutADoneRecord) {
  Push(1);
  m_pipeline.SetTransmitterCb({});
  EXPECT_THROW(Push(2), std::bad_function_call);
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s flush");
}

TEST_F(PushDs, TheDoneRecordTakesTheDatasetsFacts) {
  const std::shared_ptr<Dataset> ds = Resync(3);
  ds->SetDsTimestamp(4711);
  m_pipeline.PushDs(ds, true);
  ds->SetDsTimestamp(4712);
  ASSERT_EQ(m_pipeline.m_donePipe.size(), 1U);
  const DoneInfo& record = m_pipeline.m_donePipe.front();
  EXPECT_EQ(record.n, 3U);
  EXPECT_EQ(record.dsTimestamp, 4711U);
  EXPECT_EQ(Queues(), "recv 3 xmit done 3f flush");
}

TEST_F(PushDs, ADatasetPushedWithTheFlagFalseCountsAsStored) {
  PushAll({1});
  Push(2, true);
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s 2 flush");
}

TEST_F(PushDs, WithoutADoneCallbackThereIsNoDoneRecord) {
  m_pipeline.SetDoneCb({});
  EXPECT_EQ(Push(1), DS_ERROR_OK);
  EXPECT_EQ(Queues(), "recv 1 xmit done flush");
}

TEST_F(PushBuf, WithoutADatasetIsRefused) {
  InternalData buf = Buf(1, 0x2000, 512);
  DS_ERROR result{};
  EXPECT_EQ(TraceOf([&] { result = m_pipeline.PushBuf(buf, 1); }),
            "E Pipeline::PushBuf() No dataset pushed - can't add buffer: InternalData[v="
            "00000000-0000-0000-0000-000000000001 o: 0x2000, l=512]\n");
  EXPECT_EQ(result, DS_ERROR_NO_DATASET);
}

TEST_F(PushBuf, AddsToTheNewestDataset) {
  PushAll({1, 2});
  const InternalData buf = Buf(1, 0, 4096);
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(Write(buf), DS_ERROR_OK); }),
            rec::PushBuf(2, 1) + rec::AddBuffer(2, buf, 4096));
  EXPECT_EQ(m_pipeline.GetDs(2)->GetTotalBuffers(), 1U);
  EXPECT_EQ(m_pipeline.GetDs(1)->GetTotalBuffers(), 0U);
}

TEST_F(PushBuf, LogsTheSizeOfTheReceivePipe) {
  const std::shared_ptr<Dataset> held = Normal(1);
  held->MarkHasBuffers();
  m_pipeline.PushDs(held, false);
  PushAll({2, 3, 4});  // 1 is transmitted and not sealed, so the others wait
  const InternalData buf = Buf(1, 0, 1);
  EXPECT_EQ(TraceOf([&] { Write(buf); }), rec::PushBuf(4, 3) + rec::AddBuffer(4, buf, 1));
}

TEST_F(PushBuf, PassesTheOriginalSizeOn) {
  Push(1);
  InternalData buf = Buf(1, 0, 4096);
  m_pipeline.PushBuf(buf, 77);
  EXPECT_EQ(m_pipeline.GetDs(1)->GetOrigBuffersSize(), 77U);
  EXPECT_EQ(m_pipeline.GetDs(1)->GetBuffersSize(), 4096U);
}

TEST_F(PushBuf, ReturnsTheDatasetsRefusalUnchanged) {
  m_pipeline.PushDs(Normal(1, 100), false);
  const InternalData buf = Buf(1, 0, 101);
  DS_ERROR result{};
  EXPECT_EQ(TraceOf([&] { result = Write(buf); }),
            rec::PushBuf(1, 1) + rec::AddBuffer(1, buf, 101) +
                "E Dataset::VerifyCapacity() failed to add excessive data to N: 1 m_total_added:0 "
                "m_max_capacity:100 \n"
                "E Dataset::AddBuffer() Capacity error N: 1 data " +
                Text(buf) + "\n");
  EXPECT_EQ(result, DS_ERROR_OUT_OF_RANGE);

  m_pipeline.PushDs(Resync(2), false);
  EXPECT_EQ(Write(Buf(9, 0, 1)), DS_ERROR_UNKNOWN_VOLUME);
}

TEST_F(BumpDs, OnAnEmptyReceivePipeDoesAndLogsNothing) {
  EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }), "");
  SendAll({1});
  EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }), "");
}

TEST_F(BumpDs, ClosesTheNewestDatasetAndSendsIt) {
  Push(1);
  EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }),
            rec::Bump(1) + rec::ClosingEmpty(1) + rec::Pushing(1) + rec::Calling(1, 3) +
                rec::Transmit(1) + rec::FirstOffers(1, 2, 1) + rec::Transmit(1));
  EXPECT_EQ(Queues(), "recv xmit 1 done 1s flush");
  EXPECT_FALSE(m_pipeline.GetDs(1)->GetWaitForNext());
}

TEST_F(BumpDs, TheNextDatasetClosesNothingWhenTheNewestHasLeft) {
  SendAll({1});
  EXPECT_EQ(TraceOf([&] { Push(2); }), rec::Constructed(2) + rec::PushDs(2, 1));
}

TEST_F(Intake, ProcessPreviousDatasetsClosesAnyDatasetGiven) {
  PushAll({1, 2});
  const std::shared_ptr<Dataset> two = m_pipeline.GetDs(2);
  EXPECT_EQ(TraceOf([&] { m_pipeline.ProcessPreviousDatasets(two); }),
            rec::ClosingEmpty(2) + rec::MoreOffers(1, 1, 1) + rec::Newest(2, 2) +
                rec::MoreOffers(1, 1, 1) + rec::Newest(2, 2));
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s 2s flush");
}

TEST_F(DropUnfinishedDs, OnAnEmptyReceivePipeOnlyLogs) {
  EXPECT_EQ(TraceOf([&] { m_pipeline.DropUnfinishedDs(); }),
            "N Pipeline::DropUnfinishedDs() m_recvPipe is empty\n");
  EXPECT_EQ(m_pipeline.m_lastReceived, 0U);
}

TEST_F(DropUnfinishedDs, LetsTheSameNumberBePushedAgain) {
  const std::shared_ptr<Dataset> dropped = Normal(5);
  m_pipeline.PushDs(dropped, false);
  EXPECT_EQ(TraceOf([&] { m_pipeline.DropUnfinishedDs(); }), rec::Dropping(5));
  EXPECT_EQ(Queues(), "recv xmit done flush");
  EXPECT_EQ(m_pipeline.m_lastReceived, 4U);
  EXPECT_EQ(dropped.use_count(), 1);
  EXPECT_FALSE(dropped->m_complete.load());
  EXPECT_EQ(Push(5), DS_ERROR_OK);
  EXPECT_EQ(m_pipeline.GetCurRecvDsNum(), Number(true, 5));
}

TEST_F(DropUnfinishedDs, TakesTheNewestAndLeavesEverythingElse) {
  SendAll({1});
  m_pipeline.Done(1, true, false);
  const std::shared_ptr<Dataset> held = Normal(2);
  held->MarkHasBuffers();
  m_pipeline.PushDs(held, false);
  PushAll({3, 4});
  const BufInfoEnumerator* cursor = m_pipeline.m_xmitEnumerator.get();
  EXPECT_EQ(Queues(), "recv 4 3 xmit 1 2 done 2s 3s 4s flush 1y");
  EXPECT_EQ(TraceOf([&] { m_pipeline.DropUnfinishedDs(); }), rec::Dropping(4));
  EXPECT_EQ(Queues(), "recv 3 xmit 1 2 done 2s 3s flush 1y");
  EXPECT_EQ(m_pipeline.m_xmitEnumerator.get(), cursor);
  EXPECT_NE(cursor, nullptr);
}

TEST_F(DropUnfinishedDs, SaysThatTheDonePipeIsEmptyAndDropsAllTheSame) {
  m_pipeline.SetDoneCb({});
  Push(5);
  EXPECT_EQ(TraceOf([&] { m_pipeline.DropUnfinishedDs(); }),
            "E Pipeline::DropUnfinishedDs() m_donePipe is empty while m_recv_pipe is not\n" +
                rec::Dropping(5));
  EXPECT_EQ(m_pipeline.m_lastReceived, 4U);
  EXPECT_EQ(Queues(), "recv xmit done flush");
}

TEST_F(DropUnfinishedDs, LeavesAnotherDatasetsDoneRecordAndDropsAllTheSame) {
  Push(4);
  m_pipeline.SetDoneCb({});
  Push(6);
  EXPECT_EQ(TraceOf([&] { m_pipeline.DropUnfinishedDs(); }),
            "E Pipeline::DropUnfinishedDs() m_donePipe has a different DS than expected 4  "
            "expected: 6\n" +
                rec::Dropping(6));
  EXPECT_EQ(Queues(), "recv xmit 4 done 4s flush");
  EXPECT_EQ(m_pipeline.m_lastReceived, 5U);
}

}  // namespace
