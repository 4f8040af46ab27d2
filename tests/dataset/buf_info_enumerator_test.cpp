// SPDX-License-Identifier: Apache-2.0
// Goal: the read cursor over a dataset's units: where it stands, what it copies, and what it says
// when the units have gone. Method: cursors over plain vectors and over datasets that grow between
// the calls.
#include "penstock/buf_info_enumerator.h"

#include <type_traits>

#include "tests/dataset/dataset_fixture.h"

namespace {

using Element = std::pair<InternalData, PipeCompressedData>;
using Elements = std::vector<Element>;

static_assert(std::is_copy_constructible_v<BufInfoEnumerator>);
static_assert(
    std::is_same_v<decltype(std::declval<const BufInfoEnumerator&>().CurrentSize()), std::int64_t>);

class Enumerator : public DatasetTest {
 protected:
  // `count` units; the key of each lies at its index.
  static Elements Some(std::uint64_t count) {
    Elements elements;
    for (std::uint64_t i = 0; i < count; ++i) elements.emplace_back(Buf(1, i, 1), Unit({}));
    return elements;
  }
  // The offset of the current key.
  static std::uint64_t At(BufInfoEnumerator& cursor) {
    Element out;
    EXPECT_TRUE(cursor.Current(out));
    return out.first.offset;
  }
};

TEST_F(Enumerator, StartsInFrontOfTheFirstElement) {
  const Elements elements = Some(3);
  const BufInfoEnumerator cursor(elements, 9);
  EXPECT_EQ(cursor.m_bufs, &elements);
  EXPECT_EQ(cursor.m_idx, -1);
  EXPECT_EQ(cursor.m_dsNum, 9U);
}

TEST_F(Enumerator, OverNothingHasNoNext) {
  const Elements elements;
  BufInfoEnumerator cursor(elements, 7);
  EXPECT_FALSE(cursor.Next());
  EXPECT_FALSE(cursor.Next());
  EXPECT_EQ(cursor.CurrentSize(), 0);
  EXPECT_EQ(cursor.m_idx, -1);
  EXPECT_EQ(Log(), Lines{});
}

TEST_F(Enumerator, WalksThreeElementsAndStaysAtTheLast) {
  const Elements elements = Some(3);
  BufInfoEnumerator cursor(elements, 7);
  for (std::uint64_t i = 0; i < 3; ++i) {
    EXPECT_TRUE(cursor.Next());
    EXPECT_EQ(At(cursor), i);
  }
  EXPECT_FALSE(cursor.Next());
  EXPECT_EQ(cursor.m_idx, 2);
  EXPECT_EQ(At(cursor), 2U);
  EXPECT_FALSE(cursor.Next());
  EXPECT_EQ(At(cursor), 2U);
  EXPECT_EQ(Log(), Lines{});
}

TEST_F(Enumerator, ReportsTheNumberOfElementsWhereverItStands) {
  const Elements elements = Some(3);
  BufInfoEnumerator cursor(elements, 7);
  EXPECT_EQ(cursor.CurrentSize(), 3);
  cursor.Next();
  EXPECT_EQ(cursor.CurrentSize(), 3);
}

TEST_F(Enumerator, ACopyGoesOnByItself) {
  const Elements elements = Some(3);
  BufInfoEnumerator cursor(elements, 7);
  ASSERT_TRUE(cursor.Next());
  BufInfoEnumerator copy(cursor);
  EXPECT_EQ(copy.m_dsNum, 7U);
  EXPECT_TRUE(copy.Next());
  EXPECT_TRUE(copy.Next());
  EXPECT_EQ(At(copy), 2U);
  EXPECT_EQ(At(cursor), 0U);
}

TEST_F(Enumerator, CopiesTheElementAndSharesItsPayloads) {
  Elements elements;
  PipeCompressedData unit = Unit({Buf(1, 0, 8), Buf(2, 16, 8)});
  unit.payload = OM_DP::MakeCompressedData(4);
  unit.toXmit = false;
  InternalData key = BufWithData(1, 0, 8);
  key.opaque = 77;
  elements.emplace_back(key, unit);
  BufInfoEnumerator cursor(elements, 7);
  ASSERT_TRUE(cursor.Next());

  Element out;
  ASSERT_TRUE(cursor.Current(out));
  EXPECT_TRUE(BufInfoEqual{}(out.first, key));
  EXPECT_EQ(out.first.data, key.data);
  EXPECT_EQ(out.first.opaque, 77U);
  EXPECT_EQ(out.second.totalBufs, 2U);
  EXPECT_FALSE(out.second.toXmit);
  EXPECT_EQ(out.second.payload, unit.payload);
  ASSERT_EQ(out.second.origBuffers.size(), 2U);
  EXPECT_EQ(out.second.origBuffers.at(Volume(2)).at(0).offset, 16U);
  EXPECT_EQ(elements[0].second.origBuffers.size(), 2U) << "the element itself stays";
}

TEST_F(Enumerator, ReplacesWhatTheCallerHadInItsPair) {
  const Elements elements = Some(1);
  BufInfoEnumerator cursor(elements, 7);
  ASSERT_TRUE(cursor.Next());
  const auto earlier = OM_DP::MakeCompressedData(4);
  Element out{BufWithData(3, 1, 1), Unit({Buf(3, 1, 1)})};
  out.second.payload = earlier;
  ASSERT_TRUE(cursor.Current(out));
  EXPECT_EQ(out.first.data, nullptr);
  EXPECT_EQ(out.second.payload, nullptr);
  EXPECT_TRUE(out.second.origBuffers.empty());
  EXPECT_EQ(earlier.use_count(), 1);
}

TEST_F(Enumerator, ReportsUnitsThatHaveGoneUnderItsEstablishedName) {
  Elements elements = Some(3);
  BufInfoEnumerator cursor(elements, 7);
  while (cursor.Next()) {
  }
  elements.clear();
  Element out{Buf(9, 9, 9), Unit({Buf(9, 9, 9)})};
  EXPECT_FALSE(cursor.Current(out));
  EXPECT_EQ(Log(), (Lines{"E Current() iterator usage failure  0  2"}));
  EXPECT_EQ(out.first.offset, 9U);
  EXPECT_EQ(out.second.totalBufs, 1U);
  EXPECT_EQ(out.second.origBuffers.size(), 1U);
  EXPECT_EQ(cursor.CurrentSize(), 0);
}

TEST_F(Enumerator, ReportsTheNumberOfElementsThatAreLeft) {
  Elements elements = Some(3);
  BufInfoEnumerator cursor(elements, 7);
  while (cursor.Next()) {
  }
  elements.resize(2);
  Element out;
  EXPECT_FALSE(cursor.Current(out));
  EXPECT_FALSE(cursor.Next());
  EXPECT_EQ(Log(), (Lines{"E Current() iterator usage failure  2  2"}));
}

TEST_F(Enumerator, FindsElementsThatComeLater) {
  Elements elements;
  BufInfoEnumerator cursor(elements, 7);
  EXPECT_FALSE(cursor.Next());
  for (std::uint64_t i = 0; i < 1000; ++i) {  // the vector moves several times
    elements.emplace_back(Buf(1, i, 1), Unit({}));
    ASSERT_TRUE(cursor.Next());
    ASSERT_EQ(At(cursor), i);
    ASSERT_EQ(cursor.CurrentSize(), static_cast<std::int64_t>(i) + 1);
    ASSERT_FALSE(cursor.Next());
  }
}

TEST_F(Enumerator, OfADatasetReadsItsUnitsAsTheyCome) {
  UseNormal();
  BufInfoEnumerator cursor = m_ds->GetEnumerator();
  EXPECT_EQ(cursor.m_bufs, &m_ds->m_compressedBufs);
  EXPECT_EQ(cursor.m_dsNum, 7U);
  EXPECT_EQ(cursor.m_idx, -1);
  EXPECT_EQ(Log(), Lines{});
  for (std::uint64_t i = 0; i < 100; ++i) {
    EXPECT_FALSE(cursor.Next());
    ASSERT_EQ(m_ds->FinalizeBuffer(Buf(1, i, 1)), DS_ERROR_OK);
    ASSERT_TRUE(cursor.Next());
    EXPECT_EQ(At(cursor), i);
  }
}

}  // namespace
