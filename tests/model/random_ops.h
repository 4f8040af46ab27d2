// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_MODEL_RANDOM_OPS_H_
#define PENSTOCK_TESTS_MODEL_RANDOM_OPS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/model/twin.h"

namespace model {

// A small generator (splitmix64): the same numbers from the same seed everywhere.
class Random {
 public:
  explicit Random(std::uint64_t seed) : m_state(seed * 0x9e3779b97f4a7c15U + 1) {}

  std::uint64_t Bits() {
    m_state += 0x9e3779b97f4a7c15U;
    std::uint64_t z = m_state;
    z = (z ^ (z >> 30U)) * 0xbf58476d1ce4e5b9U;
    z = (z ^ (z >> 27U)) * 0x94d049bb133111ebU;
    return z ^ (z >> 31U);
  }
  // A number below `limit`.
  int Below(int limit) { return static_cast<int>(Bits() % static_cast<std::uint64_t>(limit)); }
  bool Percent(int chance) { return Below(100) < chance; }

 private:
  std::uint64_t m_state;
};

// Chooses operations at random and makes them on a twin. Each seed has its own taste: some
// operations are frequent in it, some rare and some missing, so that different seeds reach
// different corners.
class RandomOps {
 public:
  explicit RandomOps(std::uint64_t seed);

  // Makes one operation and compares. Throws Mismatch.
  void Step();

  // The name of the operation that was made last.
  const std::string& LastName() const { return m_lastName; }

 private:
  using Operation = void (RandomOps::*)();
  struct Weighted {
    const char* name;
    int weight;
    Operation make;
  };
  static const std::vector<Weighted>& Table();

  const Weighted& Choose();

  void Push();
  void PushBuffer();
  void Bump();
  void Drop();
  void Reset();
  void Update();
  void Retransmit();
  void AckFront();
  void AckOther();
  void DoneOne();
  void DoneAny();
  void StoreOne();
  void FlushOne();
  void Clear();
  void SetAccept();
  void AddWriter();
  void Query();
  void FinalizeHeld();
  void FinalizeOdd();
  void UnitReady();
  void MarkFinalized();
  void HasBuffers();
  void DoneBuffers();
  void FinishKept();
  void PrintHeld();
  void PrintOdd();
  void Blocks();
  void Complete();
  void SettleNewest();

  DatasetSpec RandomSpec(std::uint64_t n);
  Buffer RandomBuffer(int volumes);
  Buffer WideBuffer();
  Unit RandomUnit();
  const DatasetModel* Pick();
  const Buffer* PickHeld(const DatasetModel& ds);
  template <class Record>
  std::uint64_t RecordNumber(const std::vector<Record>& records);

  Random m_random;
  Twin m_twin;
  std::vector<int> m_weights;
  int m_totalWeight = 0;
  int m_resyncPercent;
  int m_failPercent;
  bool m_wide;  // datasets of hundreds of buffers in this seed
  std::size_t m_step = 0;
  std::string m_lastName;
};

}  // namespace model

#endif  // PENSTOCK_TESTS_MODEL_RANDOM_OPS_H_
