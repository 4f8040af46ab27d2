// SPDX-License-Identifier: Apache-2.0
// What a volume holds after it refused a write is read back and sent. Where it can't be read, in a
// group that is otherwise in order, it is read again now and then, and once all of it can be, it is
// compared. When more was refused meanwhile, all of it is read again first: a comparison that can't
// read its source gives the backlog up.
#include "engine/source_engine.h"

namespace penstock {

void SourceEngine::StepRefused(const Moment& now) {
  if (m_config.feed == nullptr || m_passWanted || m_passing || m_probe != 0) return;
  if (m_canBeRead) {
    // At a moment when the pass can begin at once: until then what is captured would have to wait,
    // and the spool does not take it.
    if (!m_newestClosed || m_status.applied < m_last) return;
    if (m_config.feed->Refusals() != m_probed) {
      m_canBeRead = false;  // tried at m_probeAt
      return;
    }
    if (!m_config.feed->CompareRefused(m_probed)) return;
    m_canBeRead = m_saidUnread = false;
    m_passWanted = true;
    m_passAfter = m_status.closed;
    return;
  }
  if (now.steady < m_probeAt) return;
  m_probeAt = now.steady + m_config.readAgain;
  m_probed = m_config.feed->Refusals();
  m_probeVolume = 0;
  m_probeOffset = 0;
  ProbeNext();
}

// Reads the next of it. Returns whether there was any left.
bool SourceEngine::ProbeNext() {
  for (; m_probeVolume < m_config.volumes.size(); ++m_probeVolume) {
    const auto volume = static_cast<std::uint8_t>(m_probeVolume);
    const auto [offset, length] = m_config.feed->NextRefused(volume, m_probeOffset, kWindowBytes);
    m_probeOffset = offset + length;
    if (length == 0) continue;
    m_probe = ++m_lastTicket;
    m_jobs[m_probe] = {0, 0, 0};
    m_commands.emplace_back(FetchWindow{m_probe, volume, offset, static_cast<std::uint32_t>(length),
                                        true, m_hello.fingerprintSeed, m_config.compress});
    return true;
  }
  return false;
}

void SourceEngine::Probed(const WindowFetched& result, const Moment& now) {
  m_probe = 0;
  if (m_status.phase == SourcePhase::kStopped) return;
  m_probeAt = now.steady + m_config.readAgain;
  if (result.status == IoStatus::kOk) {
    m_canBeRead = !ProbeNext();
  } else if (!m_saidUnread) {
    m_saidUnread = true;
    Say(NoteLevel::kError, "volume " + m_config.volumes[m_probeVolume].name +
                               ": what a refused write left can't be read, and is not at the "
                               "target; it is tried again: " +
                               result.error);
  }
  Settle(now);
}

}  // namespace penstock
