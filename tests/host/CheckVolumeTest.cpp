/// @file CheckVolumeTest.cpp
/// Defects of a volume as a whole: boot sectors, FSInfo, the bytes of the FATs, labels.

#include <fatlib/Error.h>
#include <gtest/gtest.h>

#include "CheckedVolume.h"

namespace {

using fatlib::CheckReport;

TEST(CheckVolume, NewVolumeHasNoDefect) {
  for (const int bits : {12, 16, 32}) {
    const CCheckedVolume volume(bits, u"LABEL");
    const CheckReport report = volume.Report();
    EXPECT_EQ(TOLD(), ToldOf(report));
    EXPECT_EQ(0u, report.files + report.directories + report.lostClusters + report.badClusters + report.runs);
    EXPECT_EQ(bits == 32 ? 1u : 0u, report.usedClusters);
  }
}

TEST(CheckVolume, EntriesThatDifferBetweenTheFatsAreCounted) {
  for (const int bits : {12, 16, 32}) {
    for (const std::uint32_t cluster : {20u, 21u}) {
      CCheckedVolume volume(bits);
      volume.Builder().SetFatEntryIn(1, cluster, 5);
      volume.Builder().SetFatEntryIn(1, 1500, 0xABC);
      EXPECT_EQ(TOLD{"fat-copies-differ " + std::to_string(cluster) + " 2"}, volume.Check());
    }
  }
}

// Far from the beginning: the FAT is read in pieces.
TEST(CheckVolume, LastEntryOfALargeFatIsComparedToo) {
  CCheckedVolume volume(32);
  const std::uint32_t last = volume.Builder().Geometry().Clusters + 1;
  volume.Builder().SetFatEntryIn(1, last, 5);
  EXPECT_EQ(TOLD{"fat-copies-differ " + std::to_string(last) + " 1"}, volume.Check());
}

TEST(CheckVolume, EntryThatDiffersInTwoOfThreeFatsCountsOnce) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 12;
  geometry.NumberOfFats = 3;
  CImageBuilder builder(geometry);
  builder.SetFatEntryIn(1, 30, 5);
  builder.SetFatEntryIn(2, 30, 6);
  builder.SetFatEntryIn(2, 25, 6);
  EXPECT_EQ(TOLD{"fat-copies-differ 25 2"}, ToldOf(CheckImage(builder.Image())));
}

TEST(CheckVolume, FirstEntriesMustGoWithTheMediaByte) {
  for (const int bits : {12, 16, 32}) {
    const std::uint32_t ones = bits == 12 ? 0xF00u : bits == 16 ? 0xFF00u : 0x0FFFFF00u;
    CCheckedVolume volume(bits);
    volume.Builder().SetFatEntry(0, ones | 0xF0);
    EXPECT_EQ(TOLD{"bad-first-entries 0 " + std::to_string(ones | 0xF0)}, volume.Check());
  }
  CCheckedVolume volume(12);
  volume.Builder().SetFatEntry(1, 0x123);
  EXPECT_EQ(TOLD{"bad-first-entries 1 291"}, volume.Check());
}

TEST(CheckVolume, MarkOfAMountedVolumeIsFoundWhereverItIs) {
  CCheckedVolume fat12(12);
  fat12.Image().Set8(0x25, 1);
  EXPECT_EQ(TOLD{"not-cleanly-unmounted 1"}, fat12.Check());
  CCheckedVolume fat32(32);
  fat32.Image().Set8(0x41, 3);
  EXPECT_EQ(TOLD{"not-cleanly-unmounted 3"}, fat32.Check());
  CCheckedVolume entry16(16);
  entry16.Builder().SetFatEntry(1, 0x7FFF);
  EXPECT_EQ(TOLD{"not-cleanly-unmounted 1"}, entry16.Check());
  CCheckedVolume entry32(32);
  entry32.Builder().SetFatEntry(1, 0x0BFFFFFF);
  EXPECT_EQ(TOLD{"not-cleanly-unmounted 2"}, entry32.Check());
}

TEST(CheckVolume, ReservedBitsOfFatEntriesAreCounted) {
  CCheckedVolume volume(32);
  volume.AddFile("A.TXT", 1000, 50);
  volume.Builder().SetFatEntry(50, 0x10000033);
  volume.Builder().SetFatEntry(70, 0xF0000000);  // a free one
  EXPECT_EQ(TOLD{"fat-reserved-bits 50 2"}, volume.Check());
  EXPECT_EQ(volume.Builder().Geometry().Clusters - 3, volume.Report().freeClusters);
}

TEST(CheckVolume, FsInfoMustHaveItsSignaturesAndItsPlace) {
  for (const unsigned int offset : {0u, 484u, 508u}) {
    CCheckedVolume volume(32);
    volume.Image().Set8(volume.Builder().FsInfoOffset() + offset, 0x77);
    EXPECT_EQ(TOLD{"fsinfo-invalid 1"}, volume.Check());
  }
  CCheckedVolume outside(32);
  for (const unsigned int boot : {0u, 6u * 512}) outside.Image().Set16(boot + 0x30, 40);
  EXPECT_EQ(TOLD{"fsinfo-invalid 40"}, outside.Check());
  for (const unsigned int boot : {0u, 6u * 512}) outside.Image().Set16(boot + 0x30, 0);  // none
  EXPECT_EQ(TOLD(), outside.Check());
}

TEST(CheckVolume, FsInfoCountMustBeTrueOrUnknown) {
  CCheckedVolume volume(32);
  volume.AddFile("A.TXT", 1000, 50);
  const std::uint32_t free = volume.Builder().Geometry().Clusters - 3;
  volume.Image().Set32(volume.Builder().FsInfoOffset() + 488, free);
  EXPECT_EQ(TOLD(), volume.Check());
  volume.Image().Set32(volume.Builder().FsInfoOffset() + 488, 7);
  EXPECT_EQ(TOLD{"fsinfo-wrong-count 7 " + std::to_string(free)}, volume.Check());
}

TEST(CheckVolume, BackupOfTheBootSectorMustBeTheSame) {
  CCheckedVolume volume(32);
  volume.Image().Set32(6 * 512 + 0x43, 0x01010101);  // the volume id
  EXPECT_EQ(TOLD{"boot-sectors-differ 67 4"}, volume.Check());
}

TEST(CheckVolume, CountsOfClustersThatSystemsSeeDifferently) {
  for (const unsigned int clusters : {4084u, 4085u, 4086u, 4087u}) {
    FAT_GEOMETRY geometry;
    geometry.FatBits = clusters <= 4086 ? 12 : 16;
    geometry.Clusters = clusters;
    CImageBuilder builder(geometry);
    const bool ambiguous = clusters == 4085 || clusters == 4086;
    const TOLD expected = ambiguous ? TOLD{"ambiguous-type " + std::to_string(clusters)} : TOLD();
    EXPECT_EQ(expected, ToldOf(CheckImage(builder.Image())));
  }
}

TEST(CheckVolume, FatMustHaveAnEntryForEachCluster) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 12;
  geometry.Clusters = 1000;
  geometry.SectorsPerFat = 1;  // 341 entries
  CImageBuilder builder(geometry);
  EXPECT_EQ(TOLD{"fat-too-small 1000 339"}, ToldOf(CheckImage(builder.Image())));
  const CheckReport report = CheckImage(builder.Image());
  EXPECT_EQ(1000u, report.freeClusters);
}

TEST(CheckVolume, DeviceMustBeAsLargeAsTheVolume) {
  CCheckedVolume volume(16);
  volume.AddFile("A.TXT", 1000, 50);
  volume.Image().Resize((8u << 20) - 512);
  EXPECT_EQ(TOLD{"volume-too-large 8388608 8388096"}, volume.Check());
}

TEST(CheckVolume, LabelsOfRootAndBootSectorMustAgree) {
  for (const int bits : {12, 32}) {
    const std::uint64_t label = bits == 32 ? 71 : 43;
    CCheckedVolume volume(bits, u"LABEL");
    const auto setBoth = [&](std::uint64_t at, unsigned int value) {
      volume.Image().Set8(at, value);
      if (bits == 32) volume.Image().Set8(6 * 512 + at, value);
    };
    setBoth(label, 'M');
    EXPECT_EQ(TOLD{"labels-differ"}, volume.Check());
    setBoth(label, 'L');
    EXPECT_EQ(TOLD(), volume.Check());
    setBoth(label - 5, 0x28);  // no label in the boot sector
    setBoth(label, 'M');
    EXPECT_EQ(TOLD(), volume.Check());
  }
  CCheckedVolume rootless(12, u"LABEL");
  rootless.SetSlotByte(CCheckedVolume::ROOT, 0, 0, 0xE5);
  EXPECT_EQ(TOLD{"labels-differ"}, rootless.Check());
}

// Code page 437 has a letter at E5, which as the first byte of an entry stands for a deleted one.
TEST(CheckVolume, LabelThatBeginsWithE5IsTheSameInBothPlaces) {
  const CCheckedVolume volume(12, u"\u03C3");
  EXPECT_EQ(TOLD(), volume.Check());
}

// ---------------------------------------------------------------------------------------------- what cannot be read

TOLD CheckWithout(CCheckedVolume& volume, std::uint64_t position, std::uint64_t size) {
  CImageDevice device(volume.Image());
  fatlib::Medium medium;
  EXPECT_FALSE(medium.Open(&device));
  device.FailBytes(position, size);
  CheckReport report;
  EXPECT_FALSE(fatlib::Check(&medium, &report));
  return ToldOf(report);
}

TEST(CheckVolume, UnreadableSectorsAreTold) {
  CCheckedVolume volume(32);
  EXPECT_EQ(TOLD{"unreadable"}, CheckWithout(volume, 0, 512));
  EXPECT_EQ(TOLD{"unreadable 512"}, CheckWithout(volume, 512, 512));
  EXPECT_EQ(TOLD{"unreadable 3072"}, CheckWithout(volume, 6 * 512, 512));
  const std::uint64_t second = volume.Builder().FatOffset(1);
  EXPECT_EQ(TOLD{"unreadable " + std::to_string(second)}, CheckWithout(volume, second, 512));
}

TEST(CheckVolume, UnreadableFatEndsTheChainsButNotTheCheck) {
  CCheckedVolume volume(16);
  volume.AddFile("A.TXT", 1000, 50);
  const std::string fat = std::to_string(volume.Builder().FatOffset(0));
  EXPECT_EQ((TOLD{"unreadable " + fat, "unreadable /A.TXT " + fat, "unreadable " + fat}),
            CheckWithout(volume, volume.Builder().FatOffset(0), 512));
}

TEST(CheckVolume, UnreadableDirectoryDoesNotHideTheOthers) {
  CCheckedVolume volume(16);
  const CImageBuilder::DIRECTORY first = volume.Builder().AddDir(CCheckedVolume::ROOT, "A", {60});
  const CImageBuilder::DIRECTORY second = volume.Builder().AddDir(CCheckedVolume::ROOT, "B", {70});
  volume.AddFile("X", 100, 80, first);
  volume.SetSlotByte(second, 1, 26, 9);
  const std::uint64_t position = volume.Builder().ClusterOffset(60);
  EXPECT_EQ((TOLD{"unreadable /A " + std::to_string(position), "dot-dot-wrong /B 9", "lost-chain 80 1"}),
            CheckWithout(volume, position, 512));
}

TEST(CheckVolume, ProgressThatSaysNoStopsTheCheck) {
  CCheckedVolume volume(12);
  for (int i = 0; i < 10; ++i) volume.Builder().AddDir(CCheckedVolume::ROOT, "D" + std::to_string(i));
  CImageDevice device(volume.Image());
  fatlib::Medium medium;
  ASSERT_FALSE(medium.Open(&device));
  CheckReport report;
  unsigned int calls = 0;
  const auto count = [&calls](std::uint64_t done, std::uint64_t total) {
    EXPECT_LE(done, total);
    ++calls;
    return true;
  };
  EXPECT_FALSE(fatlib::Check(&medium, &report, count));
  const unsigned int all = calls;
  EXPECT_GT(all, 10u);
  for (unsigned int stopAt = 1; stopAt <= all; ++stopAt) {
    calls = 0;
    const auto stop = [&](std::uint64_t, std::uint64_t) { return ++calls != stopAt; };
    EXPECT_EQ(fatlib::Status::Cancelled, fatlib::Check(&medium, &report, stop));
    EXPECT_EQ(stopAt, calls) << "it is not asked again";
  }
}

}  // namespace
