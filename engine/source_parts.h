// SPDX-License-Identifier: Apache-2.0
// What SourceEngine keeps of each dataset. Plain structures; the rules are the engine's.
#ifndef PENSTOCK_ENGINE_SOURCE_PARTS_H_
#define PENSTOCK_ENGINE_SOURCE_PARTS_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "codec/block.h"
#include "engine/chain.h"
#include "engine/commands.h"
#include "penstock/penstock.h"

namespace penstock {

// Where the blocks of a dataset are.
enum class SpoolStage : std::uint8_t {
  kNone,     // in memory
  kWriting,  // in memory, and being written to the spool
  kStored,   // in the spool, and in memory only while they are sent
  kReading,  // as kStored; being read
};

// A dataset that an earlier process left in the spool, whole.
struct SpooledDataset {
  DatasetStart start;
  std::uint64_t bytes = 0;  // of its files
};

// How far a transmitted dataset has been sent on this connection. The blocks stay until the dataset
// is acknowledged: a retransmission sends the same bytes, so it ends in the same chain value.
struct SourceCursor {
  std::shared_ptr<Dataset> ds;
  std::optional<BufInfoEnumerator> units;  // what of the dataset's units became blocks
  std::vector<BlockPtr> blocks;            // in order; null: being packed
  DatasetStart start;
  bool started = false;
  std::size_t sent = 0;  // blocks sent
  bool ended = false;
  bool wasSent = false;     // to its end, on some connection
  std::uint64_t bytes = 0;  // of the blocks sent, on this connection
  DatasetDigest digest;
  Digest chain{};  // once ended
  std::uint64_t extents = 0;
  std::uint64_t rawBytes = 0;
  SpoolStage spool = SpoolStage::kNone;
  std::uint64_t spoolBytes = 0;  // of its files
  bool isLoaded = false;         // stored, and its blocks are in memory, too
};

// The stages of a window of a resync dataset.
enum class WindowStage : std::uint8_t {
  kToFetch,   // to be read
  kFetching,  // being read
  kFetched,   // compare only: its fingerprints wait for those of the windows before
  kQueried,   // compare only: asked, not answered
  kPacking,   // answered; its runs are being packed
  kSettled,   // every buffer of it is finalized, or was dropped
};

struct SourceWindow {
  WindowStage stage = WindowStage::kToFetch;
  bool offered = false;          // its fingerprints went through the dataset's requester
  std::uint64_t offset = 0;      // in the volume
  std::uint32_t firstBlock = 0;  // within the dataset
  std::uint32_t length = 0;
  std::shared_ptr<const std::uint8_t[]> data;
  std::vector<std::uint64_t> fingerprints;
  std::vector<Run> answer;
  bool admitted = false;           // its runs are in the dataset
  std::vector<InternalData> kept;  // admitted buffers that are to be sent
};

// A resync dataset until it is sealed.
struct ResyncWork {
  std::uint64_t n = 0;
  std::shared_ptr<Dataset> ds;
  std::uint8_t volume = 0;
  bool copy = false;                  // the target's volume reads as zeros
  std::vector<SourceWindow> windows;  // by offset
  std::size_t toFetch = 0;            // the first window that was never fetched
  std::size_t toOffer = 0;            // the first whose fingerprints were not offered
  std::size_t settled = 0;
};

// What a ticket stands for.
struct SourceJob {
  std::uint64_t n = 0;
  std::size_t index = 0;         // the window, or the block
  std::uint64_t generation = 0;  // of the connection whose seed was used
};

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_SOURCE_PARTS_H_
