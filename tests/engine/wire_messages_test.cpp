// SPDX-License-Identifier: Apache-2.0
// Goal: every message is exactly the bytes that docs/protocol.md shows, and comes back from them.
// Method: one example of each is written down here byte by byte; the hashes among them were
// computed by other programs. The page must show the same bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <string>

#include "engine/chain.h"
#include "tests/engine/wire_samples.h"

namespace penstock {
namespace {

const std::string kSourceNonceHex = "a0 a1 a2 a3 a4 a5 a6 a7 a8 a9 aa ab ac ad ae af";
const std::string kTargetNonceHex = "c0 c1 c2 c3 c4 c5 c6 c7 c8 c9 ca cb cc cd ce cf";
const std::string kRunKeyHex = "b0 b1 b2 b3 b4 b5 b6 b7 b8 b9 ba bb bc bd be bf";
const std::string kGroupHex = "8d 90 01 d3 2c 6a 70 3d 95 92 1a 77 11 50 50 f3";
const std::string kVolumeHex = "ad 9c 1a fe aa 0f ad ad 5e 46 67 fe 1c fd b6 a8";
const std::string kChainHex =
    "e5 00 f7 eb 3e ae 2f ce be b0 f3 d3 c5 8e a7 31 "
    "21 22 9e e4 2b 44 31 5f 26 35 32 e5 d6 41 43 67";

std::string PayloadOf(const Frame& frame) { return Hex(frame.Payload()); }

// Decodes the frame, and encodes what came of it.
template <class Message>
std::string ThereAndBack(const Frame& frame) {
  Message message;
  const std::string fault = Decode(frame.Payload(), message);
  return fault.empty() ? PayloadOf(Encode(message)) : fault;
}
template <class Message>
std::string ThereAndBackAs(const Frame& frame) {
  Message message;
  const std::string fault = Decode(frame.Payload(), message);
  return fault.empty() ? PayloadOf(Encode(frame.type, message)) : fault;
}

// --- Known bytes. ---

TEST(WireMessages, Hello) {
  const std::string bytes =
      "01 00 "                                      // version
      "00 "                                         // purpose: replicate
      "07 00 00 00 00 00 00 00 " +                  // epoch
      kSourceNonceHex +                             // nonce
      " 88 77 66 55 44 33 22 11 " +                 // fingerprintSeed
      kRunKeyHex +                                  // runKey
      " 04 00 73 68 6f 70 "                         // "shop"
      "02 00 "                                      // two volumes
      "02 00 64 62 00 00 00 40 00 00 00 00 "        // "db", 1 GiB
      "04 00 6c 6f 67 73 00 00 00 04 00 00 00 00";  // "logs", 64 MiB
  EXPECT_EQ(PayloadOf(Encode(SampleHello())), bytes);
  EXPECT_EQ(ThereAndBack<Hello>(Encode(SampleHello())), bytes);
}

TEST(WireMessages, Welcome) {
  const std::string bytes =
      "01 00 "                      // version
      "07 00 00 00 00 00 00 00 " +  // epoch
      kTargetNonceHex +             // nonce
      " 05 00 00 00 00 00 00 00 "   // durable
      "04 00 00 00 00 00 00 00 "    // applied
      "03 00 00 00 00 00 00 00 "    // flushed
      "d0 d1 d2 d3 d4 d5 d6 d7 d8 d9 da db dc dd de df "
      "e0 e1 e2 e3 e4 e5 e6 e7 e8 e9 ea eb ec ed ee ef "     // chain
      "00 00 00 02 00 00 00 00 "                             // window: 32 MiB
      "02 00 "                                               // two volumes
      "02 03 00 00 00 00 00 00 00 00 00 00 40 00 00 00 00 "  // good at 3, 1 GiB
      "00 00 00 00 00 00 00 00 00 00 00 00 04 00 00 00 00";  // new, 64 MiB
  EXPECT_EQ(PayloadOf(Encode(SampleWelcome())), bytes);
  EXPECT_EQ(ThereAndBack<Welcome>(Encode(SampleWelcome())), bytes);
}

TEST(WireMessages, DatasetStart) {
  const std::string bytes =
      "06 00 00 00 00 00 00 00 "    // n
      "00 68 e5 cf 8b 01 00 00 " +  // timestampMs
      kGroupHex +
      " 00 00 00 00 "   // normal
      "01 00 00 00 "    // flags: sync complete
      "01 00 01 00 " +  // one volume, format version 1
      kVolumeHex;
  EXPECT_EQ(PayloadOf(Encode(SampleStart())), bytes);
  EXPECT_EQ(ThereAndBack<DatasetStart>(Encode(SampleStart())), bytes);
}

TEST(WireMessages, Block) {
  EXPECT_EQ(PayloadOf(Frame::OfBlock(SampleBlock())),
            "4c 2c f1 2d f7 cc a9 cd "   // bodyHash
            "08 00 00 00 "               // rawLength
            "00 01 01 00 "               // volume 0, raw, one extent
            "14 00 00 00 "               // length of the body
            "00 10 00 00 00 00 00 00 "   // extent: offset
            "08 00 00 00 "               // extent: length
            "70 65 6e 73 74 6f 63 6b");  // "penstock"
}

TEST(WireMessages, DatasetEnd) {
  const std::string bytes =
      "06 00 00 00 00 00 00 00 "    // n
      "01 00 00 00 "                // blocks
      "01 00 00 00 00 00 00 00 "    // extents
      "08 00 00 00 00 00 00 00 " +  // rawBytes
      kChainHex +
      " 03 00 65 76 65";
  EXPECT_EQ(PayloadOf(Encode(SampleEnd())), bytes);
  EXPECT_EQ(ThereAndBack<DatasetEnd>(Encode(SampleEnd())), bytes);
}

TEST(WireMessages, APointsNameIsPrintableAndShort) {
  DatasetEnd end = SampleEnd();
  DatasetEnd out;
  end.name = std::string(kMaxPointNameBytes, '~');
  EXPECT_EQ(Decode(Encode(end).Payload(), out), "");
  EXPECT_EQ(out.name, end.name);
  for (const std::string& name :
       {std::string(kMaxPointNameBytes + 1, 'x'), std::string("a\nb"), std::string("\x7f"),
        std::string("\xc3\xa4"), std::string(1, '\0')}) {
    end.name = name;
    EXPECT_EQ(Decode(Encode(end).Payload(), out), "a point with a name that is none");
  }
  EXPECT_FALSE(IsPointName(""));
}

TEST(WireMessages, TheChainIsThatOfTheExamples) {
  DatasetDigest digest;
  digest.AddStart(Encode(SampleStart()).Payload());
  digest.AddBlock(*SampleBlock());
  EXPECT_EQ(Hex(digest.Chain(SampleWelcome().chain)), kChainHex);
}

TEST(WireMessages, Reports) {
  const std::string bytes =
      "06 00 00 00 00 00 00 00 "  // n
      "01 00 " +                  // success, not empty
      kChainHex;
  for (const FrameType type : {FrameType::kAck, FrameType::kDone, FrameType::kFlushed}) {
    EXPECT_EQ(PayloadOf(Encode(type, SampleReport())), bytes);
    EXPECT_EQ(ThereAndBackAs<Report>(Encode(type, SampleReport())), bytes);
  }
}

TEST(WireMessages, TheTwoFlagsOfAReportAreDifferentBytes) {
  Report m = SampleReport();
  m.success = false;
  m.empty = true;
  const std::string bytes = PayloadOf(Encode(FrameType::kAck, m));
  EXPECT_EQ(bytes.substr(24, 5), "00 01");
  EXPECT_EQ(ThereAndBackAs<Report>(Encode(FrameType::kAck, m)), bytes);
}

TEST(WireMessages, Query) {
  const std::string bytes =
      "07 00 00 00 00 00 00 00 "  // n
      "01 "                       // volume
      "00 00 10 00 00 00 00 00 "  // offset: 1 MiB
      "10 27 00 00 "              // length: 10000
      "00 01 00 00 "              // firstBlock: 256
      "08 07 06 05 04 03 02 01 "  // three fingerprints
      "18 17 16 15 14 13 12 11 "
      "28 27 26 25 24 23 22 21";
  EXPECT_EQ(PayloadOf(Encode(SampleQuery())), bytes);
  EXPECT_EQ(ThereAndBack<Query>(Encode(SampleQuery())), bytes);
}

TEST(WireMessages, Answer) {
  const std::string bytes =
      "07 00 00 00 00 00 00 00 "  // n
      "01 "                       // volume
      "00 00 10 00 00 00 00 00 "  // offset
      "10 27 00 00 "              // length
      "02 00 "                    // two runs
      "00 00 01 00 01 "           // block 0, one block, equal
      "e0 e1 e2 e3 e4 e5 e6 e7 e8 e9 ea eb ec ed ee ef f0 f1 f2 f3 "
      "01 00 02 00 00";  // block 1, two blocks, different
  EXPECT_EQ(PayloadOf(Encode(SampleAnswer())), bytes);
  EXPECT_EQ(ThereAndBack<Answer>(Encode(SampleAnswer())), bytes);
}

TEST(WireMessages, PingAndPong) {
  const std::string bytes = "88 77 66 55 44 33 22 11";
  for (const FrameType type : {FrameType::kPing, FrameType::kPong}) {
    EXPECT_EQ(PayloadOf(Encode(type, SamplePing())), bytes);
    EXPECT_EQ(ThereAndBackAs<Ping>(Encode(type, SamplePing())), bytes);
  }
}

TEST(WireMessages, Progress) {
  const std::string bytes =
      "09 00 00 00 00 00 00 00 "  // closed
      "08 00 00 00 00 00 00 00 "  // sent
      "00 00 10 00 00 00 00 00 "  // waiting
      "02 00 "                    // two volumes
      "00 10 00 00 00 00 00 00 "
      "08 07 06 05 04 03 02 01";
  EXPECT_EQ(PayloadOf(Encode(SampleProgress())), bytes);
  EXPECT_EQ(ThereAndBack<Progress>(Encode(SampleProgress())), bytes);
}

TEST(WireMessages, Error) {
  const std::string bytes =
      "04 00 "                    // fenced
      "00 00 00 00 00 00 00 00 "  // no dataset
      "1c 00 "                    // 28 bytes of text
      "61 20 6e 65 77 65 72 20 73 6f 75 72 63 65 20 68 61 73 20 74 68 65 20 67 72 6f 75 70";
  EXPECT_EQ(PayloadOf(Encode(SampleError())), bytes);
  EXPECT_EQ(ThereAndBack<penstock::Error>(Encode(SampleError())), bytes);
}

TEST(WireMessages, ByeAndStatusQueryHaveNoPayload) {
  EXPECT_EQ(EncodeBye().type, FrameType::kBye);
  EXPECT_EQ(EncodeBye().size, 0U);
  EXPECT_EQ(EncodeStatusQuery().type, FrameType::kStatusQuery);
  EXPECT_EQ(EncodeStatusQuery().size, 0U);
}

TEST(WireMessages, AStatusReplyIsItsText) {
  EXPECT_EQ(EncodeStatusReply("{}").type, FrameType::kStatusReply);
  EXPECT_EQ(PayloadOf(EncodeStatusReply("{}")), "7b 7d");
}

// --- Headers. ---

TEST(WireMessages, TheHeaderOfTheFirstFrameOfADirection) {
  FrameWriter writer;
  EXPECT_EQ(Hex(writer.Header(EncodeBye())),
            "00 00 00 00 fb 00 00 00 "  // no payload, type 251
            "08 57 d6 96 "              // a: hash, bits 0 to 31
            "01 00 00 00 "              // b: number
            "4e 33 02 00 "              // c, d, e: hash, bits 32 to 55; zero
            "91 65 85 a9");             // CRC-32C
}

TEST(WireMessages, TheHeaderOfALaterFrame) {
  EXPECT_EQ(SampleSeed(), 0xee73f3930d8e31a2U);
  EXPECT_EQ(FrameSeed(kSourceNonce, kTargetNonce, false), 0x7865f040ff32c5a4U);
  FrameWriter writer;
  writer.Header(Encode(SampleHello()));
  writer.SetSeed(SampleSeed());
  EXPECT_EQ(Hex(writer.Header(Encode(FrameType::kPing, SamplePing()))),
            "08 00 00 00 f0 00 00 00 d7 89 ca 8b 02 00 00 00 b9 3f ea 00 46 23 9d 72");
  EXPECT_EQ(Hex(writer.Header(Frame::OfBlock(SampleBlock()))),
            "28 00 00 00 64 00 00 00 73 1a df 42 03 00 00 00 03 91 e2 00 10 c0 f0 f3");
}

// --- The limits, from the encoder's side. ---

class WireLimits : public testing::Test {
 protected:
  static std::uint32_t Min(FrameType type) {
    return FindFrameLimits(static_cast<std::uint32_t>(type))->minPayload;
  }
  static std::uint32_t Max(FrameType type) {
    return FindFrameLimits(static_cast<std::uint32_t>(type))->maxPayload;
  }
};

TEST_F(WireLimits, TheSmallestOfEachMessageHasTheTablesLength) {
  Hello hello;
  hello.purpose = Purpose::kStatus;
  EXPECT_EQ(Encode(hello).size, Min(FrameType::kHello));
  EXPECT_EQ(Encode(Welcome{}).size, Min(FrameType::kWelcome));
  EXPECT_EQ(Encode(DatasetStart{}).size, Min(FrameType::kDatasetStart));
  EXPECT_EQ(Encode(DatasetEnd{}).size, Min(FrameType::kDatasetEnd));
  EXPECT_EQ(Encode(FrameType::kAck, Report{}).size, Min(FrameType::kAck));
  Query query;
  query.fingerprints.resize(1);
  EXPECT_EQ(Encode(query).size, Min(FrameType::kQuery));
  Answer answer;
  answer.runs.resize(1);
  EXPECT_EQ(Encode(answer).size, Min(FrameType::kAnswer));
  EXPECT_EQ(Encode(penstock::Error{}).size, Min(FrameType::kError));
}

TEST_F(WireLimits, TheLargestHelloComesThrough) {
  Hello m = SampleHello();
  m.group = std::string(kMaxNameBytes, 'g');
  m.volumes.clear();
  for (std::size_t i = 0; i < kMaxVolumes; ++i) {
    const std::string number = std::to_string(i);
    m.volumes.push_back({number + std::string(kMaxNameBytes - number.size(), '-'), i});
  }
  EXPECT_EQ(Encode(m).size, Max(FrameType::kHello));
  EXPECT_EQ(ThereAndBack<Hello>(Encode(m)), PayloadOf(Encode(m)));
}

TEST_F(WireLimits, TheLargestWelcomeComesThrough) {
  Welcome m = SampleWelcome();
  m.volumes.assign(kMaxVolumes, {VolumeState::kNeedsResync, ~0U, ~std::uint64_t{0}});
  EXPECT_EQ(Encode(m).size, Max(FrameType::kWelcome));
  EXPECT_EQ(ThereAndBack<Welcome>(Encode(m)), PayloadOf(Encode(m)));
}

TEST_F(WireLimits, TheLargestStartComesThrough) {
  DatasetStart m = SampleStart();
  m.datasetType = 2;
  m.flags = kStartSyncComplete | kStartConsistent | kStartPassBegins;
  m.volumes.clear();
  for (std::size_t i = 0; i < kMaxVolumes; ++i) {
    m.volumes.push_back(VolumeId("shop", std::to_string(i)));
  }
  EXPECT_EQ(Encode(m).size, Max(FrameType::kDatasetStart));
  EXPECT_EQ(ThereAndBack<DatasetStart>(Encode(m)), PayloadOf(Encode(m)));
}

TEST_F(WireLimits, TheLargestQueryComesThrough) {
  Query m = SampleQuery();
  m.length = kWindowBytes;
  m.offset = ~std::uint64_t{0} - kWindowBytes;
  m.firstBlock = ~std::uint32_t{0} - kWindowBlocks;
  m.fingerprints.assign(kWindowBlocks, ~std::uint64_t{0});
  EXPECT_EQ(Encode(m).size, Max(FrameType::kQuery));
  EXPECT_EQ(ThereAndBack<Query>(Encode(m)), PayloadOf(Encode(m)));
}

TEST_F(WireLimits, TheLargestAnswerComesThrough) {
  Answer m = SampleAnswer();
  m.length = kWindowBytes;
  m.offset = ~std::uint64_t{0} - kWindowBytes;
  m.runs.clear();
  for (std::uint16_t i = 0; i < kWindowBlocks; ++i) m.runs.push_back({i, 1, true, {}});
  EXPECT_EQ(Encode(m).size, Max(FrameType::kAnswer));
  EXPECT_EQ(ThereAndBack<Answer>(Encode(m)), PayloadOf(Encode(m)));
}

TEST_F(WireLimits, AnErrorsTextThatIsTooLongLosesItsEnd) {
  penstock::Error m = SampleError();
  m.text = std::string(kMaxTextBytes, 'x') + "lost";
  const Frame frame = Encode(m);
  EXPECT_EQ(frame.size, Max(FrameType::kError));
  penstock::Error decoded;
  EXPECT_EQ(Decode(frame.Payload(), decoded), "");
  EXPECT_EQ(decoded.text, std::string(kMaxTextBytes, 'x'));
}

// --- The page. ---

class ProtocolPage : public testing::Test {
 protected:
  ProtocolPage() {
    const std::string here = __FILE__;
    std::ifstream in(here.substr(0, here.rfind("tests/")) + "docs/protocol.md");
    m_page.assign(std::istreambuf_iterator<char>(in), {});
  }
  // "0000  01 02 ...", 16 bytes a line, between the fences of a block.
  static std::string Dump(const ByteList& bytes) {
    std::string text = "```\n";
    for (std::size_t at = 0; at < bytes.size(); at += 16) {
      const std::array<std::uint8_t, 2> offset = {static_cast<std::uint8_t>(at >> 8U),
                                                  static_cast<std::uint8_t>(at)};
      text += Hex(Bytes(offset).first(1)) + Hex(Bytes(offset).last(1)) + "  ";
      const std::size_t count = std::min<std::size_t>(16, bytes.size() - at);
      text += Hex(Bytes(bytes).subspan(at, count)) + "\n";
    }
    return text + "```\n";
  }
  std::string m_page;
};

TEST_F(ProtocolPage, ShowsTheExampleOfEachPayload) {
  for (const Frame& frame : SampleFrames()) {
    if (frame.size == 0 || frame.type == FrameType::kStatusReply) continue;
    const std::string dump = Dump(ListOf(frame.Payload()));
    EXPECT_NE(m_page.find(dump), std::string::npos) << Name(frame.type) << "\n" << dump;
  }
}

TEST_F(ProtocolPage, ShowsAConversationsFrames) {
  Sender sender(0);
  std::string dump = Dump(sender.Send(Encode(SampleHello())));
  EXPECT_NE(m_page.find(dump), std::string::npos) << dump;
  sender = Sender(SampleSeed());
  sender.Send(Encode(SampleHello()));
  dump = Dump(sender.Send(Encode(FrameType::kPing, SamplePing())));
  EXPECT_NE(m_page.find(dump), std::string::npos) << dump;
  dump = Dump(sender.Send(Frame::OfBlock(SampleBlock())));
  EXPECT_NE(m_page.find(dump), std::string::npos) << dump;
}

TEST_F(ProtocolPage, ListsEveryTypeWithItsLimits) {
  for (const FrameLimits& row : FrameTable()) {
    const std::string line = "| " + std::to_string(static_cast<std::uint32_t>(row.type)) + " | " +
                             row.name + " | " + std::to_string(row.minPayload) + " | " +
                             std::to_string(row.maxPayload) + " | " +
                             (row.beforeWelcome ? "yes" : "no") + " |";
    EXPECT_NE(m_page.find(line), std::string::npos) << line;
  }
}

TEST_F(ProtocolPage, ListsEveryErrorByItsWord) {
  for (std::uint16_t code = 1; code <= 11; ++code) {
    const std::string cell =
        "| " + std::to_string(code) + " | " + Text(static_cast<ErrorCode>(code)) + " |";
    EXPECT_NE(m_page.find(cell), std::string::npos) << cell;
  }
}

}  // namespace
}  // namespace penstock
