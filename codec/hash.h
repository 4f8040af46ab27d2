// SPDX-License-Identifier: Apache-2.0
// Hashes of volume data and of frames. Pure functions: no I/O, no state, safe from any thread.
#ifndef PENSTOCK_CODEC_HASH_H_
#define PENSTOCK_CODEC_HASH_H_

#include <array>
#include <cstdint>
#include <memory>
#include <span>

namespace penstock {

using Bytes = std::span<const std::uint8_t>;

// XXH3 with 64 bits of output, by the widest instructions that the machine has. Not a defence
// against anyone who chooses the data: see RunHasher.
std::uint64_t Hash64(Bytes data, std::uint64_t seed = 0);

// The same, in pieces: Value() equals Hash64 of everything that was added.
class Hash64Stream {
 public:
  explicit Hash64Stream(std::uint64_t seed = 0);
  ~Hash64Stream();
  Hash64Stream(const Hash64Stream&) = delete;
  Hash64Stream& operator=(const Hash64Stream&) = delete;

  void Add(Bytes data);
  std::uint64_t Value() const;

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

using Digest = std::array<std::uint8_t, 32>;

// SHA-256 of the pieces in order (FIPS 180-4).
class Sha256 {
 public:
  Sha256();
  ~Sha256();
  Sha256(Sha256&&) noexcept;
  Sha256& operator=(Sha256&&) noexcept;

  void Add(Bytes data);
  // The digest of everything added so far. Ends the computation: no Add afterwards.
  Digest Finish();

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

// Whether every byte is zero. True for no bytes.
bool IsZero(Bytes data);

}  // namespace penstock

#endif  // PENSTOCK_CODEC_HASH_H_
