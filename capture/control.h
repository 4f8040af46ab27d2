// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_CAPTURE_CONTROL_H_
#define PENSTOCK_CAPTURE_CONTROL_H_

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "capture/guest_latency.h"
#include "engine/capture.h"
#include "replicator/event_loop.h"
#include "replicator/runner_source.h"
#include "replicator/transport.h"

namespace penstock {

// What a source in live use is doing, in one word for people and monitoring.
enum class LiveState : std::uint8_t {
  kConnecting,    // not yet reached the target
  kReplicating,   // what is written follows within the interval
  kSpooling,      // it waits on disk
  kTrackingOnly,  // it is marked, and will be compared
  kResyncing,     // what was marked is being compared
  kPaused,
  kStopped,  // for good, until it is started again: see the failure
};
const char* Text(LiveState state);
// The states and when a source is in each: the first rule that holds tells it. ARCHITECTURE.md has
// the same table.
struct LiveRule {
  const char* when;
  bool (*holds)(const SourceStatus& status, bool isRecording);
  LiveState state;
};
std::span<const LiveRule> LiveRules();
LiveState StateOf(const SourceStatus& status, bool isRecording);

// What a source says of itself, as JSON: see docs/operations.md.
struct LiveLimits {
  std::uint64_t memory = 0;
  std::uint64_t spool = 0;
};
struct LiveTimes {
  std::uint64_t lagMs = 0;
  std::uint64_t etaSeconds = 0;  // of a comparison; 0: that can't be said
  LatencyCounts held = {};       // by capture, since the start
  LatencyCounts heldLately = {};
};
std::string LiveStatusText(const std::string& group, const SourceStatus& status,
                           const Capture& capture, const LiveLimits& limits,
                           const LiveTimes& times);

// How far the target is behind, in time: since when something that was closed is not flushed there,
// or nothing could be closed for it.
//
// Threads: one at a time.
class LagClock {
 public:
  // To be told after every change, with a clock that never goes back.
  void See(const SourceStatus& status, bool isRecording, std::uint64_t nowMs);
  std::uint64_t LagMs(std::uint64_t nowMs) const;

 private:
  std::deque<std::pair<std::uint64_t, std::uint64_t>> m_closed;  // numbers, and when they were seen
  std::uint64_t m_outSince = 0;                                  // of order; 0: it is in order
};

// The same for people, from the JSON.
std::string LiveStatusTable(const std::string& text);

// The path of the socket in a state directory.
std::string ControlPath(const std::string& directory);

// Listens on a UNIX socket in the state directory, mode 0600, for whoever may look into that: asks
// and orders as JSON, one object each way: {"do": "status"}, {"do": "point", "wait": "durable",
// "mark": "before the upgrade"},
// {"do": "pause"}, {"do": "resume"}, {"do": "limit-rate", "bytes": 1000000}.
//
// Threads: the loop's.
class Control {
 public:
  Control(EventLoop& loop, SourceRunner& runner, const Capture& capture,
          const GuestLatency& latency, std::string group, LiveLimits limits);
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  // Returns an empty text, or why it can't listen.
  std::string Open(const std::string& directory);
  // The source moved on: somebody may wait for that.
  void Changed();
  // What the status says, for monitoring.
  std::string Metrics() const;

 private:
  struct Peer {
    std::unique_ptr<Connection> connection;
    std::uint64_t point = 0;  // that it waits for; 0: none
    std::string wait;
  };
  using Place = std::list<Peer>::iterator;

  void Take(std::unique_ptr<Connection> connection);
  void Answer(Place peer, const Frame& frame);
  std::string Do(Peer& peer, const std::string& text);
  std::string Status() const;
  LiveTimes Times() const;
  std::string ClosePoint(Peer& peer, const std::string& wait, bool consistent,
                         const std::string& mark);
  bool IsReached(const Peer& peer) const;

  EventLoop& m_loop;
  SourceRunner& m_runner;
  const Capture& m_capture;
  const GuestLatency& m_latency;
  std::string m_group;
  LiveLimits m_limits;
  LagClock m_lag;
  EtaClock m_eta;
  RecentLatency m_recent;
  LatencyCounts m_lately;
  std::list<Peer> m_peers;
  std::unique_ptr<Listener> m_listener;
};

// Asks a source's control socket. Returns an empty text and its answer, or what is wrong.
std::string AskControl(const std::string& directory, const std::string& request,
                       std::string& answer);

}  // namespace penstock

#endif  // PENSTOCK_CAPTURE_CONTROL_H_
