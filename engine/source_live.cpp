// SPDX-License-Identifier: Apache-2.0
// The source of running volumes: what was captured becomes datasets, what the link does not take
// goes to the spool, what the spool does not take is given up and only marked, and marks that are
// not needed any more are cleared.
#include <algorithm>
#include <limits>
#include <utility>

#include "engine/planted.h"
#include "engine/source_engine.h"

namespace penstock {

// --- Datasets. ---

// While a pass is due, the target may stand at a point that was good: what is captured now does not
// follow from it, and waits for the first dataset of the pass.
bool SourceEngine::MayPushCaptured() const {
  return m_config.feed != nullptr && m_pipe && (!m_passWanted || m_passing);
}

// Takes what was captured so far into the open dataset, or a new one.
void SourceEngine::PushCaptured(const Moment& now) {
  SourceFeed* const feed = m_config.feed;
  if (feed == nullptr || !feed->HasWrites()) return;
  if (!HasOpenNormal()) PushNormal(now);
  feed->TakeWrites(m_last, m_taken);
  for (const CapturedWrite& write : m_taken) {
    const WriteResult result = PushWrite(write, now);
    if (result == WriteResult::kOk) continue;
    if (result == WriteResult::kOutside) {
      GiveUp(ErrorCode::kFailed, "a write that is not within its volume was captured");
    }
    break;
  }
  m_taken.clear();
}

// Closes by the clock.
void SourceEngine::StepClose(const Moment& now) {
  if (!MayPushCaptured() || now.steady < m_closeAt) return;
  m_closeAt = now.steady + m_config.interval;
  if (!m_config.feed->HasWrites()) return;
  PushCaptured(now);
  CloseNewest();
}

Millis SourceEngine::LiveDeadline() const {
  Millis next = std::numeric_limits<Millis>::max();
  if (m_config.feed == nullptr) return next;
  if (MayPushCaptured()) next = m_closeAt;
  next = std::min(next, m_spoolAt);
  if (m_pipe && m_clearing == Clearing::kNo && m_config.feed->ColdExtents() > 0) {
    next = std::min(next, m_checkpointAt);
  }
  if (m_pipe && m_status.phase == SourcePhase::kOnline && !m_status.resyncing && m_probe == 0 &&
      !m_canBeRead) {
    next = std::min(next, m_probeAt);
  }
  return next;
}

// --- The spool. ---

// Datasets that an earlier process left follow what the target has. Returns false when they don't:
// what is behind a gap must never be taken for what follows, not after another crash either.
bool SourceEngine::AdoptSpool() {
  for (SpooledDataset& found : std::exchange(m_config.spooled, {})) {
    const std::uint64_t n = found.start.n;
    if (n <= m_last) {
      m_commands.emplace_back(SpoolRemove{found.start});
      continue;
    }
    if (n != m_last + 1 && !Planted(Fault::kSpoolGap)) return false;
    Push(std::make_shared<Dataset>(n, true, ~std::uint64_t{0}, 0U), {0, found.start.timestampMs});
    CloseNewest();
    Cursor& cursor = m_cursors.at(n);
    cursor.start = std::move(found.start);
    cursor.spoolBytes = found.bytes;
    StoredInSpool(n, cursor);
    m_hasSpool = true;
  }
  AdoptNames();
  return true;
}

// Those of datasets that were found. A number that was not is used again, for something else.
void SourceEngine::AdoptNames() {
  const std::vector<PointRecord> names = std::exchange(m_config.names, {});
  for (const PointRecord& name : names) {
    const auto cursor = m_cursors.find(name.n);
    if (cursor == m_cursors.end() || cursor->second.start.timestampMs != name.timestampMs) continue;
    m_names[name.n] = name;
  }
  if (m_names.size() != names.size()) KeepPointNames();
}

// So that a point that waits in the spool has its name after a crash, too.
void SourceEngine::KeepPointNames() {
  if (m_config.spoolBytes == 0) return;
  KeepNames command;
  for (const auto& [n, name] : m_names) command.names.push_back(name);
  m_commands.emplace_back(std::move(command));
}

// It is durable here: the pipeline need not hold it any longer.
void SourceEngine::StoredInSpool(std::uint64_t n, Cursor& cursor) {
  cursor.spool = SpoolStage::kStored;
  if (cursor.start.volumes.empty()) cursor.start.volumes.push_back(m_volumeIds.front());
  cursor.ds.reset();
  cursor.units.reset();
  cursor.isLoaded = cursor.started && !cursor.ended;
  if (!cursor.isLoaded) Unload(cursor);
  ++m_status.spooledDatasets;
  m_status.spooledBytes += cursor.spoolBytes;
  ReleaseNormal(n);
  m_pipe->MarkStored(n);
  m_pipe->Ack(n, nullptr);
}

// Spools from the oldest on, so that the spool and the target together never miss one between them.
void SourceEngine::StepSpool(const Moment& now) {
  if (m_config.feed == nullptr || !m_pipe) return;
  if (!m_config.feed->IsRecording() ||
      m_normalBytes > m_config.liveMemory + m_config.datasetBytes) {
    const bool isBehind = m_config.spoolBytes > 0 && IsBehindComparison();
    return Overflow(isBehind ? "its memory is full, behind a comparison that no spool can keep"
                             : "its memory is full",
                    now);
  }
  if (m_config.spoolBytes == 0) {
    if (m_normalBytes > m_config.liveMemory) Overflow("its memory is full, without a spool", now);
    return;
  }
  if (!IsSpoolDue(now) || m_spoolJob != 0 || m_spoolDropping) return;
  const auto next = FirstUnspooled();
  // A resync dataset can't be kept; what follows it has to wait.
  if (next == m_cursors.end() || IsBehindComparison()) return;
  Cursor& cursor = m_cursors.at(next->first);
  if (!TakeUnits(cursor)) return;
  std::uint64_t bytes = 0;
  for (const BlockPtr& block : cursor.blocks) {
    if (!block) return;  // being packed
    bytes += RecordBytes(*block).size();
  }
  if (m_status.spooledBytes + bytes > m_config.spoolBytes) {
    return Overflow("its spool is full", now);
  }
  SpoolOne(next->first, cursor);
}

// A disk is no help where the link takes half of the memory as fast as one: what goes there costs
// the guest processors and memory bandwidth, and has to be read again.
bool SourceEngine::IsSpoolDue(const Moment& now) {
  m_spoolAt = std::numeric_limits<Millis>::max();
  // What can't be sent before the process ends goes to the spool whole.
  const bool isOnline = m_status.phase == SourcePhase::kOnline;
  if (m_finishing && !isOnline) return true;
  if (m_normalBytes <= m_config.liveMemory / 2) return false;
  if (!isOnline || m_normalBytes > m_config.liveMemory / 8 * 7) return true;
  const Millis due = m_normalHeld.begin()->second.since + m_config.spoolAfter;
  if (now.steady >= due) return true;
  m_spoolAt = due;
  return false;
}

// What does not get less holds nobody up: it is given up when memory is full.
bool SourceEngine::DrainsBacklog() const {
  if (m_status.phase == SourcePhase::kOnline) return true;
  if (m_config.spoolBytes == 0 || m_status.phase == SourcePhase::kStopped) return false;
  return !IsBehindComparison();
}

bool SourceEngine::IsBehindComparison() const {
  const auto next = FirstUnspooled();
  return next != m_cursors.end() && next->second.ds->IsFingerprinted();
}

SourceEngine::Cursors::const_iterator SourceEngine::FirstUnspooled() const {
  return std::find_if(m_cursors.begin(), m_cursors.end(),
                      [](const auto& entry) { return entry.second.spool < SpoolStage::kStored; });
}

std::optional<std::uint64_t> SourceEngine::KeptUpTo() const {
  const SourceFeed* const feed = m_config.feed;
  if (feed == nullptr) return std::nullopt;
  for (std::size_t i = 0; i < m_config.volumes.size(); ++i) {
    if (feed->StaleBytes(static_cast<std::uint8_t>(i)) > 0) return std::nullopt;
  }
  if (feed->HasRefused()) return std::nullopt;
  std::uint64_t n = m_config.kept;  // as it was: there was no target yet
  if (m_pipe) {
    const bool isWhole = !m_passWanted && !m_passing && m_newestClosed && !feed->HasWrites() &&
                         feed->IsRecording() && m_knownEpoch == m_status.epoch;
    const bool isSpooled =
        m_spoolJob == 0 && !m_spoolDropping && FirstUnspooled() == m_cursors.end();
    n = isWhole && isSpooled ? m_last : 0;
  }
  return n == 0 ? std::nullopt : std::optional(n);
}

// What an earlier process was sure of is true only of what is there.
void SourceEngine::CheckKept() {
  const std::uint64_t kept = std::exchange(m_config.kept, 0);
  if (kept == 0 || kept == m_last || Planted(Fault::kKeptUnchecked)) return;
  Say(NoteLevel::kNotice, "datasets up to " + std::to_string(kept) + " were kept, and up to " +
                              std::to_string(m_last) +
                              " are here or at the target: what is marked is compared");
  m_config.feed->Lose();
}

void SourceEngine::SpoolOne(std::uint64_t n, Cursor& cursor) {
  FillStart(cursor);
  DatasetStart start = cursor.start;
  // What is to be found again has a file, also when nothing is in it.
  if (start.volumes.empty()) start.volumes.push_back(m_volumeIds.front());
  cursor.spool = SpoolStage::kWriting;
  m_spoolJob = n;
  m_hasSpool = true;
  const Ticket ticket = ++m_lastTicket;
  m_jobs[ticket] = {n, 0, 0};
  m_commands.emplace_back(SpoolWrite{ticket, std::move(start), cursor.blocks});
}

void SourceEngine::Completed(SpoolDone&& result, const Moment& now) {
  const auto job = m_jobs.find(result.ticket);
  if (job == m_jobs.end()) return;
  const std::uint64_t n = job->second.n;
  m_jobs.erase(job);
  if (m_status.phase == SourcePhase::kStopped) return;
  if (n == 0) {  // SpoolDrop
    m_spoolDropping = false;
    if (result.status != IoStatus::kOk) {
      return GiveUp(ErrorCode::kFailed, "can't empty the spool: " + result.error +
                                            "; mend that, and start the source again");
    }
    return Settle(now);
  }
  m_spoolJob = 0;
  const auto place = m_cursors.find(n);
  if (place == m_cursors.end()) {  // the target has it already
    DatasetStart start;
    start.n = n;
    m_commands.emplace_back(SpoolRemove{std::move(start)});
  } else if (result.status != IoStatus::kOk) {
    return Overflow("its spool failed: " + result.error, now);
  } else {
    place->second.spoolBytes = result.bytes;
    if (result.writer) m_pipe->AddSerializer(n, result.writer);
    StoredInSpool(n, place->second);
  }
  Settle(now);
}

void SourceEngine::Unload(Cursor& cursor) {
  cursor.blocks = {};
  cursor.isLoaded = false;
}

// Returns whether the blocks are there.
bool SourceEngine::LoadFromSpool(Cursor& cursor) {
  if (cursor.spool == SpoolStage::kReading) return false;
  if (cursor.isLoaded) return true;
  cursor.spool = SpoolStage::kReading;
  const Ticket ticket = ++m_lastTicket;
  m_jobs[ticket] = {cursor.start.n, 0, 0};
  m_commands.emplace_back(SpoolRead{ticket, cursor.start});
  return false;
}

void SourceEngine::Completed(SpoolLoaded&& result, const Moment& now) {
  const auto job = m_jobs.find(result.ticket);
  if (job == m_jobs.end()) return;
  const std::uint64_t n = job->second.n;
  m_jobs.erase(job);
  if (m_status.phase == SourcePhase::kStopped) return;
  const auto place = m_cursors.find(n);
  if (place == m_cursors.end()) return;  // the target has it already
  if (result.status != IoStatus::kOk) {
    return Overflow("its spool can't be read: " + result.error, now);
  }
  Cursor& cursor = place->second;
  cursor.spool = SpoolStage::kStored;
  cursor.blocks = std::move(result.blocks);
  cursor.isLoaded = true;
  Settle(now);
}

// --- Giving up. ---

// The backlog goes as a whole: from here on what changes is marked, until the target is reached
// again and everything that is marked has been compared.
// `wait`: before the target is asked what has to be compared.
void SourceEngine::Overflow(const std::string& why, const Moment& now, Millis wait) {
  if (m_status.phase == SourcePhase::kStopped) return;
  ++m_status.overflows;
  m_status.lastOverflow = why;
  Say(NoteLevel::kNotice, "tracking only, the backlog is given up: " + why);
  m_config.feed->Lose();
  if (m_conn != 0) m_commands.emplace_back(CloseConn{m_conn, "the backlog is given up"});
  m_conn = 0;
  ForgetBacklog();
  if (m_config.spoolBytes > 0 || m_hasSpool) DropSpool();
  if (m_status.phase == SourcePhase::kPaused) return;
  SetPhase(SourcePhase::kBackoff);
  m_deadline = now.steady + wait;
}

// Not before that is durable may the target get anything new: what the spool holds would be older,
// and a crash could bring it back.
void SourceEngine::DropSpool() {
  if (Planted(Fault::kSpoolAge)) return;
  m_spoolDropping = true;
  m_hasSpool = false;
  const Ticket ticket = ++m_lastTicket;
  m_jobs[ticket] = {0, 0, 0};
  m_commands.emplace_back(SpoolDrop{ticket});
}

void SourceEngine::ForgetBacklog() {
  m_cursors.clear();
  m_resyncs.clear();
  m_refetch.clear();
  m_batches.clear();
  m_held.clear();
  m_normalHeld.clear();
  m_resyncPart.clear();
  m_jobs.clear();  // what they are answered with is for nobody
  m_chains.clear();
  m_names.clear();
  m_newest.reset();
  m_newestClosed = true;
  m_pipe.reset();
  m_inFlight = m_normalBytes = m_reserved = 0;
  m_fetching = m_inHand = 0;
  m_passing = m_passWanted = m_passSpoiled = false;
  m_spoiledUpTo = m_passAfter = 0;
  m_spoolJob = 0;
  m_spoolAt = std::numeric_limits<Millis>::max();
  m_probe = 0;
  m_canBeRead = false;
  m_clearing = Clearing::kNo;
  m_status.spooledDatasets = m_status.spooledBytes = 0;
  m_status.syncedAt = 0;
  m_status.resyncing = true;
}

// --- Marks. ---

// The epoch is made durable when it is new; marks are cleared in batches.
void SourceEngine::StepCheckpoint(const Moment& now) {
  if (m_config.feed == nullptr || !m_pipe || m_clearing != Clearing::kNo) return;
  const bool ends = m_finishing && !m_status.isFinished && IsSettled();
  if (ends) m_config.feed->Cool();
  const std::size_t cold = m_config.feed->ColdExtents();
  const bool isDue = now.steady >= m_checkpointAt && cold > 0;
  const bool isNew =
      m_knownEpoch != m_status.epoch && (m_finishing || now.steady >= m_checkpointAt);
  if (!ends && !isNew && !isDue && cold < m_config.clearExtents) return;
  if (!ends && now.steady < m_checkpointAt && m_checkpointFailed) return;
  m_config.feed->BeginClear();
  m_clearing = Clearing::kSyncing;
  m_clearsLast = ends;
  if (Planted(Fault::kClearBeforeSync)) m_config.feed->EndClear();
  m_checkpointAt = now.steady + m_config.clearAfter;
  const Ticket ticket = ++m_lastTicket;
  m_jobs[ticket] = {m_status.epoch, 0, 0};
  m_commands.emplace_back(Checkpoint{ticket, m_status.epoch, m_status.flushed});
}

void SourceEngine::SaveWhole() {
  m_clearing = Clearing::kSavingWhole;
  const Ticket ticket = ++m_lastTicket;
  m_jobs[ticket] = {0, 0, 0};
  m_commands.emplace_back(SaveMaps{ticket});
}

void SourceEngine::Completed(CheckpointDone&& result, const Moment& now) {
  const auto job = m_jobs.find(result.ticket);
  if (job == m_jobs.end()) return;
  const std::uint64_t epoch = job->second.n;
  m_jobs.erase(job);
  m_checkpointFailed = result.status != IoStatus::kOk;
  if (m_clearing == Clearing::kSavingWhole) {
    if (m_checkpointFailed) return GiveUp(ErrorCode::kFailed, result.error);
    m_clearing = Clearing::kNo;
  } else if (m_checkpointFailed) {
    Say(NoteLevel::kError, "can't clear the change map: " + result.error);
    m_clearing = Clearing::kNo;
    m_status.isFinished = m_clearsLast;
  } else if (m_clearing == Clearing::kSyncing) {
    m_knownEpoch = epoch;
    m_config.feed->EndClear();
    m_clearing = Clearing::kSaving;
    const Ticket ticket = ++m_lastTicket;
    m_jobs[ticket] = {0, 0, 0};
    m_commands.emplace_back(SaveMaps{ticket});
  } else {
    m_clearing = Clearing::kNo;
    m_status.isFinished = m_clearsLast;
  }
  Settle(now);
}

void SourceEngine::Finish(const Moment& now) {
  m_finishing = true;
  m_checkpointFailed = false;
  Settle(now);
}

}  // namespace penstock
