/// @file LifecycleTest.cpp
/// Start, mount, unmount and stop: what they release, in what order they write, and what becomes of handles.

#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "InterfaceFrame.h"

namespace {

using namespace interfacetest;

const auto WIDTHS = ::testing::Values(12u, 16u, 32u);

// ---------------------------------------------------------------------------------------------- the library's start

TEST_F(Interface, Initialise_TakesTheLocaleFromTheEnvironment) {
  const char* set = std::getenv("LC_ALL");
  const std::string old = set == nullptr ? "" : set;
  for (const char* name : {"C.UTF-8", "C"}) {
    setenv("LC_ALL", name, 1);
    Fat_LibInitialize();
    EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), name);
  }
  if (set == nullptr) {
    unsetenv("LC_ALL");
  } else {
    setenv("LC_ALL", old.c_str(), 1);
  }
  std::setlocale(LC_ALL, "C");
}

TEST_F(InterfaceOnOneVolume, InitialisedTwice_VolumeStaysMountedAndHandlesAreClosed) {
  const int file = Fat_OpenFile(CPath("TEN"));
  const int search = FindFirst("DIR");
  EXPECT_EQ(WriteAt(file, 0, BYTES(10, 0x77)), 10);
  Fat_LibInitialize();
  EXPECT_EQ(HandleCallsNotRefused(file, search), "");
  EXPECT_EQ(Fat_OpenFile(CPath("TEN")), 0);
  EXPECT_EQ(ReadAll(0), BYTES(10, 0x77));
  Close({0});
  EXPECT_TRUE(Unmount(m_pFileSystem));
  const CVolumeReader reader(m_pMedium->Image());
  EXPECT_EQ(reader.Content(*reader.Find("TEN")), BYTES(10, 0x77));
}

/// Writes down what the library allocates and frees, by size.
class CSizeTrace {
 public:
  CSizeTrace() : m_Saved(g_OsServices) {
    s_pActive = this;
    g_OsServices.pfnMalloc = [](std::size_t size) {
      return s_pActive->Taken(s_pActive->m_Saved.pfnMalloc(size), size);
    };
    g_OsServices.pfnCalloc = [](std::size_t count, std::size_t size) {
      return s_pActive->Taken(s_pActive->m_Saved.pfnCalloc(count, size), count * size);
    };
    g_OsServices.pfnFree = [](void* memory) {
      if (memory != nullptr) s_pActive->m_Freed.push_back(s_pActive->m_Sizes[memory]);
      s_pActive->m_Saved.pfnFree(memory);
    };
  }
  ~CSizeTrace() { g_OsServices = m_Saved; }
  CSizeTrace(const CSizeTrace&) = delete;
  CSizeTrace& operator=(const CSizeTrace&) = delete;

  const std::vector<std::size_t>& Allocated() const { return m_Allocated; }
  const std::vector<std::size_t>& Freed() const { return m_Freed; }
  /// The locale when memory was first taken.
  const std::string& Locale() const { return m_Locale; }

 private:
  void* Taken(void* memory, std::size_t size) {
    if (m_Allocated.empty()) m_Locale = std::setlocale(LC_ALL, nullptr);
    m_Allocated.push_back(size);
    m_Sizes[memory] = size;
    return memory;
  }

  static inline CSizeTrace* s_pActive = nullptr;
  OS_SERVICES m_Saved;
  std::vector<std::size_t> m_Allocated;
  std::vector<std::size_t> m_Freed;
  std::map<void*, std::size_t> m_Sizes;
  std::string m_Locale;
};

constexpr std::size_t RUN_BLOCK = 128;                             // 16 runs of a file's map
constexpr std::size_t NODE_BLOCK = sizeof(void*) == 4 ? 72 : 144;  // of a file's table of cached blocks
// The stack of 32 free blocks that each of the two has takes as much as a map where addresses have 32 bits.
constexpr std::ptrdiff_t STACK_LIKE_MAP = 32 * sizeof(void*) == RUN_BLOCK ? 1 : 0;
constexpr std::size_t POOL_BYTES = 256 * 0x40000;  // and room to align them

std::ptrdiff_t FirstOf(const std::vector<std::size_t>& sizes, std::size_t from, std::size_t to) {
  return std::find_if(sizes.begin(), sizes.end(), [=](std::size_t size) { return size >= from && size <= to; }) -
         sizes.begin();
}

TEST_F(Interface, Initialise_TakesTheLocaleThenTheMapsThenThePoolOf256Blocks) {
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  const char* set = std::getenv("LC_ALL");
  const std::string old = set == nullptr ? "" : set;
  std::setlocale(LC_ALL, "C");
  setenv("LC_ALL", "C.UTF-8", 1);
  {
    const CSizeTrace trace;
    Fat_LibInitialize();
    const std::vector<std::size_t>& sizes = trace.Allocated();
    EXPECT_EQ(trace.Locale(), "C.UTF-8");
    EXPECT_EQ(std::count(sizes.begin(), sizes.end(), RUN_BLOCK), 16 + 2 * STACK_LIKE_MAP);
    EXPECT_EQ(std::count(sizes.begin(), sizes.end(), NODE_BLOCK), 16);
    const std::ptrdiff_t pool = FirstOf(sizes, POOL_BYTES, POOL_BYTES + POOL_BYTES / 16);
    ASSERT_LT(pool, static_cast<std::ptrdiff_t>(sizes.size()));
    EXPECT_EQ(std::count(sizes.begin(), sizes.begin() + pool, RUN_BLOCK), 16 + STACK_LIKE_MAP);  // the maps come first
    EXPECT_EQ(std::count(sizes.begin(), sizes.begin() + pool, NODE_BLOCK), 0);
    // The pool is nearly all there is.
    std::size_t bytes = 0;
    for (const std::size_t size : sizes) bytes += size;
    EXPECT_LT(bytes, POOL_BYTES + POOL_BYTES / 16);
  }
  if (set == nullptr) {
    unsetenv("LC_ALL");
  } else {
    setenv("LC_ALL", old.c_str(), 1);
  }
  std::setlocale(LC_ALL, "C");
}

TEST_F(Interface, Terminate_FreesThePoolOfBlocksBeforeTheMaps) {
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  Terminated();
  const CSizeTrace trace;
  Fat_LibInitialize();
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  const std::vector<std::size_t>& sizes = trace.Freed();
  EXPECT_EQ(sizes.size(), trace.Allocated().size());
  const std::ptrdiff_t maps = FirstOf(sizes, RUN_BLOCK, RUN_BLOCK);
  EXPECT_LT(FirstOf(sizes, POOL_BYTES, SIZE_MAX), maps);
  EXPECT_EQ(std::count(sizes.begin(), sizes.begin() + maps, NODE_BLOCK), 16);
  EXPECT_EQ(std::count(sizes.begin(), sizes.end(), RUN_BLOCK), 16 + 2 * STACK_LIKE_MAP);
}

TEST_F(Interface, InitialisedTwice_TakesNoMoreMemory) {
  const std::size_t before = Memory().Outstanding();
  Fat_LibInitialize();
  Fat_LibInitialize();
  EXPECT_EQ(Memory().Outstanding(), before);
}

// ---------------------------------------------------------------------------------------------- mounting

TEST_F(InterfaceOnOneVolume, NullStorage_FailsFreesNothingAndLeavesNoCurrentFileSystem) {
  const std::size_t before = Memory().Outstanding();
  EXPECT_EQ(Fat_Mount(nullptr, nullptr), nullptr);
  EXPECT_EQ(Memory().Outstanding(), before);
  EXPECT_EQ(Fat_OpenFile(CPath("TEN")), NO_HANDLE);
  SetCurrentFileSystem(m_pFileSystem);
  EXPECT_TRUE(Exists("TEN"));
}

TEST_F(InterfaceOnOneVolume, Mounted_IsTheCurrentFileSystem) {
  EXPECT_TRUE(Exists("TEN"));
  EXPECT_EQ(m_pMedium->OpenCalls(), 0u);  // since the mount
  EXPECT_EQ(m_pMedium->CloseCalls(), 0u);
}

/// A storage object that would tell if its destructor ran.
class CTellTale final : public CFatMemory {
 public:
  ~CTellTale() { ++s_nDestroyed; }
  static unsigned int s_nDestroyed;
};
unsigned int CTellTale::s_nDestroyed = 0;

TEST_F(Interface, MountFailed_StorageIsFreedWithoutItsDestructor) {
  CTellTale::s_nDestroyed = 0;
  BYTES noVolume(4096);
  auto* storage = new CTellTale;
  const CFreeWatch watch(storage);
  EXPECT_EQ(Fat_Mount(storage, noVolume.data()), nullptr);
  EXPECT_TRUE(watch.Freed());
  EXPECT_EQ(CTellTale::s_nDestroyed, 0u);
}

/// What precedes the storage in its object.
struct FIRST_PART {
  virtual int Number() const { return 7; }
  long long Filler[20] = {};

 protected:
  ~FIRST_PART() = default;
};
class CSecondPart final : public FIRST_PART, public CFatMemory {};

TEST_F(Interface, MountOfAStorageInsideALargerObjectFailed_WholeObjectIsFreed) {
  BYTES noVolume(4096);
  auto* object = new CSecondPart;
  EXPECT_EQ(object->Number(), 7);
  const CFreeWatch watch(object);
  EXPECT_EQ(Fat_Mount(object, noVolume.data()), nullptr);
  EXPECT_TRUE(watch.Freed());
}

struct FAILED_MOUNT {
  const char* Name;
  std::function<void(CMedium&)> Arrange;
  unsigned int CloseCalls;
};
void PrintTo(const FAILED_MOUNT& mount, std::ostream* out) { *out << mount.Name; }

class FailedMount : public Interface, public ::testing::WithParamInterface<FAILED_MOUNT> {};

TEST_P(FailedMount, ReleasesEverythingWritesNothingAndClosesOnlyAfterASuccessfulOpen) {
  CMedium medium(MakeVolume(32));
  GetParam().Arrange(medium);
  const std::size_t before = Memory().Outstanding();
  CFaultStorage* storage = new CFaultStorage(medium);
  const CFreeWatch watch(storage);
  EXPECT_EQ(Fat_Mount(storage, nullptr), nullptr);
  EXPECT_TRUE(watch.Freed());
  EXPECT_EQ(Memory().Outstanding(), before);
  EXPECT_EQ(medium.Writes(), 0u);
  EXPECT_EQ(medium.OpenCalls(), 1u);
  EXPECT_EQ(medium.CloseCalls(), GetParam().CloseCalls);
  EXPECT_EQ(NotRefused(0, 0), "");
}

INSTANTIATE_TEST_SUITE_P(
    Causes, FailedMount,
    ::testing::Values(FAILED_MOUNT{"DeviceDoesNotOpen",
                                   [](CMedium& m) { m.SetOpenResult(static_cast<int>(0xC0000136)); }, 0},
                      FAILED_MOUNT{"BootSectorUnreadable", [](CMedium& m) { m.FailAt(1, FAULT_ONCE); }, 0},
                      FAILED_MOUNT{"BootSectorRefused", [](CMedium& m) { m.Image().Set8(0, 0x33); }, 0},
                      FAILED_MOUNT{"BootSectorEmpty", [](CMedium& m) { m.Image().Fill(0, 2048, 0); }, 0},
                      FAILED_MOUNT{"FewerSectorsThanTheOverhead", [](CMedium& m) { m.Image().Set32(32, 100); }, 1},
                      FAILED_MOUNT{"FatUnreadable", [](CMedium& m) { m.FailAt(2, FAULT_ONCE); }, 1},
                      FAILED_MOUNT{"RootChainLeavesTheVolume", [](CMedium& m) { m.Image().Set32(44, 70002); }, 1},
                      FAILED_MOUNT{"RootClusterIsOne", [](CMedium& m) { m.Image().Set32(44, 1); }, 1},
                      FAILED_MOUNT{"RootUnreadable",
                                   [](CMedium& m) {
                                     CImageBuilder builder(m.Image());
                                     m.FailRange(static_cast<long long>(builder.RootOffset()), 512);
                                   },
                                   1}),
    [](const ::testing::TestParamInfo<FAILED_MOUNT>& mount) { return mount.param.Name; });

unsigned int OpenDescriptors() {
  unsigned int count = 0;
  DIR* directory = opendir("/proc/self/fd");
  while (directory != nullptr && readdir(directory) != nullptr) ++count;
  if (directory != nullptr) closedir(directory);
  return count;
}

TEST_F(Interface, ImageFileRefused_DeviceStaysOpenOnlyAfterAFailedOpen) {
  CDiskImage notAVolume(4096);
  notAVolume.ToFile(TempDir() / "refused");
  CDiskImage noRoot = MakeVolume(32);
  noRoot.Set32(44, 1);
  noRoot.ToFile(TempDir() / "no-root");
  const unsigned int before = OpenDescriptors();
  EXPECT_EQ(MountFile(TempDir() / "no-root"), nullptr);
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(MountFile(TempDir() / "missing"), nullptr);
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(MountFile(TempDir() / "refused"), nullptr);
  EXPECT_EQ(OpenDescriptors(), before + 1);
}

TEST_F(Interface, NullParameter_MountFails) {
  CFatMemory* memory = new CFatMemory;
  {
    const CFreeWatch watch(memory);
    EXPECT_EQ(Fat_Mount(memory, nullptr), nullptr);
    EXPECT_TRUE(watch.Freed());
  }
  CFatPartition* partition = new CFatPartition;
  const CFreeWatch watch(partition);
  EXPECT_EQ(Fat_Mount(partition, nullptr), nullptr);
  EXPECT_TRUE(watch.Freed());
}

TEST_F(Interface, StorageInUse_IsRefusedAndNotFreed) {
  CMedium& medium = NewMedium(MakeVolume(16));
  CFaultStorage* storage = new CFaultStorage(medium);
  CFatFileSystem* fileSystem = Fat_Mount(storage, nullptr);
  ASSERT_NE(fileSystem, nullptr);
  medium.ClearTrace();
  {
    const CFreeWatch watch(storage);
    EXPECT_EQ(Fat_Mount(storage, nullptr), nullptr);
    EXPECT_FALSE(watch.Freed());
  }
  EXPECT_EQ(medium.OpenCalls(), 0u);
  EXPECT_EQ(medium.Transfers(), 0u);
  EXPECT_EQ(NotRefused(0, 0), "");
  SetCurrentFileSystem(fileSystem);
  EXPECT_EQ(ReadPath(DEEP), ContentOf(DEEP));
  EXPECT_EQ(Fat_Unmount(fileSystem), 1u);
  EXPECT_EQ(medium.CloseCalls(), 1u);
  delete storage;
}

TEST_F(Interface, StorageUnmounted_MountsAgain) {
  CMedium& medium = NewMedium(MakeVolume(16));
  CFaultStorage* storage = new CFaultStorage(medium);
  for (int round = 0; round < 3; ++round) {
    CFatFileSystem* fileSystem = Fat_Mount(storage, nullptr);
    ASSERT_NE(fileSystem, nullptr);
    EXPECT_EQ(ReadPath("TEN"), ContentOf("TEN"));
    EXPECT_EQ(Fat_Unmount(fileSystem), 1u);
  }
  EXPECT_EQ(medium.OpenCalls(), 3u);
  EXPECT_EQ(medium.CloseCalls(), 3u);
  EXPECT_EQ(medium.TransfersWhileClosed(), 0u);
  delete storage;
}

TEST_F(Interface, OnlyReading_WritesNothingBeforeTheUnmount) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    CMedium& medium = NewMedium(MakeVolume(bits));
    CFatFileSystem* fileSystem = MountMedium(medium);
    ASSERT_NE(fileSystem, nullptr);
    for (const FILE_ON_VOLUME& file : FILES_ON_VOLUME) {
      EXPECT_EQ(ReadPath(file.Path), file.Content());
    }
    EXPECT_EQ(List("DIR").size(), 2u);
    const int handle = Fat_OpenFile(CPath(DEEP));
    WIN_FIND_DATA data{};
    EXPECT_EQ(Fat_GetFileAttribute(handle, &data), 1u);
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
    EXPECT_EQ(medium.Writes(), 0u) << medium.TraceText();
    EXPECT_TRUE(Unmount(fileSystem));
    const CDiskImage before = MakeVolume(bits);
    EXPECT_EQ(CDiskImage::Differences(medium.Image(), before), std::vector<std::uint64_t>{}) << bits;
  }
}

// ---------------------------------------------------------------------------------------------- two volumes

class InterfaceOnTwoVolumes : public InterfaceOnOneVolume {
 protected:
  void SetUp() override {
    InterfaceOnOneVolume::SetUp();
    m_pOtherMedium = &NewMedium(MakeVolume(32));
    m_pOther = MountMedium(*m_pOtherMedium);
    ASSERT_NE(m_pOther, nullptr);
  }
  CMedium* m_pOtherMedium = nullptr;
  CFatFileSystem* m_pOther = nullptr;
};

TEST_F(InterfaceOnTwoVolumes, PathFunctions_WorkOnTheCurrentOne) {
  EXPECT_EQ(Fat_CreateDir(CPath("ON32"), 0), 1u);
  SetCurrentFileSystem(m_pFileSystem);
  EXPECT_EQ(Fat_CreateDir(CPath("ON16"), 0), 1u);
  EXPECT_FALSE(Exists("ON32"));
  SetCurrentFileSystem(m_pOther);
  EXPECT_FALSE(Exists("ON16"));
  EXPECT_TRUE(Exists("ON32"));
}

TEST_F(InterfaceOnTwoVolumes, HandlesOfBoth_WorkWhicheverIsCurrent) {
  const int on32 = Fat_OpenFile(CPath("TEN"));
  const int search32 = FindFirst("DIR");
  SetCurrentFileSystem(m_pFileSystem);
  const int on16 = Fat_OpenFile(CPath("TEN"));
  const int search16 = FindFirst("DIR\\Sub directory");
  for (CFatFileSystem* current : {m_pFileSystem, m_pOther}) {
    SetCurrentFileSystem(current);
    const unsigned char value = current == m_pOther ? 2 : 1;
    EXPECT_EQ(WriteAt(on16, value, BYTES(1, 0x10)), 1);
    EXPECT_EQ(WriteAt(on32, value, BYTES(1, 0x20)), 1);
    EXPECT_EQ(Fat_SetFileSize(on16, 600u + value), 1u);
    EXPECT_EQ(Fat_SetFileSize(on32, 1200u + value), 1u);
    WIN_FIND_DATA data{};
    EXPECT_EQ(Fat_FindNextFile(search16, &data), 1u);
    EXPECT_EQ(Fat_FindNextFile(search32, &data), 1u);
  }
  Close({on16, on32});
  EXPECT_EQ(Fat_CloseFindHandle(search16), 1u);
  EXPECT_EQ(Fat_CloseFindHandle(search32), 1u);
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_TRUE(Unmount(m_pOther));
  for (const auto& [medium, size, value] : {std::make_tuple(m_pMedium, 602u, 0x10), {m_pOtherMedium, 1202u, 0x20}}) {
    const CVolumeReader reader(medium->Image());
    EXPECT_EQ(reader.ProblemText(), "");
    ASSERT_NE(reader.Find("TEN"), nullptr);
    EXPECT_EQ(reader.Find("TEN")->Size, size);
    EXPECT_EQ(reader.Content(*reader.Find("TEN"))[1], value);
    EXPECT_EQ(reader.Content(*reader.Find("TEN"))[2], value);
    EXPECT_EQ(Harmed(medium->Image(), {"TEN"}), "");
  }
}

TEST_F(InterfaceOnTwoVolumes, OneUnmounted_OtherAndItsHandlesGoOn) {
  const int on32 = Fat_OpenFile(CPath("TEN"));
  SetCurrentFileSystem(m_pFileSystem);
  const int on16 = Fat_OpenFile(CPath("TEN"));
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_EQ(ReadAll(on32), ContentOf("TEN"));
  EXPECT_EQ(Fat_OpenFile(CPath("TEN")), NO_HANDLE);  // the current one is gone
  unsigned int size = 0;
  EXPECT_EQ(Fat_GetFileSize(on16, &size), 0u);
  SetCurrentFileSystem(m_pOther);
  EXPECT_TRUE(Exists(DEEP));
  EXPECT_EQ(Fat_GetFileSize(on16, &size), 0u);
  Close({on16, on32});
  EXPECT_EQ(m_pMedium->TransfersWhileClosed(), 0u);
}

TEST_F(InterfaceOnTwoVolumes, SharedPoolFull_BlocksOfTheOtherVolumeAreWrittenToTheirOwn) {
  // A file of more blocks than the pool has, written whole, pushes out what the other volume has in it.
  constexpr unsigned int BLOCK = 0x40000;
  constexpr unsigned int BLOCKS = 300;
  FAT_GEOMETRY geometry = Geometry(32);
  geometry.SectorsPerCluster = 8;
  ASSERT_NE(Mount(BACKEND::Medium, CImageBuilder(geometry).Image()), nullptr);
  const int large = Fat_CreateFile(CPath("LARGE"), BLOCKS * BLOCK, 0);
  SetCurrentFileSystem(m_pFileSystem);
  const int small = Fat_OpenFile(CPath("TEN"));
  EXPECT_EQ(WriteAt(small, 0, BYTES(10, 0x55)), 10);
  m_pMedium->ClearTrace();
  for (unsigned int block = 0; block < BLOCKS; ++block) {
    ASSERT_EQ(WriteAt(large, static_cast<long long>(block) * BLOCK, BYTES(BLOCK, static_cast<unsigned char>(block))),
              BLOCK);
  }
  EXPECT_EQ(m_pMedium->Writes(), 1u) << m_pMedium->TraceText();
  EXPECT_EQ(CVolumeReader(m_pMedium->Image()).Find("TEN")->Hash, CVolumeReader::HashOf(BYTES(10, 0x55)));
  EXPECT_EQ(ReadAll(small), BYTES(10, 0x55));
  EXPECT_EQ(ReadAt(large, 299ll * BLOCK, 1), BYTES(1, 299 % 256));
  EXPECT_EQ(ReadAt(large, 0, 1), BYTES(1, 0));
  Close({small, large});
}

TEST_F(Interface, TwentyVolumesMounted_EachKeepsItsOwnFilesAndHandles) {
  constexpr int VOLUMES = 20;
  std::vector<CFatFileSystem*> volumes;
  for (int i = 0; i < VOLUMES; ++i) {
    volumes.push_back(MountMedium(NewMedium(MakeVolume(i % 2 == 0 ? 12 : 16))));
    ASSERT_NE(volumes.back(), nullptr);
    EXPECT_EQ(Fat_CreateFile(CPath("MINE"), static_cast<unsigned int>(i + 1), 0), i);
  }
  for (int i = VOLUMES; i-- > 0;) {
    SetCurrentFileSystem(volumes[static_cast<std::size_t>(i)]);
    EXPECT_EQ(WriteAt(i, 0, BYTES(static_cast<std::size_t>(i + 1), static_cast<unsigned char>(i))), i + 1);
    EXPECT_EQ(ReadPath("TEN"), ContentOf("TEN"));
  }
  for (int i = 0; i < VOLUMES; ++i) {
    EXPECT_EQ(ReadAll(i), BYTES(static_cast<std::size_t>(i + 1), static_cast<unsigned char>(i)));
    Close({i});
  }
}

// ---------------------------------------------------------------------------------------------- unmounting

TEST_F(InterfaceOnOneVolume, UnmountedTwice_SecondTimeIsFalseWithoutATransfer) {
  EXPECT_EQ(Fat_Unmount(nullptr), 0u);
  EXPECT_TRUE(Unmount(m_pFileSystem));
  m_pMedium->ClearTrace();
  EXPECT_EQ(Fat_Unmount(m_pFileSystem), 0u);
  EXPECT_EQ(Fat_Unmount(nullptr), 0u);
  EXPECT_EQ(m_pMedium->Transfers(), 0u);
  EXPECT_EQ(m_pMedium->CloseCalls(), 0u);
}

TEST_F(Interface, UnmountedFileSystem_KeepsOneSmallObjectUntilTheEnd) {
  CMedium& medium = NewMedium(MakeVolume(16));
  CFaultStorage* storage = new CFaultStorage(medium);
  const std::size_t blocks = Memory().Outstanding();
  const std::size_t bytes = Memory().OutstandingBytes();
  constexpr unsigned int ROUNDS = 20;
  for (unsigned int round = 0; round < ROUNDS; ++round) {
    CFatFileSystem* fileSystem = Fat_Mount(storage, nullptr);
    ASSERT_NE(fileSystem, nullptr);
    EXPECT_EQ(ReadPath(DEEP), ContentOf(DEEP));
    EXPECT_EQ(Fat_Unmount(fileSystem), 1u);
  }
  EXPECT_EQ(Memory().Outstanding(), blocks + ROUNDS);  // so that its address never names another one
  EXPECT_LT(Memory().OutstandingBytes(), bytes + ROUNDS * 1024);
  delete storage;
}

TEST_F(InterfaceOnOneVolume, UnmountedWithAFileOpen_ItsDataIsWrittenBeforeTheStorageCloses) {
  const int file = Fat_CreateFile(CPath("DIR\\NEW.BIN"), 600, 0);
  EXPECT_EQ(WriteAt(file, 0, CImageBuilder::Pattern(600, 8)), 600);
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_EQ(m_pMedium->CloseCalls(), 1u);
  EXPECT_EQ(m_pMedium->TransfersWhileClosed(), 0u);
  const CVolumeReader reader(m_pMedium->Image());
  EXPECT_EQ(reader.ProblemText(), "");
  ASSERT_NE(reader.Find("DIR\\NEW.BIN"), nullptr);
  EXPECT_EQ(reader.Content(*reader.Find("DIR\\NEW.BIN")), CImageBuilder::Pattern(600, 8));
  Close({file});
}

TEST_F(InterfaceOnOneVolume, UnmountedWithHandlesOpen_TheyAreDeadAndCanOnlyBeClosed) {
  const int file = Fat_OpenFile(CPath("README.TXT"));
  const int again = Fat_OpenFile(CPath("README.TXT"));
  const int dir = Fat_OpenFile(CPath("DIR"));
  const int search = FindFirst("DIR\\Sub directory");
  EXPECT_EQ(WriteAt(file, 0, BYTES(10, 0x11)), 10);
  EXPECT_TRUE(Unmount(m_pFileSystem));
  m_pMedium->ClearTrace();
  for (const int handle : {file, again, dir}) EXPECT_EQ(NotRefused(handle, search, WITHOUT_CLOSING), "") << handle;
  Close({file, again, dir});
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  for (const int handle : {file, again, dir}) EXPECT_EQ(NotRefused(handle, search), "") << handle;
  EXPECT_EQ(m_pMedium->Transfers(), 0u);
}

TEST_F(Interface, MemoryImageReleasedAfterUnmount_ClosingHandlesTouchesNothingOfIt) {
  std::unique_ptr<BYTES> image = std::make_unique<BYTES>(MakeVolume(16).ToVector());
  CFatFileSystem* fileSystem = MountMemory(*image);
  ASSERT_NE(fileSystem, nullptr);
  const int file = Fat_OpenFile(CPath("TEN"));
  const int search = FindFirst("DIR");
  EXPECT_EQ(WriteAt(file, 0, BYTES(10, 0x11)), 10);
  EXPECT_TRUE(Unmount(fileSystem));
  image.reset();
  EXPECT_EQ(Fat_CloseFile(file), 1u);
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
}

TEST_F(InterfaceOnOneVolume, UnmountedWithASearchStandingOnADeletedEntry_NothingIsLost) {
  WIN_FIND_DATA data{};
  const int search = Fat_FindFirstFile(CPath("DIR"), &data);
  EXPECT_EQ(Fat_FindNextFile(search, &data), 1u);
  EXPECT_EQ(Fat_FindNextFile(search, &data), 1u);
  EXPECT_EQ(Fat_DeleteFile(CPath("DIR\\IN.TXT")), 1u);
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_EQ(Fat_FindNextFile(search, &data), 0u);
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  EXPECT_EQ(CVolumeReader(m_pMedium->Image()).ProblemText(), "");
}

TEST_F(InterfaceOnOneVolume, ObjectEvictedButHeld_IsWrittenAtUnmountToo) {
  const int file = Fat_OpenFile(CPath("TEN"));
  EXPECT_EQ(WriteAt(file, 0, BYTES(10, 0x33)), 10);
  for (int i = 0; i < 160; ++i) ASSERT_TRUE(WritePath("N" + std::to_string(i), {}));
  PATH_HASH hash;
  EXPECT_EQ(m_pFileSystem->FileCache()->Find(CPath("TEN"), hash), nullptr);
  EXPECT_TRUE(Unmount(m_pFileSystem));
  const CVolumeReader reader(m_pMedium->Image());
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_EQ(reader.Content(*reader.Find("TEN")), BYTES(10, 0x33));
  EXPECT_EQ(m_pMedium->TransfersWhileClosed(), 0u);
  Close({file});
}

class OrderOfUnmount : public Interface, public ::testing::WithParamInterface<unsigned int> {};

TEST_P(OrderOfUnmount, IsInfoRootFatBackupCachedObjectsByUseThenHeldOnesThenClose) {
  CMedium& medium = NewMedium(MakeVolume(GetParam()));
  CFatFileSystem* fileSystem = MountMedium(medium);
  ASSERT_NE(fileSystem, nullptr);
  // Two objects that are held and evicted: the first was built before the second.
  const int held1 = Fat_OpenFile(CPath("README.TXT"));
  const int held2 = Fat_OpenFile(CPath("Long name.bin"));
  EXPECT_EQ(WriteAt(held2, 0, BYTES(5, 1)), 5);
  EXPECT_EQ(WriteAt(held1, 0, BYTES(5, 1)), 5);
  for (int i = 0; i < 160; ++i) ASSERT_TRUE(WritePath("N" + std::to_string(i), {}));
  // Three cached ones, used last in the order IN.TXT, deep.txt, TEN; the second is held, which does not move it.
  EXPECT_TRUE(Exists("TEN"));
  EXPECT_TRUE(Exists(DEEP));
  const int in = Fat_OpenFile(CPath("DIR\\IN.TXT"));
  const int deep = Fat_OpenFile(CPath(DEEP));
  const int ten = Fat_OpenFile(CPath("TEN"));
  for (const int handle : {ten, deep, in}) EXPECT_EQ(WriteAt(handle, 0, BYTES(5, 2)), 5);
  EXPECT_EQ(Fat_SetFileSize(ten, 600), 1u);
  EXPECT_EQ(Fat_CloseFile(in), 1u);
  EXPECT_EQ(Fat_CloseFile(ten), 1u);
  medium.ClearTrace();
  EXPECT_TRUE(Unmount(fileSystem));

  std::vector<std::string> order;
  for (const IO_RECORD& transfer : medium.Trace()) order.push_back(PartOf(transfer, medium.Image()));
  std::vector<std::string> expected = {"write root", "write FAT1",        "read FAT1",
                                       "write FAT2", "write DIR\\IN.TXT", "write DIR\\Sub directory\\deep.txt",
                                       "write TEN",  "write README.TXT",  "write Long name.bin"};
  if (GetParam() == 32) expected.insert(expected.begin(), {"read FSInfo", "write FSInfo"});
  // One block may take several transfers.
  order.erase(std::unique(order.begin(), order.end()), order.end());
  EXPECT_EQ(order, expected) << medium.TraceText();
  EXPECT_EQ(medium.CloseCalls(), 1u);
  EXPECT_EQ(medium.TransfersWhileClosed(), 0u);
  for (const int handle : {held1, held2, deep}) EXPECT_EQ(Fat_CloseFile(handle), 1u);
}

INSTANTIATE_TEST_SUITE_P(Widths, OrderOfUnmount, WIDTHS, WidthName);

TEST_F(InterfaceOnOneVolume, MountedAgainOnTheSameMedium_OldHandlesStayDead) {
  const int old = Fat_OpenFile(CPath("TEN"));
  EXPECT_TRUE(Unmount(m_pFileSystem));
  CFatFileSystem* again = MountMedium(*m_pMedium);
  ASSERT_NE(again, nullptr);
  unsigned int size = SENTINEL;
  EXPECT_EQ(Fat_GetFileSize(old, &size), 0u);
  const int fresh = Fat_OpenFile(CPath("TEN"));
  EXPECT_EQ(fresh, old + 1);
  EXPECT_EQ(SizeOf(fresh), 10u);
  Close({old, fresh});
}

// ---------------------------------------------------------------------------------------------- unmounting that fails

class FailedUnmount : public Interface, public ::testing::WithParamInterface<unsigned int> {
 protected:
  void SetUp() override {
    Interface::SetUp();
    m_pMedium = &NewMedium(MakeVolume(GetParam()));
    m_pFileSystem = MountMedium(*m_pMedium);
    ASSERT_NE(m_pFileSystem, nullptr);
    m_nFile = Fat_OpenFile(CPath("TEN"));
    m_nSearch = FindFirst("DIR");
    ASSERT_TRUE(WritePath("NEW", CImageBuilder::Pattern(600, 6)));
    ASSERT_EQ(WriteAt(m_nFile, 0, BYTES(10, 0x44)), 10);
    const CImageBuilder builder(m_pMedium->Image());
    m_pMedium->ClearTrace();
    m_pMedium->FailRange(static_cast<long long>(builder.FatOffset(0)), builder.FatBytes(), IO_FILTER::Writes);
  }
  void CloseHandles() const {
    EXPECT_EQ(Fat_CloseFile(m_nFile), 1u);
    EXPECT_EQ(Fat_CloseFindHandle(m_nSearch), 1u);
  }

  CMedium* m_pMedium = nullptr;
  CFatFileSystem* m_pFileSystem = nullptr;
  int m_nFile = NO_HANDLE;
  int m_nSearch = NO_HANDLE;
};

TEST_P(FailedUnmount, FatNotWritten_FileSystemIsDeadAndStorageStaysOpen) {
  EXPECT_EQ(Fat_Unmount(m_pFileSystem), 0u);
  EXPECT_TRUE(m_pMedium->Fired());
  EXPECT_EQ(m_pMedium->CloseCalls(), 0u);
  m_pMedium->Heal();
  m_pMedium->ClearTrace();
  EXPECT_EQ(NotRefused(m_nFile, m_nSearch, WITHOUT_CLOSING), "");
  EXPECT_EQ(Fat_Unmount(m_pFileSystem), 0u);
  CloseHandles();
  EXPECT_EQ(m_pMedium->Transfers(), 0u);
  // The fixture frees the storage object, and finds that nothing else is left.
}

TEST_P(FailedUnmount, FatNotWritten_NeitherSecondFatNorFileDataFollow) {
  EXPECT_EQ(Fat_Unmount(m_pFileSystem), 0u);
  const CDiskImage image = m_pMedium->Image();
  for (const IO_RECORD& transfer : m_pMedium->Trace()) {
    const std::string part = PartOf(transfer, image);
    EXPECT_TRUE(part == "read FSInfo" || part == "write FSInfo" || part == "write root" || part == "write FAT1")
        << part;
  }
  CloseHandles();
  EXPECT_EQ(Harmed(image), "");
}

TEST_P(FailedUnmount, StorageClosedByTheHost_CanBeMountedAgain) {
  EXPECT_FALSE(Unmount(m_pFileSystem));  // the fixture closes the storage
  EXPECT_EQ(m_pMedium->CloseCalls(), 1u);
  m_pMedium->Heal();
  ASSERT_NE(MountMedium(*m_pMedium), nullptr);
  EXPECT_EQ(ReadPath("TEN"), ContentOf("TEN"));
  CloseHandles();
}

TEST_P(FailedUnmount, HandlesStillOpenAtTerminate_NothingLeaks) {
  EXPECT_FALSE(Unmount(m_pFileSystem));
  EXPECT_EQ(Fat_LibTerminate(), 0u);
  Terminated();
  CloseHandles();
}

INSTANTIATE_TEST_SUITE_P(Widths, FailedUnmount, WIDTHS, WidthName);

TEST_F(Interface, FsInfoDamaged_UnmountSucceedsAllTheSame) {
  CDiskImage image = MakeVolume(32);
  const CImageBuilder builder(image);
  image.Set32(builder.FsInfoOffset(), 0);
  CMedium& medium = NewMedium(image);
  CFatFileSystem* fileSystem = MountMedium(medium);
  ASSERT_NE(fileSystem, nullptr);
  ASSERT_TRUE(WritePath("NEW", CImageBuilder::Pattern(600, 6)));
  EXPECT_TRUE(Unmount(fileSystem));
  const CVolumeReader reader(medium.Image());
  ASSERT_NE(reader.Find("NEW"), nullptr);
  EXPECT_EQ(reader.Content(*reader.Find("NEW")), CImageBuilder::Pattern(600, 6));
  EXPECT_EQ(reader.FsInfoFree(), builder.Geometry().FsInfoFree);
}

TEST_F(InterfaceOnOneVolume, NoMemoryForTheBackup_UnmountSucceedsWithTheSecondFatStale) {
  ASSERT_TRUE(WritePath("NEW", CImageBuilder::Pattern(600, 6)));
  Memory().FailAt(1, CMemHooks::FOR_GOOD);
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_TRUE(Memory().Fired());
  const CVolumeReader reader(m_pMedium->Image());
  EXPECT_FALSE(reader.FatCopiesEqual());
  ASSERT_NE(reader.Find("NEW"), nullptr);
  EXPECT_EQ(reader.Content(*reader.Find("NEW")), CImageBuilder::Pattern(600, 6));
  EXPECT_EQ(Harmed(m_pMedium->Image()), "");
}

// ---------------------------------------------------------------------------------------------- the library's end

TEST_F(Interface, TerminatedWithHandlesOpen_SaysSoAndTheyCanBeClosed) {
  CMedium& medium = NewMedium(MakeVolume(16));
  CFatFileSystem* fileSystem = MountMedium(medium);
  const int file = Fat_OpenFile(CPath("TEN"));
  const int search = FindFirst("DIR");
  EXPECT_TRUE(Unmount(fileSystem));
  EXPECT_EQ(Fat_LibTerminate(), 0u);
  Terminated();
  EXPECT_EQ(Fat_CloseFile(file), 1u);
  EXPECT_EQ(Fat_LibTerminate(), 0u);
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  EXPECT_EQ(Fat_LibTerminate(), 1u);
}

TEST_F(InterfaceOnOneVolume, TerminatedWhileMounted_NothingIsWrittenAndTheStorageStaysOpen) {
  ASSERT_TRUE(WritePath("NEW", CImageBuilder::Pattern(600, 6)));
  m_pMedium->ClearTrace();
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  Terminated();
  EXPECT_EQ(m_pMedium->Transfers(), 0u);
  EXPECT_EQ(m_pMedium->CloseCalls(), 0u);
  EXPECT_EQ(Memory().Outstanding(), 1u);  // the sector buffer of the storage object, which is the host's
  EXPECT_EQ(Harmed(m_pMedium->Image()), "");
}

TEST_F(InterfaceOnOneVolume, TerminatedWithDirtyObjectsInUse_OnlyTheirHandlesAreLeft) {
  // Fewer cluster maps are free than the list of them grows by, and all objects have blocks in the pool.
  const int file = Fat_OpenFile(CPath("TEN"));
  const int dir = Fat_OpenFile(CPath("DIR"));
  const int search = FindFirst("DIR");
  EXPECT_EQ(WriteAt(file, 0, BYTES(10, 1)), 10);
  EXPECT_EQ(Fat_SetFileSize(file, 5000), 1u);
  EXPECT_EQ(Fat_LibTerminate(), 0u);
  Terminated();
  m_pMedium->ClearTrace();
  EXPECT_EQ(NotRefused(file, search, WITHOUT_CLOSING), "");
  Close({file, dir});
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  EXPECT_EQ(Memory().Outstanding(), 1u);  // the sector buffer of the storage object
  EXPECT_EQ(m_pMedium->Transfers(), 0u);
}

TEST_F(InterfaceOnOneVolume, TerminatedAndInitialisedAgain_OldHandlesAreGoneAndNewOnesWork) {
  const int file = Fat_OpenFile(CPath("TEN"));
  const int search = FindFirst("DIR");
  EXPECT_EQ(WriteAt(file, 0, BYTES(10, 1)), 10);
  EXPECT_EQ(Fat_LibTerminate(), 0u);
  Fat_LibInitialize();
  EXPECT_EQ(NotRefused(file, search), "");
  EXPECT_EQ(Fat_Unmount(m_pFileSystem), 0u);
  ASSERT_NE(Mount(BACKEND::Memory, MakeVolume(12)), nullptr);
  EXPECT_EQ(Fat_OpenFile(CPath("TEN")), 0);
  EXPECT_EQ(ReadAll(0), ContentOf("TEN"));
  Close({0});
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  Terminated();
}

TEST_F(Interface, TerminatedTwice_IsHarmless) {
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  EXPECT_EQ(Memory().Outstanding(), 0u);
  Terminated();
}

TEST_F(InterfaceOnTwoVolumes, TerminatedWithBothMounted_BothAreDead) {
  const int on32 = Fat_OpenFile(CPath("TEN"));
  SetCurrentFileSystem(m_pFileSystem);
  const int on16 = Fat_OpenFile(CPath("TEN"));
  EXPECT_EQ(Fat_LibTerminate(), 0u);
  Terminated();
  for (CFatFileSystem* fileSystem : {m_pFileSystem, m_pOther}) {
    SetCurrentFileSystem(fileSystem);
    EXPECT_EQ(NotRefused(on16, -1, WITHOUT_CLOSING), "");
    EXPECT_EQ(NotRefused(on32, -1, WITHOUT_CLOSING), "");
    EXPECT_EQ(Fat_Unmount(fileSystem), 0u);
  }
  Close({on16, on32});
}

}  // namespace
