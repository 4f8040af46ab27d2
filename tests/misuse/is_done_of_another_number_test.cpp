// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>
#include <thread>

#include "tests/support/pipeline_rig.h"

// The mistake: IsDone of a number that is not the oldest record's. Answered: never. A child process
// asks; it must still be asking after a while, in an optimised build too, and is then killed.

namespace {

constexpr std::chrono::milliseconds kWhile{300};
constexpr std::chrono::seconds kLongEnough{60};  // for a call that returns, on a busy machine
constexpr std::chrono::milliseconds kPause{10};
constexpr int kReturned = 3;

class IsDoneOfAnotherNumber : public PipelineRig {
 protected:
  // What a child that asks for `n` has come to after `limit` at most.
  std::string Ask(std::uint64_t n, std::chrono::milliseconds limit) {
    const pid_t child = fork();
    if (child == 0) {
      m_pipeline.IsDone(n);
      _exit(kReturned);
    }
    EXPECT_GT(child, 0);
    int status = 0;
    pid_t ended = 0;
    const auto until = std::chrono::steady_clock::now() + limit;
    while (ended == 0 && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(kPause);
      ended = waitpid(child, &status, WNOHANG);
    }
    if (ended == 0) {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
      return "still asking";
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == kReturned ? "answered" : "died";
  }
};

TEST_F(IsDoneOfAnotherNumber, NeverReturns) {
  PushAll({5, 6});
  EXPECT_EQ(Ask(6, kWhile), "still asking") << "the later record";
  EXPECT_EQ(Ask(4, kWhile), "still asking") << "no record at all";
}

TEST_F(IsDoneOfAnotherNumber, TheOldestRecordAndAnEmptyPipeAreAnswered) {
  EXPECT_EQ(Ask(1, kLongEnough), "answered");
  PushAll({5, 6});
  EXPECT_EQ(Ask(5, kLongEnough), "answered");
}

}  // namespace
