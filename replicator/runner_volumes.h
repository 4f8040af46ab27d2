// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_RUNNER_VOLUMES_H_
#define PENSTOCK_REPLICATOR_RUNNER_VOLUMES_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "engine/commands.h"
#include "replicator/runner_journal.h"
#include "replicator/volume_file.h"

namespace penstock {

// The target's copies of the volumes: DIR/GROUP/VOL.img, unless they are mapped elsewhere. Opened
// when they are wanted, and kept open and locked until the end.
//
// Threads: any.
class TargetVolumes {
 public:
  // `directory` may be empty: only mapped volumes exist then. `mapped`: paths by "GROUP/VOL".
  TargetVolumes(std::string directory, std::map<std::string, std::string> mapped)
      : m_directory(std::move(directory)), m_mapped(std::move(mapped)) {}

  // Each does what the command of its name asks for.
  VolumeOpened Open(const OpenVolume& command);
  IoDone Write(const WriteBlock& command);
  IoDone Apply(const ApplyFile& command, const Journal& journal);
  IoDone Sync(const SyncVolumes& command);
  WindowCompared Compare(const CompareVolume& command);

 private:
  std::string Find(const std::string& group, const std::string& volume, std::string& path) const;
  std::shared_ptr<VolumeFile> Get(const std::string& group, const std::string& volume);

  std::string m_directory;
  std::map<std::string, std::string> m_mapped;
  std::mutex m_mutex;
  std::map<std::string, std::shared_ptr<VolumeFile>> m_open;  // by "GROUP/VOL"
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_RUNNER_VOLUMES_H_
