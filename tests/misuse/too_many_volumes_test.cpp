// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <memory>

#include "tests/support/pipeline_rig.h"

// The mistake: more than 256 volumes in one dataset. Answered: every buffer is admitted and
// transmitted, but the 257th volume gets the index of the first again.

namespace {

class TooManyVolumes : public PipelineRig {};

TEST_F(TooManyVolumes, ReuseTheIndexOfTheFirst) {
  const std::shared_ptr<Dataset> ds = Normal(1);
  m_pipeline.PushDs(ds, false);
  InternalData buf = Buf(0, 0, 512);
  for (unsigned i = 0; i < 257; ++i) {
    buf.volume.bytes[0] = static_cast<std::uint8_t>(i % 256);
    buf.volume.bytes[1] = static_cast<std::uint8_t>(i / 256);
    EXPECT_EQ(Write(buf), DS_ERROR_OK);
  }
  EXPECT_EQ(ds->GetVolIdx().first.at(buf.volume), 0U);
  EXPECT_EQ(ds->GetVolIdx().second, 1U);
  m_pipeline.BumpDs();
  EXPECT_EQ(ds->GetTotalBuffers(), 257U);
  EXPECT_TRUE(ds->IsSealed());
}

}  // namespace
