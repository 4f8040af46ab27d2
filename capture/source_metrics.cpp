// SPDX-License-Identifier: Apache-2.0
#include "capture/source_metrics.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "replicator/metrics_text.h"

namespace penstock {

namespace {

constexpr MetricType kGaugeType = MetricType::kGauge;
constexpr MetricType kCounterType = MetricType::kCounter;

// All of one group: each metric has one sample.
class GroupWriter {
 public:
  GroupWriter(MetricsText& text, const std::string& group)
      : m_text(text), m_labels{{"group", group}} {}

  void Gauge(const char* name, const char* help, std::uint64_t value) {
    m_text.Begin(kGaugeType, name, help);
    m_text.Count(m_labels, value);
  }
  void Counter(const char* name, const char* help, std::uint64_t value) {
    m_text.Begin(kCounterType, name, help);
    m_text.Count(m_labels, value);
  }
  void Seconds(const char* name, const char* help, std::uint64_t ms) {
    m_text.Begin(kGaugeType, name, help);
    m_text.Value(m_labels, static_cast<double>(ms) / 1000);
  }
  void Latency(const char* name, const char* help, const LatencyCounts& held) {
    m_text.Begin(MetricType::kHistogram, name, help);
    MetricHistogram histogram;
    for (std::size_t i = 0; i < LatencyCounts::kBounds; ++i) {
      histogram.bounds.push_back(static_cast<double>(LatencyCounts::BoundUs(i)) / 1e6);
    }
    histogram.counts.assign(held.counts.begin(), held.counts.end());
    histogram.sum = static_cast<double>(held.sumNs) / 1e9;
    m_text.Histogram(m_labels, histogram);
  }
  void State(const char* name, const char* help, LiveState state) {
    m_text.Begin(kGaugeType, name, help);
    std::vector<std::string_view> words;
    for (int i = 0; i <= static_cast<int>(LiveState::kStopped); ++i) {
      words.emplace_back(Text(static_cast<LiveState>(i)));
    }
    m_text.OneOf(m_labels, "state", words, Text(state));
  }
  void Points(const char* name, const char* help, const SourceStatus& status) {
    m_text.Begin(kGaugeType, name, help);
    const std::vector<std::pair<const char*, std::uint64_t>> stages = {{"closed", status.closed},
                                                                       {"sent", status.sent},
                                                                       {"durable", status.durable},
                                                                       {"applied", status.applied},
                                                                       {"flushed", status.flushed}};
    for (const auto& [stage, point] : stages) {
      MetricLabels labels = m_labels;
      labels.emplace_back("stage", stage);
      m_text.Count(labels, point);
    }
  }

 private:
  MetricsText& m_text;
  const MetricLabels m_labels;
};

void AddWaiting(GroupWriter& out, const SourceStatus& status, const Capture& capture,
                const LiveLimits& limits) {
  out.Gauge("penstock_source_memory_bytes", "Bytes in memory of what is not at the target yet.",
            capture.MemoryUsed());
  out.Gauge("penstock_source_memory_limit_bytes", "Bytes that it may take.", limits.memory);
  out.Gauge("penstock_source_spool_bytes", "Bytes in the spool.", status.spooledBytes);
  out.Gauge("penstock_source_spool_limit_bytes", "Bytes that it may take; 0: there is no spool.",
            limits.spool);
  out.Gauge("penstock_source_spool_datasets", "Datasets in the spool.", status.spooledDatasets);
  out.Gauge("penstock_source_marked_bytes",
            "Bytes of the volumes that may differ from the target's, as the change maps say.",
            capture.TotalStale());
  const bool isPassing = status.resyncing;
  out.Gauge("penstock_source_resync_bytes",
            "Bytes of the volumes that are being compared; 0: no comparison is wanted.",
            isPassing ? status.passBytes : 0);
  out.Gauge("penstock_source_resync_passed_bytes", "Of those: what is done.",
            isPassing ? std::min(status.passedBytes, status.passBytes) : 0);
}

void AddCounters(GroupWriter& out, const SourceStatus& status, const Capture& capture) {
  out.Counter("penstock_source_overflows_total", "How often the backlog was given up.",
              status.overflows);
  out.Counter("penstock_source_writes_total", "Writes, zeros and trims of guests.",
              capture.Writes());
  out.Counter("penstock_source_written_bytes_total", "Bytes of them.", capture.BytesWritten());
  out.Counter("penstock_source_raw_bytes_total", "Volume data made ready to be sent.",
              status.rawBytes);
  out.Counter("penstock_source_packed_bytes_total", "The same, compressed.", status.packedBytes);
  out.Counter("penstock_source_sent_bytes_total", "Compressed data sent, again included.",
              status.sentBytes);
  out.Counter("penstock_source_equal_bytes_total", "Bytes that a comparison found equal.",
              status.equalBytes);
  out.Counter("penstock_source_resent_datasets_total", "Datasets sent again.",
              status.resentDatasets);
  out.Counter("penstock_source_reconnects_total", "Connections made after one was lost.",
              status.reconnects);
  out.Counter("penstock_source_damaged_answers_total", "Answers of the target that were refused.",
              status.damaged);
  out.Counter("penstock_source_map_saves_total", "Saves of a change map that a write waited for.",
              capture.Marks());
}

}  // namespace

std::string SourceMetrics(const std::string& group, const SourceStatus& status,
                          const Capture& capture, const LiveLimits& limits,
                          const LiveTimes& times) {
  MetricsText text;
  AddBuildInfo(text, "source");
  GroupWriter out(text, group);
  out.State("penstock_source_state", "1 for the state that the source is in.",
            StateOf(status, capture.IsRecording()));
  out.Gauge("penstock_source_connected", "Whether it is connected with the target.",
            status.phase == SourcePhase::kOnline ? 1 : 0);
  out.Gauge("penstock_source_epoch", "Rises each time a source takes up the group.", status.epoch);
  out.Points("penstock_source_point",
             "The newest dataset that was closed, sent, or reported at this stage by the target.",
             status);
  out.Seconds("penstock_source_lag_seconds",
              "How long something that the target has not flushed is waiting.", times.lagMs);
  out.Gauge("penstock_source_lag_datasets", "Datasets that are closed and not flushed.",
            status.closed - std::min(status.closed, status.flushed));
  AddWaiting(out, status, capture, limits);
  AddCounters(out, status, capture);
  out.Latency("penstock_source_guest_held_seconds",
              "How long guests' writes were held up, beside the volume's own time.", times.held);
  out.Seconds("penstock_source_resync_eta_seconds",
              "When a comparison will be done; 0: that can't be said, or none is under way.",
              times.etaSeconds * 1000);
  return text.Take();
}

}  // namespace penstock
