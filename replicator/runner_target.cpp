// SPDX-License-Identifier: Apache-2.0
#include "replicator/runner_target.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>
#include <variant>
#include <vector>

#include "replicator/files.h"
#include "replicator/identity.h"
#include "replicator/log.h"
#include "replicator/runner_common.h"
#include "replicator/runner_journal.h"
#include "replicator/runner_volumes.h"
#include "replicator/state_store.h"
#include "replicator/status_json.h"
#include "replicator/worker_pool.h"

namespace penstock {

namespace {

constexpr std::uint64_t kStopMs = 10'000;  // for what is under way, after Stop

}  // namespace

struct TargetRunner::Impl {
  Impl(EventLoop& theLoop, TargetOptions theOptions)
      : loop(theLoop),
        options(std::move(theOptions)),
        journal(options.stateDirectory),
        volumes(options.volumesDirectory, options.mapped),
        timer(theLoop),
        pool(theLoop, options.jobs) {}

  std::string Open();
  void Settle();
  void CarryOut(TargetCommand& command);
  void AnswerStatus();
  void SetTimer();
  void Take(std::unique_ptr<Connection> connection);
  void Closed(ConnId id, const std::string& reason);
  void Close(const CloseConn& command);
  void Stop();
  void EndStop();

  // Does `work` on a worker, and tells the engine what it returned. Without a strand: at any time.
  template <class Work>
  void Run(const std::string& strand, Work work) {
    auto result = std::make_shared<decltype(work())>();
    pool.Submit(
        strand, [result, work = std::move(work)] { *result = work(); },
        [this, result] {
          if (isHalted) return;
          engine->Completed(*result, Now());
          Settle();
        });
  }

  // The same for a command on a file of the journal: those of one file in order.
  template <class Command>
  void RunOnFile(Command command, IoDone (Journal::*work)(const Command&)) {
    const std::string strand =
        command.group + "/" + command.volume + "/" + std::to_string(command.n);
    Run(strand, [this, work, c = std::move(command)] { return (journal.*work)(c); });
  }

  void Do(SendFrame& command);
  void Do(SetSeeds& command);
  void Do(CloseConn& command) { Close(command); }
  void Do(Note& command) { Say(command); }
  void Do(Halt& command);
  void Do(OpenVolume& command);
  void Do(JournalOpen& command);
  void Do(JournalAppend& command);
  void Do(JournalClose& command);
  void Do(JournalRemove& command);
  void Do(JournalSyncDirs& command);
  void Do(CommitState& command);
  void Do(ApplyFile& command);
  void Do(WriteBlock& command);
  void Do(SyncVolumes& command);
  void Do(CompareVolume& command);
  void Do(SetReading& command);

  EventLoop& loop;
  const TargetOptions options;
  Callbacks callbacks;
  Journal journal;
  TargetVolumes volumes;
  std::unique_ptr<StateStore> store;
  std::unique_ptr<TargetEngine> engine;
  DeadlineTimer timer;
  std::unique_ptr<Listener> listener;
  std::map<ConnId, std::unique_ptr<Connection>> connections;
  // Given up by the engine; what it said last is still being sent.
  std::map<ConnId, std::unique_ptr<Connection>> leaving;
  ConnId lastConn = 0;
  bool isSettling = false;
  bool isRecovered = false;
  bool isStopping = false;
  bool isHalted = false;
  // Destroyed first: what runs on it uses the rest.
  WorkerPool pool;
};

// --- Life. ---

std::string TargetRunner::Impl::Open() {
  auto fault = StateStore::Open(options.stateDirectory, StateStore::Mode::kOwner, store);
  if (fault.empty()) fault = journal.Prepare();
  std::vector<GroupState> groups;
  if (fault.empty()) fault = store->Load(groups);
  std::vector<JournalFile> found;
  if (fault.empty()) fault = journal.List(groups, found);
  if (!fault.empty()) return fault;
  TargetConfig config;
  config.journalQuota = options.journalQuota;
  config.random = FillRandom;
  config.allows = [this](const std::string& identity, const std::string& group,
                         const std::string& volume, Right right) {
    return options.grants.Allows(identity, group, volume, right);
  };
  engine = std::make_unique<TargetEngine>(std::move(config), std::move(groups), std::move(found));
  return {};
}

void TargetRunner::Impl::Stop() {
  if (isStopping) return;
  isStopping = true;
  listener.reset();
  for (auto& [id, connection] : std::exchange(connections, {})) {
    engine->ConnClosed(id, Now());
    connection->Close();
    leaving[id] = std::move(connection);
  }
  loop.After(kStopMs, [this] { EndStop(); });
  Settle();
}

void TargetRunner::Impl::EndStop() {
  timer.Cancel();
  if (auto stopped = std::exchange(callbacks.onStopped, {})) stopped();
}

// --- Events and commands. ---

void TargetRunner::Impl::Settle() {
  if (isSettling || isHalted) return;
  isSettling = true;
  for (auto commands = engine->TakeCommands(); !commands.empty() && !isHalted;) {
    for (TargetCommand& command : commands) {
      std::visit([this](auto& each) { Do(each); }, command);
      if (isHalted) break;
    }
    AnswerStatus();
    commands = engine->TakeCommands();
  }
  isSettling = false;
  if (isHalted) return;
  AnswerStatus();
  if (!isRecovered && engine->Recovered()) {
    isRecovered = true;
    if (callbacks.onRecovered) callbacks.onRecovered();
  }
  if (isStopping && pool.Pending() == 0) return EndStop();
  SetTimer();
}

void TargetRunner::Impl::SetTimer() {
  timer.SetBy(engine->NextDeadline(), [this] {
    if (isHalted) return;
    if (engine->NextDeadline() <= Now().steady) engine->Tick(Now());
    Settle();
  });
}

void TargetRunner::Impl::AnswerStatus() {
  const auto asked = engine->TakeStatusAsked();
  for (const ConnId conn : asked) {
    std::vector<GroupStatus> visible = engine->Status();
    std::erase_if(visible,
                  [&](const GroupStatus& s) { return !engine->MaySee(conn, s.state.group); });
    engine->SendStatus(conn, StatusText(visible, Now().wall));
  }
  if (!asked.empty() && !isSettling) Settle();
}

// --- Connections. ---

void TargetRunner::Impl::Take(std::unique_ptr<Connection> connection) {
  if (isHalted || isStopping) return;
  const ConnId id = ++lastConn;
  Connection& taken = *connection;
  connections[id] = std::move(connection);
  const std::string identity =
      taken.IsEncrypted() ? taken.PeerIdentity() : std::string(kPlaintextIdentity);
  Log(Severity::kInfo, "a source connects",
      {{"peer", taken.PeerAddress()}, {"identity", identity}, {"cipher", taken.Cipher()}});
  taken.Start({.onFrame =
                   [this, id](const Frame& frame) {
                     if (isHalted) return;
                     engine->Received(id, frame, Now());
                     Settle();
                   },
               .onClosed = [this, id](const std::string& reason) { Closed(id, reason); }});
  engine->Connected(id, identity, Now());
  Settle();
}

void TargetRunner::Impl::Closed(ConnId id, const std::string& reason) {
  leaving.erase(id);
  const auto place = connections.find(id);
  if (place == connections.end() || isHalted) return;
  const auto connection = std::move(place->second);
  connections.erase(place);
  Log(Severity::kInfo, "a connection ended",
      {{"peer", connection->PeerAddress()}, {"why", reason}});
  if (connection->IsDamaged()) {
    engine->Damaged(id, reason, Now());
  } else {
    engine->ConnClosed(id, Now());
  }
  Settle();
}

void TargetRunner::Impl::Close(const CloseConn& command) {
  const auto place = connections.find(command.conn);
  if (place == connections.end()) return;
  Log(Severity::kInfo, "closes a connection",
      {{"peer", place->second->PeerAddress()}, {"why", command.reason}});
  place->second->Close();
  leaving[command.conn] = std::move(place->second);
  connections.erase(place);
}

void TargetRunner::Impl::Do(SendFrame& command) {
  const auto place = connections.find(command.conn);
  if (place != connections.end()) place->second->Send(std::move(command.frame));
}

void TargetRunner::Impl::Do(SetSeeds& command) {
  const auto place = connections.find(command.conn);
  if (place == connections.end()) return;
  place->second->SetSeeds(command.read, command.write);
  place->second->AllowAll();
}

void TargetRunner::Impl::Do(SetReading& command) {
  const auto place = connections.find(command.conn);
  if (place == connections.end()) return;
  if (command.reading) {
    place->second->ResumeReading();
  } else {
    place->second->PauseReading();
  }
}

void TargetRunner::Impl::Do(Halt& command) {
  isHalted = true;
  listener.reset();
  timer.Cancel();
  connections.clear();
  leaving.clear();
  if (callbacks.onHalt) callbacks.onHalt(command.reason);
}

// --- Work. ---

void TargetRunner::Impl::Do(OpenVolume& command) {
  Run("open", [this, c = std::move(command)] { return volumes.Open(c); });
}

void TargetRunner::Impl::Do(JournalOpen& command) { RunOnFile(std::move(command), &Journal::Open); }

void TargetRunner::Impl::Do(JournalAppend& command) {
  RunOnFile(std::move(command), &Journal::Append);
}

void TargetRunner::Impl::Do(JournalClose& command) {
  RunOnFile(std::move(command), &Journal::Close);
}

void TargetRunner::Impl::Do(JournalRemove& command) {
  RunOnFile(std::move(command), &Journal::Remove);
}

void TargetRunner::Impl::Do(JournalSyncDirs& command) {
  Run({}, [this, c = std::move(command)] { return journal.SyncDirs(c); });
}

void TargetRunner::Impl::Do(CommitState& command) {
  Run("state", [this, c = std::move(command)] {
    IoDone done{c.ticket, IoStatus::kOk, store->Commit(c.group, c.change), 0};
    if (!done.error.empty()) done.status = IoStatus::kFailed;
    return done;
  });
}

void TargetRunner::Impl::Do(ApplyFile& command) {
  if (isStopping) return;  // it is durable, and will be applied at the next start
  Run({}, [this, c = std::move(command)] { return volumes.Apply(c, journal); });
}

void TargetRunner::Impl::Do(WriteBlock& command) {
  Run({}, [this, c = std::move(command)] { return volumes.Write(c); });
}

void TargetRunner::Impl::Do(SyncVolumes& command) {
  Run({}, [this, c = std::move(command)] { return volumes.Sync(c); });
}

void TargetRunner::Impl::Do(CompareVolume& command) {
  Run({}, [this, c = std::move(command)] { return volumes.Compare(c); });
}

// --- The runner. ---

TargetRunner::TargetRunner(EventLoop& loop, TargetOptions options)
    : m_impl(std::make_unique<Impl>(loop, std::move(options))) {}

TargetRunner::~TargetRunner() {
  m_impl->isHalted = true;
  m_impl->timer.Cancel();
  m_impl->pool.Stop();
}

std::string TargetRunner::Open() { return m_impl->Open(); }

void TargetRunner::Start(Callbacks callbacks) {
  m_impl->callbacks = std::move(callbacks);
  m_impl->engine->Start(Now());
  m_impl->Settle();
}

std::string TargetRunner::Listen(const Endpoint& endpoint, const ListenOptions& options,
                                 Endpoint& local) {
  Listener::Callbacks callbacks;
  callbacks.onAccepted = [this](std::unique_ptr<Connection> connection) {
    m_impl->Take(std::move(connection));
  };
  callbacks.onRefused = [](const std::string& address, const std::string& reason) {
    Log(Severity::kWarning, "refuses a connection", {{"peer", address}, {"why", reason}});
  };
  auto fault = Listener::Open(m_impl->loop, endpoint, options, callbacks, m_impl->listener);
  if (fault.empty()) local = m_impl->listener->Local();
  return fault;
}

void TargetRunner::Adopt(int fd, const ConnectionOptions& options) {
  m_impl->Take(Connection::OfSocket(m_impl->loop, fd, options));
}

TargetFigures TargetRunner::Figures() const {
  return {m_impl->engine->Status(), m_impl->connections.size(),
          m_impl->engine->RefusedConnections()};
}

void TargetRunner::Stop() { m_impl->Stop(); }

}  // namespace penstock
