// SPDX-License-Identifier: Apache-2.0
#include "tests/sim/rogue.h"

#include "engine/chain.h"

namespace penstock::sim {

const char* Rogue::Text() const {
  switch (m_way) {
    case Way::kUngranted: return "wrote to a volume that it was not granted";
    case Way::kCounts: return "ended a dataset with wrong counts";
    case Way::kChain: return "ended a dataset with another chain value";
    case Way::kOutside: return "wrote beyond the end of a volume";
    case Way::kBody: return "sent a block with a wrong hash";
  }
  return "";
}

void Rogue::Attack() {
  if (!m_target.Listens()) return;
  m_way = static_cast<Way>(m_world.rng.Below(5));
  if (m_way == Way::kUngranted && m_volumes.size() < 2) m_way = Way::kCounts;
  m_world.Log(std::string("rogue: ") + Text());
  EndEvents events;
  events.frame = [self = shared_from_this()](ConnId conn, const Frame& frame) {
    if (frame.type == FrameType::kWelcome) self->Greeted(conn, frame);
  };
  events.closed = events.damaged = [](ConnId, const std::string&) {};
  const ConnId conn = m_target.Accept(events, "rogue");
  m_target.rogues[conn] = Text();
  m_hello.group = "g";
  m_world.rng.Fill(m_hello.nonce);
  m_hello.volumes.push_back({"v0", m_volumes[0].size});
  m_link.Send(conn, Side::kSource, Encode(m_hello));
}

void Rogue::Greeted(ConnId conn, const Frame& frame) {
  Welcome welcome;
  if (!Decode(frame.Payload(), welcome).empty()) return;
  m_link.SetSeeds(conn, Side::kSource, FrameSeed(m_hello.nonce, welcome.nonce, false),
                  FrameSeed(m_hello.nonce, welcome.nonce, true));
  DatasetStart start;
  start.n = welcome.durable + 1;
  start.group = GroupId("g");
  start.volumes.push_back(VolumeId("g", m_way == Way::kUngranted ? "v1" : "v0"));
  const std::vector<std::uint8_t> data(3000, 0x66);
  const std::uint64_t offset = m_way == Way::kOutside ? m_volumes[0].size - 2999 : 0;
  const Piece piece{offset, data};
  const BlockPtr block = PackBlock(0, {&piece, 1}, CompressSpec{});
  if (m_way == Way::kBody) block->bodyHash ^= 1U;
  DatasetDigest digest;
  const Frame startFrame = Encode(start);
  digest.AddStart(startFrame.Payload());
  digest.AddBlock(*block);
  DatasetEnd end;
  end.n = start.n;
  end.blocks = m_way == Way::kCounts ? 2 : 1;
  end.extents = 1;
  end.rawBytes = data.size();
  end.chain = digest.Chain(welcome.chain);
  if (m_way == Way::kChain) end.chain[7] ^= 1U;
  m_link.Send(conn, Side::kSource, startFrame);
  m_link.Send(conn, Side::kSource, Frame::OfBlock(block));
  m_link.Send(conn, Side::kSource, Encode(end));
}

}  // namespace penstock::sim
