// SPDX-License-Identifier: Apache-2.0
#include "replicator/psk.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <algorithm>

#include "replicator/files.h"
#include "replicator/identity.h"

namespace penstock {

namespace {

constexpr std::size_t kMaxPskFileBytes = 1U << 20U;
constexpr std::string_view kKeyBlanks = " \t\r";
constexpr char kDigits[] = "0123456789abcdef";

// Overwrites a text that held keys.
class Wiped {
 public:
  Wiped() = default;
  ~Wiped() { OPENSSL_cleanse(text.data(), text.size()); }
  Wiped(const Wiped&) = delete;
  Wiped& operator=(const Wiped&) = delete;
  std::string text;
};

int DigitOf(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string ParseLine(std::string_view line, PskKey& out) {
  const auto colon = line.rfind(':');
  if (colon == std::string_view::npos) return "needs IDENTITY:KEY";
  if (!IsValidIdentity(line.substr(0, colon))) return "no valid identity before the ':'";
  out.identity = line.substr(0, colon);
  const auto digits = line.substr(colon + 1);
  if (digits.size() != 2 * kPskBytes) return "the key must be 64 hexadecimal digits";
  for (std::size_t i = 0; i < kPskBytes; ++i) {
    const int high = DigitOf(digits[2 * i]);
    const int low = DigitOf(digits[2 * i + 1]);
    if (high < 0 || low < 0) return "the key must be 64 hexadecimal digits";
    out.key[i] = static_cast<std::uint8_t>(high * 16 + low);
  }
  return {};
}

std::string_view Trim(std::string_view line) {
  line = line.substr(0, line.find('#'));
  const auto begin = line.find_first_not_of(kKeyBlanks);
  if (begin == std::string_view::npos) return {};
  return line.substr(begin, line.find_last_not_of(kKeyBlanks) - begin + 1);
}

}  // namespace

std::string ParsePsk(std::string_view text, std::vector<PskKey>& out) {
  std::vector<PskKey> keys;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const auto whole = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(whole.size() + 1, text.size()));
    const auto line = Trim(whole);
    if (line.empty()) continue;
    const auto where = "line " + std::to_string(number) + ": ";
    if (keys.size() == kMaxPskKeys) {
      return where + "too many keys: at most " + std::to_string(kMaxPskKeys);
    }
    PskKey key;
    if (auto fault = ParseLine(line, key); !fault.empty()) return where + fault;
    if (std::any_of(keys.begin(), keys.end(),
                    [&](const PskKey& other) { return other.identity == key.identity; })) {
      return where + "the identity was given before";
    }
    keys.push_back(std::move(key));
  }
  out = std::move(keys);
  return {};
}

std::string ReadPskFile(const std::string& path, std::vector<PskKey>& out) {
  Wiped file;
  auto fault = ReadSmallFile(path, kMaxPskFileBytes, FilePrivacy::kNobodyReads, file.text);
  if (!fault.empty()) return fault;
  fault = ParsePsk(file.text, out);
  if (!fault.empty()) return path + ": " + fault;
  if (out.empty()) return path + " holds no key; make one with: penstock keygen --psk NEWFILE";
  return {};
}

std::string WritePskFile(const std::string& path, const std::string& identity) {
  if (!IsValidIdentity(identity)) {
    return "no valid identity for a key: 1 to 128 printable characters without spaces, '*' and '#'";
  }
  std::array<std::uint8_t, kPskBytes> key{};
  if (RAND_priv_bytes(key.data(), static_cast<int>(key.size())) != 1) {
    return "the system has no random numbers";
  }
  Wiped file;
  file.text.reserve(identity.size() + 2 * kPskBytes + 2);
  file.text = identity + ":";
  for (const auto byte : key) {
    file.text += kDigits[byte / 16U];
    file.text += kDigits[byte % 16U];
  }
  file.text += '\n';
  OPENSSL_cleanse(key.data(), key.size());
  return WriteNewFile(path, file.text);
}

}  // namespace penstock
