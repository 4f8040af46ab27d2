// SPDX-License-Identifier: Apache-2.0
// Goal: a pass compares every byte of every volume once, sends what differs and nothing else, and
// ends in the mark that makes the target's volumes good.
// Method: the source's volumes and the target's, equal but for what a test changes; work and
// answers are given one by one where their order matters.
#include "tests/engine/source_rig.h"

namespace penstock {
namespace {

class SourcePass : public SourceRig {
 protected:
  SourcePass() { m_config.resyncAtStart = true; }
};

// --- When. ---

TEST_F(SourcePass, BeginsWithTheFirstWelcome) {
  Begin();
  Connected();
  EXPECT_EQ(Welcome(), "START 1 resync begins");
  EXPECT_EQ(JobsText(), "fetch a 0+65536");
  EXPECT_TRUE(Status().resyncing);
}

TEST_F(SourcePass, IsNotWantedUnlessAskedFor) {
  m_config.resyncAtStart = false;
  Online();
  EXPECT_EQ(JobsText(), "");
  m_engine->Resync(m_now);
  EXPECT_EQ(Out(), "START 1 resync begins");
}

TEST_F(SourcePass, BeginsOnlyWhenEverythingClosedIsApplied) {
  m_config.resyncAtStart = false;
  Online();
  SendDataset();
  m_engine->Resync(m_now);
  EXPECT_EQ(Out(), "");
  EXPECT_EQ(Ack(1), "") << "durable is not enough";
  EXPECT_EQ(Done(1), "START 2 resync begins");
}

TEST_F(SourcePass, BeginsOnlyWhenWhatAnEarlierSourceLeftIsApplied) {
  Online([](struct Welcome& welcome) { welcome.durable = 5; });
  EXPECT_EQ(JobsText(), "");
  EXPECT_EQ(Done(5), "START 6 resync begins");
}

TEST_F(SourcePass, OneThatIsAskedForDuringAnotherFollowsIt) {
  Online();
  m_engine->Resync(m_now);
  RunAll();
  EXPECT_TRUE(Status().resyncing);
  Ack(2);
  EXPECT_EQ(Done(2), "START 3 resync begins");
}

TEST_F(SourcePass, WritesThatCameBeforeAreInADatasetBefore) {
  m_config.resyncAtStart = false;
  Online();
  Write(0, 4096);
  m_engine->Resync(m_now);
  EXPECT_EQ(Out(), "START 1");
  EXPECT_TRUE(Contains(Run(), "BLOCK 0 raw 0+4096, END 1, START 2 resync begins"));
}

TEST_F(SourcePass, WritesThatComeDuringItAreInADatasetBehind) {
  Online();
  EXPECT_EQ(Write(0, 4096), WriteResult::kOk);
  EXPECT_TRUE(Contains(RunAll(), "END 1, START 2 complete, BLOCK 0 raw 0+4096, END 2"))
      << "the open dataset takes the mark";
  EXPECT_EQ(Status().syncedAt, 2U);
}

// --- Comparing. ---

TEST_F(SourcePass, EqualVolumesSendNothingButTheMark) {
  Online();
  EXPECT_EQ(RunAll(), "QUERY 1 0+65536, END 1, START 2 complete, END 2");
  EXPECT_EQ(Status().equalBytes, 64 * kKiB);
  EXPECT_EQ(Status().comparedBytes, 64 * kKiB);
  EXPECT_EQ(Status().passBytes, 64 * kKiB);
  EXPECT_EQ(Status().passedBytes, 0U) << "nothing is acknowledged";
  EXPECT_EQ(Status().syncedAt, 2U);
  Ack(1);
  EXPECT_EQ(Status().passedBytes, 64 * kKiB);
  EXPECT_FALSE(Status().resyncing);
  EXPECT_FALSE(m_engine->IsSettled());
  All(2);
  EXPECT_TRUE(m_engine->IsSettled());
}

TEST_F(SourcePass, OnlyWhatDiffersIsSent) {
  Begin();
  Differ(4096);
  Differ(5UL * 4096, 4097);
  Connected();
  Welcome();
  EXPECT_EQ(RunAll(),
            "QUERY 1 0+65536, BLOCK 0 raw 4096+4096 20480+8192, END 1, "
            "START 2 complete, END 2");
  EXPECT_EQ(Status().equalBytes, 64 * kKiB - 3UL * 4096);
}

TEST_F(SourcePass, AVolumeNeedsNotEndAtABlock) {
  m_config.volumes[0].size = 10'000;
  Begin();
  Differ(9'999);
  Connected();
  Welcome();
  EXPECT_TRUE(Contains(RunAll(), "QUERY 1 0+10000, BLOCK 0 raw 8192+1808, END 1"));
}

TEST_F(SourcePass, EqualWeakFingerprintsAloneDropNothing) {
  Begin();
  Differ(4096);
  Connected();
  Welcome();
  Run();
  Answer answer = AnswerOf();
  ASSERT_EQ(answer.runs.size(), 3U);
  answer.runs[1].equal = true;  // its 64 bits collide; its strong fingerprint is another
  Receive(Encode(answer));
  EXPECT_EQ(JobsText(), "pack 0+65536");
  EXPECT_EQ(Do<PackRuns>(), "");
  EXPECT_EQ(JobsText(), "pack 0+65536") << "once more, with what is different after all";
  EXPECT_TRUE(Contains(Run(), "BLOCK 0 raw 4096+4096, END 1"));
}

TEST_F(SourcePass, WhatCollidesIsSentTogetherWithWhatDiffers) {
  Begin();
  Differ(4096);
  Differ(5UL * 4096);
  Connected();
  Welcome();
  Run();
  Answer answer = AnswerOf();
  ASSERT_EQ(answer.runs.size(), 5U);
  answer.runs[1].equal = true;
  Receive(Encode(answer));
  EXPECT_TRUE(Contains(Run(), "BLOCK 0 raw 4096+4096 20480+4096, END 1"));
}

TEST_F(SourcePass, RangesAreDatasetsOfTheirOwn) {
  m_config.volumes = {{"a", 2 * kMiB + 4096}, {"b", 4096}};
  m_config.resyncBytes = kMiB;
  Online();
  RunAll();
  EXPECT_EQ(m_starts.at(1).flags, kStartPassBegins);
  EXPECT_EQ(m_starts.at(2).flags, 0U);
  EXPECT_EQ(m_starts.at(3).flags, 0U);
  EXPECT_EQ(m_starts.at(4).flags, kStartPassBegins) << "of the other volume";
  EXPECT_EQ(m_starts.at(4).volumes, std::vector<UuidT>{VolumeId("g", "b")});
  EXPECT_EQ(m_starts.at(5).flags, kStartSyncComplete);
}

TEST_F(SourcePass, ARangeIsAskedForWindowByWindowInOrder) {
  m_config.volumes[0].size = 3 * kMiB;
  Online();
  EXPECT_EQ(JobsText(), "fetch a 0+1048576, fetch a 1048576+1048576, fetch a 2097152+1048576");
  const auto first = TakeJob<FetchWindow>();
  EXPECT_EQ(Do<FetchWindow>(), "") << "the second was read first";
  Carry(first);
  EXPECT_EQ(Out(), "QUERY 1 0+1048576, QUERY 1 1048576+1048576");
  EXPECT_EQ(Do<FetchWindow>(), "QUERY 1 2097152+1048576");
}

TEST_F(SourcePass, WindowsMayBeAnsweredInAnyOrder) {
  m_config.volumes[0].size = 2 * kMiB;
  Begin();
  Differ(0);
  Differ(kMiB);
  Connected();
  Welcome();
  Run();
  std::swap(m_queries[0], m_queries[1]);
  AnswerOne();
  EXPECT_EQ(Run(), "BLOCK 0 raw 1048576+4096");
  AnswerOne();
  EXPECT_TRUE(Contains(Run(), "BLOCK 0 raw 0+4096, END 1"));
}

TEST_F(SourcePass, OnlySoManyWindowsAreReadAtATime) {
  m_config.volumes[0].size = 4 * kMiB;
  m_config.fetchJobs = 2;
  Online();
  EXPECT_EQ(Jobs<FetchWindow>(), 2U);
  Do<FetchWindow>();
  EXPECT_EQ(Jobs<FetchWindow>(), 2U);
  EXPECT_EQ(CountOf(RunAll(), "QUERY"), 3U);
}

TEST_F(SourcePass, OnlySoManyWindowsAreInHand) {
  m_config.volumes[0].size = 4 * kMiB;
  m_config.windowsInHand = 2;
  Online();
  EXPECT_EQ(Jobs<FetchWindow>(), 2U);
  Do<FetchWindow>();
  Do<FetchWindow>();
  EXPECT_EQ(Jobs<FetchWindow>(), 0U) << "both wait for their answers";
  RunAll();
  EXPECT_EQ(Status().comparedBytes, 4 * kMiB);
}

TEST_F(SourcePass, WindowsThatAreAskedAgainCountOnce) {
  m_config.volumes[0].size = 4 * kMiB;
  m_config.windowsInHand = 2;
  Online();
  Do<FetchWindow>();
  Do<FetchWindow>();
  m_engine->ConnClosed(m_conn, "reset", m_now);
  m_queries.clear();
  Wait(m_config.backoffMax);
  Connected();
  Welcome();
  EXPECT_EQ(Jobs<FetchWindow>(), 2U);
  RunAll();
  EXPECT_EQ(Status().comparedBytes, 4 * kMiB);
}

// --- Copying to new volumes. ---

TEST_F(SourcePass, ANewVolumeIsCopiedWithoutAQuestion) {
  m_state = VolumeState::kNew;
  Online();
  EXPECT_EQ(RunAll(), "BLOCK 0 raw 0+65536, END 1, START 2 complete, END 2");
  EXPECT_EQ(Status().equalBytes, 0U);
}

TEST_F(SourcePass, ZerosOfANewVolumeAreNotSent) {
  m_state = VolumeState::kNew;
  Begin();
  std::fill_n(m_disk[0].begin() + 8192, 16384, std::uint8_t{0});
  Connected();
  Welcome();
  EXPECT_EQ(RunAll(), "BLOCK 0 raw 0+8192 24576+40960, END 1, START 2 complete, END 2");
  EXPECT_EQ(Status().equalBytes, 16384U);
}

TEST_F(SourcePass, AVolumeOfZerosIsNothingButTheMark) {
  m_state = VolumeState::kNew;
  Begin();
  m_disk[0].assign(m_disk[0].size(), 0);
  Connected();
  Welcome();
  EXPECT_EQ(RunAll(), "END 1, START 2 complete, END 2");
}

TEST_F(SourcePass, ASecondPassOfAVolumeThatWasNewCompares) {
  m_state = VolumeState::kNew;
  Online();
  RunAll();
  All(2);
  m_engine->Resync(m_now);
  EXPECT_TRUE(Contains(Run(), "QUERY 3 0+65536"));
}

// What is on its way of the first pass makes it anything but new, whatever WELCOME still says.
TEST_F(SourcePass, ASecondPassComparesAlsoWhenAWelcomeWithinTheFirstSaidNew) {
  m_state = VolumeState::kNew;
  Online();
  RunAll();
  Reconnect();
  Welcome();
  RunAll();
  All(2);
  m_engine->Resync(m_now);
  EXPECT_TRUE(Contains(Run(), "QUERY 3 0+65536"));
}

TEST_F(SourcePass, ANewVolumeIsComparedWhenTheTargetsJournalMayHaveSomethingOfIt) {
  m_state = VolumeState::kNew;
  Online([](struct Welcome& welcome) { welcome.durable = 5; });
  Done(5);
  EXPECT_TRUE(Contains(Run(), "QUERY 6 0+65536"));
}

TEST_F(SourcePass, ANewVolumeIsComparedBehindWrites) {
  m_state = VolumeState::kNew;
  m_config.resyncAtStart = false;
  Online();
  SendDataset();
  All(1);
  m_engine->Resync(m_now);
  EXPECT_TRUE(Contains(Run(), "QUERY 2 0+65536"));
}

TEST_F(SourcePass, AWindowThatWasReadForALostConnectionCountsWhenItIsCopied) {
  m_state = VolumeState::kNew;
  Online();
  const auto fetch = TakeJob<FetchWindow>();
  Reconnect();
  Welcome();
  EXPECT_EQ(JobsText(), "");
  Carry(fetch);
  EXPECT_EQ(Out(), "BLOCK 0 raw 0+65536, END 1, START 2 complete, END 2");
}

// --- Memory. ---

TEST_F(SourcePass, RangesWaitForMemory) {
  m_config.volumes[0].size = 4 * kMiB;
  m_config.resyncBytes = kMiB;
  m_config.memory = 2 * kMiB;
  Online();
  EXPECT_EQ(Jobs<FetchWindow>(), 2U);
  EXPECT_EQ(m_engine->MemoryUsed(), 2 * kMiB);
  Differ(0, kMiB);
  Run();
  AnswerOne();
  EXPECT_EQ(Run(), "BLOCK 0 raw 0+1048576, END 1, START 2 resync");
  EXPECT_EQ(Jobs<FetchWindow>(), 0U) << "what was sent is kept until it is acknowledged";
  Ack(1);
  EXPECT_EQ(JobsText(), "fetch a 2097152+1048576");
}

TEST_F(SourcePass, WhatIsEqualIsNotKept) {
  m_config.volumes[0].size = 3 * kMiB;
  m_config.resyncBytes = kMiB;
  m_config.memory = 2 * kMiB;
  Online();
  Run();
  AnswerOne();
  Run();
  EXPECT_EQ(Jobs<FetchWindow>() + m_queries.size(), 2U) << "the third, without an ACK";
}

TEST_F(SourcePass, AllMemoryIsReturned) {
  m_config.volumes[0].size = 3 * kMiB + 5000;
  m_config.resyncBytes = 2 * kMiB;
  Begin();
  Differ(100);
  Differ(3 * kMiB);
  Connected();
  Welcome();
  RunAll();
  EXPECT_GT(m_engine->MemoryUsed(), 0U);
  All(Status().closed);
  EXPECT_EQ(m_engine->MemoryUsed(), 0U);
  EXPECT_TRUE(m_engine->m_held.empty());
  EXPECT_TRUE(m_engine->m_resyncPart.empty());
  EXPECT_TRUE(m_engine->m_jobs.empty());
}

// --- Failures. ---

TEST_F(SourcePass, AVolumeThatCannotBeReadIsTheEnd) {
  Online();
  const auto fetch = TakeJob<FetchWindow>();
  WindowFetched result = ZeroWindow(fetch);
  result.status = IoStatus::kFailed;
  result.error = "bad sector";
  m_engine->Completed(std::move(result), m_now);
  EXPECT_EQ(Out(), "dropped");
  EXPECT_EQ(Failure(), "volume a: can't read at byte 0: bad sector");
  EXPECT_EQ(Status().failureCode, ErrorCode::kFailed);
}

TEST_F(SourcePass, APackedWindowWithoutItsDataIsTheEnd) {
  Begin();
  Differ(0);
  Connected();
  Welcome();
  Run();
  AnswerOne();
  const auto pack = TakeJob<PackRuns>();
  m_engine->Completed(RunsPacked{pack.ticket, nullptr, pack.runs}, m_now);
  EXPECT_EQ(Failure(), "a window was packed without its data");
}

TEST_F(SourcePass, APipelineThatTakesNoDatasetIsTheEnd) {
  m_config.resyncAtStart = false;
  Online();
  m_engine->m_pipe->SetAcceptStatus(false);
  m_engine->Resync(m_now);
  EXPECT_EQ(Phase(), "stopped");
  EXPECT_EQ(Failure(), "the pipeline refused dataset 1");
}

TEST_F(SourcePass, WorkThatEndsAfterStopIsNotUsed) {
  Online();
  const auto fetch = TakeJob<FetchWindow>();
  m_engine->Stop(m_now);
  Out();
  Carry(fetch);
  EXPECT_EQ(Out(), "");
}

TEST_F(SourcePass, PackedRunsThatComeAfterStopAreNotUsed) {
  Online();
  Run();
  AnswerOne();
  const auto pack = TakeJob<PackRuns>();
  m_engine->Stop(m_now);
  Out();
  m_engine->Completed(DoPackRuns(pack), m_now);
  EXPECT_EQ(Out(), "");
}

}  // namespace
}  // namespace penstock
