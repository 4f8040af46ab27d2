// SPDX-License-Identifier: Apache-2.0
// What the frames of a peer may do at the target.
#include <algorithm>
#include <cstring>
#include <utility>

#include "engine/planted.h"
#include "engine/target_group.h"

namespace penstock {

namespace {

std::shared_ptr<OM_DP::DatasetStartv2> FileRecord(const Frame& frame, const DatasetStart& start) {
  auto record = OM_DP::MakeDatasetStartv2(static_cast<std::uint16_t>(start.volumes.size()));
  std::memcpy(record.get(), frame.payload.get(), frame.size);
  return record;
}

}  // namespace

// --- Frames. ---

void TargetGroup::Received(ConnId conn, const Frame& frame, const Moment& now) {
  TargetPeer* peer = FindPeer(conn);
  if (peer == nullptr || m_halted) return;
  if (!peer->welcomed) return Refuse(conn, ErrorCode::kProtocol, "a frame before WELCOME");
  switch (frame.type) {
    case FrameType::kDatasetStart: TakeStart(*peer, frame); break;
    case FrameType::kBlock: TakeBlock(*peer, frame); break;
    case FrameType::kDatasetEnd: TakeEnd(*peer, frame); break;
    case FrameType::kQuery: TakeQuery(*peer, frame); break;
    case FrameType::kPing: {
      Ping ping;
      if (std::string why = Decode(frame.Payload(), ping); !why.empty()) {
        Refuse(conn, ErrorCode::kProtocol, why);
        break;
      }
      m_port.commands.emplace_back(SendFrame{conn, Encode(FrameType::kPong, ping)});
      break;
    }
    case FrameType::kPong: break;
    case FrameType::kProgress: TakeProgress(*peer, frame); break;
    case FrameType::kBye: Drop(conn, "the source says goodbye"); break;
    case FrameType::kError: Drop(conn, "the source reports an error"); break;
    case FrameType::kHello:
    case FrameType::kWelcome:
    case FrameType::kAck:
    case FrameType::kDone:
    case FrameType::kFlushed:
    case FrameType::kAnswer:
    case FrameType::kStatusQuery:
    case FrameType::kStatusReply:
      Refuse(conn, ErrorCode::kProtocol, std::string(Name(frame.type)) + " is not for a target");
      break;
  }
  Advance(now);
}

void TargetGroup::TakeProgress(const TargetPeer& peer, const Frame& frame) {
  Progress progress;
  if (std::string why = Decode(frame.Payload(), progress); !why.empty()) {
    return Refuse(peer.conn, ErrorCode::kProtocol, why);
  }
  if (peer.conn != m_source || progress.passed.size() != peer.hello.volumes.size()) {
    return Refuse(peer.conn, ErrorCode::kProtocol, "PROGRESS that is not a source's of this group");
  }
  m_passed.clear();
  for (std::size_t i = 0; i < progress.passed.size(); ++i) {
    m_passed[peer.hello.volumes[i].name] = progress.passed[i];
  }
  m_progress = std::move(progress);
}

bool TargetGroup::IsGranted(const TargetPeer& peer, const std::string& volume) const {
  return std::any_of(peer.hello.volumes.begin(), peer.hello.volumes.end(),
                     [&](const HelloVolume& v) { return v.name == volume; });
}

// Returns what is wrong.
std::string TargetGroup::CheckStart(const TargetPeer& peer, const DatasetStart& start) const {
  if (peer.conn != m_source) return "this connection may not replicate";
  const Arrival* last = m_arrivals.empty() ? nullptr : m_arrivals.back().get();
  if (last != nullptr && !last->ended) return "START before the END of the dataset before";
  const std::uint64_t expected = (last == nullptr ? m_state.durable : last->n) + 1;
  if (start.n != expected) {
    return "dataset " + std::to_string(start.n) + " where " + std::to_string(expected) + " is due";
  }
  if (start.group != GroupId(m_state.group)) return "a dataset of another group";
  if (start.datasetType == 2 && start.volumes.size() != 1) return "a resync of not one volume";
  return {};
}

// Puts the names of the entries into `arrival`. Returns whether all of them were granted.
bool TargetGroup::TakeVolumes(const TargetPeer& peer, const DatasetStart& start,
                              Arrival& arrival) const {
  for (const UuidT& id : start.volumes) {
    const auto volume = std::find_if(m_volumes.begin(), m_volumes.end(), [&](const auto& entry) {
      return VolumeId(m_state.group, entry.first) == id;
    });
    if (volume == m_volumes.end() || !volume->second.open) return false;
    if (!IsGranted(peer, volume->first) && !Planted(Fault::kGrantUnchecked)) return false;
    arrival.volumes.push_back(volume->first);
  }
  return true;
}

void TargetGroup::TakeStart(TargetPeer& peer, const Frame& frame) {
  DatasetStart start;
  if (std::string why = Decode(frame.Payload(), start); !why.empty()) {
    return Refuse(peer.conn, ErrorCode::kProtocol, why);
  }
  auto arrival = std::make_unique<Arrival>();
  if (std::string why = CheckStart(peer, start); !why.empty()) {
    return Refuse(peer.conn, ErrorCode::kProtocol, why, start.n);
  }
  if (!TakeVolumes(peer, start, *arrival)) {
    return Refuse(peer.conn, ErrorCode::kRefused,
                  "dataset " + std::to_string(start.n) + " names a volume that was not granted",
                  start.n);
  }
  arrival->n = start.n;
  arrival->conn = peer.conn;
  arrival->direct = start.datasetType == 2;
  if (arrival->direct && (start.flags & kStartPassBegins) != 0) {
    for (const HelloVolume& volume : peer.hello.volumes)
      arrival->passVolumes.push_back(volume.name);
  }
  arrival->record = FileRecord(frame, start);
  arrival->digest.AddStart(frame.Payload());
  arrival->start = std::move(start);
  m_arrivals.push_back(std::move(arrival));
  Throttle(peer);
}

void TargetGroup::TakeBlock(TargetPeer& peer, const Frame& frame) {
  Arrival* arrival = m_arrivals.empty() ? nullptr : m_arrivals.back().get();
  if (arrival == nullptr || arrival->ended || arrival->conn != peer.conn) {
    return Refuse(peer.conn, ErrorCode::kProtocol, "a block outside a dataset");
  }
  const BlockPtr block = frame.Block();
  if (block->volumeIndex >= arrival->volumes.size() || block->rawLength == 0 ||
      block->rawLength > kMaxBlockBytes || block->extentCount > kMaxExtents ||
      arrival->blocks >= m_port.config.maxBlocks) {
    return Refuse(peer.conn, ErrorCode::kProtocol, "a block beyond the limits", arrival->n);
  }
  ++arrival->blocks;
  arrival->extents += block->extentCount;
  arrival->rawBytes += block->rawLength;
  arrival->receivedBytes += frame.size;
  arrival->digest.AddBlock(*block);
  peer.queued += frame.size;
  if (arrival->direct) {
    arrival->waiting.emplace_back(block, frame.size);
    WriteDirect(*arrival);
  } else {
    Append(*arrival, arrival->volumes[block->volumeIndex], block, frame.size);
  }
  Throttle(peer);
}

std::string TargetGroup::CheckEnd(const DatasetEnd& end, Arrival& arrival) {
  if (end.n != arrival.n) return "END of another dataset";
  const bool counts = end.blocks == arrival.blocks && end.extents == arrival.extents &&
                      end.rawBytes == arrival.rawBytes;
  if (!counts && !Planted(Fault::kEndCountUnchecked)) {
    return "dataset " + std::to_string(end.n) + " is not complete: its END counts " +
           std::to_string(end.blocks) + " blocks, " + std::to_string(arrival.blocks) + " came";
  }
  const Digest before =
      m_arrivals.size() > 1 ? m_arrivals[m_arrivals.size() - 2]->chain : m_state.chain;
  arrival.chain = arrival.digest.Chain(before);
  if (arrival.chain == end.chain) return {};
  if (!Planted(Fault::kChainUnchecked)) {
    return "history differs at " + std::to_string(end.n) + ": the chain value is another";
  }
  arrival.chain = end.chain;
  return {};
}

void TargetGroup::TakeEnd(TargetPeer& peer, const Frame& frame) {
  DatasetEnd end;
  if (std::string why = Decode(frame.Payload(), end); !why.empty()) {
    return Refuse(peer.conn, ErrorCode::kProtocol, why);
  }
  Arrival* arrival = m_arrivals.empty() ? nullptr : m_arrivals.back().get();
  if (arrival == nullptr || arrival->ended || arrival->conn != peer.conn) {
    return Refuse(peer.conn, ErrorCode::kProtocol, "END outside a dataset");
  }
  if (std::string why = CheckEnd(end, *arrival); !why.empty()) {
    return Refuse(peer.conn, ErrorCode::kDamaged, why, end.n);
  }
  arrival->ended = true;
  arrival->name = std::move(end.name);
  if (Planted(Fault::kAckBeforeFsync)) Report(FrameType::kAck, arrival->n, arrival->chain);
}

void TargetGroup::TakeQuery(TargetPeer& peer, const Frame& frame) {
  Query query;
  if (std::string why = Decode(frame.Payload(), query); !why.empty()) {
    return Refuse(peer.conn, ErrorCode::kProtocol, why);
  }
  const bool mayAsk = peer.conn == m_source || peer.hello.purpose == Purpose::kVerify;
  if (!mayAsk || query.volume >= peer.hello.volumes.size()) {
    return Refuse(peer.conn, ErrorCode::kRefused, "a query for a volume that was not granted");
  }
  const std::string& name = peer.hello.volumes[query.volume].name;
  const std::uint64_t size = m_volumes.at(name).record.size;
  if (query.offset > size || query.length > size - query.offset) {
    return Refuse(peer.conn, ErrorCode::kProtocol, "a query beyond the end of volume " + name);
  }
  const Ticket ticket = m_port.newTicket(m_index);
  m_port.commands.emplace_back(CompareVolume{ticket, m_state.group, name, query,
                                             peer.hello.fingerprintSeed, peer.hello.runKey});
  query.fingerprints.clear();
  m_queries.emplace(ticket, std::make_pair(peer.conn, std::move(query)));
  ++peer.queries;
  Throttle(peer);
}

void TargetGroup::Completed(const WindowCompared& compared, const Moment& now) {
  const auto place = m_queries.find(compared.ticket);
  if (place == m_queries.end() || m_halted) return;
  const auto [conn, query] = place->second;
  m_queries.erase(place);
  TargetPeer* peer = FindPeer(conn);
  if (peer == nullptr) return;
  --peer->queries;
  if (compared.status != IoStatus::kOk) {
    m_port.commands.emplace_back(Note{NoteLevel::kError, "can't compare: " + compared.error});
    return Refuse(conn, ErrorCode::kFailed, "the target can't read its volume");
  }
  for (const Run& run : compared.runs) {
    if (run.equal) m_counters.equalBytes += std::uint64_t{run.blocks} * kCompareBytes;
  }
  m_port.commands.emplace_back(SendFrame{
      conn, Encode(Answer{query.n, query.volume, query.offset, query.length, compared.runs})});
  Throttle(*peer);
  Advance(now);
}

}  // namespace penstock
