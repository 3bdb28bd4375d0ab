/// @file WriteTransfersTest.cpp
/// What is transferred to write a file. Writing changes blocks in memory: a block that is covered in part is read
/// first, nothing is written before the file's object goes or the memory is needed.

#include "transfers/TransferFrame.h"

namespace transfertest {
namespace {

constexpr unsigned int CLUSTER = 4096;

class TransfersOfWriting : public TransfersOfAFile {
 protected:
  /// Closes, which writes nothing, and unmounts, which writes the blocks of F given. Directory and FAT are unchanged.
  void ExpectStored(const TRANSFERS& blocks) {
    Close(m_hFile);
    EXPECT_TRUE(MadeNone());
    EXPECT_TRUE(UnmountTraced());
    EXPECT_TRUE(Made(Unmounting({}, {}, blocks)));
  }
  /// A whole block of F, stored.
  IO_RECORD Stored(unsigned int block) const { return WriteRun(Pos(std::uint64_t{block} * BLOCK), BLOCK); }
};
INSTANTIATE_TEST_SUITE_P(Widths, TransfersOfWriting, ::testing::Values(12u, 16u, 32u), WidthName);

// ---------------------------------------------------------------------------------------------- into memory

TEST_P(TransfersOfWriting, BlockInMemoryIsStoredWholeAndOnce) {
  Put(m_hFile, 10, 1);
  Put(m_hFile, 1000, 500);
  Put(m_hFile, 0, BLOCK);
  EXPECT_TRUE(MadeNone());
  ExpectStored({Stored(0)});
}

TEST_P(TransfersOfWriting, WholeBlockIsNotReadFirst) {
  PutBlock(m_hFile, 3);
  EXPECT_TRUE(MadeNone());
  GetBlock(m_hFile, 3);
  Put(m_hFile, 3 * BLOCK + 7, 1);
  EXPECT_TRUE(MadeNone());
  ExpectStored({Stored(3)});
}

TEST_P(TransfersOfWriting, SeveralWholeBlocksAreNotReadFirst) {
  Put(m_hFile, 2 * BLOCK, 4 * BLOCK);
  EXPECT_TRUE(MadeNone());
  ExpectStored({Stored(2), Stored(3), Stored(4), Stored(5)});  // a transfer a block, although they lie together
}

TEST_P(TransfersOfWriting, BlockCoveredInPartIsReadFirst) {
  Put(m_hFile, 3 * BLOCK + 10, 1);  // its middle
  EXPECT_TRUE(Made({ReadRun(Pos(3 * BLOCK), BLOCK)}));
  Put(m_hFile, 5 * BLOCK, BLOCK - 1);  // all but its last byte
  EXPECT_TRUE(Made({ReadRun(Pos(5 * BLOCK), BLOCK)}));
  Put(m_hFile, 7 * BLOCK + 1, BLOCK - 1);  // all but its first byte
  EXPECT_TRUE(Made({ReadRun(Pos(7 * BLOCK), BLOCK)}));
  ExpectStored({Stored(3), Stored(5), Stored(7)});
}

TEST_P(TransfersOfWriting, LastBlockCountsAsCoveredInPartEvenWhenAllOfItsBytesAreWritten) {
  Put(m_hFile, 12 * BLOCK, 100);
  EXPECT_TRUE(Made({Read(Pos(12 * BLOCK), 100)}));
  ExpectStored({Write(Pos(12 * BLOCK), 100)});  // cut at the size
}

TEST_P(TransfersOfWriting, FirstAndLastPartAreReadInThatOrder) {
  Put(m_hFile, 1 * BLOCK + 0x100, 4 * BLOCK);  // to 0x100 into block 5
  EXPECT_TRUE(Made({ReadRun(Pos(1 * BLOCK), BLOCK), ReadRun(Pos(5 * BLOCK), BLOCK)}));
  ExpectStored({Stored(1), Stored(2), Stored(3), Stored(4), Stored(5)});
}

TEST_P(TransfersOfWriting, BlocksInMemoryDivideTheRequest) {
  GetBlock(m_hFile, 2);
  Medium().ClearTrace();
  Put(m_hFile, 0x40100, 0x100000 - 0xF0);  // to 0x140010
  EXPECT_TRUE(Made({ReadRun(Pos(0x40000), BLOCK), ReadRun(Pos(0x140000), BLOCK)}));
  ExpectStored({Stored(1), Stored(2), Stored(3), Stored(4), Stored(5)});
}

TEST_P(TransfersOfWriting, WholeFileReadsItsLastBytesOnly) {
  Put(m_hFile, 0, SIZE);
  EXPECT_TRUE(Made({Read(Pos(12 * BLOCK), 100)}));
  TRANSFERS stored;
  for (unsigned int block = 0; block < 12; ++block) stored.push_back(Stored(block));
  stored.push_back(Write(Pos(12 * BLOCK), 100));
  ExpectStored(stored);
}

TEST_P(TransfersOfWriting, CountIsCutAtTheSize) {
  Put(m_hFile, 11 * BLOCK, 10 * BLOCK);
  EXPECT_TRUE(Made({Read(Pos(12 * BLOCK), 100)}));
  ExpectStored({Stored(11), Write(Pos(12 * BLOCK), 100)});
}

TEST_P(TransfersOfWriting, BeyondTheSizeAndBelowZeroNothingIsTransferred) {
  unsigned char byte = 0;
  unsigned int count = 0;
  EXPECT_EQ(Fat_WriteFileEx(m_hFile, SIZE, 1, &byte, &count), 0u);
  EXPECT_EQ(Fat_WriteFileEx(m_hFile, -5, 1, &byte, &count), 0u);
  EXPECT_EQ(Fat_WriteFileEx(m_hFile, -static_cast<long long>(BLOCK), 1, &byte, &count), 0u);
  EXPECT_EQ(Fat_WriteFileEx(m_hFile, BLOCK, 1, nullptr, &count), 0u);
  EXPECT_EQ(Fat_WriteFileEx(158, BLOCK, 1, &byte, &count), 0u);
  EXPECT_EQ(Fat_SetFileOffset(m_hFile, SIZE, 0), 1u);
  EXPECT_EQ(Fat_WriteFile(m_hFile, 1, &byte, &count), 1u);
  EXPECT_TRUE(MadeNone());
  ExpectStored({});
}

TEST_P(TransfersOfWriting, NoBytesLoadAndMarkABlockOnlyFromItsMiddle) {
  Put(m_hFile, 3 * BLOCK, 0);
  EXPECT_TRUE(MadeNone());
  Put(m_hFile, 3 * BLOCK + 10, 0);
  EXPECT_TRUE(Made({ReadRun(Pos(3 * BLOCK), BLOCK)}));
  ExpectStored({Stored(3)});
}

TEST_P(TransfersOfWriting, ReadAfterWriteComesFromMemory) {
  PutBlock(m_hFile, 3);
  PutBlock(m_hFile, 4);
  Get(m_hFile, 2 * BLOCK, 4 * BLOCK);
  EXPECT_TRUE(Made({ReadRun(Pos(2 * BLOCK), BLOCK), ReadRun(Pos(5 * BLOCK), BLOCK)}));
  ExpectStored({Stored(3), Stored(4)});
}

TEST_P(TransfersOfWriting, SequentialWritingIsTheSameByItsOffset) {
  std::vector<unsigned char> buffer(BLOCK);
  unsigned int count = 0;
  for (unsigned int block = 0; block < 12; ++block) {
    EXPECT_EQ(Fat_WriteFile(m_hFile, BLOCK, buffer.data(), &count), 1u);
  }
  EXPECT_TRUE(MadeNone());
  EXPECT_EQ(Fat_WriteFile(m_hFile, BLOCK, buffer.data(), &count), 1u);
  EXPECT_TRUE(Made({Read(Pos(12 * BLOCK), 100)}));
  TRANSFERS stored;
  for (unsigned int block = 0; block < 12; ++block) stored.push_back(Stored(block));
  stored.push_back(Write(Pos(12 * BLOCK), 100));
  ExpectStored(stored);
}

TEST_P(TransfersOfWriting, OddBufferAddressChangesNothing) {
  std::vector<unsigned char> buffer(4 * BLOCK + 1);
  unsigned int count = 0;
  EXPECT_EQ(Fat_WriteFileEx(m_hFile, BLOCK + 10, 4 * BLOCK, buffer.data() + 1, &count), 1u);
  EXPECT_TRUE(Made({ReadRun(Pos(1 * BLOCK), BLOCK), ReadRun(Pos(5 * BLOCK), BLOCK)}));
  ExpectStored({Stored(1), Stored(2), Stored(3), Stored(4), Stored(5)});
}

TEST_P(TransfersOfWriting, FailedReadOfThePartlyCoveredBlockEndsTheRequest) {
  std::vector<unsigned char> buffer(4 * BLOCK);
  unsigned int count = 0;
  Medium().FailAt(1, FAULT_ONCE);
  EXPECT_EQ(Fat_WriteFileEx(m_hFile, BLOCK + 10, 4 * BLOCK, buffer.data(), &count), 0u);
  EXPECT_TRUE(Made({ReadRun(Pos(1 * BLOCK), BLOCK)}));
  ExpectStored({});
}

// ---------------------------------------------------------------------------------------------- storing

TEST_P(TransfersOfWriting, BlocksAreStoredInAscendingOrderHoweverTheyWereWritten) {
  for (const unsigned int block : {7u, 2u, 11u, 5u, 2u}) PutBlock(m_hFile, block);
  GetBlock(m_hFile, 4);  // clean: not stored
  Medium().ClearTrace();
  ExpectStored({Stored(2), Stored(5), Stored(7), Stored(11)});
}

TEST_P(TransfersOfWriting, ClosingAndOpeningAgainTransfersNothing) {
  PutBlock(m_hFile, 3);
  Close(m_hFile);
  m_hFile = Open("F");
  GetBlock(m_hFile, 3);
  EXPECT_TRUE(MadeNone());
  ExpectStored({Stored(3)});
}

TEST_P(TransfersOfWriting, FailedStoreIsNotRepeatedAndEndsTheStoringOfItsBucketOnly) {
  for (const unsigned int block : {2u, 5u, 7u}) PutBlock(m_hFile, block);
  Medium().FailRange(static_cast<long long>(Pos(5 * BLOCK)), 1, IO_FILTER::Writes);
  ExpectStored({Stored(2), Stored(5), Stored(7)});
}

TRANSFER_WIDTHS(TransfersOfStoring);

TEST_P(TransfersOfStoring, FileOfMoreThan269BlocksIsStoredByTheRestOfThat) {
  FAT_GEOMETRY geometry = Geometry(Bits(), 0x10000);
  geometry.Clusters = Bits() == 12 ? 4000 : 5000;
  CImageBuilder& volume = Build(geometry);
  AddHoles(volume, volume.Root(), "F", 600 * BLOCK, Clusters(10, 600 * 4));
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  // Blocks whose numbers have the same rest by 269 are kept together, in the order in which they came: 0 was read by
  // opening, then 538 and 269.
  for (const unsigned int block : {270u, 538u, 268u, 269u, 0u, 1u, 539u}) PutBlock(file, block);
  EXPECT_TRUE(MadeNone());
  Close(file);
  EXPECT_TRUE(UnmountTraced());
  TRANSFERS stored;
  for (const unsigned int block : {0u, 538u, 269u, 270u, 1u, 539u, 268u}) {
    stored.push_back(WriteRun(At(10) + std::uint64_t{block} * BLOCK, BLOCK));
  }
  EXPECT_TRUE(Made(Unmounting({}, {}, stored)));
}

TEST_P(TransfersOfStoring, FailedStoreEndsThatOfTheBlocksKeptTogetherWithIt) {
  FAT_GEOMETRY geometry = Geometry(Bits(), 0x10000);
  geometry.Clusters = Bits() == 12 ? 4000 : 5000;
  CImageBuilder& volume = Build(geometry);
  AddHoles(volume, volume.Root(), "F", 600 * BLOCK, Clusters(10, 600 * 4));
  MountQuietly();
  const int file = Open("F");
  for (const unsigned int block : {0u, 269u, 538u, 1u}) PutBlock(file, block);
  Close(file);
  Medium().ClearTrace();
  const auto place = [this](unsigned int block) { return At(10) + std::uint64_t{block} * BLOCK; };
  Medium().FailRange(static_cast<long long>(place(269)), 1, IO_FILTER::Writes);
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(
      {}, {}, {WriteRun(place(0), BLOCK), WriteRun(place(269), BLOCK), WriteRun(place(1), BLOCK)})));  // 538 is lost
}

TEST_P(TransfersOfStoring, EachRunOfABlockIsOneTransfer) {
  CImageBuilder& volume = Build(Geometry(Bits(), CLUSTER));
  std::vector<std::uint32_t> chain = Clusters(10, 64);
  for (const std::vector<std::uint32_t>& run :
       {Clusters(100, 10), Clusters(200, 50), Clusters(300, 4 + 63), Clusters(400, 1), Clusters(500, 2)}) {
    chain.insert(chain.end(), run.begin(), run.end());
  }
  AddHoles(volume, volume.Root(), "F", 3 * BLOCK + CLUSTER + 7, chain);
  MountQuietly();
  const int file = Open("F");
  Put(file, 0, 3 * BLOCK + CLUSTER + 7);
  Close(file);
  Medium().ClearTrace();
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, {},
                              {WriteRun(At(10), BLOCK),                                           // block 0
                               WriteRun(At(100), 10 * CLUSTER), WriteRun(At(200), 50 * CLUSTER),  // block 1
                               WriteRun(At(300), 4 * CLUSTER),                                    //
                               WriteRun(At(304), 63 * CLUSTER), Write(At(400), CLUSTER),          // block 2
                               WriteRun(At(500), CLUSTER), Write(At(501), 7)})));                 // block 3
}

TEST_P(TransfersOfStoring, ClusterOfTheSizeOfABlockIsStoredInTheByteForm) {
  CImageBuilder& volume = Build(Geometry(Bits(), BLOCK));
  AddHoles(volume, volume.Root(), "F", 3 * BLOCK, {10, 11, 13});
  MountQuietly();
  const int file = Open("F");
  Put(file, 0, 3 * BLOCK);
  Close(file);
  Medium().ClearTrace();
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, {}, {Write(At(10), BLOCK), Write(At(11), BLOCK), Write(At(13), BLOCK)})));
}

TEST_P(TransfersOfStoring, ClusterLargerThanABlockIsStoredInPieces) {
  CImageBuilder& volume = Build(Geometry(Bits(), 2 * BLOCK));
  AddHoles(volume, volume.Root(), "F", 3 * BLOCK + 10, {10, 13});
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  PutBlock(file, 1);
  EXPECT_TRUE(MadeNone());
  Put(file, 3 * BLOCK + 5, 5);
  EXPECT_TRUE(Made({Read(At(13) + BLOCK, 10)}));
  Close(file);
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, {}, {Write(At(10) + BLOCK, BLOCK), Write(At(13) + BLOCK, 10)})));
}

TEST_P(TransfersOfStoring, WritingThroughADirectoryHandleGoesToItsAllocation) {
  CImageBuilder& volume = Build(Geometry(Bits(), CLUSTER));
  volume.AddDir(volume.Root(), "D", {10, 12});
  MountQuietly();
  const int dir = Open("D");
  Medium().ClearTrace();
  Put(dir, CLUSTER, CLUSTER);
  Close(dir);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting({}, {}, {WriteRun(At(10), CLUSTER), Write(At(12), CLUSTER)})));
}

TEST_P(TransfersOfStoring, AttributesAreStoredWithTheDirectory) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100});
  volume.AddFile(volume.Root(), "F", EndsAtOnce(100), {10});
  volume.AddFile(d, "G", EndsAtOnce(100), {11});
  MountQuietly();
  const int f = Open("F");
  const int g = Open("D\\G");
  Medium().ClearTrace();
  WIN_FIND_DATA data{};
  data.dwFileAttributes = 0x21;
  EXPECT_EQ(Fat_SetFileAttribute(f, &data), 1u);
  EXPECT_EQ(Fat_SetFileAttribute(g, &data), 1u);
  Close(f);
  Close(g);
  EXPECT_TRUE(MadeNone());
  EXPECT_TRUE(UnmountTraced());
  EXPECT_TRUE(Made(Unmounting(RootWrite(), {}, {Write(At(100), 512)})));
}

}  // namespace
}  // namespace transfertest
