// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_MODEL_PIPELINE_MODEL_H_
#define PENSTOCK_TESTS_MODEL_PIPELINE_MODEL_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/model/dataset_model.h"

namespace model {

struct DoneRecord {
  std::uint64_t n = 0;
  std::uint64_t timestamp = 0;
  bool done = false;
  bool fingerprinted = false;
  bool success = false;
  bool empty = false;
  bool stored = false;
  bool storeError = false;
  bool operator==(const DoneRecord&) const = default;
};

struct FlushRecord {
  std::uint64_t n = 0;
  std::uint64_t timestamp = 0;
  bool flushed = false;
  bool fingerprinted = false;
  bool success = false;
  bool operator==(const FlushRecord&) const = default;
};

// A second pipeline over plain vectors. The datasets belong to the caller.
class PipelineModel {
 public:
  Code Push(DatasetModel& ds, bool mustStore);
  Code PushBuffer(const Buffer& buf, std::uint64_t origSize);
  void Bump();
  void Drop();
  void Reset();

  void Update();
  Code Retransmit(bool clear);
  Code Ack(std::uint64_t n, std::optional<std::uint64_t>& size);

  Code Done(std::uint64_t n, bool success, bool empty);
  Code Stored(std::uint64_t n, bool ok);
  Code Flushed(std::uint64_t n, bool success);
  void Clear(std::uint64_t upTo);

  void AddWriter(std::uint64_t n, int writer) { writers.try_emplace(n, writer); }

  bool ShouldQueue(std::uint64_t n) const;
  DatasetModel* Find(std::uint64_t n) const;
  std::uint64_t PendingFlushTimestamp(std::uint64_t n) const;
  std::string Dump() const;
  std::string DumpDone() const;

  // The queues, each from oldest to newest.
  std::vector<DatasetModel*> receive;
  std::vector<DatasetModel*> transmit;
  std::vector<DoneRecord> done;
  std::vector<FlushRecord> flush;
  std::map<std::uint64_t, int> writers;
  std::uint64_t last = 0;
  bool accepting = true;
  // How many units of the newest transmitted dataset were passed over.
  std::size_t passed = 0;

  std::function<int(DatasetModel&)> transmitter;
  std::function<void(std::uint64_t, bool, bool, bool)> onDone;
  std::function<void(std::uint64_t, bool, bool)> onFlushed;

 private:
  void CloseAndUpdate(DatasetModel& ds);
  void OfferUnits();
  void Move();
  void ReportDone();
};

}  // namespace model

#endif  // PENSTOCK_TESTS_MODEL_PIPELINE_MODEL_H_
