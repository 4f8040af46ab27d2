// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_EXAMPLES_MINIMAL_HOST_FAILURE_H_
#define PENSTOCK_EXAMPLES_MINIMAL_HOST_FAILURE_H_

#include <stdexcept>

// What ends the program. The text is one line: what failed, where, and what to do about it.

// The work failed: exit code 1.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The command line is wrong: exit code 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

#endif  // PENSTOCK_EXAMPLES_MINIMAL_HOST_FAILURE_H_
