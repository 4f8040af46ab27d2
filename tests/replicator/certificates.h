// SPDX-License-Identifier: Apache-2.0
// Certificates for the tests, made on the spot.
#ifndef PENSTOCK_TESTS_REPLICATOR_CERTIFICATES_H_
#define PENSTOCK_TESTS_REPLICATOR_CERTIFICATES_H_

#include <string>

namespace penstock {

struct CertificateSpec {
  std::string names = "DNS:source-1";  // subject alternative names; empty: none
  std::string usage = "clientAuth";    // extended key usages; empty: none
  long validFromSeconds = -3600;       // from now
  long validToSeconds = 3600;
};

// A CA with a key of its own.
class TestCa {
 public:
  TestCa();
  ~TestCa();
  TestCa(const TestCa&) = delete;
  TestCa& operator=(const TestCa&) = delete;

  // Makes a directory with ca.pem, cert.pem and key.pem. Returns it.
  std::string Issue(const std::string& directory, const CertificateSpec& spec) const;
  // The CA's certificate alone, as PEM text.
  std::string Pem() const;

 private:
  struct Impl;
  Impl* m_impl;
};

}  // namespace penstock

#endif  // PENSTOCK_TESTS_REPLICATOR_CERTIFICATES_H_
