// SPDX-License-Identifier: Apache-2.0
// Goal: a packed block is the smallest of what its CompressSpec allows, holds its pieces, and
// comes back byte for byte. Method: records read by hand, and random pieces through every codec.
#include <gtest/gtest.h>
#include <lz4.h>
#include <zstd.h>

#include <cstring>
#include <thread>

#include "codec/block.h"
#include "tests/codec/data.h"

namespace penstock {
namespace {

constexpr std::uint64_t kPackAnySize = ~std::uint64_t{0};

CompressSpec Spec(const std::string& text) { return CompressSpec::Parse(text).value(); }

BlockPtr Pack(const ByteString& data, const std::string& spec, std::uint64_t offset = 0) {
  const Piece piece{offset, data};
  return PackBlock(0, {&piece, 1}, Spec(spec));
}

// "zero", "raw", "lz4", "zstd": how the block holds its data.
std::string CodecOf(const BlockPtr& block) {
  constexpr const char* kNames[] = {"zero", "raw", "lz4", "zstd"};
  return kNames[block->codec];
}

// The data of a block that is found good; "BAD" and why otherwise.
ByteString Unpacked(const BlockPtr& block, std::vector<Extent>* extents = nullptr) {
  std::vector<Extent> own;
  const auto why = [](BlockFault fault) { return Copy(Chars(std::string("BAD: ") + Text(fault))); };
  BlockFault fault = CheckBlock(*block, RecordBytes(*block).size(), kPackAnySize,
                                extents != nullptr ? *extents : own);
  if (fault != BlockFault::kNone) return why(fault);
  ByteString space;
  Bytes raw;
  fault = UnpackBlock(*block, space, raw);
  if (fault != BlockFault::kNone) return why(fault);
  return block->codec == 0 ? Zeros(block->rawLength) : Copy(raw);
}

TEST(PackBlock, WritesTheFieldsTheExtentsAndTheData) {
  const ByteString first{1, 2, 3};
  const ByteString second{4, 5};
  const Piece pieces[] = {{0x1122334455667788U, first}, {0x10, second}};
  const BlockPtr block = PackBlock(9, pieces, Spec("none"));
  EXPECT_EQ(Hex(RecordBytes(*block)).substr(16),  // behind the hash
            "05000000"                            // 5 bytes of volume data
            "09"                                  // volume 9
            "01"                                  // raw
            "0200"                                // 2 extents
            "1d000000"                            // 29 bytes of body
            "8877665544332211"
            "03000000"  // first extent
            "1000000000000000"
            "02000000"  // second
            "0102030405");
  EXPECT_EQ(block->bodyHash, Hash64(RecordBytes(*block).subspan(20)));
}

TEST(PackBlock, LeavesZerosOut) {
  for (const char* spec : {"none", "lz4", "zstd", "auto"}) {
    const BlockPtr block = Pack(Zeros(70000), spec);
    EXPECT_EQ(CodecOf(block), "zero") << spec;
    EXPECT_EQ(block->length, kExtentBytes) << spec;
    EXPECT_EQ(block->rawLength, 70000U) << spec;
    EXPECT_EQ(Unpacked(block), Zeros(70000)) << spec;
  }
}

TEST(PackBlock, KeepsAZeroPieceAmongOthers) {
  const ByteString zeros = Zeros(4096);
  ByteString almost = Zeros(4096);
  almost.back() = 1;
  const Piece pieces[] = {{0, zeros}, {8192, almost}};
  const BlockPtr block = PackBlock(0, pieces, Spec("none"));
  EXPECT_EQ(CodecOf(block), "raw");
  EXPECT_EQ(Unpacked(block), Join({zeros, almost}));
}

TEST(PackBlock, CompressesWithTheCodecThatIsAskedFor) {
  const ByteString prose = Prose(100000);
  EXPECT_EQ(CodecOf(Pack(prose, "none")), "raw");
  EXPECT_EQ(CodecOf(Pack(prose, "lz4")), "lz4");
  EXPECT_EQ(CodecOf(Pack(prose, "zstd")), "zstd");
  EXPECT_EQ(CodecOf(Pack(prose, "zstd:19")), "zstd");
  EXPECT_EQ(CodecOf(Pack(prose, "auto")), "lz4");
}

TEST(PackBlock, SendsRawWhatDoesNotShrink) {
  for (const char* spec : {"lz4", "zstd", "zstd:19", "auto"}) {
    const ByteString noise = Noise(100000);
    const BlockPtr block = Pack(noise, spec);
    EXPECT_EQ(CodecOf(block), "raw") << spec;
    EXPECT_EQ(block->length, kExtentBytes + 100000) << spec;
    EXPECT_EQ(Unpacked(block), noise) << spec;
  }
}

// Noise, then one letter to the end: each byte of noise more makes the outcome longer.
ByteString NoiseThenLetters(std::size_t noise, std::size_t size) {
  ByteString data = Noise(size);
  std::fill(data.begin() + static_cast<std::ptrdiff_t>(noise), data.end(), std::uint8_t{'x'});
  return data;
}

std::size_t Lz4Size(const ByteString& data) {
  std::vector<char> out(static_cast<std::size_t>(LZ4_compressBound(static_cast<int>(data.size()))));
  return static_cast<std::size_t>(LZ4_compress_default(reinterpret_cast<const char*>(data.data()),
                                                       out.data(), static_cast<int>(data.size()),
                                                       static_cast<int>(out.size())));
}

std::size_t ZstdSize(const ByteString& data, int level = 1) {
  ByteString out(ZSTD_compressBound(data.size()));
  return ZSTD_compress(out.data(), out.size(), data.data(), data.size(), level);
}

TEST(PackBlock, CompressesByTheLevelThatIsAskedFor) {
  const ByteString prose = Prose(300000);
  ASSERT_NE(ZstdSize(prose, 1), ZstdSize(prose, 9));
  EXPECT_EQ(Pack(prose, "zstd:1")->length, kExtentBytes + ZstdSize(prose, 1));
  EXPECT_EQ(Pack(prose, "zstd:9")->length, kExtentBytes + ZstdSize(prose, 9));
}

TEST(PackBlock, CompressesExactlyWhatShrinksByASixteenth) {
  constexpr std::size_t kSize = 16015;
  constexpr std::size_t kWorthIt = 15014;  // 15/16 of it, rounded down
  bool isLz4AtTheBorder = false;
  for (std::size_t noise = 14800; noise < 15050; ++noise) {
    const ByteString data = NoiseThenLetters(noise, kSize);
    const std::size_t lz4 = Lz4Size(data);
    isLz4AtTheBorder = isLz4AtTheBorder || lz4 == kWorthIt;
    const BlockPtr block = Pack(data, "lz4");
    ASSERT_EQ(CodecOf(block), lz4 <= kWorthIt ? "lz4" : "raw") << noise;
    ASSERT_EQ(block->length, kExtentBytes + (lz4 <= kWorthIt ? lz4 : kSize)) << noise;
    const std::size_t zstd = ZstdSize(data);
    ASSERT_EQ(CodecOf(Pack(data, "zstd")), zstd <= kWorthIt ? "zstd" : "raw") << noise;
  }
  EXPECT_TRUE(isLz4AtTheBorder);
}

TEST(PackBlock, NeverGrowsTheSmallestPieces) {
  for (std::size_t size = 1; size < 64; ++size) {
    const ByteString data(size, 'x');
    for (const char* spec : {"lz4", "zstd", "auto"}) {
      const BlockPtr block = Pack(data, spec);
      EXPECT_LE(block->length, kExtentBytes + size);
      EXPECT_EQ(Unpacked(block), data) << spec << " " << size;
    }
  }
}

// What the samples of the beginning, the middle and the end show decides, not the rest.
TEST(PackBlock, ProbesSamplesWhenAutomatic) {
  constexpr std::size_t kSize = 1U << 20U;
  ByteString noiseAtSamples = Prose(kSize);
  ByteString proseAtSamples = Noise(kSize);
  const ByteString prose = Prose(kSize);
  const ByteString noise = Noise(kSize);
  for (const std::size_t at : {std::size_t{0}, (kSize - 4096) / 2, kSize - 4096}) {
    const auto begin = static_cast<std::ptrdiff_t>(at);
    std::copy_n(noise.begin() + begin, 4096, noiseAtSamples.begin() + begin);
    std::copy_n(prose.begin() + begin, 4096, proseAtSamples.begin() + begin);
  }
  EXPECT_EQ(CodecOf(Pack(noiseAtSamples, "lz4")), "lz4");
  EXPECT_EQ(CodecOf(Pack(noiseAtSamples, "auto")), "raw");
  EXPECT_EQ(CodecOf(Pack(proseAtSamples, "auto")), "raw");  // tried, but not worth it
}

TEST(PackBlock, ProbesForZstdToo) {
  CompressSpec spec = Spec("zstd");
  spec.automatic = true;
  const ByteString prose = Prose(100000);
  const ByteString noise = Noise(100000);
  const Piece good{0, prose};
  const Piece bad{0, noise};
  EXPECT_EQ(CodecOf(PackBlock(0, {&good, 1}, spec)), "zstd");
  EXPECT_EQ(CodecOf(PackBlock(0, {&bad, 1}, spec)), "raw");
}

TEST(PackBlock, TakesTheLargestBlock) {
  for (const char* spec : {"none", "lz4", "zstd", "auto"}) {
    for (const ByteString& data : {Noise(kMaxBlockBytes), Prose(kMaxBlockBytes)}) {
      EXPECT_EQ(Unpacked(Pack(data, spec)), data) << spec;
    }
  }
}

TEST(PackBlock, TakesTheMostExtents) {
  const ByteString data = Noise(kMaxBlockBytes);
  std::vector<Piece> pieces;
  constexpr std::size_t kSize = kMaxBlockBytes / kMaxExtents;
  for (std::size_t i = 0; i < kMaxExtents; ++i) {
    pieces.push_back({i * 1000, Bytes(data).subspan(i * kSize, kSize)});
  }
  const BlockPtr block = PackBlock(0, pieces, Spec("none"));
  EXPECT_EQ(block->length, kMaxBodyBytes);
  EXPECT_EQ(Unpacked(block), data);
}

TEST(PackBlock, GivesBackRandomPiecesThroughEveryCodec) {
  std::mt19937_64 chance = Chance();
  for (int round = 0; round < 150; ++round) {
    std::vector<ByteString> parts;
    const std::size_t count = 1 + chance() % 9;
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t size = 1 + chance() % 30000;
      switch (chance() % 3) {
        case 0: parts.push_back(Zeros(size)); break;
        case 1: parts.push_back(Noise(size, chance())); break;
        default: parts.push_back(Prose(size)); break;
      }
    }
    std::vector<Piece> pieces;
    std::vector<Extent> wanted;
    for (const ByteString& part : parts) {
      pieces.push_back({chance() >> 1U, part});
      wanted.push_back({pieces.back().offset, static_cast<std::uint32_t>(part.size())});
    }
    for (const char* spec : {"none", "lz4", "zstd", "zstd:7", "auto"}) {
      const BlockPtr block = PackBlock(3, pieces, Spec(spec));
      std::vector<Extent> extents;
      ASSERT_EQ(Unpacked(block, &extents), Join(parts)) << spec;
      ASSERT_EQ(extents, wanted);
      ASSERT_EQ(block->volumeIndex, 3);
    }
  }
}

TEST(PackBlock, RunsInSeveralThreads) {
  const auto work = [](std::uint64_t seed) {
    for (int i = 0; i < 20; ++i) {
      const ByteString data = Join({Noise(2000, seed), Prose(20000)});
      const ByteString tail = Noise(500, seed + 1);
      const Piece pieces[] = {{0, data}, {1U << 20U, tail}};
      for (const char* spec : {"lz4", "zstd", "none"}) {
        ASSERT_EQ(Unpacked(PackBlock(0, pieces, Spec(spec))), Join({data, tail}));
      }
    }
  };
  std::thread first(work, 1);
  std::thread second(work, 2);
  first.join();
  second.join();
}

TEST(PackZeros, HoldsExtentsOnly) {
  const Extent extents[] = {{4096, 512}, {1U << 30U, kMaxBlockBytes - 512}};
  const BlockPtr block = PackZeros(4, extents);
  EXPECT_EQ(CodecOf(block), "zero");
  EXPECT_EQ(block->volumeIndex, 4);
  EXPECT_EQ(block->length, 2 * kExtentBytes);
  std::vector<Extent> found;
  EXPECT_EQ(Unpacked(block, &found), Zeros(kMaxBlockBytes));
  EXPECT_EQ(found, (std::vector<Extent>{extents[0], extents[1]}));
}

TEST(RawBlock, IsWhatPackingMakes) {
  for (const std::size_t size : {std::size_t{1}, std::size_t{4095}, std::size_t{kMaxBlockBytes}}) {
    const ByteString data = Noise(size);
    const BlockPtr block = BeginRawBlock(0, {512, static_cast<std::uint32_t>(size)});
    const auto space = RawData(*block);
    ASSERT_EQ(space.size(), size);
    std::copy(data.begin(), data.end(), space.begin());
    SealRawBlock(*block);
    EXPECT_EQ(Copy(RecordBytes(*block)), Copy(RecordBytes(*Pack(data, "none", 512)))) << size;
  }
}

TEST(RawBlock, IsNotGoodBeforeItIsSealed) {
  const BlockPtr block = BeginRawBlock(0, {0, 100});
  std::vector<Extent> extents;
  EXPECT_EQ(CheckBlock(*block, 132, kPackAnySize, extents), BlockFault::kHash);
  SealRawBlock(*block);
  EXPECT_EQ(CheckBlock(*block, 132, kPackAnySize, extents), BlockFault::kNone);
}

}  // namespace
}  // namespace penstock
