// SPDX-License-Identifier: Apache-2.0
// The target's commands, carried out on the simulated disk.
#include <algorithm>
#include <utility>

#include "tests/sim/target_node.h"

namespace penstock::sim {

namespace {

class SimSink : public BlockSink {
 public:
  SimSink(World& world, Disk& disk, std::string path, std::uint64_t writes)
      : m_world(world), m_disk(disk), m_path(std::move(path)), m_writes(writes) {}
  IoStatus Write(std::uint64_t offset, Bytes data, std::string& error) override {
    if (m_writes-- == 0) {
      error = "the power is gone";
      return IoStatus::kFailed;
    }
    m_world.Log("target: writes " + m_path + " " + std::to_string(offset) + " + " +
                std::to_string(data.size()));
    return m_disk.Write(m_path, offset, data);
  }
  IoStatus Zero(std::uint64_t offset, std::uint32_t length, std::string& error) override {
    const std::vector<std::uint8_t> zeros(length);
    return Write(offset, zeros, error);
  }

 private:
  World& m_world;
  Disk& m_disk;
  std::string m_path;
  std::uint64_t m_writes;
};

std::string VolumePath(const std::string& volume) { return "volume/" + volume; }

}  // namespace

template <class Command>
void TargetNode::RunIo(const std::string& key, const Command& command,
                       std::function<IoStatus(IoDone&)> work) {
  Run(key, [this, ticket = command.ticket, work = std::move(work)] {
    IoDone done;
    done.ticket = ticket;
    done.status = work(done);
    if (done.status != IoStatus::kOk && done.error.empty()) done.error = "simulated";
    return [this, done] { m_engine->Completed(done, m_world.Now()); };
  });
}

void TargetNode::OpenFile(const JournalOpen& open) {
  const std::string path = FilePath(open.volume, open.n);
  RunIo(path, open, [this, path, start = open.start](IoDone&) {
    if (const IoStatus status = m_disk.Create(path); status != IoStatus::kOk) return status;
    const Bytes record{reinterpret_cast<const std::uint8_t*>(start.get()),
                       sizeof(OM_DP::DatasetStartv2) + std::size_t{16} * start->count};
    const auto header =
        FileCommand(static_cast<std::uint32_t>(record.size()), DPPCmdType::DatasetStartv2);
    auto& sum = m_sums[path] = std::make_unique<DatasetFileSum>();
    const IoStatus status = m_disk.Write(path, 0, header);
    sum->AddStart(record);
    return status != IoStatus::kOk ? status : m_disk.Write(path, header.size(), record);
  });
}

void TargetNode::AppendToFile(const JournalAppend& append) {
  const std::string path = FilePath(append.volume, append.n);
  RunIo(path, append, [this, path, c = append](IoDone& done) {
    const IoStatus checked = CheckArrived(*c.block, c.size, c.volumeSize, done.error);
    if (checked != IoStatus::kOk) return checked;
    if (!m_sums.contains(path)) return IoStatus::kNoSpace;  // it could not be made
    const Bytes record = RecordBytes(*c.block);
    const auto header =
        FileCommand(static_cast<std::uint32_t>(record.size()), DPPCmdType::CompressedData);
    DatasetFileSum& sum = *m_sums.at(path);
    const std::uint64_t at = sum.Size();
    const bool strays = m_world.Strikes(m_world.faults.misdirect);
    const bool early = strays && m_world.rng.Chance(0.5);
    if (strays) {
      m_world.Log("target: a write is misdirected");
      m_checker.mayLose = true;
    }
    sum.AddBlock(*c.block);
    if (early) m_disk.MisdirectNextWrite();
    const IoStatus status = m_disk.Write(path, at, header);
    if (status != IoStatus::kOk) return status;
    if (strays && !early) m_disk.MisdirectNextWrite();
    return m_disk.Write(path, at + header.size(), record);
  });
}

void TargetNode::CloseFile(const JournalClose& close) {
  const std::string path = FilePath(close.volume, close.n);
  RunIo(path, close, [this, path](IoDone& done) {
    if (!m_sums.contains(path)) return IoStatus::kNoSpace;
    const BlockPtr trailer = m_sums.at(path)->MakeTrailer();
    const std::uint64_t at = m_sums.at(path)->Size();
    m_sums.erase(path);
    const Bytes record = RecordBytes(*trailer);
    const auto header =
        FileCommand(static_cast<std::uint32_t>(record.size()), DPPCmdType::CompressedData);
    IoStatus status = m_disk.Write(path, at, header);
    if (status == IoStatus::kOk) status = m_disk.Write(path, at + header.size(), record);
    if (status != IoStatus::kOk) return status;
    done.bytes = m_disk.Size(path);
    if (m_world.Strikes(m_world.faults.syncFails)) m_disk.FailNextSync();
    return m_disk.Sync(path);
  });
}

void TargetNode::JournalCommands(TargetCommand& command) {
  if (auto* open = std::get_if<JournalOpen>(&command)) {
    OpenFile(*open);
  } else if (auto* append = std::get_if<JournalAppend>(&command)) {
    AppendToFile(*append);
  } else if (auto* close = std::get_if<JournalClose>(&command)) {
    CloseFile(*close);
  } else if (auto* remove = std::get_if<JournalRemove>(&command)) {
    const std::string path = FilePath(remove->volume, remove->n);
    RunIo(path, *remove, [this, path, aside = remove->quarantine](IoDone&) {
      m_sums.erase(path);
      if (aside) {
        m_disk.Rename(path, path + ".damaged");
      } else {
        m_disk.Remove(path);
      }
      return IoStatus::kOk;
    });
  } else if (auto* dirs = std::get_if<JournalSyncDirs>(&command)) {
    RunIo("dirs", *dirs, [this, files = dirs->files](IoDone&) {
      for (const auto& [n, volume] : files) m_disk.SyncName(FilePath(volume, n));
      return IoStatus::kOk;
    });
  }
}

void TargetNode::VolumeCommands(TargetCommand& command) {
  if (auto* open = std::get_if<OpenVolume>(&command)) {
    Run("open", [this, c = *open] {
      VolumeOpened opened;
      opened.ticket = c.ticket;
      const std::string path = VolumePath(c.volume);
      if (!m_disk.Exists(path)) {
        if (c.size == 0) {
          opened.error = "there is no volume " + c.volume;
        } else {
          m_disk.MakeVolume(path, c.size);
          opened.isNew = true;
        }
      }
      opened.size = m_disk.Size(path);
      return [this, opened] { m_engine->Completed(opened, m_world.Now()); };
    });
  } else if (auto* write = std::get_if<WriteBlock>(&command)) {
    // Each on its own: they may come in any order.
    RunIo("write" + std::to_string(m_lastOp), *write, [this, c = *write](IoDone& done) {
      SimSink sink(m_world, m_disk, VolumePath(c.volume), ~std::uint64_t{0});
      return WriteToVolume(*c.block, c.size, c.volumeSize, sink, done.error);
    });
  } else if (auto* apply = std::get_if<ApplyFile>(&command)) {
    RunIo(VolumePath(apply->volume), *apply, [this, c = *apply](IoDone& done) {
      SimFile file(m_disk, FilePath(c.volume, c.n));
      // A crash in the middle shows as a partial write: the engine is gone by then.
      const bool dies = m_engine == nullptr;
      m_world.Log("target: applies " + c.volume + " of " + std::to_string(c.n));
      SimSink sink(m_world, m_disk, VolumePath(c.volume),
                   dies ? m_world.rng.Below(4) : ~std::uint64_t{0});
      if (c.blocks) return ApplyKeptBlocks(c, sink, done.error);
      return ApplyDatasetFile(c, file, sink, done.error);
    });
  } else if (auto* sync = std::get_if<SyncVolumes>(&command)) {
    RunIo("sync", *sync, [this, volumes = sync->volumes](IoDone&) {
      for (const std::string& volume : volumes) {
        if (m_world.Strikes(m_world.faults.syncFails)) m_disk.FailNextSync();
        const IoStatus status = m_disk.Sync(VolumePath(volume));
        if (status != IoStatus::kOk) return status;
      }
      return IoStatus::kOk;
    });
  }
}

void TargetNode::Commit(const CommitState& command) {
  std::uint64_t epoch = 0;
  if (const TargetGroup& group = *m_engine->m_groups.front(); !group.m_arrivals.empty()) {
    const auto known = epochs.find(group.m_arrivals.front()->conn);
    if (known != epochs.end()) epoch = known->second;
  }
  RunIo("commit", command, [this, c = command, epoch](IoDone&) {
    if (m_states.empty()) {
      m_states.emplace_back();
      m_states.front().group = c.group;
    }
    m_checker.Committed(c.change, epoch);
    std::string text = "target: commits epoch " + std::to_string(c.change.epoch) + ", durable " +
                       std::to_string(c.change.durable) + ", flushed " +
                       std::to_string(c.change.flushed);
    for (const VolumeRecord& v : c.change.volumes) {
      text += ", " + v.name + " " + penstock::Text(v.state) + " " + std::to_string(v.goodAt);
    }
    for (const JournalRecord& r : c.change.addJournal) {
      text += ", journal " + std::to_string(r.n) + " flags " + std::to_string(r.flags);
    }
    m_world.Log(text);
    Apply(c.change, m_states.front());
    return IoStatus::kOk;
  });
}

void TargetNode::Compare(const CompareVolume& command) {
  Run("compare" + std::to_string(m_lastOp), [this, c = command] {
    std::vector<std::uint8_t> window(c.query.length);
    WindowCompared result;
    if (!m_disk.Read(VolumePath(c.volume), c.query.offset, window.data(), window.size())) {
      result.ticket = c.ticket;
      result.status = IoStatus::kFailed;
    } else if (m_world.faults.weakPrints) {
      // Both sides keep two bits of each fingerprint: most that look equal are not.
      std::vector<std::uint64_t> ours = Fingerprints(window, c.seed);
      RunHasher hasher(c.key);
      result.ticket = c.ticket;
      for (std::size_t i = 0; i < ours.size(); ++i) {
        penstock::Run run;
        run.firstBlock = static_cast<std::uint16_t>(i);
        run.blocks = 1;
        run.equal = (ours[i] & 3U) == c.query.fingerprints[i];
        if (run.equal) {
          run.strong =
              hasher.Of(c.query.n, c.query.firstBlock + run.firstBlock, RunBytes(window, run));
        }
        result.runs.push_back(run);
      }
    } else {
      result = DoCompare(c, window);
    }
    return [this, result] { m_engine->Completed(result, m_world.Now()); };
  });
}

}  // namespace penstock::sim
