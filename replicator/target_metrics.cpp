// SPDX-License-Identifier: Apache-2.0
#include "replicator/target_metrics.h"

#include <algorithm>
#include <utility>

#include "replicator/metrics_text.h"
#include "replicator/status_json.h"

namespace penstock {

namespace {

// A metric that every group has one sample of.
struct GroupMetric {
  MetricType type;
  const char* name;
  const char* help;
  std::uint64_t (*value)(const GroupStatus& status, std::uint64_t wallMs);
};

constexpr MetricType kGauge = MetricType::kGauge;
constexpr MetricType kCounter = MetricType::kCounter;
using StatusRef = const GroupStatus&;

const std::vector<GroupMetric>& GroupMetrics() {
  static const std::vector<GroupMetric> metrics = {
      {kGauge, "penstock_target_connected", "Whether a source of the group is connected.",
       [](StatusRef s, std::uint64_t) { return std::uint64_t{s.connected}; }},
      {kGauge, "penstock_target_recovering", "Whether the group is being recovered after a start.",
       [](StatusRef s, std::uint64_t) { return std::uint64_t{s.recovering}; }},
      {kGauge, "penstock_target_trouble",
       "Whether the target can't go on with the group: the status says why.",
       [](StatusRef s, std::uint64_t) { return std::uint64_t{!s.trouble.empty()}; }},
      {kGauge, "penstock_target_epoch", "Rises each time a source takes up the group.",
       [](StatusRef s, std::uint64_t) { return s.state.epoch; }},
      {kGauge, "penstock_target_lag_seconds",
       "Seconds since the flushed point; 0 when everything that the source closed is flushed.",
       [](StatusRef s, std::uint64_t wallMs) { return LagSeconds(s, wallMs); }},
      {kGauge, "penstock_target_lag_bytes",
       "Bytes that the source still holds or that wait in the journal.",
       [](StatusRef s, std::uint64_t) { return s.waitingBytes + s.journalBytes; }},
      {kGauge, "penstock_target_lag_datasets", "Datasets that are closed and not flushed.",
       [](StatusRef s, std::uint64_t) { return s.closed - std::min(s.closed, s.state.flushed); }},
      {kGauge, "penstock_target_journal_bytes", "Bytes in the journal that are not flushed.",
       [](StatusRef s, std::uint64_t) { return s.journalBytes; }},
      {kGauge, "penstock_target_journal_quota_bytes", "Bytes that the group's journal may take.",
       [](StatusRef s, std::uint64_t) { return s.journalQuota; }},
      {kCounter, "penstock_target_datasets_total", "Datasets made durable.",
       [](StatusRef s, std::uint64_t) { return s.state.counters.datasets; }},
      {kCounter, "penstock_target_raw_bytes_total", "Volume data made durable, before compression.",
       [](StatusRef s, std::uint64_t) { return s.state.counters.rawBytes; }},
      {kCounter, "penstock_target_received_bytes_total", "The same as it came.",
       [](StatusRef s, std::uint64_t) { return s.state.counters.receivedBytes; }},
      {kCounter, "penstock_target_equal_bytes_total", "Bytes that a comparison found equal.",
       [](StatusRef s, std::uint64_t) { return s.state.counters.equalBytes; }},
      {kCounter, "penstock_target_refused_inputs_total",
       "Damaged or forbidden inputs that were dropped.",
       [](StatusRef s, std::uint64_t) { return s.state.counters.refused; }},
      {kCounter, "penstock_target_quarantined_files_total",
       "Damaged files of the journal that were put aside.",
       [](StatusRef s, std::uint64_t) { return s.state.counters.quarantined; }},
      {kCounter, "penstock_target_sessions_total", "Connections of sources that were welcomed.",
       [](StatusRef s, std::uint64_t) { return s.state.counters.connections; }},
  };
  return metrics;
}

// A metric that every volume has one sample of.
void AddVolumes(MetricsText& text, const std::vector<GroupStatus>& groups, const char* name,
                const char* help,
                void (*add)(MetricsText& text, const MetricLabels& labels,
                            const VolumeRecord& volume, const GroupStatus& status)) {
  text.Begin(kGauge, name, help);
  for (const GroupStatus& status : groups) {
    for (const VolumeRecord& volume : status.state.volumes) {
      add(text, {{"group", status.state.group}, {"volume", volume.name}}, volume, status);
    }
  }
}

void AddVolumes(MetricsText& text, const std::vector<GroupStatus>& groups) {
  AddVolumes(text, groups, "penstock_target_volume_size_bytes", "Size of the volume.",
             [](MetricsText& out, const MetricLabels& labels, const VolumeRecord& volume,
                StatusRef) { out.Count(labels, volume.size); });
  AddVolumes(
      text, groups, "penstock_target_volume_state", "1 for the state that the copy is in.",
      [](MetricsText& out, const MetricLabels& labels, const VolumeRecord& volume, StatusRef) {
        out.OneOf(labels, "state", {"new", "syncing", "good", "needs resync"}, Text(volume.state));
      });
  AddVolumes(text, groups, "penstock_target_volume_good_point",
             "The point that the copy is at, or was at when it was last good; 0: never.",
             [](MetricsText& out, const MetricLabels& labels, const VolumeRecord& volume,
                StatusRef) { out.Count(labels, volume.goodAt); });
  AddVolumes(text, groups, "penstock_target_volume_passed_bytes",
             "Of a copy that is syncing while its source is connected: what is done.",
             [](MetricsText& out, const MetricLabels& labels, const VolumeRecord& volume,
                StatusRef status) {
               const auto passed = status.passed.find(volume.name);
               if (passed != status.passed.end()) out.Count(labels, passed->second);
             });
}

}  // namespace

std::string TargetMetrics(const TargetFigures& figures, std::uint64_t wallMs) {
  MetricsText text;
  AddBuildInfo(text, "target");
  text.Begin(kGauge, "penstock_target_groups", "Groups that the target keeps.");
  text.Count({}, figures.groups.size());
  text.Begin(kGauge, "penstock_target_connections", "Open connections.");
  text.Count({}, figures.connections);
  text.Begin(kCounter, "penstock_target_refused_connections_total",
             "Connections that were refused after they proved who they are.");
  text.Count({}, figures.refusedConnections);
  text.Begin(kGauge, "penstock_target_point",
             "The newest dataset that was closed or sent by the source, or is here at this stage.");
  for (const GroupStatus& status : figures.groups) {
    const GroupState& state = status.state;
    const std::vector<std::pair<const char*, std::uint64_t>> stages = {
        {"closed", status.closed},  {"sent", status.sent},       {"received", status.arriving},
        {"durable", state.durable}, {"applied", status.applied}, {"flushed", state.flushed}};
    for (const auto& [stage, point] : stages) {
      text.Count({{"group", state.group}, {"stage", stage}}, point);
    }
  }
  for (const GroupMetric& metric : GroupMetrics()) {
    text.Begin(metric.type, metric.name, metric.help);
    for (const GroupStatus& status : figures.groups) {
      text.Count({{"group", status.state.group}}, metric.value(status, wallMs));
    }
  }
  AddVolumes(text, figures.groups);
  return text.Take();
}

}  // namespace penstock
