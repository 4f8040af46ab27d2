// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_CAPTURE_LIVE_SOURCE_H_
#define PENSTOCK_CAPTURE_LIVE_SOURCE_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "capture/control.h"
#include "capture/disk_store.h"
#include "capture/pacer.h"
#include "capture/payload_pool.h"
#include "engine/capture.h"
#include "replicator/event_loop.h"
#include "replicator/metrics_server.h"
#include "replicator/runner_source.h"

namespace penstock {

struct LiveOptions {
  std::string group;
  std::vector<std::pair<std::string, std::string>> volumes;  // name, path
  std::string stateDirectory;
  std::string spoolDirectory;               // empty: STATE/spool
  std::uint64_t spoolBytes = 10ULL << 30U;  // 0: no spool
  std::uint64_t memory = 256ULL << 20U;     // of captured writes
  std::uint64_t datasetBytes = 64ULL << 20U;
  std::uint64_t intervalMs = 1'000;
  bool takeOver = false;          // take the group up anew, and compare everything
  std::uint64_t stopMs = 10'000;  // how long a stop waits for the target
  CompressSpec compress;
  unsigned jobs = 2;
  Endpoint endpoint;
  ConnectOptions connect;
  std::optional<Endpoint> metrics;  // where to serve metrics, without TLS
};

// Volumes in use, and everything that gets their changes to a target: a loop on a thread of its own
// with the engine and its connection; and the guest's side, on the threads of whoever serves them.
//
//   std::unique_ptr<LiveSource> source;
//   if (auto fault = LiveSource::Open(options, source); !fault.empty()) ...
//   source->Start();           // after a fork, not before
//   source->Write(0, offset, data, false);
//   source->Stop();
class LiveSource {
 public:
  // Opens volumes, maps and spool; starts no thread. Returns an empty text, or what is wrong.
  static std::string Open(LiveOptions options, std::unique_ptr<LiveSource>& out);
  ~LiveSource();
  LiveSource(const LiveSource&) = delete;
  LiveSource& operator=(const LiveSource&) = delete;

  // Returns an empty text, or why the control socket, or the place of the metrics, can't be
  // listened on.
  std::string Start();
  // Gets what is left to the target, or into the spool, within the time allowed; ends the thread.
  void Stop();

  // --- The guest's side: any thread, after Start. Each returns 0 or an error number. ---

  std::size_t Volumes() const { return m_volumes.size(); }
  int Find(const std::string& name) const;  // -1: there is none
  const std::string& Name(std::size_t volume) const { return m_volumes[volume]->name; }
  std::uint64_t Size(std::size_t volume) const { return m_volumes[volume]->file->Size(); }
  const VolumeFile& File(std::size_t volume) const { return *m_volumes[volume]->file; }
  int Read(std::size_t volume, std::uint64_t offset, std::span<std::uint8_t> out) const;
  int Write(std::size_t volume, std::uint64_t offset, Bytes data, bool sync);
  // Makes a range read as zeros.
  int Zero(std::size_t volume, std::uint64_t offset, std::uint32_t length, bool sync);
  int Flush(std::size_t volume);

 private:
  using Clock = std::chrono::steady_clock;

  explicit LiveSource(LiveOptions options) : m_options(std::move(options)) {}
  std::string OpenVolumes(const SourceState& state);
  void ForgetPages(std::uint8_t volume);
  template <class Change>
  int Carry(std::size_t index, CapturedWrite write, bool sync, Clock::time_point begin,
            const Change& change);
  static bool ReadBack(const VolumeFile& file, CapturedWrite& write);
  void Delay(std::uint64_t bytes);
  std::string ServeMetrics();
  void TrimPayloads();
  void Changed();
  void TryStop();
  void KeepUpTo();

  LiveOptions m_options;
  Fd m_lock;
  std::vector<std::unique_ptr<LiveVolume>> m_volumes;
  std::unique_ptr<Capture> m_capture;
  std::unique_ptr<PayloadPool> m_payloads;
  std::unique_ptr<Pacer> m_pacer;
  GuestLatency m_latency;
  std::shared_ptr<DiskStore> m_store;
  SourceConfig m_config;
  std::uint64_t m_writeMemory = 0;  // of the memory, the part that is not for comparisons
  // Of the thread.
  std::unique_ptr<EventLoop> m_loop;
  std::unique_ptr<SourceRunner> m_runner;
  std::unique_ptr<Control> m_control;
  std::unique_ptr<MetricsServer> m_metrics;
  std::thread m_thread;
  bool m_stopping = false;
  bool m_stopped = false;
  std::uint64_t m_stopBy = 0;
  std::optional<std::uint64_t> m_kept;  // when it stopped
};

}  // namespace penstock

#endif  // PENSTOCK_CAPTURE_LIVE_SOURCE_H_
