// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_METRICS_TEXT_H_
#define PENSTOCK_REPLICATOR_METRICS_TEXT_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace penstock {

enum class MetricType : std::uint8_t { kCounter, kGauge, kHistogram };

// Names and values. Names are given as the format wants them; values may be any UTF-8.
using MetricLabels = std::vector<std::pair<std::string_view, std::string>>;

// What a histogram has seen: `counts[i]` of the values are above `bounds[i - 1]` and at most
// `bounds[i]`; the last count is of those above every bound.
struct MetricHistogram {
  std::vector<double> bounds;         // ascending, finite
  std::vector<std::uint64_t> counts;  // one more than bounds
  double sum = 0;                     // of the values
};

// Writes metrics in Prometheus' text format, version 0.0.4. All samples of a metric come in one go,
// behind its Begin; a metric has the same label names in all of them.
//
//   MetricsText text;
//   text.Begin(MetricType::kGauge, "penstock_lag_seconds", "How far the copy is behind.");
//   text.Value({{"group", "shop"}}, 0.25);
//   return text.Take();
//
// Threads: one at a time.
class MetricsText {
 public:
  // `help` is one sentence. A counter's name ends in _total.
  void Begin(MetricType type, std::string_view name, std::string_view help);

  // One sample each. Of a counter or gauge.
  void Count(const MetricLabels& labels, std::uint64_t value);
  void Value(const MetricLabels& labels, double value);
  // NAME_bucket for each bound and +Inf, each with all below it; NAME_sum; NAME_count.
  // REQUIRES: a count more than bounds.
  void Histogram(const MetricLabels& labels, const MetricHistogram& histogram);
  // One sample for each word that a state may have: 1 for the one that it is, 0 for the others.
  void OneOf(const MetricLabels& labels, std::string_view name,
             const std::vector<std::string_view>& words, std::string_view word);

  // What was written. Nothing is left.
  std::string Take() { return std::exchange(m_text, {}); }

 private:
  void Sample(std::string_view suffix, const MetricLabels& labels, std::string_view value);

  std::string m_name;
  std::string m_text;
};

// The metric that both sides have, and that tells them apart: "source", "target".
void AddBuildInfo(MetricsText& text, const char* side);

// A number as the format has it, whatever the locale is: "0.25", "1e+30", "+Inf", "NaN".
std::string MetricNumber(double value);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_METRICS_TEXT_H_
