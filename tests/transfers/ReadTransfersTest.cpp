/// @file ReadTransfersTest.cpp
/// What is transferred to read a file: whole blocks, once, one transfer for each run of clusters that lies together.

#include "transfers/TransferFrame.h"

namespace transfertest {
namespace {

constexpr unsigned int CLUSTER = 4096;

class TransfersOfReading : public TransfersOfAFile {
 protected:
  void TearDown() override {
    Close(m_hFile);
    TransfersOfAFile::TearDown();
  }
};
INSTANTIATE_TEST_SUITE_P(Widths, TransfersOfReading, ::testing::Values(12u, 16u, 32u), WidthName);

// ---------------------------------------------------------------------------------------------- one block

TEST_P(TransfersOfReading, BlockInMemoryIsNotReadAgain) {
  Get(m_hFile, 0, 100);
  Get(m_hFile, 100, 100);
  Get(m_hFile, 1, BLOCK - 1);
  Get(m_hFile, 0, BLOCK);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfReading, AnyPartOfABlockReadsTheWholeBlockOnce) {
  Get(m_hFile, 1 * BLOCK, BLOCK);  // all of it
  EXPECT_TRUE(Made({ReadRun(Pos(1 * BLOCK), BLOCK)}));
  Get(m_hFile, 2 * BLOCK, 100);  // its start
  EXPECT_TRUE(Made({ReadRun(Pos(2 * BLOCK), BLOCK)}));
  Get(m_hFile, 3 * BLOCK + 10, 100);  // its middle
  EXPECT_TRUE(Made({ReadRun(Pos(3 * BLOCK), BLOCK)}));
  Get(m_hFile, 5 * BLOCK - 1, 1);  // its last byte
  EXPECT_TRUE(Made({ReadRun(Pos(4 * BLOCK), BLOCK)}));
  for (unsigned int block = 0; block < 5; ++block) GetBlock(m_hFile, block);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfReading, LastBlockIsReadUpToTheSize) {
  Get(m_hFile, 12 * BLOCK + 99, 1);
  EXPECT_TRUE(Made({Read(Pos(12 * BLOCK), 100)}));
  Get(m_hFile, 12 * BLOCK, 100);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfReading, CountIsCutAtTheSize) {
  Get(m_hFile, 12 * BLOCK, 5000);
  EXPECT_TRUE(Made({Read(Pos(12 * BLOCK), 100)}));
}

TEST_P(TransfersOfReading, BeyondTheSizeAndBelowZeroNothingIsRead) {
  unsigned char byte = 0;
  unsigned int count = 0;
  EXPECT_EQ(Fat_ReadFileEx(m_hFile, SIZE, 1, &byte, &count), 0u);
  EXPECT_EQ(Fat_ReadFileEx(m_hFile, SIZE + 1000ll, 1, &byte, &count), 0u);
  EXPECT_EQ(Fat_ReadFileEx(m_hFile, -1, 1, &byte, &count), 0u);
  EXPECT_EQ(Fat_ReadFileEx(m_hFile, 0x7FFFFFFFFFFFFFFF, 1, &byte, &count), 0u);
  EXPECT_EQ(Fat_ReadFileEx(m_hFile, BLOCK, 1, nullptr, &count), 0u);
  EXPECT_EQ(Fat_ReadFileEx(m_hFile, BLOCK, 1, &byte, nullptr), 0u);
  EXPECT_EQ(Fat_ReadFileEx(159, BLOCK, 1, &byte, &count), 0u);
  EXPECT_EQ(Fat_SetFileOffset(m_hFile, SIZE, 0), 1u);
  EXPECT_EQ(Fat_ReadFile(m_hFile, 1, &byte, &count), 1u);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfReading, NoBytesReadABlockOnlyFromItsMiddle) {
  Get(m_hFile, 3 * BLOCK, 0);
  Get(m_hFile, 0, 0);
  Get(m_hFile, 10, 0);
  EXPECT_TRUE(MadeNone());
  Get(m_hFile, 3 * BLOCK + 10, 0);
  EXPECT_TRUE(Made({ReadRun(Pos(3 * BLOCK), BLOCK)}));
}

// ---------------------------------------------------------------------------------------------- several blocks

TEST_P(TransfersOfReading, WholeBlocksThatLieTogetherAreOneTransfer) {
  Get(m_hFile, 1 * BLOCK, 5 * BLOCK);
  EXPECT_TRUE(Made({ReadRun(Pos(1 * BLOCK), 5 * BLOCK)}));
  Get(m_hFile, 1 * BLOCK, 5 * BLOCK);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfReading, FirstAndLastPartAreReadAsWholeBlocksOfTheirOwn) {
  Get(m_hFile, 1 * BLOCK + 0x100, 4 * BLOCK);            // to 0x100 into block 5
  EXPECT_TRUE(Made({ReadRun(Pos(1 * BLOCK), BLOCK),      // the block that the request starts in
                    ReadRun(Pos(2 * BLOCK), 3 * BLOCK),  // all that it covers
                    ReadRun(Pos(5 * BLOCK), BLOCK)}));   // the block that it ends in
}

TEST_P(TransfersOfReading, FirstPartThatReachesABlockEndHasNoLastPart) {
  Get(m_hFile, 1 * BLOCK + 0x100, BLOCK - 0x100);
  EXPECT_TRUE(Made({ReadRun(Pos(1 * BLOCK), BLOCK)}));
  Get(m_hFile, 3 * BLOCK + 0x100, 2 * BLOCK - 0x100);
  EXPECT_TRUE(Made({ReadRun(Pos(3 * BLOCK), BLOCK), ReadRun(Pos(4 * BLOCK), BLOCK)}));
}

TEST_P(TransfersOfReading, TwoPartsAcrossABlockEndAreTwoTransfers) {
  Get(m_hFile, 3 * BLOCK - 10, 20);
  EXPECT_TRUE(Made({ReadRun(Pos(2 * BLOCK), BLOCK), ReadRun(Pos(3 * BLOCK), BLOCK)}));
}

TEST_P(TransfersOfReading, BlocksInMemoryDivideTheTransfer) {
  GetBlock(m_hFile, 2);
  Medium().ClearTrace();
  Get(m_hFile, 0x40100, 0x100000 - 0xF0);                // to 0x140010
  EXPECT_TRUE(Made({ReadRun(Pos(0x40000), 0x40000),      // block 1, from its middle
                    ReadRun(Pos(0xC0000), 0x80000),      // blocks 3 and 4
                    ReadRun(Pos(0x140000), 0x40000)}));  // block 5, for 16 bytes
  GetBlock(m_hFile, 8);
  GetBlock(m_hFile, 10);
  Medium().ClearTrace();
  Get(m_hFile, 6 * BLOCK, SIZE - 6 * BLOCK);
  EXPECT_TRUE(Made({ReadRun(Pos(6 * BLOCK), 2 * BLOCK), ReadRun(Pos(9 * BLOCK), BLOCK), ReadRun(Pos(11 * BLOCK), BLOCK),
                    Read(Pos(12 * BLOCK), 100)}));
  Get(m_hFile, 0, SIZE);
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfReading, StartInMemoryAndAMissBehindIt) {
  Get(m_hFile, 100, 2 * BLOCK);
  EXPECT_TRUE(Made({ReadRun(Pos(1 * BLOCK), BLOCK), ReadRun(Pos(2 * BLOCK), BLOCK)}));
}

TEST_P(TransfersOfReading, WholeFileIsOneTransferAndItsLastBytes) {
  Get(m_hFile, 0, SIZE);
  EXPECT_TRUE(Made({ReadRun(Pos(1 * BLOCK), 11 * BLOCK), Read(Pos(12 * BLOCK), 100)}));
}

TEST_P(TransfersOfReading, OddBufferAddressChangesNothing) {
  std::vector<unsigned char> buffer(5 * BLOCK + 1);
  unsigned int count = 0;
  EXPECT_EQ(Fat_ReadFileEx(m_hFile, BLOCK + 10, 4 * BLOCK, buffer.data() + 1, &count), 1u);
  EXPECT_TRUE(
      Made({ReadRun(Pos(1 * BLOCK), BLOCK), ReadRun(Pos(2 * BLOCK), 3 * BLOCK), ReadRun(Pos(5 * BLOCK), BLOCK)}));
}

TEST_P(TransfersOfReading, SequentialReadingIsTheSameByItsOffset) {
  std::vector<unsigned char> buffer(BLOCK);
  unsigned int count = 0;
  for (unsigned int block = 0; block < 12; ++block) {
    EXPECT_EQ(Fat_ReadFile(m_hFile, BLOCK, buffer.data(), &count), 1u);
    EXPECT_TRUE(Made(block == 0 ? TRANSFERS{} : TRANSFERS{ReadRun(Pos(block * BLOCK), BLOCK)})) << block;
  }
  EXPECT_EQ(Fat_ReadFile(m_hFile, BLOCK, buffer.data(), &count), 1u);
  EXPECT_TRUE(Made({Read(Pos(12 * BLOCK), 100)}));
  EXPECT_EQ(Fat_SetFileOffset(m_hFile, 0, 0), 1u);
  for (unsigned int block = 0; block < 13; ++block) {
    EXPECT_EQ(Fat_ReadFile(m_hFile, BLOCK, buffer.data(), &count), 1u);
  }
  EXPECT_TRUE(MadeNone());
}

TEST_P(TransfersOfReading, FailedReadEndsTheRequestAndIsTriedAgain) {
  std::vector<unsigned char> buffer(4 * BLOCK);
  unsigned int count = 0;
  Medium().FailAt(2, FAULT_ONCE);
  EXPECT_EQ(Fat_ReadFileEx(m_hFile, BLOCK + 0x100, 4 * BLOCK, buffer.data(), &count), 0u);
  EXPECT_TRUE(Made({ReadRun(Pos(1 * BLOCK), BLOCK), ReadRun(Pos(2 * BLOCK), 3 * BLOCK)}));
  // Block 1 stayed in memory.
  EXPECT_EQ(Fat_ReadFileEx(m_hFile, BLOCK + 0x100, 4 * BLOCK, buffer.data(), &count), 1u);
  EXPECT_TRUE(Made({ReadRun(Pos(2 * BLOCK), 3 * BLOCK), ReadRun(Pos(5 * BLOCK), BLOCK)}));
}

TEST_P(TransfersOfReading, ShortReadIsNoReasonToReadAgain) {
  Medium().ShortenReadAt(1, 1000);
  Get(m_hFile, BLOCK, 2 * BLOCK);
  Get(m_hFile, BLOCK, 2 * BLOCK);
  EXPECT_TRUE(Made({ReadRun(Pos(1 * BLOCK), 2 * BLOCK)}));
}

TEST_P(TransfersOfReading, TwoHandlesOfAPathShareTheBlocks) {
  const int other = Open("f");
  GetBlock(other, 3);
  EXPECT_TRUE(Made({ReadRun(Pos(3 * BLOCK), BLOCK)}));
  GetBlock(m_hFile, 3);
  Close(other);
  GetBlock(m_hFile, 3);
  EXPECT_TRUE(MadeNone());
}

// ---------------------------------------------------------------------------------------------- shapes of the chain

TRANSFER_WIDTHS(TransfersOfChains);

TEST_P(TransfersOfChains, EachRunIsOneTransfer) {
  CImageBuilder& volume = Build(Geometry(Bits(), CLUSTER));
  // Block 0 is one run. Block 1 is 10, 50 and 4 clusters; the last 4 go on into block 2, which ends with one single
  // cluster; the last run has a whole cluster and a part.
  std::vector<std::uint32_t> chain = Clusters(10, 64);
  for (const std::vector<std::uint32_t>& run :
       {Clusters(100, 10), Clusters(200, 50), Clusters(300, 4 + 63), Clusters(400, 1), Clusters(500, 2)}) {
    chain.insert(chain.end(), run.begin(), run.end());
  }
  AddHoles(volume, volume.Root(), "F", 3 * BLOCK + CLUSTER + 7, chain);
  MountQuietly();
  const int file = Open("F");
  EXPECT_TRUE(Made({ReadRun(At(10), BLOCK)}));
  GetBlock(file, 1);
  EXPECT_TRUE(Made({ReadRun(At(100), 10 * CLUSTER), ReadRun(At(200), 50 * CLUSTER), ReadRun(At(300), 4 * CLUSTER)}));
  Get(file, 2 * BLOCK + 5, 1);
  EXPECT_TRUE(Made({ReadRun(At(304), 63 * CLUSTER), Read(At(400), CLUSTER)}));  // at most one cluster is the byte form
  Get(file, 3 * BLOCK, 1);
  EXPECT_TRUE(Made({ReadRun(At(500), CLUSTER), Read(At(501), 7)}));
  Close(file);
}

TEST_P(TransfersOfChains, RunAcrossBlocksIsOneTransfer) {
  CImageBuilder& volume = Build(Geometry(Bits(), CLUSTER));
  std::vector<std::uint32_t> chain = Clusters(10, 64);
  for (const std::vector<std::uint32_t>& run : {Clusters(100, 10), Clusters(200, 150), Clusters(400, 32)}) {
    chain.insert(chain.end(), run.begin(), run.end());
  }
  AddHoles(volume, volume.Root(), "F", 4 * BLOCK, chain);
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  Get(file, BLOCK, 3 * BLOCK);
  EXPECT_TRUE(Made({ReadRun(At(100), 10 * CLUSTER), ReadRun(At(200), 150 * CLUSTER), ReadRun(At(400), 32 * CLUSTER)}));
  Close(file);
}

TEST_P(TransfersOfChains, FailedRunIsTheLastOneRead) {
  CImageBuilder& volume = Build(Geometry(Bits(), CLUSTER));
  std::vector<std::uint32_t> chain = Clusters(10, 64);
  for (const std::vector<std::uint32_t>& run : {Clusters(100, 10), Clusters(200, 22), Clusters(400, 32)}) {
    chain.insert(chain.end(), run.begin(), run.end());
  }
  AddHoles(volume, volume.Root(), "F", 2 * BLOCK, chain);
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  Medium().FailAt(2, FAULT_ONCE);
  unsigned char byte = 0;
  unsigned int count = 0;
  EXPECT_EQ(Fat_ReadFileEx(file, BLOCK, 1, &byte, &count), 0u);
  EXPECT_TRUE(Made({ReadRun(At(100), 10 * CLUSTER), ReadRun(At(200), 22 * CLUSTER)}));
  Close(file);
}

TEST_P(TransfersOfChains, ClustersOf512Bytes) {
  CImageBuilder& volume = Build(Geometry(Bits()));
  std::vector<std::uint32_t> chain = Clusters(10, 512);
  chain.push_back(600);
  chain.push_back(700);
  AddHoles(volume, volume.Root(), "F", BLOCK + 1000, chain);
  MountQuietly();
  const int file = Open("F");
  EXPECT_TRUE(Made({ReadRun(At(10), BLOCK)}));
  Get(file, BLOCK, 1000);
  EXPECT_TRUE(Made({ReadRun(At(600), 512), Read(At(700), 488)}));
  Close(file);
}

TEST_P(TransfersOfChains, ClusterOfTheSizeOfABlock) {
  CImageBuilder& volume = Build(Geometry(Bits(), BLOCK));
  AddHoles(volume, volume.Root(), "F", 7 * BLOCK, {10, 11, 12, 13, 20, 21, 30});
  MountQuietly();
  const int file = Open("F");
  EXPECT_TRUE(Made({Read(At(10), BLOCK)}));  // one cluster: the byte form
  GetBlock(file, 1);
  EXPECT_TRUE(Made({Read(At(11), BLOCK)}));
  Get(file, 2 * BLOCK, 5 * BLOCK);
  EXPECT_TRUE(Made({ReadRun(At(12), 2 * BLOCK), ReadRun(At(20), 2 * BLOCK), Read(At(30), BLOCK)}));
  Close(file);
}

TEST_P(TransfersOfChains, ClustersLargerThanABlock) {
  CImageBuilder& volume = Build(Geometry(Bits(), 2 * BLOCK));
  AddHoles(volume, volume.Root(), "F", 10 * BLOCK, {10, 12, 13, 15, 16});
  MountQuietly();
  const int file = Open("F");
  EXPECT_TRUE(Made({Read(At(10), BLOCK)}));
  // Blocks 1 to 8 start inside the first cluster and end inside the last one.
  Get(file, BLOCK, 8 * BLOCK);
  EXPECT_TRUE(Made({Read(At(10) + BLOCK, BLOCK),  // up to the end of the run, not aligned to clusters
                    ReadRun(At(12), 4 * BLOCK),   // two clusters together
                    ReadRun(At(15), 2 * BLOCK),   // whole clusters of the next run, whose last one is needed in part
                    Read(At(16), BLOCK)}));
  GetBlock(file, 9);
  EXPECT_TRUE(Made({Read(At(16) + BLOCK, BLOCK)}));
  Close(file);
}

TEST_P(TransfersOfChains, StartInsideAClusterGoesToTheEndOfTheRun) {
  CImageBuilder& volume = Build(Geometry(Bits(), 2 * BLOCK));
  AddHoles(volume, volume.Root(), "F", 8 * BLOCK, {10, 11, 20, 21});
  MountQuietly();
  const int file = Open("F");
  Medium().ClearTrace();
  Get(file, BLOCK, 7 * BLOCK);
  // The run's rest in one piece, although whole clusters are in it.
  EXPECT_TRUE(Made({Read(At(10) + BLOCK, 3 * BLOCK), ReadRun(At(20), 4 * BLOCK)}));
  Close(file);
}

TEST_P(TransfersOfChains, DirectoryHandleReadsToItsAllocation) {
  CImageBuilder& volume = Build(Geometry(Bits(), CLUSTER));
  volume.AddDir(volume.Root(), "D", Clusters(10, 66));
  MountQuietly();
  const int dir = Open("D");
  EXPECT_TRUE(Made({ReadRun(At(10), BLOCK)}));
  Get(dir, BLOCK, 3 * BLOCK);  // its size field is 0, but it has two clusters there
  EXPECT_TRUE(Made({ReadRun(At(74), 2 * CLUSTER)}));
  Close(dir);
}

}  // namespace
}  // namespace transfertest
