// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "replicator/cmd.h"
#include "replicator/cmd_common.h"

namespace penstock {

namespace {

struct SyncFlags {
  std::string to;
  std::string group;
  std::vector<std::string> volumes;
  std::uint64_t retryFor = 60;  // seconds
  SecurityFlags security;
  CopyFlags copy;
  LogFlags log;
};

std::string Prepare(const SyncFlags& flags, SourceOptions& options) {
  if (auto fault = Apply(flags.log); !fault.empty()) return fault;
  if (auto fault = Endpoint::Parse(flags.to, options.endpoint); !fault.empty()) return fault;
  if (auto fault = CheckGroup(flags.group); !fault.empty()) return fault;
  NamedPaths paths;
  if (auto fault = ParseVolumes(flags.volumes, paths); !fault.empty()) return fault;
  if (auto fault = Apply(flags.copy, options); !fault.empty()) return fault;
  if (auto fault = Apply(flags.security, TlsSide::kClient, options.endpoint, options.connect.tls);
      !fault.empty()) {
    return fault;
  }
  options.connect.allowPlaintext = flags.security.plaintext;
  options.connect.peerName = flags.security.tlsName;
  options.config.group = flags.group;
  return OpenSources(paths, options);
}

int RunSync(const SyncFlags& flags) {
  SourceOptions options;
  if (auto fault = Prepare(flags, options); !fault.empty()) return Complain(kExitRefused, fault);
  const auto style = SetUpProgress(flags.copy.quiet);
  EventLoop loop;
  Session session(loop, std::move(options), flags.retryFor * 1000, style);
  SessionResult result;
  loop.OnSignals([&](int) { session.Interrupt(); });
  session.Start([&](const SessionResult& ended) {
    result = ended;
    loop.Stop();
  });
  loop.Run();
  return ReportResult(result, flags.copy.json);
}

}  // namespace

void AddSync(CLI::App& program, Chosen& chosen) {
  auto flags = std::make_shared<SyncFlags>();
  CLI::App* command = program.add_subcommand(
      "sync", "Brings a target's copies of volumes up to date, as one group, and ends.");
  command->add_option("--to", flags->to, "where the target listens: ADDR:PORT or unix:PATH")
      ->required();
  command->add_option("--group", flags->group, "name of the group at the target")->required();
  command
      ->add_option("VOL=PATH", flags->volumes, "volumes: name at the target, file or device here")
      ->required();
  command
      ->add_option("--retry-for", flags->retryFor,
                   "seconds to go on trying without a connection, 0: do not try again")
      ->capture_default_str()
      ->check(CLI::Range(0, 10'000'000));
  AddSecurityOptions(*command, flags->security, TlsSide::kClient);
  AddCopyOptions(*command, flags->copy, "auto");
  AddLogOptions(*command, flags->log, "warning");
  command->footer(
      "Example: penstock sync --to backup:7000 --tls-certs /etc/penstock/tls --group shop "
      "db=/dev/vg/db logs=/srv/logs.img");
  command->callback([flags, &chosen] { chosen = [flags] { return RunSync(*flags); }; });
}

}  // namespace penstock
