// SPDX-License-Identifier: Apache-2.0
// Goal: whatever a crash leaves on disk, every extent that may differ from the target is marked in
// it; and nothing is marked for longer, or more often, than it has to be.
// Method: a map over a disk of sectors that are saved when the test says so; at random steps, a
// model that knows of each extent when it was written, recorded and flushed.
#include "engine/change_map.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

namespace penstock {
namespace {

constexpr std::uint64_t kExtent = 1U << 20U;
using Ranges = std::vector<ChangeMap::Range>;

class Changes : public testing::Test {
 protected:
  // Writes what is unsaved, as far as the disk.
  void SaveAll() {
    while (m_map.HasUnsaved()) {
      const ChangeMap::Save save = m_map.TakeUnsaved();
      for (const auto& [index, sector] : save.sectors) m_disk[index] = sector;
      m_map.Saved(save.generation);
    }
  }
  void Write(std::uint64_t offset, std::uint64_t length, std::uint64_t n) {
    if (m_map.Begin(offset, length) > m_map.SavedGeneration()) SaveAll();
    m_map.End(offset, length, n);
  }
  void Clear() {
    m_map.BeginClear();
    m_map.EndClear();
    SaveAll();
  }
  // What a new process finds.
  Ranges AfterCrash() const {
    ChangeMap found(m_id, m_bytes, kExtent);
    for (const auto& [index, sector] : m_disk) {
      EXPECT_TRUE(CheckBits(m_id, index - 1, sector));
      found.Load(index - 1, sector);
    }
    return found.TakeStale(1, ~std::uint64_t{0});
  }

  UuidT m_id{{7}};
  std::uint64_t m_bytes = 10 * kExtent + 1;
  ChangeMap m_map{m_id, m_bytes, kExtent, 2};
  std::map<std::uint64_t, MapSector> m_disk;
};

TEST_F(Changes, TheFirstWriteOfAnExtentWaitsForItsMark) {
  const std::uint64_t generation = m_map.Begin(0, 1);
  EXPECT_GT(generation, m_map.SavedGeneration());
  const ChangeMap::Save save = m_map.TakeUnsaved();
  EXPECT_EQ(save.generation, generation);
  ASSERT_EQ(save.sectors.size(), 1U);
  EXPECT_EQ(save.sectors[0].first, 1U) << "behind the header";
  EXPECT_EQ(m_map.Begin(100, 1), generation) << "it is not saved yet";
  m_map.Saved(generation);
  EXPECT_EQ(m_map.Begin(200, 1), 0U);
}

TEST_F(Changes, AMarkDuringASaveIsInTheNextOne) {
  m_map.Begin(0, 1);
  const ChangeMap::Save first = m_map.TakeUnsaved();
  const std::uint64_t second = m_map.Begin(kExtent, 1);
  EXPECT_GT(second, first.generation);
  m_map.Saved(first.generation);
  EXPECT_GT(second, m_map.SavedGeneration());
  EXPECT_EQ(m_map.TakeUnsaved().generation, second);
}

TEST_F(Changes, AWriteAcrossTheEdgeMarksBoth) {
  Write(kExtent - 1, 2, 1);
  EXPECT_EQ(AfterCrash(), (Ranges{{0, 2 * kExtent}}));
}

TEST_F(Changes, TheLastExtentIsAsLongAsTheVolume) {
  Write(m_bytes - 1, 1, 1);
  EXPECT_EQ(AfterCrash(), (Ranges{{10 * kExtent, 1}}));
}

TEST_F(Changes, FlushedExtentsStayHotUntilTheyAreTheColdest) {
  for (std::uint64_t i = 0; i < 3; ++i) Write(i * kExtent, 1, 1);
  EXPECT_EQ(m_map.MarkedExtents(), 3U);
  m_map.Flushed(1);
  EXPECT_EQ(m_map.MarkedExtents(), 3U) << "nothing is cleared before the volume is synced";
  EXPECT_EQ(m_map.ColdExtents(), 1U);
  Clear();
  EXPECT_EQ(AfterCrash(), (Ranges{{kExtent, 2 * kExtent}}));
  EXPECT_EQ(m_map.Begin(kExtent, 1), 0U) << "hot: its mark is on disk";
}

TEST_F(Changes, AnExtentThatIsWrittenWhileItIsBeingClearedStays) {
  for (std::uint64_t i = 0; i < 4; ++i) Write(i * kExtent, 1, 1);
  m_map.Flushed(1);
  ASSERT_EQ(m_map.ColdExtents(), 2U);
  m_map.BeginClear();
  Write(0, 1, 2);
  m_map.Flushed(2);
  m_map.EndClear();
  SaveAll();
  EXPECT_EQ(AfterCrash(), (Ranges{{0, kExtent}, {2 * kExtent, 2 * kExtent}}));
  EXPECT_EQ(m_map.ColdExtents(), 1U) << "it became cold after the clearing began";
}

TEST_F(Changes, AnExtentIsKeptUntilItsNewestWriteIsFlushed) {
  ChangeMap map(m_id, m_bytes, kExtent, 0);
  map.Begin(0, 1);
  map.End(0, 1, 1);
  map.Begin(0, 1);
  map.End(0, 1, 2);
  map.Flushed(1);
  EXPECT_EQ(map.MarkedExtents(), 1U);
  map.Begin(5, 1);
  map.Flushed(2);
  EXPECT_EQ(map.MarkedExtents(), 1U) << "a write is under way";
  map.End(5, 1, 3);
  map.Flushed(3);
  map.BeginClear();
  map.EndClear();
  EXPECT_TRUE(map.IsClean());
}

TEST_F(Changes, WhatIsInNoDatasetIsStaleUntilItIsTaken) {
  Write(0, 1, 0);
  m_map.Flushed(100);
  EXPECT_EQ(m_map.StaleBytes(), kExtent);
  EXPECT_EQ(m_map.TakeStale(101, kExtent), (Ranges{{0, kExtent}}));
  EXPECT_EQ(m_map.StaleBytes(), 0U);
  EXPECT_EQ(AfterCrash(), (Ranges{{0, kExtent}})) << "until the comparison is flushed";
  m_map.Flushed(101);
  m_map.Cool();
  Clear();
  EXPECT_EQ(AfterCrash(), Ranges{});
}

TEST_F(Changes, ALostBacklogIsStale) {
  Write(0, 1, 1);
  Write(3 * kExtent, 1, 2);
  m_map.Flushed(1);
  m_map.Lose();
  EXPECT_EQ(m_map.TakeStale(9, ~0ULL), (Ranges{{3 * kExtent, kExtent}}));
}

TEST_F(Changes, ARefusedExtentStaysMarkedUntilItIsCompared) {
  Write(0, 10, 1);
  m_map.Begin(0, 10);
  m_map.Refuse(0, 10, 2);
  m_map.Flushed(5);
  m_map.Cool();
  Clear();
  EXPECT_EQ(AfterCrash(), (Ranges{{0, kExtent}}));
  EXPECT_EQ(m_map.StaleBytes(), 0U);
  EXPECT_FALSE(m_map.CompareRefused(2));
  EXPECT_TRUE(m_map.CompareRefused(3));
  EXPECT_EQ(m_map.TakeStale(6, ~0ULL), (Ranges{{0, kExtent}}));
  m_map.Flushed(6);
  m_map.Cool();
  Clear();
  EXPECT_TRUE(m_map.IsClean());
}

TEST_F(Changes, RefusedRangesAreFoundInPieces) {
  const std::uint64_t last = (m_bytes - 1) / kExtent * kExtent;
  for (const std::uint64_t offset : {kExtent, last}) {
    m_map.Begin(offset, 1);
    m_map.Refuse(offset, 1, 1);
  }
  EXPECT_EQ(m_map.RefusedBytes(), kExtent + m_bytes - last);
  EXPECT_EQ(m_map.NextRefused(0, 4096), (ChangeMap::Range{kExtent, 4096}));
  EXPECT_EQ(m_map.NextRefused(2 * kExtent - 1, 4096), (ChangeMap::Range{2 * kExtent - 1, 1}));
  EXPECT_EQ(m_map.NextRefused(2 * kExtent, ~0ULL), (ChangeMap::Range{last, m_bytes - last}));
  EXPECT_EQ(m_map.NextRefused(m_bytes, ~0ULL).length, 0U);
}

TEST_F(Changes, AWriteUnderWayWhileTheBacklogIsLostIsKept) {
  m_map.Begin(0, 1);
  m_map.Lose();
  m_map.End(0, 1, 7);
  m_map.Flushed(6);
  SaveAll();
  EXPECT_EQ(AfterCrash(), (Ranges{{0, kExtent}}));
}

// The target has lost what it had of the volume.
TEST_F(Changes, WhatIsColdOrHotWhenNothingIsKnownAnyMoreStaysMarked) {
  for (std::uint64_t i = 0; i < 4; ++i) Write(i * kExtent, 1, 1);
  m_map.Flushed(1);
  ASSERT_EQ(m_map.ColdExtents(), 2U);
  m_map.BeginClear();
  m_map.MarkAll();
  EXPECT_EQ(m_map.ColdExtents(), 0U);
  m_map.EndClear();
  m_map.Cool();
  Clear();
  EXPECT_EQ(AfterCrash(), (Ranges{{0, m_bytes}}));
  EXPECT_EQ(m_map.TakeStale(2, ~std::uint64_t{0}), (Ranges{{0, m_bytes}}));
  EXPECT_EQ(AfterCrash(), (Ranges{{0, m_bytes}})) << "it is being compared";
  m_map.Flushed(2);
  m_map.Cool();
  Clear();
  EXPECT_EQ(AfterCrash(), Ranges{});
}

TEST_F(Changes, StaleRangesComeInPortions) {
  m_map.MarkAll();
  EXPECT_EQ(m_map.StaleBytes(), m_bytes);
  EXPECT_EQ(m_map.TakeStale(1, 4 * kExtent), (Ranges{{0, 4 * kExtent}}));
  EXPECT_EQ(m_map.TakeStale(2, 1), (Ranges{{4 * kExtent, kExtent}})) << "one at least";
  EXPECT_EQ(m_map.TakeStale(3, ~0ULL), (Ranges{{5 * kExtent, 5 * kExtent + 1}}));
  EXPECT_EQ(m_map.TakeStale(4, ~0ULL), Ranges{});
}

TEST_F(Changes, OnlyTheLastOfTheRangesTakenIsNoMultipleOfTheUnit) {
  Write(0, 1, 0);
  Write(2 * kExtent, kExtent + 1, 0);
  Write(5 * kExtent, 1, 0);
  EXPECT_EQ(m_map.TakeStale(1, ~0ULL, 2 * kExtent), (Ranges{{0, kExtent}}));
  EXPECT_EQ(m_map.TakeStale(1, ~0ULL, 2 * kExtent),
            (Ranges{{2 * kExtent, 2 * kExtent}, {5 * kExtent, kExtent}}));
}

TEST_F(Changes, ACleanStopLeavesNothing) {
  Write(0, 3 * kExtent, 1);
  m_map.Flushed(1);
  m_map.Cool();
  Clear();
  EXPECT_TRUE(m_map.IsClean());
  EXPECT_EQ(AfterCrash(), Ranges{});
}

// --- The file. ---

TEST(ChangeMapFile, TheHeaderComesBack) {
  MapHeader header;
  header.id.bytes[0] = 1;
  header.volume.bytes[0] = 2;
  header.volumeBytes = 3U << 20U;
  header.extentBytes = kExtent;
  MapHeader again;
  EXPECT_EQ(Decode(Encode(header), again), "");
  EXPECT_EQ(again.id, header.id);
  EXPECT_EQ(again.volume, header.volume);
  EXPECT_EQ(again.volumeBytes, header.volumeBytes);
  EXPECT_EQ(again.extentBytes, header.extentBytes);
}

TEST(ChangeMapFile, EveryFlippedBitIsSeen) {
  MapHeader header;
  header.volumeBytes = 1;
  header.extentBytes = 4096;
  const MapSector first = Encode(header);
  std::array<std::uint8_t, kMapSectorBytes - kMapHashBytes> bits{};
  bits[3] = 0x10;
  const MapSector second = EncodeBits(header.id, 4, bits);
  for (std::size_t bit = 0; bit < kMapSectorBytes * 8; ++bit) {
    MapSector damaged = first;
    damaged[bit / 8] = static_cast<std::uint8_t>(damaged[bit / 8] ^ 1U << (bit % 8));
    MapHeader out;
    EXPECT_NE(Decode(damaged, out), "") << bit;
    damaged = second;
    damaged[bit / 8] = static_cast<std::uint8_t>(damaged[bit / 8] ^ 1U << (bit % 8));
    EXPECT_FALSE(CheckBits(header.id, 4, damaged)) << bit;
  }
  EXPECT_TRUE(CheckBits(header.id, 4, second));
  EXPECT_FALSE(CheckBits(header.id, 5, second)) << "at another place";
  EXPECT_FALSE(CheckBits(UuidT{{1}}, 4, second)) << "of another map";
}

TEST(ChangeMapFile, AHeaderThatMakesNoSenseIsRefused) {
  MapHeader header;
  header.volumeBytes = 1;
  for (const std::uint64_t extent : {std::uint64_t{0}, std::uint64_t{512}, std::uint64_t{5000}}) {
    header.extentBytes = extent;
    MapHeader out;
    EXPECT_EQ(Decode(Encode(header), out), "its header makes no sense");
  }
}

TEST(ChangeMapFile, SectorsAreCounted) {
  EXPECT_EQ(MapSectors(1, kExtent), 2U);
  EXPECT_EQ(MapSectors(kExtentsPerSector * kExtent, kExtent), 2U);
  EXPECT_EQ(MapSectors(kExtentsPerSector * kExtent + 1, kExtent), 3U);
}

// --- Chance. ---

// One run: writes, saves, reports, losses and comparisons in any order; after each step a crash
// would find every extent marked of which the target may not have everything.
class RandomRun {
 public:
  explicit RandomRun(std::uint64_t seed)
      : m_random(seed), m_map(m_id, kBytes, 4096, m_random() % 8) {}

  void Run() {
    for (int i = 0; i < 600; ++i) {
      Step();
      Check();
    }
  }

 private:
  static constexpr std::uint64_t kCount = 50;
  static constexpr std::uint64_t kBytes = kCount * 4096 - 100;
  struct Writing {
    std::uint64_t offset, length, wait;
    bool inVolume = false;
  };

  std::uint64_t Below(std::uint64_t limit) { return m_random() % limit; }

  void Step() {
    switch (Below(9)) {
      case 0:
      case 1: {
        const std::uint64_t offset = Below(kBytes);
        const std::uint64_t length = 1 + Below(std::min<std::uint64_t>(9000, kBytes - offset));
        m_writing.push_back({offset, length, m_map.Begin(offset, length)});
        break;
      }
      case 2:
      case 3: Proceed(); break;
      case 4: SaveSome(); break;
      case 5:
        m_flushed = std::max(m_flushed, m_n - Below(std::min<std::uint64_t>(m_n, 3) + 1));
        m_map.Flushed(m_flushed);
        for (auto place = m_owed.begin(); place != m_owed.end();) {
          place = place->second <= m_flushed ? m_owed.erase(place) : std::next(place);
        }
        break;
      case 6:
        if (Below(10) != 0) break;
        m_map.Lose();
        for (auto& [extent, n] : m_owed) {
          if (n > m_flushed) n = kNever;
        }
        break;
      case 7:
        if (Below(2) == 0) {
          m_map.BeginClear();
        } else {
          m_map.EndClear();
        }
        break;
      default: TakeStale(); break;
    }
  }

  void Proceed() {
    if (m_writing.empty()) return;
    Writing& writing = m_writing[Below(m_writing.size())];
    if (writing.wait > m_map.SavedGeneration()) return;
    const std::uint64_t n = Below(4) == 0 ? 0 : m_n + Below(2);
    m_n = std::max(m_n, n);
    for (std::uint64_t e = writing.offset / 4096; e <= (writing.offset + writing.length - 1) / 4096;
         ++e) {
      std::uint64_t& owed = m_owed[e];
      if (owed != kNever)
        owed = n <= m_flushed && n != 0 ? owed : (n == 0 ? kNever : std::max(owed, n));
      if (owed == 0) m_owed.erase(e);
    }
    m_map.End(writing.offset, writing.length, n);
    writing = m_writing.back();
    m_writing.pop_back();
  }

  void SaveSome() {
    if (!m_map.HasUnsaved()) return;
    const ChangeMap::Save save = m_map.TakeUnsaved();
    for (const auto& [index, sector] : save.sectors) {
      m_disk[index] = sector;
      Check();  // a crash in the middle of it
    }
    m_map.Saved(save.generation);
  }

  void TakeStale() {
    ++m_n;
    for (const auto& [offset, length] : m_map.TakeStale(m_n, 3UL * 4096)) {
      for (std::uint64_t e = offset / 4096; e <= (offset + length - 1) / 4096; ++e) {
        const auto owed = m_owed.find(e);
        if (owed != m_owed.end()) owed->second = m_n;
      }
    }
  }

  void Check() {
    ChangeMap found(m_id, kBytes, 4096);
    for (const auto& [index, sector] : m_disk) found.Load(index - 1, sector);
    std::set<std::uint64_t> marked;
    for (const auto& [offset, length] : found.TakeStale(1, ~0ULL)) {
      for (std::uint64_t e = offset / 4096; e <= (offset + length - 1) / 4096; ++e)
        marked.insert(e);
    }
    for (const auto& [extent, n] : m_owed) {
      ASSERT_TRUE(marked.contains(extent)) << "extent " << extent << " of dataset " << n;
    }
  }

  static constexpr std::uint64_t kNever = ~std::uint64_t{0};
  std::mt19937_64 m_random;
  UuidT m_id{{9}};
  ChangeMap m_map;
  std::map<std::uint64_t, MapSector> m_disk;
  std::vector<Writing> m_writing;
  std::map<std::uint64_t, std::uint64_t> m_owed;  // extents in the volume, by what will settle them
  std::uint64_t m_n = 1;
  std::uint64_t m_flushed = 0;
};

TEST(ChangeMapAtRandom, NoCrashLosesAnExtent) {
  const char* given = std::getenv("PENSTOCK_SEED");
  const std::uint64_t seed =
      given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device{}();
  std::printf("PENSTOCK_SEED=%llu\n", static_cast<unsigned long long>(seed));
  for (std::uint64_t i = 0; i < 20 && !testing::Test::HasFatalFailure(); ++i) {
    RandomRun(seed + i).Run();
  }
}

}  // namespace
}  // namespace penstock
