// SPDX-License-Identifier: Apache-2.0
// Goal: the life of a dataset file: opened by its first record, synced, closed and removed in this
// order, or closed silently with its serializer. Method: real files; the library's calls of the C
// library and the complete list of its records.
#include "penstock/dataset_serializer.h"

#include <sys/stat.h>

#include <cerrno>
#include <type_traits>

#include "tests/serializer/serializer_fixture.h"

namespace {

static_assert(!std::is_copy_constructible_v<DatasetSerializer>);
static_assert(!std::is_copy_assignable_v<DatasetSerializer>);
static_assert(!std::is_move_constructible_v<DatasetSerializer>);
static_assert(!std::is_move_assignable_v<DatasetSerializer>);
static_assert(!std::is_polymorphic_v<DatasetSerializer>);

class SerializerLife : public SerializerTest {
 protected:
  static bool Exists(const std::string& path) { return std::filesystem::exists(path); }
  static std::string NotOpen(int error) {
    return "N DatasetSerializer::CloseDatasetFile() DSS: Dataset file was not open for DS N: 9 "
           "errno:  " +
           std::to_string(error);
  }
};

const std::string kClosed =
    "I DatasetSerializer::CloseDatasetFile() DSS: Dataset file is closed successfully for DS N: 9";

TEST_F(SerializerLife, IsOpenWhileItsDescriptorIsNotNegative) {
  DatasetSerializer file = File(9);
  EXPECT_FALSE(file.IsOpen());
  ASSERT_EQ(file.WriteHeader(9, Start(0)), 44);
  EXPECT_TRUE(file.IsOpen());
  EXPECT_GE(file.m_fd, 0);
  EXPECT_EQ(file.CloseDatasetFile(9, false), 0);
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(file.m_fd, -1);
  file.m_fd = 0;
  EXPECT_TRUE(file.IsOpen());
  file.m_fd = -2;
  EXPECT_FALSE(file.IsOpen());
}

TEST_F(SerializerLife, OpensExclusivelyForAppendingWithMode0644) {
  const mode_t before = ::umask(0);
  DatasetSerializer file = File(9);
  FileCalls calls;
  ASSERT_EQ(file.WriteHeader(9, Start(0)), 44);
  ::umask(before);
  EXPECT_EQ(calls.Take().at(0), "open " + file.m_filePath + " 03301 0644");
  struct stat status {};
  ASSERT_EQ(::stat(file.m_filePath.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0644U);
}

TEST_F(SerializerLife, SyncsAndCloses) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  file.WriteHeader(9, Start(0));
  calls.Take();
  Log();
  EXPECT_EQ(file.CloseDatasetFile(9, false), 0);
  EXPECT_EQ(calls.Take(), (Lines{"fsync file", "close file"}));
  EXPECT_EQ(Log(), (Lines{kClosed}));
  EXPECT_TRUE(Exists(file.m_filePath));
}

TEST_F(SerializerLife, SyncsClosesAndRemovesInThisOrder) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  file.WriteHeader(9, Start(0));
  calls.Take();
  Log();
  EXPECT_EQ(file.CloseDatasetFile(9, true), 0);
  EXPECT_EQ(calls.Take(), (Lines{"fsync file", "close file", "unlink " + file.m_filePath}));
  EXPECT_EQ(Log(), (Lines{kClosed,
                          "N DatasetSerializer::CloseDatasetFile() DSS: N: 9 closing and "
                          "deleting datatset file " +
                              file.m_filePath}));
  EXPECT_FALSE(Exists(file.m_filePath));
  EXPECT_TRUE(Exists(file.m_dirPath));
}

TEST_F(SerializerLife, WritesTheNumberThatItIsGivenIntoItsRecords) {
  DatasetSerializer file = File(1);
  ASSERT_EQ(file.WriteHeader(9, Start(0)), 44);
  Log();
  file.CloseDatasetFile(9, false);
  EXPECT_EQ(Log(), (Lines{kClosed}));
}

TEST_F(SerializerLife, ClosesAFileThatIsNotOpenWithoutACall) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  errno = ENOENT;
  EXPECT_EQ(file.CloseDatasetFile(9, true), 0);
  EXPECT_EQ(Log(), (Lines{NotOpen(ENOENT)}));
  errno = 0;
  EXPECT_EQ(file.CloseDatasetFile(9, false), 0);
  EXPECT_EQ(Log(), (Lines{NotOpen(0)}));
  EXPECT_EQ(calls.Take(), Lines{});
}

TEST_F(SerializerLife, ClosesTwiceButOnlyOnceInEarnest) {
  DatasetSerializer file = File(9);
  file.WriteHeader(9, Start(0));
  ASSERT_EQ(file.CloseDatasetFile(9, false), 0);
  Log();
  FileCalls calls;
  errno = 3;
  EXPECT_EQ(file.CloseDatasetFile(9, true), 0);
  EXPECT_EQ(Log(), (Lines{NotOpen(3)}));
  EXPECT_EQ(calls.Take(), Lines{});
  EXPECT_TRUE(Exists(file.m_filePath)) << "a file that is not open is not removed";
}

TEST_F(SerializerLife, CanNotBeWrittenAgainAfterItWasClosed) {
  DatasetSerializer file = File(9);
  file.WriteHeader(9, Start(0));
  file.CloseDatasetFile(9, false);
  Log();
  EXPECT_EQ(file.WriteHeader(9, Start(0)), -1);
  EXPECT_EQ(Log(),
            (Lines{"E DatasetSerializer::WriteHeader() DSS: Dataset file for DS N: 9 already "
                   "exists at path: " +
                   file.m_filePath}));
  EXPECT_FALSE(file.IsOpen());
}

TEST_F(SerializerLife, CanBeWrittenAgainAfterItWasRemoved) {
  DatasetSerializer file = File(9);
  file.WriteHeader(9, Start(2));
  file.CloseDatasetFile(9, true);
  EXPECT_EQ(file.WriteHeader(9, Start(0)), 44);
  EXPECT_EQ(Bytes(file.m_filePath).size(), 68U);
}

TEST_F(SerializerLife, ClosesAnOpenFileSilentlyWhenItGoes) {
  auto file = std::make_unique<DatasetSerializer>(9U, Volume(1), m_base);
  const std::string path = file->m_filePath;
  FileCalls calls;
  ASSERT_EQ(file->WriteHeader(9, Start(0)), 44);
  calls.Take();
  Log();
  file.reset();
  EXPECT_EQ(calls.Take(), (Lines{"close file"}));
  EXPECT_EQ(Log(), Lines{});
  EXPECT_EQ(Bytes(path).size(), 68U);
}

TEST_F(SerializerLife, GoesWithoutACallWhenItIsClosed) {
  auto file = std::make_unique<DatasetSerializer>(9U, Volume(1), m_base);
  file->WriteHeader(9, Start(0));
  file->CloseDatasetFile(9, false);
  Log();
  FileCalls calls;
  file.reset();
  EXPECT_EQ(calls.Take(), Lines{});
  EXPECT_EQ(Log(), Lines{});
}

TEST_F(SerializerLife, StaysOpenWhenTheSyncFails) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  file.WriteHeader(9, Start(0));
  const int fd = file.m_fd;
  calls.Take();
  Log();
  calls.Fail("fsync", 1, -1, EIO);
  EXPECT_EQ(file.CloseDatasetFile(9, true), -1);
  EXPECT_EQ(Log(), (Lines{"E DatasetSerializer::CloseDatasetFile() DSS: fsync() failed for dataset "
                          "file DS N: 9 errno:  5"}));
  EXPECT_EQ(calls.Take(), (Lines{"fsync file"}));
  EXPECT_EQ(file.m_fd, fd);
  EXPECT_TRUE(Exists(file.m_filePath));
  EXPECT_EQ(file.CloseDatasetFile(9, true), 0) << "the host may try again";
  EXPECT_FALSE(Exists(file.m_filePath));
}

TEST_F(SerializerLife, DoesNotLookAtTheResultOfClose) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  file.WriteHeader(9, Start(0));
  calls.Take();
  Log();
  calls.Fail("close", 1, -1, EIO);
  EXPECT_EQ(file.CloseDatasetFile(9, false), 0);
  EXPECT_EQ(calls.Take(), (Lines{"fsync file", "close file"}));
  EXPECT_EQ(Log(), (Lines{kClosed}));
  EXPECT_FALSE(file.IsOpen());
}

TEST_F(SerializerLife, ReportsAFailedRemovalByItsResultAlone) {
  DatasetSerializer file = File(9);
  FileCalls calls;
  file.WriteHeader(9, Start(0));
  calls.Take();
  Log();
  calls.Fail("unlink", 1, -1, EACCES);
  EXPECT_EQ(file.CloseDatasetFile(9, true), -1);
  EXPECT_EQ(calls.Take(), (Lines{"fsync file", "close file", "unlink " + file.m_filePath}));
  EXPECT_EQ(Log(), (Lines{kClosed,
                          "N DatasetSerializer::CloseDatasetFile() DSS: N: 9 closing and "
                          "deleting datatset file " +
                              file.m_filePath}));
  EXPECT_FALSE(file.IsOpen());
  EXPECT_TRUE(Exists(file.m_filePath));
}

TEST_F(SerializerLife, ReportsTheRemovalOfAFileThatHasGone) {
  DatasetSerializer file = File(9);
  file.WriteHeader(9, Start(0));
  std::filesystem::remove(file.m_filePath);
  EXPECT_EQ(file.CloseDatasetFile(9, true), -1);
  EXPECT_FALSE(file.IsOpen());
}

}  // namespace
