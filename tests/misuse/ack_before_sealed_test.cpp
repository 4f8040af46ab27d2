// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <memory>

#include "tests/support/pipeline_rig.h"

// The mistake: acknowledging a dataset that is not sealed yet. Answered: sealing is not tested; the
// dataset is forgotten and its successors go. What it finishes later reaches nobody.

namespace {

class AckBeforeSealed : public PipelineRig {};

TEST_F(AckBeforeSealed, ReleasesTheSuccessors) {
  const std::shared_ptr<Dataset> held = Normal(1);
  held->MarkHasBuffers();
  m_pipeline.PushDs(held, false);
  PushAll({2, 3});
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Ack(1, nullptr), DS_ERROR_OK); }),
            rec::Ack(1, 1, 2, 0) + rec::AckDropping(1, 2) + rec::Pushing(2) + rec::Calling(2, 2) +
                rec::Transmit(2) + rec::Newest(3, 3));
  // Its last buffer still drives the pipeline, which knows nothing of it any more.
  EXPECT_EQ(
      TraceOf([&] { held->MarkDoneBuffers(); }),
      rec::DoneBuffers(1, 0) + rec::FirstOffers(2, 1, 1) + rec::Transmit(2) + rec::Newest(3, 3));
}

TEST_F(AckBeforeSealed, OfADatasetThatIsOnlyReceivedIsRefused) {
  Push(1);
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Ack(1, nullptr), DS_ERROR_FAILED); }),
            rec::AckEmpty(1));
}

TEST_F(AckBeforeSealed, TheSameAcknowledgementTwiceIsTooOld) {
  SendAll({1, 2});
  m_pipeline.Ack(1, nullptr);
  EXPECT_EQ(m_pipeline.Ack(1, nullptr), DS_ERROR_ACK_TOO_OLD);
}

}  // namespace
