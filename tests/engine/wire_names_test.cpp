// SPDX-License-Identifier: Apache-2.0
// Goal: only harmless names pass; identifiers follow from names as docs/protocol.md says; states
// and errors have their words. Method: the rule for names tried on every byte; identifiers computed
// once by another program (sha256sum).
#include <gtest/gtest.h>

#include <string>

#include "tests/engine/wire_samples.h"

namespace penstock {
namespace {

TEST(WireNames, LettersDigitsAndThreeSignsMakeAName) {
  const std::string first = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  const std::string later = first + "._-";
  for (int byte = 0; byte < 256; ++byte) {
    const auto c = static_cast<char>(byte);
    EXPECT_EQ(IsValidName(std::string(1, c)), first.find(c) != std::string::npos) << byte;
    EXPECT_EQ(IsValidName(std::string("a") + c + "b"), later.find(c) != std::string::npos) << byte;
  }
}

TEST(WireNames, ANameHasOneTo64Bytes) {
  EXPECT_FALSE(IsValidName(""));
  EXPECT_TRUE(IsValidName(std::string(64, 'x')));
  EXPECT_FALSE(IsValidName(std::string(65, 'x')));
}

TEST(WireNames, ANameIsNoWayOutOfAFolder) {
  EXPECT_FALSE(IsValidName(".."));
  EXPECT_FALSE(IsValidName("."));
  EXPECT_FALSE(IsValidName("a/b"));
  EXPECT_FALSE(IsValidName(std::string("a\0b", 3)));
}

TEST(WireNames, AnIdentifierIsTheBeginningOfTheNamesDigest) {
  EXPECT_EQ(Hex(GroupId("shop").bytes), "8d 90 01 d3 2c 6a 70 3d 95 92 1a 77 11 50 50 f3");
  EXPECT_EQ(Hex(VolumeId("shop", "db").bytes), "ad 9c 1a fe aa 0f ad ad 5e 46 67 fe 1c fd b6 a8");
}

TEST(WireNames, StatesHaveTheirWords) {
  EXPECT_STREQ(Text(VolumeState::kNew), "new");
  EXPECT_STREQ(Text(VolumeState::kSyncing), "syncing");
  EXPECT_STREQ(Text(VolumeState::kGood), "good");
  EXPECT_STREQ(Text(VolumeState::kNeedsResync), "needs resync");
  EXPECT_STREQ(Text(VolumeState::kHeld), "good");
  EXPECT_STREQ(Text(static_cast<VolumeState>(9)), "?");
}

TEST(WireNames, ErrorsHaveTheirWords) {
  std::string words;
  for (std::uint16_t code = 0; code <= 12; ++code) {
    words += Text(static_cast<ErrorCode>(code)) + std::string(",");
  }
  EXPECT_EQ(
      words,
      "?,protocol,damaged,refused,fenced,fork,no space,volume,busy,failed,version,timeout,?,");
}

}  // namespace
}  // namespace penstock
