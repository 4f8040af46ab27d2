// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "tests/support/pipeline_rig.h"

// The mistake: Retransmit(true) although nothing is transmitted, or although the peer has not
// confirmed that older datasets need no report. Answered: a failure that changes nothing; or their
// records are dropped unreported.

namespace {

class RetransmitClear : public PipelineRig {};

TEST_F(RetransmitClear, OnAnEmptyTransmitPipeFails) {
  Push(1);
  m_pipeline.Done(1, true, false);
  Push(2, true);
  m_pipeline.Ack(1, nullptr);
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Retransmit(true), DS_ERROR_FAILED); }),
            rec::DonePipe("0:2"));
  EXPECT_EQ(Queues(), "recv 2 xmit done 2 flush 1y");
}

TEST_F(RetransmitClear, DropsUnconfirmedReportsSilently) {
  SendAll({1, 2});
  m_pipeline.Ack(1, nullptr);
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Retransmit(true), DS_ERROR_OK); }),
            rec::DonePipe("0:1..2") + rec::ClearingUpTo(1) + rec::Cleared(1, 2, 0, 0) +
                rec::XmitSize(1) + rec::Again(2) + rec::Transmit(2));
  EXPECT_EQ(m_pipeline.Done(1, true, false), DS_ERROR_NO_DATASET);
}

}  // namespace
