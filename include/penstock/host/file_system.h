// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_HOST_FILE_SYSTEM_H_
#define PENSTOCK_HOST_FILE_SYSTEM_H_

#include <string>

#include "penstock/export.h"

// Directories on local disk.
class PENSTOCK_HOST_EXPORT FileSystem {
 public:
  // Creates the directory `path` and every missing one above it, with the process's umask.
  //
  // Returns true when `path` is a directory afterwards, false otherwise (a file in the way, no
  // permission, no space, an empty path).
  // Threads: any.
  static bool CreateDirPath(const std::string& path);
};

#endif  // PENSTOCK_HOST_FILE_SYSTEM_H_
