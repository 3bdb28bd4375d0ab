/// @file FatFileSystemTest.cpp
/// The file system object from within: how paths lead to objects, which objects stay cached and under which key, who
/// holds how many references, and that nothing a call works with goes away under it, on healthy and on damaged volumes.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "filesystem/FatFileSystem.h"
#include "support/LibFixture.h"
#include "support/VolumeReader.h"

namespace {

using BYTES = std::vector<unsigned char>;
constexpr int NO_HANDLE = -1;
constexpr int CACHED = 160;  // objects that stay cached

// ---------------------------------------------------------------------------------------------- frame

FAT_GEOMETRY Geometry(unsigned int bits) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = bits;
  return geometry;
}

/// A volume to be built by the test and mounted on a medium that counts.
class FatFileSystem : public CLibFixture {
 protected:
  explicit FatFileSystem(unsigned int bits = 16) : m_Builder(Geometry(bits)) {}

  static constexpr CImageBuilder::DIRECTORY ROOT = CImageBuilder::Root();

  void MountBuilt() { MountImage(m_Builder.Image()); }
  void MountImage(const CDiskImage& image) {
    m_Media.push_back(std::make_unique<CMedium>(image));
    m_pFs = MountMedium(Medium());
    ASSERT_NE(m_pFs, nullptr);
    Medium().ClearTrace();
  }
  CMedium& Medium() { return *m_Media.back(); }

  /// Empty files to fill the cache with.
  void AddFillers() {
    const CImageBuilder::DIRECTORY fill = m_Builder.AddDir(ROOT, "FILL");
    for (int i = 0; i < CACHED + 10; ++i) m_Builder.AddFile(fill, "F" + std::to_string(i));
  }
  static std::string Filler(int i) { return "FILL\\F" + std::to_string(i); }
  static void OpenFillers(int from, int to) {
    for (int i = from; i < to; ++i) ASSERT_TRUE(Exists(Filler(i)));
  }

  int Open(const std::string& path, CFatFile** file) { return m_pFs->OpenFile(CPath(path), file); }
  /// A reference for the test. Fails the test when the path cannot be opened.
  CFatFile* Opened(const std::string& path) {
    CFatFile* file = nullptr;
    EXPECT_EQ(Open(path, &file), 0) << path;
    return file;
  }
  /// The status of opening; what was opened is closed again.
  int OpenStatus(const std::string& path) {
    CFatFile* file = nullptr;
    const int status = Open(path, &file);
    if (status >= 0) CFatFileSystem::CloseFile(file);
    return status;
  }
  int CreateStatus(const std::string& path, unsigned int size = 0) {
    CFatFile* file = nullptr;
    const int status = m_pFs->CreateFile(CPath(path), size, 0, &file);
    if (status >= 0) CFatFileSystem::CloseFile(file);
    return status;
  }
  int CreateDirStatus(const std::string& path, unsigned char attributes = 0) {
    CFatDir* dir = nullptr;
    const int status = m_pFs->CreateDir(CPath(path), attributes, &dir);
    if (status >= 0) CFatFileSystem::CloseFile(dir);
    return status;
  }
  /// The cached object of a path, which becomes the most recently used one; or null.
  CFatFile* Cached(const std::string& path) {
    PATH_HASH hash;
    return static_cast<CFatFile*>(m_pFs->FileCache()->Find(CPath(path), hash));
  }
  unsigned int Count() { return m_pFs->FileCache()->Count(); }
  /// The key text of an object.
  static std::string Key(const CFatFile* file) {
    const unsigned short* text = file->PathIndexName();
    return text == nullptr ? "(none)" : ToUtf8Z(text, 1000);
  }
  static void CloseObject(CFatFile* file) { CFatFileSystem::CloseFile(file); }

  /// Unmounts, and reads the volume. @return what the reader has against it
  std::string Problems() {
    EXPECT_TRUE(Unmount(m_pFs));
    EXPECT_EQ(Medium().TransfersWhileClosed(), 0u);
    m_pReader = std::make_unique<CVolumeReader>(Medium().Image());
    return m_pReader->ProblemText();
  }
  /// After Problems: the content of a file, or nothing when there is no such file.
  BYTES Content(const std::string& path) const {
    const VOLUME_NODE* node = m_pReader->Find(path);
    EXPECT_NE(node, nullptr) << path;
    return node == nullptr ? BYTES() : m_pReader->Content(*node);
  }
  const VOLUME_NODE& Node(const std::string& path) const {
    static const VOLUME_NODE s_None;
    const VOLUME_NODE* node = m_pReader->Find(path);
    EXPECT_NE(node, nullptr) << path;
    return node == nullptr ? s_None : *node;
  }

  CImageBuilder m_Builder;
  std::vector<std::unique_ptr<CMedium>> m_Media;
  CFatFileSystem* m_pFs = nullptr;
  std::unique_ptr<CVolumeReader> m_pReader;
};

/// The same on every width.
class FatFileSystemOfWidth : public FatFileSystem, public ::testing::WithParamInterface<unsigned int> {
 protected:
  FatFileSystemOfWidth() : FatFileSystem(GetParam()) {}
};

/// A\B\C and A\B\D, files; and fillers.
class FatFileSystemPaths : public FatFileSystem {
 protected:
  FatFileSystemPaths() {
    const CImageBuilder::DIRECTORY a = m_Builder.AddDir(ROOT, "A");
    const CImageBuilder::DIRECTORY b = m_Builder.AddDir(a, "B");
    m_Builder.AddFile(b, "C", CImageBuilder::Pattern(100, 1));
    m_Builder.AddFile(b, "D", CImageBuilder::Pattern(100, 2));
    m_Builder.AddFile(b, "A long name.txt", CImageBuilder::Pattern(100, 3));
    m_Builder.AddFile(ROOT, "F", CImageBuilder::Pattern(100, 4));
    AddFillers();
  }
  void SetUp() override {
    FatFileSystem::SetUp();
    MountBuilt();
  }
};

std::string Join(const std::vector<std::string>& components) {
  std::string path;
  for (const std::string& component : components) path += (path.empty() ? "" : "\\") + component;
  return path;
}

// ---------------------------------------------------------------------------------------------- opening and caching

TEST_F(FatFileSystemPaths, OpenedTwice_SameObjectWithThreeReferences) {
  CFatFile* one = Opened("A\\B\\C");
  EXPECT_EQ(one->RefCount(), 2u);
  EXPECT_TRUE(CFatFileSystem::IsOpened(one));
  CFatFile* two = Opened("a\\b\\c");
  EXPECT_EQ(one, two);
  EXPECT_EQ(one->RefCount(), 3u);
  EXPECT_TRUE(CFatFileSystem::IsOpened(one));
  CloseObject(one);
  CloseObject(two);
}

TEST_F(FatFileSystemPaths, EveryHandleClosed_StaysCachedWithOneReference) {
  CFatFile* file = Opened("F");
  CloseObject(Opened("F"));
  CloseObject(file);
  EXPECT_EQ(file->RefCount(), 1u);
  EXPECT_FALSE(CFatFileSystem::IsOpened(file));
  EXPECT_EQ(Cached("F"), file);
  EXPECT_EQ(Opened("F"), file);
  CloseObject(file);
}

TEST_F(FatFileSystemPaths, OpenedDeep_DirectoriesOnTheWayAreCachedWithTheCachesReference) {
  EXPECT_EQ(Count(), 0u);
  CloseObject(Opened("A\\B\\C"));
  EXPECT_EQ(Count(), 3u);
  for (const char* path : {"A", "A\\B"}) {
    ASSERT_NE(Cached(path), nullptr) << path;
    EXPECT_EQ(Cached(path)->RefCount(), 1u) << path;
    EXPECT_TRUE(Cached(path)->IsDir()) << path;
    EXPECT_EQ(Key(Cached(path)), path);
  }
  CloseObject(Opened("A\\B\\D"));
  EXPECT_EQ(Count(), 4u);
}

TEST_F(FatFileSystemPaths, LongestCachedPrefix_IsWhereTheWalkStarts) {
  CFatFile* a = Opened("A");
  CFatFile* b = Opened("A\\B");
  OpenFillers(0, CACHED - 3);  // with FILL the cache is full, and A is the oldest object in it, then A\B
  EXPECT_EQ(Count(), static_cast<unsigned int>(CACHED));
  CloseObject(Opened("A\\B\\C"));  // uses A\B, not A
  EXPECT_EQ(a->RefCount(), 1u);    // A made room: only the test holds it
  EXPECT_EQ(b->RefCount(), 2u);
  OpenFillers(CACHED - 3, CACHED - 2);
  EXPECT_EQ(b->RefCount(), 2u);
  CloseObject(a);
  CloseObject(b);
}

TEST_F(FatFileSystemPaths, DirectoryLoaded_PathsBelowItReadNoDirectoryAgain) {
  CloseObject(Opened("A\\B\\C"));
  Medium().ClearTrace();
  CloseObject(Opened("A\\B\\D"));
  EXPECT_EQ(Medium().Transfers(), 1u) << Medium().TraceText();  // the file's own first block
  CloseObject(Opened("A\\B\\D"));
  EXPECT_EQ(Medium().Transfers(), 1u);
}

TEST_F(FatFileSystemPaths, MissingComponent_IsNotFoundWhereverItIs) {
  for (const char* path : {"X", "A\\X", "A\\X\\C", "X\\B\\C", "A\\B\\X", "A\\B\\X\\Y\\Z"}) {
    EXPECT_EQ(OpenStatus(path), STATUS_NOT_FOUND) << path;
  }
  EXPECT_EQ(static_cast<unsigned int>(STATUS_NOT_FOUND), 0xC0000225u);
}

TEST_F(FatFileSystemPaths, OpeningFails_DirectoriesOnTheWayStayCached) {
  EXPECT_EQ(OpenStatus("A\\B\\X"), STATUS_NOT_FOUND);
  EXPECT_EQ(Count(), 2u);
  EXPECT_EQ(Cached("A\\B")->RefCount(), 1u);
}

TEST_F(FatFileSystemPaths, KeyOfAnObject_IsItsUpperCasedPath) {
  CFatFile* file = Opened("a\\b\\a LONG name.TXT");
  EXPECT_EQ(Key(file), "A\\B\\A LONG NAME.TXT");
  EXPECT_EQ(ToUtf8(file->Name(), file->NameChars()), "A long name.txt");
  CloseObject(file);
}

TEST_F(FatFileSystemPaths, Root_IsNeverInTheCache) {
  const unsigned int references = m_pFs->Root()->RefCount();
  EXPECT_EQ(references, 1u);
  CloseObject(Opened("F"));
  EXPECT_EQ(Count(), 1u);
  EXPECT_EQ(m_pFs->Root()->RefCount(), references);
}

TEST_F(FatFileSystemPaths, OpenedByPath_EveryObjectHasItsEntriesLoaded) {
  CFatFile* file = Opened("F");
  EXPECT_NE(file->DirEntCache(), nullptr);
  CloseObject(file);
  CFatFile* created = nullptr;
  ASSERT_EQ(m_pFs->CreateFile(CPath("NEW"), 0, 0, &created), 0);
  EXPECT_EQ(created->DirEntCache(), nullptr);
  CloseObject(created);
}

TEST_F(FatFileSystemPaths, Unmounted_CacheIsEmpty) {
  CloseObject(Opened("A\\B\\C"));
  EXPECT_TRUE(Unmount(m_pFs));
  EXPECT_EQ(Count(), 0u);
}

TEST_F(FatFileSystem, NullStorage_DoesNotMount) {
  CFatFileSystem fileSystem;
  EXPECT_FALSE(fileSystem.Mount(nullptr, nullptr));
}

TEST_F(FatFileSystem, ObjectThatCannotBeBuilt_GivesFileCorruptAndIsNotCached) {
  m_Builder.AddFile(ROOT, "SHORT", CImageBuilder::Pattern(1000, 1), {10, 11});
  m_Builder.SetFatEntry(10, 0);  // runs into a free cluster
  m_Builder.AddFile(ROOT, "LOOP", CImageBuilder::Pattern(1500, 1), {20, 21, 22});
  m_Builder.SetFatEntry(22, 20);
  ENTRY_OPTIONS outside;
  outside.SetFirstCluster = true;
  outside.FirstCluster = 5002;
  m_Builder.AddDir(ROOT, "OUTSIDE", {}, outside);
  MountBuilt();
  for (const char* path : {"SHORT", "LOOP", "OUTSIDE", "OUTSIDE\\X", "SHORT\\X"}) {
    EXPECT_EQ(OpenStatus(path), STATUS_FILE_CORRUPT) << path;
  }
  EXPECT_EQ(static_cast<unsigned int>(STATUS_FILE_CORRUPT), 0xC0000102u);
  EXPECT_EQ(Count(), 0u);
}

TEST_F(FatFileSystemPaths, LoadingFails_GivesFileCorruptAndIsNotCached) {
  Medium().FailAt(1, FAULT_FOR_GOOD);
  EXPECT_EQ(OpenStatus("A\\B\\C"), STATUS_FILE_CORRUPT);
  EXPECT_EQ(Count(), 0u);
  Medium().FailAt(3, FAULT_FOR_GOOD);
  EXPECT_EQ(OpenStatus("A\\B\\C"), STATUS_FILE_CORRUPT);
  EXPECT_EQ(Count(), 2u);
  Medium().Heal();
  EXPECT_EQ(OpenStatus("A\\B\\C"), 0);
}

// ---------------------------------------------------------------------------------------------- eviction

TEST_F(FatFileSystemPaths, Object161_EvictsTheLeastRecentlyUsedAfterAFoundOneWasMovedBack) {
  std::vector<CFatFile*> held;
  held.push_back(Opened("F"));
  for (int i = 0; i < CACHED - 2; ++i) held.push_back(Opened(Filler(i)));  // and FILL itself
  EXPECT_EQ(Count(), static_cast<unsigned int>(CACHED));
  for (const CFatFile* file : held) EXPECT_EQ(file->RefCount(), 2u);
  CloseObject(Opened("F"));  // the oldest becomes the newest
  held.push_back(Opened(Filler(CACHED - 2)));
  EXPECT_EQ(Count(), static_cast<unsigned int>(CACHED));
  EXPECT_EQ(held[0]->RefCount(), 2u);
  EXPECT_EQ(held[1]->RefCount(), 1u);  // evicted: only the test holds it
  EXPECT_EQ(held[2]->RefCount(), 2u);
  held.push_back(Opened(Filler(CACHED - 1)));
  EXPECT_EQ(held[2]->RefCount(), 1u);
  for (std::size_t i = 3; i < held.size(); ++i) EXPECT_EQ(held[i]->RefCount(), 2u) << i;
  for (CFatFile* file : held) CloseObject(file);
}

TEST_F(FatFileSystemPaths, DirectoryFoundAsAPrefix_IsMovedBackToo) {
  CFatFile* b = Opened("A\\B");
  OpenFillers(0, CACHED - 3);
  EXPECT_EQ(Count(), static_cast<unsigned int>(CACHED));
  CloseObject(Opened("A\\B\\C"));  // evicts A
  CFatFile* oldest = Opened(Filler(0));
  OpenFillers(1, CACHED - 3);  // everything but A\B and C is newer now
  CloseObject(Opened("A\\B\\D"));
  EXPECT_EQ(b->RefCount(), 2u);
  EXPECT_EQ(oldest->RefCount(), 2u);
  CloseObject(oldest);
  CloseObject(b);
}

TEST_F(FatFileSystemPaths, EvictedButHeld_LivesOnAndIsNoLongerFound) {
  CFatFile* held = Opened("F");
  OpenFillers(0, CACHED);
  EXPECT_EQ(held->RefCount(), 1u);
  EXPECT_EQ(Cached("F"), nullptr);
  CFatFile* second = Opened("F");
  EXPECT_NE(second, held);
  EXPECT_EQ(second->RefCount(), 2u);
  BYTES bytes(100);
  unsigned int done = 0;
  EXPECT_EQ(held->Read(0, 100, bytes.data(), &done), 0);
  EXPECT_EQ(bytes, CImageBuilder::Pattern(100, 4));
  CloseObject(second);
  CloseObject(held);
}

TEST_F(FatFileSystemPaths, EvictedObjectInNobodysHands_IsWrittenAndDestroyed) {
  CFatFile* file = Opened("F");
  BYTES bytes(100, 0x5A);
  unsigned int done = 0;
  EXPECT_EQ(file->Write(0, 100, bytes.data(), &done), 0);
  CloseObject(file);
  Medium().ClearTrace();
  OpenFillers(0, CACHED);
  EXPECT_EQ(Medium().Writes(), 1u) << Medium().TraceText();
  CVolumeReader reader(Medium().Image());
  EXPECT_EQ(reader.Content(*reader.Find("F")), bytes);
}

TEST_F(FatFileSystemPaths, EvictedAndHeld_ItsEntryIsStillFoundByItsPath) {
  const int deep = Fat_OpenFile(CPath("A\\B\\C"));
  const int top = Fat_OpenFile(CPath("F"));
  OpenFillers(0, CACHED + 10);
  EXPECT_EQ(Fat_SetFileSize(deep, 5000), 1u);
  WIN_FIND_DATA data{};
  data.dwFileAttributes = 0x21;
  EXPECT_EQ(Fat_SetFileAttribute(deep, &data), 1u);
  EXPECT_EQ(Fat_SetFileSize(top, 7), 1u);
  EXPECT_EQ(Fat_CloseFile(deep), 1u);
  EXPECT_EQ(Fat_CloseFile(top), 1u);
  EXPECT_EQ(Problems(), "");
  EXPECT_EQ(Node("A\\B\\C").Size, 5000u);
  EXPECT_EQ(Node("A\\B\\C").Attributes, 0x21u);
  EXPECT_EQ(Node("F").Size, 7u);
  EXPECT_EQ(Content("A\\B\\D"), CImageBuilder::Pattern(100, 2));
}

TEST_F(FatFileSystemPaths, EvictedAndHeldAtUnmount_KeyTextIsGoneOnlyWithTheObject) {
  CFatFile* held = Opened("A\\B\\C");
  OpenFillers(0, CACHED + 10);
  EXPECT_EQ(Key(held), "A\\B\\C");
  EXPECT_TRUE(Unmount(m_pFs));
  EXPECT_TRUE(held->IsDead());
  EXPECT_EQ(Key(held), "A\\B\\C");
  CloseObject(held);
}

TEST_F(FatFileSystemPaths, DeletedByPathWhileAnEvictedObjectIsHeld_HandleGoesOnAndCloses) {
  const int file = Fat_OpenFile(CPath("F"));
  OpenFillers(0, CACHED);
  EXPECT_EQ(Fat_DeleteFile(CPath("F")), 1u);  // nobody knows that it is open
  EXPECT_EQ(ReadAll(file), CImageBuilder::Pattern(100, 4));
  BYTES bytes(100, 1);
  unsigned int done = 0;
  EXPECT_EQ(Fat_WriteFileEx(file, 0, 100, bytes.data(), &done), 1u);
  EXPECT_EQ(Fat_SetFileSize(file, 5), 0u);  // its entry is gone
  EXPECT_EQ(Fat_CloseFile(file), 1u);
}

TEST_F(FatFileSystemPaths, CacheFilledManyTimes_NothingIsLost) {
  for (int round = 0; round < 3; ++round) {
    OpenFillers(0, CACHED + 10);
    EXPECT_EQ(Count(), static_cast<unsigned int>(CACHED));
    EXPECT_EQ(ReadPath("A\\B\\C"), CImageBuilder::Pattern(100, 1));
    EXPECT_EQ(Count(), static_cast<unsigned int>(CACHED));
  }
}

// ---------------------------------------------------------------------------------------------- creating

TEST_F(FatFileSystem, CreatedBelowMissingDirectories_TheyAreMadeWithoutAttributes) {
  ENTRY_OPTIONS hidden;
  hidden.Attributes = 0x02;
  m_Builder.AddDir(ROOT, "X", {}, hidden);
  MountBuilt();
  CFatFile* file = nullptr;
  ASSERT_EQ(m_pFs->CreateFile(CPath("X\\Y\\Z\\f"), 0, 0x20, &file), 0);
  EXPECT_EQ(file->RefCount(), 2u);
  EXPECT_EQ(Key(file), "X\\Y\\Z\\F");
  EXPECT_EQ(Count(), 4u);
  for (const char* path : {"X", "X\\Y", "X\\Y\\Z"}) {
    ASSERT_NE(Cached(path), nullptr) << path;
    EXPECT_EQ(Cached(path)->RefCount(), 1u) << path;
    EXPECT_EQ(Key(Cached(path)), path);
  }
  CloseObject(file);
  EXPECT_EQ(Problems(), "");
  EXPECT_EQ(Node("X").Attributes, 0x12u);
  EXPECT_EQ(Node("X\\Y").Attributes, 0x10u);
  EXPECT_EQ(Node("X\\Y\\Z").Attributes, 0x10u);
  EXPECT_EQ(Node("X\\Y\\Z\\F").Attributes, 0x20u);
}

TEST_F(FatFileSystem, DirectoryCreated_IsCachedAndHeldByTheCaller) {
  MountBuilt();
  CFatDir* dir = nullptr;
  ASSERT_EQ(m_pFs->CreateDir(CPath("P\\Q"), 0x04, &dir), 0);
  EXPECT_EQ(dir->RefCount(), 2u);
  EXPECT_EQ(dir->Info()->Attribute, 0x14);
  EXPECT_EQ(Key(dir), "P\\Q");
  CloseObject(dir);
  EXPECT_EQ(dir->RefCount(), 1u);
  EXPECT_EQ(Opened("P\\Q"), dir);
  CloseObject(dir);
}

TEST_F(FatFileSystemPaths, NameExists_CreatingIsRefusedWithoutAWriteCachedOrNot) {
  for (int round = 0; round < 2; ++round) {
    for (const char* path : {"F", "f", "A", "A\\B", "A\\B\\C", "a\\b\\a long NAME.txt"}) {
      EXPECT_EQ(CreateStatus(path), STATUS_NAME_EXISTS) << path;
      EXPECT_EQ(CreateDirStatus(path), STATUS_NAME_EXISTS) << path;
      if (round == 0) {
        EXPECT_EQ(OpenStatus(path), 0);
      }
    }
  }
  EXPECT_EQ(static_cast<unsigned int>(STATUS_NAME_EXISTS), 0xC0000183u);
  EXPECT_EQ(Medium().Writes(), 0u);
  EXPECT_TRUE(Unmount(m_pFs));
  EXPECT_EQ(CDiskImage::Differences(Medium().Image(), m_Builder.Image()), std::vector<std::uint64_t>{});
}

TEST_F(FatFileSystem, CreatingFailsPartWay_DirectoriesMadeSoFarStay) {
  m_Builder.Allocate(4998);  // two clusters are left
  MountBuilt();
  EXPECT_EQ(CreateStatus("P\\Q\\R\\f"), STATUS_DISK_FULL);
  EXPECT_EQ(Count(), 2u);
  EXPECT_NE(Cached("P\\Q"), nullptr);
  EXPECT_EQ(Cached("P\\Q\\R"), nullptr);
  EXPECT_EQ(OpenStatus("P\\Q"), 0);
  EXPECT_EQ(CreateStatus("P\\Q\\f"), 0);
  EXPECT_EQ(Problems(), "");
  EXPECT_EQ(m_pReader->Tree().size(), 3u);
}

TEST_F(FatFileSystem, FailedSizedCreate_LeavesAGhostThatBelongsToNoEntry) {
  MountBuilt();
  EXPECT_EQ(CreateStatus("GHOST", 5001 * 512), STATUS_DISK_FULL);
  EXPECT_EQ(CreateStatus("GHOST"), STATUS_NAME_EXISTS);
  // The slot is free, so the next file takes it, and both records now claim it.
  ASSERT_TRUE(WritePath("REAL", CImageBuilder::Pattern(100, 1)));
  EXPECT_EQ(CreateStatus("GHOST"), STATUS_NAME_EXISTS);
  EXPECT_EQ(ReadPath("REAL"), CImageBuilder::Pattern(100, 1));
  // Deleting the ghost marks whatever lies in its slot, and takes it out of the listing.
  EXPECT_EQ(Fat_DeleteFile(CPath("GHOST")), 1u);
  WIN_FIND_DATA data{};
  EXPECT_EQ(m_pFs->FindFirstFile(nullptr, &data), nullptr);
  EXPECT_EQ(ReadPath("REAL"), CImageBuilder::Pattern(100, 1));
  EXPECT_EQ(CreateStatus("GHOST"), 0);
  EXPECT_TRUE(Unmount(m_pFs));
}

// ------------------------------------------------------------------------------------ directories that grow, with keys

/// Files created in one directory until it has grown several times.
class GrowingDirectory : public FatFileSystemOfWidth {
 protected:
  static std::string Name(int i) { return "N" + std::to_string(i); }

  /// Creates files in a directory, checks the key and the identity of each, gives each another size through its handle,
  /// and reads the volume.
  /// @param before  called before each creation
  void CreateAndSize(
      const std::string& dir, int count, const std::function<void()>& before = [] {}) {
    for (int i = 0; i < count; ++i) {
      before();
      const std::string path = dir + "\\" + Name(i);
      CFatFile* file = nullptr;
      ASSERT_EQ(m_pFs->CreateFile(CPath(path), 0, 0, &file), 0) << path;
      ASSERT_EQ(Key(file), path);
      ASSERT_EQ(Cached(path), file);
      ASSERT_EQ(file->SetSize(static_cast<unsigned int>(i + 1), nullptr, nullptr), 0) << path;
      CloseObject(file);
    }
    EXPECT_EQ(Problems(), "");
    for (int i = 0; i < count; ++i) {
      ASSERT_EQ(Node(dir + "\\" + Name(i)).Size, static_cast<unsigned int>(i + 1));
    }
    EXPECT_EQ(m_pReader->LostClusters().size(), 0u);
  }
};
INSTANTIATE_TEST_SUITE_P(Widths, GrowingDirectory, ::testing::Values(12u, 16u, 32u),
                         [](const ::testing::TestParamInfo<unsigned int>& bits) {
                           return "Fat" + std::to_string(bits.param);
                         });

TEST_P(GrowingDirectory, OneLevelDeep_EveryFileKeepsItsOwnKey) {
  MountBuilt();
  ASSERT_EQ(CreateDirStatus("A"), 0);
  CreateAndSize("A", 60);
}

TEST_P(GrowingDirectory, TwoLevelsDeep_EveryFileKeepsItsOwnKey) {
  MountBuilt();
  ASSERT_EQ(CreateDirStatus("A\\B"), 0);
  CreateAndSize("A\\B", 60);
  EXPECT_EQ(Node("A").Attributes, 0x10u);
  EXPECT_EQ(Node("A").Size, 0u);
}

TEST_P(GrowingDirectory, FiveLevelsDeep_EveryFileKeepsItsOwnKey) {
  MountBuilt();
  ASSERT_EQ(CreateDirStatus("A\\Long name of the second\\C\\D\\E"), 0);
  CreateAndSize("A\\LONG NAME OF THE SECOND\\C\\D\\E", 0);  // leaves the directories on the medium
  m_pReader.reset();
  MountImage(Medium().Image());
  for (int i = 0; i < 60; ++i) {
    const std::string path = "A\\Long name of the second\\C\\D\\E\\" + Name(i);
    const int file = Fat_CreateFile(CPath(path), 0, 0);
    ASSERT_NE(file, NO_HANDLE);
    ASSERT_EQ(Fat_SetFileSize(file, static_cast<unsigned int>(i)), 1u);
    ASSERT_EQ(Fat_CloseFile(file), 1u);
  }
  EXPECT_EQ(Problems(), "");
  for (int i = 0; i < 60; ++i) {
    EXPECT_EQ(Node("A\\Long name of the second\\C\\D\\E\\" + Name(i)).Size, static_cast<unsigned int>(i));
  }
}

TEST_P(GrowingDirectory, ParentsEvicted_EveryFileKeepsItsOwnKey) {
  // Whenever the directory grows, its parents have to be walked to anew.
  AddFillers();
  MountBuilt();
  ASSERT_EQ(CreateDirStatus("A\\B\\C\\D"), 0);
  CreateAndSize("A\\B\\C\\D", 40, [this] {
    for (int i = 0; i < CACHED - 2; ++i) {
      ASSERT_TRUE(Exists(Filler(i)));
      ASSERT_NE(Cached("A\\B\\C\\D"), nullptr);  // used again and again, so it stays
    }
  });
}

TEST_P(GrowingDirectory, DirectoriesMadeOnTheWay_KeepTheirOwnKeys) {
  MountBuilt();
  ASSERT_EQ(CreateDirStatus("A\\B"), 0);
  for (int i = 0; i < 40; ++i) {
    const std::string base = "A\\B\\" + Name(i);
    ASSERT_EQ(CreateStatus(base + "\\X\\F", 100), 0) << base;
    for (const std::string& path : {base, base + "\\X", base + "\\X\\F"}) {
      CFatFile* cached = Cached(path);
      ASSERT_NE(cached, nullptr) << path;
      ASSERT_EQ(Key(cached), path);
    }
  }
  EXPECT_EQ(Problems(), "");
  for (int i = 0; i < 40; ++i) EXPECT_EQ(Node("A\\B\\" + Name(i) + "\\X\\F").Size, 100u);
  EXPECT_EQ(m_pReader->LostClusters().size(), 0u);
}

TEST_P(GrowingDirectory, DirectoriesMadeOnTheWayWithParentsEvicted_GetTheirOwnNames) {
  // Growing resolves the path of the parents while the name of the next component is still to be used.
  AddFillers();
  MountBuilt();
  ASSERT_EQ(CreateDirStatus("A\\B\\C"), 0);
  for (int i = 0; i < 20; ++i) {
    for (int k = 0; k < CACHED - 2; ++k) {
      ASSERT_TRUE(Exists(Filler(k)));
      ASSERT_NE(Cached("A\\B\\C"), nullptr);
    }
    ASSERT_EQ(CreateStatus("A\\B\\C\\" + Name(i) + "\\X\\F", 10), 0);
  }
  EXPECT_EQ(Problems(), "");
  for (int i = 0; i < 20; ++i) EXPECT_EQ(Node("A\\B\\C\\" + Name(i) + "\\X\\F").Size, 10u);
  EXPECT_EQ(m_pReader->Tree().size(), 3u + 60u + 171u);
}

// ---------------------------------------------------------------------------------------------- the root's reference

TEST_F(FatFileSystemPaths, FileRenamedAndSizedThroughItsHandle_RootStays) {
  const int file = Fat_OpenFile(CPath("F"));
  EXPECT_EQ(Fat_RenameFile(CPath("F"), CPath("G")), 1u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Fat_SetFileSize(file, 50u + static_cast<unsigned int>(i)), 0u);
    WIN_FIND_DATA data{};
    EXPECT_EQ(Fat_SetFileAttribute(file, &data), 0u);
    EXPECT_EQ(m_pFs->Root()->RefCount(), 1u);
  }
  EXPECT_EQ(Fat_CloseFile(file), 1u);
  EXPECT_TRUE(WritePath("NEW", CImageBuilder::Pattern(10, 9)));
  EXPECT_EQ(Problems(), "");
  EXPECT_EQ(Content("NEW"), CImageBuilder::Pattern(10, 9));
  EXPECT_EQ(Content("G"), CImageBuilder::Pattern(100, 4));
}

TEST_F(FatFileSystemPaths, FileRenamedAndTouchedByItsOldName_RootStays) {
  EXPECT_TRUE(Exists("F"));
  EXPECT_EQ(Fat_RenameFile(CPath("F"), CPath("G")), 1u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Fat_RenameFile(CPath("F"), CPath("H")), 0u);
    EXPECT_EQ(Fat_DeleteFile(CPath("F")), 0u);
    EXPECT_EQ(Fat_MoveFile(CPath("F"), CPath("A")), 0u);
    EXPECT_EQ(m_pFs->Root()->RefCount(), 1u);
  }
  EXPECT_EQ(Problems(), "");
  EXPECT_EQ(Content("G"), CImageBuilder::Pattern(100, 4));
}

TEST_F(FatFileSystemPaths, FileMovedAndSizedByItsOldName_RootStays) {
  EXPECT_TRUE(Exists("F"));
  EXPECT_EQ(Fat_MoveFile(CPath("F"), CPath("A\\B")), 1u);
  const int file = Fat_OpenFile(CPath("F"));  // the old path still leads to the object
  ASSERT_NE(file, NO_HANDLE);
  EXPECT_EQ(Fat_SetFileSize(file, 50), 0u);
  EXPECT_EQ(Fat_CloseFile(file), 1u);
  EXPECT_EQ(m_pFs->Root()->RefCount(), 1u);
  EXPECT_EQ(Problems(), "");
  EXPECT_EQ(Content("A\\B\\F"), CImageBuilder::Pattern(100, 4));
}

TEST_F(FatFileSystemPaths, DirectoryRenamedAndGrownThroughItsOldName_RootStays) {
  EXPECT_TRUE(Exists("A"));
  EXPECT_EQ(Fat_RenameFile(CPath("A"), CPath("R")), 1u);
  int failures = 0;
  for (int i = 0; i < 40; ++i) failures += CreateStatus("A\\N" + std::to_string(i)) < 0 ? 1 : 0;
  EXPECT_GT(failures, 0);  // its own entry cannot be found to be written
  EXPECT_EQ(m_pFs->Root()->RefCount(), 1u);
  EXPECT_TRUE(WritePath("NEW", CImageBuilder::Pattern(10, 9)));
  EXPECT_TRUE(Unmount(m_pFs));
  const CVolumeReader reader(Medium().Image());
  ASSERT_NE(reader.Find("NEW"), nullptr);
  ASSERT_NE(reader.Find("R\\B\\C"), nullptr);
  EXPECT_EQ(reader.Content(*reader.Find("R\\B\\C")), CImageBuilder::Pattern(100, 1));
}

TEST_F(FatFileSystemPaths, RootHeldTwice_OneUnmountReleasesAll) {
  m_pFs->Root()->AddRef();
  const int file = Fat_OpenFile(CPath("F"));
  EXPECT_EQ(Fat_RenameFile(CPath("F"), CPath("G")), 1u);
  EXPECT_EQ(Fat_SetFileSize(file, 5), 0u);
  EXPECT_GE(m_pFs->Root()->RefCount(), 1u);
  CFatFile* root = m_pFs->Root();
  while (root->RefCount() > 1) CloseObject(root);
  CloseObject(root);
  EXPECT_EQ(root->RefCount(), 1u);
  EXPECT_EQ(Fat_CloseFile(file), 1u);
  EXPECT_TRUE(Unmount(m_pFs));
}

// ---------------------------------------------------------------------------------------------- stale keys

TEST_F(FatFileSystemPaths, RenamedObject_IsKnownByItsOldPathAsLongAsItIsCached) {
  CFatFile* file = Opened("F");
  BYTES bytes(100, 0x66);
  unsigned int done = 0;
  EXPECT_EQ(file->Write(0, 100, bytes.data(), &done), 0);
  CloseObject(file);
  ASSERT_EQ(m_pFs->RenameFile(CPath("F"), CPath("G")), 0);
  EXPECT_EQ(Cached("F"), file);
  EXPECT_EQ(CreateStatus("F"), STATUS_NAME_EXISTS);
  // Under the new name there is a second object, which reads what the medium has.
  EXPECT_EQ(ReadPath("G"), CImageBuilder::Pattern(100, 4));
  EXPECT_EQ(ReadPath("F"), bytes);
  OpenFillers(0, CACHED);
  EXPECT_EQ(Cached("F"), nullptr);
  EXPECT_EQ(OpenStatus("F"), STATUS_NOT_FOUND);
  EXPECT_EQ(ReadPath("G"), bytes);
  EXPECT_EQ(CreateStatus("F"), 0);
  EXPECT_EQ(Problems(), "");
}

TEST_F(FatFileSystemPaths, NewFileTakesTheOldName_TheOldHandleWritesOverItsEntry) {
  const int old = Fat_OpenFile(CPath("F"));
  EXPECT_EQ(Fat_RenameFile(CPath("F"), CPath("G")), 1u);
  OpenFillers(0, CACHED);
  const int taker = Fat_CreateFile(CPath("F"), 0, 0);
  ASSERT_NE(taker, NO_HANDLE);
  EXPECT_EQ(Fat_SetFileSize(old, 99), 1u);
  EXPECT_EQ(Fat_CloseFile(old), 1u);
  EXPECT_EQ(Fat_CloseFile(taker), 1u);
  EXPECT_TRUE(Unmount(m_pFs));
  // The whole entry of the renamed file has come over that of the new one.
  const CImageBuilder after(Medium().Image());
  std::vector<unsigned int> sizes;
  for (const RAW_ENTRY& entry : after.Entries(ROOT)) {
    EXPECT_FALSE(entry[0] == 'F' && entry[1] == ' ');
    if (entry[0] == 'G') sizes.push_back(entry[28]);
  }
  EXPECT_EQ(sizes, (std::vector<unsigned int>{100, 99}));
}

TEST_F(FatFileSystemPaths, DirectoryMovedIntoItselfThroughItsOldName_LibrarySurvives) {
  EXPECT_TRUE(Exists("A\\B"));
  EXPECT_EQ(Fat_RenameFile(CPath("A"), CPath("R")), 1u);
  EXPECT_TRUE(Exists("R\\B"));
  EXPECT_EQ(CreateDirStatus("R\\IN"), 0);
  // The paths do not tell that one lies below the other.
  (void)Fat_MoveFile(CPath("R"), CPath("A\\B"));
  (void)Fat_MoveFile(CPath("A"), CPath("R\\IN"));
  (void)Fat_MoveFile(CPath("R\\IN"), CPath("A\\B"));
  EXPECT_EQ(ReadPath("F"), CImageBuilder::Pattern(100, 4));
  EXPECT_TRUE(Unmount(m_pFs));
}

// ---------------------------------------------------------------------------------------------- files as directories

TEST_F(FatFileSystem, NewFile_HasNothingBelowItAndTakesNothing) {
  MountBuilt();
  ASSERT_EQ(CreateStatus("F"), 0);
  EXPECT_EQ(OpenStatus("F\\X"), STATUS_NOT_FOUND);
  EXPECT_EQ(OpenStatus("F\\X\\Y"), STATUS_NOT_FOUND);
  const CDiskImage before = Medium().Image();
  Medium().ClearTrace();
  EXPECT_EQ(CreateStatus("F\\X"), STATUS_DISK_FULL);
  EXPECT_EQ(CreateStatus("F\\X", 1000), STATUS_DISK_FULL);
  EXPECT_EQ(CreateDirStatus("F\\X"), STATUS_DISK_FULL);
  EXPECT_EQ(CreateStatus("F\\X\\Y"), STATUS_DISK_FULL);
  EXPECT_EQ(Medium().Writes(), 0u);
  EXPECT_EQ(Medium().Image(), before);
  EXPECT_EQ(Problems(), "");
  EXPECT_EQ(m_pReader->LostClusters().size(), 0u);
}

class NewFileTurnedIntoADirectory : public FatFileSystem {
 protected:
  void SetUp() override {
    FatFileSystem::SetUp();
    m_Builder.AddFile(ROOT, "G", CImageBuilder::Pattern(10, 1));
    MountBuilt();
    m_nFile = Fat_CreateFile(CPath("F"), 0, 0);
    WIN_FIND_DATA data{};
    data.dwFileAttributes = 0x10;
    ASSERT_EQ(Fat_SetFileAttribute(m_nFile, &data), 1u);
    ASSERT_EQ(Fat_IsDir(m_nFile), 1u);
  }
  int m_nFile = NO_HANDLE;
};

TEST_F(NewFileTurnedIntoADirectory, IsEmptyAndCanBeDeleted) {
  EXPECT_EQ(Fat_CloseFile(m_nFile), 1u);
  EXPECT_EQ(m_pFs->DeleteFile(CPath("F")), 0);
  EXPECT_EQ(Problems(), "");
  EXPECT_EQ(m_pReader->Find("F"), nullptr);
}

TEST_F(NewFileTurnedIntoADirectory, HasNoEntryToFind) {
  WIN_FIND_DATA data{};
  EXPECT_EQ(Fat_FindFirstFile(CPath("F"), &data), NO_HANDLE);
  EXPECT_EQ(OpenStatus("F\\X"), STATUS_NOT_FOUND);
  EXPECT_EQ(Fat_CloseFile(m_nFile), 1u);
}

TEST_F(NewFileTurnedIntoADirectory, CanBeSized) {
  EXPECT_EQ(Fat_SetFileSize(m_nFile, 2000), 1u);
  EXPECT_EQ(Fat_SetFileSize(m_nFile, 100), 1u);
  EXPECT_EQ(Fat_SetFileSize(m_nFile, 0), 1u);
  EXPECT_EQ(Fat_CloseFile(m_nFile), 1u);
}

TEST_F(NewFileTurnedIntoADirectory, TakesNothing) {
  EXPECT_EQ(Fat_CloseFile(m_nFile), 1u);
  Medium().ClearTrace();
  EXPECT_EQ(CreateStatus("F\\X"), STATUS_DISK_FULL);
  EXPECT_EQ(m_pFs->MoveFile(CPath("G"), CPath("F")), STATUS_DISK_FULL);
  EXPECT_EQ(Medium().Writes(), 0u);
  EXPECT_EQ(ReadPath("G"), CImageBuilder::Pattern(10, 1));
  EXPECT_TRUE(Unmount(m_pFs));
  const CVolumeReader reader(Medium().Image());
  EXPECT_NE(reader.Find("G"), nullptr);
}

TEST_F(FatFileSystem, PathBelowARegularFile_ResolvesAgainstItsBytes) {
  m_Builder.AddFile(ROOT, "TARGET", CImageBuilder::Pattern(40, 7), {50});
  BYTES bytes(64, 0);
  const RAW_ENTRY entry = CImageBuilder::ShortEntry(CImageBuilder::ShortName("INSIDE"), 0x20, 50, 40);
  std::copy(entry.begin(), entry.end(), bytes.begin());
  m_Builder.AddFile(ROOT, "F", bytes);
  MountBuilt();
  EXPECT_EQ(ReadPath("F\\INSIDE"), CImageBuilder::Pattern(40, 7));
  EXPECT_EQ(OpenStatus("F\\OUTSIDE"), STATUS_NOT_FOUND);
  WIN_FIND_DATA data{};
  EXPECT_EQ(Fat_FindFirstFile(CPath("F"), &data), NO_HANDLE);  // it is no directory all the same
  EXPECT_EQ(ReadPath("F"), bytes);
  EXPECT_EQ(Medium().Writes(), 0u);
}

TEST_F(FatFileSystem, PathBelowARegularFileWithoutMemory_FailsButIsNeverTakenForMissing) {
  BYTES bytes(64, 0);
  const RAW_ENTRY entry = CImageBuilder::ShortEntry(CImageBuilder::ShortName("INSIDE"), 0x20, 0, 0);
  std::copy(entry.begin(), entry.end(), bytes.begin());
  m_Builder.AddFile(ROOT, "F", bytes);
  for (const bool cached : {true, false}) {
    bool fired = true;
    for (unsigned int nth = 1; fired; ++nth) {
      MountBuilt();
      if (cached) {
        EXPECT_TRUE(Exists("F"));
      }
      Memory().FailAt(nth, CMemHooks::ONCE);
      const int status = OpenStatus("F\\INSIDE");
      fired = Memory().Fired();
      Memory().Heal();
      EXPECT_TRUE(status == 0 || status == STATUS_NO_MEMORY || status == STATUS_FILE_CORRUPT) << nth << ": " << status;
      EXPECT_EQ(OpenStatus("F\\INSIDE"), 0) << nth;
      EXPECT_TRUE(Unmount(m_pFs));
    }
  }
}

TEST_F(FatFileSystem, CreatedBelowARegularFile_EntryGoesIntoADeletedSlotOfItsBytes) {
  BYTES bytes(96, 'A');
  bytes[32] = 0xE5;
  m_Builder.AddFile(ROOT, "F", bytes);
  MountBuilt();
  EXPECT_TRUE(Exists("F"));
  EXPECT_EQ(CreateStatus("F\\X"), 0);
  EXPECT_EQ(OpenStatus("F\\X"), 0);
  EXPECT_EQ(Problems(), "");
  BYTES after = Content("F");
  ASSERT_EQ(after.size(), 96u);
  EXPECT_EQ(BYTES(after.begin() + 32, after.begin() + 43), CImageBuilder::Bytes("X          "));
  std::copy(bytes.begin() + 32, bytes.begin() + 64, after.begin() + 32);
  EXPECT_EQ(after, bytes);
}

TEST_F(FatFileSystem, CreatedBelowARegularFileWithoutADeletedSlot_FailsAtItsEnd) {
  m_Builder.AddFile(ROOT, "F", BYTES(96, 'A'));
  MountBuilt();
  EXPECT_EQ(CreateStatus("F\\X"), STATUS_END_OF_FILE);
  EXPECT_EQ(Problems(), "");
  EXPECT_EQ(Content("F"), BYTES(96, 'A'));
}

TEST_F(FatFileSystem, LargeFileOpened_TakesLittleMemoryAndReadsEachBlockOnce) {
  FAT_GEOMETRY geometry = Geometry(16);
  geometry.SectorsPerCluster = 8;
  CImageBuilder builder(geometry);
  constexpr unsigned int BLOCK = 0x40000;
  builder.AddFile(ROOT, "BIG", BYTES(32 * BLOCK, 'A'));  // every slot reads as the same plain entry
  MountImage(builder.Image());
  Memory().ResetPeak();
  const std::size_t before = Memory().OutstandingBytes();
  const int file = Fat_OpenFile(CPath("BIG"));
  ASSERT_NE(file, NO_HANDLE);
  EXPECT_LT(Memory().PeakBytes() - before, 3u << 20);
  ASSERT_EQ(Medium().Reads(), 32u) << Medium().TraceText();
  for (unsigned int i = 0; i < 32; ++i) {
    EXPECT_EQ(Medium().Trace()[i].Offset, static_cast<long long>(builder.ClusterOffset(2) + i * BLOCK));
    EXPECT_EQ(Medium().Trace()[i].Length, BLOCK);
  }
  // Only now the slots are looked at. What is found there starts at no cluster of the volume.
  EXPECT_EQ(OpenStatus("BIG\\AAAAAAAA.AAA"), STATUS_FILE_CORRUPT);
  EXPECT_EQ(OpenStatus("BIG\\NOTHING"), STATUS_NOT_FOUND);
  EXPECT_EQ(Fat_CloseFile(file), 1u);
}

TEST_F(FatFileSystem, LargeFileWithAZeroFirstByteOfASlot_IsReadUpToThatBlock) {
  FAT_GEOMETRY geometry = Geometry(16);
  geometry.SectorsPerCluster = 8;
  CImageBuilder builder(geometry);
  constexpr unsigned int BLOCK = 0x40000;
  BYTES bytes(6 * BLOCK, 'A');
  bytes[BLOCK + 1] = 0;  // no first byte of a slot
  bytes[3 * BLOCK + 32] = 0;
  builder.AddFile(ROOT, "BIG", bytes);
  MountImage(builder.Image());
  EXPECT_TRUE(Exists("BIG"));
  EXPECT_EQ(Medium().Reads(), 4u) << Medium().TraceText();
  EXPECT_EQ(ReadPath("BIG"), bytes);
}

// ---------------------------------------------------------------------------------------------- deep moves

/// Two chains of directories so long that walking down both puts more objects into the cache than it holds.
class DeepMove : public FatFileSystemOfWidth {
 protected:
  static constexpr int DEPTH = 90;
  static std::string Chain(const std::string& name, int depth = DEPTH) {
    return Join(std::vector<std::string>(static_cast<std::size_t>(depth), name));
  }
  CImageBuilder::DIRECTORY AddChain(const std::string& name) {
    CImageBuilder::DIRECTORY dir = ROOT;
    for (int i = 0; i < DEPTH; ++i) dir = m_Builder.AddDir(dir, name);
    return dir;
  }
  void SetUp() override {
    FatFileSystemOfWidth::SetUp();
    AddFillers();
    const CImageBuilder::DIRECTORY target = AddChain("D");
    while (m_Builder.NextSlot(target) < 16) {  // full: the next entry makes it grow
      m_Builder.AddFile(target, "S" + std::to_string(m_Builder.NextSlot(target)));
    }
    const CImageBuilder::DIRECTORY source = AddChain("S");
    m_Builder.AddFile(source, "FILE", CImageBuilder::Pattern(700, 1));
    const CImageBuilder::DIRECTORY moved = m_Builder.AddDir(source, "DIR");
    m_Builder.AddFile(moved, "IN", CImageBuilder::Pattern(300, 2));
    MountBuilt();
  }
  /// Leaves the deepest directory cached, and none of its parents.
  void CacheOnly(const std::string& path) {
    ASSERT_TRUE(Exists(path));
    for (int i = 0; i < CACHED - 2; ++i) {
      ASSERT_TRUE(Exists(Filler(i)));
      ASSERT_NE(Cached(path), nullptr);
    }
    ASSERT_EQ(Count(), static_cast<unsigned int>(CACHED));
  }
};
INSTANTIATE_TEST_SUITE_P(Widths, DeepMove, ::testing::Values(12u, 16u, 32u),
                         [](const ::testing::TestParamInfo<unsigned int>& bits) {
                           return "Fat" + std::to_string(bits.param);
                         });

TEST_P(DeepMove, FileIntoAFullDirectoryWhoseParentsAreNotCached_ArrivesWhole) {
  CacheOnly(Chain("D"));
  ASSERT_EQ(m_pFs->MoveFile(CPath(Chain("S") + "\\FILE"), CPath(Chain("D"))), 0);
  EXPECT_EQ(Problems(), "");
  EXPECT_EQ(Content(Chain("D") + "\\FILE"), CImageBuilder::Pattern(700, 1));
  EXPECT_EQ(m_pReader->Find(Chain("S") + "\\FILE"), nullptr);
  EXPECT_EQ(Node(Chain("D")).Clusters.size(), 2u);
}

TEST_P(DeepMove, DirectoryIntoAFullDirectoryWhoseParentsAreNotCached_ArrivesWhole) {
  CacheOnly(Chain("D"));
  ASSERT_EQ(m_pFs->MoveFile(CPath(Chain("S") + "\\DIR"), CPath(Chain("D"))), 0);
  EXPECT_EQ(Problems(), "");
  EXPECT_EQ(Content(Chain("D") + "\\DIR\\IN"), CImageBuilder::Pattern(300, 2));
}

TEST_P(DeepMove, CachedDirectoryIntoAnUncachedFullOne_ArrivesWhole) {
  ASSERT_TRUE(Exists(Chain("S") + "\\DIR"));
  CacheOnly(Chain("S") + "\\DIR");
  ASSERT_EQ(m_pFs->MoveFile(CPath(Chain("S") + "\\DIR"), CPath(Chain("D"))), 0);
  EXPECT_EQ(Problems(), "");
  EXPECT_EQ(Content(Chain("D") + "\\DIR\\IN"), CImageBuilder::Pattern(300, 2));
}

TEST_P(DeepMove, NothingCached_ArrivesWholeAndLeavesNoReference) {
  ASSERT_EQ(m_pFs->MoveFile(CPath(Chain("S") + "\\FILE"), CPath(Chain("D"))), 0);
  CFatFile* target = Cached(Chain("D"));
  if (target != nullptr) {
    EXPECT_EQ(target->RefCount(), 1u);
  }
  EXPECT_EQ(m_pFs->Root()->RefCount(), 1u);
  EXPECT_EQ(Fat_DeleteFile(CPath(Chain("D") + "\\FILE")), 1u);
  EXPECT_EQ(Problems(), "");
}

TEST_P(DeepMove, FileOutOfTheDepthIntoTheRoot_ArrivesWhole) {
  CacheOnly(Chain("S"));
  ASSERT_EQ(m_pFs->MoveFile(CPath(Chain("S") + "\\FILE"), nullptr), 0);
  EXPECT_EQ(Problems(), "");
  EXPECT_EQ(Content("FILE"), CImageBuilder::Pattern(700, 1));
}

TEST_P(DeepMove, CreateDeleteAndRenameAtTheBottomWithParentsNotCached_Work) {
  const std::string bottom = Chain("D");
  CacheOnly(bottom);
  EXPECT_EQ(CreateStatus(bottom + "\\NEW", 100), 0);
  CacheOnly(bottom);
  EXPECT_EQ(m_pFs->RenameFile(CPath(bottom + "\\S2"), CPath("A longer name than before")), 0);
  CacheOnly(bottom);
  EXPECT_EQ(m_pFs->DeleteFile(CPath(bottom + "\\S3")), 0);
  CacheOnly(bottom);
  EXPECT_EQ(CreateStatus(bottom + "\\P\\Q\\R\\NEW", 100), 0);
  EXPECT_EQ(Problems(), "");
  EXPECT_EQ(Node(bottom + "\\NEW").Size, 100u);
  EXPECT_EQ(Node(bottom + "\\P\\Q\\R\\NEW").Size, 100u);
  EXPECT_NE(m_pReader->Find(bottom + "\\A longer name than before"), nullptr);
  EXPECT_EQ(m_pReader->Find(bottom + "\\S3"), nullptr);
}

TEST_F(FatFileSystem, DeepestPathThereIs_IsCreatedWalkedAndDeleted) {
  MountBuilt();
  const std::string dirs = Join(std::vector<std::string>(129, "A"));  // 257 units
  ASSERT_EQ(CreateDirStatus(dirs), 0);
  ASSERT_EQ(CreateStatus(dirs + "\\F", 10), 0);
  EXPECT_EQ(Count(), 130u);
  EXPECT_EQ(Key(Cached(dirs + "\\F")), dirs + "\\F");
  EXPECT_EQ(m_pFs->DeleteFile(CPath(dirs + "\\F")), 0);
  for (int depth = 129; depth > 0; --depth) {
    const std::string path = Join(std::vector<std::string>(static_cast<std::size_t>(depth), "A"));
    ASSERT_EQ(m_pFs->DeleteFile(CPath(path)), 0) << depth;
  }
  EXPECT_EQ(Count(), 0u);
  EXPECT_EQ(Problems(), "");
  EXPECT_TRUE(m_pReader->Tree().empty());
}

// ---------------------------------------------------------------------------------------------- damaged trees

/// Adds a directory entry that names any cluster.
void AddLink(CImageBuilder& builder, CImageBuilder::DIRECTORY parent, const std::string& name, std::uint32_t cluster,
             std::uint32_t size = 0) {
  builder.Append(parent, CImageBuilder::ShortEntry(CImageBuilder::ShortName(name), 0x10, cluster, size));
}

/// Everything that can be tried on a path.
void TryEverything(const std::string& path, const std::string& other) {
  const int file = Fat_OpenFile(CPath(path));
  if (file != NO_HANDLE) {
    BYTES bytes(600);
    unsigned int done = 0;
    (void)Fat_ReadFile(file, 600, bytes.data(), &done);
    WIN_FIND_DATA data{};
    EXPECT_EQ(Fat_GetFileAttribute(file, &data), 1u);
    (void)Fat_SetFileAttribute(file, &data);
    EXPECT_EQ(Fat_CloseFile(file), 1u);
  }
  WIN_FIND_DATA data{};
  const int search = Fat_FindFirstFile(CPath(path), &data);
  if (search != NO_HANDLE) {
    for (int i = 0; i < 200 && Fat_FindNextFile(search, &data) == 1; ++i) continue;
    EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  }
  const int created = Fat_CreateFile(CPath(path + "\\NEW"), 700, 0);
  if (created != NO_HANDLE) {
    EXPECT_EQ(Fat_CloseFile(created), 1u);
  }
  (void)Fat_CreateDir(CPath(path + "\\A new directory"), 0);
  (void)Fat_RenameFile(CPath(path), CPath("RENAMED"));
  (void)Fat_MoveFile(CPath(path), CPath(other));
  (void)Fat_MoveFile(CPath(other), CPath(path));
  (void)Fat_MoveFile(CPath(path), nullptr);
  (void)Fat_DeleteFile(CPath(path));
}

class DamagedTree : public FatFileSystemOfWidth {
 protected:
  void SetUp() override {
    FatFileSystemOfWidth::SetUp();
    m_Builder.AddFile(ROOT, "SAFE", CImageBuilder::Pattern(3000, 1));
  }
  /// The file that no damage touches is whole, before and after the unmount.
  void ExpectSafe() {
    EXPECT_EQ(ReadPath("SAFE"), CImageBuilder::Pattern(3000, 1));
    EXPECT_TRUE(Unmount(m_pFs));
    EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), 0u);
    const CVolumeReader reader(Medium().Image());
    ASSERT_NE(reader.Find("SAFE"), nullptr);
    EXPECT_EQ(reader.Content(*reader.Find("SAFE")), CImageBuilder::Pattern(3000, 1));
  }
};
INSTANTIATE_TEST_SUITE_P(Widths, DamagedTree, ::testing::Values(12u, 16u, 32u),
                         [](const ::testing::TestParamInfo<unsigned int>& bits) {
                           return "Fat" + std::to_string(bits.param);
                         });

TEST_P(DamagedTree, DirectoryThatContainsItself_IsWalkedAsDeepAsThePathGoes) {
  const CImageBuilder::DIRECTORY a = m_Builder.AddDir(ROOT, "A");
  AddLink(m_Builder, a, "A", m_Builder.DirectoryClusters(a)[0]);
  m_Builder.AddFile(a, "F", CImageBuilder::Pattern(50, 2));
  MountBuilt();
  const std::string deep = Join(std::vector<std::string>(129, "A"));
  EXPECT_EQ(ReadPath(deep + "\\F"), CImageBuilder::Pattern(50, 2));
  EXPECT_EQ(Count(), 130u);  // 129 objects of one directory, and the file
  EXPECT_EQ(Fat_DeleteFile(CPath("A")), 0u);
  EXPECT_EQ(Fat_DeleteFile(CPath("A\\A")), 0u);
  ExpectSafe();
}

TEST_P(DamagedTree, DirectoryThatContainsItself_SurvivesEverything) {
  const CImageBuilder::DIRECTORY a = m_Builder.AddDir(ROOT, "A");
  AddLink(m_Builder, a, "A", m_Builder.DirectoryClusters(a)[0]);
  MountBuilt();
  for (const char* path : {"A\\A\\A\\A", "A\\A", "A", "A\\A\\A"}) TryEverything(path, "A\\A\\A\\A\\A");
  for (int i = 0; i < 60; ++i) (void)CreateStatus("A\\A\\A\\N" + std::to_string(i), 100);
  for (int i = 0; i < 60; ++i) (void)Fat_DeleteFile(CPath("A\\A\\N" + std::to_string(i)));
  ExpectSafe();
}

TEST_P(DamagedTree, DirectoriesThatContainEachOther_SurviveEverything) {
  const CImageBuilder::DIRECTORY a = m_Builder.AddDir(ROOT, "A");
  const CImageBuilder::DIRECTORY b = m_Builder.AddDir(a, "B");
  AddLink(m_Builder, b, "A", m_Builder.DirectoryClusters(a)[0]);
  MountBuilt();
  EXPECT_EQ(OpenStatus("A\\B\\A\\B\\A\\B"), 0);
  EXPECT_EQ(m_pFs->DeleteFile(CPath("A\\B\\A")), STATUS_REFUSED);
  TryEverything("A\\B\\A", "A\\B\\A\\B");
  TryEverything("A\\B", "A\\B\\A\\B\\A");
  ExpectSafe();
}

TEST_P(DamagedTree, TwoDirectoriesOfOneCluster_SurviveEverything) {
  const CImageBuilder::DIRECTORY a = m_Builder.AddDir(ROOT, "A");
  m_Builder.AddFile(a, "F", CImageBuilder::Pattern(50, 2));
  AddLink(m_Builder, ROOT, "B", m_Builder.DirectoryClusters(a)[0]);
  MountBuilt();
  EXPECT_EQ(ReadPath("A\\F"), CImageBuilder::Pattern(50, 2));
  EXPECT_EQ(ReadPath("B\\F"), CImageBuilder::Pattern(50, 2));
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(CreateStatus("A\\N" + std::to_string(i)), 0);
    EXPECT_EQ(CreateStatus("B\\M" + std::to_string(i)), 0);
  }
  TryEverything("A\\F", "B");
  TryEverything("B\\F", "A");
  TryEverything("A", "B");
  ExpectSafe();
}

TEST_P(DamagedTree, DirectoryThatIsAlsoAFile_SurvivesEverything) {
  const CImageBuilder::DIRECTORY a = m_Builder.AddDir(ROOT, "A");
  m_Builder.Append(
      ROOT, CImageBuilder::ShortEntry(CImageBuilder::ShortName("F"), 0x20, m_Builder.DirectoryClusters(a)[0], 512));
  MountBuilt();
  const int file = Fat_OpenFile(CPath("F"));
  ASSERT_NE(file, NO_HANDLE);
  BYTES bytes(512, 0xFF);
  unsigned int done = 0;
  EXPECT_EQ(Fat_WriteFileEx(file, 0, 512, bytes.data(), &done), 1u);
  EXPECT_EQ(CreateStatus("A\\N"), 0);
  TryEverything("A\\N", "A");
  EXPECT_EQ(Fat_SetFileSize(file, 0), 1u);
  EXPECT_EQ(Fat_CloseFile(file), 1u);
  TryEverything("A", "F");
  ExpectSafe();
}

TEST_P(DamagedTree, DirectoryWithoutACluster_IsEmptyAndGrowsWhenUsed) {
  AddLink(m_Builder, ROOT, "Z", 0);
  MountBuilt();
  WIN_FIND_DATA data{};
  EXPECT_EQ(Fat_FindFirstFile(CPath("Z"), &data), NO_HANDLE);
  EXPECT_EQ(OpenStatus("Z\\X"), STATUS_NOT_FOUND);
  EXPECT_EQ(CreateStatus("Z\\X", 100), 0);
  EXPECT_EQ(OpenStatus("Z\\X"), 0);
  EXPECT_EQ(Fat_MoveFile(CPath("Z"), CPath("Z\\X")), 0u);
  ExpectSafe();
}

TEST_P(DamagedTree, DirectoryWithoutACluster_CanBeDeleted) {
  AddLink(m_Builder, ROOT, "Z", 0);
  MountBuilt();
  EXPECT_EQ(m_pFs->DeleteFile(CPath("Z")), 0);
  EXPECT_EQ(OpenStatus("Z"), STATUS_NOT_FOUND);
  ExpectSafe();
}

TEST_P(DamagedTree, DirectoryClustersThatAreNone_AreFileCorrupt) {
  const std::uint32_t count = m_Builder.Geometry().Clusters;
  // Outside the volume, but 0xFFFF on FAT32: there it is a free cluster.
  const std::vector<std::uint32_t> outside = {1, count + 2, 0xFFFF, 0x0FFFFFFF, 0xFFFFFFFE};
  for (std::size_t i = 0; i < outside.size(); ++i) AddLink(m_Builder, ROOT, "Z" + std::to_string(i), outside[i]);
  MountBuilt();
  for (std::size_t i = 0; i < outside.size(); ++i) {
    const std::string path = "Z" + std::to_string(i);
    EXPECT_EQ(OpenStatus(path), STATUS_FILE_CORRUPT) << outside[i];
    EXPECT_EQ(OpenStatus(path + "\\X"), STATUS_FILE_CORRUPT) << outside[i];
    EXPECT_EQ(CreateStatus(path + "\\X"), STATUS_FILE_CORRUPT) << outside[i];
    EXPECT_EQ(m_pFs->DeleteFile(CPath(path)), STATUS_FILE_CORRUPT) << outside[i];
  }
  EXPECT_EQ(Medium().Writes(), 0u);
  ExpectSafe();
}

TEST_P(DamagedTree, EntryWithTheMarkOfTheFixedRoot_HasItsSizeAsAllocationAndNoClusters) {
  AddLink(m_Builder, ROOT, "EMPTY", 0xFFFFFFFF, 0);
  AddLink(m_Builder, ROOT, "SIZED", 0xFFFFFFFF, 4096);
  AddLink(m_Builder, ROOT, "HUGE", 0xFFFFFFFF, 0xFFFFFFFF);
  m_Builder.Append(ROOT, CImageBuilder::ShortEntry(CImageBuilder::ShortName("FILE"), 0x20, 0xFFFFFFFF, 0xFFFFFFFF));
  MountBuilt();
  Memory().ResetPeak();
  const std::size_t before = Memory().OutstandingBytes();
  EXPECT_EQ(OpenStatus("EMPTY"), 0);
  EXPECT_EQ(OpenStatus("SIZED"), STATUS_FILE_CORRUPT);
  EXPECT_EQ(OpenStatus("HUGE"), STATUS_FILE_CORRUPT);
  EXPECT_EQ(Memory().PeakBytes() - before < 1u << 20, true);
  TryEverything("EMPTY", "SIZED");
  TryEverything("FILE", "EMPTY");
  TryEverything("SIZED", "HUGE");
  ExpectSafe();
}

TEST_P(DamagedTree, RandomCallsOnATangledTree_LibrarySurvives) {
  const CImageBuilder::DIRECTORY a = m_Builder.AddDir(ROOT, "A");
  const CImageBuilder::DIRECTORY b = m_Builder.AddDir(a, "B");
  const CImageBuilder::DIRECTORY c = m_Builder.AddDir(b, "C");
  AddLink(m_Builder, c, "A", m_Builder.DirectoryClusters(a)[0]);
  AddLink(m_Builder, a, "C", m_Builder.DirectoryClusters(c)[0]);
  AddLink(m_Builder, b, "B", m_Builder.DirectoryClusters(b)[0]);
  AddLink(m_Builder, c, "B", 0);
  m_Builder.AddFile(c, "F", CImageBuilder::Pattern(900, 3));
  MountBuilt();
  std::mt19937 random(20250101 + GetParam());
  const auto path = [&random] {
    std::vector<std::string> components(1 + random() % 6);
    for (std::string& component : components) component = std::string(1, "ABCF"[random() % 4]);
    return Join(components);
  };
  for (int step = 0; step < 1500; ++step) {
    const std::string one = path();
    const std::string two = path();
    switch (random() % 8) {
      case 0:
        (void)CreateStatus(one, static_cast<unsigned int>(random() % 3000));
        break;
      case 1:
        (void)CreateDirStatus(one);
        break;
      case 2:
        (void)Fat_DeleteFile(CPath(one));
        break;
      case 3:
        (void)Fat_RenameFile(CPath(one), CPath(two));
        break;
      case 4:
        (void)Fat_MoveFile(CPath(one), CPath(two));
        break;
      case 5:
        (void)List(one, true);
        break;
      case 6: {
        const int file = Fat_OpenFile(CPath(one));
        if (file == NO_HANDLE) break;
        (void)Fat_SetFileSize(file, static_cast<unsigned int>(random() % 3000));
        EXPECT_EQ(Fat_CloseFile(file), 1u);
        break;
      }
      default:
        (void)OpenStatus(one);
        break;
    }
  }
  EXPECT_TRUE(Unmount(m_pFs));
  EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), 0u);
}

TEST_F(FatFileSystem, RootClusterThatIsNone_MountsEmptyAndWhatIsMadeIsLost) {
  for (const std::uint32_t cluster : {0u, 0xFFFFFFFFu}) {
    CImageBuilder builder(Geometry(32));
    builder.AddFile(ROOT, "F", CImageBuilder::Pattern(100, 1));
    builder.Store().Set32(44, cluster);
    MountImage(builder.Image());
    EXPECT_FALSE(Exists("F"));
    EXPECT_TRUE(WritePath("NEW", CImageBuilder::Pattern(100, 2)));
    EXPECT_EQ(ReadPath("NEW"), CImageBuilder::Pattern(100, 2));
    EXPECT_TRUE(Unmount(m_pFs));
    MountImage(Medium().Image());
    EXPECT_FALSE(Exists("NEW"));
    EXPECT_TRUE(Unmount(m_pFs));
  }
}

}  // namespace
