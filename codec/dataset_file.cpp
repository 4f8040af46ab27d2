// SPDX-License-Identifier: Apache-2.0
#include "codec/dataset_file.h"

#include <cstddef>
#include <cstring>
#include <limits>
#include <utility>

namespace penstock {

namespace {

constexpr DPPCmdHeaderFlags kFileFlags{2, 3, 0, 0, 0};
constexpr std::uint32_t kCommandBytes = sizeof(DPPCmdHeader);
constexpr std::uint32_t kStartBytes = sizeof(OM_DP::DatasetStartv2);
constexpr std::uint32_t kBlockBytes = sizeof(OM_DP::CompressedData);
constexpr std::uint32_t kEntryBytes = sizeof(UuidT);
constexpr std::uint32_t kTrailerBody = 16;
constexpr std::uint32_t kMaxVolumes = 256;  // what a block's one-byte index can name
static_assert(std::numeric_limits<decltype(OM_DP::CompressedData::volumeIndex)>::max() ==
              kMaxVolumes - 1);

// Reads a file once, from its beginning to its end. Every step returns whether to go on.
class Reader {
 public:
  Reader(FileBytes& file, const DatasetFileVisitor& visitor, DatasetFileTotals& totals)
      : m_file(file), m_visitor(visitor), m_totals(totals), m_size(file.Size()) {}

  DatasetFileFault Run() {
    if (ReadStart()) {
      while (ReadBlockOrTrailer()) continue;
    }
    return std::move(m_fault);
  }

 private:
  bool Fail(std::uint64_t offset, std::string text) {
    m_fault = {offset, std::move(text)};
    return false;
  }

  bool Read(std::uint8_t* out, std::uint32_t size) {
    if (!m_file.Read(m_at, out, size)) return Fail(m_at, "the file can't be read here");
    m_at += size;
    return true;
  }

  // Reads a command header; afterwards all of its bytes are known to be right.
  bool ReadCommand(DPPCmdHeader& command) {
    const std::uint64_t at = m_at;
    if (m_size == 0) return Fail(at, "the file is empty");
    if (m_size == m_at) return Fail(at, "the file ends before its trailer");
    if (m_size - m_at < kCommandBytes) return Fail(at, "the file ends within a command header");
    if (!Read(reinterpret_cast<std::uint8_t*>(&command), kCommandBytes)) return false;
    const auto type = static_cast<DPPCmdType>(command.type);
    const DPPCmdHeaderFlags flags{command.a, command.b, command.c, command.d, command.e};
    if (command.crc != CreateDppHeader(command.payloadSize, type, flags)->crc) {
      return Fail(at, "the command header's checksum is wrong");
    }
    const auto expected = FileCommand(command.payloadSize, type);
    if (std::memcmp(&command, expected.data(), expected.size()) != 0) {
      return Fail(at, "the command header's flags are not those of a dataset file");
    }
    return true;
  }

  // `at` is the command's offset.
  bool CheckPayload(std::uint64_t at, std::uint32_t size, std::uint32_t least, std::uint32_t most) {
    if (size < least || size > most) {
      return Fail(at, "the record's size of " + std::to_string(size) + " bytes is not between " +
                          std::to_string(least) + " and " + std::to_string(most));
    }
    if (size > m_size - m_at) return Fail(at, "the file ends within a record");
    return true;
  }

  bool ReadStart() {
    const std::uint64_t at = m_at;
    DPPCmdHeader command;
    if (!ReadCommand(command)) return false;
    if (command.type != static_cast<std::uint32_t>(DPPCmdType::DatasetStartv2)) {
      return Fail(at, "the file does not begin with a start record");
    }
    constexpr std::uint32_t kMost = kStartBytes + kMaxVolumes * kEntryBytes;
    if (!CheckPayload(at, command.payloadSize, kStartBytes, kMost)) return false;
    const std::uint64_t recordAt = m_at;
    std::vector<std::uint8_t> bytes(command.payloadSize);
    if (!Read(bytes.data(), command.payloadSize)) return false;
    OM_DP::DatasetStartv2 record;
    std::memcpy(&record, bytes.data(), kStartBytes);
    if (bytes.size() != kStartBytes + std::size_t{record.count} * kEntryBytes) {
      return Fail(recordAt, "the start record's size is not that of its volumes");
    }
    m_sum.AddStart(bytes);
    m_volumes = record.count;
    if (m_visitor.start) m_visitor.start(ToStart(record, bytes));
    return true;
  }

  static DatasetFileStart ToStart(const OM_DP::DatasetStartv2& record, Bytes bytes) {
    DatasetFileStart start;
    start.n = record.n;
    start.timestampMs = record.timestampMs;
    start.group.bytes = record.groupId;
    start.datasetType = record.datasetType;
    start.flags = record.flags;
    start.volumes.resize(record.count);
    for (std::size_t i = 0; i < start.volumes.size(); ++i) {
      std::memcpy(&start.volumes[i], bytes.data() + kStartBytes + i * kEntryBytes, kEntryBytes);
    }
    return start;
  }

  bool ReadBlockOrTrailer() {
    const std::uint64_t at = m_at;
    DPPCmdHeader command;
    if (!ReadCommand(command)) return false;
    if (command.type == static_cast<std::uint32_t>(DPPCmdType::DatasetStartv2)) {
      return Fail(at, "a second start record");
    }
    if (command.type != static_cast<std::uint32_t>(DPPCmdType::CompressedData)) {
      return Fail(at, "a record of unknown type " + std::to_string(command.type));
    }
    const std::uint32_t size = command.payloadSize;
    if (!CheckPayload(at, size, kBlockBytes, kBlockBytes + kMaxBodyBytes)) return false;
    const std::uint64_t recordAt = m_at;
    const BlockPtr block = AllocateBlock(size - kBlockBytes);
    if (!Read(reinterpret_cast<std::uint8_t*>(block.get()), size)) return false;
    // No block is without an extent; a record of another size would not even hold a trailer.
    if (block->extentCount == 0 && size == kBlockBytes + kTrailerBody) {
      return TakeTrailer(*block, recordAt);
    }
    return TakeBlock(block, size, recordAt);
  }

  bool TakeBlock(const BlockPtr& block, std::uint32_t size, std::uint64_t at) {
    constexpr std::uint64_t kAnyVolume = std::numeric_limits<std::uint64_t>::max();
    const BlockFault fault = CheckBlock(*block, size, kAnyVolume, m_extents);
    if (fault != BlockFault::kNone) return Fail(at, Text(fault));
    if (block->volumeIndex >= m_volumes) {
      return Fail(at, "the block is of volume " + std::to_string(block->volumeIndex) + " of " +
                          std::to_string(m_volumes));
    }
    m_sum.AddBlock(*block);
    ++m_totals.blocks;
    m_totals.extents += m_extents.size();
    m_totals.rawBytes += block->rawLength;
    m_totals.storedBytes += block->length;
    if (m_visitor.block && !m_visitor.block(block, at)) return Fail(at, "stopped");
    return true;
  }

  // The last record: afterwards there is nothing to go on with, right or wrong.
  bool TakeTrailer(const OM_DP::CompressedData& found, std::uint64_t at) {
    const BlockPtr wanted = m_sum.MakeTrailer();
    if (std::memcmp(&found, wanted.get(), kBlockBytes + kTrailerBody) != 0) {
      return Fail(at, TrailerFault(found));
    }
    if (m_at != m_size) return Fail(m_at, "bytes behind the trailer");
    m_totals.whole = true;
    return false;
  }

  // Which part of a trailer that is not the expected one is wrong.
  std::string TrailerFault(const OM_DP::CompressedData& found) const {
    const Bytes body{OM_DP::Body(found), kTrailerBody};
    if (found.length != kTrailerBody || found.rawLength != 0 || found.volumeIndex != 0 ||
        found.codec != static_cast<std::uint8_t>(Codec::kZero) || found.bodyHash != Hash64(body)) {
      return "the trailer is damaged";
    }
    std::uint64_t blocks = 0;
    std::memcpy(&blocks, body.data(), sizeof(blocks));
    if (blocks != m_sum.Blocks()) {
      return "the trailer counts " + std::to_string(blocks) + " blocks, the file holds " +
             std::to_string(m_sum.Blocks());
    }
    return "the file's hash differs from the trailer's";
  }

  FileBytes& m_file;
  const DatasetFileVisitor& m_visitor;
  DatasetFileTotals& m_totals;
  std::uint64_t m_size;
  std::uint64_t m_at = 0;  // the next byte to read
  std::uint32_t m_volumes = 0;
  DatasetFileSum m_sum;
  std::vector<Extent> m_extents;
  DatasetFileFault m_fault;
};

}  // namespace

std::array<std::uint8_t, 24> FileCommand(std::uint32_t payloadSize, DPPCmdType type) {
  std::array<std::uint8_t, 24> bytes;
  std::memcpy(bytes.data(), CreateDppHeader(payloadSize, type, kFileFlags).get(), bytes.size());
  return bytes;
}

void DatasetFileSum::AddStart(Bytes record) {
  m_hash.Add(FileCommand(static_cast<std::uint32_t>(record.size()), DPPCmdType::DatasetStartv2));
  m_hash.Add(record);
  m_size += kCommandBytes + record.size();
}

void DatasetFileSum::AddBlock(const OM_DP::CompressedData& block) {
  const Bytes record = RecordBytes(block);
  m_hash.Add(FileCommand(static_cast<std::uint32_t>(record.size()), DPPCmdType::CompressedData));
  m_hash.Add(record);
  m_size += kCommandBytes + record.size();
  ++m_blocks;
}

BlockPtr DatasetFileSum::MakeTrailer() const {
  BlockPtr trailer = OM_DP::MakeCompressedData(kTrailerBody);
  const std::uint64_t hash = m_hash.Value();
  std::uint8_t* body = OM_DP::Body(*trailer);
  std::memcpy(body, &m_blocks, sizeof(m_blocks));
  std::memcpy(body + sizeof(m_blocks), &hash, sizeof(hash));
  trailer->bodyHash = Hash64({body, kTrailerBody});
  return trailer;
}

DatasetFileFault ReadDatasetFile(FileBytes& file, const DatasetFileVisitor& visitor,
                                 DatasetFileTotals* totals) {
  DatasetFileTotals own;
  if (totals == nullptr) totals = &own;
  *totals = {};
  return Reader(file, visitor, *totals).Run();
}

}  // namespace penstock
