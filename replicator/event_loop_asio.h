// SPDX-License-Identifier: Apache-2.0
// What is inside an EventLoop. Included by the sources that watch sockets, and by no header.
#ifndef PENSTOCK_REPLICATOR_EVENT_LOOP_ASIO_H_
#define PENSTOCK_REPLICATOR_EVENT_LOOP_ASIO_H_

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <thread>
#include <unordered_map>

#include "replicator/event_loop.h"

namespace penstock {

struct EventLoop::Impl {
  boost::asio::io_context io{1};
  std::atomic<std::thread::id> thread;
  // Their destructors need io: they go before it.
  std::unordered_map<TimerId, boost::asio::steady_timer> timers;
  TimerId lastTimer = 0;
  boost::asio::signal_set signals{io};
  std::function<void(int)> onSignal;

  void WaitForSignal();
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_EVENT_LOOP_ASIO_H_
