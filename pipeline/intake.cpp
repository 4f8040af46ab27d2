// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <functional>
#include <limits>

#include "common/log.h"
#include "dataset/dataset_type.h"
#include "penstock/pipeline.h"

// The intake side of the pipeline: how a dataset is accepted, filled, closed and dropped, and the
// small queries and setters around it.

namespace {

// Returned by PushDs while no datasets are accepted. It has no name, so that callers can tell this
// refusal from every named failure.
constexpr auto kNotAccepting = static_cast<DS_ERROR>(-15);

std::pair<bool, std::uint64_t> FrontNumber(const std::list<std::shared_ptr<Dataset>>& pipe) {
  if (pipe.empty()) return {false, std::numeric_limits<std::uint64_t>::max()};
  return {true, pipe.front()->GetN()};
}

}  // namespace

Pipeline::Pipeline() = default;
Pipeline::~Pipeline() = default;

void Pipeline::SetTransmitterCb(const TransmitterCb& cb) { m_transmitter = cb; }
void Pipeline::SetDoneCb(const DoneCb& cb) { m_doneCb = cb; }
void Pipeline::SetFlushedCb(const FlushedCb& cb) { m_flushedCb = cb; }

DS_ERROR Pipeline::PushDs(const std::shared_ptr<Dataset>& ds, bool flag) {
  const std::uint64_t n = ds->GetN();
  PENSTOCK_LOG(LOG_INFO, "DS: " << Address(ds.get()) << " _last_received: " << m_lastReceived
                                << "  N: " << n);
  if (!m_acceptStatus.load()) {
    PENSTOCK_LOG(LOG_ERROR, "failure!!! - pipe cannot receive more ds!");
    return kNotAccepting;
  }
  if (m_lastReceived >= n) {
    PENSTOCK_LOG(LOG_ERROR, "failure!!! - dataset received is too old   last_received: "
                                << m_lastReceived << "  N: " << n);
    return DS_ERROR_DS_TOO_OLD;
  }
  ds->SetXmitCb([this] { UpdateTransmitter(); });
  m_lastReceived = n;
  const std::shared_ptr<Dataset> prev = m_recvPipe.empty() ? nullptr : m_recvPipe.front();
  m_recvPipe.push_front(ds);
  if (prev) ProcessPreviousDatasets(prev);
  AddToDonePipe(ds, flag);
  return DS_ERROR_OK;
}

DS_ERROR Pipeline::PushBuf(InternalData& buf, unsigned long arg) {
  if (m_recvPipe.empty()) {
    PENSTOCK_LOG(LOG_ERROR, "No dataset pushed - can't add buffer: " << buf);
    return DS_ERROR_NO_DATASET;
  }
  Dataset& newest = *m_recvPipe.front();
  PENSTOCK_LOG(LOG_DEBUG, "N: " << newest.GetN() << " m_recvPipe " << m_recvPipe.size());
  return newest.AddBuffer(buf, arg);
}

void Pipeline::BumpDs() {
  if (m_recvPipe.empty()) return;
  const std::shared_ptr<Dataset> front = m_recvPipe.front();  // closing it may move it
  PENSTOCK_LOG(LOG_INFO, "bump N: " << front->GetN());
  front->MarkNoWaitForNext();
  ProcessPreviousDatasets(front);
}

void Pipeline::ProcessPreviousDatasets(const std::shared_ptr<Dataset>& prev) {
  PENSTOCK_LOG(LOG_INFO, "prevDs N: " << prev->GetN() << " ");
  prev->SetComplete();
  if (prev->m_dsType == kDatasetNormal) {
    prev->NotifyRecvBuffers();
  } else {
    prev->CheckIfReadyAndCompress();
  }
  UpdateTransmitter();
}

void Pipeline::AddToDonePipe(const std::shared_ptr<Dataset>& ds, bool flag) {
  if (!m_doneCb) return;
  m_donePipe.push_back(DoneInfo{.n = ds->GetN(),
                                .dsTimestamp = ds->GetDsTimestamp(),
                                .fingerprinted = ds->IsFingerprinted(),
                                .stored = !flag});
  PublishDoneSpan();
}

void Pipeline::DropUnfinishedDs() {
  if (m_recvPipe.empty()) {
    PENSTOCK_LOG(LOG_NOTICE, "m_recvPipe is empty");
    return;
  }
  const std::uint64_t n = m_recvPipe.front()->GetN();
  if (m_donePipe.empty()) {
    PENSTOCK_LOG(LOG_ERROR, "m_donePipe is empty while m_recv_pipe is not");
  } else if (m_donePipe.back().n != n) {
    PENSTOCK_LOG(LOG_ERROR, "m_donePipe has a different DS than expected " << m_donePipe.back().n
                                                                           << "  expected: " << n);
  } else {
    m_donePipe.pop_back();
    PublishDoneSpan();
  }
  PENSTOCK_LOG(LOG_NOTICE,
               "dropping received dataset  N: " << n << "  setting m_lastReceived: " << n - 1);
  m_recvPipe.pop_front();
  m_lastReceived = n - 1;
}

void Pipeline::Reset() {
  m_xmitEnumerator.reset();
  m_recvPipe.clear();
  m_xmitPipe.clear();
  m_donePipe.clear();
  PublishDoneSpan();
  m_flushPipe.clear();
  m_serializers.clear();
  m_lastReceived = 0;
}

void Pipeline::SetAcceptStatus(bool accept) { m_acceptStatus.store(accept); }
bool Pipeline::GetAcceptStatus() const { return m_acceptStatus.load(); }

bool Pipeline::ShouldQueueDataset(unsigned long n) const {
  PENSTOCK_LOG(LOG_INFO, "m_xmitPipe.size: " << m_xmitPipe.size() << "  m_recvPipe.size: "
                                             << m_recvPipe.size() << "  N: " << n);
  if (!m_xmitPipe.empty()) return true;
  if (m_recvPipe.empty()) return false;
  return m_recvPipe.size() > 1 || m_recvPipe.front()->GetN() != n;
}

std::shared_ptr<Dataset> Pipeline::GetDs(unsigned long n) {
  for (const auto* pipe : {&m_recvPipe, &m_xmitPipe}) {
    for (const std::shared_ptr<Dataset>& ds : *pipe) {
      if (ds->GetN() == n) return ds;
    }
  }
  return nullptr;
}

std::pair<bool, std::uint64_t> Pipeline::GetCurRecvDsNum() const { return FrontNumber(m_recvPipe); }
std::pair<bool, std::uint64_t> Pipeline::GetCurXmitDsNum() const { return FrontNumber(m_xmitPipe); }

void Pipeline::IterateReceiveDatasets(std::function<void(std::shared_ptr<Dataset>)> fn) {
  for (const auto* pipe : {&m_xmitPipe, &m_recvPipe}) {
    std::for_each(pipe->rbegin(), pipe->rend(), std::ref(fn));
  }
}

void Pipeline::AddSerializer(unsigned long key, const std::shared_ptr<DatasetSerializer>& s) {
  m_serializers.emplace(key, s);
}

std::shared_ptr<DatasetSerializer> Pipeline::GetDsSerializer(unsigned long key) {
  const auto entry = m_serializers.find(key);
  return entry == m_serializers.end() ? nullptr : entry->second;
}
