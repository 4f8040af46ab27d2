// SPDX-License-Identifier: Apache-2.0
// How long a small dataset takes to become durable at a target, from its END to the ACK, beside the
// least that a durable file can cost: a new file of the same bytes, its fsync, and that of its
// directory. One of each in turn; prints the medians in microseconds, as JSON.
//
//   penstock_commit ADDR:PORT FOLDER [COUNT]
//
// The target listens at ADDR:PORT with --plaintext. FOLDER is on the file system of its state.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "codec/block.h"
#include "engine/chain.h"
#include "replicator/runner_client.h"

namespace penstock {
namespace {

constexpr std::uint64_t kVolumeBytes = 1U << 20U;
constexpr std::size_t kDataBytes = 4096;

using Clock = std::chrono::steady_clock;

double Since(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "penstock_commit: %s\n", what.c_str());
  std::exit(2);
}

void Check(bool isDone, const std::string& what) {
  if (!isDone) Die(what + " failed");
}

// A new file of `data`, and its name, made to last. Returns the microseconds.
double CommitFile(const std::string& folder, Bytes data) {
  const std::string path = folder + "/file";
  const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  Check(dir >= 0, "opening " + folder);
  const auto start = Clock::now();
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  Check(file >= 0, "creating " + path);
  Check(::write(file, data.data(), data.size()) == static_cast<ssize_t>(data.size()),
        "writing " + path);
  Check(::fsync(file) == 0 && ::close(file) == 0 && ::fsync(dir) == 0, "syncing " + path);
  const double took = Since(start);
  Check(::unlink(path.c_str()) == 0 && ::close(dir) == 0, "removing " + path);
  return took;
}

// Sends datasets of one block each, the next one when the one before is flushed.
class Committer {
 public:
  Committer(EventLoop& loop, std::string folder, std::size_t count)
      : m_loop(loop), m_folder(std::move(folder)), m_count(count) {
    const std::vector<std::uint8_t> data(kDataBytes, 0x5a);
    const Piece piece{0, data};
    m_block = PackBlock(0, {&piece, 1}, CompressSpec{});
  }

  void Connect(const Endpoint& endpoint) {
    ConnectOptions options;
    options.allowPlaintext = true;
    Hello hello;
    hello.group = "commit";
    hello.volumes.push_back({"v", kVolumeBytes});
    m_client = std::make_unique<TargetClient>(
        m_loop, endpoint, options, hello,
        TargetClient::Callbacks{.onWelcome =
                                    [this](const Welcome& welcome) {
                                      m_n = welcome.durable;
                                      m_chain = welcome.chain;
                                      SendNext();
                                    },
                                .onFrame = [this](const Frame& frame) { Take(frame); },
                                .onFailed = [](const std::string& why) { Die(why); }});
  }

  void Print() const {
    std::printf(R"({"datasets": %zu, "dataset_us": %.1f, "file_us": %.1f})"
                "\n",
                m_datasets.size(), Median(m_datasets), Median(m_files));
  }

 private:
  void SendNext() {
    if (m_datasets.size() == m_count) return m_loop.Stop();
    m_files.push_back(CommitFile(m_folder, RecordBytes(*m_block)));
    DatasetStart start;
    start.n = ++m_n;
    start.timestampMs = EventLoop::WallMs();
    start.group = GroupId("commit");
    start.volumes.push_back(VolumeId("commit", "v"));
    const Frame frame = Encode(start);
    DatasetDigest digest;
    digest.AddStart(frame.Payload());
    digest.AddBlock(*m_block);
    DatasetEnd end;
    end.n = m_n;
    end.blocks = 1;
    end.extents = m_block->extentCount;
    end.rawBytes = m_block->rawLength;
    m_chain = end.chain = digest.Chain(m_chain);
    m_client->Send(frame);
    m_client->Send(Frame::OfBlock(m_block));
    m_client->Send(Encode(end));
    m_sent = Clock::now();
  }

  void Take(const Frame& frame) {
    if (frame.type == FrameType::kError) Die("the target refuses the dataset");
    if (frame.type == FrameType::kAck) m_datasets.push_back(Since(m_sent));
    if (frame.type == FrameType::kFlushed) SendNext();
  }

  EventLoop& m_loop;
  std::string m_folder;
  std::size_t m_count;
  BlockPtr m_block;
  std::unique_ptr<TargetClient> m_client;
  std::uint64_t m_n = 0;
  Digest m_chain{};
  Clock::time_point m_sent;
  std::vector<double> m_datasets, m_files;
};

int Measure(const std::vector<std::string>& arguments) {
  Endpoint endpoint;
  if (arguments.size() < 2 || arguments.size() > 3 ||
      !Endpoint::Parse(arguments[0], endpoint).empty()) {
    Die("usage: penstock_commit ADDR:PORT FOLDER [COUNT]");
  }
  const std::size_t count = arguments.size() == 3 ? std::stoul(arguments[2]) : 1000;
  std::filesystem::create_directories(arguments[1]);
  EventLoop loop;
  Committer committer(loop, arguments[1], count);
  committer.Connect(endpoint);
  loop.Run();
  committer.Print();
  return 0;
}

}  // namespace
}  // namespace penstock

int main(int argc, char** argv) {
  try {
    return penstock::Measure({argv + 1, argv + argc});
  } catch (const std::exception& fault) {
    std::fprintf(stderr, "penstock_commit: %s\n", fault.what());
    return 2;
  }
}
