// SPDX-License-Identifier: Apache-2.0
// A link in user space, for bench/replicate.py: forwards TCP connections to ADDR:PORT at a rate,
// with a delay, and counts what passes. Both directions are alike, and each is shared by all
// connections, as the directions of a line are. Shapes the bytes of the streams, not packets:
// neither TCP's headers nor its own answer to long ways are in the figures.
//
//   penstock_shaped_relay ADDR:PORT [RATE [DELAY]]     bits a second (0: as fast as it goes), ms
//
// Prints where it listens. On SIGTERM it prints the bytes of each direction as JSON, and ends.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/floor_io.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr std::size_t kUnshapedPiece = 256U << 10U;
constexpr std::size_t kShapedPiece = 16U << 10U;  // at 100 Mbit/s, 1.3 ms
// What is under way in one direction of a connection: with a delay of 20 ms, 400 MB/s at most.
constexpr std::size_t kUnderWay = 8U << 20U;
// How long a piece may wait for the line before its sender is held back: a switch's buffer.
constexpr auto kQueueTime = std::chrono::milliseconds(20);

struct Shape {
  double bytesPerSecond = 0;  // 0: unlimited
  Clock::duration delay{};
};

// One direction of the line.
class Line {
 public:
  explicit Line(const Shape& shape) : m_shape(shape) {}

  // When a piece that comes now has arrived at the far end.
  Clock::time_point Pass(std::size_t bytes) {
    m_bytes += bytes;
    const auto now = Clock::now();
    if (m_shape.bytesPerSecond <= 0) return now + m_shape.delay;
    const Seconds takes(static_cast<double>(bytes) / m_shape.bytesPerSecond);
    const std::lock_guard lock(m_mutex);
    m_isFree = std::max(m_isFree, now) + std::chrono::duration_cast<Clock::duration>(takes);
    return m_isFree + m_shape.delay;
  }

  // When a sender may give the next piece.
  Clock::time_point MaySend() {
    const std::lock_guard lock(m_mutex);
    return m_isFree - kQueueTime;
  }

  std::uint64_t Bytes() const { return m_bytes; }

 private:
  const Shape m_shape;
  std::mutex m_mutex;
  Clock::time_point m_isFree;  // when the last bit of what was sent leaves
  std::atomic<std::uint64_t> m_bytes = 0;
};

// One direction of one connection: one thread takes, the other delivers when it is time.
class Pump {
 public:
  Pump(int from, int to, Line& line, bool isShaped) : m_from(from), m_to(to), m_line(line) {
    m_piece = isShaped ? kShapedPiece : kUnshapedPiece;
    m_taker = std::thread([this] { Take(); });
    m_giver = std::thread([this] { Give(); });
  }
  ~Pump() {
    m_taker.join();
    m_giver.join();
  }
  Pump(const Pump&) = delete;
  Pump& operator=(const Pump&) = delete;

 private:
  struct Piece {
    std::vector<std::uint8_t> data;  // empty: the stream's end
    Clock::time_point due;
  };

  void Take() {
    for (bool isOpen = true; isOpen;) {
      std::this_thread::sleep_until(m_line.MaySend());
      Piece piece;
      piece.data.resize(m_piece);
      const ssize_t count = ::recv(m_from, piece.data.data(), piece.data.size(), 0);
      isOpen = count > 0;
      piece.data.resize(isOpen ? static_cast<std::size_t>(count) : 0);
      piece.due = m_line.Pass(piece.data.size());
      std::unique_lock lock(m_mutex);
      m_changed.wait(lock, [this] { return m_underWay < kUnderWay || m_isBroken; });
      m_underWay += piece.data.size();
      m_pieces.push_back(std::move(piece));
      lock.unlock();
      m_changed.notify_all();
    }
  }

  void Give() {
    for (;;) {
      std::unique_lock lock(m_mutex);
      m_changed.wait(lock, [this] { return !m_pieces.empty(); });
      const Piece piece = std::move(m_pieces.front());
      m_pieces.pop_front();
      lock.unlock();
      std::this_thread::sleep_until(piece.due);
      if (piece.data.empty()) break;
      if (!SendAll(piece.data)) Break();
      lock.lock();
      m_underWay -= piece.data.size();
      lock.unlock();
      m_changed.notify_all();
    }
    ::shutdown(m_to, SHUT_WR);
  }

  bool SendAll(const std::vector<std::uint8_t>& data) const {
    for (std::size_t sent = 0; sent < data.size();) {
      const ssize_t count = ::send(m_to, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) return false;
      sent += static_cast<std::size_t>(count);
    }
    return true;
  }

  // Nobody takes it any more: lets the sender see that.
  void Break() {
    ::shutdown(m_from, SHUT_RDWR);
    const std::lock_guard lock(m_mutex);
    m_isBroken = true;
  }

  int m_from;
  int m_to;
  Line& m_line;
  std::size_t m_piece = 0;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<Piece> m_pieces;
  std::size_t m_underWay = 0;
  bool m_isBroken = false;
  std::thread m_taker;
  std::thread m_giver;
};

void Carry(int near, int far, Line& there, Line& back, bool isShaped) {
  {
    const Pump out(near, far, there, isShaped);
    const Pump in(far, near, back, isShaped);
  }
  ::close(near);
  ::close(far);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 4) {
    std::fputs("usage: penstock_shaped_relay ADDR:PORT [BITS_A_SECOND [DELAY_MS]]\n", stderr);
    return 2;
  }
  Shape shape;
  if (argc > 2) shape.bytesPerSecond = std::strtod(argv[2], nullptr) / 8;
  if (argc > 3) shape.delay = std::chrono::milliseconds(std::strtol(argv[3], nullptr, 10));
  const bool isShaped = argc > 2;

  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // for the threads, too

  Line there(shape);
  Line back(shape);
  std::string address;
  const int listener = floors::Listen(address);
  std::thread([&, target = std::string(argv[1])] {
    for (;;) {
      const int near = floors::Accept(listener);
      const int far = floors::Connect(target);
      std::thread([=, &there, &back] { Carry(near, far, there, back, isShaped); }).detach();
    }
  }).detach();
  floors::SayListening(address);
  int number = 0;
  sigwait(&signals, &number);
  std::printf("{\"there\": %llu, \"back\": %llu}\n", static_cast<unsigned long long>(there.Bytes()),
              static_cast<unsigned long long>(back.Bytes()));
  std::fflush(stdout);
  std::_Exit(0);  // the threads are at work on what main holds
}
