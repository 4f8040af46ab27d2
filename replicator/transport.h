// SPDX-License-Identifier: Apache-2.0
// Connections that carry frames: over TCP, TLS over TCP, UNIX sockets and socket pairs.
#ifndef PENSTOCK_REPLICATOR_TRANSPORT_H_
#define PENSTOCK_REPLICATOR_TRANSPORT_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "engine/wire/frame.h"
#include "replicator/endpoint.h"
#include "replicator/event_loop.h"

namespace penstock {

class TlsContext;

struct ConnectionOptions {
  std::uint32_t handshakeTimeoutMs =
      10'000;                             // from the accepted or connected socket to an identity
  std::uint32_t firstFrameTimeoutMs = 0;  // from Start to the first whole frame; 0: none
  std::uint32_t progressTimeoutMs =
      30'000;                             // without a byte, within a frame that was begun; 0: none
  std::uint32_t idleTimeoutMs = 0;        // without a byte at all; 0: none
  std::uint32_t flushTimeoutMs = 10'000;  // for what is queued, after Close
  std::size_t lowWaterBytes = 1U << 20U;  // see Callbacks::onDrained
  // Of the socket, each direction; 0: the system's, which grows a TCP window as it is needed.
  int socketBufferBytes = 0;
  std::uint64_t rateLimit = 0;  // bytes a second that are sent; 0: none
};

// One connection: the stream, a FrameReader and a FrameWriter.
//
// States: made, started, closing (what is queued is still sent, nothing is read), closed.
//
// Ends when the peer ends it, at a failure, at a frame that the reader refuses, at a timeout, and
// when its owner closes it. Each of them calls onClosed once, never from within a call of the
// owner. Destroying the object closes at once and calls nothing any more; it may be done in any
// callback.
//
// Threads: the loop's. PauseReading and the timeouts: while reading is paused none of them runs.
//
//   connection->Start({.onFrame = [&](Frame f) { Take(std::move(f)); },
//                      .onClosed = [&](const std::string& why) { Lost(why); }});
//   connection->Send(Encode(hello));
class Connection {
 public:
  struct Callbacks {
    std::function<void(Frame)> onFrame = {};
    std::function<void(const std::string& reason)> onClosed = {};
    // Called when what is queued falls below the low-water mark after having been at or above it.
    std::function<void()> onDrained = {};
  };

  // Takes a connected stream socket, and the descriptor's ownership: one of socketpair, say.
  // Without TLS, whatever the address: the caller knows where it came from.
  static std::unique_ptr<Connection> OfSocket(EventLoop& loop, int fd,
                                              const ConnectionOptions& options = {});
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Begins to read and to call back. What was sent before is sent. REQUIRES: not called before.
  void Start(Callbacks callbacks);

  // Queues a frame: it is sent in the order of the calls, with as many others as there are at a
  // time; PING, PONG and PROGRESS pass what waits. Its payload is not copied (but encrypted, with
  // TLS). After the end it is dropped.
  void Send(Frame frame);
  // Of frames that were queued and that the system has not taken yet, headers included.
  std::size_t BytesQueued() const;

  // No frame is delivered from here on (also none that has come already), and the peer is held up
  // when the buffers are full.
  void PauseReading();
  void ResumeReading();

  // Of the frames that are delivered and queued from here on: see FrameReader and FrameWriter.
  void SetSeeds(std::uint64_t readSeed, std::uint64_t writeSeed);
  void AllowAll();

  void SetRateLimit(std::uint64_t bytesPerSecond);  // 0: none

  void Close();                           // sends what is queued first
  void Abort(const std::string& reason);  // at once

  // Who is at the other end, as it proved: the first DNS or URI name of its certificate, or the
  // name of its pre-shared key; empty without TLS.
  const std::string& PeerIdentity() const;
  // Whether it ended because a frame was refused by the reader.
  bool IsDamaged() const;
  const std::string& PeerAddress() const;  // "192.0.2.1:4711", "unix", "socket"
  bool IsEncrypted() const;
  std::string Cipher() const;  // empty without TLS

  std::uint64_t BytesReceived() const;  // of frames, headers included
  std::uint64_t BytesSent() const;

  struct Impl;
  explicit Connection(std::shared_ptr<Impl> impl);

 private:
  std::shared_ptr<Impl> m_impl;
};

struct ListenOptions {
  ListenOptions() { connection.firstFrameTimeoutMs = 10'000; }

  std::shared_ptr<TlsContext> tls;  // of a server; null: plaintext
  // Without it, plaintext is refused. With it, it is still refused on anything but a loopback
  // address or a UNIX socket.
  bool allowPlaintext = false;
  std::size_t maxConnections = 64;  // that live at a time; those in their handshake count
  ConnectionOptions connection;
};

// Accepts connections. A connection is handed over when its handshake is done and its peer known;
// one beyond the limit, or whose handshake fails, is closed and reported as refused.
//
// Threads: the loop's. May be destroyed in its callbacks; connections that were handed over live
// on.
class Listener {
 public:
  struct Callbacks {
    std::function<void(std::unique_ptr<Connection>)> onAccepted = {};
    std::function<void(const std::string& address, const std::string& reason)> onRefused = {};
  };

  // Returns an empty text, or why it can't listen: "can't listen on 10.0.0.1:7000: Address already
  // in use". A UNIX socket that nobody listens on any more is replaced; its file has mode 0600.
  static std::string Open(EventLoop& loop, const Endpoint& endpoint, const ListenOptions& options,
                          Callbacks callbacks, std::unique_ptr<Listener>& out);
  // Stops accepting; connections in their handshake are closed; a UNIX socket's file is removed.
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  const Endpoint& Local() const;    // with the port that was chosen
  std::size_t Connections() const;  // that live, those handed over included

  struct Impl;
  explicit Listener(std::shared_ptr<Impl> impl);

 private:
  std::shared_ptr<Impl> m_impl;
};

struct ConnectOptions {
  std::shared_ptr<TlsContext> tls;   // of a client; null: plaintext
  bool allowPlaintext = false;       // as for listening
  std::string peerName;              // that the server's certificate must carry; empty: the host
  std::uint32_t timeoutMs = 10'000;  // until the stream is connected, each address
  ConnectionOptions connection;
};

// An attempt to connect. Destroying it gives the attempt up: nothing is called any more.
class ConnectAttempt {
 public:
  // A connection and an empty text, or none and the reason.
  using Handler = std::function<void(std::unique_ptr<Connection>, const std::string& error)>;

  // Connects; the handler is called once, never from within this call. The addresses of a name are
  // tried one after the other.
  ConnectAttempt(EventLoop& loop, const Endpoint& endpoint, const ConnectOptions& options,
                 Handler handler);
  ~ConnectAttempt();
  ConnectAttempt(const ConnectAttempt&) = delete;
  ConnectAttempt& operator=(const ConnectAttempt&) = delete;

  struct Impl;

 private:
  std::shared_ptr<Impl> m_impl;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_TRANSPORT_H_
