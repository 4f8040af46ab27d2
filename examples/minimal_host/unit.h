// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_EXAMPLES_MINIMAL_HOST_UNIT_H_
#define PENSTOCK_EXAMPLES_MINIMAL_HOST_UNIT_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "penstock/penstock.h"

// What this host puts into the records of a dataset file: the bodies and the fields that the
// library leaves to its host. docs/format.md describes both.

inline constexpr std::uint8_t kCodecRaw = 1;  // the data stands in the body as it is
inline constexpr std::uint16_t kFormatVersion = 1;
inline constexpr std::uint32_t kExtentBytes = 12;          // offset, 8 bytes; length, 4 bytes
inline constexpr std::uint32_t kMaxUnitBytes = 1U << 20U;  // of data

// Returns the record that opens dataset `ds` of `volume`.
std::shared_ptr<OM_DP::DatasetStartv2> MakeStart(const Dataset& ds, const UuidT& volume);

// Returns the records that carry `bufs`, in order, each with at most kMaxUnitBytes of data.
std::vector<std::shared_ptr<OM_DP::CompressedData>> MakeUnits(
    const std::vector<InternalData>& bufs);

#endif  // PENSTOCK_EXAMPLES_MINIMAL_HOST_UNIT_H_
