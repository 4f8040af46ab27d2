// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_EXAMPLES_MINIMAL_HOST_HOST_H_
#define PENSTOCK_EXAMPLES_MINIMAL_HOST_HOST_H_

#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "minimal_host/block_diff.h"
#include "penstock/penstock.h"

// A host of one volume: takes blocks, drives a pipeline, stores its datasets in dataset files and
// plays the target that answers. Prints the pipeline after each stage.
//
// States: taking blocks until Finish.
// Threads: one.
class Host {
 public:
  struct Limits {
    std::uint32_t datasetBlocks = 32;
    std::uint32_t blockBytes = 4096;
    std::uint32_t window = 3;  // stored datasets that make the target answer
  };

  Host(std::string spool, const UuidT& volume, const Limits& limits, std::ostream& out);
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // Takes one block. Throws Failure when a dataset can't be stored.
  void Write(const ChangedBlock& block);

  // Closes the last dataset, lets the target answer for all, and stops the pipeline.
  void Finish();

  std::uint64_t Datasets() const { return m_newest; }
  std::uint64_t Blocks() const { return m_blocks; }
  std::uint64_t Bytes() const { return m_bytes; }

 private:
  // What is known of a dataset from its first offer to the transmitter to its acknowledgement.
  struct Cursor {
    std::shared_ptr<Dataset> ds;
    BufInfoEnumerator units;
    std::shared_ptr<DatasetSerializer> file;
    bool started = false;
    bool ended = false;
  };

  void PushDataset();
  void SendOffered();
  void Send(Cursor& cursor);
  bool SendNewUnits(Cursor& cursor);
  void Store(Cursor& cursor, bool written);
  void AnswerStored();
  void Print(std::string_view stage) const;

  std::string m_spool;
  UuidT m_volume;
  Limits m_limits;
  std::ostream& m_out;
  std::uint64_t m_newest = 0;
  bool m_newestIsClosed = false;
  std::uint64_t m_blocks = 0;
  std::uint64_t m_bytes = 0;
  std::uint32_t m_blocksInDataset = 0;
  std::map<std::uint64_t, Cursor> m_cursors;
  std::vector<std::uint64_t> m_offered;  // by the transmitter, and not looked at yet
  std::vector<std::uint64_t> m_stored;   // and not yet answered for
  std::uint64_t m_lastDone = 0;
  std::uint64_t m_lastFlushed = 0;
  Pipeline m_pipeline;  // last: its callbacks write to the members above
};

#endif  // PENSTOCK_EXAMPLES_MINIMAL_HOST_HOST_H_
