// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_CODEC_DATASET_FILE_FIXTURE_H_
#define PENSTOCK_TESTS_CODEC_DATASET_FILE_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "codec/dataset_file.h"
#include "tests/codec/data.h"

// A file in memory, which remembers the largest read.
class MemoryFile : public penstock::FileBytes {
 public:
  explicit MemoryFile(ByteString bytes) : m_bytes(std::move(bytes)) {}

  std::uint64_t Size() const override { return m_size != 0 ? m_size : m_bytes.size(); }
  bool Read(std::uint64_t offset, std::uint8_t* out, std::size_t size) override {
    m_largestRead = std::max(m_largestRead, size);
    if (offset > m_bytes.size() || size > m_bytes.size() - offset) return false;
    std::memcpy(out, m_bytes.data() + offset, size);
    return true;
  }
  // Claims to be larger than it is.
  void Claim(std::uint64_t size) { m_size = size; }
  std::size_t LargestRead() const { return m_largestRead; }

 private:
  ByteString m_bytes;
  std::uint64_t m_size = 0;
  std::size_t m_largestRead = 0;
};

// Dataset files put together from parts, right ones and others, and what the reader says of them.
class DatasetFileTest : public testing::Test {
 protected:
  static std::shared_ptr<OM_DP::DatasetStartv2> Start(std::uint16_t volumes) {
    auto start = OM_DP::MakeDatasetStartv2(volumes);
    start->n = 0x100002345U;
    start->timestampMs = 1700000000000U;
    start->groupId.fill(0xa5);
    start->datasetType = 2;
    start->flags = 7;
    for (std::size_t i = 0; i < std::size_t{16} * volumes; ++i) {
      OM_DP::Entries(*start)[i] = static_cast<std::uint8_t>(i + 1);
    }
    return start;
  }
  static ByteString BytesOf(const std::shared_ptr<OM_DP::DatasetStartv2>& start) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(start.get());
    return {bytes, bytes + 44 + std::size_t{16} * start->count};
  }
  static ByteString BytesOf(const penstock::BlockPtr& block) {
    return Copy(penstock::RecordBytes(*block));
  }

  // The blocks of the samples: one of each codec.
  static std::vector<penstock::BlockPtr> Blocks() {
    const ByteString prose = Prose(900);
    const ByteString noise = Noise(100);
    const penstock::Piece pieces[] = {{4096, prose}, {512, noise}};
    const penstock::Extent zeros[] = {{1U << 20U, 65536}, {0, 512}};
    return {PackBlock(0, pieces, {penstock::Codec::kRaw, 1, false}),
            PackBlock(1, pieces, {penstock::Codec::kLz4, 1, false}), PackZeros(0, zeros),
            PackBlock(1, pieces, {penstock::Codec::kZstd, 3, false})};
  }

  // A record and its command, as they stand in a file.
  static ByteString Record(std::uint32_t type, const ByteString& payload) {
    const auto command = penstock::FileCommand(static_cast<std::uint32_t>(payload.size()),
                                               static_cast<DPPCmdType>(type));
    return Join({{command.begin(), command.end()}, payload});
  }
  static ByteString Trailer(std::uint64_t blocks, penstock::Bytes before) {
    ByteString payload(36);
    const std::uint32_t length = 16;
    const std::uint64_t hash = penstock::Hash64(before);
    std::memcpy(payload.data() + 16, &length, 4);
    std::memcpy(payload.data() + 20, &blocks, 8);
    std::memcpy(payload.data() + 28, &hash, 8);
    const std::uint64_t bodyHash = penstock::Hash64(penstock::Bytes(payload).subspan(20));
    std::memcpy(payload.data(), &bodyHash, 8);
    return payload;
  }
  // Everything before the trailer.
  static ByteString Head(const std::vector<penstock::BlockPtr>& blocks, std::uint16_t volumes = 2) {
    ByteString file = Record(56, BytesOf(Start(volumes)));
    for (const auto& block : blocks) file = Join({file, Record(100, BytesOf(block))});
    return file;
  }
  static ByteString Whole(const ByteString& head, std::uint64_t blocks) {
    return Join({head, Record(100, Trailer(blocks, head))});
  }
  static ByteString Sample() { return Whole(Head(Blocks()), 4); }

  // What is wrong with a file: "whole", or "<offset>: <text>".
  std::string Read(const ByteString& bytes) {
    MemoryFile file(bytes);
    return Read(file);
  }
  std::string Read(penstock::FileBytes& file) {
    m_blocks.clear();
    m_starts.clear();
    const penstock::DatasetFileVisitor visitor{
        [this](const penstock::DatasetFileStart& start) { m_starts.push_back(start); },
        [this](const penstock::BlockPtr& block, std::uint64_t offset) {
          m_blocks.emplace_back(offset, block);
          return m_blocks.size() != m_stopAfter;
        }};
    const penstock::DatasetFileFault fault = ReadDatasetFile(file, visitor, &m_totals);
    EXPECT_EQ(fault.text.empty(), m_totals.whole);
    return fault.text.empty() ? "whole" : std::to_string(fault.offset) + ": " + fault.text;
  }

  std::vector<penstock::DatasetFileStart> m_starts;
  std::vector<std::pair<std::uint64_t, penstock::BlockPtr>> m_blocks;
  penstock::DatasetFileTotals m_totals;
  std::size_t m_stopAfter = 0;  // never
};

#endif  // PENSTOCK_TESTS_CODEC_DATASET_FILE_FIXTURE_H_
