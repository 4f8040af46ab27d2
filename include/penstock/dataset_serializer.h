// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_DATASET_SERIALIZER_H_
#define PENSTOCK_DATASET_SERIALIZER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "penstock/export.h"
#include "penstock/host/commands.h"
#include "penstock/host/uuid.h"

// Returns the directory of a dataset file, ending in "/": `base`, the volume's text form, the high
// 32 bits of `n` as 8 hexadecimal digits, and the low 32 bits divided by 4096 as 5.
//
// Threads: any.
PENSTOCK_EXPORT std::string DatasetBasePath(const std::string& base, const UUID& volume,
                                            unsigned long n);

// Writes one dataset of one volume into one file: a start record, then one record for each unit,
// each behind a 24-byte command header (docs/format.md). The file is DatasetBasePath and the number
// as 16 hexadecimal digits, ".ds".
//
// Nothing is retried, read back, truncated or rolled back: a failed write leaves what it wrote, and
// the host closes the file with deletion. Every failure is a result and one log record.
//
// States: closed; open after WriteHeader; closed again by CloseDatasetFile. An existing file is
// never opened.
// Threads: one at a time.
//
//   DatasetSerializer file(n, volume, "/var/lib/spool");
//   if (file.WriteHeader(n, start) < 1 || file.WriteData(n, unit).first < 1) {
//     file.CloseDatasetFile(n, true);
//   }
class PENSTOCK_EXPORT DatasetSerializer {
 public:
  // Names the file of dataset `n` of `volume` below `base`. Touches no file.
  DatasetSerializer(std::uint64_t n, UuidT volume, const std::string& base);

  DatasetSerializer(const DatasetSerializer&) = delete;
  DatasetSerializer& operator=(const DatasetSerializer&) = delete;

  // Closes an open file silently: nothing is synced.
  ~DatasetSerializer();

  // Returns whether the file is open.
  bool IsOpen() const;

  // Writes one command header with the flags 2, 3, 0, 0, 0.
  //
  // Returns what the write returned: 24 when all went well.
  // Calls: CreateDppHeader, which cuts `payloadSize` to 32 bits.
  int WriteDppHeader(std::uint64_t payloadSize, DPPCmdType type);

  // Creates the directory and the file (exclusively, mode 0644) and writes the start record.
  //
  // Returns the bytes of the record, 44 + 16 x count; below 1 on failure. A header that was cut
  // short is logged and the record still written.
  // REQUIRES: `header` holds as many entries as it counts.
  int WriteHeader(std::uint64_t n, std::shared_ptr<OM_DP::DatasetStartv2> header);

  // Appends one unit.
  //
  // Returns the bytes of the record, 20 + length, and the file position of its first byte (its
  // command header lies 24 bytes before); (-1, 0), or the header's own result and 0, on failure.
  // REQUIRES: `data` holds as many bytes of body as it says.
  std::pair<int, unsigned long> WriteData(std::uint64_t n,
                                          std::shared_ptr<OM_DP::CompressedData> data);

  // Syncs and closes the file and, if `deleteFile`, removes it.
  //
  // Returns 0, also when the file is not open; -1 when the sync failed, and the file is then still
  // open; the result of the removal otherwise.
  int CloseDatasetFile(std::uint64_t n, bool deleteFile);

 private:
  std::int32_t m_fd = -1;
  std::string m_filePath;
  std::string m_dirPath;
};

#endif  // PENSTOCK_DATASET_SERIALIZER_H_
