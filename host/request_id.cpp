// SPDX-License-Identifier: Apache-2.0
#include "penstock/host/request_id.h"

namespace {

thread_local std::uint64_t requestId = 0;

}  // namespace

QRVTSP TSP_RequestID;

std::uint64_t* QRVTSP::get() const { return &requestId; }
