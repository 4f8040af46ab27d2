// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_METRICS_SERVER_H_
#define PENSTOCK_REPLICATOR_METRICS_SERVER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "replicator/endpoint.h"
#include "replicator/event_loop.h"

namespace penstock {

struct MetricsOptions {
  std::size_t maxConnections = 16;    // beyond it the oldest is dropped
  std::uint32_t maxHeadBytes = 8192;  // of a request: its line and its header
  std::uint64_t deadlineMs = 10'000;  // of a connection, from its beginning to its end
  // For so many times as long as it took to make a text it is given again: however often it is
  // asked for, the loop has time for other things.
  int restFactor = 10;
  std::size_t maxDrainedBytes = 65536;  // that are read and dropped behind a request
};

// Serves a text by HTTP, without TLS: GET and HEAD of /metrics. One request a connection. Whoever
// connects can do no more than read it: what a client sends is bounded in bytes and in time, and
// costs no other client its answer.
//
// Threads: the loop's, or before it runs.
//
//   std::unique_ptr<MetricsServer> server;
//   auto fault = MetricsServer::Open(loop, endpoint, [&] { return MetricsOf(status); }, server);
//   Say("metrics on " + server->Local().Text());
class MetricsServer {
 public:
  using MakeText = std::function<std::string()>;  // called on the loop, from no other call

  // Listens by TCP. Returns an empty text, or why it can't.
  static std::string Open(EventLoop& loop, const Endpoint& endpoint, MakeText makeText,
                          std::unique_ptr<MetricsServer>& out, const MetricsOptions& options = {});
  // Drops its connections.
  ~MetricsServer();
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;

  const Endpoint& Local() const;    // with the port that was chosen
  std::size_t Connections() const;  // that are open

 private:
  struct Impl;
  explicit MetricsServer(std::shared_ptr<Impl> impl);
  std::shared_ptr<Impl> m_impl;
};

// Parses where metrics are served: ADDR:PORT, no UNIX socket. Returns an empty text, or what is
// wrong.
std::string ParseMetricsEndpoint(const std::string& text, Endpoint& out);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_METRICS_SERVER_H_
