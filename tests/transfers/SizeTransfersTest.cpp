/// @file SizeTransfersTest.cpp
/// What is transferred to give a file another size. The FAT is in memory: a change of it costs nothing until a fourth
/// block of it is changed. New clusters are not cleared, and blocks in memory are neither dropped nor read anew.

#include "transfers/TransferFrame.h"

namespace transfertest {
namespace {

TRANSFER_WIDTHS(TransfersOfResizing);

// ---------------------------------------------------------------------------------------------- entry and FAT

TEST_P(TransfersOfResizing, GrowingChangesEntryAndFatInMemory) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  Resize(file, 5000);
  Close(file);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrite(0), {})));
}

TEST_P(TransfersOfResizing, ShrinkingChangesEntryAndFatInMemory) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  volume.AddFile(volume.Root(), "G", EndsAtOnce(700), {20, 21});
  MountQuietly();
  const int f = Open("F");
  const int g = Open("G");
  Medium().ClearTrace();
  Resize(f, 100);
  Resize(g, 0);
  Close(f);
  Close(g);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrite(0), {})));
}

TEST_P(TransfersOfResizing, SizeWithinTheLastClusterLeavesTheFatUnwritten) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  Resize(file, 1024);
  Resize(file, 513);
  Close(file);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), {}, {})));
}

TEST_P(TransfersOfResizing, SameSizeLeavesEverythingUnwritten) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  Resize(file, 700);
  Close(file);
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, {}, {})));
}

TEST_P(TransfersOfResizing, RefusedSizesTransferNothing) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  EXPECT_EQ(Fat_SetFileSize(file, 0xFFFFFE01), 0u);                              // more than 32 bits hold
  EXPECT_EQ(Fat_SetFileSize(file, (volume.Geometry().Clusters + 1) * 512), 0u);  // more than the volume has
  EXPECT_EQ(Fat_CreateFile(CPath("\\"), 100, 0), -1);
  EXPECT_EQ(Fat_SetFileSize(17, 100), 0u);
  Close(file);
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, {}, {})));
}

TEST_P(TransfersOfResizing, EntryInADirectoryMakesThatTheNewestObject) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  volume.AddFile(d, "F", EndsAtOnce(100), {10});
  MountQuietly();
  const int file = Open("D\\F");
  EXPECT_TRUE(Made({Read(At(100), 512), Read(At(10), 100)}));
  Put(file, 0, 100);
  Resize(file, 200);  // looks for the entry by its path, and so uses D after F
  Close(file);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, {}, {Write(At(10), 200), Write(At(100), 512)})));
}

// ---------------------------------------------------------------------------------------------- data

TEST_P(TransfersOfResizing, ChangedBytesBehindTheNewSizeAreNotStored) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  volume.AddFile(volume.Root(), "G", EndsAtOnce(700), {20, 21});
  MountQuietly();
  const int f = Open("F");
  const int g = Open("G");
  Put(f, 0, 700);
  Put(g, 0, 700);
  Resize(f, 100);
  Resize(g, 0);
  Close(f);
  Close(g);
  Medium().ClearTrace();
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrite(0), {Write(At(10), 100)})));
}

TEST_P(TransfersOfResizing, ChangedBlocksBehindTheNewSizeAreNotStored) {
  CImageBuilder& volume = Build(Geometry(Bits(), 4096));
  AddHoles(volume, volume.Root(), "F", 3 * BLOCK, Clusters(10, 192));
  AddHoles(volume, volume.Root(), "G", 2 * BLOCK, Clusters(300, 128));
  MountQuietly();
  const int f = Open("F");
  const int g = Open("G");
  Put(f, 0, 3 * BLOCK);
  Put(g, 0, 2 * BLOCK);
  Resize(f, BLOCK + 5000);
  Resize(g, BLOCK);  // block 1 begins exactly there
  Close(f);
  Close(g);
  Medium().ClearTrace();
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrite(0),
                              {WriteRun(At(10), BLOCK), WriteRun(At(74), 4096), Write(At(75), 904),  // F
                               WriteRun(At(300), BLOCK)})));                                         // G
}

TEST_P(TransfersOfResizing, BlockInMemoryIsNotReadForItsNewBytes) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  MountQuietly();
  const int file = Open("F");
  EXPECT_TRUE(Made({ReadRun(At(10), 512), Read(At(11), 188)}));
  Resize(file, 5000);
  Get(file, 0, 5000);
  Put(file, 0, 5000);
  Close(file);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  // Eight more clusters in one piece, from the lowest place that has them. FAT12 and FAT16 have clusters 2 to 9; on
  // FAT32 cluster 2 is the root's, so that they follow the file's own.
  const TRANSFERS stored = Fat32() ? TRANSFERS{WriteRun(At(10), 9 * 512), Write(At(19), 392)}
                                   : TRANSFERS{WriteRun(At(10), 1024), WriteRun(At(2), 7 * 512), Write(At(9), 392)};
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrite(0), stored)));
}

TEST_P(TransfersOfResizing, NewBlockIsReadFromTheNewClusters) {
  CImageBuilder& volume = Build(Geometry(Bits(), 4096));
  AddHoles(volume, volume.Root(), "F", BLOCK, Clusters(10, 64));
  MountQuietly();
  const int file = Open("F");
  EXPECT_TRUE(Made({ReadRun(At(10), BLOCK)}));
  Resize(file, 3 * BLOCK);
  EXPECT_TRUE(MadeNone());
  GetBlock(file, 1);  // as the disk held it
  EXPECT_TRUE(Made({ReadRun(At(74), BLOCK)}));
  PutBlock(file, 2);
  Close(file);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrite(0), {WriteRun(At(138), BLOCK)})));
}

TEST_P(TransfersOfResizing, FreedClustersOfAShrunkFileAreReadAnewByTheNextOwner) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  MountQuietly();
  const int f = Open("F");
  Resize(f, 0);
  Close(f);
  Medium().ClearTrace();
  const std::uint32_t c = FirstFree();
  const int g = Create("G", 512);
  EXPECT_TRUE(MadeNone());
  Get(g, 0, 1);
  EXPECT_TRUE(Made({Read(At(c), 512)}));
  Close(g);
}

TEST_P(TransfersOfResizing, FileMadeWithASizeReadsItsFirstBlockWhenItIsUsed) {
  Build(Geometry(Bits()));
  MountQuietly();
  const std::uint32_t c = FirstFree();
  const int file = Create("F", 700);
  EXPECT_TRUE(MadeNone());
  Get(file, 0, 10);
  EXPECT_TRUE(Made({ReadRun(At(c), 512), Read(At(c + 1), 188)}));
  Close(file);
}

TEST_P(TransfersOfResizing, FullVolumeIsKnownWithoutATransfer) {
  FAT_GEOMETRY geometry = Geometry(Bits());
  geometry.Clusters = Bits() == 16 ? 5000 : 100;
  Build(geometry);
  MountQuietly();
  const unsigned int free = Volume().CountFree();
  const int file = Create("F", free * 512);
  EXPECT_EQ(Fat_SetFileSize(file, free * 512 + 1), 0u);
  EXPECT_EQ(Fat_CreateDir(CPath("D"), 0), 0u);
  EXPECT_TRUE(MadeNone());
  Resize(file, 100);
  EXPECT_EQ(Fat_CreateDir(CPath("D"), 0), 1u);
  EXPECT_TRUE(MadeNone());
  Close(file);
}

TEST_P(TransfersOfResizing, DirectoryGrownThroughItsHandleIsClearedBlockByBlock) {
  CImageBuilder& volume = Build(Geometry(Bits(), 4096));
  volume.AddDir(volume.Root(), "D", {100});
  MountQuietly();
  const int dir = Open("D");
  EXPECT_TRUE(Made({Read(At(100), 4096)}));
  Resize(dir, 2 * BLOCK + 4096);  // 128 clusters more: they do not fit below 100
  // Block 0 is in memory. The others are read, although all of them is cleared, for the clearing goes by 512 bytes.
  EXPECT_TRUE(Made({ReadRun(At(101 + 63), BLOCK), Read(At(101 + 127), 4096)}));
  Close(dir);
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrite(0),
                              {WriteRun(At(100), BLOCK), WriteRun(At(164), BLOCK), Write(At(228), 4096)})));
}

TEST_P(TransfersOfResizing, FileThatCannotBeGivenItsSizeLeavesItsDirectoryChanged) {
  Build(Geometry(Bits()));
  MountQuietly();
  EXPECT_EQ(Fat_CreateFile(CPath("F"), (Volume().Geometry().Clusters + 1) * 512, 0), -1);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), {}, {})));  // the entries were made, and deleted again
}

TEST_P(TransfersOfResizing, EntryThatWasRenamedMeanwhileIsNotFoundInMemory) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  EXPECT_EQ(Fat_RenameFile(CPath("F"), CPath("G")), 1u);
  EXPECT_EQ(Fat_SetFileSize(file, 5000), 0u);  // the clusters are linked by then
  Close(file);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrite(0), {})));
}

// ---------------------------------------------------------------------------------------------- blocks of the FAT

/// A FAT32 of nine blocks of 65,536 entries each.
class TransfersOfFatBlocks : public TransferTest {
 protected:
  static constexpr std::uint32_t PER_BLOCK = 65536;

  void SetUp() override {
    TransferTest::SetUp();
    FAT_GEOMETRY geometry = Geometry(32);
    geometry.Clusters = 9 * PER_BLOCK - 1000;
    Build(geometry);
  }
  /// One cluster in each of `count` blocks, from block 0 on.
  static std::vector<std::uint32_t> OneInEach(unsigned int count) {
    std::vector<std::uint32_t> chain;
    for (unsigned int block = 0; block < count; ++block) chain.push_back(block * PER_BLOCK + 100);
    return chain;
  }
  TRANSFERS FatWrites(const std::vector<unsigned int>& blocks) const {
    TRANSFERS writes;
    for (const unsigned int block : blocks) writes = Join({writes, FatWrite(block)});
    return writes;
  }
};

TEST_F(TransfersOfFatBlocks, ThreeChangedBlocksWaitForTheUnmountAndTheLastChangedGoesFirst) {
  AddHoles(Volume(), Volume().Root(), "F", 3 * 512, OneInEach(3));
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  Resize(file, 0);  // frees from the file's end: blocks 2, 1, 0
  Close(file);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrites({0, 1, 2}), {})));
}

TEST_F(TransfersOfFatBlocks, FourthChangedBlockWritesAllFourWhenShrinking) {
  AddHoles(Volume(), Volume().Root(), "F", 5 * 512, OneInEach(5));
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  Resize(file, 512);  // frees in blocks 4, 3, 2 and 1, then ends the chain in block 0
  EXPECT_TRUE(Made(FatWrites({1, 2, 3, 4})));
  Close(file);
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrites({0}), {})));
}

TEST_F(TransfersOfFatBlocks, FourthChangedBlockWritesAllFourWhenDeleting) {
  AddHoles(Volume(), Volume().Root(), "F", 5 * 512, OneInEach(5));
  MountQuietly();
  OpenAndClose("F");
  Medium().ClearTrace();
  EXPECT_EQ(Fat_DeleteFile(CPath("F")), 1u);  // frees from the file's start
  EXPECT_TRUE(Made(FatWrites({3, 2, 1, 0})));
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrites({4}), {})));
}

TEST_F(TransfersOfFatBlocks, LastBlockIsWrittenAsFarAsItHoldsEntries) {
  AddHoles(Volume(), Volume().Root(), "F", 512, {8 * PER_BLOCK + 100});
  MountQuietly();
  const int file = Open("F");
  Resize(file, 0);
  Close(file);
  Medium().ClearTrace();
  EXPECT_TRUE(UnmountTraced());
  // 9 * 65,536 - 998 entries: 64,538 of them in block 8, which are 504 sectors and a part.
  EXPECT_TRUE(Made(Unmounting(RootWrite(), {WriteSectors(32 * 512 + 8 * std::uint64_t{BLOCK}, 505 * 512)}, {})));
}

// The chain runs through the entries upwards. When the first entry of a fourth block is changed all four are written;
// the change of the next entry makes that block wait again.
TEST_F(TransfersOfFatBlocks, LongGrowthWritesFourBlocksAgainAndAgain) {
  MountQuietly();
  const unsigned int clusters = 7 * PER_BLOCK + 10 - 3 + 1;  // from cluster 3 to some in block 7
  const int file = Create("F", clusters * 512);
  EXPECT_TRUE(Made(FatWrites({3, 2, 1, 0, 6, 5, 4, 3})));
  Close(file);
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrites({7, 6}), {})));
}

TEST_F(TransfersOfFatBlocks, FourthBlockThatIsChangedOnceOnlyDoesNotWaitAgain) {
  MountQuietly();
  const unsigned int clusters = 3 * PER_BLOCK - 3 + 1;  // the end of the chain is the first entry of block 3
  const int file = Create("F", clusters * 512);
  EXPECT_TRUE(Made(FatWrites({3, 2, 1, 0})));
  Close(file);
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), {}, {})));
}

TEST_F(TransfersOfFatBlocks, RepeatedChangesOfThreeBlocksWriteNothing) {
  AddHoles(Volume(), Volume().Root(), "F", 3 * 512, OneInEach(3));
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  for (unsigned int i = 0; i < 10; ++i) {
    Resize(file, 512);
    Resize(file, 20 * 512);
  }
  Close(file);
  EXPECT_TRUE(MadeNone());
}

TEST_F(TransfersOfFatBlocks, LookingAtChainsAfterwardsReadsNoFat) {
  AddHoles(Volume(), Volume().Root(), "F", 5 * 512, OneInEach(5));
  Volume().AddFile(Volume().Root(), "G", EndsAtOnce(1024), {PER_BLOCK + 200, 3 * PER_BLOCK + 200});
  MountQuietly();
  EXPECT_EQ(Fat_DeleteFile(CPath("F")), 1u);
  Medium().ClearTrace();
  OpenAndClose("G");
  EXPECT_TRUE(Made({ReadRun(At(PER_BLOCK + 200), 512), Read(At(3 * PER_BLOCK + 200), 512)}));
}

TEST_F(TransfersOfFatBlocks, FailedWriteLeavesItsBlockAndThoseBelowItToTheNextFlush) {
  AddHoles(Volume(), Volume().Root(), "F", 5 * 512, OneInEach(5));
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  Medium().FailAt(2, FAULT_ONCE);
  EXPECT_EQ(Fat_SetFileSize(file, 512), 0u);
  EXPECT_TRUE(Made(FatWrites({1, 2})));  // block 1 was written, block 2 failed
  Close(file);
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, FatWrites({2, 3, 4}), {})));
}

}  // namespace
}  // namespace transfertest
