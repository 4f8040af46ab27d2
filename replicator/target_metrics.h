// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_TARGET_METRICS_H_
#define PENSTOCK_REPLICATOR_TARGET_METRICS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "engine/target_parts.h"

namespace penstock {

// What a target says of itself.
struct TargetFigures {
  std::vector<GroupStatus> groups;
  std::uint64_t connections = 0;         // that are open
  std::uint64_t refusedConnections = 0;  // since it was started
};

// The same for monitoring, in Prometheus' text format: docs/operations.md has every name. `wallMs`
// is the time now, for the lag.
std::string TargetMetrics(const TargetFigures& figures, std::uint64_t wallMs);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_TARGET_METRICS_H_
