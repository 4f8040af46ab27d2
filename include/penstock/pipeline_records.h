// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_PIPELINE_RECORDS_H_
#define PENSTOCK_PIPELINE_RECORDS_H_

#include <cstdint>
#include <iosfwd>
#include <list>
#include <memory>
#include <string>

#include "penstock/export.h"

class Dataset;

// What a pipeline remembers of an accepted dataset until it is reported done. It is ready when
// `done` is set and `stored` or `storeError` is.
struct DoneInfo {
  std::uint64_t n = 0;            // the dataset's number
  std::uint64_t dsTimestamp = 0;  // milliseconds since the epoch, as of its acceptance
  bool done = false;              // Pipeline::Done was called for it
  bool fingerprinted = false;     // it is a resync dataset
  bool success = false;           // the last Done's argument
  bool empty = false;             // the last Done's argument
  bool stored = false;            // it is stored, or never needed to be
  bool storeError = false;        // storing it failed
};

// What a pipeline remembers of a dataset that was reported done until it is reported flushed.
struct FlushInfo {
  std::uint64_t n = 0;            // the dataset's number
  std::uint64_t dsTimestamp = 0;  // milliseconds since the epoch, as of its acceptance
  bool flushed = false;           // Pipeline::Flushed was called for it
  bool fingerprinted = false;     // it is a resync dataset
  bool success = false;           // Done's, and every Flushed's so far
};

// Writes the span of a pipe: nothing when it is empty, its number when the first and the last are
// the same, else "<first> .. <last>".
PENSTOCK_EXPORT void PrintDatasetInfo(std::ostream& os,
                                      const std::list<std::shared_ptr<Dataset>>& pipe);

// Writes the head of a run of records: a blank if `separate`, "1:" or "0:" for the record's mark
// (`done` or `flushed`), and its number. `lastMark` and `lastN` receive the two.
//
// T is DoneInfo or FlushInfo.
template <class T>
void HandleArrived(bool separate, std::ostream& out, bool& lastMark, const T& record,
                   std::uint64_t& lastN);

// Returns the records as runs of equal marks: "1:3..4 0:5..9". A run that another follows ends one
// below the next run's first number, so a gap in the numbering does not show.
//
// T is DoneInfo or FlushInfo.
template <class T>
std::string EmitDonePipe(const std::list<T>& pipe);

extern template PENSTOCK_EXPORT void HandleArrived(bool, std::ostream&, bool&, const DoneInfo&,
                                                   std::uint64_t&);
extern template PENSTOCK_EXPORT void HandleArrived(bool, std::ostream&, bool&, const FlushInfo&,
                                                   std::uint64_t&);
extern template PENSTOCK_EXPORT std::string EmitDonePipe(const std::list<DoneInfo>&);
extern template PENSTOCK_EXPORT std::string EmitDonePipe(const std::list<FlushInfo>&);

#endif  // PENSTOCK_PIPELINE_RECORDS_H_
