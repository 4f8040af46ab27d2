// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_CAPTURE_DISK_STORE_H_
#define PENSTOCK_CAPTURE_DISK_STORE_H_

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "capture/map_file.h"
#include "capture/range_lock.h"
#include "engine/source_parts.h"
#include "replicator/live_store.h"
#include "replicator/runner_journal.h"
#include "replicator/volume_file.h"

namespace penstock {

// A volume in use, with what belongs to it.
struct LiveVolume {
  std::string name;
  std::shared_ptr<VolumeFile> file;
  std::unique_ptr<MapFile> map;
  RangeLock lock;
};

// What a source keeps beside maps and spool, in STATE/source.json: replaced as a whole.
struct SourceState {
  std::uint64_t epoch = 0;              // 0: the group was never taken up
  std::uint64_t flushed = 0;            // the target was known to have flushed, at least
  std::uint64_t age = 0;                // of the spool
  std::vector<PointRecord> names = {};  // of points in it
  std::uint64_t kept = 0;               // SourceConfig::kept; of the start that follows alone
};
// Returns an empty text, or what is wrong. None is there: `out` stays as it is.
std::string ReadSourceState(const std::string& directory, const std::string& group,
                            SourceState& out);
std::string WriteSourceState(const std::string& directory, const std::string& group,
                             const SourceState& state);

// The default store of live capture: dataset files below SPOOL/age-N, the state, the maps.
class DiskStore : public LiveStore {
 public:
  // `spool` empty: none. The volumes outlive the store.
  DiskStore(std::string directory, std::string spool, std::string group, SourceState state,
            std::vector<std::unique_ptr<LiveVolume>>& volumes);

  // Removes spools of other ages, and finds the datasets of this one. Returns an empty text, or
  // what is wrong.
  std::string Prepare(std::vector<SpooledDataset>& found);

  SpoolDone Write(const SpoolWrite& command) override;
  SpoolLoaded Read(const SpoolRead& command) override;
  void Remove(const SpoolRemove& command) override;
  SpoolDone Drop(const SpoolDrop& command) override;
  void Keep(const KeepNames& command) override;
  CheckpointDone Keep(const Checkpoint& command) override;
  CheckpointDone Save(const SaveMaps& command) override;
  // The last thing of a process: KeptUpTo returned n. Returns an empty text, or what is wrong.
  std::string KeepUpTo(std::uint64_t n);
  std::shared_ptr<void> HoldOff(std::uint8_t volume, std::uint64_t offset,
                                std::uint64_t length) override;

 private:
  std::string AgePath() const { return m_spool + "/age-" + std::to_string(m_state.age); }
  std::string NextAge();
  std::string OpenSpool();
  std::string Scan(std::vector<SpooledDataset>& found);
  const LiveVolume* FindVolume(const UuidT& id) const;
  IoDone WriteFile(const SpoolWrite& command, const struct SpoolFile& file, SpoolDone& done);

  std::string m_directory;
  std::string m_spool;
  std::string m_group;
  std::mutex m_stateMutex;
  SourceState m_state;
  std::vector<std::unique_ptr<LiveVolume>>& m_volumes;
  std::unique_ptr<Journal> m_journal;
};

}  // namespace penstock

#endif  // PENSTOCK_CAPTURE_DISK_STORE_H_
