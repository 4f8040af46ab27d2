// SPDX-License-Identifier: Apache-2.0
// Time, chance, faults and the verdict of a simulation.
#ifndef PENSTOCK_TESTS_SIM_WORLD_H_
#define PENSTOCK_TESTS_SIM_WORLD_H_

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "engine/commands.h"
#include "tests/sim/rng.h"

namespace penstock::sim {

// A rule was broken.
class Broken : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// How likely each fault is, drawn from the seed.
struct Faults {
  double cut = 0;          // a chunk is the last of its connection
  double flip = 0;         // a bit of a chunk
  double repeat = 0;       // a chunk comes twice
  double late = 0;         // a chunk of an earlier connection comes again
  double slow = 0;         // an operation takes long
  double syncFails = 0;    // of a file
  double misdirect = 0;    // of a journal write
  double full = 0;         // the disk has no room for a while
  double crashTarget = 0;  // for each command
  double crashSource = 0;
  double tamper = 0;  // somebody fills a volume that is new while the target is down
  double clockJump = 0;
  double secondSource = 0;  // for each step of the workload
  double rogue = 0;
  bool weakPrints = false;  // 64-bit fingerprints collide
};

class World {
 public:
  explicit World(std::uint64_t seed) : rng(seed) {}

  Rng rng;
  Faults faults;
  bool calm = false;  // faults have stopped
  std::vector<std::string> trace;
  bool verbose = false;

  Moment Now() const { return {m_now, m_now + m_wallShift}; }
  void JumpClock() { m_wallShift += rng.Below(2) != 0 ? 3'600'000 : 5; }

  bool Strikes(double probability) { return !calm && rng.Chance(probability); }

  // Calls `what` after `delay` ms.
  void After(Millis delay, std::function<void()> what) {
    m_events.emplace(std::make_pair(m_now + delay, ++m_order), std::move(what));
  }
  Millis Latency() { return Strikes(faults.slow) ? rng.Between(50, 2000) : rng.Below(4); }

  // Runs the next event. Returns false when there is none.
  bool Step() {
    if (m_events.empty()) return false;
    const auto event = m_events.begin();
    m_now = std::max(m_now, event->first.first);
    const std::function<void()> what = std::move(event->second);
    m_events.erase(event);
    what();
    return true;
  }

  // Runs what happens until `end`, on the simulated clock.
  void RunUntil(Millis end) {
    while (!m_events.empty() && m_events.begin()->first.first <= end) Step();
    m_now = std::max(m_now, end);
  }

  void Log(const std::string& line) {
    trace.push_back(std::to_string(m_now) + " " + line);
    if (verbose) std::fprintf(stderr, "%s\n", trace.back().c_str());
    if (trace.size() > 400) trace.erase(trace.begin(), trace.begin() + 200);
  }

 private:
  Millis m_now = 1'000;
  Millis m_wallShift = 1'700'000'000'000;
  std::uint64_t m_order = 0;
  std::map<std::pair<Millis, std::uint64_t>, std::function<void()>> m_events;
};

#define SIM_CHECK(rule, text)                         \
  do {                                                \
    if (!(rule)) throw ::penstock::sim::Broken(text); \
  } while (false)

}  // namespace penstock::sim

#endif  // PENSTOCK_TESTS_SIM_WORLD_H_
