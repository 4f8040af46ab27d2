// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_EXAMPLES_MINIMAL_HOST_DEMO_H_
#define PENSTOCK_EXAMPLES_MINIMAL_HOST_DEMO_H_

#include <string>

// Makes two versions of a small disk image out of files of this machine: each begins at a multiple
// of 4096. In the new one every seventh file has been edited and more files follow. Throws Failure
// when there are no files to be found or the images can't be written.
void MakeDemoImages(const std::string& oldPath, const std::string& newPath);

#endif  // PENSTOCK_EXAMPLES_MINIMAL_HOST_DEMO_H_
