// SPDX-License-Identifier: Apache-2.0
// Connections that cut, damage, repeat and delay what is sent.
#ifndef PENSTOCK_TESTS_SIM_LINK_H_
#define PENSTOCK_TESTS_SIM_LINK_H_

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/wire/frame.h"
#include "tests/sim/world.h"

namespace penstock::sim {

// What one end of a connection is told. `damaged` is what its reader could not take.
struct EndEvents {
  std::function<void(ConnId, const Frame&)> frame;
  std::function<void(ConnId, const std::string&)> closed;
  std::function<void(ConnId, const std::string&)> damaged;
};

enum class Side : std::uint8_t { kSource = 0, kTarget = 1 };

class Link {
 public:
  explicit Link(World& world) : m_world(world) {}

  ConnId Open(EndEvents source, EndEvents target);
  void Send(ConnId id, Side from, const Frame& frame);
  // Bytes of the sender's own making: a peer that does not keep to the protocol.
  void SendRaw(ConnId id, Side from, std::vector<std::uint8_t> bytes);
  void SetSeeds(ConnId id, Side side, std::uint64_t read, std::uint64_t write);
  // Orderly: what was sent before arrives first.
  void Close(ConnId id, Side by);
  // The process at `side` is gone, with everything on its way to it.
  void Die(ConnId id, Side side);
  bool IsOpen(ConnId conn) const { return m_conns.contains(conn); }

 private:
  struct End {
    EndEvents events;
    FrameReader reader;
    FrameWriter writer;
    bool open = true;
    bool hasSent = false;
    Millis lastArrival = 0;  // of what was sent to it
  };
  struct Conn {
    End ends[2];
    bool cut = false;
  };

  void Deliver(ConnId id, Side to, const std::vector<std::uint8_t>& bytes);
  void Schedule(ConnId id, Side to, std::vector<std::uint8_t> bytes);
  void ScheduleClosed(ConnId id, Side to, const std::string& why);
  Conn* Find(ConnId conn);

  World& m_world;
  ConnId m_last = 0;
  std::map<ConnId, Conn> m_conns;
  std::deque<std::vector<std::uint8_t>> m_old;  // chunks of earlier connections
};

}  // namespace penstock::sim

#endif  // PENSTOCK_TESTS_SIM_LINK_H_
