// SPDX-License-Identifier: Apache-2.0
// What a source finds when it starts, as a bad disk or a stranger leaves it: its state file, and
// the files of its spool. Whole files, damaged ones, and such as are under a wrong name or of
// another dataset than their neighbours. What counts must be datasets of which every file is there,
// is whole and says the same; what is sent of them follows, without a gap, what the target has.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "capture/disk_store.h"
#include "engine/source_engine.h"
#include "engine/spool.h"
#include "fuzz/byte_source.h"
#include "fuzz/scratch_folder.h"

namespace {

using penstock::Bytes;
using penstock::DatasetStart;
using penstock::SourceState;
using penstock::SpooledDataset;
using ByteString = std::vector<std::uint8_t>;
using Key = std::pair<std::uint64_t, std::size_t>;  // number, volume

const std::vector<std::string> kNames = {"a", "b", "c"};
constexpr const char* kGroup = "g";

const std::string& Folder() {
  static const ScratchFolder folder;
  return folder.Path();
}

// --- The state. ---

bool IsSame(const SourceState& a, const SourceState& b) {
  return a.epoch == b.epoch && a.flushed == b.flushed && a.age == b.age && a.kept == b.kept;
}

void ReadState(const std::uint8_t* data, std::size_t size) {
  const std::string path = Folder() + "/source.json";
  WriteWhole(path, ByteString(data, data + size));
  SourceState state;
  if (!penstock::ReadSourceState(Folder(), kGroup, state).empty()) return;
  // What was read is what is written, and the other way round.
  FUZZ_CHECK(penstock::WriteSourceState(Folder(), kGroup, state).empty());
  SourceState again;
  FUZZ_CHECK(penstock::ReadSourceState(Folder(), kGroup, again).empty());
  FUZZ_CHECK(IsSame(state, again));
  FUZZ_CHECK(!penstock::ReadSourceState(Folder(), "h", again).empty());
}

// --- Dataset files. ---

class MemoryFile : public penstock::FileBytes {
 public:
  explicit MemoryFile(const ByteString& bytes) : m_bytes(bytes) {}
  std::uint64_t Size() const override { return m_bytes.size(); }
  bool Read(std::uint64_t offset, std::uint8_t* out, std::size_t size) override {
    FUZZ_CHECK(offset <= m_bytes.size() && size <= m_bytes.size() - offset);
    if (size > 0) std::memcpy(out, m_bytes.data() + offset, size);
    return true;
  }

 private:
  const ByteString& m_bytes;
};

void Append(ByteString& file, DPPCmdType type, Bytes record) {
  const auto command = penstock::FileCommand(static_cast<std::uint32_t>(record.size()), type);
  file.insert(file.end(), command.begin(), command.end());
  file.insert(file.end(), record.begin(), record.end());
}

// Mostly one of group g, of volumes that the group has.
DatasetStart SomeStart(ByteSource& in) {
  DatasetStart start;
  start.n = in.Below(8);
  start.timestampMs = in.Below(3);
  start.group = penstock::GroupId(in.Below(16) == 0 ? "h" : kGroup);
  start.datasetType = in.Below(16) == 0 ? 2 : 0;
  start.flags = in.Below(8) == 0 ? in.Byte() : 0;
  const std::uint32_t volumes = in.Byte();
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    if ((volumes >> i & 1U) != 0) start.volumes.push_back(penstock::VolumeId(kGroup, kNames[i]));
  }
  if ((volumes & 0x30U) == 0x30U) start.volumes.push_back(penstock::VolumeId(kGroup, "a"));
  if ((volumes & 0xc0U) == 0xc0U) start.volumes.push_back(penstock::VolumeId(kGroup, "z"));
  return start;
}

ByteString Written(ByteSource& in, const DatasetStart& start) {
  ByteString file;
  penstock::DatasetFileSum sum;
  const auto record = penstock::SpoolRecordOf(start);
  const Bytes bytes(reinterpret_cast<const std::uint8_t*>(record.get()),
                    44 + std::size_t{16} * record->count);
  sum.AddStart(bytes);
  Append(file, DPPCmdType::DatasetStartv2, bytes);
  for (std::uint32_t i = in.Below(3); i > 0; --i) {
    const penstock::Extent zeros[] = {{in.Offset(), 1U + in.Byte()}};
    const auto block = penstock::PackZeros(static_cast<std::uint8_t>(in.Below(3)), zeros);
    sum.AddBlock(*block);
    Append(file, DPPCmdType::CompressedData, penstock::RecordBytes(*block));
  }
  Append(file, DPPCmdType::CompressedData, penstock::RecordBytes(*sum.MakeTrailer()));
  return file;
}

// One file of a spool: whole and rightly named for the most part.
void AddFile(ByteSource& in, std::map<Key, ByteString>& files, DatasetStart& start) {
  if (in.Below(4) == 0) start = SomeStart(in);
  if (in.Below(4) == 0) start.timestampMs = in.Below(3);  // another dataset of that number
  ByteString file = Written(in, start);
  const std::size_t at = (in.Byte() * 256U + in.Byte()) % file.size();
  switch (in.Below(12)) {
    case 0: file.resize(at); break;
    case 1: file[at] ^= static_cast<std::uint8_t>(1U << in.Below(8)); break;
    case 2: file.insert(file.end(), in.Byte(), in.Byte()); break;
    case 3: file.clear(); break;
    default: break;
  }
  const std::uint64_t n = in.Below(16) == 0 ? in.Below(8) : start.n;
  files[{n, in.Below(static_cast<std::uint32_t>(kNames.size()))}] = std::move(file);
}

std::map<Key, ByteString> SomeFiles(ByteSource& in) {
  std::map<Key, ByteString> files;
  DatasetStart start = SomeStart(in);
  // A few datasets as they should be, so that there are some which count.
  for (std::uint32_t i = in.Below(5); i > 0; --i) {
    ++start.n;
    for (std::size_t v = 0; v < kNames.size(); ++v) {
      const auto id = penstock::VolumeId(kGroup, kNames[v]);
      if (std::count(start.volumes.begin(), start.volumes.end(), id) == 0) continue;
      files[{start.n, v}] = Written(in, start);
    }
  }
  for (std::uint32_t i = in.Below(5); i > 0; --i) AddFile(in, files, start);
  return files;
}

bool IsSame(const DatasetStart& a, const penstock::DatasetFileStart& b) {
  return a.n == b.n && a.timestampMs == b.timestampMs && a.group == b.group &&
         a.datasetType == b.datasetType && a.flags == b.flags && a.volumes == b.volumes;
}

// That all of a dataset is there, and is one dataset.
void CheckFound(const SpooledDataset& found, const std::map<Key, ByteString>& files) {
  FUZZ_CHECK(found.start.group == penstock::GroupId(kGroup) && found.start.datasetType == 0);
  FUZZ_CHECK(!found.start.volumes.empty());
  std::uint64_t bytes = 0;
  std::size_t count = 0;
  for (std::size_t v = 0; v < kNames.size(); ++v) {
    const auto id = penstock::VolumeId(kGroup, kNames[v]);
    const auto& volumes = found.start.volumes;
    if (std::find(volumes.begin(), volumes.end(), id) == volumes.end()) continue;
    const auto place = files.find({found.start.n, v});
    FUZZ_CHECK(place != files.end());
    MemoryFile file(place->second);
    penstock::DatasetFileVisitor visitor;
    visitor.start = [&](const penstock::DatasetFileStart& start) {
      FUZZ_CHECK(IsSame(found.start, start));
    };
    penstock::DatasetFileTotals totals;
    FUZZ_CHECK(penstock::ReadDatasetFile(file, visitor, &totals).text.empty() && totals.whole);
    std::vector<penstock::BlockPtr> blocks;
    FUZZ_CHECK(penstock::ReadSpoolFile(file, found.start.n, blocks).empty());
    FUZZ_CHECK(blocks.size() == totals.blocks);
    bytes += place->second.size();
    ++count;
  }
  FUZZ_CHECK(count == found.start.volumes.size() && bytes == found.bytes);
}

std::vector<SpooledDataset> Scanned(const std::map<Key, ByteString>& files) {
  penstock::SpoolScan scan(penstock::GroupId(kGroup));
  for (const auto& [key, bytes] : files) {
    MemoryFile file(bytes);
    scan.Add(penstock::VolumeId(kGroup, kNames[key.second]), key.first, file);
  }
  return scan.Whole();
}

bool IsSame(const std::vector<SpooledDataset>& a, const std::vector<SpooledDataset>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
    const DatasetStart& s = y.start;
    return IsSame(x.start, {s.n, s.timestampMs, s.group, s.datasetType, s.flags, s.volumes}) &&
           x.bytes == y.bytes;
  });
}

// --- What is sent of it. ---

// A source that finds these datasets, and a target that has everything up to `durable`. What it
// reads back must be what follows that, one by one; at a gap it gives the whole spool up.
void Adopt(const std::vector<SpooledDataset>& found, std::uint64_t durable) {
  const penstock::Moment now{1000, 1000};
  penstock::SourceConfig config;
  config.group = kGroup;
  penstock::CaptureOptions options;
  for (const std::string& name : kNames) {
    config.volumes.push_back({name, 1U << 20U});
    options.volumes.push_back({penstock::VolumeId(kGroup, name), 1U << 20U});
  }
  penstock::Capture capture(options);
  config.feed = &capture;
  config.epoch = 1;
  config.spoolBytes = 1U << 30U;
  config.spooled = found;
  config.random = [](std::span<std::uint8_t> out) { std::fill(out.begin(), out.end(), 1); };
  penstock::SourceEngine engine(std::move(config));
  engine.Start(now);
  engine.Connected(1, now);
  penstock::Welcome welcome;
  welcome.epoch = 1;
  welcome.durable = welcome.applied = welcome.flushed = durable;
  welcome.window = 1U << 20U;
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    welcome.volumes.push_back({penstock::VolumeState::kGood, durable, 1U << 20U});
  }
  engine.Received(1, Encode(welcome), now);

  std::uint64_t run = 0;
  bool hasGap = false;
  for (const SpooledDataset& each : found) {
    if (each.start.n <= durable) continue;
    hasGap = hasGap || each.start.n != durable + run + 1;
    ++run;
  }
  std::size_t drops = 0;
  for (const penstock::SourceCommand& command : engine.TakeCommands()) {
    if (std::holds_alternative<penstock::SpoolDrop>(command)) ++drops;
    if (const auto* removed = std::get_if<penstock::SpoolRemove>(&command)) {
      FUZZ_CHECK(removed->start.n <= durable);
    }
    if (const auto* read = std::get_if<penstock::SpoolRead>(&command)) {
      FUZZ_CHECK(!hasGap && read->start.n == durable + 1);
    }
  }
  const auto& status = engine.Status();
  FUZZ_CHECK(drops == (hasGap ? 1 : 0) && status.overflows == drops);
  FUZZ_CHECK(status.spooledDatasets == (hasGap ? 0 : run));
  if (!hasGap) FUZZ_CHECK(status.closed == durable + run);
}

// --- The same in a folder. ---

std::string PathOf(const std::string& age, const Key& key) {
  return penstock::Journal(age).PathOf(kGroup, kNames[key.second], key.first);
}

void PutInto(const std::string& age, const std::map<Key, ByteString>& files) {
  for (const auto& [key, bytes] : files) {
    const std::string path = PathOf(age, key);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    WriteWhole(path, bytes);
  }
}

// Things that nobody of ours has put there.
void PutStrangers(ByteSource& in, const std::string& spool, const std::string& age) {
  static const char* const kStrangers[] = {"/journal/g/x.ds", "/journal/h/0000000000000001.ds",
                                           "/journal/x", "/y", "/journal/g/z/0000000000000001.ds"};
  for (std::uint32_t i = in.Below(3); i > 0; --i) {
    const std::string path = age + kStrangers[in.Below(std::size(kStrangers))];
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
    if (!error && !std::filesystem::exists(path)) WriteWhole(path, {1, 2, 3});
  }
  if (in.Flag()) std::filesystem::create_directories(spool + "/age-" + std::to_string(in.Byte()));
}

void ScanFolder(ByteSource& in, const std::map<Key, ByteString>& files) {
  const std::string spool = Folder() + "/spool";
  std::filesystem::remove_all(spool);
  std::filesystem::create_directories(spool);
  std::filesystem::permissions(spool, std::filesystem::perms::owner_all);
  SourceState state{1, 0, 300U + in.Byte()};
  const std::string age = spool + "/age-" + std::to_string(state.age);
  std::filesystem::create_directories(age);
  std::filesystem::permissions(age, std::filesystem::perms::owner_all);
  PutInto(age, files);
  PutStrangers(in, spool, age);

  std::vector<std::unique_ptr<penstock::LiveVolume>> volumes;
  for (const std::string& name : kNames) {
    volumes.push_back(std::make_unique<penstock::LiveVolume>());
    volumes.back()->name = name;
  }
  const auto expected = Scanned(files);
  for (int start = 0; start < 2; ++start) {
    penstock::DiskStore store(Folder(), spool, kGroup, state, volumes);
    std::vector<SpooledDataset> found;
    const auto fault = store.Prepare(found);
    if (!fault.empty()) return;  // a stranger is in the way; it is said
    FUZZ_CHECK(IsSame(found, expected));
    for (const SpooledDataset& each : found) {
      const auto loaded = store.Read({1, each.start});
      FUZZ_CHECK(loaded.status == penstock::IoStatus::kOk && loaded.error.empty());
    }
    // The next start has another age, and finds the same.
    const std::uint64_t before = state.age;
    FUZZ_CHECK(penstock::ReadSourceState(Folder(), kGroup, state).empty());
    FUZZ_CHECK(state.age == before + 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ByteSource in(data, size);
  const std::uint8_t choice = in.Byte();
  if (choice % 8 == 0) {
    if (size > 1) ReadState(data + 1, size - 1);
    return 0;
  }
  const auto files = SomeFiles(in);
  const auto found = Scanned(files);
  std::uint64_t last = 0;
  for (const SpooledDataset& each : found) {
    FUZZ_CHECK(&each == &found.front() || each.start.n > last);
    last = each.start.n;
    CheckFound(each, files);
  }
  Adopt(found, in.Below(8));
  if (choice % 8 == 1) ScanFolder(in, files);
  return 0;
}
