// SPDX-License-Identifier: Apache-2.0
// Drives a pipeline and its datasets by a string of operations, and checks its rules after each.
#include <algorithm>
#include <set>
#include <sstream>
#include <vector>

#include "fuzz/byte_source.h"

namespace {

class PipelineRun {
 public:
  explicit PipelineRun(ByteSource& in) : m_in(in) {
    in.ChooseLogging();
    m_pipe.SetTransmitterCb([this](std::shared_ptr<Dataset>& ds) { return Transmit(ds); });
    m_pipe.SetDoneCb([this](unsigned long n, bool, bool success, bool) { Reported(n, success); });
    if (in.Flag()) {
      m_pipe.SetFlushedCb([this](unsigned long n, bool, bool) {
        FUZZ_CHECK(n > m_lastFlushed);
        FUZZ_CHECK(n <= m_lastDone);
        m_lastFlushed = n;
      });
    }
  }

  void Run() {
    constexpr int kMaxOperations = 400;
    for (int i = 0; i < kMaxOperations && !m_in.AtEnd(); ++i) {
      const std::uint32_t operation = m_in.Below(20);
      if (operation < 7) {
        Intake(operation);
      } else if (operation < 14) {
        Answers(operation);
      } else {
        Work(operation);
      }
      CheckPipes();
      CheckRecords();
    }
  }

 private:
  // --- Callbacks. ---

  int Transmit(const std::shared_ptr<Dataset>& ds) {
    const auto& pipe = m_pipe.m_xmitPipe;
    FUZZ_CHECK(std::find(pipe.begin(), pipe.end(), ds) != pipe.end());
    if (m_entered.insert(ds).second) {
      FUZZ_CHECK(pipe.back() == ds);
      if (pipe.size() > 1) FUZZ_CHECK((*std::prev(pipe.end(), 2))->IsSealed());
      FUZZ_CHECK(m_pipe.m_xmitEnumerator == nullptr);
    }
    return m_refuse ? -1 : 0;
  }

  void Reported(unsigned long n, bool success) {
    FUZZ_CHECK(n > m_lastDone);
    const DoneInfo& front = m_pipe.m_donePipe.front();
    FUZZ_CHECK(front.n == n && front.done && (front.stored || front.storeError));
    FUZZ_CHECK(front.success == success);
    m_lastDone = n;
  }

  // --- Operations. ---

  void Intake(std::uint32_t operation) {
    switch (operation) {
      case 0: return Push();
      case 1:
      case 2: {
        InternalData buf = m_in.Buffer();
        const bool isEmpty = m_pipe.m_recvPipe.empty();
        FUZZ_CHECK((m_pipe.PushBuf(buf, buf.length) == DS_ERROR_NO_DATASET) == isEmpty);
        return;
      }
      case 3: m_pipe.BumpDs(); return;
      case 4: return Drop();
      case 5: m_pipe.SetAcceptStatus(m_in.Below(4) != 0); return;
      default:
        if (m_in.Below(8) != 0) return;
        m_pipe.Reset();
        m_lastDone = 0;
        m_lastFlushed = 0;
        return;
    }
  }

  void Push() {
    const std::uint64_t last = m_pipe.m_lastReceived;
    const std::uint64_t n = last + m_in.Below(4);
    const std::uint64_t capacity = std::uint64_t{m_in.Byte()} * 4096;
    std::shared_ptr<Dataset> ds;
    if (m_in.Flag()) {
      std::vector<FingerprintRange> ranges;
      for (std::uint8_t v = 0; v < 4; ++v) {
        FingerprintRange range{{}, 0, 1U << 20U};
        range.volume.bytes[0] = v;
        ranges.push_back(range);
      }
      ds = std::make_shared<Dataset>(n, ranges, capacity);
      ds->InitFingerprintRequester([](std::vector<std::uint64_t>, std::uint64_t) {});
      if (m_in.Flag()) {
        ds->SetDSReceivedCb([](std::shared_ptr<Dataset> d, InternalData&) { d->MarkHasBuffers(); });
      }
    } else {
      ds = std::make_shared<Dataset>(n, true, capacity, 0U);
    }
    const bool accepts = m_pipe.GetAcceptStatus();
    const auto result = static_cast<int>(m_pipe.PushDs(ds, m_in.Flag()));
    const int wanted = n > last ? int{DS_ERROR_OK} : int{DS_ERROR_DS_TOO_OLD};
    FUZZ_CHECK(result == (accepts ? wanted : -15));
    if (result == DS_ERROR_OK) m_datasets.push_back(ds);
  }

  // A dataset that was reported done before it was sent is not dropped: its number would be
  // reported twice.
  void Drop() {
    if (m_pipe.m_recvPipe.empty()) return m_pipe.DropUnfinishedDs();
    const std::uint64_t n = m_pipe.m_recvPipe.front()->GetN();
    if (m_pipe.m_donePipe.empty() || m_pipe.m_donePipe.back().n != n) return;
    m_pipe.DropUnfinishedDs();
    FUZZ_CHECK(m_pipe.m_lastReceived == n - 1);
  }

  void Answers(std::uint32_t operation) {
    switch (operation) {
      case 7: return Ack();
      case 8: {
        m_pipe.Done(RecordNumber(), m_in.Flag(), m_in.Flag());
        if (m_pipe.m_donePipe.empty()) return;
        const DoneInfo& front = m_pipe.m_donePipe.front();
        FUZZ_CHECK(!front.done || (!front.stored && !front.storeError));
        return;
      }
      case 9: m_pipe.MarkStored(RecordNumber()); return;
      case 10: m_pipe.MarkError(RecordNumber()); return;
      case 11: return Flushed();
      case 12: m_pipe.Retransmit(m_in.Below(4) == 0); return;
      default: m_pipe.UpdateTransmitter(); return;
    }
  }

  // Only a report of a known number delivers what waits: a clearing retransmission may have dropped
  // the record that held a flushed one back, which then stays at the front.
  void Flushed() {
    const auto& records = m_pipe.m_flushPipe;
    const std::uint64_t n = records.empty() ? m_in.Byte() : records.front().n + m_in.Below(3);
    const DS_ERROR result = m_pipe.Flushed(n, m_in.Flag());
    FUZZ_CHECK(result != DS_ERROR_OK || records.empty() || !records.front().flushed);
  }

  std::uint64_t RecordNumber() {
    const std::uint32_t away = m_in.Below(8);
    return m_pipe.m_donePipe.empty() ? away : m_pipe.m_donePipe.front().n + away / 2;
  }

  void Ack() {
    const bool isEmpty = m_pipe.m_xmitPipe.empty();
    const std::uint64_t front = isEmpty ? 0 : m_pipe.m_xmitPipe.front()->GetN();
    const std::uint64_t n = front + (m_in.Below(8) == 0 ? 1 : 0);
    std::size_t size = 0;
    const DS_ERROR result = m_pipe.Ack(n, m_in.Flag() ? &size : nullptr);
    if (isEmpty) {
      FUZZ_CHECK(result == DS_ERROR_FAILED);
    } else {
      FUZZ_CHECK(result == (n == front ? DS_ERROR_OK : DS_ERROR_ACK_OUT_OF_ORDER));
    }
  }

  // Operations of a dataset that was accepted, also of one that has left the pipes.
  void Work(std::uint32_t operation) {
    m_refuse = m_in.Below(8) == 0;
    if (m_datasets.empty()) return;
    const std::size_t back = m_in.Below(8) % m_datasets.size();
    Dataset& ds = *m_datasets[m_datasets.size() - 1 - back];
    const InternalData buf = Held(ds);
    switch (operation) {
      case 14: ds.FinalizeBuffer(buf, m_in.Unit()); return;
      case 15: ds.AddLocalFingerprint(buf, m_in.Print()); return;
      case 16: ds.AddRemoteFingerprint(buf, m_in.Print()); return;
      case 17: ds.MarkHasBuffers(); return;
      case 18: ds.MarkDoneBuffers(); return;
      default: return Queries();
    }
  }

  InternalData Held(const Dataset& ds) {
    const std::uint8_t byte = m_in.Byte();
    for (const auto& [volume, coalescer] : ds.m_coalescers) {
      if (volume.bytes[0] != (byte & 7U)) continue;
      const auto& held = coalescer->Buffers();
      return *std::next(held.begin(), static_cast<std::ptrdiff_t>((byte >> 3U) % held.size()));
    }
    return m_in.Buffer();
  }

  void Queries() {
    std::ostringstream text;
    text << m_pipe;
    FUZZ_CHECK(text.str().starts_with("pipes [RECV ") && text.str().ends_with("]"));
    const std::uint64_t n = m_in.Byte();
    const std::shared_ptr<Dataset> found = m_pipe.GetDs(n);
    FUZZ_CHECK(!found || found->GetN() == n);
    std::size_t visited = 0;
    m_pipe.IterateReceiveDatasets([&](std::shared_ptr<Dataset>) { ++visited; });
    FUZZ_CHECK(visited == m_pipe.m_recvPipe.size() + m_pipe.m_xmitPipe.size());
    const bool accepts = m_pipe.GetAcceptStatus();
    const std::size_t records = m_pipe.m_donePipe.size();
    if (records == 0 || (accepts && records == 1)) m_pipe.FulfillPipeData();
    if (records > 0) m_pipe.IsDone(m_pipe.m_donePipe.front().n);
    m_pipe.AddSerializer(n, std::make_shared<DatasetSerializer>(n, UuidT{}, "/nowhere"));
    FUZZ_CHECK(m_pipe.GetDsSerializer(n) != nullptr);
  }

  // --- Rules. ---

  void CheckPipes() const {
    std::uint64_t above = m_pipe.m_lastReceived + 1;
    for (const auto* pipe : {&m_pipe.m_recvPipe}) {
      for (const std::shared_ptr<Dataset>& ds : *pipe) {
        FUZZ_CHECK(ds->GetN() < above);
        above = ds->GetN();
      }
    }
    for (auto ds = m_pipe.m_xmitPipe.rbegin(); ds != m_pipe.m_xmitPipe.rend(); ++ds) {
      FUZZ_CHECK((*ds)->GetN() < above);
      above = (*ds)->GetN();
      FUZZ_CHECK((*ds)->GetCompressedDataNum() == (*ds)->m_compressedBufs.size());
      FUZZ_CHECK(m_entered.contains(*ds));
    }
    if (m_pipe.m_xmitEnumerator && !m_pipe.m_xmitPipe.empty()) {
      const auto& cursor = *m_pipe.m_xmitEnumerator;
      FUZZ_CHECK(cursor.m_bufs == &m_pipe.m_xmitPipe.back()->m_compressedBufs);
      FUZZ_CHECK(cursor.m_idx < cursor.CurrentSize());
    }
  }

  void CheckRecords() const {
    std::uint64_t below = m_lastDone;
    for (const DoneInfo& record : m_pipe.m_donePipe) {
      FUZZ_CHECK(record.n > below && record.n <= m_pipe.m_lastReceived);
      below = record.n;
    }
    below = m_lastFlushed;
    for (const FlushInfo& record : m_pipe.m_flushPipe) {
      FUZZ_CHECK(record.n > below && record.n <= m_lastDone);
      below = record.n;
    }
    FUZZ_CHECK(m_pipe.m_doneSpanSize == m_pipe.m_donePipe.size());
    FUZZ_CHECK(m_pipe.m_doneSpanVersion % 2 == 0);
    if (m_pipe.m_donePipe.empty()) return;
    FUZZ_CHECK(m_pipe.m_doneSpanFrontN == m_pipe.m_donePipe.front().n);
    FUZZ_CHECK(m_pipe.m_doneSpanBackN == m_pipe.m_donePipe.back().n);
  }

  ByteSource& m_in;
  std::vector<std::shared_ptr<Dataset>> m_datasets;
  std::set<std::shared_ptr<Dataset>> m_entered;
  std::uint64_t m_lastDone = 0;
  std::uint64_t m_lastFlushed = 0;
  bool m_refuse = false;
  Pipeline m_pipe;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ByteSource in(data, size);
  PipelineRun(in).Run();
  return 0;
}
