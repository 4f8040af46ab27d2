// SPDX-License-Identifier: Apache-2.0
#include "replicator/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace penstock {

namespace {

std::string Failed(const char* what, const std::string& path, int error) {
  return std::string("can't ") + what + " " + path + ": " + ErrnoText(error);
}

bool IsOurs(const struct stat& info) { return info.st_uid == ::geteuid() || info.st_uid == 0; }

std::string CheckPrivacy(const std::string& path, int fd, FilePrivacy privacy) {
  struct stat info {};
  if (::fstat(fd, &info) != 0) return Failed("look at", path, errno);
  if (S_ISDIR(info.st_mode)) return path + " is a directory, not a file";
  if (!IsOurs(info)) return path + " belongs to another user; make it yours or root's (chown)";
  if (privacy == FilePrivacy::kNobodyReads && (info.st_mode & 077U) != 0) {
    return path + " is readable by others; run: chmod 600 " + path;
  }
  if ((info.st_mode & 002U) != 0) return path + " is writable by others; run: chmod o-w " + path;
  return {};
}

std::string ReadAll(const std::string& path, int fd, std::size_t limit, std::string& out) {
  std::string text;
  std::string chunk(64U << 10U, '\0');
  for (;;) {
    const ssize_t count = ::read(fd, chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Failed("read", path, errno);
    if (count == 0) break;
    text.append(chunk.data(), static_cast<std::size_t>(count));
    if (text.size() > limit) {
      return path + " is too large: at most " + std::to_string(limit) + " bytes are read";
    }
  }
  out = std::move(text);
  return {};
}

std::string WriteAll(const std::string& path, int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Failed("write", path, errno);
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  if (::fsync(fd) != 0) return Failed("sync", path, errno);
  return {};
}

}  // namespace

std::string ErrnoText(int error) { return std::generic_category().message(error); }

void Fd::Reset(int fd) {
  if (m_fd >= 0) ::close(m_fd);
  m_fd = fd;
}

std::string ReadSmallFile(const std::string& path, std::size_t limit, FilePrivacy privacy,
                          std::string& out) {
  // Without blocking: a pipe in the place of a file has no end.
  const Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!fd) return Failed("open", path, errno);
  if (auto fault = CheckPrivacy(path, fd.Get(), privacy); !fault.empty()) return fault;
  return ReadAll(path, fd.Get(), limit, out);
}

std::string WriteNewFile(const std::string& path, std::string_view text) {
  Fd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!fd && errno == EEXIST) return path + " exists already; it is left as it is";
  if (!fd) return Failed("create", path, errno);
  auto fault = WriteAll(path, fd.Get(), text);
  if (fault.empty()) fault = SyncDirectory(DirectoryOf(path));
  if (!fault.empty()) ::unlink(path.c_str());
  return fault;
}

std::string MakePrivateDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) == 0) {
    if (auto fault = SyncDirectory(DirectoryOf(path)); !fault.empty()) return fault;
  } else if (errno != EEXIST) {
    return Failed("make the directory", path, errno);
  }
  return CheckPrivateDirectory(path);
}

std::string CheckPrivateDirectory(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return Failed("look at", path, errno);
  if (!S_ISDIR(info.st_mode)) return path + " is not a directory";
  if (info.st_uid != ::geteuid()) {
    return path + " belongs to another user; run as that user, or choose another directory";
  }
  if ((info.st_mode & 077U) != 0) return path + " is open to others; run: chmod 700 " + path;
  return {};
}

std::string SyncDirectory(const std::string& path) {
  const Fd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return Failed("open", path, errno);
  if (::fsync(fd.Get()) != 0) return Failed("sync", path, errno);
  return {};
}

std::string DirectoryOf(const std::string& path) {
  const auto last = path.find_last_not_of('/');
  if (last == std::string::npos) return path.empty() ? "." : "/";
  const auto slash = path.rfind('/', last);
  if (slash == std::string::npos) return ".";
  const auto end = path.find_last_not_of('/', slash);
  return end == std::string::npos ? "/" : path.substr(0, end + 1);
}

void SetPrivateUmask() { ::umask(077); }

}  // namespace penstock
