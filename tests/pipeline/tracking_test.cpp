// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "tests/support/pipeline_rig.h"

// Done and flush records: what each answer of the host marks, what it lets go and in which order,
// as result, whole trace and queues.

namespace {

class Done : public PipelineRig {};
class TrackingMarks : public PipelineRig {};
class Flushed : public PipelineRig {
 protected:
  // Flush records 1 to `last`, each with success.
  void ReportUpTo(std::uint64_t last) {
    for (std::uint64_t n = 1; n <= last; ++n) {
      Push(n);
      m_pipeline.Done(n, true, false);
    }
    Forget();
  }
};
class Clearing : public PipelineRig {};

TEST_F(Done, WithoutADoneCallbackEveryNumberIsUnknown) {
  m_pipeline.SetDoneCb({});
  PushAll({1, 2});
  for (const std::uint64_t n : Numbers{0, 1, 2, 3}) {
    EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Done(n, true, false), DS_ERROR_NO_DATASET); }),
              rec::Done(n, true, false));
  }
}

TEST_F(Done, AddToDonePipeWithoutADoneCallbackAddsNothing) {
  m_pipeline.SetDoneCb({});
  m_pipeline.AddToDonePipe(Normal(1), false);
  EXPECT_EQ(Queues(), "recv xmit done flush");
}

TEST_F(Done, WaitsForOlderDatasetsAndThenReportsInOrder) {
  PushAll({1, 2, 3});
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Done(2, true, false), DS_ERROR_OK); }),
            rec::Done(2, true, false) + rec::Found(2, 1, false, true));
  EXPECT_EQ(Queues(), "recv 3 xmit 1 2 done 1s 2dys 3s flush");
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Done(1, true, false), DS_ERROR_OK); }),
            rec::Done(1, true, false) + rec::Found(1, 1, false, true) +
                rec::Reported(1, false, true, false) + rec::Reported(2, false, true, false));
  EXPECT_EQ(Queues(), "recv 3 xmit 1 2 done 3s flush 1y 2y");
}

TEST_F(Done, PassesEachRecordsOwnFlags) {
  m_pipeline.PushDs(Resync(1), false);
  PushAll({2, 3, 4});
  m_pipeline.Done(4, true, true);
  m_pipeline.Done(3, false, true);
  m_pipeline.Done(2, true, false);
  EXPECT_EQ(TraceOf([&] { m_pipeline.Done(1, false, false); }),
            rec::Done(1, false, false) + rec::Found(1, 1, false, true) +
                rec::Reported(1, true, false, false) + rec::Reported(2, false, true, false) +
                rec::Reported(3, false, false, true) + rec::Reported(4, false, true, true));
  EXPECT_EQ(Queues(), "recv 4 xmit 1 2 3 done flush 1f 2y 3 4y");
}

TEST_F(Done, OfAnUnknownNumberChangesNothing) {
  PushAll({1, 2});
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Done(3, true, false), DS_ERROR_NO_DATASET); }),
            rec::Done(3, true, false));
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s 2s flush");
}

TEST_F(Done, OfAnUnknownNumberDeliversReportsThatWereHeldBack) {
  PushAll({1, 2});
  // The front became ready without a walk.
  m_pipeline.m_donePipe.front().done = true;
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Done(9, true, false), DS_ERROR_NO_DATASET); }),
            rec::Done(9, true, false) + rec::Reported(1, false, false, false));
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 2s flush 1");
}

TEST_F(Done, FindsItsRecordAlsoAfterAReportOnTheWay) {
  PushAll({1, 2, 3});
  m_pipeline.m_donePipe.front().done = true;
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Done(2, true, true), DS_ERROR_OK); }),
            rec::Done(2, true, true) + rec::Reported(1, false, false, false) +
                rec::Found(2, 2, false, true) + rec::Reported(2, false, true, true));
}

TEST_F(Done, ALaterCallOverwritesSuccessAndEmpty) {
  PushAll({1, 2});
  m_pipeline.Done(2, false, true);
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s 2des flush");
  m_pipeline.Done(2, true, false);
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s 2dys flush");
}

TEST_F(Done, QueuesTheFlushRecordBeforeTheCallbackAndDropsTheFileAfterIt) {
  const std::shared_ptr<Dataset> ds = Normal(1);
  ds->SetDsTimestamp(77);
  m_pipeline.PushDs(ds, false);
  const auto file = std::make_shared<DatasetSerializer>(1, Volume(1), "spool");
  m_pipeline.AddSerializer(1, file);
  m_pipeline.AddSerializer(2, file);
  std::string inside;
  m_onDone = [&](unsigned long n) {
    inside = Queues() + (m_pipeline.GetDsSerializer(n) ? " with file" : " without file");
  };
  m_pipeline.Done(1, true, false);
  EXPECT_EQ(inside, "recv 1 xmit done 1dys flush 1y with file");
  EXPECT_EQ(Queues(), "recv 1 xmit done flush 1y");
  EXPECT_EQ(m_pipeline.GetDsSerializer(1), nullptr);
  EXPECT_EQ(m_pipeline.GetDsSerializer(2), file);
  EXPECT_EQ(m_pipeline.GetPendingFlushDsTimestamp(1), 77U);
}

TEST_F(Done, WithoutAFlushedCallbackMakesNoFlushRecord) {
  m_pipeline.SetFlushedCb({});
  Push(1);
  EXPECT_EQ(TraceOf([&] { m_pipeline.Done(1, true, false); }),
            rec::Done(1, true, false) + rec::Found(1, 1, false, true) +
                rec::Reported(1, false, true, false));
  EXPECT_EQ(Queues(), "recv 1 xmit done flush");
}

TEST_F(Done, ADoneCallbackThatWasRemovedThrowsAndLeavesTheRecord) {
  Push(1);
  m_pipeline.SetDoneCb({});
  EXPECT_THROW(m_pipeline.Done(1, true, false), std::bad_function_call);
  EXPECT_EQ(Queues(), "recv 1 xmit done 1dys flush 1y");
}

TEST_F(Done, AnsweredTwiceForTwoRecordsOfOneNumber) {
  const std::shared_ptr<Dataset> ds = Normal(1);
  m_pipeline.AddToDonePipe(ds, false);
  m_pipeline.AddToDonePipe(ds, false);
  EXPECT_EQ(TraceOf([&] { m_pipeline.Done(1, true, false); }),
            rec::Done(1, true, false) + rec::Found(1, 1, false, true) +
                rec::Reported(1, false, true, false) + rec::Found(1, 1, false, true) +
                rec::Reported(1, false, true, false));
}

TEST_F(TrackingMarks, ADatasetToBeStoredIsReportedOnceItIsStored) {
  Push(1, true);
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Done(1, true, false), DS_ERROR_OK); }),
            rec::Done(1, true, false) + rec::Found(1, 1, false, false));
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.MarkStored(1), DS_ERROR_OK); }),
            rec::MarkStored(1) + rec::StoredReady(1) + rec::Done(1, true, false) +
                rec::Found(1, 1, false, true) + rec::Reported(1, false, true, false));
  EXPECT_EQ(Queues(), "recv 1 xmit done flush 1y");
}

TEST_F(TrackingMarks, ADatasetThatCouldNotBeStoredIsReportedJustTheSame) {
  Push(1, true);
  m_pipeline.Done(1, true, false);
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.MarkError(1), DS_ERROR_OK); }),
            rec::MarkError(1) + rec::ErrorReady(1) + rec::Done(1, true, false) +
                rec::Found(1, 1, true, false) + rec::Reported(1, false, true, false));
}

TEST_F(TrackingMarks, BeforeDoneOnlySetTheirFlag) {
  Push(1, true);
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.MarkStored(1), DS_ERROR_OK); }), rec::MarkStored(1));
  EXPECT_EQ(Queues(), "recv 1 xmit done 1s flush");
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.MarkError(1), DS_ERROR_OK); }), rec::MarkError(1));
  EXPECT_EQ(Queues(), "recv 1 xmit done 1sx flush");
  EXPECT_EQ(TraceOf([&] { m_pipeline.Done(1, false, true); }),
            rec::Done(1, false, true) + rec::Found(1, 1, true, true) +
                rec::Reported(1, false, false, true));
}

TEST_F(TrackingMarks, RepeatTheRecordsOwnOutcome) {
  Push(1, true);
  m_pipeline.Done(1, false, true);
  EXPECT_EQ(TraceOf([&] { m_pipeline.MarkStored(1); }),
            rec::MarkStored(1) + rec::StoredReady(1) + rec::Done(1, false, true) +
                rec::Found(1, 1, false, true) + rec::Reported(1, false, false, true));
}

TEST_F(TrackingMarks, BehindAnOlderRecordReportNothing) {
  Push(1, true);
  Push(2, true);
  m_pipeline.Done(2, true, false);
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.MarkError(2), DS_ERROR_OK); }),
            rec::MarkError(2) + rec::ErrorReady(2) + rec::Done(2, true, false) +
                rec::Found(2, 1, true, false));
  m_pipeline.Done(1, true, false);
  EXPECT_EQ(TraceOf([&] { m_pipeline.MarkStored(1); }),
            rec::MarkStored(1) + rec::StoredReady(1) + rec::Done(1, true, false) +
                rec::Found(1, 1, false, true) + rec::Reported(1, false, true, false) +
                rec::Reported(2, false, true, false));
}

TEST_F(TrackingMarks, OfAnUnknownNumberAreRefused) {
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.MarkStored(1), DS_ERROR_NO_DATASET); }),
            rec::MarkStored(1));
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.MarkError(1), DS_ERROR_NO_DATASET); }),
            rec::MarkError(1));
  Push(1, true);
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.MarkStored(2), DS_ERROR_NO_DATASET); }),
            rec::MarkStored(2));
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.MarkError(2), DS_ERROR_NO_DATASET); }),
            rec::MarkError(2));
  EXPECT_EQ(Queues(), "recv 1 xmit done 1 flush");
}

TEST_F(Flushed, WaitsForOlderRecordsAndLogsTheCallersNumberOnEveryLine) {
  ReportUpTo(2);
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Flushed(2, true), DS_ERROR_OK); }),
            rec::Flushed(2, true));
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done flush 1y 2Fy");
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Flushed(1, false), DS_ERROR_OK); }),
            rec::Flushed(1, false) + rec::Flush(1, false) + rec::FlushReported(1, false, false) +
                rec::Flush(1, true) + rec::FlushReported(2, false, true));
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done flush");
}

TEST_F(Flushed, OnceFailedItStaysFailed) {
  ReportUpTo(2);
  m_pipeline.Flushed(2, false);
  m_pipeline.Flushed(2, true);
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done flush 1y 2F");
  EXPECT_EQ(TraceOf([&] { m_pipeline.Flushed(1, true); }),
            rec::Flushed(1, true) + rec::Flush(1, true) + rec::FlushReported(1, false, true) +
                rec::Flush(1, false) + rec::FlushReported(2, false, false));
}

TEST_F(Flushed, ADatasetThatWasDoneWithoutSuccessStaysFailed) {
  m_pipeline.PushDs(Resync(1), false);
  m_pipeline.Done(1, false, false);
  EXPECT_EQ(TraceOf([&] { m_pipeline.Flushed(1, true); }),
            rec::Flushed(1, true) + rec::Flush(1, false) + rec::FlushReported(1, true, false));
}

TEST_F(Flushed, OfAnUnknownNumberIsRefused) {
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Flushed(1, true), DS_ERROR_NO_DATASET); }),
            rec::Flushed(1, true));
  ReportUpTo(1);
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Flushed(2, false), DS_ERROR_NO_DATASET); }),
            rec::Flushed(2, false));
  EXPECT_EQ(Queues(), "recv 1 xmit done flush 1y");
}

TEST_F(Flushed, WithoutACallbackThrowsAndLeavesTheRecord) {
  ReportUpTo(1);
  m_pipeline.SetFlushedCb({});
  EXPECT_THROW(m_pipeline.Flushed(1, true), std::bad_function_call);
  EXPECT_EQ(Take(), rec::Flushed(1, true) + rec::Flush(1, true));
  EXPECT_EQ(Queues(), "recv 1 xmit done flush 1Fy");
}

TEST_F(Clearing, DropsUpToAndIncludingTheNumberFromBothPipes) {
  for (std::uint64_t n = 3; n <= 8; ++n) m_pipeline.m_donePipe.push_back({.n = n});
  for (std::uint64_t n = 1; n <= 4; ++n) m_pipeline.m_flushPipe.push_back({.n = n});
  m_pipeline.AddSerializer(3, std::make_shared<DatasetSerializer>(3, Volume(1), "spool"));
  EXPECT_EQ(TraceOf([&] { m_pipeline.ClearDonePipe(5); }), rec::Cleared(3, 6, 1, 0));
  EXPECT_EQ(Queues(), "recv xmit done 6 7 8 flush");
  EXPECT_NE(m_pipeline.GetDsSerializer(3), nullptr);
}

TEST_F(Clearing, DropsMarkedRecordsUnreported) {
  PushAll({1, 2, 3});
  m_pipeline.Done(1, true, false);
  m_pipeline.Done(3, true, false);
  EXPECT_EQ(TraceOf([&] { m_pipeline.ClearDonePipe(9); }), rec::Cleared(2, 0, 1, 0));
  EXPECT_EQ(Queues(), "recv 3 xmit 1 2 done flush");
}

TEST_F(Clearing, OfEmptyPipesAndBelowEverythingChangesNothing) {
  EXPECT_EQ(TraceOf([&] { m_pipeline.ClearDonePipe(5); }), rec::Cleared(0, 0, 0, 0));
  for (const std::uint64_t n : Numbers{1, 2}) {
    Push(n);
    m_pipeline.Done(n, true, false);
  }
  Push(3);
  EXPECT_EQ(TraceOf([&] { m_pipeline.ClearDonePipe(0); }), rec::Cleared(3, 3, 1, 1));
  EXPECT_EQ(TraceOf([&] { m_pipeline.ClearDonePipe(1); }), rec::Cleared(3, 3, 1, 2));
}

TEST_F(Clearing, StopsAtTheFirstRecordAboveTheNumber) {
  m_pipeline.m_donePipe = {{.n = 2}, {.n = 7}, {.n = 3}};
  m_pipeline.m_flushPipe = {{.n = 7}, {.n = 3}};
  EXPECT_EQ(TraceOf([&] { m_pipeline.ClearDonePipe(5); }), rec::Cleared(2, 7, 7, 7));
  EXPECT_EQ(Queues(), "recv xmit done 7 3 flush 7 3");
}

TEST_F(Done, IsDoneLooksAtTheFrontOnly) {
  EXPECT_EQ(TraceOf([&] { EXPECT_FALSE(m_pipeline.IsDone(1)); }), "");
  Push(1, true);
  EXPECT_FALSE(m_pipeline.IsDone(1));
  m_pipeline.Done(1, false, false);
  EXPECT_EQ(TraceOf([&] { EXPECT_TRUE(m_pipeline.IsDone(1)); }), "");
  m_pipeline.MarkStored(1);
  EXPECT_FALSE(m_pipeline.IsDone(1));
}

TEST_F(Flushed, ThePendingTimestampIsZeroForAnUnknownNumber) {
  EXPECT_EQ(m_pipeline.GetPendingFlushDsTimestamp(1), 0U);
  m_pipeline.m_flushPipe = {{.n = 1, .dsTimestamp = 10}, {.n = 2, .dsTimestamp = 20}};
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.GetPendingFlushDsTimestamp(2), 20U); }), "");
  EXPECT_EQ(m_pipeline.GetPendingFlushDsTimestamp(3), 0U);
}

}  // namespace
