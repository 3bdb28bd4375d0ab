/// @file NameTransfersTest.cpp
/// What is transferred to create, rename, move and delete. A name that changes is changed in memory, in blocks of its
/// directory; what has to be read is the directory, once, and what has to be known of the object.

#include "transfers/TransferFrame.h"

namespace transfertest {
namespace {

// ---------------------------------------------------------------------------------------------- creating

TRANSFER_WIDTHS(TransfersOfCreating);

TEST_P(TransfersOfCreating, InTheRootNothingIsTransferredUntilUnmount) {
  Build(Geometry(Bits()));
  MountQuietly();
  const std::uint32_t c = FirstFree();
  Close(Create("EMPTY"));
  Close(Create("A long name.txt", 700));        // c and c + 1
  EXPECT_EQ(Fat_CreateDir(CPath("D"), 0), 1u);  // c + 2
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  // A new directory's cluster is stored; a new file's clusters are left as they are.
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrite(0), {Write(At(c + 2), 512)})));
}

TEST_P(TransfersOfCreating, EmptyFileLeavesTheFatUnwritten) {
  Build(Geometry(Bits()));
  MountQuietly();
  Close(Create("F"));
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), {}, {})));
}

TEST_P(TransfersOfCreating, DirectoriesOnTheWayAreReadOnce) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  volume.AddDir(d, "E", {90});
  MountQuietly();
  Close(Create("D\\E\\F"));
  EXPECT_TRUE(Made({Read(At(100), 512), Read(At(90), 512)}));
  Close(Create("D\\E\\G", 600));
  Close(Create("D\\H"));
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, FatWrite(0), {Write(At(90), 512), Write(At(100), 512)})));
}

TEST_P(TransfersOfCreating, MissingParentsAreMadeInMemory) {
  Build(Geometry(Bits()));
  MountQuietly();
  const std::uint32_t c = FirstFree();
  Close(Create("X\\Y\\Z\\F"));
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(
      Made(Unmounting(RootWrite(), FatWrite(0), {Write(At(c), 512), Write(At(c + 1), 512), Write(At(c + 2), 512)})));
}

TEST_P(TransfersOfCreating, ExistingNameIsFoundInTheDirectory) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  volume.AddFile(d, "F", EndsAtOnce(100), {10});
  volume.AddFile(volume.Root(), "G", EndsAtOnce(100), {11});
  MountQuietly();
  EXPECT_EQ(Fat_CreateFile(CPath("g"), 100, 0), -1);
  EXPECT_EQ(Fat_CreateDir(CPath("G"), 0), 0u);
  EXPECT_TRUE(MadeNone());
  EXPECT_EQ(Fat_CreateFile(CPath("D\\f"), 100, 0), -1);
  EXPECT_TRUE(Made({Read(At(100), 512)}));
  EXPECT_EQ(Fat_CreateDir(CPath("D\\F"), 0), 0u);
  EXPECT_EQ(Fat_CreateDir(CPath("D"), 0), 0u);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, {}, {})));
}

TEST_P(TransfersOfCreating, DirectoryWithClustersLargerThanABlockIsStoredAsOneBlock) {
  Build(Geometry(Bits(), 2 * BLOCK));
  MountQuietly();
  const std::uint32_t c = FirstFree();
  EXPECT_EQ(Fat_CreateDir(CPath("D"), 0), 1u);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  const TRANSFERS root = Fat32() ? TRANSFERS{Write(RootAt(), BLOCK)} : RootWrite();
  EXPECT_TRUE(Made(Unmounting(root, FatWrite(0), {Write(At(c), BLOCK)})));
}

// ---------------------------------------------------------------------------------------------- room in directories

TRANSFER_WIDTHS(TransfersOfDirectoryGrowth);

TEST_P(TransfersOfDirectoryGrowth, NewClusterIsClearedInMemory) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  volume.Append(d, std::vector<RAW_ENTRY>(14, StrayEntry()));  // 16 slots in all: full
  MountQuietly();
  OpenAndClose("D");
  EXPECT_TRUE(Made({Read(At(100), 512)}));
  Close(Create("D\\NEW"));
  Close(Create("D\\Some longer name"));
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  // D's own entry is rewritten in the root, and both its clusters are of one block.
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrite(0), {WriteRun(At(100), 512), Write(At(FirstFree()), 512)})));
}

TEST_P(TransfersOfDirectoryGrowth, EntryOfAGrownDirectoryMakesItsParentTheNewestObject) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  const CImageBuilder::DIRECTORY e = volume.AddDir(d, "E", {90});
  volume.Append(e, std::vector<RAW_ENTRY>(14, StrayEntry()));
  MountQuietly();
  Close(Create("D\\E\\NEW"));
  EXPECT_TRUE(Made({Read(At(100), 512), Read(At(90), 512)}));
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(
      Made(Unmounting({}, FatWrite(0), {WriteRun(At(90), 512), Write(At(FirstFree()), 512), Write(At(100), 512)})));
}

TEST_P(TransfersOfDirectoryGrowth, NewClusterInABlockNotInMemoryIsReadBeforeItIsCleared) {
  CImageBuilder& volume = Build(Geometry(Bits(), 0x10000));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", Clusters(10, 4));  // exactly a block
  volume.Append(d, std::vector<RAW_ENTRY>(4 * 2048 - 2, StrayEntry()));
  MountQuietly();
  const std::uint32_t c = FirstFree();
  Close(Create("D\\NEW"));
  EXPECT_TRUE(Made({ReadRun(At(10), BLOCK), Read(At(c), 0x10000)}));
  Close(Create("D\\NEW2"));
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrite(0), {Write(At(c), 0x10000)})));  // block 0 did not change
}

TEST_P(TransfersOfDirectoryGrowth, FullRootGrowsOnFat32Only) {
  FAT_GEOMETRY geometry = Geometry(Bits());
  if (Bits() != 32) geometry.RootEntries = 16;
  CImageBuilder& volume = Build(geometry);
  volume.Append(volume.Root(), std::vector<RAW_ENTRY>(16, StrayEntry()));
  MountQuietly();
  const int file = Fat_CreateFile(CPath("NEW"), 0, 0);
  EXPECT_TRUE(MadeNone());
  if (Bits() == 32) {
    Close(file);
    EXPECT_TRUE(UnmountTraced());
    EXPECT_TRUE(Made(Unmounting({WriteRun(At(2), 1024)}, FatWrite(0), {})));  // clusters 2 and 3
  } else {
    EXPECT_EQ(file, -1);
    EXPECT_EQ(Fat_CreateDir(CPath("D"), 0), 0u);
    EXPECT_TRUE(MadeNone());
    EXPECT_TRUE(UnmountTraced());
    EXPECT_TRUE(Made(Unmounting({}, FatWrite(0), {})));  // a cluster was taken for the directory, and given back
  }
}

TEST_P(TransfersOfDirectoryGrowth, SlidingEntriesTogetherIsDoneInMemory) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  for (unsigned int i = 0; i < 14; ++i) {
    RAW_ENTRY entry = CImageBuilder::ShortEntry(CImageBuilder::ShortName("F" + std::to_string(i)), 0x20, 0, 0);
    if (i % 2 == 1) entry[0] = 0xE5;
    volume.Append(d, entry);
  }
  MountQuietly();
  OpenAndClose("D");
  Medium().ClearTrace();
  Close(Create("D\\A name of three slots"));  // seven are free, no two of them together
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, {}, {Write(At(100), 512)})));
}

// ---------------------------------------------------------------------------------------------- renaming

TRANSFER_WIDTHS(TransfersOfRenaming);

TEST_P(TransfersOfRenaming, ObjectIsNotReadForIt) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  volume.AddFile(d, "G", EndsAtOnce(700), {12, 13});
  MountQuietly();
  EXPECT_EQ(Fat_RenameFile(CPath("F"), CPath("A longer name")), 1u);
  EXPECT_EQ(Fat_RenameFile(CPath("D"), CPath("DIR")), 1u);
  EXPECT_TRUE(MadeNone());
  EXPECT_EQ(Fat_RenameFile(CPath("DIR\\G"), CPath("H")), 1u);
  EXPECT_TRUE(Made({Read(At(100), 512)}));  // the directory of the name
  EXPECT_EQ(Fat_RenameFile(CPath("DIR\\H"), CPath("I")), 1u);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), {}, {Write(At(100), 512)})));
}

TEST_P(TransfersOfRenaming, NewNameIsAnObjectOfItsOwn) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  MountQuietly();
  OpenAndClose("F");
  Medium().ClearTrace();
  EXPECT_EQ(Fat_RenameFile(CPath("F"), CPath("G")), 1u);
  EXPECT_TRUE(MadeNone());
  OpenAndClose("F");  // still in memory under its old name
  EXPECT_TRUE(MadeNone());
  OpenAndClose("G");
  EXPECT_TRUE(Made({ReadRun(At(10), 512), Read(At(11), 188)}));
}

TEST_P(TransfersOfRenaming, RefusalsTransferNothing) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  volume.AddFile(volume.Root(), "G", EndsAtOnce(700), {12, 13});
  MountQuietly();
  EXPECT_EQ(Fat_RenameFile(CPath("F"), CPath("G")), 0u);
  EXPECT_EQ(Fat_RenameFile(CPath("F"), CPath("f")), 0u);
  EXPECT_EQ(Fat_RenameFile(CPath("NO"), CPath("H")), 0u);
  EXPECT_EQ(Fat_RenameFile(CPath("F"), CPath("H?")), 0u);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, {}, {})));
}

// ---------------------------------------------------------------------------------------------- moving

/// D is at cluster 100, E at 90, D\F at 10 and 11, the directory S at 80, D\T at 70, the file G at 20.
class MovingTree : public TransferWidths {
 protected:
  void SetUp() override {
    TransferWidths::SetUp();
    CImageBuilder& volume = Build(Geometry(Bits()));
    const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
    volume.AddDir(volume.Root(), "E", {90});
    volume.AddFile(d, "F", EndsAtOnce(700), {10, 11});
    volume.AddDir(volume.Root(), "S", {80});
    volume.AddDir(d, "T", {70});
    volume.AddFile(volume.Root(), "G", EndsAtOnce(100), {20});
    MountQuietly();
  }
};
using TransfersOfMoving = MovingTree;
INSTANTIATE_TEST_SUITE_P(Widths, TransfersOfMoving, ::testing::Values(12u, 16u, 32u), WidthName);

TEST_P(TransfersOfMoving, FileIsNotReadForItButTheTargetIsBeforeTheSource) {
  EXPECT_EQ(Fat_MoveFile(CPath("D\\F"), CPath("E")), 1u);
  EXPECT_TRUE(Made({Read(At(90), 512), Read(At(100), 512)}));
  EXPECT_EQ(Fat_MoveFile(CPath("E\\F"), CPath("D")), 1u);
  EXPECT_EQ(Fat_MoveFile(CPath("G"), CPath("D")), 1u);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  // D was used last, as the target of the last move.
  EXPECT_TRUE(Made(Unmounting(RootWrite(), {}, {Write(At(90), 512), Write(At(100), 512)})));
}

TEST_P(TransfersOfMoving, DirectoryNotInMemoryHasItsParentEntryRewrittenOnTheMedium) {
  EXPECT_EQ(Fat_MoveFile(CPath("S"), CPath("E")), 1u);
  EXPECT_TRUE(Made({Read(At(90), 512), Read(At(80), 64), Write(At(80), 64)}));
  EXPECT_EQ(Fat_MoveFile(CPath("D\\T"), nullptr), 1u);  // null: the root, which is in memory
  EXPECT_TRUE(Made({Read(At(100), 512), Read(At(70), 64), Write(At(70), 64)}));
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), {}, {Write(At(90), 512), Write(At(100), 512)})));
}

TEST_P(TransfersOfMoving, DirectoryInMemoryHasItsParentEntryRewrittenThere) {
  OpenAndClose("S");
  OpenAndClose("E");
  Medium().ClearTrace();
  EXPECT_EQ(Fat_MoveFile(CPath("S"), CPath("E")), 1u);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  // The target was looked up before the object.
  EXPECT_TRUE(Made(Unmounting(RootWrite(), {}, {Write(At(90), 512), Write(At(80), 512)})));
}

TEST_P(TransfersOfMoving, FileAsTargetIsReadOnceAndRefused) {
  EXPECT_EQ(Fat_MoveFile(CPath("S"), CPath("G")), 0u);
  EXPECT_TRUE(Made({Read(At(20), 100)}));
  EXPECT_EQ(Fat_MoveFile(CPath("S"), CPath("G")), 0u);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfMoving, NameThatTheTargetHasIsFoundBeforeTheSourceIsLookedAt) {
  Close(Create("E\\F"));
  Medium().ClearTrace();
  EXPECT_EQ(Fat_MoveFile(CPath("D\\F"), CPath("E")), 0u);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfMoving, PathsAloneDecideWithoutATransfer) {
  EXPECT_EQ(Fat_MoveFile(CPath("D\\F"), CPath("D")), 1u);  // it is there
  EXPECT_EQ(Fat_MoveFile(CPath("D\\NO"), CPath("D")), 1u);
  EXPECT_EQ(Fat_MoveFile(CPath("G"), nullptr), 1u);
  EXPECT_EQ(Fat_MoveFile(CPath("D"), CPath("D\\T")), 0u);  // it would lie below itself
  EXPECT_EQ(Fat_MoveFile(CPath("D"), CPath("D")), 0u);
  EXPECT_EQ(Fat_MoveFile(CPath("NO"), CPath("MISSING")), 0u);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfMoving, OpenObjectsAreRefusedWithoutATransfer) {
  OpenAndClose("E");
  const int g = Open("G");
  const int d = Open("D");
  Medium().ClearTrace();
  EXPECT_EQ(Fat_MoveFile(CPath("G"), CPath("E")), 0u);
  EXPECT_EQ(Fat_MoveFile(CPath("S"), CPath("D")), 0u);
  EXPECT_TRUE(MadeNone());
  Close(g);
  Close(d);
}

// ---------------------------------------------------------------------------------------------- deleting

TRANSFER_WIDTHS(TransfersOfDeleting);

TEST_P(TransfersOfDeleting, ObjectNotInMemoryIsReadAsByOpening) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  volume.AddFile(d, "G", EndsAtOnce(700), {12, 13});
  volume.AddDir(volume.Root(), "E", {90});
  MountQuietly();
  EXPECT_EQ(Fat_DeleteFile(CPath("F")), 1u);
  EXPECT_TRUE(Made({ReadRun(At(10), 512), Read(At(11), 188)}));
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\G")), 1u);
  EXPECT_TRUE(Made({Read(At(100), 512), ReadRun(At(12), 512), Read(At(13), 188)}));
  EXPECT_EQ(Fat_DeleteFile(CPath("E")), 1u);
  EXPECT_TRUE(Made({Read(At(90), 512)}));
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), FatWrite(0), {Write(At(100), 512)})));
}

TEST_P(TransfersOfDeleting, EmptyFileTransfersNothingAndLeavesTheFatUnwritten) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F");
  MountQuietly();
  EXPECT_EQ(Fat_DeleteFile(CPath("F")), 1u);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), {}, {})));
}

TEST_P(TransfersOfDeleting, ObjectInMemoryTransfersNothing) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  volume.AddDir(volume.Root(), "E", {90});
  MountQuietly();
  OpenAndClose("F");
  OpenAndClose("E");
  Medium().ClearTrace();
  EXPECT_EQ(Fat_DeleteFile(CPath("F")), 1u);
  EXPECT_EQ(Fat_DeleteFile(CPath("E")), 1u);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfDeleting, ChangedDataIsStoredAsTheObjectGoes) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  MountQuietly();
  const int file = Open("F");
  Put(file, 0, 10);
  Close(file);
  Medium().ClearTrace();
  EXPECT_EQ(Fat_DeleteFile(CPath("F")), 1u);
  // Into clusters that are free by then, but have no new owner yet.
  EXPECT_TRUE(Made({WriteRun(At(10), 512), Write(At(11), 188)}));
}

TEST_P(TransfersOfDeleting, DirectoryThatIsNotEmptyIsReadEveryTime) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  volume.AddFile(d, "F");
  MountQuietly();
  EXPECT_EQ(Fat_DeleteFile(CPath("D")), 0u);
  EXPECT_TRUE(Made({Read(At(100), 512)}));
  EXPECT_EQ(Fat_DeleteFile(CPath("D")), 0u);  // deleting keeps no object
  EXPECT_TRUE(Made({Read(At(100), 512)}));
  OpenAndClose("D");
  Medium().ClearTrace();
  EXPECT_EQ(Fat_DeleteFile(CPath("D")), 0u);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfDeleting, RefusalsTransferNothing) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  EXPECT_EQ(Fat_DeleteFile(CPath("F")), 0u);
  EXPECT_EQ(Fat_DeleteFile(CPath("NO")), 0u);
  EXPECT_EQ(Fat_DeleteFile(CPath("")), 0u);
  Close(file);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, {}, {})));
}

}  // namespace
}  // namespace transfertest
