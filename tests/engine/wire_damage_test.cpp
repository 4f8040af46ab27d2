// SPDX-License-Identifier: Apache-2.0
// Goal: a frame that was cut, damaged, repeated, lost, moved or left over from another connection
// is never handed out. Method: every truncation and every single flipped bit of a sample of each
// type goes to a reader. The one exception is a bit of a block's body: the frame's hash covers the
// body's hash, and CheckBlock covers the body.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "codec/block.h"
#include "tests/engine/wire_samples.h"

namespace penstock {
namespace {

constexpr std::size_t kCoveredOfBlock = kFrameHeaderBytes + sizeof(OM_DP::CompressedData);

class WireDamage : public testing::Test {
 protected:
  // The bytes by which the frame travels as the first of its direction.
  static ByteList OnTheWire(const Frame& frame) { return Sender(SampleSeed()).Send(frame); }
  static std::string Receive(const ByteList& bytes) {
    Receiver receiver(SampleSeed());
    receiver.Feed(bytes);
    return receiver.Story();
  }
  static ByteList Flipped(ByteList bytes, std::size_t bit) {
    bytes[bit / 8] ^= static_cast<std::uint8_t>(1U << (bit % 8));
    return bytes;
  }

  Sender m_sender{SampleSeed()};
  Receiver m_receiver{SampleSeed()};
};

TEST_F(WireDamage, ATruncatedFrameIsWaitedFor) {
  for (const Frame& frame : SampleFrames()) {
    const ByteList bytes = OnTheWire(frame);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
      ASSERT_EQ(Receive(CutTo(bytes, size)), "") << Name(frame.type) << " cut to " << size;
    }
    ASSERT_EQ(Receive(bytes), Name(frame.type) + (" " + std::to_string(frame.size)));
  }
}

TEST_F(WireDamage, ATruncatedFrameBeforeAWholeOneIsNeverHandedOut) {
  for (const Frame& frame : SampleFrames()) {
    const bool isBlock = frame.type == FrameType::kBlock;
    const ByteList bytes = OnTheWire(frame);
    const std::size_t first = isBlock ? kCoveredOfBlock : bytes.size();
    for (std::size_t size = 1; size < first; ++size) {
      Receiver receiver(SampleSeed());
      receiver.Feed(CutTo(bytes, size));
      for (int i = 0; i < 4; ++i) receiver.Feed(m_sender.Send(Encode(SampleHello())));
      ASSERT_TRUE(receiver.Frames().empty()) << Name(frame.type) << " cut to " << size;
    }
  }
}

TEST_F(WireDamage, AFlippedBitIsRefused) {
  for (const Frame& frame : SampleFrames()) {
    const ByteList bytes = OnTheWire(frame);
    const std::size_t covered = frame.type == FrameType::kBlock ? kCoveredOfBlock : bytes.size();
    for (std::size_t bit = 0; bit < 8 * covered; ++bit) {
      const std::string story = Receive(Flipped(bytes, bit));
      ASSERT_TRUE(story.starts_with("; frame 1: "))
          << Name(frame.type) << ", bit " << bit << ": " << story;
    }
  }
}

TEST_F(WireDamage, AFlippedBitOfABlocksBodyIsForTheBlocksOwnHash) {
  const ByteList bytes = OnTheWire(Frame::OfBlock(SampleBlock()));
  for (std::size_t bit = 8 * kCoveredOfBlock; bit < 8 * bytes.size(); ++bit) {
    Receiver receiver(SampleSeed());
    receiver.Feed(Flipped(bytes, bit));
    ASSERT_EQ(receiver.Story(), "BLOCK 40");
    const Frame& frame = receiver.Frames()[0];
    std::vector<Extent> extents;
    ASSERT_EQ(CheckBlock(*frame.Block(), frame.size, 1U << 20U, extents), BlockFault::kHash);
  }
}

TEST_F(WireDamage, ARepeatedFrameIsRefused) {
  const ByteList bytes = m_sender.Send(Encode(FrameType::kAck, SampleReport()));
  m_receiver.Feed(bytes);
  m_receiver.Feed(bytes);
  EXPECT_EQ(m_receiver.Story(), "ACK 42; frame 2: it has the number 1");
}

TEST_F(WireDamage, AFrameBehindALostOneIsRefused) {
  m_sender.Send(EncodeBye());
  m_receiver.Feed(m_sender.Send(EncodeBye()));
  EXPECT_EQ(m_receiver.Story(), "; frame 1: it has the number 2");
}

TEST_F(WireDamage, AFrameOfAnotherConnectionIsRefused) {
  for (const std::uint64_t seed : {std::uint64_t{0}, FrameSeed(kSourceNonce, kSourceNonce, true),
                                   FrameSeed(kSourceNonce, kTargetNonce, false)}) {
    for (const Frame& frame : SampleFrames()) {
      EXPECT_EQ(Receive(Sender(seed).Send(frame)), std::string("; frame 1: ") + Name(frame.type) +
                                                       " is damaged, or not of this connection");
    }
  }
}

TEST_F(WireDamage, APayloadUnderAnothersHeaderIsRefused) {
  Report other = SampleReport();
  other.success = false;
  ByteList bytes = OnTheWire(Encode(FrameType::kAck, SampleReport()));
  const ByteList theirs = OnTheWire(Encode(FrameType::kAck, other));
  std::copy(theirs.begin() + kFrameHeaderBytes, theirs.end(), bytes.begin() + kFrameHeaderBytes);
  EXPECT_EQ(Receive(bytes), "; frame 1: ACK is damaged, or not of this connection");
}

TEST_F(WireDamage, FramesThatChangedPlacesAreRefused) {
  const ByteList first = m_sender.Send(Encode(FrameType::kPing, SamplePing()));
  const ByteList second = m_sender.Send(Encode(FrameType::kPong, SamplePing()));
  m_receiver.Feed(second);
  m_receiver.Feed(first);
  EXPECT_EQ(m_receiver.Story(), "; frame 1: it has the number 2");
}

}  // namespace
}  // namespace penstock
