// SPDX-License-Identifier: Apache-2.0
#include <charconv>
#include <string_view>

#include "codec/block.h"

namespace penstock {

namespace {

constexpr std::string_view kZstdLevel = "zstd:";
constexpr int kMaxLevel = 19;  // those above need a window that is larger than a block

// A level as a person writes it: digits only, none of them a leading zero.
std::optional<int> ParseLevel(std::string_view text) {
  if (text.empty() || text.front() < '1' || text.front() > '9') return std::nullopt;
  int level = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), level);
  if (error != std::errc{} || end != text.data() + text.size() || level > kMaxLevel) {
    return std::nullopt;
  }
  return level;
}

}  // namespace

std::optional<CompressSpec> CompressSpec::Parse(const std::string& text) {
  CompressSpec spec;
  if (text == "none") return spec;
  if (text == "lz4" || text == "auto") {
    spec.codec = Codec::kLz4;
    spec.automatic = text == "auto";
    return spec;
  }
  spec.codec = Codec::kZstd;
  if (text == "zstd") return spec;
  if (!text.starts_with(kZstdLevel)) return std::nullopt;
  const std::optional<int> level = ParseLevel(std::string_view(text).substr(kZstdLevel.size()));
  if (!level) return std::nullopt;
  spec.level = *level;
  return spec;
}

std::string CompressSpec::Text() const {
  if (automatic) return "auto";
  switch (codec) {
    case Codec::kLz4: return "lz4";
    case Codec::kZstd: return std::string(kZstdLevel) + std::to_string(level);
    case Codec::kZero:
    case Codec::kRaw: break;
  }
  return "none";
}

}  // namespace penstock
