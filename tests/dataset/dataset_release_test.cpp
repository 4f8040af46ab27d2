// SPDX-License-Identifier: Apache-2.0
// Goal: a dataset that goes releases what it holds in the reverse order of its members, the
// requester first, and writes nothing. Method: each member holds something whose release leaves a
// mark: a callback's capture, a buffer's payload, a counter.
#include <array>

#include "tests/dataset/dataset_fixture.h"

namespace {

class DatasetRelease : public DatasetTest {};

std::shared_ptr<OM_DP::CompressedData> TracedPayload(const std::string& name) {
  return {new OM_DP::CompressedData, [name](const OM_DP::CompressedData* payload) {
            delete payload;
            Mark("released " + name);
          }};
}

void FillCallbacks(Dataset& ds) {
  ds.SetNewBufCb([held = Traced("new-buffer callback")](auto, auto&) {});
  ds.SetDSReceivedCb([held = Traced("received callback")](auto, auto&) {});
  ds.SetDSFinalizedCb([held = Traced("finalized callback")](auto, auto&) {});
  ds.SetXmitCb([held = Traced("transmit callback")] {});
}

TEST_F(DatasetRelease, ReleasesMembersInReverseOrderWithoutARecord) {
  UseResync();
  FillCallbacks(*m_ds);
  const InternalData buf = Buf(1, 0, 4096);
  Add(TracedBuf(buf, "coalescer"));
  m_ds->AddLocalFingerprint(TracedBuf(buf, "local fingerprint"), Print(1));
  m_ds->AddRemoteFingerprint(TracedBuf(buf, "remote fingerprint"), Print(2));
  PipeCompressedData unit;
  unit.payload = TracedPayload("unit's payload");
  unit.origBuffers[Volume(1)].push_back(TracedBuf(buf, "unit's buffer"));
  m_ds->m_compressedBufs.emplace_back(TracedBuf(buf, "unit's key"), std::move(unit));
  m_ds->m_finalizedBufs.insert(TracedBuf(buf, "finalized buffer"));
  m_ds->m_offloadCounters[{UUID::MakeUUID(Volume(1)), 0}] = {
      new std::atomic<std::uint64_t>, [](const std::atomic<std::uint64_t>* counter) {
        delete counter;
        Mark("released offload counter");
      }};
  m_ds->InitFingerprintRequester([held = Traced("requester")](auto, auto) {});
  unit = {};
  Log();

  m_ds.reset();
  EXPECT_EQ(Log(), (Lines{
                       "? host released requester",
                       "? host released offload counter",
                       "? host released remote fingerprint",
                       "? host released local fingerprint",
                       "? host released finalized buffer",
                       "? host released unit's buffer",
                       "? host released unit's payload",
                       "? host released unit's key",
                       "? host released coalescer",
                       "? host released transmit callback",
                       "? host released finalized callback",
                       "? host released received callback",
                       "? host released new-buffer callback",
                   }));
}

TEST_F(DatasetRelease, ANormalDatasetGoesSilently) {
  UseNormal();
  Admit({Buf(1, 0, 8)});
  m_ds.reset();
  EXPECT_EQ(Log(), Lines{});
}

TEST_F(DatasetRelease, WaitsForTheLastSharedOwner) {
  UseNormal();
  m_ds->SetXmitCb([held = Traced("transmit callback")] {});
  std::shared_ptr<Dataset> other = m_ds;
  m_ds.reset();
  EXPECT_EQ(Log(), Lines{});
  other.reset();
  EXPECT_EQ(Log(), (Lines{"? host released transmit callback"}));
}

TEST_F(DatasetRelease, APayloadOutlivesItsDatasetInTheHandsOfOthers) {
  UseNormal();
  MarkXmits();
  PipeCompressedData unit = Unit({Buf(1, 0, 8)});
  unit.payload = TracedPayload("payload");
  ASSERT_EQ(m_ds->NotifyBufferReady(unit), DS_ERROR_OK);
  Log();
  m_ds.reset();
  EXPECT_EQ(Log(), Lines{});
  unit.payload.reset();
  EXPECT_EQ(Log(), (Lines{"? host released payload"}));
}

}  // namespace
