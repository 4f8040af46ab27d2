// SPDX-License-Identifier: Apache-2.0
// A source's machine whose volumes are in use: a guest that writes, a disk that loses what was not
// synced, the capture between them, and the engine.
#ifndef PENSTOCK_TESTS_SIM_LIVE_NODE_H_
#define PENSTOCK_TESTS_SIM_LIVE_NODE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "engine/capture.h"
#include "engine/source_engine.h"
#include "tests/sim/check.h"
#include "tests/sim/disk.h"
#include "tests/sim/link.h"
#include "tests/sim/target_node.h"
#include "tests/sim/world.h"

namespace penstock::sim {

struct LiveOptions {
  std::vector<SourceVolume> volumes;
  std::uint64_t resyncBytes = 0;
  std::uint64_t memory = 0;
  std::uint64_t spool = 0;  // 0: none
  std::uint64_t extentBytes = 4096;
  std::size_t hotExtents = 2;
};

class LiveNode {
 public:
  LiveNode(World& world, Link& link, Checker& checker, TargetNode& target, LiveOptions options);
  LiveNode(const LiveNode&) = delete;
  LiveNode& operator=(const LiveNode&) = delete;

  void Boot();
  // On its operator's order it takes the group up anew, and compares everything.
  void TakeOver();
  // The process ends, with the machine's power or without.
  void Crash(const std::string& why, bool power);
  // Its operator stops it: the guest has ended, and what the target does not take goes to the
  // spool.
  void BeginLeave();
  bool IsLeaving() const { return m_isLeaving; }
  void TryLeave();
  void Finish();
  bool IsUp() const { return m_engine != nullptr; }
  bool IsStopped() const { return m_engine && m_engine->Status().phase == SourcePhase::kStopped; }
  SourceEngine* engine() { return m_engine.get(); }
  Capture* capture() { return m_capture.get(); }

  // The guest begins a write or a trim, unless its range is in use.
  void Write();
  void CloseNow();
  // A bit of a file that waits in the spool rots, while the process is down.
  void DamageSpool();
  void Pause(bool pause);
  // A range of a volume can be neither written nor read, until it is mended.
  void BreakSector();
  void MendSector() { m_bad.reset(); }
  bool LostSync() const { return !m_unsynced.empty() || !m_mapGone.empty(); }  // this process
  bool IsIdle() const { return m_writing.empty(); }  // no write is under way
  Point Taken() const;                               // what is in datasets
  Point Now() const;                                 // what the volumes hold
  void PrintDifferences(const Disk& target) const;
  std::uint64_t overflows = 0;
  std::uint64_t spooled = 0;  // datasets
  std::uint64_t kept = 0;     // starts behind a stop without the target that compare nothing
  std::uint64_t refused = 0;  // writes of which nobody knows what they left

 private:
  // What is captured of the guest, and when.
  class Watched : public Capture {
   public:
    Watched(LiveNode& node, const CaptureOptions& options) : Capture(options), m_node(node) {}
    void Begin(const std::vector<bool>& whole) override;
    void TakeWrites(std::uint64_t n, std::vector<CapturedWrite>& out) override;

   private:
    LiveNode& m_node;
  };
  struct Op {
    std::uint8_t volume = 0;
    std::uint64_t offset = 0, length = 0;
    std::vector<std::uint8_t> data;  // empty: a trim
    Millis since = 0;
    bool isRefused = false;
  };
  struct Bad {
    std::uint8_t volume = 0;
    std::uint64_t offset = 0, length = 0;
  };
  // What a refused write left, and what was written there since: in the volume, and in no dataset
  // before it was compared.
  struct Left {
    std::uint8_t volume = 0;
    std::uint64_t offset = 0;
    std::vector<std::uint8_t> data;
    std::uint64_t stamp = 0;  // writes of this recording that were captured before it
  };
  struct TakenWrite {
    CapturedWrite write;
    std::uint64_t stamp = 0;  // likewise
  };
  // What the process keeps on its disk beside maps and spool: replaced as a whole.
  struct State {
    std::uint64_t epoch = 0, flushed = 0, age = 0;
    std::vector<PointRecord> names;
    std::uint64_t kept = 0;
  };

  std::string Volume(std::size_t index) const { return "volume/" + m_options.volumes[index].name; }
  std::string Map(std::size_t index) const { return "map/" + std::to_string(index); }
  std::string SpoolPath(const UuidT& volume, std::uint64_t n) const;
  void MakeDisk();
  void LoadMap(std::uint8_t volume);
  std::vector<SpooledDataset> ScanSpool();
  bool Overlaps(std::uint8_t volume, std::uint64_t offset, std::uint64_t length) const;
  void Apply(std::vector<std::vector<std::uint8_t>>& to, const CapturedWrite& write) const;

  void After(Millis delay, std::function<void()> what);  // void after a crash
  void EnsureSaved(std::uint8_t volume, std::uint64_t generation, std::function<void()> then);
  void SaveSector(std::uint8_t volume, std::shared_ptr<ChangeMap::Save> save, std::size_t index);
  void WriteVolume(std::uint64_t id);
  void EndWrite(std::uint64_t id);
  bool EndRefused(const Op& op, CapturedWrite& write);
  bool IsBad(std::uint8_t volume, std::uint64_t offset, std::uint64_t length) const;
  void PatchLeft(const CapturedWrite& write);
  bool IsRefused(const Left& left) const;
  void Take(const TakenWrite& taken);
  void SeeLeft(const FetchWindow& command, std::uint64_t n);
  IoStatus SyncVolume(std::size_t index);
  IoStatus SyncMap(std::uint8_t volume);
  void ForgetPages(std::uint8_t volume);

  void Settle();
  void Observe();
  void Timer();
  void TryConnect();
  void CarryOut(SourceCommand& command);
  void Fetch(const FetchWindow& command);
  void Spool(const SpoolWrite& command);
  void SpoolFileStep(std::shared_ptr<SpoolWrite> command, std::size_t file);
  IoStatus WriteSpoolFile(const SpoolWrite& command, std::size_t index);
  void SpoolCommands(SourceCommand& command);
  void RunSpool(std::function<void()> work);
  void CheckLimits();

  World& m_world;
  Link& m_link;
  Checker& m_checker;
  TargetNode& m_target;
  LiveOptions m_options;
  Disk m_disk;
  State m_state;
  std::unique_ptr<Watched> m_capture;
  std::unique_ptr<SourceEngine> m_engine;
  std::uint64_t m_boot = 0;
  std::uint64_t m_lastOp = 0;
  std::uint64_t m_lastName = 0;
  std::map<std::uint64_t, Op> m_writing;
  std::vector<bool> m_saving;  // by volume
  std::multimap<std::uint8_t, std::pair<std::uint64_t, std::function<void()>>> m_waiting;
  std::optional<Bad> m_bad;
  std::optional<Bad> m_again;  // where the guest's next write goes
  std::vector<Left> m_left;
  std::set<std::size_t> m_unsynced;  // volumes: a sync of this process failed
  std::set<std::uint8_t> m_mapGone;  // a map that could not be written, and was removed
  Millis m_spoolFree = 0;            // when the spool's last command ends

  std::vector<std::vector<std::uint8_t>> m_live;       // with every captured write
  std::vector<std::vector<std::uint8_t>> m_taken;      // with every write that is in a dataset
  std::multimap<std::uint64_t, TakenWrite> m_takenBy;  // by dataset, of this history
  std::uint64_t m_stamp = 0;                           // writes taken, of this recording
  std::uint64_t m_closed = 0;
  // By number. Those of a backlog that was given up stay: a crash can bring its spool back, and a
  // number is not used again before that is impossible.
  std::map<std::uint64_t, Point> m_points;
  ConnId m_conn = 0;
  SourceStatus m_before;
  bool m_settling = false;
  bool m_isLeaving = false;
  bool m_wasKept = false;  // by the process before; until it records
};

}  // namespace penstock::sim

#endif  // PENSTOCK_TESTS_SIM_LIVE_NODE_H_
