// SPDX-License-Identifier: Apache-2.0
#include "replicator/rate_limit.h"

#include <algorithm>

namespace penstock {

namespace {

constexpr std::uint64_t kLeastCapacity = 64U << 10U;
constexpr std::uint64_t kBursts = 20;                        // a second
constexpr std::uint64_t kMaxRate = std::uint64_t{1} << 40U;  // beyond it, no product overflows
constexpr std::uint64_t kMaxElapsedMs = 60'000;

}  // namespace

RateLimit::RateLimit(std::uint64_t bytesPerSecond, std::uint64_t nowMs)
    : m_rate(std::min(bytesPerSecond, kMaxRate)),
      m_capacity(std::max(m_rate / kBursts, kLeastCapacity)),
      m_tokens(m_capacity),
      m_filledMs(nowMs) {}

void RateLimit::Fill(std::uint64_t nowMs) {
  if (nowMs <= m_filledMs) return;
  const auto elapsed = std::min(nowMs - m_filledMs, kMaxElapsedMs);
  m_filledMs = nowMs;
  const auto made = m_rate * elapsed + m_rest;
  m_rest = made % 1000;
  m_tokens = std::min(m_tokens + made / 1000, m_capacity);
}

std::uint64_t RateLimit::Allowed(std::uint64_t want, std::uint64_t nowMs) {
  if (m_rate == 0) return want;
  Fill(nowMs);
  return std::min(want, m_tokens);
}

void RateLimit::Take(std::uint64_t bytes) {
  if (m_rate != 0) m_tokens -= std::min(bytes, m_tokens);
}

std::uint64_t RateLimit::WaitMs() const {
  if (m_rate == 0) return 1;
  const auto worthwhile = std::min(m_capacity / 2, std::max(m_rate / 100, std::uint64_t{1}));
  if (m_tokens >= worthwhile) return 1;
  return std::max<std::uint64_t>(1, (worthwhile - m_tokens) * 1000 / m_rate);
}

}  // namespace penstock
