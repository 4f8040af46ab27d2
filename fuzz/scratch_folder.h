// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_FUZZ_SCRATCH_FOLDER_H_
#define PENSTOCK_FUZZ_SCRATCH_FOLDER_H_

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "fuzz/byte_source.h"
#include "replicator/log.h"

// A folder in memory for what the code under test opens by its path; nothing is logged from then
// on. It goes with the process, unless that ends by a broken rule.
class ScratchFolder {
 public:
  ScratchFolder() {
    const bool hasMemory = ::access("/dev/shm", W_OK) == 0;
    m_path = hasMemory ? "/dev/shm/penstock-fuzz-XXXXXX" : "/tmp/penstock-fuzz-XXXXXX";
    FUZZ_CHECK(::mkdtemp(m_path.data()) != nullptr);
    penstock::SetUpLog({penstock::Severity::kError, false});
    penstock::SetLogOutput([](std::string_view) {});
  }
  ~ScratchFolder() {
    std::error_code error;
    std::filesystem::remove_all(m_path, error);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};

inline void WriteWhole(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  FUZZ_CHECK(fd >= 0);
  FUZZ_CHECK(::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
  ::close(fd);
}

inline std::vector<std::uint8_t> ReadWhole(const std::string& path) {
  std::vector<std::uint8_t> bytes;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return bytes;
  bytes.resize(static_cast<std::size_t>(::lseek(fd, 0, SEEK_END)));
  FUZZ_CHECK(::pread(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
  ::close(fd);
  return bytes;
}

#endif  // PENSTOCK_FUZZ_SCRATCH_FOLDER_H_
