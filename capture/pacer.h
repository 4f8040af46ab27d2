// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_CAPTURE_PACER_H_
#define PENSTOCK_CAPTURE_PACER_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace penstock {

// Slows a guest down to what the link and the spool take away, so that the backlog need not be
// given up.
//
// Beyond three quarters of the memory the writes of all threads together get a rate: three times of
// what has left lately where a quarter of the last quarter is used, as much as that where half of
// it is, a third at three quarters of it. A write takes its part of the time that follows, and
// waits for the parts of those before. It is bounded: what can't be carried off even so is given
// up.
//
// Threads: any.
class Pacer {
 public:
  using Clock = std::chrono::steady_clock;

  // A write waits at most kDelay for each part of it that was begun, and never longer than
  // kLongest.
  static constexpr std::chrono::milliseconds kDelay{5};
  static constexpr std::uint64_t kDelayPart = 128U << 10U;
  static constexpr std::chrono::milliseconds kLongest{40};
  // Shorter than this is not waited for: a timer is not that exact. It is not forgotten, either.
  static constexpr std::chrono::microseconds kLeast{50};

  // `memory` for writes, in bytes.
  explicit Pacer(std::uint64_t memory) : m_memory(memory), m_rate(static_cast<double>(memory)) {}

  // How long a write of `bytes` has to wait now, when `held` bytes are in memory of `taken` that
  // ever were. To be asked after each write. While more than half of the memory is used it learns
  // what leaves: below that, it would be what the guest writes.
  Clock::duration Wait(std::uint64_t bytes, std::uint64_t taken, std::uint64_t held,
                       Clock::time_point now);

  // Bytes that left within a second, lately.
  double Rate() const;

 private:
  struct Sample {
    Clock::time_point at;
    std::uint64_t left = 0;
  };
  void Learn(std::uint64_t left, Clock::time_point now);

  const std::uint64_t m_memory;
  mutable std::mutex m_mutex;  // of everything below
  std::array<Sample, 4> m_samples{};
  std::size_t m_count = 0;     // of them, the oldest first
  double m_rate;               // bytes a second; until it is known, all of the memory
  Clock::time_point m_free{};  // the parts of all writes so far end here
};

}  // namespace penstock

#endif  // PENSTOCK_CAPTURE_PACER_H_
