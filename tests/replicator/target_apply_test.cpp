// SPDX-License-Identifier: Apache-2.0
// Goal: a durable dataset reaches its volume from memory or from its file, and neither memory that
// lost a bit nor a file that did puts anything else there.
// Method: a journal and a volume in a folder of the test; either side of them is damaged.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "replicator/files.h"
#include "replicator/runner_journal.h"
#include "replicator/runner_volumes.h"
#include "tests/replicator/rig.h"

namespace penstock {
namespace {

constexpr std::uint64_t kCopyBytes = 16384;

class TargetApply : public testing::Test {
 protected:
  TargetApply() : m_journal(m_folder.Path()), m_volumes(m_folder / "volumes", {}) {
    EXPECT_EQ(m_journal.Prepare(), "");
    EXPECT_EQ(MakePrivateDirectory(m_folder / "volumes"), "");
    EXPECT_EQ(m_volumes.Open({1, "g", "a", kCopyBytes}).error, "");
    const std::vector<std::uint8_t> data(4096, 'x');
    const Piece piece{4096, data};
    m_block = PackBlock(0, {&piece, 1}, {});
    WriteFile();
  }

  void WriteFile() {
    const UuidT id = VolumeId("g", "a");
    auto start = OM_DP::MakeDatasetStartv2(1);
    start->n = 7;
    start->groupId = GroupId("g").bytes;
    std::memcpy(reinterpret_cast<std::uint8_t*>(start.get()) + sizeof(OM_DP::DatasetStartv2), &id,
                sizeof(id));
    EXPECT_EQ(m_journal.Open({1, "g", "a", 7, start}).error, "");
    EXPECT_EQ(m_journal.Append({2, "g", "a", 7, m_block, Size(), kCopyBytes}).error, "");
    EXPECT_EQ(m_journal.Close({3, "g", "a", 7}).error, "");
  }
  std::uint32_t Size() const { return static_cast<std::uint32_t>(RecordBytes(*m_block).size()); }

  IoDone Apply(bool fromMemory) {
    ApplyFile apply{4, "g", "a", 7, kCopyBytes, {}};
    if (fromMemory)
      apply.blocks = std::make_shared<ArrivedBlocks>(1, ArrivedBlock{m_block, Size()});
    return m_volumes.Apply(apply, m_journal);
  }
  bool IsApplied() const {
    const std::string data = ReadText(m_folder / "volumes/g/a.img");
    return data == std::string(4096, '\0') + std::string(4096, 'x') + std::string(8192, '\0');
  }
  std::string File() const { return m_journal.PathOf("g", "a", 7); }

  TempFolder m_folder;
  Journal m_journal;
  TargetVolumes m_volumes;
  BlockPtr m_block;
};

TEST_F(TargetApply, ReadsTheFile) {
  const IoDone done = Apply(false);
  EXPECT_EQ(done.error, "");
  EXPECT_TRUE(IsApplied());
}

TEST_F(TargetApply, DoesNotReadTheFileOfBlocksInMemory) {
  WriteText(File(), "not a dataset file");
  EXPECT_EQ(Apply(true).error, "");
  EXPECT_TRUE(IsApplied());
}

TEST_F(TargetApply, ReadsTheFileWhenMemoryIsDamaged) {
  OM_DP::Body(*m_block)[1000] ^= 1U;
  const IoDone done = Apply(true);
  EXPECT_EQ(done.status, IoStatus::kOk);
  EXPECT_EQ(done.error, "");
  EXPECT_TRUE(IsApplied());
}

TEST_F(TargetApply, SaysThatAFileIsDamagedWhenBothAre) {
  OM_DP::Body(*m_block)[1000] ^= 1U;
  WriteText(File(), "not a dataset file");
  const IoDone done = Apply(true);
  EXPECT_EQ(done.status, IoStatus::kDamaged);
  EXPECT_NE(done.error.find("the file ends within a command header"), std::string::npos)
      << done.error;
  EXPECT_FALSE(IsApplied());
}

}  // namespace
}  // namespace penstock
