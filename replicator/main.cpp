// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>

#include "penstock/version.h"
#include "replicator/block_memory.h"
#include "replicator/cmd.h"
#include "replicator/keep_memory.h"
#include "replicator/options.h"

namespace {

int Main(int argc, char** argv) {
  CLI::App program{
      "Keeps a verified second copy of disk images and block devices, here or on another machine.",
      "penstock"};
  program.set_version_flag("--version", PENSTOCK_VERSION_STRING);
  program.require_subcommand(1);
  program.footer(
      "Exit codes: 0 done, 1 different, 2 wrong usage or refused, 3 failed, 4 interrupted (the "
      "same "
      "command goes on).\nExample: penstock replicate disk.img /backup/disk.img");
  penstock::Chosen chosen;
  penstock::AddReplicate(program, chosen);
  penstock::AddTarget(program, chosen);
  penstock::AddSync(program, chosen);
  penstock::AddServe(program, chosen);
  penstock::AddLive(program, chosen);
  penstock::AddVerify(program, chosen);
  penstock::AddStatus(program, chosen);
  penstock::AddInspect(program, chosen);
  penstock::AddKeygen(program, chosen);
  try {
    program.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return program.exit(error);  // --help, --version
    return penstock::Complain(penstock::kExitRefused,
                              std::string(error.what()) + "; see penstock --help");
  }
  return chosen ? chosen() : penstock::kExitRefused;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  penstock::KeepFreedMemory(256U << 20U);
  penstock::PoolBlocks(128U << 20U);
  try {
    return Main(argc, argv);
  } catch (const std::exception& error) {
    return penstock::Complain(penstock::kExitFailed, std::string("unexpected: ") + error.what());
  }
}
