// SPDX-License-Identifier: Apache-2.0
// The least that an update of a copy over TCP can be: the source sends a 64-bit fingerprint of each
// 4 KiB block, a window at a time; the target compares and answers which blocks differ; those are
// sent, checked and written in place; at the end the copy is synced and one answer says so. Equal
// fingerprints are taken for equal blocks, which is less than a replica may rely on.
//
//   penstock_floor_update target FILE        prints where it listens, takes one update
//   penstock_floor_update source ADDR:PORT FILE
#include <xxh_x86dispatch.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/floor_io.h"

namespace {

using floors::BytesOf;
using floors::FailPlainly;
using floors::Piece;

constexpr std::uint32_t kBlock = 4096;
constexpr std::uint32_t kWindowBlocks = 256;
constexpr std::uint32_t kWindow = kBlock * kWindowBlocks;
// Windows without an answer. Their answers fit into a socket's buffer, so that a target never waits
// for a source that waits for it.
constexpr unsigned kOnTheWay = 32;

enum class Kind : std::uint32_t { kQuery, kBlocks, kEnd };
using Changed = std::bitset<kWindowBlocks>;

struct Header {
  Kind kind = Kind::kQuery;
  std::uint32_t length = 0;  // of the window
  std::uint64_t offset = 0;
  std::uint64_t hash = 0;  // of the blocks
  Changed changed;         // which blocks follow
};

struct Answer {
  std::uint64_t offset = 0;
  Changed changed;
};

using Prints = std::array<std::uint64_t, kWindowBlocks>;

std::uint32_t BlocksOf(std::uint32_t length) { return (length + kBlock - 1) / kBlock; }

std::span<std::uint8_t> BlockOf(std::span<std::uint8_t> window, std::uint32_t block) {
  const std::size_t from = std::size_t{block} * kBlock;
  return window.subspan(from, std::min<std::size_t>(kBlock, window.size() - from));
}

std::uint32_t Fingerprint(std::span<std::uint8_t> window, Prints& out) {
  const auto blocks = BlocksOf(static_cast<std::uint32_t>(window.size()));
  for (std::uint32_t i = 0; i < blocks; ++i) {
    const auto block = BlockOf(window, i);
    out.at(i) = XXH3_64bits_dispatch(block.data(), block.size());
  }
  return blocks;
}

class Source {
 public:
  Source(const std::string& address, const std::string& path)
      : m_file(floors::OpenToRead(path)),
        m_size(floors::SizeOf(m_file)),
        m_socket(floors::Connect(address)) {}

  void Run() {
    std::thread answers([this] { TakeAnswers(); });
    std::vector<std::uint8_t> space(kWindow);
    Prints prints{};
    for (std::uint64_t offset = 0; offset < m_size; offset += kWindow) {
      const auto window = std::span(space).first(std::min<std::uint64_t>(kWindow, m_size - offset));
      floors::ReadAt(m_file, offset, window);
      const std::size_t bytes = Fingerprint(window, prints) * sizeof(std::uint64_t);
      Header query;
      query.length = static_cast<std::uint32_t>(window.size());
      query.offset = offset;
      WaitForRoom();
      SendOne(query, BytesOf(prints).first(bytes));
    }
    answers.join();
    Header end;
    end.kind = Kind::kEnd;
    SendOne(end, {});
    Answer synced;
    if (!floors::Receive(m_socket, BytesOf(synced))) FailPlainly("the target gave up");
  }

 private:
  void WaitForRoom() {
    std::unique_lock lock(m_mutex);
    m_hasRoom.wait(lock, [this] { return m_onTheWay < kOnTheWay; });
    ++m_onTheWay;
  }

  void TakeAnswers() {
    std::vector<std::uint8_t> blocks(kWindow);
    for (std::uint64_t left = (m_size + kWindow - 1) / kWindow; left > 0; --left) {
      Answer answer;
      if (!floors::Receive(m_socket, BytesOf(answer))) FailPlainly("the target gave up");
      {
        const std::lock_guard lock(m_mutex);
        --m_onTheWay;
      }
      m_hasRoom.notify_one();
      if (answer.changed.any()) SendBlocks(answer, blocks);
    }
  }

  // What differs is read again, which costs less than keeping every window until its answer.
  void SendBlocks(const Answer& answer, std::span<std::uint8_t> space) {
    Header header;
    header.kind = Kind::kBlocks;
    header.offset = answer.offset;
    header.length =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(kWindow, m_size - answer.offset));
    header.changed = answer.changed;
    std::size_t filled = 0;
    for (std::uint32_t i = 0; i < BlocksOf(header.length); ++i) {
      if (!answer.changed[i]) continue;
      const std::uint32_t from = i * kBlock;
      const auto block = space.subspan(filled, std::min(kBlock, header.length - from));
      floors::ReadAt(m_file, answer.offset + from, block);
      filled += block.size();
    }
    header.hash = XXH3_64bits_dispatch(space.data(), filled);
    SendOne(header, space.first(filled));
  }

  void SendOne(Header& header, std::span<std::uint8_t> body) {
    std::array<iovec, 2> pieces{Piece(BytesOf(header)), Piece(body)};
    const std::lock_guard lock(m_sending);
    floors::Send(m_socket, std::span(pieces).first(body.empty() ? 1 : 2));
  }

  int m_file;
  std::uint64_t m_size;
  int m_socket;
  std::mutex m_sending;
  std::mutex m_mutex;
  std::condition_variable m_hasRoom;
  unsigned m_onTheWay = 0;
};

class Target {
 public:
  Target(int socket, int file) : m_socket(socket), m_file(file), m_window(kWindow) {}

  void Run() {
    for (;;) {
      Header header;
      if (!floors::Receive(m_socket, BytesOf(header))) FailPlainly("the source gave up");
      if (header.length > kWindow) FailPlainly("a window is too long");
      if (header.kind == Kind::kQuery) Compare(header);
      if (header.kind == Kind::kBlocks) Patch(header);
      if (header.kind == Kind::kEnd) break;
    }
    floors::Sync(m_file);
    Reply({});
  }

 private:
  void Compare(const Header& header) {
    Prints theirs{};
    Prints ours{};
    const std::size_t bytes = BlocksOf(header.length) * sizeof(std::uint64_t);
    if (!floors::Receive(m_socket, BytesOf(theirs).first(bytes))) FailPlainly("a query is cut");
    const auto window = std::span(m_window).first(header.length);
    floors::ReadAt(m_file, header.offset, window);
    Fingerprint(window, ours);
    Answer answer;
    answer.offset = header.offset;
    for (std::uint32_t i = 0; i < BlocksOf(header.length); ++i) {
      answer.changed[i] = ours.at(i) != theirs.at(i);
    }
    Reply(answer);
  }

  void Patch(const Header& header) {
    std::size_t total = 0;
    for (std::uint32_t i = 0; i < BlocksOf(header.length); ++i) {
      if (header.changed[i]) total += std::min(kBlock, header.length - i * kBlock);
    }
    auto blocks = std::span(m_window).first(total);
    if (!floors::Receive(m_socket, blocks)) FailPlainly("a message is cut");
    if (XXH3_64bits_dispatch(blocks.data(), blocks.size()) != header.hash) {
      FailPlainly("blocks were damaged");
    }
    for (std::uint32_t i = 0; i < BlocksOf(header.length); ++i) {
      if (!header.changed[i]) continue;
      const auto length = std::min(kBlock, header.length - i * kBlock);
      floors::WriteAt(m_file, header.offset + std::uint64_t{i} * kBlock, blocks.first(length));
      blocks = blocks.subspan(length);
    }
  }

  void Reply(Answer answer) const {
    std::array<iovec, 1> pieces{Piece(BytesOf(answer))};
    floors::Send(m_socket, pieces);
  }

  int m_socket;
  int m_file;
  std::vector<std::uint8_t> m_window;
};

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 2 && args[0] == "target") {
    std::string address;
    const int listener = floors::Listen(address);
    const int file = floors::OpenToWrite(args[1], 0);
    floors::SayListening(address);
    Target(floors::Accept(listener), file).Run();
    return 0;
  }
  if (args.size() == 3 && args[0] == "source") {
    Source(args[1], args[2]).Run();
    return 0;
  }
  std::fputs("usage: penstock_floor_update target FILE | source ADDR:PORT FILE\n", stderr);
  return 2;
}
