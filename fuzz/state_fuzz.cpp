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
    FUZZ_CHECK(volume.state <= penstock::VolumeState::kHeld);
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

// The bytes of a database without rows.
const std::vector<unsigned char>& EmptyImage() {
  static const std::vector<unsigned char> kImage = [] {
    sqlite3* opened = nullptr;
    FUZZ_CHECK(sqlite3_open(":memory:", &opened) == SQLITE_OK);
    const penstock::SqlDatabase database(opened);
    FUZZ_CHECK(penstock::SqlExec(opened, penstock::kStateSchema).empty());
    sqlite3_int64 size = 0;
    auto* image = sqlite3_serialize(opened, "main", &size, 0);
    FUZZ_CHECK(image != nullptr);
    std::vector<unsigned char> bytes(image, image + size);
    sqlite3_free(image);
    return bytes;
  }();
  return kImage;
}

// Binds values as the input says; mostly ones that are right, or nearly.
class Rows {
 public:
  explicit Rows(ByteSource& in) : m_in(in) {
    sqlite3* opened = nullptr;
    FUZZ_CHECK(sqlite3_open(":memory:", &opened) == SQLITE_OK);
    m_database.reset(opened);
    const auto& empty = EmptyImage();
    auto* image = static_cast<unsigned char*>(sqlite3_malloc64(empty.size()));
    std::memcpy(image, empty.data(), empty.size());
    const auto size = static_cast<sqlite3_int64>(empty.size());
    FUZZ_CHECK(sqlite3_deserialize(
                   opened, "main", image, size, size,
                   SQLITE_DESERIALIZE_FREEONCLOSE | SQLITE_DESERIALIZE_RESIZEABLE) == SQLITE_OK);
  }

  // A group, so that the other rows have one, and then what comes.
  void Insert() {
    constexpr int kMaxRows = 24;
    Insert(kGroup, "gnufcnnnnnnnn");
    for (int i = 0; i < kMaxRows && !m_in.AtEnd(); ++i) {
      switch (m_in.Below(8)) {
        case 0: Insert(kGroup, "gnufcnnnnnnnn"); break;
        case 1:
        case 2:
        case 3: Insert("REPLACE INTO volumes VALUES (?,?,?,?,?)", "gvnsn"); break;
        default: Insert("REPLACE INTO journal VALUES (?,?,?,?,?,?)", "gnnclf"); break;
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
  static constexpr const char* kGroup = "REPLACE INTO groups VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?)";

  // What each letter stands for: a group's name, a volume's, a list of volumes, a number, a small
  // one (durable: u, flushed: f), a state, a chain value. Now and then any other.
  void Insert(const char* sql, const char* kinds) {
    penstock::SqlStatement insert(m_database.get(), sql);
    for (; *kinds != '\0'; ++kinds) {
      const bool isOther = m_in.Below(64) == 0;
      switch (isOther ? "gvlntc"[m_in.Below(6)] : *kinds) {
        case 'g': insert.Text(m_in.Below(8) == 0 ? "h" : "g"); break;
        case 'v': insert.Text(m_in.Flag() ? "a" : "b"); break;
        case 'l': insert.Text(List()); break;
        case 't': insert.Text(Text()); break;
        case 'u': insert.Number(4 + m_in.Below(8)); break;
        case 'f': insert.Number(m_in.Below(5)); break;
        case 's': insert.Number(m_in.Below(6)); break;
        case 'n': insert.Number(Number()); break;
        default: {
          const auto fill = static_cast<std::uint8_t>(m_in.Below(8) == 0);
          const std::vector<std::uint8_t> chain(isOther ? m_in.Byte() : 32U, fill);
          insert.Blob(chain);
          break;
        }
      }
    }
    insert.Run();  // which may be refused
  }

  std::string List() {
    static const char* const kLists[] = {"", "a/", "b/", "a/b/", "b/a/", "a/a/", "a", "/"};
    return kLists[m_in.Below(8)];
  }

  std::string Text() {
    std::string text;
    for (auto left = m_in.Byte() % 80U; left > 0; --left) text += static_cast<char>(m_in.Byte());
    return text;
  }

  std::uint64_t Number() {
    const std::uint64_t value = m_in.Below(12);
    switch (m_in.Below(32)) {
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
