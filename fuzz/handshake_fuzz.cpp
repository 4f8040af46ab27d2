// SPDX-License-Identifier: Apache-2.0
// Decodes arbitrary bytes as a greeting or another message without a list of fingerprints. What is
// taken must be within the limits, and be encoded to the same bytes again.
#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "engine/wire/messages.h"
#include "fuzz/byte_source.h"

namespace {

using penstock::Bytes;
using penstock::Frame;
using penstock::FrameType;

void CheckSame(const Frame& again, Bytes payload) {
  FUZZ_CHECK(std::ranges::equal(again.Payload(), payload));
  const auto* limits = penstock::FindFrameLimits(static_cast<std::uint32_t>(again.type));
  FUZZ_CHECK(again.size >= limits->minPayload && again.size <= limits->maxPayload);
}

void TakeHello(Bytes payload) {
  penstock::Hello m;
  if (!Decode(payload, m).empty() || m.version != penstock::kProtocolVersion) return;
  FUZZ_CHECK(m.volumes.size() <= penstock::kMaxVolumes);
  FUZZ_CHECK(penstock::IsValidName(m.group) || m.purpose == penstock::Purpose::kStatus);
  std::set<std::string> names;
  for (const penstock::HelloVolume& volume : m.volumes) {
    FUZZ_CHECK(penstock::IsValidName(volume.name));
    FUZZ_CHECK(names.insert(volume.name).second);
  }
  CheckSame(Encode(m), payload);
}

void TakeWelcome(Bytes payload) {
  penstock::Welcome m;
  if (!Decode(payload, m).empty() || m.version != penstock::kProtocolVersion) return;
  FUZZ_CHECK(m.volumes.size() <= penstock::kMaxVolumes);
  for (const penstock::WelcomeVolume& volume : m.volumes) {
    FUZZ_CHECK(std::string(Text(volume.state)) != "?");
  }
  CheckSame(Encode(m), payload);
}

void TakeError(Bytes payload) {
  penstock::Error m;
  if (!Decode(payload, m).empty()) return;
  FUZZ_CHECK(std::string(Text(m.code)) != "?");
  FUZZ_CHECK(m.text.size() <= penstock::kMaxTextBytes);
  FUZZ_CHECK(std::ranges::all_of(m.text, [](char c) { return c >= ' ' && c <= '~'; }));
  // The text's bytes may be others than those that came; everything else is the same.
  std::vector<std::uint8_t> printable(payload.begin(), payload.end());
  std::copy(m.text.begin(), m.text.end(),
            printable.end() - static_cast<std::ptrdiff_t>(m.text.size()));
  CheckSame(Encode(m), printable);
}

void TakeStart(Bytes payload) {
  penstock::DatasetStart m;
  if (!Decode(payload, m).empty()) return;
  FUZZ_CHECK(m.volumes.size() <= penstock::kMaxVolumes);
  FUZZ_CHECK(m.datasetType == 0 || m.datasetType == 2);
  CheckSame(Encode(m), payload);
}

template <class Message, class... Type>
void TakeAny(Bytes payload, Type... type) {
  Message m;
  if (Decode(payload, m).empty()) CheckSame(Encode(type..., m), payload);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const Bytes payload(data + 1, size - 1);
  switch (data[0] % 8) {
    case 0: TakeHello(payload); break;
    case 1: TakeWelcome(payload); break;
    case 2: TakeError(payload); break;
    case 3: TakeStart(payload); break;
    case 4: TakeAny<penstock::DatasetEnd>(payload); break;
    case 5: TakeAny<penstock::Report>(payload, FrameType::kAck); break;
    case 6: TakeAny<penstock::Progress>(payload); break;
    default: TakeAny<penstock::Ping>(payload, FrameType::kPing); break;
  }
  return 0;
}
