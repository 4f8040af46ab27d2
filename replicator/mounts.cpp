// SPDX-License-Identifier: Apache-2.0
#include "replicator/mounts.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <memory>
#include <vector>

#include "replicator/files.h"

namespace penstock {

namespace {

// A file of the kernel's, as much of it as there is: they have no size beforehand.
std::string ReadKernelFile(const std::string& path) {
  constexpr std::size_t kMost = std::size_t{16} << 20U;
  const Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string text;
  std::array<char, 16384> chunk{};
  while (fd && text.size() < kMost) {
    const ssize_t count = ::read(fd.Get(), chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(chunk.data(), static_cast<std::size_t>(count));
  }
  return text;
}

std::vector<std::string_view> Words(std::string_view line) {
  std::vector<std::string_view> words;
  while (!line.empty()) {
    const auto word = line.substr(0, line.find(' '));
    line.remove_prefix(std::min(word.size() + 1, line.size()));
    if (!word.empty()) words.push_back(word);
  }
  return words;
}

// Blanks and backslashes stand in octal in the kernel's tables.
std::string Unescape(std::string_view text) {
  const auto isOctal = [](char c) { return c >= '0' && c <= '7'; };
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && isOctal(text[i + 1]) && isOctal(text[i + 2]) &&
        isOctal(text[i + 3])) {
      out += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 +
                               (text[i + 3] - '0'));
      i += 3;
    } else {
      out += text[i];
    }
  }
  return out;
}

bool IsDevice(const std::string& path, dev_t device) {
  struct stat info {};
  return !path.empty() && path.front() == '/' && ::stat(path.c_str(), &info) == 0 &&
         S_ISBLK(info.st_mode) && info.st_rdev == device;
}

// By the name of what is mounted: of file systems whose own number is not their device's.
std::string MountedByName(std::string_view mounts, dev_t device) {
  while (!mounts.empty()) {
    const auto line = mounts.substr(0, mounts.find('\n'));
    mounts.remove_prefix(std::min(line.size() + 1, mounts.size()));
    const auto words = Words(line);
    if (words.size() >= 2 && IsDevice(Unescape(words[0]), device)) return Unescape(words[1]);
  }
  return {};
}

std::string MountPointOfDevice(dev_t device) {
  auto place = MountPointOf(ReadKernelFile("/proc/self/mountinfo"), major(device), minor(device));
  return place.empty() ? MountedByName(ReadKernelFile("/proc/self/mounts"), device) : place;
}

// The numbers of the loop devices behind which this file is.
std::vector<dev_t> LoopDevicesOf(const struct stat& file) {
  std::vector<dev_t> found;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/sys/block"), ::closedir);
  while (folder) {
    const auto* entry = ::readdir(folder.get());
    if (entry == nullptr) break;
    const std::string name = entry->d_name;
    if (name.rfind("loop", 0) != 0) continue;
    auto path = ReadKernelFile("/sys/block/" + name + "/loop/backing_file");
    if (!path.empty() && path.back() == '\n') path.pop_back();
    struct stat backing {};
    struct stat device {};
    if (path.empty() || ::stat(path.c_str(), &backing) != 0 || backing.st_dev != file.st_dev ||
        backing.st_ino != file.st_ino || ::stat(("/dev/" + name).c_str(), &device) != 0) {
      continue;
    }
    found.push_back(device.st_rdev);
  }
  return found;
}

}  // namespace

std::string MountPointOf(std::string_view mountinfo, unsigned majorNumber, unsigned minorNumber) {
  const auto wanted = std::to_string(majorNumber) + ":" + std::to_string(minorNumber);
  while (!mountinfo.empty()) {
    const auto line = mountinfo.substr(0, mountinfo.find('\n'));
    mountinfo.remove_prefix(std::min(line.size() + 1, mountinfo.size()));
    // id parent major:minor root mount-point ...
    const auto words = Words(line);
    if (words.size() >= 5 && words[2] == wanted) return Unescape(words[4]);
  }
  return {};
}

std::string MountPointOf(const struct stat& file) {
  if (S_ISBLK(file.st_mode)) return MountPointOfDevice(file.st_rdev);
  for (const auto device : LoopDevicesOf(file)) {
    if (auto place = MountPointOfDevice(device); !place.empty()) return place;
  }
  return {};
}

}  // namespace penstock
