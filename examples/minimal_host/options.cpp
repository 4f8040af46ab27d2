// SPDX-License-Identifier: Apache-2.0
#include "minimal_host/options.h"

#include <charconv>
#include <cstddef>
#include <system_error>

#include "minimal_host/failure.h"
#include "penstock/host/logger.h"

namespace {

constexpr std::uint64_t kMaxDatasetBytes = std::uint64_t{64} << 20U;

// The arguments, one by one. An option's value is the next argument or what follows its "=".
class Arguments {
 public:
  explicit Arguments(const std::vector<std::string>& args) : m_args(args) {}

  bool AtEnd() const { return m_next == m_args.size(); }

  // Moves to the next argument and, where it may be an option, splits "--name=value".
  std::string Take(bool mayBeOption) {
    std::string arg = m_args[m_next++];
    m_attached.reset();
    const std::size_t equals = arg.find('=');
    if (mayBeOption && arg.starts_with("--") && equals != std::string::npos) {
      m_attached = arg.substr(equals + 1);
      arg.resize(equals);
    }
    return arg;
  }

  std::string Value(const std::string& option) {
    if (m_attached) return *m_attached;
    if (AtEnd()) throw UsageError(option + " needs a value: " + option + " VALUE");
    return m_args[m_next++];
  }

  void NoValue(const std::string& option) const {
    if (m_attached) throw UsageError(option + " takes no value: leave out '=" + *m_attached + "'");
  }

 private:
  const std::vector<std::string>& m_args;
  std::size_t m_next = 0;
  std::optional<std::string> m_attached;
};

std::uint32_t ParseNumber(const std::string& option, const std::string& text, std::uint32_t min,
                          std::uint32_t max) {
  std::uint32_t value = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc{} || rest != end || value < min || value > max) {
    throw UsageError(option + " '" + text + "': give a whole number from " + std::to_string(min) +
                     " to " + std::to_string(max));
  }
  return value;
}

int ParseLevel(const std::string& text) {
  if (text == "debug") return LOG_DEBUG;
  if (text == "info") return LOG_INFO;
  if (text == "notice") return LOG_NOTICE;
  if (text == "error") return LOG_ERROR;
  throw UsageError("--log '" + text + "': give debug, info, notice or error");
}

void ParseOption(const std::string& arg, Arguments& args, Options& options) {
  if (arg == "--spool") {
    options.spool = args.Value(arg);
    if (options.spool.empty()) throw UsageError("--spool '': name a directory");
  } else if (arg == "--block") {
    options.blockBytes = ParseNumber(arg, args.Value(arg), 512, 1U << 20U);
    if (options.blockBytes % 512 != 0) {
      throw UsageError("--block '" + std::to_string(options.blockBytes) +
                       "': give a multiple of 512");
    }
  } else if (arg == "--dataset") {
    options.datasetBlocks = ParseNumber(arg, args.Value(arg), 1, 4096);
  } else if (arg == "--window") {
    options.window = ParseNumber(arg, args.Value(arg), 1, 1024);
  } else if (arg == "--log") {
    options.logLevel = ParseLevel(args.Value(arg));
  } else {
    args.NoValue(arg);
    if (arg == "--help" || arg == "-h") {
      options.help = true;
    } else if (arg == "--version") {
      options.version = true;
    } else if (arg == "--demo") {
      options.demo = true;
    } else {
      throw UsageError("unknown option '" + arg + "': see minimal_host --help");
    }
  }
}

void CheckTogether(const Options& options, std::size_t files) {
  if (options.help || options.version) return;
  if (options.demo && files != 0) {
    throw UsageError("--demo makes its own two files: leave out OLD and NEW");
  }
  if (!options.demo && files != 2) {
    throw UsageError(std::to_string(files) +
                     " files named: name two, OLD and NEW, or say --demo (see --help)");
  }
  if (std::uint64_t{options.blockBytes} * options.datasetBlocks > kMaxDatasetBytes) {
    throw UsageError("--block times --dataset is more than 67108864 bytes: lower one of them");
  }
}

}  // namespace

Options ParseOptions(const std::vector<std::string>& arguments) {
  Options options;
  std::vector<std::string> files;
  Arguments args(arguments);
  bool onlyFiles = false;
  while (!args.AtEnd()) {
    const std::string arg = args.Take(!onlyFiles);
    if (onlyFiles || arg.size() < 2 || arg[0] != '-') {
      files.push_back(arg);
    } else if (arg == "--") {
      onlyFiles = true;
    } else {
      ParseOption(arg, args, options);
    }
  }
  CheckTogether(options, files.size());
  if (files.size() == 2) {
    options.oldPath = files[0];
    options.newPath = files[1];
  }
  return options;
}
