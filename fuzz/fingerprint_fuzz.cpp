// SPDX-License-Identifier: Apache-2.0
// Decodes arbitrary bytes as a query or an answer, and compares a window with fingerprints of which
// some are right and some are not. What is taken must be within the limits and be encoded to the
// same bytes; the comparison must be the answer that the fingerprints give.
#include <algorithm>
#include <vector>

#include "codec/compare.h"
#include "engine/wire/messages.h"
#include "fuzz/byte_source.h"

namespace {

using penstock::Answer;
using penstock::Bytes;
using penstock::kCompareBytes;
using penstock::Query;
using penstock::Run;

std::uint32_t BlocksOf(std::size_t length) {
  return static_cast<std::uint32_t>((length + kCompareBytes - 1) / kCompareBytes);
}

void CheckSame(const penstock::Frame& again, Bytes payload) {
  FUZZ_CHECK(std::ranges::equal(again.Payload(), payload));
  const auto* limits = penstock::FindFrameLimits(static_cast<std::uint32_t>(again.type));
  FUZZ_CHECK(again.size >= limits->minPayload && again.size <= limits->maxPayload);
}

void TakeQuery(Bytes payload) {
  Query m;
  if (!Decode(payload, m).empty()) return;
  FUZZ_CHECK(m.length >= 1 && m.length <= penstock::kWindowBytes);
  FUZZ_CHECK(m.offset + m.length > m.offset);
  FUZZ_CHECK(m.fingerprints.size() == BlocksOf(m.length));
  FUZZ_CHECK(m.firstBlock + BlocksOf(m.length) > m.firstBlock);
  CheckSame(Encode(m), payload);
}

void TakeAnswer(Bytes payload) {
  Answer m;
  if (!Decode(payload, m).empty()) return;
  FUZZ_CHECK(m.length >= 1 && m.length <= penstock::kWindowBytes);
  FUZZ_CHECK(m.offset + m.length > m.offset);
  FUZZ_CHECK(penstock::RunsCover(m.runs, BlocksOf(m.length)));
  CheckSame(Encode(m), payload);
}

// A window of a few blocks, each filled with one byte, and its last one of any length.
std::vector<std::uint8_t> Window(ByteSource& in) {
  std::vector<std::uint8_t> window;
  for (std::uint32_t i = in.Below(12); i > 0; --i) {
    window.resize(window.size() + kCompareBytes, in.Byte());
  }
  window.resize(window.size() + std::size_t{in.Byte()} * 16 + 1, in.Byte());
  return window;
}

void Compare(ByteSource& in) {
  const std::vector<std::uint8_t> window = Window(in);
  const std::uint64_t seed = in.Byte();
  const std::vector<std::uint64_t> right = penstock::Fingerprints(window, seed);
  FUZZ_CHECK(right.size() == BlocksOf(window.size()));
  std::vector<std::uint64_t> theirs = right;
  for (std::uint64_t& print : theirs) {
    if (in.Flag()) print ^= in.Offset();
  }

  penstock::RunKey key{};
  key[0] = in.Byte();
  penstock::RunHasher hasher(key);
  const std::uint64_t n = in.Offset();
  const std::uint32_t firstBlock = in.Length();
  Answer answer;
  answer.length = static_cast<std::uint32_t>(window.size());
  answer.runs = penstock::CompareWindow(window, theirs, seed, hasher, n, firstBlock);

  FUZZ_CHECK(penstock::RunsCover(answer.runs, BlocksOf(window.size())));
  for (const Run& run : answer.runs) {
    for (std::size_t i = run.firstBlock; i < std::size_t{run.firstBlock} + run.blocks; ++i) {
      FUZZ_CHECK((theirs[i] == right[i]) == run.equal);
    }
    if (!run.equal) continue;
    const auto strong = hasher.Of(n, firstBlock + run.firstBlock, penstock::RunBytes(window, run));
    FUZZ_CHECK(strong.bytes == run.strong.bytes);
  }
  Answer decoded;
  FUZZ_CHECK(Decode(Encode(answer).Payload(), decoded).empty());
  FUZZ_CHECK(decoded.runs == answer.runs);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  ByteSource in(data + 1, size - 1);
  switch (data[0] % 3) {
    case 0: TakeQuery({data + 1, size - 1}); break;
    case 1: TakeAnswer({data + 1, size - 1}); break;
    default: Compare(in); break;
  }
  return 0;
}
