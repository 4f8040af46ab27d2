// SPDX-License-Identifier: Apache-2.0
#include "host/cover_index.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
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

constexpr std::size_t kWidth = 32;  // entries of a leaf, children of an inner node
constexpr std::size_t kNodeBytes = kWidth * 3 * sizeof(std::uint64_t);
using Numbers = std::array<std::uint64_t, kWidth>;

// How many of `count` sorted numbers are below `value`. Halving without branches: which way it goes
// is a coin toss for the processor, and a wrong guess costs more than the step.
std::size_t CountBelow(const Numbers& numbers, std::size_t count, std::uint64_t value) {
  const std::uint64_t* base = numbers.data();
  for (std::size_t n = count; n > 0;) {
    const std::size_t half = (n + 1) / 2;
    base += base[half - 1] < value ? half : 0;
    n -= half;
  }
  return static_cast<std::size_t>(base - numbers.data());
}

// How many of `count` sorted numbers are not above `value`.
std::size_t CountUpTo(const Numbers& numbers, std::size_t count, std::uint64_t value) {
  const bool isLast = value == std::numeric_limits<std::uint64_t>::max();
  return isLast ? count : CountBelow(numbers, count, value + 1);
}

// Where a full node splits when `next` is on its way into it. Spans that arrive in rising order
// leave nearly full nodes behind, not halves.
std::size_t SplitPoint(const Numbers& starts, std::uint64_t next) {
  return next >= starts.back() ? kWidth - 1 : kWidth / 2;
}

}  // namespace

// One call of EraseCovered on its way through the tree.
struct CoverIndex::Removal {
  const Span& span;
  Item keep;
  std::list<InternalData>& items;
  std::size_t nodesEntered;
};

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
  virtual std::unique_ptr<Node> Split(std::uint64_t next) = 0;
  // Returns whether anything was taken out.
  virtual bool EraseCovered(Removal& removal) noexcept = 0;
  // Gives away the only child of an inner node that has no other; null otherwise.
  virtual std::unique_ptr<Node> TakeOnlyChild() { return nullptr; }

  // The lowest start below. REQUIRES: not empty.
  std::uint64_t Low() const { return m_starts[0]; }
  // The smallest end below. REQUIRES: not empty.
  std::uint64_t MinEnd() const {
    return *std::min_element(m_ends.begin(), m_ends.begin() + static_cast<std::ptrdiff_t>(m_count));
  }
  // Asks for the whole node at once. An insertion reads and writes most of a node's cache lines,
  // and one after the other they would cost a miss each.
  void Prefetch() const {
    const char* line = reinterpret_cast<const char*>(this);
    for (std::size_t at = 0; at < kNodeBytes; at += 64) __builtin_prefetch(line + at, 1);
  }

  bool IsEmpty() const { return m_count == 0; }
  bool IsFull() const { return m_count == kWidth; }

 protected:
  // Of a leaf: the entries' starts. Of an inner node: the lowest start below each child.
  Numbers m_starts;
  // Of a leaf: the entries' ends. Of an inner node: the smallest end below each child.
  Numbers m_ends;
  std::size_t m_count = 0;
};

class CoverIndex::Leaf final : public Node {
 public:
  void Insert(const Span& span, Item item) override {
    const std::size_t at = CountUpTo(m_starts, m_count, span.start);
    InsertAt(m_starts, m_count, at, span.start);
    InsertAt(m_ends, m_count, at, span.end);
    InsertAt(m_items, m_count, at, item);
    ++m_count;
  }

  std::unique_ptr<Node> Split(std::uint64_t next) override {
    auto right = std::make_unique<Leaf>();
    const std::size_t split = SplitPoint(m_starts, next);
    MoveTail(m_starts, split, m_count, right->m_starts);
    MoveTail(m_ends, split, m_count, right->m_ends);
    MoveTail(m_items, split, m_count, right->m_items);
    right->m_count = m_count - split;
    m_count = split;
    return right;
  }

  bool EraseCovered(Removal& removal) noexcept override {
    ++removal.nodesEntered;
    const Span& span = removal.span;
    const std::size_t before = m_count;
    std::size_t i = CountBelow(m_starts, m_count, span.start);
    while (i < m_count && m_starts[i] <= span.end) {
      if (m_ends[i] > span.end || m_items[i] == removal.keep) {
        ++i;
        continue;
      }
      removal.items.erase(m_items[i]);
      RemoveAt(m_starts, m_count, i);
      RemoveAt(m_ends, m_count, i);
      RemoveAt(m_items, m_count, i);
      --m_count;
    }
    return m_count != before;
  }

 private:
  std::array<Item, kWidth> m_items;
};

class CoverIndex::Inner final : public Node {
 public:
  // Takes `child` as the last one.
  void Append(std::unique_ptr<Node> child) { Put(m_count, std::move(child)); }

  void Insert(const Span& span, Item item) override {
    std::size_t at = ChildFor(span.start);
    m_children[at]->Prefetch();
    if (m_children[at]->IsFull()) {
      std::unique_ptr<Node> right = m_children[at]->Split(span.start);
      Refresh(at);
      Put(at + 1, std::move(right));
      at = ChildFor(span.start);
    }
    m_children[at]->Insert(span, item);
    m_starts[at] = std::min(m_starts[at], span.start);
    m_ends[at] = std::min(m_ends[at], span.end);
  }

  std::unique_ptr<Node> Split(std::uint64_t next) override {
    auto right = std::make_unique<Inner>();
    const std::size_t split = SplitPoint(m_starts, next);
    MoveTail(m_starts, split, m_count, right->m_starts);
    MoveTail(m_ends, split, m_count, right->m_ends);
    MoveTail(m_children, split, m_count, right->m_children);
    right->m_count = m_count - split;
    m_count = split;
    return right;
  }

  bool EraseCovered(Removal& removal) noexcept override {
    ++removal.nodesEntered;
    const Span& span = removal.span;
    bool changed = false;
    // Entries that start at `span.start` may stand at the end of the child before.
    std::size_t i = CountBelow(m_starts, m_count, span.start);
    if (i > 0) --i;
    while (i < m_count && m_starts[i] <= span.end) {
      if (m_ends[i] > span.end || !m_children[i]->EraseCovered(removal)) {
        ++i;
        continue;
      }
      changed = true;
      if (m_children[i]->IsEmpty()) {
        RemoveAt(m_starts, m_count, i);
        RemoveAt(m_ends, m_count, i);
        RemoveAt(m_children, m_count, i);
        --m_count;
        m_children[m_count].reset();
      } else {
        Refresh(i);
        ++i;
      }
    }
    return changed;
  }

  std::unique_ptr<Node> TakeOnlyChild() override {
    return m_count == 1 ? std::move(m_children[0]) : nullptr;
  }

 private:
  // The last child whose lowest start is not above `start`; the first when all are.
  std::size_t ChildFor(std::uint64_t start) const {
    const std::size_t above = CountUpTo(m_starts, m_count, start);
    return above == 0 ? 0 : above - 1;
  }

  void Refresh(std::size_t i) {
    m_starts[i] = m_children[i]->Low();
    m_ends[i] = m_children[i]->MinEnd();
  }

  void Put(std::size_t at, std::unique_ptr<Node> child) {
    InsertAt(m_starts, m_count, at, child->Low());
    InsertAt(m_ends, m_count, at, child->MinEnd());
    InsertAt(m_children, m_count, at, std::move(child));
    ++m_count;
  }

  std::array<std::unique_ptr<Node>, kWidth> m_children;
};

CoverIndex::CoverIndex() : m_root(std::make_unique<Leaf>()) {}
CoverIndex::~CoverIndex() = default;

void CoverIndex::Insert(const Span& span, Item item) {
  if (m_root->IsFull()) {
    auto root = std::make_unique<Inner>();
    std::unique_ptr<Node> right = m_root->Split(span.start);
    root->Append(std::move(m_root));
    root->Append(std::move(right));
    m_root = std::move(root);
  }
  m_root->Insert(span, item);
}

void CoverIndex::EraseCovered(const Span& span, Item keep,
                              std::list<InternalData>& items) noexcept {
  Removal removal{span, keep, items, 0};
  m_root->EraseCovered(removal);
  m_nodesEntered = removal.nodesEntered;
  while (std::unique_ptr<Node> child = m_root->TakeOnlyChild()) m_root = std::move(child);
}
