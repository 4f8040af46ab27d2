// SPDX-License-Identifier: Apache-2.0
// Goal: two ends that prove who they are talk, all others don't, and both sides learn why in words.
// Method: every case over a connection on the loopback address, with certificates made on the spot.
#include "replicator/tls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <memory>
#include <string>

#include "replicator/connection_impl.h"
#include "replicator/psk.h"
#include "replicator/tls_impl.h"
#include "tests/replicator/tls_rig.h"

namespace penstock {
namespace {

using testing::HasSubstr;

TEST_F(Tls, CertificatesOfOneCaTalk) {
  ASSERT_EQ(Talk(Server(m_ca), Client(m_ca)), "");
  EXPECT_EQ(m_target.connection->PeerIdentity(), "source-1");
  EXPECT_EQ(m_source.connection->PeerIdentity(), "target-1");
  EXPECT_TRUE(m_source.connection->IsEncrypted());
  EXPECT_THAT(m_source.connection->Cipher(), HasSubstr("GCM"));
}

TEST_F(Tls, LargeFramesTravelAndKeepTheirOrder) {
  ASSERT_EQ(Talk(Server(m_ca), Client(m_ca)), "");
  for (std::uint8_t i = 0; i < 40; ++i) {
    m_source.connection->Send(BlockFrame(i, 1 + 27'011U * (i % 38U)));
    m_source.connection->Send(SmallFrame(i));
  }
  m_source.connection->Close();
  ASSERT_TRUE(m_runner.Until([&] { return !m_target.closed.empty(); }));
  EXPECT_EQ(m_target.closed, "the peer closed the connection");
  ASSERT_EQ(m_target.frames.size(), 81U);
  EXPECT_EQ(m_target.Token(80), 39U);
}

TEST_F(Tls, KeysAreRenewedOnTheWay) {
  ASSERT_EQ(Talk(Server(m_ca), Client(m_ca)), "");
  for (int i = 0; i < 3; ++i) {
    SSL_key_update(SourceSsl(), SSL_KEY_UPDATE_REQUESTED);
    m_source.connection->Send(SmallFrame(5));
    m_target.connection->Send(SmallFrame(6));
  }
  EXPECT_TRUE(
      m_runner.Until([&] { return m_source.frames.size() == 4 && m_target.frames.size() == 4; }));
}

TEST_F(Tls, AUriIsAnIdentity) {
  CertificateSpec spec;
  spec.names = "URI:urn:penstock:source-7,DNS:other";
  ASSERT_EQ(Talk(Server(m_ca), Client(m_ca, spec)), "");
  EXPECT_EQ(m_target.connection->PeerIdentity(), "urn:penstock:source-7");
}

TEST_F(Tls, TheServersNameMayBeGiven) {
  CertificateSpec spec = TargetSpec();
  spec.names = "DNS:target-1";
  EXPECT_EQ(Talk(Server(m_ca, spec), Client(m_ca), "target-1"), "");
}

TEST_F(Tls, AServerOfAnotherNameIsRefused) {
  CertificateSpec spec = TargetSpec();
  spec.names = "DNS:target-1";
  EXPECT_THAT(Talk(Server(m_ca, spec), Client(m_ca)),
              HasSubstr("the peer's certificate is refused: IP address mismatch (it is not for the "
                        "name that we connect to; see --peer-name)"));
  EXPECT_FALSE(m_accepted);
}

TEST_F(Tls, AServerIsNotTakenByItsCommonName) {
  CertificateSpec spec = TargetSpec();
  spec.names = "DNS:target-1";
  EXPECT_THAT(Talk(Server(m_ca, spec), Client(m_ca), "end"), HasSubstr("hostname mismatch"));
}

TEST_F(Tls, AClientOfAnotherCaIsRefused) {
  const TestCa other;
  const auto client = Client(other);
  // It trusts our server, so that only the server is left to refuse.
  SSL_CTX_set1_cert_store(client->Internal().ssl.get(),
                          SSL_CTX_get_cert_store(Client(m_ca)->Internal().ssl.get()));
  EXPECT_EQ(Talk(Server(m_ca), client),
            "source: TLS: the peer refused us: it doesn't know the CA of our certificate target: "
            "TLS: the peer's certificate is refused: unable to get local issuer certificate");
}

TEST_F(Tls, AServerOfAnotherCaIsRefused) {
  const TestCa other;
  const auto said = Talk(Server(other), Client(m_ca));
  EXPECT_THAT(said, HasSubstr("the peer's certificate is refused: unable to get local issuer"));
  EXPECT_THAT(said, HasSubstr("target: TLS: the peer refused us: it doesn't know the CA"));
  EXPECT_EQ(m_source.connection, nullptr);
}

TEST_F(Tls, AClientWithoutACertificateIsRefused) {
  const auto client = Client(m_ca);
  OpenSslPtr<SSL_CTX> bare(SSL_CTX_new(TLS_client_method()));
  SSL_CTX_set1_cert_store(bare.get(), SSL_CTX_get_cert_store(client->Internal().ssl.get()));
  SSL_CTX_set_verify(bare.get(), SSL_VERIFY_PEER, VerifyPeer);
  client->Internal().ssl.swap(bare);
  EXPECT_EQ(Talk(Server(m_ca), client),
            "source: TLS: the peer refused us: it requires a certificate target: TLS: the peer has "
            "no certificate");
}

TEST_F(Tls, AnExpiredClientIsRefused) {
  CertificateSpec spec;
  spec.validToSeconds = -60;
  EXPECT_EQ(Talk(Server(m_ca), Forged(m_ca, TlsSide::kClient, spec)),
            "source: TLS: the peer refused us: our certificate has expired target: TLS: the peer's "
            "certificate is refused: certificate has expired");
}

TEST_F(Tls, AnExpiredServerIsRefused) {
  CertificateSpec spec = TargetSpec();
  spec.validToSeconds = -60;
  EXPECT_THAT(Talk(Forged(m_ca, TlsSide::kServer, spec), Client(m_ca)),
              HasSubstr("TLS: the peer's certificate is refused: certificate has expired target: "
                        "TLS: the peer refused us: our certificate has expired"));
  EXPECT_EQ(m_source.connection, nullptr);
}

TEST_F(Tls, ACertificateOfTomorrowIsRefused) {
  CertificateSpec spec;
  spec.validFromSeconds = 600;
  EXPECT_THAT(Talk(Server(m_ca), Forged(m_ca, TlsSide::kClient, spec)),
              HasSubstr("target: TLS: the peer's certificate is refused: certificate is not yet "
                        "valid"));
}

TEST_F(Tls, AServersCertificateIsNoClients) {
  EXPECT_THAT(Talk(Server(m_ca), Forged(m_ca, TlsSide::kClient, TargetSpec())),
              HasSubstr("target: TLS: the peer's certificate is refused: unsuitable certificate "
                        "purpose"));
}

TEST_F(Tls, AClientsCertificateIsNoServers) {
  CertificateSpec spec;
  spec.names = TargetSpec().names;
  EXPECT_THAT(Talk(Forged(m_ca, TlsSide::kServer, spec), Client(m_ca)),
              HasSubstr("the peer's certificate is refused: unsuitable certificate purpose"));
}

TEST_F(Tls, ACertificateWithoutAnyUsageIsRefused) {
  CertificateSpec spec;
  spec.usage.clear();
  EXPECT_EQ(Talk(Server(m_ca), Forged(m_ca, TlsSide::kClient, spec)),
            "source: TLS: the peer refused us: our certificate lacks a name or the usage of our "
            "side target: TLS: the peer's certificate is refused: it lacks the extended key usage "
            "clientAuth");
}

TEST_F(Tls, AClientWithoutANameIsRefused) {
  for (const char* names : {"", "IP:127.0.0.1", "email:a@example.org"}) {
    m_refused.clear();
    m_source = End{};
    CertificateSpec spec;
    spec.names = names;
    EXPECT_THAT(Talk(Server(m_ca), Forged(m_ca, TlsSide::kClient, spec)),
                HasSubstr("target: TLS: the peer's certificate is refused: it has no DNS or URI "
                          "name"))
        << names;
  }
}

TEST_F(Tls, NamesThatCantBeIdentitiesAreRefused) {
  for (const char* names : {"DNS:*.example", "DNS:plaintext", "DNS:a b"}) {
    m_refused.clear();
    m_source = End{};
    CertificateSpec spec;
    spec.names = names;
    EXPECT_THAT(Talk(Server(m_ca), Forged(m_ca, TlsSide::kClient, spec)),
                HasSubstr("its first subject alternative name can't be an identity"))
        << names;
  }
}

TEST_F(Tls, KeysTalk) {
  ASSERT_EQ(Talk(Keys(TlsSide::kServer, Key("site-b", '2') + Key("site-a", '1')),
                 Keys(TlsSide::kClient, Key("site-a", '1'))),
            "");
  EXPECT_EQ(m_target.connection->PeerIdentity(), "site-a");
  EXPECT_EQ(m_source.connection->PeerIdentity(), "site-a");
  EXPECT_EQ(m_source.connection->Cipher(), "TLS_AES_128_GCM_SHA256");
}

TEST_F(Tls, AMadeKeyTalks) {
  const auto path = m_folder / "made";
  ASSERT_EQ(WritePskFile(path, "site-a"), "");
  std::shared_ptr<TlsContext> server;
  std::shared_ptr<TlsContext> client;
  ASSERT_EQ(TlsContext::FromPskFile(path, TlsSide::kServer, server), "");
  ASSERT_EQ(TlsContext::FromPskFile(path, TlsSide::kClient, client), "");
  EXPECT_EQ(client->Identity(), "site-a");
  EXPECT_EQ(Talk(server, client), "");
}

TEST_F(Tls, AWrongKeyIsRefused) {
  const auto said =
      Talk(Keys(TlsSide::kServer, Key("site-a", '1')), Keys(TlsSide::kClient, Key("site-a", '2')));
  EXPECT_THAT(said, HasSubstr("it has another key under our name"));
  EXPECT_THAT(said, HasSubstr("target: TLS: the pre-shared key of 'site-a' is another one here"));
  EXPECT_EQ(m_source.connection, nullptr);
}

TEST_F(Tls, AnUnknownKeyIsRefused) {
  const auto said =
      Talk(Keys(TlsSide::kServer, Key("site-a", '1')), Keys(TlsSide::kClient, Key("site-x", '1')));
  EXPECT_THAT(said, HasSubstr("no common way to prove who we are"));
  EXPECT_THAT(said, HasSubstr("target: TLS: the pre-shared key of 'site-x' is unknown here"));
}

TEST_F(Tls, AKeyIsNoUseWithAServerOfCertificates) {
  EXPECT_THAT(Talk(Server(m_ca), Keys(TlsSide::kClient, Key("a", '1'))),
              HasSubstr("the peer's certificate is refused"));
  EXPECT_EQ(m_source.connection, nullptr);
}

TEST_F(Tls, ACertificateIsNoUseWithAServerOfKeys) {
  EXPECT_THAT(Talk(Keys(TlsSide::kServer, Key("a", '1')), Client(m_ca)),
              HasSubstr("target: TLS: no common way to prove who we are"));
  EXPECT_EQ(m_source.connection, nullptr);
}

TEST_F(Tls, ACutIsToldFromAnEnd) {
  ASSERT_EQ(Talk(Server(m_ca), Client(m_ca)), "");
  m_source.connection->Abort("cut");  // without a word of TLS
  ASSERT_TRUE(m_runner.Until([&] { return !m_target.closed.empty(); }));
  EXPECT_EQ(m_target.closed, "the peer cut the connection");
}

TEST_F(Tls, ADamagedByteEndsTheConnection) {
  ASSERT_EQ(Talk(Server(m_ca), Client(m_ca)), "");
  const auto noise = std::string("\x17\x03\x03\x00\x20", 5) + std::string(32, 'x');
  const int fd = m_source.connection->m_impl->descriptor.native_handle();
  ASSERT_EQ(::send(fd, noise.data(), noise.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(noise.size()));
  ASSERT_TRUE(m_runner.Until([&] { return !m_target.closed.empty(); }));
  EXPECT_THAT(m_target.closed, HasSubstr("decryption failed or bad record mac"));
}

TEST_F(Tls, AServerGivesNoTickets) {
  ASSERT_EQ(Talk(Server(m_ca), Client(m_ca)), "");
  m_runner.Settle();
  EXPECT_EQ(SSL_SESSION_is_resumable(SSL_get_session(SourceSsl())), 0);
}

}  // namespace
}  // namespace penstock
