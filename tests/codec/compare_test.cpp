// SPDX-License-Identifier: Apache-2.0
// Goal: the runs of a window are right at every border, and a peer's runs are believed only when
// they cover the window. Method: the other side's fingerprints are given directly, so that any
// block can be equal or different, a collision of the fast hash included.
#include "codec/compare.h"

#include <gtest/gtest.h>

#include "tests/codec/data.h"

namespace penstock {
namespace {

constexpr std::uint64_t kSeed = 77;
constexpr std::uint64_t kDataset = 12;
constexpr std::uint32_t kFirstBlock = 1000;

class Compare : public testing::Test {
 protected:
  using Run = penstock::Run;  // the base has a member of this name

  // The runs of `window` against fingerprints that are right where `pattern` has '=', as
  // "=<first>+<blocks>" and "!<first>+<blocks>".
  std::string Runs(const std::string& pattern, std::size_t lastBlock = kCompareBytes) {
    m_window = Noise((pattern.size() - 1) * kCompareBytes + lastBlock);
    std::vector<std::uint64_t> theirs = Fingerprints(m_window, kSeed);
    for (std::size_t i = 0; i < theirs.size(); ++i) theirs[i] += pattern[i] == '=' ? 0 : 1;
    return Runs(theirs);
  }
  std::string Runs(std::span<const std::uint64_t> theirs) {
    m_runs = CompareWindow(m_window, theirs, kSeed, m_hasher, kDataset, kFirstBlock);
    return Text(m_runs);
  }
  static std::string Text(std::span<const Run> runs) {
    std::string text;
    for (const Run& run : runs) {
      text += (text.empty() ? "" : " ") + std::string(run.equal ? "=" : "!") +
              std::to_string(run.firstBlock) + "+" + std::to_string(run.blocks);
    }
    return text;
  }
  std::string NonZero(const std::string& pattern, std::size_t lastBlock = kCompareBytes) {
    m_window = Zeros((pattern.size() - 1) * kCompareBytes + lastBlock);
    for (std::size_t i = 0; i < pattern.size(); ++i) {
      const std::size_t end = std::min((i + 1) * kCompareBytes, m_window.size());
      if (pattern[i] == '<') m_window[i * kCompareBytes] = 1;
      if (pattern[i] == '>') m_window[end - 1] = 1;
    }
    return Text(NonZeroRuns(m_window));
  }

  ByteString m_window;
  std::vector<Run> m_runs;
  RunHasher m_hasher{RunKey{1, 2, 3}};
};

TEST_F(Compare, FingerprintsAreHashesOf4KiBAndOfTheShortRest) {
  const ByteString window = Noise(2 * kCompareBytes + 5);
  const auto prints = Fingerprints(window, kSeed);
  ASSERT_EQ(prints.size(), 3U);
  EXPECT_EQ(prints[0], Hash64(Bytes(window).first(4096), kSeed));
  EXPECT_EQ(prints[1], Hash64(Bytes(window).subspan(4096, 4096), kSeed));
  EXPECT_EQ(prints[2], Hash64(Bytes(window).subspan(8192), kSeed));
}

TEST_F(Compare, FingerprintsDependOnTheSeed) {
  const ByteString window = Noise(kCompareBytes);
  EXPECT_NE(Fingerprints(window, 1), Fingerprints(window, 2));
}

TEST_F(Compare, AnEmptyWindowHasNeitherFingerprintsNorRuns) {
  EXPECT_TRUE(Fingerprints({}, kSeed).empty());
  EXPECT_EQ(Runs(std::vector<std::uint64_t>{}), "");
  EXPECT_TRUE(NonZeroRuns({}).empty());
}

TEST_F(Compare, OneRunWhenAllAreAlike) {
  EXPECT_EQ(Runs("="), "=0+1");
  EXPECT_EQ(Runs("!"), "!0+1");
  EXPECT_EQ(Runs(std::string(kWindowBlocks, '=')), "=0+256");
  EXPECT_EQ(Runs(std::string(kWindowBlocks, '!')), "!0+256");
}

TEST_F(Compare, ARunForEachBlockWhenTheyAlternate) {
  EXPECT_EQ(Runs("=!=!"), "=0+1 !1+1 =2+1 !3+1");
  EXPECT_EQ(Runs("!=!="), "!0+1 =1+1 !2+1 =3+1");
}

TEST_F(Compare, RunsEndWhereTheAnswerChanges) {
  EXPECT_EQ(Runs("===!!====!"), "=0+3 !3+2 =5+4 !9+1");
}

TEST_F(Compare, AShortLastBlockIsABlock) {
  EXPECT_EQ(Runs("==", 1), "=0+2");
  EXPECT_EQ(Runs("=!", 1), "=0+1 !1+1");
  EXPECT_EQ(Runs("!=", 4095), "!0+1 =1+1");
  EXPECT_EQ(RunBytes(m_window, m_runs[1]).size(), 4095U);
}

TEST_F(Compare, TheAnswerDependsOnTheSeed) {
  Runs("==");
  EXPECT_EQ(Runs(Fingerprints(m_window, kSeed + 1)), "!0+2");
}

TEST_F(Compare, ABlockWithoutAFingerprintIsDifferent) {
  Runs("===");
  std::vector<std::uint64_t> theirs = Fingerprints(m_window, kSeed);
  theirs.pop_back();
  EXPECT_EQ(Runs(theirs), "=0+2 !2+1");
  theirs.clear();
  EXPECT_EQ(Runs(theirs), "!0+3");
}

TEST_F(Compare, SurplusFingerprintsMeanNothing) {
  Runs("==");
  std::vector<std::uint64_t> theirs = Fingerprints(m_window, kSeed);
  theirs.push_back(1);
  EXPECT_EQ(Runs(theirs), "=0+2");
}

TEST_F(Compare, EqualRunsCarryTheStrongFingerprintOfTheirBytes) {
  Runs("==!!===", 100);
  ASSERT_EQ(m_runs.size(), 3U);
  const Bytes window = m_window;
  EXPECT_EQ(m_runs[0].strong.bytes,
            m_hasher.Of(kDataset, kFirstBlock, window.first(2 * kCompareBytes)).bytes);
  EXPECT_EQ(m_runs[2].strong.bytes,
            m_hasher.Of(kDataset, kFirstBlock + 4, window.subspan(4 * kCompareBytes)).bytes);
}

TEST_F(Compare, DifferentRunsCarryNone) {
  Runs("!!=!");
  EXPECT_EQ(m_runs[0].strong.bytes, BufFingerprint{}.bytes);
  EXPECT_EQ(m_runs[2].strong.bytes, BufFingerprint{}.bytes);
}

// What the fast hash alone would drop: the strong fingerprints tell the two sides apart.
TEST_F(Compare, ACollisionOfTheFastHashShowsInTheStrongFingerprint) {
  const ByteString ours = Noise(kCompareBytes, 1);
  const ByteString mine = Noise(kCompareBytes, 2);
  const auto collision = Fingerprints(ours, kSeed);
  m_window = ours;
  ASSERT_EQ(Runs(collision), "=0+1");
  EXPECT_NE(m_runs[0].strong.bytes, m_hasher.Of(kDataset, kFirstBlock, mine).bytes);
  EXPECT_EQ(m_runs[0].strong.bytes, m_hasher.Of(kDataset, kFirstBlock, ours).bytes);
}

TEST_F(Compare, RunsCoverTheirWindow) {
  for (const char* pattern : {"=", "!", "==!!=", "!=!=!=!="}) {
    Runs(pattern, 17);
    EXPECT_TRUE(RunsCover(m_runs, static_cast<std::uint32_t>(std::string(pattern).size())));
  }
}

std::vector<Run> Parts(std::initializer_list<std::pair<std::uint16_t, std::uint16_t>> parts) {
  std::vector<Run> runs;
  for (const auto& [first, blocks] : parts) runs.push_back({first, blocks, true, {}});
  return runs;
}

TEST(RunsCover, AWindowWithoutBlocksByNoRuns) {
  EXPECT_TRUE(RunsCover({}, 0));
  EXPECT_FALSE(RunsCover({}, 1));
  EXPECT_FALSE(RunsCover(Parts({{0, 1}}), 0));
}

TEST(RunsCover, ExactlyTheBlocks) {
  EXPECT_TRUE(RunsCover(Parts({{0, 3}, {3, 1}, {4, 6}}), 10));
  EXPECT_FALSE(RunsCover(Parts({{0, 3}, {3, 1}, {4, 6}}), 9));
  EXPECT_FALSE(RunsCover(Parts({{0, 3}, {3, 1}, {4, 6}}), 11));
}

TEST(RunsCover, RefusesAGap) {
  EXPECT_FALSE(RunsCover(Parts({{1, 9}}), 10));
  EXPECT_FALSE(RunsCover(Parts({{0, 3}, {4, 6}}), 10));
}

TEST(RunsCover, RefusesAnOverlap) { EXPECT_FALSE(RunsCover(Parts({{0, 5}, {4, 6}}), 10)); }

TEST(RunsCover, RefusesAnotherOrder) { EXPECT_FALSE(RunsCover(Parts({{5, 5}, {0, 5}}), 10)); }

TEST(RunsCover, RefusesAnEmptyRun) {
  EXPECT_FALSE(RunsCover(Parts({{0, 0}, {0, 10}}), 10));
  EXPECT_FALSE(RunsCover(Parts({{0, 10}, {10, 0}}), 10));
}

TEST(RunsCover, CannotBeLedToOverflow) {
  std::vector<penstock::Run> runs;
  for (int i = 0; i < 4; ++i) {
    runs.push_back({static_cast<std::uint16_t>(i * 65535), 65535, true, {}});
  }
  EXPECT_FALSE(RunsCover(runs, 4 * 65535U));
  EXPECT_FALSE(RunsCover(Parts({{0, 65535}, {65535, 65535}}), 65534));
  EXPECT_TRUE(RunsCover(Parts({{0, 65535}, {65535, 65535}}), 131070));
}

TEST(RunBytes, AreThoseOfTheWindow) {
  const ByteString window = Noise(2 * kCompareBytes + 5);
  const auto at = [&](std::uint16_t first, std::uint16_t blocks) {
    const Bytes bytes = RunBytes(window, {first, blocks, false, {}});
    return bytes.empty()
               ? std::string("none")
               : std::to_string(bytes.data() - window.data()) + "+" + std::to_string(bytes.size());
  };
  EXPECT_EQ(at(0, 1), "0+4096");
  EXPECT_EQ(at(0, 3), "0+8197");
  EXPECT_EQ(at(2, 1), "8192+5");
  EXPECT_EQ(at(1, 65535), "4096+4101");
  EXPECT_EQ(at(3, 1), "none");
  EXPECT_EQ(at(65535, 65535), "none");
}

TEST_F(Compare, NonZeroRunsLeaveOutZeroBlocks) {
  EXPECT_EQ(NonZero("."), "");
  EXPECT_EQ(NonZero("<"), "!0+1");
  EXPECT_EQ(NonZero(".<."), "!1+1");
  EXPECT_EQ(NonZero("<>..<.>>"), "!0+2 !4+1 !6+2");
}

TEST_F(Compare, NonZeroRunsSeeAShortLastBlock) {
  EXPECT_EQ(NonZero(">..", 1), "!0+1");
  EXPECT_EQ(NonZero(">.>", 1), "!0+1 !2+1");
  EXPECT_EQ(NonZero("..>", 4095), "!2+1");
}

}  // namespace
}  // namespace penstock
