// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <memory>

#include "tests/support/pipeline_rig.h"

// The mistake: handing a unit to a normal dataset that the pipeline will close. Answered: the
// dataset takes the unit, and refuses the one that closing makes.

namespace {

const InternalData kUnitBuf = Buf(1, 0, 4096);

class UnitsOfANormalDataset : public PipelineRig {
 protected:
  std::shared_ptr<Dataset> PushWithBuffer() {
    std::shared_ptr<Dataset> ds = Normal(1);
    m_pipeline.PushDs(ds, false);
    Write(kUnitBuf);
    return ds;
  }
  void ExpectClosingIsRefused() {
    EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }),
              rec::Bump(1) + rec::Prev(1) + rec::Loop() + rec::Visit(1, kUnitBuf) +
                  rec::Ready(1, 1, 1) + rec::AlreadyWaiting(1) + rec::Pushing(1) +
                  rec::Calling(1, 4) + rec::Transmit(1));
    EXPECT_EQ(m_pipeline.GetDs(1)->GetCompressedDataNum(), 1U);
  }
};

TEST_F(UnitsOfANormalDataset, ANotificationBeforeItsClosing) {
  const std::shared_ptr<Dataset> ds = PushWithBuffer();
  EXPECT_EQ(ds->NotifyBufferReady(Unit({kUnitBuf})), DS_ERROR_OK);
  ExpectClosingIsRefused();
}

TEST_F(UnitsOfANormalDataset, AFinalizationBeforeItsClosing) {
  const std::shared_ptr<Dataset> ds = PushWithBuffer();
  EXPECT_EQ(ds->FinalizeBuffer(kUnitBuf, Unit({kUnitBuf})), DS_ERROR_OK);
  ExpectClosingIsRefused();
}

TEST_F(UnitsOfANormalDataset, ANotificationAfterItsClosing) {
  const std::shared_ptr<Dataset> ds = PushWithBuffer();
  m_pipeline.BumpDs();
  EXPECT_EQ(
      TraceOf([&] { EXPECT_EQ(static_cast<int>(ds->NotifyBufferReady(Unit({kUnitBuf}))), -14); }),
      rec::Ready(1, 1, 1) + rec::AlreadyWaiting(1));
  EXPECT_EQ(ds->FinalizeBuffer(kUnitBuf), DS_ERROR_ALREADY_FINALIZED);
}

}  // namespace
