// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_RATE_LIMIT_H_
#define PENSTOCK_REPLICATOR_RATE_LIMIT_H_

#include <cstdint>

namespace penstock {

// A bucket of tokens, one a byte: it fills at the rate, and holds what a twentieth of a second
// makes, at least 64 KiB. Time is a value passed in, in milliseconds, and never falls.
//
// Threads: one at a time.
class RateLimit {
 public:
  // 0: no limit.
  explicit RateLimit(std::uint64_t bytesPerSecond = 0, std::uint64_t nowMs = 0);

  // How many bytes may be sent now, at most `want`.
  std::uint64_t Allowed(std::uint64_t want, std::uint64_t nowMs);
  // They were sent. REQUIRES: at most what was allowed.
  void Take(std::uint64_t bytes);
  // How long to wait until a worthwhile number may be sent: at least 1.
  std::uint64_t WaitMs() const;

 private:
  void Fill(std::uint64_t nowMs);

  std::uint64_t m_rate;
  std::uint64_t m_capacity;
  std::uint64_t m_tokens;
  std::uint64_t m_filledMs;
  std::uint64_t m_rest = 0;  // thousandths of a token
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_RATE_LIMIT_H_
