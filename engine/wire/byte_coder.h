// SPDX-License-Identifier: Apache-2.0
// Payloads from numbers and texts, and back. Little-endian whatever the machine.
#ifndef PENSTOCK_ENGINE_WIRE_BYTE_CODER_H_
#define PENSTOCK_ENGINE_WIRE_BYTE_CODER_H_

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "codec/hash.h"

namespace penstock {

class ByteWriter {
 public:
  template <std::unsigned_integral T>
  void Number(T value) {
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      m_bytes.push_back(static_cast<std::uint8_t>(std::uint64_t{value} >> (8 * i)));
    }
  }
  void Raw(Bytes bytes) { m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end()); }
  // REQUIRES: at most 65535 bytes.
  void Text(std::string_view text) {
    Number(static_cast<std::uint16_t>(text.size()));
    m_bytes.insert(m_bytes.end(), text.begin(), text.end());
  }
  std::vector<std::uint8_t> Take() { return std::move(m_bytes); }

 private:
  std::vector<std::uint8_t> m_bytes;
};

// Takes a payload apart. Where bytes are missing it gives zeros and empty texts from there on, and
// End() says so: a decoder checks the values as they come, and the payload's end once.
class ByteReader {
 public:
  explicit ByteReader(Bytes bytes) : m_left(bytes) {}

  template <std::unsigned_integral T>
  T Number() {
    std::uint64_t value = 0;
    const Bytes bytes = Raw(sizeof(T));
    for (std::size_t i = 0; i < bytes.size(); ++i) value |= std::uint64_t{bytes[i]} << (8 * i);
    return static_cast<T>(value);
  }

  // A view of the next `count` bytes; of none when they are not there.
  Bytes Raw(std::size_t count) {
    if (count > m_left.size()) {
      m_isShort = true;
      m_left = {};
      return {};
    }
    const Bytes taken = m_left.first(count);
    m_left = m_left.subspan(count);
    return taken;
  }
  void RawInto(std::span<std::uint8_t> out) { std::ranges::copy(Raw(out.size()), out.begin()); }

  // A view of a text: it may hold any byte.
  std::string_view Text() {
    const Bytes bytes = Raw(Number<std::uint16_t>());
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }

  // Whether `count` things of at least `each` bytes can follow: asked before room is made for them.
  bool Holds(std::size_t count, std::size_t each) const { return count <= m_left.size() / each; }

  // Empty when exactly the payload was taken.
  std::string End() const {
    if (m_isShort) return kEndsTooEarly;
    return m_left.empty() ? std::string() : std::to_string(m_left.size()) + " bytes too many";
  }

  static constexpr const char* kEndsTooEarly = "it ends too early";

 private:
  Bytes m_left;
  bool m_isShort = false;
};

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_WIRE_BYTE_CODER_H_
