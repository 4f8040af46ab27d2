// SPDX-License-Identifier: Apache-2.0
#include "minimal_host/block_diff.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "minimal_host/failure.h"

InputFile::InputFile(const std::string& path) : m_path(path) {
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(path, error);
  if (std::filesystem::is_directory(status)) {
    throw Failure("'" + path + "' is a directory: name a file");
  }
  if (!error) {
    errno = 0;
    m_stream.open(path, std::ios::binary);
    if (!m_stream) error = std::error_code(errno, std::generic_category());
  }
  if (!m_stream.is_open()) {
    throw Failure("'" + path + "' can't be opened (" + error.message() +
                  "): name a file that exists and may be read");
  }
}

std::size_t InputFile::Read(std::uint8_t* out, std::size_t size) {
  m_stream.read(reinterpret_cast<char*>(out), static_cast<std::streamsize>(size));
  if (m_stream.bad()) {
    throw Failure("'" + m_path + "' can't be read to its end: check the disk that it is on");
  }
  return static_cast<std::size_t>(m_stream.gcount());
}

BlockDiff::BlockDiff(const std::string& oldPath, const std::string& newPath,
                     std::uint32_t blockBytes)
    : m_old(oldPath), m_new(newPath), m_blockBytes(blockBytes), m_oldBlock(blockBytes) {}

std::optional<ChangedBlock> BlockDiff::Next() {
  while (true) {
    const std::shared_ptr<std::uint8_t[]> block(new std::uint8_t[m_blockBytes]);
    const std::size_t length = m_new.Read(block.get(), m_blockBytes);
    if (length == 0) return std::nullopt;
    const std::size_t oldLength = m_old.Read(m_oldBlock.data(), m_blockBytes);
    const std::uint64_t offset = m_offset;
    m_offset += length;
    ++m_blocksSeen;
    if (oldLength >= length && std::memcmp(block.get(), m_oldBlock.data(), length) == 0) continue;
    return ChangedBlock{offset, static_cast<std::uint32_t>(length), block};
  }
}
