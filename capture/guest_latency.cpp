// SPDX-License-Identifier: Apache-2.0
#include "capture/guest_latency.h"

#include <algorithm>
#include <bit>
#include <numeric>

namespace penstock {

std::uint64_t LatencyCounts::Total() const {
  return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
}

std::uint64_t LatencyCounts::PercentileUs(unsigned percent) const {
  const std::uint64_t total = Total();
  if (total == 0) return 0;
  const std::uint64_t wanted = (total * percent + 99) / 100;
  std::uint64_t below = 0;
  std::size_t index = 0;
  while (index < kBounds && below + counts.at(index) < wanted) below += counts.at(index++);
  return BoundUs(index);
}

std::uint64_t LatencyCounts::MeanUs() const {
  const std::uint64_t total = Total();
  return total == 0 ? 0 : sumNs / total / 1000;
}

LatencyCounts LatencyCounts::Since(const LatencyCounts& before) const {
  LatencyCounts since = *this;
  for (std::size_t i = 0; i < counts.size(); ++i) since.counts.at(i) -= before.counts.at(i);
  since.sumNs -= before.sumNs;
  return since;
}

void GuestLatency::Add(std::chrono::nanoseconds held) {
  const auto ns = static_cast<std::uint64_t>(std::max<std::int64_t>(held.count(), 0));
  const std::uint64_t us = (ns + 999) / 1000;
  const auto index = static_cast<std::size_t>(us <= 1 ? 0 : std::bit_width(us - 1));
  m_counts.at(std::min(index, LatencyCounts::kBounds)).fetch_add(1, std::memory_order_relaxed);
  m_sumNs.fetch_add(ns, std::memory_order_relaxed);
}

LatencyCounts GuestLatency::Read() const {
  LatencyCounts counts;
  for (std::size_t i = 0; i < m_counts.size(); ++i) {
    counts.counts.at(i) = m_counts.at(i).load(std::memory_order_relaxed);
  }
  counts.sumNs = m_sumNs.load(std::memory_order_relaxed);
  return counts;
}

LatencyCounts RecentLatency::See(const LatencyCounts& now, std::uint64_t nowMs) {
  if (nowMs - m_newerAt >= kStepMs) {
    // Nobody looked for long: what came then is not recent.
    m_older = nowMs - m_newerAt >= 2 * kStepMs ? now : m_newer;
    if (m_newerAt == 0) m_older = LatencyCounts();
    m_newer = now;
    m_newerAt = nowMs;
  }
  return now.Since(m_older);
}

void EtaClock::See(std::uint64_t done, std::uint64_t total, std::uint64_t nowMs) {
  if (total != m_total || done < m_done) {  // another comparison
    m_from = done;
    m_since = nowMs;
  }
  m_done = done;
  m_total = total;
}

std::uint64_t EtaClock::Seconds(std::uint64_t nowMs) const {
  if (m_done <= m_from || m_done >= m_total || nowMs <= m_since) return 0;
  const double left = static_cast<double>(m_total - m_done);
  const double seconds =
      left * static_cast<double>(nowMs - m_since) / 1000 / static_cast<double>(m_done - m_from);
  return 1 + static_cast<std::uint64_t>(std::min(seconds, 1e12));
}

}  // namespace penstock
