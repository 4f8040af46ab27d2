// SPDX-License-Identifier: Apache-2.0
// Faults that a build for testing the simulator can switch on, one at a time: each must be caught.
// In every other build all of them are off at compile time.
#ifndef PENSTOCK_ENGINE_PLANTED_H_
#define PENSTOCK_ENGINE_PLANTED_H_

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

namespace penstock {

enum class Fault : std::uint8_t {
  kNone,
  kAckBeforeFsync,     // ACK as soon as the dataset has arrived
  kRetryFsync,         // call fsync again after it failed, and believe the answer
  kApplyBeforeCommit,  // apply before the state says that the dataset is durable
  kNoFileHash,         // journal files are applied without their hashes being checked
  kNoFrameHash,        // frames and blocks are taken without their hashes being checked
  kNoDirectorySync,    // new directories are not synced
  kChainUnchecked,     // END's chain value is not compared
  kStaleEpoch,         // a source of an older epoch is welcomed
  kGrantUnchecked,     // a dataset may name any volume of the group
  kWeakMatch,          // equal 64-bit fingerprints alone drop a run
  kRecoverySkipsLast,  // recovery does not re-apply the last durable dataset
  kEndCountUnchecked,  // END's counts are not compared

  // Of a source of running volumes.
  kMarkAfterWrite,       // a write does not wait for its extent's mark
  kClearBeforeFlushed,   // marks are cleared once their dataset was sent
  kClearBeforeSync,      // marks are cleared before the volume is synced
  kClearUnderWriter,     // marks are cleared while a write to the extent is under way
  kOpenWritesFlushed,    // what is in no dataset yet counts as flushed
  kOverflowForgets,      // a backlog that is given up leaves no stale extents
  kTrackingForgetsTrim,  // a trim is not marked while nothing is recorded
  kCaptureOrder,         // two writes change places
  kCompleteTooEarly,     // a resync completes without the writes that it may have read
  kFirstRangeOnly,       // of a resync dataset's ranges only the first is compared
  kSpoolWithoutEnd,      // a file of the spool is taken without its end record
  kSpoolGap,             // what the spool has behind a gap is sent
  kSpoolAge,             // a spool that was given up is read again
  kKeptUnchecked,        // after a stop what is marked is not compared though the spool lost some
  kLateHello,            // a HELLO of a connection that is long gone takes the group up
  kRefusedForgotten,     // what a refused write left is taken for what its dataset has
  kRefusedTooEarly,      // and is compared before the writes that were captured before it are sent
  kSyncsAgain,           // the source calls fsync again after it failed, and believes the answer
  kComparesPages,        // after a start what the system remembers is compared, not the disk
};

inline constexpr std::array<std::pair<Fault, std::string_view>, 12> kPlantedFaults = {{
    {Fault::kAckBeforeFsync, "acknowledge-before-fsync"},
    {Fault::kRetryFsync, "retry-fsync"},
    {Fault::kApplyBeforeCommit, "apply-before-commit"},
    {Fault::kNoFileHash, "no-file-hash"},
    {Fault::kNoFrameHash, "no-frame-hash"},
    {Fault::kNoDirectorySync, "no-directory-fsync"},
    {Fault::kChainUnchecked, "chain-not-checked"},
    {Fault::kStaleEpoch, "stale-epoch-accepted"},
    {Fault::kGrantUnchecked, "buffer-grant-not-checked"},
    {Fault::kWeakMatch, "64-bit-match-drops-alone"},
    {Fault::kRecoverySkipsLast, "recovery-skips-the-last-dataset"},
    {Fault::kEndCountUnchecked, "end-without-count-check"},
}};
inline constexpr std::array<std::pair<Fault, std::string_view>, 19> kPlantedLiveFaults = {{
    {Fault::kMarkAfterWrite, "mark-after-the-write"},
    {Fault::kClearBeforeFlushed, "clear-before-flushed"},
    {Fault::kClearBeforeSync, "clear-before-the-volume-is-synced"},
    {Fault::kClearUnderWriter, "clear-under-a-writer"},
    {Fault::kOpenWritesFlushed, "open-writes-count-as-flushed"},
    {Fault::kOverflowForgets, "overflow-forgets-the-backlog"},
    {Fault::kTrackingForgetsTrim, "overflow-forgets-a-trim"},
    {Fault::kCaptureOrder, "writes-out-of-order"},
    {Fault::kCompleteTooEarly, "resync-completes-too-early"},
    {Fault::kFirstRangeOnly, "resync-takes-the-first-range-only"},
    {Fault::kSpoolWithoutEnd, "spool-file-without-its-end-record"},
    {Fault::kSpoolGap, "spool-sent-behind-a-gap"},
    {Fault::kSpoolAge, "spool-of-another-age"},
    {Fault::kKeptUnchecked, "kept-though-the-spool-lost-some"},
    {Fault::kLateHello, "late-hello-takes-the-group-up"},
    {Fault::kRefusedForgotten, "refused-write-forgotten"},
    {Fault::kRefusedTooEarly, "refused-write-compared-too-early"},
    {Fault::kSyncsAgain, "source-retries-fsync"},
    {Fault::kComparesPages, "compares-pages-that-a-failed-sync-lost"},
}};

#ifdef PENSTOCK_PLANTED_FAULTS
inline Fault g_plantedFault = Fault::kNone;
inline bool Planted(Fault fault) { return g_plantedFault == fault; }
#else
constexpr bool Planted(Fault) { return false; }
#endif

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_PLANTED_H_
