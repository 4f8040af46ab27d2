// SPDX-License-Identifier: Apache-2.0
#include "replicator/runner_source.h"

#include <algorithm>
#include <map>
#include <utility>
#include <variant>

#include "engine/work.h"
#include "replicator/log.h"
#include "replicator/runner_common.h"
#include "replicator/slab_pool.h"
#include "replicator/worker_pool.h"

namespace penstock {

namespace {

constexpr std::uint64_t kGoodbyeMs = 2'000;

using WindowData = std::shared_ptr<const std::uint8_t[]>;

// One for all windows that lie in a hole.
const WindowData& Zeros() {
  static const WindowData zeros = std::make_shared<std::uint8_t[]>(kWindowBytes);
  return zeros;
}

WindowFetched CantFetch(const FetchWindow& command, std::string fault) {
  WindowFetched result;
  result.ticket = command.ticket;
  result.status = IoStatus::kFailed;
  result.error = std::move(fault);
  return result;
}

WindowFetched FetchFrom(const VolumeFile& volume, SlabPool& windows, const FetchWindow& command) {
  std::uint64_t data = 0;
  if (auto fault = volume.NextData(command.offset, data); !fault.empty()) {
    return CantFetch(command, std::move(fault));
  }
  const bool isHole = data >= command.offset + command.length;
  if (!command.compare) {
    if (isHole) return ZeroWindow(command);
    const BlockPtr raw = BeginRawBlock(0, {command.offset, command.length});
    auto fault = volume.Read(command.offset, RawData(*raw));
    return fault.empty() ? CopyWindow(command, raw) : CantFetch(command, std::move(fault));
  }
  if (isHole) return FingerprintWindow(command, Zeros());
  auto window = windows.Take();
  auto fault = volume.Read(command.offset, {window.get(), command.length});
  return fault.empty() ? FingerprintWindow(command, std::move(window))
                       : CantFetch(command, std::move(fault));
}

}  // namespace

struct SourceRunner::Impl {
  Impl(EventLoop& theLoop, SourceOptions theOptions)
      : loop(theLoop),
        options(std::move(theOptions)),
        engine(options.config),
        timer(theLoop),
        windows(kWindowBytes, options.config.memory / kWindowBytes),
        pool(theLoop, options.jobs, 0, options.onThread) {
    if (options.store) disk = std::make_unique<WorkerPool>(theLoop, 2, 0, options.onThread);
  }

  void Settle();
  void SetTimer();
  void Take(std::unique_ptr<Connection> made);
  void Closed(ConnId id, const std::string& reason);
  void Stop(std::function<void()> then);
  void EndStop();

  template <class Work>
  void Run(Work work) {
    auto result = std::make_shared<decltype(work())>();
    pool.Submit([result, work = std::move(work)] { *result = work(); },
                [this, result] {
                  engine.Completed(std::move(*result), Now());
                  Settle();
                });
  }

  // The same on the threads of the disk. Jobs of one strand are done in order.
  template <class Work>
  void RunOnDisk(const std::string& strand, Work work) {
    auto result = std::make_shared<decltype(work())>();
    disk->Submit(
        strand, [result, work = std::move(work)] { *result = work(); },
        [this, result] {
          engine.Completed(std::move(*result), Now());
          Settle();
        });
  }

  void Do(SendFrame& command);
  void Do(SetSeeds& command);
  void Do(CloseConn& command);
  void Do(Note& command);
  void Do(Halt& command);
  void Do(Connect& command);
  void Do(FetchWindow& command);
  void Do(PackRuns& command);
  void Do(PackBuffers& command);
  void Do(SpoolWrite& command);
  void Do(SpoolRead& command);
  void Do(SpoolRemove& command);
  void Do(SpoolDrop& command);
  void Do(KeepNames& command);
  void Do(Checkpoint& command);
  void Do(SaveMaps& command);

  EventLoop& loop;
  SourceOptions options;
  SourceEngine engine;
  std::function<void()> onChange;
  std::function<void()> onStopped;
  DeadlineTimer timer;
  std::unique_ptr<ConnectAttempt> attempt;
  std::unique_ptr<Connection> connection;
  ConnId connId = 0;  // of the connection; 0: none
  ConnId lastConn = 0;
  // Given up by the engine; what it said last is still being sent.
  std::map<ConnId, std::unique_ptr<Connection>> leaving;
  std::uint64_t sentBefore = 0;  // by connections that are gone
  bool isSettling = false;
  SlabPool windows;
  // Destroyed first: what runs on it uses the rest.
  WorkerPool pool;
  std::unique_ptr<WorkerPool> disk;  // with a store: it may block for long
};

void SourceRunner::Impl::Settle() {
  if (isSettling) return;
  isSettling = true;
  for (auto commands = engine.TakeCommands(); !commands.empty();) {
    for (SourceCommand& command : commands) {
      std::visit([this](auto& each) { Do(each); }, command);
    }
    commands = engine.TakeCommands();
  }
  isSettling = false;
  SetTimer();
  // A copy: what it does may be to stop, which takes it away.
  if (const auto change = onChange) change();
}

void SourceRunner::Impl::SetTimer() {
  timer.SetBy(engine.NextDeadline(), [this] {
    if (engine.NextDeadline() <= Now().steady) engine.Tick(Now());
    Settle();
  });
}

void SourceRunner::Impl::Stop(std::function<void()> then) {
  onChange = nullptr;
  onStopped = std::move(then);
  engine.Stop(Now());
  Settle();
  loop.After(kGoodbyeMs, [this] { EndStop(); });
  if (leaving.empty()) loop.Post([this] { EndStop(); });
}

void SourceRunner::Impl::EndStop() {
  timer.Cancel();
  if (auto stopped = std::exchange(onStopped, {})) stopped();
}

// --- The connection. ---

void SourceRunner::Impl::Do(Connect& /*command*/) {
  if (options.makeSocket) {
    // Not from within the call that fetched the command.
    loop.Post([this] {
      std::string error;
      const int fd = options.makeSocket(error);
      if (fd >= 0) return Take(Connection::OfSocket(loop, fd, options.connect.connection));
      engine.ConnectFailed(error, Now());
      Settle();
    });
    return;
  }
  attempt = std::make_unique<ConnectAttempt>(
      loop, options.endpoint, options.connect,
      [this](std::unique_ptr<Connection> made, const std::string& error) {
        if (made) return Take(std::move(made));
        engine.ConnectFailed(WithHint(error), Now());
        Settle();
      });
}

void SourceRunner::Impl::Take(std::unique_ptr<Connection> made) {
  connId = ++lastConn;
  connection = std::move(made);
  connection->Start({.onFrame =
                         [this, id = connId](const Frame& frame) {
                           engine.Received(id, frame, Now());
                           Settle();
                         },
                     .onClosed = [this, id = connId](const std::string& why) { Closed(id, why); }});
  engine.Connected(connId, Now());
  Settle();
}

void SourceRunner::Impl::Closed(ConnId id, const std::string& reason) {
  if (const auto gone = leaving.find(id); gone != leaving.end()) {
    sentBefore += gone->second->BytesSent();
    leaving.erase(gone);
    if (leaving.empty() && onStopped) EndStop();
    return;
  }
  if (id != connId) return;
  connId = 0;
  const auto gone = std::move(connection);
  sentBefore += gone->BytesSent();
  engine.ConnClosed(id, reason, Now());
  Settle();
}

void SourceRunner::Impl::Do(SendFrame& command) {
  if (command.conn == connId && connection) connection->Send(std::move(command.frame));
}

void SourceRunner::Impl::Do(SetSeeds& command) {
  if (command.conn != connId || !connection) return;
  connection->SetSeeds(command.read, command.write);
  connection->AllowAll();
}

void SourceRunner::Impl::Do(CloseConn& command) {
  if (command.conn != connId || !connection) return;
  Log(Severity::kDebug, "closes the connection", {{"why", command.reason}});
  connection->Close();
  leaving[connId] = std::move(connection);
  connId = 0;
}

// What it gives up for is told at the end, by whoever started it.
void SourceRunner::Impl::Do(Note& command) {
  if (command.text != engine.Status().failure) Say(command);
}

// The engine of a source has no state that could be lost.
void SourceRunner::Impl::Do(Halt& command) { Log(Severity::kError, command.reason); }

// --- Work. ---

void SourceRunner::Impl::Do(FetchWindow& command) {
  Run([this, volume = options.volumes.at(command.volume), store = options.store.get(),
       c = command] {
    const auto held = store != nullptr ? store->HoldOff(c.volume, c.offset, c.length) : nullptr;
    return FetchFrom(*volume, windows, c);
  });
}

void SourceRunner::Impl::Do(PackRuns& command) {
  Run([c = std::move(command)] { return DoPackRuns(c); });
}

void SourceRunner::Impl::Do(PackBuffers& command) {
  Run([c = std::move(command)] { return DoPackBuffers(c); });
}

void SourceRunner::Impl::Do(SpoolWrite& command) {
  RunOnDisk("spool", [store = options.store, c = std::move(command)] { return store->Write(c); });
}

void SourceRunner::Impl::Do(SpoolRead& command) {
  RunOnDisk("spool", [store = options.store, c = std::move(command)] { return store->Read(c); });
}

void SourceRunner::Impl::Do(SpoolRemove& command) {
  disk->Submit("spool", [store = options.store, c = std::move(command)] { store->Remove(c); }, {});
}

void SourceRunner::Impl::Do(SpoolDrop& command) {
  RunOnDisk("spool", [store = options.store, c = command] { return store->Drop(c); });
}

void SourceRunner::Impl::Do(KeepNames& command) {
  disk->Submit("spool", [store = options.store, c = std::move(command)] { store->Keep(c); }, {});
}

void SourceRunner::Impl::Do(Checkpoint& command) {
  RunOnDisk("marks", [store = options.store, c = command] { return store->Keep(c); });
}

void SourceRunner::Impl::Do(SaveMaps& command) {
  RunOnDisk("marks", [store = options.store, c = command] { return store->Save(c); });
}

// --- The runner. ---

SourceRunner::SourceRunner(EventLoop& loop, SourceOptions options) {
  options.config.random = FillRandom;
  options.config.volumes.resize(options.volumes.size());
  for (std::size_t i = 0; i < options.volumes.size(); ++i) {
    options.config.volumes[i].size = options.volumes[i]->Size();
  }
  m_impl = std::make_unique<Impl>(loop, std::move(options));
}

SourceRunner::~SourceRunner() {
  m_impl->timer.Cancel();
  m_impl->pool.Stop();
  if (m_impl->disk) m_impl->disk->Stop();
}

void SourceRunner::Start(std::function<void()> onChange) {
  m_impl->onChange = std::move(onChange);
  m_impl->engine.Start(Now());
  m_impl->Settle();
}

const SourceEngine& SourceRunner::Engine() const { return m_impl->engine; }

void SourceRunner::With(const std::function<void(SourceEngine&, const Moment&)>& what) {
  what(m_impl->engine, Now());
  m_impl->Settle();
}

void SourceRunner::SetRateLimit(std::uint64_t bytesPerSecond) {
  m_impl->options.connect.connection.rateLimit = bytesPerSecond;
  if (m_impl->connection) m_impl->connection->SetRateLimit(bytesPerSecond);
}

void SourceRunner::Stop(std::function<void()> onStopped) { m_impl->Stop(std::move(onStopped)); }

std::uint64_t SourceRunner::BytesSent() const {
  return m_impl->sentBefore + (m_impl->connection ? m_impl->connection->BytesSent() : 0);
}

}  // namespace penstock
