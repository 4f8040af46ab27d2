// SPDX-License-Identifier: Apache-2.0
// The target's peers of one group: who is let in, and how much is taken from them.
#include "engine/target_group.h"

#include <algorithm>
#include <utility>

#include "engine/planted.h"

namespace penstock {

TargetGroup::TargetGroup(TargetPort port, std::uint64_t index, GroupState state)
    : m_port(std::move(port)), m_index(index), m_state(std::move(state)) {
  for (const VolumeRecord& record : m_state.volumes) {
    m_volumes[record.name] = Volume{.record = record, .known = true};
  }
  m_counters = m_state.counters;
  m_applied = m_synced = m_state.flushed;
  m_epoch = m_state.epoch;
}

// --- Peers. ---

TargetPeer* TargetGroup::FindPeer(ConnId conn) {
  const auto peer = m_peers.find(conn);
  return peer == m_peers.end() ? nullptr : &peer->second;
}

void TargetGroup::Refuse(ConnId conn, ErrorCode code, const std::string& why, std::uint64_t n) {
  if (code == ErrorCode::kDamaged || code == ErrorCode::kRefused || code == ErrorCode::kProtocol) {
    ++m_counters.refused;
  }
  m_port.commands.emplace_back(SendFrame{conn, Encode(Error{code, n, why})});
  Drop(conn, why);
}

void TargetGroup::Drop(ConnId conn, const std::string& why) {
  m_port.commands.emplace_back(CloseConn{conn, why});
  m_port.forget(conn);
  Forget(conn);
}

void TargetGroup::Gone(ConnId conn, const Moment& now) {
  Forget(conn);
  Advance(now);
}

void TargetGroup::Damaged(ConnId conn, const std::string& why, const Moment& now) {
  Refuse(conn, ErrorCode::kDamaged, why);
  Advance(now);
}

void TargetGroup::Forget(ConnId conn) {
  m_peers.erase(conn);
  std::erase(m_greetings, conn);
  if (m_source != conn) return;
  m_source = 0;
  // What arrived whole goes on to be committed; the rest is dropped.
  for (const auto& arrival : m_arrivals) {
    if (!arrival->ended) {
      DropFrom(arrival->n);
      break;
    }
  }
  RemoveDropped();
}

void TargetGroup::Greet(ConnId conn, const std::string& identity, const Hello& hello,
                        const Moment& now) {
  TargetPeer& peer = m_peers[conn];
  peer.conn = conn;
  peer.identity = identity;
  peer.hello = hello;
  if (!m_recovered) return Refuse(conn, ErrorCode::kBusy, "the group is being recovered");
  const auto unknown =
      std::count_if(hello.volumes.begin(), hello.volumes.end(),
                    [&](const HelloVolume& volume) { return !m_volumes.contains(volume.name); });
  if (m_volumes.size() + static_cast<std::size_t>(unknown) > kMaxVolumes) {
    return Refuse(conn, ErrorCode::kVolume,
                  "a group has at most " + std::to_string(kMaxVolumes) + " volumes");
  }
  if (hello.purpose == Purpose::kReplicate) {
    if (hello.epoch > m_epoch) {
      return Refuse(conn, ErrorCode::kFork,
                    "the target knows epoch " + std::to_string(m_epoch) +
                        " only: was it restored from a copy? Start the source anew to compare "
                        "everything");
    }
    if (hello.epoch != 0 && hello.epoch < m_epoch && !Planted(Fault::kStaleEpoch)) {
      return Refuse(conn, ErrorCode::kFenced,
                    "a newer source has the group since epoch " + std::to_string(m_epoch));
    }
    if (conn < m_newest && !Planted(Fault::kLateHello)) {
      // Its source gave it up long ago, or says HELLO again. Were it let in, the source that has
      // the group would be fenced, maybe by a HELLO of its own that the network had held back.
      return Refuse(conn, ErrorCode::kBusy, "a newer connection was let in meanwhile");
    }
    m_newest = conn;
    if (m_source != 0) {
      const ConnId old = m_source;
      if (hello.epoch == 0) {
        Refuse(old, ErrorCode::kFenced, "a newer source takes up the group");
      } else {
        Drop(old, "its source has a new connection");
      }
    }
    m_source = conn;
    m_progress = {};
    m_passed.clear();
    m_wantEpoch = hello.epoch == 0;
  }
  m_greetings.push_back(conn);
  OpenNext(now);
  Advance(now);
}

// A volume that a dataset waits for to be applied to.
std::string TargetGroup::NextToOpen() const {
  for (const JournalRecord& record : m_toApply) {
    for (const std::string& name : record.volumes) {
      const auto volume = m_volumes.find(name);
      if (volume == m_volumes.end() || !volume->second.open) return name;
    }
  }
  return {};
}

// Opens volumes one at a time: those that recovery needs, then those of the peers that wait.
void TargetGroup::OpenNext(const Moment&) {
  if (m_opening) return;
  if (const std::string name = NextToOpen(); !name.empty()) {
    m_opening = true;
    m_openName = name;
    const Ticket ticket = m_port.newTicket(m_index);
    m_opens[ticket] = 0;
    m_port.commands.emplace_back(OpenVolume{ticket, m_state.group, name, 0});
    return;
  }
  for (const ConnId conn : m_greetings) {
    const TargetPeer& peer = m_peers.at(conn);
    for (const HelloVolume& wanted : peer.hello.volumes) {
      const auto known = m_volumes.find(wanted.name);
      if (known != m_volumes.end() && known->second.open) continue;
      m_opening = true;
      const Ticket ticket = m_port.newTicket(m_index);
      m_opens[ticket] = conn;
      const bool mayMake = peer.hello.purpose == Purpose::kReplicate;
      m_port.commands.emplace_back(
          OpenVolume{ticket, m_state.group, wanted.name, mayMake ? wanted.size : 0});
      m_openName = wanted.name;
      return;
    }
  }
  TryWelcome();
}

void TargetGroup::Completed(const VolumeOpened& opened, const Moment& now) {
  const auto open = m_opens.find(opened.ticket);
  if (open == m_opens.end() || m_halted) return;
  const ConnId conn = open->second;
  m_opens.erase(open);
  m_opening = false;
  if (!opened.error.empty()) {
    if (conn == 0) {
      m_trouble = opened.error;
      m_retryAt = now.steady + m_port.config.retryAfter;
      m_port.commands.emplace_back(Note{NoteLevel::kError, opened.error});
      return;
    }
    if (FindPeer(conn) != nullptr) Refuse(conn, ErrorCode::kVolume, opened.error);
    return OpenNext(now);
  }
  Volume& volume = m_volumes[m_openName];
  volume.open = true;
  if (!volume.known) {
    volume.record = {m_openName, opened.size,
                     opened.isNew ? VolumeState::kNew : VolumeState::kNeedsResync, 0};
    m_changed[m_openName] = volume.record;
  } else if (opened.isNew || opened.size != volume.record.size) {
    // Somebody replaced it.
    volume.record.size = opened.size;
    volume.record.state = VolumeState::kNeedsResync;
    m_changed[m_openName] = volume.record;
    m_port.commands.emplace_back(
        Note{NoteLevel::kError, "volume " + m_openName +
                                    " is not the one that the target knew: it has "
                                    "to be compared as a whole"});
  } else if (volume.record.state == VolumeState::kNew) {
    // It was made by a process that has ended: who knows what was written into it since.
    volume.record.state = VolumeState::kNeedsResync;
    m_changed[m_openName] = volume.record;
  }
  OpenNext(now);
  Advance(now);
}

void TargetGroup::TryWelcome() {
  if (m_halted || !m_recovered || m_opening) return;
  for (std::size_t i = 0; i < m_greetings.size();) {
    TargetPeer& peer = m_peers.at(m_greetings[i]);
    const auto isOpen = [&](const HelloVolume& v) {
      const auto known = m_volumes.find(v.name);
      return known != m_volumes.end() && known->second.open;
    };
    const bool replicates = peer.hello.purpose == Purpose::kReplicate;
    if (!std::all_of(peer.hello.volumes.begin(), peer.hello.volumes.end(), isOpen) ||
        (replicates && !MayWelcomeSource())) {
      ++i;
      continue;
    }
    const ConnId conn = m_greetings[i];
    m_greetings.erase(m_greetings.begin() + static_cast<std::ptrdiff_t>(i));
    Welcome(peer);
    (void)conn;
  }
}

// A source is let in when nothing of the connection before is under way, the epoch is committed,
// every volume it named is in the committed state, and what the volumes hold is on disk: what a
// comparison finds equal must not be lost later.
bool TargetGroup::MayWelcomeSource() {
  if (m_source == 0 || !IsDrained() || m_wantEpoch || m_committing || !m_changed.empty()) {
    return false;
  }
  for (const HelloVolume& wanted : m_peers.at(m_source).hello.volumes) {
    const Volume& volume = m_volumes.at(wanted.name);
    if (!volume.known || volume.dirty) return false;
  }
  return !m_syncing;
}

void TargetGroup::Welcome(TargetPeer& peer) {
  struct Welcome welcome;
  welcome.epoch = std::max<std::uint64_t>(m_state.epoch, 1);
  m_port.config.random(welcome.nonce);
  welcome.durable = m_state.durable;
  welcome.applied = std::min(m_applied, m_state.durable);
  welcome.flushed = m_state.flushed;
  welcome.chain = m_state.chain;
  welcome.window = m_port.config.window;
  for (const HelloVolume& wanted : peer.hello.volumes) {
    const VolumeRecord& record = m_volumes.at(wanted.name).record;
    if (record.size != wanted.size) {
      return Refuse(peer.conn, ErrorCode::kVolume,
                    "volume " + wanted.name + " has " + std::to_string(record.size) +
                        " bytes at the target and " + std::to_string(wanted.size) +
                        " at the source; make them the same, or name another target volume");
    }
    // A good volume follows every dataset: it is at the newest one that is flushed.
    const bool good = record.state == VolumeState::kGood;
    welcome.volumes.push_back({record.state, good ? m_state.flushed : record.goodAt, record.size});
  }
  peer.welcomed = true;
  ++m_counters.connections;
  m_port.commands.emplace_back(SendFrame{peer.conn, Encode(welcome)});
  m_port.commands.emplace_back(SetSeeds{peer.conn, FrameSeed(peer.hello.nonce, welcome.nonce, true),
                                        FrameSeed(peer.hello.nonce, welcome.nonce, false)});
}

// --- Back-pressure. ---

void TargetGroup::Throttle(TargetPeer& peer) {
  const TargetConfig& config = m_port.config;
  const bool full = peer.queued > config.queueBytes || peer.queries > config.queueQueries ||
                    (peer.conn == m_source && (m_arrivals.size() > config.queueDatasets ||
                                               JournalBytes() > config.journalQuota));
  if (full != peer.reading) return;
  peer.reading = !full;
  m_port.commands.emplace_back(SetReading{peer.conn, peer.reading});
}

bool TargetGroup::IsPaused(ConnId conn) const {
  const auto peer = m_peers.find(conn);
  return peer != m_peers.end() && !peer->second.reading;
}

void TargetGroup::Unqueue(ConnId conn, std::uint64_t bytes) {
  TargetPeer* peer = FindPeer(conn);
  if (peer == nullptr) return;
  peer->queued -= std::min(peer->queued, bytes);
  Throttle(*peer);
}

std::uint64_t TargetGroup::JournalBytes() const {
  std::uint64_t bytes = 0;
  for (const JournalRecord& record : m_state.journal) bytes += record.bytes;
  return bytes;
}

GroupStatus TargetGroup::Status() const {
  GroupStatus status;
  status.state = m_state;
  status.state.counters = m_counters;
  status.state.volumes.clear();
  for (const auto& [name, volume] : m_volumes) {
    VolumeRecord record = volume.record;
    if (record.state == VolumeState::kGood) record.goodAt = m_state.flushed;
    const auto passed = m_passed.find(name);
    if (record.state == VolumeState::kSyncing && passed != m_passed.end()) {
      status.passed[name] = std::min(passed->second, record.size);
    }
    status.state.volumes.push_back(std::move(record));
  }
  status.applied = m_applied;
  status.arriving = m_arrivals.empty() ? m_state.durable : m_arrivals.back()->n;
  status.closed = std::max(m_progress.closed, status.arriving);
  status.sent = std::max(m_progress.sent, m_state.durable);
  status.waitingBytes = m_progress.waiting;
  status.journalBytes = JournalBytes();
  status.journalQuota = m_port.config.journalQuota;
  status.recovering = !m_recovered;
  status.connected = m_source != 0;
  status.trouble = m_applyTrouble.empty() ? m_trouble : m_applyTrouble;
  return status;
}

}  // namespace penstock
