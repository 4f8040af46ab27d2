// SPDX-License-Identifier: Apache-2.0
// Goal: the certificates that the documents tell how to make are good for both sides. Method: runs
// the script of the examples, then loads what it made. Here, too: the maker of the other tests'
// certificates.
#include "tests/replicator/certificates.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "replicator/tls.h"
#include "tests/replicator/rig.h"

namespace penstock {

struct TestCa::Impl {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* certificate = X509_new();
};

namespace {

void AddExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  if (value.empty()) return;
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  auto* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
  ASSERT_NE(extension, nullptr) << value;
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

void Fill(X509* certificate, EVP_PKEY* key, const char* name, long from, long to) {
  static long serial = 1;
  X509_set_version(certificate, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate), from);
  X509_gmtime_adj(X509_getm_notAfter(certificate), to);
  X509_set_pubkey(certificate, key);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
}

std::string PemOf(X509* certificate) {
  auto* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_X509(bio, certificate);
  char* data = nullptr;
  const auto size = BIO_get_mem_data(bio, &data);
  std::string text(data, static_cast<std::size_t>(size));
  BIO_free(bio);
  return text;
}

std::string PemOf(EVP_PKEY* key) {
  auto* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
  char* data = nullptr;
  const auto size = BIO_get_mem_data(bio, &data);
  std::string text(data, static_cast<std::size_t>(size));
  BIO_free(bio);
  return text;
}

}  // namespace

TestCa::TestCa() : m_impl(new Impl) {
  static int number = 0;
  const auto name = "test CA " + std::to_string(++number);
  Fill(m_impl->certificate, m_impl->key, name.c_str(), -7200, 7200);
  X509_set_issuer_name(m_impl->certificate, X509_get_subject_name(m_impl->certificate));
  AddExtension(m_impl->certificate, m_impl->certificate, NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(m_impl->certificate, m_impl->certificate, NID_key_usage, "critical,keyCertSign");
  X509_sign(m_impl->certificate, m_impl->key, EVP_sha256());
}

TestCa::~TestCa() {
  X509_free(m_impl->certificate);
  EVP_PKEY_free(m_impl->key);
  delete m_impl;
}

std::string TestCa::Pem() const { return PemOf(m_impl->certificate); }

std::string TestCa::Issue(const std::string& directory, const CertificateSpec& spec) const {
  std::filesystem::create_directory(directory);
  auto* key = EVP_EC_gen("P-256");
  auto* certificate = X509_new();
  Fill(certificate, key, "end", spec.validFromSeconds, spec.validToSeconds);
  X509_set_issuer_name(certificate, X509_get_subject_name(m_impl->certificate));
  AddExtension(certificate, m_impl->certificate, NID_basic_constraints, "critical,CA:FALSE");
  AddExtension(certificate, m_impl->certificate, NID_ext_key_usage, spec.usage);
  AddExtension(certificate, m_impl->certificate, NID_subject_alt_name, spec.names);
  X509_sign(certificate, m_impl->key, EVP_sha256());
  WriteText(directory + "/ca.pem", Pem(), 0644);
  WriteText(directory + "/cert.pem", PemOf(certificate), 0644);
  WriteText(directory + "/key.pem", PemOf(key), 0600);
  X509_free(certificate);
  EVP_PKEY_free(key);
  return directory;
}

namespace {

TEST(ScriptOfTheExamples, MakesCertificatesForBothSides) {
  const TempFolder folder;
  const std::string line = std::string(PENSTOCK_SOURCE_DIR) + "/examples/make_certificates.sh " +
                           (folder / "made") + " target.example 127.0.0.1 source-1 >/dev/null 2>" +
                           (folder / "log");
  ASSERT_EQ(std::system(line.c_str()), 0) << ReadText(folder / "log");
  std::shared_ptr<TlsContext> server;
  std::shared_ptr<TlsContext> client;
  ASSERT_EQ(TlsContext::FromCertificates(folder / "made/target", TlsSide::kServer, server), "");
  ASSERT_EQ(TlsContext::FromCertificates(folder / "made/source-1", TlsSide::kClient, client), "");
  EXPECT_EQ(server->Identity(), "target.example");
  EXPECT_EQ(client->Identity(), "source-1");
  EXPECT_EQ(ModeOf(folder / "made/ca/key.pem"), 0600U);
}

}  // namespace
}  // namespace penstock
