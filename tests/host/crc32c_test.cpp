// SPDX-License-Identifier: Apache-2.0
// Goal: the checksum is CRC-32C. Method: the examples of RFC 3720, appendix B.4, the check value of
// the usual catalogue, and a bit-by-bit computation for random bytes.
#include "host/crc32c.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string_view>
#include <vector>

#include "tests/support/make.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

std::uint32_t Checksum(const Bytes& bytes) { return Crc32c(bytes.data(), bytes.size()); }

std::uint32_t BitByBit(const Bytes& bytes) {
  std::uint32_t remainder = 0xffffffffU;
  for (const std::uint8_t byte : bytes) {
    for (unsigned bit = 0; bit < 8; ++bit) {
      const bool isOdd = ((remainder ^ (static_cast<unsigned>(byte) >> bit)) & 1U) != 0;
      remainder /= 2;
      if (isOdd) remainder ^= 0x82f63b78U;
    }
  }
  return remainder ^ 0xffffffffU;
}

TEST(Crc32c, OfNothingIsZero) { EXPECT_EQ(Checksum({}), 0U); }

TEST(Crc32c, OfThirtyTwoZeroes) { EXPECT_EQ(Checksum(Bytes(32, 0)), 0x8a9136aaU); }

TEST(Crc32c, OfThirtyTwoOnes) { EXPECT_EQ(Checksum(Bytes(32, 0xff)), 0x62a8ab43U); }

TEST(Crc32c, OfThirtyTwoRisingBytes) {
  Bytes bytes;
  for (std::uint8_t i = 0; i < 32; ++i) bytes.push_back(i);
  EXPECT_EQ(Checksum(bytes), 0x46dd794eU);
}

TEST(Crc32c, OfThirtyTwoFallingBytes) {
  Bytes bytes;
  for (std::uint8_t i = 32; i > 0; --i) bytes.push_back(static_cast<std::uint8_t>(i - 1));
  EXPECT_EQ(Checksum(bytes), 0x113fdb5cU);
}

TEST(Crc32c, OfAReadCommand) {
  EXPECT_EQ(Checksum({0x01, 0xc0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                      0x00, 0x00, 0x00, 0x00, 0x14, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00,
                      0x00, 0x00, 0x00, 0x14, 0x00, 0x00, 0x00, 0x18, 0x28, 0x00, 0x00, 0x00,
                      0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}),
            0xd9963a56U);
}

TEST(Crc32c, HasItsCheckValue) {
  constexpr std::string_view kDigits = "123456789";
  EXPECT_EQ(Checksum(Bytes(kDigits.begin(), kDigits.end())), 0xe3069283U);
}

TEST(Crc32c, AgreesWithABitByBitComputation) {
  constexpr std::uint32_t kSeed = 3720;
  SCOPED_TRACE("seed " + Text(kSeed));
  std::mt19937 random(kSeed);
  for (std::size_t size = 0; size < 300; ++size) {
    Bytes bytes(size);
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
    ASSERT_EQ(Checksum(bytes), BitByBit(bytes)) << "size " << size;
  }
}

}  // namespace
