// SPDX-License-Identifier: Apache-2.0
// Feeds a frame reader with arbitrary bytes, or with a stream of frames that was damaged, in pieces
// of arbitrary size. What it hands out must be within its limits, and be what was sent.
#include <algorithm>
#include <cstring>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "engine/wire/frame.h"
#include "engine/wire/messages.h"
#include "fuzz/byte_source.h"

namespace {

using penstock::Bytes;
using penstock::Frame;
using penstock::FrameType;
using ByteList = std::vector<std::uint8_t>;

constexpr std::uint64_t kSeed = 0x0123456789abcdefU;
constexpr std::size_t kRecordBytes = 20;

class ReaderRun {
 public:
  explicit ReaderRun(ByteSource& in) : m_in(in) {
    m_reader.SetSeed(kSeed);
    m_greeted = in.Below(8) != 0;
    if (m_greeted) m_reader.AllowAll();
  }

  // Feeds the stream, and checks the reader after each piece.
  void Feed(Bytes stream) {
    while (!stream.empty() && !m_reader.Failed()) {
      const std::span<std::uint8_t> space = m_reader.Space();
      FUZZ_CHECK(!space.empty());
      FUZZ_CHECK(space.size() <= penstock::FindFrameLimits(100)->maxPayload);
      const std::size_t piece = m_in.AtEnd() ? space.size() : std::size_t{m_in.Byte()} + 1;
      const std::size_t count = std::min({piece, space.size(), stream.size()});
      std::copy_n(stream.begin(), count, space.begin());
      m_reader.Commit(count);
      stream = stream.subspan(count);
      while (auto frame = m_reader.Next()) Take(std::move(*frame));
    }
    if (!m_reader.Failed()) return;
    FUZZ_CHECK(!m_reader.Fault().empty());
    FUZZ_CHECK(m_reader.Space().empty());
    FUZZ_CHECK(!m_reader.Next().has_value());
    FUZZ_CHECK(m_reader.m_frame.payload == nullptr);
  }

  const std::vector<Frame>& Frames() const { return m_frames; }
  bool Greeted() const { return m_greeted; }

 private:
  void Take(Frame frame) {
    const auto* limits = penstock::FindFrameLimits(static_cast<std::uint32_t>(frame.type));
    FUZZ_CHECK(limits != nullptr && (m_greeted || limits->beforeWelcome));
    FUZZ_CHECK(frame.size >= limits->minPayload && frame.size <= limits->maxPayload);
    if (frame.type == FrameType::kBlock) {
      FUZZ_CHECK(penstock::RecordBytes(*frame.Block()).size() == frame.size);
    }
    m_frames.push_back(std::move(frame));
  }

  ByteSource& m_in;
  penstock::FrameReader m_reader;
  bool m_greeted = false;
  std::vector<Frame> m_frames;
};

// --- Frames that were sent, and then damaged. ---

Frame SomeFrame(ByteSource& in) {
  const auto table = penstock::FrameTable();
  const penstock::FrameLimits& row = table[in.Below(static_cast<std::uint32_t>(table.size()))];
  const std::uint32_t most = std::min(row.maxPayload, row.minPayload + 64);
  const std::uint32_t size = row.minPayload + in.Below(most - row.minPayload + 1);
  ByteList payload(size, in.Byte());
  if (row.type == FrameType::kBlock) {
    const auto length = static_cast<std::uint32_t>(size - kRecordBytes);
    std::memcpy(payload.data() + 16, &length, sizeof(length));
  }
  return Frame::Of(row.type, std::move(payload));
}

ByteList OnTheWire(const std::vector<Frame>& frames, std::vector<std::size_t>& ends) {
  penstock::FrameWriter writer;
  writer.SetSeed(kSeed);
  ByteList stream;
  for (const Frame& frame : frames) {
    const auto header = writer.Header(frame);
    stream.insert(stream.end(), header.begin(), header.end());
    const Bytes payload = frame.Payload();
    stream.insert(stream.end(), payload.begin(), payload.end());
    ends.push_back(stream.size());
  }
  return stream;
}

// One change that loses, repeats or adds bytes, and up to three flipped bits: what a checksum of 32
// bits finds for certain in a header. Returns the first byte that may be another.
std::size_t Damage(ByteSource& in, ByteList& stream) {
  const auto position = [&] {
    const std::size_t high = in.Byte();
    return (high * 256 + in.Byte()) % (stream.size() + 1);
  };
  std::size_t first = stream.size();
  const auto at = static_cast<std::ptrdiff_t>(position());
  const auto count = static_cast<std::ptrdiff_t>(
      std::min<std::size_t>(in.Byte(), stream.size() - static_cast<std::size_t>(at)));
  const ByteList piece(stream.begin() + at, stream.begin() + at + count);
  switch (in.Below(4)) {
    case 0: break;
    case 1: stream.erase(stream.begin() + at, stream.begin() + at + count); break;
    case 2: stream.insert(stream.begin() + at, piece.begin(), piece.end()); break;
    default: stream.resize(static_cast<std::size_t>(at)); break;
  }
  first = std::min(first, static_cast<std::size_t>(at));
  for (std::uint32_t i = in.Below(4); i > 0 && !stream.empty(); --i) {
    const std::size_t bit = position() % stream.size();
    stream[bit] ^= static_cast<std::uint8_t>(1U << in.Below(8));
    first = std::min(first, bit);
  }
  return first;
}

// Of a block only what the frame's hash covers: the body has its own.
Bytes Covered(const Frame& frame) {
  return frame.type == FrameType::kBlock ? frame.Payload().first(kRecordBytes) : frame.Payload();
}

void Damaged(ByteSource& in) {
  std::vector<Frame> sent;
  for (std::uint32_t i = in.Below(6) + 1; i > 0; --i) sent.push_back(SomeFrame(in));
  std::vector<std::size_t> ends;
  ByteList stream = OnTheWire(sent, ends);
  const std::size_t first = in.Flag() ? Damage(in, stream) : stream.size();
  ReaderRun run(in);
  run.Feed(stream);
  const auto& frames = run.Frames();
  FUZZ_CHECK(frames.size() <= sent.size());
  for (std::size_t i = 0; i < frames.size(); ++i) {
    FUZZ_CHECK(frames[i].type == sent[i].type && frames[i].size == sent[i].size);
    FUZZ_CHECK(std::ranges::equal(Covered(frames[i]), Covered(sent[i])));
    if (ends[i] <= first) FUZZ_CHECK(std::ranges::equal(frames[i].Payload(), sent[i].Payload()));
  }
  if (!run.Greeted()) return;
  const auto whole = std::ranges::count_if(ends, [&](std::size_t end) { return end <= first; });
  FUZZ_CHECK(frames.size() >= static_cast<std::size_t>(whole));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ByteSource in(data, size);
  if (in.Flag()) {
    Damaged(in);
    return 0;
  }
  // The same bytes are the stream, and the sizes of its pieces.
  ReaderRun(in).Feed({data, size});
  return 0;
}
