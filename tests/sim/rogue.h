// SPDX-License-Identifier: Apache-2.0
// A peer with a grant for one volume that does what it must not.
#ifndef PENSTOCK_TESTS_SIM_ROGUE_H_
#define PENSTOCK_TESTS_SIM_ROGUE_H_

#include <cstdint>
#include <memory>
#include <string>

#include "engine/source_engine.h"
#include "tests/sim/link.h"
#include "tests/sim/target_node.h"
#include "tests/sim/world.h"

namespace penstock::sim {

class Rogue : public std::enable_shared_from_this<Rogue> {
 public:
  Rogue(World& world, Link& link, TargetNode& target, std::vector<SourceVolume> volumes)
      : m_world(world), m_link(link), m_target(target), m_volumes(std::move(volumes)) {}

  // Connects and misbehaves in one of its ways. An ACK for it is a broken rule.
  void Attack();

 private:
  enum class Way : std::uint8_t { kUngranted, kCounts, kChain, kOutside, kBody };

  void Greeted(ConnId conn, const Frame& frame);
  const char* Text() const;

  World& m_world;
  Link& m_link;
  TargetNode& m_target;
  std::vector<SourceVolume> m_volumes;
  Way m_way = Way::kCounts;
  Hello m_hello;
};

}  // namespace penstock::sim

#endif  // PENSTOCK_TESTS_SIM_ROGUE_H_
