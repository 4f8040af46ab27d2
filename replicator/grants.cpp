// SPDX-License-Identifier: Apache-2.0
#include "replicator/grants.h"

#include <algorithm>
#include <array>
#include <utility>

#include "engine/wire/messages.h"
#include "replicator/files.h"
#include "replicator/identity.h"
#include "replicator/log.h"

namespace penstock {

namespace {

constexpr std::string_view kBlanks = " \t\r";
constexpr std::size_t kMaxQuoted = 80;  // bytes of a word in an error's text
constexpr std::uint8_t kAllRights = 7;

std::uint8_t BitOf(Right right) {
  return static_cast<std::uint8_t>(1U << static_cast<std::uint8_t>(right));
}

std::string QuoteWord(std::string_view word) { return "'" + Escape(word, kMaxQuoted) + "'"; }

// Takes the next word from the front of `text`; empty at the end.
std::string_view NextWord(std::string_view& text) {
  const auto begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return text = {};
  text.remove_prefix(begin);
  const auto word = text.substr(0, text.find_first_of(kBlanks));
  text.remove_prefix(word.size());
  return word;
}

std::uint8_t RightOf(std::string_view word) {
  constexpr std::array<std::pair<std::string_view, Right>, 3> kRights{
      {{"replicate", Right::kReplicate}, {"verify", Right::kVerify}, {"status", Right::kStatus}}};
  for (const auto& [name, right] : kRights) {
    if (word == name) return BitOf(right);
  }
  return 0;
}

std::string ParseRights(std::string_view text, std::uint8_t& out) {
  for (;;) {
    const auto word = text.substr(0, text.find(','));
    const auto right = RightOf(word);
    if (right == 0) {
      return "unknown right " + QuoteWord(word) + " (use replicate, verify or status)";
    }
    out |= right;
    if (word.size() == text.size()) return {};
    text.remove_prefix(word.size() + 1);
  }
}

// A name, or the wildcard, which becomes empty.
std::string ParseName(const char* what, std::string_view text, std::string& out) {
  if (text == "*") return {};
  if (!IsValidName(text)) {
    return QuoteWord(text) + " is no name of a " + what +
           " (letters, digits, '.', '_', '-', or '*' alone for all)";
  }
  out = text;
  return {};
}

bool Matches(const std::string& granted, std::string_view asked) {
  return granted.empty() || granted == asked;
}

}  // namespace

Grants Grants::All() {
  Grants all;
  all.m_lines.push_back({{}, {}, {}, kAllRights});
  return all;
}

std::string Grants::ParseLine(std::string_view text, Line& out) {
  const auto identity = NextWord(text);
  const auto place = NextWord(text);
  const auto rights = NextWord(text);
  if (rights.empty()) return "needs three words: IDENTITY GROUP[/VOLUME] RIGHT[,RIGHT]";
  if (const auto more = NextWord(text); !more.empty()) {
    return "unexpected " + QuoteWord(more) + " after the rights (separate rights by ',' only)";
  }
  if (identity != "*") {
    if (!IsValidIdentity(identity) && identity != kPlaintextIdentity) {
      return QuoteWord(identity) + " is no identity ('*' stands alone, for everybody)";
    }
    out.identity = identity;
  }
  const auto slash = place.find('/');
  if (auto fault = ParseName("group", place.substr(0, slash), out.group); !fault.empty()) {
    return fault;
  }
  if (slash != std::string_view::npos) {
    auto fault = ParseName("volume", place.substr(slash + 1), out.volume);
    if (!fault.empty()) return fault;
  }
  return ParseRights(rights, out.rights);
}

std::string Grants::Parse(std::string_view text, Grants& out) {
  if (text.size() > kMaxGrantsBytes) {
    return "too large: at most " + std::to_string(kMaxGrantsBytes) + " bytes";
  }
  Grants grants;
  for (std::size_t number = 1; !text.empty(); ++number) {
    auto line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    line = line.substr(0, line.find('#'));
    if (line.find_first_not_of(kBlanks) == std::string_view::npos) continue;
    const auto where = "line " + std::to_string(number) + ": ";
    if (grants.m_lines.size() == kMaxGrants) {
      return where + "too many grants: at most " + std::to_string(kMaxGrants);
    }
    auto fault = ParseLine(line, grants.m_lines.emplace_back());
    if (!fault.empty()) return where + fault;
  }
  out = std::move(grants);
  return {};
}

std::string Grants::ReadFile(const std::string& path, Grants& out) {
  std::string text;
  auto fault = ReadSmallFile(path, kMaxGrantsBytes, FilePrivacy::kNobodyWrites, text);
  if (!fault.empty()) return fault;
  fault = Parse(text, out);
  return fault.empty() ? fault : path + ": " + fault;
}

bool Grants::Allows(std::string_view identity, std::string_view group, std::string_view volume,
                    Right right) const {
  if (identity.empty() || group.empty()) return false;
  return std::any_of(m_lines.begin(), m_lines.end(), [&](const Line& line) {
    return (line.rights & BitOf(right)) != 0 && Matches(line.identity, identity) &&
           Matches(line.group, group) && Matches(line.volume, volume);
  });
}

}  // namespace penstock
