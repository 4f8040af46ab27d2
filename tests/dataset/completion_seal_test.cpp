// SPDX-License-Identifier: Apache-2.0
// Goal: when a dataset is sealed, what keeps it open, and the start of an offloaded dataset's
// compression, which happens once however many threads complete its blocks. Method: complete lists
// of records; threads that start together behind a latch.
#include <algorithm>
#include <latch>
#include <thread>

#include "tests/dataset/dataset_fixture.h"

namespace {

class HasBuffers : public DatasetTest {};
class IsSealed : public DatasetTest {};
class CheckIfReadyAndCompress : public DatasetTest {
 protected:
  // A dataset of three blocks that an embedding system fills by offloading.
  void UseOffload(std::uint64_t doneBlocks) {
    UseNormal();
    m_ds->m_dsType = 2;
    for (int i = 0; i < 3; ++i) m_ds->IncTotal4KBlocks();
    m_ds->m_done4KBlocks = doneBlocks;
    MarkXmits();
    Log();
  }
  static std::string State(const std::string& blocks) {
    return "I Dataset::CheckIfReadyAndCompress() N: 7 " + blocks;
  }
};

const std::string kAllReceived =
    "N Dataset::CheckIfReadyAndCompress() All offload data received for N: 7 blocks4K 3 done4K 3";
const std::string kSending =
    "I Dataset::CheckIfReadyAndCompress() Sending offloaded data to compress for N: 7";

TEST_F(HasBuffers, AreCountedUpAndDown) {
  UseNormal();
  MarkXmits();
  EXPECT_EQ(m_ds->MarkHasBuffers(), 1);
  EXPECT_EQ(m_ds->MarkHasBuffers(), 2);
  EXPECT_EQ(m_ds->MarkDoneBuffers(), 1);
  EXPECT_EQ(Log(), (Lines{"I Dataset::MarkHasBuffers() N: 7 m_hasBuffers: 1",
                          "I Dataset::MarkHasBuffers() N: 7 m_hasBuffers: 2",
                          "I Dataset::MarkDoneBuffers() N: 7 m_hasBuffers: 1"}));
}

TEST_F(HasBuffers, DriveTheTransmitterWhenTheLastIsDone) {
  UseNormal();
  MarkXmits();
  m_ds->MarkHasBuffers();
  Log();
  EXPECT_EQ(m_ds->MarkDoneBuffers(), 0);
  EXPECT_EQ(Log(), (Lines{"I Dataset::MarkDoneBuffers() N: 7 m_hasBuffers: 0", "? host xmit"}));
}

TEST_F(HasBuffers, BelowZeroDriveNothing) {
  UseNormal();
  EXPECT_EQ(m_ds->MarkDoneBuffers(), -1);
  EXPECT_EQ(Log(), (Lines{"I Dataset::MarkDoneBuffers() N: 7 m_hasBuffers: -1"}));
  EXPECT_EQ(m_ds->MarkHasBuffers(), 0);
}

TEST_F(HasBuffers, AreReportedAsTheCallbackLeftThem) {
  UseNormal();
  m_ds->SetXmitCb([this] { m_ds->MarkHasBuffers(); });
  m_ds->MarkHasBuffers();
  EXPECT_EQ(m_ds->MarkDoneBuffers(), 1);
}

TEST_F(HasBuffers, RaiseBadFunctionCallWithoutTransmitCallback) {
  UseNormal();
  m_ds->MarkHasBuffers();
  Log();
  EXPECT_THROW(m_ds->MarkDoneBuffers(), std::bad_function_call);
  EXPECT_EQ(Log(), (Lines{"I Dataset::MarkDoneBuffers() N: 7 m_hasBuffers: 0"}));
  EXPECT_EQ(m_ds->m_hasBuffers, 0);
}

TEST_F(HasBuffers, StayDoneWhenTheTransmitCallbackThrows) {
  UseNormal();
  m_ds->SetXmitCb([] { throw HostFailure(); });
  m_ds->MarkHasBuffers();
  EXPECT_THROW(m_ds->MarkDoneBuffers(), HostFailure);
  EXPECT_EQ(m_ds->m_hasBuffers, 0);
}

TEST_F(IsSealed, IsTrueForAnEmptyDataset) {
  UseNormal();
  EXPECT_TRUE(m_ds->IsSealed());
  EXPECT_EQ(Log(), (Lines{"I Dataset::IsSealed() N: 7 no buffers  " + Ptr(m_ds.get()),
                          "I Dataset::IsSealed() N: 7 finalized  total buffers: 0"}));
}

TEST_F(IsSealed, IsTrueWhenEveryBufferIsFinalized) {
  UseNormal();
  Admit({Buf(1, 0, 8), Buf(2, 0, 8)});
  m_ds->MarkFinalized(Buf(1, 0, 8));
  m_ds->MarkFinalized(Buf(2, 0, 8));
  Log();
  EXPECT_TRUE(m_ds->IsSealed());
  EXPECT_EQ(Log(), (Lines{"I Dataset::IsSealed() N: 7 finalized  total buffers: 2"}));
}

TEST_F(IsSealed, IsFalseWhileABufferIsNotFinalized) {
  UseNormal();
  Admit({Buf(1, 0, 8), Buf(2, 0, 8)});
  m_ds->MarkFinalized(Buf(1, 0, 8));
  Log();
  EXPECT_FALSE(m_ds->IsSealed());
  EXPECT_EQ(Log(), (Lines{"I Dataset::IsSealed() " + Ds() +
                          "  numBufs: 2  m_finalizedBufs.size(): 1 not finalized"}));
}

TEST_F(IsSealed, IsFalseWhenSomethingNeverAdmittedWasFinalized) {
  UseNormal();
  m_ds->MarkFinalized(Buf(1, 0, 8));
  Log();
  EXPECT_FALSE(m_ds->IsSealed());
  EXPECT_EQ(Log(), (Lines{"I Dataset::IsSealed() " + Ds() +
                          "  numBufs: 0  m_finalizedBufs.size(): 1 not finalized"}));
}

TEST_F(IsSealed, IsFalseWhileABufferIsWorkedOn) {
  UseNormal();
  m_ds->MarkHasBuffers();
  m_ds->MarkHasBuffers();
  Log();
  EXPECT_FALSE(m_ds->IsSealed());
  EXPECT_EQ(Log(), (Lines{"I Dataset::IsSealed() " + Ds() +
                          " m_hasBuffers: 2 - buffers are still being decompressed"}));
}

TEST_F(IsSealed, IsFalseForANegativeCountToo) {
  UseNormal();
  m_ds->MarkDoneBuffers();
  Log();
  EXPECT_FALSE(m_ds->IsSealed());
  EXPECT_EQ(Log(), (Lines{"I Dataset::IsSealed() " + Ds() +
                          " m_hasBuffers: -1 - buffers are still being decompressed"}));
}

TEST_F(IsSealed, LooksAtTheFinalizedBuffersFirst) {
  UseNormal();
  Admit({Buf(1, 0, 8)});
  m_ds->MarkHasBuffers();
  Log();
  EXPECT_FALSE(m_ds->IsSealed());
  EXPECT_EQ(Log(), (Lines{"I Dataset::IsSealed() " + Ds() +
                          "  numBufs: 1  m_finalizedBufs.size(): 0 not finalized"}));
}

TEST_F(IsSealed, CountsFoldedBuffersOnce) {
  UseNormal();
  Admit({Buf(1, 0, 8), Buf(1, 0, 8), Buf(1, 0, 8)});
  m_ds->FinalizeBuffer(Buf(1, 0, 8));
  EXPECT_TRUE(m_ds->IsSealed());
}

TEST_F(CheckIfReadyAndCompress, OnlyLogsForANormalDataset) {
  UseNormal();
  m_ds->SetComplete();
  m_ds->CheckIfReadyAndCompress();
  EXPECT_EQ(Log(), (Lines{State("blocks4K 0 done4K 0 complete: 1")}));
  EXPECT_EQ(m_ds->m_compressStarted.load(), 0U);
}

TEST_F(CheckIfReadyAndCompress, OnlyLogsForAResyncDataset) {
  UseResync();
  m_ds->CheckIfReadyAndCompress();
  m_ds->IncTotal4KBlocks();
  m_ds->SetComplete();
  m_ds->CheckIfReadyAndCompress();
  EXPECT_EQ(Log(), (Lines{State("blocks4K 0 done4K 0 complete: 0"),
                          State("blocks4K 1 done4K 0 complete: 1")}));
  EXPECT_EQ(m_ds->m_compressStarted.load(), 0U);
}

TEST_F(CheckIfReadyAndCompress, WaitsForTheLastBlock) {
  UseOffload(2);
  m_ds->SetComplete();
  m_ds->CheckIfReadyAndCompress();
  EXPECT_EQ(Log(), (Lines{State("blocks4K 3 done4K 2 complete: 1")}));
}

TEST_F(CheckIfReadyAndCompress, WaitsForTheDatasetToBeComplete) {
  UseOffload(3);
  m_ds->CheckIfReadyAndCompress();
  EXPECT_EQ(Log(), (Lines{State("blocks4K 3 done4K 3 complete: 0")}));
  EXPECT_EQ(m_ds->m_compressStarted.load(), 0U);
}

TEST_F(CheckIfReadyAndCompress, CompressesACompleteOffloadedDataset) {
  UseOffload(3);
  Admit({Buf(1, 0, 8)});
  m_ds->SetComplete();
  m_ds->CheckIfReadyAndCompress();
  EXPECT_EQ(Log(), (Lines{State("blocks4K 3 done4K 3 complete: 1"), kAllReceived, kSending,
                          "D Dataset::NotifyRecvBuffers() doing the _received_DS_cb() loop",
                          "D Dataset::NotifyRecvBuffers() " + Ds() + "  " + BufText(1, "0", "8"),
                          "I Dataset::NotifyBufferReady() " + Ds() +
                              " is ready to transmit, vol Num: 1, total size: 1",
                          "D Dataset::NotifyBufferReady() Pushed 1 compressed data to xmit buf.",
                          "? host xmit"}));
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 1U);
}

TEST_F(CheckIfReadyAndCompress, CompressesAtMostOnce) {
  UseOffload(3);
  m_ds->SetComplete();
  m_ds->CheckIfReadyAndCompress();
  Log();
  m_ds->CheckIfReadyAndCompress();
  EXPECT_EQ(Log(), (Lines{State("blocks4K 3 done4K 3 complete: 1"), kAllReceived}));
  EXPECT_EQ(m_ds->m_compressStarted.load(), 2U);
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 1U);
}

TEST_F(CheckIfReadyAndCompress, DoesNotStartAgainAfterItFailed) {
  UseOffload(3);
  m_ds->SetXmitCb({});
  m_ds->SetComplete();
  EXPECT_THROW(m_ds->CheckIfReadyAndCompress(), std::bad_function_call);
  Log();
  EXPECT_NO_THROW(m_ds->CheckIfReadyAndCompress());
  EXPECT_EQ(Log(), (Lines{State("blocks4K 3 done4K 3 complete: 1"), kAllReceived}));
}

TEST_F(CheckIfReadyAndCompress, CompressesOnceWhenManyThreadsCompleteBlocks) {
  constexpr int kThreads = 8;
  UseOffload(3);
  Admit({Buf(1, 0, 8)});
  m_ds->SetComplete();
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      m_ds->CheckIfReadyAndCompress();
    });
  }
  for (std::thread& thread : threads) thread.join();
  const Lines lines = Log();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), State("blocks4K 3 done4K 3 complete: 1")),
            kThreads);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), kAllReceived), kThreads);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), kSending), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "? host xmit"), 1);
  EXPECT_EQ(m_ds->m_compressStarted.load(), 8U);
  EXPECT_EQ(m_ds->m_compressedBufs.size(), 1U);
}

TEST_F(CheckIfReadyAndCompress, CompressesOnceWhileAnotherThreadCompletesTheDataset) {
  constexpr int kThreads = 4;
  UseOffload(3);
  Admit({Buf(1, 0, 8)});
  std::latch start(kThreads + 1);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      for (int times = 0; times < 100; ++times) m_ds->CheckIfReadyAndCompress();
    });
  }
  start.arrive_and_wait();
  m_ds->SetComplete();
  m_ds->CheckIfReadyAndCompress();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 1U);
  const Lines lines = Log();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), kSending), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "? host xmit"), 1);
}

}  // namespace
