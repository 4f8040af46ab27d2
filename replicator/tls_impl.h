// SPDX-License-Identifier: Apache-2.0
// What is inside a TlsContext. Included by the TLS sources, and by no header.
#ifndef PENSTOCK_REPLICATOR_TLS_IMPL_H_
#define PENSTOCK_REPLICATOR_TLS_IMPL_H_

#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "replicator/psk.h"
#include "replicator/tls.h"

namespace penstock {

// Frees what OpenSSL made.
struct OpenSslDelete {
  void operator()(BIO* p) const { BIO_free_all(p); }
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
  void operator()(GENERAL_NAMES* p) const { GENERAL_NAMES_free(p); }
  void operator()(SSL* p) const { SSL_free(p); }
  void operator()(SSL_CTX* p) const { SSL_CTX_free(p); }
  void operator()(SSL_SESSION* p) const { SSL_SESSION_free(p); }
  void operator()(X509* p) const { X509_free(p); }
  void operator()(X509_STORE_CTX* p) const { X509_STORE_CTX_free(p); }
};
template <class T>
using OpenSslPtr = std::unique_ptr<T, OpenSslDelete>;

struct TlsContext::Impl {
  TlsSide side = TlsSide::kClient;
  std::string identity;
  OpenSslPtr<SSL_CTX> ssl;
  std::vector<PskKey> keys;  // empty: certificates

  ~Impl();
};

// What one connection's callbacks leave behind. The SSL object points to it (ConnectionOf).
struct TlsConnection {
  TlsContext::Impl* context = nullptr;
  std::string fault;  // of the peer's certificate, in our words
  std::string name;   // the identity that a pre-shared key was asked for
};
TlsConnection* ConnectionOf(const SSL* ssl);
void SetConnection(SSL* ssl, TlsConnection* connection);

// Looks at what OpenSSL does not: the usage of the other side, and that there is a name. Returns an
// empty text and the name, or what is wrong with it.
std::string CheckCertificate(X509* certificate, TlsSide side, std::string& identity);

// The callback that refuses a peer by CheckCertificate, within the handshake.
int VerifyPeer(int isValid, X509_STORE_CTX* store);

// The callbacks of pre-shared keys.
int UsePsk(SSL* ssl, const EVP_MD* digest, const unsigned char** id, std::size_t* idSize,
           SSL_SESSION** session);
int FindPsk(SSL* ssl, const unsigned char* id, std::size_t idSize, SSL_SESSION** session);
// The name of the key by which a server's connection was authenticated; empty: by none.
std::string PskIdentityOf(SSL* ssl);

// Takes OpenSSL's errors of this thread and makes one text of them.
std::string TakeErrors();

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_TLS_IMPL_H_
