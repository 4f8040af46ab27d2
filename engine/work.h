// SPDX-License-Identifier: Apache-2.0
// What the commands of the engines compute: the parts that need neither disk nor network. Whoever
// carries out a command reads or writes, and calls these, on any thread.
#ifndef PENSTOCK_ENGINE_WORK_H_
#define PENSTOCK_ENGINE_WORK_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "codec/block.h"
#include "codec/dataset_file.h"
#include "engine/commands.h"

namespace penstock {

// FetchWindow to compare: `data` holds the window.
WindowFetched FingerprintWindow(const FetchWindow& command,
                                std::shared_ptr<const std::uint8_t[]> data);

// FetchWindow to copy: `raw` is a raw block of the window's whole extent, its data read into it. It
// is itself the result when nothing of it is zero and it isn't compressed.
WindowFetched CopyWindow(const FetchWindow& command, const BlockPtr& raw);

// FetchWindow to copy, of a window that is known to be zero.
WindowFetched ZeroWindow(const FetchWindow& command);

RunsPacked DoPackRuns(const PackRuns& command);
BuffersPacked DoPackBuffers(const PackBuffers& command);

// CompareVolume: `window` holds the volume's bytes.
WindowCompared DoCompare(const CompareVolume& command, Bytes window);

// Where a block's bytes go.
class BlockSink {
 public:
  virtual ~BlockSink() = default;
  // Each returns how it went, and puts what was wrong into `error`.
  virtual IoStatus Write(std::uint64_t offset, Bytes data, std::string& error) = 0;
  virtual IoStatus Zero(std::uint64_t offset, std::uint32_t length, std::string& error) = 0;
};

// Checks a block that arrived: JournalAppend, before it is written.
IoStatus CheckArrived(const OM_DP::CompressedData& block, std::size_t size,
                      std::uint64_t volumeSize, std::string& error);

// Checks a block and writes it to a volume: WriteBlock. Nothing of a damaged one is written.
IoStatus WriteToVolume(const OM_DP::CompressedData& block, std::size_t size,
                       std::uint64_t volumeSize, BlockSink& sink, std::string& error);

// ApplyFile with blocks: checks each and writes it, in order. kDamaged: memory did not keep what
// had been checked; the file is the truth, and is to be applied instead.
IoStatus ApplyKeptBlocks(const ApplyFile& command, BlockSink& sink, std::string& error);

// ApplyFile without: reads the whole file first, and only then writes its blocks in order. The file
// must be that of this dataset, group and volume.
IoStatus ApplyDatasetFile(const ApplyFile& command, FileBytes& file, BlockSink& sink,
                          std::string& error);

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_WORK_H_
