// SPDX-License-Identifier: Apache-2.0
// Encrypted bytes are read from the socket several records at a time, and written into a buffer
// first: one call of the system for a quarter of a MiB instead of one a record.
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "replicator/log.h"
#include "replicator/stream.h"
#include "replicator/tls_impl.h"

namespace penstock {

namespace {

constexpr std::size_t kRecordBytes = 16U << 10U;  // the most that a record holds
constexpr std::size_t kKeptBytes = 256U << 10U;   // encrypted bytes gathered for a call
// A key encrypts less than 2^24.5 records of AES-GCM (RFC 8446, 5.5); this is a quarter of that.
constexpr std::uint64_t kBytesPerKey = std::uint64_t{96} << 30U;

// The place that encrypted bytes are written to.
struct Outbox {
  std::vector<std::uint8_t> bytes;
  std::size_t sent = 0;

  std::size_t Kept() const { return bytes.size() - sent; }
  // Gives up the room of what was sent, when that is worth the copy of the rest.
  void Compact() {
    if (sent < kKeptBytes / 2) return;
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(sent));
    sent = 0;
  }
};

int OutboxWrite(BIO* bio, const char* data, std::size_t size, std::size_t* written) {
  auto* outbox = static_cast<Outbox*>(BIO_get_data(bio));
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(data);
  outbox->bytes.insert(outbox->bytes.end(), bytes, bytes + size);
  *written = size;
  return 1;
}

long OutboxControl(BIO*, int command, long, void*) { return command == BIO_CTRL_FLUSH ? 1 : 0; }

BIO_METHOD* OutboxMethod() {
  static BIO_METHOD* const method = [] {
    auto* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "outbox");
    BIO_meth_set_write_ex(m, OutboxWrite);
    BIO_meth_set_ctrl(m, OutboxControl);
    return m;
  }();
  return method;
}

// What the other side meant by an alert, and what to look at.
const char* AlertText(int reason, bool isPsk) {
  switch (reason) {
    case SSL_R_TLSV1_ALERT_UNKNOWN_CA: return "it doesn't know the CA of our certificate";
    case SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED: return "our certificate has expired";
    case SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED: return "it requires a certificate";
    case SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE:
      return "our certificate lacks a name or the usage of our side";
    case SSL_R_SSLV3_ALERT_BAD_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN: return "it doesn't take our certificate";
    case SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE:
      return "no common way to prove who we are: unknown key, or keys at one end only";
    case SSL_R_TLSV1_ALERT_PROTOCOL_VERSION: return "it wants another version of TLS";
    case SSL_R_SSLV3_ALERT_ILLEGAL_PARAMETER:
    case SSL_R_TLSV1_ALERT_DECRYPT_ERROR:
      return isPsk ? "it has another key under our name"
                   : "our certificate's signature is not of the CA that it knows";
    default: return nullptr;
  }
}

// What our own side found.
const char* ReasonText(int reason) {
  switch (reason) {
    case SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE: return "the peer has no certificate";
    case SSL_R_UNSUPPORTED_PROTOCOL:
    case SSL_R_WRONG_SSL_VERSION:
    case SSL_R_VERSION_TOO_LOW: return "the peer doesn't speak TLS 1.3";
    case SSL_R_WRONG_VERSION_NUMBER:
    case SSL_R_HTTP_REQUEST:
    case SSL_R_RECORD_LENGTH_MISMATCH:
    case SSL_R_PACKET_LENGTH_TOO_LONG: return "the peer doesn't speak TLS";
    case SSL_R_NO_SUITABLE_SIGNATURE_ALGORITHM:
    case SSL_R_NO_SHARED_CIPHER: return "no common way to prove who we are";
    default: return nullptr;
  }
}

class TlsStream : public Stream {
 public:
  TlsStream(std::shared_ptr<TlsContext> context, int fd) : m_context(std::move(context)), m_fd(fd) {
    m_connection.context = &m_context->Internal();
  }

  std::string SetUp(const std::string& peerName);
  IoResult Handshake() override;
  IoResult Read(std::span<const iovec> places) override;
  IoResult Write(std::span<const iovec> pieces) override;
  IoResult Flush() override;
  std::size_t Kept() const override { return m_outbox.Kept(); }
  void End() override {
    if (m_isOpen) SSL_shutdown(m_ssl.get());
    ERR_clear_error();
  }
  std::string Identity() const override { return m_identity; }
  std::string Cipher() const override { return SSL_get_cipher_name(m_ssl.get()); }

 private:
  IoResult Fault(int error);
  std::string FaultText();
  std::string FindIdentity();
  bool Encrypt(const void* data, std::size_t size);
  std::size_t Gather(std::span<const iovec> pieces, std::size_t from);

  std::shared_ptr<TlsContext> m_context;
  int m_fd;
  TlsConnection m_connection;
  Outbox m_outbox;
  OpenSslPtr<SSL> m_ssl;  // uses the three above
  std::string m_identity;
  bool m_isOpen = false;                // the handshake is done, and the peer is one of ours
  std::optional<IoResult> m_readFault;  // that was found behind bytes that were good
  std::uint64_t m_keyBytes = 0;         // encrypted by the present key
  std::array<std::uint8_t, kRecordBytes> m_record{};
};

std::string TlsStream::SetUp(const std::string& peerName) {
  m_ssl.reset(SSL_new(m_context->Internal().ssl.get()));
  auto* in = BIO_new_socket(m_fd, BIO_NOCLOSE);
  auto* out = BIO_new(OutboxMethod());
  if (!m_ssl || in == nullptr || out == nullptr) {
    BIO_free(in);
    BIO_free(out);
    return "TLS can't be set up: " + TakeErrors();
  }
  BIO_set_data(out, &m_outbox);
  BIO_set_init(out, 1);
  SSL_set_bio(m_ssl.get(), in, out);
  SetConnection(m_ssl.get(), &m_connection);
  if (m_context->Side() == TlsSide::kServer) {
    SSL_set_accept_state(m_ssl.get());
    return {};
  }
  SSL_set_connect_state(m_ssl.get());
  if (m_context->IsPsk()) return {};
  auto* verify = SSL_get0_param(m_ssl.get());
  X509_VERIFY_PARAM_set_hostflags(
      verify, X509_CHECK_FLAG_NEVER_CHECK_SUBJECT | X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  // An address is compared with the certificate's addresses; all else with its DNS names.
  if (X509_VERIFY_PARAM_set1_ip_asc(verify, peerName.c_str()) == 1) return {};
  ERR_clear_error();
  if (peerName.empty() ||
      X509_VERIFY_PARAM_set1_host(verify, peerName.data(), peerName.size()) != 1) {
    ERR_clear_error();
    return "no name to look for in the server's certificate; give one with --peer-name";
  }
  return {};
}

IoResult TlsStream::Handshake() {
  ERR_clear_error();
  const int result = SSL_do_handshake(m_ssl.get());
  const int error = SSL_get_error(m_ssl.get(), result);
  auto fault = result == 1 ? IoResult::Done(0) : Fault(error);
  if (result == 1) {
    auto text = FindIdentity();
    m_isOpen = text.empty();
    if (!m_isOpen) fault = IoResult::Failed(std::move(text));
  }
  // Whatever came of it, the other end is told: the next message, or the alert.
  auto flushed = Flush();
  if (fault.kind == IoResult::Kind::kFailed) return fault;
  return flushed.kind == IoResult::Kind::kDone ? fault : flushed;
}

std::string TlsStream::FindIdentity() {
  if (m_context->IsPsk()) {
    m_identity = PskIdentityOf(m_ssl.get());
    return m_identity.empty() ? "TLS: the peer proved no pre-shared key" : "";
  }
  auto* certificate = SSL_get0_peer_certificate(m_ssl.get());
  if (certificate == nullptr || SSL_get_verify_result(m_ssl.get()) != X509_V_OK) {
    return "TLS: the peer has no certificate";
  }
  const auto peer = m_context->Side() == TlsSide::kClient ? TlsSide::kServer : TlsSide::kClient;
  return CheckCertificate(certificate, peer, m_identity);
}

std::string TlsStream::FaultText() {
  const auto error = ERR_peek_error();
  const int reason = ERR_GET_REASON(error);
  auto otherwise = TakeErrors();
  if (ERR_GET_LIB(error) == ERR_LIB_SSL && reason > SSL_AD_REASON_OFFSET) {
    const auto* alert = AlertText(reason, m_context->IsPsk());
    return "the peer refused us: " + (alert == nullptr ? otherwise : std::string(alert));
  }
  if (!m_connection.name.empty()) {
    const auto key = "the pre-shared key of '" + Escape(m_connection.name) + "' is ";
    if (!m_connection.fault.empty()) return key + m_connection.fault;
    if (reason == SSL_R_BINDER_DOES_NOT_VERIFY) return key + "another one here";
  } else if (!m_connection.fault.empty()) {
    return "the peer's certificate is refused: " + m_connection.fault;
  }
  const auto* text = ReasonText(reason);
  if (text == nullptr) return otherwise;
  return text;
}

IoResult TlsStream::Fault(int error) {
  switch (error) {
    case SSL_ERROR_WANT_READ: return IoResult::Of(IoResult::Kind::kWantRead);
    case SSL_ERROR_WANT_WRITE: return IoResult::Of(IoResult::Kind::kWantWrite);
    case SSL_ERROR_ZERO_RETURN: return IoResult::Of(IoResult::Kind::kEnd);
    case SSL_ERROR_SYSCALL: {
      const int code = errno;
      ERR_clear_error();
      return IoResult::Failed(code == 0 ? "the peer cut the connection" : SocketFault(code));
    }
    default: break;
  }
  if (ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
    ERR_clear_error();
    return IoResult::Failed(m_isOpen ? "the peer cut the connection"
                                     : "the peer cut the connection during the TLS handshake");
  }
  return IoResult::Failed("TLS: " + FaultText());
}

IoResult TlsStream::Read(std::span<const iovec> places) {
  if (m_readFault) return *m_readFault;
  const auto& place = places.front();
  auto* out = static_cast<std::uint8_t*>(place.iov_base);
  std::size_t total = 0;
  while (total < place.iov_len) {
    std::size_t count = 0;
    ERR_clear_error();
    errno = 0;
    const int result = SSL_read_ex(m_ssl.get(), out + total, place.iov_len - total, &count);
    if (result != 1) {
      const int error = SSL_get_error(m_ssl.get(), result);
      auto fault = Fault(error);
      if (total == 0) return fault;
      // What came before it is given first.
      const bool isDrained = fault.kind == IoResult::Kind::kWantRead;
      if (!isDrained) m_readFault = std::move(fault);
      return IoResult::Done(total, isDrained);
    }
    total += count;
  }
  return IoResult::Done(total);
}

bool TlsStream::Encrypt(const void* data, std::size_t size) {
  ERR_clear_error();
  if (m_keyBytes >= kBytesPerKey) {
    if (SSL_key_update(m_ssl.get(), SSL_KEY_UPDATE_NOT_REQUESTED) != 1) return false;
    m_keyBytes = 0;
  }
  std::size_t written = 0;
  if (SSL_write_ex(m_ssl.get(), data, size, &written) != 1) return false;
  m_keyBytes += written;
  return written == size;
}

// Fills one record from the pieces, `from` bytes into the first one. Returns its size.
std::size_t TlsStream::Gather(std::span<const iovec> pieces, std::size_t from) {
  std::size_t size = 0;
  for (const auto& piece : pieces) {
    const auto count = std::min(piece.iov_len - from, m_record.size() - size);
    std::memcpy(m_record.data() + size, static_cast<const char*>(piece.iov_base) + from, count);
    size += count;
    from = 0;
    if (size == m_record.size()) break;
  }
  return size;
}

IoResult TlsStream::Write(std::span<const iovec> pieces) {
  if (m_outbox.Kept() >= kKeptBytes) {
    if (auto flushed = Flush(); flushed.kind != IoResult::Kind::kDone) return flushed;
  }
  std::size_t taken = 0;
  std::size_t from = 0;  // of the first piece
  while (!pieces.empty() && m_outbox.Kept() < kKeptBytes) {
    const auto& front = pieces.front();
    std::size_t size = std::min(front.iov_len - from, kRecordBytes);
    bool isDone = true;
    if (size == kRecordBytes) {
      isDone = Encrypt(static_cast<const char*>(front.iov_base) + from, size);
    } else {
      size = Gather(pieces, from);
      if (size > 0) isDone = Encrypt(m_record.data(), size);
    }
    if (!isDone) return IoResult::Failed("TLS: " + FaultText());
    taken += size;
    for (from += size; !pieces.empty() && from >= pieces.front().iov_len;) {
      from -= pieces.front().iov_len;
      pieces = pieces.subspan(1);
    }
  }
  auto flushed = Flush();
  return flushed.kind == IoResult::Kind::kFailed ? flushed : IoResult::Done(taken);
}

IoResult TlsStream::Flush() {
  while (m_outbox.Kept() > 0) {
    const auto count =
        ::send(m_fd, m_outbox.bytes.data() + m_outbox.sent, m_outbox.Kept(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      const int code = errno;
      m_outbox.Compact();
      return code == EAGAIN ? IoResult::Of(IoResult::Kind::kWantWrite)
                            : IoResult::Failed(SocketFault(code));
    }
    m_outbox.sent += static_cast<std::size_t>(count);
  }
  m_outbox.bytes.clear();
  m_outbox.sent = 0;
  return IoResult::Done(0);
}

}  // namespace

std::unique_ptr<Stream> MakeTlsStream(std::shared_ptr<TlsContext> context, int fd,
                                      const std::string& peerName, std::string& error) {
  auto stream = std::make_unique<TlsStream>(std::move(context), fd);
  error = stream->SetUp(peerName);
  if (!error.empty()) stream = nullptr;
  return stream;
}

}  // namespace penstock
