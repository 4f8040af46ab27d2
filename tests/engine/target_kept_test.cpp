// SPDX-License-Identifier: Apache-2.0
// Goal: what has just arrived is applied from memory when there is room for it, is the same as what
// its files hold, and never takes more than its limit.
// Method: the blocks that come with the orders to apply, and the bytes that the target counts, at
// every way in which a dataset can end.
#include "tests/engine/target_rig.h"

namespace penstock {
namespace {

constexpr std::uint64_t kBlockCost = 20 + 12 + 4096 + kKeptOverhead;  // of each block here

class TargetKept : public TargetRig {
 protected:
  // The offsets of the first extents of the blocks that the oldest order to apply brings.
  std::string Blocks() const {
    const ApplyFile& apply = First<ApplyFile>();
    if (!apply.blocks) return "from the file";
    std::string text = apply.volume + ":";
    for (const ArrivedBlock& kept : *apply.blocks) {
      EXPECT_EQ(kept.size, RecordBytes(*kept.block).size());
      std::vector<Extent> extents;
      EXPECT_EQ(CheckBlock(*kept.block, kept.size, kVolumeBytes, extents), BlockFault::kNone);
      text += " " + Number(extents.front().offset);
    }
    return text;
  }
  std::uint64_t Kept() const { return m_engine->KeptBytes(); }
};

TEST_F(TargetKept, ADatasetIsAppliedFromMemory) {
  Online();
  Start(1);
  Block(0, 8192);
  Block(0, 0);
  End();
  EXPECT_EQ(Kept(), 2 * kBlockCost);
  RunBut<ApplyFile>();
  EXPECT_EQ(Blocks(), "a: 8192 0") << "in the order in which they came";
  EXPECT_EQ(Kept(), 2 * kBlockCost);
  EXPECT_TRUE(Contains(Complete<ApplyFile>(), "DONE 1"));
  EXPECT_EQ(Kept(), 0U);
}

TEST_F(TargetKept, EachVolumeGetsItsOwnBlocks) {
  Online({"a", "b"});
  Start(1, {"a", "b"});
  Block(1, 4096);
  Block(0, 8192);
  Block(1, 0);
  End();
  RunBut<ApplyFile>();
  EXPECT_EQ(Blocks(), "a: 8192");
  Complete<ApplyFile>();
  EXPECT_EQ(Blocks(), "b: 4096 0");
  EXPECT_EQ(Kept(), 3 * kBlockCost) << "until all of the dataset is applied";
  Complete<ApplyFile>();
  EXPECT_EQ(Kept(), 0U);
}

TEST_F(TargetKept, ADatasetWithoutRoomIsReadBackAsAWhole) {
  m_config.keepBytes = 2 * kBlockCost;
  Online();
  Dataset(1);
  Start(2);
  Block();
  EXPECT_EQ(Kept(), 2 * kBlockCost);
  Block();
  EXPECT_EQ(Kept(), kBlockCost) << "a part of a dataset is of no use";
  Block();
  End();
  Dataset(3);
  RunBut<ApplyFile>();
  EXPECT_EQ(Blocks(), "a: 0");
  Complete<ApplyFile>();
  EXPECT_EQ(Blocks(), "from the file");
  EXPECT_EQ(Kept(), kBlockCost);
  Complete<ApplyFile>();
  EXPECT_EQ(Blocks(), "a: 0") << "there was room again";
  Run();
  EXPECT_EQ(Kept(), 0U);
}

TEST_F(TargetKept, WithoutALimitOfBytesNothingIsKept) {
  m_config.keepBytes = 0;
  Online();
  Dataset(1);
  EXPECT_EQ(Kept(), 0U);
  RunBut<ApplyFile>();
  EXPECT_EQ(Blocks(), "from the file");
}

TEST_F(TargetKept, TheLimitIsOneForAllGroups) {
  m_config.keepBytes = kBlockCost;
  Online();
  Dataset(1);
  EXPECT_EQ(Kept(), kBlockCost);
  m_group = "h";
  Hello({"b"});
  ASSERT_TRUE(Contains(RunBut<ApplyFile>(), "WELCOME"));
  m_chains.clear();
  Dataset(1, {"b"});
  EXPECT_EQ(Kept(), kBlockCost);
  RunBut<ApplyFile>();
  EXPECT_EQ(Blocks(), "a: 0");
  Complete<ApplyFile>();
  EXPECT_EQ(Blocks(), "from the file");
}

TEST_F(TargetKept, ADatasetThatIsGivenUpLetsGoOfItsBlocks) {
  Online();
  Start(1);
  Block();
  EXPECT_EQ(Kept(), kBlockCost);
  Gone();
  EXPECT_EQ(Kept(), 0U);
  Run();
  Hello({"a"}, 1);
  Run();
  Start(1);
  Block(0, 4096);
  End();
  RunBut<ApplyFile>();
  EXPECT_EQ(Blocks(), "a: 4096") << "nothing is left of the dataset of the same number";
}

TEST_F(TargetKept, ADatasetWithoutSpaceForItsFileLetsGoOfItsBlocks) {
  Online();
  Dataset(1);
  Complete<JournalOpen>(IoStatus::kNoSpace);
  EXPECT_EQ(Kept(), 0U);
  Run();
  EXPECT_EQ(Kept(), 0U);
}

TEST_F(TargetKept, BlocksAreThereUntilTheyCouldBeApplied) {
  Online();
  Dataset(1);
  RunBut<ApplyFile>();
  Complete<ApplyFile>(IoStatus::kNoSpace);
  EXPECT_EQ(Kept(), kBlockCost);
  Wait(m_config.retryAfter);
  EXPECT_EQ(Blocks(), "a: 0");
}

TEST_F(TargetKept, AfterAStartTheFilesAreRead) {
  Online();
  Dataset(1);
  RunBut<ApplyFile>();
  Boot();
  EXPECT_EQ(Kept(), 0U);
  RunBut<ApplyFile>();
  EXPECT_EQ(Blocks(), "from the file");
}

TEST_F(TargetKept, AResyncKeepsNothing) {
  Online();
  Resync(1);
  EXPECT_EQ(Kept(), 0U);
}

}  // namespace
}  // namespace penstock
