// SPDX-License-Identifier: Apache-2.0
#include "penstock/host/uuid.h"

#include <ostream>
#include <string_view>

UUID UUID::MakeUUID(const UuidT& uuid) { return UUID(uuid.bytes); }

std::string UUID::String() const {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text(36, '-');
  std::size_t at = 0;
  for (const std::uint8_t byte : m_bytes) {
    if (at == 8 || at == 13 || at == 18 || at == 23) ++at;  // 8-4-4-4-12
    text[at++] = kDigits[byte >> 4U];
    text[at++] = kDigits[byte & 0x0fU];
  }
  return text;
}

std::ostream& operator<<(std::ostream& out, const UUID& uuid) { return out << uuid.String(); }
