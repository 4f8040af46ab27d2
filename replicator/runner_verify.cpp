// SPDX-License-Identifier: Apache-2.0
#include "replicator/runner_verify.h"

#include <algorithm>
#include <map>
#include <utility>

#include "codec/compare.h"
#include "engine/wire/messages.h"
#include "replicator/runner_client.h"
#include "replicator/worker_pool.h"

namespace penstock {

namespace {

constexpr std::size_t kInFlight = 32;  // windows, of a megabyte each
constexpr std::uint64_t kAskAgainMs = 100;

struct Window {
  std::size_t volume = 0;
  std::uint64_t offset = 0;
  std::uint32_t length = 0;
  std::shared_ptr<std::uint8_t[]> data;
  std::vector<std::uint64_t> fingerprints;
  std::string fault;

  Bytes Data() const { return {data.get(), length}; }
};

// The runs that are not the same: those that the target found different, and those whose strong
// fingerprint is another.
std::vector<Run> Differing(const Window& window, const Answer& answer, const RunKey& key) {
  RunHasher hasher(key);
  std::vector<Run> runs;
  for (const Run& run : answer.runs) {
    const bool isEqual =
        run.equal &&
        hasher.Of(answer.n, run.firstBlock, RunBytes(window.Data(), run)).bytes == run.strong.bytes;
    if (!isEqual) runs.push_back(run);
  }
  return runs;
}

}  // namespace

struct VerifyRunner::Impl {
  Impl(EventLoop& theLoop, SourceOptions theOptions, ProgressPrinter::Style style)
      : loop(theLoop), options(std::move(theOptions)), printer(style), pool(theLoop, options.jobs) {
    for (const auto& volume : options.volumes) figures.totalBytes += volume->Size();
  }

  void Greet();
  void Tick();
  void Fill();
  void Read(std::uint64_t n, Window window);
  void Ask(std::uint64_t n, Window&& window);
  void TakeAnswer(const Frame& frame);
  void Settle(const Window& window, const std::vector<Run>& differing);
  void End(const std::string& fault);

  EventLoop& loop;
  const SourceOptions options;
  ProgressPrinter printer;
  ProgressFigures figures;
  Comparison result;
  std::function<void(const std::string&, Comparison)> onEnd;
  std::unique_ptr<TargetClient> client;
  EventLoop::TimerId timer = 0;
  std::size_t nextVolume = 0;
  std::uint64_t nextOffset = 0;
  std::uint64_t lastN = 0;   // of windows: no two share a nonce
  std::size_t inFlight = 0;  // being read, asked or looked at
  std::map<std::uint64_t, Window> asked;
  // Destroyed first: what runs on it uses the rest.
  WorkerPool pool;
};

void VerifyRunner::Impl::Greet() {
  Hello hello;
  hello.purpose = Purpose::kVerify;
  hello.group = options.config.group;
  for (const SourceVolume& volume : options.config.volumes) {
    hello.volumes.push_back({volume.name, volume.size});
  }
  TargetClient::Callbacks callbacks;
  callbacks.onWelcome = [this](const Welcome&) { Fill(); };
  callbacks.onFrame = [this](const Frame& frame) { TakeAnswer(frame); };
  callbacks.onFailed = [this](const std::string& why) { End(why); };
  client = std::make_unique<TargetClient>(loop, options.endpoint, options.connect, std::move(hello),
                                          std::move(callbacks));
  Tick();
}

void VerifyRunner::Impl::Tick() {
  timer = loop.After(kAskAgainMs, [this] { Tick(); });
  printer.Update(figures, EventLoop::NowMs());
}

void VerifyRunner::Impl::Fill() {
  if (!onEnd) return;
  while (inFlight < kInFlight && nextVolume < options.volumes.size()) {
    const std::uint64_t size = options.volumes[nextVolume]->Size();
    Window window;
    window.volume = nextVolume;
    window.offset = nextOffset;
    window.length =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(kWindowBytes, size - nextOffset));
    nextOffset += window.length;
    if (nextOffset == size) {
      ++nextVolume;
      nextOffset = 0;
    }
    Read(++lastN, std::move(window));
  }
  if (inFlight == 0) End({});
}

void VerifyRunner::Impl::Read(std::uint64_t n, Window window) {
  ++inFlight;
  auto shared = std::make_shared<Window>(std::move(window));
  const auto volume = options.volumes[shared->volume];
  const std::uint64_t seed = client->Greeting().fingerprintSeed;
  pool.Submit(
      [shared, volume, seed] {
        shared->data = std::make_shared_for_overwrite<std::uint8_t[]>(shared->length);
        shared->fault = volume->Read(shared->offset, {shared->data.get(), shared->length});
        if (shared->fault.empty()) shared->fingerprints = Fingerprints(shared->Data(), seed);
      },
      [this, n, shared] { Ask(n, std::move(*shared)); });
}

void VerifyRunner::Impl::Ask(std::uint64_t n, Window&& window) {
  if (!window.fault.empty()) return End(window.fault);
  Query query;
  query.n = n;
  query.volume = static_cast<std::uint8_t>(window.volume);
  query.offset = window.offset;
  query.length = window.length;
  query.fingerprints = std::move(window.fingerprints);
  client->Send(Encode(query));
  asked.emplace(n, std::move(window));
}

void VerifyRunner::Impl::TakeAnswer(const Frame& frame) {
  Answer answer;
  std::string why;
  if (frame.type != FrameType::kAnswer) {
    why = std::string("the target sent ") + Name(frame.type) + " instead of an answer";
  } else {
    why = Decode(frame.Payload(), answer);
  }
  if (!why.empty()) return End(why);
  const auto place = asked.find(answer.n);
  const std::uint32_t blocks = (answer.length + kCompareBytes - 1) / kCompareBytes;
  if (place == asked.end() || place->second.volume != answer.volume ||
      place->second.offset != answer.offset || place->second.length != answer.length ||
      !RunsCover(answer.runs, blocks)) {
    return End("the target sent an answer to no question");
  }
  auto window = std::make_shared<Window>(std::move(place->second));
  asked.erase(place);
  auto runs = std::make_shared<std::vector<Run>>();
  pool.Submit([window, runs, answer = std::move(answer),
               key = client->Greeting().runKey] { *runs = Differing(*window, answer, key); },
              [this, window, runs] { Settle(*window, *runs); });
}

void VerifyRunner::Impl::Settle(const Window& window, const std::vector<Run>& differing) {
  --inFlight;
  std::uint64_t different = 0;
  for (const Run& run : differing) {
    const std::uint64_t length = RunBytes(window.Data(), run).size();
    different += length;
    result.Add({options.config.volumes[window.volume].name,
                window.offset + std::uint64_t{run.firstBlock} * kCompareBytes, length});
  }
  result.bytes += window.length;
  figures.doneBytes += window.length;
  figures.equalBytes += window.length - different;
  Fill();
}

void VerifyRunner::Impl::End(const std::string& fault) {
  auto ended = std::exchange(onEnd, {});
  if (!ended) return;
  loop.Cancel(timer);
  if (fault.empty()) {
    printer.Finish(figures, EventLoop::NowMs());
    client->Send(EncodeBye());
  } else {
    printer.Clear();
  }
  JoinRanges(result.differing);
  ended(fault, std::move(result));
}

VerifyRunner::VerifyRunner(EventLoop& loop, SourceOptions options, ProgressPrinter::Style style)
    : m_impl(std::make_unique<Impl>(loop, std::move(options), style)) {}

VerifyRunner::~VerifyRunner() { m_impl->pool.Stop(); }

void VerifyRunner::Start(std::function<void(const std::string&, Comparison)> onEnd) {
  m_impl->onEnd = std::move(onEnd);
  m_impl->Greet();
}

}  // namespace penstock
