// SPDX-License-Identifier: Apache-2.0
// Goal: frames arrive whole and in order however the bytes are cut; memory and time are bounded;
// the end of a connection is told once. Method: two ends on one loop, by TCP, a UNIX socket, or a
// pair of sockets of which the test holds one end itself.
#include "replicator/transport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "replicator/connection_impl.h"
#include "replicator/files.h"
#include "tests/replicator/connection_rig.h"

namespace penstock {
namespace {

using testing::HasSubstr;

constexpr std::uint32_t kMebibyte = 1U << 20U;

class Transport : public Connections {
 protected:
  // Two connections over a pair of sockets.
  void Pair(const ConnectionOptions& source = {}, const ConnectionOptions& target = {}) {
    std::array<int, 2> fds{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()), 0);
    m_source.connection = Connection::OfSocket(m_loop, fds[0], source);
    m_target.connection = Connection::OfSocket(m_loop, fds[1], target);
  }

  // A connection whose other end is the test's to write to.
  void Bare(const ConnectionOptions& options = {}) {
    std::array<int, 2> fds{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()), 0);
    m_target.connection = Connection::OfSocket(m_loop, fds[0], options);
    m_bare.Reset(fds[1]);
    m_target.Start(m_runner);
  }
  void WriteBare(const std::string& bytes) {
    ASSERT_EQ(::send(m_bare.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  // The bytes of frames as the first ones of a connection.
  static std::string BytesOf(const std::vector<Frame>& frames) {
    FrameWriter writer;
    std::string bytes;
    for (const auto& frame : frames) {
      const auto header = writer.Header(frame);
      bytes.append(reinterpret_cast<const char*>(header.data()), header.size());
      bytes.append(reinterpret_cast<const char*>(frame.payload.get()), frame.size);
    }
    return bytes;
  }

  std::string TargetsEnd() {
    EXPECT_TRUE(m_runner.Until([&] { return !m_target.closed.empty(); }));
    return m_target.closed;
  }

  Fd m_bare;
};

TEST_F(Transport, FramesTravelBothWays) {
  ConnectPlain();
  StartBoth();
  m_source.connection->Send(SmallFrame(7));
  ASSERT_TRUE(TargetHas(1));
  EXPECT_EQ(m_target.Token(0), 7U);
  m_target.connection->Send(SmallFrame(8));
  ASSERT_TRUE(m_runner.Until([&] { return m_source.frames.size() == 1; }));
  EXPECT_EQ(m_source.Token(0), 8U);
}

TEST_F(Transport, ManyFramesOfAllSizesKeepTheirOrder) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  ConnectPlain();
  StartBoth();
  std::vector<Frame> sent;
  for (int i = 0; i < 300; ++i) {
    const bool isBlock = random() % 2 == 0;
    const std::uint32_t most = random() % 4 == 0 ? kMebibyte : 5000;
    const auto size = std::uniform_int_distribution<std::uint32_t>(1, most)(random);
    sent.push_back(isBlock ? BlockFrame(static_cast<std::uint8_t>(i), size) : SmallFrame(random()));
    m_source.connection->Send(sent.back());
    if (random() % 20 == 0) m_runner.Settle(1);
  }
  ASSERT_TRUE(TargetHas(sent.size()));
  for (std::size_t i = 0; i < sent.size(); ++i) {
    ASSERT_EQ(m_target.frames[i].type, sent[i].type);
    const auto a = m_target.frames[i].Payload();
    const auto b = sent[i].Payload();
    ASSERT_TRUE(std::equal(a.begin(), a.end(), b.begin(), b.end())) << i;
  }
  EXPECT_EQ(m_source.connection->BytesQueued(), 0U);
  EXPECT_EQ(m_source.connection->BytesSent(), m_target.connection->BytesReceived());
}

TEST_F(Transport, UrgentFramesPassWhatWaitsAndKeepTheirOrder) {
  ConnectPlain();
  StartBoth();
  m_source.connection->Send(BlockFrame(1, kMebibyte));
  m_source.connection->Send(Encode(FrameType::kPing, Ping{1}));
  m_source.connection->Send(SmallFrame(2));
  m_source.connection->Send(Encode(FrameType::kPong, Ping{2}));
  m_source.connection->Send(Encode(Progress{}));
  ASSERT_TRUE(TargetHas(5));
  const FrameType expected[] = {FrameType::kPing, FrameType::kPong, FrameType::kProgress,
                                FrameType::kBlock, FrameType::kDone};
  for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(m_target.frames[i].type, expected[i]) << i;
}

TEST_F(Transport, WhatWaitsKeepsTheSeedOfItsTime) {
  Pair();
  StartBoth();
  m_target.onFrame = [&] { m_target.connection->SetSeeds(5, 0); };
  m_source.connection->Send(SmallFrame(1));
  m_source.connection->SetSeeds(0, 5);
  m_source.connection->Send(Encode(FrameType::kPing, Ping{1}));
  ASSERT_TRUE(TargetHas(2));
  EXPECT_EQ(m_target.frames[0].type, FrameType::kDone) << "a seed is not passed";
}

TEST_F(Transport, EveryCutOfTheBytesGivesTheSameFrames) {
  const auto bytes =
      BytesOf({SmallFrame(1), BlockFrame(2, 100), EncodeStatusQuery(), SmallFrame(3)});
  for (std::size_t cut = 1; cut < bytes.size(); ++cut) {
    m_target = End{};
    Bare();
    WriteBare(bytes.substr(0, cut));
    m_runner.Settle(0);
    WriteBare(bytes.substr(cut));
    ASSERT_TRUE(TargetHas(4)) << cut;
    EXPECT_EQ(m_target.Token(0), 1U);
    EXPECT_EQ(m_target.frames[1].size, 20U + 12U + 100U);
    EXPECT_EQ(m_target.Token(3), 3U);
  }
}

TEST_F(Transport, PayloadsAreNotCopiedWhenTheyAreQueued) {
  Pair();
  const auto frame = BlockFrame(1, kMebibyte);
  m_source.connection->Send(frame);
  EXPECT_EQ(m_source.connection->m_impl->queue.front().frame.payload.get(), frame.payload.get());
  EXPECT_EQ(m_source.connection->BytesQueued(), 24U + 20U + 12U + kMebibyte);
}

TEST_F(Transport, WhatIsSentBeforeTheStartIsSentAfterIt) {
  Pair();
  m_source.connection->Send(SmallFrame(1));
  StartBoth();
  EXPECT_TRUE(TargetHas(1));
}

TEST_F(Transport, OnlyGreetingsPassUntilAllIsAllowed) {
  Bare();
  m_target.connection = nullptr;
  std::array<int, 2> fds{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()), 0);
  m_bare.Reset(fds[1]);
  auto connection = Connection::OfSocket(m_loop, fds[0]);
  std::string closed;
  connection->Start({.onClosed = [&](const std::string& reason) {
    closed = reason;
    m_runner.Poke();
  }});
  WriteBare(BytesOf({SmallFrame(1)}));
  EXPECT_TRUE(m_runner.Until([&] { return !closed.empty(); }));
  EXPECT_THAT(closed, HasSubstr("DONE"));
}

TEST_F(Transport, SeedsHoldForTheFramesAfterThem) {
  Pair();
  StartBoth();
  m_target.onFrame = [&] { m_target.connection->SetSeeds(5, 0); };
  m_source.connection->Send(SmallFrame(1));
  m_source.connection->SetSeeds(0, 5);
  m_source.connection->Send(SmallFrame(2));
  EXPECT_TRUE(TargetHas(2));
}

TEST_F(Transport, AFrameOfAnotherSeedEndsTheConnection) {
  Pair();
  StartBoth();
  m_source.connection->SetSeeds(0, 5);
  m_source.connection->Send(SmallFrame(1));
  EXPECT_NE(TargetsEnd(), "the peer closed the connection");
  EXPECT_TRUE(m_target.frames.empty());
}

TEST_F(Transport, EveryFlippedBitOfAFrameEndsTheConnection) {
  const auto bytes = BytesOf({SmallFrame(1)});
  for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
    m_target = End{};
    Bare();
    auto damaged = bytes;
    damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << (bit % 8)));
    WriteBare(damaged);
    ::shutdown(m_bare.Get(), SHUT_WR);
    TargetsEnd();
    EXPECT_TRUE(m_target.frames.empty()) << bit;
  }
}

TEST_F(Transport, APauseHoldsFramesBackInTheMiddleOfMany) {
  Bare();
  m_target.onFrame = [&] {
    if (m_target.frames.size() == 2) m_target.connection->PauseReading();
  };
  WriteBare(BytesOf({SmallFrame(1), SmallFrame(2), SmallFrame(3), SmallFrame(4)}));
  ASSERT_TRUE(TargetHas(2));
  m_runner.Settle();
  EXPECT_EQ(m_target.frames.size(), 2U);
  m_target.connection->ResumeReading();
  ASSERT_TRUE(TargetHas(4));
  EXPECT_EQ(m_target.Token(3), 4U);
}

TEST_F(Transport, APauseHoldsThePeerUp) {
  Pair();
  StartBoth(false);
  m_target.connection->PauseReading();
  constexpr int kFrames = 32;
  for (int i = 0; i < kFrames; ++i) m_source.connection->Send(BlockFrame(1, kMebibyte));
  m_runner.Settle(100);
  EXPECT_GT(m_source.connection->BytesQueued(), std::size_t{16} * kMebibyte);
  EXPECT_EQ(m_source.drained, 0);
  m_target.connection->ResumeReading();
  ASSERT_TRUE(TargetHas(kFrames));
  EXPECT_EQ(m_source.connection->BytesQueued(), 0U);
  EXPECT_EQ(m_source.drained, 1);
}

TEST_F(Transport, DrainedIsToldOnceACrossing) {
  Pair({.lowWaterBytes = 1000});
  StartBoth();
  m_source.connection->Send(SmallFrame(1));
  ASSERT_TRUE(TargetHas(1));
  EXPECT_EQ(m_source.drained, 0);
  m_source.connection->Send(BlockFrame(1, 5000));
  m_source.connection->Send(BlockFrame(1, 5000));
  ASSERT_TRUE(TargetHas(3));
  EXPECT_EQ(m_source.drained, 1);
}

TEST_F(Transport, ARateIsKept) {
  Pair({.rateLimit = 1'000'000});
  StartBoth(false);
  const auto begin = EventLoop::NowMs();
  constexpr std::uint32_t kBytes = 300'000;
  m_source.connection->Send(BlockFrame(1, kBytes));
  ASSERT_TRUE(TargetHas(1));
  const auto atLeast = (kBytes - 65'536) / 1000;  // the rest of a burst is free
  EXPECT_GE(EventLoop::NowMs() - begin + 1, atLeast);
}

TEST_F(Transport, ARateMayBeLifted) {
  Pair({.rateLimit = 1000});
  StartBoth(false);
  m_source.connection->Send(BlockFrame(1, kMebibyte));
  m_runner.Settle();
  EXPECT_EQ(m_target.frames.size(), 0U);
  m_source.connection->SetRateLimit(0);
  EXPECT_TRUE(TargetHas(1));
}

TEST_F(Transport, CloseSendsWhatIsQueued) {
  ConnectPlain();
  StartBoth(false);
  for (int i = 0; i < 20; ++i) m_source.connection->Send(BlockFrame(1, kMebibyte));
  m_source.connection->Close();
  m_source.connection->Send(SmallFrame(1));  // too late
  EXPECT_EQ(TargetsEnd(), "the peer closed the connection");
  EXPECT_EQ(m_target.frames.size(), 20U);
  EXPECT_TRUE(m_runner.Until([&] { return !m_source.closed.empty(); }));
  EXPECT_EQ(m_source.closed, "closed");
}

TEST_F(Transport, ALastWordArrivesAlthoughThePeerIsStillSending) {
  ConnectPlain();
  StartBoth(false);
  for (int i = 0; i < 20; ++i) m_source.connection->Send(BlockFrame(1, kMebibyte));
  m_target.connection->PauseReading();
  m_runner.Settle();
  m_target.connection->Send(Encode(Error{ErrorCode::kRefused, 0, "no"}));
  m_target.connection->Close();
  ASSERT_TRUE(m_runner.Until([&] { return m_source.frames.size() == 1; }));
  EXPECT_EQ(m_source.frames[0].type, FrameType::kError);
}

TEST_F(Transport, BothMayCloseAtOnceWithoutLosingAnything) {
  ConnectPlain();
  StartBoth(false);
  m_source.connection->Send(BlockFrame(1, kMebibyte));
  m_target.connection->Send(BlockFrame(2, kMebibyte));
  m_runner.Settle(0);
  m_source.connection->Close();
  m_target.connection->Close();
  EXPECT_TRUE(m_runner.Until([&] { return !m_source.closed.empty() && !m_target.closed.empty(); }));
}

TEST_F(Transport, APeerThatIsDoneSendingStillGetsEverything) {
  Bare();
  for (int i = 0; i < 4; ++i) m_target.connection->Send(BlockFrame(1, kMebibyte));
  const auto queued = m_target.connection->BytesQueued();
  m_target.connection->Close();
  ASSERT_EQ(::shutdown(m_bare.Get(), SHUT_WR), 0);
  std::size_t got = 0;
  std::vector<char> chunk(kMebibyte);
  for (ssize_t count = 1; count != 0;) {
    m_runner.Settle(1);
    count = ::recv(m_bare.Get(), chunk.data(), chunk.size(), MSG_DONTWAIT);
    if (count > 0) got += static_cast<std::size_t>(count);
    ASSERT_TRUE(count >= 0 || errno == EAGAIN);
  }
  EXPECT_EQ(got, queued);
}

TEST_F(Transport, ClosingAPeerThatDoesNotListenEnds) {
  Bare({.flushTimeoutMs = 50});
  m_target.connection->Send(BlockFrame(1, kMebibyte));
  m_target.connection->Close();
  EXPECT_EQ(TargetsEnd(), "closed, with the peer not listening");
}

TEST_F(Transport, AbortEndsAtOnceAndIsToldOnce) {
  Pair();
  StartBoth();
  int told = 0;
  m_source.connection->m_impl->callbacks.onClosed = [&](const std::string& reason) {
    EXPECT_EQ(reason, "enough");
    ++told;
    m_runner.Poke();
  };
  m_source.connection->Send(BlockFrame(1, kMebibyte));
  m_source.connection->Abort("enough");
  EXPECT_EQ(told, 0);  // never from within the call
  m_source.connection->Abort("again");
  m_source.connection->Close();
  EXPECT_EQ(TargetsEnd(), "the peer closed the connection");
  EXPECT_EQ(told, 1);
}

TEST_F(Transport, AnAbortBeforeTheStartIsToldAfterIt) {
  Pair();
  m_source.connection->Abort("early");
  m_source.Start(m_runner);
  EXPECT_TRUE(m_runner.Until([&] { return m_source.closed == "early"; }));
}

TEST_F(Transport, AnEndWithinAFrameIsTold) {
  Bare();
  WriteBare(BytesOf({SmallFrame(1)}).substr(0, 30));
  m_runner.Settle();
  m_bare.Reset();
  EXPECT_EQ(TargetsEnd(), "the peer closed the connection within a frame");
}

TEST_F(Transport, AConnectionMayBeDestroyedInItsCallbacks) {
  Bare();
  m_target.onFrame = [&] { m_target.connection = nullptr; };
  WriteBare(BytesOf({SmallFrame(1), SmallFrame(2)}));
  ASSERT_TRUE(TargetHas(1));
  m_runner.Settle();
  EXPECT_EQ(m_target.frames.size(), 1U);
  EXPECT_EQ(m_target.closed, "");
}

TEST_F(Transport, ADestroyedConnectionCallsNothing) {
  Pair();
  StartBoth();
  m_source.connection->Abort("x");
  m_source.connection = nullptr;
  EXPECT_EQ(TargetsEnd(), "the peer closed the connection");
  EXPECT_EQ(m_source.closed, "");
}

TEST_F(Transport, APeerThatSaysNothingIsDropped) {
  Bare({.firstFrameTimeoutMs = 40});
  EXPECT_EQ(TargetsEnd(), "timeout: no frame came for 40 ms");
}

TEST_F(Transport, TheFirstFrameMustBeWholeInTime) {
  Bare({.firstFrameTimeoutMs = 40});
  WriteBare(BytesOf({SmallFrame(1)}).substr(0, 30));
  EXPECT_EQ(TargetsEnd(), "timeout: no frame came for 40 ms");
}

TEST_F(Transport, AFrameThatStopsInTheMiddleIsDropped) {
  Bare({.progressTimeoutMs = 40});
  WriteBare(BytesOf({SmallFrame(1), SmallFrame(2)}).substr(0, 80));
  EXPECT_EQ(TargetsEnd(), "timeout: nothing came within a frame for 40 ms");
  EXPECT_EQ(m_target.frames.size(), 1U);
}

TEST_F(Transport, SilenceBetweenFramesIsDroppedOnlyWhenAsked) {
  Bare({.firstFrameTimeoutMs = 20, .progressTimeoutMs = 20});
  WriteBare(BytesOf({SmallFrame(1)}));
  m_runner.Settle(80);
  EXPECT_EQ(m_target.closed, "");
  m_target = End{};
  Bare({.idleTimeoutMs = 40});
  WriteBare(BytesOf({SmallFrame(1)}));
  EXPECT_EQ(TargetsEnd(), "timeout: nothing came for 40 ms");
}

TEST_F(Transport, NoTimeRunsWhileReadingIsPaused) {
  Bare({.firstFrameTimeoutMs = 20, .progressTimeoutMs = 20, .idleTimeoutMs = 20});
  m_target.connection->PauseReading();
  m_runner.Settle(80);
  EXPECT_EQ(m_target.closed, "");
}

}  // namespace
}  // namespace penstock
