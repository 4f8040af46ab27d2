// SPDX-License-Identifier: Apache-2.0
// Goal: only whole, undamaged blocks and files of this dataset, group and volume reach a volume.
// Method: blocks and files put together from parts, some of them wrong, and a volume that remembers
// what was written to it.
#include <cstring>

#include "engine/work.h"
#include "tests/engine/engine_rig.h"

namespace penstock {
namespace {

// Remembers what it is told, and refuses on request.
class Volume : public BlockSink {
 public:
  IoStatus Write(std::uint64_t offset, Bytes data, std::string& error) override {
    if (Refuses(error)) return IoStatus::kNoSpace;
    m_happened.Add("write " + Range(offset, data.size()));
    m_bytes.insert(m_bytes.end(), data.begin(), data.end());
    return IoStatus::kOk;
  }
  IoStatus Zero(std::uint64_t offset, std::uint32_t length, std::string& error) override {
    if (Refuses(error)) return IoStatus::kNoSpace;
    m_happened.Add("zero " + Range(offset, length));
    return IoStatus::kOk;
  }
  std::string Out() { return m_happened.Take(); }
  const ByteList& Written() const { return m_bytes; }
  void RefuseAfter(int calls) { m_left = calls; }

 private:
  bool Refuses(std::string& error) {
    if (m_left-- != 0) return false;
    error = "full";
    return true;
  }
  Happened m_happened;
  ByteList m_bytes;
  int m_left = -1;  // never
};

BlockPtr Packed(std::uint64_t offset, std::size_t size, const CompressSpec& compress = {},
                std::uint8_t volume = 0) {
  const ByteList data = Noise(size, offset + 1);
  const Piece piece{offset, data};
  return PackBlock(volume, {&piece, 1}, compress);
}

constexpr std::uint64_t kVolumeSize = 64 * kKiB;

// --- Blocks. ---

class WorkWrite : public testing::Test {
 protected:
  std::string Write(const BlockPtr& block, std::uint64_t volumeSize = kVolumeSize) {
    const IoStatus status =
        WriteToVolume(*block, RecordBytes(*block).size(), volumeSize, m_volume, m_error);
    std::string happened = m_volume.Out();
    if (status == IoStatus::kOk) return happened;
    return std::string(status == IoStatus::kDamaged ? "damaged" : "no space") + ": " + m_error +
           (happened.empty() ? "" : " after " + happened);
  }
  Volume m_volume;
  std::string m_error;
};

TEST_F(WorkWrite, EveryExtentIsWritten) {
  const ByteList one = Noise(4096, 1);
  const ByteList two = Noise(100, 2);
  const Piece pieces[] = {{8192, one}, {0, two}};
  EXPECT_EQ(Write(PackBlock(0, pieces, {})), "write 8192+4096, write 0+100");
  ByteList both = one;
  both.insert(both.end(), two.begin(), two.end());
  EXPECT_EQ(m_volume.Written(), both);
}

TEST_F(WorkWrite, ACompressedBlockIsUnpackedFirst) {
  const ByteList data(4096, 'x');
  const Piece piece{4096, data};
  EXPECT_EQ(Write(PackBlock(0, {&piece, 1}, {Codec::kZstd, 1, false})), "write 4096+4096");
  EXPECT_EQ(m_volume.Written(), data);
}

TEST_F(WorkWrite, ZerosAreNotWrittenButMade) {
  const Extent extents[] = {{4096, 4096}, {16384, 8192}};
  EXPECT_EQ(Write(PackZeros(0, extents)), "zero 4096+4096, zero 16384+8192");
}

TEST_F(WorkWrite, NothingOfABlockThatReachesBeyondTheVolumeIsWritten) {
  const ByteList data = Noise(4096);
  const Piece pieces[] = {{0, data}, {kVolumeSize - 4095, data}};
  const std::string happened = Write(PackBlock(0, pieces, {}));
  EXPECT_EQ(happened, std::string("damaged: a damaged block: ") + Text(BlockFault::kOutside));
}

TEST_F(WorkWrite, NothingOfABlockWithAnotherHashIsWritten) {
  const BlockPtr block = Packed(0, 4096);
  OM_DP::Body(*block)[100] ^= 1U;
  EXPECT_EQ(Write(block), std::string("damaged: a damaged block: ") + Text(BlockFault::kHash));
}

TEST_F(WorkWrite, NothingOfABlockThatCannotBeUnpackedIsWritten) {
  const ByteList data(8192, 'x');
  const Piece piece{0, data};
  const BlockPtr block = PackBlock(0, {&piece, 1}, {Codec::kZstd, 1, false});
  OM_DP::Body(*block)[kExtentBytes] ^= 0xffU;
  block->bodyHash = Hash64({OM_DP::Body(*block), block->length});
  EXPECT_EQ(Write(block), std::string("damaged: a damaged block: ") + Text(BlockFault::kCodec));
}

TEST_F(WorkWrite, AVolumeWithoutSpaceStopsTheBlock) {
  const ByteList data = Noise(4096);
  const Piece pieces[] = {{0, data}, {4096, data}};
  m_volume.RefuseAfter(1);
  EXPECT_EQ(Write(PackBlock(0, pieces, {})), "no space: full after write 0+4096");
}

TEST_F(WorkWrite, ZerosWithoutSpaceStopTheBlock) {
  const Extent extent{0, 4096};
  m_volume.RefuseAfter(0);
  EXPECT_EQ(Write(PackZeros(0, {&extent, 1})), "no space: full");
}

TEST(WorkArrived, ABlockIsCheckedBeforeItIsStored) {
  std::string error;
  const BlockPtr block = Packed(0, 4096);
  const std::size_t size = RecordBytes(*block).size();
  EXPECT_EQ(CheckArrived(*block, size, kVolumeSize, error), IoStatus::kOk);
  EXPECT_EQ(CheckArrived(*block, size, 4095, error), IoStatus::kDamaged);
  EXPECT_EQ(error, std::string("a damaged block: ") + Text(BlockFault::kOutside));
  EXPECT_EQ(CheckArrived(*block, size - 1, kVolumeSize, error), IoStatus::kDamaged);
}

// --- Files. ---

class Memory : public FileBytes {
 public:
  explicit Memory(ByteList bytes) : m_bytes(std::move(bytes)) {}
  std::uint64_t Size() const override { return m_bytes.size(); }
  bool Read(std::uint64_t offset, std::uint8_t* out, std::size_t size) override {
    if (offset > m_bytes.size() || size > m_bytes.size() - offset) return false;
    // After the first pass the disk gives other bytes.
    if (offset == 0 && ++m_passes == 2 && m_spoilsSecond) m_bytes[m_bytes.size() - 1] ^= 1U;
    std::memcpy(out, m_bytes.data() + offset, size);
    return true;
  }
  void SpoilSecondPass() { m_spoilsSecond = true; }

 private:
  ByteList m_bytes;
  int m_passes = 0;
  bool m_spoilsSecond = false;
};

class WorkApply : public testing::Test {
 protected:
  WorkApply() {
    m_command.group = "g";
    m_command.volume = "a";
    m_command.n = 5;
    m_command.volumeSize = kVolumeSize;
  }
  // A file of dataset `n` of volumes a and b, with these blocks.
  ByteList File(const std::vector<BlockPtr>& blocks) {
    DatasetStart start;
    start.n = m_n;
    start.group = GroupId(m_group);
    start.volumes = {VolumeId(m_group, "b"), VolumeId(m_group, m_named)};
    const Frame frame = Encode(start);
    ByteList file;
    DatasetFileSum sum;
    sum.AddStart(frame.Payload());
    Append(file, DPPCmdType::DatasetStartv2, frame.Payload());
    for (const BlockPtr& block : blocks) {
      sum.AddBlock(*block);
      Append(file, DPPCmdType::CompressedData, RecordBytes(*block));
    }
    Append(file, DPPCmdType::CompressedData, RecordBytes(*sum.MakeTrailer()));
    return file;
  }
  static void Append(ByteList& file, DPPCmdType type, Bytes record) {
    const auto command = FileCommand(static_cast<std::uint32_t>(record.size()), type);
    file.insert(file.end(), command.begin(), command.end());
    file.insert(file.end(), record.begin(), record.end());
  }
  std::string Apply(Memory file) {
    std::string error;
    const IoStatus status = ApplyDatasetFile(m_command, file, m_volume, error);
    return Show(status, error);
  }
  std::string ApplyKept(const std::vector<BlockPtr>& blocks) {
    auto kept = std::make_shared<ArrivedBlocks>();
    for (const BlockPtr& block : blocks) {
      kept->push_back({block, static_cast<std::uint32_t>(RecordBytes(*block).size())});
    }
    m_command.blocks = kept;
    std::string error;
    const IoStatus status = ApplyKeptBlocks(m_command, m_volume, error);
    return Show(status, error);
  }
  std::string Show(IoStatus status, const std::string& error) {
    std::string happened = m_volume.Out();
    if (status == IoStatus::kOk) return happened;
    return std::string(status == IoStatus::kDamaged ? "damaged: " : "no space: ") + error +
           (happened.empty() ? "" : " after " + happened);
  }
  std::string Apply(const ByteList& file) { return Apply(Memory(file)); }
  static std::vector<BlockPtr> Blocks() {
    return {Packed(0, 4096, {}, 1), Packed(8192, 100, {}, 1)};
  }

  ApplyFile m_command;
  Volume m_volume;
  std::uint64_t m_n = 5;
  std::string m_group = "g";
  std::string m_named = "a";
};

TEST_F(WorkApply, TheBlocksOfAFileAreWrittenInOrder) {
  EXPECT_EQ(Apply(File(Blocks())), "write 0+4096, write 8192+100");
}

TEST_F(WorkApply, BlocksInMemoryAreWrittenInOrder) {
  EXPECT_EQ(ApplyKept(Blocks()), "write 0+4096, write 8192+100");
}

TEST_F(WorkApply, BlocksInMemoryAreCheckedAgain) {
  const std::vector<BlockPtr> blocks = Blocks();
  OM_DP::Body(*blocks[1])[40] ^= 1U;
  const std::string happened = ApplyKept(blocks);
  EXPECT_TRUE(Contains(happened, "damaged: "));
  EXPECT_TRUE(Contains(happened, "after write 0+4096"));
  EXPECT_FALSE(Contains(happened, "8192"));
}

TEST_F(WorkApply, BlocksInMemoryTellOfAVolumeWithoutRoom) {
  m_volume.RefuseAfter(1);
  EXPECT_EQ(ApplyKept(Blocks()), "no space: full after write 0+4096");
}

TEST_F(WorkApply, AFileWithoutBlocksIsApplied) { EXPECT_EQ(Apply(File({})), ""); }

TEST_F(WorkApply, AFileIsCheckedWholeBeforeAnythingIsWritten) {
  ByteList file = File(Blocks());
  file.pop_back();
  const std::string happened = Apply(file);
  EXPECT_TRUE(Contains(happened, "damaged: at byte"));
  EXPECT_FALSE(Contains(happened, "write"));
}

TEST_F(WorkApply, EveryBitOfAFileCounts) {
  const ByteList file = File(Blocks());
  for (std::size_t i = 0; i < file.size(); i += 3) {
    ByteList damaged = file;
    damaged[i] ^= static_cast<std::uint8_t>(1U << (i % 8));
    const std::string happened = Apply(damaged);
    ASSERT_TRUE(Contains(happened, "damaged")) << "byte " << i << ": " << happened;
    ASSERT_FALSE(Contains(happened, "write")) << "byte " << i;
  }
}

TEST_F(WorkApply, TheFileOfAnotherDatasetIsRefused) {
  m_n = 6;
  EXPECT_TRUE(Contains(Apply(File({})), "damaged: it is the file of another dataset"));
  EXPECT_FALSE(Contains(Apply(File(Blocks())), "write"));
}

TEST_F(WorkApply, TheFileOfAnotherGroupIsRefused) {
  m_group = "h";
  EXPECT_EQ(Apply(File({})), "damaged: it is the file of another dataset");
}

TEST_F(WorkApply, TheFileOfAnotherVolumeIsRefused) {
  m_named = "c";
  EXPECT_EQ(Apply(File({})), "damaged: it is the file of another dataset");
}

TEST_F(WorkApply, ABlockOfAnotherVolumeIsRefused) {
  const std::string happened = Apply(File({Packed(0, 4096, {}, 1), Packed(0, 4096, {}, 0)}));
  EXPECT_TRUE(Contains(happened, "damaged: at byte"));
  EXPECT_FALSE(Contains(happened, "write"));
}

TEST_F(WorkApply, ABlockBeyondTheVolumeStopsTheFile) {
  const std::string happened = Apply(File({Packed(kVolumeSize, 4096, {}, 1)}));
  EXPECT_TRUE(Contains(happened, "damaged: a damaged block"));
  EXPECT_FALSE(Contains(happened, "write"));
}

TEST_F(WorkApply, AVolumeWithoutSpaceStopsTheFile) {
  m_volume.RefuseAfter(1);
  EXPECT_EQ(Apply(File(Blocks())), "no space: full after write 0+4096");
}

TEST_F(WorkApply, AFileThatChangesBetweenTheCheckAndTheWritesIsDamaged) {
  Memory file(File(Blocks()));
  file.SpoilSecondPass();
  EXPECT_TRUE(Contains(Apply(file), "damaged: at byte"));
}

}  // namespace
}  // namespace penstock
