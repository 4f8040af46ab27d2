// SPDX-License-Identifier: Apache-2.0
// Reads any bytes as a state database, and any rows as a state. What is read without a fault must
// keep what the engine relies on.
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "fuzz/byte_source.h"
#include "replicator/sql.h"
#include "replicator/state_store.h"

namespace {

using penstock::GroupState;

void CheckGroup(const GroupState& group) {
  FUZZ_CHECK(penstock::IsValidName(group.group));
  FUZZ_CHECK(group.flushed <= group.durable);
  FUZZ_CHECK(group.volumes.size() <= penstock::kMaxVolumes);
  std::set<std::string> names;
  for (const auto& volume : group.volumes) {
    FUZZ_CHECK(penstock::IsValidName(volume.name));
    FUZZ_CHECK(names.insert(volume.name).second);
    FUZZ_CHECK(volume.size <= std::numeric_limits<std::int64_t>::max());
    FUZZ_CHECK(volume.state <= penstock::VolumeState::kNeedsResync);
  }
  std::uint64_t before = group.flushed;
  for (const auto& record : group.journal) {
    FUZZ_CHECK(record.n > before && record.n <= group.durable);
    before = record.n;
    std::set<std::string> seen;
    for (const auto& name : record.volumes) {
      FUZZ_CHECK(names.count(name) == 1 && seen.insert(name).second);
    }
    if (record.n == group.durable) FUZZ_CHECK(record.chain == group.chain);
  }
}

void Read(const std::uint8_t* data, std::size_t size) {
  std::vector<GroupState> groups;
  const auto fault = penstock::StateStore::LoadImage({data, size}, groups);
  FUZZ_CHECK(fault.empty() || groups.empty());
  std::set<std::string> names;
  for (const auto& group : groups) {
    FUZZ_CHECK(names.insert(group.group).second);
    CheckGroup(group);
  }
}

// Binds values as the input says; mostly ones that are nearly right.
class Rows {
 public:
  explicit Rows(ByteSource& in) : m_in(in) {
    sqlite3* opened = nullptr;
    FUZZ_CHECK(sqlite3_open(":memory:", &opened) == SQLITE_OK);
    m_database.reset(opened);
    FUZZ_CHECK(penstock::SqlExec(opened, penstock::kStateSchema).empty());
  }

  void Insert() {
    constexpr int kMaxRows = 24;
    for (int i = 0; i < kMaxRows && !m_in.AtEnd(); ++i) {
      switch (m_in.Below(4)) {
        case 0:
          Insert("REPLACE INTO groups VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?)", "tnnnbnnnnnnnn");
          break;
        case 1: Insert("REPLACE INTO volumes VALUES (?,?,?,?,?)", "ttnnn"); break;
        default: Insert("REPLACE INTO journal VALUES (?,?,?,?,?,?,?)", "tnnbtnn"); break;
      }
    }
  }

  void ReadAll() {
    sqlite3_int64 size = 0;
    auto* image = sqlite3_serialize(m_database.get(), "main", &size, 0);
    FUZZ_CHECK(image != nullptr);
    Read(image, static_cast<std::size_t>(size));
    sqlite3_free(image);
  }

 private:
  void Insert(const char* sql, const char* types) {
    penstock::SqlStatement insert(m_database.get(), sql);
    for (; *types != '\0'; ++types) {
      switch (m_in.Below(16) == 0 ? "tnb"[m_in.Below(3)] : *types) {
        case 't': insert.Text(Text()); break;
        case 'n': insert.Number(Number()); break;
        default: {
          const std::vector<std::uint8_t> blob(m_in.Below(16) == 0 ? m_in.Byte() : 32U,
                                               static_cast<std::uint8_t>(m_in.Below(2)));
          insert.Blob(blob);
          break;
        }
      }
    }
    insert.Run();  // which may be refused
  }

  std::string Text() {
    static const char* const kTexts[] = {"g",    "h",    "a", "b",    "a/",
                                         "a/b/", "b/a/", "",  "../x", "a/a/"};
    if (m_in.Below(16) != 0) return kTexts[m_in.Below(10)];
    std::string text;
    for (auto left = m_in.Byte() % 80U; left > 0; --left) text += static_cast<char>(m_in.Byte());
    return text;
  }

  std::uint64_t Number() {
    const std::uint64_t value = m_in.Below(12);
    switch (m_in.Below(16)) {
      case 0: return ~value;
      case 1: return (std::uint64_t{1} << 63U) + value - 6;
      case 2: return (std::uint64_t{1} << 32U) + value - 6;
      default: return value;
    }
  }

  ByteSource& m_in;
  penstock::SqlDatabase m_database;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  if (data[0] % 2 == 0) {
    Read(data + 1, size - 1);
    return 0;
  }
  ByteSource in(data + 1, size - 1);
  Rows rows(in);
  rows.Insert();
  rows.ReadAll();
  return 0;
}
