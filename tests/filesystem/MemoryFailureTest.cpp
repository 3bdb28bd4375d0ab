/// @file MemoryFailureTest.cpp
/// Memory that runs out in the middle of a change: whatever allocation fails, the call fails, and nothing that was
/// there before is lost. Each test fails allocation 1, then 2, and so on, until a run finishes untouched.

#include <algorithm>
#include <cstring>
#include <functional>

#include "filesystem/FatFileSystem.h"
#include "support/LibFixture.h"
#include "support/VolumeReader.h"

namespace {

std::vector<unsigned char> Filled(std::size_t size, unsigned char value) {
  return std::vector<unsigned char>(size, value);
}

FAT_GEOMETRY Fat16() {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 16;
  return geometry;
}

// One 32-byte entry named X, as the bytes of a file.
std::vector<unsigned char> FileWithEntryX() {
  std::vector<unsigned char> bytes = Filled(1024, 0);
  std::memset(bytes.data(), ' ', 11);
  bytes[0] = 'X';
  bytes[11] = 0x20;
  return bytes;
}

std::vector<std::uint32_t> EverySecondCluster(unsigned int count) {
  std::vector<std::uint32_t> clusters;
  for (unsigned int i = 0; i < count; ++i) clusters.push_back(10 + 2 * i);
  return clusters;
}

class MemoryFailure : public CLibFixture {
 protected:
  // Calls `step` with allocation k failing, for k = 1, 2, ... until none is left to fail.
  void FailEachAllocation(const std::function<void(unsigned int k, const std::function<bool()>& fired)>& step) {
    for (unsigned int k = 1; k < 100; ++k) {
      bool hit = false;
      step(k, [&] {
        hit = Memory().Fired();
        Memory().Heal();
        return hit;
      });
      if (!hit) return;
    }
    FAIL() << "the allocations do not end";
  }

  std::vector<std::string> Names(const std::string& directory) {
    std::vector<std::string> names;
    for (const LISTED& entry : List(directory)) names.push_back(entry.Name());
    return names;
  }
};

}  // namespace

TEST_F(MemoryFailure, RenameAfterSlidingSlots_KeepsEveryOtherEntry) {
  const std::vector<std::string> names = {"A", "B", "C", "X1", "E", "F", "X2", "H", "I", "J", "K", "L", "M", "N"};
  FailEachAllocation([&](unsigned int k, const std::function<bool()>& fired) {
    CImageBuilder builder(Fat16());
    const auto directory = builder.AddDir(builder.Root(), "D");
    for (const std::string& name : names) builder.AddFile(directory, name, Filled(10, 'a'));
    for (const unsigned int freeSlot : {5u, 8u}) {
      auto entry = builder.Entry(directory, freeSlot);
      entry[0] = 0xE5;
      builder.SetEntry(directory, freeSlot, entry);
    }
    CMedium medium(builder.Image());
    CFatFileSystem* fileSystem = MountMedium(medium);
    ASSERT_EQ(1u, Fat_CloseFile(Fat_OpenFile(CPath("D\\A"))));
    Memory().FailAt(k, CMemHooks::ONCE);
    const bool renamed = Fat_RenameFile(CPath("D\\A"), CPath("a long new name.txt")) == 1;
    EXPECT_EQ(!fired(), renamed) << k;
    EXPECT_TRUE(Unmount(fileSystem));
    fileSystem = MountMedium(medium);
    std::vector<std::string> found = Names("D");
    std::sort(found.begin(), found.end());
    std::vector<std::string> expected = {"A", "B", "C", "E", "F", "H", "I", "J", "K", "L", "M", "N"};
    if (renamed) expected[0] = "a long new name.txt";
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, found) << k;
    EXPECT_TRUE(Unmount(fileSystem));
  });
}

TEST_F(MemoryFailure, GrowingAFragmentedFile_LosesNoCluster) {
  FailEachAllocation([&](unsigned int k, const std::function<bool()>& fired) {
    CImageBuilder builder(Fat16());
    builder.AddFile(builder.Root(), "F", Filled(15 * 512, 'a'), EverySecondCluster(15));
    const unsigned int freeBefore = builder.CountFree();
    CMedium medium(builder.Image());
    CFatFileSystem* fileSystem = MountMedium(medium);
    const int handle = Fat_OpenFile(CPath("f"));
    Memory().FailAt(k, CMemHooks::ONCE);
    const bool grown = Fat_SetFileSize(handle, 20 * 512) == 1;
    EXPECT_EQ(!fired(), grown) << k;
    EXPECT_EQ(1u, Fat_CloseFile(handle));
    EXPECT_EQ(1u, Fat_DeleteFile(CPath("f")));
    EXPECT_TRUE(Unmount(fileSystem));
    EXPECT_EQ(freeBefore + 15, CImageBuilder(medium.Image()).CountFree()) << k;
  });
}

// The first object of a volume makes the cache's table, too.
TEST_F(MemoryFailure, FirstCreationOfAVolume_IsCachedOrLeavesNothing) {
  for (const bool directory : {false, true}) {
    FailEachAllocation([&](unsigned int k, const std::function<bool()>& fired) {
      CMedium medium(CImageBuilder(Fat16()).Image());
      CFatFileSystem* fileSystem = MountMedium(medium);
      const auto create = [directory] {
        if (directory) return Fat_CreateDir(CPath("a new name"), 0) == 1;
        const int handle = Fat_CreateFile(CPath("a new name"), 700, 0);
        return handle >= 0 && Fat_CloseFile(handle) == 1;
      };
      Memory().FailAt(k, CMemHooks::ONCE);
      const bool created = create();
      EXPECT_EQ(!fired(), created) << k;
      EXPECT_EQ(created ? 1u : 0u, fileSystem->FileCache()->Count()) << k;
      EXPECT_EQ(!created, create()) << k;
      EXPECT_TRUE(Unmount(fileSystem));
      const CVolumeReader reader(medium.Image());
      EXPECT_EQ("", reader.ProblemText()) << k;
      EXPECT_EQ(1u, reader.Tree().size()) << k;
      EXPECT_TRUE(reader.LostClusters().empty()) << k;
    });
  }
}

TEST_F(MemoryFailure, GrowingADirectory_ShowsNoOldBytesAsEntries) {
  FailEachAllocation([&](unsigned int k, const std::function<bool()>& fired) {
    CImageBuilder builder(Fat16());
    (void)builder.Image();
    const std::vector<std::uint32_t> clusters = EverySecondCluster(15);
    for (unsigned int cluster = 2; cluster < 200; ++cluster) {
      const bool ours = std::find(clusters.begin(), clusters.end(), cluster) != clusters.end();
      builder.Store().Fill(builder.ClusterOffset(cluster), 512, ours ? 0 : 'A');
    }
    const auto directory = builder.AddDir(builder.Root(), "D", clusters);
    for (unsigned int i = 0; i < 15 * 16 - 2; ++i) builder.AddFile(directory, "N" + std::to_string(i));
    CMedium medium(builder.Image());
    CFatFileSystem* fileSystem = MountMedium(medium);
    ASSERT_EQ(1u, Fat_CloseFile(Fat_OpenFile(CPath("D"))));
    Memory().FailAt(k, CMemHooks::ONCE);
    const int handle = Fat_CreateFile(CPath("D\\new"), 0, 0);
    EXPECT_EQ(!fired(), handle >= 0) << k;
    if (handle >= 0) Fat_CloseFile(handle);
    EXPECT_TRUE(Unmount(fileSystem));
    fileSystem = MountMedium(medium);
    EXPECT_EQ(15u * 16 - 2 + (handle >= 0 ? 1 : 0), Names("D").size()) << k;
    EXPECT_TRUE(Unmount(fileSystem));
  });
}

TEST_F(MemoryFailure, CreatingBelowARegularFile_MakesNoSecondEntryOfAName) {
  FailEachAllocation([&](unsigned int k, const std::function<bool()>& fired) {
    CImageBuilder builder(Fat16());
    builder.AddFile(builder.Root(), "F", FileWithEntryX());
    CMedium medium(builder.Image());
    CFatFileSystem* fileSystem = MountMedium(medium);
    ASSERT_EQ(1u, Fat_CloseFile(Fat_OpenFile(CPath("f"))));
    Memory().FailAt(k, CMemHooks::ONCE);
    EXPECT_EQ(-1, Fat_CreateFile(CPath("f\\x"), 0, 0)) << k;
    (void)fired();
    EXPECT_TRUE(Unmount(fileSystem));
  });
}

TEST_F(MemoryFailure, DeletingAFileTurnedDirectory_IsRefusedWhileItHasEntries) {
  FailEachAllocation([&](unsigned int k, const std::function<bool()>& fired) {
    CImageBuilder builder(Fat16());
    builder.AddFile(builder.Root(), "F", FileWithEntryX());
    CMedium medium(builder.Image());
    CFatFileSystem* fileSystem = MountMedium(medium);
    const int handle = Fat_OpenFile(CPath("f"));
    WIN_FIND_DATA data;
    ASSERT_EQ(1u, Fat_GetFileAttribute(handle, &data));
    data.dwFileAttributes = 0x10;
    ASSERT_EQ(1u, Fat_SetFileAttribute(handle, &data));
    ASSERT_EQ(1u, Fat_CloseFile(handle));
    Memory().FailAt(k, CMemHooks::ONCE);
    EXPECT_EQ(0u, Fat_DeleteFile(CPath("f"))) << k;
    (void)fired();
    EXPECT_TRUE(Exists("f")) << k;
    EXPECT_TRUE(Unmount(fileSystem));
  });
}

TEST_F(MemoryFailure, MovingIntoAFileTurnedDirectory_MakesNoSecondEntryOfAName) {
  FailEachAllocation([&](unsigned int k, const std::function<bool()>& fired) {
    CImageBuilder builder(Fat16());
    builder.AddFile(builder.Root(), "F", FileWithEntryX());
    builder.AddFile(builder.Root(), "X", Filled(10, 'x'));
    CMedium medium(builder.Image());
    CFatFileSystem* fileSystem = MountMedium(medium);
    const int handle = Fat_OpenFile(CPath("f"));
    WIN_FIND_DATA data;
    ASSERT_EQ(1u, Fat_GetFileAttribute(handle, &data));
    data.dwFileAttributes = 0x10;
    ASSERT_EQ(1u, Fat_SetFileAttribute(handle, &data));
    ASSERT_EQ(1u, Fat_CloseFile(handle));
    Memory().FailAt(k, CMemHooks::ONCE);
    EXPECT_EQ(0u, Fat_MoveFile(CPath("x"), CPath("f"))) << k;
    (void)fired();
    EXPECT_EQ(Filled(10, 'x'), ReadPath("x")) << k;
    EXPECT_TRUE(Unmount(fileSystem));
  });
}

TEST_F(MemoryFailure, CreatingBelowAFullRegularFile_NeverGrowsIt) {
  FailEachAllocation([&](unsigned int k, const std::function<bool()>& fired) {
    CImageBuilder builder(Fat16());
    builder.AddFile(builder.Root(), "F", Filled(512, 'A'));
    CMedium medium(builder.Image());
    CFatFileSystem* fileSystem = MountMedium(medium);
    const int handle = Fat_OpenFile(CPath("f"));
    Memory().FailAt(k, CMemHooks::ONCE);
    const int created = Fat_CreateFile(CPath("f\\x"), 0, 0);
    const bool hit = fired();
    EXPECT_EQ(-1, created) << k;  // the file grows, but its slots do not: there is no room either way
    unsigned int size = 0;
    EXPECT_EQ(1u, Fat_GetFileSize(handle, &size));
    if (hit) {
      EXPECT_EQ(512u, size) << k;
    }
    EXPECT_EQ(1u, Fat_CloseFile(handle));
    EXPECT_TRUE(Unmount(fileSystem));
  });
}

// Not a failure of memory, but its neighbour: only part of a large regular file is kept as entries.
TEST_F(MemoryFailure, CreatingBelowADenseFileOf3MiB_FailsAndLeavesItsBytes) {
  FAT_GEOMETRY geometry = Fat16();
  geometry.Clusters = 9000;
  CImageBuilder builder(geometry);
  builder.AddFile(builder.Root(), "F", Filled(3u << 20, 'A'));
  CMedium medium(builder.Image());
  CFatFileSystem* fileSystem = MountMedium(medium);
  EXPECT_EQ(-1, Fat_CreateFile(CPath("f\\x"), 0, 0));
  EXPECT_EQ(Filled(3u << 20, 'A'), ReadPath("f"));
  EXPECT_TRUE(Unmount(fileSystem));
  EXPECT_EQ(0u, medium.OutOfRange());
}

TEST_F(MemoryFailure, FileTurnedDirectoryWithoutEntries_GrowsCleared) {
  CImageBuilder builder(Fat16());
  (void)builder.Image();
  for (unsigned int cluster = 2; cluster < 40; ++cluster)
    builder.Store().Fill(builder.ClusterOffset(cluster), 512, 0x5A);
  CMedium medium(builder.Image());
  CFatFileSystem* fileSystem = MountMedium(medium);
  const int handle = Fat_CreateFile(CPath("f"), 0, 0);
  WIN_FIND_DATA data;
  ASSERT_EQ(1u, Fat_GetFileAttribute(handle, &data));
  data.dwFileAttributes = 0x10;
  ASSERT_EQ(1u, Fat_SetFileAttribute(handle, &data));
  EXPECT_EQ(1u, Fat_SetFileSize(handle, 1024));
  std::vector<unsigned char> bytes = Filled(1024, 0xFF);
  unsigned int done = 0;
  EXPECT_EQ(1u, Fat_ReadFileEx(handle, 0, 1024, bytes.data(), &done));
  EXPECT_EQ(Filled(1024, 0), bytes);
  EXPECT_EQ(1u, Fat_CloseFile(handle));
  EXPECT_TRUE(Unmount(fileSystem));
}
