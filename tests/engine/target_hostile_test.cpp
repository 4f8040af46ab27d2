// SPDX-License-Identifier: Apache-2.0
// Goal: whatever peers send, in whatever order, and however the disk answers, the target does not
// fall, acknowledges nothing that did not come whole, keeps within its limits, and serves the next
// honest source.
// Method: several peers send valid and invalid frames by chance, the disk answers by chance. A
// model of what came whole is kept beside it: a chain value that no whole dataset has is a lie.
#include <gmock/gmock.h>

#include <optional>

#include "tests/engine/target_rig.h"

namespace penstock {
namespace {

// What of a connection would be a whole dataset.
struct Sent {
  std::optional<DatasetStart> start;
  DatasetDigest digest;
  std::uint32_t blocks = 0;
  std::uint64_t extents = 0;
  std::uint64_t rawBytes = 0;
  bool sound = true;  // every block can be written
};

class TargetHostile : public TargetRig {
 protected:
  std::uint64_t Below(std::uint64_t bound) { return m_random() % bound; }
  bool OneIn(std::uint64_t n) { return Below(n) == 0; }

  void Begin() {
    m_states.clear();
    m_files.clear();
    m_volumes.clear();
    m_whole = {{0, {Digest{}}}};
    m_sent.clear();
    m_frames.clear();
    m_reports.clear();
    m_config.queueBytes = 8 * kKiB;
    m_config.queueDatasets = 4;
    m_config.queueQueries = 2;
    m_config.journalQuota = 3000;
    m_config.maxBlocks = 6;
    m_config.maxConnections = 4;
    m_denied = {"s g/c replicate", "s g/c verify"};
    m_conn = 0;
    Boot();
  }
  TargetGroup* Group() {
    return m_engine->m_groups.empty() ? nullptr : m_engine->m_groups[0].get();
  }

  // --- Frames. ---

  Frame RandomHello() {
    static constexpr const char* kNames[] = {"a", "b", "c", "a", "b", "a"};
    struct Hello hello = HelloOf({kNames[Below(6)]});
    if (OneIn(2)) hello.volumes.push_back({kNames[Below(6)], kVolumeBytes});
    if (OneIn(9) && m_volumes.contains(hello.volumes[0].name)) hello.volumes[0].size = 5;
    if (!OneIn(2)) hello.epoch = (Group() != nullptr ? Group()->m_epoch : 0) + Below(2);
    if (OneIn(4)) hello.purpose = static_cast<Purpose>(1 + Below(2));
    return Encode(hello);
  }
  Frame RandomStart() {
    const TargetGroup* known = Group();
    std::uint64_t next = 1;
    if (known != nullptr) {
      next = (known->m_arrivals.empty() ? known->m_state.durable : known->m_arrivals.back()->n) + 1;
    }
    DatasetStart start = StartOf(OneIn(40) ? Below(9) : next, {});
    const TargetPeer* peer = known == nullptr ? nullptr : Group()->FindPeer(m_conn);
    if (peer != nullptr) {
      for (const HelloVolume& volume : peer->hello.volumes) {
        if (start.volumes.empty() || !OneIn(4)) start.volumes.push_back(VolumeId("g", volume.name));
      }
    }
    if (OneIn(40)) start.volumes.push_back(VolumeId("g", "c"));
    if (OneIn(3)) {
      start.datasetType = 2;
      if (start.volumes.size() > 1 && !OneIn(30)) start.volumes.resize(1);
      if (OneIn(2)) start.flags = kStartPassBegins;
    } else if (OneIn(3)) {
      start.flags = kStartSyncComplete;
    }
    return Encode(start);
  }
  Frame RandomBlock() {
    const BlockPtr block = BlockOf(0, 4096 * Below(16), 1 + Below(4096));
    if (OneIn(20)) block->volumeIndex = static_cast<std::uint8_t>(Below(3));
    if (OneIn(80)) block->rawLength = static_cast<std::uint32_t>(m_random());
    if (OneIn(80)) block->bodyHash ^= 1U;
    if (OneIn(80)) block->extentCount = static_cast<std::uint16_t>(m_random());
    if (OneIn(80)) block->codec = static_cast<std::uint8_t>(Below(9));
    return Frame::OfBlock(block);
  }
  // Right for what this connection sent, unless it is not.
  Frame RandomEnd() {
    const Sent& sent = m_sent[m_conn];
    DatasetEnd end;
    end.n = sent.start ? sent.start->n : Below(5);
    end.blocks = sent.blocks + (OneIn(40) ? 1 : 0);
    end.extents = sent.extents + (OneIn(40) ? 1 : 0);
    end.rawBytes = sent.rawBytes;
    if (sent.start && Group() != nullptr) {
      const auto& arrivals = Group()->m_arrivals;
      DatasetDigest digest = CopyOf(m_conn);
      end.chain = digest.Chain(arrivals.size() > 1 ? arrivals[arrivals.size() - 2]->chain
                                                   : Group()->m_state.chain);
    }
    if (OneIn(40)) end.chain[0] ^= 1U;
    return Encode(end);
  }
  Frame RandomBytes() {
    const auto table = FrameTable();
    const FrameLimits& limits = table[Below(table.size())];
    if (limits.type == FrameType::kBlock) return RandomBlock();
    const std::uint64_t most = std::min<std::uint64_t>(limits.maxPayload, limits.minPayload + 200);
    ByteList payload(limits.minPayload + Below(most - limits.minPayload + 1));
    for (std::uint8_t& byte : payload) {
      byte = static_cast<std::uint8_t>(OneIn(2) ? 0 : m_random());
    }
    return Frame::Of(limits.type, payload);
  }
  // Mostly what is due on this connection, so that there is something to spoil.
  Frame RandomFrame() {
    if (OneIn(25)) return RandomBytes();
    if (OneIn(50)) return RandomHello();
    if (OneIn(15)) return Encode(QueryOf(4096 * Below(16)));
    if (OneIn(60)) return Encode(QueryOf(4096 * Below(20)));
    const TargetGroup* group = Group();
    const bool begun =
        group != nullptr && !group->m_arrivals.empty() && !group->m_arrivals.back()->ended;
    if (OneIn(40)) return OneIn(2) ? RandomStart() : RandomEnd();
    if (!begun) return RandomStart();
    return OneIn(3) ? RandomEnd() : RandomBlock();
  }

  // --- The model. ---

  // A digest can be ended once only: made again from the frames.
  DatasetDigest CopyOf(ConnId of) {
    DatasetDigest digest;
    for (const Frame& frame : m_frames[of]) {
      if (frame.type == FrameType::kBlock) {
        digest.AddBlock(*frame.Block());
      } else {
        digest.AddStart(frame.Payload());
      }
    }
    return digest;
  }
  void Note(const Frame& frame) {
    Sent& sent = m_sent[m_conn];
    if (frame.type == FrameType::kDatasetStart) {
      DatasetStart start;
      if (!Decode(frame.Payload(), start).empty()) return;
      sent = Sent{};
      sent.start = start;
      m_frames[m_conn] = {frame};
    } else if (frame.type == FrameType::kBlock) {
      const BlockPtr block = frame.Block();
      std::string why;
      sent.sound =
          sent.sound && CheckArrived(*block, frame.size, kVolumeBytes, why) == IoStatus::kOk;
      ++sent.blocks;
      sent.extents += block->extentCount;
      sent.rawBytes += block->rawLength;
      m_frames[m_conn].push_back(frame);
    } else if (frame.type == FrameType::kDatasetEnd) {
      NoteEnd(frame);
    }
  }
  void NoteEnd(const Frame& frame) {
    DatasetEnd end;
    const Sent& sent = m_sent[m_conn];
    if (!Decode(frame.Payload(), end).empty() || !sent.start || !sent.sound) return;
    if (end.n != sent.start->n || end.blocks != sent.blocks || end.extents != sent.extents ||
        end.rawBytes != sent.rawBytes) {
      return;
    }
    for (const Digest& before : m_whole[end.n - 1]) {
      DatasetDigest digest = CopyOf(m_conn);
      if (digest.Chain(before) == end.chain) {
        m_whole[end.n].insert(end.chain);
        return;
      }
    }
  }

  // --- The disk. ---

  static IoStatus Truth(const TargetCommand& command) {
    std::string why;
    if (const auto* c = std::get_if<JournalAppend>(&command)) {
      return CheckArrived(*c->block, c->size, c->volumeSize, why);
    }
    if (const auto* c = std::get_if<WriteBlock>(&command)) {
      return CheckArrived(*c->block, c->size, c->volumeSize, why);
    }
    return IoStatus::kOk;
  }
  void CompleteSome() {
    if (m_pending.empty()) return;
    const auto place =
        m_pending.begin() + static_cast<std::ptrdiff_t>(OneIn(3) ? Below(m_pending.size()) : 0);
    const TargetCommand command = *place;
    // The commands of one file are carried out in order.
    for (auto before = m_pending.begin(); before != place; ++before) {
      if (FileOf(*before) == FileOf(command)) return;
    }
    m_pending.erase(place);
    IoStatus status = Truth(command);
    if (status == IoStatus::kOk && OneIn(30) && MayLackSpace(command)) status = IoStatus::kNoSpace;
    if (OneIn(60) && std::holds_alternative<ApplyFile>(command)) status = IoStatus::kDamaged;
    Answer(command, status, status == IoStatus::kOk ? "" : "trouble");
  }
  static bool MayLackSpace(const TargetCommand& command) {
    return std::holds_alternative<JournalAppend>(command) ||
           std::holds_alternative<JournalClose>(command) ||
           std::holds_alternative<WriteBlock>(command) ||
           std::holds_alternative<ApplyFile>(command);
  }
  static std::string FileOf(const TargetCommand& command) {
    return std::visit(
        [](const auto& c) -> std::string {
          if constexpr (requires { c.n + c.volume.size(); }) {
            return c.volume + Number(c.n);
          } else {
            return Number(TicketOf(c));
          }
        },
        command);
  }

  // --- What must hold after every step. ---

  void Check() {
    Gather();
    m_happened.Take();
    for (const auto& [type, report] : std::exchange(m_reports, {})) {
      if (type == FrameType::kAck) {
        ASSERT_TRUE(m_whole[report.n].contains(report.chain)) << "ACK " << report.n;
      }
    }
    ASSERT_FALSE(m_engine->Halted());
    ASSERT_LE(m_engine->m_conns.size(), m_config.maxConnections);
    const TargetGroup* group = Group();
    if (group == nullptr) return;
    ASSERT_LE(group->m_arrivals.size(), m_config.queueDatasets + 1);
    ASSERT_EQ(group->m_then.size() + group->m_queries.size() + group->m_opens.size(),
              m_pending.size());
    std::uint64_t bytes = 0;
    for (const TargetCommand& command : m_pending) {
      bytes += BytesOf(command);
      const auto* commit = std::get_if<CommitState>(&command);
      if (commit == nullptr) continue;
      for (const JournalRecord& record : commit->change.addJournal) {
        ASSERT_FALSE(IsUnderWay(record.n)) << "dataset " << record.n;
      }
    }
    for (const auto& arrival : group->m_arrivals) {
      for (const auto& [block, size] : arrival->waiting) bytes += size;
    }
    ASSERT_LE(bytes, m_config.queueBytes + 5000);
    ASSERT_LE(group->m_state.flushed, group->m_applied);
    ASSERT_LE(group->m_applied, group->m_state.durable);
  }
  // A file that is still being written or named is in no commit.
  bool IsUnderWay(std::uint64_t n) const {
    return std::ranges::any_of(m_pending, [n](const TargetCommand& command) {
      if (const auto* c = std::get_if<JournalAppend>(&command)) return c->n == n;
      if (const auto* c = std::get_if<JournalClose>(&command)) return c->n == n;
      if (const auto* c = std::get_if<JournalSyncDirs>(&command)) return c->files[0].first == n;
      return false;
    });
  }
  static std::uint64_t BytesOf(const TargetCommand& command) {
    if (const auto* c = std::get_if<JournalAppend>(&command)) return c->size;
    if (const auto* c = std::get_if<WriteBlock>(&command)) return c->size;
    return 0;
  }

  void Step() {
    m_conn = 1 + Below(m_last + 1);
    const bool alone = Group() == nullptr || Group()->m_source == 0;
    switch (Below(30)) {
      case 0:
        if (!alone && !OneIn(3)) break;
        m_conn = ++m_last;
        m_engine->Connected(m_conn, m_identity, m_now);
        m_engine->Received(m_conn, RandomHello(), m_now);
        break;
      case 1:
        if (OneIn(8)) m_engine->ConnClosed(m_conn, m_now);
        break;
      case 2:
        if (OneIn(8)) m_engine->Damaged(m_conn, "by chance", m_now);
        break;
      case 3:
        m_now.steady += Below(3000);
        m_engine->Tick(m_now);
        break;
      case 4:
      case 5:
      case 6:
      case 7: CompleteSome(); break;
      default: {
        if (!alone && !OneIn(20)) m_conn = Group()->m_source;
        if (Group() != nullptr && Group()->IsPaused(m_conn)) break;
        const TargetPeer* peer = Group() == nullptr ? nullptr : Group()->FindPeer(m_conn);
        if (peer != nullptr && !peer->welcomed && !OneIn(20)) break;
        const Frame frame = RandomFrame();
        Note(frame);
        m_engine->Received(m_conn, frame, m_now);
      }
    }
    Check();
  }

  std::mt19937_64 m_random;
  ConnId m_last = 0;
  std::map<ConnId, Sent> m_sent;
  std::map<ConnId, std::vector<Frame>> m_frames;
  std::map<std::uint64_t, std::set<Digest>> m_whole;  // by n: chain values of what came whole
};

TEST_F(TargetHostile, RandomFramesAreNeverMoreThanRefused) {
  m_random = Chance();
  std::uint64_t durable = 0;
  for (int round = 0; round < 60; ++round) {
    m_last = 0;
    Begin();
    for (int step = 0; step < 400; ++step) {
      Step();
      if (HasFatalFailure()) return;
    }
    durable += m_states.empty() ? 0 : m_states[0].durable;

    // The next honest source is served.
    Run();
    for (ConnId number = 1; number <= m_last; ++number) m_engine->ConnClosed(number, m_now);
    Wait(10'000);
    Run();
    m_conn = m_last;
    ASSERT_THAT(Joined({Hello(), Run()}), testing::HasSubstr("WELCOME"));
    const std::uint64_t next = m_states.at(0).durable + 1;
    m_chains[next - 1] = m_states.at(0).chain;
    Dataset(next);
    ASSERT_TRUE(Contains(Run(), "FLUSHED " + Number(next)));
    ASSERT_TRUE(m_files.empty());
  }
  EXPECT_GT(durable, 60U) << "chance made too few datasets that count";
}

}  // namespace
}  // namespace penstock
