// SPDX-License-Identifier: Apache-2.0
// Goal: what a write that failed left in its volume is what the target gets. Method: a source
// without a target, whose captured writes are looked at; the limit on the size of files ends a
// write in its middle.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "capture/live_source.h"
#include "replicator/log.h"
#include "tests/engine/engine_rig.h"
#include "tests/replicator/pages.h"
#include "tests/replicator/rig.h"

namespace penstock {
namespace {

constexpr std::uint64_t kFailingVolume = 4 * kMiB;
constexpr std::uint64_t kWritable = kMiB + 4096;  // bytes; beyond them writes fail

class LiveFailure : public testing::Test {
 protected:
  void SetUp() override {
    SetLogOutput([](std::string_view) {});
    LiveOptions& options = m_options;
    options.group = "g";
    options.volumes = {{"v", m_folder / "v.img"}};
    options.stateDirectory = m_folder / "state";
    options.stopMs = 20;
    options.connect.allowPlaintext = true;
    ASSERT_EQ(Endpoint::Parse("unix:" + (m_folder / "target.sock"), options.endpoint), "");
    std::unique_ptr<VolumeFile> file;
    ASSERT_EQ(VolumeFile::Open(options.volumes[0].second,
                               {.write = true, .create = true, .createSize = kFailingVolume}, file),
              "");
    file.reset();
    ASSERT_EQ(LiveSource::Open(options, m_source), "");
    ASSERT_EQ(m_source->Start(), "");
    m_source->m_capture->Begin({false});
    while (!m_source->m_capture->TakeStale(0, 1, kFailingVolume).empty()) {
    }
    std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &m_before), 0);
  }
  void TearDown() override {
    m_source.reset();
    SetLogOutput({});
  }

  int Write(std::uint64_t offset, const ByteList& data) {
    struct rlimit low = m_before;
    low.rlim_cur = kWritable;
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &low), 0);
    const int error = m_source->Write(0, offset, data, false);
    ::setrlimit(RLIMIT_FSIZE, &m_before);
    return error;
  }
  std::vector<CapturedWrite> Taken() {
    std::vector<CapturedWrite> taken;
    m_source->m_capture->TakeWrites(1, taken);
    return taken;
  }
  std::uint64_t Stale() const { return m_source->m_capture->TotalStale(); }

  TempFolder m_folder;
  LiveOptions m_options;
  struct rlimit m_before {};
  std::unique_ptr<LiveSource> m_source;
};

TEST_F(LiveFailure, WhatAWriteThatFailedLeftIsCaptured) {
  const ByteList data = Noise(64 * kKiB);
  EXPECT_EQ(Write(kMiB, data), EIO);
  const auto writes = Taken();
  ASSERT_EQ(writes.size(), 1U);
  EXPECT_EQ(writes[0].offset, kMiB);
  ASSERT_EQ(writes[0].length, data.size());
  ByteList left(data.begin(), data.begin() + 4096);  // of the volume, in which there was nothing
  left.resize(data.size());
  EXPECT_TRUE(std::equal(left.begin(), left.end(), writes[0].data.get()));
  EXPECT_EQ(Stale(), 0U);
}

TEST_F(LiveFailure, AWriteOfWhichNothingWasTakenIsTheVolumeAsItWas) {
  ASSERT_EQ(m_source->Write(0, 3 * kMiB, Noise(4096, 7), false), 0);
  Taken();
  EXPECT_EQ(Write(3 * kMiB, Noise(4096, 8)), EIO);
  const auto writes = Taken();
  ASSERT_EQ(writes.size(), 1U);
  const ByteList before = Noise(4096, 7);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), writes[0].data.get()));
}

TEST_F(LiveFailure, WhatCannotBeReadBackHasToBeCompared) {
  ASSERT_EQ(::truncate((m_folder / "v.img").c_str(), kMiB), 0);
  EXPECT_EQ(Write(2 * kMiB, Noise(4096)), EIO);
  EXPECT_TRUE(m_source->m_capture->HasRefused());
  EXPECT_TRUE(Taken().empty());
  EXPECT_EQ(Stale(), kMiB);
}

// The system may have pages that a failed sync lost.
TEST_F(LiveFailure, WhatIsComparedAfterARestartIsReadFromTheDisk) {
  const std::string volume = m_folder / "v.img";
  if (LivesInMemory(volume)) GTEST_SKIP() << "files live in memory here";
  ASSERT_EQ(m_source->Write(0, kMiB, Noise(kMiB), false), 0);
  m_source.reset();
  ASSERT_GT(PagesInMemory(volume, kMiB, kMiB), 0U);
  ASSERT_EQ(LiveSource::Open(m_options, m_source), "");
  EXPECT_EQ(PagesInMemory(volume, kMiB, kMiB), 0U);
}

// Nobody has lost anything yet: an image that was just made need not be read from the disk.
TEST_F(LiveFailure, AFirstStartForgetsNothing) {
  const std::string volume = m_folder / "v.img";
  if (LivesInMemory(volume)) GTEST_SKIP() << "files live in memory here";
  ASSERT_EQ(m_source->Write(0, kMiB, Noise(kMiB), false), 0);
  m_source.reset();
  m_options.stateDirectory = m_folder / "other";
  ASSERT_EQ(LiveSource::Open(m_options, m_source), "");
  EXPECT_EQ(PagesInMemory(volume, kMiB, kMiB), kMiB / 4096);
}

}  // namespace
}  // namespace penstock
