// SPDX-License-Identifier: Apache-2.0
// Goal: lines that are right, fit, and stay sane for whatever figures; printed neither too often
// nor never. Method: texts; time is a value.
#include "replicator/progress.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace penstock {
namespace {

constexpr std::uint64_t kMiB = 1U << 20U;
constexpr std::uint64_t kMost = ~std::uint64_t{0};

TEST(HumanBytes, HasThreeOrFourFigures) {
  EXPECT_EQ(HumanBytes(0), "0 B");
  EXPECT_EQ(HumanBytes(1023), "1023 B");
  EXPECT_EQ(HumanBytes(1024), "1.00 KiB");
  EXPECT_EQ(HumanBytes(10'235), "10.0 KiB");
  EXPECT_EQ(HumanBytes(1023 * kMiB), "1023 MiB");
  EXPECT_EQ(HumanBytes(1024 * kMiB - 1), "1.00 GiB");
  EXPECT_EQ(HumanBytes(12'345'678'901), "11.5 GiB");
  EXPECT_EQ(HumanBytes(kMost), "16.0 EiB");
}

TEST(HumanSeconds, HasTwoUnits) {
  EXPECT_EQ(HumanSeconds(0), "0 s");
  EXPECT_EQ(HumanSeconds(59), "59 s");
  EXPECT_EQ(HumanSeconds(67), "1 m 07 s");
  EXPECT_EQ(HumanSeconds(7'500), "2 h 05 m");
  EXPECT_EQ(HumanSeconds(273'600), "3 d 04 h");
}

TEST(PercentOf, IsHundredWhenAllIsDoneOnly) {
  EXPECT_EQ(Percent(0, 0), 100U);
  EXPECT_EQ(Percent(0, 1), 0U);
  EXPECT_EQ(Percent(999, 1000), 99U);
  EXPECT_EQ(Percent(1000, 1000), 100U);
  EXPECT_EQ(Percent(2000, 1000), 100U);
  EXPECT_EQ(Percent(kMost - 1, kMost), 99U);
  EXPECT_EQ(Percent(kMost / 2, kMost), 50U);
  EXPECT_EQ(Percent(0, kMost), 0U);
}

TEST(ProgressText, HasEverything) {
  const ProgressFigures figures{.totalBytes = 1000 * kMiB,
                                .doneBytes = 370 * kMiB,
                                .equalBytes = 60 * kMiB,
                                .sentBytes = 310 * kMiB,
                                .wireBytes = 148 * kMiB,
                                .bytesPerSecond = 70.0 * kMiB};
  EXPECT_EQ(ProgressLine(figures, 120),
            " 37 % [=======>            ]  70.0 MiB/s  equal 60.0 MiB  sent 310 MiB  ratio 2.1  "
            "ETA 9 s");
}

TEST(ProgressText, LeavesOutWhatDoesNotFit) {
  const ProgressFigures figures{.totalBytes = 1000, .doneBytes = 500, .bytesPerSecond = 10};
  EXPECT_EQ(ProgressLine(figures, 200),
            " 50 % [==========>         ]  10 B/s  equal 0 B  sent 0 B  ETA 50 s");
  EXPECT_EQ(ProgressLine(figures, 50), " 50 %  10 B/s  equal 0 B  sent 0 B  ETA 50 s");
  EXPECT_EQ(ProgressLine(figures, 20), " 50 %  10 B/s");
  EXPECT_EQ(ProgressLine(figures, 5), " 50 %");
  EXPECT_EQ(ProgressLine(figures, 0), "");
}

TEST(ProgressText, SaysNothingOfWhatIsNotKnown) {
  EXPECT_EQ(ProgressLine({.totalBytes = 10, .doneBytes = 0}, 40), "  0 %  equal 0 B  sent 0 B");
  EXPECT_EQ(ProgressLine({.totalBytes = 10, .doneBytes = 10, .bytesPerSecond = 5}, 40),
            "100 %  5 B/s  equal 0 B  sent 0 B");
}

TEST(ProgressText, StaysSaneForAnyFigures) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  const std::vector<double> rates{
      0.0, -1.0, 1e-300, 1e300, std::nan(""), 7.5, std::numeric_limits<double>::infinity()};
  for (int i = 0; i < 20'000; ++i) {
    const auto value = [&] { return random() >> (random() % 64U); };
    const ProgressFigures figures{value(), value(), value(),
                                  value(), value(), rates[random() % rates.size()]};
    const auto width = static_cast<std::size_t>(random() % 140U);
    const auto line = ProgressLine(figures, width);
    ASSERT_LE(line.size(), width);
    ASSERT_EQ(line.find('-'), std::string::npos) << line;
    ASSERT_EQ(line.find("nan"), std::string::npos) << line;
    ASSERT_EQ(line.find("inf"), std::string::npos) << line;
    if (width >= 5) {
      ASSERT_LE(std::stoul(line), 100U) << line;
    }
  }
}

class Printer : public testing::Test {
 protected:
  ProgressPrinter Make(ProgressPrinter::Style style) {
    return ProgressPrinter(
        style, [this](std::string_view text) { m_out += text; }, 40);
  }
  static ProgressFigures Done(std::uint64_t done) { return {.totalBytes = 100, .doneBytes = done}; }
  std::size_t Lines() const {
    return static_cast<std::size_t>(std::count(m_out.begin(), m_out.end(), '\n'));
  }

  std::string m_out;
};

TEST_F(Printer, WritesALineEveryFewSecondsWithoutATerminal) {
  auto printer = Make(ProgressPrinter::Style::kLines);
  for (std::uint64_t ms = 0; ms <= 20'000; ms += 100) printer.Update(Done(ms / 1000), ms);
  EXPECT_EQ(Lines(), 4U);
  EXPECT_EQ(m_out.find('\r'), std::string::npos);
  printer.Finish(Done(100), 20'001);
  EXPECT_EQ(Lines(), 5U);
}

TEST_F(Printer, WritesOverItsOwnLineOnATerminal) {
  auto printer = Make(ProgressPrinter::Style::kBar);
  for (std::uint64_t ms = 0; ms <= 1'000; ms += 10) printer.Update(Done(ms / 100), ms);
  EXPECT_EQ(std::count(m_out.begin(), m_out.end(), '\r'), 5);
  EXPECT_EQ(Lines(), 0U);
  printer.Finish(Done(100), 1'100);
  EXPECT_EQ(Lines(), 1U);
}

TEST_F(Printer, ClearTakesTheBarAwayOnce) {
  auto printer = Make(ProgressPrinter::Style::kBar);
  printer.Clear();
  EXPECT_EQ(m_out, "");
  printer.Update(Done(1), 0);
  printer.Update(Done(2), 1'000);
  m_out.clear();
  printer.Clear();
  printer.Clear();
  EXPECT_EQ(m_out, "\r\x1b[K");
}

TEST_F(Printer, IsQuietWhenAsked) {
  auto printer = Make(ProgressPrinter::Style::kNone);
  printer.Update(Done(1), 0);
  printer.Update(Done(2), 100'000);
  printer.Finish(Done(100), 100'001);
  EXPECT_EQ(m_out, "");
  EXPECT_EQ(ProgressPrinter::StyleFor(true), ProgressPrinter::Style::kNone);
}

TEST_F(Printer, TheRateIsOfTheLastSeconds) {
  auto printer = Make(ProgressPrinter::Style::kLines);
  printer.Update({.totalBytes = 1000 * kMiB, .doneBytes = 0}, 0);
  printer.Update({.totalBytes = 1000 * kMiB, .doneBytes = 10 * kMiB}, 5'000);
  m_out.clear();
  printer.Update({.totalBytes = 1000 * kMiB, .doneBytes = 510 * kMiB}, 10'000);
  EXPECT_NE(m_out.find("100 MiB/s"), std::string::npos) << m_out;
}

TEST_F(Printer, FiguresThatFallAreHarmless) {
  auto printer = Make(ProgressPrinter::Style::kLines);
  printer.Update(Done(50), 10'000);
  printer.Update(Done(20), 20'000);
  printer.Update(Done(30), 5'000);
  printer.Finish(Done(10), 1);
  EXPECT_EQ(m_out.find('-'), std::string::npos) << m_out;
}

}  // namespace
}  // namespace penstock
