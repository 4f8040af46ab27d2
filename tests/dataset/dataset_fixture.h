// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_DATASET_DATASET_FIXTURE_H_
#define PENSTOCK_TESTS_DATASET_DATASET_FIXTURE_H_

#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "penstock/host.h"
#include "penstock/penstock.h"
#include "tests/support/log_capture.h"
#include "tests/support/make.h"

// What a host's callback throws in these tests.
struct HostFailure : std::runtime_error {
  HostFailure() : std::runtime_error("the host failed") {}
};

// Puts the line "? host <what>" between the records that the library writes, so that one list shows
// the order of records and callbacks. No record of the library has this level.
inline void Mark(const std::string& what) {
  CLogger::GetInstance().LogEx(3, "", 0, "host", 0, "%s", what.c_str());
}

// The text of a buffer, put together by hand: a stream takes no part in it.
inline std::string BufText(std::uint8_t volume, const std::string& offset,
                           const std::string& length) {
  char digits[3];
  std::snprintf(digits, sizeof digits, "%02x", volume);
  return "InternalData[v=00000000-0000-0000-0000-0000000000" + std::string(digits) +
         " o: " + offset + ", l=" + length + "]";
}

// The text of a fingerprint whose bytes are all written as `digits`.
inline std::string FpText(const std::string& digits) {
  std::string text = " Fingerprint[";
  for (int i = 0; i < 20; ++i) text += digits;
  return text + "]";
}

// Something whose release leaves a mark: as a callback's capture or as a buffer's payload.
inline std::shared_ptr<void> Traced(const std::string& name) {
  return {nullptr, [name](void*) { Mark("released " + name); }};
}
inline InternalData TracedBuf(const InternalData& buf, const std::string& name) {
  InternalData traced = buf;
  traced.data = std::shared_ptr<const std::uint8_t[]>(new std::uint8_t[1]{},
                                                      [name](const std::uint8_t* bytes) {
                                                        delete[] bytes;
                                                        Mark("released " + name);
                                                      });
  return traced;
}

// One dataset, number 7, everything that it writes, and the callbacks of its host.
class DatasetTest : public testing::Test {
 protected:
  // Makes `ds` the dataset under test, and forgets what its construction wrote.
  void Use(std::shared_ptr<Dataset> ds) {
    m_ds = std::move(ds);
    m_log.Take();
  }
  void UseNormal(std::uint64_t capacity = 0) { Use(NormalDs(7, capacity)); }
  // A resync dataset that covers the first MiB of the volumes 1 to 3.
  void UseResync() { Use(ResyncDs(7, 1 << 20, 3)); }

  DS_ERROR Add(InternalData buf, std::uint64_t origSize = 0) {
    return m_ds->AddBuffer(buf, origSize);
  }
  // Admits without leaving a record behind.
  void Admit(std::initializer_list<InternalData> bufs) {
    for (const InternalData& buf : bufs) ASSERT_EQ(Add(buf), DS_ERROR_OK);
    m_log.Take();
  }
  // Lets every transmit callback leave the mark "xmit".
  void MarkXmits() {
    m_ds->SetXmitCb([] { Mark("xmit"); });
  }
  void MarkFinalizes() {
    m_ds->SetDSFinalizedCb([](const std::shared_ptr<Dataset>& ds, const InternalData& buf) {
      Mark("finalized " + Text(buf) + " of " + Ptr(ds.get()));
    });
  }

  // The start of the records that say which dataset wrote them.
  std::string Ds() const { return "DS: " + Ptr(m_ds.get()) + " N: 7"; }
  Lines Log() { return m_log.Take(); }

  LogCapture m_log;
  std::shared_ptr<Dataset> m_ds;
};

#endif  // PENSTOCK_TESTS_DATASET_DATASET_FIXTURE_H_
