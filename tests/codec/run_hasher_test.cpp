// SPDX-License-Identifier: Apache-2.0
// Goal: the strong fingerprint is AES-128-GMAC with the nonce and the length that it promises.
// Method: published answers of GCM without a plaintext; then each input in turn is changed.
#include "codec/run_hasher.h"

#include <gtest/gtest.h>

#include <set>
#include <utility>

#include "tests/codec/data.h"

namespace penstock {
namespace {

RunKey Key(const std::string& hex) {
  RunKey key{};
  const ByteString bytes = FromHex(hex);
  std::copy(bytes.begin(), bytes.end(), key.begin());
  return key;
}

std::string Of(RunHasher& hasher, std::uint64_t dataset, std::uint32_t firstBlock, Bytes run) {
  return Hex(hasher.Of(dataset, firstBlock, run).bytes);
}

TEST(RunHasher, OfNothingUnderZeroesIsThePublishedTag) {
  RunHasher hasher(RunKey{});
  EXPECT_EQ(Of(hasher, 0, 0, {}), "58e2fccefa7e3061367f1d57a4e7455a00000000");
}

// Key 77be6370..., nonce e0e00f19fed7ba0136a797f3, additional data 7a43ec1d...: from the vectors
// for 128-bit keys, 96-bit nonces and no plaintext.
TEST(RunHasher, IsThePublishedTagAndTheLength) {
  RunHasher hasher(Key("77be63708971c4e240d1cb79e8d77feb"));
  EXPECT_EQ(
      Of(hasher, 0x01bad7fe190fe0e0U, 0xf397a736U, FromHex("7a43ec1d9c0a5a78a0b16533a6213cab")),
      "209fcc8d3675ed938e9c7166709dd94610000000");
}

TEST(RunHasher, EndsWithTheLengthOfTheRun) {
  RunHasher hasher(RunKey{});
  EXPECT_EQ(Of(hasher, 1, 2, Noise(0x012345)).substr(32), "45230100");
}

TEST(RunHasher, ForgetsTheRunBefore) {
  RunHasher hasher(Key("77be63708971c4e240d1cb79e8d77feb"));
  const ByteString run = Noise(70001);
  const std::string first = Of(hasher, 7, 8, run);
  EXPECT_NE(Of(hasher, 7, 9, Noise(4096)), first);
  EXPECT_NE(Of(hasher, 7, 8, {}), first);
  EXPECT_EQ(Of(hasher, 7, 8, run), first);
  RunHasher other(Key("77be63708971c4e240d1cb79e8d77feb"));
  EXPECT_EQ(Of(other, 7, 8, run), first);
}

TEST(RunHasher, DependsOnEveryByteOfTheNonce) {
  RunHasher hasher(RunKey{});
  const ByteString run = Noise(4096);
  std::set<std::string> seen{Of(hasher, 0, 0, run)};
  for (unsigned bit = 0; bit < 64; bit += 8) {
    EXPECT_TRUE(seen.insert(Of(hasher, std::uint64_t{1} << bit, 0, run)).second) << bit;
  }
  for (unsigned bit = 0; bit < 32; bit += 8) {
    EXPECT_TRUE(seen.insert(Of(hasher, 0, std::uint32_t{1} << bit, run)).second) << bit;
  }
}

TEST(RunHasher, DependsOnEveryByteOfTheKey) {
  const ByteString run = Noise(4096);
  std::set<std::string> seen;
  for (std::size_t i = 0; i < RunKey{}.size(); ++i) {
    RunKey key{};
    key[i] = 1;
    RunHasher hasher(key);
    EXPECT_TRUE(seen.insert(Of(hasher, 0, 0, run)).second) << i;
  }
}

TEST(RunHasher, DependsOnEveryBitOfTheRun) {
  RunHasher hasher(RunKey{});
  ByteString run = Noise(300);
  std::set<std::string> seen{Of(hasher, 0, 0, run)};
  for (std::size_t bit = 0; bit < run.size() * 8; ++bit) {
    run[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
    EXPECT_TRUE(seen.insert(Of(hasher, 0, 0, run)).second) << bit;
    run[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
  }
}

TEST(RunHasher, CanBeMoved) {
  RunHasher first(Key("77be63708971c4e240d1cb79e8d77feb"));
  const std::string print = Of(first, 1, 2, Noise(10));
  RunHasher second = std::move(first);
  EXPECT_EQ(Of(second, 1, 2, Noise(10)), print);
  first = RunHasher(RunKey{});
  EXPECT_EQ(Of(first, 0, 0, {}), "58e2fccefa7e3061367f1d57a4e7455a00000000");
}

}  // namespace
}  // namespace penstock
