// SPDX-License-Identifier: Apache-2.0
// A target engine, the disk around it, and sources that talk to it. Every verb returns what the
// engine asked for since the last one, as one line.
#ifndef PENSTOCK_TESTS_ENGINE_TARGET_RIG_H_
#define PENSTOCK_TESTS_ENGINE_TARGET_RIG_H_

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "engine/chain.h"
#include "engine/target_engine.h"
#include "engine/work.h"
#include "tests/engine/engine_rig.h"

namespace penstock {

inline constexpr std::uint64_t kVolumeBytes = 64 * kKiB;

class TargetRig : public testing::Test {
 protected:
  TargetRig() {
    m_config.random = [](std::span<std::uint8_t> out) { std::ranges::fill(out, std::uint8_t{7}); };
    m_config.allows = [this](const std::string& who, const std::string& of,
                             const std::string& volume, Right right) {
      static constexpr const char* kRights[] = {"replicate", "verify", "status"};
      return !m_denied.contains(who + " " + of + "/" + volume + " " +
                                kRights[static_cast<int>(right)]);
    };
  }

  // --- Life. ---

  std::string Boot() {
    m_pending.clear();
    std::vector<JournalFile> found;
    for (const auto& [n, volume] : m_files) found.push_back({"g", volume, n});
    m_engine = std::make_unique<TargetEngine>(m_config, m_states, found);
    m_engine->Start(m_now);
    return Out();
  }
  // A source in its own epoch, greeted.
  void Online(const std::vector<std::string>& names = {"a"}) {
    Boot();
    Hello(names);
    ASSERT_TRUE(Contains(Run(), "WELCOME"));
  }
  std::string Wait(Millis ms) {
    m_now.steady += ms;
    m_engine->Tick(m_now);
    return Out();
  }

  // --- A source. ---

  std::string Connect(ConnId number) {
    m_conn = number;
    m_engine->Connected(m_conn, m_identity, m_now);
    return Out();
  }
  std::string Send(const Frame& frame) {
    m_engine->Received(m_conn, frame, m_now);
    return Out();
  }
  struct Hello HelloOf(const std::vector<std::string>& names, std::uint64_t epoch = 0) const {
    struct Hello hello;
    hello.epoch = epoch;
    hello.group = m_group;
    for (const std::string& volume : names) hello.volumes.push_back({volume, kVolumeBytes});
    return hello;
  }
  // A new connection that says HELLO.
  std::string Hello(const std::vector<std::string>& names = {"a"}, std::uint64_t epoch = 0) {
    Connect(m_conn + 1);
    return Send(Encode(HelloOf(names, epoch)));
  }
  std::string Hello(const struct Hello& hello) {
    Connect(m_conn + 1);
    return Send(Encode(hello));
  }
  std::string HelloToVerify(const std::vector<std::string>& names = {"a"}) {
    struct Hello hello = HelloOf(names);
    hello.purpose = Purpose::kVerify;
    return Hello(hello);
  }
  std::string Gone() {
    m_engine->ConnClosed(m_conn, m_now);
    return Out();
  }

  DatasetStart StartOf(std::uint64_t n, const std::vector<std::string>& names) const {
    DatasetStart start;
    start.n = n;
    start.timestampMs = 1000 + n;
    start.group = GroupId(m_group);
    for (const std::string& volume : names) start.volumes.push_back(VolumeId(m_group, volume));
    return start;
  }
  std::string Start(const DatasetStart& start) {
    m_digest = DatasetDigest();
    m_end = DatasetEnd{};
    m_end.n = start.n;
    const Frame frame = Encode(start);
    m_digest.AddStart(frame.Payload());
    return Send(frame);
  }
  std::string Start(std::uint64_t n, const std::vector<std::string>& names = {"a"},
                    std::uint32_t flags = 0) {
    DatasetStart start = StartOf(n, names);
    start.flags = flags;
    return Start(start);
  }
  std::string StartResync(std::uint64_t n, const std::string& volume = "a",
                          std::uint32_t flags = kStartPassBegins) {
    DatasetStart start = StartOf(n, {volume});
    start.datasetType = 2;
    start.flags = flags;
    return Start(start);
  }
  static BlockPtr BlockOf(std::uint8_t volume = 0, std::uint64_t offset = 0,
                          std::size_t size = 4096) {
    const ByteList data = Noise(size, offset + 1);
    const Piece piece{offset, data};
    return PackBlock(volume, {&piece, 1}, {});
  }
  std::string Block(const BlockPtr& block) {
    m_digest.AddBlock(*block);
    ++m_end.blocks;
    m_end.extents += block->extentCount;
    m_end.rawBytes += block->rawLength;
    return Send(Frame::OfBlock(block));
  }
  std::string Block(std::uint8_t volume = 0, std::uint64_t offset = 0) {
    return Block(BlockOf(volume, offset));
  }
  using Tamper = std::function<void(DatasetEnd&)>;
  std::string End(const Tamper& tamper = {}) {
    m_chains[m_end.n] = m_end.chain = m_digest.Chain(m_chains[m_end.n - 1]);
    if (tamper) tamper(m_end);
    return Send(Encode(m_end));
  }
  // Whole datasets, with one block for each volume. What happened at once is returned.
  std::string Dataset(std::uint64_t n, const std::vector<std::string>& names = {"a"},
                      std::uint32_t flags = 0) {
    std::vector<std::string> all = {Start(n, names, flags)};
    for (std::size_t i = 0; i < names.size(); ++i) {
      all.push_back(Block(static_cast<std::uint8_t>(i)));
    }
    all.push_back(End());
    return Joined(all);
  }
  std::string Resync(std::uint64_t n, const std::string& volume = "a",
                     std::uint32_t flags = kStartPassBegins) {
    return Joined({StartResync(n, volume, flags), Block(), End()});
  }
  struct Query QueryOf(std::uint64_t offset = 0, std::uint32_t length = 8192) const {
    struct Query query;
    query.n = 1;
    query.offset = offset;
    query.length = length;
    query.fingerprints.resize((length + 4095) / 4096);
    return query;
  }

  // --- The disk. ---

  template <class Command>
  std::size_t Pending() const {
    return static_cast<std::size_t>(std::ranges::count_if(
        m_pending, [](const auto& c) { return std::holds_alternative<Command>(c); }));
  }
  template <class Command>
  const Command& First() const {
    return std::get<Command>(*std::ranges::find_if(
        m_pending, [](const auto& c) { return std::holds_alternative<Command>(c); }));
  }
  // Carries out the oldest command of this kind.
  template <class Command>
  std::string Complete(IoStatus status = IoStatus::kOk, const std::string& error = "trouble") {
    const auto place = std::ranges::find_if(
        m_pending, [](const auto& c) { return std::holds_alternative<Command>(c); });
    if (place == m_pending.end()) return "nothing to complete";
    const TargetCommand command = std::move(*place);
    m_pending.erase(place);
    Answer(command, status, status == IoStatus::kOk ? "" : error);
    return Out();
  }
  // Carries out everything, oldest first, and what follows from it.
  std::string Run() { return RunBut<Note>(); }
  // The same, with commands of one kind left pending.
  template <class Held>
  std::string RunBut() {
    const auto isFree = [](const auto& c) { return !std::holds_alternative<Held>(c); };
    for (auto place = std::ranges::find_if(m_pending, isFree); place != m_pending.end();
         place = std::ranges::find_if(m_pending, isFree)) {
      const TargetCommand command = std::move(*place);
      m_pending.erase(place);
      Answer(command, IoStatus::kOk, "");
      Gather();
    }
    return m_happened.Take();
  }
  std::string Out() {
    Gather();
    return m_happened.Take();
  }

  GroupStatus Status(std::size_t index = 0) const { return m_engine->Status().at(index); }
  std::string StateOf(const std::string& volume) const {
    for (const VolumeRecord& record : Status().state.volumes) {
      if (record.name != volume) continue;
      const char* state = record.state == VolumeState::kHeld ? "held" : Text(record.state);
      return state + std::string("@") + Number(record.goodAt);
    }
    return "none";
  }
  std::uint64_t Refused() const { return Status().state.counters.refused; }
  static std::string Joined(const std::vector<std::string>& texts) {
    Happened all;
    for (const std::string& text : texts) {
      if (!text.empty()) all.Add(text);
    }
    return all.Take();
  }

  TargetConfig m_config;
  std::set<std::string> m_denied;  // "identity group/volume right"
  std::string m_identity = "s";
  std::string m_group = "g";
  ConnId m_conn = 0;
  Moment m_now{1000, 1'700'000'000'000};
  std::unique_ptr<TargetEngine> m_engine;
  std::deque<TargetCommand> m_pending;
  std::vector<std::string> m_notes;
  std::map<std::uint64_t, Digest> m_chains;
  std::vector<SetSeeds> m_seeds;
  std::vector<std::pair<FrameType, Report>> m_reports;

  // What is on disk: volumes with their sizes, files of the journal, committed states.
  std::map<std::string, std::uint64_t> m_volumes;
  std::set<std::pair<std::uint64_t, std::string>> m_files;
  std::vector<GroupState> m_states;
  std::uint64_t m_fileBytes = 1000;  // of each file of the journal

 private:
  static std::string FileName(const std::string& volume, std::uint64_t n) {
    return volume + "/" + Number(n);
  }
  GroupState& StateOfGroup(const std::string& name) {
    for (GroupState& state : m_states) {
      if (state.group == name) return state;
    }
    m_states.emplace_back().group = name;
    return m_states.back();
  }

  // Only what the change changes: "commit durable 5 a syncing".
  std::string ShowCommit(const CommitState& commit) {
    const GroupState& state = StateOfGroup(commit.group);
    const StateChange& change = commit.change;
    std::string text = "commit";
    if (change.epoch != state.epoch) text += " epoch " + Number(change.epoch);
    if (change.durable != state.durable) text += " durable " + Number(change.durable);
    if (change.flushed != state.flushed) text += " flushed " + Number(change.flushed);
    for (const VolumeRecord& volume : change.volumes) {
      const char* held = volume.state == VolumeState::kHeld ? "held" : Text(volume.state);
      text += " " + volume.name + " " + held;
    }
    return text;
  }
  void Commit(const CommitState& commit) {
    GroupState& state = StateOfGroup(commit.group);
    const StateChange& change = commit.change;
    state.epoch = change.epoch;
    state.durable = change.durable;
    state.flushed = change.flushed;
    state.chain = change.chain;
    state.flushedAtMs = change.flushedAtMs;
    state.counters = change.counters;
    for (const VolumeRecord& record : change.volumes) {
      std::erase_if(state.volumes, [&](const auto& v) { return v.name == record.name; });
      state.volumes.push_back(record);
    }
    Apply(change, state.points);
    state.journal.insert(state.journal.end(), change.addJournal.begin(), change.addJournal.end());
    std::erase_if(state.journal, [&](const auto& r) { return r.n <= change.dropJournalUpTo; });
  }

  std::string ShowCommand(const TargetCommand& command) {
    if (const auto* c = std::get_if<OpenVolume>(&command)) return "open " + c->volume;
    if (const auto* c = std::get_if<JournalOpen>(&command))
      return "create " + FileName(c->volume, c->n);
    if (const auto* c = std::get_if<JournalAppend>(&command))
      return "append " + FileName(c->volume, c->n);
    if (const auto* c = std::get_if<JournalClose>(&command))
      return "close " + FileName(c->volume, c->n);
    if (const auto* c = std::get_if<JournalRemove>(&command))
      return (c->quarantine ? "put aside " : "remove ") + FileName(c->volume, c->n);
    if (const auto* c = std::get_if<CommitState>(&command)) return ShowCommit(*c);
    if (const auto* c = std::get_if<ApplyFile>(&command))
      return "apply " + FileName(c->volume, c->n);
    if (const auto* c = std::get_if<WriteBlock>(&command)) return "write " + c->volume;
    if (const auto* c = std::get_if<CompareVolume>(&command))
      return "compare " + c->volume + " " + Range(c->query.offset, c->query.length);
    if (const auto* c = std::get_if<SyncVolumes>(&command)) {
      std::string text = "sync";
      for (const std::string& volume : c->volumes) text += " " + volume;
      return text;
    }
    std::string text = "name";
    for (const auto& [n, volume] : std::get<JournalSyncDirs>(command).files) {
      text += " " + FileName(volume, n);
    }
    return text;
  }

  // Frames to connections other than the one in use begin with their number.
  std::string To(ConnId to) const { return to == m_conn ? "" : Number(to) + ": "; }

  void Gather() {
    for (TargetCommand& command : m_engine->TakeCommands()) {
      if (auto* send = std::get_if<SendFrame>(&command)) {
        m_happened.Add(To(send->conn) + Show(send->frame));
        const FrameType type = send->frame.type;
        if (type == FrameType::kAck || type == FrameType::kDone || type == FrameType::kFlushed) {
          m_reports.emplace_back(type, Decoded<Report>(send->frame));
        }
      } else if (auto* close = std::get_if<CloseConn>(&command)) {
        m_happened.Add(To(close->conn) + "dropped");
      } else if (auto* reading = std::get_if<SetReading>(&command)) {
        m_happened.Add(To(reading->conn) + (reading->reading ? "goes on" : "pauses"));
      } else if (std::holds_alternative<Halt>(command)) {
        m_happened.Add("HALT");
      } else if (auto* note = std::get_if<Note>(&command)) {
        m_notes.push_back(note->text);
      } else if (auto* both = std::get_if<SetSeeds>(&command)) {
        m_seeds.push_back(*both);
      } else {
        m_happened.Add(ShowCommand(command));
        m_pending.push_back(std::move(command));
      }
    }
  }

  void Answer(const TargetCommand& command, IoStatus status, const std::string& error) {
    if (const auto* open = std::get_if<OpenVolume>(&command)) {
      VolumeOpened opened{open->ticket, error, 0, false};
      opened.isNew = error.empty() && open->size != 0 && !m_volumes.contains(open->volume);
      if (opened.isNew) m_volumes[open->volume] = open->size;
      if (error.empty() && !m_volumes.contains(open->volume)) opened.error = "no such volume";
      if (opened.error.empty()) opened.size = m_volumes.at(open->volume);
      m_engine->Completed(opened, m_now);
    } else if (const auto* compare = std::get_if<CompareVolume>(&command)) {
      WindowCompared result;
      if (status == IoStatus::kOk) {
        result = DoCompare(*compare, ByteList(compare->query.length));
      }
      result.ticket = compare->ticket;
      result.status = status;
      result.error = error;
      m_engine->Completed(result, m_now);
    } else {
      const bool isOk = status == IoStatus::kOk;
      if (const auto* c = std::get_if<JournalOpen>(&command); c != nullptr && isOk) {
        EXPECT_TRUE(m_files.insert({c->n, c->volume}).second) << "a file that is there is made";
      }
      if (const auto* c = std::get_if<JournalRemove>(&command); c != nullptr && isOk) {
        m_files.erase({c->n, c->volume});
      }
      if (const auto* c = std::get_if<CommitState>(&command); c != nullptr && isOk) Commit(*c);
      m_engine->Completed(IoDone{TicketOf(command), status, error, isOk ? m_fileBytes : 0}, m_now);
    }
  }
  static Ticket TicketOf(const TargetCommand& command) {
    return std::visit(
        [](const auto& c) -> Ticket {
          if constexpr (requires { c.ticket; }) {
            return c.ticket;
          } else {
            return 0;
          }
        },
        command);
  }

  Happened m_happened;
  DatasetDigest m_digest;
  DatasetEnd m_end;
};

}  // namespace penstock

#endif  // PENSTOCK_TESTS_ENGINE_TARGET_RIG_H_
