// SPDX-License-Identifier: Apache-2.0
// Making sockets. Nothing here waits, but for the resolver's answer to a name.
#ifndef PENSTOCK_REPLICATOR_SOCKET_H_
#define PENSTOCK_REPLICATOR_SOCKET_H_

#include <sys/socket.h>

#include <string>
#include <vector>

#include "replicator/endpoint.h"
#include "replicator/files.h"

namespace penstock {

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;

  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }
  sockaddr* Get() { return reinterpret_cast<sockaddr*>(&storage); }
  std::string Host() const;  // numeric; empty for UNIX
  std::string Text() const;  // "192.0.2.1:4711", "[::1]:4711", "unix", "socket"
  bool IsLocal() const;      // a UNIX socket or a loopback address
};

// Every address that an endpoint stands for. May ask the network for a name.
std::string Resolve(const Endpoint& endpoint, bool toListen, std::vector<SocketAddress>& out);

// A listening socket that doesn't block. `local` gets its address, with the port that was chosen.
std::string ListenOn(const Endpoint& endpoint, const SocketAddress& address, Fd& out,
                     SocketAddress& local);

// A socket that begins to connect. Returns an empty text when it is connected or on its way.
std::string BeginConnect(const SocketAddress& address, int bufferBytes, Fd& out);
// Whether the attempt came to a good end. REQUIRES: the socket is writable.
std::string EndConnect(int fd);

// The next connection; an empty `out` without an error when there is none at the moment.
std::string AcceptFrom(int fd, Fd& out, SocketAddress& peer);

// For a connected socket: it does not block, sends at once, has buffers of this size (0: the
// system's), and, with TCP, the congestion control that PENSTOCK_TCP_CONGESTION names.
void TuneSocket(int fd, int bufferBytes);

SocketAddress PeerOf(int fd);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_SOCKET_H_
