// SPDX-License-Identifier: Apache-2.0
// Frames: the 24-byte command header and its payload, as they travel between source and target.
#ifndef PENSTOCK_ENGINE_WIRE_FRAME_H_
#define PENSTOCK_ENGINE_WIRE_FRAME_H_

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "codec/block.h"
#include "codec/hash.h"

namespace penstock {

inline constexpr std::uint32_t kFrameHeaderBytes = 24;

// What a frame is. 56 and 100 are the records of dataset files; the others travel only.
enum class FrameType : std::uint32_t {
  kDatasetStart = 56,
  kBlock = 100,
  kHello = 200,
  kWelcome = 201,
  kDatasetEnd = 210,
  kAck = 220,
  kDone = 221,
  kFlushed = 222,
  kQuery = 230,
  kAnswer = 231,
  kPing = 240,
  kPong = 241,
  kProgress = 242,
  kError = 250,
  kBye = 251,
  kStatusQuery = 260,
  kStatusReply = 261,
};

// One row for each type: the one table that encoder, decoder and limits are made from.
struct FrameLimits {
  FrameType type;
  const char* name;          // as in logs and documents: "HELLO"
  std::uint32_t minPayload;  // bytes
  std::uint32_t maxPayload;
  bool beforeWelcome;  // may arrive before both sides have greeted
};
std::span<const FrameLimits> FrameTable();
const FrameLimits* FindFrameLimits(std::uint32_t type);  // null: unknown
const char* Name(FrameType type);

struct Frame {
  FrameType type{};
  std::shared_ptr<const std::uint8_t[]> payload;
  std::uint32_t size = 0;  // bytes of payload

  Bytes Payload() const { return {payload.get(), size}; }
  // Of a frame of type kBlock whose length the reader checked: its payload as the record it is.
  BlockPtr Block() const;
  static Frame OfBlock(const BlockPtr& block);
  static Frame Of(FrameType type, std::vector<std::uint8_t> payload);
};

// The seed under which a direction of a connection hashes its frames: 0 in both directions until
// both nonces are known.
std::uint64_t FrameSeed(const std::array<std::uint8_t, 16>& sourceNonce,
                        const std::array<std::uint8_t, 16>& targetNonce, bool fromSource);

// Makes the headers of one direction of a connection. The header's flags hold the frame's number in
// its direction (b, from 1) and 56 bits of its hash (a, then c, d, e): Hash64 of the number and the
// payload under the direction's seed; of a block, the payload's first 20 bytes, which hold the
// body's own hash. So a frame that was damaged, repeated, or left over from another connection is
// none of ours.
class FrameWriter {
 public:
  void SetSeed(std::uint64_t seed) { m_seed = seed; }  // of the frames from here on
  std::array<std::uint8_t, kFrameHeaderBytes> Header(const Frame& frame);

 private:
  std::uint64_t m_seed = 0;
  std::uint32_t m_number = 0;
};

// Takes the bytes of one direction and gives its frames. Payload bytes are received where they
// stay: read from the socket into Space(), then say how many with Commit().
//
//   auto space = reader.Space();
//   reader.Commit(read(fd, space.data(), space.size()));
//   while (auto frame = reader.Next()) Take(*frame);
//   if (reader.Failed()) Drop(reader.Fault());
//
// Space() is never empty before a failure, and never reaches beyond the current frame. A length is
// checked against the type's limits before anything is allocated by it. A failure is final.
class FrameReader {
 public:
  void SetSeed(std::uint64_t seed) { m_seed = seed; }  // of the frames from here on
  // Until this is called only types with `beforeWelcome` pass.
  void AllowAll() { m_allowAll = true; }

  std::span<std::uint8_t> Space();
  void Commit(std::size_t count);  // REQUIRES: count <= Space().size()
  std::optional<Frame> Next();     // the frame that is complete, if any

  bool Failed() const { return !m_fault.empty(); }
  const std::string& Fault() const { return m_fault; }  // what was wrong, for log and peer

 private:
  std::uint64_t m_seed = 0;
  std::uint32_t m_number = 0;
  bool m_allowAll = false;
  std::array<std::uint8_t, kFrameHeaderBytes> m_header{};
  std::size_t m_headerFilled = 0;
  Frame m_frame;
  std::uint8_t* m_body = nullptr;  // of m_frame, while it is filled
  std::size_t m_filled = 0;
  std::string m_fault;

  void BeginPayload();
  bool CheckFrame() const;
};

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_WIRE_FRAME_H_
