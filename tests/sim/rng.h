// SPDX-License-Identifier: Apache-2.0
// The one source of chance of a simulation.
#ifndef PENSTOCK_TESTS_SIM_RNG_H_
#define PENSTOCK_TESTS_SIM_RNG_H_

#include <cstdint>
#include <span>

namespace penstock::sim {

// splitmix64 (Steele, Lea, Flood 2014): one word of state, good enough to draw faults.
class Rng {
 public:
  explicit Rng(std::uint64_t seed) : m_state(seed) {}

  std::uint64_t Next() {
    std::uint64_t z = m_state += 0x9e3779b97f4a7c15U;
    z = (z ^ (z >> 30U)) * 0xbf58476d1ce4e5b9U;
    z = (z ^ (z >> 27U)) * 0x94d049bb133111ebU;
    return z ^ (z >> 31U);
  }
  // 0 to bound - 1; 0 for bound 0.
  std::uint64_t Below(std::uint64_t bound) { return bound == 0 ? 0 : Next() % bound; }
  std::uint64_t Between(std::uint64_t low, std::uint64_t high) {
    return low + Below(high - low + 1);
  }
  bool Chance(double probability) {
    return static_cast<double>(Next() >> 11U) * 0x1.0p-53 < probability;
  }
  void Fill(std::span<std::uint8_t> out) {
    for (std::uint8_t& byte : out) byte = static_cast<std::uint8_t>(Next());
  }

 private:
  std::uint64_t m_state;
};

}  // namespace penstock::sim

#endif  // PENSTOCK_TESTS_SIM_RNG_H_
