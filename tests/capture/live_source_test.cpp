// SPDX-License-Identifier: Apache-2.0
// Goal: what a guest writes is in its volume, is marked, and gets to the target; what can't be is
// refused. Method: sources in a folder of the test, without a target, and with one on a thread of
// its own behind a UNIX socket; the source is asked through its control socket.
#include "capture/live_source.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "replicator/log.h"
#include "replicator/runner_target.h"
#include "replicator/socket.h"
#include "tests/engine/engine_rig.h"
#include "tests/replicator/rig.h"

namespace penstock {
namespace {

using testing::HasSubstr;
namespace fs = std::filesystem;

constexpr std::uint64_t kLiveVolume = 4 * kMiB;

// A target on a thread of its own.
class LiveTarget {
 public:
  LiveTarget(const TempFolder& folder, const Endpoint& endpoint) {
    fs::create_directory(folder / "volumes");
    fs::permissions(folder / "volumes", fs::perms::owner_all);
    m_options.stateDirectory = folder / "target";
    m_options.volumesDirectory = folder / "volumes";
    m_target = std::make_unique<TargetRunner>(m_loop, m_options);
    EXPECT_EQ(m_target->Open(), "");
    std::promise<std::string> listens;
    ListenOptions listen;
    listen.allowPlaintext = true;
    TargetRunner::Callbacks callbacks;
    callbacks.onRecovered = [&] {
      Endpoint local;
      listens.set_value(m_target->Listen(endpoint, listen, local));
    };
    callbacks.onHalt = [](const std::string& reason) { ADD_FAILURE() << reason; };
    callbacks.onStopped = [this] { m_loop.Stop(); };
    m_loop.Post([this, callbacks] { m_target->Start(callbacks); });
    m_thread = std::thread([this] { m_loop.Run(); });
    EXPECT_EQ(listens.get_future().get(), "");
  }
  ~LiveTarget() {
    m_loop.Post([this] { m_target->Stop(); });
    m_thread.join();
    m_target.reset();
  }
  LiveTarget(const LiveTarget&) = delete;
  LiveTarget& operator=(const LiveTarget&) = delete;

 private:
  EventLoop m_loop;
  TargetOptions m_options;
  std::unique_ptr<TargetRunner> m_target;
  std::thread m_thread;
};

class Live : public testing::Test {
 protected:
  void SetUp() override {
    SetLogOutput([](std::string_view) {});
    for (const char* name : {"a", "b"}) {
      std::unique_ptr<VolumeFile> file;
      ASSERT_EQ(VolumeFile::Open(ImageOf(name),
                                 {.write = true, .create = true, .createSize = kLiveVolume}, file),
                "");
    }
    ASSERT_EQ(Endpoint::Parse("unix:" + (m_folder / "target.sock"), m_endpoint), "");
  }
  void TearDown() override {
    m_source.reset();
    m_target.reset();
    SetLogOutput({});
  }

  std::string ImageOf(const std::string& name) const { return m_folder / (name + ".img"); }
  LiveOptions Options() const {
    LiveOptions options;
    options.group = "g";
    options.volumes = {{"a", ImageOf("a")}, {"b", ImageOf("b")}};
    options.stateDirectory = m_folder / "state";
    options.intervalMs = 20;
    options.stopMs = 20;
    options.endpoint = m_endpoint;
    options.connect.allowPlaintext = true;
    return options;
  }
  std::string Open(LiveOptions options) {
    m_source.reset();
    return LiveSource::Open(std::move(options), m_source);
  }
  void Start() {
    ASSERT_EQ(Open(Options()), "");
    ASSERT_EQ(m_source->Start(), "");
  }
  void StartWithTarget() {
    m_target = std::make_unique<LiveTarget>(m_folder, m_endpoint);
    LiveOptions options = Options();
    options.stopMs = 20'000;
    ASSERT_EQ(Open(options), "");
    ASSERT_EQ(m_source->Start(), "");
    ASSERT_TRUE(BecomesState("replicating"));
    Ask(R"({"do":"point","wait":"flushed"})");  // the target has what was compared at the start
  }

  // What the source answers; what is wrong goes to `fault`.
  nlohmann::json Ask(const std::string& request, std::string& fault) const {
    std::string answer;
    fault = AskControl(m_folder / "state", request, answer);
    return nlohmann::json::parse(answer, nullptr, false);
  }
  nlohmann::json Ask(const std::string& request) const {
    std::string fault;
    auto answer = Ask(request, fault);
    EXPECT_EQ(fault, "") << request;
    return answer;
  }
  std::string Fault(const std::string& request) const {
    std::string fault;
    Ask(request, fault);
    return fault;
  }
  bool BecomesState(const std::string& state) const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < end) {
      if (Ask(R"({"do":"status"})").value("state", "") == state) return true;
    }
    return false;
  }

  // What is served as metrics at a place; empty: nobody answers.
  static std::string Scrape(const Endpoint& place) {
    std::vector<SocketAddress> addresses;
    EXPECT_EQ(Resolve(place, false, addresses), "");
    const Fd fd(::socket(addresses.front().storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval limit{20, 0};
    EXPECT_EQ(::setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
    if (::connect(fd.Get(), addresses.front().Get(), addresses.front().size) != 0) return {};
    const std::string_view request = "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n";
    if (::send(fd.Get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) return {};
    std::string text;
    std::array<char, 4096> piece{};
    for (ssize_t count = 0; (count = ::recv(fd.Get(), piece.data(), piece.size(), 0)) > 0;) {
      text.append(piece.data(), static_cast<std::size_t>(count));
    }
    return text;
  }

  // The bytes of a file.
  static ByteList BytesOf(const std::string& path, std::uint64_t offset, std::size_t size) {
    const std::string text = ReadText(path).substr(offset, size);
    return {text.begin(), text.end()};
  }
  ByteList CopyOf(const std::string& name) const {
    return BytesOf(m_folder / ("volumes/g/" + name + ".img"), 0, kLiveVolume);
  }
  ByteList ImageBytes(const std::string& name) const {
    return BytesOf(ImageOf(name), 0, kLiveVolume);
  }
  std::uint64_t Stale() const { return m_source->m_capture->TotalStale(); }

  TempFolder m_folder;
  Endpoint m_endpoint;
  std::unique_ptr<LiveTarget> m_target;
  std::unique_ptr<LiveSource> m_source;
};

// --- Opening. ---

TEST_F(Live, VolumesAreKnownByTheirNames) {
  ASSERT_EQ(Open(Options()), "");
  EXPECT_EQ(m_source->Volumes(), 2U);
  EXPECT_EQ(m_source->Find("b"), 1);
  EXPECT_EQ(m_source->Find("c"), -1);
  EXPECT_EQ(m_source->Name(0), "a");
  EXPECT_EQ(m_source->Size(0), kLiveVolume);
}

TEST_F(Live, WhatASourceKeepsIsForItsOwnerOnly) {
  Start();
  EXPECT_EQ(ModeOf(m_folder / "state"), 0700U);
  EXPECT_EQ(ModeOf(m_folder / "state/maps"), 0700U);
  EXPECT_EQ(ModeOf(m_folder / "state/maps/a.map"), 0600U);
  EXPECT_EQ(ModeOf(m_folder / "state/spool"), 0700U);
  EXPECT_EQ(ModeOf(ControlPath(m_folder / "state")), 0600U);
}

TEST_F(Live, ASecondSourceOnTheSameStateIsRefused) {
  ASSERT_EQ(Open(Options()), "");
  LiveOptions options = Options();
  options.volumes.clear();
  std::unique_ptr<LiveSource> second;
  EXPECT_EQ(LiveSource::Open(options, second),
            (m_folder / "state") + " is in use by another source");
  EXPECT_EQ(second, nullptr);
  m_source.reset();
  EXPECT_EQ(LiveSource::Open(options, second), "");
}

TEST_F(Live, ASecondSourceOnTheSameVolumesIsRefused) {
  ASSERT_EQ(Open(Options()), "");
  LiveOptions options = Options();
  options.stateDirectory = m_folder / "other";
  std::unique_ptr<LiveSource> second;
  EXPECT_THAT(LiveSource::Open(options, second), HasSubstr(ImageOf("a")));
}

TEST_F(Live, AnotherGroupsStateIsRefused) {
  LiveOptions options = Options();
  options.takeOver = true;  // which writes the state
  ASSERT_EQ(Open(options), "");
  options.takeOver = false;
  options.group = "other";
  EXPECT_THAT(Open(options), HasSubstr("belongs to group g"));
}

TEST_F(Live, WhatCannotBeServedIsRefused) {
  LiveOptions options = Options();
  options.volumes = {{"c", ImageOf("c")}};
  EXPECT_THAT(Open(options), HasSubstr(ImageOf("c")));
  WriteText(ImageOf("c"), "");
  EXPECT_EQ(Open(options), ImageOf("c") + " is empty: there is nothing to serve");
}

TEST_F(Live, TakingOverLeavesTheSpoolBehind) {
  LiveOptions options = Options();
  ASSERT_EQ(Open(options), "");
  EXPECT_TRUE(fs::exists(m_folder / "state/spool/age-1"));
  options.takeOver = true;
  ASSERT_EQ(Open(options), "");
  EXPECT_FALSE(fs::exists(m_folder / "state/spool/age-1"));
  EXPECT_TRUE(fs::exists(m_folder / "state/spool/age-3"));
}

// --- Without a target. ---

TEST_F(Live, WritesAndZerosAreInTheVolumeAndCanBeRead) {
  Start();
  const ByteList data = Noise(3 * kMiB);
  ASSERT_EQ(m_source->Write(0, 4097, data, false), 0);
  EXPECT_TRUE(BytesOf(ImageOf("a"), 4097, data.size()) == data);
  ASSERT_EQ(m_source->Zero(0, 8192, 4096, true), 0);
  ByteList expected = data;
  std::fill_n(expected.begin() + 8192 - 4097, 4096, 0);
  ByteList read(data.size());
  ASSERT_EQ(m_source->Read(0, 4097, read), 0);
  EXPECT_TRUE(read == expected);
  EXPECT_TRUE(BytesOf(ImageOf("a"), 4097, data.size()) == expected);
  EXPECT_TRUE(ImageBytes("b") == ByteList(kLiveVolume));
  EXPECT_EQ(m_source->Flush(0), 0);
  const auto status = Ask(R"({"do":"status"})");
  EXPECT_EQ(status["writes"], 2);
  EXPECT_EQ(status["writtenBytes"], data.size() + 4096);
  EXPECT_EQ(status["state"], "connecting");
}

TEST_F(Live, NothingIsAWriteOfNoBytes) {
  Start();
  EXPECT_EQ(m_source->Write(0, 0, {}, true), 0);
  EXPECT_EQ(m_source->Zero(0, 0, 0, true), 0);
  EXPECT_EQ(Ask(R"({"do":"status"})")["writes"], 0);
}

TEST_F(Live, WhatIsBeyondTheEndIsRefused) {
  Start();
  const ByteList data = Noise(4096);
  ByteList read(4096);
  for (const std::uint64_t offset : {kLiveVolume, kLiveVolume - 4095}) {
    EXPECT_NE(m_source->Write(0, offset, data, false), 0) << offset;
    EXPECT_NE(m_source->Zero(0, offset, 4096, false), 0) << offset;
    EXPECT_NE(m_source->Read(0, offset, read), 0) << offset;
  }
  EXPECT_EQ(fs::file_size(ImageOf("a")), kLiveVolume);
  EXPECT_TRUE(ImageBytes("a") == ByteList(kLiveVolume));
  EXPECT_EQ(m_source->m_capture->Writes(), 0U);
}

TEST_F(Live, WhatIsBeyondTheEndLeavesNoMark) {
  Start();
  EXPECT_EQ(Stale(), 2 * kLiveVolume);
  EXPECT_NE(m_source->Write(0, kLiveVolume, Noise(4096), false), 0);
  EXPECT_EQ(Stale(), 2 * kLiveVolume);
}

TEST_F(Live, AWriteIsRefusedWhenItsMarkCanNeitherBeSavedNorGivenUp) {
  StartWithTarget();
  auto& map = *m_source->m_volumes[1]->map;
  {
    const std::lock_guard lock(map.m_mutex);
    map.m_isStuck = true;
  }
  // Whatever of the volume is still marked may be written to.
  m_source->m_capture->Cool();
  m_source->m_capture->BeginClear();
  m_source->m_capture->EndClear();
  EXPECT_EQ(m_source->Write(1, 0, Noise(4096), false), EIO);
  EXPECT_TRUE(ImageBytes("b") == ByteList(kLiveVolume));
}

TEST_F(Live, ThereIsNoPointWithoutATarget) {
  Start();
  EXPECT_EQ(Fault(R"({"do":"point"})"), "there is no point now, the source is connecting");
}

// --- With a target. ---

TEST_F(Live, WritesZerosAndTrimsGetToTheTarget) {
  StartWithTarget();
  ASSERT_EQ(m_source->Write(0, 1000, Noise(2 * kMiB, 1), false), 0);
  ASSERT_EQ(m_source->Write(1, 0, Noise(8192, 2), false), 0);
  ASSERT_EQ(m_source->Zero(0, 4096, 65536, false), 0);
  ASSERT_EQ(m_source->Write(0, 5000, Noise(100, 3), false), 0);
  const auto answer = Ask(R"({"do":"point","wait":"flushed"})");
  EXPECT_GT(answer.value("point", std::uint64_t{0}), 0U);
  EXPECT_TRUE(CopyOf("a") == ImageBytes("a"));
  EXPECT_TRUE(CopyOf("b") == ImageBytes("b"));
  EXPECT_EQ(Stale(), 0U);
}

TEST_F(Live, ManyGuestThreadsGetToTheTargetInTheOrderOfTheVolume) {
  StartWithTarget();
  auto chance = Chance();
  std::vector<std::thread> guests;
  guests.reserve(4);
  for (int i = 0; i < 4; ++i) {
    guests.emplace_back([this, seed = chance()] {
      std::mt19937_64 random(seed);
      for (int k = 0; k < 50; ++k) {
        const std::uint64_t offset = random() % 64 * 512;  // they overlap
        const std::size_t volume = random() % 2;
        if (random() % 4 == 0) {
          EXPECT_EQ(m_source->Zero(volume, offset, 4096, false), 0);
        } else {
          EXPECT_EQ(m_source->Write(volume, offset, Noise(4096, random()), false), 0);
        }
      }
    });
  }
  for (std::thread& guest : guests) guest.join();
  Ask(R"({"do":"point","wait":"flushed"})");
  EXPECT_TRUE(CopyOf("a") == ImageBytes("a"));
  EXPECT_TRUE(CopyOf("b") == ImageBytes("b"));
}

TEST_F(Live, AStopGetsEverythingToTheTargetAndLeavesNoMark) {
  StartWithTarget();
  ASSERT_EQ(m_source->Write(0, 0, Noise(kMiB), false), 0);
  m_source->Stop();
  EXPECT_TRUE(CopyOf("a") == ImageBytes("a"));
  ASSERT_EQ(Open(Options()), "");
  EXPECT_EQ(Stale(), 0U);
}

TEST_F(Live, AStopWithoutTheTargetKeepsWhatWasWritten) {
  StartWithTarget();
  m_target.reset();
  ASSERT_EQ(m_source->Write(0, kMiB, Noise(4096), false), 0);
  m_source->Stop();
  LiveOptions options = Options();
  ASSERT_EQ(Open(options), "");
  EXPECT_GE(m_source->m_config.spooled.size(), 1U);
  EXPECT_EQ(Stale(), 0U) << "the spool has all of it";
  m_target = std::make_unique<LiveTarget>(m_folder, m_endpoint);
  options.stopMs = 20'000;
  ASSERT_EQ(Open(options), "");
  ASSERT_EQ(m_source->Start(), "");
  ASSERT_TRUE(BecomesState("replicating"));
  m_source->Stop();
  EXPECT_TRUE(CopyOf("a") == ImageBytes("a"));
}

// What happens after the start is not what the stop knew of.
TEST_F(Live, WhatAStopKeptIsBelievedByTheNextStartAlone) {
  StartWithTarget();
  m_target.reset();
  ASSERT_EQ(m_source->Write(0, kMiB, Noise(4096), false), 0);
  m_source->Stop();
  ASSERT_EQ(Open(Options()), "");
  EXPECT_EQ(Stale(), 0U);
  ASSERT_EQ(Open(Options()), "") << "as after a crash";
  EXPECT_GE(Stale(), kMiB);
}

TEST_F(Live, AMapThatIsDamagedAfterAStopIsComparedAsAWhole) {
  StartWithTarget();
  m_target.reset();
  ASSERT_EQ(m_source->Write(0, kMiB, Noise(4096), false), 0);
  m_source->Stop();
  fs::remove(m_folder / "state/maps/a.map");
  ASSERT_EQ(Open(Options()), "");
  EXPECT_EQ(Stale(), m_source->Size(0));
}

// --- Orders. ---

TEST_F(Live, APauseEndsTheConnectionUntilItIsResumed) {
  StartWithTarget();
  EXPECT_EQ(Ask(R"({"do":"pause"})")["state"], "paused");
  ASSERT_EQ(m_source->Write(0, 0, Noise(4096), false), 0);
  const std::uint64_t n = Ask(R"({"do":"point"})")["point"];
  auto waiting =
      std::async(std::launch::async, [this] { return Ask(R"({"do":"point","wait":"applied"})"); });
  EXPECT_NE(Ask(R"({"do":"resume"})")["state"], "paused");
  EXPECT_GE(waiting.get()["point"], n);
  Ask(R"({"do":"point","wait":"flushed"})");
  EXPECT_TRUE(CopyOf("a") == ImageBytes("a"));
}

TEST_F(Live, APointThatIsWaitedForIsRefusedWhenTheBacklogIsGivenUp) {
  StartWithTarget();
  Ask(R"({"do":"pause"})");
  const auto closed = [this] { return Ask(R"({"do":"status"})")["closed"].get<std::uint64_t>(); };
  const std::uint64_t before = closed();
  std::string fault;
  std::thread waiting([&] { fault = Fault(R"({"do":"point","wait":"durable"})"); });
  while (closed() == before) std::this_thread::yield();
  m_source->m_loop->Post([this] {
    m_source->m_capture->Lose();
    m_source->m_runner->With([](SourceEngine&, const Moment&) {});
  });
  waiting.join();
  EXPECT_THAT(fault, HasSubstr("was given up with the backlog"));
}

TEST_F(Live, OrdersThatMakeNoSenseAreRefused) {
  Start();
  for (const char* request : {"xx", "[]", "77", "{}", R"("do")", R"({"do":1})"}) {
    EXPECT_EQ(Fault(request), "that is no request") << request;
  }
  EXPECT_EQ(Fault(R"({"do":"dance"})"), "an order that this version does not know");
  for (const char* request :
       {R"({"do":"limit-rate"})", R"({"do":"limit-rate","bytes":-1})",
        R"({"do":"limit-rate","bytes":"1"})", R"({"do":"limit-rate","bytes":1.5})"}) {
    EXPECT_EQ(Fault(request), "limit-rate wants a number of bytes") << request;
  }
  EXPECT_EQ(Fault(R"({"do":"point","wait":"forever"})"),
            "a point can be waited for until it is durable, applied or flushed");
}

TEST_F(Live, AnOrderWithAMemberOfAnotherTypeIsRefused) {
  Start();
  EXPECT_NE(Fault(R"({"do":"point","wait":1})"), "");
  EXPECT_NE(Fault(R"({"do":"point","consistent":"yes"})"), "");
  EXPECT_EQ(Ask(R"({"do":"status"})")["state"], "connecting");
}

// --- Metrics. ---

TEST_F(Live, MetricsAreServedFromTheStartToTheEnd) {
  std::string logged;
  SetLogOutput([&](std::string_view line) { logged += line; });
  LiveOptions options = Options();
  ASSERT_EQ(Endpoint::Parse("127.0.0.1:0", options.metrics.emplace()), "");
  ASSERT_EQ(Open(options), "");
  ASSERT_EQ(m_source->Start(), "");
  const Endpoint place = m_source->m_metrics->Local();
  EXPECT_EQ(m_source->Write(0, 0, Noise(4096), false), 0);
  const std::string text = Scrape(place);
  EXPECT_THAT(text, HasSubstr("\npenstock_source_state{group=\"g\",state=\"connecting\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("\npenstock_source_writes_total{group=\"g\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("\npenstock_source_written_bytes_total{group=\"g\"} 4096\n"));
  m_source->Stop();
  EXPECT_EQ(m_source->m_metrics, nullptr);
  EXPECT_EQ(Scrape(place), "");
  m_source.reset();
  SetLogOutput([](std::string_view) {});
  EXPECT_THAT(logged, HasSubstr("metrics on " + place.Text()));
}

TEST_F(Live, APlaceOfTheMetricsThatIsTakenStopsTheStart) {
  LiveOptions options = Options();
  ASSERT_EQ(Endpoint::Parse("127.0.0.1:0", options.metrics.emplace()), "");
  ASSERT_EQ(Open(options), "");
  ASSERT_EQ(m_source->Start(), "");
  const auto first = std::move(m_source);
  WriteText(ImageOf("c"), std::string(4096, 'c'));
  options.volumes = {{"c", ImageOf("c")}};
  options.stateDirectory = m_folder / "other";
  options.metrics = first->m_metrics->Local();
  ASSERT_EQ(Open(options), "");
  EXPECT_EQ(m_source->Start(),
            "can't serve metrics on " + options.metrics->Text() + ": Address already in use");
}

TEST_F(Live, ALimitOfTheRateIsTaken) {
  StartWithTarget();
  EXPECT_EQ(Ask(R"({"do":"limit-rate","bytes":1000000})")["state"], "replicating");
}

TEST_F(Live, WhereNoSourceRunsAskingSaysSo) {
  EXPECT_THAT(Fault(R"({"do":"status"})"),
              HasSubstr("no source is running in " + (m_folder / "state")));
}

}  // namespace
}  // namespace penstock
