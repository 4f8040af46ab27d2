// SPDX-License-Identifier: Apache-2.0
#include "tests/model/pipeline_model.h"

#include <algorithm>
#include <utility>

namespace model {

namespace {

template <class Record>
Record* FindIn(std::vector<Record>& records, std::uint64_t n) {
  for (Record& record : records) {
    if (record.n == n) return &record;
  }
  return nullptr;
}

template <class Record>
void EraseFrontUpTo(std::vector<Record>& records, std::uint64_t n) {
  std::size_t count = 0;
  while (count < records.size() && records[count].n <= n) ++count;
  records.erase(records.begin(), records.begin() + static_cast<std::ptrdiff_t>(count));
}

std::string Ends(const std::vector<DatasetModel*>& pipe, bool newestFirst) {
  if (pipe.empty()) return "";
  std::uint64_t first = pipe.front()->n;
  std::uint64_t second = pipe.back()->n;
  if (newestFirst) std::swap(first, second);
  if (first == second) return std::to_string(first);
  return std::to_string(first) + " .. " + std::to_string(second);
}

// Runs of equal marks. The number behind ".." is the one below the next run's head, or, in the last
// run, the last one; it is left out where it equals the head.
std::string Runs(const std::vector<std::pair<std::uint64_t, bool>>& marks) {
  std::vector<std::size_t> heads;
  for (std::size_t i = 0; i < marks.size(); ++i) {
    if (i == 0 || marks[i].second != marks[i - 1].second) heads.push_back(i);
  }
  std::string text;
  for (std::size_t h = 0; h < heads.size(); ++h) {
    const auto [n, mark] = marks[heads[h]];
    const std::uint64_t end =
        h + 1 < heads.size() ? marks[heads[h + 1]].first - 1 : marks.back().first;
    if (h > 0) text += ' ';
    text += (mark ? "1:" : "0:") + std::to_string(n);
    if (end != n) text += ".." + std::to_string(end);
  }
  return text;
}

}  // namespace

Code PipelineModel::Push(DatasetModel& ds, bool mustStore) {
  if (!accepting) return kNotAccepting;
  if (ds.n <= last) return kTooOld;
  ds.onXmit = [this] { Update(); };
  last = ds.n;
  DatasetModel* before = receive.empty() ? nullptr : receive.back();
  receive.push_back(&ds);
  if (before != nullptr) CloseAndUpdate(*before);
  if (onDone) {
    DoneRecord record;
    record.n = ds.n;
    record.timestamp = ds.timestamp;
    record.fingerprinted = ds.resync;
    record.stored = !mustStore;
    done.push_back(record);
  }
  return kOk;
}

void PipelineModel::CloseAndUpdate(DatasetModel& ds) {
  ds.Close();
  Update();
}

Code PipelineModel::PushBuffer(const Buffer& buf, std::uint64_t origSize) {
  return receive.empty() ? kNoDataset : receive.back()->Add(buf, origSize);
}

void PipelineModel::Bump() {
  if (receive.empty()) return;
  DatasetModel& newest = *receive.back();
  newest.waitForNext = false;
  CloseAndUpdate(newest);
}

void PipelineModel::Drop() {
  if (receive.empty()) return;
  const std::uint64_t n = receive.back()->n;
  receive.pop_back();
  if (!done.empty() && done.back().n == n) done.pop_back();
  last = n - 1;
}

void PipelineModel::Reset() {
  receive.clear();
  transmit.clear();
  done.clear();
  flush.clear();
  writers.clear();
  last = 0;
  passed = 0;
}

void PipelineModel::Update() {
  OfferUnits();
  Move();
}

void PipelineModel::OfferUnits() {
  if (transmit.empty()) return;
  DatasetModel& newest = *transmit.back();
  bool refused = false;
  for (; passed < newest.units.size(); ++passed) {
    if (!refused) refused = transmitter(newest) < 0;
  }
}

void PipelineModel::Move() {
  while (!receive.empty()) {
    DatasetModel& oldest = *receive.front();
    const bool isNewest = oldest.n >= last;
    if (isNewest && oldest.waitForNext) return;
    if (!transmit.empty() && !transmit.back()->IsSealed()) return;
    receive.erase(receive.begin());
    transmit.push_back(&oldest);
    passed = 0;
    transmitter(oldest);
  }
}

Code PipelineModel::Retransmit(bool clear) {
  if (clear) {
    if (transmit.empty()) return kFailed;
    Clear(transmit.front()->n - 1);
  }
  for (DatasetModel* ds : transmit) transmitter(*ds);
  return kOk;
}

Code PipelineModel::Ack(std::uint64_t n, std::optional<std::uint64_t>& size) {
  if (transmit.empty()) return kFailed;
  size = transmit.front()->bytes;
  if (n > transmit.front()->n) return kAckAhead;
  if (n < transmit.front()->n) return kAckTooOld;
  transmit.erase(transmit.begin());
  Update();
  return kOk;
}

// Reports are due from the front on, for as long as it is done and stored. A report held back by an
// unstored record can only become due here: each call but one for an unknown number looks at the
// front first.
Code PipelineModel::Done(std::uint64_t n, bool success, bool empty) {
  const auto frontIsDue = [this] {
    return !done.empty() && done.front().done && (done.front().stored || done.front().storeError);
  };
  while (frontIsDue() && done.front().n != n) ReportDone();
  DoneRecord* record = FindIn(done, n);
  if (record == nullptr) return kNoDataset;
  record->done = true;
  record->success = success;
  record->empty = empty;
  while (frontIsDue()) ReportDone();
  return kOk;
}

void PipelineModel::ReportDone() {
  const DoneRecord record = done.front();
  if (onFlushed) {
    flush.push_back({record.n, record.timestamp, false, record.fingerprinted, record.success});
  }
  onDone(record.n, record.fingerprinted, record.success, record.empty);
  writers.erase(record.n);
  done.erase(done.begin());
}

Code PipelineModel::Stored(std::uint64_t n, bool ok) {
  DoneRecord* record = FindIn(done, n);
  if (record == nullptr) return kNoDataset;
  (ok ? record->stored : record->storeError) = true;
  if (record->done) Done(n, record->success, record->empty);
  return kOk;
}

Code PipelineModel::Flushed(std::uint64_t n, bool success) {
  FlushRecord* record = FindIn(flush, n);
  if (record == nullptr) return kNoDataset;
  record->flushed = true;
  if (!success) record->success = false;
  while (!flush.empty() && flush.front().flushed) {
    onFlushed(flush.front().n, flush.front().fingerprinted, flush.front().success);
    flush.erase(flush.begin());
  }
  return kOk;
}

void PipelineModel::Clear(std::uint64_t upTo) {
  EraseFrontUpTo(done, upTo);
  EraseFrontUpTo(flush, upTo);
}

bool PipelineModel::ShouldQueue(std::uint64_t n) const {
  const std::size_t count = receive.size() + transmit.size();
  const bool isAlone = count == 1 && receive.size() == 1 && receive.front()->n == n;
  return count > 0 && !isAlone;
}

DatasetModel* PipelineModel::Find(std::uint64_t n) const {
  for (const auto* pipe : {&receive, &transmit}) {
    for (DatasetModel* ds : *pipe) {
      if (ds->n == n) return ds;
    }
  }
  return nullptr;
}

std::uint64_t PipelineModel::PendingFlushTimestamp(std::uint64_t n) const {
  for (const FlushRecord& record : flush) {
    if (record.n == n) return record.timestamp;
  }
  return 0;
}

std::string PipelineModel::DumpDone() const {
  std::vector<std::pair<std::uint64_t, bool>> marks;
  for (const DoneRecord& record : done) marks.emplace_back(record.n, record.done);
  return Runs(marks);
}

std::string PipelineModel::Dump() const {
  std::vector<std::pair<std::uint64_t, bool>> marks;
  for (const FlushRecord& record : flush) marks.emplace_back(record.n, record.flushed);
  return "pipes [RECV " + Ends(receive, true) + "]  [XMIT " + Ends(transmit, false) + "]  [DONE " +
         DumpDone() + "]  [FLUSH " + Runs(marks) + "]";
}

}  // namespace model
