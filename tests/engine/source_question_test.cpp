// SPDX-License-Identifier: Apache-2.0
// Goal: an answer counts only for a question that was asked on this connection and is still open,
// and a question that lost its connection is asked anew.
// Method: passes whose answers are changed by one field, and passes that lose their connection at
// each stage of a window.
#include "tests/engine/source_rig.h"

namespace penstock {
namespace {

class SourceQuestions : public SourceRig {
 protected:
  SourceQuestions() { m_config.resyncAtStart = true; }
};

// --- Answers to no question. ---

class SourceAnswers : public SourceQuestions {
 protected:
  // One that differs from the right one.
  std::string Wrong(const std::function<void(Answer&)>& change) {
    m_config.volumes[0].size = 2 * kMiB;
    Online();
    Run();
    Answer answer = AnswerOf();
    change(answer);
    EXPECT_EQ(Receive(Encode(answer)), "dropped");
    EXPECT_EQ(Status().damaged, 1U);
    return Status().lastTrouble;
  }
  static constexpr const char* kNoQuestion =
      "the target sent what it must not: an answer to no question";
};

TEST_F(SourceAnswers, OfAnotherDatasetAreRefused) {
  EXPECT_EQ(Wrong([](Answer& answer) { answer.n = 9; }), kNoQuestion);
}

TEST_F(SourceAnswers, OfAnotherVolumeAreRefused) {
  EXPECT_EQ(Wrong([](Answer& answer) { answer.volume = 1; }), kNoQuestion);
}

TEST_F(SourceAnswers, BetweenWindowsAreRefused) {
  EXPECT_EQ(Wrong([](Answer& answer) { answer.offset = 4096; }), kNoQuestion);
}

TEST_F(SourceAnswers, BehindTheRangeAreRefused) {
  EXPECT_EQ(Wrong([](Answer& answer) { answer.offset = 64 * kMiB; }), kNoQuestion);
}

TEST_F(SourceAnswers, OfAnotherLengthAreRefused) {
  EXPECT_EQ(Wrong([](Answer& answer) {
              answer.length = 4096;
              answer.runs = {{.firstBlock = 0, .blocks = 1, .equal = false, .strong = {}}};
            }),
            kNoQuestion);
}

TEST_F(SourceAnswers, ThatDoNotCoverTheirWindowAreRefused) {
  EXPECT_EQ(Wrong([](Answer& answer) { answer.runs.clear(); }),
            "the target sent what it must not: runs that don't cover the window");
}

TEST_F(SourceAnswers, InFrontOfTheRangeAreRefused) {
  m_config.volumes[0].size = 2 * kMiB;
  m_config.resyncBytes = kMiB;
  Online();
  Run();
  m_queries.pop_front();
  Answer answer = AnswerOf();
  ASSERT_EQ(answer.n, 2U);
  answer.offset = 0;
  Receive(Encode(answer));
  EXPECT_EQ(Status().lastTrouble, kNoQuestion);
}

TEST_F(SourceAnswers, GivenTwiceAreRefused) {
  Online();
  Run();
  const Answer answer = AnswerOf();
  Receive(Encode(answer));
  EXPECT_EQ(Receive(Encode(answer)), "dropped");
  EXPECT_EQ(Status().lastTrouble, kNoQuestion);
}

TEST_F(SourceAnswers, BeforeTheQuestionAreRefused) {
  Online();
  const Answer early{1, 0, 0, 65536, {{0, 16, false, {}}}};
  EXPECT_EQ(Receive(Encode(early)), "dropped");
  EXPECT_EQ(Status().lastTrouble, kNoQuestion);
}

// --- Lost connections. ---

TEST_F(SourceQuestions, QuestionsWithoutAnAnswerAreAskedAgainUnderTheNewSeed) {
  Online();
  Run();
  const Query before = m_queries.front();
  Reconnect();
  EXPECT_EQ(Welcome(), "START 1 resync begins");
  EXPECT_EQ(JobsText(), "fetch a 0+65536") << "read again: it may have been written meanwhile";
  EXPECT_EQ(Run(), "QUERY 1 0+65536");
  EXPECT_NE(m_queries.back().fingerprints, before.fingerprints);
  EXPECT_TRUE(Contains(RunAll(), "END 1, START 2 complete, END 2"));
}

TEST_F(SourceQuestions, AWindowThatWasFingerprintedForALostConnectionIsReadAgain) {
  Online();
  const auto old = TakeJob<FetchWindow>();
  Reconnect();
  Welcome();
  EXPECT_EQ(JobsText(), "");
  Carry(old);
  EXPECT_EQ(Out(), "");
  EXPECT_EQ(JobsText(), "fetch a 0+65536");
  EXPECT_EQ(TakeJob<FetchWindow>().seed, m_hello.fingerprintSeed);
}

TEST_F(SourceQuestions, WindowsThatWaitForTheirTurnAreReadAgainToo) {
  m_config.volumes[0].size = 2 * kMiB;
  Online();
  const auto first = TakeJob<FetchWindow>();
  Do<FetchWindow>();
  Reconnect();
  Welcome();
  Carry(first);
  EXPECT_EQ(Out(), "");
  EXPECT_EQ(CountOf(RunAll(), "QUERY"), 2U);
  EXPECT_EQ(Status().syncedAt, 2U);
}

TEST_F(SourceQuestions, AnAnswerThatCameStaysAnswered) {
  Begin();
  Differ(0);
  Connected();
  Welcome();
  Run();
  AnswerOne();
  ASSERT_EQ(Jobs<PackRuns>(), 1U);
  Reconnect();
  EXPECT_EQ(Welcome(), "START 1 resync begins");
  EXPECT_EQ(JobsText(), "pack 0+65536");
  EXPECT_TRUE(Contains(Run(), "BLOCK 0 raw 0+4096, END 1"));
}

TEST_F(SourceQuestions, RangesThatAreDurableAreNotComparedAgain) {
  m_config.volumes[0].size = 2 * kMiB;
  m_config.resyncBytes = kMiB;
  Online();
  Run();
  AnswerOne();
  Run();
  Ack(1);
  Reconnect();
  EXPECT_EQ(Welcome(), "START 2 resync");
  EXPECT_EQ(JobsText(), "fetch a 1048576+1048576");
}

TEST_F(SourceQuestions, WithoutAConnectionNothingNewIsRead) {
  m_config.volumes[0].size = 4 * kMiB;
  m_config.fetchJobs = 1;
  Online();
  const auto fetch = TakeJob<FetchWindow>();
  m_engine->ConnClosed(m_conn, "reset", m_now);
  Carry(fetch);
  EXPECT_EQ(JobsText(), "");
}

}  // namespace
}  // namespace penstock
