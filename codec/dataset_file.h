// SPDX-License-Identifier: Apache-2.0
// Dataset files as the engine keeps them: what is in them, and whether they are whole.
//
//   file    := command(56) start command(100) block ... command(100) trailer
//   trailer := a CompressedData record with rawLength 0, codec zero, no extent, length 16:
//              blocks:u64 hash:u64     the number of blocks; Hash64 of every byte before the
//                                      trailer's command
//              its volumeIndex is 0, its bodyHash that of its 16 bytes
//
// DatasetSerializer writes these bytes; this file is the reader, and the sums for the trailer.
#ifndef PENSTOCK_CODEC_DATASET_FILE_H_
#define PENSTOCK_CODEC_DATASET_FILE_H_

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "codec/block.h"
#include "codec/hash.h"
#include "penstock/host/commands.h"
#include "penstock/host/uuid.h"

namespace penstock {

// The 24 bytes in front of a record in a file, as DatasetSerializer writes them.
std::array<std::uint8_t, 24> FileCommand(std::uint32_t payloadSize, DPPCmdType type);

// Follows what is written to a file, and makes its trailer.
class DatasetFileSum {
 public:
  // The record of type 56, with its entries.
  void AddStart(Bytes record);
  void AddBlock(const OM_DP::CompressedData& block);
  std::uint64_t Blocks() const { return m_blocks; }
  // Bytes of the file so far, commands included, trailer not.
  std::uint64_t Size() const { return m_size; }
  BlockPtr MakeTrailer() const;

 private:
  Hash64Stream m_hash;
  std::uint64_t m_blocks = 0;
  std::uint64_t m_size = 0;
};

// Where a reader takes a file from: a file, a mapping, a simulated disk.
class FileBytes {
 public:
  virtual ~FileBytes() = default;
  virtual std::uint64_t Size() const = 0;
  // Reads exactly `size` bytes at `offset` into `out`. Returns whether it could.
  virtual bool Read(std::uint64_t offset, std::uint8_t* out, std::size_t size) = 0;
};

struct DatasetFileStart {
  std::uint64_t n = 0;
  std::uint64_t timestampMs = 0;
  UuidT group;
  std::uint32_t datasetType = 0;
  std::uint32_t flags = 0;
  std::vector<UuidT> volumes;
};

struct DatasetFileFault {
  // Of the record that is wrong; of its command, when that is wrong or the record is cut off; of
  // the end, when something is missing or too much there.
  std::uint64_t offset = 0;
  std::string text;  // what is wrong; empty: nothing
};

// What a reader calls. Both may be empty. `block` gets each block after its hash was found right,
// with the file offset of its record; returning false stops the reading (the fault is then
// "stopped"). Whether the file is whole is known at its end only: what must not be done with a
// damaged file waits for that, or for a second reading.
struct DatasetFileVisitor {
  std::function<void(const DatasetFileStart&)> start;
  std::function<bool(const BlockPtr&, std::uint64_t offset)> block;
};

// Reads a whole file: every header's CRC, every length before it is believed, every block's hash
// and extents (within any volume), then the trailer's count and hash, then the end. Memory: one
// block. `totals` (may be null) gets the number of blocks and raw bytes seen, also of a damaged
// file.
struct DatasetFileTotals {
  std::uint64_t blocks = 0;
  std::uint64_t extents = 0;
  std::uint64_t rawBytes = 0;
  std::uint64_t storedBytes = 0;  // of bodies
  bool whole = false;             // the trailer was there and right
};
DatasetFileFault ReadDatasetFile(FileBytes& file, const DatasetFileVisitor& visitor,
                                 DatasetFileTotals* totals = nullptr);

}  // namespace penstock

#endif  // PENSTOCK_CODEC_DATASET_FILE_H_
