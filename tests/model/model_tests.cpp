// SPDX-License-Identifier: Apache-2.0
// Makes the same random operations on the library and on a plain model of it, and compares results,
// calls of callbacks and states after each.
//
//   penstock_model_tests [--seed S] [--seeds N] [--steps K]
//
// runs the seeds S to S + N - 1 (default 1 and 200), K steps each (default 2000). A difference ends
// the run; the line printed with it repeats it.
#include <charconv>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include "tests/model/random_ops.h"

namespace {

struct Options {
  std::uint64_t seed = 1;
  std::uint64_t seeds = 200;
  std::uint64_t steps = 2000;
};

bool Parse(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; i += 2) {
    const std::string_view name = argv[i];
    std::uint64_t* value = nullptr;
    if (name == "--seed") value = &options.seed;
    if (name == "--seeds") value = &options.seeds;
    if (name == "--steps") value = &options.steps;
    if (value == nullptr || i + 1 == argc) return false;
    const std::string_view text = argv[i + 1];
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    if (error != std::errc{} || end != text.data() + text.size()) return false;
  }
  return true;
}

bool RunSeed(std::uint64_t seed, std::uint64_t steps) {
  model::RandomOps ops(seed);
  for (std::uint64_t step = 1; step <= steps; ++step) {
    try {
      ops.Step();
    } catch (const std::exception& difference) {
      std::cerr << "seed " << seed << ", step " << step << ", " << ops.LastName() << ": "
                << difference.what() << "\nrepeat with: penstock_model_tests --seed " << seed
                << " --seeds 1 --steps " << step << "\n";
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!Parse(argc, argv, options)) {
    std::cerr << "usage: penstock_model_tests [--seed S] [--seeds N] [--steps K]\n";
    return 2;
  }
  for (std::uint64_t i = 0; i < options.seeds; ++i) {
    if (!RunSeed(options.seed + i, options.steps)) return 1;
  }
  std::cout << options.seeds << " seeds of " << options.steps << " steps: no difference\n";
  return 0;
}
