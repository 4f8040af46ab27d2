// SPDX-License-Identifier: Apache-2.0
// Goal: what a person may write for the compression, and nothing else.
#include <gtest/gtest.h>

#include "codec/block.h"

namespace penstock {
namespace {

// "<codec> <level> [auto]" of what the text means; "refused".
std::string Meaning(const std::string& text) {
  const auto spec = CompressSpec::Parse(text);
  if (!spec) return "refused";
  return std::to_string(static_cast<int>(spec->codec)) + " " + std::to_string(spec->level) +
         (spec->automatic ? " auto" : "");
}

TEST(CompressSpec, IsNoneWhenNothingIsSaid) {
  EXPECT_EQ(CompressSpec{}.Text(), "none");
  EXPECT_EQ(Meaning("none"), "1 1");
}

TEST(CompressSpec, NamesTheCodecs) {
  EXPECT_EQ(Meaning("lz4"), "2 1");
  EXPECT_EQ(Meaning("zstd"), "3 1");
  EXPECT_EQ(Meaning("auto"), "2 1 auto");
}

TEST(CompressSpec, TakesTheLevels1To19) {
  for (int level = 1; level <= 19; ++level) {
    EXPECT_EQ(Meaning("zstd:" + std::to_string(level)), "3 " + std::to_string(level));
  }
}

TEST(CompressSpec, RefusesEverythingElse) {
  for (const char* text : {"",
                           " ",
                           "None",
                           "LZ4",
                           "raw",
                           "zero",
                           "gzip",
                           "lz4:1",
                           "auto:3",
                           "none ",
                           " lz4",
                           "zstd:",
                           "zstd:0",
                           "zstd:20",
                           "zstd:-1",
                           "zstd:+1",
                           "zstd:01",
                           "zstd: 1",
                           "zstd:1 ",
                           "zstd:1x",
                           "zstd:4294967297",
                           "zstd:99999999999999999999",
                           "zstd1",
                           "zstd:1:2"}) {
    EXPECT_EQ(Meaning(text), "refused") << "\"" << text << "\"";
  }
  EXPECT_EQ(Meaning(std::string("lz4\0", 4)), "refused");
}

TEST(CompressSpec, IsReadFromItsOwnText) {
  for (const char* text : {"none", "lz4", "zstd:1", "zstd:19", "auto"}) {
    const auto spec = CompressSpec::Parse(text);
    ASSERT_TRUE(spec);
    EXPECT_EQ(spec->Text(), text);
  }
  EXPECT_EQ(CompressSpec::Parse("zstd")->Text(), "zstd:1");
}

}  // namespace
}  // namespace penstock
