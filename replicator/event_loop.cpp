// SPDX-License-Identifier: Apache-2.0
#include "replicator/event_loop.h"

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/impl/src.hpp>
#include <boost/asio/post.hpp>
#include <chrono>
#include <csignal>
#include <utility>

#include "replicator/event_loop_asio.h"

namespace penstock {

namespace {

template <class Clock>
std::uint64_t NowOf() {
  const auto now = Clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

// A time point that no sum can overflow: a day beyond which nobody waits.
std::chrono::steady_clock::time_point TimePoint(std::uint64_t ms) {
  constexpr std::uint64_t kLongest = std::uint64_t{1000} * 60 * 60 * 24 * 365 * 200;
  return std::chrono::steady_clock::time_point(std::chrono::milliseconds(std::min(ms, kLongest)));
}

}  // namespace

EventLoop::EventLoop() : m_impl(std::make_unique<Impl>()) {}
EventLoop::~EventLoop() = default;

void EventLoop::Run() {
  struct OnThread {
    explicit OnThread(std::atomic<std::thread::id>& place) : thread(place) {
      thread = std::this_thread::get_id();
    }
    ~OnThread() { thread = std::thread::id(); }
    std::atomic<std::thread::id>& thread;
  };
  const auto guard = boost::asio::make_work_guard(m_impl->io);
  const OnThread onThread(m_impl->thread);
  m_impl->io.restart();
  m_impl->io.run();
}

void EventLoop::Stop() { m_impl->io.stop(); }

void EventLoop::Post(Task task) { boost::asio::post(m_impl->io, std::move(task)); }

EventLoop::TimerId EventLoop::At(std::uint64_t ms, Task task) {
  const TimerId id = ++m_impl->lastTimer;
  auto& timer = m_impl->timers.emplace(id, m_impl->io).first->second;
  timer.expires_at(TimePoint(ms));
  timer.async_wait(
      [impl = m_impl.get(), id, work = std::move(task)](const boost::system::error_code& error) {
        // Cancelled after it had expired: its completion may have been on the way.
        if (error || impl->timers.erase(id) == 0) return;
        work();
      });
  return id;
}

EventLoop::TimerId EventLoop::After(std::uint64_t ms, Task task) {
  const auto now = NowMs();
  return At(now + std::min(ms, ~now), std::move(task));
}

void EventLoop::Cancel(TimerId timer) { m_impl->timers.erase(timer); }

std::uint64_t EventLoop::NowMs() { return NowOf<std::chrono::steady_clock>(); }
std::uint64_t EventLoop::WallMs() { return NowOf<std::chrono::system_clock>(); }

void EventLoop::OnSignals(std::function<void(int)> handler) {
  boost::system::error_code ignored;
  m_impl->signals.cancel(ignored);
  m_impl->signals.clear(ignored);
  m_impl->onSignal = std::move(handler);
  if (!m_impl->onSignal) return;
  m_impl->signals.add(SIGINT);
  m_impl->signals.add(SIGTERM);
  m_impl->WaitForSignal();
}

void EventLoop::Impl::WaitForSignal() {
  signals.async_wait([this](const boost::system::error_code& error, int number) {
    if (error || !onSignal) return;
    WaitForSignal();
    const auto handler = onSignal;  // which may be replaced by what it does
    handler(number);
  });
}

bool EventLoop::IsLoopThread() const { return m_impl->thread.load() == std::this_thread::get_id(); }

}  // namespace penstock
