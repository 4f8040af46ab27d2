// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "tests/support/pipeline_rig.h"

// The mistake: Done, MarkStored or MarkError for a dataset that was not pushed yet. Answered: no
// such dataset, and it is not remembered.

namespace {

class DoneBeforePush : public PipelineRig {};

TEST_F(DoneBeforePush, IsRefusedAndForgotten) {
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Done(1, true, false), DS_ERROR_NO_DATASET); }),
            rec::Done(1, true, false));
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.MarkStored(1), DS_ERROR_NO_DATASET); }),
            rec::MarkStored(1));
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.MarkError(1), DS_ERROR_NO_DATASET); }),
            rec::MarkError(1));
  Push(1, true);
  EXPECT_EQ(Queues(), "recv 1 xmit done 1 flush");
}

TEST_F(DoneBeforePush, FromInsideTheTransmitterComesTooEarlyForTheDatasetBeingPushed) {
  Push(1);
  DS_ERROR result{};
  m_onTransmit = [&](std::shared_ptr<Dataset>&) {
    result = m_pipeline.Done(2, true, false);
    return 0;
  };
  Push(2);
  EXPECT_EQ(result, DS_ERROR_NO_DATASET);
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s 2s flush");
}

}  // namespace
