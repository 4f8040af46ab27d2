// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_CAPTURE_GUEST_LATENCY_H_
#define PENSTOCK_CAPTURE_GUEST_LATENCY_H_

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>

namespace penstock {

// How many writes were held up for how long: at most 1, 2, 4, ... microseconds; the last count is
// of those above every bound.
struct LatencyCounts {
  static constexpr std::size_t kBounds = 21;  // the last is 1.05 s
  std::array<std::uint64_t, kBounds + 1> counts{};
  std::uint64_t sumNs = 0;

  static constexpr std::uint64_t BoundUs(std::size_t index) { return std::uint64_t{1} << index; }
  std::uint64_t Total() const;
  // Microseconds that so many parts of a hundred were not held up longer than: a bound, and of
  // those above every bound twice the last; 0 when there are none.
  std::uint64_t PercentileUs(unsigned percent) const;
  std::uint64_t MeanUs() const;
  // What came since. REQUIRES: `before` was read earlier.
  LatencyCounts Since(const LatencyCounts& before) const;
};

// Counts what capture adds to a guest's writes: everything but the time of the volume itself.
//
// Threads: any; it takes no lock.
class GuestLatency {
 public:
  void Add(std::chrono::nanoseconds held);
  LatencyCounts Read() const;

 private:
  std::array<std::atomic<std::uint64_t>, LatencyCounts::kBounds + 1> m_counts{};
  std::atomic<std::uint64_t> m_sumNs{0};
};

// The counts of the last half a minute to a minute, of what is looked at now and then.
//
// Threads: one at a time.
class RecentLatency {
 public:
  LatencyCounts See(const LatencyCounts& now, std::uint64_t nowMs);

 private:
  static constexpr std::uint64_t kStepMs = 30'000;
  LatencyCounts m_older, m_newer;
  std::uint64_t m_newerAt = 0;
};

// When a comparison will be done, from how fast it has been.
//
// Threads: one at a time.
class EtaClock {
 public:
  // `done` of `total` bytes are compared; 0 of 0: nothing is.
  void See(std::uint64_t done, std::uint64_t total, std::uint64_t nowMs);
  // Seconds; 0: that can't be said.
  std::uint64_t Seconds(std::uint64_t nowMs) const;

 private:
  std::uint64_t m_from = 0, m_done = 0, m_total = 0;
  std::uint64_t m_since = 0;
};

}  // namespace penstock

#endif  // PENSTOCK_CAPTURE_GUEST_LATENCY_H_
