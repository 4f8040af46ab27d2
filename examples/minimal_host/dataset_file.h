// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_EXAMPLES_MINIMAL_HOST_DATASET_FILE_H_
#define PENSTOCK_EXAMPLES_MINIMAL_HOST_DATASET_FILE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "minimal_host/block_diff.h"
#include "penstock/penstock.h"

// One range of a volume with its bytes.
struct Extent {
  std::uint64_t offset = 0;
  std::uint32_t length = 0;
  const std::uint8_t* data = nullptr;  // in the unit's body
};

// Reads a dataset file, record by record, and believes nothing in it: each command header's
// checksum, each length, and each body's hash is checked before anything of the record is used.
// What is wrong is a Failure that names the file and the byte.
class DatasetFile {
 public:
  // Opens the file and reads its start record, which must be that of dataset `n` of `volume`.
  DatasetFile(const std::string& path, std::uint64_t n, const UuidT& volume);

  // Returns the extents of the next unit, in order, or nothing at the file's end. They live until
  // the next call.
  std::optional<std::vector<Extent>> NextUnit();

 private:
  std::optional<DPPCmdHeader> ReadCommand();
  void ReadPayload(const DPPCmdHeader& command, std::size_t least);
  void ReadStart(std::uint64_t n, const UuidT& volume);
  [[noreturn]] void Fail(const std::string& what) const;

  InputFile m_file;
  std::uint64_t m_recordAt = 0;  // the byte at which the record being read begins
  std::uint64_t m_at = 0;
  std::vector<std::uint8_t> m_payload;
};

// Returns the path of the file of dataset `n`, as DatasetSerializer chooses it.
std::string DatasetFilePath(const std::string& spool, const UuidT& volume, std::uint64_t n);

#endif  // PENSTOCK_EXAMPLES_MINIMAL_HOST_DATASET_FILE_H_
