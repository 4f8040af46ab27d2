// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <memory>

#include "tests/support/pipeline_rig.h"

// The mistake: PushDs after the host closed the pipeline. Answered: the unnamed -15, whatever the
// number; the dataset and the pipeline stay as they were.

namespace {

class PushWhileNotAccepting : public PipelineRig {};

TEST_F(PushWhileNotAccepting, IsRefusedWithTheUnnamedCode) {
  Push(1);
  m_pipeline.SetAcceptStatus(false);
  const std::shared_ptr<Dataset> ds = Normal(2);
  DS_ERROR result{};
  EXPECT_EQ(TraceOf([&] { result = m_pipeline.PushDs(ds, false); }),
            rec::PushDs(2, 1) + rec::NotAccepting());
  EXPECT_EQ(static_cast<int>(result), -15);
  EXPECT_FALSE(ds->m_xmitCb);
  EXPECT_EQ(Queues(), "recv 1 xmit done 1s flush");
}

TEST_F(PushWhileNotAccepting, EverythingElseGoesOn) {
  Push(1);
  m_pipeline.SetAcceptStatus(false);
  EXPECT_EQ(Write(Buf(1, 0, 4096)), DS_ERROR_OK);
  m_pipeline.BumpDs();
  EXPECT_EQ(m_pipeline.Ack(1, nullptr), DS_ERROR_OK);
  EXPECT_EQ(m_pipeline.Done(1, true, false), DS_ERROR_OK);
  EXPECT_EQ(m_pipeline.Flushed(1, true), DS_ERROR_OK);
}

}  // namespace
