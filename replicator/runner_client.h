// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_RUNNER_CLIENT_H_
#define PENSTOCK_REPLICATOR_RUNNER_CLIENT_H_

#include <functional>
#include <memory>
#include <string>

#include "engine/wire/messages.h"
#include "replicator/event_loop.h"
#include "replicator/transport.h"

namespace penstock {

// A connection to a target for asking, not for replicating: it greets, and hands frames over.
//
// Threads: the loop's. May be destroyed in its callbacks.
class TargetClient {
 public:
  struct Callbacks {
    std::function<void(const Welcome&)> onWelcome = {};
    std::function<void(Frame)> onFrame = {};  // after the greeting
    // Once, with what went wrong: it could not connect, was refused, or the connection ended.
    std::function<void(const std::string&)> onFailed = {};
  };

  // Connects and says `hello`, whose nonce, seed and key it draws.
  TargetClient(EventLoop& loop, const Endpoint& endpoint, ConnectOptions options, Hello hello,
               Callbacks callbacks);
  ~TargetClient();
  TargetClient(const TargetClient&) = delete;
  TargetClient& operator=(const TargetClient&) = delete;

  const Hello& Greeting() const { return m_hello; }
  void Send(Frame frame);

 private:
  void Take(std::unique_ptr<Connection> connection);
  void TakeFrame(Frame frame);
  void TakeWelcome(const Frame& frame);
  void Fail(const std::string& why);

  EventLoop& m_loop;
  Hello m_hello;
  Callbacks m_callbacks;
  bool m_greeted = false;
  EventLoop::TimerId m_timer = 0;
  std::unique_ptr<Connection> m_connection;
  std::unique_ptr<ConnectAttempt> m_attempt;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_RUNNER_CLIENT_H_
