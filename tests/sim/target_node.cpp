// SPDX-License-Identifier: Apache-2.0
#include "tests/sim/target_node.h"

#include <algorithm>
#include <array>
#include <utility>

#include "engine/planted.h"

namespace penstock::sim {

void Apply(const StateChange& change, GroupState& state) {
  state.epoch = change.epoch;
  state.durable = change.durable;
  state.flushed = change.flushed;
  state.chain = change.chain;
  state.flushedAtMs = change.flushedAtMs;
  state.counters = change.counters;
  for (const VolumeRecord& record : change.volumes) {
    const auto known = std::find_if(state.volumes.begin(), state.volumes.end(),
                                    [&](const VolumeRecord& v) { return v.name == record.name; });
    if (known == state.volumes.end()) {
      state.volumes.push_back(record);
    } else {
      *known = record;
    }
  }
  Apply(change, state.points);
  state.journal.insert(state.journal.end(), change.addJournal.begin(), change.addJournal.end());
  std::erase_if(state.journal,
                [&](const JournalRecord& r) { return r.n <= change.dropJournalUpTo; });
}

std::string TargetNode::FilePath(const std::string& volume, std::uint64_t n) const {
  return "journal/" + volume + "/" + std::to_string(n);
}

// --- Life. ---

// While the target was down nobody watched its volumes: one that was empty need not be any more.
void TargetNode::Tamper() {
  if (m_states.empty() || !m_world.Strikes(m_world.faults.tamper)) return;
  for (const VolumeRecord& record : m_states.front().volumes) {
    const std::string path = "volume/" + record.name;
    if (record.state != VolumeState::kNew || !m_disk.Exists(path)) continue;
    std::vector<std::uint8_t> data(m_disk.Size(path));
    m_world.rng.Fill(data);
    m_world.Log("somebody fills " + path);
    m_disk.Overwrite(path, data);
  }
}

void TargetNode::Boot() {
  ++m_boot;
  Tamper();
  m_wasRecovered = false;
  m_world.Log("target: boots");
  TargetConfig config;
  config.queueBytes = 1U << 20U;
  config.window = 256U << 10U;
  // Nothing, little, or all that is not yet applied.
  config.keepBytes = std::array<std::uint64_t, 3>{0, 16U << 10U, 1U << 30U}[m_world.rng.Below(3)];
  config.random = [this](std::span<std::uint8_t> out) { m_world.rng.Fill(out); };
  config.allows = [](const std::string& identity, const std::string&, const std::string& volume,
                     Right) { return identity != "rogue" || volume == "v0"; };
  std::vector<JournalFile> found;
  for (const std::string& path : m_disk.List("journal/")) {
    const std::size_t slash = path.rfind('/');
    const std::string n = path.substr(slash + 1);
    if (n.find_first_not_of("0123456789") != std::string::npos) continue;  // put aside
    found.push_back({"g", path.substr(8, slash - 8), std::stoull(n)});
  }
  m_checker.Restarted(m_states, m_disk);
  m_engine = std::make_unique<TargetEngine>(config, m_states, found);
  m_engine->Start(m_world.Now());
  Settle();
}

void TargetNode::Crash(const std::string& why) {
  if (!m_engine) return;
  m_world.Log("target: crashes: " + why);
  ++m_boot;
  m_engine.reset();
  auto pending = std::exchange(m_pending, {});
  for (auto& [id, io] : pending) {
    if (m_world.rng.Chance(0.5)) io();
  }
  m_disk.Crash();
  m_sums.clear();
  m_busy.clear();
  for (const ConnId conn : std::exchange(m_conns, {})) m_link.Die(conn, Side::kTarget);
  m_world.After(m_world.rng.Between(1, 200), [this, boot = m_boot] {
    if (boot == m_boot) Boot();
  });
}

ConnId TargetNode::Accept(EndEvents source, const std::string& identity) {
  EndEvents own;
  const std::uint64_t boot = m_boot;
  own.frame = [this, boot](ConnId conn, const Frame& frame) {
    if (boot != m_boot || !m_engine) return;
    m_engine->Received(conn, frame, m_world.Now());
    Settle();
  };
  own.closed = [this, boot](ConnId conn, const std::string&) {
    if (boot != m_boot || !m_engine) return;
    m_conns.erase(conn);
    m_engine->ConnClosed(conn, m_world.Now());
    Settle();
  };
  own.damaged = [this, boot](ConnId conn, const std::string& why) {
    if (boot != m_boot || !m_engine) return;
    ++refused;
    m_engine->Damaged(conn, why, m_world.Now());
    Settle();
  };
  const ConnId conn = m_link.Open(std::move(source), std::move(own));
  m_conns.insert(conn);
  m_engine->Connected(conn, identity, m_world.Now());
  Settle();
  return conn;
}

// --- Commands. ---

void TargetNode::Settle() {
  if (m_settling) return;
  m_settling = true;
  const std::uint64_t boot = m_boot;
  for (auto commands = m_engine->TakeCommands(); !commands.empty();) {
    for (TargetCommand& command : commands) {
      if (m_world.Strikes(m_world.faults.crashTarget)) Crash("at a command");
      if (boot != m_boot) break;
      CarryOut(command);
      if (boot != m_boot) break;
    }
    if (boot != m_boot) break;
    commands = m_engine->TakeCommands();
  }
  m_settling = false;
  if (boot != m_boot) return;
  if (!m_wasRecovered && m_engine->Recovered()) {
    m_wasRecovered = true;
    for (const GroupStatus& status : m_engine->Status()) m_checker.Recovered(status, m_disk);
    m_world.Log("target: recovered");
  }
  Timer();
}

void TargetNode::Timer() {
  const Millis deadline = m_engine->NextDeadline();
  if (deadline == ~Millis{0}) return;
  const Millis now = m_world.Now().steady;
  m_world.After(std::max(deadline, now) - now + 1, [this, boot = m_boot, deadline] {
    if (boot != m_boot || !m_engine || m_engine->NextDeadline() > m_world.Now().steady) return;
    (void)deadline;
    m_engine->Tick(m_world.Now());
    Settle();
  });
}

void TargetNode::CheckQuiet() {
  if (!Listens()) return;
  SIM_CHECK(m_engine->m_keptBytes <= m_engine->m_config.keepBytes, "I7: more kept than configured");
  for (const auto& group : m_engine->m_groups) {
    const GroupState& state = group->m_state;
    const bool isQuiet = group->m_arrivals.empty() && group->m_applied == state.durable &&
                         state.flushed == state.durable && !group->m_committing &&
                         !group->m_syncing && group->m_changed.empty();
    SIM_CHECK(!isQuiet || m_engine->m_keptBytes == 0, "I7: blocks are kept of what is applied");
    if (isQuiet && state.durable > 0) m_checker.Recovered(group->Status(), m_disk);
  }
}

void TargetNode::CheckSent(const SendFrame& send) {
  const FrameType type = send.frame.type;
  if (type == FrameType::kWelcome) {
    Welcome welcome;
    SIM_CHECK(Decode(send.frame.Payload(), welcome).empty(), "a WELCOME that can't be decoded");
    const auto epoch = epochs.find(send.conn);
    SIM_CHECK(epoch == epochs.end() || epoch->second >= welcome.epoch,
              "I1: a source of epoch " + std::to_string(epoch->second) + " was let into epoch " +
                  std::to_string(welcome.epoch));
  }
  if (type != FrameType::kAck && type != FrameType::kDone && type != FrameType::kFlushed) return;
  struct Report report;
  SIM_CHECK(Decode(send.frame.Payload(), report).empty(), "a report that can't be decoded");
  m_world.Log("target: " + std::string(Name(type)) + " " + std::to_string(report.n));
  if (type == FrameType::kAck && rogues.contains(send.conn)) {
    m_checker.RogueAcked(rogues.at(send.conn));
  }
  SIM_CHECK(!m_disk.SyncFailed(), "I6: a report after a failed sync");
  m_checker.Reported(type, send.conn, report);
}

void TargetNode::CarryOut(TargetCommand& command) {
  if (auto* send = std::get_if<SendFrame>(&command)) {
    CheckSent(*send);
    m_link.Send(send->conn, Side::kTarget, send->frame);
  } else if (auto* seeds = std::get_if<SetSeeds>(&command)) {
    m_link.SetSeeds(seeds->conn, Side::kTarget, seeds->read, seeds->write);
  } else if (auto* close = std::get_if<CloseConn>(&command)) {
    m_world.Log("target: closes " + std::to_string(close->conn) + ": " + close->reason);
    m_conns.erase(close->conn);
    m_link.Close(close->conn, Side::kTarget);
  } else if (auto* note = std::get_if<Note>(&command)) {
    m_world.Log("target: note: " + note->text);
  } else if (auto* halt = std::get_if<Halt>(&command)) {
    Crash("halt: " + halt->reason);
  } else if (auto* compare = std::get_if<CompareVolume>(&command)) {
    Compare(*compare);
  } else if (auto* commit = std::get_if<CommitState>(&command)) {
    Commit(*commit);
  } else if (std::holds_alternative<SetReading>(command)) {
    // The link has no back-pressure.
  } else {
    JournalCommands(command);
    VolumeCommands(command);
  }
}

void TargetNode::Run(const std::string& key, Io io) {
  const Millis now = m_world.Now().steady;
  Millis& busy = m_busy[key];
  busy = std::max(busy, now + m_world.Latency());
  const std::uint64_t id = ++m_lastOp;
  m_pending.emplace(id, std::move(io));
  m_world.After(busy - now, [this, id, boot = m_boot] {
    if (boot != m_boot) return;
    const Io work = std::move(m_pending.at(id));
    m_pending.erase(id);
    const std::function<void()> tell = work();
    tell();
    Settle();
  });
}

}  // namespace penstock::sim
