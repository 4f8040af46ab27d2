// SPDX-License-Identifier: Apache-2.0
// Files with pre-shared keys: a line a key, `IDENTITY:HEX`, 64 hexadecimal digits.
#ifndef PENSTOCK_REPLICATOR_PSK_H_
#define PENSTOCK_REPLICATOR_PSK_H_

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace penstock {

inline constexpr std::size_t kPskBytes = 32;
inline constexpr std::size_t kMaxPskKeys = 1024;  // of a file

struct PskKey {
  std::string identity;
  std::array<std::uint8_t, kPskBytes> key{};
};

// Reads the text of a file: lines, empty ones and comments (#) left out. Identities are valid and
// differ. Returns an empty text, or what is wrong, with the line's number and without any key.
std::string ParsePsk(std::string_view text, std::vector<PskKey>& out);

// Reads a file that nobody but its owner may read. Returns an empty text, or what is wrong and what
// to do: "/x/key is readable by others; run: chmod 600 /x/key". `out` has at least one key then.
std::string ReadPskFile(const std::string& path, std::vector<PskKey>& out);

// Draws a key and writes it to a new file of mode 0600, synced. Returns an empty text, or why not:
// a file that exists is left alone.
std::string WritePskFile(const std::string& path, const std::string& identity);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_PSK_H_
