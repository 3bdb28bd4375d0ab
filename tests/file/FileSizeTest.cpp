/// @file FileSizeTest.cpp
/// Size changes: what they do to the FAT, to the free-cluster bitmap, to the map of the object and to its directory
/// entry, in which order, and what is left when they fail on the way. The medium is checked after unmounting, byte by
/// byte.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>

#include "file/FileFixture.h"
#include "support/VolumeReader.h"

namespace {

using namespace filetest;

constexpr CImageBuilder::DIRECTORY ROOT = CImageBuilder::Root();

std::string Width(const ::testing::TestParamInfo<unsigned int>& bits) { return "Fat" + std::to_string(bits.param); }

class FileSize : public CFileFixture {
 protected:
  static std::uint32_t EndMark(const CImageBuilder& builder) {
    return builder.Geometry().FatBits == 12 ? 0xFFF : builder.Geometry().FatBits == 16 ? 0xFFFF : 0x0FFFFFFF;
  }
  unsigned int FreeClusters() { return Fs().Bitmap().FreeClusters(); }

  /// Unmounts and expects the FATs of the volume that was built, but for the entries given.
  void ExpectFat(const CImageBuilder& before, const std::map<std::uint32_t, std::uint32_t>& changed) {
    UnmountBuilt();
    CDiskImage image(before.Store().Size());
    image.WriteBytes(0, before.Store().ReadBytes(0, ToSize(before.DataOffset())));
    CImageBuilder changes(image);
    for (const auto& [cluster, value] : changed) changes.SetFatEntry(cluster, value);
    for (unsigned int copy = 0; copy < 2; ++copy) {
      EXPECT_EQ(Medium().Image().ReadBytes(before.FatOffset(copy), ToSize(before.FatBytes())),
                image.ReadBytes(before.FatOffset(copy), ToSize(before.FatBytes())))
          << "copy " << copy;
    }
  }
  RAW_ENTRY EntryOnMedium(const CImageBuilder& builder, CImageBuilder::DIRECTORY dir, unsigned int slot) {
    RAW_ENTRY entry;
    Medium().Image().Read(builder.SlotOffset(dir, slot), entry.data(), entry.size());
    return entry;
  }
  static RAW_ENTRY WithSize(RAW_ENTRY entry, std::uint32_t size) {
    for (unsigned int i = 0; i < 4; ++i) entry[28 + i] = static_cast<unsigned char>(size >> (8 * i));
    return entry;
  }
  static RAW_ENTRY WithCluster(RAW_ENTRY entry, std::uint32_t cluster) {
    entry[26] = static_cast<unsigned char>(cluster);
    entry[27] = static_cast<unsigned char>(cluster >> 8);
    entry[20] = static_cast<unsigned char>(cluster >> 16);
    entry[21] = static_cast<unsigned char>(cluster >> 24);
    return entry;
  }
  /// The object's numbers agree with one another.
  static void ExpectInStep(CFatFile& file) {
    EXPECT_EQ(file.AllocBytes(),
              static_cast<unsigned long long>(file.Runs()->Length()) * file.Volume()->BytesPerCluster());
    EXPECT_TRUE(file.Runs()->CheckMapping());
  }
  void ExpectHealthy(bool withLostClusters = false) {
    CVolumeReader reader(Medium().Image());
    EXPECT_EQ(reader.ProblemText(), "");
    if (!withLostClusters) {
      EXPECT_TRUE(reader.LostClusters().empty());
    }
  }
};

class FileSizeWidths : public FileSize, public ::testing::WithParamInterface<unsigned int> {};
INSTANTIATE_TEST_SUITE_P(Width, FileSizeWidths, ::testing::Values(12u, 16u, 32u), Width);

// ---------------------------------------------------------------- the same allocation

TEST_P(FileSizeWidths, SizeWithinTheLastCluster_ChangesTheSizeFieldOnly) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const unsigned int slot = builder.AddFile(ROOT, "F", Content(100, 1), {10});
  builder.AddFile(ROOT, "G", Content(100, 2), {11});
  const std::vector<RAW_ENTRY> entries = builder.Entries(ROOT);
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    Medium().ClearTrace();
    EXPECT_EQ(file->SetSize(200, nullptr, nullptr), 0);
    EXPECT_EQ(Medium().Transfers(), 0u);
    EXPECT_EQ(file->Size(), 200u);
    EXPECT_EQ(file->AllocBytes(), 512u);
  }
  ExpectFat(builder, {});
  std::vector<RAW_ENTRY> expected = entries;
  expected[slot] = WithSize(expected[slot], 200);
  EXPECT_EQ(CImageBuilder(Medium().Image()).Entries(ROOT), expected);
}

TEST_P(FileSizeWidths, SameSizeAgain_WritesNothing) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(ROOT, "F", Content(600, 1), {10, 11});
  builder.AddFile(ROOT, "EMPTY");
  builder.AddDir(ROOT, "D", {20, 21});
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    COpened empty(Fs(), "EMPTY");
    COpened dir(Fs(), "D");
    Medium().ClearTrace();
    EXPECT_EQ(file->SetSize(600, nullptr, nullptr), 0);
    EXPECT_EQ(empty->SetSize(0, nullptr, nullptr), 0);
    EXPECT_EQ(dir->SetSize(1024, nullptr, nullptr), 0);
    EXPECT_EQ(dir->SetSize(513, nullptr, nullptr), 0);  // a directory has no size to change
    EXPECT_EQ(dir->Size(), 0u);
  }
  UnmountBuilt();
  const long long data = static_cast<long long>(builder.RootOffset());
  for (const IO_RECORD& record : Medium().WriteTrace())
    EXPECT_LE(record.Offset + static_cast<long long>(record.Length), data) << record;
  CDiskImage expected = builder.Image();
  if (GetParam() != 32) {
    EXPECT_EQ(CDiskImage::Differences(Medium().Image(), expected), std::vector<std::uint64_t>());
  }
}

TEST_P(FileSizeWidths, SizeOnAClusterBoundary_BelongsToTheClusterBefore) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(ROOT, "F", Content(100, 1), {10});
  MountBuilt(builder);
  COpened file(Fs(), "F");
  const unsigned int free = FreeClusters();
  EXPECT_EQ(file->SetSize(512, nullptr, nullptr), 0);
  EXPECT_EQ(FreeClusters(), free);
  EXPECT_EQ(file->SetSize(513, nullptr, nullptr), 0);
  EXPECT_EQ(FreeClusters(), free - 1);
  EXPECT_EQ(file->AllocBytes(), 1024u);
  EXPECT_EQ(file->SetSize(512, nullptr, nullptr), 0);
  EXPECT_EQ(FreeClusters(), free);
  EXPECT_EQ(file->AllocBytes(), 512u);
}

// ---------------------------------------------------------------- growing

TEST_P(FileSizeWidths, EmptyFileGrows_EntryGetsTheFirstClusterAndTheChainIsEnded) {
  FAT_GEOMETRY geometry = SmallVolume(GetParam());
  if (GetParam() == 32) geometry.Clusters = 70000;
  CImageBuilder builder(geometry);
  const unsigned int slot = builder.AddFile(ROOT, "F");
  const RAW_ENTRY entry = builder.Entry(ROOT, slot);
  // On FAT32 the first free clusters have numbers of more than 16 bits.
  const std::uint32_t first = GetParam() == 32 ? 65600 : 50;
  builder.SetChain(Range(GetParam() == 32 ? 3 : 2, first - (GetParam() == 32 ? 3 : 2)));
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    const unsigned int free = FreeClusters();
    EXPECT_EQ(file->SetSize(1500, nullptr, nullptr), 0);
    EXPECT_EQ(file->FirstCluster(), first);
    EXPECT_EQ(file->Size(), 1500u);
    EXPECT_EQ(file->AllocBytes(), 1536u);
    EXPECT_EQ(Mapped(*file), Range(first, 3));
    EXPECT_EQ(FreeClusters(), free - 3);
    ExpectInStep(*file);
  }
  ExpectFat(builder, {{first, first + 1}, {first + 1, first + 2}, {first + 2, EndMark(builder)}});
  EXPECT_EQ(EntryOnMedium(builder, ROOT, slot), WithCluster(WithSize(entry, 1500), first));
}

TEST_P(FileSizeWidths, FileGrows_NewClustersAreLinkedBehindTheLastOne) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const std::uint32_t base = GetParam() == 32 ? 3 : 2;
  builder.AddFile(ROOT, "USED", Content(3 * 512, 7), {base, base + 1, base + 4});
  const unsigned int slot = builder.AddFile(ROOT, "F", Content(1000, 1), {base + 9, base + 2});
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    EXPECT_EQ(file->SetSize(1025, nullptr, nullptr), 0);  // one cluster: the hole at base + 3
    EXPECT_EQ(Mapped(*file), CLUSTERS({base + 9, base + 2, base + 3}));
    EXPECT_EQ(file->Runs()->NumberOfRuns(), 2u) << "contiguous runs merge";
    EXPECT_EQ(file->SetSize(7 * 512, nullptr, nullptr), 0);  // four clusters together
    EXPECT_EQ(Mapped(*file), CLUSTERS({base + 9, base + 2, base + 3}) + Range(base + 5, 4));
    ExpectInStep(*file);
  }
  ExpectFat(builder, {{base + 2, base + 3},
                      {base + 3, base + 5},
                      {base + 5, base + 6},
                      {base + 6, base + 7},
                      {base + 7, base + 8},
                      {base + 8, EndMark(builder)}});
  const RAW_ENTRY entry = builder.Entry(ROOT, slot);
  EXPECT_EQ(EntryOnMedium(builder, ROOT, slot), WithSize(entry, 7 * 512));
  ExpectHealthy();
}

TEST_P(FileSizeWidths, FileGrowsIntoHoles_TakesThemInAscendingOrder) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const std::uint32_t last = builder.Geometry().Clusters + 1;
  CLUSTERS used;
  CLUSTERS holes;
  for (std::uint32_t c = GetParam() == 32 ? 3 : 2; c <= last; ++c) (c % 50 < 2 && c > 40 ? holes : used).push_back(c);
  builder.AddFile(ROOT, "USED", Content(used.size() * 512, 7), used);
  builder.AddFile(ROOT, "F");
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    EXPECT_EQ(file->SetSize(9 * 512, nullptr, nullptr), 0);
    EXPECT_EQ(Mapped(*file), CLUSTERS(holes.begin(), holes.begin() + 9));
    EXPECT_EQ(file->SetSize(20 * 512, nullptr, nullptr), 0);
    EXPECT_EQ(Mapped(*file), CLUSTERS(holes.begin(), holes.begin() + 20));
    ExpectInStep(*file);
  }
  UnmountBuilt();
  ExpectHealthy();
}

TEST_P(FileSizeWidths, FileGrows_NewClustersKeepWhatTheMediumHolds) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const BYTES content = Content(1000, 1);
  builder.AddFile(ROOT, "F", content, {20, 21});
  for (std::uint32_t c = 2; c < 40; ++c) {
    if (c != 20 && c != 21 && !(c == 2 && GetParam() == 32)) builder.WriteClusters({c}, CImageBuilder::Pattern(512, c));
  }
  const BYTES slack = builder.Store().ReadBytes(builder.ClusterOffset(21) + 488, 24);
  MountBuilt(builder);
  COpened file(Fs(), "F");
  EvictAllBlocks();
  ASSERT_EQ(file->SetSize(2000, nullptr, nullptr), 0);
  const CLUSTERS chain = Mapped(*file);
  ASSERT_EQ(chain.size(), 4u);
  BYTES expected = content;
  expected.insert(expected.end(), slack.begin(), slack.end());
  for (const std::uint32_t c : {chain[2], chain[3]}) {
    const BYTES old = CImageBuilder::Pattern(512, c);
    expected.insert(expected.end(), old.begin(), old.end());
  }
  expected.resize(2000);
  EXPECT_EQ(ReadObject(*file, 2000), expected);
}

TEST_P(FileSizeWidths, FileGrowsInACachedBlock_NewBytesReadAsZeroUntilTheBlockIsDropped) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(ROOT, "F", Content(100, 1), {20});
  const BYTES slack = CImageBuilder::Pattern(412, 5);
  builder.Store().WriteBytes(builder.ClusterOffset(20) + 100, slack);
  MountBuilt(builder);
  COpened file(Fs(), "F");
  ASSERT_EQ(file->SetSize(300, nullptr, nullptr), 0);
  BYTES expected = Content(100, 1);
  expected.resize(300);
  EXPECT_EQ(ReadObject(*file, 300), expected);
  EvictAllBlocks();
  std::copy(slack.begin(), slack.begin() + 200, expected.begin() + 100);
  EXPECT_EQ(ReadObject(*file, 300), expected) << "the block was clean: the medium still holds the old bytes";
}

TEST_P(FileSizeWidths, GivenParentAndRecord_AreUsedInsteadOfThePath) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CImageBuilder::DIRECTORY dir = builder.AddDir(ROOT, "D");
  const unsigned int slot = builder.AddFile(dir, "A long name", Content(10, 1));
  MountBuilt(builder);
  {
    COpened parent(Fs(), "D");
    DENTCTX* record = parent.Dir()->LookupFile(CPath("A long name"));
    ASSERT_NE(record, nullptr);
    CFatFile* file = CFatFileSystem::CreateFileObj(&Fs(), record, false);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->SetSize(2000, parent.Dir(), record), 0);
    EXPECT_EQ(record->ShortEntry.FileSize.Load(), 2000u);
    EXPECT_EQ(parent->RefCount(), 2u);
    EXPECT_TRUE(file->Release());
  }
  UnmountBuilt();
  EXPECT_EQ(Medium().Image().Get32(builder.SlotOffset(dir, slot) + 28), 2000u);
  ExpectHealthy();
}

// ---------------------------------------------------------------- shrinking

TEST_P(FileSizeWidths, FileShrinksToZero_EveryClusterIsFreeAndTheEntryHasNone) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const unsigned int slot = builder.AddFile(ROOT, "F", Content(2500, 1), {30, 31, 12, 13, 40});
  const RAW_ENTRY entry = builder.Entry(ROOT, slot);
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    const unsigned int free = FreeClusters();
    EXPECT_EQ(file->SetSize(0, nullptr, nullptr), 0);
    EXPECT_EQ(file->FirstCluster(), 0u);
    EXPECT_EQ(file->Size(), 0u);
    EXPECT_EQ(file->AllocBytes(), 0u);
    EXPECT_EQ(file->Runs()->NumberOfRuns(), 0u);
    EXPECT_EQ(FreeClusters(), free + 5);
  }
  ExpectFat(builder, {{30, 0}, {31, 0}, {12, 0}, {13, 0}, {40, 0}});
  EXPECT_EQ(EntryOnMedium(builder, ROOT, slot), WithCluster(WithSize(entry, 0), 0));
  ExpectHealthy();
}

TEST_P(FileSizeWidths, FileOfTwoFragmentsShrinksIntoTheFirst_LosesTheLastAndIsEndedAnew) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const unsigned int slot = builder.AddFile(ROOT, "F", Content(7 * 512, 1), Range(50, 4) + Range(30, 3));
  const RAW_ENTRY entry = builder.Entry(ROOT, slot);
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    const unsigned int free = FreeClusters();
    EXPECT_EQ(file->SetSize(513, nullptr, nullptr), 0);
    EXPECT_EQ(Mapped(*file), Range(50, 2));
    EXPECT_EQ(file->FirstCluster(), 50u);
    EXPECT_EQ(FreeClusters(), free + 5);
    ExpectInStep(*file);
  }
  ExpectFat(builder, {{51, EndMark(builder)}, {52, 0}, {53, 0}, {30, 0}, {31, 0}, {32, 0}});
  EXPECT_EQ(EntryOnMedium(builder, ROOT, slot), WithSize(entry, 513));
  ExpectHealthy();
}

TEST_P(FileSizeWidths, FreedClusters_AreGivenOutAgainLowestFirst) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const std::uint32_t base = GetParam() == 32 ? 3 : 2;
  builder.AddFile(ROOT, "F", Content(4 * 512, 1), {base + 7, base + 5, base + 6, base});
  builder.AddFile(ROOT, "G", Content(10, 2), {base + 1});
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    COpened other(Fs(), "G");
    EXPECT_EQ(file->SetSize(512, nullptr, nullptr), 0);
    EXPECT_EQ(other->SetSize(1024, nullptr, nullptr), 0);
    EXPECT_EQ(Mapped(*other), CLUSTERS({base + 1, base}));
  }
  UnmountBuilt();
  ExpectHealthy();
}

TEST_P(FileSizeWidths, DirectoryShrinks_EntryStaysAsItIs) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CImageBuilder::DIRECTORY dir = builder.AddDir(ROOT, "D", {50, 51, 60});
  builder.AddFile(dir, "F");
  const unsigned int slot = builder.NextSlot(ROOT) - 1;
  const RAW_ENTRY entry = builder.Entry(ROOT, slot);
  MountBuilt(builder);
  {
    COpened opened(Fs(), "D");
    EXPECT_EQ(opened->SetSize(1, nullptr, nullptr), 0);
    EXPECT_EQ(Mapped(*opened), CLUSTERS({50}));
    EXPECT_EQ(opened->Limit(), 512);
    EXPECT_EQ(opened->Size(), 0u);
  }
  ExpectFat(builder, {{50, EndMark(builder)}, {51, 0}, {60, 0}});
  EXPECT_EQ(EntryOnMedium(builder, ROOT, slot), entry);
  ExpectHealthy();
}

// ---------------------------------------------------------------- directories grow

struct DIRECTORY_CASE {
  unsigned int FatBits, BytesPerSector, SectorsPerCluster;
};

class FileSizeDirectories : public FileSize, public ::testing::WithParamInterface<DIRECTORY_CASE> {
 protected:
  CImageBuilder Volume() {
    FAT_GEOMETRY geometry = SmallVolume(GetParam().FatBits);
    geometry.BytesPerSector = GetParam().BytesPerSector;
    geometry.SectorsPerCluster = GetParam().SectorsPerCluster;
    return CImageBuilder(geometry);
  }
};

std::string Geometry(const ::testing::TestParamInfo<DIRECTORY_CASE>& geometry) {
  return "Fat" + std::to_string(geometry.param.FatBits) + "Sector" + std::to_string(geometry.param.BytesPerSector) +
         "Times" + std::to_string(geometry.param.SectorsPerCluster);
}

constexpr DIRECTORY_CASE SMALL_CLUSTERS[] = {{12, 128, 1}, {16, 128, 1},  {32, 128, 1}, {16, 128, 2},
                                             {12, 256, 1}, {12, 512, 1},  {16, 512, 1}, {32, 512, 1},
                                             {12, 512, 8}, {16, 4096, 1}, {32, 512, 8}};
constexpr DIRECTORY_CASE LARGE_CLUSTERS[] = {{12, 512, 128}, {16, 512, 128}, {32, 4096, 16}};

/// Directories that can be filled in a moment.
class FileSizeFilledDirectories : public FileSizeDirectories {};

INSTANTIATE_TEST_SUITE_P(SmallClusters, FileSizeDirectories, ::testing::ValuesIn(SMALL_CLUSTERS), Geometry);
INSTANTIATE_TEST_SUITE_P(LargeClusters, FileSizeDirectories, ::testing::ValuesIn(LARGE_CLUSTERS), Geometry);
INSTANTIATE_TEST_SUITE_P(SmallClusters, FileSizeFilledDirectories, ::testing::ValuesIn(SMALL_CLUSTERS), Geometry);

TEST_P(FileSizeDirectories, NewClusters_ReadAsZerosAndTheEntryCacheHasTheirSlots) {
  CImageBuilder builder = Volume();
  const unsigned int unit = builder.ClusterBytes();
  const CImageBuilder::DIRECTORY dir = builder.AddDir(ROOT, "D", {20});
  builder.AddFile(dir, "F");
  const unsigned int slot = builder.NextSlot(ROOT) - 1;
  const RAW_ENTRY entry = builder.Entry(ROOT, slot);
  const BYTES first = builder.Cluster(20);
  for (std::uint32_t c = 3; c < 40; ++c) {
    if (c != 20) builder.WriteClusters({c}, BYTES(unit, 0xE7));
  }
  MountBuilt(builder);
  CLUSTERS chain;
  {
    COpened opened(Fs(), "D");
    ASSERT_EQ(opened.Status, 0);
    unsigned int clusters = 1;
    for (const unsigned int more : {1u, 3u, 5u}) {
      const unsigned int free = FreeClusters();
      if (more == 5) EvictAllBlocks();  // so that the old bytes are loaded before they are cleared
      EXPECT_EQ(opened->SetSize(clusters * unit + (more - 1) * unit + 1, nullptr, nullptr), 0);
      clusters += more;
      EXPECT_EQ(FreeClusters(), free - more);
      EXPECT_EQ(opened->AllocBytes(), clusters * unit);
      EXPECT_EQ(opened->DirEntCache()->Slots(), clusters * unit / 32);
      EXPECT_EQ(opened->Size(), 0u);
      BYTES expected = first;
      expected.resize(clusters * unit);
      EXPECT_EQ(ReadObject(*opened, clusters * unit), expected);
      EvictAllBlocks();
      EXPECT_EQ(ReadObject(*opened, clusters * unit), expected) << "from the medium";
    }
    chain = Mapped(*opened);
    EXPECT_NE(opened.Dir()->LookupFile(CPath("F")), nullptr);
  }
  UnmountBuilt();
  ASSERT_EQ(chain.size(), 10u);
  for (std::size_t i = 1; i < chain.size(); ++i)
    EXPECT_EQ(Medium().Image().ReadBytes(builder.ClusterOffset(chain[i]), unit), BYTES(unit)) << i;
  EXPECT_EQ(EntryOnMedium(builder, ROOT, slot), entry);
  ExpectHealthy();
}

TEST_P(FileSizeFilledDirectories, DirectoryFilledEntryByEntry_GrowsAsNeeded) {
  CImageBuilder builder = Volume();
  const unsigned int unit = builder.ClusterBytes();
  builder.AddDir(ROOT, "D", {20});
  for (std::uint32_t c = 3; c < 40; ++c) {
    if (c != 20) builder.WriteClusters({c}, BYTES(unit, 0x41));
  }
  MountBuilt(builder);
  const unsigned int files = 3 * unit / 32;
  for (unsigned int i = 0; i < files; ++i) {
    CFatFile* file = nullptr;
    ASSERT_EQ(Fs().CreateFile(CPath("D\\F" + std::to_string(i)), 0, 0, &file), 0) << i;
    (void)file->Close();
  }
  UnmountBuilt();
  ExpectHealthy();
  CVolumeReader reader(Medium().Image());
  EXPECT_EQ(reader.Tree().size(), files + 1);
  EXPECT_EQ(reader.Find("D")->Clusters.size(), (files + 2) * 32 / unit + 1);
}

TEST_F(FileSize, DirectoryWithoutACluster_GetsItsFirstOne) {
  CImageBuilder builder(SmallVolume(16));
  const CImageBuilder::DIRECTORY dir = builder.AddDir(ROOT, "D", {20});
  builder.AddFile(dir, "F");
  for (std::uint32_t c = 2; c < 10; ++c) builder.WriteClusters({c}, BYTES(512, 0xE7));
  const unsigned int slot = builder.NextSlot(ROOT) - 1;
  const RAW_ENTRY entry = builder.Entry(ROOT, slot);
  MountBuilt(builder);
  {
    COpened opened(Fs(), "D");
    EXPECT_EQ(opened->SetSize(0, nullptr, nullptr), 0);
    EXPECT_EQ(opened->FirstCluster(), 0u);
    EXPECT_EQ(opened->SetSize(512, nullptr, nullptr), 0);
    EXPECT_EQ(opened->FirstCluster(), 2u);
  }
  ExpectFat(builder, {{20, 0}, {2, 0xFFFF}});
  EXPECT_EQ(EntryOnMedium(builder, ROOT, slot), WithCluster(entry, 2));
  EXPECT_EQ(Medium().Image().ReadBytes(builder.ClusterOffset(2), 512), BYTES(512));
}

TEST_F(FileSize, RootDirectoryOfFat32Grows_WithoutAnEntryToUpdate) {
  CImageBuilder builder(SmallVolume(32));
  for (std::uint32_t c = 3; c < 10; ++c) builder.WriteClusters({c}, BYTES(512, 0xE7));
  MountBuilt(builder);
  EXPECT_EQ(Fs().Root()->SetSize(1024, nullptr, nullptr), 0);
  EXPECT_EQ(Fs().Root()->DirEntCache()->Slots(), 32u);
  ExpectFat(builder, {{2, 3}, {3, 0x0FFFFFFF}});
  EXPECT_EQ(Medium().Image().ReadBytes(builder.ClusterOffset(3), 512), BYTES(512));
}

// Nothing calls for it: the slots of the fixed root are what they are. It must not lose its area over a try all the
// same.
TEST_F(FileSize, FixedRootThatCannotGrow_KeepsItsArea) {
  CImageBuilder builder(SmallVolume(12));
  builder.AddFile(ROOT, "F", Content(100, 1));
  MountBuilt(builder);
  EXPECT_EQ(Fs().Root()->SetSize(0x10000000, nullptr, nullptr), DISK_FULL);
  EXPECT_EQ(Fs().Root()->AllocBytes(), 512u * 32);
  COpened file(Fs(), "F");
  EXPECT_EQ(file->SetSize(50, nullptr, nullptr), 0);
}

TEST_P(FileSizeWidths, EntryWithTheMarkOfTheFixedRoot_ChangesItsSizeWithoutHarm) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(ROOT, "KEEP", Content(3000, 2), Range(20, 6));
  ENTRY_OPTIONS options;
  options.SetSize = options.SetFirstCluster = true;
  options.FirstCluster = 0xFFFFFFFF;
  for (const std::uint32_t size : {0u, 1000u, 0xFFFFFFFFu}) {
    options.Size = size;
    builder.AddFile(ROOT, "F" + std::to_string(size), {}, {}, options);
  }
  MountBuilt(builder);
  const unsigned int free = FreeClusters();
  for (const std::string name : {"F0", "F1000", "F4294967295"}) {
    COpened file(Fs(), name);
    ASSERT_EQ(file.Status, 0) << name;
    for (const unsigned int size : {600u, 1024u, 5000u, 1u, 0x10000000u, 0u, 700u, 0u}) {
      if (file->SetSize(size, nullptr, nullptr) >= 0) ExpectInStep(*file);
      EXPECT_TRUE(file->Runs()->CheckMapping());
    }
    EXPECT_EQ(file->FirstCluster(), 0u) << name;
    EXPECT_EQ(file->AllocBytes(), 0u) << name;
  }
  EXPECT_EQ(FreeClusters(), free);
  {
    COpened keep(Fs(), "KEEP");
    EXPECT_EQ(ReadObject(*keep, 3000), Content(3000, 2));
  }
  ExpectFat(builder, {});
}

TEST_F(FileSize, ZeroDataAligned_WritesWholePiecesOf512Bytes) {
  CImageBuilder builder(SmallVolume(16));
  const BYTES content = Content(3000, 1);
  builder.AddFile(ROOT, "F", content);
  MountBuilt(builder);
  COpened file(Fs(), "F");
  EXPECT_EQ(file->ZeroDataAligned(512, 1300), 0);
  BYTES expected = content;
  std::fill(expected.begin() + 512, expected.begin() + 1536, static_cast<unsigned char>(0));
  EXPECT_EQ(ReadObject(*file, 3000), expected);
  EXPECT_EQ(file->ZeroDataAligned(0, 511), 0);
  EXPECT_EQ(ReadObject(*file, 3000), expected);
  EXPECT_EQ(file->ZeroDataAligned(2560, 1024), END_OF_FILE) << "the second piece starts behind the end";
  std::fill(expected.begin() + 2560, expected.end(), static_cast<unsigned char>(0));
  EXPECT_EQ(ReadObject(*file, 3000), expected);
  EvictAllBlocks();
  Medium().FailAt(1, FAULT_ONCE);
  EXPECT_EQ(file->ZeroDataAligned(0, 1024), IO_ERROR);
  EXPECT_EQ(ReadObject(*file, 3000), expected);
}

// ---------------------------------------------------------------- limits

TEST_F(FileSize, SizeOf2To32LessOneCluster_IsTheLargest) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 32;
  geometry.SectorsPerCluster = 64;
  geometry.Clusters = 132000;
  CImageBuilder builder(geometry);
  const unsigned int slot = builder.AddFile(ROOT, "F", Content(10, 1), {100});
  const RAW_ENTRY entry = builder.Entry(ROOT, slot);
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    const unsigned int free = FreeClusters();
    for (const unsigned int size : {0xFFFF8001u, 0xFFFFFFFFu}) {
      Medium().ClearTrace();
      EXPECT_EQ(file->SetSize(size, nullptr, nullptr), INVALID_PARAMETER);
      EXPECT_EQ(Medium().Transfers(), 0u);
      EXPECT_EQ(file->Size(), 10u);
      EXPECT_EQ(file->AllocBytes(), 32768u);
      EXPECT_EQ(FreeClusters(), free);
    }
    EXPECT_EQ(file->SetSize(0xFFFF8000u, nullptr, nullptr), 0);
    EXPECT_EQ(file->Size(), 0xFFFF8000u);
    EXPECT_EQ(file->AllocBytes(), 0xFFFF8000u);
    EXPECT_EQ(FreeClusters(), free - 131070);
    ExpectInStep(*file);
    EXPECT_EQ(WriteAt(*file, 0xFFFF7FFFLL, {0x5A, 0x5B}), 0);
    EXPECT_EQ(file->SetSize(0xFFFF8001u, nullptr, nullptr), INVALID_PARAMETER);
  }
  UnmountBuilt();
  EXPECT_EQ(EntryOnMedium(builder, ROOT, slot), WithSize(entry, 0xFFFF8000u));
  const CLUSTERS chain = CImageBuilder(Medium().Image()).Chain(100);
  ASSERT_EQ(chain.size(), 131071u);
  EXPECT_EQ(Medium().Image().Get8(builder.ClusterOffset(chain.back()) + 32767), 0x5A);
}

TEST_F(FileSize, LimitAppliesToDirectoriesToo) {
  CImageBuilder builder(SmallVolume(12));
  builder.AddDir(ROOT, "D", {20});
  MountBuilt(builder);
  COpened dir(Fs(), "D");
  EXPECT_EQ(dir->SetSize(0xFFFFFE01u, nullptr, nullptr), INVALID_PARAMETER);
  EXPECT_EQ(dir->SetSize(0xFFFFFE00u, nullptr, nullptr), DISK_FULL);
  EXPECT_EQ(dir->AllocBytes(), 512u);
}

TEST_F(FileSize, FileWith4GiBAllocated_CountsAsEmptyForTheChange) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 32;
  geometry.SectorsPerCluster = 64;
  geometry.Clusters = 132000;
  CImageBuilder builder(geometry);
  ENTRY_OPTIONS options;
  options.SetSize = options.SetFirstCluster = true;
  options.Size = 0xFFFFFFFF;
  options.FirstCluster = 100;
  const unsigned int slot = builder.AddFile(ROOT, "HUGE", {}, {}, options);
  builder.SetChain(Range(100, 131072));
  const RAW_ENTRY entry = builder.Entry(ROOT, slot);
  MountBuilt(builder);
  {
    COpened file(Fs(), "HUGE");
    ASSERT_EQ(file.Status, 0);
    const unsigned int free = FreeClusters();
    EXPECT_EQ(file->SetSize(0, nullptr, nullptr), 0);
    EXPECT_EQ(file->Size(), 0u);
    EXPECT_EQ(file->FirstCluster(), 100u) << "the chain stays";
    EXPECT_EQ(FreeClusters(), free);
    EXPECT_EQ(file->SetSize(1, nullptr, nullptr), 0);
    EXPECT_EQ(FreeClusters(), free - 1) << "it is made longer";
    BYTES buffer(1);
    unsigned int done;
    EXPECT_EQ(file->Read(0, 1, buffer.data(), &done), 0);
  }
  UnmountBuilt();
  EXPECT_EQ(EntryOnMedium(builder, ROOT, slot), WithSize(entry, 1));
  EXPECT_EQ(CImageBuilder(Medium().Image()).Chain(100).size(), 131073u);
}

// ---------------------------------------------------------------- the disk is full

class FileSizeFull : public FileSize, public ::testing::WithParamInterface<unsigned int> {
 protected:
  static constexpr unsigned int FREE = 5;

  /// A volume on which only the last five clusters are free; "F" has three clusters, the directory "D" one.
  CImageBuilder FullVolume() {
    CImageBuilder builder(SmallVolume(GetParam()));
    m_nFileSlot = builder.AddFile(ROOT, "F", Content(1200, 1), {20, 21, 30});
    const CImageBuilder::DIRECTORY dir = builder.AddDir(ROOT, "D", {40});
    builder.AddFile(dir, "INSIDE", Content(5, 9), {41});
    m_nEnd = builder.Geometry().Clusters + 2;
    CLUSTERS rest;
    for (std::uint32_t c = 2; c < m_nEnd - FREE; ++c) {
      if (builder.FatEntry(c) == 0) rest.push_back(c);
    }
    ENTRY_OPTIONS options;
    options.SetSize = true;
    options.Size = static_cast<std::uint32_t>(rest.size() * 512);
    builder.AddFile(ROOT, "REST", {}, rest, options);
    return builder;
  }
  std::uint32_t m_nEnd = 0;
  unsigned int m_nFileSlot = 0;
};
INSTANTIATE_TEST_SUITE_P(Width, FileSizeFull, ::testing::Values(12u, 16u, 32u), Width);

TEST_P(FileSizeFull, OneClusterTooMany_FailsAndChangesNothing) {
  CImageBuilder builder = FullVolume();
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    ASSERT_EQ(FreeClusters(), FREE);
    for (unsigned int i = 0; i < 3; ++i) {  // asked again, the same size fails again
      EXPECT_EQ(file->SetSize(9 * 512, nullptr, nullptr), DISK_FULL);
      EXPECT_EQ(file->AllocBytes(), 3u * 512);
      EXPECT_EQ(file->Size(), 1200u);
      EXPECT_EQ(FreeClusters(), FREE);
      ExpectInStep(*file);
    }
  }
  ExpectFat(builder, {});
  EXPECT_EQ(EntryOnMedium(builder, ROOT, m_nFileSlot), builder.Entry(ROOT, m_nFileSlot));
}

TEST_P(FileSizeFull, AllThatIsLeft_IsGivenOut) {
  CImageBuilder builder = FullVolume();
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    EXPECT_EQ(file->SetSize(8 * 512, nullptr, nullptr), 0);
    EXPECT_EQ(FreeClusters(), 0u);
    EXPECT_EQ(file->SetSize(8 * 512 + 1, nullptr, nullptr), DISK_FULL);
    EXPECT_EQ(Mapped(*file), CLUSTERS({20, 21, 30}) + Range(m_nEnd - 5, 5));
  }
  UnmountBuilt();
  ExpectHealthy();
}

TEST_P(FileSizeFull, ShrinkAfterAFailedGrowth_FreesWhatWasCutOnly) {
  CImageBuilder builder = FullVolume();
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    EXPECT_EQ(file->SetSize(1000 * 512, nullptr, nullptr), DISK_FULL);
    EXPECT_EQ(file->SetSize(600, nullptr, nullptr), 0);
    EXPECT_EQ(Mapped(*file), CLUSTERS({20, 21}));
    EXPECT_EQ(FreeClusters(), FREE + 1);
    EXPECT_EQ(file->SetSize(1000 * 512, nullptr, nullptr), DISK_FULL);
    EXPECT_EQ(file->SetSize(3 * 512, nullptr, nullptr), 0);
    EXPECT_EQ(Mapped(*file), CLUSTERS({20, 21, 30}));
  }
  ExpectFat(builder, {});
  ExpectHealthy();
}

TEST_P(FileSizeFull, EmptyFileThatCannotGrow_StaysWithoutACluster) {
  CImageBuilder builder = FullVolume();
  const unsigned int slot = builder.AddFile(ROOT, "EMPTY");
  MountBuilt(builder);
  {
    COpened file(Fs(), "EMPTY");
    EXPECT_EQ(file->SetSize(6 * 512, nullptr, nullptr), DISK_FULL);
    EXPECT_EQ(file->FirstCluster(), 0u);
    EXPECT_EQ(file->AllocBytes(), 0u);
    EXPECT_EQ(file->SetSize(0, nullptr, nullptr), 0);
    EXPECT_EQ(file->SetSize(1, nullptr, nullptr), 0);
    EXPECT_EQ(file->FirstCluster(), m_nEnd - 5);
  }
  UnmountBuilt();
  ExpectHealthy();
  EXPECT_EQ(EntryOnMedium(builder, ROOT, slot), WithCluster(WithSize(builder.Entry(ROOT, slot), 1), m_nEnd - 5));
}

TEST_P(FileSizeFull, DirectoryThatCannotGrow_KeepsTheLimitOfItsChain) {
  CImageBuilder builder = FullVolume();
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    ASSERT_EQ(file->SetSize(8 * 512, nullptr, nullptr), 0);  // now nothing is free
    COpened dir(Fs(), "D");
    CFatFile* created = nullptr;
    for (unsigned int i = 0; i < 13; ++i) {  // fills the directory's sixteen slots
      ASSERT_EQ(Fs().CreateFile(CPath("D\\N" + std::to_string(i)), 0, 0, &created), 0);
      (void)created->Close();
    }
    for (unsigned int i = 0; i < 3; ++i) {
      EXPECT_EQ(Fs().CreateFile(CPath("D\\MORE"), 0, 0, &created), DISK_FULL);
      EXPECT_EQ(dir->Limit(), 512);
      EXPECT_EQ(dir->DirEntCache()->Slots(), 16u);
      ExpectInStep(*dir);
      EvictAllBlocks();
    }
    EXPECT_NE(dir.Dir()->LookupFile(CPath("N12")), nullptr);
    EXPECT_EQ(dir.Dir()->LookupFile(CPath("MORE")), nullptr);
    BYTES buffer(32);
    unsigned int done;
    EXPECT_EQ(dir->Read(480, 32, buffer.data(), &done), 0);
    EXPECT_EQ(dir->Read(512, 32, buffer.data(), &done), END_OF_FILE);
  }
  UnmountBuilt();
  ExpectHealthy();
}

TEST_P(FileSizeFull, DirectoryShrunkAndUnableToGrow_IsStillSafeToUse) {
  CImageBuilder builder = FullVolume();
  MountBuilt(builder);
  {
    COpened dir(Fs(), "D");
    ASSERT_EQ(dir->SetSize(2 * 512, nullptr, nullptr), 0);
    CFatFile* created = nullptr;
    for (unsigned int i = 0; i < 20; ++i) {
      ASSERT_EQ(Fs().CreateFile(CPath("D\\N" + std::to_string(i)), 0, 0, &created), 0);
      (void)created->Close();
    }
    ASSERT_EQ(dir->SetSize(512, nullptr, nullptr), 0);
    COpened file(Fs(), "F");
    ASSERT_EQ(file->SetSize(8 * 512, nullptr, nullptr), 0);
    ASSERT_EQ(FreeClusters(), 0u);
    EXPECT_EQ(dir->SetSize(2 * 512, nullptr, nullptr), DISK_FULL);
    EXPECT_LT(Fs().CreateFile(CPath("D\\MORE"), 0, 0, &created), 0);
    EXPECT_LT(Fs().DeleteFile(CPath("D\\N19")), 0) << "its slot is no longer there";
    EXPECT_EQ(Fs().DeleteFile(CPath("D\\N0")), 0);
    ExpectInStep(*dir);
  }
  UnmountBuilt();
  CVolumeReader reader(Medium().Image());
  EXPECT_NE(reader.Find("D\\INSIDE"), nullptr);
}

// ---------------------------------------------------------------- dirty blocks beyond the new end

class FileSizeDirty : public FileSize, public ::testing::WithParamInterface<unsigned int> {
 protected:
  /// "F" has four and a half blocks in clusters of 4096 bytes, all dirty; "G" is another file.
  void MountDirty(std::uint32_t size) {
    FAT_GEOMETRY geometry = SmallVolume(GetParam());
    geometry.SectorsPerCluster = 8;
    m_pBuilder = std::make_unique<CImageBuilder>(geometry);
    m_pBuilder->AddFile(ROOT, "F", Content(9 * BLOCK / 2, 1), Range(20, 40) + Range(70, 248));
    m_pBuilder->AddFile(ROOT, "G", Content(5000, 2), {400, 401});
    MountBuilt(*m_pBuilder);
    COpened file(Fs(), "F");
    ASSERT_EQ(WriteAt(*file, 0, BYTES(9 * BLOCK / 2, 0xDA)), 0);
    Medium().ClearTrace();
    ASSERT_EQ(file->SetSize(size, nullptr, nullptr), 0);
  }
  /// Nothing of F was written to a cluster that it gave back, and all of what it kept.
  void ExpectKept(std::uint32_t size) {
    const CLUSTERS chain = Range(20, 40) + Range(70, 248);
    for (std::size_t i = 0; i < chain.size(); ++i) {
      const std::size_t from = i * 4096;
      const std::size_t kept = size <= from ? 0 : std::min<std::size_t>(4096, size - from);
      BYTES expected = m_pBuilder->Cluster(chain[i]);
      std::fill(expected.begin(), At(expected, kept), static_cast<unsigned char>(0xDA));
      ASSERT_EQ(Medium().Image().ReadBytes(m_pBuilder->ClusterOffset(chain[i]), 4096), expected)
          << "cluster " << chain[i];
    }
  }
  std::unique_ptr<CImageBuilder> m_pBuilder;
};
INSTANTIATE_TEST_SUITE_P(Width, FileSizeDirty, ::testing::Values(12u, 16u, 32u), Width);

constexpr std::uint32_t SHRUNK_SIZES[] = {0, 1, 10, 4096, 5000, BLOCK - 1, BLOCK, BLOCK + 1, 3 * BLOCK, 4 * BLOCK + 7};

TEST_P(FileSizeDirty, Unmounted_KeepsWhatIsBelowTheNewEnd) {
  for (const std::uint32_t size : SHRUNK_SIZES) {
    SCOPED_TRACE(::testing::Message() << "size " << size);
    MountDirty(size);
    UnmountBuilt();
    ExpectKept(size);
    ExpectHealthy();
    EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), 0u);
  }
}

TEST_P(FileSizeDirty, Evicted_DisturbsNoOtherFile) {
  for (const std::uint32_t size : SHRUNK_SIZES) {
    SCOPED_TRACE(::testing::Message() << "size " << size);
    MountDirty(size);
    EvictAllBlocks();
    {
      COpened other(Fs(), "G");
      EXPECT_EQ(ReadObject(*other, 5000), Content(5000, 2));
      COpened file(Fs(), "F");
      EXPECT_EQ(ReadObject(*file, size), BYTES(size, 0xDA));
    }
    EvictAllBlocks();
    EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), 256u) << "no block was lost";
    UnmountBuilt();
    ExpectKept(size);
    ExpectHealthy();
  }
}

TEST_P(FileSizeDirty, Deleted_LeavesNoBlockBehind) {
  for (const std::uint32_t size : SHRUNK_SIZES) {
    SCOPED_TRACE(::testing::Message() << "size " << size);
    MountDirty(size);
    const unsigned int free = FreeClusters();
    EXPECT_EQ(Fs().DeleteFile(CPath("F")), 0);
    EXPECT_EQ(FreeClusters(), free + (size + 4095) / 4096);
    EvictAllBlocks();
    {
      COpened other(Fs(), "G");
      EXPECT_EQ(ReadObject(*other, 5000), Content(5000, 2));
    }
    UnmountBuilt();
    ExpectHealthy();
    EXPECT_EQ(CVolumeReader(Medium().Image()).Find("F"), nullptr);
  }
}

TEST_P(FileSizeDirty, GrownAgain_BlocksStillCachedComeBack) {
  MountDirty(10);
  {
    COpened file(Fs(), "F");
    ASSERT_EQ(file->SetSize(3 * BLOCK, nullptr, nullptr), 0);
    EXPECT_EQ(ReadObject(*file, 3 * BLOCK), BYTES(3 * BLOCK, 0xDA)) << "blocks are not cut when the size changes";
  }
  UnmountBuilt();
  ExpectHealthy();
  CVolumeReader reader(Medium().Image());
  EXPECT_EQ(reader.Content(*reader.Find("F")), BYTES(3 * BLOCK, 0xDA));
}

TEST_F(FileSize, DirtyDirectoryShrunkToNothing_IsReleasedWithoutAWrite) {
  CImageBuilder builder(SmallVolume(16));
  builder.AddDir(ROOT, "D", {20, 21});
  builder.AddFile(ROOT, "G", Content(5000, 2));
  MountBuilt(builder);
  {
    COpened dir(Fs(), "D");
    CFatFile* created = nullptr;
    ASSERT_EQ(Fs().CreateFile(CPath("D\\F"), 0, 0, &created), 0);
    (void)created->Close();
    ASSERT_EQ(dir->SetSize(0, nullptr, nullptr), 0);
  }
  EvictAllBlocks();
  EvictAllBlocks();
  {
    COpened other(Fs(), "G");
    EXPECT_EQ(ReadObject(*other, 5000), Content(5000, 2));
  }
  UnmountBuilt();
  EXPECT_EQ(Medium().Image().ReadBytes(builder.ClusterOffset(20), 1024),
            builder.Store().ReadBytes(builder.ClusterOffset(20), 1024));
}

// ---------------------------------------------------------------- the order of the writes

/// A FAT32 volume whose FAT takes five cache blocks, so that a change of four of them is written at once. Nothing is
/// free but a cluster in each block.
class FileSizeOrder : public FileSize {
 protected:
  static constexpr std::uint32_t IN_BLOCK[] = {1000, 70000, 140000, 200000, 300000};

  CImageBuilder FullVolume() {
    FAT_GEOMETRY geometry;
    geometry.FatBits = 32;
    geometry.Clusters = 5 * 65536;
    CImageBuilder builder(geometry);
    for (unsigned int copy = 0; copy < 2; ++copy)
      builder.Store().Fill(builder.FatOffset(copy) + 3 * 4, builder.FatBytes() - 3 * 4, 0xFF);
    return builder;
  }
  static IO_RECORD FatWrite(const CImageBuilder& builder, unsigned int block) {
    return {IO_KIND::WriteSectors, static_cast<long long>(builder.FatOffset(0) + block * BLOCK), BLOCK, 0};
  }
  static IO_RECORD Read(const CImageBuilder& builder, std::uint32_t cluster, unsigned int len, bool aligned = false) {
    return {aligned ? IO_KIND::ReadBytesAligned : IO_KIND::ReadBytes,
            static_cast<long long>(builder.ClusterOffset(cluster)), len, 0};
  }
  static IO_RECORD Write(const CImageBuilder& builder, std::uint32_t cluster, unsigned int len, bool aligned = false) {
    return {aligned ? IO_KIND::WriteBytesAligned : IO_KIND::WriteBytes,
            static_cast<long long>(builder.ClusterOffset(cluster)), len, 0};
  }
};
constexpr std::uint32_t FileSizeOrder::IN_BLOCK[];

TEST_F(FileSizeOrder, DirectoryGrows_FatThenZerosThenEntry) {
  CImageBuilder builder = FullVolume();
  builder.AddDir(ROOT, "D", {10});
  for (const std::uint32_t c : {70000u, 140000u, 200000u}) {
    builder.SetFatEntry(c, 0);
    builder.WriteClusters({c}, BYTES(512, 0xE7));
  }
  MountBuilt(builder);
  COpened dir(Fs(), "D");
  EvictAllBlocks();
  Medium().ClearTrace();
  ASSERT_EQ(dir->SetSize(4 * 512, nullptr, nullptr), 0);
  // Linking reaches the blocks in the order 0, 1, 2, 3; they are written from the last one back.
  EXPECT_EQ(Medium().Trace(),
            TRACE({FatWrite(builder, 3), FatWrite(builder, 2), FatWrite(builder, 1), FatWrite(builder, 0),
                   Read(builder, 10, 512, true), Read(builder, 70000, 512, true), Read(builder, 140000, 512, true),
                   Read(builder, 200000, 512), Read(builder, 2, 512)}));
  CImageBuilder after(Medium().Image());
  EXPECT_EQ(after.Chain(10), CLUSTERS({10, 70000, 140000, 200000}));

  Medium().ClearTrace();
  EvictAllBlocks();
  EXPECT_EQ(Medium().Trace(),
            TRACE({Write(builder, 10, 512, true), Write(builder, 70000, 512, true), Write(builder, 140000, 512, true),
                   Write(builder, 200000, 512), Write(builder, 2, 512)}));
}

TEST_F(FileSizeOrder, FileGrows_FatThenEntryAndNothingIsCleared) {
  CImageBuilder builder = FullVolume();
  const CImageBuilder::DIRECTORY dir = builder.AddDir(ROOT, "D", {10});
  builder.AddFile(dir, "F", Content(512, 1), {1000});
  for (const std::uint32_t c : {70000u, 140000u, 200000u}) builder.SetFatEntry(c, 0);
  MountBuilt(builder);
  COpened file(Fs(), "D\\F");
  EvictAllBlocks();
  Medium().ClearTrace();
  ASSERT_EQ(file->SetSize(4 * 512, nullptr, nullptr), 0);
  EXPECT_EQ(Medium().Trace(), TRACE({FatWrite(builder, 3), FatWrite(builder, 2), FatWrite(builder, 1),
                                     FatWrite(builder, 0), Read(builder, 10, 512)}));
}

// The entry is left as it was, but the chain is longer, and what was not cleared is read as entries by the next mount.
TEST_F(FileSizeOrder, ClearingFails_DirectoryKeepsItsNewClustersAndTheStatusIsReturned) {
  CImageBuilder builder = FullVolume();
  const CImageBuilder::DIRECTORY dir = builder.AddDir(ROOT, "D", {10});
  builder.AddFile(dir, "F");
  builder.SetFatEntry(70000, 0);
  MountBuilt(builder);
  {
    COpened opened(Fs(), "D");
    EvictAllBlocks();
    Medium().ClearTrace();
    Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads, static_cast<int>(0xC0000999u));
    EXPECT_EQ(opened->SetSize(2 * 512, nullptr, nullptr), static_cast<int>(0xC0000999u));
    EXPECT_EQ(Medium().Trace(), TRACE({Read(builder, 10, 512, true)})) << "neither another piece nor the entry";
    EXPECT_EQ(opened->AllocBytes(), 1024u);
    EXPECT_EQ(opened->DirEntCache()->Slots(), 32u);
    EXPECT_EQ(FreeClusters(), 0u);
    ExpectInStep(*opened);
    EXPECT_NE(opened.Dir()->LookupFile(CPath("F")), nullptr);
  }
  UnmountBuilt();
  EXPECT_EQ(CImageBuilder(Medium().Image()).Chain(10), CLUSTERS({10, 70000}));
}

TEST_F(FileSizeOrder, FileShrinks_LastRunIsFreedFirstThenTheChainIsEndedThenTheEntryIsChanged) {
  CImageBuilder builder = FullVolume();
  // Runs: one cluster in block 4, two on both sides of the border of blocks 1 and 2, one in block 3.
  builder.AddFile(ROOT, "F", Content(4 * 512, 1), {300000, 131071, 131072, 200000});
  MountBuilt(builder);
  COpened file(Fs(), "F");
  EvictAllBlocks();
  Medium().ClearTrace();
  ASSERT_EQ(file->SetSize(512, nullptr, nullptr), 0);
  // Freed: 200000 (block 3), 131071 (block 1), 131072 (block 2); ended: 300000 (block 4). Written from the last one
  // back.
  EXPECT_EQ(Medium().Trace(), TRACE({FatWrite(builder, 4), FatWrite(builder, 2), FatWrite(builder, 1),
                                     FatWrite(builder, 3), Read(builder, 2, 512)}));
  CImageBuilder after(Medium().Image());
  EXPECT_EQ(after.FatEntry(300000), 0x0FFFFFFFu);
  for (const std::uint32_t c : {131071u, 131072u, 200000u}) EXPECT_EQ(after.FatEntry(c), 0u);
  EXPECT_EQ(FreeClusters(), 3u);
}

TEST_F(FileSizeOrder, FreeingFails_ClustersStayUsedInTheBitmapAndTheEntryIsNotChanged) {
  CImageBuilder builder = FullVolume();
  builder.AddFile(ROOT, "F", Content(5 * 512, 1), {1000, 70000, 140000, 200000, 300000});
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    EvictAllBlocks();
    Medium().ClearTrace();
    // Freed are 300000, 200000, 140000 and 70000: the fourth makes four blocks, whose writing fails.
    Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Writes, static_cast<int>(0xC0000999u));
    EXPECT_EQ(file->SetSize(512, nullptr, nullptr), static_cast<int>(0xC0000999u));
    EXPECT_EQ(FreeClusters(), 0u);
    EXPECT_EQ(file->Size(), 5u * 512);
    EXPECT_EQ(Mapped(*file), CLUSTERS({1000}));
    ExpectInStep(*file);
    EXPECT_EQ(Medium().Reads(), 0u) << "the directory is not touched";
    EXPECT_EQ(file->SetSize(512, nullptr, nullptr), 0) << "only the size is left to change";
    EXPECT_EQ(FreeClusters(), 0u);
  }
  UnmountBuilt();
  CImageBuilder after(Medium().Image());
  for (const std::uint32_t c : {70000u, 140000u, 200000u, 300000u}) EXPECT_EQ(after.FatEntry(c), 0u) << c;
  EXPECT_EQ(after.FatEntry(1000), 70000u) << "the end was never marked";
}

TEST_F(FileSizeOrder, EndingTheChainFails_FreedClustersStayUsedInTheBitmap) {
  CImageBuilder builder = FullVolume();
  builder.AddFile(ROOT, "F", Content(4 * 512, 1), {1000, 70000, 140000, 200000});
  MountBuilt(builder);
  COpened file(Fs(), "F");
  Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Writes);
  EXPECT_EQ(file->SetSize(1, nullptr, nullptr), IO_ERROR);
  EXPECT_EQ(FreeClusters(), 0u);
  ExpectInStep(*file);
  EXPECT_EQ(file->SetSize(0, nullptr, nullptr), 0);
  EXPECT_EQ(FreeClusters(), 1u);
  EXPECT_EQ(file->FirstCluster(), 0u);
}

TEST_F(FileSizeOrder, LinkingFails_ObjectStaysAsItWasAndTheClustersStayUsed) {
  CImageBuilder builder = FullVolume();
  builder.AddFile(ROOT, "F", Content(512, 1), {1000});
  for (const std::uint32_t c : {70000u, 140000u, 200000u, 300000u}) builder.SetFatEntry(c, 0);
  MountBuilt(builder);
  COpened file(Fs(), "F");
  Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Writes, static_cast<int>(0xC0000999u));
  EXPECT_EQ(file->SetSize(4 * 512, nullptr, nullptr), static_cast<int>(0xC0000999u));
  EXPECT_EQ(file->AllocBytes(), 512u);
  EXPECT_EQ(file->Size(), 512u);
  EXPECT_EQ(Mapped(*file), CLUSTERS({1000}));
  EXPECT_EQ(FreeClusters(), 1u);
  EXPECT_EQ(file->SetSize(2 * 512, nullptr, nullptr), 0);
  EXPECT_EQ(Mapped(*file), CLUSTERS({1000, 300000}));
  EXPECT_EQ(file->SetSize(3 * 512, nullptr, nullptr), DISK_FULL);
}

/// The object that changes, how it is changed, and what each step of the change transfers.
struct FAULT_CASE {
  const char* Name;
  const char* Path;
  unsigned int Size;
};

class FileSizeFaults : public FileSizeOrder, public ::testing::WithParamInterface<FAULT_CASE> {};
INSTANTIATE_TEST_SUITE_P(
    Change, FileSizeFaults,
    ::testing::Values(FAULT_CASE{"FileGrows", "D\\FILE", 8 * 512}, FAULT_CASE{"FileShrinks", "D\\FILE", 512},
                      FAULT_CASE{"FileEmptied", "D\\FILE", 0}, FAULT_CASE{"SizeField", "D\\FILE", 4 * 512 - 1},
                      FAULT_CASE{"EmptyFileGrows", "D\\EMPTY", 4 * 512}, FAULT_CASE{"DirectoryGrows", "D", 5 * 512}),
    [](const ::testing::TestParamInfo<FAULT_CASE>& change) { return std::string(change.param.Name); });

TEST_P(FileSizeFaults, AnyTransferFails_ObjectStaysInStepAndOthersUnharmed) {
  CImageBuilder builder = FullVolume();
  const CImageBuilder::DIRECTORY dir = builder.AddDir(ROOT, "D", {10});
  builder.AddFile(dir, "FILE", Content(4 * 512, 1), {1000, 70000, 140000, 200000});
  builder.AddFile(dir, "EMPTY");
  builder.AddFile(dir, "KEEP", Content(3000, 2), Range(2000, 6));
  for (const std::uint32_t c : {1500u, 70500u, 140500u, 200500u, 300500u}) builder.SetFatEntry(c, 0);
  for (const IO_FILTER filter : {IO_FILTER::All, IO_FILTER::Writes}) {
    for (const FAULT_DURATION duration : {FAULT_ONCE, FAULT_FOR_GOOD}) {
      for (unsigned int failAt = 1;; ++failAt) {
        SCOPED_TRACE(::testing::Message() << "transfer " << failAt);
        MountBuilt(builder);
        bool fired;
        {
          COpened object(Fs(), GetParam().Path);
          COpened keep(Fs(), "D\\KEEP");
          EvictAllBlocks();
          Medium().FailAt(failAt, duration, filter);
          const int status = object->SetSize(GetParam().Size, nullptr, nullptr);
          fired = Medium().Fired();
          EXPECT_EQ(status < 0, fired);
          Medium().Heal();
          ExpectInStep(*object);
          if (status >= 0) {
            EXPECT_EQ(object->AllocBytes(), (GetParam().Size + 511) / 512 * 512);
          }
          EXPECT_EQ(ReadObject(*keep, 3000), Content(3000, 2));
          // Whatever happened, the object can be used on.
          (void)object->SetSize(512, nullptr, nullptr);
          ExpectInStep(*object);
          if (!object->IsDir()) (void)object->SetSize(0, nullptr, nullptr);
          ExpectInStep(*object);
        }
        UnmountBuilt();
        CVolumeReader reader(Medium().Image());
        const VOLUME_NODE* kept = reader.Find("D\\KEEP");
        ASSERT_NE(kept, nullptr);
        EXPECT_EQ(reader.Content(*kept), Content(3000, 2));
        EXPECT_EQ(kept->Clusters, Range(2000, 6));
        if (!fired) break;
      }
    }
  }
}

// ---------------------------------------------------------------- renamed meanwhile

TEST_P(FileSizeWidths, EntryRenamedMeanwhile_FailsAfterTheClustersWereChanged) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(ROOT, "OLD", Content(1000, 1), {20, 21});
  MountBuilt(builder);
  COpened file(Fs(), "OLD");
  ASSERT_EQ(Fs().RenameFile(CPath("OLD"), CPath("NEW")), 0);
  const unsigned int free = FreeClusters();
  EXPECT_EQ(file->SetSize(2000, nullptr, nullptr), FILE_CORRUPT);
  EXPECT_EQ(file->Size(), 2000u);
  EXPECT_EQ(FreeClusters(), free - 2);
  ExpectInStep(*file);
  EXPECT_EQ(file->SetSize(100, nullptr, nullptr), FILE_CORRUPT);
  EXPECT_EQ(FreeClusters(), free + 1);
  ExpectInStep(*file);
  EXPECT_EQ(Fs().Root()->RefCount(), 1u);
}

// ---------------------------------------------------------------- memory

TEST_P(FileSizeWidths, NoMemoryToAppendTheNewRuns_FailsAsCorruptAndGivesTheClustersBack) {
  CImageBuilder builder(SmallVolume(GetParam()));
  CLUSTERS chain;
  for (std::uint32_t c = 100; chain.size() < 15; c += 2) chain.push_back(c);  // as many runs as the first array holds
  const unsigned int slot = builder.AddFile(ROOT, "F", Content(15 * 512, 1), chain);
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    const unsigned int free = FreeClusters();
    Memory().FailAt(1, CMemHooks::ONCE);
    EXPECT_EQ(file->SetSize(16 * 512, nullptr, nullptr), FILE_CORRUPT);
    EXPECT_TRUE(Memory().Fired());
    EXPECT_EQ(Mapped(*file), chain);
    EXPECT_EQ(file->Size(), 15u * 512);
    EXPECT_EQ(FreeClusters(), free);
    ExpectInStep(*file);
  }
  ExpectFat(builder, {});
  EXPECT_EQ(EntryOnMedium(builder, ROOT, slot), builder.Entry(ROOT, slot));
}

TEST_P(FileSizeWidths, NoMemoryToClearTheNewClustersOfADirectory_GivesThemBack) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CImageBuilder::DIRECTORY dir = builder.AddDir(ROOT, "D", {40});
  builder.AddFile(dir, "F");
  MountBuilt(builder);
  {
    COpened opened(Fs(), "D");
    const unsigned int free = FreeClusters();
    EvictAllBlocks();
    Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads, NO_MEMORY);  // loading the block that is to be cleared
    EXPECT_EQ(opened->SetSize(2 * 512, nullptr, nullptr), NO_MEMORY);
    EXPECT_EQ(Mapped(*opened), CLUSTERS({40}));
    EXPECT_EQ(opened->Limit(), 512);
    EXPECT_EQ(opened->DirEntCache()->Slots(), 16u);
    EXPECT_EQ(FreeClusters(), free);
    ExpectInStep(*opened);
    EXPECT_NE(opened.Dir()->LookupFile(CPath("F")), nullptr);
  }
  ExpectFat(builder, {});
  ExpectHealthy();
}

TEST_F(FileSize, AnyAllocationFails_ObjectStaysInStepAndCanBeUsedOn) {
  CImageBuilder builder(SmallVolume(16));
  const std::uint32_t end = builder.Geometry().Clusters + 2;
  CLUSTERS used;
  for (std::uint32_t c = 2; c < end; c += 2) used.push_back(c);  // every hole is one cluster
  builder.AddFile(ROOT, "USED", Content(used.size() * 512, 3), used);
  builder.AddFile(ROOT, "F", Content(100, 1), {3});
  for (const unsigned int size : {200 * 512u, 0u}) {
    for (unsigned int failAt = 1;; ++failAt) {
      SCOPED_TRACE(::testing::Message() << "allocation " << failAt << " of a change to " << size);
      MountBuilt(builder);
      bool fired;
      {
        COpened file(Fs(), "F");
        if (size == 0) {
          ASSERT_EQ(file->SetSize(300 * 512, nullptr, nullptr), 0);
        }
        const CLUSTERS before = Mapped(*file);
        Memory().FailAt(failAt, CMemHooks::ONCE);
        const int status = file->SetSize(size, nullptr, nullptr);
        fired = Memory().Fired();
        Memory().Heal();
        if (!fired) {
          EXPECT_EQ(status, 0);
        }
        if (status < 0) {
          EXPECT_TRUE(status == NO_MEMORY || status == DISK_CORRUPT || status == FILE_CORRUPT) << std::hex << status;
          EXPECT_EQ(Mapped(*file), before);
        }
        ExpectInStep(*file);
        EXPECT_EQ(file->SetSize(20 * 512, nullptr, nullptr), 0);
        EXPECT_EQ(file->Runs()->Length(), 20u);
        EXPECT_EQ(file->SetSize(0, nullptr, nullptr), 0);
      }
      UnmountBuilt();
      ExpectHealthy(true);
      if (!fired) {
        EXPECT_GT(failAt, size == 0 ? 1u : 3u);
        break;
      }
    }
  }
}

// ---------------------------------------------------------------- many changes

class FileSizeRandom : public FileSize, public ::testing::WithParamInterface<std::pair<unsigned int, unsigned int>> {};
INSTANTIATE_TEST_SUITE_P(WidthAndClusterSize, FileSizeRandom,
                         ::testing::Values(std::pair(12u, 1u), std::pair(16u, 1u), std::pair(32u, 1u),
                                           std::pair(12u, 8u), std::pair(16u, 8u), std::pair(32u, 8u)),
                         [](const ::testing::TestParamInfo<std::pair<unsigned int, unsigned int>>& geometry) {
                           return "Fat" + std::to_string(geometry.param.first) + "With" +
                                  std::to_string(geometry.param.second) + "SectorsPerCluster";
                         });

TEST_P(FileSizeRandom, SizesAndContentsOfSeveralFiles_AreWhatAPlainModelSays) {
  const std::vector<std::string> paths = {"A", "D\\B", "D\\Long name"};
  for (unsigned int seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    const auto below = [&random](std::size_t n) { return static_cast<unsigned int>(random() % n); };
    FAT_GEOMETRY geometry = SmallVolume(GetParam().first);
    geometry.SectorsPerCluster = GetParam().second;
    CImageBuilder builder(geometry);
    const CImageBuilder::DIRECTORY dir = builder.AddDir(ROOT, "D");
    builder.AddFile(ROOT, "A");
    builder.AddFile(dir, "B");
    builder.AddFile(dir, "Long name");
    MountBuilt(builder);
    const unsigned int unit = builder.ClusterBytes();
    unsigned int free = FreeClusters();
    std::vector<BYTES> model(paths.size());
    for (unsigned int step = 0; step < 60; ++step) {
      SCOPED_TRACE(::testing::Message() << "step " << step);
      const unsigned int n = below(paths.size());
      BYTES& bytes = model[n];
      const std::size_t old = bytes.size();
      const std::size_t size = below(4) == 0 ? old / 2 : below(5) == 0 ? 0 : below(150) * unit + below(3) * below(unit);
      const unsigned int oldClusters = static_cast<unsigned int>((old + unit - 1) / unit);
      const unsigned int clusters = static_cast<unsigned int>((size + unit - 1) / unit);
      COpened file(Fs(), paths[n]);
      ASSERT_EQ(file.Status, 0);
      const int status = file->SetSize(static_cast<unsigned int>(size), nullptr, nullptr);
      if (clusters > oldClusters && clusters - oldClusters > free) {
        ASSERT_EQ(status, DISK_FULL);
      } else {
        ASSERT_EQ(status, 0);
        free = free + oldClusters - clusters;
        bytes.resize(size);
        if (size > old) {
          const BYTES more = CImageBuilder::Pattern(size - old, seed * 1000 + step);
          std::copy(more.begin(), more.end(), At(bytes, old));
          ASSERT_EQ(WriteAt(*file, static_cast<long long>(old), more), 0);
        }
      }
      ASSERT_EQ(FreeClusters(), free);
      ASSERT_EQ(file->Size(), bytes.size());
      ExpectInStep(*file);
      if (below(8) == 0) EvictAllBlocks();
      ASSERT_EQ(ReadObject(*file, file->Size()), bytes);
    }
    UnmountBuilt();
    ExpectHealthy();
    CVolumeReader reader(Medium().Image());
    for (std::size_t n = 0; n < paths.size(); ++n) {
      const VOLUME_NODE* node = reader.Find(paths[n]);
      ASSERT_NE(node, nullptr);
      EXPECT_EQ(node->Size, model[n].size());
      EXPECT_EQ(node->Clusters.size(), (model[n].size() + unit - 1) / unit);
      EXPECT_EQ(reader.Content(*node), model[n]);
    }
    EXPECT_EQ(reader.FreeClusters(), free);
  }
}

}  // namespace
