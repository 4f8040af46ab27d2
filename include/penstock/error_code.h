// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_ERROR_CODE_H_
#define PENSTOCK_ERROR_CODE_H_

#include <cstdint>
#include <iosfwd>

#include "penstock/export.h"

// The result of the operations of Dataset and Pipeline: 0 is success, every failure is negative.
//
// Two results have no name on purpose, so that a caller can tell them from every named failure:
// -14 from Dataset::NotifyBufferReady (a finalized buffer is still waiting for other units) and
// -15 from Pipeline::PushDs (the pipeline accepts no datasets). Treat both like any other failure.
enum DS_ERROR : std::int32_t {
  // Done.
  DS_ERROR_OK = 0,
  // Failed for a reason that has no code of its own; the log record says which.
  DS_ERROR_FAILED = -1,
  // The buffer was finalized, or its fingerprint was added, before.
  DS_ERROR_ALREADY_EXISTS = -2,
  // Reserved: no operation returns it.
  DS_ERROR_MISMATCH = -3,
  // The buffer has no fingerprint of the source yet, so it can't be decided.
  DS_ERROR_LOCAL_FP_MISSING = -4,
  // The buffer has no fingerprint of the target yet, so it can't be decided.
  DS_ERROR_REMOTE_FP_MISSING = -5,
  // The dataset's number is not above the last one accepted.
  DS_ERROR_DS_TOO_OLD = -6,
  // The buffer was finalized before; nothing was queued.
  DS_ERROR_ALREADY_FINALIZED = -7,
  // No dataset, or no record, of that number.
  DS_ERROR_NO_DATASET = -8,
  // The fingerprints of both sides are equal: drop the buffer.
  DS_ERROR_BUFS_FP_EQUAL = -9,
  // An acknowledgement for a dataset behind the oldest one in transmission.
  DS_ERROR_ACK_OUT_OF_ORDER = -10,
  // Outside the volume's range, or beyond the dataset's capacity.
  DS_ERROR_OUT_OF_RANGE = -11,
  // The resync dataset has no range for the buffer's volume.
  DS_ERROR_UNKNOWN_VOLUME = -12,
  // An acknowledgement for a dataset that was acknowledged before.
  DS_ERROR_ACK_TOO_OLD = -13,
};

// Writes the code's name, for example "DS_ERROR_OUT_OF_RANGE"; any value without a name is written
// as "UNDEFINED DS_ERROR VALUE".
//
// Threads: any.
PENSTOCK_EXPORT std::ostream& operator<<(std::ostream& out, DS_ERROR error);

#endif  // PENSTOCK_ERROR_CODE_H_
