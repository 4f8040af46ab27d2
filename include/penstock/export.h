// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_EXPORT_H_
#define PENSTOCK_EXPORT_H_

// Marks a name that libpenstock.so exports. Everything without it stays inside the library.
#define PENSTOCK_EXPORT __attribute__((visibility("default")))

// Marks a name of the host contract: the default host support exports it, libpenstock.so imports
// it.
#define PENSTOCK_HOST_EXPORT __attribute__((visibility("default")))

#endif  // PENSTOCK_EXPORT_H_
