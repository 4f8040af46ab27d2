// SPDX-License-Identifier: Apache-2.0
// Goal: every START, BLOCK and END that is not exactly what is due ends the connection, is counted,
// and leaves nothing behind.
// Method: one wrong frame each, in front of a disk that does what it is asked.
#include "tests/engine/target_rig.h"

namespace penstock {
namespace {

class TargetDataset : public TargetRig {
 protected:
  // What the wrong frame led to, with the count and with what is left of it.
  std::string Refusal(const std::string& happened) {
    EXPECT_EQ(Refused(), 1U);
    std::string text = Joined({happened, Run()});
    EXPECT_TRUE(m_files.empty());
    EXPECT_EQ(m_states.at(0).durable, 0U);
    EXPECT_EQ(Joined({Hello({"a"}, 1), Run()}), "WELCOME epoch 1 at 0/0/0 new");
    return text;
  }
};

// --- START. ---

TEST_F(TargetDataset, NumbersMustNotSkip) {
  Online();
  EXPECT_EQ(Refusal(Start(2)), "ERROR protocol: dataset 2 where 1 is due, dropped");
}

TEST_F(TargetDataset, NumbersMustNotRepeat) {
  Online();
  Start(1);
  End();
  EXPECT_EQ(Start(1), "ERROR protocol: dataset 1 where 2 is due, dropped");
}

TEST_F(TargetDataset, StartMustNotComeWithinADataset) {
  Online();
  Start(1);
  EXPECT_EQ(Refusal(Start(2)),
            "ERROR protocol: START before the END of the dataset before, dropped");
}

TEST_F(TargetDataset, StartMustNameItsGroup) {
  Online();
  DatasetStart start = StartOf(1, {"a"});
  start.group = GroupId("h");
  EXPECT_EQ(Refusal(Start(start)), "ERROR protocol: a dataset of another group, dropped");
}

TEST_F(TargetDataset, AResyncIsOfOneVolume) {
  Online({"a", "b"});
  DatasetStart start = StartOf(1, {"a", "b"});
  start.datasetType = 2;
  EXPECT_EQ(Start(start), "ERROR protocol: a resync of not one volume, dropped");
}

TEST_F(TargetDataset, AVolumeThatWasNotGrantedToThisConnectionIsRefused) {
  Online({"a", "b"});
  Hello({"a"}, 1);
  Run();
  EXPECT_EQ(Start(1, {"b"}),
            "ERROR refused: dataset 1 names a volume that was not granted, dropped");
  EXPECT_EQ(Refused(), 1U);
}

TEST_F(TargetDataset, AVolumeThatDoesNotExistIsRefused) {
  Online();
  EXPECT_EQ(Refusal(Start(1, {"b"})),
            "ERROR refused: dataset 1 names a volume that was not granted, dropped");
}

TEST_F(TargetDataset, AVolumeThatIsNotOpenIsRefused) {
  Online({"a", "b"});
  Boot();
  Hello({"a"}, 1);
  Run();
  EXPECT_EQ(Start(1, {"b"}),
            "ERROR refused: dataset 1 names a volume that was not granted, dropped");
}

TEST_F(TargetDataset, AStartThatCannotBeDecodedIsRefused) {
  Online();
  EXPECT_EQ(Refusal(Send(Frame::Of(FrameType::kDatasetStart, ByteList(44)))),
            "ERROR protocol: format version 0, dropped");
}

// --- BLOCK. ---

TEST_F(TargetDataset, ABlockBelongsIntoADataset) {
  Online();
  EXPECT_EQ(Refusal(Block()), "ERROR protocol: a block outside a dataset, dropped");
}

TEST_F(TargetDataset, ABlockMustNotComeAfterEnd) {
  Online();
  Start(1);
  End();
  EXPECT_EQ(Block(), "ERROR protocol: a block outside a dataset, dropped");
}

TEST_F(TargetDataset, ABlockOfAnotherConnectionIsRefused) {
  Online();
  Start(1);
  HelloToVerify();
  EXPECT_EQ(Block(), "ERROR protocol: a block outside a dataset, dropped");
}

TEST_F(TargetDataset, ABlockIsOfAVolumeThatStartNames) {
  Online();
  Start(1);
  EXPECT_EQ(Refusal(Block(1)), "ERROR protocol: a block beyond the limits, dropped");
}

TEST_F(TargetDataset, ABlockIsOfSomething) {
  Online();
  Start(1);
  const BlockPtr block = BlockOf();
  block->rawLength = 0;
  EXPECT_EQ(Refusal(Block(block)), "ERROR protocol: a block beyond the limits, dropped");
}

TEST_F(TargetDataset, ABlockIsOfAtMostOneMebibyte) {
  Online();
  Start(1);
  const BlockPtr block = BlockOf();
  block->rawLength = kMaxBlockBytes + 1;
  EXPECT_EQ(Refusal(Block(block)), "ERROR protocol: a block beyond the limits, dropped");
}

TEST_F(TargetDataset, ABlockHasAtMost4096Extents) {
  Online();
  Start(1);
  const BlockPtr block = BlockOf();
  block->extentCount = kMaxExtents + 1;
  EXPECT_EQ(Refusal(Block(block)), "ERROR protocol: a block beyond the limits, dropped");
}

TEST_F(TargetDataset, ADatasetHasOnlySoManyBlocks) {
  m_config.maxBlocks = 2;
  Online();
  Start(1);
  Block();
  Block();
  EXPECT_EQ(Refusal(Block()), "ERROR protocol: a block beyond the limits, dropped, remove a/1");
}

// --- END. ---

TEST_F(TargetDataset, EndBelongsToADataset) {
  Online();
  EXPECT_EQ(Refusal(End()), "ERROR protocol: END outside a dataset, dropped");
}

TEST_F(TargetDataset, EndMustNotComeTwice) {
  Online();
  Start(1);
  End();
  EXPECT_EQ(End(), "ERROR protocol: END outside a dataset, dropped");
}

TEST_F(TargetDataset, EndOfAnotherConnectionIsRefused) {
  Online();
  Start(1);
  HelloToVerify();
  EXPECT_EQ(End(), "ERROR protocol: END outside a dataset, dropped");
}

TEST_F(TargetDataset, EndIsOfTheDatasetThatStarted) {
  Online();
  Start(1);
  EXPECT_EQ(Refusal(End([](DatasetEnd& end) { end.n = 2; })),
            "ERROR damaged: END of another dataset, dropped");
}

TEST_F(TargetDataset, EndThatCannotBeDecodedIsRefused) {
  Online();
  Start(1);
  EXPECT_EQ(Refusal(Send(Frame::Of(FrameType::kDatasetEnd, {1}))),
            "ERROR protocol: it ends too early, dropped");
}

TEST_F(TargetDataset, EndCountsTheBlocks) {
  Online();
  Start(1);
  EXPECT_EQ(Refusal(End([](DatasetEnd& end) { ++end.blocks; })),
            "ERROR damaged: dataset 1 is not complete: its END counts 1 blocks, 0 came, dropped");
}

TEST_F(TargetDataset, EndCountsTheExtents) {
  Online();
  Start(1);
  EXPECT_TRUE(Contains(Refusal(End([](DatasetEnd& end) { ++end.extents; })),
                       "ERROR damaged: dataset 1 is not complete"));
}

TEST_F(TargetDataset, EndCountsTheBytes) {
  Online();
  Start(1);
  EXPECT_TRUE(Contains(Refusal(End([](DatasetEnd& end) { ++end.rawBytes; })),
                       "ERROR damaged: dataset 1 is not complete"));
}

TEST_F(TargetDataset, AnotherChainValueIsAnotherHistory) {
  Online();
  Start(1);
  EXPECT_EQ(Refusal(End([](DatasetEnd& end) { end.chain[31] ^= 1U; })),
            "ERROR damaged: history differs at 1: the chain value is another, dropped");
}

TEST_F(TargetDataset, TheChainGoesOverEveryDatasetBefore) {
  Online();
  Dataset(1);
  Start(2);
  m_chains[1][0] ^= 1U;
  EXPECT_TRUE(Contains(End(), "ERROR damaged: history differs at 2"));
}

TEST_F(TargetDataset, ARefusedDatasetDoesNotTakeThoseBeforeWithIt) {
  Online();
  Dataset(1);
  Start(2);
  Block();
  EXPECT_TRUE(Contains(End([](DatasetEnd& end) { ++end.blocks; }), "ERROR damaged"));
  Run();
  EXPECT_EQ(m_states.at(0).durable, 1U);
  EXPECT_TRUE(m_files.empty());
}

// --- Other frames. ---

TEST_F(TargetDataset, FramesThatOnlyATargetSendsAreRefused) {
  Online();
  EXPECT_EQ(Refusal(Send(Encode(FrameType::kAck, Report{}))),
            "ERROR protocol: ACK is not for a target, dropped");
}

TEST_F(TargetDataset, PingIsAnswered) {
  Online();
  EXPECT_EQ(Send(Encode(FrameType::kPing, Ping{1})), "PONG");
  EXPECT_EQ(Send(Encode(FrameType::kPong, Ping{1})), "");
}

TEST_F(TargetDataset, APingThatCannotBeDecodedIsRefused) {
  Online();
  EXPECT_EQ(Refusal(Send(Frame::Of(FrameType::kPing, {1}))),
            "ERROR protocol: it ends too early, dropped");
}

TEST_F(TargetDataset, ProgressIsForTheStatus) {
  Online({"a", "b"});
  EXPECT_EQ(Status().closed, 0U);
  StartResync(1, "b");
  Run();
  ASSERT_EQ(StateOf("b"), "syncing@0");
  EXPECT_EQ(Send(Encode(Progress{7, 5, 4096, {1, 2 * kVolumeBytes}})), "");
  EXPECT_EQ(Status().closed, 7U);
  EXPECT_EQ(Status().sent, 5U);
  EXPECT_EQ(Status().waitingBytes, 4096U);
  // Only of what is being resynced, and never more than there is.
  const std::map<std::string, std::uint64_t> passed = {{"b", kVolumeBytes}};
  EXPECT_EQ(Status().passed, passed);
  Hello({"a", "b"});
  EXPECT_EQ(Status().waitingBytes, 0U) << "of another source";
}

TEST_F(TargetDataset, ProgressOfOtherVolumesThanThoseOfHelloIsRefused) {
  Online();
  EXPECT_EQ(Refusal(Send(Encode(Progress{1, 1, 0, {1, 2}}))),
            "ERROR protocol: PROGRESS that is not a source's of this group, dropped");
}

TEST_F(TargetDataset, ProgressThatCannotBeDecodedIsRefused) {
  Online();
  EXPECT_EQ(Refusal(Send(Frame::Of(FrameType::kProgress, {1}))),
            "ERROR protocol: it ends too early, dropped");
}

TEST_F(TargetDataset, ProgressOfAConnectionThatVerifiesIsRefused) {
  Online();
  HelloToVerify();
  Run();
  EXPECT_EQ(Send(Encode(Progress{1, 1, 0, {1}})),
            "ERROR protocol: PROGRESS that is not a source's of this group, dropped");
  EXPECT_EQ(Refused(), 1U);
}

TEST_F(TargetDataset, GoodbyeAndErrorEndTheConnectionWithoutAnAnswer) {
  Online();
  EXPECT_EQ(Send(EncodeBye()), "dropped");
  Hello({"a"}, 1);
  Run();
  EXPECT_EQ(Send(Encode(Error{ErrorCode::kFailed, 0, "volume lost"})), "dropped");
  EXPECT_EQ(Refused(), 0U);
}

TEST_F(TargetDataset, WhatArrivedInPartIsRemovedWhenItsConnectionGoes) {
  Online();
  Start(1);
  Block();
  EXPECT_EQ(Gone(), "");
  EXPECT_EQ(Complete<JournalOpen>(), "");
  EXPECT_EQ(Complete<JournalAppend>(), "remove a/1") << "once nothing writes to it any more";
  EXPECT_EQ(Run(), "");
}

TEST_F(TargetDataset, WhatArrivedWholeIsCommittedAfterItsConnectionWent) {
  Online();
  Dataset(1);
  Start(2);
  Gone();
  EXPECT_TRUE(Contains(Run(), "commit durable 1"));
  EXPECT_EQ(m_states.at(0).durable, 1U);
}

}  // namespace
}  // namespace penstock
