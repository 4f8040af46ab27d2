// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <array>
#include <limits>
#include <sstream>

#include "tests/model/twin.h"
#include "tests/support/make.h"

// The comparison of the library's state with the model's.

namespace model {

namespace {

// The number in a query's answer when there is no dataset.
constexpr std::uint64_t kNone = std::numeric_limits<std::uint64_t>::max();

template <class A, class B>
void Expect(const A& real, const B& plain, const char* what) {
  if (real == plain) return;
  std::ostringstream text;
  text << what << ": the library has " << real << ", the model " << plain;
  throw Mismatch(text.str());
}

void ExpectTrue(bool ok, const std::string& what) {
  if (!ok) throw Mismatch(what + " differ");
}

std::string TextOf(const std::vector<Event>& events) {
  static constexpr std::array kNames{"transmit", "done",      "flushed", "new",
                                     "received", "finalized", "send"};
  std::ostringstream text;
  for (const Event& event : events) {
    text << "\n  " << kNames[static_cast<std::size_t>(event.kind)];
    for (const std::uint64_t arg : event.args) text << ' ' << arg;
  }
  return text.str();
}

DoneRecord Plain(const DoneInfo& r) {
  return {r.n, r.dsTimestamp, r.done, r.fingerprinted, r.success, r.empty, r.stored, r.storeError};
}

FlushRecord Plain(const FlushInfo& r) {
  return {r.n, r.dsTimestamp, r.flushed, r.fingerprinted, r.success};
}

template <class Record, class Real>
bool SameRecords(const std::vector<Record>& plain, const std::list<Real>& real) {
  return std::equal(plain.begin(), plain.end(), real.begin(), real.end(),
                    [](const Record& a, const Real& b) { return a == Plain(b); });
}

}  // namespace

void Twin::Compare(bool thorough) {
  CompareEvents();
  const auto same = [this](const std::shared_ptr<Dataset>& real, const DatasetModel* plain) {
    return IdOf(real.get()) == plain->id;
  };
  ExpectTrue(std::equal(m_real.m_recvPipe.rbegin(), m_real.m_recvPipe.rend(),
                        pipeline.receive.begin(), pipeline.receive.end(), same),
             "the receive pipes");
  ExpectTrue(std::equal(m_real.m_xmitPipe.begin(), m_real.m_xmitPipe.end(),
                        pipeline.transmit.begin(), pipeline.transmit.end(), same),
             "the transmit pipes");
  CompareRecords();
  CompareWriters();
  for (const DatasetModel* ds : pipeline.receive) CompareFacts(ds->id);
  for (const DatasetModel* ds : pipeline.transmit) CompareFacts(ds->id);
  if (m_touched >= 0) CompareContents(m_touched);
  if (!thorough) return;
  constexpr std::size_t kRecent = 24;
  for (std::size_t i = models.size() - std::min(models.size(), kRecent); i < models.size(); ++i) {
    CompareFacts(static_cast<int>(i));
    CompareContents(static_cast<int>(i));
  }
}

void Twin::CompareEvents() {
  if (m_realEvents != m_modelEvents) {
    throw Mismatch("callbacks: the library made the calls" + TextOf(m_realEvents) +
                   "\nand the model" + TextOf(m_modelEvents));
  }
  m_realEvents.clear();
  m_modelEvents.clear();
}

void Twin::CompareRecords() const {
  ExpectTrue(SameRecords(pipeline.done, m_real.m_donePipe), "the done pipes");
  ExpectTrue(SameRecords(pipeline.flush, m_real.m_flushPipe), "the flush pipes");
  Expect(m_real.m_lastReceived, pipeline.last, "last number");
  Expect(m_real.GetAcceptStatus(), pipeline.accepting, "accept status");
  Expect(m_real.m_doneSpanSize.load(), pipeline.done.size(), "published size of the done pipe");
  if (pipeline.done.empty()) return;
  Expect(m_real.m_doneSpanFrontN.load(), pipeline.done.front().n,
         "published front of the done pipe");
  Expect(m_real.m_doneSpanBackN.load(), pipeline.done.back().n, "published back of the done pipe");
}

void Twin::CompareWriters() const {
  Expect(m_real.m_serializers.size(), pipeline.writers.size(), "number of serializers");
  for (const auto& [n, writer] : pipeline.writers) {
    const auto& real = m_writers[static_cast<std::size_t>(writer)];
    const auto entry = m_real.m_serializers.find(n);
    ExpectTrue(entry != m_real.m_serializers.end() && entry->second == real, "the serializers");
    Expect(real.use_count(), 2, "owners of a serializer");
  }
}

void Twin::CompareFacts(int id) const {
  const Dataset& real = *m_datasets[static_cast<std::size_t>(id)];
  const DatasetModel& plain = *models[static_cast<std::size_t>(id)];
  Expect(real.GetN(), plain.n, "number");
  Expect(real.IsFingerprinted(), plain.resync, "fingerprinted");
  Expect(real.GetDsTimestamp(), plain.timestamp, "timestamp");
  Expect(real.GetBuffersSize(), plain.bytes, "bytes admitted");
  Expect(real.GetOrigBuffersSize(), plain.origBytes, "original bytes");
  Expect(real.GetXmitBuffersSize(), plain.xmitBytes, "bytes handed on");
  Expect(real.GetTotalBuffers(), plain.HeldCount(), "buffers held");
  Expect(real.GetCompressedDataNum(), plain.units.size(), "units queued");
  Expect(real.m_compressedBufs.size(), plain.units.size(), "units kept");
  Expect(real.m_finalizedBufs.size(), plain.finalized.size(), "buffers finalized");
  Expect(real.m_hasBuffers, plain.working, "buffers being worked on");
  Expect(real.m_complete.load(), plain.complete, "complete");
  Expect(real.GetWaitForNext(), plain.waitForNext, "waits for its successor");
  Expect(real.m_total4KBlocks, plain.blocks, "blocks");
  const auto inPipe = std::count_if(pipeline.receive.begin(), pipeline.receive.end(),
                                    [id](const DatasetModel* ds) { return ds->id == id; }) +
                      std::count_if(pipeline.transmit.begin(), pipeline.transmit.end(),
                                    [id](const DatasetModel* ds) { return ds->id == id; });
  Expect(m_datasets[static_cast<std::size_t>(id)].use_count(), 1 + inPipe, "owners of a dataset");
  CompareRequester(id);
}

void Twin::CompareRequester(int id) const {
  const auto& real = m_datasets[static_cast<std::size_t>(id)]->m_foRequester;
  const auto& plain = models[static_cast<std::size_t>(id)]->requester;
  Expect(real != nullptr, plain.has_value(), "requester");
  if (!real) return;
  Expect(real->m_nextFingerprint.load(), plain->offered, "fingerprints offered");
  Expect(real->m_totalFPs.load(), plain->announced, "blocks announced");
  Expect(real->m_lastFpIdxSent.load(), plain->lastSent, "end of the last batch");
  Expect(real->m_fingerprints.size(), plain->maxBlocks + 1, "slots");
}

void Twin::CompareContents(int id) const {
  const Dataset& real = *m_datasets[static_cast<std::size_t>(id)];
  const DatasetModel& plain = *models[static_cast<std::size_t>(id)];
  Expect(real.IsSealed(), plain.IsSealed(), "sealed");
  Expect(real.m_coalescers.size(), plain.held.size(), "volumes");
  for (const auto& [volume, buffers] : plain.held) {
    const auto coalescer = real.m_coalescers.find(Volume(static_cast<std::uint8_t>(volume)));
    ExpectTrue(coalescer != real.m_coalescers.end(), "the volumes");
    const auto& held = coalescer->second->Buffers();
    ExpectTrue(std::equal(buffers.begin(), buffers.end(), held.begin(), held.end(),
                          [this](const Buffer& a, const InternalData& b) { return a == Plain(b); }),
               "the buffers of a coalescer");
  }
  Expect(real.m_volIdx.size(), plain.volumeIndex.size(), "indexed volumes");
  for (const auto& [volume, index] : plain.volumeIndex) {
    Expect(int{real.m_volIdx.at(Volume(static_cast<std::uint8_t>(volume)))}, index, "volume index");
  }
  for (const InternalData& buf : real.m_finalizedBufs) {
    ExpectTrue(plain.finalized.count(Plain(buf).key) == 1, "the finalized buffers");
  }
  for (const bool local : {true, false}) {
    const auto& prints = local ? real.m_localFingerprints : real.m_remoteFingerprints;
    const Prints& wanted = local ? plain.local : plain.remote;
    Expect(prints.size(), wanted.size(), "number of fingerprints");
    for (const auto& [buf, print] : prints) {
      const auto entry = wanted.find(Plain(buf).key);
      ExpectTrue(entry != wanted.end() && entry->second.first == Plain(buf) &&
                     RealPrint(entry->second.second).bytes == print.bytes,
                 "the fingerprints");
    }
  }
  CompareUnits(id);
}

void Twin::CompareUnits(int id) const {
  const auto& units = models[static_cast<std::size_t>(id)]->units;
  BufInfoEnumerator cursor = m_datasets[static_cast<std::size_t>(id)]->GetEnumerator();
  std::pair<InternalData, PipeCompressedData> real;
  for (const QueuedUnit& plain : units) {
    ExpectTrue(cursor.Next() && cursor.Current(real), "the cursors");
    ExpectTrue(Plain(real.second) == plain.unit, "the units");
    const Buffer key = Plain(real.first);
    if (plain.key) {
      ExpectTrue(key == *plain.key, "the units' keys");
    } else {
      const auto list = plain.unit.buffers.find(key.key.volume);
      ExpectTrue(
          list != plain.unit.buffers.end() && !list->second.empty() && list->second.front() == key,
          "the units' keys");
    }
  }
  ExpectTrue(!cursor.Next(), "the ends of the units");
}

void Twin::Query(std::uint64_t n) {
  const auto front = [](const DatasetModel* ds) {
    return ds == nullptr ? std::pair(false, kNone) : std::pair(true, ds->n);
  };
  const PipelineModel& p = pipeline;
  ExpectTrue(m_real.GetCurRecvDsNum() == front(p.receive.empty() ? nullptr : p.receive.back()),
             "the newest received");
  ExpectTrue(m_real.GetCurXmitDsNum() == front(p.transmit.empty() ? nullptr : p.transmit.front()),
             "the oldest transmitted");
  Expect(m_real.ShouldQueueDataset(n), p.ShouldQueue(n), "ShouldQueueDataset");
  Expect(m_real.GetPendingFlushDsTimestamp(n), p.PendingFlushTimestamp(n), "flush timestamp");
  const std::shared_ptr<Dataset> found = m_real.GetDs(n);
  const DatasetModel* plain = p.Find(n);
  ExpectTrue((found ? IdOf(found.get()) : -1) == (plain != nullptr ? plain->id : -1),
             "the datasets of a number");
  ExpectTrue((m_real.GetDsSerializer(n) != nullptr) == (p.writers.count(n) == 1),
             "the serializers of a number");
  std::vector<int> visited;
  m_real.IterateReceiveDatasets(
      [&](std::shared_ptr<Dataset> ds) { visited.push_back(IdOf(ds.get())); });
  std::vector<int> wanted;
  std::for_each(p.transmit.rbegin(), p.transmit.rend(),
                [&](const DatasetModel* ds) { wanted.push_back(ds->id); });
  for (const DatasetModel* ds : p.receive) wanted.push_back(ds->id);
  ExpectTrue(visited == wanted, "the iterations");
  if (p.done.empty()) Expect(m_real.IsDone(n), false, "IsDone");
  if (!p.done.empty()) Expect(m_real.IsDone(p.done.front().n), p.done.front().done, "IsDone");
  if (p.done.empty() || (p.accepting && p.done.size() == 1)) {
    Expect(int{m_real.FulfillPipeData()}, int{kOk}, "FulfillPipeData");
  }
  Expect(Text(m_real), p.Dump(), "dump");
  Expect(EmitDonePipe(m_real.m_donePipe), p.DumpDone(), "done runs");
}

}  // namespace model
