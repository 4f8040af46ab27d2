// SPDX-License-Identifier: Apache-2.0
// What source and target know of each other's history: the numbers go on from what the target has,
// or the source gives up.
#include <algorithm>
#include <utility>

#include "engine/source_engine.h"

namespace penstock {

void SourceEngine::TakeWelcome(const Frame& frame, const Moment& now) {
  Welcome welcome;
  if (std::string why = Decode(frame.Payload(), welcome); !why.empty()) return Refuse(why, now);
  if (welcome.version != kProtocolVersion) {
    return GiveUp(ErrorCode::kVersion, "the target speaks protocol version " +
                                           std::to_string(welcome.version) + ", this source " +
                                           std::to_string(kProtocolVersion));
  }
  if (welcome.volumes.size() != m_config.volumes.size() || welcome.epoch == 0 ||
      welcome.applied > welcome.durable || welcome.flushed > welcome.applied) {
    return Refuse("a WELCOME that contradicts itself or HELLO", now);
  }
  for (std::size_t i = 0; i < welcome.volumes.size(); ++i) {
    if (welcome.volumes[i].size == m_config.volumes[i].size) continue;
    return GiveUp(ErrorCode::kVolume,
                  "volume " + m_config.volumes[i].name + " has " +
                      std::to_string(m_config.volumes[i].size) + " bytes here and " +
                      std::to_string(welcome.volumes[i].size) + " at the target");
  }
  m_commands.emplace_back(SetSeeds{m_conn, FrameSeed(m_hello.nonce, welcome.nonce, false),
                                   FrameSeed(m_hello.nonce, welcome.nonce, true)});
  m_window = welcome.window;
  m_remote = welcome.volumes;
  m_welcomedApplied = welcome.applied;
  m_told = {};
  m_tellAt = now.steady + m_config.progressEvery;
  if (!m_pipe) {
    if (!BeginHistory(welcome, now)) return;
    m_told = ProgressNow();  // the target has said it itself
  } else if (!TakeHistory(welcome, now)) {
    return;
  }
  SetPhase(SourcePhase::kOnline);
  m_backoff = m_config.backoffMin;
  m_status.lastTrouble.clear();
  Say(NoteLevel::kInfo, "online: epoch " + std::to_string(welcome.epoch) + ", durable " +
                            std::to_string(welcome.durable) + ", flushed " +
                            std::to_string(welcome.flushed));
  AskAgain();
}

// The first WELCOME, and the first after the backlog was given up: the numbers go on from what the
// target has. Returns false when the engine was given up.
bool SourceEngine::BeginHistory(const Welcome& welcome, const Moment& now) {
  const bool isKnown = m_hello.epoch != 0;
  const std::uint64_t least = std::max(m_config.flushed, m_status.durable);
  if (isKnown && (welcome.epoch != m_hello.epoch || welcome.durable < least)) {
    GiveUp(ErrorCode::kFork, "history differs at " + std::to_string(welcome.durable) +
                                 ": the target has lost datasets that it had acknowledged; if it "
                                 "was restored from a copy, take the group up anew");
    return false;
  }
  m_status.epoch = welcome.epoch;
  m_base = m_last = welcome.durable;
  m_status.closed = m_status.sent = m_status.durable = welcome.durable;
  m_status.applied = welcome.applied;
  m_status.flushed = welcome.flushed;
  m_ackedChain = welcome.chain;
  m_chains[m_base] = welcome.chain;
  MakePipeline();
  if (!AdoptSpool()) {
    Overflow("its spool has a gap", now);
    return false;
  }
  m_passAfter = m_last;
  if (m_config.feed == nullptr) return true;
  CheckKept();
  std::vector<bool> whole;
  for (const WelcomeVolume& volume : welcome.volumes) {
    whole.push_back(!isKnown || volume.state == VolumeState::kNew ||
                    volume.state == VolumeState::kNeedsResync);
    m_passWanted = m_passWanted || volume.state != VolumeState::kGood;
  }
  m_config.feed->Begin(whole);
  m_config.feed->Flushed(m_status.flushed);
  // What has to be compared as a whole is so after a crash, too: before anything is compared, and
  // before the epoch is known here.
  if (std::find(whole.begin(), whole.end(), true) != whole.end()) SaveWhole();
  for (std::size_t i = 0; i < whole.size(); ++i) {
    m_passWanted = m_passWanted || m_config.feed->StaleBytes(static_cast<std::uint8_t>(i)) > 0;
  }
  return true;
}

void SourceEngine::MakePipeline() {
  m_pipe = std::make_unique<Pipeline>();
  m_pipe->SetTransmitterCb([this](std::shared_ptr<Dataset>& ds) {
    auto [place, isNew] = m_cursors.try_emplace(ds->GetN());
    if (isNew) place->second.ds = ds;
    return 0;
  });
  m_pipe->SetDoneCb([this](unsigned long n, bool, bool, bool) { m_status.applied = n; });
  m_pipe->SetFlushedCb([this](unsigned long n, bool, bool) { m_status.flushed = n; });
}

// A WELCOME within the epoch: what the peer has is applied first, then the rest is offered again.
// Returns false when the connection or the engine was given up.
bool SourceEngine::TakeHistory(const Welcome& welcome, const Moment& now) {
  const auto fork = [&](const std::string& why) {
    GiveUp(ErrorCode::kFork, "history differs at " + std::to_string(welcome.durable) + ": " + why);
    return false;
  };
  if (welcome.epoch != m_status.epoch) return fork("the target is in another epoch");
  if (welcome.durable < m_status.durable) return fork("the target has lost acknowledged datasets");
  const Digest* chain = &m_ackedChain;
  if (welcome.durable > m_status.durable) {
    const auto cursor = m_cursors.find(welcome.durable);
    if (cursor == m_cursors.end() || !cursor->second.wasSent) return fork("it was never sent");
    chain = &cursor->second.chain;
  }
  if (*chain != welcome.chain) return fork("the target's chain value is another");
  AckUpTo(welcome.durable);
  DoneUpTo(welcome.applied);
  FlushedUpTo(welcome.flushed);
  m_pipe->Retransmit(false);
  // What the target says of its volumes decides whether they have to be compared again. Also within
  // a pass: it may have gone over what was lost already.
  for (const WelcomeVolume& volume : welcome.volumes) {
    const bool isSynced =
        !m_passing && m_status.syncedAt != 0 && m_status.syncedAt <= welcome.flushed;
    if (volume.state == VolumeState::kNeedsResync ||
        (volume.state == VolumeState::kNew && isSynced)) {
      if (m_config.feed != nullptr) {
        Overflow("the target has lost what it had of a volume", now);
        return false;
      }
      m_passWanted = true;
      m_passAfter = m_status.closed;
      m_passSpoiled = m_passing;
      m_spoiledUpTo = m_last;
    }
  }
  return true;
}

}  // namespace penstock
