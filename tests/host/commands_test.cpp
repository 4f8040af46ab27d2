// SPDX-License-Identifier: Apache-2.0
// Goal: the bytes of headers and records, exactly as they lie in a file. Method: every byte of
// worked examples is written out; fields are set by name and found again at their place.
#include "penstock/host/commands.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/grouping_locale.h"
#include "tests/support/make.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes BytesAt(const void* address, std::size_t size) {
  Bytes bytes(size);
  std::memcpy(bytes.data(), address, size);
  return bytes;
}

// All numbers are little-endian.
std::uint64_t NumberAt(const Bytes& bytes, std::size_t at, std::size_t size) {
  std::uint64_t number = 0;
  for (std::size_t i = size; i > 0; --i) number = number * 256 + bytes[at + i - 1];
  return number;
}

TEST(CommandHeader, OfAllItsFieldsByteByByte) {
  const auto header = CreateDppHeader(0x01020304, DPPCmdType::CompressedData,
                                      {0x11121314, 0x21222324, 0x31, 0x32, 0x33});
  EXPECT_EQ(BytesAt(header.get(), 24),
            (Bytes{
                0x04, 0x03, 0x02, 0x01,  // payload size
                0x64, 0x00, 0x00, 0x00,  // type: 100
                0x14, 0x13, 0x12, 0x11,  // a
                0x24, 0x23, 0x22, 0x21,  // b
                0x31, 0x32, 0x33, 0x00,  // c, d, e, zero
                0x69, 0xf9, 0xeb, 0x63,  // CRC-32C of the twenty bytes before
            }));
}

TEST(CommandHeader, OfADatasetFilesFirstRecordByteByByte) {
  const auto header = CreateDppHeader(60, DPPCmdType::DatasetStartv2, {2, 3, 0, 0, 0});
  EXPECT_EQ(BytesAt(header.get(), 24),
            (Bytes{0x3c, 0x00, 0x00, 0x00, 0x38, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,
                   0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x79, 0x1b, 0x0d, 0x5a}));
}

TEST(CommandHeader, IsTwentyFourBytes) { EXPECT_EQ(sizeof(DPPCmdHeader), 24U); }

TEST(CommandHeader, IsANewOneEachTime) {
  const auto first = CreateDppHeader(1, DPPCmdType::DatasetStartv2, {});
  const auto second = CreateDppHeader(1, DPPCmdType::DatasetStartv2, {});
  EXPECT_NE(first, second);
  EXPECT_EQ(first.use_count(), 1);
}

TEST(CommandHeader, HasAChecksumThatEveryFieldChanges) {
  const auto crcOf = [](unsigned size, DPPCmdType type, DPPCmdHeaderFlags flags) {
    return CreateDppHeader(size, type, flags)->crc;
  };
  const DPPCmdType type = DPPCmdType::DatasetStartv2;
  const std::uint32_t crc = crcOf(0, type, {});
  EXPECT_NE(crc, crcOf(1, type, {}));
  EXPECT_NE(crc, crcOf(0, DPPCmdType::CompressedData, {}));
  EXPECT_NE(crc, crcOf(0, type, {1, 0, 0, 0, 0}));
  EXPECT_NE(crc, crcOf(0, type, {0, 1, 0, 0, 0}));
  EXPECT_NE(crc, crcOf(0, type, {0, 0, 1, 0, 0}));
  EXPECT_NE(crc, crcOf(0, type, {0, 0, 0, 1, 0}));
  EXPECT_NE(crc, crcOf(0, type, {0, 0, 0, 0, 1}));
}

TEST(CommandType, HasItsNumbersAndNames) {
  EXPECT_EQ(static_cast<std::uint32_t>(DPPCmdType::DatasetStartv2), 56U);
  EXPECT_EQ(static_cast<std::uint32_t>(DPPCmdType::CompressedData), 100U);
  EXPECT_EQ(Text(DPPCmdType::DatasetStartv2), "DatasetStartv2");
  EXPECT_EQ(Text(DPPCmdType::CompressedData), "CompressedData");
}

TEST(CommandType, WithoutANamePrintsItsNumber) {
  EXPECT_EQ(Text(DPPCmdType{7}), "DPPCmdType(7)");
  EXPECT_EQ(Text(DPPCmdType{4294967295U}), "DPPCmdType(4294967295)");
}

TEST(CommandType, PrintsTheSameUnderAnotherLocaleAndFlags) {
  const GroupingLocale grouping;
  std::ostringstream out;
  out << std::hex;
  EXPECT_EQ(&(out << DPPCmdType{4660}), &out);
  EXPECT_EQ(out.str(), "DPPCmdType(4660)");
}

TEST(DatasetStart, HasItsFieldsAtTheirPlaces) {
  OM_DP::DatasetStartv2 start;
  start.n = 0x0102030405060708;
  start.timestampMs = 0x1112131415161718;
  start.groupId = {0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27,
                   0x28, 0x29, 0x2a, 0x2b, 0x2c, 0x2d, 0x2e, 0x2f};
  start.datasetType = 0x31323334;
  start.flags = 0x41424344;
  start.count = 0x5152;
  start.formatVersion = 0x6162;
  const Bytes bytes = BytesAt(&start, sizeof(start));
  ASSERT_EQ(bytes.size(), 44U);
  EXPECT_EQ(NumberAt(bytes, 0, 8), 0x0102030405060708U);
  EXPECT_EQ(NumberAt(bytes, 8, 8), 0x1112131415161718U);
  EXPECT_EQ(bytes[16], 0x20);
  EXPECT_EQ(bytes[31], 0x2f);
  EXPECT_EQ(NumberAt(bytes, 32, 4), 0x31323334U);
  EXPECT_EQ(NumberAt(bytes, 36, 4), 0x41424344U);
  EXPECT_EQ(NumberAt(bytes, 40, 2), 0x5152U);
  EXPECT_EQ(NumberAt(bytes, 42, 2), 0x6162U);
}

TEST(DatasetStart, IsMadeOfZeroesButForItsCount) {
  const auto start = OM_DP::MakeDatasetStartv2(3);
  Bytes expected(44 + 3 * 16, 0);
  expected[40] = 3;
  EXPECT_EQ(BytesAt(start.get(), expected.size()), expected);
}

TEST(DatasetStart, MayHaveNoEntryOrTheMostThatTheCountHolds) {
  EXPECT_EQ(OM_DP::MakeDatasetStartv2(0)->count, 0);
  const auto most = OM_DP::MakeDatasetStartv2(65535);
  EXPECT_EQ(most->count, 65535);
  OM_DP::Entries(*most)[65535 * 16 - 1] = 9;
  EXPECT_EQ(BytesAt(most.get(), 44 + 65535 * 16).back(), 9);
}

TEST(DatasetStart, HasItsEntriesDirectlyBehindItsFields) {
  const auto start = OM_DP::MakeDatasetStartv2(2);
  const auto* const address = reinterpret_cast<std::uint8_t*>(start.get());
  EXPECT_EQ(OM_DP::Entries(*start), address + 44);
  EXPECT_EQ(OM_DP::Entries(std::as_const(*start)), address + 44);
}

TEST(CompressedRecord, HasItsFieldsAtTheirPlaces) {
  OM_DP::CompressedData unit;
  unit.bodyHash = 0x0102030405060708;
  unit.rawLength = 0x11121314;
  unit.volumeIndex = 0x21;
  unit.codec = 0x31;
  unit.extentCount = 0x4142;
  unit.length = 0x51525354;
  const Bytes bytes = BytesAt(&unit, sizeof(unit));
  ASSERT_EQ(bytes.size(), 20U);
  EXPECT_EQ(NumberAt(bytes, 0, 8), 0x0102030405060708U);
  EXPECT_EQ(NumberAt(bytes, 8, 4), 0x11121314U);
  EXPECT_EQ(bytes[12], 0x21);
  EXPECT_EQ(bytes[13], 0x31);
  EXPECT_EQ(NumberAt(bytes, 14, 2), 0x4142U);
  EXPECT_EQ(NumberAt(bytes, 16, 4), 0x51525354U);
}

TEST(CompressedRecord, IsMadeOfZeroesButForItsLength) {
  const auto unit = OM_DP::MakeCompressedData(300);
  Bytes expected(20 + 300, 0);
  expected[16] = 300 % 256;
  expected[17] = 1;
  EXPECT_EQ(BytesAt(unit.get(), expected.size()), expected);
}

TEST(CompressedRecord, MayHaveAnEmptyBody) {
  const auto unit = OM_DP::MakeCompressedData(0);
  EXPECT_EQ(BytesAt(unit.get(), 20), Bytes(20, 0));
}

TEST(CompressedRecord, HasItsBodyTwentyBytesBehindItsAddress) {
  const auto unit = OM_DP::MakeCompressedData(4);
  auto* const address = reinterpret_cast<std::uint8_t*>(unit.get());
  EXPECT_EQ(OM_DP::Body(*unit), address + 20);
  EXPECT_EQ(OM_DP::Body(std::as_const(*unit)), address + 20);
  std::memcpy(OM_DP::Body(*unit), "abcd", 4);
  EXPECT_EQ(BytesAt(address + 20, 4), (Bytes{'a', 'b', 'c', 'd'}));
}

TEST(CompressedRecord, IsReleasedWithItsBodyByItsLastOwner) {
  auto unit = OM_DP::MakeCompressedData(1 << 20);
  const std::weak_ptr<OM_DP::CompressedData> watch = unit;
  OM_DP::Body(*unit)[(1 << 20) - 1] = 1;
  unit.reset();
  EXPECT_TRUE(watch.expired());
}

}  // namespace
