/// @file XBitmapTest.cpp
/// The bitmap's word-wise searches against a plain loop over bits, on maps small enough to try all of them and on
/// random ones that cross words. The storage handed to the bitmap is exactly as long as its bits need, so that an
/// access beyond it shows under the address sanitizer.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "allocation/XBitmap.h"
#include "support/MemHooks.h"

namespace {

constexpr unsigned NONE = 0xFFFFFFFFu;
constexpr unsigned UNTOUCHED = 0xAAAAAAAAu;

using BITS = std::vector<bool>;

/// The iterator of an element.
template <typename VECTOR>
auto At(VECTOR& vector, unsigned index) {
  return vector.begin() + static_cast<std::ptrdiff_t>(index);
}

/// Random numbers of the same type on every platform.
class CRandom {
 public:
  explicit CRandom(unsigned seed) : m_Engine(seed) {}
  unsigned operator()() { return static_cast<unsigned>(m_Engine()); }

 private:
  std::mt19937 m_Engine;
};

struct RUN {
  unsigned Length;
  unsigned Start;
  bool operator==(const RUN& other) const { return Length == other.Length && Start == other.Start; }
};

std::ostream& operator<<(std::ostream& out, const RUN& run) { return out << run.Length << " at " << run.Start; }

/// A bitmap over storage of the test's own, without a byte to spare.
class CBitmapOver {
 public:
  explicit CBitmapOver(const BITS& bits) : m_Storage((bits.size() + 7) / 8) {
    for (std::size_t n = 0; n < bits.size(); ++n) {
      if (bits[n]) m_Storage[n / 8] = static_cast<unsigned char>(m_Storage[n / 8] | 1u << n % 8);
    }
    m_Map.Initialize(m_Storage.data(), static_cast<unsigned>(bits.size()));
  }
  CBitmap& operator*() { return m_Map; }
  CBitmap* operator->() { return &m_Map; }
  unsigned char Byte(unsigned index) const { return m_Storage[index]; }

 private:
  std::vector<unsigned char> m_Storage;
  CBitmap m_Map;
};

/// Bitmap that owns its memory and gives it back.
class COwnedBitmap : public CBitmap {
 public:
  ~COwnedBitmap() { FreeMem(); }
};

BITS BitsOf(const CBitmap& map) {
  BITS bits;
  for (unsigned n = 0; n < map.Size(); ++n) bits.push_back(map.TestBit(n));
  return bits;
}

BITS AllSetBut(unsigned size, std::initializer_list<std::pair<unsigned, unsigned>> clearRanges) {
  BITS bits(size, true);
  for (const auto& [first, last] : clearRanges) std::fill(At(bits, first), At(bits, last + 1), false);
  return bits;
}

// ------------------------------------------------------------------------------------------- the twin: one bit at a
// time

/// The start of the lowest run of `count` bits equal to `value` that starts in first .. last.
unsigned TwinLowestFit(const BITS& bits, bool value, unsigned count, unsigned first, unsigned last) {
  const auto size = static_cast<unsigned>(bits.size());
  for (unsigned start = first; start <= last && start + count <= size; ++start) {
    unsigned length = 0;
    while (length < count && bits[start + length] == value) ++length;
    if (length == count) return start;
  }
  return NONE;
}

unsigned TwinFind(const BITS& bits, bool value, unsigned count, unsigned hint) {
  const auto size = static_cast<unsigned>(bits.size());
  if (count == 0 || size == 0) return NONE;
  if (hint >= size) hint = 0;
  const unsigned start = TwinLowestFit(bits, value, count, hint, size - 1);
  if (start != NONE || hint == 0) return start;
  return TwinLowestFit(bits, value, count, 0, hint - 1);
}

RUN TwinForward(const BITS& bits, unsigned from) {
  if (from >= bits.size()) return {0, from};
  unsigned first = from;
  while (first < bits.size() && bits[first]) ++first;
  if (first == bits.size()) return {0, UNTOUCHED};
  unsigned end = first;
  while (end < bits.size() && !bits[end]) ++end;
  return {end - first, first};
}

RUN TwinBackward(const BITS& bits, unsigned from) {
  if (from >= bits.size()) return {0, from};
  unsigned end = from + 1;
  while (end > 0 && bits[end - 1]) --end;
  if (end == 0) return {0, UNTOUCHED};
  unsigned start = end;
  while (start > 0 && !bits[start - 1]) --start;
  return {end - start, start};
}

/// All clear runs in the order of listing: ascending, but those inside one byte (touching neither of its ends) longest
/// first.
std::vector<RUN> TwinRuns(const BITS& bits) {
  std::vector<RUN> runs;
  for (unsigned n = 0; n < bits.size(); ++n) {
    if (bits[n]) continue;
    if (n == 0 || bits[n - 1]) runs.push_back({0, n});
    ++runs.back().Length;
  }
  const auto isInside = [](const RUN& run) {
    const unsigned end = run.Start + run.Length;
    return run.Start / 8 == (end - 1) / 8 && run.Start % 8 != 0 && end % 8 != 0;
  };
  for (auto from = runs.begin(); from != runs.end();) {
    auto to = from + 1;
    if (isInside(*from)) {
      while (to != runs.end() && isInside(*to) && to->Start / 8 == from->Start / 8) ++to;
      std::stable_sort(from, to, [](const RUN& a, const RUN& b) { return a.Length > b.Length; });
    }
    from = to;
  }
  return runs;
}

std::vector<RUN> Listed(CBitmap& map, unsigned capacity, unsigned (CBitmap::*search)(CBmpRunArray*)) {
  std::vector<BMP_RUN> memory(capacity, BMP_RUN{UNTOUCHED, UNTOUCHED});
  CBmpRunArray array(memory.data(), capacity);
  const unsigned count = (map.*search)(&array);
  std::vector<RUN> runs;
  for (unsigned i = 0; i < capacity; ++i) {
    if (i < count)
      runs.push_back({array[i].Length, array[i].Start});
    else
      EXPECT_EQ(array[i].Length, 0u);
  }
  EXPECT_LE(count, capacity);
  return runs;
}

/// Compares every search that takes no count with the twin.
void ExpectSearchesLikeTwin(const BITS& bits, const std::vector<unsigned>& positions) {
  CBitmapOver map(bits);
  for (unsigned from : positions) {
    unsigned start = UNTOUCHED;
    unsigned length = map->FindNextForward_0_Run(from, &start);
    ASSERT_EQ((RUN{length, start}), TwinForward(bits, from)) << "from " << from;
    start = UNTOUCHED;
    length = map->FindLastBackward_0_Run(from, &start);
    ASSERT_EQ((RUN{length, start}), TwinBackward(bits, from)) << "from " << from;
  }

  const auto clear = static_cast<unsigned>(std::count(bits.begin(), bits.end(), false));
  ASSERT_EQ(map->NumberOf_0_Bits(), clear);
  ASSERT_EQ(map->NumberOf_1_Bits(), bits.size() - clear);

  const std::vector<RUN> runs = TwinRuns(bits);
  std::vector<RUN> sorted = runs;
  std::stable_sort(sorted.begin(), sorted.end(), [](const RUN& a, const RUN& b) { return a.Length > b.Length; });
  unsigned start = UNTOUCHED;
  const unsigned longest = map->FindLongest_0_Run(&start);
  ASSERT_EQ((RUN{longest, start}), sorted.empty() ? (RUN{0, 0}) : sorted.front());
  const auto all = static_cast<unsigned>(runs.size());
  for (unsigned capacity : {0u, 1u, 2u, all / 2, all, all + 3}) {
    const unsigned listed = std::min(capacity, all);
    ASSERT_EQ(Listed(*map, capacity, &CBitmap::Find_0_Runs), std::vector<RUN>(runs.begin(), At(runs, listed)));
    ASSERT_EQ(Listed(*map, capacity, &CBitmap::FindLongest_0_Runs),
              std::vector<RUN>(sorted.begin(), At(sorted, listed)));
  }
  ASSERT_EQ(BitsOf(*map), bits);
}

void ExpectFindsLikeTwin(const BITS& bits, const std::vector<unsigned>& counts, const std::vector<unsigned>& hints) {
  CBitmapOver map(bits);
  for (unsigned count : counts) {
    for (unsigned hint : hints) {
      ASSERT_EQ(map->Find_0_Bits(count, hint), TwinFind(bits, false, count, hint)) << count << " from " << hint;
      ASSERT_EQ(map->Find_1_Bits(count, hint), TwinFind(bits, true, count, hint)) << count << " from " << hint;
    }
  }
  ASSERT_EQ(BitsOf(*map), bits);
}

std::vector<unsigned> UpTo(unsigned last) {
  std::vector<unsigned> numbers;
  for (unsigned n = 0; n <= last; ++n) numbers.push_back(n);
  return numbers;
}

/// Runs of random lengths with a random mean for either value: from single bits to whole words.
BITS RandomBits(CRandom& random, unsigned size) {
  static const unsigned MEANS[] = {1, 2, 5, 14, 40, 100, 300};
  const unsigned means[2] = {MEANS[random() % 7], MEANS[random() % 7]};
  BITS bits;
  for (bool value = random() % 2 == 0; bits.size() < size; value = !value)
    bits.insert(bits.end(), 1 + random() % (2 * means[value ? 1 : 0]), value);
  bits.resize(size);
  return bits;
}

// Around the ends of bytes and of words of both widths, and a few beyond.
const std::vector<unsigned>& Sizes() {
  static const std::vector<unsigned> sizes = [] {
    std::vector<unsigned> made = UpTo(80);
    for (unsigned size : {95u, 96u, 97u, 127u, 128u, 129u, 191u, 192u, 193u, 255u, 256u, 257u, 500u, 1000u, 1024u})
      made.push_back(size);
    return made;
  }();
  return sizes;
}

// ------------------------------------------------------------------------------------------------------ first fit

TEST(Bitmap, FreeRunsBelowAndAboveTheHint_FirstFitTakesTheOneAbove) {
  CBitmapOver map(AllSetBut(32, {{1, 3}, {20, 22}}));
  EXPECT_EQ(map->Find_0_Bits(3, 5), 20u);
}

TEST(Bitmap, FreeRunOnlyBelowTheHint_IsFoundInTheSecondPass) {
  CBitmapOver map(AllSetBut(32, {{1, 3}}));
  EXPECT_EQ(map->Find_0_Bits(3, 5), 1u);
}

TEST(Bitmap, NothingFits_FindsNothingWhateverTheHint) {
  CBitmapOver map(AllSetBut(32, {{1, 3}}));
  EXPECT_EQ(map->Find_0_Bits(4, 0), NONE);
  EXPECT_EQ(map->Find_0_Bits(4, 5), NONE);
}

TEST(Bitmap, RunBeginsBelowTheHintAndReachesPastIt_IsFoundInTheSecondPass) {
  CBitmapOver map(AllSetBut(200, {{90, 150}}));
  EXPECT_EQ(map->Find_0_Bits(61, 120), 90u);
  EXPECT_EQ(map->Find_0_Bits(31, 120), 120u);
  EXPECT_EQ(map->Find_0_Bits(32, 120), 90u);
}

TEST(Bitmap, HintAtOrBeyondTheSize_CountsAs0) {
  CBitmapOver map(AllSetBut(32, {{1, 3}, {20, 22}}));
  EXPECT_EQ(map->Find_0_Bits(3, 32), 1u);
  EXPECT_EQ(map->Find_0_Bits(3, NONE), 1u);
  EXPECT_EQ(map->Find_1_Bits(4, 32), 4u);
}

TEST(Bitmap, MapOf13ClearBits_Holds13ButNot14AndItsPaddingGetsSet) {
  CBitmapOver map(BITS(13, false));
  EXPECT_EQ(map->Find_0_Bits(13, 0), 0u);
  EXPECT_EQ(map->Find_0_Bits(14, 0), NONE);
  EXPECT_EQ(map.Byte(0), 0x00);
  EXPECT_EQ(map.Byte(1), 0xE0);
}

TEST(Bitmap, MapOf13SetBits_Holds13ButNot14AndItsPaddingGetsCleared) {
  CBitmapOver map(BITS(13, true));
  map->SetAllBits();
  EXPECT_EQ(map.Byte(1), 0xFF);
  EXPECT_EQ(map->Find_1_Bits(13, 0), 0u);
  EXPECT_EQ(map->Find_1_Bits(14, 0), NONE);
  EXPECT_EQ(map.Byte(1), 0x1F);
}

TEST(Bitmap, RunOfNoBits_IsNotFound) {
  CBitmapOver map(BITS(64, false));
  EXPECT_EQ(map->Find_0_Bits(0, 0), NONE);
  EXPECT_EQ(map->Find_1_Bits(0, 0), NONE);
  EXPECT_EQ(map->Find_0_Bits_Set(0, 5), NONE);
  EXPECT_EQ(map->Find_1_Bits_Clear(0, 5), NONE);
}

TEST(Bitmap, HugeCount_IsNotFound) {
  CBitmapOver map(BITS(100, false));
  for (unsigned hint : {0u, 1u, 63u, 99u}) {
    EXPECT_EQ(map->Find_0_Bits(101, hint), NONE);
    EXPECT_EQ(map->Find_0_Bits(0xFFFFFFF0u, hint), NONE);
    EXPECT_EQ(map->Find_0_Bits(0xFFFFFFFFu, hint), NONE);
  }
}

TEST(Bitmap, FindAndSet_TakesTheRunUntilNoneIsLeft) {
  CBitmapOver map(AllSetBut(40, {{3, 12}, {30, 39}}));
  EXPECT_EQ(map->Find_0_Bits_Set(8, 5), 5u);
  EXPECT_TRUE(map->AreBitsSet(5, 25));
  EXPECT_TRUE(map->AreBitsClear(3, 2));
  EXPECT_EQ(map->Find_0_Bits_Set(8, 5), 30u);
  EXPECT_EQ(map->Find_0_Bits_Set(8, 5), NONE);
  EXPECT_EQ(map->NumberOf_0_Bits(), 4u);
}

TEST(Bitmap, FindAndClear_TakesTheRunUntilNoneIsLeft) {
  CBitmapOver map(BITS(40, false));
  map->SetBits(3, 10);
  map->SetBits(30, 10);
  EXPECT_EQ(map->Find_1_Bits_Clear(8, 5), 5u);
  EXPECT_EQ(map->Find_1_Bits_Clear(8, 5), 30u);
  EXPECT_EQ(map->Find_1_Bits_Clear(8, 5), NONE);
  EXPECT_EQ(map->NumberOf_1_Bits(), 4u);
}

TEST(Bitmap, EverySmallMapCountAndHint_FindsWhatABitLoopFinds) {
  for (unsigned size = 0; size <= 10; ++size) {
    const std::vector<unsigned> numbers = UpTo(size + 1);
    for (unsigned value = 0; value < 1u << size; ++value) {
      SCOPED_TRACE(testing::Message() << size << " bits, value " << value);
      BITS bits(size);
      for (unsigned n = 0; n < size; ++n) bits[n] = (value >> n & 1) != 0;
      ExpectFindsLikeTwin(bits, numbers, numbers);
      ExpectSearchesLikeTwin(bits, numbers);
      if (HasFatalFailure()) return;
    }
  }
}

TEST(Bitmap, EveryCountAndHintOnMapsOfAFewWords_FindsWhatABitLoopFinds) {
  CRandom random(2);
  for (unsigned size : {63u, 64u, 65u, 100u, 130u}) {
    for (unsigned round = 0; round < 4; ++round) {
      SCOPED_TRACE(testing::Message() << size << " bits, round " << round);
      ExpectFindsLikeTwin(RandomBits(random, size), UpTo(size + 1), UpTo(size + 1));
      if (HasFatalFailure()) return;
    }
  }
}

TEST(Bitmap, RandomMapsOfManySizes_FindWhatABitLoopFinds) {
  for (unsigned seed = 0; seed < 12; ++seed) {
    CRandom random(seed);
    for (unsigned size : Sizes()) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << ", " << size << " bits");
      const BITS bits = RandomBits(random, size);
      std::vector<unsigned> counts = {1, 2, 7, 8, 9, 10, 14, 15, 16, 31, 32, 33, 63, 64, 65, 127, 128};
      std::vector<unsigned> hints = {0, size, size + 1};
      for (unsigned i = 0; i < 6; ++i) {
        counts.push_back(1 + random() % (size + 1));
        hints.push_back(random() % (size + 1));
      }
      ExpectFindsLikeTwin(bits, counts, hints);
      ExpectSearchesLikeTwin(bits, hints);
      if (HasFatalFailure()) return;
    }
  }
}

TEST(Bitmap, OneRunAtEveryPlaceOfAMap_IsFoundExactly) {
  constexpr unsigned SIZE = 140;
  for (unsigned length : {1u, 8u, 9u, 10u, 14u, 15u, 31u, 32u, 33u, 62u, 63u, 64u, 65u, 100u}) {
    for (unsigned start = 0; start + length <= SIZE; ++start) {
      CBitmapOver map(AllSetBut(SIZE, {{start, start + length - 1}}));
      ASSERT_EQ(map->Find_0_Bits(length, 0), start) << length;
      ASSERT_EQ(map->Find_0_Bits(length, start), start) << length;
      ASSERT_EQ(map->Find_0_Bits(length, start + 1), start) << length;
      ASSERT_EQ(map->Find_0_Bits(length + 1, 0), NONE) << length << " at " << start;
    }
  }
}

TEST(Bitmap, MapOfMillionsOfBits_FindsItsOnlyLongRun) {
  COwnedBitmap map;
  ASSERT_EQ(map.AllocMem(20000003), STATUS_SUCCESS);
  map.ClearAllBits();
  for (unsigned n = 0; n < 20000003; n += 1000) map.SetBit(n);  // runs of 999
  map.ClearBit(19999000);
  EXPECT_EQ(map.Find_0_Bits(1000, 0), 19998001u);
  EXPECT_EQ(map.Find_0_Bits(1999, 5), 19998001u);
  EXPECT_EQ(map.Find_0_Bits(2000, 19999000), NONE);
  EXPECT_EQ(map.Find_0_Bits(999, 12345678), 12346001u);
  unsigned start = UNTOUCHED;
  EXPECT_EQ(map.FindLongest_0_Run(&start), 1999u);
  EXPECT_EQ(start, 19998001u);
  EXPECT_EQ(map.NumberOf_1_Bits(), 20000u);
}

// ------------------------------------------------------------------------------------------------------ run searches

TEST(Bitmap, ForwardSearchFromTheEnd_GivesNoRunAndTheStartIsWhereItBegan) {
  CBitmapOver map(BITS(20, false));
  for (unsigned from : {20u, 21u, NONE}) {
    unsigned start = UNTOUCHED;
    EXPECT_EQ(map->FindNextForward_0_Run(from, &start), 0u);
    EXPECT_EQ(start, from);
    start = UNTOUCHED;
    EXPECT_EQ(map->FindLastBackward_0_Run(from, &start), 0u);
    EXPECT_EQ(start, from);
  }
}

TEST(Bitmap, ForwardSearchWithOnlySetBitsAhead_GivesNoRunAndLeavesTheStart) {
  CBitmapOver map(AllSetBut(100, {{2, 9}}));
  for (unsigned from : {10u, 63u, 64u, 99u}) {
    unsigned start = UNTOUCHED;
    EXPECT_EQ(map->FindNextForward_0_Run(from, &start), 0u);
    EXPECT_EQ(start, UNTOUCHED);
  }
}

TEST(Bitmap, ForwardSearchForABit_FindsWhereTheRunBegins) {
  CBitmapOver map(AllSetBut(200, {{50, 149}}));
  unsigned start;
  EXPECT_TRUE(map->FindNextForward_0_Bit(0, &start));
  EXPECT_EQ(start, 50u);
  EXPECT_TRUE(map->FindNextForward_0_Bit(80, &start));
  EXPECT_EQ(start, 80u);
  start = UNTOUCHED;
  EXPECT_FALSE(map->FindNextForward_0_Bit(150, &start));
  EXPECT_EQ(start, UNTOUCHED);
  EXPECT_FALSE(map->FindNextForward_0_Bit(200, &start));
  EXPECT_EQ(start, 200u);
}

TEST(Bitmap, BackwardSearchWithOnlySetBitsBelow_GivesNoRunAndLeavesTheStart) {
  CBitmapOver map(AllSetBut(100, {{90, 99}}));
  for (unsigned from : {0u, 63u, 64u, 89u}) {
    unsigned start = UNTOUCHED;
    EXPECT_EQ(map->FindLastBackward_0_Run(from, &start), 0u);
    EXPECT_EQ(start, UNTOUCHED);
  }
}

TEST(Bitmap, SearchFromInsideARun_GivesThePartAheadOfIt) {
  CBitmapOver map(AllSetBut(200, {{50, 149}}));
  unsigned start;
  EXPECT_EQ(map->FindNextForward_0_Run(0, &start), 100u);
  EXPECT_EQ(start, 50u);
  EXPECT_EQ(map->FindNextForward_0_Run(80, &start), 70u);
  EXPECT_EQ(start, 80u);
  EXPECT_EQ(map->FindLastBackward_0_Run(80, &start), 31u);
  EXPECT_EQ(start, 50u);
  EXPECT_EQ(map->FindLastBackward_0_Run(199, &start), 100u);
  EXPECT_EQ(start, 50u);
}

TEST(Bitmap, RunsToTheEndsOfTheMap_StopThere) {
  CBitmapOver map(BITS(77, false));
  unsigned start;
  EXPECT_EQ(map->FindNextForward_0_Run(3, &start), 74u);
  EXPECT_EQ(start, 3u);
  EXPECT_EQ(map->FindLastBackward_0_Run(76, &start), 77u);
  EXPECT_EQ(start, 0u);
}

TEST(Bitmap, TwoLongestRunsOfEqualLength_TheLowerOneWins) {
  CBitmapOver map(AllSetBut(64, {{2, 4}, {10, 14}, {40, 44}}));
  unsigned start;
  EXPECT_EQ(map->FindLongest_0_Run(&start), 5u);
  EXPECT_EQ(start, 10u);
}

TEST(Bitmap, NoClearBit_LongestRunIsNoneAt0) {
  CBitmapOver map(BITS(30, true));
  unsigned start = UNTOUCHED;
  EXPECT_EQ(map->FindLongest_0_Run(&start), 0u);
  EXPECT_EQ(start, 0u);
}

TEST(Bitmap, RunsInsideAByte_AreListedLongestFirstBeforeTheOneAtItsTop) {
  // byte 0: bits 1 and 3..4 and 7 are clear; byte 1: bit 0
  CBitmapOver map(AllSetBut(16, {{1, 1}, {3, 4}, {7, 8}}));
  EXPECT_EQ(Listed(*map, 8, &CBitmap::Find_0_Runs), (std::vector<RUN>{{2, 3}, {1, 1}, {2, 7}}));
  EXPECT_EQ(Listed(*map, 2, &CBitmap::Find_0_Runs), (std::vector<RUN>{{2, 3}, {1, 1}}));
  EXPECT_EQ(Listed(*map, 8, &CBitmap::FindLongest_0_Runs), (std::vector<RUN>{{2, 3}, {2, 7}, {1, 1}}));
}

// ------------------------------------------------------------------------------------------------------ run array

std::vector<RUN> Inserted(unsigned capacity, const std::vector<RUN>& runs,
                          void (CBmpRunArray::*insert)(unsigned&, unsigned, unsigned)) {
  std::vector<BMP_RUN> memory(capacity);
  CBmpRunArray array(memory.data(), capacity);
  array.Clear();
  unsigned count = 0;
  for (const RUN& run : runs) (array.*insert)(count, run.Length, run.Start);
  std::vector<RUN> result;
  for (unsigned i = 0; i < count; ++i) result.push_back({array[i].Length, array[i].Start});
  EXPECT_EQ(array.IsFull(count), count == capacity);
  return result;
}

TEST(BmpRunArray, EqualLengthsIntoAFullSortedArray_KeepTheFirstOnes) {
  EXPECT_EQ(Inserted(2, {{4, 10}, {4, 20}, {4, 30}}, &CBmpRunArray::InsertSortDes),
            (std::vector<RUN>{{4, 10}, {4, 20}}));
}

TEST(BmpRunArray, SortedInsertion_KeepsTheLongestInOrder) {
  EXPECT_EQ(Inserted(3, {{2, 1}, {9, 2}, {5, 3}, {1, 4}, {5, 5}, {9, 6}, {7, 7}}, &CBmpRunArray::InsertSortDes),
            (std::vector<RUN>{{9, 2}, {9, 6}, {7, 7}}));
  EXPECT_EQ(Inserted(5, {{2, 1}, {9, 2}, {5, 3}, {5, 4}}, &CBmpRunArray::InsertSortDes),
            (std::vector<RUN>{{9, 2}, {5, 3}, {5, 4}, {2, 1}}));
}

TEST(BmpRunArray, PlainInsertion_KeepsTheOrderAndStopsAtTheCapacity) {
  EXPECT_EQ(Inserted(2, {{2, 1}, {9, 2}, {5, 3}}, &CBmpRunArray::Insert), (std::vector<RUN>{{2, 1}, {9, 2}}));
}

TEST(BmpRunArray, NoCapacity_TakesNothing) {
  EXPECT_TRUE(Inserted(0, {{2, 1}, {9, 2}}, &CBmpRunArray::Insert).empty());
  EXPECT_TRUE(Inserted(0, {{2, 1}, {9, 2}}, &CBmpRunArray::InsertSortDes).empty());
}

TEST(BmpRunArray, EveryTripleOfShortRuns_IsSortedStably) {
  for (unsigned a = 1; a <= 4; ++a) {
    for (unsigned b = 1; b <= 4; ++b) {
      for (unsigned c = 1; c <= 4; ++c) {
        const std::vector<RUN> runs = {{a, 1}, {b, 2}, {c, 3}};
        std::vector<RUN> sorted = runs;
        std::stable_sort(sorted.begin(), sorted.end(), [](const RUN& x, const RUN& y) { return x.Length > y.Length; });
        for (unsigned capacity = 1; capacity <= 4; ++capacity) {
          EXPECT_EQ(Inserted(capacity, runs, &CBmpRunArray::InsertSortDes),
                    std::vector<RUN>(sorted.begin(), At(sorted, std::min(capacity, 3u))));
        }
      }
    }
  }
}

TEST(BmpRunArray, Run_IsItsLengthAndThenItsStart) {
  EXPECT_EQ(offsetof(BMP_RUN, Length), 0u);
  EXPECT_EQ(offsetof(BMP_RUN, Start), 4u);
  EXPECT_EQ(sizeof(BMP_RUN), 8u);
}

TEST(BmpRunArray, Cleared_AllLengthsAre0) {
  BMP_RUN memory[3] = {{1, 2}, {3, 4}, {5, 6}};
  CBmpRunArray array(memory, 3);
  array.Clear();
  for (unsigned i = 0; i < array.Capacity(); ++i) EXPECT_EQ(array[i].Length, 0u);
}

// ------------------------------------------------------------------------------------------------------ single values

TEST(Bitmap, MostAndLeastSignificantBit_AreTheHighestAndLowestOnes) {
  EXPECT_EQ(CBitmap::FindMostSignificantBit(0), NONE);
  EXPECT_EQ(CBitmap::FindLeastSignificantBit(0), NONE);
  EXPECT_EQ(CBitmap::FindMostSignificantBit(0x8000000000000001u), 63u);
  EXPECT_EQ(CBitmap::FindLeastSignificantBit(0x8000000000000001u), 0u);
  for (unsigned high = 0; high < 64; ++high) {
    for (unsigned low = 0; low <= high; ++low) {
      const unsigned long long value = 1ull << high | 1ull << low;
      EXPECT_EQ(CBitmap::FindMostSignificantBit(value), high);
      EXPECT_EQ(CBitmap::FindLeastSignificantBit(value), low);
    }
  }
}

TEST(Bitmap, RunInsideAByte_IsFoundAtItsLowestPlace) {
  EXPECT_EQ(CBitmap::GetLeftShiftOf_0_Bits(2, 0x93), 2u);  // 1001 0011
  EXPECT_EQ(CBitmap::GetLeftShiftOf_1_Bits(2, 0x98), 3u);  // 1001 1000
  for (unsigned byte = 0; byte < 256; ++byte) {
    for (unsigned count = 1; count <= 8; ++count) {
      BITS bits(8);
      for (unsigned n = 0; n < 8; ++n) bits[n] = (byte >> n & 1) != 0;
      const auto value = static_cast<unsigned char>(byte);
      ASSERT_EQ(CBitmap::GetLeftShiftOf_0_Bits(count, value), TwinLowestFit(bits, false, count, 0, 7));
      ASSERT_EQ(CBitmap::GetLeftShiftOf_1_Bits(count, value), TwinLowestFit(bits, true, count, 0, 7));
    }
    ASSERT_EQ(CBitmap::GetLeftShiftOf_0_Bits(9, static_cast<unsigned char>(byte)), NONE);
  }
}

// ------------------------------------------------------------------------------------------------------ bits and
// ranges

TEST(Bitmap, BitN_LiesInByteNOver8LeastSignificantFirst) {
  for (unsigned n = 0; n < 24; ++n) {
    CBitmapOver map(BITS(24, false));
    map->SetBit(n);
    for (unsigned byte = 0; byte < 3; ++byte) EXPECT_EQ(map.Byte(byte), byte == n / 8 ? 1u << n % 8 : 0u);
    EXPECT_TRUE(map->TestBit(n));
    map->ClearBit(n);
    EXPECT_EQ(map.Byte(n / 8), 0u);
  }
}

TEST(Bitmap, EmptyRange_IsNeitherClearNorSet) {
  CBitmapOver map(AllSetBut(32, {{0, 15}}));
  for (unsigned start : {0u, 8u, 20u, 32u, 33u, NONE}) {
    EXPECT_FALSE(map->AreBitsClear(start, 0));
    EXPECT_FALSE(map->AreBitsSet(start, 0));
  }
}

TEST(Bitmap, RangePastTheSize_IsNeitherClearNorSet) {
  CBitmapOver clear(BITS(13, false));
  EXPECT_TRUE(clear->AreBitsClear(3, 10));
  EXPECT_FALSE(clear->AreBitsClear(3, 11));
  EXPECT_FALSE(clear->AreBitsClear(13, 1));
  EXPECT_FALSE(clear->AreBitsClear(5, 0xFFFFFFFFu));  // the sum wraps to 4
  CBitmapOver set(BITS(13, true));
  EXPECT_TRUE(set->AreBitsSet(3, 10));
  EXPECT_FALSE(set->AreBitsSet(3, 11));
  EXPECT_FALSE(set->AreBitsSet(5, 0xFFFFFFFFu));
}

TEST(Bitmap, EveryRangeOfAMap_IsSetClearedAndTestedLikeBitByBit) {
  constexpr unsigned SIZE = 75;
  CRandom random(3);
  for (unsigned start = 0; start < SIZE; ++start) {
    for (unsigned count = 0; start + count <= SIZE; ++count) {
      BITS bits = RandomBits(random, SIZE);
      CBitmapOver map(bits);
      const auto first = At(bits, start);
      const auto end = At(bits, start + count);
      ASSERT_EQ(map->AreBitsClear(start, count), count != 0 && std::count(first, end, true) == 0);
      ASSERT_EQ(map->AreBitsSet(start, count), count != 0 && std::count(first, end, false) == 0);
      const bool set = random() % 2 == 0;
      set ? map->SetBits(start, count) : map->ClearBits(start, count);
      std::fill(first, end, set);
      ASSERT_EQ(BitsOf(*map), bits) << start << ", " << count;
      ASSERT_EQ(set ? map->AreBitsSet(start, count) : map->AreBitsClear(start, count), count != 0);
    }
  }
}

TEST(Bitmap, BitsAtOrAboveTheSize_AreIgnored) {
  CBitmapOver map(BITS(13, false));
  for (unsigned n : {13u, 15u, 16u, 1000u, NONE}) {
    map->SetBit(n);
    EXPECT_FALSE(map->TestBit(n));
  }
  EXPECT_EQ(map.Byte(1), 0x00);
  map->SetBits(13, 3);
  map->SetBits(NONE, NONE);
  EXPECT_EQ(map.Byte(1), 0x00);
  map->SetBits(12, NONE);
  EXPECT_EQ(map.Byte(1), 0x10);
  map->SetAllBits();
  map->ClearBit(13);
  map->ClearBits(14, 100);
  EXPECT_EQ(map.Byte(1), 0xFF);
  map->ClearBits(11, NONE);
  EXPECT_EQ(map.Byte(1), 0xE7);
  EXPECT_FALSE(map->TestBit(13));
}

TEST(Bitmap, WholeMapSetAndCleared_AllBitsFollow) {
  for (unsigned size : Sizes()) {
    CBitmapOver map{BITS(size, false)};
    map->SetAllBits();
    EXPECT_EQ(BitsOf(*map), BITS(size, true));
    EXPECT_EQ(map->NumberOf_1_Bits(), size);
    EXPECT_EQ(map->NumberOf_0_Bits(), 0u);
    map->ClearAllBits();
    EXPECT_EQ(map->NumberOf_1_Bits(), 0u);
    EXPECT_EQ(map->NumberOf_0_Bits(), size);
  }
}

TEST(Bitmap, Padding_IsSetAndClearedAloneAndOnlyWhereThereIsAny) {
  CBitmapOver map(BITS(11, false));
  map->PadEnd_1_Bits();
  EXPECT_EQ(map.Byte(0), 0x00);
  EXPECT_EQ(map.Byte(1), 0xF8);
  map->SetAllBits();
  map->PadEnd_0_Bits();
  EXPECT_EQ(map.Byte(0), 0xFF);
  EXPECT_EQ(map.Byte(1), 0x07);

  CBitmapOver whole(BITS(16, false));
  whole->PadEnd_1_Bits();
  EXPECT_EQ(whole.Byte(1), 0x00);
  whole->SetAllBits();
  whole->PadEnd_0_Bits();
  EXPECT_EQ(whole.Byte(1), 0xFF);
}

void ExpectEmpty(CBitmap& map) {
  EXPECT_EQ(map.Size(), 0u);
  for (unsigned n : {0u, 1u, 31u, NONE}) {
    map.SetBit(n);
    map.ClearBit(n);
    map.SetBits(n, 5);
    map.ClearBits(n, 5);
    EXPECT_FALSE(map.TestBit(n));
    EXPECT_FALSE(map.AreBitsClear(n, 1));
    EXPECT_FALSE(map.AreBitsSet(n, 0));
    EXPECT_EQ(map.Find_0_Bits(1, n), NONE);
    EXPECT_EQ(map.Find_1_Bits(1, n), NONE);
    EXPECT_EQ(map.Find_0_Bits_Set(1, n), NONE);
    EXPECT_EQ(map.Find_1_Bits_Clear(1, n), NONE);
    unsigned start = UNTOUCHED;
    EXPECT_EQ(map.FindNextForward_0_Run(n, &start), 0u);
    EXPECT_EQ(start, n);
    start = UNTOUCHED;
    EXPECT_EQ(map.FindLastBackward_0_Run(n, &start), 0u);
    EXPECT_EQ(start, n);
  }
  map.SetAllBits();
  map.ClearAllBits();
  map.PadEnd_0_Bits();
  map.PadEnd_1_Bits();
  EXPECT_EQ(map.NumberOf_0_Bits(), 0u);
  EXPECT_EQ(map.NumberOf_1_Bits(), 0u);
  unsigned start = UNTOUCHED;
  EXPECT_EQ(map.FindLongest_0_Run(&start), 0u);
  EXPECT_EQ(start, 0u);
  EXPECT_TRUE(Listed(map, 3, &CBitmap::Find_0_Runs).empty());
  EXPECT_TRUE(Listed(map, 3, &CBitmap::FindLongest_0_Runs).empty());
}

TEST(Bitmap, NoStorage_EveryOperationIsSafe) {
  CBitmap map;
  ExpectEmpty(map);
  map.SetSize(100);
  ExpectEmpty(map);
  map.Initialize(nullptr, 100);
  ExpectEmpty(map);
  map.FreeMem();
  map.FreeMem();
  ExpectEmpty(map);
}

// ------------------------------------------------------------------------------------------------------ memory and
// size

TEST(Bitmap, AllocatedAndFreed_LeavesNothingBehind) {
  CMemHooks memory;
  CBitmap map;
  for (unsigned bits : {0u, 1u, 32u, 33u, 1000u}) {
    ASSERT_EQ(map.AllocMem(bits), STATUS_SUCCESS);
    EXPECT_EQ(map.Size(), bits);
    EXPECT_EQ(memory.Outstanding(), 1u);
    map.SetAllBits();
    EXPECT_EQ(map.NumberOf_1_Bits(), bits);
  }
  EXPECT_EQ(memory.OutstandingBytes(), 128u);  // 1000 bits in whole 32-bit words
  map.FreeMem();
  ExpectEmpty(map);
  EXPECT_EQ(memory.Outstanding(), 0u);
}

TEST(Bitmap, StorageOfAnySize_IsWholeWordsOf32Bits) {
  const std::pair<unsigned, std::size_t> sizes[] = {{0, 4},  {1, 4},  {24, 4},  {25, 4},     {31, 4},     {32, 4},
                                                    {33, 8}, {64, 8}, {65, 12}, {1002, 128}, {1024, 128}, {1025, 132}};
  CMemHooks memory;
  CBitmap map;
  for (const auto& [bits, bytes] : sizes) {
    ASSERT_EQ(map.AllocMem(bits), STATUS_SUCCESS);
    EXPECT_EQ(memory.OutstandingBytes(), bytes) << bits;
  }
  map.FreeMem();
}

TEST(Bitmap, StorageTakenOver_KeepsItsBitsAndIsFreedByTheBitmap) {
  CMemHooks memory;
  auto* storage = static_cast<unsigned char*>(osMemAlloc(8));
  ASSERT_NE(storage, nullptr);
  for (unsigned i = 0; i < 8; ++i) storage[i] = 0x0F;
  CBitmap map;
  map.Initialize(storage, 61);
  EXPECT_EQ(map.Size(), 61u);
  EXPECT_EQ(map.NumberOf_1_Bits(), 32u);
  EXPECT_EQ(map.NumberOf_0_Bits(), 29u);
  ASSERT_EQ(map.ReSize(500), STATUS_SUCCESS);
  EXPECT_EQ(map.NumberOf_1_Bits(), 32u);
  EXPECT_EQ(memory.Outstanding(), 1u);
  map.FreeMem();
  EXPECT_EQ(memory.Outstanding(), 0u);
  EXPECT_EQ(memory.UnknownFrees(), 0u);
}

TEST(Bitmap, NoMemoryForStorage_FailsAndKeepsWhatWasThere) {
  CMemHooks memory;
  CBitmap map;
  memory.FailAt(1, CMemHooks::ONCE);
  EXPECT_EQ(map.AllocMem(100), STATUS_NO_MEMORY);
  ExpectEmpty(map);

  ASSERT_EQ(map.AllocMem(20), STATUS_SUCCESS);
  map.SetAllBits();
  memory.FailAt(1, CMemHooks::ONCE);
  EXPECT_EQ(map.AllocMem(100), STATUS_NO_MEMORY);
  EXPECT_EQ(map.Size(), 20u);
  EXPECT_EQ(map.NumberOf_1_Bits(), 20u);
  map.FreeMem();
  EXPECT_EQ(memory.Outstanding(), 0u);
}

TEST(Bitmap, GrowFails_NothingChangesAndTheMemoryIsStillFreed) {
  CMemHooks memory;
  CBitmap map;
  ASSERT_EQ(map.ReSize(50), STATUS_SUCCESS);
  map.SetBits(10, 20);
  const BITS before = BitsOf(map);
  memory.FailAt(1, CMemHooks::FOR_GOOD);
  EXPECT_EQ(map.ReSize(5000), STATUS_NO_MEMORY);
  EXPECT_TRUE(memory.Fired());
  EXPECT_EQ(BitsOf(map), before);
  EXPECT_EQ(memory.Outstanding(), 1u);
  memory.Heal();
  EXPECT_EQ(map.ReSize(5000), STATUS_SUCCESS);
  EXPECT_EQ(map.NumberOf_1_Bits(), 20u);
  EXPECT_TRUE(map.AreBitsSet(10, 20));
  map.FreeMem();
  EXPECT_EQ(memory.Outstanding(), 0u);
}

TEST(Bitmap, NoMemoryForMoreThanAskedFor_StillGrowsByWhatIsAskedFor) {
  CMemHooks memory;
  CBitmap map;
  ASSERT_EQ(map.ReSize(8000), STATUS_SUCCESS);
  map.SetAllBits();
  memory.FailAbove(1002);
  ASSERT_EQ(map.ReSize(8008), STATUS_SUCCESS);
  EXPECT_TRUE(memory.Fired());
  EXPECT_TRUE(map.AreBitsSet(0, 8000));
  EXPECT_TRUE(map.AreBitsClear(8000, 8));
  EXPECT_EQ(map.ReSize(8016), STATUS_NO_MEMORY);
  EXPECT_EQ(map.Size(), 8008u);
  map.FreeMem();
  EXPECT_EQ(memory.Outstanding(), 0u);
}

TEST(Bitmap, Shrunk_KeepsItsMemoryAndNeedsNone) {
  CMemHooks memory;
  CBitmap map;
  ASSERT_EQ(map.ReSize(1000), STATUS_SUCCESS);
  memory.FailAt(1, CMemHooks::FOR_GOOD);
  memory.ResetCount();
  EXPECT_EQ(map.ReSize(1000), STATUS_SUCCESS);
  EXPECT_EQ(map.ReSize(10), STATUS_SUCCESS);
  EXPECT_EQ(map.ReSize(0), STATUS_SUCCESS);
  EXPECT_EQ(map.ReSize(900), STATUS_SUCCESS);
  EXPECT_EQ(memory.Allocations(), 0u);
  EXPECT_EQ(map.Size(), 900u);
  EXPECT_EQ(map.NumberOf_0_Bits(), 900u);
  map.FreeMem();
}

TEST(Bitmap, BitsCutOffByShrinking_AreClearAfterGrowingAgain) {
  for (unsigned small : {0u, 1u, 7u, 8u, 9u, 31u, 33u, 64u}) {
    for (unsigned large : {65u, 100u, 4000u}) {
      COwnedBitmap map;
      ASSERT_EQ(map.ReSize(100), STATUS_SUCCESS);
      map.SetAllBits();
      ASSERT_EQ(map.ReSize(small), STATUS_SUCCESS);
      EXPECT_EQ(map.Find_0_Bits(1, 0), NONE);  // leaves the padding set
      ASSERT_EQ(map.ReSize(large), STATUS_SUCCESS);
      EXPECT_EQ(map.NumberOf_1_Bits(), small);
      EXPECT_EQ(map.Find_0_Bits(1, 0), small);
    }
  }
}

TEST(Bitmap, GrownByManySmallSteps_AllocatesSeldom) {
  CMemHooks memory;
  CBitmap map;
  for (unsigned bits = 16; bits <= 65536; bits += 16) {
    ASSERT_EQ(map.ReSize(bits), STATUS_SUCCESS);
    map.SetBit(bits - 1);
  }
  EXPECT_LT(memory.Allocations(), 30u);
  EXPECT_EQ(map.NumberOf_1_Bits(), 4096u);
  map.FreeMem();
  EXPECT_EQ(memory.Outstanding(), 0u);
}

TEST(Bitmap, RandomSizesBitsAndFailures_StayLikeAPlainVector) {
  for (unsigned seed = 0; seed < 10; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    CRandom random(seed);
    CMemHooks memory;
    CBitmap map;
    BITS bits;
    for (unsigned step = 0; step < 2000; ++step) {
      switch (random() % 6) {
        case 0: {
          const unsigned size = random() % 4 == 0 ? random() % 3000 : random() % 90;
          if (random() % 4 == 0) memory.FailAt(1, CMemHooks::FOR_GOOD);
          const int status = map.ReSize(size);
          memory.Heal();
          if (status >= 0) bits.resize(size, false);
          break;
        }
        case 1:
        case 2: {
          const unsigned start = random() % (map.Size() + 10);
          const unsigned count = random() % 100;
          const bool set = random() % 2 == 0;
          set ? map.SetBits(start, count) : map.ClearBits(start, count);
          for (unsigned n = start; n < start + count && n < bits.size(); ++n) bits[n] = set;
          break;
        }
        case 3: {
          const unsigned n = random() % (map.Size() + 3);
          map.SetBit(n);
          if (n < bits.size()) bits[n] = true;
          break;
        }
        case 4: {
          const unsigned count = 1 + random() % 40;
          const unsigned hint = random() % (map.Size() + 2);
          const unsigned start = map.Find_0_Bits_Set(count, hint);
          ASSERT_EQ(start, TwinFind(bits, false, count, hint));
          if (start != NONE) std::fill_n(At(bits, start), count, true);
          break;
        }
        default: {
          const unsigned count = 1 + random() % 40;
          const unsigned hint = random() % (map.Size() + 2);
          const unsigned start = map.Find_1_Bits_Clear(count, hint);
          ASSERT_EQ(start, TwinFind(bits, true, count, hint));
          if (start != NONE) std::fill_n(At(bits, start), count, false);
          break;
        }
      }
      ASSERT_EQ(map.Size(), bits.size());
      ASSERT_EQ(BitsOf(map), bits) << "step " << step;
    }
    map.FreeMem();
    EXPECT_EQ(memory.Outstanding(), 0u);
    EXPECT_EQ(memory.UnknownFrees(), 0u);
  }
}

TEST(Bitmap, SizeSetWithinTheStorage_LeavesItsBytes) {
  unsigned char storage[4] = {0xFF, 0xFF, 0xFF, 0x0F};
  CBitmap map;
  map.Initialize(storage, 32);
  map.SetSize(9);
  EXPECT_EQ(map.Size(), 9u);
  EXPECT_EQ(map.NumberOf_1_Bits(), 9u);  // clears the padding of byte 1
  map.SetSize(32);
  EXPECT_EQ(map.NumberOf_1_Bits(), 9u + 8u + 4u);
  map.SetSize(33);
  EXPECT_EQ(map.Size(), 32u);
}

}  // namespace
