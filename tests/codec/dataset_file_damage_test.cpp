// SPDX-License-Identifier: Apache-2.0
// Goal: a file that is not whole is never taken for one, the place of the damage is named, and no
// length in it is believed before it was checked. Method: every flip and truncation of a sample;
// then each kind of damage, with the sums around it put right, so that they are not what refuses
// it.
#include <numeric>

#include "codec/dataset_file.h"
#include "tests/codec/dataset_file_fixture.h"

namespace penstock {
namespace {

constexpr std::size_t kStartEnd = 24 + 44 + 2 * 16;  // of the samples

class DatasetFileDamage : public DatasetFileTest {
 protected:
  // A record between a start and its trailer.
  std::string ReadAround(const ByteString& record) {
    return Read(Whole(Join({Head({}), record}), 1));
  }
  static ByteString WithField(ByteString bytes, std::size_t at, std::uint64_t value,
                              std::size_t size) {
    std::memcpy(bytes.data() + at, &value, size);
    return bytes;
  }
  static ByteString WithRightHash(ByteString record) {
    return WithField(record, 0, Hash64(Bytes(record).subspan(20)), 8);
  }
  static std::string At(std::size_t offset, const std::string& text) {
    return std::to_string(offset) + ": " + text;
  }
};

TEST_F(DatasetFileDamage, EveryBitFlipIsSeen) {
  ByteString bytes = Sample();
  for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
    bytes[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
    ASSERT_NE(Read(bytes), "whole") << "bit " << bit;
    bytes[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
  }
  EXPECT_EQ(Read(bytes), "whole");
}

TEST_F(DatasetFileDamage, EveryTruncationIsSeen) {
  const ByteString bytes = Sample();
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    ASSERT_NE(Read(ByteString(bytes.data(), bytes.data() + size)), "whole") << size;
  }
}

TEST_F(DatasetFileDamage, ATruncationIsNamedByWhatIsMissing) {
  const ByteString bytes = Sample();
  const auto cut = [&](std::size_t size) {
    return Read(ByteString(bytes.data(), bytes.data() + size));
  };
  EXPECT_EQ(cut(0), "0: the file is empty");
  EXPECT_EQ(cut(1), "0: the file ends within a command header");
  EXPECT_EQ(cut(23), "0: the file ends within a command header");
  EXPECT_EQ(cut(24), "0: the file ends within a record");
  EXPECT_EQ(cut(kStartEnd - 1), "0: the file ends within a record");
  EXPECT_EQ(cut(kStartEnd), At(kStartEnd, "the file ends before its trailer"));
  EXPECT_EQ(cut(kStartEnd + 5), At(kStartEnd, "the file ends within a command header"));
  EXPECT_EQ(cut(kStartEnd + 30), At(kStartEnd, "the file ends within a record"));
  EXPECT_EQ(cut(bytes.size() - 60), At(bytes.size() - 60, "the file ends before its trailer"));
  EXPECT_EQ(cut(bytes.size() - 1), At(bytes.size() - 60, "the file ends within a record"));
}

TEST_F(DatasetFileDamage, NothingMayFollowTheTrailer) {
  const ByteString bytes = Sample();
  const std::string fault = At(bytes.size(), "bytes behind the trailer");
  EXPECT_EQ(Read(Join({bytes, {0}})), fault);
  EXPECT_EQ(Read(Join({bytes, bytes})), fault);
  EXPECT_EQ(Read(Join({bytes, Record(100, BytesOf(Blocks()[0]))})), fault);
}

// --- Command headers. ---

TEST_F(DatasetFileDamage, AWrongChecksumIsNotBelieved) {
  const std::string fault = "the command header's checksum is wrong";
  for (const std::size_t at : {0U, 3U, 4U, 8U, 12U, 16U, 17U, 18U, 20U, 23U}) {
    ByteString bytes = Sample();
    bytes[at] ^= 1U;
    EXPECT_EQ(Read(bytes), At(0, fault)) << at;
    bytes[at] ^= 1U;
    bytes[kStartEnd + at] ^= 1U;
    EXPECT_EQ(Read(bytes), At(kStartEnd, fault)) << at;
  }
}

TEST_F(DatasetFileDamage, OtherFlagsAreRefusedThoughTheirChecksumIsRight) {
  const ByteString payload = BytesOf(Blocks()[0]);
  constexpr DPPCmdHeaderFlags kOthers[] = {
      {3, 3, 0, 0, 0}, {2, 0, 0, 0, 0}, {2, 3, 1, 0, 0}, {2, 3, 0, 1, 0}, {2, 3, 0, 0, 1}};
  for (const DPPCmdHeaderFlags& flags : kOthers) {
    const auto command =
        CreateDppHeader(static_cast<unsigned>(payload.size()), DPPCmdType::CompressedData, flags);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(command.get());
    EXPECT_EQ(ReadAround(Join({{bytes, bytes + 24}, payload})),
              At(kStartEnd, "the command header's flags are not those of a dataset file"));
  }
}

TEST_F(DatasetFileDamage, AFileBeginsWithAStart) {
  const ByteString bytes = Whole(Record(100, BytesOf(Blocks()[0])), 1);
  EXPECT_EQ(Read(bytes), "0: the file does not begin with a start record");
  EXPECT_TRUE(m_starts.empty());
  EXPECT_TRUE(m_blocks.empty());
}

TEST_F(DatasetFileDamage, ThereIsOneStart) {
  EXPECT_EQ(ReadAround(Record(56, BytesOf(Start(2)))), At(kStartEnd, "a second start record"));
  EXPECT_EQ(m_starts.size(), 1U);
}

TEST_F(DatasetFileDamage, OtherTypesAreUnknown) {
  EXPECT_EQ(ReadAround(Record(57, Noise(60))), At(kStartEnd, "a record of unknown type 57"));
  EXPECT_EQ(ReadAround(Record(0xffffffffU, {})),
            At(kStartEnd, "a record of unknown type 4294967295"));
}

// --- Sizes. ---

TEST_F(DatasetFileDamage, AStartHasTheSizeOfItsVolumes) {
  const auto start = [this](std::size_t size, std::uint64_t count) {
    return Read(Record(56, WithField(ByteString(size), 40, count, 2)));
  };
  EXPECT_EQ(start(44, 0), "68: the file ends before its trailer");
  EXPECT_EQ(start(60, 1), "84: the file ends before its trailer");
  const std::string fault = "24: the start record's size is not that of its volumes";
  EXPECT_EQ(start(44, 1), fault);
  EXPECT_EQ(start(60, 0), fault);
  EXPECT_EQ(start(60, 2), fault);
  EXPECT_EQ(start(61, 1), fault);
  EXPECT_EQ(start(44, 65535), fault);
  EXPECT_TRUE(m_starts.empty());
}

TEST_F(DatasetFileDamage, AStartHasALimit) {
  const auto fault = [](std::size_t size) {
    return "0: the record's size of " + std::to_string(size) + " bytes is not between 44 and 4140";
  };
  EXPECT_EQ(Read(Record(56, ByteString(43))), fault(43));
  EXPECT_EQ(Read(Record(56, {})), fault(0));
  EXPECT_EQ(Read(Record(56, BytesOf(Start(257)))), fault(44 + 16 * 257));
  EXPECT_EQ(Read(Record(56, BytesOf(Start(65535)))), fault(44 + 16 * 65535));
}

TEST_F(DatasetFileDamage, ABlockHasALimit) {
  const auto fault = [](std::size_t size) {
    return At(kStartEnd, "the record's size of " + std::to_string(size) +
                             " bytes is not between 20 and 1097748");
  };
  EXPECT_EQ(ReadAround(Record(100, {})), fault(0));
  EXPECT_EQ(ReadAround(Record(100, ByteString(19))), fault(19));
  EXPECT_EQ(ReadAround(Record(100, ByteString(1097749))), fault(1097749));
}

// A file that says it is enormous, with a command that says so of its record.
TEST_F(DatasetFileDamage, NothingLargeIsReadByTheWordOfALength) {
  for (const std::uint32_t size : {1097749U, 0x7fffffffU, 0xffffffffU}) {
    const auto command = FileCommand(size, DPPCmdType::CompressedData);
    MemoryFile file(Join({Head({}), {command.begin(), command.end()}}));
    file.Claim(~std::uint64_t{0});
    EXPECT_NE(Read(file), "whole");
    EXPECT_LE(file.LargestRead(), 76U);
  }
}

TEST_F(DatasetFileDamage, NoReadIsLargerThanABlock) {
  std::vector<BlockPtr> blocks;
  const ByteString noise = Noise(kMaxBlockBytes);
  const Piece piece{0, noise};
  blocks.assign(5, PackBlock(0, {&piece, 1}, {}));
  MemoryFile file(Whole(Head(blocks), 5));
  EXPECT_EQ(Read(file), "whole");
  EXPECT_LE(file.LargestRead(), 20U + kMaxBodyBytes);
}

TEST_F(DatasetFileDamage, AFileThatCannotBeReadIsNotWhole) {
  MemoryFile file(Head(Blocks()));
  const std::uint64_t size = file.Size();
  file.Claim(size + 60);
  EXPECT_EQ(Read(file), At(size, "the file can't be read here"));
  MemoryFile nothing(ByteString{});
  nothing.Claim(1000);
  EXPECT_EQ(Read(nothing), "0: the file can't be read here");
}

// --- Blocks. ---

TEST_F(DatasetFileDamage, ABlockIsNamedWithWhatIsWrongWithIt) {
  const ByteString good = BytesOf(Blocks()[0]);
  const auto read = [&](const ByteString& record) { return ReadAround(Record(100, record)); };
  const auto fault = [](BlockFault why) { return At(kStartEnd + 24, Text(why)); };
  EXPECT_EQ(read(WithField(good, 16, good.size() - 21, 4)), fault(BlockFault::kLength));
  EXPECT_EQ(read(WithField(good, 0, 0, 8)), fault(BlockFault::kHash));
  EXPECT_EQ(read(WithField(good, 14, 0, 2)), fault(BlockFault::kExtents));
  EXPECT_EQ(read(WithField(good, 13, 9, 1)), fault(BlockFault::kCodec));
  EXPECT_EQ(read(WithRightHash(WithField(good, 20, ~std::uint64_t{0}, 8))),
            fault(BlockFault::kOutside));
  EXPECT_TRUE(m_blocks.empty());
}

TEST_F(DatasetFileDamage, ABlockIsOfAVolumeOfTheStart) {
  const Extent zeros[] = {{0, 512}};
  EXPECT_EQ(ReadAround(Record(100, BytesOf(PackZeros(1, zeros)))), "whole");
  EXPECT_EQ(ReadAround(Record(100, BytesOf(PackZeros(2, zeros)))),
            At(kStartEnd + 24, "the block is of volume 2 of 2"));
  EXPECT_TRUE(m_blocks.empty());
}

TEST_F(DatasetFileDamage, WhatWasGoodBeforeTheDamageIsCounted) {
  ByteString bytes = Sample();
  const std::size_t third =
      kStartEnd + 24 + BytesOf(Blocks()[0]).size() + 24 + BytesOf(Blocks()[1]).size() + 24;
  bytes[third] ^= 1U;
  EXPECT_EQ(Read(bytes), At(third, Text(BlockFault::kHash)));
  EXPECT_EQ(m_blocks.size(), 2U);
  EXPECT_EQ(m_totals.blocks, 2U);
  EXPECT_EQ(m_totals.rawBytes, 2000U);
  EXPECT_FALSE(m_totals.whole);
}

// --- Trailer. ---

TEST_F(DatasetFileDamage, ATrailerCountsTheBlocks) {
  const ByteString head = Head(Blocks());
  EXPECT_EQ(Read(Whole(head, 5)),
            At(head.size() + 24, "the trailer counts 5 blocks, the file holds 4"));
  EXPECT_EQ(Read(Whole(head, 3)),
            At(head.size() + 24, "the trailer counts 3 blocks, the file holds 4"));
}

TEST_F(DatasetFileDamage, ATrailerHashesEverythingBeforeIt) {
  const ByteString head = Head(Blocks());
  for (const std::size_t at : {std::size_t{24}, std::size_t{60}, std::size_t{80}}) {  // the start
    ByteString other = head;
    other[at] ^= 1U;
    EXPECT_EQ(Read(Join({other, Record(100, Trailer(4, head))})),
              At(head.size() + 24, "the file's hash differs from the trailer's"));
  }
}

TEST_F(DatasetFileDamage, ATrailerOfAnotherFileIsRefused) {
  std::vector<BlockPtr> swapped = Blocks();
  std::swap(swapped[0], swapped[2]);
  const ByteString head = Head(Blocks());
  EXPECT_EQ(Read(Join({head, Record(100, Trailer(4, Head(swapped)))})),
            At(head.size() + 24, "the file's hash differs from the trailer's"));
}

TEST_F(DatasetFileDamage, AnotherTrailerIsDamaged) {
  const ByteString head = Head(Blocks());
  const ByteString trailer = Trailer(4, head);
  const std::string fault = At(head.size() + 24, "the trailer is damaged");
  const auto read = [&](const ByteString& record) {
    return Read(Join({head, Record(100, record)}));
  };
  EXPECT_EQ(read(WithField(trailer, 0, 1, 8)), fault);
  EXPECT_EQ(read(WithField(trailer, 8, 1, 4)), fault);
  EXPECT_EQ(read(WithField(trailer, 12, 1, 1)), fault);
  EXPECT_EQ(read(WithField(trailer, 13, 1, 1)), fault);
  EXPECT_EQ(read(WithField(trailer, 16, 15, 4)), fault);
  EXPECT_EQ(read(trailer), "whole");
}

TEST_F(DatasetFileDamage, ATrailerOfAnotherSizeIsNone) {
  const ByteString head = Head({});
  for (const std::size_t size : {15U, 17U, 0U}) {
    ByteString record = Trailer(0, head);
    record.resize(20 + size);
    record = WithRightHash(WithField(record, 16, size, 4));
    EXPECT_EQ(Read(Join({head, Record(100, record)})),
              At(head.size() + 24, Text(BlockFault::kExtents)));
  }
}

}  // namespace
}  // namespace penstock
