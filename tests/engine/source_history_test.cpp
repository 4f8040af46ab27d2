// SPDX-License-Identifier: Apache-2.0
// Goal: after a reconnection the source takes what the target has, sends the rest again byte for
// byte, and stops at a history that is not its own. Reports are believed only where they can be
// true.
// Method: a few small datasets, a lost connection, and WELCOMEs and reports of every kind.
#include "tests/engine/source_rig.h"
#include "tests/engine/wire_samples.h"

namespace penstock {
namespace {

class SourceHistory : public SourceRig {
 protected:
  // Datasets 1 to 3 were sent to their ends.
  void ThreeSent() {
    Online();
    for (int i = 0; i < 3; ++i) SendDataset();
    ASSERT_EQ(Status().sent, 3U);
  }
  // What a WELCOME with this much says.
  Change Has(std::uint64_t durable, std::uint64_t applied = 0, std::uint64_t flushed = 0) {
    return [this, durable, applied, flushed](struct Welcome& welcome) {
      welcome.durable = durable;
      welcome.applied = applied;
      welcome.flushed = flushed;
      if (durable != 0) welcome.chain = m_chains.at(durable);
    };
  }
  void ExpectFork(const std::string& happened, const std::string& why) {
    EXPECT_EQ(happened, "dropped");
    EXPECT_EQ(Phase(), "stopped");
    EXPECT_EQ(Status().failureCode, ErrorCode::kFork);
    EXPECT_EQ(Failure(), why);
  }
};

// --- Sending again. ---

TEST_F(SourceHistory, GoesOnFromTheFirstThatIsNotDurable) {
  ThreeSent();
  Reconnect();
  EXPECT_EQ(Welcome(Has(1)),
            "START 2, BLOCK 0 raw 0+4096, END 2, START 3, BLOCK 0 raw 0+4096, END 3");
  EXPECT_EQ(Status().durable, 1U);
  EXPECT_EQ(Status().resentDatasets, 3U);
}

TEST_F(SourceHistory, SendsTheSameBytesAgain) {
  ThreeSent();
  const auto chains = m_chains;
  Reconnect();
  Welcome(Has(0));
  EXPECT_EQ(m_chains, chains);
}

TEST_F(SourceHistory, SendsNothingAgainThatTheTargetHas) {
  ThreeSent();
  Reconnect();
  EXPECT_EQ(Welcome(Has(3, 2, 1)), "");
  EXPECT_EQ(Status().durable, 3U);
  EXPECT_EQ(Status().applied, 2U);
  EXPECT_EQ(Status().flushed, 1U);
  EXPECT_EQ(m_engine->MemoryUsed(), 0U);
}

TEST_F(SourceHistory, ADatasetThatWasCutOffBeginsAnew) {
  Online();
  Write(0, 4096);
  EXPECT_EQ(Close(), "START 1");
  Reconnect();
  EXPECT_EQ(Welcome(), "START 1");
  EXPECT_EQ(Run(), "BLOCK 0 raw 0+4096, END 1");
  EXPECT_EQ(Status().resentDatasets, 0U) << "it was never sent";
}

TEST_F(SourceHistory, DatasetsThatWereClosedMeanwhileFollow) {
  ThreeSent();
  m_engine->ConnClosed(m_conn, "reset", m_now);
  EXPECT_EQ(SendDataset(), "");
  Wait(20'000);
  Connected();
  EXPECT_EQ(Welcome(Has(3)), "START 4");
  EXPECT_EQ(Run(), "BLOCK 0 raw 0+4096, END 4");
}

// --- Forks. ---

TEST_F(SourceHistory, AnotherEpochIsAFork) {
  ThreeSent();
  Reconnect();
  ExpectFork(Welcome([](struct Welcome& welcome) { ++welcome.epoch; }),
             "history differs at 0: the target is in another epoch");
}

TEST_F(SourceHistory, LostDatasetsAreAFork) {
  ThreeSent();
  Ack(2);
  Reconnect();
  ExpectFork(Welcome(Has(1)), "history differs at 1: the target has lost acknowledged datasets");
}

TEST_F(SourceHistory, ADatasetThatWasNeverMadeIsAFork) {
  ThreeSent();
  Reconnect();
  m_chains[4] = {};
  ExpectFork(Welcome(Has(4)), "history differs at 4: it was never sent");
}

TEST_F(SourceHistory, ADatasetThatWasNeverSentToItsEndIsAFork) {
  Online();
  Write(0, 4096);
  Close();
  Reconnect();
  m_chains[1] = {};
  ExpectFork(Welcome(Has(1)), "history differs at 1: it was never sent");
}

TEST_F(SourceHistory, AnotherChainValueOfTheLastDatasetIsAFork) {
  ThreeSent();
  Reconnect();
  m_chains[3][5] ^= 1U;
  ExpectFork(Welcome(Has(3)), "history differs at 3: the target's chain value is another");
}

TEST_F(SourceHistory, AnotherChainValueOfWhatWasAcknowledgedIsAFork) {
  ThreeSent();
  Ack(2);
  Reconnect();
  m_chains[2][5] ^= 1U;
  ExpectFork(Welcome(Has(2)), "history differs at 2: the target's chain value is another");
}

// --- What the target says of its volumes. ---

TEST_F(SourceHistory, AVolumeThatNeedsAResyncIsComparedAgain) {
  ThreeSent();
  All(3);
  Reconnect();
  m_state = VolumeState::kNeedsResync;
  EXPECT_TRUE(Contains(Welcome(), "START 4 resync begins"));
}

TEST_F(SourceHistory, TheComparisonWaitsForWhatWasClosedMeanwhile) {
  ThreeSent();
  Reconnect();
  m_state = VolumeState::kNeedsResync;
  EXPECT_EQ(Welcome(Has(3, 2, 1)), "");
  EXPECT_TRUE(Status().resyncing);
  EXPECT_TRUE(Contains(Done(3), "START 4 resync begins"));
}

TEST_F(SourceHistory, WhatWasMadeForALostVolumeNeitherBeginsNorCompletesAResync) {
  Online();
  m_engine->Resync(m_now);
  Out();
  EXPECT_TRUE(Contains(RunAll(), "complete"));
  Reconnect();
  m_state = VolumeState::kNeedsResync;
  const std::string again = Welcome();
  EXPECT_TRUE(Contains(again, "START 1 resync"));
  EXPECT_TRUE(Contains(again, "START 2"));
  EXPECT_FALSE(Contains(again, "begins"));
  EXPECT_FALSE(Contains(again, "complete"));
  EXPECT_TRUE(Contains(All(2), "START 3 resync begins"));
  EXPECT_TRUE(Contains(RunAll(), "START 4 complete"));
}

TEST_F(SourceHistory, APassOverALostVolumeEndsEarlyAndAnotherOneFollows) {
  m_config.memory = 2 * m_config.resyncBytes;
  Online();
  m_engine->Resync(m_now);
  Out();
  Reconnect();
  m_state = VolumeState::kNeedsResync;
  const std::string again = Welcome() + RunAll();
  EXPECT_FALSE(Contains(again, "complete"));
  EXPECT_TRUE(Status().resyncing);
  EXPECT_EQ(Status().syncedAt, 0U);
}

TEST_F(SourceHistory, AVolumeThatIsNewAfterItWasCompleteIsComparedAgain) {
  Online();
  m_engine->Resync(m_now);
  Out();
  RunAll();
  All(2);
  ASSERT_EQ(Status().syncedAt, 2U);
  Reconnect();
  m_state = VolumeState::kNew;
  EXPECT_TRUE(Contains(Welcome(), "START 3 resync begins"));
}

TEST_F(SourceHistory, AVolumeThatIsNewBecauseNothingWasSentIsNotComparedAgain) {
  Online();
  Reconnect();
  m_state = VolumeState::kNew;
  EXPECT_EQ(Welcome(), "");
  EXPECT_TRUE(m_engine->IsSettled());
}

// --- Reports. ---

TEST_F(SourceHistory, ReportsMoveTheStatusAndReturnTheMemory) {
  Online();
  Write(0, 4096);
  Close();
  Run();
  EXPECT_EQ(m_engine->MemoryUsed(), 4096U);
  Ack(1);
  EXPECT_EQ(m_engine->MemoryUsed(), 0U);
  EXPECT_EQ(Status().durable, 1U);
  Done(1);
  EXPECT_EQ(Status().applied, 1U);
  EXPECT_FALSE(m_engine->IsSettled());
  Flushed(1);
  EXPECT_EQ(Status().flushed, 1U);
  EXPECT_TRUE(m_engine->IsSettled());
  EXPECT_TRUE(Status().chainAgrees);
}

TEST_F(SourceHistory, OneReportStandsForThoseBefore) {
  ThreeSent();
  All(3);
  EXPECT_EQ(Status().durable, 3U);
  EXPECT_EQ(Status().applied, 3U);
  EXPECT_EQ(Status().flushed, 3U);
}

TEST_F(SourceHistory, AnAckOfTheKnownIsNothingNew) {
  ThreeSent();
  Ack(2);
  EXPECT_EQ(Ack(1), "");
  EXPECT_EQ(Phase(), "online");
  EXPECT_EQ(Status().durable, 2U);
}

TEST_F(SourceHistory, AnAckOfWhatWasNotMadeIsRefused) {
  ThreeSent();
  EXPECT_EQ(Ack(4), "dropped");
  EXPECT_EQ(Status().lastTrouble, "the target sent what it must not: ACK of 4, which was not sent");
  EXPECT_EQ(Status().damaged, 1U);
}

TEST_F(SourceHistory, AnAckOfWhatWasNotSentToItsEndIsRefused) {
  Online();
  Write(0, 4096);
  Close();
  EXPECT_EQ(Ack(1), "dropped");
  EXPECT_EQ(Status().durable, 0U);
}

TEST_F(SourceHistory, AnAckOfOtherDataIsAFork) {
  ThreeSent();
  m_chains[2][0] ^= 1U;
  ExpectFork(Ack(2), "history differs at 2: the target acknowledged other data");
}

TEST_F(SourceHistory, DoneOfWhatIsNotDurableIsRefused) {
  ThreeSent();
  Ack(1);
  EXPECT_EQ(Done(2), "dropped");
  EXPECT_EQ(Status().applied, 0U);
}

TEST_F(SourceHistory, FlushedOfWhatIsNotAppliedIsRefused) {
  ThreeSent();
  Ack(2);
  Done(1);
  EXPECT_EQ(Flushed(2), "dropped");
  EXPECT_EQ(Status().flushed, 0U);
}

TEST_F(SourceHistory, AReportThatCannotBeDecodedIsRefused) {
  ThreeSent();
  EXPECT_EQ(Receive(Frame::Of(FrameType::kAck, {1})), "dropped");
  EXPECT_EQ(Status().damaged, 1U);
}

TEST_F(SourceHistory, AnotherChainValueOfAFlushedDatasetIsRemembered) {
  ThreeSent();
  Ack(3);
  Done(3);
  m_chains[2][0] ^= 1U;
  Flushed(2);
  EXPECT_FALSE(Status().chainAgrees);
  EXPECT_EQ(Status().flushed, 2U);
}

TEST_F(SourceHistory, WhatAnEarlierSourceLeftUnappliedIsReportedToo) {
  Online([](struct Welcome& welcome) {
    welcome.durable = 9;
    welcome.applied = 8;
    welcome.flushed = 7;
  });
  Done(9);
  EXPECT_EQ(Status().applied, 9U);
  Flushed(8);
  EXPECT_EQ(Status().flushed, 8U);
  Flushed(9);
  EXPECT_EQ(Status().flushed, 9U);
}

// --- The chain. ---

// The example of docs/protocol.md, whose value other programs computed: dataset 6 behind a chain of
// counting bytes.
TEST_F(SourceHistory, TheChainValueOfTheExampleIsTheKnownOne) {
  m_config.group = "shop";
  m_config.volumes = {{"db", 64 * kKiB}};
  Online([](struct Welcome& welcome) {
    welcome.durable = welcome.applied = welcome.flushed = 5;
    welcome.chain = CountingFrom<32>(0xd0);
  });
  const auto data = std::make_shared<std::uint8_t[]>(8);
  std::ranges::copy(std::string("penstock"), data.get());
  m_engine->Write(0, 4096, data, 8, m_now);
  m_engine->m_newest->SetInitialSyncComplete();
  Close();
  EXPECT_EQ(Run(), "BLOCK 0 raw 4096+8, END 6");
  EXPECT_EQ(m_chains.at(6), kSampleChain);
}

TEST_F(SourceHistory, TheChainValueGoesOverTheDatasetBefore) {
  Online();
  Close();
  Close();
  DatasetDigest first;
  first.AddStart(Encode(m_starts.at(1)).Payload());
  DatasetDigest second;
  second.AddStart(Encode(m_starts.at(2)).Payload());
  EXPECT_EQ(m_chains.at(2), second.Chain(first.Chain(Digest{})));
}

}  // namespace
}  // namespace penstock
