// SPDX-License-Identifier: Apache-2.0
// What a source's spool is made of: dataset files, one for each volume of a dataset, and what a
// start makes of those that it finds. Pure: whoever has the files reads and writes them.
#ifndef PENSTOCK_ENGINE_SPOOL_H_
#define PENSTOCK_ENGINE_SPOOL_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "codec/dataset_file.h"
#include "engine/source_parts.h"
#include "engine/wire/messages.h"

namespace penstock {

// One file of a dataset.
struct SpoolFile {
  UuidT volume;                  // in whose name it is
  std::vector<BlockPtr> blocks;  // in order
};
// The files of a dataset, in the order of its volumes, of which it names one at least.
std::vector<SpoolFile> SpoolFilesOf(const DatasetStart& start, const std::vector<BlockPtr>& blocks);
// The START record, as it is written to each of them.
std::shared_ptr<OM_DP::DatasetStartv2> SpoolRecordOf(const DatasetStart& start);

// Sorts out what a start finds: a dataset counts when every one of its files is there and whole.
//
//   SpoolScan scan(GroupId("shop"));
//   for (each file) scan.Add(volume, n, size, reader);
//   config.spooled = scan.Whole();
class SpoolScan {
 public:
  explicit SpoolScan(const UuidT& group) : m_group(group) {}
  // Reads a file. Returns an empty text, or why it doesn't count.
  std::string Add(const UuidT& volume, std::uint64_t n, FileBytes& file);
  std::vector<SpooledDataset> Whole() const;  // ascending

 private:
  struct Found {
    DatasetStart start;
    std::uint64_t bytes = 0;
    std::vector<UuidT> files;
  };
  UuidT m_group;
  std::map<std::uint64_t, Found> m_found;
};

// Reads a file back: its blocks in order. Returns an empty text, or what is wrong.
std::string ReadSpoolFile(FileBytes& file, std::uint64_t n, std::vector<BlockPtr>& blocks);

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_SPOOL_H_
