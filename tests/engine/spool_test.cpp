// SPDX-License-Identifier: Apache-2.0
// Goal: a dataset that went to the spool comes back as it was, or not at all.
// Method: files in memory, made as a host makes them; then cut, damaged, renamed and mixed up.
#include "engine/spool.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "engine/chain.h"
#include "tests/engine/engine_rig.h"

namespace penstock {
namespace {

// A file in memory.
class HeldFile : public FileBytes {
 public:
  explicit HeldFile(ByteList bytes) : m_bytes(std::move(bytes)) {}
  std::uint64_t Size() const override { return m_bytes.size(); }
  bool Read(std::uint64_t offset, std::uint8_t* out, std::size_t size) override {
    if (offset > m_bytes.size() || size > m_bytes.size() - offset) return false;
    std::memcpy(out, m_bytes.data() + offset, size);
    return true;
  }

 private:
  ByteList m_bytes;
};

class Spool : public testing::Test {
 protected:
  static DatasetStart StartOf(std::uint64_t n, const std::vector<std::string>& names = {"a"}) {
    DatasetStart start;
    start.n = n;
    start.timestampMs = 1000 + n;
    start.group = GroupId("g");
    for (const std::string& name : names) start.volumes.push_back(VolumeId("g", name));
    return start;
  }
  static BlockPtr BlockOf(std::uint8_t volume, std::uint64_t offset = 0) {
    const ByteList data = Noise(4096, offset + volume + 1);
    const Piece piece{offset, data};
    return PackBlock(volume, {&piece, 1}, {});
  }
  // As a host writes it.
  static ByteList FileOf(const DatasetStart& start, const std::vector<BlockPtr>& blocks) {
    ByteList file;
    const auto put = [&](Bytes record, DPPCmdType type) {
      const auto header = FileCommand(static_cast<std::uint32_t>(record.size()), type);
      file.insert(file.end(), header.begin(), header.end());
      file.insert(file.end(), record.begin(), record.end());
    };
    DatasetFileSum sum;
    const auto record = SpoolRecordOf(start);
    const Bytes bytes{reinterpret_cast<const std::uint8_t*>(record.get()),
                      sizeof(OM_DP::DatasetStartv2) + std::size_t{16} * record->count};
    put(bytes, DPPCmdType::DatasetStartv2);
    sum.AddStart(bytes);
    for (const BlockPtr& block : blocks) {
      put(RecordBytes(*block), DPPCmdType::CompressedData);
      sum.AddBlock(*block);
    }
    put(RecordBytes(*sum.MakeTrailer()), DPPCmdType::CompressedData);
    return file;
  }
  std::string Add(const ByteList& bytes, std::uint64_t n, const std::string& volume = "a") {
    HeldFile file(bytes);
    return m_scan.Add(VolumeId("g", volume), n, file);
  }
  std::string Read(const ByteList& bytes, std::uint64_t n) {
    HeldFile file(bytes);
    m_blocks.clear();
    return ReadSpoolFile(file, n, m_blocks);
  }
  // "1 2": the datasets that count.
  std::string Whole() const {
    std::string text;
    for (const SpooledDataset& found : m_scan.Whole()) {
      text += (text.empty() ? "" : " ") + Number(found.start.n);
    }
    return text;
  }

  SpoolScan m_scan{GroupId("g")};
  std::vector<BlockPtr> m_blocks;
};

constexpr const char* kOtherName = "it is of another dataset or volume than its name says";

// --- Files. ---

TEST_F(Spool, EveryVolumeOfADatasetHasAFileWithItsBlocksInOrder) {
  const std::vector<BlockPtr> blocks = {BlockOf(1), BlockOf(0), BlockOf(1, 8192)};
  const auto files = SpoolFilesOf(StartOf(1, {"b", "a", "c"}), blocks);
  ASSERT_EQ(files.size(), 3U);
  EXPECT_EQ(files[0].volume, VolumeId("g", "b"));
  EXPECT_EQ(files[0].blocks, std::vector<BlockPtr>{blocks[1]});
  EXPECT_EQ(files[1].volume, VolumeId("g", "a"));
  EXPECT_EQ(files[1].blocks, (std::vector<BlockPtr>{blocks[0], blocks[2]}));
  EXPECT_TRUE(files[2].blocks.empty());
}

TEST_F(Spool, WhatIsReadBackIsSentWithTheSameChainValue) {
  DatasetStart start = StartOf(7, {"a", "b"});
  start.flags = kStartSyncComplete;
  const std::vector<BlockPtr> blocks = {BlockOf(0), BlockOf(0, 4096)};
  const ByteList file = FileOf(start, blocks);
  ASSERT_EQ(Read(file, 7), "");
  ASSERT_EQ(m_blocks.size(), 2U);
  ASSERT_EQ(Add(file, 7), "");
  ASSERT_EQ(Add(FileOf(start, {}), 7, "b"), "");
  ASSERT_EQ(Whole(), "7");
  const auto chain = [](const DatasetStart& of, const std::vector<BlockPtr>& with) {
    DatasetDigest digest;
    const Frame frame = Encode(of);
    digest.AddStart(frame.Payload());
    for (const BlockPtr& block : with) digest.AddBlock(*block);
    return digest.Chain({});
  };
  EXPECT_EQ(chain(m_scan.Whole().front().start, m_blocks), chain(start, blocks));
}

TEST_F(Spool, BlocksThatAreReadAreAddedToThoseBefore) {
  HeldFile file(FileOf(StartOf(1), {BlockOf(0)}));
  EXPECT_EQ(ReadSpoolFile(file, 1, m_blocks), "");
  EXPECT_EQ(ReadSpoolFile(file, 1, m_blocks), "");
  EXPECT_EQ(m_blocks.size(), 2U);
}

TEST_F(Spool, AFileOfAnotherDatasetIsNotReadBack) {
  EXPECT_EQ(Read(FileOf(StartOf(2), {BlockOf(0)}), 1),
            "it is of another dataset than its name says");
}

TEST_F(Spool, ADamagedFileIsNotReadBack) {
  const ByteList whole = FileOf(StartOf(1), {BlockOf(0)});
  for (std::size_t at = 0; at < whole.size(); at += 97) {
    ByteList file = whole;
    file[at] ^= 4U;
    EXPECT_TRUE(Contains(Read(file, 1), " at byte ")) << at;
    EXPECT_TRUE(Contains(Add(file, 1), " at byte ")) << at;
  }
  EXPECT_EQ(Whole(), "");
}

// --- What a start finds. ---

TEST_F(Spool, AnEmptySpoolHoldsNothing) { EXPECT_EQ(Whole(), ""); }

TEST_F(Spool, WholeDatasetsAreFoundInTheirOrder) {
  EXPECT_EQ(Add(FileOf(StartOf(12), {BlockOf(0)}), 12), "");
  EXPECT_EQ(Add(FileOf(StartOf(9), {}), 9), "");
  EXPECT_EQ(Add(FileOf(StartOf(10), {}), 10), "");
  EXPECT_EQ(Whole(), "9 10 12") << "gaps are the engine's concern";
}

TEST_F(Spool, ADatasetCountsWhenAllOfItsFilesAreThere) {
  const DatasetStart start = StartOf(1, {"a", "b"});
  const ByteList first = FileOf(start, {BlockOf(0)});
  const ByteList second = FileOf(start, {BlockOf(1), BlockOf(1, 4096)});
  EXPECT_EQ(Add(first, 1, "a"), "");
  EXPECT_EQ(Whole(), "");
  EXPECT_EQ(Add(second, 1, "b"), "");
  ASSERT_EQ(Whole(), "1");
  const SpooledDataset found = m_scan.Whole().front();
  EXPECT_EQ(found.bytes, first.size() + second.size());
  EXPECT_EQ(found.start.volumes, start.volumes);
  EXPECT_EQ(found.start.timestampMs, start.timestampMs);
}

TEST_F(Spool, AFileThatIsCutOffAnywhereDoesNotCount) {
  const ByteList whole = FileOf(StartOf(1), {BlockOf(0)});
  for (std::size_t size = 0; size < whole.size(); size += 61) {
    EXPECT_NE(Add({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)}, 1), "")
        << size;
  }
  EXPECT_NE(Add({whole.begin(), whole.end() - 1}, 1), "");
  EXPECT_EQ(Whole(), "");
}

TEST_F(Spool, AFileCountsOnlyUnderItsOwnName) {
  const ByteList file = FileOf(StartOf(1), {});
  EXPECT_EQ(Add(file, 2), kOtherName);
  EXPECT_EQ(Add(file, 1, "b"), kOtherName);
  EXPECT_EQ(Whole(), "");
}

TEST_F(Spool, AFileOfAnotherGroupDoesNotCount) {
  DatasetStart start = StartOf(1);
  start.group = GroupId("h");
  EXPECT_EQ(Add(FileOf(start, {}), 1), kOtherName);
}

TEST_F(Spool, AResyncDatasetDoesNotCount) {
  DatasetStart start = StartOf(1);
  start.datasetType = 2;
  EXPECT_EQ(Add(FileOf(start, {}), 1), kOtherName);
}

TEST_F(Spool, FilesOfTwoDatasetsWithOneNumberAreNotMixed) {
  EXPECT_EQ(Add(FileOf(StartOf(1, {"a", "b"}), {}), 1, "a"), "");
  EXPECT_EQ(Add(FileOf(StartOf(1, {"b", "a"}), {}), 1, "b"),
            "it is of another dataset than the files beside it");
  EXPECT_EQ(Whole(), "");
}

// As a dataset leaves them that was being written when its source was killed, and of which the next
// source had one of the same number.
TEST_F(Spool, FilesOfTwoTimesAreNotMixed) {
  DatasetStart start = StartOf(1, {"a", "b"});
  EXPECT_EQ(Add(FileOf(start, {}), 1, "a"), "");
  ++start.timestampMs;
  EXPECT_EQ(Add(FileOf(start, {}), 1, "b"), "it is of another dataset than the files beside it");
  --start.timestampMs;
  start.flags = kStartConsistent;
  EXPECT_EQ(Add(FileOf(start, {}), 1, "b"), "it is of another dataset than the files beside it");
  EXPECT_EQ(Whole(), "");
}

}  // namespace
}  // namespace penstock
