// SPDX-License-Identifier: Apache-2.0
// Reads any text as a grants file, and asks for every combination of the words in it. What is
// allowed must stand in a line, read here in the simplest way.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/byte_source.h"
#include "replicator/grants.h"

namespace {

using penstock::Grants;
using penstock::Right;

struct Words {
  std::string identity, group, volume, rights;
};

const char* Name(Right right) {
  switch (right) {
    case Right::kReplicate: return "replicate";
    case Right::kVerify: return "verify";
    case Right::kStatus: return "status";
  }
  return "";
}

// The three words of each line that is no comment; a group without volume is one with the wildcard.
std::vector<Words> LinesOf(const std::string& text) {
  std::vector<Words> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    line = line.substr(0, line.find('#'));
    std::replace_if(
        line.begin(), line.end(), [](char c) { return c == '\t' || c == '\r'; }, ' ');
    std::vector<std::string> words;
    std::istringstream parts(line);
    for (std::string word; std::getline(parts, word, ' ');) {
      if (!word.empty()) words.push_back(word);
    }
    if (words.empty()) continue;
    words.resize(3);
    const auto slash = words[1].find('/');
    lines.push_back({words[0], words[1].substr(0, slash),
                     slash == std::string::npos ? "*" : words[1].substr(slash + 1), words[2]});
  }
  return lines;
}

bool IsGranted(const std::vector<Words>& lines, const std::string& identity,
               const std::string& group, const std::string& volume, Right right) {
  return std::any_of(lines.begin(), lines.end(), [&](const Words& line) {
    const auto rights = "," + line.rights + ",";
    return (line.identity == "*" || line.identity == identity) &&
           (line.group == "*" || line.group == group) &&
           (line.volume == "*" || line.volume == volume) &&
           rights.find("," + std::string(Name(right)) + ",") != std::string::npos;
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Grants grants;
  const auto fault = Grants::Parse(text, grants);
  FUZZ_CHECK(fault.empty() || grants.Size() == 0);
  FUZZ_CHECK(std::all_of(fault.begin(), fault.end(), [](char c) { return c >= ' ' && c <= '~'; }));
  const auto lines = LinesOf(text);
  std::set<std::string> identities{"nobody"};
  std::set<std::string> groups{"g"};
  std::set<std::string> volumes{"", "v"};
  constexpr std::size_t kMost = 12;
  for (const auto& line : lines) {
    if (identities.size() < kMost) identities.insert(line.identity);
    if (groups.size() < kMost) groups.insert(line.group);
    if (volumes.size() < kMost) volumes.insert(line.volume);
  }
  for (const auto& identity : identities) {
    for (const auto& group : groups) {
      for (const auto& volume : volumes) {
        for (const auto right : {Right::kReplicate, Right::kVerify, Right::kStatus}) {
          const bool isAllowed = grants.Allows(identity, group, volume, right);
          const bool isMeant = fault.empty() && !identity.empty() && !group.empty() &&
                               IsGranted(lines, identity, group, volume, right);
          FUZZ_CHECK(isAllowed == isMeant);
        }
      }
    }
  }
  return 0;
}
