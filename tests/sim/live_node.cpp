// SPDX-License-Identifier: Apache-2.0
#include "tests/sim/live_node.h"

#include <algorithm>
#include <utility>

#include "engine/work.h"

namespace penstock::sim {

LiveNode::LiveNode(World& world, Link& link, Checker& checker, TargetNode& target,
                   LiveOptions options)
    : m_world(world),
      m_link(link),
      m_checker(checker),
      m_target(target),
      m_options(std::move(options)),
      m_disk(world.rng) {
  MakeDisk();
}

// Half of the blocks stay zero.
void LiveNode::MakeDisk() {
  for (std::size_t i = 0; i < m_options.volumes.size(); ++i) {
    const std::uint64_t size = m_options.volumes[i].size;
    m_disk.MakeVolume(Volume(i), size);
    std::vector<std::uint8_t> data(size);
    for (std::uint64_t from = 0; from < size; from += 4096) {
      if (m_world.rng.Chance(0.5)) continue;
      m_world.rng.Fill({data.data() + from, std::min<std::uint64_t>(4096, size - from)});
    }
    m_disk.Overwrite(Volume(i), data);
    m_live.push_back(std::move(data));
  }
  m_saving.resize(m_options.volumes.size());
}

Point LiveNode::Now() const {
  Point point;
  for (std::size_t i = 0; i < m_options.volumes.size(); ++i) {
    point.push_back(m_disk.HashOf(Volume(i)));
  }
  return point;
}

void LiveNode::PrintDifferences(const Disk& target) const {
  for (std::size_t i = 0; i < m_options.volumes.size(); ++i) {
    const std::uint64_t size = m_options.volumes[i].size;
    std::vector<std::uint8_t> ours(size);
    std::vector<std::uint8_t> theirs(size);
    m_disk.Read(Volume(i), 0, ours.data(), size);
    if (!target.Read(Volume(i), 0, theirs.data(), size)) continue;
    for (std::size_t at = 0; at < size; ++at) {
      if (ours[at] == theirs[at]) continue;
      std::size_t end = at;
      while (end < size && ours[end] != theirs[end]) ++end;
      std::fprintf(stderr, "%s differs from %zu to %zu\n", Volume(i).c_str(), at, end);
      at = end;
    }
  }
}

// --- Life. ---

void LiveNode::Boot() {
  ++m_boot;
  m_world.Log("source: boots, epoch " + std::to_string(m_state.epoch) + ", age " +
              std::to_string(m_state.age));
  CaptureOptions capture;
  for (std::size_t i = 0; i < m_options.volumes.size(); ++i) {
    const std::uint64_t size = m_options.volumes[i].size;
    capture.volumes.push_back({UuidT{{static_cast<std::uint8_t>(i + 1)}}, size});
    m_live[i].resize(size);
  }
  capture.extentBytes = m_options.extentBytes;
  capture.hotExtents = m_options.hotExtents;
  capture.datasetBytes = 32U << 10U;
  capture.memory = m_options.memory;
  m_capture = std::make_unique<Watched>(*this, capture);
  m_left.clear();
  for (std::size_t i = 0; i < m_options.volumes.size(); ++i) {
    LoadMap(static_cast<std::uint8_t>(i));
    ForgetPages(static_cast<std::uint8_t>(i));
    m_disk.Read(Volume(i), 0, m_live[i].data(), m_live[i].size());
  }

  SourceConfig config;
  config.group = "g";
  config.volumes = m_options.volumes;
  config.resyncBytes = m_options.resyncBytes;
  config.memory = 4 * m_options.resyncBytes;
  config.datasetBytes = capture.datasetBytes;
  config.random = [this](std::span<std::uint8_t> out) { m_world.rng.Fill(out); };
  const std::uint64_t codec = m_world.rng.Below(3);
  if (codec == 1) config.compress = {Codec::kLz4, 1, false};
  if (codec == 2) config.compress = {Codec::kZstd, 1, false};
  config.feed = m_capture.get();
  config.epoch = m_state.epoch;
  config.flushed = m_state.flushed;
  config.names = m_state.names;
  config.liveMemory = m_options.memory;
  config.spoolBytes = m_options.spool;
  m_wasKept = m_state.kept != 0;
  config.kept = std::exchange(m_state.kept, 0);
  config.interval = m_world.rng.Between(50, 1500);
  config.spoolAfter = m_world.rng.Between(0, 1000);
  config.readAgain = m_world.rng.Between(20, 3'000);
  config.clearExtents = m_world.rng.Between(1, 4);
  config.spooled = ScanSpool();
  m_closed = 0;
  m_before = {};
  m_isLeaving = false;
  m_engine = std::make_unique<SourceEngine>(config);
  m_engine->Start(m_world.Now());
  Settle();
}

// A map that is not there is made, and durable, before anything is written.
void LiveNode::LoadMap(std::uint8_t volume) {
  const std::string path = Map(volume);
  const std::uint64_t sectors = MapSectors(m_options.volumes[volume].size, m_options.extentBytes);
  const UuidT id{{static_cast<std::uint8_t>(volume + 1)}};
  bool isWhole = m_disk.Exists(path);
  if (!isWhole) m_disk.MakeVolume(path, sectors * kMapSectorBytes);
  for (std::uint64_t i = 0; isWhole && i + 1 < sectors; ++i) {
    MapSector sector{};
    m_disk.Read(path, (i + 1) * kMapSectorBytes, sector.data(), sector.size());
    isWhole = CheckBits(id, i, sector);
    if (isWhole) m_capture->Load(volume, i, sector);
  }
  if (isWhole && m_state.kept != 0) m_capture->TakeStale(volume, m_state.kept, ~std::uint64_t{0});
  // What a process that was killed left may not be on the disk.
  if (SyncMap(volume) == IoStatus::kOk && isWhole) return;
  m_world.Log("source: nothing is known of volume " + std::to_string(volume));
  m_capture->LoadNothing(volume);
  const auto save = m_capture->TakeUnsaved(volume);
  if (!save) return;
  if (!m_mapGone.contains(volume)) {
    for (const auto& [index, sector] : save->sectors) {
      m_disk.Write(path, index * kMapSectorBytes, sector);
    }
    SyncMap(volume);
  }
  m_capture->Saved(volume, save->generation);
}

void LiveNode::TakeOver() {
  Crash("to take the group up anew", false);
  m_state = {0, 0, m_state.age + 1, {}};
  Boot();
}

void LiveNode::Crash(const std::string& why, bool power) {
  if (!m_engine) return;
  m_world.Log("source: crashes: " + why + (power ? ", without power" : ""));
  ++m_boot;
  overflows += m_engine->Status().overflows;
  m_engine.reset();
  m_capture.reset();
  m_writing.clear();
  m_waiting.clear();
  m_saving.assign(m_saving.size(), false);
  m_unsynced.clear();
  m_mapGone.clear();
  m_spoolFree = 0;
  if (m_conn != 0) m_link.Die(m_conn, Side::kSource);
  m_conn = 0;
  if (power) m_disk.Crash();
}

void LiveNode::BeginLeave() {
  if (!m_engine || m_isLeaving) return;
  m_isLeaving = true;
  m_engine->CloseDataset(m_world.Now());
  m_engine->Finish(m_world.Now());
  Settle();
}

void LiveNode::Finish() {
  m_engine->Finish(m_world.Now());
  Settle();
}

void LiveNode::TryLeave() {
  if (!m_engine || !m_writing.empty()) return;
  const auto upTo = m_engine->KeptUpTo();
  if (!upTo && !m_engine->Status().isFinished) return;
  if (!m_engine->Status().isFinished) {
    bool isSynced = true;
    for (std::size_t i = 0; i < m_options.volumes.size(); ++i) {
      isSynced = SyncVolume(i) == IoStatus::kOk && isSynced;
    }
    m_state.kept = isSynced ? *upTo : 0;
  }
  Crash("its operator stops it", false);
}

void LiveNode::After(Millis delay, std::function<void()> what) {
  m_world.After(delay, [this, boot = m_boot, what = std::move(what)] {
    if (boot == m_boot && m_engine) what();
  });
}

void LiveNode::CloseNow() {
  if (!m_engine) return;
  const bool isConsistent = m_world.rng.Chance(0.5);
  const std::string name = isConsistent ? "point " + std::to_string(++m_lastName) : "";
  if (m_engine->CloseDataset(m_world.Now(), isConsistent, name) != 0 && isConsistent) {
    m_checker.Named(name, Taken());
  }
  Settle();
}

void LiveNode::Pause(bool pause) {
  if (!m_engine) return;
  if (pause) {
    m_engine->Pause(m_world.Now());
  } else {
    m_engine->Resume(m_world.Now());
  }
  Settle();
}

// --- What is captured. ---

void LiveNode::Apply(std::vector<std::vector<std::uint8_t>>& to, const CapturedWrite& write) const {
  const auto place = to[write.volume].begin() + static_cast<std::ptrdiff_t>(write.offset);
  if (write.data) {
    std::copy_n(write.data.get(), write.length, place);
  } else {
    std::fill_n(place, write.length, std::uint8_t{0});
  }
}

void LiveNode::Watched::Begin(const std::vector<bool>& whole) {
  Capture::Begin(whole);
  if (m_node.m_wasKept && TotalStale() == 0 && BytesHeld() == 0) ++m_node.kept;
  m_node.m_wasKept = false;
  m_node.m_world.Log("source: records from " + std::to_string(m_node.m_engine->m_last) + " on");
  m_node.m_taken = m_node.m_live;
  m_node.m_takenBy.clear();
  m_node.m_stamp = 0;
  for (Left& left : m_node.m_left) left.stamp = 0;
  // The points of what the spool had are known from the life before.
  m_node.m_closed = m_node.m_engine->m_last;
}

void LiveNode::Watched::TakeWrites(std::uint64_t n, std::vector<CapturedWrite>& out) {
  Capture::TakeWrites(n, out);
  for (const CapturedWrite& write : out) {
    m_node.Take(m_node.m_takenBy.emplace(n, TakenWrite{write, m_node.m_stamp++})->second);
  }
  auto taken = m_node.m_taken;
  // Of these ranges only the volume knows what it holds.
  for (const Left& left : m_node.m_left) {
    const auto place = static_cast<std::ptrdiff_t>(left.offset);
    std::copy_n(m_node.m_live[left.volume].begin() + place, left.data.size(),
                taken[left.volume].begin() + place);
  }
  SIM_CHECK(taken == m_node.m_live, "I9: what was captured is not what was written");
}

// --- The engine. ---

Point LiveNode::Taken() const {
  Point point;
  for (const auto& volume : m_taken) point.push_back(Hash64(volume));
  return point;
}

void LiveNode::Observe() {
  const SourceStatus& now = m_engine->Status();
  if (m_engine->m_pipe) {
    while (m_closed < now.closed) {
      m_points[++m_closed] = Taken();
    }
    for (const auto& [n, cursor] : m_engine->m_cursors) {
      const auto point = m_points.find(n);
      if (cursor.ended && point != m_points.end()) m_checker.Sent(cursor.chain, point->second);
    }
  }
  SIM_CHECK(now.durable >= m_before.durable && now.applied >= m_before.applied &&
                now.flushed >= m_before.flushed,
            "I3: a report went back");
  SIM_CHECK(now.flushed <= now.applied && now.applied <= now.durable,
            "I3: flushed, applied, durable are out of order");
  SIM_CHECK(now.failure.empty() || now.failureCode != ErrorCode::kFailed,
            "the source gives up: " + now.failure);
  SIM_CHECK(now.lastTrouble.find(" is due") == std::string::npos,
            "I3: a dataset out of order: " + now.lastTrouble);
  CheckLimits();
  spooled += now.spooledDatasets > m_before.spooledDatasets ? 1 : 0;
  m_before = now;
}

void LiveNode::CheckLimits() {
  const std::uint64_t dataset = m_engine->m_config.datasetBytes + 16'384;
  SIM_CHECK(m_engine->m_reserved <= 5 * m_options.resyncBytes, "I7: more memory than configured");
  SIM_CHECK(m_capture->BytesHeld() <= m_options.memory + dataset,
            "I7: more memory for writes than configured");
  SIM_CHECK(m_engine->Status().spooledBytes <= m_options.spool + dataset,
            "I7: a larger spool than configured");
}

void LiveNode::Settle() {
  if (m_settling) return;
  m_settling = true;
  const std::uint64_t boot = m_boot;
  Observe();
  for (auto commands = m_engine->TakeCommands(); !commands.empty();) {
    for (SourceCommand& command : commands) {
      if (m_world.Strikes(m_world.faults.crashSource))
        Crash("at a command", m_world.rng.Chance(0.5));
      if (boot != m_boot) break;
      CarryOut(command);
      if (boot != m_boot) break;
    }
    if (boot != m_boot) break;
    Observe();
    commands = m_engine->TakeCommands();
  }
  m_settling = false;
  if (boot == m_boot) Timer();
}

void LiveNode::Timer() {
  const Millis deadline = m_engine->NextDeadline();
  if (deadline == ~Millis{0}) return;
  const Millis now = m_world.Now().steady;
  After(std::max(deadline, now) - now + 1, [this] {
    if (m_engine->NextDeadline() > m_world.Now().steady) return;
    m_engine->Tick(m_world.Now());
    Settle();
  });
}

void LiveNode::TryConnect() {
  After(m_world.Latency() + 1, [this] {
    if (!m_target.Listens()) {
      m_engine->ConnectFailed("refused", m_world.Now());
      return Settle();
    }
    const auto note = [this](ConnId conn) {
      const std::uint64_t epoch = std::max(m_engine->Status().epoch, m_engine->m_hello.epoch);
      if (epoch != 0) m_target.epochs[conn] = epoch;
    };
    EndEvents events;
    events.frame = [this, note, boot = m_boot](ConnId conn, const Frame& frame) {
      if (boot != m_boot || !m_engine) return;
      m_engine->Received(conn, frame, m_world.Now());
      note(conn);
      Settle();
    };
    const auto gone = [this, boot = m_boot](ConnId conn, const std::string& why) {
      if (boot != m_boot || !m_engine) return;
      if (conn == m_conn) m_conn = 0;
      m_engine->ConnClosed(conn, why, m_world.Now());
      Settle();
    };
    events.closed = gone;
    events.damaged = [this, gone](ConnId conn, const std::string& why) {
      m_link.Close(conn, Side::kSource);
      gone(conn, why);
    };
    m_conn = m_target.Accept(events, "live");
    m_engine->Connected(m_conn, m_world.Now());
    note(m_conn);
    Settle();
  });
}

void LiveNode::CarryOut(SourceCommand& command) {
  if (auto* send = std::get_if<SendFrame>(&command)) {
    m_link.Send(send->conn, Side::kSource, send->frame);
  } else if (auto* seeds = std::get_if<SetSeeds>(&command)) {
    m_link.SetSeeds(seeds->conn, Side::kSource, seeds->read, seeds->write);
  } else if (auto* close = std::get_if<CloseConn>(&command)) {
    m_link.Close(close->conn, Side::kSource);
    if (close->conn == m_conn) m_conn = 0;
  } else if (auto* said = std::get_if<Note>(&command)) {
    m_world.Log("source: note: " + said->text);
  } else if (auto* halt = std::get_if<Halt>(&command)) {
    throw Broken("source halts: " + halt->reason);
  } else if (std::holds_alternative<Connect>(command)) {
    TryConnect();
  } else if (auto* fetch = std::get_if<FetchWindow>(&command)) {
    Fetch(*fetch);
  } else if (auto* runs = std::get_if<PackRuns>(&command)) {
    After(m_world.Latency(), [this, c = *runs] {
      m_engine->Completed(DoPackRuns(c), m_world.Now());
      Settle();
    });
  } else if (auto* buffers = std::get_if<PackBuffers>(&command)) {
    After(m_world.Latency(), [this, c = *buffers] {
      m_engine->Completed(DoPackBuffers(c), m_world.Now());
      Settle();
    });
  } else {
    SpoolCommands(command);
  }
}

}  // namespace penstock::sim
