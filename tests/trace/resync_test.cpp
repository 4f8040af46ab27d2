// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <iomanip>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/pipeline_rig.h"

// A resync dataset of three 4 KiB blocks followed by a normal one: the complete trace from its
// construction until both are transmitted, for all, some and none of its blocks matching.

namespace {

constexpr std::size_t kBlocks = 3;

InternalData Block(std::size_t i) { return Buf(1, i * 4096, 4096); }

std::string Hex16(std::uint64_t value) {
  std::ostringstream out;
  out << "0x" << std::hex << std::setw(16) << std::setfill('0') << value;
  return out.str();
}

// --- The records of the requester. ---

std::string Check(std::uint64_t next, const std::string& fpIdx, std::uint64_t total, bool complete,
                  std::uint64_t sent) {
  return "I FingerprintRequester::CheckIfReadyToSend() N: 1 m_nextFingerprint: " + rec::Num(next) +
         " fpIdx: " + fpIdx + " totalFPs " + rec::Num(total) + " isComplete " +
         rec::Word(complete) + " m_lastFpIdxSent " + rec::Num(sent) + " bucket size \n";
}

std::string Offered(std::uint64_t idx) {
  const std::string head = "I FingerprintRequester::AddFingerprint() N: 1 fp: " + Hex16(100 + idx);
  return head + "\n" + head + " fpIdx: " + rec::Num(idx) + "\n" +
         Check(idx + 1, rec::Num(idx), kBlocks, true, 0);
}

// --- The records of the matching. ---

std::string Adding(const std::string& function, const InternalData& buf, const BufFingerprint& fp) {
  return "I Dataset::" + function + "() DS: @1 N: 1  adding " + Text(fp) + " to buffer " +
         Text(buf) + "\n";
}

std::string First(const InternalData& buf, const BufFingerprint& fp) {
  return Adding("AddLocalFingerprint", buf, fp) + Adding("ResyncHandleFingerprints", buf, fp) +
         "I Dataset::ResyncHandleFingerprints() Destination fingerprint not found\n";
}

std::string Second(const InternalData& buf, const BufFingerprint& fp) {
  return Adding("AddRemoteFingerprint", buf, fp) + Adding("ResyncHandleFingerprints", buf, fp);
}

// A buffer that matches, as the `finalized`th that is finalized.
std::string Dropped(const InternalData& buf, std::uint64_t finalized) {
  return "I Dataset::ResyncVerifyFingerprintsMatch() DS: @1 N: 1  buffer " + Text(buf) +
         "  will not be transmitted\n"
         "D Dataset::MarkFinalized() DS: @1 N: 1  m_finalizedBufs.size(): " +
         rec::Num(finalized) + " OK\n" +
         "D Dataset::MarkFinalized() DS: @1 N: 1 m_finalizeDsCb data: " + Text(buf) + "\n" +
         rec::Host("finalized " + Text(buf)) +
         "I Dataset::ResyncHandleFingerprints() Buffer fingerprints matched so buffer was removed "
         " DS: @1 N: 1  " +
         Text(buf) + "  m_finalizedBufs.size()=" + rec::Num(finalized) + "\n" +
         (finalized == kBlocks ? "" : rec::NotFinalized(1, kBlocks, finalized));
}

std::string Differs(const InternalData& buf, const BufFingerprint& local,
                    const BufFingerprint& remote) {
  const bool unknown = remote.bytes == BufFingerprint{}.bytes;
  return "I Dataset::ResyncCalcFingerprintsMatching() " +
         std::string(unknown ? "remote fingerprints are all zeroes" : "fingerprints don't match") +
         " - keep buffer " + Text(buf) + " " + Text(local) + " " + Text(remote) +
         "\nI Dataset::ResyncCalcFingerprintsMatching() buffer kept because fingerprints "
         "mismatch " +
         Text(buf) + "\n";
}

class ResyncDataset : public PipelineRig {
 protected:
  // Pushes the resync dataset 1, admits and counts its blocks, and pushes dataset 2 behind it.
  void Build() {
    m_resync = Resync(1);
    m_resync->SetDSReceivedCb([this](std::shared_ptr<Dataset> ds, InternalData& buf) {
      Note("kept " + Text(buf));
      ds->MarkHasBuffers();
      m_kept.push_back(buf);
    });
    m_resync->SetDSFinalizedCb(
        [](std::shared_ptr<Dataset>, const InternalData& buf) { Note("finalized " + Text(buf)); });
    m_resync->InitFingerprintRequester(
        [](const std::vector<std::uint64_t>& fps, std::uint64_t key) {
          Note("batch of " + std::to_string(fps.size()) + " key " + std::to_string(key));
        });
    m_resync->SetDsTimestamp(1500);
    m_pipeline.PushDs(m_resync, false);
    for (std::size_t i = 0; i < kBlocks; ++i) {
      Write(Block(i));
      m_resync->IncTotal4KBlocks();
    }
    Push(2);
    for (std::size_t i = 0; i < kBlocks; ++i) m_resync->SendFingerprint4Match(100 + i);
  }

  static std::string Built() {
    std::string text =
        "I Dataset::Dataset() N: 1 [v: 00000000-0000-0000-0000-000000000001 o: 0x0 l: 1048576, ] "
        "m_hasBuffers: 0\n"
        "I FingerprintRequester::FingerprintRequester() maxDatasetSize 1048576 m_maxNumBlocks 256 "
        "m_batchSize 256\n"
        "I Dataset::SetDsTimestamp() DS: setting Ds timestamp 1.500000 secs\n" +
        rec::PushDs(1, 0);
    for (std::size_t i = 0; i < kBlocks; ++i) {
      text += rec::PushBuf(1, 1) + rec::AddBuffer(1, Block(i), 4096);
    }
    text += rec::Constructed(2) + rec::PushDs(2, 1) + rec::Prev(1) +
            Check(0, "18446744073709551615", kBlocks, true, 0) +
            rec::ReadyCheck(1, kBlocks, 0, true) + rec::Pushing(1) + rec::Calling(1, 4) +
            rec::Transmit(1) + rec::Newest(2, 2);
    return text + Offered(0) + Offered(1) + Offered(2) +
           "I FingerprintRequester::CheckIfReadyToSend() N: 1 fpIdx: 2   length: 256  batchStart: "
           "0 totalFPs 3 isComplete true\n" +
           rec::Host("batch of 3 key 65536");
  }

  // Both fingerprints of block i; the returned text is what the local one wrote.
  void Match(std::size_t i, const BufFingerprint& local, const BufFingerprint& remote) {
    EXPECT_EQ(m_resync->AddLocalFingerprint(Block(i), local), DS_ERROR_OK);
    EXPECT_EQ(m_resync->AddRemoteFingerprint(Block(i), remote), DS_ERROR_OK);
  }

  // A kept block's unit comes back from compression.
  void Compressed(const InternalData& buf) {
    EXPECT_EQ(m_resync->FinalizeBuffer(buf, Unit({buf})), DS_ERROR_OK);
    m_resync->MarkDoneBuffers();
  }

  static std::string Pair(std::size_t i, const BufFingerprint& local,
                          const BufFingerprint& remote) {
    return First(Block(i), local) + Second(Block(i), remote);
  }
  static std::string Kept(std::size_t i, const BufFingerprint& local, const BufFingerprint& remote,
                          int count) {
    return Pair(i, local, remote) + Differs(Block(i), local, remote) +
           rec::Host("kept " + Text(Block(i))) + rec::HasBuffers(1, count);
  }

  // What a kept block's unit writes; `more` says whether the dataset was offered before.
  static std::string Sent(std::size_t i, const BufFingerprint& local, const BufFingerprint& remote,
                          std::uint64_t units, const std::string& cursor) {
    return Differs(Block(i), local, remote) + rec::Finalize(1, Block(i), 1) +
           rec::QueuedOne(units) + rec::Offers(1, 2, cursor, 1) + rec::Transmit(1) +
           rec::Newest(2, 2);
  }

  // Dataset 2 follows as soon as it is bumped: 1 is sealed.
  static std::string Followed(const std::string& cursor) {
    return rec::Bump(2) + rec::ClosingEmpty(2) + rec::Offers(1, 2, cursor, 1) + rec::Pushing(2) +
           rec::Sealed(1, kBlocks) + rec::Calling(2, 3) + rec::Transmit(2) +
           rec::FirstOffers(2, 2, 2) + rec::Transmit(2);
  }

  std::shared_ptr<Dataset> m_resync;
  std::vector<InternalData> m_kept;
};

TEST_F(ResyncDataset, IsPushedCountedClosedAndAsked) {
  Build();
  EXPECT_EQ(Take(), Built());
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1fs 2s flush");
}

TEST_F(ResyncDataset, WithAllBlocksMatchingSealsWithoutAnOfferOfItsOwn) {
  Build();
  Forget();
  for (std::size_t i = 0; i < kBlocks; ++i) Match(i, Print(7), Print(7));
  const BufFingerprint fp = Print(7);
  EXPECT_EQ(Take(), Pair(0, fp, fp) + Dropped(Block(0), 1) + Pair(1, fp, fp) +
                        Dropped(Block(1), 2) + Pair(2, fp, fp) + Dropped(Block(2), 3) +
                        rec::Sealed(1, kBlocks) + rec::FirstOffers(1, 2, 1) + rec::Newest(2, 2));
  EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }), Followed("@cursor"));
  EXPECT_EQ(m_resync->GetCompressedDataNum(), 0U);
  EXPECT_EQ(m_resync->GetXmitBuffersSize(), 0U);
}

TEST_F(ResyncDataset, WithSomeBlocksMatchingOffersTheOthers) {
  Build();
  Forget();
  const BufFingerprint same = Print(7);
  const BufFingerprint other = Print(8);
  Match(0, same, same);
  Match(1, same, other);
  Match(2, same, same);
  EXPECT_EQ(Take(), Pair(0, same, same) + Dropped(Block(0), 1) + Kept(1, same, other, 1) +
                        Pair(2, same, same) + Dropped(Block(2), 2));
  EXPECT_EQ(TraceOf([&] { Compressed(Block(1)); }),
            Sent(1, same, other, 1, "0") + rec::DoneBuffers(1, 0) + rec::MoreOffers(1, 2, 1) +
                rec::Newest(2, 2));
  EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }), Followed("@cursor"));
  EXPECT_EQ(m_resync->GetXmitBuffersSize(), 4096U);
}

TEST_F(ResyncDataset, WithNoBlockMatchingOffersEveryUnit) {
  Build();
  Forget();
  const BufFingerprint local = Print(7);
  const BufFingerprint unknown{};
  for (std::size_t i = 0; i < kBlocks; ++i) Match(i, local, unknown);
  EXPECT_EQ(Take(),
            Kept(0, local, unknown, 1) + Kept(1, local, unknown, 2) + Kept(2, local, unknown, 3));
  EXPECT_EQ(m_kept.size(), kBlocks);
  EXPECT_EQ(TraceOf([&] { Compressed(Block(0)); }),
            Sent(0, local, unknown, 1, "0") + rec::DoneBuffers(1, 2));
  EXPECT_EQ(TraceOf([&] { Compressed(Block(1)); }),
            Sent(1, local, unknown, 2, "@cursor") + rec::DoneBuffers(1, 1));
  EXPECT_EQ(TraceOf([&] { Compressed(Block(2)); }),
            Sent(2, local, unknown, 3, "@cursor") + rec::DoneBuffers(1, 0) +
                rec::MoreOffers(1, 2, 1) + rec::Newest(2, 2));
  EXPECT_EQ(TraceOf([&] { m_pipeline.BumpDs(); }), Followed("@cursor"));
}

TEST_F(ResyncDataset, HoldsItsBumpedSuccessorUntilTheLastBlockIsDecided) {
  Build();
  m_pipeline.BumpDs();
  EXPECT_EQ(Queues(), "recv 2 xmit 1 done 1fs 2s flush");
  const BufFingerprint fp = Print(7);
  Match(0, fp, fp);
  Match(1, fp, fp);
  Forget();
  Match(2, fp, fp);
  EXPECT_EQ(Take(), Pair(2, fp, fp) + Dropped(Block(2), 3) + rec::Sealed(1, kBlocks) +
                        rec::MoreOffers(1, 2, 1) + rec::Pushing(2) + rec::Sealed(1, kBlocks) +
                        rec::Calling(2, 2) + rec::Transmit(2));
}

TEST_F(ResyncDataset, IsReportedAsFingerprinted) {
  Build();
  m_pipeline.Done(1, true, false);
  EXPECT_EQ(TraceOf([&] { m_pipeline.Flushed(1, true); }),
            rec::Flushed(1, true) + rec::Flush(1, true) + rec::FlushReported(1, true, true));
}

TEST_F(ResyncDataset, TheWholeDatasetAgainAfterAReconnectInTheMiddle) {
  Build();
  const BufFingerprint local = Print(7);
  const BufFingerprint other = Print(8);
  for (std::size_t i = 0; i < kBlocks; ++i) Match(i, local, other);
  Compressed(Block(0));
  EXPECT_EQ(TraceOf([&] { m_pipeline.Retransmit(false); }),
            rec::DonePipe("0:1..2") + rec::XmitSize(1) + rec::Again(1) + rec::Transmit(1));
  EXPECT_EQ(TraceOf([&] { Compressed(Block(1)); }),
            Sent(1, local, other, 2, "@cursor") + rec::DoneBuffers(1, 1));
}

}  // namespace
