// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_WORKER_POOL_H_
#define PENSTOCK_REPLICATOR_WORKER_POOL_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "replicator/event_loop.h"

namespace penstock {

// Threads for what would hold up the loop: hashing, compression, reading, writing, syncing. A job
// is two functions: `work` runs on a thread of the pool, `done` afterwards on the loop's thread.
// Jobs of one strand run in the order of their submission, one at a time; jobs without a strand in
// any order.
//
// Completions are gathered: however many jobs end before the loop comes to them, it is woken up
// once. `done` of a strand's jobs are called in order.
//
// Jobs that may wait for a disk and jobs that compute are best given to two pools.
//
// Threads: Submit and the rest from the loop's thread, or before Run. `work` must not throw.
class WorkerPool {
 public:
  using Task = std::function<void()>;

  // Starts `threads` (at least 1). At most `queue` jobs wait or run at a time; 0: no limit. `begin`
  // runs first on each thread.
  WorkerPool(EventLoop& loop, unsigned threads, std::size_t queue = 0, const Task& begin = {});
  // As Stop().
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Both functions may be empty. Returns false, and takes nothing, when the queue is full or the
  // pool was stopped.
  //
  // Owns both until they ran; `work` is destroyed on the pool's thread, `done` on the loop's.
  bool Submit(Task work, Task done);
  bool Submit(const std::string& strand, Task work, Task done);

  bool HasRoom() const;
  // Jobs whose `done` has not been called yet.
  std::size_t Pending() const;
  unsigned Threads() const;

  // Waits for the jobs that are running; those that wait are dropped, and no `done` is called any
  // more. To lose none, wait until Pending() is 0 first.
  void Stop();

 private:
  struct Impl;
  std::shared_ptr<Impl> m_impl;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_WORKER_POOL_H_
