// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_IDENTITY_H_
#define PENSTOCK_REPLICATOR_IDENTITY_H_

#include <cstddef>
#include <string_view>

namespace penstock {

inline constexpr std::size_t kMaxIdentityBytes = 128;

// Who a peer without TLS is, for the grants. Nobody can prove to be this.
inline constexpr std::string_view kPlaintextIdentity = "plaintext";

// Whether a peer may prove to be `name`: 1 to 128 printable ASCII characters without spaces, `*`
// and
// `#`, and not the word plaintext.
bool IsValidIdentity(std::string_view name);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_IDENTITY_H_
