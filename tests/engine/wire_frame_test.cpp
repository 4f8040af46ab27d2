// SPDX-License-Identifier: Apache-2.0
// Goal: frames arrive as they were sent, and nothing is believed before it was checked: type,
// number and length before memory is taken, the hash before the frame is handed out. Method: a
// writer's bytes go to a reader, whole or in pieces; headers with a lie in them are made by the
// header's own function, so that their checksum is right.
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/crc32c.h"
#include "penstock/host/commands.h"
#include "tests/engine/wire_samples.h"

namespace penstock {
namespace {

class WireFrame : public testing::Test {
 protected:
  // A header that says what it likes, with a right checksum.
  static ByteList Header(std::uint32_t type, std::uint32_t size, std::uint32_t number = 1) {
    const auto header = CreateDppHeader(size, static_cast<DPPCmdType>(type), {0, number, 0, 0, 0});
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(header.get());
    return {bytes, bytes + kFrameHeaderBytes};
  }
  // What a reader says of it; empty: it waits for the payload.
  std::string Fault(const ByteList& header) {
    Receiver receiver(0);
    receiver.Feed(header);
    m_space = receiver.Reader().Space().size();
    m_holdsMemory = receiver.Reader().m_frame.payload != nullptr;
    return receiver.Reader().Fault();
  }

  std::size_t m_space = 0;
  bool m_holdsMemory = false;
};

// --- The table. ---

TEST_F(WireFrame, EveryTypeHasOneRowInAscendingOrder) {
  std::uint32_t last = 0;
  for (const FrameLimits& row : FrameTable()) {
    const auto type = static_cast<std::uint32_t>(row.type);
    EXPECT_GT(type, last);
    EXPECT_LE(row.minPayload, row.maxPayload);
    EXPECT_EQ(FindFrameLimits(type), &row);
    EXPECT_STREQ(Name(row.type), row.name);
    last = type;
  }
  EXPECT_EQ(FrameTable().size(), SampleFrames().size());
}

TEST_F(WireFrame, OnlyGreetingsAndFarewellsComeBeforeTheWelcome) {
  std::set<std::string> names;
  for (const FrameLimits& row : FrameTable()) {
    if (row.beforeWelcome) names.insert(row.name);
  }
  EXPECT_EQ(names, (std::set<std::string>{"HELLO", "WELCOME", "ERROR", "BYE"}));
}

TEST_F(WireFrame, AnUnknownTypeHasNoRowAndNoName) {
  for (const std::uint32_t type : {0U, 57U, 101U, 199U, 262U, 0xffffffffU}) {
    EXPECT_EQ(FindFrameLimits(type), nullptr);
    EXPECT_STREQ(Name(static_cast<FrameType>(type)), "?");
  }
}

TEST_F(WireFrame, ABlockOfTheLongestBodyIsWithinItsLimit) {
  EXPECT_EQ(FindFrameLimits(100)->maxPayload, 20 + 4096 * 12 + (1 << 20));
}

// --- Seeds. ---

TEST_F(WireFrame, SeedsDifferByNonceAndDirectionAndAreNeverZero) {
  std::set<std::uint64_t> seeds;
  for (const auto& source : {kSourceNonce, Nonce{}}) {
    for (const auto& target : {kTargetNonce, Nonce{}}) {
      seeds.insert(FrameSeed(source, target, true));
      seeds.insert(FrameSeed(source, target, false));
    }
  }
  EXPECT_EQ(seeds.size(), 8U);
  EXPECT_FALSE(seeds.contains(0));
}

// --- What arrives. ---

TEST_F(WireFrame, EveryTypeArrivesAsItWasSent) {
  Sender sender(SampleSeed());
  Receiver receiver(SampleSeed());
  const std::vector<Frame> sent = SampleFrames();
  for (const Frame& frame : sent) receiver.Feed(sender.Send(frame));
  ASSERT_EQ(receiver.Frames().size(), sent.size()) << receiver.Story();
  for (std::size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(receiver.Frames()[i].type, sent[i].type);
    EXPECT_EQ(Hex(receiver.Frames()[i].Payload()), Hex(sent[i].Payload()));
  }
}

TEST_F(WireFrame, FramesArriveInPiecesOfEverySize) {
  ByteList stream;
  Sender sender(SampleSeed());
  std::string story;
  for (const Frame& frame : SampleFrames()) {
    const ByteList bytes = sender.Send(frame);
    stream.insert(stream.end(), bytes.begin(), bytes.end());
    story += (story.empty() ? "" : ", ") + (Name(frame.type) + (" " + std::to_string(frame.size)));
  }
  for (std::size_t piece = 1; piece <= stream.size(); ++piece) {
    Receiver receiver(SampleSeed());
    receiver.Feed(stream, piece);
    ASSERT_EQ(receiver.Story(), story) << "in pieces of " << piece;
  }
}

TEST_F(WireFrame, ABlockIsReceivedWhereItStays) {
  const BlockPtr block = SampleBlock();
  Sender sender(0);
  Receiver receiver(0);
  const ByteList bytes = sender.Send(Frame::OfBlock(block));
  receiver.Feed(Bytes(bytes).first(kFrameHeaderBytes));
  const std::uint8_t* const place = receiver.Reader().Space().data();
  receiver.Feed(Bytes(bytes).subspan(kFrameHeaderBytes));
  ASSERT_EQ(receiver.Story(), "BLOCK 40");
  const BlockPtr received = receiver.Frames()[0].Block();
  EXPECT_EQ(static_cast<const void*>(received.get()), place);
  EXPECT_EQ(Hex(RecordBytes(*received)), Hex(RecordBytes(*block)));
}

TEST_F(WireFrame, AFrameOfABlockSharesItsMemory) {
  const BlockPtr block = SampleBlock();
  const Frame frame = Frame::OfBlock(block);
  EXPECT_EQ(frame.size, 40U);
  EXPECT_EQ(frame.Block(), block);
  EXPECT_EQ(static_cast<const void*>(frame.payload.get()), block.get());
  EXPECT_EQ(block.use_count(), 2);
}

TEST_F(WireFrame, AFrameWithoutPayloadIsCompleteWithItsHeader) {
  Sender sender(0);
  Receiver receiver(0);
  receiver.Feed(sender.Send(EncodeBye()));
  receiver.Feed(sender.Send(EncodeBye()));
  EXPECT_EQ(receiver.Story(), "BYE 0, BYE 0");
}

TEST_F(WireFrame, TheSpaceNeverReachesBeyondTheCurrentFrame) {
  Sender sender(0);
  FrameReader reader;
  reader.AllowAll();
  const ByteList bytes = sender.Send(Encode(FrameType::kPing, SamplePing()));
  EXPECT_EQ(reader.Space().size(), 24U);
  std::copy_n(bytes.begin(), 10, reader.Space().begin());
  reader.Commit(10);
  EXPECT_EQ(reader.Space().size(), 14U);
  std::copy_n(bytes.begin() + 10, 14, reader.Space().begin());
  reader.Commit(14);
  EXPECT_EQ(reader.Space().size(), 8U);
  EXPECT_FALSE(reader.Next().has_value());
  std::copy_n(bytes.begin() + 24, 8, reader.Space().begin());
  reader.Commit(8);
  EXPECT_TRUE(reader.Next().has_value());
  EXPECT_FALSE(reader.Next().has_value());
  EXPECT_EQ(reader.Space().size(), 24U);
}

TEST_F(WireFrame, NothingReadIsNothingCommitted) {
  Receiver receiver(0);
  receiver.Reader().Commit(0);
  EXPECT_EQ(receiver.Reader().Space().size(), 24U);
  EXPECT_FALSE(receiver.Reader().Next().has_value());
  EXPECT_FALSE(receiver.Reader().Failed());
}

TEST_F(WireFrame, TheSeedChangesBetweenFrames) {
  FrameWriter writer;
  Receiver receiver(0);
  const Frame hello = Encode(SampleHello());
  receiver.Feed(writer.Header(hello));
  receiver.Feed(hello.Payload());
  writer.SetSeed(SampleSeed());
  receiver.Reader().SetSeed(SampleSeed());
  receiver.Feed(writer.Header(EncodeBye()));
  EXPECT_EQ(receiver.Story(), "HELLO 85, BYE 0");
}

TEST_F(WireFrame, NumbersGoOnAtZeroBehindTheGreatest) {
  FrameWriter writer;
  writer.m_number = 0xfffffffe;
  Receiver receiver(0);
  receiver.Reader().m_number = 0xfffffffe;
  for (int i = 0; i < 3; ++i) receiver.Feed(writer.Header(EncodeBye()));
  EXPECT_EQ(receiver.Story(), "BYE 0, BYE 0, BYE 0");
  EXPECT_EQ(writer.m_number, 1U);
}

// --- What a header may not say. ---

TEST_F(WireFrame, ALengthBeyondTheLimitIsRefusedBeforeMemoryIsTaken) {
  for (const FrameLimits& row : FrameTable()) {
    for (const std::uint32_t size : {row.maxPayload + 1, 0x7fffffffU, 0xffffffffU}) {
      EXPECT_EQ(Fault(Header(static_cast<std::uint32_t>(row.type), size)),
                std::string("frame 1: ") + row.name + " of " + std::to_string(size) + " bytes");
      EXPECT_EQ(m_space, 0U);
      EXPECT_FALSE(m_holdsMemory);
    }
  }
}

TEST_F(WireFrame, ALengthBelowTheLimitIsRefused) {
  for (const FrameLimits& row : FrameTable()) {
    if (row.minPayload == 0) continue;
    const std::uint32_t size = row.minPayload - 1;
    EXPECT_EQ(Fault(Header(static_cast<std::uint32_t>(row.type), size)),
              std::string("frame 1: ") + row.name + " of " + std::to_string(size) + " bytes");
  }
}

TEST_F(WireFrame, ALengthWithinTheLimitsIsTaken) {
  for (const FrameLimits& row : FrameTable()) {
    if (row.maxPayload == 0) continue;
    EXPECT_EQ(Fault(Header(static_cast<std::uint32_t>(row.type), row.minPayload)), "");
    EXPECT_EQ(m_space, row.minPayload);
    EXPECT_EQ(Fault(Header(static_cast<std::uint32_t>(row.type), row.maxPayload)), "");
    EXPECT_EQ(m_space, row.maxPayload);
  }
}

TEST_F(WireFrame, AnUnknownTypeIsRefused) {
  EXPECT_EQ(Fault(Header(57, 8)), "frame 1: unknown type 57");
  EXPECT_EQ(m_space, 0U);
}

TEST_F(WireFrame, ANumberThatIsNotTheNextIsRefused) {
  EXPECT_EQ(Fault(Header(251, 0, 0)), "frame 1: it has the number 0");
  EXPECT_EQ(Fault(Header(251, 0, 2)), "frame 1: it has the number 2");
}

TEST_F(WireFrame, TheByteBehindTheFlagsIsZeroEvenUnderARightChecksum) {
  Sender sender(0);
  ByteList bytes = sender.Send(EncodeBye());
  bytes[19] = 1;
  const std::uint32_t crc = Crc32c(bytes.data(), 20);
  std::memcpy(bytes.data() + 20, &crc, sizeof(crc));
  EXPECT_EQ(Fault(bytes), "frame 1: the header is damaged");
}

TEST_F(WireFrame, BeforeTheWelcomeOtherTypesAreRefused) {
  for (const FrameLimits& row : FrameTable()) {
    FrameReader reader;
    const ByteList header = Header(static_cast<std::uint32_t>(row.type), row.maxPayload);
    std::copy_n(header.begin(), header.size(), reader.Space().begin());
    reader.Commit(header.size());
    const std::string refusal = std::string("frame 1: ") + row.name + " before the greeting";
    EXPECT_EQ(reader.Fault() == refusal, !row.beforeWelcome) << row.name << reader.Fault();
    EXPECT_EQ(reader.m_frame.payload != nullptr, row.beforeWelcome && row.maxPayload > 0);
  }
}

TEST_F(WireFrame, ABlockWhoseLengthIsNotItsPayloadsIsRefused) {
  for (const std::uint32_t length : {0U, 19U, 21U, 0xffffffffU}) {
    const Frame block = Frame::OfBlock(SampleBlock());
    ByteList payload = ListOf(block.Payload());
    std::memcpy(payload.data() + 16, &length, sizeof(length));
    Sender sender(0);
    Receiver receiver(0);
    receiver.Feed(sender.Send(Frame::Of(FrameType::kBlock, payload)));
    EXPECT_EQ(receiver.Story(), "; frame 1: BLOCK with a length that is not its payload's");
  }
}

TEST_F(WireFrame, AFailureIsFinal) {
  Sender sender(0);
  Receiver receiver(0);
  receiver.Feed(Header(57, 8));
  const std::string fault = receiver.Reader().Fault();
  EXPECT_TRUE(receiver.Reader().Space().empty());
  receiver.Reader().Commit(0);
  receiver.Feed(sender.Send(EncodeBye()));
  EXPECT_FALSE(receiver.Reader().Next().has_value());
  EXPECT_EQ(receiver.Reader().Fault(), fault);
}

}  // namespace
}  // namespace penstock
