// SPDX-License-Identifier: Apache-2.0
// Goal: the requester that a resync dataset makes: when it exists, what it is made with, and when
// the dataset's blocks, fingerprints and completion make it send. Method: a send function that
// keeps its batches; complete lists of records.
#include <algorithm>
#include <latch>
#include <mutex>
#include <numeric>
#include <thread>

#include "tests/dataset/dataset_fixture.h"

namespace {

struct Batch {
  std::vector<std::uint64_t> fingerprints;
  std::uint64_t key;
};

class DatasetRequester : public DatasetTest {
 protected:
  void UseResyncOf(std::uint64_t capacity) {
    const std::vector<FingerprintRange> ranges{{Volume(1), 0, 1 << 20}};
    Use(std::make_shared<Dataset>(7, ranges, capacity));
  }
  SendFingerprintsFn Keep() {
    return [this](std::vector<std::uint64_t> fingerprints, std::uint64_t key) {
      const std::lock_guard lock(m_mutex);
      m_batches.push_back({std::move(fingerprints), key});
    };
  }
  void Count(int blocks) {
    for (int i = 0; i < blocks; ++i) m_ds->IncTotal4KBlocks();
  }
  // Offers the fingerprints `first` to `last`.
  void Offer(std::uint64_t first, std::uint64_t last) {
    for (std::uint64_t fp = first; fp <= last; ++fp) m_ds->SendFingerprint4Match(fp);
  }
  static std::vector<std::uint64_t> Range(std::uint64_t first, std::size_t count) {
    std::vector<std::uint64_t> range(count);
    std::iota(range.begin(), range.end(), first);
    return range;
  }

  std::mutex m_mutex;
  std::vector<Batch> m_batches;
};

TEST_F(DatasetRequester, IsMadeWithTheDatasetsNumberAndCapacity) {
  UseResyncOf(1 << 20);
  m_ds->InitFingerprintRequester(Keep());
  EXPECT_EQ(Log(), (Lines{"I FingerprintRequester::FingerprintRequester() maxDatasetSize 1048576 "
                          "m_maxNumBlocks 256 m_batchSize 256"}));
  ASSERT_NE(m_ds->m_foRequester, nullptr);
  EXPECT_EQ(m_ds->m_foRequester->m_dsNum, 7U);
  EXPECT_EQ(m_ds->m_foRequester->m_fingerprints.size(), 257U);
}

TEST_F(DatasetRequester, MadeASecondTimeIsRefusedAndTheFirstStays) {
  UseResyncOf(1 << 20);
  m_ds->InitFingerprintRequester(Keep());
  const FingerprintRequester* first = m_ds->m_foRequester.get();
  Log();
  m_ds->InitFingerprintRequester([held = Traced("second")](auto, auto) { Mark("second"); });
  EXPECT_EQ(Log(), (Lines{"E Dataset::InitFingerprintRequester() Calling InitFingerprintRequester "
                          "on existing FORequester ",
                          "? host released second"}));
  EXPECT_EQ(m_ds->m_foRequester.get(), first);
  Offer(0, 255);
  EXPECT_EQ(m_batches.size(), 1U);
}

TEST_F(DatasetRequester, MissingLosesTheFingerprint) {
  UseResyncOf(1 << 20);
  m_ds->SendFingerprint4Match(26);
  EXPECT_EQ(Log(), (Lines{"E Dataset::SendFingerprint4Match() Calling SendFingerprint4Match on "
                          "non-existent FORequester "}));
  m_ds->InitFingerprintRequester(Keep());
  EXPECT_EQ(m_ds->m_foRequester->m_nextFingerprint.load(), 0U);
}

TEST_F(DatasetRequester, TakesOneFingerprintWithThreeRecords) {
  UseResyncOf(1 << 20);
  m_ds->InitFingerprintRequester(Keep());
  Count(2);
  Log();
  m_ds->SendFingerprint4Match(26);
  EXPECT_EQ(
      Log(),
      (Lines{"I FingerprintRequester::AddFingerprint() N: 7 fp: 0x000000000000001a",
             "I FingerprintRequester::AddFingerprint() N: 7 fp: 0x000000000000001a fpIdx: 0",
             "I FingerprintRequester::CheckIfReadyToSend() N: 7 m_nextFingerprint: 1 fpIdx: 0 "
             "totalFPs 2 isComplete false m_lastFpIdxSent 0 bucket size "}));
  EXPECT_TRUE(m_batches.empty());
}

TEST_F(DatasetRequester, SendsAFullBatchOf256) {
  UseResyncOf(1 << 21);
  m_ds->InitFingerprintRequester(Keep());
  Count(300);
  Offer(1000, 1254);
  EXPECT_TRUE(m_batches.empty());
  Offer(1255, 1255);
  ASSERT_EQ(m_batches.size(), 1U);
  EXPECT_EQ(m_batches[0].fingerprints, Range(1000, 256));
  EXPECT_EQ(m_batches[0].key, 7U * 65536);
}

TEST_F(DatasetRequester, SendsTheShortBatchWhenTheDatasetBecomesComplete) {
  UseResyncOf(1 << 20);
  m_ds->InitFingerprintRequester(Keep());
  Count(10);
  Offer(1, 10);
  EXPECT_TRUE(m_batches.empty());
  Log();
  m_ds->SetComplete();
  EXPECT_EQ(
      Log(),
      (Lines{"I FingerprintRequester::CheckIfReadyToSend() N: 7 m_nextFingerprint: 10 fpIdx: 9 "
             "totalFPs 10 isComplete true m_lastFpIdxSent 0 bucket size ",
             "I FingerprintRequester::CheckIfReadyToSend() N: 7 fpIdx: 9   length: 256  "
             "batchStart: 0 totalFPs 10 isComplete true"}));
  ASSERT_EQ(m_batches.size(), 1U);
  EXPECT_EQ(m_batches[0].fingerprints, Range(1, 10));
}

TEST_F(DatasetRequester, SendsTheShortBatchWithTheLastFingerprintOfACompleteDataset) {
  UseResyncOf(1 << 20);
  m_ds->InitFingerprintRequester(Keep());
  Count(10);
  m_ds->SetComplete();
  Offer(1, 9);
  EXPECT_TRUE(m_batches.empty());
  Offer(10, 10);
  ASSERT_EQ(m_batches.size(), 1U);
  EXPECT_EQ(m_batches[0].fingerprints, Range(1, 10));
  EXPECT_EQ(m_ds->m_foRequester->m_lastFpIdxSent.load(), 10U);
}

TEST_F(DatasetRequester, WithoutAnyFingerprintSendsNothingOnCompletion) {
  UseResyncOf(1 << 20);
  m_ds->InitFingerprintRequester(Keep());
  Log();
  m_ds->SetComplete();
  EXPECT_EQ(Log(), (Lines{"I FingerprintRequester::CheckIfReadyToSend() N: 7 m_nextFingerprint: 0 "
                          "fpIdx: 18446744073709551615 totalFPs 0 isComplete true m_lastFpIdxSent "
                          "0 bucket size "}));
  EXPECT_TRUE(m_batches.empty());
}

TEST_F(DatasetRequester, LearnsOfTheBlocksCountedSinceItWasMade) {
  UseResyncOf(1 << 20);
  Count(3);
  m_ds->InitFingerprintRequester(Keep());
  EXPECT_EQ(m_ds->m_foRequester->m_totalFPs.load(), 0U);
  Count(2);
  EXPECT_EQ(m_ds->m_total4KBlocks, 5U);
  EXPECT_EQ(m_ds->m_foRequester->m_totalFPs.load(), 2U);
}

TEST_F(DatasetRequester, WithoutCapacityStoresOneFingerprint) {
  UseResyncOf(0);
  m_ds->InitFingerprintRequester(Keep());
  EXPECT_EQ(Log(), (Lines{"I FingerprintRequester::FingerprintRequester() maxDatasetSize 0 "
                          "m_maxNumBlocks 0 m_batchSize 256"}));
  Count(3);
  m_ds->SendFingerprint4Match(5);
  EXPECT_EQ(m_ds->m_foRequester->m_fingerprints, (std::vector<std::uint64_t>{5}));
  Log();
  m_ds->SendFingerprint4Match(6);
  EXPECT_EQ(Log(), (Lines{"I FingerprintRequester::AddFingerprint() N: 7 fp: 0x0000000000000006",
                          "E FingerprintRequester::AddFingerprint() can't store fingerprint as "
                          "dataset has too many 4K blocks  fpIdx: 1   m_maxNumBlocks: 0"}));
}

TEST_F(DatasetRequester, SendsTheSlotsThatExistWhenSomeWereRefused) {
  UseResyncOf(0);
  m_ds->InitFingerprintRequester(Keep());
  Count(3);
  Offer(5, 7);
  m_ds->SetComplete();
  ASSERT_EQ(m_batches.size(), 1U);
  EXPECT_EQ(m_batches[0].fingerprints, Range(5, 1));
  EXPECT_EQ(m_batches[0].key, 7U * 65536);
  EXPECT_EQ(m_ds->m_foRequester->m_lastFpIdxSent.load(), 3U);
}

TEST_F(DatasetRequester, StaysUnsentWhenTheSendFunctionThrows) {
  UseResyncOf(1 << 20);
  m_ds->InitFingerprintRequester([](auto, auto) { throw HostFailure(); });
  Count(1);
  m_ds->SendFingerprint4Match(5);
  EXPECT_THROW(m_ds->SetComplete(), HostFailure);
  EXPECT_TRUE(m_ds->m_complete.load());
  EXPECT_EQ(m_ds->m_foRequester->m_lastFpIdxSent.load(), 0U);
  EXPECT_THROW(m_ds->SetComplete(), HostFailure) << "offered again";
}

TEST_F(DatasetRequester, RaisesBadFunctionCallWithAnEmptySendFunction) {
  UseResyncOf(1 << 20);
  m_ds->InitFingerprintRequester({});
  Count(1);
  m_ds->SetComplete();
  EXPECT_THROW(m_ds->SendFingerprint4Match(5), std::bad_function_call);
  EXPECT_EQ(m_ds->m_foRequester->m_nextFingerprint.load(), 1U);
  EXPECT_EQ(m_ds->m_foRequester->m_lastFpIdxSent.load(), 0U);
}

TEST_F(DatasetRequester, OfANormalDatasetWorksAlike) {
  UseNormal(8192);
  m_ds->InitFingerprintRequester(Keep());
  EXPECT_EQ(Log(), (Lines{"I FingerprintRequester::FingerprintRequester() maxDatasetSize 8192 "
                          "m_maxNumBlocks 2 m_batchSize 256"}));
}

TEST_F(DatasetRequester, SendsAnEmptyBatchWhenTheFirstFingerprintArrivesDuringCompletion) {
  UseResyncOf(1 << 20);
  m_ds->InitFingerprintRequester(Keep());
  Count(2);
  // The record of the check is written between its two readings of the counter: what another thread
  // may do there, its sink does.
  bool hasArrived = false;
  CLogger::GetInstance().SetSink([&](const LogRecord&) {
    if (!std::exchange(hasArrived, true)) m_ds->SendFingerprint4Match(5);
  });
  m_ds->SetComplete();
  CLogger::GetInstance().SetSink({});
  ASSERT_EQ(m_batches.size(), 1U);
  EXPECT_TRUE(m_batches[0].fingerprints.empty());
  EXPECT_EQ(m_batches[0].key, std::uint64_t{7} * 65536 + 0xffffff00U);
  EXPECT_EQ(m_ds->m_foRequester->m_lastFpIdxSent.load(), 0U);
  m_ds->SendFingerprint4Match(6);
  ASSERT_EQ(m_batches.size(), 2U);
  EXPECT_EQ(m_batches[1].fingerprints, Range(5, 2)) << "nothing is lost by it";
}

TEST_F(DatasetRequester, TakesFingerprintsWhileAnotherThreadCompletesTheDataset) {
  constexpr std::uint64_t kThreads = 4;
  constexpr std::uint64_t kEach = 64;
  UseResyncOf(1 << 20);
  m_ds->InitFingerprintRequester(Keep());
  Count(kThreads * kEach);
  Offer(1, 1);  // without one, completion may race with the first: see the test above
  std::latch start(kThreads + 1);
  std::vector<std::thread> threads;
  for (std::uint64_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      Offer(t == 0 ? 2 : 1 + t * kEach, (t + 1) * kEach);
    });
  }
  start.arrive_and_wait();
  m_ds->SetComplete();
  for (std::thread& thread : threads) thread.join();

  std::vector<std::uint64_t> stored = m_ds->m_foRequester->m_fingerprints;
  stored.pop_back();  // the slot behind the last block
  std::sort(stored.begin(), stored.end());
  EXPECT_EQ(stored, Range(1, kThreads * kEach));
  ASSERT_FALSE(m_batches.empty());
  for (const Batch& batch : m_batches) {  // two threads may complete it at once
    EXPECT_EQ(batch.key, 7U * 65536);
    EXPECT_EQ(batch.fingerprints.size(), kThreads * kEach);
  }
}

}  // namespace
