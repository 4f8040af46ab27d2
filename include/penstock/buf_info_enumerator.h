// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_BUF_INFO_ENUMERATOR_H_
#define PENSTOCK_BUF_INFO_ENUMERATOR_H_

#include <cstdint>
#include <utility>
#include <vector>

#include "penstock/export.h"
#include "penstock/records.h"

// A read cursor over a dataset's finished units (Dataset::GetEnumerator). Units that are finished
// later are found by a later Next. A plain value: a copy goes on from the same place on its own.
//
// The enumerator does not keep the dataset alive: its user does, with the dataset's shared pointer.
//
// Threads: one at a time, together with the dataset that it reads.
//
//   auto units = ds->GetEnumerator();
//   std::pair<InternalData, PipeCompressedData> unit;
//   while (units.Next()) {
//     if (units.Current(unit)) Send(unit.second);
//   }
class PENSTOCK_EXPORT BufInfoEnumerator {
 public:
  // Makes a cursor in front of the first element of `bufs`, which must outlive it. `n` is the
  // number of the dataset, for the caller's information.
  BufInfoEnumerator(const std::vector<std::pair<InternalData, PipeCompressedData>>& bufs,
                    unsigned long n);
  BufInfoEnumerator(const BufInfoEnumerator& other) = default;
  BufInfoEnumerator& operator=(const BufInfoEnumerator& other) = default;

  // Moves to the next unit. Returns false, and stays, when there is none at the moment.
  bool Next();

  // Returns the number of units that the dataset has finished, not a size in bytes.
  std::int64_t CurrentSize() const;

  // Copies the current unit into `out`, sharing its payloads. Returns false, logs, and leaves `out`
  // alone when the dataset's units have gone since Next.
  //
  // REQUIRES: Next has returned true.
  bool Current(std::pair<InternalData, PipeCompressedData>& out);

 private:
  const std::vector<std::pair<InternalData, PipeCompressedData>>* m_bufs;
  std::int64_t m_idx = -1;
  [[maybe_unused]] std::uint64_t m_dsNum;
};

#endif  // PENSTOCK_BUF_INFO_ENUMERATOR_H_
