// SPDX-License-Identifier: Apache-2.0
#include "tests/sim/link.h"

#include <algorithm>
#include <utility>

namespace penstock::sim {

namespace {
Side Other(Side side) { return side == Side::kSource ? Side::kTarget : Side::kSource; }
std::size_t Index(Side side) { return static_cast<std::size_t>(side); }
}  // namespace

Link::Conn* Link::Find(ConnId conn) {
  const auto place = m_conns.find(conn);
  return place == m_conns.end() ? nullptr : &place->second;
}

ConnId Link::Open(EndEvents source, EndEvents target) {
  Conn& conn = m_conns[++m_last];
  conn.ends[0].events = std::move(source);
  conn.ends[1].events = std::move(target);
  return m_last;
}

void Link::SetSeeds(ConnId id, Side side, std::uint64_t read, std::uint64_t write) {
  Conn* conn = Find(id);
  if (conn == nullptr) return;
  End& end = conn->ends[Index(side)];
  end.reader.SetSeed(read);
  end.reader.AllowAll();
  end.writer.SetSeed(write);
}

void Link::Send(ConnId id, Side from, const Frame& frame) {
  Conn* conn = Find(id);
  if (conn == nullptr || !conn->ends[Index(from)].open) return;
  const auto header = conn->ends[Index(from)].writer.Header(frame);
  std::vector<std::uint8_t> bytes(header.begin(), header.end());
  bytes.insert(bytes.end(), frame.payload.get(), frame.payload.get() + frame.size);
  SendRaw(id, from, std::move(bytes));
}

void Link::SendRaw(ConnId id, Side from, std::vector<std::uint8_t> bytes) {
  Conn* conn = Find(id);
  if (conn == nullptr || conn->cut) return;
  const Faults& faults = m_world.faults;
  const Side to = Other(from);
  if (m_world.Strikes(faults.flip)) {
    bytes[m_world.rng.Below(bytes.size())] ^= static_cast<std::uint8_t>(1U << m_world.rng.Below(8));
    m_world.Log("link: a bit flips");
  }
  if (m_world.rng.Chance(0.05)) {
    m_old.push_back(bytes);
    if (m_old.size() > 32) m_old.pop_front();
  }
  if (m_world.Strikes(faults.cut)) {
    m_world.Log("link: cut");
    bytes.resize(m_world.rng.Below(bytes.size() + 1));
    Schedule(id, to, std::move(bytes));
    conn->cut = true;
    ScheduleClosed(id, to, "cut");
    ScheduleClosed(id, from, "cut");
    return;
  }
  if (m_world.Strikes(faults.repeat)) Schedule(id, to, bytes);
  // A stream begins with its own bytes.
  const bool isFirst = !std::exchange(conn->ends[Index(from)].hasSent, true);
  if (!isFirst && !m_old.empty() && m_world.Strikes(faults.late)) {
    Schedule(id, to, m_old[m_world.rng.Below(m_old.size())]);
  }
  Schedule(id, to, std::move(bytes));
}

void Link::Schedule(ConnId id, Side to, std::vector<std::uint8_t> bytes) {
  End& end = Find(id)->ends[Index(to)];
  const Millis now = m_world.Now().steady;
  end.lastArrival = std::max(end.lastArrival, now + m_world.Latency());
  m_world.After(end.lastArrival - now,
                [this, id, to, bytes = std::move(bytes)] { Deliver(id, to, bytes); });
}

void Link::Deliver(ConnId id, Side to, const std::vector<std::uint8_t>& bytes) {
  for (std::size_t from = 0; from < bytes.size();) {
    Conn* conn = Find(id);
    if (conn == nullptr || !conn->ends[Index(to)].open) return;
    End& end = conn->ends[Index(to)];
    if (end.reader.Failed()) return;
    const auto space = end.reader.Space();
    const std::size_t count = std::min(space.size(), bytes.size() - from);
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(from), count, space.begin());
    from += count;
    end.reader.Commit(count);
    while (conn != nullptr && conn->ends[Index(to)].open) {
      const auto frame = conn->ends[Index(to)].reader.Next();
      if (!frame) break;
      const auto take = conn->ends[Index(to)].events.frame;
      take(id, *frame);
      conn = Find(id);
    }
    conn = Find(id);
    if (conn != nullptr && conn->ends[Index(to)].open && conn->ends[Index(to)].reader.Failed()) {
      const std::string why = conn->ends[Index(to)].reader.Fault();
      const auto damaged = conn->ends[Index(to)].events.damaged;
      damaged(id, why);
      return;
    }
  }
}

void Link::ScheduleClosed(ConnId id, Side to, const std::string& why) {
  End& end = Find(id)->ends[Index(to)];
  const Millis now = m_world.Now().steady;
  end.lastArrival = std::max(end.lastArrival, now + m_world.Latency());
  m_world.After(end.lastArrival - now, [this, id, to, why] {
    Conn* conn = Find(id);
    if (conn == nullptr || !conn->ends[Index(to)].open) return;
    conn->ends[Index(to)].open = false;
    const auto closed = conn->ends[Index(to)].events.closed;
    if (!conn->ends[0].open && !conn->ends[1].open) m_conns.erase(id);
    closed(id, why);
  });
}

void Link::Close(ConnId id, Side by) {
  Conn* conn = Find(id);
  if (conn == nullptr || !conn->ends[Index(by)].open) return;
  conn->ends[Index(by)].open = false;
  ScheduleClosed(id, Other(by), "closed by the peer");
}

void Link::Die(ConnId id, Side side) { Close(id, side); }

}  // namespace penstock::sim
