/// @file OpenTransfersTest.cpp
/// What is transferred to open a path and to list a directory: the directories on the way, once, and the start of the
/// file. Everything in memory already costs nothing.

#include "transfers/TransferFrame.h"

namespace transfertest {
namespace {

// ---------------------------------------------------------------------------------------------- files

TRANSFER_WIDTHS(TransfersOfOpening);

TEST_P(TransfersOfOpening, FileInTheRootIsReadOnceUpToABlock) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(700), {10, 11});
  MountQuietly();
  const int first = Open("F");
  EXPECT_TRUE(Made({ReadRun(At(10), 512), Read(At(11), 188)}));
  const int second = Open("F");
  EXPECT_TRUE(MadeNone());
  Close(first);
  Close(second);
  EXPECT_TRUE(MadeNone());
  OpenAndClose("f");
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfOpening, EmptyFileIsNotRead) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F");
  volume.AddFile(volume.Root(), "WITH", {}, {10, 11});  // clusters, but no size
  MountQuietly();
  OpenAndClose("F");
  OpenAndClose("WITH");
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfOpening, ShapesOfTheFirstBlock) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "ONE", EndsAtOnce(512), {10});
  volume.AddFile(volume.Root(), "TWO", EndsAtOnce(1024), {12, 13});
  volume.AddFile(volume.Root(), "BYTE", EndsAtOnce(1), {15});
  volume.AddFile(volume.Root(), "APART", EndsAtOnce(2000), {20, 22, 23, 30});
  volume.AddFile(volume.Root(), "BACK", EndsAtOnce(1536), {42, 41, 40});
  volume.AddFile(volume.Root(), "MORE", EndsAtOnce(600), {50, 51, 52});  // a cluster more than the size needs
  MountQuietly();
  OpenAndClose("ONE");
  EXPECT_TRUE(Made({Read(At(10), 512)}));  // one cluster is the last piece, not a run of whole ones
  OpenAndClose("TWO");
  EXPECT_TRUE(Made({ReadRun(At(12), 1024)}));
  OpenAndClose("BYTE");
  EXPECT_TRUE(Made({Read(At(15), 1)}));
  OpenAndClose("APART");
  EXPECT_TRUE(Made({ReadRun(At(20), 512), ReadRun(At(22), 1024), Read(At(30), 464)}));
  OpenAndClose("BACK");
  EXPECT_TRUE(Made({ReadRun(At(42), 512), ReadRun(At(41), 512), Read(At(40), 512)}));
  OpenAndClose("MORE");
  EXPECT_TRUE(Made({ReadRun(At(50), 512), Read(At(51), 88)}));
}

TEST_P(TransfersOfOpening, LongFileIsReadUpToTheBlockWithItsFirstZeroEntry) {
  CImageBuilder& volume = Build(Geometry(Bits(), 4096));
  std::vector<unsigned char> content = Dense(2 * BLOCK + 5000);
  volume.AddFile(volume.Root(), "ALL", content, Clusters(10, 130));
  content[BLOCK + 64] = 0;  // the first byte of an entry
  volume.AddFile(volume.Root(), "PART", content, Clusters(200, 130));
  content[BLOCK + 64] = 1;
  content[32 + 1] = 0;  // not the first byte
  content[0] = 0;
  volume.AddFile(volume.Root(), "START", content, Clusters(400, 130));
  MountQuietly();
  OpenAndClose("ALL");
  // 5,000 bytes are one cluster and 904 bytes more.
  EXPECT_TRUE(Made({ReadRun(At(10), BLOCK), ReadRun(At(74), BLOCK), ReadRun(At(138), 4096), Read(At(139), 904)}));
  OpenAndClose("PART");
  EXPECT_TRUE(Made({ReadRun(At(200), BLOCK), ReadRun(At(264), BLOCK)}));
  OpenAndClose("START");
  EXPECT_TRUE(Made({ReadRun(At(400), BLOCK)}));
}

TEST_P(TransfersOfOpening, DenseFileThatEndsWithABlockReadsNothingBehindIt) {
  CImageBuilder& volume = Build(Geometry(Bits(), 4096));
  volume.AddFile(volume.Root(), "EXACT", Dense(2 * BLOCK), Clusters(10, 128));
  volume.AddFile(volume.Root(), "SHORT", Dense(BLOCK + 5), Clusters(200, 65));  // less than one entry behind the block
  MountQuietly();
  OpenAndClose("EXACT");
  EXPECT_TRUE(Made({ReadRun(At(10), BLOCK), ReadRun(At(74), BLOCK)}));
  OpenAndClose("SHORT");
  EXPECT_TRUE(Made({ReadRun(At(200), BLOCK), Read(At(264), 5)}));
}

TEST_P(TransfersOfOpening, ClustersLargerThanABlockAreReadABlockAtATime) {
  CImageBuilder& volume = Build(Geometry(Bits(), 2 * BLOCK));
  volume.AddFile(volume.Root(), "F", Dense(4 * BLOCK), {10, 12});
  MountQuietly();
  OpenAndClose("F");
  // Each of these reads is the last piece of at most one cluster, or starts inside a cluster.
  EXPECT_TRUE(
      Made({Read(At(10), BLOCK), Read(At(10) + BLOCK, BLOCK), Read(At(12), BLOCK), Read(At(12) + BLOCK, BLOCK)}));
}

TEST_P(TransfersOfOpening, DamagedChainIsFoundWithoutATransfer) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "FREE", EndsAtOnce(2000), {10, 11, 12, 13});
  volume.SetFatEntry(12, 0);
  volume.AddFile(volume.Root(), "LOOP", EndsAtOnce(2000), {20, 21, 22, 23});
  volume.SetFatEntry(23, 20);
  volume.AddFile(volume.Root(), "OUT", EndsAtOnce(2000), {30, 31, 32, 33});
  volume.SetFatEntry(31, volume.Geometry().Clusters + 2);
  MountQuietly();
  for (const char* name : {"FREE", "LOOP", "OUT"}) EXPECT_EQ(Fat_OpenFile(CPath(name)), -1) << name;
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfOpening, SizeBeyondTheChainReadsTheChainAndFails) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  ENTRY_OPTIONS options;
  options.SetSize = true;
  options.Size = 5000;
  volume.AddFile(volume.Root(), "F", EndsAtOnce(1024), {10, 11}, options);
  MountQuietly();
  EXPECT_EQ(Fat_OpenFile(CPath("F")), -1);
  EXPECT_TRUE(Made({ReadRun(At(10), 1024)}));  // then there is no cluster for the rest
}

// ---------------------------------------------------------------------------------------------- paths

TRANSFER_WIDTHS(TransfersOfPaths);

TEST_P(TransfersOfPaths, EachDirectoryOnTheWayIsReadOnce) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  const CImageBuilder::DIRECTORY e = volume.AddDir(d, "A long name for E", {90});
  volume.AddFile(e, "F", EndsAtOnce(100), {80});
  volume.AddFile(e, "G", EndsAtOnce(100), {81});
  volume.AddFile(d, "H", EndsAtOnce(100), {82});
  MountQuietly();
  OpenAndClose("D\\A long name for E\\F");
  EXPECT_TRUE(Made({Read(At(100), 512), Read(At(90), 512), Read(At(80), 100)}));
  OpenAndClose("D\\A LONG NAME FOR E\\g");
  EXPECT_TRUE(Made({Read(At(81), 100)}));
  OpenAndClose("D\\H");
  EXPECT_TRUE(Made({Read(At(82), 100)}));
  OpenAndClose("D");
  OpenAndClose("D\\A long name for E");
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfPaths, DirectoryIsReadByBlocksWhateverItHolds) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddDir(volume.Root(), "D", {10, 20, 21});  // two entries, but room for 48
  MountQuietly();
  OpenAndClose("D");
  EXPECT_TRUE(Made({ReadRun(At(10), 512), ReadRun(At(20), 1024)}));
}

TEST_P(TransfersOfPaths, DirectoryLongerThanABlockIsReadUpToItsFirstUnusedSlot) {
  CImageBuilder& volume = Build(Geometry(Bits(), 0x10000));
  const CImageBuilder::DIRECTORY full = volume.AddDir(volume.Root(), "FULL", Clusters(10, 5));
  volume.Append(full, std::vector<RAW_ENTRY>(5 * 2048 - 2, StrayEntry()));
  const CImageBuilder::DIRECTORY half = volume.AddDir(volume.Root(), "HALF", Clusters(20, 5));
  volume.Append(half, std::vector<RAW_ENTRY>(4 * 2048 - 3, StrayEntry()));  // the last slot of block 0 is unused
  MountQuietly();
  OpenAndClose("FULL");
  EXPECT_TRUE(Made({ReadRun(At(10), BLOCK), Read(At(14), 0x10000)}));
  OpenAndClose("HALF");
  EXPECT_TRUE(Made({ReadRun(At(20), BLOCK)}));
}

TEST_P(TransfersOfPaths, MissingNameIsLookedForInMemory) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  volume.AddDir(d, "E", {90});
  MountQuietly();
  EXPECT_EQ(Fat_OpenFile(CPath("NO")), -1);
  EXPECT_EQ(Fat_OpenFile(CPath("NO\\F")), -1);
  EXPECT_TRUE(MadeNone());
  EXPECT_EQ(Fat_OpenFile(CPath("D\\NO\\F")), -1);
  EXPECT_TRUE(Made({Read(At(100), 512)}));  // E is not read for it
  EXPECT_EQ(Fat_OpenFile(CPath("D\\NO\\F")), -1);
  EXPECT_EQ(Fat_OpenFile(CPath("D\\NO")), -1);
  EXPECT_TRUE(MadeNone());
  EXPECT_EQ(Fat_OpenFile(CPath("D\\E\\NO")), -1);
  EXPECT_TRUE(Made({Read(At(90), 512)}));
  EXPECT_EQ(Fat_OpenFile(CPath("D\\E\\NO")), -1);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfPaths, PathBelowAFileReadsThatFile) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(100), {10});
  MountQuietly();
  EXPECT_EQ(Fat_OpenFile(CPath("F\\X")), -1);
  EXPECT_TRUE(Made({Read(At(10), 100)}));
  EXPECT_EQ(Fat_OpenFile(CPath("F\\X")), -1);
  OpenAndClose("F");
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfPaths, RefusedPathsAndHandlesTransferNothing) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(100), {10});
  volume.AddFile(volume.Root(), "G", EndsAtOnce(100), {11});
  volume.AddDir(volume.Root(), "D", {12});
  MountQuietly();
  for (const char* path : {"", "\\", "D\\\\F", "D\\..\\F", "F*", "D\\F?"}) {
    EXPECT_EQ(Fat_OpenFile(CPath(path)), -1) << path;
  }
  EXPECT_EQ(Fat_OpenFile(CPath(std::string("D\\") + std::string(260, 'X'))), -1);
  EXPECT_EQ(Fat_OpenFile(nullptr), -1);
  EXPECT_TRUE(MadeNone());
  std::vector<int> handles;
  for (unsigned int i = 0; i < 160; ++i) handles.push_back(Open("F"));
  EXPECT_TRUE(Made({Read(At(10), 100)}));
  EXPECT_EQ(Fat_OpenFile(CPath("G")), -1);  // the table is full, so the path is not even looked up
  EXPECT_EQ(Fat_CreateFile(CPath("D\\NEW"), 100, 0), -1);
  for (const int handle : handles) Close(handle);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfPaths, FailedDirectoryReadIsTriedAgainByTheNextOpen) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  volume.AddFile(d, "F", EndsAtOnce(100), {80});
  MountQuietly();
  Medium().FailAt(1, FAULT_ONCE);
  EXPECT_EQ(Fat_OpenFile(CPath("D\\F")), -1);
  EXPECT_TRUE(Made({Read(At(100), 512)}));
  Medium().FailAt(2, FAULT_ONCE);
  EXPECT_EQ(Fat_OpenFile(CPath("D\\F")), -1);
  EXPECT_TRUE(Made({Read(At(100), 512), Read(At(80), 100)}));
  OpenAndClose("D\\F");
  EXPECT_TRUE(Made({Read(At(80), 100)}));
}

TEST_P(TransfersOfPaths, QueriesTransferNothing) {
  CImageBuilder& volume = Build(Geometry(Bits(), 4096));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(3 * BLOCK), Clusters(10, 192));
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  unsigned int value = 0;
  WIN_FIND_DATA data{};
  EXPECT_EQ(Fat_GetFileSize(file, &value), 1u);
  EXPECT_EQ(Fat_SetFileOffset(file, 2 * BLOCK + 5, 0), 1u);
  EXPECT_EQ(Fat_SetFileOffset(file, 1000, 1), 1u);
  EXPECT_EQ(Fat_SetFileOffset(file, BLOCK, 2), 1u);
  EXPECT_EQ(Fat_GetFileOffset(file, &value), 1u);
  EXPECT_EQ(value, 2 * BLOCK);
  EXPECT_EQ(Fat_IsDir(file), 0u);
  EXPECT_EQ(Fat_GetFileAttribute(file, &data), 1u);
  Close(file);
  EXPECT_EQ(Fat_GetFileSize(file, &value), 0u);
  EXPECT_TRUE(MadeNone());
}

// ---------------------------------------------------------------------------------------------- listings

TRANSFER_WIDTHS(TransfersOfListing);

TEST_P(TransfersOfListing, FirstSearchReadsTheDirectoryAndTheRestComesFromMemory) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  volume.AddFile(d, "F", EndsAtOnce(700), {10, 11});
  volume.AddFile(d, "G", EndsAtOnce(700), {12, 13});
  MountQuietly();
  WIN_FIND_DATA data{};
  const int search = Fat_FindFirstFile(CPath("D"), &data);
  EXPECT_GE(search, 0);
  EXPECT_TRUE(Made({Read(At(100), 512)}));
  for (unsigned int i = 0; i < 3; ++i) EXPECT_EQ(Fat_FindNextFile(search, &data), 1u);  // "..", F, G: none is read
  EXPECT_EQ(Fat_FindNextFile(search, &data), 0u);
  EXPECT_EQ(Fat_FindNextFile(search, &data), 1u);  // round again
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  EXPECT_EQ(List("D").size(), 2u);
  EXPECT_EQ(List("D").size(), 2u);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfListing, NestedDirectoryReadsItsParentsFirst) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  const CImageBuilder::DIRECTORY e = volume.AddDir(d, "E", {90, 91});
  volume.AddFile(e, "F", EndsAtOnce(700), {10, 11});
  MountQuietly();
  EXPECT_EQ(List("D\\E").size(), 1u);
  EXPECT_TRUE(Made({Read(At(100), 512), ReadRun(At(90), 1024)}));
  EXPECT_EQ(List("D").size(), 1u);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfListing, LongDirectoryIsReadWhollyByTheFirstCall) {
  CImageBuilder& volume = Build(Geometry(Bits(), 4096));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", Clusters(10, 150));
  volume.Append(d, std::vector<RAW_ENTRY>(150 * 128 - 3, StrayEntry()));
  volume.AddFile(d, "LAST");
  MountQuietly();
  WIN_FIND_DATA data{};
  const int search = Fat_FindFirstFile(CPath("D"), &data);
  EXPECT_GE(search, 0);
  EXPECT_TRUE(Made({ReadRun(At(10), BLOCK), ReadRun(At(74), BLOCK), ReadRun(At(138), 22 * 4096)}));
  EXPECT_EQ(Fat_FindNextFile(search, &data), 1u);
  EXPECT_EQ(Fat_FindNextFile(search, &data), 1u);
  EXPECT_EQ(ToListed(data).Name(), "LAST");
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfListing, SearchOfAFileOpensItAndFails) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddFile(volume.Root(), "F", EndsAtOnce(100), {10});
  MountQuietly();
  WIN_FIND_DATA data{};
  EXPECT_EQ(Fat_FindFirstFile(CPath("F"), &data), -1);
  EXPECT_TRUE(Made({Read(At(10), 100)}));
  EXPECT_EQ(Fat_FindFirstFile(CPath("F"), &data), -1);
  EXPECT_EQ(Fat_FindFirstFile(CPath("NO"), &data), -1);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfListing, FullTableOfSearchesTransfersNothing) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  volume.AddDir(volume.Root(), "D", {10});
  volume.AddDir(volume.Root(), "E", {11});
  MountQuietly();
  WIN_FIND_DATA data{};
  std::vector<int> searches;
  for (unsigned int i = 0; i < 32; ++i) searches.push_back(Fat_FindFirstFile(CPath("D"), &data));
  EXPECT_TRUE(Made({Read(At(10), 512)}));
  EXPECT_EQ(Fat_FindFirstFile(CPath("E"), &data), -1);
  for (const int search : searches) EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  EXPECT_TRUE(MadeNone());
}

}  // namespace
}  // namespace transfertest
