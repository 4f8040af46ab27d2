// SPDX-License-Identifier: Apache-2.0
// Goal: a record is one line, whatever a peer put into it; the library's records come the same way.
// Method: lines are taken instead of written.
#include "replicator/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "penstock/host/logger.h"

namespace penstock {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

class ProgramLog : public testing::Test {
 protected:
  void SetUp() override {
    SetLogOutput([this](std::string_view line) { m_lines.emplace_back(line); });
  }
  void TearDown() override {
    SetLogOutput({});
    SetUpLog({});
    CLogger::GetInstance().SetSink({});
    CLogger::GetInstance().SetLevel(LOG_NOTICE);
  }

  std::string Line() {
    EXPECT_EQ(m_lines.size(), 1U);
    return m_lines.empty() ? "" : m_lines.front();
  }

  std::vector<std::string> m_lines;
};

TEST_F(ProgramLog, ATextRecordHasTimeLevelTextAndFields) {
  Log(Severity::kWarning, "refused", {{"peer", "10.0.0.1:1"}, {"n", "7"}});
  EXPECT_THAT(Line(),
              testing::MatchesRegex("[0-9-]+ [0-9:.]+ warning refused peer=10.0.0.1:1 n=7\n"));
}

TEST_F(ProgramLog, AJsonRecordIsOneObject) {
  SetUpLog({.json = true});
  Log(Severity::kError, "can't \"write\"", {{"path", "/x"}});
  const auto record = nlohmann::json::parse(Line());
  EXPECT_EQ(record["level"], "error");
  EXPECT_EQ(record["text"], "can't \"write\"");
  EXPECT_EQ(record["path"], "/x");
  EXPECT_THAT(record["time"].get<std::string>(), EndsWith("Z"));
}

TEST_F(ProgramLog, HostileTextStaysInItsLine) {
  const std::string hostile = "a\nb\x1b[2J\xff\\";
  Log(Severity::kInfo, hostile, {{"peer", hostile}});
  EXPECT_THAT(Line(), EndsWith(R"(a\x0ab\x1b[2J\xff\x5c peer=a\x0ab\x1b[2J\xff\x5c)"
                               "\n"));
}

TEST_F(ProgramLog, HostileTextIsGoodJson) {
  SetUpLog({.json = true});
  Log(Severity::kInfo, "\xc3\x28\n\"}", {{"peer", std::string("\0", 1)}});
  const auto record = nlohmann::json::parse(Line());
  EXPECT_EQ(record["text"], R"(\xc3(\x0a"})");
  EXPECT_EQ(record["peer"], R"(\x00)");
}

TEST_F(ProgramLog, BracesAreText) {
  Log(Severity::kInfo, "{} {0} %v");
  EXPECT_THAT(Line(), EndsWith("{} {0} %v\n"));
}

TEST_F(ProgramLog, TheLevelDecides) {
  SetUpLog({.level = Severity::kWarning});
  Log(Severity::kInfo, "no");
  EXPECT_FALSE(IsLogged(Severity::kInfo));
  EXPECT_TRUE(IsLogged(Severity::kWarning));
  Log(Severity::kWarning, "yes");
  EXPECT_THAT(Line(), HasSubstr("yes"));
}

TEST_F(ProgramLog, TakesTheLibrarysErrors) {
  SetUpLog({});
  CLogger::GetInstance().LogEx(LOG_ERROR, "g: ", 0, "Pipeline::Ack()", 1, "went %d\n", 7);
  EXPECT_THAT(Line(), HasSubstr(R"(error   g: went 7\x0a at=Pipeline::Ack())"));
}

TEST_F(ProgramLog, LeavesTheLibrarysDetailsForTheLevelsThatWantThem) {
  SetUpLog({});
  EXPECT_EQ(CLogger::GetInstance().GetLevel(), LOG_ERROR);
  CLogger::GetInstance().LogEx(LOG_NOTICE, "", 0, "f", 1, "no");
  SetUpLog({.level = Severity::kDebug});
  EXPECT_EQ(CLogger::GetInstance().GetLevel(), LOG_NOTICE);
  CLogger::GetInstance().LogEx(LOG_INFO, "", 0, "f", 1, "no");
  CLogger::GetInstance().LogEx(LOG_NOTICE, "", 0, "f", 1, "yes");
  EXPECT_THAT(Line(), HasSubstr("yes"));
  SetUpLog({.level = Severity::kTrace});
  EXPECT_EQ(CLogger::GetInstance().GetLevel(), LOG_DEBUG);
}

TEST(LogWords, AreTheDocumentedOnes) {
  Severity severity{};
  for (const char* word : {"trace", "debug", "info", "warning", "error"}) {
    EXPECT_EQ(ParseLogLevel(word, severity), "") << word;
  }
  EXPECT_EQ(severity, Severity::kError);
  EXPECT_EQ(ParseLogLevel("loud", severity),
            "no such log level; use trace, debug, info, warning or error");
  bool json = false;
  EXPECT_EQ(ParseLogFormat("json", json), "");
  EXPECT_TRUE(json);
  EXPECT_EQ(ParseLogFormat("text", json), "");
  EXPECT_FALSE(json);
  EXPECT_EQ(ParseLogFormat("xml", json), "no such log format; use text or json");
}

TEST(Escaped, IsPrintableAndBounded) {
  EXPECT_EQ(Escape("plain text ~"), "plain text ~");
  EXPECT_EQ(Escape(std::string_view("\0\x7f\x80", 3)), R"(\x00\x7f\x80)");
  EXPECT_EQ(Escape("abcdef", 3), "abc...");
  EXPECT_EQ(Escape("abc", 3), "abc");
}

}  // namespace
}  // namespace penstock
