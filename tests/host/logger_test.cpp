// SPDX-License-Identifier: Apache-2.0
// Goal: the logger hands over what it is given, whole, to the sink of the moment, from any thread.
// Method: sinks that keep records; every formatted text is compared whole.
#include "penstock/host/logger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <clocale>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

// Keeps every record while it lives, and removes itself from the logger.
class Logger : public testing::Test {
 protected:
  Logger() {
    m_logger.SetSink([this](const LogRecord& record) {
      const std::lock_guard lock(m_mutex);
      m_records.push_back(record);
    });
  }
  ~Logger() override {
    m_logger.SetSink({});
    m_logger.SetLevel(LOG_NOTICE);
    SetMsgPrefix("");
  }

  std::string TheText() {
    EXPECT_EQ(m_records.size(), 1U);
    return m_records.empty() ? "" : std::exchange(m_records, {})[0].text;
  }

  CLogger& m_logger = CLogger::GetInstance();
  std::mutex m_mutex;
  std::vector<LogRecord> m_records;
};

TEST_F(Logger, IsOneForTheProcess) { EXPECT_EQ(&CLogger::GetInstance(), &m_logger); }

TEST_F(Logger, HandsOverEveryField) {
  m_logger.LogEx(LOG_ERROR, "prefix: ", ULLONG_MAX, "A::b()", 77, "text");
  ASSERT_EQ(m_records.size(), 1U);
  EXPECT_EQ(m_records[0].level, LOG_ERROR);
  EXPECT_EQ(m_records[0].prefix, "prefix: ");
  EXPECT_EQ(m_records[0].requestId, ULLONG_MAX);
  EXPECT_EQ(m_records[0].function, "A::b()");
  EXPECT_EQ(m_records[0].line, 77);
  EXPECT_EQ(m_records[0].text, "text");
}

TEST_F(Logger, FormatsAsPrintf) {
  m_logger.LogEx(LOG_INFO, "", 0, "", 0, "%d %s %5.2f %llu%%", -7, "words", 2.5, ULLONG_MAX);
  EXPECT_EQ(TheText(), "-7 words  2.50 18446744073709551615%");
}

TEST_F(Logger, HandsOverAnEmptyText) {
  m_logger.LogEx(LOG_INFO, "", 0, "", 0, "%s", "");
  EXPECT_EQ(TheText(), "");
}

TEST_F(Logger, CutsNoText) {
  std::string text(100'000, 'a');
  text.back() = 'z';
  m_logger.LogEx(LOG_INFO, "", 0, "", 0, "%s", text.c_str());
  EXPECT_EQ(TheText(), text);
  m_logger.LogEx(LOG_INFO, "", 0, "", 0, text.c_str());
  EXPECT_EQ(TheText(), text);
}

TEST_F(Logger, CutsNoTextAroundTheSizesThatABufferMayHave) {
  for (std::size_t size = 0; size < 2'100; ++size) {
    const std::string text(size, 'x');
    m_logger.LogEx(LOG_INFO, "", 0, "", 0, "%s", text.c_str());
    ASSERT_EQ(TheText(), text) << "size " << size;
  }
}

TEST_F(Logger, CutsNoPrefixAndNoFunction) {
  const std::string longName(5'000, 'p');
  m_logger.LogEx(LOG_INFO, longName.c_str(), 0, longName.c_str(), 0, "x");
  ASSERT_EQ(m_records.size(), 1U);
  EXPECT_EQ(m_records[0].prefix, longName);
  EXPECT_EQ(m_records[0].function, longName);
}

TEST_F(Logger, TakesPrefixAndFunctionLiterally) {
  m_logger.LogEx(LOG_INFO, "100%s", 0, "operator%()", 0, "x");
  ASSERT_EQ(m_records.size(), 1U);
  EXPECT_EQ(m_records[0].prefix, "100%s");
  EXPECT_EQ(m_records[0].function, "operator%()");
}

TEST_F(Logger, TakesNullForAnEmptyPrefixOrFunction) {
  m_logger.LogEx(LOG_INFO, nullptr, 0, nullptr, 0, "x");
  ASSERT_EQ(m_records.size(), 1U);
  EXPECT_EQ(m_records[0].prefix, "");
  EXPECT_EQ(m_records[0].function, "");
}

TEST_F(Logger, HandsOnAFormatThatCannotBePrinted) {
  // No character of the C locale has this code, so the conversion fails.
  const std::string before = std::setlocale(LC_ALL, nullptr);
  std::setlocale(LC_ALL, "C");
  const wchar_t unknown[] = {static_cast<wchar_t>(0x20ac), 0};
  m_logger.LogEx(LOG_INFO, "", 0, "", 0, "cost: %ls", unknown);
  std::setlocale(LC_ALL, before.c_str());
  EXPECT_EQ(TheText(), "cost: %ls");
}

TEST_F(Logger, LeavesTheThresholdToItsCaller) {
  m_logger.SetLevel(LOG_ERROR);
  m_logger.LogEx(LOG_DEBUG, "", 0, "", 0, "below");
  EXPECT_EQ(TheText(), "below");
}

TEST_F(Logger, KeepsTheThresholdThatItIsGiven) {
  for (const int level : std::vector<int>{0, 1, 2, 4, 5, -1}) {
    m_logger.SetLevel(level);
    EXPECT_EQ(m_logger.GetLevel(), level);
  }
}

TEST_F(Logger, ReplacesItsSink) {
  int calls = 0;
  m_logger.SetSink([&](const LogRecord&) { ++calls; });
  m_logger.LogEx(LOG_INFO, "", 0, "", 0, "x");
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(m_records.empty());
}

TEST_F(Logger, DropsRecordsWithoutASink) {
  m_logger.SetSink({});
  m_logger.LogEx(LOG_ERROR, "", 0, "", 0, "%s", "nobody hears");
  EXPECT_TRUE(m_records.empty());
}

TEST_F(Logger, ReleasesASinkThatItGivesUp) {
  const auto held = std::make_shared<int>(0);
  m_logger.SetSink([held](const LogRecord&) {});
  EXPECT_EQ(held.use_count(), 2);
  m_logger.SetSink({});
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(Logger, LetsASinkReplaceItselfAndLog) {
  m_logger.SetSink([this](const LogRecord& record) {
    m_records.push_back(record);
    m_logger.SetSink([this](const LogRecord& later) { m_records.push_back(later); });
    m_logger.LogEx(LOG_INFO, "", 0, "", 0, "from inside");
  });
  m_logger.LogEx(LOG_INFO, "", 0, "", 0, "first");
  ASSERT_EQ(m_records.size(), 2U);
  EXPECT_EQ(m_records[0].text, "first");
  EXPECT_EQ(m_records[1].text, "from inside");
}

TEST_F(Logger, HandsOverRecordsOfSeveralThreadsWhole) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 500; ++i) {
        m_logger.LogEx(LOG_INFO, "", 0, "", t, "%d: %d %s", t, i, std::string(600, 'x').c_str());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<std::string> texts;
  for (const LogRecord& record : m_records) texts.insert(record.text);
  EXPECT_EQ(m_records.size(), 2000U);
  EXPECT_EQ(texts.size(), 2000U);
  EXPECT_TRUE(texts.contains("3: 499 " + std::string(600, 'x')));
}

TEST_F(Logger, MayCallASinkFromSeveralThreadsAtOnce) {
  // Each of two calls waits inside the sink for the other one.
  std::atomic<int> inside{0};
  m_logger.SetSink([&](const LogRecord&) {
    ++inside;
    while (inside.load() < 2) std::this_thread::yield();
  });
  std::thread other([this] { m_logger.LogEx(LOG_INFO, "", 0, "", 0, "a"); });
  m_logger.LogEx(LOG_INFO, "", 0, "", 0, "b");
  other.join();
  EXPECT_EQ(inside.load(), 2);
}

TEST_F(Logger, MayBeReconfiguredWhileOthersLog) {
  std::atomic<bool> stop{false};
  std::atomic<int> heard{0};
  std::thread writer([&] {
    while (!stop.load()) {
      m_logger.LogEx(m_logger.GetLevel(), GetMsgPrefix().c_str(), 0, "", 0, "x");
    }
  });
  for (int i = 0; i < 500; ++i) {
    m_logger.SetSink([&heard](const LogRecord&) { ++heard; });
    m_logger.SetLevel(i % 5);
    SetMsgPrefix(i % 2 == 0 ? "a prefix that is too long for a short string" : "");
    m_logger.SetSink({});
  }
  m_logger.SetSink([&heard](const LogRecord&) { ++heard; });
  const int before = heard.load();
  while (heard.load() == before) std::this_thread::yield();
  stop.store(true);
  writer.join();
  EXPECT_GT(heard.load(), before);
}

TEST_F(Logger, HasThePrefixThatWasSetLast) {
  SetMsgPrefix("first");
  SetMsgPrefix("second, longer than any short string can be");
  EXPECT_EQ(GetMsgPrefix(), "second, longer than any short string can be");
  SetMsgPrefix("");
  EXPECT_EQ(GetMsgPrefix(), "");
}

// The logger as it was before any test ran.
struct AtStart {
  int level = CLogger::GetInstance().GetLevel();
  bool hasSink = CLogger::GetInstance().m_sink != nullptr;
  std::string prefix = GetMsgPrefix();
};
const AtStart kAtStart;

TEST(LoggerAtStart, HasNoticeAsItsThreshold) { EXPECT_EQ(kAtStart.level, LOG_NOTICE); }
TEST(LoggerAtStart, HasNoSink) { EXPECT_FALSE(kAtStart.hasSink); }
TEST(LoggerAtStart, HasAnEmptyPrefix) { EXPECT_EQ(kAtStart.prefix, ""); }

}  // namespace
