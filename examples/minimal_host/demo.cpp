// SPDX-License-Identifier: Apache-2.0
#include "minimal_host/demo.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

#include "minimal_host/failure.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kBlockBytes = 4096;
constexpr std::uintmax_t kMaxFileBytes = std::uintmax_t{256} << 10U;
constexpr std::size_t kMaxImageBytes = std::size_t{6} << 20U;

// Returns the small regular files of the first of the usual directories that has any, in order of
// their names.
std::vector<fs::path> FindFiles() {
  for (const char* dir : {"/usr/include", "/usr/share/common-licenses", "/etc"}) {
    std::vector<fs::path> files;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir, error)) {
      if (!entry.is_regular_file(error)) continue;
      const std::uintmax_t size = entry.file_size(error);
      if (!error && size > 0 && size <= kMaxFileBytes) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    if (files.size() > 1) return files;
  }
  throw Failure(
      "--demo found no files in /usr/include, /usr/share/common-licenses or /etc: "
      "name OLD and NEW instead");
}

std::string Content(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  text.resize((text.size() + kBlockBytes - 1) / kBlockBytes * kBlockBytes);
  return text;
}

std::string Edited(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

}  // namespace

void MakeDemoImages(const std::string& oldPath, const std::string& newPath) {
  const std::vector<fs::path> files = FindFiles();
  std::ofstream oldImage(oldPath, std::ios::binary);
  std::ofstream newImage(newPath, std::ios::binary);
  std::size_t bytes = 0;
  for (std::size_t i = 0; i < files.size() && bytes < kMaxImageBytes; ++i) {
    const std::string text = Content(files[i]);
    const bool isAdded = i >= files.size() - files.size() / 10;
    if (!isAdded) oldImage << text;
    newImage << (i % 7 == 0 ? Edited(text) : text);
    bytes += text.size();
  }
  oldImage.close();
  newImage.close();
  if (!oldImage || !newImage) {
    throw Failure("the images '" + oldPath + "' and '" + newPath +
                  "' can't be written: make room there or set TMPDIR");
  }
}
