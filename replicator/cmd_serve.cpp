// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "capture/plugin_config.h"
#include "replicator/cmd.h"
#include "replicator/endpoint.h"
#include "replicator/files.h"
#include "replicator/options.h"

namespace penstock {

namespace {

namespace fs = std::filesystem;

struct ServeFlags {
  std::string to, group, state, nbd;
  std::vector<std::string> volumes;
  std::string interval = "1s", maxDataset = "64M", memory = "256M";
  std::string spool, spoolMax = "10G", limitRate, compress = "auto", metrics;
  std::string nbdkit = "nbdkit", plugin;
  unsigned jobs = 0;
  bool takeOver = false;
  SecurityFlags security;
  LogFlags log;
};

// Beside the program, as it was built or installed.
std::string FindPlugin(const std::string& given) {
  if (!given.empty()) return given;
  std::error_code error;
  const fs::path here = fs::read_symlink("/proc/self/exe", error).parent_path();
  for (const char* place :
       {"../capture", "../" PENSTOCK_LIBDIR "/nbdkit/plugins", "../lib/nbdkit/plugins"}) {
    const fs::path path = here / place / "nbdkit-penstock-plugin.so";
    if (fs::exists(path, error)) return fs::canonical(path, error).string();
  }
  return {};
}

// What the plugin is told.
std::vector<std::string> KeysOf(const ServeFlags& flags) {
  std::vector<std::string> keys;
  const auto add = [&](const char* key, const std::string& value) {
    if (!value.empty()) keys.push_back(std::string(key) + "=" + value);
  };
  add("group", flags.group);
  add("to", flags.to);
  add("state", flags.state);
  add("interval", flags.interval);
  add("max-dataset", flags.maxDataset);
  add("memory", flags.memory);
  add("spool", flags.spool);
  add("spool-max", flags.spoolMax);
  add("limit-rate", flags.limitRate);
  add("compress", flags.compress);
  add("metrics", flags.metrics);
  add("tls-certs", flags.security.tlsCerts);
  add("tls-psk", flags.security.tlsPsk);
  add("tls-name", flags.security.tlsName);
  add("log-level", flags.log.level);
  add("log-format", flags.log.format);
  if (flags.jobs > 0) add("jobs", std::to_string(flags.jobs));
  if (flags.security.plaintext) add("plaintext", "true");
  if (flags.takeOver) add("take-over", "true");
  for (const std::string& volume : flags.volumes) add("volume", volume);
  return keys;
}

// Looks at everything before another program is started with it. Returns an empty text, or what is
// wrong.
std::string Check(const std::vector<std::string>& keys) {
  PluginConfig config;
  for (const std::string& key : keys) {
    const std::size_t equals = key.find('=');
    auto fault = config.Take(key.substr(0, equals), key.substr(equals + 1));
    if (!fault.empty()) return fault;
  }
  LiveOptions options;
  return config.Finish(options);
}

int RunServe(const ServeFlags& flags) {
  SetPrivateUmask();
  const std::vector<std::string> keys = KeysOf(flags);
  if (auto fault = Check(keys); !fault.empty()) return Complain(kExitRefused, fault);
  const std::string plugin = FindPlugin(flags.plugin);
  if (plugin.empty()) {
    return Complain(kExitRefused, "can't find nbdkit-penstock-plugin.so; say where with --plugin");
  }
  Endpoint nbd;
  const std::string where = flags.nbd.empty() ? "unix:" + flags.state + "/nbd.sock" : flags.nbd;
  if (auto fault = Endpoint::Parse(where, nbd); !fault.empty())
    return Complain(kExitRefused, fault);
  if (auto fault = MakePrivateDirectory(flags.state); !fault.empty()) {
    return Complain(kExitRefused, fault);
  }
  std::vector<std::string> command = {flags.nbdkit, "--foreground"};
  if (nbd.isUnix) {
    // nbdkit doesn't take one that a process left behind when it was killed.
    ::unlink(nbd.path.c_str());
    command.insert(command.end(), {"--unix", nbd.path});
  } else if (nbd.port == 0) {
    return Complain(kExitRefused, "--nbd: give a port");
  } else {
    command.insert(command.end(), {"--ipaddr", nbd.host, "--port", std::to_string(nbd.port)});
  }
  command.push_back(plugin);
  command.insert(command.end(), keys.begin(), keys.end());
  std::printf("serving NBD on %s\n", nbd.Text().c_str());
  std::fflush(stdout);
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& argument : command) arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  ::execvp(arguments.front(), arguments.data());
  return Complain(kExitFailed, "can't run " + flags.nbdkit + ": " + ErrnoText(errno) +
                                   "; install nbdkit, or say where it is with --nbdkit");
}

}  // namespace

void AddServe(CLI::App& program, Chosen& chosen) {
  auto flags = std::make_shared<ServeFlags>();
  CLI::App* command = program.add_subcommand(
      "serve", "Serves volumes by NBD, and gets what is written to them to a target all the time.");
  command->add_option("--to", flags->to, "where the target listens: ADDR:PORT or unix:PATH")
      ->required();
  command->add_option("--group", flags->group, "name of the group at the target")->required();
  command->add_option("--state", flags->state, "directory of change maps and spool, mode 0700")
      ->required();
  command
      ->add_option("VOL=PATH", flags->volumes, "volumes: name of the export, file or device here")
      ->required();
  command->add_option("--nbd", flags->nbd,
                      "where to serve: unix:PATH or ADDR:PORT (default: unix:STATE/nbd.sock)");
  command->add_option("--interval", flags->interval, "how often a dataset is closed")
      ->capture_default_str();
  command->add_option("--max-dataset", flags->maxDataset, "and at how many bytes")
      ->capture_default_str();
  command->add_option("--memory", flags->memory, "for what is not at the target yet")
      ->capture_default_str();
  command->add_option("--spool", flags->spool,
                      "directory for what memory does not take (default: STATE/spool)");
  command->add_option("--spool-max", flags->spoolMax, "bytes of the spool at most; 0: no spool")
      ->capture_default_str();
  command->add_option("--compress", flags->compress, "none, lz4, zstd[:LEVEL] or auto")
      ->capture_default_str();
  command->add_option("--limit-rate", flags->limitRate, "bytes a second at most: 500K, 10M, 1.5G");
  command->add_option("--jobs", flags->jobs, "worker threads (default: one a processor)");
  command->add_option("--metrics", flags->metrics,
                      "ADDR:PORT: serve metrics for Prometheus there, without TLS");
  command->add_flag("--take-over", flags->takeOver,
                    "take the group up anew, whoever had it, and compare everything");
  command->add_option("--nbdkit", flags->nbdkit, "the nbdkit to run")->capture_default_str();
  command->add_option("--plugin", flags->plugin,
                      "its plugin (default: the one beside this program)");
  AddSecurityOptions(*command, flags->security, TlsSide::kClient);
  AddLogOptions(*command, flags->log, "info");
  command->footer(
      "Example: penstock serve --to backup:7000 --tls-certs /etc/penstock/tls --group shop "
      "--state /var/lib/penstock-shop db=/dev/vg/db");
  command->callback([flags, &chosen] { chosen = [flags] { return RunServe(*flags); }; });
}

}  // namespace penstock
