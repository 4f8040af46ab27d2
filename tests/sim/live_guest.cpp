// SPDX-License-Identifier: Apache-2.0
// The guest of a source whose volumes are in use, and the saving of the change maps that it waits
// for.
#include <algorithm>
#include <memory>
#include <utility>

#include "tests/sim/live_node.h"

namespace penstock::sim {

namespace {

// What a guest may have to wait for a write: its mark, and the disk.
constexpr Millis kLongestWrite = 60'000;

}  // namespace

// --- The guest. ---

bool LiveNode::Overlaps(std::uint8_t volume, std::uint64_t offset, std::uint64_t length) const {
  return std::any_of(m_writing.begin(), m_writing.end(), [&](const auto& entry) {
    const Op& op = entry.second;
    return op.volume == volume && op.offset < offset + length && offset < op.offset + op.length;
  });
}

void LiveNode::Write() {
  if (!m_engine || m_isLeaving) return;
  Op op;
  op.volume = static_cast<std::uint8_t>(m_world.rng.Below(m_options.volumes.size()));
  const std::uint64_t size = m_options.volumes[op.volume].size;
  const bool aligned = m_world.rng.Chance(0.5);
  // Some places are written again and again.
  op.offset =
      m_world.rng.Below(m_world.rng.Chance(0.3) ? std::min<std::uint64_t>(size, 9000) : size);
  if (aligned) op.offset &= ~std::uint64_t{4095};
  op.length = std::min<std::uint64_t>(
      size - op.offset, aligned ? 4096 * m_world.rng.Between(1, 3) : m_world.rng.Between(1, 9000));
  if (const auto again = std::exchange(m_again, std::nullopt)) {
    op.volume = again->volume;
    op.offset = again->offset;
    op.length = again->length;
  }
  if (Overlaps(op.volume, op.offset, op.length)) return;
  if (!m_world.rng.Chance(0.2)) {
    op.data.resize(op.length);
    m_world.rng.Fill(op.data);
  }
  op.since = m_world.Now().steady;
  const std::uint64_t generation = m_capture->BeginWrite(op.volume, op.offset, op.length);
  const std::uint64_t id = ++m_lastOp;
  const std::uint8_t volume = op.volume;
  m_writing[id] = std::move(op);
  EnsureSaved(volume, generation,
              [this, id] { After(m_world.Latency(), [this, id] { WriteVolume(id); }); });
}

void LiveNode::WriteVolume(std::uint64_t id) {
  Op& op = m_writing.at(id);
  const std::vector<std::uint8_t> zeros(op.data.empty() ? op.length : 0);
  Bytes data = op.data.empty() ? zeros : op.data;
  op.isRefused = IsBad(op.volume, op.offset, op.length);
  if (op.isRefused) data = data.first(m_world.rng.Below(data.size()));  // a part of it was taken
  if (!data.empty()) m_disk.Write(Volume(op.volume), op.offset, data);
  After(m_world.Latency(), [this, id] { EndWrite(id); });
}

void LiveNode::EndWrite(std::uint64_t id) {
  const Op op = std::move(m_writing.at(id));
  m_writing.erase(id);
  SIM_CHECK(m_world.Now().steady - op.since < kLongestWrite, "I9: a guest's write took too long");
  CapturedWrite write;
  write.volume = op.volume;
  write.offset = op.offset;
  write.length = static_cast<std::uint32_t>(op.length);
  if (!op.data.empty()) {
    auto data = std::make_shared<std::uint8_t[]>(op.length);
    std::copy(op.data.begin(), op.data.end(), data.get());
    write.data = std::move(data);
  }
  if (op.isRefused && !EndRefused(op, write)) return Settle();
  m_world.Log("source: writes v" + std::to_string(op.volume) + " " + std::to_string(op.offset) +
              " + " + std::to_string(op.length));
  Apply(m_live, write);
  PatchLeft(write);
  const bool isFull = m_capture->Captured(std::move(write));
  // A guest that wants it on disk says so.
  if (m_world.rng.Chance(0.1)) SyncVolume(op.volume);
  if (isFull) m_engine->CloseDataset(m_world.Now());
  Settle();
}

// --- The maps. ---

void LiveNode::EnsureSaved(std::uint8_t volume, std::uint64_t generation,
                           std::function<void()> then) {
  if (m_capture->IsSaved(volume, generation)) return then();
  m_waiting.emplace(volume, std::make_pair(generation, std::move(then)));
  if (m_saving[volume]) return;
  auto save = m_capture->TakeUnsaved(volume);
  if (!save) return;  // being saved by nobody: can't be
  m_saving[volume] = true;
  SaveSector(volume, std::make_shared<ChangeMap::Save>(std::move(*save)), 0);
}

void LiveNode::SaveSector(std::uint8_t volume, std::shared_ptr<ChangeMap::Save> save,
                          std::size_t index) {
  After(m_world.Latency(), [this, volume, save, index] {
    if (index < save->sectors.size()) {
      const auto& [sector, bytes] = save->sectors[index];
      if (!m_mapGone.contains(volume)) m_disk.Write(Map(volume), sector * kMapSectorBytes, bytes);
      return SaveSector(volume, save, index + 1);
    }
    SyncMap(volume);
    m_saving[volume] = false;
    m_capture->Saved(volume, save->generation);
    auto [from, to] = m_waiting.equal_range(volume);
    std::vector<std::pair<std::uint64_t, std::function<void()>>> waiting;
    for (auto each = from; each != to; ++each) waiting.push_back(std::move(each->second));
    m_waiting.erase(from, to);
    for (auto& [generation, then] : waiting) EnsureSaved(volume, generation, std::move(then));
  });
}

}  // namespace penstock::sim
