// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_EXAMPLES_MINIMAL_HOST_TEMP_DIR_H_
#define PENSTOCK_EXAMPLES_MINIMAL_HOST_TEMP_DIR_H_

#include <string>

// A new directory below $TMPDIR, or /tmp, that is removed with everything in it.
class TempDir {
 public:
  // Throws Failure when it can't be made.
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};

#endif  // PENSTOCK_EXAMPLES_MINIMAL_HOST_TEMP_DIR_H_
