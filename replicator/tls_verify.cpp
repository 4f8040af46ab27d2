// SPDX-License-Identifier: Apache-2.0
// Who the other side is: names of certificates, and pre-shared keys.
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>

#include "replicator/identity.h"
#include "replicator/tls_impl.h"

namespace penstock {

namespace {

int ConnectionIndex() {
  static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

std::string TextOf(const ASN1_STRING* text) {
  const auto* data = reinterpret_cast<const char*>(ASN1_STRING_get0_data(text));
  return {data, static_cast<std::size_t>(std::max(ASN1_STRING_length(text), 0))};
}

// The first DNS or URI name; of several, the order in the certificate decides.
std::string FirstName(X509* certificate) {
  const OpenSslPtr<GENERAL_NAMES> names(static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const auto* name = sk_GENERAL_NAME_value(names.get(), i);
    if (name->type == GEN_DNS) return TextOf(name->d.dNSName);
    if (name->type == GEN_URI) return TextOf(name->d.uniformResourceIdentifier);
  }
  return {};
}

// TLS 1.3 as both ends speak it with a key of 32 bytes; the hash of the suite is the key's.
SSL_SESSION* MakeSession(SSL* ssl, const PskKey& key) {
  constexpr unsigned char kAes128GcmSha256[] = {0x13, 0x01};
  const auto* cipher = SSL_CIPHER_find(ssl, kAes128GcmSha256);
  OpenSslPtr<SSL_SESSION> session(SSL_SESSION_new());
  if (cipher == nullptr || !session ||
      SSL_SESSION_set1_master_key(session.get(), key.key.data(), key.key.size()) != 1 ||
      SSL_SESSION_set_cipher(session.get(), cipher) != 1 ||
      SSL_SESSION_set_protocol_version(session.get(), TLS1_3_VERSION) != 1 ||
      SSL_SESSION_set1_ticket_appdata(session.get(), key.identity.data(), key.identity.size()) !=
          1) {
    return nullptr;
  }
  return session.release();
}

}  // namespace

TlsConnection* ConnectionOf(const SSL* ssl) {
  return static_cast<TlsConnection*>(SSL_get_ex_data(ssl, ConnectionIndex()));
}

void SetConnection(SSL* ssl, TlsConnection* connection) {
  SSL_set_ex_data(ssl, ConnectionIndex(), connection);
}

std::string CheckCertificate(X509* certificate, TlsSide side, std::string& identity) {
  const bool isServer = side == TlsSide::kServer;
  const auto usage = X509_get_extended_key_usage(certificate);
  if (usage == UINT32_MAX || (usage & (isServer ? XKU_SSL_SERVER : XKU_SSL_CLIENT)) == 0) {
    return std::string("it lacks the extended key usage ") +
           (isServer ? "serverAuth" : "clientAuth");
  }
  identity = FirstName(certificate);
  if (identity.empty()) return "it has no DNS or URI name among its subject alternative names";
  if (!IsValidIdentity(identity)) {
    identity.clear();
    return "its first subject alternative name can't be an identity";
  }
  return {};
}

int VerifyPeer(int isValid, X509_STORE_CTX* store) {
  auto* ssl =
      static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  auto* connection = ConnectionOf(ssl);
  if (isValid != 1) {
    const int error = X509_STORE_CTX_get_error(store);
    connection->fault = X509_verify_cert_error_string(error);
    if (error == X509_V_ERR_HOSTNAME_MISMATCH || error == X509_V_ERR_IP_ADDRESS_MISMATCH) {
      connection->fault += " (it is not for the name that we connect to; see --peer-name)";
    }
    return 0;
  }
  if (X509_STORE_CTX_get_error_depth(store) != 0) return 1;
  const auto peer =
      connection->context->side == TlsSide::kClient ? TlsSide::kServer : TlsSide::kClient;
  std::string identity;
  connection->fault = CheckCertificate(X509_STORE_CTX_get_current_cert(store), peer, identity);
  if (connection->fault.empty()) return 1;
  X509_STORE_CTX_set_error(store, X509_V_ERR_INVALID_PURPOSE);
  return 0;
}

int UsePsk(SSL* ssl, const EVP_MD* digest, const unsigned char** id, std::size_t* idSize,
           SSL_SESSION** session) {
  *session = nullptr;
  // After the server asked for another group it has chosen a suite: a key of another hash is no
  // use.
  if (digest != nullptr && !EVP_MD_is_a(digest, "SHA256")) return 1;
  const auto& key = ConnectionOf(ssl)->context->keys.front();
  *session = MakeSession(ssl, key);
  if (*session == nullptr) return 0;
  *id = reinterpret_cast<const unsigned char*>(key.identity.data());
  *idSize = key.identity.size();
  return 1;
}

int FindPsk(SSL* ssl, const unsigned char* id, std::size_t idSize, SSL_SESSION** session) {
  *session = nullptr;
  auto* connection = ConnectionOf(ssl);
  const std::string_view name(reinterpret_cast<const char*>(id), idSize);
  const auto& keys = connection->context->keys;
  const auto key =
      std::find_if(keys.begin(), keys.end(), [&](const PskKey& k) { return k.identity == name; });
  connection->name = name.substr(0, kMaxIdentityBytes);
  if (key == keys.end()) {
    connection->fault = "unknown here";
    return 1;  // without a session: the handshake fails for want of a certificate
  }
  connection->fault.clear();
  *session = MakeSession(ssl, *key);
  return *session == nullptr ? 0 : 1;
}

std::string PskIdentityOf(SSL* ssl) {
  void* data = nullptr;
  std::size_t size = 0;
  if (SSL_session_reused(ssl) != 1 ||
      SSL_SESSION_get0_ticket_appdata(SSL_get_session(ssl), &data, &size) != 1 || data == nullptr) {
    return {};
  }
  return {static_cast<const char*>(data), size};
}

std::string TakeErrors() {
  // The first one is the cause; the others are what came of it.
  const auto error = ERR_get_error();
  ERR_clear_error();
  const auto* reason = ERR_reason_error_string(error);
  return reason == nullptr ? "unknown" : reason;
}

}  // namespace penstock
