// SPDX-License-Identifier: Apache-2.0
// Goal: every way in which writing a dataset file fails: the result, the record, what was called
// and what is left. Method: the library's calls of the C library fail or fall short one by one;
// nothing may be called twice.
#include <cerrno>

#include "tests/serializer/serializer_fixture.h"

namespace {

using Result = std::pair<int, unsigned long>;

const std::string kNoHeader = "E DatasetSerializer::WriteDppHeader() Unable to write header";

class WriteFailure : public SerializerTest {
 protected:
  std::string m_path = File(9).m_filePath;

  static std::string Writing(const std::string& header) {
    return "I DatasetSerializer::WriteDppHeader() Writing header " + header;
  }
  static std::string Failed(const std::string& function, const std::string& counts) {
    return "E DatasetSerializer::" + function +
           "() DSS: Failed writing to dataset file: " + counts + " DS N: 9";
  }
};

class WriteHeaderFailure : public WriteFailure {
 protected:
  // The calls of a start record of two entries up to the `writes`-th write.
  Lines Opening(std::size_t writes) const {
    Lines lines{"open " + m_path + " 03301 0644", "write file 24", "write file 44",
                "write file 32"};
    lines.resize(1 + writes);
    return lines;
  }
  const std::string m_writing = Writing("DatasetStartv2 payload size: 76");
};

class WriteDataFailure : public WriteFailure {
 protected:
  // Writes a unit of 1000 bytes behind a start record, as `calls` allow.
  Result Write(FileCalls& calls) {
    m_file.WriteHeader(9, Start(0));
    Log();
    calls.Take();
    for (const auto& spoil : m_spoils) spoil(calls);
    return m_file.WriteData(9, Data(1000));
  }
  static Lines Calls(std::size_t count) {
    Lines lines{"write file 24", "lseek file 0 SEEK_CUR", "write file 20", "write file 1000"};
    lines.resize(count);
    return lines;
  }
  void FailNext(const std::string& function, int nth, long result, int error) {
    m_spoils.emplace_back([=](FileCalls& calls) { calls.Fail(function, nth, result, error); });
  }
  void CutNext(int nth, std::size_t bytes) {
    m_spoils.emplace_back([=](FileCalls& calls) { calls.CutWrite(nth, bytes); });
  }
  DatasetSerializer m_file = File(9);
  std::vector<std::function<void(FileCalls&)>> m_spoils;
  const std::string m_writing = Writing("CompressedData payload size: 1020");
};

TEST_F(WriteHeaderFailure, AFileThatIsOpenIsNotOpenedAgain) {
  DatasetSerializer file = File(9);
  ASSERT_EQ(file.WriteHeader(9, Start(0)), 44);
  Log();
  FileCalls calls;
  EXPECT_EQ(file.WriteHeader(9, Start(2)), -1);
  EXPECT_EQ(Log(), (Lines{"E DatasetSerializer::WriteHeader() DSS: " + Ptr(&file) +
                          " File is already open   DS N: 9"}));
  EXPECT_EQ(calls.Take(), Lines{});
  EXPECT_TRUE(file.IsOpen());
  EXPECT_EQ(Bytes(m_path).size(), 68U);
}

TEST_F(WriteHeaderFailure, AFolderThatCanNotBeMade) {
  const std::string base = m_base + "/taken";
  std::FILE* taken = std::fopen(base.c_str(), "wb");
  ASSERT_NE(taken, nullptr);
  std::fclose(taken);
  DatasetSerializer file(9, Volume(1), base);
  FileCalls calls;
  EXPECT_EQ(file.WriteHeader(9, Start(0)), -1);
  EXPECT_EQ(Log(),
            (Lines{"E DatasetSerializer::WriteHeader() DSS: Unable to create dataset folder " +
                   file.m_dirPath}));
  EXPECT_EQ(calls.Take(), Lines{});
  EXPECT_FALSE(file.IsOpen());
}

TEST_F(WriteHeaderFailure, AFileThatExistsIsNeverOpened) {
  DatasetSerializer first = File(9);
  first.WriteHeader(9, Start(0));
  first.CloseDatasetFile(9, false);
  const ByteString before = Bytes(m_path);
  Log();
  DatasetSerializer second = File(9);
  FileCalls calls;
  EXPECT_EQ(second.WriteHeader(9, Start(2)), -1);
  EXPECT_EQ(Log(),
            (Lines{"E DatasetSerializer::WriteHeader() DSS: Dataset file for DS N: 9 already "
                   "exists at path: " +
                   m_path}));
  EXPECT_EQ(calls.Take(), Opening(0));
  EXPECT_FALSE(second.IsOpen());
  EXPECT_EQ(Bytes(m_path), before);
}

TEST_F(WriteHeaderFailure, AFileThatCanNotBeOpenedSaysWhy) {
  for (const auto& [error, text] : {std::pair(EACCES, "13"), std::pair(ENOSPC, "28"),
                                    std::pair(EINTR, "4"), std::pair(EMFILE, "24")}) {
    DatasetSerializer file = File(9);
    FileCalls calls;
    calls.Fail("open", 1, -1, error);
    EXPECT_EQ(file.WriteHeader(9, Start(0)), -1);
    EXPECT_EQ(Log(), (Lines{"E DatasetSerializer::WriteHeader() DSS: Failed to open dataset file" +
                            m_path + " for DS N: 9 errno:  " + text}));
    EXPECT_EQ(calls.Take(), Opening(0)) << "no second try";
    EXPECT_EQ(file.m_fd, -1);
  }
}

TEST_F(WriteHeaderFailure, AnyNegativeDescriptorIsAFailureAndIsKept) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  calls.Fail("open", 1, -5, EEXIST);
  EXPECT_EQ(file.WriteHeader(9, Start(0)), -1);
  EXPECT_EQ(Log(),
            (Lines{"E DatasetSerializer::WriteHeader() DSS: Dataset file for DS N: 9 already "
                   "exists at path: " +
                   m_path}));
  EXPECT_EQ(file.m_fd, -5);
  EXPECT_FALSE(file.IsOpen());
}

TEST_F(WriteHeaderFailure, CanBeTriedAgainByTheHost) {
  DatasetSerializer file = File(9);
  {
    FileCalls calls;
    calls.Fail("open", 1, -1, EACCES);
    EXPECT_EQ(file.WriteHeader(9, Start(0)), -1);
  }
  EXPECT_EQ(file.WriteHeader(9, Start(0)), 44);
}

TEST_F(WriteHeaderFailure, ACommandHeaderThatCanNotBeWritten) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  calls.Fail("write", 1, -1, ENOSPC);
  EXPECT_EQ(file.WriteHeader(9, Start(2)), -1);
  EXPECT_EQ(Log(), (Lines{m_writing, kNoHeader}));
  EXPECT_EQ(calls.Take(), Opening(1));
  EXPECT_TRUE(file.IsOpen()) << "nothing is rolled back";
}

TEST_F(WriteHeaderFailure, ACommandHeaderOfNoBytes) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  calls.Fail("write", 1, 0, 0);
  EXPECT_EQ(file.WriteHeader(9, Start(2)), 0);
  EXPECT_EQ(Log(), (Lines{m_writing, kNoHeader}));
  EXPECT_EQ(calls.Take(), Opening(1));
  EXPECT_TRUE(file.IsOpen());
}

TEST_F(WriteHeaderFailure, AShortCommandHeaderIsOnlyLogged) {
  for (const std::size_t bytes : {std::size_t{1}, std::size_t{23}}) {
    DatasetSerializer file = File(9);
    FileCalls calls;
    calls.CutWrite(1, bytes);
    EXPECT_EQ(file.WriteHeader(9, Start(2)), 76);
    EXPECT_EQ(Log(), (Lines{m_writing, kNoHeader,
                            "I DatasetSerializer::WriteHeader() DSS: Dataset file for DS N: 9 "
                            "appended bytes [header,body]: 44,32"}));
    EXPECT_EQ(calls.Take(), Opening(3));
    ByteString header = Header(76, 56);
    header.resize(bytes);
    EXPECT_EQ(Bytes(m_path), Join({header, Of(Start(2), 76)}));
    file.CloseDatasetFile(9, true);
    Log();
  }
}

TEST_F(WriteHeaderFailure, AFixedPartThatCanNotBeWrittenIsNotNoticed) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  calls.Fail("write", 2, -1, ENOSPC);
  EXPECT_EQ(file.WriteHeader(9, Start(2)), 76);
  EXPECT_EQ(Log(), (Lines{m_writing,
                          "I DatasetSerializer::WriteHeader() DSS: Dataset file for DS N: 9 "
                          "appended bytes [header,body]: 44,32"}));
  EXPECT_EQ(calls.Take(), Opening(3));
  EXPECT_EQ(Bytes(m_path).size(), 24U + 32U);
}

TEST_F(WriteHeaderFailure, AShortFixedPartIsNotNoticed) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  calls.CutWrite(2, 5);
  EXPECT_EQ(file.WriteHeader(9, Start(2)), 76);
  EXPECT_EQ(calls.Take(), Opening(3));
  EXPECT_EQ(Bytes(m_path).size(), 24U + 5U + 32U);
}

TEST_F(WriteHeaderFailure, EntriesThatCanNotBeWritten) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  calls.Fail("write", 3, -1, ENOSPC);
  EXPECT_EQ(file.WriteHeader(9, Start(2)), -1);
  EXPECT_EQ(Log(), (Lines{m_writing, Failed("WriteHeader", "32  -1")}));
  EXPECT_EQ(calls.Take(), Opening(3));
  EXPECT_TRUE(file.IsOpen());
  EXPECT_EQ(Bytes(m_path).size(), 68U) << "what was written stays";
}

TEST_F(WriteHeaderFailure, EntriesThatAreCutShort) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  calls.CutWrite(3, 31);
  EXPECT_EQ(file.WriteHeader(9, Start(2)), -1);
  EXPECT_EQ(Log(), (Lines{m_writing, Failed("WriteHeader", "32  31")}));
  EXPECT_EQ(calls.Take(), Opening(3)) << "no second try";
  EXPECT_TRUE(file.IsOpen());
  EXPECT_EQ(Bytes(m_path).size(), 68U + 31U);
}

TEST_F(WriteHeaderFailure, NoEntriesThatCanNotBeWritten) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  calls.Fail("write", 3, -1, EINTR);
  EXPECT_EQ(file.WriteHeader(9, Start(0)), -1);
  EXPECT_EQ(Log(),
            (Lines{Writing("DatasetStartv2 payload size: 44"), Failed("WriteHeader", "0  -1")}));
}

TEST_F(WriteHeaderFailure, IsClosedAndRemovedByTheHost) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  calls.Fail("write", 3, -1, ENOSPC);
  ASSERT_EQ(file.WriteHeader(9, Start(2)), -1);
  EXPECT_EQ(file.CloseDatasetFile(9, true), 0);
  EXPECT_FALSE(std::filesystem::exists(m_path));
}

TEST_F(WriteDataFailure, ACommandHeaderThatCanNotBeWritten) {
  FileCalls calls;
  FailNext("write", 1, -1, ENOSPC);
  EXPECT_EQ(Write(calls), Result(-1, 0));
  EXPECT_EQ(Log(), (Lines{m_writing, kNoHeader}));
  EXPECT_EQ(calls.Take(), Calls(1));
  EXPECT_TRUE(m_file.IsOpen());
}

TEST_F(WriteDataFailure, ACommandHeaderOfNoBytes) {
  FileCalls calls;
  FailNext("write", 1, 0, 0);
  EXPECT_EQ(Write(calls), Result(0, 0));
  EXPECT_EQ(Log(), (Lines{m_writing, kNoHeader}));
  EXPECT_EQ(calls.Take(), Calls(1));
}

TEST_F(WriteDataFailure, AShortCommandHeaderIsOnlyLogged) {
  FileCalls calls;
  CutNext(1, 10);
  EXPECT_EQ(Write(calls), Result(1020, 78));
  EXPECT_EQ(Log(), (Lines{m_writing, kNoHeader,
                          "I DatasetSerializer::WriteData() DSS: Dataset file for DS N: 9 appended "
                          "bytes [header,body]: 20,1000"}));
  EXPECT_EQ(calls.Take(), Calls(4));
  EXPECT_EQ(Bytes(m_path).size(), 68U + 10U + 1020U);
}

TEST_F(WriteDataFailure, APositionThatCanNotBeToldIsPassedOn) {
  FileCalls calls;
  FailNext("lseek64", 1, -1, ESPIPE);
  EXPECT_EQ(Write(calls), Result(1020, 0xffffffffffffffff));
  EXPECT_EQ(calls.Take(), Calls(4));
}

TEST_F(WriteDataFailure, AFixedPartThatCanNotBeWrittenCountsAsMinusOne) {
  FileCalls calls;
  FailNext("write", 2, -1, ENOSPC);
  EXPECT_EQ(Write(calls), Result(999, 92));
  EXPECT_EQ(Log(),
            (Lines{m_writing,
                   "I DatasetSerializer::WriteData() DSS: Dataset file for DS N: 9 appended bytes "
                   "[header,body]: -1,1000"}));
  EXPECT_EQ(calls.Take(), Calls(4));
}

TEST_F(WriteDataFailure, AShortFixedPartCountsAsItIs) {
  FileCalls calls;
  CutNext(2, 7);
  EXPECT_EQ(Write(calls), Result(1007, 92));
  EXPECT_EQ(Log(),
            (Lines{m_writing,
                   "I DatasetSerializer::WriteData() DSS: Dataset file for DS N: 9 appended bytes "
                   "[header,body]: 7,1000"}));
}

TEST_F(WriteDataFailure, ABodyThatCanNotBeWritten) {
  FileCalls calls;
  FailNext("write", 3, -1, ENOSPC);
  EXPECT_EQ(Write(calls), Result(-1, 0));
  EXPECT_EQ(Log(), (Lines{m_writing, Failed("WriteData", "1000  -1")}));
  EXPECT_EQ(calls.Take(), Calls(4));
  EXPECT_TRUE(m_file.IsOpen());
  EXPECT_EQ(Bytes(m_path).size(), 68U + 44U) << "what was written stays";
}

TEST_F(WriteDataFailure, ABodyThatIsCutShort) {
  FileCalls calls;
  CutNext(3, 999);
  EXPECT_EQ(Write(calls), Result(-1, 0));
  EXPECT_EQ(Log(), (Lines{m_writing, Failed("WriteData", "1000  999")}));
  EXPECT_EQ(calls.Take(), Calls(4)) << "no second try";
  EXPECT_EQ(Bytes(m_path).size(), 68U + 44U + 999U);
}

TEST_F(WriteDataFailure, DoesNotHinderTheNextUnit) {
  FileCalls calls;
  FailNext("write", 3, -1, ENOSPC);
  EXPECT_EQ(Write(calls), Result(-1, 0));
  EXPECT_EQ(m_file.WriteData(9, Data(3)), Result(23, 68 + 44 + 24));
}

// The record of a failure asks the host for its message prefix, which may change errno.
class ErrnoInRecords : public WriteFailure {};

TEST_F(ErrnoInRecords, OfAFailedOpenIsTheOneOfTheFailure) {
  const ErrnoSpoiler spoiler;
  DatasetSerializer file = File(9);
  FileCalls calls;
  calls.Fail("open", 1, -1, EACCES);
  EXPECT_EQ(file.WriteHeader(9, Start(0)), -1);
  EXPECT_EQ(Log(), (Lines{"E DatasetSerializer::WriteHeader() DSS: Failed to open dataset file" +
                          m_path + " for DS N: 9 errno:  13"}));
}

TEST_F(ErrnoInRecords, OfAFailedSyncIsTheOneOfTheFailure) {
  DatasetSerializer file = File(9);
  file.WriteHeader(9, Start(0));
  Log();
  const ErrnoSpoiler spoiler;
  FileCalls calls;
  calls.Fail("fsync", 1, -1, EIO);
  EXPECT_EQ(file.CloseDatasetFile(9, false), -1);
  EXPECT_EQ(Log(), (Lines{"E DatasetSerializer::CloseDatasetFile() DSS: fsync() failed for dataset "
                          "file DS N: 9 errno:  5"}));
}

TEST_F(ErrnoInRecords, OfAFileThatIsNotOpenIsTheCallersOwn) {
  const ErrnoSpoiler spoiler;
  DatasetSerializer file = File(9);
  errno = ENOENT;
  EXPECT_EQ(file.CloseDatasetFile(9, false), 0);
  EXPECT_EQ(Log(), (Lines{"N DatasetSerializer::CloseDatasetFile() DSS: Dataset file was not open "
                          "for DS N: 9 errno:  2"}));
}

}  // namespace
