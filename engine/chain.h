// SPDX-License-Identifier: Apache-2.0
// The chain value: what both ends know of the history up to a dataset, in 32 bytes.
#ifndef PENSTOCK_ENGINE_CHAIN_H_
#define PENSTOCK_ENGINE_CHAIN_H_

#include "codec/block.h"
#include "codec/hash.h"

namespace penstock {

// The digest of one dataset: SHA-256 of its START payload and of the first 20 bytes of each block
// in order (which hold the hash of the block's body).
class DatasetDigest {
 public:
  void AddStart(Bytes payload) { m_sha.Add(payload); }
  void AddBlock(const OM_DP::CompressedData& block) {
    m_sha.Add(RecordBytes(block).first(sizeof(OM_DP::CompressedData)));
  }
  // SHA-256(chain of the dataset before, this digest). Once.
  Digest Chain(const Digest& before) {
    const Digest own = m_sha.Finish();
    Sha256 sha;
    sha.Add(before);
    sha.Add(own);
    return sha.Finish();
  }

 private:
  Sha256 m_sha;
};

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_CHAIN_H_
