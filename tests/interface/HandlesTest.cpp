/// @file HandlesTest.cpp
/// The table of handles by itself, and the rules for handles as a host meets them.

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "filesystem/FatFileSystem.h"
#include "interface/Handles.h"
#include "support/LibFixture.h"

namespace {

constexpr int FILES = 160;
constexpr int SEARCHES = 32;

// ---------------------------------------------------------------------------------------------- the table by itself

template <class TABLE>
struct CAPACITY;
template <class T, unsigned int N>
struct CAPACITY<CHandles<T, N>> {
  static constexpr int Value = static_cast<int>(N);
};

template <class TABLE>
class Handles : public ::testing::Test {
 protected:
  static constexpr int N = CAPACITY<TABLE>::Value;

  Handles() { m_Table.Init(); }

  /// Opens as the functions do. @return the handle, or -1 when the table is full
  int Open() {
    int handle;
    if (!m_Table.FindFreeHandle(handle)) return -1;
    *m_Table.GetObjectPtr(handle) = &m_Object;
    m_Table.IncCount();
    return handle;
  }
  void OpenAll() {
    for (int i = 0; i < N; ++i) ASSERT_EQ(Open(), i);
  }
  /// What FindFreeHandle offers, or -1.
  int Offered() {
    int handle;
    return m_Table.FindFreeHandle(handle) ? handle : -1;
  }

  TABLE m_Table;
  int m_Object = 0;
};

using TABLES = ::testing::Types<CHandles<int, 160>, CHandles<int, 32>, CHandles<int, 1>>;
TYPED_TEST_SUITE(Handles, TABLES);

static_assert(sizeof(CHandles<CFatFile, 160>) == 8 + 160 * sizeof(void*), "a count, a hint and the slots");
static_assert(sizeof(CHandles<void, 32>) == 8 + 32 * sizeof(void*), "a count, a hint and the slots");

TYPED_TEST(Handles, AfterInit_IsEmptyAndOffersZero) {
  EXPECT_TRUE(this->m_Table.IsEmpty());
  EXPECT_EQ(this->Offered(), 0);
  for (int handle = 0; handle < this->N; ++handle) EXPECT_EQ(this->m_Table.GetObject(handle), nullptr);
}

TYPED_TEST(Handles, InitOfAUsedTable_ForgetsEverything) {
  this->OpenAll();
  this->m_Table.Init();
  EXPECT_TRUE(this->m_Table.IsEmpty());
  EXPECT_EQ(this->Offered(), 0);
  EXPECT_FALSE(this->m_Table.IsHandleValid(0));
}

TYPED_TEST(Handles, FindFreeHandle_ReservesNothing) {
  EXPECT_EQ(this->Offered(), 0);
  EXPECT_EQ(this->Offered(), 0);
  EXPECT_TRUE(this->m_Table.IsEmpty());
  EXPECT_FALSE(this->m_Table.IsHandleValid(0));
}

TYPED_TEST(Handles, TableFull_FindFreeHandleFailsAndLeavesTheOutput) {
  this->OpenAll();
  int handle = 12345;
  EXPECT_FALSE(this->m_Table.FindFreeHandle(handle));
  EXPECT_EQ(handle, 12345);
}

TYPED_TEST(Handles, OnlyUsedSlotsInRange_AreValid) {
  this->OpenAll();
  for (const int handle : {-1, INT_MIN, this->N, this->N + 1, INT_MAX}) {
    EXPECT_FALSE(this->m_Table.IsHandleValid(handle)) << handle;
  }
  EXPECT_TRUE(this->m_Table.IsHandleValid(0));
  EXPECT_TRUE(this->m_Table.IsHandleValid(this->N - 1));
  this->m_Table.RecycleHandle(this->N - 1);
  EXPECT_FALSE(this->m_Table.IsHandleValid(this->N - 1));
}

TYPED_TEST(Handles, ClearHandle_FreesTheSlotAndKeepsTheCount) {
  ASSERT_EQ(this->Open(), 0);
  this->m_Table.ClearHandle(0);
  EXPECT_FALSE(this->m_Table.IsHandleValid(0));
  EXPECT_FALSE(this->m_Table.IsEmpty());
}

TYPED_TEST(Handles, FailedOpening_OffersTheSameHandleAgain) {
  int handle = -1;
  ASSERT_TRUE(this->m_Table.FindFreeHandle(handle));
  *this->m_Table.GetObjectPtr(handle) = &this->m_Object;
  this->m_Table.ClearHandle(handle);
  EXPECT_TRUE(this->m_Table.IsEmpty());
  EXPECT_EQ(this->Offered(), handle);
}

TYPED_TEST(Handles, LastOneRecycled_TableIsEmpty) {
  this->OpenAll();
  for (int handle = this->N - 1; handle >= 0; --handle) {
    EXPECT_FALSE(this->m_Table.IsEmpty());
    this->m_Table.RecycleHandle(handle);
  }
  EXPECT_TRUE(this->m_Table.IsEmpty());
}

TYPED_TEST(Handles, GetObject_IsWhatWasStoredInTheSlot) {
  ASSERT_EQ(this->Open(), 0);
  EXPECT_EQ(this->m_Table.GetObject(0), &this->m_Object);
  EXPECT_EQ(*this->m_Table.GetObjectPtr(0), &this->m_Object);
}

TYPED_TEST(Handles, AnyOrderOfOpeningAndClosing_OffersTheLowestFreeSlot) {
  std::mt19937 random(160);
  std::set<int> used;
  for (int step = 0; step < 20000; ++step) {
    if (random() % 2 == 0) {
      int lowest = 0;
      while (used.count(lowest) != 0) ++lowest;
      ASSERT_EQ(this->Open(), lowest < this->N ? lowest : -1) << "step " << step;
      if (lowest < this->N) used.insert(lowest);
    } else if (!used.empty()) {
      auto chosen = used.begin();
      std::advance(chosen, static_cast<int>(random() % used.size()));
      this->m_Table.RecycleHandle(*chosen);
      used.erase(chosen);
    }
    ASSERT_EQ(this->m_Table.IsEmpty(), used.empty()) << "step " << step;
  }
}

// ---------------------------------------------------------------------------------------------- through the functions

CDiskImage SmallVolume() {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 12;
  CImageBuilder builder(geometry);
  for (const char* name : {"F0", "F1", "F2", "F3"}) {
    builder.AddFile(CImageBuilder::Root(), name, CImageBuilder::Pattern(100, 1));
  }
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "D");
  builder.AddFile(dir, "IN", CImageBuilder::Pattern(10, 2));
  return builder.Image();
}

class HandleRules : public CLibFixture {
 protected:
  HandleRules() : m_Medium(SmallVolume()) {}
  void SetUp() override {
    CLibFixture::SetUp();
    m_pFileSystem = MountMedium(m_Medium);
    ASSERT_NE(m_pFileSystem, nullptr);
    m_Medium.ClearTrace();
  }

  static int FindFirst(const char* path) {
    WIN_FIND_DATA data{};
    return Fat_FindFirstFile(CPath(path), &data);
  }
  static void OpenMany(int count) {
    for (int i = 0; i < count; ++i) ASSERT_EQ(Fat_OpenFile(CPath("F0")), i);
  }
  static void SearchMany(int count) {
    for (int i = 0; i < count; ++i) ASSERT_EQ(FindFirst("D"), i);
  }
  static void CloseAll(int files, int searches) {
    for (int i = 0; i < files; ++i) EXPECT_EQ(Fat_CloseFile(i), 1u) << i;
    for (int i = 0; i < searches; ++i) EXPECT_EQ(Fat_CloseFindHandle(i), 1u) << i;
  }

  CMedium m_Medium;
  CFatFileSystem* m_pFileSystem = nullptr;
};

TEST_F(HandleRules, FilesOpenedAndClosed_GetTheLowestFreeHandle) {
  EXPECT_EQ(Fat_OpenFile(CPath("F0")), 0);
  EXPECT_EQ(Fat_OpenFile(CPath("F1")), 1);
  EXPECT_EQ(Fat_CloseFile(0), 1u);
  EXPECT_EQ(Fat_OpenFile(CPath("F2")), 0);
  EXPECT_EQ(Fat_OpenFile(CPath("F3")), 2);
  EXPECT_EQ(Fat_CloseFile(1), 1u);
  EXPECT_EQ(Fat_OpenFile(CPath("F1")), 1);
  EXPECT_EQ(Fat_OpenFile(CPath("F1")), 3);
  CloseAll(4, 0);
}

TEST_F(HandleRules, SearchesOpenedAndClosed_GetTheLowestFreeHandle) {
  EXPECT_EQ(FindFirst("D"), 0);
  EXPECT_EQ(FindFirst("D"), 1);
  EXPECT_EQ(FindFirst("D"), 2);
  EXPECT_EQ(Fat_CloseFindHandle(1), 1u);
  EXPECT_EQ(FindFirst("D"), 1);
  EXPECT_EQ(Fat_CloseFindHandle(0), 1u);
  EXPECT_EQ(FindFirst("D"), 0);
  CloseAll(0, 3);
}

TEST_F(HandleRules, CreatedFiles_GetTheLowestFreeHandle) {
  EXPECT_EQ(Fat_CreateFile(CPath("N0"), 0, 0), 0);
  EXPECT_EQ(Fat_CreateFile(CPath("N1"), 0, 0), 1);
  EXPECT_EQ(Fat_CloseFile(0), 1u);
  EXPECT_EQ(Fat_CreateFile(CPath("N2"), 0, 0), 0);
  CloseAll(2, 0);
}

TEST_F(HandleRules, FilesAndSearches_AreCountedApart) {
  OpenMany(3);
  EXPECT_EQ(FindFirst("D"), 0);
  EXPECT_EQ(Fat_CloseFindHandle(1), 0u);
  EXPECT_EQ(Fat_CloseFindHandle(0), 1u);
  EXPECT_EQ(Fat_CloseFile(0), 1u);
  EXPECT_EQ(FindFirst("D"), 0);
  EXPECT_EQ(Fat_OpenFile(CPath("F1")), 0);
  CloseAll(3, 1);
}

TEST_F(HandleRules, File161_FailsUntilOneIsClosed) {
  OpenMany(FILES);
  EXPECT_EQ(Fat_OpenFile(CPath("F1")), -1);
  EXPECT_EQ(Fat_CreateFile(CPath("NEW"), 0, 0), -1);
  EXPECT_EQ(Fat_CloseFile(77), 1u);
  EXPECT_EQ(Fat_OpenFile(CPath("F1")), 77);
  EXPECT_EQ(Fat_OpenFile(CPath("F1")), -1);
  CloseAll(FILES, 0);
  EXPECT_FALSE(Exists("NEW"));
}

TEST_F(HandleRules, Search33_FailsUntilOneIsClosed) {
  SearchMany(SEARCHES);
  EXPECT_EQ(FindFirst("D"), -1);
  EXPECT_EQ(Fat_CloseFindHandle(31), 1u);
  EXPECT_EQ(FindFirst("D"), 31);
  EXPECT_EQ(FindFirst("D"), -1);
  CloseAll(0, SEARCHES);
}

TEST_F(HandleRules, TablesFull_NeitherDiskNorRecordIsTouched) {
  OpenMany(FILES);
  SearchMany(SEARCHES);
  m_Medium.ClearTrace();
  WIN_FIND_DATA data{};
  data.dwReserved0 = 0x11223344;
  const WIN_FIND_DATA before = data;
  EXPECT_EQ(Fat_OpenFile(CPath("F1")), -1);
  EXPECT_EQ(Fat_OpenFile(CPath("D\\IN")), -1);
  EXPECT_EQ(Fat_CreateFile(CPath("NEWDIR\\NEW"), 5000, 0), -1);
  EXPECT_EQ(Fat_FindFirstFile(CPath("D"), &data), -1);
  EXPECT_EQ(m_Medium.Transfers(), 0u);
  EXPECT_EQ(std::memcmp(&data, &before, sizeof data), 0);
  EXPECT_EQ(m_pFileSystem->FileCache()->Count(), 2u);
  CloseAll(FILES, SEARCHES);
}

TEST_F(HandleRules, TableOfFilesFull_DirectoriesAndSearchesStillWork) {
  OpenMany(FILES);
  EXPECT_EQ(Fat_CreateDir(CPath("E"), 0), 1u);
  EXPECT_EQ(FindFirst("D"), 0);
  EXPECT_EQ(Fat_DeleteFile(CPath("E")), 1u);
  CloseAll(FILES, 1);
}

TEST_F(HandleRules, FailedOpening_LeavesCountAndHandle) {
  EXPECT_EQ(Fat_OpenFile(CPath("MISSING")), -1);
  EXPECT_EQ(Fat_OpenFile(CPath("")), -1);
  EXPECT_EQ(Fat_CreateFile(CPath("F0"), 0, 0), -1);
  EXPECT_EQ(Fat_CreateFile(CPath("A*B"), 0, 0), -1);
  EXPECT_EQ(FindFirst("MISSING"), -1);
  EXPECT_EQ(FindFirst("F0"), -1);
  EXPECT_EQ(Fat_CloseFile(0), 0u);
  EXPECT_EQ(Fat_CloseFindHandle(0), 0u);
  EXPECT_EQ(Fat_OpenFile(CPath("F0")), 0);
  EXPECT_EQ(FindFirst("D"), 0);
  CloseAll(1, 1);
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  Terminated();
}

TEST_F(HandleRules, OpeningThatFailsHalfWay_LeavesHandleFree) {
  EXPECT_EQ(Fat_OpenFile(CPath("F0")), 0);
  for (unsigned int nth = 1; nth <= 2; ++nth) {
    m_Medium.FailAt(nth, FAULT_ONCE);
    EXPECT_EQ(Fat_OpenFile(CPath("D\\IN")), -1) << "transfer " << nth;
    EXPECT_TRUE(m_Medium.Fired());
    EXPECT_EQ(Fat_CloseFile(1), 0u);
  }
  EXPECT_EQ(Fat_OpenFile(CPath("D\\IN")), 1);
  CloseAll(2, 0);
}

TEST_F(HandleRules, HandleClosedTwice_SecondCloseFails) {
  EXPECT_EQ(Fat_OpenFile(CPath("F0")), 0);
  EXPECT_EQ(FindFirst("D"), 0);
  CloseAll(1, 1);
  EXPECT_EQ(Fat_CloseFile(0), 0u);
  EXPECT_EQ(Fat_CloseFindHandle(0), 0u);
  // The counts have not gone below zero: a table that took them for huge would be full.
  EXPECT_EQ(Fat_OpenFile(CPath("F0")), 0);
  EXPECT_EQ(FindFirst("D"), 0);
  CloseAll(1, 1);
}

TEST_F(HandleRules, HandleOfOneTable_MeansNothingInTheOther) {
  OpenMany(2);
  EXPECT_EQ(FindFirst("D"), 0);
  WIN_FIND_DATA data{};
  EXPECT_EQ(Fat_FindNextFile(1, &data), 0u);
  EXPECT_EQ(Fat_CloseFindHandle(1), 0u);
  CloseAll(2, 1);
}

TEST_F(HandleRules, AllHandlesClosedInAnyOrder_AllComeBackFromTheLowest) {
  OpenMany(FILES);
  std::vector<int> order(FILES);
  for (int i = 0; i < FILES; ++i) order[static_cast<std::size_t>(i)] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937(3));
  for (const int handle : order) EXPECT_EQ(Fat_CloseFile(handle), 1u);
  OpenMany(FILES);
  CloseAll(FILES, 0);
}

TEST_F(HandleRules, AnotherFileSystemCurrent_HandleStaysWithItsVolume) {
  const int handle = Fat_OpenFile(CPath("F0"));
  ASSERT_EQ(handle, 0);
  FAT_GEOMETRY geometry;
  geometry.FatBits = 16;
  CImageBuilder other(geometry);
  other.AddFile(CImageBuilder::Root(), "OTHER", CImageBuilder::Pattern(70, 9));
  ASSERT_NE(Mount(BACKEND::Memory, other.Image()), nullptr);
  EXPECT_EQ(ReadAll(handle), CImageBuilder::Pattern(100, 1));
  EXPECT_EQ(Fat_OpenFile(CPath("F0")), -1);
  EXPECT_EQ(Fat_OpenFile(CPath("OTHER")), 1);
  SetCurrentFileSystem(m_pFileSystem);
  EXPECT_EQ(ReadAll(1), CImageBuilder::Pattern(70, 9));
  CloseAll(2, 0);
}

TEST_F(HandleRules, NoCurrentFileSystem_HandlesAreRefusedUntilThereIsOne) {
  const int handle = Fat_OpenFile(CPath("F0"));
  const int search = FindFirst("D");
  SetCurrentFileSystem(nullptr);
  unsigned int size = 1;
  WIN_FIND_DATA data{};
  EXPECT_EQ(Fat_GetFileSize(handle, &size), 0u);
  EXPECT_EQ(size, 1u);
  EXPECT_EQ(Fat_FindNextFile(search, &data), 0u);
  EXPECT_EQ(Fat_CloseFile(handle), 0u);
  EXPECT_EQ(Fat_CloseFindHandle(search), 0u);
  SetCurrentFileSystem(m_pFileSystem);
  EXPECT_EQ(Fat_GetFileSize(handle, &size), 1u);
  EXPECT_EQ(size, 100u);
  CloseAll(1, 1);
}

TEST_F(HandleRules, HandlesOpen_TerminateSaysSo) {
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  Fat_LibInitialize();
  m_pFileSystem = MountMedium(m_Medium);
  OpenMany(1);
  EXPECT_EQ(Fat_LibTerminate(), 0u);
  EXPECT_EQ(Fat_CloseFile(0), 1u);
  Fat_LibInitialize();
  ASSERT_NE(Mount(BACKEND::Medium, SmallVolume()), nullptr);
  SearchMany(1);
  EXPECT_EQ(Fat_LibTerminate(), 0u);
  EXPECT_EQ(Fat_CloseFindHandle(0), 1u);
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  Terminated();
}

}  // namespace
