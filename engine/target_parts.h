// SPDX-License-Identifier: Apache-2.0
// What the target's engine keeps of its peers and of the datasets that are arriving. Plain
// structures; the rules are TargetGroup's.
#ifndef PENSTOCK_ENGINE_TARGET_PARTS_H_
#define PENSTOCK_ENGINE_TARGET_PARTS_H_

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "engine/chain.h"
#include "engine/commands.h"

namespace penstock {

enum class Right : std::uint8_t { kReplicate, kVerify, kStatus };

struct TargetConfig {
  // Limits. They are checked before anything is allocated by a peer's word.
  std::uint64_t window = 96U << 20U;          // bytes a source may send beyond what is durable
  std::uint64_t queueBytes = 32U << 20U;      // taken from a connection and not yet written
  std::uint32_t queueDatasets = 1024;         // begun by a source and not yet durable
  std::uint32_t queueQueries = 64;            // comparisons under way for a connection
  std::uint64_t journalQuota = 16ULL << 30U;  // bytes of files that are not yet flushed
  std::uint64_t keepBytes = 96U << 20U;       // blocks in memory until they are applied; all groups
  std::uint32_t maxBlocks = 1U << 20U;        // in one dataset
  std::uint32_t maxConnections = 64;
  std::uint32_t maxGroups = 256;

  // Timeouts, milliseconds.
  Millis helloTimeout = 10'000;
  Millis idleTimeout = 90'000;
  Millis pingAfter = 10'000;  // of not reading: tells the source that the target is there
  Millis retryAfter = 1'000;  // a volume without room

  std::function<void(std::span<std::uint8_t>)> random;
  // Whether the identity has the right for this volume of the group; an empty volume asks for the
  // group as a whole.
  std::function<bool(const std::string& identity, const std::string& group,
                     const std::string& volume, Right right)>
      allows;
};

// A connection that has said HELLO.
struct TargetPeer {
  ConnId conn = 0;
  std::string identity;
  Hello hello;
  bool welcomed = false;
  std::uint64_t queued = 0;   // bytes taken and not yet written
  std::uint32_t queries = 0;  // under way
  bool reading = true;
};

// The stages of a dataset that arrives. A journaled one goes through all but kSyncing; a direct one
// from kArriving by kWritten and kSyncing to kReady.
enum class ArrivalStage : std::uint8_t {
  kArriving,  // START was seen; blocks come and are written
  kWritten,   // its end was right, and everything is written
  kClosing,   // its files are being closed and synced
  kNaming,    // the directories of its files are being synced
  kSyncing,   // its volumes are being synced
  kReady,     // may be committed
  kDropping,  // given up; its files are being removed
};

// The blocks of a journaled dataset while they are in memory, so that they can be applied without
// being read back. All of them, or none.
struct KeptBlocks {
  std::map<std::string, std::shared_ptr<ArrivedBlocks>> byVolume;
  std::uint64_t bytes = 0;
  bool isWhole = true;  // false: some had no room, and all were let go
};
inline constexpr std::uint64_t kKeptOverhead = 128;  // bytes that a block takes beside its own

// A dataset between its START and its commit.
struct Arrival {
  std::uint64_t n = 0;
  ConnId conn = 0;
  ArrivalStage stage = ArrivalStage::kArriving;
  DatasetStart start;
  std::shared_ptr<OM_DP::DatasetStartv2> record;  // START as it goes to the files
  std::vector<std::string> volumes;               // the entries' names
  std::vector<std::string> passVolumes;           // one that begins a resync: its source's
  bool direct = false;   // a resync: written to its volumes, not to the journal
  bool allowed = false;  // direct: everything before it is in the volumes, and they say "syncing"
  bool ended = false;    // END was right
  bool dropped = false;
  std::deque<std::pair<BlockPtr, std::uint32_t>> waiting;  // direct: blocks not yet to be written
  std::set<std::string> files;                             // journaled: volumes with a file
  KeptBlocks kept;                                         // journaled
  std::uint32_t outstanding = 0;                           // commands under way
  std::uint32_t blocks = 0;
  std::uint64_t extents = 0;
  std::uint64_t rawBytes = 0;
  std::uint64_t receivedBytes = 0;
  std::uint64_t fileBytes = 0;
  DatasetDigest digest;
  Digest chain{};
  std::string name;  // of the point behind it
};

// For `penstock status`.
struct GroupStatus {
  GroupState state;  // as committed
  std::uint64_t applied = 0;
  std::uint64_t arriving = 0;  // the newest dataset that began to arrive
  // What its source said last. Of a source that is gone, or never said anything, at least what
  // came of it.
  std::uint64_t closed = 0;
  std::uint64_t sent = 0;
  std::uint64_t waitingBytes = 0;               // not acknowledged
  std::map<std::string, std::uint64_t> passed;  // volumes being resynced: bytes that it is over
  std::uint64_t journalBytes = 0;               // of files not yet flushed
  std::uint64_t journalQuota = 0;               // 0: not known
  bool recovering = false;
  bool connected = false;  // a source is
  std::string trouble;     // "journal full", ...; empty: none
};

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_TARGET_PARTS_H_
