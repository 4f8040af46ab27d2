// SPDX-License-Identifier: Apache-2.0
#include "capture/disk_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "engine/spool.h"
#include "replicator/log.h"

namespace penstock {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kMostStateBytes = 1U << 20U;  // kMaxPoints with their names are far less

std::string StatePath(const std::string& directory) { return directory + "/source.json"; }

// One of an earlier version has none.
bool ReadNames(const nlohmann::json& object, std::vector<PointRecord>& names) {
  if (!object.contains("points")) return true;
  if (!object["points"].is_array() || object["points"].size() > kMaxPoints) return false;
  for (const auto& each : object["points"]) {
    const auto isNumber = [&](const char* name) {
      return each.contains(name) && each[name].is_number_unsigned();
    };
    if (!each.is_object() || !isNumber("n") || !isNumber("timestampMs") || !each.contains("name") ||
        !each["name"].is_string() || !IsPointName(each["name"].get_ref<const std::string&>())) {
      return false;
    }
    names.push_back({each["n"].get<std::uint64_t>(), each["timestampMs"].get<std::uint64_t>(),
                     each["name"].get<std::string>()});
  }
  return true;
}

}  // namespace

// --- The state. ---

std::string ReadSourceState(const std::string& directory, const std::string& group,
                            SourceState& out) {
  const std::string path = StatePath(directory);
  if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) return {};
  std::string text;
  if (auto fault = ReadSmallFile(path, kMostStateBytes, FilePrivacy::kNobodyWrites, text);
      !fault.empty()) {
    return fault;
  }
  const auto object = nlohmann::json::parse(text, nullptr, false);
  const auto number = [&](const char* name, std::uint64_t& value) {
    if (!object.contains(name) || !object[name].is_number_unsigned()) return false;
    value = object[name].get<std::uint64_t>();
    return true;
  };
  if (!object.is_object() || !number("epoch", out.epoch) || !number("flushed", out.flushed) ||
      !number("age", out.age) || !object.contains("group") || !object["group"].is_string() ||
      !ReadNames(object, out.names) || (object.contains("kept") && !number("kept", out.kept))) {
    return path + " is damaged; remove it to take the group up anew, which compares everything";
  }
  if (object["group"].get<std::string>() != group) {
    return directory + " belongs to group " + object["group"].get<std::string>() +
           "; give each group a state directory of its own";
  }
  return {};
}

std::string WriteSourceState(const std::string& directory, const std::string& group,
                             const SourceState& state) {
  nlohmann::json object = {{"group", group},           {"epoch", state.epoch},
                           {"flushed", state.flushed}, {"age", state.age},
                           {"kept", state.kept},       {"points", nlohmann::json::array()}};
  for (const PointRecord& point : state.names) {
    object["points"].push_back(
        {{"n", point.n}, {"timestampMs", point.timestampMs}, {"name", point.name}});
  }
  const std::string path = StatePath(directory);
  const std::string next = path + ".new";
  ::unlink(next.c_str());
  if (auto fault = WriteNewFile(next, object.dump() + "\n"); !fault.empty()) return fault;
  if (::rename(next.c_str(), path.c_str()) != 0) {
    return "can't replace " + path + ": " + ErrnoText(errno);
  }
  return SyncDirectory(directory);
}

// --- The spool. ---

DiskStore::DiskStore(std::string directory, std::string spool, std::string group, SourceState state,
                     std::vector<std::unique_ptr<LiveVolume>>& volumes)
    : m_directory(std::move(directory)),
      m_spool(std::move(spool)),
      m_group(std::move(group)),
      m_state(std::move(state)),
      m_volumes(volumes) {
  m_state.kept = 0;  // what is written from here on is in no dataset of then
}

std::string DiskStore::OpenSpool() {
  if (auto fault = MakePrivateDirectory(AgePath()); !fault.empty()) return fault;
  m_journal = std::make_unique<Journal>(AgePath());
  return m_journal->Prepare();
}

std::string DiskStore::Prepare(std::vector<SpooledDataset>& found) {
  if (m_spool.empty()) return NextAge();
  if (auto fault = MakePrivateDirectory(m_spool); !fault.empty()) return fault;
  std::error_code error;
  const std::string own = fs::path(AgePath()).filename().string();
  std::vector<fs::path> others;
  for (const auto& entry : fs::directory_iterator(m_spool, error)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with("age-") && name != own) others.push_back(entry.path());
  }
  for (const fs::path& other : others) fs::remove_all(other, error);
  if (error) return "can't clean up " + m_spool + ": " + error.message();
  // Each process has an age of its own, so that what it does not find, because the spool was
  // elsewhere for a while or a removal was taken back, is never found again.
  const std::string before = AgePath();
  if (auto fault = NextAge(); !fault.empty()) return fault;
  if (::rename(before.c_str(), AgePath().c_str()) != 0 && errno != ENOENT) {
    return "can't rename " + before + ": " + ErrnoText(errno);
  }
  if (auto fault = SyncDirectory(m_spool); !fault.empty()) return fault;
  if (auto fault = OpenSpool(); !fault.empty()) return fault;
  return Scan(found);
}

std::string DiskStore::NextAge() {
  ++m_state.age;
  return WriteSourceState(m_directory, m_group, m_state);
}

std::string DiskStore::Scan(std::vector<SpooledDataset>& found) {
  GroupState group;
  group.group = m_group;
  for (const auto& volume : m_volumes) group.volumes.push_back({.name = volume->name});
  std::vector<JournalFile> files;
  if (auto fault = m_journal->List({group}, files); !fault.empty()) return fault;
  SpoolScan scan(GroupId(m_group));
  for (const JournalFile& file : files) {
    JournalReader reader;
    std::string why = reader.Open(m_journal->PathOf(file.group, file.volume, file.n));
    if (why.empty()) why = scan.Add(VolumeId(m_group, file.volume), file.n, reader);
    if (why.empty()) continue;
    Log(Severity::kWarning, "a file of the spool is not whole; what it held is compared",
        {{"volume", file.volume}, {"n", std::to_string(file.n)}, {"why", why}});
    m_journal->Remove({0, file.group, file.volume, file.n, false});
  }
  found = scan.Whole();
  return {};
}

const LiveVolume* DiskStore::FindVolume(const UuidT& id) const {
  for (const auto& volume : m_volumes) {
    if (VolumeId(m_group, volume->name) == id) return volume.get();
  }
  return nullptr;
}

IoDone DiskStore::WriteFile(const SpoolWrite& command, const SpoolFile& file, SpoolDone& done) {
  const LiveVolume& volume = *FindVolume(file.volume);
  const std::uint64_t n = command.start.n;
  IoDone step = m_journal->Open({0, m_group, volume.name, n, SpoolRecordOf(command.start)});
  if (step.status == IoStatus::kOk && !done.writer) {
    done.writer = m_journal->SerializerOf(m_group, volume.name, n);
  }
  for (const BlockPtr& block : file.blocks) {
    if (step.status != IoStatus::kOk) return step;
    step = m_journal->Append({0, m_group, volume.name, n, block,
                              static_cast<std::uint32_t>(RecordBytes(*block).size()),
                              volume.file->Size()});
  }
  if (step.status == IoStatus::kOk) step = m_journal->Close({0, m_group, volume.name, n});
  return step;
}

SpoolDone DiskStore::Write(const SpoolWrite& command) {
  SpoolDone done;
  done.ticket = command.ticket;
  // Files that were left behind by a dataset of this number that did not become whole.
  Remove({command.start});
  JournalSyncDirs directories{0, m_group, {}};
  IoDone step;
  for (const SpoolFile& file : SpoolFilesOf(command.start, command.blocks)) {
    step = WriteFile(command, file, done);
    if (step.status != IoStatus::kOk) break;
    done.bytes += step.bytes;
    directories.files.emplace_back(command.start.n, FindVolume(file.volume)->name);
  }
  if (step.status == IoStatus::kOk) step = m_journal->SyncDirs(directories);
  done.status = step.status;
  done.error = std::move(step.error);
  return done;
}

SpoolLoaded DiskStore::Read(const SpoolRead& command) {
  SpoolLoaded loaded;
  loaded.ticket = command.ticket;
  for (const UuidT& id : command.start.volumes) {
    const LiveVolume* const volume = FindVolume(id);
    const std::uint64_t n = command.start.n;
    JournalReader reader;
    loaded.error = volume == nullptr ? "it is of a volume that is not served"
                                     : reader.Open(m_journal->PathOf(m_group, volume->name, n));
    if (loaded.error.empty()) loaded.error = ReadSpoolFile(reader, n, loaded.blocks);
    if (loaded.error.empty()) continue;
    loaded.status = IoStatus::kDamaged;
    loaded.error = "dataset " + std::to_string(n) + ": " + loaded.error;
    break;
  }
  return loaded;
}

void DiskStore::Remove(const SpoolRemove& command) {
  for (const auto& volume : m_volumes) {
    m_journal->Remove({0, m_group, volume->name, command.start.n, false});
  }
}

SpoolDone DiskStore::Drop(const SpoolDrop& command) {
  SpoolDone done;
  done.ticket = command.ticket;
  const std::string before = AgePath();
  {
    const std::lock_guard lock(m_stateMutex);
    ++m_state.age;
    m_state.names.clear();
    done.error = WriteSourceState(m_directory, m_group, m_state);
  }
  if (done.error.empty()) done.error = OpenSpool();
  if (!done.error.empty()) {
    done.status = IoStatus::kFailed;
    return done;
  }
  std::error_code error;
  fs::remove_all(before, error);
  if (error) Log(Severity::kWarning, "can't remove a spool that was given up", {{"path", before}});
  return done;
}

void DiskStore::Keep(const KeepNames& command) {
  const std::lock_guard lock(m_stateMutex);
  m_state.names = command.names;
  const std::string fault = WriteSourceState(m_directory, m_group, m_state);
  if (!fault.empty()) Log(Severity::kWarning, "names of points may get lost: " + fault);
}

// --- Marks. ---

CheckpointDone DiskStore::Keep(const Checkpoint& command) {
  CheckpointDone done;
  done.ticket = command.ticket;
  for (const auto& volume : m_volumes) {
    if (done.error.empty()) done.error = volume->file->Sync();
  }
  if (done.error.empty()) {
    const std::lock_guard lock(m_stateMutex);
    m_state.epoch = command.epoch;
    m_state.flushed = command.flushed;
    done.error = WriteSourceState(m_directory, m_group, m_state);
  }
  if (!done.error.empty()) done.status = IoStatus::kFailed;
  return done;
}

std::string DiskStore::KeepUpTo(std::uint64_t n) {
  // A power cut may take nothing back here that the spool has.
  for (const auto& volume : m_volumes) {
    if (auto fault = volume->file->Sync(); !fault.empty()) return fault;
  }
  const std::lock_guard lock(m_stateMutex);
  m_state.kept = n;
  return WriteSourceState(m_directory, m_group, m_state);
}

CheckpointDone DiskStore::Save(const SaveMaps& command) {
  CheckpointDone done;
  done.ticket = command.ticket;
  for (const auto& volume : m_volumes) {
    if (volume->map->SaveAll()) continue;
    done.status = IoStatus::kFailed;
    done.error = "the change map of " + volume->name + " can't be written";
  }
  return done;
}

std::shared_ptr<void> DiskStore::HoldOff(std::uint8_t volume, std::uint64_t offset,
                                         std::uint64_t length) {
  return std::make_shared<RangeLock::Hold>(m_volumes.at(volume)->lock, offset, length);
}

}  // namespace penstock
