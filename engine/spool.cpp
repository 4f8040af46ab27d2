// SPDX-License-Identifier: Apache-2.0
#include "engine/spool.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "engine/planted.h"

namespace penstock {

std::vector<SpoolFile> SpoolFilesOf(const DatasetStart& start,
                                    const std::vector<BlockPtr>& blocks) {
  std::vector<SpoolFile> files;
  for (const UuidT& volume : start.volumes) files.push_back({volume, {}});
  for (const BlockPtr& block : blocks) files.at(block->volumeIndex).blocks.push_back(block);
  return files;
}

std::shared_ptr<OM_DP::DatasetStartv2> SpoolRecordOf(const DatasetStart& start) {
  const Frame frame = Encode(start);
  auto record = OM_DP::MakeDatasetStartv2(static_cast<std::uint16_t>(start.volumes.size()));
  std::memcpy(record.get(), frame.payload.get(), frame.size);
  return record;
}

namespace {

// Of two files that were found under one number: what the source wrote to all files of a dataset.
bool IsOneDataset(const DatasetStart& a, const DatasetStart& b) {
  return a.timestampMs == b.timestampMs && a.flags == b.flags && a.volumes == b.volumes;
}

}  // namespace

std::string SpoolScan::Add(const UuidT& volume, std::uint64_t n, FileBytes& file) {
  Found found;
  DatasetFileVisitor visitor;
  visitor.start = [&](const DatasetFileStart& start) {
    found.start = {start.n,           start.timestampMs, start.group,
                   start.datasetType, start.flags,       start.volumes};
  };
  DatasetFileTotals totals;
  const DatasetFileFault fault = ReadDatasetFile(file, visitor, &totals);
  const bool isTaken = Planted(Fault::kSpoolWithoutEnd) && found.start.n != 0;
  if (!fault.text.empty() && !isTaken) {
    return fault.text + " at byte " + std::to_string(fault.offset);
  }
  const std::vector<UuidT>& volumes = found.start.volumes;
  if (found.start.n != n || found.start.group != m_group || found.start.datasetType != 0 ||
      std::find(volumes.begin(), volumes.end(), volume) == volumes.end()) {
    return "it is of another dataset or volume than its name says";
  }
  Found& known = m_found[n];
  if (std::find(known.files.begin(), known.files.end(), volume) != known.files.end()) {
    return "there are two of it";
  }
  if (!known.files.empty() && !IsOneDataset(known.start, found.start)) {
    return "it is of another dataset than the files beside it";
  }
  known.start = std::move(found.start);
  known.bytes += file.Size();
  known.files.push_back(volume);
  return {};
}

std::vector<SpooledDataset> SpoolScan::Whole() const {
  std::vector<SpooledDataset> whole;
  for (const auto& [n, found] : m_found) {
    if (found.files.size() != found.start.volumes.size()) continue;
    whole.push_back({found.start, found.bytes});
  }
  return whole;
}

std::string ReadSpoolFile(FileBytes& file, std::uint64_t n, std::vector<BlockPtr>& blocks) {
  std::uint64_t number = 0;
  DatasetFileVisitor visitor;
  visitor.start = [&](const DatasetFileStart& start) { number = start.n; };
  visitor.block = [&](const BlockPtr& block, std::uint64_t) {
    blocks.push_back(block);
    return true;
  };
  const DatasetFileFault fault = ReadDatasetFile(file, visitor);
  if (!fault.text.empty() && !Planted(Fault::kSpoolWithoutEnd)) {
    return fault.text + " at byte " + std::to_string(fault.offset);
  }
  return number == n ? "" : "it is of another dataset than its name says";
}

}  // namespace penstock
