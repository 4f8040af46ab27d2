// SPDX-License-Identifier: Apache-2.0
#include "capture/pacer.h"

#include <algorithm>

namespace penstock {

namespace {

// How far apart the samples are of which a rate is made. Memory leaves by whole datasets: the
// oldest sample has to be older than one of them takes.
constexpr std::chrono::milliseconds kStep{150};
// Nobody wrote for longer: what left meanwhile says nothing.
constexpr std::chrono::milliseconds kIdle{300};
// The lowest rate: all of the memory in so many seconds.
constexpr double kSlowest = 64;

using Seconds = std::chrono::duration<double>;

}  // namespace

void Pacer::Learn(std::uint64_t left, Clock::time_point now) {
  if (m_count > 0) {
    const Sample& newest = m_samples.at(m_count - 1);
    if (now - newest.at > kIdle) m_count = 0;
  }
  if (m_count > 0) {
    if (now - m_samples.at(m_count - 1).at < kStep) return;
    const Sample& oldest = m_samples.front();
    // The counts of the threads come a little out of order.
    const auto bytes = static_cast<double>(left - std::min(left, oldest.left));
    m_rate = std::max(bytes / Seconds(now - oldest.at).count(),
                      static_cast<double>(m_memory) / kSlowest);
  }
  if (m_count == m_samples.size()) {
    std::move(m_samples.begin() + 1, m_samples.end(), m_samples.begin());
    --m_count;
  }
  m_samples.at(m_count++) = {now, left};
}

Pacer::Clock::duration Pacer::Wait(std::uint64_t bytes, std::uint64_t taken, std::uint64_t held,
                                   Clock::time_point now) {
  if (held <= m_memory / 2) return {};
  const std::lock_guard lock(m_mutex);
  Learn(taken - std::min(held, taken), now);
  const std::uint64_t part = m_memory / 4;
  if (held <= 3 * part) return {};
  const auto share = static_cast<double>(std::min(held - 3 * part, part - 1));
  const double factor = share / (static_cast<double>(part) - share);
  const auto own = std::chrono::duration_cast<Clock::duration>(
      std::min<Seconds>(Seconds(static_cast<double>(bytes) * factor / m_rate), kLongest));
  const Clock::time_point begin = std::max(m_free, now);
  const auto parts = static_cast<std::int64_t>(1 + bytes / kDelayPart);
  const Clock::duration longest = std::min<Clock::duration>(kDelay * parts, kLongest);
  m_free = std::min<Clock::time_point>(begin + own, now + 2 * kLongest);
  const Clock::duration wait = std::min(begin - now, longest);
  return wait < kLeast ? Clock::duration{} : wait;
}

double Pacer::Rate() const {
  const std::lock_guard lock(m_mutex);
  return m_rate;
}

}  // namespace penstock
