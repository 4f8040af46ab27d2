// SPDX-License-Identifier: Apache-2.0
// The least that a first copy over TCP can be: chunks are read, compressed, hashed and sent;
// received, checked, decompressed and written; at the end the copy is synced and one byte says so.
// Holes are skipped. It keeps no history, recovers from nothing and trusts its peer.
//
//   penstock_floor_copy receive FILE         prints where it listens, takes one copy
//   penstock_floor_copy send ADDR:PORT FILE none|lz4|zstd:1
#include <fcntl.h>
#include <lz4.h>
#include <unistd.h>
#include <xxh_x86dispatch.h>
#include <zstd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/floor_io.h"

namespace {

using floors::BytesOf;
using floors::FailPlainly;
using floors::Piece;

constexpr std::uint32_t kMostChunk = 1U << 20U;
constexpr std::uint32_t kMostBody = kMostChunk + (64U << 10U);

enum class Codec : std::uint32_t { kNone, kLz4, kZstd };

struct Header {
  std::uint64_t offset = 0;
  std::uint32_t rawLength = 0;  // 0: the end, and `offset` is the file's size
  std::uint32_t length = 0;     // of the body
  std::uint64_t hash = 0;       // of the body
  Codec codec = Codec::kNone;
  std::uint32_t unused = 0;
};

// What was fastest of 128 KiB to 1 MiB: caches like small chunks, and zstd's level 1 large ones.
std::uint32_t ChunkFor(Codec codec) { return codec == Codec::kNone ? 256U << 10U : kMostChunk; }

// One thread cuts, hashes and copies faster than a stream takes it; compressing wants two.
unsigned ThreadsFor(Codec codec) { return codec == Codec::kNone ? 1 : 2; }

struct FreeZstd {
  void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
  void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

class Packer {
 public:
  explicit Packer(Codec codec) : m_codec(codec), m_body(kMostBody), m_zstd(ZSTD_createCCtx()) {}

  // The body: in `raw` itself when nothing is gained.
  std::span<std::uint8_t> Pack(std::span<std::uint8_t> raw, Header& header) {
    const std::size_t packed = Compress(raw);
    const bool isPacked = packed > 0 && packed < raw.size();
    const auto body = isPacked ? std::span(m_body).first(packed) : raw;
    header.codec = isPacked ? m_codec : Codec::kNone;
    header.rawLength = static_cast<std::uint32_t>(raw.size());
    header.length = static_cast<std::uint32_t>(body.size());
    header.hash = XXH3_64bits_dispatch(body.data(), body.size());
    return body;
  }

 private:
  std::size_t Compress(std::span<const std::uint8_t> raw) {
    if (m_codec == Codec::kLz4) {
      return static_cast<std::size_t>(LZ4_compress_default(
          reinterpret_cast<const char*>(raw.data()), reinterpret_cast<char*>(m_body.data()),
          static_cast<int>(raw.size()), static_cast<int>(m_body.size())));
    }
    if (m_codec == Codec::kZstd) {
      const std::size_t size =
          ZSTD_compressCCtx(m_zstd.get(), m_body.data(), m_body.size(), raw.data(), raw.size(), 1);
      return ZSTD_isError(size) != 0 ? 0 : size;
    }
    return 0;
  }

  Codec m_codec;
  std::vector<std::uint8_t> m_body;
  std::unique_ptr<ZSTD_CCtx, FreeZstd> m_zstd;
};

class Sender {
 public:
  Sender(const std::string& address, const std::string& path, Codec codec)
      : m_file(floors::OpenToRead(path)),
        m_size(floors::SizeOf(m_file)),
        m_codec(codec),
        m_socket(floors::Connect(address)) {}

  void Run() {
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < ThreadsFor(m_codec); ++i) threads.emplace_back([this] { Work(); });
    for (auto& thread : threads) thread.join();
    Header end;
    end.offset = m_size;
    SendOne(end, {});
    std::uint8_t synced = 0;
    if (!floors::Receive(m_socket, BytesOf(synced))) FailPlainly("the receiver gave up");
  }

 private:
  void Work() {
    Packer packer(m_codec);
    const std::uint32_t chunk = ChunkFor(m_codec);
    std::vector<std::uint8_t> raw(chunk);
    for (;;) {
      Header header;
      header.offset = m_next.fetch_add(chunk);
      if (header.offset >= m_size) return;
      const auto length = std::min<std::uint64_t>(chunk, m_size - header.offset);
      if (floors::NextData(m_file, header.offset, m_size) >= header.offset + length) continue;
      const auto data = std::span(raw).first(length);
      floors::ReadAt(m_file, header.offset, data);
      const auto body = packer.Pack(data, header);
      SendOne(header, body);
    }
  }

  void SendOne(Header& header, std::span<std::uint8_t> body) {
    std::array<iovec, 2> pieces{Piece(BytesOf(header)), Piece(body)};
    const std::lock_guard lock(m_mutex);
    floors::Send(m_socket, std::span(pieces).first(body.empty() ? 1 : 2));
  }

  int m_file;
  std::uint64_t m_size;
  Codec m_codec;
  int m_socket;
  std::atomic<std::uint64_t> m_next = 0;
  std::mutex m_mutex;
};

class Receiver {
 public:
  Receiver(int socket, int file) : m_socket(socket), m_file(file) {}

  void Run() {
    // As many as the sender has at most: one that finds no work costs nothing.
    std::thread other([this] { Work(); });
    Work();
    other.join();
    floors::Sync(m_file);
    std::uint8_t synced = 1;
    std::array<iovec, 1> pieces{Piece(BytesOf(synced))};
    floors::Send(m_socket, pieces);
  }

 private:
  bool Take(Header& header, std::vector<std::uint8_t>& body) {
    const std::lock_guard lock(m_mutex);
    if (m_isAtEnd) return false;
    if (!floors::Receive(m_socket, BytesOf(header))) FailPlainly("the sender gave up");
    if (header.rawLength == 0) {
      m_isAtEnd = true;
      if (::ftruncate(m_file, static_cast<off_t>(header.offset)) != 0) floors::Fail("can't grow");
      return false;
    }
    if (header.length > kMostBody || header.rawLength > kMostChunk)
      FailPlainly("a chunk is too long");
    return floors::Receive(m_socket, std::span(body).first(header.length));
  }

  void Work() {
    Header header;
    std::vector<std::uint8_t> body(kMostBody);
    std::vector<std::uint8_t> space(kMostChunk);
    const std::unique_ptr<ZSTD_DCtx, FreeZstd> zstd(ZSTD_createDCtx());
    while (Take(header, body)) {
      const auto packed = std::span(body).first(header.length);
      if (XXH3_64bits_dispatch(packed.data(), packed.size()) != header.hash) {
        FailPlainly("a chunk was damaged");
      }
      const auto raw = std::span(space).first(header.rawLength);
      const bool isPacked = header.codec != Codec::kNone;
      if (isPacked) Unpack(header.codec, packed, raw, zstd.get());
      floors::WriteAt(m_file, header.offset, isPacked ? raw : packed);
    }
  }

  static void Unpack(Codec codec, std::span<const std::uint8_t> packed, std::span<std::uint8_t> raw,
                     ZSTD_DCtx* zstd) {
    std::size_t size = 0;
    if (codec == Codec::kLz4) {
      size = static_cast<std::size_t>(LZ4_decompress_safe(
          reinterpret_cast<const char*>(packed.data()), reinterpret_cast<char*>(raw.data()),
          static_cast<int>(packed.size()), static_cast<int>(raw.size())));
    } else {
      size = ZSTD_decompressDCtx(zstd, raw.data(), raw.size(), packed.data(), packed.size());
    }
    if (size != raw.size()) FailPlainly("a chunk does not decompress");
  }

  int m_socket;
  int m_file;
  std::mutex m_mutex;
  bool m_isAtEnd = false;
};

Codec CodecOf(const std::string& name) {
  if (name == "none") return Codec::kNone;
  if (name == "lz4") return Codec::kLz4;
  if (name == "zstd:1") return Codec::kZstd;
  FailPlainly("use none, lz4 or zstd:1, not " + name);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 2 && args[0] == "receive") {
    std::string address;
    const int listener = floors::Listen(address);
    const int file = floors::OpenToWrite(args[1], O_CREAT | O_TRUNC);
    floors::SayListening(address);
    Receiver(floors::Accept(listener), file).Run();
    return 0;
  }
  if (args.size() == 4 && args[0] == "send") {
    Sender(args[1], args[2], CodecOf(args[3])).Run();
    return 0;
  }
  std::fputs("usage: penstock_floor_copy receive FILE | send ADDR:PORT FILE CODEC\n", stderr);
  return 2;
}
