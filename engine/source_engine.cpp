// SPDX-License-Identifier: Apache-2.0
// The source's connection: greeting, reports, troubles.
#include "engine/source_engine.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace penstock {

const char* Text(SourcePhase phase) {
  switch (phase) {
    case SourcePhase::kIdle: return "idle";
    case SourcePhase::kConnecting: return "connecting";
    case SourcePhase::kGreeting: return "greeting";
    case SourcePhase::kOnline: return "online";
    case SourcePhase::kBackoff: return "reconnecting";
    case SourcePhase::kPaused: return "paused";
    case SourcePhase::kStopped: return "stopped";
  }
  return "unknown";
}

SourceEngine::SourceEngine(SourceConfig config) : m_config(std::move(config)) {
  for (const SourceVolume& volume : m_config.volumes) {
    m_volumeIds.push_back(VolumeId(m_config.group, volume.name));
  }
  m_passWanted = m_config.resyncAtStart && m_config.feed == nullptr;
  m_knownEpoch = m_config.epoch;
  m_backoff = m_config.backoffMin;
}

SourceEngine::~SourceEngine() = default;

std::vector<SourceCommand> SourceEngine::TakeCommands() { return std::exchange(m_commands, {}); }

void SourceEngine::Say(NoteLevel level, std::string text) {
  m_commands.emplace_back(Note{level, std::move(text)});
}

void SourceEngine::Send(Frame frame) {
  m_commands.emplace_back(SendFrame{m_conn, std::move(frame)});
}

// --- Events. ---

void SourceEngine::Start(const Moment& now) {
  if (m_status.phase != SourcePhase::kIdle) return;
  if (m_config.epoch != 0 || m_config.spooled.empty()) return BeginConnect(now);
  // A spool without the history that it belongs to.
  m_config.spooled.clear();
  DropSpool();
  SetPhase(SourcePhase::kBackoff);
  m_deadline = now.steady;
}

void SourceEngine::BeginConnect(const Moment& now) {
  SetPhase(SourcePhase::kConnecting);
  m_deadline = now.steady + m_config.greetTimeout;
  m_commands.emplace_back(Connect{});
}

void SourceEngine::Connected(ConnId conn, const Moment& now) {
  if (m_status.phase != SourcePhase::kConnecting) {
    m_commands.emplace_back(CloseConn{conn, "not wanted any more"});
    return;
  }
  m_conn = conn;
  ++m_connCount;
  SetPhase(SourcePhase::kGreeting);
  m_deadline = now.steady + m_config.greetTimeout;
  m_lastHeard = now.steady;
  m_pinged = false;
  SendHello();
}

void SourceEngine::ConnectFailed(const std::string& why, const Moment& now) {
  if (m_status.phase == SourcePhase::kConnecting) Backoff(why, now);
  Settle(now);
}

void SourceEngine::ConnClosed(ConnId conn, const std::string& why, const Moment& now) {
  if (conn != m_conn || m_conn == 0) return;
  m_conn = 0;
  if (m_status.phase != SourcePhase::kStopped) Backoff(why, now);
  Settle(now);
}

void SourceEngine::Received(ConnId conn, const Frame& frame, const Moment& now) {
  if (conn != m_conn || m_conn == 0 || m_status.phase == SourcePhase::kStopped) return;
  m_lastHeard = now.steady;
  m_pinged = false;
  TakeFrame(frame, now);
  Settle(now);
}

void SourceEngine::Tick(const Moment& now) {
  switch (m_status.phase) {
    case SourcePhase::kIdle:
    case SourcePhase::kStopped: return;
    case SourcePhase::kPaused: break;
    case SourcePhase::kConnecting:
      if (now.steady >= m_deadline) Backoff("no connection within the time allowed", now);
      break;
    case SourcePhase::kGreeting:
      if (now.steady >= m_deadline) DropConn("the target did not answer HELLO in time", now);
      break;
    case SourcePhase::kBackoff:
      if (now.steady >= m_deadline && !m_spoolDropping) BeginConnect(now);
      break;
    case SourcePhase::kOnline: TickOnline(now); break;
  }
  Settle(now);
}

void SourceEngine::TickOnline(const Moment& now) {
  const Millis silent = now.steady - std::min(now.steady, m_lastHeard);
  if (silent >= m_config.progressTimeout) {
    DropConn("nothing came from the target for " + std::to_string(silent / 1000) + " s", now);
  } else if (silent >= m_config.pingAfter && !m_pinged) {
    m_pinged = true;
    Send(Encode(FrameType::kPing, Ping{m_connCount}));
  }
}

Millis SourceEngine::NextDeadline() const {
  switch (m_status.phase) {
    case SourcePhase::kIdle:
    case SourcePhase::kStopped: return std::numeric_limits<Millis>::max();
    case SourcePhase::kPaused: return LiveDeadline();
    case SourcePhase::kBackoff:
      if (m_spoolDropping) return LiveDeadline();
      [[fallthrough]];
    case SourcePhase::kConnecting:
    case SourcePhase::kGreeting: return std::min(m_deadline, LiveDeadline());
    case SourcePhase::kOnline: break;
  }
  const Millis heard = m_lastHeard + (m_pinged ? m_config.progressTimeout : m_config.pingAfter);
  return std::min(m_hasToTell ? std::min(heard, m_tellAt) : heard, LiveDeadline());
}

void SourceEngine::Pause(const Moment& now) {
  if (m_status.phase == SourcePhase::kStopped || m_status.phase == SourcePhase::kPaused) return;
  if (m_status.phase == SourcePhase::kOnline) {
    Send(EncodeBye());
    ResetCursors();
  }
  if (m_conn != 0) m_commands.emplace_back(CloseConn{m_conn, "paused"});
  m_conn = 0;
  SetPhase(SourcePhase::kPaused);
  Say(NoteLevel::kNotice, "paused");
  Settle(now);
}

void SourceEngine::Resume(const Moment& now) {
  if (m_status.phase != SourcePhase::kPaused) return;
  Say(NoteLevel::kNotice, "goes on");
  SetPhase(SourcePhase::kBackoff);
  m_deadline = now.steady;
  Tick(now);
}

void SourceEngine::Stop(const Moment&) {
  if (m_status.phase == SourcePhase::kStopped) return;
  if (m_conn != 0) {
    if (m_status.phase == SourcePhase::kOnline) Send(EncodeBye());
    m_commands.emplace_back(CloseConn{m_conn, "stopped"});
    m_conn = 0;
  }
  SetPhase(SourcePhase::kStopped);
}

// --- Troubles. ---

void SourceEngine::DropConn(const std::string& why, const Moment& now) {
  if (m_conn != 0) m_commands.emplace_back(CloseConn{m_conn, why});
  m_conn = 0;
  Backoff(why, now);
}

void SourceEngine::Backoff(const std::string& why, const Moment& now) {
  if (m_status.phase == SourcePhase::kStopped || m_status.phase == SourcePhase::kPaused) return;
  const bool wasOnline = m_status.phase == SourcePhase::kOnline;
  SetPhase(SourcePhase::kBackoff);
  m_status.lastTrouble = why;
  if (wasOnline) {
    m_backoff = m_config.backoffMin;
    ++m_status.reconnects;
    ResetCursors();
  }
  // Half of the time and up to half of it again, by chance: sources that lost their target together
  // don't come back together.
  std::uint8_t dice = 0;
  m_config.random({&dice, 1});
  const Millis wait = m_backoff / 2 + m_backoff / 2 * dice / 255;
  m_deadline = now.steady + wait;
  m_backoff = std::min(m_backoff * 2, m_config.backoffMax);
  Say(NoteLevel::kNotice, "reconnecting in " + std::to_string(wait) + " ms: " + why);
}

void SourceEngine::GiveUp(ErrorCode code, const std::string& why) {
  m_status.failureCode = code;
  m_status.failure = why;
  if (m_conn != 0) m_commands.emplace_back(CloseConn{m_conn, why});
  m_conn = 0;
  SetPhase(SourcePhase::kStopped);
  if (m_config.feed != nullptr) m_config.feed->Lose();
  Say(NoteLevel::kError, why);
}

void SourceEngine::Refuse(const std::string& why, const Moment& now) {
  ++m_status.damaged;
  DropConn("the target sent what it must not: " + why, now);
}

// --- Frames. ---

void SourceEngine::SendHello() {
  m_hello = Hello{};
  m_hello.epoch = m_status.epoch != 0 ? m_status.epoch : m_config.epoch;
  m_hello.group = m_config.group;
  m_config.random(m_hello.nonce);
  m_config.random(m_hello.runKey);
  std::array<std::uint8_t, 8> seed{};
  m_config.random(seed);
  for (const std::uint8_t byte : seed)
    m_hello.fingerprintSeed = m_hello.fingerprintSeed << 8U | byte;
  for (const SourceVolume& volume : m_config.volumes) {
    m_hello.volumes.push_back({volume.name, volume.size});
  }
  Send(Encode(m_hello));
}

void SourceEngine::TakeFrame(const Frame& frame, const Moment& now) {
  if (frame.type == FrameType::kError) return TakeError(frame, now);
  if (m_status.phase == SourcePhase::kGreeting) {
    if (frame.type == FrameType::kWelcome) return TakeWelcome(frame, now);
    return Refuse(std::string(Name(frame.type)) + " before WELCOME", now);
  }
  if (m_status.phase != SourcePhase::kOnline) return;
  switch (frame.type) {
    case FrameType::kAck:
    case FrameType::kDone:
    case FrameType::kFlushed: return TakeReport(frame.type, frame, now);
    case FrameType::kAnswer: return TakeAnswer(frame, now);
    case FrameType::kPong: return;
    case FrameType::kPing: {
      Ping ping;
      if (std::string why = Decode(frame.Payload(), ping); !why.empty()) return Refuse(why, now);
      return Send(Encode(FrameType::kPong, ping));
    }
    case FrameType::kBye: return DropConn("the target says goodbye", now);
    case FrameType::kDatasetStart:
    case FrameType::kBlock:
    case FrameType::kHello:
    case FrameType::kWelcome:
    case FrameType::kDatasetEnd:
    case FrameType::kQuery:
    case FrameType::kProgress:
    case FrameType::kError:
    case FrameType::kStatusQuery:
    case FrameType::kStatusReply: break;
  }
  Refuse(std::string(Name(frame.type)) + " is not for a source", now);
}

void SourceEngine::TakeError(const Frame& frame, const Moment& now) {
  Error error;
  if (std::string why = Decode(frame.Payload(), error); !why.empty()) return Refuse(why, now);
  const std::string what = std::string("the target says: ") + Text(error.code) + ": " + error.text;
  switch (error.code) {
    case ErrorCode::kRefused:
    case ErrorCode::kFenced:
    case ErrorCode::kFork:
    case ErrorCode::kVolume:
    case ErrorCode::kVersion: return GiveUp(error.code, what);
    case ErrorCode::kProtocol:
    case ErrorCode::kDamaged:
    case ErrorCode::kNoSpace:
    case ErrorCode::kBusy:
    case ErrorCode::kFailed:
    case ErrorCode::kTimeout: return DropConn(what, now);
  }
}

void SourceEngine::TakeReport(FrameType type, const Frame& frame, const Moment& now) {
  Report report;
  if (std::string why = Decode(frame.Payload(), report); !why.empty()) return Refuse(why, now);
  const std::string what = std::string(Name(type)) + " of " + std::to_string(report.n);
  if (type == FrameType::kAck) {
    if (report.n <= m_status.durable) return;  // told before, by WELCOME
    const auto cursor = m_cursors.find(report.n);
    if (cursor == m_cursors.end() || !cursor->second.ended) {
      return Refuse(what + ", which was not sent", now);
    }
    if (cursor->second.chain != report.chain) {
      return GiveUp(ErrorCode::kFork, "history differs at " + std::to_string(report.n) +
                                          ": the target acknowledged other data");
    }
    return AckUpTo(report.n);
  }
  if (report.n > m_status.durable) return Refuse(what + ", which is not durable", now);
  if (type == FrameType::kDone) return DoneUpTo(report.n);
  if (report.n > m_status.applied) return Refuse(what + ", which is not applied", now);
  const auto chain = m_chains.find(report.n);
  if (chain != m_chains.end() && chain->second != report.chain) m_status.chainAgrees = false;
  FlushedUpTo(report.n);
}

// --- Whatever has become possible. ---

void SourceEngine::Settle(const Moment& now) {
  TakeSteps(now);
  if (m_config.feed != nullptr) m_config.feed->Carried(m_normalBytes, m_reserved, DrainsBacklog());
}

void SourceEngine::TakeSteps(const Moment& now) {
  if (m_status.phase == SourcePhase::kStopped || m_status.phase == SourcePhase::kIdle) return;
  StepClose(now);
  StepSpool(now);
  StepCheckpoint(now);
  if (m_status.phase != SourcePhase::kOnline || !m_pipe) return;
  StepRefused(now);
  StepPass(now);
  StepFetch();
  SendQueries();
  Pump();
  SendProgress(now);
}

Progress SourceEngine::ProgressNow() const {
  Progress progress;
  progress.closed = m_status.closed;
  progress.sent = m_status.sent;
  progress.waiting = MemoryUsed();
  progress.passed = m_passed;
  progress.passed.resize(m_config.volumes.size());
  return progress;
}

// What changes at once is told now and then only.
void SourceEngine::SendProgress(const Moment& now) {
  if (m_status.phase != SourcePhase::kOnline) return;
  Progress progress = ProgressNow();
  m_hasToTell = progress != m_told;
  if (!m_hasToTell || now.steady < m_tellAt) return;
  Send(Encode(progress));
  m_told = std::move(progress);
  m_tellAt = now.steady + m_config.progressEvery;
  m_hasToTell = false;
}

bool SourceEngine::IsSettled() const {
  const bool hasWrites = m_config.feed != nullptr && m_config.feed->HasWrites();
  return m_pipe && !m_passWanted && !m_passing && m_newestClosed && !hasWrites &&
         m_status.flushed >= m_status.closed;
}

}  // namespace penstock
