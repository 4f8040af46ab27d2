// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_ENGINE_CAPTURE_H_
#define PENSTOCK_ENGINE_CAPTURE_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "engine/change_map.h"
#include "engine/source_feed.h"

namespace penstock {

struct CaptureVolume {
  UuidT map;  // the id of its change map
  std::uint64_t size = 0;
};

struct CaptureOptions {
  std::vector<CaptureVolume> volumes;
  std::uint64_t extentBytes = ChangeMap::kDefaultExtentBytes;
  std::size_t hotExtents = 4096;            // of each volume
  std::uint64_t datasetBytes = 64U << 20U;  // a dataset is closed when it holds so much
  // For writes, those that the engine has taken included: with a dataset more than that everything
  // is given up.
  std::uint64_t memory = 256U << 20U;
};

// Takes the writes of running volumes, in the order in which the volumes got them, and keeps the
// volumes' change maps.
//
// Whoever carries a write out
//   1. keeps other writes, and reads for a comparison, away from its range until 5;
//   2. calls BeginWrite, and waits until the generation that it returned is saved;
//   3. writes to the volume;
//   4. calls Captured, or Failed when the volume refused;
//   5. answers the guest.
// So nothing reaches a volume before its mark is on disk, and what a comparison reads was captured
// before.
//
// States: tracking (writes are marked only) and recording (they are kept for the next dataset). It
// goes from tracking to recording by Begin, and back by Lose or when its memory is full.
//
// Threads: any; it has a lock, that is held for no I/O.
class Capture : public SourceFeed {
 public:
  explicit Capture(const CaptureOptions& options);

  // --- Change maps as they are found at the start. ---

  // REQUIRES: the sector passed CheckBits; no write has begun.
  void Load(std::uint8_t volume, std::uint64_t index, const MapSector& sector);
  // Nothing is known of the volume.
  void LoadNothing(std::uint8_t volume);

  // --- The guest's side. ---

  // Returns the generation of the volume's map that has to be saved first; 0: none.
  std::uint64_t BeginWrite(std::uint8_t volume, std::uint64_t offset, std::uint64_t length);
  // Returns whether a dataset should be closed now, because enough is in it: true once for each.
  bool Captured(CapturedWrite write);
  // The volume did not take it as a whole, and can't say what it holds now: that has to be
  // compared.
  void Failed(std::uint8_t volume, std::uint64_t offset, std::uint64_t length);

  // --- Saving the maps. ---

  std::uint64_t UnsavedGeneration(std::uint8_t volume) const;
  bool IsSaved(std::uint8_t volume, std::uint64_t generation) const;
  // Nothing when there is nothing to be saved. One save of a volume is under way at a time.
  std::optional<ChangeMap::Save> TakeUnsaved(std::uint8_t volume);
  void Saved(std::uint8_t volume, std::uint64_t generation);

  // --- For people. ---

  // These take no lock.
  std::uint64_t BytesHeld() const;   // of writes, the engine's included
  std::uint64_t BytesTaken() const;  // of writes that were ever held
  std::uint64_t MemoryUsed() const;  // comparisons included
  bool Drains() const { return m_drains.load(std::memory_order_relaxed); }  // see Carried
  std::uint64_t Writes() const;
  std::uint64_t BytesWritten() const;
  std::uint64_t Marks() const;       // saves that a write had to wait for
  std::uint64_t TotalStale() const;  // bytes that have to be compared, now or when they can be read

  // --- The engine's side. ---

  void Begin(const std::vector<bool>& whole) override;
  void Lose() override;
  bool IsRecording() const override;
  bool HasWrites() const override;
  void TakeWrites(std::uint64_t n, std::vector<CapturedWrite>& out) override;
  std::uint64_t StaleBytes(std::uint8_t volume) const override;
  void Carried(std::uint64_t writes, std::uint64_t comparisons, bool drains) override;
  std::vector<ChangeMap::Range> TakeStale(std::uint8_t volume, std::uint64_t n,
                                          std::uint64_t most) override;
  bool HasRefused() const override;
  std::uint64_t Refusals() const override;
  ChangeMap::Range NextRefused(std::uint8_t volume, std::uint64_t from,
                               std::uint64_t most) const override;
  bool CompareRefused(std::uint64_t refusals) override;
  void Flushed(std::uint64_t n) override;
  std::size_t ColdExtents() const override;
  void BeginClear() override;
  void EndClear() override;
  void Cool() override;

 private:
  // What goes into one dataset at the source has a place: places only ever rise, while the numbers
  // of datasets go back when a backlog is given up. The change maps count in places.
  using Place = std::uint64_t;

  void LoseLocked();
  void OpenPlace();

  const CaptureOptions m_options;
  mutable std::mutex m_mutex;  // of everything below
  std::vector<ChangeMap> m_maps;
  bool m_recording = false;
  std::vector<CapturedWrite> m_writes;
  std::atomic<std::uint64_t> m_held{0};     // changed under the lock
  std::atomic<std::uint64_t> m_taken{0};    // likewise
  std::atomic<std::uint64_t> m_carried{0};  // by the engine
  std::atomic<std::uint64_t> m_comparing{0};
  std::atomic<bool> m_drains{false};
  bool m_closeWanted = false;
  Place m_open = 1;  // of what is being captured
  Place m_lastPlace = 1;
  std::set<Place> m_pending;                      // not known to be flushed; the open one is in it
  std::multimap<std::uint64_t, Place> m_placeOf;  // by dataset
  std::uint64_t m_refusals = 0;                   // while recording
  std::uint64_t m_count = 0;
  std::uint64_t m_bytes = 0;
};

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_CAPTURE_H_
