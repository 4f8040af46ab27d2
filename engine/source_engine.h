// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_ENGINE_SOURCE_ENGINE_H_
#define PENSTOCK_ENGINE_SOURCE_ENGINE_H_

#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "codec/block.h"
#include "engine/chain.h"
#include "engine/commands.h"
#include "engine/source_feed.h"
#include "engine/source_parts.h"
#include "penstock/penstock.h"

namespace penstock {

struct SourceVolume {
  std::string name;
  std::uint64_t size = 0;  // bytes, at least 1
};

struct SourceConfig {
  std::string group;
  std::vector<SourceVolume> volumes;  // 1 to kMaxVolumes
  CompressSpec compress;
  bool resyncAtStart = true;  // compare everything once, before anything else is believed

  // What is captured of running volumes, and outlives the engine; null: see SourceFeed. The rest of
  // this part belongs to it.
  SourceFeed* feed = nullptr;
  std::uint64_t epoch = 0;    // of the last process that had the group; 0: take it up anew
  std::uint64_t flushed = 0;  // the target was known to have flushed, by then
  std::vector<SpooledDataset> spooled;  // what that process left, ascending
  // It ended with KeptUpTo, and what is marked was told to `feed` to be in datasets up to this one:
  // compared only when not all of them are found. 0: it did not.
  std::uint64_t kept = 0;
  std::vector<PointRecord> names;          // of points that the target may not have
  std::uint64_t liveMemory = 256U << 20U;  // of normal datasets; the spool is used from a half on,
  Millis spoolAfter = 500;                 // when the link did not take the oldest within that
  std::uint64_t spoolBytes = 0;            // at most, of the spool's files; 0: there is none
  Millis interval = 1'000;                 // at which datasets are closed
  std::size_t clearExtents = 64;           // marks that are cleared at a time, at least
  Millis clearAfter = 10'000;              // with fewer of them, and after a failed clearing
  Millis readAgain = 10'000;               // what a volume could not read is tried again

  // Limits. The memory that a source holds is at most `memory` for resync datasets, plus what the
  // open and unacknowledged normal datasets hold.
  // Of one resync dataset: at most 256 MiB, and a multiple of kWindowBytes or less than it.
  std::uint64_t resyncBytes = 16U << 20U;
  std::uint64_t memory = 96U << 20U;        // at least twice resyncBytes
  std::uint64_t datasetBytes = 64U << 20U;  // of one normal dataset
  std::uint32_t fetchJobs = 6;              // windows being read at a time
  // Windows that are read and not settled: enough for the answers' way, and few enough to stay in
  // the processor's caches.
  std::uint32_t windowsInHand = 24;

  // Timeouts, milliseconds.
  Millis greetTimeout = 10'000;
  Millis progressTimeout = 30'000;  // nothing came although something is due
  Millis pingAfter = 10'000;        // of silence
  Millis progressEvery = 1'000;     // how often the target is told where the source is
  Millis backoffMin = 200;
  Millis backoffMax = 10'000;

  // Fills with unpredictable bytes: nonces, keys, jitter.
  std::function<void(std::span<std::uint8_t>)> random;
};

// Where the connection is.
enum class SourcePhase : std::uint8_t {
  kIdle,        // not started
  kConnecting,  // a connection was asked for
  kGreeting,    // HELLO is out, WELCOME is not in
  kOnline,      // frames flow
  kBackoff,     // lost or refused for now; connects again at a time
  kPaused,      // on its owner's order
  kStopped,     // for good: see SourceStatus::failure
};
const char* Text(SourcePhase phase);

struct SourceStatus {
  SourcePhase phase = SourcePhase::kIdle;
  std::uint64_t epoch = 0;
  std::uint64_t closed = 0;   // the newest closed dataset
  std::uint64_t sent = 0;     // sent to its end
  std::uint64_t durable = 0;  // reported by the target, as are the next two
  std::uint64_t applied = 0;
  std::uint64_t flushed = 0;
  bool chainAgrees = true;          // of everything reported flushed, the target's chain was ours
  std::uint64_t syncedAt = 0;       // the dataset that completed the last pass; 0: none yet
  bool resyncing = false;           // a pass is wanted or under way
  std::uint64_t passBytes = 0;      // of the volumes of the pass
  std::uint64_t comparedBytes = 0;  // of those: settled
  std::uint64_t passedBytes = 0;    // of those: durable at the target, or equal there
  std::uint64_t equalBytes = 0;     // found equal, or zero on a new volume
  std::uint64_t rawBytes = 0;       // of blocks made: volume data
  std::uint64_t packedBytes = 0;    // of blocks made: as they travel
  std::uint64_t sentBytes = 0;      // of blocks sent, again ones included
  std::uint64_t resentDatasets = 0;
  std::uint64_t reconnects = 0;
  std::uint64_t damaged = 0;  // answers that were refused
  std::uint64_t spooledDatasets = 0;
  std::uint64_t spooledBytes = 0;  // of their files
  std::uint64_t overflows = 0;     // how often the backlog was given up
  std::string lastOverflow;        // why, the last time
  bool isFinished = false;         // see Finish
  std::string lastTrouble;         // of the connection, for people; empty: none
  ErrorCode failureCode = ErrorCode::kProtocol;
  std::string failure;  // why it stopped for good; empty: it did not
};

enum class WriteResult : std::uint8_t {
  kOk,
  kOutside,  // not within the volume, or no such volume
  kStopped,
};

// Gets the changes of a group's volumes to the target, in order.
//
// Resyncs are made of resync datasets, writes of normal ones; both go through one Pipeline, which
// decides the order. A pass compares all volumes with the target range by range; its end is a
// normal dataset that carries the mark "sync complete", which the target takes as the first point
// at which the group is good again. Every block of a pass is read after its dataset was pushed, so
// that it holds all writes of the datasets before, and a write that comes later is in a dataset
// behind.
//
// A pass begins only when every dataset that was closed before is applied at the target: what the
// target compares with is then never older than what was once sent.
//
// The engine has no thread, clock or I/O: it is told events and the time, and leaves commands.
// Threads: one at a time; it owns its Pipeline and touches it on that thread only.
class SourceEngine {
 public:
  explicit SourceEngine(SourceConfig config);
  ~SourceEngine();
  SourceEngine(const SourceEngine&) = delete;
  SourceEngine& operator=(const SourceEngine&) = delete;

  // --- Events. ---
  void Start(const Moment& now);
  void Connected(ConnId conn, const Moment& now);
  void ConnectFailed(const std::string& why, const Moment& now);
  void Received(ConnId conn, const Frame& frame, const Moment& now);
  void ConnClosed(ConnId conn, const std::string& why, const Moment& now);
  void Completed(WindowFetched&& result, const Moment& now);
  void Completed(RunsPacked&& result, const Moment& now);
  void Completed(BuffersPacked&& result, const Moment& now);
  void Completed(SpoolDone&& result, const Moment& now);
  void Completed(SpoolLoaded&& result, const Moment& now);
  void Completed(CheckpointDone&& result, const Moment& now);
  void Tick(const Moment& now);

  // When Tick is due at the latest, on the steady clock.
  Millis NextDeadline() const;

  // What is to be carried out, in order. The list is empty afterwards.
  std::vector<SourceCommand> TakeCommands();

  // --- Writes and points. ---

  // Takes a write that the volume already has. `data` is shared until the target has it durable.
  WriteResult Write(std::uint8_t volume, std::uint64_t offset,
                    std::shared_ptr<const std::uint8_t[]> data, std::uint32_t length,
                    const Moment& now);
  // Closes the open dataset, or an empty one when none is open, with everything that was captured
  // so far. Returns its number; 0 when there is no order that it could be a point of: before the
  // first WELCOME, when the backlog was given up, and until what is stale begins to be compared.
  // `consistent`: the point is one of the application's own. A `name` (IsPointName) makes it one,
  // and goes with it to the target.
  std::uint64_t CloseDataset(const Moment& now, bool consistent = false,
                             const std::string& name = {});
  // Wants all volumes compared again; with a feed, what is stale of them.
  void Resync(const Moment& now);
  // Ends the connection until Resume; everything else goes on.
  void Pause(const Moment& now);
  void Resume(const Moment& now);
  // Nothing is captured any more: once IsSettled, clears the change maps. SourceStatus::isFinished
  // tells when that is done, or could not be.
  void Finish(const Moment& now);
  // Says BYE and stops.
  void Stop(const Moment& now);

  const SourceStatus& Status() const { return m_status; }
  // Everything closed is flushed, and no pass is wanted or under way.
  bool IsSettled() const;
  std::uint64_t MemoryUsed() const { return m_reserved + m_normalBytes; }
  // A dataset, the epoch or marks are on their way to the disk: KeptUpTo may say more soon.
  bool IsStoring() const { return m_spoolJob != 0 || m_clearing != Clearing::kNo; }
  // Of a source with a feed that is about to end: all that was captured is in datasets up to the
  // one that is returned, and each of these is at the target, durably, or in the spool. For the
  // `kept` of the next process, once the volumes are synced. Nothing: something is only marked.
  std::optional<std::uint64_t> KeptUpTo() const;

 private:
  using Cursor = SourceCursor;
  using Cursors = std::map<std::uint64_t, Cursor>;
  using Window = SourceWindow;
  using Ranges = std::vector<ChangeMap::Range>;
  struct NormalHeld {
    std::uint64_t bytes = 0;
    Millis since = 0;  // its first write was taken; live, it was closed at the same time
  };
  struct ResyncPart {
    std::uint8_t volume = 0;
    bool isFirst = false;  // of its volume, in its pass
    std::uint64_t length = 0;
  };

  // source_engine.cpp: the connection.
  void SetPhase(SourcePhase phase) { m_status.phase = phase; }
  void DropConn(const std::string& why, const Moment& now);
  void GiveUp(ErrorCode code, const std::string& why);
  void Backoff(const std::string& why, const Moment& now);
  void SendHello();
  void TakeFrame(const Frame& frame, const Moment& now);
  void TickOnline(const Moment& now);
  void TakeReport(FrameType type, const Frame& frame, const Moment& now);
  void TakeError(const Frame& frame, const Moment& now);
  void Refuse(const std::string& why, const Moment& now);
  void Send(Frame frame);
  void Say(NoteLevel level, std::string text);
  Progress ProgressNow() const;
  void SendProgress(const Moment& now);
  void Settle(const Moment& now);  // after every event: whatever has become possible
  void TakeSteps(const Moment& now);

  // source_history.cpp: what the target has.
  void TakeWelcome(const Frame& frame, const Moment& now);
  bool TakeHistory(const Welcome& welcome, const Moment& now);
  bool BeginHistory(const Welcome& welcome, const Moment& now);
  void MakePipeline();

  // source_pipe.cpp: datasets on their way.
  void PushNormal(const Moment& now);
  WriteResult PushWrite(const CapturedWrite& write, const Moment& now);
  std::uint64_t Push(const std::shared_ptr<Dataset>& ds, const Moment& now);
  bool HasOpenNormal() const;
  void CloseNewest();
  void AckUpTo(std::uint64_t n);
  void ReleaseNormal(std::uint64_t n);
  void DoneUpTo(std::uint64_t n);
  void FlushedUpTo(std::uint64_t n);
  void ResetCursors();
  void Pump();
  bool PumpOne(Cursor& cursor);
  bool TakeUnits(Cursor& cursor);
  void SplitNormalUnit(Cursor& cursor, const PipeCompressedData& unit);
  void SendStart(Cursor& cursor);
  void SendEnd(Cursor& cursor);
  void FillStart(Cursor& cursor) const;
  bool FitsWindow(const Cursor& cursor, std::uint64_t bytes) const;

  // source_resync.cpp: passes.
  bool PassMayBegin() const;
  bool IsEmptyThere(const WelcomeVolume& volume) const;
  void BeginPass();
  void StepPass(const Moment& now);
  Ranges NextRanges();
  void OpenResync(std::uint8_t volume, const Ranges& ranges, const Moment& now);
  void StepFetch();
  void Fetch(ResyncWork& work, std::size_t index);
  void OfferFingerprints(ResyncWork& work);
  void SendQueries();
  void SendQuery(ResyncWork& work, std::size_t index);
  void TakeAnswer(const Frame& frame, const Moment& now);
  void AskAgain();  // after a reconnection: windows whose answer did not come
  void EndPass(const Moment& now);

  // source_decide.cpp: what the answers mean.
  void TakeCopied(ResyncWork& work, Window& window, WindowFetched&& result);
  void TakePacked(ResyncWork& work, Window& window, RunsPacked&& result);
  void Admit(ResyncWork& work, Window& window, const std::vector<Run>& runs);
  void AdmitRun(ResyncWork& work, Window& window, const Run& ours, const Run& theirs);
  void FinalizeKept(ResyncWork& work, Window& window, const BlockPtr& block);
  void WindowSettled(ResyncWork& work, Window& window);

  // source_live.cpp: captured writes, the spool, the clearing of marks.
  bool MayPushCaptured() const;
  void PushCaptured(const Moment& now);
  void StepClose(const Moment& now);
  void StepSpool(const Moment& now);
  bool IsSpoolDue(const Moment& now);
  bool DrainsBacklog() const;
  bool IsBehindComparison() const;
  void CheckKept();
  Cursors::const_iterator FirstUnspooled() const;
  void SpoolOne(std::uint64_t n, Cursor& cursor);
  void StoredInSpool(std::uint64_t n, Cursor& cursor);
  bool LoadFromSpool(Cursor& cursor);
  static void Unload(Cursor& cursor);
  bool AdoptSpool();
  void AdoptNames();
  void KeepPointNames();
  void DropSpool();
  void SaveWhole();
  void Overflow(const std::string& why, const Moment& now, Millis wait = 0);
  void ForgetBacklog();
  void StepCheckpoint(const Moment& now);
  Millis LiveDeadline() const;

  // source_refused.cpp: writes that a volume refused.
  void StepRefused(const Moment& now);
  bool ProbeNext();
  void Probed(const WindowFetched& result, const Moment& now);
  void BeginConnect(const Moment& now);

  SourceConfig m_config;
  SourceStatus m_status;
  std::vector<SourceCommand> m_commands;
  std::vector<UuidT> m_volumeIds;

  // The connection.
  ConnId m_conn = 0;
  std::uint64_t m_connCount = 0;  // generation: results of an earlier one are done again
  Hello m_hello;                  // of this connection
  std::uint64_t m_window = 0;
  std::vector<WelcomeVolume> m_remote;  // what the last WELCOME said
  std::uint64_t m_welcomedApplied = 0;  // likewise
  Millis m_lastHeard = 0;
  Millis m_deadline = 0;  // of the phase
  bool m_pinged = false;
  Progress m_told;      // to the target, on this connection
  Millis m_tellAt = 0;  // not before
  bool m_hasToTell = false;
  Millis m_backoff = 0;

  // The pipeline and what is known of its datasets.
  std::unique_ptr<Pipeline> m_pipe;
  Cursors m_cursors;         // transmitted, not acknowledged
  std::uint64_t m_base = 0;  // numbers up to here are of earlier epochs
  std::uint64_t m_last = 0;  // the newest pushed
  std::shared_ptr<Dataset> m_newest;
  std::vector<CapturedWrite> m_taken;  // while they are pushed; otherwise its memory alone is used
  bool m_newestClosed = true;
  Digest m_ackedChain{};                         // of m_status.durable
  std::map<std::uint64_t, Digest> m_chains;      // acknowledged, not flushed
  std::map<std::uint64_t, PointRecord> m_names;  // not acknowledged; at most kMaxPoints
  std::uint64_t m_inFlight = 0;                  // bytes of blocks sent, not acknowledged
  std::uint64_t m_normalBytes = 0;               // held by normal datasets
  std::map<std::uint64_t, NormalHeld> m_normalHeld;

  // The pass.
  bool m_passWanted = false;
  std::uint64_t m_passAfter = 0;  // begins when this one is applied
  bool m_passing = false;
  bool m_passSpoiled = false;  // of the pass under way: the target lost what it stands on
  // Datasets up to this one neither begin nor complete a resync: they were made for volumes that
  // the target does not have any more as they were.
  std::uint64_t m_spoiledUpTo = 0;
  std::vector<bool> m_passCopies;       // a volume that reads as zeros: nothing to compare with
  std::vector<std::uint64_t> m_passed;  // by volume: bytes of the pass that are durable
  std::size_t m_passVolume = 0;
  std::uint64_t m_passOffset = 0;
  bool m_passHasFirst = false;  // a dataset of the volume at hand was made
  std::map<std::uint64_t, std::unique_ptr<ResyncWork>> m_resyncs;  // not sealed
  std::deque<std::pair<std::uint64_t, std::size_t>> m_refetch;     // n, window
  std::deque<std::pair<std::uint64_t, std::uint64_t>> m_batches;   // n, first block: to be asked
  bool m_kept = false;  // set by the received callback: the buffer at hand is to be sent
  std::map<std::uint64_t, std::uint64_t> m_held;  // by n: bytes reserved until acknowledged
  // By n, until acknowledged.
  std::map<std::uint64_t, ResyncPart> m_resyncPart;
  std::uint64_t m_reserved = 0;
  std::uint32_t m_fetching = 0;
  std::uint32_t m_inHand = 0;  // windows from their fetching until they are settled

  // Live capture.
  Millis m_closeAt = 0;
  Millis m_spoolAt = std::numeric_limits<Millis>::max();  // what waits for the link is due then
  std::uint64_t m_spoolJob = 0;    // the dataset that is being written; 0: none
  bool m_hasSpool = false;         // something of this history may be in it
  bool m_spoolDropping = false;    // nothing is connected before that is over
  std::uint64_t m_knownEpoch = 0;  // that is durable here
  Millis m_checkpointAt = 0;
  bool m_checkpointFailed = false;
  enum class Clearing : std::uint8_t { kNo, kSyncing, kSaving, kSavingWhole };
  Clearing m_clearing = Clearing::kNo;
  bool m_clearsLast = false;  // the clearing under way is that of Finish
  bool m_finishing = false;

  // Refused extents while everything else is in order.
  Millis m_probeAt = 0;  // when they are looked for again
  Ticket m_probe = 0;    // the read under way; 0: none
  std::size_t m_probeVolume = 0;
  std::uint64_t m_probeOffset = 0;
  std::uint64_t m_probed = 0;  // refusals of which it was tried, all that there were as it began
  bool m_canBeRead = false;    // all of them: they are compared as soon as nothing is in between
  bool m_saidUnread = false;

  std::uint64_t m_lastTicket = 0;
  std::map<Ticket, SourceJob> m_jobs;
};

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_SOURCE_ENGINE_H_
