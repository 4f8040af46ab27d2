// SPDX-License-Identifier: Apache-2.0
#include "tests/sim/check.h"

#include <algorithm>

namespace penstock::sim {

namespace {
std::string N(std::uint64_t n) { return std::to_string(n); }
}  // namespace

void Checker::Reported(FrameType type, ConnId conn, const struct Report& report) {
  std::uint64_t& last = m_lastReport[{conn, type}];
  SIM_CHECK(report.n > last || report.n == 0,
            "I3: " + std::string(Name(type)) + " of " + N(report.n) + " after " + N(last));
  last = report.n;
  if (type != FrameType::kAck) {
    SIM_CHECK(report.n <= m_acked || report.n <= m_durable,
              "I3: " + std::string(Name(type)) + " of a dataset that was not acknowledged");
    return;
  }
  m_acked = std::max(m_acked, report.n);
  m_ackedChain = report.chain;
}

void Checker::Committed(const StateChange& change, std::uint64_t epochOfSource) {
  SIM_CHECK(change.flushed <= change.durable, "I3: flushed beyond durable");
  if (change.durable > m_durable) {
    SIM_CHECK(
        epochOfSource == 0 || epochOfSource >= change.epoch,
        "I1: a source of epoch " + N(epochOfSource) + " writes into epoch " + N(change.epoch));
  }
  m_durable = change.durable;
  for (const JournalRecord& record : change.addJournal) m_chainOf[record.n] = record.chain;
  m_chainOf[change.durable] = change.chain;
  for (const PointRecord& point : change.addPoints) {
    const auto named = m_named.find(point.name);
    SIM_CHECK(named != m_named.end(), "I1: a point has a name that nobody gave: " + point.name);
    const auto chain = m_chainOf.find(point.n);
    if (chain == m_chainOf.end()) continue;  // committed with later ones, and flushed at once
    SIM_CHECK(m_points.contains(chain->second) && m_points.at(chain->second) == named->second,
              "I1: point " + N(point.n) + " is not the one that was called " + point.name);
  }
}

void Checker::Restarted(const std::vector<GroupState>& states, const Disk&) {
  m_lastReport.clear();
  if (states.empty()) {
    SIM_CHECK(m_acked == 0,
              "I2: dataset " + N(m_acked) + " was acknowledged and the group is gone");
    return;
  }
  const GroupState& state = states.front();
  SIM_CHECK(state.durable >= m_acked, "I2: dataset " + N(m_acked) + " was acknowledged, and only " +
                                          N(state.durable) + " are durable after a restart");
  m_durable = state.durable;
  m_chainOf[state.durable] = state.chain;
  for (const JournalRecord& record : state.journal) m_chainOf[record.n] = record.chain;
}

void Checker::Recovered(const GroupStatus& status, const Disk& disk) {
  const GroupState& state = status.state;
  if (state.counters.quarantined > quarantinedBefore) {
    SIM_CHECK(mayLose, "I2: a committed journal file is missing or damaged");
    quarantinedBefore = state.counters.quarantined;
  }
  std::uint64_t same = 0;
  for (std::size_t i = 0; i < m_volumes.size(); ++i) {
    const auto record =
        std::find_if(state.volumes.begin(), state.volumes.end(),
                     [&](const VolumeRecord& r) { return r.name == m_volumes[i].name; });
    if (record == state.volumes.end()) continue;
    const bool good = record->state == VolumeState::kGood;
    if (!good && record->state != VolumeState::kHeld) continue;
    const std::uint64_t k = good ? state.flushed : record->goodAt;
    SIM_CHECK(same == 0 || same == k || !good, "I1: volumes are good at different points");
    if (good) same = k;
    const auto chain = m_chainOf.find(k);
    SIM_CHECK(chain != m_chainOf.end(), "I1: good at " + N(k) + ", which was never committed");
    const auto point = m_points.find(chain->second);
    SIM_CHECK(point != m_points.end(), "I1: good at " + N(k) + ", which no source ever sent");
    SIM_CHECK(disk.HashOf("volume/" + record->name) == point->second[i],
              "I1: volume " + record->name + " is said to be good at " + N(k) +
                  " and is not what the source was then");
  }
}

void Checker::RogueAcked(const std::string& how) {
  throw Broken("I5: the target acknowledged a dataset of a peer that " + how);
}

}  // namespace penstock::sim
