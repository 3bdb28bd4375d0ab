/// @file HazardsTest.cpp
/// What hosts are warned of: ways to lose data that belong to how the library works. Each is shown as it is, so that it
/// cannot change unnoticed, and so is that the library itself comes through.

#include <algorithm>
#include <string>
#include <vector>

#include "directory/DirectoryFixture.h"

namespace {

using DIRECTORY = CImageBuilder::DIRECTORY;
constexpr unsigned int CLUSTER_BYTES = 512;
constexpr unsigned int CACHED_OBJECTS = 160;

class Hazards : public CDirectoryFixture {
 protected:
  static constexpr DIRECTORY ROOT = CImageBuilder::Root();

  static BYTES Pattern(unsigned int count, unsigned int seed) { return CImageBuilder::Pattern(count, seed); }
  /// Files to fill the cache of open files with.
  static void AddSpare(CImageBuilder& builder) {
    for (unsigned int i = 0; i < CACHED_OBJECTS; ++i) builder.AddFile(ROOT, Spare(i));
  }
  static std::string Spare(unsigned int i) { return "SPARE" + std::to_string(i); }
  /// Everything opened before is no longer found in the cache; what a handle holds lives on.
  static void EvictObjects() {
    for (unsigned int i = 0; i < CACHED_OBJECTS; ++i) ASSERT_TRUE(Exists(Spare(i)));
  }
  static unsigned int Write(int handle, BYTES bytes) {
    unsigned int done = 0;
    return Fat_WriteFileEx(handle, 0, static_cast<unsigned int>(bytes.size()), bytes.data(), &done);
  }
  static void Create(const std::string& path, unsigned int size = 0) {
    const int handle = Fat_CreateFile(CPath(path), size, 0);
    ASSERT_GE(handle, 0) << path;
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
  }
  /// A volume on which clusters below `first` are taken, so that what is freed there is given out next.
  static CImageBuilder FilledBelow(std::uint32_t first) {
    CImageBuilder builder(Small(16));
    CLUSTERS below;
    for (std::uint32_t c = 2; c < first; ++c) below.push_back(c);
    builder.AddFile(ROOT, "BELOW", BYTES(below.size() * CLUSTER_BYTES), below);
    return builder;
  }
};

}  // namespace

// ------------------------------------------------------------------------------------------------ two objects

TEST_F(Hazards, EvictedDirectoryThatASearchHolds_PutsItsOldEntriesOverNewerOnes) {
  CImageBuilder builder(Small(16));
  builder.AddDir(ROOT, "D");
  AddSpare(builder);
  MountBuilt(builder);
  WIN_FIND_DATA data{};
  const int search = Fat_FindFirstFile(CPath("D"), &data);
  ASSERT_GE(search, 0);
  Create("D\\ONE");
  EvictObjects();
  EXPECT_FALSE(Exists("D\\ONE")) << "a second object reads what the medium has";
  Create("D\\TWO");
  CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  const CVolumeReader reader(image);
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_NE(reader.Find("D\\ONE"), nullptr);
  EXPECT_EQ(reader.Find("D\\TWO"), nullptr) << "what is held is written last";
}

TEST_F(Hazards, HandleOfADeletedFile_WritesIntoClustersThatAnotherFileHasGot) {
  CImageBuilder builder = FilledBelow(10);
  builder.AddFile(ROOT, "OLD", Pattern(CLUSTER_BYTES, 1), {10});
  AddSpare(builder);
  MountBuilt(builder);
  const int old = Fat_OpenFile(CPath("OLD"));
  EvictObjects();
  EXPECT_EQ(Fat_DeleteFile(CPath("OLD")), 1u) << "nobody knows that it is open";
  EXPECT_EQ(Write(old, Pattern(CLUSTER_BYTES, 2)), 1u);
  ASSERT_TRUE(WritePath("NEW", Pattern(CLUSTER_BYTES, 3)));
  EXPECT_EQ(ReadPath("NEW"), Pattern(CLUSTER_BYTES, 3));
  CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(Fat_CloseFile(old), 1u);
  const CVolumeReader reader(image);
  EXPECT_EQ(reader.ProblemText(), "");
  ASSERT_NE(reader.Find("NEW"), nullptr);
  EXPECT_EQ(reader.Find("NEW")->FirstCluster, 10u);
  EXPECT_EQ(reader.Content(*reader.Find("NEW")), Pattern(CLUSTER_BYTES, 2));
}

TEST_F(Hazards, DeletedFileWithUnsavedData_IsWrittenIntoTheClustersItHasFreed) {
  CImageBuilder builder = FilledBelow(10);
  builder.AddFile(ROOT, "F", Pattern(CLUSTER_BYTES, 1), {10});
  MountBuilt(builder);
  const int handle = Fat_OpenFile(CPath("F"));
  EXPECT_EQ(Write(handle, Pattern(CLUSTER_BYTES, 2)), 1u);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  Medium().ClearTrace();
  EXPECT_EQ(Fat_DeleteFile(CPath("F")), 1u);
  const long long at = static_cast<long long>(builder.ClusterOffset(10));
  EXPECT_EQ(Medium().Trace(), (std::vector<IO_RECORD>{{IO_KIND::WriteBytes, at, CLUSTER_BYTES, 0}}))
      << Medium().TraceText();
  // The write comes before the clusters can be given out again.
  ASSERT_TRUE(WritePath("NEW", Pattern(CLUSTER_BYTES, 3)));
  CDiskImage& image = UnmountBuilt();
  const CVolumeReader reader(image);
  EXPECT_EQ(reader.Find("NEW")->FirstCluster, 10u);
  EXPECT_EQ(reader.Content(*reader.Find("NEW")), Pattern(CLUSTER_BYTES, 3));
}

// ------------------------------------------------------------------------------------------------ attributes

TEST_F(Hazards, ReadOnlyFile_CanBeWrittenSizedRenamedMovedAndDeleted) {
  CImageBuilder builder(Small(16));
  ENTRY_OPTIONS readOnly;
  readOnly.Attributes = 0x07;
  builder.AddFile(ROOT, "F", Pattern(700, 1), {}, readOnly);
  builder.AddDir(ROOT, "D", {}, readOnly);
  MountBuilt(builder);
  const int handle = Fat_OpenFile(CPath("F"));
  EXPECT_EQ(Write(handle, Pattern(700, 2)), 1u);
  EXPECT_EQ(Fat_SetFileSize(handle, 600), 1u);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  MountImage(UnmountBuilt());
  EXPECT_EQ(Fat_RenameFile(CPath("F"), CPath("G")), 1u);
  EXPECT_EQ(Fat_MoveFile(CPath("G"), CPath("D")), 1u);
  BYTES expected = Pattern(700, 2);
  expected.resize(600);
  EXPECT_EQ(ReadPath("D\\G"), expected);
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\G")), 1u);
  EXPECT_EQ(Fat_DeleteFile(CPath("D")), 1u);
  EXPECT_TRUE(CVolumeReader(UnmountBuilt()).Tree().empty());
}

// ------------------------------------------------------------------------------------------------ interruptions

// An eviction has written the directory and the data, and the FAT is still in memory.
TEST_F(Hazards, PowerLostBeforeTheUnmount_EntryNamesClustersThatAreFreeInTheFat) {
  for (const unsigned int bits : {12u, 16u}) {
    CImageBuilder builder(Small(bits));
    MountBuilt(builder);
    ASSERT_TRUE(WritePath("NEW", Pattern(700, 1)));
    EvictAllBlocks();
    CDiskImage lost = Medium().Image();
    const CImageBuilder after(lost);
    const RAW_ENTRY entry = SlotsOfRoot(lost)[0];
    const std::uint32_t first = entry[26] | static_cast<std::uint32_t>(entry[27]) << 8;
    EXPECT_EQ(entry[0], 'N');
    EXPECT_EQ(lost.ReadBytes(after.ClusterOffset(first), 700), Pattern(700, 1));
    EXPECT_EQ(after.FatEntry(first), 0u);
    EXPECT_EQ(CVolumeReader(UnmountBuilt()).ProblemText(), "") << "the unmount makes it whole";
  }
}

// ------------------------------------------------------------------------------------------------ directories

TEST_F(Hazards, DirectoryShrunkThroughItsHandle_LosesItsFilesAndTheirClustersStayUsed) {
  CImageBuilder builder(Small(16));
  const DIRECTORY d = builder.AddDir(ROOT, "D", {20, 21});
  for (int i = 0; i < 20; ++i) {
    builder.AddFile(d, "F" + std::to_string(i), Pattern(10, 1), {100 + static_cast<std::uint32_t>(i)});
  }
  MountBuilt(builder);
  const int handle = Fat_OpenFile(CPath("D"));
  EXPECT_EQ(Fat_SetFileSize(handle, CLUSTER_BYTES), 1u);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  CDiskImage& image = UnmountBuilt();
  const CVolumeReader reader(image);
  EXPECT_EQ(reader.Tree().size(), 1u + 14u);
  EXPECT_EQ(reader.LostClusters(), (CLUSTERS{114, 115, 116, 117, 118, 119}));
}

/// A file whose long-name run has a deleted slot in it: it loads with its name, but its set begins in the gap.
class HazardsGap : public Hazards {
 protected:
  static constexpr const char* NAME = "a name of two pieces";

  void SetUp() override {
    Hazards::SetUp();
    CImageBuilder builder(Small(16));
    m_Set = NewSet(NAME, NewEntry("ANAMEO~1   ", 0x20, 0, 0));
    m_Set.insert(m_Set.begin() + 1, Deleted(Stray()));
    builder.Append(ROOT, m_Set);
    builder.AddDir(ROOT, "D");
    MountBuilt(builder);
    ASSERT_NE(Root()->LookupFile(CPath(NAME)), nullptr);
  }
  SLOTS m_Set;
};

TEST_F(HazardsGap, Deleted_ItsFirstPieceStaysAsAStray) {
  EXPECT_EQ(Fat_DeleteFile(CPath(NAME)), 1u);
  SLOTS slots = SlotsOfRoot(UnmountBuilt());
  EXPECT_EQ(slots[0], m_Set[0]);
  for (std::size_t i = 1; i < 4; ++i) EXPECT_EQ(slots[i], Deleted(m_Set[i])) << i;
  MountImage(Medium().Image());
  EXPECT_EQ(NamesOf(*Root()), std::vector<std::string>{"D          "});
  EXPECT_TRUE(UsedSlots(*Root())[0]);
}

TEST_F(HazardsGap, Moved_LosesItsLongNameOnTheNextMount) {
  EXPECT_EQ(Fat_MoveFile(CPath(NAME), CPath("D")), 1u);
  EXPECT_TRUE(Exists(std::string("D\\") + NAME));
  MountImage(UnmountBuilt());
  EXPECT_FALSE(Exists(std::string("D\\") + NAME));
  EXPECT_TRUE(Exists("D\\ANAMEO~1"));
  EXPECT_EQ(SlotsOf(*Root())[0], m_Set[0]);
}

TEST_F(HazardsGap, Renamed_LeavesItsFirstPieceBehind) {
  EXPECT_EQ(Fat_RenameFile(CPath(NAME), CPath("NEW.TXT")), 1u);
  MountImage(UnmountBuilt());
  EXPECT_EQ(SlotsOf(*Root())[0], m_Set[0]);
  EXPECT_EQ(SlotsOf(*Root())[1], NewEntry("NEW     TXT"));
  EXPECT_EQ(NamesOf(*Root()), (std::vector<std::string>{"NEW     TXT", "D          "}));
}

// A rename makes room by sliding sets into the slots of the name that goes. When it fails then, the old first bytes are
// put back where now others lie.
TEST_F(Hazards, RenameFailsAfterSlotsWereSlid_OldFirstByteGoesIntoAnotherEntry) {
  constexpr unsigned int SLOTS_IN_ALL = 9216;  // nine clusters of 32 KiB: more than one block of the cache
  CImageBuilder builder(Coarse(16));
  CLUSTERS chain;
  for (std::uint32_t c = 50; c < 59; ++c) chain.push_back(c);
  const DIRECTORY d = builder.AddDir(ROOT, "D", chain);
  SLOTS slots(SLOTS_IN_ALL, Stray());
  slots[20] = NewEntry("OLD        ");
  slots[21] = NewEntry("SECOND     ");
  slots[30] = Deleted(Stray());
  slots[8500] = Deleted(Stray());
  for (unsigned int i = 2; i < SLOTS_IN_ALL; ++i) builder.SetEntry(d, i, slots[i]);
  MountBuilt(builder);
  ASSERT_TRUE(Exists("D"));
  EvictAllBlocks();
  Medium().FailRange(static_cast<long long>(builder.ClusterOffset(chain[8])), 1);
  EXPECT_EQ(Fat_RenameFile(CPath("D\\OLD"), CPath("name of two pieces")), 0u);
  EXPECT_TRUE(Medium().Fired());
  Medium().Heal();
  EXPECT_TRUE(Exists("D\\OLD"));
  EXPECT_TRUE(Exists("D\\SECOND"));
  CDiskImage& image = UnmountBuilt();
  const SLOTS after = SlotsOfDir(image, chain[0]);
  EXPECT_EQ(after[20], NewEntry("OECOND     "));
  MountImage(image);
  EXPECT_TRUE(Exists("D\\OECOND"));
}

// ------------------------------------------------------------------------------------------------ shared clusters

TEST_F(Hazards, FileThatSharesClustersWithADeletedOne_KeepsReadingUntilTheyAreGivenOut) {
  CImageBuilder builder = FilledBelow(10);
  const BYTES content = Pattern(3 * CLUSTER_BYTES, 1);
  builder.AddFile(ROOT, "F", content, {10, 11, 12});
  ENTRY_OPTIONS options;
  options.SetSize = options.SetFirstCluster = true;
  options.Size = 2 * CLUSTER_BYTES;
  options.FirstCluster = 11;
  builder.AddFile(ROOT, "G", {}, {}, options);
  MountBuilt(builder);
  const int handle = Fat_OpenFile(CPath("G"));
  ASSERT_GE(handle, 0);
  EXPECT_EQ(Fat_DeleteFile(CPath("F")), 1u);
  EvictAllBlocks();
  EXPECT_EQ(ReadAll(handle), BYTES(content.begin() + CLUSTER_BYTES, content.end())) << "its map stays as it was";
  const BYTES other = Pattern(3 * CLUSTER_BYTES, 2);
  ASSERT_TRUE(WritePath("NEW", other));
  EvictAllBlocks();
  EXPECT_EQ(ReadAll(handle), BYTES(other.begin() + CLUSTER_BYTES, other.end()));
  EXPECT_EQ(Fat_SetFileSize(handle, 0), 1u) << "which frees clusters of the new file";
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  EXPECT_EQ(ReadPath("NEW"), other);
  CDiskImage& image = UnmountBuilt();
  EXPECT_NE(CVolumeReader(image).ProblemText(), "");
  MountImage(image);
  EXPECT_FALSE(Exists("NEW")) << "its chain is broken";
}

// ------------------------------------------------------------------------------------------------ the shared pool

// To see whether a path may lead below it, all of a file is read whose slots of 32 bytes all begin with another byte
// than 0. One that is larger than the pool drives everything else out.
TEST_F(Hazards, FileLargerThanThePoolOpened_TakesThePlaceOfEverythingElse) {
  constexpr unsigned int BLOCKS = POOL_BLOCKS + 2;
  FAT_GEOMETRY geometry = Coarse(16);
  geometry.Clusters = BLOCKS * 8 + 4500;
  CImageBuilder builder(geometry);
  builder.AddFile(ROOT, "SMALL", Pattern(100, 1));
  const std::size_t size = std::size_t{BLOCKS} * BLOCK_BYTES;
  builder.AddFile(ROOT, "DENSE", BYTES(size, 'A'));
  builder.AddFile(ROOT, "EARLYEND", BYTES(BLOCK_BYTES * 2));
  MountBuilt(builder);
  const int small = Fat_OpenFile(CPath("SMALL"));
  EXPECT_EQ(Write(small, Pattern(100, 2)), 1u);
  Medium().ClearTrace();
  EXPECT_TRUE(Exists("EARLYEND"));
  EXPECT_EQ(Medium().Reads(), 1u) << "the first byte is 0: nothing more is looked at";
  Medium().ClearTrace();
  EXPECT_TRUE(Exists("DENSE"));
  EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), POOL_BLOCKS);
  EXPECT_EQ(Medium().BytesRead(), size);
  EXPECT_EQ(Medium().Writes(), 1u) << "the unsaved data of the small file";
  Medium().ClearTrace();
  EXPECT_EQ(ReadAll(small), Pattern(100, 2));
  EXPECT_EQ(Medium().Reads(), 1u) << "it has to be read again";
  EXPECT_EQ(Fat_CloseFile(small), 1u);
}

// ------------------------------------------------------------------------------------------------ false claims

// The FAT that is not there reads as zeros. The work is bounded by the count, a bit and a read for each block of it.
TEST_F(Hazards, TinyImageThatClaims64MiClusters_IsMountedReadAndUnmounted) {
  constexpr std::uint32_t CLAIMED = 0x04000000;
  CImageBuilder builder(Small(32));
  builder.AddFile(ROOT, "F", Pattern(100, 1));
  CDiskImage image = builder.Image();
  const FAT_GEOMETRY& geometry = builder.Geometry();
  image.Set16(19, 0);
  image.Set32(32, geometry.ReservedSectors + geometry.NumberOfFats * geometry.SectorsPerFat + CLAIMED);
  CMedium medium(image);
  medium.KeepTrace(false);
  Memory().ResetPeak();
  const std::size_t before = Memory().OutstandingBytes();
  CFatFileSystem* fileSystem = MountMedium(medium);
  ASSERT_NE(fileSystem, nullptr);
  EXPECT_EQ(fileSystem->MaxFileClusters(), CLAIMED);
  EXPECT_LT(Memory().PeakBytes() - before, std::size_t{80} << 20) << "a bit a cluster, and the cache of the FAT";
  EXPECT_EQ(ReadPath("F"), Pattern(100, 1));
  EXPECT_TRUE(Unmount(fileSystem));
}
