// SPDX-License-Identifier: Apache-2.0
// Goal: the source finds its target, stays with it, tells lasting refusals from passing ones, and
// believes nothing that the target can't mean.
// Method: one connection in one state, one event, and the clock.
#include "tests/engine/source_rig.h"

namespace penstock {
namespace {

class SourceConnection : public SourceRig {
 protected:
  std::string Error(ErrorCode code) {
    return Receive(Encode(penstock::Error{code, 0, "so it is"}));
  }
};

TEST_F(SourceConnection, ConnectsAndSaysHelloInNoEpoch) {
  m_config.volumes = {{"a", 4096}, {"b", 8192}};
  EXPECT_EQ(Begin(), "connect");
  EXPECT_EQ(Phase(), "connecting");
  EXPECT_EQ(Connected(), "HELLO g epoch 0 a b");
  EXPECT_EQ(m_hello.volumes[1].size, 8192U);
  EXPECT_EQ(Phase(), "greeting");
  EXPECT_EQ(Welcome(), "");
  EXPECT_EQ(Phase(), "online");
}

TEST_F(SourceConnection, StartsOnce) {
  Begin();
  m_engine->Start(m_now);
  EXPECT_EQ(Out(), "");
}

TEST_F(SourceConnection, IsIdleBeforeItIsStarted) {
  m_engine = std::make_unique<SourceEngine>(m_config);
  EXPECT_EQ(Phase(), "idle");
  EXPECT_EQ(Wait(100'000), "");
  EXPECT_EQ(m_engine->NextDeadline(), ~Millis{0});
  EXPECT_FALSE(m_engine->IsSettled());
}

TEST_F(SourceConnection, AWelcomeSetsTheSeedsOfBothDirections) {
  Online();
  const struct Welcome welcome = WelcomeOf();
  ASSERT_EQ(m_seeds.size(), 1U);
  EXPECT_EQ(m_seeds[0].read, FrameSeed(m_hello.nonce, welcome.nonce, false));
  EXPECT_EQ(m_seeds[0].write, FrameSeed(m_hello.nonce, welcome.nonce, true));
}

TEST_F(SourceConnection, EveryConnectionHasItsOwnSecrets) {
  Online();
  const Hello first = m_hello;
  Reconnect();
  EXPECT_NE(m_hello.nonce, first.nonce);
  EXPECT_NE(m_hello.runKey, first.runKey);
  EXPECT_NE(m_hello.fingerprintSeed, first.fingerprintSeed);
}

TEST_F(SourceConnection, TheEpochOfTheFirstWelcomeIsItsOwn) {
  Online([](struct Welcome& welcome) { welcome.epoch = 7; });
  EXPECT_EQ(Status().epoch, 7U);
  EXPECT_EQ(Reconnect(), "HELLO g epoch 7 a");
}

TEST_F(SourceConnection, NumbersGoOnFromWhatTheTargetHas) {
  Online([](struct Welcome& welcome) { welcome.durable = welcome.applied = welcome.flushed = 41; });
  EXPECT_EQ(SendDataset(), "START 42, BLOCK 0 raw 0+4096, END 42");
}

// --- A WELCOME that it can't take. ---

TEST_F(SourceConnection, AnotherProtocolVersionIsFinal) {
  Begin();
  Connected();
  EXPECT_EQ(Welcome([](struct Welcome& welcome) { welcome.version = 2; }), "dropped");
  EXPECT_EQ(Phase(), "stopped");
  EXPECT_EQ(Failure(), "the target speaks protocol version 2, this source 1");
  EXPECT_EQ(Status().failureCode, ErrorCode::kVersion);
}

TEST_F(SourceConnection, AVolumeOfAnotherSizeIsFinal) {
  Begin();
  Connected();
  Welcome([](struct Welcome& welcome) { welcome.volumes[0].size = 1; });
  EXPECT_EQ(Failure(), "volume a has 65536 bytes here and 1 at the target");
  EXPECT_EQ(Status().failureCode, ErrorCode::kVolume);
}

TEST_F(SourceConnection, AWelcomeThatContradictsItselfIsRefused) {
  const std::vector<Change> wrongs = {
      [](struct Welcome& welcome) { welcome.volumes.clear(); },
      [](struct Welcome& welcome) { welcome.epoch = 0; },
      [](struct Welcome& welcome) { welcome.applied = 1; },
      [](struct Welcome& welcome) { welcome.durable = welcome.flushed = 1; },
  };
  Begin();
  Connected();
  for (const Change& wrong : wrongs) {
    EXPECT_EQ(Welcome(wrong), "dropped");
    EXPECT_EQ(Phase(), "reconnecting");
    Wait(20'000);
    Connected();
  }
  EXPECT_EQ(Status().damaged, wrongs.size());
}

TEST_F(SourceConnection, AWelcomeThatCannotBeDecodedIsRefused) {
  Begin();
  Connected();
  EXPECT_EQ(Receive(Frame::Of(FrameType::kWelcome, {1, 0})), "dropped");
  EXPECT_EQ(Status().damaged, 1U);
}

TEST_F(SourceConnection, NothingMayComeBeforeWelcome) {
  Begin();
  Connected();
  EXPECT_EQ(Receive(Encode(FrameType::kPing, Ping{1})), "dropped");
  EXPECT_EQ(Status().lastTrouble, "the target sent what it must not: PING before WELCOME");
}

TEST_F(SourceConnection, FramesThatOnlyASourceSendsAreRefused) {
  Online();
  EXPECT_EQ(Receive(Encode(Query{1, 0, 0, 4096, 0, {1}})), "dropped");
  EXPECT_EQ(Status().lastTrouble, "the target sent what it must not: QUERY is not for a source");
}

TEST_F(SourceConnection, AFrameAfterTheConnectionWasDroppedIsNotHeard) {
  Online();
  Receive(Encode(Query{1, 0, 0, 4096, 0, {1}}));
  EXPECT_EQ(Welcome(), "");
  EXPECT_EQ(Phase(), "reconnecting");
}

// --- Errors. ---

TEST_F(SourceConnection, LastingRefusalsAreFinal) {
  for (const ErrorCode code : {ErrorCode::kRefused, ErrorCode::kFenced, ErrorCode::kFork,
                               ErrorCode::kVolume, ErrorCode::kVersion}) {
    Begin();
    Connected();
    EXPECT_EQ(Error(code), "dropped");
    EXPECT_EQ(Phase(), "stopped");
    EXPECT_EQ(Status().failureCode, code);
    EXPECT_EQ(Failure(), std::string("the target says: ") + Text(code) + ": so it is");
    EXPECT_EQ(m_engine->NextDeadline(), ~Millis{0});
    EXPECT_EQ(Wait(100'000), "") << "it does not come back by itself";
  }
}

TEST_F(SourceConnection, PassingRefusalsAreTriedAgain) {
  for (const ErrorCode code : {ErrorCode::kProtocol, ErrorCode::kDamaged, ErrorCode::kNoSpace,
                               ErrorCode::kBusy, ErrorCode::kFailed, ErrorCode::kTimeout}) {
    Begin();
    Connected();
    EXPECT_EQ(Error(code), "dropped");
    EXPECT_EQ(Phase(), "reconnecting");
    EXPECT_EQ(Wait(10'000), "connect");
  }
}

TEST_F(SourceConnection, AnErrorThatCannotBeDecodedIsRefused) {
  Online();
  EXPECT_EQ(Receive(Frame::Of(FrameType::kError, {1})), "dropped");
  EXPECT_EQ(Status().damaged, 1U);
}

TEST_F(SourceConnection, GoodbyeOfTheTargetIsAReasonToComeBack) {
  Online();
  EXPECT_EQ(Receive(EncodeBye()), "dropped");
  EXPECT_EQ(Wait(10'000), "connect");
  EXPECT_EQ(Status().damaged, 0U);
}

// --- Time. ---

TEST_F(SourceConnection, AConnectionThatDoesNotComeAboutIsTriedAgain) {
  Begin();
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + m_config.greetTimeout);
  Wait(m_config.greetTimeout - 1);
  EXPECT_EQ(Phase(), "connecting");
  Wait(1);
  EXPECT_EQ(Phase(), "reconnecting");
  EXPECT_EQ(Connected(), "dropped") << "too late";
}

TEST_F(SourceConnection, AHelloWithoutAnAnswerIsGivenUp) {
  Begin();
  Connected();
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + m_config.greetTimeout);
  EXPECT_EQ(Wait(m_config.greetTimeout - 1), "");
  EXPECT_EQ(Wait(1), "dropped");
  EXPECT_EQ(Status().lastTrouble, "the target did not answer HELLO in time");
}

TEST_F(SourceConnection, ASilentTargetIsAskedOnceAndThenLeft) {
  Online();
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + m_config.pingAfter);
  EXPECT_EQ(Wait(m_config.pingAfter - 1), "");
  EXPECT_EQ(Wait(1), "PING");
  EXPECT_EQ(m_engine->NextDeadline(), 1000 + m_config.progressTimeout);
  EXPECT_EQ(Wait(m_config.progressTimeout - m_config.pingAfter - 1), "");
  EXPECT_EQ(Wait(1), "dropped");
  EXPECT_EQ(Status().lastTrouble, "nothing came from the target for 30 s");
}

TEST_F(SourceConnection, AnAnswerBeginsTheSilenceAnew) {
  Online();
  Wait(m_config.pingAfter);
  EXPECT_EQ(Receive(Encode(FrameType::kPong, Ping{1})), "");
  EXPECT_EQ(Wait(m_config.pingAfter - 1), "");
  EXPECT_EQ(Wait(1), "PING");
}

TEST_F(SourceConnection, PingIsAnswered) {
  Online();
  EXPECT_EQ(Receive(Encode(FrameType::kPing, Ping{1})), "PONG");
  EXPECT_EQ(Receive(Frame::Of(FrameType::kPing, {1})), "dropped");
  EXPECT_EQ(Status().damaged, 1U);
}

// --- Progress. ---

TEST_F(SourceConnection, ProgressIsToldWhenSomethingChangedAndOnceASecondAtMost) {
  m_config.resyncAtStart = false;
  Online();
  EXPECT_FALSE(Contains(Wait(2 * m_config.progressEvery), "PROGRESS")) << "nothing changed";
  EXPECT_EQ(m_engine->CloseDataset(m_now), 1U);
  EXPECT_TRUE(Contains(Out(), "PROGRESS closed 1 sent 1"));
  m_engine->CloseDataset(m_now);
  EXPECT_FALSE(Contains(Out(), "PROGRESS"));
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + m_config.progressEvery);
  EXPECT_FALSE(Contains(Wait(m_config.progressEvery - 1), "PROGRESS"));
  EXPECT_EQ(Wait(1), "PROGRESS closed 2 sent 2");
  EXPECT_GT(m_engine->NextDeadline(), m_now.steady + m_config.progressEvery);
}

// --- Coming back. ---

TEST_F(SourceConnection, TheWaitDoublesUpToItsLimit) {
  m_config.backoffMax = 1000;
  Begin();
  std::vector<Millis> waits;
  for (int i = 0; i < 5; ++i) {
    m_engine->ConnectFailed("refused", m_now);
    waits.push_back(m_engine->NextDeadline() - m_now.steady);
    EXPECT_EQ(Wait(waits.back() - 1), "");
    EXPECT_EQ(Wait(1), "connect");
  }
  EXPECT_EQ(waits, (std::vector<Millis>{100, 200, 400, 500, 500}));
  EXPECT_EQ(Status().lastTrouble, "refused");
}

TEST_F(SourceConnection, ChanceAddsUpToAHalf) {
  m_dice = 255;
  Begin();
  m_engine->ConnectFailed("refused", m_now);
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + m_config.backoffMin);
}

TEST_F(SourceConnection, AWelcomeEndsTheDoubling) {
  Begin();
  for (int i = 0; i < 4; ++i) {
    m_engine->ConnectFailed("refused", m_now);
    Wait(10'000);
  }
  Connected();
  Welcome();
  EXPECT_EQ(Status().lastTrouble, "");
  m_engine->ConnClosed(m_conn, "reset", m_now);
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + m_config.backoffMin / 2);
  EXPECT_EQ(Status().reconnects, 1U);
}

TEST_F(SourceConnection, EventsOfOtherConnectionsAreIgnored) {
  Online();
  m_engine->ConnClosed(m_conn + 1, "reset", m_now);
  m_engine->Received(m_conn + 1, EncodeBye(), m_now);
  m_engine->ConnectFailed("refused", m_now);
  EXPECT_EQ(Out(), "");
  EXPECT_EQ(Phase(), "online");
  m_engine->Connected(m_conn + 1, m_now);
  EXPECT_EQ(Out(), "dropped");
}

// --- Stop. ---

TEST_F(SourceConnection, StopSaysGoodbye) {
  Online();
  m_engine->Stop(m_now);
  EXPECT_EQ(Out(), "BYE, dropped");
  EXPECT_EQ(Phase(), "stopped");
  EXPECT_EQ(Failure(), "");
  m_engine->Stop(m_now);
  EXPECT_EQ(Out(), "");
}

TEST_F(SourceConnection, StopBeforeWelcomeSaysNothing) {
  Begin();
  Connected();
  m_engine->Stop(m_now);
  EXPECT_EQ(Out(), "dropped");
}

TEST_F(SourceConnection, StopWithoutAConnectionIsJustThat) {
  Begin();
  m_engine->Stop(m_now);
  EXPECT_EQ(Out(), "");
  EXPECT_EQ(Connected(), "dropped");
  EXPECT_EQ(Wait(100'000), "");
}

TEST_F(SourceConnection, AfterStopNothingIsTakenAnyMore) {
  Online();
  m_engine->Stop(m_now);
  Out();
  m_engine->ConnClosed(m_conn, "reset", m_now);
  EXPECT_EQ(Write(0, 4096), WriteResult::kStopped);
  EXPECT_EQ(m_engine->CloseDataset(m_now), 0U);
  EXPECT_EQ(Welcome(), "");
  EXPECT_EQ(Phase(), "stopped");
}

}  // namespace
}  // namespace penstock
