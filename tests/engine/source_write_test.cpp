// SPDX-License-Identifier: Apache-2.0
// Goal: writes travel in the datasets they belong to, in order, in blocks within the limits, and
// never more of them at a time than the target can take.
// Method: writes, closes and the frames that they lead to; blocks are taken apart again.
#include "tests/engine/source_rig.h"

namespace penstock {
namespace {

class SourceWrite : public SourceRig {
 protected:
  SourceWrite() { m_config.volumes = {{"a", 8 * kMiB}, {"b", 64 * kKiB}}; }
};

TEST_F(SourceWrite, AWriteWaitsForItsDatasetToBeClosed) {
  Online();
  EXPECT_EQ(Write(4096, 4096), WriteResult::kOk);
  EXPECT_EQ(Run(), "");
  EXPECT_EQ(Close(), "START 1");
  EXPECT_EQ(JobsText(), "pack 1 buffers");
  EXPECT_EQ(Run(), "BLOCK 0 raw 4096+4096, END 1");
}

TEST_F(SourceWrite, TheBlockHoldsWhatWasWritten) {
  Online();
  Write(512, 1000);
  Close();
  Run();
  ByteList space;
  Bytes raw;
  ASSERT_EQ(UnpackBlock(*m_blocks.at(0), space, raw), BlockFault::kNone);
  EXPECT_EQ(ByteList(raw.begin(), raw.end()), Noise(1000, 101));
}

TEST_F(SourceWrite, NumbersAreNotKnownBeforeTheFirstWelcome) {
  Begin();
  EXPECT_EQ(Write(0, 4096), WriteResult::kStopped);
  EXPECT_EQ(m_engine->CloseDataset(m_now), 0U);
}

TEST_F(SourceWrite, CloseReturnsTheNumberOfTheDataset) {
  Online();
  Write(0, 4096);
  EXPECT_EQ(m_engine->CloseDataset(m_now), 1U);
  EXPECT_EQ(m_engine->CloseDataset(m_now), 2U) << "an empty one";
  EXPECT_EQ(Status().closed, 2U);
  EXPECT_EQ(Run(), "START 1, BLOCK 0 raw 0+4096, END 1, START 2, END 2");
}

TEST_F(SourceWrite, ADatasetBeginsOnlyAfterTheEndOfTheOneBefore) {
  Online();
  Write(0, 4096);
  EXPECT_EQ(Close(), "START 1");
  Write(4096, 4096);
  EXPECT_EQ(Close(), "");
  EXPECT_EQ(Do<PackBuffers>(), "BLOCK 0 raw 0+4096, END 1, START 2");
  EXPECT_EQ(Do<PackBuffers>(), "BLOCK 0 raw 4096+4096, END 2");
}

TEST_F(SourceWrite, BlocksTravelInOrderWhicheverIsPackedFirst) {
  Online();
  Write(0, 2 * kMiB);
  Close();
  m_jobs.push_back(m_jobs.front());
  m_jobs.pop_front();
  EXPECT_EQ(Do<PackBuffers>(), "");
  EXPECT_EQ(Do<PackBuffers>(), "BLOCK 0 raw 0+1048576, BLOCK 0 raw 1048576+1048576, END 1");
}

TEST_F(SourceWrite, WritesOfSeveralVolumesAreBlocksOfEach) {
  Online();
  Write(0, 4096, 1);
  Write(0, 4096, 0);
  Close();
  const std::string happened = Run();
  EXPECT_TRUE(Contains(happened, "BLOCK 0 raw 0+4096"));
  EXPECT_TRUE(Contains(happened, "BLOCK 1 raw 0+4096"));
  EXPECT_EQ(m_starts.at(1).volumes, (std::vector<UuidT>{VolumeId("g", "b"), VolumeId("g", "a")}))
      << "in the order of their first writes";
}

TEST_F(SourceWrite, AWriteMustBeWithinItsVolume) {
  Online();
  EXPECT_EQ(Write(0, 4096, 2), WriteResult::kOutside);
  EXPECT_EQ(Write(64 * kKiB - 4095, 4096, 1), WriteResult::kOutside);
  EXPECT_EQ(Write(64 * kKiB + 1, 1, 1), WriteResult::kOutside);
  EXPECT_EQ(Write(~std::uint64_t{0}, 2, 1), WriteResult::kOutside);
  EXPECT_EQ(Write(0, 0), WriteResult::kOutside);
  EXPECT_EQ(Write(64 * kKiB - 4096, 4096, 1), WriteResult::kOk);
}

TEST_F(SourceWrite, AWriteLargerThanADatasetIsOutside) {
  Online();
  EXPECT_EQ(Write(0, 4 * kMiB + 1), WriteResult::kOutside);
  EXPECT_EQ(Write(0, 4 * kMiB), WriteResult::kOk);
}

TEST_F(SourceWrite, WhatAFullDatasetCannotTakeGoesOnInTheNext) {
  m_config.datasetBytes = 8192;
  Online();
  Write(0, 4096);
  Write(4096, 4096);
  EXPECT_EQ(Out(), "");
  EXPECT_EQ(Write(8192, 4096), WriteResult::kOk);
  EXPECT_EQ(Run(), "START 1, BLOCK 0 raw 0+4096 4096+4096, END 1");
  EXPECT_EQ(Status().closed, 1U);
  Close();
  EXPECT_EQ(Run(), "BLOCK 0 raw 8192+4096, END 2");
}

// --- Blocks. ---

TEST_F(SourceWrite, ABlockIsCutAtOneMebibyte) {
  Online();
  Write(0, 2 * kMiB + 4096);
  Close();
  EXPECT_EQ(Run(),
            "BLOCK 0 raw 0+1048576, BLOCK 0 raw 1048576+1048576, BLOCK 0 raw 2097152+4096, "
            "END 1");
}

TEST_F(SourceWrite, BuffersShareABlockAcrossItsEdge) {
  Online();
  Write(0, kMiB - 4096);
  Write(4 * kMiB, 8192);
  Close();
  EXPECT_EQ(Run(), "BLOCK 0 raw 0+1044480 4194304+4096, BLOCK 0 raw 4198400+4096, END 1");
}

TEST_F(SourceWrite, ABlockIsCutAt4096Extents) {
  Online();
  for (std::uint64_t i = 0; i < kMaxExtents + 1; ++i) Write(i * 1024, 16);
  Close();
  Run();
  ASSERT_EQ(m_blocks.size(), 2U);
  EXPECT_EQ(m_blocks[0]->extentCount, kMaxExtents);
  EXPECT_EQ(m_blocks[1]->extentCount, 1U);
}

TEST_F(SourceWrite, ZerosTravelApartFromData) {
  Online();
  Write(0, 4096);
  Write(8192, 4096, 0, true);
  Write(16384, 4096, 0, true);
  Write(24576, 4096);
  Close();
  EXPECT_EQ(Run(),
            "BLOCK 0 raw 0+4096, BLOCK 0 zero 8192+4096 16384+4096, BLOCK 0 raw 24576+4096, "
            "END 1");
}

TEST_F(SourceWrite, ManyZerosAreCutLikeData) {
  m_config.volumes[0].size = 8 * kMiB;
  Online();
  Write(0, kMiB + 4096, 0, true);
  Close();
  EXPECT_EQ(Run(), "BLOCK 0 zero 0+1048576, BLOCK 0 zero 1048576+4096, END 1");
}

TEST_F(SourceWrite, BytesAreCountedBeforeAndAfterPacking) {
  m_config.compress = {Codec::kLz4, 1, false};
  Online();
  const auto data = std::make_shared<std::uint8_t[]>(65536, std::uint8_t{'x'});
  m_engine->Write(0, 0, data, 65536, m_now);
  Close();
  EXPECT_EQ(Run(), "BLOCK 0 lz4 0+65536, END 1");
  EXPECT_EQ(Status().rawBytes, 65536U);
  EXPECT_LT(Status().packedBytes, 1000U);
  EXPECT_EQ(Status().sentBytes, Status().packedBytes);
}

// --- The window. ---

TEST_F(SourceWrite, BlocksBeyondTheWindowWaitForAnAck) {
  m_window = 5000;
  Online();
  SendDataset();
  Write(0, 4096);
  Close();
  EXPECT_EQ(Run(), "") << "START 2 is out, its block is beyond the window";
  EXPECT_EQ(Ack(1), "BLOCK 0 raw 0+4096, END 2");
}

TEST_F(SourceWrite, TheOldestDatasetIsSentBeyondTheWindow) {
  m_window = 0;
  Online();
  Write(0, 2 * kMiB);
  Close();
  EXPECT_EQ(Run(), "BLOCK 0 raw 0+1048576, BLOCK 0 raw 1048576+1048576, END 1")
      << "the target can't acknowledge a part of it";
}

TEST_F(SourceWrite, TheWindowIsWhatIsNotAcknowledged) {
  m_window = 3UL * 4128;
  Online();
  for (int i = 0; i < 3; ++i) SendDataset();
  EXPECT_EQ(Status().sent, 3U);
  SendDataset();
  EXPECT_EQ(Status().sent, 3U);
  Ack(1);
  EXPECT_EQ(Status().sent, 4U);
}

TEST_F(SourceWrite, TheWindowIsFreshOnANewConnection) {
  m_window = 4128;
  Online();
  SendDataset();
  SendDataset();
  EXPECT_EQ(Status().sent, 1U);
  Reconnect();
  m_window = 2UL * 4128;
  EXPECT_TRUE(Contains(Welcome(), "END 1, START 2, BLOCK 0 raw 0+4096, END 2"));
}

// --- Life. ---

TEST_F(SourceWrite, WritesAreTakenWhileTheTargetIsAway) {
  Online();
  m_engine->ConnClosed(m_conn, "reset", m_now);
  EXPECT_EQ(SendDataset(), "");
  Wait(20'000);
  Connected();
  EXPECT_EQ(Welcome(), "START 1");
  EXPECT_EQ(Run(), "BLOCK 0 raw 0+4096, END 1");
}

TEST_F(SourceWrite, AnAnswerOfAWorkerToNoQuestionIsIgnored) {
  Online();
  FetchWindow unknown;
  unknown.ticket = 99;
  m_engine->Completed(BuffersPacked{99, nullptr}, m_now);
  m_engine->Completed(RunsPacked{99, nullptr, {}}, m_now);
  m_engine->Completed(ZeroWindow(unknown), m_now);
  EXPECT_EQ(Out(), "");
  EXPECT_EQ(Phase(), "online");
}

TEST_F(SourceWrite, APipelineThatTakesNoWriteIsTheEnd) {
  Online();
  m_engine->m_pipe->SetAcceptStatus(false);
  EXPECT_EQ(Write(0, 4096), WriteResult::kStopped);
  EXPECT_EQ(Phase(), "stopped");
  EXPECT_EQ(Status().failureCode, ErrorCode::kFailed);
  EXPECT_EQ(Out(), "dropped");
}

TEST_F(SourceWrite, StartCarriesTheTimeAtWhichTheDatasetWasOpened) {
  Online();
  m_now.wall = 1'234'567;
  Write(0, 4096);
  m_now.wall = 2'000'000;
  Close();
  EXPECT_EQ(m_starts.at(1).timestampMs, 1'234'567U);
}

}  // namespace
}  // namespace penstock
