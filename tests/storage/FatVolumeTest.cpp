/// @file FatVolumeTest.cpp
/// The volume: its geometry against numbers computed here in 64 bits, mounting and its failures, the FSInfo sector, the
/// copy of the first FAT, and the order of transfers at unmount.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "directory/FatDirectory.h"
#include "storage/FatVolume.h"
#include "storage/VolumeBench.h"
#include "support/ImageBuilder.h"
#include "support/LibFixture.h"
#include "support/VolumeReader.h"

namespace {

using BYTES = std::vector<unsigned char>;
using TRACE = std::vector<IO_RECORD>;

constexpr int Status(std::uint32_t bits) { return static_cast<int>(bits); }
constexpr int NO_MEMORY = Status(0xC0000017u);
constexpr int DISK_CORRUPT = Status(0xC0000032u);
constexpr int UNRECOGNIZED = Status(0xC000014Fu);
constexpr int IO_ERROR = Status(0xC0000185u);

class Volume : public CLibFixture {};
class VolumeMount : public CLibFixture {};
class FsInfo : public CLibFixture {};
class FatBackup : public CLibFixture {};
class VolumeUnmount : public CLibFixture {};

// ---------------------------------------------------------------- parameter blocks

FAT_MPB Fat16Mpb() {
  FAT_MPB mpb{};
  mpb.NumberOfFats = 2;
  mpb.SectorsPerCluster = 4;
  mpb.TotalSectors16 = 40000;
  mpb.RootEntries = 512;
  mpb.SectorsPerFat16 = 40;
  mpb.BytesPerSector = 512;
  mpb.ReservedSectors = 1;
  return mpb;
}

FAT_MPB Fat32Mpb() {
  FAT_MPB mpb = Fat16Mpb();
  mpb.TotalSectors16 = 0;
  mpb.RootEntries = 0;
  mpb.SectorsPerFat16 = 0;
  mpb.ReservedSectors = 32;
  mpb.TotalSectors32 = 600000;
  mpb.SectorsPerFat32 = 1200;
  mpb.RootDirCluster = 2;
  mpb.FsInfoSector = 1;
  return mpb;
}

FAT_MPB Changed(FAT_MPB mpb, const std::function<void(FAT_MPB&)>& change) {
  change(mpb);
  return mpb;
}

/// A FAT16 parameter block with the given number of clusters of one sector.
FAT_MPB MpbWithClusters(unsigned int clusters) {
  return Changed(Fat16Mpb(), [clusters](FAT_MPB& mpb) {
    mpb.SectorsPerCluster = 1;
    mpb.SectorsPerFat16 = 300;
    mpb.TotalSectors16 = 0;
    mpb.TotalSectors32 = 1 + 2 * 300 + 32 + clusters;
  });
}

/// What the geometry must be, in arithmetic that cannot overflow.
struct EXPECTED {
  std::int64_t RootBytes;
  std::int64_t RootOffset;
  std::int64_t DataOffset;
  std::int64_t Clusters;
  unsigned int Bits;
};

EXPECTED Expect(const FAT_MPB& mpb) {
  const bool fat32 = mpb.SectorsPerFat16 == 0;
  const std::int64_t perFat = fat32 ? mpb.SectorsPerFat32 : mpb.SectorsPerFat16;
  const std::int64_t total = mpb.TotalSectors16 != 0 ? mpb.TotalSectors16 : mpb.TotalSectors32;
  const std::int64_t bytes = mpb.BytesPerSector;
  EXPECTED e{};
  const std::int64_t beforeRoot = mpb.ReservedSectors + mpb.NumberOfFats * perFat;
  e.Clusters = (total - beforeRoot - (fat32 ? 0 : mpb.RootEntries * 32 / bytes)) / mpb.SectorsPerCluster;
  e.Bits = fat32 ? 32 : e.Clusters < 4087 ? 12 : 16;
  e.RootBytes = fat32 ? 0 : (mpb.RootEntries * 32 + bytes - 1) / bytes * bytes;
  e.DataOffset = beforeRoot * bytes + e.RootBytes;
  e.RootOffset = beforeRoot * bytes;
  if (fat32) e.RootOffset += (static_cast<std::int64_t>(mpb.RootDirCluster) - 2) * mpb.SectorsPerCluster * bytes;
  return e;
}

std::ostream& operator<<(std::ostream& out, const FAT_MPB& mpb) {
  return out << mpb.BytesPerSector << " bytes per sector, " << +mpb.SectorsPerCluster << " sectors per cluster, "
             << mpb.ReservedSectors << " reserved, " << +mpb.NumberOfFats << " FATs of " << mpb.SectorsPerFat() << ", "
             << mpb.RootEntries << " root entries, " << mpb.TotalSectors() << " sectors";
}

void ExpectGeometry(const FAT_MPB& mpb) {
  std::ostringstream text;
  text << mpb;
  SCOPED_TRACE(text.str());
  const EXPECTED e = Expect(mpb);
  CFatFileSystem volume;
  unsigned int rootCluster = 0xDEAD;
  unsigned int rootBytes = 0xDEAD;
  volume.SetupMpb(mpb, rootCluster, rootBytes);
  EXPECT_EQ(CFatVolume::NumberOfClusters(mpb), e.Clusters);
  EXPECT_EQ(volume.MaxFileClusters(), e.Clusters);
  EXPECT_EQ(static_cast<unsigned int>(volume.FatBits()), e.Bits);
  EXPECT_EQ(volume.IsFat32(), e.Bits == 32);
  EXPECT_EQ(volume.GetMaxClustNo(), e.Bits == 32 ? 0x0FFFFFF7u : e.Bits == 16 ? 0xFFF7u : 0xFF7u);
  EXPECT_EQ(volume.FatStartSector(), mpb.ReservedSectors);
  EXPECT_EQ(rootBytes, e.RootBytes);
  if (e.Bits == 32) {
    EXPECT_EQ(rootCluster, mpb.RootDirCluster);
  }
  EXPECT_EQ(volume.RootDirByteOff(), e.RootOffset);
  const std::int64_t clusterBytes = mpb.SectorsPerCluster * mpb.BytesPerSector;
  EXPECT_EQ(volume.BytesPerCluster(), clusterBytes);
  for (const unsigned int cluster : {2u, 3u, 1000u, 0x0FFFFFF6u}) {
    EXPECT_EQ(volume.GetByteOffFromFatIndex(cluster),
              e.DataOffset + (static_cast<std::int64_t>(cluster) - 2) * clusterBytes)
        << cluster;
  }
}

// ---------------------------------------------------------------- geometry

TEST_F(Volume, ManyGeometries_AgreeWithPlainArithmetic) {
  for (const unsigned int bytes : {128u, 256u, 512u, 1024u, 2048u, 4096u}) {
    for (const unsigned int perCluster : {1u, 2u, 4u, 8u, 16u, 32u, 64u, 128u}) {
      for (const unsigned int fats : {1u, 2u, 3u, 255u}) {
        for (const unsigned int rootEntries : {1u, 16u, 17u, 20u, 112u, 512u, 65535u}) {
          ExpectGeometry(Changed(Fat16Mpb(), [=](FAT_MPB& mpb) {
            mpb.BytesPerSector = static_cast<std::uint16_t>(bytes);
            mpb.SectorsPerCluster = static_cast<std::uint8_t>(perCluster);
            mpb.NumberOfFats = static_cast<std::uint8_t>(fats);
            mpb.RootEntries = static_cast<std::uint16_t>(rootEntries);
            mpb.TotalSectors16 = 0;
            mpb.TotalSectors32 = 1 + fats * 40 + rootEntries * 32 / bytes + perCluster * 4085 + rootEntries % 7;
          }));
        }
        ExpectGeometry(Changed(Fat32Mpb(), [=](FAT_MPB& mpb) {
          mpb.BytesPerSector = static_cast<std::uint16_t>(bytes);
          mpb.SectorsPerCluster = static_cast<std::uint8_t>(perCluster);
          mpb.NumberOfFats = static_cast<std::uint8_t>(fats);
          mpb.RootDirCluster = 2 + fats;
        }));
      }
    }
  }
}

TEST_F(Volume, BothTotalsGiven_The16BitOneCounts) {
  ExpectGeometry(Changed(Fat16Mpb(), [](FAT_MPB& mpb) { mpb.TotalSectors32 = 600000; }));
  ExpectGeometry(Changed(Fat32Mpb(), [](FAT_MPB& mpb) { mpb.TotalSectors16 = 50000; }));
}

TEST_F(Volume, RootAreaThatEndsInsideASector_CountsOneSectorLessThanItTakes) {
  const auto withEntries = [](unsigned int entries) {
    return Changed(Fat16Mpb(), [entries](FAT_MPB& mpb) {
      mpb.SectorsPerCluster = 1;
      mpb.RootEntries = static_cast<std::uint16_t>(entries);
    });
  };
  constexpr unsigned int withoutRoot = 40000 - 1 - 2 * 40;
  EXPECT_EQ(CFatVolume::NumberOfClusters(withEntries(15)), withoutRoot);
  EXPECT_EQ(CFatVolume::NumberOfClusters(withEntries(16)), withoutRoot - 1);
  EXPECT_EQ(CFatVolume::NumberOfClusters(withEntries(20)), withoutRoot - 1);
  CFatFileSystem volume;
  unsigned int rootCluster = 0, rootBytes = 0;
  volume.SetupMpb(withEntries(16), rootCluster, rootBytes);
  EXPECT_EQ(rootBytes, 512u);
  EXPECT_EQ(volume.DataByteOff() - volume.RootDirByteOff(), 512);
  volume.SetupMpb(withEntries(20), rootCluster, rootBytes);
  EXPECT_EQ(rootBytes, 1024u);
  EXPECT_EQ(volume.DataByteOff() - volume.RootDirByteOff(), 2 * 512);
}

TEST_F(Volume, RootEntriesOfAFat32Volume_DoNotCount) {
  ExpectGeometry(Changed(Fat32Mpb(), [](FAT_MPB& mpb) { mpb.RootEntries = 512; }));
}

TEST_F(Volume, NumberOfClusters_Truncates) {
  const auto withTotal = [](unsigned int total) {
    return CFatVolume::NumberOfClusters(
        Changed(Fat32Mpb(), [total](FAT_MPB& mpb) { mpb.TotalSectors32 = 32 + 2 * 1200 + total; }));
  };
  EXPECT_EQ(withTotal(0), 0u);
  EXPECT_EQ(withTotal(3), 0u);
  EXPECT_EQ(withTotal(4), 1u);
  EXPECT_EQ(withTotal(4003), 1000u);
}

TEST_F(Volume, NumberOfClusters_IsComputedIn32BitsWithoutJudgement) {
  // The total is two sectors short of the overhead.
  const FAT_MPB small = Changed(Fat32Mpb(), [](FAT_MPB& mpb) {
    mpb.SectorsPerCluster = 1;
    mpb.TotalSectors32 = 32 + 2 * 1200 - 2;
  });
  EXPECT_EQ(CFatVolume::NumberOfClusters(small), 0xFFFFFFFEu);
  const FAT_MPB wrapped = Changed(Fat32Mpb(), [](FAT_MPB& mpb) { mpb.SectorsPerFat32 = 0x80000001u; });
  EXPECT_EQ(CFatVolume::NumberOfClusters(wrapped), (600000u - 32 - 2) / 4);
}

TEST_F(Volume, ClusterCount_DecidesTheWidthAt4086And4087) {
  for (const auto& [clusters, bits] : std::vector<std::pair<unsigned int, unsigned int>>{{0, 12},
                                                                                         {1, 12},
                                                                                         {4084, 12},
                                                                                         {4085, 12},
                                                                                         {4086, 12},
                                                                                         {4087, 16},
                                                                                         {4088, 16},
                                                                                         {65524, 16},
                                                                                         {65525, 16},
                                                                                         {65526, 16},
                                                                                         {65527, 16},
                                                                                         {70000, 16}}) {
    const FAT_MPB mpb = MpbWithClusters(clusters);
    ASSERT_EQ(CFatVolume::NumberOfClusters(mpb), clusters);
    CFatFileSystem volume;
    unsigned int rootCluster = 0, rootBytes = 0;
    volume.SetupMpb(mpb, rootCluster, rootBytes);
    EXPECT_EQ(static_cast<unsigned int>(volume.FatBits()), bits) << clusters;
  }
}

TEST_F(Volume, No16BitFatSize_IsFat32WhateverTheCount) {
  for (const unsigned int clusters : {0u, 1u, 4086u, 65526u, 0x0FFFFFF6u}) {
    const FAT_MPB mpb = Changed(Fat32Mpb(), [clusters](FAT_MPB& m) {
      m.SectorsPerCluster = 1;
      m.TotalSectors32 = 32 + 2 * 1200 + clusters;
    });
    ExpectGeometry(mpb);
  }
}

TEST_F(Volume, LayoutBeyondFourGiB_KeepsItsFullOffsets) {
  // 2 x 3 GiB of FAT, then clusters of 512 KiB.
  const FAT_MPB mpb = Changed(Fat32Mpb(), [](FAT_MPB& m) {
    m.BytesPerSector = 4096;
    m.SectorsPerCluster = 128;
    m.ReservedSectors = 65535;
    m.SectorsPerFat32 = 0xC0000;
    m.TotalSectors32 = 0xFFFFFFFFu;
    m.RootDirCluster = 20000;
  });
  ExpectGeometry(mpb);
  CFatFileSystem volume;
  unsigned int rootCluster = 0, rootBytes = 0;
  volume.SetupMpb(mpb, rootCluster, rootBytes);
  EXPECT_EQ(volume.DataByteOff(), 65535LL * 4096 + (6LL << 30));
  EXPECT_EQ(volume.RootDirByteOff(), 65535LL * 4096 + (6LL << 30) + 19998LL * 524288);
}

TEST_F(Volume, Fat32_RootOffsetIsThatOfItsClusterAndClusterTwoIsTheDatasStart) {
  CFatFileSystem volume;
  unsigned int rootCluster = 0, rootBytes = 0;
  volume.SetupMpb(Changed(Fat32Mpb(), [](FAT_MPB& mpb) { mpb.RootDirCluster = 77; }), rootCluster, rootBytes);
  EXPECT_EQ(volume.RootDirByteOff(), volume.GetByteOffFromFatIndex(77));
  EXPECT_EQ(volume.GetByteOffFromFatIndex(2), volume.DataByteOff());
}

TEST_F(Volume, Conversions_AreShiftsAndMasks) {
  CFatFileSystem volume;
  unsigned int rootCluster = 0, rootBytes = 0;
  volume.SetupMpb(Fat16Mpb(), rootCluster, rootBytes);  // clusters of 2048 bytes
  EXPECT_EQ(volume.BytesFromClusters(3), 6144u);
  EXPECT_EQ(volume.BytesFromClusters(0x200000), 0u);  // 32 bits
  EXPECT_EQ(volume.Bytes64BitFromClusters(0x200000), 1ull << 32);
  EXPECT_EQ(volume.Bytes64BitFromClusters(0xFFFFFFFFu), 0xFFFFFFFFull * 2048);
  for (const unsigned int bytes : {0u, 1u, 2047u, 2048u, 2049u, 1234567u, 0xFFFFF000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(volume.ClustersFromBytesTruncate(bytes), bytes / 2048);
    EXPECT_EQ(volume.ClusterAlignTruncate(bytes), bytes / 2048 * 2048);
    EXPECT_EQ(volume.ClusterOffset(bytes), bytes % 2048);
    EXPECT_EQ(volume.ClusterAlign(bytes), static_cast<std::uint32_t>((std::uint64_t{bytes} + 2047) / 2048 * 2048));
  }
}

TEST_F(Volume, VolumeTableAndFileSystem_AreOneObject) {
  CFatFileSystem fileSystem;
  CFatVolume* volume = &fileSystem;
  EXPECT_EQ(volume->FAT()->Volume(), volume);
  EXPECT_EQ(volume->FileSystem(), &fileSystem);
  EXPECT_EQ(static_cast<void*>(volume->FAT()), static_cast<void*>(volume));
  EXPECT_EQ(static_cast<void*>(volume), static_cast<void*>(&fileSystem));
}

// ---------------------------------------------------------------- images

FAT_GEOMETRY Geometry(unsigned int fatBits, unsigned int clusters = 0, unsigned int bytesPerSector = 512,
                      unsigned int sectorsPerCluster = 1) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = fatBits;
  geometry.Clusters = clusters;
  geometry.BytesPerSector = bytesPerSector;
  geometry.SectorsPerCluster = sectorsPerCluster;
  return geometry;
}

CDiskImage ImageOf(const FAT_GEOMETRY& geometry) { return CImageBuilder(geometry).Image(); }

/// An image with one field of its boot sector changed.
CDiskImage ImageWith(const FAT_GEOMETRY& geometry, const std::function<void(CDiskImage&)>& change) {
  CDiskImage image = ImageOf(geometry);
  change(image);
  return image;
}

/// The transfers of mounting are one FAT read, then the root's: where each began.
std::vector<long long> Offsets(const TRACE& trace) {
  std::vector<long long> offsets;
  for (const IO_RECORD& record : trace) offsets.push_back(record.Offset);
  return offsets;
}

// ---------------------------------------------------------------- mounting

TEST_F(VolumeMount, EachWidth_ReadsTheFatAndThenTheRoot) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    const CImageBuilder builder(Geometry(bits, bits == 32 ? 60000u : 0u));
    CVolumeBench bench{CImageBuilder(builder.Geometry()).Image()};
    ASSERT_EQ(bench.Open(), 0);
    EXPECT_GE(bench.MountOpened(), 0);
    EXPECT_EQ(Offsets(bench.Medium().Trace()), (std::vector<long long>{static_cast<long long>(builder.FatOffset(0)),
                                                                       static_cast<long long>(builder.RootOffset())}))
        << bench.Medium().TraceText();
    EXPECT_EQ(bench.Medium().Writes(), 0u);
    EXPECT_EQ(bench.Volume().Storage(), &bench.Storage());
  }
}

TEST_F(VolumeMount, OpenedStorage_IsReadOnceForTheBootSector) {
  CMedium medium(ImageOf(Geometry(16)));
  CFatFileSystem* fileSystem = MountMedium(medium);
  ASSERT_NE(fileSystem, nullptr);
  EXPECT_EQ(medium.Trace().front(), (IO_RECORD{IO_KIND::ReadBytes, 0, 2048, 0}));
  EXPECT_EQ(medium.OpenCalls(), 1u);
  EXPECT_TRUE(Unmount(fileSystem));
}

TEST_F(VolumeMount, WidthByCount_PacksEntriesAccordingly) {
  for (const unsigned int clusters : {4085u, 4086u, 4087u, 4088u}) {
    const unsigned int bits = clusters <= 4086 ? 12 : 16;
    CImageBuilder builder(Geometry(bits, clusters));
    const std::uint64_t fat = builder.FatOffset(0);
    CVolumeBench bench{builder.Image()};
    ASSERT_GE(bench.Mount(), 0);
    ASSERT_GE(bench.SetNext(101, 0x5A5), 0);
    ASSERT_GE(bench.Unmount(), 0);
    CFatBits fatBits(bench.Image().ReadBytes(fat, 512), bits);
    EXPECT_EQ(fatBits.Get(101), 0x5A5u) << clusters;
    EXPECT_EQ(fatBits.Get(100), 0u) << clusters;
    EXPECT_EQ(fatBits.Get(102), 0u) << clusters;
  }
}

TEST_F(VolumeMount, Fat12With4086Clusters_ClusterFF7IsAClusterLikeAnyOther) {
  CImageBuilder builder(Geometry(12, 4086));
  const BYTES content = CImageBuilder::Pattern(1500, 3);
  builder.AddFile(CImageBuilder::Root(), "LAST.BIN", content, {10, 0xFF7, 0xFF6});
  ASSERT_NE(Mount(BACKEND::Memory, builder.Image()), nullptr);
  EXPECT_EQ(ReadPath("LAST.BIN"), content);
}

TEST_F(VolumeMount, Root_DescribesTheFixedAreaOrTheRootCluster) {
  FAT_GEOMETRY fixed = Geometry(16);
  fixed.RootEntries = 20;
  CVolumeBench fat16{ImageOf(fixed)};
  ASSERT_GE(fat16.Mount(), 0);
  EXPECT_TRUE(fat16.Volume().Root()->IsDir());
  EXPECT_EQ(fat16.Volume().Root()->FirstCluster(), 0xFFFFFFFFu);
  EXPECT_EQ(fat16.Volume().Root()->Limit(), 1024);
  EXPECT_EQ(fat16.Volume().Root()->RefCount(), 1u);

  FAT_GEOMETRY chained = Geometry(32, 1000);
  chained.RootCluster = 77;
  CVolumeBench fat32{ImageOf(chained)};
  ASSERT_GE(fat32.Mount(), 0);
  EXPECT_TRUE(fat32.Volume().Root()->IsDir());
  EXPECT_EQ(fat32.Volume().Root()->FirstCluster(), 77u);
  EXPECT_EQ(fat32.Volume().Root()->Limit(), 512);
}

TEST_F(VolumeMount, EntriesOfTheRoot_AreLoaded) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    CImageBuilder builder(Geometry(bits));
    builder.AddFile(CImageBuilder::Root(), "A.TXT");
    CVolumeBench bench{builder.Image()};
    ASSERT_GE(bench.Mount(), 0);
    EXPECT_NE(bench.Volume().Root()->LookupFile(ToUtf16Z("a.txt").data()), nullptr) << bits;
    EXPECT_EQ(bench.Volume().Root()->LookupFile(ToUtf16Z("b.txt").data()), nullptr) << bits;
    EXPECT_EQ(bench.Medium().Transfers(), 0u);
  }
}

TEST_F(VolumeMount, Transfers_AreHandedToTheStorageUnchanged) {
  CVolumeBench bench{ImageOf(Geometry(16))};
  ASSERT_GE(bench.Mount(), 0);
  CFatVolume& volume = bench.Volume();
  BYTES buffer(1024);
  EXPECT_EQ(volume.ReadBytes(buffer.data(), 7, 3), 0);
  EXPECT_EQ(volume.WriteBytes(buffer.data(), 5000, 9), 0);
  EXPECT_EQ(volume.ReadBytesAligned(buffer.data(), 1024, 512), 512);
  EXPECT_EQ(volume.WriteBytesAligned(buffer.data(), 4096, 1024), 1024);
  EXPECT_EQ(volume.ReadSectors(buffer.data(), 3, 2), 1024);
  EXPECT_EQ(volume.WriteSectors(buffer.data(), 50, 1), 512);
  bench.Medium().FailAt(1, FAULT_ONCE, IO_FILTER::All, -99);
  EXPECT_EQ(volume.ReadSectors(buffer.data(), 3, 2), -99);
  EXPECT_EQ(bench.Medium().Trace(), (TRACE{{IO_KIND::ReadBytes, 7, 3, 0},
                                           {IO_KIND::WriteBytes, 5000, 9, 0},
                                           {IO_KIND::ReadBytesAligned, 1024, 512, 0},
                                           {IO_KIND::WriteBytesAligned, 4096, 1024, 0},
                                           {IO_KIND::ReadSectors, 1536, 1024, 0},
                                           {IO_KIND::WriteSectors, 25600, 512, 0},
                                           {IO_KIND::ReadSectors, 1536, 1024, 0}}));
}

TEST_F(VolumeMount, VolumeBeyondFourGiB_FindsItsRootThere) {
  FAT_GEOMETRY geometry = Geometry(32, 70000);
  geometry.SectorsPerFat = 0x500000;  // two FATs of 2.5 GiB, of which the first 280 KB are used
  CImageBuilder builder(geometry);
  ASSERT_GT(builder.RootOffset(), 5ull << 30);
  const BYTES content = CImageBuilder::Pattern(700, 1);
  builder.AddFile(CImageBuilder::Root(), "FAR.BIN", content);
  CVolumeBench bench{builder.Image()};
  ASSERT_GE(bench.Mount(), 0);
  EXPECT_EQ(bench.Volume().RootDirByteOff(), static_cast<long long>(builder.RootOffset()));
  EXPECT_EQ(bench.Volume().GetByteOffFromFatIndex(3), static_cast<long long>(builder.ClusterOffset(3)));
  EXPECT_NE(bench.Volume().Root()->LookupFile(ToUtf16Z("FAR.BIN").data()), nullptr);
  BYTES read(700);
  EXPECT_EQ(bench.Volume().ReadBytes(read.data(), bench.Volume().GetByteOffFromFatIndex(3), 700), 0);
  EXPECT_EQ(read, content);
}

TEST_F(VolumeMount, ImageThatEndsBeforeItsFat_MountsWithEveryClusterFree) {
  CDiskImage image = ImageOf(Geometry(16, 5000));
  image.Resize(512);
  for (const BACKEND backend : {BACKEND::Medium, BACKEND::File}) {
    CFatFileSystem* fileSystem = Mount(backend, image);
    ASSERT_NE(fileSystem, nullptr) << BackendName(backend);
    EXPECT_EQ(fileSystem->FAT()->Bitmap().FreeClusters(), 5000u);
    EXPECT_TRUE(List("\\").empty());
    EXPECT_TRUE(Unmount(fileSystem));
  }
}

TEST_F(VolumeMount, FatTooSmallForTheClusters_IsReadAsFarAsTheyGo) {
  CVolumeBench bench{ImageWith(Geometry(16, 5000), [](CDiskImage& image) {
    image.Set16(22, 3);
    image.Set16(19, 1 + 2 * 3 + 32 + 5000);
  })};
  ASSERT_EQ(bench.Open(), 0);
  ASSERT_GE(bench.MountOpened(), 0);
  EXPECT_EQ(bench.Volume().MaxFileClusters(), 5000u);
  EXPECT_EQ(bench.Medium().Trace().front(), (IO_RECORD{IO_KIND::ReadSectors, 512, 20 * 512, 0}));
}

TEST_F(VolumeMount, LastClusterBehindTheVolumesEnd_IsRefusedInMemory) {
  // The root of 20 entries takes two sectors and counts as one, so there is one cluster more than there is room for.
  FAT_GEOMETRY geometry = Geometry(12, 100);
  geometry.RootEntries = 20;
  BYTES image = ImageOf(geometry).ToVector();
  CFatFileSystem* fileSystem = MountMemory(image);
  ASSERT_NE(fileSystem, nullptr);
  ASSERT_EQ(fileSystem->MaxFileClusters(), 101u);
  BYTES cluster(512, 0x77);
  EXPECT_EQ(fileSystem->WriteBytes(cluster.data(), fileSystem->GetByteOffFromFatIndex(101), 512), 0);
  EXPECT_EQ(fileSystem->WriteBytes(cluster.data(), fileSystem->GetByteOffFromFatIndex(102), 512), IO_ERROR);
  EXPECT_EQ(fileSystem->ReadBytesAligned(cluster.data(), fileSystem->GetByteOffFromFatIndex(102), 512), IO_ERROR);
  EXPECT_TRUE(Unmount(fileSystem));
}

// ---------------------------------------------------------------- impossible geometries

/// Mounts, expects the refusal, and that nothing but the boot sector was read.
void ExpectRefusedUnread(const CDiskImage& image, const char* what) {
  CVolumeBench bench{image};
  ASSERT_EQ(bench.Open(), 0) << what;
  EXPECT_EQ(bench.MountOpened(), UNRECOGNIZED) << what;
  EXPECT_EQ(bench.Medium().Transfers(), 0u) << what;
}

/// Mounts while no read works: a status of the read shows that the geometry was accepted.
void ExpectFatIsRead(const CDiskImage& image, const char* what) {
  CVolumeBench bench{image};
  ASSERT_EQ(bench.Open(), 0) << what;
  bench.Medium().FailAt(1, FAULT_FOR_GOOD, IO_FILTER::All, -4321);
  EXPECT_EQ(bench.MountOpened(), -4321) << what;
  EXPECT_EQ(bench.Medium().Transfers(), 1u) << what;
}

/// Sets the 32-bit count of sectors (and none of 16 bits).
void SetTotal(CDiskImage& image, std::uint32_t total) {
  image.Set16(19, 0);
  image.Set32(32, total);
}

TEST_F(VolumeMount, TotalBelowTheOverhead_IsRefusedBeforeTheFatIsRead) {
  // FAT12: 1 reserved + 2 x 3 + 32 of the root.
  ExpectRefusedUnread(ImageWith(Geometry(12), [](CDiskImage& i) { i.Set16(19, 38); }), "FAT12");
  ExpectRefusedUnread(ImageWith(Geometry(12), [](CDiskImage& i) { i.Set16(19, 1); }), "one sector");
  ExpectRefusedUnread(ImageWith(Geometry(16), [](CDiskImage& i) { SetTotal(i, 1 + 2 * 20 + 32 - 1); }), "FAT16");
  FAT_GEOMETRY fat32 = Geometry(32, 100);
  fat32.SectorsPerFat = 35;
  ExpectRefusedUnread(ImageWith(fat32, [](CDiskImage& i) { SetTotal(i, 100); }), "FAT32, overhead 102");
}

TEST_F(VolumeMount, OverheadThatWrapsIn32Bits_IsRefused) {
  // 2 x 0x80000001 sectors would be 2.
  ExpectRefusedUnread(ImageWith(Geometry(32, 1000), [](CDiskImage& i) { i.Set32(36, 0x80000001u); }), "two FATs");
  ExpectRefusedUnread(ImageWith(Geometry(32, 1000), [](CDiskImage& i) { i.Set32(36, 0xFFFFFFFFu); }), "all ones");
  ExpectRefusedUnread(ImageWith(Geometry(32, 1000),
                                [](CDiskImage& i) {
                                  i.Set8(16, 1);
                                  i.Set32(36, 0xFFFFFFF0u);  // with 32 reserved sectors: 16
                                }),
                      "one FAT");
}

TEST_F(VolumeMount, TotalEqualToTheOverhead_MountsWithoutClusters) {
  CVolumeBench fat12{ImageWith(Geometry(12), [](CDiskImage& i) { i.Set16(19, 1 + 2 * 3 + 32); })};
  EXPECT_GE(fat12.Mount(), 0);
  EXPECT_EQ(fat12.Volume().MaxFileClusters(), 0u);
  EXPECT_EQ(fat12.Table().Bitmap().FreeClusters(), 0u);
  FAT_GEOMETRY geometry = Geometry(32, 100);
  geometry.RootCluster = 0;
  CVolumeBench fat32{ImageWith(geometry, [](CDiskImage& i) { SetTotal(i, 32 + 2 * 1); })};
  EXPECT_GE(fat32.Mount(), 0);
  EXPECT_EQ(fat32.Volume().MaxFileClusters(), 0u);
}

TEST_F(VolumeMount, Fat16ClusterCount_EndsAtFFF6) {
  ExpectFatIsRead(ImageOf(Geometry(16, 0xFFF6)), "0xFFF6");
  ExpectRefusedUnread(ImageOf(Geometry(16, 0xFFF7)), "0xFFF7");
  ExpectRefusedUnread(ImageOf(Geometry(16, 0x30000)), "0x30000");
  CVolumeBench bench{ImageOf(Geometry(16, 0xFFF6))};
  EXPECT_GE(bench.Mount(), 0);
  EXPECT_EQ(bench.Volume().MaxFileClusters(), 0xFFF6u);
}

TEST_F(VolumeMount, Fat32ClusterCount_EndsAt0FFFFFF6) {
  const auto withClusters = [](std::uint32_t clusters) {
    return ImageWith(Geometry(32, 1000), [clusters](CDiskImage& i) { SetTotal(i, 32 + 2 * 8 + clusters); });
  };
  ASSERT_EQ(ImageOf(Geometry(32, 1000)).Get32(36), 8u);
  ExpectFatIsRead(withClusters(0x0FFFFFF6), "0x0FFFFFF6");
  ExpectRefusedUnread(withClusters(0x0FFFFFF7), "0x0FFFFFF7");
  ExpectRefusedUnread(withClusters(0xFFFF0000u), "nearly all");
}

TEST_F(VolumeMount, RefusedGeometryThroughTheInterface_ClosesTheStorageAndWritesNothing) {
  CMedium medium(ImageWith(Geometry(12), [](CDiskImage& i) { i.Set16(19, 20); }));
  EXPECT_EQ(MountMedium(medium), nullptr);
  EXPECT_EQ(medium.CloseCalls(), 1u);
  EXPECT_EQ(medium.Writes(), 0u);
  EXPECT_EQ(medium.Transfers(), 1u);
}

TEST_F(VolumeMount, BackEndThatAcceptsAnyBootSector_ClustersOfNoSectorAreRefused) {
  class CTolerant : public CFatMemory {
   public:
    bool IsDbrOk(void*) override { return true; }
  };
  BYTES image = ImageOf(Geometry(12)).ToVector();
  image[13] = 0;  // sectors per cluster
  CTolerant storage;
  ASSERT_EQ(storage.Open(image.data()), 0);
  CFatFileSystem fileSystem;
  CFatVolume& volume = fileSystem;
  EXPECT_EQ(volume.Mount(&storage), UNRECOGNIZED);
  storage.Close();
}

TEST_F(VolumeMount, BackEndThatContradictsItsBootSector_IsRefused) {
  class CContrary : public CFatMemory {
   public:
    unsigned int GetBytesPerSector(void*) override { return 1024; }
  };
  BYTES image = ImageOf(Geometry(12)).ToVector();  // 512 bytes per sector
  image.resize(2 * image.size());
  CContrary storage;
  ASSERT_EQ(storage.Open(image.data()), 0);
  CFatFileSystem fileSystem;
  CFatVolume& volume = fileSystem;
  EXPECT_EQ(volume.Mount(&storage), UNRECOGNIZED);
  storage.Close();
}

// ---------------------------------------------------------------- roots that cannot be loaded

int StatusOfMount(const CDiskImage& image) {
  CVolumeBench bench{image};
  return bench.Mount();
}

CDiskImage WithRootCluster(std::uint32_t cluster) {
  return ImageWith(Geometry(32, 1000), [cluster](CDiskImage& image) { image.Set32(44, cluster); });
}

TEST_F(VolumeMount, RootClusterThatTheVolumeDoesNotHave_IsDiskCorrupt) {
  for (const std::uint32_t cluster : {1u, 1002u, 0x0FFFFFFFu, 0xFFFFFFFEu}) {
    EXPECT_EQ(StatusOfMount(WithRootCluster(cluster)), DISK_CORRUPT) << cluster;
  }
}

TEST_F(VolumeMount, RootClusterZeroOrAllOnes_MountsAnEmptyRoot) {
  for (const std::uint32_t cluster : {0u, 0xFFFFFFFFu}) {
    CVolumeBench bench{WithRootCluster(cluster)};
    EXPECT_GE(bench.Mount(), 0) << cluster;
    EXPECT_EQ(bench.Volume().Root()->Limit(), 0) << cluster;
    EXPECT_TRUE(bench.Volume().Root()->IsEmpty());
  }
}

TEST_F(VolumeMount, RootChainThatIsBroken_IsDiskCorrupt) {
  // Links to itself, to a free entry, to an entry below 2, to one beyond the volume, and in a loop of two.
  for (const std::uint32_t next : {2u, 0u, 1u, 1002u, 500u}) {
    CImageBuilder builder(Geometry(32, 1000));
    builder.SetFatEntry(2, next);
    if (next == 500) builder.SetFatEntry(500, 2);
    EXPECT_EQ(StatusOfMount(builder.Image()), DISK_CORRUPT) << next;
  }
}

TEST_F(VolumeMount, RootCannotBeRead_StatusIsReturnedAndNoRootIsLeft) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    CImageBuilder builder(Geometry(bits));
    CVolumeBench bench{builder.Image()};
    ASSERT_EQ(bench.Open(), 0);
    bench.Medium().FailRange(static_cast<long long>(builder.RootOffset()), 32, IO_FILTER::Reads, -55);
    EXPECT_EQ(bench.MountOpened(), -55) << bits;
    EXPECT_EQ(bench.Volume().Root(), nullptr);
  }
}

// ---------------------------------------------------------------- failing step by step

CDiskImage SmallVolume(unsigned int bits) {
  CImageBuilder builder(Geometry(bits, bits == 32 ? 200000u : 0u));  // FAT32: four blocks of FAT
  builder.AddFile(builder.AddDir(CImageBuilder::Root(), "DIR"), "A long name.txt", CImageBuilder::Pattern(3000, 1));
  return builder.Image();
}

TEST_F(VolumeMount, AnyReadFailing_ReturnsItsStatusAndLeavesNothing) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    const CDiskImage image = SmallVolume(bits);
    for (unsigned int failAt = 1;; ++failAt) {
      CVolumeBench bench{image};
      ASSERT_EQ(bench.Open(), 0);
      const std::size_t outstanding = Memory().Outstanding();
      bench.Medium().FailAt(failAt, FAULT_ONCE, IO_FILTER::All, -4242);
      const int status = bench.MountOpened();
      if (!bench.Medium().Fired()) {
        EXPECT_GE(status, 0);
        EXPECT_EQ(failAt, bits == 32 ? 6u : 3u);  // so many transfers were tried: the blocks of the FAT, and the root
        break;
      }
      EXPECT_EQ(status, -4242) << "transfer " << failAt;
      EXPECT_EQ(bench.Medium().Transfers(), failAt);
      EXPECT_EQ(bench.Volume().Root(), nullptr);
      EXPECT_EQ(Memory().Outstanding(), outstanding);
      // The object can be used for another try.
      EXPECT_GE(bench.MountOpened(), 0);
    }
  }
}

TEST_F(VolumeMount, AnyAllocationFailing_FailsAndLeavesNothing) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    const CDiskImage image = SmallVolume(bits);
    std::set<int> statuses;
    for (const CMemHooks::DURATION duration : {CMemHooks::ONCE, CMemHooks::FOR_GOOD}) {
      for (unsigned int failAt = 1;; ++failAt) {
        CVolumeBench bench{image};
        ASSERT_EQ(bench.Open(), 0);
        const std::size_t outstanding = Memory().Outstanding();
        Memory().FailAt(failAt, duration);
        const int status = bench.MountOpened();
        Memory().Heal();
        if (!Memory().Fired()) {
          EXPECT_GE(status, 0);
          EXPECT_GT(failAt, 5u);
          break;
        }
        // Without an object for the root the stated status is that of a damaged disk.
        statuses.insert(status);
        EXPECT_EQ(Memory().Outstanding(), outstanding) << failAt;
        EXPECT_EQ(bench.Medium().Writes(), 0u);
      }
    }
    EXPECT_EQ(statuses, (std::set<int>{NO_MEMORY, DISK_CORRUPT}));
  }
}

// ---------------------------------------------------------------- the FSInfo sector

/// A FAT32 volume whose FSInfo sector is full of recognisable bytes between its fields.
CDiskImage FsInfoImage(unsigned int bytesPerSector = 512) {
  FAT_GEOMETRY geometry = Geometry(32, 1000, bytesPerSector);
  geometry.FsInfoSector = bytesPerSector < 512 ? 4 : 3;
  geometry.FsInfoFree = 123;
  geometry.FsInfoNext = 456;
  CImageBuilder builder(geometry);
  CDiskImage image = builder.Image();
  const std::uint64_t info = builder.FsInfoOffset();
  image.Fill(info + 4, 480, 0xA5);
  image.Fill(info + 496, 12, 0x5A);
  if (bytesPerSector > 512) image.Fill(info + 512, bytesPerSector - 512, 0x33);
  return image;
}

TEST_F(FsInfo, Fat32_BothCountersBecomeUnknownByOneReadAndOneWrite) {
  const CDiskImage before = FsInfoImage();
  CVolumeBench bench{before};
  ASSERT_GE(bench.Mount(), 0);
  EXPECT_GE(bench.Volume().ResetFat32FsInfo(), 0);
  EXPECT_EQ(bench.Medium().Trace(),
            (TRACE{{IO_KIND::ReadBytes, 3 * 512, 512, 0}, {IO_KIND::WriteBytes, 3 * 512, 512, 0}}));
  CDiskImage expected = before;
  expected.Set32(3 * 512 + 488, 0xFFFFFFFFu);
  expected.Set32(3 * 512 + 492, 0xFFFFFFFFu);
  EXPECT_EQ(bench.Image(), expected);
}

TEST_F(FsInfo, Fat12AndFat16_NothingIsTouched) {
  for (const unsigned int bits : {12u, 16u}) {
    CVolumeBench bench{ImageOf(Geometry(bits))};
    ASSERT_GE(bench.Mount(), 0);
    EXPECT_EQ(bench.Volume().ResetFat32FsInfo(), 0);
    EXPECT_EQ(bench.Medium().Transfers(), 0u);
  }
}

TEST_F(FsInfo, AnySignatureByteWrong_IsDiskCorruptAndNothingIsWritten) {
  for (const unsigned int signature : {0u, 484u, 508u}) {
    for (unsigned int byte = 0; byte < 4; ++byte) {
      CDiskImage image = FsInfoImage();
      const std::uint64_t at = 3 * 512 + signature + byte;
      image.Set8(at, image.Get8(at) ^ 0x10u);
      CVolumeBench bench{image};
      ASSERT_GE(bench.Mount(), 0);
      EXPECT_EQ(bench.Volume().ResetFat32FsInfo(), DISK_CORRUPT) << signature << "+" << byte;
      EXPECT_EQ(bench.Medium().Writes(), 0u);
      EXPECT_EQ(bench.Image(), image);
    }
  }
}

TEST_F(FsInfo, FailedTransfers_ReturnTheirStatus) {
  CVolumeBench bench{FsInfoImage()};
  ASSERT_GE(bench.Mount(), 0);
  bench.Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads, -31);
  EXPECT_EQ(bench.Volume().ResetFat32FsInfo(), -31);
  EXPECT_EQ(bench.Medium().Writes(), 0u);
  bench.Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Writes, -32);
  EXPECT_EQ(bench.Volume().ResetFat32FsInfo(), -32);
}

TEST_F(FsInfo, ReadDeliversOnlyPart_IsDiskCorrupt) {
  CVolumeBench bench{FsInfoImage()};
  ASSERT_GE(bench.Mount(), 0);
  bench.Medium().ShortenReadAt(1, 500);  // the trail signature is missing
  EXPECT_EQ(bench.Volume().ResetFat32FsInfo(), DISK_CORRUPT);
  EXPECT_EQ(bench.Medium().Writes(), 0u);
}

TEST_F(FsInfo, SectorBehindTheImagesEnd_IsDiskCorruptOrAnIoError) {
  const CDiskImage image = ImageWith(Geometry(32, 1000), [](CDiskImage& i) { i.Set16(48, 0xFFFF); });
  CVolumeBench bench{image};
  ASSERT_GE(bench.Mount(), 0);
  EXPECT_EQ(bench.Volume().ResetFat32FsInfo(), DISK_CORRUPT);  // an image file reads as zeros there
  bench.Medium().RefuseOutOfRange(true);
  EXPECT_EQ(bench.Volume().ResetFat32FsInfo(), IO_ERROR);
  EXPECT_EQ(bench.Medium().Writes(), 0u);
  EXPECT_EQ(bench.Medium().Trace().front(), (IO_RECORD{IO_KIND::ReadBytes, 0xFFFFLL * 512, 512, 0}));
}

TEST_F(FsInfo, SectorZero_IsTheBootSectorAndIsNotWritten) {
  const CDiskImage image = ImageWith(Geometry(32, 1000), [](CDiskImage& i) { i.Set16(48, 0); });
  CVolumeBench bench{image};
  ASSERT_GE(bench.Mount(), 0);
  EXPECT_EQ(bench.Volume().ResetFat32FsInfo(), DISK_CORRUPT);
  EXPECT_EQ(bench.Medium().Trace(), (TRACE{{IO_KIND::ReadBytes, 0, 512, 0}}));
}

TEST_F(FsInfo, SectorsOfEverySize_KeepWhatLiesBehindThe512Bytes) {
  for (const unsigned int bytes : {128u, 256u, 1024u, 2048u, 4096u}) {
    for (const BACKEND backend : {BACKEND::Memory, BACKEND::File}) {
      CDiskImage image = FsInfoImage(bytes);
      const std::uint64_t info = (bytes < 512 ? 4ull : 3ull) * bytes;
      CDiskImage expected = image;
      expected.Set32(info + 488, 0xFFFFFFFFu);
      expected.Set32(info + 492, 0xFFFFFFFFu);
      CFatFileSystem* fileSystem = Mount(backend, &image);
      ASSERT_NE(fileSystem, nullptr);
      EXPECT_TRUE(Unmount(fileSystem));
      EXPECT_EQ(image, expected) << bytes << " " << BackendName(backend);
    }
  }
}

TEST_F(FsInfo, DamagedSignature_VolumeIsUnmountedAllTheSame) {
  CDiskImage image = FsInfoImage();
  image.Set32(3 * 512, 0);
  const CDiskImage before = image;
  CFatFileSystem* fileSystem = Mount(BACKEND::Medium, &image);
  ASSERT_NE(fileSystem, nullptr);
  EXPECT_TRUE(Unmount(fileSystem));
  EXPECT_EQ(image, before);
}

// ---------------------------------------------------------------- the second FAT

FAT_GEOMETRY WithFats(unsigned int bits, unsigned int fats) {
  FAT_GEOMETRY geometry = Geometry(bits);
  geometry.NumberOfFats = fats;
  // More than the entries need: the whole FAT counts.
  geometry.SectorsPerFat = bits == 32 ? 700 : 50;
  return geometry;
}

/// The volume with a different mark in every FAT's last bytes, where no entry lies.
CDiskImage WithMarkedFats(CImageBuilder& builder) {
  for (unsigned int copy = 0; copy < builder.Geometry().NumberOfFats; ++copy) {
    builder.Store().Set32(builder.FatOffset(copy + 1) - 4, 0x11111111u * (copy + 1));
  }
  return builder.Image();
}

BYTES FatBytes(const CDiskImage& image, const CImageBuilder& builder, unsigned int copy) {
  return image.ReadBytes(builder.FatOffset(copy), ToSize(builder.FatBytes()));
}

TEST_F(FatBackup, TwoFats_TheSecondBecomesTheFirstByOneReadAndOneWrite) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    CImageBuilder builder(WithFats(bits, 2));
    const CDiskImage before = WithMarkedFats(builder);
    CVolumeBench bench{before};
    ASSERT_GE(bench.Mount(), 0);
    bench.Volume().BackupFirstFat();
    const long long first = static_cast<long long>(builder.FatOffset(0));
    const long long second = static_cast<long long>(builder.FatOffset(1));
    EXPECT_EQ(bench.Medium().Trace(), (TRACE{{IO_KIND::ReadSectors, first, builder.FatBytes(), 0},
                                             {IO_KIND::WriteSectors, second, builder.FatBytes(), 0}}));
    CDiskImage expected = before;
    expected.WriteBytes(builder.FatOffset(1), FatBytes(before, builder, 0));
    EXPECT_EQ(bench.Image(), expected);
  }
}

TEST_F(FatBackup, ThreeFats_OnlyTheSecondIsRefreshedAtUnmount) {
  CImageBuilder builder(WithFats(16, 3));
  CDiskImage image = WithMarkedFats(builder);
  const BYTES third = FatBytes(image, builder, 2);
  CFatFileSystem* fileSystem = Mount(BACKEND::Medium, &image);
  ASSERT_NE(fileSystem, nullptr);
  ASSERT_TRUE(WritePath("F", CImageBuilder::Pattern(2000, 1)));
  ASSERT_TRUE(Unmount(fileSystem));
  EXPECT_EQ(FatBytes(image, builder, 1), FatBytes(image, builder, 0));
  EXPECT_EQ(FatBytes(image, builder, 2), third);
  EXPECT_NE(FatBytes(image, builder, 0), third);
}

TEST_F(FatBackup, OneFat_WhatLiesBehindItIsOverwrittenAsStated) {
  for (const unsigned int bits : {16u, 32u}) {
    CImageBuilder builder(WithFats(bits, 1));
    CVolumeBench bench{WithMarkedFats(builder)};
    ASSERT_GE(bench.Mount(), 0);
    bench.Volume().BackupFirstFat();
    EXPECT_EQ(bench.Medium().Transfers(), 2u);
    EXPECT_EQ(FatBytes(bench.Image(), builder, 1), FatBytes(bench.Image(), builder, 0));
  }
}

TEST_F(FatBackup, NoFatByTheParameterBlock_NothingIsTransferred) {
  CVolumeBench bench{ImageOf(Geometry(16))};
  ASSERT_GE(bench.Mount(), 0);
  unsigned int rootCluster = 0, rootBytes = 0;
  bench.Volume().SetupMpb(Changed(Fat16Mpb(), [](FAT_MPB& mpb) { mpb.NumberOfFats = 0; }), rootCluster, rootBytes);
  bench.Volume().BackupFirstFat();
  EXPECT_EQ(bench.Medium().Transfers(), 0u);
}

TEST_F(FatBackup, ReadFails_NothingIsWritten) {
  CImageBuilder builder(WithFats(16, 2));
  const CDiskImage before = WithMarkedFats(builder);
  CVolumeBench bench{before};
  ASSERT_GE(bench.Mount(), 0);
  bench.Medium().FailAt(1, FAULT_ONCE);
  bench.Volume().BackupFirstFat();
  EXPECT_EQ(bench.Medium().Reads(), 1u);
  EXPECT_EQ(bench.Medium().Writes(), 0u);
}

TEST_F(FatBackup, FailuresAtUnmount_AreSwallowed) {
  for (const IO_FILTER filter : {IO_FILTER::Reads, IO_FILTER::Writes}) {
    CMedium medium(ImageOf(Geometry(16)));
    CFatFileSystem* fileSystem = MountMedium(medium);
    ASSERT_NE(fileSystem, nullptr);
    medium.ClearTrace();
    medium.FailAt(1, FAULT_FOR_GOOD, filter);
    EXPECT_TRUE(Unmount(fileSystem));
    EXPECT_TRUE(medium.Fired());
    EXPECT_EQ(medium.CloseCalls(), 1u);
  }
}

TEST_F(FatBackup, NoMemory_NothingIsTransferred) {
  for (const FAT_GEOMETRY& geometry : {Geometry(16), Geometry(32, 300000)}) {
    CVolumeBench bench{ImageOf(geometry)};
    ASSERT_GE(bench.Mount(), 0);
    Memory().FailAt(1, CMemHooks::ONCE);
    bench.Volume().BackupFirstFat();
    EXPECT_TRUE(Memory().Fired());
    EXPECT_EQ(bench.Medium().Transfers(), 0u);
  }
}

// The memory of the cache of the FAT is there already.
TEST_F(FatBackup, FatOfSeveralBlocks_IsCopiedAtUnmountWithoutFurtherMemory) {
  CImageBuilder builder(Geometry(32, 300000));
  CDiskImage image = WithMarkedFats(builder);
  CFatFileSystem* fileSystem = Mount(BACKEND::Medium, &image);
  ASSERT_NE(fileSystem, nullptr);
  ASSERT_TRUE(WritePath("F", CImageBuilder::Pattern(2000, 1)));
  Memory().ResetPeak();
  const std::size_t before = Memory().OutstandingBytes();
  ASSERT_TRUE(Unmount(fileSystem));
  EXPECT_EQ(FatBytes(image, builder, 1), FatBytes(image, builder, 0));
  EXPECT_EQ(Memory().PeakBytes(), before);
}

TEST_F(FatBackup, FatOfSeveralBlocksAndNoMemory_UnmountsWithTheSecondOneStale) {
  CImageBuilder builder(Geometry(32, 300000));
  CDiskImage image = WithMarkedFats(builder);
  const BYTES second = FatBytes(image, builder, 1);
  CFatFileSystem* fileSystem = Mount(BACKEND::Medium, &image);
  ASSERT_NE(fileSystem, nullptr);
  ASSERT_TRUE(WritePath("F", CImageBuilder::Pattern(2000, 1)));
  Memory().FailAt(1, CMemHooks::FOR_GOOD);
  EXPECT_TRUE(Unmount(fileSystem));
  EXPECT_TRUE(Memory().Fired());
  Memory().Heal();
  EXPECT_EQ(FatBytes(image, builder, 1), second);
}

TEST_F(FatBackup, FatOfMoreBytesThanAnAllocationTakes_NothingIsTransferred) {
  // 0x00800001 sectors are 4 GiB and 512 bytes: 512 in 32 bits.
  FAT_GEOMETRY geometry = Geometry(32, 1000);
  geometry.SectorsPerFat = 0x00800001;
  CVolumeBench bench{ImageOf(geometry)};
  ASSERT_GE(bench.Mount(), 0);
  bench.Volume().BackupFirstFat();
  EXPECT_EQ(bench.Medium().Transfers(), 0u);
}

TEST_F(FatBackup, FatOfMoreThanAVolumeCanUse_NothingIsTransferred) {
  // 1 GiB holds the entries of the largest volume; a sector more is let pass for the two entries without a cluster.
  for (const unsigned int sectors : {0x00200002u, 0x007FFFFFu}) {
    FAT_GEOMETRY geometry = Geometry(32, 1000);
    geometry.SectorsPerFat = sectors;
    CVolumeBench bench{ImageOf(geometry)};
    ASSERT_GE(bench.Mount(), 0);
    Memory().ResetLargest();
    bench.Volume().BackupFirstFat();
    EXPECT_EQ(bench.Medium().Transfers(), 0u) << sectors;
    EXPECT_EQ(Memory().LargestRequest(), 0u) << sectors;
  }
}

// ---------------------------------------------------------------- unmounting

/// Which part of the volume a transfer starts in.
std::string RegionOf(const CImageBuilder& builder, long long offset) {
  const std::uint64_t at = static_cast<std::uint64_t>(offset);
  const unsigned int rootBytes = builder.Geometry().FatBits == 32 ? builder.ClusterBytes() : 512 * 32;
  if (at < builder.FatOffset(0)) return "info";
  if (at < builder.FatOffset(1)) return "FAT1";
  if (at < builder.FatOffset(2)) return "FAT2";
  if (at >= builder.RootOffset() && at < builder.RootOffset() + rootBytes) return "root";
  return "data";
}

std::vector<std::string> RegionsOf(const CImageBuilder& builder, const TRACE& trace) {
  std::vector<std::string> regions;
  for (const IO_RECORD& record : trace) {
    regions.push_back((record.Read() ? "read " : "write ") + RegionOf(builder, record.Offset));
  }
  return regions;
}

TEST_F(VolumeUnmount, ChangedVolume_IsWrittenInTheStatedOrder) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    CImageBuilder builder(Geometry(bits));
    CMedium medium(builder.Image());
    CFatFileSystem* fileSystem = MountMedium(medium);
    ASSERT_NE(fileSystem, nullptr);
    ASSERT_TRUE(WritePath("F", CImageBuilder::Pattern(1000, 1)));
    medium.ClearTrace();
    ASSERT_TRUE(Unmount(fileSystem));
    std::vector<std::string> expected{"write root", "write FAT1", "read FAT1", "write FAT2", "write data"};
    if (bits == 32) expected.insert(expected.begin(), {"read info", "write info"});
    std::vector<std::string> regions = RegionsOf(builder, medium.Trace());
    // Several transfers may follow each other in one region.
    regions.erase(std::unique(regions.begin(), regions.end()), regions.end());
    EXPECT_EQ(regions, expected) << medium.TraceText();
    EXPECT_EQ(medium.CloseCalls(), 1u);
    EXPECT_EQ(medium.TransfersWhileClosed(), 0u);
    const CVolumeReader reader(medium.Image());
    EXPECT_TRUE(reader.Problems().empty()) << reader.ProblemText();
  }
}

TEST_F(VolumeUnmount, UntouchedVolume_OnlyTheFatIsCopied) {
  CImageBuilder builder(Geometry(16));
  CMedium medium(builder.Image());
  CFatFileSystem* fileSystem = MountMedium(medium);
  ASSERT_NE(fileSystem, nullptr);
  medium.ClearTrace();
  ASSERT_TRUE(Unmount(fileSystem));
  EXPECT_EQ(RegionsOf(builder, medium.Trace()), (std::vector<std::string>{"read FAT1", "write FAT2"}));
  EXPECT_EQ(medium.Image(), builder.Image());
}

TEST_F(VolumeUnmount, ChangesWhileMounted_NeverGoToTheSecondFat) {
  CImageBuilder builder(Geometry(32, 300000));  // five blocks of FAT, all of which are changed
  const CDiskImage before = builder.Image();
  CVolumeBench bench{before};
  ASSERT_GE(bench.Mount(), 0);
  for (unsigned int cluster = 100; cluster < 300000; cluster += 30000) ASSERT_GE(bench.SetNext(cluster, 0x0FFFFFFF), 0);
  ASSERT_GE(bench.Unmount(), 0);
  EXPECT_GT(bench.Medium().Writes(), 4u);
  EXPECT_EQ(FatBytes(bench.Image(), builder, 1), FatBytes(before, builder, 1));
  EXPECT_NE(FatBytes(bench.Image(), builder, 0), FatBytes(before, builder, 0));
}

TEST_F(VolumeUnmount, FatCannotBeWritten_StatusIsReturnedAndEverythingIsReleased) {
  CVolumeBench bench{ImageOf(Geometry(16))};
  ASSERT_EQ(bench.Open(), 0);
  const std::size_t outstanding = Memory().Outstanding();
  ASSERT_GE(bench.MountOpened(), 0);
  ASSERT_GE(bench.SetNext(100, 0xFFFF), 0);
  bench.Medium().FailAt(1, FAULT_FOR_GOOD, IO_FILTER::Writes, -88);
  EXPECT_EQ(bench.Unmount(), -88);
  EXPECT_EQ(bench.Volume().Root(), nullptr);
  EXPECT_EQ(Memory().Outstanding(), outstanding);
}

TEST_F(VolumeUnmount, Abandoned_MakesNoTransferAndReleasesEverything) {
  CVolumeBench bench{ImageOf(Geometry(16))};
  ASSERT_EQ(bench.Open(), 0);
  const std::size_t outstanding = Memory().Outstanding();
  ASSERT_GE(bench.MountOpened(), 0);
  ASSERT_GE(bench.SetNext(100, 0xFFFF), 0);
  bench.Medium().ClearTrace();
  bench.Volume().Abandon();
  EXPECT_EQ(bench.Medium().Transfers(), 0u);
  EXPECT_EQ(Memory().Outstanding(), outstanding);
}

TEST_F(VolumeUnmount, MountedAgain_TheSameObjectWorks) {
  CVolumeBench bench{ImageOf(Geometry(16))};
  ASSERT_GE(bench.Mount(), 0);
  ASSERT_GE(bench.SetNext(100, 0xFFFF), 0);
  ASSERT_GE(bench.Unmount(), 0);
  ASSERT_EQ(bench.Storage().Close(), 1);
  ASSERT_GE(bench.Mount(), 0);
  EXPECT_EQ(bench.Next(100), 0xFFFFu);
}

// ---------------------------------------------------------------- one storage for two volumes

TEST_F(VolumeMount, StorageOfAMountedVolume_IsRefusedAndStaysUsable) {
  CImageBuilder builder(Geometry(16));
  const BYTES content = CImageBuilder::Pattern(2000, 1);
  builder.AddFile(CImageBuilder::Root(), "F.BIN", content);
  CMedium medium(builder.Image());
  CFaultStorage* storage = new CFaultStorage(medium);
  CFatFileSystem* first = Fat_Mount(storage, nullptr);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(Fat_Mount(storage, nullptr), nullptr);
  EXPECT_EQ(medium.OpenCalls(), 1u);
  EXPECT_EQ(medium.CloseCalls(), 0u);
  EXPECT_FALSE(Exists("F.BIN"));  // no file system is current
  SetCurrentFileSystem(first);
  EXPECT_EQ(ReadPath("F.BIN"), content);
  EXPECT_EQ(Fat_Unmount(first), 1u);
  // Once unmounted it may be mounted again.
  CFatFileSystem* second = Fat_Mount(storage, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(ReadPath("F.BIN"), content);
  EXPECT_EQ(Fat_Unmount(second), 1u);
  ::operator delete(storage);
}

}  // namespace
