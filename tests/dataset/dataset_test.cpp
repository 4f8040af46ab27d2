// SPDX-License-Identifier: Apache-2.0
// Goal: what a dataset is after its construction, what it says of itself, and its flags, callbacks
// and timestamps. Method: both constructors with plain arguments; members are read directly, and
// every operation's complete list of records is compared.
#include "penstock/dataset.h"

#include <cstdio>
#include <ctime>
#include <limits>
#include <type_traits>

#include "tests/dataset/dataset_fixture.h"

namespace {

constexpr std::uint64_t kDatasetMax = std::numeric_limits<std::uint64_t>::max();

static_assert(!std::is_copy_constructible_v<Dataset> && !std::is_copy_assignable_v<Dataset>);
static_assert(std::has_virtual_destructor_v<Dataset>);
static_assert(std::is_base_of_v<std::enable_shared_from_this<Dataset>, Dataset>);
static_assert(std::is_same_v<decltype(std::declval<Dataset&>().GetVolIdx()),
                             std::pair<std::unordered_map<UuidT, std::uint8_t>&, std::uint8_t&>>);

class NormalConstructor : public DatasetTest {};
class ResyncConstructor : public DatasetTest {};
class DatasetFacts : public DatasetTest {};
class DatasetFlags : public DatasetTest {};
class DatasetCallbacks : public DatasetTest {};
class DatasetTimestamp : public DatasetTest {};

// What both constructors leave in the members that no argument sets.
void ExpectFresh(const Dataset& ds) {
  EXPECT_EQ(ds.m_compressedDataNum.load(), 0U);
  EXPECT_FALSE(ds.m_newBufCb);
  EXPECT_FALSE(ds.m_dsReceivedCb);
  EXPECT_FALSE(ds.m_dsFinalizedCb);
  EXPECT_FALSE(ds.m_xmitCb);
  EXPECT_TRUE(ds.m_coalescers.empty());
  EXPECT_TRUE(ds.m_compressedBufs.empty());
  EXPECT_TRUE(ds.m_finalizedBufs.empty());
  EXPECT_TRUE(ds.m_localFingerprints.empty());
  EXPECT_TRUE(ds.m_remoteFingerprints.empty());
  EXPECT_EQ(ds.m_total_added, 0U);
  EXPECT_EQ(ds.m_xmitBuffersSize, 0U);
  EXPECT_EQ(ds.m_origBuffersSize, 0U);
  EXPECT_EQ(ds.m_hasBuffers, 0);
  EXPECT_TRUE(ds.m_waitForNext);
  EXPECT_FALSE(ds.m_applConsistentSnapshot);
  EXPECT_EQ(ds.m_dsTimestamp, 0U);
  EXPECT_FALSE(ds.m_initialSyncComplete);
  EXPECT_TRUE(ds.m_recvNotifyEnabled);
  EXPECT_TRUE(ds.m_volIdx.empty());
  EXPECT_EQ(ds.m_nextVolIdx, 0U);
  EXPECT_EQ(ds.m_foRequester, nullptr);
  EXPECT_EQ(ds.m_total4KBlocks, 0U);
  EXPECT_EQ(ds.m_done4KBlocks, 0U);
  EXPECT_FALSE(ds.m_complete.load());
  EXPECT_EQ(ds.m_compressStarted.load(), 0U);
}

TEST_F(NormalConstructor, WritesOneRecordUnderItsEstablishedName) {
  const Dataset ds(7, true, 100, 5);
  EXPECT_EQ(Log(), (Lines{"I Dataset() N: 7 m_hasBuffers: 0"}));
}

TEST_F(NormalConstructor, WritesTheLargestNumberWhole) {
  const Dataset ds(kDatasetMax, false, 0, 0);
  EXPECT_EQ(Log(), (Lines{"I Dataset() N: 18446744073709551615 m_hasBuffers: 0"}));
}

TEST_F(NormalConstructor, KeepsItsArguments) {
  const Dataset ds(7, true, 100, 5);
  EXPECT_EQ(ds.m_dsNum, 7U);
  EXPECT_TRUE(ds.m_isNormal);
  EXPECT_EQ(ds.m_max_capacity, 100U);
  EXPECT_EQ(ds.m_userParam, 5U);
  EXPECT_EQ(ds.m_dsType, 1U);
  EXPECT_TRUE(ds.m_ranges.empty());
  ExpectFresh(ds);
}

TEST_F(ResyncConstructor, WritesTheRangesOfItsArgumentInOrder) {
  const Dataset ds(7, {{Volume(1), 4096, 8192}, {Volume(2), 0xabcdef, kDatasetMax}}, 100);
  EXPECT_EQ(Log(),
            (Lines{"I Dataset::Dataset() N: 7 ["
                   "v: 00000000-0000-0000-0000-000000000001 o: 0x1000 l: 8192, "
                   "v: 00000000-0000-0000-0000-000000000002 o: 0xabcdef l: 18446744073709551615, "
                   "] m_hasBuffers: 0"}));
}

TEST_F(ResyncConstructor, WritesThePrefixOfAnOffsetOfZeroToo) {
  const Dataset ds(7, {{Volume(1), 0, 10}}, 100);
  EXPECT_EQ(Log(), (Lines{"I Dataset::Dataset() N: 7 ["
                          "v: 00000000-0000-0000-0000-000000000001 o: 0x0 l: 10, "
                          "] m_hasBuffers: 0"}));
}

TEST_F(ResyncConstructor, WritesEmptyBracketsForNoRanges) {
  const Dataset ds(7, std::vector<FingerprintRange>{}, 100);
  EXPECT_EQ(Log(), (Lines{"I Dataset::Dataset() N: 7 [] m_hasBuffers: 0"}));
  EXPECT_TRUE(ds.m_ranges.empty());
}

TEST_F(ResyncConstructor, WritesEveryRangeButKeepsTheFirstOfAVolume) {
  const Dataset ds(7, {{Volume(1), 4096, 8192}, {Volume(1), 0, 16}}, 100);
  EXPECT_EQ(Log(), (Lines{"I Dataset::Dataset() N: 7 ["
                          "v: 00000000-0000-0000-0000-000000000001 o: 0x1000 l: 8192, "
                          "v: 00000000-0000-0000-0000-000000000001 o: 0x0 l: 16, "
                          "] m_hasBuffers: 0"}));
  ASSERT_EQ(ds.m_ranges.size(), 1U);
  EXPECT_EQ(ds.m_ranges.begin()->offset, 4096U);
  EXPECT_EQ(ds.m_ranges.begin()->length, 8192U);
}

TEST_F(ResyncConstructor, KeepsItsArguments) {
  const Dataset ds(7, {{Volume(1), 4096, 8192}, {Volume(2), 0, 16}}, 100);
  EXPECT_EQ(ds.m_dsNum, 7U);
  EXPECT_FALSE(ds.m_isNormal);
  EXPECT_EQ(ds.m_max_capacity, 100U);
  EXPECT_EQ(ds.m_userParam, 0U);
  EXPECT_EQ(ds.m_dsType, 3U);
  EXPECT_EQ(ds.m_ranges.size(), 2U);
  EXPECT_FALSE(ds.m_reserved);
  ExpectFresh(ds);
}

TEST_F(DatasetFacts, OfANormalDataset) {
  UseNormal();
  EXPECT_EQ(m_ds->GetN(), 7U);
  EXPECT_TRUE(m_ds->IsNormal());
  EXPECT_FALSE(m_ds->IsFingerprinted());
  EXPECT_EQ(m_ds->GetDsType(), 0U);
}

TEST_F(DatasetFacts, OfADatasetOfTheNormalConstructorThatIsNotNormal) {
  Use(std::make_shared<Dataset>(7, false, 0U, 0U));
  EXPECT_FALSE(m_ds->IsNormal());
  EXPECT_FALSE(m_ds->IsFingerprinted());
  EXPECT_EQ(m_ds->GetDsType(), 1U);
}

TEST_F(DatasetFacts, OfAResyncDataset) {
  UseResync();
  EXPECT_FALSE(m_ds->IsNormal());
  EXPECT_TRUE(m_ds->IsFingerprinted());
  EXPECT_EQ(m_ds->GetDsType(), 2U);
}

TEST_F(DatasetFacts, AnOffloadedDatasetIsNotFingerprinted) {
  Use(std::make_shared<Dataset>(7, false, 0U, 0U));
  m_ds->m_dsType = 2;
  EXPECT_FALSE(m_ds->IsFingerprinted());
  EXPECT_EQ(m_ds->GetDsType(), 1U);
}

TEST_F(DatasetFacts, AnswerWithTheMembers) {
  UseNormal();
  m_ds->m_compressedDataNum = 11;
  m_ds->m_total_added = 12;
  m_ds->m_xmitBuffersSize = 13;
  m_ds->m_origBuffersSize = 14;
  m_ds->m_dsTimestamp = 15;
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 11U);
  EXPECT_EQ(m_ds->GetBuffersSize(), 12U);
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 13U);
  EXPECT_EQ(m_ds->GetOrigBuffersSize(), 14U);
  EXPECT_EQ(m_ds->GetDsTimestamp(), 15U);
  EXPECT_EQ(m_ds->GetTotalBuffers(), 0U);
  EXPECT_EQ(Log(), Lines{});
}

TEST_F(DatasetFlags, ChangeOnceInOneDirectionAndSilently) {
  UseNormal();
  EXPECT_TRUE(m_ds->GetWaitForNext());
  EXPECT_FALSE(m_ds->GetApplConsistentSnapshot());
  EXPECT_FALSE(m_ds->GetInitialSyncComplete());
  for (int times = 0; times < 2; ++times) {
    m_ds->MarkNoWaitForNext();
    EXPECT_FALSE(m_ds->GetWaitForNext());
    m_ds->SetApplConsistentSnapshot();
    EXPECT_TRUE(m_ds->GetApplConsistentSnapshot());
    m_ds->SetInitialSyncComplete();
    EXPECT_TRUE(m_ds->GetInitialSyncComplete());
  }
  EXPECT_EQ(Log(), Lines{});
}

TEST_F(DatasetFlags, EachSetterSetsItsOwn) {
  UseNormal();
  m_ds->SetApplConsistentSnapshot();
  EXPECT_FALSE(m_ds->GetInitialSyncComplete());
  EXPECT_TRUE(m_ds->GetWaitForNext());
  UseNormal();
  m_ds->SetInitialSyncComplete();
  EXPECT_FALSE(m_ds->GetApplConsistentSnapshot());
  EXPECT_TRUE(m_ds->GetWaitForNext());
}

TEST_F(DatasetFlags, SetCompleteWithoutRequesterIsSilent) {
  UseNormal();
  m_ds->SetComplete();
  EXPECT_TRUE(m_ds->m_complete.load());
  m_ds->SetComplete();
  EXPECT_TRUE(m_ds->m_complete.load());
  EXPECT_EQ(Log(), Lines{});
}

TEST_F(DatasetFlags, BlocksAreCountedWithoutRequesterToo) {
  UseNormal();
  m_ds->IncTotal4KBlocks();
  m_ds->IncTotal4KBlocks();
  EXPECT_EQ(m_ds->m_total4KBlocks, 2U);
  EXPECT_EQ(m_ds->m_done4KBlocks, 0U);
  EXPECT_EQ(Log(), Lines{});
}

TEST_F(DatasetCallbacks, ALaterOneReplacesTheEarlier) {
  UseNormal();
  m_ds->SetXmitCb([held = Traced("first")] { Mark("first"); });
  m_ds->SetXmitCb([held = Traced("second")] { Mark("second"); });
  m_ds->m_xmitCb();
  EXPECT_EQ(Log(), (Lines{"? host released first", "? host second"}));
}

TEST_F(DatasetCallbacks, AnEmptyOneRemovesTheEarlier) {
  UseNormal();
  m_ds->SetNewBufCb([](auto, auto&) { Mark("new"); });
  m_ds->SetNewBufCb({});
  m_ds->SetDSFinalizedCb([](auto, auto&) { Mark("finalized"); });
  m_ds->SetDSFinalizedCb({});
  m_ds->SetDSReceivedCb([](auto, auto&) { Mark("received"); });
  m_ds->SetDSReceivedCb({});
  m_ds->SetXmitCb([] { Mark("xmit"); });
  m_ds->SetXmitCb({});
  EXPECT_FALSE(m_ds->m_newBufCb);
  EXPECT_FALSE(m_ds->m_dsFinalizedCb);
  EXPECT_FALSE(m_ds->m_dsReceivedCb);
  EXPECT_FALSE(m_ds->m_xmitCb);
  EXPECT_EQ(Log(), Lines{});
}

TEST_F(DatasetCallbacks, EachSetterSetsItsOwnMember) {
  UseNormal();
  InternalData buf = Buf(1, 0, 1);
  m_ds->SetNewBufCb([](auto, auto&) { Mark("new"); });
  m_ds->SetDSReceivedCb([](auto, auto&) { Mark("received"); });
  m_ds->SetDSFinalizedCb([](auto, auto&) { Mark("finalized"); });
  m_ds->SetXmitCb([] { Mark("xmit"); });
  m_ds->m_newBufCb(m_ds, buf);
  m_ds->m_dsReceivedCb(m_ds, buf);
  m_ds->m_dsFinalizedCb(m_ds, buf);
  m_ds->m_xmitCb();
  EXPECT_EQ(Log(), (Lines{"? host new", "? host received", "? host finalized", "? host xmit"}));
}

TEST_F(DatasetTimestamp, IsWrittenInSecondsWithSixDecimals) {
  UseNormal();
  m_ds->SetDsTimestamp(1500);
  EXPECT_EQ(m_ds->GetDsTimestamp(), 1500U);
  EXPECT_EQ(Log(), (Lines{"I Dataset::SetDsTimestamp() DS: setting Ds timestamp 1.500000 secs"}));
}

TEST_F(DatasetTimestamp, IsFixedForSmallAndLargeValues) {
  UseNormal();
  m_ds->SetDsTimestamp(0);
  m_ds->SetDsTimestamp(1);
  m_ds->SetDsTimestamp(1700000000123);
  m_ds->SetDsTimestamp(kDatasetMax);
  EXPECT_EQ(Log(),
            (Lines{"I Dataset::SetDsTimestamp() DS: setting Ds timestamp 0.000000 secs",
                   "I Dataset::SetDsTimestamp() DS: setting Ds timestamp 0.001000 secs",
                   "I Dataset::SetDsTimestamp() DS: setting Ds timestamp 1700000000.123000 secs",
                   "I Dataset::SetDsTimestamp() DS: setting Ds timestamp "
                   "18446744073709552.000000 secs"}));
  EXPECT_EQ(m_ds->GetDsTimestamp(), kDatasetMax);
}

TEST_F(DatasetTimestamp, ComesFromTheClockWithoutAnArgument) {
  UseNormal();
  const std::uint64_t before = Dataset::GetCurTimestamp();
  m_ds->SetDsTimestamp();
  const std::uint64_t after = Dataset::GetCurTimestamp();
  EXPECT_LE(before, m_ds->GetDsTimestamp());
  EXPECT_LE(m_ds->GetDsTimestamp(), after);
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.6f",
                static_cast<double>(m_ds->GetDsTimestamp()) / 1000.0);
  EXPECT_EQ(Log(), (Lines{"I Dataset::SetDsTimestamp() DS: setting Ds timestamp from clock " +
                          std::string(seconds) + " secs"}));
}

TEST_F(DatasetTimestamp, OfTheClockIsInMillisecondsSinceTheEpoch) {
  const auto seconds = static_cast<std::uint64_t>(std::time(nullptr));
  const std::uint64_t now = Dataset::GetCurTimestamp();
  EXPECT_GE(now, (seconds - 2) * 1000);
  EXPECT_LE(now, (seconds + 600) * 1000);
}

}  // namespace
