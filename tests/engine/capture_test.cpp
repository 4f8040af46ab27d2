// SPDX-License-Identifier: Apache-2.0
// Goal: every write is in the dataset that was open when it was captured, in order, or its extents
// are stale; and no mark goes before the target has everything of its extent.
// Method: a guest and an engine, both played by the test; what is stale and cold is asked after
// each step, and once what a new process would find.
#include "engine/capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "codec/compare.h"
#include "tests/engine/engine_rig.h"

namespace penstock {
namespace {

constexpr std::uint64_t kCaptureExtent = 4096;
using Ranges = std::vector<ChangeMap::Range>;

class CaptureTest : public testing::Test {
 protected:
  CaptureTest() {
    m_options.volumes = {{UuidT{{1}}, 16 * kCaptureExtent}, {UuidT{{2}}, 16 * kCaptureExtent}};
    m_options.extentBytes = kCaptureExtent;
    m_options.hotExtents = 0;
    m_options.datasetBytes = 32 * kKiB;
    m_options.memory = 64 * kKiB;
    Open();
  }
  void Open() { m_capture = std::make_unique<Capture>(m_options); }
  // Nothing of what the target has is in doubt.
  void Begin() { m_capture->Begin({false, false}); }

  static CapturedWrite WriteOf(std::uint64_t offset, std::uint32_t length, std::uint8_t volume = 0,
                               bool zeros = false) {
    CapturedWrite write{volume, offset, length, nullptr};
    if (!zeros) write.data = std::make_shared<std::uint8_t[]>(length);
    return write;
  }
  // The whole way of a write, with its mark saved first.
  bool Write(std::uint64_t offset, std::uint32_t length = 100, std::uint8_t volume = 0,
             bool zeros = false) {
    if (!m_capture->IsSaved(volume, m_capture->BeginWrite(volume, offset, length))) Save(volume);
    return m_capture->Captured(WriteOf(offset, length, volume, zeros));
  }
  void Save(std::uint8_t volume = 0) {
    while (const auto save = m_capture->TakeUnsaved(volume)) {
      for (const auto& [index, sector] : save->sectors) m_disk[{volume, index}] = sector;
      m_capture->Saved(volume, save->generation);
    }
  }
  void Clear() {
    m_capture->BeginClear();
    m_capture->EndClear();
    Save(0);
    Save(1);
  }
  // "100+20 8192+1": what the next dataset takes.
  std::string Take(std::uint64_t n) {
    std::string text;
    std::vector<CapturedWrite> taken;
    m_capture->TakeWrites(n, taken);
    for (const CapturedWrite& write : taken) {
      text += (text.empty() ? "" : " ") + Range(write.offset, write.length);
      if (!write.data) text += " zeros";
    }
    return text;
  }
  Ranges TakeStale(std::uint64_t n, std::uint64_t most = kMiB, std::uint8_t volume = 0) {
    return m_capture->TakeStale(volume, n, most);
  }
  // What of a volume a new process has to compare.
  std::uint64_t StaleAfterCrash(std::uint8_t volume = 0) const {
    Capture found(m_options);
    for (const auto& [place, sector] : m_disk) {
      const auto& [of, index] = place;
      EXPECT_TRUE(CheckBits(m_options.volumes[of].map, index - 1, sector));
      found.Load(of, index - 1, sector);
    }
    return found.StaleBytes(volume);
  }

  CaptureOptions m_options;
  std::unique_ptr<Capture> m_capture;
  std::map<std::pair<std::uint8_t, std::uint64_t>, MapSector> m_disk;
};

// --- Marks before writes. ---

TEST_F(CaptureTest, AWriteWaitsUntilItsMarkIsSaved) {
  Begin();
  const std::uint64_t generation = m_capture->BeginWrite(0, 0, 100);
  EXPECT_NE(generation, 0U);
  EXPECT_FALSE(m_capture->IsSaved(0, generation));
  EXPECT_EQ(m_capture->UnsavedGeneration(0), generation);
  const auto save = m_capture->TakeUnsaved(0);
  ASSERT_TRUE(save);
  EXPECT_EQ(m_capture->UnsavedGeneration(0), generation) << "it is under way";
  EXPECT_FALSE(m_capture->IsSaved(0, generation));
  m_capture->Saved(0, save->generation);
  EXPECT_TRUE(m_capture->IsSaved(0, generation));
  EXPECT_EQ(m_capture->UnsavedGeneration(0), 0U);
  EXPECT_EQ(m_capture->BeginWrite(0, 200, 100), 0U) << "of the same extent";
  EXPECT_EQ(m_capture->Marks(), 1U);
}

TEST_F(CaptureTest, EveryVolumeHasItsOwnMap) {
  Begin();
  EXPECT_NE(m_capture->BeginWrite(1, 0, 100), 0U);
  EXPECT_FALSE(m_capture->TakeUnsaved(0));
  EXPECT_TRUE(m_capture->TakeUnsaved(1));
}

TEST_F(CaptureTest, WhatWasMarkedInAnEarlierProcessIsStale) {
  Begin();
  Write(0);
  Write(5 * kCaptureExtent, 100, 1);
  EXPECT_EQ(StaleAfterCrash(0), kCaptureExtent);
  EXPECT_EQ(StaleAfterCrash(1), kCaptureExtent);
}

TEST_F(CaptureTest, AVolumeOfWhichNothingIsKnownIsStaleWhole) {
  m_capture->LoadNothing(1);
  EXPECT_EQ(m_capture->StaleBytes(0), 0U);
  EXPECT_EQ(m_capture->StaleBytes(1), 16 * kCaptureExtent);
  EXPECT_EQ(m_capture->TotalStale(), 16 * kCaptureExtent);
}

TEST_F(CaptureTest, AVolumeThatCannotBeReliedOnIsStaleWhole) {
  m_capture->Begin({false, true});
  EXPECT_EQ(m_capture->StaleBytes(0), 0U);
  EXPECT_EQ(m_capture->StaleBytes(1), 16 * kCaptureExtent);
}

// --- Tracking and recording. ---

TEST_F(CaptureTest, ItTracksUntilItIsToldToRecord) {
  EXPECT_FALSE(m_capture->IsRecording());
  Write(0);
  EXPECT_FALSE(m_capture->HasWrites());
  EXPECT_EQ(m_capture->StaleBytes(0), kCaptureExtent);
  Begin();
  EXPECT_TRUE(m_capture->IsRecording());
  EXPECT_EQ(m_capture->StaleBytes(0), kCaptureExtent) << "no dataset has it";
  Write(kCaptureExtent);
  EXPECT_TRUE(m_capture->HasWrites());
  EXPECT_EQ(m_capture->StaleBytes(0), kCaptureExtent);
}

TEST_F(CaptureTest, ATrimThatIsOnlyTrackedIsStaleToo) {
  Write(0, kCaptureExtent, 0, true);
  EXPECT_EQ(m_capture->StaleBytes(0), kCaptureExtent);
}

TEST_F(CaptureTest, AWriteThatBeganBeforeTheRecordingIsRecordedAtItsEnd) {
  m_capture->BeginWrite(0, 0, 100);
  Begin();
  m_capture->Captured(WriteOf(0, 100));
  EXPECT_EQ(Take(1), "0+100");
  EXPECT_EQ(m_capture->StaleBytes(0), 0U);
}

TEST_F(CaptureTest, AWriteThatFailedMakesItsExtentsStaleWhenTheyCanBeRead) {
  Begin();
  EXPECT_FALSE(m_capture->HasRefused());
  m_capture->BeginWrite(0, kCaptureExtent - 1, 2);
  m_capture->Failed(0, kCaptureExtent - 1, 2);
  EXPECT_FALSE(m_capture->HasWrites());
  EXPECT_EQ(m_capture->Writes(), 0U);
  EXPECT_TRUE(m_capture->HasRefused());
  EXPECT_EQ(m_capture->StaleBytes(0), 0U) << "not yet: nobody could read them";
  EXPECT_EQ(m_capture->TotalStale(), 2 * kCaptureExtent);
  EXPECT_TRUE(m_capture->CompareRefused(m_capture->Refusals()));
  EXPECT_FALSE(m_capture->HasRefused());
  EXPECT_EQ(m_capture->StaleBytes(0), 2 * kCaptureExtent);
}

TEST_F(CaptureTest, AWriteThatFailedWhileNothingIsRecordedIsStaleAtOnce) {
  m_capture->BeginWrite(0, 0, 2);
  m_capture->Failed(0, 0, 2);
  EXPECT_FALSE(m_capture->HasRefused());
  EXPECT_EQ(m_capture->StaleBytes(0), kCaptureExtent);
}

// Sent behind the comparison, they would bring back what was there before.
TEST_F(CaptureTest, WhatWasCapturedBeforeARefusedWriteIsTakenBeforeThatIsCompared) {
  Begin();
  Write(0);
  m_capture->BeginWrite(0, 0, 2);
  m_capture->Failed(0, 0, 2);
  EXPECT_FALSE(m_capture->CompareRefused(m_capture->Refusals()));
  EXPECT_TRUE(m_capture->HasRefused());
  Take(1);
  Write(0);  // a newer one may wait
  EXPECT_TRUE(m_capture->CompareRefused(m_capture->Refusals()));
  EXPECT_EQ(m_capture->StaleBytes(0), kCaptureExtent);
}

TEST_F(CaptureTest, WhatWasRefusedSinceItWasTriedKeepsAllOfItFromBeingCompared) {
  Begin();
  m_capture->BeginWrite(0, 0, 2);
  m_capture->Failed(0, 0, 2);
  const std::uint64_t tried = m_capture->Refusals();
  m_capture->BeginWrite(0, kCaptureExtent, 2);
  m_capture->Failed(0, kCaptureExtent, 2);
  EXPECT_FALSE(m_capture->CompareRefused(tried));
  EXPECT_EQ(m_capture->StaleBytes(0), 0U);
  EXPECT_TRUE(m_capture->CompareRefused(m_capture->Refusals()));
  EXPECT_EQ(m_capture->StaleBytes(0), 2 * kCaptureExtent);
}

TEST_F(CaptureTest, ABacklogThatIsGivenUpMakesRefusedExtentsStale) {
  Begin();
  Write(0);
  m_capture->BeginWrite(0, 0, 2);
  m_capture->Failed(0, 0, 2);
  m_capture->Lose();
  EXPECT_FALSE(m_capture->HasRefused());
  EXPECT_EQ(m_capture->StaleBytes(0), kCaptureExtent);
}

TEST_F(CaptureTest, WritesAreTakenOnceInTheirOrder) {
  Begin();
  Write(8192, 50);
  Write(0, 100, 1);
  Write(100, 20, 0, true);
  EXPECT_EQ(Take(1), "8192+50 0+100 100+20 zeros");
  EXPECT_EQ(Take(2), "");
  EXPECT_FALSE(m_capture->HasWrites());
}

TEST_F(CaptureTest, WritesAreCounted) {
  Begin();
  Write(0, 100);
  Write(0, 50, 0, true);
  EXPECT_EQ(m_capture->Writes(), 2U);
  EXPECT_EQ(m_capture->BytesWritten(), 150U);
  const std::uint64_t held = m_capture->BytesHeld();
  EXPECT_GT(held, 100U) << "what a write takes beside its data counts, too";
  Write(0, 50, 0, true);
  EXPECT_LT(m_capture->BytesHeld() - held, 300U);
  EXPECT_EQ(m_capture->BytesWritten(), 200U);
}

// The limit is for the writes of both together, at every moment.
TEST_F(CaptureTest, WhatTheEngineHasCountsToo) {
  Begin();
  Write(0, 100);
  const std::uint64_t held = m_capture->BytesHeld();
  Take(1);
  EXPECT_EQ(m_capture->BytesHeld(), held) << "before the engine says what it made of it";
  EXPECT_FALSE(m_capture->Drains());
  m_capture->Carried(70, 1000, true);
  EXPECT_EQ(m_capture->BytesHeld(), 70U);
  EXPECT_EQ(m_capture->MemoryUsed(), 1070U);
  EXPECT_TRUE(m_capture->Drains());
  m_capture->Carried(m_options.memory + m_options.datasetBytes - held, 1 << 30U, true);
  Write(0, 100);
  EXPECT_TRUE(m_capture->IsRecording());
  Write(0, 1);
  EXPECT_FALSE(m_capture->IsRecording()) << "more than the memory and a dataset";
  EXPECT_EQ(m_capture->BytesHeld(), m_options.memory + m_options.datasetBytes - held);
}

TEST_F(CaptureTest, ADatasetThatHoldsEnoughIsToBeClosedAndThatIsSaidOnce) {
  Begin();
  EXPECT_FALSE(Write(0, 16 * 1024));
  EXPECT_TRUE(Write(0, 16 * 1024));
  EXPECT_FALSE(Write(0, 100)) << "it was said";
  Take(1);
  m_capture->Carried(0, 0, true);
  EXPECT_FALSE(Write(0, 16 * 1024));
  EXPECT_TRUE(Write(0, 16 * 1024)) << "of the next one";
}

TEST_F(CaptureTest, BeyondHalfOfTheMemoryAQuarterIsEnough) {
  Begin();
  m_capture->Carried(m_options.memory / 2, 0, true);
  EXPECT_FALSE(Write(0, 4 * 1024));
  EXPECT_TRUE(Write(0, 4 * 1024));
  EXPECT_FALSE(Write(0, 16 * 1024)) << "it was said";
}

TEST_F(CaptureTest, WhatNobodyTakesIsGivenUpWhenTheMemoryIsFull) {
  Begin();
  for (int i = 0; i < 5; ++i) Write(0, 16 * 1024);
  EXPECT_TRUE(m_capture->IsRecording());
  EXPECT_TRUE(Write(0, 16 * 1024)) << "somebody has to hear of it";
  EXPECT_FALSE(m_capture->IsRecording());
  EXPECT_FALSE(m_capture->HasWrites());
  EXPECT_EQ(m_capture->BytesHeld(), 0U);
  EXPECT_EQ(m_capture->StaleBytes(0), 4 * kCaptureExtent);
  EXPECT_FALSE(Write(8 * kCaptureExtent)) << "only marked";
  EXPECT_EQ(m_capture->StaleBytes(0), 5 * kCaptureExtent);
}

// --- What is flushed. ---

TEST_F(CaptureTest, AMarkGoesOnlyWhenTheDatasetOfItsWriteIsFlushed) {
  Begin();
  Write(0);
  Take(5);
  m_capture->Flushed(4);
  EXPECT_EQ(m_capture->ColdExtents(), 0U);
  m_capture->Flushed(5);
  EXPECT_EQ(m_capture->ColdExtents(), 1U);
  Clear();
  EXPECT_EQ(StaleAfterCrash(), 0U);
}

TEST_F(CaptureTest, WhatIsInNoDatasetYetIsNotFlushed) {
  Begin();
  Write(0);
  Take(1);
  Write(kCaptureExtent);
  m_capture->Flushed(1);
  EXPECT_EQ(m_capture->ColdExtents(), 1U);
  Write(0);
  m_capture->Flushed(1);
  EXPECT_EQ(m_capture->ColdExtents(), 0U) << "it was written to again";
  Clear();
  EXPECT_EQ(StaleAfterCrash(), 2 * kCaptureExtent);
}

TEST_F(CaptureTest, AWriteThatIsUnderWayIsNotFlushed) {
  Begin();
  Write(0);
  Take(1);
  m_capture->BeginWrite(0, 0, 100);
  m_capture->Flushed(1);
  EXPECT_EQ(m_capture->ColdExtents(), 0U);
  m_capture->Captured(WriteOf(0, 100));
  EXPECT_EQ(m_capture->ColdExtents(), 0U);
  Take(2);
  m_capture->Flushed(2);
  EXPECT_EQ(m_capture->ColdExtents(), 1U);
}

TEST_F(CaptureTest, DatasetsAreFlushedInTheirOrderAlsoWhenSeveralAreAtOnce) {
  Begin();
  for (std::uint64_t i = 0; i < 4; ++i) {
    Write(i * kCaptureExtent);
    Take(i + 1);
  }
  m_capture->Flushed(3);
  EXPECT_EQ(m_capture->ColdExtents(), 3U);
  m_capture->Flushed(4);
  EXPECT_EQ(m_capture->ColdExtents(), 4U);
}

TEST_F(CaptureTest, HotExtentsStayMarkedUntilTheyAreCooled) {
  m_options.hotExtents = 1;
  Open();
  Begin();
  Write(0);
  Write(kCaptureExtent);
  Take(1);
  m_capture->Flushed(1);
  EXPECT_EQ(m_capture->ColdExtents(), 1U);
  m_capture->Cool();
  EXPECT_EQ(m_capture->ColdExtents(), 2U);
}

TEST_F(CaptureTest, WhatIsWrittenDuringAClearingStaysMarked) {
  Begin();
  Write(0);
  Write(kCaptureExtent);
  Take(1);
  m_capture->Flushed(1);
  m_capture->BeginClear();
  Write(0);
  m_capture->EndClear();
  Save();
  EXPECT_EQ(StaleAfterCrash(), kCaptureExtent);
}

// --- Comparisons. ---

TEST_F(CaptureTest, WhatIsComparedIsStaleNoMoreAndMarkedUntilItsDatasetIsFlushed) {
  Write(2 * kCaptureExtent, 2 * kCaptureExtent);
  Begin();
  EXPECT_EQ(TakeStale(1), (Ranges{{2 * kCaptureExtent, 2 * kCaptureExtent}}));
  EXPECT_EQ(m_capture->StaleBytes(0), 0U);
  EXPECT_EQ(m_capture->ColdExtents(), 0U);
  EXPECT_EQ(StaleAfterCrash(), 2 * kCaptureExtent);
  m_capture->Flushed(1);
  EXPECT_EQ(m_capture->ColdExtents(), 2U);
}

TEST_F(CaptureTest, NothingStaleIsNoRange) {
  Begin();
  EXPECT_EQ(TakeStale(1), Ranges{});
}

TEST_F(CaptureTest, AComparisonTakesNoMoreThanItMay) {
  m_capture->LoadNothing(0);
  Begin();
  EXPECT_EQ(TakeStale(1, 3 * kCaptureExtent), (Ranges{{0, 3 * kCaptureExtent}}));
  EXPECT_EQ(m_capture->StaleBytes(0), 13 * kCaptureExtent);
  EXPECT_EQ(TakeStale(2), (Ranges{{3 * kCaptureExtent, 13 * kCaptureExtent}}));
}

TEST_F(CaptureTest, AllRangesButTheLastAreOfWholeWindows) {
  Write(0);
  Write(4 * kCaptureExtent);
  Begin();
  EXPECT_EQ(TakeStale(1), (Ranges{{0, kCaptureExtent}})) << "the next dataset takes the other";
  EXPECT_EQ(TakeStale(2), (Ranges{{4 * kCaptureExtent, kCaptureExtent}}));

  m_options.volumes = {{UuidT{{1}}, 4UL * kWindowBytes}};
  m_options.extentBytes = kWindowBytes;
  Open();
  Write(0);
  Write(2UL * kWindowBytes);
  Begin();
  EXPECT_EQ(TakeStale(1, 4 * kMiB),
            (Ranges{{0, kWindowBytes}, {2UL * kWindowBytes, kWindowBytes}}));
}

TEST_F(CaptureTest, AWriteBeforeAComparisonIsFlushedWithItsOwnDataset) {
  Write(0);
  Begin();
  m_capture->BeginWrite(0, kCaptureExtent, 100);
  TakeStale(1);
  m_capture->Captured(WriteOf(kCaptureExtent, 100));
  m_capture->Flushed(1);
  EXPECT_EQ(m_capture->ColdExtents(), 0U) << "the open dataset began before the comparison's";
  Take(2);
  m_capture->Flushed(2);
  EXPECT_EQ(m_capture->ColdExtents(), 2U);
}

TEST_F(CaptureTest, AComparisonIsFlushedWithoutAnyWrites) {
  Write(0);
  Begin();
  TakeStale(3);
  m_capture->Flushed(2);
  EXPECT_EQ(m_capture->ColdExtents(), 0U);
  m_capture->Flushed(3);
  EXPECT_EQ(m_capture->ColdExtents(), 1U);
}

// --- Giving up. ---

TEST_F(CaptureTest, WhatIsNotFlushedIsStaleWhenTheBacklogIsGivenUp) {
  Begin();
  for (std::uint64_t i = 0; i < 3; ++i) {
    Write(i * kCaptureExtent);
    if (i < 2) Take(i + 1);
  }
  m_capture->Flushed(1);
  m_capture->Lose();
  EXPECT_FALSE(m_capture->IsRecording());
  EXPECT_FALSE(m_capture->HasWrites());
  EXPECT_EQ(m_capture->StaleBytes(0), 2 * kCaptureExtent);
  Begin();
  EXPECT_EQ(TakeStale(2), (Ranges{{kCaptureExtent, 2 * kCaptureExtent}}));
}

TEST_F(CaptureTest, AComparisonThatWasGivenUpIsStaleAgain) {
  Write(0);
  Begin();
  TakeStale(1);
  m_capture->Lose();
  EXPECT_EQ(m_capture->StaleBytes(0), kCaptureExtent);
}

TEST_F(CaptureTest, AWriteThatWasUnderWayWhenItWasGivenUpIsStaleAtItsEnd) {
  Begin();
  m_capture->BeginWrite(0, 0, 100);
  m_capture->Lose();
  m_capture->Captured(WriteOf(0, 100));
  EXPECT_EQ(m_capture->StaleBytes(0), kCaptureExtent);
}

TEST_F(CaptureTest, NumbersMayGoBackWhenTheBacklogIsGivenUp) {
  Begin();
  Write(0);
  Take(9);
  m_capture->Lose();
  Begin();
  TakeStale(5);
  m_capture->Flushed(5);
  EXPECT_EQ(m_capture->ColdExtents(), 1U) << "what was compared";
  Write(kCaptureExtent);
  Take(6);
  m_capture->Flushed(5);
  EXPECT_EQ(m_capture->ColdExtents(), 1U);
  m_capture->Flushed(6);
  EXPECT_EQ(m_capture->ColdExtents(), 2U);
}

}  // namespace
}  // namespace penstock
