// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_CAPTURE_HANG_UP_H_
#define PENSTOCK_CAPTURE_HANG_UP_H_

#include <sys/socket.h>

#include <string>
#include <thread>
#include <vector>

namespace penstock {

// The address of a socket's own end.
struct SocketName {
  sockaddr_storage address{};
  socklen_t length = 0;
};

// Whether a connection that ends here at `here` was accepted by who listens at `listens`: the same
// path, or the same port.
bool IsAcceptedAt(const SocketName& here, const SocketName& listens);

// A server that is told to stop waits for its clients to leave, and one that is idle may stay for
// ever. This hangs up on them: after SIGTERM, SIGINT or SIGQUIT nothing more is read of the
// connections that this process accepted, so that the server sees their ends. What it has begun to
// answer is still sent.
//
// The signals' own handlers are called as before. One at a time in a process.
//
// Threads: Start and Stop one at a time; it has a thread of its own.
class HangUp {
 public:
  HangUp() = default;
  ~HangUp() { Stop(); }
  HangUp(const HangUp&) = delete;
  HangUp& operator=(const HangUp&) = delete;

  // From here on, for the sockets that the process listens on by now: what it listens on later is
  // left alone. After a fork, not before. Returns an empty text, or what the system refused.
  std::string Start();
  void Stop();

 private:
  void Run() const;
  void ShutDown() const;

  std::vector<SocketName> m_listeners;
  std::thread m_thread;
};

}  // namespace penstock

#endif  // PENSTOCK_CAPTURE_HANG_UP_H_
