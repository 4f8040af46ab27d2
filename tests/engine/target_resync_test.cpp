// SPDX-License-Identifier: Apache-2.0
// Goal: what a resync writes to a volume directly comes after everything before it, never while the
// committed state says that the volume is good, and is on disk before it is acknowledged.
// Method: resyncs among normal datasets, with the disk held at one command or another.
#include "tests/engine/target_rig.h"

namespace penstock {
namespace {

class TargetResync : public TargetRig {
 protected:
  // The volume is good at 1.
  void Good(const std::vector<std::string>& names = {"a"}) {
    Online(names);
    Dataset(1, names, kStartSyncComplete);
    Run();
    for (const std::string& name : names) ASSERT_EQ(StateOf(name), "good@1");
  }
};

TEST_F(TargetResync, GoesThroughItsStagesInOrder) {
  Good();
  EXPECT_EQ(Resync(2), "commit a syncing") << "the state says so first";
  EXPECT_EQ(Complete<CommitState>(), "write a");
  EXPECT_EQ(Complete<WriteBlock>(), "sync a");
  EXPECT_EQ(Complete<SyncVolumes>(), "commit durable 2 flushed 2");
  EXPECT_EQ(Complete<CommitState>(), "ACK 2, DONE 2, FLUSHED 2");
  EXPECT_EQ(StateOf("a"), "syncing@1") << "no point of the source, and good at 1 before";
}

TEST_F(TargetResync, MakesNoFile) {
  Good();
  Resync(2);
  EXPECT_FALSE(Contains(Run(), "create"));
}

TEST_F(TargetResync, OneThatFoundNothingDifferentIsAcknowledgedAllTheSame) {
  Good();
  EXPECT_EQ(Joined({StartResync(2), End()}), "commit a syncing");
  EXPECT_EQ(Run(), "commit durable 2 flushed 2, ACK 2, DONE 2, FLUSHED 2");
}

TEST_F(TargetResync, WritesWaitUntilTheDatasetsBeforeAreApplied) {
  Online();
  Dataset(1);
  Resync(2, "a", 0);
  EXPECT_FALSE(Contains(RunBut<ApplyFile>(), "write a"));
  EXPECT_TRUE(Contains(Complete<ApplyFile>(), "write a"));
}

TEST_F(TargetResync, OneThatBeginsWaitsUntilEverythingBeforeIsFlushed) {
  Online();
  Dataset(1);
  Resync(2);
  EXPECT_FALSE(Contains(RunBut<SyncVolumes>(), "write a")) << "applied is not enough";
  EXPECT_EQ(Complete<SyncVolumes>(), "commit flushed 1");
  EXPECT_EQ(Complete<CommitState>(), "FLUSHED 1, remove a/1, write a");
}

TEST_F(TargetResync, TheEndOfAnEarlierOneIsNotTakenForTheEndOfThisOne) {
  Online();
  Dataset(1);
  Run();
  Dataset(2, {"a"}, kStartSyncComplete);
  Resync(3);
  Run();
  EXPECT_EQ(m_states.at(0).durable, 3U);
  EXPECT_EQ(StateOf("a"), "syncing@2");
}

TEST_F(TargetResync, OneThatBeginsHoldsBackThoseBehindIt) {
  Good({"a", "b"});
  Resync(2, "a");
  RunBut<CommitState>();
  Resync(3, "b");
  Dataset(4);
  EXPECT_FALSE(Contains(RunBut<CommitState>(), "write"));
  EXPECT_FALSE(Contains(RunBut<SyncVolumes>(), "write b"));
  EXPECT_TRUE(Contains(Run(), "write b"));
  EXPECT_EQ(m_states.at(0).durable, 4U);
}

// They were at one point together, and would not be when one of them moves on.
TEST_F(TargetResync, OneThatBeginsTakesAllGoodVolumesOfItsSourceFromTheirPoint) {
  Good({"a", "b"});
  EXPECT_EQ(Resync(2, "a"), "commit a syncing b syncing") << "the state says so first";
  EXPECT_EQ(Complete<CommitState>(), "write a");
  Run();
  EXPECT_EQ(StateOf("a"), "syncing@1");
  EXPECT_EQ(StateOf("b"), "syncing@1");
  Start(3, {}, kStartSyncComplete);
  End();
  Run();
  EXPECT_EQ(StateOf("a"), "good@3");
  EXPECT_EQ(StateOf("b"), "good@3");
}

TEST_F(TargetResync, OneThatBeginsLeavesVolumesThatItsSourceDoesNotName) {
  Good({"a", "b"});
  Hello({"a"}, 1);
  Run();
  EXPECT_EQ(Resync(2, "a"), "commit a syncing");
  Run();
  EXPECT_EQ(StateOf("b"), "good@2");
}

TEST_F(TargetResync, OneThatBeginsWaitsForTheOtherVolumesAlsoWhenItsOwnIsSyncing) {
  m_volumes["a"] = kVolumeBytes;
  Online({"a", "b"});
  Resync(1, "a");
  Run();
  Start(2, {"b"});
  End();
  Run();
  GroupState& state = m_states.at(0);
  ASSERT_EQ(StateOf("a"), "syncing@0");
  for (VolumeRecord& record : state.volumes) {
    if (record.name == "b") record = {"b", kVolumeBytes, VolumeState::kGood, 2};
  }
  Boot();
  Run();
  Hello({"a", "b"}, 1);
  Run();
  EXPECT_EQ(Resync(3, "a"), "commit b syncing");
  EXPECT_EQ(Complete<CommitState>(), "write a");
}

TEST_F(TargetResync, OneThatDoesNotBeginTakesNoOtherVolume) {
  Good({"a", "b"});
  EXPECT_EQ(Resync(2, "a", 0), "commit a syncing");
  Run();
  EXPECT_EQ(StateOf("b"), "good@2");
}

TEST_F(TargetResync, ThoseThatGoOnShareASyncACommitAndAnAck) {
  Good();
  Resync(2);
  RunBut<SyncVolumes>();
  Resync(3, "a", 0);
  Resync(4, "a", 0);
  RunBut<SyncVolumes>();
  EXPECT_TRUE(Contains(Complete<SyncVolumes>(), "sync a, commit durable 2 flushed 2"));
  EXPECT_EQ(Run(),
            "ACK 2, DONE 2, FLUSHED 2, commit durable 4 flushed 4, ACK 4, DONE 3, DONE 4, "
            "FLUSHED 4");
}

TEST_F(TargetResync, AJournaledOneBehindItIsCommittedWithItAndFlushedLater) {
  Good();
  Resync(2);
  RunBut<SyncVolumes>();
  Dataset(3);
  RunBut<SyncVolumes>();
  EXPECT_EQ(Complete<SyncVolumes>(), "commit durable 3 flushed 2");
  EXPECT_EQ(Complete<CommitState>(), "ACK 3, DONE 2, FLUSHED 2, apply a/3");
}

TEST_F(TargetResync, WaitsForASyncThatIsUnderWay) {
  Online();
  Dataset(1);
  RunBut<SyncVolumes>();
  Resync(2, "a", 0);
  RunBut<SyncVolumes>();
  ASSERT_EQ(Pending<SyncVolumes>(), 1U);
  const std::string first = Complete<SyncVolumes>();
  EXPECT_TRUE(Contains(first, "sync a")) << "that one began before it was written";
  EXPECT_FALSE(Contains(first, "durable 2"));
}

TEST_F(TargetResync, AVolumeThatNeedsAResyncIsSyncingFromItsBeginning) {
  m_volumes["a"] = kVolumeBytes;
  Online();
  EXPECT_EQ(Resync(1), "commit a syncing");
  Run();
  Start(2, {}, kStartSyncComplete);
  End();
  Run();
  EXPECT_EQ(StateOf("a"), "good@2");
}

TEST_F(TargetResync, OneThatDoesNotBeginLeavesAVolumeInNeedOfAResync) {
  m_volumes["a"] = kVolumeBytes;
  Online();
  EXPECT_EQ(Resync(1, "a", 0), "write a");
  Run();
  Start(2, {}, kStartSyncComplete);
  End();
  Run();
  EXPECT_EQ(StateOf("a"), "needs resync@0");
}

TEST_F(TargetResync, OneThatDoesNotBeginMakesAHeldVolumeSyncing) {
  Good();
  Hello();
  Run();
  ASSERT_EQ(StateOf("a"), "held@1");
  EXPECT_EQ(Resync(2, "a", 0), "commit a syncing");
  Run();
  EXPECT_EQ(StateOf("a"), "syncing@1");
}

TEST_F(TargetResync, BlocksThatMustWaitAreDroppedWithTheirConnection) {
  Good();
  StartResync(2);
  Block();
  Gone();
  EXPECT_FALSE(Contains(Run(), "write"));
  EXPECT_EQ(m_states.at(0).durable, 1U);
}

TEST_F(TargetResync, OneThatIsGivenUpDuringItsSyncIsNotCommitted) {
  Good();
  Resync(2);
  RunBut<SyncVolumes>();
  ASSERT_EQ(Pending<SyncVolumes>(), 1U);
  Resync(3, "a", 0);
  Complete<WriteBlock>(IoStatus::kDamaged, "its hash differs");
  Run();
  EXPECT_EQ(m_states.at(0).durable, 2U) << "what came before the damaged one counts";
}

}  // namespace
}  // namespace penstock
