// SPDX-License-Identifier: Apache-2.0
// A source of two volumes in use, without a spool. The volumes are good at the target unless a test
// says otherwise.
#ifndef PENSTOCK_TESTS_ENGINE_SOURCE_LIVE_RIG_H_
#define PENSTOCK_TESTS_ENGINE_SOURCE_LIVE_RIG_H_

#include "tests/engine/live_rig.h"

namespace penstock {

inline constexpr std::uint64_t kLiveExtent = 4096;

class SourceLive : public LiveRig {
 protected:
  SourceLive() {
    m_config.volumes = {{"a", 64 * kKiB}, {"b", 64 * kKiB}};
    m_options.hotExtents = 0;
    Open();
  }
  // A new process finds what the one before left of the maps.
  void Open() {
    m_options.volumes = {{UuidT{{1}}, m_config.volumes[0].size},
                         {UuidT{{2}}, m_config.volumes[1].size}};
    LiveRig::Open();
  }

  // --- The guest. ---

  // Marked, saved, written and captured. Returns whether a dataset is to be closed.
  bool Guest(std::uint64_t offset, std::uint32_t length = 4096, std::uint8_t volume = 0) {
    m_capture->BeginWrite(volume, offset, length);
    SaveMap(volume);
    auto data = std::make_shared<std::uint8_t[]>(length);
    std::ranges::copy(Noise(length, ++m_guest), data.get());
    if (!m_disk.empty()) std::copy_n(data.get(), length, m_disk[volume].data() + offset);
    return m_capture->Captured({volume, offset, length, data});
  }
  void SaveMap(std::uint8_t volume) {
    while (const auto save = m_capture->TakeUnsaved(volume)) {
      m_capture->Saved(volume, save->generation);
    }
  }

  // --- The host. ---

  // Answers the oldest Checkpoint or SaveMaps.
  template <class Command>
  std::string Answer(IoStatus status = IoStatus::kOk) {
    Complete<Command>(status);
    return Out();
  }
  // Everything that was written is at the target, and flushed.
  void GetThrough() {
    m_engine->CloseDataset(m_now);
    Work();
    All(Status().closed);
    ASSERT_TRUE(m_engine->IsSettled());
  }
  std::uint64_t CloseNumber() { return m_engine->CloseDataset(m_now); }
};

}  // namespace penstock

#endif  // PENSTOCK_TESTS_ENGINE_SOURCE_LIVE_RIG_H_
