// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <memory>

#include "tests/support/pipeline_rig.h"

// The mistake: finalizing a buffer that was never admitted. Answered: it is taken, and the dataset,
// which now counts more finalized buffers than it holds, never seals; an acknowledgement is the
// only way on.

namespace {

class BufferNeverAdmitted : public PipelineRig {
 protected:
  std::shared_ptr<Dataset> PushResync() {
    std::shared_ptr<Dataset> ds = Resync(1);
    m_pipeline.PushDs(ds, false);
    Write(Buf(1, 0, 4096));
    return ds;
  }
};

TEST_F(BufferNeverAdmitted, KeepsAResyncDatasetFromSealingForEver) {
  const std::shared_ptr<Dataset> ds = PushResync();
  PushAll({2, 3});
  for (const std::uint64_t offset : Numbers{0, 4096}) {
    const InternalData buf = Buf(1, offset, 4096);
    ds->AddLocalFingerprint(buf, Print(7));
    ds->AddRemoteFingerprint(buf, Print(7));
  }
  // It sealed for a moment, between the buffer that it holds and the one that it does not.
  EXPECT_EQ(Queues(), "recv 3 xmit 1 2 done 1fs 2s 3s flush");
  EXPECT_EQ(TraceOf([&] { EXPECT_FALSE(ds->IsSealed()); }), rec::NotFinalized(1, 1, 2));
}

TEST_F(BufferNeverAdmitted, BlocksEveryLaterDatasetUntilTheAcknowledgement) {
  const std::shared_ptr<Dataset> ds = PushResync();
  ds->MarkFinalized(Buf(1, 8192, 4096));
  ds->MarkFinalized(Buf(1, 0, 4096));
  PushAll({2, 3});
  EXPECT_EQ(Queues(), "recv 3 2 xmit 1 done 1fs 2s 3s flush");
  EXPECT_EQ(m_pipeline.Ack(1, nullptr), DS_ERROR_OK);
  EXPECT_EQ(Queues(), "recv 3 xmit 2 done 1fs 2s 3s flush");
}

TEST_F(BufferNeverAdmitted, MakesANormalDatasetsClosingFail) {
  const std::shared_ptr<Dataset> ds = Normal(1);
  m_pipeline.PushDs(ds, false);
  ds->MarkFinalized(Buf(1, 0, 4096));
  EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }),
            rec::Bump(1) + rec::Prev(1) + rec::Loop() + rec::Ready(1, 0, 0) +
                rec::AlreadyWaiting(1) + rec::Pushing(1) + rec::Calling(1, 4) + rec::Transmit(1));
  EXPECT_EQ(ds->GetCompressedDataNum(), 0U);
  EXPECT_FALSE(ds->IsSealed());
}

}  // namespace
