// SPDX-License-Identifier: Apache-2.0
// What the two runners share.
#ifndef PENSTOCK_REPLICATOR_RUNNER_COMMON_H_
#define PENSTOCK_REPLICATOR_RUNNER_COMMON_H_

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "engine/commands.h"
#include "replicator/event_loop.h"

namespace penstock {

// The time, as the engines are told it.
Moment Now();

// Fills with the system's random bytes. Ends the process when there are none.
void FillRandom(std::span<std::uint8_t> out);

// What the transport says of a failed attempt to connect, with what it means where that is known.
std::string WithHint(const std::string& fault);

// Logs what an engine has to say.
void Say(const Note& note);

// Calls back at a time that moves: later ones cost nothing, because the timer looks again when it
// runs out.
class DeadlineTimer {
 public:
  explicit DeadlineTimer(EventLoop& loop) : m_loop(loop) {}

  // Calls `task` at `ms` at the latest; it sets the timer again for what is left to do.
  void SetBy(Millis ms, std::function<void()> task);
  void Cancel();

 private:
  EventLoop& m_loop;
  EventLoop::TimerId m_timer = 0;
  Millis m_at = 0;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_RUNNER_COMMON_H_
