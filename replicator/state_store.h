// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_STATE_STORE_H_
#define PENSTOCK_REPLICATOR_STATE_STORE_H_

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engine/state.h"

namespace penstock {

// The target's state on disk: a database, state.db, in a directory of mode 0700 that one process
// owns. Every change is atomic, and durable when the call returns.
//
// What is read is believed only after a look at it: the database's structure, every name, number
// and blob. After a failed change the store refuses every later one: what is on the disk is known
// again only after it was opened anew.
//
// Threads: one at a time.
class StateStore {
 public:
  enum class Mode {
    kOwner,     // for the daemon: reads and changes; makes the directory and the database
    kReadOnly,  // for looking at it, also while a daemon has it
  };

  // Returns an empty text, or what is wrong: the directory is open to others, another penstock has
  // it, the database is damaged or of another version.
  static std::string Open(const std::string& directory, Mode mode,
                          std::unique_ptr<StateStore>& out);
  ~StateStore();
  StateStore(const StateStore&) = delete;
  StateStore& operator=(const StateStore&) = delete;

  // Returns an empty text and all groups, ordered by name, or what is wrong with what was read.
  std::string Load(std::vector<GroupState>& out);

  // Writes one change; the group is made where it is not there. Returns an empty text, or why it is
  // not known to be on the disk. REQUIRES: kOwner.
  std::string Commit(std::string_view group, const StateChange& change);

  // The same as Load, of the bytes of a database file.
  static std::string LoadImage(Bytes image, std::vector<GroupState>& out);

  struct Impl;
  explicit StateStore(std::unique_ptr<Impl> impl);

 private:
  std::unique_ptr<Impl> m_impl;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_STATE_STORE_H_
