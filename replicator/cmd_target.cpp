// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "replicator/block_memory.h"
#include "replicator/cmd.h"
#include "replicator/files.h"
#include "replicator/log.h"
#include "replicator/metrics_server.h"
#include "replicator/options.h"
#include "replicator/runner_target.h"
#include "replicator/target_metrics.h"

namespace penstock {

namespace {

struct TargetFlags {
  std::string listen;
  std::string state;
  std::string volumesDirectory;
  std::vector<std::string> mappings;
  std::string grants;
  std::string journalQuota = "16G";
  std::string metrics;
  unsigned jobs = 0;
  SecurityFlags security;
  LogFlags log;
};

struct Prepared {
  Endpoint endpoint;
  ListenOptions listen;
  TargetOptions target;
  Endpoint metrics;
};

std::string Prepare(const TargetFlags& flags, Prepared& out) {
  if (auto fault = Apply(flags.log); !fault.empty()) return fault;
  if (auto fault = Endpoint::Parse(flags.listen, out.endpoint); !fault.empty()) return fault;
  if (auto fault = Apply(flags.security, TlsSide::kServer, out.endpoint, out.listen.tls);
      !fault.empty()) {
    return fault;
  }
  out.listen.allowPlaintext = flags.security.plaintext;
  if (auto fault = ParseMappings(flags.mappings, out.target.mapped); !fault.empty()) return fault;
  if (flags.volumesDirectory.empty() && out.target.mapped.empty()) {
    return "there is no place for volumes; give --volumes DIR, or --volume GROUP/VOL=PATH";
  }
  if (!flags.grants.empty()) {
    if (auto fault = Grants::ReadFile(flags.grants, out.target.grants); !fault.empty())
      return fault;
  }
  auto fault = ParseBytes(flags.journalQuota, out.target.journalQuota);
  if (!fault.empty()) return "--journal-quota: " + fault;
  if (!flags.metrics.empty()) {
    fault = ParseMetricsEndpoint(flags.metrics, out.metrics);
    if (!fault.empty()) return "--" + fault;
  }
  if (!flags.volumesDirectory.empty()) {
    fault = MakePrivateDirectory(flags.volumesDirectory);
    if (!fault.empty()) return fault;
  }
  out.target.stateDirectory = flags.state;
  out.target.volumesDirectory = flags.volumesDirectory;
  out.target.jobs = JobsOf(flags.jobs);
  return {};
}

// Serves what the target says of itself, and says where.
std::string ServeMetrics(EventLoop& loop, const TargetRunner& target, const Endpoint& endpoint,
                         std::unique_ptr<MetricsServer>& out) {
  const auto text = [&target] { return TargetMetrics(target.Figures(), EventLoop::WallMs()); };
  auto fault = MetricsServer::Open(loop, endpoint, text, out);
  if (!fault.empty()) return fault;
  std::printf("metrics on %s\n", out->Local().Text().c_str());
  std::fflush(stdout);
  return {};
}

int RunTarget(const TargetFlags& flags) {
  SetPrivateUmask();
  Prepared prepared;
  if (auto fault = Prepare(flags, prepared); !fault.empty()) return Complain(kExitRefused, fault);
  if (flags.security.plaintext) {
    Log(Severity::kWarning, "plaintext: whoever reaches the socket on this machine may replicate");
  }
  EventLoop loop;
  TargetRunner target(loop, prepared.target);
  if (auto fault = target.Open(); !fault.empty()) return Complain(kExitRefused, fault);
  std::unique_ptr<MetricsServer> metrics;
  if (!flags.metrics.empty()) {
    auto fault = ServeMetrics(loop, target, prepared.metrics, metrics);
    if (!fault.empty()) return Complain(kExitRefused, fault);
  }
  int code = kExitDone;
  const auto end = [&](ExitCode with, const std::string& why) {
    code = Complain(with, why);
    loop.Stop();
  };
  TargetRunner::Callbacks callbacks;
  callbacks.onRecovered = [&] {
    Endpoint local;
    auto fault = target.Listen(prepared.endpoint, prepared.listen, local);
    if (!fault.empty()) return end(kExitFailed, fault);
    std::printf("listening on %s\n", local.Text().c_str());
    std::fflush(stdout);
  };
  callbacks.onHalt = [&](const std::string& reason) {
    end(kExitFailed, reason +
                         "; stopped, nothing was acknowledged that is not on disk; start it "
                         "again when the cause is gone");
  };
  callbacks.onStopped = [&] { loop.Stop(); };
  loop.OnSignals([&](int) { target.Stop(); });
  // From the loop: what it begins with may end the loop.
  loop.Post([&] { target.Start(callbacks); });
  KeepTrimmingBlocks(loop);
  loop.Run();
  return code;
}

}  // namespace

void AddTarget(CLI::App& program, Chosen& chosen) {
  auto flags = std::make_shared<TargetFlags>();
  CLI::App* command = program.add_subcommand(
      "target", "Listens for sources and keeps the copies of their volumes, until it is stopped.");
  command->add_option("--listen", flags->listen, "ADDR:PORT (port 0 chooses one) or unix:PATH")
      ->required();
  command->add_option("--state", flags->state, "directory of the state and the journal, mode 0700")
      ->required();
  command->add_option("--volumes", flags->volumesDirectory,
                      "directory of the volumes: DIR/GROUP/VOL.img");
  command->add_option("--volume", flags->mappings,
                      "GROUP/VOL=PATH: this volume is that file or block device");
  command->add_option("--grants", flags->grants,
                      "file of grants (default: whoever proves who it is may do everything)");
  command->add_option("--journal-quota", flags->journalQuota, "bytes that the journal may take")
      ->capture_default_str();
  command->add_option("--jobs", flags->jobs, "worker threads (default: one a processor)");
  command->add_option("--metrics", flags->metrics,
                      "ADDR:PORT: serve metrics for Prometheus there, without TLS");
  AddSecurityOptions(*command, flags->security, TlsSide::kServer);
  AddLogOptions(*command, flags->log, "info");
  command->footer(
      "Example: penstock target --listen 0.0.0.0:7000 --state /var/lib/penstock "
      "--volumes /srv/copies --tls-certs /etc/penstock/tls");
  command->callback([flags, &chosen] { chosen = [flags] { return RunTarget(*flags); }; });
}

}  // namespace penstock
