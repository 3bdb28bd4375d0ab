/// @file MountTransfersTest.cpp
/// What is transferred to mount a volume, and to unmount one.

#include "transfers/TransferFrame.h"

namespace transfertest {
namespace {

// ---------------------------------------------------------------------------------------------- mount

TRANSFER_WIDTHS(TransfersOfMount);

TEST_P(TransfersOfMount, BootSectorThenFatFromItsLastBlockThenRoot) {
  Build(Geometry(Bits()));
  ASSERT_NE(MountTraced(), nullptr);
  // In plain numbers, once.
  if (Bits() == 12) {
    // 1,002 entries of 12 bits: 1,503 bytes, 3 sectors, behind one reserved sector. 512 root entries.
    EXPECT_TRUE(Made({Read(0, 2048), ReadSectors(512, 1536), Read(512 + 2 * 1536, 16384)}));
  } else if (Bits() == 16) {
    // 5,002 entries of 2 bytes: 20 sectors.
    EXPECT_TRUE(Made({Read(0, 2048), ReadSectors(512, 10240), Read(512 + 2 * 10240, 16384)}));
  } else {
    // 70,002 entries of 4 bytes: 547 sectors, one block of 512 and one of 35, behind 32 reserved sectors. The root's
    // chain has one cluster; its FAT block is in memory by then.
    EXPECT_TRUE(Made({Read(0, 2048), ReadSectors(16384 + 262144, 17920), ReadSectors(16384, 262144),
                      Read(16384 + 2 * 547 * 512, 512)}));
  }
}

TEST_P(TransfersOfMount, SectorsOf128Bytes) {
  FAT_GEOMETRY geometry = Geometry(Bits());
  geometry.BytesPerSector = 128;
  Build(geometry);
  ASSERT_NE(MountTraced(), nullptr);
  if (Bits() == 12) {  // 1,503 bytes: 12 sectors, behind the four of the boot sector
    EXPECT_TRUE(Made({Read(0, 2048), ReadSectors(512, 1536), Read(512 + 2 * 1536, 16384)}));
  } else if (Bits() == 16) {  // 10,004 bytes: 79 sectors
    EXPECT_TRUE(Made({Read(0, 2048), ReadSectors(512, 10112), Read(512 + 2 * 10112, 16384)}));
  } else {  // 280,008 bytes: 2,188 sectors, 2,048 of them in block 0
    EXPECT_TRUE(Made({Read(0, 2048), ReadSectors(4096 + 262144, 140 * 128), ReadSectors(4096, 262144),
                      Read(4096 + 2 * 2188 * 128, 128)}));
  }
}

TEST_P(TransfersOfMount, SectorsOf4096Bytes) {
  FAT_GEOMETRY geometry = Geometry(Bits());
  geometry.BytesPerSector = 4096;
  Build(geometry);
  ASSERT_NE(MountTraced(), nullptr);
  // The boot sector's 2,048 bytes come first, whatever the sector size is.
  if (Bits() == 12) {
    EXPECT_TRUE(Made({Read(0, 2048), ReadSectors(4096, 4096), Read(3 * 4096, 16384)}));
  } else if (Bits() == 16) {  // 10,004 bytes: 3 sectors
    EXPECT_TRUE(Made({Read(0, 2048), ReadSectors(4096, 3 * 4096), Read(7 * 4096, 16384)}));
  } else {  // 280,008 bytes: 69 sectors, 64 of them in block 0
    EXPECT_TRUE(Made({Read(0, 2048), ReadSectors((32 + 64) * 4096, 5 * 4096), ReadSectors(32 * 4096, 64 * 4096),
                      Read((32 + 2 * 69) * 4096, 4096)}));
  }
}

TEST_P(TransfersOfMount, ReservedSectorsMoveEverythingBehindThem) {
  FAT_GEOMETRY geometry = Geometry(Bits());
  geometry.ReservedSectors = 40;
  Build(geometry);
  ASSERT_NE(MountTraced(), nullptr);
  if (Bits() == 12) {
    EXPECT_TRUE(Made({Read(0, 2048), ReadSectors(40 * 512, 3 * 512), Read(46 * 512, 16384)}));
  } else if (Bits() == 16) {
    EXPECT_TRUE(Made({Read(0, 2048), ReadSectors(40 * 512, 20 * 512), Read(80 * 512, 16384)}));
  } else {
    EXPECT_TRUE(Made({Read(0, 2048), ReadSectors((40 + 512) * 512, 35 * 512), ReadSectors(40 * 512, 512 * 512),
                      Read((40 + 2 * 547) * 512, 512)}));
  }
}

TEST_P(TransfersOfMount, FatSectorsWithoutEntriesAreNotRead) {
  FAT_GEOMETRY geometry = Geometry(Bits());
  geometry.SectorsPerFat = 2000;
  CImageBuilder& volume = Build(geometry);
  ASSERT_NE(MountTraced(), nullptr);
  TRANSFERS expected = {Read(0, BOOT_BYTES)};
  if (Bits() == 12) expected.push_back(ReadSectors(volume.FatOffset(0), 1536));
  if (Bits() == 16) expected.push_back(ReadSectors(volume.FatOffset(0), 10240));
  if (Bits() == 32) {
    expected.push_back(ReadSectors(volume.FatOffset(0) + BLOCK, 17920));
    expected.push_back(ReadSectors(volume.FatOffset(0), BLOCK));
  }
  EXPECT_TRUE(Made(Join({expected, RootRead()})));
}

TEST_P(TransfersOfMount, UsedClustersAndSecondFatCostNoFurtherRead) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY dir = volume.AddDir(volume.Root(), "DIR");
  volume.AddFile(dir, "DEEP", Dense(3000));
  volume.AddFile(volume.Root(), "FILE", Dense(3000));
  for (std::uint32_t cluster = 100; cluster < 200; ++cluster) volume.SetFatEntryIn(1, cluster, cluster + 1);
  ASSERT_NE(MountTraced(), nullptr);
  TRANSFERS fat;
  for (unsigned int block = FatBlocks(); block-- > 0;) fat = Join({fat, FatRead(block)});
  EXPECT_TRUE(Made(Join({{Read(0, BOOT_BYTES)}, fat, RootRead()})));
}

TEST_P(TransfersOfMount, RootLongerThanABlockIsReadToTheBlockWithItsFirstUnusedSlot) {
  FAT_GEOMETRY geometry = Geometry(Bits(), 0x10000);
  if (Bits() != 32) geometry.RootEntries = 3 * 8192;  // 768 KiB: three blocks
  CImageBuilder& volume = Build(geometry);
  TRANSFERS root;
  if (Bits() == 32) {
    const std::vector<std::uint32_t> chain = Clusters(2, 9);  // 576 KiB
    volume.SetChain(chain);
    volume.Store().Fill(volume.ClusterOffset(2), BLOCK, 0xE5);
    // One run: four whole clusters each.
    root = {ReadRun(volume.ClusterOffset(2), BLOCK), ReadRun(volume.ClusterOffset(6), BLOCK)};
  } else {
    volume.Store().Fill(RootAt(), BLOCK, 0xE5);
    root = {Read(RootAt(), BLOCK), Read(RootAt() + BLOCK, BLOCK)};
  }
  ASSERT_NE(MountTraced(), nullptr);
  TRANSFERS fat;
  for (unsigned int block = FatBlocks(); block-- > 0;) fat = Join({fat, FatRead(block)});
  EXPECT_TRUE(Made(Join({{Read(0, BOOT_BYTES)}, fat, root})));
}

TEST_P(TransfersOfMount, RootWithoutUnusedSlotIsReadToItsEnd) {
  FAT_GEOMETRY geometry = Geometry(Bits(), 0x10000);
  if (Bits() != 32) geometry.RootEntries = 8192 + 512;  // a block and 16 KiB
  CImageBuilder& volume = Build(geometry);
  TRANSFERS root;
  if (Bits() == 32) {
    // Block 0 is four clusters in three runs, the last of which is a single cluster at the block's end; block 1 is one
    // cluster.
    const std::vector<std::uint32_t> chain = {2, 5, 6, 9, 12};
    volume.SetChain(chain);
    for (const std::uint32_t cluster : chain) volume.Store().Fill(volume.ClusterOffset(cluster), 0x10000, 0xE5);
    root = {ReadRun(At(2), 0x10000), ReadRun(At(5), 0x20000), Read(At(9), 0x10000), Read(At(12), 0x10000)};
  } else {
    volume.Store().Fill(RootAt(), geometry.RootEntries * 32u, 0xE5);
    root = {Read(RootAt(), BLOCK), Read(RootAt() + BLOCK, 16384)};
  }
  ASSERT_NE(MountTraced(), nullptr);
  TRANSFERS fat;
  for (unsigned int block = FatBlocks(); block-- > 0;) fat = Join({fat, FatRead(block)});
  EXPECT_TRUE(Made(Join({{Read(0, BOOT_BYTES)}, fat, root})));
}

TEST_P(TransfersOfMount, RefusedBootSectorIsTheOnlyThingRead) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.Store().Set16(510, 0x55AB);
  EXPECT_EQ(MountTraced(), nullptr);
  EXPECT_TRUE(Made({Read(0, BOOT_BYTES)}));
  EXPECT_EQ(Medium().CloseCalls(), 0u);
}

TEST_P(TransfersOfMount, SectorTotalBelowTheOverheadReadsNothingFurther) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.Store().Set16(19, 0);
  volume.Store().Set32(32, 2);
  EXPECT_EQ(MountTraced(), nullptr);
  EXPECT_TRUE(Made({Read(0, BOOT_BYTES)}));
}

TEST_P(TransfersOfMount, EachFailedReadIsTheLastTransfer) {
  Build(Geometry(Bits()));
  TRANSFERS fat;
  for (unsigned int block = FatBlocks(); block-- > 0;) fat = Join({fat, FatRead(block)});
  const TRANSFERS whole = Join({{Read(0, BOOT_BYTES)}, fat, RootRead()});
  for (std::size_t nth = 1; nth <= whole.size(); ++nth) {
    CMedium medium(Volume().Image());
    medium.FailAt(static_cast<unsigned int>(nth), FAULT_ONCE);
    EXPECT_EQ(MountMedium(medium), nullptr) << nth;
    EXPECT_TRUE(Same(medium.Trace(), TRANSFERS(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(nth))));
  }
}

class TransfersOfMountFat12And16 : public TransferTest {};

TEST_F(TransfersOfMountFat12And16, CountOfClustersDecidesHowMuchOfTheFatIsRead) {
  FAT_GEOMETRY geometry = Geometry(12);
  geometry.Clusters = 4086;
  Build(geometry);
  ASSERT_NE(MountTraced(), nullptr);
  EXPECT_TRUE(Made({Read(0, 2048), ReadSectors(512, 12 * 512), Read(25 * 512, 16384)}));  // 6,132 bytes
  EXPECT_TRUE(UnmountTraced());
  geometry = Geometry(16);
  geometry.Clusters = 4087;
  Build(geometry);
  ASSERT_NE(MountTraced(), nullptr);
  EXPECT_TRUE(Made({Read(0, 2048), ReadSectors(512, 16 * 512), Read(33 * 512, 16384)}));  // 8,178 bytes
}

TEST_F(TransfersOfMountFat12And16, LargestFat16IsHalfABlock) {
  FAT_GEOMETRY geometry = Geometry(16);
  geometry.Clusters = 65526;
  Build(geometry);
  ASSERT_NE(MountTraced(), nullptr);
  EXPECT_TRUE(Made({Read(0, 2048), ReadSectors(512, 256 * 512), Read(513 * 512, 16384)}));  // 131,056 bytes
}

TEST_F(TransfersOfMountFat12And16, RootThatEndsInsideASectorIsReadAndWrittenToTheEndOfIt) {
  for (const unsigned int bits : {12u, 16u}) {
    FAT_GEOMETRY geometry = Geometry(bits);
    geometry.RootEntries = 20;
    Build(geometry);
    ASSERT_NE(MountTraced(), nullptr);
    const TRANSFERS root = {Read(RootAt(), 1024)};
    EXPECT_TRUE(Made(Join({{Read(0, BOOT_BYTES)}, FatRead(0), root})));
    Close(Create("F"));
    EXPECT_TRUE(UnmountTraced());
    EXPECT_TRUE(Made(Unmounting(AsWrites(root), {}, {})));
  }
}

class TransfersOfMountFat32 : public TransferTest {};

TEST_F(TransfersOfMountFat32, RootWithoutClusterIsNotRead) {
  FAT_GEOMETRY geometry = Geometry(32);
  geometry.RootCluster = 0;
  Build(geometry);
  ASSERT_NE(MountTraced(), nullptr);
  EXPECT_TRUE(Made(Join({{Read(0, BOOT_BYTES)}, FatRead(1), FatRead(0)})));
}

TEST_F(TransfersOfMountFat32, RootClusterOutsideTheVolumeIsFoundWithoutReadingIt) {
  FAT_GEOMETRY geometry = Geometry(32);
  geometry.RootCluster = 70002;
  CImageBuilder& volume = Build(geometry);
  static_cast<void>(volume);
  EXPECT_EQ(MountTraced(), nullptr);
  EXPECT_TRUE(Made(Join({{Read(0, BOOT_BYTES)}, FatRead(1), FatRead(0)})));
}

TEST_F(TransfersOfMountFat32, LastBlockThatIsExactlyFullIsReadInFull) {
  FAT_GEOMETRY geometry = Geometry(32);
  geometry.Clusters = 3 * 65536 - 2;
  Build(geometry);
  ASSERT_NE(MountTraced(), nullptr);
  const std::uint64_t fat = 32 * 512;
  EXPECT_TRUE(Made({Read(0, BOOT_BYTES), ReadSectors(fat + 2 * BLOCK, BLOCK), ReadSectors(fat + BLOCK, BLOCK),
                    ReadSectors(fat, BLOCK), Read(RootAt(), 512)}));
}

TEST_F(TransfersOfMountFat32, OneEntryInTheLastBlockReadsOneSectorOfIt) {
  FAT_GEOMETRY geometry = Geometry(32);
  geometry.Clusters = 2 * 65536 - 2 + 1;
  Build(geometry);
  ASSERT_NE(MountTraced(), nullptr);
  const std::uint64_t fat = 32 * 512;
  EXPECT_TRUE(Made({Read(0, BOOT_BYTES), ReadSectors(fat + 2 * BLOCK, 512), ReadSectors(fat + BLOCK, BLOCK),
                    ReadSectors(fat, BLOCK), Read(RootAt(), 512)}));
}

TEST_F(TransfersOfMountFat32, RootChainThroughOtherFatBlocksReadsNoFatAgain) {
  FAT_GEOMETRY geometry = Geometry(32);
  CImageBuilder& volume = Build(geometry);
  const std::vector<std::uint32_t> chain = {2, 69000, 3};
  volume.SetChain(chain);
  for (const std::uint32_t cluster : chain) volume.Store().Fill(volume.ClusterOffset(cluster), 512, 0xE5);
  ASSERT_NE(MountTraced(), nullptr);
  EXPECT_TRUE(Made(Join({{Read(0, BOOT_BYTES)},
                         FatRead(1),
                         FatRead(0),
                         {ReadRun(At(2), 512), ReadRun(At(69000), 512), Read(At(3), 512)}})));
}

// ---------------------------------------------------------------------------------------------- unmount

TRANSFER_WIDTHS(TransfersOfUnmount);

TEST_P(TransfersOfUnmount, UnchangedVolumeHasItsFatCopiedAndItsFsInfoReset) {
  Build(Geometry(Bits()));
  MountQuietly();
  EXPECT_TRUE(UnmountTraced());
  if (Bits() == 12) {
    EXPECT_TRUE(Made({ReadSectors(512, 1536), WriteSectors(512 + 1536, 1536)}));
  } else if (Bits() == 16) {
    EXPECT_TRUE(Made({ReadSectors(512, 10240), WriteSectors(512 + 10240, 10240)}));
  } else {
    EXPECT_TRUE(Made(
        {Read(512, 512), Write(512, 512), ReadSectors(16384, 547 * 512), WriteSectors(16384 + 547 * 512, 547 * 512)}));
  }
}

TEST_P(TransfersOfUnmount, EverythingLoadedButUnchangedIsNotWritten) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY dir = volume.AddDir(volume.Root(), "DIR");
  volume.AddFile(dir, "DEEP", Dense(3000));
  volume.AddFile(volume.Root(), "FILE", Dense(3000));
  MountQuietly();
  OpenAndClose("FILE");
  OpenAndClose("DIR\\DEEP");
  Medium().ClearTrace();
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Join({FsInfoReset(), FatCopied()})));
}

TEST_P(TransfersOfUnmount, SectorsWithoutEntriesAreCopiedToo) {
  FAT_GEOMETRY geometry = Geometry(Bits());
  geometry.SectorsPerFat = 2000;
  CImageBuilder& volume = Build(geometry);
  MountQuietly();
  EXPECT_TRUE(UnmountTraced());
  const std::uint64_t fat = volume.FatOffset(0);
  EXPECT_TRUE(Made(Join({FsInfoReset(), {ReadSectors(fat, 1024000), WriteSectors(fat + 1024000, 1024000)}})));
}

TEST_P(TransfersOfUnmount, OfThreeFatsOnlyTheSecondIsWritten) {
  FAT_GEOMETRY geometry = Geometry(Bits());
  geometry.NumberOfFats = 3;
  CImageBuilder& volume = Build(geometry);
  MountQuietly();
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Join(
      {FsInfoReset(),
       {ReadSectors(volume.FatOffset(0), volume.FatBytes()), WriteSectors(volume.FatOffset(1), volume.FatBytes())}})));
}

TEST_P(TransfersOfUnmount, WithOneFatTheCopyGoesBehindItAllTheSame) {
  FAT_GEOMETRY geometry = Geometry(Bits());
  geometry.NumberOfFats = 1;
  CImageBuilder& volume = Build(geometry);
  MountQuietly();
  EXPECT_TRUE(UnmountTraced());
  // Where the fixed root or, on FAT32, the first cluster lies.
  EXPECT_EQ(volume.FatOffset(0) + volume.FatBytes(), Bits() == 32 ? At(2) : RootAt());
  EXPECT_TRUE(Made(Join({FsInfoReset(),
                         {ReadSectors(volume.FatOffset(0), volume.FatBytes()),
                          WriteSectors(volume.FatOffset(0) + volume.FatBytes(), volume.FatBytes())}})));
}

TEST_P(TransfersOfUnmount, SectorsOf4096BytesResetTheFirst512OfFsInfo) {
  FAT_GEOMETRY geometry = Geometry(Bits());
  geometry.BytesPerSector = 4096;
  CImageBuilder& volume = Build(geometry);
  MountQuietly();
  EXPECT_TRUE(UnmountTraced());
  const TRANSFERS info =
      Bits() == 32 ? TRANSFERS{Read(4096, 512), Write(4096, 512)} : TRANSFERS{};  // the sector behind the boot sector
  EXPECT_TRUE(Made(Join(
      {info,
       {ReadSectors(volume.FatOffset(0), volume.FatBytes()), WriteSectors(volume.FatOffset(1), volume.FatBytes())}})));
}

// Creates A with two clusters, the directory D with one, D\X with one, and writes both files.
TEST_P(TransfersOfUnmount, RootThenFatThenItsCopyThenObjectsInTheOrderOfTheirLastUse) {
  Build(Geometry(Bits()));
  MountQuietly();
  const std::uint32_t c = FirstFree();
  const int a = Create("A", 700);  // c and c + 1
  EXPECT_TRUE(MadeNone());
  Put(a, 0, 700);  // only whole blocks are taken without reading them: 700 bytes are part of one
  EXPECT_TRUE(Made({ReadRun(At(c), 512), Read(At(c + 1), 188)}));
  EXPECT_EQ(Fat_CreateDir(CPath("D"), 0), 1u);  // c + 2
  EXPECT_TRUE(MadeNone());
  const int x = Create("D\\X", 100);  // c + 3
  EXPECT_TRUE(MadeNone());
  Put(x, 0, 100);
  EXPECT_TRUE(Made({Read(At(c + 3), 100)}));
  Close(x);
  Close(a);
  OpenAndClose("A");  // now the newest
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Join({FsInfoReset(),
                         RootWrite(),
                         FatWrite(0),
                         FatCopied(),
                         {Write(At(c + 2), 512)},  // D: one cluster, at most a cluster's bytes
                         {Write(At(c + 3), 100)},  // D\X: cut at its size
                         {WriteRun(At(c), 512), Write(At(c + 1), 188)}})));  // A: whole clusters, then the rest
}

TEST_P(TransfersOfUnmount, HandlesStillOpenDoNotChangeTheSequence) {
  Build(Geometry(Bits()));
  MountQuietly();
  const std::uint32_t c = FirstFree();
  const int a = Create("A", 100);
  const int b = Create("B", 100);
  Put(b, 0, 100);
  Put(a, 0, 100);
  Medium().ClearTrace();
  EXPECT_TRUE(UnmountTraced());
  // A was used last as data, but it is the path that counts.
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrite(0), {Write(At(c), 100), Write(At(c + 1), 100)})));
  Close(a);
  Close(b);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfUnmount, NothingIsTransferredAfterwards) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "FILE", Dense(3000));
  CFatFileSystem* fileSystem = MountTraced();
  ASSERT_NE(fileSystem, nullptr);
  const int file = Open("FILE");
  Put(file, 0, 3000);
  EXPECT_TRUE(UnmountTraced());
  Medium().ClearTrace();
  EXPECT_EQ(Fat_Unmount(fileSystem), 0u);
  unsigned char byte = 0;
  unsigned int count = 0;
  EXPECT_EQ(Fat_WriteFileEx(file, 0, 1, &byte, &count), 0u);
  EXPECT_EQ(Fat_ReadFileEx(file, 0, 1, &byte, &count), 0u);
  EXPECT_EQ(Fat_SetFileSize(file, 10), 0u);
  EXPECT_EQ(Fat_OpenFile(CPath("FILE")), -1);
  EXPECT_EQ(Fat_CreateDir(CPath("D"), 0), 0u);
  Close(file);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfUnmount, FailedFatWriteEndsItThere) {
  Build(Geometry(Bits()));
  MountQuietly();
  const int a = Create("A", 100);
  Put(a, 0, 100);
  Close(a);
  Medium().ClearTrace();
  Medium().FailRange(static_cast<long long>(FatBlockAt(0)), FatBlockBytes(0), IO_FILTER::Writes);
  EXPECT_FALSE(UnmountTraced());
  // The flush fails, and the block that is still unwritten is tried once more when the cache goes. Then no copy, which
  // would spread a FAT that is not right, and no data.
  EXPECT_TRUE(Made(Join({FsInfoReset(), RootWrite(), FatWrite(0), FatWrite(0)})));
}

TEST_P(TransfersOfUnmount, FailedReadOfTheFatLeavesItsCopyUnwritten) {
  Build(Geometry(Bits()));
  MountQuietly();
  const int a = Create("A", 100);
  Put(a, 0, 100);
  Close(a);
  Medium().ClearTrace();
  Medium().FailRange(static_cast<long long>(Volume().FatOffset(0)), 1, IO_FILTER::Reads);
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Join({FsInfoReset(),
                         RootWrite(),
                         FatWrite(0),
                         {ReadSectors(Volume().FatOffset(0), Volume().FatBytes())},
                         {Write(At(FirstFree()), 100)}})));
}

TEST_P(TransfersOfUnmount, FailedRootWriteIsNotRepeatedAndStopsNothing) {
  Build(Geometry(Bits()));
  MountQuietly();
  const int a = Create("A", 100);
  Put(a, 0, 100);
  Close(a);
  Medium().ClearTrace();
  Medium().FailRange(static_cast<long long>(RootAt()), 1, IO_FILTER::Writes);
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrite(0), {Write(At(FirstFree()), 100)})));
}

class TransfersOfUnmountFat32 : public TransferTest {};

TEST_F(TransfersOfUnmountFat32, DamagedFsInfoIsReadAndLeftAsItIs) {
  for (const std::uint64_t signature : {0u, 484u, 508u}) {
    CImageBuilder& volume = Build(Geometry(32));
    volume.Store().Set8(volume.FsInfoOffset() + signature, 0x99);
    MountQuietly();
    EXPECT_TRUE(UnmountTraced());
    EXPECT_TRUE(Made(Join({{Read(512, 512)}, FatCopied()}))) << signature;
  }
}

TEST_F(TransfersOfUnmountFat32, FsInfoIsWhereTheBootSectorSays) {
  FAT_GEOMETRY geometry = Geometry(32);
  geometry.FsInfoSector = 9;
  Build(geometry);
  MountQuietly();
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Join({{Read(9 * 512, 512), Write(9 * 512, 512)}, FatCopied()})));
}

TEST_F(TransfersOfUnmountFat32, FsInfoThatCannotBeReadIsNotWritten) {
  CImageBuilder& volume = Build(Geometry(32));
  MountQuietly();
  Medium().FailRange(static_cast<long long>(volume.FsInfoOffset()), 512);
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Join({{Read(512, 512)}, FatCopied()})));
}

TEST_F(TransfersOfUnmountFat32, RootOfSeveralRunsIsWrittenOneTransferARun) {
  CImageBuilder& volume = Build(Geometry(32));
  const std::vector<std::uint32_t> chain = {2, 10, 11, 20, 21};
  volume.SetChain(chain);
  MountQuietly();
  Close(Create("A"));
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  // Five clusters: one, two and two. All but a last single cluster go in the aligned form.
  EXPECT_TRUE(Made(Unmounting({WriteRun(At(2), 512), WriteRun(At(10), 1024), WriteRun(At(20), 1024)}, {}, {})));
}

}  // namespace
}  // namespace transfertest
