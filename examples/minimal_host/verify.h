// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_EXAMPLES_MINIMAL_HOST_VERIFY_H_
#define PENSTOCK_EXAMPLES_MINIMAL_HOST_VERIFY_H_

#include <cstdint>
#include <string>

#include "penstock/penstock.h"

// What Verify needs to know.
struct Restore {
  std::string oldPath;
  std::string newPath;
  std::string copyPath;  // a file that is made
  std::string spool;
  UuidT volume;
  std::uint64_t datasets = 0;  // numbered from 1
};

// Applies the datasets, in order, to a copy of the old file, gives it the new file's size, and
// compares the two. Throws Failure when a dataset file is damaged or the copy differs.
void Verify(const Restore& restore);

#endif  // PENSTOCK_EXAMPLES_MINIMAL_HOST_VERIFY_H_
