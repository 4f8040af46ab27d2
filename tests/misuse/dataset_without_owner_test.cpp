// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <memory>

#include "tests/support/pipeline_rig.h"

// The mistake: a dataset that no std::shared_ptr owns. Answered: the standard bad-weak-pointer
// exception where the dataset must hand itself to a callback; what the call had done stays done.

namespace {

class DatasetWithoutOwner : public PipelineRig {
 protected:
  // A pointer that shares nothing: its count of owners is 0.
  static std::shared_ptr<Dataset> Unowned(Dataset& ds) {
    return std::shared_ptr<Dataset>(std::shared_ptr<Dataset>(), &ds);
  }
};

TEST_F(DatasetWithoutOwner, CannotAnnounceANewBuffer) {
  Dataset ds(1, true, 0, 0U);
  ds.SetNewBufCb([](std::shared_ptr<Dataset>, InternalData&) {});
  InternalData buf = Buf(1, 0, 4096);
  EXPECT_THROW(ds.AddBuffer(buf, 4096), std::bad_weak_ptr);
  EXPECT_EQ(ds.GetTotalBuffers(), 1U);
}

TEST_F(DatasetWithoutOwner, CannotAnnounceAFinalizedBuffer) {
  Dataset ds(1, true, 0, 0U);
  ds.SetDSFinalizedCb([](std::shared_ptr<Dataset>, const InternalData&) {});
  EXPECT_THROW(ds.MarkFinalized(Buf(1, 0, 4096)), std::bad_weak_ptr);
  EXPECT_TRUE(ds.IsFinalized(Buf(1, 0, 4096)));
}

TEST_F(DatasetWithoutOwner, CannotAnnounceAKeptBuffer) {
  Dataset ds(1, {{Volume(1), 0, 1 << 20}}, 1 << 20);
  ds.SetDSReceivedCb([](std::shared_ptr<Dataset>, InternalData&) {});
  const InternalData buf = Buf(1, 0, 4096);
  ds.AddLocalFingerprint(buf, Print(1));
  EXPECT_THROW(ds.AddRemoteFingerprint(buf, Print(2)), std::bad_weak_ptr);
  EXPECT_EQ(ds.AddRemoteFingerprint(buf, Print(2)), DS_ERROR_ALREADY_EXISTS);
}

TEST_F(DatasetWithoutOwner, WithoutCallbacksItPassesThroughAPipelineWithZeroOwners) {
  Dataset ds(1, true, 0, 0U);
  m_pipeline.PushDs(Unowned(ds), false);
  m_pipeline.BumpDs();
  m_log.Take();
  m_pipeline.Ack(1, nullptr);
  EXPECT_EQ(
      m_log.Take(),
      (Lines{"I Pipeline::Ack() DS=" + Ptr(&ds) + "  N: 1  N: 1  use count 0  buffers_size: 0",
             "I Pipeline::Ack() dropping DS N: 1  use count 0  checking transmitter pipe for "
             "next datasets"}));
}

}  // namespace
