// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "tests/support/pipeline_rig.h"

// The mistake: letting a dataset go with MarkNoWaitForNext instead of BumpDs. Answered: it moves
// with the next update although it was not closed: none of its buffers is in a unit, it is not
// sealed, and its successor does not close it either.

namespace {

class ClosedByMarkNoWait : public PipelineRig {};

TEST_F(ClosedByMarkNoWait, BlocksThePipeline) {
  Push(1);
  Write(Buf(1, 0, 4096));
  m_pipeline.GetDs(1)->MarkNoWaitForNext();
  EXPECT_EQ(TraceOf([&] { m_pipeline.UpdateTransmitter(); }),
            rec::Pushing(1) + rec::Calling(1, 2) + rec::Transmit(1));
  SendAll({2});
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s 2s flush");
  EXPECT_EQ(m_pipeline.GetDs(1)->GetCompressedDataNum(), 0U);
  EXPECT_FALSE(m_pipeline.GetDs(1)->m_complete.load());
}

}  // namespace
