// SPDX-License-Identifier: Apache-2.0
// The source's datasets on their way: pushed, closed, sent by cursors, reported.
#include <algorithm>
#include <utility>

#include "engine/planted.h"
#include "engine/source_engine.h"

namespace penstock {

// --- Writes and points. ---

bool SourceEngine::HasOpenNormal() const {
  return m_newest && !m_newestClosed && !m_newest->IsFingerprinted();
}

std::uint64_t SourceEngine::Push(const std::shared_ptr<Dataset>& ds, const Moment& now) {
  ds->SetDsTimestamp(now.wall);
  // With a spool a dataset is done once it is in the spool, or at the target, which is as good.
  const DS_ERROR result = m_pipe->PushDs(ds, m_config.spoolBytes > 0);
  if (result != DS_ERROR_OK) {
    GiveUp(ErrorCode::kFailed, "the pipeline refused dataset " + std::to_string(ds->GetN()));
    return 0;
  }
  if (!m_newestClosed) m_status.closed = m_last;
  m_last = ds->GetN();
  m_newest = ds;
  m_newestClosed = false;
  return m_last;
}

void SourceEngine::PushNormal(const Moment& now) {
  // What was captured until its dataset was closed belongs together, however much it is.
  const std::uint64_t most = m_config.feed != nullptr ? ~std::uint64_t{0} : m_config.datasetBytes;
  Push(std::make_shared<Dataset>(m_last + 1, true, most, 0U), now);
}

void SourceEngine::CloseNewest() {
  if (m_newestClosed) return;
  m_newestClosed = true;
  m_status.closed = m_last;
  m_pipe->BumpDs();
  m_newest.reset();
}

WriteResult SourceEngine::Write(std::uint8_t volume, std::uint64_t offset,
                                std::shared_ptr<const std::uint8_t[]> data, std::uint32_t length,
                                const Moment& now) {
  if (!m_pipe || m_status.phase == SourcePhase::kStopped) return WriteResult::kStopped;
  if (volume >= m_config.volumes.size() || length == 0 || length > m_config.datasetBytes) {
    return WriteResult::kOutside;
  }
  const WriteResult result = PushWrite({volume, offset, length, std::move(data)}, now);
  Settle(now);
  return result;
}

WriteResult SourceEngine::PushWrite(const CapturedWrite& write, const Moment& now) {
  const auto& [volume, offset, length, data] = write;
  const std::uint64_t size = m_config.volumes[volume].size;
  if (offset > size || length > size - offset) return WriteResult::kOutside;
  if (!HasOpenNormal()) PushNormal(now);
  InternalData buf{m_volumeIds[volume], offset, length, data, 0};
  DS_ERROR result = m_pipe->PushBuf(buf, length);
  if (result == DS_ERROR_OUT_OF_RANGE) {  // full: the next one takes it
    PushNormal(now);
    result = m_pipe->PushBuf(buf, length);
  }
  if (result != DS_ERROR_OK) {
    GiveUp(ErrorCode::kFailed, "the pipeline refused a write");
    return WriteResult::kStopped;
  }
  const bool isLive = m_config.feed != nullptr;
  const std::uint64_t held = isLive ? (data ? length : 0) + kWriteOverhead : length;
  m_normalHeld.try_emplace(m_last, NormalHeld{0, now.steady}).first->second.bytes += held;
  m_normalBytes += held;
  return WriteResult::kOk;
}

std::uint64_t SourceEngine::CloseDataset(const Moment& now, bool consistent,
                                         const std::string& name) {
  if (!m_pipe || m_status.phase == SourcePhase::kStopped) return 0;
  if (m_config.feed != nullptr && (!MayPushCaptured() || !m_config.feed->IsRecording())) return 0;
  PushCaptured(now);
  if (!HasOpenNormal()) PushNormal(now);
  if (!m_newest) return 0;  // given up
  if (consistent || !name.empty()) m_newest->SetApplConsistentSnapshot();
  if (!name.empty()) {
    m_names[m_last] = {m_last, m_newest->GetDsTimestamp(), name};
    if (m_names.size() > kMaxPoints) m_names.erase(m_names.begin());  // the target would, too
    KeepPointNames();
  }
  const std::uint64_t n = m_last;
  CloseNewest();
  Settle(now);
  const bool isOrdered = m_pipe && m_status.phase != SourcePhase::kStopped;
  return isOrdered ? n : 0;
}

// --- Reports, in the pipeline's order. ---

void SourceEngine::AckUpTo(std::uint64_t n) {
  while (!m_cursors.empty() && m_cursors.begin()->first <= n) {
    const auto place = m_cursors.begin();
    const std::uint64_t acked = place->first;
    if (place->second.spool >= SpoolStage::kStored) {
      m_commands.emplace_back(SpoolRemove{place->second.start});
      --m_status.spooledDatasets;
      m_status.spooledBytes -= place->second.spoolBytes;
    } else {
      if (m_config.spoolBytes > 0) m_pipe->MarkStored(acked);
      m_pipe->Ack(acked, nullptr);
    }
    m_inFlight -= place->second.bytes;
    m_ackedChain = m_chains[acked] = place->second.chain;
    m_cursors.erase(place);
    m_status.durable = acked;
    m_names.erase(acked);
    if (const auto part = m_resyncPart.find(acked); part != m_resyncPart.end()) {
      m_status.passedBytes += part->second.length;
      m_passed[part->second.volume] += part->second.length;
      m_resyncPart.erase(part);
    }
    if (const auto held = m_held.find(acked); held != m_held.end()) {
      m_reserved -= held->second;
      m_held.erase(held);
    }
    ReleaseNormal(acked);
  }
}

// The pipeline need not hold the writes of dataset n any longer.
void SourceEngine::ReleaseNormal(std::uint64_t n) {
  const auto held = m_normalHeld.find(n);
  if (held == m_normalHeld.end()) return;
  m_normalBytes -= held->second.bytes;
  m_normalHeld.erase(held);
}

void SourceEngine::DoneUpTo(std::uint64_t n) {
  while (m_status.applied < std::min(n, m_base)) ++m_status.applied;
  for (std::uint64_t k = m_status.applied + 1; k <= n; ++k) m_pipe->Done(k, true, false);
}

void SourceEngine::FlushedUpTo(std::uint64_t n) {
  while (m_status.flushed < std::min(n, m_base)) ++m_status.flushed;
  for (std::uint64_t k = m_status.flushed + 1; k <= n; ++k) m_pipe->Flushed(k, true);
  m_chains.erase(m_chains.begin(), m_chains.lower_bound(n));
  if (m_config.feed != nullptr) m_config.feed->Flushed(m_status.flushed);
}

// --- Sending. ---

void SourceEngine::ResetCursors() {
  m_inFlight = 0;
  for (auto& [n, cursor] : m_cursors) {
    if (cursor.ended) ++m_status.resentDatasets;
    cursor.started = cursor.ended = false;
    cursor.sent = 0;
    cursor.bytes = cursor.extents = cursor.rawBytes = 0;
    cursor.digest = DatasetDigest();
    if (cursor.spool >= SpoolStage::kStored) Unload(cursor);
  }
}

void SourceEngine::Pump() {
  for (auto& [n, cursor] : m_cursors) {
    if (!PumpOne(cursor)) return;
  }
}

// Returns whether the dataset was sent to its end: only then may the next one begin.
bool SourceEngine::PumpOne(Cursor& cursor) {
  if (cursor.ended) return true;
  if (cursor.spool >= SpoolStage::kStored ? !LoadFromSpool(cursor) : !TakeUnits(cursor)) {
    return false;
  }
  if (!cursor.started) SendStart(cursor);
  while (cursor.sent < cursor.blocks.size()) {
    const BlockPtr& block = cursor.blocks[cursor.sent];
    if (!block) return false;  // being packed
    const std::uint64_t bytes = RecordBytes(*block).size();
    if (!FitsWindow(cursor, bytes)) return false;
    ++cursor.sent;
    cursor.bytes += bytes;
    cursor.extents += block->extentCount;
    cursor.rawBytes += block->rawLength;
    cursor.digest.AddBlock(*block);
    m_inFlight += bytes;
    m_status.sentBytes += bytes;
    Send(Frame::OfBlock(block));
  }
  if (cursor.ds && !cursor.ds->IsSealed()) return false;
  SendEnd(cursor);
  return true;
}

// The oldest dataset that is not acknowledged is always sent whole: the target can't acknowledge a
// part of it.
bool SourceEngine::FitsWindow(const Cursor& cursor, std::uint64_t bytes) const {
  return &cursor == &m_cursors.begin()->second || m_inFlight + bytes <= m_window;
}

// Turns what the dataset has finished into blocks. Returns false when the engine gave up.
bool SourceEngine::TakeUnits(Cursor& cursor) {
  if (!cursor.units) cursor.units = cursor.ds->GetEnumerator();
  std::pair<InternalData, PipeCompressedData> unit;
  while (cursor.units->Next()) {
    if (!cursor.units->Current(unit)) return false;
    if (unit.second.payload) {
      cursor.blocks.push_back(unit.second.payload);
    } else {
      SplitNormalUnit(cursor, unit.second);
    }
  }
  return true;
}

namespace {

// Cuts buffers into the parts of blocks: at most kMaxBlockBytes and kMaxExtents each, in order,
// data and zeros (buffers without bytes) apart.
class BlockCutter {
 public:
  template <class Emit>
  void Add(const InternalData& buf, const Emit& emit) {
    for (std::uint32_t from = 0; from < buf.length;) {
      if (!m_parts.empty() && !m_parts.back().data != !buf.data) Flush(emit);
      if (m_bytes == kMaxBlockBytes || m_parts.size() == kMaxExtents) Flush(emit);
      InternalData part = buf;
      part.offset += from;
      part.length = std::min(buf.length - from, kMaxBlockBytes - m_bytes);
      if (buf.data) part.data = {buf.data, buf.data.get() + from};
      from += part.length;
      m_bytes += part.length;
      m_parts.push_back(std::move(part));
    }
  }

  template <class Emit>
  void Flush(const Emit& emit) {
    if (!m_parts.empty()) emit(std::exchange(m_parts, {}));
    m_bytes = 0;
  }

 private:
  std::vector<InternalData> m_parts;
  std::uint32_t m_bytes = 0;
};

}  // namespace

void SourceEngine::SplitNormalUnit(Cursor& cursor, const PipeCompressedData& unit) {
  const std::uint64_t n = cursor.ds->GetN();
  for (const auto& [volume, buffers] : unit.origBuffers) {
    const std::uint8_t index = cursor.ds->GetVolIdx().first.at(volume);
    const auto emit = [&](std::vector<InternalData> parts) {
      const Ticket ticket = ++m_lastTicket;
      m_jobs[ticket] = {n, cursor.blocks.size(), m_connCount};
      cursor.blocks.push_back(nullptr);
      m_commands.emplace_back(PackBuffers{ticket, index, std::move(parts), m_config.compress});
    };
    BlockCutter cutter;
    for (const InternalData& buf : buffers) cutter.Add(buf, emit);
    cutter.Flush(emit);
  }
}

void SourceEngine::Completed(BuffersPacked&& result, const Moment& now) {
  const auto job = m_jobs.find(result.ticket);
  if (job == m_jobs.end()) return;
  const auto [n, index, generation] = job->second;
  m_jobs.erase(job);
  const auto cursor = m_cursors.find(n);
  if (cursor != m_cursors.end() && result.block) {
    m_status.rawBytes += result.block->rawLength;
    m_status.packedBytes += RecordBytes(*result.block).size();
    cursor->second.blocks[index] = std::move(result.block);
  }
  Settle(now);
}

// What a transmitted dataset says of itself.
void SourceEngine::FillStart(Cursor& cursor) const {
  const Dataset& ds = *cursor.ds;
  cursor.start = DatasetStart{};
  cursor.start.n = ds.GetN();
  cursor.start.timestampMs = ds.GetDsTimestamp();
  cursor.start.group = GroupId(m_config.group);
  cursor.start.datasetType = ds.GetDsType();
  const bool isSpoiled = cursor.start.n <= m_spoiledUpTo;
  if (ds.GetInitialSyncComplete() && !isSpoiled) cursor.start.flags |= kStartSyncComplete;
  if (ds.GetApplConsistentSnapshot()) cursor.start.flags |= kStartConsistent;
  // The entries: a resync dataset's volume, also when nothing of it differed; else the volumes by
  // their index.
  if (ds.IsFingerprinted()) {
    if (const auto part = m_resyncPart.find(ds.GetN()); part != m_resyncPart.end()) {
      cursor.start.volumes.push_back(m_volumeIds[part->second.volume]);
      if (part->second.isFirst && !isSpoiled) cursor.start.flags |= kStartPassBegins;
    }
  } else {
    const auto& indices = cursor.ds->GetVolIdx().first;
    cursor.start.volumes.resize(indices.size());
    for (const auto& [volume, index] : indices) cursor.start.volumes.at(index) = volume;
  }
}

void SourceEngine::SendStart(Cursor& cursor) {
  if (cursor.ds) FillStart(cursor);
  const Frame frame = Encode(cursor.start);
  cursor.digest.AddStart(frame.Payload());
  cursor.started = true;
  Send(frame);
}

void SourceEngine::SendEnd(Cursor& cursor) {
  const std::uint64_t n = cursor.start.n;
  const auto before = m_cursors.find(n - 1);
  cursor.chain =
      cursor.digest.Chain(before == m_cursors.end() ? m_ackedChain : before->second.chain);
  DatasetEnd end;
  end.n = n;
  end.blocks = static_cast<std::uint32_t>(cursor.blocks.size());
  end.extents = cursor.extents;
  end.rawBytes = cursor.rawBytes;
  end.chain = cursor.chain;
  if (const auto named = m_names.find(n); named != m_names.end()) end.name = named->second.name;
  cursor.ended = cursor.wasSent = true;
  m_status.sent = std::max(m_status.sent, n);
  if (Planted(Fault::kClearBeforeFlushed) && m_config.feed != nullptr) m_config.feed->Flushed(n);
  Send(Encode(end));
  if (cursor.spool >= SpoolStage::kStored) Unload(cursor);  // read again if it is sent again
}

}  // namespace penstock
