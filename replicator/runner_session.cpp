// SPDX-License-Identifier: Apache-2.0
#include "replicator/runner_session.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

#include "replicator/log.h"

namespace penstock {

namespace {

constexpr std::uint64_t kTickMs = 100;
constexpr std::uint64_t kInterruptMs = 5'000;  // for the acknowledgement of what was sent
constexpr const char* kTlsFault = ": TLS: ";   // in what the transport says
constexpr std::uint64_t kSettledMs = 10'000;   // a connection that held so long was a good one

ExitCode CodeOf(ErrorCode code) {
  switch (code) {
    case ErrorCode::kRefused:
    case ErrorCode::kFenced:
    case ErrorCode::kFork:
    case ErrorCode::kVolume:
    case ErrorCode::kVersion: return kExitRefused;
    case ErrorCode::kProtocol:
    case ErrorCode::kDamaged:
    case ErrorCode::kNoSpace:
    case ErrorCode::kBusy:
    case ErrorCode::kFailed:
    case ErrorCode::kTimeout: return kExitFailed;
  }
  return kExitFailed;
}

ProgressFigures FiguresOf(const SourceStatus& status, std::uint64_t totalBytes) {
  ProgressFigures figures;
  figures.totalBytes = status.passBytes == 0 ? totalBytes : status.passBytes;
  figures.doneBytes = status.passedBytes;
  figures.equalBytes = status.equalBytes;
  figures.sentBytes = status.rawBytes;
  figures.wireBytes = status.packedBytes;
  return figures;
}

}  // namespace

struct Session::Impl {
  Impl(EventLoop& theLoop, SourceOptions options, std::uint64_t retryFor,
       ProgressPrinter::Style style)
      : loop(theLoop), retryForMs(retryFor), printer(style), source(theLoop, std::move(options)) {}

  void Look();
  void Watch(const SourceStatus& status, std::uint64_t now);
  void Tick();
  void End(ExitCode code, std::string error);

  EventLoop& loop;
  const std::uint64_t retryForMs;
  ProgressPrinter printer;
  SourceRunner source;
  SessionResult result;
  std::function<void(const SessionResult&)> onEnd;
  EventLoop::TimerId tickTimer = 0;
  std::uint64_t startedMs = 0;
  bool isEnding = false;
  bool isInterrupted = false;
  std::uint64_t sentAtInterrupt = 0;
  std::uint64_t interruptedMs = 0;
  // When something moved last, or a connection that had held for a while was lost.
  std::uint64_t movedMs = 0;
  std::uint64_t moved = 0;
  std::uint64_t onlineMs = 0;  // since when there is a connection; 0: there is none
  std::string trouble;         // the last one that was told
};

void Session::Impl::Watch(const SourceStatus& status, std::uint64_t now) {
  const std::uint64_t sum = status.durable + status.applied + status.flushed + status.comparedBytes;
  if (sum != moved) movedMs = now;
  moved = sum;
  if (!status.lastTrouble.empty()) trouble = status.lastTrouble;
  if (status.phase == SourcePhase::kOnline) {
    if (onlineMs == 0) onlineMs = now;
  } else if (onlineMs != 0) {
    if (now - onlineMs >= kSettledMs) movedMs = now;
    onlineMs = 0;
  }
}

// After every event, and from time to time.
void Session::Impl::Look() {
  if (isEnding) return;
  const std::uint64_t now = EventLoop::NowMs();
  const SourceStatus& status = source.Engine().Status();
  Watch(status, now);
  if (status.phase == SourcePhase::kStopped) return End(CodeOf(status.failureCode), status.failure);
  if (source.Engine().IsSettled() && status.syncedAt != 0) {
    if (status.chainAgrees) return End(kExitDone, {});
    return End(kExitFailed,
               "the target says of what it flushed another chain value than ours; "
               "compare the two with penstock verify");
  }
  const bool isOnline = status.phase == SourcePhase::kOnline;
  if (isInterrupted &&
      (!isOnline || status.durable >= sentAtInterrupt || now - interruptedMs >= kInterruptMs)) {
    const unsigned percent =
        Percent(status.passedBytes, std::max<std::uint64_t>(status.passBytes, 1));
    return End(kExitInterrupted, "interrupted at " + std::to_string(percent) +
                                     " %; run the same command again to go on");
  }
  if (status.phase != SourcePhase::kBackoff) return;
  // Who can't prove who he is now will not be able to in a minute.
  const bool isStranger = status.epoch == 0 && trouble.find(kTlsFault) != std::string::npos;
  if (isStranger) return End(kExitRefused, trouble);
  if (now - movedMs < retryForMs) return;
  const std::string waited = "; gave up after " + HumanSeconds(retryForMs / 1000);
  End(kExitFailed, retryForMs == 0 ? trouble : trouble + waited);
}

void Session::Impl::Tick() {
  tickTimer = loop.After(kTickMs, [this] { Tick(); });
  printer.Update(FiguresOf(source.Engine().Status(), result.totalBytes), EventLoop::NowMs());
  Look();
}

void Session::Impl::End(ExitCode code, std::string error) {
  if (isEnding) return;
  isEnding = true;
  loop.Cancel(tickTimer);
  result.code = code;
  result.error = std::move(error);
  result.status = source.Engine().Status();
  result.seconds = static_cast<double>(EventLoop::NowMs() - startedMs) / 1000;
  if (code == kExitDone || code == kExitInterrupted) {
    printer.Finish(FiguresOf(result.status, result.totalBytes), EventLoop::NowMs());
  } else {
    printer.Clear();
  }
  source.Stop([this] {
    result.wireBytes = source.BytesSent();
    if (auto ended = std::exchange(onEnd, {})) ended(result);
  });
}

Session::Session(EventLoop& loop, SourceOptions options, std::uint64_t retryForMs,
                 ProgressPrinter::Style style) {
  std::uint64_t total = 0;
  for (const auto& volume : options.volumes) total += volume->Size();
  m_impl = std::make_unique<Impl>(loop, std::move(options), retryForMs, style);
  m_impl->result.totalBytes = total;
}

Session::~Session() { m_impl->loop.Cancel(m_impl->tickTimer); }

void Session::Start(std::function<void(const SessionResult&)> onEnd) {
  m_impl->onEnd = std::move(onEnd);
  m_impl->startedMs = m_impl->movedMs = EventLoop::NowMs();
  m_impl->source.Start([impl = m_impl.get()] { impl->Look(); });
  m_impl->Tick();
}

void Session::Interrupt() {
  Impl& impl = *m_impl;
  if (impl.isInterrupted || impl.isEnding) {
    const auto ended = std::exchange(impl.onEnd, {});
    if (!ended) return;
    if (!impl.isEnding) {
      impl.result.code = kExitInterrupted;
      impl.result.error = "interrupted; run the same command again to go on";
    }
    return ended(impl.result);
  }
  impl.isInterrupted = true;
  impl.interruptedMs = EventLoop::NowMs();
  impl.sentAtInterrupt = impl.source.Engine().Status().sent;
  impl.Look();
}

void Session::Fail(ExitCode code, const std::string& error) { m_impl->End(code, error); }

std::string SessionText(const SessionResult& result, bool json) {
  const SourceStatus& status = result.status;
  if (json) {
    nlohmann::ordered_json object{{"result", result.code == kExitDone ? "identical" : "incomplete"},
                                  {"at", status.flushed},
                                  {"bytes", result.totalBytes},
                                  {"comparedBytes", status.comparedBytes},
                                  {"equalBytes", status.equalBytes},
                                  {"sentBytes", status.rawBytes},
                                  {"packedBytes", status.packedBytes},
                                  {"wireBytes", result.wireBytes},
                                  {"reconnects", status.reconnects},
                                  {"seconds", result.seconds}};
    if (!result.error.empty()) object["error"] = Escape(result.error);
    return object.dump() + "\n";
  }
  if (result.code != kExitDone) return {};
  std::array<char, 64> time{};
  std::snprintf(time.data(), time.size(), "%.2f s", result.seconds);
  std::string text = "identical at " + std::to_string(status.flushed) + ": " +
                     HumanBytes(result.totalBytes) + ", equal " + HumanBytes(status.equalBytes) +
                     ", sent " + HumanBytes(status.rawBytes);
  if (status.packedBytes < status.rawBytes) text += " as " + HumanBytes(status.packedBytes);
  return text + ", in " + time.data() + "\n";
}

}  // namespace penstock
