// SPDX-License-Identifier: Apache-2.0
#include "codec/hash.h"

#include <xxhash.h>

#include <array>
#include <memory>
#include <new>

#ifdef __x86_64__
// Redirects the calls below to the ones that choose their instructions when the program runs.
#include <xxh_x86dispatch.h>
#endif

namespace penstock {

namespace {

// The library chooses at the first hash of a long input. That one is made before main, while there
// is a single thread, so that no two threads choose at the same time.
[[maybe_unused]] const std::uint64_t kInstructionsChosen = [] {
  constexpr std::array<std::uint8_t, 1024> kLong{};
  return Hash64(kLong);
}();

struct FreeState {
  void operator()(XXH3_state_t* state) const { XXH3_freeState(state); }
};

}  // namespace

std::uint64_t Hash64(Bytes data, std::uint64_t seed) {
  return XXH3_64bits_withSeed(data.data(), data.size(), seed);
}

struct Hash64Stream::State {
  std::unique_ptr<XXH3_state_t, FreeState> xxh;
};

Hash64Stream::Hash64Stream(std::uint64_t seed) : m_state(std::make_unique<State>()) {
  m_state->xxh.reset(XXH3_createState());
  if (!m_state->xxh) throw std::bad_alloc();
  XXH3_64bits_reset_withSeed(m_state->xxh.get(), seed);
}

Hash64Stream::~Hash64Stream() = default;

void Hash64Stream::Add(Bytes data) {
  // Without this the hash of no bytes at a null address would be an error, and ignored.
  if (data.empty()) return;
  XXH3_64bits_update(m_state->xxh.get(), data.data(), data.size());
}

std::uint64_t Hash64Stream::Value() const { return XXH3_64bits_digest(m_state->xxh.get()); }

}  // namespace penstock
