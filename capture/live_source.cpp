// SPDX-License-Identifier: Apache-2.0
#include "capture/live_source.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <utility>

#include "replicator/block_memory.h"
#include "replicator/log.h"
#include "replicator/runner_common.h"

namespace penstock {

namespace {

// Of the memory: slabs that payloads share. All of them are kept while they are needed now and
// then, for memory that the kernel has to make ready again and again costs a guest's write more
// than its copy does.
constexpr std::uint64_t kSlabPart = 64;
constexpr std::uint64_t kResyncParts = 16;  // what one dataset of a comparison takes; four of them
constexpr std::uint64_t kTrimMs = 10'000;
constexpr std::uint64_t kMinSlab = 64U << 10U;
constexpr std::uint64_t kMaxSlab = 4U << 20U;

// What a guest asks for at a time, zeros apart.
constexpr std::uint32_t kMostReadBack = 32U << 20U;

int ErrnoOf(const std::string& fault) {
  return StatusOfFault(fault) == IoStatus::kNoSpace ? ENOSPC : EIO;
}

// The guest's requests come first: what gets its writes away takes the processors that they leave,
// and a quarter of one that they don't, and by waking up interrupts nobody. For the calling thread
// alone; where the system refuses, it is as before.
void GiveWay() {
  constexpr int kNice = 5;
  ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), kNice);
  const sched_param none{};
  ::sched_setscheduler(0, SCHED_BATCH, &none);
}

// One process at a time has a state directory.
std::string LockDirectory(const std::string& directory, Fd& out) {
  const std::string path = directory + "/source.lock";
  out.Reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!out) return "can't open " + path + ": " + ErrnoText(errno);
  if (::flock(out.Get(), LOCK_EX | LOCK_NB) == 0) return {};
  return directory + " is in use by another source";
}

}  // namespace

// --- Opening. ---

std::string LiveSource::Open(LiveOptions options, std::unique_ptr<LiveSource>& out) {
  std::unique_ptr<LiveSource> source(new LiveSource(std::move(options)));
  LiveOptions& o = source->m_options;
  if (o.spoolBytes > 0 && o.spoolDirectory.empty()) o.spoolDirectory = o.stateDirectory + "/spool";
  if (o.spoolBytes == 0) o.spoolDirectory.clear();
  for (const std::string& path : {o.stateDirectory, o.stateDirectory + "/maps"}) {
    if (auto fault = MakePrivateDirectory(path); !fault.empty()) return fault;
  }
  if (auto fault = LockDirectory(o.stateDirectory, source->m_lock); !fault.empty()) return fault;
  SourceState state;
  if (auto fault = ReadSourceState(o.stateDirectory, o.group, state); !fault.empty()) return fault;
  if (o.takeOver) {
    // The spool's datasets follow a history that is left behind.
    state = {0, 0, state.age + 1, {}};
    auto fault = WriteSourceState(o.stateDirectory, o.group, state);
    if (!fault.empty()) return fault;
  }
  if (auto fault = source->OpenVolumes(state); !fault.empty()) return fault;
  out = std::move(source);
  return {};
}

std::string LiveSource::OpenVolumes(const SourceState& state) {
  // A quarter is for comparisons, the rest for writes.
  m_config.resyncBytes =
      std::clamp<std::uint64_t>(m_options.memory / kResyncParts / kWindowBytes, 1, 16) *
      kWindowBytes;
  m_config.memory = 4 * m_config.resyncBytes;
  m_writeMemory = m_options.memory - m_config.memory;
  CaptureOptions capture;
  capture.datasetBytes = m_options.datasetBytes;
  capture.memory = m_writeMemory;
  const std::string maps = m_options.stateDirectory + "/maps/";
  for (const auto& [name, path] : m_options.volumes) {
    auto volume = std::make_unique<LiveVolume>();
    volume->name = name;
    std::unique_ptr<VolumeFile> file;
    if (auto fault = VolumeFile::Open(path, {.write = true}, file); !fault.empty()) return fault;
    if (file->Size() == 0) return path + " is empty: there is nothing to serve";
    volume->file = std::move(file);
    std::string note;
    auto fault = MapFile::Open(std::string(maps).append(name).append(".map"),
                               VolumeId(m_options.group, name), volume->file->Size(),
                               capture.extentBytes, volume->map, note);
    if (!fault.empty()) return fault;
    if (!note.empty()) Log(Severity::kInfo, note, {{"volume", name}});
    capture.volumes.push_back({volume->map->Id(), volume->file->Size()});
    m_config.volumes.push_back({name, volume->file->Size()});
    m_volumes.push_back(std::move(volume));
  }
  m_capture = std::make_unique<Capture>(capture);
  m_pacer = std::make_unique<Pacer>(m_writeMemory);
  m_payloads = std::make_unique<PayloadPool>(
      std::clamp<std::uint64_t>(m_options.memory / kSlabPart, kMinSlab, kMaxSlab),
      m_options.memory);
  for (std::size_t i = 0; i < m_volumes.size(); ++i) {
    const auto volume = static_cast<std::uint8_t>(i);
    if (auto fault = m_volumes[i]->map->Load(*m_capture, volume); !fault.empty()) return fault;
    if (state.kept != 0 && m_volumes[i]->map->WasWhole()) {
      m_capture->TakeStale(volume, state.kept, std::numeric_limits<std::uint64_t>::max());
    }
    if (state.age != 0) ForgetPages(volume);
  }
  m_store = std::make_shared<DiskStore>(m_options.stateDirectory, m_options.spoolDirectory,
                                        m_options.group, state, m_volumes);
  m_config.group = m_options.group;
  m_config.compress = m_options.compress;
  m_config.datasetBytes = m_options.datasetBytes;
  m_config.feed = m_capture.get();
  m_config.epoch = state.epoch;
  m_config.flushed = state.flushed;
  m_config.names = state.names;
  m_config.kept = state.kept;
  m_config.liveMemory = m_writeMemory;
  m_config.spoolBytes = m_options.spoolBytes;
  m_config.interval = m_options.intervalMs;
  return m_store->Prepare(m_config.spooled);
}

// What is compared after a start is what the disk has. When a sync failed in the life before, the
// system may take pages for clean that the disk never got: what is read of them would vanish with
// the power, at this end only.
void LiveSource::ForgetPages(std::uint8_t volume) {
  if (m_capture->StaleBytes(volume) == 0) return;
  VolumeFile& file = *m_volumes[volume]->file;
  // Pages that are not clean would stay. A sync that fails is told to whoever asks for the next
  // one.
  if (const auto fault = file.Sync(); !fault.empty()) Log(Severity::kError, fault);
  file.ForgetPages();
}

LiveSource::~LiveSource() { Stop(); }

// --- The thread. ---

std::string LiveSource::Start() {
  m_loop = std::make_unique<EventLoop>();
  SourceOptions options;
  options.config = std::move(m_config);
  for (const auto& volume : m_volumes) options.volumes.push_back(volume->file);
  options.jobs = m_options.jobs;
  options.endpoint = m_options.endpoint;
  options.connect = m_options.connect;
  options.store = m_store;
  options.onThread = GiveWay;
  m_runner = std::make_unique<SourceRunner>(*m_loop, std::move(options));
  m_control = std::make_unique<Control>(*m_loop, *m_runner, *m_capture, m_latency, m_options.group,
                                        LiveLimits{m_options.memory, m_options.spoolBytes});
  if (auto fault = m_control->Open(m_options.stateDirectory); !fault.empty()) return fault;
  if (auto fault = ServeMetrics(); !fault.empty()) return fault;
  m_loop->Post([this] {
    m_runner->Start([this] { Changed(); });
    TrimPayloads();
  });
  m_thread = std::thread([this] {
    GiveWay();
    m_loop->Run();
  });
  return {};
}

std::string LiveSource::ServeMetrics() {
  if (!m_options.metrics) return {};
  auto fault = MetricsServer::Open(
      *m_loop, *m_options.metrics, [this] { return m_control->Metrics(); }, m_metrics);
  if (fault.empty()) Log(Severity::kInfo, "metrics on " + m_metrics->Local().Text());
  return fault;
}

void LiveSource::TrimPayloads() {
  m_payloads->Trim();
  TrimBlocks();
  m_loop->After(kTrimMs, [this] { TrimPayloads(); });
}

void LiveSource::Changed() {
  m_control->Changed();
  TryStop();
}

void LiveSource::TryStop() {
  if (!m_stopping || m_stopped) return;
  const SourceStatus& status = m_runner->Engine().Status();
  const bool isSpooled = status.phase != SourcePhase::kOnline && m_capture->MemoryUsed() == 0 &&
                         !m_runner->Engine().IsStoring();
  if (!status.isFinished && !isSpooled && status.phase != SourcePhase::kStopped &&
      m_loop->NowMs() < m_stopBy) {
    return;
  }
  m_stopped = true;
  m_kept = status.isFinished ? std::nullopt : m_runner->Engine().KeptUpTo();
  if (status.isFinished) {
    Log(Severity::kInfo, "stopped; the target has everything");
  } else if (!m_kept) {
    Log(Severity::kWarning, "stopped before the target had everything: what it lacks is marked");
  }
  m_loop->Post([this] { m_runner->Stop([this] { m_loop->Stop(); }); });
}

void LiveSource::Stop() {
  if (!m_thread.joinable()) return;
  m_loop->Post([this] {
    m_stopping = true;
    m_stopBy = m_loop->NowMs() + m_options.stopMs;
    m_loop->After(m_options.stopMs + 1, [this] { TryStop(); });
    m_runner->With([](SourceEngine& engine, const Moment& now) {
      engine.CloseDataset(now);
      engine.Finish(now);
    });
  });
  m_thread.join();
  KeepUpTo();
  m_metrics.reset();
  m_control.reset();
  m_runner.reset();
  m_loop.reset();
}

void LiveSource::KeepUpTo() {
  if (!m_kept) return;
  if (const auto fault = m_store->KeepUpTo(*m_kept); !fault.empty()) {
    Log(Severity::kWarning, "what the target lacks is kept, and compared all the same: " + fault);
    return;
  }
  Log(Severity::kInfo, "stopped; what the target lacks is kept for the next start",
      {{"n", std::to_string(*m_kept)}});
}

// --- The guest. ---

int LiveSource::Find(const std::string& name) const {
  for (std::size_t i = 0; i < m_volumes.size(); ++i) {
    if (m_volumes[i]->name == name) return static_cast<int>(i);
  }
  return -1;
}

int LiveSource::Read(std::size_t volume, std::uint64_t offset, std::span<std::uint8_t> out) const {
  const auto fault = m_volumes[volume]->file->Read(offset, out);
  if (!fault.empty()) Log(Severity::kError, fault);
  return fault.empty() ? 0 : ErrnoOf(fault);
}

// Where nothing takes anything away it is no use.
void LiveSource::Delay(std::uint64_t bytes) {
  if (!m_capture->Drains()) return;
  const Clock::duration wait =
      m_pacer->Wait(bytes, m_capture->BytesTaken(), m_capture->BytesHeld(), Clock::now());
  if (wait > Clock::duration{}) std::this_thread::sleep_for(wait);
}

// A volume that refused a write may have taken a part of it. Makes `write` what is there now, for
// the target must have that. Returns false when it can't be read.
bool LiveSource::ReadBack(const VolumeFile& file, CapturedWrite& write) {
  if (write.length > kMostReadBack) return false;
  std::shared_ptr<std::uint8_t[]> now(new std::uint8_t[write.length]);
  if (!file.Read(write.offset, {now.get(), write.length}).empty()) return false;
  write.data = std::move(now);
  return true;
}

template <class Change>
int LiveSource::Carry(std::size_t index, CapturedWrite write, bool sync, Clock::time_point begin,
                      const Change& change) {
  LiveVolume& volume = *m_volumes[index];
  const auto number = static_cast<std::uint8_t>(index);
  const std::uint64_t size = volume.file->Size();
  if (write.offset > size || write.length > size - write.offset) return EINVAL;
  write.volume = number;
  const std::uint64_t bytes = write.data ? write.length : 0;
  std::string fault;
  Clock::duration own{0};  // the volume's
  bool isFull = false;
  {
    const RangeLock::Hold held(volume.lock, write.offset, write.length);
    const std::uint64_t generation = m_capture->BeginWrite(number, write.offset, write.length);
    if (generation != 0 && !volume.map->EnsureSaved(generation)) {
      m_capture->Failed(number, write.offset, write.length);
      return EIO;
    }
    const auto from = Clock::now();
    fault = change();
    own = Clock::now() - from;
    if (fault.empty() || ReadBack(*volume.file, write)) {
      isFull = m_capture->Captured(std::move(write));
    } else {
      m_capture->Failed(number, write.offset, write.length);
    }
  }
  if (isFull) {
    m_loop->Post([this] {
      m_runner->With([](SourceEngine& engine, const Moment& now) { engine.CloseDataset(now); });
    });
  }
  Delay(bytes);
  m_latency.Add(Clock::now() - begin - own);
  if (fault.empty() && sync) return Flush(index);
  if (!fault.empty()) Log(Severity::kError, fault);
  return fault.empty() ? 0 : ErrnoOf(fault);
}

int LiveSource::Write(std::size_t volume, std::uint64_t offset, Bytes data, bool sync) {
  if (data.empty()) return sync ? Flush(volume) : 0;
  const auto begin = Clock::now();
  // The one copy: the dataset shares it until the target has it.
  std::shared_ptr<std::uint8_t[]> copy = m_payloads->Take(data.size());
  std::copy(data.begin(), data.end(), copy.get());
  CapturedWrite write{0, offset, static_cast<std::uint32_t>(data.size()), std::move(copy)};
  return Carry(volume, std::move(write), sync, begin,
               [&] { return m_volumes[volume]->file->Write(offset, data); });
}

int LiveSource::Zero(std::size_t volume, std::uint64_t offset, std::uint32_t length, bool sync) {
  if (length == 0) return sync ? Flush(volume) : 0;
  return Carry(volume, {0, offset, length, nullptr}, sync, Clock::now(),
               [&] { return m_volumes[volume]->file->Zero(offset, length); });
}

int LiveSource::Flush(std::size_t volume) {
  const auto fault = m_volumes[volume]->file->Sync();
  if (!fault.empty()) Log(Severity::kError, fault);
  return fault.empty() ? 0 : ErrnoOf(fault);
}

}  // namespace penstock
