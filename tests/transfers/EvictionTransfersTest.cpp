/// @file EvictionTransfersTest.cpp
/// What is transferred when memory is needed for something else: 256 blocks of file data for all files together, 160
/// objects, 256 blocks of the FAT. Each gives up what was used longest ago, and stores it first if it was changed.

#include "transfers/TransferFrame.h"

namespace transfertest {
namespace {

// ---------------------------------------------------------------------------------------------- blocks of file data

/// BIG has 300 blocks, contiguous from cluster 10, and is open. In memory are the root's block and BIG's block 0.
class FullPool : public TransferWidths {
 protected:
  static constexpr unsigned int BLOCKS = 300;

  void SetUp() override {
    TransferWidths::SetUp();
    FAT_GEOMETRY geometry = Geometry(Bits(), 0x10000);
    geometry.Clusters = Bits() == 12 ? 4000 : 5000;
    CImageBuilder& volume = Build(geometry);
    AddHoles(volume, volume.Root(), "BIG", BLOCKS * BLOCK, Clusters(10, BLOCKS * 4));
    MountQuietly();
    m_hFile = Open("BIG");
    EXPECT_TRUE(Made({Loaded(0)}));
  }
  void TearDown() override {
    if (m_hFile >= 0) Close(m_hFile);
    TransferWidths::TearDown();
  }
  std::uint64_t Pos(unsigned int block) const { return At(10) + std::uint64_t{block} * BLOCK; }
  IO_RECORD Loaded(unsigned int block, unsigned int count = 1) const {
    return ReadRun(Pos(block), std::uint64_t{count} * BLOCK);
  }
  IO_RECORD Stored(unsigned int block) const { return WriteRun(Pos(block), BLOCK); }
  long long Offset(unsigned int block) const { return static_cast<long long>(block) * BLOCK; }

  int m_hFile = -1;
};
using TransfersOfEviction = FullPool;
INSTANTIATE_TEST_SUITE_P(Widths, TransfersOfEviction, ::testing::Values(12u, 16u, 32u), WidthName);

TEST_P(TransfersOfEviction, BlockUsedLongestAgoOfAnyFileMakesRoom) {
  Get(m_hFile, Offset(1), 254 * BLOCK);  // 256 blocks are in use now
  EXPECT_TRUE(Made({Loaded(1, 254)}));
  GetBlock(m_hFile, 255);  // instead of the root's, which was used by mounting only
  EXPECT_TRUE(Made({Loaded(255)}));
  GetBlock(m_hFile, 1);  // now newer than 0 and 2
  EXPECT_TRUE(MadeNone());
  Close(Create("N"));  // needs the root's, instead of block 0
  EXPECT_TRUE(Made(RootRead()));
  GetBlock(m_hFile, 1);
  EXPECT_TRUE(MadeNone());
  GetBlock(m_hFile, 0);  // instead of 2
  EXPECT_TRUE(Made({Loaded(0)}));
  GetBlock(m_hFile, 3);
  EXPECT_TRUE(MadeNone());
  GetBlock(m_hFile, 2);
  EXPECT_TRUE(Made({Loaded(2)}));
}

TEST_P(TransfersOfEviction, ChangedBlockIsStoredWhenItMakesRoomAndOnce) {
  PutBlock(m_hFile, 1);
  PutBlock(m_hFile, 2);
  Put(m_hFile, Offset(3), 100);
  EXPECT_TRUE(Made({Loaded(3)}));
  Get(m_hFile, Offset(4), 251 * BLOCK);  // 4 to 254: the pool is full
  EXPECT_TRUE(Made({Loaded(4, 251)}));
  GetBlock(m_hFile, 255);  // instead of the root's
  GetBlock(m_hFile, 256);  // instead of 0
  EXPECT_TRUE(Made({Loaded(255), Loaded(256)}));
  // Whole blocks are read into the caller's buffer before room is made for them.
  GetBlock(m_hFile, 257);
  EXPECT_TRUE(Made({Loaded(257), Stored(1)}));
  // A part of a block needs the room first.
  Get(m_hFile, Offset(258), 100);
  EXPECT_TRUE(Made({Stored(2), Loaded(258)}));
  Put(m_hFile, Offset(259) + 5, 100);
  EXPECT_TRUE(Made({Stored(3), Loaded(259)}));
  PutBlock(m_hFile, 260);  // instead of 4, which is clean
  EXPECT_TRUE(MadeNone());
  GetBlock(m_hFile, 1);
  EXPECT_TRUE(Made({Loaded(1)}));
  Close(m_hFile);
  m_hFile = -1;
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, {}, {Stored(259), Stored(260)})));
}

TEST_P(TransfersOfEviction, ChangedRootIsStoredWhenItMakesRoom) {
  Close(Create("N"));
  Get(m_hFile, Offset(1), 254 * BLOCK);
  EXPECT_TRUE(Made({Loaded(1, 254)}));
  GetBlock(m_hFile, 255);  // instead of block 0: the root was used by creating
  EXPECT_TRUE(Made({Loaded(255)}));
  GetBlock(m_hFile, 256);
  EXPECT_TRUE(Made(Join({{Loaded(256)}, RootWrite()})));
}

TEST_P(TransfersOfEviction, BlockOfAClosedFileIsStoredForAnother) {
  const int other = Create("OTHER", BLOCK);
  PutBlock(other, 0);
  Close(other);
  EXPECT_TRUE(MadeNone());
  Get(m_hFile, Offset(0), 254 * BLOCK);
  EXPECT_TRUE(Made({Loaded(1, 253)}));
  GetBlock(m_hFile, 254);  // instead of the root's, changed by creating
  EXPECT_TRUE(Made(Join({{Loaded(254)}, RootWrite()})));
  GetBlock(m_hFile, 255);
  // Where the new file lies: in the lowest place that has its four clusters.
  EXPECT_TRUE(Made({Loaded(255), WriteRun(At(FirstFree()), BLOCK)}));
}

TEST_P(TransfersOfEviction, RequestLargerThanThePoolIsStillOneTransfer) {
  Get(m_hFile, 0, BLOCKS * BLOCK);
  EXPECT_TRUE(Made({Loaded(1, 299)}));
  // The last 256 blocks stay.
  Get(m_hFile, Offset(44), 256 * BLOCK);
  EXPECT_TRUE(MadeNone());
  GetBlock(m_hFile, 43);  // instead of 44
  EXPECT_TRUE(Made({Loaded(43)}));
  GetBlock(m_hFile, 45);
  EXPECT_TRUE(MadeNone());
  GetBlock(m_hFile, 44);
  EXPECT_TRUE(Made({Loaded(44)}));
}

TEST_P(TransfersOfEviction, RequestLargerThanThePoolStoresAChangedBlockThatItUsedItself) {
  PutBlock(m_hFile, 150);
  Get(m_hFile, 0, BLOCKS * BLOCK);
  // Both stretches are read on their own. The first takes 149 free blocks and the second 104, then those of the root,
  // of 0, of 150 and of 1 to 42.
  EXPECT_TRUE(Made({Loaded(1, 149), Loaded(151, 149), Stored(150)}));
  Get(m_hFile, Offset(43), 107 * BLOCK);
  Get(m_hFile, Offset(151), 149 * BLOCK);
  EXPECT_TRUE(MadeNone());
  GetBlock(m_hFile, 42);
  EXPECT_TRUE(Made({Loaded(42)}));
}

TEST_P(TransfersOfEviction, WriteLargerThanThePoolStoresItsOwnFirstBlocks) {
  Put(m_hFile, Offset(1), 299 * BLOCK);
  // 254 blocks are free, two more are clean; from block 257 on each needs that of one before it.
  TRANSFERS stored;
  for (unsigned int block = 1; block <= 43; ++block) stored.push_back(Stored(block));
  EXPECT_TRUE(Made(stored));
  Close(m_hFile);
  m_hFile = -1;
  EXPECT_TRUE(UnmountTraced());
  // By the rest of the block number by 269.
  stored.clear();
  for (unsigned int block = 269; block < 300; ++block) stored.push_back(Stored(block));
  for (unsigned int block = 44; block < 269; ++block) stored.push_back(Stored(block));
  EXPECT_TRUE(Made(Unmounting({}, {}, stored)));
}

TEST_P(TransfersOfEviction, BlockThatCannotBeStoredFailsTheRequestThatNeededItsRoom) {
  PutBlock(m_hFile, 1);
  Get(m_hFile, Offset(2), 253 * BLOCK);
  GetBlock(m_hFile, 255);
  GetBlock(m_hFile, 256);
  Medium().ClearTrace();
  Medium().FailRange(static_cast<long long>(Pos(1)), 1, IO_FILTER::Writes);
  unsigned char byte = 0;
  unsigned int count = 0;
  EXPECT_EQ(Fat_ReadFileEx(m_hFile, Offset(257), 1, &byte, &count), 0u);
  EXPECT_TRUE(Made({Stored(1)}));  // and block 257 is not read
  Get(m_hFile, Offset(257), 1);    // instead of 2
  EXPECT_TRUE(Made({Loaded(257)}));
}

TEST_P(TransfersOfEviction, DeletedFileGivesItsBlocksBackUnstored) {
  Get(m_hFile, Offset(1), 254 * BLOCK);
  Close(m_hFile);
  m_hFile = -1;
  Medium().ClearTrace();
  EXPECT_EQ(Fat_DeleteFile(CPath("BIG")), 1u);
  EXPECT_TRUE(MadeNone());
  const int file = Create("NEW", 255 * BLOCK);
  PutBlock(file, 0);
  for (unsigned int block = 1; block < 255; ++block) PutBlock(file, block);  // the root's is the 256th
  EXPECT_TRUE(MadeNone());
  Close(file);
}

TRANSFER_WIDTHS(TransfersOfLongFiles);

TEST_P(TransfersOfLongFiles, DenseFileLargerThanThePoolIsOpenedBlockByBlock) {
  FAT_GEOMETRY geometry = Geometry(Bits(), 0x10000);
  geometry.Clusters = Bits() == 12 ? 4000 : 5000;
  CImageBuilder& volume = Build(geometry);
  constexpr unsigned int BLOCKS = 258;
  AddHoles(volume, volume.Root(), "BIG", BLOCKS * BLOCK, Clusters(10, BLOCKS * 4));
  volume.Store().Fill(At(10), std::uint64_t{BLOCKS} * BLOCK, 0xE5);
  AddHoles(volume, volume.Root(), "OTHER", BLOCK, Clusters(2000, 4));
  MountQuietly();
  const int other = Open("OTHER");
  PutBlock(other, 0);
  Close(other);
  Medium().ClearTrace();
  OpenAndClose("BIG");
  // In memory are the root's block, that of OTHER and 254 of BIG. Then the root's makes room, and then the changed one,
  // before the block that needs the room is read.
  TRANSFERS expected;
  for (unsigned int block = 0; block < BLOCKS; ++block) {
    if (block == 255) expected.push_back(WriteRun(At(2000), BLOCK));
    expected.push_back(ReadRun(At(10) + std::uint64_t{block} * BLOCK, BLOCK));
  }
  EXPECT_TRUE(Made(expected));
}

// Blocks 0, 269 and 538 are kept together. When the first of them makes room the last takes its place, and is stored
// first.
TEST_P(TransfersOfLongFiles, BlockThatMadeRoomChangesTheOrderOfThoseKeptTogetherWithIt) {
  FAT_GEOMETRY geometry = Geometry(Bits(), 0x10000);
  geometry.Clusters = Bits() == 12 ? 4000 : 5000;
  CImageBuilder& volume = Build(geometry);
  AddHoles(volume, volume.Root(), "F", 600 * BLOCK, Clusters(10, 600 * 4));
  MountQuietly();
  const int file = Open("F");
  PutBlock(file, 269);
  PutBlock(file, 538);
  Get(file, BLOCK, 252 * BLOCK);  // with the root's block 256 in all
  GetBlock(file, 253);            // instead of the root's
  GetBlock(file, 254);            // instead of block 0
  Close(file);
  Medium().ClearTrace();
  EXPECT_TRUE(UnmountTraced());
  const std::uint64_t start = At(10);
  EXPECT_TRUE(Made(Unmounting(
      {}, {},
      {WriteRun(start + std::uint64_t{538} * BLOCK, BLOCK), WriteRun(start + std::uint64_t{269} * BLOCK, BLOCK)})));
}

// ---------------------------------------------------------------------------------------------- objects

/// The root has the file F at 500 and 501, the directory D at 490 with X at 480, and 162 empty files E0, E1, ...
class FullObjectCache : public TransferWidths {
 protected:
  void SetUp() override {
    TransferWidths::SetUp();
    CImageBuilder& volume = Build(Geometry(Bits()));
    volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {500, 501});
    const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {490});
    volume.AddFile(d, "X", EndsAtOnce(100), {480});
    for (unsigned int i = 0; i < CACHED_OBJECTS + 2; ++i) volume.AddFile(volume.Root(), "E" + std::to_string(i));
    MountQuietly();
  }
  /// Opens and closes the empty files from E<first> on; they have nothing to transfer.
  void Pass(unsigned int first, unsigned int count) {
    for (unsigned int i = 0; i < count; ++i) OpenAndClose("E" + std::to_string(first + i));
  }
  TRANSFERS LoadedF() const { return {ReadRun(At(500), 512), Read(At(501), 188)}; }
};
using TransfersOfObjectEviction = FullObjectCache;
INSTANTIATE_TEST_SUITE_P(Widths, TransfersOfObjectEviction, ::testing::Values(12u, 16u, 32u), WidthName);

TEST_P(TransfersOfObjectEviction, ChangedFileIsStoredWhenThe160NextHaveBeenOpened) {
  const int file = Open("F");
  Put(file, 0, 10);
  Close(file);
  EXPECT_TRUE(Made(LoadedF()));
  Pass(0, CACHED_OBJECTS - 1);
  EXPECT_TRUE(MadeNone());
  Pass(CACHED_OBJECTS - 1, 1);
  EXPECT_TRUE(Made(AsWrites(LoadedF())));
  OpenAndClose("F");
  EXPECT_TRUE(Made(LoadedF()));
}

TEST_P(TransfersOfObjectEviction, FileThatIsOpenedAgainStays) {
  OpenAndClose("F");
  EXPECT_TRUE(Made(LoadedF()));
  Pass(0, 100);
  OpenAndClose("F");
  Pass(100, 62);  // 163 objects: E0, E1 and E2 are gone
  OpenAndClose("F");
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfObjectEviction, OpenFileIsStoredByItsLastClose) {
  const int first = Open("F");
  const int second = Open("F");
  Put(first, 0, 10);
  EXPECT_TRUE(Made(LoadedF()));
  Pass(0, CACHED_OBJECTS);
  Get(first, 0, 700);  // it still has its block
  Close(first);
  EXPECT_TRUE(MadeNone());
  const int third = Open("F");  // an object of its own, which reads the medium
  EXPECT_TRUE(Made(LoadedF()));
  Close(second);
  EXPECT_TRUE(Made(AsWrites(LoadedF())));
  Close(third);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfObjectEviction, ChangedDirectoryIsStoredAndReadAgain) {
  Close(Create("D\\NEW"));
  EXPECT_TRUE(Made({Read(At(490), 512)}));
  Pass(0, CACHED_OBJECTS - 2);
  EXPECT_TRUE(MadeNone());
  Pass(CACHED_OBJECTS - 2, 1);
  EXPECT_TRUE(Made({Write(At(490), 512)}));
  Pass(CACHED_OBJECTS - 1, 1);  // D\NEW goes, which has no data
  EXPECT_TRUE(MadeNone());
  OpenAndClose("D\\NEW");
  EXPECT_TRUE(Made({Read(At(490), 512)}));
}

TEST_P(TransfersOfObjectEviction, EntryOfAnOpenFileIsLookedForInADirectoryReadAgain) {
  const int file = Open("D\\X");
  EXPECT_TRUE(Made({Read(At(490), 512), Read(At(480), 100)}));
  Pass(0, CACHED_OBJECTS);
  Resize(file, 200);
  EXPECT_TRUE(Made({Read(At(490), 512)}));
  Close(file);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, {}, {Write(At(490), 512)})));
}

// Finding an object by its whole path uses the object alone, not the directories on the way.
TEST_P(TransfersOfObjectEviction, DirectoryOfAnObjectInMemoryIsReadAgainForItsEntry) {
  OpenAndClose("D\\X");
  Pass(0, 100);
  OpenAndClose("D\\X");
  Pass(100, 60);  // D and E0 have gone
  Medium().ClearTrace();
  EXPECT_EQ(Fat_RenameFile(CPath("D\\X"), CPath("Y")), 1u);
  EXPECT_TRUE(Made({Read(At(490), 512)}));
  OpenAndClose("D\\X");  // still in memory
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfObjectEviction, DirectoryThatAPathLedThroughStays) {
  OpenAndClose("D\\X");
  Pass(0, 100);
  EXPECT_EQ(Fat_OpenFile(CPath("D\\NO")), -1);
  Pass(100, 60);  // X and E0 have gone
  Medium().ClearTrace();
  OpenAndClose("D\\X");
  EXPECT_TRUE(Made({Read(At(480), 100)}));
}

TEST_P(TransfersOfObjectEviction, ListedDirectoryStaysUntilItsSearchEnds) {
  WIN_FIND_DATA data{};
  const int search = Fat_FindFirstFile(CPath("D"), &data);
  Close(Create("D\\NEW"));
  Medium().ClearTrace();
  Pass(0, CACHED_OBJECTS);
  for (unsigned int i = 0; i < 3; ++i) EXPECT_EQ(Fat_FindNextFile(search, &data), 1u);
  EXPECT_EQ(ToListed(data).Name(), "NEW");
  EXPECT_TRUE(MadeNone());
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  EXPECT_TRUE(Made({Write(At(490), 512)}));
}

TEST_P(TransfersOfObjectEviction, ObjectsThatOnlyHandlesHoldAreStoredAfterTheCachedOnes) {
  const int f = Open("F");
  Put(f, 0, 10);
  Pass(0, CACHED_OBJECTS);
  const int x = Open("D\\X");
  Put(x, 0, 10);
  Medium().ClearTrace();
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, {}, Join({{Write(At(480), 100)}, AsWrites(LoadedF())}))));
  Close(f);
  Close(x);
  EXPECT_TRUE(MadeNone());
}

// ---------------------------------------------------------------------------------------------- blocks of the FAT

/// A FAT32 whose FAT has one block more than are kept. A is a cluster in block 253; P, Q and R are clusters in blocks
/// 10, 11 and 12; WALK has a cluster in every block but 253, in ascending order, and no size.
class TransfersOfFatEviction : public TransferTest {
 protected:
  static constexpr std::uint32_t PER_BLOCK = 65536;

  void SetUp() override {
    TransferTest::SetUp();
    FAT_GEOMETRY geometry = Geometry(32);
    geometry.Clusters = 256 * PER_BLOCK + 1000 - 2;  // 1,000 entries in block 256: 8 sectors
    CImageBuilder& volume = Build(geometry);
    AddHoles(volume, volume.Root(), "A", 512, {253 * PER_BLOCK + 100});
    AddHoles(volume, volume.Root(), "P", 512, {10 * PER_BLOCK + 100});
    AddHoles(volume, volume.Root(), "Q", 512, {11 * PER_BLOCK + 100});
    AddHoles(volume, volume.Root(), "R", 512, {12 * PER_BLOCK + 100});
    std::vector<std::uint32_t> walk;
    for (std::uint32_t block = 0; block <= 256; ++block) {
      if (block != 253) walk.push_back(block * PER_BLOCK + 200);
    }
    AddHoles(volume, volume.Root(), "WALK", 0, walk);
  }
  /// Frees the cluster of a file, which changes its block of the FAT.
  void Free(const std::string& name) {
    const int file = Open(name);
    Resize(file, 0);
    Close(file);
  }
  IO_RECORD Block256Read() const { return ReadSectors(FatBlockAt(256), 8 * 512); }
};

TEST_F(TransfersOfFatEviction, BlockReadFirstByTheMountIsReadAgain) {
  ASSERT_NE(MountTraced(), nullptr);
  TRANSFERS expected = {Read(0, BOOT_BYTES), Block256Read()};
  for (unsigned int block = 256; block-- > 0;) expected.push_back(ReadSectors(FatBlockAt(block), BLOCK));
  EXPECT_TRUE(Made(Join({expected, RootRead()})));
  OpenAndClose("A");  // 253 is in memory; the file's byte is read
  EXPECT_TRUE(Made({Read(At(253 * PER_BLOCK + 100), 512)}));
  OpenAndClose("WALK");
  EXPECT_TRUE(Made({Block256Read()}));
  OpenAndClose("A");
  EXPECT_TRUE(MadeNone());
}

TEST_F(TransfersOfFatEviction, ChangedBlockIsStoredAfterTheBlockThatNeedsItsRoomWasRead) {
  MountQuietly();
  Free("A");  // changes block 253
  EXPECT_TRUE(Made({Read(At(253 * PER_BLOCK + 100), 512)}));
  OpenAndClose("WALK");  // uses all others, and needs room for 256
  EXPECT_TRUE(Made({Block256Read(), WriteSectors(FatBlockAt(253), BLOCK)}));
  // Its place among the four that wait stays taken: the third more is the fourth.
  Free("P");
  Free("Q");
  Medium().ClearTrace();
  Free("R");
  EXPECT_TRUE(Made({Read(At(12 * PER_BLOCK + 100), 512), WriteSectors(FatBlockAt(12), BLOCK),
                    WriteSectors(FatBlockAt(11), BLOCK), WriteSectors(FatBlockAt(10), BLOCK)}));
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), {}, {})));
}

}  // namespace
}  // namespace transfertest
