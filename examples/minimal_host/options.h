// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_EXAMPLES_MINIMAL_HOST_OPTIONS_H_
#define PENSTOCK_EXAMPLES_MINIMAL_HOST_OPTIONS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The command line.
struct Options {
  bool help = false;
  bool version = false;
  bool demo = false;                 // make OLD and NEW from files of this machine
  std::string oldPath;               // empty with `demo`
  std::string newPath;               // empty with `demo`
  std::string spool;                 // empty: a temporary one, removed at the end
  std::uint32_t blockBytes = 4096;   // bytes that are compared and pushed at once
  std::uint32_t datasetBlocks = 32;  // blocks that a dataset takes before the next one begins
  std::uint32_t window = 3;          // datasets that are stored before the answers are given
  std::optional<int> logLevel;       // print the library's log records from this level up
};

// Returns the options that `arguments`, the program's name left out, ask for. Throws UsageError.
Options ParseOptions(const std::vector<std::string>& arguments);

// Returns the text of --help.
std::string_view HelpText();

#endif  // PENSTOCK_EXAMPLES_MINIMAL_HOST_OPTIONS_H_
