// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_CAPTURE_SOURCE_METRICS_H_
#define PENSTOCK_CAPTURE_SOURCE_METRICS_H_

#include <cstdint>
#include <string>

#include "capture/control.h"
#include "engine/capture.h"
#include "engine/source_engine.h"

namespace penstock {

// What a source in live use says of itself, as LiveStatusText does, for monitoring: in Prometheus'
// text format. docs/operations.md has every name.
std::string SourceMetrics(const std::string& group, const SourceStatus& status,
                          const Capture& capture, const LiveLimits& limits, const LiveTimes& times);

}  // namespace penstock

#endif  // PENSTOCK_CAPTURE_SOURCE_METRICS_H_
