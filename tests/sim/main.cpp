// SPDX-License-Identifier: Apache-2.0
// penstock-sim: source, target, link, disk and clock in one thread, under one seed.
//
// Each run draws its volumes, faults and workload from the seed, breaks things, then stops breaking
// them and demands that the copy becomes what the source is. Rules are checked at every report,
// commit and recovery. A run that breaks one prints the line that repeats it.
#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "engine/planted.h"
#include "tests/sim/check.h"
#include "tests/sim/live_run.h"
#include "tests/sim/rogue.h"
#include "tests/sim/source_node.h"
#include "tests/sim/target_node.h"
#include "tests/sim/world.h"

namespace penstock::sim {
namespace {

class Simulation {
 public:
  Simulation(std::uint64_t seed, bool verbose) : m_world(seed), m_link(m_world) {
    m_world.verbose = verbose;
    DrawVolumes();
    DrawFaults();
    m_checker = std::make_unique<Checker>(m_volumes);
    m_target = std::make_unique<TargetNode>(m_world, m_link, *m_checker);
    AddSource();
  }

  void Run(std::uint64_t steps) {
    m_target->Boot();
    Active().Boot();
    for (std::uint64_t i = 0; i < steps; ++i) {
      Act();
      m_world.RunUntil(m_world.Now().steady + m_world.rng.Below(60));
    }
    Converge();
  }

  // Where the copy and the newest source differ now.
  void PrintDifferences() {
    for (std::size_t i = 0; i < m_volumes.size(); ++i) {
      const auto& ours = Active().volumes[i];
      std::vector<std::uint8_t> theirs(ours.size());
      const std::string path = "volume/" + m_volumes[i].name;
      if (!m_target->disk().Read(path, 0, theirs.data(), theirs.size())) continue;
      for (std::size_t at = 0; at < ours.size(); ++at) {
        if (ours[at] == theirs[at]) continue;
        std::size_t end = at;
        while (end < ours.size() && ours[end] != theirs[end]) ++end;
        std::fprintf(stderr, "%s differs from %zu to %zu\n", path.c_str(), at, end);
        at = end;
      }
    }
  }

 private:
  SourceNode& Active() { return *m_sources.back(); }

  void DrawVolumes() {
    const std::uint64_t count = m_world.rng.Between(1, 3);
    const bool large = m_world.rng.Chance(0.08);
    for (std::uint64_t i = 0; i < count; ++i) {
      std::uint64_t size = m_world.rng.Between(1, 90'000);
      if (large) size = m_world.rng.Between(1, 3'000'000);
      if (m_world.rng.Chance(0.5)) size = (size + 4095) / 4096 * 4096;
      m_volumes.push_back({"v" + std::to_string(i), size});
    }
    m_resyncBytes =
        large ? kWindowBytes * m_world.rng.Between(1, 2) : 4096 * m_world.rng.Between(2, 10);
  }

  void DrawFaults() {
    const auto draw = [&](double most) {
      return m_world.rng.Chance(0.5) ? 0.0
                                     : most * static_cast<double>(m_world.rng.Below(100)) / 99;
    };
    Faults& faults = m_world.faults;
    faults.cut = draw(0.01);
    faults.flip = draw(0.01);
    faults.repeat = draw(0.005);
    faults.late = draw(0.005);
    faults.slow = draw(0.1);
    faults.syncFails = draw(0.03);
    faults.misdirect = m_world.rng.Chance(0.15) ? 0.05 : 0;
    faults.full = draw(0.05);
    faults.crashTarget = draw(0.01);
    faults.crashSource = draw(0.003);
    faults.clockJump = draw(0.05);
    faults.secondSource = m_world.rng.Chance(0.2) ? 0.02 : 0;
    faults.rogue = m_world.rng.Chance(0.2) ? 0.05 : 0;
    faults.weakPrints = m_world.rng.Chance(0.3);
    faults.tamper = m_world.rng.Chance(0.5) ? 0.5 : 0;
  }

  void AddSource() {
    m_sources.push_back(std::make_unique<SourceNode>(m_world, m_link, *m_checker, *m_target,
                                                     "source" + std::to_string(m_sources.size()),
                                                     m_volumes, m_resyncBytes));
    if (m_sources.size() > 1) {
      Active().volumes = m_sources[m_sources.size() - 2]->volumes;
    } else {
      for (auto& volume : Active().volumes) FillSome(volume);
    }
  }

  // Half of the blocks stay zero.
  void FillSome(std::vector<std::uint8_t>& volume) {
    for (std::size_t from = 0; from < volume.size(); from += 4096) {
      const std::size_t length = std::min<std::size_t>(4096, volume.size() - from);
      if (m_world.rng.Chance(0.5)) m_world.rng.Fill({volume.data() + from, length});
    }
  }

  void Act() {
    for (const auto& source : m_sources) {
      if (m_world.rng.Chance(0.5)) source->WriteSomething();
    }
    if (m_world.rng.Chance(0.3)) Active().CloseDataset();
    if (m_world.rng.Chance(0.02)) Active().Resync();
    if (m_world.Strikes(m_world.faults.crashTarget)) m_target->Crash("power");
    if (m_world.Strikes(m_world.faults.crashSource)) Active().Crash("power");
    if (m_world.Strikes(m_world.faults.clockJump)) m_world.JumpClock();
    if (m_world.Strikes(m_world.faults.full)) m_target->disk().SetFree(m_world.rng.Below(20'000));
    if (m_world.rng.Chance(0.1)) m_target->disk().SetFree(~std::uint64_t{0});
    if (m_sources.size() < 3 && m_world.Strikes(m_world.faults.secondSource)) {
      AddSource();
      Active().Boot();
    }
    if (m_world.Strikes(m_world.faults.rogue)) {
      std::make_shared<Rogue>(m_world, m_link, *m_target, m_volumes)->Attack();
    }
    if (!Active().IsUp() && m_world.rng.Chance(0.3)) {
      Active().WriteUntracked();
      Active().Boot();
    }
    if (Active().IsStopped() && m_world.rng.Chance(0.3)) Restart();
  }

  void Restart() {
    Active().Crash("restarted by its operator");
    Active().Boot();
  }

  // Faults stop: the newest source must get everything across in bounded time. I4.
  void Converge() {
    m_world.calm = true;
    m_target->disk().SetFree(~std::uint64_t{0});
    m_world.Log("calm");
    for (const auto& source : m_sources) {
      if (source.get() != &Active()) source->Crash("switched off");
    }
    const Millis end = m_world.Now().steady + 300'000;
    bool closed = false;
    while (m_world.Now().steady < end) {
      m_world.RunUntil(m_world.Now().steady + 50);
      if (!Active().IsUp()) Active().Boot();
      if (Active().IsStopped()) Restart();
      if (!m_target->IsUp() || Active().engine()->Status().phase != SourcePhase::kOnline) continue;
      if (!closed) Active().CloseDataset();
      closed = true;
      if (Active().engine()->IsSettled() && IsSame()) return;
    }
    SIM_CHECK(Active().engine()->IsSettled(),
              "I4: not everything was flushed in time: " + Describe());
    SIM_CHECK(IsSame(), "I4: the copy is not what the source is: " + Describe());
  }

  std::string Describe() {
    const SourceStatus& status = Active().engine()->Status();
    std::string text = std::string(Text(status.phase)) + ", closed " +
                       std::to_string(status.closed) + ", sent " + std::to_string(status.sent) +
                       ", durable " + std::to_string(status.durable) + ", flushed " +
                       std::to_string(status.flushed) + (status.resyncing ? ", resyncing" : "");
    for (const auto& [n, work] : Active().engine()->m_resyncs) {
      text += "; resync " + std::to_string(n) + (work->copy ? " copies" : " compares") +
              ", settled " + std::to_string(work->settled) + " of " +
              std::to_string(work->windows.size()) + ", stage " +
              std::to_string(static_cast<int>(work->windows.front().stage));
    }
    if (!m_target->IsUp()) return text + "; the target is down";
    for (const auto& group : m_target->engine()->m_groups) {
      text += "; target: durable " + std::to_string(group->m_state.durable) + ", applied " +
              std::to_string(group->m_applied) + ", flushed " +
              std::to_string(group->m_state.flushed) + ", arrivals " +
              std::to_string(group->m_arrivals.size()) + ", greetings " +
              std::to_string(group->m_greetings.size()) + (group->m_opening ? ", opening" : "") +
              (group->m_syncing ? ", syncing" : "") + (group->m_committing ? ", committing" : "") +
              (group->m_wantEpoch ? ", wants an epoch" : "");
      for (const auto& arrival : group->m_arrivals) {
        text += ", arrival " + std::to_string(arrival->n) + " in stage " +
                std::to_string(static_cast<int>(arrival->stage)) + ", " +
                std::to_string(arrival->outstanding) + " outstanding" +
                (arrival->dropped ? ", dropped" : "");
      }
    }
    for (const GroupStatus& group : m_target->engine()->Status()) {
      for (const VolumeRecord& record : group.state.volumes) {
        text += "; " + record.name + " " + penstock::Text(record.state);
      }
    }
    return text;
  }

  bool IsSame() {
    if (!m_target->IsUp()) return false;
    const auto status = m_target->engine()->Status();
    if (status.empty()) return false;
    const Point point = Active().Now();
    for (std::size_t i = 0; i < m_volumes.size(); ++i) {
      if (m_target->disk().HashOf("volume/" + m_volumes[i].name) != point[i]) return false;
    }
    for (const VolumeRecord& record : status.front().state.volumes) {
      if (record.state != VolumeState::kGood) return false;
    }
    return true;
  }

  World m_world;
  Link m_link;
  std::vector<SourceVolume> m_volumes;
  std::uint64_t m_resyncBytes = 0;
  std::unique_ptr<Checker> m_checker;
  std::unique_ptr<TargetNode> m_target;
  std::vector<std::unique_ptr<SourceNode>> m_sources;
};

struct Options {
  std::uint64_t seed = 1;
  std::uint64_t seeds = 1;
  std::uint64_t steps = 120;
  std::string plant;
  bool planted = false;
  bool verbose = false;
  bool live = false;
};

LiveTotals g_liveTotals;

// Returns what was broken; empty: nothing.
std::string RunOne(std::uint64_t seed, const Options& options) {
  if (options.live) return RunLive(seed, options.steps, options.verbose, g_liveTotals);
  Simulation simulation(seed, options.verbose);
  try {
    simulation.Run(options.steps);
  } catch (const Broken& broken) {
    if (options.verbose) simulation.PrintDifferences();
    return broken.what();
  }
  return {};
}

int RunSeeds(const Options& options) {
  for (std::uint64_t i = 0; i < options.seeds; ++i) {
    const std::uint64_t seed = options.seed + i;
    const std::string broken = RunOne(seed, options);
    if (broken.empty()) continue;
    std::printf("FAILED %s\nrepeat: penstock-sim %s--seed %llu --seeds 1 --steps %llu --verbose\n",
                broken.c_str(), options.live ? "--live " : "",
                static_cast<unsigned long long>(seed),
                static_cast<unsigned long long>(options.steps));
    return 1;
  }
  std::printf("%llu seeds from %llu, %llu steps each: every rule held\n",
              static_cast<unsigned long long>(options.seeds),
              static_cast<unsigned long long>(options.seed),
              static_cast<unsigned long long>(options.steps));
  if (options.live) {
    std::printf(
        "%llu datasets were spooled, %llu backlogs given up, %llu stops without the target, %llu "
        "refused writes that could not be read back\n",
        static_cast<unsigned long long>(g_liveTotals.spooled),
        static_cast<unsigned long long>(g_liveTotals.overflows),
        static_cast<unsigned long long>(g_liveTotals.kept),
        static_cast<unsigned long long>(g_liveTotals.refused));
  }
  return 0;
}

#ifdef PENSTOCK_PLANTED_FAULTS
// Each planted fault must be caught within the seeds.
int RunPlanted(const Options& options) {
  int missed = 0;
  std::vector<std::pair<Fault, std::string_view>> faults(kPlantedFaults.begin(),
                                                         kPlantedFaults.end());
  if (options.live) faults.assign(kPlantedLiveFaults.begin(), kPlantedLiveFaults.end());
  for (const auto& [fault, name] : faults) {
    if (!options.plant.empty() && options.plant != name) continue;
    g_plantedFault = fault;
    std::string broken;
    std::uint64_t seed = options.seed;
    for (; seed < options.seed + options.seeds && broken.empty(); ++seed) {
      broken = RunOne(seed, options);
    }
    if (broken.empty()) {
      std::printf("%-34s NOT CAUGHT by %llu seeds\n", std::string(name).c_str(),
                  static_cast<unsigned long long>(options.seeds));
      ++missed;
    } else {
      std::printf("%-34s caught by seed %llu: %s\n", std::string(name).c_str(),
                  static_cast<unsigned long long>(seed - 1), broken.c_str());
    }
    std::fflush(stdout);
  }
  g_plantedFault = Fault::kNone;
  return missed == 0 ? 0 : 1;
}
#endif

}  // namespace
}  // namespace penstock::sim

int main(int argc, char** argv) {
  penstock::sim::Options options;
  CLI::App app{"Simulates replication under faults"};
  app.add_option("--seed", options.seed, "the first seed");
  app.add_option("--seeds", options.seeds, "how many seeds to run");
  app.add_option("--steps", options.steps, "steps of the workload in each run");
  app.add_flag("--live", options.live, "the source's volumes are in use");
  app.add_flag("--verbose", options.verbose, "print what happens");
#ifdef PENSTOCK_PLANTED_FAULTS
  app.add_flag("--planted", options.planted, "switch on each planted fault and demand its catch");
  app.add_option("--plant", options.plant, "with --planted: this one only");
#endif
  CLI11_PARSE(app, argc, argv);
#ifdef PENSTOCK_PLANTED_FAULTS
  if (options.planted) return penstock::sim::RunPlanted(options);
#endif
  return penstock::sim::RunSeeds(options);
}
