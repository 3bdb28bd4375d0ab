/// @file NamespaceTest.cpp
/// Deleting, renaming and moving by path: cached and uncached objects, the refusals, what stays known under an old
/// path, and what is on the volume afterwards.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "directory/DirectoryFixture.h"
#include "filesystem/FatFileSystem.h"

namespace {

using NAMES = std::vector<std::string>;
using DIRECTORY = CImageBuilder::DIRECTORY;
/// Files with their content, directories without.
using TREE = std::map<std::string, std::unique_ptr<BYTES>>;

std::string WidthName(const ::testing::TestParamInfo<unsigned int>& test) { return "Fat" + std::to_string(test.param); }

class CNamespaceFixture : public CDirectoryFixture {
 protected:
  // ---- by status, as the interface asks for them
  int Delete(const std::string& path) { return Fs()->DeleteFile(CPath(path)); }
  int Rename(const std::string& path, const std::string& name) { return Fs()->RenameFile(CPath(path), CPath(name)); }
  int Move(const std::string& path, const std::string& directory) {
    return Fs()->MoveFile(CPath(path), CPath(directory));
  }
  int MoveToRoot(const std::string& path) { return Fs()->MoveFile(CPath(path), nullptr); }

  /// Opens and closes: afterwards the object is cached.
  void Cache(const std::string& path) { EXPECT_TRUE(Exists(path)) << path; }
  /// Opens and closes files of the root that MakeSpare put there, so that all that was cached before is evicted.
  void EvictObjects() {
    for (unsigned int i = 0; i < CFileCache::MAX_OBJECTS; ++i) Cache(SpareName(i));
  }
  static std::string SpareName(unsigned int i) { return "SPARE" + std::to_string(i); }
  static void MakeSpare(CImageBuilder& builder, DIRECTORY directory = CImageBuilder::Root()) {
    for (unsigned int i = 0; i < CFileCache::MAX_OBJECTS; ++i) builder.AddFile(directory, SpareName(i));
  }
  unsigned int CachedObjects() { return Fs()->FileCache()->Count(); }
  bool IsCached(const std::string& path) {
    PATH_HASH hash;
    return Fs()->FileCache()->Find(CPath(path), hash) != nullptr;
  }
  bool IsFat32() { return Fs()->IsFat32(); }

  /// A small volume: A\f, A\sub\deep, B (with "taken"), empty, F, "long name.txt".
  static std::unique_ptr<CImageBuilder> Populated(const FAT_GEOMETRY& geometry) {
    auto builder = std::make_unique<CImageBuilder>(geometry);
    const DIRECTORY a = builder->AddDir(CImageBuilder::Root(), "A");
    builder->AddFile(a, "FILE", Content(1));
    const DIRECTORY sub = builder->AddDir(a, "sub directory");
    builder->AddFile(sub, "deep file", Content(2));
    const DIRECTORY b = builder->AddDir(CImageBuilder::Root(), "B");
    builder->AddFile(b, "Taken", Content(3));
    builder->AddDir(CImageBuilder::Root(), "EMPTY");
    builder->AddFile(CImageBuilder::Root(), "F", Content(4));
    builder->AddFile(CImageBuilder::Root(), "long name.txt", Content(5));
    builder->AddFile(CImageBuilder::Root(), "TAKEN", Content(6));
    return builder;
  }
  static BYTES Content(unsigned int seed) { return CImageBuilder::Pattern(300 + 411 * seed, seed); }
  static TREE PopulatedTree() {
    TREE tree;
    for (const char* dir : {"A", "A\\sub directory", "B", "EMPTY"}) tree[dir] = nullptr;
    unsigned int seed = 0;
    for (const char* file : {"A\\FILE", "A\\sub directory\\deep file", "B\\Taken", "F", "long name.txt", "TAKEN"}) {
      tree[file] = std::make_unique<BYTES>(Content(++seed));
    }
    return tree;
  }

  /// The volume holds exactly this, and nothing is wrong with it.
  static void ExpectTree(CDiskImage& image, const TREE& tree) {
    const CVolumeReader reader(image);
    EXPECT_EQ(reader.ProblemText(), "");
    EXPECT_EQ(reader.LostClusters(), CLUSTERS{});
    NAMES expected;
    for (const auto& [path, content] : tree) expected.push_back(path);
    NAMES found;
    for (const auto& [path, node] : reader.Tree()) {
      found.push_back(path);
      const auto entry = tree.find(path);
      if (entry == tree.end()) continue;
      EXPECT_EQ(node.IsDir(), entry->second == nullptr) << path;
      if (entry->second != nullptr) {
        EXPECT_EQ(reader.Content(node), *entry->second) << path;
      }
    }
    EXPECT_EQ(found, expected);
  }

  /// A refusal: the status, no write, and after unmounting the volume as it was.
  void ExpectRefused(CImageBuilder& builder, int status, const std::function<int()>& operation) {
    Medium().ClearTrace();
    EXPECT_EQ(operation(), status);
    EXPECT_EQ(Medium().Writes(), 0u) << Medium().TraceText();
    ExpectUnchanged(builder);
  }
  void ExpectUnchanged(CImageBuilder& builder) {
    CDiskImage expected = builder.Image();
    if (IsFat32()) {  // its counters are set to unknown by every unmount, as the builder has made them
      EXPECT_EQ(expected.Get32(builder.FsInfoOffset() + 488), 0xFFFFFFFFu);
    }
    EXPECT_EQ(CDiskImage::Differences(UnmountBuilt(), expected), std::vector<std::uint64_t>{});
  }

  /// What fsck.fat says besides its own name, the summary line, and that the free count of FAT32 is not known.
  std::string FsckComplaints(const CDiskImage& image) {
    const std::string path = TempDir() / "checked";
    image.ToFile(path);
    const PROCESS_RESULT fsck = RunProcess({"fsck.fat", "-n", path});
    std::string complaints;
    std::size_t lines = 0;
    for (std::size_t at = 0; at < fsck.Output.size();) {
      const std::size_t end = std::min(fsck.Output.find('\n', at), fsck.Output.size());
      const std::string line = fsck.Output.substr(at, end - at);
      at = end + 1;
      ++lines;
      const bool known = line.rfind("fsck.fat ", 0) == 0 || line.rfind(path + ": ", 0) == 0 ||
                         line.rfind("Free cluster summary uninitialized", 0) == 0;
      if (!known) complaints += line + "\n";
    }
    EXPECT_GE(lines, 2u) << fsck.Output << fsck.ExitCode;
    return complaints;
  }
};

class Namespace : public CNamespaceFixture {};

/// On each FAT width, with the objects cached and with nothing cached.
struct WAY {
  unsigned int Bits;
  bool Cached;
};
void PrintTo(const WAY& way, std::ostream* out) { *out << way.Bits << (way.Cached ? " cached" : " uncached"); }

class NamespaceWays : public CNamespaceFixture, public ::testing::WithParamInterface<WAY> {
 protected:
  /// Mounts, and caches what is given when that is the way.
  void MountWith(CImageBuilder& builder, const NAMES& paths) {
    MountBuilt(builder);
    if (!GetParam().Cached) return;
    for (const std::string& path : paths) Cache(path);
  }
  /// The populated volume, wide enough for fsck.fat to take it for what it is.
  static FAT_GEOMETRY Geometry() {
    FAT_GEOMETRY geometry;
    geometry.FatBits = GetParam().Bits;
    geometry.Clusters = GetParam().Bits == 32 ? 70000 : GetParam().Bits == 16 ? 5000 : 1000;
    return geometry;
  }
  std::unique_ptr<CImageBuilder> MountPopulated(const NAMES& paths) {
    auto builder = Populated(Geometry());
    MountWith(*builder, paths);
    return builder;
  }
  void ExpectCleanTree(const TREE& tree) {
    CDiskImage& image = UnmountBuilt();
    ExpectTree(image, tree);
    EXPECT_EQ(FsckComplaints(image), "");
  }
};
INSTANTIATE_TEST_SUITE_P(Ways, NamespaceWays,
                         ::testing::Values(WAY{12, true}, WAY{12, false}, WAY{16, true}, WAY{16, false}, WAY{32, true},
                                           WAY{32, false}),
                         [](const auto& test) {
                           return "Fat" + std::to_string(test.param.Bits) + (test.param.Cached ? "Cached" : "Uncached");
                         });

class NamespaceWidths : public CNamespaceFixture, public ::testing::WithParamInterface<unsigned int> {};
INSTANTIATE_TEST_SUITE_P(Widths, NamespaceWidths, ::testing::Values(12u, 16u, 32u), WidthName);

/// The start cluster in the ".." entry of a directory on the medium.
std::uint32_t DotDotOf(const CDiskImage& image, const CImageBuilder& builder, std::uint32_t firstCluster) {
  const std::uint64_t at = builder.ClusterOffset(firstCluster) + 32;
  return image.Get16(at + 26) | static_cast<std::uint32_t>(image.Get16(at + 20)) << 16;
}

}  // namespace

// ------------------------------------------------------------------------------------------------ deleting

TEST_P(NamespaceWays, DeleteFilesAndEmptyDirectories_TheyAreGoneAndTheVolumeIsClean) {
  const auto builder =
      MountPopulated({"F", "long name.txt", "EMPTY", "A\\sub directory\\deep file", "A\\sub directory"});
  const unsigned int free = Fs()->Bitmap().FreeClusters();
  EXPECT_EQ(Delete("f"), STATUS_SUCCESS);
  EXPECT_EQ(Delete("Long Name.TXT"), STATUS_SUCCESS);
  EXPECT_EQ(Delete("EMPTY"), STATUS_SUCCESS);
  EXPECT_EQ(Delete("A\\sub directory\\deep file"), STATUS_SUCCESS);
  EXPECT_EQ(Delete("A\\sub directory"), STATUS_SUCCESS);
  for (const char* path : {"F", "long name.txt", "EMPTY", "A\\sub directory"}) {
    EXPECT_FALSE(Exists(path)) << path;
    EXPECT_EQ(Delete(path), STATUS_NOT_FOUND) << path;
  }
  // 1944, 2355 and 1122 bytes, and two directories.
  EXPECT_EQ(Fs()->Bitmap().FreeClusters(), free + 4 + 5 + 3 + 2);
  TREE tree = PopulatedTree();
  for (const char* path : {"F", "long name.txt", "EMPTY", "A\\sub directory\\deep file", "A\\sub directory"}) {
    tree.erase(path);
  }
  ExpectCleanTree(tree);
}

TEST_P(NamespaceWays, DeletedNames_CanBeCreatedAgain) {
  const auto builder = MountPopulated({"F", "EMPTY"});
  EXPECT_EQ(Delete("F"), STATUS_SUCCESS);
  EXPECT_EQ(Delete("EMPTY"), STATUS_SUCCESS);
  EXPECT_TRUE(WritePath("EMPTY", Content(20)));
  EXPECT_EQ(Fat_CreateDir(CPath("F"), 0), 1u);
  EXPECT_TRUE(WritePath("F\\inside the directory", Content(21)));
  TREE tree = PopulatedTree();
  tree["EMPTY"] = std::make_unique<BYTES>(Content(20));
  tree["F"] = nullptr;
  tree["F\\inside the directory"] = std::make_unique<BYTES>(Content(21));
  ExpectCleanTree(tree);
}

TEST_P(NamespaceWays, DeleteNonEmptyDirectory_IsRefused) {
  const auto builder = MountPopulated({"A", "B"});
  ExpectRefused(*builder, STATUS_REFUSED, [this] {
    EXPECT_EQ(Delete("A"), STATUS_REFUSED);
    EXPECT_EQ(Fat_DeleteFile(CPath("A")), 0u);
    return Delete("B");
  });
}

TEST_P(NamespaceWays, DeleteWhatIsNotThere_IsNotFound) {
  const auto builder = MountPopulated({"A", "F"});
  ExpectRefused(*builder, STATUS_NOT_FOUND, [this] {
    EXPECT_EQ(Delete("NONE"), STATUS_NOT_FOUND);
    EXPECT_EQ(Delete("NONE\\F"), STATUS_NOT_FOUND);
    EXPECT_EQ(Delete("F\\F"), STATUS_NOT_FOUND);
    return Delete("A\\NONE");
  });
}

TEST_P(NamespaceWidths, DeleteFileThatTheHostHoldsOpen_FailsUntilItIsClosed) {
  const auto builder = Populated(Small(GetParam()));
  MountBuilt(*builder);
  const int handle = Fat_OpenFile(CPath("F"));
  ASSERT_GE(handle, 0);
  Medium().ClearTrace();
  EXPECT_EQ(Delete("F"), STATUS_REFUSED);
  EXPECT_EQ(Fat_DeleteFile(CPath("F")), 0u);
  EXPECT_EQ(Medium().Writes(), 0u);
  EXPECT_EQ(ReadAll(handle), Content(4));
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  EXPECT_EQ(Fat_DeleteFile(CPath("F")), 1u);
  TREE tree = PopulatedTree();
  tree.erase("F");
  ExpectTree(UnmountBuilt(), tree);
}

TEST_F(Namespace, DeleteDirectoryThatASearchStandsIn_IsRefused) {
  const auto builder = Populated(Small(16));
  MountBuilt(*builder);
  WIN_FIND_DATA data{};
  const int search = Fat_FindFirstFile(CPath("EMPTY"), &data);
  ASSERT_GE(search, 0);
  EXPECT_EQ(Delete("EMPTY"), STATUS_REFUSED);
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  EXPECT_EQ(Delete("EMPTY"), STATUS_SUCCESS);
}

TEST_F(Namespace, DeletedFileWithUnsavedData_IsGoneAndItsDataHarmsNothing) {
  const auto builder = Populated(Small(16));
  MountBuilt(*builder);
  ASSERT_TRUE(WritePath("NEW", Content(30)));
  EXPECT_EQ(Delete("NEW"), STATUS_SUCCESS);
  EXPECT_EQ(Fat_OpenFile(CPath("NEW")), -1);
  ExpectTree(UnmountBuilt(), PopulatedTree());
}

// The parent's block cannot be read: the entry cannot be marked, and yet the object is cached no longer.
TEST_P(NamespaceWidths, DeleteOfACachedObjectFails_ItLeavesTheCache) {
  const auto builder = Populated(Small(GetParam()));
  MountBuilt(*builder);
  Cache("A\\FILE");
  EvictAllBlocks();
  const unsigned int cached = CachedObjects();
  Medium().FailAt(1, FAULT_ONCE);
  EXPECT_EQ(Delete("A\\FILE"), STATUS_IO_ERROR);
  EXPECT_EQ(CachedObjects(), cached - 1);
  EXPECT_FALSE(IsCached("A\\FILE"));
  EXPECT_EQ(ReadPath("A\\FILE"), Content(1));
  ExpectUnchanged(*builder);
}

TEST_P(NamespaceWidths, DeleteOfAnUncachedObjectFails_NothingIsChanged) {
  const auto builder = Populated(Small(GetParam()));
  const CVolumeReader volume(builder->Image());
  MountBuilt(*builder);
  Cache("A");
  for (const auto& [path, status] :
       std::map<std::string, int>{{"A", STATUS_IO_ERROR}, {"A\\FILE", STATUS_FILE_CORRUPT}}) {
    EvictAllBlocks();
    Medium().FailRange(static_cast<long long>(builder->ClusterOffset(volume.Find(path)->FirstCluster)), 512);
    EXPECT_EQ(Delete("A\\FILE"), status) << "not readable: " << path;
    EXPECT_TRUE(Medium().Fired());
    Medium().Heal();
  }
  EXPECT_EQ(ReadPath("A\\FILE"), Content(1));
  ExpectUnchanged(*builder);
}

// ------------------------------------------------------------------------------------------------ renaming

TEST_P(NamespaceWays, RenameFilesAndDirectories_NewNamesHoldTheSameContent) {
  const auto builder = MountPopulated({"F", "long name.txt", "A\\FILE", "EMPTY", "A\\sub directory\\deep file"});
  EXPECT_EQ(Rename("F", "a longer name than before"), STATUS_SUCCESS);
  EXPECT_EQ(Rename("long name.txt", "SHORT.TXT"), STATUS_SUCCESS);
  EXPECT_EQ(Rename("A\\FILE", "FILE2"), STATUS_SUCCESS);
  EXPECT_EQ(Rename("EMPTY", "still empty"), STATUS_SUCCESS);
  EXPECT_EQ(Rename("A\\sub directory\\deep file", "DEEP"), STATUS_SUCCESS);
  TREE tree = PopulatedTree();
  tree["a longer name than before"] = std::move(tree["F"]);
  tree["SHORT.TXT"] = std::move(tree["long name.txt"]);
  tree["A\\FILE2"] = std::move(tree["A\\FILE"]);
  tree["still empty"] = nullptr;
  tree["A\\sub directory\\DEEP"] = std::move(tree["A\\sub directory\\deep file"]);
  for (const char* path : {"F", "long name.txt", "A\\FILE", "EMPTY", "A\\sub directory\\deep file"}) tree.erase(path);
  ExpectCleanTree(tree);
}

TEST_P(NamespaceWays, RenameDirectoryWithEntries_TheyAreFoundUnderItsNewName) {
  const auto builder = MountPopulated({"A"});
  EXPECT_EQ(Rename("A", "another name for it"), STATUS_SUCCESS);
  CDiskImage& image = UnmountBuilt();
  TREE tree = PopulatedTree();
  tree["another name for it"] = nullptr;
  tree["another name for it\\sub directory"] = nullptr;
  tree["another name for it\\FILE"] = std::move(tree["A\\FILE"]);
  tree["another name for it\\sub directory\\deep file"] = std::move(tree["A\\sub directory\\deep file"]);
  for (const char* path : {"A", "A\\FILE", "A\\sub directory", "A\\sub directory\\deep file"}) tree.erase(path);
  ExpectTree(image, tree);
  EXPECT_EQ(FsckComplaints(image), "");
}

TEST_P(NamespaceWays, RenameToANameThatExists_IsRefusedInAnyCase) {
  const auto builder = MountPopulated({"F", "A", "long name.txt"});
  ExpectRefused(*builder, STATUS_NAME_EXISTS, [this] {
    EXPECT_EQ(Rename("F", "taken"), STATUS_NAME_EXISTS);
    EXPECT_EQ(Rename("F", "LONG NAME.TXT"), STATUS_NAME_EXISTS);
    EXPECT_EQ(Rename("A", "b"), STATUS_NAME_EXISTS);
    EXPECT_EQ(Rename("A", "EMPTY"), STATUS_NAME_EXISTS);
    return Rename("long name.txt", "f");
  });
}

TEST_P(NamespaceWays, RenameThatChangesTheCaseOnly_IsRefused) {
  const auto builder = MountPopulated({"F", "long name.txt"});
  ExpectRefused(*builder, STATUS_NAME_EXISTS, [this] {
    EXPECT_EQ(Rename("f", "F"), STATUS_NAME_EXISTS);
    EXPECT_EQ(Rename("F", "f"), STATUS_NAME_EXISTS);
    EXPECT_EQ(Rename("F", "F"), STATUS_NAME_EXISTS);
    return Rename("long name.txt", "Long Name.txt");
  });
}

TEST_P(NamespaceWays, RenameWhatIsNotThere_IsNotFound) {
  const auto builder = MountPopulated({"A"});
  ExpectRefused(*builder, STATUS_NOT_FOUND, [this] {
    EXPECT_EQ(Rename("NONE", "X"), STATUS_NOT_FOUND);
    EXPECT_EQ(Rename("NONE\\F", "X"), STATUS_NOT_FOUND);
    return Rename("A\\NONE", "FILE");
  });
}

TEST_P(NamespaceWidths, RenameOpenFile_StaysReachableUnderItsOldPath) {
  const auto builder = Populated(Small(GetParam()));
  MountBuilt(*builder);
  const int handle = Fat_OpenFile(CPath("F"));
  ASSERT_GE(handle, 0);
  const CFatFile* object = Open("F");
  EXPECT_EQ(Fat_RenameFile(CPath("F"), CPath("NEWNAME")), 1u);
  EXPECT_EQ(Open("F"), object);
  EXPECT_TRUE(IsCached("F"));
  EXPECT_FALSE(IsCached("NEWNAME"));
  EXPECT_EQ(ReadAll(handle), Content(4));
  const CFatFile* second = Open("NEWNAME");
  ASSERT_NE(second, nullptr);
  EXPECT_NE(second, object) << "under its new path a second object is built";
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  Release();
  TREE tree = PopulatedTree();
  tree["NEWNAME"] = std::move(tree["F"]);
  tree.erase("F");
  ExpectTree(UnmountBuilt(), tree);
}

TEST_F(Namespace, RenamedCachedFileWithUnsavedData_ReadsOldBytesUnderItsNewPathUntilTheNextMount) {
  const auto builder = Populated(Small(16));
  MountBuilt(*builder);
  const int handle = Fat_OpenFile(CPath("F"));
  BYTES bytes = Content(50);
  bytes.resize(Content(4).size());
  unsigned int done = 0;
  ASSERT_EQ(Fat_WriteFileEx(handle, 0, static_cast<unsigned int>(bytes.size()), bytes.data(), &done), 1u);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  ASSERT_EQ(Rename("F", "FINAL"), STATUS_SUCCESS);
  EXPECT_EQ(ReadPath("FINAL"), Content(4)) << "the written bytes wait in the object of the old path";
  EXPECT_EQ(ReadPath("F"), bytes);
  MountImage(UnmountBuilt());
  EXPECT_EQ(ReadPath("FINAL"), bytes);
}

TEST_F(Namespace, OldNameOfARenamedCachedFile_CannotBeCreatedWhileItIsCached) {
  auto builder = std::make_unique<CImageBuilder>(Small(16));
  builder->AddFile(CImageBuilder::Root(), "F", Content(4));
  MakeSpare(*builder);
  MountBuilt(*builder);
  Cache("F");
  ASSERT_EQ(Rename("F", "G"), STATUS_SUCCESS);
  EXPECT_EQ(Fat_CreateFile(CPath("F"), 0, 0), -1);
  EvictObjects();
  EXPECT_TRUE(WritePath("F", Content(9)));
  EXPECT_EQ(ReadPath("G"), Content(4));
}

TEST_F(Namespace, RenamedUncachedFile_IsNotKnownUnderItsOldPath) {
  const auto builder = Populated(Small(16));
  MountBuilt(*builder);
  ASSERT_EQ(Rename("A\\FILE", "RENAMED"), STATUS_SUCCESS);
  EXPECT_FALSE(Exists("A\\FILE"));
  EXPECT_EQ(ReadPath("A\\RENAMED"), Content(1));
  EXPECT_EQ(CachedObjects(), 2u) << "A and the file";
}

TEST_F(Namespace, RenamedCachedObject_IsTheLastOneToBeEvicted) {
  auto builder = std::make_unique<CImageBuilder>(Small(16));
  builder->AddFile(CImageBuilder::Root(), "F");
  MakeSpare(*builder);
  MountBuilt(*builder);
  Cache("F");
  for (unsigned int i = 0; i < CFileCache::MAX_OBJECTS - 1; ++i) Cache(SpareName(i));
  ASSERT_EQ(Rename("F", "G"), STATUS_SUCCESS);
  Cache(SpareName(CFileCache::MAX_OBJECTS - 1));
  EXPECT_FALSE(IsCached(SpareName(0)));
  EXPECT_TRUE(IsCached("F"));
}

// Its parent was opened on the way, but the object comes after it.
TEST_F(Namespace, RenamedCachedObjectInADirectory_IsNewerThanItsParent) {
  auto builder = std::make_unique<CImageBuilder>(Small(16));
  builder->AddFile(builder->AddDir(CImageBuilder::Root(), "D"), "F");
  MakeSpare(*builder);
  MountBuilt(*builder);
  Cache("D\\F");
  constexpr unsigned int OTHERS = CFileCache::MAX_OBJECTS - 2;
  for (unsigned int i = 0; i < OTHERS; ++i) Cache(SpareName(i));
  ASSERT_EQ(Rename("D\\F", "G"), STATUS_SUCCESS);
  // One more than the others: the last one takes the place of the older of the two.
  for (unsigned int i = 0; i <= OTHERS; ++i) Cache(SpareName((OTHERS + i) % CFileCache::MAX_OBJECTS));
  EXPECT_FALSE(IsCached("D"));
  EXPECT_TRUE(IsCached("D\\F"));
}

TEST_F(Namespace, ManyRenamesOfOneUncachedFile_LeaveOneEntry) {
  auto builder = Populated(Small(12));
  MountBuilt(*builder);
  std::string name = "FILE";
  for (unsigned int i = 0; i < 60; ++i) {
    const std::string next = i % 3 == 0 ? "N" + std::to_string(i) : "a name that grows " + std::string(i, 'x') + "y";
    ASSERT_EQ(Rename("A\\" + name, next), STATUS_SUCCESS) << i;
    name = next;
  }
  TREE tree = PopulatedTree();
  tree["A\\" + name] = std::move(tree["A\\FILE"]);
  tree.erase("A\\FILE");
  ExpectTree(UnmountBuilt(), tree);
}

TEST_F(Namespace, RenameThatMakesAPathTooLong_IsOutOfReachUntilTheParentHasAShorterName) {
  auto builder = std::make_unique<CImageBuilder>(Small(16));
  const std::string dir(130, 'd');
  builder->AddFile(builder->AddDir(CImageBuilder::Root(), dir), "F", Content(4));
  MountBuilt(*builder);
  const std::string name(200, 'n');
  ASSERT_EQ(Fat_RenameFile(CPath(dir + "\\F"), CPath(name)), 1u);
  EXPECT_FALSE(Exists(dir + "\\" + name));
  EXPECT_EQ(Fat_DeleteFile(CPath(dir + "\\" + name)), 0u);
  MountImage(UnmountBuilt());
  ASSERT_EQ(Fat_RenameFile(CPath(dir), CPath("D")), 1u);
  EXPECT_EQ(ReadPath("D\\" + name), Content(4));
}

TEST_P(NamespaceWidths, RenameWhoseParentCannotBeRead_FailsWithTheStatusOfTheTransfer) {
  const auto builder = Populated(Small(GetParam()));
  for (const bool cached : {true, false}) {
    MountBuilt(*builder);
    if (cached) Cache("A\\FILE");
    Cache("A");
    EvictAllBlocks();
    Medium().FailAt(1, FAULT_ONCE);
    EXPECT_EQ(Rename("A\\FILE", "X"), STATUS_IO_ERROR);
    EXPECT_TRUE(Exists("A\\FILE"));
    EXPECT_FALSE(Exists("A\\X"));
    EXPECT_EQ(IsCached("A\\FILE"), true);
    ExpectUnchanged(*builder);
  }
}

// ------------------------------------------------------------------------------------------------ moving

TEST_P(NamespaceWays, MoveFilesBetweenDirectories_TheyAreFoundThereWithTheirContent) {
  const auto builder = MountPopulated({"F", "long name.txt", "A\\FILE", "A\\sub directory\\deep file", "B"});
  EXPECT_EQ(Move("F", "B"), STATUS_SUCCESS);
  EXPECT_EQ(Move("long name.txt", "A\\sub directory"), STATUS_SUCCESS);
  EXPECT_EQ(Move("A\\sub directory\\deep file", "EMPTY"), STATUS_SUCCESS);
  EXPECT_EQ(MoveToRoot("A\\FILE"), STATUS_SUCCESS);
  TREE tree = PopulatedTree();
  tree["B\\F"] = std::move(tree["F"]);
  tree["A\\sub directory\\long name.txt"] = std::move(tree["long name.txt"]);
  tree["EMPTY\\deep file"] = std::move(tree["A\\sub directory\\deep file"]);
  tree["FILE"] = std::move(tree["A\\FILE"]);
  for (const char* path : {"F", "long name.txt", "A\\sub directory\\deep file", "A\\FILE"}) tree.erase(path);
  ExpectCleanTree(tree);
}

TEST_P(NamespaceWays, MoveDirectory_ItsDotDotNamesTheNewParent) {
  const auto builder = MountPopulated({"A\\sub directory", "A\\sub directory\\deep file"});
  EXPECT_EQ(Move("A\\sub directory", "B"), STATUS_SUCCESS);
  CDiskImage& image = UnmountBuilt();
  TREE tree = PopulatedTree();
  tree["B\\sub directory"] = nullptr;
  tree["B\\sub directory\\deep file"] = std::move(tree["A\\sub directory\\deep file"]);
  tree.erase("A\\sub directory");
  tree.erase("A\\sub directory\\deep file");
  ExpectTree(image, tree);
  EXPECT_EQ(FsckComplaints(image), "");
  const CVolumeReader reader(image);
  EXPECT_EQ(DotDotOf(image, *builder, reader.Find("B\\sub directory")->FirstCluster), reader.Find("B")->FirstCluster);
}

// The root's own start cluster goes into ".."; a new directory would have 0 there, and readers complain.
TEST_P(NamespaceWays, MoveDirectoryIntoTheRoot_WritesTheRootsStartCluster) {
  const auto builder = MountPopulated({"A\\sub directory"});
  EXPECT_EQ(MoveToRoot("A\\sub directory"), STATUS_SUCCESS);
  ASSERT_EQ(Fat_CreateDir(CPath("B\\NEW"), 0), 1u);
  ASSERT_EQ(Fat_CreateDir(CPath("NEW"), 0), 1u);
  CDiskImage& image = UnmountBuilt();
  const CVolumeReader reader(image);
  EXPECT_EQ(DotDotOf(image, *builder, reader.Find("sub directory")->FirstCluster),
            GetParam().Bits == 32 ? builder->Geometry().RootCluster : 0xFFFFFFFF);
  EXPECT_EQ(DotDotOf(image, *builder, reader.Find("NEW")->FirstCluster), 0u);
  EXPECT_EQ(DotDotOf(image, *builder, reader.Find("B\\NEW")->FirstCluster), reader.Find("B")->FirstCluster);
  EXPECT_EQ(reader.ProblemText(), "sub directory: wrong \"..\"\n");
  EXPECT_NE(FsckComplaints(image), "");
}

TEST_P(NamespaceWays, MoveOntoANameThatExists_IsRefusedInAnyCase) {
  const auto builder = MountPopulated({"TAKEN", "B", "A"});
  ExpectRefused(*builder, STATUS_NAME_EXISTS, [this] {
    EXPECT_EQ(MoveToRoot("B\\Taken"), STATUS_NAME_EXISTS);
    return Move("taken", "b");
  });
}

TEST_P(NamespaceWays, MoveIntoAPathThatNamesAFile_IsRefused) {
  const auto builder = MountPopulated({"F", "TAKEN"});
  ExpectRefused(*builder, STATUS_REFUSED, [this] {
    EXPECT_EQ(Move("F", "TAKEN"), STATUS_REFUSED);
    EXPECT_EQ(Move("A", "F"), STATUS_REFUSED);
    return Move("F", "B\\Taken");
  });
}

TEST_P(NamespaceWays, MoveIntoADirectoryThatIsOpen_IsRefusedUntilItIsClosed) {
  const auto builder = MountPopulated({"F"});
  const int handle = Fat_OpenFile(CPath("B"));
  ASSERT_GE(handle, 0);
  Medium().ClearTrace();
  EXPECT_EQ(Move("F", "B"), STATUS_REFUSED);
  EXPECT_EQ(Medium().Writes(), 0u);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  EXPECT_EQ(Move("F", "B"), STATUS_SUCCESS);
}

TEST_P(NamespaceWays, MoveOfAnOpenObject_IsRefusedUntilItIsClosed) {
  const auto builder = MountPopulated({});
  for (const char* path : {"F", "A\\sub directory"}) {
    const int handle = Fat_OpenFile(CPath(path));
    ASSERT_GE(handle, 0);
    Medium().ClearTrace();
    EXPECT_EQ(Move(path, "B"), STATUS_REFUSED);
    EXPECT_EQ(Medium().Writes(), 0u);
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
    EXPECT_EQ(Move(path, "B"), STATUS_SUCCESS);
  }
}

TEST_P(NamespaceWays, MoveFromOrToWhatIsNotThere_IsNotFound) {
  const auto builder = MountPopulated({"A", "F"});
  ExpectRefused(*builder, STATUS_NOT_FOUND, [this] {
    EXPECT_EQ(Move("F", "NONE"), STATUS_NOT_FOUND);
    EXPECT_EQ(Move("F", "A\\NONE"), STATUS_NOT_FOUND);
    EXPECT_EQ(Move("NONE", "B"), STATUS_NOT_FOUND);
    return Move("A\\NONE", "B");
  });
}

TEST_F(Namespace, FailedMove_LeavesTheDestinationCached) {
  const auto builder = Populated(Small(16));
  MountBuilt(*builder);
  EXPECT_EQ(Move("NONE", "B"), STATUS_NOT_FOUND);
  EXPECT_TRUE(IsCached("B"));
  EXPECT_EQ(CachedObjects(), 1u);
  EXPECT_EQ(Delete("B\\Taken"), STATUS_SUCCESS);
  EXPECT_EQ(Delete("B"), STATUS_SUCCESS) << "and nobody holds it";
}

TEST_F(Namespace, MovedCachedFile_StaysCachedUnderItsOldPath) {
  const auto builder = Populated(Small(16));
  MountBuilt(*builder);
  Cache("F");
  const CFatFile* object = Open("F");
  Release();
  ASSERT_EQ(Move("F", "B"), STATUS_SUCCESS);
  EXPECT_EQ(Open("F"), object);
  EXPECT_NE(Open("B\\F"), object);
  EXPECT_EQ(Fat_CreateFile(CPath("F"), 0, 0), -1) << "its path is taken as long as it is cached";
}

TEST_P(NamespaceWays, MoveIntoAFullDirectory_GrowsIt) {
  auto builder = Populated(Geometry());
  const DIRECTORY full = builder->AddDir(builder->AddDir(CImageBuilder::Root(), "TOP"), "FULL");
  for (int i = 0; i < 14; ++i) builder->AddFile(full, "X" + std::to_string(i));
  MountWith(*builder, {"long name.txt", "A\\sub directory", "TOP\\FULL"});
  EXPECT_EQ(Move("long name.txt", "TOP\\FULL"), STATUS_SUCCESS);
  EXPECT_EQ(Move("A\\sub directory", "TOP\\FULL"), STATUS_SUCCESS);
  TREE tree = PopulatedTree();
  tree["TOP"] = nullptr;
  tree["TOP\\FULL"] = nullptr;
  for (int i = 0; i < 14; ++i) tree["TOP\\FULL\\X" + std::to_string(i)] = std::make_unique<BYTES>();
  tree["TOP\\FULL\\long name.txt"] = std::move(tree["long name.txt"]);
  tree["TOP\\FULL\\sub directory"] = nullptr;
  tree["TOP\\FULL\\sub directory\\deep file"] = std::move(tree["A\\sub directory\\deep file"]);
  for (const char* path : {"long name.txt", "A\\sub directory", "A\\sub directory\\deep file"}) tree.erase(path);
  ExpectCleanTree(tree);
}

// The target's block cannot be read: the entries stay where they are, and so does "..".
TEST_P(NamespaceWays, EntriesCannotBeMoved_DotDotIsLeftAlone) {
  const auto builder = Populated(Geometry());
  MountWith(*builder, {"A\\sub directory"});
  Cache("B");
  Cache("A");
  EvictAllBlocks();
  const CVolumeReader before(builder->Image());
  const std::uint32_t target = before.Find("B")->FirstCluster;
  const std::uint32_t moved = before.Find("A\\sub directory")->FirstCluster;
  Medium().ClearTrace();
  Medium().FailRange(static_cast<long long>(builder->ClusterOffset(target)), 512);
  EXPECT_EQ(Move("A\\sub directory", "B"), STATUS_IO_ERROR);
  EXPECT_TRUE(Medium().Fired());
  for (const IO_RECORD& record : Medium().Trace()) {
    EXPECT_FALSE(record.Touches(static_cast<long long>(builder->ClusterOffset(moved)), 512)) << record;
  }
  Medium().Heal();
  ExpectUnchanged(*builder);
}

TEST_P(NamespaceWays, DotDotCannotBeRewritten_EntriesStayMoved) {
  const auto builder = Populated(Geometry());
  MountWith(*builder, {"A\\sub directory"});
  Cache("B");
  Cache("A");
  EvictAllBlocks();
  const CVolumeReader before(builder->Image());
  const std::uint32_t moved = before.Find("A\\sub directory")->FirstCluster;
  Medium().FailRange(static_cast<long long>(builder->ClusterOffset(moved)), 512);
  EXPECT_EQ(Move("A\\sub directory", "B"), STATUS_IO_ERROR);
  EXPECT_TRUE(Medium().Fired());
  Medium().Heal();
  CDiskImage& image = UnmountBuilt();
  const CVolumeReader reader(image);
  EXPECT_NE(reader.Find("B\\sub directory"), nullptr);
  EXPECT_EQ(reader.Find("A\\sub directory"), nullptr);
  EXPECT_EQ(DotDotOf(image, *builder, moved), before.Find("A")->FirstCluster);
}

// Of a cached directory ".." is changed in its block, of an uncached one straight on the medium.
TEST_P(NamespaceWidths, DotDotOfACachedDirectory_IsWrittenWithItsBlock) {
  const auto builder = Populated(Small(GetParam()));
  const CVolumeReader before(builder->Image());
  const long long at = static_cast<long long>(builder->ClusterOffset(before.Find("A\\sub directory")->FirstCluster));
  for (const bool cached : {true, false}) {
    MountBuilt(*builder);
    if (cached) Cache("A\\sub directory");
    Cache("A");
    Cache("B");
    Medium().ClearTrace();
    EXPECT_EQ(Move("A\\sub directory", "B") < 0, false);
    unsigned int writes = 0;
    for (const IO_RECORD& record : Medium().WriteTrace()) {
      EXPECT_EQ(record, (IO_RECORD{IO_KIND::WriteBytes, at, 64, 0}));
      ++writes;
    }
    EXPECT_EQ(writes, cached ? 0u : 1u) << Medium().TraceText();
    (void)UnmountBuilt();
  }
}

TEST_P(NamespaceWidths, MoveOfADirectoryWithoutAClusterOfTheVolume_IsCorruptAndTheEntriesStayMoved) {
  auto builder = std::make_unique<CImageBuilder>(Small(GetParam()));
  builder->AddDir(CImageBuilder::Root(), "E");
  builder->AddDir(CImageBuilder::Root(), "D");
  MakeSpare(*builder);
  MountBuilt(*builder);
  const int handle = Fat_OpenFile(CPath("D"));
  ASSERT_GE(handle, 0);
  ASSERT_EQ(Fat_SetFileSize(handle, 0), 1u);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  EvictObjects();
  Medium().ClearTrace();
  EXPECT_EQ(Move("D", "E"), STATUS_DISK_CORRUPT);
  EXPECT_EQ(Medium().Writes(), 0u);
  EXPECT_EQ(Medium().OutOfRange(), 0u);
  EXPECT_EQ(Fat_MoveFile(CPath("E\\D"), nullptr), 0u);
  EXPECT_FALSE(Exists("E\\D"));
  EXPECT_TRUE(Exists("D"));
}

// A file whose chain is broken: what needs its object fails, what only moves its entries does not.
TEST_P(NamespaceWidths, ObjectCannotBeBuilt_DeleteAndRenameFailAndMoveSucceeds) {
  auto builder = Populated(Small(GetParam()));
  builder->AddFile(CImageBuilder::Root(), "BROKEN", Content(1), {100, 101});
  builder->SetFatEntry(101, 1);
  builder->AddDir(CImageBuilder::Root(), "BADDIR", {102, 103});
  builder->SetFatEntry(103, 0);
  MountBuilt(*builder);
  EXPECT_EQ(Delete("BROKEN"), STATUS_FILE_CORRUPT);
  EXPECT_EQ(Rename("BROKEN", "X"), STATUS_FILE_CORRUPT);
  EXPECT_EQ(Move("F", "BADDIR"), STATUS_FILE_CORRUPT);
  EXPECT_EQ(Rename("BADDIR\\X", "Y"), STATUS_FILE_CORRUPT);
  EXPECT_EQ(Medium().Writes(), 0u);
  EXPECT_EQ(Move("BROKEN", "EMPTY"), STATUS_SUCCESS);
  EXPECT_NE(Open("EMPTY")->LookupFile(CPath("BROKEN")), nullptr);
}

// To delete a directory one must know whether it is empty; a rename looks at the entry alone.
TEST_P(NamespaceWidths, UncachedObject_IsReadByADeletionAndNotByARename) {
  const auto builder = Populated(Small(GetParam()));
  MountBuilt(*builder);
  EvictAllBlocks();
  Medium().ClearTrace();
  const long long at = static_cast<long long>(
      builder->ClusterOffset(CVolumeReader(builder->Image()).Find("long name.txt")->FirstCluster));
  const auto touched = [this, at] {
    const std::vector<IO_RECORD>& trace = Medium().Trace();
    return std::any_of(trace.begin(), trace.end(), [at](const IO_RECORD& record) { return record.Touches(at, 512); });
  };
  EXPECT_EQ(Rename("long name.txt", "SHORT.TXT"), STATUS_SUCCESS);
  EXPECT_FALSE(touched()) << Medium().TraceText();
  EXPECT_EQ(Move("SHORT.TXT", "B"), STATUS_SUCCESS);
  EXPECT_FALSE(touched()) << Medium().TraceText();
  EXPECT_EQ(Delete("B\\SHORT.TXT"), STATUS_SUCCESS);
  EXPECT_TRUE(touched()) << Medium().TraceText();
}

// ------------------------------------------------------------------------------------------------ old paths

namespace {

// None of these may cost the volume its own reference on the root.
class NamespaceRoot : public CNamespaceFixture {
 protected:
  void SetUp() override {
    CNamespaceFixture::SetUp();
    m_pBuilder = Populated(Small(16));
    MountBuilt(*m_pBuilder);
    m_pRoot = Root();
  }
  void TearDown() override {
    EXPECT_EQ(Root(), m_pRoot);
    EXPECT_EQ(Root()->RefCount(), 1u);
    EXPECT_EQ(ReadPath("TAKEN"), Content(6));
    EXPECT_EQ(Fat_CreateFile(CPath("LAST"), 0, 0), 0);
    EXPECT_EQ(Fat_CloseFile(0), 1u);
    EXPECT_TRUE(Unmount(Fs()));
    CNamespaceFixture::TearDown();
  }
  /// Sets size and attribute through a handle whose path leads nowhere.
  static void ExpectNoEntry(int handle, unsigned int size) {
    EXPECT_EQ(Fat_SetFileSize(handle, size), 0u);
    WIN_FIND_DATA data{};
    ASSERT_EQ(Fat_GetFileAttribute(handle, &data), 1u);
    EXPECT_EQ(Fat_SetFileAttribute(handle, &data), 0u);
  }

  std::unique_ptr<CImageBuilder> m_pBuilder;
  CFatDir* m_pRoot = nullptr;
};

}  // namespace

TEST_F(NamespaceRoot, RenamedOpenFileIsSized_FailsAndTheRootStays) {
  const int handle = Fat_OpenFile(CPath("F"));
  ASSERT_GE(handle, 0);
  ASSERT_EQ(Rename("F", "G"), STATUS_SUCCESS);
  for (unsigned int size = 1; size < 4; ++size) ExpectNoEntry(handle, size);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
}

TEST_F(NamespaceRoot, RenamedCachedFileIsTouchedByItsOldName_FailsAndTheRootStays) {
  Cache("F");
  ASSERT_EQ(Rename("F", "G"), STATUS_SUCCESS);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Rename("F", "H"), STATUS_FILE_CORRUPT);
    EXPECT_EQ(Delete("F"), STATUS_FILE_CORRUPT);
    EXPECT_EQ(Move("F", "B"), STATUS_FILE_CORRUPT);
    EXPECT_TRUE(IsCached("F")) << "a failure before the deletion leaves it cached";
  }
}

TEST_F(NamespaceRoot, MovedFileIsOpenedByItsOldPathAndSized_FailsAndTheRootStays) {
  Cache("F");
  ASSERT_EQ(Move("F", "B"), STATUS_SUCCESS);
  const int handle = Fat_OpenFile(CPath("F"));
  ASSERT_GE(handle, 0);
  ExpectNoEntry(handle, 1);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
}

TEST_F(NamespaceRoot, RenamedCachedDirectoryGrowsThroughItsOldPath_FailsAndTheRootStays) {
  Cache("EMPTY");
  ASSERT_EQ(Rename("EMPTY", "OTHER"), STATUS_SUCCESS);
  unsigned int made = 0;
  for (int i = 0; i < 20; ++i) {
    const int handle = Fat_CreateFile(CPath("EMPTY\\F" + std::to_string(i)), 0, 0);
    if (handle < 0) continue;
    ++made;
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
  }
  EXPECT_GE(made, 14u) << "its one cluster has room";
  EXPECT_LT(made, 20u) << "its entry is not found when it must grow";
}

// It was not opened for the change, so it is not closed after it: who reads through it keeps reference and offset.
TEST_F(NamespaceRoot, CachedObjectsInTheRootAreChanged_TheRootIsNotClosed) {
  WIN_FIND_DATA data{};
  FIND_CTX* search = Fs()->FindFirstFile(nullptr, &data);
  ASSERT_NE(search, nullptr);
  BYTES entry(32);
  unsigned int done = 0;
  ASSERT_EQ(Root()->Read(32, entry.data(), &done), STATUS_SUCCESS);
  for (const char* path : {"F", "long name.txt", "EMPTY"}) Cache(path);
  EXPECT_EQ(Rename("F", "G"), STATUS_SUCCESS);
  EXPECT_EQ(Move("long name.txt", "B"), STATUS_SUCCESS);
  EXPECT_EQ(Delete("EMPTY"), STATUS_SUCCESS);
  EXPECT_EQ(Root()->RefCount(), 2u);
  EXPECT_EQ(Root()->Offset(), 32u);
  CFatFileSystem::CloseFindCtx(search);
}

TEST_F(NamespaceRoot, UnbalancedCloseOfTheRoot_DropsNoReference) {
  EXPECT_FALSE(Root()->Close());
  EXPECT_EQ(Root()->RefCount(), 1u);
}

TEST_F(NamespaceRoot, RootListedAndClosedOften_StaysHeldOnce) {
  for (int i = 0; i < 5; ++i) {
    WIN_FIND_DATA data{};
    FIND_CTX* search = Fs()->FindFirstFile(nullptr, &data);
    ASSERT_NE(search, nullptr);
    EXPECT_EQ(Root()->RefCount(), 2u);
    CFatFileSystem::CloseFindCtx(search);
  }
}

TEST_F(Namespace, SizeThroughTheOldPathAfterANewFileTookIt_GoesToTheNewFilesEntry) {
  auto builder = std::make_unique<CImageBuilder>(Small(16));
  builder->AddFile(CImageBuilder::Root(), "F", Content(4));
  MakeSpare(*builder);
  MountBuilt(*builder);
  const int old = Fat_OpenFile(CPath("F"));
  ASSERT_EQ(Rename("F", "G"), STATUS_SUCCESS);
  EvictObjects();  // the object lives by its handle, but its path is free again
  const int created = Fat_CreateFile(CPath("F"), 0, 0);
  ASSERT_GE(created, 0);
  EXPECT_EQ(Fat_SetFileSize(old, 5), 1u);
  EXPECT_EQ(Root()->LookupFile(CPath("F"))->ShortEntry.FileSize.Load(), 5u);
  EXPECT_EQ(Root()->LookupFile(CPath("G"))->ShortEntry.FileSize.Load(), Content(4).size());
  EXPECT_EQ(Fat_CloseFile(old), 1u);
  EXPECT_EQ(Fat_CloseFile(created), 1u);
}

// A renamed directory is reached by two paths, as two objects: moves between them come out somehow, and end.
TEST_F(Namespace, MovesThroughTheOldPathOfARenamedDirectory_AreSurvived) {
  const auto builder = Populated(Small(16));
  MountBuilt(*builder);
  Cache("A");
  ASSERT_EQ(Rename("A", "ALIAS"), STATUS_SUCCESS);
  EXPECT_EQ(Move("A\\FILE", "ALIAS"), STATUS_NAME_EXISTS) << "the second object has read the same entries";
  EXPECT_EQ(Fat_CreateDir(CPath("ALIAS\\sub directory\\inner"), 0), 1u);
  EXPECT_EQ(Fat_MoveFile(CPath("A\\sub directory"), CPath("ALIAS\\sub directory\\inner")), 1u)
      << "a directory inside itself";
  EXPECT_EQ(Fat_CreateFile(CPath("A\\X"), 0, 0), 0);
  EXPECT_EQ(Fat_CloseFile(0), 1u);
  EXPECT_EQ(Move("A\\X", "ALIAS"), STATUS_SUCCESS);
  EXPECT_TRUE(Exists("TAKEN"));
  EXPECT_TRUE(Unmount(Fs()));
}

// ------------------------------------------------------------------------------------------------ searches

namespace {

class NamespaceSearch : public CNamespaceFixture {
 protected:
  void SetUp() override {
    CNamespaceFixture::SetUp();
    CImageBuilder builder(Small(16));
    const DIRECTORY d = builder.AddDir(CImageBuilder::Root(), "D");
    for (const char* name : {"ONE", "TWO", "THREE", "FOUR"}) builder.AddFile(d, name);
    builder.AddDir(CImageBuilder::Root(), "E");
    MakeSpare(builder);
    MountBuilt(builder);
  }
  /// Starts a search in D and goes on to the entry with that name.
  int SearchUpTo(const std::string& name) {
    WIN_FIND_DATA data{};
    const int search = Fat_FindFirstFile(CPath("D"), &data);
    EXPECT_GE(search, 0);
    while (ToListed(data).ShortName != name) {
      if (Fat_FindNextFile(search, &data) != 1) {
        ADD_FAILURE() << "no " << name;
        break;
      }
    }
    return search;
  }
  static std::string Next(int search) {
    WIN_FIND_DATA data{};
    return Fat_FindNextFile(search, &data) == 1 ? ToListed(data).ShortName : "end";
  }
};

}  // namespace

TEST_F(NamespaceSearch, FileIsDeletedUnderASearch_ItGoesOnBehindItsPlace) {
  const int search = SearchUpTo("TWO");
  EXPECT_EQ(Delete("D\\TWO"), STATUS_SUCCESS);
  EXPECT_EQ(Next(search), "THREE");
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
}

TEST_F(NamespaceSearch, EveryFileIsDeletedAsItIsListed_AllAreGone) {
  WIN_FIND_DATA data{};
  const int search = Fat_FindFirstFile(CPath("D"), &data);
  unsigned int deleted = 0;
  do {
    if ((data.dwFileAttributes & ATTR_DIRECTORY) != 0) continue;
    EXPECT_EQ(Fat_DeleteFile(CPath("D\\" + ToListed(data).ShortName)), 1u);
    ++deleted;
  } while (Fat_FindNextFile(search, &data) == 1);
  EXPECT_EQ(deleted, 4u);
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  EXPECT_EQ(List("D").size(), 0u);
}

TEST_F(NamespaceSearch, FileIsRenamedUnderASearch_ItGoesOnBehindItsOldPlace) {
  const int search = SearchUpTo("TWO");
  const std::string alias = Invented("ANAMET", NextNumber());
  EXPECT_EQ(Rename("D\\TWO", "a name that lies behind all others"), STATUS_SUCCESS);
  EXPECT_EQ(Next(search), "THREE");
  EXPECT_EQ(Next(search), "FOUR");
  EXPECT_EQ(Next(search), alias.substr(0, 8));
  EXPECT_EQ(Next(search), "end");
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
}

TEST_F(NamespaceSearch, FileIsMovedUnderASearch_ItGoesOnBehindItsNewPlace) {
  const int search = SearchUpTo("THREE");
  EXPECT_EQ(Move("D\\THREE", "E"), STATUS_SUCCESS);  // into slot 2 there
  EXPECT_EQ(Next(search), "TWO");
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
}

TEST_F(NamespaceSearch, MovedRecordsDirectoryIsEvicted_TheSearchGoesOn) {
  const int search = SearchUpTo("THREE");
  EXPECT_EQ(Move("D\\THREE", "E"), STATUS_SUCCESS);
  EvictObjects();
  EXPECT_FALSE(IsCached("E"));
  EXPECT_EQ(Next(search), "TWO");
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
}

// The search holds an object of D that paths no longer lead to.
TEST_F(NamespaceSearch, DirectoryIsEvictedAndChangedUnderASearch_TheSearchShowsWhatItHasLoaded) {
  const int search = SearchUpTo("TWO");
  EvictObjects();
  EXPECT_FALSE(IsCached("D"));
  EXPECT_EQ(Delete("D\\FOUR"), STATUS_SUCCESS);
  EXPECT_EQ(Next(search), "THREE");
  EXPECT_EQ(Next(search), "FOUR");
  EXPECT_EQ(Next(search), "end");
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  EXPECT_EQ(List("D").size(), 3u);
}

TEST_F(NamespaceSearch, SearchIsClosedOnADeletedRecord_NothingIsLeft) {
  const int search = SearchUpTo("FOUR");
  EXPECT_EQ(Delete("D\\FOUR"), STATUS_SUCCESS);
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  EXPECT_EQ(List("D").size(), 3u);
}

// ------------------------------------------------------------------------------------------------ objects without
// entries

namespace {

class NamespaceNewFile : public CNamespaceFixture {
 protected:
  void SetUp() override {
    CNamespaceFixture::SetUp();
    MountEmpty(Small(16));
    EXPECT_TRUE(WritePath("G", {}));
    EXPECT_TRUE(WritePath("F", {}));  // cached, and without entries
  }
  void MakeItADirectory() {
    const int handle = Fat_OpenFile(CPath("F"));
    WIN_FIND_DATA data{};
    ASSERT_EQ(Fat_GetFileAttribute(handle, &data), 1u);
    data.dwFileAttributes |= ATTR_DIRECTORY;
    EXPECT_EQ(Fat_SetFileAttribute(handle, &data), 1u);
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
  }
};

}  // namespace

TEST_F(NamespaceNewFile, PathsBelowANewFile_AreNotFoundAndCannotBeMade) {
  EXPECT_FALSE(Exists("F\\X"));
  EXPECT_EQ(Delete("F\\X"), STATUS_NOT_FOUND);
  EXPECT_EQ(Rename("F\\X", "Y"), STATUS_NOT_FOUND);
  EXPECT_EQ(Move("F\\X", "G"), STATUS_REFUSED);
  EXPECT_EQ(MoveToRoot("F\\X"), STATUS_NOT_FOUND);
  EXPECT_EQ(Fat_CreateFile(CPath("F\\X"), 0, 0), -1);
  EXPECT_EQ(Fat_CreateDir(CPath("F\\X\\Y"), 0), 0u);
}

TEST_F(NamespaceNewFile, NewFileTurnedIntoADirectory_IsEmptyAndCanBeDeleted) {
  MakeItADirectory();
  WIN_FIND_DATA data{};
  EXPECT_EQ(Fat_FindFirstFile(CPath("F"), &data), -1);
  EXPECT_EQ(Delete("F"), STATUS_SUCCESS);
}

TEST_F(NamespaceNewFile, NewFileTurnedIntoADirectory_IsSizedWithoutEntries) {
  MakeItADirectory();
  const int handle = Fat_OpenFile(CPath("F"));
  EXPECT_EQ(Fat_SetFileSize(handle, 3000), 1u);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  EXPECT_EQ(Delete("F"), STATUS_SUCCESS);
}

TEST_F(NamespaceNewFile, MoveIntoANewFileTurnedIntoADirectory_HasNoRoom) {
  MakeItADirectory();
  EXPECT_EQ(Move("G", "F"), STATUS_DISK_FULL);
  EXPECT_TRUE(Exists("G"));
}

// ------------------------------------------------------------------------------------------------ evicted objects

TEST_F(Namespace, OpenFileEvictedFromTheCache_CanBeDeletedByPathAndItsHandleStaysUsable) {
  auto builder = std::make_unique<CImageBuilder>(Small(16));
  builder->AddFile(CImageBuilder::Root(), "F", Content(4));
  MakeSpare(*builder);
  MountBuilt(*builder);
  const int handle = Fat_OpenFile(CPath("F"));
  EvictObjects();
  EXPECT_FALSE(IsCached("F"));
  EXPECT_EQ(Delete("F"), STATUS_SUCCESS);
  EXPECT_EQ(ReadAll(handle), Content(4));
  EXPECT_EQ(Fat_SetFileSize(handle, 10), 0u) << "its entry is gone";
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
}

TEST_F(Namespace, OpenFileEvictedFromTheCache_FindsItsEntryByItsPath) {
  auto builder = std::make_unique<CImageBuilder>(Small(16));
  builder->AddFile(builder->AddDir(CImageBuilder::Root(), "DIR"), "long name", Content(4));
  MakeSpare(*builder);
  MountBuilt(*builder);
  const int handle = Fat_OpenFile(CPath("dir\\Long Name"));
  EvictObjects();
  EXPECT_EQ(Fat_SetFileSize(handle, 77), 1u);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  CDiskImage& image = UnmountBuilt();
  const CVolumeReader reader(image);
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_EQ(reader.Find("DIR\\long name")->Size, 77u);
}

TEST_F(Namespace, OpenFileEvictedFromTheCache_CanBeRenamedAndMovedAsASecondObject) {
  auto builder = std::make_unique<CImageBuilder>(Small(16));
  builder->AddFile(CImageBuilder::Root(), "F", Content(4));
  builder->AddDir(CImageBuilder::Root(), "D");
  MakeSpare(*builder);
  MountBuilt(*builder);
  const int handle = Fat_OpenFile(CPath("F"));
  EvictObjects();
  EXPECT_EQ(Move("F", "D"), STATUS_SUCCESS) << "nobody holds the path any more";
  EXPECT_EQ(Rename("D\\F", "G"), STATUS_SUCCESS);
  EXPECT_EQ(ReadAll(handle), Content(4));
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  EXPECT_EQ(ReadPath("D\\G"), Content(4));
}

namespace {

/// Two chains of directories, each 90 deep, names of one unit. The innermost of the second is full, that of the first
/// holds a file and a directory.
struct DEEP_VOLUME {
  static constexpr unsigned int DEPTH = 90;
  CImageBuilder Builder;
  std::string Source;
  std::string Target;

  explicit DEEP_VOLUME(const FAT_GEOMETRY& geometry) : Builder(geometry) {
    for (unsigned int i = 0; i < 160; ++i) Builder.AddFile(CImageBuilder::Root(), "SPARE" + std::to_string(i));
    DIRECTORY source = CImageBuilder::Root();
    DIRECTORY target = CImageBuilder::Root();
    for (unsigned int i = 0; i < DEPTH; ++i) {
      source = Builder.AddDir(source, "S");
      target = Builder.AddDir(target, "T");
      Source += i == 0 ? "S" : "\\S";
      Target += i == 0 ? "T" : "\\T";
    }
    Builder.AddFile(source, "FILE", CImageBuilder::Pattern(700, 3));
    Builder.AddFile(Builder.AddDir(source, "DIR"), "INSIDE", CImageBuilder::Pattern(900, 4));
    for (int i = 0; i < 14; ++i) Builder.AddFile(target, "FULL" + std::to_string(i));
  }
};

}  // namespace

// The destination is cached and its parents are not. Resolving the source and growing the destination together bring in
// more objects than the cache holds, so the destination is evicted while it is being changed.
TEST_P(NamespaceWidths, DestinationIsEvictedInTheMiddleOfAMove_MoveSucceeds) {
  DEEP_VOLUME volume(Small(GetParam()));
  MountBuilt(volume.Builder);
  Cache(volume.Target);
  for (unsigned int i = 0; i < CFileCache::MAX_OBJECTS - 1; ++i) {
    Cache(SpareName(i));
    Cache(volume.Target);
  }
  const std::string parent = volume.Target.substr(0, volume.Target.size() - 2);
  EXPECT_FALSE(IsCached(parent));
  EXPECT_EQ(Move(volume.Source + "\\FILE", volume.Target), STATUS_SUCCESS);
  EXPECT_EQ(Move(volume.Source + "\\DIR", volume.Target), STATUS_SUCCESS);
  EXPECT_EQ(ReadPath(volume.Target + "\\FILE"), CImageBuilder::Pattern(700, 3));
  CDiskImage& image = UnmountBuilt();
  const CVolumeReader reader(image);
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_EQ(reader.LostClusters(), CLUSTERS{});
  EXPECT_NE(reader.Find(volume.Target + "\\DIR\\INSIDE"), nullptr);
  EXPECT_EQ(reader.Find(volume.Source + "\\DIR"), nullptr);
  EXPECT_EQ(reader.Find(volume.Target)->Clusters.size(), 2u);
}

TEST_P(NamespaceWidths, DeepObjectsWithoutCachedParents_AreDeletedRenamedAndCreated) {
  DEEP_VOLUME volume(Small(GetParam()));
  MountBuilt(volume.Builder);
  const std::string file = volume.Source + "\\FILE";
  Cache(file);
  Cache(volume.Source + "\\DIR");
  for (unsigned int i = 0; i < CFileCache::MAX_OBJECTS - 2; ++i) {
    Cache(SpareName(i));
    Cache(file);
  }
  EXPECT_EQ(Rename(file, "a new name for the file"), STATUS_SUCCESS);
  EvictObjects();
  EXPECT_EQ(Delete(volume.Source + "\\A NEW NAME FOR THE FILE"), STATUS_SUCCESS);
  EXPECT_TRUE(WritePath(volume.Target + "\\and a new one", Content(3)));
  EvictObjects();
  EXPECT_EQ(Delete(volume.Source + "\\DIR\\INSIDE"), STATUS_SUCCESS);
  EXPECT_EQ(Delete(volume.Source + "\\DIR"), STATUS_SUCCESS);
  CDiskImage& image = UnmountBuilt();
  const CVolumeReader reader(image);
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_EQ(reader.LostClusters(), CLUSTERS{});
  ASSERT_NE(reader.Find(volume.Target + "\\and a new one"), nullptr);
  EXPECT_EQ(reader.Content(*reader.Find(volume.Target + "\\and a new one")), Content(3));
  EXPECT_EQ(reader.Find(volume.Source + "\\DIR"), nullptr);
}

// ------------------------------------------------------------------------------------------------ long sequences

// A working day: everything in turn, each phase after a new mount or on what the phase before has left cached.
TEST_P(NamespaceWays, OrdinarySequenceOfAllOperations_LeavesACleanVolume) {
  const auto builder = Populated(Geometry());
  MountBuilt(*builder);
  TREE tree = PopulatedTree();
  const auto phase = [this] {
    if (!GetParam().Cached) MountImage(UnmountBuilt());
  };
  const auto rename = [&tree](const std::string& from, const std::string& to) {
    tree[to] = std::move(tree[from]);
    tree.erase(from);
  };
  ASSERT_EQ(Fat_CreateDir(CPath("WORK\\in progress\\TODAY"), 0), 1u);
  for (const char* dir : {"WORK", "WORK\\in progress", "WORK\\in progress\\TODAY"}) tree[dir] = nullptr;
  for (unsigned int i = 0; i < 40; ++i) {
    const std::string path = "WORK\\in progress\\TODAY\\report number " + std::to_string(i) + ".txt";
    ASSERT_TRUE(WritePath(path, Content(i))) << i;
    tree[path] = std::make_unique<BYTES>(Content(i));
  }
  phase();
  for (unsigned int i = 0; i < 40; i += 4) {
    const std::string path = "WORK\\in progress\\TODAY\\report number " + std::to_string(i) + ".txt";
    ASSERT_EQ(Delete(path), STATUS_SUCCESS) << i;
    tree.erase(path);
  }
  phase();
  for (unsigned int i = 1; i < 40; i += 4) {
    const std::string path = "WORK\\in progress\\TODAY\\report number " + std::to_string(i) + ".txt";
    const std::string name =
        i % 8 == 1 ? "R" + std::to_string(i) : "a much longer name for report number " + std::to_string(i);
    ASSERT_EQ(Rename(path, name), STATUS_SUCCESS) << i;
    rename(path, "WORK\\in progress\\TODAY\\" + name);
  }
  phase();
  for (unsigned int i = 2; i < 40; i += 4) {
    const std::string name = "report number " + std::to_string(i) + ".txt";
    ASSERT_EQ(i % 8 == 2 ? Move("WORK\\in progress\\TODAY\\" + name, "EMPTY")
                         : MoveToRoot("WORK\\in progress\\TODAY\\" + name),
              STATUS_SUCCESS)
        << i;
    rename("WORK\\in progress\\TODAY\\" + name, (i % 8 == 2 ? "EMPTY\\" : "") + name);
  }
  phase();
  ASSERT_EQ(Move("A\\sub directory", "WORK\\in progress"), STATUS_SUCCESS);
  rename("A\\sub directory", "WORK\\in progress\\sub directory");
  rename("A\\sub directory\\deep file", "WORK\\in progress\\sub directory\\deep file");
  ExpectCleanTree(tree);
}
