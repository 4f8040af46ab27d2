// SPDX-License-Identifier: Apache-2.0
#include "replicator/metrics_text.h"

#include <array>
#include <charconv>
#include <cmath>

#include "penstock/version.h"

namespace penstock {

namespace {

const char* WordOf(MetricType type) {
  switch (type) {
    case MetricType::kCounter: return "counter";
    case MetricType::kGauge: return "gauge";
    case MetricType::kHistogram: return "histogram";
  }
  return "untyped";
}

void AddEscaped(std::string& out, std::string_view text, bool isQuoted) {
  for (const char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '"' && isQuoted) {
      out += "\\\"";
    } else {
      out += c;
    }
  }
}

}  // namespace

std::string MetricNumber(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  std::array<char, 32> text{};
  const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc{} ? std::string(text.data(), end) : "NaN";
}

void AddBuildInfo(MetricsText& text, const char* side) {
  text.Begin(MetricType::kGauge, "penstock_build_info",
             "1; the side and the version are its labels.");
  text.Count({{"side", side}, {"version", PENSTOCK_VERSION_STRING}}, 1);
}

void MetricsText::Begin(MetricType type, std::string_view name, std::string_view help) {
  m_name = name;
  m_text.append("# HELP ").append(name) += ' ';
  AddEscaped(m_text, help, false);
  m_text.append("\n# TYPE ").append(name).append(" ").append(WordOf(type)) += '\n';
}

void MetricsText::Count(const MetricLabels& labels, std::uint64_t value) {
  Sample({}, labels, std::to_string(value));
}

void MetricsText::Value(const MetricLabels& labels, double value) {
  Sample({}, labels, MetricNumber(value));
}

void MetricsText::Histogram(const MetricLabels& labels, const MetricHistogram& histogram) {
  std::uint64_t sum = 0;
  MetricLabels bucket = labels;
  bucket.emplace_back("le", "");
  for (std::size_t i = 0; i < histogram.counts.size(); ++i) {
    sum += histogram.counts[i];
    bucket.back().second =
        i < histogram.bounds.size() ? MetricNumber(histogram.bounds[i]) : std::string("+Inf");
    Sample("_bucket", bucket, std::to_string(sum));
  }
  Sample("_sum", labels, MetricNumber(histogram.sum));
  Sample("_count", labels, std::to_string(sum));
}

void MetricsText::OneOf(const MetricLabels& labels, std::string_view name,
                        const std::vector<std::string_view>& words, std::string_view word) {
  MetricLabels named = labels;
  named.emplace_back(name, "");
  for (const std::string_view each : words) {
    named.back().second = each;
    Sample({}, named, each == word ? "1" : "0");
  }
}

void MetricsText::Sample(std::string_view suffix, const MetricLabels& labels,
                         std::string_view value) {
  m_text.append(m_name).append(suffix);
  char before = '{';
  for (const auto& [name, text] : labels) {
    m_text += before;
    m_text.append(name).append("=\"");
    AddEscaped(m_text, text, true);
    m_text += '"';
    before = ',';
  }
  if (!labels.empty()) m_text += '}';
  m_text += ' ';
  m_text.append(value) += '\n';
}

}  // namespace penstock
