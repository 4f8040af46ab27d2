// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "tests/support/pipeline_rig.h"

// The mistake: dataset numbers that do not rise from 1. Answered: 0, a repetition and a step back
// are refused and leave the dataset alone.

namespace {

class NumberNotRising : public PipelineRig {};

TEST_F(NumberNotRising, ZeroIsRefused) {
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(Push(0), DS_ERROR_DS_TOO_OLD); }),
            rec::Constructed(0) + rec::PushDs(0, 0) + rec::TooOld(0, 0));
}

TEST_F(NumberNotRising, AStepBackIsRefusedEvenAfterTheNewerOneHasLeft) {
  SendAll({7});
  m_pipeline.Ack(7, nullptr);
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(Push(6), DS_ERROR_DS_TOO_OLD); }),
            rec::Constructed(6) + rec::PushDs(6, 7) + rec::TooOld(6, 7));
  EXPECT_EQ(Push(7), DS_ERROR_DS_TOO_OLD);
}

TEST_F(NumberNotRising, TheSameDatasetTwiceIsRefused) {
  const std::shared_ptr<Dataset> ds = Normal(1);
  EXPECT_EQ(m_pipeline.PushDs(ds, false), DS_ERROR_OK);
  EXPECT_EQ(m_pipeline.PushDs(ds, false), DS_ERROR_DS_TOO_OLD);
  EXPECT_EQ(Queues(), "recv 1 xmit done 1s flush");
}

TEST_F(NumberNotRising, AfterADropNumbersDownToTheDroppedOneAreAcceptedAgain) {
  Push(5);
  m_pipeline.DropUnfinishedDs();
  EXPECT_EQ(Push(4), DS_ERROR_DS_TOO_OLD);
  EXPECT_EQ(Push(5), DS_ERROR_OK);
}

}  // namespace
