// SPDX-License-Identifier: Apache-2.0
// What the simulation knows of the truth: the source's points, and what the target reported.
#ifndef PENSTOCK_TESTS_SIM_CHECK_H_
#define PENSTOCK_TESTS_SIM_CHECK_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "engine/source_engine.h"
#include "engine/target_engine.h"
#include "tests/sim/disk.h"
#include "tests/sim/world.h"

namespace penstock::sim {

using Point = std::vector<std::uint64_t>;  // the hash of each volume

class Checker {
 public:
  explicit Checker(std::vector<SourceVolume> volumes) : m_volumes(std::move(volumes)) {}

  // A source closed dataset n, with its volumes being so, and sent it with this chain value.
  void Sent(const Digest& chain, const Point& point) { m_points[chain] = point; }
  // A source gave the point a name.
  void Named(const std::string& name, const Point& point) { m_named[name] = point; }
  bool Knows(const Digest& chain) const { return m_points.contains(chain); }

  // The target sent a report. I2, I3.
  void Reported(FrameType type, ConnId conn, const struct Report& report);
  // A state was committed: which datasets it makes durable, and of which source.
  void Committed(const StateChange& change, std::uint64_t epochOfSource);
  // The target has read its state from disk, and later has recovered. I1, I2.
  void Restarted(const std::vector<GroupState>& states, const Disk& disk);
  void Recovered(const GroupStatus& status, const Disk& disk);
  // A dataset of a peer that breaks the rules was acknowledged. I5, I8.
  void RogueAcked(const std::string& how);

  std::uint64_t Acked() const { return m_acked; }
  void ForgetAcked() {
    m_acked = 0;
    m_ackedChain = Digest{};
  }
  std::uint64_t quarantinedBefore = 0;
  bool mayLose = false;  // a fault that no target can see was injected: a committed file is damaged

 private:
  std::vector<SourceVolume> m_volumes;
  std::map<Digest, Point> m_points;
  std::map<std::string, Point> m_named;
  std::map<std::uint64_t, Digest> m_chainOf;  // of committed datasets
  std::uint64_t m_acked = 0;
  Digest m_ackedChain{};
  std::uint64_t m_durable = 0;
  std::map<std::pair<ConnId, FrameType>, std::uint64_t> m_lastReport;
};

}  // namespace penstock::sim

#endif  // PENSTOCK_TESTS_SIM_CHECK_H_
