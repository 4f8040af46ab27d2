// SPDX-License-Identifier: Apache-2.0
#include "replicator/runner_client.h"

#include <array>
#include <cstring>
#include <utility>

#include "replicator/runner_common.h"

namespace penstock {

namespace {

constexpr std::uint64_t kGreetMs = 30'000;  // volumes may have to be opened first
constexpr std::uint32_t kSilenceMs = 60'000;

}  // namespace

TargetClient::TargetClient(EventLoop& loop, const Endpoint& endpoint, ConnectOptions options,
                           Hello hello, Callbacks callbacks)
    : m_loop(loop), m_hello(std::move(hello)), m_callbacks(std::move(callbacks)) {
  FillRandom(m_hello.nonce);
  FillRandom(m_hello.runKey);
  std::array<std::uint8_t, sizeof(m_hello.fingerprintSeed)> seed{};
  FillRandom(seed);
  std::memcpy(&m_hello.fingerprintSeed, seed.data(), seed.size());
  options.connection.idleTimeoutMs = kSilenceMs;
  m_attempt = std::make_unique<ConnectAttempt>(
      loop, endpoint, options, [this](std::unique_ptr<Connection> made, const std::string& error) {
        made ? Take(std::move(made)) : Fail(WithHint(error));
      });
}

TargetClient::~TargetClient() { m_loop.Cancel(m_timer); }

void TargetClient::Send(Frame frame) {
  if (m_connection) m_connection->Send(std::move(frame));
}

void TargetClient::Take(std::unique_ptr<Connection> connection) {
  m_connection = std::move(connection);
  m_connection->Start({.onFrame = [this](Frame frame) { TakeFrame(std::move(frame)); },
                       .onClosed = [this](const std::string& why) { Fail(why); }});
  m_connection->Send(Encode(m_hello));
  m_timer = m_loop.After(kGreetMs, [this] { Fail("the target did not answer the greeting"); });
}

void TargetClient::TakeFrame(Frame frame) {
  if (frame.type == FrameType::kError) {
    Error error;
    std::string why = Decode(frame.Payload(), error);
    if (why.empty()) why = std::string("the target says: ") + Text(error.code) + ": " + error.text;
    return Fail(why);
  }
  if (frame.type == FrameType::kPing) {
    Ping ping;
    if (Decode(frame.Payload(), ping).empty()) Send(Encode(FrameType::kPong, ping));
    return;
  }
  if (!m_greeted) return TakeWelcome(frame);
  if (const auto take = m_callbacks.onFrame) take(std::move(frame));
}

void TargetClient::TakeWelcome(const Frame& frame) {
  Welcome welcome;
  if (frame.type != FrameType::kWelcome) {
    return Fail(std::string("the target sent ") + Name(frame.type) + " instead of WELCOME");
  }
  if (std::string why = Decode(frame.Payload(), welcome); !why.empty()) return Fail(why);
  if (welcome.version != kProtocolVersion) {
    return Fail("the target speaks protocol version " + std::to_string(welcome.version));
  }
  m_loop.Cancel(m_timer);
  m_greeted = true;
  m_connection->SetSeeds(FrameSeed(m_hello.nonce, welcome.nonce, false),
                         FrameSeed(m_hello.nonce, welcome.nonce, true));
  m_connection->AllowAll();
  if (const auto greeted = m_callbacks.onWelcome) greeted(welcome);
}

void TargetClient::Fail(const std::string& why) {
  if (const auto failed = std::exchange(m_callbacks.onFailed, {})) failed(why);
}

}  // namespace penstock
