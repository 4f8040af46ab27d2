// SPDX-License-Identifier: Apache-2.0
#include "engine/wire/frame.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <utility>

#include "engine/planted.h"
#include "engine/wire/byte_coder.h"
#include "engine/wire/messages.h"
#include "penstock/host/commands.h"

namespace penstock {

namespace {

constexpr std::uint32_t kRecordBytes = sizeof(OM_DP::CompressedData);

// What a payload holds besides its lists and texts, and what each of their elements takes.
constexpr std::uint32_t kTextLengthBytes = 2;
constexpr std::uint32_t kHelloBytes = 2 + 1 + 8 + 16 + 8 + 16 + kTextLengthBytes + 2;
constexpr std::uint32_t kHelloVolumeBytes = kTextLengthBytes + kMaxNameBytes + 8;
constexpr std::uint32_t kWelcomeBytes = 2 + 8 + 16 + 8 + 8 + 8 + 32 + 8 + 2;
constexpr std::uint32_t kWelcomeVolumeBytes = 1 + 8 + 8;
constexpr std::uint32_t kStartBytes = sizeof(OM_DP::DatasetStartv2);
constexpr std::uint32_t kStartVolumeBytes = 16;
constexpr std::uint32_t kEndBytes = 8 + 4 + 8 + 8 + 32 + kTextLengthBytes;
constexpr std::uint32_t kReportBytes = 8 + 1 + 1 + 32;
constexpr std::uint32_t kQueryBytes = 8 + 1 + 8 + 4 + 4;
constexpr std::uint32_t kPrintBytes = 8;
constexpr std::uint32_t kAnswerBytes = 8 + 1 + 8 + 4 + 2;
constexpr std::uint32_t kRunBytes = 2 + 2 + 1;
constexpr std::uint32_t kStrongBytes = sizeof(BufFingerprint::bytes);
constexpr std::uint32_t kProgressBytes = 8 + 8 + 8 + 2;
constexpr std::uint32_t kErrorBytes = 2 + 8 + kTextLengthBytes;
constexpr std::uint32_t kMaxStatusBytes = 1U << 20U;

constexpr std::uint32_t kVolumes = kMaxVolumes;
constexpr std::uint32_t kGroupBytes = kMaxNameBytes;
constexpr std::uint32_t kMaxHelloBytes = kHelloBytes + kGroupBytes + kVolumes * kHelloVolumeBytes;
constexpr std::uint32_t kMaxWelcomeBytes = kWelcomeBytes + kVolumes * kWelcomeVolumeBytes;
constexpr std::uint32_t kMaxStartBytes = kStartBytes + kVolumes * kStartVolumeBytes;
constexpr std::uint32_t kMaxQueryBytes = kQueryBytes + kWindowBlocks * kPrintBytes;
constexpr std::uint32_t kMaxAnswerBytes = kAnswerBytes + kWindowBlocks * (kRunBytes + kStrongBytes);
constexpr std::uint32_t kMaxProgressBytes = kProgressBytes + kVolumes * 8;
static_assert(kStrongBytes == 20);

// Ascending by type.
constexpr auto kTable = std::to_array<FrameLimits>({
    {FrameType::kDatasetStart, "START", kStartBytes, kMaxStartBytes, false},
    {FrameType::kBlock, "BLOCK", kRecordBytes + kExtentBytes, kRecordBytes + kMaxBodyBytes, false},
    {FrameType::kHello, "HELLO", kHelloBytes, kMaxHelloBytes, true},
    {FrameType::kWelcome, "WELCOME", kWelcomeBytes, kMaxWelcomeBytes, true},
    {FrameType::kDatasetEnd, "END", kEndBytes, kEndBytes + kMaxPointNameBytes, false},
    {FrameType::kAck, "ACK", kReportBytes, kReportBytes, false},
    {FrameType::kDone, "DONE", kReportBytes, kReportBytes, false},
    {FrameType::kFlushed, "FLUSHED", kReportBytes, kReportBytes, false},
    {FrameType::kQuery, "QUERY", kQueryBytes + kPrintBytes, kMaxQueryBytes, false},
    {FrameType::kAnswer, "ANSWER", kAnswerBytes + kRunBytes, kMaxAnswerBytes, false},
    {FrameType::kPing, "PING", 8, 8, false},
    {FrameType::kPong, "PONG", 8, 8, false},
    {FrameType::kProgress, "PROGRESS", kProgressBytes, kMaxProgressBytes, false},
    {FrameType::kError, "ERROR", kErrorBytes, kErrorBytes + kMaxTextBytes, true},
    {FrameType::kBye, "BYE", 0, 0, true},
    {FrameType::kStatusQuery, "STATUS_QUERY", 0, 0, false},
    {FrameType::kStatusReply, "STATUS_REPLY", 2, kMaxStatusBytes, false},
});

struct HashParts {
  std::uint32_t a;
  std::uint8_t c, d, e;
  friend bool operator==(const HashParts&, const HashParts&) = default;
};

// The 56 bits of a frame's hash, as the header's flags hold them. A block's body has its own hash,
// which is among the bytes that are hashed here: large payloads are not read twice.
HashParts HashOf(const Frame& frame, std::uint32_t number, std::uint64_t seed) {
  ByteWriter prefix;
  prefix.Number(number);
  const Bytes payload = frame.Payload();
  const bool isBlock = frame.type == FrameType::kBlock;
  Hash64Stream stream(seed);
  stream.Add(prefix.Take());
  stream.Add(isBlock ? payload.first(std::min<std::size_t>(kRecordBytes, payload.size()))
                     : payload);
  const std::uint64_t hash = stream.Value();
  return {static_cast<std::uint32_t>(hash), static_cast<std::uint8_t>(hash >> 32U),
          static_cast<std::uint8_t>(hash >> 40U), static_cast<std::uint8_t>(hash >> 48U)};
}

DPPCmdHeader Parse(const std::array<std::uint8_t, kFrameHeaderBytes>& bytes) {
  DPPCmdHeader header;
  static_assert(sizeof(header) == kFrameHeaderBytes);
  std::memcpy(&header, bytes.data(), bytes.size());
  return header;
}

// Whether the header is one that CreateDppHeader would have made: also the checksum and the zero.
bool IsWhole(const DPPCmdHeader& header) {
  const auto made = CreateDppHeader(header.payloadSize, static_cast<DPPCmdType>(header.type),
                                    {header.a, header.b, header.c, header.d, header.e});
  return std::memcmp(made.get(), &header, sizeof(header)) == 0;
}

// What is wrong with the header of the frame that must be number `number`; empty: nothing.
std::string HeaderFault(const DPPCmdHeader& header, std::uint32_t number, bool allowAll) {
  if (!IsWhole(header)) return "the header is damaged";
  if (header.b != number) return "it has the number " + std::to_string(header.b);
  const FrameLimits* const limits = FindFrameLimits(header.type);
  if (limits == nullptr) return "unknown type " + std::to_string(header.type);
  const std::string name = limits->name;
  if (!allowAll && !limits->beforeWelcome) return name + " before the greeting";
  if (header.payloadSize < limits->minPayload || header.payloadSize > limits->maxPayload) {
    return name + " of " + std::to_string(header.payloadSize) + " bytes";
  }
  return {};
}

}  // namespace

std::span<const FrameLimits> FrameTable() { return kTable; }

const FrameLimits* FindFrameLimits(std::uint32_t type) {
  const auto* const row =
      std::ranges::find(kTable, static_cast<FrameType>(type), &FrameLimits::type);
  return row == kTable.end() ? nullptr : row;
}

const char* Name(FrameType type) {
  const FrameLimits* const limits = FindFrameLimits(static_cast<std::uint32_t>(type));
  return limits == nullptr ? "?" : limits->name;
}

BlockPtr Frame::Block() const {
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): the bytes were made as this record
  auto* const bytes = const_cast<std::uint8_t*>(payload.get());
  return {payload, reinterpret_cast<OM_DP::CompressedData*>(bytes)};
}

Frame Frame::OfBlock(const BlockPtr& block) {
  std::shared_ptr<const std::uint8_t[]> bytes(block,
                                              reinterpret_cast<const std::uint8_t*>(block.get()));
  return {FrameType::kBlock, std::move(bytes), kRecordBytes + block->length};
}

Frame Frame::Of(FrameType type, std::vector<std::uint8_t> payload) {
  const auto owner = std::make_shared<const std::vector<std::uint8_t>>(std::move(payload));
  return {type, std::shared_ptr<const std::uint8_t[]>(owner, owner->data()),
          static_cast<std::uint32_t>(owner->size())};
}

std::uint64_t FrameSeed(const std::array<std::uint8_t, 16>& sourceNonce,
                        const std::array<std::uint8_t, 16>& targetNonce, bool fromSource) {
  ByteWriter bytes;
  bytes.Raw(sourceNonce);
  bytes.Raw(targetNonce);
  bytes.Number(static_cast<std::uint8_t>(fromSource ? 1 : 0));
  const std::uint64_t seed = Hash64(bytes.Take());
  return seed == 0 ? 1 : seed;  // 0 stands for a connection that has not greeted
}

std::array<std::uint8_t, kFrameHeaderBytes> FrameWriter::Header(const Frame& frame) {
  ++m_number;
  const HashParts hash = HashOf(frame, m_number, m_seed);
  const auto header = CreateDppHeader(frame.size, static_cast<DPPCmdType>(frame.type),
                                      {hash.a, m_number, hash.c, hash.d, hash.e});
  std::array<std::uint8_t, kFrameHeaderBytes> bytes{};
  std::memcpy(bytes.data(), header.get(), bytes.size());
  return bytes;
}

// Empty after a failure; also while a complete frame waits for Next().
std::span<std::uint8_t> FrameReader::Space() {
  if (Failed()) return {};
  if (m_headerFilled < m_header.size()) return std::span(m_header).subspan(m_headerFilled);
  return {m_body + m_filled, m_frame.size - m_filled};
}

void FrameReader::Commit(std::size_t count) {
  if (Failed()) return;
  if (m_headerFilled < m_header.size()) {
    m_headerFilled += count;
    if (m_headerFilled < m_header.size()) return;
    BeginPayload();
  } else {
    m_filled += count;
  }
  if (Failed() || m_filled < m_frame.size) return;

  const std::string number = "frame " + std::to_string(m_number) + ": ";
  if (!Planted(Fault::kNoFrameHash) && !CheckFrame()) {
    m_fault = number + Name(m_frame.type) + " is damaged, or not of this connection";
  } else if (m_frame.type == FrameType::kBlock &&
             m_frame.Block()->length != m_frame.size - kRecordBytes) {
    m_fault = number + "BLOCK with a length that is not its payload's";
  }
  if (Failed()) m_frame = {};
}

std::optional<Frame> FrameReader::Next() {
  if (Failed() || m_headerFilled < m_header.size() || m_filled < m_frame.size) return std::nullopt;
  m_headerFilled = 0;
  m_filled = 0;
  m_body = nullptr;
  return std::exchange(m_frame, {});
}

// The header is complete: believes it, or fails.
void FrameReader::BeginPayload() {
  const DPPCmdHeader header = Parse(m_header);
  ++m_number;
  m_fault = HeaderFault(header, m_number, m_allowAll);
  if (Failed()) {
    m_fault = "frame " + std::to_string(m_number) + ": " + m_fault;
    return;
  }
  m_filled = 0;
  if (static_cast<FrameType>(header.type) == FrameType::kBlock) {
    const BlockPtr record = AllocateBlock(header.payloadSize - kRecordBytes);
    m_body = reinterpret_cast<std::uint8_t*>(record.get());
    m_frame = Frame::OfBlock(record);
    return;
  }
  const auto bytes = std::make_shared<std::uint8_t[]>(header.payloadSize);
  m_body = bytes.get();
  m_frame = {static_cast<FrameType>(header.type), bytes, header.payloadSize};
}

// Whether the frame is the one that its header was made for.
bool FrameReader::CheckFrame() const {
  const DPPCmdHeader header = Parse(m_header);
  return HashOf(m_frame, m_number, m_seed) == HashParts{header.a, header.c, header.d, header.e};
}

}  // namespace penstock
