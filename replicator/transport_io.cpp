// SPDX-License-Identifier: Apache-2.0
// A connection's bytes: frames are made of what comes, and written as far as the socket takes them.
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "replicator/connection_impl.h"

namespace penstock {

using boost::asio::posix::stream_descriptor;

// --- Reading ---

void Connection::Impl::WaitToRead() {
  if (isWaitingToRead || state == State::kClosed) return;
  isWaitingToRead = true;
  descriptor.async_wait(stream_descriptor::wait_read,
                        [weak = weak_from_this()](const boost::system::error_code& error) {
                          const auto self = weak.lock();
                          if (!self) return;
                          self->isWaitingToRead = false;
                          if (!error) self->OnReadable();
                        });
}

void Connection::Impl::OnReadable() {
  if (state == State::kFlushing || state == State::kLingering) return Discard();
  if (state != State::kStarted || isWaitingToRead) return;
  DeliverFrames();  // those that came before a pause
  for (std::size_t turn = 0; state == State::kStarted && !isPaused;) {
    if (!ReadOnce(turn)) return;
    if (turn < kMaxTurnBytes) continue;
    loop.Post([weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->OnReadable();
    });
    return;
  }
}

// Returns whether to go on.
bool Connection::Impl::ReadOnce(std::size_t& turn) {
  const auto space = reader.Space();
  const std::array<iovec, 2> places{{{space.data(), space.size()}, {ahead.data(), ahead.size()}}};
  const auto result = stream->Read(places);
  if (stream->Kept() > 0) FlushSoon();
  switch (result.kind) {
    case IoResult::Kind::kDone: break;
    case IoResult::Kind::kWantRead: WaitToRead(); return false;
    case IoResult::Kind::kWantWrite: WaitToWrite(); return false;
    case IoResult::Kind::kEnd:
      End(isInFrame ? "the peer closed the connection within a frame"
                    : "the peer closed the connection");
      return false;
    case IoResult::Kind::kFailed: End(result.text); return false;
  }
  turn += result.bytes;
  TakeBytes(space, result.bytes);
  if (result.isDrained && state == State::kStarted && !isPaused) {
    WaitToRead();
    return false;
  }
  return true;
}

void Connection::Impl::TakeBytes(std::span<std::uint8_t> space, std::size_t count) {
  lastByteMs = EventLoop::NowMs();
  received += count;
  const auto own = std::min(count, space.size());
  aheadBegin = 0;
  aheadEnd = count - own;
  isInFrame = true;
  reader.Commit(own);
  DeliverFrames();
}

// Delivers what is whole. Nobody calls it from within a frame's callback.
void Connection::Impl::DeliverFrames() {
  if (isDelivering) return;
  isDelivering = true;
  while (state == State::kStarted && !isPaused) {
    if (auto frame = reader.Next()) {
      hasFrame = true;
      isInFrame = false;
      if (callbacks.onFrame) callbacks.onFrame(std::move(*frame));
      continue;
    }
    if (reader.Failed()) {
      End(reader.Fault());
      break;
    }
    if (aheadBegin == aheadEnd) break;
    const auto space = reader.Space();
    const auto count = std::min(space.size(), aheadEnd - aheadBegin);
    std::memcpy(space.data(), ahead.data() + aheadBegin, count);
    aheadBegin += count;
    isInFrame = true;
    reader.Commit(count);
  }
  isDelivering = false;
}

void Connection::Impl::Resume() {
  if (!isPaused) return;
  isPaused = false;
  startedMs = lastByteMs = EventLoop::NowMs();
  if (state != State::kStarted) return;
  loop.Post([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->OnReadable();
  });
}

// After the end of our side: whatever still comes is of no interest, but unread bytes would make
// the system cut the connection, and with it what the peer has not read yet.
void Connection::Impl::Discard() {
  for (std::size_t turn = 0; turn < kMaxTurnBytes;) {
    const std::array<iovec, 1> place{{{ahead.data(), ahead.size()}}};
    const auto result = stream->Read(place);
    if (result.kind == IoResult::Kind::kWantRead) break;
    // The peer may be done while we are not.
    if (result.kind == IoResult::Kind::kEnd && state == State::kFlushing) return;
    if (result.kind != IoResult::Kind::kDone) return End("closed");
    turn += result.bytes;
  }
  WaitToRead();
}

// --- Writing ---

namespace {

// Those that mean the same wherever they come: they pass what is queued before them, which may be
// a quarter of a minute on a slow link.
bool IsUrgent(FrameType type) {
  return type == FrameType::kPing || type == FrameType::kPong || type == FrameType::kProgress;
}

}  // namespace

void Connection::Impl::Send(Frame frame) {
  if (state == State::kClosed || state == State::kFlushing || state == State::kLingering) return;
  Queued queued{.frame = std::move(frame)};
  queuedBytes += queued.Size();
  auto place = queue.end();
  if (IsUrgent(queued.frame.type)) {
    place = std::find_if(queue.begin(), queue.end(),
                         [](const Queued& q) { return !q.isNumbered && !IsUrgent(q.frame.type); });
  }
  queue.insert(place, std::move(queued));
  if (queuedBytes >= options.lowWaterBytes) wasAboveLowWater = true;
  if (state == State::kStarted) FlushSoon();
}

// What was queued before is still under the seed of that time.
void Connection::Impl::SetWriteSeed(std::uint64_t seed) {
  for (auto& queued : queue) Number(queued);
  writer.SetSeed(seed);
}

void Connection::Impl::Number(Queued& queued) {
  if (queued.isNumbered) return;
  queued.header = writer.Header(queued.frame);
  queued.isNumbered = true;
}

// Not now: what else is queued in this turn of the loop goes with it.
void Connection::Impl::FlushSoon() {
  if (isFlushPosted || isWaitingToWrite || limitTimer != 0) return;
  isFlushPosted = true;
  loop.Post([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->isFlushPosted = false;
    self->FlushQueue();
  });
}

void Connection::Impl::WaitToWrite() {
  if (isWaitingToWrite || state == State::kClosed) return;
  isWaitingToWrite = true;
  descriptor.async_wait(stream_descriptor::wait_write,
                        [weak = weak_from_this()](const boost::system::error_code& error) {
                          const auto self = weak.lock();
                          if (!self) return;
                          self->isWaitingToWrite = false;
                          if (!error) self->FlushQueue();
                        });
}

void Connection::Impl::FlushQueue() {
  if (state != State::kStarted && state != State::kFlushing) return;
  std::size_t turns = 0;
  while (queuedBytes > 0) {
    if (!WriteOnce()) return;
    if (state == State::kClosed) return;
    if (++turns == 4 && queuedBytes > 0) return FlushSoon();
  }
  const auto result = stream->Flush();
  if (result.kind == IoResult::Kind::kFailed) return End(result.text);
  if (result.kind == IoResult::Kind::kWantWrite) return WaitToWrite();
  if (state == State::kFlushing) WhenAllIsSent();
}

// Returns whether more may be written at once.
bool Connection::Impl::WriteOnce() {
  const auto allowed = limit.Allowed(kMaxWriteBytes, EventLoop::NowMs());
  if (allowed == 0) {
    limitTimer = loop.After(limit.WaitMs(), [weak = weak_from_this()] {
      const auto self = weak.lock();
      if (!self) return;
      self->limitTimer = 0;
      self->FlushQueue();
    });
    return false;
  }
  const auto total = FillPieces(allowed);
  const auto result = stream->Write({pieces.data(), pieceCount});
  switch (result.kind) {
    case IoResult::Kind::kDone: break;
    case IoResult::Kind::kWantRead:
    case IoResult::Kind::kWantWrite: WaitToWrite(); return false;
    case IoResult::Kind::kEnd:
    case IoResult::Kind::kFailed: End(result.text); return false;
  }
  limit.Take(result.bytes);
  PopWritten(result.bytes);
  if (result.bytes == total || stream->Kept() > 0 || state == State::kClosed) return true;
  WaitToWrite();  // the socket took a part: it is full
  return false;
}

// Returns the number of bytes in the pieces, at most `most`.
std::size_t Connection::Impl::FillPieces(std::size_t most) {
  std::size_t total = 0;
  std::size_t skip = frontWritten;
  pieceCount = 0;
  const auto add = [&](const std::uint8_t* data, std::size_t size) {
    const auto from = std::min(skip, size);
    skip -= from;
    const auto count = std::min(size - from, most - total);
    if (count == 0) return;
    // The system reads only; iovec has no constant form.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): see above
    pieces[pieceCount++] = {const_cast<std::uint8_t*>(data) + from, count};
    total += count;
  };
  for (auto& queued : queue) {
    if (total == most || pieceCount + 2 > kMaxPieces) break;
    Number(queued);
    add(queued.header.data(), queued.header.size());
    add(queued.frame.payload.get(), queued.frame.size);
  }
  return total;
}

void Connection::Impl::PopWritten(std::size_t count) {
  sent += count;
  queuedBytes -= count;
  frontWritten += count;
  while (!queue.empty() && frontWritten >= queue.front().Size()) {
    frontWritten -= queue.front().Size();
    queue.pop_front();
  }
  if (!wasAboveLowWater || queuedBytes >= options.lowWaterBytes) return;
  wasAboveLowWater = false;
  if (state == State::kStarted && callbacks.onDrained) callbacks.onDrained();
}

void Connection::Impl::WhenAllIsSent() {
  stream->End();
  if (stream->Flush().kind == IoResult::Kind::kWantWrite) return WaitToWrite();
  state = State::kLingering;
  ::shutdown(descriptor.native_handle(), SHUT_WR);
  Discard();
}

void Connection::Impl::SetRateLimit(std::uint64_t bytesPerSecond) {
  limit = RateLimit(bytesPerSecond, EventLoop::NowMs());
  if (limitTimer == 0) return;
  loop.Cancel(limitTimer);
  limitTimer = 0;
  FlushSoon();
}

}  // namespace penstock
