// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_MODEL_DATASET_MODEL_H_
#define PENSTOCK_TESTS_MODEL_DATASET_MODEL_H_

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

// A second dataset, as plain as can be: ordered containers, linear searches, numbers where the
// library has records. It knows nothing of the library's types, so that nothing can be wrong in
// both for the same reason.
namespace model {

// A result code, as its number.
enum Code : int {
  kOk = 0,
  kFailed = -1,
  kExists = -2,
  kLocalMissing = -4,
  kRemoteMissing = -5,
  kTooOld = -6,
  kAlreadyFinalized = -7,
  kNoDataset = -8,
  kAckAhead = -10,
  kOutOfRange = -11,
  kUnknownVolume = -12,
  kAckTooOld = -13,
  kWaiting = -14,
  kNotAccepting = -15,
};

// What identifies a buffer.
struct Key {
  int volume = 0;
  std::uint64_t offset = 0;
  std::uint32_t length = 0;
  // NOLINTNEXTLINE(modernize-use-nullptr): the check takes the comparison with 0 for a pointer's
  auto operator<=>(const Key&) const = default;

  std::uint64_t End() const { return offset + length; }
};

// A buffer: payload 0 is none, any other number names one.
struct Buffer {
  Key key;
  int payload = 0;
  std::uint64_t opaque = 0;
  bool operator==(const Buffer&) const = default;
};

struct Unit {
  std::uint64_t totalBufs = 0;
  bool toXmit = true;
  int payload = 0;
  std::map<int, std::vector<Buffer>> buffers;  // by volume
  bool operator==(const Unit&) const = default;
};

// A finished unit. `key` is empty where the unit's first buffer is the key: the order of volumes in
// a unit is not promised, so any volume's first may be it.
struct QueuedUnit {
  std::optional<Buffer> key;
  Unit unit;
};

struct Range {
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
};

// A buffer's fingerprint, by name; 0 is the one of zeroes.
using Print = int;

// One side's fingerprints, with the buffer that brought each.
using Prints = std::map<Key, std::pair<Buffer, Print>>;

// The block fingerprints of a resync dataset.
struct Requester {
  std::uint64_t maxBlocks = 0;
  std::map<std::uint64_t, std::uint64_t> slots;  // by index
  std::uint64_t offered = 0;
  std::uint64_t announced = 0;
  std::uint64_t lastSent = 0;
};

class DatasetModel {
 public:
  DatasetModel(int id_, std::uint64_t n_, bool resync_) : id(id_), n(n_), resync(resync_) {}

  Code Add(const Buffer& buf, std::uint64_t origSize);
  void CountBlock();
  void Complete();
  void Close();  // as a pipeline does
  Code MarkFinalized(const Buffer& buf);
  Code Finalize(const Buffer& buf, const Unit& unit);
  Code UnitReady(const Unit& unit);
  void ReceiveAll();
  int HasBuffers();
  int DoneBuffers();
  bool IsSealed() const;
  std::size_t HeldCount() const;

  void InitRequester();
  void OfferBlock(std::uint64_t fp);
  Code AddPrint(bool local, Buffer buf, Print print);

  // The facts.
  int id;
  std::uint64_t n;
  bool resync;
  std::uint64_t capacity = 0;
  std::map<int, Range> ranges;
  std::uint64_t timestamp = 0;

  // The state.
  std::map<int, std::vector<Buffer>> held;  // by volume, in order of arrival, rewrites folded
  std::map<int, int> volumeIndex;
  std::set<Key> finalized;
  std::vector<QueuedUnit> units;
  Prints local;
  Prints remote;
  std::optional<Requester> requester;
  std::uint64_t bytes = 0;
  std::uint64_t origBytes = 0;
  std::uint64_t xmitBytes = 0;
  std::uint64_t blocks = 0;
  int working = 0;
  bool waitForNext = true;
  bool complete = false;

  // The callbacks; an empty one is not installed.
  std::function<void(DatasetModel&, const Buffer&)> onNew;
  std::function<void(DatasetModel&, const Buffer&)> onReceived;
  std::function<void(DatasetModel&, const Buffer&)> onFinalized;
  std::function<void()> onXmit;
  std::function<void(std::vector<std::uint64_t>, std::uint64_t)> onSend;

 private:
  // Whether the fingerprints of `key` drop it; a code below 0 while one is missing.
  enum class Verdict { kLocalMissing, kRemoteMissing, kKeep, kDrop };
  Verdict Compare(const Key& key) const;
  void SendIfDue(bool isComplete);
};

}  // namespace model

#endif  // PENSTOCK_TESTS_MODEL_DATASET_MODEL_H_
