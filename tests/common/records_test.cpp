// SPDX-License-Identifier: Apache-2.0
// Goal: what identifies a record, how it hashes, what copies share and how it reads in a log.
// Method: hashes are computed a second time from the formula, byte by byte, and a few are pinned as
// numbers; texts are compared whole.
#include "penstock/records.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iomanip>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>

#include "tests/support/make.h"

namespace {

constexpr std::uint64_t kRecordMax64 = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint32_t kMax32 = std::numeric_limits<std::uint32_t>::max();

// The bytes 00 01 02 ... 0f.
UuidT RisingVolume() {
  UuidT volume;
  for (std::uint8_t i = 0; i < 16; ++i) volume.bytes[i] = i;
  return volume;
}

std::uint64_t Mixed(std::uint64_t seed, std::uint64_t value) {
  return seed ^ (value + 0x9e3779b97f4a7c15U + seed * 64 + seed / 4);
}

std::uint64_t LittleEndian(const UuidT& volume, std::size_t first) {
  std::uint64_t word = 0;
  for (std::size_t i = 8; i > 0; --i) word = word * 256 + volume.bytes[first + i - 1];
  return word;
}

std::uint64_t HashOf(const UuidT& volume) {
  return Mixed(Mixed(0, LittleEndian(volume, 0)), LittleEndian(volume, 8));
}

std::uint64_t HashOf(const InternalData& buf) {
  return Mixed(Mixed(Mixed(0, buf.offset), buf.length), HashOf(buf.volume));
}

using BufSet = std::unordered_set<InternalData, BufInfoHash, BufInfoEqual>;
using RangeSet = std::unordered_set<FingerprintRange, FingerprintRangeHash, FingerprintRangeEqual>;

TEST(HashCombine, MixesTheValueIntoTheSeed) {
  std::uint64_t seed = 0;
  hash_combine(seed, 1);
  EXPECT_EQ(seed, 0x9e3779b97f4a7c16U);
  hash_combine(seed, kRecordMax64);
  EXPECT_EQ(seed, Mixed(0x9e3779b97f4a7c16U, kRecordMax64));
}

TEST(VolumeHash, HasItsPinnedValues) {
  EXPECT_EQ(std::hash<UuidT>{}(UuidT{}), 0xcd94bf3ecef65c4fU);
  EXPECT_EQ(std::hash<UuidT>{}(RisingVolume()), 0x80c9eb68fc4a94b7U);
  EXPECT_EQ(std::hash<UuidT>{}(Volume(1)), 0xca94bf3ecef65c4fU);
}

TEST(BufferHash, HasItsPinnedValues) {
  EXPECT_EQ(BufInfoHash{}(InternalData{}), 0xc9f587457163df78U);
  EXPECT_EQ(BufInfoHash{}(InternalData{RisingVolume(), 4096, 512, nullptr, 0}),
            0x7a02db9b1f68e550U);
  EXPECT_EQ(BufInfoHash{}(Buf(1, kRecordMax64, kMax32)), 0xccf58a09b1632eaaU);
}

TEST(RangeHash, HasItsPinnedValues) {
  EXPECT_EQ(FingerprintRangeHash{}(FingerprintRange{}), 0x6bcc38f84e40d864U);
  EXPECT_EQ(FingerprintRangeHash{}(FingerprintRange{RisingVolume(), 0, 0}), 0x1f0165227b9510ccU);
}

TEST(Hashes, FollowTheFormulaForRandomRecords) {
  constexpr std::uint64_t kSeed = 20240501;
  SCOPED_TRACE("seed " + Text(kSeed));
  std::mt19937_64 random(kSeed);
  for (int i = 0; i < 1000; ++i) {
    InternalData buf;
    for (std::uint8_t& byte : buf.volume.bytes) byte = static_cast<std::uint8_t>(random());
    buf.offset = random();
    buf.length = static_cast<std::uint32_t>(random());
    ASSERT_EQ(std::hash<UuidT>{}(buf.volume), HashOf(buf.volume));
    ASSERT_EQ(BufInfoHash{}(buf), HashOf(buf));
    ASSERT_EQ(FingerprintRangeHash{}({buf.volume, random(), random()}),
              HashOf(buf.volume) + 0x9e3779b97f4a7c15U);
  }
}

TEST(BufferHash, MixesOffsetThenLengthThenVolume) {
  EXPECT_NE(BufInfoHash{}(Buf(1, 4096, 512)), BufInfoHash{}(Buf(1, 512, 4096)));
}

TEST(BufferIdentity, IsVolumeOffsetAndLength) {
  const BufInfoEqual equal;
  const InternalData buf = Buf(1, 4096, 512);
  EXPECT_TRUE(equal(buf, Buf(1, 4096, 512)));
  EXPECT_FALSE(equal(buf, Buf(2, 4096, 512)));
  EXPECT_FALSE(equal(buf, Buf(1, 4097, 512)));
  EXPECT_FALSE(equal(buf, Buf(1, 4096, 513)));
}

TEST(BufferIdentity, ComparesEachByteOfTheVolume) {
  for (std::size_t i = 0; i < 16; ++i) {
    InternalData other = Buf(0, 1, 2);
    other.volume.bytes[i] = 0x80;
    EXPECT_FALSE(BufInfoEqual{}(Buf(0, 1, 2), other)) << "byte " << i;
  }
}

TEST(BufferIdentity, LeavesOutDataAndOpaque) {
  InternalData other = BufWithData(1, 4096, 512);
  other.opaque = 99;
  EXPECT_TRUE(BufInfoEqual{}(Buf(1, 4096, 512), other));
  EXPECT_EQ(BufInfoHash{}(Buf(1, 4096, 512)), BufInfoHash{}(other));

  BufSet bufs{Buf(1, 4096, 512)};
  EXPECT_FALSE(bufs.insert(other).second);
  EXPECT_TRUE(bufs.contains(other));
  EXPECT_EQ(bufs.begin()->opaque, 0U);

  ResyncFingerprintsMap fingerprints{{Buf(1, 4096, 512), Print(7)}};
  EXPECT_FALSE(fingerprints.emplace(other, Print(8)).second);
  EXPECT_EQ(fingerprints.at(other).bytes[0], 7);
}

TEST(RangeIdentity, IsTheVolumeAlone) {
  const FingerprintRange first{Volume(1), 0, 4096};
  const FingerprintRange second{Volume(1), 8192, 100};
  EXPECT_TRUE(FingerprintRangeEqual{}(first, second));
  EXPECT_EQ(FingerprintRangeHash{}(first), FingerprintRangeHash{}(second));
  EXPECT_FALSE(FingerprintRangeEqual{}(first, {Volume(2), 0, 4096}));
}

TEST(RangeSet, KeepsTheFirstRangeOfAVolume) {
  RangeSet ranges;
  ranges.insert({Volume(1), 0, 4096});
  EXPECT_FALSE(ranges.insert({Volume(1), 8192, 100}).second);
  EXPECT_TRUE(ranges.insert({Volume(2), 8192, 100}).second);
  ASSERT_EQ(ranges.size(), 2U);
  EXPECT_EQ(ranges.find({Volume(1), 5, 5})->offset, 0U);
  EXPECT_EQ(ranges.find({Volume(1), 5, 5})->length, 4096U);
}

TEST(RangeSet, FindsAVolumesRangeByTheVolumeOnly) {
  const RangeSet ranges{{Volume(1), 100, 200}};
  EXPECT_EQ(ranges.find(FingerprintRange{Volume(1), 0, 0})->length, 200U);
  EXPECT_EQ(ranges.find(FingerprintRange{Volume(3), 100, 200}), ranges.end());
}

TEST(Records, AreAggregatesInTheirOrder) {
  static_assert(std::is_aggregate_v<InternalData> && std::is_aggregate_v<BufFingerprint> &&
                std::is_aggregate_v<FingerprintRange> && std::is_aggregate_v<PipeCompressedData>);
  static_assert(std::same_as<InternalData::Fingerprint, std::uint64_t>);
  static_assert(sizeof(BufFingerprint) == 20);
  const InternalData buf{Volume(1), 2, 3, nullptr, 4};
  EXPECT_EQ(buf.volume, Volume(1));
  EXPECT_EQ(buf.offset, 2U);
  EXPECT_EQ(buf.length, 3U);
  EXPECT_EQ(buf.data, nullptr);
  EXPECT_EQ(buf.opaque, 4U);
  const FingerprintRange range{Volume(5), 6, 7};
  EXPECT_EQ(range.volume, Volume(5));
  EXPECT_EQ(range.offset, 6U);
  EXPECT_EQ(range.length, 7U);
  const PipeCompressedData unit{2, false, OM_DP::MakeCompressedData(1), {{Volume(1), {buf}}}};
  EXPECT_EQ(unit.totalBufs, 2U);
  EXPECT_FALSE(unit.toXmit);
  EXPECT_EQ(unit.payload->length, 1U);
  EXPECT_EQ(unit.origBuffers.at(Volume(1)).size(), 1U);
}

TEST(Records, AreEmptyByDefault) {
  const InternalData buf;
  EXPECT_EQ(buf.volume, UuidT{});
  EXPECT_EQ(buf.offset + buf.length + buf.opaque, 0U);
  EXPECT_EQ(buf.data, nullptr);
  EXPECT_EQ(BufFingerprint{}.bytes, (std::array<std::uint8_t, 20>{}));
  const PipeCompressedData unit;
  EXPECT_EQ(unit.totalBufs, 0U);
  EXPECT_TRUE(unit.toXmit);
  EXPECT_EQ(unit.payload, nullptr);
  EXPECT_TRUE(unit.origBuffers.empty());
}

TEST(Records, ShareTheirPayloadWithTheirCopies) {
  InternalData buf = BufWithData(1, 0, 8, 0x5a);
  buf.opaque = 31;
  const InternalData copy = buf;
  EXPECT_EQ(copy.data, buf.data);
  EXPECT_EQ(copy.data.use_count(), 2);
  EXPECT_EQ(copy.data[7], 0x5a);
  EXPECT_EQ(copy.opaque, 31U);

  const PipeCompressedData unit{1, true, OM_DP::MakeCompressedData(8), {}};
  const PipeCompressedData unitCopy = unit;
  EXPECT_EQ(unitCopy.payload, unit.payload);
  EXPECT_EQ(unit.payload.use_count(), 2);
}

TEST(Records, ReleaseTheirPayloadWhenTheyGo) {
  const InternalData buf = BufWithData(1, 0, 8);
  const auto payload = OM_DP::MakeCompressedData(8);
  {
    PipeCompressedData unit = Unit({buf});
    unit.payload = payload;
    EXPECT_EQ(buf.data.use_count(), 2);
    EXPECT_EQ(payload.use_count(), 2);
  }
  EXPECT_EQ(buf.data.use_count(), 1);
  EXPECT_EQ(payload.use_count(), 1);
}

TEST(Unit, KeepsAVolumesBuffersInTheirOrder) {
  const PipeCompressedData unit = Unit({Buf(1, 9, 1), Buf(2, 5, 1), Buf(1, 3, 1)});
  ASSERT_EQ(unit.origBuffers.size(), 2U);
  EXPECT_EQ(unit.origBuffers.at(Volume(1))[0].offset, 9U);
  EXPECT_EQ(unit.origBuffers.at(Volume(1))[1].offset, 3U);
}

}  // namespace
