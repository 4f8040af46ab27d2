// SPDX-License-Identifier: Apache-2.0
// The messages that a connection is opened, watched and ended with.
#include <algorithm>
#include <set>
#include <string>
#include <string_view>

#include "engine/wire/byte_coder.h"
#include "engine/wire/messages.h"

namespace penstock {

namespace {

char Printable(char c) { return c >= ' ' && c <= '~' ? c : '?'; }

std::string DecodeHelloVolumes(ByteReader& in, std::vector<HelloVolume>& volumes) {
  const std::size_t count = in.Number<std::uint16_t>();
  if (count > kMaxVolumes) return std::to_string(count) + " volumes";
  constexpr std::size_t kSmallestVolume = 2 + 1 + 8;
  if (!in.Holds(count, kSmallestVolume)) return ByteReader::kEndsTooEarly;
  volumes.reserve(count);
  std::set<std::string_view> names;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string_view name = in.Text();
    const auto size = in.Number<std::uint64_t>();
    if (!IsValidName(name)) return "volume " + std::to_string(i) + " has no valid name";
    if (!names.insert(name).second) return "two volumes have the name " + std::string(name);
    volumes.push_back({std::string(name), size});
  }
  return {};
}

}  // namespace

Frame Encode(const Hello& m) {
  ByteWriter out;
  out.Number(m.version);
  out.Number(static_cast<std::uint8_t>(m.purpose));
  out.Number(m.epoch);
  out.Raw(m.nonce);
  out.Number(m.fingerprintSeed);
  out.Raw(m.runKey);
  out.Text(m.group);
  out.Number(static_cast<std::uint16_t>(m.volumes.size()));
  for (const HelloVolume& volume : m.volumes) {
    out.Text(volume.name);
    out.Number(volume.size);
  }
  return Frame::Of(FrameType::kHello, out.Take());
}

// The layout is that of our version. Of another one only the version is taken, so that its sender
// can be told which one is spoken here.
std::string Decode(Bytes payload, Hello& out) {
  ByteReader in(payload);
  out = {};
  if (payload.size() < sizeof(out.version)) return ByteReader::kEndsTooEarly;
  out.version = in.Number<std::uint16_t>();
  if (out.version != kProtocolVersion) return {};
  const auto purpose = in.Number<std::uint8_t>();
  if (purpose > static_cast<std::uint8_t>(Purpose::kStatus)) {
    return "unknown purpose " + std::to_string(purpose);
  }
  out.purpose = static_cast<Purpose>(purpose);
  out.epoch = in.Number<std::uint64_t>();
  in.RawInto(out.nonce);
  out.fingerprintSeed = in.Number<std::uint64_t>();
  in.RawInto(out.runKey);
  out.group = in.Text();
  const bool ofEveryGroup = out.group.empty() && out.purpose == Purpose::kStatus;
  if (!IsValidName(out.group) && !ofEveryGroup) return "the group has no valid name";
  std::string fault = DecodeHelloVolumes(in, out.volumes);
  return fault.empty() ? in.End() : fault;
}

Frame Encode(const Welcome& m) {
  ByteWriter out;
  out.Number(m.version);
  out.Number(m.epoch);
  out.Raw(m.nonce);
  out.Number(m.durable);
  out.Number(m.applied);
  out.Number(m.flushed);
  out.Raw(m.chain);
  out.Number(m.window);
  out.Number(static_cast<std::uint16_t>(m.volumes.size()));
  for (const WelcomeVolume& volume : m.volumes) {
    out.Number(static_cast<std::uint8_t>(volume.state));
    out.Number(volume.goodAt);
    out.Number(volume.size);
  }
  return Frame::Of(FrameType::kWelcome, out.Take());
}

// Of another version only the version is taken, as of a HELLO.
std::string Decode(Bytes payload, Welcome& out) {
  ByteReader in(payload);
  out = {};
  if (payload.size() < sizeof(out.version)) return ByteReader::kEndsTooEarly;
  out.version = in.Number<std::uint16_t>();
  if (out.version != kProtocolVersion) return {};
  out.epoch = in.Number<std::uint64_t>();
  in.RawInto(out.nonce);
  out.durable = in.Number<std::uint64_t>();
  out.applied = in.Number<std::uint64_t>();
  out.flushed = in.Number<std::uint64_t>();
  in.RawInto(out.chain);
  out.window = in.Number<std::uint64_t>();
  const std::size_t count = in.Number<std::uint16_t>();
  if (count > kMaxVolumes) return std::to_string(count) + " volumes";
  constexpr std::size_t kVolume = 1 + 8 + 8;
  if (!in.Holds(count, kVolume)) return ByteReader::kEndsTooEarly;
  out.volumes.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    const auto state = in.Number<std::uint8_t>();
    if (state > static_cast<std::uint8_t>(VolumeState::kHeld)) {
      return "unknown state " + std::to_string(state) + " of volume " + std::to_string(i);
    }
    const auto goodAt = in.Number<std::uint64_t>();
    const auto size = in.Number<std::uint64_t>();
    out.volumes.push_back({static_cast<VolumeState>(state), goodAt, size});
  }
  return in.End();
}

Frame Encode(FrameType type, const Ping& m) {
  ByteWriter out;
  out.Number(m.token);
  return Frame::Of(type, out.Take());
}

std::string Decode(Bytes payload, Ping& out) {
  ByteReader in(payload);
  out.token = in.Number<std::uint64_t>();
  return in.End();
}

Frame Encode(const Progress& m) {
  ByteWriter out;
  out.Number(m.closed);
  out.Number(m.sent);
  out.Number(m.waiting);
  out.Number(static_cast<std::uint16_t>(m.passed.size()));
  for (const std::uint64_t bytes : m.passed) out.Number(bytes);
  return Frame::Of(FrameType::kProgress, out.Take());
}

std::string Decode(Bytes payload, Progress& out) {
  ByteReader in(payload);
  out = {};
  out.closed = in.Number<std::uint64_t>();
  out.sent = in.Number<std::uint64_t>();
  out.waiting = in.Number<std::uint64_t>();
  const std::size_t count = in.Number<std::uint16_t>();
  if (count > kMaxVolumes) return std::to_string(count) + " volumes";
  if (!in.Holds(count, sizeof(std::uint64_t))) return ByteReader::kEndsTooEarly;
  out.passed.reserve(count);
  for (std::size_t i = 0; i < count; ++i) out.passed.push_back(in.Number<std::uint64_t>());
  return in.End();
}

// A text that is too long loses its end: what went wrong must be told all the same.
Frame Encode(const Error& m) {
  ByteWriter out;
  out.Number(static_cast<std::uint16_t>(m.code));
  out.Number(m.n);
  out.Text(std::string_view(m.text).substr(0, kMaxTextBytes));
  return Frame::Of(FrameType::kError, out.Take());
}

std::string Decode(Bytes payload, Error& out) {
  ByteReader in(payload);
  const auto code = in.Number<std::uint16_t>();
  if (code < static_cast<std::uint16_t>(ErrorCode::kProtocol) ||
      code > static_cast<std::uint16_t>(ErrorCode::kTimeout)) {
    return "unknown code " + std::to_string(code);
  }
  out.code = static_cast<ErrorCode>(code);
  out.n = in.Number<std::uint64_t>();
  out.text = in.Text();
  if (out.text.size() > kMaxTextBytes) {
    return "a text of " + std::to_string(out.text.size()) + " bytes";
  }
  std::ranges::transform(out.text, out.text.begin(), Printable);
  return in.End();
}

Frame EncodeBye() { return Frame::Of(FrameType::kBye, {}); }

Frame EncodeStatusQuery() { return Frame::Of(FrameType::kStatusQuery, {}); }

Frame EncodeStatusReply(std::string_view json) {
  return Frame::Of(FrameType::kStatusReply, {json.begin(), json.end()});
}

}  // namespace penstock
