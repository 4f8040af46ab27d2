// SPDX-License-Identifier: Apache-2.0
// Goal: a directory path is there afterwards, or the answer says that it is not. Method: real
// directories below a temporary one.
#include "penstock/host/file_system.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

class CreateDirPath : public testing::Test {
 protected:
  CreateDirPath() {
    std::string pattern = (std::filesystem::temp_directory_path() / "dir-path-XXXXXX").string();
    m_root = ::mkdtemp(pattern.data());
  }
  ~CreateDirPath() override { std::filesystem::remove_all(m_root); }

  std::string Below(const std::string& path) const { return m_root + "/" + path; }
  void MakeFile(const std::string& path) const { std::ofstream(Below(path)) << "x"; }
  bool IsDirectory(const std::string& path) const {
    return std::filesystem::is_directory(Below(path));
  }

  std::string m_root;
};

TEST_F(CreateDirPath, MakesEveryMissingDirectory) {
  EXPECT_TRUE(FileSystem::CreateDirPath(Below("a/b/c")));
  EXPECT_TRUE(IsDirectory("a/b/c"));
}

TEST_F(CreateDirPath, MayEndInASlash) {
  EXPECT_TRUE(FileSystem::CreateDirPath(Below("a/b/")));
  EXPECT_TRUE(IsDirectory("a/b"));
}

TEST_F(CreateDirPath, MayHaveDoubledSlashesAndDots) {
  EXPECT_TRUE(FileSystem::CreateDirPath(Below("a//b/./c/../d")));
  EXPECT_TRUE(IsDirectory("a/b/d"));
}

TEST_F(CreateDirPath, IsTrueForADirectoryThatExistsAndKeepsWhatIsInIt) {
  ASSERT_TRUE(FileSystem::CreateDirPath(Below("a")));
  MakeFile("a/file");
  EXPECT_TRUE(FileSystem::CreateDirPath(Below("a")));
  EXPECT_TRUE(std::filesystem::exists(Below("a/file")));
  EXPECT_TRUE(FileSystem::CreateDirPath("/"));
}

TEST_F(CreateDirPath, IsTrueForALinkToADirectory) {
  ASSERT_TRUE(FileSystem::CreateDirPath(Below("real")));
  std::filesystem::create_directory_symlink(Below("real"), Below("link"));
  EXPECT_TRUE(FileSystem::CreateDirPath(Below("link/inside")));
  EXPECT_TRUE(IsDirectory("real/inside"));
}

TEST_F(CreateDirPath, IsFalseWhereAFileIsInTheWay) {
  MakeFile("file");
  EXPECT_FALSE(FileSystem::CreateDirPath(Below("file")));
  EXPECT_FALSE(FileSystem::CreateDirPath(Below("file/b")));
  EXPECT_TRUE(std::filesystem::is_regular_file(Below("file")));
}

TEST_F(CreateDirPath, IsFalseForAnEmptyPath) { EXPECT_FALSE(FileSystem::CreateDirPath("")); }

TEST_F(CreateDirPath, IsFalseForANameThatIsTooLong) {
  EXPECT_FALSE(FileSystem::CreateDirPath(Below(std::string(300, 'x'))));
}

TEST_F(CreateDirPath, ObeysTheProcessesMask) {
  const mode_t before = ::umask(0077);
  EXPECT_TRUE(FileSystem::CreateDirPath(Below("private")));
  ::umask(before);
  struct stat info {};
  ASSERT_EQ(::stat(Below("private").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0700U);
}

TEST_F(CreateDirPath, IsTrueForEachOfSeveralThreadsThatMakeTheSame) {
  std::atomic<int> made{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        if (FileSystem::CreateDirPath(Below("shared/" + std::to_string(i) + "/a/b"))) ++made;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(made.load(), 200);
  EXPECT_TRUE(IsDirectory("shared/49/a/b"));
}

}  // namespace
