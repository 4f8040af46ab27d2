// SPDX-License-Identifier: Apache-2.0
// Goal: what can't be read at the source is tried again, without anybody's help: what a refused
// write left is compared as soon as it can be read, and a comparison that met it begins anew.
#include "tests/engine/source_live_rig.h"

namespace penstock {
namespace {

class SourceRefused : public SourceLive {
 protected:
  SourceRefused() { m_config.readAgain = 4'000; }
  // A write that the volume refused, and whose range can't be read.
  void Refuse(std::uint64_t offset, std::uint64_t length = 4096, std::uint8_t volume = 0) {
    m_capture->BeginWrite(volume, offset, length);
    SaveMap(volume);
    m_capture->Failed(volume, offset, length);
  }
  // The oldest read meets a bad sector.
  std::string ReadFails() {
    WindowFetched result;
    result.ticket = TakeJob<FetchWindow>().ticket;
    result.status = IoStatus::kFailed;
    result.error = "bad sector";
    m_engine->Completed(std::move(result), m_now);
    return Out();
  }
  std::string WaitForNextRead() { return Wait(m_config.readAgain); }
  bool IsNoted(const std::string& text) const {
    return std::ranges::any_of(m_notes, [&](const auto& note) { return Contains(note, text); });
  }
};

TEST_F(SourceRefused, WhatCanBeReadAgainIsCompared) {
  Online();
  Refuse(4096);
  EXPECT_EQ(WaitForNextRead(), "");
  EXPECT_EQ(JobsText(), "fetch a 4096+4096");
  EXPECT_FALSE(Status().resyncing);
  EXPECT_EQ(Work(),
            "START 1 resync begins, PROGRESS closed 1 sent 0, QUERY 1 4096+4096, END 1, "
            "START 2 complete, END 2");
  EXPECT_EQ(m_capture->TotalStale(), 0U);
}

TEST_F(SourceRefused, WhatWasCapturedBeforeItIsSentFirst) {
  m_config.interval = 60'000;
  Online();
  Guest(4096);
  Refuse(4096);
  CloseNumber();
  Work();
  Guest(8192);  // behind it: this one may wait
  m_now.steady += m_config.readAgain;
  m_engine->StepRefused(m_now);
  Out();
  EXPECT_FALSE(Contains(Do<FetchWindow>(), "START"));
  EXPECT_TRUE(Contains(All(1), "START 2 resync begins"));
  EXPECT_TRUE(Contains(Work(), "START 3 complete, BLOCK 0 raw 8192+4096, END 3"));
}

TEST_F(SourceRefused, NothingIsKeptForTheNextProcessAsLongAsItIsNotCompared) {
  Online();
  Refuse(4096);
  EXPECT_EQ(m_engine->KeptUpTo(), std::nullopt);
}

TEST_F(SourceRefused, NothingIsComparedBeforeAllOfItCanBeRead) {
  Online();
  Refuse(0);
  Refuse(8192);
  Refuse(4096, 4096, 1);
  WaitForNextRead();
  EXPECT_EQ(JobsText(), "fetch a 0+4096");
  EXPECT_EQ(Do<FetchWindow>(), "");
  EXPECT_EQ(JobsText(), "fetch a 8192+4096");
  EXPECT_EQ(Do<FetchWindow>(), "");
  EXPECT_EQ(JobsText(), "fetch b 4096+4096");
  EXPECT_EQ(ReadFails(), "");
  EXPECT_TRUE(IsNoted("volume b: what a refused write left can't be read"));
  EXPECT_EQ(JobsText(), "");
  EXPECT_FALSE(Status().resyncing);
  EXPECT_EQ(Wait(m_config.readAgain - 1), "");
  EXPECT_EQ(JobsText(), "");
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + 1);
  Wait(1);
  EXPECT_EQ(JobsText(), "fetch a 0+4096") << "from the beginning: it may have got worse";
  Do<FetchWindow>();
  Do<FetchWindow>();
  Do<FetchWindow>();
  EXPECT_TRUE(Status().resyncing);
}

TEST_F(SourceRefused, AsLongAsItCannotBeReadEverythingElseGoesOn) {
  Online();
  Refuse(4096);
  for (int i = 0; i < 3; ++i) {
    WaitForNextRead();
    ReadFails();
    Guest(0);
    m_engine->CloseDataset(m_now);
    EXPECT_TRUE(Contains(Work(), "BLOCK 0 raw 0+4096"));
    All(Status().closed);
    EXPECT_TRUE(m_engine->IsSettled());
  }
  EXPECT_EQ(std::ranges::count_if(m_notes,
                                  [](const auto& note) { return Contains(note, "refused write"); }),
            1)
      << "it is said once";
}

TEST_F(SourceRefused, ThePassBeginsWhenNothingIsInBetween) {
  Online();
  Refuse(4096);
  WaitForNextRead();
  Guest(0);
  CloseNumber();
  Do<FetchWindow>();  // the probe, and not yet a comparison
  Work();
  EXPECT_FALSE(Status().resyncing);
  EXPECT_GT(m_engine->NextDeadline(), m_now.steady);
  Ack(1);
  EXPECT_FALSE(Status().resyncing);
  EXPECT_TRUE(Contains(Done(1), "START 2 resync begins"));
}

TEST_F(SourceRefused, WhatIsRefusedAfterTheLastReadIsReadBeforeAnythingIsCompared) {
  Online();
  Refuse(4096);
  WaitForNextRead();
  Guest(0);
  CloseNumber();
  Do<FetchWindow>();
  Work();
  Refuse(8192);
  EXPECT_EQ(All(1), "");
  EXPECT_FALSE(Status().resyncing);
  WaitForNextRead();
  Do<FetchWindow>();
  EXPECT_EQ(ReadFails(), "");
  EXPECT_TRUE(m_capture->IsRecording());
  EXPECT_FALSE(Status().resyncing) << "one place that can't be read is no reason to give up";
}

TEST_F(SourceRefused, WhatIsRefusedWhileTheOthersAreReadIsReadToo) {
  Online();
  Refuse(8192);
  WaitForNextRead();
  Refuse(4096);  // the reading is behind it
  EXPECT_EQ(Do<FetchWindow>(), "");
  EXPECT_FALSE(Status().resyncing);
  WaitForNextRead();
  EXPECT_EQ(JobsText(), "fetch a 4096+4096");
}

TEST_F(SourceRefused, ALostConnectionIsWaitedFor) {
  Online();
  Refuse(4096);
  WaitForNextRead();
  m_engine->ConnClosed(m_conn, "reset", m_now);
  Do<FetchWindow>();
  Guest(0);
  Wait(m_config.interval);
  EXPECT_EQ(Status().closed, 1U) << "what is captured does not wait for the comparison";
  Connected();
  Welcome();
  EXPECT_TRUE(Contains(Work(), "END 1"));
  EXPECT_TRUE(Contains(All(1), "START 2 resync begins"));
}

TEST_F(SourceRefused, AComparisonThatCannotReadBeginsAnew) {
  m_state = VolumeState::kNeedsResync;
  Online();
  Answer<SaveMaps>();
  ReadFails();
  EXPECT_EQ(Phase(), "reconnecting");
  EXPECT_EQ(Status().lastOverflow, "volume a: can't read at byte 0: bad sector");
  EXPECT_FALSE(m_capture->IsRecording());
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + m_config.readAgain);
  m_jobs.clear();
  EXPECT_EQ(Wait(m_config.readAgain - 1), "");
  EXPECT_EQ(Wait(1), "connect");
  Connected();
  Welcome();
  Answer<SaveMaps>();
  Work();
  EXPECT_EQ(m_capture->TotalStale(), 0U);
  EXPECT_EQ(Phase(), "online");
}

TEST_F(SourceRefused, AnAnswerForABacklogThatWasGivenUpIsForNobody) {
  Online();
  Refuse(4096);
  WaitForNextRead();
  m_engine->Overflow("its memory is full", m_now);
  Do<FetchWindow>();
  Wait(0);
  Connected();
  EXPECT_EQ(Work(), "");
  EXPECT_TRUE(Contains(Welcome(), "START 1 resync begins"));
}

}  // namespace
}  // namespace penstock
