// SPDX-License-Identifier: Apache-2.0
// Goal: what a guest writes reaches the target in closed datasets, in order; what the engine can't
// know is compared first; and marks go only when the target is known to have everything.
// Method: a source whose volume is in use, with a real capture; its maps and its checkpoint are
// answered by the test. The volume is good at the target unless a test says otherwise.
#include "engine/capture.h"
#include "tests/engine/source_rig.h"

namespace penstock {
namespace {

constexpr std::uint64_t kLiveExtent = 4096;

class SourceLive : public SourceRig {
 protected:
  SourceLive() {
    m_config.volumes = {{"a", 64 * kKiB}, {"b", 64 * kKiB}};
    m_config.epoch = 1;
    m_config.compress = {Codec::kRaw, 1, false};
    m_state = VolumeState::kGood;
    m_options.extentBytes = kLiveExtent;
    m_options.hotExtents = 0;
    Open();
  }
  // A new process finds what the one before left of the maps.
  void Open() {
    m_options.volumes = {{UuidT{{1}}, m_config.volumes[0].size},
                         {UuidT{{2}}, m_config.volumes[1].size}};
    m_capture = std::make_unique<Capture>(m_options);
    m_config.feed = m_capture.get();
  }

  // --- The guest. ---

  // Marked, saved, written and captured. Returns whether a dataset is to be closed.
  bool Guest(std::uint64_t offset, std::uint32_t length = 4096, std::uint8_t volume = 0) {
    m_capture->BeginWrite(volume, offset, length);
    SaveMap(volume);
    auto data = std::make_shared<std::uint8_t[]>(length);
    std::ranges::copy(Noise(length, ++m_guest), data.get());
    if (!m_disk.empty()) std::copy_n(data.get(), length, m_disk[volume].data() + offset);
    return m_capture->Captured({volume, offset, length, data});
  }
  void SaveMap(std::uint8_t volume) {
    while (const auto save = m_capture->TakeUnsaved(volume)) {
      m_capture->Saved(volume, save->generation);
    }
  }

  // --- The host. ---

  // The jobs other than work: "checkpoint 1, save".
  std::string Asked() const {
    Happened all;
    for (const SourceCommand& job : m_jobs) {
      if (const auto* checkpoint = std::get_if<Checkpoint>(&job)) {
        all.Add("checkpoint " + Number(checkpoint->flushed));
      } else if (std::holds_alternative<SaveMaps>(job)) {
        all.Add("save");
      }
    }
    return all.Take();
  }
  // Answers the oldest Checkpoint or SaveMaps.
  template <class Command>
  std::string Answer(IoStatus status = IoStatus::kOk) {
    const auto command = TakeJob<Command>();
    const char* error = status == IoStatus::kOk ? "" : "trouble";
    m_engine->Completed(CheckpointDone{command.ticket, status, error}, m_now);
    return Out();
  }
  // Does all work, answers all questions, and leaves the rest.
  std::string Work() {
    Happened all;
    const auto add = [&](const std::string& text) {
      if (!text.empty()) all.Add(text);
    };
    add(Out());
    for (;;) {
      if (Jobs<FetchWindow>() > 0) {
        add(Do<FetchWindow>());
      } else if (Jobs<PackRuns>() > 0) {
        add(Do<PackRuns>());
      } else if (Jobs<PackBuffers>() > 0) {
        add(Do<PackBuffers>());
      } else if (!m_queries.empty()) {
        add(AnswerOne());
      } else {
        return all.Take();
      }
    }
  }
  // Everything that was written is at the target, and flushed.
  void GetThrough() {
    m_engine->CloseDataset(m_now);
    Work();
    All(Status().closed);
    ASSERT_TRUE(m_engine->IsSettled());
  }
  std::uint64_t CloseNumber() { return m_engine->CloseDataset(m_now); }

  CaptureOptions m_options;
  std::unique_ptr<Capture> m_capture;
  std::uint64_t m_guest = 0;
};

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

TEST_F(SourceLive, AFailedWriteIsComparedByTheNextPass) {
  Online();
  m_capture->BeginWrite(0, 4096, 100);
  m_capture->Failed(0, 4096, 100);
  EXPECT_EQ(m_capture->StaleBytes(0), kLiveExtent);
  m_engine->Resync(m_now);
  EXPECT_EQ(Work(), "START 1 resync begins, QUERY 1 4096+4096, END 1, START 2 complete, END 2");
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
