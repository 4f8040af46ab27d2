// SPDX-License-Identifier: Apache-2.0
// Goal: what the link does not take waits in the spool, and comes back in its place.
// Method: the spool is the test, which keeps what was written.
#include "tests/engine/source_spool_rig.h"

namespace penstock {
namespace {

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

// A guest is not slowed down for the sake of what goes nowhere.
TEST_F(SourceSpool, ItIsKnownWhetherTheBacklogGetsLess) {
  m_capture->LoadNothing(0);
  EXPECT_FALSE(m_capture->Drains());
  Online();
  Fill(1);
  EXPECT_TRUE(m_capture->Drains()) << "the link takes it";
  Away();
  EXPECT_FALSE(m_capture->Drains()) << "the comparison can't be kept";
  BackOnline();
  EXPECT_TRUE(m_capture->Drains());
  Work();
  Ack(1);
  Away();
  EXPECT_TRUE(m_capture->Drains()) << "the spool takes it";
}

TEST_F(SourceSpool, WhatWaitsBehindAComparisonSaysSoWhenItIsGivenUp) {
  m_capture->LoadNothing(0);
  Online();
  Away();
  Fill(5);
  EXPECT_EQ(Asked(), "");
  m_capture->Lose();
  m_engine->Tick(m_now);
  EXPECT_EQ(Status().lastOverflow,
            "its memory is full, behind a comparison that no spool can keep");
}

TEST_F(SourceSpool, WithoutASpoolAndALinkTheBacklogStays) {
  m_config.spoolBytes = 0;
  Online();
  EXPECT_TRUE(m_capture->Drains());
  Away();
  EXPECT_FALSE(m_capture->Drains());
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

// The process before knew that everything was in datasets up to this one.
class KeptSpool : public SourceSpool {
 protected:
  void Kept(std::uint64_t n) {
    m_config.kept = n;
    m_capture->LoadNothing(0);
    m_capture->TakeStale(0, n, ~std::uint64_t{0});
    ASSERT_EQ(m_capture->StaleBytes(0), 0U);
  }
};

TEST_F(KeptSpool, WhatIsMarkedIsNotComparedWhenAllIsFound) {
  m_config.spooled = {Left(1), Left(2)};
  Kept(2);
  Online();
  EXPECT_EQ(m_capture->StaleBytes(0), 0U);
  EXPECT_EQ(Loaded(), "START 1, END 1");
  EXPECT_EQ(Loaded(), "START 2, END 2");
  All(1);
  m_capture->Cool();
  EXPECT_EQ(m_capture->ColdExtents(), 0U) << "the second may hold anything of it";
  All(2);
  m_capture->Cool();
  EXPECT_GT(m_capture->ColdExtents(), 0U);
  EXPECT_EQ(Status().passBytes, 0U);
  EXPECT_FALSE(Status().resyncing);
}

TEST_F(KeptSpool, WhatTheTargetHasAlreadyCountsAsFound) {
  m_config.spooled = {Left(2)};
  Kept(2);
  Online([](struct Welcome& welcome) { welcome.durable = welcome.applied = 2; });
  EXPECT_EQ(m_capture->StaleBytes(0), 0U);
  EXPECT_FALSE(Status().resyncing);
}

TEST_F(KeptSpool, WhatIsMarkedIsComparedWhenOneIsMissing) {
  m_config.spooled = {Left(1)};
  Kept(2);
  Online();
  EXPECT_GT(m_capture->StaleBytes(0), 0U);
  Loaded();
  All(1);
  EXPECT_TRUE(Status().resyncing);
}

// A target that was restored from an older copy may have fewer than it had said.
TEST_F(KeptSpool, WhatIsMarkedIsComparedWhenTheTargetLacksOne) {
  Kept(2);
  Online([](struct Welcome& welcome) { welcome.durable = welcome.applied = 1; });
  EXPECT_GT(Status().passBytes, 0U);
}

TEST_F(KeptSpool, AnotherStopBeforeTheTargetIsReachedKeepsTheSame) {
  Kept(2);
  Begin();
  EXPECT_EQ(m_engine->KeptUpTo(), 2U);
  Guest(0, 4096);
  EXPECT_EQ(m_engine->KeptUpTo(), std::nullopt) << "it is in no dataset";
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

}  // namespace
}  // namespace penstock
