// SPDX-License-Identifier: Apache-2.0
// Small things about files. Each returns an empty text, or what went wrong, with the path, the
// system's text, and what to do where that is known.
#ifndef PENSTOCK_REPLICATOR_FILES_H_
#define PENSTOCK_REPLICATOR_FILES_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace penstock {

// The system's text of an error number, from any thread.
std::string ErrnoText(int error);

// A descriptor that is closed with its owner.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : m_fd(fd) {}
  ~Fd() { Reset(); }
  Fd(Fd&& other) noexcept : m_fd(other.Release()) {}
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  int Get() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }
  int Release() {
    const int fd = m_fd;
    m_fd = -1;
    return fd;
  }
  void Reset(int fd = -1);

 private:
  int m_fd = -1;
};

// What others must not be allowed to do with a file.
enum class FilePrivacy {
  kNobodyReads,   // a key: owned by us or root, no access for group and others
  kNobodyWrites,  // what we trust: owned by us or root, others must not write it
};

// Reads a whole file, at most `limit` bytes, after looking at the open file's owner and mode.
std::string ReadSmallFile(const std::string& path, std::size_t limit, FilePrivacy privacy,
                          std::string& out);

// Writes a file that is not there yet, mode 0600; syncs it and its directory.
std::string WriteNewFile(const std::string& path, std::string_view text);

// Makes a directory of mode 0700 unless it is there; its parent must be. One that is there must be
// ours, and open to nobody else: "/x is open to others; run: chmod 700 /x".
std::string MakePrivateDirectory(const std::string& path);
// The same look at one that must be there.
std::string CheckPrivateDirectory(const std::string& path);

// Makes what was created in or removed from a directory last.
std::string SyncDirectory(const std::string& path);
std::string DirectoryOf(const std::string& path);  // "." of a bare name

// New files and directories of this process are for its owner only. Call at the start.
void SetPrivateUmask();

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_FILES_H_
