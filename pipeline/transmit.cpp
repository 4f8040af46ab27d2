// SPDX-License-Identifier: Apache-2.0
#include "common/log.h"
#include "penstock/pipeline.h"

// The transmit side of the pipeline: when a dataset enters the transmit pipe, what the transmitter
// is offered, and how a dataset leaves by its acknowledgement.

void Pipeline::UpdateTransmitter() {
  // In this order: what is ready of the newest transmitted dataset is offered before a later
  // dataset may enter behind it and take the cursor.
  XmitReadyDSBufs();
  MoveProcessedDSsToXmitPipe();
}

void Pipeline::XmitReadyDSBufs() {
  if (m_xmitPipe.empty()) return;
  std::shared_ptr<Dataset>& ds = m_xmitPipe.back();
  PENSTOCK_LOG(LOG_INFO, "this: " << Address(this) << " DS: " << Address(ds.get())
                                  << " N: " << ds->GetN() << " use count " << ds.use_count()
                                  << " enumerator: " << Address(m_xmitEnumerator.get())
                                  << " xmit pipe size: " << m_xmitPipe.size());
  if (!m_xmitEnumerator) {
    m_xmitEnumerator = std::make_unique<BufInfoEnumerator>(ds->GetEnumerator());
  }
  bool stop = false;
  while (m_xmitEnumerator->Next()) {
    // Once refused, the cursor still passes over what is ready now: it is not offered again.
    if (!stop) stop = m_transmitter(ds) < 0;
  }
}

void Pipeline::MoveProcessedDSsToXmitPipe() {
  while (!m_recvPipe.empty()) {
    const Dataset& oldest = *m_recvPipe.back();
    if (m_lastReceived <= oldest.GetN() && oldest.GetWaitForNext()) {
      PENSTOCK_LOG(
          LOG_INFO,
          "receiver DS is the most recently one received so it can't be transmitted yet  DS="
              << Address(&oldest) << "  N: " << oldest.GetN()
              << " _last_received: " << m_lastReceived);
      return;
    }
    PENSTOCK_LOG(LOG_INFO, "pushing to transmitter queue  DS: " << Address(&oldest)
                                                                << " N: " << oldest.GetN());
    if (!CanMoveDSToXmitPipe()) {
      PENSTOCK_LOG(LOG_INFO, "can't move more DSs into xmit_pipe");
      return;
    }
    MoveRecvToXmit();
  }
}

bool Pipeline::CanMoveDSToXmitPipe() const {
  if (m_xmitPipe.empty()) return true;
  const Dataset& newest = *m_xmitPipe.back();
  if (newest.IsSealed()) return true;
  PENSTOCK_LOG(LOG_INFO, "xmit_pipe's initial DS is not sealed " << Address(&newest)
                                                                 << " N: " << newest.GetN());
  return false;
}

void Pipeline::MoveRecvToXmit() {
  std::shared_ptr<Dataset> ds = m_recvPipe.back();
  m_recvPipe.pop_back();
  m_xmitPipe.push_back(ds);
  m_xmitEnumerator.reset();  // the next offers are of this dataset's units
  PENSTOCK_LOG(LOG_INFO, "calling transmitter DS: " << Address(ds.get()) << " N: " << ds->GetN()
                                                    << "   use count " << ds.use_count());
  m_transmitter(ds);
}

DS_ERROR Pipeline::Retransmit(bool clear) {
  PrintDonePipe(true);
  if (clear) {
    if (m_xmitPipe.empty()) return DS_ERROR_FAILED;
    const std::uint64_t upto = m_xmitPipe.front()->GetN() - 1;
    PENSTOCK_LOG(LOG_NOTICE, "clearing done pipe upto " << upto);
    ClearDonePipe(upto);
  }
  PENSTOCK_LOG(LOG_NOTICE, "transmit pipe size: " << m_xmitPipe.size());
  for (std::shared_ptr<Dataset>& ds : m_xmitPipe) {
    PENSTOCK_LOG(LOG_INFO, "retransmitting DS: " << Address(ds.get()) << "  N: " << ds->GetN());
    m_transmitter(ds);
  }
  return DS_ERROR_OK;
}

DS_ERROR Pipeline::Ack(std::uint64_t N, std::size_t* buffersSize) {
  if (m_xmitPipe.empty()) {
    PENSTOCK_LOG(LOG_INFO, "_xmit_pipe is empty   N: " << N);
    return DS_ERROR_FAILED;
  }
  const std::shared_ptr<Dataset>& front = m_xmitPipe.front();
  const std::uint64_t frontN = front->GetN();
  if (buffersSize != nullptr) *buffersSize = front->GetBuffersSize();
  PENSTOCK_LOG(LOG_INFO, "DS=" << Address(front.get()) << "  N: " << frontN << "  N: " << N
                               << "  use count " << front.use_count()
                               << "  buffers_size: " << front->GetBuffersSize());
  if (N > frontN) {
    PENSTOCK_LOG(LOG_INFO, "out of order ack  N: " << N << "  xmit_pipe N: " << frontN);
    return DS_ERROR_ACK_OUT_OF_ORDER;
  }
  if (N < frontN) {
    PENSTOCK_LOG(LOG_INFO, "ack too old  N: " << N << "  xmit_pipe N: " << frontN);
    return DS_ERROR_ACK_TOO_OLD;
  }
  PENSTOCK_LOG(LOG_INFO, "dropping DS N: " << N << "  use count " << front.use_count()
                                           << "  checking transmitter pipe for next datasets");
  m_xmitPipe.pop_front();
  UpdateTransmitter();
  return DS_ERROR_OK;
}
