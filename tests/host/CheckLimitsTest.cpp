/// @file CheckLimitsTest.cpp
/// Volumes that claim or contain more than there can be: a check takes what the device is worth, and no more.

#include <gtest/gtest.h>

#include <algorithm>

#include "CheckedVolume.h"

namespace {

using fatlib::CheckReport;
using DIRECTORY = CImageBuilder::DIRECTORY;
constexpr DIRECTORY ROOT = CCheckedVolume::ROOT;

void SetBoth(CDiskImage& image, unsigned int at, std::uint32_t value) {
  for (const unsigned int boot : {0u, 6u * 512}) image.Set32(boot + at, value);
}

// Boot sector fields of a FAT32 volume with 2^28 clusters of 8 KiB.
void ClaimMuch(CDiskImage& image) {
  SetBoth(image, 0x20, 0xFFFFFFFF);
  for (const unsigned int boot : {0u, 6u * 512}) image.Set8(boot + 0x0D, 16);
}

TEST(CheckLimits, ClaimedClustersTakeNoMemory) {
  CCheckedVolume volume(32);
  ClaimMuch(volume.Image());
  SetBoth(volume.Image(), 0x24, 1u << 21);  // a FAT of 1 GiB
  volume.Image().Resize(1u << 20);
  CImageDevice device(volume.Image());
  const CheckReport report = CheckDevice(&device);
  EXPECT_EQ("volume-too-large 2199023255040 1048576", ToldOf(report).at(0));
  EXPECT_GT(report.freeClusters, 260'000'000u);
  EXPECT_LT(device.Calls(), 100u);
}

TEST(CheckLimits, ChainIntoWhatTheDeviceDoesNotHoldIsBroken) {
  CCheckedVolume volume(32);
  volume.AddFile("A", 512, 50);
  volume.Builder().SetFatEntry(50, 200'000'000);
  ClaimMuch(volume.Image());
  const TOLD told = ToldOf(CheckImage(volume.Image()));
  EXPECT_EQ(3u, told.size());
  EXPECT_EQ(1, std::count(told.begin(), told.end(), "chain-broken /A 50 200000000"));
}

TEST(CheckLimits, LargeVolumeIsCheckedWhole) {
  fatlib::FormatOptions options;
  options.bits = 32;
  options.bytesPerCluster = 65536;
  CImageDevice device(128ull << 30);
  ASSERT_FALSE(fatlib::Format(&device, options));
  CImageBuilder builder(device.Image());
  builder.AddFile(ROOT, "FAR", CImageBuilder::Pattern(70000, 1), {builder.Geometry().Clusters, 3});
  builder.SetChain({2'000'000, 2'000'001});
  device.Image().Set32(builder.FsInfoOffset() + 488, 0xFFFFFFFF);
  const CheckReport report = CheckDevice(&device);
  EXPECT_EQ(TOLD{"lost-chain 2000000 2"}, ToldOf(report));
  EXPECT_EQ(3u, report.usedClusters);
}

// As many directories as the root has slots, all the same one, which has as many of itself and of its parent.
TEST(CheckLimits, DirectoriesThatContainEachOtherManyTimesEnd) {
  CCheckedVolume volume(12);
  CImageBuilder& builder = volume.Builder();
  const DIRECTORY dir = builder.AddDir(ROOT, "DIR");
  const std::uint32_t first = builder.DirectoryClusters(dir)[0];
  for (int i = 0; i < 500; ++i) {
    const SHORT_NAME name = CImageBuilder::ShortName("D" + std::to_string(i));
    builder.Append(dir, CImageBuilder::ShortEntry(name, 0x10, first, 0));
    builder.Append(ROOT, CImageBuilder::ShortEntry(name, 0x10, first, 0));
  }
  const CheckReport report = volume.Report();
  EXPECT_EQ(1001u, report.directories);
  EXPECT_EQ(1000u, report.defects.size());
  EXPECT_EQ("cross-linked /DIR/D499 " + std::to_string(first) + " /DIR", ToldOf(report).at(999));
}

// Each of many files begins one cluster further on in one long chain: to follow all of them to the end would take the
// square of its length.
TEST(CheckLimits, ManyFilesOnOneLongChainEnd) {
  fatlib::FormatOptions options;
  options.bits = 32;
  options.bytesPerCluster = 512;
  CImageDevice device(256u << 20);
  ASSERT_FALSE(fatlib::Format(&device, options));
  CImageBuilder builder(device.Image());
  constexpr std::uint32_t FIRST = 10'000;
  constexpr std::uint32_t LAST = 500'000;
  for (std::uint32_t i = FIRST; i < LAST; ++i) builder.SetFatEntry(i, i + 1);
  builder.SetFatEntry(LAST, CImageBuilder::END_OF_CHAIN);
  const DIRECTORY dir = builder.AddDir(ROOT, "DIR");
  std::vector<RAW_ENTRY> entries;
  for (std::uint32_t i = 0; i < 8000; ++i) {
    entries.push_back(CImageBuilder::ShortEntry(CImageBuilder::ShortName("F" + std::to_string(i)), 0x20, FIRST + i, 0));
  }
  builder.Append(dir, entries);
  const CheckReport report = CheckDevice(&device);
  EXPECT_EQ(8000u, report.files);
  EXPECT_EQ("chain-beyond-size /DIR/F0 0 490001", ToldOf(report).at(0));
  EXPECT_EQ("cross-linked /DIR/F1 10001 /DIR/F0", ToldOf(report).at(1));
  const TOLD told = ToldOf(report);
  EXPECT_EQ(1, std::count(told.begin(), told.end(), "cross-linked /DIR/F7999 17999 /DIR/F0"));
}

TEST(CheckLimits, DefectsBeyondTheMostAreOnlyCounted) {
  CCheckedVolume volume(16);
  for (std::uint32_t cluster = 100; cluster < 12'100; ++cluster) volume.Builder().SetFatEntry(cluster, 0xFFFF);
  const CheckReport report = volume.Report();
  EXPECT_EQ(CheckReport::MAX_DEFECTS, report.defects.size());
  EXPECT_EQ(2000u, report.moreDefects);
  EXPECT_EQ(12'000u, report.lostClusters);
}

TEST(CheckLimits, DirectoryOfMoreThan65536SlotsIsTold) {
  for (const std::uint32_t clusters : {4096u, 4097u}) {
    CCheckedVolume volume(16);
    std::vector<std::uint32_t> chain;
    for (std::uint32_t i = 0; i < clusters; ++i) chain.push_back(100 + i);
    volume.Builder().AddDir(ROOT, "DIR", chain);
    const TOLD expected = clusters == 4097 ? TOLD{"directory-too-long /DIR 65552"} : TOLD();
    EXPECT_EQ(expected, volume.Check());
  }
}

TEST(CheckLimits, DirectoryOfMoreThanAMillionSlotsIsNotLookedInto) {
  CCheckedVolume volume(32);
  std::vector<std::uint32_t> chain;
  for (std::uint32_t i = 0; i <= 65536; ++i) chain.push_back(100 + i);
  const DIRECTORY dir = volume.Builder().AddDir(ROOT, "DIR", chain);
  volume.SetSlotByte(dir, 0, 0, 'X');
  EXPECT_EQ(TOLD{"directory-too-long /DIR 1048592"}, volume.Check());
}

TEST(CheckLimits, PathOfMoreThan4096UnitsIsNotFollowed) {
  CCheckedVolume volume(16);
  DIRECTORY dir = ROOT;
  for (char level = 'a'; level <= 'p'; ++level) dir = volume.Builder().AddDir(dir, std::string(254, level) + "1");
  EXPECT_EQ(TOLD(), volume.Check());  // 16 names of 255 units and 16 separators: 4096
  dir = volume.Builder().AddDir(dir, "X");
  volume.SetSlotByte(dir, 0, 0, 'X');
  const TOLD told = volume.Check();
  ASSERT_EQ(1u, told.size());
  EXPECT_EQ(0u, told[0].find("too-deep /aaaa"));
}

TEST(CheckLimits, SmallestClustersAndSectorsAreChecked) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 12;
  geometry.BytesPerSector = 128;
  CImageBuilder builder(geometry);
  builder.AddFile(builder.AddDir(ROOT, "A directory"), "A file", CImageBuilder::Pattern(1000, 1));
  EXPECT_EQ(TOLD(), ToldOf(CheckImage(builder.Image())));
}

}  // namespace
