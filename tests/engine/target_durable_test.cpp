// SPDX-License-Identifier: Apache-2.0
// Goal: ACK, DONE and FLUSHED say what is true on disk, and nothing is done in another order.
// Method: the disk carries out one command at a time, and the test looks at what follows from each.
#include "tests/engine/target_rig.h"

namespace penstock {
namespace {

using TargetDurable = TargetRig;

// --- Durable. ---

TEST_F(TargetDurable, AJournaledDatasetGoesThroughItsStagesInOrder) {
  Online();
  EXPECT_EQ(Dataset(1), "create a/1, append a/1");
  EXPECT_EQ(Complete<JournalOpen>(), "");
  EXPECT_EQ(Complete<JournalAppend>(), "close a/1");
  EXPECT_EQ(Complete<JournalClose>(), "name a/1") << "directories before the commit";
  EXPECT_EQ(Complete<JournalSyncDirs>(), "commit durable 1 a syncing");
  EXPECT_EQ(Complete<CommitState>(), "ACK 1, apply a/1") << "applied only after the commit";
  EXPECT_EQ(Complete<ApplyFile>(), "DONE 1, sync a");
  EXPECT_EQ(Complete<SyncVolumes>(), "commit flushed 1");
  EXPECT_EQ(Complete<CommitState>(), "FLUSHED 1, remove a/1");
  EXPECT_EQ(Complete<JournalRemove>(), "");
  EXPECT_TRUE(m_files.empty());
}

TEST_F(TargetDurable, OtherEventsDoNotHurryAStage) {
  Online();
  Dataset(1);
  const Frame ping = Encode(FrameType::kPing, Ping{1});
  Complete<JournalOpen>();
  EXPECT_EQ(Send(ping), "PONG") << "a block is being written";
  EXPECT_EQ(Complete<JournalAppend>(), "close a/1");
  EXPECT_EQ(Send(ping), "PONG");
  EXPECT_EQ(Complete<JournalClose>(), "name a/1");
  EXPECT_EQ(Send(ping), "PONG") << "the directories are being synced";
  EXPECT_EQ(Complete<JournalSyncDirs>(), "commit durable 1 a syncing");
  EXPECT_EQ(Send(ping), "PONG");
}

TEST_F(TargetDurable, FilesAreClosedOnlyAfterTheirEndCame) {
  Online();
  Start(1);
  Block();
  EXPECT_EQ(Run(), "");
  EXPECT_EQ(End(), "close a/1");
}

TEST_F(TargetDurable, ADatasetOfSeveralVolumesIsOneFileEach) {
  Online({"a", "b"});
  EXPECT_EQ(Dataset(1, {"a", "b"}), "create a/1, append a/1, create b/1, append b/1");
  EXPECT_EQ(RunBut<JournalClose>(), "close a/1, close b/1");
  EXPECT_EQ(Complete<JournalClose>(), "");
  EXPECT_EQ(Complete<JournalClose>(), "name a/1 b/1");
  EXPECT_EQ(Complete<JournalSyncDirs>(), "commit durable 1 a syncing b syncing");
  EXPECT_EQ(Complete<CommitState>(), "ACK 1, apply a/1, apply b/1");
  EXPECT_EQ(Complete<ApplyFile>(), "");
  EXPECT_EQ(Complete<ApplyFile>(), "DONE 1, sync a b");
}

TEST_F(TargetDurable, AVolumeWithoutBlocksHasNoFile) {
  Online({"a", "b"});
  Start(1, {"a", "b"});
  EXPECT_EQ(Block(1), "create b/1, append b/1");
  EXPECT_EQ(End(), "");
  EXPECT_TRUE(Contains(Run(), "commit durable 1 b syncing"));
}

TEST_F(TargetDurable, AnEmptyDatasetNeedsNoFileButACommit) {
  Online();
  EXPECT_EQ(Joined({Start(1, {}), End()}), "commit durable 1");
  EXPECT_EQ(Complete<CommitState>(), "ACK 1, DONE 1, commit flushed 1");
  EXPECT_EQ(Complete<CommitState>(), "FLUSHED 1");
}

TEST_F(TargetDurable, ReportsCarryTheChainValueOfTheirDataset) {
  Online();
  Dataset(1);
  RunBut<SyncVolumes>();
  Dataset(2);
  Run();
  std::string told;
  for (const auto& [type, report] : m_reports) {
    EXPECT_EQ(report.chain, m_chains.at(report.n)) << Name(type);
    told += std::string(Name(type)) + Number(report.n) + " ";
  }
  EXPECT_EQ(told, "ACK1 DONE1 FLUSHED1 ACK2 DONE2 FLUSHED2 ");
}

// --- Several at once. ---

TEST_F(TargetDurable, DatasetsThatBecomeReadyDuringACommitShareTheNextAndOneAck) {
  Online();
  Dataset(1);
  EXPECT_TRUE(Contains(RunBut<CommitState>(), "commit durable 1"));
  Dataset(2);
  Dataset(3);
  EXPECT_FALSE(Contains(RunBut<CommitState>(), "commit"));
  EXPECT_EQ(Complete<CommitState>(), "ACK 1, apply a/1, commit durable 3");
  const std::string happened = RunBut<ApplyFile>();
  EXPECT_EQ(CountOf(happened, "ACK"), 1U);
  EXPECT_TRUE(Contains(happened, "ACK 3"));
}

TEST_F(TargetDurable, ADatasetBecomesDurableOnlyAfterThoseBefore) {
  Online();
  Dataset(1);
  RunBut<JournalClose>();
  EXPECT_EQ(Joined({Start(2), End()}), "") << "an empty one is ready at once";
  EXPECT_EQ(Complete<JournalClose>(), "name a/1");
  EXPECT_EQ(Complete<JournalSyncDirs>(), "commit durable 2 a syncing");
}

TEST_F(TargetDurable, DatasetsAreAppliedOneAfterTheOther) {
  Online();
  Dataset(1);
  Dataset(2);
  EXPECT_FALSE(Contains(RunBut<ApplyFile>(), "apply a/2"));
  EXPECT_EQ(Pending<ApplyFile>(), 1U);
  EXPECT_TRUE(Contains(Complete<ApplyFile>(), "DONE 1, apply a/2"));
}

TEST_F(TargetDurable, DatasetsThatAreAppliedDuringASyncShareTheNext) {
  Online();
  Dataset(1);
  RunBut<SyncVolumes>();
  ASSERT_EQ(Pending<SyncVolumes>(), 1U);
  Dataset(2);
  Dataset(3);
  EXPECT_FALSE(Contains(RunBut<SyncVolumes>(), "sync"));
  EXPECT_EQ(Complete<SyncVolumes>(), "sync a, commit flushed 1")
      << "what was written since is not in this one";
  EXPECT_EQ(RunBut<SyncVolumes>(), "FLUSHED 1, remove a/1");
  EXPECT_EQ(Complete<SyncVolumes>(), "commit flushed 3");
  EXPECT_EQ(Complete<CommitState>(), "FLUSHED 3, remove a/2, remove a/3");
}

TEST_F(TargetDurable, OnlyVolumesThatWereWrittenToAreSynced) {
  Online({"a", "b"});
  EXPECT_TRUE(Contains(Joined({Dataset(1, {"b"}), RunBut<SyncVolumes>()}), "sync b"));
}

TEST_F(TargetDurable, AFileThatCannotBeRemovedIsNotedOnly) {
  Online();
  Dataset(1);
  RunBut<JournalRemove>();
  EXPECT_EQ(Complete<JournalRemove>(IoStatus::kFailed, "no such device"), "");
  EXPECT_TRUE(Contains(m_notes.back(), "can't remove a flushed journal file: no such device"));
  EXPECT_FALSE(m_engine->Halted());
}

// --- Who is told. ---

TEST_F(TargetDurable, NobodyIsToldOfWhatTheirLostConnectionSent) {
  Online();
  Dataset(1);
  Gone();
  const std::string happened = Run();
  EXPECT_TRUE(Contains(happened, "commit durable 1"));
  EXPECT_FALSE(Contains(happened, "ACK"));
}

TEST_F(TargetDurable, AConnectionForVerifyingGetsNoReports) {
  Online();
  HelloToVerify();
  m_conn = 1;
  Dataset(1);
  EXPECT_FALSE(Contains(Run(), "2: "));
}

// --- What the commit says of the volumes. ---

TEST_F(TargetDurable, TheMarkSyncCompleteMakesSyncingVolumesGoodOnceItIsFlushed) {
  Online();
  Dataset(1);
  Run();
  EXPECT_EQ(StateOf("a"), "syncing@0");
  Dataset(2, {"a"}, kStartSyncComplete);
  RunBut<SyncVolumes>();
  EXPECT_EQ(StateOf("a"), "syncing@0") << "applied is not enough";
  EXPECT_EQ(Complete<SyncVolumes>(), "commit flushed 2 a good");
  Run();
  EXPECT_EQ(StateOf("a"), "good@2");
}

TEST_F(TargetDurable, AnEmptyDatasetMayCarryTheMark) {
  Online();
  Dataset(1);
  Run();
  Start(2, {}, kStartSyncComplete);
  End();
  EXPECT_TRUE(Contains(Run(), "commit flushed 2 a good"));
}

TEST_F(TargetDurable, AVolumeThatNobodyWroteToStaysNew) {
  Online({"a", "b"});
  Dataset(1, {"a"}, kStartSyncComplete);
  Run();
  EXPECT_EQ(StateOf("b"), "new@0");
}

TEST_F(TargetDurable, WritesTurnAHeldVolumeIntoASyncingOne) {
  Online();
  Dataset(1, {"a"}, kStartSyncComplete);
  Run();
  Hello();
  Run();
  ASSERT_EQ(StateOf("a"), "held@1");
  Dataset(2);
  EXPECT_TRUE(Contains(Run(), "commit durable 2 a syncing"));
  EXPECT_EQ(StateOf("a"), "syncing@1") << "what it was good at last";
}

TEST_F(TargetDurable, AGoodVolumeStaysGoodThroughNormalDatasets) {
  Online();
  Dataset(1, {"a"}, kStartSyncComplete);
  Run();
  Dataset(2);
  EXPECT_FALSE(Contains(Run(), "syncing"));
  EXPECT_EQ(StateOf("a"), "good@2");
}

TEST_F(TargetDurable, TheMarkMakesNoGoodVolumeOfOneThatNeedsAResync) {
  m_volumes["a"] = kVolumeBytes;
  Online();
  ASSERT_EQ(StateOf("a"), "needs resync@0");
  Dataset(1, {"a"}, kStartSyncComplete);
  Run();
  EXPECT_EQ(StateOf("a"), "needs resync@0");
}

TEST_F(TargetDurable, TheStateHoldsTheTimestampOfTheFlushedDataset) {
  Online();
  Dataset(1);
  Dataset(2);
  Run();
  EXPECT_EQ(m_states.at(0).flushedAtMs, 1002U);
}

TEST_F(TargetDurable, DatasetsAndBytesAreCounted) {
  Online();
  Dataset(1);
  Resync(2);
  Run();
  const Counters& counters = m_states.at(0).counters;
  EXPECT_EQ(counters.datasets, 2U);
  EXPECT_EQ(counters.rawBytes, 8192U);
  EXPECT_EQ(counters.receivedBytes, 2 * (4096U + 12 + 20));
  EXPECT_EQ(counters.connections, 1U);
}

}  // namespace
}  // namespace penstock
