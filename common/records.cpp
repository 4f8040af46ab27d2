// SPDX-License-Identifier: Apache-2.0
#include "penstock/records.h"

#include <array>
#include <charconv>
#include <ostream>
#include <string>
#include <string_view>

namespace {

// Room for 64 bits in any base from 8 up.
using Digits = std::array<char, 24>;

std::string_view ToDigits(std::uint64_t value, int base, Digits& buffer) {
  const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, base).ptr;
  return {buffer.data(), static_cast<std::size_t>(end - buffer.data())};
}

}  // namespace

// Every buffer admitted is written by two log records, so the text is put together by hand and
// written in one piece: a third of the time of a formatted insertion for each part.
std::ostream& operator<<(std::ostream& out, const InternalData& buf) {
  Digits digits;
  std::string text;
  text.reserve(112);
  text += "InternalData[v=";
  text += UUID::MakeUUID(buf.volume).String();
  text += buf.offset == 0 ? " o: " : " o: 0x";
  text += ToDigits(buf.offset, 16, digits);
  text += ", l=";
  text += ToDigits(buf.length, 10, digits);
  text += ']';
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
  out.setf(std::ios_base::dec | std::ios_base::showbase,
           std::ios_base::basefield | std::ios_base::showbase);
  return out;
}

std::ostream& operator<<(std::ostream& out, const BufFingerprint& fp) {
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string text = " Fingerprint[";
  for (const std::uint8_t byte : fp.bytes) {
    text += kDigits[byte & 0x0fU];  // the low nibble first: the established form in logs
    text += kDigits[byte >> 4U];
  }
  text += ']';
  return out.write(text.data(), static_cast<std::streamsize>(text.size()));
}
