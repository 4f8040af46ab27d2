// SPDX-License-Identifier: Apache-2.0
// Goal: no text that the library makes itself depends on the process's locale: neither its records
// nor, which would be worse, the paths of its files. Method: a locale that groups digits and writes
// a decimal comma is installed; whole texts are compared.
#include <gtest/gtest.h>

#include <list>
#include <string>

#include "tests/support/grouping_locale.h"
#include "tests/support/log_capture.h"
#include "tests/support/make.h"

namespace {

class UnderAnotherLocale : public testing::Test {
 protected:
  GroupingLocale m_grouping;
  LogCapture m_log;
};

TEST_F(UnderAnotherLocale, AStreamWouldGroupDigits) {
  EXPECT_EQ(Text(1234567), "1.234.567");
  EXPECT_EQ(Text(1.5), "1,5");
}

TEST_F(UnderAnotherLocale, ATimestampsRecordIsTheSame) {
  const auto ds = NormalDs(1);
  m_log.Take();
  ds->SetDsTimestamp(1234567890);
  EXPECT_EQ(m_log.Take(),
            (Lines{"I Dataset::SetDsTimestamp() DS: setting Ds timestamp 1234567.890000 secs"}));
}

TEST_F(UnderAnotherLocale, ARangesRecordIsTheSame) {
  const Dataset ds(1234567, {{Volume(1), 0x12345678, 87654321}}, 0);
  EXPECT_EQ(
      m_log.Take(),
      (Lines{
          "I Dataset::Dataset() N: 1234567 [v: 00000000-0000-0000-0000-000000000001 o: 0x12345678 "
          "l: 87654321, ] m_hasBuffers: 0"}));
}

TEST_F(UnderAnotherLocale, ABuffersRecordIsTheSame) {
  const auto ds = NormalDs(1234567);
  m_log.Take();
  InternalData buf = Buf(1, 0x12345678, 87654321);
  EXPECT_EQ(ds->AddBuffer(buf, 7654321), DS_ERROR_OK);
  EXPECT_EQ(m_log.Take(), (Lines{"D Dataset::AddBuffer() N: 1234567 adding InternalData["
                                 "v=00000000-0000-0000-0000-000000000001 o: 0x12345678, "
                                 "l=87654321] origDataSize: 7654321"}));
}

TEST_F(UnderAnotherLocale, TheRunsOfAPipeAreTheSame) {
  std::list<DoneInfo> pipe(2);
  pipe.front().n = 1234567;
  pipe.back().n = 1234568;
  EXPECT_EQ(EmitDonePipe(pipe), "0:1234567..1234568");
}

TEST_F(UnderAnotherLocale, ADatasetFilesPathIsTheSame) {
  const std::string directory = "/base/00000000-0000-0000-0000-000000000001/12345678/9abcd/";
  EXPECT_EQ(DatasetBasePath("/base", UUID::MakeUUID(Volume(1)), 0x123456789abcdef0), directory);
  const DatasetSerializer serializer(0x123456789abcdef0, Volume(1), "/base");
  EXPECT_EQ(serializer.m_filePath, directory + "123456789abcdef0.ds");
}

}  // namespace
