// SPDX-License-Identifier: Apache-2.0
#include "codec/run_hasher.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace penstock {

namespace {

constexpr int kTagBytes = 16;

struct FreeCipher {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

void Require(int result) {
  if (result != 1) throw std::runtime_error("AES-128-GMAC can't be computed");
}

using Nonce = std::array<std::uint8_t, 12>;

Nonce MakeNonce(std::uint64_t dataset, std::uint32_t firstBlock) {
  Nonce nonce;
  std::memcpy(nonce.data(), &dataset, sizeof(dataset));
  std::memcpy(nonce.data() + sizeof(dataset), &firstBlock, sizeof(firstBlock));
  return nonce;
}

}  // namespace

struct RunHasher::State {
  std::unique_ptr<EVP_CIPHER_CTX, FreeCipher> context;
};

// The key's schedule is made once; a run only sets its nonce.
RunHasher::RunHasher(const RunKey& key) : m_state(std::make_unique<State>()) {
  m_state->context.reset(EVP_CIPHER_CTX_new());
  Require(m_state->context ? 1 : 0);
  Require(
      EVP_EncryptInit_ex2(m_state->context.get(), EVP_aes_128_gcm(), key.data(), nullptr, nullptr));
}

RunHasher::~RunHasher() = default;
RunHasher::RunHasher(RunHasher&&) noexcept = default;
RunHasher& RunHasher::operator=(RunHasher&&) noexcept = default;

BufFingerprint RunHasher::Of(std::uint64_t dataset, std::uint32_t firstBlock, Bytes run) {
  EVP_CIPHER_CTX* context = m_state->context.get();
  const Nonce nonce = MakeNonce(dataset, firstBlock);
  Require(EVP_EncryptInit_ex2(context, nullptr, nullptr, nonce.data(), nullptr));

  // The whole run is additional data, in pieces that an int can count; there is nothing to encrypt.
  constexpr std::size_t kMostAtOnce = std::size_t{1} << 30U;
  int written = 0;
  for (Bytes left = run; !left.empty();) {
    const std::size_t size = std::min(left.size(), kMostAtOnce);
    Require(EVP_EncryptUpdate(context, nullptr, &written, left.data(), static_cast<int>(size)));
    left = left.subspan(size);
  }
  std::array<std::uint8_t, kTagBytes> nothing;
  Require(EVP_EncryptFinal_ex(context, nothing.data(), &written));

  BufFingerprint print;
  Require(EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, kTagBytes, print.bytes.data()));
  const auto length = static_cast<std::uint32_t>(run.size());
  std::memcpy(print.bytes.data() + kTagBytes, &length, sizeof(length));
  return print;
}

}  // namespace penstock
