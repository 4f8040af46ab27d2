// SPDX-License-Identifier: Apache-2.0
// Goal: only those whom a grant lets in get a WELCOME, and each gets it in the right epoch.
// Method: connections say HELLO to a target whose disk answers at once or when told to.
#include "tests/engine/target_rig.h"

namespace penstock {
namespace {

using TargetGreeting = TargetRig;

TEST_F(TargetGreeting, AnUnknownGroupIsMadeByItsFirstSource) {
  Boot();
  EXPECT_EQ(Hello(), "open a, commit epoch 1");
  EXPECT_EQ(Run(), "commit a new, WELCOME epoch 1 at 0/0/0 new");
  EXPECT_EQ(m_volumes.at("a"), kVolumeBytes);
}

TEST_F(TargetGreeting, WelcomeWaitsUntilTheEpochAndTheVolumesAreCommitted) {
  Boot();
  Hello();
  EXPECT_EQ(Complete<OpenVolume>(), "");
  EXPECT_EQ(Complete<CommitState>(), "commit a new");
  EXPECT_EQ(Complete<CommitState>(), "WELCOME epoch 1 at 0/0/0 new");
}

TEST_F(TargetGreeting, VolumesAreOpenedOneAfterTheOtherAndAnsweredInTheOrderOfHello) {
  m_volumes["b"] = kVolumeBytes;
  Boot();
  EXPECT_EQ(Hello({"b", "a"}), "open b, commit epoch 1");
  EXPECT_EQ(Complete<OpenVolume>(), "open a");
  EXPECT_TRUE(Contains(Run(), "WELCOME epoch 1 at 0/0/0 needs resync new"));
}

TEST_F(TargetGreeting, AKnownGroupGoesOnWithItsNumbers) {
  Online();
  Dataset(1);
  Run();
  EXPECT_EQ(Joined({Hello({"a"}, 1), Run()}), "1: dropped, WELCOME epoch 1 at 1/1/1 syncing");
}

TEST_F(TargetGreeting, AWelcomeSetsTheSeedsOfBothDirections) {
  Boot();
  struct Hello hello = HelloOf({"a"});
  hello.nonce.fill(3);
  Hello(hello);
  Run();
  Nonce own{};
  own.fill(7);
  ASSERT_EQ(m_seeds.size(), 1U);
  EXPECT_EQ(m_seeds[0].read, FrameSeed(hello.nonce, own, true));
  EXPECT_EQ(m_seeds[0].write, FrameSeed(hello.nonce, own, false));
}

TEST_F(TargetGreeting, AGoodVolumeIsGoodAtTheNewestFlushedDataset) {
  Online();
  Dataset(1, {"a"}, kStartSyncComplete);
  Run();
  Dataset(2);
  Run();
  EXPECT_EQ(Joined({Hello({"a"}, 1), Run()}), "1: dropped, WELCOME epoch 1 at 2/2/2 good@2");
}

// --- Grants. ---

TEST_F(TargetGreeting, EachVolumeNeedsAGrant) {
  m_denied = {"s g/b replicate"};
  Boot();
  EXPECT_EQ(Hello({"a", "b"}), "ERROR refused: no grant for g/b, dropped");
  EXPECT_TRUE(m_engine->Status().empty());
  EXPECT_EQ(m_engine->RefusedConnections(), 1U);
}

TEST_F(TargetGreeting, TheRightToReplicateIsNotTheRightToVerify) {
  Online();
  m_denied = {"s g/a verify"};
  EXPECT_EQ(HelloToVerify(), "ERROR refused: no grant for g/a, dropped");
}

TEST_F(TargetGreeting, TheRightToVerifyIsNotTheRightToReplicate) {
  m_denied = {"s g/a replicate"};
  Boot();
  EXPECT_EQ(Hello(), "ERROR refused: no grant for g/a, dropped");
}

// --- What HELLO must hold. ---

TEST_F(TargetGreeting, HelloNamesAtLeastOneVolume) {
  Boot();
  EXPECT_EQ(Hello(std::vector<std::string>{}), "ERROR protocol: HELLO without volumes, dropped");
}

TEST_F(TargetGreeting, AnotherProtocolVersionIsRefused) {
  Boot();
  struct Hello hello = HelloOf({"a"});
  hello.version = 2;
  EXPECT_EQ(Hello(hello), "ERROR version: protocol version 2; this target speaks 1, dropped");
}

TEST_F(TargetGreeting, AHelloThatCannotBeDecodedIsRefused) {
  Boot();
  Connect(1);
  EXPECT_EQ(Send(Frame::Of(FrameType::kHello, {1, 0})),
            "ERROR protocol: the group has no valid name, dropped");
}

TEST_F(TargetGreeting, OnlyHelloMayComeFirst) {
  Boot();
  Connect(1);
  EXPECT_EQ(Send(Encode(FrameType::kPing, Ping{1})),
            "ERROR protocol: PING instead of HELLO, dropped");
}

TEST_F(TargetGreeting, GoodbyeInsteadOfHelloEndsTheConnection) {
  Boot();
  Connect(1);
  EXPECT_EQ(Send(EncodeBye()), "dropped");
  EXPECT_EQ(m_engine->RefusedConnections(), 0U);
}

TEST_F(TargetGreeting, NothingMayComeBetweenHelloAndWelcome) {
  Boot();
  Hello();
  EXPECT_EQ(Send(Encode(FrameType::kPing, Ping{1})),
            "ERROR protocol: a frame before WELCOME, dropped");
  EXPECT_EQ(Refused(), 1U);
  EXPECT_EQ(Run(), "commit a new");
}

TEST_F(TargetGreeting, ASecondHelloIsRefused) {
  Online();
  EXPECT_EQ(Send(Encode(HelloOf({"a"}))), "ERROR protocol: HELLO is not for a target, dropped");
}

TEST_F(TargetGreeting, TheSizesOfAVolumeMustAgree) {
  m_volumes["a"] = 4096;
  Boot();
  EXPECT_TRUE(Contains(Joined({Hello(), Run()}),
                       "ERROR volume: volume a has 4096 bytes at the target and 65536 at the "
                       "source; make them the same, or name another target volume, dropped"));
  EXPECT_FALSE(Status().connected);
}

TEST_F(TargetGreeting, AVolumeThatCannotBeOpenedIsTheSourcesToKnow) {
  Boot();
  Hello();
  EXPECT_EQ(Complete<OpenVolume>(IoStatus::kFailed, "it is mounted"),
            "ERROR volume: it is mounted, dropped");
  EXPECT_EQ(Joined({Hello(), Run()}), "open a, commit a new, WELCOME epoch 1 at 0/0/0 new");
}

TEST_F(TargetGreeting, ASourceThatLeftWhileItsVolumesAreOpenedLeavesThemOpen) {
  Boot();
  Hello({"a", "b"});
  Gone();
  EXPECT_EQ(Run(), "commit a new");
  EXPECT_EQ(Complete<OpenVolume>(), "nothing to complete");
}

TEST_F(TargetGreeting, AFailedOpenOfASourceThatLeftIsNobodysTrouble) {
  Boot();
  Hello();
  Gone();
  EXPECT_EQ(Complete<OpenVolume>(IoStatus::kFailed), "");
}

// --- Epochs. ---

TEST_F(TargetGreeting, ANewSourceRaisesTheEpochAndFencesTheOneBefore) {
  Online();
  EXPECT_EQ(Hello(),
            "1: ERROR fenced: a newer source takes up the group, 1: dropped, commit epoch 2");
  EXPECT_EQ(Run(), "WELCOME epoch 2 at 0/0/0 new");
}

TEST_F(TargetGreeting, AHelloThatWasHeldBackTakesNothingOver) {
  Boot();
  Connect(1);
  Connect(2);
  Send(Encode(HelloOf({"a"})));
  ASSERT_TRUE(Contains(Run(), "WELCOME epoch 1"));
  m_conn = 1;
  EXPECT_EQ(Send(Encode(HelloOf({"a"}))),
            "ERROR busy: a newer connection was let in meanwhile, dropped");
  EXPECT_EQ(Status().state.epoch, 1U);
  EXPECT_EQ(Refused(), 0U) << "not a damaged or forbidden input";
  m_conn = 2;
  EXPECT_TRUE(Contains(Joined({Dataset(1), Run()}), "ACK 1")) << "the source goes on";
}

TEST_F(TargetGreeting, AHelloThatWasHeldBackIsKnownWhenTheNewerConnectionIsGone) {
  Boot();
  Connect(1);
  Connect(2);
  Send(Encode(HelloOf({"a"})));
  Run();
  Gone();
  Run();
  m_conn = 1;
  EXPECT_EQ(Send(Encode(HelloOf({"a"}, 1))),
            "ERROR busy: a newer connection was let in meanwhile, dropped");
  EXPECT_TRUE(Contains(Joined({Hello({"a"}, 1), Run()}), "WELCOME epoch 1"))
      << "the source comes again in its epoch";
}

TEST_F(TargetGreeting, AnOlderConnectionMayStillVerify) {
  Boot();
  Connect(1);
  Connect(2);
  Send(Encode(HelloOf({"a"})));
  Run();
  m_conn = 1;
  struct Hello hello = HelloOf({"a"});
  hello.purpose = Purpose::kVerify;
  EXPECT_TRUE(Contains(Joined({Send(Encode(hello)), Run()}), "WELCOME"));
}

TEST_F(TargetGreeting, AnOlderEpochIsFenced) {
  Online();
  Hello();
  Run();
  EXPECT_EQ(Hello({"a"}, 1), "ERROR fenced: a newer source has the group since epoch 2, dropped");
  EXPECT_EQ(Refused(), 0U) << "not a damaged or forbidden input";
}

TEST_F(TargetGreeting, AnEpochThatTheTargetDoesNotKnowIsAFork) {
  Online();
  EXPECT_TRUE(Contains(Hello({"a"}, 5), "ERROR fork: the target knows epoch 1 only"));
}

TEST_F(TargetGreeting, ANewConnectionOfTheSameSourceReplacesTheOneBefore) {
  Online();
  EXPECT_EQ(Joined({Hello({"a"}, 1), Run()}), "1: dropped, WELCOME epoch 1 at 0/0/0 new");
  EXPECT_TRUE(Status().connected);
}

TEST_F(TargetGreeting, TheReplacedConnectionIsHeardNoMore) {
  Online();
  Hello({"a"}, 1);
  Run();
  m_conn = 1;
  EXPECT_EQ(Start(1), "");
  EXPECT_EQ(Gone(), "");
  EXPECT_TRUE(Status().connected);
}

TEST_F(TargetGreeting, WelcomeWaitsUntilWhatTheConnectionBeforeSentIsCommitted) {
  Online();
  Dataset(1);
  EXPECT_EQ(Hello({"a"}, 1), "1: dropped");
  EXPECT_EQ(RunBut<CommitState>(), "close a/1, name a/1, commit durable 1 a syncing");
  EXPECT_EQ(Complete<CommitState>(), "apply a/1, WELCOME epoch 1 at 1/0/0 syncing");
}

TEST_F(TargetGreeting, WelcomeWaitsUntilWritesThatNoJournalHoldsAreSynced) {
  Online();
  StartResync(1);
  RunBut<Note>();
  Block();
  Complete<WriteBlock>();
  EXPECT_EQ(Hello({"a"}, 1), "1: dropped, sync a")
      << "what a comparison finds equal must not be lost later";
  EXPECT_EQ(Complete<SyncVolumes>(), "WELCOME epoch 1 at 0/0/0 syncing");
}

TEST_F(TargetGreeting, ANewEpochMakesGoodVolumesHeld) {
  Online();
  Dataset(1, {"a"}, kStartSyncComplete);
  Run();
  ASSERT_EQ(StateOf("a"), "good@1");
  EXPECT_TRUE(Contains(Hello(), "commit epoch 2 a held"));
  EXPECT_EQ(Run(), "WELCOME epoch 2 at 1/1/1 held@1");
}

TEST_F(TargetGreeting, ANewEpochBeginsOnlyWhenEverythingIsFlushed) {
  Online();
  Dataset(1);
  RunBut<SyncVolumes>();
  EXPECT_FALSE(Contains(Hello(), "commit epoch"));
  EXPECT_EQ(Complete<SyncVolumes>(), "commit flushed 1");
  EXPECT_EQ(Complete<CommitState>(), "remove a/1, commit epoch 2");
}

TEST_F(TargetGreeting, ASecondSourceMayTakeUpTheGroupWhileTheEpochIsBeingCommitted) {
  Boot();
  Hello();
  EXPECT_EQ(Hello(), "1: ERROR fenced: a newer source takes up the group, 1: dropped");
  EXPECT_TRUE(Contains(Run(), "WELCOME epoch 1"));
}

// --- Volumes that are not the ones that the target knew. ---

TEST_F(TargetGreeting, AVolumeThatWasReplacedNeedsAResync) {
  Online();
  Dataset(1, {"a"}, kStartSyncComplete);
  Run();
  m_volumes.erase("a");
  Boot();
  EXPECT_TRUE(Contains(Joined({Hello({"a"}, 1), Run()}), "WELCOME epoch 1 at 1/1/1 needs resync"));
  ASSERT_FALSE(m_notes.empty());
  EXPECT_TRUE(Contains(m_notes.back(), "volume a is not the one that the target knew"));
}

TEST_F(TargetGreeting, AVolumeThatWasNewBeforeARestartIsNotTrustedToBeEmpty) {
  Online();
  ASSERT_EQ(StateOf("a"), "new@0");
  Boot();
  Hello({"a"}, 1);
  EXPECT_EQ(Run(), "commit a needs resync, WELCOME epoch 1 at 0/0/0 needs resync");
}

TEST_F(TargetGreeting, AVolumeThatIsMadeIsNewToEachSourceUntilOneBegins) {
  Online();
  EXPECT_TRUE(Contains(Joined({Hello({"a"}, 1), Run()}), "WELCOME epoch 1 at 0/0/0 new"));
}

TEST_F(TargetGreeting, AVolumeThatGrewIsToldItsNewSizeAndNeedsAResync) {
  Online();
  Run();
  m_volumes["a"] = 2 * kVolumeBytes;
  Boot();
  Hello({"a"}, 1);
  EXPECT_EQ(Run(),
            "commit a needs resync, ERROR volume: volume a has 131072 bytes at the target "
            "and 65536 at the source; make them the same, or name another target volume, "
            "dropped");
}

}  // namespace
}  // namespace penstock
