// SPDX-License-Identifier: Apache-2.0
// What the tests of the adapters share: a folder of their own, and a loop that is run until
// something is so.
#ifndef PENSTOCK_TESTS_REPLICATOR_RIG_H_
#define PENSTOCK_TESTS_REPLICATOR_RIG_H_

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "replicator/event_loop.h"

namespace penstock {

// A private folder that goes with its owner.
class TempFolder {
 public:
  TempFolder() {
    auto name = (std::filesystem::temp_directory_path() / "penstock-test-XXXXXX").string();
    EXPECT_NE(::mkdtemp(name.data()), nullptr);
    m_path = name;
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  std::string operator/(const std::string& name) const { return m_path + "/" + name; }
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};

inline std::string ReadText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Returns the path.
inline std::string WriteText(const std::string& path, const std::string& text, mode_t mode = 0600) {
  std::ofstream(path, std::ios::binary) << text;
  ::chmod(path.c_str(), mode);
  return path;
}

inline unsigned ModeOf(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777U : 0;
}

// Runs the loop until `isSo`, which is asked after every task that the test's callbacks announce by
// Poke(), or until it has taken too long. Returns whether it was so.
class LoopRunner {
 public:
  explicit LoopRunner(EventLoop& loop) : m_loop(loop) {}

  bool Until(std::function<bool()> isSo, std::uint64_t limitMs = 20'000) {
    m_isSo = std::move(isSo);
    bool isLate = false;
    const auto guard = m_loop.After(limitMs, [&] {
      isLate = true;
      m_loop.Stop();
    });
    if (!m_isSo()) m_loop.Run();
    m_loop.Cancel(guard);
    const bool result = !isLate && m_isSo();
    m_isSo = nullptr;
    return result;
  }

  // Lets everything that is due happen: tasks that tasks post, and sockets of this process.
  void Settle(std::uint64_t ms = 30) {
    m_loop.After(ms, [this] { m_loop.Stop(); });
    m_loop.Run();
  }

  void Poke() {
    if (m_isSo && m_isSo()) m_loop.Stop();
  }

 private:
  EventLoop& m_loop;
  std::function<bool()> m_isSo;
};

}  // namespace penstock

#endif  // PENSTOCK_TESTS_REPLICATOR_RIG_H_
