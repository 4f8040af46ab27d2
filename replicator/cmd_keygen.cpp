// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>

#include "replicator/cmd.h"
#include "replicator/files.h"
#include "replicator/options.h"
#include "replicator/psk.h"

namespace penstock {

namespace {

struct KeygenFlags {
  std::string psk;
  std::string identity = "source";
};

int RunKeygen(const KeygenFlags& flags) {
  SetPrivateUmask();
  if (auto fault = WritePskFile(flags.psk, flags.identity); !fault.empty()) {
    return Complain(kExitRefused, fault);
  }
  std::printf(
      "%s: a key for %s; take a copy to the target, mode 0600, by a way that nobody reads\n",
      flags.psk.c_str(), flags.identity.c_str());
  return kExitDone;
}

}  // namespace

void AddKeygen(CLI::App& program, Chosen& chosen) {
  auto flags = std::make_shared<KeygenFlags>();
  CLI::App* command =
      program.add_subcommand("keygen", "Draws a pre-shared key for --tls-psk, into a new file.");
  command->add_option("--psk", flags->psk, "the file to make")->required();
  command->add_option("--identity", flags->identity, "whom the key stands for, in grants and logs")
      ->capture_default_str();
  command->footer("Example: penstock keygen --psk db1.key --identity db1");
  command->callback([flags, &chosen] { chosen = [flags] { return RunKeygen(*flags); }; });
}

}  // namespace penstock
