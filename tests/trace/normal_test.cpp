// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/pipeline_rig.h"

// Whole lives of normal datasets through one pipeline: the complete sequence of log records and
// callbacks, from the first push to the last flush.

namespace {

using Bufs = std::vector<InternalData>;

Bufs Blocks(std::size_t count) {
  Bufs bufs;
  for (std::size_t i = 0; i < count; ++i) bufs.push_back(Buf(1, i * 4096, 4096));
  return bufs;
}

// Three datasets of as many buffers each.
class ThreeDatasets : public PipelineRig, public ::testing::WithParamInterface<std::size_t> {
 protected:
  // The first two steps of dataset n: its push, which closes n - 1, and its buffers.
  std::string Filled(std::uint64_t n) const {
    std::string text = rec::Constructed(n) + rec::PushDs(n, n - 1);
    if (n > 1) text += ClosedBy(n);
    for (const InternalData& buf : m_bufs) {
      text += rec::PushBuf(n, 1) + rec::AddBuffer(n, buf, 4096);
    }
    return text;
  }

  // Dataset n closes its predecessor p, which enters behind the one before it.
  std::string ClosedBy(std::uint64_t n) const {
    const std::uint64_t p = n - 1;
    return rec::Closing(p, m_bufs) + BehindIts(p) + rec::Calling(p, 3) + rec::Transmit(p) +
           rec::Newest(n, n) + rec::FirstOffers(p, 2, p) + rec::Transmit(p) + rec::Newest(n, n);
  }

  std::string BehindIts(std::uint64_t n) const {
    if (n == 1) return rec::Pushing(n);
    return rec::MoreOffers(n - 1, 1, n - 1) + rec::Pushing(n) +
           rec::SealedAny(n - 1, m_bufs.size());
  }

  Bufs m_bufs = Blocks(GetParam());
};

TEST_P(ThreeDatasets, FromTheFirstPushToTheLastFlush) {
  const std::uint64_t bytes = m_bufs.size() * 4096;

  for (const std::uint64_t n : Numbers{1, 2, 3}) {
    EXPECT_EQ(Push(n), DS_ERROR_OK);
    for (const InternalData& buf : m_bufs) EXPECT_EQ(Write(buf), DS_ERROR_OK);
  }
  EXPECT_EQ(Take(), Filled(1) + Filled(2) + Filled(3));
  EXPECT_EQ(Queues(), "recv 3 xmit 1 2 done 1s 2s 3s flush");

  m_pipeline.BumpDs();
  EXPECT_EQ(Take(), rec::Bump(3) + rec::Closing(3, m_bufs) + BehindIts(3) + rec::Calling(3, 3) +
                        rec::Transmit(3) + rec::FirstOffers(3, 2, 3) + rec::Transmit(3));
  EXPECT_EQ(Queues(), "recv xmit 1 2 3 done 1s 2s 3s flush");

  for (const std::uint64_t n : Numbers{1, 2, 3}) {
    std::size_t size = 1;
    EXPECT_EQ(m_pipeline.Ack(n, &size), DS_ERROR_OK);
    EXPECT_EQ(size, bytes);
  }
  EXPECT_EQ(Take(), rec::Ack(1, 1, 1, bytes) + rec::AckDropping(1, 1) + rec::MoreOffers(3, 1, 2) +
                        rec::Ack(2, 2, 1, bytes) + rec::AckDropping(2, 1) +
                        rec::MoreOffers(3, 1, 1) + rec::Ack(3, 3, 1, bytes) +
                        rec::AckDropping(3, 1));

  for (const std::uint64_t n : Numbers{2, 1, 3}) {
    EXPECT_EQ(m_pipeline.Done(n, true, m_bufs.empty()), DS_ERROR_OK);
  }
  const bool empty = m_bufs.empty();
  EXPECT_EQ(Take(), rec::Done(2, true, empty) + rec::Found(2, 1, false, true) +
                        rec::Done(1, true, empty) + rec::Found(1, 1, false, true) +
                        rec::Reported(1, false, true, empty) +
                        rec::Reported(2, false, true, empty) + rec::Done(3, true, empty) +
                        rec::Found(3, 3, false, true) + rec::Reported(3, false, true, empty));

  for (const std::uint64_t n : Numbers{3, 2, 1})
    EXPECT_EQ(m_pipeline.Flushed(n, true), DS_ERROR_OK);
  EXPECT_EQ(Take(), rec::Flushed(3, true) + rec::Flushed(2, true) + rec::Flushed(1, true) +
                        rec::Flush(1, true) + rec::FlushReported(1, false, true) +
                        rec::Flush(1, true) + rec::FlushReported(2, false, true) +
                        rec::Flush(1, true) + rec::FlushReported(3, false, true));
  EXPECT_EQ(Text(m_pipeline), "pipes [RECV ]  [XMIT ]  [DONE ]  [FLUSH ]");
}

INSTANTIATE_TEST_SUITE_P(Buffers, ThreeDatasets, ::testing::Values(0, 1, 5));

class NormalDatasets : public PipelineRig {};

TEST_F(NormalDatasets, OneDatasetLiteratim) {
  // The same records without the help of a single builder.
  Push(1);
  Write(Buf(2, 0x1000, 512));
  m_pipeline.BumpDs();
  m_pipeline.Ack(1, nullptr);
  m_pipeline.Done(1, true, false);
  m_pipeline.Flushed(1, true);
  EXPECT_EQ(
      Take(),
      "I Dataset() N: 1 m_hasBuffers: 0\n"
      "I Pipeline::PushDs() DS: @1 _last_received: 0  N: 1\n"
      "D Pipeline::PushBuf() N: 1 m_recvPipe 1\n"
      "D Dataset::AddBuffer() N: 1 adding InternalData[v=00000000-0000-0000-0000-000000000002 o: "
      "0x1000, l=512] origDataSize: 512\n"
      "I Pipeline::BumpDs() bump N: 1\n"
      "I Pipeline::ProcessPreviousDatasets() prevDs N: 1 \n"
      "D Dataset::NotifyRecvBuffers() doing the _received_DS_cb() loop\n"
      "D Dataset::NotifyRecvBuffers() DS: @1 N: 1  "
      "InternalData[v=00000000-0000-0000-0000-000000000002 o: 0x1000, l=512]\n"
      "I Dataset::NotifyBufferReady() DS: @1 N: 1 is ready to transmit, vol Num: 1, total size: "
      "1\n"
      "D Dataset::NotifyBufferReady() Pushed 1 compressed data to xmit buf.\n"
      "I Pipeline::MoveProcessedDSsToXmitPipe() pushing to transmitter queue  DS: @1 N: 1\n"
      "I Pipeline::MoveRecvToXmit() calling transmitter DS: @1 N: 1   use count 3\n"
      "> transmit 1\n"
      "I Pipeline::XmitReadyDSBufs() this: @pipe DS: @1 N: 1 use count 2 enumerator: 0 xmit pipe "
      "size: 1\n"
      "> transmit 1\n"
      "I Pipeline::Ack() DS=@1  N: 1  N: 1  use count 1  buffers_size: 512\n"
      "I Pipeline::Ack() dropping DS N: 1  use count 1  checking transmitter pipe for next "
      "datasets\n"
      "I Pipeline::Done() Pipe: N: 1 success: true empty: false\n"
      "I Pipeline::Done() found dataset N: 1   begin()->n: 1  storeError: false  stored: true\n"
      "> done 1 fingerprinted false success true empty false\n"
      "I Pipeline::Flushed() Pipe: N: 1 success: true\n"
      "I Pipeline::Flushed() Pipe: N: 1 flush true\n"
      "> flushed 1 fingerprinted false success true\n");
}

TEST_F(NormalDatasets, AClosedDatasetYieldsOneUnitOfAllItsVolumes) {
  std::map<std::uint64_t, BufInfoEnumerator> cursors;
  m_onTransmit = [&](std::shared_ptr<Dataset>& ds) {
    BufInfoEnumerator& cursor = cursors.try_emplace(ds->GetN(), ds->GetEnumerator()).first->second;
    std::pair<InternalData, PipeCompressedData> unit;
    while (cursor.Next()) {
      EXPECT_TRUE(cursor.Current(unit));
      Note("send a unit of " + std::to_string(unit.second.totalBufs) + " buffers, " +
           std::to_string(unit.second.origBuffers.size()) + " volumes" +
           (unit.second.payload ? ", payload" : ""));
    }
    return 0;
  };
  Push(1);
  for (std::uint8_t volume = 1; volume <= 3; ++volume) {
    Write(Buf(volume, 0, 512));
    Write(Buf(volume, 512, 512));
  }
  std::string visits;
  for (const auto& [volume, coalescer] : m_pipeline.GetDs(1)->m_coalescers) {
    for (const InternalData& buf : coalescer->Buffers()) visits += rec::Visit(1, buf);
  }
  EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }),
            rec::Bump(1) + rec::Prev(1) + rec::Loop() + visits + rec::Ready(1, 3, 6) +
                rec::Queued(1) + rec::Pushing(1) + rec::Calling(1, 3) + rec::Transmit(1) +
                rec::Host("send a unit of 6 buffers, 3 volumes") + rec::FirstOffers(1, 2, 1) +
                rec::Transmit(1));
  EXPECT_EQ(m_pipeline.GetDs(1)->GetXmitBuffersSize(), 3072U);
}

TEST_F(NormalDatasets, AFullDatasetIsFollowedByTheNextWithTheSameBuffer) {
  m_pipeline.PushDs(Normal(1, 4096), false);
  EXPECT_EQ(Write(Buf(1, 0, 4096)), DS_ERROR_OK);
  EXPECT_EQ(Write(Buf(1, 4096, 1)), DS_ERROR_OUT_OF_RANGE);
  Push(2);
  EXPECT_EQ(Write(Buf(1, 4096, 1)), DS_ERROR_OK);
  EXPECT_EQ(m_pipeline.GetDs(1)->GetTotalBuffers(), 1U);
  EXPECT_TRUE(m_pipeline.GetDs(1)->IsSealed());
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1s 2s flush");
}

TEST_F(NormalDatasets, ARewrittenBlockStillSeals) {
  Push(1);
  for (int i = 0; i < 3; ++i) Write(Buf(1, 0, 4096));
  EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }),
            rec::Bump(1) + rec::Closing(1, {Buf(1, 0, 4096)}) + rec::Pushing(1) +
                rec::Calling(1, 3) + rec::Transmit(1) + rec::FirstOffers(1, 2, 1) +
                rec::Transmit(1));
  EXPECT_EQ(TraceOf([&] { EXPECT_TRUE(m_pipeline.CanMoveDSToXmitPipe()); }), rec::Sealed(1, 1));
}

TEST_F(NormalDatasets, ADatasetToBeStoredBlocksTheReportsOfLaterOnes) {
  Push(1, true);
  const auto file = std::make_shared<DatasetSerializer>(1, Volume(1), "spool");
  m_pipeline.AddSerializer(1, file);
  SendAll({2});
  m_pipeline.Done(1, true, false);
  EXPECT_EQ(TraceOf([&] { m_pipeline.Done(2, true, false); }),
            rec::Done(2, true, false) + rec::Found(2, 1, false, true));
  EXPECT_EQ(file.use_count(), 2);
  EXPECT_EQ(TraceOf([&] { m_pipeline.MarkError(1); }),
            rec::MarkError(1) + rec::ErrorReady(1) + rec::Done(1, true, false) +
                rec::Found(1, 1, true, false) + rec::Reported(1, false, true, false) +
                rec::Reported(2, false, true, false));
  EXPECT_EQ(file.use_count(), 1);
}

}  // namespace
