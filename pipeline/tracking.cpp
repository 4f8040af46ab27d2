// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "common/log.h"
#include "penstock/pipeline.h"

// What becomes of a dataset after its transmission: the done and flush records, their reports in
// strict order, and the wait for the last of them.

namespace {

bool IsReadyForDone(const DoneInfo& record) {
  return record.done && (record.stored || record.storeError);
}

template <class Record>
auto FindRecord(std::list<Record>& pipe, std::uint64_t n) {
  return std::find_if(pipe.begin(), pipe.end(), [n](const Record& r) { return r.n == n; });
}

template <class Record>
std::uint64_t FrontNumber(const std::list<Record>& pipe) {
  return pipe.empty() ? 0 : pipe.front().n;
}

template <class Record>
void DropUpTo(std::list<Record>& pipe, std::uint64_t n) {
  while (!pipe.empty() && pipe.front().n <= n) pipe.pop_front();
}

}  // namespace

DS_ERROR Pipeline::Done(std::uint64_t N, bool success, bool empty) {
  PENSTOCK_LOG(LOG_INFO,
               "Pipe: N: " << N << " success: " << Word(success) << " empty: " << Word(empty));
  bool found = false;
  auto record = m_donePipe.begin();
  while (record != m_donePipe.end()) {
    const bool isMine = record->n == N;
    if (isMine) {
      record->done = true;
      record->success = success;
      record->empty = empty;
      PENSTOCK_LOG(LOG_INFO, "found dataset N: " << record->n
                                                 << "   begin()->n: " << m_donePipe.front().n
                                                 << "  storeError: " << Word(record->storeError)
                                                 << "  stored: " << Word(record->stored));
      found = true;
    }
    if (record == m_donePipe.begin() && IsReadyForDone(*record)) {
      ReportFrontDone();
      record = m_donePipe.begin();
    } else if (found) {
      return DS_ERROR_OK;
    } else {
      ++record;
    }
  }
  return found ? DS_ERROR_OK : DS_ERROR_NO_DATASET;
}

// The record is copied first, because the callback may do to the pipes what it must not; it leaves
// last, so that an exception from the callback leaves it in place.
void Pipeline::ReportFrontDone() {
  const DoneInfo record = m_donePipe.front();
  if (m_flushedCb) {
    m_flushPipe.push_back(FlushInfo{.n = record.n,
                                    .dsTimestamp = record.dsTimestamp,
                                    .fingerprinted = record.fingerprinted,
                                    .success = record.success});
  }
  m_doneCb(record.n, record.fingerprinted, record.success, record.empty);
  m_serializers.erase(record.n);
  m_donePipe.pop_front();
  PublishDoneSpan();
}

DS_ERROR Pipeline::MarkStored(std::uint64_t N) {
  PENSTOCK_LOG(LOG_INFO, "Pipe N: " << N);
  const auto record = FindRecord(m_donePipe, N);
  if (record == m_donePipe.end()) return DS_ERROR_NO_DATASET;
  record->stored = true;
  if (!record->done) return DS_ERROR_OK;
  PENSTOCK_LOG(LOG_INFO, "Pipe N: " << N << " ReadyForDone ");
  Done(N, record->success, record->empty);
  return DS_ERROR_OK;
}

DS_ERROR Pipeline::MarkError(std::uint64_t N) {
  PENSTOCK_LOG(LOG_INFO, "Pipe N: " << N);
  const auto record = FindRecord(m_donePipe, N);
  if (record == m_donePipe.end()) return DS_ERROR_NO_DATASET;
  record->storeError = true;
  if (!record->done) return DS_ERROR_OK;
  PENSTOCK_LOG(LOG_INFO, "Pipe N: " << N << " ReadyForDone ");
  Done(N, record->success, record->empty);
  return DS_ERROR_OK;
}

DS_ERROR Pipeline::Flushed(std::uint64_t N, bool success) {
  PENSTOCK_LOG(LOG_INFO, "Pipe: N: " << N << " success: " << Word(success));
  const auto record = FindRecord(m_flushPipe, N);
  if (record == m_flushPipe.end()) return DS_ERROR_NO_DATASET;
  record->flushed = true;
  record->success = record->success && success;
  while (!m_flushPipe.empty() && m_flushPipe.front().flushed) {
    const FlushInfo& front = m_flushPipe.front();
    // The caller's number on every line of a drained run, not the record's.
    PENSTOCK_LOG(LOG_INFO, "Pipe: N: " << N << " flush " << Word(front.success));
    m_flushedCb(front.n, front.fingerprinted, front.success);
    m_flushPipe.pop_front();
  }
  return DS_ERROR_OK;
}

void Pipeline::ClearDonePipe(std::uint64_t N) {
  PENSTOCK_LOG(LOG_INFO, "entry: done pipe's front N: " << FrontNumber(m_donePipe));
  DropUpTo(m_donePipe, N);
  PublishDoneSpan();
  PENSTOCK_LOG(LOG_INFO, "exit: done pipe's front N: " << FrontNumber(m_donePipe));
  PENSTOCK_LOG(LOG_INFO, "entry: flush pipe's front N: " << FrontNumber(m_flushPipe));
  DropUpTo(m_flushPipe, N);
  PENSTOCK_LOG(LOG_INFO, "exit: flush pipe's front N: " << FrontNumber(m_flushPipe));
}

bool Pipeline::IsDone(std::uint64_t N) const {
  if (m_donePipe.empty()) return false;
  const DoneInfo& front = m_donePipe.front();
  if (front.n == N) return front.done;
  // Asking for any other record is the caller's error and never returns. The volatile read keeps
  // the compiler from removing a loop without effects.
  // GCOVR_EXCL_START: a process in here never ends by itself, so its counts are never written
  volatile bool wait = true;
  while (wait) std::this_thread::yield();
  return false;
  // GCOVR_EXCL_STOP
}

std::uint64_t Pipeline::GetPendingFlushDsTimestamp(std::uint64_t N) const {
  const auto record = std::find_if(m_flushPipe.begin(), m_flushPipe.end(),
                                   [N](const FlushInfo& r) { return r.n == N; });
  return record == m_flushPipe.end() ? 0 : record->dsTimestamp;
}

DS_ERROR Pipeline::FulfillPipeData() {
  const DoneSpan atEntry = ReadDoneSpan();
  if (Drained(atEntry)) {
    PENSTOCK_LOG(LOG_NOTICE, "Pipe: All ds has been processed.");
    return DS_ERROR_OK;
  }
  PENSTOCK_LOG(LOG_NOTICE, "Pipe: Done pipe front: " << atEntry.frontN
                                                     << ", back: " << atEntry.backN
                                                     << ", size: " << atEntry.size);
  while (!Drained(ReadDoneSpan())) ::sleep(1);
  PENSTOCK_LOG(LOG_NOTICE, "Pipe: Task Finished.");
  return DS_ERROR_OK;
}

// While datasets are accepted, the one record that remains is that of the dataset being filled.
bool Pipeline::Drained(const DoneSpan& span) const {
  return span.size == 0 || (m_acceptStatus.load() && span.size == 1);
}

// Called after every change of the done pipe, by the one thread that changes it.
void Pipeline::PublishDoneSpan() {
  const std::uint64_t version = m_doneSpanVersion.load();
  m_doneSpanVersion.store(version + 1);
  m_doneSpanSize.store(m_donePipe.size());
  m_doneSpanFrontN.store(m_donePipe.empty() ? 0 : m_donePipe.front().n);
  m_doneSpanBackN.store(m_donePipe.empty() ? 0 : m_donePipe.back().n);
  m_doneSpanVersion.store(version + 2);
}

// Sequentially consistent loads and stores: a version that is even and the same before and after
// the values were read brackets values of one moment.
Pipeline::DoneSpan Pipeline::ReadDoneSpan() const {
  DoneSpan span;
  std::uint64_t before = 0;
  std::uint64_t after = 0;
  do {
    before = m_doneSpanVersion.load();
    span = {m_doneSpanSize.load(), m_doneSpanFrontN.load(), m_doneSpanBackN.load()};
    after = m_doneSpanVersion.load();
  } while (before != after || before % 2 != 0);
  return span;
}
