// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_FINGERPRINT_REQUESTER_H_
#define PENSTOCK_FINGERPRINT_REQUESTER_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "penstock/export.h"
#include "penstock/records.h"

// The host's send function for a batch: the block fingerprints, in order, and the batch key: the
// dataset's number times 65536, plus the index of the batch's first fingerprint. The vector is the
// callee's. A batch may come twice, and an empty one may come when the first fingerprint arrives
// while another thread completes the dataset; the receiver tolerates both.
using SendFingerprintsFn = std::function<void(std::vector<std::uint64_t>, std::uint64_t)>;

// Numbers the 64-bit fingerprints of a resync dataset's 4 KiB blocks in order of arrival and hands
// them to the send function in batches: a batch as soon as its last slot is filled, and the last,
// shorter one as soon as the dataset is complete and its last fingerprint has arrived. It never
// waits, never retries and never learns the answer.
//
// A dataset makes its own (Dataset::InitFingerprintRequester); make one by hand only to test a
// host.
//
// Threads: AddFingerprint and CheckIfReadyToSend from any thread at once. Two threads that complete
// the same batch may both send it.
class PENSTOCK_EXPORT FingerprintRequester {
 public:
  // Makes a requester for dataset `dsNum` with room for the blocks of `maxDatasetSize` bytes, plus
  // one: an index equal to the number of whole blocks is still stored. Nothing is checked.
  //
  // REQUIRES: `batchSize` is above 0.
  // Owns: a copy of `sendFn`, and the store of 8 bytes a block.
  FingerprintRequester(SendFingerprintsFn sendFn, std::uint64_t dsNum, std::size_t maxDatasetSize,
                       int batchSize);

  FingerprintRequester(const FingerprintRequester&) = delete;
  FingerprintRequester& operator=(const FingerprintRequester&) = delete;

  // Offers the next fingerprint. One too many is logged and lost, though it is counted.
  // `isComplete` tells whether the dataset has been marked complete.
  //
  // Calls: the send function, when this fingerprint makes a batch due. What it throws passes
  // through, as does the standard bad-function-call exception when it is empty.
  void AddFingerprint(const InternalData::Fingerprint& fp, bool isComplete);

  // Sends the newest batch if it is due.
  //
  // Calls: as AddFingerprint.
  void CheckIfReadyToSend(bool isComplete);

  // Sends the fingerprints `start` to `start + count - 1`, as far as the store has them.
  //
  // Calls: the send function. The end of the batch is recorded after it has returned.
  void SendBatch(unsigned int start, unsigned int count);

 private:
  friend class Dataset;  // counts its blocks into m_totalFPs

  SendFingerprintsFn m_sendFn;
  std::uint64_t m_dsNum;
  std::uint64_t m_batchSize;                        // fingerprints a batch
  std::vector<std::uint64_t> m_fingerprints;        // slot i: the fingerprint of index i
  std::atomic<std::uint64_t> m_nextFingerprint{0};  // fingerprints offered, refused ones included
  std::uint64_t m_maxNumBlocks;                     // whole 4 KiB blocks in the largest dataset
  std::atomic<std::uint64_t> m_totalFPs{0};         // blocks that the dataset has counted
  std::atomic<std::uint64_t> m_lastFpIdxSent{0};    // end of the batch that was sent last
};

#endif  // PENSTOCK_FINGERPRINT_REQUESTER_H_
