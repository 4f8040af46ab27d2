// SPDX-License-Identifier: Apache-2.0
#include "replicator/identity.h"

#include <algorithm>

namespace penstock {

bool IsValidIdentity(std::string_view name) {
  if (name.empty() || name.size() > kMaxIdentityBytes || name == kPlaintextIdentity) return false;
  return std::all_of(name.begin(), name.end(),
                     [](char c) { return c > ' ' && c <= '~' && c != '*' && c != '#'; });
}

}  // namespace penstock
