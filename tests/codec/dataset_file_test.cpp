// SPDX-License-Identifier: Apache-2.0
// Goal: a dataset file comes back as it was written, with its start, blocks, totals and end.
// Method: files of the real serializer and files put together by hand must be the same bytes.
#include "codec/dataset_file.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "penstock/penstock.h"
#include "tests/codec/dataset_file_fixture.h"
#include "tests/support/log_capture.h"

namespace penstock {
namespace {

class DatasetFile : public DatasetFileTest {};

TEST_F(DatasetFile, CommandsAreThoseOfDatasetFiles) {
  // The two commands of the worked example in docs/format.md.
  EXPECT_EQ(Hex(FileCommand(60, DPPCmdType::DatasetStartv2)),
            "3c00000038000000020000000300000000000000791b0d5a");
  EXPECT_EQ(Hex(FileCommand(40, DPPCmdType::CompressedData)),
            "28000000640000000200000003000000"
            "00000000c12c56fc");
}

TEST_F(DatasetFile, ATrailerHoldsTheCountAndTheHashOfWhatIsBefore) {
  DatasetFileSum sum;
  sum.AddStart(BytesOf(Start(2)));
  for (const BlockPtr& block : Blocks()) sum.AddBlock(*block);
  const ByteString head = Head(Blocks());
  EXPECT_EQ(sum.Blocks(), 4U);
  EXPECT_EQ(sum.Size(), head.size());
  EXPECT_EQ(Hex(BytesOf(sum.MakeTrailer())), Hex(Trailer(4, head)));
}

TEST_F(DatasetFile, ATrailerCanBeMadeAtAnyTime) {
  DatasetFileSum sum;
  sum.AddStart(BytesOf(Start(2)));
  EXPECT_EQ(BytesOf(sum.MakeTrailer()), Trailer(0, Head({})));
  sum.AddBlock(*Blocks()[0]);
  EXPECT_EQ(BytesOf(sum.MakeTrailer()), Trailer(1, Head({Blocks()[0]})));
}

TEST_F(DatasetFile, ReadsWhatTheSerializerWrites) {
  LogCapture log;
  std::string base = testing::TempDir() + "penstock.XXXXXX";
  ASSERT_NE(::mkdtemp(base.data()), nullptr);
  const UuidT volume{{9}};
  const std::uint64_t n = 0x100002345U;
  DatasetSerializer writer(n, volume, base);
  DatasetFileSum sum;
  ASSERT_EQ(writer.WriteHeader(n, Start(2)), 76);
  sum.AddStart(BytesOf(Start(2)));
  std::vector<std::uint64_t> positions;
  for (const BlockPtr& block : Blocks()) {
    const auto [size, position] = writer.WriteData(n, block);
    ASSERT_EQ(static_cast<std::size_t>(size), RecordBytes(*block).size());
    positions.push_back(position);
    sum.AddBlock(*block);
  }
  ASSERT_EQ(writer.WriteData(n, sum.MakeTrailer()).first, 36);
  ASSERT_EQ(writer.CloseDatasetFile(n, false), 0);

  std::ostringstream name;
  name << DatasetBasePath(base, UUID::MakeUUID(volume), n) << "0000000100002345.ds";
  std::ifstream stream(name.str(), std::ios::binary);
  const ByteString bytes{std::istreambuf_iterator<char>(stream), {}};
  std::filesystem::remove_all(base);
  EXPECT_EQ(bytes, Sample());
  EXPECT_EQ(Read(bytes), "whole");
  ASSERT_EQ(m_blocks.size(), positions.size());
  for (std::size_t i = 0; i < positions.size(); ++i) EXPECT_EQ(m_blocks[i].first, positions[i]);
}

TEST_F(DatasetFile, GivesTheStartOnceAndWhole) {
  EXPECT_EQ(Read(Sample()), "whole");
  ASSERT_EQ(m_starts.size(), 1U);
  EXPECT_EQ(m_starts[0].n, 0x100002345U);
  EXPECT_EQ(m_starts[0].timestampMs, 1700000000000U);
  EXPECT_EQ(Hex(m_starts[0].group.bytes), "a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5");
  EXPECT_EQ(m_starts[0].datasetType, 2U);
  EXPECT_EQ(m_starts[0].flags, 7U);
  ASSERT_EQ(m_starts[0].volumes.size(), 2U);
  EXPECT_EQ(Hex(m_starts[0].volumes[0].bytes), "0102030405060708090a0b0c0d0e0f10");
  EXPECT_EQ(Hex(m_starts[0].volumes[1].bytes), "1112131415161718191a1b1c1d1e1f20");
}

TEST_F(DatasetFile, GivesTheBlocksInOrderWithTheirOffsets) {
  EXPECT_EQ(Read(Sample()), "whole");
  ASSERT_EQ(m_blocks.size(), 4U);
  std::uint64_t offset = 24 + 76 + 24;
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(m_blocks[i].first, offset) << i;
    EXPECT_EQ(BytesOf(m_blocks[i].second), BytesOf(Blocks()[i])) << i;
    offset += BytesOf(Blocks()[i]).size() + 24;
  }
}

TEST_F(DatasetFile, CountsWhatIsInTheFile) {
  EXPECT_EQ(Read(Sample()), "whole");
  std::uint64_t stored = 0;
  for (const BlockPtr& block : Blocks()) stored += block->length;
  EXPECT_EQ(m_totals.blocks, 4U);
  EXPECT_EQ(m_totals.extents, 8U);
  EXPECT_EQ(m_totals.rawBytes, 3 * 1000U + 65536 + 512);
  EXPECT_EQ(m_totals.storedBytes, stored);
}

TEST_F(DatasetFile, ReadsAFileWithoutBlocks) {
  EXPECT_EQ(Read(Whole(Head({}), 0)), "whole");
  EXPECT_EQ(Read(Whole(Head({}, 0), 0)), "whole");
  EXPECT_EQ(m_starts.at(0).volumes.size(), 0U);
  EXPECT_EQ(m_totals.blocks, 0U);
}

TEST_F(DatasetFile, ReadsTheLargestBlock) {
  const ByteString noise = Noise(kMaxBlockBytes);
  std::vector<Piece> pieces;
  for (std::size_t i = 0; i < kMaxExtents; ++i) {
    pieces.push_back({i << 20U, Bytes(noise).subspan(i * 256, 256)});
  }
  EXPECT_EQ(Read(Whole(Head({PackBlock(0, pieces, {})}), 1)), "whole");
}

// Sixteen bytes of body, as a trailer has them.
TEST_F(DatasetFile, ReadsABlockOfATrailersSize) {
  const ByteString data{1, 2, 3, 4};
  const Piece piece{0, data};
  const BlockPtr block = PackBlock(0, {&piece, 1}, {});
  ASSERT_EQ(block->length, 16U);
  EXPECT_EQ(Read(Whole(Head({block, block}), 2)), "whole");
  EXPECT_EQ(m_blocks.size(), 2U);
}

TEST_F(DatasetFile, ReadsTheMostVolumes) {
  const Extent zeros[] = {{0, 512}};
  EXPECT_EQ(Read(Whole(Head({PackZeros(255, zeros)}, 256), 1)), "whole");
}

TEST_F(DatasetFile, NeedsNeitherVisitorNorTotals) {
  MemoryFile whole(Sample());
  EXPECT_EQ(ReadDatasetFile(whole, {}).text, "");
  MemoryFile damaged(Head(Blocks()));
  EXPECT_EQ(ReadDatasetFile(damaged, {}).text, "the file ends before its trailer");
}

TEST_F(DatasetFile, ForgetsTheTotalsOfTheFileBefore) {
  Read(Sample());
  EXPECT_EQ(Read(ByteString{}), "0: the file is empty");
  EXPECT_EQ(m_totals.blocks, 0U);
  EXPECT_EQ(m_totals.storedBytes, 0U);
}

TEST_F(DatasetFile, StopsWhenTheVisitorSaysSo) {
  m_stopAfter = 2;
  const std::size_t second = 24 + 76 + 24 + BytesOf(Blocks()[0]).size() + 24;
  EXPECT_EQ(Read(Sample()), std::to_string(second) + ": stopped");
  EXPECT_EQ(m_blocks.size(), 2U);
  EXPECT_EQ(m_totals.blocks, 2U);
}

}  // namespace
}  // namespace penstock
