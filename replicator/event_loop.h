// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_EVENT_LOOP_H_
#define PENSTOCK_REPLICATOR_EVENT_LOOP_H_

#include <cstdint>
#include <functional>
#include <memory>

namespace penstock {

// The one thread that owns the engine, the pipeline and the connections: it runs tasks, timers and
// what sockets have to say, one after the other. Nothing here blocks but Run.
//
// Threads: Post and Stop from any thread at any time; everything else from the thread that runs the
// loop, or before Run.
//
//   EventLoop loop;
//   loop.OnSignals([&](int) { loop.Stop(); });
//   loop.After(1000, [&] { Report(); });
//   loop.Run();
class EventLoop {
 public:
  using Task = std::function<void()>;
  using TimerId = std::uint64_t;  // 0 is none

  EventLoop();
  // Tasks and timers that are left are destroyed, not run. What was made on the loop (connections,
  // listeners, pools) goes first.
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Runs until Stop, also with nothing to do. May be called again afterwards. An exception of a
  // task leaves it; the loop stays usable.
  void Run();
  // Lets Run return after the task that is being run. What is queued stays for the next Run.
  void Stop();

  // Runs `task` on the loop's thread, after what was posted before it; never within this call.
  void Post(Task task);

  // Runs `task` once, not before NowMs() is `ms`, or `ms` from now. A time in the past: soon.
  // Returns the number to cancel it by, which is never used again.
  TimerId At(std::uint64_t ms, Task task);
  TimerId After(std::uint64_t ms, Task task);
  // The task is not run any more. A timer that has run, was cancelled or never was: nothing
  // happens.
  void Cancel(TimerId timer);

  // Milliseconds of a clock that never jumps, from an arbitrary start.
  static std::uint64_t NowMs();
  // Milliseconds since 1970, of the machine's clock, which may jump.
  static std::uint64_t WallMs();

  // Takes SIGINT and SIGTERM: from here on each calls `handler` with its number, on the loop. An
  // empty handler gives them back. One loop of a process at a time.
  void OnSignals(std::function<void(int)> handler);

  bool IsLoopThread() const;  // whether Run is on this thread

  struct Impl;  // event_loop_asio.h, for the sockets
  Impl& Internal() { return *m_impl; }

 private:
  std::unique_ptr<Impl> m_impl;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_EVENT_LOOP_H_
