// SPDX-License-Identifier: Apache-2.0
// Goal: work runs off the loop, completions on it; a strand's jobs keep their order and never
// overlap; the end waits for what runs. Method: jobs that note what they see; gates instead of
// sleeps.
#include "replicator/worker_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "tests/replicator/rig.h"

namespace penstock {
namespace {

class Pool : public testing::Test {
 protected:
  std::function<void()> Poke() {
    return [this] { m_runner.Poke(); };
  }
  bool RunDry(WorkerPool& pool) {
    return m_runner.Until([&] { return pool.Pending() == 0; });
  }

  EventLoop m_loop;
  LoopRunner m_runner{m_loop};
};

TEST_F(Pool, WorksOffTheLoopAndCompletesOnIt) {
  WorkerPool pool(m_loop, 2);
  std::thread::id worker;
  std::thread::id completion;
  ASSERT_TRUE(pool.Submit([&] { worker = std::this_thread::get_id(); },
                          [&] {
                            completion = std::this_thread::get_id();
                            m_runner.Poke();
                          }));
  EXPECT_EQ(pool.Pending(), 1U);
  ASSERT_TRUE(RunDry(pool));
  EXPECT_NE(worker, std::this_thread::get_id());
  EXPECT_EQ(completion, std::this_thread::get_id());
}

TEST_F(Pool, AStrandKeepsItsOrderAndNeverOverlaps) {
  constexpr int kJobs = 500;
  WorkerPool pool(m_loop, 4);
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  std::vector<int> worked;
  std::vector<int> completed;
  for (int i = 0; i < kJobs; ++i) {
    pool.Submit(
        "strand",
        [&, i] {
          if (running.fetch_add(1) != 0) overlapped = true;
          worked.push_back(i);
          running.fetch_sub(1);
        },
        [&, i] {
          completed.push_back(i);
          m_runner.Poke();
        });
  }
  ASSERT_TRUE(RunDry(pool));
  EXPECT_FALSE(overlapped);
  std::vector<int> expected(kJobs);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(worked, expected);
  EXPECT_EQ(completed, expected);
}

TEST_F(Pool, StrandsDoNotWaitForEachOther) {
  WorkerPool pool(m_loop, 2);
  std::promise<void> gate;
  pool.Submit(
      "a", [opened = gate.get_future().share()] { opened.wait(); }, Poke());
  pool.Submit(
      "b", [&] { gate.set_value(); }, Poke());
  EXPECT_TRUE(RunDry(pool));
}

TEST_F(Pool, AStrandThatRanDryTakesJobsAgain) {
  WorkerPool pool(m_loop, 2);
  int count = 0;
  for (int round = 0; round < 3; ++round) {
    pool.Submit(
        "a", [&] { ++count; }, Poke());
    ASSERT_TRUE(RunDry(pool));
  }
  EXPECT_EQ(count, 3);
}

TEST_F(Pool, ManyCompletionsTakeOneTurnOfTheLoop) {
  constexpr int kJobs = 100;
  WorkerPool pool(m_loop, 1);
  std::promise<void> last;
  int completed = 0;
  for (int i = 0; i < kJobs; ++i) {
    pool.Submit({}, [&] {
      ++completed;
      m_loop.Stop();  // after this turn
    });
  }
  pool.Submit([&] { last.set_value(); }, Poke());
  last.get_future().wait();  // the loop has not run yet
  m_loop.Run();
  EXPECT_GE(completed, kJobs);
}

TEST_F(Pool, AFullQueueTakesNothing) {
  WorkerPool pool(m_loop, 1, 2);
  std::promise<void> gate;
  const auto opened = gate.get_future().share();
  EXPECT_TRUE(pool.Submit([opened] { opened.wait(); }, Poke()));
  EXPECT_TRUE(pool.HasRoom());
  EXPECT_TRUE(pool.Submit({}, Poke()));
  EXPECT_FALSE(pool.HasRoom());
  bool ran = false;
  EXPECT_FALSE(pool.Submit([&] { ran = true; }, Poke()));
  gate.set_value();
  ASSERT_TRUE(RunDry(pool));
  EXPECT_FALSE(ran);
  EXPECT_TRUE(pool.HasRoom());
}

TEST_F(Pool, ACompletionMaySubmit) {
  WorkerPool pool(m_loop, 1);
  int rounds = 0;
  std::function<void()> again = [&] {
    if (++rounds < 5) pool.Submit("s", {}, again);
    m_runner.Poke();
  };
  pool.Submit("s", {}, again);
  ASSERT_TRUE(RunDry(pool));
  EXPECT_EQ(rounds, 5);
}

TEST_F(Pool, StopWaitsForWhatRunsAndDropsTheRest) {
  WorkerPool pool(m_loop, 1);
  std::promise<void> begun;
  std::atomic<bool> finished{false};
  bool completed = false;
  bool ranSecond = false;
  const auto held = std::make_shared<int>(1);
  pool.Submit(
      [&] {
        begun.set_value();
        std::this_thread::yield();
        finished = true;
      },
      [&] { completed = true; });
  begun.get_future().wait();
  pool.Submit(
      "s", [&, held] { ranSecond = true; }, [held] {});
  pool.Submit(
      "s", [held] {}, [held] {});
  pool.Stop();
  EXPECT_TRUE(finished);
  m_runner.Settle();
  EXPECT_FALSE(completed);
  EXPECT_FALSE(ranSecond && held.use_count() > 1);
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_FALSE(pool.Submit({}, {}));
}

TEST_F(Pool, MayBeDestroyedByACompletion) {
  auto pool = std::make_unique<WorkerPool>(m_loop, 2);
  int completions = 0;
  for (int i = 0; i < 10; ++i) {
    pool->Submit({}, [&] {
      ++completions;
      pool = nullptr;
      m_runner.Poke();
    });
  }
  EXPECT_TRUE(m_runner.Until([&] { return pool == nullptr; }));
  m_runner.Settle();
  EXPECT_EQ(completions, 1);
}

TEST_F(Pool, HasAtLeastOneThread) {
  WorkerPool pool(m_loop, 0);
  EXPECT_EQ(pool.Threads(), 1U);
  pool.Submit({}, Poke());
  EXPECT_TRUE(RunDry(pool));
}

}  // namespace
}  // namespace penstock
