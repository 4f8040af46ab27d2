// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <list>
#include <sstream>
#include <string>
#include <utility>

#include "tests/support/pipeline_rig.h"

// The one-line picture of a pipeline and its pieces, each for done and for flush records.

namespace {

using Marks = std::initializer_list<std::pair<std::uint64_t, bool>>;

// The runs text of records (number, mark), which must be the same for both kinds.
std::string Runs(Marks marks) {
  std::list<DoneInfo> done;
  std::list<FlushInfo> flush;
  for (const auto& [n, mark] : marks) {
    // Every other flag goes against the mark, so that none can be taken for it.
    done.push_back({.n = n, .done = mark, .success = !mark, .stored = !mark});
    flush.push_back({.n = n, .flushed = mark, .success = !mark});
  }
  EXPECT_EQ(EmitDonePipe<DoneInfo>(done), EmitDonePipe<FlushInfo>(flush));
  return EmitDonePipe<DoneInfo>(done);
}

class Dump : public PipelineRig {};

TEST_F(Dump, OfAnEmptyPipeline) {
  EXPECT_EQ(Text(m_pipeline), "pipes [RECV ]  [XMIT ]  [DONE ]  [FLUSH ]");
}

TEST_F(Dump, OfOneTransmittedDataset) {
  SendAll({4});
  EXPECT_EQ(Text(m_pipeline), "pipes [RECV ]  [XMIT 4]  [DONE 0:4]  [FLUSH ]");
}

TEST_F(Dump, OfAllFourPipes) {
  for (const std::uint64_t n : Numbers{1, 2}) {
    SendAll({n});
    m_pipeline.Done(n, true, false);
    m_pipeline.Ack(n, nullptr);
  }
  SendAll({3, 4});
  for (const std::uint64_t n : Numbers{3, 4}) m_pipeline.Ack(n, nullptr);
  SendAll({5, 6});
  const std::shared_ptr<Dataset> held = Normal(7);
  held->MarkHasBuffers();
  m_pipeline.PushDs(held, false);
  PushAll({8, 9});
  for (DoneInfo& record : m_pipeline.m_donePipe) record.done = record.n <= 4;
  Forget();
  EXPECT_EQ(Text(m_pipeline),
            "pipes [RECV 9 .. 8]  [XMIT 5 .. 7]  [DONE 1:3..4 0:5..9]  [FLUSH 0:1..2]");
  EXPECT_EQ(Take(), "");
}

TEST_F(Dump, ReturnsItsStream) {
  std::ostringstream out;
  EXPECT_EQ(&(out << m_pipeline), &out);
}

TEST_F(Dump, PrintDonePipeLogsTheRunsAloneAtTheLevelOfTheirImportance) {
  PushAll({1, 2, 3});
  m_pipeline.Done(2, true, false);
  EXPECT_EQ(TraceOf([&] { m_pipeline.PrintDonePipe(true); }),
            "N Pipeline::PrintDonePipe() 0:1 1:2 0:3\n");
  EXPECT_EQ(TraceOf([&] { m_pipeline.PrintDonePipe(false); }),
            "I Pipeline::PrintDonePipe() 0:1 1:2 0:3\n");
}

TEST_F(Dump, PrintDonePipeLogsAnEmptyMessageForAnEmptyPipe) {
  EXPECT_EQ(TraceOf([&] { m_pipeline.PrintDonePipe(true); }), "N Pipeline::PrintDonePipe() \n");
  EXPECT_EQ(TraceOf([&] { m_pipeline.PrintDonePipe(false); }), "I Pipeline::PrintDonePipe() \n");
}

std::string Span(std::initializer_list<std::uint64_t> numbers) {
  std::list<std::shared_ptr<Dataset>> pipe;
  for (const std::uint64_t n : numbers) pipe.push_back(NormalDs(n));
  std::ostringstream out;
  PrintDatasetInfo(out, pipe);
  return out.str();
}

TEST(PrintDatasetInfo, WritesNothingForAnEmptyPipe) { EXPECT_EQ(Span({}), ""); }
TEST(PrintDatasetInfo, WritesOneNumberOnce) { EXPECT_EQ(Span({4}), "4"); }
TEST(PrintDatasetInfo, WritesTheTwoEndsOnly) {
  EXPECT_EQ(Span({5, 9, 7}), "5 .. 7");
  EXPECT_EQ(Span({9, 8}), "9 .. 8");
}
TEST(PrintDatasetInfo, ComparesNumbersAndNotDatasets) { EXPECT_EQ(Span({5, 6, 5}), "5"); }

TEST(EmitDonePipe, WritesNothingForNoRecords) { EXPECT_EQ(Runs({}), ""); }
TEST(EmitDonePipe, WritesASingleRecordWithoutAnEnd) {
  EXPECT_EQ(Runs({{7, false}}), "0:7");
  EXPECT_EQ(Runs({{7, true}}), "1:7");
}
TEST(EmitDonePipe, WritesARunOfEqualMarksOnce) {
  EXPECT_EQ(Runs({{10, false}, {11, false}, {12, false}}), "0:10..12");
}
TEST(EmitDonePipe, WritesTwoRuns) {
  EXPECT_EQ(
      Runs({{3, true}, {4, true}, {5, false}, {6, false}, {7, false}, {8, false}, {9, false}}),
      "1:3..4 0:5..9");
}
TEST(EmitDonePipe, WritesRunsOfSingleRecordsWithoutEnds) {
  EXPECT_EQ(Runs({{1, true}, {2, false}, {3, true}}), "1:1 0:2 1:3");
}
TEST(EmitDonePipe, EndsARunOneBelowTheNextWhateverWasLastInIt) {
  EXPECT_EQ(Runs({{1, true}, {4, false}}), "1:1..3 0:4");
}
TEST(EmitDonePipe, DoesNotShowAGapInsideARun) { EXPECT_EQ(Runs({{1, true}, {5, true}}), "1:1..5"); }
TEST(EmitDonePipe, EndsTheLastRunAtItsActualLastNumber) {
  EXPECT_EQ(Runs({{1, true}, {2, false}, {9, false}}), "1:1 0:2..9");
}
TEST(EmitDonePipe, AChangeOfMarkAtTheEndIsARunOfItsOwn) {
  EXPECT_EQ(Runs({{1, true}, {2, true}, {3, true}, {4, false}}), "1:1..3 0:4");
}

TEST(HandleArrived, WritesTheHeadOfARunAndHandsItsMarkAndNumberBack) {
  for (const bool mark : {false, true}) {
    std::ostringstream out;
    bool lastMark = !mark;
    std::uint64_t lastN = 0;
    HandleArrived(false, out, lastMark, DoneInfo{.n = 12, .done = mark}, lastN);
    EXPECT_EQ(out.str(), mark ? "1:12" : "0:12");
    EXPECT_EQ(lastMark, mark);
    EXPECT_EQ(lastN, 12U);
    HandleArrived(true, out, lastMark, FlushInfo{.n = 13, .flushed = mark}, lastN);
    EXPECT_EQ(out.str(), mark ? "1:12 1:13" : "0:12 0:13");
    EXPECT_EQ(lastMark, mark);
    EXPECT_EQ(lastN, 13U);
  }
}

}  // namespace
