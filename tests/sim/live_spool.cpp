// SPDX-License-Identifier: Apache-2.0
// The spool and the small state of a source with live capture, on the simulated disk.
#include <algorithm>
#include <utility>

#include "engine/planted.h"
#include "engine/spool.h"
#include "tests/sim/live_node.h"

namespace penstock::sim {

namespace {

std::string Hex(const UuidT& id) {
  std::string text;
  for (const std::uint8_t byte : id.bytes) {
    text += "0123456789abcdef"[byte >> 4U];
    text += "0123456789abcdef"[byte & 15U];
  }
  return text;
}

}  // namespace

std::string LiveNode::SpoolPath(const UuidT& volume, std::uint64_t n) const {
  return "spool/" + std::to_string(m_state.age) + "/" + Hex(volume) + "/" + std::to_string(n);
}

// Takes the files of this age; what is not part of a whole dataset goes, and so do other ages.
std::vector<SpooledDataset> LiveNode::ScanSpool() {
  SpoolScan scan(GroupId("g"));
  std::map<std::string, UuidT> volumes;
  for (const SourceVolume& volume : m_options.volumes) {
    const UuidT id = VolumeId("g", volume.name);
    volumes[Hex(id)] = id;
  }
  const std::string own = "spool/" + std::to_string(m_state.age) + "/";
  for (const std::string& path : m_disk.List("spool/")) {
    if (path.rfind(own, 0) != 0) {
      m_disk.Remove(path);
      continue;
    }
    const std::string name = path.substr(own.size());
    const std::size_t slash = name.find('/');
    SimFile file(m_disk, path);
    const std::string fault =
        scan.Add(volumes.at(name.substr(0, slash)), std::stoull(name.substr(slash + 1)), file);
    if (fault.empty()) continue;
    m_world.Log(std::string("source: removes ").append(path).append(": ").append(fault));
    m_disk.Remove(path);
  }
  auto whole = scan.Whole();
  for (const SpooledDataset& found : whole) {
    m_world.Log("source: finds dataset " + std::to_string(found.start.n) + " in its spool");
  }
  return whole;
}

void LiveNode::DamageSpool() {
  const auto paths = m_disk.List("spool/");
  if (paths.empty()) return;
  const std::string& path = paths[m_world.rng.Below(paths.size())];
  std::vector<std::uint8_t> data(m_disk.Size(path));
  if (data.empty() || !m_disk.Read(path, 0, data.data(), data.size())) return;
  data[m_world.rng.Below(data.size())] ^= 4U;
  m_disk.Overwrite(path, data);
}

// One after the other.
void LiveNode::RunSpool(std::function<void()> work) {
  const Millis now = m_world.Now().steady;
  m_spoolFree = std::max(m_spoolFree, now) + m_world.Latency();
  After(m_spoolFree - now, std::move(work));
}

IoStatus LiveNode::WriteSpoolFile(const SpoolWrite& command, std::size_t index) {
  const SpoolFile file = SpoolFilesOf(command.start, command.blocks)[index];
  const std::string path = SpoolPath(file.volume, command.start.n);
  // One that was left behind, of a dataset that did not become whole.
  if (m_disk.Exists(path)) m_disk.Remove(path);
  if (const IoStatus status = m_disk.Create(path); status != IoStatus::kOk) return status;
  DatasetFileSum sum;
  const auto put = [&](Bytes record, DPPCmdType type) {
    const auto header = FileCommand(static_cast<std::uint32_t>(record.size()), type);
    const std::uint64_t at = m_disk.Size(path);
    const IoStatus status = m_disk.Write(path, at, header);
    return status != IoStatus::kOk ? status : m_disk.Write(path, at + header.size(), record);
  };
  const auto start = SpoolRecordOf(command.start);
  const Bytes record{reinterpret_cast<const std::uint8_t*>(start.get()),
                     sizeof(OM_DP::DatasetStartv2) + std::size_t{16} * start->count};
  IoStatus status = put(record, DPPCmdType::DatasetStartv2);
  sum.AddStart(record);
  const std::size_t last = m_world.Strikes(m_world.faults.crashSource * 5)
                               ? m_world.rng.Below(file.blocks.size() + 1)
                               : ~std::size_t{0};
  for (const BlockPtr& block : file.blocks) {
    if (sum.Blocks() == last) break;
    if (status == IoStatus::kOk) status = put(RecordBytes(*block), DPPCmdType::CompressedData);
    sum.AddBlock(*block);
  }
  // A crash leaves a file without its end.
  if (last != ~std::size_t{0}) {
    m_disk.SyncName(path);
    m_disk.Sync(path);
    Crash("within a file of the spool", m_world.rng.Chance(0.5));
    return IoStatus::kFailed;
  }
  if (status == IoStatus::kOk) {
    status = put(RecordBytes(*sum.MakeTrailer()), DPPCmdType::CompressedData);
  }
  if (m_world.Strikes(m_world.faults.syncFails)) m_disk.FailNextSync();
  if (status == IoStatus::kOk) status = m_disk.Sync(path);
  if (status == IoStatus::kOk) m_disk.SyncName(path);
  return status;
}

void LiveNode::SpoolFileStep(std::shared_ptr<SpoolWrite> command, std::size_t file) {
  const std::size_t files = command->start.volumes.size();
  RunSpool([this, command, file, files] {
    const std::uint64_t boot = m_boot;
    const IoStatus status = WriteSpoolFile(*command, file);
    if (boot != m_boot) return;
    if (status == IoStatus::kOk && file + 1 < files) return SpoolFileStep(command, file + 1);
    SpoolDone done;
    done.ticket = command->ticket;
    done.status = status;
    done.error = "the disk is full";
    for (const UuidT& volume : command->start.volumes) {
      done.bytes += m_disk.Size(SpoolPath(volume, command->start.n));
    }
    m_engine->Completed(std::move(done), m_world.Now());
    Settle();
  });
}

void LiveNode::SpoolCommands(SourceCommand& command) {
  if (auto* write = std::get_if<SpoolWrite>(&command)) {
    m_world.Log("source: spools " + std::to_string(write->start.n));
    SpoolFileStep(std::make_shared<SpoolWrite>(*write), 0);
  } else if (auto* read = std::get_if<SpoolRead>(&command)) {
    RunSpool([this, c = *read] {
      SpoolLoaded loaded;
      loaded.ticket = c.ticket;
      for (const UuidT& volume : c.start.volumes) {
        SimFile file(m_disk, SpoolPath(volume, c.start.n));
        loaded.error = ReadSpoolFile(file, c.start.n, loaded.blocks);
        if (!loaded.error.empty()) loaded.status = IoStatus::kDamaged;
      }
      m_engine->Completed(std::move(loaded), m_world.Now());
      Settle();
    });
  } else if (auto* remove = std::get_if<SpoolRemove>(&command)) {
    RunSpool([this, start = remove->start] {
      for (const std::string& path : m_disk.List("spool/" + std::to_string(m_state.age) + "/")) {
        if (path.substr(path.rfind('/') + 1) == std::to_string(start.n)) m_disk.Remove(path);
      }
    });
  } else if (auto* drop = std::get_if<SpoolDrop>(&command)) {
    RunSpool([this, ticket = drop->ticket] {
      m_state.names.clear();
      ++m_state.age;  // the files of the age before are removed at the next start
      m_engine->Completed(SpoolDone{ticket, IoStatus::kOk, {}, 0, nullptr}, m_world.Now());
      Settle();
    });
  } else if (auto* names = std::get_if<KeepNames>(&command)) {
    RunSpool([this, c = *names] { m_state.names = c.names; });
  } else if (auto* checkpoint = std::get_if<Checkpoint>(&command)) {
    After(m_world.Latency(), [this, c = *checkpoint] {
      CheckpointDone done{c.ticket, IoStatus::kOk, {}};
      for (std::size_t i = 0; i < m_options.volumes.size(); ++i) {
        if (Planted(Fault::kClearBeforeSync) || SyncVolume(i) == IoStatus::kOk) continue;
        done.status = IoStatus::kFailed;
        done.error = "a sync failed";
      }
      if (done.status != IoStatus::kOk) {
        m_engine->Completed(std::move(done), m_world.Now());
        return Settle();
      }
      m_state.epoch = c.epoch;
      m_state.flushed = c.flushed;
      m_world.Log("source: checkpoint, flushed " + std::to_string(c.flushed));
      m_engine->Completed(std::move(done), m_world.Now());
      Settle();
    });
  } else if (auto* save = std::get_if<SaveMaps>(&command)) {
    auto left = std::make_shared<std::size_t>(m_options.volumes.size());
    for (std::size_t i = 0; i < m_options.volumes.size(); ++i) {
      const auto volume = static_cast<std::uint8_t>(i);
      EnsureSaved(volume, m_capture->UnsavedGeneration(volume), [this, left, c = *save] {
        if (--*left != 0) return;
        After(1, [this, c] {
          m_engine->Completed(CheckpointDone{c.ticket, IoStatus::kOk, {}}, m_world.Now());
          Settle();
        });
      });
    }
  }
}

}  // namespace penstock::sim
