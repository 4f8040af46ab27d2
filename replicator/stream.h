// SPDX-License-Identifier: Apache-2.0
// The bytes below the frames: a connected socket that never blocks, with TLS or without.
#ifndef PENSTOCK_REPLICATOR_STREAM_H_
#define PENSTOCK_REPLICATOR_STREAM_H_

#include <sys/uio.h>

#include <cstddef>
#include <memory>
#include <span>
#include <string>

namespace penstock {

class TlsContext;

struct IoResult {
  enum class Kind {
    kDone,       // `bytes` were taken or given, at least 1; or the handshake, the flush is done
    kWantRead,   // again when the socket is readable
    kWantWrite,  // again when the socket is writable
    kEnd,        // the peer ended the stream in order
    kFailed,     // `text` says why; final
  };
  Kind kind = Kind::kFailed;
  std::size_t bytes = 0;
  bool isDrained = false;  // of a read that gave bytes: the next one would want to wait
  std::string text;

  static IoResult Done(std::size_t bytes, bool isDrained = false) {
    return {Kind::kDone, bytes, isDrained, {}};
  }
  static IoResult Of(Kind kind) { return {kind, 0, false, {}}; }
  static IoResult Failed(std::string text) { return {Kind::kFailed, 0, false, std::move(text)}; }
};

// Threads: one at a time.
class Stream {
 public:
  virtual ~Stream() = default;

  // Goes on with the handshake until it is done.
  virtual IoResult Handshake() = 0;
  // Reads into the places, in order. Places behind the first may stay empty although there is more.
  virtual IoResult Read(std::span<const iovec> places) = 0;
  // Takes bytes from the front of the pieces. They may be copied, and be sent later.
  virtual IoResult Write(std::span<const iovec> pieces) = 0;
  // Sends what is kept inside.
  virtual IoResult Flush() = 0;
  // Bytes that are kept inside: Write took them and they were not sent.
  virtual std::size_t Kept() const = 0;
  // Says to the peer that nothing more comes. Flush afterwards.
  virtual void End() = 0;

  virtual std::string Identity() const = 0;  // of the peer, after the handshake
  virtual std::string Cipher() const = 0;
};

// Neither owns `fd`, which doesn't block. `peerName`: what a server's certificate must carry.
std::unique_ptr<Stream> MakePlainStream(int fd);
// Returns null, and says why in `error`.
std::unique_ptr<Stream> MakeTlsStream(std::shared_ptr<TlsContext> context, int fd,
                                      const std::string& peerName, std::string& error);

// What the system says of a socket that failed, for people.
std::string SocketFault(int error);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_STREAM_H_
