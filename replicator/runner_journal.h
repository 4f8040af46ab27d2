// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_RUNNER_JOURNAL_H_
#define PENSTOCK_REPLICATOR_RUNNER_JOURNAL_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "codec/dataset_file.h"
#include "engine/state.h"
#include "engine/target_group.h"
#include "penstock/dataset_serializer.h"

namespace penstock {

// What kind of failure an error number stands for: no room, or anything else.
IoStatus StatusOfErrno(int error);
// The same of a text of VolumeFile, which ends in the system's.
IoStatus StatusOfFault(const std::string& fault);

// A dataset file as the reader of dataset files takes it.
class JournalReader : public FileBytes {
 public:
  ~JournalReader() override;
  JournalReader() = default;
  JournalReader(const JournalReader&) = delete;
  JournalReader& operator=(const JournalReader&) = delete;

  std::string Open(const std::string& path);  // an empty text, or what is wrong
  std::uint64_t Size() const override { return m_size; }
  bool Read(std::uint64_t offset, std::uint8_t* out, std::size_t size) override;

 private:
  int m_fd = -1;
  std::uint64_t m_size = 0;
};

// The target's dataset files: STATE/journal/GROUP/ by volume and number (docs/format.md), and
// STATE/quarantine/ for those that were found damaged.
//
// Threads: the calls on one file one after the other, those on different files at any time. Forget
// and the making of writers are guarded within.
class Journal {
 public:
  explicit Journal(std::string stateDirectory) : m_state(std::move(stateDirectory)) {}

  // Makes the directories. Returns an empty text, or what is wrong.
  std::string Prepare() const;

  // Every dataset file of a known group and volume. What is neither goes to the quarantine:
  // nothing refers to it, and its name may be wanted.
  std::string List(const std::vector<GroupState>& groups, std::vector<JournalFile>& found) const;

  // Each does what the command of its name asks for. A failure that was no lack of room makes the
  // file's state unknown; nothing is tried again on the same descriptor.
  IoDone Open(const JournalOpen& command);
  IoDone Append(const JournalAppend& command);
  IoDone Close(const JournalClose& command);
  IoDone Remove(const JournalRemove& command);
  IoDone SyncDirs(const JournalSyncDirs& command);

  // What writes a file, while it is open; null when it isn't.
  std::shared_ptr<DatasetSerializer> SerializerOf(const std::string& group,
                                                  const std::string& volume, std::uint64_t n);

  std::string PathOf(const std::string& group, const std::string& volume, std::uint64_t n) const;

 private:
  using Key = std::tuple<std::string, std::string, std::uint64_t>;
  // A file that is being written.
  struct Writer {
    Writer(std::uint64_t n, const UuidT& volume, const std::string& base) : file(n, volume, base) {}
    DatasetSerializer file;
    DatasetFileSum sum;
  };

  std::string BaseOf(const std::string& group) const { return m_state + "/journal/" + group; }
  std::string DirectoryOfFile(const std::string& group, const std::string& volume,
                              std::uint64_t n) const;
  std::shared_ptr<Writer> FindWriter(const Key& key);
  void Forget(const Key& key);
  std::string PutAside(const std::string& path, const std::string& name) const;
  std::string ListGroup(const std::string& group, const std::map<std::string, std::string>& volumes,
                        std::vector<JournalFile>& found) const;

  std::string m_state;
  std::mutex m_mutex;  // of what follows
  std::map<Key, std::shared_ptr<Writer>> m_writers;
  // Directories whose own entry is known to be on the disk.
  std::set<std::string> m_named;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_RUNNER_JOURNAL_H_
