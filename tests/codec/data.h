// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_CODEC_DATA_H_
#define PENSTOCK_TESTS_CODEC_DATA_H_

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "codec/hash.h"

// Data for the tests of the codecs.

using ByteString = std::vector<std::uint8_t>;

// A source of chance that prints its seed; PENSTOCK_SEED repeats a run.
inline std::mt19937_64 Chance() {
  const char* given = std::getenv("PENSTOCK_SEED");
  const std::uint64_t seed =
      given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device{}();
  std::cout << "PENSTOCK_SEED=" << seed << std::endl;
  return std::mt19937_64(seed);
}

// Data that nothing compresses: the same for the same seed.
inline ByteString Noise(std::size_t size, std::uint64_t seed = 1) {
  std::mt19937_64 random(seed);
  ByteString bytes(size);
  for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
  return bytes;
}

// Data that every codec compresses well, without a zero in it.
inline ByteString Prose(std::size_t size) {
  constexpr const char* kSentence = "the quick brown fox jumps over the lazy dog, number ";
  std::string text;
  for (int i = 0; text.size() < size; ++i) text += kSentence + std::to_string(i) + "\n";
  return {text.begin(), text.begin() + static_cast<std::ptrdiff_t>(size)};
}

inline ByteString Zeros(std::size_t size) { return ByteString(size); }

inline ByteString Join(const std::vector<ByteString>& parts) {
  ByteString all;
  for (const ByteString& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

inline ByteString Copy(penstock::Bytes bytes) { return {bytes.begin(), bytes.end()}; }

inline penstock::Bytes Chars(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// "2d06800538d394c2": the bytes in order, two lower-case digits each.
inline std::string Hex(penstock::Bytes bytes) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 15U];
  }
  return text;
}

inline ByteString FromHex(const std::string& text) {
  ByteString bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

#endif  // PENSTOCK_TESTS_CODEC_DATA_H_
