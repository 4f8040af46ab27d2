// SPDX-License-Identifier: Apache-2.0
// The messages about datasets: their frame, the reports on them, and the comparison of windows.
#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include "engine/wire/byte_coder.h"
#include "engine/wire/messages.h"

namespace penstock {

namespace {

constexpr std::uint32_t kKnownFlags = kStartSyncComplete | kStartConsistent | kStartPassBegins;

std::uint32_t BlocksOf(std::uint32_t length) { return (length - 1) / kCompareBytes + 1; }

// What is wrong with the window of a query or an answer; empty: nothing.
std::string WindowFault(std::uint64_t offset, std::uint32_t length) {
  if (length == 0 || length > kWindowBytes) {
    return "a window of " + std::to_string(length) + " bytes";
  }
  if (offset > std::numeric_limits<std::uint64_t>::max() - length) {
    return "a window at " + std::to_string(offset);
  }
  return {};
}

bool AreUnique(std::vector<UuidT> volumes) {
  std::ranges::sort(volumes, {}, &UuidT::bytes);
  return std::ranges::adjacent_find(volumes) == volumes.end();
}

// A byte that is 0 or 1. Returns whether it is.
bool DecodeFlag(ByteReader& in, bool& out) {
  const auto byte = in.Number<std::uint8_t>();
  out = byte != 0;
  return byte <= 1;
}

std::string DecodeRuns(ByteReader& in, std::uint32_t blocks, std::vector<Run>& runs) {
  const std::size_t count = in.Number<std::uint16_t>();
  if (count > blocks) return std::to_string(count) + " runs";
  constexpr std::size_t kSmallestRun = 2 + 2 + 1;
  if (!in.Holds(count, kSmallestRun)) return ByteReader::kEndsTooEarly;
  runs.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    Run run;
    run.firstBlock = in.Number<std::uint16_t>();
    run.blocks = in.Number<std::uint16_t>();
    if (!DecodeFlag(in, run.equal))
      return "run " + std::to_string(i) + " is neither equal nor different";
    if (run.equal) in.RawInto(run.strong.bytes);
    runs.push_back(run);
  }
  std::string fault = in.End();
  if (fault.empty() && !RunsCover(runs, blocks)) return "runs that don't cover the window";
  return fault;
}

}  // namespace

Frame Encode(const DatasetStart& m) {
  ByteWriter out;
  out.Number(m.n);
  out.Number(m.timestampMs);
  out.Raw(m.group.bytes);
  out.Number(m.datasetType);
  out.Number(m.flags);
  out.Number(static_cast<std::uint16_t>(m.volumes.size()));
  out.Number(kStartFormatVersion);
  for (const UuidT& volume : m.volumes) out.Raw(volume.bytes);
  return Frame::Of(FrameType::kDatasetStart, out.Take());
}

std::string Decode(Bytes payload, DatasetStart& out) {
  ByteReader in(payload);
  out.n = in.Number<std::uint64_t>();
  out.timestampMs = in.Number<std::uint64_t>();
  in.RawInto(out.group.bytes);
  out.datasetType = in.Number<std::uint32_t>();
  out.flags = in.Number<std::uint32_t>();
  const std::size_t count = in.Number<std::uint16_t>();
  const auto version = in.Number<std::uint16_t>();
  if (!in.Holds(count, sizeof(UuidT))) return ByteReader::kEndsTooEarly;
  if (count > kMaxVolumes) return std::to_string(count) + " volumes";
  out.volumes.assign(count, {});
  for (UuidT& volume : out.volumes) in.RawInto(volume.bytes);
  std::string fault = in.End();
  if (!fault.empty()) return fault;

  if (version != kStartFormatVersion) return "format version " + std::to_string(version);
  if (out.datasetType != 0 && out.datasetType != 2) {
    return "dataset type " + std::to_string(out.datasetType);
  }
  if ((out.flags & ~kKnownFlags) != 0) {
    return "flags " + std::to_string(out.flags);
  }
  return AreUnique(out.volumes) ? std::string() : "a volume twice";
}

Frame Encode(const DatasetEnd& m) {
  ByteWriter out;
  out.Number(m.n);
  out.Number(m.blocks);
  out.Number(m.extents);
  out.Number(m.rawBytes);
  out.Raw(m.chain);
  out.Text(m.name);
  return Frame::Of(FrameType::kDatasetEnd, out.Take());
}

std::string Decode(Bytes payload, DatasetEnd& out) {
  ByteReader in(payload);
  out.n = in.Number<std::uint64_t>();
  out.blocks = in.Number<std::uint32_t>();
  out.extents = in.Number<std::uint64_t>();
  out.rawBytes = in.Number<std::uint64_t>();
  in.RawInto(out.chain);
  out.name = in.Text();
  if (!out.name.empty() && !IsPointName(out.name)) return "a point with a name that is none";
  return in.End();
}

bool IsPointName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxPointNameBytes &&
         std::ranges::all_of(name, [](char c) { return c >= ' ' && c <= '~'; });
}

Frame Encode(FrameType type, const Report& m) {
  ByteWriter out;
  out.Number(m.n);
  out.Number(static_cast<std::uint8_t>(m.success ? 1 : 0));
  out.Number(static_cast<std::uint8_t>(m.empty ? 1 : 0));
  out.Raw(m.chain);
  return Frame::Of(type, out.Take());
}

std::string Decode(Bytes payload, Report& out) {
  ByteReader in(payload);
  out.n = in.Number<std::uint64_t>();
  if (!DecodeFlag(in, out.success)) return "success is neither 0 nor 1";
  if (!DecodeFlag(in, out.empty)) return "empty is neither 0 nor 1";
  in.RawInto(out.chain);
  return in.End();
}

Frame Encode(const Query& m) {
  ByteWriter out;
  out.Number(m.n);
  out.Number(m.volume);
  out.Number(m.offset);
  out.Number(m.length);
  out.Number(m.firstBlock);
  for (const std::uint64_t fingerprint : m.fingerprints) out.Number(fingerprint);
  return Frame::Of(FrameType::kQuery, out.Take());
}

std::string Decode(Bytes payload, Query& out) {
  ByteReader in(payload);
  out.n = in.Number<std::uint64_t>();
  out.volume = in.Number<std::uint8_t>();
  out.offset = in.Number<std::uint64_t>();
  out.length = in.Number<std::uint32_t>();
  out.firstBlock = in.Number<std::uint32_t>();
  std::string fault = WindowFault(out.offset, out.length);
  if (!fault.empty()) return fault;
  const std::uint32_t blocks = BlocksOf(out.length);
  if (out.firstBlock > std::numeric_limits<std::uint32_t>::max() - blocks) {
    return "a window at block " + std::to_string(out.firstBlock);
  }
  if (!in.Holds(blocks, sizeof(std::uint64_t))) return ByteReader::kEndsTooEarly;
  out.fingerprints.assign(blocks, 0);
  for (std::uint64_t& fingerprint : out.fingerprints) fingerprint = in.Number<std::uint64_t>();
  return in.End();
}

Frame Encode(const Answer& m) {
  ByteWriter out;
  out.Number(m.n);
  out.Number(m.volume);
  out.Number(m.offset);
  out.Number(m.length);
  out.Number(static_cast<std::uint16_t>(m.runs.size()));
  for (const Run& run : m.runs) {
    out.Number(run.firstBlock);
    out.Number(run.blocks);
    out.Number(static_cast<std::uint8_t>(run.equal ? 1 : 0));
    if (run.equal) out.Raw(run.strong.bytes);
  }
  return Frame::Of(FrameType::kAnswer, out.Take());
}

std::string Decode(Bytes payload, Answer& out) {
  ByteReader in(payload);
  out.n = in.Number<std::uint64_t>();
  out.volume = in.Number<std::uint8_t>();
  out.offset = in.Number<std::uint64_t>();
  out.length = in.Number<std::uint32_t>();
  out.runs.clear();
  std::string fault = WindowFault(out.offset, out.length);
  return fault.empty() ? DecodeRuns(in, BlocksOf(out.length), out.runs) : fault;
}

}  // namespace penstock
