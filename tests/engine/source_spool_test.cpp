// SPDX-License-Identifier: Apache-2.0
// Goal: what the link does not take waits in the spool, and comes back in its place; what the spool
// does not take is given up as a whole, and nothing old is ever sent after something new.
// Method: a source whose volume is in use; the spool's commands are answered by the test, which
// keeps what was written. Half of the memory is two datasets and a half.
#include "engine/capture.h"
#include "engine/spool.h"
#include "tests/engine/source_rig.h"

namespace penstock {
namespace {

constexpr std::uint64_t kSpoolExtent = 4096;
constexpr std::uint64_t kFile = 1000;        // bytes, as the spool says
constexpr std::uint64_t kHeld = 8192 + 256;  // of a dataset in memory

class SourceSpool : public SourceRig {
 protected:
  SourceSpool() {
    m_config.epoch = 1;
    m_config.compress = {Codec::kRaw, 1, false};
    m_config.liveMemory = 5 * kHeld;
    m_config.spoolBytes = kMiB;
    m_state = VolumeState::kGood;
    m_options.volumes = {{UuidT{{1}}, m_config.volumes[0].size}};
    m_options.extentBytes = kSpoolExtent;
    Open();
  }
  void Open() {
    m_capture = std::make_unique<Capture>(m_options);
    m_config.feed = m_capture.get();
  }

  void Guest(std::uint64_t offset, std::uint32_t length = 8192, bool zeros = false) {
    m_capture->BeginWrite(0, offset, length);
    while (const auto save = m_capture->TakeUnsaved(0)) m_capture->Saved(0, save->generation);
    std::shared_ptr<std::uint8_t[]> data;
    if (!zeros) {
      data = std::make_shared<std::uint8_t[]>(length);
      std::ranges::copy(Noise(length, ++m_guest), data.get());
    }
    m_capture->Captured({0, offset, length, data});
  }
  // So many datasets of one write each, at places of their own.
  void Fill(std::size_t datasets) {
    for (std::size_t i = 0; i < datasets; ++i) {
      Guest(m_guest % 8 * 8192);
      m_engine->CloseDataset(m_now);
    }
    m_sent = Work();
  }
  void Away() {
    m_engine->ConnClosed(m_conn, "reset", m_now);
    Out();
  }
  // Online, then alone with so many datasets.
  void AloneWith(std::size_t datasets) {
    Online();
    Away();
    Fill(datasets);
  }

  std::string BackOnline(const Change& change = {}) {
    Wait(20'000);
    Connected();
    return Welcome(change);
  }

  // What the host is asked for, work apart: "spool 1, read 1".
  std::string Asked() const {
    Happened all;
    for (const SourceCommand& job : m_jobs) {
      if (const auto* write = std::get_if<SpoolWrite>(&job)) {
        all.Add("spool " + Number(write->start.n));
      } else if (const auto* read = std::get_if<SpoolRead>(&job)) {
        all.Add("read " + Number(read->start.n));
      } else if (const auto* remove = std::get_if<SpoolRemove>(&job)) {
        all.Add("remove " + Number(remove->start.n));
      } else if (std::holds_alternative<SpoolDrop>(job)) {
        all.Add("drop");
      } else if (const auto* checkpoint = std::get_if<Checkpoint>(&job)) {
        all.Add("checkpoint " + Number(checkpoint->flushed));
      } else if (std::holds_alternative<SaveMaps>(job)) {
        all.Add("save");
      }
    }
    return all.Take();
  }
  static const char* ErrorOf(IoStatus status) { return status == IoStatus::kOk ? "" : "trouble"; }
  // Each answers the oldest command of its kind.
  std::string Stored(IoStatus status = IoStatus::kOk) {
    const auto command = TakeJob<SpoolWrite>();
    m_spool[command.start.n] = command;
    m_engine->Completed(SpoolDone{command.ticket, status, ErrorOf(status), kFile, nullptr}, m_now);
    return Work();
  }
  std::string Loaded(IoStatus status = IoStatus::kOk) {
    const auto command = TakeJob<SpoolRead>();
    m_engine->Completed(
        SpoolLoaded{command.ticket, status, ErrorOf(status), m_spool[command.start.n].blocks},
        m_now);
    return Work();
  }
  std::string Dropped(IoStatus status = IoStatus::kOk) {
    const auto command = TakeJob<SpoolDrop>();
    m_engine->Completed(SpoolDone{command.ticket, status, ErrorOf(status), 0, nullptr}, m_now);
    return Work();
  }
  template <class Command>
  std::string Answer(IoStatus status = IoStatus::kOk) {
    const auto command = TakeJob<Command>();
    m_engine->Completed(CheckpointDone{command.ticket, status, ErrorOf(status)}, m_now);
    return Work();
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
  SpooledDataset Left(std::uint64_t n) const {
    SpooledDataset left;
    left.start.n = n;
    left.start.timestampMs = 77 + n;
    left.start.group = GroupId("g");
    left.start.volumes = {VolumeId("g", "a")};
    left.bytes = kFile;
    return left;
  }

  CaptureOptions m_options;
  std::unique_ptr<Capture> m_capture;
  std::uint64_t m_guest = 0;
  std::string m_sent;  // by Fill
  std::map<std::uint64_t, SpoolWrite> m_spool;
};

// --- Into the spool. ---

TEST_F(SourceSpool, BeginsAtHalfOfTheMemoryFromTheOldest) {
  AloneWith(2);
  EXPECT_EQ(Asked(), "");
  Fill(1);
  EXPECT_EQ(Asked(), "spool 1");
  EXPECT_EQ(m_engine->MemoryUsed(), 3 * kHeld) << "until it is there";
  Stored();
  EXPECT_EQ(Asked(), "");
  EXPECT_EQ(m_engine->MemoryUsed(), 2 * kHeld);
  EXPECT_EQ(Status().spooledDatasets, 1U);
  EXPECT_EQ(Status().spooledBytes, kFile);
  Fill(1);
  EXPECT_EQ(Asked(), "spool 2");
}

TEST_F(SourceSpool, OneDatasetIsWrittenAtATime) {
  AloneWith(5);
  EXPECT_EQ(Asked(), "spool 1");
  Stored();
  EXPECT_EQ(Asked(), "spool 2");
}

TEST_F(SourceSpool, WhatIsWrittenIsTheWholeDataset) {
  AloneWith(3);
  const auto command = TakeJob<SpoolWrite>();
  EXPECT_EQ(command.start.volumes, std::vector<UuidT>{VolumeId("g", "a")});
  EXPECT_EQ(command.start.group, GroupId("g"));
  ASSERT_EQ(command.blocks.size(), 1U);
  EXPECT_EQ(command.blocks[0]->rawLength, 8192U);
}

TEST_F(SourceSpool, AnEmptyDatasetHasAFileToo) {
  Online();
  Away();
  m_engine->CloseDataset(m_now);
  Fill(3);
  ASSERT_EQ(Asked(), "spool 1");
  EXPECT_EQ(TakeJob<SpoolWrite>().start.volumes, std::vector<UuidT>{VolumeId("g", "a")});
}

// What is named to be removed is what was written.
TEST_F(SourceSpool, AnEmptyDatasetThatIsSentWhileItIsWrittenIsRemovedToo) {
  Online();
  Away();
  m_engine->CloseDataset(m_now);
  Fill(3);
  BackOnline();
  Stored();
  Ack(1);
  ASSERT_TRUE(Contains(Asked(), "remove 1"));
  EXPECT_EQ(TakeJob<SpoolRemove>().start.volumes, m_spool.at(1).start.volumes);
}

TEST_F(SourceSpool, ASpooledDatasetLeavesThePipeline) {
  AloneWith(3);
  ASSERT_TRUE(m_engine->m_pipe->GetDs(1));
  const auto command = TakeJob<SpoolWrite>();
  const auto writer = std::make_shared<DatasetSerializer>(1, VolumeId("g", "a"), "/nowhere");
  m_engine->Completed(SpoolDone{command.ticket, IoStatus::kOk, "", kFile, writer}, m_now);
  EXPECT_FALSE(m_engine->m_pipe->GetDs(1));
  EXPECT_TRUE(m_engine->m_pipe->GetDs(2));
  EXPECT_EQ(m_engine->m_pipe->GetDsSerializer(1), writer);
  EXPECT_TRUE(m_engine->m_cursors.at(1).blocks.empty());
}

TEST_F(SourceSpool, AComparisonIsNotSpooledAndWhatFollowsWaits) {
  m_capture->LoadNothing(0);
  Online();
  Fill(5);
  ASSERT_TRUE(Contains(m_sent, "END 1, START 2"));
  EXPECT_EQ(Asked(), "");
  Ack(1);
  EXPECT_EQ(Asked(), "spool 2");
}

TEST_F(SourceSpool, APausedSourceGoesOnSpooling) {
  Online();
  m_engine->Pause(m_now);
  Out();
  for (int i = 0; i < 3; ++i) {
    Guest(0);
    Wait(m_config.interval);
  }
  Work();
  EXPECT_EQ(Asked(), "spool 1");
  EXPECT_EQ(Phase(), "paused");
}

// --- Back from it. ---

TEST_F(SourceSpool, ASpooledDatasetIsReadBackWhenItIsDue) {
  AloneWith(3);
  const std::vector<BlockPtr> blocks = m_engine->m_cursors.at(1).blocks;
  Stored();
  EXPECT_EQ(Asked(), "");
  EXPECT_EQ(BackOnline(), "") << "2 and 3 are in memory, and have to wait";
  EXPECT_EQ(Asked(), "read 1");
  EXPECT_EQ(Loaded(),
            "START 1, BLOCK 0 raw 0+8192, END 1, START 2, BLOCK 0 raw 8192+8192, END 2, "
            "START 3, BLOCK 0 raw 16384+8192, END 3");
  EXPECT_EQ(m_blocks.front(), blocks.front());
  EXPECT_TRUE(m_engine->m_cursors.at(1).blocks.empty()) << "it is not kept";
  All(3);
  EXPECT_EQ(Phase(), "online");
  EXPECT_EQ(Status().flushed, 3U);
}

TEST_F(SourceSpool, OneDatasetIsReadAtATime) {
  AloneWith(4);
  Stored();
  Stored();
  BackOnline();
  EXPECT_EQ(Asked(), "read 1");
  Wait(1);
  EXPECT_EQ(Asked(), "read 1") << "once";
  EXPECT_EQ(Loaded(), "START 1, BLOCK 0 raw 0+8192, END 1");
  EXPECT_EQ(Asked(), "read 2");
}

TEST_F(SourceSpool, WhatIsAcknowledgedIsRemoved) {
  AloneWith(3);
  Stored();
  BackOnline();
  Loaded();
  Ack(1);
  EXPECT_EQ(Asked(), "remove 1");
  EXPECT_EQ(Status().spooledDatasets, 0U);
  EXPECT_EQ(Status().spooledBytes, 0U);
}

TEST_F(SourceSpool, AnAckBeforeItIsWrittenRemovesTheFileAfterwards) {
  Online();
  Fill(3);
  ASSERT_EQ(Asked(), "spool 1");
  Ack(1);
  EXPECT_EQ(Asked(), "spool 1");
  Stored();
  EXPECT_EQ(Asked(), "remove 1");
  EXPECT_EQ(Status().spooledDatasets, 0U);
  EXPECT_EQ(Status().overflows, 0U);
}

TEST_F(SourceSpool, AFailureAfterItsAckIsOfNoConcern) {
  Online();
  Fill(3);
  Ack(1);
  Stored(IoStatus::kFailed);
  EXPECT_EQ(Status().overflows, 0U);
  EXPECT_EQ(Asked(), "remove 1");
}

TEST_F(SourceSpool, WhatIsBeingSentStaysInMemoryUntilItsEnd) {
  m_window = 14 * kKiB;
  Online();
  Fill(1);
  Guest(0, 4096);
  Guest(0, 4096, true);
  Guest(8192);
  m_engine->CloseDataset(m_now);
  Fill(2);
  ASSERT_TRUE(m_engine->m_cursors.at(2).started && !m_engine->m_cursors.at(2).ended);
  Stored();
  Stored();
  EXPECT_EQ(Status().spooledDatasets, 2U);
  EXPECT_TRUE(Contains(Ack(1), "BLOCK 0 raw 8192+8192, END 2"));
  EXPECT_EQ(Asked(), "remove 1") << "nothing was read";
}

TEST_F(SourceSpool, WhatWasReadForALostConnectionIsSentOnTheNext) {
  AloneWith(3);
  Stored();
  BackOnline();
  Away();
  EXPECT_EQ(Loaded(), "");
  EXPECT_TRUE(Contains(BackOnline(), "START 1, BLOCK 0 raw 0+8192, END 1"));
  EXPECT_EQ(Asked(), "");
  Away();
  BackOnline();
  EXPECT_EQ(Asked(), "read 1") << "sent to its end, it is read again";
}

TEST_F(SourceSpool, WhatDidNotFitIsNotKeptWithoutAConnection) {
  m_window = 9000;
  AloneWith(4);
  Stored();
  Stored();
  BackOnline();
  Loaded();
  EXPECT_EQ(Loaded(), "START 2");
  EXPECT_EQ(m_engine->m_cursors.at(2).blocks.size(), 1U);
  Away();
  EXPECT_TRUE(m_engine->m_cursors.at(2).blocks.empty());
  BackOnline();
  Loaded();
  EXPECT_EQ(Asked(), "read 2");
}

TEST_F(SourceSpool, WhatTheTargetHasWhenItIsReadIsNotSentAgain) {
  Online();
  Fill(3);
  Stored();
  Reconnect();
  Welcome();
  ASSERT_EQ(Asked(), "read 1");
  Reconnect();
  Welcome([this](struct Welcome& welcome) {
    welcome.durable = 1;
    welcome.chain = m_chains.at(1);
  });
  EXPECT_EQ(Asked(), "read 1, remove 1");
  EXPECT_EQ(Loaded(), "");
  EXPECT_EQ(Status().durable, 1U);
}

// --- What an earlier process left. ---

TEST_F(SourceSpool, WhatFollowsWhatTheTargetHasIsAdoptedAndTheOlderIsRemoved) {
  m_config.spooled = {Left(3), Left(4), Left(5), Left(6)};
  Online([](struct Welcome& welcome) { welcome.durable = welcome.applied = 4; });
  EXPECT_EQ(Asked(), "remove 3, remove 4, read 5");
  EXPECT_EQ(Status().spooledDatasets, 2U);
  EXPECT_EQ(Status().spooledBytes, 2 * kFile);
  EXPECT_EQ(Status().closed, 6U);
  const ByteList data = Noise(4096);
  const Piece piece{4096, data};
  m_spool[5].blocks = {PackBlock(0, {&piece, 1}, {})};
  EXPECT_EQ(Loaded(), "START 5, BLOCK 0 raw 4096+4096, END 5");
  EXPECT_EQ(m_starts.at(5).timestampMs, 82U) << "as it was made";
  EXPECT_EQ(Loaded(), "START 6, END 6");
  EXPECT_EQ(m_engine->CloseDataset(m_now), 7U);
}

TEST_F(SourceSpool, BehindAGapNothingIsAdopted) {
  m_config.spooled = {Left(6), Left(7)};
  Begin();
  Connected();
  Welcome([](struct Welcome& welcome) { welcome.durable = welcome.applied = 4; });
  EXPECT_EQ(Asked(), "drop") << "nor after another crash";
  EXPECT_EQ(Status().lastOverflow, "its spool has a gap");
  EXPECT_EQ(Status().spooledDatasets, 0U);
}

// What the process before marked is in them, or is compared behind them.
TEST_F(SourceSpool, APassWaitsForWhatIsAdopted) {
  m_config.spooled = {Left(1)};
  Guest(0, 4096);
  Online();
  EXPECT_EQ(m_engine->CloseDataset(m_now), 0U);
  EXPECT_EQ(Loaded(), "START 1, END 1");
  EXPECT_EQ(Ack(1), "");
  EXPECT_TRUE(Contains(Done(1), "START 2 resync begins"));
}

// They are of a history that the target may have left.
TEST_F(SourceSpool, AGroupThatIsTakenUpAnewAdoptsNothing) {
  m_config.epoch = 0;
  m_config.spooled = {Left(1)};
  EXPECT_FALSE(Contains(Begin(), "connect")) << "not before it is dropped";
  EXPECT_EQ(Asked(), "drop");
}

// The next start would find them again, and they would follow what the target has then.
TEST_F(SourceSpool, WhatWasAdoptedIsDroppedAlsoWithoutASpool) {
  m_config.spoolBytes = 0;
  m_config.spooled = {Left(1), Left(2), Left(3)};
  Online();
  Loaded(IoStatus::kDamaged);
  EXPECT_TRUE(Contains(Asked(), "drop"));
}

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
