// SPDX-License-Identifier: Apache-2.0
#include "engine/target_engine.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace penstock {

TargetEngine::TargetEngine(TargetConfig config, std::vector<GroupState> groups,
                           std::vector<JournalFile> found)
    : m_config(std::move(config)), m_found(std::move(found)) {
  for (GroupState& state : groups) {
    m_byName[state.group] = m_groups.size();
    m_groups.push_back(std::make_unique<TargetGroup>(Port(), m_groups.size(), std::move(state)));
  }
}

TargetPort TargetEngine::Port() {
  return {m_config, m_commands,
          [this](std::uint64_t group) { return (++m_lastTicket << kTicketShift) | group; },
          [this](ConnId conn) { m_conns.erase(conn); }, m_keptBytes};
}

std::vector<TargetCommand> TargetEngine::TakeCommands() { return std::exchange(m_commands, {}); }

void TargetEngine::Start(const Moment& now) {
  for (const auto& [name, index] : m_byName) {
    std::vector<JournalFile> own;
    for (const JournalFile& file : m_found) {
      if (file.group == name) own.push_back(file);
    }
    m_groups[index]->Start(own, now);
  }
  m_found.clear();
}

bool TargetEngine::Recovered() const {
  return std::all_of(m_groups.begin(), m_groups.end(),
                     [](const auto& g) { return g->Recovered(); });
}

bool TargetEngine::Halted() const {
  return std::any_of(m_groups.begin(), m_groups.end(), [](const auto& g) { return g->Halted(); });
}

// --- Connections. ---

void TargetEngine::Refuse(ConnId conn, ErrorCode code, const std::string& why) {
  ++m_refused;
  m_commands.emplace_back(SendFrame{conn, Encode(Error{code, 0, why})});
  m_commands.emplace_back(CloseConn{conn, why});
  m_conns.erase(conn);
}

void TargetEngine::Connected(ConnId conn, const std::string& identity, const Moment& now) {
  m_conns[conn] = Conn{identity, now.steady + m_config.helloTimeout, now.steady, kNoGroup, false};
  if (m_conns.size() > m_config.maxConnections) {
    Refuse(conn, ErrorCode::kBusy, "too many connections");
  }
}

void TargetEngine::Received(ConnId conn, const Frame& frame, const Moment& now) {
  const auto place = m_conns.find(conn);
  if (place == m_conns.end()) return;  // of a connection that was closed
  Conn& known = place->second;
  known.heard = now.steady;
  known.deadline = now.steady + m_config.idleTimeout;
  if (known.group != kNoGroup) return m_groups[known.group]->Received(conn, frame, now);
  if (known.asksStatus && frame.type == FrameType::kStatusQuery) {
    m_statusAsked.push_back(conn);
    return;
  }
  if (frame.type == FrameType::kBye) {
    m_commands.emplace_back(CloseConn{conn, "goodbye"});
    m_conns.erase(place);
    return;
  }
  if (frame.type == FrameType::kHello && !known.asksStatus) return TakeHello(conn, frame, now);
  Refuse(conn, ErrorCode::kProtocol, std::string(Name(frame.type)) + " instead of HELLO");
}

// Returns what is not allowed.
std::string TargetEngine::CheckGrants(const std::string& identity, const Hello& hello) const {
  const Right right = hello.purpose == Purpose::kReplicate ? Right::kReplicate : Right::kVerify;
  for (const HelloVolume& volume : hello.volumes) {
    if (!m_config.allows(identity, hello.group, volume.name, right)) {
      return "no grant for " + hello.group + "/" + volume.name;
    }
  }
  return {};
}

void TargetEngine::TakeHello(ConnId conn, const Frame& frame, const Moment& now) {
  Hello hello;
  if (std::string why = Decode(frame.Payload(), hello); !why.empty()) {
    return Refuse(conn, ErrorCode::kProtocol, why);
  }
  if (hello.version != kProtocolVersion) {
    return Refuse(conn, ErrorCode::kVersion,
                  "protocol version " + std::to_string(hello.version) + "; this target speaks " +
                      std::to_string(kProtocolVersion));
  }
  const std::string identity = m_conns.at(conn).identity;
  if (hello.purpose == Purpose::kStatus) {
    Nonce nonce{};
    m_config.random(nonce);
    struct Welcome welcome;
    welcome.epoch = 1;
    welcome.nonce = nonce;
    m_conns.at(conn).asksStatus = true;
    m_commands.emplace_back(SendFrame{conn, Encode(welcome)});
    m_commands.emplace_back(
        SetSeeds{conn, FrameSeed(hello.nonce, nonce, true), FrameSeed(hello.nonce, nonce, false)});
    return;
  }
  if (hello.volumes.empty()) return Refuse(conn, ErrorCode::kProtocol, "HELLO without volumes");
  if (std::string why = CheckGrants(identity, hello); !why.empty()) {
    return Refuse(conn, ErrorCode::kRefused, why);
  }
  auto group = m_byName.find(hello.group);
  if (group == m_byName.end()) {
    if (hello.purpose != Purpose::kReplicate) {
      return Refuse(conn, ErrorCode::kVolume, "there is no group " + hello.group);
    }
    if (m_groups.size() >= m_config.maxGroups) {
      return Refuse(conn, ErrorCode::kBusy, "too many groups");
    }
    GroupState state;
    state.group = hello.group;
    group = m_byName.emplace(hello.group, m_groups.size()).first;
    m_groups.push_back(std::make_unique<TargetGroup>(Port(), m_groups.size(), std::move(state)));
    m_groups.back()->Start({}, now);
  }
  m_conns.at(conn).group = group->second;
  m_groups[group->second]->Greet(conn, identity, hello, now);
}

void TargetEngine::ConnClosed(ConnId conn, const Moment& now) {
  const auto place = m_conns.find(conn);
  if (place == m_conns.end()) return;
  const std::uint64_t group = place->second.group;
  m_conns.erase(place);
  if (group != kNoGroup) m_groups[group]->Gone(conn, now);
}

void TargetEngine::Damaged(ConnId conn, const std::string& why, const Moment& now) {
  const auto place = m_conns.find(conn);
  if (place == m_conns.end()) return;
  const std::uint64_t group = place->second.group;
  if (group == kNoGroup) return Refuse(conn, ErrorCode::kDamaged, why);
  m_groups[group]->Damaged(conn, why, now);
}

bool TargetEngine::MaySee(ConnId conn, const std::string& group) const {
  const auto place = m_conns.find(conn);
  return place != m_conns.end() &&
         m_config.allows(place->second.identity, group, "", Right::kStatus);
}

void TargetEngine::SendStatus(ConnId conn, const std::string& json) {
  if (m_conns.contains(conn)) m_commands.emplace_back(SendFrame{conn, EncodeStatusReply(json)});
}

// --- Answers and time. ---

TargetGroup* TargetEngine::GroupOf(Ticket ticket) {
  const std::uint64_t index = ticket & ((1U << kTicketShift) - 1);
  return index < m_groups.size() ? m_groups[index].get() : nullptr;
}

void TargetEngine::Completed(const IoDone& done, const Moment& now) {
  if (TargetGroup* group = GroupOf(done.ticket)) group->Completed(done, now);
}

void TargetEngine::Completed(const VolumeOpened& opened, const Moment& now) {
  if (TargetGroup* group = GroupOf(opened.ticket)) group->Completed(opened, now);
}

void TargetEngine::Completed(const WindowCompared& compared, const Moment& now) {
  if (TargetGroup* group = GroupOf(compared.ticket)) group->Completed(compared, now);
}

bool TargetEngine::IsPaused(ConnId conn, const Conn& known) const {
  return known.group != kNoGroup && m_groups[known.group]->IsPaused(conn);
}

void TargetEngine::Tick(const Moment& now) {
  std::vector<ConnId> late;
  for (auto& [conn, known] : m_conns) {
    if (IsPaused(conn, known)) {
      // It is we who don't listen: it has its whole time again once we do.
      if (now.steady < known.heard + m_config.pingAfter) continue;
      known.heard = now.steady;
      known.deadline = now.steady + m_config.idleTimeout;
      m_commands.emplace_back(SendFrame{conn, Encode(FrameType::kPing, Ping{0})});
    } else if (now.steady >= known.deadline) {
      late.push_back(conn);
    }
  }
  for (const ConnId conn : late) {
    const std::uint64_t group = m_conns.at(conn).group;
    Refuse(conn, ErrorCode::kTimeout, "nothing came for too long");
    if (group != kNoGroup) m_groups[group]->Gone(conn, now);
  }
  for (const auto& group : m_groups) group->Tick(now);
}

Millis TargetEngine::NextDeadline() const {
  Millis next = std::numeric_limits<Millis>::max();
  for (const auto& [conn, known] : m_conns) {
    const bool paused = IsPaused(conn, known);
    next = std::min(next, paused ? known.heard + m_config.pingAfter : known.deadline);
  }
  for (const auto& group : m_groups) next = std::min(next, group->NextDeadline());
  return next;
}

std::vector<GroupStatus> TargetEngine::Status() const {
  std::vector<GroupStatus> all;
  for (const auto& [name, index] : m_byName) all.push_back(m_groups[index]->Status());
  return all;
}

}  // namespace penstock
