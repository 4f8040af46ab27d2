// SPDX-License-Identifier: Apache-2.0
// Goal: what was committed is there after the next start, all of a change or nothing; what is
// damaged, open to others or another's is refused in words. Method: stores in a folder of the test,
// opened again and again; a second connection damages what the store would never write.
#include "replicator/state_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "replicator/sql.h"
#include "tests/replicator/rig.h"

namespace penstock {
namespace {

using testing::HasSubstr;

Digest Chain(std::uint8_t value) {
  Digest digest;
  digest.fill(value);
  return digest;
}

StateChange OfEpoch(std::uint64_t epoch) {
  StateChange change;
  change.epoch = epoch;
  return change;
}

std::string Text(const GroupState& g) {
  std::string text = g.group + " e" + std::to_string(g.epoch) + " d" + std::to_string(g.durable) +
                     " f" + std::to_string(g.flushed) + " c" + std::to_string(g.chain[31]) + " t" +
                     std::to_string(g.flushedAtMs);
  for (const auto& v : g.volumes) {
    text += " " + v.name + "=" + std::to_string(v.size) + "/" +
            std::to_string(static_cast<int>(v.state)) + "/" + std::to_string(v.goodAt);
  }
  for (const auto& j : g.journal) {
    text += " #" + std::to_string(j.n) + "." + std::to_string(j.flags) + "." +
            std::to_string(j.chain[0]) + "." + std::to_string(j.bytes);
    for (const auto& name : j.volumes) text += "." + name;
  }
  for (const auto& p : g.points) {
    text += " @" + std::to_string(p.n) + "." + std::to_string(p.timestampMs) + "." + p.name;
  }
  return text;
}

class State : public testing::Test {
 protected:
  std::string Open(StateStore::Mode mode = StateStore::Mode::kOwner) {
    m_store = nullptr;
    return StateStore::Open(Directory(), mode, m_store);
  }
  void Reopen() { ASSERT_EQ(Open(), ""); }
  std::string Directory() const { return m_folder / "state"; }
  std::string Database() const { return Directory() + "/state.db"; }

  std::string Loaded() {
    std::vector<GroupState> groups;
    if (auto fault = m_store->Load(groups); !fault.empty()) return fault;
    std::string text;
    for (const auto& group : groups) text += Text(group) + "\n";
    return text;
  }

  // What the last open, or load, says when the database was changed by somebody else.
  std::string AfterSql(const std::string& sql) {
    m_store = nullptr;
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open(Database().c_str(), &database), SQLITE_OK);
    char* message = nullptr;
    EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, &message), SQLITE_OK)
        << message;
    sqlite3_close(database);
    auto fault = Open();
    return fault.empty() ? Loaded() : fault;
  }

  // Two volumes, three datasets in the journal.
  static StateChange Change() {
    StateChange change;
    change.epoch = 2;
    change.durable = 9;
    change.flushed = 6;
    change.chain = Chain(9);
    change.flushedAtMs = 1234;
    change.volumes = {{"a", 4096, VolumeState::kGood, 6}, {"b", 1, VolumeState::kSyncing, 0}};
    change.addJournal = {
        {7, 0, Chain(7), {"a"}, 100}, {8, 1, Chain(8), {}, 0}, {9, 3, Chain(9), {"a", "b"}, 300}};
    return change;
  }
  static constexpr const char* kChangeText =
      "g e2 d9 f6 c9 t1234 a=4096/2/6 b=1/1/0 #7.0.7.100.a #8.1.8.0 #9.3.9.300.a.b\n";

  TempFolder m_folder;
  std::unique_ptr<StateStore> m_store;
};

TEST_F(State, BeginsEmptyAndPrivate) {
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(Loaded(), "");
  EXPECT_EQ(ModeOf(Directory()), 0700U);
  EXPECT_EQ(ModeOf(Database()), 0600U);
  EXPECT_EQ(ModeOf(Database() + "-wal"), 0600U);
  EXPECT_EQ(ModeOf(Directory() + "/lock"), 0600U);
}

TEST_F(State, KeepsAChange) {
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(m_store->Commit("g", Change()), "");
  EXPECT_EQ(Loaded(), kChangeText);
  Reopen();
  EXPECT_EQ(Loaded(), kChangeText);
}

TEST_F(State, KeepsPointsWithTheirNames) {
  ASSERT_EQ(Open(), "");
  StateChange change = OfEpoch(1);
  change.durable = change.flushed = 9;
  change.addPoints = {{3, 70, "a 'b' \\"}, {9, 71, "c"}};
  ASSERT_EQ(m_store->Commit("g", change), "");
  change.addPoints = {};
  change.dropPoints = {3};
  ASSERT_EQ(m_store->Commit("h", change), "") << "another group's";
  EXPECT_EQ(Loaded(), "g e1 d9 f9 c0 t0 @3.70.a 'b' \\ @9.71.c\nh e1 d9 f9 c0 t0\n");
  ASSERT_EQ(m_store->Commit("g", change), "");
  Reopen();
  EXPECT_EQ(Loaded(), "g e1 d9 f9 c0 t0 @9.71.c\nh e1 d9 f9 c0 t0\n");
}

TEST_F(State, DamagedPointsAreRefused) {
  ASSERT_EQ(Open(), "");
  StateChange change = OfEpoch(1);
  change.durable = change.flushed = 9;
  change.addPoints = {{9, 71, "c"}};
  ASSERT_EQ(m_store->Commit("g", change), "");
  const std::string fault = "can't use " + Database() + ": group 'g': a damaged row of point ";
  EXPECT_EQ(AfterSql("UPDATE points SET name = ''"), fault + "9");
  EXPECT_EQ(AfterSql("UPDATE points SET name = char(10)"), fault + "9");
  EXPECT_EQ(AfterSql("UPDATE points SET name = 'c', n = 10"), fault + "10");
  EXPECT_EQ(AfterSql("UPDATE points SET n = 9, grp = 'x'"),
            "can't use " + Database() + ": rows of a group that is not there");
}

TEST_F(State, KeepsEveryCounter) {
  ASSERT_EQ(Open(), "");
  StateChange change;
  change.counters = {1, 2, 3, 4, 5, 6, 7};
  ASSERT_EQ(m_store->Commit("g", change), "");
  std::vector<GroupState> groups;
  ASSERT_EQ(m_store->Load(groups), "");
  const auto& c = groups.at(0).counters;
  EXPECT_EQ((std::vector<std::uint64_t>{c.datasets, c.rawBytes, c.receivedBytes, c.equalBytes,
                                        c.refused, c.quarantined, c.connections}),
            (std::vector<std::uint64_t>{1, 2, 3, 4, 5, 6, 7}));
}

TEST_F(State, VolumesAreReplacedByNameAndOthersStay) {
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(m_store->Commit("g", Change()), "");
  StateChange change = Change();
  change.addJournal.clear();
  change.volumes = {{"b", 2, VolumeState::kNeedsResync, 5}};
  ASSERT_EQ(m_store->Commit("g", change), "");
  EXPECT_THAT(Loaded(), HasSubstr(" a=4096/2/6 b=2/3/5 "));
}

TEST_F(State, KeepsEachStateOfAVolumeAndTheTimeOfADataset) {
  Reopen();
  StateChange change = Change();
  change.volumes.clear();
  for (int state = 0; state <= static_cast<int>(VolumeState::kHeld); ++state) {
    change.volumes.push_back({"v" + std::to_string(state), 1, static_cast<VolumeState>(state), 0});
  }
  change.addJournal = {{7, 0, Chain(7), {"v4"}, 100, 1'700'000'000'000}};
  ASSERT_EQ(m_store->Commit("g", change), "");
  Reopen();
  std::vector<GroupState> groups;
  ASSERT_EQ(m_store->Load(groups), "");
  EXPECT_EQ(groups.at(0).volumes.at(4).state, VolumeState::kHeld);
  EXPECT_EQ(groups.at(0).journal.at(0).timestampMs, 1'700'000'000'000U);
}

TEST_F(State, JournalRecordsGoUpToANumber) {
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(m_store->Commit("g", Change()), "");
  StateChange change = Change();
  change.addJournal.clear();
  change.volumes.clear();
  change.flushed = change.dropJournalUpTo = 8;
  ASSERT_EQ(m_store->Commit("g", change), "");
  EXPECT_EQ(Loaded(), "g e2 d9 f8 c9 t1234 a=4096/2/6 b=1/1/0 #9.3.9.300.a.b\n");
}

TEST_F(State, GroupsAreApart) {
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(m_store->Commit("h", OfEpoch(1)), "");
  ASSERT_EQ(m_store->Commit("g", Change()), "");
  StateChange drop = Change();
  drop.addJournal.clear();
  drop.flushed = drop.dropJournalUpTo = 9;
  ASSERT_EQ(m_store->Commit("g", drop), "");
  EXPECT_EQ(Loaded(), "g e2 d9 f9 c9 t1234 a=4096/2/6 b=1/1/0\nh e1 d0 f0 c0 t0\n");
}

TEST_F(State, TheGreatestNumbersSurvive) {
  constexpr auto kLargest = ~std::uint64_t{0};
  ASSERT_EQ(Open(), "");
  StateChange change;
  change.epoch = change.durable = change.flushedAtMs = kLargest;
  change.flushed = 1;
  change.chain = Chain(1);
  change.addJournal = {{2, 0, Chain(2), {}, kLargest},
                       {kLargest - 1, 0, Chain(3), {}, 0},
                       {kLargest, 0, Chain(1), {}, 0}};
  ASSERT_EQ(m_store->Commit("g", change), "");
  Reopen();
  const auto most = std::to_string(kLargest);
  EXPECT_EQ(Loaded(), "g e" + most + " d" + most + " f1 c1 t" + most + " #2.0.2." + most + " #" +
                          std::to_string(kLargest - 1) + ".0.3.0 #" + most + ".0.1.0\n");
  change.addJournal.clear();
  change.flushed = change.dropJournalUpTo = kLargest - 1;
  ASSERT_EQ(m_store->Commit("g", change), "");
  EXPECT_THAT(Loaded(), HasSubstr(" c1 t" + most + " #" + most + ".0.1.0"));
}

TEST_F(State, AChangeIsWholeOrNotThere) {
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(m_store->Commit("g", Change()), "");
  StateChange change = Change();
  change.epoch = 3;
  change.addJournal = {{10, 0, Chain(1), {}, 0}, {9, 0, Chain(9), {}, 0}};  // 9 is there already
  EXPECT_THAT(m_store->Commit("g", change), HasSubstr("can't write " + Database()));
  EXPECT_EQ(Loaded(), kChangeText);
}

TEST_F(State, NothingIsTakenAfterAFailure) {
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(m_store->Commit("g", Change()), "");
  ASSERT_NE(m_store->Commit("g", Change()), "");
  StateChange good = Change();
  good.addJournal.clear();
  EXPECT_THAT(m_store->Commit("g", good), HasSubstr("after an earlier failure: UNIQUE"));
  Reopen();
  EXPECT_EQ(m_store->Commit("g", good), "");
}

TEST_F(State, HasOneOwner) {
  ASSERT_EQ(Open(), "");
  std::unique_ptr<StateStore> second;
  EXPECT_EQ(StateStore::Open(Directory(), StateStore::Mode::kOwner, second),
            "the state in " + Directory() + " is in use by another penstock");
  m_store = nullptr;
  EXPECT_EQ(StateStore::Open(Directory(), StateStore::Mode::kOwner, second), "");
}

TEST_F(State, MayBeReadBesideItsOwner) {
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(m_store->Commit("g", OfEpoch(5)), "");
  std::unique_ptr<StateStore> reader;
  ASSERT_EQ(StateStore::Open(Directory(), StateStore::Mode::kReadOnly, reader), "");
  std::vector<GroupState> groups;
  ASSERT_EQ(reader->Load(groups), "");
  EXPECT_EQ(groups.at(0).epoch, 5U);
  ASSERT_EQ(m_store->Commit("g", OfEpoch(6)), "");
  ASSERT_EQ(reader->Load(groups), "");
  EXPECT_EQ(groups.at(0).epoch, 6U);
  EXPECT_EQ(reader->Commit("g", {}), Database() + " was opened for reading");
}

TEST_F(State, MayBeReadWithoutAnOwner) {
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(m_store->Commit("g", OfEpoch(5)), "");
  ASSERT_EQ(Open(StateStore::Mode::kReadOnly), "");
  EXPECT_THAT(Loaded(), HasSubstr("g e5"));
}

TEST_F(State, ReadingMakesNothing) {
  EXPECT_EQ(Open(StateStore::Mode::kReadOnly),
            "can't look at " + Directory() + ": No such file or directory");
  ASSERT_EQ(::mkdir(Directory().c_str(), 0700), 0);
  EXPECT_EQ(Open(StateStore::Mode::kReadOnly), "there is no state in " + Directory());
  EXPECT_TRUE(std::filesystem::is_empty(Directory()));
}

TEST_F(State, ADirectoryOpenToOthersIsRefused) {
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(::chmod(Directory().c_str(), 0755), 0);
  const auto expected = Directory() + " is open to others; run: chmod 700 " + Directory();
  EXPECT_EQ(Open(), expected);
  EXPECT_EQ(Open(StateStore::Mode::kReadOnly), expected);
}

TEST_F(State, AMakingThatWasCutOffIsDoneAgain) {
  ASSERT_EQ(::mkdir(Directory().c_str(), 0700), 0);
  WriteText(Database(), "");
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(Loaded(), "");
}

TEST_F(State, AnotherFileInItsPlaceIsRefused) {
  ASSERT_EQ(::mkdir(Directory().c_str(), 0700), 0);
  WriteText(Database(), std::string(8192, 'x'));
  EXPECT_EQ(Open(), "can't use " + Database() + ": file is not a database");
}

TEST_F(State, AnotherDatabaseInItsPlaceIsRefused) {
  ASSERT_EQ(::mkdir(Directory().c_str(), 0700), 0);
  EXPECT_EQ(AfterSql("CREATE TABLE t (a)"),
            "can't use " + Database() + ": it is no penstock state");
}

TEST_F(State, AnotherVersionIsRefused) {
  ASSERT_EQ(Open(), "");
  EXPECT_EQ(AfterSql("PRAGMA user_version = 2"),
            "can't use " + Database() + ": it has version 2, this program reads version 1");
}

TEST_F(State, OtherTablesAreRefused) {
  ASSERT_EQ(Open(), "");
  const auto expected = "can't use " + Database() + ": it holds other tables than a state";
  EXPECT_EQ(AfterSql("CREATE VIEW v AS SELECT 1"), expected);
  EXPECT_EQ(AfterSql("DROP VIEW v; CREATE TRIGGER t AFTER INSERT ON groups BEGIN DELETE FROM "
                     "journal; END"),
            expected);
  EXPECT_EQ(AfterSql("DROP TRIGGER t; DROP TABLE volumes"),
            "can't use " + Database() + ": a table is missing");
}

TEST_F(State, DamagedRowsAreRefused) {
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(m_store->Commit("g", Change()), "");
  const auto said = [&](const std::string& sql) {
    return AfterSql("SAVEPOINT s; " + sql + "; RELEASE s");
  };
  EXPECT_THAT(said("UPDATE groups SET chain = x'00'"), HasSubstr("a damaged row of group 'g'"));
  EXPECT_THAT(said("UPDATE groups SET chain = zeroblob(32), durable = 5"),
              HasSubstr("group 'g' has flushed more than is durable"));
  EXPECT_THAT(said("UPDATE groups SET durable = 9"), HasSubstr("another chain value"));
  EXPECT_THAT(
      said("UPDATE groups SET durable = 8, chain = (SELECT chain FROM journal WHERE n = 8)"),
      HasSubstr("record 9 is not between what is flushed and what is durable"));
  EXPECT_THAT(said("UPDATE groups SET durable = 10, flushed = 7"),
              HasSubstr("record 7 is not between"));
  EXPECT_THAT(said("UPDATE groups SET flushed = 6"), HasSubstr("g e2 d10"));
  EXPECT_THAT(said("DELETE FROM journal WHERE n = 9; UPDATE volumes SET state = 5"),
              HasSubstr("a damaged row of volume 'a'"));
  EXPECT_THAT(said("UPDATE volumes SET state = 1, size = -1"),
              HasSubstr("a damaged row of volume"));
  EXPECT_THAT(said("UPDATE volumes SET size = 1, name = '../' || name"),
              HasSubstr("a damaged row of volume '../a'"));
  EXPECT_THAT(said("UPDATE volumes SET name = substr(name, 4)"), HasSubstr("g e2"));
  for (const char* names : {"'a'", "'c/'", "'a/a/'", "'/'", "'a//'"}) {
    EXPECT_THAT(said(std::string("UPDATE journal SET volumes = ") + names + " WHERE n = 8"),
                HasSubstr("a damaged record 8 of the journal"));
  }
  EXPECT_THAT(said("UPDATE journal SET volumes = '', flags = 4294967296 WHERE n = 8"),
              HasSubstr("a damaged record 8"));
  EXPECT_THAT(said("UPDATE journal SET flags = 0, grp = 'x' WHERE n = 8"),
              HasSubstr("rows of a group that is not there"));
  EXPECT_THAT(said("DELETE FROM journal WHERE n = 8; UPDATE groups SET name = 'a b'"),
              HasSubstr("a damaged row of group 'a b'"));
}

TEST_F(State, TooManyVolumesAreRefused) {
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(m_store->Commit("g", {}), "");
  EXPECT_THAT(AfterSql("WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c WHERE x < "
                       "257) INSERT INTO volumes SELECT 'g', 'v' || x, 0, 0, 0 FROM c"),
              HasSubstr("too many volumes"));
}

TEST_F(State, AnImageIsReadAsTheFileIs) {
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(m_store->Commit("g", Change()), "");
  m_store = nullptr;
  const auto file = ReadText(Database());
  std::vector<GroupState> groups;
  ASSERT_EQ(StateStore::LoadImage({reinterpret_cast<const std::uint8_t*>(file.data()), file.size()},
                                  groups),
            "");
  ASSERT_EQ(groups.size(), 1U);
  EXPECT_EQ(Text(groups[0]) + "\n", kChangeText);
}

TEST_F(State, EveryDamagedByteIsRefusedOrHarmless) {
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(m_store->Commit("g", Change()), "");
  m_store = nullptr;
  auto file = ReadText(Database());
  for (std::size_t i = 0; i < file.size(); ++i) {
    if (i % 4096 > 200 && file[i] == '\0') continue;  // room that nothing uses
    for (const char damage : {'\x01', '\x80', '\xff'}) {
      file[i] = static_cast<char>(file[i] ^ damage);
      std::vector<GroupState> groups;
      const auto fault = StateStore::LoadImage(
          {reinterpret_cast<const std::uint8_t*>(file.data()), file.size()}, groups);
      if (fault.empty()) {
        for (const auto& group : groups) {
          ASSERT_TRUE(IsValidName(group.group)) << i;
          ASSERT_LE(group.flushed, group.durable) << i;
        }
      } else {
        ASSERT_TRUE(groups.empty()) << i;
      }
      file[i] = static_cast<char>(file[i] ^ damage);
    }
  }
}

TEST_F(State, EveryTruncationIsRefused) {
  ASSERT_EQ(Open(), "");
  ASSERT_EQ(m_store->Commit("g", Change()), "");
  m_store = nullptr;
  const auto file = ReadText(Database());
  std::vector<GroupState> groups;
  for (std::size_t size = 0; size < file.size(); size += size < 200 ? 1 : 97) {
    EXPECT_NE(
        StateStore::LoadImage({reinterpret_cast<const std::uint8_t*>(file.data()), size}, groups),
        "")
        << size;
  }
}

}  // namespace
}  // namespace penstock
