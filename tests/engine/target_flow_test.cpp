// SPDX-License-Identifier: Apache-2.0
// Goal: what a peer can make the target hold is bounded, and the peer learns that it has to wait.
// Method: small limits, a disk that does not answer, and a clock that goes on.
#include "tests/engine/target_rig.h"

namespace penstock {
namespace {

using TargetFlow = TargetRig;

constexpr std::uint64_t kBlockBytes = 20 + 12 + 4096;  // of each block here

TEST_F(TargetFlow, PausesWhenTooManyBytesWaitToBeWritten) {
  m_config.queueBytes = 2 * kBlockBytes;
  Online();
  Start(1);
  Block();
  EXPECT_EQ(Block(), "append a/1");
  EXPECT_EQ(Block(), "append a/1, pauses");
  Complete<JournalOpen>();
  EXPECT_EQ(Complete<JournalAppend>(), "goes on");
  EXPECT_EQ(Run(), "");
}

TEST_F(TargetFlow, BlocksOfAResyncThatWaitsCountToo) {
  m_config.queueBytes = kBlockBytes;
  Online();
  StartResync(1);
  Block();
  EXPECT_EQ(Block(), "pauses");
  EXPECT_TRUE(Contains(Run(), "goes on"));
}

TEST_F(TargetFlow, PausesWhenTheJournalIsFullAndGoesOnWhenItIsFlushed) {
  m_config.journalQuota = 1500;
  Online();
  Dataset(1);
  EXPECT_FALSE(Contains(RunBut<SyncVolumes>(), "pauses"));
  Dataset(2);
  EXPECT_TRUE(Contains(RunBut<SyncVolumes>(), "ACK 2, pauses"));
  EXPECT_TRUE(Contains(Run(), "FLUSHED 1, remove a/1, goes on"));
}

TEST_F(TargetFlow, PausesWhenTooManyDatasetsAreNotYetDurable) {
  m_config.queueDatasets = 2;
  Online();
  Joined({Start(1, {}), End(), Start(2, {}), End()});
  EXPECT_EQ(Start(3, {}), "pauses") << "they take memory even when they are empty";
  End();
  EXPECT_TRUE(Contains(Run(), "ACK 1, goes on"));
}

TEST_F(TargetFlow, AFullJournalDoesNotPauseAConnectionForVerifying) {
  m_config.journalQuota = 500;
  Online();
  HelloToVerify();
  m_conn = 1;
  Dataset(1);
  RunBut<SyncVolumes>();
  m_conn = 2;
  EXPECT_EQ(Send(Encode(QueryOf())), "compare a 0+8192");
}

TEST_F(TargetFlow, PausesWhenTooManyComparisonsAreUnderWay) {
  m_config.queueQueries = 1;
  Online();
  EXPECT_EQ(Send(Encode(QueryOf())), "compare a 0+8192");
  EXPECT_EQ(Send(Encode(QueryOf(8192))), "compare a 8192+8192, pauses");
  EXPECT_EQ(Complete<CompareVolume>(), "ANSWER 0+8192 !2, goes on");
}

// --- Pings while it does not listen. ---

TEST_F(TargetFlow, APausedSourceIsToldThatTheTargetIsThere) {
  m_config.queueBytes = 1;
  Online();
  Start(1);
  ASSERT_TRUE(Contains(Block(), "pauses"));
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + m_config.pingAfter);
  EXPECT_EQ(Wait(m_config.pingAfter - 1), "");
  EXPECT_EQ(Wait(1), "PING");
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + m_config.pingAfter);
  EXPECT_EQ(Wait(m_config.pingAfter), "PING");
}

TEST_F(TargetFlow, ASourceThatThePauseMadeSilentIsNotDropped) {
  m_config.queueBytes = 1;
  Online();
  Start(1);
  Block();
  for (Millis waited = 0; waited < 2 * m_config.idleTimeout; waited += m_config.pingAfter) {
    ASSERT_EQ(Wait(m_config.pingAfter), "PING");
  }
  EXPECT_EQ(Run(), "goes on");
  EXPECT_EQ(Wait(m_config.idleTimeout - 1), "") << "it has as long as any other to say something";
  EXPECT_EQ(Wait(1), "ERROR timeout: nothing came for too long, dropped, remove a/1");
}

// --- Queries. ---

TEST_F(TargetFlow, AQueryIsAnsweredByTheRunsOfItsWindow) {
  Online();
  struct Query query = QueryOf(4096);
  const Frame hello = Encode(HelloOf({"a"}));
  query.fingerprints = Fingerprints(ByteList(8192), 0);
  query.fingerprints[1] ^= 1U;
  Send(Encode(query));
  EXPECT_EQ(Complete<CompareVolume>(), "ANSWER 4096+8192 =1 !1");
  EXPECT_EQ(Status().state.counters.equalBytes, 4096U);
}

TEST_F(TargetFlow, AQueryReachesToTheEndOfItsVolumeAndNotBeyond) {
  Online();
  EXPECT_EQ(Send(Encode(QueryOf(kVolumeBytes - 8192))), "compare a 57344+8192");
  EXPECT_EQ(Send(Encode(QueryOf(kVolumeBytes - 8192, 8193))),
            "ERROR protocol: a query beyond the end of volume a, dropped");
}

TEST_F(TargetFlow, AQueryBehindItsVolumeIsRefused) {
  Online();
  EXPECT_EQ(Send(Encode(QueryOf(kVolumeBytes + 1))),
            "ERROR protocol: a query beyond the end of volume a, dropped");
  EXPECT_EQ(Refused(), 1U);
}

TEST_F(TargetFlow, AQueryIsOfAVolumeThatHelloNamed) {
  Online({"a", "b"});
  HelloToVerify({"a"});
  struct Query query = QueryOf();
  query.volume = 1;
  EXPECT_EQ(Send(Encode(query)),
            "ERROR refused: a query for a volume that was not granted, dropped");
}

TEST_F(TargetFlow, AQueryThatCannotBeDecodedIsRefused) {
  Online();
  EXPECT_EQ(Send(Frame::Of(FrameType::kQuery, ByteList(33))),
            "ERROR protocol: a window of 0 bytes, dropped");
}

TEST_F(TargetFlow, TheConnectionForVerifyingComparesUnderItsOwnKey) {
  Online();
  struct Hello hello = HelloOf({"a"});
  hello.purpose = Purpose::kVerify;
  hello.fingerprintSeed = 99;
  hello.runKey.fill(5);
  Hello(hello);
  Send(Encode(QueryOf()));
  EXPECT_EQ(First<CompareVolume>().seed, 99U);
  EXPECT_EQ(First<CompareVolume>().key, hello.runKey);
}

TEST_F(TargetFlow, AVolumeThatCannotBeReadEndsTheConnection) {
  Online();
  Send(Encode(QueryOf()));
  EXPECT_EQ(Complete<CompareVolume>(IoStatus::kFailed, "bad sector"),
            "ERROR failed: the target can't read its volume, dropped");
  EXPECT_EQ(m_notes.back(), "can't compare: bad sector");
}

TEST_F(TargetFlow, TheAnswerForAConnectionThatIsGoneGoesNowhere) {
  Online();
  Send(Encode(QueryOf()));
  Gone();
  EXPECT_EQ(Complete<CompareVolume>(), "");
}

}  // namespace
}  // namespace penstock
