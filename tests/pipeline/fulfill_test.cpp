// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <list>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/support/pipeline_rig.h"

// The wait for the last done report. This program stands in for the C library's sleep, so nothing
// here ever sleeps: a nap is written down and handed to the test, which then plays the other
// thread, or really is one.

namespace {

struct Sleeper {
  std::function<void()> onNap;
  std::vector<unsigned> naps;
};

Sleeper& TheSleeper() {
  static Sleeper sleeper;
  return sleeper;
}

}  // namespace

extern "C" unsigned sleep(unsigned seconds) {
  Sleeper& sleeper = TheSleeper();
  sleeper.naps.push_back(seconds);
  if (sleeper.onNap) sleeper.onNap();
  return 0;
}

namespace {

using Naps = std::vector<unsigned>;
using Step = std::function<void()>;

constexpr const char* kNothingToWaitFor =
    "N Pipeline::FulfillPipeData() Pipe: All ds has been processed.\n";
constexpr const char* kFinished = "N Pipeline::FulfillPipeData() Pipe: Task Finished.\n";

std::string Waiting(std::uint64_t front, std::uint64_t back, std::uint64_t size) {
  return "N Pipeline::FulfillPipeData() Pipe: Done pipe front: " + std::to_string(front) +
         ", back: " + std::to_string(back) + ", size: " + std::to_string(size) + "\n";
}

class FulfillPipeData : public PipelineRig {
 protected:
  FulfillPipeData() { TheSleeper() = {}; }
  ~FulfillPipeData() override { TheSleeper() = {}; }

  // Waits, doing one of `steps` in each nap, and returns the trace of the wait alone.
  std::string WaitDuring(std::vector<Step> steps) {
    std::size_t next = 0;
    std::string trace;
    TheSleeper().onNap = [&] {
      // Only an exception gets out of a wait that would never end.
      if (next == steps.size()) throw std::runtime_error("it waits for more than there is");
      trace += Take();
      steps[next++]();
      Forget();
    };
    Forget();
    EXPECT_EQ(m_pipeline.FulfillPipeData(), DS_ERROR_OK);
    EXPECT_EQ(next, steps.size()) << "it did not wait for everything";
    return trace + Take();
  }

  Step DoneOf(std::uint64_t n) {
    return [this, n] { m_pipeline.Done(n, true, false); };
  }
};

TEST_F(FulfillPipeData, ReturnsAtOnceWhenNothingIsPending) {
  EXPECT_EQ(WaitDuring({}), kNothingToWaitFor);
  m_pipeline.SetAcceptStatus(false);
  EXPECT_EQ(WaitDuring({}), kNothingToWaitFor);
  EXPECT_EQ(TheSleeper().naps, Naps{});
}

TEST_F(FulfillPipeData, ReturnsAtOnceWithOneRecordWhileDatasetsAreAccepted) {
  Push(1);
  EXPECT_EQ(WaitDuring({}), kNothingToWaitFor);
  EXPECT_EQ(TheSleeper().naps, Naps{});
}

TEST_F(FulfillPipeData, WaitsForTheLastRecordOnceNoDatasetsAreAccepted) {
  Push(1, true);
  m_pipeline.SetAcceptStatus(false);
  EXPECT_EQ(WaitDuring({[] {}, DoneOf(1), [&] { m_pipeline.MarkStored(1); }}),
            Waiting(1, 1, 1) + kFinished);
  EXPECT_EQ(TheSleeper().naps, (Naps{1, 1, 1}));
}

TEST_F(FulfillPipeData, WaitsUntilOneRecordIsLeftWhileDatasetsAreAccepted) {
  PushAll({3, 5, 9});
  EXPECT_EQ(WaitDuring({DoneOf(3), DoneOf(5)}), Waiting(3, 9, 3) + kFinished);
  EXPECT_EQ(TheSleeper().naps, (Naps{1, 1}));
}

TEST_F(FulfillPipeData, AReportOutOfOrderDoesNotEndTheWait) {
  PushAll({1, 2});
  EXPECT_EQ(WaitDuring({DoneOf(2), DoneOf(1)}), Waiting(1, 2, 2) + kFinished);
}

TEST_F(FulfillPipeData, TheEndOfAcceptanceMidWaitMakesTheLastRecordCount) {
  PushAll({1, 2});
  EXPECT_EQ(WaitDuring({[&] {
                          m_pipeline.SetAcceptStatus(false);
                          m_pipeline.Done(1, true, false);
                        },
                        DoneOf(2)}),
            Waiting(1, 2, 2) + kFinished);
}

TEST_F(FulfillPipeData, AcceptanceMidWaitLetsTheLastRecordBe) {
  Push(1);
  m_pipeline.SetAcceptStatus(false);
  EXPECT_EQ(WaitDuring({[&] { m_pipeline.SetAcceptStatus(true); }}), Waiting(1, 1, 1) + kFinished);
}

TEST_F(FulfillPipeData, ARecordAddedMidWaitIsWaitedForToo) {
  PushAll({1, 2});
  EXPECT_EQ(WaitDuring({[&] { Push(3); }, DoneOf(1), DoneOf(2)}), Waiting(1, 2, 2) + kFinished);
}

TEST_F(FulfillPipeData, EveryOperationThatRemovesRecordsEndsTheWait) {
  m_pipeline.SetAcceptStatus(false);
  const std::vector<Step> removals = {
      [&] { m_pipeline.ClearDonePipe(1); },
      [&] { m_pipeline.DropUnfinishedDs(); },
      [&] { m_pipeline.Reset(); },
      DoneOf(1),
  };
  for (const Step& removal : removals) {
    m_pipeline.Reset();
    m_pipeline.SetAcceptStatus(true);
    Push(1);
    m_pipeline.SetAcceptStatus(false);
    EXPECT_EQ(WaitDuring({removal}), Waiting(1, 1, 1) + kFinished);
  }
}

TEST_F(FulfillPipeData, AReportIsPublishedBeforeTheNextOneIsDelivered) {
  PushAll({1, 2, 3});
  m_pipeline.Done(2, true, false);
  std::vector<std::uint64_t> fronts;
  m_onDone = [&](unsigned long) { fronts.push_back(m_pipeline.m_doneSpanFrontN.load()); };
  m_pipeline.Done(1, true, false);
  EXPECT_EQ(fronts, (std::vector<std::uint64_t>{1, 2}));
  EXPECT_EQ(m_pipeline.m_doneSpanFrontN.load(), 3U);
  EXPECT_EQ(m_pipeline.m_doneSpanBackN.load(), 3U);
  EXPECT_EQ(m_pipeline.m_doneSpanSize.load(), 1U);
}

// Lets two threads take turns: one runs while the other waits for it.
class Baton {
 public:
  void Pass(int to) {
    const std::lock_guard lock(m_mutex);
    m_holder = to;
    m_changed.notify_all();
  }
  void WaitFor(int me) {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return m_holder == me; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  int m_holder = 0;
};

TEST_F(FulfillPipeData, WaitsWhileAnotherThreadDrivesThePipeline) {
  constexpr int kDriver = 0;
  constexpr int kWaiter = 1;
  Baton baton;
  PushAll({1, 2});
  TheSleeper().onNap = [&] {
    baton.Pass(kDriver);
    baton.WaitFor(kWaiter);
  };
  DS_ERROR result = DS_ERROR_FAILED;
  bool returned = false;
  std::thread waiter([&] {
    baton.WaitFor(kWaiter);
    result = m_pipeline.FulfillPipeData();
    returned = true;
    baton.Pass(kDriver);
  });
  const auto letItLook = [&] {
    baton.Pass(kWaiter);
    baton.WaitFor(kDriver);
    return returned;
  };
  EXPECT_FALSE(letItLook());
  Push(3);
  m_pipeline.SetAcceptStatus(false);
  EXPECT_FALSE(letItLook());
  m_pipeline.Done(2, true, false);
  EXPECT_FALSE(letItLook());
  m_pipeline.Done(1, true, false);
  EXPECT_FALSE(letItLook());
  m_pipeline.Done(3, true, false);
  EXPECT_TRUE(letItLook());
  waiter.join();
  EXPECT_EQ(result, DS_ERROR_OK);
  EXPECT_EQ(TheSleeper().naps, (Naps{1, 1, 1, 1}));
}

// One thread changes the done pipe as fast as it can, in random steps; another waits again and
// again. Every state that the wait logs must be one that the pipe was in.
class ConcurrentChange : public FulfillPipeData {
 protected:
  using State = std::tuple<std::uint64_t, std::uint64_t, std::uint64_t>;

  ConcurrentChange() {
    CLogger::GetInstance().SetLevel(LOG_NOTICE);
    m_pipeline.SetTransmitterCb([](std::shared_ptr<Dataset>&) { return 0; });
    m_pipeline.SetFlushedCb({});
    m_pipeline.SetDoneCb([this](unsigned long, bool, bool, bool) { Remember(); });
    TheSleeper().onNap = [] {
      TheSleeper().naps.clear();
      std::this_thread::yield();
    };
  }

  void Remember() {
    const std::list<DoneInfo>& pipe = m_pipeline.m_donePipe;
    if (!pipe.empty()) m_states.emplace(pipe.front().n, pipe.back().n, pipe.size());
  }

  void Change(std::mt19937_64& random) {
    const std::list<DoneInfo>& pipe = m_pipeline.m_donePipe;
    const std::uint64_t choice = random() % 16;
    if (choice < 8 && pipe.size() < 6) {
      m_pipeline.PushDs(NormalDs(m_pipeline.m_lastReceived + 1 + random() % 1000), false);
    } else if (choice < 9) {
      m_pipeline.SetAcceptStatus(random() % 4 != 0);
    } else if (choice < 10) {
      m_pipeline.DropUnfinishedDs();
    } else if (choice < 11 && !pipe.empty()) {
      m_pipeline.ClearDonePipe(pipe.front().n);
    } else if (choice < 12) {
      m_pipeline.ClearDonePipe(m_pipeline.m_lastReceived);
    } else if (!pipe.empty()) {
      m_pipeline.Done(random() % 2 == 0 ? pipe.front().n : pipe.back().n, true, false);
    }
    Remember();
    if (const auto [any, n] = m_pipeline.GetCurXmitDsNum(); any) m_pipeline.Ack(n, nullptr);
  }

  // Waits again and again until told to stop; returns every state that was logged.
  std::vector<State> WaitRepeatedly(const std::atomic<bool>& stop, std::atomic<int>& seen) {
    std::vector<State> states;
    while (!stop.load()) {
      EXPECT_EQ(m_pipeline.FulfillPipeData(), DS_ERROR_OK);
      for (const std::string& line : m_log.Take()) {
        unsigned long front = 0;
        unsigned long back = 0;
        unsigned long size = 0;
        if (std::sscanf(line.c_str(),
                        "N Pipeline::FulfillPipeData() Pipe: Done pipe front: %lu, back: %lu, "
                        "size: %lu",
                        &front, &back, &size) == 3) {
          states.emplace_back(front, back, size);
          seen.fetch_add(1);
        }
      }
    }
    return states;
  }

  std::set<State> m_states;
};

TEST_F(ConcurrentChange, EveryLoggedStateIsOneThatThePipeWasIn) {
  const char* given = std::getenv("PENSTOCK_SEED");
  const std::uint64_t seed = given ? std::strtoull(given, nullptr, 10) : std::random_device{}();
  std::cout << "PENSTOCK_SEED=" << seed << std::endl;
  std::mt19937_64 random(seed);
  std::atomic<bool> stop{false};
  std::atomic<int> seen{0};
  std::vector<State> logged;
  std::thread waiter([&] { logged = WaitRepeatedly(stop, seen); });
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (seen.load() < 300 && std::chrono::steady_clock::now() < giveUp) Change(random);
  stop.store(true);
  m_pipeline.ClearDonePipe(m_pipeline.m_lastReceived);  // ends a wait that is under way
  waiter.join();
  EXPECT_GT(logged.size(), 0U);
  for (const State& state : logged) {
    EXPECT_TRUE(m_states.contains(state)) << "front " << std::get<0>(state) << " back "
                                          << std::get<1>(state) << " size " << std::get<2>(state);
  }
}

}  // namespace
