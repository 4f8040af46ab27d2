// SPDX-License-Identifier: Apache-2.0
// The subcommands: one file each.
#ifndef PENSTOCK_REPLICATOR_CMD_H_
#define PENSTOCK_REPLICATOR_CMD_H_

#include <functional>

namespace CLI {
class App;
}

namespace penstock {

// What the subcommand that was named does. Returns the exit code.
using Chosen = std::function<int()>;

// Each adds its subcommand to the program, and sets `chosen` when it is the one that was named.
void AddReplicate(CLI::App& program, Chosen& chosen);
void AddTarget(CLI::App& program, Chosen& chosen);
void AddSync(CLI::App& program, Chosen& chosen);
void AddVerify(CLI::App& program, Chosen& chosen);
void AddStatus(CLI::App& program, Chosen& chosen);
void AddInspect(CLI::App& program, Chosen& chosen);
void AddServe(CLI::App& program, Chosen& chosen);
void AddLive(CLI::App& program, Chosen& chosen);  // point, pause, resume, limit-rate
void AddKeygen(CLI::App& program, Chosen& chosen);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_CMD_H_
