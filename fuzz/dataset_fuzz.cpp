// SPDX-License-Identifier: Apache-2.0
// Drives one dataset, without a pipeline, by a string of operations, and checks its rules after
// each.
#include <algorithm>
#include <vector>

#include "fuzz/byte_source.h"

namespace {

class DatasetRun {
 public:
  explicit DatasetRun(ByteSource& in) : m_in(in) {
    in.ChooseLogging();
    const std::uint64_t n = in.Byte();
    const std::uint64_t capacity = std::uint64_t{in.Byte()} * 16 * 1024;  // up to 4 MiB
    if (in.Flag()) {
      std::vector<FingerprintRange> ranges;
      for (std::uint32_t i = in.Below(5); i > 0; --i) {
        const InternalData buf = in.Buffer();
        ranges.push_back({buf.volume, buf.offset, std::uint64_t{buf.length} * 8});
      }
      m_ds = std::make_shared<Dataset>(n, ranges, capacity);
    } else {
      m_ds = std::make_shared<Dataset>(n, in.Flag(), capacity, 0U);
    }
    m_ds->SetXmitCb([this] { ++m_kicks; });
    if (in.Flag()) {
      m_ds->SetDSReceivedCb(
          [](std::shared_ptr<Dataset> ds, InternalData&) { ds->MarkHasBuffers(); });
    }
    if (in.Flag()) {
      m_ds->SetDSFinalizedCb([](std::shared_ptr<Dataset> ds, const InternalData& buf) {
        FUZZ_CHECK(ds->IsFinalized(buf));
      });
    }
  }

  void Run() {
    constexpr int kMaxOperations = 400;
    for (int i = 0; i < kMaxOperations && !m_in.AtEnd(); ++i) {
      const std::uint32_t operation = m_in.Below(14);
      if (operation < 7) {
        Buffers(operation);
      } else {
        Rest(operation);
      }
      CheckCounts();
      CheckGrowth();
    }
  }

 private:
  void Buffers(std::uint32_t operation) {
    switch (operation) {
      case 0:
      case 1: return Add();
      case 2: {
        const InternalData buf = Held();
        const bool isResync = m_ds->IsFingerprinted();
        const bool was = m_ds->IsFinalized(buf);
        const DS_ERROR result = m_ds->FinalizeBuffer(buf, m_in.Unit());
        if (was) FUZZ_CHECK(result != DS_ERROR_OK);
        if (!isResync) FUZZ_CHECK(result == (was ? DS_ERROR_ALREADY_FINALIZED : DS_ERROR_OK));
        return;
      }
      case 3: {
        const InternalData buf = Held();
        const bool was = m_ds->IsFinalized(buf);
        FUZZ_CHECK(m_ds->MarkFinalized(buf) == (was ? DS_ERROR_ALREADY_EXISTS : DS_ERROR_OK));
        return;
      }
      case 4: {
        const bool wasEmpty = m_ds->m_finalizedBufs.empty();
        const auto result = static_cast<int>(m_ds->NotifyBufferReady(m_in.Unit()));
        FUZZ_CHECK(wasEmpty != (result == -14));
        return;
      }
      case 5: Fingerprint(true); return;
      default: Fingerprint(false); return;
    }
  }

  void Rest(std::uint32_t operation) {
    switch (operation) {
      case 7: m_ds->MarkHasBuffers(); return;
      case 8: m_ds->MarkDoneBuffers(); return;
      case 9: m_ds->SetComplete(); return;
      case 10:
        m_ds->NotifyRecvBuffers();
        for (const auto& [volume, coalescer] : m_ds->m_coalescers)
          FUZZ_CHECK(!coalescer->Pending());
        return;
      case 11: return Blocks();
      case 12: return Walk();
      default: return Requester();
    }
  }

  void Add() {
    InternalData buf = m_in.Buffer();
    const std::uint64_t before = m_ds->GetBuffersSize();
    const std::size_t volumes = m_ds->m_volIdx.size();
    if (m_ds->AddBuffer(buf, m_in.Byte()) != DS_ERROR_OK) {
      FUZZ_CHECK(m_ds->GetBuffersSize() == before && m_ds->m_volIdx.size() == volumes);
      return;
    }
    FUZZ_CHECK(m_ds->GetBuffersSize() == before + buf.length);
    const std::list<InternalData>& held = m_ds->m_coalescers.at(buf.volume)->Buffers();
    FUZZ_CHECK(BufInfoEqual{}(held.back(), buf));
    // Nothing else lies inside the newest buffer. Ends beyond 2^64 are cut off there.
    const auto end = [](const InternalData& b) {
      return b.offset + std::min<std::uint64_t>(b.length, ~std::uint64_t{0} - b.offset);
    };
    for (auto other = held.begin(); other != std::prev(held.end()); ++other) {
      FUZZ_CHECK(other->offset < buf.offset || end(*other) > end(buf));
    }
  }

  // A buffer that the dataset holds, or any.
  InternalData Held() {
    const std::uint8_t byte = m_in.Byte();
    if (byte >= 16 && !m_ds->m_coalescers.empty()) {
      for (const auto& [volume, coalescer] : m_ds->m_coalescers) {
        const auto& held = coalescer->Buffers();
        if (volume.bytes[0] != (byte & 7U) || held.empty()) continue;
        return *std::next(held.begin(), static_cast<std::ptrdiff_t>((byte >> 4U) % held.size()));
      }
    }
    return m_in.Buffer();
  }

  void Fingerprint(bool local) {
    const InternalData buf = Held();
    const auto& mine = local ? m_ds->m_localFingerprints : m_ds->m_remoteFingerprints;
    const bool was = mine.contains(buf);
    const BufFingerprint fp = m_in.Print();
    const DS_ERROR result =
        local ? m_ds->AddLocalFingerprint(buf, fp) : m_ds->AddRemoteFingerprint(buf, fp);
    FUZZ_CHECK(result == (was ? DS_ERROR_ALREADY_EXISTS : DS_ERROR_OK));
    FUZZ_CHECK(mine.contains(buf));
    const auto decision = m_ds->ResyncCalcFingerprintsMatching(buf);
    if (decision == DS_ERROR_BUFS_FP_EQUAL) FUZZ_CHECK(m_ds->IsFinalized(buf));
  }

  void Blocks() {
    for (std::uint32_t i = m_in.Byte(); i > 0; --i) m_ds->IncTotal4KBlocks();
    for (std::uint32_t i = m_in.Byte(); i > 0; --i) m_ds->SendFingerprint4Match(i);
    m_ds->CheckIfReadyAndCompress();
  }

  void Requester() {
    m_ds->InitFingerprintRequester([this](std::vector<std::uint64_t> batch, std::uint64_t key) {
      FUZZ_CHECK(batch.size() <= 256);
      FUZZ_CHECK((key - m_ds->GetN() * 65536) % 256 == 0);
    });
  }

  void Walk() {
    BufInfoEnumerator cursor = m_ds->GetEnumerator();
    std::pair<InternalData, PipeCompressedData> unit;
    std::int64_t count = 0;
    while (cursor.Next()) {
      FUZZ_CHECK(cursor.Current(unit));
      ++count;
    }
    FUZZ_CHECK(count == cursor.CurrentSize());
  }

  void CheckCounts() const {
    std::size_t held = 0;
    std::uint64_t bytes = 0;
    for (const auto& [volume, coalescer] : m_ds->m_coalescers) {
      FUZZ_CHECK(coalescer->Count() > 0 && coalescer->Count() == coalescer->Buffers().size());
      held += coalescer->Count();
      for (const InternalData& buf : coalescer->Buffers()) bytes += buf.length;
    }
    FUZZ_CHECK(m_ds->GetTotalBuffers() == held);
    FUZZ_CHECK(bytes <= m_ds->GetBuffersSize());
    FUZZ_CHECK(m_ds->m_max_capacity == 0 || m_ds->GetBuffersSize() <= m_ds->m_max_capacity);
    FUZZ_CHECK(m_ds->GetCompressedDataNum() == m_ds->m_compressedBufs.size());
    FUZZ_CHECK(m_ds->m_volIdx.size() == m_ds->m_coalescers.size());
    FUZZ_CHECK(m_ds->m_nextVolIdx == m_ds->m_volIdx.size());
    const bool isSealed = held == m_ds->m_finalizedBufs.size() && m_ds->m_hasBuffers == 0;
    FUZZ_CHECK(m_ds->IsSealed() == isSealed);
    if (const auto& requester = m_ds->m_foRequester) {
      FUZZ_CHECK(requester->m_lastFpIdxSent <= requester->m_nextFingerprint);
      FUZZ_CHECK(requester->m_totalFPs <= m_ds->m_total4KBlocks);
    }
  }

  // What only grows.
  void CheckGrowth() {
    FUZZ_CHECK(m_ds->m_finalizedBufs.size() >= m_finalized);
    FUZZ_CHECK(m_ds->m_compressedBufs.size() >= m_units);
    FUZZ_CHECK(m_ds->GetXmitBuffersSize() >= m_xmitBytes);
    // A unit is never queued in silence.
    FUZZ_CHECK(m_ds->m_compressedBufs.size() == m_units || m_kicks > m_kicksBefore);
    m_finalized = m_ds->m_finalizedBufs.size();
    m_units = m_ds->m_compressedBufs.size();
    m_xmitBytes = m_ds->GetXmitBuffersSize();
    m_kicksBefore = m_kicks;
  }

  ByteSource& m_in;
  std::shared_ptr<Dataset> m_ds;
  std::uint64_t m_kicks = 0;
  std::uint64_t m_kicksBefore = 0;
  std::size_t m_finalized = 0;
  std::size_t m_units = 0;
  std::uint64_t m_xmitBytes = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ByteSource in(data, size);
  DatasetRun(in).Run();
  return 0;
}
