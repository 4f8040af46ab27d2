// SPDX-License-Identifier: Apache-2.0
// Goal: monitoring is told what the source's status says. Method: statuses made by hand; the
// samples of the text are read back.
#include "capture/source_metrics.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

namespace penstock {
namespace {

class LiveMetrics : public testing::Test {
 protected:
  LiveMetrics() : m_capture({.volumes = {{{}, 8U << 20U}}}) {
    m_status.phase = SourcePhase::kOnline;
    m_status.epoch = 3;
    m_times.lagMs = 1500;
  }

  // Values by name, and the labels behind the group.
  std::map<std::string, std::string> Samples() const {
    std::map<std::string, std::string> samples;
    std::istringstream lines(SourceMetrics("shop", m_status, m_capture, {100, 200}, m_times));
    const std::string prefix = "penstock_source_";
    const std::string group = "{group=\"shop\"";
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with('#') || line.starts_with("penstock_build_info{side=\"source\","))
        continue;
      EXPECT_TRUE(line.starts_with(prefix)) << line;
      const auto at = line.find(group);
      const auto space = line.rfind(' ');
      EXPECT_NE(at, std::string::npos) << line;
      std::string name = line.substr(prefix.size(), at - prefix.size());
      name += line.substr(at + group.size(), space - at - group.size());
      EXPECT_TRUE(samples.emplace(name, line.substr(space + 1)).second) << line;
    }
    return samples;
  }

  Capture m_capture;
  LiveTimes m_times;
  SourceStatus m_status;
};

TEST_F(LiveMetrics, EveryNumberIsUnderItsName) {
  m_capture.Begin({});
  m_capture.BeginWrite(0, 0, 4096);
  m_capture.Captured({0, 0, 4096, nullptr});
  m_capture.Carried(5, 3, true);
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
  m_status.resentDatasets = 18;
  m_status.damaged = 19;
  m_status.equalBytes = 20;
  m_status.passBytes = 21;
  m_status.passedBytes = 22;
  m_times.etaSeconds = 23;
  m_times.held.counts[4] = 24;
  m_times.held.counts[LatencyCounts::kBounds] = 25;
  m_times.held.sumNs = 26'000'000'000;
  const std::map<std::string, std::string> expected = {
      {"connected}", "1"},
      {"epoch}", "3"},
      {"point,stage=\"closed\"}", "10"},
      {"point,stage=\"sent\"}", "9"},
      {"point,stage=\"durable\"}", "8"},
      {"point,stage=\"applied\"}", "7"},
      {"point,stage=\"flushed\"}", "6"},
      {"lag_seconds}", "1.5"},
      {"lag_datasets}", "4"},
      {"memory_bytes}", std::to_string(kWriteOverhead + 8)},
      {"memory_limit_bytes}", "100"},
      {"spool_bytes}", "11"},
      {"spool_limit_bytes}", "200"},
      {"spool_datasets}", "12"},
      {"marked_bytes}", "0"},
      {"resync_bytes}", "0"},
      {"resync_passed_bytes}", "0"},
      {"overflows_total}", "13"},
      {"writes_total}", "1"},
      {"written_bytes_total}", "4096"},
      {"raw_bytes_total}", "14"},
      {"packed_bytes_total}", "15"},
      {"sent_bytes_total}", "16"},
      {"equal_bytes_total}", "20"},
      {"resent_datasets_total}", "18"},
      {"reconnects_total}", "17"},
      {"damaged_answers_total}", "19"},
      {"map_saves_total}", "1"},
      {"resync_eta_seconds}", "23"},
      {"guest_held_seconds_sum}", "26"},
      {"guest_held_seconds_count}", "49"}};
  auto samples = Samples();
  EXPECT_EQ(samples.at("guest_held_seconds_bucket,le=\"8e-06\"}"), "0");
  EXPECT_EQ(samples.at("guest_held_seconds_bucket,le=\"1.6e-05\"}"), "24");
  EXPECT_EQ(samples.at("guest_held_seconds_bucket,le=\"+Inf\"}"), "49");
  std::erase_if(samples, [](const auto& sample) {
    return sample.first.starts_with("state,") ||
           sample.first.starts_with("guest_held_seconds_bucket");
  });
  EXPECT_EQ(samples, expected);
}

TEST_F(LiveMetrics, TheStateIsOneOfAll) {
  const auto expectState = [this](const std::string& word) {
    int ones = 0;
    int states = 0;
    for (const auto& [name, value] : Samples()) {
      if (!name.starts_with("state,")) continue;
      ++states;
      if (value == "1") ++ones;
    }
    EXPECT_EQ(states, 7);
    EXPECT_EQ(ones, 1);
    EXPECT_EQ(Samples().at("state,state=\"" + word + "\"}"), "1");
  };
  expectState("tracking only");
  m_capture.Begin({});
  expectState("replicating");
  m_status.spooledDatasets = 1;
  expectState("spooling");
  m_status.resyncing = true;
  expectState("resyncing");
  m_status.phase = SourcePhase::kPaused;
  expectState("paused");
  EXPECT_EQ(Samples().at("connected}"), "0");
  m_status.phase = SourcePhase::kStopped;
  expectState("stopped");
  m_status = {};
  expectState("connecting");
}

TEST_F(LiveMetrics, AComparisonIsToldWhileItIsOn) {
  m_status.resyncing = true;
  m_status.passBytes = 100;
  m_status.passedBytes = 40;
  EXPECT_EQ(Samples().at("resync_bytes}"), "100");
  EXPECT_EQ(Samples().at("resync_passed_bytes}"), "40");
  m_status.passedBytes = 400;
  EXPECT_EQ(Samples().at("resync_passed_bytes}"), "100");
}

}  // namespace
}  // namespace penstock
