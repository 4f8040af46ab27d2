// SPDX-License-Identifier: Apache-2.0
#include "replicator/runner_volumes.h"

#include <sys/stat.h>

#include <utility>
#include <vector>

#include "engine/work.h"
#include "replicator/files.h"
#include "replicator/log.h"

namespace penstock {

namespace {

// Each extent as it comes: what is contiguous on the volume arrives as one extent.
class VolumeSink : public BlockSink {
 public:
  explicit VolumeSink(VolumeFile& volume) : m_volume(volume) {}
  IoStatus Write(std::uint64_t offset, Bytes data, std::string& error) override {
    error = m_volume.Write(offset, data);
    return StatusOfFault(error);
  }
  IoStatus Zero(std::uint64_t offset, std::uint32_t length, std::string& error) override {
    error = m_volume.Zero(offset, length);
    return StatusOfFault(error);
  }

 private:
  VolumeFile& m_volume;
};

IoDone NotOpen(Ticket ticket, const std::string& volume) {
  return {ticket, IoStatus::kFailed, "volume " + volume + " is not open", 0};
}

std::string KeyOf(const std::string& group, const std::string& volume) {
  return group + "/" + volume;
}

}  // namespace

// Where the volume is, with its directory made.
std::string TargetVolumes::Find(const std::string& group, const std::string& volume,
                                std::string& path) const {
  const auto mapped = m_mapped.find(KeyOf(group, volume));
  if (mapped != m_mapped.end()) {
    path = mapped->second;
    return {};
  }
  if (m_directory.empty()) {
    return "there is no volume " + KeyOf(group, volume) + "; map it to a file with --volume";
  }
  path = m_directory + "/" + group + "/" + volume + ".img";
  return {};
}

std::shared_ptr<VolumeFile> TargetVolumes::Get(const std::string& group,
                                               const std::string& volume) {
  const std::lock_guard lock(m_mutex);
  const auto place = m_open.find(KeyOf(group, volume));
  return place == m_open.end() ? nullptr : place->second;
}

VolumeOpened TargetVolumes::Open(const OpenVolume& command) {
  VolumeOpened opened;
  opened.ticket = command.ticket;
  std::string path;
  opened.error = Find(command.group, command.volume, path);
  if (!opened.error.empty()) return opened;
  struct stat info {};
  const bool exists = ::stat(path.c_str(), &info) == 0;
  if (!exists && command.size == 0) {
    opened.error = "there is no volume " + KeyOf(command.group, command.volume);
    return opened;
  }
  if (!exists && !m_mapped.contains(KeyOf(command.group, command.volume))) {
    opened.error = MakePrivateDirectory(m_directory + "/" + command.group);
    if (!opened.error.empty()) return opened;
  }
  VolumeOptions options;
  options.write = true;
  options.create = command.size != 0;
  options.createSize = command.size;
  std::unique_ptr<VolumeFile> file;
  opened.error = VolumeFile::Open(path, options, file);
  if (!opened.error.empty()) return opened;
  opened.isNew = file->WasCreated();
  if (file->Size() == 0) {
    // Nothing is in it: as good as one that was made just now.
    if (command.size == 0) {
      opened.error = path + " is empty: put back the file that was there, or remove it";
      return opened;
    }
    opened.error = file->Grow(command.size);
    if (!opened.error.empty()) return opened;
    opened.isNew = true;
  }
  opened.size = file->Size();
  const std::lock_guard lock(m_mutex);
  m_open[KeyOf(command.group, command.volume)] = std::move(file);
  return opened;
}

IoDone TargetVolumes::Write(const WriteBlock& command) {
  const auto volume = Get(command.group, command.volume);
  if (!volume) return NotOpen(command.ticket, command.volume);
  VolumeSink sink(*volume);
  IoDone done{command.ticket, IoStatus::kOk, {}, 0};
  done.status = WriteToVolume(*command.block, command.size, command.volumeSize, sink, done.error);
  return done;
}

IoDone TargetVolumes::Apply(const ApplyFile& command, const Journal& journal) {
  const auto volume = Get(command.group, command.volume);
  if (!volume) return NotOpen(command.ticket, command.volume);
  VolumeSink sink(*volume);
  IoDone done{command.ticket, IoStatus::kOk, {}, 0};
  if (command.blocks) {
    done.status = ApplyKeptBlocks(command, sink, done.error);
    if (done.status != IoStatus::kDamaged) return done;
    Log(Severity::kError, "a block in memory is damaged; its journal file is read instead",
        {{"group", command.group}, {"volume", command.volume}, {"why", done.error}});
    done.error.clear();
  }
  JournalReader file;
  done.error = file.Open(journal.PathOf(command.group, command.volume, command.n));
  if (!done.error.empty()) {
    done.status = IoStatus::kDamaged;  // it was whole once, and is lost
    return done;
  }
  done.status = ApplyDatasetFile(command, file, sink, done.error);
  return done;
}

IoDone TargetVolumes::Sync(const SyncVolumes& command) {
  for (const std::string& name : command.volumes) {
    const auto volume = Get(command.group, name);
    if (!volume) return NotOpen(command.ticket, name);
    if (auto fault = volume->Sync(); !fault.empty()) {
      return {command.ticket, IoStatus::kFailed, std::move(fault), 0};
    }
  }
  return {command.ticket, IoStatus::kOk, {}, 0};
}

WindowCompared TargetVolumes::Compare(const CompareVolume& command) {
  WindowCompared compared;
  compared.ticket = command.ticket;
  const auto volume = Get(command.group, command.volume);
  if (!volume) {
    compared.error = "volume " + command.volume + " is not open";
  } else {
    thread_local std::vector<std::uint8_t> space(kWindowBytes);
    const std::span<std::uint8_t> window(space.data(), command.query.length);
    compared.error = volume->Read(command.query.offset, window);
    if (compared.error.empty()) return DoCompare(command, window);
  }
  compared.status = IoStatus::kFailed;
  return compared;
}

}  // namespace penstock
