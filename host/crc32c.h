// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_HOST_CRC32C_H_
#define PENSTOCK_HOST_CRC32C_H_

#include <array>
#include <cstddef>
#include <cstdint>

// CRC-32C (Castagnoli, reflected polynomial 0x82F63B78, RFC 3720 appendix B.4), a table of 256
// entries: headers are 24 bytes, so a faster one would not show.

constexpr std::array<std::uint32_t, 256> MakeCrc32cTable() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1U) ^ ((crc & 1U) != 0 ? 0x82F63B78U : 0U);
    table[byte] = crc;
  }
  return table;
}

inline std::uint32_t Crc32c(const std::uint8_t* data, std::size_t size) {
  static constexpr std::array<std::uint32_t, 256> kTable = MakeCrc32cTable();
  std::uint32_t crc = 0xFFFFFFFFU;
  for (std::size_t i = 0; i < size; ++i) crc = (crc >> 8U) ^ kTable[(crc ^ data[i]) & 0xFFU];
  return ~crc;
}

#endif  // PENSTOCK_HOST_CRC32C_H_
