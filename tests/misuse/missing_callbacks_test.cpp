// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "tests/support/pipeline_rig.h"

// The mistake: a pipeline without its callbacks, or with callbacks that come late. Answered: the
// standard bad-function-call exception where the callback is required; no records where it decides
// about them.

namespace {

class MissingCallbacks : public PipelineRig {
 protected:
  MissingCallbacks() {
    m_pipeline.SetTransmitterCb({});
    m_pipeline.SetDoneCb({});
    m_pipeline.SetFlushedCb({});
  }
};

TEST_F(MissingCallbacks, TheTransmitterIsMissedAtTheFirstMove) {
  EXPECT_EQ(Push(1), DS_ERROR_OK);
  Forget();
  EXPECT_THROW(m_pipeline.BumpDs(), std::bad_function_call);
  EXPECT_EQ(Take(), rec::Bump(1) + rec::ClosingEmpty(1) + rec::Pushing(1) + rec::Calling(1, 3));
  EXPECT_EQ(Queues(), "recv xmit 1 done flush");
  Forget();
  EXPECT_THROW(m_pipeline.UpdateTransmitter(), std::bad_function_call);
  EXPECT_EQ(Take(), rec::FirstOffers(1, 1, 1));
  EXPECT_THROW(m_pipeline.Retransmit(false), std::bad_function_call);
}

TEST_F(MissingCallbacks, ADoneCallbackThatComesLateMissesTheEarlierDatasets) {
  m_pipeline.SetTransmitterCb([](std::shared_ptr<Dataset>&) { return 0; });
  Push(1);
  m_pipeline.SetDoneCb([](unsigned long, bool, bool, bool) {});
  Push(2);
  EXPECT_EQ(m_pipeline.Done(1, true, false), DS_ERROR_NO_DATASET);
  EXPECT_EQ(m_pipeline.Done(2, true, false), DS_ERROR_OK);
  EXPECT_EQ(m_pipeline.Flushed(2, true), DS_ERROR_NO_DATASET);
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done flush");
}

TEST_F(MissingCallbacks, ADatasetThatWasNeverPushedHasNoTransmitCallback) {
  const std::shared_ptr<Dataset> ds = Normal(1);
  EXPECT_THROW(ds->NotifyBufferReady(Unit({})), std::bad_function_call);
  EXPECT_EQ(ds->GetCompressedDataNum(), 1U);
  ds->MarkHasBuffers();
  EXPECT_THROW(ds->MarkDoneBuffers(), std::bad_function_call);
  EXPECT_EQ(ds->FinalizeBuffer(Buf(1, 0, 1)), DS_ERROR_OK);
}

}  // namespace
