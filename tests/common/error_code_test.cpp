// SPDX-License-Identifier: Apache-2.0
// Goal: every result code keeps its number and its name, and nothing else has a name. Method: the
// whole table, written out a second time, and values outside it.
#include "penstock/error_code.h"

#include <gtest/gtest.h>

#include <limits>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>

#include "tests/support/make.h"

namespace {

static_assert(std::is_same_v<std::underlying_type_t<DS_ERROR>, std::int32_t>);
static_assert(std::is_convertible_v<DS_ERROR, int>, "the enumeration is unscoped");

constexpr char kUndefined[] = "UNDEFINED DS_ERROR VALUE";

std::string NameOfNumber(std::int32_t number) { return Text(static_cast<DS_ERROR>(number)); }

struct Row {
  std::int32_t number;
  DS_ERROR code;
  const char* name;
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

class EveryErrorCode : public testing::TestWithParam<Row> {};

TEST_P(EveryErrorCode, HasItsNumber) {
  const std::int32_t number = GetParam().code;
  EXPECT_EQ(number, GetParam().number);
}

TEST_P(EveryErrorCode, PrintsItsName) {
  EXPECT_EQ(Text(GetParam().code), GetParam().name);
  EXPECT_EQ(NameOfNumber(GetParam().number), GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(
    Table, EveryErrorCode,
    testing::Values(Row{0, DS_ERROR_OK, "DS_ERROR_OK"}, Row{-1, DS_ERROR_FAILED, "DS_ERROR_FAILED"},
                    Row{-2, DS_ERROR_ALREADY_EXISTS, "DS_ERROR_ALREADY_EXISTS"},
                    Row{-3, DS_ERROR_MISMATCH, "DS_ERROR_MISMATCH"},
                    Row{-4, DS_ERROR_LOCAL_FP_MISSING, "DS_ERROR_LOCAL_FP_MISSING"},
                    Row{-5, DS_ERROR_REMOTE_FP_MISSING, "DS_ERROR_REMOTE_FP_MISSING"},
                    Row{-6, DS_ERROR_DS_TOO_OLD, "DS_ERROR_DS_TOO_OLD"},
                    Row{-7, DS_ERROR_ALREADY_FINALIZED, "DS_ERROR_ALREADY_FINALIZED"},
                    Row{-8, DS_ERROR_NO_DATASET, "DS_ERROR_NO_DATASET"},
                    Row{-9, DS_ERROR_BUFS_FP_EQUAL, "DS_ERROR_BUFS_FP_EQUAL"},
                    Row{-10, DS_ERROR_ACK_OUT_OF_ORDER, "DS_ERROR_ACK_OUT_OF_ORDER"},
                    Row{-11, DS_ERROR_OUT_OF_RANGE, "DS_ERROR_OUT_OF_RANGE"},
                    Row{-12, DS_ERROR_UNKNOWN_VOLUME, "DS_ERROR_UNKNOWN_VOLUME"},
                    Row{-13, DS_ERROR_ACK_TOO_OLD, "DS_ERROR_ACK_TOO_OLD"}));

TEST(ErrorCodeText, OfOneIsUndefined) { EXPECT_EQ(NameOfNumber(1), kUndefined); }

TEST(ErrorCodeText, OfMinusFourteenAndMinusFifteenIsUndefined) {
  EXPECT_EQ(NameOfNumber(-14), kUndefined);
  EXPECT_EQ(NameOfNumber(-15), kUndefined);
}

TEST(ErrorCodeText, OfTheLastCodeIsItsName) {
  EXPECT_EQ(NameOfNumber(-13), "DS_ERROR_ACK_TOO_OLD");
}

TEST(ErrorCodeText, OfTheExtremesIsUndefined) {
  EXPECT_EQ(NameOfNumber(std::numeric_limits<std::int32_t>::min()), kUndefined);
  EXPECT_EQ(NameOfNumber(std::numeric_limits<std::int32_t>::max()), kUndefined);
}

TEST(ErrorCodeText, StandsBetweenOtherPiecesAndReturnsTheStream) {
  std::ostringstream out;
  std::ostream& returned = out << DS_ERROR_OK;
  EXPECT_EQ(&returned, &out);
  out << " then " << static_cast<DS_ERROR>(-14) << 7;
  EXPECT_EQ(out.str(), "DS_ERROR_OK then UNDEFINED DS_ERROR VALUE7");
}

}  // namespace
