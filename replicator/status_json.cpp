// SPDX-License-Identifier: Apache-2.0
#include "replicator/status_json.h"

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

#include "replicator/log.h"
#include "replicator/progress.h"

namespace penstock {

namespace {

using Json = nlohmann::ordered_json;

// Whole percents; 100 only when it is all.
std::uint64_t Percent(std::uint64_t part, std::uint64_t whole) {
  if (part >= whole) return 100;
  return static_cast<std::uint64_t>(99.999 * static_cast<double>(part) /
                                    static_cast<double>(whole));
}

Json VolumeJson(const VolumeRecord& volume, const GroupStatus& status) {
  Json json{{"name", volume.name},
            {"size", volume.size},
            {"state", Text(volume.state)},
            {"goodAt", volume.goodAt}};
  if (const auto passed = status.passed.find(volume.name); passed != status.passed.end()) {
    json["percent"] = Percent(passed->second, volume.size);
  }
  return json;
}

Json CountersJson(const Counters& counters) {
  return {{"datasets", counters.datasets},
          {"rawBytes", counters.rawBytes},
          {"receivedBytes", counters.receivedBytes},
          {"equalBytes", counters.equalBytes},
          {"refused", counters.refused},
          {"quarantined", counters.quarantined},
          {"connections", counters.connections}};
}

Json GroupJson(const GroupStatus& status, std::uint64_t wallMs) {
  const GroupState& state = status.state;
  Json group{{"name", state.group},
             {"epoch", state.epoch},
             {"connected", status.connected},
             {"recovering", status.recovering},
             {"closed", status.closed},
             {"sent", status.sent},
             {"received", status.arriving},
             {"durable", state.durable},
             {"applied", status.applied},
             {"flushed", state.flushed},
             {"lagSeconds", LagSeconds(status, wallMs)},
             {"lagBytes", status.waitingBytes + status.journalBytes},
             {"lagDatasets", status.closed - std::min(status.closed, state.flushed)},
             {"journalBytes", status.journalBytes},
             {"journalQuota", status.journalQuota},
             {"trouble", Escape(status.trouble)},
             {"counters", CountersJson(state.counters)},
             {"points", Json::array()},
             {"volumes", Json::array()}};
  for (const PointRecord& point : state.points) {
    group["points"].push_back(
        {{"n", point.n}, {"timestampMs", point.timestampMs}, {"name", point.name}});
  }
  for (const VolumeRecord& volume : state.volumes)
    group["volumes"].push_back(VolumeJson(volume, status));
  return group;
}

// Fields of a text that came from elsewhere. A missing or strange one is an exception, caught
// below.
std::string TextOf(const Json& object, const char* name) {
  return Escape(object.at(name).get<std::string>(), 200);
}
std::uint64_t NumberOf(const Json& object, const char* name) {
  return object.at(name).get<std::uint64_t>();
}

std::string VolumeRow(const Json& volume) {
  const std::string state = TextOf(volume, "state");
  std::string row = "  " + TextOf(volume, "name") + ": " + state;
  if (state == "good") row += " at " + std::to_string(NumberOf(volume, "goodAt"));
  if (volume.contains("percent")) {
    row += " " + std::to_string(NumberOf(volume, "percent")) + " %";
  }
  return row + ", " + HumanBytes(NumberOf(volume, "size")) + "\n";
}

std::string HumanTime(std::uint64_t timestampMs) {
  const auto seconds = static_cast<std::time_t>(timestampMs / 1000);
  std::tm parts{};
  char text[64];
  if (gmtime_r(&seconds, &parts) == nullptr ||
      std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &parts) == 0) {
    return "at no time";
  }
  return text;
}

// The newest; --json has them all.
std::string PointRows(const Json& points) {
  constexpr std::size_t kShown = 5;
  std::string rows;
  for (std::size_t i = points.size() - std::min(points.size(), kShown); i < points.size(); ++i) {
    rows += "  point " + std::to_string(NumberOf(points[i], "n")) + " \"" +
            TextOf(points[i], "name") + "\", " + HumanTime(NumberOf(points[i], "timestampMs")) +
            "\n";
  }
  return rows;
}

std::string GroupRows(const Json& group) {
  const Json& counters = group.at("counters");
  const auto number = [](const Json& object, const char* name) {
    return std::to_string(NumberOf(object, name));
  };
  std::string rows = "group " + TextOf(group, "name") + ": epoch " + number(group, "epoch");
  rows += group.at("connected").get<bool>() ? ", source connected" : ", no source";
  if (group.at("recovering").get<bool>()) rows += ", recovering";
  rows += "\n  closed " + number(group, "closed") + ", sent " + number(group, "sent") +
          ", received " + number(group, "received") + ", durable " + number(group, "durable") +
          ", applied " + number(group, "applied") + ", flushed " + number(group, "flushed") +
          "\n  lag " + HumanSeconds(NumberOf(group, "lagSeconds")) + ", " +
          HumanBytes(NumberOf(group, "lagBytes")) + ", " + number(group, "lagDatasets") +
          " datasets; journal " + HumanBytes(NumberOf(group, "journalBytes"));
  if (const std::uint64_t quota = NumberOf(group, "journalQuota"); quota != 0) {
    rows += " of " + HumanBytes(quota);
  }
  rows += "\n";
  rows += "  " + HumanBytes(NumberOf(counters, "rawBytes")) + " sent as " +
          HumanBytes(NumberOf(counters, "receivedBytes")) + ", equal " +
          HumanBytes(NumberOf(counters, "equalBytes")) + ", " + number(counters, "refused") +
          " inputs refused, " + number(counters, "quarantined") + " files put aside\n";
  if (const std::string trouble = TextOf(group, "trouble"); !trouble.empty()) {
    rows += "  trouble: " + trouble + "\n";
  }
  for (const Json& volume : group.at("volumes")) rows += VolumeRow(volume);
  return rows + PointRows(group.at("points"));
}

}  // namespace

std::uint64_t LagSeconds(const GroupStatus& status, std::uint64_t wallMs) {
  if (status.state.flushed >= status.closed) return 0;
  const std::uint64_t since = status.state.flushedAtMs;
  return since == 0 || wallMs < since ? 0 : (wallMs - since) / 1000;
}

std::string StatusText(const std::vector<GroupStatus>& groups, std::uint64_t wallMs) {
  Json status{{"groups", Json::array()}};
  for (const GroupStatus& group : groups) status["groups"].push_back(GroupJson(group, wallMs));
  return status.dump();
}

GroupStatus StatusOf(const GroupState& state) {
  GroupStatus status;
  status.state = state;
  status.applied = state.flushed;
  status.arriving = status.closed = status.sent = state.durable;
  for (const JournalRecord& record : state.journal) status.journalBytes += record.bytes;
  for (VolumeRecord& volume : status.state.volumes) {
    if (volume.state == VolumeState::kGood) volume.goodAt = state.flushed;
  }
  return status;
}

std::string ShowStatus(std::string_view json, bool asJson, std::string& out) {
  try {
    const Json status = Json::parse(json);
    std::string table;
    for (const Json& group : status.at("groups")) table += GroupRows(group);
    if (asJson) {
      out = status.dump() + "\n";
    } else {
      out = table.empty() ? "no groups\n" : table;
    }
    return {};
  } catch (const Json::exception& fault) {
    return std::string("the status can't be understood: ") + Escape(fault.what(), 200);
  }
}

}  // namespace penstock
