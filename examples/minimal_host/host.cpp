// SPDX-License-Identifier: Apache-2.0
#include "minimal_host/host.h"

#include <iomanip>
#include <ostream>
#include <sstream>
#include <thread>
#include <utility>

#include "minimal_host/failure.h"
#include "minimal_host/unit.h"

namespace {

void Must(DS_ERROR result, std::string_view call, std::uint64_t n) {
  if (result == DS_ERROR_OK) return;
  std::ostringstream text;
  text << call << " of dataset " << n << " returned " << result
       << ": run with --log info to see the library's reason";
  throw Failure(text.str());
}

}  // namespace

// The callbacks record and return. The work is done afterwards, by the call that began it: nothing
// here may enter the pipeline again.
Host::Host(std::string spool, const UuidT& volume, const Limits& limits, std::ostream& out)
    : m_spool(std::move(spool)), m_volume(volume), m_limits(limits), m_out(out) {
  m_pipeline.SetTransmitterCb([this](std::shared_ptr<Dataset>& ds) {
    m_cursors.try_emplace(ds->GetN(), Cursor{ds, ds->GetEnumerator(), nullptr});
    m_offered.push_back(ds->GetN());
    return 0;
  });
  m_pipeline.SetDoneCb([this](unsigned long n, bool, bool, bool) { m_lastDone = n; });
  m_pipeline.SetFlushedCb([this](unsigned long n, bool, bool) { m_lastFlushed = n; });
}

void Host::Write(const ChangedBlock& block) {
  if (m_newest == 0 || m_blocksInDataset == m_limits.datasetBlocks) PushDataset();
  InternalData buf{m_volume, block.offset, block.length, block.data};
  Must(m_pipeline.PushBuf(buf, block.length), "PushBuf", m_newest);
  ++m_blocksInDataset;
  ++m_blocks;
  m_bytes += block.length;
}

// Pushing dataset n closes dataset n - 1 and, as nothing holds it, hands it to the transmitter.
void Host::PushDataset() {
  const std::uint64_t n = m_newest + 1;
  const auto capacity = std::uint64_t{m_limits.blockBytes} * m_limits.datasetBlocks;
  const auto ds = std::make_shared<Dataset>(n, true, capacity, 0U);
  ds->SetDsTimestamp();
  m_newest = n;
  m_blocksInDataset = 0;
  Must(m_pipeline.PushDs(ds, true), "PushDs", n);
  m_pipeline.AddSerializer(n, std::make_shared<DatasetSerializer>(n, m_volume, m_spool));
  SendOffered();
  if (m_stored.size() < m_limits.window) return;
  Print("filled");
  AnswerStored();
}

void Host::Finish() {
  if (m_newest > 0) {
    m_newestIsClosed = true;
    m_pipeline.BumpDs();
    SendOffered();
    Print("closed");
    AnswerStored();
  }
  m_pipeline.SetAcceptStatus(false);
  std::thread waiter([this] { m_pipeline.FulfillPipeData(); });
  waiter.join();
  if (m_lastDone != m_newest || m_lastFlushed != m_newest) {
    throw Failure("dataset " + std::to_string(m_newest) + " was not reported done and flushed");
  }
}

void Host::SendOffered() {
  for (const std::uint64_t n : std::exchange(m_offered, {})) {
    const auto cursor = m_cursors.find(n);
    if (cursor != m_cursors.end()) Send(cursor->second);
  }
}

// Something about the dataset may be new: sends whatever of it was not sent. Offers come more often
// than news, and the cursor makes the rest of them harmless.
void Host::Send(Cursor& cursor) {
  if (cursor.ended) return;
  const std::uint64_t n = cursor.ds->GetN();
  if (!cursor.started) {
    cursor.started = true;
    cursor.file = m_pipeline.GetDsSerializer(n);
    const auto start = MakeStart(*cursor.ds, m_volume);
    if (cursor.file->WriteHeader(n, start) < static_cast<int>(sizeof(*start) + 16)) {
      Store(cursor, false);
    }
  }
  if (!SendNewUnits(cursor)) Store(cursor, false);
  const bool isClosed = n < m_newest || m_newestIsClosed;
  if (isClosed && cursor.ds->IsSealed()) Store(cursor, true);
}

bool Host::SendNewUnits(Cursor& cursor) {
  std::pair<InternalData, PipeCompressedData> unit;
  while (cursor.units.Next()) {
    if (!cursor.units.Current(unit)) return false;
    for (const auto& [volume, bufs] : unit.second.origBuffers) {
      for (const auto& record : MakeUnits(bufs)) {
        const auto expected = static_cast<int>(sizeof(*record) + record->length);
        if (cursor.file->WriteData(cursor.ds->GetN(), record).first < expected) return false;
      }
    }
  }
  return true;
}

// Ends the dataset's file. A dataset pushed with the flag true gets exactly one MarkStored or
// MarkError: without it, its record would block all later ones.
void Host::Store(Cursor& cursor, bool written) {
  const std::uint64_t n = cursor.ds->GetN();
  cursor.ended = true;
  if (written && cursor.file->CloseDatasetFile(n, false) == 0) {
    Must(m_pipeline.MarkStored(n), "MarkStored", n);
    m_stored.push_back(n);
    return;
  }
  cursor.file->CloseDatasetFile(n, true);
  Must(m_pipeline.MarkError(n), "MarkError", n);
  throw Failure("dataset " + std::to_string(n) + " can't be stored below '" + m_spool +
                "': make room there or name another directory with --spool");
}

// The target's part: it has every stored dataset whole, then has applied it, then has flushed it.
void Host::AnswerStored() {
  const std::vector<std::uint64_t> stored = std::exchange(m_stored, {});
  for (const std::uint64_t n : stored) {
    Must(m_pipeline.Ack(n, nullptr), "Ack", n);
    m_cursors.erase(n);
  }
  SendOffered();
  Print("acknowledged");
  for (const std::uint64_t n : stored) Must(m_pipeline.Done(n, true, false), "Done", n);
  Print("done");
  for (const std::uint64_t n : stored) Must(m_pipeline.Flushed(n, true), "Flushed", n);
  Print("flushed");
}

void Host::Print(std::string_view stage) const {
  m_out << std::left << std::setw(14) << stage << m_pipeline << '\n';
}
