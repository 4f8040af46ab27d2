// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/pipeline_rig.h"

// The mistakes around a resync dataset's requester: none, a second one, blocks counted too early,
// no capacity. Answered: an error record and nothing else; the earlier one; a last batch that never
// comes due; room for one fingerprint.

namespace {

class RequesterMistakes : public PipelineRig {
 protected:
  SendFingerprintsFn Send(const std::string& name) {
    return [name](const std::vector<std::uint64_t>& fps, std::uint64_t) {
      Note(name + " sends " + std::to_string(fps.size()));
    };
  }
};

TEST_F(RequesterMistakes, AFingerprintWithoutARequesterIsLost) {
  const std::shared_ptr<Dataset> ds = Resync(1);
  EXPECT_EQ(TraceOf([&] { ds->SendFingerprint4Match(1); }),
            "E Dataset::SendFingerprint4Match() Calling SendFingerprint4Match on non-existent "
            "FORequester \n");
}

TEST_F(RequesterMistakes, ASecondRequesterIsIgnored) {
  const std::shared_ptr<Dataset> ds = Resync(1);
  ds->InitFingerprintRequester(Send("first"));
  EXPECT_EQ(TraceOf([&] { ds->InitFingerprintRequester(Send("second")); }),
            "E Dataset::InitFingerprintRequester() Calling InitFingerprintRequester on existing "
            "FORequester \n");
  ds->IncTotal4KBlocks();
  ds->SetComplete();
  ds->SendFingerprint4Match(1);
  EXPECT_NE(Take().find("> first sends 1\n"), std::string::npos);
}

TEST_F(RequesterMistakes, BlocksCountedBeforeTheRequesterLeaveTheLastBatchUnsent) {
  const std::shared_ptr<Dataset> ds = Resync(1);
  ds->IncTotal4KBlocks();
  ds->InitFingerprintRequester(Send("host"));
  ds->IncTotal4KBlocks();
  ds->SendFingerprint4Match(1);
  ds->SendFingerprint4Match(2);
  ds->SetComplete();
  EXPECT_EQ(ds->m_total4KBlocks, 2U);
  EXPECT_EQ(Take().find("> host sends"), std::string::npos);
}

TEST_F(RequesterMistakes, WithoutACapacityOneFingerprintHasRoom) {
  const auto ds =
      std::make_shared<Dataset>(1, std::vector<FingerprintRange>{{Volume(1), 0, 1 << 20}}, 0);
  ds->InitFingerprintRequester(Send("host"));
  ds->SendFingerprint4Match(26);
  EXPECT_EQ(TraceOf([&] { ds->SendFingerprint4Match(27); }),
            "I FingerprintRequester::AddFingerprint() N: 1 fp: 0x000000000000001b\n"
            "E FingerprintRequester::AddFingerprint() can't store fingerprint as dataset has too "
            "many 4K blocks  fpIdx: 1   m_maxNumBlocks: 0\n");
}

}  // namespace
