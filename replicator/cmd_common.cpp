// SPDX-License-Identifier: Apache-2.0
#include "replicator/cmd_common.h"

#include <cstdio>
#include <string_view>
#include <utility>

#include "replicator/log.h"

namespace penstock {

std::string OpenSources(const NamedPaths& paths, SourceOptions& options) {
  for (const auto& [name, path] : paths) {
    VolumeOptions open;
    open.sequential = true;
    std::unique_ptr<VolumeFile> file;
    if (auto fault = VolumeFile::Open(path, open, file); !fault.empty()) return fault;
    if (file->Size() == 0) return path + " is empty: there is nothing to copy";
    if (!file->MountedAt().empty()) {
      Log(Severity::kWarning,
          path + " is mounted at " + file->MountedAt() +
              ": what is written while it is read may be in the copy in parts; unmount it, or "
              "copy a snapshot");
    }
    options.config.volumes.push_back({name, file->Size()});
    options.volumes.push_back(std::move(file));
  }
  return {};
}

std::string Apply(const CopyFlags& flags, SourceOptions& options) {
  if (auto fault = ParseCompress(flags.compress, options.config.compress); !fault.empty()) {
    return fault;
  }
  options.jobs = JobsOf(flags.jobs);
  if (flags.limitRate.empty()) return {};
  auto fault = ParseBytes(flags.limitRate, options.connect.connection.rateLimit);
  return fault.empty() ? fault : "--limit-rate: " + fault;
}

ProgressPrinter::Style SetUpProgress(bool quiet) {
  const auto style = ProgressPrinter::StyleFor(quiet);
  if (style == ProgressPrinter::Style::kBar) {
    SetLogOutput([](std::string_view line) {
      const std::string text = "\r\x1b[K" + std::string(line);
      std::fwrite(text.data(), 1, text.size(), stderr);
    });
  }
  return style;
}

int ReportResult(const SessionResult& result, bool json) {
  const std::string text = SessionText(result, json);
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
  return result.code == kExitDone ? kExitDone : Complain(result.code, result.error);
}

}  // namespace penstock
