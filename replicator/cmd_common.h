// SPDX-License-Identifier: Apache-2.0
// What the subcommands that copy have in common.
#ifndef PENSTOCK_REPLICATOR_CMD_COMMON_H_
#define PENSTOCK_REPLICATOR_CMD_COMMON_H_

#include <memory>
#include <string>
#include <vector>

#include "replicator/options.h"
#include "replicator/progress.h"
#include "replicator/runner_session.h"
#include "replicator/runner_source.h"
#include "replicator/volume_file.h"

namespace penstock {

// Opens a source's volumes for reading and names them in the options. Returns an empty text, or
// what is wrong and what to do.
std::string OpenSources(const NamedPaths& paths, SourceOptions& options);

// What the options of copying say. Returns an empty text, or what is wrong.
std::string Apply(const CopyFlags& flags, SourceOptions& options);

// How to show the progress; a line of the log takes a bar away first. Before any thread is made.
ProgressPrinter::Style SetUpProgress(bool quiet);

// Says how a copy came out. Returns the exit code.
int ReportResult(const SessionResult& result, bool json);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_CMD_COMMON_H_
