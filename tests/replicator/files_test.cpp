// SPDX-License-Identifier: Apache-2.0
// Goal: what others could have read or written is not used. Method: files in a folder of the test.
#include "replicator/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/replicator/rig.h"

namespace penstock {
namespace {

class Files : public testing::Test {
 protected:
  TempFolder m_folder;
  std::string m_text;
};

TEST_F(Files, AFileIsReadUpToItsLimit) {
  const auto path = WriteText(m_folder / "f", "12345");
  EXPECT_EQ(ReadSmallFile(path, 5, FilePrivacy::kNobodyReads, m_text), "");
  EXPECT_EQ(m_text, "12345");
  EXPECT_EQ(ReadSmallFile(path, 4, FilePrivacy::kNobodyReads, m_text),
            path + " is too large: at most 4 bytes are read");
}

TEST_F(Files, WhatNeedsNoSecrecyMayBeReadByOthers) {
  const auto path = WriteText(m_folder / "f", "x", 0664);
  EXPECT_EQ(ReadSmallFile(path, 5, FilePrivacy::kNobodyWrites, m_text), "");
}

TEST_F(Files, AFileOfAnotherUserIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to give a file away";
  const auto path = WriteText(m_folder / "f", "x");
  ASSERT_EQ(::chown(path.c_str(), 4711, 4711), 0);
  EXPECT_EQ(ReadSmallFile(path, 5, FilePrivacy::kNobodyWrites, m_text),
            path + " belongs to another user; make it yours or root's (chown)");
}

TEST_F(Files, ANewFileIsPrivateAndNeverReplacesOne) {
  const auto path = m_folder / "f";
  ASSERT_EQ(WriteNewFile(path, "first"), "");
  EXPECT_EQ(ModeOf(path), 0600U);
  EXPECT_NE(WriteNewFile(path, "second"), "");
  EXPECT_EQ(ReadText(path), "first");
}

TEST_F(Files, ADirectoryIsMadePrivate) {
  const auto path = m_folder / "d";
  ASSERT_EQ(MakePrivateDirectory(path), "");
  EXPECT_EQ(ModeOf(path), 0700U);
  EXPECT_EQ(MakePrivateDirectory(path), "");
}

TEST_F(Files, ADirectoryThatIsOpenToOthersIsRefused) {
  const auto path = m_folder / "d";
  ASSERT_EQ(MakePrivateDirectory(path), "");
  ASSERT_EQ(::chmod(path.c_str(), 0750), 0);
  EXPECT_EQ(MakePrivateDirectory(path), path + " is open to others; run: chmod 700 " + path);
  EXPECT_EQ(CheckPrivateDirectory(path), path + " is open to others; run: chmod 700 " + path);
}

TEST_F(Files, AFileIsNoDirectory) {
  const auto path = WriteText(m_folder / "f", "x");
  EXPECT_EQ(MakePrivateDirectory(path), path + " is not a directory");
}

TEST_F(Files, ADirectoryNeedsItsParent) {
  EXPECT_EQ(MakePrivateDirectory(m_folder / "a/b"),
            "can't make the directory " + (m_folder / "a/b") + ": No such file or directory");
}

TEST(DirectoryOf, IsThePathUpToTheLastName) {
  EXPECT_EQ(DirectoryOf("a"), ".");
  EXPECT_EQ(DirectoryOf("/a"), "/");
  EXPECT_EQ(DirectoryOf("/a/b"), "/a");
  EXPECT_EQ(DirectoryOf("a//b/"), "a");
  EXPECT_EQ(DirectoryOf("/"), "/");
  EXPECT_EQ(DirectoryOf(""), ".");
}

TEST(Fd, IsClosedOnceByItsLastOwner) {
  int number = -1;
  {
    Fd first(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    number = first.Get();
    Fd second(std::move(first));
    first = std::move(second);
    EXPECT_EQ(first.Get(), number);
    EXPECT_EQ(second.Get(), -1);  // NOLINT(bugprone-use-after-move): what is left is defined
  }
  EXPECT_EQ(::fcntl(number, F_GETFD), -1);
}

}  // namespace
}  // namespace penstock
