// SPDX-License-Identifier: Apache-2.0
// Goal: whoever asks properly gets the metrics, and nobody else can do anything: not by what it
// sends, not by sending nothing, not by being many. Method: the server on a loop of the test, and
// clients that are bare sockets on the same thread.
#include "replicator/metrics_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "replicator/files.h"
#include "replicator/log.h"
#include "replicator/socket.h"
#include "tests/replicator/rig.h"

namespace penstock {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// A client's end of a connection.
class Client {
 public:
  explicit Client(const Endpoint& endpoint) {
    std::vector<SocketAddress> addresses;
    EXPECT_EQ(Resolve(endpoint, false, addresses), "");
    // A loopback connection is made at once, whether it is accepted or not.
    EXPECT_EQ(BeginConnect(addresses.front(), 0, m_fd), "");
  }

  // Returns whether all of it went out.
  bool Send(const std::string& text) {
    const auto sent = ::send(m_fd.Get(), text.data(), text.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno != EAGAIN) m_isReset = true;
    return sent == static_cast<ssize_t>(text.size());
  }
  void EndSending() { ::shutdown(m_fd.Get(), SHUT_WR); }
  // Takes what is there. Returns whether the server ended the connection.
  bool Receive() {
    std::array<char, 65536> piece{};
    for (;;) {
      const auto count = ::recv(m_fd.Get(), piece.data(), piece.size(), 0);
      if (count > 0) {
        m_received.append(piece.data(), static_cast<std::size_t>(count));
        continue;
      }
      if (count < 0 && errno != EAGAIN) m_isReset = true;
      return count == 0 || m_isReset;
    }
  }
  const std::string& Received() const { return m_received; }
  std::string Status() const { return m_received.substr(0, m_received.find('\r')); }
  std::string Head() const { return m_received.substr(0, m_received.find("\r\n\r\n") + 4); }
  std::string Body() const { return m_received.substr(m_received.find("\r\n\r\n") + 4); }
  bool IsReset() const { return m_isReset; }

 private:
  Fd m_fd;
  std::string m_received;
  bool m_isReset = false;
};

class Metrics : public testing::Test {
 protected:
  void SetUp() override {
    SetLogOutput([](std::string_view) {});
    m_options.restFactor = 0;
  }
  void TearDown() override { SetLogOutput({}); }

  void Open(const std::string& where = "127.0.0.1:0") {
    Endpoint endpoint;
    ASSERT_EQ(ParseMetricsEndpoint(where, endpoint), "");
    ASSERT_EQ(MetricsServer::Open(
                  m_loop, endpoint,
                  [this] {
                    ++m_made;
                    std::this_thread::sleep_for(std::chrono::milliseconds(m_delayMs));
                    return m_text;
                  },
                  m_server, m_options),
              "");
  }
  std::unique_ptr<Client> Connect() { return std::make_unique<Client>(m_server->Local()); }
  // Runs the loop until a client's connection is over. Returns whether it came to that.
  bool Ends(Client& client, std::uint64_t limitMs = 20'000) {
    const auto end = EventLoop::NowMs() + limitMs;
    while (!client.Receive()) {
      if (EventLoop::NowMs() > end) return false;
      m_runner.Settle(2);
    }
    return true;
  }
  // What the server answers.
  std::unique_ptr<Client> Ask(const std::string& request) {
    auto client = Connect();
    EXPECT_TRUE(client->Send(request));
    EXPECT_TRUE(Ends(*client)) << request;
    EXPECT_FALSE(client->IsReset()) << request;
    return client;
  }
  std::string StatusOf(const std::string& request) { return Ask(request)->Status(); }
  void ExpectServed() {
    EXPECT_EQ(Ask("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n")->Body(), m_text);
  }

  EventLoop m_loop;
  LoopRunner m_runner{m_loop};
  MetricsOptions m_options;
  std::unique_ptr<MetricsServer> m_server;
  std::string m_text = "a 1\n";
  int m_made = 0;
  int m_delayMs = 0;  // of each
};

// --- What is asked for properly. ---

TEST_F(Metrics, GetGivesTheText) {
  Open();
  const auto client = Ask("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_EQ(client->Received(),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"
            "Content-Length: 4\r\nCache-Control: no-store\r\nConnection: close\r\n\r\na 1\n");
  EXPECT_EQ(m_server->Connections(), 1U) << "until the client's end";
}

TEST_F(Metrics, HeadGivesTheSameWithoutTheText) {
  Open();
  const auto get = Ask("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  const auto head = Ask("HEAD /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_EQ(head->Received(), get->Head());
}

TEST_F(Metrics, AQueryAndAnOlderVersionAreTaken) {
  Open();
  EXPECT_EQ(StatusOf("GET /metrics?x=1 HTTP/1.1\r\nHost: x\r\n\r\n"), "HTTP/1.1 200 OK");
  EXPECT_EQ(StatusOf("GET /metrics HTTP/1.0\r\n\r\n"), "HTTP/1.1 200 OK");
}

TEST_F(Metrics, OtherPathsAreNotThere) {
  Open();
  for (const char* path :
       {"/", "/metrics/", "/metric", "/metricsx", "/../metrics", "*", "http://x/metrics"}) {
    const auto client = Ask(std::string("GET ") + path + " HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(client->Status(), "HTTP/1.1 404 Not Found") << path;
    EXPECT_EQ(client->Body(), "the metrics are at /metrics\n");
  }
  const auto head = Ask("HEAD / HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_EQ(head->Status(), "HTTP/1.1 404 Not Found");
  EXPECT_EQ(head->Body(), "");
  EXPECT_EQ(m_made, 0);
}

TEST_F(Metrics, OtherMethodsAreNotAllowed) {
  Open();
  for (const char* method : {"POST", "PUT", "DELETE", "OPTIONS", "TRACE", "BREW"}) {
    const auto client = Ask(std::string(method) +
                            " /metrics HTTP/1.1\r\nHost: x\r\nContent-Length: 9000000\r\n\r\nabc");
    EXPECT_EQ(client->Status(), "HTTP/1.1 405 Method Not Allowed") << method;
    EXPECT_THAT(client->Head(), HasSubstr("\r\nAllow: GET, HEAD\r\n"));
  }
  EXPECT_EQ(m_made, 0);
}

TEST_F(Metrics, ALargeTextArrivesWhole) {
  for (int i = 0; i < 300'000; ++i)
    m_text += "some_metric{number=\"" + std::to_string(i) + "\"} 1\n";
  Open();
  const auto client = Ask("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_THAT(client->Head(),
              HasSubstr("\r\nContent-Length: " + std::to_string(m_text.size()) + "\r\n"));
  EXPECT_TRUE(client->Body() == m_text);
}

TEST_F(Metrics, ATextThatTookLongIsGivenAgain) {
  m_options.restFactor = 1'000'000;
  m_delayMs = 5;
  Open();
  ExpectServed();
  ExpectServed();
  EXPECT_EQ(m_made, 1);
  m_server.reset();
  m_options.restFactor = 0;
  Open();
  ExpectServed();
  ExpectServed();
  EXPECT_EQ(m_made, 3);
}

// --- What is not. ---

TEST_F(Metrics, ARequestMayComeInPieces) {
  Open();
  auto client = Connect();
  for (const char c : std::string("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n")) {
    EXPECT_FALSE(client->Receive());
    ASSERT_TRUE(client->Send({c}));
    m_runner.Settle(1);
  }
  EXPECT_TRUE(Ends(*client));
  EXPECT_EQ(client->Body(), m_text);
}

TEST_F(Metrics, ARequestThatIsBrokenOffGetsNothing) {
  Open();
  auto client = Connect();
  client->Send("GET /metrics HTTP/1.1\r\nHost: x\r\n");
  client->EndSending();
  EXPECT_TRUE(Ends(*client));
  EXPECT_EQ(client->Received(), "");
  EXPECT_EQ(m_server->Connections(), 0U);
}

TEST_F(Metrics, AClientThatHasSentAllIsAnswered) {
  Open();
  auto client = Connect();
  client->Send("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  client->EndSending();
  EXPECT_TRUE(Ends(*client));
  EXPECT_EQ(client->Body(), m_text);
  m_runner.Settle();
  EXPECT_EQ(m_server->Connections(), 0U);
}

TEST_F(Metrics, WhatIsNoRequestIsRefused) {
  Open();
  for (const char* text :
       {"\r\n\r\n", "x\r\n\r\n", "GET\r\n\r\n", "GET /metrics\r\n\r\n",
        "GET /metrics HTTP/2.0\r\n\r\n", "GET /metrics HTTP/1.1\r\nno colon\r\n\r\n",
        "GET /metrics HTTP/1.1\r\nContent-Length: x\r\n\r\n",
        "\x16\x03\x01\x02\x01\x01\xfc\x03\x03 TLS\r\n\r\n"}) {
    EXPECT_EQ(StatusOf(text), "HTTP/1.1 400 Bad Request") << text;
  }
  ExpectServed();
}

TEST_F(Metrics, AHeadThatIsTooLongIsRefused) {
  const std::string tooLong = "HTTP/1.1 431 Request Header Fields Too Large";
  const std::string begin = "GET /metrics HTTP/1.1\r\nX: ";
  // Within one piece that is read, and over several.
  for (const std::uint32_t limit : {600U, 5000U}) {
    m_options.maxHeadBytes = limit;
    Open();
    EXPECT_EQ(StatusOf(begin + std::string(limit - 100, 'x') + "\r\n\r\n"), "HTTP/1.1 200 OK");
    EXPECT_EQ(StatusOf(begin + std::string(limit, 'x') + "\r\n\r\n"), tooLong);
    // One that doesn't end.
    EXPECT_EQ(StatusOf(begin + std::string(std::size_t{3} * limit, 'x')), tooLong);
    ExpectServed();
  }
}

TEST_F(Metrics, AHeadWithoutEndIsRefusedHoweverItComes) {
  m_options.maxHeadBytes = 600;
  Open();
  auto client = Connect();
  client->Send("GET /metrics HTTP/1.1\r\nA");
  for (int i = 0; i < 1000 && !client->Receive(); ++i) {
    client->Send(": b\r\nA");  // a line is over, and another begun
    m_runner.Settle(1);
  }
  EXPECT_EQ(client->Status(), "HTTP/1.1 431 Request Header Fields Too Large");
  ExpectServed();
}

TEST_F(Metrics, WhatIsSentWithoutEndIsNotTaken) {
  Open();
  auto client = Connect();
  client->Send("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
  const std::string more(16384, 'x');
  for (int i = 0; i < 5000 && !client->IsReset(); ++i) {
    client->Send(more);
    client->Receive();
    m_runner.Settle(1);
  }
  EXPECT_TRUE(client->IsReset());
  EXPECT_EQ(m_server->Connections(), 0U);
  ExpectServed();
}

// The parser sees whatever strangers like to send.
TEST_F(Metrics, NoiseEndsNothing) {
  Open();
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::string proper = "GET /metrics HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n";
  for (int i = 0; i < 300; ++i) {
    std::string text = proper;
    for (int flips = static_cast<int>(random() % 8); flips >= 0; --flips) {
      text[random() % text.size()] = static_cast<char>(random());
    }
    auto client = Connect();
    client->Send(text.substr(0, random() % text.size() + 1));
    client->EndSending();
    ASSERT_TRUE(Ends(*client)) << testing::PrintToString(text);
  }
  ExpectServed();
}

// --- Time and numbers. ---

TEST_F(Metrics, AConnectionHasADeadline) {
  m_options.deadlineMs = 50;
  m_text.assign(std::size_t{64} << 20U, 'x');
  Open();
  auto silent = Connect();
  auto slow = Connect();
  slow->Send("GET /metr");
  auto unread = Connect();  // it asks, and doesn't read
  unread->Send("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  auto lingering = Connect();  // it never ends its side
  lingering->Send("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(Ends(*lingering));
  EXPECT_EQ(lingering->Status(), "HTTP/1.1 404 Not Found");
  const auto end = EventLoop::NowMs() + 20'000;
  while (m_server->Connections() > 0 && EventLoop::NowMs() < end) m_runner.Settle(10);
  EXPECT_EQ(m_server->Connections(), 0U);
  EXPECT_TRUE(silent->Receive());
  EXPECT_TRUE(slow->Receive());
  EXPECT_EQ(slow->Received(), "");
  EXPECT_TRUE(unread->Receive());
  EXPECT_LT(unread->Received().size(), m_text.size());
}

TEST_F(Metrics, TheOldestOfTooManyGoes) {
  m_options.maxConnections = 4;
  Open();
  std::vector<std::unique_ptr<Client>> idle;
  for (int i = 0; i < 50; ++i) {
    idle.push_back(Connect());
    m_runner.Settle(2);
    EXPECT_LE(m_server->Connections(), 4U);
  }
  EXPECT_EQ(m_server->Connections(), 4U);
  EXPECT_TRUE(idle.front()->Receive());
  EXPECT_FALSE(idle.back()->Receive());
  ExpectServed();
  EXPECT_EQ(m_server->Connections(), 4U);
  EXPECT_FALSE(idle.back()->Receive());
}

TEST_F(Metrics, ManyAtOnceAreServedOneBehindTheOther) {
  m_options.maxConnections = 8;
  Open();
  int served = 0;
  for (int i = 0; i < 100; ++i) {
    std::vector<std::unique_ptr<Client>> clients;
    for (int k = 0; k < 8; ++k) {
      clients.push_back(Connect());
      clients.back()->Send("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
    }
    for (auto& client : clients) {
      ASSERT_TRUE(Ends(*client));
      if (client->Body() == m_text) ++served;
    }
    clients.clear();
    m_runner.Settle(1);
  }
  EXPECT_EQ(served, 800);
}

TEST_F(Metrics, TheEndDropsWhoeverIsThere) {
  Open();
  auto idle = Connect();
  auto asking = Connect();
  asking->Send("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  m_runner.Settle();
  EXPECT_EQ(m_server->Connections(), 2U);
  m_server.reset();
  EXPECT_TRUE(Ends(*idle));
  EXPECT_TRUE(Ends(*asking));
}

TEST(MetricsEnd, TheServerMayGoWithoutTheLoopRunning) {
  const auto held = std::make_shared<int>(1);
  {
    EventLoop loop;
    Endpoint endpoint;
    ASSERT_EQ(Endpoint::Parse("127.0.0.1:0", endpoint), "");
    std::unique_ptr<MetricsServer> server;
    ASSERT_EQ(MetricsServer::Open(
                  loop, endpoint, [held] { return std::string(); }, server),
              "");
    Client client(server->Local());
    LoopRunner(loop).Settle(10);
    EXPECT_EQ(server->Connections(), 1U);
    server.reset();
  }
  EXPECT_EQ(held.use_count(), 1);
}

// --- Where. ---

TEST_F(Metrics, PortZeroIsChosen) {
  Open();
  EXPECT_NE(m_server->Local().port, 0);
  EXPECT_THAT(m_server->Local().Text(), StartsWith("127.0.0.1:"));
  Open("0.0.0.0:0");
  EXPECT_THAT(m_server->Local().Text(), StartsWith("0.0.0.0:"));
}

TEST_F(Metrics, AnAddressThatIsTakenOrNotOursIsTold) {
  Open();
  std::unique_ptr<MetricsServer> second;
  const auto none = [] { return std::string(); };
  EXPECT_EQ(MetricsServer::Open(m_loop, m_server->Local(), none, second),
            "can't serve metrics on " + m_server->Local().Text() + ": Address already in use");
  Endpoint elsewhere;
  ASSERT_EQ(Endpoint::Parse("192.0.2.1:9", elsewhere), "");
  EXPECT_THAT(MetricsServer::Open(m_loop, elsewhere, none, second),
              EndsWith("192.0.2.1:9: Cannot assign requested address"));
  EXPECT_EQ(second, nullptr);
}

TEST(MetricsPlaces, AreAddressesWithPorts) {
  Endpoint endpoint;
  EXPECT_EQ(ParseMetricsEndpoint("[::1]:9101", endpoint), "");
  EXPECT_EQ(endpoint.Text(), "[::1]:9101");
  EXPECT_THAT(ParseMetricsEndpoint("9101", endpoint), StartsWith("metrics: no port in '9101'"));
  EXPECT_EQ(ParseMetricsEndpoint("unix:/run/m.sock", endpoint),
            "metrics: give ADDR:PORT, they are not served on UNIX sockets");
  EXPECT_EQ(endpoint.Text(), "[::1]:9101");
}

}  // namespace
}  // namespace penstock
