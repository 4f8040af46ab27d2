// SPDX-License-Identifier: Apache-2.0
// Orders to a source that serves volumes: point, pause, resume, limit-rate.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "capture/control.h"
#include "replicator/cmd.h"
#include "replicator/options.h"

namespace penstock {

namespace {

struct LiveFlags {
  std::string state;
  std::string wait;
  std::string rate;
  bool consistent = false;
  bool json = false;
};

int Order(const LiveFlags& flags, const nlohmann::json& request, const std::string& done) {
  std::string answer;
  if (auto fault = AskControl(flags.state, request.dump(), answer); !fault.empty()) {
    return Complain(kExitFailed, fault);
  }
  std::string line = flags.json ? answer : done;
  if (!flags.json && request["do"] == "point") {
    line = std::to_string(nlohmann::json::parse(answer).value("point", std::uint64_t{0}));
  }
  std::printf("%s\n", line.c_str());
  return kExitDone;
}

CLI::App* AddOrder(CLI::App& program, const char* name, const char* what, LiveFlags& flags) {
  CLI::App* command = program.add_subcommand(name, what);
  command->add_option("--state", flags.state, "state directory of penstock serve")->required();
  command->add_flag("--json", flags.json, "the answer as JSON");
  return command;
}

int LimitRate(const LiveFlags& flags) {
  std::uint64_t bytes = 0;
  if (flags.rate != "none") {
    if (auto fault = ParseBytes(flags.rate, bytes); !fault.empty()) {
      return Complain(kExitRefused, fault);
    }
  }
  return Order(flags, {{"do", "limit-rate"}, {"bytes", bytes}}, "limited to " + flags.rate);
}

}  // namespace

void AddLive(CLI::App& program, Chosen& chosen) {
  const auto flags = std::make_shared<LiveFlags>();
  CLI::App* point = AddOrder(program, "point",
                             "Closes the dataset of a source now, and prints its number.", *flags);
  point->add_option("--wait", flags->wait, "until it is durable, applied or flushed at the target")
      ->check(CLI::IsMember({"durable", "applied", "flushed"}));
  point->add_flag("--consistent", flags->consistent,
                  "the point is one of the application's own: it was made to write everything out");
  point->footer("Example: penstock point --state /var/lib/penstock-shop --wait flushed");
  point->callback([flags, &chosen] {
    chosen = [flags] {
      nlohmann::json request = {{"do", "point"}, {"consistent", flags->consistent}};
      if (!flags->wait.empty()) request["wait"] = flags->wait;
      return Order(*flags, request, {});
    };
  });
  CLI::App* pause = AddOrder(
      program, "pause", "Ends a source's connection until resume: what is written waits.", *flags);
  pause->footer("Example: penstock pause --state /var/lib/penstock-shop");
  pause->callback([flags, &chosen] {
    chosen = [flags] { return Order(*flags, {{"do", "pause"}}, "paused"); };
  });
  CLI::App* resume = AddOrder(program, "resume", "Lets a paused source go on.", *flags);
  resume->footer("Example: penstock resume --state /var/lib/penstock-shop");
  resume->callback([flags, &chosen] {
    chosen = [flags] { return Order(*flags, {{"do", "resume"}}, "goes on"); };
  });
  CLI::App* rate =
      AddOrder(program, "limit-rate", "Limits what a source sends, at run time.", *flags);
  rate->add_option("RATE", flags->rate, "bytes a second: 500K, 10M, 1.5G, or none")->required();
  rate->footer("Example: penstock limit-rate --state /var/lib/penstock-shop 10M");
  rate->callback([flags, &chosen] { chosen = [flags] { return LimitRate(*flags); }; });
}

}  // namespace penstock
