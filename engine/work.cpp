// SPDX-License-Identifier: Apache-2.0
#include "engine/work.h"

#include <algorithm>
#include <utility>

#include "engine/planted.h"

namespace penstock {

// --- Source. ---

WindowFetched FingerprintWindow(const FetchWindow& command,
                                std::shared_ptr<const std::uint8_t[]> data) {
  WindowFetched result;
  result.ticket = command.ticket;
  result.fingerprints = Fingerprints({data.get(), command.length}, command.seed);
  result.data = std::move(data);
  return result;
}

WindowFetched ZeroWindow(const FetchWindow& command) {
  WindowFetched result;
  result.ticket = command.ticket;
  return result;
}

WindowFetched CopyWindow(const FetchWindow& command, const BlockPtr& raw) {
  WindowFetched result = ZeroWindow(command);
  const Bytes window = RawData(*raw);
  result.nonZero = NonZeroRuns(window);
  if (result.nonZero.empty()) return result;
  const Bytes first = RunBytes(window, result.nonZero.front());
  if (first.size() == window.size() && command.compress.codec == Codec::kRaw) {
    SealRawBlock(*raw);
    result.block = raw;
    return result;
  }
  std::vector<Piece> pieces;
  for (const Run& run : result.nonZero) {
    const std::uint64_t from = std::uint64_t{run.firstBlock} * kCompareBytes;
    pieces.push_back({command.offset + from, RunBytes(window, run)});
  }
  result.block = PackBlock(0, pieces, command.compress);
  return result;
}

RunsPacked DoPackRuns(const PackRuns& command) {
  RunsPacked result;
  result.ticket = command.ticket;
  result.runs = command.runs;
  const Bytes window{command.data.get(), command.length};
  RunHasher hasher(command.key);
  std::vector<Piece> pieces;
  for (Run& run : result.runs) {
    const Bytes bytes = RunBytes(window, run);
    if (run.equal) {
      run.strong = hasher.Of(command.n, command.firstBlock + run.firstBlock, bytes);
    } else {
      pieces.push_back({command.offset + std::uint64_t{run.firstBlock} * kCompareBytes, bytes});
    }
  }
  if (!pieces.empty()) result.block = PackBlock(command.volume, pieces, command.compress);
  return result;
}

BuffersPacked DoPackBuffers(const PackBuffers& command) {
  BuffersPacked result;
  result.ticket = command.ticket;
  std::vector<Piece> pieces;
  std::vector<Extent> zeros;
  for (const InternalData& buf : command.buffers) {
    if (buf.data) {
      pieces.push_back({buf.offset, {buf.data.get(), buf.length}});
    } else {
      zeros.push_back({buf.offset, buf.length});
    }
  }
  // The engine never mixes the two in a block.
  result.block = zeros.empty() ? PackBlock(command.volume, pieces, command.compress)
                               : PackZeros(command.volume, zeros);
  return result;
}

// --- Target. ---

WindowCompared DoCompare(const CompareVolume& command, Bytes window) {
  WindowCompared result;
  result.ticket = command.ticket;
  RunHasher hasher(command.key);
  result.runs = CompareWindow(window, command.query.fingerprints, command.seed, hasher,
                              command.query.n, command.query.firstBlock);
  return result;
}

namespace {

IoStatus CheckAndList(const OM_DP::CompressedData& block, std::size_t size,
                      std::uint64_t volumeSize, std::vector<Extent>& extents, std::string& error) {
  const BlockFault fault = CheckBlock(block, size, volumeSize, extents);
  const bool overlooked = fault == BlockFault::kHash && Planted(Fault::kNoFrameHash);
  if (fault == BlockFault::kNone || overlooked) return IoStatus::kOk;
  error = std::string("a damaged block: ") + Text(fault);
  return IoStatus::kDamaged;
}

IoStatus WriteExtents(const OM_DP::CompressedData& block, const std::vector<Extent>& extents,
                      BlockSink& sink, std::string& error) {
  thread_local std::vector<std::uint8_t> space;
  Bytes raw;
  if (UnpackBlock(block, space, raw) != BlockFault::kNone) {
    error = std::string("a damaged block: ") + Text(BlockFault::kCodec);
    return IoStatus::kDamaged;
  }
  std::size_t from = 0;
  for (const Extent& extent : extents) {
    IoStatus status = IoStatus::kOk;
    if (raw.empty()) {
      status = sink.Zero(extent.offset, extent.length, error);
    } else {
      status = sink.Write(extent.offset, raw.subspan(from, extent.length), error);
    }
    if (status != IoStatus::kOk) return status;
    from += extent.length;
  }
  return IoStatus::kOk;
}

}  // namespace

IoStatus CheckArrived(const OM_DP::CompressedData& block, std::size_t size,
                      std::uint64_t volumeSize, std::string& error) {
  std::vector<Extent> extents;
  return CheckAndList(block, size, volumeSize, extents, error);
}

IoStatus WriteToVolume(const OM_DP::CompressedData& block, std::size_t size,
                       std::uint64_t volumeSize, BlockSink& sink, std::string& error) {
  std::vector<Extent> extents;
  const IoStatus status = CheckAndList(block, size, volumeSize, extents, error);
  return status == IoStatus::kOk ? WriteExtents(block, extents, sink, error) : status;
}

IoStatus ApplyKeptBlocks(const ApplyFile& command, BlockSink& sink, std::string& error) {
  for (const ArrivedBlock& kept : *command.blocks) {
    const IoStatus status = WriteToVolume(*kept.block, kept.size, command.volumeSize, sink, error);
    if (status != IoStatus::kOk) return status;
  }
  return IoStatus::kOk;
}

IoStatus ApplyDatasetFile(const ApplyFile& command, FileBytes& file, BlockSink& sink,
                          std::string& error) {
  const UuidT volume = VolumeId(command.group, command.volume);
  std::size_t index = 0;
  bool isOurs = false;
  DatasetFileVisitor check;
  check.start = [&](const DatasetFileStart& start) {
    const auto entry = std::find(start.volumes.begin(), start.volumes.end(), volume);
    isOurs = start.n == command.n && start.group == GroupId(command.group) &&
             entry != start.volumes.end();
    index = static_cast<std::size_t>(entry - start.volumes.begin());
  };
  if (!Planted(Fault::kNoFileHash)) {
    check.block = [&](const BlockPtr& block, std::uint64_t) {
      return isOurs && block->volumeIndex == index;
    };
    const DatasetFileFault fault = ReadDatasetFile(file, check);
    if (!fault.text.empty() || !isOurs) {
      error = isOurs || !fault.text.empty()
                  ? "at byte " + std::to_string(fault.offset) + ": " + fault.text
                  : "it is the file of another dataset";
      return IoStatus::kDamaged;
    }
  }
  IoStatus status = IoStatus::kOk;
  DatasetFileVisitor write;
  write.block = [&](const BlockPtr& block, std::uint64_t) {
    status = WriteToVolume(*block, RecordBytes(*block).size(), command.volumeSize, sink, error);
    return status == IoStatus::kOk;
  };
  const DatasetFileFault fault = ReadDatasetFile(file, write);
  if (status == IoStatus::kOk && !fault.text.empty() && !Planted(Fault::kNoFileHash)) {
    error = "at byte " + std::to_string(fault.offset) + ": " + fault.text;
    return IoStatus::kDamaged;
  }
  return status;
}

}  // namespace penstock
