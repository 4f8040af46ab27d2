// SPDX-License-Identifier: Apache-2.0
// What the engines ask of the world around them, and what it answers.
//
// An engine is called with an event and the time, changes its state, and leaves commands to be
// carried out in order. A command with a ticket is answered by exactly one completion with that
// ticket, later, never from within the call that fetched it. After a Halt nothing is answered.
#ifndef PENSTOCK_ENGINE_COMMANDS_H_
#define PENSTOCK_ENGINE_COMMANDS_H_

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "codec/block.h"
#include "codec/compare.h"
#include "engine/state.h"
#include "engine/wire/frame.h"
#include "engine/wire/messages.h"
#include "penstock/dataset_serializer.h"
#include "penstock/records.h"

namespace penstock {

// Chosen by the engine's surroundings, never used twice; at the target, those of later connections
// are higher.
using ConnId = std::uint64_t;
using Ticket = std::uint64_t;  // chosen by the engine, never used twice
using Millis = std::uint64_t;  // steady, from any start

// The time of an event, as the engines are told it.
struct Moment {
  Millis steady = 0;  // never goes back; timeouts
  Millis wall = 0;    // since 1970; only ever written into datasets
};

enum class NoteLevel : std::uint8_t { kInfo, kNotice, kError };

// --- Both engines. ---

struct SendFrame {
  ConnId conn = 0;
  Frame frame;
};

// The frames of `conn` from here on are hashed under these seeds, and every type may come. What was
// sent before this command goes out under the old one.
struct SetSeeds {
  ConnId conn = 0;
  std::uint64_t read = 0;
  std::uint64_t write = 0;
};

struct CloseConn {
  ConnId conn = 0;
  std::string reason;  // for the log
};

// For people: a line of the log.
struct Note {
  NoteLevel level = NoteLevel::kInfo;
  std::string text;
};

// The component can't go on: stop the process. Nothing was acknowledged that is not on disk.
struct Halt {
  std::string reason;
};

enum class IoStatus : std::uint8_t {
  kOk,
  kNoSpace,  // no room; nothing of it counts
  kDamaged,  // the data is not what it says it is
  kFailed,   // the device, file or store failed
};

// --- Source. ---

struct Connect {};  // answered by Connected or ConnectFailed

// Read a window of a volume.
struct FetchWindow {
  Ticket ticket = 0;
  std::uint8_t volume = 0;   // index in the configuration
  std::uint64_t offset = 0;  // bytes
  std::uint32_t length = 0;  // bytes, at most kWindowBytes
  bool compare = false;      // true: keep the data, fingerprint it; false: pack what is not zero
  std::uint64_t seed = 0;    // of the fingerprints
  CompressSpec compress;     // of the block
};
struct WindowFetched {
  Ticket ticket = 0;
  IoStatus status = IoStatus::kOk;
  std::string error;                           // when not kOk
  std::shared_ptr<const std::uint8_t[]> data;  // compare
  std::vector<std::uint64_t> fingerprints;     // compare
  BlockPtr block;                              // copy; null when all of it is zero
  std::vector<Run> nonZero;                    // copy: what the block holds
};

// Pack the different runs of a window and fingerprint the equal ones.
struct PackRuns {
  Ticket ticket = 0;
  std::uint8_t volume = 0;  // written to the block as its index
  std::uint64_t offset = 0;
  std::uint32_t length = 0;
  std::shared_ptr<const std::uint8_t[]> data;
  std::vector<Run> runs;
  RunKey key{};
  std::uint64_t n = 0;
  std::uint32_t firstBlock = 0;
  CompressSpec compress;
};
struct RunsPacked {
  Ticket ticket = 0;
  BlockPtr block;         // of the different runs; null when there are none
  std::vector<Run> runs;  // as asked, `strong` of the equal ones replaced by ours
};

// Pack buffers of a normal dataset, in order, into one block.
struct PackBuffers {
  Ticket ticket = 0;
  std::uint8_t volume = 0;
  std::vector<InternalData> buffers;  // together at most kMaxBlockBytes
  CompressSpec compress;
};
struct BuffersPacked {
  Ticket ticket = 0;
  BlockPtr block;
};

// The spool: datasets of a source that wait on disk for the target. Its commands are carried out in
// order. A spool has an age, a number that is made durable before anything is written under it:
// whatever a spool of another age left behind is not read again.

// Write a closed dataset, whole: one file for each of its volumes; the trailer, the files and their
// directories synced. Answered by SpoolDone.
struct SpoolWrite {
  Ticket ticket = 0;
  DatasetStart start;
  std::vector<BlockPtr> blocks;  // in order; their volumeIndex is that of start.volumes
};
struct SpoolDone {
  Ticket ticket = 0;
  IoStatus status = IoStatus::kOk;
  std::string error;
  std::uint64_t bytes = 0;                    // SpoolWrite: of the files
  std::shared_ptr<DatasetSerializer> writer;  // SpoolWrite: of the first file; may be null
};
// Read a dataset back. Answered by SpoolLoaded.
struct SpoolRead {
  Ticket ticket = 0;
  DatasetStart start;
};
struct SpoolLoaded {
  Ticket ticket = 0;
  IoStatus status = IoStatus::kOk;
  std::string error;
  std::vector<BlockPtr> blocks;  // those that were written, in order
};
// Remove all files of the dataset of this number: the target has it. Not answered; a removal that a
// crash takes back does no harm.
struct SpoolRemove {
  DatasetStart start;
};
// Begin the next age, durably, and remove everything. Answered by SpoolDone.
struct SpoolDrop {
  Ticket ticket = 0;
};

// Sync the volumes, then make durable that the target has flushed everything up to `flushed`, in
// this epoch. Answered by CheckpointDone.
struct Checkpoint {
  Ticket ticket = 0;
  std::uint64_t epoch = 0;
  std::uint64_t flushed = 0;
};
// Remember the names of points that are on their way, instead of those before. What waits for the
// spool is done afterwards; it is not answered: a name that is lost is not worth a failure.
struct KeepNames {
  std::vector<PointRecord> names;
};
struct CheckpointDone {
  Ticket ticket = 0;
  IoStatus status = IoStatus::kOk;
  std::string error;
};
// Write what is unsaved of the change maps. Answered by CheckpointDone.
struct SaveMaps {
  Ticket ticket = 0;
};

using SourceCommand = std::variant<SendFrame, SetSeeds, CloseConn, Note, Halt, Connect, FetchWindow,
                                   PackRuns, PackBuffers, SpoolWrite, SpoolRead, SpoolRemove,
                                   SpoolDrop, KeepNames, Checkpoint, SaveMaps>;

// --- Target. ---

// Open a volume of a group, and make it when there is none. Answered by VolumeOpened.
struct OpenVolume {
  Ticket ticket = 0;
  std::string group, volume;
  std::uint64_t size = 0;  // to make it with
};
struct VolumeOpened {
  Ticket ticket = 0;
  std::string error;       // empty: it is open
  std::uint64_t size = 0;  // bytes it has
  bool isNew = false;      // it was made just now and reads as zeros
};

// Files of the journal: one for each dataset and volume. The commands of one file are carried out
// in order; those of different files in any.
struct JournalOpen {
  Ticket ticket = 0;
  std::string group, volume;
  std::uint64_t n = 0;
  std::shared_ptr<OM_DP::DatasetStartv2> start;
};
struct JournalAppend {  // checks the block first
  Ticket ticket = 0;
  std::string group, volume;
  std::uint64_t n = 0;
  BlockPtr block;
  std::uint32_t size = 0;        // bytes at `block`
  std::uint64_t volumeSize = 0;  // extents are within it
};
struct JournalClose {  // writes the trailer, syncs, closes
  Ticket ticket = 0;
  std::string group, volume;
  std::uint64_t n = 0;
};
struct JournalRemove {  // whether it is open, closed or was never made
  Ticket ticket = 0;
  std::string group, volume;
  std::uint64_t n = 0;
  bool quarantine = false;  // keep it aside
};
struct JournalSyncDirs {  // the directories on the way to these files
  Ticket ticket = 0;
  std::string group;
  std::vector<std::pair<std::uint64_t, std::string>> files;
};

// Make the change durable, whole or not at all.
struct CommitState {
  Ticket ticket = 0;
  std::string group;
  StateChange change;
};

// A block as it came from a peer.
struct ArrivedBlock {
  BlockPtr block;
  std::uint32_t size = 0;  // bytes at `block`
};
using ArrivedBlocks = std::vector<ArrivedBlock>;

// Check a whole journal file, then write its blocks to the volume in order. Repeatable.
struct ApplyFile {
  Ticket ticket = 0;
  std::string group, volume;
  std::uint64_t n = 0;
  std::uint64_t volumeSize = 0;
  // What the file holds, when that is still in memory: the file need not be read. May be null.
  std::shared_ptr<const ArrivedBlocks> blocks;
};

// Check a block and write it to its volume.
struct WriteBlock {
  Ticket ticket = 0;
  std::string group, volume;
  BlockPtr block;
  std::uint32_t size = 0;
  std::uint64_t volumeSize = 0;
};

struct SyncVolumes {
  Ticket ticket = 0;
  std::string group;
  std::vector<std::string> volumes;
};

// Read a window and compare it. Answered by WindowCompared.
struct CompareVolume {
  Ticket ticket = 0;
  std::string group, volume;
  Query query;
  std::uint64_t seed = 0;
  RunKey key{};
};
struct WindowCompared {
  Ticket ticket = 0;
  IoStatus status = IoStatus::kOk;
  std::string error;
  std::vector<Run> runs;
};

// Stop or go on taking frames from the connection.
struct SetReading {
  ConnId conn = 0;
  bool reading = true;
};

// Answers every ticket of the target but those with an answer of their own.
struct IoDone {
  Ticket ticket = 0;
  IoStatus status = IoStatus::kOk;
  std::string error;
  std::uint64_t bytes = 0;  // JournalClose: of the file
};

using TargetCommand =
    std::variant<SendFrame, SetSeeds, CloseConn, Note, Halt, OpenVolume, JournalOpen, JournalAppend,
                 JournalClose, JournalRemove, JournalSyncDirs, CommitState, ApplyFile, WriteBlock,
                 SyncVolumes, CompareVolume, SetReading>;

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_COMMANDS_H_
