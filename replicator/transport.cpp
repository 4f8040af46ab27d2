// SPDX-License-Identifier: Apache-2.0
#include "replicator/transport.h"

#include <algorithm>
#include <utility>

#include "replicator/connection_impl.h"
#include "replicator/socket.h"

namespace penstock {

using boost::asio::posix::stream_descriptor;

Connection::Impl::Impl(EventLoop& theLoop, Fd fd, std::unique_ptr<Stream> theStream,
                       const ConnectionOptions& theOptions, std::string address)
    : loop(theLoop),
      descriptor(theLoop.Internal().io, fd.Release()),
      stream(std::move(theStream)),
      options(theOptions),
      peerAddress(std::move(address)),
      limit(theOptions.rateLimit, EventLoop::NowMs()) {}

Connection::Impl::~Impl() = default;

// --- The handshake ---

void Connection::Impl::BeginHandshake(HandshakeDone done) {
  state = State::kHandshake;
  onHandshake = std::move(done);
  startedMs = EventLoop::NowMs();
  SetTick(options.handshakeTimeoutMs);
  loop.Post([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->ContinueHandshake();
  });
}

void Connection::Impl::ContinueHandshake() {
  if (state != State::kHandshake) return;
  const auto result = stream->Handshake();
  const auto proceed = [weak = weak_from_this()](const boost::system::error_code& error) {
    const auto self = weak.lock();
    if (self && !error) self->ContinueHandshake();
  };
  switch (result.kind) {
    case IoResult::Kind::kDone: FinishHandshake({}); break;
    case IoResult::Kind::kWantRead:
      descriptor.async_wait(stream_descriptor::wait_read, proceed);
      break;
    case IoResult::Kind::kWantWrite:
      descriptor.async_wait(stream_descriptor::wait_write, proceed);
      break;
    case IoResult::Kind::kEnd: FinishHandshake("the peer closed the connection"); break;
    case IoResult::Kind::kFailed: FinishHandshake(result.text); break;
  }
}

void Connection::Impl::FinishHandshake(const std::string& fault) {
  loop.Cancel(tickTimer);
  auto done = std::exchange(onHandshake, {});
  if (fault.empty()) {
    state = State::kMade;
    peerIdentity = stream->Identity();
    isEncrypted = !stream->Cipher().empty();
  } else {
    End(fault);
  }
  if (done) done(fault);
}

// --- Life ---

void Connection::Impl::Start(Callbacks theCallbacks) {
  callbacks = std::move(theCallbacks);
  if (state != State::kMade) return ReportEnd();  // aborted before
  state = State::kStarted;
  startedMs = lastByteMs = EventLoop::NowMs();
  Tick();
  if (!queue.empty()) FlushSoon();
  // Encrypted bytes may have come with the end of the handshake: the first look is at the stream.
  loop.Post([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->OnReadable();
  });
}

void Connection::Impl::Close() {
  if (state == State::kMade) return End("closed");
  if (state != State::kStarted) return;
  state = State::kFlushing;
  startedMs = EventLoop::NowMs();
  Tick();
  FlushSoon();
  loop.Post([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->OnReadable();
  });
}

void Connection::Impl::End(const std::string& reason) {
  if (state == State::kClosed) return;
  state = State::kClosed;
  loop.Cancel(tickTimer);
  loop.Cancel(limitTimer);
  boost::system::error_code ignored;
  descriptor.close(ignored);
  queue.clear();
  queuedBytes = 0;
  slot.reset();
  endReason = reason;
  if (callbacks.onClosed) ReportEnd();
}

void Connection::Impl::ReportEnd() {
  loop.Post([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    const auto callback = std::exchange(self->callbacks, {}).onClosed;
    if (callback) callback(self->endReason);
  });
}

// --- Timeouts ---

void Connection::Impl::SetTick(std::uint64_t ms) {
  loop.Cancel(tickTimer);
  tickTimer = loop.After(ms, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->Tick();
  });
}

// What took too long, or an empty text.
std::string Connection::Impl::Overdue(std::uint64_t now) const {
  const auto isOver = [now](std::uint64_t since, std::uint32_t limitMs) {
    return limitMs != 0 && now - since >= limitMs;
  };
  const auto text = [](const char* what, std::uint32_t ms) {
    return std::string(what) + " for " + std::to_string(ms) + " ms";
  };
  if (state == State::kHandshake) {
    return isOver(startedMs, options.handshakeTimeoutMs)
               ? text("timeout: the handshake was not finished", options.handshakeTimeoutMs)
               : "";
  }
  if (state == State::kFlushing || state == State::kLingering) {
    return isOver(startedMs, options.flushTimeoutMs) ? "closed, with the peer not listening" : "";
  }
  if (isPaused) return {};
  if (!hasFrame && isOver(startedMs, options.firstFrameTimeoutMs)) {
    return text("timeout: no frame came", options.firstFrameTimeoutMs);
  }
  if (isInFrame && isOver(lastByteMs, options.progressTimeoutMs)) {
    return text("timeout: nothing came within a frame", options.progressTimeoutMs);
  }
  if (isOver(lastByteMs, options.idleTimeoutMs)) {
    return text("timeout: nothing came", options.idleTimeoutMs);
  }
  return {};
}

void Connection::Impl::Tick() {
  if (state == State::kClosed) return;
  if (const auto overdue = Overdue(EventLoop::NowMs()); !overdue.empty()) {
    if (state == State::kHandshake) return FinishHandshake(overdue);
    return End(overdue);
  }
  constexpr std::uint32_t kShortest = 10;
  std::uint32_t interval = 1000;
  for (const auto ms : {options.firstFrameTimeoutMs, options.progressTimeoutMs,
                        options.idleTimeoutMs, options.flushTimeoutMs}) {
    if (ms != 0) interval = std::min(interval, std::max(ms / 4, kShortest));
  }
  SetTick(interval);
}

// --- The handle ---

Connection::Connection(std::shared_ptr<Impl> impl) : m_impl(std::move(impl)) {}

Connection::~Connection() {
  m_impl->callbacks.onClosed = nullptr;
  m_impl->End({});
}

std::unique_ptr<Connection> Connection::OfSocket(EventLoop& loop, int fd,
                                                 const ConnectionOptions& options) {
  TuneSocket(fd, options.socketBufferBytes);
  return std::make_unique<Connection>(
      std::make_shared<Impl>(loop, Fd(fd), MakePlainStream(fd), options, PeerOf(fd).Text()));
}

void Connection::Start(Callbacks callbacks) { m_impl->Start(std::move(callbacks)); }
void Connection::Send(Frame frame) { m_impl->Send(std::move(frame)); }
std::size_t Connection::BytesQueued() const { return m_impl->queuedBytes + m_impl->stream->Kept(); }
void Connection::PauseReading() { m_impl->isPaused = true; }
void Connection::ResumeReading() { m_impl->Resume(); }

void Connection::SetSeeds(std::uint64_t readSeed, std::uint64_t writeSeed) {
  m_impl->reader.SetSeed(readSeed);
  m_impl->SetWriteSeed(writeSeed);
}

void Connection::AllowAll() { m_impl->reader.AllowAll(); }
void Connection::SetRateLimit(std::uint64_t bytesPerSecond) {
  m_impl->SetRateLimit(bytesPerSecond);
}
void Connection::Close() { m_impl->Close(); }
void Connection::Abort(const std::string& reason) { m_impl->End(reason); }
const std::string& Connection::PeerIdentity() const { return m_impl->peerIdentity; }
bool Connection::IsDamaged() const { return m_impl->reader.Failed(); }
const std::string& Connection::PeerAddress() const { return m_impl->peerAddress; }
bool Connection::IsEncrypted() const { return m_impl->isEncrypted; }
std::string Connection::Cipher() const { return m_impl->stream->Cipher(); }
std::uint64_t Connection::BytesReceived() const { return m_impl->received; }
std::uint64_t Connection::BytesSent() const { return m_impl->sent; }

}  // namespace penstock
