// SPDX-License-Identifier: Apache-2.0
// Goal: what a guest writes reaches the target in closed datasets, in order; and what the engine
// can't know is compared first. Method: a real capture; its maps and its checkpoint are answered by
// the test.
#include "tests/engine/source_live_rig.h"

namespace penstock {
namespace {

// --- Datasets. ---

TEST_F(SourceLive, ADatasetIsClosedAtTheInterval) {
  Online();
  Guest(0);
  EXPECT_EQ(Wait(m_config.interval - 1), "");
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + 1);
  EXPECT_EQ(Wait(1), "START 1, PROGRESS closed 1 sent 0");
  EXPECT_EQ(Work(), "BLOCK 0 raw 0+4096, END 1");
  Guest(4096);
  EXPECT_EQ(Wait(m_config.interval - 1), "");
  EXPECT_TRUE(Contains(Wait(1), "START 2"));
}

TEST_F(SourceLive, NothingIsClosedWhenNothingWasWritten) {
  Online();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Wait(m_config.interval), "");
  EXPECT_EQ(Status().closed, 0U);
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + m_config.interval);
}

TEST_F(SourceLive, WritesAreInTheDatasetThatWasOpenWhenTheyWereCaptured) {
  Online();
  Guest(0);
  Guest(8192, 512, 1);
  EXPECT_EQ(CloseNumber(), 1U);
  Guest(4096);
  EXPECT_EQ(Work(), "START 1, BLOCK 0 raw 0+4096, BLOCK 1 raw 8192+512, END 1");
  EXPECT_EQ(CloseNumber(), 2U);
  EXPECT_EQ(Work(), "START 2, BLOCK 0 raw 4096+4096, END 2");
}

TEST_F(SourceLive, WritesToOnePlaceTravelInTheirOrder) {
  Online();
  Guest(0);
  Guest(0, 512);
  CloseNumber();
  Work();
  ASSERT_EQ(m_blocks.size(), 1U);
  ByteList space;
  Bytes raw;
  ASSERT_EQ(UnpackBlock(*m_blocks[0], space, raw), BlockFault::kNone);
  ASSERT_EQ(raw.size(), 4096U + 512U);
  EXPECT_TRUE(std::ranges::equal(raw.subspan(4096), Bytes(m_disk[0]).first(512)));
}

TEST_F(SourceLive, ATrimTravelsAsZeros) {
  Online();
  m_capture->BeginWrite(0, 0, 8192);
  SaveMap(0);
  m_capture->Captured({0, 0, 8192, nullptr});
  EXPECT_EQ(CloseNumber(), 1U);
  EXPECT_EQ(Work(), "START 1, BLOCK 0 zero 0+8192, END 1");
}

TEST_F(SourceLive, WhatWasCapturedTogetherIsInOneDatasetHoweverMuchItIs) {
  m_config.datasetBytes = 8 * kKiB;
  Online();
  for (std::uint64_t i = 0; i < 4; ++i) Guest(i * 4096);
  EXPECT_EQ(CloseNumber(), 1U);
  EXPECT_EQ(Status().closed, 1U);
  EXPECT_TRUE(Contains(Work(), "BLOCK 0 raw 0+4096 4096+4096 8192+4096 12288+4096, END 1"));
}

TEST_F(SourceLive, AWriteOutsideOfItsVolumeIsTheEnd) {
  m_config.volumes[0].size = 128 * kKiB;
  Open();
  m_config.volumes[0].size = 64 * kKiB;
  Online();
  Guest(4096);
  m_capture->BeginWrite(0, 64 * kKiB, 4096);
  m_capture->Captured({0, 64 * kKiB, 4096, nullptr});
  EXPECT_EQ(CloseNumber(), 0U);
  EXPECT_EQ(Phase(), "stopped");
  EXPECT_EQ(Status().failure, "a write that is not within its volume was captured");
}

TEST_F(SourceLive, APipelineThatTakesNoWritesIsTheEnd) {
  Online();
  m_engine->m_pipe->SetAcceptStatus(false);
  Guest(0);
  CloseNumber();
  EXPECT_EQ(Phase(), "stopped");
  EXPECT_FALSE(m_capture->IsRecording()) << "what comes from here on is marked";
  EXPECT_EQ(m_capture->StaleBytes(0), kLiveExtent);
}

// It must stay stopped, also when it was the clock that closed.
TEST_F(SourceLive, APipelineThatTakesNoWritesAtTheIntervalIsTheEnd) {
  Online();
  m_engine->m_pipe->SetAcceptStatus(false);
  Guest(0);
  Wait(m_config.interval);
  EXPECT_EQ(Phase(), "stopped");
  EXPECT_EQ(Status().overflows, 0U);
}

TEST_F(SourceLive, ThereIsNoPointBeforeTheFirstWelcome) {
  EXPECT_FALSE(m_capture->IsRecording());
  Begin();
  Connected();
  EXPECT_EQ(CloseNumber(), 0U);
  Welcome();
  EXPECT_TRUE(m_capture->IsRecording());
  EXPECT_EQ(CloseNumber(), 1U);
}

TEST_F(SourceLive, APointMayBeOneOfTheApplications) {
  Online();
  Guest(0);
  m_engine->CloseDataset(m_now, true);
  Work();
  m_engine->CloseDataset(m_now);
  Work();
  EXPECT_EQ(m_starts.at(1).flags, kStartConsistent);
  EXPECT_EQ(m_starts.at(2).flags, 0U);
}

TEST_F(SourceLive, DatasetsGoOnBeingClosedWhileTheTargetIsAway) {
  Online();
  m_engine->ConnClosed(m_conn, "reset", m_now);
  Guest(0);
  Wait(m_config.interval);
  EXPECT_EQ(Status().closed, 1U);
  EXPECT_NE(Phase(), "online");
}

// --- Greetings. ---

TEST_F(SourceLive, AnotherEpochIsAFork) {
  Begin();
  Connected();
  Welcome([](struct Welcome& welcome) { welcome.epoch = 2; });
  EXPECT_EQ(Phase(), "stopped");
  EXPECT_TRUE(Contains(Failure(), "history differs at 0"));
  EXPECT_EQ(Status().failureCode, ErrorCode::kFork);
  EXPECT_FALSE(m_capture->IsRecording());
}

TEST_F(SourceLive, AHistoryThatLostWhatWasFlushedIsAFork) {
  m_config.flushed = 5;
  Begin();
  Connected();
  Welcome([](struct Welcome& welcome) { welcome.durable = 4; });
  EXPECT_EQ(Phase(), "stopped");
  EXPECT_TRUE(Contains(Failure(), "history differs at 4: the target has lost datasets"));
}

TEST_F(SourceLive, AHistoryThatHasWhatWasFlushedGoesOn) {
  m_config.flushed = 5;
  Online([](struct Welcome& welcome) { welcome.durable = welcome.applied = 5; });
  EXPECT_EQ(CloseNumber(), 6U);
}

TEST_F(SourceLive, AHelloNamesTheEpochOfTheProcessBefore) {
  m_config.epoch = 7;
  Begin();
  Connected();
  EXPECT_EQ(m_hello.epoch, 7U);
}

TEST_F(SourceLive, AGroupThatIsTakenUpAnewIsComparedWhole) {
  m_config.epoch = 0;
  Online();
  EXPECT_EQ(Status().passBytes, 0U) << "not before that is marked on disk";
  Answer<SaveMaps>();
  EXPECT_TRUE(Status().resyncing);
  EXPECT_EQ(Status().passBytes, 128 * kKiB);
  EXPECT_EQ(Work(),
            "QUERY 1 0+65536, QUERY 2 0+65536, END 1, START 2 resync begins, END 2, "
            "START 3 complete, END 3");
}

TEST_F(SourceLive, AVolumeThatTheTargetCannotRelyOnIsComparedWhole) {
  Begin();
  Connected();
  Welcome([](struct Welcome& w) { w.volumes[1].state = VolumeState::kNeedsResync; });
  Answer<SaveMaps>();
  EXPECT_EQ(Work(), "QUERY 1 0+65536, END 1, START 2 complete, END 2");
  EXPECT_EQ(m_starts.at(1).volumes, std::vector<UuidT>{VolumeId("g", "b")});
}

TEST_F(SourceLive, ANewVolumeIsCopiedWhole) {
  Begin();
  Connected();
  Welcome([](struct Welcome& w) { w.volumes[0].state = VolumeState::kNew; });
  Answer<SaveMaps>();
  EXPECT_EQ(Work(), "BLOCK 0 raw 0+65536, END 1, START 2 complete, END 2");
}

TEST_F(SourceLive, VolumesThatWereNotCompletedAreCompletedAlsoWhenNothingIsStale) {
  m_state = VolumeState::kSyncing;
  Begin();
  Connected();
  EXPECT_EQ(Welcome(), "START 1 complete, END 1");
  EXPECT_EQ(Status().syncedAt, 1U);
}

TEST_F(SourceLive, WhatAReportedLossOfAVolumeTakesIsTheBacklog) {
  Online();
  Guest(0);
  CloseNumber();
  Reconnect();
  EXPECT_EQ(Welcome([](struct Welcome& w) { w.volumes[0].state = VolumeState::kNeedsResync; }),
            "dropped");
  EXPECT_EQ(Phase(), "reconnecting");
  EXPECT_EQ(Status().overflows, 1U);
  EXPECT_EQ(Status().lastOverflow, "the target has lost what it had of a volume");
  EXPECT_FALSE(m_capture->IsRecording());
  EXPECT_EQ(Wait(0), "connect") << "at once";
  Connected();
  Welcome([](struct Welcome& w) { w.volumes[0].state = VolumeState::kNeedsResync; });
  Answer<SaveMaps>();
  EXPECT_EQ(Status().passBytes, 64 * kKiB);
}

// --- Passes. ---

// What a start finds marked is compared.
TEST_F(SourceLive, NothingIsPushedWhileAPassIsDue) {
  Guest(0);
  Begin();
  Connected();
  Welcome([](struct Welcome& welcome) { welcome.durable = 5; });
  Guest(8192);
  EXPECT_EQ(CloseNumber(), 0U);
  EXPECT_EQ(Wait(m_config.interval), "") << "5 is not applied";
  EXPECT_FALSE(m_engine->IsSettled());
  EXPECT_EQ(Done(5), "START 6 resync begins, PROGRESS closed 6 sent 5");
  EXPECT_EQ(CloseNumber(), 7U) << "while a pass is under way";
  EXPECT_EQ(
      Work(),
      "QUERY 6 0+4096, END 6, START 7, BLOCK 0 raw 8192+4096, END 7, START 8 complete, END 8");
}

TEST_F(SourceLive, OnlyWhatIsStaleIsCompared) {
  Guest(4096);
  Guest(3 * kLiveExtent, 4096, 1);
  Begin();
  m_remote = m_disk;
  Differ(3 * kLiveExtent, 1, 1);
  Connected();
  Welcome();
  EXPECT_EQ(Status().passBytes, 2 * kLiveExtent);
  EXPECT_EQ(Work(),
            "QUERY 1 4096+4096, QUERY 2 12288+4096, END 1, START 2 resync begins, "
            "BLOCK 0 raw 12288+4096, END 2, START 3 complete, END 3");
}

TEST_F(SourceLive, ThePassCompletesWithEverythingThatItMayHaveRead) {
  Guest(0);
  Begin();
  Connected();
  Welcome();
  Wait(0);
  Guest(0);
  EXPECT_EQ(Work(),
            "QUERY 1 0+4096, BLOCK 0 raw 0+4096, END 1, START 2 complete, BLOCK 0 raw 0+4096, "
            "END 2");
}

// Until the pass may begin nothing is to be done at any time: a host must not be kept busy.
TEST_F(SourceLive, WhileAPassIsDueTheIntervalIsNot) {
  Guest(0);
  Online([](struct Welcome& welcome) { welcome.durable = 5; });
  Wait(m_config.interval);
  EXPECT_GT(m_engine->NextDeadline(), m_now.steady);
}

// A crash of the source just after the target began to take the resync.
TEST_F(SourceLive, WhatIsToBeComparedWholeIsMarkedOnDiskBeforeThePassBegins) {
  Begin();
  Connected();
  m_state = VolumeState::kNeedsResync;
  if (Contains(Welcome(), "begins")) m_state = VolumeState::kSyncing;
  Open();  // nothing of the maps was saved
  m_disk.clear();
  Online();
  Answer<SaveMaps>();
  EXPECT_EQ(Status().passBytes, 128 * kKiB);
}

// A capture to which something happens just when the engine asks it for writes.
class RacingCapture : public Capture {
 public:
  using Capture::Capture;
  bool HasWrites() const override {
    if (meanwhile) meanwhile();
    return Capture::HasWrites();
  }
  std::function<void()> meanwhile;
};

TEST_F(SourceLive, APassDoesNotCompleteWithoutWhatItMayHaveRead) {
  auto owned = std::make_unique<RacingCapture>(m_options);
  RacingCapture& capture = *owned;
  m_capture = std::move(owned);
  m_config.feed = m_capture.get();
  Guest(0);
  Begin();
  Connected();
  Welcome();
  Wait(0);
  Guest(0);
  capture.meanwhile = [&capture] { capture.Lose(); };
  EXPECT_FALSE(Contains(Work(), "complete"));
}

}  // namespace
}  // namespace penstock
