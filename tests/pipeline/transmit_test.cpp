// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "tests/support/pipeline_rig.h"

// When a dataset enters the transmit pipe and what the transmitter is offered: the whole trace of
// each operation, and the queues afterwards.

namespace {

class Transmit : public PipelineRig {
 protected:
  // Pushes `n` and keeps it unsealed until Release.
  std::shared_ptr<Dataset> Hold(std::uint64_t n) {
    std::shared_ptr<Dataset> ds = Normal(n);
    ds->MarkHasBuffers();
    EXPECT_EQ(m_pipeline.PushDs(ds, false), DS_ERROR_OK);
    return ds;
  }

  // Brings dataset 1 into the transmit pipe with `count` units that were never offered.
  std::shared_ptr<Dataset> WithUnits(int count) {
    std::shared_ptr<Dataset> ds = Normal(1);
    for (int i = 0; i < count; ++i) AddUnit(*ds);
    ds->MarkNoWaitForNext();
    m_pipeline.PushDs(ds, false);
    m_pipeline.MoveRecvToXmit();
    return ds;
  }

  // Finishes one more buffer with a unit of its own.
  static void AddUnit(Dataset& ds) {
    InternalData buf = Buf(1, ds.GetTotalBuffers() * 4096, 4096);
    ASSERT_EQ(ds.AddBuffer(buf, 4096), DS_ERROR_OK);
    ASSERT_EQ(ds.FinalizeBuffer(buf, Unit({buf})), DS_ERROR_OK);
  }
};

TEST_F(Transmit, TheNewestDatasetWaitsForItsSuccessor) {
  const std::shared_ptr<Dataset> one = Normal(1);
  m_pipeline.PushDs(one, false);
  EXPECT_EQ(TraceOf([&] { m_pipeline.UpdateTransmitter(); }), rec::Newest(1, 1));
  EXPECT_EQ(Queues(), "recv 1 xmit done 1s flush");
}

TEST_F(Transmit, ABumpedDatasetMovesAtOnceWhateverItsBuffersState) {
  const std::shared_ptr<Dataset> held = Hold(1);
  int calls = 0;
  m_onTransmit = [&](std::shared_ptr<Dataset>&) { return ++calls; };
  held->MarkNoWaitForNext();
  EXPECT_EQ(TraceOf([&] { m_pipeline.UpdateTransmitter(); }),
            rec::Pushing(1) + rec::Calling(1, 3) + rec::Transmit(1));
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(held->IsSealed());
}

TEST_F(Transmit, AnEarlierDatasetDoesNotWaitOnItsOwnState) {
  const std::shared_ptr<Dataset> held = Hold(1);
  EXPECT_EQ(TraceOf([&] { Push(2); }),
            rec::Constructed(2) + rec::PushDs(2, 1) + rec::ClosingEmpty(1) + rec::Pushing(1) +
                rec::Calling(1, 4) + rec::Transmit(1) + rec::Newest(2, 2) +
                rec::FirstOffers(1, 3, 1) + rec::Transmit(1) + rec::Newest(2, 2));
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s 2s flush");
}

TEST_F(Transmit, ADatasetWaitsForTheOneAheadToSeal) {
  const std::shared_ptr<Dataset> held = Hold(1);
  Push(2);
  const std::string refused = rec::MoreOffers(1, 2, 1) + rec::Pushing(2) +
                              rec::StillWorkedOn(1, 1) + rec::NotSealed(1) + rec::CantMove();
  EXPECT_EQ(TraceOf([&] { Push(3); }),
            rec::Constructed(3) + rec::PushDs(3, 2) + rec::ClosingEmpty(2) + refused + refused);
  EXPECT_EQ(Queues(), "recv 3 2 xmit 1 done 1s 2s 3s flush");
  EXPECT_EQ(TraceOf([&] { m_pipeline.UpdateTransmitter(); }), refused);
}

TEST_F(Transmit, OneUpdateMovesEveryDatasetThatMayGo) {
  const std::shared_ptr<Dataset> held = Hold(1);
  PushAll({2, 3, 4});
  ASSERT_EQ(Queues(), "recv 4 3 2 xmit 1 done 1s 2s 3s 4s flush");
  EXPECT_EQ(TraceOf([&] { held->MarkDoneBuffers(); }),
            rec::DoneBuffers(1, 0) + rec::MoreOffers(1, 2, 1) + rec::Pushing(2) +
                rec::SealedEmpty(1) + rec::Calling(2, 2) + rec::Transmit(2) + rec::Pushing(3) +
                rec::SealedEmpty(2) + rec::Calling(3, 2) + rec::Transmit(3) + rec::Newest(4, 4));
  EXPECT_EQ(Queues(), "recv 4 xmit 1 2 3 done 1s 2s 3s 4s flush");
}

TEST_F(Transmit, OneUpdateAlsoMovesTheNewestWhenItWasBumped) {
  const std::shared_ptr<Dataset> held = Hold(1);
  PushAll({2, 3});
  m_pipeline.BumpDs();
  ASSERT_EQ(Queues(), "recv 3 2 xmit 1 done 1s 2s 3s flush");
  EXPECT_EQ(TraceOf([&] { held->MarkDoneBuffers(); }),
            rec::DoneBuffers(1, 0) + rec::MoreOffers(1, 2, 1) + rec::Pushing(2) +
                rec::SealedEmpty(1) + rec::Calling(2, 2) + rec::Transmit(2) + rec::Pushing(3) +
                rec::SealedEmpty(2) + rec::Calling(3, 2) + rec::Transmit(3));
  EXPECT_EQ(Queues(), "recv xmit 1 2 3 done 1s 2s 3s flush");
}

TEST_F(Transmit, AnUnsealedDatasetOnTheWayStopsTheRest) {
  const std::shared_ptr<Dataset> one = Hold(1);
  const std::shared_ptr<Dataset> two = Hold(2);
  PushAll({3, 4});
  EXPECT_EQ(TraceOf([&] { one->MarkDoneBuffers(); }),
            rec::DoneBuffers(1, 0) + rec::MoreOffers(1, 2, 1) + rec::Pushing(2) +
                rec::SealedEmpty(1) + rec::Calling(2, 3) + rec::Transmit(2) + rec::Pushing(3) +
                rec::StillWorkedOn(2, 1) + rec::NotSealed(2) + rec::CantMove());
  EXPECT_EQ(Queues(), "recv 4 3 xmit 1 2 done 1s 2s 3s 4s flush");
}

TEST_F(Transmit, OnlyTheNewestOfTheTransmitPipeIsTested) {
  // An older one that became unsealed again stays out of it.
  const std::shared_ptr<Dataset> one = Normal(1);
  m_pipeline.PushDs(one, false);
  PushAll({2, 3});
  one->MarkHasBuffers();
  EXPECT_EQ(TraceOf([&] { EXPECT_TRUE(m_pipeline.CanMoveDSToXmitPipe()); }), rec::SealedEmpty(2));
}

TEST_F(Transmit, AnythingMayEnterAnEmptyTransmitPipe) {
  EXPECT_EQ(TraceOf([&] { EXPECT_TRUE(m_pipeline.CanMoveDSToXmitPipe()); }), "");
}

TEST_F(Transmit, ABufferThatIsNotFinalizedKeepsTheNextDatasetOut) {
  const std::shared_ptr<Dataset> ds = WithUnits(1);
  InternalData late = Buf(1, 1 << 20, 512);
  ds->AddBuffer(late, 512);
  EXPECT_EQ(TraceOf([&] { EXPECT_FALSE(m_pipeline.CanMoveDSToXmitPipe()); }),
            rec::NotFinalized(1, 2, 1) + rec::NotSealed(1));
}

TEST_F(Transmit, EmptyPipesAreUpdatedWithoutARecord) {
  EXPECT_EQ(TraceOf([&] { m_pipeline.UpdateTransmitter(); }), "");
  EXPECT_EQ(TraceOf([&] { m_pipeline.XmitReadyDSBufs(); }), "");
  EXPECT_EQ(TraceOf([&] { m_pipeline.MoveProcessedDSsToXmitPipe(); }), "");
}

TEST_F(Transmit, OffersComeBeforeMoves) {
  const std::shared_ptr<Dataset> ds = WithUnits(2);
  Push(2);
  EXPECT_EQ(TraceOf([&] { m_pipeline.UpdateTransmitter(); }),
            rec::FirstOffers(1, 2, 1) + rec::Transmit(1) + rec::Transmit(1) + rec::Newest(2, 2));
}

TEST_F(Transmit, EachOfFiveUnitsIsOfferedOnce) {
  const std::shared_ptr<Dataset> ds = WithUnits(5);
  std::string five;
  for (int i = 0; i < 5; ++i) five += rec::Transmit(1);
  EXPECT_EQ(TraceOf([&] { m_pipeline.XmitReadyDSBufs(); }), rec::FirstOffers(1, 2, 1) + five);
  EXPECT_EQ(TraceOf([&] { m_pipeline.XmitReadyDSBufs(); }), rec::MoreOffers(1, 2, 1));
}

TEST_F(Transmit, ANegativeResultSkipsWhatIsReadyForGood) {
  const std::shared_ptr<Dataset> ds = WithUnits(5);
  m_onTransmit = [](std::shared_ptr<Dataset>&) { return -1; };
  EXPECT_EQ(TraceOf([&] { m_pipeline.XmitReadyDSBufs(); }),
            rec::FirstOffers(1, 2, 1) + rec::Transmit(1));
  EXPECT_EQ(TraceOf([&] { m_pipeline.XmitReadyDSBufs(); }), rec::MoreOffers(1, 2, 1));
  EXPECT_EQ(m_pipeline.m_xmitEnumerator->m_idx, 4);
}

TEST_F(Transmit, ANegativeResultInTheMiddleSkipsOnlyTheRestOfThatCall) {
  const std::shared_ptr<Dataset> ds = WithUnits(5);
  int calls = 0;
  m_onTransmit = [&](std::shared_ptr<Dataset>&) { return ++calls == 3 ? -7 : 1; };
  EXPECT_EQ(TraceOf([&] { m_pipeline.XmitReadyDSBufs(); }),
            rec::FirstOffers(1, 2, 1) + rec::Transmit(1) + rec::Transmit(1) + rec::Transmit(1));
  const InternalData late = Buf(1, 5 * 4096, 4096);
  EXPECT_EQ(TraceOf([&] { AddUnit(*ds); }), rec::AddBuffer(1, late, 4096) +
                                                rec::Finalize(1, late, 1) + rec::QueuedOne(6) +
                                                rec::MoreOffers(1, 2, 1) + rec::Transmit(1));
}

TEST_F(Transmit, ThePositiveResultsOfAnEntryAndNegativeOnesAreIgnored) {
  m_onTransmit = [](std::shared_ptr<Dataset>&) { return -1; };
  SendAll({1, 2});
  EXPECT_EQ(Queues(), "recv xmit 1 2 done 1s 2s flush");
}

TEST_F(Transmit, TheCursorSurvivesAGrowingUnitVector) {
  const std::shared_ptr<Dataset> ds = WithUnits(1);
  m_pipeline.XmitReadyDSBufs();
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(TraceOf([&] { AddUnit(*ds); }).find("> transmit 1\n") == std::string::npos, false);
  }
  EXPECT_EQ(m_pipeline.m_xmitEnumerator->m_idx, 100);
}

TEST_F(Transmit, TheCursorBelongsToTheNewestTransmittedDataset) {
  const std::shared_ptr<Dataset> ds = WithUnits(1);
  m_pipeline.XmitReadyDSBufs();
  ASSERT_NE(m_pipeline.m_xmitEnumerator, nullptr);
  EXPECT_EQ(m_pipeline.m_xmitEnumerator->m_dsNum, 1U);
  Push(2);
  EXPECT_NE(m_pipeline.m_xmitEnumerator, nullptr);
  m_pipeline.MoveRecvToXmit();
  EXPECT_EQ(m_pipeline.m_xmitEnumerator, nullptr);
  m_pipeline.XmitReadyDSBufs();
  EXPECT_EQ(m_pipeline.m_xmitEnumerator->m_dsNum, 2U);
}

TEST_F(Transmit, TheLoggedCursorIsTheOneThatThePipelineHolds) {
  const std::shared_ptr<Dataset> ds = WithUnits(0);
  m_pipeline.XmitReadyDSBufs();
  m_log.Take();
  m_pipeline.XmitReadyDSBufs();
  EXPECT_EQ(m_log.Take(), (Lines{"I Pipeline::XmitReadyDSBufs() this: " + Ptr(&m_pipeline) +
                                 " DS: " + Ptr(ds.get()) + " N: 1 use count 2 enumerator: " +
                                 Ptr(m_pipeline.m_xmitEnumerator.get()) + " xmit pipe size: 1"}));
}

TEST_F(Transmit, AnUnitOfAnEarlierTransmittedDatasetIsNotOffered) {
  const std::shared_ptr<Dataset> one = Normal(1);
  m_pipeline.PushDs(one, false);
  SendAll({2});
  ASSERT_EQ(Queues(), "recv xmit 1 2 done 1s 2s flush");
  const InternalData buf = Buf(1, 0, 4096);
  EXPECT_EQ(TraceOf([&] { AddUnit(*one); }), rec::AddBuffer(1, buf, 4096) +
                                                 rec::Finalize(1, buf, 1) + rec::QueuedOne(2) +
                                                 rec::MoreOffers(2, 1, 2));
}

TEST_F(Transmit, AnEntryPassesACopyAndAnOfferThePipesOwnElement) {
  const std::shared_ptr<Dataset>* seen = nullptr;
  m_onTransmit = [&](std::shared_ptr<Dataset>& ds) {
    seen = &ds;
    return 0;
  };
  const std::shared_ptr<Dataset> ds = WithUnits(1);
  EXPECT_NE(seen, &m_pipeline.m_xmitPipe.back());
  m_pipeline.XmitReadyDSBufs();
  EXPECT_EQ(seen, &m_pipeline.m_xmitPipe.back());
}

TEST_F(Transmit, MoveRecvToXmitTakesTheOldestAndAppendsIt) {
  m_pipeline.m_recvPipe = {Normal(3), Normal(2)};
  m_pipeline.m_xmitPipe = {Normal(1)};
  EXPECT_EQ(TraceOf([&] { m_pipeline.MoveRecvToXmit(); }), rec::Calling(2, 2) + rec::Transmit(2));
  EXPECT_EQ(Queues(), "recv 3 xmit 1 2 done flush");
}

TEST_F(Transmit, AnEmptyTransmitterThrowsOutOfAMoveThatHasHappened) {
  const std::shared_ptr<Dataset> one = Normal(1);
  m_pipeline.PushDs(one, false);
  m_pipeline.SetTransmitterCb({});
  Forget();
  EXPECT_THROW(m_pipeline.MoveRecvToXmit(), std::bad_function_call);
  EXPECT_EQ(Take(), rec::Calling(1, 3));
  EXPECT_EQ(Queues(), "recv xmit 1 done 1s flush");
  EXPECT_EQ(one.use_count(), 2);
}

TEST_F(Transmit, AnEmptyTransmitterThrowsOutOfAnOffer) {
  const std::shared_ptr<Dataset> ds = WithUnits(1);
  m_pipeline.SetTransmitterCb({});
  Forget();
  EXPECT_THROW(m_pipeline.XmitReadyDSBufs(), std::bad_function_call);
  EXPECT_EQ(Take(), rec::FirstOffers(1, 2, 1));
}

TEST_F(Transmit, AnEmptyTransmitterIsNotMissedWhileThereIsNothingToOffer) {
  const std::shared_ptr<Dataset> ds = WithUnits(0);
  m_pipeline.SetTransmitterCb({});
  EXPECT_NO_THROW(m_pipeline.XmitReadyDSBufs());
}

}  // namespace
