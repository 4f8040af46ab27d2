// SPDX-License-Identifier: Apache-2.0
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "replicator/cmd.h"
#include "replicator/cmd_common.h"
#include "replicator/compare_local.h"
#include "replicator/files.h"
#include "replicator/runner_target.h"

namespace penstock {

namespace {

constexpr const char* kGroup = "local";
constexpr const char* kVolume = "volume";
constexpr int kSocketBytes = 4 << 20;      // as far as the system lets us: fewer turns of each side
constexpr std::uint64_t kRetryMs = 2'000;  // the target is here: it comes back soon or never

struct ReplicateFlags {
  std::string from;
  std::string to;
  std::string state;
  bool verify = false;
  CopyFlags copy;
  LogFlags log;
};

// The target of this process, on a thread of its own.
class LocalTarget {
 public:
  explicit LocalTarget(TargetOptions options) : m_options(std::move(options)) {}
  ~LocalTarget() { Stop(); }
  LocalTarget(const LocalTarget&) = delete;
  LocalTarget& operator=(const LocalTarget&) = delete;

  // Returns when it has recovered: an empty text, or what is wrong. `onHalt` is called on its
  // thread.
  std::string Start(std::function<void(const std::string&)> onHalt) {
    m_onHalt = std::move(onHalt);
    std::future<std::string> started = m_started.get_future();
    m_thread = std::thread([this] { Run(); });
    return started.get();
  }

  // Whether it was a failure that Start told of: it was not refused.
  bool HasFailed() const { return m_hasFailed; }

  // A socket that is connected to it, or -1.
  int Connect(std::string& error) {
    int ends[2] = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
      error = "can't make a socket pair: " + ErrnoText(errno);
      return -1;
    }
    ConnectionOptions options;
    options.socketBufferBytes = kSocketBytes;
    m_loop.Post([this, fd = ends[1], options] { m_target->Adopt(fd, options); });
    return ends[0];
  }

  void Stop() {
    if (!m_thread.joinable()) return;
    m_loop.Post([this] { m_target ? m_target->Stop() : m_loop.Stop(); });
    m_thread.join();
  }

 private:
  void Run() {
    // Signals are for the thread of the source.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    m_target = std::make_unique<TargetRunner>(m_loop, m_options);
    if (auto fault = m_target->Open(); !fault.empty()) {
      m_target.reset();
      return m_started.set_value(fault);
    }
    bool isStarted = false;
    TargetRunner::Callbacks callbacks;
    callbacks.onRecovered = [&] {
      isStarted = true;
      m_started.set_value({});
    };
    callbacks.onHalt = [&](const std::string& reason) {
      m_hasFailed = true;
      isStarted ? m_onHalt(reason) : m_started.set_value(reason);
      m_loop.Stop();
    };
    callbacks.onStopped = [this] { m_loop.Stop(); };
    m_loop.Post([this, callbacks] { m_target->Start(callbacks); });
    m_loop.Run();
    m_target.reset();
  }

  TargetOptions m_options;
  EventLoop m_loop;
  std::unique_ptr<TargetRunner> m_target;  // of its thread
  std::promise<std::string> m_started;
  std::function<void(const std::string&)> m_onHalt;
  std::atomic<bool> m_hasFailed{false};
  std::thread m_thread;
};

// Looks at DST before anything is made: one line says what to do.
std::string CheckDestination(const std::string& from, const std::string& to, std::uint64_t size) {
  struct stat source {};
  struct stat destination {};
  if (::stat(from.c_str(), &source) != 0) return "can't look at " + from + ": " + ErrnoText(errno);
  if (::stat(to.c_str(), &destination) != 0) {
    const std::string directory = DirectoryOf(to);
    if (errno == ENOENT && ::access(directory.c_str(), F_OK) == 0) return {};
    if (errno == ENOENT) return "there is no directory " + directory + "; make it first";
    return "can't look at " + to + ": " + ErrnoText(errno);
  }
  if (source.st_dev == destination.st_dev && source.st_ino == destination.st_ino) {
    return from + " and " + to + " are the same file";
  }
  VolumeOptions options;
  options.write = true;
  std::unique_ptr<VolumeFile> file;
  if (auto fault = VolumeFile::Open(to, options, file); !fault.empty()) return fault;
  if (file->Size() == size || file->Size() == 0) return {};
  const std::string sizes = to + " has " + std::to_string(file->Size()) + " bytes, " + from + " " +
                            std::to_string(size) + "; ";
  if (file->IsDevice()) {
    return sizes + "copy to a device of the same size, or to a file that is not there yet";
  }
  return sizes + "make it the same size (truncate -s " + std::to_string(size) + " " + to +
         "), or remove it";
}

std::string Prepare(const ReplicateFlags& flags, SourceOptions& source, TargetOptions& target) {
  if (auto fault = Apply(flags.log); !fault.empty()) return fault;
  if (auto fault = Apply(flags.copy, source); !fault.empty()) return fault;
  if (auto fault = OpenSources({{kVolume, flags.from}}, source); !fault.empty()) return fault;
  if (auto fault = CheckDestination(flags.from, flags.to, source.volumes.front()->Size());
      !fault.empty()) {
    return fault;
  }
  struct stat destination {};
  const bool isDevice = ::stat(flags.to.c_str(), &destination) == 0 && S_ISBLK(destination.st_mode);
  if (isDevice && flags.state.empty()) {
    return flags.to + " is a device, and nothing can be kept beside it; give --state DIR";
  }
  source.config.group = kGroup;
  target.stateDirectory = flags.state.empty() ? flags.to + ".penstock" : flags.state;
  target.mapped[std::string(kGroup) + "/" + kVolume] = flags.to;
  target.jobs = source.jobs;
  return {};
}

// Reads both again, and compares every byte.
int VerifyAfterwards(const ReplicateFlags& flags) {
  Comparison comparison;
  const std::string fault = CompareLocal(flags.from, flags.to, JobsOf(flags.copy.jobs), comparison);
  if (!fault.empty()) return Complain(kExitFailed, "can't verify: " + fault);
  if (comparison.differing.empty()) return kExitDone;
  return Complain(kExitDifferent,
                  flags.from + " and " + flags.to + " differ in " +
                      std::to_string(comparison.differing.size()) +
                      " places: was one of them written to meanwhile? Run it again");
}

int RunReplicate(const ReplicateFlags& flags) {
  SetPrivateUmask();
  SourceOptions source;
  TargetOptions options;
  if (auto fault = Prepare(flags, source, options); !fault.empty()) {
    return Complain(kExitRefused, fault);
  }
  const auto style = SetUpProgress(flags.copy.quiet);
  EventLoop loop;
  LocalTarget target(std::move(options));
  std::unique_ptr<Session> session;
  auto fault = target.Start([&](const std::string& reason) {
    loop.Post([&, reason] {
      session->Fail(kExitFailed, reason + "; run the same command again to go on");
    });
  });
  if (!fault.empty()) return Complain(target.HasFailed() ? kExitFailed : kExitRefused, fault);
  source.connect.connection.socketBufferBytes = kSocketBytes;
  source.makeSocket = [&](std::string& error) { return target.Connect(error); };
  session = std::make_unique<Session>(loop, std::move(source), kRetryMs, style);
  SessionResult result;
  loop.OnSignals([&](int) { session->Interrupt(); });
  session->Start([&](const SessionResult& ended) {
    result = ended;
    loop.Stop();
  });
  loop.Run();
  target.Stop();
  session.reset();
  const int verified =
      result.code == kExitDone && flags.verify ? VerifyAfterwards(flags) : kExitDone;
  return verified == kExitDone ? ReportResult(result, flags.copy.json) : verified;
}

}  // namespace

void AddReplicate(CLI::App& program, Chosen& chosen) {
  auto flags = std::make_shared<ReplicateFlags>();
  CLI::App* command = program.add_subcommand(
      "replicate", "Makes or updates a copy of a disk image or block device on this machine.");
  command->add_option("SRC", flags->from, "file or block device to copy")->required();
  command->add_option("DST", flags->to, "its copy: made when it is not there")->required();
  command->add_option(
      "--state", flags->state,
      "directory of the state, mode 0700 (default: DST.penstock; needed for a device)");
  command->add_flag("--verify", flags->verify, "compare everything once more at the end");
  AddCopyOptions(*command, flags->copy, "none");
  AddLogOptions(*command, flags->log, "warning");
  command->footer("Example: penstock replicate /dev/vg/snapshot /backup/disk.img --verify");
  command->callback([flags, &chosen] { chosen = [flags] { return RunReplicate(*flags); }; });
}

}  // namespace penstock
