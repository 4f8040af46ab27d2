// SPDX-License-Identifier: Apache-2.0
// Goal: monitoring is told what the status says. Method: statuses made by hand; the samples of the
// text are read back.
#include "replicator/target_metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <sstream>
#include <string>

#include "replicator/status_json.h"

namespace penstock {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr std::uint64_t kNowMs = 1'000'000;

// Values by name and labels.
std::map<std::string, std::string> SamplesOf(const std::string& text) {
  std::map<std::string, std::string> samples;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with('#')) continue;
    const auto space = line.rfind(' ');
    EXPECT_TRUE(samples.emplace(line.substr(0, space), line.substr(space + 1)).second) << line;
  }
  return samples;
}

GroupStatus BusyGroup() {
  GroupStatus status;
  status.state.group = "shop";
  status.state.epoch = 3;
  status.closed = 20;
  status.sent = 19;
  status.arriving = 18;
  status.state.durable = 17;
  status.applied = 16;
  status.state.flushed = 15;
  status.state.flushedAtMs = kNowMs - 42'900;
  status.waitingBytes = 1000;
  status.journalBytes = 24;
  status.journalQuota = 4096;
  status.connected = true;
  status.state.counters = {101, 102, 103, 104, 105, 106, 107};
  VolumeRecord volume;
  volume.name = "db";
  volume.size = 8192;
  volume.state = VolumeState::kSyncing;
  volume.goodAt = 9;
  status.passed["db"] = 5000;
  status.state.volumes.push_back(volume);
  volume.name = "logs";
  volume.state = VolumeState::kHeld;
  status.state.volumes.push_back(volume);
  return status;
}

TEST(TargetsMetrics, ATargetWithoutGroupsSaysSo) {
  const auto samples = SamplesOf(TargetMetrics({}, kNowMs));
  EXPECT_EQ(samples.at("penstock_target_groups"), "0");
  EXPECT_EQ(samples.at("penstock_target_connections"), "0");
  EXPECT_EQ(samples.at("penstock_target_refused_connections_total"), "0");
  EXPECT_EQ(samples.size(), 4U) << "and the version";
}

TEST(TargetsMetrics, AGroupIsToldAsTheStatusTellsIt) {
  TargetFigures figures;
  figures.groups = {BusyGroup()};
  figures.connections = 2;
  figures.refusedConnections = 5;
  const auto samples = SamplesOf(TargetMetrics(figures, kNowMs));
  EXPECT_EQ(samples.at("penstock_target_groups"), "1");
  EXPECT_EQ(samples.at("penstock_target_connections"), "2");
  EXPECT_EQ(samples.at("penstock_target_refused_connections_total"), "5");
  const std::map<std::string, std::string> expected = {{"connected", "1"},
                                                       {"recovering", "0"},
                                                       {"trouble", "0"},
                                                       {"epoch", "3"},
                                                       {"lag_seconds", "42"},
                                                       {"lag_bytes", "1024"},
                                                       {"lag_datasets", "5"},
                                                       {"journal_bytes", "24"},
                                                       {"journal_quota_bytes", "4096"},
                                                       {"datasets_total", "101"},
                                                       {"raw_bytes_total", "102"},
                                                       {"received_bytes_total", "103"},
                                                       {"equal_bytes_total", "104"},
                                                       {"refused_inputs_total", "105"},
                                                       {"quarantined_files_total", "106"},
                                                       {"sessions_total", "107"}};
  for (const auto& [name, value] : expected) {
    EXPECT_EQ(samples.at("penstock_target_" + name + "{group=\"shop\"}"), value) << name;
  }
  const std::map<std::string, std::string> points = {{"closed", "20"},   {"sent", "19"},
                                                     {"received", "18"}, {"durable", "17"},
                                                     {"applied", "16"},  {"flushed", "15"}};
  for (const auto& [stage, value] : points) {
    EXPECT_EQ(samples.at("penstock_target_point{group=\"shop\",stage=\"" + stage + "\"}"), value);
  }
}

TEST(TargetsMetrics, TroubleAndRecoveryAreTold) {
  TargetFigures figures;
  figures.groups = {BusyGroup()};
  figures.groups[0].trouble = "no space";
  figures.groups[0].recovering = true;
  figures.groups[0].connected = false;
  const auto samples = SamplesOf(TargetMetrics(figures, kNowMs));
  EXPECT_EQ(samples.at("penstock_target_trouble{group=\"shop\"}"), "1");
  EXPECT_EQ(samples.at("penstock_target_recovering{group=\"shop\"}"), "1");
  EXPECT_EQ(samples.at("penstock_target_connected{group=\"shop\"}"), "0");
}

TEST(TargetsMetrics, WhatIsFlushedIsNotBehind) {
  TargetFigures figures;
  figures.groups = {BusyGroup()};
  figures.groups[0].closed = figures.groups[0].state.flushed = 15;
  const auto samples = SamplesOf(TargetMetrics(figures, kNowMs));
  EXPECT_EQ(samples.at("penstock_target_lag_seconds{group=\"shop\"}"), "0");
  EXPECT_EQ(samples.at("penstock_target_lag_datasets{group=\"shop\"}"), "0");
  EXPECT_EQ(LagSeconds(figures.groups[0], kNowMs), 0U);
}

TEST(TargetsMetrics, AVolumeHasOneState) {
  TargetFigures figures;
  figures.groups = {BusyGroup()};
  const auto text = TargetMetrics(figures, kNowMs);
  const auto samples = SamplesOf(text);
  const auto of = [&](const std::string& name, const std::string& volume) {
    return samples.at("penstock_target_volume_" + name + "{group=\"shop\",volume=\"" + volume +
                      "\"}");
  };
  EXPECT_EQ(of("size_bytes", "db"), "8192");
  EXPECT_EQ(of("good_point", "db"), "9");
  EXPECT_EQ(of("passed_bytes", "db"), "5000");
  EXPECT_THAT(text, Not(HasSubstr("passed_bytes{group=\"shop\",volume=\"logs\"}")));
  const auto state = [&](const std::string& volume, const std::string& word) {
    return samples.at("penstock_target_volume_state{group=\"shop\",volume=\"" + volume +
                      "\",state=\"" + word + "\"}");
  };
  for (const char* word : {"new", "syncing", "good", "needs resync"}) {
    EXPECT_EQ(state("db", word), std::string(word) == "syncing" ? "1" : "0") << word;
    EXPECT_EQ(state("logs", word), std::string(word) == "good" ? "1" : "0") << word;
  }
}

// A metric's samples stand together, whatever the number of groups.
TEST(TargetsMetrics, EachMetricIsBegunOnce) {
  TargetFigures figures;
  figures.groups = {BusyGroup(), BusyGroup()};
  figures.groups[1].state.group = "other";
  std::map<std::string, int> begun;
  std::string current;
  std::istringstream lines(TargetMetrics(figures, kNowMs));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("# HELP ")) {
      current = line.substr(7, line.find(' ', 7) - 7);
      EXPECT_EQ(++begun[current], 1) << line;
    } else if (!line.starts_with('#')) {
      EXPECT_EQ(line.substr(0, line.find_first_of("{ ")), current);
    }
  }
  EXPECT_EQ(begun.size(), 25U);
}

}  // namespace
}  // namespace penstock
