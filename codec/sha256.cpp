// SPDX-License-Identifier: Apache-2.0
#include <openssl/evp.h>

#include <memory>
#include <stdexcept>

#include "codec/hash.h"

namespace penstock {

namespace {

struct FreeDigest {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

void RequireSha(int result) {
  if (result != 1) throw std::runtime_error("SHA-256 can't be computed");
}

}  // namespace

struct Sha256::State {
  std::unique_ptr<EVP_MD_CTX, FreeDigest> context;
};

Sha256::Sha256() : m_state(std::make_unique<State>()) {
  m_state->context.reset(EVP_MD_CTX_new());
  RequireSha(m_state->context ? 1 : 0);
  RequireSha(EVP_DigestInit_ex2(m_state->context.get(), EVP_sha256(), nullptr));
}

Sha256::~Sha256() = default;
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;

void Sha256::Add(Bytes data) {
  RequireSha(EVP_DigestUpdate(m_state->context.get(), data.data(), data.size()));
}

Digest Sha256::Finish() {
  Digest digest;
  RequireSha(EVP_DigestFinal_ex(m_state->context.get(), digest.data(), nullptr));
  return digest;
}

}  // namespace penstock
