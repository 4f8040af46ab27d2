// SPDX-License-Identifier: Apache-2.0
#include "tests/model/dataset_model.h"

#include <algorithm>

namespace model {

namespace {

constexpr std::uint64_t kBatch = 256;
constexpr std::uint64_t kBlockBytes = 4096;

bool Inside(const Key& inner, std::uint64_t offset, std::uint64_t end) {
  return inner.offset >= offset && inner.End() <= end;
}

}  // namespace

Code DatasetModel::Add(const Buffer& buf, std::uint64_t origSize) {
  const Key& key = buf.key;
  if (resync) {
    const auto range = ranges.find(key.volume);
    if (range == ranges.end()) return kUnknownVolume;
    const Range& allowed = range->second;
    if (!Inside(key, allowed.offset, allowed.offset + allowed.length)) return kOutOfRange;
  }
  if (capacity > 0 && bytes + key.length > capacity) return kOutOfRange;

  const int nextIndex = static_cast<int>(volumeIndex.size() % 256);
  volumeIndex.try_emplace(key.volume, nextIndex);
  std::vector<Buffer>& buffers = held[key.volume];
  std::erase_if(buffers, [&](const Buffer& old) { return Inside(old.key, key.offset, key.End()); });
  buffers.push_back(buf);
  bytes += key.length;
  origBytes += origSize;
  if (onNew) onNew(*this, buf);
  return kOk;
}

void DatasetModel::CountBlock() {
  ++blocks;
  if (requester) ++requester->announced;
}

void DatasetModel::Complete() {
  complete = true;
  if (requester) SendIfDue(true);
}

void DatasetModel::Close() {
  Complete();
  if (!resync) ReceiveAll();  // a resync dataset has no unit of its own
}

Code DatasetModel::MarkFinalized(const Buffer& buf) {
  const bool isNew = finalized.insert(buf.key).second;
  if (onFinalized) onFinalized(*this, buf);
  return isNew ? kOk : kExists;
}

Code DatasetModel::Finalize(const Buffer& buf, const Unit& unit) {
  if (resync) {
    const Verdict verdict = Compare(buf.key);
    if (verdict == Verdict::kLocalMissing) return kLocalMissing;
    if (verdict == Verdict::kRemoteMissing) return kRemoteMissing;
  }
  if (finalized.count(buf.key) > 0) return kAlreadyFinalized;
  finalized.insert(buf.key);
  if (unit.toXmit) units.push_back({buf, unit});
  xmitBytes += buf.key.length;
  if (onXmit) onXmit();
  return kOk;
}

Code DatasetModel::UnitReady(const Unit& unit) {
  if (!finalized.empty()) return kWaiting;
  for (const auto& [volume, buffers] : unit.buffers) {
    for (const Buffer& buf : buffers) finalized.insert(buf.key);
  }
  if (finalized.size() != unit.totalBufs) return kFailed;
  std::optional<Buffer> key;
  if (finalized.empty()) key = Buffer{};
  units.push_back({key, unit});
  onXmit();
  return kOk;
}

void DatasetModel::ReceiveAll() {
  Unit unit;
  for (const auto& [volume, buffers] : held) {
    if (!buffers.empty()) unit.buffers[volume] = buffers;
    for (const Buffer& buf : buffers) xmitBytes += buf.key.length;
    unit.totalBufs += buffers.size();
  }
  UnitReady(unit);
}

int DatasetModel::HasBuffers() { return ++working; }

int DatasetModel::DoneBuffers() {
  if (--working == 0) onXmit();
  return working;
}

std::size_t DatasetModel::HeldCount() const {
  std::size_t count = 0;
  for (const auto& [volume, buffers] : held) count += buffers.size();
  return count;
}

bool DatasetModel::IsSealed() const { return HeldCount() == finalized.size() && working == 0; }

void DatasetModel::InitRequester() {
  if (requester) return;
  requester.emplace();
  requester->maxBlocks = capacity / kBlockBytes;
}

void DatasetModel::OfferBlock(std::uint64_t fp) {
  if (!requester) return;
  const std::uint64_t index = requester->offered++;
  if (index > requester->maxBlocks) return;
  requester->slots[index] = fp;
  SendIfDue(complete);
}

// A batch is due when the newest fingerprint fills it, or when it is the last of a complete
// dataset.
void DatasetModel::SendIfDue(bool isComplete) {
  Requester& r = *requester;
  if (r.offered == r.lastSent) return;
  const bool isFull = r.offered % kBatch == 0;
  const bool isLast = isComplete && r.offered == r.announced;
  if (!isFull && !isLast) return;
  const std::uint64_t start = (r.offered - 1) / kBatch * kBatch;
  std::vector<std::uint64_t> batch;
  for (std::uint64_t i = start; i < r.offered && i <= r.maxBlocks; ++i) {
    const auto slot = r.slots.find(i);
    batch.push_back(slot == r.slots.end() ? 0 : slot->second);
  }
  onSend(batch, n * 65536 + start);
  r.lastSent = r.offered;
}

Code DatasetModel::AddPrint(bool isLocal, Buffer buf, Print print) {
  Prints& mine = isLocal ? local : remote;
  const Prints& other = isLocal ? remote : local;
  if (!mine.try_emplace(buf.key, buf, print).second) return kExists;
  const auto counterpart = other.find(buf.key);
  if (counterpart == other.end()) return kOk;
  if (Compare(buf.key) == Verdict::kDrop && finalized.count(buf.key) == 0) {
    MarkFinalized(buf);
    if (IsSealed()) onXmit();
    return kOk;
  }
  if (buf.payload == 0) buf = counterpart->second.first;
  if (onReceived) {
    onReceived(*this, buf);
  } else {
    Finalize(buf, Unit{});
  }
  return kOk;
}

DatasetModel::Verdict DatasetModel::Compare(const Key& key) const {
  const auto here = local.find(key);
  if (here == local.end()) return Verdict::kLocalMissing;
  const auto there = remote.find(key);
  if (there == remote.end()) return Verdict::kRemoteMissing;
  const Print wanted = there->second.second;
  if (wanted == 0) return Verdict::kKeep;
  return here->second.second == wanted ? Verdict::kDrop : Verdict::kKeep;
}

}  // namespace model
