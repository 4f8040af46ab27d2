// SPDX-License-Identifier: Apache-2.0
// A disk that loses what was not synced.
#ifndef PENSTOCK_TESTS_SIM_DISK_H_
#define PENSTOCK_TESTS_SIM_DISK_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "codec/dataset_file.h"
#include "codec/hash.h"
#include "engine/commands.h"
#include "tests/sim/rng.h"

namespace penstock::sim {

// Files by path. Each has what a reader sees and what would survive a power cut. A file's name
// survives once its directory was synced; a removed name may come back until then. After a failed
// sync the unsynced sectors count as clean: the next sync succeeds without them.
class Disk {
 public:
  static constexpr std::uint64_t kSector = 512;

  explicit Disk(Rng& rng) : m_rng(rng) {}

  bool Exists(const std::string& path) const { return m_files.contains(path); }
  std::vector<std::string> List(const std::string& prefix) const;
  // Makes a file of zeros, durable at once: how volumes come to be. Empty ones are journal files.
  void MakeVolume(const std::string& path, std::uint64_t size);
  // Gives a file new content, durable at once.
  void Overwrite(const std::string& path, const std::vector<std::uint8_t>& data);
  IoStatus Create(const std::string& path);  // exclusive
  IoStatus Write(const std::string& path, std::uint64_t offset, Bytes data);
  bool Read(const std::string& path, std::uint64_t offset, std::uint8_t* out,
            std::size_t size) const;
  std::uint64_t Size(const std::string& path) const;
  IoStatus Sync(const std::string& path);
  // The pages that count as clean are dropped: they are read from the disk again.
  void Forget(const std::string& path);
  void SyncName(const std::string& path);  // its directory
  void Remove(const std::string& path);
  void Rename(const std::string& from, const std::string& to);

  // What happens next, once.
  void FailNextSync() { m_failSync = true; }
  void MisdirectNextWrite() { m_misdirect = true; }
  void SetFree(std::uint64_t bytes) { m_free = bytes; }

  // Power is cut: of the unsynced sectors some survive, some not, some by half.
  void Crash();

  bool SyncFailed() const { return m_syncFailed; }    // since the last crash
  bool Misdirected() const { return m_misdirected; }  // ever, and not known to be gone
  void ForgetMisdirected() { m_misdirected = false; }
  std::uint64_t HashOf(const std::string& path) const;

 private:
  struct File {
    std::vector<std::uint8_t> now, safe;
    std::set<std::uint64_t> dirty;  // sectors
    bool named = false;             // its name survives
  };

  void Put(File& file, std::uint64_t offset, Bytes data);
  void Keep(File& file, std::uint64_t sector, std::uint64_t bytes);

  Rng& m_rng;
  std::map<std::string, File> m_files;
  std::map<std::string, File> m_removed;  // may come back
  std::uint64_t m_free = ~std::uint64_t{0};
  bool m_failSync = false;
  bool m_misdirect = false;
  bool m_syncFailed = false;
  bool m_misdirected = false;
};

// A file of the disk, as the reader of dataset files takes it.
class SimFile : public FileBytes {
 public:
  SimFile(const Disk& disk, std::string path) : m_disk(disk), m_path(std::move(path)) {}
  std::uint64_t Size() const override { return m_disk.Size(m_path); }
  bool Read(std::uint64_t offset, std::uint8_t* out, std::size_t size) override {
    return m_disk.Read(m_path, offset, out, size);
  }

 private:
  const Disk& m_disk;
  std::string m_path;
};

}  // namespace penstock::sim

#endif  // PENSTOCK_TESTS_SIM_DISK_H_
