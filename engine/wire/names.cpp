// SPDX-License-Identifier: Apache-2.0
// Names, the identifiers that they stand for, and the words for states and errors.
#include <algorithm>
#include <span>
#include <string_view>

#include "codec/hash.h"
#include "engine/wire/messages.h"

namespace penstock {

namespace {

// Not the C library's: those follow the locale.
bool IsAlphanumeric(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool IsNameByte(char c) { return IsAlphanumeric(c) || c == '.' || c == '_' || c == '-'; }

void Add(Sha256& hash, std::string_view text) {
  hash.Add({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

UuidT Identifier(Sha256& hash) {
  const Digest digest = hash.Finish();
  UuidT id;
  std::copy_n(digest.begin(), id.bytes.size(), id.bytes.begin());
  return id;
}

}  // namespace

bool IsValidName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxNameBytes && IsAlphanumeric(name.front()) &&
         std::ranges::all_of(name, IsNameByte);
}

UuidT GroupId(std::string_view group) {
  Sha256 hash;
  Add(hash, group);
  return Identifier(hash);
}

UuidT VolumeId(std::string_view group, std::string_view volume) {
  Sha256 hash;
  Add(hash, group);
  Add(hash, "/");
  Add(hash, volume);
  return Identifier(hash);
}

const char* Text(VolumeState state) {
  switch (state) {
    case VolumeState::kNew: return "new";
    case VolumeState::kSyncing: return "syncing";
    case VolumeState::kGood: return "good";
    case VolumeState::kNeedsResync: return "needs resync";
    case VolumeState::kHeld: return "good";
  }
  return "?";
}

const char* Text(ErrorCode code) {
  switch (code) {
    case ErrorCode::kProtocol: return "protocol";
    case ErrorCode::kDamaged: return "damaged";
    case ErrorCode::kRefused: return "refused";
    case ErrorCode::kFenced: return "fenced";
    case ErrorCode::kFork: return "fork";
    case ErrorCode::kNoSpace: return "no space";
    case ErrorCode::kVolume: return "volume";
    case ErrorCode::kBusy: return "busy";
    case ErrorCode::kFailed: return "failed";
    case ErrorCode::kVersion: return "version";
    case ErrorCode::kTimeout: return "timeout";
  }
  return "?";
}

}  // namespace penstock
