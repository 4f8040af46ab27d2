// SPDX-License-Identifier: Apache-2.0
#include <boost/asio/ip/tcp.hpp>
#include <cstring>
#include <utility>
#include <vector>

#include "replicator/connection_impl.h"
#include "replicator/socket.h"
#include "replicator/tls.h"

namespace penstock {

using boost::asio::ip::tcp;
using boost::asio::posix::stream_descriptor;

struct ConnectAttempt::Impl : std::enable_shared_from_this<ConnectAttempt::Impl> {
  Impl(EventLoop& theLoop, Endpoint theEndpoint, ConnectOptions theOptions, Handler theHandler)
      : loop(theLoop),
        endpoint(std::move(theEndpoint)),
        options(std::move(theOptions)),
        handler(std::move(theHandler)),
        resolver(theLoop.Internal().io) {}

  void Begin();
  void LookUp();
  void TryNext();
  void OnConnected();
  void Wrap(Fd fd);
  void Finish(const std::string& error);
  void Cancel();

  EventLoop& loop;
  const Endpoint endpoint;
  const ConnectOptions options;
  Handler handler;
  tcp::resolver resolver;
  std::vector<SocketAddress> addresses;
  std::size_t next = 0;  // of the addresses
  std::string lastFault = "it has no address";
  std::unique_ptr<stream_descriptor> descriptor;  // while it connects
  EventLoop::TimerId timer = 0;
  std::shared_ptr<Connection::Impl> connection;
};

void ConnectAttempt::Impl::Begin() {
  if (!options.tls && !options.allowPlaintext) {
    return Finish(
        "nothing proves who we are; give --tls-certs or --tls-psk, or, on a loopback "
        "address or a UNIX socket, --plaintext");
  }
  if (!endpoint.isUnix) return LookUp();
  if (const auto fault = Resolve(endpoint, false, addresses); !fault.empty()) return Finish(fault);
  TryNext();
}

// A numeric address needs no look-up; a name's is done by a thread of the resolver.
void ConnectAttempt::Impl::LookUp() {
  resolver.async_resolve(endpoint.host, std::to_string(endpoint.port),
                         tcp::resolver::numeric_service,
                         [weak = weak_from_this()](const boost::system::error_code& error,
                                                   const tcp::resolver::results_type& results) {
                           const auto self = weak.lock();
                           if (!self) return;
                           if (error)
                             return self->Finish("no address of this name: " + error.message());
                           for (const auto& result : results) {
                             auto& address = self->addresses.emplace_back();
                             const auto place = result.endpoint();
                             std::memcpy(&address.storage, place.data(), place.size());
                             address.size = static_cast<socklen_t>(place.size());
                           }
                           self->TryNext();
                         });
}

void ConnectAttempt::Impl::TryNext() {
  loop.Cancel(timer);
  descriptor = nullptr;
  Fd fd;
  while (next < addresses.size() && !fd) {
    const auto& address = addresses[next++];
    if (!options.tls && !address.IsLocal()) {
      lastFault =
          "plaintext is for loopback addresses and UNIX sockets only; give --tls-certs or "
          "--tls-psk";
    } else {
      lastFault = BeginConnect(address, options.connection.socketBufferBytes, fd);
    }
  }
  if (!fd) return Finish(lastFault);
  descriptor = std::make_unique<stream_descriptor>(loop.Internal().io, fd.Release());
  timer = loop.After(options.timeoutMs, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->lastFault = "no answer for " + std::to_string(self->options.timeoutMs) + " ms";
    self->TryNext();
  });
  descriptor->async_wait(stream_descriptor::wait_write,
                         [weak = weak_from_this()](const boost::system::error_code& error) {
                           const auto self = weak.lock();
                           if (self && !error) self->OnConnected();
                         });
}

void ConnectAttempt::Impl::OnConnected() {
  lastFault = EndConnect(descriptor->native_handle());
  if (!lastFault.empty()) return TryNext();
  loop.Cancel(timer);
  Fd fd(descriptor->release());
  descriptor = nullptr;
  Wrap(std::move(fd));
}

void ConnectAttempt::Impl::Wrap(Fd fd) {
  TuneSocket(fd.Get(), options.connection.socketBufferBytes);
  std::string fault;
  const auto& name = options.peerName.empty() ? endpoint.host : options.peerName;
  auto stream =
      options.tls ? MakeTlsStream(options.tls, fd.Get(), name, fault) : MakePlainStream(fd.Get());
  if (!stream) return Finish(fault);
  const auto address = PeerOf(fd.Get()).Text();
  connection = std::make_shared<Connection::Impl>(loop, std::move(fd), std::move(stream),
                                                  options.connection, address);
  connection->BeginHandshake([weak = weak_from_this()](const std::string& text) {
    if (const auto self = weak.lock()) self->Finish(text);
  });
}

void ConnectAttempt::Impl::Finish(const std::string& error) {
  const auto callback = std::exchange(handler, {});
  const auto made = std::exchange(connection, {});
  if (!callback) return;
  if (!error.empty()) {
    return callback(nullptr, "can't connect to " + endpoint.Text() + ": " + error);
  }
  callback(std::make_unique<Connection>(made), {});
}

void ConnectAttempt::Impl::Cancel() {
  handler = nullptr;
  loop.Cancel(timer);
  resolver.cancel();
  descriptor = nullptr;
  if (connection) {
    connection->onHandshake = nullptr;
    connection->End({});
  }
}

ConnectAttempt::ConnectAttempt(EventLoop& loop, const Endpoint& endpoint,
                               const ConnectOptions& options, Handler handler)
    : m_impl(std::make_shared<Impl>(loop, endpoint, options, std::move(handler))) {
  loop.Post([weak = std::weak_ptr<Impl>(m_impl)] {
    if (const auto self = weak.lock()) self->Begin();
  });
}

ConnectAttempt::~ConnectAttempt() { m_impl->Cancel(); }

}  // namespace penstock
