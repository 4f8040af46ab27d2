// SPDX-License-Identifier: Apache-2.0
// What the tests of both engines share: frames as text, data, and lists of what happened.
#ifndef PENSTOCK_TESTS_ENGINE_ENGINE_RIG_H_
#define PENSTOCK_TESTS_ENGINE_ENGINE_RIG_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "codec/block.h"
#include "engine/commands.h"

namespace penstock {

inline constexpr std::uint64_t kKiB = 1024;
inline constexpr std::uint64_t kMiB = 1024 * kKiB;

using ByteList = std::vector<std::uint8_t>;

// Data that looks the same nowhere and has no zero in it, for one seed always the same.
inline ByteList Noise(std::size_t size, std::uint64_t seed = 1) {
  std::mt19937_64 random(seed);
  ByteList bytes((size + 7) / 8 * 8);
  for (std::size_t i = 0; i < bytes.size(); i += 8) {
    const std::uint64_t word = random() | 0x0101010101010101U;
    std::memcpy(bytes.data() + i, &word, sizeof(word));
  }
  bytes.resize(size);
  return bytes;
}

// A source of chance that prints its seed; PENSTOCK_SEED repeats a run.
inline std::mt19937_64 Chance() {
  const char* given = std::getenv("PENSTOCK_SEED");
  const std::uint64_t seed =
      given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device{}();
  std::cout << "PENSTOCK_SEED=" << seed << std::endl;
  return std::mt19937_64(seed);
}

inline std::string Number(std::uint64_t n) { return std::to_string(n); }
inline std::string Range(std::uint64_t offset, std::uint64_t length) {
  return Number(offset) + "+" + Number(length);
}

template <class Message>
Message Decoded(const Frame& frame) {
  Message message;
  EXPECT_EQ(Decode(frame.Payload(), message), "");
  return message;
}

// --- Frames as text. ---

inline std::string ShowStart(const DatasetStart& start) {
  std::string text = "START " + Number(start.n);
  if (start.datasetType == 2) text += " resync";
  if ((start.flags & kStartPassBegins) != 0) text += " begins";
  if ((start.flags & kStartSyncComplete) != 0) text += " complete";
  return text;
}

// "BLOCK 0 raw 0+4096 8192+4096": the volume's index, the codec, the extents.
inline std::string ShowBlock(const Frame& frame) {
  static constexpr const char* kCodecs[] = {"zero", "raw", "lz4", "zstd"};
  const BlockPtr block = frame.Block();
  std::vector<Extent> extents;
  EXPECT_EQ(CheckBlock(*block, frame.size, ~std::uint64_t{0}, extents), BlockFault::kNone);
  std::string text = "BLOCK " + Number(block->volumeIndex) + " " + kCodecs[block->codec & 3U];
  for (const Extent& extent : extents) text += " " + Range(extent.offset, extent.length);
  return text;
}

inline std::string ShowHello(const Hello& hello) {
  std::string text = "HELLO " + hello.group + " epoch " + Number(hello.epoch);
  for (const HelloVolume& volume : hello.volumes) text += " " + volume.name;
  return text;
}

inline std::string ShowWelcome(const Welcome& welcome) {
  std::string text = "WELCOME epoch " + Number(welcome.epoch) + " at " + Number(welcome.durable) +
                     "/" + Number(welcome.applied) + "/" + Number(welcome.flushed);
  for (const WelcomeVolume& volume : welcome.volumes) {
    text += std::string(" ") + (volume.state == VolumeState::kHeld ? "held" : Text(volume.state));
    if (volume.goodAt != 0) text += "@" + Number(volume.goodAt);
  }
  return text;
}

inline std::string ShowAnswer(const Answer& answer) {
  std::string text = "ANSWER " + Range(answer.offset, answer.length);
  for (const Run& run : answer.runs) text += (run.equal ? " =" : " !") + Number(run.blocks);
  return text;
}

inline std::string Show(const Frame& frame) {
  std::string name = Name(frame.type);
  switch (frame.type) {
    case FrameType::kDatasetStart: return ShowStart(Decoded<DatasetStart>(frame));
    case FrameType::kBlock: return ShowBlock(frame);
    case FrameType::kHello: return ShowHello(Decoded<Hello>(frame));
    case FrameType::kWelcome: return ShowWelcome(Decoded<Welcome>(frame));
    case FrameType::kDatasetEnd: {
      const auto end = Decoded<DatasetEnd>(frame);
      return "END " + Number(end.n) + (end.name.empty() ? "" : " " + end.name);
    }
    case FrameType::kAck:
    case FrameType::kDone:
    case FrameType::kFlushed: return name + " " + Number(Decoded<Report>(frame).n);
    case FrameType::kQuery: {
      const auto query = Decoded<Query>(frame);
      return "QUERY " + Number(query.n) + " " + Range(query.offset, query.length);
    }
    case FrameType::kAnswer: return ShowAnswer(Decoded<Answer>(frame));
    case FrameType::kError: {
      const auto error = Decoded<Error>(frame);
      return std::string("ERROR ") + Text(error.code) + ": " + error.text;
    }
    case FrameType::kProgress: {
      const auto progress = Decoded<Progress>(frame);
      return "PROGRESS closed " + Number(progress.closed) + " sent " + Number(progress.sent);
    }
    case FrameType::kPing:
    case FrameType::kPong:
    case FrameType::kBye:
    case FrameType::kStatusQuery:
    case FrameType::kStatusReply: break;
  }
  return name;
}

// --- What happened, as one line. ---

class Happened {
 public:
  void Add(const std::string& what) {
    if (!m_text.empty()) m_text += ", ";
    m_text += what;
  }
  std::string Take() { return std::exchange(m_text, {}); }

 private:
  std::string m_text;
};

inline bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

inline std::size_t CountOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

}  // namespace penstock

#endif  // PENSTOCK_TESTS_ENGINE_ENGINE_RIG_H_
