// SPDX-License-Identifier: Apache-2.0
#include "replicator/metrics_server.h"

#include <netinet/in.h>

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <chrono>
#include <list>
#include <string_view>
#include <utility>
#include <vector>

#include "replicator/event_loop_asio.h"
#include "replicator/log.h"
#include "replicator/socket.h"

namespace penstock {

namespace {

namespace http = boost::beast::http;
using boost::asio::generic::stream_protocol;
using boost::asio::posix::stream_descriptor;
using ErrorOf = boost::system::error_code;

constexpr std::string_view kMetricsPath = "/metrics";
constexpr const char* kMetricsType = "text/plain; version=0.0.4; charset=utf-8";
constexpr const char* kPlainType = "text/plain; charset=utf-8";

}  // namespace

struct MetricsReply {
  const char* status = "200 OK";
  const char* type = kPlainType;
  const char* more = "";  // header lines
  std::shared_ptr<const std::string> body;

  static MetricsReply Of(const char* status, const std::string& text, const char* more = "") {
    return {status, kPlainType, more, std::make_shared<std::string>(text + "\n")};
  }
  std::string Head() const {
    return std::string("HTTP/1.1 ") + status + "\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body->size()) + "\r\n" + more +
           "Cache-Control: no-store\r\nConnection: close\r\n\r\n";
  }
};

// Whatever waits for a socket holds the session: it lives until the last of it was called.
struct MetricsSession : std::enable_shared_from_this<MetricsSession> {
  // Asked once, when the head of a request is there.
  using Ask = std::function<MetricsReply(const http::request<http::empty_body>& request)>;

  MetricsSession(EventLoop& theLoop, const MetricsOptions& theOptions,
                 stream_protocol::socket given, Ask theAsk, std::function<void()> theOnClosed)
      : options(theOptions),
        socket(std::move(given)),
        ask(std::move(theAsk)),
        onClosed(std::move(theOnClosed)),
        loop(theLoop) {
    parser.header_limit(options.maxHeadBytes);
    parser.body_limit(boost::none);  // none is read
  }

  void Start() {
    timer = loop.After(options.deadlineMs, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->Close();
    });
    Read();
  }

  void Close() {
    if (isClosed) return;
    isClosed = true;
    loop.Cancel(timer);
    ErrorOf ignored;
    socket.close(ignored);
    ask = nullptr;
    if (const auto callback = std::exchange(onClosed, nullptr)) callback();
  }

  void Read() {
    socket.async_read_some(boost::asio::buffer(piece),
                           [self = shared_from_this()](const ErrorOf& error, std::size_t count) {
                             if (self->isClosed) return;
                             if (error) return self->Close();
                             if (self->isAnswered) return self->Drain(count);
                             self->Parse(count);
                           });
  }

  void Parse(std::size_t count) {
    head.append(piece.data(), count);
    taken += count;
    ErrorOf error;
    head.erase(0, parser.put(boost::asio::buffer(head), error));
    const bool isMissing = error == http::error::need_more;
    if (isMissing && taken <= options.maxHeadBytes) return Read();
    if (isMissing || error == http::error::header_limit) {
      return Answer(
          MetricsReply::Of("431 Request Header Fields Too Large", "the request is too long"));
    }
    if (error) return Answer(MetricsReply::Of("400 Bad Request", "that is no request"));
    isHead = parser.get().method() == http::verb::head;
    Answer(ask(parser.get()));
  }

  void Answer(const MetricsReply& reply) {
    isAnswered = true;
    out = reply.Head();
    body = reply.body;
    const std::array<boost::asio::const_buffer, 2> pieces = {
        boost::asio::buffer(out),
        isHead ? boost::asio::const_buffer() : boost::asio::buffer(*body)};
    boost::asio::async_write(socket, pieces,
                             [self = shared_from_this()](const ErrorOf& error, std::size_t) {
                               if (self->isClosed) return;
                               if (error) return self->Close();
                               self->Linger();
                             });
  }

  // What it sent beyond its request is read: a socket that is closed on unread bytes takes back
  // what the client did not read yet.
  void Linger() {
    ErrorOf ignored;
    socket.shutdown(stream_protocol::socket::shutdown_send, ignored);
    Read();
  }

  void Drain(std::size_t count) {
    drained += count;
    if (drained > options.maxDrainedBytes) return Close();
    Read();
  }

  const MetricsOptions options;
  stream_protocol::socket socket;
  Ask ask;
  std::function<void()> onClosed;
  EventLoop& loop;
  EventLoop::TimerId timer = 0;
  http::request_parser<http::empty_body> parser;
  std::array<char, 2048> piece{};
  std::string head;       // of the request: what is not parsed yet
  std::size_t taken = 0;  // of the request, in all
  std::string out;        // the head of the answer
  std::shared_ptr<const std::string> body;
  std::size_t drained = 0;
  bool isHead = false;
  bool isAnswered = false;
  bool isClosed = false;
};

struct MetricsServer::Impl : std::enable_shared_from_this<MetricsServer::Impl> {
  using Clock = std::chrono::steady_clock;
  using Sessions = std::list<std::shared_ptr<MetricsSession>>;

  Impl(EventLoop& theLoop, Fd fd, Endpoint theLocal, MakeText theMakeText,
       const MetricsOptions& theOptions)
      : loop(theLoop),
        descriptor(theLoop.Internal().io, fd.Release()),
        local(std::move(theLocal)),
        makeText(std::move(theMakeText)),
        options(theOptions) {}

  void Wait();
  void AcceptSome();
  void Admit(Fd fd, const SocketAddress& peer);
  MetricsReply Answer(const http::request<http::empty_body>& request);
  void Close();

  EventLoop& loop;
  stream_descriptor descriptor;
  Endpoint local;
  MakeText makeText;
  const MetricsOptions options;
  Sessions sessions;  // the oldest first
  std::shared_ptr<const std::string> text;
  Clock::time_point freshUntil;
  bool isClosed = false;
  EventLoop::TimerId retryTimer = 0;
};

void MetricsServer::Impl::Wait() {
  descriptor.async_wait(stream_descriptor::wait_read,
                        [weak = weak_from_this()](const ErrorOf& error) {
                          const auto self = weak.lock();
                          if (self && !error) self->AcceptSome();
                        });
}

void MetricsServer::Impl::AcceptSome() {
  constexpr int kMostATurn = 16;
  constexpr std::uint64_t kRetryMs = 1000;
  for (int i = 0; i < kMostATurn && !isClosed; ++i) {
    Fd fd;
    SocketAddress peer;
    const auto fault = AcceptFrom(descriptor.native_handle(), fd, peer);
    if (!fault.empty()) {
      // It stays readable: without a pause the loop would do nothing else.
      Log(Severity::kWarning, "metrics: can't accept a connection", {{"why", fault}});
      retryTimer = loop.After(kRetryMs, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->AcceptSome();
      });
      return;
    }
    if (!fd) break;
    Admit(std::move(fd), peer);
  }
  if (!isClosed) Wait();
}

void MetricsServer::Impl::Admit(Fd fd, const SocketAddress& peer) {
  if (sessions.size() >= options.maxConnections) {
    // Whoever is served in time is the youngest: those that hold on don't keep it out.
    Log(Severity::kDebug, "metrics: drops the oldest of too many connections",
        {{"newest", peer.Text()}});
    const auto oldest = sessions.front();
    oldest->Close();
  }
  stream_protocol::socket socket(loop.Internal().io);
  ErrorOf error;
  socket.assign(stream_protocol(peer.storage.ss_family, IPPROTO_TCP), fd.Get(), error);
  if (error) return;
  fd.Release();
  const auto place = sessions.emplace(sessions.end());
  *place = std::make_shared<MetricsSession>(
      loop, options, std::move(socket),
      [this](const http::request<http::empty_body>& request) { return Answer(request); },
      [this, place] { sessions.erase(place); });
  (*place)->Start();
}

MetricsReply MetricsServer::Impl::Answer(const http::request<http::empty_body>& request) {
  const auto target = request.target();
  const std::string_view path(target.data(), target.size());
  if (path.substr(0, path.find('?')) != kMetricsPath) {
    return MetricsReply::Of("404 Not Found", "the metrics are at /metrics");
  }
  if (request.method() != http::verb::get && request.method() != http::verb::head) {
    return MetricsReply::Of("405 Method Not Allowed", "the metrics can be read only",
                            "Allow: GET, HEAD\r\n");
  }
  const auto now = Clock::now();
  if (!text || now >= freshUntil) {
    text = std::make_shared<std::string>(makeText());
    const auto end = Clock::now();
    freshUntil = end + (end - now) * options.restFactor;
  }
  return {"200 OK", kMetricsType, "", text};
}

void MetricsServer::Impl::Close() {
  isClosed = true;
  loop.Cancel(retryTimer);
  ErrorOf ignored;
  descriptor.close(ignored);
  while (!sessions.empty()) {
    const auto first = sessions.front();
    first->Close();
  }
}

MetricsServer::MetricsServer(std::shared_ptr<Impl> impl) : m_impl(std::move(impl)) {}
MetricsServer::~MetricsServer() { m_impl->Close(); }

std::string MetricsServer::Open(EventLoop& loop, const Endpoint& endpoint, MakeText makeText,
                                std::unique_ptr<MetricsServer>& out,
                                const MetricsOptions& options) {
  const auto where = "can't serve metrics on " + endpoint.Text() + ": ";
  std::vector<SocketAddress> addresses;
  auto fault = Resolve(endpoint, true, addresses);
  if (!fault.empty()) return where + fault;
  Fd fd;
  SocketAddress bound;
  for (const auto& address : addresses) {
    fault = ListenOn(endpoint, address, fd, bound);
    if (fault.empty()) break;
  }
  if (!fault.empty()) return where + fault;
  auto local = endpoint;
  if (fault = Endpoint::Parse(bound.Text(), local); !fault.empty()) return where + fault;
  auto impl =
      std::make_shared<Impl>(loop, std::move(fd), std::move(local), std::move(makeText), options);
  impl->Wait();
  out.reset(new MetricsServer(std::move(impl)));
  return {};
}

const Endpoint& MetricsServer::Local() const { return m_impl->local; }
std::size_t MetricsServer::Connections() const { return m_impl->sessions.size(); }

std::string ParseMetricsEndpoint(const std::string& text, Endpoint& out) {
  Endpoint parsed;
  if (auto fault = Endpoint::Parse(text, parsed); !fault.empty()) return "metrics: " + fault;
  if (parsed.isUnix) return "metrics: give ADDR:PORT, they are not served on UNIX sockets";
  out = std::move(parsed);
  return {};
}

}  // namespace penstock
