// SPDX-License-Identifier: Apache-2.0
// Goal: what is written is Prometheus' text format, byte for byte. Method: texts.
#include "replicator/metrics_text.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdint>
#include <limits>
#include <string>

#include "penstock/version.h"

namespace penstock {
namespace {

TEST(MetricsTexts, AMetricHasHelpTypeAndASampleALine) {
  MetricsText text;
  text.Begin(MetricType::kGauge, "a_bytes", "Bytes of a.");
  text.Count({{"group", "g"}}, 7);
  text.Value({{"group", "h"}, {"volume", "v"}}, 0.25);
  text.Begin(MetricType::kCounter, "b_total", "All of b.");
  text.Count({}, std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(text.Take(),
            "# HELP a_bytes Bytes of a.\n"
            "# TYPE a_bytes gauge\n"
            "a_bytes{group=\"g\"} 7\n"
            "a_bytes{group=\"h\",volume=\"v\"} 0.25\n"
            "# HELP b_total All of b.\n"
            "# TYPE b_total counter\n"
            "b_total 18446744073709551615\n");
  EXPECT_EQ(text.Take(), "");
}

TEST(MetricsTexts, WhatMeansSomethingIsEscaped) {
  MetricsText text;
  text.Begin(MetricType::kGauge, "a", "a \"b\"\\\nc");
  text.Count({{"l", "a \"b\"\\\nc{}=,\xc3\xa4"}}, 1);
  EXPECT_EQ(text.Take(),
            "# HELP a a \"b\"\\\\\\nc\n"
            "# TYPE a gauge\n"
            "a{l=\"a \\\"b\\\"\\\\\\nc{}=,\xc3\xa4\"} 1\n");
}

TEST(MetricsTexts, NumbersAreReadBackAsTheyWere) {
  EXPECT_EQ(MetricNumber(0), "0");
  EXPECT_EQ(MetricNumber(-1.5), "-1.5");
  EXPECT_EQ(MetricNumber(1e30), "1e+30");
  EXPECT_EQ(MetricNumber(std::numeric_limits<double>::infinity()), "+Inf");
  EXPECT_EQ(MetricNumber(-std::numeric_limits<double>::infinity()), "-Inf");
  EXPECT_EQ(MetricNumber(std::numeric_limits<double>::quiet_NaN()), "NaN");
  EXPECT_EQ(MetricNumber(-std::numeric_limits<double>::quiet_NaN()), "NaN");
  for (const double value :
       {0.1, 1.0 / 3, std::numeric_limits<double>::max(), std::numeric_limits<double>::min()}) {
    EXPECT_EQ(std::stod(MetricNumber(value) + " "), value);
  }
}

TEST(MetricsTexts, TheLocaleChangesNothing) {
  const std::string before = std::setlocale(LC_ALL, nullptr);
  for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8"}) std::setlocale(LC_ALL, name);
  EXPECT_EQ(MetricNumber(1234567.5), "1234567.5");
  std::setlocale(LC_ALL, before.c_str());
}

TEST(MetricsTexts, AHistogramCountsUpwards) {
  MetricsText text;
  text.Begin(MetricType::kHistogram, "w_seconds", "Time of a write.");
  text.Histogram({{"group", "g"}}, {{0.001, 0.5}, {3, 0, 2}, 4.75});
  text.Histogram({}, {{}, {0}, 0});
  EXPECT_EQ(text.Take(),
            "# HELP w_seconds Time of a write.\n"
            "# TYPE w_seconds histogram\n"
            "w_seconds_bucket{group=\"g\",le=\"0.001\"} 3\n"
            "w_seconds_bucket{group=\"g\",le=\"0.5\"} 3\n"
            "w_seconds_bucket{group=\"g\",le=\"+Inf\"} 5\n"
            "w_seconds_sum{group=\"g\"} 4.75\n"
            "w_seconds_count{group=\"g\"} 5\n"
            "w_seconds_bucket{le=\"+Inf\"} 0\n"
            "w_seconds_sum 0\n"
            "w_seconds_count 0\n");
}

TEST(MetricsTexts, AStateIsOneOfItsWords) {
  MetricsText text;
  text.Begin(MetricType::kGauge, "s", "The state.");
  text.OneOf({{"group", "g"}}, "state", {"up", "not up", "gone"}, "not up");
  EXPECT_EQ(text.Take(),
            "# HELP s The state.\n"
            "# TYPE s gauge\n"
            "s{group=\"g\",state=\"up\"} 0\n"
            "s{group=\"g\",state=\"not up\"} 1\n"
            "s{group=\"g\",state=\"gone\"} 0\n");
}

TEST(MetricsTexts, TheVersionIsALabel) {
  MetricsText text;
  AddBuildInfo(text, "target");
  EXPECT_EQ(text.Take(),
            "# HELP penstock_build_info 1; the side and the version are its labels.\n"
            "# TYPE penstock_build_info gauge\n"
            "penstock_build_info{side=\"target\",version=\"" PENSTOCK_VERSION_STRING "\"} 1\n");
}

}  // namespace
}  // namespace penstock
