// SPDX-License-Identifier: Apache-2.0
// What is inside a Connection. Included by the transport's sources, and by no header.
#ifndef PENSTOCK_REPLICATOR_CONNECTION_IMPL_H_
#define PENSTOCK_REPLICATOR_CONNECTION_IMPL_H_

#include <array>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "replicator/event_loop_asio.h"
#include "replicator/files.h"
#include "replicator/rate_limit.h"
#include "replicator/stream.h"
#include "replicator/transport.h"

namespace penstock {

// The pieces of one write, at most.
inline constexpr std::size_t kMaxPieces = 64;
inline constexpr std::size_t kMaxWriteBytes = std::size_t{4} << 20U;
// What one turn of the loop reads, before others have theirs.
inline constexpr std::size_t kMaxTurnBytes = std::size_t{4} << 20U;
// Bytes that are read behind the end of a frame, in the same call: the next header, small frames.
inline constexpr std::size_t kAheadBytes = 16U << 10U;

// Whatever waits for the socket or the loop holds a weak pointer: the object lives as long as its
// owner wants, or a callback runs.
struct Connection::Impl : std::enable_shared_from_this<Connection::Impl> {
  // In the order in which they follow each other; any may be followed by kClosed.
  enum class State {
    kHandshake,  // of TLS
    kMade,       // waits for Start
    kStarted,
    kFlushing,   // sends what is queued; nothing is delivered any more
    kLingering,  // everything is sent: waits for the peer's end, so that it can read it all
    kClosed,     // no socket any more
  };
  struct Queued {
    Frame frame;
    // Made when the frame's turn comes: a header holds the frame's number in its direction.
    std::array<std::uint8_t, kFrameHeaderBytes> header{};
    bool isNumbered = false;
    std::size_t Size() const { return header.size() + frame.size; }
  };
  using HandshakeDone = std::function<void(const std::string& fault)>;

  Impl(EventLoop& theLoop, Fd fd, std::unique_ptr<Stream> theStream,
       const ConnectionOptions& theOptions, std::string address);
  ~Impl();

  // Calls back once, never from within this call.
  void BeginHandshake(HandshakeDone done);
  void Start(Callbacks theCallbacks);
  void Send(Frame frame);
  void SetWriteSeed(std::uint64_t seed);
  void Resume();
  void SetRateLimit(std::uint64_t bytesPerSecond);
  void Close();
  void End(const std::string& reason);  // to kClosed; a second call does nothing
  void ReportEnd();

  // Reading.
  void WaitToRead();
  void OnReadable();
  bool ReadOnce(std::size_t& turn);
  void TakeBytes(std::span<std::uint8_t> space, std::size_t count);
  void DeliverFrames();
  void Discard();

  // Writing.
  void FlushSoon();
  void WaitToWrite();
  void FlushQueue();
  bool WriteOnce();
  void Number(Queued& queued);
  std::size_t FillPieces(std::size_t most);
  void PopWritten(std::size_t count);
  void WhenAllIsSent();

  void ContinueHandshake();
  void FinishHandshake(const std::string& fault);
  void Tick();
  void SetTick(std::uint64_t ms);
  std::string Overdue(std::uint64_t now) const;

  EventLoop& loop;
  boost::asio::posix::stream_descriptor descriptor;
  std::unique_ptr<Stream> stream;
  ConnectionOptions options;
  std::string peerAddress;
  std::string peerIdentity;
  bool isEncrypted = false;
  std::string endReason;
  std::shared_ptr<void> slot;  // of the listener's limit; given back at the end

  State state = State::kMade;
  Callbacks callbacks;
  HandshakeDone onHandshake;

  FrameReader reader;
  std::array<std::uint8_t, kAheadBytes> ahead{};
  std::size_t aheadBegin = 0;
  std::size_t aheadEnd = 0;
  bool isPaused = false;
  bool isWaitingToRead = false;
  bool isDelivering = false;
  bool isInFrame = false;  // bytes of one that is not whole
  bool hasFrame = false;   // there was one
  std::uint64_t received = 0;

  FrameWriter writer;
  std::deque<Queued> queue;
  std::size_t frontWritten = 0;  // bytes of the first one
  std::size_t queuedBytes = 0;
  bool wasAboveLowWater = false;
  bool isFlushPosted = false;
  bool isWaitingToWrite = false;
  RateLimit limit;
  EventLoop::TimerId limitTimer = 0;
  std::array<iovec, kMaxPieces> pieces{};
  std::size_t pieceCount = 0;
  std::uint64_t sent = 0;

  EventLoop::TimerId tickTimer = 0;
  std::uint64_t startedMs = 0;  // of the state, or since reading was resumed
  std::uint64_t lastByteMs = 0;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_CONNECTION_IMPL_H_
