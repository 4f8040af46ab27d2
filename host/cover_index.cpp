// SPDX-License-Identifier: Apache-2.0
#include "host/cover_index.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
#include <tuple>
#include <utility>

namespace {

// Opens a gap at `at` in the first `count` elements of `values` and puts `value` there.
template <class Array, class Value>
void InsertAt(Array& values, std::size_t count, std::size_t at, Value&& value) {
  const auto begin = values.begin();
  std::move_backward(begin + static_cast<std::ptrdiff_t>(at),
                     begin + static_cast<std::ptrdiff_t>(count),
                     begin + static_cast<std::ptrdiff_t>(count + 1));
  values[at] = std::forward<Value>(value);
}

// Moves the elements of `from` in [begin, end) to the front of `to`.
template <class Array>
void MoveTail(Array& from, std::size_t begin, std::size_t end, Array& to) {
  std::move(from.begin() + static_cast<std::ptrdiff_t>(begin),
            from.begin() + static_cast<std::ptrdiff_t>(end), to.begin());
}

// Closes the gap at `at` in the first `count` elements of `values`.
template <class Array>
void RemoveAt(Array& values, std::size_t count, std::size_t at) {
  const auto begin = values.begin();
  std::move(begin + static_cast<std::ptrdiff_t>(at + 1), begin + static_cast<std::ptrdiff_t>(count),
            begin + static_cast<std::ptrdiff_t>(at));
}

using Spans = std::array<Span, 32>;

// The first of `count` sorted spans that starts at or after `start`.
std::size_t FirstFrom(const Spans& spans, std::size_t count, std::uint64_t start) {
  const auto end = spans.begin() + static_cast<std::ptrdiff_t>(count);
  return static_cast<std::size_t>(std::lower_bound(spans.begin(), end, Span{start, 0}) -
                                  spans.begin());
}

// The first of `count` sorted spans above `span`.
std::size_t FirstAbove(const Spans& spans, std::size_t count, const Span& span) {
  const auto end = spans.begin() + static_cast<std::ptrdiff_t>(count);
  return static_cast<std::size_t>(std::upper_bound(spans.begin(), end, span) - spans.begin());
}

// Where a full node splits when `next` is on its way into it. Spans that arrive in rising order
// leave nearly full nodes behind, not halves.
std::size_t SplitPoint(const Spans& spans, std::size_t count, const Span& next) {
  return next >= spans[count - 1] ? count - 1 : count / 2;
}

}  // namespace

// A node of the tree. A node that is entered for an insertion always has room: its parent splits it
// beforehand, so that running out of memory on the way down leaves a whole tree.
class CoverIndex::Node {
 public:
  Node() = default;
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;
  virtual ~Node() = default;

  // Adds an entry below. REQUIRES: not full.
  virtual void Insert(const Span& span, Item item) = 0;
  // Moves the upper entries to a new right neighbour. REQUIRES: full.
  virtual std::unique_ptr<Node> Split(const Span& next) = 0;
  virtual void EraseCovered(const Span& span, Item keep,
                            std::list<InternalData>& items) noexcept = 0;
  // The smallest end below; the largest number when empty.
  virtual std::uint64_t MinEnd() const = 0;
  // Gives away the only child of an inner node that has no other; null otherwise.
  virtual std::unique_ptr<Node> TakeOnlyChild() { return nullptr; }

  // The lowest span below. REQUIRES: not empty.
  Span Low() const { return m_spans[0]; }
  bool IsEmpty() const { return m_count == 0; }
  bool IsFull() const { return m_count == m_spans.size(); }

 protected:
  // Of a leaf: the entries' spans. Of an inner node: the lowest span below each child.
  Spans m_spans;
  std::size_t m_count = 0;
};

class CoverIndex::Leaf final : public Node {
 public:
  void Insert(const Span& span, Item item) override {
    const std::size_t at = FirstAbove(m_spans, m_count, span);
    InsertAt(m_spans, m_count, at, span);
    InsertAt(m_items, m_count, at, item);
    ++m_count;
  }

  std::unique_ptr<Node> Split(const Span& next) override {
    auto right = std::make_unique<Leaf>();
    const std::size_t split = SplitPoint(m_spans, m_count, next);
    MoveTail(m_spans, split, m_count, right->m_spans);
    MoveTail(m_items, split, m_count, right->m_items);
    right->m_count = m_count - split;
    m_count = split;
    return right;
  }

  void EraseCovered(const Span& span, Item keep, std::list<InternalData>& items) noexcept override {
    std::size_t i = FirstFrom(m_spans, m_count, span.start);
    while (i < m_count && m_spans[i].start <= span.end) {
      if (!span.Covers(m_spans[i]) || m_items[i] == keep) {
        ++i;
        continue;
      }
      items.erase(m_items[i]);
      RemoveAt(m_spans, m_count, i);
      RemoveAt(m_items, m_count, i);
      --m_count;
    }
  }

  std::uint64_t MinEnd() const override {
    std::uint64_t min = std::numeric_limits<std::uint64_t>::max();
    for (std::size_t i = 0; i < m_count; ++i) min = std::min(min, m_spans[i].end);
    return min;
  }

 private:
  std::array<Item, std::tuple_size_v<Spans>> m_items;
};

class CoverIndex::Inner final : public Node {
 public:
  // Takes `child` as the last one.
  void Append(std::unique_ptr<Node> child) { Put(m_count, std::move(child)); }

  void Insert(const Span& span, Item item) override {
    std::size_t at = ChildFor(span);
    if (m_children[at]->IsFull()) {
      std::unique_ptr<Node> right = m_children[at]->Split(span);
      Refresh(at);
      Put(at + 1, std::move(right));
      at = ChildFor(span);
    }
    m_children[at]->Insert(span, item);
    m_spans[at] = std::min(m_spans[at], span);
    m_minEnd[at] = std::min(m_minEnd[at], span.end);
  }

  std::unique_ptr<Node> Split(const Span& next) override {
    auto right = std::make_unique<Inner>();
    const std::size_t split = SplitPoint(m_spans, m_count, next);
    MoveTail(m_spans, split, m_count, right->m_spans);
    MoveTail(m_minEnd, split, m_count, right->m_minEnd);
    MoveTail(m_children, split, m_count, right->m_children);
    right->m_count = m_count - split;
    m_count = split;
    return right;
  }

  void EraseCovered(const Span& span, Item keep, std::list<InternalData>& items) noexcept override {
    // Entries that start at `span.start` may stand at the end of the child before.
    std::size_t i = FirstFrom(m_spans, m_count, span.start);
    if (i > 0) --i;
    while (i < m_count && m_spans[i].start <= span.end) {
      if (m_minEnd[i] > span.end) {
        ++i;
        continue;
      }
      m_children[i]->EraseCovered(span, keep, items);
      if (m_children[i]->IsEmpty()) {
        RemoveAt(m_spans, m_count, i);
        RemoveAt(m_minEnd, m_count, i);
        RemoveAt(m_children, m_count, i);
        --m_count;
        m_children[m_count].reset();
      } else {
        Refresh(i);
        ++i;
      }
    }
  }

  std::uint64_t MinEnd() const override {
    return *std::min_element(m_minEnd.begin(),
                             m_minEnd.begin() + static_cast<std::ptrdiff_t>(m_count));
  }

  std::unique_ptr<Node> TakeOnlyChild() override {
    return m_count == 1 ? std::move(m_children[0]) : nullptr;
  }

 private:
  // The last child whose lowest span is not above `span`; the first when all are.
  std::size_t ChildFor(const Span& span) const {
    const std::size_t above = FirstAbove(m_spans, m_count, span);
    return above == 0 ? 0 : above - 1;
  }

  void Refresh(std::size_t i) {
    m_spans[i] = m_children[i]->Low();
    m_minEnd[i] = m_children[i]->MinEnd();
  }

  void Put(std::size_t at, std::unique_ptr<Node> child) {
    InsertAt(m_spans, m_count, at, child->Low());
    InsertAt(m_minEnd, m_count, at, child->MinEnd());
    InsertAt(m_children, m_count, at, std::move(child));
    ++m_count;
  }

  std::array<std::uint64_t, std::tuple_size_v<Spans>> m_minEnd;
  std::array<std::unique_ptr<Node>, std::tuple_size_v<Spans>> m_children;
};

CoverIndex::CoverIndex() : m_root(std::make_unique<Leaf>()) {}
CoverIndex::~CoverIndex() = default;

void CoverIndex::Insert(const Span& span, Item item) {
  if (m_root->IsFull()) {
    auto root = std::make_unique<Inner>();
    std::unique_ptr<Node> right = m_root->Split(span);
    root->Append(std::move(m_root));
    root->Append(std::move(right));
    m_root = std::move(root);
  }
  m_root->Insert(span, item);
}

void CoverIndex::EraseCovered(const Span& span, Item keep,
                              std::list<InternalData>& items) noexcept {
  m_root->EraseCovered(span, keep, items);
  while (std::unique_ptr<Node> child = m_root->TakeOnlyChild()) m_root = std::move(child);
}
