// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_HOST_COVER_INDEX_H_
#define PENSTOCK_HOST_COVER_INDEX_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

#include "penstock/records.h"

// A range of a volume's bytes, [start, end).
struct Span {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
};

// The spans of a coalescer's buffers, so that those inside a new one are found without looking at
// the rest.
//
// A B+ tree ordered by start; equal starts stand in any order. Each inner node knows the smallest
// end below each child: a subtree whose smallest end lies beyond the new span holds nothing that it
// covers and is not entered. Wide nodes, because at a million buffers the cost is the cache misses
// on the way down.
//
// Threads: one at a time.
class CoverIndex {
 public:
  using Item = std::list<InternalData>::iterator;

  CoverIndex();
  ~CoverIndex();

  CoverIndex(const CoverIndex&) = delete;
  CoverIndex& operator=(const CoverIndex&) = delete;

  // Adds an entry; equal spans may stand side by side. When memory runs out, the standard exception
  // passes and the entries are as before. Cost: O(log n).
  void Insert(const Span& span, Item item);

  // Takes out every entry that `span` covers, except the one for `keep`, and erases its item from
  // `items`. Cost: O(log n) for each entry taken out, and once more.
  void EraseCovered(const Span& span, Item keep, std::list<InternalData>& items) noexcept;

 private:
  class Node;
  class Leaf;
  class Inner;
  struct Removal;

  std::unique_ptr<Node> m_root;
  std::size_t m_nodesEntered = 0;  // by the last EraseCovered: its cost, for the tests to see
};

#endif  // PENSTOCK_HOST_COVER_INDEX_H_
