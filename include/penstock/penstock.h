// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_PENSTOCK_H_
#define PENSTOCK_PENSTOCK_H_

// Everything that libpenstock.so exports. Start with pipeline.h.

#include "penstock/buf_info_enumerator.h"    // IWYU pragma: export
#include "penstock/dataset.h"                // IWYU pragma: export
#include "penstock/dataset_serializer.h"     // IWYU pragma: export
#include "penstock/error_code.h"             // IWYU pragma: export
#include "penstock/fingerprint_requester.h"  // IWYU pragma: export
#include "penstock/log_proxy.h"              // IWYU pragma: export
#include "penstock/pipeline.h"               // IWYU pragma: export
#include "penstock/pipeline_records.h"       // IWYU pragma: export
#include "penstock/records.h"                // IWYU pragma: export
#include "penstock/version.h"                // IWYU pragma: export

#endif  // PENSTOCK_PENSTOCK_H_
