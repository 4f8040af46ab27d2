// SPDX-License-Identifier: Apache-2.0
#include "replicator/runner_common.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <utility>

#include "replicator/files.h"
#include "replicator/log.h"

namespace penstock {

Moment Now() { return {EventLoop::NowMs(), EventLoop::WallMs()}; }

void FillRandom(std::span<std::uint8_t> out) {
  while (!out.empty()) {
    const ssize_t count = ::getrandom(out.data(), out.size(), 0);
    if (count > 0) {
      out = out.subspan(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      // Keys that can be guessed are worse than no copy.
      Log(Severity::kError, "the system has no random numbers");
      std::abort();
    }
  }
}

std::string WithHint(const std::string& fault) {
  const bool isRefused = fault.ends_with(ErrnoText(ECONNREFUSED));
  return isRefused ? fault + ": nobody listens there" : fault;
}

void Say(const Note& note) {
  switch (note.level) {
    case NoteLevel::kInfo: return Log(Severity::kInfo, note.text);
    case NoteLevel::kNotice: return Log(Severity::kWarning, note.text);
    case NoteLevel::kError: return Log(Severity::kError, note.text);
  }
}

void DeadlineTimer::SetBy(Millis ms, std::function<void()> task) {
  if (ms == std::numeric_limits<Millis>::max()) return;
  if (m_timer != 0 && m_at <= ms) return;
  if (m_timer != 0) m_loop.Cancel(m_timer);
  m_at = ms;
  m_timer = m_loop.At(ms, [this, task = std::move(task)] {
    m_timer = 0;
    task();
  });
}

void DeadlineTimer::Cancel() {
  if (m_timer != 0) m_loop.Cancel(m_timer);
  m_timer = 0;
}

}  // namespace penstock
