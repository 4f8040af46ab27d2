// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_GRANTS_H_
#define PENSTOCK_REPLICATOR_GRANTS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "engine/target_parts.h"

namespace penstock {

inline constexpr std::size_t kMaxGrantsBytes = 1U << 20U;  // of a file
inline constexpr std::size_t kMaxGrants = 10'000;          // lines that grant something

// Who may do what. A file of lines
//
//   IDENTITY GROUP[/VOLUME] RIGHT[,RIGHT]...      # rights: replicate, verify, status
//
// `*` in the place of the identity, group or volume, as the whole word, stands for each; a group
// without volume for all of its volumes. What no line grants is denied. No right includes another.
//
// Threads: as any value.
class Grants {
 public:
  // Denies everything.
  Grants() = default;
  // Grants everything to everybody: for a target without a grants file, whose peers have all proved
  // to hold a certificate of its CA or one of its keys.
  static Grants All();

  // Returns an empty text, or what is wrong: "line 3: unknown right 'write' (use replicate, verify
  // or status)". `out` is replaced on success only.
  static std::string Parse(std::string_view text, Grants& out);
  // The same of a file, which nobody but its owner and group may write.
  static std::string ReadFile(const std::string& path, Grants& out);

  // Whether a line grants `right` on the volume to `identity`; with an empty volume, on the whole
  // group. Cost: of the number of lines.
  bool Allows(std::string_view identity, std::string_view group, std::string_view volume,
              Right right) const;

  std::size_t Size() const { return m_lines.size(); }

 private:
  // An empty text is the wildcard.
  struct Line {
    std::string identity;
    std::string group;
    std::string volume;
    std::uint8_t rights = 0;  // a bit each
  };
  static std::string ParseLine(std::string_view text, Line& out);

  std::vector<Line> m_lines;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_GRANTS_H_
