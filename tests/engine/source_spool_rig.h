// SPDX-License-Identifier: Apache-2.0
// A source of a volume in use, with a spool whose commands are answered by the test, which keeps
// what was written. Half of the memory is two datasets and a half.
#ifndef PENSTOCK_TESTS_ENGINE_SOURCE_SPOOL_RIG_H_
#define PENSTOCK_TESTS_ENGINE_SOURCE_SPOOL_RIG_H_

#include <map>

#include "engine/spool.h"
#include "tests/engine/live_rig.h"

namespace penstock {

inline constexpr std::uint64_t kSpoolExtent = 4096;
inline constexpr std::uint64_t kFile = 1000;        // bytes, as the spool says
inline constexpr std::uint64_t kHeld = 8192 + 256;  // of a dataset in memory

class SourceSpool : public LiveRig {
 protected:
  SourceSpool() {
    m_config.liveMemory = 5 * kHeld;
    m_config.spoolBytes = kMiB;
    m_config.spoolAfter = 0;  // the link is given no time
    m_options.volumes = {{UuidT{{1}}, m_config.volumes[0].size}};
    Open();
  }
  void Guest(std::uint64_t offset, std::uint32_t length = 8192, bool zeros = false) {
    m_capture->BeginWrite(0, offset, length);
    while (const auto save = m_capture->TakeUnsaved(0)) m_capture->Saved(0, save->generation);
    std::shared_ptr<std::uint8_t[]> data;
    if (!zeros) {
      data = std::make_shared<std::uint8_t[]>(length);
      std::ranges::copy(Noise(length, ++m_guest), data.get());
    }
    m_capture->Captured({0, offset, length, data});
  }
  // So many datasets of one write each, at places of their own.
  void Fill(std::size_t datasets) {
    for (std::size_t i = 0; i < datasets; ++i) {
      Guest(m_guest % 8 * 8192);
      m_engine->CloseDataset(m_now);
    }
    m_sent = Work();
  }
  void Away() {
    m_engine->ConnClosed(m_conn, "reset", m_now);
    Out();
  }
  // Online, then alone with so many datasets.
  void AloneWith(std::size_t datasets) {
    Online();
    Away();
    Fill(datasets);
  }

  std::string BackOnline(const Change& change = {}) {
    Wait(20'000);
    Connected();
    return Welcome(change);
  }

  // Each answers the oldest command of its kind.
  std::string Stored(IoStatus status = IoStatus::kOk) {
    const auto command = TakeJob<SpoolWrite>();
    m_spool[command.start.n] = command;
    m_engine->Completed(SpoolDone{command.ticket, status, ErrorOf(status), kFile, nullptr}, m_now);
    return Work();
  }
  std::string Loaded(IoStatus status = IoStatus::kOk) {
    const auto command = TakeJob<SpoolRead>();
    m_engine->Completed(
        SpoolLoaded{command.ticket, status, ErrorOf(status), m_spool[command.start.n].blocks},
        m_now);
    return Work();
  }
  std::string Dropped(IoStatus status = IoStatus::kOk) {
    const auto command = TakeJob<SpoolDrop>();
    m_engine->Completed(SpoolDone{command.ticket, status, ErrorOf(status), 0, nullptr}, m_now);
    return Work();
  }
  template <class Command>
  std::string Answer(IoStatus status = IoStatus::kOk) {
    Complete<Command>(status);
    return Work();
  }
  SpooledDataset Left(std::uint64_t n) const {
    SpooledDataset left;
    left.start.n = n;
    left.start.timestampMs = 77 + n;
    left.start.group = GroupId("g");
    left.start.volumes = {VolumeId("g", "a")};
    left.bytes = kFile;
    return left;
  }

  std::string m_sent;  // by Fill
  std::map<std::uint64_t, SpoolWrite> m_spool;
};

}  // namespace penstock

#endif  // PENSTOCK_TESTS_ENGINE_SOURCE_SPOOL_RIG_H_
