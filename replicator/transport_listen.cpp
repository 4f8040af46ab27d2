// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <set>
#include <utility>
#include <vector>

#include "replicator/connection_impl.h"
#include "replicator/socket.h"
#include "replicator/tls.h"

namespace penstock {

using boost::asio::posix::stream_descriptor;

struct Listener::Impl : std::enable_shared_from_this<Listener::Impl> {
  Impl(EventLoop& theLoop, Fd fd, Endpoint theLocal, ListenOptions theOptions,
       Callbacks theCallbacks)
      : loop(theLoop),
        descriptor(theLoop.Internal().io, fd.Release()),
        local(std::move(theLocal)),
        options(std::move(theOptions)),
        callbacks(std::move(theCallbacks)) {}

  void Wait();
  void AcceptSome();
  void Admit(Fd fd, const SocketAddress& peer);
  void HandOver(const std::shared_ptr<Connection::Impl>& connection, const std::string& fault);
  void Refuse(const std::string& address, const std::string& reason) const {
    const auto callback = callbacks.onRefused;  // which may destroy the listener
    if (callback) callback(address, reason);
  }
  void Close();

  EventLoop& loop;
  stream_descriptor descriptor;
  Endpoint local;
  ListenOptions options;
  Callbacks callbacks;
  bool isClosed = false;
  EventLoop::TimerId retryTimer = 0;
  // Shared with the connections, which may outlive the listener.
  std::shared_ptr<std::size_t> live = std::make_shared<std::size_t>(0);
  std::set<std::shared_ptr<Connection::Impl>> handshakes;
};

void Listener::Impl::Wait() {
  descriptor.async_wait(stream_descriptor::wait_read,
                        [weak = weak_from_this()](const boost::system::error_code& error) {
                          const auto self = weak.lock();
                          if (self && !error) self->AcceptSome();
                        });
}

void Listener::Impl::AcceptSome() {
  constexpr int kMostATurn = 16;
  constexpr std::uint64_t kRetryMs = 1000;
  for (int i = 0; i < kMostATurn && !isClosed; ++i) {
    Fd fd;
    SocketAddress peer;
    const auto fault = AcceptFrom(descriptor.native_handle(), fd, peer);
    if (!fault.empty()) {
      // It stays readable: without a pause the loop would do nothing else.
      retryTimer = loop.After(kRetryMs, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->AcceptSome();
      });
      return Refuse("", "can't accept a connection: " + fault);
    }
    if (!fd) break;
    Admit(std::move(fd), peer);
  }
  if (!isClosed) Wait();
}

void Listener::Impl::Admit(Fd fd, const SocketAddress& peer) {
  const auto address = peer.Text();
  if (*live >= options.maxConnections) {
    return Refuse(address, "too many connections: " + std::to_string(*live) + " are open");
  }
  TuneSocket(fd.Get(), options.connection.socketBufferBytes);
  std::string fault;
  auto stream =
      options.tls ? MakeTlsStream(options.tls, fd.Get(), {}, fault) : MakePlainStream(fd.Get());
  if (!stream) return Refuse(address, fault);
  const auto connection = std::make_shared<Connection::Impl>(loop, std::move(fd), std::move(stream),
                                                             options.connection, address);
  ++*live;
  connection->slot = std::shared_ptr<void>(nullptr, [count = live](void*) { --*count; });
  handshakes.insert(connection);
  connection->BeginHandshake(
      [weak = weak_from_this(), held = connection.get()](const std::string& text) {
        const auto self = weak.lock();
        if (self) self->HandOver(held->shared_from_this(), text);
      });
}

void Listener::Impl::HandOver(const std::shared_ptr<Connection::Impl>& connection,
                              const std::string& fault) {
  handshakes.erase(connection);
  if (!fault.empty()) return Refuse(connection->peerAddress, fault);
  const auto callback = callbacks.onAccepted;
  if (callback) callback(std::make_unique<Connection>(connection));
}

void Listener::Impl::Close() {
  if (isClosed) return;
  isClosed = true;
  loop.Cancel(retryTimer);
  boost::system::error_code ignored;
  descriptor.close(ignored);
  for (const auto& connection : handshakes) {
    connection->onHandshake = nullptr;
    connection->End({});
  }
  handshakes.clear();
  if (local.isUnix) ::unlink(local.path.c_str());
}

Listener::Listener(std::shared_ptr<Impl> impl) : m_impl(std::move(impl)) {}
Listener::~Listener() { m_impl->Close(); }

std::string Listener::Open(EventLoop& loop, const Endpoint& endpoint, const ListenOptions& options,
                           Callbacks callbacks, std::unique_ptr<Listener>& out) {
  const auto where = "can't listen on " + endpoint.Text() + ": ";
  if (!options.tls && !options.allowPlaintext) {
    return where +
           "nothing proves who connects; give --tls-certs or --tls-psk, or, on a loopback "
           "address or a UNIX socket, --plaintext";
  }
  std::vector<SocketAddress> addresses;
  auto fault = Resolve(endpoint, true, addresses);
  if (!fault.empty()) return where + fault;
  for (const auto& address : addresses) {
    if (!options.tls && !address.IsLocal()) {
      return where +
             "plaintext is for loopback addresses and UNIX sockets only; give --tls-certs "
             "or --tls-psk";
    }
  }
  Fd fd;
  SocketAddress bound;
  for (const auto& address : addresses) {
    fault = ListenOn(endpoint, address, fd, bound);
    if (fault.empty()) break;
  }
  if (!fault.empty()) return where + fault;
  auto local = endpoint;
  if (!endpoint.isUnix) {
    fault = Endpoint::Parse(bound.Text(), local);
    if (!fault.empty()) return where + fault;
  }
  auto impl =
      std::make_shared<Impl>(loop, std::move(fd), std::move(local), options, std::move(callbacks));
  impl->Wait();
  out = std::make_unique<Listener>(std::move(impl));
  return {};
}

const Endpoint& Listener::Local() const { return m_impl->local; }
std::size_t Listener::Connections() const { return *m_impl->live; }

}  // namespace penstock
