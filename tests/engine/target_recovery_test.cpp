// SPDX-License-Identifier: Apache-2.0
// Goal: after a start the volumes hold every durable dataset in order, the journal holds nothing
// else, and nobody is let in before.
// Method: a target is stopped with the disk in some state, and another started on that disk.
#include "tests/engine/target_rig.h"

namespace penstock {
namespace {

class TargetRecovery : public TargetRig {
 protected:
  // Two datasets are durable and not applied.
  void TwoDurable() {
    Online();
    Dataset(1);
    Dataset(2, {"a"}, kStartSyncComplete);
    RunBut<ApplyFile>();
    ASSERT_EQ(m_states.at(0).durable, 2U);
  }
};

TEST_F(TargetRecovery, WithoutAStateThereIsNothingToRecover) {
  EXPECT_EQ(Boot(), "");
  EXPECT_TRUE(m_engine->Recovered());
  EXPECT_FALSE(m_engine->Halted());
  EXPECT_EQ(m_engine->NextDeadline(), ~Millis{0});
}

TEST_F(TargetRecovery, AppliesDurableDatasetsInOrderAndOnlyThenSaysSo) {
  TwoDurable();
  EXPECT_EQ(Boot(), "open a");
  EXPECT_EQ(Complete<OpenVolume>(), "apply a/1");
  EXPECT_EQ(Complete<ApplyFile>(), "apply a/2, sync a");
  EXPECT_EQ(Complete<ApplyFile>(), "");
  EXPECT_EQ(Complete<SyncVolumes>(), "sync a, commit flushed 1");
  EXPECT_FALSE(m_engine->Recovered());
  EXPECT_TRUE(Status().recovering);
  EXPECT_TRUE(Contains(Run(), "commit flushed 2 a good"));
  EXPECT_TRUE(m_engine->Recovered());
  EXPECT_TRUE(m_files.empty());
}

TEST_F(TargetRecovery, FilesThatWereNeverCommittedAreRemovedFirst) {
  Online();
  Dataset(1);
  RunBut<CommitState>();
  ASSERT_EQ(m_files.size(), 1U);
  EXPECT_EQ(Boot(), "remove a/1");
  EXPECT_FALSE(m_engine->Recovered());
  EXPECT_EQ(Complete<JournalRemove>(), "");
  EXPECT_TRUE(m_engine->Recovered());
}

TEST_F(TargetRecovery, FlushedFilesThatAreStillThereAreRemoved) {
  Online();
  Dataset(1);
  RunBut<JournalRemove>();
  EXPECT_EQ(Boot(), "remove a/1");
}

TEST_F(TargetRecovery, AFileOfAVolumeThatTheDatasetHasNotIsRemoved) {
  TwoDurable();
  m_files.insert({2, "b"});
  EXPECT_EQ(Boot(), "remove b/2, open a");
}

TEST_F(TargetRecovery, FilesOfOtherGroupsAreNotThisGroupsConcern) {
  Online();
  const std::vector<JournalFile> found = {{"h", "a", 1}};
  m_engine = std::make_unique<TargetEngine>(m_config, m_states, found);
  m_engine->Start(m_now);
  EXPECT_EQ(Out(), "");
}

TEST_F(TargetRecovery, AFileThatCannotBeRemovedHalts) {
  Online();
  Dataset(1);
  RunBut<CommitState>();
  Boot();
  EXPECT_EQ(Complete<JournalRemove>(IoStatus::kFailed), "HALT");
  EXPECT_FALSE(m_engine->Recovered());
}

TEST_F(TargetRecovery, NobodyIsLetInBefore) {
  TwoDurable();
  Boot();
  EXPECT_EQ(Hello({"a"}, 1), "ERROR busy: the group is being recovered, dropped");
  Run();
  EXPECT_TRUE(Contains(Joined({Hello({"a"}, 1), Run()}), "WELCOME epoch 1 at 2/2/2 good@2"));
}

TEST_F(TargetRecovery, EmptyDatasetsAreAppliedToo) {
  Online();
  Start(1, {});
  End();
  RunBut<CommitState>();
  Complete<CommitState>();
  EXPECT_EQ(Boot(), "commit flushed 1");
  Run();
  EXPECT_TRUE(m_engine->Recovered());
}

TEST_F(TargetRecovery, AVolumeThatCannotBeOpenedIsTriedAgain) {
  TwoDurable();
  Boot();
  EXPECT_EQ(Complete<OpenVolume>(IoStatus::kFailed, "no such device"), "");
  EXPECT_EQ(Status().trouble, "no such device");
  EXPECT_EQ(Wait(m_config.retryAfter - 1), "");
  EXPECT_EQ(Wait(1), "open a");
  Run();
  EXPECT_TRUE(m_engine->Recovered());
  EXPECT_EQ(Status().trouble, "");
}

TEST_F(TargetRecovery, ADamagedFileIsPutAsideAndTheRestGoesOn) {
  TwoDurable();
  Boot();
  Complete<OpenVolume>();
  EXPECT_EQ(Complete<ApplyFile>(IoStatus::kDamaged),
            "put aside a/1, apply a/2, sync a, commit a needs resync");
  Run();
  EXPECT_TRUE(m_engine->Recovered());
  EXPECT_EQ(StateOf("a"), "needs resync@0") << "though the mark came behind it";
}

TEST_F(TargetRecovery, AVolumeThatWasReplacedIsAppliedToAndNeedsAResync) {
  TwoDurable();
  m_volumes["a"] = 2 * kVolumeBytes;
  Boot();
  Run();
  EXPECT_TRUE(m_engine->Recovered());
  EXPECT_EQ(StateOf("a"), "needs resync@0");
}

TEST_F(TargetRecovery, TheNumbersGoOnWhereTheStateIs) {
  TwoDurable();
  Boot();
  Run();
  Hello({"a"}, 1);
  Run();
  Dataset(3);
  EXPECT_TRUE(Contains(Run(), "ACK 3"));
}

TEST_F(TargetRecovery, EveryGroupIsRecovered) {
  TwoDurable();
  GroupState other;
  other.group = "h";
  other.durable = 1;
  other.journal = {{.n = 1, .flags = 0, .chain = {}, .volumes = {"b"}, .bytes = 1}};
  other.volumes = {{"b", kVolumeBytes, VolumeState::kSyncing, 0}};
  m_states.push_back(other);
  m_volumes["b"] = kVolumeBytes;
  EXPECT_EQ(Boot(), "open a, open b");
  Complete<OpenVolume>();
  Complete<ApplyFile>();
  EXPECT_FALSE(m_engine->Recovered());
  Run();
  EXPECT_TRUE(m_engine->Recovered());
}

}  // namespace
}  // namespace penstock
