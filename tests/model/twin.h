// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_MODEL_TWIN_H_
#define PENSTOCK_TESTS_MODEL_TWIN_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "penstock/penstock.h"
#include "tests/model/pipeline_model.h"

namespace model {

// Thrown at the first difference between the library and the model.
struct Mismatch : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// One call of a callback, with its arguments.
struct Event {
  enum Kind { kTransmit, kDone, kFlushed, kNew, kReceived, kFinalized, kSend } kind = kTransmit;
  std::vector<std::uint64_t> args;
  bool operator==(const Event&) const = default;
};

// What the received callback of a dataset does.
enum class OnReceived { kNotInstalled, kRecord, kMarkHasBuffers };

struct DatasetSpec {
  std::uint64_t n = 0;
  bool resync = false;
  bool isNormal = true;
  std::uint64_t capacity = 0;
  std::vector<std::pair<int, Range>> ranges;
  std::uint64_t timestamp = 0;
  bool requester = false;
  bool newCb = false;
  bool finalizedCb = false;
  OnReceived received = OnReceived::kNotInstalled;
};

// The fingerprint that `print` names.
BufFingerprint RealPrint(Print print);

// The library and the model side by side: every operation is made on both, and their results, their
// calls of callbacks and then their states are compared. Datasets go by their position in `models`.
class Twin {
 public:
  Twin(bool withDoneCb, bool withFlushedCb);
  ~Twin();

  Twin(const Twin&) = delete;
  Twin& operator=(const Twin&) = delete;

  // The transmitter's results for the next operation: call i fails when bit i % 64 is set.
  void SetFailures(std::uint64_t mask);

  // --- Operations of the pipeline. ---
  Code Push(const DatasetSpec& spec, bool mustStore);
  Code PushBuffer(const Buffer& buf, std::uint64_t origSize);
  void Bump();
  void Drop();
  void Reset();
  void Update();
  void Retransmit(bool clear);
  void Ack(std::uint64_t n, bool wantSize);
  void Done(std::uint64_t n, bool success, bool empty);
  void Stored(std::uint64_t n, bool ok);
  void Flushed(std::uint64_t n, bool success);
  void Clear(std::uint64_t upTo);
  void SetAccept(bool accept);
  void AddWriter(std::uint64_t n);
  void Query(std::uint64_t n);

  // --- Operations of a dataset. ---
  void Finalize(int id, const Buffer& buf, const std::optional<Unit>& unit);
  void UnitReady(int id, const Unit& unit);
  void MarkFinalized(int id, const Buffer& buf);
  void HasBuffers(int id);
  void DoneBuffers(int id);
  void CountBlock(int id);
  void OfferBlock(int id, std::uint64_t fp);
  void AddPrint(int id, bool local, const Buffer& buf, Print print);
  void Complete(int id);
  void Check(int id);  // CheckIfReadyAndCompress, which only logs

  // Compares everything; `thorough` also what earlier operations can't have changed.
  void Compare(bool thorough);

  // The model's side, to choose the next operation by.
  PipelineModel pipeline;
  std::vector<std::unique_ptr<DatasetModel>> models;
  // Buffers that were kept for compression and wait for it, by dataset.
  std::vector<std::pair<int, Buffer>> kept;

 private:
  void InstallCallbacks(bool withDoneCb, bool withFlushedCb);
  void MakeReal(const DatasetSpec& spec);
  void MakeModel(const DatasetSpec& spec);
  int IdOf(const Dataset* ds) const;
  InternalData Real(const Buffer& buf) const;
  PipeCompressedData Real(const Unit& unit) const;
  Buffer Plain(const InternalData& buf) const;
  Unit Plain(const PipeCompressedData& unit) const;
  std::vector<std::uint64_t> BufferArgs(int id, const Buffer& buf) const;

  void CompareEvents();
  void CompareRecords() const;
  void CompareWriters() const;
  void CompareFacts(int id) const;
  void CompareRequester(int id) const;
  void CompareContents(int id) const;
  void CompareUnits(int id) const;

  Pipeline m_real;
  std::vector<std::shared_ptr<Dataset>> m_datasets;
  std::unordered_map<const Dataset*, int> m_ids;
  std::vector<std::shared_ptr<DatasetSerializer>> m_writers;
  std::vector<std::shared_ptr<const std::uint8_t[]>> m_payloads;
  std::vector<std::shared_ptr<OM_DP::CompressedData>> m_outputs;

  std::vector<Event> m_realEvents;
  std::vector<Event> m_modelEvents;
  std::uint64_t m_failures = 0;
  int m_realOffers = 0;
  int m_modelOffers = 0;
  int m_touched = -1;
};

}  // namespace model

#endif  // PENSTOCK_TESTS_MODEL_TWIN_H_
