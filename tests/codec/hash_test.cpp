// SPDX-License-Identifier: Apache-2.0
// Goal: the hashes are the published ones, whole and in pieces, and a zero test misses no byte.
// Method: published answers; the portable form of the same hash as a second opinion on random data;
// one byte that is not zero at every place.
#include "codec/hash.h"

#include <gtest/gtest.h>
#include <xxhash.h>  // the portable calls: without the header that replaces them

#include <utility>

#include "codec/is_zero.h"
#include "tests/codec/data.h"

namespace penstock {
namespace {

constexpr std::uint64_t kHashSeed = 11400714785074694797U;  // of the published answers

// The input of XXH3's published answers.
ByteString PublishedInput(std::size_t size) {
  ByteString bytes(size);
  std::uint64_t generator = 2654435761U;
  for (std::uint8_t& byte : bytes) {
    byte = static_cast<std::uint8_t>(generator >> 56U);
    generator *= 11400714785074694797U;
  }
  return bytes;
}

TEST(Hash64, GivesThePublishedAnswers) {
  struct Answer {
    std::size_t size;
    std::uint64_t unseeded, seeded;
  };
  // One size for each way that XXH3 goes by the length of its input.
  constexpr Answer kAnswers[] = {
      {0, 0x2D06800538D394C2U, 0xA8A6B918B2F0364AU},
      {1, 0xC44BDFF4074EECDBU, 0x032BE332DD766EF8U},
      {6, 0x27B56A84CD2D7325U, 0x84589C116AB59AB9U},
      {12, 0xA713DAF0DFBB77E7U, 0xE7303E1B2336DE0EU},
      {24, 0xA3FE70BF9D3510EBU, 0x850E80FC35BDD690U},
      {48, 0x397DA259ECBA1F11U, 0xADC2CBAA44ACC616U},
      {80, 0xBCDEFBBB2C47C90AU, 0xC6DD0CB699532E73U},
      {195, 0xCD94217EE362EC3AU, 0xBA68003D370CB3D9U},
      {403, 0xCDEB804D65C6DEA4U, 0x6259F6ECFD6443FDU},
      {512, 0x617E49599013CB6BU, 0x3CE457DE14C27708U},
      {2048, 0xDD59E2C3A5F038E0U, 0x66F81670669ABABCU},
      {2240, 0x6E73A90539CF2948U, 0x757BA8487D1B5247U},
  };
  for (const Answer& answer : kAnswers) {
    const ByteString input = PublishedInput(answer.size);
    EXPECT_EQ(Hash64(input), answer.unseeded) << answer.size << " bytes";
    EXPECT_EQ(Hash64(input, kHashSeed), answer.seeded) << answer.size << " bytes, seeded";
  }
}

TEST(Hash64, OfNoBytesNeedsNoAddress) {
  EXPECT_EQ(Hash64(Bytes{}), 0x2D06800538D394C2U);
  EXPECT_EQ(Hash64(Bytes{}, kHashSeed), 0xA8A6B918B2F0364AU);
}

TEST(Hash64, ByTheWidestInstructionsEqualsThePortableForm) {
  std::mt19937_64 chance = Chance();
  for (int i = 0; i < 300; ++i) {
    const std::size_t away = chance() % 64;  // from any alignment
    const ByteString bytes = Noise(away + chance() % 10000, chance());
    const Bytes data = Bytes(bytes).subspan(away);
    const std::uint64_t seed = i % 3 == 0 ? 0 : chance();
    ASSERT_EQ(Hash64(data, seed), XXH3_64bits_withSeed(data.data(), data.size(), seed))
        << data.size() << " bytes, seed " << seed;
  }
}

TEST(Hash64Stream, OfNothingIsTheHashOfNothing) {
  EXPECT_EQ(Hash64Stream().Value(), 0x2D06800538D394C2U);
  EXPECT_EQ(Hash64Stream(kHashSeed).Value(), 0xA8A6B918B2F0364AU);
}

TEST(Hash64Stream, EqualsTheHashOfTheWholeHoweverItIsDivided) {
  std::mt19937_64 chance = Chance();
  for (int i = 0; i < 200; ++i) {
    const ByteString bytes = Noise(chance() % 20000, chance());
    const std::uint64_t seed = i % 3 == 0 ? 0 : chance();
    Hash64Stream stream(seed);
    for (Bytes left = bytes; !left.empty();) {
      const std::size_t size = std::min<std::size_t>(left.size(), chance() % 3000);
      stream.Add(left.first(size));
      left = left.subspan(size);
    }
    ASSERT_EQ(stream.Value(), Hash64(bytes, seed)) << bytes.size() << " bytes, seed " << seed;
  }
}

TEST(Hash64Stream, GoesOnAfterItsValueWasRead) {
  const ByteString bytes = Noise(5000);
  Hash64Stream stream;
  stream.Add(Bytes(bytes).first(1234));
  EXPECT_EQ(stream.Value(), Hash64(Bytes(bytes).first(1234)));
  stream.Add(Bytes{});
  stream.Add(Bytes(bytes).subspan(1234));
  EXPECT_EQ(stream.Value(), Hash64(bytes));
}

std::string Sha256Of(const std::vector<std::string>& pieces) {
  Sha256 sha;
  for (const std::string& piece : pieces) sha.Add(Chars(piece));
  return Hex(sha.Finish());
}

TEST(Sha256, GivesThePublishedAnswers) {
  EXPECT_EQ(Sha256Of({}), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Sha256Of({"abc"}), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(Sha256Of({"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"}),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

TEST(Sha256, IsOfThePiecesInOrder) {
  EXPECT_EQ(Sha256Of({"a", "", "b", "c"}), Sha256Of({"abc"}));
  EXPECT_NE(Sha256Of({"b", "a"}), Sha256Of({"a", "b"}));
  EXPECT_EQ(Sha256Of(std::vector<std::string>(1000, std::string(1000, 'a'))),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256, CanBeMovedBetweenPieces) {
  Sha256 first;
  first.Add(Chars("a"));
  Sha256 second = std::move(first);
  second.Add(Chars("bc"));
  first = Sha256();
  EXPECT_EQ(Hex(second.Finish()), Sha256Of({"abc"}));
  EXPECT_EQ(Hex(first.Finish()), Sha256Of({}));
}

TEST(IsZero, IsTrueForNoBytes) { EXPECT_TRUE(IsZero(Bytes{})); }

TEST(IsZero, IsTrueForZerosOfEverySize) {
  const ByteString zeros = Zeros(1200);
  for (const ZeroTest test : ZeroTests()) {
    for (std::size_t size = 0; size <= zeros.size(); ++size) {
      EXPECT_TRUE(test(Bytes(zeros).first(size))) << size;
    }
  }
}

TEST(IsZero, SeesOneByteAtEveryPlace) {
  for (const ZeroTest test : ZeroTests()) {
    for (const std::size_t size : {1U, 63U, 64U, 127U, 128U, 255U, 256U, 257U, 1023U, 4096U}) {
      ByteString bytes = Zeros(size);
      for (std::size_t at = 0; at < size; ++at) {
        bytes[at] = static_cast<std::uint8_t>(1U << (at % 8));
        EXPECT_FALSE(test(bytes)) << at << " of " << size;
        bytes[at] = 0;
      }
    }
  }
}

TEST(IsZero, LooksAtItsOwnBytesOnly) {
  for (const ZeroTest test : ZeroTests()) {
    for (std::size_t away = 1; away < 70; ++away) {
      for (const std::size_t size : {0U, 5U, 64U, 300U, 512U}) {
        ByteString bytes(away + size + 1, 0xff);
        std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(away), size, std::uint8_t{0});
        EXPECT_TRUE(test(Bytes(bytes).subspan(away, size))) << away << " " << size;
        EXPECT_FALSE(test(Bytes(bytes).subspan(away, size + 1))) << away << " " << size;
      }
    }
  }
}

}  // namespace
}  // namespace penstock
