// SPDX-License-Identifier: Apache-2.0
// A little of SQLite, as values with owners. Included by the state's sources, and by no header.
#ifndef PENSTOCK_REPLICATOR_SQL_H_
#define PENSTOCK_REPLICATOR_SQL_H_

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "codec/hash.h"
#include "engine/state.h"

namespace penstock {

struct SqlDelete {
  void operator()(sqlite3* p) const { sqlite3_close_v2(p); }
  void operator()(sqlite3_stmt* p) const { sqlite3_finalize(p); }
};
using SqlDatabase = std::unique_ptr<sqlite3, SqlDelete>;

// One statement, prepared once. Bind the parameters in order, then Step until it says false; the
// first failure stays, and Fault tells it.
class SqlStatement {
 public:
  SqlStatement() = default;
  SqlStatement(sqlite3* database, std::string_view sql);

  SqlStatement& Number(std::uint64_t value);  // its 64 bits: beyond 2^63 they look negative
  SqlStatement& Text(std::string_view value);
  SqlStatement& Blob(Bytes value);
  bool Step();  // whether there is a row
  void Run();   // steps to the end, and makes it ready to be bound anew

  // Of the row. Nothing when the value has another type.
  std::optional<std::uint64_t> NumberAt(int column) const;
  std::optional<std::string> TextAt(int column) const;
  std::optional<Digest> DigestAt(int column) const;

  const std::string& Fault() const { return m_fault; }

 private:
  void Check(int result);

  std::unique_ptr<sqlite3_stmt, SqlDelete> m_statement;
  int m_bound = 0;
  std::string m_fault;
};

// Runs statements without results. Returns an empty text, or SQLite's.
std::string SqlExec(sqlite3* database, const char* sql);

// The tables. Whoever changes them changes the version.
inline constexpr int kStateVersion = 1;
inline constexpr int kStateApplication = 0x50535431;  // in the file's header: "PST1"
extern const char* const kStateSchema;

// Looks whether the database is one of ours: its version, its tables as we make them and nothing
// else, its pages whole. Returns an empty text, or what is wrong.
std::string CheckStateDatabase(sqlite3* database);

// Reads all groups, and believes nothing. Returns an empty text, or what is wrong.
std::string LoadState(sqlite3* database, std::vector<GroupState>& out);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_SQL_H_
