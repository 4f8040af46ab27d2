// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_DATASET_DATASET_TYPE_H_
#define PENSTOCK_DATASET_DATASET_TYPE_H_

#include <cstdint>

// The values of Dataset::m_dsType.
inline constexpr std::uint32_t kDatasetNormal = 1;  // made by the normal constructor
// Set by no constructor: an embedding system turns a dataset into one that is filled by offloaded
// blocks, and compressed once all of them are done.
inline constexpr std::uint32_t kDatasetOffload = 2;
inline constexpr std::uint32_t kDatasetResync = 3;  // made by the resync constructor

#endif  // PENSTOCK_DATASET_DATASET_TYPE_H_
