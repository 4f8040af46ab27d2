// SPDX-License-Identifier: Apache-2.0
// Goal: state and spool come back as they were, or not at all; what was given up never comes back.
// Method: stores in a folder of the test, opened again and again; their files are cut and moved.
#include "capture/disk_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "engine/wire/messages.h"
#include "replicator/log.h"
#include "tests/engine/engine_rig.h"
#include "tests/replicator/rig.h"

namespace penstock {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

std::string WithPoints(const std::string& points) {
  return R"({"group":"g","epoch":1,"flushed":2,"age":3,"points":)" + points + "}";
}

std::string StateText(const SourceState& state) {
  return "e" + Number(state.epoch) + " f" + Number(state.flushed) + " a" + Number(state.age);
}

// --- The state. ---

class SourceStates : public testing::Test {
 protected:
  std::string Read(const std::string& group = "g") {
    m_state = {7, 8, 9};
    return ReadSourceState(m_folder.Path(), group, m_state);
  }
  TempFolder m_folder;
  SourceState m_state;
};

TEST_F(SourceStates, WhereNoneIsNothingIsChanged) {
  EXPECT_EQ(Read(), "");
  EXPECT_EQ(StateText(m_state), "e7 f8 a9");
}

TEST_F(SourceStates, WhatWasWrittenLastComesBack) {
  ASSERT_EQ(WriteSourceState(m_folder.Path(), "g", {1, 2, 3}), "");
  ASSERT_EQ(WriteSourceState(m_folder.Path(), "g", {4, ~std::uint64_t{0}, 6}), "");
  EXPECT_EQ(Read(), "");
  EXPECT_EQ(StateText(m_state), "e4 f18446744073709551615 a6");
  EXPECT_EQ(ModeOf(m_folder / "source.json"), 0600U);
  EXPECT_FALSE(fs::exists(m_folder / "source.json.new"));
}

TEST_F(SourceStates, AnotherGroupsIsRefused) {
  ASSERT_EQ(WriteSourceState(m_folder.Path(), "other", {1, 2, 3}), "");
  EXPECT_EQ(Read(), m_folder.Path() +
                        " belongs to group other; give each group a state directory of its own");
}

TEST_F(SourceStates, WhatWasKeptIsWrittenAndOneOfAnEarlierVersionKeptNothing) {
  ASSERT_EQ(WriteSourceState(m_folder.Path(), "g", {1, 2, 3, {}, 7}), "");
  ASSERT_EQ(Read(), "");
  EXPECT_EQ(m_state.kept, 7U);
  WriteText(m_folder / "source.json", R"({"group":"g","epoch":1,"flushed":2,"age":3})");
  ASSERT_EQ(Read(), "");
  EXPECT_EQ(m_state.kept, 0U);
}

// As a source writes it whose link is down for long: the longest names, all characters in quotes.
TEST_F(SourceStates, AsManyPointsAsAreKeptAreRead) {
  SourceState state{1, 2, 3, {}};
  for (std::uint64_t n = 1; n <= kMaxPoints; ++n) {
    state.names.push_back({n, ~std::uint64_t{0}, std::string(kMaxPointNameBytes, '"')});
  }
  ASSERT_EQ(WriteSourceState(m_folder.Path(), "g", state), "");
  ASSERT_EQ(Read(), "");
  EXPECT_EQ(m_state.names, state.names);
  state.names.push_back({kMaxPoints + 1, 0, "one more"});
  ASSERT_EQ(WriteSourceState(m_folder.Path(), "g", state), "");
  EXPECT_THAT(Read(), HasSubstr("is damaged"));
}

TEST_F(SourceStates, ADamagedOneIsRefusedWithWhatToDo) {
  ASSERT_EQ(WriteSourceState(m_folder.Path(), "g", {1, 2, 3}), "");
  const std::string path = m_folder / "source.json";
  const std::string whole = ReadText(path);
  const std::vector<std::string> damaged = {
      "",
      "x",
      "[]",
      "7",
      "{}",
      whole.substr(0, whole.size() / 2),
      R"({"group":"g","epoch":1,"flushed":2})",
      R"({"group":"g","epoch":1,"age":2})",
      WithPoints("7"),
      WithPoints(R"([7])"),
      WithPoints(R"([{"n":1,"timestampMs":1}])"),
      WithPoints(R"([{"n":1,"name":"x"}])"),
      WithPoints(R"([{"n":-1,"timestampMs":1,"name":"x"}])"),
      WithPoints(R"([{"n":1,"timestampMs":1,"name":""}])"),
      WithPoints(R"([{"n":1,"timestampMs":1,"name":"\u0007"}])"),
      R"({"group":"g","flushed":1,"age":2})",
      R"({"epoch":1,"flushed":1,"age":2})",
      R"({"group":1,"epoch":1,"flushed":1,"age":2})",
      R"({"group":"g","epoch":-1,"flushed":1,"age":2})",
      R"({"group":"g","epoch":1,"flushed":"1","age":2})",
      R"({"group":"g","epoch":1,"flushed":1,"age":2.5})"};
  for (const std::string& text : damaged) {
    WriteText(path, text);
    EXPECT_EQ(Read(), path +
                          " is damaged; remove it to take the group up anew, which compares "
                          "everything")
        << text;
  }
}

TEST_F(SourceStates, OneThatOthersMayWriteIsNotTrusted) {
  ASSERT_EQ(WriteSourceState(m_folder.Path(), "g", {1, 2, 3}), "");
  fs::permissions(m_folder / "source.json", fs::perms{0622});
  EXPECT_THAT(Read(), HasSubstr(m_folder / "source.json"));
}

TEST_F(SourceStates, AWriteThatFailsLeavesTheOldState) {
  ASSERT_EQ(WriteSourceState(m_folder.Path(), "g", {1, 2, 3}), "");
  fs::create_directory(m_folder / "source.json.new");
  EXPECT_NE(WriteSourceState(m_folder.Path(), "g", {4, 5, 6}), "");
  EXPECT_EQ(Read(), "");
  EXPECT_EQ(StateText(m_state), "e1 f2 a3");
}

TEST_F(SourceStates, WhatACrashLeftOfAWriteIsInNobodysWay) {
  WriteText(m_folder / "source.json.new", "half a sta");
  ASSERT_EQ(WriteSourceState(m_folder.Path(), "g", {1, 2, 3}), "");
  EXPECT_EQ(Read(), "");
  EXPECT_EQ(StateText(m_state), "e1 f2 a3");
}

// --- The spool. ---

constexpr std::uint64_t kStoreVolume = 4 * kMiB;

class Store : public testing::Test {
 protected:
  void SetUp() override {
    SetLogOutput([this](std::string_view line) { m_log += line; });
    for (const char* name : {"a", "b", "c"}) AddVolume(name);
    std::vector<CaptureVolume> captured;
    for (const auto& volume : m_volumes) captured.push_back({volume->map->Id(), kStoreVolume});
    m_capture = std::make_unique<Capture>(CaptureOptions{.volumes = captured});
    for (std::size_t i = 0; i < m_volumes.size(); ++i) {
      ASSERT_EQ(m_volumes[i]->map->Load(*m_capture, static_cast<std::uint8_t>(i)), "");
    }
    ASSERT_EQ(Open(), "");
  }
  void TearDown() override { SetLogOutput({}); }

  void AddVolume(const std::string& name) {
    auto volume = std::make_unique<LiveVolume>();
    volume->name = name;
    std::unique_ptr<VolumeFile> file;
    ASSERT_EQ(VolumeFile::Open(m_folder / (name + ".img"),
                               {.write = true, .create = true, .createSize = kStoreVolume}, file),
              "");
    volume->file = std::move(file);
    std::string note;
    ASSERT_EQ(MapFile::Open(m_folder / (name + ".map"), VolumeId("g", name), kStoreVolume,
                            ChangeMap::kDefaultExtentBytes, volume->map, note),
              "");
    m_volumes.push_back(std::move(volume));
  }
  // As a process that starts. Returns what is wrong; what it finds is in Found().
  std::string Open() {
    m_store = nullptr;
    SourceState state;
    if (auto fault = ReadSourceState(m_folder.Path(), "g", state); !fault.empty()) return fault;
    m_store = std::make_unique<DiskStore>(m_folder.Path(), m_spool, "g", state, m_volumes);
    m_found.clear();
    m_log.clear();
    return m_store->Prepare(m_found);
  }
  // "1 2": the datasets that the start offers.
  std::string Found() const {
    std::string text;
    for (const SpooledDataset& found : m_found) {
      text += (text.empty() ? "" : " ") + Number(found.start.n);
    }
    return text;
  }

  static DatasetStart StartOf(std::uint64_t n, const std::vector<std::string>& names = {"a"}) {
    DatasetStart start;
    start.n = n;
    start.timestampMs = 1000 + n;
    start.group = GroupId("g");
    for (const std::string& name : names) start.volumes.push_back(VolumeId("g", name));
    return start;
  }
  static BlockPtr BlockOf(std::uint8_t volume, std::uint64_t offset = 0, std::size_t size = 4096) {
    const ByteList data = Noise(size, offset + volume + 1);
    const Piece piece{offset, data};
    return PackBlock(volume, {&piece, 1}, {});
  }
  void Write(const DatasetStart& start, const std::vector<BlockPtr>& blocks) {
    const SpoolDone done = m_store->Write({11, start, blocks});
    EXPECT_EQ(done.ticket, 11U);
    EXPECT_EQ(done.status, IoStatus::kOk) << done.error;
    EXPECT_NE(done.writer, nullptr);
  }
  void ExpectBlocks(const DatasetStart& start, const std::vector<BlockPtr>& blocks) {
    const SpoolLoaded loaded = m_store->Read({12, start});
    EXPECT_EQ(loaded.ticket, 12U);
    EXPECT_EQ(loaded.status, IoStatus::kOk) << loaded.error;
    ASSERT_EQ(loaded.blocks.size(), blocks.size());
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      EXPECT_TRUE(std::ranges::equal(RecordBytes(*loaded.blocks[i]), RecordBytes(*blocks[i]))) << i;
    }
  }
  std::string FileOf(const std::string& volume, std::uint64_t n) const {
    return m_store->m_journal->PathOf("g", volume, n);
  }
  // The names below the spool.
  std::vector<std::string> Ages() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(m_spool)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  TempFolder m_folder;
  std::string m_spool = m_folder / "spool";
  std::vector<std::unique_ptr<LiveVolume>> m_volumes;
  std::unique_ptr<Capture> m_capture;
  std::unique_ptr<DiskStore> m_store;
  std::vector<SpooledDataset> m_found;
  std::string m_log;
};

TEST_F(Store, ADatasetComesBackWithItsBlocksInOrder) {
  DatasetStart start = StartOf(5);
  start.flags = kStartSyncComplete;
  const std::vector<BlockPtr> blocks = {BlockOf(0, 8192), BlockOf(0, 0), BlockOf(0, 8192)};
  Write(start, blocks);
  ExpectBlocks(start, blocks);
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(Found(), "5");
  EXPECT_TRUE(std::ranges::equal(Encode(m_found[0].start).Payload(), Encode(start).Payload()));
  EXPECT_EQ(m_found[0].bytes, fs::file_size(FileOf("a", 5)));
  ExpectBlocks(m_found[0].start, blocks);
}

TEST_F(Store, ADatasetOfSeveralVolumesComesBack) {
  const DatasetStart start = StartOf(1, {"c", "a", "b"});
  const std::vector<BlockPtr> blocks = {BlockOf(0), BlockOf(0, 4096), BlockOf(1), BlockOf(2)};
  const SpoolDone done = m_store->Write({1, start, blocks});
  ASSERT_EQ(done.status, IoStatus::kOk) << done.error;
  std::uint64_t bytes = 0;
  for (const char* name : {"a", "b", "c"}) bytes += fs::file_size(FileOf(name, 1));
  EXPECT_EQ(done.bytes, bytes);
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(Found(), "1");
  EXPECT_EQ(m_found[0].start.volumes, start.volumes);
  EXPECT_EQ(m_found[0].bytes, bytes);
  ExpectBlocks(start, blocks);
}

TEST_F(Store, AnEmptyDatasetComesBack) {
  Write(StartOf(3), {});
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(Found(), "3");
  ExpectBlocks(StartOf(3), {});
}

TEST_F(Store, DatasetsAreFoundInTheirOrder) {
  for (const std::uint64_t n : {300U, 2U, 17U}) Write(StartOf(n), {BlockOf(0)});
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(Found(), "2 17 300");
}

TEST_F(Store, AFileWithoutItsEndIsRemovedAtTheStartAndNotOffered) {
  Write(StartOf(1), {BlockOf(0)});
  Write(StartOf(2), {BlockOf(0)});
  const std::string path = FileOf("a", 2);
  fs::resize_file(path, fs::file_size(path) - 1);
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(Found(), "1");
  EXPECT_FALSE(fs::exists(path));
  EXPECT_THAT(m_log, HasSubstr("a file of the spool is not whole; what it held is compared"));
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(Found(), "1");
  EXPECT_EQ(m_log, "");
}

TEST_F(Store, ADatasetThatLacksOneOfItsFilesIsNotOffered) {
  Write(StartOf(1, {"a", "b"}), {BlockOf(0), BlockOf(1)});
  fs::remove(FileOf("b", 1));
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(Found(), "");
}

TEST_F(Store, ADatasetTakesThePlaceOfOneThatWasNotWhole) {
  const DatasetStart start = StartOf(1, {"a", "b"});
  Write(start, {BlockOf(0, 4096), BlockOf(1, 4096)});
  fs::remove(FileOf("b", 1));
  ASSERT_EQ(Open(), "");
  Write(start, {BlockOf(0), BlockOf(1)});
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(Found(), "1");
  ExpectBlocks(start, {BlockOf(0), BlockOf(1)});
}

TEST_F(Store, WhatCannotBeReadBackIsDamaged) {
  Write(StartOf(4), {BlockOf(0)});
  const std::string path = FileOf("a", 4);
  std::string file = ReadText(path);
  file[file.size() / 2] = static_cast<char>(file[file.size() / 2] ^ 1);
  WriteText(path, file);
  const SpoolLoaded loaded = m_store->Read({1, StartOf(4)});
  EXPECT_EQ(loaded.status, IoStatus::kDamaged);
  EXPECT_THAT(loaded.error, HasSubstr("dataset 4: "));
  EXPECT_EQ(m_store->Read({1, StartOf(5)}).status, IoStatus::kDamaged);
  const SpoolLoaded other = m_store->Read({1, StartOf(4, {"z"})});
  EXPECT_EQ(other.error, "dataset 4: it is of a volume that is not served");
}

TEST_F(Store, WhatIsRemovedIsNotOfferedAgain) {
  const DatasetStart both = StartOf(1, {"a", "b"});
  Write(both, {BlockOf(0), BlockOf(1)});
  Write(StartOf(2), {BlockOf(0)});
  m_store->Remove({both});
  EXPECT_FALSE(fs::exists(FileOf("a", 1)));
  EXPECT_FALSE(fs::exists(FileOf("b", 1)));
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(Found(), "2");
}

TEST_F(Store, DropRemovesEverythingAndRaisesTheAgeDurably) {
  Write(StartOf(1), {BlockOf(0)});
  Write(StartOf(2), {BlockOf(0)});
  const SpoolDone done = m_store->Drop({21});
  EXPECT_EQ(done.ticket, 21U);
  EXPECT_EQ(done.status, IoStatus::kOk) << done.error;
  EXPECT_THAT(Ages(), ElementsAre("age-2"));
  SourceState state;
  ASSERT_EQ(ReadSourceState(m_folder.Path(), "g", state), "");
  EXPECT_EQ(state.age, 2U);
  Write(StartOf(2), {BlockOf(0, 4096)});
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(Found(), "2");
  ExpectBlocks(StartOf(2), {BlockOf(0, 4096)});
}

TEST_F(Store, NamesOfPointsAreKeptUntilTheSpoolIsGivenUp) {
  m_store->Keep(KeepNames{{{4, 70, "eve \"x\""}, {~std::uint64_t{0}, 71, "z"}}});
  SourceState state;
  ASSERT_EQ(ReadSourceState(m_folder.Path(), "g", state), "");
  EXPECT_EQ(state.names,
            (std::vector<PointRecord>{{4, 70, "eve \"x\""}, {~std::uint64_t{0}, 71, "z"}}));
  ASSERT_EQ(Open(), "");
  m_store->Keep(Checkpoint{1, 5, 6});
  state = {};
  ASSERT_EQ(ReadSourceState(m_folder.Path(), "g", state), "");
  EXPECT_EQ(state.names.size(), 2U) << "a checkpoint leaves them";
  m_store->Drop({1});
  state = {};
  ASSERT_EQ(ReadSourceState(m_folder.Path(), "g", state), "");
  EXPECT_TRUE(state.names.empty());
}

TEST_F(Store, ADropThatIsNotDurableLeavesTheSpool) {
  Write(StartOf(1), {BlockOf(0)});
  fs::create_directory(m_folder / "source.json.new");
  const SpoolDone done = m_store->Drop({21});
  EXPECT_EQ(done.status, IoStatus::kFailed);
  EXPECT_NE(done.error, "");
  EXPECT_THAT(Ages(), ElementsAre("age-1"));
}

TEST_F(Store, WhatASpoolHeldThatWasElsewhereForAWhileIsNotFoundAgain) {
  Write(StartOf(1), {BlockOf(0)});
  const std::string first = std::exchange(m_spool, m_folder / "other");
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(Found(), "");
  m_spool = first;
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(Found(), "") << "others are durable at the target by now";
}

TEST_F(Store, ASpoolIsTheSameHoweverItsPathIsWritten) {
  Write(StartOf(1), {BlockOf(0)});
  for (const char* more : {"/", "//", "/."}) {
    m_spool = m_folder / "spool" + more;
    ASSERT_EQ(Open(), "");
    EXPECT_EQ(Found(), "1") << more;
  }
}

// As after a crash between the new age and the removal of the old one's files.
TEST_F(Store, FilesOfAnotherAgeAreRemovedAtTheStart) {
  Write(StartOf(1), {BlockOf(0)});
  ASSERT_EQ(WriteSourceState(m_folder.Path(), "g", {1, 0, 5}), "");
  fs::create_directory(m_spool + "/age-77");
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(Found(), "");
  EXPECT_THAT(Ages(), ElementsAre("age-6"));
}

TEST_F(Store, WithoutASpoolNothingIsMade) {
  fs::remove_all(m_spool);
  m_spool.clear();
  ASSERT_EQ(Open(), "");
  EXPECT_THAT(m_found, IsEmpty());
  EXPECT_FALSE(fs::exists(m_folder / "spool"));
}

TEST_F(Store, AWriteThatFailsIsNoDataset) {
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  struct rlimit before {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const struct rlimit low { 64 * kKiB, before.rlim_max };
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &low), 0);
  const SpoolDone done = m_store->Write({1, StartOf(1), {BlockOf(0), BlockOf(0, 0, kMiB)}});
  ::setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(done.status, IoStatus::kNoSpace) << done.error;
  EXPECT_THAT(done.error, HasSubstr("can't write " + FileOf("a", 1)));
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(Found(), "");
}

// --- Marks. ---

TEST_F(Store, ACheckpointIsInTheStateAndKeepsTheAge) {
  ASSERT_EQ(m_store->Drop({1}).status, IoStatus::kOk);
  const CheckpointDone done = m_store->Keep({31, 4, 99});
  EXPECT_EQ(done.ticket, 31U);
  EXPECT_EQ(done.status, IoStatus::kOk) << done.error;
  SourceState state;
  ASSERT_EQ(ReadSourceState(m_folder.Path(), "g", state), "");
  EXPECT_EQ(StateText(state), "e4 f99 a2");
}

TEST_F(Store, ACheckpointOfVolumesThatCannotBeSyncedIsNone) {
  m_volumes[1]->file->m_syncFailed = true;
  EXPECT_EQ(m_store->Keep({31, 4, 99}).status, IoStatus::kFailed);
  SourceState state;
  ASSERT_EQ(ReadSourceState(m_folder.Path(), "g", state), "");
  EXPECT_EQ(StateText(state), "e0 f0 a1") << "as it was";
}

TEST_F(Store, SavingWritesTheMapsOfAllVolumes) {
  // Everything is stale after a first start: it is taken, so that there is something to be cleared.
  m_capture->Begin({});
  for (std::uint8_t i = 0; i < 3; ++i) m_capture->TakeStale(i, 1, kStoreVolume);
  m_capture->Flushed(1);
  m_capture->Cool();
  m_capture->BeginClear();
  m_capture->EndClear();
  std::vector<std::string> before;
  for (const auto& volume : m_volumes) before.push_back(ReadText(volume->map->m_path));
  const CheckpointDone done = m_store->Save({41});
  EXPECT_EQ(done.ticket, 41U);
  EXPECT_EQ(done.status, IoStatus::kOk) << done.error;
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_NE(ReadText(m_volumes[i]->map->m_path), before[i]) << i;
    EXPECT_EQ(m_capture->UnsavedGeneration(static_cast<std::uint8_t>(i)), 0U);
  }
}

TEST_F(Store, AMapThatCannotBeSavedIsNamed) {
  m_capture->Begin({});
  m_capture->TakeStale(1, 1, kStoreVolume);
  m_capture->Flushed(1);
  m_capture->Cool();
  m_capture->BeginClear();
  m_capture->EndClear();
  m_volumes[1]->map->m_isStuck = true;
  const CheckpointDone done = m_store->Save({41});
  EXPECT_EQ(done.status, IoStatus::kFailed);
  EXPECT_EQ(done.error, "the change map of b can't be written");
}

TEST_F(Store, ARangeIsHeldOffUntilItIsGivenBack) {
  auto held = m_store->HoldOff(1, 4096, 4096);
  const RangeLock::Hold other(m_volumes[0]->lock, 4096, 4096);
  auto writer = std::async(std::launch::async, [this] {
    const RangeLock::Hold mine(m_volumes[1]->lock, 0, 8192);
    return true;
  });
  const auto waiting = [this] {
    const std::lock_guard lock(m_volumes[1]->lock.m_mutex);
    return m_volumes[1]->lock.m_entries.size() == 2;
  };
  while (!waiting()) std::this_thread::yield();
  EXPECT_NE(writer.wait_for(std::chrono::milliseconds(0)), std::future_status::ready);
  held.reset();
  EXPECT_TRUE(writer.get());
}

}  // namespace
}  // namespace penstock
