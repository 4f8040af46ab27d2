// SPDX-License-Identifier: Apache-2.0
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "replicator/files.h"
#include "replicator/stream.h"

namespace penstock {

namespace {

std::size_t TotalOf(std::span<const iovec> pieces) {
  std::size_t total = 0;
  for (const auto& piece : pieces) total += piece.iov_len;
  return total;
}

msghdr MessageOf(std::span<const iovec> pieces) {
  msghdr message{};
  // Neither call writes through it; the system has one type for both.
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): see above
  message.msg_iov = const_cast<iovec*>(pieces.data());
  message.msg_iovlen = pieces.size();
  return message;
}

class PlainStream : public Stream {
 public:
  explicit PlainStream(int fd) : m_fd(fd) {}

  IoResult Handshake() override { return IoResult::Done(0); }

  IoResult Read(std::span<const iovec> places) override {
    auto message = MessageOf(places);
    const auto count = Retry([&] { return ::recvmsg(m_fd, &message, 0); });
    if (count > 0) {
      const auto bytes = static_cast<std::size_t>(count);
      return IoResult::Done(bytes, bytes < TotalOf(places));
    }
    if (count == 0) return IoResult::Of(IoResult::Kind::kEnd);
    return WouldBlock() ? IoResult::Of(IoResult::Kind::kWantRead)
                        : IoResult::Failed(SocketFault(errno));
  }

  IoResult Write(std::span<const iovec> pieces) override {
    const auto message = MessageOf(pieces);
    const auto count = Retry([&] { return ::sendmsg(m_fd, &message, MSG_NOSIGNAL); });
    if (count >= 0) return IoResult::Done(static_cast<std::size_t>(count));
    return WouldBlock() ? IoResult::Of(IoResult::Kind::kWantWrite)
                        : IoResult::Failed(SocketFault(errno));
  }

  IoResult Flush() override { return IoResult::Done(0); }
  std::size_t Kept() const override { return 0; }
  void End() override {}
  std::string Identity() const override { return {}; }
  std::string Cipher() const override { return {}; }

 private:
  template <class Call>
  static ssize_t Retry(const Call& call) {
    for (;;) {
      const ssize_t count = call();
      if (count >= 0 || errno != EINTR) return count;
    }
  }

  static bool WouldBlock() { return errno == EAGAIN; }

  int m_fd;
};

}  // namespace

std::string SocketFault(int error) {
  switch (error) {
    case ECONNRESET:
    case EPIPE: return "the peer cut the connection";
    case ETIMEDOUT: return "the peer did not answer any more";
    default: return ErrnoText(error);
  }
}

std::unique_ptr<Stream> MakePlainStream(int fd) { return std::make_unique<PlainStream>(fd); }

}  // namespace penstock
