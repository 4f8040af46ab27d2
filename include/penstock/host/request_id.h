// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_HOST_REQUEST_ID_H_
#define PENSTOCK_HOST_REQUEST_ID_H_

#include <cstdint>

#include "penstock/export.h"

// The key of a 64-bit word that every thread has of its own.
//
// Threads: any; each sees its own word.
class PENSTOCK_HOST_EXPORT QRVTSP {
 public:
  // Returns the calling thread's word, never null. It is 0 at first, may be written through the
  // pointer, and lives as long as its thread.
  std::uint64_t* get() const;
};

// The calling thread's request id, carried by each log record that the thread writes.
//
//   *TSP_RequestID.get() = 42;
extern PENSTOCK_HOST_EXPORT QRVTSP TSP_RequestID;

#endif  // PENSTOCK_HOST_REQUEST_ID_H_
