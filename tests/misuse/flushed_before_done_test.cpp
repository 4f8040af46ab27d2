// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "tests/support/pipeline_rig.h"

// The mistake: Flushed for a dataset that was not reported done yet. Answered: no such dataset, and
// it is not remembered.

namespace {

class FlushedBeforeDone : public PipelineRig {};

TEST_F(FlushedBeforeDone, IsRefusedAndForgotten) {
  PushAll({1, 2});
  m_pipeline.Done(2, true, false);  // held back by 1
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Flushed(2, true), DS_ERROR_NO_DATASET); }),
            rec::Flushed(2, true));
  m_pipeline.Done(1, true, false);
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done flush 1y 2y");
}

}  // namespace
