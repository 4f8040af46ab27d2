// SPDX-License-Identifier: Apache-2.0
// Goal: a link that takes the backlog at once is not made slower by a spool.
// Method: the spool's rig, whose half of the memory is less than three datasets, and seven eighths
// less than five.
#include "tests/engine/source_spool_rig.h"

namespace penstock {
namespace {

class SourceSpoolWait : public SourceSpool {
 protected:
  SourceSpoolWait() {
    m_config.spoolAfter = 500;
    m_config.interval = 60'000;
    Online();
  }
};

TEST_F(SourceSpoolWait, TheLinkHasSomeTimeForTheOldestDataset) {
  Fill(1);
  Wait(100);
  Fill(2);
  EXPECT_EQ(Asked(), "");
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + 400);
  Wait(399);
  EXPECT_EQ(Asked(), "");
  Wait(1);
  EXPECT_EQ(Asked(), "spool 1");
}

TEST_F(SourceSpoolWait, WhatIsTakenInTimeIsNotSpooled) {
  Fill(3);
  for (std::uint64_t n = 1; n < 9; ++n) {
    Wait(150);
    Ack(n);
    Fill(1);
    EXPECT_EQ(Asked(), "");
    EXPECT_EQ(m_engine->MemoryUsed(), 3 * kHeld);
  }
}

TEST_F(SourceSpoolWait, BelowHalfOfTheMemoryThereIsNoHurry) {
  Fill(2);
  Wait(500);
  EXPECT_EQ(Asked(), "");
  EXPECT_EQ(m_engine->m_spoolAt, std::numeric_limits<Millis>::max());
}

TEST_F(SourceSpoolWait, ALinkThatIsGoneTakesNothing) {
  Fill(3);
  ASSERT_EQ(Asked(), "");
  Away();
  EXPECT_EQ(Asked(), "spool 1");
}

TEST_F(SourceSpoolWait, MemoryThatIsNearlyFullDoesNotWait) {
  Fill(4);
  ASSERT_EQ(Asked(), "");
  Fill(1);
  EXPECT_EQ(Asked(), "spool 1");
}

TEST_F(SourceSpoolWait, ABacklogThatWasGivenUpIsNotWaitedFor) {
  Fill(3);
  ASSERT_NE(m_engine->m_spoolAt, std::numeric_limits<Millis>::max());
  m_engine->Overflow("for the test", m_now);
  EXPECT_EQ(m_engine->m_spoolAt, std::numeric_limits<Millis>::max());
}

}  // namespace
}  // namespace penstock
