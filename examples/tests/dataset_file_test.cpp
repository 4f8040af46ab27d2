// SPDX-License-Identifier: Apache-2.0
// Damages a dataset file in every way that changes one byte or cuts it off, and reads it. The goal:
// a damaged unit is never handed out. What no checksum covers is listed, and nothing else may pass.

#include "minimal_host/dataset_file.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "minimal_host/failure.h"
#include "minimal_host/temp_dir.h"
#include "minimal_host/unit.h"

namespace {

constexpr std::uint64_t kNumber = 7;

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteAll(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Returns the number of extents that the file yields, or -1 when the reader refuses it.
int Extents(const std::string& path) {
  try {
    DatasetFile file(path, kNumber, UuidT{});
    int extents = 0;
    while (const auto unit = file.NextUnit()) extents += static_cast<int>(unit->size());
    return extents;
  } catch (const Failure&) {
    return -1;
  }
}

std::string WriteExample(const std::string& spool) {
  const Dataset ds(kNumber, true, 0, 0U);
  std::vector<InternalData> bufs;
  for (std::uint64_t i = 0; i < 3; ++i) {
    bufs.push_back({UuidT{}, i * 64, 8, std::make_shared<std::uint8_t[]>(8), 0});
  }
  DatasetSerializer file(kNumber, UuidT{}, spool);
  file.WriteHeader(kNumber, MakeStart(ds, UuidT{}));
  for (const auto& unit : MakeUnits(bufs)) file.WriteData(kNumber, unit);
  file.CloseDatasetFile(kNumber, false);
  return DatasetFilePath(spool, UuidT{}, kNumber);
}

// The start record's timestamp, group id, dataset type and flags, behind the 24-byte header.
bool IsCovered(std::size_t byte) { return byte < 24 + 8 || byte >= 24 + 40; }

}  // namespace

int main() {
  const TempDir temp;
  const std::string path = WriteExample(temp.Path());
  const std::string good = ReadAll(path);
  int failures = 0;
  const auto expect = [&failures](bool isTrue, const std::string& what) {
    if (isTrue) return;
    ++failures;
    std::cerr << "dataset_file_test: not so: " << what << '\n';
  };
  expect(Extents(path) == 3, "the good file has 3 extents");
  for (std::size_t i = 0; i < good.size(); ++i) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ 1);
    WriteAll(path, bad);
    expect((Extents(path) == -1) == IsCovered(i),
           "the reader sees that byte " + std::to_string(i) + " was changed, if it is covered");
  }
  for (std::size_t size = 0; size < good.size(); ++size) {
    WriteAll(path, good.substr(0, size));
    // A file that ends between two records is whole so far: the last record is the host's to count.
    const int expected = size == 24 + 60 ? 0 : -1;
    expect(Extents(path) == expected,
           "the reader sees a file of " + std::to_string(size) + " bytes");
  }
  return failures == 0 ? 0 : 1;
}
