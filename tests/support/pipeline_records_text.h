// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_SUPPORT_PIPELINE_RECORDS_TEXT_H_
#define PENSTOCK_TESTS_SUPPORT_PIPELINE_RECORDS_TEXT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/make.h"

// The log records of a pipeline and its datasets as a trace shows them, one line each:
// "<level letter> <function> <text>\n". The address of dataset 7 reads "@7", the pipeline's
// "@pipe", a cursor's "@cursor". What the host does reads "> <what>\n".
//
// They are written out here by hand, once, so that a test can state the whole sequence of an
// operation in a few words; nothing is taken from the library.
namespace rec {

using N = std::uint64_t;

inline std::string Num(N n) { return std::to_string(n); }
inline std::string At(N n) { return "@" + Num(n); }
inline std::string Word(bool flag) { return flag ? "true" : "false"; }
inline std::string Host(const std::string& what) { return "> " + what + "\n"; }
inline std::string Transmit(N n) { return Host("transmit " + Num(n)); }

// --- Intake. ---

inline std::string Constructed(N n) { return "I Dataset() N: " + Num(n) + " m_hasBuffers: 0\n"; }
inline std::string PushDs(N n, N last) {
  return "I Pipeline::PushDs() DS: " + At(n) + " _last_received: " + Num(last) + "  N: " + Num(n) +
         "\n";
}
inline std::string NotAccepting() {
  return "E Pipeline::PushDs() failure!!! - pipe cannot receive more ds!\n";
}
inline std::string TooOld(N n, N last) {
  return "E Pipeline::PushDs() failure!!! - dataset received is too old   last_received: " +
         Num(last) + "  N: " + Num(n) + "\n";
}
inline std::string Prev(N n) {
  return "I Pipeline::ProcessPreviousDatasets() prevDs N: " + Num(n) + " \n";
}
inline std::string Bump(N n) { return "I Pipeline::BumpDs() bump N: " + Num(n) + "\n"; }
inline std::string PushBuf(N n, N size) {
  return "D Pipeline::PushBuf() N: " + Num(n) + " m_recvPipe " + Num(size) + "\n";
}
inline std::string AddBuffer(N n, const InternalData& buf, N origSize) {
  return "D Dataset::AddBuffer() N: " + Num(n) + " adding " + Text(buf) +
         " origDataSize: " + Num(origSize) + "\n";
}
inline std::string Dropping(N n) {
  return "N Pipeline::DropUnfinishedDs() dropping received dataset  N: " + Num(n) +
         "  setting m_lastReceived: " + Num(n - 1) + "\n";
}
inline std::string ShouldQueue(N xmit, N recv, N n) {
  return "I Pipeline::ShouldQueueDataset() m_xmitPipe.size: " + Num(xmit) +
         "  m_recvPipe.size: " + Num(recv) + "  N: " + Num(n) + "\n";
}

// --- A dataset's closing. ---

inline std::string Loop() {
  return "D Dataset::NotifyRecvBuffers() doing the _received_DS_cb() loop\n";
}
inline std::string Visit(N n, const InternalData& buf) {
  return "D Dataset::NotifyRecvBuffers() DS: " + At(n) + " N: " + Num(n) + "  " + Text(buf) + "\n";
}
inline std::string Ready(N n, N volumes, N total) {
  return "I Dataset::NotifyBufferReady() DS: " + At(n) + " N: " + Num(n) +
         " is ready to transmit, vol Num: " + Num(volumes) + ", total size: " + Num(total) + "\n";
}
inline std::string NothingToFinalize(N n) {
  return "I Dataset::NotifyBufferReady() Finalize buffer is empty N: " + Num(n) + "\n";
}
inline std::string AlreadyWaiting(N n) {
  return "E Dataset::NotifyBufferReady() Finalize buffer is not empty N: " + Num(n) + "\n";
}
inline std::string Queued(N count) {
  return "D Dataset::NotifyBufferReady() Pushed " + Num(count) + " compressed data to xmit buf.\n";
}
inline std::string QueuedOne(N count) {
  return "D Dataset::FinalizeBuffer() Pushed " + Num(count) + " compressed data to xmit buf.\n";
}
inline std::string Finalize(N n, const InternalData& buf, N total) {
  return "D Dataset::FinalizeBuffer() DS: " + At(n) + " N: " + Num(n) + " " + Text(buf) +
         " compressed size: " + Num(total) + "\n";
}
// A normal dataset with the buffers `bufs`, all of one volume, closed for the first time, up to its
// transmit callback.
inline std::string Closing(N n, const std::vector<InternalData>& bufs) {
  std::string text = Prev(n) + Loop();
  for (const InternalData& buf : bufs) text += Visit(n, buf);
  text += Ready(n, bufs.empty() ? 0 : 1, bufs.size());
  if (bufs.empty()) text += NothingToFinalize(n);
  return text + Queued(1);
}
inline std::string ClosingEmpty(N n) { return Closing(n, {}); }
inline std::string ReadyCheck(N n, N blocks, N done, bool complete) {
  return "I Dataset::CheckIfReadyAndCompress() N: " + Num(n) + " blocks4K " + Num(blocks) +
         " done4K " + Num(done) + " complete: " + (complete ? "1" : "0") + "\n";
}
inline std::string HasBuffers(N n, int count) {
  return "I Dataset::MarkHasBuffers() N: " + Num(n) + " m_hasBuffers: " + std::to_string(count) +
         "\n";
}
inline std::string DoneBuffers(N n, int count) {
  return "I Dataset::MarkDoneBuffers() N: " + Num(n) + " m_hasBuffers: " + std::to_string(count) +
         "\n";
}

// --- The sealing test. ---

inline std::string Sealed(N n, N total) {
  return "I Dataset::IsSealed() N: " + Num(n) + " finalized  total buffers: " + Num(total) + "\n";
}
inline std::string SealedEmpty(N n) {
  return "I Dataset::IsSealed() N: " + Num(n) + " no buffers  " + At(n) + "\n" + Sealed(n, 0);
}
inline std::string SealedAny(N n, N total) {
  return total == 0 ? SealedEmpty(n) : Sealed(n, total);
}
inline std::string NotFinalized(N n, N total, N finalized) {
  return "I Dataset::IsSealed() DS: " + At(n) + " N: " + Num(n) + "  numBufs: " + Num(total) +
         "  m_finalizedBufs.size(): " + Num(finalized) + " not finalized\n";
}
inline std::string StillWorkedOn(N n, int count) {
  return "I Dataset::IsSealed() DS: " + At(n) + " N: " + Num(n) +
         " m_hasBuffers: " + std::to_string(count) + " - buffers are still being decompressed\n";
}

// --- Transmission. ---

inline std::string Offers(N n, N uses, const std::string& cursor, N size) {
  return "I Pipeline::XmitReadyDSBufs() this: @pipe DS: " + At(n) + " N: " + Num(n) +
         " use count " + Num(uses) + " enumerator: " + cursor + " xmit pipe size: " + Num(size) +
         "\n";
}
// The offers of a dataset that just entered, and of one that was offered before.
inline std::string FirstOffers(N n, N uses, N size) { return Offers(n, uses, "0", size); }
inline std::string MoreOffers(N n, N uses, N size) { return Offers(n, uses, "@cursor", size); }
inline std::string Newest(N n, N last) {
  return "I Pipeline::MoveProcessedDSsToXmitPipe() receiver DS is the most recently one received "
         "so it can't be transmitted yet  DS=" +
         At(n) + "  N: " + Num(n) + " _last_received: " + Num(last) + "\n";
}
inline std::string Pushing(N n) {
  return "I Pipeline::MoveProcessedDSsToXmitPipe() pushing to transmitter queue  DS: " + At(n) +
         " N: " + Num(n) + "\n";
}
inline std::string CantMove() {
  return "I Pipeline::MoveProcessedDSsToXmitPipe() can't move more DSs into xmit_pipe\n";
}
inline std::string NotSealed(N n) {
  return "I Pipeline::CanMoveDSToXmitPipe() xmit_pipe's initial DS is not sealed " + At(n) +
         " N: " + Num(n) + "\n";
}
inline std::string Calling(N n, N uses) {
  return "I Pipeline::MoveRecvToXmit() calling transmitter DS: " + At(n) + " N: " + Num(n) +
         "   use count " + Num(uses) + "\n";
}

// --- Acknowledgement and retransmission. ---

inline std::string AckEmpty(N n) {
  return "I Pipeline::Ack() _xmit_pipe is empty   N: " + Num(n) + "\n";
}
inline std::string Ack(N front, N n, N uses, N bytes) {
  return "I Pipeline::Ack() DS=" + At(front) + "  N: " + Num(front) + "  N: " + Num(n) +
         "  use count " + Num(uses) + "  buffers_size: " + Num(bytes) + "\n";
}
inline std::string AckAhead(N front, N n) {
  return "I Pipeline::Ack() out of order ack  N: " + Num(n) + "  xmit_pipe N: " + Num(front) + "\n";
}
inline std::string AckTooOld(N front, N n) {
  return "I Pipeline::Ack() ack too old  N: " + Num(n) + "  xmit_pipe N: " + Num(front) + "\n";
}
inline std::string AckDropping(N n, N uses) {
  return "I Pipeline::Ack() dropping DS N: " + Num(n) + "  use count " + Num(uses) +
         "  checking transmitter pipe for next datasets\n";
}
inline std::string DonePipe(const std::string& runs) {
  return "N Pipeline::PrintDonePipe() " + runs + "\n";
}
inline std::string ClearingUpTo(N n) {
  return "N Pipeline::Retransmit() clearing done pipe upto " + Num(n) + "\n";
}
inline std::string XmitSize(N size) {
  return "N Pipeline::Retransmit() transmit pipe size: " + Num(size) + "\n";
}
inline std::string Again(N n) {
  return "I Pipeline::Retransmit() retransmitting DS: " + At(n) + "  N: " + Num(n) + "\n";
}

// --- Done and flush tracking. ---

inline std::string Done(N n, bool success, bool empty) {
  return "I Pipeline::Done() Pipe: N: " + Num(n) + " success: " + Word(success) +
         " empty: " + Word(empty) + "\n";
}
inline std::string Found(N n, N front, bool storeError, bool stored) {
  return "I Pipeline::Done() found dataset N: " + Num(n) + "   begin()->n: " + Num(front) +
         "  storeError: " + Word(storeError) + "  stored: " + Word(stored) + "\n";
}
inline std::string Reported(N n, bool fingerprinted, bool success, bool empty) {
  return Host("done " + Num(n) + " fingerprinted " + Word(fingerprinted) + " success " +
              Word(success) + " empty " + Word(empty));
}
inline std::string MarkStored(N n) { return "I Pipeline::MarkStored() Pipe N: " + Num(n) + "\n"; }
inline std::string MarkError(N n) { return "I Pipeline::MarkError() Pipe N: " + Num(n) + "\n"; }
inline std::string StoredReady(N n) {
  return "I Pipeline::MarkStored() Pipe N: " + Num(n) + " ReadyForDone \n";
}
inline std::string ErrorReady(N n) {
  return "I Pipeline::MarkError() Pipe N: " + Num(n) + " ReadyForDone \n";
}
inline std::string Flushed(N n, bool success) {
  return "I Pipeline::Flushed() Pipe: N: " + Num(n) + " success: " + Word(success) + "\n";
}
inline std::string Flush(N caller, bool success) {
  return "I Pipeline::Flushed() Pipe: N: " + Num(caller) + " flush " + Word(success) + "\n";
}
inline std::string FlushReported(N n, bool fingerprinted, bool success) {
  return Host("flushed " + Num(n) + " fingerprinted " + Word(fingerprinted) + " success " +
              Word(success));
}
inline std::string Cleared(N doneEntry, N doneExit, N flushEntry, N flushExit) {
  const std::string head = "I Pipeline::ClearDonePipe() ";
  return head + "entry: done pipe's front N: " + Num(doneEntry) + "\n" + head +
         "exit: done pipe's front N: " + Num(doneExit) + "\n" + head +
         "entry: flush pipe's front N: " + Num(flushEntry) + "\n" + head +
         "exit: flush pipe's front N: " + Num(flushExit) + "\n";
}

}  // namespace rec

#endif  // PENSTOCK_TESTS_SUPPORT_PIPELINE_RECORDS_TEXT_H_
