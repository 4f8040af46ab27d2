// SPDX-License-Identifier: Apache-2.0
// Goal: what reaches the send function, also at the ends of the store and of the numbers, when it
// throws, and when several threads offer at once. Method: SendBatch is called directly where no
// run of fingerprints reaches the case; threads offer fingerprints that tell who offered them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "penstock/dataset.h"
#include "penstock/fingerprint_requester.h"
#include "tests/fingerprint/requester_fixture.h"

namespace {

using RequesterSend = RequesterTest;

TEST_F(RequesterSend, HandsOverTheSlotsInOrder) {
  Make(10, 256);
  Offer(10);
  m_requester->SendBatch(3, 4);
  EXPECT_EQ(Sent(), (SentBatches{Batch(3, 4)}));
  EXPECT_EQ(LastSent(), 7U);
}

TEST_F(RequesterSend, LogsNothingItself) {
  Make(10, 256);
  m_requester->SendBatch(0, 4);
  EXPECT_EQ(Written(), Lines{});
}

TEST_F(RequesterSend, OfNothingHandsOverAnEmptyVector) {
  Make(10, 256);
  m_requester->SendBatch(3, 0);
  EXPECT_EQ(Sent(), (SentBatches{{{}, kKey + 3}}));
  EXPECT_EQ(LastSent(), 3U);
}

TEST_F(RequesterSend, AddsTheStartToTheKeyEvenIntoTheNumbersBits) {
  Make(70'000, 256);
  m_requester->SendBatch(65'536 + 2, 1);
  EXPECT_EQ(Sent(), (SentBatches{{{0}, (kN + 1) * 65536 + 2}}));
}

TEST_F(RequesterSend, ShiftsTheNumberOutAtTheTop) {
  m_requester =
      std::make_unique<FingerprintRequester>(Keeper(), 0xabcd'0000'0000'0001U, kBlock, 256);
  m_requester->SendBatch(1, 1);
  EXPECT_EQ(Sent(), (SentBatches{{{0}, 65537}}));
}

TEST_F(RequesterSend, RecordsTheEndInThirtyTwoBits) {
  Make(1, 256);
  m_requester->SendBatch(0xffffffffU, 3);
  EXPECT_EQ(Sent(), (SentBatches{{{}, kKey + 0xffffffffU}}));
  EXPECT_EQ(LastSent(), 2U);
}

TEST_F(RequesterSend, RecordsTheEndOnlyAfterTheFunctionReturned) {
  std::uint64_t lastSentInside = 99;
  m_requester = std::make_unique<FingerprintRequester>(
      [&](const std::vector<std::uint64_t>&, std::uint64_t) { lastSentInside = LastSent(); }, kN,
      4 * kBlock, 2);
  Offer(2);
  EXPECT_EQ(lastSentInside, 0U);
  EXPECT_EQ(LastSent(), 2U);
}

TEST_F(RequesterSend, HandsOverOnlySlotsThatExist) {
  Make(3, 256);
  Offer(4);
  m_requester->SendBatch(2, 100);
  EXPECT_EQ(Sent(), (SentBatches{Batch(2, 2)}));
  EXPECT_EQ(LastSent(), 102U);
}

TEST_F(RequesterSend, OfALastBatchWithRefusedFingerprintsHasTheStoredOnes) {
  Make(4, 256);  // five slots
  CountBlocks(7);
  Offer(7);
  Written();
  m_requester->CheckIfReadyToSend(true);
  EXPECT_EQ(Sent(), (SentBatches{Batch(0, 5)}));
  EXPECT_EQ(LastSent(), 7U);
  EXPECT_EQ(Written(), (Lines{CheckLine(7, 7, true, 0), SendLine(6, 256, 0, 7, true)}));
}

TEST_F(RequesterSend, OfALastBatchThatWasRefusedEntirelyIsEmpty) {
  Make(4, 8);
  CountBlocks(10);
  Offer(10);
  m_requester->CheckIfReadyToSend(true);
  EXPECT_EQ(Sent(), (SentBatches{{{}, kKey + 8}}));
  EXPECT_EQ(LastSent(), 10U);
}

TEST_F(RequesterSend, MultipliesTheStartInThirtyTwoBits) {
  Make(1, 256);
  m_requester->m_nextFingerprint.store((std::uint64_t{1} << 32U) + 256);
  m_requester->CheckIfReadyToSend(false);
  // The start keeps its low 32 bits, 0; the count those of 2^32 + 256.
  EXPECT_EQ(Sent(), (SentBatches{{{0, 0}, kKey}}));
  EXPECT_EQ(LastSent(), 256U);
}

TEST_F(RequesterSend, WithoutAFunctionThrowsBadFunctionCall) {
  m_requester = std::make_unique<FingerprintRequester>(nullptr, kN, 8 * kBlock, 2);
  EXPECT_THROW(m_requester->SendBatch(0, 1), std::bad_function_call);
  Offer(1);
  Written();
  EXPECT_THROW(m_requester->AddFingerprint(1001, false), std::bad_function_call);
  EXPECT_EQ(Written(), (Lines{OfferedLine(1001), StoredLine(1001, 1), CheckLine(2, 0, false, 0),
                              SendLine(1, 2, 0, 0, false)}));
  EXPECT_THROW(m_requester->CheckIfReadyToSend(false), std::bad_function_call);
  EXPECT_EQ(LastSent(), 0U);
  EXPECT_EQ(Offered(), 2U);
}

TEST_F(RequesterSend, LetsTheFunctionsExceptionPassAndTriesAgain) {
  bool broken = true;
  m_requester = std::make_unique<FingerprintRequester>(
      [&, keep = Keeper()](std::vector<std::uint64_t> fingerprints, std::uint64_t key) {
        if (broken) throw std::runtime_error("no link");
        keep(std::move(fingerprints), key);
      },
      kN, 8 * kBlock, 2);
  Offer(1);
  EXPECT_THROW(m_requester->AddFingerprint(1001, false), std::runtime_error);
  EXPECT_EQ(LastSent(), 0U);
  broken = false;
  m_requester->CheckIfReadyToSend(false);
  EXPECT_EQ(Sent(), (SentBatches{Batch(0, 2)}));
}

TEST_F(RequesterSend, LetsTheDestructionReleaseTheFunction) {
  const auto held = std::make_shared<int>(0);
  {
    const FingerprintRequester requester([held](const auto&, auto) {}, kN, kBlock, 256);
    EXPECT_EQ(held.use_count(), 2);
  }
  EXPECT_EQ(held.use_count(), 1);
}

// Several threads at once. Records below LOG_NOTICE are not caught, so that the threads meet in the
// requester and not in the logger.
class RequesterThreads : public testing::Test {
 protected:
  static constexpr std::uint64_t kN = 5;
  static constexpr int kThreads = 4;
  static constexpr int kEach = 1001;
  static constexpr std::size_t kAll = kThreads * kEach;

  SendFingerprintsFn Keeper() {
    return [this](std::vector<std::uint64_t> fingerprints, std::uint64_t key) {
      const std::lock_guard lock(m_mutex);
      m_sent.push_back({std::move(fingerprints), key});
    };
  }

  // Runs `offer` for each fingerprint, from kThreads threads at once. No fingerprint is 0.
  static void OfferFromAllThreads(const std::function<void(std::uint64_t)>& offer) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&offer, t] {
        for (int i = 1; i <= kEach; ++i)
          offer(static_cast<std::uint64_t>(t) * 10'000 + static_cast<std::uint64_t>(i));
      });
    }
    for (std::thread& thread : threads) thread.join();
  }

  // What was stored, as a sorted list: every fingerprint once, when none is lost.
  static std::vector<std::uint64_t> Sorted(std::vector<std::uint64_t> fingerprints) {
    std::sort(fingerprints.begin(), fingerprints.end());
    return fingerprints;
  }
  static std::vector<std::uint64_t> EveryFingerprint() {
    std::vector<std::uint64_t> all;
    for (int t = 0; t < kThreads; ++t) {
      for (int i = 1; i <= kEach; ++i) all.push_back(static_cast<std::uint64_t>(t * 10'000 + i));
    }
    return all;
  }

  LogCapture m_log{LOG_NOTICE};
  std::mutex m_mutex;
  SentBatches m_sent;
};

TEST_F(RequesterThreads, LoseNoFingerprint) {
  FingerprintRequester requester(Keeper(), kN, (kAll - 1) * 4096, 256);
  OfferFromAllThreads([&](std::uint64_t fp) { requester.AddFingerprint(fp, false); });
  EXPECT_EQ(requester.m_nextFingerprint.load(), kAll);
  EXPECT_EQ(Sorted(requester.m_fingerprints), EveryFingerprint());
  EXPECT_EQ(m_log.Take(), Lines{});
}

TEST_F(RequesterThreads, SendBatchesThatStartAtAMultipleAndHoldWhatIsStored) {
  FingerprintRequester requester(Keeper(), kN, (kAll - 1) * 4096, 256);
  OfferFromAllThreads([&](std::uint64_t fp) { requester.AddFingerprint(fp, false); });
  for (const SentBatch& batch : m_sent) {
    const std::uint64_t start = batch.key - kN * 65536;
    ASSERT_EQ(start % 256, 0U);
    ASSERT_EQ(batch.fingerprints.size(), 256U);
    for (std::size_t i = 0; i < batch.fingerprints.size(); ++i) {
      // 0 where another thread had its index but not yet written its slot.
      if (batch.fingerprints[i] == 0) continue;
      ASSERT_EQ(batch.fingerprints[i], requester.m_fingerprints[start + i]);
    }
  }
}

TEST_F(RequesterThreads, LeaveAWholeLastBatchBehind) {
  FingerprintRequester requester(Keeper(), kN, (kAll - 1) * 4096, 256);
  requester.m_totalFPs.store(kAll);
  OfferFromAllThreads([&](std::uint64_t fp) { requester.AddFingerprint(fp, false); });
  m_sent.clear();
  requester.CheckIfReadyToSend(true);
  constexpr std::size_t kStart = kAll / 256 * 256;
  const std::vector<std::uint64_t> tail(requester.m_fingerprints.begin() + kStart,
                                        requester.m_fingerprints.end());
  EXPECT_EQ(m_sent, (SentBatches{{tail, kN * 65536 + kStart}}));
  EXPECT_EQ(requester.m_lastFpIdxSent.load(), kAll);
}

TEST_F(RequesterThreads, GetOneRefusalForEachFingerprintTooMany) {
  FingerprintRequester requester(Keeper(), kN, 99 * 4096, 256);  // a hundred slots
  OfferFromAllThreads([&](std::uint64_t fp) { requester.AddFingerprint(fp, false); });
  EXPECT_EQ(requester.m_nextFingerprint.load(), kAll);
  EXPECT_EQ(m_log.Take().size(), kAll - 100);
  EXPECT_EQ(std::count(requester.m_fingerprints.begin(), requester.m_fingerprints.end(), 0U), 0);
}

TEST_F(RequesterThreads, MayOfferWhileBlocksAreCountedAndTheDatasetCompletes) {
  const auto ds = ResyncDs(kN, std::uint64_t{kAll} * 4096);
  ds->InitFingerprintRequester(Keeper());
  std::thread counter([&] {
    for (std::size_t i = 0; i < kAll; ++i) ds->IncTotal4KBlocks();
    ds->SetComplete();
  });
  OfferFromAllThreads([&](std::uint64_t fp) { ds->SendFingerprint4Match(fp); });
  counter.join();
  EXPECT_EQ(ds->m_foRequester->m_totalFPs.load(), kAll);
  ds->SetComplete();
  EXPECT_EQ(ds->m_foRequester->m_lastFpIdxSent.load(), kAll);
}

}  // namespace
