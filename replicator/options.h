// SPDX-License-Identifier: Apache-2.0
// What the subcommands share: exit codes, the common options, and what their values mean.
#ifndef PENSTOCK_REPLICATOR_OPTIONS_H_
#define PENSTOCK_REPLICATOR_OPTIONS_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "codec/block.h"
#include "replicator/endpoint.h"
#include "replicator/tls.h"

namespace CLI {
class App;
}

namespace penstock {

enum ExitCode : int {
  kExitDone = 0,
  kExitDifferent = 1,
  kExitRefused = 2,  // wrong usage, or refused before anything was done
  kExitFailed = 3,
  kExitInterrupted = 4,  // the same command goes on
};

// Writes "penstock: TEXT" to standard error. Returns `code`.
int Complain(ExitCode code, const std::string& text);

// --- Options that several subcommands have. ---

struct LogFlags {
  std::string level;
  std::string format = "text";
};
void AddLogOptions(CLI::App& command, LogFlags& flags, const std::string& level);
// Sets the log up. Returns an empty text, or what is wrong.
std::string Apply(const LogFlags& flags);

struct SecurityFlags {
  std::string tlsCerts;
  std::string tlsPsk;
  bool plaintext = false;
  std::string tlsName;  // of a client
};
void AddSecurityOptions(CLI::App& command, SecurityFlags& flags, TlsSide side);
// Makes what TLS needs, or nothing for plaintext, which is refused on all but local places. Returns
// an empty text, or what is wrong and what to do.
std::string Apply(const SecurityFlags& flags, TlsSide side, const Endpoint& endpoint,
                  std::shared_ptr<TlsContext>& out);

struct CopyFlags {
  std::string compress;
  std::string limitRate;
  unsigned jobs = 0;  // 0: as many as there are processors
  bool quiet = false;
  bool json = false;
};
void AddCopyOptions(CLI::App& command, CopyFlags& flags, const std::string& compress);
std::string ParseCompress(const std::string& text, CompressSpec& out);
// The number of workers that a command uses.
unsigned JobsOf(unsigned jobs);

// --- Values. ---

// "4096", "64K", "10M", "1.5G", "2T", with or without "B", "iB": units of 1024.
std::string ParseBytes(const std::string& text, std::uint64_t& out);

// VOL=PATH of each: names differ and are valid.
using NamedPaths = std::vector<std::pair<std::string, std::string>>;
std::string ParseVolumes(const std::vector<std::string>& texts, NamedPaths& out);

// GROUP/VOL=PATH of each.
std::string ParseMappings(const std::vector<std::string>& texts,
                          std::map<std::string, std::string>& out);

// A group's name.
std::string CheckGroup(const std::string& group);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_OPTIONS_H_
