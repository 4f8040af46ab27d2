// SPDX-License-Identifier: Apache-2.0
#include "replicator/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace penstock {

namespace {

constexpr std::uint64_t kBarMs = 200;      // between two lines on a terminal
constexpr std::uint64_t kLinesMs = 5'000;  // without one
constexpr std::uint64_t kWindowMs = 5'000;
constexpr std::size_t kBarColumns = 20;
constexpr std::size_t kDefaultWidth = 80;
constexpr std::uint64_t kLongestEta =
    std::uint64_t{99} * 86'400;  // seconds; beyond it nobody believes it

__attribute__((format(printf, 1, 2))) std::string Format(const char* format, ...) {
  std::array<char, 64> text{};
  va_list args;
  va_start(args, format);
  std::vsnprintf(text.data(), text.size(), format, args);
  va_end(args);
  return text.data();
}

double Sane(double value) { return std::isfinite(value) && value > 0 ? value : 0; }

std::string HumanRate(double bytesPerSecond) {
  constexpr double kMost = 1e18;
  return HumanBytes(static_cast<std::uint64_t>(std::min(bytesPerSecond, kMost))) + "/s";
}

std::string Eta(const ProgressFigures& figures) {
  const auto rate = Sane(figures.bytesPerSecond);
  const auto left = figures.totalBytes - std::min(figures.doneBytes, figures.totalBytes);
  if (left == 0 || rate <= 0) return {};
  const double seconds = std::ceil(static_cast<double>(left) / rate);
  if (seconds > static_cast<double>(kLongestEta)) return {};
  return "ETA " + HumanSeconds(static_cast<std::uint64_t>(seconds));
}

std::string Bar(unsigned percent) {
  const auto filled = percent * kBarColumns / 100;
  std::string bar(filled, '=');
  if (filled < kBarColumns) bar += filled > 0 ? ">" : " ";
  bar.resize(kBarColumns, ' ');
  return "[" + bar + "]";
}

void ToStandardError(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

}  // namespace

std::string HumanBytes(std::uint64_t bytes) {
  constexpr std::array<const char*, 7> kUnits{"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  // Up to what rounds to four figures: 1023.6 KiB is 1.00 MiB.
  for (; value >= 1023.5 && unit + 1 < kUnits.size(); ++unit) value /= 1024;
  const int decimals = value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
  return Format("%.*f %s", decimals, value, kUnits.at(unit));
}

std::string HumanSeconds(std::uint64_t seconds) {
  const auto part = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
  const auto minutes = seconds / 60;
  const auto hours = minutes / 60;
  if (minutes == 0) return Format("%llu s", part(seconds));
  if (hours == 0) return Format("%llu m %02llu s", part(minutes), part(seconds % 60));
  if (hours < 24) return Format("%llu h %02llu m", part(hours), part(minutes % 60));
  return Format("%llu d %02llu h", part(hours / 24), part(hours % 24));
}

unsigned Percent(std::uint64_t done, std::uint64_t total) {
  if (done >= total) return 100;
  constexpr std::uint64_t kExact = std::uint64_t{1} << 50U;
  // No product overflows, and 99 stays 99 until it is all.
  const auto percent = total < kExact ? done * 100 / total : done / (total / 100);
  return static_cast<unsigned>(std::min<std::uint64_t>(percent, 99));
}

std::string ProgressLine(const ProgressFigures& figures, std::size_t width) {
  const auto total = figures.totalBytes;
  const auto done = std::min(figures.doneBytes, total);
  const auto equal = std::min(figures.equalBytes, done);
  const auto sent = std::min(figures.sentBytes, done);
  const auto percent = Percent(done, total);
  std::vector<std::string> parts{Format("%3u %%", percent)};
  if (const auto rate = Sane(figures.bytesPerSecond); rate > 0) parts.push_back(HumanRate(rate));
  parts.push_back("equal " + HumanBytes(equal));
  parts.push_back("sent " + HumanBytes(sent));
  if (sent > 0 && figures.wireBytes > 0) {
    const auto ratio = static_cast<double>(sent) / static_cast<double>(figures.wireBytes);
    parts.push_back(Format("ratio %.1f", std::min(ratio, 99999.0)));
  }
  if (auto eta = Eta(figures); !eta.empty()) parts.push_back(std::move(eta));

  std::size_t columns = 0;
  for (const auto& part : parts) columns += part.size() + 2;
  const auto bar = Bar(percent);
  if (columns - 2 + 1 + bar.size() <= width) parts.front() += " " + bar;
  std::string line;
  for (const auto& part : parts) {
    if (line.size() + (line.empty() ? 0 : 2) + part.size() > width) break;
    line += (line.empty() ? "" : "  ") + part;
  }
  return line;
}

ProgressPrinter::Style ProgressPrinter::StyleFor(bool quiet) {
  if (quiet) return Style::kNone;
  return ::isatty(STDERR_FILENO) == 1 ? Style::kBar : Style::kLines;
}

std::size_t ProgressPrinter::TerminalWidth() {
  winsize size{};
  const bool isKnown = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
  return isKnown ? size.ws_col - 1U : kDefaultWidth;
}

ProgressPrinter::ProgressPrinter(Style style, Write write, std::size_t width)
    : m_style(style), m_write(write ? std::move(write) : Write(ToStandardError)), m_width(width) {}

double ProgressPrinter::Rate(std::uint64_t doneBytes, std::uint64_t nowMs) {
  // A copy that was begun anew, or a clock that is none, begins the window anew.
  if (!m_samples.empty() &&
      (doneBytes < m_samples.back().second || nowMs < m_samples.back().first)) {
    m_samples.clear();
  }
  if (m_samples.empty() || nowMs > m_samples.back().first) m_samples.emplace_back(nowMs, doneBytes);
  while (m_samples.size() > 2 && nowMs - m_samples[1].first >= kWindowMs) m_samples.pop_front();
  const auto& [since, before] = m_samples.front();
  if (nowMs == since) return 0;
  return static_cast<double>(doneBytes - before) * 1000 / static_cast<double>(nowMs - since);
}

void ProgressPrinter::Update(ProgressFigures figures, std::uint64_t nowMs) {
  if (m_style == Style::kNone) return;
  const auto interval = m_style == Style::kBar ? kBarMs : kLinesMs;
  if (!m_samples.empty() && nowMs >= m_printedMs && nowMs - m_printedMs < interval) return;
  figures.bytesPerSecond = Rate(figures.doneBytes, nowMs);
  m_printedMs = nowMs;
  // The first line comes when there is something to say.
  if (m_samples.size() > 1) Print(figures);
}

void ProgressPrinter::Finish(ProgressFigures figures, std::uint64_t nowMs) {
  if (m_style == Style::kNone) return;
  figures.bytesPerSecond = Rate(figures.doneBytes, nowMs);
  Print(figures);
  if (m_isShown) m_write("\n");
  m_isShown = false;
}

void ProgressPrinter::Clear() {
  if (m_isShown) m_write("\r\x1b[K");
  m_isShown = false;
}

void ProgressPrinter::Print(const ProgressFigures& figures) {
  const auto width = m_width != 0 ? m_width : m_style == Style::kBar ? TerminalWidth() : 120;
  const auto line = ProgressLine(figures, width);
  if (m_style == Style::kBar) {
    m_write("\r" + line + "\x1b[K");
    m_isShown = true;
  } else {
    m_write(line + "\n");
  }
}

}  // namespace penstock
