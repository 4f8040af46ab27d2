// SPDX-License-Identifier: Apache-2.0
#include "replicator/volume_file.h"

#include <fcntl.h>
#include <linux/falloc.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <limits>
#include <vector>

#include "replicator/mounts.h"

namespace penstock {

namespace {

constexpr std::uint64_t kMaxSize = std::numeric_limits<off_t>::max();
constexpr std::size_t kZeroBytes = std::size_t{1} << 20U;
constexpr std::size_t kPiecesACall = 256;

off_t Offset(std::uint64_t value) { return static_cast<off_t>(value); }

}  // namespace

std::string VolumeFile::Open(const std::string& path, const VolumeOptions& options,
                             std::unique_ptr<VolumeFile>& out) {
  std::unique_ptr<VolumeFile> file(new VolumeFile);
  file->m_path = path;
  auto fault = file->Prepare(options);
  if (fault.empty()) out = std::move(file);
  return fault;
}

std::string VolumeFile::Prepare(const VolumeOptions& options) {
  auto fault = OpenFile(options);
  if (fault.empty() && options.lock) fault = Lock(options.write);
  if (fault.empty()) fault = CheckUnused(options.write);
  if (fault.empty() && m_wasCreated) fault = Grow(options.createSize);
  if (fault.empty() && m_wasCreated) fault = SyncDirectory(DirectoryOf(m_path));
  if (fault.empty()) fault = FindSize();
  if (fault.empty() && options.sequential) ::posix_fadvise(m_fd.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  if (!fault.empty() && m_wasCreated) ::unlink(m_path.c_str());
  return fault;
}

std::string VolumeFile::OpenFile(const VolumeOptions& options) {
  // Without blocking: a pipe in the place of a file would wait for its other end.
  const int flags = (options.write ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  struct stat info {};
  const bool isThere = ::stat(m_path.c_str(), &info) == 0;
  m_isDevice = isThere && S_ISBLK(info.st_mode);
  if (isThere && !m_isDevice && !S_ISREG(info.st_mode)) {
    return m_path + " is neither a regular file nor a block device";
  }
  // The kernel's own look whether somebody uses the device: mounts, swap, RAID, other claims.
  const int exclusive = m_isDevice && options.write ? O_EXCL : 0;
  m_fd.Reset(::open(m_path.c_str(), flags | exclusive));
  if (m_fd) return {};
  if (errno == EBUSY && m_isDevice) {
    const auto place = MountPointOf(info);
    return place.empty() ? m_path + " is in use by the system or another program"
                         : m_path + " is mounted at " + place + "; unmount it first";
  }
  if (errno != ENOENT || !options.create || !options.write) {
    return "can't open " + m_path + ": " + ErrnoText(errno);
  }
  m_fd.Reset(::open(m_path.c_str(), flags | O_CREAT | O_EXCL, 0600));
  if (!m_fd) return "can't create " + m_path + ": " + ErrnoText(errno);
  m_wasCreated = true;
  return {};
}

std::string VolumeFile::FindSize() {
  std::uint64_t size = 0;
  if (m_isDevice) {
    if (::ioctl(m_fd.Get(), BLKGETSIZE64, &size) != 0) {
      return "can't find the size of " + m_path + ": " + ErrnoText(errno);
    }
  } else {
    struct stat info {};
    if (::fstat(m_fd.Get(), &info) != 0) {
      return "can't find the size of " + m_path + ": " + ErrnoText(errno);
    }
    size = static_cast<std::uint64_t>(info.st_size);
  }
  m_size.store(size, std::memory_order_relaxed);
  return {};
}

// The lock belongs to the open file, not to the process: two of one process exclude each other,
// too.
std::string VolumeFile::Lock(bool exclusive) const {
  struct flock lock {};
  lock.l_type = static_cast<short>(exclusive ? F_WRLCK : F_RDLCK);
  lock.l_whence = SEEK_SET;
  if (::fcntl(m_fd.Get(), F_OFD_SETLK, &lock) == 0) return {};
  if (errno == EAGAIN || errno == EACCES) return m_path + " is in use by another penstock";
  return "can't lock " + m_path + ": " + ErrnoText(errno);
}

std::string VolumeFile::CheckUnused(bool write) {
  struct stat info {};
  if (::fstat(m_fd.Get(), &info) != 0) return "can't look at " + m_path + ": " + ErrnoText(errno);
  m_mountedAt = MountPointOf(info);
  if (!write || m_mountedAt.empty()) return {};
  return m_path + " is mounted at " + m_mountedAt + "; unmount it first";
}

std::string VolumeFile::Fault(const char* what, std::uint64_t offset, std::uint64_t length,
                              int error) const {
  return std::string("can't ") + what + " " + std::to_string(length) + " bytes at " +
         std::to_string(offset) + " of " + m_path + ": " + ErrnoText(error);
}

std::string VolumeFile::CheckRange(const char* what, std::uint64_t offset,
                                   std::uint64_t length) const {
  const auto size = Size();
  if (offset <= size && length <= size - offset) return {};
  return std::string("can't ") + what + " " + std::to_string(length) + " bytes at " +
         std::to_string(offset) + " of " + m_path + ": it has " + std::to_string(size) + " bytes";
}

std::string VolumeFile::Read(std::uint64_t offset, std::span<std::uint8_t> out) const {
  if (auto fault = CheckRange("read", offset, out.size()); !fault.empty()) return fault;
  while (!out.empty()) {
    const ssize_t count = ::pread(m_fd.Get(), out.data(), out.size(), Offset(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Fault("read", offset, out.size(), errno);
    if (count == 0) {
      return m_path + " has become shorter than its " + std::to_string(Size()) +
             " bytes while it was read";
    }
    offset += static_cast<std::uint64_t>(count);
    out = out.subspan(static_cast<std::size_t>(count));
  }
  return {};
}

std::string VolumeFile::Write(std::uint64_t offset, Bytes data) {
  return Write(offset, std::span<const Bytes>(&data, 1));
}

std::string VolumeFile::Write(std::uint64_t offset, std::span<const Bytes> pieces) {
  std::uint64_t total = 0;
  for (const auto& piece : pieces) total += piece.size();
  if (auto fault = CheckRange("write", offset, total); !fault.empty()) return fault;
  std::size_t skip = 0;  // bytes of the first piece
  while (total > 0) {
    std::array<iovec, kPiecesACall> places{};
    int count = 0;
    for (const auto& piece : pieces.first(std::min(pieces.size(), places.size()))) {
      const auto from = count == 0 ? skip : 0;
      // The system reads only; iovec has no constant form.
      // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): see above
      auto* data = const_cast<std::uint8_t*>(piece.data());
      places[static_cast<std::size_t>(count++)] = {data + from, piece.size() - from};
    }
    const ssize_t written = ::pwritev(m_fd.Get(), places.data(), count, Offset(offset));
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return Fault("write", offset, total, errno);
    if (written == 0 && places[0].iov_len != 0) return Fault("write", offset, total, ENOSPC);
    offset += static_cast<std::uint64_t>(written);
    total -= static_cast<std::uint64_t>(written);
    for (skip += static_cast<std::size_t>(written);
         !pieces.empty() && skip >= pieces.front().size();) {
      skip -= pieces.front().size();
      pieces = pieces.subspan(1);
    }
  }
  return {};
}

std::string VolumeFile::Zero(std::uint64_t offset, std::uint64_t length) {
  if (auto fault = CheckRange("zero", offset, length); !fault.empty()) return fault;
  if (length == 0) return {};
  while (m_canPunch.load(std::memory_order_relaxed)) {
    const int mode = FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE;
    if (::fallocate(m_fd.Get(), mode, Offset(offset), Offset(length)) == 0) return {};
    if (errno == EINTR) continue;
    // A device refuses what is not a multiple of its blocks, which says nothing of other ranges.
    if (errno == EINVAL && m_isDevice) break;
    if (errno != EOPNOTSUPP && errno != ENOSYS && errno != ENODEV && errno != EPERM) {
      return Fault("zero", offset, length, errno);
    }
    m_canPunch.store(false, std::memory_order_relaxed);
  }
  return WriteZeros(offset, length);
}

std::string VolumeFile::WriteZeros(std::uint64_t offset, std::uint64_t length) {
  static const std::vector<std::uint8_t> zeros(kZeroBytes);
  while (length > 0) {
    const auto count = std::min<std::uint64_t>(length, zeros.size());
    if (auto fault = Write(offset, Bytes(zeros.data(), count)); !fault.empty()) return fault;
    offset += count;
    length -= count;
  }
  return {};
}

std::string VolumeFile::Seek(std::uint64_t offset, int whence, std::uint64_t& out) const {
  const bool wantsData = whence == SEEK_DATA;
  const auto size = Size();
  if (offset >= size) {
    out = size;
    return {};
  }
  const auto found = m_isDevice ? -1 : ::lseek(m_fd.Get(), Offset(offset), whence);
  if (found >= 0) {
    out = std::clamp(static_cast<std::uint64_t>(found), offset, size);
    return {};
  }
  if (!m_isDevice && errno == ENXIO) {  // nothing but a hole up to the end
    out = wantsData ? size : offset;
    return {};
  }
  if (!m_isDevice && errno != EINVAL && errno != EOPNOTSUPP) {
    return "can't look for holes in " + m_path + ": " + ErrnoText(errno);
  }
  out = wantsData ? offset : size;
  return {};
}

std::string VolumeFile::NextData(std::uint64_t offset, std::uint64_t& out) const {
  return Seek(offset, SEEK_DATA, out);
}

std::string VolumeFile::NextHole(std::uint64_t offset, std::uint64_t& out) const {
  return Seek(offset, SEEK_HOLE, out);
}

std::string VolumeFile::SyncBy(int (*call)(int)) {
  const std::lock_guard lock(m_syncMutex);
  if (m_syncFailed) {
    return "can't sync " + m_path + ": an earlier sync failed, and what it lost is not known";
  }
  if (call(m_fd.Get()) == 0) return {};
  const int error = errno;
  m_syncFailed = true;
  return "can't sync " + m_path + ": " + ErrnoText(error);
}

std::string VolumeFile::Sync() { return SyncBy(::fdatasync); }

void VolumeFile::ForgetPages() const { ::posix_fadvise(m_fd.Get(), 0, 0, POSIX_FADV_DONTNEED); }

std::string VolumeFile::Grow(std::uint64_t size) {
  const auto now = Size();
  if (size == now) return {};
  const auto change = "from " + std::to_string(now) + " to " + std::to_string(size) + " bytes";
  if (size < now) return "can't shrink " + m_path + " " + change;
  if (m_isDevice) {
    return m_path + " is a device of " + std::to_string(now) + " bytes, too small for " +
           std::to_string(size);
  }
  if (size > kMaxSize || ::ftruncate(m_fd.Get(), Offset(size)) != 0) {
    return "can't grow " + m_path + " " + change + ": " +
           ErrnoText(size > kMaxSize ? EFBIG : errno);
  }
  if (auto fault = SyncBy(::fsync); !fault.empty()) return fault;
  m_size.store(size, std::memory_order_relaxed);
  return {};
}

}  // namespace penstock
