// SPDX-License-Identifier: Apache-2.0
// Goal: a mark is on disk before a write may go on; what can't be believed makes everything stale,
// and says so; a map that can't be written does not stay. Method: maps in a folder of the test,
// written by hand, damaged and looked at through the file; the system's sync is watched and made
// to wait.
#include "capture/map_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "engine/wire/messages.h"
#include "replicator/log.h"
#include "tests/replicator/rig.h"

namespace penstock {
namespace {

// What every sync of this program asks first: 0, or the error number that it fails with.
std::function<int()> g_onSync;  // NOLINT(cert-err58-cpp): an empty function

}  // namespace
}  // namespace penstock

extern "C" int fdatasync(int fildes) {
  const int error = penstock::g_onSync ? penstock::g_onSync() : 0;
  if (error != 0) {
    errno = error;
    return -1;
  }
  return static_cast<int>(::syscall(SYS_fdatasync, fildes));
}

namespace penstock {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint64_t kMapExtent = 4096;
constexpr std::uint64_t kMapVolume = 16 * kMapExtent;
using Bits = std::array<std::uint8_t, kMapSectorBytes - kMapHashBytes>;

class MapOnDisk : public testing::Test {
 protected:
  void SetUp() override {
    SetLogOutput([this](std::string_view line) { m_log += line; });
    UseVolume(kMapVolume);
  }
  void TearDown() override {
    g_onSync = nullptr;
    SetLogOutput({});
  }

  void UseVolume(std::uint64_t bytes, std::uint64_t extent = kMapExtent) {
    m_header = {VolumeId("any", "map"), VolumeId("g", "a"), bytes, extent};
  }
  // Opens the map and loads it into a capture of its own. Returns what is wrong.
  std::string Open() {
    m_map.reset();
    m_note.clear();
    auto fault = MapFile::Open(Path(), m_header.volume, m_header.volumeBytes, m_header.extentBytes,
                               m_map, m_note);
    if (!fault.empty()) return fault;
    CaptureOptions options;
    options.volumes = {{m_map->Id(), m_header.volumeBytes}};
    options.extentBytes = m_header.extentBytes;
    m_capture = std::make_unique<Capture>(options);
    return m_map->Load(*m_capture, 0);
  }
  // A map of the header, with the same bits in every sector.
  void WriteMap(std::uint8_t bits) const {
    std::string file;
    const auto add = [&](const MapSector& sector) { file.append(sector.begin(), sector.end()); };
    add(Encode(m_header));
    Bits all{};
    all.fill(bits);
    for (std::uint64_t i = 1; i < MapSectors(m_header.volumeBytes, m_header.extentBytes); ++i) {
      add(EncodeBits(m_header.id, i - 1, all));
    }
    WriteText(Path(), file);
  }
  void OpenClean() {
    WriteMap(0);
    ASSERT_EQ(Open(), "");
    ASSERT_EQ(m_capture->TotalStale(), 0U);
  }
  // "110...": the first sector's bits, as the file has them now; "damaged".
  std::string BitsOnDisk() const {
    const std::string file = ReadText(Path());
    MapSector sector{};
    if (file.size() < 2 * kMapSectorBytes) return "missing";
    std::copy_n(file.begin() + kMapSectorBytes, kMapSectorBytes, sector.begin());
    if (!CheckBits(m_map->Id(), 0, sector)) return "damaged";
    std::string text;
    for (std::uint64_t i = 0; i < m_header.volumeBytes / m_header.extentBytes; ++i) {
      text += (sector[i / 8] >> (i % 8) & 1U) != 0 ? '1' : '0';
    }
    return text;
  }
  void Damage(std::size_t at) const {
    std::string file = ReadText(Path());
    file.at(at) = static_cast<char>(file.at(at) ^ 1);
    WriteText(Path(), file);
  }
  // The map is opened, and nothing is believed of the volume: now, and at the start after.
  void ExpectAllStale(const std::string& note) {
    EXPECT_EQ(Open(), "");
    EXPECT_EQ(m_note, note.empty() ? "" : note + "; all of it is compared");
    EXPECT_EQ(m_capture->TotalStale(), m_header.volumeBytes);
    m_log.clear();
    EXPECT_EQ(Open(), "");
    EXPECT_EQ(m_note, "");
    EXPECT_EQ(m_log, "");
    EXPECT_EQ(m_capture->TotalStale(), m_header.volumeBytes);
  }
  std::uint64_t Begin(std::uint64_t extent) {
    return m_capture->BeginWrite(0, extent * kMapExtent, kMapExtent);
  }
  std::string Path() const { return m_folder / "a.map"; }

  TempFolder m_folder;
  MapHeader m_header;
  std::unique_ptr<Capture> m_capture;
  std::unique_ptr<MapFile> m_map;
  std::string m_note;
  std::string m_log;
};

// --- Opening. ---

TEST_F(MapOnDisk, WithoutAMapEverythingIsStale) {
  ExpectAllStale("it has no change map");
  EXPECT_EQ(ModeOf(Path()), 0600U);
  EXPECT_EQ(BitsOnDisk(), std::string(16, '1'));
}

TEST_F(MapOnDisk, AMapComesBackWithItsMarks) {
  WriteMap(0b00000101);
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(m_note, "");
  EXPECT_EQ(m_log, "");
  EXPECT_EQ(m_map->Id(), m_header.id);
  EXPECT_EQ(m_capture->TotalStale(), 4 * kMapExtent);
  EXPECT_EQ(m_capture->TakeStale(0, 1, kMapVolume).front(), (ChangeMap::Range{0, kMapExtent}));
}

TEST_F(MapOnDisk, AnotherVolumesMapMakesEverythingStale) {
  WriteMap(0);
  m_header.volume = VolumeId("g", "b");
  ExpectAllStale(Path() + " is the map of another volume");
}

TEST_F(MapOnDisk, AnotherSizeMakesEverythingStale) {
  WriteMap(0);
  UseVolume(2 * kMapVolume);
  ExpectAllStale("it had 65536 bytes before, and has 131072 now");
}

TEST_F(MapOnDisk, OtherExtentsMakeEverythingStale) {
  WriteMap(0);
  UseVolume(kMapVolume, 2 * kMapExtent);
  ExpectAllStale("the size of its extents was changed");
}

TEST_F(MapOnDisk, ADamagedHeaderMakesEverythingStale) {
  WriteMap(0);
  Damage(40);
  ExpectAllStale(Path() + ": its header is damaged");
}

TEST_F(MapOnDisk, AFileThatIsNoMapMakesEverythingStale) {
  WriteText(Path(), std::string(4096, 'x'));
  ExpectAllStale(Path() + ": it is no change map");
}

TEST_F(MapOnDisk, ANewMapDoesNotBelieveTheBitsOfTheOld) {
  WriteMap(0);
  const UuidT before = m_header.id;
  m_header.volume = VolumeId("g", "b");
  ASSERT_EQ(Open(), "");
  EXPECT_NE(m_map->Id(), before);
}

TEST_F(MapOnDisk, OneDamagedSectorMakesEverythingStaleAndSaysSo) {
  UseVolume(2 * kExtentsPerSector * kMapExtent + 1);
  for (const std::size_t sector : {1U, 2U, 3U}) {
    WriteMap(0);
    Damage(sector * kMapSectorBytes + 3);
    m_log.clear();
    ASSERT_EQ(Open(), "");
    EXPECT_THAT(m_log, HasSubstr("a change map is damaged; all of its volume is compared"));
    ExpectAllStale("");
  }
}

TEST_F(MapOnDisk, AMapThatIsCutOffMakesEverythingStale) {
  UseVolume(2 * kExtentsPerSector * kMapExtent);
  WriteMap(0);
  std::filesystem::resize_file(Path(), 3 * kMapSectorBytes - 1);
  ASSERT_EQ(Open(), "");
  EXPECT_THAT(m_log, HasSubstr("a change map is damaged"));
  ExpectAllStale("");
}

// As a crash leaves it between the header of a new map and its bits.
TEST_F(MapOnDisk, SectorsOfAnotherMapAreNotBelieved) {
  WriteMap(0);
  const std::string bits = ReadText(Path()).substr(kMapSectorBytes);
  m_header.id = VolumeId("any", "other");
  const MapSector header = Encode(m_header);
  WriteText(Path(), std::string(header.begin(), header.end()) + bits);
  ASSERT_EQ(Open(), "");
  EXPECT_THAT(m_log, HasSubstr("a change map is damaged"));
  ExpectAllStale("");
}

TEST_F(MapOnDisk, WhatCannotBeOpenedIsRefused) {
  std::filesystem::create_symlink(m_folder / "elsewhere", Path());
  EXPECT_THAT(Open(), HasSubstr("can't open " + Path() + ": "));
  EXPECT_EQ(m_map, nullptr);
  EXPECT_FALSE(std::filesystem::exists(m_folder / "elsewhere"));
}

TEST_F(MapOnDisk, ANewMapThatCannotBeSyncedIsRefused) {
  g_onSync = [] { return EIO; };
  EXPECT_THAT(Open(), HasSubstr("can't sync " + Path() + ": "));
}

// --- Marks. ---

TEST_F(MapOnDisk, AMarkIsOnDiskAndSyncedBeforeEnsureSavedReturns) {
  OpenClean();
  std::vector<std::string> synced;
  g_onSync = [&] {
    synced.push_back(BitsOnDisk());
    return 0;
  };
  EXPECT_TRUE(m_map->EnsureSaved(Begin(3)));
  EXPECT_THAT(synced, ElementsAre("0001000000000000"));
  EXPECT_TRUE(m_map->EnsureSaved(Begin(0)));
  EXPECT_THAT(synced, ElementsAre("0001000000000000", "1001000000000000"));
}

TEST_F(MapOnDisk, WhatIsSavedIsNotWrittenAgain) {
  OpenClean();
  const std::uint64_t generation = Begin(3);
  EXPECT_TRUE(m_map->EnsureSaved(generation));
  EXPECT_TRUE(m_map->EnsureSaved(generation));
  EXPECT_EQ(Begin(3), 0U);
  EXPECT_TRUE(m_map->SaveAll());
  EXPECT_EQ(m_map->Saves(), 1U);
}

TEST_F(MapOnDisk, ManyThreadsShareOneSave) {
  OpenClean();
  std::vector<std::uint64_t> generations;
  for (std::uint64_t extent = 0; extent < 16; ++extent) generations.push_back(Begin(extent));
  std::atomic<int> saved = 0;
  std::vector<std::thread> threads;
  threads.reserve(generations.size());
  for (const std::uint64_t generation : generations) {
    threads.emplace_back([&, generation] { saved += m_map->EnsureSaved(generation) ? 1 : 0; });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(saved, 16);
  EXPECT_EQ(m_map->Saves(), 1U);
  EXPECT_EQ(BitsOnDisk(), std::string(16, '1'));
}

TEST_F(MapOnDisk, WhoComesDuringASaveWaitsForTheNextWithAllWhoDid) {
  OpenClean();
  std::promise<void> begun;
  std::promise<void> goOn;
  auto mayGoOn = goOn.get_future();
  std::atomic<int> syncs = 0;
  g_onSync = [&] {
    if (++syncs > 1) return 0;
    begun.set_value();
    mayGoOn.wait();
    return 0;
  };
  std::vector<std::future<bool>> saved;
  const auto save = [&](std::uint64_t generation) {
    saved.push_back(std::async(std::launch::async,
                               [this, generation] { return m_map->EnsureSaved(generation); }));
  };
  save(Begin(0));
  ASSERT_EQ(begun.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  for (const std::uint64_t extent : {1U, 2U, 3U}) save(Begin(extent));
  // The sync under way does not cover them.
  for (const std::uint64_t i : {1U, 2U, 3U}) {
    EXPECT_NE(saved[i].wait_for(std::chrono::milliseconds(0)), std::future_status::ready);
  }
  goOn.set_value();
  for (auto& each : saved) EXPECT_TRUE(each.get());
  EXPECT_EQ(syncs, 2);
  EXPECT_EQ(BitsOnDisk(), "1111000000000000");
}

TEST_F(MapOnDisk, WhatTheTargetHasIsClearedOnDiskToo) {
  OpenClean();
  m_capture->Begin({});
  ASSERT_TRUE(m_map->EnsureSaved(Begin(5)));
  m_capture->Captured({0, 5 * kMapExtent, kMapExtent, nullptr});
  std::vector<CapturedWrite> taken;
  m_capture->TakeWrites(1, taken);
  m_capture->Flushed(1);
  m_capture->Cool();
  m_capture->BeginClear();
  m_capture->EndClear();
  EXPECT_EQ(BitsOnDisk(), "0000010000000000");
  EXPECT_TRUE(m_map->SaveAll());
  EXPECT_EQ(BitsOnDisk(), std::string(16, '0'));
}

TEST_F(MapOnDisk, AWriteThatEndedInNoDatasetIsStaleAtTheNextStart) {
  OpenClean();
  ASSERT_TRUE(m_map->EnsureSaved(Begin(15)));
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(m_capture->TotalStale(), kMapExtent);
}

// --- Maps that can't be written. ---

TEST_F(MapOnDisk, AMapThatCannotBeWrittenIsRemovedAndWritesGoOn) {
  OpenClean();
  m_map->m_fd.Reset(::open(Path().c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(m_map->EnsureSaved(Begin(1)));
  EXPECT_FALSE(std::filesystem::exists(Path()));
  EXPECT_THAT(m_log, HasSubstr("a change map can't be written and is removed"));
  m_log.clear();
  EXPECT_TRUE(m_map->EnsureSaved(Begin(2)));
  EXPECT_EQ(m_log, "");
  ExpectAllStale("it has no change map");
}

TEST_F(MapOnDisk, AMapThatCannotBeSyncedIsRemovedAndWritesGoOn) {
  OpenClean();
  g_onSync = [] { return EIO; };
  EXPECT_TRUE(m_map->EnsureSaved(Begin(1)));
  g_onSync = nullptr;
  EXPECT_FALSE(std::filesystem::exists(Path()));
  EXPECT_THAT(m_log, HasSubstr("can't sync"));
  EXPECT_TRUE(m_map->EnsureSaved(Begin(2)));
  ExpectAllStale("it has no change map");
}

TEST_F(MapOnDisk, AMapThatCanNeitherBeWrittenNorRemovedRefusesWrites) {
  OpenClean();
  m_map->m_fd.Reset(::open(Path().c_str(), O_RDONLY | O_CLOEXEC));
  std::filesystem::remove(Path());
  std::filesystem::create_directory(Path());  // which no unlink takes away
  EXPECT_FALSE(m_map->EnsureSaved(Begin(1)));
  EXPECT_THAT(m_log, HasSubstr("can neither be written nor removed: writes are refused"));
  EXPECT_FALSE(m_map->EnsureSaved(Begin(1)));
  EXPECT_FALSE(m_map->EnsureSaved(Begin(2)));
  EXPECT_FALSE(m_map->SaveAll());
}

}  // namespace
}  // namespace penstock
