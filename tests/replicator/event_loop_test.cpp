// SPDX-License-Identifier: Apache-2.0
// Goal: tasks, timers and signals are run by the loop's thread, in order, once. Method: a loop in
// the test's thread; what it did is gathered as a text.
#include "replicator/event_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace penstock {
namespace {

class Loop : public testing::Test {
 protected:
  std::function<void()> Note(const std::string& text) {
    return [this, text] { m_notes += text; };
  }
  std::function<void()> Stop() {
    return [this] { m_loop.Stop(); };
  }

  EventLoop m_loop;
  std::string m_notes;
};

TEST_F(Loop, RunsTasksInTheOrderOfTheirPosting) {
  m_loop.Post(Note("a"));
  m_loop.Post(Note("b"));
  m_loop.Post(Stop());
  m_loop.Run();
  EXPECT_EQ(m_notes, "ab");
}

TEST_F(Loop, NeverRunsATaskWithinThePosting) {
  m_loop.Post([&] {
    m_loop.Post(Note("inner"));
    m_notes += "outer ";
    m_loop.Post(Stop());
  });
  m_loop.Run();
  EXPECT_EQ(m_notes, "outer inner");
}

TEST_F(Loop, WhatIsLeftAfterStopWaitsForTheNextRun) {
  m_loop.Post(Stop());
  m_loop.Post(Note("later"));
  m_loop.Run();
  EXPECT_EQ(m_notes, "");
  m_loop.Post(Stop());
  m_loop.Run();
  EXPECT_EQ(m_notes, "later");
}

TEST_F(Loop, TakesTasksFromManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kTasks = 1000;
  int count = 0;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kTasks; ++i) {
        m_loop.Post([&] {
          if (++count == kThreads * kTasks) m_loop.Stop();
        });
      }
    });
  }
  m_loop.Run();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(count, kThreads * kTasks);
}

TEST_F(Loop, RunsTimersByTheirTime) {
  m_loop.After(30, Stop());
  m_loop.After(10, Note("second "));
  m_loop.After(0, Note("first "));
  m_loop.At(EventLoop::NowMs() + 20, Note("third"));
  m_loop.Run();
  EXPECT_EQ(m_notes, "first second third");
}

TEST_F(Loop, ATimerIsNeverEarly) {
  const auto begin = EventLoop::NowMs();
  m_loop.After(25, Stop());
  m_loop.Run();
  EXPECT_GE(EventLoop::NowMs() - begin, 25U);
}

TEST_F(Loop, ACancelledTimerDoesNotRun) {
  const auto timer = m_loop.After(1, Note("cancelled"));
  m_loop.Cancel(timer);
  m_loop.After(10, Stop());
  m_loop.Run();
  EXPECT_EQ(m_notes, "");
}

TEST_F(Loop, ATimerThatIsDueIsStillCancelled) {
  EventLoop::TimerId second = 0;
  const auto now = EventLoop::NowMs();
  m_loop.At(now, [&] { m_loop.Cancel(second); });
  second = m_loop.At(now, Note("cancelled"));
  m_loop.After(10, Stop());
  m_loop.Run();
  EXPECT_EQ(m_notes, "");
}

TEST_F(Loop, NumbersOfTimersAreNotUsedAgain) {
  const auto first = m_loop.After(1, Note("a"));
  m_loop.Cancel(first);
  const auto second = m_loop.After(1, Note("b"));
  m_loop.Cancel(first);
  m_loop.Cancel(0);
  EXPECT_NE(first, second);
  m_loop.After(10, Stop());
  m_loop.Run();
  EXPECT_EQ(m_notes, "b");
}

TEST_F(Loop, ATimerInTheFarFutureIsHarmless) {
  m_loop.After(~std::uint64_t{0}, Note("never"));
  m_loop.At(~std::uint64_t{0}, Note("never"));
  m_loop.After(5, Stop());
  m_loop.Run();
  EXPECT_EQ(m_notes, "");
}

TEST_F(Loop, TellsItsThread) {
  bool inside = false;
  EXPECT_FALSE(m_loop.IsLoopThread());
  m_loop.Post([&] {
    inside = m_loop.IsLoopThread();
    m_loop.Stop();
  });
  m_loop.Run();
  EXPECT_TRUE(inside);
  EXPECT_FALSE(m_loop.IsLoopThread());
}

TEST_F(Loop, BringsSignalsToTheLoop) {
  m_loop.OnSignals([&](int number) {
    m_notes += number == SIGTERM ? "term" : "int ";
    if (number == SIGTERM) m_loop.Stop();
  });
  m_loop.Post([] { std::raise(SIGINT); });
  m_loop.After(20, [] { std::raise(SIGTERM); });
  m_loop.Run();
  EXPECT_EQ(m_notes, "int term");
}

TEST_F(Loop, StaysUsableAfterAnException) {
  m_loop.Post([] { throw std::runtime_error("out"); });
  m_loop.Post(Note("still here"));
  EXPECT_THROW(m_loop.Run(), std::runtime_error);
  m_loop.Post(Stop());
  m_loop.Run();
  EXPECT_EQ(m_notes, "still here");
}

TEST(LoopsEnd, DestroysWhatWasNotRun) {
  const auto held = std::make_shared<int>(1);
  {
    EventLoop loop;
    loop.Post([held] {});
    loop.After(1'000'000, [held] {});
  }
  EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace penstock
