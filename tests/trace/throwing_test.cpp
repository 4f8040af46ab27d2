// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/pipeline_rig.h"

// Callbacks that throw: what the call had done by then stays done, nothing more happens, and the
// next call goes on from there. Each test compares the trace up to the exception, the state that
// is left, and the way on.

namespace {

const InternalData kThrowingBuf = Buf(1, 0, 4096);

class Failure : public std::runtime_error {
 public:
  Failure() : std::runtime_error("the host failed") {}
};

class ThrowingHost : public PipelineRig {
 protected:
  // Lets the transmitter throw in its `nth` call from now on, once.
  void ThrowInTransmitterCall(int nth) {
    m_onTransmit = [nth, calls = 0](std::shared_ptr<Dataset>&) mutable {
      if (++calls != nth) return 0;
      throw Failure();
    };
  }
  template <class Act>
  std::string TraceUntilFailure(Act act) {
    return TraceOf([&] { EXPECT_THROW(act(), Failure); });
  }
};

TEST_F(ThrowingHost, ATransmitterThatThrowsAtAnEntryLeavesTheNewDatasetWithoutADoneRecord) {
  Push(1);
  Write(kThrowingBuf);
  ThrowInTransmitterCall(1);
  EXPECT_EQ(TraceUntilFailure([&] { Push(2); }),
            rec::Constructed(2) + rec::PushDs(2, 1) + rec::Closing(1, {kThrowingBuf}) +
                rec::Pushing(1) + rec::Calling(1, 3) + rec::Transmit(1));
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s flush");
  EXPECT_EQ(m_pipeline.m_lastReceived, 2U);
  EXPECT_EQ(m_pipeline.GetDs(1)->GetCompressedDataNum(), 1U);

  // The record is added by hand; the unit that was queued is offered by the next update.
  m_pipeline.AddToDonePipe(m_pipeline.GetDs(2), false);
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s 2s flush");
  EXPECT_EQ(TraceOf([&] { m_pipeline.UpdateTransmitter(); }),
            rec::FirstOffers(1, 1, 1) + rec::Transmit(1) + rec::Newest(2, 2));
  m_pipeline.Done(2, true, false);
  EXPECT_EQ(TraceOf([&] { m_pipeline.Done(1, true, false); }),
            rec::Done(1, true, false) + rec::Found(1, 1, false, true) +
                rec::Reported(1, false, true, false) + rec::Reported(2, false, true, false));
}

TEST_F(ThrowingHost, ATransmitterThatThrowsAtAnOfferHasBeenOfferedThatUnit) {
  Push(1);
  Write(kThrowingBuf);
  ThrowInTransmitterCall(2);
  EXPECT_EQ(TraceUntilFailure([&] { Push(2); }),
            rec::Constructed(2) + rec::PushDs(2, 1) + rec::Closing(1, {kThrowingBuf}) +
                rec::Pushing(1) + rec::Calling(1, 3) + rec::Transmit(1) + rec::Newest(2, 2) +
                rec::FirstOffers(1, 2, 1) + rec::Transmit(1));
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s flush");
  m_pipeline.AddToDonePipe(m_pipeline.GetDs(2), true);
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s 2 flush");
  EXPECT_EQ(TraceOf([&] { m_pipeline.UpdateTransmitter(); }),
            rec::MoreOffers(1, 1, 1) + rec::Newest(2, 2));
}

TEST_F(ThrowingHost, WithoutTheRepairTheDatasetIsNeverReported) {
  Push(1);
  ThrowInTransmitterCall(1);
  EXPECT_THROW(Push(2), Failure);
  Push(3);
  EXPECT_EQ(Queues(), "recv 3 xmit 1 2 done 1s 3s flush");
  EXPECT_EQ(m_pipeline.Done(2, true, false), DS_ERROR_NO_DATASET);
}

TEST_F(ThrowingHost, ATransmitterThatThrowsOutOfABumpLeavesTheDatasetTransmitted) {
  Push(1);
  ThrowInTransmitterCall(1);
  EXPECT_EQ(TraceUntilFailure([&] { m_pipeline.BumpDs(); }),
            rec::Bump(1) + rec::ClosingEmpty(1) + rec::Pushing(1) + rec::Calling(1, 3) +
                rec::Transmit(1));
  EXPECT_EQ(Queues(), "recv xmit 1 done 1s flush");
  EXPECT_EQ(m_pipeline.m_xmitEnumerator, nullptr);
  EXPECT_EQ(TraceOf([&] { m_pipeline.UpdateTransmitter(); }),
            rec::FirstOffers(1, 1, 1) + rec::Transmit(1));
}

TEST_F(ThrowingHost, ATransmitterThatThrowsOutOfAnAckHasLostTheDatasetAcknowledged) {
  const std::shared_ptr<Dataset> held = Normal(1);
  held->MarkHasBuffers();
  m_pipeline.PushDs(held, false);
  PushAll({2, 3, 4});
  ThrowInTransmitterCall(1);
  EXPECT_EQ(TraceUntilFailure([&] { m_pipeline.Ack(1, nullptr); }),
            rec::Ack(1, 1, 2, 0) + rec::AckDropping(1, 2) + rec::Pushing(2) + rec::Calling(2, 2) +
                rec::Transmit(2));
  EXPECT_EQ(Queues(), "recv 4 3 xmit 2 done 1s 2s 3s 4s flush");
  EXPECT_EQ(TraceOf([&] { m_pipeline.UpdateTransmitter(); }),
            rec::FirstOffers(2, 1, 1) + rec::Transmit(2) + rec::Pushing(3) + rec::SealedEmpty(2) +
                rec::Calling(3, 2) + rec::Transmit(3) + rec::Newest(4, 4));
}

TEST_F(ThrowingHost, ATransmitterThatThrowsOutOfARetransmissionChangesNoQueue) {
  SendAll({1, 2, 3});
  ThrowInTransmitterCall(2);
  EXPECT_EQ(TraceUntilFailure([&] { m_pipeline.Retransmit(false); }),
            rec::DonePipe("0:1..3") + rec::XmitSize(3) + rec::Again(1) + rec::Transmit(1) +
                rec::Again(2) + rec::Transmit(2));
  EXPECT_EQ(Queues(), "recv xmit 1 2 3 done 1s 2s 3s flush");
}

TEST_F(ThrowingHost, ADoneCallbackThatThrowsLeavesItsRecordAndTheFlushRecord) {
  PushAll({1, 2});
  const auto file = std::make_shared<DatasetSerializer>(1, Volume(1), "spool");
  m_pipeline.AddSerializer(1, file);
  m_pipeline.Done(2, true, false);
  m_onDone = [](unsigned long) { throw Failure(); };
  const std::string upToTheReport = rec::Done(1, true, false) + rec::Found(1, 1, false, true) +
                                    rec::Reported(1, false, true, false);
  EXPECT_EQ(TraceUntilFailure([&] { m_pipeline.Done(1, true, false); }), upToTheReport);
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1dys 2dys flush 1y");
  EXPECT_EQ(m_pipeline.GetDsSerializer(1), file);

  // The next answer reports it again, and queues a second flush record.
  m_onDone = {};
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Done(1, true, false), DS_ERROR_OK); }),
            upToTheReport + rec::Reported(2, false, true, false));
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done flush 1y 1y 2y");
  EXPECT_EQ(m_pipeline.GetDsSerializer(1), nullptr);
}

TEST_F(ThrowingHost, ADoneCallbackThatThrowsInARunKeepsWhatWasReportedBefore) {
  PushAll({1, 2, 3});
  m_pipeline.Done(3, true, false);
  m_pipeline.Done(2, true, false);
  m_onDone = [](unsigned long n) {
    if (n == 2) throw Failure();
  };
  EXPECT_EQ(TraceUntilFailure([&] { m_pipeline.Done(1, true, false); }),
            rec::Done(1, true, false) + rec::Found(1, 1, false, true) +
                rec::Reported(1, false, true, false) + rec::Reported(2, false, true, false));
  EXPECT_EQ(Queues(), "recv 3 xmit 1 2 done 2dys 3dys flush 1y 2y");
  // Any later answer, even for an unknown number, delivers what was held back.
  m_onDone = {};
  EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Done(9, true, false), DS_ERROR_NO_DATASET); }),
            rec::Done(9, true, false) + rec::Reported(2, false, true, false) +
                rec::Reported(3, false, true, false));
}

TEST_F(ThrowingHost, ADoneCallbackThatThrowsOutOfMarkStoredLeavesTheFlagSet) {
  Push(1, true);
  m_pipeline.Done(1, true, false);
  m_onDone = [](unsigned long) { throw Failure(); };
  EXPECT_EQ(TraceUntilFailure([&] { m_pipeline.MarkStored(1); }),
            rec::MarkStored(1) + rec::StoredReady(1) + rec::Done(1, true, false) +
                rec::Found(1, 1, false, true) + rec::Reported(1, false, true, false));
  EXPECT_EQ(Queues(), "recv 1 xmit done 1dys flush 1y");
}

TEST_F(ThrowingHost, AFlushedCallbackThatThrowsLeavesItsRecordMarked) {
  for (const std::uint64_t n : Numbers{1, 2, 3}) {
    Push(n);
    m_pipeline.Done(n, true, false);
  }
  m_pipeline.Flushed(2, true);
  m_onFlushed = [](unsigned long) { throw Failure(); };
  EXPECT_EQ(TraceUntilFailure([&] { m_pipeline.Flushed(1, true); }),
            rec::Flushed(1, true) + rec::Flush(1, true) + rec::FlushReported(1, false, true));
  EXPECT_EQ(Queues(), "recv 3 xmit 1 2 done flush 1Fy 2Fy 3y");

  // The next answer delivers all three, under its own number.
  m_onFlushed = {};
  EXPECT_EQ(TraceOf([&] { m_pipeline.Flushed(3, false); }),
            rec::Flushed(3, false) + rec::Flush(3, true) + rec::FlushReported(1, false, true) +
                rec::Flush(3, true) + rec::FlushReported(2, false, true) + rec::Flush(3, false) +
                rec::FlushReported(3, false, false));
}

class ThrowingSend : public ThrowingHost {
 protected:
  // A resync dataset of one block whose fingerprint was offered before the dataset is complete, so
  // that closing it sends the batch.
  void SetUp() override {
    m_resync = Resync(1);
    m_resync->InitFingerprintRequester(
        [this](const std::vector<std::uint64_t>& fps, std::uint64_t key) {
          Note("batch of " + std::to_string(fps.size()) + " key " + std::to_string(key));
          if (m_fails) throw Failure();
        });
    m_pipeline.PushDs(m_resync, false);
    Write(kThrowingBuf);
    m_resync->IncTotal4KBlocks();
    m_resync->SendFingerprint4Match(26);
  }

  static std::string Batch(std::uint64_t sent) {
    return "I FingerprintRequester::CheckIfReadyToSend() N: 1 m_nextFingerprint: 1 fpIdx: 0 "
           "totalFPs 1 isComplete true m_lastFpIdxSent " +
           rec::Num(sent) +
           " bucket size \n"
           "I FingerprintRequester::CheckIfReadyToSend() N: 1 fpIdx: 0   length: 256  batchStart: "
           "0 totalFPs 1 isComplete true\n" +
           rec::Host("batch of 1 key 65536");
  }

  std::shared_ptr<Dataset> m_resync;
  bool m_fails = true;
};

TEST_F(ThrowingSend, LeavesTheDatasetCompleteAndNotTransmitted) {
  EXPECT_EQ(TraceUntilFailure([&] { Push(2); }),
            rec::Constructed(2) + rec::PushDs(2, 1) + rec::Prev(1) + Batch(0));
  EXPECT_EQ(Queues(), "recv 2 1 xmit done 1fs flush");
  EXPECT_TRUE(m_resync->m_complete.load());
  EXPECT_EQ(m_resync->m_foRequester->m_lastFpIdxSent.load(), 0U);
}

TEST_F(ThrowingSend, TheRepairAndTheNextUpdateGoOn) {
  EXPECT_THROW(Push(2), Failure);
  m_pipeline.AddToDonePipe(m_pipeline.GetDs(2), false);
  EXPECT_EQ(Queues(), "recv 2 1 xmit done 1fs 2s flush");
  EXPECT_EQ(TraceOf([&] { m_pipeline.UpdateTransmitter(); }),
            rec::Pushing(1) + rec::Calling(1, 3) + rec::Transmit(1) + rec::Newest(2, 2));
  // The batch is still due: completing the dataset once more sends it.
  m_fails = false;
  EXPECT_EQ(TraceOf([&] { m_resync->SetComplete(); }), Batch(0));
  EXPECT_EQ(m_resync->m_foRequester->m_lastFpIdxSent.load(), 1U);
}

TEST_F(ThrowingSend, AnEmptySendFunctionFailsTheSameWay) {
  m_resync->m_foRequester->m_sendFn = {};
  EXPECT_THROW(Push(2), std::bad_function_call);
  EXPECT_EQ(Queues(), "recv 2 1 xmit done 1fs flush");
  EXPECT_EQ(m_resync->m_foRequester->m_lastFpIdxSent.load(), 0U);
}

}  // namespace
