// SPDX-License-Identifier: Apache-2.0
#include "engine/capture.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "codec/compare.h"
#include "engine/planted.h"

namespace penstock {

Capture::Capture(const CaptureOptions& options) : m_options(options), m_pending{m_open} {
  m_maps.reserve(options.volumes.size());
  for (const CaptureVolume& volume : options.volumes) {
    m_maps.emplace_back(volume.map, volume.size, options.extentBytes, options.hotExtents);
  }
}

void Capture::Load(std::uint8_t volume, std::uint64_t index, const MapSector& sector) {
  const std::lock_guard lock(m_mutex);
  m_maps.at(volume).Load(index, sector);
}

void Capture::LoadNothing(std::uint8_t volume) {
  const std::lock_guard lock(m_mutex);
  m_maps.at(volume).MarkAll();
}

// --- The guest's side. ---

std::uint64_t Capture::BeginWrite(std::uint8_t volume, std::uint64_t offset, std::uint64_t length) {
  const std::lock_guard lock(m_mutex);
  const std::uint64_t generation = m_maps.at(volume).Begin(offset, length);
  return Planted(Fault::kMarkAfterWrite) ? 0 : generation;
}

bool Capture::Captured(CapturedWrite write) {
  const std::lock_guard lock(m_mutex);
  ++m_count;
  m_bytes += write.length;
  ChangeMap& map = m_maps.at(write.volume);
  if (!m_recording) {
    const bool forgets = Planted(Fault::kTrackingForgetsTrim) && !write.data;
    map.End(write.offset, write.length, forgets ? m_open : 0);
    return false;
  }
  map.End(write.offset, write.length, m_open);
  const std::uint64_t bytes = (write.data ? write.length : 0) + kWriteOverhead;
  m_held += bytes;
  m_taken += bytes;
  m_writes.push_back(std::move(write));
  if (Planted(Fault::kCaptureOrder) && m_writes.size() > 1) {
    std::swap(m_writes.back(), m_writes[m_writes.size() - 2]);
  }
  if (BytesHeld() > m_options.memory + m_options.datasetBytes) {
    LoseLocked();
    return true;
  }
  // Where much waits to leave, smaller ones leave memory more evenly.
  const bool isTight = BytesHeld() > m_options.memory / 2;
  const std::uint64_t enough = isTight ? m_options.datasetBytes / 4 : m_options.datasetBytes;
  const bool isFirst = m_held >= enough && !m_closeWanted;
  m_closeWanted = m_closeWanted || isFirst;
  return isFirst;
}

void Capture::Failed(std::uint8_t volume, std::uint64_t offset, std::uint64_t length) {
  const std::lock_guard lock(m_mutex);
  ChangeMap& map = m_maps.at(volume);
  if (Planted(Fault::kRefusedForgotten)) return map.End(offset, length, m_open);
  if (!m_recording) return map.End(offset, length, 0);
  ++m_refusals;
  map.Refuse(offset, length, m_open);
}

// --- Saving. ---

std::uint64_t Capture::UnsavedGeneration(std::uint8_t volume) const {
  const std::lock_guard lock(m_mutex);
  return m_maps.at(volume).UnsavedGeneration();
}

bool Capture::IsSaved(std::uint8_t volume, std::uint64_t generation) const {
  const std::lock_guard lock(m_mutex);
  return m_maps.at(volume).SavedGeneration() >= generation;
}

std::optional<ChangeMap::Save> Capture::TakeUnsaved(std::uint8_t volume) {
  const std::lock_guard lock(m_mutex);
  ChangeMap& map = m_maps.at(volume);
  if (!map.HasUnsaved()) return std::nullopt;
  return map.TakeUnsaved();
}

void Capture::Saved(std::uint8_t volume, std::uint64_t generation) {
  const std::lock_guard lock(m_mutex);
  m_maps.at(volume).Saved(generation);
}

// --- For people. ---

std::uint64_t Capture::BytesHeld() const {
  return m_held.load(std::memory_order_relaxed) + m_carried.load(std::memory_order_relaxed);
}

std::uint64_t Capture::BytesTaken() const { return m_taken.load(std::memory_order_relaxed); }

std::uint64_t Capture::MemoryUsed() const {
  return BytesHeld() + m_comparing.load(std::memory_order_relaxed);
}

std::uint64_t Capture::Writes() const {
  const std::lock_guard lock(m_mutex);
  return m_count;
}

std::uint64_t Capture::BytesWritten() const {
  const std::lock_guard lock(m_mutex);
  return m_bytes;
}

std::uint64_t Capture::Marks() const {
  const std::lock_guard lock(m_mutex);
  std::uint64_t marks = 0;
  for (const ChangeMap& map : m_maps) marks += map.Marks();
  return marks;
}

std::uint64_t Capture::TotalStale() const {
  const std::lock_guard lock(m_mutex);
  std::uint64_t bytes = 0;
  for (const ChangeMap& map : m_maps) bytes += map.StaleBytes() + map.RefusedBytes();
  return bytes;
}

// --- The engine's side. ---

void Capture::Begin(const std::vector<bool>& whole) {
  const std::lock_guard lock(m_mutex);
  m_recording = true;
  for (std::size_t i = 0; i < m_maps.size(); ++i) {
    if (i < whole.size() && whole[i]) m_maps[i].MarkAll();
  }
}

void Capture::Lose() {
  const std::lock_guard lock(m_mutex);
  LoseLocked();
}

void Capture::LoseLocked() {
  m_recording = false;
  m_writes = {};
  m_held = 0;
  m_closeWanted = false;
  // Of the places that are under way nothing comes any more; they are stale, and so no place can
  // be too early with saying that it is flushed.
  for (ChangeMap& map : m_maps) map.Lose();
  m_placeOf.clear();
  m_open = ++m_lastPlace;
  m_pending = {m_open};
}

bool Capture::IsRecording() const {
  const std::lock_guard lock(m_mutex);
  return m_recording;
}

bool Capture::HasWrites() const {
  const std::lock_guard lock(m_mutex);
  return !m_writes.empty();
}

void Capture::TakeWrites(std::uint64_t n, std::vector<CapturedWrite>& out) {
  out.clear();  // its memory is used again for the next ones
  const std::lock_guard lock(m_mutex);
  m_carried += m_held;  // until the engine says what it made of them
  m_held = 0;
  m_closeWanted = false;
  m_placeOf.emplace(n, m_open);
  m_open = ++m_lastPlace;
  m_pending.insert(m_open);
  out.swap(m_writes);
}

void Capture::Carried(std::uint64_t writes, std::uint64_t comparisons, bool drains) {
  m_carried.store(writes, std::memory_order_relaxed);
  m_comparing.store(comparisons, std::memory_order_relaxed);
  m_drains.store(drains, std::memory_order_relaxed);
}

void Capture::OpenPlace() {
  m_pending.erase(m_open);
  m_open = ++m_lastPlace;
  m_pending.insert(m_open);
}

std::uint64_t Capture::StaleBytes(std::uint8_t volume) const {
  const std::lock_guard lock(m_mutex);
  return m_maps.at(volume).StaleBytes();
}

std::vector<ChangeMap::Range> Capture::TakeStale(std::uint8_t volume, std::uint64_t n,
                                                 std::uint64_t most) {
  const std::lock_guard lock(m_mutex);
  ChangeMap& map = m_maps.at(volume);
  if (map.StaleBytes() == 0) return {};
  const Place place = ++m_lastPlace;
  m_placeOf.emplace(n, place);
  m_pending.insert(place);
  return map.TakeStale(place, most, kWindowBytes);
}

bool Capture::HasRefused() const {
  const std::lock_guard lock(m_mutex);
  return std::ranges::any_of(m_maps, [](const auto& map) { return map.RefusedBytes() > 0; });
}

std::uint64_t Capture::Refusals() const {
  const std::lock_guard lock(m_mutex);
  return m_refusals;
}

ChangeMap::Range Capture::NextRefused(std::uint8_t volume, std::uint64_t from,
                                      std::uint64_t most) const {
  const std::lock_guard lock(m_mutex);
  return m_maps.at(volume).NextRefused(from, most);
}

// A write that was captured before, and is sent behind the comparison, would bring back what was
// there before the refused one.
bool Capture::CompareRefused(std::uint64_t refusals) {
  const std::lock_guard lock(m_mutex);
  if (refusals != m_refusals) return false;
  const bool isOrdered = m_writes.empty() || Planted(Fault::kRefusedTooEarly);
  const Place before = isOrdered ? std::numeric_limits<Place>::max() : m_open;
  bool any = false;
  for (ChangeMap& map : m_maps) any = map.CompareRefused(before) || any;
  return any;
}

void Capture::Flushed(std::uint64_t n) {
  const std::lock_guard lock(m_mutex);
  // Nothing is in the open place: another does as well, behind those of the resyncs under way.
  if (m_writes.empty()) OpenPlace();
  const auto end = m_placeOf.upper_bound(n);
  for (auto place = m_placeOf.begin(); place != end; ++place) m_pending.erase(place->second);
  m_placeOf.erase(m_placeOf.begin(), end);
  Place flushed = *m_pending.begin() - 1;
  if (Planted(Fault::kOpenWritesFlushed)) flushed = m_lastPlace;
  for (ChangeMap& map : m_maps) map.Flushed(flushed);
}

std::size_t Capture::ColdExtents() const {
  const std::lock_guard lock(m_mutex);
  std::size_t count = 0;
  for (const ChangeMap& map : m_maps) count += map.ColdExtents();
  return count;
}

void Capture::BeginClear() {
  const std::lock_guard lock(m_mutex);
  for (ChangeMap& map : m_maps) map.BeginClear();
}

void Capture::EndClear() {
  const std::lock_guard lock(m_mutex);
  for (ChangeMap& map : m_maps) map.EndClear();
}

void Capture::Cool() {
  const std::lock_guard lock(m_mutex);
  for (ChangeMap& map : m_maps) map.Cool();
}

}  // namespace penstock
