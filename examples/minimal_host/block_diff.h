// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_EXAMPLES_MINIMAL_HOST_BLOCK_DIFF_H_
#define PENSTOCK_EXAMPLES_MINIMAL_HOST_BLOCK_DIFF_H_

#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// A file that is read from its beginning to its end.
class InputFile {
 public:
  // Opens `path`. Throws Failure when it can't be read.
  explicit InputFile(const std::string& path);

  // Reads up to `size` bytes into `out`. Returns how many there were: fewer only at the end.
  // Throws Failure when reading fails.
  std::size_t Read(std::uint8_t* out, std::size_t size);

  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
  std::ifstream m_stream;
};

// One block of a new file that is not the same in the old one.
struct ChangedBlock {
  std::uint64_t offset = 0;
  std::uint32_t length = 0;  // the block size, or less at the file's end
  std::shared_ptr<const std::uint8_t[]> data;
};

// Walks over the blocks of a file that differ from an older version of it. A block beyond the old
// file's end differs.
class BlockDiff {
 public:
  BlockDiff(const std::string& oldPath, const std::string& newPath, std::uint32_t blockBytes);

  // Returns the next changed block, or nothing at the end.
  std::optional<ChangedBlock> Next();

  std::uint64_t BlocksSeen() const { return m_blocksSeen; }

 private:
  InputFile m_old;
  InputFile m_new;
  std::uint32_t m_blockBytes;
  std::vector<std::uint8_t> m_oldBlock;
  std::uint64_t m_offset = 0;
  std::uint64_t m_blocksSeen = 0;
};

#endif  // PENSTOCK_EXAMPLES_MINIMAL_HOST_BLOCK_DIFF_H_
