// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_RUNNER_SOURCE_H_
#define PENSTOCK_REPLICATOR_RUNNER_SOURCE_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/source_engine.h"
#include "replicator/event_loop.h"
#include "replicator/live_store.h"
#include "replicator/transport.h"
#include "replicator/volume_file.h"

namespace penstock {

struct SourceOptions {
  SourceConfig
      config;  // names, sizes and order of the volumes as in `volumes`; random is filled in
  std::vector<std::shared_ptr<VolumeFile>> volumes;
  unsigned jobs = 2;
  std::function<void()> onThread;  // runs first on each worker's thread
  // Where the target is. Or, when `makeSocket` is given, what makes a socket that is connected to
  // it: returns -1, and says why in `error`.
  Endpoint endpoint;
  ConnectOptions connect;
  std::function<int(std::string& error)> makeSocket;
  // Of a source whose configuration has a feed.
  std::shared_ptr<LiveStore> store;
};

// The source on one thread: a loop, its engine, one connection, and workers that read, fingerprint
// and pack. It carries out what the engine asks for, in order, and has no rules of its own.
//
// Threads: the loop's, or before it runs.
class SourceRunner {
 public:
  SourceRunner(EventLoop& loop, SourceOptions options);
  ~SourceRunner();
  SourceRunner(const SourceRunner&) = delete;
  SourceRunner& operator=(const SourceRunner&) = delete;

  // Begins. `onChange` is called after every event: look at Engine().Status().
  void Start(std::function<void()> onChange);
  const SourceEngine& Engine() const;
  // Calls `what` with the engine and the time, and carries out what it leads to.
  void With(const std::function<void(SourceEngine&, const Moment&)>& what);
  // Of the connection, and of those to come; 0: none.
  void SetRateLimit(std::uint64_t bytesPerSecond);
  // Says goodbye; `onStopped` when the connection is gone, or it took too long.
  void Stop(std::function<void()> onStopped);
  std::uint64_t BytesSent() const;  // of all connections, headers included

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_RUNNER_SOURCE_H_
