// SPDX-License-Identifier: Apache-2.0
// Two ends of a connection on one loop, and verbs for them.
#ifndef PENSTOCK_TESTS_REPLICATOR_CONNECTION_RIG_H_
#define PENSTOCK_TESTS_REPLICATOR_CONNECTION_RIG_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "engine/wire/messages.h"
#include "replicator/tls.h"
#include "replicator/transport.h"
#include "tests/replicator/rig.h"

namespace penstock {

// A block of `size` bytes of volume data that tells its number.
inline Frame BlockFrame(std::uint8_t number, std::uint32_t size) {
  const auto block = BeginRawBlock(0, {0, size});
  const auto data = RawData(*block);
  std::memset(data.data(), number, data.size());
  SealRawBlock(*block);
  return Frame::OfBlock(block);
}

// A small one that does.
inline Frame SmallFrame(std::uint64_t token) {
  return Encode(FrameType::kDone, Report{token, true, false, {}});
}

// One end: what came, and why it ended.
struct End {
  std::unique_ptr<Connection> connection;
  std::vector<Frame> frames;
  std::size_t bytes = 0;  // of their payloads
  std::string closed;     // why; empty: it lives
  int drained = 0;
  std::function<void()> onFrame;

  void Start(LoopRunner& runner, bool keepFrames = true) {
    connection->AllowAll();
    connection->Start({.onFrame =
                           [this, &runner, keepFrames](Frame frame) {
                             bytes += frame.size;
                             if (!keepFrames) frame.payload = nullptr;
                             frames.push_back(std::move(frame));
                             if (onFrame) onFrame();
                             runner.Poke();
                           },
                       .onClosed =
                           [this, &runner](const std::string& reason) {
                             closed = reason.empty() ? "?" : reason;
                             runner.Poke();
                           },
                       .onDrained = [this] { ++drained; }});
  }

  std::uint64_t Token(std::size_t index) const {
    Report report;
    EXPECT_EQ(Decode(frames.at(index).Payload(), report), "");
    return report.n;
  }
};

class Connections : public testing::Test {
 protected:
  // Listens, connects, and waits until both ends are there or one attempt failed. Returns why the
  // source could not connect, "" when it could.
  std::string Connect(const ListenOptions& listen, const ConnectOptions& connect,
                      const std::string& at = "127.0.0.1:0") {
    Endpoint endpoint;
    EXPECT_EQ(Endpoint::Parse(at, endpoint), "");
    const auto fault = Listen(endpoint, listen);
    return fault.empty() ? ConnectTo(m_listener->Local(), connect) : fault;
  }

  std::string Listen(const Endpoint& endpoint, const ListenOptions& options) {
    return Listener::Open(m_loop, endpoint, options,
                          {.onAccepted =
                               [this](std::unique_ptr<Connection> connection) {
                                 m_target.connection = std::move(connection);
                                 m_accepted = true;
                                 m_runner.Poke();
                               },
                           .onRefused =
                               [this](const std::string&, const std::string& reason) {
                                 m_refused = reason;
                                 m_runner.Poke();
                               }},
                          m_listener);
  }

  std::string ConnectTo(const Endpoint& endpoint, const ConnectOptions& options) {
    bool isOver = false;
    std::string fault;
    m_attempt = std::make_unique<ConnectAttempt>(
        m_loop, endpoint, options,
        [&](std::unique_ptr<Connection> connection, const std::string& error) {
          isOver = true;
          fault = error;
          m_source.connection = std::move(connection);
          m_runner.Poke();
        });
    EXPECT_TRUE(m_runner.Until([&] {
      return isOver && (!m_waitsForTarget || m_accepted || !m_refused.empty() ||
                        m_source.connection == nullptr);
    }));
    return fault;
  }

  static ListenOptions PlainListen() {
    ListenOptions options;
    options.allowPlaintext = true;
    return options;
  }
  static ConnectOptions PlainConnect() {
    ConnectOptions options;
    options.allowPlaintext = true;
    return options;
  }

  void StartBoth(bool keepFrames = true) {
    m_source.Start(m_runner, keepFrames);
    m_target.Start(m_runner, keepFrames);
  }

  void ConnectPlain() { ASSERT_EQ(Connect(PlainListen(), PlainConnect()), ""); }

  bool TargetHas(std::size_t frames) {
    return m_runner.Until([&] { return m_target.frames.size() >= frames; });
  }

  EventLoop m_loop;
  LoopRunner m_runner{m_loop};
  TempFolder m_folder;
  std::unique_ptr<Listener> m_listener;
  std::unique_ptr<ConnectAttempt> m_attempt;
  bool m_accepted = false;
  bool m_waitsForTarget = true;  // a source that is connected is not all
  std::string m_refused;
  End m_source;
  End m_target;
};

}  // namespace penstock

#endif  // PENSTOCK_TESTS_REPLICATOR_CONNECTION_RIG_H_
