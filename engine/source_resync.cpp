// SPDX-License-Identifier: Apache-2.0
// The source's passes: every volume compared with the target, range by range, as resync datasets.
#include <algorithm>
#include <utility>

#include "engine/planted.h"
#include "engine/source_engine.h"

namespace penstock {

void SourceEngine::Resync(const Moment& now) {
  m_passWanted = true;
  m_passAfter = m_status.closed;
  Settle(now);
}

// --- The pass. ---

bool SourceEngine::PassMayBegin() const {
  return m_passWanted && !m_passing && m_status.applied >= m_passAfter &&
         m_clearing != Clearing::kSavingWhole;
}

// A new volume reads as zeros, as long as nothing was sent to it: the last WELCOME may be older
// than what is on its way, or in the target's journal.
bool SourceEngine::IsEmptyThere(const WelcomeVolume& volume) const {
  return volume.state == VolumeState::kNew && m_last == m_base && m_welcomedApplied == m_base;
}

void SourceEngine::BeginPass() {
  m_passWanted = m_passSpoiled = false;
  m_passing = true;
  m_passVolume = 0;
  m_passOffset = 0;
  m_passHasFirst = false;
  m_passCopies.clear();
  m_passed.assign(m_config.volumes.size(), 0);
  m_status.passBytes = m_status.comparedBytes = m_status.equalBytes = m_status.passedBytes = 0;
  for (std::size_t i = 0; i < m_remote.size(); ++i) {
    m_status.passBytes += m_config.feed != nullptr
                              ? m_config.feed->StaleBytes(static_cast<std::uint8_t>(i))
                              : m_config.volumes[i].size;
    m_passCopies.push_back(IsEmptyThere(m_remote[i]));
  }
}

// What the next dataset goes over of the volume at hand: ranges in order, all but the last of whole
// windows. Empty at its end.
SourceEngine::Ranges SourceEngine::NextRanges() {
  if (m_config.feed != nullptr) {
    Ranges ranges = m_config.feed->TakeStale(static_cast<std::uint8_t>(m_passVolume), m_last + 1,
                                             m_config.resyncBytes);
    if (Planted(Fault::kFirstRangeOnly) && ranges.size() > 1) ranges.resize(1);
    return ranges;
  }
  const std::uint64_t left = m_config.volumes[m_passVolume].size - m_passOffset;
  if (left == 0) return {};
  const std::uint64_t length = std::min(m_config.resyncBytes, left);
  const std::uint64_t offset = std::exchange(m_passOffset, m_passOffset + length);
  return {{offset, length}};
}

void SourceEngine::StepPass(const Moment& now) {
  if (PassMayBegin()) BeginPass();
  m_status.resyncing = m_passWanted || m_passing;
  if (!m_passing) return;
  while (!m_passSpoiled && m_passVolume < m_config.volumes.size()) {
    if (m_reserved > 0 && m_reserved + m_config.resyncBytes > m_config.memory) return;
    const Ranges ranges = NextRanges();
    if (ranges.empty()) {
      ++m_passVolume;
      m_passOffset = 0;
      m_passHasFirst = false;
      continue;
    }
    OpenResync(static_cast<std::uint8_t>(m_passVolume), ranges, now);
    m_passHasFirst = true;
  }
  if (m_resyncs.empty()) EndPass(now);
}

// The first point at which the group is good again: everything that the pass read is in a dataset
// up to this one.
void SourceEngine::EndPass(const Moment& now) {
  if (m_passSpoiled) {
    m_passing = false;
    m_passAfter = m_status.closed;
    return;
  }
  // Whatever the pass read of newer writes was captured before, and is in this one.
  if (!Planted(Fault::kCompleteTooEarly)) PushCaptured(now);
  if (m_config.feed != nullptr && !m_config.feed->IsRecording()) {
    return Overflow("its memory is full", now);
  }
  if (!HasOpenNormal()) PushNormal(now);
  m_newest->SetInitialSyncComplete();
  m_status.syncedAt = m_last;
  CloseNewest();
  m_passing = false;
  m_status.resyncing = m_passWanted;
}

// --- One resync dataset. ---

void SourceEngine::OpenResync(std::uint8_t volume, const Ranges& ranges, const Moment& now) {
  auto work = std::make_unique<ResyncWork>();
  const std::uint64_t n = work->n = m_last + 1;
  work->volume = volume;
  work->copy = m_passCopies[volume];
  std::uint64_t length = 0;
  std::uint64_t blocks = 0;
  for (const auto& [from, bytes] : ranges) {
    for (std::uint64_t at = 0; at < bytes; at += kWindowBytes) {
      SourceWindow window;
      window.offset = from + at;
      window.firstBlock = static_cast<std::uint32_t>(blocks);
      window.length = static_cast<std::uint32_t>(std::min<std::uint64_t>(kWindowBytes, bytes - at));
      blocks += (window.length + kCompareBytes - 1) / kCompareBytes;
      work->windows.push_back(std::move(window));
    }
    length += bytes;
  }
  // A dataset has one range of a volume: the one that all of them lie in.
  const std::uint64_t begin = ranges.front().offset;
  const std::uint64_t end = ranges.back().offset + ranges.back().length;
  work->ds = std::make_shared<Dataset>(
      n, std::vector<FingerprintRange>{{m_volumeIds[volume], begin, end - begin}},
      blocks * kCompareBytes);
  work->ds->SetDSReceivedCb(
      [this](const std::shared_ptr<Dataset>&, InternalData&) { m_kept = true; });
  if (!work->copy) {
    work->ds->InitFingerprintRequester(
        [this, n](const std::vector<std::uint64_t>& prints, std::uint64_t id) {
          // The batch's number is the dataset's and, in the low 16 bits, its first block's.
          if (!prints.empty()) m_batches.emplace_back(n, id & 0xffffU);
        });
  }
  m_held[n] = length;
  m_reserved += length;
  m_resyncPart[n] = {volume, !m_passHasFirst, length};
  ResyncWork& kept = *work;
  m_resyncs[n] = std::move(work);
  if (Push(kept.ds, now) == 0) return;
  // Held until every window is settled, so that it never looks sealed before.
  kept.ds->MarkHasBuffers();
  if (!kept.copy) {
    for (std::uint64_t i = 0; i < blocks; ++i) kept.ds->IncTotal4KBlocks();
  }
  CloseNewest();
}

// --- Reading. ---

void SourceEngine::StepFetch() {
  while (m_fetching < m_config.fetchJobs && !m_refetch.empty()) {
    const auto [n, window] = m_refetch.front();
    m_refetch.pop_front();
    if (const auto work = m_resyncs.find(n); work != m_resyncs.end()) Fetch(*work->second, window);
  }
  // Those above are not held up: others that are in hand may wait for them.
  const auto isFull = [this] {
    return m_fetching >= m_config.fetchJobs || m_inHand >= m_config.windowsInHand;
  };
  for (auto& [n, work] : m_resyncs) {
    while (!isFull() && work->toFetch < work->windows.size()) Fetch(*work, work->toFetch++);
    if (isFull()) return;
  }
}

void SourceEngine::Fetch(ResyncWork& work, std::size_t index) {
  SourceWindow& window = work.windows[index];
  window.stage = WindowStage::kFetching;
  ++m_fetching;
  ++m_inHand;
  const Ticket ticket = ++m_lastTicket;
  m_jobs[ticket] = {work.n, index, m_connCount};
  m_commands.emplace_back(FetchWindow{ticket, work.volume, window.offset, window.length, !work.copy,
                                      m_hello.fingerprintSeed, m_config.compress});
}

void SourceEngine::Completed(WindowFetched&& result, const Moment& now) {
  const auto job = m_jobs.find(result.ticket);
  if (job == m_jobs.end()) return;
  const auto [n, index, generation] = job->second;
  m_jobs.erase(job);
  if (n == 0) return Probed(result, now);
  --m_fetching;
  if (m_status.phase == SourcePhase::kStopped) return;
  const auto place = m_resyncs.find(n);
  if (place == m_resyncs.end()) return;
  ResyncWork& work = *place->second;
  SourceWindow& window = work.windows[index];
  if (result.status != IoStatus::kOk) {
    const std::string why = "volume " + m_config.volumes[work.volume].name +
                            ": can't read at byte " + std::to_string(window.offset) + ": " +
                            result.error;
    if (m_config.feed == nullptr) return GiveUp(ErrorCode::kFailed, why);
    // Its guest goes on, and what it writes is marked: it may be a path to the disk that comes
    // back.
    return Overflow(why, now, m_config.readAgain);
  }
  if (work.copy) {
    TakeCopied(work, window, std::move(result));
  } else if (generation != m_connCount) {
    window.stage = WindowStage::kToFetch;  // fingerprinted for a connection that is gone
    --m_inHand;
    m_refetch.emplace_back(n, index);
  } else {
    window.stage = WindowStage::kFetched;
    window.data = std::move(result.data);
    window.fingerprints = std::move(result.fingerprints);
    if (window.offered) {
      m_batches.emplace_back(n, index * kWindowBlocks);
    } else {
      OfferFingerprints(work);
    }
  }
  Settle(now);
}

// --- Asking. ---

// In order, because the dataset's requester counts.
void SourceEngine::OfferFingerprints(ResyncWork& work) {
  while (work.toOffer < work.windows.size() &&
         work.windows[work.toOffer].stage == WindowStage::kFetched) {
    SourceWindow& window = work.windows[work.toOffer++];
    window.offered = true;
    for (const std::uint64_t print : window.fingerprints) work.ds->SendFingerprint4Match(print);
  }
}

void SourceEngine::SendQueries() {
  while (!m_batches.empty()) {
    const auto [n, start] = m_batches.front();
    m_batches.pop_front();
    const auto work = m_resyncs.find(n);
    if (work == m_resyncs.end()) continue;
    const std::size_t index = start / kWindowBlocks;
    if (index < work->second->windows.size()) SendQuery(*work->second, index);
  }
}

void SourceEngine::SendQuery(ResyncWork& work, std::size_t index) {
  SourceWindow& window = work.windows[index];
  if (window.stage != WindowStage::kFetched) return;  // a batch may be handed out twice
  window.stage = WindowStage::kQueried;
  Query query;
  query.n = work.n;
  query.volume = work.volume;
  query.offset = window.offset;
  query.length = window.length;
  query.firstBlock = window.firstBlock;
  query.fingerprints = window.fingerprints;
  Send(Encode(query));
}

// The answers of the lost connection won't come: read again, so that the new connection's seed and
// what was written meanwhile are in the fingerprints.
void SourceEngine::AskAgain() {
  m_batches.clear();
  for (auto& [n, work] : m_resyncs) {
    for (std::size_t i = 0; i < work->windows.size(); ++i) {
      SourceWindow& window = work->windows[i];
      if (window.stage != WindowStage::kFetched && window.stage != WindowStage::kQueried) continue;
      window.stage = WindowStage::kToFetch;
      --m_inHand;
      window.data.reset();
      m_refetch.emplace_back(n, i);
    }
  }
}

void SourceEngine::TakeAnswer(const Frame& frame, const Moment& now) {
  Answer answer;
  if (std::string why = Decode(frame.Payload(), answer); !why.empty()) return Refuse(why, now);
  const auto place = m_resyncs.find(answer.n);
  if (place == m_resyncs.end()) return Refuse("an answer to no question", now);
  ResyncWork& work = *place->second;
  const auto found = std::lower_bound(
      work.windows.begin(), work.windows.end(), answer.offset,
      [](const SourceWindow& w, std::uint64_t offset) { return w.offset < offset; });
  if (found == work.windows.end() || found->offset != answer.offset ||
      answer.volume != work.volume || found->length != answer.length ||
      found->stage != WindowStage::kQueried) {
    return Refuse("an answer to no question", now);
  }
  const std::size_t index = static_cast<std::size_t>(found - work.windows.begin());
  SourceWindow& window = *found;
  window.stage = WindowStage::kPacking;
  window.answer = std::move(answer.runs);
  const Ticket ticket = ++m_lastTicket;
  m_jobs[ticket] = {work.n, index, m_connCount};
  m_commands.emplace_back(PackRuns{ticket, 0, window.offset, window.length, window.data,
                                   window.answer, m_hello.runKey, work.n, window.firstBlock,
                                   m_config.compress});
}

}  // namespace penstock
