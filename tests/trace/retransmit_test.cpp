// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/pipeline_rig.h"

// Retransmission in the middle of a running pipeline: complete traces of the step itself and of
// everything after it.

namespace {

const InternalData kRetransmitBuf = Buf(1, 0, 4096);

class RetransmitInTheMiddle : public PipelineRig {
 protected:
  // 1, 2 and 3 transmitted with one buffer each, 4 being filled; 1 acknowledged and done, 2 done.
  void SetUp() override {
    for (const std::uint64_t n : Numbers{1, 2, 3, 4}) {
      Push(n);
      Write(kRetransmitBuf);
    }
    m_pipeline.Ack(1, nullptr);
    m_pipeline.Done(1, true, false);
    m_pipeline.Done(2, true, false);
    ASSERT_EQ(Queues(), "recv 4 xmit 2 3 done 3s 4s flush 1y 2y");
    Forget();
  }
  static std::string Offered() {
    return rec::XmitSize(2) + rec::Again(2) + rec::Transmit(2) + rec::Again(3) + rec::Transmit(3);
  }
};

TEST_F(RetransmitInTheMiddle, OffersTheUnacknowledgedAndThenGoesOnAsBefore) {
  m_pipeline.Retransmit(false);
  EXPECT_EQ(Take(), rec::DonePipe("0:3..4") + Offered());
  m_pipeline.BumpDs();
  EXPECT_EQ(Take(), rec::Bump(4) + rec::Closing(4, {kRetransmitBuf}) + rec::MoreOffers(3, 1, 2) +
                        rec::Pushing(4) + rec::Sealed(3, 1) + rec::Calling(4, 3) +
                        rec::Transmit(4) + rec::FirstOffers(4, 2, 3) + rec::Transmit(4));
  for (const std::uint64_t n : Numbers{2, 3, 4}) EXPECT_EQ(m_pipeline.Ack(n, nullptr), DS_ERROR_OK);
  EXPECT_EQ(Take(), rec::Ack(2, 2, 1, 4096) + rec::AckDropping(2, 1) + rec::MoreOffers(4, 1, 2) +
                        rec::Ack(3, 3, 1, 4096) + rec::AckDropping(3, 1) +
                        rec::MoreOffers(4, 1, 1) + rec::Ack(4, 4, 1, 4096) +
                        rec::AckDropping(4, 1));
  EXPECT_EQ(Queues(), "recv xmit done 3s 4s flush 1y 2y");
}

TEST_F(RetransmitInTheMiddle, WithClearForgetsUnflushedRecordsOfOlderDatasets) {
  m_pipeline.Retransmit(true);
  EXPECT_EQ(Take(),
            rec::DonePipe("0:3..4") + rec::ClearingUpTo(1) + rec::Cleared(3, 3, 1, 2) + Offered());
  EXPECT_EQ(Queues(), "recv 4 xmit 2 3 done 3s 4s flush 2y");
  EXPECT_EQ(m_pipeline.Flushed(1, true), DS_ERROR_NO_DATASET);
  EXPECT_EQ(TraceOf([&] { m_pipeline.Flushed(2, true); }),
            rec::Flushed(2, true) + rec::Flush(2, true) + rec::FlushReported(2, false, true));
}

TEST_F(RetransmitInTheMiddle, AfterAReconnectEveryUnitIsSentAgainOnce) {
  // An idempotent host: it keeps a cursor a dataset and sends what the cursor has not passed.
  std::map<std::uint64_t, BufInfoEnumerator> cursors;
  m_onTransmit = [&](std::shared_ptr<Dataset>& ds) {
    BufInfoEnumerator& cursor = cursors.try_emplace(ds->GetN(), ds->GetEnumerator()).first->second;
    while (cursor.Next()) Note("send " + std::to_string(ds->GetN()));
    return 0;
  };
  // The peer says that it has 2 whole.
  EXPECT_EQ(m_pipeline.Ack(2, nullptr), DS_ERROR_OK);
  Forget();
  m_pipeline.Retransmit(false);
  const std::string offered = rec::XmitSize(1) + rec::Again(3) + rec::Transmit(3);
  EXPECT_EQ(Take(), rec::DonePipe("0:3..4") + offered + rec::Host("send 3"));
  m_pipeline.Retransmit(false);
  EXPECT_EQ(Take(), rec::DonePipe("0:3..4") + offered);
}

class RetransmitOfUnits : public PipelineRig {};

TEST_F(RetransmitOfUnits, LeavesTheOffersOfTheNewestDatasetWhereTheyStopped) {
  const std::shared_ptr<Dataset> ds = Normal(1);
  std::vector<InternalData> bufs;
  for (std::uint64_t i = 0; i < 3; ++i) {
    bufs.push_back(Buf(1, i * 4096, 4096));
    ds->AddBuffer(bufs.back(), 4096);
  }
  ds->MarkNoWaitForNext();
  m_pipeline.PushDs(ds, false);
  m_pipeline.UpdateTransmitter();
  ds->FinalizeBuffer(bufs[0], Unit({bufs[0]}));
  EXPECT_EQ(TraceOf([&] { m_pipeline.Retransmit(false); }),
            rec::DonePipe("0:1") + rec::XmitSize(1) + rec::Again(1) + rec::Transmit(1));
  for (std::size_t i = 1; i < 3; ++i) {
    EXPECT_EQ(TraceOf([&] { ds->FinalizeBuffer(bufs[i], Unit({bufs[i]})); }),
              rec::Finalize(1, bufs[i], 1) + rec::QueuedOne(i + 1) + rec::MoreOffers(1, 2, 1) +
                  rec::Transmit(1));
  }
}

}  // namespace
