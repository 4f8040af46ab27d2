// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_MOUNTS_H_
#define PENSTOCK_REPLICATOR_MOUNTS_H_

#include <sys/stat.h>

#include <string>
#include <string_view>

namespace penstock {

// Where the device with this number is mounted, by the text of /proc/self/mountinfo; empty:
// nowhere.
std::string MountPointOf(std::string_view mountinfo, unsigned majorNumber, unsigned minorNumber);

// Where a block device, or a file through a loop device, is mounted; empty: nowhere.
std::string MountPointOf(const struct stat& file);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_MOUNTS_H_
