// SPDX-License-Identifier: Apache-2.0
// Goal: where dataset files lie. Method: numbers at both sides of every digit's edge, against paths
// that are written out.
#include "tests/serializer/serializer_fixture.h"

namespace {

class DatasetPaths : public SerializerTest {
 protected:
  static std::string Folder(unsigned long n) {
    return DatasetBasePath("/var/q", UUID::MakeUUID(Volume(1)), n);
  }
  static std::string Path(std::uint64_t n) {
    return DatasetSerializer(n, Volume(1), "/var/q").m_filePath;
  }
  static std::string InVolume(const std::string& rest) {
    return std::string("/var/q/") + kVolume + "/" + rest;
  }
};

TEST_F(DatasetPaths, OfDatasetZero) {
  EXPECT_EQ(Folder(0), InVolume("00000000/00000/"));
  EXPECT_EQ(Path(0), InVolume("00000000/00000/0000000000000000.ds"));
}

TEST_F(DatasetPaths, ChangeTheFolderEvery4096Datasets) {
  EXPECT_EQ(Folder(4095), InVolume("00000000/00000/"));
  EXPECT_EQ(Folder(4096), InVolume("00000000/00001/"));
  EXPECT_EQ(Folder(8191), InVolume("00000000/00001/"));
  EXPECT_EQ(Path(4095), InVolume("00000000/00000/0000000000000fff.ds"));
  EXPECT_EQ(Path(4096), InVolume("00000000/00001/0000000000001000.ds"));
}

TEST_F(DatasetPaths, TakeTheHighWordForTheUpperFolder) {
  EXPECT_EQ(Folder(4294976325), InVolume("00000001/00002/"));
  EXPECT_EQ(Path(4294976325), InVolume("00000001/00002/0000000100002345.ds"));
  EXPECT_EQ(Folder(0xffffffff), InVolume("00000000/fffff/"));
  EXPECT_EQ(Folder(0x100000000), InVolume("00000001/00000/"));
}

TEST_F(DatasetPaths, AreInLowerCaseUpToTheLargestNumber) {
  EXPECT_EQ(Path(0xffffffffffffffff), InVolume("ffffffff/fffff/ffffffffffffffff.ds"));
  EXPECT_EQ(Path(0xabcdef0123456789), InVolume("abcdef01/23456/abcdef0123456789.ds"));
}

TEST_F(DatasetPaths, KeepTheBaseAsItIsGiven) {
  EXPECT_EQ(DatasetBasePath("", UUID::MakeUUID(Volume(1)), 0),
            std::string("/") + kVolume + "/00000000/00000/");
  EXPECT_EQ(DatasetBasePath("a/", UUID::MakeUUID(Volume(1)), 0),
            std::string("a//") + kVolume + "/00000000/00000/");
  EXPECT_EQ(DatasetBasePath("/100%", UUID::MakeUUID(Volume(1)), 0),
            std::string("/100%/") + kVolume + "/00000000/00000/");
}

TEST_F(DatasetPaths, SpellTheVolumeAsItsTextForm) {
  UuidT volume;
  for (std::size_t i = 0; i < 16; ++i) volume.bytes[i] = static_cast<std::uint8_t>(0xa0 + i);
  EXPECT_EQ(DatasetBasePath("/q", UUID::MakeUUID(volume), 0),
            "/q/a0a1a2a3-a4a5-a6a7-a8a9-aaabacadaeaf/00000000/00000/");
}

TEST_F(DatasetPaths, AreMadeByTheConstructorWithoutTouchingAFile) {
  FileCalls calls;
  const DatasetSerializer file = File(4096);
  EXPECT_EQ(file.m_fd, -1);
  EXPECT_EQ(file.m_dirPath, m_base + "/" + kVolume + "/00000000/00001/");
  EXPECT_EQ(file.m_filePath, file.m_dirPath + "0000000000001000.ds");
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(calls.Take(), Lines{});
  EXPECT_EQ(Log(), Lines{});
  EXPECT_TRUE(std::filesystem::is_empty(m_base));
}

}  // namespace
