// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_LIVE_STORE_H_
#define PENSTOCK_REPLICATOR_LIVE_STORE_H_

#include <cstdint>
#include <memory>

#include "engine/commands.h"

namespace penstock {

// What a source with live capture keeps on disk. Each call does what the command of its name asks
// for, and blocks.
//
// Threads: the calls of the spool one after the other, in order; the others at any time.
class LiveStore {
 public:
  virtual ~LiveStore() = default;

  virtual SpoolDone Write(const SpoolWrite& command) = 0;
  virtual SpoolLoaded Read(const SpoolRead& command) = 0;
  virtual void Remove(const SpoolRemove& command) = 0;
  virtual SpoolDone Drop(const SpoolDrop& command) = 0;
  virtual void Keep(const KeepNames& command) = 0;

  virtual CheckpointDone Keep(const Checkpoint& command) = 0;
  virtual CheckpointDone Save(const SaveMaps& command) = 0;

  // Keeps writes away from a range of a volume until what is returned is destroyed.
  virtual std::shared_ptr<void> HoldOff(std::uint8_t volume, std::uint64_t offset,
                                        std::uint64_t length) = 0;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_LIVE_STORE_H_
