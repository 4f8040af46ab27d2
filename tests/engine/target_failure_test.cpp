// SPDX-License-Identifier: Apache-2.0
// Goal: whatever the disk refuses, nothing is acknowledged that is not on it; what may be tried
// again is tried again, what must not be stops the target.
// Method: one command fails in one way, everything else succeeds.
#include "tests/engine/target_rig.h"

namespace penstock {
namespace {

class TargetFailure : public TargetRig {
 protected:
  // A normal dataset is on its way to the volume, with this command pending.
  template <class Command>
  void DatasetUpTo() {
    Online();
    Dataset(1);
    RunBut<Command>();
    ASSERT_EQ(Pending<Command>(), 1U);
    m_reports.clear();
  }
  // Nothing is reported any more, whatever else is answered or comes.
  void ExpectHalted(const std::string& happened) {
    EXPECT_EQ(happened, "HALT");
    EXPECT_TRUE(m_engine->Halted());
    Dataset(2);
    Send(Encode(QueryOf()));
    Run();
    Wait(60'000);
    EXPECT_TRUE(m_reports.empty());
  }
};

// --- Failures that stop the target. ---

TEST_F(TargetFailure, AFailedAppendHalts) {
  DatasetUpTo<JournalAppend>();
  ExpectHalted(Complete<JournalAppend>(IoStatus::kFailed));
}

TEST_F(TargetFailure, AFailedCloseHaltsAndIsNeverTriedAgain) {
  DatasetUpTo<JournalClose>();
  ExpectHalted(Complete<JournalClose>(IoStatus::kFailed));
  EXPECT_EQ(m_states.at(0).durable, 0U);
}

TEST_F(TargetFailure, AFailedSyncOfTheDirectoriesHalts) {
  DatasetUpTo<JournalSyncDirs>();
  ExpectHalted(Complete<JournalSyncDirs>(IoStatus::kFailed));
}

TEST_F(TargetFailure, AFailedCommitHalts) {
  DatasetUpTo<CommitState>();
  ExpectHalted(Complete<CommitState>(IoStatus::kFailed));
}

TEST_F(TargetFailure, AFailedApplyHalts) {
  DatasetUpTo<ApplyFile>();
  ExpectHalted(Complete<ApplyFile>(IoStatus::kFailed));
}

TEST_F(TargetFailure, AFailedSyncOfTheVolumesHalts) {
  DatasetUpTo<SyncVolumes>();
  ExpectHalted(Complete<SyncVolumes>(IoStatus::kFailed));
  EXPECT_EQ(m_states.at(0).flushed, 0U);
}

TEST_F(TargetFailure, ASyncWithoutSpaceIsAFailedSync) {
  DatasetUpTo<SyncVolumes>();
  ExpectHalted(Complete<SyncVolumes>(IoStatus::kNoSpace));
}

TEST_F(TargetFailure, AFailedDirectWriteHalts) {
  Online();
  Resync(1);
  RunBut<WriteBlock>();
  m_reports.clear();
  ExpectHalted(Complete<WriteBlock>(IoStatus::kFailed));
}

TEST_F(TargetFailure, AFileThatCannotBeGivenUpHalts) {
  Online();
  Start(1);
  Block();
  Gone();
  RunBut<JournalRemove>();
  EXPECT_EQ(Complete<JournalRemove>(IoStatus::kFailed), "HALT");
}

TEST_F(TargetFailure, TheOrderToHaltSaysWhichGroupAndWhy) {
  DatasetUpTo<JournalClose>();
  const Ticket ticket = First<JournalClose>().ticket;
  m_engine->Completed(IoDone{ticket, IoStatus::kFailed, "fsync: EIO", 0}, m_now);
  const auto commands = m_engine->TakeCommands();
  ASSERT_EQ(commands.size(), 1U);
  EXPECT_EQ(std::get<Halt>(commands[0]).reason,
            "group g: dataset 1 could not be written: fsync: EIO");
}

TEST_F(TargetFailure, AnAnswerToNoQuestionIsIgnored) {
  Online();
  m_engine->Completed(IoDone{999'999, IoStatus::kFailed, "", 0}, m_now);
  m_engine->Completed(IoDone{1U << 16U, IoStatus::kFailed, "", 0}, m_now);
  m_engine->Completed(VolumeOpened{1U << 16U, "gone", 0, false}, m_now);
  m_engine->Completed(VolumeOpened{999'999, "gone", 0, false}, m_now);
  m_engine->Completed(WindowCompared{1U << 16U, IoStatus::kFailed, "", {}}, m_now);
  m_engine->Completed(WindowCompared{999'999, IoStatus::kFailed, "", {}}, m_now);
  EXPECT_EQ(Out(), "");
}

// --- No space. ---

TEST_F(TargetFailure, AJournalWithoutSpaceGivesTheDatasetUpAndSaysSo) {
  DatasetUpTo<JournalAppend>();
  EXPECT_EQ(Complete<JournalAppend>(IoStatus::kNoSpace, "disk full"),
            "ERROR no space: no space for dataset 1 (4128 bytes): disk full, dropped, remove a/1");
  EXPECT_EQ(Status().trouble, "no space for dataset 1 (4128 bytes): disk full");
  EXPECT_EQ(Refused(), 0U) << "the source did nothing wrong";
  EXPECT_EQ(Run(), "");
  EXPECT_TRUE(m_files.empty());
}

TEST_F(TargetFailure, TheDatasetMayComeAgainWhenThereIsRoom) {
  DatasetUpTo<JournalClose>();
  Complete<JournalClose>(IoStatus::kNoSpace);
  Hello({"a"}, 1);
  Run();
  Dataset(1);
  EXPECT_TRUE(Contains(Run(), "ACK 1"));
  EXPECT_EQ(Status().trouble, "");
}

TEST_F(TargetFailure, NoSpaceGivesUpTheDatasetsBehindToo) {
  Online();
  Dataset(1);
  Dataset(2);
  RunBut<JournalAppend>();
  Complete<JournalAppend>(IoStatus::kNoSpace);
  EXPECT_EQ(Complete<JournalAppend>(IoStatus::kNoSpace), "remove a/2") << "told once";
  Run();
  EXPECT_EQ(m_states.at(0).durable, 0U);
  EXPECT_TRUE(m_files.empty());
}

TEST_F(TargetFailure, NoSpaceForASourceThatLeftIsNotedOnly) {
  Online();
  Dataset(1);
  Gone();
  RunBut<JournalAppend>();
  EXPECT_EQ(Complete<JournalAppend>(IoStatus::kNoSpace, "disk full"), "remove a/1");
  EXPECT_TRUE(Contains(m_notes.back(), "no space for dataset 1"));
}

TEST_F(TargetFailure, ApplyingIsTriedAgainWhenThereMayBeSpace) {
  DatasetUpTo<ApplyFile>();
  EXPECT_EQ(Complete<ApplyFile>(IoStatus::kNoSpace, "volume full"), "");
  EXPECT_EQ(Status().trouble, "no space to apply dataset 1: volume full");
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + m_config.retryAfter);
  EXPECT_EQ(Wait(m_config.retryAfter - 1), "");
  EXPECT_EQ(Wait(1), "apply a/1");
  EXPECT_EQ(Complete<ApplyFile>(), "DONE 1, sync a");
  EXPECT_EQ(Status().trouble, "");
}

TEST_F(TargetFailure, DatasetsGoOnBecomingDurableWhileOneCannotBeApplied) {
  DatasetUpTo<ApplyFile>();
  Complete<ApplyFile>(IoStatus::kNoSpace);
  Dataset(2);
  const std::string happened = Run();
  EXPECT_TRUE(Contains(happened, "ACK 2"));
  EXPECT_FALSE(Contains(happened, "apply"));
  EXPECT_FALSE(Contains(happened, "FLUSHED"));
}

TEST_F(TargetFailure, OneVolumeWithoutSpaceKeepsTheWholeDatasetUnapplied) {
  Online({"a", "b"});
  Dataset(1, {"a", "b"});
  RunBut<ApplyFile>();
  EXPECT_EQ(Complete<ApplyFile>(IoStatus::kNoSpace), "");
  EXPECT_FALSE(Contains(Complete<ApplyFile>(), "DONE"));
  EXPECT_TRUE(Contains(Wait(m_config.retryAfter), "apply a/1, apply b/1"));
}

// --- Damage. ---

TEST_F(TargetFailure, ADamagedBlockEndsTheConnectionAndItsDataset) {
  DatasetUpTo<JournalAppend>();
  EXPECT_EQ(Complete<JournalAppend>(IoStatus::kDamaged, "its hash differs"),
            "ERROR damaged: dataset 1: its hash differs, dropped, remove a/1");
  EXPECT_EQ(Refused(), 1U);
}

TEST_F(TargetFailure, ASecondDamagedBlockOfTheSameDatasetIsNoNews) {
  Online();
  Start(1);
  Block();
  Block();
  RunBut<JournalAppend>();
  Complete<JournalAppend>(IoStatus::kDamaged);
  EXPECT_EQ(Complete<JournalAppend>(IoStatus::kDamaged), "remove a/1");
  EXPECT_EQ(Refused(), 1U);
}

TEST_F(TargetFailure, DamageFromASourceThatLeftIsCountedAllTheSame) {
  Online();
  Dataset(1);
  Gone();
  RunBut<JournalAppend>();
  EXPECT_EQ(Complete<JournalAppend>(IoStatus::kDamaged), "remove a/1");
  EXPECT_EQ(Refused(), 1U);
}

TEST_F(TargetFailure, ADamagedJournalFileIsPutAsideAndTheSourceTold) {
  DatasetUpTo<ApplyFile>();
  EXPECT_EQ(Complete<ApplyFile>(IoStatus::kDamaged, "its trailer is missing"),
            "put aside a/1, ERROR busy: the group needs a resync, dropped, sync a, commit a needs "
            "resync");
  EXPECT_TRUE(Contains(m_notes.back(), "journal file of dataset 1, volume a, is damaged"));
  EXPECT_FALSE(Contains(Run(), "remove a/1")) << "what was put aside stays";
  EXPECT_EQ(Joined({Hello({"a"}, 1), Run()}), "WELCOME epoch 1 at 1/1/1 needs resync");
  EXPECT_EQ(m_states.at(0).counters.quarantined, 1U);
}

TEST_F(TargetFailure, ADamagedFileMakesNoVolumeOfItsGroupAPointOfTheSource) {
  Online({"a", "b"});
  Dataset(1, {"a", "b"}, kStartSyncComplete);
  Run();
  ASSERT_EQ(StateOf("b"), "good@1");
  Dataset(2, {"a", "b"});
  RunBut<ApplyFile>();
  Complete<ApplyFile>(IoStatus::kDamaged);
  Run();
  EXPECT_EQ(StateOf("a"), "needs resync@1");
  EXPECT_EQ(StateOf("b"), "needs resync@1");
  EXPECT_TRUE(m_files.empty()) << "the other file is not needed any more";
}

TEST_F(TargetFailure, TheMarkDoesNotOutdoTheDamage) {
  Online();
  Dataset(1);
  Dataset(2, {"a"}, kStartSyncComplete);
  RunBut<ApplyFile>();
  Complete<ApplyFile>(IoStatus::kDamaged);
  Run();
  EXPECT_EQ(m_states.at(0).flushed, 2U);
  EXPECT_EQ(StateOf("a"), "needs resync@0");
}

}  // namespace
}  // namespace penstock
