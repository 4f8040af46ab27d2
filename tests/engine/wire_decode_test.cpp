// SPDX-License-Identifier: Apache-2.0
// Goal: a payload that is not exactly a message within the limits is refused with a reason. Method:
// each example is spoilt in one place at a time: cut, lengthened, a value out of its range. What
// the encoder doesn't refuse is simply encoded. Every message is also mutated at random; the seed
// is printed with a failure, and taken from PENSTOCK_TEST_SEED.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "tests/engine/wire_samples.h"

namespace penstock {
namespace {

using Runs = std::vector<Run>;  // within a fixture, Run is the fixture's

// Decodes `payload` as its own type's message. Returns the fault.
std::string FaultOf(FrameType type, Bytes payload, ByteList* again = nullptr) {
  const auto decode = [&](auto message, auto encode) {
    std::string fault = Decode(payload, message);
    if (fault.empty() && again != nullptr) *again = ListOf(encode(message).Payload());
    return fault;
  };
  const auto plain = [](const auto& m) { return Encode(m); };
  const auto typed = [type](const auto& m) { return Encode(type, m); };
  switch (type) {
    case FrameType::kHello: return decode(Hello{}, plain);
    case FrameType::kWelcome: return decode(Welcome{}, plain);
    case FrameType::kDatasetStart: return decode(DatasetStart{}, plain);
    case FrameType::kDatasetEnd: return decode(DatasetEnd{}, plain);
    case FrameType::kAck:
    case FrameType::kDone:
    case FrameType::kFlushed: return decode(Report{}, typed);
    case FrameType::kQuery: return decode(Query{}, plain);
    case FrameType::kAnswer: return decode(Answer{}, plain);
    case FrameType::kPing:
    case FrameType::kPong: return decode(Ping{}, typed);
    case FrameType::kProgress: return decode(Progress{}, plain);
    case FrameType::kError: return decode(penstock::Error{}, plain);
    case FrameType::kBlock:
    case FrameType::kBye:
    case FrameType::kStatusQuery:
    case FrameType::kStatusReply: break;
  }
  return "no message";
}

std::string FaultOf(const Frame& frame) { return FaultOf(frame.type, frame.Payload()); }

bool IsMessage(FrameType type) { return FaultOf(type, {}) != "no message"; }

// The payload of `frame` with the bytes at `offset` replaced by a number.
template <class Number>
Frame With(const Frame& frame, std::size_t offset, Number number) {
  ByteList bytes = ListOf(frame.Payload());
  std::memcpy(bytes.data() + offset, &number, sizeof(number));
  return Frame::Of(frame.type, std::move(bytes));
}

std::uint64_t TestSeed() {
  const char* const text = std::getenv("PENSTOCK_TEST_SEED");
  return text == nullptr ? 1 : std::strtoull(text, nullptr, 10);
}

// --- Every message. ---

TEST(WireDecode, APayloadThatEndsTooEarlyIsRefused) {
  for (const Frame& frame : SampleFrames()) {
    if (!IsMessage(frame.type)) continue;
    for (std::size_t size = 0; size < frame.size; ++size) {
      ASSERT_NE(FaultOf(frame.type, CutTo(frame.Payload(), size)), "")
          << Name(frame.type) << " cut to " << size;
    }
    EXPECT_EQ(FaultOf(frame), "") << Name(frame.type);
    EXPECT_EQ(FaultOf(frame.type, CutTo(frame.Payload(), frame.size - 1)), "it ends too early")
        << Name(frame.type);
  }
}

TEST(WireDecode, APayloadThatGoesOnIsRefused) {
  for (const Frame& frame : SampleFrames()) {
    if (!IsMessage(frame.type)) continue;
    ByteList bytes = ListOf(frame.Payload());
    bytes.insert(bytes.end(), {0, 0});
    EXPECT_EQ(FaultOf(frame.type, bytes), "2 bytes too many") << Name(frame.type);
  }
}

TEST(WireDecode, WhatIsTakenAtRandomIsWhatWouldBeSent) {
  const std::uint64_t seed = TestSeed();
  SCOPED_TRACE("PENSTOCK_TEST_SEED=" + std::to_string(seed));
  std::mt19937_64 random(seed);
  int taken = 0;
  for (const Frame& frame : SampleFrames()) {
    if (!IsMessage(frame.type) || frame.type == FrameType::kError) continue;
    for (int round = 0; round < 2000; ++round) {
      ByteList bytes = ListOf(frame.Payload());
      bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
      if (round % 8 == 0) bytes.resize(random() % (bytes.size() + 30));
      ByteList again;
      if (!FaultOf(frame.type, bytes, &again).empty()) continue;
      const bool isOtherVersion = bytes[0] != 1 || bytes[1] != 0;
      if ((frame.type == FrameType::kHello || frame.type == FrameType::kWelcome) &&
          isOtherVersion) {
        continue;
      }
      ASSERT_EQ(Hex(again), Hex(bytes)) << Name(frame.type) << ", round " << round;
      ++taken;
    }
  }
  EXPECT_GT(taken, 5000);
}

// --- HELLO. ---

class WireDecodeHello : public testing::Test {
 protected:
  std::string Fault() const { return FaultOf(Encode(m_hello)); }
  Hello m_hello = SampleHello();
};

TEST_F(WireDecodeHello, APurposeBeyondTheLastIsRefused) {
  EXPECT_EQ(FaultOf(With(Encode(m_hello), 2, std::uint8_t{2})), "");
  EXPECT_EQ(FaultOf(With(Encode(m_hello), 2, std::uint8_t{3})), "unknown purpose 3");
}

TEST_F(WireDecodeHello, AGroupWithoutAValidNameIsRefused) {
  for (const char* name : {"", "..", "a/b", ".a", "a b"}) {
    m_hello.group = name;
    EXPECT_EQ(Fault(), "the group has no valid name");
  }
}

TEST_F(WireDecodeHello, TheStatusOfEveryGroupIsAskedForWithoutAName) {
  m_hello.group = "";
  m_hello.purpose = Purpose::kVerify;
  EXPECT_EQ(Fault(), "the group has no valid name");
  m_hello.purpose = Purpose::kStatus;
  EXPECT_EQ(Fault(), "");
  m_hello.group = "../";
  EXPECT_EQ(Fault(), "the group has no valid name");
}

TEST_F(WireDecodeHello, AVolumeWithoutAValidNameIsRefused) {
  for (const std::string& name : {std::string(), std::string("../x"), std::string(65, 'x')}) {
    m_hello.volumes[1].name = name;
    EXPECT_EQ(Fault(), "volume 1 has no valid name");
  }
}

TEST_F(WireDecodeHello, TwoVolumesOfOneNameAreRefused) {
  m_hello.volumes[1].name = "db";
  EXPECT_EQ(Fault(), "two volumes have the name db");
}

TEST_F(WireDecodeHello, MoreVolumesThanTheLimitAreRefused) {
  for (int i = 0; i < 255; ++i) m_hello.volumes.push_back({"v" + std::to_string(i), 1});
  EXPECT_EQ(Fault(), "257 volumes");
}

TEST_F(WireDecodeHello, ACountBeyondTheBytesIsRefusedBeforeRoomIsMade) {
  constexpr std::size_t kCount = 2 + 1 + 8 + 16 + 8 + 16 + 2 + 4;
  Hello decoded;
  EXPECT_EQ(Decode(With(Encode(m_hello), kCount, std::uint16_t{256}).Payload(), decoded),
            "it ends too early");
  EXPECT_EQ(decoded.volumes.capacity(), 0U);
}

TEST_F(WireDecodeHello, OfAnotherVersionOnlyTheVersionIsTaken) {
  m_hello.version = 2;
  m_hello.group = "../";
  Hello decoded = SampleHello();
  EXPECT_EQ(Decode(Encode(m_hello).Payload(), decoded), "");
  EXPECT_EQ(decoded.version, 2);
  EXPECT_EQ(decoded.group, "");
  EXPECT_TRUE(decoded.volumes.empty());
  const ByteList bytes = {2, 0};
  EXPECT_EQ(FaultOf(FrameType::kHello, bytes), "");
  EXPECT_EQ(FaultOf(FrameType::kHello, Bytes(bytes).first(1)), "it ends too early");
}

// --- WELCOME. ---

TEST(WireDecodeWelcome, AStateBeyondTheLastIsRefused) {
  constexpr std::size_t kState = 92 + 17;  // of the second volume
  EXPECT_EQ(FaultOf(With(Encode(SampleWelcome()), kState, std::uint8_t{4})), "");
  EXPECT_EQ(FaultOf(With(Encode(SampleWelcome()), kState, std::uint8_t{5})),
            "unknown state 5 of volume 1");
}

TEST(WireDecodeWelcome, MoreVolumesThanTheLimitAreRefused) {
  Welcome m = SampleWelcome();
  m.volumes.resize(257);
  EXPECT_EQ(FaultOf(Encode(m)), "257 volumes");
}

TEST(WireDecodeWelcome, OfAnotherVersionOnlyTheVersionIsTaken) {
  Welcome decoded = SampleWelcome();
  const ByteList bytes = {0, 3, 9};
  EXPECT_EQ(Decode(bytes, decoded), "");
  EXPECT_EQ(decoded.version, 0x300);
  EXPECT_EQ(decoded.durable, 0U);
  EXPECT_EQ(FaultOf(FrameType::kWelcome, Bytes(bytes).first(1)), "it ends too early");
}

// --- START, ACK. ---

class WireDecodeStart : public testing::Test {
 protected:
  std::string Fault() const { return FaultOf(Encode(m_start)); }
  DatasetStart m_start = SampleStart();
};

TEST_F(WireDecodeStart, NormalAndResyncAreItsTypes) {
  for (const std::uint32_t type : {0U, 2U}) {
    m_start.datasetType = type;
    EXPECT_EQ(Fault(), "");
  }
  for (const std::uint32_t type : {1U, 3U, 0x100U}) {
    m_start.datasetType = type;
    EXPECT_EQ(Fault(), "dataset type " + std::to_string(type));
  }
}

TEST_F(WireDecodeStart, AFlagWithoutAMeaningIsRefused) {
  for (std::uint32_t flags = 0; flags < 8; ++flags) {
    m_start.flags = flags;
    EXPECT_EQ(Fault(), "");
  }
  for (std::uint32_t bit = 3; bit < 32; ++bit) {
    m_start.flags = 1U << bit;
    EXPECT_EQ(Fault(), "flags " + std::to_string(1U << bit));
  }
}

TEST_F(WireDecodeStart, AnotherFormatVersionIsRefused) {
  for (const int version : {0, 2, 0x101}) {
    EXPECT_EQ(FaultOf(With(Encode(m_start), 42, static_cast<std::uint16_t>(version))),
              "format version " + std::to_string(version));
  }
}

TEST_F(WireDecodeStart, AVolumeTwiceIsRefused) {
  m_start.volumes = {VolumeId("a", "b"), VolumeId("a", "c"), VolumeId("a", "b")};
  EXPECT_EQ(Fault(), "a volume twice");
}

TEST_F(WireDecodeStart, NoVolumeAtAllIsFine) {
  m_start.volumes.clear();
  EXPECT_EQ(Fault(), "");
}

TEST_F(WireDecodeStart, MoreVolumesThanTheLimitAreRefused) {
  m_start.volumes.resize(257);
  EXPECT_EQ(Fault(), "257 volumes");
}

TEST_F(WireDecodeStart, ACountBeyondTheBytesIsRefusedBeforeRoomIsMade) {
  DatasetStart decoded;
  EXPECT_EQ(Decode(With(Encode(m_start), 40, std::uint16_t{0xffff}).Payload(), decoded),
            "it ends too early");
  EXPECT_EQ(decoded.volumes.capacity(), 0U);
}

TEST(WireDecodeReport, AFlagIsZeroOrOne) {
  const Frame frame = Encode(FrameType::kAck, SampleReport());
  EXPECT_EQ(FaultOf(With(frame, 8, std::uint8_t{2})), "success is neither 0 nor 1");
  EXPECT_EQ(FaultOf(With(frame, 9, std::uint8_t{255})), "empty is neither 0 nor 1");
}

// --- QUERY, ANSWER. ---

class WireDecodeQuery : public testing::Test {
 protected:
  std::string Fault() const { return FaultOf(Encode(m_query)); }
  Query m_query = SampleQuery();
};

TEST_F(WireDecodeQuery, AWindowHasOneByteToOneMebibyte) {
  m_query.length = 0;
  EXPECT_EQ(Fault(), "a window of 0 bytes");
  m_query.length = kWindowBytes + 1;
  EXPECT_EQ(Fault(), "a window of 1048577 bytes");
  m_query.length = 0xffffffff;
  EXPECT_EQ(Fault(), "a window of 4294967295 bytes");
}

TEST_F(WireDecodeQuery, AWindowEndsWithinTheNumbers) {
  m_query.offset = std::numeric_limits<std::uint64_t>::max() - m_query.length;
  EXPECT_EQ(Fault(), "");
  ++m_query.offset;
  EXPECT_EQ(Fault(), "a window at 18446744073709541616");
}

TEST_F(WireDecodeQuery, BlocksAreCountedWithinTheNumbers) {
  m_query.firstBlock = 0xffffffff - 3;
  EXPECT_EQ(Fault(), "");
  ++m_query.firstBlock;
  EXPECT_EQ(Fault(), "a window at block 4294967293");
}

TEST_F(WireDecodeQuery, EveryBlockHasOneFingerprint) {
  for (const std::uint32_t length : {8193U, 12288U}) {
    m_query.length = length;
    EXPECT_EQ(Fault(), "");
  }
  m_query.length = 8192;
  EXPECT_EQ(Fault(), "8 bytes too many");
  m_query.length = 12289;
  EXPECT_EQ(Fault(), "it ends too early");
}

TEST_F(WireDecodeQuery, MissingFingerprintsAreNoticedBeforeRoomIsMade) {
  m_query.length = kWindowBytes;
  Query decoded;
  EXPECT_EQ(Decode(Encode(m_query).Payload(), decoded), "it ends too early");
  EXPECT_EQ(decoded.fingerprints.capacity(), 0U);
}

class WireDecodeAnswer : public testing::Test {
 protected:
  std::string Fault() const { return FaultOf(Encode(m_answer)); }
  // Of a window of three blocks.
  std::string FaultOfRuns(Runs runs) {
    m_answer.runs = std::move(runs);
    return Fault();
  }
  Answer m_answer = SampleAnswer();
};

TEST_F(WireDecodeAnswer, AWindowHasOneByteToOneMebibyteWithinTheNumbers) {
  m_answer.length = 0;
  EXPECT_EQ(Fault(), "a window of 0 bytes");
  m_answer.length = kWindowBytes + 1;
  EXPECT_EQ(Fault(), "a window of 1048577 bytes");
  m_answer = SampleAnswer();
  m_answer.offset = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(Fault(), "a window at 18446744073709551615");
}

TEST_F(WireDecodeAnswer, RunsCoverTheWindowInOrder) {
  const std::string fault = "runs that don't cover the window";
  EXPECT_EQ(FaultOfRuns({{0, 3, false, {}}}), "");
  EXPECT_EQ(FaultOfRuns({{0, 1, true, {}}, {1, 1, true, {}}, {2, 1, true, {}}}), "");
  EXPECT_EQ(FaultOfRuns({}), fault);
  EXPECT_EQ(FaultOfRuns({{0, 2, false, {}}}), fault);
  EXPECT_EQ(FaultOfRuns({{0, 4, false, {}}}), fault);
  EXPECT_EQ(FaultOfRuns({{1, 2, false, {}}}), fault);
  EXPECT_EQ(FaultOfRuns({{0, 2, false, {}}, {1, 2, false, {}}}), fault);
  EXPECT_EQ(FaultOfRuns({{1, 2, false, {}}, {0, 1, false, {}}}), fault);
  EXPECT_EQ(FaultOfRuns({{0, 0, false, {}}, {0, 3, false, {}}}), fault);
  EXPECT_EQ(FaultOfRuns({{0, 0xffff, false, {}}}), fault);
}

TEST_F(WireDecodeAnswer, MoreRunsThanBlocksAreRefused) {
  EXPECT_EQ(FaultOfRuns(Runs(4)), "4 runs");
}

TEST_F(WireDecodeAnswer, ACountBeyondTheBytesIsRefusedBeforeRoomIsMade) {
  m_answer.length = kWindowBytes;
  Answer decoded;
  EXPECT_EQ(Decode(With(Encode(m_answer), 21, std::uint16_t{256}).Payload(), decoded),
            "it ends too early");
  EXPECT_EQ(decoded.runs.capacity(), 0U);
}

TEST_F(WireDecodeAnswer, ARunIsEqualOrDifferent) {
  EXPECT_EQ(FaultOf(With(Encode(m_answer), 27, std::uint8_t{2})),
            "run 0 is neither equal nor different");
}

TEST_F(WireDecodeAnswer, ADifferentRunHasNoStrongFingerprint) {
  Answer decoded;
  m_answer.runs[1].strong.bytes.fill(9);
  EXPECT_EQ(Decode(Encode(m_answer).Payload(), decoded), "");
  EXPECT_EQ(Hex(decoded.runs[0].strong.bytes), Hex(CountingFrom<20>(0xe0)));
  EXPECT_EQ(Hex(decoded.runs[1].strong.bytes), Hex(BufFingerprint{}.bytes));
}

// --- ERROR. ---

TEST(WireDecodeError, ACodeWithoutAMeaningIsRefused) {
  for (std::uint16_t code = 1; code <= 11; ++code) {
    EXPECT_EQ(FaultOf(With(Encode(SampleError()), 0, code)), "");
  }
  for (const int code : {0, 12, 0x0104}) {
    EXPECT_EQ(FaultOf(With(Encode(SampleError()), 0, static_cast<std::uint16_t>(code))),
              "unknown code " + std::to_string(code));
  }
}

TEST(WireDecodeError, ATextHasAtMostItsLimit) {
  ByteList bytes = {4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 4};
  bytes.resize(bytes.size() + 1025, 'x');
  EXPECT_EQ(FaultOf(FrameType::kError, bytes), "a text of 1025 bytes");
}

TEST(WireDecodeError, ATextIsPrintableAfterwards) {
  penstock::Error m = SampleError();
  m.text = "\x1b[2J\n\x7f~ \xc3\xa4" + std::string(1, '\0') + "!";
  penstock::Error decoded;
  EXPECT_EQ(Decode(Encode(m).Payload(), decoded), "");
  EXPECT_EQ(decoded.text,
            "?[2J?"
            "?~ ??"
            "?!");
}

}  // namespace
}  // namespace penstock
