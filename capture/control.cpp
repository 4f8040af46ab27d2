// SPDX-License-Identifier: Apache-2.0
#include "capture/control.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <utility>

#include "capture/source_metrics.h"
#include "replicator/log.h"
#include "replicator/progress.h"
#include "replicator/runner_common.h"

namespace penstock {

using nlohmann::json;

namespace {

// A peer's text need not be UTF-8.
std::string Dump(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

constexpr std::uint64_t kAnswerMs = 10'000;

std::string Refusal(const std::string& why) { return Dump(json{{"error", why}}); }

}  // namespace

// --- The status. ---

const char* Text(LiveState state) {
  switch (state) {
    case LiveState::kConnecting: return "connecting";
    case LiveState::kReplicating: return "replicating";
    case LiveState::kSpooling: return "spooling";
    case LiveState::kTrackingOnly: return "tracking only";
    case LiveState::kResyncing: return "resyncing";
    case LiveState::kPaused: return "paused";
    case LiveState::kStopped: return "stopped";
  }
  return "unknown";
}

std::span<const LiveRule> LiveRules() {
  static constexpr std::array kRules = {
      LiveRule{"the engine stopped for good",
               [](const SourceStatus& s, bool) { return s.phase == SourcePhase::kStopped; },
               LiveState::kStopped},
      LiveRule{"its operator paused it",
               [](const SourceStatus& s, bool) { return s.phase == SourcePhase::kPaused; },
               LiveState::kPaused},
      LiveRule{"writes are marked only, and the target was never reached",
               [](const SourceStatus& s, bool isKept) { return !isKept && s.epoch == 0; },
               LiveState::kConnecting},
      LiveRule{"writes are marked only", [](const SourceStatus&, bool isKept) { return !isKept; },
               LiveState::kTrackingOnly},
      LiveRule{"something is compared, or has to be, or has to be applied after that",
               [](const SourceStatus& s, bool) { return s.resyncing || s.applied < s.syncedAt; },
               LiveState::kResyncing},
      LiveRule{"datasets are in the spool",
               [](const SourceStatus& s, bool) { return s.spooledDatasets > 0; },
               LiveState::kSpooling},
      LiveRule{"the connection is up",
               [](const SourceStatus& s, bool) { return s.phase == SourcePhase::kOnline; },
               LiveState::kReplicating},
      LiveRule{"otherwise", [](const SourceStatus&, bool) { return true; }, LiveState::kConnecting},
  };
  return kRules;
}

LiveState StateOf(const SourceStatus& status, bool isRecording) {
  const auto rules = LiveRules();
  return std::ranges::find_if(rules,
                              [&](const LiveRule& rule) { return rule.holds(status, isRecording); })
      ->state;
}

// What capture added to a guest's writes.
static json LatencyJson(const LatencyCounts& held) {
  return {{"writes", held.Total()}, {"meanUs", held.MeanUs()}, {"p99Us", held.PercentileUs(99)}};
}

std::string LiveStatusText(const std::string& group, const SourceStatus& status,
                           const Capture& capture, const LiveLimits& limits,
                           const LiveTimes& times) {
  const LiveState state = StateOf(status, capture.IsRecording());
  json out = {{"group", group},
              {"state", Text(state)},
              {"connection", Text(status.phase)},
              {"epoch", status.epoch},
              {"closed", status.closed},
              {"sent", status.sent},
              {"durable", status.durable},
              {"applied", status.applied},
              {"flushed", status.flushed},
              {"lagDatasets", status.closed - std::min(status.closed, status.flushed)},
              {"lagSeconds", static_cast<double>(times.lagMs) / 1000},
              {"memoryBytes", capture.MemoryUsed()},
              {"memoryLimit", limits.memory},
              {"spoolBytes", status.spooledBytes},
              {"spoolLimit", limits.spool},
              {"spoolDatasets", status.spooledDatasets},
              {"markedBytes", capture.TotalStale()},
              {"overflows", status.overflows},
              {"writes", capture.Writes()},
              {"writtenBytes", capture.BytesWritten()},
              {"rawBytes", status.rawBytes},
              {"packedBytes", status.packedBytes},
              {"sentBytes", status.sentBytes},
              {"mapSaves", capture.Marks()},
              {"reconnects", status.reconnects}};
  if (state == LiveState::kResyncing && status.passBytes > 0) {
    out["percent"] = 100.0 * static_cast<double>(std::min(status.passedBytes, status.passBytes)) /
                     static_cast<double>(status.passBytes);
    if (times.etaSeconds > 0) out["etaSeconds"] = times.etaSeconds;
  }
  out["guestLatency"] = LatencyJson(times.held);
  out["guestLatencyLately"] = LatencyJson(times.heldLately);
  if (!status.lastOverflow.empty()) out["lastOverflow"] = status.lastOverflow;
  if (!status.lastTrouble.empty()) out["trouble"] = status.lastTrouble;
  if (!status.failure.empty()) out["failure"] = status.failure;
  return Dump(out);
}

std::string LiveStatusTable(const std::string& text) {
  const auto status = json::parse(text, nullptr, false);
  if (!status.is_object()) return "the source's answer makes no sense\n";
  const auto number = [&](const char* name) { return status.value(name, std::uint64_t{0}); };
  const auto word = [&](const char* name) { return status.value(name, std::string()); };
  const auto row = [](const std::string& name, const std::string& value) {
    return name + std::string(name.size() < 12 ? 12 - name.size() : 1, ' ') + value + "\n";
  };
  std::string state = word("state");
  if (status.contains("percent")) {
    state += ", " + std::to_string(static_cast<int>(status.value("percent", 0.0))) + " %";
    if (const auto eta = number("etaSeconds"); eta > 0) state += ", ETA " + HumanSeconds(eta);
  }
  std::string out =
      row("group", word("group")) + row("state", state) + row("connection", word("connection"));
  out += row("points", "closed " + std::to_string(number("closed")) + ", sent " +
                           std::to_string(number("sent")) + ", durable " +
                           std::to_string(number("durable")) + ", applied " +
                           std::to_string(number("applied")) + ", flushed " +
                           std::to_string(number("flushed")));
  out += row("lag", HumanSeconds(static_cast<std::uint64_t>(status.value("lagSeconds", 0.0))) +
                        ", " + std::to_string(number("lagDatasets")) + " datasets");
  out +=
      row("memory", HumanBytes(number("memoryBytes")) + " of " + HumanBytes(number("memoryLimit")));
  out += row("spool", HumanBytes(number("spoolBytes")) + " of " + HumanBytes(number("spoolLimit")) +
                          " in " + std::to_string(number("spoolDatasets")) + " datasets");
  out += row("marked", HumanBytes(number("markedBytes")) + " to be compared");
  out += row("written", HumanBytes(number("writtenBytes")) + " by " +
                            std::to_string(number("writes")) + " writes, sent " +
                            HumanBytes(number("sentBytes")));
  const json none = json::object();
  const json lately = status.value("guestLatencyLately", none);
  if (lately.is_object() && lately.value("writes", std::uint64_t{0}) > 0) {
    out += row("guest", "writes are held up for " +
                            std::to_string(lately.value("meanUs", std::uint64_t{0})) +
                            " us on average, 99 % of them for at most " +
                            std::to_string(lately.value("p99Us", std::uint64_t{0})) + " us");
  }
  out += row("overflows", std::to_string(number("overflows")));
  for (const char* name : {"lastOverflow", "trouble", "failure"}) {
    if (status.contains(name)) out += row(name, Escape(word(name)));
  }
  return out;
}

void LagClock::See(const SourceStatus& status, bool isRecording, std::uint64_t nowMs) {
  if (!isRecording || status.resyncing) {
    m_closed.clear();
    if (m_outSince == 0) m_outSince = nowMs;
    return;
  }
  m_outSince = 0;
  if (status.closed > (m_closed.empty() ? status.flushed : m_closed.back().first)) {
    m_closed.emplace_back(status.closed, nowMs);
  }
  while (!m_closed.empty() && m_closed.front().first <= status.flushed) m_closed.pop_front();
}

std::uint64_t LagClock::LagMs(std::uint64_t nowMs) const {
  if (m_outSince != 0) return nowMs - m_outSince;
  return m_closed.empty() ? 0 : nowMs - m_closed.front().second;
}

// --- The socket. ---

std::string ControlPath(const std::string& directory) { return directory + "/source.sock"; }

Control::Control(EventLoop& loop, SourceRunner& runner, const Capture& capture,
                 const GuestLatency& latency, std::string group, LiveLimits limits)
    : m_loop(loop),
      m_runner(runner),
      m_capture(capture),
      m_latency(latency),
      m_group(std::move(group)),
      m_limits(limits) {}

std::string Control::Open(const std::string& directory) {
  Endpoint endpoint;
  if (auto fault = Endpoint::Parse("unix:" + ControlPath(directory), endpoint); !fault.empty()) {
    return fault;
  }
  ListenOptions options;
  options.allowPlaintext = true;
  options.maxConnections = 16;
  return Listener::Open(
      m_loop, endpoint, options,
      {.onAccepted = [this](std::unique_ptr<Connection> made) { Take(std::move(made)); }},
      m_listener);
}

void Control::Take(std::unique_ptr<Connection> connection) {
  const Place peer = m_peers.insert(m_peers.end(), Peer{std::move(connection), 0, {}});
  peer->connection->AllowAll();
  peer->connection->Start({.onFrame = [this, peer](const Frame& frame) { Answer(peer, frame); },
                           .onClosed =
                               [this, peer](const std::string&) {
                                 m_loop.Post([this, peer] { m_peers.erase(peer); });
                               }});
}

void Control::Answer(Place peer, const Frame& frame) {
  if (frame.type != FrameType::kStatusReply) return peer->connection->Close();
  const Bytes bytes = frame.Payload();
  const std::string answer = Do(*peer, std::string(bytes.begin(), bytes.end()));
  if (!answer.empty()) peer->connection->Send(EncodeStatusReply(answer));
}

// Returns the answer; empty: it comes later.
std::string Control::Do(Peer& peer, const std::string& text) {
  const auto request = json::parse(text, nullptr, false);
  if (!request.is_object() || !request.contains("do") || !request["do"].is_string()) {
    return Refusal("that is no request");
  }
  const auto order = request["do"].get<std::string>();
  if (order == "pause") {
    m_runner.With([](SourceEngine& engine, const Moment& now) { engine.Pause(now); });
  } else if (order == "resume") {
    m_runner.With([](SourceEngine& engine, const Moment& now) { engine.Resume(now); });
  } else if (order == "limit-rate") {
    if (!request.contains("bytes") || !request["bytes"].is_number_unsigned()) {
      return Refusal("limit-rate wants a number of bytes");
    }
    m_runner.SetRateLimit(request["bytes"].get<std::uint64_t>());
  } else if (order == "point") {
    const auto wait = request.value("wait", json(""));
    const auto consistent = request.value("consistent", json(false));
    const auto mark = request.value("mark", json(""));
    if (!wait.is_string() || !consistent.is_boolean() || !mark.is_string()) {
      return Refusal("that is no request");
    }
    return ClosePoint(peer, wait, consistent, mark);
  } else if (order != "status") {
    return Refusal("an order that this version does not know");
  }
  return Status();
}

LiveTimes Control::Times() const {
  const std::uint64_t now = EventLoop::NowMs();
  return {m_lag.LagMs(now), m_eta.Seconds(now), m_latency.Read(), m_lately};
}

std::string Control::Status() const {
  return LiveStatusText(m_group, m_runner.Engine().Status(), m_capture, m_limits, Times());
}

std::string Control::Metrics() const {
  return SourceMetrics(m_group, m_runner.Engine().Status(), m_capture, m_limits, Times());
}

std::string Control::ClosePoint(Peer& peer, const std::string& wait, bool consistent,
                                const std::string& mark) {
  if (!wait.empty() && wait != "durable" && wait != "applied" && wait != "flushed") {
    return Refusal("a point can be waited for until it is durable, applied or flushed");
  }
  if (!mark.empty() && !IsPointName(mark)) {
    return Refusal("a mark is printable ASCII, " + std::to_string(kMaxPointNameBytes) +
                   " characters at most");
  }
  std::uint64_t n = 0;
  m_runner.With([&](SourceEngine& engine, const Moment& now) {
    n = engine.CloseDataset(now, consistent, mark);
  });
  if (n == 0) {
    const LiveState state = StateOf(m_runner.Engine().Status(), m_capture.IsRecording());
    return Refusal(std::string("there is no point now, the source is ") + Text(state));
  }
  peer.point = n;
  peer.wait = wait;
  if (!IsReached(peer)) return {};
  peer.point = 0;
  return json{{"point", n}}.dump();
}

// Within a comparison the target is at no point of the source, whatever number it has reached.
bool Control::IsReached(const Peer& peer) const {
  if (peer.wait.empty()) return true;
  const SourceStatus& status = m_runner.Engine().Status();
  const std::uint64_t least = std::max(peer.point, status.syncedAt);
  if (status.resyncing) return false;
  if (peer.wait == "durable") return status.durable >= least;
  return (peer.wait == "applied" ? status.applied : status.flushed) >= least;
}

void Control::Changed() {
  const SourceStatus& status = m_runner.Engine().Status();
  const std::uint64_t now = EventLoop::NowMs();
  m_lag.See(status, m_capture.IsRecording(), now);
  m_eta.See(status.resyncing ? status.passedBytes : 0, status.resyncing ? status.passBytes : 0,
            now);
  m_lately = m_recent.See(m_latency.Read(), now);
  for (Peer& peer : m_peers) {
    if (peer.point == 0) continue;
    if (IsReached(peer)) {
      peer.connection->Send(EncodeStatusReply(json{{"point", peer.point}}.dump()));
    } else if (status.phase == SourcePhase::kStopped || !m_capture.IsRecording()) {
      peer.connection->Send(EncodeStatusReply(
          Refusal("point " + std::to_string(peer.point) + " was given up with the backlog")));
    } else {
      continue;
    }
    peer.point = 0;
  }
}

// --- The other end. ---

std::string AskControl(const std::string& directory, const std::string& request,
                       std::string& answer) {
  EventLoop loop;
  Endpoint endpoint;
  std::string fault = Endpoint::Parse("unix:" + ControlPath(directory), endpoint);
  if (!fault.empty()) return fault;
  ConnectOptions options;
  options.allowPlaintext = true;
  std::unique_ptr<Connection> connection;
  const auto end = [&](const std::string& why) {
    fault = why;
    loop.Stop();
  };
  ConnectAttempt attempt(
      loop, endpoint, options, [&](std::unique_ptr<Connection> made, const std::string& error) {
        if (!made) return end("no source is running in " + directory + " (" + error + ")");
        connection = std::move(made);
        connection->AllowAll();
        connection->Start({.onFrame =
                               [&](const Frame& frame) {
                                 const Bytes bytes = frame.Payload();
                                 answer.assign(bytes.begin(), bytes.end());
                                 loop.Stop();
                               },
                           .onClosed = end});
        connection->Send(EncodeStatusReply(request));
      });
  // A point may be waited for as long as it takes.
  if (request.find("\"wait\"") == std::string::npos) {
    loop.After(kAnswerMs, [&] { end("the source in " + directory + " does not answer"); });
  }
  loop.Run();
  if (!fault.empty()) return fault;
  const auto reply = json::parse(answer, nullptr, false);
  if (!reply.is_object()) return "the source's answer makes no sense";
  return reply.contains("error") && reply["error"].is_string() ? reply["error"].get<std::string>()
                                                               : "";
}

}  // namespace penstock
