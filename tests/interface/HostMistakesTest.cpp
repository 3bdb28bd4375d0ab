/// @file HostMistakesTest.cpp
/// Each of the 26 functions, with good arguments and with every null pointer it can be given, called in each situation
/// that a host can get itself into: too early, too late, twice, on what is gone. The answer is the stated one, nothing
/// is touched by a call that is refused, the library can be used afterwards, and nothing is left allocated.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "InterfaceFrame.h"

namespace {

using namespace interfacetest;

constexpr unsigned int BITS = 16;
constexpr int FILES = 160;
constexpr int SEARCHES = 32;

const CDiskImage& VolumeImage() {
  static const CDiskImage image = MakeVolume(BITS);
  return image;
}

// ---------------------------------------------------------------------------------------------- the host

/// A host with one volume, the handles that it knows of, and what it has to clean up.
struct HOST {
  CMedium Medium{VolumeImage()};
  CMedium Other{VolumeImage()};
  CFaultStorage* Storage = nullptr;
  CFatFileSystem* FileSystem = nullptr;
  int File = 0;  // also where nothing was opened: the first handle there is
  int Dir = 1;
  int Search = 0;
  std::vector<std::pair<CFatFileSystem*, CFaultStorage*>> OthersMounted;

  void MountVolume() {
    Storage = new CFaultStorage(Medium);
    FileSystem = Fat_Mount(Storage, nullptr);
    ASSERT_NE(FileSystem, nullptr);
  }
  bool MountAnother() {
    auto* storage = new CFaultStorage(Other);
    CFatFileSystem* mounted = Fat_Mount(storage, nullptr);
    if (mounted != nullptr) OthersMounted.emplace_back(mounted, storage);
    return mounted != nullptr;  // else the library has freed the storage object
  }
  void OpenHandles() {
    File = Fat_OpenFile(CPath("TEN"));
    Dir = Fat_OpenFile(CPath("DIR\\Sub directory"));
    Search = FindFirst("DIR");
    ASSERT_EQ(File, 0);
    ASSERT_EQ(Dir, 1);
    ASSERT_EQ(Search, 0);
  }
  void CloseHandles() const {
    EXPECT_EQ(Fat_CloseFile(File), 1u);
    EXPECT_EQ(Fat_CloseFile(Dir), 1u);
    EXPECT_EQ(Fat_CloseFindHandle(Search), 1u);
  }
  bool StorageIsOpen() const { return Medium.OpenCalls() > Medium.CloseCalls(); }

  /// What a careful host does in the end, whatever went before.
  void CleanUp() {
    SetCurrentFileSystem(FileSystem);
    for (int handle = 0; handle < FILES; ++handle) (void)Fat_CloseFile(handle);
    for (int handle = 0; handle < SEARCHES; ++handle) (void)Fat_CloseFindHandle(handle);
    for (const auto& [fileSystem, storage] : OthersMounted) {
      if (Fat_Unmount(fileSystem) == 0) (void)storage->Close();  // dropped by Fat_LibTerminate
      delete storage;
    }
    (void)Fat_Unmount(FileSystem);
    if (StorageIsOpen()) (void)Storage->Close();
    delete Storage;
    EXPECT_EQ(Fat_LibTerminate(), 1u);
    SetCurrentFileSystem(nullptr);
  }
};

// ---------------------------------------------------------------------------------------------- the calls

/// What decides about the answer to a call.
enum class KIND { Path, Handle, Closing, Mounting, Unmounting, Terminating, WithoutResult };

/// Outputs of a call, to see whether they are written.
struct OUTPUT {
  unsigned int Number = SENTINEL;
  unsigned char Buffer[16];
  WIN_FIND_DATA Data;

  OUTPUT() {
    std::memset(Buffer, 0xA5, sizeof Buffer);
    std::memset(&Data, 0xA5, sizeof Data);
  }
  bool Untouched() const {
    const OUTPUT fresh;
    return Number == SENTINEL && std::memcmp(Buffer, fresh.Buffer, sizeof Buffer) == 0 &&
           std::memcmp(&Data, &fresh.Data, sizeof Data) == 0;
  }
};

/// The arguments are good, or one or more of the pointers is null that must not be.
enum class ARGUMENTS { Good, Null };

struct CALL {
  const char* Function;
  const char* Remark;
  KIND Kind;
  ARGUMENTS Arguments;
  bool SucceedsAgain;  // when nothing is wrong and it has succeeded once
  bool (*Succeeds)(HOST&, OUTPUT&);

  std::string Name() const { return std::string(Function) + " " + Remark; }
};

constexpr ARGUMENTS GOOD = ARGUMENTS::Good;
constexpr ARGUMENTS NIL = ARGUMENTS::Null;

const CALL CALLS[] = {
    {"Fat_LibInitialize", "", KIND::WithoutResult, GOOD, true,
     [](HOST&, OUTPUT&) {
       Fat_LibInitialize();
       return true;
     }},
    {"Fat_LibTerminate", "", KIND::Terminating, GOOD, false, [](HOST&, OUTPUT&) { return Fat_LibTerminate() == 1; }},
    {"Fat_Mount", "", KIND::Mounting, GOOD, true, [](HOST& h, OUTPUT&) { return h.MountAnother(); }},
    {"Fat_Mount", "of a null storage", KIND::Mounting, NIL, false,
     [](HOST&, OUTPUT&) { return Fat_Mount(nullptr, nullptr) != nullptr; }},
    {"Fat_Mount", "of memory at null", KIND::Mounting, NIL, false,
     [](HOST&, OUTPUT&) { return Fat_Mount(new CFatMemory, nullptr) != nullptr; }},
    {"Fat_Mount", "of a null path", KIND::Mounting, NIL, false,
     [](HOST&, OUTPUT&) { return Fat_Mount(new CFatPartition, nullptr) != nullptr; }},
    {"Fat_Unmount", "", KIND::Unmounting, GOOD, false, [](HOST& h, OUTPUT&) { return Fat_Unmount(h.FileSystem) == 1; }},
    {"Fat_Unmount", "of null", KIND::Unmounting, NIL, false, [](HOST&, OUTPUT&) { return Fat_Unmount(nullptr) == 1; }},
    {"SetCurrentFileSystem", "", KIND::WithoutResult, GOOD, true,
     [](HOST& h, OUTPUT&) {
       SetCurrentFileSystem(h.FileSystem);
       return true;
     }},
    {"SetCurrentFileSystem", "to null", KIND::WithoutResult, GOOD, true,
     [](HOST&, OUTPUT&) {
       SetCurrentFileSystem(nullptr);
       return true;
     }},

    {"Fat_OpenFile", "", KIND::Path, GOOD, true,
     [](HOST&, OUTPUT&) { return Fat_OpenFile(CPath("README.TXT")) != NO_HANDLE; }},
    {"Fat_OpenFile", "of null", KIND::Path, NIL, false,
     [](HOST&, OUTPUT&) { return Fat_OpenFile(nullptr) != NO_HANDLE; }},
    {"Fat_CreateFile", "", KIND::Path, GOOD, false,
     [](HOST&, OUTPUT&) { return Fat_CreateFile(CPath("NEW.TXT"), 10, 0) != NO_HANDLE; }},
    {"Fat_CreateFile", "of null", KIND::Path, NIL, false,
     [](HOST&, OUTPUT&) { return Fat_CreateFile(nullptr, 10, 0) != NO_HANDLE; }},
    {"Fat_CloseFile", "", KIND::Closing, GOOD, false, [](HOST& h, OUTPUT&) { return Fat_CloseFile(h.File) == 1; }},
    {"Fat_GetFileSize", "", KIND::Handle, GOOD, true,
     [](HOST& h, OUTPUT& out) { return Fat_GetFileSize(h.File, &out.Number) == 1; }},
    {"Fat_GetFileSize", "to null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT&) { return Fat_GetFileSize(h.File, nullptr) == 1; }},
    {"Fat_SetFileSize", "", KIND::Handle, GOOD, true,
     [](HOST& h, OUTPUT&) { return Fat_SetFileSize(h.File, 2000) == 1; }},
    {"Fat_ReadFileEx", "", KIND::Handle, GOOD, true,
     [](HOST& h, OUTPUT& out) { return Fat_ReadFileEx(h.File, 0, 4, out.Buffer, &out.Number) == 1; }},
    {"Fat_ReadFileEx", "into null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT& out) { return Fat_ReadFileEx(h.File, 0, 4, nullptr, &out.Number) == 1; }},
    {"Fat_ReadFileEx", "with its count to null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT& out) { return Fat_ReadFileEx(h.File, 0, 4, out.Buffer, nullptr) == 1; }},
    {"Fat_ReadFileEx", "with both null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT&) { return Fat_ReadFileEx(h.File, 0, 4, nullptr, nullptr) == 1; }},
    {"Fat_ReadFileEx", "of nothing, with its count to null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT&) { return Fat_ReadFileEx(h.File, 0, 0, nullptr, nullptr) == 1; }},
    {"Fat_WriteFileEx", "", KIND::Handle, GOOD, true,
     [](HOST& h, OUTPUT& out) { return Fat_WriteFileEx(h.File, 0, 4, out.Buffer, &out.Number) == 1; }},
    {"Fat_WriteFileEx", "from null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT& out) { return Fat_WriteFileEx(h.File, 0, 4, nullptr, &out.Number) == 1; }},
    {"Fat_WriteFileEx", "with its count to null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT& out) { return Fat_WriteFileEx(h.File, 0, 4, out.Buffer, nullptr) == 1; }},
    {"Fat_WriteFileEx", "with both null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT&) { return Fat_WriteFileEx(h.File, 0, 4, nullptr, nullptr) == 1; }},
    {"Fat_WriteFileEx", "of nothing, with its count to null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT&) { return Fat_WriteFileEx(h.File, 0, 0, nullptr, nullptr) == 1; }},
    {"Fat_GetFileOffset", "", KIND::Handle, GOOD, true,
     [](HOST& h, OUTPUT& out) { return Fat_GetFileOffset(h.File, &out.Number) == 1; }},
    {"Fat_GetFileOffset", "to null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT&) { return Fat_GetFileOffset(h.File, nullptr) == 1; }},
    {"Fat_SetFileOffset", "", KIND::Handle, GOOD, true,
     [](HOST& h, OUTPUT&) { return Fat_SetFileOffset(h.File, 3, 0) == 1; }},
    {"Fat_ReadFile", "", KIND::Handle, GOOD, true,
     [](HOST& h, OUTPUT& out) { return Fat_ReadFile(h.File, 4, out.Buffer, &out.Number) == 1; }},
    {"Fat_ReadFile", "into null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT& out) { return Fat_ReadFile(h.File, 4, nullptr, &out.Number) == 1; }},
    {"Fat_ReadFile", "with its count to null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT& out) { return Fat_ReadFile(h.File, 4, out.Buffer, nullptr) == 1; }},
    {"Fat_ReadFile", "with both null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT&) { return Fat_ReadFile(h.File, 4, nullptr, nullptr) == 1; }},
    {"Fat_ReadFile", "of nothing, with its count to null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT&) { return Fat_ReadFile(h.File, 0, nullptr, nullptr) == 1; }},
    {"Fat_WriteFile", "", KIND::Handle, GOOD, true,
     [](HOST& h, OUTPUT& out) { return Fat_WriteFile(h.File, 4, out.Buffer, &out.Number) == 1; }},
    {"Fat_WriteFile", "from null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT& out) { return Fat_WriteFile(h.File, 4, nullptr, &out.Number) == 1; }},
    {"Fat_WriteFile", "with its count to null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT& out) { return Fat_WriteFile(h.File, 4, out.Buffer, nullptr) == 1; }},
    {"Fat_WriteFile", "with both null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT&) { return Fat_WriteFile(h.File, 4, nullptr, nullptr) == 1; }},
    {"Fat_WriteFile", "of nothing, with its count to null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT&) { return Fat_WriteFile(h.File, 0, nullptr, nullptr) == 1; }},
    {"Fat_IsDir", "", KIND::Handle, GOOD, true, [](HOST& h, OUTPUT&) { return Fat_IsDir(h.Dir) == 1; }},
    {"Fat_GetFileAttribute", "", KIND::Handle, GOOD, true,
     [](HOST& h, OUTPUT& out) { return Fat_GetFileAttribute(h.File, &out.Data) == 1; }},
    {"Fat_GetFileAttribute", "to null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT&) { return Fat_GetFileAttribute(h.File, nullptr) == 1; }},
    {"Fat_SetFileAttribute", "", KIND::Handle, GOOD, true,
     [](HOST& h, OUTPUT& out) { return Fat_SetFileAttribute(h.File, &out.Data) == 1; }},
    {"Fat_SetFileAttribute", "from null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT&) { return Fat_SetFileAttribute(h.File, nullptr) == 1; }},

    {"Fat_DeleteFile", "", KIND::Path, GOOD, false,
     [](HOST&, OUTPUT&) { return Fat_DeleteFile(CPath("README.TXT")) == 1; }},
    {"Fat_DeleteFile", "of null", KIND::Path, NIL, false, [](HOST&, OUTPUT&) { return Fat_DeleteFile(nullptr) == 1; }},
    {"Fat_RenameFile", "", KIND::Path, GOOD, false,
     [](HOST&, OUTPUT&) { return Fat_RenameFile(CPath("README.TXT"), CPath("OTHER.TXT")) == 1; }},
    {"Fat_RenameFile", "of null", KIND::Path, NIL, false,
     [](HOST&, OUTPUT&) { return Fat_RenameFile(nullptr, CPath("OTHER.TXT")) == 1; }},
    {"Fat_RenameFile", "to null", KIND::Path, NIL, false,
     [](HOST&, OUTPUT&) { return Fat_RenameFile(CPath("README.TXT"), nullptr) == 1; }},
    {"Fat_RenameFile", "of null to null", KIND::Path, NIL, false,
     [](HOST&, OUTPUT&) { return Fat_RenameFile(nullptr, nullptr) == 1; }},
    {"Fat_MoveFile", "", KIND::Path, GOOD, false,
     [](HOST&, OUTPUT&) { return Fat_MoveFile(CPath("DIR\\IN.TXT"), nullptr) == 1; }},
    {"Fat_MoveFile", "of null", KIND::Path, NIL, false,
     [](HOST&, OUTPUT&) { return Fat_MoveFile(nullptr, CPath("DIR")) == 1; }},
    {"Fat_MoveFile", "of null to the root", KIND::Path, NIL, false,
     [](HOST&, OUTPUT&) { return Fat_MoveFile(nullptr, nullptr) == 1; }},
    {"Fat_CreateDir", "", KIND::Path, GOOD, false,
     [](HOST&, OUTPUT&) { return Fat_CreateDir(CPath("NEWDIR"), 0) == 1; }},
    {"Fat_CreateDir", "of null", KIND::Path, NIL, false, [](HOST&, OUTPUT&) { return Fat_CreateDir(nullptr, 0) == 1; }},

    {"Fat_FindFirstFile", "", KIND::Path, GOOD, true,
     [](HOST&, OUTPUT& out) { return Fat_FindFirstFile(CPath("DIR"), &out.Data) != NO_HANDLE; }},
    {"Fat_FindFirstFile", "of null", KIND::Path, NIL, false,
     [](HOST&, OUTPUT& out) { return Fat_FindFirstFile(nullptr, &out.Data) != NO_HANDLE; }},
    {"Fat_FindFirstFile", "to null", KIND::Path, NIL, false,
     [](HOST&, OUTPUT&) { return Fat_FindFirstFile(CPath("DIR"), nullptr) != NO_HANDLE; }},
    {"Fat_FindFirstFile", "of null to null", KIND::Path, NIL, false,
     [](HOST&, OUTPUT&) { return Fat_FindFirstFile(nullptr, nullptr) != NO_HANDLE; }},
    {"Fat_FindNextFile", "", KIND::Handle, GOOD, true,
     [](HOST& h, OUTPUT& out) { return Fat_FindNextFile(h.Search, &out.Data) == 1; }},
    {"Fat_FindNextFile", "to null", KIND::Handle, NIL, false,
     [](HOST& h, OUTPUT&) { return Fat_FindNextFile(h.Search, nullptr) == 1; }},
    {"Fat_CloseFindHandle", "", KIND::Closing, GOOD, false,
     [](HOST& h, OUTPUT&) { return Fat_CloseFindHandle(h.Search) == 1; }},
};

// ---------------------------------------------------------------------------------------------- the situations

/// How the library stands, and which kinds of calls succeed then if their arguments are good.
struct SITUATION {
  const char* Name;
  void (*Arrange)(HOST&);
  bool Path;
  bool Handle;
  bool Closing;
  bool Mounting;
  bool Unmounting;
  bool Terminating;  // that is, no handle is open

  bool Succeeds(const CALL& call) const {
    if (call.Arguments == ARGUMENTS::Null) return false;
    switch (call.Kind) {
      case KIND::Path:
        return Path;
      case KIND::Handle:
        return Handle;
      case KIND::Closing:
        return Closing;
      case KIND::Mounting:
        return Mounting;
      case KIND::Unmounting:
        return Unmounting;
      case KIND::Terminating:
        return Terminating;
      case KIND::WithoutResult:
        break;
    }
    return true;
  }
};
void PrintTo(const SITUATION& situation, std::ostream* out) { *out << situation.Name; }

void Start(HOST& h) {
  Fat_LibInitialize();
  h.MountVolume();
  h.OpenHandles();
}

void StartAndUnmount(HOST& h) {
  Start(h);
  EXPECT_EQ(Fat_Unmount(h.FileSystem), 1u);
}

void FailToUnmount(HOST& h) {
  Start(h);
  EXPECT_EQ(Fat_SetFileSize(h.File, 2000), 1u);
  const CImageBuilder builder(h.Medium.Image());
  h.Medium.FailRange(static_cast<long long>(builder.FatOffset(0)), builder.FatBytes(), IO_FILTER::Writes);
  EXPECT_EQ(Fat_Unmount(h.FileSystem), 0u);
  h.Medium.Heal();
}

int s_NoFileSystem = 0;

constexpr bool YES = true;
constexpr bool NO = false;

// Columns: path functions, handle functions, closing, Fat_Mount, Fat_Unmount, Fat_LibTerminate.
const SITUATION NOTHING_WRONG = {"NothingIsWrong", &Start, YES, YES, YES, YES, YES, NO};
const SITUATION SITUATIONS[] = {
    NOTHING_WRONG,
    {"BeforeInitialise", [](HOST&) {}, NO, NO, NO, NO, NO, YES},
    {"BeforeMount", [](HOST&) { Fat_LibInitialize(); }, NO, NO, NO, YES, NO, YES},
    {"AfterAFailedMount",
     [](HOST& h) {
       Start(h);
       EXPECT_EQ(Fat_Mount(nullptr, nullptr), nullptr);
     },
     NO, NO, NO, YES, YES, NO},
    {"CurrentIsNull",
     [](HOST& h) {
       Start(h);
       SetCurrentFileSystem(nullptr);
     },
     NO, NO, NO, YES, YES, NO},
    {"CurrentIsNoFileSystem",
     [](HOST& h) {
       Start(h);
       SetCurrentFileSystem(reinterpret_cast<CFatFileSystem*>(&s_NoFileSystem));
     },
     NO, YES, YES, YES, YES, NO},
    {"HandlesAreClosed",
     [](HOST& h) {
       Start(h);
       h.CloseHandles();
     },
     YES, NO, NO, YES, YES, YES},
    {"HandlesAreMinusOne",
     [](HOST& h) {
       Start(h);
       h.File = h.Dir = h.Search = NO_HANDLE;
     },
     YES, NO, NO, YES, YES, NO},
    {"HandlesAreBeyondTheTables",
     [](HOST& h) {
       Start(h);
       h.File = h.Dir = FILES;
       h.Search = SEARCHES;
     },
     YES, NO, NO, YES, YES, NO},
    {"AfterUnmount", &StartAndUnmount, NO, NO, YES, YES, NO, NO},
    {"AfterUnmountWithHandlesClosed",
     [](HOST& h) {
       Start(h);
       h.CloseHandles();
       EXPECT_EQ(Fat_Unmount(h.FileSystem), 1u);
     },
     NO, NO, NO, YES, NO, YES},
    {"AfterUnmountWithHandlesClosedAfterIt",
     [](HOST& h) {
       StartAndUnmount(h);
       h.CloseHandles();
     },
     NO, NO, NO, YES, NO, YES},
    {"AfterUnmountWithAnotherVolumeCurrent",
     [](HOST& h) {
       StartAndUnmount(h);
       EXPECT_TRUE(h.MountAnother());
     },
     YES, NO, YES, YES, NO, NO},
    {"AfterAFailedUnmount", &FailToUnmount, NO, NO, YES, YES, NO, NO},
    {"AfterInitialisingTwice",
     [](HOST& h) {
       Start(h);
       Fat_LibInitialize();
     },
     YES, NO, NO, YES, YES, YES},
    {"AfterTerminate",
     [](HOST& h) {
       StartAndUnmount(h);
       h.CloseHandles();
       EXPECT_EQ(Fat_LibTerminate(), 1u);
     },
     NO, NO, NO, NO, NO, YES},
    {"AfterTerminateWithHandlesOpen",
     [](HOST& h) {
       StartAndUnmount(h);
       EXPECT_EQ(Fat_LibTerminate(), 0u);
     },
     NO, NO, YES, NO, NO, NO},
    {"AfterTerminateWhileMounted",
     [](HOST& h) {
       Start(h);
       EXPECT_EQ(Fat_LibTerminate(), 0u);
     },
     NO, NO, YES, NO, NO, NO},
    {"AfterTerminateTwiceWhileMounted",
     [](HOST& h) {
       Start(h);
       EXPECT_EQ(Fat_LibTerminate(), 0u);
       EXPECT_EQ(Fat_LibTerminate(), 0u);
     },
     NO, NO, YES, NO, NO, NO},
    {"AfterTerminateAndInitialise",
     [](HOST& h) {
       Start(h);
       EXPECT_EQ(Fat_LibTerminate(), 0u);
       Fat_LibInitialize();
     },
     NO, NO, NO, YES, NO, YES},
};

// ---------------------------------------------------------------------------------------------- the tests

/// Brings nothing up by itself.
class MistakesFrame : public CLibFixture {
 protected:
  void SetUp() override {}
  void TearDown() override {
    EXPECT_EQ(m_Memory.Outstanding(), 0u);
    EXPECT_EQ(m_Memory.UnknownFrees(), 0u);
  }

  /// One whole run from the start to the end of the library.
  static void ExpectLibraryWorks() {
    HOST host;
    Fat_LibInitialize();
    host.MountVolume();
    EXPECT_EQ(ReadPath(DEEP), ContentOf(DEEP));
    EXPECT_TRUE(WritePath("DIR\\After all.bin", CImageBuilder::Pattern(700, 9)));
    EXPECT_EQ(List("DIR").size(), 3u);
    EXPECT_EQ(Fat_Unmount(host.FileSystem), 1u);
    delete host.Storage;
    EXPECT_EQ(Fat_LibTerminate(), 1u);
    SetCurrentFileSystem(nullptr);
    EXPECT_EQ(Harmed(host.Medium.Image()), "");
  }

  CMemHooks m_Memory;
};

class HostMistakes : public MistakesFrame, public ::testing::WithParamInterface<SITUATION> {};

TEST_P(HostMistakes, EveryFunctionWithGoodAndNullArguments_AnswersAsStatedAndTheLibraryGoesOn) {
  for (const CALL& call : CALLS) {
    SCOPED_TRACE(call.Name());
    HOST host;
    GetParam().Arrange(host);
    const unsigned int transfers = host.Medium.Transfers() + host.Other.Transfers();
    const std::size_t blocks = m_Memory.Outstanding();
    OUTPUT out;
    const bool expected = GetParam().Succeeds(call);
    EXPECT_EQ(call.Succeeds(host, out), expected);
    if (!expected) {
      EXPECT_TRUE(out.Untouched());
      EXPECT_EQ(host.Medium.Transfers() + host.Other.Transfers(), transfers) << host.Medium.TraceText();
      if (call.Kind != KIND::Terminating) {
        EXPECT_EQ(m_Memory.Outstanding(), blocks);
      }
    }
    host.CleanUp();
    EXPECT_EQ(m_Memory.Outstanding(), 0u);
    EXPECT_EQ(host.Medium.TransfersWhileClosed(), 0u);
    EXPECT_EQ(Harmed(host.Medium.Image(), {"README.TXT", "TEN", "DIR\\IN.TXT"}), "");
  }
  ExpectLibraryWorks();
}

INSTANTIATE_TEST_SUITE_P(Situations, HostMistakes, ::testing::ValuesIn(SITUATIONS),
                         [](const ::testing::TestParamInfo<SITUATION>& situation) { return situation.param.Name; });

TEST(HostMistakesTable, HoldsAll26FunctionsAndEachSucceedsSomewhere) {
  std::set<std::string> functions;
  for (const CALL& call : CALLS) {
    if (call.Arguments == ARGUMENTS::Good && NOTHING_WRONG.Succeeds(call)) functions.insert(call.Function);
  }
  functions.insert("Fat_LibTerminate");  // true only without the handles that the others need
  EXPECT_EQ(functions.size(), 26u);
}

class CalledTwice : public MistakesFrame {};

TEST_F(CalledTwice, EveryFunction_AnswersTheSecondTimeAsStated) {
  for (const CALL& call : CALLS) {
    if (call.Arguments == ARGUMENTS::Null) continue;
    SCOPED_TRACE(call.Name());
    HOST host;
    Start(host);
    OUTPUT first;
    OUTPUT second;
    EXPECT_EQ(call.Succeeds(host, first), NOTHING_WRONG.Succeeds(call));
    EXPECT_EQ(call.Succeeds(host, second), call.SucceedsAgain);
    if (!call.SucceedsAgain) {
      EXPECT_TRUE(second.Untouched());
    }
    host.CleanUp();
    EXPECT_EQ(m_Memory.Outstanding(), 0u);
  }
  ExpectLibraryWorks();
}

/// A call for files and names: it neither starts nor ends anything.
bool IsOrdinary(const CALL& call) { return call.Kind == KIND::Path || call.Kind == KIND::Handle; }

TEST_F(CalledTwice, StartingClosingOrEndingBeforeAndAfterAnyCall_TheLibraryGoesOn) {
  for (const CALL& one : CALLS) {
    for (const CALL& two : CALLS) {
      if (one.Arguments == ARGUMENTS::Null || two.Arguments == ARGUMENTS::Null) continue;
      if (IsOrdinary(one) && IsOrdinary(two)) continue;
      SCOPED_TRACE(one.Name() + ", then " + two.Name());
      HOST host;
      Start(host);
      OUTPUT out;
      (void)one.Succeeds(host, out);
      (void)two.Succeeds(host, out);
      host.CleanUp();
      ASSERT_EQ(m_Memory.Outstanding(), 0u);
      ASSERT_EQ(m_Memory.UnknownFrees(), 0u);
      EXPECT_EQ(host.Medium.TransfersWhileClosed(), 0u);
      EXPECT_EQ(Harmed(host.Medium.Image(), {"README.TXT", "TEN", "DIR\\IN.TXT"}), "");
    }
  }
  ExpectLibraryWorks();
}

TEST_F(CalledTwice, NullBufferForNoBytes_SucceedsAsOftenAsItIsTried) {
  HOST host;
  Start(host);
  for (int round = 0; round < 2; ++round) {
    unsigned int done = SENTINEL;
    EXPECT_EQ(Fat_ReadFileEx(host.File, 0, 0, nullptr, &done), 1u);
    EXPECT_EQ(Fat_WriteFileEx(host.File, 0, 0, nullptr, &done), 1u);
    EXPECT_EQ(Fat_ReadFile(host.File, 0, nullptr, &done), 1u);
    EXPECT_EQ(Fat_WriteFile(host.File, 0, nullptr, &done), 1u);
    EXPECT_EQ(done, 0u);
  }
  host.CleanUp();
}

TEST_F(CalledTwice, HandleGivenOutAgain_NamesTheNewFile) {
  HOST host;
  Start(host);
  EXPECT_EQ(Fat_CloseFile(host.File), 1u);
  EXPECT_EQ(Fat_OpenFile(CPath("README.TXT")), host.File);
  EXPECT_EQ(SizeOf(host.File), 700u);  // a number is all that a handle is
  host.CleanUp();
}

// ---------------------------------------------------------------------------------------------- nothing is left

class Leftovers : public MistakesFrame {
 protected:
  void OpenEverything() {
    Fat_LibInitialize();
    m_Host.MountVolume();
    for (int i = 0; i < FILES; ++i) {
      const std::string path = "DIR\\New file " + std::to_string(i);
      ASSERT_EQ(Fat_CreateFile(CPath(path), 600, 0), i);
      ASSERT_GE(WriteAt(i, 0, BYTES(600, 0x42)), 0);
    }
    for (int i = 0; i < SEARCHES; ++i) ASSERT_EQ(FindFirst("DIR"), i);
  }
  static void CloseEverything() {
    for (int i = 0; i < FILES; ++i) EXPECT_EQ(Fat_CloseFile(i), 1u);
    for (int i = 0; i < SEARCHES; ++i) EXPECT_EQ(Fat_CloseFindHandle(i), 1u);
  }
  void FreeStorage() {
    if (m_Host.StorageIsOpen()) (void)m_Host.Storage->Close();
    delete m_Host.Storage;
    SetCurrentFileSystem(nullptr);
  }
  HOST m_Host;
};

TEST_F(Leftovers, EveryHandleClosedThenUnmounted_TerminateLeavesNothing) {
  OpenEverything();
  CloseEverything();
  EXPECT_EQ(Fat_Unmount(m_Host.FileSystem), 1u);
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  EXPECT_EQ(m_Memory.OutstandingBytes(), 0u);
  FreeStorage();
  EXPECT_EQ(CVolumeReader(m_Host.Medium.Image()).ProblemText(), "");
}

TEST_F(Leftovers, UnmountedWithEveryHandleOpen_ClosingAndTerminateLeaveNothing) {
  OpenEverything();
  EXPECT_EQ(Fat_Unmount(m_Host.FileSystem), 1u);
  CloseEverything();
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  EXPECT_EQ(m_Memory.OutstandingBytes(), 0u);
  FreeStorage();
  const CVolumeReader reader(m_Host.Medium.Image());
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_EQ(reader.Content(*reader.Find("DIR\\New file 159")), BYTES(600, 0x42));
}

TEST_F(Leftovers, TerminatedWithEveryHandleOpen_ClosingLeavesNothingButTheStorage) {
  OpenEverything();
  EXPECT_EQ(Fat_LibTerminate(), 0u);
  CloseEverything();
  EXPECT_EQ(m_Memory.Outstanding(), 1u);  // the sector buffer of the storage object, which is still open
  FreeStorage();
  EXPECT_EQ(m_Memory.Outstanding(), 0u);
}

TEST_F(Leftovers, TerminatedWithEveryHandleOpenAndInitialised_TablesAreEmptyAndNothingIsLeft) {
  OpenEverything();
  EXPECT_EQ(Fat_LibTerminate(), 0u);
  Fat_LibInitialize();
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  FreeStorage();
  EXPECT_EQ(m_Memory.Outstanding(), 0u);
}

class LeftoversByWidth : public Leftovers, public ::testing::WithParamInterface<unsigned int> {};

TEST_P(LeftoversByWidth, AllCallsOneAfterTheOther_TerminateLeavesNothing) {
  m_Host.Medium.Image() = MakeVolume(GetParam());
  Start(m_Host);
  for (const CALL& call : CALLS) {
    OUTPUT out;
    if (call.Kind == KIND::Path || call.Kind == KIND::Handle) (void)call.Succeeds(m_Host, out);
  }
  for (int handle = 0; handle < FILES; ++handle) (void)Fat_CloseFile(handle);
  for (int handle = 0; handle < SEARCHES; ++handle) (void)Fat_CloseFindHandle(handle);
  EXPECT_EQ(Fat_Unmount(m_Host.FileSystem), 1u);
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  EXPECT_EQ(m_Memory.OutstandingBytes(), 0u);
  FreeStorage();
  EXPECT_EQ(CVolumeReader(m_Host.Medium.Image()).ProblemText(), "");
}

INSTANTIATE_TEST_SUITE_P(Widths, LeftoversByWidth, ::testing::Values(12u, 16u, 32u), WidthName);

}  // namespace
