// SPDX-License-Identifier: Apache-2.0
#include "replicator/tls.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <utility>

#include "replicator/files.h"
#include "replicator/tls_impl.h"

namespace penstock {

namespace {

constexpr std::size_t kMaxPemBytes = 1U << 20U;
constexpr std::size_t kReadBufferBytes = 64U << 10U;  // of encrypted bytes, read at a time
constexpr int kMaxDepth = 4;
constexpr const char* kSuites =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";
// Those of the hash that belongs to a pre-shared key.
constexpr const char* kPskSuites = "TLS_AES_128_GCM_SHA256:TLS_CHACHA20_POLY1305_SHA256";

OpenSslPtr<BIO> TextBio(const std::string& text) {
  return OpenSslPtr<BIO>(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

// Reads every certificate of a file, the first one first.
std::string ReadCertificates(const std::string& path, std::vector<OpenSslPtr<X509>>& out) {
  std::string text;
  auto fault = ReadSmallFile(path, kMaxPemBytes, FilePrivacy::kNobodyWrites, text);
  if (!fault.empty()) return fault;
  const auto bio = TextBio(text);
  while (auto* certificate = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
    out.emplace_back(certificate);
  }
  const bool isEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
  ERR_clear_error();
  if (out.empty() || !isEnd) return path + " holds no certificate in PEM form, or a damaged one";
  return {};
}

int NoPassword(char*, int, int, void*) { return -1; }

std::string ReadKey(const std::string& path, OpenSslPtr<EVP_PKEY>& out) {
  std::string text;
  auto fault = ReadSmallFile(path, kMaxPemBytes, FilePrivacy::kNobodyReads, text);
  if (!fault.empty()) return fault;
  out.reset(PEM_read_bio_PrivateKey(TextBio(text).get(), nullptr, NoPassword, nullptr));
  OPENSSL_cleanse(text.data(), text.size());
  ERR_clear_error();
  return out ? "" : path + " holds no private key in PEM form without a password";
}

std::string MakeContext(TlsContext::Impl& impl, const char* suites) {
  impl.ssl.reset(
      SSL_CTX_new(impl.side == TlsSide::kServer ? TLS_server_method() : TLS_client_method()));
  auto* ssl = impl.ssl.get();
  if (ssl == nullptr || SSL_CTX_set_min_proto_version(ssl, TLS1_3_VERSION) != 1 ||
      SSL_CTX_set_max_proto_version(ssl, TLS1_3_VERSION) != 1 ||
      SSL_CTX_set_ciphersuites(ssl, suites) != 1 || SSL_CTX_set_num_tickets(ssl, 0) != 1 ||
      SSL_CTX_set_max_early_data(ssl, 0) != 1) {
    return "TLS can't be set up: " + TakeErrors();
  }
  SSL_CTX_set_options(ssl, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION |
                               SSL_OP_CIPHER_SERVER_PREFERENCE);
  SSL_CTX_set_session_cache_mode(ssl, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_mode(ssl, SSL_MODE_NO_AUTO_CHAIN);  // the other end has the CA, or is none of ours
  if (impl.side == TlsSide::kServer) {
    // One that verifies its peers takes no pre-shared key without a context.
    static constexpr unsigned char kContext[] = "penstock";
    SSL_CTX_set_session_id_context(ssl, kContext, sizeof(kContext));
  }
  SSL_CTX_set_read_ahead(ssl, 1);
  SSL_CTX_set_default_read_buffer_len(ssl, kReadBufferBytes);
  SSL_CTX_set_verify_depth(ssl, kMaxDepth);
  SSL_CTX_set_verify(ssl, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, VerifyPeer);
  return {};
}

std::string UseOwn(SSL_CTX* ssl, const std::string& directory,
                   std::vector<OpenSslPtr<X509>>& chain) {
  auto fault = ReadCertificates(directory + "/cert.pem", chain);
  OpenSslPtr<EVP_PKEY> key;
  if (fault.empty()) fault = ReadKey(directory + "/key.pem", key);
  if (!fault.empty()) return fault;
  bool isTaken = SSL_CTX_use_certificate(ssl, chain.front().get()) == 1;
  for (std::size_t i = 1; isTaken && i < chain.size(); ++i) {
    isTaken = SSL_CTX_add1_chain_cert(ssl, chain[i].get()) == 1;
  }
  if (!isTaken) return directory + "/cert.pem can't be used: " + TakeErrors();
  if (X509_check_private_key(chain.front().get(), key.get()) != 1) {
    ERR_clear_error();
    return directory + "/key.pem is not the key of " + directory + "/cert.pem";
  }
  if (SSL_CTX_use_PrivateKey(ssl, key.get()) != 1) {
    return directory + "/key.pem can't be used: " + TakeErrors();
  }
  return {};
}

std::string UseCa(SSL_CTX* ssl, const std::string& directory) {
  std::vector<OpenSslPtr<X509>> authorities;
  const auto path = directory + "/ca.pem";
  if (auto fault = ReadCertificates(path, authorities); !fault.empty()) return fault;
  for (const auto& authority : authorities) {
    if (X509_check_ca(authority.get()) != 1) {
      return path + " holds a certificate that is not of a CA (no basicConstraints CA:TRUE)";
    }
    if (X509_STORE_add_cert(SSL_CTX_get_cert_store(ssl), authority.get()) != 1) {
      return path + " can't be used: " + TakeErrors();
    }
  }
  return {};
}

// Looks at the own certificate as the other end will: better told here than there.
std::string CheckOwn(TlsContext::Impl& impl, const std::string& path,
                     const std::vector<OpenSslPtr<X509>>& chain) {
  auto* certificate = chain.front().get();
  OpenSslPtr<X509_STORE_CTX> store(X509_STORE_CTX_new());
  STACK_OF(X509)* untrusted = nullptr;
  SSL_CTX_get0_chain_certs(impl.ssl.get(), &untrusted);
  if (!store || X509_STORE_CTX_init(store.get(), SSL_CTX_get_cert_store(impl.ssl.get()),
                                    certificate, untrusted) != 1) {
    return path + " can't be looked at: " + TakeErrors();
  }
  if (X509_verify_cert(store.get()) != 1) {
    const auto* reason = X509_verify_cert_error_string(X509_STORE_CTX_get_error(store.get()));
    ERR_clear_error();
    return path + " is of no use with ca.pem: " + reason + " (see docs/security.md to make one)";
  }
  const auto fault = CheckCertificate(certificate, impl.side, impl.identity);
  return fault.empty() ? "" : path + " is of no use: " + fault + " (see docs/security.md)";
}

}  // namespace

TlsContext::Impl::~Impl() {
  for (auto& key : keys) OPENSSL_cleanse(key.key.data(), key.key.size());
}

TlsContext::TlsContext(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
TlsContext::~TlsContext() = default;

std::string TlsContext::FromCertificates(const std::string& directory, TlsSide side,
                                         std::shared_ptr<TlsContext>& out) {
  auto impl = std::make_unique<Impl>();
  impl->side = side;
  auto fault = MakeContext(*impl, kSuites);
  std::vector<OpenSslPtr<X509>> chain;
  if (fault.empty()) fault = UseCa(impl->ssl.get(), directory);
  if (fault.empty()) fault = UseOwn(impl->ssl.get(), directory, chain);
  if (fault.empty()) fault = CheckOwn(*impl, directory + "/cert.pem", chain);
  if (fault.empty()) out = std::make_shared<TlsContext>(std::move(impl));
  return fault;
}

std::string TlsContext::FromPskFile(const std::string& path, TlsSide side,
                                    std::shared_ptr<TlsContext>& out) {
  auto impl = std::make_unique<Impl>();
  impl->side = side;
  auto fault = ReadPskFile(path, impl->keys);
  if (fault.empty()) fault = MakeContext(*impl, kPskSuites);
  if (!fault.empty()) return fault;
  if (side == TlsSide::kClient) {
    impl->identity = impl->keys.front().identity;
    SSL_CTX_set_psk_use_session_callback(impl->ssl.get(), UsePsk);
  } else {
    SSL_CTX_set_psk_find_session_callback(impl->ssl.get(), FindPsk);
  }
  out = std::make_shared<TlsContext>(std::move(impl));
  return {};
}

TlsSide TlsContext::Side() const { return m_impl->side; }
bool TlsContext::IsPsk() const { return !m_impl->keys.empty(); }
const std::string& TlsContext::Identity() const { return m_impl->identity; }

}  // namespace penstock
