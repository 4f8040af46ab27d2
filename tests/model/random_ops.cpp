// SPDX-License-Identifier: Apache-2.0
#include "tests/model/random_ops.h"

#include <algorithm>

namespace model {

namespace {

constexpr std::uint64_t kSector = 512;
constexpr int kVolumes = 4;
constexpr int kPayloads = 6;
constexpr std::uint64_t kRangeBytes = 64 * kSector;

// Beyond these the pipeline is drained instead of filled: long queues show nothing new.
constexpr std::size_t kMaxDatasets = 10;
constexpr std::size_t kMaxRecords = 24;
constexpr std::size_t kMaxBuffers = 20;
constexpr std::size_t kMaxWideBuffers = 400;

}  // namespace

const std::vector<RandomOps::Weighted>& RandomOps::Table() {
  static const std::vector<Weighted> table{
      {"PushDs", 16, &RandomOps::Push},
      {"PushBuf", 40, &RandomOps::PushBuffer},
      {"BumpDs", 6, &RandomOps::Bump},
      {"DropUnfinishedDs", 2, &RandomOps::Drop},
      {"Reset", 1, &RandomOps::Reset},
      {"UpdateTransmitter", 3, &RandomOps::Update},
      {"Retransmit", 3, &RandomOps::Retransmit},
      {"Ack of the front", 10, &RandomOps::AckFront},
      {"Ack of another", 3, &RandomOps::AckOther},
      {"Done", 14, &RandomOps::DoneOne},
      {"Done of any number", 2, &RandomOps::DoneAny},
      {"MarkStored or MarkError", 8, &RandomOps::StoreOne},
      {"Flushed", 12, &RandomOps::FlushOne},
      {"ClearDonePipe", 1, &RandomOps::Clear},
      {"SetAcceptStatus", 2, &RandomOps::SetAccept},
      {"AddSerializer", 5, &RandomOps::AddWriter},
      {"queries", 6, &RandomOps::Query},
      {"FinalizeBuffer", 14, &RandomOps::FinalizeHeld},
      {"FinalizeBuffer of any", 3, &RandomOps::FinalizeOdd},
      {"NotifyBufferReady", 2, &RandomOps::UnitReady},
      {"MarkFinalized", 3, &RandomOps::MarkFinalized},
      {"MarkHasBuffers", 2, &RandomOps::HasBuffers},
      {"MarkDoneBuffers", 3, &RandomOps::DoneBuffers},
      {"finish of a kept buffer", 10, &RandomOps::FinishKept},
      {"fingerprint", 24, &RandomOps::PrintHeld},
      {"fingerprint of any", 3, &RandomOps::PrintOdd},
      {"block fingerprints", 4, &RandomOps::Blocks},
      {"SetComplete", 1, &RandomOps::Complete},
      {"settling of the newest transmitted", 4, &RandomOps::SettleNewest},
  };
  return table;
}

RandomOps::RandomOps(std::uint64_t seed)
    : m_random(seed),
      m_twin(m_random.Percent(95), m_random.Percent(90)),
      m_resyncPercent(m_random.Below(101)),
      m_failPercent(m_random.Percent(50) ? 0 : 30),
      m_wide(m_random.Percent(10)) {
  for (const Weighted& operation : Table()) {
    const int taste = m_random.Below(5);  // 0: not in this seed, but for what keeps it going
    m_weights.push_back(operation.weight * (operation.weight >= 10 ? taste + 1 : taste));
    m_totalWeight += m_weights.back();
  }
}

const RandomOps::Weighted& RandomOps::Choose() {
  int at = m_random.Below(m_totalWeight);
  for (std::size_t i = 0;; ++i) {
    at -= m_weights[i];
    if (at < 0) return Table()[i];
  }
}

void RandomOps::Step() {
  const Weighted& operation = Choose();
  m_lastName = operation.name;
  m_twin.SetFailures(m_random.Percent(m_failPercent) ? m_random.Bits() : 0);
  (this->*operation.make)();
  m_twin.Compare(++m_step % 64 == 0);
}

// --- What an operation is made on. ---

// Mostly a dataset of a pipe; now and then one that has left them.
const DatasetModel* RandomOps::Pick() {
  const PipelineModel& p = m_twin.pipeline;
  const int way = m_random.Below(10);
  if (way < 4 && !p.transmit.empty()) return p.transmit.back();
  if (way < 7 && !p.receive.empty()) {
    return p.receive[static_cast<std::size_t>(m_random.Below(static_cast<int>(p.receive.size())))];
  }
  if (way < 9 && !p.receive.empty()) return p.receive.back();
  if (m_twin.models.empty()) return nullptr;
  const int recent = static_cast<int>(std::min<std::size_t>(m_twin.models.size(), 12));
  const std::size_t back = static_cast<std::size_t>(m_random.Below(recent)) + 1;
  const DatasetModel* ds = m_twin.models[m_twin.models.size() - back].get();
  return ds->onXmit ? ds : nullptr;  // a refused dataset has no part in anything
}

// A buffer of `ds`, preferably one that is not finalized yet.
const Buffer* RandomOps::PickHeld(const DatasetModel& ds) {
  const Buffer* picked = nullptr;
  int open = 0;
  for (const auto& [volume, buffers] : ds.held) {
    for (const Buffer& buf : buffers) {
      const bool isOpen = ds.finalized.count(buf.key) == 0;
      if (picked == nullptr) picked = &buf;
      if (isOpen && m_random.Below(++open) == 0) picked = &buf;
    }
  }
  return picked;
}

Buffer RandomOps::RandomBuffer(int volumes) {
  Buffer buf;
  buf.key.volume = 1 + m_random.Below(volumes);
  buf.key.offset = kSector * static_cast<std::uint64_t>(m_random.Below(32));
  buf.key.length =
      static_cast<std::uint32_t>(kSector) * (1U + static_cast<unsigned>(m_random.Below(8)));
  if (m_random.Percent(5)) buf.key.offset += kRangeBytes - 20 * kSector;
  if (m_random.Percent(5)) buf.key.length += 1;
  buf.payload = m_random.Percent(40) ? 0 : 1 + m_random.Below(kPayloads);
  buf.opaque = m_random.Bits() % 4;
  return buf;
}

// One of many small buffers on one volume, with a large one now and then that covers some of them.
Buffer RandomOps::WideBuffer() {
  Buffer buf;
  buf.key.volume = 1;
  buf.key.offset = kSector * static_cast<std::uint64_t>(m_random.Below(512));
  const int sectors = 1 + m_random.Below(m_random.Percent(5) ? 64 : 6);
  buf.key.length = static_cast<std::uint32_t>(kSector) * static_cast<std::uint32_t>(sectors);
  return buf;
}

Unit RandomOps::RandomUnit() {
  Unit unit;
  unit.toXmit = m_random.Percent(85);
  unit.payload = m_random.Below(kPayloads + 1);
  unit.totalBufs = static_cast<std::uint64_t>(m_random.Below(3));
  for (int i = m_random.Below(3); i > 0; --i) {
    const Buffer buf = RandomBuffer(kVolumes);
    unit.buffers[buf.key.volume].push_back(buf);
  }
  return unit;
}

DatasetSpec RandomOps::RandomSpec(std::uint64_t n) {
  DatasetSpec spec;
  spec.n = n;
  spec.timestamp = m_random.Bits() % 1'000'000;
  spec.newCb = m_random.Percent(30);
  spec.finalizedCb = m_random.Percent(50);
  spec.received = static_cast<OnReceived>(m_random.Below(3));
  spec.resync = m_random.Percent(m_resyncPercent);
  if (!spec.resync) {
    spec.isNormal = m_random.Percent(80);
    spec.capacity =
        m_random.Percent(50) ? 0 : kSector * static_cast<std::uint64_t>(m_random.Below(64));
    return spec;
  }
  spec.requester = m_random.Percent(70);
  // Up to 600 blocks: room for two batches and a part, or for next to nothing.
  spec.capacity =
      m_random.Percent(40) ? kRangeBytes : 4096 * static_cast<std::uint64_t>(m_random.Below(600));
  if (m_random.Percent(10)) spec.capacity = 0;
  for (int i = m_random.Below(kVolumes + 1); i >= 0; --i) {
    const std::uint64_t offset = m_random.Percent(30) ? 4 * kSector : 0;
    const std::uint64_t length = m_random.Percent(30) ? 16 * kSector : kRangeBytes;
    spec.ranges.emplace_back(1 + m_random.Below(kVolumes), Range{offset, length});
  }
  return spec;
}

template <class Record>
std::uint64_t RandomOps::RecordNumber(const std::vector<Record>& records) {
  if (records.empty() || m_random.Percent(5)) {
    return m_twin.pipeline.last + static_cast<std::uint64_t>(m_random.Below(3));
  }
  if (m_random.Percent(50)) return records.front().n;
  return records[static_cast<std::size_t>(m_random.Below(static_cast<int>(records.size())))].n;
}

// --- Operations of the pipeline. ---

void RandomOps::Push() {
  const PipelineModel& p = m_twin.pipeline;
  if (p.receive.size() + p.transmit.size() > kMaxDatasets) {
    SettleNewest();
    return AckFront();
  }
  if (p.done.size() > kMaxRecords) return DoneOne();
  if (p.flush.size() > kMaxRecords) return FlushOne();
  std::uint64_t n = p.last + 1;
  if (m_random.Percent(10)) n += static_cast<std::uint64_t>(m_random.Below(4));
  if (m_random.Percent(3))
    n -= std::min<std::uint64_t>(n, 1 + static_cast<std::uint64_t>(m_random.Below(3)));
  m_twin.Push(RandomSpec(n), m_random.Percent(40));
}

void RandomOps::PushBuffer() {
  const PipelineModel& p = m_twin.pipeline;
  const bool wide = m_wide && !p.receive.empty() && !p.receive.back()->resync;
  const std::size_t limit = wide ? kMaxWideBuffers : kMaxBuffers;
  if (!p.receive.empty() && p.receive.back()->HeldCount() >= limit) return Push();
  if (wide) {
    for (int i = 0; i < 40; ++i) m_twin.PushBuffer(WideBuffer(), 0);
    return;
  }
  m_twin.PushBuffer(RandomBuffer(kVolumes), m_random.Bits() % 10'000);
}

void RandomOps::Bump() { m_twin.Bump(); }
void RandomOps::Drop() { m_twin.Drop(); }
void RandomOps::Update() { m_twin.Update(); }
void RandomOps::Retransmit() { m_twin.Retransmit(m_random.Percent(30)); }
void RandomOps::Clear() { m_twin.Clear(RecordNumber(m_twin.pipeline.done)); }

void RandomOps::Reset() {
  if (m_random.Percent(20)) m_twin.Reset();
}

void RandomOps::AckFront() {
  const PipelineModel& p = m_twin.pipeline;
  m_twin.Ack(p.transmit.empty() ? p.last : p.transmit.front()->n, m_random.Percent(60));
}

void RandomOps::AckOther() {
  m_twin.Ack(m_twin.pipeline.last + 2 - static_cast<std::uint64_t>(m_random.Below(3)),
             m_random.Percent(60));
}

void RandomOps::DoneOne() {
  m_twin.Done(RecordNumber(m_twin.pipeline.done), m_random.Percent(70), m_random.Percent(30));
}

void RandomOps::DoneAny() {
  m_twin.Done(static_cast<std::uint64_t>(m_random.Below(40)), m_random.Percent(70),
              m_random.Percent(30));
}

void RandomOps::StoreOne() {
  m_twin.Stored(RecordNumber(m_twin.pipeline.done), m_random.Percent(70));
}

void RandomOps::FlushOne() {
  // Without a flushed callback there are no records, and an unknown number is all that can be said.
  m_twin.Flushed(RecordNumber(m_twin.pipeline.flush), m_random.Percent(70));
}

void RandomOps::SetAccept() { m_twin.SetAccept(m_random.Percent(75)); }
void RandomOps::AddWriter() { m_twin.AddWriter(RecordNumber(m_twin.pipeline.done)); }
void RandomOps::Query() { m_twin.Query(RecordNumber(m_twin.pipeline.flush)); }

}  // namespace model
