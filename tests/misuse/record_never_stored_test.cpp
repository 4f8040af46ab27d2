// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "tests/support/pipeline_rig.h"

// The mistake: pushing with the flag true and never saying how the storing went. Answered: the
// dataset's record, and every later one, waits.

namespace {

class RecordNeverStored : public PipelineRig {};

TEST_F(RecordNeverStored, BlocksItsOwnAndEveryLaterReport) {
  Push(1, true);
  PushAll({2, 3});
  for (const std::uint64_t n : Numbers{1, 2, 3}) {
    EXPECT_EQ(TraceOf([&] { EXPECT_EQ(m_pipeline.Done(n, true, false), DS_ERROR_OK); }),
              rec::Done(n, true, false) + rec::Found(n, 1, false, n != 1));
  }
  EXPECT_EQ(Queues(), "recv 3 xmit 1 2 done 1dy 2dys 3dys flush");
}

TEST_F(RecordNeverStored, TwoAnswersForOneDatasetAreOneTooMany) {
  Push(1, true);
  m_pipeline.Done(1, true, false);
  EXPECT_EQ(m_pipeline.MarkStored(1), DS_ERROR_OK);
  EXPECT_EQ(m_pipeline.MarkError(1), DS_ERROR_NO_DATASET);
}

}  // namespace
