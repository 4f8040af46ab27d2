// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_CAPTURE_MAP_FILE_H_
#define PENSTOCK_CAPTURE_MAP_FILE_H_

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "engine/capture.h"
#include "replicator/files.h"

namespace penstock {

// The file of a volume's change map.
//
// When it can't be written any more it is removed: the next start then finds none, and compares the
// whole volume. Only when that fails, too, writes have to be refused.
//
// Threads: EnsureSaved from any, after Load.
class MapFile {
 public:
  // Opens the map, or makes one when there is none that is this volume's. Returns an empty text, or
  // what is wrong. `note`: why nothing is known of the volume; empty: it is.
  MapFile() = default;
  MapFile(const MapFile&) = delete;
  MapFile& operator=(const MapFile&) = delete;

  static std::string Open(const std::string& path, const UuidT& volume, std::uint64_t volumeBytes,
                          std::uint64_t extentBytes, std::unique_ptr<MapFile>& out,
                          std::string& note);

  const UuidT& Id() const { return m_header.id; }
  // Puts what the file says into `capture`, as its volume `index`, and keeps both.
  std::string Load(Capture& capture, std::uint8_t index);
  bool WasWhole() const { return m_wasWhole; }  // at Load; otherwise all of the volume is stale

  // Waits until everything up to the generation is on the disk; whoever comes first writes for all.
  // Returns false when neither that nor removing the map could be done.
  bool EnsureSaved(std::uint64_t generation);
  bool SaveAll() { return EnsureSaved(m_capture->UnsavedGeneration(m_index)); }
  std::uint64_t Saves() const { return m_saves; }  // after which the disk was waited for

 private:
  std::string ReadHeader(std::uint64_t volumeBytes, std::uint64_t extentBytes, std::string& note);
  std::string Make(std::string& note);
  std::string WriteSector(std::uint64_t index, const MapSector& sector);
  std::string Sync();
  bool Abandon(const std::string& why);

  std::string m_path;
  Fd m_fd;
  MapHeader m_header;
  bool m_isNew = false;
  bool m_wasWhole = false;
  Capture* m_capture = nullptr;
  std::uint8_t m_index = 0;
  std::mutex m_mutex;  // of the writing
  bool m_isGone = false;
  bool m_isStuck = false;
  std::uint64_t m_saves = 0;
};

}  // namespace penstock

#endif  // PENSTOCK_CAPTURE_MAP_FILE_H_
