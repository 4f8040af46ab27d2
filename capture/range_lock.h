// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_CAPTURE_RANGE_LOCK_H_
#define PENSTOCK_CAPTURE_RANGE_LOCK_H_

#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>

namespace penstock {

// Ranges of one volume that are in use, each by one thread at a time. Whoever comes first gets an
// overlapping range first, so that nobody waits for ever; ranges that don't overlap don't wait.
//
// Threads: any.
class RangeLock {
 private:
  struct Entry {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
  };
  using Place = std::list<Entry>::iterator;

 public:
  // Has the range while it lives.
  class Hold {
   public:
    // Waits until nobody who came before has anything of the range.
    Hold(RangeLock& lock, std::uint64_t offset, std::uint64_t length)
        : m_lock(lock), m_place(lock.Enter(offset, length)) {}
    ~Hold() { m_lock.Leave(m_place); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    RangeLock& m_lock;
    Place m_place;
  };

 private:
  Place Enter(std::uint64_t offset, std::uint64_t length);
  void Leave(Place place);
  bool IsFirst(Place place) const;

  std::mutex m_mutex;
  std::condition_variable m_left;
  std::list<Entry> m_entries;  // held and waited for, in the order in which they came
  std::uint32_t m_waiting = 0;
};

}  // namespace penstock

#endif  // PENSTOCK_CAPTURE_RANGE_LOCK_H_
