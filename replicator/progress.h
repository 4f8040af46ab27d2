// SPDX-License-Identifier: Apache-2.0
// How far a copy is, for people.
#ifndef PENSTOCK_REPLICATOR_PROGRESS_H_
#define PENSTOCK_REPLICATOR_PROGRESS_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace penstock {

// Whatever is in here, the line that is made of it is sane: nothing is negative or beyond its
// total.
struct ProgressFigures {
  std::uint64_t totalBytes = 0;  // of the volumes
  std::uint64_t doneBytes = 0;   // of them, compared or known
  std::uint64_t equalBytes = 0;  // of those done, that were the same
  std::uint64_t sentBytes = 0;   // of those done, that had to be sent
  std::uint64_t wireBytes = 0;   // that those became on the wire
  double bytesPerSecond = 0;     // of doneBytes, over the last seconds; 0 or less: not known
};

// "12.3 GiB", in four figures at most.
std::string HumanBytes(std::uint64_t bytes);
// "9 s", "3 m 07 s", "2 h 05 m", "3 d 04 h".
std::string HumanSeconds(std::uint64_t seconds);
// 0 to 99 while something is left; 100 when all is done, or there is nothing to do.
unsigned Percent(std::uint64_t done, std::uint64_t total);

// One line, no longer than `width` columns: what does not fit is left out from the end, and with
// room to spare a bar stands in it.
//
//   37 % [=======>            ]  812 MiB/s  equal 1.20 GiB  sent 310 MiB  ratio 2.1  ETA 9 s
std::string ProgressLine(const ProgressFigures& figures, std::size_t width);

// Prints lines: over each other on a terminal, some seconds apart without one.
//
// Threads: one at a time.
class ProgressPrinter {
 public:
  enum class Style {
    kBar,    // a terminal
    kLines,  // a file or a pipe
    kNone,   // --quiet
  };
  using Write = std::function<void(std::string_view)>;

  // Of standard error: kNone if quiet, kBar if it is a terminal.
  static Style StyleFor(bool quiet);
  static std::size_t TerminalWidth();  // 80 where it isn't known

  // `write` empty: to standard error.
  explicit ProgressPrinter(Style style, Write write = {}, std::size_t width = 0);

  // Call as often as you like: prints when it is time. The rate is computed here, of the figures of
  // the last seconds. `nowMs` never falls.
  void Update(ProgressFigures figures, std::uint64_t nowMs);
  // Prints the last figures, and ends a bar's line.
  void Finish(ProgressFigures figures, std::uint64_t nowMs);
  // Takes a bar away for a moment, before something else is written to the terminal.
  void Clear();

 private:
  double Rate(std::uint64_t doneBytes, std::uint64_t nowMs);
  void Print(const ProgressFigures& figures);

  Style m_style;
  Write m_write;
  std::size_t m_width;
  bool m_isShown = false;  // a bar stands in the line
  std::uint64_t m_printedMs = 0;
  std::deque<std::pair<std::uint64_t, std::uint64_t>> m_samples;  // time, done bytes
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_PROGRESS_H_
