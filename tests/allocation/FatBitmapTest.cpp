/// @file FatBitmapTest.cpp
/// The free-cluster bitmap: built from FATs of all widths and compared entry by entry, and its choice of clusters
/// against a plain twin that goes through the rules one bit at a time.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "allocation/FatBitmap.h"
#include "allocation/XRuns.h"
#include "storage/VolumeBench.h"
#include "support/ImageBuilder.h"
#include "support/LibFixture.h"

namespace {

using BYTES = std::vector<unsigned char>;
using TRACE = std::vector<IO_RECORD>;
using RUN_LIST = std::vector<std::pair<unsigned int, unsigned int>>;  // first cluster, length

constexpr int Status(std::uint32_t bits) { return static_cast<int>(bits); }
constexpr int NO_MEMORY = Status(0xC0000017u);
constexpr int DISK_CORRUPT = Status(0xC0000032u);
constexpr int DISK_FULL = Status(0xC000007Fu);

constexpr unsigned int BLOCK_BYTES = 0x40000;

class FatBitmapLoad : public CLibFixture {};
class FatBitmapAllocation : public CLibFixture {};

/// The volume whose FAT serves as the frame of a table of any size: the FAT starts at the second sector, and the image
/// goes on with zeros.
CDiskImage Frame(unsigned int bytesPerSector = 512) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 12;
  geometry.Clusters = 100;
  geometry.RootEntries = 16;
  geometry.BytesPerSector = bytesPerSector;
  CDiskImage image = CImageBuilder(geometry).Image();
  image.Resize(64u << 20);
  return image;
}

std::uint64_t FatOffset(const CDiskImage& image) { return std::uint64_t{image.Get16(14)} * image.Get16(11); }

/// Puts a FAT into the frame in which about one entry in `oneIn` is free, and the rest anything else.
CFatBits RandomFat(CDiskImage& image, unsigned int width, unsigned int entries, unsigned int oneIn, unsigned int seed) {
  const std::size_t bytes = ToSize(CFatBits::BytesFor(entries, width));
  CFatBits fat(CImageBuilder::Pattern(bytes, seed), width);
  std::mt19937 random(seed);
  for (unsigned int n = 0; n < entries; ++n) {
    if (random() % oneIn == 0) fat.Set(n, 0);
  }
  image.WriteBytes(FatOffset(image), fat.Bytes());
  return fat;
}

// ---------------------------------------------------------------- building

/// Every bit, the count and the hint, against the FAT itself.
void ExpectPictureOf(const CFatBits& fat, unsigned int entries, const CFatBitmap& bitmap) {
  ASSERT_EQ(bitmap.Size(), entries);
  unsigned int nFree = 0;
  unsigned int hint = 0;
  for (unsigned int n = 0; n < entries; ++n) {
    const bool used = n < 2 || fat.Get(n) != 0;
    ASSERT_EQ(bitmap.TestBit(n), used) << "entry " << n;
    if (used) continue;
    if (nFree++ == 0) hint = n;
  }
  EXPECT_EQ(bitmap.FreeClusters(), nFree);
  EXPECT_EQ(bitmap.Hint(), nFree == 0 ? 2 : hint);
}

TEST_F(FatBitmapLoad, RandomFatsOfEveryWidthAndSize_ArePicturedEntryByEntry) {
  const CDiskImage frame = Frame();
  for (const unsigned int width : {12u, 16u, 32u}) {
    std::vector<unsigned int> counts{100, 1000, 4086};
    for (unsigned int clusters = 0; clusters < 34; ++clusters) counts.push_back(clusters);
    // Ends of blocks.
    if (width == 16) counts.insert(counts.end(), {131069, 131070, 131071, 131073, 200000});
    if (width == 32) counts.insert(counts.end(), {65533, 65534, 65535, 65537, 131070, 140005});
    for (const unsigned int clusters : counts) {
      for (const unsigned int oneIn : {1u, 2u, 9u, 1000000u}) {
        SCOPED_TRACE("FAT" + std::to_string(width) + ", " + std::to_string(clusters) + " clusters, one free in " +
                     std::to_string(oneIn));
        CDiskImage image = frame;
        CVolumeBench bench{image};
        ASSERT_GE(bench.Mount(), 0);
        const CFatBits fat = RandomFat(bench.Image(), width, clusters + 2, oneIn, clusters + oneIn);
        ASSERT_GE(bench.Table().Destory(), 0);
        ASSERT_GE(bench.Table().Create(static_cast<FAT_IDX_BITS>(width), 9, clusters), 0);
        ExpectPictureOf(fat, clusters + 2, bench.Table().Bitmap());
      }
    }
  }
}

TEST_F(FatBitmapLoad, LongFreeAndUsedStretches_EndWhereTheFatSaysSo) {
  constexpr unsigned int entries = 1200;
  CVolumeBench bench{Frame()};
  ASSERT_GE(bench.Mount(), 0);
  for (const unsigned int width : {12u, 16u, 32u}) {
    for (const unsigned int n : {2u, 3u, 254u, 255u, 256u, 257u, 511u, 512u, 513u, 767u, 768u, 1023u, 1024u, 1199u}) {
      for (const bool free : {false, true}) {
        SCOPED_TRACE("FAT" + std::to_string(width) + ", all but entry " + std::to_string(n) + " alike");
        CFatBits fat(BYTES(ToSize(CFatBits::BytesFor(entries, width)), free ? 0xFF : 0), width);
        // The lowest and the highest bit alone make an entry a used one.
        fat.Set(n, free ? 0 : n % 2 == 0 ? 1 : 1u << (width - 1));
        bench.Image().WriteBytes(512, fat.Bytes());
        ASSERT_GE(bench.Table().Destory(), 0);
        ASSERT_GE(bench.Table().Create(static_cast<FAT_IDX_BITS>(width), 9, entries - 2), 0);
        ExpectPictureOf(fat, entries, bench.Table().Bitmap());
      }
    }
  }
}

TEST_F(FatBitmapLoad, EmptyVolume_HasTheHintAtTwoAndEveryClusterFree) {
  for (const unsigned int bits : {12u, 16u}) {
    FAT_GEOMETRY geometry;
    geometry.FatBits = bits;
    CImageBuilder builder(geometry);
    CVolumeBench bench{builder.Image()};
    ASSERT_GE(bench.Mount(), 0);
    EXPECT_EQ(bench.Table().Bitmap().Hint(), 2u);
    EXPECT_EQ(bench.Table().Bitmap().FreeClusters(), builder.Geometry().Clusters);
  }
}

TEST_F(FatBitmapLoad, NoClusters_NothingIsReadAndNothingIsFree) {
  for (const FAT_IDX_BITS bits : {FAT_BITS_12, FAT_BITS_16, FAT_BITS_32}) {
    CVolumeBench bench{Frame()};
    ASSERT_EQ(bench.MountWithTable(bits, 9, 0), 0);
    EXPECT_EQ(bench.Medium().Transfers(), 0u);
    EXPECT_EQ(bench.Table().Bitmap().Size(), 2u);
    EXPECT_EQ(bench.Table().Bitmap().FreeClusters(), 0u);
    EXPECT_EQ(bench.Table().Bitmap().Hint(), 2u);
  }
}

TEST_F(FatBitmapLoad, EntriesZeroAndOneAreZero_TheirBitsAreSet) {
  CVolumeBench bench{Frame()};
  ASSERT_GE(bench.Mount(), 0);
  bench.Image().Fill(512, 512, 0);
  for (const unsigned int width : {12u, 16u, 32u}) {
    ASSERT_GE(bench.Table().Destory(), 0);
    ASSERT_GE(bench.Table().Create(static_cast<FAT_IDX_BITS>(width), 9, 100), 0);
    EXPECT_TRUE(bench.Table().Bitmap().TestBit(0));
    EXPECT_TRUE(bench.Table().Bitmap().TestBit(1));
    EXPECT_FALSE(bench.Table().Bitmap().TestBit(2));
    EXPECT_EQ(bench.Table().Bitmap().FreeClusters(), 100u);
  }
}

TEST_F(FatBitmapLoad, Fat32EntryWithTopBitsOnly_CountsAsUsed) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 32;
  geometry.Clusters = 1000;
  CImageBuilder builder(geometry);
  builder.SetFatEntry(100, 0xF0000000);
  builder.SetFatEntry(101, 0x10000000);
  CVolumeBench bench{builder.Image()};
  ASSERT_GE(bench.Mount(), 0);
  EXPECT_TRUE(bench.Table().Bitmap().TestBit(100));
  EXPECT_TRUE(bench.Table().Bitmap().TestBit(101));
  EXPECT_FALSE(bench.Table().Bitmap().TestBit(102));
  EXPECT_EQ(bench.Table().Bitmap().FreeClusters(), 1000u - 3);  // the root has one, too
  EXPECT_EQ(bench.Table().Bitmap().Hint(), 3u);
}

TEST_F(FatBitmapLoad, NothingFree_TheHintStaysAtTwo) {
  CVolumeBench bench{Frame()};
  ASSERT_GE(bench.Mount(), 0);
  bench.Image().Fill(512, 4096, 0xFF);
  ASSERT_GE(bench.Table().Destory(), 0);
  ASSERT_GE(bench.Table().Create(FAT_BITS_16, 9, 1000), 0);
  EXPECT_EQ(bench.Table().Bitmap().Hint(), 2u);
  EXPECT_EQ(bench.Table().Bitmap().FreeClusters(), 0u);
}

TEST_F(FatBitmapLoad, BlocksOfTheFat_AreReadOnceEachHighestFirst) {
  CVolumeBench bench{Frame()};
  ASSERT_GE(bench.MountWithTable(FAT_BITS_32, 9, 5 * 65536 + 1000), 0);
  TRACE expected;
  expected.push_back({IO_KIND::ReadSectors, 512 + 5LL * BLOCK_BYTES, (1002 * 4 + 511) / 512 * 512, 0});
  for (long long block = 4; block >= 0; --block) {
    expected.push_back({IO_KIND::ReadSectors, 512 + block * BLOCK_BYTES, BLOCK_BYTES, 0});
  }
  EXPECT_EQ(bench.Medium().Trace(), expected) << bench.Medium().TraceText();
}

TEST_F(FatBitmapLoad, AnyBlockCannotBeRead_ItsStatusIsReturnedAndNoMemoryKept) {
  CVolumeBench bench{Frame()};
  ASSERT_GE(bench.Mount(), 0);
  for (unsigned int failAt = 1; failAt <= 5; ++failAt) {
    ASSERT_GE(bench.Table().Destory(), 0);
    const std::size_t outstanding = Memory().Outstanding();
    bench.Medium().ClearTrace();
    bench.Medium().FailAt(failAt, FAULT_ONCE, IO_FILTER::Reads, -90);
    EXPECT_EQ(bench.Table().Create(FAT_BITS_32, 9, 5 * 65536 - 2), -90);
    EXPECT_EQ(bench.Medium().Transfers(), failAt);
    EXPECT_EQ(bench.Table().Bitmap().Size(), 0u);
    bench.Table().Abandon();
    EXPECT_EQ(Memory().Outstanding(), outstanding);
    ASSERT_GE(bench.Table().Create(FAT_BITS_32, 9, 5 * 65536 - 2), 0);
  }
}

TEST_F(FatBitmapLoad, ReadDeliversOnlyPart_MissingEntriesAreFree) {
  CVolumeBench bench{Frame()};
  ASSERT_GE(bench.Mount(), 0);
  bench.Image().Fill(512, 4096, 0xFF);
  ASSERT_GE(bench.Table().Destory(), 0);
  bench.Medium().ShortenReadAt(1, 1000);
  ASSERT_GE(bench.Table().Create(FAT_BITS_16, 9, 1000), 0);
  EXPECT_EQ(bench.Table().Bitmap().Hint(), 500u);
  EXPECT_EQ(bench.Table().Bitmap().FreeClusters(), 502u);
}

TEST_F(FatBitmapLoad, NoMemory_IsSaidSoAndNothingIsRead) {
  CVolumeBench bench{Frame()};
  ASSERT_GE(bench.MountWithTable(FAT_BITS_16, 9, 1000), 0);
  bench.Medium().ClearTrace();
  CFatBitmap bitmap;
  Memory().FailAt(1, CMemHooks::ONCE);
  EXPECT_EQ(bitmap.LoadBitmapFromTable(&bench.Table(), FAT_BITS_16, 1002), NO_MEMORY);
  EXPECT_EQ(bitmap.Size(), 0u);
  EXPECT_EQ(bench.Medium().Transfers(), 0u);
}

// ---------------------------------------------------------------- choosing

RUN_LIST ListOf(const CRuns& runs) {
  RUN_LIST list;
  for (unsigned int i = 1; i <= runs.NumberOfRuns(); ++i) list.emplace_back(runs.StartingLbn(i), runs.LengthOfRun(i));
  return list;
}

/// Runs that are given back at the end of the scope.
class CRunsInUse : public CRuns {
 public:
  CRunsInUse() { EXPECT_TRUE(Initialize()); }
  explicit CRunsInUse(const RUN_LIST& runs) : CRunsInUse() {
    for (const auto& [start, length] : runs) EXPECT_TRUE(AppendEntry(start, length));
  }
  ~CRunsInUse() { Uninitialize(); }
  CRunsInUse(const CRunsInUse&) = delete;
  CRunsInUse& operator=(const CRunsInUse&) = delete;
};

/// A bitmap of its own over a FAT16 of so many clusters, all used but those named.
class CBitmapBench {
 public:
  CBitmapBench(unsigned int clusters, const RUN_LIST& free) : m_nEntries(clusters + 2), m_Bench(Frame()) {
    EXPECT_GE(m_Bench.Mount(), 0);
    BYTES fat(std::size_t{2} * m_nEntries, 0xFF);
    for (const auto& [start, length] : free) std::fill_n(fat.data() + 2 * start, 2 * length, 0);
    m_Bench.Image().WriteBytes(512, fat);
    EXPECT_GE(m_Bench.Table().Destory(), 0);
    EXPECT_GE(m_Bench.Table().Create(FAT_BITS_16, 9, clusters), 0);
    EXPECT_GE(m_Bitmap.LoadBitmapFromTable(&m_Bench.Table(), FAT_BITS_16, m_nEntries), 0);
  }
  ~CBitmapBench() { m_Bitmap.FreeMem(); }
  CBitmapBench(const CBitmapBench&) = delete;
  CBitmapBench& operator=(const CBitmapBench&) = delete;

  CMedium& Medium() { return m_Bench.Medium(); }
  CFatBitmap& operator*() { return m_Bitmap; }
  CFatBitmap* operator->() { return &m_Bitmap; }

  /// Builds it again from the FAT, which is as it was at the start.
  int Reload() { return m_Bitmap.LoadBitmapFromTable(&m_Bench.Table(), FAT_BITS_16, m_nEntries); }
  /// The runs that a request is given. A failing request adds a test failure.
  RUN_LIST Allocate(unsigned int count) {
    CRunsInUse runs;
    EXPECT_EQ(m_Bitmap.AllocateClusters(count, &runs), 0);
    return ListOf(runs);
  }
  int StatusOfAllocate(unsigned int count) {
    CRunsInUse runs;
    const int status = m_Bitmap.AllocateClusters(count, &runs);
    if (status < 0) {
      EXPECT_EQ(runs.NumberOfRuns(), 0u);
    }
    return status;
  }
  /// The free clusters as runs.
  RUN_LIST Free() const {
    RUN_LIST runs;
    for (unsigned int n = 0; n < m_nEntries; ++n) {
      if (m_Bitmap.TestBit(n)) continue;
      if (!runs.empty() && runs.back().first + runs.back().second == n) {
        ++runs.back().second;
      } else {
        runs.emplace_back(n, 1);
      }
    }
    return runs;
  }
  /// Free clusters, count and hint are what they should be.
  void Expect(const RUN_LIST& free, unsigned int count, unsigned int hint) const {
    EXPECT_EQ(Free(), free);
    EXPECT_EQ(m_Bitmap.FreeClusters(), count);
    EXPECT_EQ(m_Bitmap.Hint(), hint);
  }

 private:
  unsigned int m_nEntries;
  CVolumeBench m_Bench;
  CFatBitmap m_Bitmap;
};

TEST_F(FatBitmapAllocation, EightOf5To9And20To29_AreOneRunAndTheHintStays) {
  CBitmapBench bitmap(100, {{5, 5}, {20, 10}});
  bitmap.Expect({{5, 5}, {20, 10}}, 15, 5);
  EXPECT_EQ(bitmap.Allocate(8), (RUN_LIST{{20, 8}}));
  bitmap.Expect({{5, 5}, {28, 2}}, 7, 5);
}

TEST_F(FatBitmapAllocation, TwelveOf5To9And20To29_AreTheLowestPiecesAndTheHintMoves) {
  CBitmapBench bitmap(100, {{5, 5}, {20, 10}});
  EXPECT_EQ(bitmap.Allocate(12), (RUN_LIST{{5, 5}, {20, 7}}));
  bitmap.Expect({{27, 3}}, 3, 27);
}

TEST_F(FatBitmapAllocation, ExactlyTheFreeClusters_AreGivenOneMoreIsDiskFull) {
  for (const RUN_LIST& free : {RUN_LIST{{5, 5}, {20, 10}}, RUN_LIST{{50, 15}}}) {
    CBitmapBench bitmap(100, free);
    EXPECT_EQ(bitmap.StatusOfAllocate(16), DISK_FULL);
    EXPECT_EQ(bitmap.StatusOfAllocate(0xFFFFFFFFu), DISK_FULL);
    bitmap.Expect(free, 15, free.front().first);
    EXPECT_EQ(bitmap.Allocate(15), free);
    EXPECT_EQ(bitmap->FreeClusters(), 0u);
    EXPECT_EQ(bitmap.StatusOfAllocate(1), DISK_FULL);
  }
}

TEST_F(FatBitmapAllocation, ClusterFreedBelowTheHint_BecomesTheHint) {
  CBitmapBench bitmap(100, {{40, 5}});
  ASSERT_EQ(bitmap->Hint(), 40u);
  bitmap->RecycleOneCluster(3);
  bitmap.Expect({{3, 1}, {40, 5}}, 6, 3);
  bitmap->RecycleOneCluster(60);
  bitmap.Expect({{3, 1}, {40, 5}, {60, 1}}, 7, 3);
}

TEST_F(FatBitmapAllocation, RunsFreed_AreFreeAndTheLowestStartIsTheHint) {
  CBitmapBench bitmap(100, {{80, 1}});
  CRunsInUse runs({{50, 3}, {10, 2}, {30, 20}});
  bitmap->RecycleClusters(&runs);
  bitmap.Expect({{10, 2}, {30, 23}, {80, 1}}, 26, 10);
  CRunsInUse none;
  bitmap->RecycleClusters(&none);
  bitmap.Expect({{10, 2}, {30, 23}, {80, 1}}, 26, 10);
}

TEST_F(FatBitmapAllocation, RunAtTheHint_MovesItToTheNextFreeCluster) {
  CBitmapBench bitmap(100, {{5, 5}, {20, 10}});
  EXPECT_EQ(bitmap.Allocate(3), (RUN_LIST{{5, 3}}));
  EXPECT_EQ(bitmap->Hint(), 8u);
  EXPECT_EQ(bitmap.Allocate(2), (RUN_LIST{{8, 2}}));
  EXPECT_EQ(bitmap->Hint(), 20u);
}

TEST_F(FatBitmapAllocation, RunUpToTheEndOfTheMap_MovesTheHintThere) {
  CBitmapBench bitmap(100, {{90, 12}});  // up to cluster 101, the last one
  EXPECT_EQ(bitmap.Allocate(12), (RUN_LIST{{90, 12}}));
  bitmap.Expect({}, 0, 102);
  bitmap->RecycleOneCluster(95);
  bitmap.Expect({{95, 1}}, 1, 95);
}

TEST_F(FatBitmapAllocation, NoFreeClusterBehindTheRun_TheHintStays) {
  CBitmapBench bitmap(100, {{40, 6}});
  EXPECT_EQ(bitmap.Allocate(6), (RUN_LIST{{40, 6}}));
  bitmap.Expect({}, 0, 40);
}

TEST_F(FatBitmapAllocation, PiecesUpToTheEndOfTheMap_MoveTheHintThere) {
  CBitmapBench bitmap(100, {{40, 2}, {100, 2}});
  EXPECT_EQ(bitmap.Allocate(4), (RUN_LIST{{40, 2}, {100, 2}}));
  bitmap.Expect({}, 0, 102);
}

TEST_F(FatBitmapAllocation, NoFreeClusterBehindThePieces_TheHintStays) {
  CBitmapBench bitmap(100, {{40, 2}, {50, 2}});
  EXPECT_EQ(bitmap.Allocate(4), (RUN_LIST{{40, 2}, {50, 2}}));
  bitmap.Expect({}, 0, 40);
}

TEST_F(FatBitmapAllocation, FirstFit_IsTheLowestRunThatIsLongEnough) {
  CBitmapBench bitmap(200, {{5, 2}, {10, 4}, {20, 3}, {30, 100}});
  EXPECT_EQ(bitmap.Allocate(3), (RUN_LIST{{10, 3}}));
  EXPECT_EQ(bitmap.Allocate(3), (RUN_LIST{{20, 3}}));
  EXPECT_EQ(bitmap.Allocate(3), (RUN_LIST{{30, 3}}));
  EXPECT_EQ(bitmap.Allocate(1), (RUN_LIST{{5, 1}}));
  bitmap.Expect({{6, 1}, {13, 1}, {33, 97}}, 99, 6);
}

TEST_F(FatBitmapAllocation, RequestThatFitsNowhere_IsNeverMixedWithARun) {
  CBitmapBench bitmap(100, {{5, 1}, {10, 8}, {30, 3}});
  EXPECT_EQ(bitmap.Allocate(9), (RUN_LIST{{5, 1}, {10, 8}}));
  bitmap.Expect({{30, 3}}, 3, 30);
}

TEST_F(FatBitmapAllocation, MapWithRunsAlready_GetsTheNewOnesBehind) {
  CBitmapBench bitmap(100, {{5, 2}, {20, 2}});
  CRunsInUse runs({{60, 4}, {3, 2}});
  EXPECT_EQ(bitmap->AllocateClusters(2, &runs), 0);
  EXPECT_EQ(ListOf(runs), (RUN_LIST{{60, 4}, {3, 4}}));  // 5 follows 4
  CRunsInUse more({{60, 4}});
  bitmap->RecycleOneCluster(10);
  EXPECT_EQ(bitmap->AllocateClusters(3, &more), 0);
  EXPECT_EQ(ListOf(more), (RUN_LIST{{60, 4}, {10, 1}, {20, 2}}));
}

TEST_F(FatBitmapAllocation, FreeClusterFreedAgain_CountsTwiceAndThePromiseCannotBeKept) {
  CBitmapBench bitmap(100, {{5, 2}, {20, 2}});
  bitmap->RecycleOneCluster(20);
  bitmap.Expect({{5, 2}, {20, 2}}, 5, 5);
  EXPECT_EQ(bitmap.StatusOfAllocate(5), DISK_CORRUPT);
  bitmap.Expect({{5, 2}, {20, 2}}, 5, 5);
  EXPECT_EQ(bitmap.Allocate(4), (RUN_LIST{{5, 2}, {20, 2}}));
  EXPECT_EQ(bitmap.StatusOfAllocate(1), DISK_CORRUPT);
  EXPECT_EQ(bitmap->FreeClusters(), 1u);
}

TEST_F(FatBitmapAllocation, BuiltAgain_ChoosesAsIfNothingHadBeenChosenBefore) {
  CBitmapBench bitmap(100, {{5, 2}, {20, 10}});
  EXPECT_EQ(bitmap.Allocate(4), (RUN_LIST{{20, 4}}));
  EXPECT_EQ(bitmap.Allocate(4), (RUN_LIST{{24, 4}}));
  EXPECT_EQ(bitmap.Allocate(4), (RUN_LIST{{5, 2}, {28, 2}}));
  ASSERT_GE(bitmap.Reload(), 0);
  bitmap.Expect({{5, 2}, {20, 10}}, 12, 5);
  EXPECT_EQ(bitmap.Allocate(4), (RUN_LIST{{20, 4}}));
}

TEST_F(FatBitmapAllocation, ClusterOutsideTheMapFreed_IsCountedAndTouchesNoBit) {
  CBitmapBench bitmap(100, {{5, 2}, {20, 2}});
  bitmap->RecycleOneCluster(102);
  bitmap->RecycleOneCluster(0xFFFFFFFFu);
  bitmap.Expect({{5, 2}, {20, 2}}, 6, 5);
  EXPECT_EQ(bitmap.StatusOfAllocate(6), DISK_CORRUPT);
  bitmap.Expect({{5, 2}, {20, 2}}, 6, 5);
}

TEST_F(FatBitmapAllocation, RequestForNoCluster_GivesNoneAndMarksNothing) {
  CBitmapBench bitmap(100, {{5, 2}, {20, 2}});
  EXPECT_EQ(bitmap.Allocate(0), RUN_LIST());
  bitmap.Expect({{5, 2}, {20, 2}}, 4, 5);
}

TEST_F(FatBitmapAllocation, ChoosingAndFreeing_MakeNoTransfer) {
  CBitmapBench bitmap(100, {{5, 5}, {20, 10}});
  bitmap.Medium().ClearTrace();
  bitmap.Allocate(8);
  bitmap.Allocate(6);
  bitmap->RecycleOneCluster(3);
  EXPECT_EQ(bitmap.StatusOfAllocate(50), DISK_FULL);
  EXPECT_EQ(bitmap.Medium().Transfers(), 0u);
}

TEST_F(FatBitmapAllocation, MapThatTakesNoRun_IsDiskCorruptAndNothingIsMarked) {
  CBitmapBench bitmap(100, {{5, 5}, {20, 10}});
  CRuns runs;                                                    // without storage
  EXPECT_EQ(bitmap->AllocateClusters(8, &runs), DISK_CORRUPT);   // one run
  EXPECT_EQ(bitmap->AllocateClusters(12, &runs), DISK_CORRUPT);  // pieces
  bitmap.Expect({{5, 5}, {20, 10}}, 15, 5);
}

TEST_F(FatBitmapAllocation, AnyAllocationFailing_IsDiskCorruptAndNothingIsMarked) {
  // Forty pieces: the temporary map and the caller's both have to grow.
  RUN_LIST free;
  for (unsigned int i = 0; i < 40; ++i) free.emplace_back(10 + 3 * i, 1);
  CBitmapBench bitmap(1000, free);
  // The blocks that maps start with come from a pool, which may have to be filled first.
  unsigned int failAt = 1;
  for (;; ++failAt) {
    CRunsInUse runs;
    Memory().FailAt(failAt, CMemHooks::ONCE);
    const int status = bitmap->AllocateClusters(40, &runs);
    Memory().Heal();
    if (!Memory().Fired()) {
      EXPECT_EQ(status, 0);
      EXPECT_EQ(ListOf(runs), free);
      break;
    }
    EXPECT_EQ(status, DISK_CORRUPT) << failAt;
    EXPECT_EQ(runs.NumberOfRuns(), 0u);
    bitmap.Expect(free, 40, 10);
  }
  EXPECT_GT(failAt, 2u);
}

TEST_F(FatBitmapAllocation, PoolOfFirstMapsUsedUpAndNoMemory_PiecesCannotBeGathered) {
  CBitmapBench bitmap(100, {{5, 1}, {20, 1}});
  CRunsInUse runs;
  Memory().FailAt(1, CMemHooks::FOR_GOOD);
  // Maps take blocks of the pool until it has none left.
  std::vector<std::unique_ptr<CRuns>> others;
  do {
    others.push_back(std::make_unique<CRuns>());
  } while (others.back()->Initialize());
  EXPECT_EQ(bitmap->AllocateClusters(2, &runs), DISK_CORRUPT);
  Memory().Heal();
  bitmap.Expect({{5, 1}, {20, 1}}, 2, 5);
  for (const auto& other : others) other->Uninitialize();
  EXPECT_EQ(bitmap.Allocate(2), (RUN_LIST{{5, 1}, {20, 1}}));
}

// ---------------------------------------------------------------- the twin

/// The rules of choosing clusters, one bit at a time.
class CBitmapTwin {
 public:
  explicit CBitmapTwin(const CBitmapBench& bench, unsigned int entries) : m_Used(entries, true) {
    for (const auto& [start, length] : bench.Free()) Mark(start, length, false);
    m_nFree = static_cast<unsigned int>(std::count(m_Used.begin(), m_Used.end(), false));
    m_nHint = 2;
    MoveHint(2);
  }

  int Allocate(unsigned int count, RUN_LIST& runs) {
    if (m_nFree < count) return DISK_FULL;
    unsigned int start = FirstFit(count, m_nHint);
    if (start == NONE) start = FirstFit(count, 0);
    if (start != NONE) {
      runs = {{start, count}};
      Mark(start, count, true);
      m_nFree -= count;
      if (start == m_nHint) MoveHint(start + count);
      return 0;
    }
    RUN_LIST pieces;
    unsigned int position = m_nHint;
    for (unsigned int remaining = count; remaining != 0;) {
      while (position < m_Used.size() && m_Used[position]) ++position;
      if (position >= m_Used.size()) return DISK_CORRUPT;
      unsigned int length = 0;
      while (length < remaining && position + length < m_Used.size() && !m_Used[position + length]) ++length;
      pieces.emplace_back(position, length);
      position += length;
      remaining -= length;
    }
    for (const auto& [first, length] : pieces) Mark(first, length, true);
    m_nFree -= count;
    MoveHint(position);
    runs = pieces;
    return 0;
  }

  void Recycle(unsigned int start, unsigned int length) {
    m_nHint = std::min(m_nHint, start);
    Mark(start, length, false);
    m_nFree += length;
  }

  unsigned int Free() const { return m_nFree; }
  unsigned int Hint() const { return m_nHint; }
  bool IsUsed(unsigned int n) const { return m_Used[n]; }
  unsigned int Size() const { return static_cast<unsigned int>(m_Used.size()); }

 private:
  static constexpr unsigned int NONE = 0xFFFFFFFF;

  unsigned int FirstFit(unsigned int count, unsigned int from) const {
    for (unsigned int start = from; start + count <= m_Used.size(); ++start) {
      unsigned int length = 0;
      while (length < count && !m_Used[start + length]) ++length;
      if (length == count) return start;
    }
    return NONE;
  }
  void MoveHint(unsigned int from) {
    unsigned int next = from;
    while (next < m_Used.size() && m_Used[next]) ++next;
    if (next < m_Used.size() || from >= m_Used.size()) m_nHint = next;
  }
  void Mark(unsigned int start, unsigned int length, bool used) {
    for (unsigned int n = start; n < start + length; ++n) m_Used[n] = used;
  }

  std::vector<bool> m_Used;
  unsigned int m_nFree;
  unsigned int m_nHint;
};

void ExpectSame(const CBitmapTwin& twin, const CFatBitmap& bitmap) {
  ASSERT_EQ(bitmap.FreeClusters(), twin.Free());
  ASSERT_EQ(bitmap.Hint(), twin.Hint());
  for (unsigned int n = 0; n < twin.Size(); ++n) {
    ASSERT_EQ(bitmap.TestBit(n), twin.IsUsed(n)) << "cluster " << n;
    if (n < bitmap.Hint()) {
      ASSERT_TRUE(bitmap.TestBit(n)) << "free below the hint: " << n;
    }
  }
}

/// Random requests and releases on a volume of so many clusters; requests have up to `largest` clusters.
void RunAgainstTwin(unsigned int clusters, unsigned int largest, unsigned int steps, unsigned int seed) {
  SCOPED_TRACE(std::to_string(clusters) + " clusters, requests up to " + std::to_string(largest) + ", seed " +
               std::to_string(seed));
  std::mt19937 random(seed);
  RUN_LIST free;
  for (unsigned int n = 2; n < clusters + 2; ++n) {
    if (random() % 4 != 0) free.emplace_back(n, 1);
  }
  CBitmapBench bitmap(clusters, free);
  CBitmapTwin twin(bitmap, clusters + 2);
  std::vector<RUN_LIST> held;
  for (unsigned int step = 0; step < steps; ++step) {
    const bool release = !held.empty() && random() % 100 < (step / 100 % 2 == 0 ? 40 : 60);
    if (release) {
      const std::size_t chosen = random() % held.size();
      CRunsInUse runs(held[chosen]);
      if (runs.Length() == 1) {
        bitmap->RecycleOneCluster(held[chosen][0].first);
      } else {
        bitmap->RecycleClusters(&runs);
      }
      for (const auto& [start, length] : held[chosen]) twin.Recycle(start, length);
      held.erase(held.begin() + static_cast<std::ptrdiff_t>(chosen));
    } else {
      const unsigned int count = 1 + static_cast<unsigned int>(random() % largest);
      RUN_LIST expected;
      const int expectedStatus = twin.Allocate(count, expected);
      CRunsInUse runs;
      ASSERT_EQ(bitmap->AllocateClusters(count, &runs), expectedStatus) << "step " << step << ", request of " << count;
      ASSERT_EQ(ListOf(runs), expected) << "step " << step << ", request of " << count;
      if (expectedStatus == 0) held.push_back(expected);
    }
    ExpectSame(twin, *bitmap);
    if (::testing::Test::HasFatalFailure()) return;
  }
}

TEST_F(FatBitmapAllocation, RandomRequestsAndReleases_AgreeWithATwin) {
  for (unsigned int seed = 1; seed <= 4; ++seed) {
    RunAgainstTwin(6, 4, 300, seed);
    RunAgainstTwin(12, 7, 2000, seed);
    RunAgainstTwin(40, 9, 2000, seed);
    RunAgainstTwin(61, 12, 600, seed);
    RunAgainstTwin(62, 70, 600, seed);
    RunAgainstTwin(63, 3, 600, seed);
    RunAgainstTwin(300, 40, 600, seed);
    RunAgainstTwin(1000, 300, 300, seed);
  }
}

}  // namespace
