// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/make.h"

// Goal: a record takes its request id before its prefix. Method: this program brings a message
// prefix of its own, which changes the request id whenever it is asked for one.

namespace {

std::uint64_t g_nextRequestId = 0;  // 0: leaves it alone

}  // namespace

std::string GetMsgPrefix() {
  if (g_nextRequestId == 0) return {};
  *TSP_RequestID.get() = g_nextRequestId++;
  return "prefix";
}

TEST(RecordOrder, TakesTheRequestIdBeforeThePrefix) {
  const LogCapture log(LOG_INFO);
  *TSP_RequestID.get() = 70;
  g_nextRequestId = 71;
  const Dataset first(1, true, 0, 0U);
  const Dataset second(2, true, 0, 0U);
  g_nextRequestId = 0;
  *TSP_RequestID.get() = 0;
  const std::vector<LogRecord> records = log.Records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].requestId, 70U);
  EXPECT_EQ(records[1].requestId, 71U);
  EXPECT_EQ(records[1].prefix, "prefix");
}
