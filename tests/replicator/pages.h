// SPDX-License-Identifier: Apache-2.0
// How much of a file the system has in memory.
#ifndef PENSTOCK_TESTS_REPLICATOR_PAGES_H_
#define PENSTOCK_TESTS_REPLICATOR_PAGES_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "replicator/files.h"

namespace penstock {

// Where a file's pages can be dropped at all.
inline bool LivesInMemory(const std::string& path) {
  struct statfs info {};
  return ::statfs(path.c_str(), &info) == 0 && info.f_type == TMPFS_MAGIC;
}

// Pages of a range; both numbers are multiples of a page.
inline std::size_t PagesInMemory(const std::string& path, std::uint64_t offset,
                                 std::uint64_t length) {
  constexpr std::uint64_t kPage = 4096;
  const Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  void* const place =
      ::mmap(nullptr, length, PROT_READ, MAP_SHARED, file.Get(), static_cast<off_t>(offset));
  if (place == MAP_FAILED) return ~std::size_t{0};
  std::vector<unsigned char> pages(length / kPage);
  EXPECT_EQ(::mincore(place, length, pages.data()), 0);
  ::munmap(place, length);
  return static_cast<std::size_t>(
      std::ranges::count_if(pages, [](unsigned char page) { return (page & 1U) != 0; }));
}

}  // namespace penstock

#endif  // PENSTOCK_TESTS_REPLICATOR_PAGES_H_
