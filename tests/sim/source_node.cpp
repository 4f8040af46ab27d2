// SPDX-License-Identifier: Apache-2.0
#include "tests/sim/source_node.h"

#include <algorithm>
#include <utility>

namespace penstock::sim {

SourceNode::SourceNode(World& world, Link& link, Checker& checker, TargetNode& target,
                       std::string name, std::vector<SourceVolume> configured,
                       std::uint64_t resyncBytes)
    : m_world(world),
      m_link(link),
      m_checker(checker),
      m_target(target),
      m_name(std::move(name)),
      m_configured(std::move(configured)),
      m_resyncBytes(resyncBytes) {
  for (const SourceVolume& volume : m_configured) volumes.emplace_back(volume.size);
}

Point SourceNode::Now() const {
  Point point;
  for (const auto& volume : volumes) point.push_back(Hash64(volume));
  return point;
}

bool SourceNode::IsStopped() const {
  return m_engine && m_engine->Status().phase == SourcePhase::kStopped;
}

void SourceNode::Boot() {
  ++m_boot;
  m_world.Log(m_name + ": boots");
  SourceConfig config;
  config.group = "g";
  config.volumes = m_configured;
  config.resyncBytes = m_resyncBytes;
  config.memory = 4 * m_resyncBytes;
  config.datasetBytes = 64U << 10U;
  config.random = [this](std::span<std::uint8_t> out) { m_world.rng.Fill(out); };
  const std::uint64_t codec = m_world.rng.Below(3);
  if (codec == 1) config.compress = {Codec::kLz4, 1, false};
  if (codec == 2) config.compress = {Codec::kZstd, 1, false};
  m_closed = 0;
  m_points.clear();
  m_before = {};
  m_engine = std::make_unique<SourceEngine>(config);
  m_engine->Start(m_world.Now());
  Settle();
}

void SourceNode::Crash(const std::string& why) {
  if (!m_engine) return;
  m_world.Log(m_name + ": crashes: " + why);
  ++m_boot;
  m_engine.reset();
  if (m_conn != 0) m_link.Die(m_conn, Side::kSource);
  m_conn = 0;
}

// --- The owner. ---

void SourceNode::WriteUntracked() {
  auto& volume = volumes[m_world.rng.Below(volumes.size())];
  const std::uint64_t offset = m_world.rng.Below(volume.size());
  const std::uint64_t length =
      std::min<std::uint64_t>(volume.size() - offset, m_world.rng.Between(1, 9000));
  m_world.rng.Fill({volume.data() + offset, length});
}

void SourceNode::WriteSomething() {
  if (!m_engine || IsStopped() || m_engine->Status().epoch == 0) return;
  const std::size_t index = m_world.rng.Below(volumes.size());
  auto& volume = volumes[index];
  const bool aligned = m_world.rng.Chance(0.5);
  std::uint64_t offset = m_world.rng.Below(volume.size());
  if (aligned) offset &= ~std::uint64_t{4095};
  std::uint64_t length =
      std::min<std::uint64_t>(volume.size() - offset, aligned ? 4096 * m_world.rng.Between(1, 3)
                                                              : m_world.rng.Between(1, 9000));
  std::shared_ptr<std::uint8_t[]> data;
  if (!m_world.rng.Chance(0.15)) {
    data = std::make_shared<std::uint8_t[]>(length);
    m_world.rng.Fill({data.get(), length});
  }
  const WriteResult result = m_engine->Write(static_cast<std::uint8_t>(index), offset, data,
                                             static_cast<std::uint32_t>(length), m_world.Now());
  SIM_CHECK(result != WriteResult::kOutside, "a write within the volume was refused");
  m_world.Log(m_name + ": writes v" + std::to_string(index) + " " + std::to_string(offset) + " + " +
              std::to_string(length) + " into " + std::to_string(m_engine->m_last));
  // Datasets before the one that took the write were closed without it.
  Observe(m_engine->m_normalHeld.rbegin()->first - 1);
  if (data) {
    std::copy_n(data.get(), length, volume.begin() + static_cast<std::ptrdiff_t>(offset));
  } else {
    std::fill_n(volume.begin() + static_cast<std::ptrdiff_t>(offset), length, std::uint8_t{0});
  }
  Settle();
}

void SourceNode::CloseDataset() {
  if (!m_engine) return;
  m_engine->CloseDataset(m_world.Now());
  Settle();
}

void SourceNode::Resync() {
  if (!m_engine || m_engine->Status().epoch == 0) return;
  m_engine->Resync(m_world.Now());
  Settle();
}

// --- Commands. ---

// Notes the points that were closed, and the chain values of what was sent.
void SourceNode::Observe(std::uint64_t upTo) {
  const SourceStatus& now = m_engine->Status();
  if (m_closed == 0) m_closed = m_engine->m_base;
  while (m_closed < std::min(upTo, now.closed)) m_points[++m_closed] = Now();
  for (const auto& [n, cursor] : m_engine->m_cursors) {
    if (cursor.ended && n <= m_closed) m_checker.Sent(cursor.chain, m_points.at(n));
  }
  SIM_CHECK(now.durable >= m_before.durable && now.applied >= m_before.applied &&
                now.flushed >= m_before.flushed,
            "I3: a report went back");
  SIM_CHECK(now.flushed <= now.applied && now.applied <= now.durable && now.durable <= now.sent,
            "I3: flushed, applied, durable, sent are out of order");
  SIM_CHECK(m_engine->m_reserved <= 4 * m_resyncBytes + m_resyncBytes,
            "I7: more memory than configured");
  m_before = now;
}

void SourceNode::Settle() {
  if (m_settling) return;
  m_settling = true;
  const std::uint64_t boot = m_boot;
  Observe();
  for (auto commands = m_engine->TakeCommands(); !commands.empty();) {
    for (SourceCommand& command : commands) {
      if (m_world.Strikes(m_world.faults.crashSource)) Crash("at a command");
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

void SourceNode::Timer() {
  const Millis deadline = m_engine->NextDeadline();
  if (deadline == ~Millis{0}) return;
  const Millis now = m_world.Now().steady;
  m_world.After(std::max(deadline, now) - now + 1, [this, boot = m_boot] {
    if (boot != m_boot || !m_engine) return;
    if (m_engine->NextDeadline() > m_world.Now().steady) return;
    m_engine->Tick(m_world.Now());
    Settle();
  });
}

void SourceNode::TryConnect() {
  m_world.After(m_world.Latency() + 1, [this, boot = m_boot] {
    if (boot != m_boot || !m_engine) return;
    if (!m_target.Listens()) {
      m_engine->ConnectFailed("refused", m_world.Now());
      Settle();
      return;
    }
    EndEvents events;
    events.frame = [this, boot](ConnId conn, const Frame& frame) {
      if (boot != m_boot || !m_engine) return;
      m_engine->Received(conn, frame, m_world.Now());
      if (m_engine->Status().epoch != 0) m_target.epochs[conn] = m_engine->Status().epoch;
      Settle();
    };
    const auto gone = [this, boot](ConnId conn, const std::string& why) {
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
    m_conn = m_target.Accept(events, m_name);
    if (m_engine->Status().epoch != 0) m_target.epochs[m_conn] = m_engine->Status().epoch;
    m_engine->Connected(m_conn, m_world.Now());
    Settle();
  });
}

void SourceNode::CarryOut(SourceCommand& command) {
  if (auto* send = std::get_if<SendFrame>(&command)) {
    if (send->frame.type == FrameType::kQuery || send->frame.type == FrameType::kDatasetStart ||
        send->frame.type == FrameType::kDatasetEnd) {
      m_world.Log(m_name + ": " + Name(send->frame.type));
    }
    m_link.Send(send->conn, Side::kSource, send->frame);
  } else if (auto* seeds = std::get_if<SetSeeds>(&command)) {
    m_link.SetSeeds(seeds->conn, Side::kSource, seeds->read, seeds->write);
  } else if (auto* close = std::get_if<CloseConn>(&command)) {
    m_link.Close(close->conn, Side::kSource);
    if (close->conn == m_conn) m_conn = 0;
  } else if (auto* note = std::get_if<Note>(&command)) {
    m_world.Log(m_name + ": note: " + note->text);
  } else if (auto* halt = std::get_if<Halt>(&command)) {
    throw Broken(m_name + " halts: " + halt->reason);
  } else if (std::holds_alternative<Connect>(command)) {
    TryConnect();
  } else if (auto* fetch = std::get_if<FetchWindow>(&command)) {
    Fetch(*fetch);
  } else if (auto* runs = std::get_if<PackRuns>(&command)) {
    m_world.After(m_world.Latency(), [this, boot = m_boot, c = *runs] {
      if (boot != m_boot || !m_engine) return;
      m_engine->Completed(DoPackRuns(c), m_world.Now());
      Settle();
    });
  } else if (auto* buffers = std::get_if<PackBuffers>(&command)) {
    m_world.After(m_world.Latency(), [this, boot = m_boot, c = *buffers] {
      if (boot != m_boot || !m_engine) return;
      m_engine->Completed(DoPackBuffers(c), m_world.Now());
      Settle();
    });
  }
}

void SourceNode::Fetch(const FetchWindow& command) {
  m_world.After(m_world.Latency(), [this, boot = m_boot, c = command] {
    if (boot != m_boot || !m_engine) return;
    const auto& volume = volumes[c.volume];
    m_world.Log(m_name + ": reads v" + std::to_string(c.volume) + " " + std::to_string(c.offset) +
                " + " + std::to_string(c.length));
    WindowFetched result;
    if (c.compare) {
      auto data = std::make_shared<std::uint8_t[]>(c.length);
      std::copy_n(volume.begin() + static_cast<std::ptrdiff_t>(c.offset), c.length, data.get());
      result = FingerprintWindow(c, data);
      if (m_world.faults.weakPrints) {
        for (std::uint64_t& print : result.fingerprints) print &= 3U;
      }
    } else {
      const BlockPtr raw = BeginRawBlock(0, {c.offset, c.length});
      std::copy_n(volume.begin() + static_cast<std::ptrdiff_t>(c.offset), c.length,
                  RawData(*raw).begin());
      result = CopyWindow(c, raw);
    }
    m_engine->Completed(std::move(result), m_world.Now());
    Settle();
  });
}

}  // namespace penstock::sim
