// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "capture/control.h"
#include "replicator/cmd.h"
#include "replicator/options.h"
#include "replicator/runner_client.h"
#include "replicator/runner_common.h"
#include "replicator/state_store.h"
#include "replicator/status_json.h"

namespace penstock {

namespace {

struct StatusFlags {
  std::string of;
  std::string state;
  bool json = false;
  bool watch = false;
  SecurityFlags security;
  LogFlags log;
};

int Show(const StatusFlags& flags, const std::string& json) {
  std::string text;
  if (auto fault = ShowStatus(json, flags.json, text); !fault.empty()) {
    return Complain(kExitFailed, fault);
  }
  std::fwrite(text.data(), 1, text.size(), stdout);
  return kExitDone;
}

// Of a source that serves volumes, as it says itself.
int RunOfSource(const StatusFlags& flags) {
  for (;;) {
    std::string answer;
    auto fault = AskControl(flags.state, R"({"do":"status"})", answer);
    if (!fault.empty()) return Complain(kExitFailed, fault);
    std::string text = answer + "\n";
    if (!flags.json) text = LiveStatusTable(answer);
    if (flags.watch && !flags.json) text.insert(0, "\x1b[H\x1b[2J");
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    if (!flags.watch) return kExitDone;
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
}

// Of a state on disk, whether a target has it or not.
int RunOfState(const StatusFlags& flags) {
  std::unique_ptr<StateStore> store;
  std::vector<GroupState> groups;
  auto fault = StateStore::Open(flags.state, StateStore::Mode::kReadOnly, store);
  if (fault.empty()) fault = store->Load(groups);
  if (!fault.empty()) return Complain(kExitRefused, fault);
  std::vector<GroupStatus> all;
  all.reserve(groups.size());
  for (const GroupState& group : groups) all.push_back(StatusOf(group));
  return Show(flags, StatusText(all, Now().wall));
}

int RunOfTarget(const StatusFlags& flags) {
  Endpoint endpoint;
  ConnectOptions options;
  auto fault = Endpoint::Parse(flags.of, endpoint);
  if (fault.empty()) fault = Apply(flags.security, TlsSide::kClient, endpoint, options.tls);
  if (!fault.empty()) return Complain(kExitRefused, fault);
  options.allowPlaintext = flags.security.plaintext;
  options.peerName = flags.security.tlsName;
  EventLoop loop;
  Hello hello;
  hello.purpose = Purpose::kStatus;
  std::unique_ptr<TargetClient> client;
  std::string reply;
  TargetClient::Callbacks callbacks;
  callbacks.onWelcome = [&](const Welcome&) { client->Send(EncodeStatusQuery()); };
  callbacks.onFrame = [&](const Frame& frame) {
    if (frame.type != FrameType::kStatusReply) {
      fault = std::string("the target sent ") + Name(frame.type) + " instead of its status";
    } else {
      const Bytes bytes = frame.Payload();
      reply.assign(bytes.begin(), bytes.end());
    }
    loop.Stop();
  };
  callbacks.onFailed = [&](const std::string& why) {
    fault = why;
    loop.Stop();
  };
  client = std::make_unique<TargetClient>(loop, endpoint, options, std::move(hello), callbacks);
  loop.Run();
  return fault.empty() ? Show(flags, reply) : Complain(kExitFailed, fault);
}

int RunStatus(const StatusFlags& flags) {
  if (auto fault = Apply(flags.log); !fault.empty()) return Complain(kExitRefused, fault);
  if (flags.of.empty() == flags.state.empty()) {
    return Complain(kExitRefused, "give one of --of ADDR:PORT and --state DIR");
  }
  if (!flags.of.empty()) return RunOfTarget(flags);
  const bool isSource = ::access((flags.state + "/source.lock").c_str(), F_OK) == 0;
  return isSource ? RunOfSource(flags) : RunOfState(flags);
}

}  // namespace

void AddStatus(CLI::App& program, Chosen& chosen) {
  auto flags = std::make_shared<StatusFlags>();
  CLI::App* command = program.add_subcommand(
      "status",
      "What a target has: groups, volumes, points, lag, journal; or what a source is doing.");
  command->add_option("--of", flags->of, "where the target listens: ADDR:PORT or unix:PATH");
  command->add_option("--state", flags->state,
                      "directory of a target's or source's state, on this machine");
  command->add_flag("--json", flags->json, "as JSON");
  command->add_flag("--watch", flags->watch, "of a source: again every second");
  AddSecurityOptions(*command, flags->security, TlsSide::kClient);
  AddLogOptions(*command, flags->log, "warning");
  command->footer("Example: penstock status --of backup:7000 --tls-certs /etc/penstock/tls");
  command->callback([flags, &chosen] { chosen = [flags] { return RunStatus(*flags); }; });
}

}  // namespace penstock
