// SPDX-License-Identifier: Apache-2.0
#include "capture/map_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "replicator/log.h"
#include "replicator/runner_common.h"

namespace penstock {

namespace {

bool ReadSector(int fd, std::uint64_t index, MapSector& out) {
  const auto at = static_cast<off_t>(index * kMapSectorBytes);
  return ::pread(fd, out.data(), out.size(), at) == static_cast<ssize_t>(out.size());
}

}  // namespace

std::string MapFile::Open(const std::string& path, const UuidT& volume, std::uint64_t volumeBytes,
                          std::uint64_t extentBytes, std::unique_ptr<MapFile>& out,
                          std::string& note) {
  auto map = std::make_unique<MapFile>();
  map->m_path = path;
  map->m_header.volume = volume;
  map->m_fd.Reset(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_CREAT | O_NOFOLLOW, 0600));
  if (!map->m_fd) return "can't open " + path + ": " + ErrnoText(errno);
  auto fault = map->ReadHeader(volumeBytes, extentBytes, note);
  if (fault.empty() && !note.empty()) fault = map->Make(note);
  if (fault.empty()) out = std::move(map);
  return fault;
}

std::string MapFile::ReadHeader(std::uint64_t volumeBytes, std::uint64_t extentBytes,
                                std::string& note) {
  const UuidT volume = std::exchange(m_header.volume, {});
  MapSector sector{};
  if (!ReadSector(m_fd.Get(), 0, sector)) {
    note = "it has no change map";
  } else if (auto fault = Decode(sector, m_header); !fault.empty()) {
    note = m_path + ": " + fault;
  } else if (m_header.volume != volume) {
    note = m_path + " is the map of another volume";
  } else if (m_header.volumeBytes != volumeBytes) {
    note = "it had " + std::to_string(m_header.volumeBytes) + " bytes before, and has " +
           std::to_string(volumeBytes) + " now";
  } else if (m_header.extentBytes != extentBytes) {
    note = "the size of its extents was changed";
  }
  m_header.volume = volume;
  m_header.volumeBytes = volumeBytes;
  m_header.extentBytes = extentBytes;
  return {};
}

// A new map, in place of whatever is there. Its bits are written by Load.
std::string MapFile::Make(std::string& note) {
  m_isNew = true;
  FillRandom(m_header.id.bytes);
  if (::ftruncate(m_fd.Get(), 0) != 0) return "can't empty " + m_path + ": " + ErrnoText(errno);
  if (auto fault = WriteSector(0, Encode(m_header)); !fault.empty()) return fault;
  note += "; all of it is compared";
  return {};
}

std::string MapFile::Load(Capture& capture, std::uint8_t index) {
  m_capture = &capture;
  m_index = index;
  const std::uint64_t sectors = MapSectors(m_header.volumeBytes, m_header.extentBytes);
  bool isWhole = !m_isNew;
  for (std::uint64_t i = 0; isWhole && i + 1 < sectors; ++i) {
    MapSector sector{};
    isWhole = ReadSector(m_fd.Get(), i + 1, sector) && CheckBits(m_header.id, i, sector);
    if (isWhole) capture.Load(index, i, sector);
  }
  // A process that was killed may have left marks that are not on the disk yet: no write may rely
  // on them before they are.
  m_wasWhole = isWhole;
  if (isWhole) return Sync();
  if (!m_isNew) {
    Log(Severity::kWarning, "a change map is damaged; all of its volume is compared",
        {{"path", m_path}});
  }
  capture.LoadNothing(index);
  // What is marked already has no place among the unsaved: all sectors are written once.
  const auto save = capture.TakeUnsaved(index);
  std::array<std::uint8_t, kMapSectorBytes - kMapHashBytes> all{};
  all.fill(0xff);
  for (std::uint64_t i = 0; i + 1 < sectors; ++i) {
    auto fault = WriteSector(i + 1, EncodeBits(m_header.id, i, all));
    if (!fault.empty()) return fault;
  }
  if (save) capture.Saved(index, save->generation);
  if (auto fault = Sync(); !fault.empty()) return fault;
  return SyncDirectory(DirectoryOf(m_path));
}

std::string MapFile::WriteSector(std::uint64_t index, const MapSector& sector) {
  const auto at = static_cast<off_t>(index * kMapSectorBytes);
  const ssize_t count = ::pwrite(m_fd.Get(), sector.data(), sector.size(), at);
  if (count == static_cast<ssize_t>(sector.size())) return {};
  return "can't write " + m_path + ": " + ErrnoText(count < 0 ? errno : ENOSPC);
}

std::string MapFile::Sync() {
  return ::fdatasync(m_fd.Get()) == 0 ? "" : "can't sync " + m_path + ": " + ErrnoText(errno);
}

bool MapFile::EnsureSaved(std::uint64_t generation) {
  if (m_capture->IsSaved(m_index, generation)) return true;
  const std::lock_guard lock(m_mutex);
  while (!m_capture->IsSaved(m_index, generation)) {
    if (m_isStuck) return false;
    const auto save = m_capture->TakeUnsaved(m_index);
    if (!save) return true;
    std::string fault;
    for (const auto& [index, sector] : save->sectors) {
      if (m_isGone || !fault.empty()) break;
      fault = WriteSector(index, sector);
    }
    if (!m_isGone && fault.empty()) fault = Sync();
    if (!fault.empty() && !Abandon(fault)) return false;
    ++m_saves;
    m_capture->Saved(m_index, save->generation);
  }
  return true;
}

// A map that lacks a mark is worse than none.
bool MapFile::Abandon(const std::string& why) {
  const bool isRemoved = ::unlink(m_path.c_str()) == 0 || errno == ENOENT;
  const std::string fault = isRemoved ? SyncDirectory(DirectoryOf(m_path)) : ErrnoText(errno);
  m_isGone = fault.empty();
  m_isStuck = !m_isGone;
  Log(Severity::kError,
      m_isGone ? "a change map can't be written and is removed: after a crash all of its volume "
                 "has to be compared"
               : "a change map can neither be written nor removed: writes are refused",
      {{"why", why}, {"path", m_path}});
  return m_isGone;
}

}  // namespace penstock
