// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "tests/support/pipeline_rig.h"

// The mistake: DropUnfinishedDs where the dataset has no done record (no done callback when it was
// pushed, or a transmitter that threw out of PushDs). Answered: an error record, and the dataset is
// dropped all the same; other records stay.

namespace {

class DropWithoutDoneRecord : public PipelineRig {};

TEST_F(DropWithoutDoneRecord, BecauseThereIsNoDoneCallback) {
  m_pipeline.SetDoneCb({});
  Push(1);
  EXPECT_EQ(TraceOf([&] { m_pipeline.DropUnfinishedDs(); }),
            "E Pipeline::DropUnfinishedDs() m_donePipe is empty while m_recv_pipe is not\n" +
                rec::Dropping(1));
  EXPECT_EQ(Push(1), DS_ERROR_OK);
}

TEST_F(DropWithoutDoneRecord, BecauseTheTransmitterThrew) {
  Push(1);
  m_onTransmit = [](std::shared_ptr<Dataset>&) -> int { throw 1; };
  EXPECT_THROW(Push(2), int);
  EXPECT_EQ(TraceOf([&] { m_pipeline.DropUnfinishedDs(); }),
            "E Pipeline::DropUnfinishedDs() m_donePipe has a different DS than expected 1  "
            "expected: 2\n" +
                rec::Dropping(2));
  EXPECT_EQ(Queues(), "recv xmit 1 done 1s flush");
}

TEST_F(DropWithoutDoneRecord, BecauseNothingWasPushed) {
  EXPECT_EQ(TraceOf([&] { m_pipeline.DropUnfinishedDs(); }),
            "N Pipeline::DropUnfinishedDs() m_recvPipe is empty\n");
}

}  // namespace
