// SPDX-License-Identifier: Apache-2.0
#include "penstock/error_code.h"

#include <ostream>

namespace {

// `switch` over every value, without a default: a new code without a name does not compile.
const char* NameOf(DS_ERROR error) {
  switch (error) {
    case DS_ERROR_OK: return "DS_ERROR_OK";
    case DS_ERROR_FAILED: return "DS_ERROR_FAILED";
    case DS_ERROR_ALREADY_EXISTS: return "DS_ERROR_ALREADY_EXISTS";
    case DS_ERROR_MISMATCH: return "DS_ERROR_MISMATCH";
    case DS_ERROR_LOCAL_FP_MISSING: return "DS_ERROR_LOCAL_FP_MISSING";
    case DS_ERROR_REMOTE_FP_MISSING: return "DS_ERROR_REMOTE_FP_MISSING";
    case DS_ERROR_DS_TOO_OLD: return "DS_ERROR_DS_TOO_OLD";
    case DS_ERROR_ALREADY_FINALIZED: return "DS_ERROR_ALREADY_FINALIZED";
    case DS_ERROR_NO_DATASET: return "DS_ERROR_NO_DATASET";
    case DS_ERROR_BUFS_FP_EQUAL: return "DS_ERROR_BUFS_FP_EQUAL";
    case DS_ERROR_ACK_OUT_OF_ORDER: return "DS_ERROR_ACK_OUT_OF_ORDER";
    case DS_ERROR_OUT_OF_RANGE: return "DS_ERROR_OUT_OF_RANGE";
    case DS_ERROR_UNKNOWN_VOLUME: return "DS_ERROR_UNKNOWN_VOLUME";
    case DS_ERROR_ACK_TOO_OLD: return "DS_ERROR_ACK_TOO_OLD";
  }
  return "UNDEFINED DS_ERROR VALUE";
}

}  // namespace

std::ostream& operator<<(std::ostream& out, DS_ERROR error) { return out << NameOf(error); }
