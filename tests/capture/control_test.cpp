// SPDX-License-Identifier: Apache-2.0
// Goal: people and monitoring are told what a source does, in words that hold. Method: statuses
// made by hand, as JSON and as a table.
#include "capture/control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

namespace penstock {
namespace {

using testing::HasSubstr;
using testing::Not;

SourceStatus StatusIn(SourcePhase phase) {
  SourceStatus status;
  status.phase = phase;
  status.epoch = 3;
  return status;
}

class LiveStatus : public testing::Test {
 protected:
  LiveStatus() : m_capture({.volumes = {{{}, 8U << 20U}}}) {}

  std::string Json() const {
    return LiveStatusText("shop", m_status, m_capture, {100, 200}, m_times);
  }
  nlohmann::json Status() const { return nlohmann::json::parse(Json()); }

  Capture m_capture;
  SourceStatus m_status = StatusIn(SourcePhase::kOnline);
  LiveTimes m_times{.lagMs = 1500};
};

TEST_F(LiveStatus, ShowsWhenAComparisonWillBeDoneWhileThereIsOne) {
  m_status.resyncing = true;
  m_status.passBytes = 100;
  m_status.passedBytes = 25;
  m_capture.Begin({});
  EXPECT_FALSE(Status().contains("etaSeconds"));
  m_times.etaSeconds = 75;
  EXPECT_EQ(Status()["etaSeconds"], 75);
  EXPECT_THAT(LiveStatusTable(Json()), HasSubstr("resyncing, 25 %, ETA 1 m 15 s"));
  m_status.resyncing = false;
  EXPECT_FALSE(Status().contains("etaSeconds"));
}

TEST_F(LiveStatus, ShowsWhatItAddsToAGuestsWrites) {
  EXPECT_THAT(LiveStatusTable(Json()), Not(HasSubstr("guest")));
  m_times.heldLately.counts[3] = 99;
  m_times.heldLately.counts[10] = 1;
  m_times.heldLately.sumNs = 500'000;
  m_times.held = m_times.heldLately;
  m_times.held.counts[12] = 100;
  EXPECT_EQ(Status()["guestLatencyLately"]["p99Us"], 8);
  EXPECT_EQ(Status()["guestLatency"]["p99Us"], 4096);
  EXPECT_THAT(LiveStatusTable(Json()),
              HasSubstr("writes are held up for 5 us on average, 99 % of them for at most 8 us"));
}

// --- One word. ---

// The table in ARCHITECTURE.md, between its heading and the next empty line.
TEST(LiveStates, AreTheOnesOfTheArchitecturesTable) {
  std::ifstream file(PENSTOCK_SOURCE_DIR "/ARCHITECTURE.md");
  std::vector<std::string> rows;
  bool isTable = false;
  for (std::string line; std::getline(file, line);) {
    if (isTable && !line.starts_with("|")) break;
    if (isTable) rows.push_back(line);
    isTable = isTable || line == "| When | State |";
  }
  std::vector<std::string> expected = {"|---|---|"};
  for (const LiveRule& rule : LiveRules()) {
    expected.push_back(std::string("| ") + rule.when + " | " + Text(rule.state) + " |");
  }
  EXPECT_EQ(rows, expected);
}

TEST(LiveStates, ASourceThatRecordsIsToldByItsWorstTrouble) {
  SourceStatus status = StatusIn(SourcePhase::kOnline);
  EXPECT_EQ(StateOf(status, true), LiveState::kReplicating);
  status.spooledDatasets = 1;
  EXPECT_EQ(StateOf(status, true), LiveState::kSpooling);
  status.syncedAt = 8;
  status.applied = 7;
  EXPECT_EQ(StateOf(status, true), LiveState::kResyncing) << "the copy is no point yet";
  status.applied = 8;
  EXPECT_EQ(StateOf(status, true), LiveState::kSpooling);
  status.resyncing = true;
  EXPECT_EQ(StateOf(status, true), LiveState::kResyncing);
  EXPECT_EQ(StateOf(status, false), LiveState::kTrackingOnly);
  status.phase = SourcePhase::kPaused;
  EXPECT_EQ(StateOf(status, true), LiveState::kPaused);
  EXPECT_EQ(StateOf(status, false), LiveState::kPaused);
  status.phase = SourcePhase::kStopped;
  EXPECT_EQ(StateOf(status, true), LiveState::kStopped);
  EXPECT_EQ(StateOf(status, false), LiveState::kStopped);
}

TEST(LiveStates, OneThatNeverReachedTheTargetConnects) {
  SourceStatus status = StatusIn(SourcePhase::kBackoff);
  status.epoch = 0;
  EXPECT_EQ(StateOf(status, false), LiveState::kConnecting);
}

TEST(LiveStates, OneThatLostTheTargetConnectsUntilItSpools) {
  for (const auto phase :
       {SourcePhase::kConnecting, SourcePhase::kGreeting, SourcePhase::kBackoff}) {
    SourceStatus status = StatusIn(phase);
    EXPECT_EQ(StateOf(status, true), LiveState::kConnecting);
    status.spooledDatasets = 1;
    EXPECT_EQ(StateOf(status, true), LiveState::kSpooling);
  }
}

TEST(LiveStates, HaveWords) {
  EXPECT_STREQ(Text(LiveState::kConnecting), "connecting");
  EXPECT_STREQ(Text(LiveState::kReplicating), "replicating");
  EXPECT_STREQ(Text(LiveState::kSpooling), "spooling");
  EXPECT_STREQ(Text(LiveState::kTrackingOnly), "tracking only");
  EXPECT_STREQ(Text(LiveState::kResyncing), "resyncing");
  EXPECT_STREQ(Text(LiveState::kPaused), "paused");
  EXPECT_STREQ(Text(LiveState::kStopped), "stopped");
}

// --- JSON. ---

TEST_F(LiveStatus, EveryNumberIsUnderItsName) {
  m_capture.Begin({});
  m_capture.BeginWrite(0, 0, 4096);
  m_capture.Captured({0, 0, 4096, nullptr});
  m_status.closed = 10;
  m_status.sent = 9;
  m_status.durable = 8;
  m_status.applied = 7;
  m_status.flushed = 6;
  m_status.spooledBytes = 11;
  m_status.spooledDatasets = 12;
  m_status.overflows = 13;
  m_status.rawBytes = 14;
  m_status.packedBytes = 15;
  m_status.sentBytes = 16;
  m_status.reconnects = 17;
  m_capture.Carried(5, 3, true);
  const nlohmann::json none = {{"writes", 0}, {"meanUs", 0}, {"p99Us", 0}};
  const nlohmann::json expected = {
      {"group", "shop"},     {"state", "spooling"},  {"connection", Text(SourcePhase::kOnline)},
      {"epoch", 3},          {"closed", 10},         {"sent", 9},
      {"durable", 8},        {"applied", 7},         {"flushed", 6},
      {"lagDatasets", 4},    {"lagSeconds", 1.5},    {"memoryBytes", kWriteOverhead + 8},
      {"memoryLimit", 100},  {"spoolBytes", 11},     {"spoolLimit", 200},
      {"spoolDatasets", 12}, {"markedBytes", 0},     {"overflows", 13},
      {"writes", 1},         {"writtenBytes", 4096}, {"rawBytes", 14},
      {"packedBytes", 15},   {"sentBytes", 16},      {"mapSaves", 1},
      {"reconnects", 17},    {"guestLatency", none}, {"guestLatencyLately", none}};
  EXPECT_EQ(Status(), expected);
}

TEST_F(LiveStatus, WhatIsMarkedIsCountedAndNoLagIsNegative) {
  m_capture.LoadNothing(0);
  m_status.closed = 1;
  m_status.flushed = 5;
  EXPECT_EQ(Status()["markedBytes"], 8U << 20U);
  EXPECT_EQ(Status()["lagDatasets"], 0);
  EXPECT_EQ(Status()["state"], "tracking only");
}

TEST_F(LiveStatus, AResyncTellsHowFarItIs) {
  m_capture.Begin({});
  m_status.resyncing = true;
  EXPECT_FALSE(Status().contains("percent"));
  m_status.passBytes = 200;
  m_status.passedBytes = 50;
  EXPECT_EQ(Status()["percent"], 25.0);
  m_status.passedBytes = 300;
  EXPECT_EQ(Status()["percent"], 100.0);
  EXPECT_THAT(LiveStatusTable(Json()), HasSubstr("resyncing, 100 %"));
}

TEST_F(LiveStatus, TroubleIsToldWhenThereIsSome) {
  for (const char* name : {"lastOverflow", "trouble", "failure"}) {
    EXPECT_FALSE(Status().contains(name)) << name;
  }
  m_status.lastOverflow = "x";
  m_status.lastTrouble = "y";
  m_status.failure = "z";
  EXPECT_EQ(Status()["lastOverflow"], "x");
  EXPECT_EQ(Status()["trouble"], "y");
  EXPECT_EQ(Status()["failure"], "z");
}

// The text of a peer, or a path: any bytes.
TEST_F(LiveStatus, TroubleThatIsNoTextIsToldAllTheSame) {
  m_status.lastTrouble = "\xff\xfe";
  EXPECT_NO_THROW(EXPECT_TRUE(nlohmann::json::accept(Json())));
}

// --- The lag. ---

TEST(LagClocks, TheLagIsTheAgeOfTheOldestThatIsNotFlushed) {
  LagClock clock;
  SourceStatus status = StatusIn(SourcePhase::kOnline);
  clock.See(status, true, 1'000);
  EXPECT_EQ(clock.LagMs(5'000), 0U);
  status.closed = 1;
  clock.See(status, true, 2'000);
  status.closed = 2;
  clock.See(status, true, 3'000);
  EXPECT_EQ(clock.LagMs(4'500), 2'500U);
  status.flushed = 1;
  clock.See(status, true, 5'000);
  EXPECT_EQ(clock.LagMs(5'000), 2'000U);
  status.flushed = 2;
  clock.See(status, true, 6'000);
  EXPECT_EQ(clock.LagMs(9'000), 0U);
}

TEST(LagClocks, WhileNothingCanBeClosedTheLagGrowsFromItsBeginning) {
  LagClock clock;
  SourceStatus status = StatusIn(SourcePhase::kOnline);
  clock.See(status, false, 1'000);
  clock.See(status, false, 2'000);
  EXPECT_EQ(clock.LagMs(3'000), 2'000U);
  status.resyncing = true;
  clock.See(status, true, 4'000);
  EXPECT_EQ(clock.LagMs(5'000), 4'000U);
  status.resyncing = false;
  clock.See(status, true, 6'000);
  EXPECT_EQ(clock.LagMs(7'000), 0U);
}

// --- The table. ---

TEST_F(LiveStatus, TheTableTellsWhatTheJsonDoes) {
  m_capture.Begin({});
  m_status.closed = 3;
  m_status.flushed = 1;
  const std::string table = LiveStatusTable(Json());
  EXPECT_THAT(table, HasSubstr("group       shop\n"));
  EXPECT_THAT(table, HasSubstr("state       replicating\n"));
  EXPECT_THAT(table, HasSubstr("closed 3, sent 0, durable 0, applied 0, flushed 1\n"));
  EXPECT_THAT(table, HasSubstr("2 datasets\n"));
  EXPECT_THAT(table, Not(HasSubstr("failure")));
}

TEST_F(LiveStatus, TheTableDoesNotLetTextIntoTheTerminal) {
  m_status.failure = "\x1b[2J";
  EXPECT_THAT(LiveStatusTable(Json()), HasSubstr("failure     \\x1b[2J\n"));
}

TEST_F(LiveStatus, WhatIsNoStatusMakesNoTable) {
  for (const char* text : {"", "x", "[]", "7"}) {
    EXPECT_EQ(LiveStatusTable(text), "the source's answer makes no sense\n");
  }
}

}  // namespace
}  // namespace penstock
