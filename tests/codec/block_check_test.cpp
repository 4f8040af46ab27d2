// SPDX-License-Identifier: Apache-2.0
// Goal: nothing that a stranger or a bad disk makes of a block is taken for one. Method: every flip
// and truncation of good blocks; then records put together by hand, with right hashes around each
// lie, so that the hash is not what refuses them.
#include <gtest/gtest.h>
#include <lz4.h>
#include <zstd.h>

#include <cstring>
#include <initializer_list>
#include <set>

#include "codec/block.h"
#include "tests/codec/data.h"

namespace penstock {
namespace {

constexpr std::uint64_t kAnySize = ~std::uint64_t{0};

// A record as bytes, in memory of exactly its size.
BlockPtr Record(const ByteString& bytes) {
  const std::shared_ptr<std::uint8_t[]> memory(new std::uint8_t[bytes.size()]);
  std::copy(bytes.begin(), bytes.end(), memory.get());
  return {memory, reinterpret_cast<OM_DP::CompressedData*>(memory.get())};
}

class BlockCheck : public testing::Test {
 protected:
  // What is found wrong with these bytes by check and, when that passes, by unpacking.
  BlockFault Fault(const ByteString& bytes, std::uint64_t volumeSize = kAnySize) {
    const BlockPtr record = Record(bytes);
    BlockFault fault = CheckBlock(*record, bytes.size(), volumeSize, m_extents);
    m_checkPassed = fault == BlockFault::kNone;
    EXPECT_EQ(m_extents.empty(), !m_checkPassed);
    if (!m_checkPassed) return fault;
    fault = UnpackBlock(*record, m_space, m_raw);
    EXPECT_TRUE(fault == BlockFault::kNone || m_raw.empty());
    m_data = Copy(m_raw);
    return fault;
  }

  // A record with a right hash and a right length around the given extents and data.
  static ByteString Make(const std::vector<Extent>& extents, Codec codec, const ByteString& data,
                         std::uint32_t rawLength) {
    BlockPtr block = OM_DP::MakeCompressedData(
        static_cast<std::uint32_t>(extents.size() * kExtentBytes + data.size()));
    block->rawLength = rawLength;
    block->codec = static_cast<std::uint8_t>(codec);
    block->extentCount = static_cast<std::uint16_t>(extents.size());
    std::uint8_t* at = OM_DP::Body(*block);
    for (const Extent& extent : extents) {
      std::memcpy(at, &extent.offset, 8);
      std::memcpy(at + 8, &extent.length, 4);
      at += kExtentBytes;
    }
    std::copy(data.begin(), data.end(), at);
    block->bodyHash = Hash64({OM_DP::Body(*block), block->length});
    return Copy(RecordBytes(*block));
  }
  // One extent of `rawLength` bytes at the volume's beginning.
  static ByteString Make(Codec codec, const ByteString& data, std::uint32_t rawLength) {
    return Make({{0, rawLength}}, codec, data, rawLength);
  }
  static ByteString WithField(ByteString record, std::size_t at, std::uint32_t value,
                              std::size_t size = 4) {
    std::memcpy(record.data() + at, &value, size);
    return record;
  }

  static ByteString Lz4(const ByteString& data) {
    ByteString out(static_cast<std::size_t>(LZ4_compressBound(static_cast<int>(data.size()))));
    const int size = LZ4_compress_default(
        reinterpret_cast<const char*>(data.data()), reinterpret_cast<char*>(out.data()),
        static_cast<int>(data.size()), static_cast<int>(out.size()));
    out.resize(static_cast<std::size_t>(size));
    return out;
  }
  // A frame of a context that `set` has prepared.
  static ByteString Zstd(const ByteString& data,
                         std::initializer_list<std::pair<ZSTD_cParameter, int>> set = {}) {
    ZSTD_CCtx* context = ZSTD_createCCtx();
    for (const auto& [parameter, value] : set) ZSTD_CCtx_setParameter(context, parameter, value);
    ByteString out(ZSTD_compressBound(data.size()));
    out.resize(ZSTD_compress2(context, out.data(), out.size(), data.data(), data.size()));
    ZSTD_freeCCtx(context);
    return out;
  }

  std::vector<Extent> m_extents;
  ByteString m_space;
  Bytes m_raw;
  ByteString m_data;
  bool m_checkPassed = false;
};

// --- Damage. ---

class EveryCodec : public BlockCheck, public testing::WithParamInterface<Codec> {
 protected:
  static ByteString Sample() {
    const ByteString noise = Noise(300);
    const ByteString prose = Prose(700);
    const bool isZero = GetParam() == Codec::kZero;
    const Piece pieces[] = {{1000, noise}, {9000, prose}};
    const Extent extents[] = {{1000, 300}, {9000, 700}};
    const BlockPtr block =
        isZero ? PackZeros(2, extents) : PackBlock(2, pieces, CompressSpec{GetParam(), 1, false});
    EXPECT_EQ(block->codec, static_cast<std::uint8_t>(GetParam()));
    return Copy(RecordBytes(*block));
  }
};

TEST_P(EveryCodec, IsGoodAsItWasPacked) {
  EXPECT_EQ(Fault(Sample()), BlockFault::kNone);
  EXPECT_EQ(m_extents, (std::vector<Extent>{{1000, 300}, {9000, 700}}));
  EXPECT_EQ(m_data, GetParam() == Codec::kZero ? ByteString{} : Join({Noise(300), Prose(700)}));
}

// All but those of the volume's index, which nothing in the record repeats: what carries the record
// covers that (the frame's hash, the file's hash).
TEST_P(EveryCodec, RefusesEveryBitFlip) {
  constexpr std::size_t kVolumeIndex = 12;
  ByteString bytes = Sample();
  for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
    if (bit / 8 == kVolumeIndex) continue;
    bytes[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
    EXPECT_NE(Fault(bytes), BlockFault::kNone) << "bit " << bit;
    bytes[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
  }
}

TEST_P(EveryCodec, RefusesEveryTruncation) {
  const ByteString bytes = Sample();
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    EXPECT_EQ(Fault(ByteString(bytes.data(), bytes.data() + size)), BlockFault::kLength) << size;
  }
}

TEST_P(EveryCodec, RefusesBytesBehindIt) {
  EXPECT_EQ(Fault(Join({Sample(), {0}})), BlockFault::kLength);
}

// A length that was repaired to go with a cut or a surplus: then the hash is right, too.
TEST_P(EveryCodec, RefusesDataThatIsTooShortOrTooLong) {
  for (const int change : {-1, 1, 2, 40}) {
    ByteString bytes = Sample();
    bytes.resize(bytes.size() + static_cast<std::size_t>(static_cast<std::ptrdiff_t>(change)));
    bytes = WithField(bytes, 16, static_cast<std::uint32_t>(bytes.size() - 20));
    const std::uint64_t hash = Hash64(Bytes(bytes).subspan(20));
    std::memcpy(bytes.data(), &hash, 8);
    EXPECT_NE(Fault(bytes), BlockFault::kNone) << change;
  }
}

std::string NameOf(const testing::TestParamInfo<Codec>& test) {
  constexpr const char* kNames[] = {"Zero", "Raw", "Lz4", "Zstd"};
  return kNames[static_cast<std::size_t>(test.param)];
}

INSTANTIATE_TEST_SUITE_P(Block, EveryCodec,
                         testing::Values(Codec::kZero, Codec::kRaw, Codec::kLz4, Codec::kZstd),
                         NameOf);

// --- Lengths and hash. ---

TEST_F(BlockCheck, RefusesALengthThatIsNotThePayloads) {
  const ByteString good = Make(Codec::kRaw, Noise(50), 50);
  ASSERT_EQ(Fault(good), BlockFault::kNone);
  for (const std::uint32_t length : {0U, 61U, 63U, 62U + 20U, 0x7fffffffU, 0xffffffffU,
                                     0xffffffecU}) {  // the last one and 20 are 2^32
    EXPECT_EQ(Fault(WithField(good, 16, length)), BlockFault::kLength) << length;
  }
}

TEST_F(BlockCheck, RefusesABodyBeyondTheLimit) {
  const std::uint32_t raw = 100;
  const ByteString data(kMaxBodyBytes - kExtentBytes + 1);
  EXPECT_EQ(Fault(Make(Codec::kLz4, data, raw)), BlockFault::kLength);
}

TEST_F(BlockCheck, RefusesAnotherHash) {
  ByteString bytes = Make(Codec::kRaw, Noise(50), 50);
  bytes[0] ^= 1U;
  EXPECT_EQ(Fault(bytes), BlockFault::kHash);
}

// --- Extents. ---

TEST_F(BlockCheck, RefusesABlockWithoutExtents) {
  EXPECT_EQ(Fault(Make({}, Codec::kZero, {}, 0)), BlockFault::kExtents);
  EXPECT_EQ(Fault(Make({}, Codec::kRaw, Noise(16), 16)), BlockFault::kExtents);
}

TEST_F(BlockCheck, TakesTheMostExtentsAndNoMore) {
  const auto with = [](std::uint32_t count) {
    return Make(std::vector<Extent>(count, {0, 1}), Codec::kZero, {}, count);
  };
  EXPECT_EQ(Fault(with(kMaxExtents)), BlockFault::kNone);
  EXPECT_EQ(Fault(with(kMaxExtents + 1)), BlockFault::kExtents);
  EXPECT_EQ(Fault(with(65535)), BlockFault::kExtents);
}

TEST_F(BlockCheck, RefusesMoreExtentsThanTheBodyHolds) {
  const ByteString good = Make(Codec::kRaw, Noise(11), 11);
  EXPECT_EQ(Fault(WithField(good, 14, 2, 2)), BlockFault::kExtents);
  EXPECT_EQ(Fault(WithField(good, 14, 4096, 2)), BlockFault::kExtents);
}

TEST_F(BlockCheck, RefusesAnEmptyExtent) {
  EXPECT_EQ(Fault(Make({{0, 0}}, Codec::kZero, {}, 0)), BlockFault::kExtents);
  EXPECT_EQ(Fault(Make({{0, 10}, {20, 0}}, Codec::kRaw, Noise(10), 10)), BlockFault::kExtents);
  EXPECT_EQ(Fault(Make({{20, 0}, {0, 10}}, Codec::kRaw, Noise(10), 10)), BlockFault::kExtents);
}

TEST_F(BlockCheck, RefusesASumThatIsNotTheRawLength) {
  EXPECT_EQ(Fault(Make({{0, 10}}, Codec::kRaw, Noise(9), 9)), BlockFault::kExtents);
  EXPECT_EQ(Fault(Make({{0, 10}, {0, 10}}, Codec::kRaw, Noise(21), 21)), BlockFault::kExtents);
}

TEST_F(BlockCheck, CannotBeLedToOverflowInTheSum) {
  // Together 2^32 + 4096, which is 4096 in 32 bits.
  const std::vector<Extent> extents{{0, 0x80000000U}, {0, 0x80000000U}, {0, 4096}};
  EXPECT_EQ(Fault(Make(extents, Codec::kZero, {}, 4096)), BlockFault::kExtents);
  const std::vector<Extent> most(kMaxExtents, {0, 0xffffffffU});
  EXPECT_EQ(Fault(Make(most, Codec::kZero, {}, 0xfffff000U)), BlockFault::kExtents);
}

TEST_F(BlockCheck, TakesTheMostDataAndNoMore) {
  EXPECT_EQ(Fault(Make(Codec::kZero, {}, kMaxBlockBytes)), BlockFault::kNone);
  EXPECT_EQ(Fault(Make(Codec::kZero, {}, kMaxBlockBytes + 1)), BlockFault::kExtents);
  EXPECT_EQ(Fault(Make({{0, kMaxBlockBytes}, {0, 1}}, Codec::kZero, {}, kMaxBlockBytes + 1)),
            BlockFault::kExtents);
  EXPECT_EQ(Fault(Make(Codec::kZero, {}, 0xffffffffU)), BlockFault::kExtents);
}

// --- The volume. ---

TEST_F(BlockCheck, TakesWhatEndsWithTheVolumeAndNothingBehind) {
  const ByteString bytes = Make({{0, 1}, {4000, 96}}, Codec::kZero, {}, 97);
  EXPECT_EQ(Fault(bytes, 4096), BlockFault::kNone);
  EXPECT_EQ(Fault(bytes, 4095), BlockFault::kOutside);
  EXPECT_EQ(Fault(bytes, 4000), BlockFault::kOutside);
  EXPECT_EQ(Fault(bytes, 50), BlockFault::kOutside);
  EXPECT_EQ(Fault(bytes, 0), BlockFault::kOutside);
}

TEST_F(BlockCheck, SeesAnExtentOutsideInAnyPlace) {
  EXPECT_EQ(Fault(Make({{100, 1}, {0, 1}}, Codec::kZero, {}, 2), 100), BlockFault::kOutside);
  EXPECT_EQ(Fault(Make({{0, 1}, {100, 1}}, Codec::kZero, {}, 2), 100), BlockFault::kOutside);
}

TEST_F(BlockCheck, CannotBeLedToOverflowInTheOffset) {
  for (const std::uint64_t offset :
       {kAnySize, kAnySize - 1, kAnySize - 99, std::uint64_t{1} << 63U}) {
    EXPECT_EQ(Fault(Make({{offset, 100}}, Codec::kZero, {}, 100), 4096), BlockFault::kOutside);
  }
  // Also with a volume of the largest size: the end is at most its last byte.
  EXPECT_EQ(Fault(Make({{kAnySize - 100, 100}}, Codec::kZero, {}, 100)), BlockFault::kNone);
  EXPECT_EQ(Fault(Make({{kAnySize - 99, 100}}, Codec::kZero, {}, 100)), BlockFault::kOutside);
}

// --- Codecs. ---

TEST_F(BlockCheck, RefusesAnUnknownCodec) {
  for (const unsigned codec : {4U, 5U, 128U, 255U}) {
    EXPECT_EQ(Fault(Make(static_cast<Codec>(codec), Noise(10), 10)), BlockFault::kCodec) << codec;
    EXPECT_FALSE(m_checkPassed);
  }
}

TEST_F(BlockCheck, RefusesZerosWithData) {
  EXPECT_EQ(Fault(Make(Codec::kZero, {0}, 10)), BlockFault::kCodec);
  EXPECT_FALSE(m_checkPassed);
}

TEST_F(BlockCheck, RefusesRawDataOfAnotherLength) {
  for (const std::size_t size : {0U, 9U, 11U}) {
    EXPECT_EQ(Fault(Make(Codec::kRaw, Noise(size), 10)), BlockFault::kCodec) << size;
    EXPECT_FALSE(m_checkPassed);
  }
}

TEST_F(BlockCheck, RefusesCompressedDataThatIsNotThere) {
  EXPECT_EQ(Fault(Make(Codec::kLz4, {}, 10)), BlockFault::kCodec);
  EXPECT_EQ(Fault(Make(Codec::kZstd, {}, 10)), BlockFault::kCodec);
  EXPECT_FALSE(m_checkPassed);
}

TEST_F(BlockCheck, RefusesNoiseAsCompressedData) {
  for (std::uint64_t seed = 1; seed < 200; ++seed) {
    EXPECT_EQ(Fault(Make(Codec::kLz4, Noise(500, seed), 4096)), BlockFault::kCodec) << seed;
    EXPECT_EQ(Fault(Make(Codec::kZstd, Noise(500, seed), 4096)), BlockFault::kCodec) << seed;
    EXPECT_TRUE(m_checkPassed);
  }
}

TEST_F(BlockCheck, RefusesMoreOrLessDataThanDeclared) {
  const ByteString prose = Prose(5000);
  ASSERT_EQ(Fault(Make(Codec::kLz4, Lz4(prose), 5000)), BlockFault::kNone);
  ASSERT_EQ(m_data, prose);
  ASSERT_EQ(Fault(Make(Codec::kZstd, Zstd(prose), 5000)), BlockFault::kNone);
  ASSERT_EQ(m_data, prose);
  for (const std::uint32_t declared : {1U, 4999U, 5001U, kMaxBlockBytes}) {
    EXPECT_EQ(Fault(Make(Codec::kLz4, Lz4(prose), declared)), BlockFault::kCodec) << declared;
    EXPECT_EQ(m_space.size(), declared);
    EXPECT_EQ(Fault(Make(Codec::kZstd, Zstd(prose), declared)), BlockFault::kCodec) << declared;
    EXPECT_EQ(m_space.size(), declared);
  }
}

TEST_F(BlockCheck, TakesAZstdFrameWithAChecksumAndRefusesAWrongOne) {
  ByteString frame = Zstd(Prose(5000), {{ZSTD_c_checksumFlag, 1}});
  EXPECT_EQ(Fault(Make(Codec::kZstd, frame, 5000)), BlockFault::kNone);
  frame.back() ^= 1U;
  EXPECT_EQ(Fault(Make(Codec::kZstd, frame, 5000)), BlockFault::kCodec);
}

TEST_F(BlockCheck, RefusesAZstdFrameThatDoesNotDeclareItsLength) {
  const ByteString frame = Zstd(Prose(5000), {{ZSTD_c_contentSizeFlag, 0}});
  EXPECT_EQ(Fault(Make(Codec::kZstd, frame, 5000)), BlockFault::kCodec);
}

TEST_F(BlockCheck, RefusesMoreThanOneZstdFrame) {
  const ByteString twice = Join({Zstd(Prose(100)), Zstd(Prose(100))});
  EXPECT_EQ(Fault(Make(Codec::kZstd, twice, 200)), BlockFault::kCodec);
  EXPECT_EQ(Fault(Make(Codec::kZstd, twice, 100)), BlockFault::kCodec);
}

TEST_F(BlockCheck, RefusesAZstdFrameToBeSkipped) {
  const ByteString skippable{0x50, 0x2a, 0x4d, 0x18, 2, 0, 0, 0, 'a', 'b'};
  const ByteString frame = Zstd(Prose(100));
  EXPECT_EQ(Fault(Make(Codec::kZstd, skippable, 2)), BlockFault::kCodec);
  EXPECT_EQ(Fault(Make(Codec::kZstd, Join({skippable, frame}), 100)), BlockFault::kCodec);
  EXPECT_EQ(Fault(Make(Codec::kZstd, Join({frame, skippable}), 100)), BlockFault::kCodec);
}

TEST_F(BlockCheck, RefusesTheOldZstdFormats) {
  for (const unsigned version : {0x22U, 0x23U, 0x24U, 0x25U, 0x26U, 0x27U}) {
    ByteString frame = Zstd(Prose(100));
    frame[0] = static_cast<std::uint8_t>(version);
    EXPECT_EQ(Fault(Make(Codec::kZstd, frame, 100)), BlockFault::kCodec) << version;
  }
}

// A frame of runs of one letter that asks for a window of 2 GiB: read in pieces it would be
// refused, or allocate as much. The destination is all that it gets.
TEST_F(BlockCheck, GivesAFrameNoWindowBesideItsDestination) {
  ByteString frame{0x28, 0xb5, 0x2f, 0xfd,   // magic
                   0x80, 0xa8,               // a content size of 4 bytes; a window of 2^31
                   0x00, 0x00, 0x10, 0x00};  // 1 MiB
  for (int i = 0; i < 8; ++i) {
    const std::uint8_t isLast = i == 7 ? 1 : 0;
    frame = Join({frame, {static_cast<std::uint8_t>(isLast | 2U), 0x00, 0x10, 'x'}});  // 128 KiB
  }
  EXPECT_EQ(Fault(Make(Codec::kZstd, frame, kMaxBlockBytes)), BlockFault::kNone);
  EXPECT_EQ(m_data, ByteString(kMaxBlockBytes, 'x'));
  frame[7] = 0x10;  // 2^20 + 4096 bytes, if it were believed
  EXPECT_EQ(Fault(Make(Codec::kZstd, frame, kMaxBlockBytes)), BlockFault::kCodec);
}

// --- Unpacking. ---

TEST_F(BlockCheck, RawDataIsAViewIntoTheBlock) {
  const BlockPtr record = Record(Make(Codec::kRaw, Noise(50), 50));
  ASSERT_EQ(UnpackBlock(*record, m_space, m_raw), BlockFault::kNone);
  EXPECT_EQ(m_raw.data(), OM_DP::Body(*record) + kExtentBytes);
  EXPECT_EQ(m_raw.size(), 50U);
  EXPECT_TRUE(m_space.empty());
}

TEST_F(BlockCheck, UnpackingZerosNeedsNoSpace) {
  m_raw = Bytes(m_space);
  const BlockPtr record = Record(Make(Codec::kZero, {}, kMaxBlockBytes));
  ASSERT_EQ(UnpackBlock(*record, m_space, m_raw), BlockFault::kNone);
  EXPECT_TRUE(m_raw.empty());
  EXPECT_TRUE(m_space.empty());
}

TEST_F(BlockCheck, SpaceIsUsedAgain) {
  for (const std::size_t size : {5000U, 100000U, 100U, 7000U}) {
    const ByteString prose = Prose(size);
    EXPECT_EQ(Fault(Make(Codec::kLz4, Lz4(prose), static_cast<std::uint32_t>(size))),
              BlockFault::kNone);
    EXPECT_EQ(m_data, prose);
    EXPECT_EQ(m_raw.data(), m_space.data());
    EXPECT_EQ(m_space.size(), size);
  }
}

// A caller that forgot to check is not led beyond the limit either.
TEST_F(BlockCheck, UnpackingHasALimitOfItsOwn) {
  const BlockPtr record = Record(Make(Codec::kLz4, Noise(50), kMaxBlockBytes + 1));
  EXPECT_EQ(UnpackBlock(*record, m_space, m_raw), BlockFault::kCodec);
  EXPECT_TRUE(m_space.empty());
}

TEST(BlockFaultText, IsDifferentForEach) {
  std::set<std::string> texts;
  for (const BlockFault fault : {BlockFault::kNone, BlockFault::kLength, BlockFault::kHash,
                                 BlockFault::kExtents, BlockFault::kOutside, BlockFault::kCodec}) {
    EXPECT_TRUE(texts.insert(Text(fault)).second);
  }
  EXPECT_TRUE(texts.insert(Text(static_cast<BlockFault>(200))).second);
}

}  // namespace
}  // namespace penstock
