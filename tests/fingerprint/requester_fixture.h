// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_FINGERPRINT_REQUESTER_FIXTURE_H_
#define PENSTOCK_TESTS_FINGERPRINT_REQUESTER_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <numeric>
#include <ostream>
#include <string>
#include <vector>

#include "penstock/fingerprint_requester.h"
#include "tests/support/log_capture.h"
#include "tests/support/make.h"

// One call of the send function.
struct SentBatch {
  std::vector<std::uint64_t> fingerprints;
  std::uint64_t key = 0;

  friend bool operator==(const SentBatch&, const SentBatch&) = default;
  friend std::ostream& operator<<(std::ostream& out, const SentBatch& batch) {
    out << "key " << batch.key << " {";
    for (const std::uint64_t fp : batch.fingerprints) out << " " << fp;
    return out << " }";
  }
};
using SentBatches = std::vector<SentBatch>;

// A requester of dataset kN whose batches are kept, and its log lines as the records write them.
// Fingerprints that a test does not name are 1000 plus their index.
class RequesterTest : public testing::Test {
 protected:
  static constexpr std::uint64_t kN = 5;
  static constexpr std::uint64_t kKey = kN * 65536;
  static constexpr std::size_t kBlock = 4096;

  // Makes the requester with room for `blocks` blocks, and forgets what that logged.
  void Make(std::size_t blocks, int batchSize) {
    m_requester = std::make_unique<FingerprintRequester>(Keeper(), kN, blocks * kBlock, batchSize);
    m_log.Take();
  }

  SendFingerprintsFn Keeper() {
    return [this](std::vector<std::uint64_t> fingerprints, std::uint64_t key) {
      m_sent.push_back({std::move(fingerprints), key});
    };
  }

  void CountBlocks(std::uint64_t blocks) { m_requester->m_totalFPs.fetch_add(blocks); }

  // Offers the next `count` fingerprints.
  void Offer(std::uint64_t count, bool isComplete = false) {
    for (std::uint64_t i = 0; i < count; ++i) {
      m_requester->AddFingerprint(1000 + m_requester->m_nextFingerprint.load(), isComplete);
    }
  }

  // The batch that starts at index `start`.
  static SentBatch Batch(std::uint64_t start, std::size_t count) {
    SentBatch batch{std::vector<std::uint64_t>(count), kKey + start};
    std::iota(batch.fingerprints.begin(), batch.fingerprints.end(), 1000 + start);
    return batch;
  }

  // The batches sent since the last call.
  SentBatches Sent() { return std::exchange(m_sent, {}); }
  Lines Written() { return m_log.Take(); }
  std::uint64_t LastSent() const { return m_requester->m_lastFpIdxSent.load(); }
  std::uint64_t Offered() const { return m_requester->m_nextFingerprint.load(); }

  static std::string Hex(std::uint64_t fp) {
    char text[17];
    std::snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(fp));
    return text;
  }
  static std::string OfferedLine(std::uint64_t fp) {
    return "I FingerprintRequester::AddFingerprint() N: 5 fp: 0x" + Hex(fp);
  }
  static std::string StoredLine(std::uint64_t fp, std::uint32_t idx) {
    return OfferedLine(fp) + " fpIdx: " + std::to_string(idx);
  }
  static std::string RefusedLine(std::uint32_t idx, std::uint64_t max) {
    return "E FingerprintRequester::AddFingerprint() can't store fingerprint as dataset has too "
           "many 4K blocks  fpIdx: " +
           std::to_string(idx) + "   m_maxNumBlocks: " + std::to_string(max);
  }
  static std::string CheckLine(std::uint64_t next, std::uint64_t total, bool isComplete,
                               std::uint64_t lastSent) {
    return "I FingerprintRequester::CheckIfReadyToSend() N: 5 m_nextFingerprint: " +
           std::to_string(next) + " fpIdx: " + std::to_string(next - 1) + " totalFPs " +
           std::to_string(total) + " isComplete " + (isComplete ? "true" : "false") +
           " m_lastFpIdxSent " + std::to_string(lastSent) + " bucket size ";
  }
  static std::string SendLine(std::uint64_t fpIdx, std::uint64_t length, std::uint32_t start,
                              std::uint64_t total, bool isComplete) {
    return "I FingerprintRequester::CheckIfReadyToSend() N: 5 fpIdx: " + std::to_string(fpIdx) +
           "   length: " + std::to_string(length) + "  batchStart: " + std::to_string(start) +
           " totalFPs " + std::to_string(total) + " isComplete " + (isComplete ? "true" : "false");
  }

  LogCapture m_log;
  std::unique_ptr<FingerprintRequester> m_requester;
  SentBatches m_sent;
};

#endif  // PENSTOCK_TESTS_FINGERPRINT_REQUESTER_FIXTURE_H_
