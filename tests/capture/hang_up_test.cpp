// SPDX-License-Identifier: Apache-2.0
// Goal: a signal to stop ends what clients of the process can say, and no other connection of it.
#include "capture/hang_up.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>

#include "replicator/files.h"

namespace penstock {
namespace {

int g_calls = 0;
void CountCall(int /*number*/) { ++g_calls; }

SocketName NameOfUnix(const std::string& path) {
  SocketName name;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  std::memcpy(&name.address, &address, sizeof(address));
  name.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
  return name;
}

SocketName NameOfPort(const char* host, std::uint16_t port) {
  SocketName name;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  ::inet_pton(AF_INET, host, &address.sin_addr);
  std::memcpy(&name.address, &address, sizeof(address));
  name.length = sizeof(address);
  return name;
}

const sockaddr* AddressOf(const SocketName& name) {
  return reinterpret_cast<const sockaddr*>(&name.address);
}

// A listener, and a connection that it accepted.
struct Served {
  explicit Served(const std::string& path) : name(NameOfUnix(path)) {
    listener.Reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::bind(listener.Get(), AddressOf(name), name.length), 0);
    EXPECT_EQ(::listen(listener.Get(), 1), 0);
  }
  void Connect() {
    client.Reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::connect(client.Get(), AddressOf(name), name.length), 0);
    accepted.Reset(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_TRUE(accepted);
  }
  bool IsAtItsEnd(int waitMs) const {
    pollfd end{accepted.Get(), POLLIN, 0};
    char byte = 0;
    return ::poll(&end, 1, waitMs) == 1 && ::read(accepted.Get(), &byte, 1) == 0;
  }
  SocketName name;
  Fd listener, client, accepted;
};

class HangUps : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "penstock-XXXXXX").string();
    m_folder = ::mkdtemp(pattern.data());
    g_calls = 0;
    m_before = std::signal(SIGTERM, CountCall);
  }
  void TearDown() override {
    std::signal(SIGTERM, m_before);
    std::filesystem::remove_all(m_folder);
  }
  std::string m_folder;

 private:
  void (*m_before)(int) = nullptr;
};

TEST_F(HangUps, AConnectionBelongsToTheListenerOfItsPathOrPort) {
  EXPECT_TRUE(IsAcceptedAt(NameOfUnix("/a"), NameOfUnix("/a")));
  EXPECT_FALSE(IsAcceptedAt(NameOfUnix("/a"), NameOfUnix("/b")));
  EXPECT_FALSE(IsAcceptedAt(NameOfUnix("/a"), NameOfUnix("/ab")));
  EXPECT_TRUE(IsAcceptedAt(NameOfPort("127.0.0.1", 10809), NameOfPort("0.0.0.0", 10809)));
  EXPECT_FALSE(IsAcceptedAt(NameOfPort("127.0.0.1", 40000), NameOfPort("0.0.0.0", 10809)));
  EXPECT_FALSE(IsAcceptedAt(NameOfPort("127.0.0.1", 10809), NameOfUnix("/a")));
  SocketName unnamed;
  unnamed.address.ss_family = AF_UNIX;
  unnamed.length = sizeof(sa_family_t);
  EXPECT_FALSE(IsAcceptedAt(unnamed, unnamed));
}

TEST_F(HangUps, ASignalEndsWhatClientsOfEarlierListenersSay) {
  Served guests(m_folder + "/guests");
  guests.Connect();
  HangUp hangUp;
  ASSERT_EQ(hangUp.Start(), "");
  Served own(m_folder + "/own");
  own.Connect();
  EXPECT_FALSE(guests.IsAtItsEnd(0));
  std::raise(SIGTERM);
  EXPECT_TRUE(guests.IsAtItsEnd(10'000));
  EXPECT_FALSE(own.IsAtItsEnd(300));
  EXPECT_EQ(g_calls, 1) << "the handler that was there before is called, too";
  // What is to be answered still is.
  EXPECT_EQ(::write(guests.accepted.Get(), "x", 1), 1);
}

TEST_F(HangUps, WhoGetsInAfterTheSignalIsHungUpOnToo) {
  Served guests(m_folder + "/guests");
  HangUp hangUp;
  ASSERT_EQ(hangUp.Start(), "");
  std::raise(SIGTERM);
  guests.Connect();
  EXPECT_TRUE(guests.IsAtItsEnd(10'000));
}

TEST_F(HangUps, AfterItsEndASignalIsItsFormerHandlersAlone) {
  Served guests(m_folder + "/guests");
  guests.Connect();
  {
    HangUp hangUp;
    ASSERT_EQ(hangUp.Start(), "");
  }
  std::raise(SIGTERM);
  EXPECT_EQ(g_calls, 1);
  EXPECT_FALSE(guests.IsAtItsEnd(300));
  HangUp again;
  ASSERT_EQ(again.Start(), "");
  std::raise(SIGTERM);
  EXPECT_TRUE(guests.IsAtItsEnd(10'000));
  EXPECT_EQ(g_calls, 2);
}

}  // namespace
}  // namespace penstock
