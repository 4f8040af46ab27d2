// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <memory>

#include "tests/support/pipeline_rig.h"

// The mistake: PushBuf between BumpDs and the next PushDs. Answered: a refusal when the dataset has
// left; else the buffer is admitted, never transmitted, and keeps the dataset from sealing.

namespace {

class PushBufAfterBump : public PipelineRig {};

TEST_F(PushBufAfterBump, IsRefusedWhenTheDatasetHasLeft) {
  SendAll({1});
  const InternalData buf = Buf(1, 0, 4096);
  DS_ERROR result{};
  EXPECT_EQ(TraceOf([&] { result = Write(buf); }),
            "E Pipeline::PushBuf() No dataset pushed - can't add buffer: " + Text(buf) + "\n");
  EXPECT_EQ(result, DS_ERROR_NO_DATASET);
  EXPECT_EQ(m_pipeline.GetDs(1)->GetTotalBuffers(), 0U);
}

TEST_F(PushBufAfterBump, KeepsAWaitingDatasetFromSealing) {
  const std::shared_ptr<Dataset> held = Normal(1);
  held->MarkHasBuffers();
  m_pipeline.PushDs(held, false);
  Push(2);
  m_pipeline.BumpDs();
  EXPECT_EQ(Write(Buf(1, 0, 4096)), DS_ERROR_OK);
  held->MarkDoneBuffers();
  SendAll({3});
  EXPECT_EQ(Queues(), "recv 3 xmit 1 2 done 1s 2s 3s flush");
  EXPECT_EQ(TraceOf([&] { EXPECT_FALSE(m_pipeline.GetDs(2)->IsSealed()); }),
            rec::NotFinalized(2, 1, 0));
}

}  // namespace
