// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <memory>

#include "tests/support/pipeline_rig.h"

// The mistake: a second dataset file under one number. Answered: the first one stays; the second is
// not kept, and is not what the done report releases.

namespace {

class SerializerTwice : public PipelineRig {};

TEST_F(SerializerTwice, KeepsTheFirst) {
  const auto first = std::make_shared<DatasetSerializer>(1, Volume(1), "spool");
  const auto second = std::make_shared<DatasetSerializer>(1, Volume(2), "spool");
  EXPECT_EQ(TraceOf([&] {
              m_pipeline.AddSerializer(1, first);
              m_pipeline.AddSerializer(1, second);
            }),
            "");
  EXPECT_EQ(m_pipeline.GetDsSerializer(1), first);
  EXPECT_EQ(second.use_count(), 1);
  Push(1);
  m_pipeline.Done(1, true, false);
  EXPECT_EQ(first.use_count(), 1);
  m_pipeline.AddSerializer(1, second);
  EXPECT_EQ(m_pipeline.GetDsSerializer(1), second);
}

}  // namespace
