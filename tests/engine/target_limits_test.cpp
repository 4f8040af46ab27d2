// SPDX-License-Identifier: Apache-2.0
// Goal: connections that only verify or ask for the status get that and no more; there are only so
// many connections, groups and volumes, and each has only so much time.
// Method: small limits, and a clock that goes on.
#include "tests/engine/target_rig.h"

namespace penstock {
namespace {

using TargetLimits = TargetRig;

// --- Verifying. ---

TEST_F(TargetLimits, ANonexistentGroupCannotBeVerified) {
  Boot();
  EXPECT_EQ(HelloToVerify(), "ERROR volume: there is no group g, dropped");
}

TEST_F(TargetLimits, AConnectionForVerifyingDoesNotTakeTheGroup) {
  Online();
  EXPECT_EQ(HelloToVerify(), "WELCOME epoch 1 at 0/0/0 new");
  m_conn = 1;
  EXPECT_EQ(Start(1), "");
  m_conn = 2;
  EXPECT_TRUE(Contains(Start(1), "ERROR protocol: this connection may not replicate"));
}

TEST_F(TargetLimits, AConnectionForVerifyingMakesNoVolume) {
  Online();
  EXPECT_EQ(HelloToVerify({"b"}), "open b");
  EXPECT_EQ(First<OpenVolume>().size, 0U);
  EXPECT_EQ(Run(), "ERROR volume: no such volume, dropped");
}

// --- Limits. ---

TEST_F(TargetLimits, ThereAreOnlySoManyConnections) {
  m_config.maxConnections = 1;
  Boot();
  Connect(1);
  EXPECT_EQ(Connect(2), "ERROR busy: too many connections, dropped");
  Gone();
  m_conn = 1;
  Gone();
  EXPECT_EQ(Connect(3), "");
}

TEST_F(TargetLimits, ThereAreOnlySoManyGroups) {
  m_config.maxGroups = 1;
  Online();
  m_group = "h";
  EXPECT_EQ(Hello(), "ERROR busy: too many groups, dropped");
}

TEST_F(TargetLimits, AGroupHasOnlySoManyVolumes) {
  std::vector<std::string> names;
  for (std::size_t i = 0; i + 1 < kMaxVolumes; ++i) names.push_back("v" + Number(i));
  Online(names);
  EXPECT_EQ(Hello({"v0", "x", "y"}, 1), "ERROR volume: a group has at most 256 volumes, dropped");
  m_conn = 1;
  EXPECT_EQ(Start(1, {"v0"}), "") << "the group keeps its source";
  m_conn = 2;
  EXPECT_TRUE(Contains(Joined({Hello({"v0", "x"}, 1), Run()}), "WELCOME"));
}

TEST_F(TargetLimits, GroupsDoNotHinderEachOther) {
  Online();
  m_group = "h";
  EXPECT_EQ(Joined({Hello({"b"}), Run()}),
            "open b, commit epoch 1, commit b new, WELCOME epoch 1 at 0/0/0 new");
  EXPECT_EQ(Joined({Start(1, {"b"}), Block()}), "create b/1, append b/1");
  EXPECT_EQ(m_engine->Status().size(), 2U);
}

TEST_F(TargetLimits, AConnectionWithoutHelloIsDroppedAfterAWhile) {
  Boot();
  Connect(1);
  EXPECT_EQ(m_engine->NextDeadline(), m_now.steady + m_config.helloTimeout);
  EXPECT_EQ(Wait(m_config.helloTimeout - 1), "");
  EXPECT_EQ(Wait(1), "ERROR timeout: nothing came for too long, dropped");
}

TEST_F(TargetLimits, ASilentSourceIsDroppedAfterALongerWhile) {
  Online();
  EXPECT_EQ(Wait(m_config.idleTimeout - 1), "");
  Send(Encode(FrameType::kPing, Ping{1}));
  EXPECT_EQ(Wait(m_config.idleTimeout - 1), "");
  EXPECT_EQ(Wait(1), "ERROR timeout: nothing came for too long, dropped");
  EXPECT_FALSE(Status().connected);
}

TEST_F(TargetLimits, WhatNoFrameCanBeIsCountedAndEndsTheConnection) {
  Online();
  m_engine->Damaged(m_conn, "its hash differs", m_now);
  EXPECT_EQ(Out(), "ERROR damaged: its hash differs, dropped");
  EXPECT_EQ(Refused(), 1U);
}

TEST_F(TargetLimits, DamageBeforeHelloConcernsNoGroup) {
  Boot();
  Connect(1);
  m_engine->Damaged(m_conn, "its CRC differs", m_now);
  EXPECT_EQ(Out(), "ERROR damaged: its CRC differs, dropped");
  m_engine->Damaged(m_conn, "again", m_now);
  EXPECT_EQ(Out() + Gone(), "");
}

// --- Status. ---

TEST_F(TargetLimits, TheStatusIsToldToWhoAsksForIt) {
  Online();
  struct Hello hello = HelloOf({});
  hello.purpose = Purpose::kStatus;
  m_denied = {"s g/ status"};
  EXPECT_EQ(Hello(hello), "WELCOME epoch 1 at 0/0/0");
  EXPECT_EQ(Send(EncodeStatusQuery()), "");
  ASSERT_EQ(m_engine->TakeStatusAsked(), std::vector<ConnId>{m_conn});
  EXPECT_TRUE(m_engine->TakeStatusAsked().empty());
  EXPECT_FALSE(m_engine->MaySee(m_conn, "g"));
  EXPECT_TRUE(m_engine->MaySee(m_conn, "h"));
  m_engine->SendStatus(m_conn, "{}");
  EXPECT_EQ(Out(), "STATUS_REPLY");
}

TEST_F(TargetLimits, AConnectionForTheStatusGetsNothingElse) {
  Boot();
  struct Hello hello = HelloOf({});
  hello.purpose = Purpose::kStatus;
  Hello(hello);
  EXPECT_EQ(Send(Encode(hello)), "ERROR protocol: HELLO instead of HELLO, dropped");
  m_engine->SendStatus(m_conn, "{}");
  EXPECT_EQ(Out(), "");
  EXPECT_FALSE(m_engine->MaySee(m_conn, "g"));
}

TEST_F(TargetLimits, TheStatusShowsWhatArrivesAndWhatIsNotYetFlushed) {
  Online();
  Dataset(1);
  RunBut<SyncVolumes>();
  Start(2);
  const GroupStatus status = Status();
  EXPECT_EQ(status.arriving, 2U);
  EXPECT_EQ(status.state.durable, 1U);
  EXPECT_EQ(status.applied, 1U);
  EXPECT_EQ(status.state.flushed, 0U);
  EXPECT_EQ(status.journalBytes, 1000U);
  EXPECT_TRUE(status.connected);
  EXPECT_FALSE(status.recovering);
}

}  // namespace
}  // namespace penstock
