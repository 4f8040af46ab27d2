// SPDX-License-Identifier: Apache-2.0
#include "minimal_host/temp_dir.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "minimal_host/failure.h"

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  m_path = std::string(base == nullptr || *base == '\0' ? "/tmp" : base) + "/minimal_host.XXXXXX";
  if (::mkdtemp(m_path.data()) == nullptr) {
    const std::error_code error(errno, std::generic_category());
    throw Failure("a temporary folder '" + m_path + "' can't be made (" + error.message() +
                  "): set TMPDIR to a directory that may be written");
  }
}

TempDir::~TempDir() {
  std::error_code error;
  std::filesystem::remove_all(m_path, error);
}
