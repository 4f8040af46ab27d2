// SPDX-License-Identifier: Apache-2.0
// Goal: a log record carries its five values and its text, is emitted by the threshold's rule, and
// ends the process rather than throw. Method: records are made by hand, as a host may do, and
// caught by a sink; what ends the process runs in a child.
#include "penstock/log_proxy.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>

#include "penstock/host/logger.h"
#include "tests/support/log_capture.h"
#include "tests/support/make.h"

namespace {

static_assert(std::is_base_of_v<std::ostringstream, LogProxy>);
static_assert(std::is_convertible_v<LogProxy*, std::ostringstream*>, "derived publicly");
static_assert(!std::is_copy_constructible_v<LogProxy>);

// The level at which nothing that the library writes is emitted.
constexpr int kAboveAllLevels = 5;

// Writes one record as a logging statement does.
template <class... Pieces>
void Write(int level, const Pieces&... pieces) {
  LogProxy record(level, "prefix", 7, "Someone::Writes()", 12);
  ((record << 0) << ... << pieces);
}

struct Ending {
  bool bySignal;
  int code;  // the signal's number or the exit code
};

// How a child process ends that runs `body` and would else exit with 0.
Ending EndOfAChildThatRuns(const std::function<void()>& body) {
  const pid_t child = ::fork();
  if (child == 0) {
    const rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    ::close(STDERR_FILENO);  // what the runtime says of the end
    body();
    ::_exit(0);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) != child) {
  }
  if (WIFSIGNALED(status)) return {true, WTERMSIG(status)};
  return {false, WEXITSTATUS(status)};
}

class LogProxyRecord : public testing::Test {
 protected:
  Lines Written() { return m_log.Take(); }
  LogRecord TheRecord() {
    const std::vector<LogRecord> records = m_log.Records();
    EXPECT_EQ(records.size(), 1U);
    return records.empty() ? LogRecord{} : records[0];
  }

  LogCapture m_log;
};

TEST_F(LogProxyRecord, CarriesItsFiveValuesAndItsText) {
  Write(LOG_NOTICE, "hello");
  const LogRecord record = TheRecord();
  EXPECT_EQ(record.level, LOG_NOTICE);
  EXPECT_EQ(record.prefix, "prefix");
  EXPECT_EQ(record.requestId, 7U);
  EXPECT_EQ(record.function, "Someone::Writes()");
  EXPECT_EQ(record.line, 12);
  EXPECT_EQ(record.text, "hello");
}

TEST_F(LogProxyRecord, CarriesTheLargestRequestIdAndLine) {
  LogProxy(LOG_INFO, "", 0xffffffffffffffffU, "", 0x7fffffffU) << 0;
  EXPECT_EQ(TheRecord().requestId, 0xffffffffffffffffU);
  EXPECT_EQ(TheRecord().line, 0x7fffffff);
}

TEST_F(LogProxyRecord, HoldsCopiesOfBothStrings) {
  std::string prefix = "first prefix, longer than any short string";
  std::string function = "First::Function() of a name that is long";
  {
    LogProxy record(LOG_INFO, prefix, 0, function, 0);
    prefix.assign(prefix.size(), 'x');
    function.assign(function.size(), 'x');
    EXPECT_EQ(record.m_prefix, "first prefix, longer than any short string");
    record << 0;
  }
  EXPECT_EQ(TheRecord().prefix, "first prefix, longer than any short string");
  EXPECT_EQ(TheRecord().function, "First::Function() of a name that is long");
}

TEST_F(LogProxyRecord, BeginsWithAnEmptyText) {
  LogProxy record(LOG_INFO, "p", 3, "f()", 4);
  EXPECT_EQ(record.str(), "");
  EXPECT_EQ(record.m_level, LOG_INFO);
  EXPECT_EQ(record.m_requestId, 3U);
  EXPECT_EQ(record.m_function, "f()");
  EXPECT_EQ(record.m_line, 4U);
  record << 0;
}

TEST_F(LogProxyRecord, DropsTheLeadingZero) {
  Write(LOG_INFO, "ack too old  N: ", 7);
  EXPECT_EQ(Written(), (Lines{"I Someone::Writes() ack too old  N: 7"}));
}

TEST_F(LogProxyRecord, DropsTheFirstCharacterWhateverItIs) {
  LogProxy(LOG_INFO, "", 0, "f()", 0) << "xyz";
  EXPECT_EQ(Written(), (Lines{"I f() yz"}));
}

TEST_F(LogProxyRecord, KeepsTheBlanksOfAPiece) {
  Write(LOG_INFO, "  two before, two behind  ");
  EXPECT_EQ(TheRecord().text, "  two before, two behind  ");
}

TEST_F(LogProxyRecord, OfTheZeroAloneHasAnEmptyText) {
  Write(LOG_INFO);
  EXPECT_EQ(Written(), (Lines{"I Someone::Writes() "}));
}

TEST_F(LogProxyRecord, WritesABlankForEachPercentSign) {
  Write(LOG_ERROR, "100% of %s and %n, %%");
  EXPECT_EQ(Written(), (Lines{"E Someone::Writes() 100  of  s and  n,   "}));
}

TEST_F(LogProxyRecord, KeepsPercentSignsOfPrefixAndFunction) {
  LogProxy(LOG_INFO, "50%s", 0, "operator%()", 0) << 0 << "x";
  EXPECT_EQ(TheRecord().prefix, "50%s");
  EXPECT_EQ(TheRecord().function, "operator%()");
}

TEST_F(LogProxyRecord, CarriesATextOfAnyLength) {
  std::string text(100'000, 'a');
  text.back() = 'z';
  Write(LOG_INFO, text);
  EXPECT_EQ(TheRecord().text, text);
}

TEST_F(LogProxyRecord, IsEmittedOnceWhenItDies) {
  {
    LogProxy record(LOG_INFO, "", 0, "f()", 0);
    record << 0 << "late";
    EXPECT_EQ(Written(), Lines{});
  }
  EXPECT_EQ(Written(), (Lines{"I f() late"}));
}

TEST_F(LogProxyRecord, IsEmittedWhenDeletedThroughTheStream) {
  std::unique_ptr<std::ostream> record = std::make_unique<LogProxy>(LOG_INFO, "", 0, "f()", 0U);
  *record << 0 << "deleted";
  record.reset();
  EXPECT_EQ(Written(), (Lines{"I f() deleted"}));
}

TEST_F(LogProxyRecord, IsMeasuredAgainstTheThresholdOfItsDeath) {
  CLogger& logger = CLogger::GetInstance();
  {
    LogProxy nowEmitted(LOG_INFO, "", 0, "f()", 0);
    nowEmitted << 0 << "made above, died below";
    logger.SetLevel(LOG_ERROR);
    LogProxy nowDropped(LOG_INFO, "", 0, "f()", 0);
    nowDropped << 0 << "never";
  }
  EXPECT_EQ(Written(), Lines{});
  {
    LogProxy record(LOG_INFO, "", 0, "f()", 0);
    record << 0 << "made below";
    logger.SetLevel(LOG_INFO);
  }
  EXPECT_EQ(Written(), (Lines{"I f() made below"}));
}

// A piece that counts how often it is streamed.
struct CountedPiece {
  int* count;
};
std::ostream& operator<<(std::ostream& out, const CountedPiece& piece) {
  ++*piece.count;
  return out << "piece";
}

TEST_F(LogProxyRecord, IsStreamedEvenBelowTheThreshold) {
  CLogger::GetInstance().SetLevel(LOG_ERROR);
  int count = 0;
  Write(LOG_NOTICE, CountedPiece{&count});
  EXPECT_EQ(count, 1);
  EXPECT_EQ(Written(), Lines{});
}

TEST_F(LogProxyRecord, MayBeEmptyBelowTheThreshold) {
  CLogger::GetInstance().SetLevel(LOG_NOTICE);
  { const LogProxy empty(LOG_INFO, "", 0, "f()", 0); }
  EXPECT_EQ(Written(), Lines{});
}

TEST_F(LogProxyRecord, LetsItsStringsMoveIn) {
  std::string prefix = "a prefix that no short string can hold";
  const char* const address = prefix.data();
  LogProxy record(LOG_INFO, std::move(prefix), 0, std::string("f()"), 0);
  EXPECT_EQ(record.m_prefix.data(), address);
  record << 0;
}

class Threshold : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(Threshold, LetsRecordsPassAtItAndAboveOnly) {
  const auto [threshold, level] = GetParam();
  LogCapture log(threshold);
  Write(level, "x");
  EXPECT_EQ(log.Records().size(), level >= threshold ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(Levels, Threshold,
                         testing::Combine(testing::Values(LOG_DEBUG, LOG_INFO, LOG_NOTICE, 3,
                                                          LOG_ERROR, kAboveAllLevels),
                                          testing::Values(LOG_DEBUG, LOG_INFO, LOG_NOTICE,
                                                          LOG_ERROR)));

TEST(LogLevels, HaveTheirNumbers) {
  EXPECT_EQ((std::tuple<int, int, int, int>(LOG_DEBUG, LOG_INFO, LOG_NOTICE, LOG_ERROR)),
            (std::tuple<int, int, int, int>(0, 1, 2, 4)));
}

TEST(LogProxyEnd, AnEmptyRecordAtAnEmittedLevelEndsTheProcess) {
  const Ending end = EndOfAChildThatRuns([] {
    CLogger::GetInstance().SetLevel(LOG_INFO);
    const LogProxy empty(LOG_INFO, "", 0, "f()", 0);
  });
  EXPECT_TRUE(end.bySignal);
  EXPECT_EQ(end.code, SIGABRT);
}

TEST(LogProxyEnd, AnEmptyRecordBelowTheThresholdDoesNotEndTheProcess) {
  const Ending end = EndOfAChildThatRuns([] {
    CLogger::GetInstance().SetLevel(LOG_NOTICE);
    const LogProxy empty(LOG_INFO, "", 0, "f()", 0);
  });
  EXPECT_FALSE(end.bySignal);
  EXPECT_EQ(end.code, 0);
}

TEST(LogProxyEnd, ASinkThatThrowsEndsTheProcess) {
  const Ending end = EndOfAChildThatRuns([] {
    CLogger::GetInstance().SetLevel(LOG_INFO);
    CLogger::GetInstance().SetSink([](const LogRecord&) { throw std::runtime_error("full"); });
    try {
      Write(LOG_INFO, "x");
    } catch (const std::runtime_error&) {
      ::_exit(3);  // it escaped
    }
  });
  EXPECT_TRUE(end.bySignal);
  EXPECT_EQ(end.code, SIGABRT);
}

}  // namespace
