// SPDX-License-Identifier: Apache-2.0
// Goal: whoever may connect gets through, by TCP and by UNIX sockets, and everybody else is told
// why not; nothing is left behind, nothing goes on for ever. Method: listeners and attempts on one
// loop.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "replicator/connection_impl.h"
#include "replicator/files.h"
#include "tests/replicator/connection_rig.h"

namespace penstock {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

using Listening = Connections;

TEST_F(Listening, UnixSocketsCarryFrames) {
  const auto path = m_folder / "s.sock";
  ASSERT_EQ(Connect(PlainListen(), PlainConnect(), "unix:" + path), "");
  EXPECT_EQ(ModeOf(path), 0600U);
  EXPECT_EQ(m_source.connection->PeerAddress(), "unix");
  StartBoth();
  m_source.connection->Send(BlockFrame(1, 1U << 20U));
  EXPECT_TRUE(TargetHas(1));
  m_listener = nullptr;
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(Listening, AUnixSocketOfALiveListenerIsNotReplaced) {
  const auto path = m_folder / "s.sock";
  Endpoint endpoint;
  ASSERT_EQ(Endpoint::Parse("unix:" + path, endpoint), "");
  ASSERT_EQ(Listen(endpoint, PlainListen()), "");
  std::unique_ptr<Listener> second;
  EXPECT_EQ(Listener::Open(m_loop, endpoint, PlainListen(), {}, second),
            "can't listen on unix:" + path + ": somebody listens there already");
  EXPECT_EQ(ConnectTo(endpoint, PlainConnect()), "");
}

TEST_F(Listening, AUnixSocketThatACrashLeftBehindIsReplaced) {
  Endpoint endpoint;
  ASSERT_EQ(Endpoint::Parse("unix:" + (m_folder / "s.sock"), endpoint), "");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::copy(endpoint.path.begin(), endpoint.path.end(), address.sun_path);
  {
    const Fd dead(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(dead.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }
  ASSERT_EQ(Listen(endpoint, PlainListen()), "");
  EXPECT_EQ(ConnectTo(endpoint, PlainConnect()), "");
}

TEST_F(Listening, AFileInAUnixSocketsPlaceIsLeftAlone) {
  const auto path = WriteText(m_folder / "file", "precious");
  Endpoint endpoint;
  ASSERT_EQ(Endpoint::Parse("unix:" + path, endpoint), "");
  EXPECT_EQ(Listen(endpoint, PlainListen()),
            "can't listen on unix:" + path + ": " + path + " exists, and is not a socket");
  EXPECT_EQ(ReadText(path), "precious");
}

TEST_F(Listening, PortZeroChoosesOneAndSaysWhich) {
  ConnectPlain();
  EXPECT_NE(m_listener->Local().port, 0);
  EXPECT_EQ(m_source.connection->PeerAddress(), m_listener->Local().Text());
  EXPECT_THAT(m_target.connection->PeerAddress(), StartsWith("127.0.0.1:"));
  EXPECT_EQ(m_source.connection->PeerIdentity(), "");
  EXPECT_FALSE(m_source.connection->IsEncrypted());
}

TEST_F(Listening, IPv6IsSpoken) {
  const auto fault = Connect(PlainListen(), PlainConnect(), "[::1]:0");
  if (fault.find("Cannot assign") != std::string::npos ||
      fault.find("not supported") != std::string::npos) {
    GTEST_SKIP() << "no IPv6 here: " << fault;
  }
  ASSERT_EQ(fault, "");
  EXPECT_THAT(m_listener->Local().Text(), StartsWith("[::1]:"));
}

TEST_F(Listening, AnAddressInUseIsTold) {
  ConnectPlain();
  std::unique_ptr<Listener> second;
  const auto local = m_listener->Local();
  EXPECT_EQ(Listener::Open(m_loop, local, PlainListen(), {}, second),
            "can't listen on " + local.Text() + ": Address already in use");
}

TEST_F(Listening, APortWhereNobodyListensIsTold) {
  Endpoint endpoint;
  ASSERT_EQ(Endpoint::Parse("127.0.0.1:0", endpoint), "");
  ASSERT_EQ(Listen(endpoint, PlainListen()), "");
  endpoint = m_listener->Local();
  m_listener = nullptr;
  EXPECT_EQ(ConnectTo(endpoint, PlainConnect()),
            "can't connect to " + endpoint.Text() + ": Connection refused");
}

TEST_F(Listening, NamesAreLookedUp) {
  Endpoint endpoint;
  ASSERT_EQ(Endpoint::Parse("localhost:0", endpoint), "");
  ASSERT_EQ(Listen(endpoint, PlainListen()), "");
  endpoint.port = m_listener->Local().port;
  EXPECT_EQ(ConnectTo(endpoint, PlainConnect()), "");
}

TEST_F(Listening, PlaintextIsRefusedWithoutLeave) {
  EXPECT_THAT(Connect({}, PlainConnect()), HasSubstr("give --tls-certs or --tls-psk"));
  EXPECT_THAT(Connect(PlainListen(), {}), HasSubstr("give --tls-certs or --tls-psk"));
  EXPECT_FALSE(m_accepted);
}

TEST_F(Listening, PlaintextIsRefusedBeyondTheMachine) {
  EXPECT_EQ(Connect(PlainListen(), PlainConnect(), "0.0.0.0:0"),
            "can't listen on 0.0.0.0:0: plaintext is for loopback addresses and UNIX sockets only; "
            "give --tls-certs or --tls-psk");
  Endpoint elsewhere;
  ASSERT_EQ(Endpoint::Parse("192.0.2.1:9", elsewhere), "");
  EXPECT_EQ(ConnectTo(elsewhere, PlainConnect()),
            "can't connect to 192.0.2.1:9: plaintext is for loopback addresses and UNIX sockets "
            "only; give --tls-certs or --tls-psk");
}

TEST_F(Listening, ConnectionsBeyondTheLimitAreRefused) {
  auto options = PlainListen();
  options.maxConnections = 1;
  ASSERT_EQ(Connect(options, PlainConnect()), "");
  auto first = std::move(m_target.connection);
  EXPECT_EQ(m_listener->Connections(), 1U);
  End other;
  std::swap(other, m_source);
  ASSERT_EQ(ConnectTo(m_listener->Local(), PlainConnect()), "");
  ASSERT_TRUE(m_runner.Until([&] { return !m_refused.empty(); }));
  EXPECT_EQ(m_refused, "too many connections: 1 are open");
  EXPECT_EQ(m_target.connection, nullptr);
  first = nullptr;
  EXPECT_EQ(m_listener->Connections(), 0U);
}

TEST_F(Listening, ConnectionsOutliveTheirListener) {
  ConnectPlain();
  m_listener = nullptr;
  StartBoth();
  m_source.connection->Send(SmallFrame(1));
  EXPECT_TRUE(TargetHas(1));
}

TEST_F(Listening, AnAttemptThatIsGivenUpCallsNothing) {
  Endpoint endpoint;
  ASSERT_EQ(Endpoint::Parse("127.0.0.1:0", endpoint), "");
  ASSERT_EQ(Listen(endpoint, PlainListen()), "");
  for (int turns = 0; turns < 2; ++turns) {
    bool called = false;
    {
      const ConnectAttempt attempt(m_loop, m_listener->Local(), PlainConnect(),
                                   [&](auto, const auto&) { called = true; });
      if (turns == 1) {
        m_loop.Post([&] { m_loop.Stop(); });
        m_loop.Run();
      }
    }
    m_runner.Settle();
    EXPECT_FALSE(called);
  }
}

TEST_F(Listening, AnAttemptEndsInTime) {
  // A listener whose queue is full answers nobody.
  Fd full(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  ASSERT_EQ(::bind(full.Get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(::listen(full.Get(), 0), 0);
  ASSERT_EQ(::getsockname(full.Get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  std::vector<Fd> fillers;
  for (int i = 0; i < 4; ++i) {
    fillers.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int result = ::connect(fillers.back().Get(), reinterpret_cast<sockaddr*>(&address), size);
    ASSERT_TRUE(result == 0 || errno == EINPROGRESS);
  }
  Endpoint endpoint;
  endpoint.host = "127.0.0.1";
  endpoint.port = ntohs(address.sin_port);
  auto options = PlainConnect();
  options.timeoutMs = 50;
  EXPECT_EQ(ConnectTo(endpoint, options),
            "can't connect to " + endpoint.Text() + ": no answer for 50 ms");
}

TEST_F(Listening, TcpIsTunedForIt) {
  ConnectPlain();
  int value = 0;
  socklen_t size = sizeof(value);
  const int fd = m_target.connection->m_impl->descriptor.native_handle();
  ASSERT_EQ(::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &value, &size), 0);
  EXPECT_EQ(value, 1);
  EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(Listening, TheCongestionControlIsAsTheEnvironmentSays) {
  ::setenv("PENSTOCK_TCP_CONGESTION", "reno", 1);
  ConnectPlain();
  ::unsetenv("PENSTOCK_TCP_CONGESTION");
  for (const auto* end : {&m_source, &m_target}) {
    std::array<char, 16> name{};
    socklen_t size = name.size();
    ASSERT_EQ(::getsockopt(end->connection->m_impl->descriptor.native_handle(), IPPROTO_TCP,
                           TCP_CONGESTION, name.data(), &size),
              0);
    EXPECT_STREQ(name.data(), "reno");
  }
}

}  // namespace
}  // namespace penstock
