// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_TLS_H_
#define PENSTOCK_REPLICATOR_TLS_H_

#include <memory>
#include <string>

namespace penstock {

enum class TlsSide {
  kClient,  // connects: the source
  kServer,  // listens: the target
};

// What one end needs to prove who it is, and to look at who the other is. TLS 1.3 only, with AEAD
// suites, both ends authenticated, without resumption and without early data.
//
// Certificates: a directory with ca.pem (the one private CA that is trusted, the system's are not),
// cert.pem (own certificate, and what is between it and the CA) and key.pem. The other end's
// certificate must be of that CA, valid today, with a SAN DNS or URI name, and with the extended
// key usage of its side (clientAuth, serverAuth); a server's must carry the name it is connected
// by.
//
// Pre-shared keys: a file of psk.h. A client uses its first key; a server takes any of its keys.
//
// Threads: made on one thread, then used on the loop's. Shared by the connections made with it.
class TlsContext {
 public:
  // Returns an empty text, or what is wrong with the files and what to do. Refused: a key file that
  // others may read, a key that isn't the certificate's, a certificate that is expired, or that has
  // no name, or not the usage of `side`, or isn't of the CA.
  static std::string FromCertificates(const std::string& directory, TlsSide side,
                                      std::shared_ptr<TlsContext>& out);
  static std::string FromPskFile(const std::string& path, TlsSide side,
                                 std::shared_ptr<TlsContext>& out);
  ~TlsContext();
  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;

  TlsSide Side() const;
  bool IsPsk() const;
  // The name that the other end will see: of the certificate, or of a client's key; empty for a
  // server with keys.
  const std::string& Identity() const;

  struct Impl;
  explicit TlsContext(std::unique_ptr<Impl> impl);
  Impl& Internal() { return *m_impl; }

 private:
  std::unique_ptr<Impl> m_impl;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_TLS_H_
