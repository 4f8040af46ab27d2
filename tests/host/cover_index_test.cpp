// SPDX-License-Identifier: Apache-2.0
// Goal: the index behind a coalescer finds exactly the covered buffers, whatever the pattern, in
// steps that do not grow with the rest, and survives running out of memory. Method: random runs
// beside a model that looks at every buffer; the nodes entered at two sizes; an operator new that
// fails at every place in turn. The index is hidden in its library, so all goes through Coalescer.
//
// PENSTOCK_SEED=<number> runs the random test of that seed alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <list>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "host/cover_index.h"
#include "penstock/host/coalescer.h"
#include "tests/support/failing_new.h"
#include "tests/support/make.h"

namespace {

constexpr std::uint64_t kCoverMax64 = std::numeric_limits<std::uint64_t>::max();

// What a coalescer promises, by looking at every buffer each time.
class PlainModel {
 public:
  void Add(const InternalData& buf) {
    std::erase_if(m_buffers, [&](const InternalData& old) {
      return buf.offset <= old.offset && End(old) <= End(buf);
    });
    m_buffers.push_back(buf);
  }

  // The first difference from `buffers`, or an empty text.
  std::string DifferenceFrom(const std::list<InternalData>& buffers) const {
    if (buffers.size() != m_buffers.size()) {
      return "holds " + Text(buffers.size()) + " instead of " + Text(m_buffers.size());
    }
    const auto equal = [](const InternalData& a, const InternalData& b) {
      return BufInfoEqual{}(a, b) && a.opaque == b.opaque;
    };
    const auto differ = std::mismatch(m_buffers.begin(), m_buffers.end(), buffers.begin(), equal);
    if (differ.first == m_buffers.end()) return "";
    return "has " + Text(*differ.second) + " instead of " + Text(*differ.first);
  }

 private:
  static std::uint64_t End(const InternalData& buf) {
    const std::uint64_t end = buf.offset + buf.length;
    return end < buf.offset ? kCoverMax64 : end;
  }

  std::vector<InternalData> m_buffers;
};

// Ranges of one of several patterns; the pattern is the seed's remainder.
class RandomRanges {
 public:
  static constexpr std::uint64_t kPatterns = 9;

  explicit RandomRanges(std::uint64_t seed) : m_pattern(seed % kPatterns), m_random(seed) {}

  InternalData Next() {
    InternalData buf = Range();
    buf.opaque = ++m_arrivals;
    return buf;
  }

 private:
  std::uint64_t Below(std::uint64_t bound) { return m_random() % bound; }
  std::uint32_t LengthBelow(std::uint64_t bound) {
    return static_cast<std::uint32_t>(Below(bound));
  }

  InternalData Range() {
    switch (m_pattern) {
      case 0: return Buf(1, Below(64), LengthBelow(16));                // dense, also empty
      case 1: return Buf(1, Below(1'000'000), LengthBelow(20'000));     // sparse
      case 2: return Buf(1, kCoverMax64 - Below(64), LengthBelow(80));  // at the end of all numbers
      case 3: return Buf(1, Below(3), LengthBelow(1'000));              // starts alike
      case 4: return EndingAlike();
      case 5: return Buf(1, 4096 * Below(100), 4096);  // rewritten blocks
      case 6: return Stair(m_arrivals);                // rising overlaps, sometimes all covered
      case 7: return Stair(1'000'000 - m_arrivals);    // the same, falling
      default: return Buf(1, 500 - Below(500), LengthBelow(1'000));  // nested around one place
    }
  }

  InternalData EndingAlike() {
    const std::uint64_t length = Below(1'000);
    return Buf(1, 1'000 + Below(3) - length, static_cast<std::uint32_t>(length));
  }

  InternalData Stair(std::uint64_t step) {
    if (Below(200) == 0) return Buf(1, 0, 2'000'000);
    return Buf(1, step, 500 + LengthBelow(2));
  }

  std::uint64_t m_pattern;
  std::mt19937_64 m_random;
  std::uint64_t m_arrivals = 0;
};

void CompareWithTheModel(std::uint64_t seed) {
  SCOPED_TRACE("PENSTOCK_SEED=" + Text(seed));
  RandomRanges ranges(seed);
  PlainModel model;
  Coalescer coalescer(Volume(1));
  for (int i = 0; i < 800; ++i) {
    const InternalData buf = ranges.Next();
    model.Add(buf);
    coalescer.AddData(buf);
    if (i % 8 == 0 || i > 780) {
      ASSERT_EQ(model.DifferenceFrom(coalescer.Buffers()), "") << "after addition " << i;
    }
    ASSERT_EQ(coalescer.Count(), coalescer.Buffers().size());
  }
}

TEST(CoverIndex, AgreesWithThePlainModel) {
  if (const char* const only = std::getenv("PENSTOCK_SEED"); only != nullptr) {
    std::cout << "PENSTOCK_SEED=" << only << "\n";
    CompareWithTheModel(std::strtoull(only, nullptr, 10));
    return;
  }
  constexpr std::uint64_t kSeeds = 30 * RandomRanges::kPatterns;
  std::cout << "seeds 1 to " << kSeeds << "; PENSTOCK_SEED=<number> runs one\n";
  for (std::uint64_t seed = 1; seed <= kSeeds && !testing::Test::HasFailure(); ++seed) {
    CompareWithTheModel(seed);
  }
}

TEST(CoverIndex, FindsEachOfManyBuffersAgain) {
  constexpr std::uint64_t kSize = 20'000;
  Coalescer coalescer(Volume(1));
  for (std::uint64_t i = 0; i < kSize; ++i) coalescer.AddData(Buf(1, i * 7919 % kSize * 10, 10));
  ASSERT_EQ(coalescer.Count(), kSize);
  for (std::uint64_t i = 0; i < kSize; ++i) {
    coalescer.AddData(Buf(1, i * 6007 % kSize * 10, 10));
    ASSERT_EQ(coalescer.Count(), kSize) << "rewrite " << i;
  }
}

// Buffers that all overlap and of which none covers another.
void AddStairs(Coalescer& coalescer, std::uint64_t first, std::uint64_t count,
               std::uint32_t length) {
  for (std::uint64_t i = 0; i < count; ++i) coalescer.AddData(Buf(1, first + i, length));
}

TEST(CoverIndex, FoldsManyOverlappingBuffersUnderOneThatCoversThem) {
  Coalescer coalescer(Volume(1));
  AddStairs(coalescer, 0, 50'000, 1'000'000);
  EXPECT_EQ(coalescer.Count(), 50'000U);
  coalescer.AddData(Buf(1, 0, 1'000'000 + 49'998));  // all but the last
  EXPECT_EQ(coalescer.Count(), 2U);
}

using Fill = void (*)(Coalescer& coalescer, std::uint64_t size);

// The nodes that 1,000 additions enter in what `fill` made. Each addition starts before all of it
// and ends behind all of its starts, but covers nothing.
std::size_t NodesEnteredIn(Fill fill, std::uint64_t size) {
  Coalescer coalescer(Volume(1));
  fill(coalescer, size);
  AddStairs(coalescer, 0, 1, 2'000'000);
  std::size_t entered = 0;
  for (std::uint64_t i = 1; i <= 1'000; ++i) {
    AddStairs(coalescer, i, 1, 2'000'000);
    entered += coalescer.m_index->m_nodesEntered;
  }
  EXPECT_EQ(coalescer.Count(), size + 1'001);
  return entered;
}

// A hundred times the buffers make a tree of two levels more; looking at each would be a hundred
// times the nodes.
void ExpectHardlyMoreNodesAmongMore(Fill fill) {
  const std::size_t few = NodesEnteredIn(fill, 1'000);
  const std::size_t many = NodesEnteredIn(fill, 100'000);
  EXPECT_GE(few, 1'000U);
  EXPECT_LE(many, 3 * few);
}

TEST(CoverIndex, CostsHardlyMoreAmongManyOverlappingBuffers) {
  ExpectHardlyMoreNodesAmongMore([](Coalescer& coalescer, std::uint64_t size) {
    AddStairs(coalescer, 2'000, size, 1'000'000'000);
  });
}

TEST(CoverIndex, CostsHardlyMoreWhereShortBuffersSplitTheLongOnes) {
  ExpectHardlyMoreNodesAmongMore([](Coalescer& coalescer, std::uint64_t size) {
    for (std::uint64_t i = 0; i < size; ++i) {
      coalescer.AddData(Buf(1, 2'000 + 10 * i, 1'000'000'000));
    }
    // Rising starts leave nodes of 31 behind: one short buffer fills each, the next splits it.
    for (std::uint64_t i = 30; i < size; i += 31) {
      coalescer.AddData(Buf(1, 2'005 + 10 * i, 1));
      coalescer.AddData(Buf(1, 2'007 + 10 * i, 1));
    }
  });
}

TEST(CoverIndex, CostsHardlyMoreWhereShortBuffersWereFolded) {
  ExpectHardlyMoreNodesAmongMore([](Coalescer& coalescer, std::uint64_t size) {
    for (std::uint64_t i = 0; i < size; ++i) coalescer.AddData(Buf(1, 2'000 + 10 * i, 1));
    for (std::uint64_t i = size; i > 0; --i) {  // each covers one short buffer and nothing else
      coalescer.AddData(Buf(1, 1'990 + 10 * i, 1'000'000'000));
    }
  });
}

// Adds `buf`, letting each allocation that this takes fail in turn, and tells how many did.
long AddWithEveryFailure(Coalescer& coalescer, const InternalData& buf, const PlainModel& before) {
  for (long allocations = 0;; ++allocations) {
    try {
      const FailingNew failing(allocations);
      coalescer.AddData(buf);
      return allocations;
    } catch (const std::bad_alloc&) {
    }
    EXPECT_FALSE(coalescer.Pending());
    // Looking at all buffers after each of very many additions would take too long.
    if (coalescer.Count() % 16 == 0 || allocations > 0) {
      EXPECT_EQ(before.DifferenceFrom(coalescer.Buffers()), "");
    }
  }
}

TEST(CoverIndex, IsAsBeforeWhenMemoryRunsOut) {
  for (std::uint64_t seed = 1; seed <= 2 * RandomRanges::kPatterns; ++seed) {
    SCOPED_TRACE("seed " + Text(seed));
    RandomRanges ranges(seed);
    PlainModel model;
    Coalescer coalescer(Volume(1));
    for (int i = 0; i < 400; ++i) {
      const InternalData buf = ranges.Next();
      EXPECT_GE(AddWithEveryFailure(coalescer, buf, model), 1);
      EXPECT_TRUE(coalescer.Pending());
      coalescer.ResetPending();
      model.Add(buf);
    }
    ASSERT_EQ(model.DifferenceFrom(coalescer.Buffers()), "");
  }
}

TEST(CoverIndex, IsAsBeforeWhenMemoryRunsOutInADeepTree) {
  std::mt19937_64 random(1);
  PlainModel model;
  Coalescer coalescer(Volume(1));
  long most = 0;
  for (std::uint64_t i = 0; i < 4'000; ++i) {
    const InternalData buf = Buf(1, random() % 1'000'000, 1'000'000);
    most = std::max(most, AddWithEveryFailure(coalescer, buf, model));
    coalescer.ResetPending();
    model.Add(buf);
  }
  EXPECT_EQ(model.DifferenceFrom(coalescer.Buffers()), "");
  EXPECT_GE(most, 3) << "no addition split the root";
  coalescer.AddData(Buf(1, 0, 3'000'000));
  EXPECT_EQ(coalescer.Count(), 1U);
}

}  // namespace
