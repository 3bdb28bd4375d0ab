/// @file FatLibIntfTest.cpp
/// The functions for files, names and searches as a host meets them: what they give, and what they refuse in which
/// state of the library.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "InterfaceFrame.h"
#include "interface/FatLibIntf.h"

namespace {

using namespace interfacetest;

// One second before 1970-01-01, in units of 100 ns since 1601-01-01: what every date of a volume is converted to.
constexpr unsigned int TIME_LOW = 0xD4A5E980;
constexpr unsigned int TIME_HIGH = 0x019DB1DE;

// ---------------------------------------------------------------------------------------------- refusals by state

TEST(BeforeInitialise, EveryFunctionFails) {
  for (const int handle : {-1, 0, 1, 32, 160}) EXPECT_EQ(NotRefused(handle, handle), "") << handle;
  EXPECT_EQ(Fat_Unmount(nullptr), 0u);
  EXPECT_EQ(Fat_LibTerminate(), 1u);
}

TEST(BeforeInitialise, MountFailsAndReleasesTheStorage) {
  CMedium medium(MakeVolume(12));
  CFaultStorage* storage = new CFaultStorage(medium);
  const CFreeWatch watch(storage);
  EXPECT_EQ(Fat_Mount(storage, nullptr), nullptr);
  EXPECT_TRUE(watch.Freed());
  EXPECT_EQ(medium.OpenCalls(), 0u);
}

TEST_F(Interface, BeforeMount_EveryFunctionFails) {
  for (const int handle : {-1, 0, 159, 160}) EXPECT_EQ(NotRefused(handle, handle), "") << handle;
}

TEST_F(InterfaceOnOneVolume, AfterFailedMount_EveryFunctionFailsUntilAnotherIsMadeCurrent) {
  const int file = Fat_OpenFile(CPath("TEN"));
  const int search = FindFirst("DIR");
  m_pMedium->ClearTrace();
  EXPECT_EQ(Mount(BACKEND::Memory, CDiskImage(4096)), nullptr);
  EXPECT_EQ(NotRefused(file, search), "");
  EXPECT_EQ(m_pMedium->Transfers(), 0u);
  SetCurrentFileSystem(m_pFileSystem);
  EXPECT_EQ(ReadAll(file), ContentOf("TEN"));
  EXPECT_EQ(Fat_CloseFile(file), 1u);
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
}

TEST_F(InterfaceOnOneVolume, AfterUnmount_EveryFunctionFails) {
  EXPECT_TRUE(Unmount(m_pFileSystem));
  m_pMedium->ClearTrace();
  for (const int handle : {-1, 0, 1, 160}) EXPECT_EQ(NotRefused(handle, handle), "") << handle;
  EXPECT_EQ(Fat_Unmount(m_pFileSystem), 0u);
  EXPECT_EQ(m_pMedium->Transfers(), 0u);
}

TEST_F(InterfaceOnOneVolume, AfterTerminate_EveryFunctionFails) {
  const int file = Fat_OpenFile(CPath("TEN"));
  const int search = FindFirst("DIR");
  EXPECT_EQ(Fat_LibTerminate(), 0u);
  Terminated();
  m_pMedium->ClearTrace();
  EXPECT_EQ(NotRefused(file, search, WITHOUT_CLOSING), "");
  EXPECT_EQ(Fat_Unmount(m_pFileSystem), 0u);
  CFaultStorage* storage = new CFaultStorage(*m_pMedium);
  const CFreeWatch watch(storage);
  EXPECT_EQ(Fat_Mount(storage, nullptr), nullptr);
  EXPECT_TRUE(watch.Freed());
  EXPECT_EQ(m_pMedium->Transfers(), 0u);
  SetCurrentFileSystem(m_pFileSystem);  // the failed mount has cleared it, and a dead one will do for closing
  EXPECT_EQ(Fat_CloseFile(file), 1u);
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
}

TEST_F(InterfaceOnOneVolume, CurrentFileSystemIsNoneAtAll_PathFunctionsFail) {
  int something = 0;
  SetCurrentFileSystem(reinterpret_cast<CFatFileSystem*>(&something));
  EXPECT_EQ(NotRefused(-1, -1), "");
  EXPECT_EQ(Fat_Unmount(reinterpret_cast<CFatFileSystem*>(&something)), 0u);
  SetCurrentFileSystem(m_pFileSystem);
  EXPECT_TRUE(Exists("TEN"));
}

TEST_F(InterfaceOnOneVolume, InvalidHandles_EveryFunctionFailsWithoutEffect) {
  const int file = Fat_OpenFile(CPath("TEN"));
  const int search = FindFirst("DIR");
  ASSERT_EQ(file, 0);
  ASSERT_EQ(search, 0);
  for (const int handle :
       {-1, 1, 32, 159, 160, 161, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
    EXPECT_EQ(HandleCallsNotRefused(handle, handle), "") << handle;
  }
  EXPECT_EQ(Fat_CloseFile(file), 1u);
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  EXPECT_EQ(HandleCallsNotRefused(file, search), "");
}

TEST_F(InterfaceOnOneVolume, IsDirOfAnInvalidHandle_IsFalse) {
  const int dir = Fat_OpenFile(CPath("DIR"));
  const int file = Fat_OpenFile(CPath("TEN"));
  EXPECT_EQ(Fat_IsDir(dir), 1u);
  EXPECT_EQ(Fat_IsDir(file), 0u);
  for (const int handle : {-1, 2, 160}) EXPECT_EQ(Fat_IsDir(handle), 0u) << handle;
  Close({dir, file});
  EXPECT_EQ(Fat_IsDir(dir), 0u);
}

// ---------------------------------------------------------------------------------------------- null pointers

TEST_F(InterfaceOnOneVolume, NullOutputs_FailWithoutEffect) {
  const int file = Fat_OpenFile(CPath("README.TXT"));
  const int search = FindFirst("DIR");
  unsigned char buffer[8];
  std::memset(buffer, 0xA5, sizeof buffer);
  m_pMedium->ClearTrace();
  EXPECT_EQ(Fat_GetFileSize(file, nullptr), 0u);
  EXPECT_EQ(Fat_GetFileOffset(file, nullptr), 0u);
  EXPECT_EQ(Fat_ReadFile(file, 8, buffer, nullptr), 0u);
  EXPECT_EQ(Fat_ReadFileEx(file, 0, 8, buffer, nullptr), 0u);
  EXPECT_EQ(Fat_WriteFile(file, 8, buffer, nullptr), 0u);
  EXPECT_EQ(Fat_WriteFileEx(file, 0, 8, buffer, nullptr), 0u);
  EXPECT_EQ(Fat_GetFileAttribute(file, nullptr), 0u);
  EXPECT_EQ(Fat_SetFileAttribute(file, nullptr), 0u);
  EXPECT_EQ(Fat_FindFirstFile(CPath("DIR"), nullptr), NO_HANDLE);
  EXPECT_EQ(Fat_FindNextFile(search, nullptr), 0u);
  EXPECT_EQ(m_pMedium->Transfers(), 0u);
  EXPECT_EQ(OffsetOf(file), 0u);
  EXPECT_EQ(std::count(buffer, buffer + sizeof buffer, 0xA5), 8);
  EXPECT_EQ(ReadAll(file), ContentOf("README.TXT"));
  Close({file});
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
}

TEST_F(InterfaceOnOneVolume, FindNextWithoutARecord_DoesNotSkipAnEntry) {
  WIN_FIND_DATA data{};
  const int search = Fat_FindFirstFile(CPath("DIR"), &data);
  EXPECT_EQ(Fat_FindNextFile(search, nullptr), 0u);
  EXPECT_EQ(Fat_FindNextFile(search, &data), 1u);
  EXPECT_EQ(ToListed(data).ShortName, "..");
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
}

TEST_F(InterfaceOnOneVolume, NullBuffer_IsAllowedOnlyForNoBytes) {
  const int file = Fat_OpenFile(CPath("README.TXT"));
  unsigned int done = SENTINEL;
  EXPECT_EQ(Fat_ReadFile(file, 1, nullptr, &done), 0u);
  EXPECT_EQ(Fat_ReadFileEx(file, 0, 1, nullptr, &done), 0u);
  EXPECT_EQ(Fat_WriteFile(file, 1, nullptr, &done), 0u);
  EXPECT_EQ(Fat_WriteFileEx(file, 0, 1, nullptr, &done), 0u);
  EXPECT_EQ(done, SENTINEL);
  const std::vector<std::function<unsigned int()>> calls = {
      [&] { return Fat_ReadFile(file, 0, nullptr, &done); }, [&] { return Fat_ReadFileEx(file, 3, 0, nullptr, &done); },
      [&] { return Fat_WriteFile(file, 0, nullptr, &done); },
      [&] { return Fat_WriteFileEx(file, 3, 0, nullptr, &done); }};
  for (const auto& call : calls) {
    done = SENTINEL;
    EXPECT_EQ(call(), 1u);
    EXPECT_EQ(done, 0u);
  }
  EXPECT_EQ(ReadAll(file), ContentOf("README.TXT"));
  Close({file});
}

TEST_F(InterfaceOnOneVolume, NullPaths_FailWithoutATransfer) {
  WIN_FIND_DATA data{};
  EXPECT_EQ(Fat_OpenFile(nullptr), NO_HANDLE);
  EXPECT_EQ(Fat_CreateFile(nullptr, 10, 0), NO_HANDLE);
  EXPECT_EQ(Fat_DeleteFile(nullptr), 0u);
  EXPECT_EQ(Fat_RenameFile(nullptr, CPath("NEW")), 0u);
  EXPECT_EQ(Fat_RenameFile(CPath("TEN"), nullptr), 0u);
  EXPECT_EQ(Fat_MoveFile(nullptr, CPath("DIR")), 0u);
  EXPECT_EQ(Fat_MoveFile(nullptr, nullptr), 0u);
  EXPECT_EQ(Fat_CreateDir(nullptr, 0), 0u);
  EXPECT_EQ(Fat_FindFirstFile(nullptr, &data), NO_HANDLE);
  EXPECT_EQ(m_pMedium->Transfers(), 0u);
}

// ---------------------------------------------------------------------------------------------- paths

TEST_F(InterfaceOnOneVolume, TrailingSeparatorOrDots_OpenTheSameFile) {
  const int plain = Fat_OpenFile(CPath("DIR\\IN.TXT"));
  EXPECT_EQ(Fat_SetFileOffset(plain, 7, 0), 1u);
  for (const char* path : {"DIR\\IN.TXT\\", "DIR\\IN.TXT.", "DIR\\IN.TXT ", "DIR.\\IN.TXT", "\\DIR\\IN.TXT",
                           "  DIR\\ in.txt. ", "\\ dir \\IN.TXT"}) {
    const int other = Fat_OpenFile(CPath(path));
    ASSERT_NE(other, NO_HANDLE) << path;
    // One object: the offset is shared, and closing sets it back.
    EXPECT_EQ(OffsetOf(other), 7u) << path;
    Close({other});
    EXPECT_EQ(OffsetOf(plain), 0u) << path;
    EXPECT_EQ(Fat_SetFileOffset(plain, 7, 0), 1u);
  }
  Close({plain});
}

TEST_F(InterfaceOnOneVolume, InvalidPath_EveryPathFunctionFailsWithoutATransfer) {
  const std::vector<std::string> invalid = {"",
                                            "\\",
                                            " ",
                                            " \\ ",
                                            ".",
                                            "..",
                                            "\\\\A",
                                            "A\\\\B",
                                            "A\\ \\B",
                                            "A\\.\\B",
                                            "A..B",
                                            "..\\A",
                                            "A*B",
                                            "A/B",
                                            "A:B",
                                            "A<B",
                                            "A>B",
                                            "A?B",
                                            "A|B",
                                            "A\"B",
                                            "A\x01"
                                            "B",
                                            "A\x7F",
                                            "A\tB",
                                            std::string(260, 'A')};
  WIN_FIND_DATA data{};
  for (const std::string& path : invalid) {
    EXPECT_EQ(Fat_OpenFile(CPath(path)), NO_HANDLE) << path;
    EXPECT_EQ(Fat_CreateFile(CPath(path), 10, 0), NO_HANDLE) << path;
    EXPECT_EQ(Fat_DeleteFile(CPath(path)), 0u) << path;
    EXPECT_EQ(Fat_RenameFile(CPath(path), CPath("NEW")), 0u) << path;
    EXPECT_EQ(Fat_RenameFile(CPath("TEN"), CPath(path)), 0u) << path;
    EXPECT_EQ(Fat_MoveFile(CPath(path), CPath("DIR")), 0u) << path;
    EXPECT_EQ(Fat_MoveFile(CPath("TEN"), CPath(path)), 0u) << path;
    EXPECT_EQ(Fat_CreateDir(CPath(path), 0), 0u) << path;
    EXPECT_EQ(Fat_FindFirstFile(CPath(path), &data), NO_HANDLE) << path;
  }
  EXPECT_EQ(m_pMedium->Transfers(), 0u) << m_pMedium->TraceText();
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_TRUE(Changed(*m_pMedium, BITS).empty());
}

TEST_F(InterfaceOnOneVolume, PathOf259Units_IsTaken) {
  const std::string name(259, 'n');
  const int created = Fat_CreateFile(CPath(name), 0, 0);
  ASSERT_NE(created, NO_HANDLE);
  Close({created});
  EXPECT_TRUE(Exists(name));
  EXPECT_EQ(Fat_DeleteFile(CPath(name)), 1u);
}

TEST_F(InterfaceOnOneVolume, EmptySearchPath_FindsNothing) {
  EXPECT_EQ(FindFirst(""), NO_HANDLE);
  EXPECT_EQ(FindFirst("\\"), NO_HANDLE);
}

TEST_F(InterfaceOnOneVolume, PathThatIsNotThere_EveryPathFunctionFailsAndNothingIsWritten) {
  for (const char* path : {"MISSING", "MISSING\\X", "DIR\\MISSING", "DIR\\MISSING\\X"}) {
    EXPECT_EQ(Fat_OpenFile(CPath(path)), NO_HANDLE) << path;
    EXPECT_EQ(Fat_DeleteFile(CPath(path)), 0u) << path;
    EXPECT_EQ(Fat_RenameFile(CPath(path), CPath("NEW")), 0u) << path;
    EXPECT_EQ(Fat_MoveFile(CPath(path), CPath("DIR\\Sub directory")), 0u) << path;
    EXPECT_EQ(Fat_MoveFile(CPath("TEN"), CPath(path)), 0u) << path;
    EXPECT_EQ(FindFirst(path), NO_HANDLE) << path;
  }
  EXPECT_EQ(m_pMedium->Writes(), 0u);
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_TRUE(Changed(*m_pMedium, BITS).empty());
}

// ---------------------------------------------------------------------------------------------- creating

TEST_F(InterfaceOnOneVolume, NameExists_CreatingFails) {
  for (const char* path : {"TEN", "ten", "DIR", "DIR\\IN.TXT", "long NAME.BIN", DEEP}) {
    EXPECT_EQ(Fat_CreateFile(CPath(path), 0, 0), NO_HANDLE) << path;
    EXPECT_EQ(Fat_CreateDir(CPath(path), 0), 0u) << path;
  }
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_TRUE(Changed(*m_pMedium, BITS).empty());
}

TEST_F(InterfaceOnOneVolume, CreatedWithMissingParents_ParentsHaveNoAttributesButTheDirectoryBit) {
  const int file = Fat_CreateFile(CPath("X\\Y\\F"), 1000, 0x21);
  ASSERT_NE(file, NO_HANDLE);
  EXPECT_EQ(SizeOf(file), 1000u);
  Close({file});
  EXPECT_EQ(Fat_CreateDir(CPath("P\\Q\\R"), 0x02), 1u);
  EXPECT_TRUE(Unmount(m_pFileSystem));
  const CVolumeReader reader(m_pMedium->Image());
  EXPECT_EQ(reader.ProblemText(), "");
  const std::vector<std::pair<const char*, unsigned int>> expected = {{"X", 0x10}, {"X\\Y", 0x10}, {"X\\Y\\F", 0x21},
                                                                      {"P", 0x10}, {"P\\Q", 0x10}, {"P\\Q\\R", 0x12}};
  for (const auto& [path, attributes] : expected) {
    ASSERT_NE(reader.Find(path), nullptr) << path;
    EXPECT_EQ(reader.Find(path)->Attributes, attributes) << path;
  }
  EXPECT_EQ(reader.Find("X\\Y\\F")->Clusters.size(), 2u);
}

TEST_F(InterfaceOnOneVolume, OnlyTheLowByteOfAttributes_IsUsed) {
  const int file = Fat_CreateFile(CPath("F"), 0, 0xFFFFFF37);
  WIN_FIND_DATA data{};
  EXPECT_EQ(Fat_GetFileAttribute(file, &data), 1u);
  EXPECT_EQ(data.dwFileAttributes, 0x27u);  // never a directory
  EXPECT_EQ(Fat_IsDir(file), 0u);
  Close({file});
  EXPECT_EQ(Fat_CreateDir(CPath("E"), 0xFFFFFF02), 1u);
  const int dir = Fat_OpenFile(CPath("E"));
  EXPECT_EQ(Fat_GetFileAttribute(dir, &data), 1u);
  EXPECT_EQ(data.dwFileAttributes, 0x12u);
  Close({dir});
}

TEST_F(InterfaceOnOneVolume, DirectoryCreated_NoHandleIsTaken) {
  EXPECT_EQ(Fat_CreateDir(CPath("E"), 0), 1u);
  EXPECT_EQ(Fat_OpenFile(CPath("E")), 0);
  Close({0});
  EXPECT_EQ(Fat_DeleteFile(CPath("E")), 1u);
}

TEST_F(InterfaceOnOneVolume, DiskTooSmallForTheSize_CreatingFailsAndTheHandleStaysFree) {
  EXPECT_EQ(Fat_CreateFile(CPath("HUGE"), 5000u * 512, 0), NO_HANDLE);
  EXPECT_EQ(Fat_CreateFile(CPath("GIANT"), 0xFFFFFFFF, 0), NO_HANDLE);
  EXPECT_EQ(Fat_OpenFile(CPath("TEN")), 0);
  Close({0});
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_EQ(CVolumeReader(m_pMedium->Image()).ProblemText(), "");
  EXPECT_EQ(Harmed(m_pMedium->Image()), "");
}

// ---------------------------------------------------------------------------------------------- offsets

struct SEEK {
  unsigned int From;
  unsigned int Distance;
  unsigned int Method;
  unsigned int To;
};

TEST_F(InterfaceOnOneVolume, SeekMethods_EndWhereStated) {
  const int file = Fat_OpenFile(CPath("TEN"));
  const SEEK seeks[] = {{4, 0, 0, 0},           {4, 3, 0, 3},           {4, 10, 0, 10},         {4, 11, 0, 10},
                        {4, 0xFFFFFFFF, 0, 10}, {4, 0, 1, 4},           {4, 3, 1, 7},           {4, 6, 1, 10},
                        {4, 7, 1, 10},          {4, 0xFFFFFFFB, 1, 10}, {4, 0xFFFFFFFC, 1, 10}, {4, 0xFFFFFFFF, 1, 10},
                        {10, 1, 1, 10},         {4, 0, 2, 10},          {4, 3, 2, 7},           {4, 10, 2, 0},
                        {4, 11, 2, 0},          {4, 0xFFFFFFFF, 2, 0},  {4, 1, 3, 4},           {4, 9, 0x100, 4},
                        {4, 9, 0xFFFFFFFF, 4}};
  for (const SEEK& seek : seeks) {
    ASSERT_EQ(Fat_SetFileOffset(file, seek.From, 0), 1u);
    EXPECT_EQ(Fat_SetFileOffset(file, seek.Distance, seek.Method), 1u);
    EXPECT_EQ(OffsetOf(file), seek.To) << seek.Distance << " by method " << seek.Method << " from " << seek.From;
  }
  Close({file});
}

TEST_F(InterfaceOnOneVolume, SeekFromTheEndWithDistanceZero_IsTheEnd) {
  const int file = Fat_OpenFile(CPath("README.TXT"));
  EXPECT_EQ(Fat_SetFileOffset(file, 0, 2), 1u);
  EXPECT_EQ(OffsetOf(file), 700u);
  EXPECT_EQ(Fat_SetFileOffset(file, 701, 2), 1u);
  EXPECT_EQ(OffsetOf(file), 0u);
  EXPECT_EQ(Fat_SetFileOffset(file, 5000, 1), 1u);
  EXPECT_EQ(OffsetOf(file), 700u);
  Close({file});
}

TEST_F(InterfaceOnOneVolume, FileShrunkBelowTheOffset_EvenAnUnknownMethodCutsIt) {
  const int file = Fat_OpenFile(CPath("README.TXT"));
  EXPECT_EQ(Fat_SetFileOffset(file, 600, 0), 1u);
  EXPECT_EQ(Fat_SetFileSize(file, 20), 1u);
  EXPECT_EQ(OffsetOf(file), 600u);
  unsigned char byte = 0xEE;
  unsigned int done = SENTINEL;
  EXPECT_EQ(Fat_ReadFile(file, 1, &byte, &done), 1u);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(Fat_SetFileOffset(file, 0, 77), 1u);
  EXPECT_EQ(OffsetOf(file), 20u);
  Close({file});
}

TEST_F(InterfaceOnOneVolume, SeekInADirectory_AlwaysGivesZero) {
  const int dir = Fat_OpenFile(CPath("DIR"));
  for (unsigned int method = 0; method < 4; ++method) {
    EXPECT_EQ(Fat_SetFileOffset(dir, 32, method), 1u);
    EXPECT_EQ(OffsetOf(dir), 0u) << method;
  }
  Close({dir});
}

TEST_F(InterfaceOnOneVolume, TwoHandlesOfOnePath_ShareTheOffsetAndClosingResetsIt) {
  const int one = Fat_OpenFile(CPath("TEN"));
  const int two = Fat_OpenFile(CPath("ten"));
  EXPECT_EQ(Fat_SetFileOffset(one, 6, 0), 1u);
  EXPECT_EQ(OffsetOf(two), 6u);
  Close({two});
  EXPECT_EQ(OffsetOf(one), 0u);
  Close({one});
}

// ---------------------------------------------------------------------------------------------- reading and writing

TEST_F(InterfaceOnOneVolume, ReadingAtTheEnd_IsTrueForThePlainFormAndFalseForTheOther) {
  const int file = Fat_OpenFile(CPath("TEN"));
  unsigned char buffer[4] = {0xA5, 0xA5, 0xA5, 0xA5};
  EXPECT_EQ(Fat_SetFileOffset(file, 0, 2), 1u);
  unsigned int done = SENTINEL;
  EXPECT_EQ(Fat_ReadFile(file, 4, buffer, &done), 1u);
  EXPECT_EQ(done, 0u);
  for (const long long offset : {10ll, 11ll, 0x100000000ll, 0x100000005ll, std::numeric_limits<long long>::max()}) {
    done = SENTINEL;
    EXPECT_EQ(Fat_ReadFileEx(file, offset, 4, buffer, &done), 0u) << offset;
    EXPECT_EQ(done, 0u) << offset;
    done = SENTINEL;
    EXPECT_EQ(Fat_WriteFileEx(file, offset, 4, buffer, &done), 0u) << offset;
    EXPECT_EQ(done, 0u) << offset;
  }
  EXPECT_EQ(std::count(buffer, buffer + 4, 0xA5), 4);
  EXPECT_EQ(ReadAll(file), ContentOf("TEN"));
  Close({file});
}

TEST_F(InterfaceOnOneVolume, NegativeOffset_IsRefusedHoweverOftenItIsTried) {
  const int file = Fat_OpenFile(CPath("README.TXT"));
  unsigned char buffer[10] = {};
  const unsigned int blocks = CFatFile::BLOCK_CACHE::BlocksInUse();
  for (const long long offset : {-1ll, -10ll, -0x40000ll, -0x100000000ll, std::numeric_limits<long long>::min()}) {
    for (int round = 0; round < 300; ++round) {
      unsigned int done = SENTINEL;
      ASSERT_EQ(Fat_ReadFileEx(file, offset, 10, buffer, &done), 0u) << offset;
      ASSERT_EQ(done, 0u);
      done = SENTINEL;
      ASSERT_EQ(Fat_WriteFileEx(file, offset, 10, buffer, &done), 0u) << offset;
      ASSERT_EQ(done, 0u);
    }
  }
  EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), blocks);
  EXPECT_EQ(ReadAll(file), ContentOf("README.TXT"));
  Close({file});
}

TEST_F(InterfaceOnOneVolume, CountBeyondTheSize_IsCutAndTheRestOfTheBufferStays) {
  const int file = Fat_OpenFile(CPath("TEN"));
  BYTES buffer(20, 0xA5);
  unsigned int done = SENTINEL;
  EXPECT_EQ(Fat_ReadFileEx(file, 4, 0xFFFFFFFF, buffer.data(), &done), 1u);
  EXPECT_EQ(done, 6u);
  BYTES expected = ContentOf("TEN");
  expected.erase(expected.begin(), expected.begin() + 4);
  expected.resize(20, 0xA5);
  EXPECT_EQ(buffer, expected);
  Close({file});
}

TEST_F(InterfaceOnOneVolume, ReadingInSteps_AdvancesTheOffsetByWhatWasRead) {
  const int file = Fat_OpenFile(CPath("README.TXT"));
  BYTES all;
  for (unsigned int step = 1;; ++step) {
    BYTES part(step, 0);
    unsigned int done = SENTINEL;
    ASSERT_EQ(Fat_ReadFile(file, step, part.data(), &done), 1u);
    if (done == 0) break;
    all.insert(all.end(), part.begin(), part.begin() + static_cast<std::ptrdiff_t>(done));
    ASSERT_EQ(OffsetOf(file), all.size());
  }
  EXPECT_EQ(all, ContentOf("README.TXT"));
  Close({file});
}

TEST_F(InterfaceOnOneVolume, ExplicitOffset_LeavesTheHandlesOffset) {
  const int file = Fat_OpenFile(CPath("README.TXT"));
  EXPECT_EQ(Fat_SetFileOffset(file, 33, 0), 1u);
  EXPECT_EQ(ReadAt(file, 100, 50).size(), 50u);
  EXPECT_EQ(WriteAt(file, 200, BYTES(10, 1)), 10);
  EXPECT_EQ(OffsetOf(file), 33u);
  Close({file});
}

TEST_F(InterfaceOnOneVolume, Writing_StopsAtTheSizeUntilTheFileIsGrown) {
  const int file = Fat_OpenFile(CPath("TEN"));
  BYTES bytes = CImageBuilder::Pattern(100, 77);
  unsigned int done = SENTINEL;
  EXPECT_EQ(Fat_WriteFile(file, 100, bytes.data(), &done), 1u);
  EXPECT_EQ(done, 10u);
  EXPECT_EQ(Fat_WriteFile(file, 90, bytes.data() + 10, &done), 1u);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(SizeOf(file), 10u);
  EXPECT_EQ(Fat_SetFileSize(file, 100), 1u);
  EXPECT_EQ(Fat_WriteFile(file, 90, bytes.data() + 10, &done), 1u);
  EXPECT_EQ(done, 90u);
  EXPECT_EQ(OffsetOf(file), 100u);
  Close({file});
  EXPECT_TRUE(Unmount(m_pFileSystem));
  const CVolumeReader reader(m_pMedium->Image());
  EXPECT_EQ(reader.Content(*reader.Find("TEN")), bytes);
  EXPECT_EQ(Harmed(m_pMedium->Image(), {"TEN"}), "");
}

TEST_F(InterfaceOnOneVolume, EmptyFile_TakesAndGivesNothing) {
  const int file = Fat_CreateFile(CPath("EMPTY"), 0, 0);
  unsigned char byte = 0xA5;
  unsigned int done = SENTINEL;
  EXPECT_EQ(Fat_WriteFile(file, 1, &byte, &done), 1u);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(Fat_ReadFile(file, 1, &byte, &done), 1u);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(Fat_ReadFileEx(file, 0, 1, &byte, &done), 0u);
  EXPECT_EQ(Fat_WriteFileEx(file, 0, 1, &byte, &done), 0u);
  EXPECT_EQ(SizeOf(file), 0u);
  Close({file});
}

TEST_F(InterfaceOnOneVolume, Directory_IsReadUpToItsAllocation) {
  const int dir = Fat_OpenFile(CPath("DIR"));
  EXPECT_EQ(SizeOf(dir), 0u);
  CDiskImage image = MakeVolume(16);
  const CImageBuilder builder(image);
  const VOLUME_NODE node = *CVolumeReader(image).Find("DIR");
  BYTES buffer(2000, 0xA5);
  unsigned int done = SENTINEL;
  EXPECT_EQ(Fat_ReadFile(dir, 2000, buffer.data(), &done), 1u);
  EXPECT_EQ(done, 512u);
  EXPECT_EQ(OffsetOf(dir), 512u);
  EXPECT_EQ(BYTES(buffer.begin(), buffer.begin() + 512), builder.Cluster(node.FirstCluster));
  EXPECT_EQ(buffer[512], 0xA5);
  EXPECT_EQ(Fat_ReadFile(dir, 1, buffer.data(), &done), 1u);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(Fat_ReadFileEx(dir, 512, 1, buffer.data(), &done), 0u);
  EXPECT_EQ(WriteAt(dir, 500, BYTES(100, 0)), 12);
  Close({dir});
}

TEST_F(InterfaceOnOneVolume, SizeAboveTheLargest_IsRefusedAndNothingChanges) {
  const int file = Fat_OpenFile(CPath("TEN"));
  for (const unsigned int size : {0xFFFFFFFFu, 0xFFFFFE01u}) EXPECT_EQ(Fat_SetFileSize(file, size), 0u) << size;
  EXPECT_EQ(Fat_SetFileSize(file, 0xFFFFFE00u), 0u);  // the largest size: allowed, but the disk is full long before
  EXPECT_EQ(SizeOf(file), 10u);
  EXPECT_EQ(ReadAll(file), ContentOf("TEN"));
  Close({file});
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_EQ(CVolumeReader(m_pMedium->Image()).ProblemText(), "");
  EXPECT_EQ(Harmed(m_pMedium->Image()), "");
}

// ---------------------------------------------------------------------------------------------- attributes

TEST_F(InterfaceOnOneVolume, GetFileAttribute_FillsAllButTheReservedFields) {
  const int file = Fat_OpenFile(CPath("Long name.bin"));
  WIN_FIND_DATA data;
  std::memset(&data, 0xA5, sizeof data);
  EXPECT_EQ(Fat_GetFileAttribute(file, &data), 1u);
  EXPECT_EQ(data.dwFileAttributes, 0x20u);
  EXPECT_EQ(data.nFileSizeLow, 1300u);
  EXPECT_EQ(data.nFileSizeHigh, 0u);
  EXPECT_EQ(data.dwReserved0, SENTINEL);
  EXPECT_EQ(data.dwReserved1, SENTINEL);
  for (const WIN_FTIME& time : {data.ftCreationTime, data.ftLastAccessTime, data.ftLastWriteTime}) {
    EXPECT_EQ(time.dwLowDateTime, TIME_LOW);
    EXPECT_EQ(time.dwHighDateTime, TIME_HIGH);
  }
  const LISTED listed = ToListed(data);
  EXPECT_EQ(listed.LongName, "Long name.bin");
  EXPECT_EQ(listed.ShortName, "LONGNA~1.BIN");
  Close({file});
}

TEST_F(InterfaceOnOneVolume, AttributesOfADirectoryAndOfAShortName_AreTheirEntries) {
  const int dir = Fat_OpenFile(CPath("DIR"));
  const int file = Fat_OpenFile(CPath("README.TXT"));
  WIN_FIND_DATA data{};
  EXPECT_EQ(Fat_GetFileAttribute(dir, &data), 1u);
  EXPECT_EQ(data.dwFileAttributes & 0x10, 0x10u);
  EXPECT_EQ(data.nFileSizeLow, 0u);
  EXPECT_EQ(ToListed(data).ShortName, "DIR");
  EXPECT_EQ(Fat_GetFileAttribute(file, &data), 1u);
  EXPECT_EQ(ToListed(data).LongName, "");
  EXPECT_EQ(ToListed(data).ShortName, "README.TXT");
  Close({dir, file});
}

TEST_F(InterfaceOnOneVolume, SetFileAttribute_ChangesTheAttributeByteAndNothingElse) {
  const int file = Fat_OpenFile(CPath("README.TXT"));
  WIN_FIND_DATA data;
  std::memset(&data, 0xA5, sizeof data);  // names, sizes and times that must not count
  data.dwFileAttributes = 0xFFFFFF07;
  EXPECT_EQ(Fat_SetFileAttribute(file, &data), 1u);
  EXPECT_EQ(Fat_GetFileAttribute(file, &data), 1u);
  EXPECT_EQ(data.dwFileAttributes, 0x07u);
  EXPECT_EQ(data.nFileSizeLow, 700u);
  Close({file});
  EXPECT_TRUE(Unmount(m_pFileSystem));
  CDiskImage before = MakeVolume(16);
  const CImageBuilder builder(before);
  const std::uint64_t attribute = builder.SlotOffset(CImageBuilder::Root(), 0) + 11;
  EXPECT_EQ(CDiskImage::Differences(m_pMedium->Image(), before), std::vector<std::uint64_t>{attribute});
  EXPECT_EQ(m_pMedium->Image().Get8(attribute), 0x07);
}

TEST_F(InterfaceOnOneVolume, TimesThatAreSet_ChangeNoWordOfTheEntry) {
  const int file = Fat_OpenFile(CPath("DIR\\IN.TXT"));
  WIN_FIND_DATA data{};
  data.dwFileAttributes = 0x20;
  for (const WIN_FTIME time : {WIN_FTIME{0, 0}, WIN_FTIME{0x256D4000, 0x01DC0000}, WIN_FTIME{0xFFFFFFFF, 0xFFFFFFFF}}) {
    data.ftCreationTime = data.ftLastAccessTime = data.ftLastWriteTime = time;
    EXPECT_EQ(Fat_SetFileAttribute(file, &data), 1u);
  }
  Close({file});
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_TRUE(Changed(*m_pMedium, BITS).empty());
}

TEST_F(InterfaceOnOneVolume, DirectoryBitSetOnAFile_IsTakenAsGiven) {
  const int file = Fat_OpenFile(CPath("TEN"));
  WIN_FIND_DATA data{};
  data.dwFileAttributes = 0x30;
  EXPECT_EQ(Fat_SetFileAttribute(file, &data), 1u);
  EXPECT_EQ(Fat_IsDir(file), 1u);
  EXPECT_EQ(SizeOf(file), 10u);
  data.dwFileAttributes = 0x20;
  EXPECT_EQ(Fat_SetFileAttribute(file, &data), 1u);
  EXPECT_EQ(Fat_IsDir(file), 0u);
  Close({file});
}

TEST_F(InterfaceOnOneVolume, EntryCannotBeReached_SettingFailsAndSucceedsWhenTriedAgain) {
  const int file = Fat_OpenFile(CPath("DIR\\IN.TXT"));
  for (int i = 0; i < 160; ++i) ASSERT_TRUE(WritePath("N" + std::to_string(i), {}));  // DIR is cached no longer
  WIN_FIND_DATA data{};
  data.dwFileAttributes = 0x01;
  m_pMedium->FailAt(1, FAULT_FOR_GOOD);
  EXPECT_EQ(Fat_SetFileAttribute(file, &data), 0u);
  EXPECT_EQ(Fat_SetFileSize(file, 100), 0u);
  EXPECT_TRUE(m_pMedium->Fired());
  m_pMedium->Heal();
  EXPECT_EQ(Fat_SetFileAttribute(file, &data), 1u);
  EXPECT_EQ(Fat_SetFileSize(file, 99), 1u);
  Close({file});
  EXPECT_TRUE(Unmount(m_pFileSystem));
  const CVolumeReader reader(m_pMedium->Image());
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_EQ(reader.Find("DIR\\IN.TXT")->Attributes, 0x01u);
  EXPECT_EQ(reader.Find("DIR\\IN.TXT")->Size, 99u);
}

TEST_F(InterfaceOnOneVolume, FailedCallOnAHandle_LeavesItOpenAndCounted) {
  const int file = Fat_OpenFile(CPath("TEN"));
  const int search = FindFirst("DIR");
  unsigned char byte = 0;
  unsigned int done = 0;
  EXPECT_EQ(Fat_SetFileSize(file, 0xFFFFFFFF), 0u);
  EXPECT_EQ(Fat_ReadFileEx(file, 10, 1, &byte, &done), 0u);
  EXPECT_EQ(Fat_WriteFileEx(file, 10, 1, &byte, &done), 0u);
  EXPECT_EQ(Fat_GetFileAttribute(file, nullptr), 0u);
  WIN_FIND_DATA data{};
  while (Fat_FindNextFile(search, &data) == 1) {
  }
  EXPECT_EQ(Fat_OpenFile(CPath("README.TXT")), file + 1);
  EXPECT_EQ(FindFirst("DIR"), search + 1);
  EXPECT_EQ(ReadAll(file), ContentOf("TEN"));
  EXPECT_EQ(Fat_FindNextFile(search, &data), 1u);
  Close({file, file + 1});
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  EXPECT_EQ(Fat_CloseFindHandle(search + 1), 1u);
}

TEST_F(InterfaceOnOneVolume, EntryRenamedAway_SettingFailsAndTheHandleShowsItAllTheSame) {
  const int file = Fat_OpenFile(CPath("TEN"));
  EXPECT_EQ(Fat_RenameFile(CPath("TEN"), CPath("ELEVEN")), 1u);
  WIN_FIND_DATA data{};
  data.dwFileAttributes = 0x01;
  EXPECT_EQ(Fat_SetFileAttribute(file, &data), 0u);
  EXPECT_EQ(Fat_GetFileAttribute(file, &data), 1u);
  EXPECT_EQ(data.dwFileAttributes, 0x01u);
  EXPECT_EQ(Fat_SetFileSize(file, 5), 0u);
  EXPECT_TRUE(Exists("README.TXT"));
  Close({file});
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_NE(CVolumeReader(m_pMedium->Image()).Find("ELEVEN"), nullptr);
}

// ---------------------------------------------------------------------------------------------- names

TEST_F(InterfaceOnOneVolume, RenameWithADirectoryInTheNewPath_UsesOnlyItsLastComponent) {
  EXPECT_EQ(Fat_RenameFile(CPath("DIR\\Sub directory\\deep.txt"), CPath("X\\g")), 1u);
  EXPECT_TRUE(Unmount(m_pFileSystem));
  const CVolumeReader reader(m_pMedium->Image());
  EXPECT_EQ(reader.ProblemText(), "");
  const VOLUME_NODE* renamed = reader.Find("DIR\\Sub directory\\G");
  ASSERT_NE(renamed, nullptr);
  EXPECT_EQ(reader.Content(*renamed), ContentOf(DEEP));
  EXPECT_EQ(reader.Find("X"), nullptr);
  EXPECT_EQ(reader.Find(DEEP), nullptr);
}

TEST_F(InterfaceOnOneVolume, MoveWithNothingToDo_IsTrueWithoutATransfer) {
  EXPECT_EQ(Fat_MoveFile(CPath("TEN"), nullptr), 1u);
  EXPECT_EQ(Fat_MoveFile(CPath("DIR\\IN.TXT"), CPath("dir")), 1u);
  EXPECT_EQ(Fat_MoveFile(CPath("NOT THERE"), nullptr), 1u);
  EXPECT_EQ(m_pMedium->Transfers(), 0u);
}

TEST_F(InterfaceOnOneVolume, MoveIntoItselfOrBelow_FailsWithoutATransfer) {
  EXPECT_EQ(Fat_MoveFile(CPath("DIR"), CPath("DIR")), 0u);
  EXPECT_EQ(Fat_MoveFile(CPath("DIR"), CPath("DIR\\Sub directory")), 0u);
  EXPECT_EQ(m_pMedium->Transfers(), 0u);
}

TEST_F(InterfaceOnOneVolume, MoveToANullDirectory_IsAMoveToTheRoot) {
  EXPECT_EQ(Fat_MoveFile(CPath(DEEP), nullptr), 1u);
  EXPECT_EQ(Fat_MoveFile(CPath("TEN"), CPath("DIR\\Sub directory")), 1u);
  EXPECT_TRUE(Unmount(m_pFileSystem));
  const CVolumeReader reader(m_pMedium->Image());
  EXPECT_EQ(reader.ProblemText(), "");
  ASSERT_NE(reader.Find("deep.txt"), nullptr);
  EXPECT_EQ(reader.Content(*reader.Find("deep.txt")), ContentOf(DEEP));
  ASSERT_NE(reader.Find("DIR\\Sub directory\\TEN"), nullptr);
  EXPECT_EQ(reader.Find("TEN"), nullptr);
}

TEST_F(InterfaceOnOneVolume, DeletedTwice_SecondTimeFails) {
  EXPECT_EQ(Fat_DeleteFile(CPath("TEN")), 1u);
  EXPECT_EQ(Fat_DeleteFile(CPath("TEN")), 0u);
  EXPECT_EQ(Fat_OpenFile(CPath("TEN")), NO_HANDLE);
}

// ---------------------------------------------------------------------------------------------- every width and
// back-end

class WholeRun : public Interface, public ::testing::WithParamInterface<std::tuple<unsigned int, BACKEND>> {};

TEST_P(WholeRun, WorkOfEveryKind_LeavesAWholeVolume) {
  const auto [bits, backend] = GetParam();
  CDiskImage image = MakeVolume(bits);
  CFatFileSystem* fileSystem = Mount(backend, &image);
  ASSERT_NE(fileSystem, nullptr);
  for (const FILE_ON_VOLUME& file : FILES_ON_VOLUME) EXPECT_EQ(ReadPath(file.Path), file.Content()) << file.Path;
  EXPECT_EQ(List("DIR").size(), 2u);

  const BYTES large = CImageBuilder::Pattern(300000, 11);  // more than one block of the cache
  EXPECT_TRUE(WritePath("Made here\\Large file.bin", large, 0x21));
  EXPECT_EQ(ReadPath("Made here\\Large file.bin", 7777), large);
  const int file = Fat_OpenFile(CPath("TEN"));
  EXPECT_EQ(Fat_SetFileSize(file, 5000), 1u);
  EXPECT_EQ(WriteAt(file, 0, CImageBuilder::Pattern(5000, 12)), 5000);
  EXPECT_EQ(Fat_SetFileSize(file, 4000), 1u);
  Close({file});
  EXPECT_EQ(Fat_CreateDir(CPath("Made here\\Empty"), 0), 1u);
  EXPECT_EQ(Fat_CreateDir(CPath("Made here\\Gone"), 0), 1u);
  EXPECT_EQ(Fat_DeleteFile(CPath("Made here\\Gone")), 1u);
  EXPECT_EQ(Fat_DeleteFile(CPath("README.TXT")), 1u);
  EXPECT_TRUE(Unmount(fileSystem));

  // Renamed and moved before anything of it is cached, a file is at once known by its new path.
  fileSystem = Mount(backend, &image);
  ASSERT_NE(fileSystem, nullptr);
  EXPECT_EQ(Fat_RenameFile(CPath(DEEP), CPath("Deeper than before.txt")), 1u);
  EXPECT_EQ(Fat_MoveFile(CPath("Long name.bin"), CPath("Made here\\Empty")), 1u);
  EXPECT_EQ(ReadPath("DIR\\Sub directory\\Deeper than before.txt"), ContentOf(DEEP));
  EXPECT_EQ(ReadPath("Made here\\Empty\\Long name.bin"), ContentOf("Long name.bin"));
  EXPECT_TRUE(Unmount(fileSystem));

  const CVolumeReader reader(image);
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_EQ(reader.LostClusters().size(), 0u);
  EXPECT_EQ(reader.Tree().size(), 9u);
  const std::vector<std::pair<const char*, BYTES>> expected = {
      {"TEN", CImageBuilder::Pattern(4000, 12)},
      {"DIR\\IN.TXT", ContentOf("DIR\\IN.TXT")},
      {"DIR\\Sub directory\\Deeper than before.txt", ContentOf(DEEP)},
      {"Made here\\Large file.bin", large},
      {"Made here\\EMPTY\\Long name.bin", ContentOf("Long name.bin")}};
  for (const auto& [path, content] : expected) {
    ASSERT_NE(reader.Find(path), nullptr) << path;
    EXPECT_EQ(reader.Content(*reader.Find(path)), content) << path;
  }
  EXPECT_EQ(reader.Find("Made here\\Large file.bin")->Attributes, 0x21u);
}

INSTANTIATE_TEST_SUITE_P(WidthsAndBackends, WholeRun,
                         ::testing::Combine(::testing::Values(12u, 16u, 32u),
                                            ::testing::Values(BACKEND::Memory, BACKEND::File, BACKEND::Medium)),
                         [](const ::testing::TestParamInfo<std::tuple<unsigned int, BACKEND>>& run) {
                           return "Fat" + std::to_string(std::get<0>(run.param)) + BackendName(std::get<1>(run.param));
                         });

}  // namespace
