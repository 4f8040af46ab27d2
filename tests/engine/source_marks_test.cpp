// SPDX-License-Identifier: Apache-2.0
// Goal: marks go only when the target is known to have everything, also at the end; and a pause
// ends the connection and nothing else. Method: a real capture; its maps and its checkpoint are
// answered by the test.
#include "tests/engine/source_live_rig.h"

namespace penstock {
namespace {

// --- Marks. ---

TEST_F(SourceLive, AnIdleGuestsMarksAreCleared) {
  Online();
  Guest(0);
  GetThrough();
  EXPECT_EQ(Asked(), "checkpoint 1");
  EXPECT_EQ(m_capture->ColdExtents(), 1U) << "not before it is answered";
  Answer<Checkpoint>();
  EXPECT_EQ(Asked(), "save");
  EXPECT_EQ(m_capture->ColdExtents(), 0U);
  EXPECT_NE(m_capture->UnsavedGeneration(0), 0U);
  Answer<SaveMaps>();
  EXPECT_EQ(Asked(), "");
  for (int i = 0; i < 3; ++i) Wait(m_config.clearAfter);
  EXPECT_EQ(Asked(), "") << "nothing is left to be cleared";
}

TEST_F(SourceLive, AFewMarksAreClearedNowAndThen) {
  Online();
  Guest(0);
  GetThrough();
  Answer<Checkpoint>();
  Answer<SaveMaps>();
  Guest(kLiveExtent);
  GetThrough();
  EXPECT_EQ(Asked(), "");
  const Millis before = m_now.steady;
  while (Asked().empty() && m_now.steady - before < 2 * m_config.clearAfter) {
    Wait(m_engine->NextDeadline() - m_now.steady);
    m_engine->Received(m_conn, Encode(FrameType::kPong, Ping{1}), m_now);
  }
  EXPECT_EQ(Asked(), "checkpoint 2");
  EXPECT_EQ(m_now.steady - before, m_config.clearAfter);
}

TEST_F(SourceLive, ManyMarksAreClearedAtOnceAndOneClearingIsUnderWayAtATime) {
  m_config.clearExtents = 2;
  Online();
  Guest(0);
  Guest(kLiveExtent);
  GetThrough();
  EXPECT_EQ(Asked(), "checkpoint 1");
  Guest(2 * kLiveExtent);
  Guest(3 * kLiveExtent);
  GetThrough();
  EXPECT_EQ(Asked(), "checkpoint 1");
  Answer<Checkpoint>();
  EXPECT_EQ(m_capture->ColdExtents(), 2U) << "those that became cold meanwhile";
  EXPECT_EQ(Asked(), "save");
  Answer<SaveMaps>();
  EXPECT_EQ(Asked(), "checkpoint 2");
}

TEST_F(SourceLive, AFailedCheckpointClearsNothingAndIsTriedAgainLater) {
  m_config.clearExtents = 1;
  Online();
  Guest(0);
  GetThrough();
  Answer<Checkpoint>(IoStatus::kFailed);
  EXPECT_EQ(Asked(), "");
  EXPECT_EQ(m_capture->ColdExtents(), 1U);
  EXPECT_EQ(m_notes.back(), "can't clear the change map: trouble");
  Wait(m_config.clearAfter - 1);
  EXPECT_EQ(Asked(), "");
  Wait(1);
  EXPECT_EQ(Asked(), "checkpoint 1");
  Answer<Checkpoint>();
  EXPECT_EQ(m_capture->ColdExtents(), 0U);
}

TEST_F(SourceLive, MapsThatCouldNotBeSavedAreSavedWithTheNextClearing) {
  m_config.clearExtents = 1;
  Online();
  Guest(0);
  GetThrough();
  Answer<Checkpoint>();
  Answer<SaveMaps>(IoStatus::kNoSpace);
  EXPECT_EQ(Asked(), "");
  Guest(kLiveExtent);
  GetThrough();
  EXPECT_EQ(Asked(), "") << "it failed a moment ago";
  Wait(m_config.clearAfter);
  EXPECT_EQ(Asked(), "checkpoint 2");
}

TEST_F(SourceLive, ANewEpochIsMadeDurableAtOnce) {
  m_config.epoch = 0;
  m_state = VolumeState::kNew;
  Online();
  ASSERT_EQ(Asked(), "save") << "what has to be compared comes first";
  Answer<SaveMaps>();
  ASSERT_EQ(Asked(), "checkpoint 0");
  EXPECT_EQ(TakeJob<Checkpoint>().epoch, 1U);
}

TEST_F(SourceLive, AnEpochThatCouldNotBeMadeDurableIsTriedAgain) {
  m_config.epoch = 0;
  Online();
  Answer<SaveMaps>();
  Answer<Checkpoint>(IoStatus::kFailed);
  EXPECT_EQ(Asked(), "");
  Wait(m_config.clearAfter);
  EXPECT_EQ(Asked(), "checkpoint 0");
}

TEST_F(SourceLive, AnAnswerToNoCheckpointIsNotTaken) {
  Online();
  Guest(0);
  GetThrough();
  m_engine->Completed(CheckpointDone{9999, IoStatus::kOk, ""}, m_now);
  Out();
  EXPECT_EQ(Asked(), "checkpoint 1");
  EXPECT_EQ(m_capture->ColdExtents(), 1U);
}

// --- The end. ---

TEST_F(SourceLive, FinishCoolsCheckpointsAndSaysSo) {
  m_options.hotExtents = 100;
  Open();
  Online();
  Guest(0);
  GetThrough();
  EXPECT_EQ(Asked(), "") << "it is hot";
  m_engine->Finish(m_now);
  Out();
  EXPECT_EQ(Asked(), "checkpoint 1");
  EXPECT_EQ(m_capture->ColdExtents(), 1U);
  Answer<Checkpoint>();
  EXPECT_EQ(m_capture->ColdExtents(), 0U);
  EXPECT_EQ(Asked(), "save");
  EXPECT_FALSE(Status().isFinished);
  Answer<SaveMaps>();
  EXPECT_TRUE(Status().isFinished);
  Wait(m_config.clearAfter);
  EXPECT_EQ(Asked(), "");
}

TEST_F(SourceLive, FinishWaitsUntilEverythingIsFlushed) {
  Online();
  Guest(0);
  m_engine->Finish(m_now);
  EXPECT_FALSE(m_engine->IsSettled()) << "it is in no dataset yet";
  Wait(m_config.interval);
  Work();
  Ack(1);
  Done(1);
  EXPECT_EQ(Asked(), "");
  Flushed(1);
  EXPECT_EQ(Asked(), "checkpoint 1");
}

TEST_F(SourceLive, FinishIsOverAlsoWhenItsCheckpointFails) {
  Online();
  m_engine->Finish(m_now);
  Out();
  Answer<Checkpoint>(IoStatus::kFailed);
  EXPECT_TRUE(Status().isFinished);
  EXPECT_EQ(Asked(), "");
}

TEST_F(SourceLive, FinishTriesAtOnceWhatFailedBefore) {
  Online();
  Guest(0);
  GetThrough();
  Answer<Checkpoint>(IoStatus::kFailed);
  m_engine->Finish(m_now);
  Out();
  EXPECT_EQ(Asked(), "checkpoint 1");
}

// Without it the next process could follow nothing of what is kept here.
TEST_F(SourceLive, FinishTriesANewEpochAtOnceAlsoWithoutTheTarget) {
  m_config.epoch = 0;
  Online();
  Answer<SaveMaps>();
  Answer<Checkpoint>(IoStatus::kFailed);
  m_engine->ConnClosed(m_conn, "reset", m_now);
  Out();
  EXPECT_FALSE(m_engine->IsStoring());
  m_engine->Finish(m_now);
  Out();
  ASSERT_EQ(Asked(), "checkpoint 0");
  EXPECT_TRUE(m_engine->IsStoring()) << "the host has to wait for it";
  Answer<Checkpoint>();
  EXPECT_TRUE(m_engine->IsStoring());
  Answer<SaveMaps>();
  EXPECT_FALSE(m_engine->IsStoring());
  EXPECT_FALSE(Status().isFinished) << "the target was not reached";
}

TEST_F(SourceLive, FinishTriesANewEpochOnce) {
  m_config.epoch = 0;
  Online();
  Answer<SaveMaps>();
  m_engine->ConnClosed(m_conn, "reset", m_now);
  m_engine->Finish(m_now);
  Out();
  Answer<Checkpoint>(IoStatus::kFailed);
  EXPECT_EQ(Asked(), "");
  EXPECT_FALSE(m_engine->IsStoring()) << "nothing holds the end up";
}

TEST_F(SourceLive, FinishComesAfterAClearingThatIsUnderWay) {
  Online();
  Guest(0);
  GetThrough();
  m_engine->Finish(m_now);
  Out();
  EXPECT_EQ(Asked(), "checkpoint 1");
  Answer<Checkpoint>();
  Answer<SaveMaps>();
  EXPECT_FALSE(Status().isFinished);
  EXPECT_EQ(Asked(), "checkpoint 1");
}

// --- Pauses. ---

TEST_F(SourceLive, APausedSourceHasNoConnectionAndGoesOnCapturing) {
  Online();
  m_engine->Pause(m_now);
  EXPECT_EQ(Out(), "BYE, dropped");
  Guest(0);
  EXPECT_EQ(Wait(m_config.interval), "");
  EXPECT_EQ(Status().closed, 1U);
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + m_config.interval);
  EXPECT_EQ(Wait(1'000'000), "") << "no connection";
  EXPECT_EQ(Phase(), "paused");
  m_engine->Resume(m_now);
  EXPECT_EQ(Out(), "connect");
  Connected();
  EXPECT_EQ(Welcome(), "START 1");
  EXPECT_EQ(Work(), "BLOCK 0 raw 0+4096, END 1");
}

TEST_F(SourceLive, AConnectionThatComesDuringAPauseIsNotWanted) {
  Begin();
  m_engine->Pause(m_now);
  EXPECT_EQ(Connected(), "dropped");
  m_engine->ConnectFailed("refused", m_now);
  EXPECT_EQ(Phase(), "paused");
}

TEST_F(SourceLive, APauseDuringTheGreetingDropsIt) {
  Begin();
  Connected();
  m_engine->Pause(m_now);
  EXPECT_EQ(Out(), "dropped");
  m_engine->Pause(m_now);
  EXPECT_EQ(Out(), "") << "once";
}

TEST_F(SourceLive, OnlyAPausedSourceIsResumed) {
  Online();
  m_engine->Resume(m_now);
  EXPECT_EQ(Out(), "");
  EXPECT_EQ(Phase(), "online");
  m_engine->Stop(m_now);
  m_engine->Pause(m_now);
  m_engine->Resume(m_now);
  EXPECT_EQ(Phase(), "stopped");
}

TEST_F(SourceLive, WhatWasSentHalfwayIsSentAgainAfterAPause) {
  Online();
  Guest(0);
  CloseNumber();
  Work();
  m_engine->Pause(m_now);
  m_engine->Resume(m_now);
  Out();
  Connected();
  EXPECT_EQ(Welcome(), "START 1, BLOCK 0 raw 0+4096, END 1");
  EXPECT_EQ(Status().resentDatasets, 1U);
}

}  // namespace
}  // namespace penstock
