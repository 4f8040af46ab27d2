// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/pipeline_rig.h"

// The mistake: BumpDs more than once for one dataset. Answered: nothing when the dataset has left;
// else it is closed again, which an empty dataset takes as one more empty unit and any other
// refuses. Nothing is transmitted twice by it.

namespace {

const InternalData kBuf = Buf(1, 0, 4096);

class SecondBump : public PipelineRig {
 protected:
  // Dataset 2 bumped behind a dataset that is held, so that it stays the newest.
  void BumpBehindAHeldOne(bool withBuffer) {
    m_held = Normal(1);
    m_held->MarkHasBuffers();
    m_pipeline.PushDs(m_held, false);
    Push(2);
    if (withBuffer) Write(kBuf);
    m_pipeline.BumpDs();
  }
  static std::string Refused() {
    return rec::MoreOffers(1, 2, 1) + rec::Pushing(2) + rec::StillWorkedOn(1, 1) +
           rec::NotSealed(1) + rec::CantMove();
  }

  std::shared_ptr<Dataset> m_held;
};

TEST_F(SecondBump, OfADatasetThatHasLeftDoesNothing) {
  SendAll({1});
  EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }), "");
}

TEST_F(SecondBump, OfAWaitingDatasetWithBuffersIsRefusedByTheDataset) {
  BumpBehindAHeldOne(true);
  EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }), rec::Bump(2) + rec::Prev(2) + rec::Loop() +
                                                       rec::Visit(2, kBuf) + rec::Ready(2, 1, 1) +
                                                       rec::AlreadyWaiting(2) + Refused());
  EXPECT_EQ(m_pipeline.GetDs(2)->GetCompressedDataNum(), 1U);
  m_held->MarkDoneBuffers();
  EXPECT_EQ(Queues(), "recv xmit 1 2 done 1s 2s flush");
}

TEST_F(SecondBump, OfAWaitingEmptyDatasetQueuesASecondEmptyUnit) {
  BumpBehindAHeldOne(false);
  EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }),
            rec::Bump(2) + rec::Prev(2) + rec::Loop() + rec::Ready(2, 0, 0) +
                rec::NothingToFinalize(2) + rec::Queued(2) + Refused() + Refused());
  EXPECT_EQ(m_pipeline.GetDs(2)->GetCompressedDataNum(), 2U);
}

}  // namespace
