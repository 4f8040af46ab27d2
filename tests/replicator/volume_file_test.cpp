// SPDX-License-Identifier: Apache-2.0
// Goal: whole reads and writes or a text that says what failed where; never beyond the volume; no
// two users of one volume; sparse files stay sparse. Method: files in a folder of the test, a loop
// device where the machine lets us have one.
#include "replicator/volume_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "replicator/mounts.h"
#include "tests/replicator/pages.h"
#include "tests/replicator/rig.h"

namespace penstock {
namespace {

constexpr std::uint64_t kMega = 1U << 20U;

class VolumeFiles : public testing::Test {
 protected:
  // Opens a file for writing, made with `size` zeros where there is none.
  std::unique_ptr<VolumeFile> Make(std::uint64_t size, const std::string& name = "v.img") {
    std::unique_ptr<VolumeFile> file;
    EXPECT_EQ(VolumeFile::Open(m_folder / name, {.write = true, .create = true, .createSize = size},
                               file),
              "");
    return file;
  }

  std::string Open(const std::string& path, const VolumeOptions& options) {
    return VolumeFile::Open(path, options, m_file);
  }

  static std::vector<std::uint8_t> Filled(std::size_t size, std::uint8_t value) {
    return std::vector<std::uint8_t>(size, value);
  }

  static std::string ReadBack(const VolumeFile& file, std::uint64_t offset, std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    const auto fault = file.Read(offset, bytes);
    return fault.empty() ? std::string(bytes.begin(), bytes.end()) : fault;
  }

  // The ranges with data, in MiB: "[1,2) [5,8) ".
  static std::string DataOf(const VolumeFile& file) {
    std::string text;
    for (std::uint64_t at = 0; at < file.Size();) {
      std::uint64_t begin = 0;
      std::uint64_t end = 0;
      EXPECT_EQ(file.NextData(at, begin), "");
      if (begin == file.Size()) break;
      EXPECT_EQ(file.NextHole(begin, end), "");
      text += "[" + std::to_string(begin / kMega) + "," + std::to_string(end / kMega) + ") ";
      at = end;
    }
    return text;
  }

  TempFolder m_folder;
  std::unique_ptr<VolumeFile> m_file;
};

TEST_F(VolumeFiles, OneIsMadeOfZerosAndIsPrivate) {
  const auto file = Make(3 * kMega + 1);
  EXPECT_TRUE(file->WasCreated());
  EXPECT_FALSE(file->IsDevice());
  EXPECT_EQ(file->Size(), 3 * kMega + 1);
  EXPECT_EQ(ModeOf(file->Path()), 0600U);
  EXPECT_EQ(ReadBack(*file, 3 * kMega, 1), std::string(1, '\0'));
  EXPECT_EQ(DataOf(*file), "");
}

TEST_F(VolumeFiles, OneThatIsThereKeepsItsSizeAndBytes) {
  const auto path = WriteText(m_folder / "v.img", "hello");
  ASSERT_EQ(Open(path, {.write = true, .create = true, .createSize = 100}), "");
  EXPECT_FALSE(m_file->WasCreated());
  EXPECT_EQ(m_file->Size(), 5U);
  EXPECT_EQ(ReadBack(*m_file, 0, 5), "hello");
}

TEST_F(VolumeFiles, PiecesAreWrittenOneBehindTheOther) {
  const auto file = Make(1000);
  const auto a = Filled(3, 'a');
  const auto b = Filled(2, 'b');
  const std::vector<Bytes> pieces{a, {}, b};
  ASSERT_EQ(file->Write(10, pieces), "");
  EXPECT_EQ(ReadBack(*file, 9, 7), std::string("\0aaabb\0", 7));
}

TEST_F(VolumeFiles, AnyNumberOfPiecesIsWritten) {
  const auto file = Make(kMega);
  const auto a = Filled(7, 'a');
  const auto b = Filled(5, 'b');
  std::vector<Bytes> pieces;
  std::string expected;
  for (int i = 0; i < 2'000; ++i) {
    pieces.emplace_back(i % 3 == 0 ? Bytes(b) : i % 3 == 1 ? Bytes(a) : Bytes());
    expected.append(pieces.back().begin(), pieces.back().end());
  }
  ASSERT_EQ(file->Write(1, pieces), "");
  EXPECT_EQ(ReadBack(*file, 1, expected.size()), expected);
}

TEST_F(VolumeFiles, ReadingAndWritingStayWithin) {
  const auto file = Make(1000);
  const auto bytes = Filled(2, 'x');
  EXPECT_EQ(file->Write(998, bytes), "");
  EXPECT_EQ(file->Write(999, bytes),
            "can't write 2 bytes at 999 of " + file->Path() + ": it has 1000 bytes");
  EXPECT_NE(file->Write(~std::uint64_t{0}, bytes), "");
  EXPECT_EQ(ReadBack(*file, 1000, 1),
            "can't read 1 bytes at 1000 of " + file->Path() + ": it has 1000 bytes");
  EXPECT_NE(file->Zero(1, ~std::uint64_t{0}), "");
  EXPECT_EQ(ReadText(file->Path()).size(), 1000U);
}

TEST_F(VolumeFiles, AFileThatGotShorterIsToldFromAnEnd) {
  const auto file = Make(1000);
  ASSERT_EQ(::truncate(file->Path().c_str(), 500), 0);
  EXPECT_EQ(ReadBack(*file, 400, 200),
            file->Path() + " has become shorter than its 1000 bytes while it was read");
}

TEST_F(VolumeFiles, ZerosPunchHoles) {
  const auto file = Make(8 * kMega);
  ASSERT_EQ(file->Write(0, Filled(8 * kMega, 'x')), "");
  ASSERT_EQ(file->Sync(), "");
  ASSERT_EQ(file->Zero(2 * kMega, 3 * kMega), "");
  EXPECT_EQ(DataOf(*file), "[0,2) [5,8) ");
  EXPECT_EQ(ReadBack(*file, 5 * kMega - 1, 2), std::string("\0x", 2));
  EXPECT_EQ(ReadBack(*file, 2 * kMega - 1, 2), std::string("x\0", 2));
}

TEST_F(VolumeFiles, ZerosAreWrittenWhereHolesCantBe) {
  const auto file = Make(3 * kMega);
  ASSERT_EQ(file->Write(0, Filled(3 * kMega, 'x')), "");
  file->m_canPunch = false;
  ASSERT_EQ(file->Zero(1, 2 * kMega), "");
  EXPECT_EQ(ReadBack(*file, 0, 2 * kMega + 2), "x" + std::string(2 * kMega, '\0') + "x");
}

TEST_F(VolumeFiles, DataAndHolesAreFound) {
  const auto file = Make(16 * kMega);
  EXPECT_EQ(DataOf(*file), "");
  ASSERT_EQ(file->Write(4 * kMega, Filled(kMega, 'x')), "");
  ASSERT_EQ(file->Write(15 * kMega, Filled(kMega, 'x')), "");
  EXPECT_EQ(DataOf(*file), "[4,5) [15,16) ");
  std::uint64_t found = 0;
  ASSERT_EQ(file->NextData(16 * kMega, found), "");
  EXPECT_EQ(found, 16 * kMega);
  ASSERT_EQ(file->NextData(~std::uint64_t{0}, found), "");
  EXPECT_EQ(found, 16 * kMega);
}

TEST_F(VolumeFiles, GrowsByAHoleAndNeverShrinks) {
  const auto file = Make(kMega);
  ASSERT_EQ(file->Write(0, Filled(kMega, 'x')), "");
  ASSERT_EQ(file->Grow(2 * kMega), "");
  EXPECT_EQ(file->Size(), 2 * kMega);
  EXPECT_EQ(ReadBack(*file, 2 * kMega - 1, 1), std::string(1, '\0'));
  EXPECT_EQ(file->Grow(kMega), "can't shrink " + file->Path() + " from 2097152 to 1048576 bytes");
  EXPECT_NE(file->Grow(~std::uint64_t{0}), "");
  EXPECT_EQ(file->Size(), 2 * kMega);
}

TEST_F(VolumeFiles, AWriterExcludesEverybody) {
  const auto file = Make(kMega);
  EXPECT_EQ(Open(file->Path(), {.write = true}), file->Path() + " is in use by another penstock");
  EXPECT_EQ(Open(file->Path(), {}), file->Path() + " is in use by another penstock");
  EXPECT_EQ(Open(file->Path(), {.lock = false}), "");
}

TEST_F(VolumeFiles, ReadersExcludeAWriterOnly) {
  const auto path = WriteText(m_folder / "v.img", "x");
  std::unique_ptr<VolumeFile> first;
  ASSERT_EQ(VolumeFile::Open(path, {}, first), "");
  EXPECT_EQ(Open(path, {.sequential = true}), "");
  EXPECT_EQ(Open(path, {.write = true}), path + " is in use by another penstock");
}

TEST_F(VolumeFiles, ALockEndsWithItsOwner) {
  auto file = Make(kMega);
  file = nullptr;
  EXPECT_EQ(Open(m_folder / "v.img", {.write = true}), "");
}

TEST_F(VolumeFiles, WhatIsNoVolumeIsRefused) {
  EXPECT_EQ(Open(m_folder.Path(), {}),
            m_folder.Path() + " is neither a regular file nor a block device");
  const auto pipe = m_folder / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(Open(pipe, {}), pipe + " is neither a regular file nor a block device");
  EXPECT_EQ(Open("/dev/null", {}), "/dev/null is neither a regular file nor a block device");
  EXPECT_EQ(Open(m_folder / "none", {.write = true}),
            "can't open " + (m_folder / "none") + ": No such file or directory");
  EXPECT_EQ(Open(m_folder / "none/v.img", {.write = true, .create = true}),
            "can't create " + (m_folder / "none/v.img") + ": No such file or directory");
}

TEST_F(VolumeFiles, AFullDiskIsTold) {
  const auto file = Make(64 * kMega);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit low{kMega, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &low), 0);
  const auto fault = file->Write(kMega, Filled(10, 'x'));
  ::setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(fault, "can't write 10 bytes at 1048576 of " + file->Path() + ": File too large");
}

TEST_F(VolumeFiles, AFileThatCantBeMadeWholeIsNotLeftBehind) {
  EXPECT_NE(
      Open(m_folder / "v.img", {.write = true, .create = true, .createSize = ~std::uint64_t{0}}),
      "");
  EXPECT_FALSE(std::filesystem::exists(m_folder / "v.img"));
}

TEST_F(VolumeFiles, AFailedSyncStays) {
  const auto file = Make(kMega);
  ASSERT_EQ(file->Sync(), "");
  EXPECT_EQ(file->SyncBy([](int) {
    errno = EIO;
    return -1;
  }),
            "can't sync " + file->Path() + ": Input/output error");
  EXPECT_EQ(file->Sync(), "can't sync " + file->Path() +
                              ": an earlier sync failed, and what it lost is not known");
}

TEST_F(VolumeFiles, PagesAreForgotten) {
  if (LivesInMemory(m_folder.Path())) GTEST_SKIP() << "files live in memory here";
  auto file = Make(3 * kMega);
  ASSERT_EQ(file->Write(0, Filled(3 * kMega, 'x')), "");
  ASSERT_EQ(file->Sync(), "");
  const std::string path = m_folder / "v.img";
  ASSERT_EQ(PagesInMemory(path, 0, 3 * kMega), 3 * kMega / 4096);
  file->ForgetPages();
  EXPECT_EQ(PagesInMemory(path, 0, 3 * kMega), 0U);
  EXPECT_EQ(ReadBack(*file, kMega, 3), "xxx");
}

TEST_F(VolumeFiles, ManyThreadsMayUseOne) {
  const auto file = Make(4 * kMega);
  std::vector<std::thread> threads;
  for (std::uint8_t t = 0; t < 4; ++t) {
    threads.emplace_back([&file, t] {
      const auto bytes = Filled(kMega, static_cast<std::uint8_t>('a' + t));
      EXPECT_EQ(file->Write(t * kMega, bytes), "");
      EXPECT_EQ(file->Sync(), "");
      std::uint64_t found = 0;
      EXPECT_EQ(file->NextData(t * kMega, found), "");
      EXPECT_EQ(ReadBack(*file, t * kMega, kMega), std::string(bytes.begin(), bytes.end()));
    });
  }
  for (auto& thread : threads) thread.join();
}

TEST(MountPoint, IsFoundByTheDevicesNumber) {
  const std::string table =
      "22 1 8:1 / / rw,relatime - ext4 /dev/sda1 rw\n"
      "36 22 253:17 /sub /mnt/with\\040blank\\134 rw shared:1 - xfs /dev/dm-17 rw\n";
  EXPECT_EQ(MountPointOf(table, 8, 1), "/");
  EXPECT_EQ(MountPointOf(table, 253, 17), "/mnt/with blank\\");
  EXPECT_EQ(MountPointOf(table, 8, 11), "");
  EXPECT_EQ(MountPointOf(table, 253, 1), "");
}

TEST(MountPoint, DamagedTablesAreHarmless) {
  EXPECT_EQ(MountPointOf("", 8, 1), "");
  EXPECT_EQ(MountPointOf("\n \n1 2 8:1\n8:1", 8, 1), "");
  EXPECT_EQ(MountPointOf("1 2 8:1 / /a\\04", 8, 1), "/a\\04");
}

// A file behind a loop device, where this machine gives us one.
class LoopDevice : public VolumeFiles {
 protected:
  void SetUp() override {
    m_path = m_folder / "disk";
    std::ofstream(m_path).close();
    std::filesystem::resize_file(m_path, 16 * kMega);
    const auto list = m_folder / "device";
    if (!Command("mkfs.ext4 -q -F " + m_path) ||
        !Command("losetup --show -f " + m_path + " > " + list)) {
      GTEST_SKIP() << "needs root, loop devices and mkfs.ext4";
    }
    m_device = ReadText(list);
    m_device.pop_back();
    std::filesystem::create_directory(m_folder / "mnt");
  }
  void TearDown() override {
    Command("umount " + (m_folder / "mnt"));
    if (!m_device.empty()) Command("losetup -d " + m_device);
  }
  static bool Command(const std::string& line) {
    return std::system((line + " 2>/dev/null").c_str()) == 0;
  }
  bool Mount() { return Command("mount " + m_device + " " + (m_folder / "mnt")); }

  std::string m_path;
  std::string m_device;
};

TEST_F(LoopDevice, IsAVolume) {
  ASSERT_EQ(Open(m_device, {.write = true}), "");
  EXPECT_TRUE(m_file->IsDevice());
  EXPECT_EQ(m_file->Size(), 16 * kMega);
  ASSERT_EQ(m_file->Write(kMega, Filled(3 * kMega, 'x')), "");
  ASSERT_EQ(m_file->Zero(2 * kMega + 1, kMega), "");
  ASSERT_EQ(m_file->Sync(), "");
  EXPECT_EQ(ReadBack(*m_file, 2 * kMega, 3), std::string("x\0\0", 3));
  EXPECT_EQ(ReadBack(*m_file, 3 * kMega, 2), std::string("\0x", 2));
  EXPECT_EQ(DataOf(*m_file), "[0,16) ");
  EXPECT_EQ(m_file->Grow(17 * kMega),
            m_device + " is a device of 16777216 bytes, too small for 17825792");
}

TEST_F(LoopDevice, ThatIsMountedIsRefused) {
  if (!Mount()) GTEST_SKIP() << "needs to mount";
  EXPECT_EQ(Open(m_device, {.write = true}),
            m_device + " is mounted at " + (m_folder / "mnt") + "; unmount it first");
  EXPECT_EQ(Open(m_path, {.write = true}),
            m_path + " is mounted at " + (m_folder / "mnt") + "; unmount it first");
}

TEST_F(LoopDevice, ThatIsMountedMayBeReadAndIsTold) {
  if (!Mount()) GTEST_SKIP() << "needs to mount";
  ASSERT_EQ(Open(m_device, {}), "");
  EXPECT_EQ(m_file->MountedAt(), m_folder / "mnt");
}

}  // namespace
}  // namespace penstock
