// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_HOST_COALESCER_H_
#define PENSTOCK_HOST_COALESCER_H_

#include <cstddef>
#include <list>
#include <memory>

#include "penstock/export.h"
#include "penstock/host/uuid.h"
#include "penstock/records.h"

class CoverIndex;

// The buffers of one volume of one dataset, in order of arrival, with rewrites folded: a buffer
// that covers an earlier one entirely takes its place at the end, so the last write wins. Partial
// overlaps stay, in order, and neighbours are not merged. A dataset seals when each buffer counted
// here is finalized, so folding is what lets a dataset with a hot block seal.
//
// A buffer whose end lies beyond 2^64 - 1 counts as ending there.
//
// Threads: one at a time; const calls may run at once.
class PENSTOCK_HOST_EXPORT Coalescer {
 public:
  // Makes an empty coalescer for `volume`. The identifier is for the host's own use: what is added
  // is not checked against it.
  explicit Coalescer(const UuidT& volume);
  ~Coalescer();

  Coalescer(const Coalescer&) = delete;
  Coalescer& operator=(const Coalescer&) = delete;

  // Appends `buf` after taking out every buffer that lies entirely inside it, an equal one
  // included, and sets the pending marker. When memory runs out, the standard exception passes
  // and nothing has changed.
  //
  // Owns: a copy of the descriptor, which shares its payload.
  // Cost: O(log n) for each buffer added, those that it later takes out included.
  void AddData(const InternalData& buf);

  // Returns the number of buffers held, after folding. Cost: O(1).
  std::size_t Count() const;

  // Returns the buffers held, oldest first. The reference lives as long as the coalescer; an
  // element lives until a later AddData takes it out.
  const std::list<InternalData>& Buffers() const;

  // Clears the pending marker.
  void ResetPending();

  // Returns whether anything was added since the marker was last cleared. False at first.
  bool Pending() const;

 private:
  [[maybe_unused]] UuidT m_volume;
  std::list<InternalData> m_buffers;
  std::unique_ptr<CoverIndex> m_index;
  bool m_pending = false;
};

#endif  // PENSTOCK_HOST_COALESCER_H_
