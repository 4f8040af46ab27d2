// SPDX-License-Identifier: Apache-2.0
// Goal: what the spool does not take is given up as a whole, and nothing old is ever sent after
// something new; at the end everything is at the target or in the spool.
// Method: the spool is the test, which keeps what was written.
#include "tests/engine/source_spool_rig.h"

namespace penstock {
namespace {

// --- Giving up. ---

TEST_F(SourceSpool, AFullSpoolGivesTheBacklogUp) {
  m_config.spoolBytes = 10'000;
  AloneWith(4);
  EXPECT_EQ(Asked(), "spool 1");
  const auto command = TakeJob<SpoolWrite>();
  m_engine->Completed(SpoolDone{command.ticket, IoStatus::kOk, "", 8'500, nullptr}, m_now);
  EXPECT_EQ(Work(), "");
  EXPECT_EQ(Asked(), "drop");
  EXPECT_EQ(Status().lastOverflow, "its spool is full");
  EXPECT_EQ(Status().overflows, 1U);
  EXPECT_EQ(Status().spooledDatasets, 0U);
  EXPECT_EQ(Status().spooledBytes, 0U);
  EXPECT_EQ(m_engine->MemoryUsed(), 0U);
  EXPECT_FALSE(m_capture->IsRecording());
  EXPECT_EQ(m_capture->StaleBytes(0), 4 * 8192U);
  EXPECT_EQ(m_engine->CloseDataset(m_now), 0U) << "there is no order any more";
}

TEST_F(SourceSpool, AFailedSpoolGivesTheBacklogUp) {
  Online();
  Fill(3);
  m_engine->Completed(
      SpoolDone{TakeJob<SpoolWrite>().ticket, IoStatus::kNoSpace, "no room", 0, nullptr}, m_now);
  EXPECT_EQ(Out(), "dropped") << "the connection, too";
  EXPECT_EQ(Status().lastOverflow, "its spool failed: no room");
  EXPECT_EQ(Phase(), "reconnecting");
  EXPECT_EQ(m_capture->StaleBytes(0), 3 * 8192U);
}

TEST_F(SourceSpool, ASpoolThatCannotBeReadGivesTheBacklogUp) {
  AloneWith(3);
  Stored();
  BackOnline();
  EXPECT_EQ(Loaded(IoStatus::kDamaged), "dropped");
  EXPECT_EQ(Status().lastOverflow, "its spool can't be read: trouble");
  EXPECT_EQ(Asked(), "drop");
}

TEST_F(SourceSpool, WithoutASpoolTheBacklogIsGivenUpWhenTheMemoryIsFull) {
  m_config.spoolBytes = 0;
  AloneWith(5);
  EXPECT_EQ(Status().overflows, 0U);
  Guest(0);
  Wait(m_config.interval);
  EXPECT_EQ(Status().lastOverflow, "its memory is full, without a spool");
  EXPECT_EQ(Asked(), "") << "nothing is to be dropped";
  EXPECT_TRUE(Contains(Wait(0), "connect"));
}

TEST_F(SourceSpool, ASpoolThatIsTooSlowGivesTheBacklogUp) {
  m_config.datasetBytes = 1;
  AloneWith(5);
  EXPECT_EQ(Status().overflows, 0U);
  Fill(1);
  EXPECT_EQ(Status().lastOverflow, "its memory is full");
  EXPECT_EQ(Asked(), "spool 1, drop");
  Stored();
  EXPECT_EQ(Asked(), "drop") << "its answer is for nobody";
  EXPECT_EQ(Status().spooledDatasets, 0U);
}

TEST_F(SourceSpool, WhatTheCaptureGaveUpTheEngineGivesUpToo) {
  m_options.memory = m_options.datasetBytes = 4096;
  Open();
  Online();
  Guest(0);
  ASSERT_FALSE(m_capture->IsRecording());
  EXPECT_EQ(Wait(1), "dropped");
  EXPECT_EQ(Status().lastOverflow, "its memory is full");
}

// A number that will be another dataset's must not be given out.
TEST_F(SourceSpool, WhatTheCaptureGaveUpIsNoPoint) {
  m_options.memory = m_options.datasetBytes = 4096;
  Open();
  Online();
  Guest(0);
  ASSERT_FALSE(m_capture->IsRecording());
  EXPECT_EQ(m_engine->CloseDataset(m_now), 0U);
}

// Likewise, of one with which the memory is full.
TEST_F(SourceSpool, WhatIsGivenUpAtItsCloseIsNoPoint) {
  m_config.spoolBytes = 0;
  AloneWith(5);
  Guest(0);
  EXPECT_EQ(m_engine->CloseDataset(m_now), 0U);
  EXPECT_EQ(Status().overflows, 1U);
}

TEST_F(SourceSpool, NothingIsConnectedBeforeTheSpoolIsDropped) {
  AloneWith(3);
  Stored(IoStatus::kFailed);
  ASSERT_EQ(Asked(), "drop");
  EXPECT_EQ(Wait(1'000'000), "");
  EXPECT_EQ(m_engine->NextDeadline(), ~Millis{0});
  EXPECT_EQ(Connected(), "dropped") << "one that was asked for before";
  Dropped();
  EXPECT_LE(m_engine->NextDeadline(), m_now.steady);
  EXPECT_EQ(Wait(0), "connect");
}

TEST_F(SourceSpool, APausedSourceConnectsAfterTheSpoolIsDroppedAndItIsResumed) {
  Online();
  m_engine->Pause(m_now);
  Fill(3);
  Stored(IoStatus::kFailed);
  EXPECT_EQ(Phase(), "paused");
  m_engine->Resume(m_now);
  EXPECT_EQ(Out(), "");
  Dropped();
  EXPECT_EQ(Wait(0), "connect");
}

TEST_F(SourceSpool, ASpoolThatCannotBeDroppedIsTheEnd) {
  AloneWith(3);
  Stored(IoStatus::kFailed);
  Dropped(IoStatus::kFailed);
  EXPECT_EQ(Phase(), "stopped");
  EXPECT_TRUE(Contains(Failure(), "can't empty the spool: trouble"));
  EXPECT_EQ(Status().failureCode, ErrorCode::kFailed);
  EXPECT_EQ(Wait(1'000'000), "");
}

TEST_F(SourceSpool, WhatWasGivenUpIsComparedAndTheNumbersGoOnFromTheTarget) {
  Online();
  Fill(3);
  Ack(1);
  Stored();
  Fill(2);
  Stored(IoStatus::kFailed);
  Dropped();
  EXPECT_EQ(Status().overflows, 1U);
  EXPECT_TRUE(Status().resyncing);
  Wait(0);
  Connected();
  Guest(7UL * 8192);
  EXPECT_FALSE(m_capture->HasWrites()) << "it tracks";
  Welcome([](struct Welcome& welcome) { welcome.durable = welcome.applied = 2; });
  EXPECT_TRUE(m_capture->IsRecording());
  EXPECT_EQ(Status().passBytes, 6 * 8192U) << "nothing of it is flushed";
  EXPECT_TRUE(Contains(Work(), "END 3, START 4 resync, END 4, START 5 complete, END 5"));
  All(5);
  EXPECT_TRUE(m_engine->IsSettled());
}

TEST_F(SourceSpool, ATargetThatLostWhatItHadAcknowledgedBeforeIsAFork) {
  Online();
  Fill(3);
  Ack(2);
  Stored();
  Fill(2);
  Stored(IoStatus::kFailed);
  Dropped();
  Wait(0);
  Connected();
  Welcome([](struct Welcome& welcome) { welcome.durable = 1; });
  EXPECT_EQ(Phase(), "stopped");
  EXPECT_EQ(Status().failureCode, ErrorCode::kFork);
}

// --- Wrong answers. ---

TEST_F(SourceSpool, AnswersToNoQuestionAreNotTaken) {
  AloneWith(3);
  m_engine->Completed(SpoolDone{9999, IoStatus::kFailed, "trouble", kFile, nullptr}, m_now);
  m_engine->Completed(SpoolLoaded{9999, IoStatus::kFailed, "trouble", {}}, m_now);
  EXPECT_EQ(Out(), "");
  EXPECT_EQ(Status().overflows, 0U);
  EXPECT_EQ(Status().spooledDatasets, 0U);
}

TEST_F(SourceSpool, AnswersAfterStopAreNotTaken) {
  AloneWith(4);
  Stored();
  BackOnline();
  m_jobs.clear();
  ASSERT_EQ(m_engine->m_jobs.size(), 2U);
  m_engine->Stop(m_now);
  Out();
  for (Ticket ticket = 1; ticket <= m_engine->m_lastTicket; ++ticket) {
    m_engine->Completed(SpoolDone{ticket, IoStatus::kFailed, "trouble", 0, nullptr}, m_now);
  }
  EXPECT_EQ(Work(), "");
  EXPECT_EQ(Phase(), "stopped");
  EXPECT_EQ(Status().overflows, 0U);
}

// --- The end. ---

TEST_F(SourceSpool, FinishWhileTheTargetIsAwaySpoolsEverything) {
  AloneWith(1);
  Guest(8192);
  EXPECT_EQ(Asked(), "");
  m_engine->Finish(m_now);
  Work();
  EXPECT_EQ(Asked(), "spool 1");
  Stored();
  EXPECT_EQ(Asked(), "");
  Wait(m_config.interval);
  Work();
  EXPECT_EQ(Asked(), "spool 2") << "what was captured last, at the interval";
  Stored();
  EXPECT_EQ(m_engine->MemoryUsed(), 0U);
  EXPECT_FALSE(Status().isFinished) << "the target has not got it";
}

// The next process finds all of it, and need not compare what is marked.
TEST_F(SourceSpool, WhatIsKeptAtTheEndIsKnownOnceAllOfItIs) {
  AloneWith(1);
  Guest(8192);
  EXPECT_EQ(m_engine->KeptUpTo(), std::nullopt) << "it is not closed";
  m_engine->CloseDataset(m_now);
  m_engine->CloseDataset(m_now);
  Work();
  EXPECT_EQ(m_engine->KeptUpTo(), std::nullopt) << "it is in memory";
  m_engine->Finish(m_now);
  Work();
  for (std::uint64_t n = 1; n <= 3; ++n) {
    ASSERT_EQ(Asked(), "spool " + Number(n)) << "an empty one, too";
    EXPECT_TRUE(m_engine->IsStoring());
    EXPECT_EQ(m_engine->KeptUpTo(), std::nullopt);
    Stored();
  }
  EXPECT_FALSE(m_engine->IsStoring());
  EXPECT_EQ(m_engine->KeptUpTo(), 3U);
  m_capture->BeginWrite(0, 0, 4096);
  m_capture->Failed(0, 0, 4096);
  EXPECT_EQ(m_engine->KeptUpTo(), std::nullopt) << "something is only marked";
}

TEST_F(SourceSpool, NothingIsKeptBeforeTheEpochIsKnownHere) {
  m_config.epoch = 0;
  Online();
  EXPECT_EQ(m_engine->KeptUpTo(), std::nullopt);
}

TEST_F(SourceSpool, NothingIsKeptWhileSomethingHasToBeCompared) {
  Online([](struct Welcome& welcome) { welcome.volumes[0].state = VolumeState::kNeedsResync; });
  Fill(1);
  EXPECT_EQ(m_engine->KeptUpTo(), std::nullopt);
}

TEST_F(SourceSpool, FinishWhileTheTargetIsThereSpoolsNoMoreThanBefore) {
  Online();
  Fill(1);
  m_engine->Finish(m_now);
  Work();
  EXPECT_EQ(Asked(), "");
  All(1);
  EXPECT_EQ(Asked(), "checkpoint 1");
  m_engine->ConnClosed(m_conn, "reset", m_now);
  Answer<Checkpoint>();
  Answer<SaveMaps>();
  EXPECT_TRUE(Status().isFinished);
}

}  // namespace
}  // namespace penstock
