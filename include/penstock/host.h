// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_HOST_H_
#define PENSTOCK_HOST_H_

// The host contract: everything that libpenstock.so imports. The library penstock-host implements
// it; a host may link an implementation of its own with the same headers instead. One logger, one
// request-id key and one message prefix serve the whole process.

#include "penstock/host/coalescer.h"    // IWYU pragma: export
#include "penstock/host/commands.h"     // IWYU pragma: export
#include "penstock/host/file_system.h"  // IWYU pragma: export
#include "penstock/host/logger.h"       // IWYU pragma: export
#include "penstock/host/request_id.h"   // IWYU pragma: export
#include "penstock/host/uuid.h"         // IWYU pragma: export

#endif  // PENSTOCK_HOST_H_
