// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_RUNNER_SESSION_H_
#define PENSTOCK_REPLICATOR_RUNNER_SESSION_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "replicator/event_loop.h"
#include "replicator/options.h"
#include "replicator/progress.h"
#include "replicator/runner_source.h"

namespace penstock {

// How a copy came out.
struct SessionResult {
  ExitCode code = kExitFailed;
  std::string error;  // of every code but kExitDone
  SourceStatus status;
  std::uint64_t totalBytes = 0;  // of the volumes
  std::uint64_t wireBytes = 0;   // that were sent, of all kinds
  double seconds = 0;
};

// Copies volumes to a target once: compares everything, sends what differs, waits until the target
// has flushed it, and says how it came out. It shows the progress, gives up after a time without a
// target, and ends at a durable boundary when it is interrupted.
//
// Threads: the loop's, or before it runs.
class Session {
 public:
  // Gives up when nothing moved for `retryForMs` and there is no connection.
  Session(EventLoop& loop, SourceOptions options, std::uint64_t retryForMs,
          ProgressPrinter::Style style);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // `onEnd` is called once, when the source has said goodbye.
  void Start(std::function<void(const SessionResult&)> onEnd);
  // SIGINT, SIGTERM: the first waits for what was sent, the second for nothing.
  void Interrupt();
  // Ends it from outside.
  void Fail(ExitCode code, const std::string& error);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

// What a finished copy says, as a line or as JSON.
std::string SessionText(const SessionResult& result, bool json);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_RUNNER_SESSION_H_
