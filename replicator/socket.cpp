// SPDX-License-Identifier: Apache-2.0
#include "replicator/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "replicator/log.h"

namespace penstock {

namespace {

constexpr int kBacklog = 128;

SocketAddress UnixAddress(const std::string& path) {
  SocketAddress address;
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  std::memcpy(name.sun_path, path.data(), std::min(path.size(), sizeof(name.sun_path) - 1));
  std::memcpy(&address.storage, &name, sizeof(name));
  address.size = sizeof(name);
  return address;
}

// The file of a UNIX socket outlives whoever listened on it. One that nobody answers on goes.
std::string RemoveStale(const std::string& path, const SocketAddress& address) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return {};
  if (!S_ISSOCK(info.st_mode)) return path + " exists, and is not a socket";
  const Fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (::connect(probe.Get(), address.Get(), address.size) == 0 || errno == EAGAIN) {
    return "somebody listens there already";
  }
  if (errno != ECONNREFUSED) return ErrnoText(errno);
  return ::unlink(path.c_str()) == 0 ? "" : ErrnoText(errno);
}

void SetOption(int fd, int level, int name, int value) {
  ::setsockopt(fd, level, name, &value, sizeof(value));
}

void SetBuffers(int fd, int bytes) {
  if (bytes <= 0) return;
  SetOption(fd, SOL_SOCKET, SO_SNDBUF, bytes);
  SetOption(fd, SOL_SOCKET, SO_RCVBUF, bytes);
}

std::string BindUnix(const Endpoint& endpoint, const SocketAddress& address, int fd) {
  if (auto fault = RemoveStale(endpoint.path, address); !fault.empty()) return fault;
  if (::bind(fd, address.Get(), address.size) != 0) return ErrnoText(errno);
  // Nobody can connect before it listens: the file is private in time.
  return ::chmod(endpoint.path.c_str(), 0600) == 0 ? "" : ErrnoText(errno);
}

}  // namespace

std::string SocketAddress::Host() const {
  std::array<char, INET6_ADDRSTRLEN + IF_NAMESIZE + 1> text{};
  if (storage.ss_family == AF_UNIX ||
      ::getnameinfo(Get(), size, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST) != 0) {
    return {};
  }
  return text.data();
}

std::string SocketAddress::Text() const {
  if (storage.ss_family == AF_UNIX) return "unix";
  if (storage.ss_family != AF_INET && storage.ss_family != AF_INET6) return "socket";
  std::array<char, 8> port{};
  ::getnameinfo(Get(), size, nullptr, 0, port.data(), port.size(), NI_NUMERICSERV);
  const auto host = Host();
  return (storage.ss_family == AF_INET6 ? "[" + host + "]" : host) + ":" + port.data();
}

bool SocketAddress::IsLocal() const { return storage.ss_family == AF_UNIX || IsLoopback(Host()); }

std::string Resolve(const Endpoint& endpoint, bool toListen, std::vector<SocketAddress>& out) {
  if (endpoint.isUnix) {
    out = {UnixAddress(endpoint.path)};
    return {};
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV | (toListen ? AI_PASSIVE : 0);
  addrinfo* list = nullptr;
  const auto port = std::to_string(endpoint.port);
  const int error = ::getaddrinfo(endpoint.host.c_str(), port.c_str(), &hints, &list);
  if (error != 0) {
    return "no address of " + endpoint.host + ": " +
           (error == EAI_SYSTEM ? ErrnoText(errno) : std::string(::gai_strerror(error)));
  }
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(list, ::freeaddrinfo);
  out.clear();
  for (const auto* info = list; info != nullptr; info = info->ai_next) {
    auto& address = out.emplace_back();
    std::memcpy(&address.storage, info->ai_addr, info->ai_addrlen);
    address.size = info->ai_addrlen;
  }
  return {};
}

std::string ListenOn(const Endpoint& endpoint, const SocketAddress& address, Fd& out,
                     SocketAddress& local) {
  const int family = address.storage.ss_family;
  Fd fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) return ErrnoText(errno);
  if (endpoint.isUnix) {
    if (auto fault = BindUnix(endpoint, address, fd.Get()); !fault.empty()) return fault;
  } else {
    SetOption(fd.Get(), SOL_SOCKET, SO_REUSEADDR, 1);
    if (family == AF_INET6) SetOption(fd.Get(), IPPROTO_IPV6, IPV6_V6ONLY, 1);
    if (::bind(fd.Get(), address.Get(), address.size) != 0) return ErrnoText(errno);
  }
  if (::listen(fd.Get(), kBacklog) != 0) return ErrnoText(errno);
  local.size = sizeof(local.storage);
  if (::getsockname(fd.Get(), local.Get(), &local.size) != 0) return ErrnoText(errno);
  out = std::move(fd);
  return {};
}

std::string BeginConnect(const SocketAddress& address, int bufferBytes, Fd& out) {
  Fd fd(::socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) return ErrnoText(errno);
  SetBuffers(fd.Get(), bufferBytes);  // before it is connected: the window's scale depends on it
  if (::connect(fd.Get(), address.Get(), address.size) != 0 && errno != EINPROGRESS) {
    return ErrnoText(errno);
  }
  out = std::move(fd);
  return {};
}

std::string EndConnect(int fd) {
  int error = 0;
  socklen_t size = sizeof(error);
  if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
  return error == 0 ? "" : ErrnoText(error);
}

std::string AcceptFrom(int fd, Fd& out, SocketAddress& peer) {
  peer.size = sizeof(peer.storage);
  const int accepted = ::accept4(fd, peer.Get(), &peer.size, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (accepted >= 0) {
    out.Reset(accepted);
    return {};
  }
  switch (errno) {
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM: return ErrnoText(errno);
    default: return {};  // nobody there, or gone again
  }
}

void TuneSocket(int fd, int bufferBytes) {
  const int flags = ::fcntl(fd, F_GETFL);
  ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  SetBuffers(fd, bufferBytes);
  int domain = 0;
  socklen_t size = sizeof(domain);
  ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size);
  if (domain != AF_INET && domain != AF_INET6) return;
  SetOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  const char* congestion = std::getenv("PENSTOCK_TCP_CONGESTION");
  if (congestion == nullptr || *congestion == '\0') return;
  const auto length = static_cast<socklen_t>(std::strlen(congestion));
  if (::setsockopt(fd, IPPROTO_TCP, TCP_CONGESTION, congestion, length) != 0) {
    Log(Severity::kWarning, "no such TCP congestion control",
        {{"name", congestion}, {"error", ErrnoText(errno)}});
  }
}

SocketAddress PeerOf(int fd) {
  SocketAddress peer;
  peer.size = sizeof(peer.storage);
  if (::getpeername(fd, peer.Get(), &peer.size) != 0) peer.storage.ss_family = AF_UNSPEC;
  return peer;
}

}  // namespace penstock
