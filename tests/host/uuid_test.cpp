// SPDX-License-Identifier: Apache-2.0
// Goal: the identifier's text, equality, order and hash. Method: texts and a few hashes are pinned;
// the hash's formula itself is checked with the other hashes of the records.
#include "penstock/host/uuid.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <type_traits>
#include <unordered_set>

#include "tests/support/make.h"

namespace {

static_assert(sizeof(UuidT) == 16);
static_assert(std::is_aggregate_v<UuidT> && std::is_trivially_copyable_v<UuidT>);

UuidT BytesFrom(std::uint8_t first) {
  UuidT uuid;
  for (std::size_t i = 0; i < 16; ++i) uuid.bytes[i] = static_cast<std::uint8_t>(first + i);
  return uuid;
}

TEST(UuidText, IsCanonicalInMemoryOrder) {
  EXPECT_EQ(UUID::MakeUUID(BytesFrom(0)).String(), "00010203-0405-0607-0809-0a0b0c0d0e0f");
}

TEST(UuidText, IsLowerCase) {
  EXPECT_EQ(UUID::MakeUUID(BytesFrom(0xf0)).String(), "f0f1f2f3-f4f5-f6f7-f8f9-fafbfcfdfeff");
}

TEST(UuidText, OfZeroesKeepsEveryDigit) {
  EXPECT_EQ(UUID::MakeUUID({}).String(), "00000000-0000-0000-0000-000000000000");
}

TEST(UuidText, IsWhatAStreamWrites) {
  std::ostringstream out;
  EXPECT_EQ(&(out << UUID::MakeUUID(BytesFrom(0))), &out);
  EXPECT_EQ(out.str(), "00010203-0405-0607-0809-0a0b0c0d0e0f");
}

TEST(Uuid, IsEqualInAllSixteenBytes) {
  for (std::size_t i = 0; i < 16; ++i) {
    UuidT other = BytesFrom(0);
    EXPECT_EQ(other, BytesFrom(0));
    other.bytes[i] ^= 1U;
    EXPECT_NE(other, BytesFrom(0)) << "byte " << i;
    EXPECT_NE(UUID::MakeUUID(other), UUID::MakeUUID(BytesFrom(0))) << "byte " << i;
  }
}

TEST(Uuid, IsOrderedAsItsText) {
  EXPECT_LT(UUID::MakeUUID(BytesFrom(0)), UUID::MakeUUID(BytesFrom(1)));
  EXPECT_GT(UUID::MakeUUID(BytesFrom(0x80)), UUID::MakeUUID(BytesFrom(0x7f)));
}

TEST(Uuid, IsAllZeroByDefault) { EXPECT_EQ(UuidT{}, Volume(0)); }

TEST(UuidHash, ReadsBothHalves) {
  EXPECT_EQ(std::hash<UuidT>{}({}), 0xcd94bf3ecef65c4fU);
  EXPECT_EQ(std::hash<UuidT>{}(BytesFrom(0)), 0x80c9eb68fc4a94b7U);
}

TEST(UuidHash, KeysUnorderedContainers) {
  std::unordered_set<UuidT> volumes{BytesFrom(0), BytesFrom(1), BytesFrom(0)};
  EXPECT_EQ(volumes.size(), 2U);
  EXPECT_TRUE(volumes.contains(BytesFrom(1)));
}

}  // namespace
