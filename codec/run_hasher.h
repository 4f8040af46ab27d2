// SPDX-License-Identifier: Apache-2.0
// The strong fingerprint by which two ends that share a key agree that a run of blocks is the same.
#ifndef PENSTOCK_CODEC_RUN_HASHER_H_
#define PENSTOCK_CODEC_RUN_HASHER_H_

#include <array>
#include <cstdint>
#include <memory>

#include "codec/hash.h"
#include "penstock/records.h"

namespace penstock {

using RunKey = std::array<std::uint8_t, 16>;

// AES-128-GMAC (NIST SP 800-38D) under a key that is drawn anew for each connection and known to
// its two ends only, so that whoever chooses the data of a volume can't prepare two blocks that
// look alike. A fingerprint is the 16 bytes of the tag and the run's length in 4, little-endian.
//
// The nonce is the dataset's number (8 bytes, little-endian) and the index of the run's first block
// within the dataset (4 bytes): one connection asks for each of them once.
//
// Threads: one object, one thread at a time.
class RunHasher {
 public:
  explicit RunHasher(const RunKey& key);
  ~RunHasher();
  RunHasher(RunHasher&&) noexcept;
  RunHasher& operator=(RunHasher&&) noexcept;

  BufFingerprint Of(std::uint64_t dataset, std::uint32_t firstBlock, Bytes run);

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace penstock

#endif  // PENSTOCK_CODEC_RUN_HASHER_H_
