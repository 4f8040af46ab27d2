// SPDX-License-Identifier: Apache-2.0
#include "replicator/worker_pool.h"

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace penstock {

namespace {

struct Job {
  std::string strand;  // empty: none
  WorkerPool::Task work;
  WorkerPool::Task done;
};

// Signals are for the loop's thread: the pool's threads are born with all of them blocked.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &m_before);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t m_before{};
};

}  // namespace

struct WorkerPool::Impl : std::enable_shared_from_this<WorkerPool::Impl> {
  explicit Impl(EventLoop& l, std::size_t q) : loop(l), queueLimit(q) {}

  EventLoop& loop;
  const std::size_t queueLimit;
  std::size_t pending = 0;  // the loop's thread only
  std::vector<std::thread> threads;

  std::mutex mutex;
  std::condition_variable hasWork;
  std::deque<Job> ready;
  // The strands that have a job that is ready or running, with the jobs that wait behind it.
  std::unordered_map<std::string, std::deque<Job>> strands;
  std::vector<Task> finished;  // whose `done` is to be called
  bool isStopped = false;

  void RunThread();
  void Finish(Job&& job);
  void Deliver();
};

void WorkerPool::Impl::RunThread() {
  std::unique_lock lock(mutex);
  for (;;) {
    hasWork.wait(lock, [this] { return isStopped || !ready.empty(); });
    if (isStopped) return;
    Job job = std::move(ready.front());
    ready.pop_front();
    lock.unlock();
    if (job.work) job.work();
    job.work = nullptr;  // what it holds is released here, not under the lock
    lock.lock();
    Finish(std::move(job));
  }
}

// REQUIRES: the lock is held.
void WorkerPool::Impl::Finish(Job&& job) {
  if (!job.strand.empty()) {
    const auto strand = strands.find(job.strand);
    if (strand->second.empty()) {
      strands.erase(strand);
    } else {
      ready.push_back(std::move(strand->second.front()));
      strand->second.pop_front();
      hasWork.notify_one();
    }
  }
  finished.push_back(std::move(job.done));
  if (finished.size() == 1) {
    loop.Post([self = weak_from_this()] {
      if (const auto impl = self.lock()) impl->Deliver();
    });
  }
}

void WorkerPool::Impl::Deliver() {
  std::vector<Task> batch;
  {
    const std::lock_guard lock(mutex);
    batch.swap(finished);
  }
  for (auto& done : batch) {
    {
      const std::lock_guard lock(mutex);
      if (isStopped) return;
    }
    --pending;
    if (done) done();
    done = nullptr;
  }
}

WorkerPool::WorkerPool(EventLoop& loop, unsigned threads, std::size_t queue, const Task& begin)
    : m_impl(std::make_shared<Impl>(loop, queue)) {
  const SignalsBlocked blocked;
  for (unsigned i = 0; i < std::max(threads, 1U); ++i) {
    m_impl->threads.emplace_back([impl = m_impl.get(), begin] {
      if (begin) begin();
      impl->RunThread();
    });
  }
}

WorkerPool::~WorkerPool() { Stop(); }

bool WorkerPool::Submit(Task work, Task done) {
  return Submit({}, std::move(work), std::move(done));
}

bool WorkerPool::Submit(const std::string& strand, Task work, Task done) {
  if (!HasRoom()) return false;
  Job job{strand, std::move(work), std::move(done)};
  const std::lock_guard lock(m_impl->mutex);
  if (m_impl->isStopped) return false;
  ++m_impl->pending;
  if (!strand.empty()) {
    const auto [place, isNew] = m_impl->strands.try_emplace(strand);
    if (!isNew) {
      place->second.push_back(std::move(job));
      return true;
    }
  }
  m_impl->ready.push_back(std::move(job));
  m_impl->hasWork.notify_one();
  return true;
}

bool WorkerPool::HasRoom() const {
  return m_impl->queueLimit == 0 || m_impl->pending < m_impl->queueLimit;
}

std::size_t WorkerPool::Pending() const { return m_impl->pending; }
unsigned WorkerPool::Threads() const { return static_cast<unsigned>(m_impl->threads.size()); }

void WorkerPool::Stop() {
  {
    const std::lock_guard lock(m_impl->mutex);
    m_impl->isStopped = true;
    m_impl->hasWork.notify_all();
  }
  for (auto& thread : m_impl->threads) {
    if (thread.joinable()) thread.join();
  }
  // Nobody else is left: what was dropped is released here, on the loop's thread.
  m_impl->ready.clear();
  m_impl->strands.clear();
  m_impl->finished.clear();
  m_impl->pending = 0;
}

}  // namespace penstock
