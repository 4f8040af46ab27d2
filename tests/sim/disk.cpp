// SPDX-License-Identifier: Apache-2.0
#include "tests/sim/disk.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace penstock::sim {

std::vector<std::string> Disk::List(const std::string& prefix) const {
  std::vector<std::string> paths;
  for (const auto& [path, file] : m_files) {
    if (path.starts_with(prefix)) paths.push_back(path);
  }
  return paths;
}

void Disk::MakeVolume(const std::string& path, std::uint64_t size) {
  File& file = m_files[path];
  file.now.assign(size, 0);
  file.safe = file.now;
  file.named = true;
}

void Disk::Overwrite(const std::string& path, const std::vector<std::uint8_t>& data) {
  File& file = m_files.at(path);
  file.now = file.safe = data;
  file.dirty.clear();
}

IoStatus Disk::Create(const std::string& path) {
  if (m_free == 0) return IoStatus::kNoSpace;
  if (!m_files.try_emplace(path).second) return IoStatus::kFailed;
  return IoStatus::kOk;
}

void Disk::Put(File& file, std::uint64_t offset, Bytes data) {
  if (data.empty()) return;
  if (file.now.size() < offset + data.size()) file.now.resize(offset + data.size());
  std::memcpy(file.now.data() + offset, data.data(), data.size());
  for (std::uint64_t s = offset / kSector; s <= (offset + data.size() - 1) / kSector; ++s) {
    file.dirty.insert(s);
  }
}

IoStatus Disk::Write(const std::string& path, std::uint64_t offset, Bytes data) {
  const auto place = m_files.find(path);
  if (place == m_files.end()) return IoStatus::kFailed;
  File& file = place->second;
  const bool misdirect = std::exchange(m_misdirect, false);
  const std::uint64_t end = offset + data.size();
  const std::uint64_t grows = end > file.now.size() ? end - file.now.size() : 0;
  if (grows > m_free) {
    Put(file, offset, data.first(data.size() / 2));  // what did fit
    m_free = 0;
    return IoStatus::kNoSpace;
  }
  if (m_free != ~std::uint64_t{0}) m_free -= grows;
  if (misdirect && offset > 0) {
    m_misdirected = true;
    // The bytes land elsewhere; the file looks as long as it should.
    file.now.resize(std::max<std::size_t>(file.now.size(), end));
    Put(file, m_rng.Below(offset), data);
    return IoStatus::kOk;
  }
  Put(file, offset, data);
  return IoStatus::kOk;
}

bool Disk::Read(const std::string& path, std::uint64_t offset, std::uint8_t* out,
                std::size_t size) const {
  const auto file = m_files.find(path);
  if (file == m_files.end() || offset > file->second.now.size() ||
      size > file->second.now.size() - offset) {
    return false;
  }
  std::copy_n(file->second.now.data() + offset, size, out);
  return true;
}

std::uint64_t Disk::Size(const std::string& path) const {
  const auto file = m_files.find(path);
  return file == m_files.end() ? 0 : file->second.now.size();
}

// Makes the first `bytes` of a sector survive.
void Disk::Keep(File& file, std::uint64_t sector, std::uint64_t bytes) {
  const std::uint64_t from = sector * kSector;
  const std::uint64_t end = std::min<std::uint64_t>(file.now.size(), from + bytes);
  if (from >= end) return;
  if (file.safe.size() < end) file.safe.resize(end);
  std::copy(file.now.begin() + static_cast<std::ptrdiff_t>(from),
            file.now.begin() + static_cast<std::ptrdiff_t>(end),
            file.safe.begin() + static_cast<std::ptrdiff_t>(from));
}

IoStatus Disk::Sync(const std::string& path) {
  const auto place = m_files.find(path);
  if (place == m_files.end()) return IoStatus::kFailed;
  File& file = place->second;
  if (std::exchange(m_failSync, false)) {
    m_syncFailed = true;
    file.dirty.clear();
    return IoStatus::kFailed;
  }
  for (const std::uint64_t sector : file.dirty) Keep(file, sector, kSector);
  file.dirty.clear();
  file.safe.resize(file.now.size());
  return IoStatus::kOk;
}

void Disk::Forget(const std::string& path) {
  File& file = m_files.at(path);
  const std::size_t end = std::min(file.now.size(), file.safe.size());
  for (std::size_t at = 0; at < end; ++at) {
    if (!file.dirty.contains(at / kSector)) file.now[at] = file.safe[at];
  }
}

void Disk::SyncName(const std::string& path) {
  if (const auto file = m_files.find(path); file != m_files.end()) file->second.named = true;
  m_removed.erase(path);
}

void Disk::Remove(const std::string& path) {
  const auto file = m_files.find(path);
  if (file == m_files.end()) return;
  if (file->second.named) m_removed[path] = std::move(file->second);
  m_files.erase(file);
}

void Disk::Rename(const std::string& from, const std::string& to) {
  const auto file = m_files.find(from);
  if (file == m_files.end()) return;
  m_files[to] = std::move(file->second);
  m_files.erase(from);
}

void Disk::Crash() {
  for (auto& [path, file] : m_removed) {
    if (m_rng.Chance(0.5) && !m_files.contains(path)) m_files[path] = std::move(file);
  }
  m_removed.clear();
  for (auto place = m_files.begin(); place != m_files.end();) {
    File& file = place->second;
    if (!file.named && m_rng.Chance(0.5)) {
      place = m_files.erase(place);
      continue;
    }
    file.named = true;
    for (const std::uint64_t sector : file.dirty) {
      const std::uint64_t fate = m_rng.Below(8);
      if (fate == 0) Keep(file, sector, m_rng.Below(kSector));
      if (fate > 4) Keep(file, sector, kSector);
    }
    file.dirty.clear();
    file.now = file.safe;
    ++place;
  }
  m_failSync = m_misdirect = m_syncFailed = false;
}

std::uint64_t Disk::HashOf(const std::string& path) const {
  const auto file = m_files.find(path);
  return file == m_files.end() ? 0 : Hash64(file->second.now);
}

}  // namespace penstock::sim
