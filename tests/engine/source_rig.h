// SPDX-License-Identifier: Apache-2.0
// A source engine, the volumes it reads, and a target that answers what a test tells it to. Every
// verb returns what the engine sent since the last one, as one line.
#ifndef PENSTOCK_TESTS_ENGINE_SOURCE_RIG_H_
#define PENSTOCK_TESTS_ENGINE_SOURCE_RIG_H_

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "engine/chain.h"
#include "engine/source_engine.h"
#include "engine/work.h"
#include "tests/engine/engine_rig.h"

namespace penstock {

class SourceRig : public testing::Test {
 protected:
  SourceRig() {
    m_config.group = "g";
    m_config.volumes = {{"a", 64 * kKiB}};
    m_config.resyncAtStart = false;
    m_config.datasetBytes = 4 * kMiB;
    m_config.random = [this](std::span<std::uint8_t> out) {
      std::ranges::fill(out, out.size() == 1 ? m_dice : ++m_drawn);
    };
  }

  // --- Life. ---

  // Starts, with the volumes of the configuration, which read as noise at both ends.
  std::string Begin() {
    m_engine = std::make_unique<SourceEngine>(m_config);
    for (std::size_t i = 0; i < m_config.volumes.size(); ++i) {
      m_disk.push_back(Noise(m_config.volumes[i].size, i + 1));
    }
    m_remote = m_disk;
    m_engine->Start(m_now);
    return Out();
  }
  std::string Connected() {
    m_engine->Connected(++m_conn, m_now);
    return Out();
  }
  struct Welcome WelcomeOf() const {
    const SourceStatus& status = m_engine->Status();
    struct Welcome welcome;
    welcome.epoch = std::max<std::uint64_t>(status.epoch, 1);
    welcome.durable = status.durable;
    welcome.applied = status.applied;
    welcome.flushed = status.flushed;
    welcome.chain = m_engine->m_ackedChain;
    welcome.window = m_window;
    for (const SourceVolume& volume : m_config.volumes) {
      welcome.volumes.push_back({m_state, 0, volume.size});
    }
    return welcome;
  }
  using Change = std::function<void(struct Welcome&)>;
  std::string Welcome(const Change& change = {}) {
    struct Welcome welcome = WelcomeOf();
    if (change) change(welcome);
    return Receive(Encode(welcome));
  }
  void Online(const Change& change = {}) {
    Begin();
    Connected();
    Welcome(change);
    ASSERT_EQ(m_engine->Status().phase, SourcePhase::kOnline);
  }
  // The connection is lost, and the next one gets as far as HELLO.
  std::string Reconnect() {
    m_engine->ConnClosed(m_conn, "reset by peer", m_now);
    Wait(20'000);
    return Connected();
  }
  std::string Wait(Millis ms) {
    m_now.steady += ms;
    m_engine->Tick(m_now);
    return Out();
  }
  std::string Phase() const { return Text(m_engine->Status().phase); }
  std::string Failure() const { return m_engine->Status().failure; }

  // --- The target. ---

  std::string Receive(const Frame& frame) {
    m_engine->Received(m_conn, frame, m_now);
    return Out();
  }
  Report ReportOf(std::uint64_t n) const {
    Report report;
    report.n = n;
    const auto chain = m_chains.find(n);
    if (chain != m_chains.end()) report.chain = chain->second;
    return report;
  }
  std::string Ack(std::uint64_t n) { return Receive(Encode(FrameType::kAck, ReportOf(n))); }
  std::string Done(std::uint64_t n) { return Receive(Encode(FrameType::kDone, ReportOf(n))); }
  std::string Flushed(std::uint64_t n) { return Receive(Encode(FrameType::kFlushed, ReportOf(n))); }
  std::string All(std::uint64_t n) {
    Happened all;
    for (const std::string& text : {Ack(n), Done(n), Flushed(n)}) {
      if (!text.empty()) all.Add(text);
    }
    return all.Take();
  }
  // Compares the oldest question with the target's volumes and answers it.
  Answer AnswerOf() {
    if (m_queries.empty()) return {};
    const Query query = m_queries.front();
    m_queries.pop_front();
    CompareVolume command;
    command.query = query;
    command.seed = m_hello.fingerprintSeed;
    command.key = m_hello.runKey;
    const Bytes window = Bytes(m_remote[query.volume]).subspan(query.offset, query.length);
    return {query.n, query.volume, query.offset, query.length, DoCompare(command, window).runs};
  }
  std::string AnswerOne() { return Receive(Encode(AnswerOf())); }

  // --- Work. ---

  template <class Command>
  std::size_t Jobs() const {
    return static_cast<std::size_t>(std::ranges::count_if(
        m_jobs, [](const auto& c) { return std::holds_alternative<Command>(c); }));
  }
  template <class Command>
  Command TakeJob() {
    const auto place = std::ranges::find_if(
        m_jobs, [](const auto& c) { return std::holds_alternative<Command>(c); });
    if (place == m_jobs.end()) {
      ADD_FAILURE() << "no such job";
      return {};
    }
    Command command = std::get<Command>(std::move(*place));
    m_jobs.erase(place);
    return command;
  }
  // Does the oldest job of this kind.
  template <class Command>
  std::string Do() {
    Carry(TakeJob<Command>());
    return Out();
  }
  // Does all jobs there are, and those that follow.
  std::string Run() {
    Gather();
    while (!m_jobs.empty()) {
      const SourceCommand job = std::move(m_jobs.front());
      m_jobs.pop_front();
      std::visit([this](const auto& command) { Carry(command); }, job);
      Gather();
    }
    return m_happened.Take();
  }
  // The same, and answers all questions.
  std::string RunAll() {
    Happened all;
    for (;;) {
      const std::string text = Run();
      if (!text.empty()) all.Add(text);
      if (m_queries.empty()) return all.Take();
      const std::string answered = AnswerOne();
      if (!answered.empty()) all.Add(answered);
    }
  }
  // The jobs that wait: "fetch a 0+4096, pack".
  std::string JobsText() const {
    Happened all;
    for (const SourceCommand& job : m_jobs) {
      if (const auto* fetch = std::get_if<FetchWindow>(&job)) {
        all.Add("fetch " + m_config.volumes[fetch->volume].name + " " +
                Range(fetch->offset, fetch->length));
      } else if (const auto* runs = std::get_if<PackRuns>(&job)) {
        all.Add("pack " + Range(runs->offset, runs->length));
      } else {
        all.Add("pack " + Number(std::get<PackBuffers>(job).buffers.size()) + " buffers");
      }
    }
    return all.Take();
  }

  // --- Writes. ---

  // The volume has the write, and so does the engine. `zeros`: without bytes.
  WriteResult Write(std::uint64_t offset, std::uint32_t length, std::uint8_t volume = 0,
                    bool zeros = false) {
    std::shared_ptr<std::uint8_t[]> data;
    if (!zeros) {
      data = std::make_shared<std::uint8_t[]>(length);
      std::ranges::copy(Noise(length, ++m_writes + 100), data.get());
    }
    return m_engine->Write(volume, offset, data, length, m_now);
  }
  std::string Close() {
    m_engine->CloseDataset(m_now);
    return Out();
  }
  // One with a block at the front of volume a, sent to its end.
  std::string SendDataset(std::uint32_t length = 4096) {
    EXPECT_EQ(Write(0, length), WriteResult::kOk);
    m_engine->CloseDataset(m_now);
    return Run();
  }
  // The target's volume differs here.
  void Differ(std::uint64_t offset, std::size_t length = 1, std::uint8_t volume = 0) {
    for (std::size_t i = 0; i < length; ++i) m_remote[volume][offset + i] ^= 0x80U;
  }

  std::string Out() {
    Gather();
    return m_happened.Take();
  }
  const SourceStatus& Status() const { return m_engine->Status(); }

  SourceConfig m_config;
  std::uint64_t m_window = 64 * kMiB;           // what WELCOME says
  VolumeState m_state = VolumeState::kSyncing;  // likewise, of every volume
  std::uint8_t m_dice = 0;
  std::uint8_t m_drawn = 0;
  Moment m_now{1000, 1'700'000'000'000};
  ConnId m_conn = 0;
  std::unique_ptr<SourceEngine> m_engine;
  std::vector<ByteList> m_disk;    // the source's volumes
  std::vector<ByteList> m_remote;  // the target's, as far as questions are concerned
  std::deque<SourceCommand> m_jobs;
  std::deque<Query> m_queries;
  Hello m_hello;                             // the last
  std::vector<BlockPtr> m_blocks;            // that were sent
  std::map<std::uint64_t, Digest> m_chains;  // of datasets that were sent
  std::map<std::uint64_t, DatasetStart> m_starts;
  std::vector<std::string> m_notes;
  std::vector<SetSeeds> m_seeds;

 private:
  void Remember(const Frame& frame) {
    if (frame.type == FrameType::kHello) m_hello = Decoded<Hello>(frame);
    if (frame.type == FrameType::kQuery) m_queries.push_back(Decoded<Query>(frame));
    if (frame.type == FrameType::kBlock) m_blocks.push_back(frame.Block());
    if (frame.type == FrameType::kDatasetStart) {
      const auto start = Decoded<DatasetStart>(frame);
      m_starts[start.n] = start;
    }
    if (frame.type == FrameType::kDatasetEnd) {
      const auto end = Decoded<DatasetEnd>(frame);
      m_chains[end.n] = end.chain;
    }
  }
  void Gather() {
    for (SourceCommand& command : m_engine->TakeCommands()) {
      if (const auto* send = std::get_if<SendFrame>(&command)) {
        Remember(send->frame);
        m_happened.Add(Show(send->frame));
      } else if (std::holds_alternative<CloseConn>(command)) {
        m_happened.Add("dropped");
        m_queries.clear();
      } else if (std::holds_alternative<Connect>(command)) {
        m_happened.Add("connect");
      } else if (const auto* note = std::get_if<Note>(&command)) {
        m_notes.push_back(note->text);
      } else if (const auto* seeds = std::get_if<SetSeeds>(&command)) {
        m_seeds.push_back(*seeds);
      } else if (std::holds_alternative<Halt>(command)) {
        m_happened.Add("HALT");
      } else {
        m_jobs.push_back(std::move(command));
      }
    }
  }

  void Carry(const FetchWindow& command) {
    const Bytes window = Bytes(m_disk[command.volume]).subspan(command.offset, command.length);
    if (command.compare) {
      auto data = std::make_shared<std::uint8_t[]>(command.length);
      std::ranges::copy(window, data.get());
      m_engine->Completed(FingerprintWindow(command, data), m_now);
    } else {
      const BlockPtr raw = BeginRawBlock(0, {command.offset, command.length});
      std::ranges::copy(window, RawData(*raw).begin());
      m_engine->Completed(CopyWindow(command, raw), m_now);
    }
  }
  void Carry(const PackRuns& command) { m_engine->Completed(DoPackRuns(command), m_now); }
  void Carry(const PackBuffers& command) { m_engine->Completed(DoPackBuffers(command), m_now); }
  template <class Other>
  void Carry(const Other&) {}

  Happened m_happened;
  std::uint64_t m_writes = 0;
};

}  // namespace penstock

#endif  // PENSTOCK_TESTS_ENGINE_SOURCE_RIG_H_
