// SPDX-License-Identifier: Apache-2.0
// Runs with a source whose volumes are in use: its writes, its spool, its overflow, its change
// maps, the loss of its power; and at the end a copy that is what the source is.
#include "tests/sim/live_run.h"

#include <exception>
#include <memory>

#include "tests/sim/live_node.h"

namespace penstock::sim {

namespace {

class LiveRun {
 public:
  LiveRun(std::uint64_t seed, bool verbose) : m_world(seed), m_link(m_world) {
    m_world.verbose = verbose;
    DrawOptions();
    DrawFaults();
    m_checker = std::make_unique<Checker>(m_options.volumes);
    m_target = std::make_unique<TargetNode>(m_world, m_link, *m_checker);
    m_source = std::make_unique<LiveNode>(m_world, m_link, *m_checker, *m_target, m_options);
  }

  void Run(std::uint64_t steps) {
    m_target->Boot();
    m_source->Boot();
    for (std::uint64_t i = 0; i < steps; ++i) {
      Act();
      m_world.RunUntil(m_world.Now().steady + m_world.rng.Below(60));
      m_target->CheckQuiet();
    }
    Converge();
  }
  void AddTo(LiveTotals& totals) {
    totals.overflows += m_source->overflows;
    if (m_source->IsUp()) totals.overflows += m_source->engine()->Status().overflows;
    totals.spooled += m_source->spooled;
    totals.kept += m_source->kept;
    totals.refused += m_source->refused;
  }
  void PrintDifferences() { m_source->PrintDifferences(m_target->disk()); }

 private:
  void DrawOptions() {
    const std::uint64_t count = m_world.rng.Between(1, 3);
    for (std::uint64_t i = 0; i < count; ++i) {
      std::uint64_t size = m_world.rng.Between(1, 90'000);
      if (m_world.rng.Chance(0.5)) size = (size + 4095) / 4096 * 4096;
      m_options.volumes.push_back({"v" + std::to_string(i), size});
    }
    m_options.resyncBytes = 4096 * m_world.rng.Between(2, 10);
    if (m_world.rng.Chance(0.1)) {  // several ranges in a resync dataset
      for (SourceVolume& volume : m_options.volumes) {
        volume.size = m_world.rng.Between(1, 5) * kWindowBytes + m_world.rng.Below(5000);
      }
      m_options.extentBytes = kWindowBytes;
      m_options.resyncBytes = kWindowBytes * m_world.rng.Between(1, 3);
    }
    m_options.memory = 4096 * m_world.rng.Between(4, 40);
    if (m_world.rng.Chance(0.7)) m_options.spool = 4096 * m_world.rng.Between(1, 100);
    m_options.hotExtents = m_world.rng.Below(6);
  }

  void DrawFaults() {
    const auto draw = [&](double most) {
      return m_world.rng.Chance(0.5) ? 0.0
                                     : most * static_cast<double>(m_world.rng.Below(100)) / 99;
    };
    Faults& faults = m_world.faults;
    faults.cut = draw(0.01);
    faults.flip = draw(0.005);
    faults.late = draw(0.005);
    faults.slow = draw(0.1);
    faults.syncFails = draw(0.01);
    faults.crashTarget = draw(0.005);
    faults.crashSource = draw(0.006);
    faults.clockJump = draw(0.05);
    faults.weakPrints = m_world.rng.Chance(0.3);
    faults.tamper = m_world.rng.Chance(0.3) ? 0.5 : 0;
    m_rot = m_world.rng.Chance(0.3) ? 0.6 : 0;
    m_away = m_world.rng.Chance(0.6) ? 0.03 : 0;
    m_leave = m_world.rng.Chance(0.5) ? 0.05 : 0;
    m_takeOver = m_world.rng.Chance(0.2) ? 0.02 : 0;
    m_bad = m_world.rng.Chance(0.3) ? 0.05 : 0;
  }

  void Act() {
    for (std::uint64_t i = m_world.rng.Below(4); i > 0; --i) m_source->Write();
    if (m_world.rng.Chance(0.05)) m_source->CloseNow();
    if (m_world.Strikes(m_world.faults.crashTarget)) m_target->Crash("power");
    if (m_world.Strikes(m_world.faults.crashSource)) {
      m_source->Crash("power", m_world.rng.Chance(0.7));
    }
    if (m_world.Strikes(m_world.faults.clockJump)) m_world.JumpClock();
    // The target is out of reach for a while.
    if (m_world.Strikes(m_away)) m_source->Pause(true);
    if (m_world.rng.Chance(0.05)) m_source->Pause(false);
    if (m_world.Strikes(m_leave)) m_source->BeginLeave();
    if (m_source->IsLeaving()) m_source->TryLeave();
    if (!m_source->IsUp() && m_world.rng.Chance(0.3)) {
      if (m_world.Strikes(m_rot)) m_source->DamageSpool();
      m_source->Boot();
    }
    CheckGoesOn();
    if (m_world.Strikes(m_takeOver)) m_source->TakeOver();
    if (m_world.Strikes(m_bad)) m_source->BreakSector();
    if (m_world.rng.Chance(0.05)) m_source->MendSector();
  }

  // There is no other source: nothing may fence it, a late HELLO of its own neither.
  void CheckGoesOn() {
    SIM_CHECK(!m_source->IsStopped(),
              "I4: the source stopped: " + m_source->engine()->Status().failure);
  }

  // Faults stop, and the guest, too: what it wrote must get across in bounded time. I4.
  void Converge() {
    m_world.calm = true;
    m_world.Log("calm");
    const Millis end = m_world.Now().steady + 300'000;
    while (m_world.Now().steady < end) {
      m_world.RunUntil(m_world.Now().steady + 50);
      if (!m_source->IsUp()) m_source->Boot();
      CheckGoesOn();
      m_source->Pause(false);
      m_source->MendSector();
      if (m_source->IsLeaving()) {
        m_source->TryLeave();
        continue;
      }
      if (!m_target->IsUp() || !IsInOrder()) continue;
      SIM_CHECK(IsSame(), "I1: the copy is said to be good and is not what the source is");
      m_source->Finish();
      for (int i = 0; i < 100 && !m_source->engine()->Status().isFinished; ++i) {
        m_world.RunUntil(m_world.Now().steady + 200);
      }
      CheckCleanStop();
      return;
    }
    SIM_CHECK(false, "I4: not everything was flushed in time: " + Describe());
  }

  // A clean stop needs no comparison at the next start; and what the copy is, the source is also
  // without its memory.
  void CheckCleanStop() {
    SIM_CHECK(m_source->engine()->Status().isFinished,
              "I4: the source does not finish: " + Describe());
    m_world.RunUntil(m_world.Now().steady + 1'000);
    const bool isClean = !m_source->LostSync();
    m_source->Crash("restarted by its operator", m_world.rng.Chance(0.5));
    m_source->Boot();
    for (int i = 0; i < 500 && !IsInOrder(); ++i) {
      CheckGoesOn();
      m_world.RunUntil(m_world.Now().steady + 200);
    }
    SIM_CHECK(IsInOrder(), "I4: a source that stopped does not come back: " + Describe());
    SIM_CHECK(!isClean || m_source->engine()->Status().passBytes == 0,
              "I4: after a clean stop something is compared again");
    SIM_CHECK(IsSame(), "I1: after a stop the copy is not what the source is");
  }

  // Everything is at the target, and nothing has to be compared.
  bool IsInOrder() {
    return m_source->IsIdle() && m_source->capture()->IsRecording() &&
           m_source->engine()->IsSettled() && m_source->capture()->TotalStale() == 0 && IsGood();
  }

  std::string Describe() {
    const SourceStatus& status = m_source->engine()->Status();
    return std::string(Text(status.phase)) + ", closed " + std::to_string(status.closed) +
           ", sent " + std::to_string(status.sent) + ", durable " + std::to_string(status.durable) +
           ", flushed " + std::to_string(status.flushed) + (status.resyncing ? ", resyncing" : "") +
           (m_source->capture()->IsRecording() ? ", recording" : "") + ", spooled " +
           std::to_string(status.spooledDatasets) + ", stale " +
           std::to_string(m_source->capture()->TotalStale()) +
           (m_source->IsIdle() ? "" : ", writing") + ", " + status.lastTrouble + status.failure;
  }

  bool IsGood() {
    const auto status = m_target->engine()->Status();
    if (status.empty() || status.front().state.volumes.size() != m_options.volumes.size()) {
      return false;
    }
    for (const VolumeRecord& record : status.front().state.volumes) {
      if (record.state != VolumeState::kGood) return false;
    }
    return true;
  }

  bool IsSame() {
    const Point point = m_source->Now();
    for (std::size_t i = 0; i < point.size(); ++i) {
      if (m_target->disk().HashOf("volume/" + m_options.volumes[i].name) != point[i]) return false;
    }
    return true;
  }

  World m_world;
  Link m_link;
  LiveOptions m_options;
  double m_away = 0;
  double m_rot = 0;
  double m_bad = 0;
  double m_leave = 0;
  double m_takeOver = 0;  // an operator has the source take the group up anew
  std::unique_ptr<Checker> m_checker;
  std::unique_ptr<TargetNode> m_target;
  std::unique_ptr<LiveNode> m_source;
};

}  // namespace

std::string RunLive(std::uint64_t seed, std::uint64_t steps, bool verbose, LiveTotals& totals) {
  LiveRun run(seed, verbose);
  try {
    run.Run(steps);
  } catch (const std::exception& broken) {
    if (verbose) run.PrintDifferences();
    return broken.what();
  }
  run.AddTo(totals);
  return {};
}

}  // namespace penstock::sim
