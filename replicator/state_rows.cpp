// SPDX-License-Identifier: Apache-2.0
// Reading the state: nothing that the database says is believed before it was looked at.
#include <algorithm>
#include <array>
#include <limits>
#include <set>
#include <utility>

#include "replicator/log.h"
#include "replicator/sql.h"

namespace penstock {

namespace {

constexpr std::size_t kMaxGroups = 65'536;
constexpr std::size_t kMaxJournal = 1'000'000;  // records of a group
constexpr std::uint64_t kMaxVolumeBytes = std::numeric_limits<std::int64_t>::max();

struct Table {
  const char* name;
  const char* sql;
};

// As sqlite_schema gives them back, byte by byte.
constexpr std::array<Table, 4> kTables{{
    {"groups",
     "CREATE TABLE groups (name TEXT PRIMARY KEY NOT NULL, epoch INTEGER NOT NULL, durable INTEGER "
     "NOT NULL, flushed INTEGER NOT NULL, chain BLOB NOT NULL, flushed_at_ms INTEGER NOT NULL, "
     "datasets INTEGER NOT NULL, raw_bytes INTEGER NOT NULL, received_bytes INTEGER NOT NULL, "
     "equal_bytes INTEGER NOT NULL, refused INTEGER NOT NULL, quarantined INTEGER NOT NULL, "
     "connections INTEGER NOT NULL) STRICT, WITHOUT ROWID"},
    {"journal",
     "CREATE TABLE journal (grp TEXT NOT NULL, n INTEGER NOT NULL, flags INTEGER NOT NULL, chain "
     "BLOB NOT NULL, volumes TEXT NOT NULL, bytes INTEGER NOT NULL, timestamp_ms INTEGER NOT NULL, "
     "PRIMARY KEY (grp, n)) STRICT, WITHOUT ROWID"},
    {"points",
     "CREATE TABLE points (grp TEXT NOT NULL, n INTEGER NOT NULL, timestamp_ms INTEGER NOT NULL, "
     "name TEXT NOT NULL, PRIMARY KEY (grp, n)) STRICT, WITHOUT ROWID"},
    {"volumes",
     "CREATE TABLE volumes (grp TEXT NOT NULL, name TEXT NOT NULL, size INTEGER NOT NULL, state "
     "INTEGER NOT NULL, good_at INTEGER NOT NULL, PRIMARY KEY (grp, name)) STRICT, WITHOUT ROWID"},
}};

std::string MakeSchema() {
  std::string sql;
  for (const auto& table : kTables) sql += std::string(table.sql) + ";\n";
  sql += "PRAGMA application_id = " + std::to_string(kStateApplication) + ";\n";
  sql += "PRAGMA user_version = " + std::to_string(kStateVersion) + ";\n";
  return sql;
}

std::string NumberOf(sqlite3* database, const char* sql, std::uint64_t& out) {
  SqlStatement query(database, sql);
  if (query.Step()) out = query.NumberAt(0).value_or(0);
  return query.Fault();
}

// Whether the tables are ours, and there is nothing else: no views, no triggers.
std::string CheckTables(sqlite3* database) {
  SqlStatement query(database, "SELECT name, sql FROM sqlite_schema ORDER BY name");
  std::size_t count = 0;
  while (query.Step()) {
    if (count >= kTables.size() || query.TextAt(0) != kTables.at(count).name ||
        query.TextAt(1) != kTables.at(count).sql) {
      return "it holds other tables than a state";
    }
    ++count;
  }
  if (!query.Fault().empty()) return query.Fault();
  return count == kTables.size() ? "" : "a table is missing";
}

std::string Quote(const std::string& name) { return "'" + Escape(name, 80) + "'"; }

// Takes values of one row, and keeps whether each was there and within its limit.
class Row {
 public:
  explicit Row(const SqlStatement& query) : m_query(query) {}

  std::uint64_t Number(std::uint64_t most = std::numeric_limits<std::uint64_t>::max()) {
    const auto value = m_query.NumberAt(m_column++);
    if (!value || *value > most) m_isGood = false;
    return value.value_or(0);
  }
  std::string Text() {
    auto value = m_query.TextAt(m_column++);
    if (!value) m_isGood = false;
    return value ? std::move(*value) : std::string();
  }
  std::string Name() {
    auto value = Text();
    if (!IsValidName(value)) m_isGood = false;
    return value;
  }
  Digest Chain() {
    const auto value = m_query.DigestAt(m_column++);
    if (!value) m_isGood = false;
    return value.value_or(Digest{});
  }
  bool IsGood() const { return m_isGood; }
  void Fail() { m_isGood = false; }

 private:
  const SqlStatement& m_query;
  int m_column = 0;
  bool m_isGood = true;
};

std::string LoadGroups(sqlite3* database, std::vector<GroupState>& out) {
  SqlStatement query(database,
                     "SELECT name, epoch, durable, flushed, chain, flushed_at_ms, datasets, "
                     "raw_bytes, received_bytes, equal_bytes, refused, quarantined, connections "
                     "FROM groups ORDER BY name");
  while (query.Step()) {
    if (out.size() == kMaxGroups) return "too many groups";
    Row row(query);
    auto& group = out.emplace_back();
    group.group = row.Name();
    group.epoch = row.Number();
    group.durable = row.Number();
    group.flushed = row.Number();
    group.chain = row.Chain();
    group.flushedAtMs = row.Number();
    group.counters = {row.Number(), row.Number(), row.Number(), row.Number(),
                      row.Number(), row.Number(), row.Number()};
    if (!row.IsGood()) return "a damaged row of group " + Quote(group.group);
    if (group.flushed > group.durable) {
      return "group " + Quote(group.group) + " has flushed more than is durable";
    }
  }
  return query.Fault();
}

std::string LoadVolumes(sqlite3* database, GroupState& group) {
  SqlStatement query(database,
                     "SELECT name, size, state, good_at FROM volumes WHERE grp = ? ORDER BY name");
  query.Text(group.group);
  while (query.Step()) {
    if (group.volumes.size() == kMaxVolumes) return "too many volumes";
    Row row(query);
    auto& volume = group.volumes.emplace_back();
    volume.name = row.Name();
    volume.size = row.Number(kMaxVolumeBytes);
    volume.state =
        static_cast<VolumeState>(row.Number(static_cast<std::uint64_t>(VolumeState::kHeld)));
    volume.goodAt = row.Number();
    if (!row.IsGood()) return "a damaged row of volume " + Quote(volume.name);
  }
  return query.Fault();
}

// Names, each followed by a slash, which no name holds.
bool SplitNames(std::string_view text, std::vector<std::string>& out) {
  while (!text.empty()) {
    const auto slash = text.find('/');
    if (slash == std::string_view::npos || out.size() == kMaxVolumes) return false;
    out.emplace_back(text.substr(0, slash));
    text.remove_prefix(slash + 1);
  }
  return true;
}

// Whether a record names known volumes, each once.
bool AreKnown(const std::vector<std::string>& names, const GroupState& group) {
  std::set<std::string_view> seen;
  return std::all_of(names.begin(), names.end(), [&](const std::string& name) {
    const auto isSame = [&](const VolumeRecord& volume) { return volume.name == name; };
    return seen.insert(name).second &&
           std::any_of(group.volumes.begin(), group.volumes.end(), isSame);
  });
}

std::string LoadJournal(sqlite3* database, GroupState& group) {
  // The numbers' bits, in the order of unsigned numbers: those that look negative last.
  SqlStatement query(
      database,
      "SELECT n, flags, chain, volumes, bytes, timestamp_ms FROM journal WHERE grp = ? "
      "ORDER BY n < 0, n");
  query.Text(group.group);
  while (query.Step()) {
    if (group.journal.size() == kMaxJournal) return "too many records in the journal";
    Row row(query);
    auto& record = group.journal.emplace_back();
    record.n = row.Number();
    record.flags =
        static_cast<std::uint32_t>(row.Number(std::numeric_limits<std::uint32_t>::max()));
    record.chain = row.Chain();
    if (!SplitNames(row.Text(), record.volumes) || !AreKnown(record.volumes, group)) row.Fail();
    record.bytes = row.Number();
    record.timestampMs = row.Number();
    if (!row.IsGood()) return "a damaged record " + std::to_string(record.n) + " of the journal";
    if (record.n <= group.flushed || record.n > group.durable) {
      return "the journal's record " + std::to_string(record.n) +
             " is not between what is flushed and what is durable";
    }
    if (record.n == group.durable && record.chain != group.chain) {
      return "the journal's last record has another chain value than the group";
    }
  }
  return query.Fault();
}

std::string LoadPoints(sqlite3* database, GroupState& group) {
  SqlStatement query(database,
                     "SELECT n, timestamp_ms, name FROM points WHERE grp = ? ORDER BY n < 0, n");
  query.Text(group.group);
  while (query.Step()) {
    if (group.points.size() == kMaxPoints) return "too many points";
    Row row(query);
    auto& point = group.points.emplace_back();
    point.n = row.Number(group.durable);
    point.timestampMs = row.Number();
    point.name = row.Text();
    if (!IsPointName(point.name)) row.Fail();
    if (!row.IsGood()) return "a damaged row of point " + std::to_string(point.n);
  }
  return query.Fault();
}

// A row of a group that is not there is as damaged as one with a wrong number.
std::string CheckStrays(sqlite3* database) {
  std::uint64_t strays = 0;
  auto fault = NumberOf(database,
                        "SELECT (SELECT count(*) FROM volumes WHERE grp NOT IN (SELECT name FROM "
                        "groups)) + (SELECT count(*) FROM journal WHERE grp NOT IN (SELECT name "
                        "FROM groups)) + (SELECT count(*) FROM points WHERE grp NOT IN (SELECT "
                        "name FROM groups))",
                        strays);
  if (fault.empty() && strays != 0) fault = "rows of a group that is not there";
  return fault;
}

}  // namespace

const char* const kStateSchema = [] {
  static const std::string schema = MakeSchema();
  return schema.c_str();
}();

std::string CheckStateDatabase(sqlite3* database) {
  std::uint64_t application = 0;
  std::uint64_t version = 0;
  auto fault = NumberOf(database, "PRAGMA application_id", application);
  if (fault.empty()) fault = NumberOf(database, "PRAGMA user_version", version);
  if (!fault.empty()) return fault;
  if (application != static_cast<std::uint64_t>(kStateApplication))
    return "it is no penstock state";
  if (version != static_cast<std::uint64_t>(kStateVersion)) {
    return "it has version " + std::to_string(static_cast<std::int64_t>(version)) +
           ", this program reads version " + std::to_string(kStateVersion);
  }
  fault = CheckTables(database);
  if (!fault.empty()) return fault;
  SqlStatement check(database, "PRAGMA quick_check(1)");
  if (!check.Step()) return check.Fault().empty() ? "it can't be checked" : check.Fault();
  const auto result = check.TextAt(0).value_or("");
  return result == "ok" ? "" : "it is damaged: " + Escape(result, 200);
}

std::string LoadState(sqlite3* database, std::vector<GroupState>& out) {
  std::vector<GroupState> groups;
  auto fault = LoadGroups(database, groups);
  if (fault.empty()) fault = CheckStrays(database);
  if (!fault.empty()) return fault;
  for (auto& group : groups) {
    fault = LoadVolumes(database, group);
    if (fault.empty()) fault = LoadJournal(database, group);
    if (fault.empty()) fault = LoadPoints(database, group);
    if (!fault.empty()) return "group " + Quote(group.group) + ": " + fault;
  }
  out = std::move(groups);
  return {};
}

}  // namespace penstock
