// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/pipeline_rig.h"

// Retransmission and acknowledgement, on a transmit pipe that holds datasets 4, 5 and 6: result,
// whole trace and the four queues of each call.

namespace {

constexpr std::size_t kUntouched = 999;

class WithFourToSix : public PipelineRig {
 protected:
  // Done records 3 to 6, of which 4 is marked; flush records 1 and 2; transmit pipe 4, 5, 6.
  // Dataset 4 holds 512 bytes.
  void SetUp() override {
    SendAll({1, 2, 3});
    Push(4);
    Write(Buf(1, 0, 512));
    m_pipeline.BumpDs();
    SendAll({5, 6});
    for (const std::uint64_t n : Numbers{1, 2}) m_pipeline.Done(n, true, false);
    for (const std::uint64_t n : Numbers{1, 2, 3}) m_pipeline.Ack(n, nullptr);
    m_pipeline.Done(4, false, true);
    ASSERT_EQ(Queues(), "recv xmit 4 5 6 done 3s 4des 5s 6s flush 1y 2y");
    Forget();
  }
  static std::string OfferAll() {
    std::string text = rec::XmitSize(3);
    for (const std::uint64_t n : Numbers{4, 5, 6}) text += rec::Again(n) + rec::Transmit(n);
    return text;
  }
};

class Retransmit : public WithFourToSix {};
class Ack : public WithFourToSix {};
class OnAnEmptyTransmitPipe : public PipelineRig {};

TEST_F(Retransmit, OffersEveryTransmittedDatasetOldestFirst) {
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Retransmit(false), DS_ERROR_OK); }),
            rec::DonePipe("0:3 1:4 0:5..6") + OfferAll());
  EXPECT_EQ(Queues(), "recv xmit 4 5 6 done 3s 4des 5s 6s flush 1y 2y");
}

TEST_F(Retransmit, WithClearFirstDropsTheRecordsOfOlderDatasets) {
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Retransmit(true), DS_ERROR_OK); }),
            rec::DonePipe("0:3 1:4 0:5..6") + rec::ClearingUpTo(3) + rec::Cleared(3, 4, 1, 0) +
                OfferAll());
  EXPECT_EQ(Queues(), "recv xmit 4 5 6 done 4des 5s 6s flush");
}

TEST_F(Retransmit, TwiceOffersEveryDatasetTwice) {
  const std::string once = rec::DonePipe("0:3 1:4 0:5..6") + OfferAll();
  EXPECT_EQ(TraceOf([&] {
              m_pipeline.Retransmit(false);
              m_pipeline.Retransmit(false);
            }),
            once + once);
}

TEST_F(Retransmit, ANegativeResultDoesNotEndTheLoop) {
  m_onTransmit = [](std::shared_ptr<Dataset>& ds) { return ds->GetN() == 4 ? -1 : 0; };
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Retransmit(false), DS_ERROR_OK); }),
            rec::DonePipe("0:3 1:4 0:5..6") + OfferAll());
}

TEST_F(Retransmit, PassesThePipesOwnElements) {
  std::vector<const std::shared_ptr<Dataset>*> seen;
  m_onTransmit = [&](std::shared_ptr<Dataset>& ds) {
    seen.push_back(&ds);
    return 0;
  };
  m_pipeline.Retransmit(false);
  std::vector<const std::shared_ptr<Dataset>*> elements;
  for (const auto& ds : m_pipeline.m_xmitPipe) elements.push_back(&ds);
  EXPECT_EQ(seen, elements);
}

TEST_F(Retransmit, LeavesTheReceivePipeAndTheCursorAlone) {
  Push(7);
  const BufInfoEnumerator* cursor = m_pipeline.m_xmitEnumerator.get();
  ASSERT_NE(cursor, nullptr);
  const std::int64_t idx = cursor->m_idx;
  m_pipeline.Retransmit(true);
  EXPECT_EQ(m_pipeline.m_xmitEnumerator.get(), cursor);
  EXPECT_EQ(cursor->m_idx, idx);
  EXPECT_EQ(Queues(), "recv 7 xmit 4 5 6 done 4des 5s 6s 7s flush");
}

TEST_F(Retransmit, AMissingTransmitterThrowsAtTheFirstDataset) {
  m_pipeline.SetTransmitterCb({});
  Forget();
  EXPECT_THROW(m_pipeline.Retransmit(true), std::bad_function_call);
  EXPECT_EQ(Take(), rec::DonePipe("0:3 1:4 0:5..6") + rec::ClearingUpTo(3) +
                        rec::Cleared(3, 4, 1, 0) + rec::XmitSize(3) + rec::Again(4));
  EXPECT_EQ(Queues(), "recv xmit 4 5 6 done 4des 5s 6s flush");
}

TEST_F(OnAnEmptyTransmitPipe, RetransmitWithClearFails) {
  Push(1);
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Retransmit(true), DS_ERROR_FAILED); }),
            rec::DonePipe("0:1"));
  EXPECT_EQ(Queues(), "recv 1 xmit done 1s flush");
}

TEST_F(OnAnEmptyTransmitPipe, RetransmitWithoutClearOffersNothing) {
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Retransmit(false), DS_ERROR_OK); }),
            rec::DonePipe("") + rec::XmitSize(0));
}

TEST_F(OnAnEmptyTransmitPipe, AckFailsAndWritesNothing) {
  Push(1);
  std::size_t size = kUntouched;
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Ack(1, &size), DS_ERROR_FAILED); }),
            rec::AckEmpty(1));
  EXPECT_EQ(size, kUntouched);
  EXPECT_EQ(m_pipeline.Ack(1, nullptr), DS_ERROR_FAILED);
  EXPECT_EQ(Queues(), "recv 1 xmit done 1s flush");
}

TEST_F(Ack, OfALaterDatasetIsRefusedAndStillWritesTheSize) {
  std::size_t size = kUntouched;
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Ack(5, &size), DS_ERROR_ACK_OUT_OF_ORDER); }),
            rec::Ack(4, 5, 1, 512) + rec::AckAhead(4, 5));
  EXPECT_EQ(size, 512U);
  EXPECT_EQ(Queues(), "recv xmit 4 5 6 done 3s 4des 5s 6s flush 1y 2y");
}

TEST_F(Ack, OfAnEarlierDatasetIsRefusedAndStillWritesTheSize) {
  std::size_t size = kUntouched;
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Ack(3, &size), DS_ERROR_ACK_TOO_OLD); }),
            rec::Ack(4, 3, 1, 512) + rec::AckTooOld(4, 3));
  EXPECT_EQ(size, 512U);
  EXPECT_EQ(Queues(), "recv xmit 4 5 6 done 3s 4des 5s 6s flush 1y 2y");
}

TEST_F(Ack, OfTheOldestRemovesItAndDrivesTheTransmitter) {
  std::size_t size = kUntouched;
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Ack(4, &size), DS_ERROR_OK); }),
            rec::Ack(4, 4, 1, 512) + rec::AckDropping(4, 1) + rec::MoreOffers(6, 1, 2));
  EXPECT_EQ(size, 512U);
  EXPECT_EQ(Queues(), "recv xmit 5 6 done 3s 4des 5s 6s flush 1y 2y");
}

TEST_F(Ack, ANullSizeIsAcceptedInEveryCase) {
  EXPECT_EQ(m_pipeline.Ack(5, nullptr), DS_ERROR_ACK_OUT_OF_ORDER);
  EXPECT_EQ(m_pipeline.Ack(3, nullptr), DS_ERROR_ACK_TOO_OLD);
  EXPECT_EQ(m_pipeline.Ack(4, nullptr), DS_ERROR_OK);
}

TEST_F(Ack, MustComeInOrder) {
  m_pipeline.Ack(4, nullptr);
  EXPECT_EQ(m_pipeline.Ack(6, nullptr), DS_ERROR_ACK_OUT_OF_ORDER);
  EXPECT_EQ(m_pipeline.Ack(5, nullptr), DS_ERROR_OK);
  EXPECT_EQ(m_pipeline.Ack(6, nullptr), DS_ERROR_OK);
  EXPECT_EQ(m_pipeline.Ack(6, nullptr), DS_ERROR_FAILED);
}

TEST_F(Ack, ReleasesThePipelinesShareOnly) {
  const std::shared_ptr<Dataset> four = m_pipeline.GetDs(4);
  EXPECT_EQ(TraceOf([&] { m_pipeline.Ack(4, nullptr); }),
            rec::Ack(4, 4, 2, 512) + rec::AckDropping(4, 2) + rec::MoreOffers(6, 1, 2));
  EXPECT_EQ(four.use_count(), 1);
  const std::weak_ptr<Dataset> five = m_pipeline.GetDs(5);
  m_pipeline.Ack(5, nullptr);
  EXPECT_TRUE(five.expired());
}

TEST_F(Ack, KeepsTheCursorEvenOfAPipeThatIsEmptyNow) {
  for (const std::uint64_t n : Numbers{4, 5, 6}) m_pipeline.Ack(n, nullptr);
  EXPECT_NE(m_pipeline.m_xmitEnumerator, nullptr);
  EXPECT_EQ(TraceOf([&] { m_pipeline.UpdateTransmitter(); }), "");
  Push(7);
  m_pipeline.MoveRecvToXmit();
  EXPECT_EQ(m_pipeline.m_xmitEnumerator, nullptr);
}

TEST_F(Ack, OfAnUnsealedDatasetLetsItsSuccessorsGo) {
  for (const std::uint64_t n : Numbers{4, 5, 6}) m_pipeline.Ack(n, nullptr);
  const std::shared_ptr<Dataset> held = Normal(7);
  held->MarkHasBuffers();
  m_pipeline.PushDs(held, false);
  PushAll({8, 9});
  ASSERT_EQ(Queues(), "recv 9 8 xmit 7 done 3s 4des 5s 6s 7s 8s 9s flush 1y 2y");
  EXPECT_EQ(TraceOf([&] { m_pipeline.Ack(7, nullptr); }),
            rec::Ack(7, 7, 2, 0) + rec::AckDropping(7, 2) + rec::Pushing(8) + rec::Calling(8, 2) +
                rec::Transmit(8) + rec::Newest(9, 9));
}

}  // namespace
