// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_RUNNER_TARGET_H_
#define PENSTOCK_REPLICATOR_RUNNER_TARGET_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "engine/target_engine.h"
#include "replicator/event_loop.h"
#include "replicator/grants.h"
#include "replicator/target_metrics.h"
#include "replicator/transport.h"

namespace penstock {

struct TargetOptions {
  std::string stateDirectory;
  std::string volumesDirectory;               // may be empty: mapped volumes only
  std::map<std::string, std::string> mapped;  // paths by "GROUP/VOL"
  Grants grants = Grants::All();
  unsigned jobs = 2;
  std::uint64_t journalQuota = 16ULL << 30U;
};

// The target on one thread: a loop, its engine, connections, and workers for what waits for a disk.
// It carries out what the engine asks for, in order, and has no rules of its own.
//
// Threads: the loop's, or before it runs; Adopt is made for a task posted to the loop.
//
//   EventLoop loop;
//   TargetRunner target(loop, options);
//   if (auto fault = target.Open(); !fault.empty()) return Complain(fault);
//   target.Start({.onRecovered = [&] { target.Listen(endpoint, listen); }, ...});
//   loop.Run();
class TargetRunner {
 public:
  struct Callbacks {
    std::function<void()> onRecovered = {};  // once: listen now
    // The state in memory can't be trusted any more: end the process with an error.
    std::function<void(const std::string& reason)> onHalt = {};
    std::function<void()> onStopped = {};  // after Stop
  };

  TargetRunner(EventLoop& loop, TargetOptions options);
  ~TargetRunner();
  TargetRunner(const TargetRunner&) = delete;
  TargetRunner& operator=(const TargetRunner&) = delete;

  // Opens the state and looks at the journal. Returns an empty text, or what is wrong.
  std::string Open();
  // Begins the recovery.
  void Start(Callbacks callbacks);
  // REQUIRES: recovered. Returns an empty text and the place that was bound in `local`, or why not.
  std::string Listen(const Endpoint& endpoint, const ListenOptions& options, Endpoint& local);
  // Takes a connected socket of this process, and its ownership. REQUIRES: recovered.
  void Adopt(int fd, const ConnectionOptions& options);
  // For monitoring. REQUIRES: Open went well.
  TargetFigures Figures() const;
  // Accepts nothing more, drops its connections, lets what is being made durable come to its end,
  // and calls onStopped.
  void Stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_RUNNER_TARGET_H_
