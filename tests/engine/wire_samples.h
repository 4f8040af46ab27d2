// SPDX-License-Identifier: Apache-2.0
// One example of each frame, as docs/protocol.md explains them, and the two ends of a connection.
#ifndef PENSTOCK_TESTS_ENGINE_WIRE_SAMPLES_H_
#define PENSTOCK_TESTS_ENGINE_WIRE_SAMPLES_H_

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "engine/wire/frame.h"
#include "engine/wire/messages.h"

namespace penstock {

using ByteList = std::vector<std::uint8_t>;

// Bytes that count up from `first`.
template <std::size_t kSize>
std::array<std::uint8_t, kSize> CountingFrom(std::uint8_t first) {
  std::array<std::uint8_t, kSize> bytes{};
  std::iota(bytes.begin(), bytes.end(), first);
  return bytes;
}

// "01 ff 20"
inline std::string Hex(Bytes bytes) {
  static constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (const std::uint8_t byte : bytes) {
    if (!text.empty()) text += ' ';
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 15U];
  }
  return text;
}

inline ByteList ListOf(Bytes bytes) { return {bytes.begin(), bytes.end()}; }

// Bytes that are gone when they are read beyond their end: the sanitizer sees it.
inline ByteList CutTo(Bytes bytes, std::size_t size) { return ListOf(bytes.first(size)); }

inline const Nonce kSourceNonce = CountingFrom<16>(0xa0);
inline const Nonce kTargetNonce = CountingFrom<16>(0xc0);

// The chain value of dataset 6, whose START and block are the examples, behind WELCOME's.
inline const Digest kSampleChain = {
    0xe5, 0x00, 0xf7, 0xeb, 0x3e, 0xae, 0x2f, 0xce, 0xbe, 0xb0, 0xf3, 0xd3, 0xc5, 0x8e, 0xa7, 0x31,
    0x21, 0x22, 0x9e, 0xe4, 0x2b, 0x44, 0x31, 0x5f, 0x26, 0x35, 0x32, 0xe5, 0xd6, 0x41, 0x43, 0x67};

// --- The messages. ---

inline Hello SampleHello() {
  Hello m;
  m.epoch = 7;
  m.nonce = kSourceNonce;
  m.fingerprintSeed = 0x1122334455667788U;
  m.runKey = CountingFrom<16>(0xb0);
  m.group = "shop";
  m.volumes = {{"db", 1U << 30U}, {"logs", 1U << 26U}};
  return m;
}

inline Welcome SampleWelcome() {
  Welcome m;
  m.epoch = 7;
  m.nonce = kTargetNonce;
  m.durable = 5;
  m.applied = 4;
  m.flushed = 3;
  m.chain = CountingFrom<32>(0xd0);
  m.window = 32U << 20U;
  m.volumes = {{VolumeState::kGood, 3, 1U << 30U}, {VolumeState::kNew, 0, 1U << 26U}};
  return m;
}

inline DatasetStart SampleStart() {
  DatasetStart m;
  m.n = 6;
  m.timestampMs = 1'700'000'000'000;
  m.group = GroupId("shop");
  m.flags = kStartSyncComplete;
  m.volumes = {VolumeId("shop", "db")};
  return m;
}

// "penstock" at 4096 of the dataset's volume 0, as it is.
inline BlockPtr SampleBlock() {
  constexpr std::uint64_t kOffset = 4096;
  static constexpr char kData[] = {'p', 'e', 'n', 's', 't', 'o', 'c', 'k'};
  constexpr std::uint32_t kSize = sizeof(kData);
  BlockPtr block = OM_DP::MakeCompressedData(kExtentBytes + kSize);
  std::uint8_t* const body = OM_DP::Body(*block);
  std::memcpy(body, &kOffset, sizeof(kOffset));
  std::memcpy(body + 8, &kSize, sizeof(kSize));
  std::memcpy(body + kExtentBytes, kData, kSize);
  block->rawLength = kSize;
  block->codec = static_cast<std::uint8_t>(Codec::kRaw);
  block->extentCount = 1;
  block->bodyHash = Hash64({body, block->length});
  return block;
}

inline DatasetEnd SampleEnd() {
  DatasetEnd m;
  m.n = 6;
  m.blocks = 1;
  m.extents = 1;
  m.rawBytes = 8;
  m.chain = kSampleChain;
  m.name = "eve";
  return m;
}

inline Report SampleReport() { return {6, true, false, kSampleChain}; }

inline Query SampleQuery() {
  Query m;
  m.n = 7;
  m.volume = 1;
  m.offset = 1U << 20U;
  m.length = 10'000;
  m.firstBlock = 256;
  m.fingerprints = {0x0102030405060708U, 0x1112131415161718U, 0x2122232425262728U};
  return m;
}

inline Answer SampleAnswer() {
  Answer m;
  m.n = 7;
  m.volume = 1;
  m.offset = 1U << 20U;
  m.length = 10'000;
  m.runs = {{0, 1, true, {CountingFrom<20>(0xe0)}}, {1, 2, false, {}}};
  return m;
}

inline Ping SamplePing() { return {0x1122334455667788U}; }

inline Progress SampleProgress() { return {9, 8, 1U << 20U, {4096, 0x0102030405060708U}}; }

inline Error SampleError() { return {ErrorCode::kFenced, 0, "a newer source has the group"}; }

// One frame of each type, in the table's order.
inline std::vector<Frame> SampleFrames() {
  return {Encode(SampleStart()),
          Frame::OfBlock(SampleBlock()),
          Encode(SampleHello()),
          Encode(SampleWelcome()),
          Encode(SampleEnd()),
          Encode(FrameType::kAck, SampleReport()),
          Encode(FrameType::kDone, SampleReport()),
          Encode(FrameType::kFlushed, SampleReport()),
          Encode(SampleQuery()),
          Encode(SampleAnswer()),
          Encode(FrameType::kPing, SamplePing()),
          Encode(FrameType::kPong, SamplePing()),
          Encode(SampleProgress()),
          Encode(SampleError()),
          EncodeBye(),
          EncodeStatusQuery(),
          EncodeStatusReply(R"({"groups":[]})")};
}

// --- The two ends of one direction. ---

inline std::uint64_t SampleSeed() { return FrameSeed(kSourceNonce, kTargetNonce, true); }

class Sender {
 public:
  explicit Sender(std::uint64_t seed) { m_writer.SetSeed(seed); }
  // The frame as it travels.
  ByteList Send(const Frame& frame) {
    const auto header = m_writer.Header(frame);
    ByteList bytes(header.begin(), header.end());
    const Bytes payload = frame.Payload();
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
  }

 private:
  FrameWriter m_writer;
};

// A reader of a connection that has greeted.
class Receiver {
 public:
  explicit Receiver(std::uint64_t seed) {
    m_reader.SetSeed(seed);
    m_reader.AllowAll();
  }

  // Feeds what the reader takes of the bytes, at most `piece` at a time, as a socket would.
  void Feed(Bytes bytes, std::size_t piece = SIZE_MAX) {
    while (!bytes.empty() && !m_reader.Failed()) {
      const auto space = m_reader.Space();
      const std::size_t count = std::min({piece, bytes.size(), space.size()});
      std::copy_n(bytes.begin(), count, space.begin());
      m_reader.Commit(count);
      bytes = bytes.subspan(count);
      while (auto frame = m_reader.Next()) m_frames.push_back(std::move(*frame));
    }
  }

  // "START 60, PING 8; frame 3: the header is damaged"
  std::string Story() const {
    std::string text;
    for (const Frame& frame : m_frames) {
      if (!text.empty()) text += ", ";
      text += Name(frame.type) + (" " + std::to_string(frame.size));
    }
    return m_reader.Failed() ? text + "; " + m_reader.Fault() : text;
  }

  const std::vector<Frame>& Frames() const { return m_frames; }
  FrameReader& Reader() { return m_reader; }

 private:
  FrameReader m_reader;
  std::vector<Frame> m_frames;
};

}  // namespace penstock

#endif  // PENSTOCK_TESTS_ENGINE_WIRE_SAMPLES_H_
