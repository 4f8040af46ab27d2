// SPDX-License-Identifier: Apache-2.0
// Goal: what the source's commands compute is what the engine builds on: nothing copied that needs
// not be, nothing sent that is zero, every run under the right fingerprint.
// Method: windows of noise with zeros in known places.
#include "engine/work.h"
#include "tests/engine/engine_rig.h"

namespace penstock {
namespace {

// Extents and codec: "raw 4096+8192 20480+4096".
std::string ShowPacked(const BlockPtr& block) {
  if (!block) return "none";
  return ShowBlock(Frame::OfBlock(block)).substr(std::string("BLOCK 0 ").size());
}

ByteList Unpacked(const BlockPtr& block) {
  ByteList space;
  Bytes raw;
  EXPECT_EQ(UnpackBlock(*block, space, raw), BlockFault::kNone);
  return {raw.begin(), raw.end()};
}

class WorkCopy : public testing::Test {
 protected:
  WindowFetched Copy(const ByteList& data) {
    m_command.length = static_cast<std::uint32_t>(data.size());
    m_raw = BeginRawBlock(0, {m_command.offset, m_command.length});
    std::ranges::copy(data, RawData(*m_raw).begin());
    return CopyWindow(m_command, m_raw);
  }

  FetchWindow m_command{.ticket = 5,
                        .volume = 0,
                        .offset = kMiB,
                        .length = 0,
                        .compare = false,
                        .seed = 0,
                        .compress = {}};
  BlockPtr m_raw;
};

TEST_F(WorkCopy, AWindowWithoutZerosIsTheBlockThatItWasReadInto) {
  const ByteList data = Noise(16384);
  const WindowFetched result = Copy(data);
  EXPECT_EQ(result.ticket, 5U);
  EXPECT_EQ(result.block, m_raw) << "not copied";
  EXPECT_EQ(ShowPacked(result.block), "raw 1048576+16384") << "and sealed";
  EXPECT_EQ(Unpacked(result.block), data);
}

TEST_F(WorkCopy, AShortWindowIsTooItsOwnBlock) { EXPECT_EQ(Copy(Noise(5000)).block, m_raw); }

TEST_F(WorkCopy, ACompressedOneIsAnotherBlock) {
  m_command.compress = {Codec::kLz4, 1, false};
  const WindowFetched result = Copy(ByteList(8192, 'x'));
  EXPECT_NE(result.block, m_raw);
  EXPECT_EQ(ShowPacked(result.block), "lz4 1048576+8192");
}

TEST_F(WorkCopy, AZeroWindowHasNoBlock) {
  const WindowFetched result = Copy(ByteList(16384));
  EXPECT_EQ(result.block, nullptr);
  EXPECT_TRUE(result.nonZero.empty());
  EXPECT_EQ(result.status, IoStatus::kOk);
}

TEST_F(WorkCopy, AWindowThatIsKnownToBeZeroIsTheSameAsOneThatWasRead) {
  const WindowFetched result = ZeroWindow(m_command);
  EXPECT_EQ(result.ticket, 5U);
  EXPECT_EQ(result.block, nullptr);
  EXPECT_TRUE(result.nonZero.empty());
}

TEST_F(WorkCopy, ZerosWithinAWindowAreLeftOut) {
  ByteList data = Noise(20480);
  std::fill_n(data.begin() + 4096, 8192, std::uint8_t{0});
  const WindowFetched result = Copy(data);
  EXPECT_EQ(ShowPacked(result.block), "raw 1048576+4096 1060864+8192");
  ASSERT_EQ(result.nonZero.size(), 2U);
  EXPECT_EQ(result.nonZero[1].firstBlock, 3U);
  EXPECT_EQ(result.nonZero[1].blocks, 2U);
  data.erase(data.begin() + 4096, data.begin() + 12288);
  EXPECT_EQ(Unpacked(result.block), data);
}

TEST_F(WorkCopy, SparseBytesKeepTheirWholeBlock) {
  ByteList data(20480);
  data[4095] = 1;
  data[20000] = 1;
  EXPECT_EQ(ShowPacked(Copy(data).block), "raw 1048576+4096 1064960+4096");
}

TEST(WorkFingerprint, AWindowToCompareIsKeptAndFingerprintedUnderTheSeed) {
  FetchWindow command;
  command.ticket = 9;
  command.length = 8192;
  command.seed = 77;
  const auto data = std::make_shared<std::uint8_t[]>(8192, std::uint8_t{3});
  const WindowFetched result = FingerprintWindow(command, data);
  EXPECT_EQ(result.ticket, 9U);
  EXPECT_EQ(result.data, data);
  EXPECT_EQ(result.fingerprints, Fingerprints(ByteList(8192, 3), 77));
}

// --- Runs. ---

class WorkRuns : public testing::Test {
 protected:
  WorkRuns() {
    const ByteList data = Noise(16384);
    auto bytes = std::make_shared<std::uint8_t[]>(data.size());
    std::ranges::copy(data, bytes.get());
    m_command.ticket = 3;
    m_command.offset = 65536;
    m_command.length = 16384;
    m_command.data = bytes;
    m_command.n = 12;
    m_command.firstBlock = 100;
    m_command.key.fill(4);
  }
  PackRuns m_command;
};

TEST_F(WorkRuns, DifferentRunsArePackedAndEqualOnesFingerprinted) {
  m_command.runs = {{0, 1, true, {}}, {1, 2, false, {}}, {3, 1, true, {}}};
  const RunsPacked result = DoPackRuns(m_command);
  EXPECT_EQ(result.ticket, 3U);
  EXPECT_EQ(ShowPacked(result.block), "raw 69632+8192");
  RunHasher hasher(m_command.key);
  const Bytes window{m_command.data.get(), 16384};
  EXPECT_EQ(result.runs[0].strong.bytes, hasher.Of(12, 100, window.first(4096)).bytes);
  EXPECT_EQ(result.runs[1].strong.bytes, BufFingerprint{}.bytes);
  EXPECT_EQ(result.runs[2].strong.bytes, hasher.Of(12, 103, window.subspan(12288)).bytes);
}

TEST_F(WorkRuns, WithoutADifferenceThereIsNoBlock) {
  m_command.runs = {{0, 4, true, {}}};
  EXPECT_EQ(DoPackRuns(m_command).block, nullptr);
}

TEST_F(WorkRuns, BothSidesGetTheSameStrongFingerprints) {
  const Bytes window{m_command.data.get(), 16384};
  CompareVolume asked;
  asked.ticket = 8;
  asked.key = m_command.key;
  asked.seed = 5;
  asked.query.n = 12;
  asked.query.firstBlock = 100;
  asked.query.fingerprints = Fingerprints(window, 5);
  asked.query.fingerprints[2] ^= 1U;
  const WindowCompared compared = DoCompare(asked, window);
  EXPECT_EQ(compared.ticket, 8U);
  m_command.runs = compared.runs;
  const RunsPacked packed = DoPackRuns(m_command);
  EXPECT_EQ(packed.runs, compared.runs);
  EXPECT_EQ(ShowPacked(packed.block), "raw 73728+4096");
}

// --- Buffers. ---

InternalData Buffer(std::uint64_t offset, const ByteList& data) {
  InternalData buffer{};
  buffer.offset = offset;
  buffer.length = static_cast<std::uint32_t>(data.size());
  auto bytes = std::make_shared<std::uint8_t[]>(data.size());
  std::ranges::copy(data, bytes.get());
  buffer.data = bytes;
  return buffer;
}

TEST(WorkBuffers, DataIsPackedInOrder) {
  PackBuffers command;
  command.ticket = 2;
  command.volume = 0;
  command.buffers = {Buffer(8192, Noise(100)), Buffer(0, Noise(50, 2))};
  const BuffersPacked result = DoPackBuffers(command);
  EXPECT_EQ(result.ticket, 2U);
  EXPECT_EQ(ShowPacked(result.block), "raw 8192+100 0+50");
}

TEST(WorkBuffers, BuffersWithoutBytesAreZeros) {
  PackBuffers command;
  command.volume = 3;
  InternalData zeros{};
  zeros.offset = 4096;
  zeros.length = 8192;
  command.buffers = {zeros};
  const BuffersPacked result = DoPackBuffers(command);
  EXPECT_EQ(ShowBlock(Frame::OfBlock(result.block)), "BLOCK 3 zero 4096+8192");
}

}  // namespace
}  // namespace penstock
