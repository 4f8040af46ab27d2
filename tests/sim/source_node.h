// SPDX-License-Identifier: Apache-2.0
// A source's machine: an engine, and volumes that its owner writes to.
#ifndef PENSTOCK_TESTS_SIM_SOURCE_NODE_H_
#define PENSTOCK_TESTS_SIM_SOURCE_NODE_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/source_engine.h"
#include "engine/work.h"
#include "tests/sim/check.h"
#include "tests/sim/link.h"
#include "tests/sim/target_node.h"
#include "tests/sim/world.h"

namespace penstock::sim {

class SourceNode {
 public:
  SourceNode(World& world, Link& link, Checker& checker, TargetNode& target, std::string name,
             std::vector<SourceVolume> configured, std::uint64_t resyncBytes);

  void Boot();
  void Crash(const std::string& why);
  bool IsUp() const { return m_engine != nullptr; }
  bool IsStopped() const;  // for good, by the engine's own word
  const SourceEngine* engine() const { return m_engine.get(); }

  // The owner writes: to the volume, and to the engine when it is up and knows its numbers.
  void WriteSomething();
  void WriteUntracked();  // while the source is down
  void CloseDataset();
  void Resync();
  Point Now() const;
  std::vector<std::vector<std::uint8_t>> volumes;

 private:
  void Settle();
  void CarryOut(SourceCommand& command);
  void Fetch(const FetchWindow& command);
  void Observe(std::uint64_t upTo = ~std::uint64_t{0});
  void Timer();
  void TryConnect();

  World& m_world;
  Link& m_link;
  Checker& m_checker;
  TargetNode& m_target;
  std::string m_name;
  std::vector<SourceVolume> m_configured;
  std::uint64_t m_resyncBytes;
  std::unique_ptr<SourceEngine> m_engine;
  std::uint64_t m_boot = 0;
  std::uint64_t m_closed = 0;
  std::map<std::uint64_t, Point> m_points;
  ConnId m_conn = 0;
  SourceStatus m_before;
  bool m_settling = false;
};

}  // namespace penstock::sim

#endif  // PENSTOCK_TESTS_SIM_SOURCE_NODE_H_
