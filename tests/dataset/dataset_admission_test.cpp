// SPDX-License-Identifier: Apache-2.0
// Goal: which buffers a dataset admits, what an admission changes, and that a refusal changes
// nothing. Method: buffers at and one byte beyond every limit; the complete list of records of each
// call, callbacks included, is compared.
#include <limits>

#include "tests/dataset/dataset_fixture.h"

namespace {

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();

class AddBuffer : public DatasetTest {
 protected:
  // A resync dataset with one range, at 4096, of 8192 bytes.
  void UseOneRange() {
    const std::vector<FingerprintRange> ranges{{Volume(1), 4096, 8192}};
    Use(std::make_shared<Dataset>(7, ranges, 0U));
  }

  void ExpectUntouched() {
    EXPECT_TRUE(m_ds->m_volIdx.empty());
    EXPECT_EQ(m_ds->m_nextVolIdx, 0U);
    EXPECT_TRUE(m_ds->m_coalescers.empty());
    EXPECT_EQ(m_ds->GetBuffersSize(), 0U);
    EXPECT_EQ(m_ds->GetOrigBuffersSize(), 0U);
  }
};

class VerifyCapacity : public DatasetTest {};
class VerifyBufferRanges : public DatasetTest {
 protected:
  DS_ERROR Verify(const FingerprintRange& range, std::uint64_t offset, std::uint32_t length) {
    const std::vector<FingerprintRange> ranges{range};
    Use(std::make_shared<Dataset>(7, ranges, 0U));
    return m_ds->VerifyBufferRanges(Buf(1, offset, length));
  }
};

TEST_F(AddBuffer, WritesOneRecordForAnAdmittedBuffer) {
  UseNormal();
  EXPECT_EQ(Add(Buf(1, 4096, 512), 300), DS_ERROR_OK);
  EXPECT_EQ(Log(), (Lines{"D Dataset::AddBuffer() N: 7 adding " + BufText(1, "0x1000", "512") +
                          " origDataSize: 300"}));
}

TEST_F(AddBuffer, CountsTheBufferAndItsOriginalSize) {
  UseNormal();
  Add(Buf(1, 0, 512), 300);
  Add(Buf(1, 512, 100), 40);
  EXPECT_EQ(m_ds->GetBuffersSize(), 612U);
  EXPECT_EQ(m_ds->GetOrigBuffersSize(), 340U);
  EXPECT_EQ(m_ds->GetTotalBuffers(), 2U);
  EXPECT_EQ(m_ds->GetXmitBuffersSize(), 0U);
  EXPECT_EQ(m_ds->GetCompressedDataNum(), 0U);
}

TEST_F(AddBuffer, HandsTheBufferToTheCoalescerOfItsVolume) {
  UseNormal();
  InternalData buf = BufWithData(1, 0, 8);
  buf.opaque = 99;
  Add(buf);
  Add(Buf(2, 0, 8));
  ASSERT_EQ(m_ds->m_coalescers.size(), 2U);
  const Coalescer& coalescer = *m_ds->m_coalescers.at(Volume(1));
  ASSERT_EQ(coalescer.Count(), 1U);
  EXPECT_TRUE(coalescer.Pending());
  const InternalData& held = *coalescer.Buffers().begin();
  EXPECT_TRUE(BufInfoEqual{}(held, buf));
  EXPECT_EQ(held.data, buf.data);
  EXPECT_EQ(held.opaque, 99U);
}

TEST_F(AddBuffer, OfAFoldedBufferCountsItsBytesTwiceButItsDescriptorOnce) {
  UseNormal();
  Add(Buf(1, 0, 512));
  Add(Buf(1, 0, 512));
  EXPECT_EQ(m_ds->GetBuffersSize(), 1024U);
  EXPECT_EQ(m_ds->GetTotalBuffers(), 1U);
}

TEST_F(AddBuffer, SumsTheBuffersOfAllVolumes) {
  UseNormal();
  Admit({Buf(1, 0, 1), Buf(2, 0, 1), Buf(2, 8, 1), Buf(3, 0, 1)});
  EXPECT_EQ(m_ds->GetTotalBuffers(), 4U);
}

TEST_F(AddBuffer, GivesEachNewVolumeTheNextIndex) {
  UseNormal();
  Admit({Buf(9, 0, 1), Buf(4, 0, 1), Buf(9, 8, 1), Buf(6, 0, 1), Buf(4, 8, 1)});
  const auto [indexes, next] = m_ds->GetVolIdx();
  EXPECT_EQ(indexes, (std::unordered_map<UuidT, std::uint8_t>{{Volume(9), std::uint8_t{0}},
                                                              {Volume(4), std::uint8_t{1}},
                                                              {Volume(6), std::uint8_t{2}}}));
  EXPECT_EQ(next, 3U);
}

TEST_F(AddBuffer, StartsFromWhatTheHostWroteIntoTheVolumeIndex) {
  UseNormal();
  m_ds->GetVolIdx().first[Volume(1)] = 40;
  m_ds->GetVolIdx().second = 41;
  Admit({Buf(1, 0, 1), Buf(2, 0, 1)});
  EXPECT_EQ(m_ds->m_volIdx.at(Volume(1)), 40U);
  EXPECT_EQ(m_ds->m_volIdx.at(Volume(2)), 41U);
  EXPECT_EQ(m_ds->m_nextVolIdx, 42U);
}

TEST_F(AddBuffer, GivesThe257thVolumeTheIndexZeroAgain) {
  UseNormal();
  UuidT volume;
  for (unsigned i = 0; i <= 256; ++i) {
    volume.bytes[0] = static_cast<std::uint8_t>(i & 0xffU);
    volume.bytes[1] = static_cast<std::uint8_t>(i >> 8U);
    ASSERT_EQ(Add(InternalData{volume, 0, 1, nullptr, 0}), DS_ERROR_OK);
    EXPECT_EQ(m_ds->GetVolIdx().first.at(volume), i & 0xffU);
  }
  EXPECT_EQ(m_ds->m_volIdx.size(), 257U);
  EXPECT_EQ(m_ds->m_nextVolIdx, 1U);
  EXPECT_EQ(m_ds->GetTotalBuffers(), 257U);
}

TEST_F(AddBuffer, AcceptsABufferThatFillsTheCapacity) {
  UseNormal(100);
  Admit({Buf(1, 0, 60)});
  EXPECT_EQ(Add(Buf(1, 60, 40)), DS_ERROR_OK);
  EXPECT_EQ(m_ds->GetBuffersSize(), 100U);
}

TEST_F(AddBuffer, RefusesOneByteBeyondTheCapacity) {
  UseNormal(100);
  Admit({Buf(1, 0, 60)});
  EXPECT_EQ(Add(Buf(1, 60, 41), 5), DS_ERROR_OUT_OF_RANGE);
  EXPECT_EQ(
      Log(),
      (Lines{"D Dataset::AddBuffer() N: 7 adding " + BufText(1, "0x3c", "41") + " origDataSize: 5",
             "E Dataset::VerifyCapacity() failed to add excessive data to N: 7 "
             "m_total_added:60 m_max_capacity:100 ",
             "E Dataset::AddBuffer() Capacity error N: 7 data " + BufText(1, "0x3c", "41")}));
  EXPECT_EQ(m_ds->GetBuffersSize(), 60U);
  EXPECT_EQ(m_ds->GetOrigBuffersSize(), 0U);
  EXPECT_EQ(m_ds->GetTotalBuffers(), 1U);
}

TEST_F(AddBuffer, RefusedForTheCapacityLeavesEverythingUntouched) {
  UseNormal(100);
  m_ds->SetNewBufCb([](auto, auto&) { Mark("new"); });
  EXPECT_EQ(Add(Buf(1, 0, 101), 5), DS_ERROR_OUT_OF_RANGE);
  ExpectUntouched();
  EXPECT_THAT(Log(), testing::Not(testing::Contains("? host new")));
}

TEST_F(AddBuffer, AcceptsAnySizeWithoutCapacity) {
  UseNormal(0);
  EXPECT_EQ(Add(Buf(1, 0, std::numeric_limits<std::uint32_t>::max())), DS_ERROR_OK);
  EXPECT_EQ(Add(Buf(2, 0, std::numeric_limits<std::uint32_t>::max())), DS_ERROR_OK);
  EXPECT_EQ(m_ds->GetBuffersSize(), std::uint64_t{2} * 4294967295U);
}

TEST_F(AddBuffer, OfANormalDatasetChecksNoRange) {
  UseNormal();
  m_ds->m_ranges.insert({Volume(1), 4096, 16});
  EXPECT_EQ(Add(Buf(1, 0, 8)), DS_ERROR_OK);
  EXPECT_EQ(Add(Buf(2, 0, 8)), DS_ERROR_OK);
}

TEST_F(AddBuffer, OfAnOffloadedDatasetChecksNoRange) {
  UseNormal();
  m_ds->m_dsType = 2;
  m_ds->m_ranges.insert({Volume(1), 4096, 16});
  EXPECT_EQ(Add(Buf(1, 0, 8)), DS_ERROR_OK);
}

TEST_F(AddBuffer, AcceptsAResyncBufferThatFillsItsRange) {
  UseOneRange();
  EXPECT_EQ(Add(Buf(1, 4096, 8192)), DS_ERROR_OK);
  EXPECT_EQ(Log(), (Lines{"D Dataset::AddBuffer() N: 7 adding " + BufText(1, "0x1000", "8192") +
                          " origDataSize: 0"}));
}

TEST_F(AddBuffer, RefusesAResyncBufferOneByteBeforeItsRange) {
  UseOneRange();
  EXPECT_EQ(Add(Buf(1, 4095, 10)), DS_ERROR_OUT_OF_RANGE);
  EXPECT_EQ(Log(), (Lines{"D Dataset::AddBuffer() N: 7 adding " + BufText(1, "0xfff", "10") +
                              " origDataSize: 0",
                          "I Dataset::VerifyBufferRanges() resync buffer out of range  N: 7 " +
                              BufText(1, "0xfff", "10") + " [4096, 8192]"}));
  ExpectUntouched();
}

TEST_F(AddBuffer, RefusesAResyncBufferOneByteBehindItsRange) {
  UseOneRange();
  EXPECT_EQ(Add(Buf(1, 8192, 4096)), DS_ERROR_OK);
  Log();
  EXPECT_EQ(Add(Buf(1, 8192, 4097)), DS_ERROR_OUT_OF_RANGE);
  EXPECT_EQ(Log(), (Lines{"D Dataset::AddBuffer() N: 7 adding " + BufText(1, "0x2000", "4097") +
                              " origDataSize: 0",
                          "I Dataset::VerifyBufferRanges() resync buffer out of range  N: 7 " +
                              BufText(1, "0x2000", "4097") + " [4096, 8192]"}));
  EXPECT_EQ(m_ds->GetBuffersSize(), 4096U);
}

TEST_F(AddBuffer, RefusesAResyncBufferOfAnotherVolume) {
  UseOneRange();
  m_ds->SetNewBufCb([](auto, auto&) { Mark("new"); });
  EXPECT_EQ(Add(Buf(2, 4096, 10)), DS_ERROR_UNKNOWN_VOLUME);
  EXPECT_EQ(Log(), (Lines{"D Dataset::AddBuffer() N: 7 adding " + BufText(2, "0x1000", "10") +
                              " origDataSize: 0",
                          "I Dataset::VerifyBufferRanges() resync buffer for unknown volume"}));
  ExpectUntouched();
}

TEST_F(AddBuffer, OfAResyncDatasetChecksTheRangeBeforeTheCapacity) {
  const std::vector<FingerprintRange> ranges{{Volume(1), 0, 8192}};
  Use(std::make_shared<Dataset>(7, ranges, 100U));
  EXPECT_EQ(Add(Buf(2, 0, 101)), DS_ERROR_UNKNOWN_VOLUME);
  Log();
  EXPECT_EQ(Add(Buf(1, 0, 101)), DS_ERROR_OUT_OF_RANGE);
  EXPECT_EQ(
      Log(),
      (Lines{"D Dataset::AddBuffer() N: 7 adding " + BufText(1, "0", "101") + " origDataSize: 0",
             "E Dataset::VerifyCapacity() failed to add excessive data to N: 7 "
             "m_total_added:0 m_max_capacity:100 ",
             "E Dataset::AddBuffer() Capacity error N: 7 data " + BufText(1, "0", "101")}));
}

TEST_F(AddBuffer, CallsTheNewBufferCallbackLastWithTheCallersBuffer) {
  UseNormal();
  InternalData buf = Buf(1, 0, 8);
  m_ds->SetNewBufCb([&](const std::shared_ptr<Dataset>& ds, InternalData& given) {
    EXPECT_EQ(ds, m_ds);
    EXPECT_EQ(&given, &buf);
    EXPECT_EQ(ds->GetBuffersSize(), 8U);
    EXPECT_EQ(ds->GetTotalBuffers(), 1U);
    given.opaque = 5;
    Mark("new");
  });
  EXPECT_EQ(m_ds->AddBuffer(buf, 3), DS_ERROR_OK);
  EXPECT_EQ(buf.opaque, 5U);
  EXPECT_EQ(Log(), (Lines{"D Dataset::AddBuffer() N: 7 adding " + BufText(1, "0", "8") +
                              " origDataSize: 3",
                          "? host new"}));
}

TEST_F(AddBuffer, StaysAdmittedWhenTheNewBufferCallbackThrows) {
  UseNormal();
  m_ds->SetNewBufCb([](auto, auto&) { throw HostFailure(); });
  EXPECT_THROW(Add(Buf(1, 0, 8), 3), HostFailure);
  EXPECT_EQ(m_ds->GetBuffersSize(), 8U);
  EXPECT_EQ(m_ds->GetOrigBuffersSize(), 3U);
  EXPECT_EQ(m_ds->GetTotalBuffers(), 1U);
  EXPECT_EQ(m_ds->m_volIdx.size(), 1U);
  EXPECT_EQ(m_ds->m_nextVolIdx, 1U);
}

TEST_F(AddBuffer, WithACallbackRaisesBadWeakPtrWithoutSharedOwner) {
  Dataset ds(7, true, 0, 0);
  InternalData buf = Buf(1, 0, 8);
  EXPECT_EQ(ds.AddBuffer(buf, 0), DS_ERROR_OK);
  ds.SetNewBufCb([](auto, auto&) { Mark("new"); });
  Log();
  InternalData next = Buf(1, 8, 8);
  EXPECT_THROW(ds.AddBuffer(next, 0), std::bad_weak_ptr);
  EXPECT_EQ(Log(), (Lines{"D Dataset::AddBuffer() N: 7 adding " + BufText(1, "0x8", "8") +
                          " origDataSize: 0"}));
  EXPECT_EQ(ds.GetBuffersSize(), 16U);
}

TEST_F(VerifyCapacity, IsSilentWhenThereIsRoom) {
  UseNormal(100);
  EXPECT_EQ(m_ds->VerifyCapacity(Buf(1, 0, 100)), DS_ERROR_OK);
  EXPECT_EQ(m_ds->GetBuffersSize(), 0U);
  EXPECT_EQ(Log(), Lines{});
}

TEST_F(VerifyCapacity, EndsItsRecordWithABlank) {
  UseNormal(100);
  EXPECT_EQ(m_ds->VerifyCapacity(Buf(1, 0, 101)), DS_ERROR_OUT_OF_RANGE);
  EXPECT_EQ(Log(), (Lines{"E Dataset::VerifyCapacity() failed to add excessive data to N: 7 "
                          "m_total_added:0 m_max_capacity:100 "}));
}

TEST_F(VerifyCapacity, AddsInWrapping64Bits) {
  UseNormal(100);
  m_ds->m_total_added = kMax;
  EXPECT_EQ(m_ds->VerifyCapacity(Buf(1, 0, 0)), DS_ERROR_OUT_OF_RANGE);
  EXPECT_EQ(m_ds->VerifyCapacity(Buf(1, 0, 101)), DS_ERROR_OK);
  EXPECT_EQ(m_ds->VerifyCapacity(Buf(1, 0, 102)), DS_ERROR_OUT_OF_RANGE);
}

TEST_F(VerifyCapacity, LooksAtNothingWithoutCapacity) {
  UseNormal(0);
  m_ds->m_total_added = kMax;
  EXPECT_EQ(m_ds->VerifyCapacity(Buf(1, 0, 0)), DS_ERROR_OK);
  EXPECT_EQ(Log(), Lines{});
}

TEST_F(VerifyBufferRanges, AcceptsAnEmptyBufferAtBothEdgesOfTheRange) {
  EXPECT_EQ(Verify({Volume(1), 4096, 8192}, 4096, 0), DS_ERROR_OK);
  EXPECT_EQ(Verify({Volume(1), 4096, 8192}, 12288, 0), DS_ERROR_OK);
  EXPECT_EQ(Log(), Lines{});
  EXPECT_EQ(Verify({Volume(1), 4096, 8192}, 12289, 0), DS_ERROR_OUT_OF_RANGE);
}

TEST_F(VerifyBufferRanges, LetsABufferWhoseEndWrapsIntoTheRange) {
  EXPECT_EQ(Verify({Volume(1), 0, 4096}, kMax, 1), DS_ERROR_OK);
  EXPECT_EQ(Verify({Volume(1), 0, 4096}, kMax, 4097), DS_ERROR_OK);
  EXPECT_EQ(Log(), Lines{});
  EXPECT_EQ(Verify({Volume(1), 0, 4096}, kMax, 4098), DS_ERROR_OUT_OF_RANGE);
  EXPECT_EQ(Log(), (Lines{"I Dataset::VerifyBufferRanges() resync buffer out of range  N: 7 " +
                          BufText(1, "0xffffffffffffffff", "4098") + " [0, 4096]"}));
}

TEST_F(VerifyBufferRanges, RefusesABufferBelowTheWrappedEndOfItsRange) {
  const FingerprintRange wrapped{Volume(1), kMax - 4095, 8192};  // ends at 4096
  EXPECT_EQ(Verify(wrapped, kMax - 4095, 100), DS_ERROR_OUT_OF_RANGE);
  EXPECT_EQ(Log(),
            (Lines{"I Dataset::VerifyBufferRanges() resync buffer out of range  N: 7 " +
                   BufText(1, "0xfffffffffffff000", "100") + " [18446744073709547520, 8192]"}));
  EXPECT_EQ(Verify(wrapped, kMax - 4095, 4096), DS_ERROR_OK);
  EXPECT_EQ(Verify(wrapped, kMax - 4095, 8192), DS_ERROR_OK);
  EXPECT_EQ(Verify(wrapped, kMax - 4095, 8193), DS_ERROR_OUT_OF_RANGE);
}

}  // namespace
