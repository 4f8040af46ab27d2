// SPDX-License-Identifier: Apache-2.0
// Two ends that prove who they are, or can't.
#ifndef PENSTOCK_TESTS_REPLICATOR_TLS_RIG_H_
#define PENSTOCK_TESTS_REPLICATOR_TLS_RIG_H_

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "replicator/tls.h"
#include "replicator/tls_impl.h"
#include "tests/replicator/certificates.h"
#include "tests/replicator/connection_rig.h"

namespace penstock {

class Tls : public Connections {
 protected:
  static CertificateSpec TargetSpec() {
    CertificateSpec spec;
    spec.names = "DNS:target-1,DNS:localhost,IP:127.0.0.1";
    spec.usage = "serverAuth";
    return spec;
  }

  std::shared_ptr<TlsContext> Server(const TestCa& ca, const CertificateSpec& spec = TargetSpec()) {
    return Load(ca.Issue(NewFolder(), spec), TlsSide::kServer);
  }
  std::shared_ptr<TlsContext> Client(const TestCa& ca, const CertificateSpec& spec = {}) {
    return Load(ca.Issue(NewFolder(), spec), TlsSide::kClient);
  }
  std::string NewFolder() { return m_folder / ("c" + std::to_string(++m_folders)); }

  static std::shared_ptr<TlsContext> Load(const std::string& folder, TlsSide side) {
    std::shared_ptr<TlsContext> context;
    EXPECT_EQ(TlsContext::FromCertificates(folder, side, context), "");
    return context;
  }

  // A certificate that its own side would not take. Loads a good one, and puts it in its place.
  std::shared_ptr<TlsContext> Forged(const TestCa& ca, TlsSide side, const CertificateSpec& spec) {
    auto context = side == TlsSide::kClient ? Client(ca) : Server(ca);
    const auto folder = ca.Issue(NewFolder(), spec);
    auto* ssl = context->Internal().ssl.get();
    EXPECT_EQ(SSL_CTX_use_certificate_file(ssl, (folder + "/cert.pem").c_str(), SSL_FILETYPE_PEM),
              1);
    EXPECT_EQ(SSL_CTX_use_PrivateKey_file(ssl, (folder + "/key.pem").c_str(), SSL_FILETYPE_PEM), 1);
    return context;
  }

  std::shared_ptr<TlsContext> Keys(TlsSide side, const std::string& text) {
    std::shared_ptr<TlsContext> context;
    EXPECT_EQ(TlsContext::FromPskFile(WriteText(NewFolder(), text), side, context), "");
    return context;
  }
  static std::string Key(const std::string& identity, char digit) {
    return identity + ":" + std::string(64, digit) + "\n";
  }

  // Connects, and lets both ends talk. Returns "" when both could, or what each end said:
  // "source: ... target: ...".
  std::string Talk(const std::shared_ptr<TlsContext>& server,
                   const std::shared_ptr<TlsContext>& client, const std::string& peerName = {}) {
    ListenOptions listen;
    listen.tls = server;
    ConnectOptions connect;
    connect.tls = client;
    SSL_CTX_set_info_callback(client->Internal().ssl.get(),
                              [](const SSL* ssl, int, int) { s_sourceSsl = ssl; });
    connect.peerName = peerName;
    const auto fault = Connect(listen, connect);
    return Outcome(fault);
  }

  std::string Outcome(const std::string& fault) {
    if (!m_accepted || !m_source.connection) {
      m_runner.Until([&] { return !m_refused.empty(); }, 2'000);
      std::string said = fault;
      if (m_source.connection) {  // in TLS 1.3 the client is done first, and told afterwards
        m_source.Start(m_runner);
        m_runner.Until([&] { return !m_source.closed.empty(); });
        said = m_source.closed;
      }
      return "source: " + said + " target: " + m_refused;
    }
    StartBoth();
    m_source.connection->Send(SmallFrame(1));
    m_target.connection->Send(SmallFrame(2));
    m_runner.Until([&] { return !m_source.frames.empty() && !m_target.frames.empty(); });
    return m_source.closed + m_target.closed;
  }

  // The source's own object of OpenSSL.
  static SSL* SourceSsl() {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): it is ours
    return const_cast<SSL*>(s_sourceSsl);
  }

  TestCa m_ca;
  int m_folders = 0;
  static inline const SSL* s_sourceSsl = nullptr;
};

}  // namespace penstock

#endif  // PENSTOCK_TESTS_REPLICATOR_TLS_RIG_H_
