// SPDX-License-Identifier: Apache-2.0
#include "penstock/host/file_system.h"

#include <filesystem>
#include <system_error>

bool FileSystem::CreateDirPath(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  // What counts is what is there now: another process may have made it in the meantime.
  return std::filesystem::is_directory(path, error);
}
