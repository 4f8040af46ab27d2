// SPDX-License-Identifier: Apache-2.0
// Goal: peers that are none of ours are refused, and files that are no good are told at the start.
// Method: the test's own use of OpenSSL in a thread; files in a folder of the test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "replicator/files.h"
#include "tests/replicator/tls_rig.h"

namespace penstock {
namespace {

using testing::HasSubstr;

// A peer that speaks as it likes: the test's own OpenSSL, in a thread.
class OtherPeer : public Tls {
 protected:
  using SetUpFn = std::function<void(SSL_CTX*)>;

  // Connects to our server. Returns what our server says.
  std::string ServerSays(const std::shared_ptr<TlsContext>& server, const SetUpFn& setUp) {
    ListenOptions listen;
    listen.tls = server;
    Endpoint endpoint;
    EXPECT_EQ(Endpoint::Parse("unix:" + (m_folder / "s"), endpoint), "");
    EXPECT_EQ(Listen(endpoint, listen), "");
    std::thread peer([&] {
      sigset_t pipe;  // it may write after our end has gone
      sigemptyset(&pipe);
      sigaddset(&pipe, SIGPIPE);
      pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
      OpenSslPtr<SSL_CTX> context(SSL_CTX_new(TLS_client_method()));
      setUp(context.get());
      const OpenSslPtr<SSL> ssl(SSL_new(context.get()));
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::copy(endpoint.path.begin(), endpoint.path.end(), address.sun_path);
      const Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      ASSERT_EQ(::connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
      SSL_set_fd(ssl.get(), fd.Get());
      char byte = 0;
      if (SSL_connect(ssl.get()) == 1) SSL_read(ssl.get(), &byte, 1);
      ERR_clear_error();
    });
    EXPECT_TRUE(m_runner.Until([&] { return m_accepted || !m_refused.empty(); }));
    m_target.connection = nullptr;
    peer.join();
    return m_accepted ? "accepted" : m_refused;
  }
};

TEST_F(OtherPeer, OfTls12IsRefused) {
  const auto client = Client(m_ca);
  const auto folder = m_ca.Issue(NewFolder(), {});
  const auto setUp = [&](SSL_CTX* context, int version) {
    SSL_CTX_set_max_proto_version(context, version);
    SSL_CTX_use_certificate_file(context, (folder + "/cert.pem").c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_use_PrivateKey_file(context, (folder + "/key.pem").c_str(), SSL_FILETYPE_PEM);
  };
  EXPECT_EQ(ServerSays(Server(m_ca), [&](SSL_CTX* c) { setUp(c, TLS1_2_VERSION); }),
            "TLS: the peer doesn't speak TLS 1.3");
}

TEST_F(OtherPeer, OfTls13WithACertificateIsAccepted) {
  const auto folder = m_ca.Issue(NewFolder(), {});
  EXPECT_EQ(ServerSays(Server(m_ca),
                       [&](SSL_CTX* context) {
                         SSL_CTX_use_certificate_file(context, (folder + "/cert.pem").c_str(),
                                                      SSL_FILETYPE_PEM);
                         SSL_CTX_use_PrivateKey_file(context, (folder + "/key.pem").c_str(),
                                                     SSL_FILETYPE_PEM);
                       }),
            "accepted");
}

TEST_F(OtherPeer, WithoutCredentialsIsRefused) {
  EXPECT_EQ(ServerSays(Server(m_ca), [](SSL_CTX*) {}), "TLS: the peer has no certificate");
}

TEST_F(OtherPeer, WithoutAKeyIsRefused) {
  EXPECT_EQ(ServerSays(Keys(TlsSide::kServer, Key("a", '1')), [](SSL_CTX*) {}),
            "TLS: no common way to prove who we are");
}

TEST_F(Tls, APlaintextPeerIsToldFromATlsOne) {
  ListenOptions listen;
  listen.tls = Server(m_ca);
  m_waitsForTarget = false;
  ASSERT_EQ(Connect(listen, PlainConnect()), "");
  m_source.Start(m_runner);
  m_source.connection->Send(SmallFrame(1));
  ASSERT_TRUE(m_runner.Until([&] { return !m_refused.empty() && !m_source.closed.empty(); }));
  EXPECT_EQ(m_refused, "TLS: the peer doesn't speak TLS");
}

TEST_F(Tls, AHandshakeMustEndInTime) {
  ListenOptions listen;
  listen.tls = Server(m_ca);
  listen.connection.handshakeTimeoutMs = 50;
  ASSERT_EQ(Connect(listen, PlainConnect()), "");
  ASSERT_TRUE(m_runner.Until([&] { return !m_refused.empty(); }));
  EXPECT_EQ(m_refused, "timeout: the handshake was not finished for 50 ms");
  EXPECT_EQ(m_listener->Connections(), 0U);
}

// What is wrong with the files is told at the start, not by a peer.
class TlsFiles : public Tls {
 protected:
  std::string Says(const std::string& folder, TlsSide side = TlsSide::kClient) {
    std::shared_ptr<TlsContext> context;
    return TlsContext::FromCertificates(folder, side, context);
  }
  std::string Made(const CertificateSpec& spec = {}) { return m_ca.Issue(NewFolder(), spec); }
};

TEST_F(TlsFiles, AKeyThatOthersMayReadIsRefused) {
  const auto folder = Made();
  ASSERT_EQ(::chmod((folder + "/key.pem").c_str(), 0640), 0);
  EXPECT_EQ(Says(folder),
            folder + "/key.pem is readable by others; run: chmod 600 " + folder + "/key.pem");
}

TEST_F(TlsFiles, AKeyFileThatOthersMayReadIsRefused) {
  const auto path = WriteText(m_folder / "psk", Key("a", '1'), 0644);
  std::shared_ptr<TlsContext> context;
  EXPECT_EQ(TlsContext::FromPskFile(path, TlsSide::kClient, context),
            path + " is readable by others; run: chmod 600 " + path);
}

TEST_F(TlsFiles, ACaThatOthersMayWriteIsRefused) {
  const auto folder = Made();
  ASSERT_EQ(::chmod((folder + "/ca.pem").c_str(), 0646), 0);
  EXPECT_THAT(Says(folder), HasSubstr("ca.pem is writable by others"));
}

TEST_F(TlsFiles, AMissingFileIsNamed) {
  for (const char* name : {"/ca.pem", "/cert.pem", "/key.pem"}) {
    const auto folder = Made();
    std::filesystem::remove(folder + name);
    EXPECT_EQ(Says(folder), "can't open " + folder + name + ": No such file or directory");
  }
}

TEST_F(TlsFiles, AFileOfSomethingElseIsNamed) {
  for (const char* name : {"/ca.pem", "/cert.pem", "/key.pem"}) {
    const auto folder = Made();
    WriteText(folder + name, "nothing of the kind");
    EXPECT_THAT(Says(folder), HasSubstr(folder + name + " holds no "));
  }
}

TEST_F(TlsFiles, AnotherKeyIsTold) {
  const auto folder = Made();
  const auto other = Made();
  WriteText(folder + "/key.pem", ReadText(other + "/key.pem"));
  EXPECT_EQ(Says(folder), folder + "/key.pem is not the key of " + folder + "/cert.pem");
}

TEST_F(TlsFiles, AnotherCaIsTold) {
  const TestCa other;
  const auto folder = Made();
  WriteText(folder + "/ca.pem", other.Pem());
  EXPECT_THAT(Says(folder), HasSubstr("cert.pem is of no use with ca.pem: unable to get local"));
}

TEST_F(TlsFiles, ACertificateIsNoCa) {
  const auto folder = Made();
  WriteText(folder + "/ca.pem", ReadText(folder + "/cert.pem"));
  EXPECT_THAT(Says(folder), HasSubstr("ca.pem holds a certificate that is not of a CA"));
}

TEST_F(TlsFiles, AnExpiredCertificateIsTold) {
  CertificateSpec spec;
  spec.validToSeconds = -60;
  EXPECT_THAT(Says(Made(spec)), HasSubstr("cert.pem is of no use with ca.pem: certificate has "
                                          "expired (see docs/security.md"));
}

TEST_F(TlsFiles, ACertificateOfTheOtherSideIsTold) {
  EXPECT_THAT(Says(Made(), TlsSide::kServer),
              HasSubstr("it lacks the extended key usage serverAuth"));
  EXPECT_THAT(Says(Made(TargetSpec())), HasSubstr("it lacks the extended key usage clientAuth"));
}

TEST_F(TlsFiles, ACertificateWithoutANameIsTold) {
  CertificateSpec spec;
  spec.names.clear();
  EXPECT_THAT(Says(Made(spec)), HasSubstr("cert.pem is of no use: it has no DNS or URI name"));
}

}  // namespace
}  // namespace penstock
