// SPDX-License-Identifier: Apache-2.0
#include "replicator/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <set>
#include <thread>

#include "engine/wire/messages.h"
#include "replicator/log.h"

namespace penstock {

namespace {

constexpr unsigned kMostJobs = 64;
constexpr const char* kNameRule = " (letters, digits, '.', '_', '-', at most 64)";

std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  quoted += Escape(text, 200);
  quoted += "'";
  return quoted;
}

// Splits NAME=PATH.
std::string SplitPath(const std::string& text, const char* form, std::string& name,
                      std::string& path) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos || equals + 1 == text.size()) {
    return Quoted(text) + " is not " + form;
  }
  name = text.substr(0, equals);
  path = text.substr(equals + 1);
  return {};
}

}  // namespace

int Complain(ExitCode code, const std::string& text) {
  const std::string line = "penstock: " + text + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
  return code;
}

// --- The log. ---

void AddLogOptions(CLI::App& command, LogFlags& flags, const std::string& level) {
  flags.level = level;
  command.add_option("--log-level", flags.level, "trace, debug, info, warning or error")
      ->capture_default_str();
  command.add_option("--log-format", flags.format, "text or json")->capture_default_str();
}

std::string Apply(const LogFlags& flags) {
  LogOptions options;
  if (auto fault = ParseLogLevel(flags.level, options.level); !fault.empty()) {
    return "--log-level " + flags.level + ": " + fault;
  }
  if (auto fault = ParseLogFormat(flags.format, options.json); !fault.empty()) {
    return "--log-format " + flags.format + ": " + fault;
  }
  SetUpLog(options);
  return {};
}

// --- Security. ---

void AddSecurityOptions(CLI::App& command, SecurityFlags& flags, TlsSide side) {
  command.add_option("--tls-certs", flags.tlsCerts,
                     "directory with ca.pem, cert.pem and key.pem: TLS with certificates");
  command.add_option("--tls-psk", flags.tlsPsk,
                     "file with a pre-shared key (penstock keygen): TLS without certificates");
  command.add_flag("--plaintext", flags.plaintext,
                   "no TLS: loopback addresses and UNIX sockets only");
  if (side == TlsSide::kClient) {
    command.add_option("--tls-name", flags.tlsName,
                       "name in the target's certificate (default: the host of ADDR)");
  }
}

std::string Apply(const SecurityFlags& flags, TlsSide side, const Endpoint& endpoint,
                  std::shared_ptr<TlsContext>& out) {
  const int given =
      (flags.tlsCerts.empty() ? 0 : 1) + (flags.tlsPsk.empty() ? 0 : 1) + (flags.plaintext ? 1 : 0);
  if (given > 1) return "give one of --tls-certs, --tls-psk and --plaintext, not several";
  if (given == 0) {
    return std::string(side == TlsSide::kServer ? "nothing would prove who connects"
                                                : "nothing would prove who we are") +
           "; give --tls-certs DIR or --tls-psk FILE (penstock keygen makes one), or, on a "
           "loopback address or a UNIX socket, --plaintext";
  }
  if (!flags.tlsCerts.empty()) return TlsContext::FromCertificates(flags.tlsCerts, side, out);
  if (!flags.tlsPsk.empty()) return TlsContext::FromPskFile(flags.tlsPsk, side, out);
  // What a name stands for is looked at when it is known.
  const bool isName = endpoint.host.find_first_not_of("0123456789.:%") != std::string::npos &&
                      endpoint.host.find(':') == std::string::npos;
  if (endpoint.IsLocal() || isName) return {};
  return "--plaintext is for loopback addresses and UNIX sockets only, and " + endpoint.Text() +
         " is neither; give --tls-certs DIR or --tls-psk FILE";
}

// --- Copying. ---

void AddCopyOptions(CLI::App& command, CopyFlags& flags, const std::string& compress) {
  flags.compress = compress;
  command.add_option("--compress", flags.compress, "none, lz4, zstd[:LEVEL] or auto")
      ->capture_default_str();
  command.add_option("--limit-rate", flags.limitRate, "bytes a second at most: 500K, 10M, 1.5G");
  command.add_option("--jobs", flags.jobs, "worker threads (default: one a processor)");
  command.add_flag("--quiet", flags.quiet, "no progress");
  command.add_flag("--json", flags.json, "the result as JSON");
}

std::string ParseCompress(const std::string& text, CompressSpec& out) {
  const auto spec = CompressSpec::Parse(text);
  if (!spec)
    return "--compress " + Quoted(text) + ": use none, lz4, zstd, zstd:LEVEL (1 to 19) or auto";
  out = *spec;
  return {};
}

unsigned JobsOf(unsigned jobs) {
  if (jobs == 0) jobs = std::max(std::thread::hardware_concurrency(), 2U);
  return std::min(jobs, kMostJobs);
}

// --- Values. ---

std::string ParseBytes(const std::string& text, std::uint64_t& out) {
  std::string fault = Quoted(text) + " is no number of bytes (as 500K, 10M or 1.5G; units of 1024)";
  std::size_t used = 0;
  double value = 0;
  try {
    value = std::stod(text, &used);
  } catch (const std::exception&) {
    return fault;
  }
  std::string unit = text.substr(used);
  for (const char* tail : {"/s", "B", "i"}) {
    if (unit.ends_with(tail)) unit.resize(unit.size() - std::string(tail).size());
  }
  const std::string units = "KMGT";
  if (unit.size() > 1) return fault;
  if (!unit.empty()) {
    const auto place = units.find(static_cast<char>(unit[0] & ~0x20));
    if (place == std::string::npos) return fault;
    value = std::ldexp(value, 10 * (static_cast<int>(place) + 1));
  }
  constexpr double kMost = 9e18;
  if (!std::isfinite(value) || value < 1 || value > kMost) return fault;
  out = static_cast<std::uint64_t>(value);
  return {};
}

std::string CheckGroup(const std::string& group) {
  return IsValidName(group) ? "" : Quoted(group) + " is no name of a group" + kNameRule;
}

std::string ParseVolumes(const std::vector<std::string>& texts, NamedPaths& out) {
  std::set<std::string> names;
  for (const std::string& text : texts) {
    std::string name;
    std::string path;
    if (auto fault = SplitPath(text, "VOL=PATH", name, path); !fault.empty()) return fault;
    if (!IsValidName(name)) return Quoted(name) + " is no name of a volume" + kNameRule;
    if (!names.insert(name).second) return "volume " + name + " is named twice";
    out.emplace_back(name, path);
  }
  if (out.size() <= kMaxVolumes) return {};
  return "a group has " + std::to_string(kMaxVolumes) + " volumes at most";
}

std::string ParseMappings(const std::vector<std::string>& texts,
                          std::map<std::string, std::string>& out) {
  std::set<std::string> paths;
  for (const std::string& text : texts) {
    std::string name;
    std::string path;
    if (auto fault = SplitPath(text, "GROUP/VOL=PATH", name, path); !fault.empty()) return fault;
    const std::size_t slash = name.find('/');
    if (slash == std::string::npos || !IsValidName(name.substr(0, slash)) ||
        !IsValidName(name.substr(slash + 1))) {
      return Quoted(name) + " is not GROUP/VOL" + kNameRule;
    }
    if (!out.emplace(name, path).second) return name + " is mapped twice";
    if (!paths.insert(path).second) return path + " is mapped to two volumes";
  }
  return {};
}

}  // namespace penstock
