// SPDX-License-Identifier: Apache-2.0
// Goal: the library's logging statement: the name, line, request id and prefix of each record, and
// the text form of each kind of piece, whatever came before it and whatever the process's locale.
// Method: statements inside functions of known names; whole lines are compared. Where the statement
// and a plain stream must agree, the stream is asked.
#include "common/log.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <iomanip>
#include <limits>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>

#include "tests/support/failing_new.h"
#include "tests/support/grouping_locale.h"
#include "tests/support/log_capture.h"
#include "tests/support/make.h"

// Outside any unnamed namespace, whose name the compilers write differently.
struct LogTestSpeaker {
  explicit LogTestSpeaker(int level) { PENSTOCK_LOG(level, "made"); }
  ~LogTestSpeaker() { PENSTOCK_LOG(LOG_DEBUG, "gone"); }
  DS_ERROR Speak(std::uint64_t n, const char* words) const {
    PENSTOCK_LOG(LOG_INFO, words << n);
    return DS_ERROR_OK;
  }
  int SpeakAndTellTheLine() const {
    PENSTOCK_LOG(LOG_NOTICE, "here");
    return __LINE__ - 1;
  }
  void SpeakAs() const { PENSTOCK_LOG_AS(LOG_ERROR, "Current()", "under another name"); }
};

namespace {

constexpr std::uint64_t kMax64 = std::numeric_limits<std::uint64_t>::max();

class LogRecords : public testing::Test {
 protected:
  ~LogRecords() override {
    SetMsgPrefix("");
    *TSP_RequestID.get() = 0;
  }

  Lines Written() { return m_log.Take(); }

  // The text of the one record that the test wrote.
  std::string TheText() {
    const std::vector<LogRecord> records = m_log.Records();
    EXPECT_EQ(records.size(), 1U);
    m_log.Take();
    return records.empty() ? "" : records[0].text;
  }

  // The text that a statement makes of one piece between two others.
  template <class T>
  std::string Logged(const T& piece) {
    PENSTOCK_LOG(LOG_INFO, "<" << piece << ">");
    return TheText();
  }

  LogCapture m_log;
};

// Counts how often it is streamed.
struct Counted {
  int& count;
  friend std::ostream& operator<<(std::ostream& out, const Counted& counted) {
    ++counted.count;
    return out << "counted";
  }
};

// What a plain stream makes of the same.
template <class T>
std::string Streamed(const T& piece) {
  std::ostringstream out;
  out << "<" << piece << ">";
  return out.str();
}

TEST_F(LogRecords, NamesTheFunctionThatItStandsIn) {
  {
    const LogTestSpeaker speaker(LOG_ERROR);
    speaker.Speak(7, "N: ");
    speaker.SpeakAs();
  }
  EXPECT_EQ(Written(),
            (Lines{"E LogTestSpeaker::LogTestSpeaker() made", "I LogTestSpeaker::Speak() N: 7",
                   "E Current() under another name", "D LogTestSpeaker::~LogTestSpeaker() gone"}));
}

TEST_F(LogRecords, CarriesItsSourceLine) {
  CLogger::GetInstance().SetLevel(LOG_NOTICE);
  const LogTestSpeaker speaker(LOG_INFO);
  const int line = speaker.SpeakAndTellTheLine();
  ASSERT_EQ(m_log.Records().size(), 1U);
  EXPECT_EQ(m_log.Records()[0].line, line);
}

TEST_F(LogRecords, FetchesPrefixAndRequestIdForEachRecord) {
  SetMsgPrefix("first: ");
  *TSP_RequestID.get() = 41;
  PENSTOCK_LOG(LOG_INFO, "a");
  SetMsgPrefix("");
  *TSP_RequestID.get() = kMax64;
  PENSTOCK_LOG(LOG_INFO, "b");
  const std::vector<LogRecord> records = m_log.Records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].prefix, "first: ");
  EXPECT_EQ(records[0].requestId, 41U);
  EXPECT_EQ(records[1].prefix, "");
  EXPECT_EQ(records[1].requestId, kMax64);
}

TEST_F(LogRecords, CarriesTheRequestIdOfItsThread) {
  *TSP_RequestID.get() = 1;
  std::thread([] {
    PENSTOCK_LOG(LOG_INFO, "other");
    *TSP_RequestID.get() = 2;
    PENSTOCK_LOG(LOG_INFO, "other");
  }).join();
  PENSTOCK_LOG(LOG_INFO, "own");
  const std::vector<LogRecord> records = m_log.Records();
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[0].requestId, 0U);
  EXPECT_EQ(records[1].requestId, 2U);
  EXPECT_EQ(records[2].requestId, 1U);
}

TEST_F(LogRecords, EvaluatesAndStreamsItsPiecesBelowTheThreshold) {
  CLogger::GetInstance().SetLevel(LOG_ERROR);
  int evaluated = 0;
  PENSTOCK_LOG(LOG_INFO, "x" << ++evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(Written(), Lines{});
}

TEST_F(LogRecords, CallsAPiecesOwnOperatorBelowTheThreshold) {
  CLogger::GetInstance().SetLevel(LOG_ERROR);
  int streamed = 0;
  PENSTOCK_LOG(LOG_INFO, "x" << Counted{streamed} << 1 << std::hex << Counted{streamed});
  EXPECT_EQ(streamed, 2);
  EXPECT_EQ(Written(), Lines{});
}

// A piece that leaves its stream in a state of its own.
struct Untidy {
  friend std::ostream& operator<<(std::ostream& out, const Untidy&) {
    out << std::hex << std::setfill('x') << std::setprecision(2) << std::setw(9);
    out.exceptions(std::ios_base::failbit);
    return out;
  }
};

// A piece that tells the state of the stream that it comes to.
struct Curious {
  std::string& seen;
  friend std::ostream& operator<<(std::ostream& out, const Curious& curious) {
    std::ostringstream state;
    state << out.good() << ' ' << (out.flags() == std::ostringstream().flags()) << ' '
          << out.width() << ' ' << out.precision() << ' ' << out.fill() << ' ' << out.exceptions();
    curious.seen = state.str();
    return out << "any text" << 5 << 'c';
  }
};

TEST_F(LogRecords, EachStreamsItsPiecesIntoAFreshStreamBelowTheThreshold) {
  CLogger::GetInstance().SetLevel(LOG_ERROR);
  std::string first;
  std::string second;
  PENSTOCK_LOG(LOG_INFO, Curious{first});
  PENSTOCK_LOG(LOG_INFO, Untidy{});
  PENSTOCK_LOG(LOG_INFO, Curious{second});
  EXPECT_EQ(first, "1 1 0 6   0");
  EXPECT_EQ(second, first);
}

// Streams at the end of its thread.
struct LateSpeaker {
  ~LateSpeaker() {
    int streamed = 0;
    PENSTOCK_LOG(LOG_INFO, "x" << Counted{streamed});
    PENSTOCK_LOG(LOG_ERROR, "late " << Counted{streamed});
  }
};

TEST_F(LogRecords, MayBeWrittenWhileAThreadEnds) {
  CLogger::GetInstance().SetLevel(LOG_ERROR);
  std::thread([] {
    static thread_local LateSpeaker speaker;
    (void)&speaker;
    int streamed = 0;
    PENSTOCK_LOG(LOG_INFO, Counted{streamed});
    EXPECT_EQ(streamed, 1);
  }).join();
  EXPECT_EQ(TheText(), "late counted");
}

TEST_F(LogRecords, IsDecidedByTheThresholdAtItsBeginning) {
  CLogger::GetInstance().SetLevel(LOG_ERROR);
  const auto lower = [] {
    CLogger::GetInstance().SetLevel(LOG_DEBUG);
    return "too late";
  };
  PENSTOCK_LOG(LOG_INFO, lower());
  EXPECT_EQ(Written(), Lines{});
  PENSTOCK_LOG(LOG_INFO, "in time");
  EXPECT_EQ(TheText(), "in time");
}

TEST_F(LogRecords, WritesABlankForAPercentSign) {
  PENSTOCK_LOG(LOG_INFO, "at " << std::string("/mnt/50%d"));
  EXPECT_EQ(TheText(), "at /mnt/50 d");
}

TEST_F(LogRecords, MayBeAnEmptyMessage) {
  PENSTOCK_LOG(LOG_INFO, std::string());
  EXPECT_EQ(TheText(), "");
}

TEST_F(LogRecords, CarriesATextOfAnyLength) {
  const std::string text(100'000, 'x');
  PENSTOCK_LOG(LOG_INFO, text << "end");
  EXPECT_EQ(TheText(), text + "end");
}

TEST_F(LogRecords, WritesABooleanAsADigit) {
  EXPECT_EQ(Logged(true), "<1>");
  EXPECT_EQ(Logged(false), "<0>");
}

TEST_F(LogRecords, WritesAWordWhereAskedFor) {
  EXPECT_EQ(Logged(Word(true)), "<true>");
  EXPECT_EQ(Logged(Word(false)), "<false>");
}

TEST_F(LogRecords, WritesTheExtremesOfEachIntegerAsAStreamDoes) {
  const auto agreeAt = [this](auto number) { EXPECT_EQ(Logged(number), Streamed(number)); };
  const auto agree = [&](auto zero) {
    using Number = decltype(zero);
    agreeAt(zero);
    agreeAt(std::numeric_limits<Number>::min());
    agreeAt(std::numeric_limits<Number>::max());
  };
  agree(0);
  agree(0U);
  agree(0L);
  agree(0UL);
  agree(0LL);
  agree(0ULL);
  agree(short{0});
  agree(static_cast<unsigned short>(0));
}

TEST_F(LogRecords, WritesAllKindsOfTextAlike) {
  const char* const pointer = "text";
  EXPECT_EQ(Logged("text"), "<text>");
  EXPECT_EQ(Logged(pointer), "<text>");
  EXPECT_EQ(Logged(std::string("text")), "<text>");
  EXPECT_EQ(Logged(std::string_view("text")), "<text>");
  EXPECT_EQ(Logged('t'), "<t>");
}

TEST_F(LogRecords, WritesAnAddressAsAStreamDoes) {
  const int object = 0;
  EXPECT_EQ(Logged(Address(&object)), Streamed(static_cast<const void*>(&object)));
  EXPECT_EQ(Logged(Address(nullptr)), "<0>");
  // NOLINTNEXTLINE(performance-no-int-to-ptr): an address is wanted that no object has
  const auto highest = reinterpret_cast<const void*>(std::uintptr_t{kMax64});
  EXPECT_EQ(Logged(highest), "<0xffffffffffffffff>");
}

TEST_F(LogRecords, WritesAFingerprintAsSixteenDigits) {
  EXPECT_EQ(Logged(Hex16{0}), "<0000000000000000>");
  EXPECT_EQ(Logged(Hex16{0x0123456789abcdef}), "<0123456789abcdef>");
}

TEST_F(LogRecords, WritesOtherValuesByTheirOwnOperator) {
  EXPECT_EQ(Logged(DS_ERROR_OUT_OF_RANGE), "<DS_ERROR_OUT_OF_RANGE>");
  EXPECT_EQ(Logged(Print(0x1f)), Streamed(Print(0x1f)));
  EXPECT_EQ(Logged(Buf(1, 4096, 512)), Streamed(Buf(1, 4096, 512)));
  PENSTOCK_LOG(LOG_INFO, std::fixed << 1.5);
  EXPECT_EQ(TheText(), "1.500000");
}

TEST_F(LogRecords, LetsNothingLeakFromAPieceIntoAnIntegerOrAnAddress) {
  const int object = 0;
  PENSTOCK_LOG(LOG_INFO, Buf(1, 4096, 512) << " " << 255 << " " << -1 << " " << true << " "
                                           << Address(&object) << " " << Address(nullptr));
  EXPECT_EQ(TheText(), Text(Buf(1, 4096, 512)) + " 255 -1 1 " + Ptr(&object) + " 0");
}

TEST_F(LogRecords, KeepsTheShowBaseThatABufferLeaves) {
  PENSTOCK_LOG(LOG_INFO, Buf(1, 0, 0) << std::hex << short{255});
  EXPECT_EQ(TheText(), Text(Buf(1, 0, 0)) + "0xff");
}

TEST_F(LogRecords, WritesTheSameNumbersUnderAnotherLocale) {
  const GroupingLocale grouping;
  PENSTOCK_LOG(LOG_INFO, 1234567 << " " << kMax64 << " " << std::int64_t{-1234567} << " " << true
                                 << " " << std::fixed << 1234567.5 << " " << Buf(1, 65536, 65536));
  EXPECT_EQ(TheText(),
            "1234567 18446744073709551615 -1234567 1 1234567.500000 "
            "InternalData[v=00000000-0000-0000-0000-000000000001 o: 0x10000, l=65536]");
}

TEST_F(LogRecords, LosesTheRestOfAMessageButDoesNotThrowWhenMemoryRunsOut) {
  const std::string piece(1'000, 'x');
  {
    LogProxy record(LOG_INFO, "", 0, "f()", 0);
    LogPieces pieces(std::move(record));
    pieces << 0 << "kept";
    {
      const FailingNew failing(0);
      EXPECT_NO_THROW(pieces << piece);
    }
    EXPECT_TRUE(record.bad());  // NOLINT(bugprone-use-after-move): lent to the pieces, not moved
    pieces << "lost" << 7;
  }
  const std::string text = TheText();
  EXPECT_EQ(text.substr(0, 4), "kept");
  EXPECT_EQ(text.find_first_not_of('x', 4), std::string::npos);
  EXPECT_LT(text.size(), piece.size());
}

}  // namespace
