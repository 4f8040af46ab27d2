// SPDX-License-Identifier: Apache-2.0
// Goal: the bytes of a dataset file, the calls that write them and the results that report them.
// Method: real files against bytes put together by hand; one header is written out in full.
#include <limits>

#include "tests/serializer/serializer_fixture.h"

namespace {

class SerializerRecords : public SerializerTest {
 protected:
  static std::string Appended(const std::string& function, const std::string& sizes) {
    return "I DatasetSerializer::" + function +
           "() DSS: Dataset file for DS N: 9 appended bytes [header,body]: " + sizes;
  }
  static std::string Writing(const std::string& header) {
    return "I DatasetSerializer::WriteDppHeader() Writing header " + header;
  }
};

TEST_F(SerializerRecords, OpenWithAStartRecordWithoutEntries) {
  DatasetSerializer file = File(9);
  const auto start = Start(0);
  EXPECT_EQ(file.WriteHeader(9, start), 44);
  EXPECT_EQ(Bytes(file.m_filePath), Join({Header(44, 56), Of(start, 44)}));
  EXPECT_EQ(Log(),
            (Lines{Writing("DatasetStartv2 payload size: 44"), Appended("WriteHeader", "44,0")}));
}

TEST_F(SerializerRecords, OpenWithAStartRecordAndItsEntries) {
  DatasetSerializer file = File(9);
  const auto start = Start(2);
  EXPECT_EQ(file.WriteHeader(9, start), 76);
  EXPECT_EQ(Bytes(file.m_filePath), Join({Header(76, 56), Of(start, 76)}));
  EXPECT_EQ(Log(),
            (Lines{Writing("DatasetStartv2 payload size: 76"), Appended("WriteHeader", "44,32")}));
}

TEST_F(SerializerRecords, TakeTheLargestNumberOfEntries) {
  DatasetSerializer file = File(9);
  const auto start = Start(65535);
  EXPECT_EQ(file.WriteHeader(9, start), 44 + 16 * 65535);
  EXPECT_EQ(Bytes(file.m_filePath),
            Join({Header(44 + 16 * 65535, 56), Of(start, 44 + 16 * 65535)}));
  EXPECT_EQ(Log(), (Lines{Writing("DatasetStartv2 payload size: 1048604"),
                          Appended("WriteHeader", "44,1048560")}));
}

TEST_F(SerializerRecords, AppendAUnitOf1000Bytes) {
  DatasetSerializer file = File(9);
  const auto start = Start(1);
  const auto data = Data(1000);
  ASSERT_EQ(file.WriteHeader(9, start), 60);
  Log();
  const auto [bytes, position] = file.WriteData(9, data);
  EXPECT_EQ(bytes, 1020);
  EXPECT_EQ(position, 84U + 24U);
  EXPECT_EQ(Bytes(file.m_filePath),
            Join({Header(60, 56), Of(start, 60), Header(1020, 100), Of(data, 1020)}));
  EXPECT_EQ(Log(), (Lines{Writing("CompressedData payload size: 1020"),
                          Appended("WriteData", "20,1000")}));
}

TEST_F(SerializerRecords, AppendAUnitWithoutBody) {
  DatasetSerializer file = File(9);
  file.WriteHeader(9, Start(0));
  Log();
  const auto data = Data(0);
  EXPECT_EQ(file.WriteData(9, data), (std::pair<int, unsigned long>(20, 92)));
  EXPECT_EQ(Bytes(file.m_filePath).size(), 68U + 44U);
  EXPECT_EQ(Log(),
            (Lines{Writing("CompressedData payload size: 20"), Appended("WriteData", "20,0")}));
}

TEST_F(SerializerRecords, ReportEachUnitsPosition) {
  DatasetSerializer file = File(9);
  file.WriteHeader(9, Start(0));
  ByteString expected = Bytes(file.m_filePath);
  for (const std::uint32_t length : {1U, 0U, 4096U, 7U}) {
    const auto data = Data(length);
    const auto [bytes, position] = file.WriteData(9, data);
    EXPECT_EQ(bytes, static_cast<int>(20 + length));
    EXPECT_EQ(position, expected.size() + 24);
    expected = Join({expected, Header(20 + length, 100), Of(data, 20 + length)});
  }
  EXPECT_EQ(Bytes(file.m_filePath), expected);
}

TEST_F(SerializerRecords, StandBehindTheseBytes) {
  DatasetSerializer file = File(9);
  file.WriteHeader(9, Start(0));
  ByteString header = Bytes(file.m_filePath);
  header.resize(24);
  EXPECT_EQ(header,
            (ByteString{0x2c, 0x00, 0x00, 0x00, 0x38, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,
                        0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xba, 0xfb, 0x06, 0x20}));
}

TEST_F(SerializerRecords, AreWrittenByThreePlainCallsEach) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  file.WriteHeader(9, Start(2));
  EXPECT_EQ(calls.Take(), (Lines{"open " + file.m_filePath + " 03301 0644", "write file 24",
                                 "write file 44", "write file 32"}));
  file.WriteData(9, Data(1000));
  EXPECT_EQ(calls.Take(),
            (Lines{"write file 24", "lseek file 0 SEEK_CUR", "write file 20", "write file 1000"}));
}

TEST_F(SerializerRecords, CallForNoBytesToo) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  file.WriteHeader(9, Start(0));
  EXPECT_EQ(calls.Take().back(), "write file 0");
  file.WriteData(9, Data(0));
  EXPECT_EQ(calls.Take(),
            (Lines{"write file 24", "lseek file 0 SEEK_CUR", "write file 20", "write file 0"}));
}

TEST_F(SerializerRecords, LandAtTheEndWhoeverElseAppended) {
  DatasetSerializer file = File(9);
  file.WriteHeader(9, Start(0));
  std::FILE* other = std::fopen(file.m_filePath.c_str(), "ab");
  ASSERT_NE(other, nullptr);
  std::fputs("foreign", other);
  std::fclose(other);
  const auto data = Data(3);
  EXPECT_EQ(file.WriteData(9, data), (std::pair<int, unsigned long>(23, 68 + 7 + 24)));
  ByteString bytes = Bytes(file.m_filePath);
  ASSERT_EQ(bytes.size(), 68U + 7U + 47U);
  bytes.erase(bytes.begin(), bytes.begin() + 75);
  EXPECT_EQ(bytes, Join({Header(23, 100), Of(data, 23)}));
}

TEST_F(SerializerRecords, AreSmallerThanNothingWithoutAnOpenFile) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  EXPECT_EQ(file.WriteData(9, Data(3)), (std::pair<int, unsigned long>(-1, 0)));
  EXPECT_EQ(calls.Take(), Lines{});
  EXPECT_EQ(Log(), Lines{});
  EXPECT_TRUE(std::filesystem::is_empty(m_base));
}

TEST_F(SerializerRecords, LeaveTheFileOpenForMore) {
  DatasetSerializer file = File(9);
  file.WriteHeader(9, Start(0));
  file.WriteData(9, Data(3));
  EXPECT_TRUE(file.IsOpen());
}

TEST_F(SerializerRecords, OfTwoVolumesOfOneDatasetGoToTwoFiles) {
  DatasetSerializer first(9, Volume(1), m_base);
  DatasetSerializer second(9, Volume(2), m_base);
  EXPECT_EQ(first.WriteHeader(9, Start(0)), 44);
  EXPECT_EQ(second.WriteHeader(9, Start(1)), 60);
  EXPECT_EQ(Bytes(first.m_filePath).size(), 68U);
  EXPECT_EQ(Bytes(second.m_filePath).size(), 84U);
}

class CommandHeader : public SerializerRecords {};

TEST_F(CommandHeader, IsWrittenByItselfToo) {
  DatasetSerializer file = File(9);
  file.WriteHeader(9, Start(0));
  Log();
  EXPECT_EQ(file.WriteDppHeader(7, DPPCmdType::CompressedData), 24);
  EXPECT_EQ(Log(), (Lines{Writing("CompressedData payload size: 7")}));
  ByteString bytes = Bytes(file.m_filePath);
  bytes.erase(bytes.begin(), bytes.begin() + 68);
  EXPECT_EQ(bytes, Header(7, 100));
}

TEST_F(CommandHeader, CutsThePayloadSizeTo32BitsButLogsItWhole) {
  DatasetSerializer file = File(9);
  file.WriteHeader(9, Start(0));
  Log();
  EXPECT_EQ(file.WriteDppHeader(0x500000007, DPPCmdType::DatasetStartv2), 24);
  EXPECT_EQ(Log(), (Lines{Writing("DatasetStartv2 payload size: 21474836487")}));
  ByteString bytes = Bytes(file.m_filePath);
  bytes.erase(bytes.begin(), bytes.begin() + 68);
  EXPECT_EQ(bytes, Header(7, 56));
}

// Units near 2^31 bytes: a record that only says so, and writes that read nothing.
class LongUnit : public SerializerRecords {
 protected:
  std::pair<int, unsigned long> Write(std::uint32_t length) {
    DatasetSerializer file = File(9);
    FileCalls calls;
    file.WriteHeader(9, Start(0));
    calls.Take();
    Log();
    calls.SwallowWrites();
    const auto data = Data(0);
    data->length = length;
    const auto result = file.WriteData(9, data);
    m_calls = calls.Take();
    file.CloseDatasetFile(9, true);
    return result;
  }
  Lines m_calls;
};

TEST_F(LongUnit, HasAPayloadSizeUpToTheLargestSignedNumber) {
  EXPECT_EQ(Write(0x7fffffff - 20), (std::pair<int, unsigned long>(0x7fffffff, 68)));
  EXPECT_EQ(Log().at(0), Writing("CompressedData payload size: 2147483647"));
  EXPECT_EQ(m_calls, (Lines{"write file 24", "lseek file 0 SEEK_CUR", "write file 20",
                            "write file 2147483627"}));
}

TEST_F(LongUnit, ExtendsTheSignOfAPayloadSizeBeyondIt) {
  EXPECT_EQ(Write(0x7fffffff - 19).first, std::numeric_limits<int>::min());
  const Lines lines = Log();
  EXPECT_EQ(lines.at(0), Writing("CompressedData payload size: 18446744071562067968"));
  EXPECT_EQ(lines.at(1), Appended("WriteData", "20,2147483628"));
  EXPECT_EQ(m_calls.back(), "write file 2147483628");
}

TEST_F(LongUnit, WrapsThePayloadSizeAt32Bits) {
  EXPECT_EQ(Write(0xffffffff).first, 19);
  EXPECT_EQ(Log().at(0), Writing("CompressedData payload size: 19"));
  EXPECT_EQ(m_calls.back(), "write file 4294967295");
}

TEST_F(LongUnit, CarriesTheCutPayloadSizeInItsHeader) {
  DatasetSerializer file = File(9);
  file.WriteHeader(9, Start(0));
  const auto data = Data(0);
  data->length = 0x80000000;
  FileCalls calls;
  calls.Fail("write", 3, 0x80000000, 0);
  EXPECT_EQ(file.WriteData(9, data).second, 92U);
  ByteString bytes = Bytes(file.m_filePath);
  bytes.erase(bytes.begin(), bytes.begin() + 68);
  EXPECT_EQ(bytes, Join({Header(0x80000014, 100), Of(data, 20)}));
}

}  // namespace
