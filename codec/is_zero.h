// SPDX-License-Identifier: Apache-2.0
// The ways to test for zeros, for whoever wants to try each of them.
#ifndef PENSTOCK_CODEC_IS_ZERO_H_
#define PENSTOCK_CODEC_IS_ZERO_H_

#include <vector>

#include "codec/hash.h"

namespace penstock {

using ZeroTest = bool (*)(Bytes data);

// Those that this machine can run, the widest first: IsZero uses that one.
std::vector<ZeroTest> ZeroTests();

}  // namespace penstock

#endif  // PENSTOCK_CODEC_IS_ZERO_H_
