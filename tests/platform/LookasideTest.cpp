/// @file LookasideTest.cpp
/// The platform layer and the small plumbing beside it: fixed-size blocks, linked lists, conversions between the bytes
/// of the locale and UTF-16.

#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/ListEntry.h"
#include "platform/Lookaside.h"
#include "support/MemHooks.h"

namespace {

constexpr unsigned BLOCK_BYTES = 128;
constexpr unsigned GROWTH = 16;

// ------------------------------------------------------------------------------------------------------ lookaside list

TEST(LookasideList, NewListWithGrowth16_Holds16FreeBlocks) {
  CMemHooks memory;
  {
    const CLookasideList list(BLOCK_BYTES, GROWTH);
    EXPECT_EQ(list.FreeCount(), 16u);
    EXPECT_EQ(list.Total(), 16u);
    EXPECT_EQ(list.InUse(), 0u);
    EXPECT_EQ(memory.Outstanding(), 17u);  // the blocks and the stack of them
  }
  EXPECT_EQ(memory.Outstanding(), 0u);
}

TEST(LookasideList, AllBlocksInUse_GrowsBy16) {
  CLookasideList list(BLOCK_BYTES, GROWTH);
  std::vector<void*> blocks;
  for (unsigned i = 0; i < 16; ++i) blocks.push_back(list.Allocate());
  EXPECT_EQ(list.Total(), 16u);
  EXPECT_EQ(list.FreeCount(), 0u);

  blocks.push_back(list.Allocate());
  EXPECT_EQ(list.Total(), 32u);
  EXPECT_EQ(list.FreeCount(), 15u);
  EXPECT_EQ(list.InUse(), 17u);

  for (void* block : blocks) list.Recycle(block);
  list.ShrinkAll();
}

TEST(LookasideList, RecycledBlockMakes32Free_Frees16) {
  CMemHooks memory;
  {
    CLookasideList list(BLOCK_BYTES, GROWTH);
    std::vector<void*> blocks;
    for (unsigned i = 0; i < 32; ++i) blocks.push_back(list.Allocate());
    for (unsigned i = 0; i < 31; ++i) list.Recycle(blocks[i]);
    EXPECT_EQ(list.FreeCount(), 31u);
    EXPECT_EQ(list.Total(), 32u);

    list.Recycle(blocks[31]);
    EXPECT_EQ(list.FreeCount(), 16u);
    EXPECT_EQ(list.Total(), 16u);
    EXPECT_EQ(list.InUse(), 0u);
    EXPECT_EQ(memory.Outstanding(), 17u);
  }
  EXPECT_EQ(memory.Outstanding(), 0u);
}

static_assert(sizeof(CLookasideList) == sizeof(void*) + 6 * sizeof(int), "the stack and six counts");

TEST(LookasideList, BlockRecycledLast_IsHandedOutFirst) {
  CLookasideList list(BLOCK_BYTES, GROWTH);
  void* first = list.Allocate();
  void* second = list.Allocate();
  list.Recycle(first);
  list.Recycle(second);
  EXPECT_EQ(list.Allocate(), second);
  EXPECT_EQ(list.Allocate(), first);
  list.Recycle(first);
  list.Recycle(second);
}

TEST(LookasideList, GrowAndShrink_ChangeFreeBlocksAndTotalByOneStep) {
  CMemHooks memory;
  {
    CLookasideList list(BLOCK_BYTES, GROWTH);
    memory.ResetLargest();
    EXPECT_TRUE(list.Grow());
    EXPECT_EQ(list.FreeCount(), 32u);
    EXPECT_EQ(list.Total(), 32u);
    EXPECT_EQ(list.InUse(), 0u);
    EXPECT_EQ(memory.LargestRequest(), BLOCK_BYTES);
    list.Shrink();
    EXPECT_EQ(list.FreeCount(), 16u);
    EXPECT_EQ(list.Total(), 16u);
    EXPECT_EQ(memory.Outstanding(), 17u);
    list.Shrink();
    list.Shrink();  // nothing is left to free
    EXPECT_EQ(list.FreeCount(), 0u);
    EXPECT_EQ(list.Total(), 0u);
    EXPECT_EQ(memory.Outstanding(), 1u);
    list.Recycle(list.Allocate());
    EXPECT_EQ(list.Total(), 16u);
  }
  EXPECT_EQ(memory.Outstanding(), 0u);
}

TEST(LookasideList, RecycledBlocksBelowTwoSteps_AreKept) {
  CLookasideList list(BLOCK_BYTES, GROWTH);
  std::vector<void*> blocks;
  for (unsigned i = 0; i < 33; ++i) blocks.push_back(list.Allocate());
  EXPECT_EQ(list.Total(), 48u);
  for (unsigned i = 0; i < 16; ++i) list.Recycle(blocks[i]);
  EXPECT_EQ(list.FreeCount(), 31u);
  EXPECT_EQ(list.Total(), 48u);
  list.Recycle(blocks[16]);
  EXPECT_EQ(list.FreeCount(), 16u);
  EXPECT_EQ(list.Total(), 32u);
  for (unsigned i = 17; i < 33; ++i) list.Recycle(blocks[i]);
  EXPECT_EQ(list.FreeCount(), 16u);
}

TEST(LookasideList, HandedOutBlocks_AreDistinctAndOfFullSize) {
  CLookasideList list(BLOCK_BYTES, GROWTH);
  std::vector<unsigned char*> blocks;
  for (unsigned i = 0; i < 100; ++i) {
    blocks.push_back(static_cast<unsigned char*>(list.Allocate()));
    ASSERT_NE(blocks.back(), nullptr);
    std::memset(blocks.back(), static_cast<int>(i), BLOCK_BYTES);
  }
  for (unsigned i = 0; i < 100; ++i) {
    for (unsigned at = 0; at < BLOCK_BYTES; ++at) ASSERT_EQ(blocks[i][at], i);
    list.Recycle(blocks[i]);
  }
  list.ShrinkAll();
}

TEST(LookasideList, RandomUse_KeepsCountsAndBoundsTheFreeBlocks) {
  CMemHooks memory;
  {
    CLookasideList list(24, 5);
    std::mt19937 random(1);
    std::set<void*> inUse;
    for (unsigned step = 0; step < 20000; ++step) {
      const bool filling = step / 500 % 2 == 0;
      if (inUse.empty() || (random() % 3 != 0) == filling) {
        ASSERT_TRUE(inUse.insert(list.Allocate()).second);
      } else {
        list.Recycle(*inUse.begin());
        inUse.erase(inUse.begin());
      }
      ASSERT_EQ(list.InUse(), inUse.size());
      ASSERT_EQ(list.Total(), list.InUse() + list.FreeCount());
      ASSERT_LT(list.FreeCount(), 10u);
      ASSERT_EQ(memory.Outstanding(), list.Total() + 1);
    }
    for (void* block : inUse) list.Recycle(block);
    list.ShrinkAll();
  }
  EXPECT_EQ(memory.Outstanding(), 0u);
  EXPECT_EQ(memory.UnknownFrees(), 0u);
}

TEST(LookasideList, DestroyedWithBlocksInUse_FreesOnlyFreeOnes) {
  CMemHooks memory;
  std::vector<void*> blocks;
  {
    CLookasideList list(BLOCK_BYTES, GROWTH);
    for (unsigned i = 0; i < 10; ++i) blocks.push_back(list.Allocate());
  }
  EXPECT_EQ(memory.Outstanding(), 10u);
  EXPECT_EQ(memory.UnknownFrees(), 0u);
  for (void* block : blocks) osMemFree(block);
  EXPECT_EQ(memory.Outstanding(), 0u);
}

TEST(LookasideList, DestroyedWithMoreThanOneStepFree_FreesOneStep) {
  CMemHooks memory;
  std::vector<void*> blocks;
  {
    CLookasideList list(BLOCK_BYTES, GROWTH);
    for (unsigned i = 0; i < 32; ++i) blocks.push_back(list.Allocate());
    for (unsigned i = 0; i < 31; ++i) list.Recycle(blocks[i]);
  }
  EXPECT_EQ(memory.Outstanding(), 32u - 16u);
  // The 16 blocks recycled last are gone.
  blocks.erase(blocks.begin() + 15, blocks.begin() + 31);
  for (void* block : blocks) osMemFree(block);
  EXPECT_EQ(memory.Outstanding(), 0u);
  EXPECT_EQ(memory.UnknownFrees(), 0u);
}

TEST(LookasideList, GrownBeyondItsStack_StopsAtTheStack) {
  CMemHooks memory;
  {
    CLookasideList list(BLOCK_BYTES, GROWTH);
    EXPECT_TRUE(list.Grow());
    EXPECT_EQ(list.FreeCount(), 32u);
    EXPECT_TRUE(list.Grow());
    EXPECT_EQ(list.FreeCount(), 32u);
    list.ShrinkAll();
    EXPECT_EQ(list.FreeCount(), 16u);
  }
  EXPECT_EQ(memory.Outstanding(), 0u);
}

TEST(LookasideList, NoMemoryAtAnyAllocation_ListStaysUsable) {
  for (unsigned failAt = 1; failAt <= 18; ++failAt) {
    SCOPED_TRACE(failAt);
    CMemHooks memory;
    memory.FailAt(failAt, CMemHooks::FOR_GOOD);
    {
      CLookasideList list(BLOCK_BYTES, GROWTH);
      // The stack is the first allocation; each further one is a block.
      const unsigned expected = failAt == 1 ? 0 : failAt - 2;
      ASSERT_EQ(list.FreeCount(), expected);
      std::vector<void*> blocks;
      for (unsigned i = 0; i < expected; ++i) {
        blocks.push_back(list.Allocate());
        ASSERT_NE(blocks.back(), nullptr);
      }
      ASSERT_EQ(list.Allocate(), nullptr);
      EXPECT_EQ(list.InUse(), expected);
      EXPECT_TRUE(memory.Fired());

      memory.Heal();
      if (failAt > 1) {
        blocks.push_back(list.Allocate());
        ASSERT_NE(blocks.back(), nullptr);
      }
      for (void* block : blocks) list.Recycle(block);
      list.ShrinkAll();
    }
    EXPECT_EQ(memory.Outstanding(), 0u);
    EXPECT_EQ(memory.UnknownFrees(), 0u);
  }
}

// ------------------------------------------------------------------------------------------------------ linked lists

struct LISTED {
  int Number;
  _LST_ENTRY Link;
};

std::vector<int> Numbers(const _LST_ENTRY& head) {
  std::vector<int> forward;
  std::vector<int> backward;
  for (_LST_ENTRY* entry = head.Flink; entry != &head; entry = entry->Flink)
    forward.push_back(FATLIB_CONTAINER_OF(entry, LISTED, Link)->Number);
  for (_LST_ENTRY* entry = head.Blink; entry != &head; entry = entry->Blink)
    backward.insert(backward.begin(), FATLIB_CONTAINER_OF(entry, LISTED, Link)->Number);
  EXPECT_EQ(forward, backward);
  return forward;
}

class ListEntry : public testing::Test {
 protected:
  ListEntry() {
    InitListHead(&m_Head);
    for (int i = 0; i < 3; ++i) m_Items[i].Number = i;
  }
  void InsertAll() {
    for (LISTED& item : m_Items) InsertTailList(&m_Head, &item.Link);
  }

  _LST_ENTRY m_Head;
  LISTED m_Items[3];
};

TEST_F(ListEntry, NewHead_PointsAtItselfAndIsEmpty) {
  EXPECT_EQ(m_Head.Flink, &m_Head);
  EXPECT_EQ(m_Head.Blink, &m_Head);
  EXPECT_TRUE(IsListEmpty(&m_Head));
}

TEST_F(ListEntry, InsertedAtTheTail_KeepsTheOrder) {
  InsertAll();
  EXPECT_FALSE(IsListEmpty(&m_Head));
  EXPECT_EQ(Numbers(m_Head), (std::vector<int>{0, 1, 2}));
}

TEST_F(ListEntry, OnlyEntryRemoved_ReturnsTrueAndLeavesTheHeadPointingAtItself) {
  InsertTailList(&m_Head, &m_Items[0].Link);
  EXPECT_TRUE(RemoveEntryList(&m_Items[0].Link));
  EXPECT_EQ(m_Head.Flink, &m_Head);
  EXPECT_EQ(m_Head.Blink, &m_Head);
  EXPECT_TRUE(IsListEmpty(&m_Head));
}

TEST_F(ListEntry, OneOfSeveralRemoved_ReturnsFalseAndKeepsTheOthers) {
  InsertAll();
  EXPECT_FALSE(RemoveEntryList(&m_Items[1].Link));
  EXPECT_EQ(Numbers(m_Head), (std::vector<int>{0, 2}));
  EXPECT_FALSE(RemoveEntryList(&m_Items[2].Link));
  EXPECT_TRUE(RemoveEntryList(&m_Items[0].Link));
}

TEST_F(ListEntry, MovedToTheTail_IsLast) {
  InsertAll();
  MoveToTailList(&m_Head, &m_Items[0].Link);
  EXPECT_EQ(Numbers(m_Head), (std::vector<int>{1, 2, 0}));
  MoveToTailList(&m_Head, &m_Items[0].Link);
  EXPECT_EQ(Numbers(m_Head), (std::vector<int>{1, 2, 0}));
}

TEST(GetLog2Of, EachValue_GivesTheNumberOfHalvings) {
  EXPECT_EQ(gGetLog2Of(0), 0u);
  EXPECT_EQ(gGetLog2Of(1), 0u);
  EXPECT_EQ(gGetLog2Of(2), 1u);
  EXPECT_EQ(gGetLog2Of(3), 1u);
  EXPECT_EQ(gGetLog2Of(0xFFFFFFFFu), 31u);
  for (unsigned log2 = 2; log2 < 32; ++log2) {
    EXPECT_EQ(gGetLog2Of(1u << log2), log2);
    EXPECT_EQ(gGetLog2Of((1u << log2) + 1), log2);
    EXPECT_EQ(gGetLog2Of((1u << log2) - 1), log2 - 1);
  }
}

// ------------------------------------------------------------------------------------------------------ conversions

constexpr unsigned short UNTOUCHED = 0xAAAA;

/// Sets the locale for one test and puts the old one back.
class LocaleConversion : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    m_Saved = std::setlocale(LC_ALL, nullptr);
    ASSERT_NE(std::setlocale(LC_ALL, GetParam()), nullptr);
    for (unsigned short& unit : m_Units) unit = UNTOUCHED;
  }
  void TearDown() override { std::setlocale(LC_ALL, m_Saved.c_str()); }

  std::string m_Saved;
  unsigned short m_Units[300];
};
using LocaleConversionUtf8 = LocaleConversion;

INSTANTIATE_TEST_SUITE_P(Locale, LocaleConversion, testing::Values("C", "C.UTF-8"),
                         [](const auto& locale) { return std::string(locale.param) == "C" ? "C" : "Utf8"; });
INSTANTIATE_TEST_SUITE_P(Locale, LocaleConversionUtf8, testing::Values("C.UTF-8"), [](const auto&) { return "Utf8"; });

TEST_P(LocaleConversion, ShortTextToUnits_WritesItsUnitsAndNoTerminator) {
  EXPECT_EQ(osMbsToWcs(m_Units, "ABC  ", 8), 5);
  const std::vector<unsigned short> expected = {'A', 'B', 'C', ' ', ' ', UNTOUCHED};
  EXPECT_EQ(std::vector<unsigned short>(m_Units, m_Units + 6), expected);
}

TEST_P(LocaleConversion, LongTextToUnits_StopsAtTheMaximum) {
  EXPECT_EQ(osMbsToWcs(m_Units, "ABCDEFGHIJ", 3), 3);
  EXPECT_EQ(m_Units[2], 'C');
  EXPECT_EQ(m_Units[3], UNTOUCHED);
  EXPECT_EQ(osMbsToWcs(m_Units, "", 8), 0);
  EXPECT_EQ(osMbsToWcs(m_Units, "XYZ", 0), 0);
  EXPECT_EQ(m_Units[0], 'A');
}

TEST_P(LocaleConversion, MoreThanTheFunctionCanConvert_StopsAt262Units) {
  const std::string text(300, 'x');
  EXPECT_EQ(osMbsToWcs(m_Units, text.c_str(), 300), 262);
  EXPECT_EQ(m_Units[261], 'x');
  EXPECT_EQ(m_Units[262], UNTOUCHED);
}

TEST_P(LocaleConversion, UnitBelow128ToBytes_WritesOneByte) {
  for (unsigned short unit = 1; unit < 128; ++unit) {
    char bytes[MB_LEN_MAX];
    std::memset(bytes, 0x55, sizeof bytes);
    ASSERT_EQ(osWcToMb(bytes, unit), 1) << unit;
    EXPECT_EQ(static_cast<unsigned char>(bytes[0]), unit);
    EXPECT_EQ(bytes[1], 0x55);
  }
}

TEST(LocaleConversionC, UnitWithoutAByte_IsMinusOne) {
  const std::string saved = std::setlocale(LC_ALL, nullptr);
  ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
  char bytes[MB_LEN_MAX];
  for (const unsigned int unit : {0x0100u, 0x0416u, 0x6F22u, 0xFFFFu}) {
    EXPECT_EQ(osWcToMb(bytes, static_cast<unsigned short>(unit)), -1) << unit;
  }
  std::setlocale(LC_ALL, saved.c_str());
}

TEST_P(LocaleConversionUtf8, InvalidBytesToUnits_GivesMinus1AndKeepsTheDestination) {
  for (const char* bytes : {"A\xFF", "\x80", "AB\xC3", "\xED\xA0\x80", "\xC0\x80"}) {
    EXPECT_EQ(osMbsToWcs(m_Units, bytes, 8), -1);
    EXPECT_EQ(m_Units[0], UNTOUCHED);
  }
}

TEST_P(LocaleConversionUtf8, LettersBeyondAscii_ConvertBothWays) {
  // U+00E9, U+0416, U+6F22
  ASSERT_EQ(osMbsToWcs(m_Units, "\xC3\xA9\xD0\x96\xE6\xBC\xA2", 8), 3);
  EXPECT_EQ(m_Units[0], 0x00E9);
  EXPECT_EQ(m_Units[1], 0x0416);
  EXPECT_EQ(m_Units[2], 0x6F22);
  std::string bytes;
  for (unsigned i = 0; i < 3; ++i) {
    char one[MB_LEN_MAX];
    const int length = osWcToMb(one, m_Units[i]);
    ASSERT_GT(length, 0);
    bytes.append(one, static_cast<std::size_t>(length));
  }
  EXPECT_EQ(bytes, "\xC3\xA9\xD0\x96\xE6\xBC\xA2");
}

TEST_P(LocaleConversionUtf8, CharacterBeyond16Bits_IsNarrowed) {
  EXPECT_EQ(osMbsToWcs(m_Units, "\xF0\x9F\x98\x80", 8), 1);  // U+1F600
  EXPECT_EQ(m_Units[0], 0xF600);
}

TEST_P(LocaleConversionUtf8, HalfOfASurrogatePair_HasNoBytes) {
  char bytes[MB_LEN_MAX];
  EXPECT_EQ(osWcToMb(bytes, 0xD800), -1);
}

// ------------------------------------------------------------------------------------------------------ memory, clock

TEST(Platform, ArrayWhoseSizeDoesNotFit_IsRefusedWithoutAsking) {
  CMemHooks memory;
  EXPECT_EQ(osMemAllocArray(0x20000000u, 8), nullptr);
  EXPECT_EQ(osMemAllocArray(UINT_MAX, UINT_MAX), nullptr);
  EXPECT_EQ(memory.Allocations(), 0u);
  void* array = osMemAllocArray(16, 8);
  EXPECT_EQ(memory.OutstandingBytes(), 128u);
  osMemFree(array);
}

TEST(Platform, AllocatedMemory_IsOfTheSizeAskedForAndFreedByItsAddress) {
  CMemHooks memory;
  void* block = osMemAlloc(1000);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(memory.OutstandingBytes(), 1000u);
  std::memset(block, 0x55, 1000);
  osMemFree(block);
  EXPECT_EQ(memory.Outstanding(), 0u);
  osMemFree(nullptr);
  EXPECT_EQ(memory.UnknownFrees(), 0u);
}

TEST(Platform, NoMemory_EveryAllocationGivesNull) {
  CMemHooks memory;
  void* block = osMemAlloc(16);
  memory.FailAt(1, CMemHooks::FOR_GOOD);
  void* whole = &memory;
  EXPECT_EQ(osMemAlloc(1), nullptr);
  EXPECT_EQ(osMemAllocArray(1, 1), nullptr);
  EXPECT_EQ(osMemAllocZeroed(1), nullptr);
  EXPECT_EQ(osMemAllocBlocks(1, whole), nullptr);
  EXPECT_EQ(whole, nullptr);
  EXPECT_EQ(osMemRealloc(block, 32), nullptr);
  EXPECT_EQ(memory.OutstandingBytes(), 16u);  // the old block stays
  osMemFree(block);
}

TEST(Platform, ResizedBlock_KeepsItsBytes) {
  unsigned char* block = static_cast<unsigned char*>(osMemAlloc(100));
  for (unsigned i = 0; i < 100; ++i) block[i] = static_cast<unsigned char>(i);
  block = static_cast<unsigned char*>(osMemRealloc(block, 100000));
  ASSERT_NE(block, nullptr);
  for (unsigned i = 0; i < 100; ++i) ASSERT_EQ(block[i], i);
  osMemFree(block);
}

TEST(Platform, MemoryForBlocks_IsZeroAndAlignedTo2MiB) {
  constexpr std::size_t BYTES = 3 * 0x40000;
  void* whole = nullptr;
  const unsigned char* blocks = osMemAllocBlocks(BYTES, whole);
  ASSERT_NE(blocks, nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(blocks) % (2 * 1024 * 1024), 0u);
  for (std::size_t i = 0; i < BYTES; ++i) ASSERT_EQ(blocks[i], 0);
  osMemFree(whole);
  EXPECT_EQ(osMemAllocBlocks(SIZE_MAX, whole), nullptr);
  EXPECT_EQ(whole, nullptr);
}

TEST(Platform, MemoryHelpers_CopyMoveSetAndCompare) {
  unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(osMemMove(bytes + 1, bytes, 7), bytes + 1);
  const unsigned char moved[8] = {1, 1, 2, 3, 4, 5, 6, 7};
  EXPECT_TRUE(osMemEqual(bytes, moved, 8));
  EXPECT_EQ(osMemSet(bytes, 0x1FF, 4), bytes);  // the low 8 bits count
  EXPECT_EQ(bytes[3], 0xFF);
  EXPECT_EQ(bytes[4], 4);
  EXPECT_FALSE(osMemEqual(bytes, moved, 8));
  EXPECT_EQ(osMemCpy(bytes, moved, 8), bytes);
  EXPECT_TRUE(osMemEqual(bytes, moved, 8));
  EXPECT_EQ(osMemZero(bytes, 7), bytes);
  EXPECT_EQ(bytes[6], 0);
  EXPECT_EQ(bytes[7], 7);
}

TEST(Platform, DefaultLocale_ComesFromTheEnvironment) {
  const std::string saved = std::setlocale(LC_ALL, nullptr);
  const char* variable = std::getenv("LC_ALL");
  const std::string savedVariable = variable == nullptr ? "" : variable;

  ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
  EXPECT_STREQ(osSetDefaultLocale(), "C.UTF-8");
  ASSERT_EQ(setenv("LC_ALL", "no_SUCH.locale", 1), 0);
  EXPECT_EQ(osSetDefaultLocale(), nullptr);
  EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C.UTF-8");

  if (variable == nullptr)
    unsetenv("LC_ALL");
  else
    setenv("LC_ALL", savedVariable.c_str(), 1);
  std::setlocale(LC_ALL, saved.c_str());
}

TEST(Platform, Clock_GivesSecondsAndStoresThemWhereAsked) {
  CFixedClock clock(1000000000);
  std::time_t stored = 0;
  EXPECT_EQ(osTime(&stored), 1000000000);
  EXPECT_EQ(stored, 1000000000);
  clock.Set(7);
  EXPECT_EQ(osTime(nullptr), 7);
}

TEST(Platform, LocalTime_IsThePlatforms) {
  const std::time_t seconds = 1000000000;
  std::tm expected;
  ASSERT_NE(localtime_r(&seconds, &expected), nullptr);
  const std::tm* local = osLocalTime(&seconds);
  ASSERT_NE(local, nullptr);
  EXPECT_EQ(local->tm_year, expected.tm_year);
  EXPECT_EQ(local->tm_yday, expected.tm_yday);
  EXPECT_EQ(local->tm_hour, expected.tm_hour);
  EXPECT_EQ(local->tm_min, expected.tm_min);
}

}  // namespace
