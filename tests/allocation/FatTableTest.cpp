/// @file FatTableTest.cpp
/// The FAT: entries of all widths against the FAT as a row of bits, the cache of FAT blocks against a plain twin that
/// predicts every transfer, the list of blocks that wait to be written, and the linking of chains.

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "allocation/FatTable.h"
#include "allocation/XRuns.h"
#include "storage/VolumeBench.h"
#include "support/ImageBuilder.h"
#include "support/LibFixture.h"

namespace {

using BYTES = std::vector<unsigned char>;
using TRACE = std::vector<IO_RECORD>;

constexpr int Status(std::uint32_t bits) { return static_cast<int>(bits); }
constexpr int INVALID_PARAMETER = Status(0xC000000Du);
constexpr int NO_MEMORY = Status(0xC0000017u);
constexpr int DISK_CORRUPT = Status(0xC0000032u);
constexpr int DISK_FULL = Status(0xC000007Fu);

constexpr unsigned int BLOCK_BYTES = 0x40000;
constexpr unsigned int NO_LAST = 0xFFFFFFFF;  // AllocateClusters starts a new chain
constexpr unsigned int PER_BLOCK = 65536;     // entries of a FAT32 block
constexpr unsigned int CACHED_BLOCKS = 256;   // what the cache holds

class FatEntries : public CLibFixture {};
class FatBlocks : public CLibFixture {};
class FatWriteDelay : public CLibFixture {};
class FatCache : public CLibFixture {};
class FatChains : public CLibFixture {};

FAT_GEOMETRY Geometry(unsigned int fatBits, unsigned int clusters, unsigned int bytesPerSector = 512) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = fatBits;
  geometry.Clusters = clusters;
  geometry.BytesPerSector = bytesPerSector;
  return geometry;
}

/// A volume of FAT12 that serves as the frame of a table of any size: its FAT starts at byte 512, and the image goes on
/// with zeros.
CDiskImage Frame(unsigned int bytesPerSector = 512) {
  FAT_GEOMETRY geometry = Geometry(12, 100, bytesPerSector);
  geometry.RootEntries = 16;
  CDiskImage image = CImageBuilder(geometry).Image();
  image.Resize(1ull << 30);
  return image;
}

/// Byte position of the FAT in an image.
std::uint64_t FatOffset(const CDiskImage& image) { return std::uint64_t{image.Get16(14)} * image.Get16(11); }

CFatBits FatOf(const CDiskImage& image, unsigned int width, std::uint64_t entries) {
  return CFatBits(image.ReadBytes(FatOffset(image), ToSize(CFatBits::BytesFor(entries, width) + 3)), width);
}

// ---------------------------------------------------------------- entries

struct WIDTH {
  unsigned int Bits;
  unsigned int Clusters;
};
constexpr WIDTH s_Widths[] = {{12, 4086}, {12, 341}, {16, 5000}, {16, 65526}, {32, 5000}, {32, 140000}};

/// Numbers of clusters that lie together and at the ends of the FAT, of its sectors and of its blocks.
std::vector<unsigned int> InterestingClusters(unsigned int clusters) {
  std::set<unsigned int> chosen;
  for (const unsigned int edge :
       {2u, 8u, 128u, 256u, 341u, 342u, 682u, 683u, 4087u, 65535u, 65536u, 131071u, 131072u}) {
    for (unsigned int n = edge < 4 ? 2 : edge - 3; n <= edge + 3; ++n) chosen.insert(n);
  }
  for (unsigned int n = clusters - 3; n <= clusters + 1; ++n) chosen.insert(n);
  std::vector<unsigned int> inside;
  for (const unsigned int n : chosen) {
    if (n >= 2 && n <= clusters + 1) inside.push_back(n);
  }
  return inside;
}

TEST_F(FatEntries, WrittenAtRandom_AgreeWithTheFatAsARowOfBits) {
  for (const WIDTH& width : s_Widths) {
    SCOPED_TRACE("FAT" + std::to_string(width.Bits) + ", " + std::to_string(width.Clusters) + " clusters");
    CImageBuilder builder(Geometry(width.Bits, width.Clusters));
    CVolumeBench bench{builder.Image()};
    ASSERT_GE(bench.Mount(), 0);
    CFatBits twin = FatOf(builder.Image(), width.Bits, width.Clusters + 2);
    const std::vector<unsigned int> clusters = InterestingClusters(width.Clusters);
    std::mt19937 random(width.Clusters);
    for (unsigned int i = 0; i < 2000; ++i) {
      const unsigned int n = clusters[random() % clusters.size()];
      const unsigned int value = static_cast<unsigned int>(random());
      ASSERT_GE(bench.SetNext(n, value), 0);
      twin.Set(n, value);
      for (unsigned int near = std::max(n, 3u) - 1; near <= std::min(n + 1, width.Clusters + 1); ++near) {
        ASSERT_EQ(bench.Next(near), twin.Get(near)) << near << " after a write of " << n;
      }
    }
    ASSERT_GE(bench.Unmount(), 0);
    const CFatBits stored = FatOf(bench.Image(), width.Bits, width.Clusters + 2);
    EXPECT_TRUE(stored.Bytes() == twin.Bytes());
  }
}

TEST_F(FatEntries, ReadFromTheMedium_AgreeWithTheFatAsARowOfBits) {
  for (const WIDTH& width : s_Widths) {
    CImageBuilder builder(Geometry(width.Bits, width.Clusters));
    const std::uint64_t bytes = CFatBits::BytesFor(width.Clusters + 2, width.Bits);
    BYTES fat = CImageBuilder::Pattern(ToSize(bytes), width.Bits);
    const CFatBits twin(fat, width.Bits);
    CDiskImage image = builder.Image();
    image.WriteBytes(FatOffset(image), fat);
    // The root of a FAT32 has to be a chain.
    if (width.Bits == 32) image.Set32(FatOffset(image) + 8, 0x0FFFFFFF);
    CVolumeBench bench{image};
    ASSERT_GE(bench.Mount(), 0);
    for (unsigned int n = 3; n < width.Clusters + 2; ++n) ASSERT_EQ(bench.Next(n), twin.Get(n)) << n;
  }
}

TEST_F(FatEntries, Fat12OddEntry_LeavesTheNibbleItSharesWithItsNeighbours) {
  CVolumeBench bench{CImageBuilder(Geometry(12, 1000)).Image()};
  ASSERT_GE(bench.Mount(), 0);
  ASSERT_EQ(bench.SetNext(2, 0x123), 0);
  ASSERT_EQ(bench.SetNext(4, 0x456), 0);
  ASSERT_EQ(bench.SetNext(3, 0xABC), 0);
  EXPECT_EQ(bench.Next(2), 0x123u);
  EXPECT_EQ(bench.Next(3), 0xABCu);
  EXPECT_EQ(bench.Next(4), 0x456u);
  ASSERT_GE(bench.Unmount(), 0);
  // Entries 2 and 3 share bytes 3 to 5: 23 C1 AB.
  EXPECT_EQ(bench.Image().ReadBytes(512 + 3, 5), (BYTES{0x23, 0xC1, 0xAB, 0x56, 0x04}));
}

TEST_F(FatEntries, Fat32_AllThirtyTwoBitsAreReadAndWritten) {
  CImageBuilder builder(Geometry(32, 1000));
  builder.SetFatEntry(100, 0xF0000123);
  CVolumeBench bench{builder.Image()};
  ASSERT_GE(bench.Mount(), 0);
  EXPECT_EQ(bench.Next(100), 0xF0000123u);
  ASSERT_EQ(bench.SetNext(100, 0x0FFFFFFF), 0);
  EXPECT_EQ(bench.Next(100), 0x0FFFFFFFu);
  ASSERT_EQ(bench.SetNext(101, 0xABCDEF01), 0);
  ASSERT_GE(bench.Unmount(), 0);
  EXPECT_EQ(bench.Image().Get32(builder.FatOffset(0) + 400), 0x0FFFFFFFu);
  EXPECT_EQ(bench.Image().Get32(builder.FatOffset(0) + 404), 0xABCDEF01u);
}

TEST_F(FatEntries, NarrowWidths_KeepTheLowBitsOfAValue) {
  CVolumeBench fat16{CImageBuilder(Geometry(16, 5000)).Image()};
  ASSERT_GE(fat16.Mount(), 0);
  ASSERT_EQ(fat16.SetNext(5, 0x0FFFFFFF), 0);
  EXPECT_EQ(fat16.Next(5), 0xFFFFu);
  ASSERT_EQ(fat16.SetNext(5, 0x12345678), 0);
  EXPECT_EQ(fat16.Next(5), 0x5678u);
  CVolumeBench fat12{CImageBuilder(Geometry(12, 1000)).Image()};
  ASSERT_GE(fat12.Mount(), 0);
  for (const unsigned int cluster : {6u, 7u}) {
    ASSERT_EQ(fat12.SetNext(cluster, 0x0FFFFFFF), 0);
    EXPECT_EQ(fat12.Next(cluster), 0xFFFu);
    ASSERT_EQ(fat12.SetNext(cluster, 0x12345678), 0);
    EXPECT_EQ(fat12.Next(cluster), 0x678u);
  }
}

TEST_F(FatEntries, ClusterThatTheVolumeDoesNotHave_IsDiskCorruptAndTouchesNothing) {
  for (const WIDTH& width : s_Widths) {
    const CDiskImage image = CImageBuilder(Geometry(width.Bits, width.Clusters)).Image();
    CVolumeBench bench{image};
    ASSERT_GE(bench.Mount(), 0);
    for (const unsigned int n :
         {0u, 1u, width.Clusters + 2, width.Clusters + 3, 0x7FFFFFFFu, 0x80000002u, 0xFFFFFFFFu}) {
      unsigned int next = 0x1234;
      EXPECT_EQ(bench.Table().ReadNextClusterNo(n, next), DISK_CORRUPT) << n;
      EXPECT_EQ(next, 0x1234u);
      EXPECT_EQ(bench.SetNext(n, 0), DISK_CORRUPT) << n;
    }
    EXPECT_GE(bench.SetNext(width.Clusters + 1, 0), 0);
    ASSERT_GE(bench.Unmount(), 0);
    EXPECT_EQ(bench.Image(), image);
  }
}

TEST_F(FatEntries, CachedBlock_IsReadWithoutATransferAndWithStatusZero) {
  CVolumeBench bench{CImageBuilder(Geometry(16, 5000)).Image()};
  ASSERT_GE(bench.Mount(), 0);
  unsigned int next = 1;
  for (const unsigned int n : {2u, 5001u, 77u}) EXPECT_EQ(bench.Table().ReadNextClusterNo(n, next), 0);
  EXPECT_EQ(bench.Medium().Transfers(), 0u);
}

// ---------------------------------------------------------------- blocks

TEST_F(FatBlocks, Fat16Cluster131071And131072_LieAtTheEndAndStartOfABlock) {
  CDiskImage image = Frame();
  image.Set16(512 + 262142, 0xAAA1);  // the last entry of block 0
  image.Set16(512 + 262144, 0xBBB2);  // the first one of block 1
  CVolumeBench bench{image};
  ASSERT_GE(bench.MountWithTable(FAT_BITS_16, 9, 200000), 0);
  // A block has 512 sectors; the second one ends with the entries.
  EXPECT_EQ(bench.Medium().Trace(),
            (TRACE{{IO_KIND::ReadSectors, 512 + 262144, (200002 * 2 - 262144 + 511) / 512 * 512, 0},
                   {IO_KIND::ReadSectors, 512, 512 * 512, 0}}));
  EXPECT_EQ(bench.Next(131071), 0xAAA1u);
  EXPECT_EQ(bench.Next(131072), 0xBBB2u);
  ASSERT_EQ(bench.SetNext(131071, 0x1111), 0);
  ASSERT_EQ(bench.SetNext(131072, 0x2222), 0);
  ASSERT_GE(bench.Table().Destory(), 0);
  EXPECT_EQ(bench.Image().Get32(512 + 262142), 0x22221111u);
}

TEST_F(FatBlocks, Fat32Cluster65535And65536_LieAtTheEndAndStartOfABlock) {
  CImageBuilder builder(Geometry(32, 140000));
  const std::uint64_t fat = builder.FatOffset(0);
  CVolumeBench bench{builder.Image()};
  ASSERT_GE(bench.Mount(), 0);
  ASSERT_EQ(bench.SetNext(65535, 0x01111111), 0);
  ASSERT_EQ(bench.SetNext(65536, 0x02222222), 0);
  ASSERT_GE(bench.Unmount(), 0);
  EXPECT_EQ(bench.Medium().WriteTrace(),
            (TRACE{{IO_KIND::WriteSectors, static_cast<long long>(fat) + 262144, 262144, 0},
                   {IO_KIND::WriteSectors, static_cast<long long>(fat), 262144, 0}}));
  EXPECT_EQ(bench.Image().Get32(fat + 262140), 0x01111111u);
  EXPECT_EQ(bench.Image().Get32(fat + 262144), 0x02222222u);
}

TEST_F(FatBlocks, Fat16Of5000Clusters_ReadsTwentySectors) {
  CImageBuilder builder(Geometry(16, 5000));
  CVolumeBench bench{builder.Image()};
  ASSERT_EQ(bench.Open(), 0);
  ASSERT_GE(bench.MountOpened(), 0);
  EXPECT_EQ(bench.Medium().Trace().front(), (IO_RECORD{IO_KIND::ReadSectors, 512, 20 * 512, 0}));
}

/// The reads of building a table, highest block first, as they follow from the size of its entries alone.
TRACE ExpectedBlockReads(unsigned int width, unsigned int bytesPerSector, unsigned int clusters, std::uint64_t fat) {
  const std::uint64_t bytes = CFatBits::BytesFor(std::uint64_t{clusters} + 2, width);
  const std::uint64_t end = (bytes + bytesPerSector - 1) / bytesPerSector * bytesPerSector;
  TRACE reads;
  for (std::uint64_t start = 0; start < end; start += BLOCK_BYTES) {
    const std::uint64_t length = std::min<std::uint64_t>(BLOCK_BYTES, end - start);
    reads.insert(reads.begin(), {IO_KIND::ReadSectors, static_cast<long long>(fat + start), length, 0});
  }
  return reads;
}

TEST_F(FatBlocks, OnlySectorsWithEntries_AreReadAndWritten) {
  for (const unsigned int shift : {7u, 8u, 9u, 10u, 11u, 12u}) {
    const unsigned int bytesPerSector = 1u << shift;
    const CDiskImage image = Frame(bytesPerSector);
    for (const auto& [width, clusters] : std::vector<std::pair<unsigned int, unsigned int>>{
             {12, 1},      {12, 83},     {12, 84},     {12, 85},     {12, 1000},   {12, 4086},
             {16, 4087},   {16, 65526},  {16, 131069}, {16, 131070}, {16, 131071}, {16, 262142},
             {16, 262143}, {16, 300000}, {32, 1},      {32, 30},     {32, 31},     {32, 65533},
             {32, 65534},  {32, 65535},  {32, 131070}, {32, 131071}, {32, 200000}}) {
      SCOPED_TRACE("FAT" + std::to_string(width) + ", " + std::to_string(clusters) + " clusters, sectors of " +
                   std::to_string(bytesPerSector));
      CVolumeBench bench{image};
      ASSERT_GE(bench.MountWithTable(static_cast<FAT_IDX_BITS>(width), shift, clusters), 0);
      const TRACE reads = ExpectedBlockReads(width, bytesPerSector, clusters, FatOffset(image));
      EXPECT_EQ(bench.Medium().Trace(), reads) << bench.Medium().TraceText();
      // The last block is written as it was read.
      bench.Medium().ClearTrace();
      ASSERT_EQ(bench.SetNext(clusters + 1, 0x123), 0);
      ASSERT_EQ(bench.Table().Destory(), 0);
      ASSERT_EQ(bench.Medium().Transfers(), 1u);
      EXPECT_EQ(bench.Medium().Trace()[0],
                (IO_RECORD{IO_KIND::WriteSectors, reads.front().Offset, reads.front().Length, 0}));
    }
  }
}

TEST_F(FatBlocks, BlockInsideSectorsPastTheEntries_KeepsWhatLiesThere) {
  FAT_GEOMETRY geometry = Geometry(16, 5000);
  geometry.SectorsPerFat = 30;
  CDiskImage image = CImageBuilder(geometry).Image();
  image.Fill(512 + 10004, 30 * 512 - 10004, 0xD7);  // behind the last entry
  CVolumeBench bench{image};
  ASSERT_GE(bench.Mount(), 0);
  ASSERT_EQ(bench.SetNext(5001, 0x1234), 0);
  ASSERT_GE(bench.Unmount(), 0);
  image.Set16(512 + 10002, 0x1234);
  EXPECT_EQ(bench.Image(), image);
}

TEST_F(FatBlocks, FatShorterThanItsClusters_EntriesBehindItLieInWhatFollows) {
  FAT_GEOMETRY geometry = Geometry(16, 5000);
  geometry.SectorsPerFat = 10;
  CDiskImage image = CImageBuilder(geometry).Image();
  image.Set16(512 + 2 * 3000, 0xABCD);  // in the second FAT
  CVolumeBench bench{image};
  ASSERT_EQ(bench.Open(), 0);
  ASSERT_GE(bench.MountOpened(), 0);
  EXPECT_EQ(bench.Medium().Trace().front(), (IO_RECORD{IO_KIND::ReadSectors, 512, 20 * 512, 0}));
  EXPECT_EQ(bench.Next(3000), 0xABCDu);
  ASSERT_EQ(bench.SetNext(3001, 0x1234), 0);
  ASSERT_GE(bench.Unmount(), 0);
  image.Set16(512 + 2 * 3001, 0x1234);
  EXPECT_EQ(bench.Image(), image);
}

TEST_F(FatBlocks, LargestFat32_BeginsToBeReadWithItsLastBlock) {
  CVolumeBench bench{Frame()};
  ASSERT_GE(bench.Mount(), 0);
  ASSERT_GE(bench.Table().Destory(), 0);
  bench.Medium().ClearTrace();
  bench.Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads, -90);
  EXPECT_EQ(bench.Table().Create(FAT_BITS_32, 9, 0x0FFFFFF6), -90);
  bench.Table().Abandon();
  EXPECT_EQ(bench.Medium().Trace(),
            (TRACE{{IO_KIND::ReadSectors, 512 + 4095 * static_cast<long long>(BLOCK_BYTES), BLOCK_BYTES, 0}}));
}

TEST_F(FatBlocks, AnyOtherWidth_IsAnInvalidParameter) {
  CVolumeBench bench{Frame()};
  for (const unsigned int bits : {0u, 8u, 13u, 28u, 31u, 33u}) {
    EXPECT_EQ(bench.MountWithTable(static_cast<FAT_IDX_BITS>(bits), 9, 100), INVALID_PARAMETER) << bits;
    EXPECT_EQ(bench.Medium().Transfers(), 0u);
    ASSERT_EQ(bench.Storage().Close(), 1);
    bench.Volume().Abandon();
  }
  ASSERT_GE(bench.Mount(), 0);
}

TEST_F(FatBlocks, MoreClustersThanNumbersOrThanTheOneBlockOfAFat12_AreAnInvalidParameter) {
  CVolumeBench bench{Frame()};
  ASSERT_GE(bench.Mount(), 0);
  ASSERT_GE(bench.Table().Destory(), 0);
  bench.Medium().ClearTrace();
  for (const FAT_IDX_BITS bits : {FAT_BITS_12, FAT_BITS_16, FAT_BITS_32}) {
    for (const unsigned int clusters : {0xFFFFFFFEu, 0xFFFFFFFFu}) {
      EXPECT_EQ(bench.Table().Create(bits, 9, clusters), INVALID_PARAMETER) << bits << ", " << clusters;
      bench.Table().Abandon();
    }
  }
  // 174762 entries of twelve bits take 262143 bytes.
  EXPECT_EQ(bench.Table().Create(FAT_BITS_12, 9, 174761), INVALID_PARAMETER);
  bench.Table().Abandon();
  EXPECT_EQ(bench.Medium().Transfers(), 0u);
  EXPECT_GE(bench.Table().Create(FAT_BITS_12, 9, 174760), 0);
  ASSERT_EQ(bench.Medium().Transfers(), 1u);
  EXPECT_EQ(bench.Medium().Trace()[0], (IO_RECORD{IO_KIND::ReadSectors, 512, BLOCK_BYTES, 0}));
}

TEST_F(FatBlocks, AnyAllocationOfCreateFailing_IsNoMemoryAndLeavesNothing) {
  CVolumeBench bench{Frame()};
  ASSERT_GE(bench.Mount(), 0);
  ASSERT_GE(bench.Table().Destory(), 0);
  const std::size_t outstanding = Memory().Outstanding();
  unsigned int failAt = 1;
  for (;; ++failAt) {
    Memory().FailAt(failAt, CMemHooks::ONCE);
    const int status = bench.Table().Create(FAT_BITS_32, 9, 200000);
    Memory().Heal();
    bench.Table().Abandon();
    EXPECT_EQ(Memory().Outstanding(), outstanding);
    if (!Memory().Fired()) {
      EXPECT_GE(status, 0);
      break;
    }
    EXPECT_EQ(status, NO_MEMORY) << failAt;
  }
  EXPECT_GT(failAt, 5u);  // the cache, the bitmap and four blocks
}

// ---------------------------------------------------------------- delayed writes

/// A FAT32 of so many whole blocks, as the table of a small volume. Block b is at byte 512 + b x 256 KiB.
class CBlocks : public CVolumeBench {
 public:
  explicit CBlocks(unsigned int blocks) : CVolumeBench(Frame()) {
    EXPECT_GE(MountWithTable(FAT_BITS_32, 9, blocks * PER_BLOCK - 2), 0);
    Medium().ClearTrace();
  }
  /// Changes an entry of the block; every call uses another one.
  int Change(unsigned int block) {
    const unsigned int n = block * PER_BLOCK + 2 + m_nChanges % (PER_BLOCK - 2);
    ++m_nChanges;
    m_Twin[n] = m_nChanges;
    return SetNext(n, m_nChanges);
  }
  int Touch(unsigned int block) {
    unsigned int next = 0;
    return Table().ReadNextClusterNo(block * PER_BLOCK + 2, next);
  }
  static IO_RECORD Write(unsigned int block) {
    return {IO_KIND::WriteSectors, 512 + static_cast<long long>(block) * BLOCK_BYTES, BLOCK_BYTES, 0};
  }
  static IO_RECORD Read(unsigned int block) {
    return {IO_KIND::ReadSectors, 512 + static_cast<long long>(block) * BLOCK_BYTES, BLOCK_BYTES, 0};
  }
  static TRACE Writes(const std::vector<unsigned int>& blocks) {
    TRACE trace;
    for (const unsigned int block : blocks) trace.push_back(Write(block));
    return trace;
  }
  /// The transfers since the last call.
  TRACE Take() {
    const TRACE trace = Medium().Trace();
    Medium().ClearTrace();
    return trace;
  }
  /// Everything that was changed reads so, from the table and after its end from the medium.
  void ExpectAllChangesStored() {
    for (const auto& [n, value] : m_Twin) EXPECT_EQ(Next(n), value) << n;
    (void)Table().Destory();
    ExpectChangesOnMedium({});
  }
  void ExpectChangesOnMedium(const std::set<unsigned int>& lostBlocks) {
    for (const auto& [n, value] : m_Twin) {
      const bool lost = lostBlocks.count(n / PER_BLOCK) != 0;
      EXPECT_EQ(Image().Get32(512 + std::uint64_t{n} * 4), lost ? 0 : value) << n;
    }
  }

 private:
  std::map<unsigned int, unsigned int> m_Twin;  // by cluster
  unsigned int m_nChanges = 0;
};

TEST_F(FatWriteDelay, ThreeBlocksChanged_NothingIsWrittenUntilTheEnd) {
  CBlocks fat(8);
  for (unsigned int round = 0; round < 3; ++round) {
    for (const unsigned int block : {5u, 0u, 7u}) EXPECT_EQ(fat.Change(block), 0);
  }
  EXPECT_EQ(fat.Take(), TRACE());
  EXPECT_EQ(fat.Table().Destory(), 0);
  EXPECT_EQ(fat.Take(), CBlocks::Writes({7, 0, 5}));
  fat.ExpectChangesOnMedium({});
}

TEST_F(FatWriteDelay, FourthBlockChanged_AllFourAreWrittenWholeLastAddedFirst) {
  CBlocks fat(8);
  for (const unsigned int block : {5u, 0u, 7u}) ASSERT_EQ(fat.Change(block), 0);
  EXPECT_EQ(fat.Change(2), 0);
  EXPECT_EQ(fat.Take(), CBlocks::Writes({2, 7, 0, 5}));
  fat.ExpectChangesOnMedium({});
}

TEST_F(FatWriteDelay, AfterAFlush_ThreeMoreBlocksWaitAgain) {
  CBlocks fat(8);
  for (const unsigned int block : {0u, 1u, 2u, 3u}) ASSERT_EQ(fat.Change(block), 0);
  ASSERT_EQ(fat.Take().size(), 4u);
  for (const unsigned int block : {3u, 2u, 1u, 1u, 3u}) ASSERT_EQ(fat.Change(block), 0);
  EXPECT_EQ(fat.Take(), TRACE());
  ASSERT_EQ(fat.Change(6), 0);
  EXPECT_EQ(fat.Take(), CBlocks::Writes({6, 1, 2, 3}));
  fat.ExpectAllChangesStored();
}

TEST_F(FatWriteDelay, SeveralChangesOfTheFourthBlock_TheFlushHoldsTheFirstAlone) {
  CBlocks fat(8);
  for (const unsigned int block : {0u, 1u, 2u}) ASSERT_EQ(fat.Change(block), 0);
  const unsigned int n = 3 * PER_BLOCK + 100;
  ASSERT_EQ(fat.SetNext(n, 0x111), 0);
  ASSERT_EQ(fat.SetNext(n + 1, 0x222), 0);
  EXPECT_EQ(fat.Take(), CBlocks::Writes({3, 2, 1, 0}));
  EXPECT_EQ(fat.Image().Get32(512 + std::uint64_t{n} * 4), 0x111u);
  EXPECT_EQ(fat.Image().Get32(512 + std::uint64_t{n} * 4 + 4), 0u);
  ASSERT_EQ(fat.Table().Destory(), 0);
  EXPECT_EQ(fat.Take(), CBlocks::Writes({3}));
  EXPECT_EQ(fat.Image().Get32(512 + std::uint64_t{n} * 4 + 4), 0x222u);
}

TEST_F(FatWriteDelay, NarrowFat_IsWrittenOnceAtTheEnd) {
  for (const unsigned int bits : {12u, 16u}) {
    CImageBuilder builder(Geometry(bits, bits == 12 ? 4000 : 60000));
    CVolumeBench bench{builder.Image()};
    ASSERT_GE(bench.Mount(), 0);
    for (unsigned int n = 2; n < 4000; ++n) ASSERT_EQ(bench.SetNext(n, n), 0);
    EXPECT_EQ(bench.Medium().Transfers(), 0u);
    ASSERT_GE(bench.Unmount(), 0);
    EXPECT_EQ(bench.Medium().Transfers(), 1u);
  }
}

TEST_F(FatWriteDelay, FlushFailsAtAnyOfItsWrites_TheRestStaysListedAndIsTriedAgain) {
  for (unsigned int failAt = 1; failAt <= 4; ++failAt) {
    SCOPED_TRACE("write " + std::to_string(failAt));
    CBlocks fat(12);
    for (const unsigned int block : {0u, 1u, 2u}) ASSERT_EQ(fat.Change(block), 0);
    fat.Medium().FailAt(failAt, FAULT_ONCE, IO_FILTER::Writes, -17);
    EXPECT_EQ(fat.Change(3), -17);
    // Written so far: 3, then 2 and so on, up to the one that failed.
    const std::vector<unsigned int> order{3, 2, 1, 0};
    EXPECT_EQ(fat.Take(), CBlocks::Writes({order.data(), order.data() + failAt}));
    // What is left listed: the failed block and those listed before it. A change of one of them is silent.
    std::vector<unsigned int> listed(order.data() + failAt - 1, order.data() + 4);
    EXPECT_EQ(fat.Change(0), 0);
    EXPECT_EQ(fat.Take(), TRACE());
    // Other blocks fill the list up; the fourth one, or a fifth one, has it flushed.
    if (listed.size() == 4) {
      EXPECT_EQ(fat.Change(4), 0);
      EXPECT_EQ(fat.Take(), CBlocks::Writes(listed));
    } else {
      for (unsigned int block = 4; listed.size() < 4; ++block) {
        listed.insert(listed.begin(), block);
        EXPECT_EQ(fat.Change(block), 0);
        if (listed.size() < 4) {
          EXPECT_EQ(fat.Take(), TRACE());
        }
      }
      EXPECT_EQ(fat.Take(), CBlocks::Writes(listed));
    }
    fat.ExpectAllChangesStored();
  }
}

TEST_F(FatWriteDelay, FifthBlockWhileFourWait_IsListedAfterTheirFlush) {
  CBlocks fat(12);
  fat.Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Writes);
  for (const unsigned int block : {0u, 1u, 2u, 3u}) (void)fat.Change(block);
  ASSERT_TRUE(fat.Medium().Fired());
  fat.Take();
  EXPECT_EQ(fat.Change(4), 0);
  EXPECT_EQ(fat.Take(), CBlocks::Writes({3, 2, 1, 0}));
  // Block 4 is the first one of a new list.
  EXPECT_EQ(fat.Change(5), 0);
  EXPECT_EQ(fat.Change(6), 0);
  EXPECT_EQ(fat.Take(), TRACE());
  EXPECT_EQ(fat.Change(7), 0);
  EXPECT_EQ(fat.Take(), CBlocks::Writes({7, 6, 5, 4}));
  fat.ExpectAllChangesStored();
}

TEST_F(FatWriteDelay, FifthBlockWhileWritingKeepsFailing_StaysUnlistedAndIsWrittenAtTheEnd) {
  CBlocks fat(12);
  fat.Medium().FailAt(1, FAULT_FOR_GOOD, IO_FILTER::Writes, -17);
  for (const unsigned int block : {0u, 1u, 2u}) EXPECT_EQ(fat.Change(block), 0);
  EXPECT_EQ(fat.Change(3), -17);
  fat.Take();
  for (const unsigned int block : {4u, 5u, 4u, 6u, 11u}) {
    EXPECT_EQ(fat.Change(block), -17) << block;
    EXPECT_EQ(fat.Take(), CBlocks::Writes({3})) << block;  // the flush gives up at its first write
  }
  EXPECT_EQ(fat.Change(2), 0);  // listed all the time
  fat.Medium().Heal();
  EXPECT_EQ(fat.Table().Destory(), 0);
  // First the list, then what the cache still holds changed, least recently used first.
  EXPECT_EQ(fat.Take(), CBlocks::Writes({3, 2, 1, 0, 5, 4, 6, 11}));
  fat.ExpectChangesOnMedium({});
}

TEST_F(FatWriteDelay, UnlistedBlockChangedAgainAfterHealing_IsListed) {
  CBlocks fat(12);
  fat.Medium().FailAt(1, FAULT_FOR_GOOD, IO_FILTER::Writes);
  for (const unsigned int block : {0u, 1u, 2u, 3u, 4u}) (void)fat.Change(block);
  fat.Medium().Heal();
  fat.Take();
  EXPECT_EQ(fat.Change(4), 0);
  EXPECT_EQ(fat.Take(), CBlocks::Writes({3, 2, 1, 0}));
  for (const unsigned int block : {5u, 6u, 7u}) EXPECT_EQ(fat.Change(block), 0);
  EXPECT_EQ(fat.Take(), CBlocks::Writes({7, 6, 5, 4}));
  fat.ExpectAllChangesStored();
}

TEST_F(FatWriteDelay, LastFlushFails_ItsStatusIsReturnedAndTheBlocksAreTriedOnceMore) {
  CBlocks fat(8);
  for (const unsigned int block : {0u, 1u, 2u}) ASSERT_EQ(fat.Change(block), 0);
  fat.Medium().FailAt(2, FAULT_ONCE, IO_FILTER::Writes, -23);
  EXPECT_EQ(fat.Table().Destory(), -23);
  // The flush wrote 2 and failed at 1; the cache then writes what is still changed, least recently used first.
  EXPECT_EQ(fat.Take(), CBlocks::Writes({2, 1, 0, 1}));
  fat.ExpectChangesOnMedium({});
}

TEST_F(FatWriteDelay, TableEndsWhileWritingFails_EverythingIsReleased) {
  CBlocks fat(8);
  for (const unsigned int block : {0u, 1u, 2u}) ASSERT_EQ(fat.Change(block), 0);
  const std::size_t outstanding = Memory().Outstanding();
  fat.Medium().FailAt(1, FAULT_FOR_GOOD, IO_FILTER::Writes, -23);
  EXPECT_EQ(fat.Table().Destory(), -23);
  EXPECT_LT(Memory().Outstanding(), outstanding);
  EXPECT_EQ(fat.Table().Destory(), 0);  // nothing is left
  fat.ExpectChangesOnMedium({0, 1, 2});
}

TEST_F(FatWriteDelay, WriteStoresOnlyPart_CountsAsDone) {
  CBlocks fat(8);
  for (const unsigned int block : {0u, 1u, 2u}) ASSERT_EQ(fat.Change(block), 0);
  fat.Medium().ShortenWriteAt(1, 4);
  EXPECT_EQ(fat.Change(3), 0);
  EXPECT_EQ(fat.Take(), CBlocks::Writes({3, 2, 1, 0}));
  EXPECT_EQ(fat.Table().Destory(), 0);
  EXPECT_EQ(fat.Take(), TRACE());
  fat.ExpectChangesOnMedium({3});
}

TEST_F(FatWriteDelay, Abandoned_NothingIsWritten) {
  CBlocks fat(8);
  for (const unsigned int block : {0u, 1u, 2u}) ASSERT_EQ(fat.Change(block), 0);
  fat.Table().Abandon();
  EXPECT_EQ(fat.Take(), TRACE());
}

// ---------------------------------------------------------------- the cache

/// Mounting reads the blocks downwards, so the cache ends up with the lowest 256, block 255 being least recently used.

TEST_F(FatCache, UpTo256Blocks_AreReadOnce) {
  CBlocks fat(CACHED_BLOCKS);
  for (unsigned int block = 0; block < CACHED_BLOCKS; ++block) ASSERT_EQ(fat.Touch(block), 0);
  EXPECT_EQ(fat.Take(), TRACE());
}

TEST_F(FatCache, The257thBlock_EvictsTheLeastRecentlyUsedOne) {
  CBlocks fat(CACHED_BLOCKS + 2);
  EXPECT_EQ(fat.Touch(256), static_cast<int>(BLOCK_BYTES));  // the status of the read
  EXPECT_EQ(fat.Take(), TRACE{CBlocks::Read(256)});
  for (unsigned int block = 0; block < 255; ++block) ASSERT_EQ(fat.Touch(block), 0);
  EXPECT_EQ(fat.Take(), TRACE());
  EXPECT_GT(fat.Touch(255), 0);
  EXPECT_EQ(fat.Take(), TRACE{CBlocks::Read(255)});
}

TEST_F(FatCache, BlockUsedAgain_IsEvictedLast) {
  CBlocks fat(CACHED_BLOCKS + 2);
  ASSERT_EQ(fat.Touch(255), 0);
  ASSERT_EQ(fat.Touch(254), 0);
  fat.Touch(256);  // evicts 253
  fat.Take();
  ASSERT_EQ(fat.Touch(255), 0);
  ASSERT_EQ(fat.Touch(254), 0);
  EXPECT_EQ(fat.Take(), TRACE());
  fat.Touch(253);
  EXPECT_EQ(fat.Take(), TRACE{CBlocks::Read(253)});
}

/// Changes block 255 (or more) and then uses all others, so that they are the first to go.
void ChangeAndAge(CBlocks& fat, const std::vector<unsigned int>& blocks) {
  for (const unsigned int block : blocks) ASSERT_EQ(fat.Change(block), 0);
  for (unsigned int block = 0; block < CACHED_BLOCKS; ++block) {
    if (std::find(blocks.begin(), blocks.end(), block) == blocks.end()) {
      ASSERT_EQ(fat.Touch(block), 0);
    }
  }
  ASSERT_EQ(fat.Take(), TRACE());
}

TEST_F(FatCache, EvictedBlockIsChanged_IsWrittenFirst) {
  CBlocks fat(CACHED_BLOCKS + 2);
  ChangeAndAge(fat, {255});
  EXPECT_GT(fat.Touch(256), 0);
  EXPECT_EQ(fat.Take(), (TRACE{CBlocks::Read(256), CBlocks::Write(255)}));
  fat.ExpectChangesOnMedium({});
  fat.ExpectAllChangesStored();
}

TEST_F(FatCache, EvictedBlockLeavesTheList_ItsSlotStaysCounted) {
  CBlocks fat(CACHED_BLOCKS + 2);
  ChangeAndAge(fat, {10, 20, 30});
  fat.Touch(256);  // evicts and writes 10
  EXPECT_EQ(fat.Take(), (TRACE{CBlocks::Read(256), CBlocks::Write(10)}));
  ASSERT_EQ(fat.Change(40), 0);  // the fourth one listed, although only three wait
  EXPECT_EQ(fat.Take(), CBlocks::Writes({40, 30, 20}));
  fat.ExpectAllChangesStored();
}

TEST_F(FatCache, EvictedBlockChangedAgain_IsListedAnew) {
  CBlocks fat(CACHED_BLOCKS + 2);
  ChangeAndAge(fat, {10, 20});
  fat.Touch(256);
  fat.Take();
  ASSERT_EQ(fat.Change(10), 0);  // evicts 20
  EXPECT_EQ(fat.Take(), (TRACE{CBlocks::Read(10), CBlocks::Write(20)}));
  ASSERT_EQ(fat.Change(50), 0);
  EXPECT_EQ(fat.Take(), CBlocks::Writes({50, 10}));
  fat.ExpectAllChangesStored();
}

TEST_F(FatCache, WriteBackOfTheEvictedBlockFails_IsNotReportedAndTheChangesAreLost) {
  CBlocks fat(CACHED_BLOCKS + 2);
  ChangeAndAge(fat, {255});
  fat.Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Writes);
  EXPECT_GT(fat.Touch(256), 0);
  EXPECT_TRUE(fat.Medium().Fired());
  EXPECT_EQ(fat.Table().Destory(), 0);
  fat.ExpectChangesOnMedium({255});
}

TEST_F(FatCache, UnlistedChangedBlock_IsWrittenAtItsEviction) {
  CBlocks fat(CACHED_BLOCKS + 2);
  fat.Medium().FailAt(1, FAULT_FOR_GOOD, IO_FILTER::Writes);
  for (const unsigned int block : {200u, 1u, 2u, 3u, 4u}) (void)fat.Change(block);  // 4 is unlisted
  fat.Medium().Heal();
  for (unsigned int block = 0; block < CACHED_BLOCKS; ++block) {
    if (block != 4) {
      ASSERT_EQ(fat.Touch(block), 0);
    }
  }
  fat.Take();
  EXPECT_GT(fat.Touch(256), 0);
  EXPECT_EQ(fat.Take(), (TRACE{CBlocks::Read(256), CBlocks::Write(4)}));
  fat.ExpectAllChangesStored();
}

TEST_F(FatCache, ReadFails_StatusIsReturnedAndNothingCachedOrKept) {
  CBlocks fat(CACHED_BLOCKS + 2);
  const std::size_t outstanding = Memory().Outstanding();
  for (unsigned int i = 0; i < 3; ++i) {
    fat.Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads, -61);
    EXPECT_EQ(fat.Touch(256), -61);
    fat.Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads, -62);
    EXPECT_EQ(fat.Change(256), -62);
    EXPECT_EQ(Memory().Outstanding(), outstanding);
  }
  fat.Take();
  // Nothing was evicted for it.
  for (unsigned int block = 0; block < CACHED_BLOCKS; ++block) ASSERT_EQ(fat.Touch(block), 0);
  EXPECT_EQ(fat.Take(), TRACE());
  EXPECT_EQ(fat.Touch(256), static_cast<int>(BLOCK_BYTES));
  EXPECT_EQ(fat.Take(), TRACE{CBlocks::Read(256)});
}

TEST_F(FatCache, NoMemoryLeftAfterCreate_BlocksAreReadAndWrittenAllTheSame) {
  CBlocks fat(CACHED_BLOCKS + 2);
  Memory().FailAt(1, CMemHooks::FOR_GOOD);
  EXPECT_GT(fat.Touch(256), 0);
  for (const unsigned int block : {257u, 255u, 1u, 2u}) EXPECT_GE(fat.Change(block), 0);
  EXPECT_EQ(fat.Take(), (TRACE{CBlocks::Read(256), CBlocks::Read(257), CBlocks::Read(255), CBlocks::Write(2),
                               CBlocks::Write(1), CBlocks::Write(255), CBlocks::Write(257)}));
  Memory().Heal();
  fat.ExpectAllChangesStored();
}

TEST_F(FatCache, ReadDeliversOnlyPart_MissingEntriesAreZero) {
  CBlocks fat(CACHED_BLOCKS + 2);
  fat.Image().Fill(512 + std::uint64_t{256} * BLOCK_BYTES, BLOCK_BYTES, 0x11);
  fat.Medium().ShortenReadAt(1, 1000);
  EXPECT_EQ(fat.Next(256 * PER_BLOCK + 249), 0x11111111u);
  EXPECT_EQ(fat.Next(256 * PER_BLOCK + 250), 0u);
  EXPECT_EQ(fat.Next(256 * PER_BLOCK + 65000), 0u);
}

TEST_F(FatCache, Memory_IsThatOfTheFatAndAtMostOf257Blocks) {
  constexpr std::size_t slack = 0x200000;  // for the place where the first block begins
  for (const unsigned int blocks : {1u, 2u, 255u, 256u, 257u, 258u, 400u}) {
    Memory().ResetLargest();
    CBlocks fat(blocks);
    const std::size_t expected = std::size_t{std::min(blocks, CACHED_BLOCKS + 1)} * BLOCK_BYTES;
    EXPECT_GE(Memory().LargestRequest(), expected) << blocks;
    EXPECT_LE(Memory().LargestRequest(), expected + slack) << blocks;
  }
}

TEST_F(FatCache, WholeBlockHandedOut_IsReadAndUsedLikeAnEntryOfIt) {
  CBlocks fat(CACHED_BLOCKS + 2);
  fat.Image().Set32(512 + std::uint64_t{256} * BLOCK_BYTES + 1000, 0x0ABCDEF1);
  const unsigned char* data = nullptr;
  fat.Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads, -61);
  EXPECT_EQ(fat.Table().ReadBlock(256, data), -61);
  EXPECT_EQ(data, nullptr);
  fat.Take();
  ASSERT_EQ(fat.Table().ReadBlock(256, data), static_cast<int>(BLOCK_BYTES));
  EXPECT_EQ(fat.Take(), TRACE{CBlocks::Read(256)});
  EXPECT_EQ(BYTES(data + 1000, data + 1004), (BYTES{0xF1, 0xDE, 0xBC, 0x0A}));
  ASSERT_EQ(fat.Table().ReadBlock(254, data), 0);  // 255 was evicted for 256, and 254 is no longer the next to go
  EXPECT_GT(fat.Touch(257), 0);
  fat.Take();
  EXPECT_EQ(fat.Touch(254), 0);
  EXPECT_GT(fat.Touch(253), 0);
}

/// Changes blocks that are then evicted, others that are flushed, and one that waits until the end: five writes.
int WriteFiveTimes(CBlocks& fat) {
  ChangeAndAge(fat, {10, 20});
  EXPECT_GT(fat.Touch(256), 0);  // evicts 10
  EXPECT_GT(fat.Touch(257), 0);  // evicts 20
  (void)fat.Change(30);
  (void)fat.Change(31);  // the fourth one listed: 31 and 30 are written
  (void)fat.Change(32);
  return fat.Table().Destory();
}

TEST_F(FatCache, AnyWriteFailingOnce_LosesTheChangesOfAnEvictedBlockOnly) {
  for (unsigned int failAt = 1; failAt <= 6; ++failAt) {
    SCOPED_TRACE("write " + std::to_string(failAt));
    CBlocks fat(CACHED_BLOCKS + 2);
    fat.Medium().FailAt(failAt, FAULT_ONCE, IO_FILTER::Writes, -29);
    // A flush that fails is repeated; only that of the end can say so.
    EXPECT_EQ(WriteFiveTimes(fat), failAt == 5 ? -29 : 0);
    EXPECT_EQ(fat.Medium().Fired(), failAt <= 5);
    fat.ExpectChangesOnMedium(failAt == 1   ? std::set<unsigned int>{10}
                              : failAt == 2 ? std::set<unsigned int>{20}
                                            : std::set<unsigned int>{});
  }
}

TEST_F(FatCache, AnyWriteFailingForGood_LosesWhatWasNotWrittenBefore) {
  const std::vector<unsigned int> order{10, 20, 31, 30, 32};
  for (unsigned int failAt = 1; failAt <= 6; ++failAt) {
    SCOPED_TRACE("write " + std::to_string(failAt));
    const std::size_t outstanding = Memory().Outstanding();
    {
      CBlocks fat(CACHED_BLOCKS + 2);
      fat.Medium().FailAt(failAt, FAULT_FOR_GOOD, IO_FILTER::Writes, -29);
      EXPECT_EQ(WriteFiveTimes(fat), failAt <= 5 ? -29 : 0);
      fat.ExpectChangesOnMedium({order.data() + failAt - 1, order.data() + order.size()});
    }
    EXPECT_EQ(Memory().Outstanding(), outstanding);
  }
}

/// The cache and the write-delay list in plain containers: predicts the transfers of every access.
class CCacheTwin {
 public:
  explicit CCacheTwin(unsigned int blocks) {
    for (unsigned int block = blocks; block-- > 0;) (void)Use(block);
  }
  TRACE Read(unsigned int block) { return Use(block); }
  TRACE Write(unsigned int block) {
    TRACE trace = Use(block);
    if (std::find(m_Listed.begin(), m_Listed.end(), block) != m_Listed.end()) return trace;
    m_Dirty.insert(block);
    m_Listed.push_back(block);
    if (m_Listed.size() == 4) {
      for (std::size_t slot = 4; slot-- > 0;) {
        if (m_Listed[slot] == EVICTED) continue;
        trace.push_back(CBlocks::Write(m_Listed[slot]));
        m_Dirty.erase(m_Listed[slot]);
      }
      m_Listed.clear();
    }
    return trace;
  }

 private:
  static constexpr unsigned int EVICTED = 0xFFFFFFFF;

  TRACE Use(unsigned int block) {
    const auto found = std::find(m_Recency.begin(), m_Recency.end(), block);
    if (found != m_Recency.end()) {
      m_Recency.erase(found);
      m_Recency.push_back(block);
      return {};
    }
    TRACE trace{CBlocks::Read(block)};
    if (m_Recency.size() == CACHED_BLOCKS) {
      const unsigned int victim = m_Recency.front();
      m_Recency.pop_front();
      if (m_Dirty.erase(victim) != 0) {
        trace.push_back(CBlocks::Write(victim));
        std::replace(m_Listed.begin(), m_Listed.end(), victim, EVICTED);
      }
    }
    m_Recency.push_back(block);
    return trace;
  }

  std::list<unsigned int> m_Recency;  // least recently used first
  std::set<unsigned int> m_Dirty;
  std::vector<unsigned int> m_Listed;
};

TEST_F(FatCache, RandomAccesses_MakeExactlyTheTransfersThatATwinPredicts) {
  constexpr unsigned int blocks = 300;  // blocks 269 and up share a bucket with blocks 0 and up
  CBlocks fat(blocks);
  CCacheTwin twin(blocks);
  std::mt19937 random(20250101);
  for (unsigned int i = 0; i < 4000; ++i) {
    // Now and then a stretch of neighbours, else anywhere; and one access in six is a change.
    const unsigned int block =
        static_cast<unsigned int>(i / 200 % 2 == 0 ? random() % blocks : (i + random() % 5) % blocks);
    const bool change = random() % 6 == 0;
    const TRACE expected = change ? twin.Write(block) : twin.Read(block);
    ASSERT_GE(change ? fat.Change(block) : fat.Touch(block), 0);
    ASSERT_EQ(fat.Take(), expected) << "access " << i << ", block " << block;
  }
  fat.ExpectAllChangesStored();
}

// ---------------------------------------------------------------- chains

/// Marks everything used but the clusters named.
void LeaveFree(CImageBuilder& builder, const std::set<unsigned int>& clusters) {
  const unsigned int count = builder.Geometry().Clusters;
  const std::uint64_t bytes = CFatBits::BytesFor(std::uint64_t{count} + 2, builder.Geometry().FatBits);
  builder.Store().Fill(builder.FatOffset(0), bytes, 0xFF);
  for (const unsigned int cluster : clusters) builder.SetFatEntryIn(0, cluster, 0);
}

/// Runs that are given back at the end of the scope.
class CRunsInUse : public CRuns {
 public:
  CRunsInUse() { EXPECT_TRUE(Initialize()); }
  ~CRunsInUse() { Uninitialize(); }
  CRunsInUse(const CRunsInUse&) = delete;
  CRunsInUse& operator=(const CRunsInUse&) = delete;

  std::vector<std::pair<unsigned int, unsigned int>> List() const {
    std::vector<std::pair<unsigned int, unsigned int>> list;
    for (unsigned int i = 1; i <= NumberOfRuns(); ++i) list.emplace_back(StartingLbn(i), LengthOfRun(i));
    return list;
  }
};
using RUN_LIST = std::vector<std::pair<unsigned int, unsigned int>>;

constexpr unsigned int EndMark(unsigned int bits) { return bits == 12 ? 0xFFF : bits == 16 ? 0xFFFF : 0x0FFFFFFF; }

TEST_F(FatChains, ThreeClusters_AreLinkedAndEndedAndTheFirstReturned) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    CImageBuilder builder(Geometry(bits, bits == 16 ? 5000 : 1000));
    LeaveFree(builder, {10, 11, 12});
    CVolumeBench bench{builder.Image()};
    ASSERT_GE(bench.Mount(), 0);
    CRunsInUse runs;
    unsigned int last = NO_LAST;
    EXPECT_GE(bench.Table().AllocateClusters(3, &runs, last), 0);
    EXPECT_EQ(last, 10u);
    EXPECT_EQ(runs.List(), (RUN_LIST{{10, 3}}));
    EXPECT_EQ(bench.Next(10), 11u);
    EXPECT_EQ(bench.Next(11), 12u);
    EXPECT_EQ(bench.Next(12), EndMark(bits));
    EXPECT_EQ(bench.Next(9), bits == 32 ? 0xFFFFFFFFu : EndMark(bits));
  }
}

TEST_F(FatChains, ChainToExtend_IsLinkedToTheFirstNewCluster) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    CImageBuilder builder(Geometry(bits, bits == 16 ? 5000 : 1000));
    LeaveFree(builder, {10, 11, 12});
    CVolumeBench bench{builder.Image()};
    ASSERT_GE(bench.Mount(), 0);
    CRunsInUse runs;
    unsigned int last = 7;
    EXPECT_GE(bench.Table().AllocateClusters(3, &runs, last), 0);
    EXPECT_EQ(last, 10u);
    EXPECT_EQ(bench.Next(7), 10u);
    EXPECT_EQ(bench.Next(10), 11u);
    EXPECT_EQ(bench.Next(12), EndMark(bits));
  }
}

TEST_F(FatChains, OneCluster_IsItsChainsEnd) {
  CImageBuilder builder(Geometry(16, 5000));
  LeaveFree(builder, {20});
  CVolumeBench bench{builder.Image()};
  ASSERT_GE(bench.Mount(), 0);
  CRunsInUse runs;
  unsigned int last = NO_LAST;
  EXPECT_GE(bench.Table().AllocateClusters(1, &runs, last), 0);
  EXPECT_EQ(last, 20u);
  EXPECT_EQ(bench.Next(20), 0xFFFFu);
}

TEST_F(FatChains, SeveralRuns_AreLinkedInTheirOrder) {
  CImageBuilder builder(Geometry(32, 1000));
  LeaveFree(builder, {10, 11, 30, 500, 501, 502});
  CVolumeBench bench{builder.Image()};
  ASSERT_GE(bench.Mount(), 0);
  CRunsInUse runs;
  unsigned int last = 5;
  EXPECT_GE(bench.Table().AllocateClusters(5, &runs, last), 0);
  EXPECT_EQ(runs.List(), (RUN_LIST{{10, 2}, {30, 1}, {500, 2}}));
  EXPECT_EQ(last, 10u);
  unsigned int cluster = 5;
  for (const unsigned int next : {10u, 11u, 30u, 500u, 501u, 0x0FFFFFFFu}) {
    EXPECT_EQ(bench.Next(cluster), next);
    cluster = next;
  }
  EXPECT_EQ(bench.Next(502), 0u);
  EXPECT_EQ(bench.Table().Bitmap().FreeClusters(), 1u);
}

TEST_F(FatChains, NotEnoughClusters_IsDiskFullAndNothingChanges) {
  CImageBuilder builder(Geometry(16, 5000));
  LeaveFree(builder, {10, 11, 12});
  CVolumeBench bench{builder.Image()};
  ASSERT_GE(bench.Mount(), 0);
  CRunsInUse runs;
  unsigned int last = 7;
  EXPECT_EQ(bench.Table().AllocateClusters(4, &runs, last), DISK_FULL);
  EXPECT_EQ(last, 7u);
  EXPECT_EQ(runs.NumberOfRuns(), 0u);
  EXPECT_EQ(bench.Next(7), 0xFFFFu);
  EXPECT_EQ(bench.Table().Bitmap().FreeClusters(), 3u);
  ASSERT_GE(bench.Unmount(), 0);
  EXPECT_EQ(bench.Medium().Writes(), 0u);
}

TEST_F(FatChains, MapThatTakesNoRun_IsDiskCorruptAndNothingChanges) {
  CImageBuilder builder(Geometry(16, 5000));
  LeaveFree(builder, {10, 11, 12});
  CVolumeBench bench{builder.Image()};
  ASSERT_GE(bench.Mount(), 0);
  CRuns runs;  // without storage
  unsigned int last = NO_LAST;
  EXPECT_EQ(bench.Table().AllocateClusters(2, &runs, last), DISK_CORRUPT);
  EXPECT_EQ(bench.Table().Bitmap().FreeClusters(), 3u);
  EXPECT_EQ(bench.Next(10), 0u);
}

/// One free cluster in each of five blocks, so that a chain of five touches five blocks.
CDiskImage OneFreeClusterABlock(std::uint64_t& fat) {
  CImageBuilder builder(Geometry(32, 5 * PER_BLOCK - 2));
  LeaveFree(builder, {100, PER_BLOCK + 100, 2 * PER_BLOCK + 100, 3 * PER_BLOCK + 100, 4 * PER_BLOCK + 100});
  // The volume's root.
  builder.SetFatEntryIn(0, 2, 0x0FFFFFFF);
  fat = builder.FatOffset(0);
  return builder.Image();
}

TEST_F(FatChains, EntryCannotBeWritten_ItsStatusIsReturnedAndTheClustersStayUsed) {
  std::uint64_t fat = 0;
  CVolumeBench bench{OneFreeClusterABlock(fat)};
  ASSERT_GE(bench.Mount(), 0);
  bench.Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Writes, -71);
  CRunsInUse runs;
  unsigned int last = NO_LAST;
  EXPECT_EQ(bench.Table().AllocateClusters(5, &runs, last), -71);
  EXPECT_EQ(last, NO_LAST);
  EXPECT_EQ(bench.Table().Bitmap().FreeClusters(), 0u);
  for (unsigned int block = 0; block < 5; ++block) {
    EXPECT_TRUE(bench.Table().Bitmap().TestBit(block * PER_BLOCK + 100));
  }
  // The write that failed is that of the fourth block's entry; the fifth one was not reached.
  EXPECT_EQ(bench.Next(2 * PER_BLOCK + 100), 3 * PER_BLOCK + 100);
  EXPECT_EQ(bench.Next(3 * PER_BLOCK + 100), 4 * PER_BLOCK + 100);
  EXPECT_EQ(bench.Next(4 * PER_BLOCK + 100), 0u);
}

TEST_F(FatChains, EndMarkCannotBeWritten_ItsStatusIsReturned) {
  std::uint64_t fat = 0;
  CVolumeBench bench{OneFreeClusterABlock(fat)};
  ASSERT_GE(bench.Mount(), 0);
  bench.Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Writes, -72);
  CRunsInUse runs;
  unsigned int last = NO_LAST;
  EXPECT_EQ(bench.Table().AllocateClusters(4, &runs, last), -72);
  EXPECT_EQ(last, NO_LAST);
  EXPECT_EQ(bench.Table().Bitmap().FreeClusters(), 1u);
  EXPECT_EQ(bench.Next(3 * PER_BLOCK + 100), 0x0FFFFFFFu);
}

TEST_F(FatChains, RequestForNoCluster_IsAnInvalidParameterAndChangesNothing) {
  CImageBuilder builder(Geometry(16, 5000));
  LeaveFree(builder, {10, 11, 12});
  CVolumeBench bench{builder.Image()};
  ASSERT_GE(bench.Mount(), 0);
  CRunsInUse runs;
  unsigned int last = 7;
  EXPECT_EQ(bench.Table().AllocateClusters(0, &runs, last), INVALID_PARAMETER);
  EXPECT_EQ(last, 7u);
  EXPECT_EQ(runs.NumberOfRuns(), 0u);
  EXPECT_EQ(bench.Next(7), 0xFFFFu);
  EXPECT_EQ(bench.Table().Bitmap().FreeClusters(), 3u);
}

TEST_F(FatChains, ChainToExtendEndsOutsideTheVolume_IsDiskCorruptAndTheClustersStayUsed) {
  for (const unsigned int outside : {0u, 1u, 5002u}) {
    CImageBuilder builder(Geometry(16, 5000));
    LeaveFree(builder, {10, 11, 12});
    CVolumeBench bench{builder.Image()};
    ASSERT_GE(bench.Mount(), 0);
    CRunsInUse runs;
    unsigned int last = outside;
    EXPECT_EQ(bench.Table().AllocateClusters(2, &runs, last), DISK_CORRUPT);
    EXPECT_EQ(last, outside);
    EXPECT_EQ(bench.Table().Bitmap().FreeClusters(), 1u);
    EXPECT_EQ(bench.Next(10), 0u);
    ASSERT_GE(bench.Unmount(), 0);
    EXPECT_EQ(bench.Medium().Writes(), 0u);
  }
}

TEST_F(FatChains, BlockOfTheChainsEndCannotBeRead_ItsStatusIsReturnedAndTheClustersStayUsed) {
  CBlocks fat(CACHED_BLOCKS + 2);
  fat.Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads, -73);
  CRunsInUse runs;
  const unsigned int end = 257 * PER_BLOCK + 5;  // not cached
  unsigned int last = end;
  EXPECT_EQ(fat.Table().AllocateClusters(2, &runs, last), -73);
  EXPECT_EQ(last, end);
  EXPECT_TRUE(fat.Table().Bitmap().AreBitsSet(2, 2));
  EXPECT_EQ(fat.Next(2), 0u);
  EXPECT_EQ(fat.Next(end), 0u);
}

TEST_F(FatChains, NeitherChoosingNorFreeingClusters_ReadsTheFat) {
  CBlocks fat(CACHED_BLOCKS + 2);
  CRunsInUse runs;
  unsigned int last = NO_LAST;
  // Blocks 256 and 257, which are not cached, have free clusters too.
  ASSERT_GE(fat.Table().AllocateClusters(3, &runs, last), 0);
  fat.Table().RecycleClusters(&runs);
  fat.Table().RecycleOneCluster(257 * PER_BLOCK);
  EXPECT_EQ(fat.Take(), TRACE());
}

TEST_F(FatChains, LongChainOverManyBlocks_IsWrittenOnceAPassedBlockEach) {
  std::uint64_t fat = 0;
  CVolumeBench bench{OneFreeClusterABlock(fat)};
  ASSERT_GE(bench.Mount(), 0);
  CRunsInUse runs;
  unsigned int last = NO_LAST;
  ASSERT_GE(bench.Table().AllocateClusters(5, &runs, last), 0);
  TRACE expected;
  for (unsigned int block = 4; block-- > 0;) {
    expected.push_back({IO_KIND::WriteSectors,
                        static_cast<long long>(fat) + block * static_cast<long long>(BLOCK_BYTES), BLOCK_BYTES, 0});
  }
  EXPECT_EQ(bench.Medium().Trace(), expected);
}

TEST_F(FatChains, RecycledClusters_AreFreeInTheBitmapOnly) {
  CImageBuilder builder(Geometry(16, 5000));
  LeaveFree(builder, {});
  CVolumeBench bench{builder.Image()};
  ASSERT_GE(bench.Mount(), 0);
  CRunsInUse runs;
  ASSERT_TRUE(runs.AppendEntry(50, 3));
  ASSERT_TRUE(runs.AppendEntry(40, 2));
  bench.Table().RecycleClusters(&runs);
  bench.Table().RecycleOneCluster(99);
  EXPECT_EQ(bench.Table().Bitmap().FreeClusters(), 6u);
  for (const unsigned int cluster : {50u, 51u, 52u, 40u, 41u, 99u}) {
    EXPECT_FALSE(bench.Table().Bitmap().TestBit(cluster));
    EXPECT_EQ(bench.Next(cluster), 0xFFFFu);
  }
  ASSERT_GE(bench.Unmount(), 0);
  EXPECT_EQ(bench.Medium().Transfers(), 0u);
}

TEST_F(FatChains, FreedEntries_AreZeroUpToTheFirstFailure) {
  std::uint64_t fat = 0;
  CVolumeBench bench{OneFreeClusterABlock(fat)};
  ASSERT_GE(bench.Mount(), 0);
  EXPECT_GE(bench.Table().FreeEntries(PER_BLOCK - 2, 4), 0);
  for (unsigned int n = PER_BLOCK - 2; n < PER_BLOCK + 2; ++n) EXPECT_EQ(bench.Next(n), 0u);
  EXPECT_EQ(bench.Next(PER_BLOCK - 3), 0xFFFFFFFFu);
  EXPECT_EQ(bench.Next(PER_BLOCK + 2), 0xFFFFFFFFu);
  // The volume ends inside the range.
  EXPECT_EQ(bench.Table().FreeEntries(5 * PER_BLOCK - 2, 4), DISK_CORRUPT);
  EXPECT_EQ(bench.Next(5 * PER_BLOCK - 1), 0u);
  EXPECT_GE(bench.Table().FreeEntries(700, 0), 0);
  EXPECT_EQ(bench.Next(700), 0xFFFFFFFFu);
}

TEST_F(FatChains, BlockOfAFreedEntryCannotBeRead_TheEntriesBelowAreFreeAndThoseFromItOnStay) {
  CBlocks fat(CACHED_BLOCKS + 2);
  const unsigned int border = 256 * PER_BLOCK;  // block 256 is not cached
  for (unsigned int n = border - 2; n < border; ++n) ASSERT_EQ(fat.SetNext(n, 5), 0);
  for (unsigned int n = border; n < border + 2; ++n) fat.Image().Set32(512 + std::uint64_t{n} * 4, 5);
  fat.Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads, -74);
  EXPECT_EQ(fat.Table().FreeEntries(border - 2, 4), -74);
  for (unsigned int n = border - 2; n < border + 2; ++n) EXPECT_EQ(fat.Next(n), n < border ? 0u : 5u) << n;
}

TEST_F(FatChains, FlushFailsAtAFreedEntry_ThatEntryIsFreeAndThoseBehindItStay) {
  CBlocks fat(8);
  for (unsigned int n = PER_BLOCK - 2; n < PER_BLOCK + 2; ++n) fat.Image().Set32(512 + std::uint64_t{n} * 4, 5);
  ASSERT_GE(fat.Table().Destory(), 0);
  ASSERT_GE(fat.Table().Create(FAT_BITS_32, 9, 8 * PER_BLOCK - 2), 0);
  for (const unsigned int block : {6u, 7u}) ASSERT_EQ(fat.Change(block), 0);
  fat.Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Writes, -75);
  EXPECT_EQ(fat.Table().FreeEntries(PER_BLOCK - 2, 4), -75);  // block 1 is the fourth one listed
  const unsigned int expected[] = {0, 0, 0, 5};
  for (unsigned int i = 0; i < 4; ++i) EXPECT_EQ(fat.Next(PER_BLOCK - 2 + i), expected[i]) << i;
}

}  // namespace
