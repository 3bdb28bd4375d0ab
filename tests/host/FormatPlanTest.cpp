/// @file FormatPlanTest.cpp
/// Where Format puts things: the numbers of well-known volumes, and what holds for all of them.

#include <fatlib/Error.h>
#include <fatlib/Format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

using fatlib::FatType;
using fatlib::FormatOptions;
using fatlib::Geometry;
using fatlib::PlanFormat;
using fatlib::Status;

constexpr std::uint64_t KIB = 1024;
constexpr std::uint64_t MIB = 1024 * KIB;
constexpr std::uint64_t GIB = 1024 * MIB;

FormatOptions Options(int bits, std::uint32_t bytesPerSector = 512, std::uint32_t bytesPerCluster = 0) {
  FormatOptions options;
  options.bits = bits;
  options.bytesPerSector = bytesPerSector;
  options.bytesPerCluster = bytesPerCluster;
  return options;
}

Geometry Plan(std::uint64_t bytes, const FormatOptions& options = {}) {
  Geometry geometry;
  const std::error_code error = PlanFormat(bytes, options, &geometry);
  EXPECT_FALSE(error) << bytes << ": " << error.message();
  return geometry;
}

bool IsRefused(std::uint64_t bytes, const FormatOptions& options) {
  Geometry geometry;
  geometry.clusters = 12345;
  const std::error_code error = PlanFormat(bytes, options, &geometry);
  EXPECT_EQ(12345u, error ? geometry.clusters : 12345u) << "a refusal must leave the geometry";
  return error == Status::InvalidParameter;
}

struct EXPECTED {
  std::uint64_t Bytes;
  FatType Type;
  std::uint32_t BytesPerCluster;
  std::uint32_t Reserved;
  std::uint32_t SectorsPerFat;
  std::uint32_t RootEntries;
  std::uint64_t FirstData;
  std::uint32_t Clusters;
  unsigned int Media;
};

void ExpectPlan(const EXPECTED& expected, const Geometry& plan) {
  const std::string what = std::to_string(expected.Bytes);
  EXPECT_EQ(static_cast<int>(expected.Type), static_cast<int>(plan.type)) << what;
  EXPECT_EQ(expected.BytesPerCluster, plan.bytesPerCluster) << what;
  EXPECT_EQ(expected.Reserved, plan.reservedSectors) << what;
  EXPECT_EQ(expected.SectorsPerFat, plan.sectorsPerFat) << what;
  EXPECT_EQ(expected.RootEntries, plan.rootEntries) << what;
  EXPECT_EQ(expected.FirstData, plan.firstDataSector) << what;
  EXPECT_EQ(expected.Clusters, plan.clusters) << what;
  EXPECT_EQ(expected.Media, plan.media) << what;
}

TEST(FormatPlan, FloppyDisksHaveTheirUsualLayout) {
  const EXPECTED floppies[] = {
      {360 * KIB, FatType::Fat12, 1024, 1, 2, 112, 12, 354, 0xFD},
      {720 * KIB, FatType::Fat12, 1024, 1, 3, 112, 14, 713, 0xF9},
      {1200 * KIB, FatType::Fat12, 512, 1, 7, 224, 29, 2371, 0xF9},
      {1440 * KIB, FatType::Fat12, 512, 1, 9, 224, 33, 2847, 0xF0},
      {2880 * KIB, FatType::Fat12, 1024, 1, 9, 224, 33, 2863, 0xF0},
  };
  for (const EXPECTED& floppy : floppies) ExpectPlan(floppy, Plan(floppy.Bytes));
}

// Reckoned by hand: sectors - reserved - 2 FATs - root, over the sectors of a cluster.
TEST(FormatPlan, SizeGivesTypeAndCluster) {
  const EXPECTED sizes[] = {
      {64 * KIB, FatType::Fat12, 512, 1, 1, 512, 35, 93, 0xF8},
      {MIB, FatType::Fat12, 512, 1, 6, 512, 45, 2003, 0xF8},
      {4 * MIB, FatType::Fat12, 1024, 1, 12, 512, 57, 4067, 0xF8},
      {16 * MIB, FatType::Fat16, 1024, 1, 64, 512, 161, 16303, 0xF8},
      {64 * MIB, FatType::Fat16, 2048, 1, 128, 512, 289, 32695, 0xF8},
      {500 * MIB, FatType::Fat16, 8192, 1, 250, 512, 533, 63966, 0xF8},
      {512 * MIB, FatType::Fat32, 4096, 32, 1022, 0, 2076, 130812, 0xF8},
      {8 * GIB, FatType::Fat32, 4096, 32, 16353, 0, 32738, 2093059, 0xF8},
      {64 * GIB, FatType::Fat32, 32768, 32, 16381, 0, 32794, 2096639, 0xF8},
  };
  for (const EXPECTED& size : sizes) ExpectPlan(size, Plan(size.Bytes));
}

TEST(FormatPlan, TwoTebibytesLessASectorIsTheLargestWith512Bytes) {
  const std::uint64_t most = 0xFFFFFFFFull * 512;
  const Geometry plan = Plan(most);
  EXPECT_EQ(0xFFFFFFFFu, plan.totalSectors);
  EXPECT_EQ(32768u, plan.bytesPerCluster);
  EXPECT_EQ(524161u, plan.sectorsPerFat);  // of 128 entries each
  EXPECT_EQ((0xFFFFFFFFull - 32 - 2 * 524161) / 64, plan.clusters);
  EXPECT_TRUE(IsRefused(most + 512, FormatOptions()));
  FormatOptions half;
  half.bytes = most;
  EXPECT_EQ(0xFFFFFFFFu, Plan(most + 512, half).totalSectors);
}

TEST(FormatPlan, LargeSectorsReachSixteenTebibytes) {
  const std::uint64_t most = 0xFFFFFFFFull * 4096;
  const Geometry plan = Plan(most, Options(32, 4096));
  EXPECT_EQ(0xFFFFFFFFu, plan.totalSectors);
  EXPECT_EQ(64u * KIB, plan.bytesPerCluster);  // half as large would be more than 2^28 clusters
  EXPECT_EQ(262113u, plan.sectorsPerFat);      // of 1024 entries each
  EXPECT_EQ((0xFFFFFFFFull - 32 - 2 * 262113) / 16, plan.clusters);
}

// ---------------------------------------------------------------------------------------------- what always holds

std::uint64_t FatSectors(const Geometry& plan, std::uint64_t clusters) {
  const std::uint64_t bits = (clusters + 2) * static_cast<unsigned int>(plan.type);
  const std::uint64_t sectorBits = std::uint64_t{8} * plan.bytesPerSector;
  return bits / sectorBits + (bits % sectorBits != 0 ? 1 : 0);
}

std::uint64_t DistanceFromBounds(std::uint32_t clusters) {
  const long long n = clusters;
  return static_cast<std::uint64_t>(std::min(std::llabs(n - 4085), std::llabs(n - 65525)));
}

void ExpectConsistent(const Geometry& plan, const FormatOptions& options) {
  const std::uint64_t root = plan.rootEntries * 32ull;
  EXPECT_EQ(0u, root % plan.bytesPerSector);
  EXPECT_EQ(plan.reservedSectors + 2ull * plan.sectorsPerFat + root / plan.bytesPerSector, plan.firstDataSector);
  EXPECT_EQ((plan.totalSectors - plan.firstDataSector) / plan.sectorsPerCluster, plan.clusters);
  EXPECT_EQ(plan.bytesPerCluster, plan.sectorsPerCluster * plan.bytesPerSector);
  EXPECT_GE(DistanceFromBounds(plan.clusters), 16u) << plan.clusters;
  EXPECT_EQ(plan.clusters > 65525 ? FatType::Fat32 : plan.clusters > 4085 ? FatType::Fat16 : FatType::Fat12, plan.type);
  EXPECT_GE(plan.sectorsPerFat, FatSectors(plan, plan.clusters));
  EXPECT_LE(plan.reservedSectors, 0xFFFFu);
  if (options.alignment != 0) {
    EXPECT_EQ(0u, plan.firstDataSector * plan.bytesPerSector % options.alignment);
  }
}

// With a FAT one sector smaller there would be a cluster, or more, without an entry.
void ExpectSmallestFat(const Geometry& plan) {
  if (plan.sectorsPerFat == 1) return;
  const std::uint64_t clusters = (plan.totalSectors - plan.firstDataSector + 2) / plan.sectorsPerCluster;
  EXPECT_GT(FatSectors(plan, clusters), plan.sectorsPerFat - 1ull) << plan.totalSectors << " sectors";
}

TEST(FormatPlan, EverySizeIsConsistentAndHasTheSmallestFat) {
  for (const int bits : {12, 16, 32}) {
    const std::uint64_t most = bits == 12 ? 4200 : bits == 16 ? 66000 : 140000;
    const FormatOptions options = Options(bits, 512, 512);
    unsigned int planned = 0;
    for (std::uint64_t sectors = 1; sectors < most; ++sectors) {
      Geometry plan;
      if (PlanFormat(sectors * 512, options, &plan)) continue;
      ++planned;
      ExpectConsistent(plan, options);
      if (plan.reservedSectors == (bits == 32 ? 32u : 1u)) ExpectSmallestFat(plan);
      if (HasFailure()) return;
    }
    EXPECT_GT(planned, bits == 12 ? 4000u : 60000u) << bits;
  }
}

TEST(FormatPlan, EverySectorAndClusterSizeIsConsistent) {
  for (const std::uint32_t sector : {512u, 1024u, 2048u, 4096u}) {
    for (std::uint32_t cluster = sector; cluster <= 256 * KIB && cluster <= 128 * sector; cluster *= 2) {
      for (const int bits : {0, 12, 16, 32}) {
        for (const std::uint64_t size : {MIB, 16 * MIB + 512, 300 * MIB, 5 * GIB, 64 * GIB, 2048 * GIB - 512}) {
          for (const std::uint32_t alignment : {0u, 4096u, 1u << 20}) {
            FormatOptions options = Options(bits, sector, cluster);
            options.alignment = alignment;
            Geometry plan;
            if (!PlanFormat(size, options, &plan)) ExpectConsistent(plan, options);
          }
        }
      }
    }
  }
}

TEST(FormatPlan, AutomaticChoiceFitsEverySizeFrom20KiBOn) {
  for (std::uint64_t size = 20 * KIB; size < 2048 * GIB; size += size / 7 / 512 * 512) {
    ExpectConsistent(Plan(size), FormatOptions());
  }
}

// ---------------------------------------------------------------------------------------------- bounds

// 1 + 2 * 12 + 32 sectors stand in front of a FAT12 volume of 4070 or more clusters.
TEST(FormatPlan, CountAboveTheLastGoodOneIsLoweredByReservedSectors) {
  for (std::uint32_t clusters = 4070; clusters <= 4100; ++clusters) {
    const Geometry plan = Plan((57 + clusters) * 512ull, Options(12, 512, 512));
    EXPECT_EQ(4069u, plan.clusters);
    EXPECT_EQ(1 + clusters - 4069, plan.reservedSectors);
    EXPECT_EQ(12u, plan.sectorsPerFat);
  }
  EXPECT_EQ(4069u, Plan((57 + 4069) * 512ull, Options(12, 512, 512)).clusters);
  EXPECT_TRUE(IsRefused((59 + 4101) * 512ull, Options(12, 512, 512)));
}

TEST(FormatPlan, Fat16IsLoweredBelowTheBoundToFat32) {
  const std::uint64_t front = 1 + 2 * 256 + 32;
  for (std::uint32_t clusters = 65510; clusters <= 65530; clusters += 5) {
    EXPECT_EQ(65509u, Plan((front + clusters) * 512, Options(16, 512, 512)).clusters);
  }
  EXPECT_TRUE(IsRefused((front + 65600) * 512, Options(16, 512, 512)));
}

TEST(FormatPlan, TooFewClustersForTheTypeAreRefused) {
  const std::uint64_t front16 = 1 + 2 * 17 + 32;
  EXPECT_TRUE(IsRefused((front16 + 4100) * 512, Options(16, 512, 512)));
  EXPECT_EQ(4101u, Plan((front16 + 4101) * 512, Options(16, 512, 512)).clusters);
  const std::uint64_t front32 = 32 + 2 * 513;
  EXPECT_TRUE(IsRefused((front32 + 65540) * 512, Options(32, 512, 512)));
  EXPECT_EQ(65541u, Plan((front32 + 65541) * 512, Options(32, 512, 512)).clusters);
}

TEST(FormatPlan, TypeOfOwnChoiceGivesWayToTheClusterSize) {
  EXPECT_EQ(FatType::Fat32, Plan(64 * MIB, Options(0, 512, 512)).type);
  EXPECT_EQ(FatType::Fat16, Plan(512 * MIB, Options(0, 512, 65536)).type);
  EXPECT_EQ(FatType::Fat12, Plan(100 * MIB, Options(0, 512, 65536)).type);
}

// ---------------------------------------------------------------------------------------------- options

TEST(FormatPlan, AlignmentMovesTheFirstClusterByReservedSectors) {
  FormatOptions options = Options(32);
  options.alignment = 4 * MIB;
  const Geometry plan = Plan(GIB, options);
  EXPECT_EQ(8192u, plan.firstDataSector);
  EXPECT_EQ(8192u - 2 * plan.sectorsPerFat, plan.reservedSectors);
}

TEST(FormatPlan, RootEntriesAreRoundedUpToSectors) {
  FormatOptions options = Options(16);
  options.rootEntries = 1;
  EXPECT_EQ(16u, Plan(32 * MIB, options).rootEntries);
  options.rootEntries = 17;
  EXPECT_EQ(32u, Plan(32 * MIB, options).rootEntries);
  options.bytesPerSector = 4096;
  EXPECT_EQ(128u, Plan(64 * MIB, options).rootEntries);
}

TEST(FormatPlan, SizeIsRoundedDownToSectors) {
  EXPECT_EQ(2047u, Plan(MIB - 1).totalSectors);
  EXPECT_EQ(255u, Plan(MIB - 1, Options(12, 4096)).totalSectors);
}

TEST(FormatPlan, LabelIsMadeUpperCaseAndCutAtItsEnd) {
  FormatOptions options;
  options.label = u"My Disk 1  ";
  EXPECT_EQ("MY DISK 1", Plan(MIB, options).bootLabel);
  options.label = u"Gr\u00FC\u00DFe";
  EXPECT_EQ(
      "GR\x9A\xE1"
      "E",
      Plan(MIB, options).bootLabel);
  options.label = u"   ";
  EXPECT_EQ("", Plan(MIB, options).bootLabel);
}

TEST(FormatPlan, OptionsOutOfRangeAreRefused) {
  const auto refused = [](void (*change)(FormatOptions*)) {
    FormatOptions options;
    EXPECT_FALSE(IsRefused(40 * MIB, options));
    change(&options);
    return IsRefused(40 * MIB, options);
  };
  EXPECT_TRUE(refused([](FormatOptions* o) { o->bits = 8; }));
  EXPECT_TRUE(refused([](FormatOptions* o) { o->bits = -12; }));
  EXPECT_TRUE(refused([](FormatOptions* o) { o->bytesPerSector = 0; }));
  EXPECT_TRUE(refused([](FormatOptions* o) { o->bytesPerSector = 256; }));
  EXPECT_TRUE(refused([](FormatOptions* o) { o->bytesPerSector = 1000; }));
  EXPECT_TRUE(refused([](FormatOptions* o) { o->bytesPerSector = 8192; }));
  EXPECT_TRUE(refused([](FormatOptions* o) { o->bytesPerCluster = 256; }));
  EXPECT_TRUE(refused([](FormatOptions* o) { o->bytesPerCluster = 1536; }));
  EXPECT_TRUE(refused([](FormatOptions* o) { o->bytesPerCluster = 128 * 1024; }));
  EXPECT_TRUE(refused([](FormatOptions* o) {
    o->bytesPerSector = 4096;
    o->bytesPerCluster = 512 * 1024;
  }));
  EXPECT_TRUE(refused([](FormatOptions* o) { o->rootEntries = 65536; }));
  EXPECT_TRUE(refused([](FormatOptions* o) { o->rootEntries = 65535; }));  // 65536 in whole sectors
  EXPECT_TRUE(refused([](FormatOptions* o) { o->alignment = 100; }));
  EXPECT_TRUE(refused([](FormatOptions* o) { o->alignment = 36u << 20; }));  // more than 65535 reserved sectors
  EXPECT_TRUE(refused([](FormatOptions* o) { o->bytes = 40 * MIB + 1; }));
  EXPECT_TRUE(refused([](FormatOptions* o) { o->bytes = 511; }));
  EXPECT_TRUE(refused([](FormatOptions* o) { o->bits = 32, o->rootEntries = 512; }));
}

TEST(FormatPlan, LabelThatCannotBeStoredIsRefused) {
  for (const char16_t* label : {u"twelve chars", u"A/B", u"A.B", u" A", u"A\tB", u"\u0416", u"NO NAME", u"\xD800"}) {
    FormatOptions options;
    options.label = label;
    EXPECT_TRUE(IsRefused(MIB, options));
  }
}

TEST(FormatPlan, NothingFitsIntoTooFewSectors) {
  for (std::uint64_t bytes = 0; bytes < 34 * 512; bytes += 512) EXPECT_TRUE(IsRefused(bytes, FormatOptions())) << bytes;
}

}  // namespace
