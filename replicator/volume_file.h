// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_VOLUME_FILE_H_
#define PENSTOCK_REPLICATOR_VOLUME_FILE_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "codec/hash.h"
#include "replicator/files.h"

namespace penstock {

struct VolumeOptions {
  bool write = false;   // for reading and writing
  bool create = false;  // with `write`: a file of `createSize` zeros where there is none
  std::uint64_t createSize = 0;
  bool lock = true;         // see VolumeFile
  bool sequential = false;  // it will be read from the front to the end
};

// A volume: a regular file, or a block device.
//
// While it is open, a lock holds other penstock processes off: a writer everybody, a reader
// writers. A device that is opened for writing must not be mounted or otherwise in use; nor must a
// file that is mounted through a loop device.
//
// Calls return an empty text, or what went wrong: "can't write 4096 bytes at 8192 of /x/a.img: No
// space left on device".
//
// Threads: any number may read, write, sync and look for holes at a time; Grow alone.
class VolumeFile {
 public:
  static std::string Open(const std::string& path, const VolumeOptions& options,
                          std::unique_ptr<VolumeFile>& out);
  VolumeFile(const VolumeFile&) = delete;
  VolumeFile& operator=(const VolumeFile&) = delete;

  const std::string& Path() const { return m_path; }
  std::uint64_t Size() const { return m_size.load(std::memory_order_relaxed); }
  bool IsDevice() const { return m_isDevice; }
  bool WasCreated() const { return m_wasCreated; }  // by Open
  // Where it is mounted (it can change while it is read), or empty.
  const std::string& MountedAt() const { return m_mountedAt; }

  // Reads exactly out.size() bytes. Beyond the end is an error.
  std::string Read(std::uint64_t offset, std::span<std::uint8_t> out) const;
  // Writes the pieces one behind the other. Beyond the end is an error; nothing ever grows by it.
  std::string Write(std::uint64_t offset, std::span<const Bytes> pieces);
  std::string Write(std::uint64_t offset, Bytes data);
  // Makes a range read as zeros, without taking room where the file system can do so.
  std::string Zero(std::uint64_t offset, std::uint64_t length);

  // The first byte at or behind `offset` that is data, or in a hole. Size() where there is none.
  // Where the system can't tell, everything is data.
  std::string NextData(std::uint64_t offset, std::uint64_t& out) const;
  std::string NextHole(std::uint64_t offset, std::uint64_t& out) const;

  // Waits until what was written is on the disk. After a failure every later call fails, too: what
  // was written is not known any more.
  std::string Sync();
  // From here on it is read from the disk again, as far as it is on it: of what a failed sync lost,
  // also one of an earlier process, the system may still have the pages. A hint, and none where
  // files live in memory. All of it: pages are kept in bundles, of which no part can be dropped.
  void ForgetPages() const;

  // Makes a file longer by a hole, and syncs it; a device must have the size already. A smaller
  // size is an error.
  std::string Grow(std::uint64_t size);

 private:
  VolumeFile() = default;
  std::string Prepare(const VolumeOptions& options);
  std::string OpenFile(const VolumeOptions& options);
  std::string FindSize();
  std::string Lock(bool exclusive) const;
  std::string CheckUnused(bool write);
  std::string CheckRange(const char* what, std::uint64_t offset, std::uint64_t length) const;
  std::string Fault(const char* what, std::uint64_t offset, std::uint64_t length, int error) const;
  std::string SyncBy(int (*call)(int));
  std::string WriteZeros(std::uint64_t offset, std::uint64_t length);
  std::string Seek(std::uint64_t offset, int whence, std::uint64_t& out) const;

  std::string m_path;
  Fd m_fd;
  std::atomic<std::uint64_t> m_size{0};
  bool m_isDevice = false;
  bool m_wasCreated = false;
  std::string m_mountedAt;
  std::atomic<bool> m_canPunch{true};
  // The system tells of a failure once: who syncs at the same time must not miss it.
  std::mutex m_syncMutex;
  bool m_syncFailed = false;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_VOLUME_FILE_H_
