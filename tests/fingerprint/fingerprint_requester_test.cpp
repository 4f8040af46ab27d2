// SPDX-License-Identifier: Apache-2.0
// Goal: fingerprints are numbered, stored and handed over in batches at exactly the right moment,
// with the right records. Method: one requester whose send function keeps its batches; whole log
// lines and whole batches are compared.
#include "penstock/fingerprint_requester.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include "penstock/dataset.h"
#include "tests/fingerprint/requester_fixture.h"
#include "tests/support/grouping_locale.h"

namespace {

constexpr std::uint64_t kMax64 = std::numeric_limits<std::uint64_t>::max();

class RequesterConstruction : public RequesterTest {
 protected:
  // Makes a requester by its constructor's own arguments and keeps what it logs.
  void MakeOfSize(std::size_t maxDatasetSize, int batchSize) {
    m_requester = std::make_unique<FingerprintRequester>(Keeper(), kN, maxDatasetSize, batchSize);
  }
  std::uint64_t Slots() const { return m_requester->m_fingerprints.size(); }
};

using RequesterOffer = RequesterTest;
using RequesterBatches = RequesterTest;
using RequesterOfADataset = RequesterTest;

TEST_F(RequesterConstruction, LogsItsSizes) {
  MakeOfSize(1 << 20, 256);
  EXPECT_EQ(Written(), (Lines{"I FingerprintRequester::FingerprintRequester() maxDatasetSize "
                              "1048576 m_maxNumBlocks 256 m_batchSize 256"}));
}

TEST_F(RequesterConstruction, StartsWithZeroedCountersAndStore) {
  MakeOfSize(1 << 20, 256);
  EXPECT_EQ(m_requester->m_dsNum, kN);
  EXPECT_EQ(m_requester->m_batchSize, 256U);
  EXPECT_EQ(m_requester->m_maxNumBlocks, 256U);
  EXPECT_EQ(m_requester->m_fingerprints, std::vector<std::uint64_t>(257, 0));
  EXPECT_EQ(Offered(), 0U);
  EXPECT_EQ(m_requester->m_totalFPs.load(), 0U);
  EXPECT_EQ(LastSent(), 0U);
  EXPECT_EQ(Sent(), SentBatches{});
}

TEST_F(RequesterConstruction, CountsNoPartialBlock) {
  MakeOfSize(3 * kBlock - 1, 256);
  EXPECT_EQ(m_requester->m_maxNumBlocks, 2U);
  EXPECT_EQ(Slots(), 3U);
}

TEST_F(RequesterConstruction, AcceptsASizeBelowOneBlock) {
  MakeOfSize(kBlock - 1, 256);
  EXPECT_EQ(m_requester->m_maxNumBlocks, 0U);
  EXPECT_EQ(Slots(), 1U);
}

TEST_F(RequesterConstruction, AcceptsABatchSizeOfZero) {
  MakeOfSize(kBlock, 0);
  EXPECT_EQ(m_requester->m_batchSize, 0U);
  m_requester->CheckIfReadyToSend(true);  // nothing has arrived: nothing is divided by it
  EXPECT_EQ(Sent(), SentBatches{});
}

TEST_F(RequesterConstruction, ExtendsTheSignOfTheBatchSize) {
  MakeOfSize(kBlock, -1);
  EXPECT_EQ(m_requester->m_batchSize, kMax64);
  EXPECT_EQ(Written(), (Lines{"I FingerprintRequester::FingerprintRequester() maxDatasetSize 4096 "
                              "m_maxNumBlocks 1 m_batchSize 18446744073709551615"}));
}

TEST_F(RequesterConstruction, CopiesTheSendFunction) {
  SendFingerprintsFn send = Keeper();
  m_requester = std::make_unique<FingerprintRequester>(send, kN, kBlock, 1);
  send = {};
  Offer(1);
  EXPECT_EQ(Sent(), (SentBatches{Batch(0, 1)}));
}

TEST_F(RequesterOffer, LogsTheOfferItsIndexAndTheCheck) {
  Make(10, 256);
  m_requester->AddFingerprint(26, false);
  EXPECT_EQ(Written(),
            (Lines{"I FingerprintRequester::AddFingerprint() N: 5 fp: 0x000000000000001a",
                   "I FingerprintRequester::AddFingerprint() N: 5 fp: 0x000000000000001a fpIdx: 0",
                   "I FingerprintRequester::CheckIfReadyToSend() N: 5 m_nextFingerprint: 1 fpIdx: "
                   "0 totalFPs 0 isComplete false m_lastFpIdxSent 0 bucket size "}));
}

TEST_F(RequesterOffer, WritesAFingerprintAsSixteenLowerCaseDigits) {
  Make(10, 256);
  for (const std::uint64_t fp : {std::uint64_t{0}, kMax64, std::uint64_t{0x0123456789abcdef}}) {
    m_requester->AddFingerprint(fp, false);
  }
  const Lines lines = Written();
  ASSERT_EQ(lines.size(), 9U);
  EXPECT_EQ(lines[0], "I FingerprintRequester::AddFingerprint() N: 5 fp: 0x0000000000000000");
  EXPECT_EQ(lines[3], "I FingerprintRequester::AddFingerprint() N: 5 fp: 0xffffffffffffffff");
  EXPECT_EQ(lines[7],
            "I FingerprintRequester::AddFingerprint() N: 5 fp: 0x0123456789abcdef fpIdx: 2");
}

TEST_F(RequesterOffer, StoresEachFingerprintInTheSlotOfItsIndex) {
  Make(3, 256);
  Offer(3);
  EXPECT_EQ(m_requester->m_fingerprints, (std::vector<std::uint64_t>{1000, 1001, 1002, 0}));
  EXPECT_EQ(Offered(), 3U);
}

TEST_F(RequesterOffer, StoresOneMoreThanThereAreBlocks) {
  Make(256, 1024);
  Offer(257);
  const Lines lines = Written();
  EXPECT_EQ(lines[lines.size() - 2], StoredLine(1256, 256));
  EXPECT_EQ(m_requester->m_fingerprints[256], 1256U);
}

TEST_F(RequesterOffer, RefusesWhatIsBeyondTheInclusiveBound) {
  Make(256, 1024);
  Offer(257);
  Written();
  m_requester->AddFingerprint(26, true);
  EXPECT_EQ(Written(), (Lines{OfferedLine(26), RefusedLine(257, 256)}));
  EXPECT_EQ(m_requester->m_fingerprints.size(), 257U);
  EXPECT_EQ(std::count(m_requester->m_fingerprints.begin(), m_requester->m_fingerprints.end(), 26U),
            0);
}

TEST_F(RequesterOffer, CountsARefusedFingerprint) {
  Make(1, 256);
  Offer(4);
  EXPECT_EQ(Offered(), 4U);
}

TEST_F(RequesterOffer, ChecksNoBatchAfterARefusal) {
  Make(1, 4);
  CountBlocks(4);
  Offer(4, true);  // the fourth would fill a batch, and be the last, if it was stored
  EXPECT_EQ(Sent(), SentBatches{});
}

TEST_F(RequesterOffer, KeepsTheLowThirtyTwoBitsOfTheIndex) {
  Make(3, 256);
  m_requester->m_nextFingerprint.store((std::uint64_t{7} << 32U) + 2);
  m_requester->AddFingerprint(26, false);
  const std::uint64_t next = (std::uint64_t{7} << 32U) + 3;
  EXPECT_EQ(Written(), (Lines{OfferedLine(26), StoredLine(26, 2), CheckLine(next, 0, false, 0)}));
  EXPECT_EQ(m_requester->m_fingerprints[2], 26U);
}

TEST_F(RequesterBatches, SendNothingBeforeTheLastSlotIsFilled) {
  Make(1024, 256);
  Offer(255);
  EXPECT_EQ(Sent(), SentBatches{});
  EXPECT_EQ(LastSent(), 0U);
}

TEST_F(RequesterBatches, AreSentWhenTheLastSlotIsFilled) {
  Make(1024, 256);
  Offer(255);
  Written();
  Offer(1);
  EXPECT_EQ(Sent(), (SentBatches{Batch(0, 256)}));
  EXPECT_EQ(LastSent(), 256U);
  EXPECT_EQ(Written(), (Lines{OfferedLine(1255), StoredLine(1255, 255), CheckLine(256, 0, false, 0),
                              SendLine(255, 256, 0, 0, false)}));
}

TEST_F(RequesterBatches, FollowOneAnother) {
  Make(1024, 256);
  Offer(768);
  EXPECT_EQ(Sent(), (SentBatches{Batch(0, 256), Batch(256, 256), Batch(512, 256)}));
  EXPECT_EQ(LastSent(), 768U);
}

TEST_F(RequesterBatches, OfOneAreSentAtOnce) {
  Make(4, 1);
  Offer(3);
  EXPECT_EQ(Sent(), (SentBatches{Batch(0, 1), Batch(1, 1), Batch(2, 1)}));
}

TEST_F(RequesterBatches, WaitForTheDatasetsCompletion) {
  Make(1024, 256);
  CountBlocks(10);
  Offer(10);
  EXPECT_EQ(Sent(), SentBatches{});
  Written();
  m_requester->CheckIfReadyToSend(true);
  EXPECT_EQ(Sent(), (SentBatches{Batch(0, 10)}));
  EXPECT_EQ(LastSent(), 10U);
  EXPECT_EQ(Written(), (Lines{CheckLine(10, 10, true, 0), SendLine(9, 256, 0, 10, true)}));
}

TEST_F(RequesterBatches, OfACompleteDatasetLeaveWithItsLastFingerprint) {
  Make(1024, 256);
  CountBlocks(10);
  Offer(9, true);
  EXPECT_EQ(Sent(), SentBatches{});
  Offer(1, true);
  EXPECT_EQ(Sent(), (SentBatches{Batch(0, 10)}));
}

TEST_F(RequesterBatches, OfAnIncompleteDatasetDoNotLeaveWithItsLastFingerprint) {
  Make(1024, 256);
  CountBlocks(10);
  Offer(10, false);
  m_requester->CheckIfReadyToSend(false);
  EXPECT_EQ(Sent(), SentBatches{});
}

TEST_F(RequesterBatches, DoNotLeaveWhileBlocksAreOutstanding) {
  Make(1024, 256);
  CountBlocks(11);
  Offer(10);
  m_requester->CheckIfReadyToSend(true);
  EXPECT_EQ(Sent(), SentBatches{});
}

TEST_F(RequesterBatches, DoNotLeaveWhenMoreArrivedThanWereCounted) {
  Make(1024, 256);
  CountBlocks(9);
  Offer(10);
  m_requester->CheckIfReadyToSend(true);
  EXPECT_EQ(Sent(), SentBatches{});
}

TEST_F(RequesterBatches, AreNotSentTwiceByAnotherCheck) {
  Make(1024, 256);
  CountBlocks(256);
  Offer(256);
  Sent();
  Written();
  m_requester->CheckIfReadyToSend(true);
  EXPECT_EQ(Sent(), SentBatches{});
  EXPECT_EQ(Written(), (Lines{CheckLine(256, 256, true, 256)}));
}

TEST_F(RequesterBatches, AreNotSentWhenNothingHasArrived) {
  Make(1024, 256);
  m_requester->CheckIfReadyToSend(true);
  EXPECT_EQ(Sent(), SentBatches{});
  EXPECT_EQ(
      Written(),
      (Lines{"I FingerprintRequester::CheckIfReadyToSend() N: 5 m_nextFingerprint: 0 fpIdx: "
             "18446744073709551615 totalFPs 0 isComplete true m_lastFpIdxSent 0 bucket size "}));
}

TEST_F(RequesterBatches, OfAShortEndLogTheFullLength) {
  Make(1024, 256);
  CountBlocks(300);
  Offer(300);
  Sent();
  Written();
  m_requester->CheckIfReadyToSend(true);
  EXPECT_EQ(Sent(), (SentBatches{Batch(256, 44)}));
  EXPECT_EQ(Written(), (Lines{CheckLine(300, 300, true, 256), SendLine(299, 256, 256, 300, true)}));
}

TEST_F(RequesterBatches, StartAgainAtTheirBeginningAfterAShortOne) {
  Make(1024, 256);
  CountBlocks(2);
  Offer(2, true);
  CountBlocks(1);
  Offer(1, true);
  EXPECT_EQ(Sent(), (SentBatches{Batch(0, 2), Batch(0, 3)}));
  Offer(253, false);
  EXPECT_EQ(Sent(), (SentBatches{Batch(0, 256)}));
}

TEST_F(RequesterBatches, AreLoggedAlikeUnderAnotherLocale) {
  const GroupingLocale grouping;
  m_requester = std::make_unique<FingerprintRequester>(Keeper(), kN, 2048 * kBlock, 1024);
  EXPECT_EQ(Written(), (Lines{"I FingerprintRequester::FingerprintRequester() maxDatasetSize "
                              "8388608 m_maxNumBlocks 2048 m_batchSize 1024"}));
  Offer(1023);
  Written();
  m_requester->AddFingerprint(0x123456789abcdef0, true);
  EXPECT_EQ(Written(), (Lines{OfferedLine(0x123456789abcdef0), StoredLine(0x123456789abcdef0, 1023),
                              CheckLine(1024, 0, true, 0), SendLine(1023, 1024, 0, 0, true)}));
}

TEST_F(RequesterOfADataset, SendsTheLastBatchWhenTheDatasetIsComplete) {
  const auto ds = ResyncDs(kN);
  ds->InitFingerprintRequester(Keeper());
  for (int i = 0; i < 10; ++i) ds->IncTotal4KBlocks();
  for (std::uint64_t i = 0; i < 10; ++i) ds->SendFingerprint4Match(1000 + i);
  EXPECT_EQ(Sent(), SentBatches{});
  ds->SetComplete();
  EXPECT_EQ(Sent(), (SentBatches{Batch(0, 10)}));
}

TEST_F(RequesterOfADataset, DoesNotCountBlocksFromBeforeItsTime) {
  const auto ds = ResyncDs(kN);
  ds->IncTotal4KBlocks();
  ds->InitFingerprintRequester(Keeper());
  ds->IncTotal4KBlocks();
  ds->IncTotal4KBlocks();
  EXPECT_EQ(ds->m_foRequester->m_totalFPs.load(), 2U);
  EXPECT_EQ(ds->m_total4KBlocks, 3U);
}

TEST_F(RequesterOfADataset, WithoutACapacityStoresOneFingerprint) {
  Dataset ds(kN, {{Volume(1), 0, 1 << 20}}, 0);
  ds.InitFingerprintRequester(Keeper());
  Written();
  ds.SendFingerprint4Match(26);
  ds.SendFingerprint4Match(27);
  EXPECT_EQ(Written(), (Lines{OfferedLine(26), StoredLine(26, 0), CheckLine(1, 0, false, 0),
                              OfferedLine(27), RefusedLine(1, 0)}));
}

TEST_F(RequesterOfADataset, BatchesBy256) {
  const auto ds = ResyncDs(kN);
  ds->InitFingerprintRequester(Keeper());
  for (std::uint64_t i = 0; i < 256; ++i) ds->SendFingerprint4Match(1000 + i);
  EXPECT_EQ(Sent(), (SentBatches{Batch(0, 256)}));
}

}  // namespace
