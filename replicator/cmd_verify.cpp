// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "replicator/cmd.h"
#include "replicator/cmd_common.h"
#include "replicator/compare_local.h"
#include "replicator/log.h"
#include "replicator/runner_verify.h"

namespace penstock {

namespace {

struct VerifyFlags {
  std::vector<std::string> local;
  std::string to;
  std::string group;
  std::vector<std::string> volumes;
  unsigned jobs = 0;
  bool quiet = false;
  bool json = false;
  SecurityFlags security;
  LogFlags log;
};

int Tell(const Comparison& found, bool json) {
  const bool isEqual = found.differingBytes == 0;
  nlohmann::ordered_json ranges = nlohmann::ordered_json::array();
  std::string text;
  for (const DifferingRange& range : found.differing) {
    const std::string name = range.volume.empty() ? "-" : range.volume;
    if (json) {
      ranges.push_back({{"volume", name}, {"offset", range.offset}, {"length", range.length}});
    } else {
      text += name + " " + std::to_string(range.offset) + " " + std::to_string(range.length) + "\n";
    }
  }
  if (json) {
    const nlohmann::ordered_json object{{"result", isEqual ? "equal" : "different"},
                                        {"bytes", found.bytes},
                                        {"differingBytes", found.differingBytes},
                                        {"rangesCut", found.isCut},
                                        {"differing", std::move(ranges)}};
    text = object.dump() + "\n";
  } else if (isEqual) {
    text = "equal: " + HumanBytes(found.bytes) + " compared\n";
  }
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
  if (isEqual) return kExitDone;
  return Complain(kExitDifferent, HumanBytes(found.differingBytes) + " differ, in " +
                                      std::to_string(found.differing.size()) + " ranges" +
                                      (found.isCut ? " and more" : ""));
}

int RunLocal(const VerifyFlags& flags) {
  Comparison found;
  const auto fault = CompareLocal(flags.local[0], flags.local[1], JobsOf(flags.jobs), found);
  return fault.empty() ? Tell(found, flags.json) : Complain(kExitRefused, fault);
}

std::string Prepare(const VerifyFlags& flags, SourceOptions& options) {
  if (flags.to.empty() || flags.group.empty() || flags.volumes.empty()) {
    return "give --to ADDR:PORT, --group GROUP and VOL=PATH, or --local SRC DST; see penstock "
           "verify --help";
  }
  if (auto fault = Endpoint::Parse(flags.to, options.endpoint); !fault.empty()) return fault;
  if (auto fault = CheckGroup(flags.group); !fault.empty()) return fault;
  NamedPaths paths;
  if (auto fault = ParseVolumes(flags.volumes, paths); !fault.empty()) return fault;
  if (auto fault = Apply(flags.security, TlsSide::kClient, options.endpoint, options.connect.tls);
      !fault.empty()) {
    return fault;
  }
  options.connect.allowPlaintext = flags.security.plaintext;
  options.connect.peerName = flags.security.tlsName;
  options.config.group = flags.group;
  options.jobs = JobsOf(flags.jobs);
  return OpenSources(paths, options);
}

int RunVerify(const VerifyFlags& flags) {
  if (auto fault = Apply(flags.log); !fault.empty()) return Complain(kExitRefused, fault);
  if (!flags.local.empty()) return RunLocal(flags);
  SourceOptions options;
  if (auto fault = Prepare(flags, options); !fault.empty()) return Complain(kExitRefused, fault);
  const auto style = SetUpProgress(flags.quiet);
  EventLoop loop;
  VerifyRunner verify(loop, std::move(options), style);
  std::string fault;
  Comparison found;
  loop.OnSignals([&](int) {
    fault = "interrupted";
    loop.Stop();
  });
  verify.Start([&](const std::string& why, Comparison comparison) {
    fault = why;
    found = std::move(comparison);
    loop.Stop();
  });
  loop.Run();
  return fault.empty() ? Tell(found, flags.json) : Complain(kExitRefused, fault);
}

}  // namespace

void AddVerify(CLI::App& program, Chosen& chosen) {
  auto flags = std::make_shared<VerifyFlags>();
  CLI::App* command = program.add_subcommand(
      "verify", "Compares volumes with a target's copies, or two files, and changes nothing.");
  command->add_option("--local", flags->local, "SRC DST: two files or devices of this machine")
      ->expected(2);
  command->add_option("--to", flags->to, "where the target listens: ADDR:PORT or unix:PATH");
  command->add_option("--group", flags->group, "name of the group at the target");
  command->add_option("VOL=PATH", flags->volumes,
                      "volumes: name at the target, file or device here");
  command->add_option("--jobs", flags->jobs, "worker threads (default: one a processor)");
  command->add_flag("--quiet", flags->quiet, "no progress");
  command->add_flag("--json", flags->json, "the result as JSON");
  AddSecurityOptions(*command, flags->security, TlsSide::kClient);
  AddLogOptions(*command, flags->log, "warning");
  command->footer(
      "Prints VOLUME OFFSET LENGTH for each range that differs.\n"
      "Exit codes: 0 equal, 1 different, 2 trouble.\n"
      "Example: penstock verify --to backup:7000 --tls-certs /etc/penstock/tls "
      "--group shop db=/dev/vg/db");
  command->callback([flags, &chosen] { chosen = [flags] { return RunVerify(*flags); }; });
}

}  // namespace penstock
