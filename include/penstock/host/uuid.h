// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_HOST_UUID_H_
#define PENSTOCK_HOST_UUID_H_

#include <array>
#include <bit>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

#include "penstock/export.h"

// A volume's 16-byte identifier, as a plain value.
//
// Threads: as any value.
struct UuidT {
  std::array<std::uint8_t, 16> bytes{};

  friend bool operator==(const UuidT&, const UuidT&) = default;
};

// 2^64 divided by the golden ratio: the constant of the mixing step of every hash here.
inline constexpr std::uint64_t kHashCombineConstant = 0x9e3779b97f4a7c15U;

// Hash of a volume's identifier: its two halves, read as little-endian words, mixed one after the
// other. Unkeyed: bound the number of volumes that a stranger may name.
template <>
struct std::hash<UuidT> {
  std::size_t operator()(const UuidT& uuid) const noexcept {
    const auto words = std::bit_cast<std::array<std::uint64_t, 2>>(uuid.bytes);
    std::uint64_t seed = words[0] + kHashCombineConstant;
    seed ^= words[1] + kHashCombineConstant + (seed << 6U) + (seed >> 2U);
    return seed;
  }
};

// The object form of an identifier, for text and paths.
//
// Threads: as any value.
class PENSTOCK_HOST_EXPORT UUID {
 public:
  // Returns the object form of `uuid`.
  static UUID MakeUUID(const UuidT& uuid);

  // Returns the canonical text: lower-case hexadecimal digits of the 16 bytes in memory order,
  // grouped 8-4-4-4-12.
  std::string String() const;

  friend auto operator<=>(const UUID& a, const UUID& b) { return a.m_bytes <=> b.m_bytes; }
  friend bool operator==(const UUID& a, const UUID& b) { return a.m_bytes == b.m_bytes; }

 private:
  explicit UUID(const std::array<std::uint8_t, 16>& bytes) : m_bytes(bytes) {}

  std::array<std::uint8_t, 16> m_bytes;
};

// Writes `uuid.String()`.
//
// Threads: any.
PENSTOCK_HOST_EXPORT std::ostream& operator<<(std::ostream& out, const UUID& uuid);

#endif  // PENSTOCK_HOST_UUID_H_
