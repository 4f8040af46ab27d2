// SPDX-License-Identifier: Apache-2.0
#include "minimal_host/verify.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <vector>

#include "minimal_host/block_diff.h"
#include "minimal_host/dataset_file.h"
#include "minimal_host/failure.h"

namespace {

constexpr std::size_t kChunkBytes = std::size_t{1} << 16U;

[[noreturn]] void CopyFailed(const std::string& path) {
  throw Failure("the copy '" + path + "' can't be written: make room there or set TMPDIR");
}

// Copies as many bytes of the file as the new one has: it may have become shorter.
void CopyBeginning(const std::string& from, const std::string& to, std::uint64_t size) {
  InputFile in(from);
  std::ofstream out(to, std::ios::binary);
  std::vector<std::uint8_t> chunk(kChunkBytes);
  std::size_t got = 0;
  while (size > 0 && (got = in.Read(chunk.data(), std::min(kChunkBytes, size))) > 0) {
    out.write(reinterpret_cast<const char*>(chunk.data()), static_cast<std::streamsize>(got));
    size -= got;
  }
  out.close();
  if (!out) CopyFailed(to);
}

std::uint64_t SizeOf(const std::string& path) {
  InputFile in(path);
  std::vector<std::uint8_t> chunk(kChunkBytes);
  std::uint64_t size = 0;
  while (const std::size_t got = in.Read(chunk.data(), chunk.size())) size += got;
  return size;
}

void Apply(const Restore& restore, std::uint64_t newSize) {
  std::fstream copy(restore.copyPath, std::ios::binary | std::ios::in | std::ios::out);
  for (std::uint64_t n = 1; n <= restore.datasets; ++n) {
    DatasetFile file(DatasetFilePath(restore.spool, restore.volume, n), n, restore.volume);
    while (const auto unit = file.NextUnit()) {
      for (const Extent& extent : *unit) {
        if (extent.offset > newSize || extent.length > newSize - extent.offset) {
          throw Failure("dataset " + std::to_string(n) + " writes beyond the end of '" +
                        restore.newPath + "': was it changed in the meantime?");
        }
        copy.seekp(static_cast<std::streamoff>(extent.offset));
        copy.write(reinterpret_cast<const char*>(extent.data), extent.length);
      }
    }
  }
  copy.close();
  if (!copy) CopyFailed(restore.copyPath);
}

void Compare(const std::string& copyPath, const std::string& newPath) {
  InputFile copy(copyPath);
  InputFile original(newPath);
  std::vector<std::uint8_t> a(kChunkBytes);
  std::vector<std::uint8_t> b(kChunkBytes);
  std::uint64_t at = 0;
  while (true) {
    const std::size_t copied = copy.Read(a.data(), a.size());
    const std::size_t expected = original.Read(b.data(), b.size());
    if (copied != expected || std::memcmp(a.data(), b.data(), copied) != 0) {
      throw Failure("the copy differs from '" + newPath + "' within the 65536 bytes from byte " +
                    std::to_string(at) + ": was it changed in the meantime?");
    }
    if (copied == 0) return;
    at += copied;
  }
}

}  // namespace

void Verify(const Restore& restore) {
  const std::uint64_t newSize = SizeOf(restore.newPath);
  CopyBeginning(restore.oldPath, restore.copyPath, newSize);
  Apply(restore, newSize);
  Compare(restore.copyPath, restore.newPath);
}
