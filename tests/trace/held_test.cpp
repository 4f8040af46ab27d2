// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/pipeline_rig.h"

// A dataset that is kept from sealing, and the three behind it: the complete trace until all have
// left.

namespace {

const InternalData kBuf = Buf(1, 0, 4096);

class HeldDataset : public PipelineRig {
 protected:
  // What every attempt writes while dataset 1 is held and `next` is the oldest behind it.
  std::string Refused(std::uint64_t next) const {
    return rec::MoreOffers(1, 2, 1) + rec::Pushing(next) + rec::StillWorkedOn(1, 1) +
           rec::NotSealed(1) + rec::CantMove();
  }

  // Dataset 1 held; 2, 3 and 4 with one buffer each behind it; 4 is the newest.
  void Build() {
    m_held = Normal(1);
    m_held->MarkHasBuffers();
    m_pipeline.PushDs(m_held, false);
    for (const std::uint64_t n : Numbers{2, 3, 4}) {
      Push(n);
      Write(kBuf);
    }
  }

  std::shared_ptr<Dataset> m_held;
};

TEST_F(HeldDataset, TheThreeBehindItAreClosedAndWait) {
  Build();
  const std::string closed1 = rec::ClosingEmpty(1) + rec::Pushing(1) + rec::Calling(1, 4) +
                              rec::Transmit(1) + rec::Newest(2, 2) + rec::FirstOffers(1, 3, 1) +
                              rec::Transmit(1) + rec::Newest(2, 2);
  EXPECT_EQ(Take(),
            rec::Constructed(1) + rec::HasBuffers(1, 1) + rec::PushDs(1, 0) +
                // 2
                rec::Constructed(2) + rec::PushDs(2, 1) + closed1 + rec::PushBuf(2, 1) +
                rec::AddBuffer(2, kBuf, 4096) +
                // 3
                rec::Constructed(3) + rec::PushDs(3, 2) + rec::Closing(2, {kBuf}) + Refused(2) +
                Refused(2) + rec::PushBuf(3, 2) + rec::AddBuffer(3, kBuf, 4096) +
                // 4
                rec::Constructed(4) + rec::PushDs(4, 3) + rec::Closing(3, {kBuf}) + Refused(2) +
                Refused(2) + rec::PushBuf(4, 3) + rec::AddBuffer(4, kBuf, 4096));
  EXPECT_EQ(Text(m_pipeline), "pipes [RECV 4 .. 2]  [XMIT 1]  [DONE 0:1..4]  [FLUSH ]");
}

TEST_F(HeldDataset, ItsReleaseLetsTheClosedOnesGo) {
  Build();
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_held->MarkDoneBuffers(), 0); }),
            rec::DoneBuffers(1, 0) + rec::MoreOffers(1, 2, 1) + rec::Pushing(2) +
                rec::SealedEmpty(1) + rec::Calling(2, 2) + rec::Transmit(2) + rec::Pushing(3) +
                rec::Sealed(2, 1) + rec::Calling(3, 2) + rec::Transmit(3) + rec::Newest(4, 4));
  // The units of 3, the newest transmitted, are offered by the next update; those of 2 never are.
  EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }),
            rec::Bump(4) + rec::Closing(4, {kBuf}) + rec::FirstOffers(3, 1, 3) + rec::Transmit(3) +
                rec::Pushing(4) + rec::Sealed(3, 1) + rec::Calling(4, 3) + rec::Transmit(4) +
                rec::FirstOffers(4, 2, 4) + rec::Transmit(4));
  EXPECT_EQ(Text(m_pipeline), "pipes [RECV ]  [XMIT 1 .. 4]  [DONE 0:1..4]  [FLUSH ]");
}

TEST_F(HeldDataset, SeveralDatasetsThatMoveInOneStepAreEachCalledOnce) {
  Build();
  m_pipeline.BumpDs();
  EXPECT_EQ(TraceOf([&] { m_held->MarkDoneBuffers(); }),
            rec::DoneBuffers(1, 0) + rec::MoreOffers(1, 2, 1) + rec::Pushing(2) +
                rec::SealedEmpty(1) + rec::Calling(2, 2) + rec::Transmit(2) + rec::Pushing(3) +
                rec::Sealed(2, 1) + rec::Calling(3, 2) + rec::Transmit(3) + rec::Pushing(4) +
                rec::Sealed(3, 1) + rec::Calling(4, 2) + rec::Transmit(4));
  EXPECT_EQ(TraceOf([&] { m_pipeline.UpdateTransmitter(); }),
            rec::FirstOffers(4, 1, 4) + rec::Transmit(4));
}

TEST_F(HeldDataset, HeldTwiceItNeedsTwoReleases) {
  Build();
  m_held->MarkHasBuffers();
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_held->MarkDoneBuffers(), 1); }), rec::DoneBuffers(1, 1));
  EXPECT_EQ(Queues(), "recv 4 3 2 xmit 1 done 1s 2s 3s 4s flush");
  m_held->MarkDoneBuffers();
  EXPECT_EQ(Queues(), "recv 4 xmit 1 2 3 done 1s 2s 3s 4s flush");
}

TEST_F(HeldDataset, DoneReportsDoNotWaitForTransmission) {
  Build();
  m_pipeline.Done(2, true, false);
  EXPECT_EQ(TraceOf([&] { m_pipeline.Done(1, true, false); }),
            rec::Done(1, true, false) + rec::Found(1, 1, false, true) +
                rec::Reported(1, false, true, false) + rec::Reported(2, false, true, false));
  EXPECT_EQ(Queues(), "recv 4 3 2 xmit 1 done 3s 4s flush 1y 2y");
}

TEST_F(HeldDataset, ANewestDatasetThatCannotLeaveIsClosedAgainByEveryBumpAndByItsSuccessor) {
  Build();
  m_pipeline.BumpDs();
  const std::string closedAgain = rec::Prev(4) + rec::Loop() + rec::Visit(4, kBuf) +
                                  rec::Ready(4, 1, 1) + rec::AlreadyWaiting(4) + Refused(2);
  EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }), rec::Bump(4) + closedAgain);
  EXPECT_EQ(TraceOf([&] { Push(5); }), rec::Constructed(5) + rec::PushDs(5, 4) + closedAgain);
  EXPECT_EQ(m_pipeline.GetDs(4)->GetCompressedDataNum(), 1U);
  EXPECT_EQ(m_pipeline.GetDs(4)->GetXmitBuffersSize(), 3U * 4096U);
}

}  // namespace
