// SPDX-License-Identifier: Apache-2.0
// Goal: the text forms of buffers and fingerprints, and what they leave behind on the stream.
// Method: texts are compared whole; the stream is used again afterwards.
#include <gtest/gtest.h>

#include <cstdint>
#include <iomanip>
#include <limits>
#include <locale>
#include <sstream>
#include <string>

#include "penstock/records.h"
#include "tests/support/grouping_locale.h"
#include "tests/support/make.h"

namespace {

TEST(BufferText, NamesVolumeOffsetAndLength) {
  EXPECT_EQ(Text(Buf(1, 4096, 8192)),
            "InternalData[v=00000000-0000-0000-0000-000000000001 o: 0x1000, l=8192]");
}

TEST(BufferText, WritesOffsetZeroBare) {
  EXPECT_EQ(Text(Buf(1, 0, 0)), "InternalData[v=00000000-0000-0000-0000-000000000001 o: 0, l=0]");
}

TEST(BufferText, WritesTheLargestNumbersWhole) {
  EXPECT_EQ(
      Text(Buf(1, std::numeric_limits<std::uint64_t>::max(),
               std::numeric_limits<std::uint32_t>::max())),
      "InternalData[v=00000000-0000-0000-0000-000000000001 o: 0xffffffffffffffff, l=4294967295]");
}

TEST(BufferText, WritesTheVolumesBytesInMemoryOrder) {
  InternalData buf;
  for (std::uint8_t i = 0; i < 16; ++i) buf.volume.bytes[i] = static_cast<std::uint8_t>(0xf0 - i);
  EXPECT_EQ(Text(buf), "InternalData[v=f0efeeed-eceb-eae9-e8e7-e6e5e4e3e2e1 o: 0, l=0]");
}

TEST(BufferText, LeavesOutDataAndOpaque) {
  InternalData buf = BufWithData(1, 4096, 8192);
  buf.opaque = 77;
  EXPECT_EQ(Text(buf), Text(Buf(1, 4096, 8192)));
}

TEST(BufferText, ReturnsTheStream) {
  std::ostringstream out;
  EXPECT_EQ(&(out << Buf(1, 0, 0)), &out);
}

TEST(BufferText, PutsTheStreamBackToDecimal) {
  std::ostringstream out;
  out << std::hex << Buf(1, 4096, 16);
  EXPECT_EQ(out.str(), Text(Buf(1, 4096, 16)));
  out.str("");
  out << 255;
  EXPECT_EQ(out.str(), "255");
}

TEST(BufferText, LeavesShowBaseSetOnTheStream) {
  std::ostringstream out;
  out << Buf(1, 0, 0);
  out.str("");
  out << std::hex << 255 << " " << std::oct << 8;
  EXPECT_EQ(out.str(), "0xff 010");
}

TEST(BufferText, ChangesNoOtherFlagOfTheStream) {
  std::ostringstream out;
  out << std::boolalpha << std::left << std::setfill('*') << Buf(1, 1, 1);
  out.str("");
  out << true << std::setw(4) << 7;
  EXPECT_EQ(out.str(), "true7***");
}

TEST(BufferText, IsTheSameUnderAnotherLocale) {
  const GroupingLocale grouping;
  EXPECT_EQ(Text(Buf(1, 0x1234567, 12345678)),
            "InternalData[v=00000000-0000-0000-0000-000000000001 o: 0x1234567, l=12345678]");
}

TEST(FingerprintText, WritesTheLowNibbleFirst) {
  BufFingerprint fp;
  fp.bytes = {0x01, 0x23, 0xab, 0x0f};
  EXPECT_EQ(Text(fp), " Fingerprint[1032BAF000000000000000000000000000000000]");
}

TEST(FingerprintText, OfZeroesIsFortyZeroes) {
  EXPECT_EQ(Text(BufFingerprint{}), " Fingerprint[" + std::string(40, '0') + "]");
}

TEST(FingerprintText, WritesAllTwentyBytesInOrder) {
  BufFingerprint fp;
  for (std::uint8_t i = 0; i < 20; ++i) fp.bytes[i] = static_cast<std::uint8_t>(0xc0 + i);
  EXPECT_EQ(Text(fp), " Fingerprint[0C1C2C3C4C5C6C7C8C9CACBCCCDCECFC0D1D2D3D]");
}

TEST(FingerprintText, HasEveryDigitInUpperCase) {
  BufFingerprint fp;
  fp.bytes = {0x10, 0x32, 0x54, 0x76, 0x98, 0xba, 0xdc, 0xfe};
  EXPECT_EQ(Text(fp), " Fingerprint[0123456789ABCDEF" + std::string(24, '0') + "]");
}

TEST(FingerprintText, LeavesTheStreamAsItWasAndReturnsIt) {
  std::ostringstream out;
  out << std::hex;
  EXPECT_EQ(&(out << BufFingerprint{}), &out);
  out.str("");
  out << 255;
  EXPECT_EQ(out.str(), "ff");
}

}  // namespace
