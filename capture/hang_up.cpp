// SPDX-License-Identifier: Apache-2.0
#include "capture/hang_up.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <system_error>

#include "replicator/files.h"

namespace penstock {

namespace {

namespace fs = std::filesystem;

constexpr std::array kSignals = {SIGTERM, SIGINT, SIGQUIT};
constexpr int kAgainMs = 200;  // for a client that got in at the last moment
constexpr std::uint64_t kSignalled = 1;
constexpr std::uint64_t kEnded = std::uint64_t{1} << 32U;  // more than signals come

// What the handler needs: it may do next to nothing. The eventfd is readable when a signal came, or
// Stop; it is never closed, for a handler may be at it until the process ends.
std::atomic<int> g_wake{-1};
std::array<struct sigaction, kSignals.size()> g_before;

void OnSignal(int number, siginfo_t* info, void* context) {
  const int error = errno;
  [[maybe_unused]] const ssize_t written = ::write(g_wake, &kSignalled, sizeof(kSignalled));
  errno = error;
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    if (kSignals[i] != number) continue;
    const struct sigaction& before = g_before[i];
    if ((before.sa_flags & SA_SIGINFO) != 0) {
      before.sa_sigaction(number, info, context);
    } else if (before.sa_handler != SIG_DFL && before.sa_handler != SIG_IGN) {
      before.sa_handler(number);
    }
  }
}

// Only where there is a handler: a signal that ends the process needs no help.
void Chain() {
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    if (::sigaction(kSignals[i], nullptr, &g_before[i]) != 0) continue;
    struct sigaction chained = g_before[i];
    const bool hasHandler = (chained.sa_flags & SA_SIGINFO) != 0 ||
                            (chained.sa_handler != SIG_DFL && chained.sa_handler != SIG_IGN);
    if (!hasHandler) continue;
    chained.sa_flags |= SA_SIGINFO;
    chained.sa_sigaction = OnSignal;
    ::sigaction(kSignals[i], &chained, nullptr);
  }
}

void Unchain() {
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    struct sigaction now {};
    if (::sigaction(kSignals[i], nullptr, &now) != 0) continue;
    if ((now.sa_flags & SA_SIGINFO) == 0 || now.sa_sigaction != OnSignal) continue;
    ::sigaction(kSignals[i], &g_before[i], nullptr);
  }
}

// Calls `visit` with each stream socket of the process. Each is held by a descriptor of our own:
// the number that it was found under may name something else by then.
std::string EachSocket(const std::function<void(int, bool isListening)>& visit) {
  std::error_code error;
  std::vector<int> numbers;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd", error)) {
    const std::string name = entry.path().filename().string();
    int number = -1;
    std::from_chars(name.data(), name.data() + name.size(), number);
    numbers.push_back(number);
  }
  if (error) return "can't read /proc/self/fd: " + error.message();
  for (const int number : numbers) {
    const Fd held(::fcntl(number, F_DUPFD_CLOEXEC, 0));
    int type = 0;
    int isListening = 0;
    socklen_t size = sizeof(int);
    if (!held || ::getsockopt(held.Get(), SOL_SOCKET, SO_TYPE, &type, &size) != 0) continue;
    size = sizeof(int);
    if (::getsockopt(held.Get(), SOL_SOCKET, SO_ACCEPTCONN, &isListening, &size) != 0) continue;
    if (type == SOCK_STREAM) visit(held.Get(), isListening != 0);
  }
  return {};
}

bool NameOf(int socket, SocketName& out) {
  out.length = sizeof(out.address);
  return ::getsockname(socket, reinterpret_cast<sockaddr*>(&out.address), &out.length) == 0;
}

template <class Address>
Address As(const SocketName& name) {
  Address address{};
  std::memcpy(&address, &name.address, std::min<std::size_t>(sizeof(address), name.length));
  return address;
}

}  // namespace

bool IsAcceptedAt(const SocketName& here, const SocketName& listens) {
  if (here.address.ss_family != listens.address.ss_family) return false;
  switch (here.address.ss_family) {
    case AF_UNIX:
      // One without a name is a client's own end.
      return here.length > offsetof(sockaddr_un, sun_path) && here.length == listens.length &&
             std::memcmp(&here.address, &listens.address, here.length) == 0;
    case AF_INET: return As<sockaddr_in>(here).sin_port == As<sockaddr_in>(listens).sin_port;
    case AF_INET6: return As<sockaddr_in6>(here).sin6_port == As<sockaddr_in6>(listens).sin6_port;
    default: return false;
  }
}

std::string HangUp::Start() {
  auto fault = EachSocket([this](int socket, bool isListening) {
    SocketName name;
    if (isListening && NameOf(socket, name)) m_listeners.push_back(name);
  });
  if (!fault.empty()) return fault;
  if (g_wake < 0) g_wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (g_wake < 0) return "can't make an eventfd: " + ErrnoText(errno);
  Chain();
  m_thread = std::thread([this] { Run(); });
  return {};
}

void HangUp::Stop() {
  if (!m_thread.joinable()) return;
  Unchain();
  [[maybe_unused]] const ssize_t written = ::write(g_wake, &kEnded, sizeof(kEnded));
  m_thread.join();
}

void HangUp::Run() const {
  bool isTold = false;
  for (;;) {
    pollfd wake{g_wake, POLLIN, 0};
    if (::poll(&wake, 1, isTold ? kAgainMs : -1) < 0 && errno != EINTR) return;
    std::uint64_t count = 0;
    if (::read(g_wake, &count, sizeof(count)) != sizeof(count)) count = 0;
    if (count >= kEnded) return;
    isTold = isTold || count > 0;
    if (isTold) ShutDown();
  }
}

void HangUp::ShutDown() const {
  EachSocket([this](int socket, bool isListening) {
    SocketName here;
    if (isListening || !NameOf(socket, here)) return;
    for (const SocketName& listens : m_listeners) {
      if (IsAcceptedAt(here, listens)) ::shutdown(socket, SHUT_RD);
    }
  });
}

}  // namespace penstock
