// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_SIM_LIVE_RUN_H_
#define PENSTOCK_TESTS_SIM_LIVE_RUN_H_

#include <cstdint>
#include <string>

namespace penstock::sim {

struct LiveTotals {
  std::uint64_t overflows = 0;
  std::uint64_t spooled = 0;
  std::uint64_t kept = 0;
  std::uint64_t refused = 0;
};

// One run with a source whose volumes are in use. Returns what was broken; empty: nothing.
std::string RunLive(std::uint64_t seed, std::uint64_t steps, bool verbose, LiveTotals& totals);

}  // namespace penstock::sim

#endif  // PENSTOCK_TESTS_SIM_LIVE_RUN_H_
