/// @file MediumTest.cpp
/// Geometry, the FAT and its chains, the bytes of files.

#include <fatlib/Error.h>
#include <fatlib/Medium.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <ostream>
#include <utility>

#include "ImageDevice.h"
#include "support/ImageBuilder.h"

namespace fatlib {
bool operator==(const Extent& a, const Extent& b) { return a.first == b.first && a.count == b.count; }
std::ostream& operator<<(std::ostream& out, const Extent& e) { return out << e.first << "+" << e.count; }
}  // namespace fatlib

namespace {

using fatlib::Extent;
using fatlib::FatType;
using fatlib::Medium;
using fatlib::RawEntry;
using fatlib::Status;
using BYTES = std::vector<unsigned char>;
using EXTENTS = std::vector<Extent>;

FAT_GEOMETRY OfWidth(unsigned int bits) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = bits;
  return geometry;
}

/// A builder and the medium that reads its image.
class CBuilt {
 public:
  explicit CBuilt(const FAT_GEOMETRY& geometry) : Builder(geometry) {}
  explicit CBuilt(unsigned int bits) : Builder(OfWidth(bits)) {}

  Medium& Open() {
    m_pDevice = std::make_unique<CImageDevice>(Builder.Image());
    EXPECT_FALSE(m_Medium.Open(m_pDevice.get()));
    return m_Medium;
  }
  CImageDevice& Device() { return *m_pDevice; }

  CImageBuilder Builder;

 private:
  std::unique_ptr<CImageDevice> m_pDevice;
  Medium m_Medium;
};

RawEntry FileOf(std::uint32_t cluster, std::uint32_t size) {
  RawEntry entry;
  entry.firstCluster = cluster;
  entry.size = size;
  return entry;
}

// ---------------------------------------------------------------------------------------------- geometry

TEST(Medium, GeometryIsThatOfTheBootSector) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    FAT_GEOMETRY geometry = OfWidth(bits);
    geometry.BytesPerSector = 1024;
    geometry.SectorsPerCluster = 4;
    geometry.NumberOfFats = 3;
    CBuilt built(geometry);
    const fatlib::Geometry layout = built.Open().Layout();
    EXPECT_EQ(static_cast<unsigned int>(layout.type), bits);
    EXPECT_FALSE(layout.ambiguous);
    EXPECT_EQ(layout.bytesPerSector, 1024u);
    EXPECT_EQ(layout.bytesPerCluster, 4096u);
    EXPECT_EQ(layout.fats, 3u);
    EXPECT_EQ(layout.clusters, built.Builder.Geometry().Clusters);
    EXPECT_EQ(layout.FatPosition(2), built.Builder.FatOffset(2));
    EXPECT_EQ(layout.ClusterPosition(2), built.Builder.DataOffset());
    EXPECT_EQ(layout.ClusterPosition(77), built.Builder.ClusterOffset(77));
    EXPECT_EQ(layout.rootEntries, built.Builder.Geometry().RootEntries);
    EXPECT_TRUE(bits == 32 || layout.RootPosition() == built.Builder.RootOffset());
    EXPECT_EQ(layout.fsInfoSector != 0, bits == 32);
    EXPECT_EQ(layout.media, 0xF8);
  }
}

TEST(Medium, TypeFollowsTheLibrarysBounds) {
  const std::pair<unsigned int, FatType> bounds[] = {{4084, FatType::Fat12},
                                                     {4085, FatType::Fat12},
                                                     {4086, FatType::Fat12},
                                                     {4087, FatType::Fat16},
                                                     {65526, FatType::Fat16}};
  for (const auto& [clusters, type] : bounds) {
    FAT_GEOMETRY geometry = OfWidth(16);
    geometry.Clusters = clusters;
    CBuilt built(geometry);
    EXPECT_EQ(built.Open().Layout().type, type) << clusters;
    EXPECT_EQ(built.Open().Layout().ambiguous, clusters == 4085 || clusters == 4086) << clusters;
  }
}

TEST(Medium, RootThatEndsInsideASectorTakesAWholeOne) {
  FAT_GEOMETRY geometry = OfWidth(12);
  geometry.RootEntries = 20;
  CBuilt built(geometry);
  Medium& medium = built.Open();
  EXPECT_EQ(medium.Layout().ClusterPosition(2), medium.Layout().RootPosition() + 1024);
  std::vector<RawEntry> entries;
  std::vector<bool> slots;
  EXPECT_FALSE(medium.ReadDirectory(Medium::ROOT, &entries, nullptr, &slots));
  EXPECT_EQ(slots.size(), 32u);
}

TEST(Medium, DeviceWithoutBootSectorIsNotAVolume) {
  for (const unsigned int size : {0u, 100u, 4096u}) {
    CImageDevice device(size);
    Medium medium;
    EXPECT_EQ(medium.Open(&device), Status::NotAVolume);
  }
}

TEST(Medium, FailedReadOfTheBootSectorIsReported) {
  CImageDevice device(4096);
  device.FailAt(1);
  Medium medium;
  EXPECT_EQ(medium.Open(&device), Status::IoError);
}

TEST(Medium, DeviceMayBeShorterThanItsVolume) {
  CBuilt built(32);
  built.Builder.Image().Resize(4096);
  Medium& medium = built.Open();
  std::uint32_t free = 0;
  EXPECT_FALSE(medium.CountFree(&free));
  EXPECT_EQ(free, built.Builder.Geometry().Clusters);  // the FAT reads as zeros
  std::vector<RawEntry> entries;
  EXPECT_EQ(medium.ReadDirectory(Medium::ROOT, &entries), Status::DiskCorrupt);
  EXPECT_TRUE(entries.empty());
}

// ---------------------------------------------------------------------------------------------- the FAT

TEST(Medium, EntriesReadAsTheyAreStored) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    CBuilt built(bits);
    const std::uint32_t last = built.Builder.Geometry().Clusters + 1;
    const std::uint32_t mask = bits == 32 ? 0x0FFFFFFF : (1u << bits) - 1;
    for (std::uint32_t cluster = 2; cluster <= last; ++cluster) {
      built.Builder.SetFatEntry(cluster, cluster * 2654435761u & mask);
    }
    Medium& medium = built.Open();
    for (std::uint32_t cluster = 2; cluster <= last; ++cluster) {
      std::uint32_t value = 0;
      ASSERT_FALSE(medium.FatEntry(cluster, &value));
      ASSERT_EQ(value, cluster * 2654435761u & mask) << bits << " " << cluster;
    }
    std::uint32_t value = 0;
    EXPECT_EQ(medium.FatEntry(last + 1, &value), Status::InvalidParameter);
  }
}

TEST(Medium, TopBitsOfAFat32EntryMeanNothing) {
  CBuilt built(32);
  built.Builder.SetFatEntry(5, 0xF0000000);
  built.Builder.SetFatEntry(6, 0xA0000007);
  Medium& medium = built.Open();
  std::uint32_t value = 1;
  EXPECT_FALSE(medium.FatEntry(5, &value));
  EXPECT_EQ(value, 0u);
  EXPECT_FALSE(medium.FatEntry(6, &value));
  EXPECT_EQ(value, 7u);
  EXPECT_FALSE(medium.CountFree(&value));
  EXPECT_EQ(value, built.Builder.Geometry().Clusters - 2);  // without the root's cluster and the sixth
}

TEST(Medium, ChangedEntryStandsInEveryCopyAndAloneIsChanged) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    FAT_GEOMETRY geometry = OfWidth(bits);
    geometry.NumberOfFats = 3;
    CBuilt built(geometry);
    for (const std::uint32_t cluster : {9u, 10u, 11u}) built.Builder.SetFatEntry(cluster, 0xABC);
    built.Builder.SetFatEntryIn(1, 9, 0x123);
    Medium& medium = built.Open();
    for (const std::uint32_t cluster : {10u, 2u, built.Builder.Geometry().Clusters + 1}) {
      EXPECT_FALSE(medium.SetFatEntry(cluster, 0x456));
    }
    CDiskImage expected = built.Builder.Image();
    CImageBuilder changed(built.Device().Image());
    CImageBuilder model(expected);
    for (const std::uint32_t cluster : {10u, 2u, built.Builder.Geometry().Clusters + 1}) {
      model.SetFatEntry(cluster, 0x456);
    }
    EXPECT_EQ(built.Device().Image(), expected) << bits;
    EXPECT_EQ(changed.FatEntry(9, 1), 0x123u) << "the neighbour of another copy";
    std::uint32_t value = 0;
    EXPECT_FALSE(medium.FatEntry(10, &value));
    EXPECT_EQ(value, 0x456u);
  }
}

TEST(Medium, FreeClustersAreCountedAndTheCountFollowsChanges) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    CBuilt built(bits);
    built.Builder.AddFile(CImageBuilder::Root(), "FILE", CImageBuilder::Pattern(100000, 1));
    Medium& medium = built.Open();
    std::uint32_t free = 0;
    EXPECT_FALSE(medium.CountFree(&free));
    EXPECT_EQ(free, built.Builder.CountFree());
    const unsigned int calls = built.Device().Calls();
    EXPECT_FALSE(medium.CountFree(&free));
    EXPECT_EQ(built.Device().Calls(), calls) << "answered from memory";
    EXPECT_FALSE(medium.SetFatEntry(700, 0xFFF));
    EXPECT_FALSE(medium.SetFatEntry(5, 0));
    EXPECT_FALSE(medium.SetFatEntry(5, 0));
    EXPECT_FALSE(medium.CountFree(&free));
    EXPECT_EQ(free, CImageBuilder(built.Device().Image()).CountFree());
  }
}

TEST(Medium, ForgetReadsAnew) {
  CBuilt built(16);
  Medium& medium = built.Open();
  std::uint32_t before = 0;
  EXPECT_FALSE(medium.CountFree(&before));
  CImageBuilder(built.Device().Image()).SetFatEntry(100, 0xFFFF);
  std::uint32_t after = 0;
  EXPECT_FALSE(medium.CountFree(&after));
  EXPECT_EQ(after, before);
  medium.Forget();
  EXPECT_FALSE(medium.CountFree(&after));
  EXPECT_EQ(after, before - 1);
}

TEST(Medium, FatTooShortForItsClustersIsNotWrittenBehindItsEnd) {
  FAT_GEOMETRY geometry = OfWidth(16);
  geometry.SectorsPerFat = 1;  // 256 entries
  CBuilt built(geometry);
  Medium& medium = built.Open();
  EXPECT_FALSE(medium.SetFatEntry(255, 0xFFFF));
  const unsigned int writes = built.Device().Writes();
  EXPECT_EQ(medium.SetFatEntry(256, 0xFFFF), Status::DiskCorrupt);
  EXPECT_EQ(built.Device().Writes(), writes);
}

// 2^28 clusters on a device of 64 KiB: what is not there takes no memory and no time.
TEST(Medium, HugeVolumeOnASmallDeviceIsCountedAtOnce) {
  CBuilt built(32);
  built.Builder.Image().Resize(65536);
  built.Builder.Image().Set32(32, 0xFFFFFFFF);
  built.Builder.Image().Set8(13, 16);
  built.Builder.Image().Set32(36, 0x10000000 / 128);
  Medium& medium = built.Open();
  EXPECT_GT(medium.Layout().clusters, 0x0F000000u);
  std::uint32_t free = 0;
  EXPECT_FALSE(medium.CountFree(&free));
  EXPECT_EQ(free, medium.Layout().clusters - 1);
  EXPECT_LT(built.Device().Calls(), 10u);
  EXPECT_FALSE(medium.FatEntry(medium.Layout().clusters + 1, &free));
  EXPECT_EQ(free, 0u);
}

TEST(Medium, FailedReadOfTheFatIsReportedAndTriedAgain) {
  CBuilt built(16);
  built.Builder.SetChain({10, 11});
  Medium& medium = built.Open();
  built.Device().FailAt(built.Device().Calls() + 1);
  EXTENTS extents;
  EXPECT_EQ(medium.Chain(10, &extents), Status::IoError);
  EXPECT_FALSE(medium.Chain(10, &extents));
  std::uint32_t free = 0;
  medium.Forget();
  built.Device().FailAt(built.Device().Calls() + 1);
  EXPECT_EQ(medium.CountFree(&free), Status::IoError);
  EXPECT_FALSE(medium.CountFree(&free));
}

// ---------------------------------------------------------------------------------------------- chains

TEST(Medium, ChainIsGivenAsRuns) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    CBuilt built(bits);
    built.Builder.SetChain({10, 11, 12, 40, 39, 38, 13});
    EXTENTS extents;
    EXPECT_FALSE(built.Open().Chain(10, &extents));
    EXPECT_EQ(extents, (EXTENTS{{10, 3}, {40, 1}, {39, 1}, {38, 1}, {13, 1}}));
  }
}

TEST(Medium, NoFirstClusterIsNoChain) {
  CBuilt built(16);
  EXTENTS extents(3);
  EXPECT_FALSE(built.Open().Chain(0, &extents));
  EXPECT_TRUE(extents.empty());
}

TEST(Medium, EveryEndMarkEndsAChain) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    const std::uint32_t lowest = bits == 32 ? 0x0FFFFFF8 : bits == 16 ? 0xFFF8 : 0xFF8;
    for (std::uint32_t mark = lowest; mark < lowest + 8; ++mark) {
      CBuilt built(bits);
      built.Builder.SetFatEntry(9, mark);
      EXTENTS extents;
      EXPECT_FALSE(built.Open().Chain(9, &extents));
      EXPECT_TRUE(built.Open().IsEndOfChain(mark));
    }
    EXPECT_FALSE(CBuilt(bits).Open().IsEndOfChain(lowest - 1));
    EXPECT_TRUE(CBuilt(bits).Open().IsBadCluster(lowest - 1));
    EXPECT_FALSE(CBuilt(bits).Open().IsBadCluster(lowest));
  }
}

TEST(Medium, BrokenChainGivesWhatWasReached) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    const std::uint32_t bad = bits == 32 ? 0x0FFFFFF7 : bits == 16 ? 0xFFF7 : 0xFF7;
    for (const std::uint32_t defect : {0u, 1u, bad, bad - 1, CBuilt(bits).Builder.Geometry().Clusters + 2}) {
      CBuilt built(bits);
      built.Builder.SetChain({10, 11, 20});
      built.Builder.SetFatEntry(20, defect);
      EXTENTS extents;
      EXPECT_EQ(built.Open().Chain(10, &extents), Status::DiskCorrupt) << defect;
      EXPECT_EQ(extents, (EXTENTS{{10, 2}, {20, 1}}));
    }
  }
}

TEST(Medium, ChainThatBeginsNowhereIsCorrupt) {
  CBuilt built(16);
  EXTENTS extents;
  for (const std::uint32_t first : {1u, built.Builder.Geometry().Clusters + 2, 0xFFFFFFFFu}) {
    EXPECT_EQ(built.Open().Chain(first, &extents), Status::DiskCorrupt);
    EXPECT_TRUE(extents.empty());
  }
}

// Loops of all lengths up to 20 behind up to 20 clusters: each cluster is given once.
TEST(Medium, LoopGivesEachOfItsClustersOnce) {
  CBuilt built(16);
  for (std::uint32_t before = 0; before <= 20; ++before) {
    for (std::uint32_t length = 1; length <= 20; ++length) {
      std::vector<std::uint32_t> clusters;
      EXTENTS expected;
      for (std::uint32_t i = 0; i < before + length; ++i) {
        clusters.push_back(100 + 2 * i);
        expected.push_back({100 + 2 * i, 1});
      }
      built.Builder.SetChain(clusters);
      built.Builder.SetFatEntry(clusters.back(), clusters[before]);
      EXTENTS extents;
      ASSERT_EQ(built.Open().Chain(100, &extents), Status::DiskCorrupt);
      ASSERT_EQ(extents, expected) << before << " " << length;
    }
  }
}

TEST(Medium, LoopOfAllClustersEnds) {
  CBuilt built(32);
  const std::uint32_t last = built.Builder.Geometry().Clusters + 1;
  for (std::uint32_t cluster = 3; cluster < last; ++cluster) built.Builder.SetFatEntry(cluster, cluster + 1);
  built.Builder.SetFatEntry(last, 3);
  EXTENTS extents;
  EXPECT_EQ(built.Open().Chain(3, &extents), Status::DiskCorrupt);
  EXPECT_EQ(extents, (EXTENTS{{3, last - 2}}));
}

// ---------------------------------------------------------------------------------------------- files

TEST(Medium, FragmentedFileReadsInAnyPieces) {
  CBuilt built(16);
  const BYTES content = CImageBuilder::Pattern(3000, 7);
  built.Builder.AddFile(CImageBuilder::Root(), "FILE", content, {10, 12, 11, 40, 41, 42});
  Medium& medium = built.Open();
  const RawEntry entry = FileOf(10, 3000);
  for (std::size_t offset = 0; offset <= 3000; offset += 123) {
    for (const std::size_t size : {1u, 511u, 512u, 513u, 2000u, 5000u}) {
      BYTES bytes(size, 0xAA);
      std::size_t done = 0;
      ASSERT_FALSE(medium.ReadFile(entry, offset, bytes.data(), size, &done));
      const std::size_t expected = std::min<std::size_t>(size, 3000 - offset);
      ASSERT_EQ(done, expected);
      ASSERT_TRUE(std::equal(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(done),
                             content.begin() + static_cast<std::ptrdiff_t>(offset)));
    }
  }
}

TEST(Medium, ManyFilesReadInTurnsGiveTheirOwnBytes) {
  constexpr std::uint32_t FILES = 20;
  CBuilt built(16);
  std::vector<BYTES> contents;
  for (std::uint32_t i = 0; i < FILES; ++i) {
    contents.push_back(CImageBuilder::Pattern(1500, i + 1));
    built.Builder.AddFile(CImageBuilder::Root(), "FILE" + std::to_string(i), contents.back(), {10 + i, 50 + i, 90 + i});
  }
  Medium& medium = built.Open();
  for (std::size_t offset = 0; offset < 1500; offset += 300) {
    for (std::uint32_t i = 0; i < FILES; ++i) {
      BYTES bytes(300);
      std::size_t done = 0;
      ASSERT_FALSE(medium.ReadFile(FileOf(10 + i, 1500), offset, bytes.data(), bytes.size(), &done));
      ASSERT_TRUE(std::equal(bytes.begin(), bytes.end(), contents[i].begin() + static_cast<std::ptrdiff_t>(offset)));
    }
  }
}

TEST(Medium, ReadingBehindTheEndGivesNothing) {
  CBuilt built(16);
  built.Builder.SetChain({10});
  BYTES bytes(10);
  std::size_t done = 7;
  EXPECT_FALSE(built.Open().ReadFile(FileOf(10, 100), 100, bytes.data(), 10, &done));
  EXPECT_EQ(done, 0u);
  EXPECT_FALSE(built.Open().ReadFile(FileOf(10, 100), UINT64_MAX, bytes.data(), 10, &done));
  EXPECT_EQ(done, 0u);
}

TEST(Medium, SizeBeyondTheChainGivesWhatIsThere) {
  CBuilt built(16);
  built.Builder.SetChain({10, 11});
  BYTES bytes(2000);
  std::size_t done = 0;
  EXPECT_EQ(built.Open().ReadFile(FileOf(10, 2000), 0, bytes.data(), 2000, &done), Status::DiskCorrupt);
  EXPECT_EQ(done, 1024u);
  EXPECT_EQ(built.Open().ReadFile(FileOf(0, 2000), 0, bytes.data(), 2000, &done), Status::DiskCorrupt);
  EXPECT_EQ(done, 0u);
}

TEST(Medium, FailedReadOfAFileTellsHowMuchWasRead) {
  CBuilt built(16);
  built.Builder.SetChain({10, 20});
  Medium& medium = built.Open();
  built.Device().FailBytes(medium.Layout().ClusterPosition(20), 512);
  BYTES bytes(1000);
  std::size_t done = 0;
  EXPECT_EQ(medium.ReadFile(FileOf(10, 1000), 0, bytes.data(), 1000, &done), Status::IoError);
  EXPECT_EQ(done, 512u);
}

}  // namespace
