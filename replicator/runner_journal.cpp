// SPDX-License-Identifier: Apache-2.0
#include "replicator/runner_journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <system_error>

#include "engine/wire/messages.h"
#include "engine/work.h"
#include "replicator/files.h"
#include "replicator/log.h"

namespace penstock {

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kCommandBytes = 24;

IoDone Done(Ticket ticket) { return {ticket, IoStatus::kOk, {}, 0}; }

IoDone Failed(Ticket ticket, IoStatus status, std::string error) {
  return {ticket, status, std::move(error), 0};
}

// A write that came to less than it should: without an error number the system took a part of it,
// which a file system does when it is full.
IoDone ShortWrite(Ticket ticket, const std::string& path, int error) {
  const int cause = error == 0 ? ENOSPC : error;
  return Failed(ticket, StatusOfErrno(cause), "can't write " + path + ": " + ErrnoText(cause));
}

// Makes a directory and those above it, with the process's umask. Returns 0, or the error number.
int MakeDirectories(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) == 0 || errno == EEXIST) return 0;
  if (errno != ENOENT) return errno;
  const std::string above = DirectoryOf(path);
  if (above == path) return ENOENT;
  if (const int error = MakeDirectories(above); error != 0) return error;
  return ::mkdir(path.c_str(), 0700) == 0 || errno == EEXIST ? 0 : errno;
}

// The number of a file's name: 16 lower-case hexadecimal digits and ".ds".
bool ParseFileName(const std::string& name, std::uint64_t& n) {
  if (name.size() != 19 || !name.ends_with(".ds")) return false;
  const char* const end = name.data() + 16;
  const auto [stop, error] = std::from_chars(name.data(), end, n, 16);
  return error == std::errc{} && stop == end &&
         std::none_of(name.data(), end, [](char c) { return c >= 'A' && c <= 'F'; });
}

}  // namespace

IoStatus StatusOfErrno(int error) {
  return error == ENOSPC || error == EDQUOT ? IoStatus::kNoSpace : IoStatus::kFailed;
}

IoStatus StatusOfFault(const std::string& fault) {
  if (fault.empty()) return IoStatus::kOk;
  const bool isFull = fault.ends_with(ErrnoText(ENOSPC)) || fault.ends_with(ErrnoText(EDQUOT));
  return isFull ? IoStatus::kNoSpace : IoStatus::kFailed;
}

// --- Reading. ---

JournalReader::~JournalReader() {
  if (m_fd >= 0) ::close(m_fd);
}

std::string JournalReader::Open(const std::string& path) {
  m_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  struct stat info {};
  if (m_fd < 0 || ::fstat(m_fd, &info) != 0) return "can't open " + path + ": " + ErrnoText(errno);
  if (!S_ISREG(info.st_mode)) return path + " is not a regular file";
  m_size = static_cast<std::uint64_t>(info.st_size);
  return {};
}

bool JournalReader::Read(std::uint64_t offset, std::uint8_t* out, std::size_t size) {
  while (size > 0) {
    const ssize_t count = ::pread(m_fd, out, size, static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    offset += static_cast<std::uint64_t>(count);
    out += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

// --- Names. ---

std::string Journal::DirectoryOfFile(const std::string& group, const std::string& volume,
                                     std::uint64_t n) const {
  std::string path = DatasetBasePath(BaseOf(group), UUID::MakeUUID(VolumeId(group, volume)), n);
  path.pop_back();  // its last slash
  return path;
}

std::string Journal::PathOf(const std::string& group, const std::string& volume,
                            std::uint64_t n) const {
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  std::string name(16, '0');
  for (std::size_t i = 0; i < name.size(); ++i) name[i] = kHexDigits[(n >> (60 - 4 * i)) & 0xfU];
  return DirectoryOfFile(group, volume, n) + "/" + name + ".ds";
}

std::string Journal::Prepare() const {
  for (const char* name : {"/journal", "/quarantine"}) {
    if (auto fault = MakePrivateDirectory(m_state + name); !fault.empty()) return fault;
  }
  return {};
}

// --- What is there at the start. ---

std::string Journal::PutAside(const std::string& path, const std::string& name) const {
  const std::string base = m_state + "/quarantine/" + name;
  std::string to = base;
  for (unsigned i = 1; ::access(to.c_str(), F_OK) == 0; ++i) to = base + "." + std::to_string(i);
  if (::rename(path.c_str(), to.c_str()) == 0) return {};
  return "can't move " + path + " to " + to + ": " + ErrnoText(errno);
}

std::string Journal::ListGroup(const std::string& group,
                               const std::map<std::string, std::string>& volumes,
                               std::vector<JournalFile>& found) const {
  std::error_code error;
  std::vector<std::string> strangers;
  fs::recursive_directory_iterator files(BaseOf(group), error);
  for (; !error && files != fs::recursive_directory_iterator(); files.increment(error)) {
    if (files->is_directory(error) && !files->is_symlink(error)) continue;
    const std::string path = files->path().string();
    const fs::path below = fs::path(path).lexically_relative(BaseOf(group));
    const auto volume = volumes.find(below.begin()->string());
    std::uint64_t n = 0;
    if (volume != volumes.end() && ParseFileName(files->path().filename().string(), n) &&
        path == PathOf(group, volume->second, n)) {
      found.push_back({group, volume->second, n});
    } else {
      strangers.push_back(path);
    }
  }
  if (error) return "can't list " + BaseOf(group) + ": " + error.message();
  for (const std::string& path : strangers) {
    Log(Severity::kWarning, "put aside a file of the journal that belongs to no known volume",
        {{"path", path}});
    if (auto fault = PutAside(path, group + "." + fs::path(path).filename().string());
        !fault.empty()) {
      return fault;
    }
  }
  return {};
}

std::string Journal::List(const std::vector<GroupState>& groups,
                          std::vector<JournalFile>& found) const {
  std::error_code error;
  fs::directory_iterator entries(m_state + "/journal", error);
  for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
    const std::string group = entries->path().filename().string();
    std::map<std::string, std::string> volumes;  // by the text of their identifiers
    for (const GroupState& state : groups) {
      if (state.group != group) continue;
      for (const VolumeRecord& volume : state.volumes) {
        volumes[UUID::MakeUUID(VolumeId(group, volume.name)).String()] = volume.name;
      }
    }
    if (auto fault = ListGroup(group, volumes, found); !fault.empty()) return fault;
  }
  return error ? "can't list " + m_state + "/journal: " + error.message() : "";
}

// --- Writing. ---

std::shared_ptr<Journal::Writer> Journal::FindWriter(const Key& key) {
  const std::lock_guard lock(m_mutex);
  const auto place = m_writers.find(key);
  return place == m_writers.end() ? nullptr : place->second;
}

void Journal::Forget(const Key& key) {
  const std::lock_guard lock(m_mutex);
  m_writers.erase(key);
}

IoDone Journal::Open(const JournalOpen& command) {
  const std::string path = PathOf(command.group, command.volume, command.n);
  if (const int error = MakeDirectories(DirectoryOf(path)); error != 0) {
    return Failed(command.ticket, StatusOfErrno(error),
                  "can't make the directory of " + path + ": " + ErrnoText(error));
  }
  auto writer = std::make_shared<Writer>(command.n, VolumeId(command.group, command.volume),
                                         BaseOf(command.group));
  const Bytes record{reinterpret_cast<const std::uint8_t*>(command.start.get()),
                     sizeof(OM_DP::DatasetStartv2) + std::size_t{16} * command.start->count};
  errno = 0;
  if (writer->file.WriteHeader(command.n, command.start) < static_cast<int>(record.size())) {
    return ShortWrite(command.ticket, path, errno);
  }
  writer->sum.AddStart(record);
  const std::lock_guard lock(m_mutex);
  m_writers[{command.group, command.volume, command.n}] = std::move(writer);
  return Done(command.ticket);
}

std::shared_ptr<DatasetSerializer> Journal::SerializerOf(const std::string& group,
                                                         const std::string& volume,
                                                         std::uint64_t n) {
  const auto writer = FindWriter({group, volume, n});
  return writer ? std::shared_ptr<DatasetSerializer>(writer, &writer->file) : nullptr;
}

IoDone Journal::Append(const JournalAppend& command) {
  std::string error;
  const IoStatus checked = CheckArrived(*command.block, command.size, command.volumeSize, error);
  if (checked != IoStatus::kOk) return Failed(command.ticket, checked, std::move(error));
  const auto writer = FindWriter({command.group, command.volume, command.n});
  // It could not be made, which was told then, or was given up since.
  if (!writer) return Failed(command.ticket, IoStatus::kNoSpace, "its file is not open");
  const std::uint64_t at = writer->sum.Size() + kCommandBytes;
  errno = 0;
  const auto [bytes, position] = writer->file.WriteData(command.n, command.block);
  // The position tells of a command header that was cut short, too.
  if (bytes < static_cast<int>(RecordBytes(*command.block).size()) || position != at) {
    const int cause = errno;
    Forget({command.group, command.volume, command.n});
    return ShortWrite(command.ticket, PathOf(command.group, command.volume, command.n), cause);
  }
  writer->sum.AddBlock(*command.block);
  return Done(command.ticket);
}

IoDone Journal::Close(const JournalClose& command) {
  const Key key{command.group, command.volume, command.n};
  const auto writer = FindWriter(key);
  if (!writer) return Failed(command.ticket, IoStatus::kNoSpace, "its file is not open");
  // Whatever comes of it, the descriptor is not used again: a sync that failed once says yes when
  // it is asked again.
  Forget(key);
  const std::string path = PathOf(command.group, command.volume, command.n);
  const BlockPtr trailer = writer->sum.MakeTrailer();
  const std::uint64_t at = writer->sum.Size() + kCommandBytes;
  const std::uint64_t record = RecordBytes(*trailer).size();
  errno = 0;
  const auto [bytes, position] = writer->file.WriteData(command.n, trailer);
  if (bytes < static_cast<int>(record) || position != at) {
    return ShortWrite(command.ticket, path, errno);
  }
  if (writer->file.CloseDatasetFile(command.n, false) != 0) {
    return Failed(command.ticket, IoStatus::kFailed,
                  "can't sync " + path + ": " + ErrnoText(errno));
  }
  IoDone done = Done(command.ticket);
  done.bytes = at + record;
  return done;
}

IoDone Journal::Remove(const JournalRemove& command) {
  Forget({command.group, command.volume, command.n});
  const std::string path = PathOf(command.group, command.volume, command.n);
  if (command.quarantine) {
    const std::string name =
        command.group + "." + command.volume + "." + std::to_string(command.n) + ".ds";
    std::string fault = PutAside(path, name);
    const IoStatus status = fault.empty() ? IoStatus::kOk : IoStatus::kFailed;
    return Failed(command.ticket, status, std::move(fault));
  }
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return Done(command.ticket);
  return Failed(command.ticket, IoStatus::kFailed,
                "can't remove " + path + ": " + ErrnoText(errno));
}

IoDone Journal::SyncDirs(const JournalSyncDirs& command) {
  std::set<std::string> directories;
  std::set<std::string> named;
  for (const auto& [n, volume] : command.files) {
    // The file's name is new in its directory; a directory's name only when it was just made.
    std::string path = DirectoryOfFile(command.group, volume, n);
    directories.insert(path);
    for (; path.size() > m_state.size(); path = DirectoryOf(path)) {
      const std::lock_guard lock(m_mutex);
      if (m_named.contains(path)) continue;
      directories.insert(DirectoryOf(path));
      named.insert(path);
    }
  }
  for (const std::string& path : directories) {
    if (auto fault = SyncDirectory(path); !fault.empty()) {
      return Failed(command.ticket, IoStatus::kFailed, std::move(fault));
    }
  }
  const std::lock_guard lock(m_mutex);
  m_named.merge(named);
  return Done(command.ticket);
}

}  // namespace penstock
