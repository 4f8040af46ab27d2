// SPDX-License-Identifier: Apache-2.0
// Asks and orders to a source that serves volumes: point, check, pause, resume, limit-rate.
#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "capture/control.h"
#include "capture/plugin_config.h"
#include "replicator/cmd.h"
#include "replicator/options.h"
#include "replicator/progress.h"

namespace penstock {

namespace {

struct LiveFlags {
  std::string state;
  std::string wait;
  std::string rate;
  std::string maxLag = "10s";
  std::string mark;
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

// As plugins of monitoring systems do: one line, and 0 fine, 1 warning, 2 critical, 3 unknown.
int Check(const LiveFlags& flags) {
  enum : int { kFine = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };
  const auto say = [](int code, const std::string& text) {
    constexpr std::array kWords = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
    std::printf("PENSTOCK %s: %s\n", kWords.at(static_cast<std::size_t>(code)), text.c_str());
    return code;
  };
  std::uint64_t mostMs = 0;
  if (auto fault = ParseInterval(flags.maxLag, mostMs); !fault.empty()) return say(kUnknown, fault);
  std::string answer;
  if (auto fault = AskControl(flags.state, R"({"do":"status"})", answer); !fault.empty()) {
    return say(kCritical, fault);
  }
  const auto status = nlohmann::json::parse(answer);
  const auto state = status.value("state", std::string());
  const double lag = status.value("lagSeconds", 0.0);
  char text[200];
  std::snprintf(text, sizeof(text), "%s, %.1f s behind, %s of %s memory, %s spooled|lag=%.3fs",
                state.c_str(), lag,
                HumanBytes(status.value("memoryBytes", std::uint64_t{0})).c_str(),
                HumanBytes(status.value("memoryLimit", std::uint64_t{0})).c_str(),
                HumanBytes(status.value("spoolBytes", std::uint64_t{0})).c_str(), lag);
  if (state == "stopped") return say(kCritical, text + (": " + status.value("failure", state)));
  if (lag * 1000 > static_cast<double>(mostMs)) return say(kCritical, text);
  const bool isCalm = state == "replicating" || state == "connecting";
  return say(isCalm ? kFine : kWarning, text);
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
  point->add_option("--mark", flags->mark,
                    "the same, and its name in the target's list of points: printable ASCII");
  point->footer(
      "Example: penstock point --state /var/lib/penstock-shop --mark 'before the upgrade' "
      "--wait flushed");
  point->callback([flags, &chosen] {
    chosen = [flags] {
      nlohmann::json request = {{"do", "point"}, {"consistent", flags->consistent}};
      if (!flags->wait.empty()) request["wait"] = flags->wait;
      if (!flags->mark.empty()) request["mark"] = flags->mark;
      return Order(*flags, request, {});
    };
  });
  CLI::App* check = program.add_subcommand(
      "check", "Looks at a source for monitoring: 0 fine, 1 warning, 2 critical, 3 unknown.");
  check->add_option("--state", flags->state, "state directory of penstock serve")->required();
  check->add_option("--max-lag", flags->maxLag, "critical beyond it: 500ms, 10s, 2m")
      ->capture_default_str();
  check->footer("Example: penstock check --state /var/lib/penstock-shop --max-lag 30s");
  check->callback([flags, &chosen] { chosen = [flags] { return Check(*flags); }; });
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
