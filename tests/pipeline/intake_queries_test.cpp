// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "tests/support/pipeline_rig.h"

// The queries of the intake side, the register of dataset files, and Reset: results, whole traces
// and the queues afterwards.

namespace {

constexpr std::uint64_t kNone = std::numeric_limits<std::uint64_t>::max();

using Number = std::pair<bool, std::uint64_t>;

class ShouldQueueDataset : public PipelineRig {};
class Queries : public PipelineRig {};
class Reset : public PipelineRig {};

TEST_F(Queries, TheCurrentNumbersOfAnEmptyPipelineAreAllOnes) {
  EXPECT_EQ(m_pipeline.GetCurRecvDsNum(), Number(false, kNone));
  EXPECT_EQ(m_pipeline.GetCurXmitDsNum(), Number(false, kNone));
  SendAll({1});
  EXPECT_EQ(m_pipeline.GetCurRecvDsNum(), Number(false, kNone));
  EXPECT_EQ(m_pipeline.GetCurXmitDsNum(), Number(true, 1));
}

TEST_F(ShouldQueueDataset, IsFalseOnAnEmptyPipeline) {
  EXPECT_EQ(TraceOf([&] { EXPECT_FALSE(m_pipeline.ShouldQueueDataset(7)); }),
            rec::ShouldQueue(0, 0, 7));
}

TEST_F(ShouldQueueDataset, IsFalseForTheOnlyDatasetAndTrueForAnother) {
  Push(7);
  EXPECT_EQ(TraceOf([&] { EXPECT_FALSE(m_pipeline.ShouldQueueDataset(7)); }),
            rec::ShouldQueue(0, 1, 7));
  EXPECT_TRUE(m_pipeline.ShouldQueueDataset(8));
}

TEST_F(ShouldQueueDataset, IsTrueForSevenWhenSixIsAlone) {
  Push(6);
  EXPECT_EQ(TraceOf([&] { EXPECT_TRUE(m_pipeline.ShouldQueueDataset(7)); }),
            rec::ShouldQueue(0, 1, 7));
}

TEST_F(ShouldQueueDataset, IsTrueWhileAnythingIsTransmitted) {
  SendAll({7});
  EXPECT_EQ(TraceOf([&] { EXPECT_TRUE(m_pipeline.ShouldQueueDataset(7)); }),
            rec::ShouldQueue(1, 0, 7));
}

TEST_F(ShouldQueueDataset, IsTrueForTheNewestOfSeveral) {
  // Two datasets in the receive pipe and none in transmission: what a transmitter that threw and a
  // later drop can leave behind.
  m_pipeline.m_recvPipe = {Normal(7), Normal(6)};
  EXPECT_EQ(TraceOf([&] { EXPECT_TRUE(m_pipeline.ShouldQueueDataset(7)); }),
            rec::ShouldQueue(0, 2, 7));
}

TEST_F(Queries, GetDsSearchesBothDatasetPipesAndNoRecords) {
  PushAll({1, 2});
  ASSERT_EQ(Queues(), "recv 2 xmit 1 done 1s 2s flush");
  EXPECT_EQ(m_pipeline.GetDs(1), m_pipeline.m_xmitPipe.front());
  EXPECT_EQ(m_pipeline.GetDs(2), m_pipeline.m_recvPipe.front());
  EXPECT_EQ(m_pipeline.GetDs(3), nullptr);
  m_pipeline.Ack(1, nullptr);
  EXPECT_EQ(m_pipeline.GetDs(1), nullptr);
}

TEST_F(Queries, GetDsPrefersTheReceivePipe) {
  // The same number in both pipes: never the pipeline's doing, but the order is fixed.
  const std::shared_ptr<Dataset> received = Normal(1);
  m_pipeline.m_recvPipe = {received};
  m_pipeline.m_xmitPipe = {Normal(1)};
  EXPECT_EQ(m_pipeline.GetDs(1), received);
}

TEST_F(Queries, TheCurrentNumbersAreTheNewestReceivedAndTheOldestTransmitted) {
  SendAll({1, 2});
  const std::shared_ptr<Dataset> held = Normal(3);
  held->MarkHasBuffers();
  m_pipeline.PushDs(held, false);
  PushAll({4, 5});
  ASSERT_EQ(Queues(), "recv 5 4 xmit 1 2 3 done 1s 2s 3s 4s 5s flush");
  EXPECT_EQ(m_pipeline.GetCurRecvDsNum(), Number(true, 5));
  EXPECT_EQ(m_pipeline.GetCurXmitDsNum(), Number(true, 1));
}

TEST_F(Queries, IterationVisitsTheTransmitPipeNewestFirstThenTheReceivePipeOldestFirst) {
  SendAll({1, 2});
  const std::shared_ptr<Dataset> held = Normal(3);
  held->MarkHasBuffers();
  m_pipeline.PushDs(held, false);
  PushAll({4, 5});
  std::vector<std::uint64_t> seen;
  EXPECT_EQ(TraceOf([&] {
              m_pipeline.IterateReceiveDatasets(
                  [&](std::shared_ptr<Dataset> ds) { seen.push_back(ds->GetN()); });
            }),
            "");
  EXPECT_EQ(seen, (std::vector<std::uint64_t>{3, 2, 1, 4, 5}));
}

TEST_F(Queries, IterationWithAnEmptyFunctionThrowsAtTheFirstDataset) {
  EXPECT_NO_THROW(m_pipeline.IterateReceiveDatasets({}));
  Push(1);
  EXPECT_THROW(m_pipeline.IterateReceiveDatasets({}), std::bad_function_call);
  m_pipeline.BumpDs();
  EXPECT_THROW(m_pipeline.IterateReceiveDatasets({}), std::bad_function_call);
}

TEST_F(Queries, AddSerializerKeepsTheFirstOfANumber) {
  const auto a = std::make_shared<DatasetSerializer>(3, Volume(1), "spool");
  const auto b = std::make_shared<DatasetSerializer>(3, Volume(2), "spool");
  EXPECT_EQ(m_pipeline.GetDsSerializer(3), nullptr);
  m_pipeline.AddSerializer(3, a);
  m_pipeline.AddSerializer(3, b);
  EXPECT_EQ(m_pipeline.GetDsSerializer(3), a);
  EXPECT_EQ(m_pipeline.GetDsSerializer(4), nullptr);
  EXPECT_EQ(b.use_count(), 1);
  EXPECT_EQ(Take(), "");
}

TEST_F(Reset, EmptiesEverythingButCallbacksAndAcceptStatus) {
  SendAll({1, 2});
  m_pipeline.Done(1, true, false);
  Push(3);
  m_pipeline.AddSerializer(3, std::make_shared<DatasetSerializer>(3, Volume(1), "spool"));
  m_pipeline.SetAcceptStatus(false);
  ASSERT_NE(m_pipeline.m_xmitEnumerator, nullptr);
  EXPECT_EQ(TraceOf([&] { m_pipeline.Reset(); }), "");
  EXPECT_EQ(Queues(), "recv xmit done flush");
  EXPECT_EQ(m_pipeline.m_xmitEnumerator, nullptr);
  EXPECT_EQ(m_pipeline.m_serializers.size(), 0U);
  EXPECT_EQ(m_pipeline.m_lastReceived, 0U);
  EXPECT_FALSE(m_pipeline.GetAcceptStatus());
  m_pipeline.SetAcceptStatus(true);
  EXPECT_EQ(TraceOf([&] { SendAll({1}); }), rec::Constructed(1) + rec::PushDs(1, 0) + rec::Bump(1) +
                                                rec::ClosingEmpty(1) + rec::Pushing(1) +
                                                rec::Calling(1, 3) + rec::Transmit(1) +
                                                rec::FirstOffers(1, 2, 1) + rec::Transmit(1));
  m_pipeline.Done(1, true, false);
  EXPECT_EQ(Take(), rec::Done(1, true, false) + rec::Found(1, 1, false, true) +
                        rec::Reported(1, false, true, false));
  m_pipeline.Flushed(1, true);
  EXPECT_EQ(Take(),
            rec::Flushed(1, true) + rec::Flush(1, true) + rec::FlushReported(1, false, true));
}

}  // namespace
