// SPDX-License-Identifier: Apache-2.0
// What a target says of its groups: as JSON, which travels, and as a table of it for people.
#ifndef PENSTOCK_REPLICATOR_STATUS_JSON_H_
#define PENSTOCK_REPLICATOR_STATUS_JSON_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "engine/target_parts.h"

namespace penstock {

// One line of JSON: {"groups": [...]}. `wallMs` is the time now, for the lag.
std::string StatusText(const std::vector<GroupStatus>& groups, std::uint64_t wallMs);

// How far a group's copies are behind, in seconds: nothing when everything that came is flushed.
std::uint64_t LagSeconds(const GroupStatus& status, std::uint64_t wallMs);

// The same of a state that no target has open.
GroupStatus StatusOf(const GroupState& state);

// Of a text that came from a peer: the table, or the same JSON again when `asJson`. Everything in
// it is looked at before it is believed. Returns an empty text, or what is wrong.
std::string ShowStatus(std::string_view json, bool asJson, std::string& out);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_STATUS_JSON_H_
