// SPDX-License-Identifier: Apache-2.0
#include "replicator/state_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "replicator/files.h"
#include "replicator/log.h"
#include "replicator/sql.h"

namespace penstock {

namespace {

constexpr int kBusyMs = 5000;
constexpr int kMaxValueBytes = 1 << 20;
constexpr std::uint64_t kMaxImageBytes = std::uint64_t{1} << 30U;

// Nothing in a database may make SQLite do more than read and write rows.
std::string Harden(sqlite3* database) {
  sqlite3_busy_timeout(database, kBusyMs);
  sqlite3_limit(database, SQLITE_LIMIT_LENGTH, kMaxValueBytes);
  sqlite3_limit(database, SQLITE_LIMIT_ATTACHED, 0);
  sqlite3_limit(database, SQLITE_LIMIT_WORKER_THREADS, 0);
  sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(database, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(database, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_db_config(database, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  return SqlExec(database, "PRAGMA cell_size_check = ON; PRAGMA mmap_size = 0");
}

// Who has the lock has the directory, until it dies.
std::string LockDirectory(const std::string& directory, Fd& out) {
  const auto path = directory + "/lock";
  Fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd) return "can't open " + path + ": " + ErrnoText(errno);
  if (::flock(fd.Get(), LOCK_EX | LOCK_NB) != 0) {
    return errno == EWOULDBLOCK ? "the state in " + directory + " is in use by another penstock"
                                : "can't lock " + path + ": " + ErrnoText(errno);
  }
  out = std::move(fd);
  return {};
}

std::string JoinNames(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& name : names) text += name + "/";
  return text;
}

}  // namespace

SqlStatement::SqlStatement(sqlite3* database, std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  const int result = sqlite3_prepare_v3(database, sql.data(), static_cast<int>(sql.size()),
                                        SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
  m_statement.reset(statement);
  if (result != SQLITE_OK) m_fault = sqlite3_errmsg(database);
}

void SqlStatement::Check(int result) {
  if (result == SQLITE_OK || result == SQLITE_ROW || result == SQLITE_DONE) return;
  if (m_fault.empty()) m_fault = sqlite3_errmsg(sqlite3_db_handle(m_statement.get()));
}

SqlStatement& SqlStatement::Number(std::uint64_t value) {
  if (m_fault.empty()) {
    Check(sqlite3_bind_int64(m_statement.get(), ++m_bound, static_cast<sqlite3_int64>(value)));
  }
  return *this;
}

SqlStatement& SqlStatement::Text(std::string_view value) {
  if (m_fault.empty()) {
    Check(sqlite3_bind_text64(m_statement.get(), ++m_bound, value.data(), value.size(),
                              SQLITE_TRANSIENT, SQLITE_UTF8));
  }
  return *this;
}

SqlStatement& SqlStatement::Blob(Bytes value) {
  if (m_fault.empty()) {
    Check(sqlite3_bind_blob64(m_statement.get(), ++m_bound, value.data(), value.size(),
                              SQLITE_TRANSIENT));
  }
  return *this;
}

bool SqlStatement::Step() {
  if (!m_fault.empty()) return false;
  const int result = sqlite3_step(m_statement.get());
  Check(result);
  return result == SQLITE_ROW;
}

void SqlStatement::Run() {
  while (Step()) {
  }
  if (m_statement) sqlite3_reset(m_statement.get());
  m_bound = 0;
}

std::optional<std::uint64_t> SqlStatement::NumberAt(int column) const {
  if (sqlite3_column_type(m_statement.get(), column) != SQLITE_INTEGER) return std::nullopt;
  return static_cast<std::uint64_t>(sqlite3_column_int64(m_statement.get(), column));
}

std::optional<std::string> SqlStatement::TextAt(int column) const {
  if (sqlite3_column_type(m_statement.get(), column) != SQLITE_TEXT) return std::nullopt;
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(m_statement.get(), column));
  if (text == nullptr) return std::nullopt;
  return std::string(text,
                     static_cast<std::size_t>(sqlite3_column_bytes(m_statement.get(), column)));
}

std::optional<Digest> SqlStatement::DigestAt(int column) const {
  Digest digest{};
  if (sqlite3_column_type(m_statement.get(), column) != SQLITE_BLOB ||
      sqlite3_column_bytes(m_statement.get(), column) != static_cast<int>(digest.size())) {
    return std::nullopt;
  }
  std::memcpy(digest.data(), sqlite3_column_blob(m_statement.get(), column), digest.size());
  return digest;
}

std::string SqlExec(sqlite3* database, const char* sql) {
  return sqlite3_exec(database, sql, nullptr, nullptr, nullptr) == SQLITE_OK
             ? ""
             : sqlite3_errmsg(database);
}

struct StateStore::Impl {
  std::string path;
  Mode mode = Mode::kReadOnly;
  Fd lock;
  SqlDatabase database;
  std::string failed;  // why no change is taken any more

  // Prepared once: they need the database, and go before it.
  SqlStatement begin, commit, putGroup, putVolume, putJournal, putPoint, dropPoint, dropLow,
      dropHigh;

  std::string OpenDatabase();
  void Prepare();
  void Put(std::string_view group, const StateChange& change);
  std::string FirstFault() const;
};

std::string StateStore::Impl::OpenDatabase() {
  const bool isOwner = mode == Mode::kOwner;
  bool isNew = false;
  if (isOwner) {
    // The files that SQLite makes beside it get this one's mode.
    const Fd made(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!made && errno != EEXIST) return ErrnoText(errno);
    isNew = static_cast<bool>(made);
  }
  sqlite3* opened = nullptr;
  const int flags = (isOwner ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY) | SQLITE_OPEN_NOMUTEX |
                    SQLITE_OPEN_EXRESCODE;
  const int result = sqlite3_open_v2(path.c_str(), &opened, flags, nullptr);
  database.reset(opened);
  if (result != SQLITE_OK) return sqlite3_errstr(result);
  auto fault = Harden(opened);
  // An empty file is one whose making was cut off.
  std::uint64_t pages = 0;
  SqlStatement count(opened, "PRAGMA page_count");
  if (fault.empty() && count.Step()) pages = count.NumberAt(0).value_or(0);
  if (fault.empty()) fault = count.Fault();
  count = {};
  if (fault.empty() && isOwner) {
    fault = SqlExec(opened, "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL");
  }
  if (fault.empty() && isOwner && pages == 0) {
    fault = SqlExec(opened, (std::string("BEGIN IMMEDIATE;\n") + kStateSchema + "COMMIT").c_str());
    isNew = true;
  }
  if (fault.empty() && isNew) fault = SyncDirectory(DirectoryOf(path));
  return fault.empty() ? CheckStateDatabase(opened) : fault;
}

void StateStore::Impl::Prepare() {
  auto* db = database.get();
  begin = SqlStatement(db, "BEGIN IMMEDIATE");
  commit = SqlStatement(db, "COMMIT");
  putGroup = SqlStatement(db, "REPLACE INTO groups VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?)");
  putVolume = SqlStatement(db, "REPLACE INTO volumes VALUES (?,?,?,?,?)");
  putJournal = SqlStatement(db, "INSERT INTO journal VALUES (?,?,?,?,?,?,?)");
  putPoint = SqlStatement(db, "INSERT INTO points VALUES (?,?,?,?)");
  dropPoint = SqlStatement(db, "DELETE FROM points WHERE grp = ? AND n = ?");
  dropLow = SqlStatement(db, "DELETE FROM journal WHERE grp = ? AND n >= 0 AND n <= ?");
  // Of numbers beyond 2^63, which look negative: every other one is below them.
  dropHigh = SqlStatement(db, "DELETE FROM journal WHERE grp = ? AND (n >= 0 OR n <= ?)");
}

void StateStore::Impl::Put(std::string_view group, const StateChange& change) {
  const auto& counters = change.counters;
  putGroup.Text(group)
      .Number(change.epoch)
      .Number(change.durable)
      .Number(change.flushed)
      .Blob(change.chain)
      .Number(change.flushedAtMs)
      .Number(counters.datasets)
      .Number(counters.rawBytes)
      .Number(counters.receivedBytes)
      .Number(counters.equalBytes)
      .Number(counters.refused)
      .Number(counters.quarantined)
      .Number(counters.connections)
      .Run();
  for (const auto& volume : change.volumes) {
    const auto state = static_cast<std::uint64_t>(volume.state);
    putVolume.Text(group).Text(volume.name).Number(volume.size).Number(state).Number(volume.goodAt);
    putVolume.Run();
  }
  for (const auto& record : change.addJournal) {
    putJournal.Text(group).Number(record.n).Number(record.flags).Blob(record.chain);
    putJournal.Text(JoinNames(record.volumes)).Number(record.bytes);
    putJournal.Number(record.timestampMs).Run();
  }
  for (const std::uint64_t n : change.dropPoints) dropPoint.Text(group).Number(n).Run();
  for (const auto& point : change.addPoints) {
    putPoint.Text(group).Number(point.n).Number(point.timestampMs).Text(point.name).Run();
  }
  const auto upTo = change.dropJournalUpTo;
  if (upTo == 0) return;
  auto& drop = static_cast<std::int64_t>(upTo) < 0 ? dropHigh : dropLow;
  drop.Text(group).Number(upTo).Run();
}

std::string StateStore::Impl::FirstFault() const {
  for (const auto* statement : {&begin, &putGroup, &putVolume, &putJournal, &putPoint, &dropPoint,
                                &dropLow, &dropHigh, &commit}) {
    if (!statement->Fault().empty()) return statement->Fault();
  }
  return {};
}

StateStore::StateStore(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
StateStore::~StateStore() = default;

std::string StateStore::Open(const std::string& directory, Mode mode,
                             std::unique_ptr<StateStore>& out) {
  auto impl = std::make_unique<Impl>();
  impl->mode = mode;
  impl->path = directory + "/state.db";
  auto fault =
      mode == Mode::kOwner ? MakePrivateDirectory(directory) : CheckPrivateDirectory(directory);
  if (fault.empty() && mode == Mode::kOwner) fault = LockDirectory(directory, impl->lock);
  if (!fault.empty()) return fault;
  if (mode == Mode::kReadOnly && ::access(impl->path.c_str(), F_OK) != 0) {
    return "there is no state in " + directory;
  }
  fault = impl->OpenDatabase();
  if (fault.empty() && mode == Mode::kOwner) {
    impl->Prepare();
    fault = impl->FirstFault();
  }
  if (!fault.empty()) return "can't use " + impl->path + ": " + fault;
  out = std::make_unique<StateStore>(std::move(impl));
  return {};
}

std::string StateStore::Load(std::vector<GroupState>& out) {
  auto* database = m_impl->database.get();
  // One point in time, although a daemon may go on.
  auto fault = SqlExec(database, "BEGIN");
  if (fault.empty()) fault = LoadState(database, out);
  SqlExec(database, "ROLLBACK");
  return fault.empty() ? "" : "can't use " + m_impl->path + ": " + fault;
}

std::string StateStore::Commit(std::string_view group, const StateChange& change) {
  if (m_impl->mode != Mode::kOwner) return m_impl->path + " was opened for reading";
  if (!m_impl->failed.empty()) {
    return "no change of " + m_impl->path + " is taken after an earlier failure: " + m_impl->failed;
  }
  m_impl->begin.Run();
  m_impl->Put(group, change);
  auto fault = m_impl->FirstFault();
  if (fault.empty()) {
    m_impl->commit.Run();
    fault = m_impl->FirstFault();
  }
  if (fault.empty()) return {};
  SqlExec(m_impl->database.get(), "ROLLBACK");
  m_impl->failed = fault;
  return "can't write " + m_impl->path + ": " + fault;
}

std::string StateStore::LoadImage(Bytes image, std::vector<GroupState>& out) {
  constexpr std::size_t kHeaderBytes = 100;
  if (image.size() < kHeaderBytes || image.size() > kMaxImageBytes) return "it is no database";
  sqlite3* opened = nullptr;
  const int result =
      sqlite3_open_v2(":memory:", &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  const SqlDatabase database(opened);
  if (result != SQLITE_OK) return sqlite3_errstr(result);
  auto* copy = static_cast<unsigned char*>(sqlite3_malloc64(image.size()));
  if (copy == nullptr) return "out of memory";
  std::memcpy(copy, image.data(), image.size());
  // The header's versions say that there is a log beside the file. Here there can't be one.
  copy[18] = copy[19] = 1;
  const auto size = static_cast<sqlite3_int64>(image.size());
  if (sqlite3_deserialize(opened, "main", copy, size, size,
                          SQLITE_DESERIALIZE_FREEONCLOSE | SQLITE_DESERIALIZE_READONLY) !=
      SQLITE_OK) {
    return sqlite3_errmsg(opened);
  }
  auto fault = Harden(opened);
  if (fault.empty()) fault = CheckStateDatabase(opened);
  if (fault.empty()) fault = LoadState(opened, out);
  return fault;
}

}  // namespace penstock
