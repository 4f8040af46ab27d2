// SPDX-License-Identifier: Apache-2.0
// Writes the dataset file that docs/format.md works through, and prints it: its path below the
// directory given, then its bytes.

#include <xxhash.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>

#include "penstock/host.h"
#include "penstock/penstock.h"

namespace {

constexpr std::uint64_t kNumber = 0x100002345;
constexpr std::uint64_t kTimestampMs = 1700000000000;

UuidT ExampleVolume() {
  UuidT volume;
  std::uint8_t next = 0;
  for (std::uint8_t& byte : volume.bytes) byte = static_cast<std::uint8_t>(next++ * 0x11);
  return volume;
}

std::shared_ptr<OM_DP::DatasetStartv2> ExampleStart(const UuidT& volume) {
  auto start = OM_DP::MakeDatasetStartv2(1);
  start->n = kNumber;
  start->timestampMs = kTimestampMs;
  start->groupId.fill(0xA5);
  start->formatVersion = 1;
  std::copy(volume.bytes.begin(), volume.bytes.end(), OM_DP::Entries(*start));
  return start;
}

// One extent, 8 bytes at offset 0x1000, as it is.
std::shared_ptr<OM_DP::CompressedData> ExampleUnit() {
  constexpr std::uint64_t kOffset = 0x1000;
  const std::string data = "penstock";
  const auto dataBytes = static_cast<std::uint32_t>(data.size());
  auto unit = OM_DP::MakeCompressedData(12 + dataBytes);
  std::uint8_t* body = OM_DP::Body(*unit);
  std::memcpy(body, &kOffset, 8);
  std::memcpy(body + 8, &dataBytes, 4);
  std::copy(data.begin(), data.end(), body + 12);
  unit->bodyHash = XXH3_64bits(body, unit->length);
  unit->rawLength = dataBytes;
  unit->codec = 1;
  unit->extentCount = 1;
  return unit;
}

std::string HexDump(const std::string& bytes) {
  std::ostringstream out;
  out << std::hex << std::setfill('0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i % 16 == 0) out << (i == 0 ? "" : "\n") << std::setw(4) << i << " ";
    out << ' ' << std::setw(2) << unsigned{static_cast<unsigned char>(bytes[i])};
  }
  out << '\n';
  return out.str();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: format_example DIRECTORY\n";
    return 2;
  }
  const std::string base = argv[1];
  const UuidT volume = ExampleVolume();
  DatasetSerializer file(kNumber, volume, base);
  const bool isWritten = file.WriteHeader(kNumber, ExampleStart(volume)) == 60 &&
                         file.WriteData(kNumber, ExampleUnit()).first == 40 &&
                         file.CloseDatasetFile(kNumber, false) == 0;
  const std::string path =
      DatasetBasePath(base, UUID::MakeUUID(volume), kNumber) + "0000000100002345.ds";
  std::ifstream in(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (!isWritten || !in.is_open()) {
    std::cerr << "format_example: '" << path << "' can't be written: name an empty directory\n";
    return 1;
  }
  std::cout << path.substr(base.size() + 1) << '\n' << HexDump(bytes);
  return 0;
}
