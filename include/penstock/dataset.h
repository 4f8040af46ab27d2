// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_DATASET_H_
#define PENSTOCK_DATASET_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "penstock/buf_info_enumerator.h"
#include "penstock/error_code.h"
#include "penstock/export.h"
#include "penstock/fingerprint_requester.h"
#include "penstock/host/coalescer.h"
#include "penstock/host/uuid.h"
#include "penstock/records.h"

// One numbered group of buffers of changed data, which travels through a Pipeline as a unit. A
// normal dataset takes the writes of a period; a resync dataset covers given ranges of volumes,
// compares fingerprints with the target and drops what already matches there.
//
// States: admitting buffers (AddBuffer) until it is complete (SetComplete); then its units are
// finished and queued one by one; sealed (IsSealed) when every buffer that its coalescers hold is
// finalized and none is still being worked on.
//
// Always owned by a std::shared_ptr: it hands one to itself to its callbacks, and raises the
// standard bad-weak-pointer exception where it has none. Every failure is a result and a log
// record; nothing that a failing call did before is undone.
//
// Threads: one at a time, as the host arranges. Exceptions: SetComplete, CheckIfReadyAndCompress,
// GetCompressedDataNum, IncTotal4KBlocks' count in the requester and SendFingerprint4Match may be
// called while another thread admits buffers. Callbacks run on the calling thread.
//
//   auto ds = std::make_shared<Dataset>(n, true, 64 << 20, 0);
//   ds->SetDsTimestamp();
//   pipeline.PushDs(ds, false);
//   InternalData buf{volume, offset, length, bytes};
//   pipeline.PushBuf(buf, length);
//   pipeline.BumpDs();  // or PushDs of the next one
class PENSTOCK_EXPORT Dataset : public std::enable_shared_from_this<Dataset> {
 public:
  // Called with the dataset and one of its buffers, which it may change.
  using BufferCb = std::function<void(std::shared_ptr<Dataset>, InternalData&)>;
  // Called with the dataset and a buffer that was finalized.
  using FinalizedCb = std::function<void(std::shared_ptr<Dataset>, const InternalData&)>;
  // Called when the transmit side may have something to do.
  using XmitCb = std::function<void()>;

  // Makes a normal dataset: number `n`, at most `maxCapacity` bytes of buffers (0: no limit).
  // `isNormal` only decides what GetDsType answers; `userParam` is the host's own word.
  Dataset(std::uint64_t n, bool isNormal, std::uint64_t maxCapacity, unsigned int userParam);

  // Makes a resync dataset for `ranges`: one range a volume, the first one of each. `maxCapacity`
  // also bounds the fingerprints: 0 leaves the requester room for one.
  Dataset(std::uint64_t n, const std::vector<FingerprintRange>& ranges, std::uint64_t maxCapacity);

  Dataset(const Dataset&) = delete;
  Dataset& operator=(const Dataset&) = delete;

  // Releases everything the dataset holds, the requester first, and writes no log record.
  virtual ~Dataset();

  // --- Callbacks. Each setter replaces the earlier one; an empty function removes it. ---

  // Called by AddBuffer for every buffer admitted.
  void SetNewBufCb(BufferCb cb);
  // Called for a resync buffer whose fingerprints differ, so that the host compresses and finalizes
  // it; without one the library finalizes it at once with an empty unit.
  void SetDSReceivedCb(BufferCb cb);
  // Called by MarkFinalized, for a buffer that was finalized before too.
  void SetDSFinalizedCb(FinalizedCb cb);
  // Called when units were queued or the last outstanding buffer is done. Pipeline::PushDs installs
  // its own: the host leaves this alone.
  void SetXmitCb(XmitCb cb);

  // --- Facts. ---

  std::uint64_t GetN() const;       // the number
  bool IsNormal() const;            // the normal constructor's flag; false for a resync dataset
  bool IsFingerprinted() const;     // whether this is a resync dataset
  std::uint32_t GetDsType() const;  // 0 normal, 2 resync, 1 otherwise
  std::uint64_t GetCompressedDataNum() const;  // units queued for transmission
  std::uint64_t GetBuffersSize() const;        // bytes admitted
  std::uint64_t GetXmitBuffersSize() const;    // bytes of the buffers handed on for transmission
  std::uint64_t GetOrigBuffersSize() const;    // sum of AddBuffer's origDataSize
  std::uint64_t GetTotalBuffers() const;       // buffers held by the coalescers, after folding
  bool GetWaitForNext() const;                 // whether transmission waits for a successor
  bool GetApplConsistentSnapshot() const;
  bool GetInitialSyncComplete() const;
  std::uint64_t GetDsTimestamp() const;  // milliseconds since the system clock's epoch

  // Returns the system clock's time in milliseconds since its epoch.
  static std::uint64_t GetCurTimestamp();

  // Returns access to the index of each volume, numbered from 0 in order of first use, and to the
  // index that the next new volume receives: 8 bits, so the 257th volume receives 0 again.
  std::pair<std::unordered_map<UuidT, std::uint8_t>&, std::uint8_t&> GetVolIdx();

  // Returns a cursor over the finished units. The dataset must outlive it.
  BufInfoEnumerator GetEnumerator() const;

  // --- Flags; each changes once, in one direction. ---

  // Lets the dataset be transmitted although no successor has come. Pipeline::BumpDs calls it: a
  // host closes a dataset through the pipeline, not with this.
  void MarkNoWaitForNext();
  void SetApplConsistentSnapshot();
  void SetInitialSyncComplete();

  // Sets the timestamp, in milliseconds since the epoch; without an argument, from the clock.
  void SetDsTimestamp(std::uint64_t t);
  void SetDsTimestamp();

  // Marks the dataset complete: no further buffers or fingerprints will be announced.
  //
  // Calls: the fingerprint send function, when the last, shorter batch is now due.
  void SetComplete();

  // --- Admission. ---

  // Admits `data`: gives its volume an index, hands it to the volume's coalescer and counts it.
  // `origDataSize` is added to GetOrigBuffersSize.
  //
  // Returns DS_ERROR_OK; DS_ERROR_UNKNOWN_VOLUME or DS_ERROR_OUT_OF_RANGE for a resync buffer
  // outside its volume's range; DS_ERROR_OUT_OF_RANGE when the capacity would be exceeded. A
  // refused buffer changes nothing.
  // Calls: the new-buffer callback.
  // Cost: two lookups by volume and one addition to a coalescer, whatever other datasets hold.
  DS_ERROR AddBuffer(InternalData& data, std::uint64_t origDataSize);

  // Returns DS_ERROR_OK when the capacity has room for `data`, DS_ERROR_OUT_OF_RANGE otherwise. A
  // buffer that fills the capacity exactly is accepted.
  DS_ERROR VerifyCapacity(const InternalData& data) const;

  // Returns DS_ERROR_OK when `data` lies inside its volume's range, DS_ERROR_UNKNOWN_VOLUME when
  // the volume has none, DS_ERROR_OUT_OF_RANGE otherwise. The sums wrap at 2^64.
  DS_ERROR VerifyBufferRanges(const InternalData& data) const;

  // Counts one 4 KiB block of the dataset. Count every block of a resync dataset after
  // InitFingerprintRequester and before the dataset is complete: the requester recognises its last
  // batch by this count.
  void IncTotal4KBlocks();

  // --- Completion. ---

  // Returns whether `d` was finalized.
  bool IsFinalized(const InternalData& d) const;

  // Finalizes `d` without a unit: it will not be transmitted.
  //
  // Returns DS_ERROR_OK, or DS_ERROR_ALREADY_EXISTS when it was finalized before.
  // Calls: the finalized callback, in both cases.
  DS_ERROR MarkFinalized(const InternalData& d);

  // Finalizes `d` with the unit `c`, and queues a copy of it when `c.toXmit` is set.
  //
  // Returns DS_ERROR_OK; DS_ERROR_ALREADY_FINALIZED when it was finalized before; for a resync
  // dataset DS_ERROR_LOCAL_FP_MISSING or DS_ERROR_REMOTE_FP_MISSING while a fingerprint is missing.
  // REQUIRES: `d` was admitted; one that was not keeps the dataset from sealing for ever.
  // Calls: the transmit callback, when one is installed.
  DS_ERROR FinalizeBuffer(const InternalData& d, const PipeCompressedData& c);

  // The same with an empty unit, which is queued.
  DS_ERROR FinalizeBuffer(const InternalData& d);

  // Takes one unit that covers all buffers of a dataset: finalizes them and queues a copy of it,
  // under its first buffer as the key.
  //
  // Returns DS_ERROR_OK; -14 when anything was finalized before, nothing being changed;
  // DS_ERROR_FAILED when `c.totalBufs` is not the number of distinct buffers, which then stay
  // finalized.
  // Calls: the transmit callback. The standard bad-function-call exception when there is none.
  DS_ERROR NotifyBufferReady(const PipeCompressedData& c);

  // The same, queueing the unit itself: it is empty afterwards, unless it was refused.
  DS_ERROR NotifyBufferReady(PipeCompressedData&& c);

  // Starts compression of an offloaded dataset once all its blocks are done and it is complete; at
  // most once. For the datasets that the constructors make it only logs.
  //
  // Calls: NotifyRecvBuffers.
  void CheckIfReadyAndCompress();

  // Makes one unit, without payload, of every buffer that the coalescers hold, and finalizes them
  // with it. Pipeline closes a normal dataset with it.
  //
  // Calls: Coalescer::ResetPending, NotifyBufferReady.
  void NotifyRecvBuffers();

  // Counts one more buffer as being worked on; the dataset can't seal until MarkDoneBuffers.
  // Returns the new count.
  std::int32_t MarkHasBuffers();

  // Counts one buffer less as being worked on.
  //
  // Returns the count after the callback.
  // Calls: the transmit callback when the count has reached 0. The standard bad-function-call
  // exception when there is none.
  std::int32_t MarkDoneBuffers();

  // Returns whether every buffer is finalized and none is being worked on. True for an empty
  // dataset.
  bool IsSealed() const;

  // --- Fingerprints of a resync dataset. ---

  // Makes the requester, which sends batches of 256 with `sendFn`. A second call is logged and
  // ignored. Blocks counted before are not carried over.
  void InitFingerprintRequester(SendFingerprintsFn sendFn);

  // Offers the fingerprint of the next 4 KiB block. Logged and lost when there is no requester.
  //
  // Calls: the send function, when a batch is due.
  void SendFingerprint4Match(InternalData::Fingerprint fp);

  // Adds the source's, or the target's, fingerprint of `buf`. When both are there they decide:
  // equal drops the buffer (MarkFinalized); different, or twenty zero bytes from the target, keeps
  // it (the received callback, or FinalizeBuffer without one). A kept buffer that came without
  // payload takes the one that came with the other fingerprint.
  //
  // Returns DS_ERROR_OK, or DS_ERROR_ALREADY_EXISTS when this side has one already, which stays.
  // REQUIRES: `buf` was admitted.
  // Calls: the finalized, received and transmit callbacks. The standard bad-function-call exception
  // when the last buffer is dropped and there is no transmit callback.
  DS_ERROR AddLocalFingerprint(const InternalData& buf, const BufFingerprint& fp);
  DS_ERROR AddRemoteFingerprint(const InternalData& buf, const BufFingerprint& fp);

  // The common body of the two above: `mine` receives the fingerprint, `other` is searched,
  // `otherName` is the other side's name in the log.
  DS_ERROR ResyncHandleFingerprints(InternalData buf, const BufFingerprint& fp,
                                    ResyncFingerprintsMap& mine, const ResyncFingerprintsMap& other,
                                    std::string otherName);

  // Compares the fingerprints of `buf`.
  //
  // Returns DS_ERROR_OK: keep. DS_ERROR_BUFS_FP_EQUAL: drop. DS_ERROR_LOCAL_FP_MISSING or
  // DS_ERROR_REMOTE_FP_MISSING: not decided yet.
  DS_ERROR ResyncCalcFingerprintsMatching(const InternalData& buf) const;

  // The same, but DS_ERROR_ALREADY_FINALIZED for an equal buffer that was finalized before.
  DS_ERROR ResyncVerifyFingerprintsMatch(const InternalData& buf) const;

 private:
  friend class Pipeline;  // reads m_dsType to choose how a dataset is closed

  std::uint64_t m_dsNum;
  std::atomic<std::uint64_t> m_compressedDataNum{0};
  bool m_isNormal;
  BufferCb m_newBufCb;
  BufferCb m_dsReceivedCb;
  FinalizedCb m_dsFinalizedCb;
  XmitCb m_xmitCb;
  std::unordered_map<UuidT, std::unique_ptr<Coalescer>> m_coalescers;
  std::vector<std::pair<InternalData, PipeCompressedData>> m_compressedBufs;
  std::unordered_set<InternalData, BufInfoHash, BufInfoEqual> m_finalizedBufs;
  ResyncFingerprintsMap m_localFingerprints;
  ResyncFingerprintsMap m_remoteFingerprints;
  // For embedding systems that count offloaded blocks by volume; the library leaves both empty.
  std::map<std::pair<UUID, std::uint64_t>, std::shared_ptr<std::atomic<std::uint64_t>>>
      m_offloadCounters;
  std::map<std::uint64_t, std::pair<UUID, std::uint64_t>> m_offloadKeys;
  std::uint64_t m_total_added = 0;
  std::uint64_t m_xmitBuffersSize = 0;
  std::uint64_t m_origBuffersSize = 0;
  std::int32_t m_hasBuffers = 0;
  std::unordered_set<FingerprintRange, FingerprintRangeHash, FingerprintRangeEqual> m_ranges;
  std::uint64_t m_max_capacity;
  bool m_waitForNext = true;
  bool m_applConsistentSnapshot = false;
  std::uint64_t m_dsTimestamp = 0;
  bool m_initialSyncComplete = false;
  bool m_recvNotifyEnabled = true;
  std::unordered_map<UuidT, std::uint8_t> m_volIdx;
  std::uint8_t m_nextVolIdx = 0;
  std::unique_ptr<FingerprintRequester> m_foRequester;
  std::uint64_t m_total4KBlocks = 0;
  std::uint64_t m_done4KBlocks = 0;
  std::atomic<bool> m_complete{false};
  std::atomic<std::uint32_t> m_compressStarted{0};
  std::uint32_t m_dsType;
  std::uint32_t m_userParam;
  [[maybe_unused]] bool m_reserved = false;
};

#endif  // PENSTOCK_DATASET_H_
