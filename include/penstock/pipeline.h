// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_PIPELINE_H_
#define PENSTOCK_PIPELINE_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <list>
#include <map>
#include <memory>
#include <utility>

#include "penstock/buf_info_enumerator.h"
#include "penstock/dataset.h"
#include "penstock/dataset_serializer.h"
#include "penstock/error_code.h"
#include "penstock/export.h"
#include "penstock/pipeline_records.h"
#include "penstock/records.h"

// The ordered queues through which every dataset of one group moves:
//
//   receive   datasets accepted and not yet handed to the transmitter (newest at the front)
//   transmit  datasets handed to the transmitter and not yet acknowledged (oldest at the front)
//   done      a record of each accepted dataset until it is reported done, in order
//   flush     a record of each done dataset until it is reported flushed, in order
//
// A dataset enters the transmit pipe only after its predecessor there is sealed; it is reported
// done only after every older one, and flushed only after every older one.
//
// Every refusal is a result and a log record. Nothing is thrown but what callbacks throw and the
// standard bad-function-call exception where a required callback is missing; nothing is undone when
// that happens.
//
// Threads: one at a time, for the pipeline and all of its datasets' operations that may call back
// into it (docs/host.md lists them). The exceptions are FulfillPipeData, which waits on a thread of
// its own, and SetAcceptStatus and GetAcceptStatus. Callbacks run on the calling thread and must
// not call the pipeline.
//
//   Pipeline pipeline;
//   pipeline.SetTransmitterCb([&](std::shared_ptr<Dataset>& ds) { return SendNewUnits(ds); });
//   pipeline.SetDoneCb([&](unsigned long n, bool, bool success, bool) { Applied(n, success); });
//   pipeline.SetFlushedCb([&](unsigned long n, bool, bool success) { Safe(n, success); });
//   pipeline.PushDs(std::make_shared<Dataset>(1, true, 0, 0), false);
class PENSTOCK_EXPORT Pipeline {
 public:
  // Told that something about the dataset may be new: it entered the transmit pipe, one of its
  // units became ready, or it is offered again. A negative result ends the offers of the current
  // call.
  using TransmitterCb = std::function<int(std::shared_ptr<Dataset>&)>;
  // Number, fingerprinted, success, empty.
  using DoneCb = std::function<void(unsigned long, bool, bool, bool)>;
  // Number, fingerprinted, success.
  using FlushedCb = std::function<void(unsigned long, bool, bool)>;

  Pipeline();

  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  // Releases everything; no callback is called. A dataset that outlives the pipeline must not be
  // operated on any more: its transmit callback points here.
  ~Pipeline();

  // --- Callbacks: install all three before the first PushDs. Each is copied. ---

  void SetTransmitterCb(const TransmitterCb& cb);
  void SetDoneCb(const DoneCb& cb);  // while empty, no done record is made at all
  void SetFlushedCb(const FlushedCb& cb);

  // --- Intake. ---

  // Accepts `ds` as the newest dataset, closes the one before it and drives the transmitter.
  // `flag`: the dataset must also be stored (MarkStored or MarkError) before it is done.
  //
  // Returns DS_ERROR_OK; -15 while the accept status is false; DS_ERROR_DS_TOO_OLD when its number
  // is not above the last one accepted. A refused dataset is left alone.
  // Owns: a share of `ds` until its acknowledgement. Installs its transmit callback.
  // Calls: the transmitter, and the callbacks of the dataset before.
  DS_ERROR PushDs(const std::shared_ptr<Dataset>& ds, bool flag);

  // Adds `buf` to the newest dataset.
  //
  // Returns what Dataset::AddBuffer returns, or DS_ERROR_NO_DATASET when the receive pipe is empty.
  DS_ERROR PushBuf(InternalData& buf, unsigned long arg);

  // Closes the newest dataset without waiting for a successor. Nothing when there is none.
  //
  // Calls: the transmitter, and the callbacks of the dataset.
  void BumpDs();

  // Closes `prev` and drives the transmitter. PushDs and BumpDs call it.
  void ProcessPreviousDatasets(const std::shared_ptr<Dataset>& prev);

  // Appends the done record of `ds`, unless there is no done callback. PushDs calls it; a host only
  // after a transmitter that threw out of PushDs.
  void AddToDonePipe(const std::shared_ptr<Dataset>& ds, bool flag);

  // Forgets the newest dataset of the receive pipe and its done record, so that its number may be
  // pushed again.
  void DropUnfinishedDs();

  // Empties all queues and starts the numbering again; callbacks and accept status stay.
  void Reset();

  // Whether PushDs accepts datasets. May be called while FulfillPipeData waits.
  void SetAcceptStatus(bool accept);
  bool GetAcceptStatus() const;

  // --- Queries. ---

  // Returns whether anything other than dataset `n` is in the receive or transmit pipe.
  bool ShouldQueueDataset(unsigned long n) const;

  // Returns the dataset numbered `n` of the receive or transmit pipe, or an empty pointer.
  std::shared_ptr<Dataset> GetDs(unsigned long n);

  // Returns true and the newest number of the receive pipe, or false and 2^64 - 1.
  std::pair<bool, std::uint64_t> GetCurRecvDsNum() const;

  // Returns true and the oldest number of the transmit pipe, or false and 2^64 - 1.
  std::pair<bool, std::uint64_t> GetCurXmitDsNum() const;

  // Calls `fn` on every dataset: the transmit pipe newest first, then the receive pipe oldest
  // first. `fn` must not change the pipes.
  void IterateReceiveDatasets(std::function<void(std::shared_ptr<Dataset>)> fn);

  // --- Dataset files, by dataset number; the done report of a number releases its entry. ---

  // Registers `s`; ignored when `key` has an entry.
  void AddSerializer(unsigned long key, const std::shared_ptr<DatasetSerializer>& s);

  // Returns the entry of `key`, or an empty pointer.
  std::shared_ptr<DatasetSerializer> GetDsSerializer(unsigned long key);

  // --- Transmission. ---

  // XmitReadyDSBufs, then MoveProcessedDSsToXmitPipe. A host calls it after anything that sealed a
  // dataset without a transmit callback.
  void UpdateTransmitter();

  // Offers the newly finished units of the newest dataset of the transmit pipe, one call of the
  // transmitter each. After a negative result the rest is passed over for good.
  void XmitReadyDSBufs();

  // Moves datasets from the receive to the transmit pipe, oldest first, as far as they may go. The
  // newest dataset waits for its successor or BumpDs.
  void MoveProcessedDSsToXmitPipe();

  // Returns whether the transmit pipe is empty or its newest dataset is sealed.
  bool CanMoveDSToXmitPipe() const;

  // Moves the oldest dataset of the receive pipe and calls the transmitter for it.
  //
  // REQUIRES: the receive pipe is not empty.
  void MoveRecvToXmit();

  // Waits, looking once a second, until every accepted dataset has been reported done; while
  // datasets are accepted, one record, the newest, may remain. No time limit.
  //
  // Returns DS_ERROR_OK.
  // Threads: one other than the pipeline's, while the pipeline lives.
  DS_ERROR FulfillPipeData();

  // Offers every dataset of the transmit pipe to the transmitter again, oldest first. `clear` first
  // drops the done and flush records of everything older than the oldest of them, unreported.
  //
  // Returns DS_ERROR_OK, or DS_ERROR_FAILED when `clear` is set and the transmit pipe is empty.
  DS_ERROR Retransmit(bool clear);

  // --- Answers of the target. ---

  // The target has dataset `N` whole and durable: it leaves the transmit pipe. Only the oldest can.
  // `buffersSize`, unless null, receives the bytes of the oldest dataset, accepted or not.
  //
  // Returns DS_ERROR_OK; DS_ERROR_FAILED when the transmit pipe is empty (nothing is written);
  // DS_ERROR_ACK_OUT_OF_ORDER or DS_ERROR_ACK_TOO_OLD when `N` is above or below the oldest number.
  // REQUIRES: all of `N` was sent; sealing is not tested.
  // Calls: the transmitter, for datasets that may now go.
  DS_ERROR Ack(std::uint64_t N, std::size_t* buffersSize);

  // The target has applied dataset `N`. A later call overwrites success and empty.
  //
  // Returns DS_ERROR_OK, or DS_ERROR_NO_DATASET when there is no such record.
  // Calls: the done callback, for each record that is ready and has none older in front.
  DS_ERROR Done(std::uint64_t N, bool success, bool empty);

  // Dataset `N`, pushed with the flag true, is stored, or could not be. Either way it may be done.
  //
  // Returns and calls: as Done.
  DS_ERROR MarkStored(std::uint64_t N);
  DS_ERROR MarkError(std::uint64_t N);

  // The target has flushed dataset `N`.
  //
  // Returns DS_ERROR_OK, or DS_ERROR_NO_DATASET when there is no such record.
  // Calls: the flushed callback, for each flushed record that has none older in front. The standard
  // bad-function-call exception when there is none.
  DS_ERROR Flushed(std::uint64_t N, bool success);

  // Drops the done and flush records up to `N`, unreported.
  void ClearDonePipe(std::uint64_t N);

  // Returns the done flag of the oldest done record; false when there is none.
  //
  // REQUIRES: `N` is its number. The call never returns otherwise.
  bool IsDone(std::uint64_t N) const;

  // Returns the timestamp of flush record `N` in milliseconds since the epoch, or 0.
  std::uint64_t GetPendingFlushDsTimestamp(std::uint64_t N) const;

  // --- Status. ---

  // Logs the runs of the done pipe (EmitDonePipe), at LOG_NOTICE if `important`, else LOG_INFO.
  void PrintDonePipe(bool important) const;

  // Writes the four queues on one line without an end of line: "pipes [RECV 9 .. 8]  [XMIT 5 .. 7]
  // [DONE 1:3..4 0:5..9]  [FLUSH 0:1..2]".
  friend PENSTOCK_EXPORT std::ostream& operator<<(std::ostream& os, const Pipeline& p);

 private:
  // The ends of the done pipe at one moment.
  struct DoneSpan {
    std::uint64_t size = 0;
    std::uint64_t frontN = 0;
    std::uint64_t backN = 0;
  };

  void ReportFrontDone();
  void PublishDoneSpan();
  DoneSpan ReadDoneSpan() const;
  bool Drained(const DoneSpan& span) const;

  std::unique_ptr<BufInfoEnumerator> m_xmitEnumerator;
  std::list<std::shared_ptr<Dataset>> m_recvPipe;
  std::list<std::shared_ptr<Dataset>> m_xmitPipe;
  std::map<std::uint64_t, std::shared_ptr<DatasetSerializer>> m_serializers;
  std::list<DoneInfo> m_donePipe;
  std::list<FlushInfo> m_flushPipe;
  TransmitterCb m_transmitter;
  DoneCb m_doneCb;
  FlushedCb m_flushedCb;
  std::uint64_t m_lastReceived = 0;
  std::atomic<bool> m_acceptStatus{true};

  // The done pipe's ends, published for FulfillPipeData, which reads them from another thread: an
  // even version brackets a consistent set of values; an odd one says that they are being written.
  std::atomic<std::uint64_t> m_doneSpanVersion{0};
  std::atomic<std::uint64_t> m_doneSpanSize{0};
  std::atomic<std::uint64_t> m_doneSpanFrontN{0};
  std::atomic<std::uint64_t> m_doneSpanBackN{0};
};

PENSTOCK_EXPORT std::ostream& operator<<(std::ostream& os, const Pipeline& p);

#endif  // PENSTOCK_PIPELINE_H_
