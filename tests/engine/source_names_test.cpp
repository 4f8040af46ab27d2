// SPDX-License-Identifier: Apache-2.0
// Goal: a point's name reaches the target with the dataset that it was given to, and with no other
// one, also through the spool and another process.
#include "tests/engine/source_spool_rig.h"

namespace penstock {
namespace {

class SourceNames : public SourceSpool {
 protected:
  std::uint64_t Point(const std::string& name) {
    const std::uint64_t n = m_engine->CloseDataset(m_now, false, name);
    m_sent = Work();
    return n;
  }
  // What the host was asked to remember last: "1 eve, 2 adam"; "-": nothing since.
  std::string Remembered() {
    std::string text = "-";
    const auto isOne = [](const auto& job) { return std::holds_alternative<KeepNames>(job); };
    while (std::ranges::any_of(m_jobs, isOne)) {
      text.clear();
      for (const PointRecord& name : TakeJob<KeepNames>().names) {
        text += (text.empty() ? "" : ", ") + Number(name.n) + " " + name.name;
      }
    }
    return text;
  }
  static SpooledDataset Found(std::uint64_t n, std::uint64_t timestampMs) {
    SpooledDataset found;
    found.start.n = n;
    found.start.timestampMs = timestampMs;
    found.start.group = GroupId("g");
    found.start.volumes = {VolumeId("g", "a")};
    found.bytes = kFile;
    return found;
  }
};

TEST_F(SourceNames, ANameGoesWithItsEndAndMakesThePointConsistent) {
  Online();
  Guest(0);
  EXPECT_EQ(Point("before the upgrade"), 1U);
  EXPECT_TRUE(Contains(m_sent, "END 1 before the upgrade"));
  EXPECT_EQ(m_starts.at(1).flags & kStartConsistent, kStartConsistent);
  Guest(0);
  Point("");
  EXPECT_TRUE(m_sent.ends_with("END 2")) << m_sent;
}

TEST_F(SourceNames, OfAPointWithoutWritesIsSentToo) {
  Online();
  Point("quiet");
  EXPECT_EQ(m_sent, "START 1, END 1 quiet");
}

TEST_F(SourceNames, IsSentAgainAfterACutAndRememberedUntilTheTargetHasIt) {
  Online();
  Guest(0);
  Point("eve");
  EXPECT_EQ(Remembered(), "1 eve");
  Reconnect();
  EXPECT_TRUE(Contains(Welcome(), "END 1 eve"));
  Ack(1);
  Guest(0);
  Point("adam");
  EXPECT_EQ(Remembered(), "2 adam") << "the target has the other one";
}

TEST_F(SourceNames, WithoutASpoolNothingIsRemembered) {
  m_config.spoolBytes = 0;
  Open();
  Online();
  Point("eve");
  EXPECT_EQ(Remembered(), "-");
}

TEST_F(SourceNames, GoesThroughTheSpoolOfAnotherProcess) {
  m_config.spooled = {Found(1, 70), Found(2, 71)};
  m_config.names = {{2, 71, "eve"}};
  Open();
  Online();
  EXPECT_EQ(Remembered(), "-");
  EXPECT_EQ(Loaded(), "START 1, END 1");
  EXPECT_EQ(Loaded(), "START 2, END 2 eve");
}

// Its dataset was in memory when the process died: the number is used again.
TEST_F(SourceNames, OfADatasetThatWasLostIsForgottenDurably) {
  m_config.spooled = {Found(1, 70)};
  m_config.names = {{1, 70, "kept"}, {2, 71, "lost"}};
  Open();
  Online();
  EXPECT_EQ(Remembered(), "1 kept");
  EXPECT_EQ(Loaded(), "START 1, END 1 kept");
  Guest(0);
  Point("");
  EXPECT_TRUE(m_sent.ends_with("END 2")) << m_sent;
}

TEST_F(SourceNames, OfAnotherDatasetOfTheSameNumberIsNotTaken) {
  m_config.spooled = {Found(1, 70)};
  m_config.names = {{1, 69, "older"}};
  Open();
  Online();
  EXPECT_EQ(Remembered(), "");
  EXPECT_EQ(Loaded(), "START 1, END 1");
}

// While the link is down for long: what is remembered does not grow without end.
TEST_F(SourceNames, TheNewestAreKept) {
  m_config.liveMemory = kMiB;
  Open();
  Online();
  Away();
  for (std::uint64_t n = 1; n <= kMaxPoints + 2; ++n) {
    ASSERT_EQ(m_engine->CloseDataset(m_now, false, "p" + Number(n)), n);
  }
  EXPECT_EQ(m_engine->m_names.size(), kMaxPoints);
  EXPECT_EQ(m_engine->m_names.begin()->second.name, "p3");
  m_sent = Work();
  EXPECT_TRUE(Remembered().starts_with("3 p3, 4 p4"));
}

TEST_F(SourceNames, IsGivenUpWithTheBacklog) {
  AloneWith(3);
  Point("eve");
  ASSERT_EQ(m_engine->m_names.size(), 1U);
  Stored(IoStatus::kFailed);
  ASSERT_EQ(Status().overflows, 1U);
  EXPECT_TRUE(m_engine->m_names.empty());
}

}  // namespace
}  // namespace penstock
