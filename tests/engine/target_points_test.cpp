// SPDX-License-Identifier: Apache-2.0
// Goal: points with names are committed with their datasets, and the newest of them stay.
#include "tests/engine/target_rig.h"

namespace penstock {
namespace {

class TargetPoints : public TargetRig {
 protected:
  void Named(std::uint64_t n, const std::string& name, const std::vector<std::string>& of = {"a"}) {
    Start(n, of);
    for (std::size_t i = 0; i < of.size(); ++i) Block(static_cast<std::uint8_t>(i));
    End([&](DatasetEnd& end) { end.name = name; });
  }
  // "1 eve, 3 adam": of the committed state.
  std::string Points() {
    std::string text;
    for (const PointRecord& point : StateOfGroup("g").points) {
      text += (text.empty() ? "" : ", ") + Number(point.n) + " " + point.name;
    }
    return text;
  }
};

TEST_F(TargetPoints, ANameIsCommittedWithItsDataset) {
  Online();
  Named(1, "eve");
  RunBut<CommitState>();
  EXPECT_EQ(Points(), "");
  Run();
  Dataset(2);
  Named(3, "adam", {});
  Run();
  EXPECT_EQ(Points(), "1 eve, 3 adam");
  EXPECT_EQ(StateOfGroup("g").points.front().timestampMs, 1001U);
}

TEST_F(TargetPoints, OfADatasetThatWasNotWholeIsNone) {
  Online();
  Start(1);
  Block();
  EXPECT_TRUE(Contains(End([](DatasetEnd& end) {
                         end.name = "eve";
                         end.blocks = 2;
                       }),
                       "ERROR damaged"));
  Run();
  EXPECT_EQ(Points(), "");
}

TEST_F(TargetPoints, SurviveARestart) {
  Online();
  Named(1, "eve");
  Run();
  Boot();
  Run();
  Hello({"a"}, StateOfGroup("g").epoch);
  Run();
  Named(2, "adam");
  Run();
  EXPECT_EQ(Points(), "1 eve, 2 adam");
}

TEST_F(TargetPoints, TheNewestStay) {
  Online();
  for (std::uint64_t n = 1; n <= kMaxPoints + 2; ++n) {
    Named(n, "p" + Number(n), {});
    if (n % 7 == 0) Run();
  }
  Run();
  const auto& points = StateOfGroup("g").points;
  ASSERT_EQ(points.size(), kMaxPoints);
  EXPECT_EQ(points.front().name, "p3");
  EXPECT_EQ(points.back().n, kMaxPoints + 2);
}

}  // namespace
}  // namespace penstock
