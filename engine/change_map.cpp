// SPDX-License-Identifier: Apache-2.0
#include "engine/change_map.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "engine/planted.h"

namespace penstock {

namespace {

constexpr std::array<std::uint8_t, 8> kMagic = {'P', 'S', 'T', 'K', 'M', 'A', 'P', '1'};
constexpr std::size_t kBitsBytes = kMapSectorBytes - kMapHashBytes;
// The header's hash is made under this in place of a sector's number.
constexpr std::uint64_t kHeaderNumber = ~std::uint64_t{0};

// What the header holds behind the magic, as it lies there: little-endian, packed.
struct HeaderRecord {
  std::array<std::uint8_t, 8> magic;
  std::array<std::uint8_t, 16> id;
  std::array<std::uint8_t, 16> volume;
  std::uint64_t volumeBytes;
  std::uint64_t extentBytes;
};
static_assert(sizeof(HeaderRecord) == 56);

// Of a sector's bytes, the map that it belongs to and its place in it: a sector that was written to
// the wrong place, or is left over from another map, is none.
std::uint64_t HashOf(const UuidT& map, std::uint64_t number, const MapSector& sector) {
  std::uint64_t seed = Hash64(map.bytes, number);
  return Hash64(Bytes(sector).first(kBitsBytes), seed);
}

void Seal(const UuidT& map, std::uint64_t number, MapSector& sector) {
  const std::uint64_t hash = HashOf(map, number, sector);
  std::memcpy(sector.data() + kBitsBytes, &hash, sizeof(hash));
}

bool IsSealed(const UuidT& map, std::uint64_t number, const MapSector& sector) {
  std::uint64_t hash = 0;
  std::memcpy(&hash, sector.data() + kBitsBytes, sizeof(hash));
  return hash == HashOf(map, number, sector);
}

}  // namespace

// --- The file. ---

MapSector Encode(const MapHeader& header) {
  const HeaderRecord record{kMagic, header.id.bytes, header.volume.bytes, header.volumeBytes,
                            header.extentBytes};
  MapSector sector{};
  std::memcpy(sector.data(), &record, sizeof(record));
  Seal(header.id, kHeaderNumber, sector);
  return sector;
}

std::string Decode(const MapSector& sector, MapHeader& out) {
  HeaderRecord record{};
  std::memcpy(&record, sector.data(), sizeof(record));
  if (record.magic != kMagic) return "it is no change map";
  out.id.bytes = record.id;
  if (!IsSealed(out.id, kHeaderNumber, sector)) return "its header is damaged";
  out.volume.bytes = record.volume;
  out.volumeBytes = record.volumeBytes;
  out.extentBytes = record.extentBytes;
  if (out.volumeBytes == 0 || out.extentBytes < 4096 || out.extentBytes % 4096 != 0) {
    return "its header makes no sense";
  }
  return {};
}

MapSector EncodeBits(const UuidT& map, std::uint64_t index,
                     const std::array<std::uint8_t, kBitsBytes>& bits) {
  MapSector sector{};
  std::copy(bits.begin(), bits.end(), sector.begin());
  Seal(map, index, sector);
  return sector;
}

bool CheckBits(const UuidT& map, std::uint64_t index, const MapSector& sector) {
  return IsSealed(map, index, sector);
}

std::uint64_t MapSectors(std::uint64_t volumeBytes, std::uint64_t extentBytes) {
  const std::uint64_t extents = (volumeBytes - 1) / extentBytes + 1;
  return 1 + (extents - 1) / kExtentsPerSector + 1;
}

// --- The map. ---

ChangeMap::ChangeMap(const UuidT& id, std::uint64_t volumeBytes, std::uint64_t extentBytes,
                     std::size_t hotExtents)
    : m_id(id),
      m_volumeBytes(volumeBytes),
      m_extentBytes(extentBytes),
      m_extents((volumeBytes - 1) / extentBytes + 1),
      m_hotLimit(hotExtents),
      m_bits(m_extents / 64 + 1),
      m_stale(m_extents / 64 + 1) {}

void ChangeMap::Set(Bits& bits, std::uint64_t extent, bool value) {
  const std::uint64_t bit = std::uint64_t{1} << (extent % 64);
  if (value) {
    bits[extent / 64] |= bit;
  } else {
    bits[extent / 64] &= ~bit;
  }
}

void ChangeMap::Mark(std::uint64_t extent) {
  Set(m_bits, extent, true);
  ++m_marked;
  m_unsaved[extent / kExtentsPerSector] = m_next;
  m_markedAt[extent] = m_next;
}

void ChangeMap::Unmark(std::uint64_t extent) {
  Set(m_bits, extent, false);
  --m_marked;
  m_unsaved[extent / kExtentsPerSector] = m_next;
  m_markedAt.erase(extent);
}

void ChangeMap::Load(std::uint64_t index, const MapSector& sector) {
  const std::uint64_t first = index * kExtentsPerSector;
  const std::uint64_t count = std::min(kExtentsPerSector, m_extents - std::min(first, m_extents));
  for (std::uint64_t i = 0; i < count; ++i) {
    if ((sector[i / 8] >> (i % 8) & 1U) == 0 || Has(m_bits, first + i)) continue;
    Set(m_bits, first + i, true);
    ++m_marked;
    MakeStale(first + i);
  }
}

void ChangeMap::MarkAll() {
  for (std::uint64_t extent = 0; extent < m_extents; ++extent) {
    if (!Has(m_bits, extent)) Mark(extent);
    MakeStale(extent);
  }
  // What has to be compared stays marked: it is neither hot nor cold.
  m_hot.clear();
  m_cold.clear();
  m_refused.clear();
  std::erase_if(m_known, [](const auto& known) { return known.second.kind != Kind::kBusy; });
}

void ChangeMap::MakeStale(std::uint64_t extent) {
  if (Has(m_stale, extent)) return;
  Set(m_stale, extent, true);
  ++m_staleCount;
}

// The extent as a busy one.
ChangeMap::Extent& ChangeMap::Touch(std::uint64_t extent) {
  Extent& state = m_known[extent];
  if (state.kind == Kind::kHot) m_hot.erase(state.place);
  if (state.kind == Kind::kCold) m_cold.erase(state.place);
  state.kind = Kind::kBusy;
  state.clearing = false;
  return state;
}

std::uint64_t ChangeMap::Begin(std::uint64_t offset, std::uint64_t length) {
  std::uint64_t wait = 0;
  for (std::uint64_t extent = offset / m_extentBytes; extent <= Last(offset, length); ++extent) {
    if (!Has(m_bits, extent)) Mark(extent);
    ++Touch(extent).writers;
    const auto marked = m_markedAt.find(extent);
    if (marked != m_markedAt.end()) wait = std::max(wait, marked->second);
  }
  if (wait != 0) ++m_marks;
  return wait;
}

void ChangeMap::End(std::uint64_t offset, std::uint64_t length, std::uint64_t n) {
  for (std::uint64_t extent = offset / m_extentBytes; extent <= Last(offset, length); ++extent) {
    Extent& state = m_known.at(extent);
    --state.writers;
    state.n = std::max(state.n, n);
    if (n == 0) MakeStale(extent);
    Heat(extent, state);
  }
}

void ChangeMap::Refuse(std::uint64_t offset, std::uint64_t length, std::uint64_t n) {
  for (std::uint64_t extent = offset / m_extentBytes; extent <= Last(offset, length); ++extent) {
    --m_known.at(extent).writers;
    m_refused[extent] = n;
  }
}

bool ChangeMap::CompareRefused(std::uint64_t n) {
  return std::erase_if(m_refused, [&](const auto& refused) {
           const auto [extent, since] = refused;
           if (since < n) MakeStale(extent);
           return since < n;
         }) > 0;
}

std::uint64_t ChangeMap::RefusedBytes() const {
  std::uint64_t bytes = 0;
  for (const auto& [extent, since] : m_refused) bytes += PartOf(extent, 0).length;
  return bytes;
}

ChangeMap::Range ChangeMap::NextRefused(std::uint64_t from, std::uint64_t most) const {
  for (auto place = m_refused.lower_bound(from / m_extentBytes); place != m_refused.end();
       ++place) {
    const auto [offset, length] = PartOf(place->first, from);
    if (length > 0) return {offset, std::min(most, length)};
  }
  return {};
}

ChangeMap::Range ChangeMap::PartOf(std::uint64_t extent, std::uint64_t from) const {
  const std::uint64_t offset = std::max(from, extent * m_extentBytes);
  const std::uint64_t end = std::min(m_volumeBytes, (extent + 1) * m_extentBytes);
  return {offset, end - std::min(offset, end)};
}

// Moves a busy extent on, if it is not busy any more. May forget `state`.
void ChangeMap::Heat(std::uint64_t extent, Extent& state) {
  if (m_refused.contains(extent)) return;
  if (state.n > m_flushed || (state.writers > 0 && !Planted(Fault::kClearUnderWriter))) return;
  if (Has(m_stale, extent)) {
    m_known.erase(extent);
    return;
  }
  state.kind = Kind::kHot;
  state.place = m_hot.insert(m_hot.end(), extent);
  if (m_hot.size() > m_hotLimit) CoolOne();
}

void ChangeMap::CoolOne() {
  m_known.at(m_hot.front()).kind = Kind::kCold;
  m_cold.splice(m_cold.end(), m_hot, m_hot.begin());
}

void ChangeMap::Flushed(std::uint64_t n) {
  if (n <= m_flushed) return;
  m_flushed = n;
  std::vector<std::uint64_t> done;
  for (const auto& [extent, state] : m_known) {
    if (state.kind == Kind::kBusy && state.writers == 0 && state.n <= n) done.push_back(extent);
  }
  std::sort(done.begin(), done.end());
  for (const std::uint64_t extent : done) Heat(extent, m_known.at(extent));
}

void ChangeMap::Lose() {
  CompareRefused(std::numeric_limits<std::uint64_t>::max());
  for (auto place = m_known.begin(); place != m_known.end();) {
    auto& [extent, state] = *place;
    if (state.kind == Kind::kBusy && state.n > m_flushed && !Planted(Fault::kOverflowForgets)) {
      MakeStale(extent);
      state.n = 0;
    }
    const bool isOver = state.kind == Kind::kBusy && state.writers == 0 && Has(m_stale, extent);
    place = isOver ? m_known.erase(place) : std::next(place);
  }
}

std::vector<ChangeMap::Range> ChangeMap::TakeStale(std::uint64_t n, std::uint64_t most,
                                                   std::uint64_t unit) {
  std::vector<Range> ranges;
  std::uint64_t taken = 0;
  for (std::uint64_t word = 0; word < m_stale.size() && m_staleCount > 0; ++word) {
    if (m_stale[word] == 0) continue;
    for (std::uint64_t extent = word * 64; extent < std::min((word + 1) * 64, m_extents);
         ++extent) {
      if (!Has(m_stale, extent)) continue;
      const std::uint64_t offset = extent * m_extentBytes;
      const std::uint64_t length = std::min(m_extentBytes, m_volumeBytes - offset);
      if (taken > 0 && taken + length > most) return ranges;
      const bool follows = !ranges.empty() && ranges.back().offset + ranges.back().length == offset;
      if (!follows && !ranges.empty() && ranges.back().length % unit != 0) return ranges;
      taken += length;
      if (follows) {
        ranges.back().length += length;
      } else {
        ranges.push_back({offset, length});
      }
      Set(m_stale, extent, false);
      --m_staleCount;
      Extent& state = Touch(extent);
      state.n = std::max(state.n, n);
    }
  }
  return ranges;
}

void ChangeMap::Cool() {
  while (!m_hot.empty()) CoolOne();
}

void ChangeMap::BeginClear() {
  for (const std::uint64_t extent : m_cold) m_known.at(extent).clearing = true;
}

void ChangeMap::EndClear() {
  for (auto place = m_cold.begin(); place != m_cold.end();) {
    const std::uint64_t extent = *place;
    if (!m_known.at(extent).clearing) {
      ++place;
      continue;
    }
    place = m_cold.erase(place);
    m_known.erase(extent);
    Unmark(extent);
  }
}

std::uint64_t ChangeMap::StaleBytes() const {
  const std::uint64_t last = m_extents - 1;
  const std::uint64_t whole = m_staleCount * m_extentBytes;
  return Has(m_stale, last) ? whole - m_extentBytes + PartOf(last, 0).length : whole;
}

// --- Saving. ---

MapSector ChangeMap::SectorOf(std::uint64_t index) const {
  std::array<std::uint8_t, kBitsBytes> bits{};
  const std::uint64_t first = index * kExtentsPerSector;
  for (std::uint64_t i = 0; i < kExtentsPerSector && first + i < m_extents; ++i) {
    if (Has(m_bits, first + i))
      bits[i / 8] = static_cast<std::uint8_t>(bits[i / 8] | 1U << (i % 8));
  }
  return EncodeBits(m_id, index, bits);
}

void ChangeMap::Saved(std::uint64_t generation) {
  m_saved = generation;
  std::erase_if(m_markedAt, [&](const auto& marked) { return marked.second <= generation; });
}

ChangeMap::Save ChangeMap::TakeUnsaved() {
  Save save;
  save.generation = m_next++;
  for (const auto& [sector, generation] : m_unsaved) {
    save.sectors.emplace_back(sector + 1, SectorOf(sector));
  }
  std::sort(save.sectors.begin(), save.sectors.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  m_unsaved.clear();
  return save;
}

}  // namespace penstock
