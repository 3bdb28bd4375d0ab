/// @file FatFileTest.cpp
/// File objects on a traced medium: the walk of the cluster chain, the way from file positions to transfers, positioned
/// and sequential access, and what an object does to its directory entry.

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <random>
#include <tuple>

#include "file/FileFixture.h"
#include "support/VolumeReader.h"

namespace {

using namespace filetest;

constexpr unsigned int NO_CLUSTER_MARK = 0xFFFFFFFF;  // start cluster of the fixed root

std::string Width(const ::testing::TestParamInfo<unsigned int>& bits) { return "Fat" + std::to_string(bits.param); }

/// An object built from a directory record, not by a path.
class CBuilt {
 public:
  CBuilt(CFatFileSystem& fs, std::uint32_t firstCluster, std::uint32_t size, unsigned int attributes = 0x20) {
    DENTCTX record{};
    std::memcpy(record.ShortEntry.Name, "OBJECT     ", 11);
    record.ShortEntry.Attribute = static_cast<unsigned char>(attributes);
    record.ShortEntry.SetStartClustNo(firstCluster);
    record.ShortEntry.FileSize.Store(size);
    Build(fs, record);
  }
  CBuilt(CFatFileSystem& fs, DENTCTX* record) { Build(fs, *record); }
  ~CBuilt() {
    if (m_pFile != nullptr) (void)m_pFile->Release();
  }
  CBuilt(const CBuilt&) = delete;
  CBuilt& operator=(const CBuilt&) = delete;
  CFatDir* operator->() const { return m_pFile; }
  CFatDir& operator*() const { return *m_pFile; }

  int Status = NO_MEMORY;

 private:
  void Build(CFatFileSystem& fs, DENTCTX& record) {
    m_pFile = new CFatDir;
    if (m_pFile == nullptr) return;
    m_pFile->AddRef();
    Status = m_pFile->Build(&fs, &record);
  }

  CFatDir* m_pFile = nullptr;
};

class FatFile : public CFileFixture {
 protected:
  /// Sets first bytes, so that cluster c reads as CImageBuilder::Pattern(cluster bytes, c).
  static void FillClusters(CImageBuilder& builder, const CLUSTERS& clusters) {
    for (const std::uint32_t c : clusters)
      builder.WriteClusters({c}, CImageBuilder::Pattern(builder.ClusterBytes(), c));
  }
  static BYTES Joined(const CImageBuilder& builder, const CLUSTERS& clusters) {
    BYTES bytes;
    for (const std::uint32_t c : clusters) bytes = Join(bytes, CImageBuilder::Pattern(builder.ClusterBytes(), c));
    return bytes;
  }
  static BYTES Join(BYTES a, const BYTES& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  }
  static BYTES Part(const BYTES& bytes, std::size_t from, std::size_t count) {
    return BYTES(At(bytes, from), At(bytes, from + count));
  }
};

class FatFileWidths : public FatFile, public ::testing::WithParamInterface<unsigned int> {};
INSTANTIATE_TEST_SUITE_P(Width, FatFileWidths, ::testing::Values(12u, 16u, 32u), Width);

// ---------------------------------------------------------------- building

TEST_P(FatFileWidths, FileWithoutCluster_BuildsWithNothingAllocatedAndAnEmptyMap) {
  CImageBuilder builder(SmallVolume(GetParam()));
  MountBuilt(builder);
  CBuilt file(Fs(), 0, 0);
  EXPECT_EQ(file.Status, 0);
  EXPECT_EQ(file->FirstCluster(), 0u);
  EXPECT_EQ(file->AllocBytes(), 0u);
  EXPECT_EQ(file->Runs()->NumberOfRuns(), 0u);
  EXPECT_EQ(file->RefCount(), 1u);
  EXPECT_EQ(file->Offset(), 0u);
  EXPECT_EQ(file->DirEntCache(), nullptr);
  EXPECT_EQ(file->NameChars(), 0u);
  EXPECT_EQ(file->Volume(), &Fs());
  EXPECT_EQ(Medium().Transfers(), 0u);
}

TEST_P(FatFileWidths, FragmentedChain_BecomesOneRunForEachFragment) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CLUSTERS chain = {10, 11, 12, 20, 21, 5, 6, 7, 8, 40};
  builder.SetChain(chain);
  MountBuilt(builder);
  CBuilt file(Fs(), 10, 12345);
  ASSERT_EQ(file.Status, 0);
  EXPECT_EQ(file->AllocBytes(), 10u * 512);
  EXPECT_EQ(file->Size(), 12345u);
  EXPECT_EQ(file->Limit(), 12345);
  ASSERT_EQ(file->Runs()->NumberOfRuns(), 4u);
  EXPECT_EQ(Mapped(*file), chain);
  EXPECT_TRUE(file->Runs()->CheckMapping());
}

TEST_P(FatFileWidths, DirectoryEntry_IsCopiedAndLimitIsTheAllocationForDirectories) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.SetChain({30, 31, 32});
  MountBuilt(builder);
  CBuilt file(Fs(), 30, 77, 0x31);
  ASSERT_EQ(file.Status, 0);
  EXPECT_TRUE(file->IsDir());
  EXPECT_EQ(file->Size(), 77u);
  EXPECT_EQ(file->Limit(), 3 * 512);
  EXPECT_EQ(std::memcmp(file->Info()->Name, "OBJECT     ", 11), 0);
  EXPECT_EQ(file->Info()->Attribute, 0x31);
  EXPECT_FALSE(file->IsRoot());
}

TEST_P(FatFileWidths, ChainMayEndInAnyEndMark) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const std::vector<std::uint32_t> marks =
      GetParam() == 12   ? std::vector<std::uint32_t>{0xFF8, 0xFFB, 0xFFF}
      : GetParam() == 16 ? std::vector<std::uint32_t>{0xFFF8, 0xFFFC, 0xFFFF}
                         : std::vector<std::uint32_t>{0x0FFFFFF8, 0x0FFFFFFF, 0xFFFFFFFF, 0x10000003, 0xF0000000};
  for (std::uint32_t i = 0; i < marks.size(); ++i) {
    builder.SetFatEntry(100 + 2 * i, 101 + 2 * i);
    builder.SetFatEntry(101 + 2 * i, marks[i]);
  }
  MountBuilt(builder);
  for (std::uint32_t i = 0; i < marks.size(); ++i) {
    CBuilt file(Fs(), 100 + 2 * i, 0);
    EXPECT_EQ(file.Status, 0) << std::hex << marks[i];
    EXPECT_EQ(Mapped(*file), Range(100 + 2 * i, 2)) << std::hex << marks[i];
  }
}

TEST_P(FatFileWidths, ChainThatLeadsToNoCluster_IsCorrupt) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const std::uint32_t behind = builder.Geometry().Clusters + 2;
  std::vector<std::uint32_t> links = {0, 1, behind, behind + 1};
  if (GetParam() == 12) links.insert(links.end(), {0xFF0, 0xFF6, 0xFF7});
  if (GetParam() == 16) links.insert(links.end(), {0xFFF0, 0xFFF6, 0xFFF7});
  if (GetParam() == 32) links.insert(links.end(), {0x0FFFFFF0, 0x0FFFFFF6, 0x0FFFFFF7, 0x08000000});
  for (std::uint32_t i = 0; i < links.size(); ++i) {
    builder.SetFatEntry(100 + 2 * i, 101 + 2 * i);
    builder.SetFatEntry(101 + 2 * i, links[i]);
  }
  MountBuilt(builder);
  for (std::uint32_t i = 0; i < links.size(); ++i) {
    CBuilt file(Fs(), 100 + 2 * i, 0);
    EXPECT_EQ(file.Status, DISK_CORRUPT) << std::hex << links[i];
  }
}

TEST_P(FatFileWidths, StartClusterOutsideTheVolume_IsCorrupt) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const std::uint32_t last = builder.Geometry().Clusters + 1;
  builder.SetChain({last});
  MountBuilt(builder);
  for (const std::uint32_t first : {1u, last + 1, last + 2, 0x10002u + last, 0xFFFFFFFEu}) {
    CBuilt file(Fs(), first, 0);
    EXPECT_EQ(file.Status, DISK_CORRUPT) << first;
  }
  CBuilt file(Fs(), last, 0);
  EXPECT_EQ(file.Status, 0);
  EXPECT_EQ(Mapped(*file), CLUSTERS({last}));
}

// The low half alone names a healthy chain: only FAT32 has the cluster that both halves name.
TEST_P(FatFileWidths, HighHalfOfTheStartCluster_CountsOnEveryWidth) {
  FAT_GEOMETRY geometry = SmallVolume(GetParam());
  if (GetParam() == 32) geometry.Clusters = 70000;
  CImageBuilder builder(geometry);
  builder.SetChain({10, 11});
  if (GetParam() == 32) builder.SetChain({0x1000A, 0x1000B, 0x1000C});
  MountBuilt(builder);
  CBuilt file(Fs(), 0x1000A, 0);
  EXPECT_EQ(file.Status, GetParam() == 32 ? 0 : DISK_CORRUPT);
  EXPECT_EQ(file->FirstCluster(), 0x1000Au);
  EXPECT_EQ(Mapped(*file), GetParam() == 32 ? Range(0x1000A, 3) : CLUSTERS());
}

TEST_P(FatFileWidths, LoopingChains_AreCorrupt) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.SetFatEntry(10, 10);  // itself
  builder.SetChain({20, 21, 22, 23, 24});
  builder.SetFatEntry(24, 20);  // back to the start
  builder.SetChain(Range(30, 50));
  builder.SetFatEntry(79, 61);  // back into the middle
  builder.SetChain(Range(100, 7));
  builder.SetFatEntry(106, 105);  // two clusters, far from the start
  MountBuilt(builder);
  for (const std::uint32_t first : {10u, 20u, 22u, 30u, 65u, 100u}) {
    CBuilt file(Fs(), first, 0);
    EXPECT_EQ(file.Status, DISK_CORRUPT) << first;
  }
}

TEST_P(FatFileWidths, ChainOfAllClusters_BuildsUntilItLoops) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const std::uint32_t clusters = builder.Geometry().Clusters;
  const std::uint32_t first = GetParam() == 32 ? 3 : 2;  // the root has cluster 2
  builder.SetChain(Range(first, clusters + 2 - first));
  MountBuilt(builder);
  {
    CBuilt file(Fs(), first, 0);
    EXPECT_EQ(file.Status, 0);
    EXPECT_EQ(file->AllocBytes(), (clusters + 2ull - first) * 512);
    EXPECT_EQ(file->Runs()->NumberOfRuns(), 1u);
  }
  UnmountBuilt();
  builder.SetFatEntry(clusters + 1, first);
  MountBuilt(builder);
  CBuilt file(Fs(), first, 0);
  EXPECT_EQ(file.Status, DISK_CORRUPT);
}

TEST_F(FatFile, LongestFat12_LinksThroughClusterFF7) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 12;
  geometry.Clusters = 4086;  // the last one has number 0xFF7
  CImageBuilder builder(geometry);
  builder.SetChain({10, 0xFF7, 11});
  MountBuilt(builder);
  CBuilt file(Fs(), 10, 0);
  EXPECT_EQ(file.Status, 0);
  EXPECT_EQ(Mapped(*file), CLUSTERS({10, 0xFF7, 11}));
}

TEST_F(FatFile, LoopOnAHugeVolume_IsNoticedEarlyAndReadsNoFatBlockAgain) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 32;
  geometry.Clusters = 3000000;
  CImageBuilder builder(geometry);
  const std::uint32_t chain[] = {1000, 2000000, 500000};
  builder.SetFatEntry(chain[0], chain[1]);
  builder.SetFatEntry(chain[1], chain[2]);
  builder.SetFatEntry(chain[2], chain[0]);
  MountBuilt(builder);
  CBuilt file(Fs(), 1000, 0);
  EXPECT_EQ(file.Status, DISK_CORRUPT);
  EXPECT_LT(file->Runs()->NumberOfRuns(), 32u);
  EXPECT_EQ(Medium().Transfers(), 0u);
}

TEST_F(FatFile, FatCannotBeRead_BuildReturnsTheStatus) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 32;
  geometry.Clusters = 258 * 65536;  // two blocks more than the FAT's cache holds
  CImageBuilder builder(geometry);
  const std::uint32_t first = geometry.Clusters - 10;  // in a block that mounting read first
  builder.SetChain({first, first + 1, 100});
  MountBuilt(builder);
  Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads, static_cast<int>(0xC0000123u));
  {
    CBuilt file(Fs(), first, 0);
    EXPECT_EQ(file.Status, static_cast<int>(0xC0000123u));
    EXPECT_TRUE(Medium().Fired());
  }
  CBuilt file(Fs(), first, 0);
  EXPECT_EQ(file.Status, 0);
  EXPECT_EQ(Mapped(*file), CLUSTERS({first, first + 1, 100}));
}

TEST_F(FatFile, StartClusterMarkOfTheFixedRoot_TakesTheSizeAsAllocationAndLoadsNoChain) {
  CImageBuilder builder(SmallVolume(32));
  MountBuilt(builder);
  CBuilt file(Fs(), NO_CLUSTER_MARK, 0xFFFFFFF0);
  EXPECT_EQ(file.Status, 0);
  EXPECT_EQ(file->AllocBytes(), 0xFFFFFFF0u);
  EXPECT_EQ(file->Size(), 0u);
  EXPECT_EQ(file->Runs()->NumberOfRuns(), 0u);
  BYTES buffer(600);
  EXPECT_EQ(file->ReadFromStorage(0, 600, buffer.data()), FILE_CORRUPT);
  EXPECT_EQ(Medium().Transfers(), 0u);
}

TEST_P(FatFileWidths, EntryWithTheMarkOfTheFixedRoot_DoesNotOpenUnlessItIsEmpty) {
  CImageBuilder builder(SmallVolume(GetParam()));
  ENTRY_OPTIONS options;
  options.SetSize = options.SetFirstCluster = true;
  options.FirstCluster = NO_CLUSTER_MARK;
  for (const std::uint32_t size : {0u, 1u, 0xFFFFFFFFu}) {
    options.Size = size;
    builder.AddFile(CImageBuilder::Root(), "F" + std::to_string(size), {}, {}, options);
    options.Attributes = 0x10;
    builder.AddFile(CImageBuilder::Root(), "D" + std::to_string(size), {}, {}, options);
    options.Attributes = 0x20;
  }
  MountBuilt(builder);
  for (const std::string name : {"F1", "F4294967295", "D1", "D4294967295"}) {
    COpened file(Fs(), name);
    // A file's limit is its size, which is 0 now: nothing is read, and it opens.
    EXPECT_EQ(file.Status, name[0] == 'F' ? 0 : FILE_CORRUPT) << name;
    if (file.Status < 0) continue;
    BYTES buffer(10);
    unsigned int done;
    EXPECT_EQ(file->Read(0, 10, buffer.data(), &done), END_OF_FILE);
  }
  for (const std::string name : {"F0", "D0"}) {
    COpened file(Fs(), name);
    EXPECT_EQ(file.Status, 0) << name;
    EXPECT_EQ(file->AllocBytes(), 0u);
  }
  EXPECT_EQ(Medium().Transfers(), 0u);
}

TEST_P(FatFileWidths, FixedRootAndRootChain_AreWhatTheVolumeHas) {
  FAT_GEOMETRY geometry = SmallVolume(GetParam());
  geometry.RootEntries = GetParam() == 32 ? 0 : 20;  // 640 bytes: two sectors
  CImageBuilder builder(geometry);
  MountBuilt(builder);
  CFatDir* root = Fs().Root();
  EXPECT_TRUE(root->IsRoot());
  EXPECT_TRUE(root->IsDir());
  EXPECT_EQ(root->Size(), 0u);
  EXPECT_EQ(root->FirstCluster(), GetParam() == 32 ? 2u : NO_CLUSTER_MARK);
  EXPECT_EQ(root->AllocBytes(), GetParam() == 32 ? 512u : 1024u);
  EXPECT_EQ(root->RefCount(), 1u);
  EXPECT_EQ(root->PathIndexName(), nullptr);
}

TEST_F(FatFile, LongName_IsCopiedAsItsRecordHoldsIt) {
  CImageBuilder builder(SmallVolume(16));
  builder.AddFile(CImageBuilder::Root(), "Mixed Case \xD0\x96.txt", {});
  builder.AddFile(CImageBuilder::Root(), "SHORT.TXT", {});
  MountBuilt(builder);
  COpened longName(Fs(), "MIXED case \xD0\xB6.TXT");
  ASSERT_EQ(longName.Status, 0);
  EXPECT_EQ(ToUtf8(longName->Name(), longName->NameChars()), "Mixed Case \xD0\x96.txt");
  EXPECT_EQ(ToUtf8Z(longName->FullPathFileNameUpcase(), 260), "MIXED CASE \xD0\x96.TXT");
  COpened shortName(Fs(), "short.txt");
  ASSERT_EQ(shortName.Status, 0);
  EXPECT_EQ(shortName->NameChars(), 0u);
}

TEST_F(FatFile, LongNameOf260Units_FillsTheNameField) {
  CImageBuilder builder(SmallVolume(16));
  UTF16 name(260, 'n');
  name[259] = 'Z';
  builder.Append(CImageBuilder::Root(),
                 CImageBuilder::EntrySet(name, CImageBuilder::ShortEntry(CImageBuilder::ShortName("N"), 0x20, 0, 0)));
  MountBuilt(builder);
  DENTCTX* record = Fs().Root()->FindFirst();
  ASSERT_NE(record, nullptr);
  CBuilt file(Fs(), record);
  EXPECT_EQ(file.Status, 0);
  EXPECT_EQ(UTF16(file->Name(), file->Name() + file->NameChars()), name);
}

TEST_P(FatFileWidths, FileWithBrokenChain_DoesNotOpenAndLeavesNothing) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(CImageBuilder::Root(), "BAD", Content(2000, 1), {10, 11, 12, 13});
  builder.AddFile(CImageBuilder::Root(), "GOOD", Content(2000, 2), {20, 21, 22, 23});
  builder.SetFatEntry(12, 1);
  MountBuilt(builder);
  const std::size_t outstanding = Memory().Outstanding();
  for (unsigned int i = 0; i < 3; ++i) {
    COpened bad(Fs(), "BAD");
    EXPECT_EQ(bad.Status, FILE_CORRUPT);
  }
  EXPECT_EQ(Memory().Outstanding(), outstanding);
  COpened good(Fs(), "GOOD");
  EXPECT_EQ(good.Status, 0);
  EXPECT_EQ(ReadObject(*good, 2000), Content(2000, 2));
}

TEST_F(FatFile, AnyAllocationFailsDuringBuild_FailsCleanly) {
  CImageBuilder builder(SmallVolume(16));
  CLUSTERS chain;
  for (std::uint32_t c = 10; c < 150; c += 2) chain.push_back(c);  // 70 runs: the map grows three times
  builder.SetChain(chain);
  MountBuilt(builder);
  const std::size_t outstanding = Memory().Outstanding();
  for (unsigned int nth = 1;; ++nth) {
    Memory().FailAt(nth, CMemHooks::ONCE);
    auto file = std::make_unique<CBuilt>(Fs(), 10, 0);
    const bool fired = Memory().Fired();
    Memory().Heal();
    if (!fired) {
      EXPECT_EQ(file->Status, 0);
      EXPECT_EQ(Mapped(**file), chain);
      EXPECT_GT(nth, 2u) << "no allocation was ever tried";
      break;
    }
    EXPECT_TRUE(file->Status == NO_MEMORY || file->Status == DISK_CORRUPT) << nth;
    file.reset();
    EXPECT_LE(Memory().Outstanding(), outstanding) << nth;
  }
}

// ---------------------------------------------------------------- from positions to transfers

/// The transfers of one call, found cluster by cluster.
TRACE ExpectedTransfers(const CImageBuilder& builder, const CLUSTERS& chain, std::uint64_t pos, std::uint64_t len,
                        bool write) {
  const std::uint64_t unit = builder.ClusterBytes();
  TRACE trace;
  const auto bytesToRunEnd = [&](std::uint64_t at) {
    std::uint64_t cluster = at / unit;
    while (cluster + 1 < chain.size() && chain[ToSize(cluster + 1)] == chain[ToSize(cluster)] + 1) ++cluster;
    return (cluster + 1) * unit - at;
  };
  const auto transfer = [&](bool aligned, std::uint64_t n) {
    const IO_KIND kind = aligned ? (write ? IO_KIND::WriteBytesAligned : IO_KIND::ReadBytesAligned)
                                 : (write ? IO_KIND::WriteBytes : IO_KIND::ReadBytes);
    const std::uint64_t medium = builder.ClusterOffset(chain.at(ToSize(pos / unit))) + pos % unit;
    trace.push_back({kind, static_cast<long long>(medium), n, 0});
    pos += n;
    len -= n;
  };
  const auto mapped = [&] { return pos / unit < chain.size(); };
  if (len != 0 && pos % unit != 0 && mapped()) transfer(false, std::min(bytesToRunEnd(pos), len));
  while (len > unit && mapped()) transfer(true, std::min(bytesToRunEnd(pos), len / unit * unit));
  if (len != 0 && mapped()) transfer(false, len);
  return trace;
}

TEST_P(FatFileWidths, TransferFromInsideAClusterOverTwoRuns_IsHeadThenRunThenTail) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CLUSTERS chain = {10, 11, 12, 30, 31, 32, 33};
  builder.SetChain(chain);
  FillClusters(builder, chain);
  MountBuilt(builder);
  CBuilt file(Fs(), 10, 7 * 512);
  BYTES buffer(2900);
  EXPECT_EQ(file->ReadFromStorage(100, 2900, buffer.data()), 0);
  const long long at10 = static_cast<long long>(builder.ClusterOffset(10));
  const long long at30 = static_cast<long long>(builder.ClusterOffset(30));
  EXPECT_EQ(Medium().Trace(), TRACE({{IO_KIND::ReadBytes, at10 + 100, 3 * 512 - 100, 0},
                                     {IO_KIND::ReadBytesAligned, at30, 2 * 512, 0},
                                     {IO_KIND::ReadBytes, at30 + 2 * 512, 2900 - 1436 - 1024, 0}}));
  EXPECT_EQ(buffer, Part(Joined(builder, chain), 100, 2900));

  Medium().ClearTrace();
  EXPECT_EQ(file->WriteToStorage(100, 2900, buffer.data()), 0);
  EXPECT_EQ(Medium().Trace(), TRACE({{IO_KIND::WriteBytes, at10 + 100, 3 * 512 - 100, 0},
                                     {IO_KIND::WriteBytesAligned, at30, 2 * 512, 0},
                                     {IO_KIND::WriteBytes, at30 + 2 * 512, 2900 - 1436 - 1024, 0}}));
}

TEST_P(FatFileWidths, TransferOfWholeClusters_EndsWithAnUnalignedOneOfTheLast) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CLUSTERS chain = Range(10, 8);
  builder.SetChain(chain);
  MountBuilt(builder);
  CBuilt file(Fs(), 10, 8 * 512);
  BYTES buffer(4096);
  const long long at10 = static_cast<long long>(builder.ClusterOffset(10));
  EXPECT_EQ(file->ReadFromStorage(0, 512, buffer.data()), 0);     // one cluster is not more than a cluster
  EXPECT_EQ(file->ReadFromStorage(512, 1024, buffer.data()), 0);  // a multiple: the middle takes all of it
  EXPECT_EQ(file->ReadFromStorage(0, 1025, buffer.data()), 0);
  EXPECT_EQ(file->ReadFromStorage(1, 4095, buffer.data()), 0);  // the head takes the whole run
  EXPECT_EQ(file->ReadFromStorage(4096, 0, buffer.data()), 0);  // nothing to do
  EXPECT_EQ(Medium().Trace(), TRACE({{IO_KIND::ReadBytes, at10, 512, 0},
                                     {IO_KIND::ReadBytesAligned, at10 + 512, 1024, 0},
                                     {IO_KIND::ReadBytesAligned, at10, 1024, 0},
                                     {IO_KIND::ReadBytes, at10 + 1024, 1, 0},
                                     {IO_KIND::ReadBytes, at10 + 1, 4095, 0}}));
}

class FatFileTransfers : public FatFile,
                         public ::testing::WithParamInterface<std::tuple<unsigned int, unsigned int>> {};
INSTANTIATE_TEST_SUITE_P(WidthAndClusterSize, FatFileTransfers,
                         ::testing::Combine(::testing::Values(12u, 16u, 32u), ::testing::Values(1u, 4u)),
                         [](const ::testing::TestParamInfo<std::tuple<unsigned int, unsigned int>>& geometry) {
                           return "Fat" + std::to_string(std::get<0>(geometry.param)) + "With" +
                                  std::to_string(std::get<1>(geometry.param)) + "SectorsPerCluster";
                         });

TEST_P(FatFileTransfers, RandomRequestsOnRandomChains_MakeTheStatedTransfersAndMoveTheRightBytes) {
  FAT_GEOMETRY geometry = SmallVolume(std::get<0>(GetParam()));
  geometry.SectorsPerCluster = std::get<1>(GetParam());
  for (unsigned int seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    const auto below = [&random](std::size_t n) { return static_cast<unsigned int>(random() % n); };
    CImageBuilder builder(geometry);
    CLUSTERS chain;
    for (std::uint32_t c = 3; chain.size() < 60; c += 1 + (below(3) == 0 ? 1 + below(5) : 0)) chain.push_back(c);
    for (unsigned int i = 0; i < 4; ++i) {  // pieces of the chain change places
      const unsigned int middle = 10 + below(30);
      std::rotate(At(chain, below(10)), At(chain, middle), At(chain, middle + 1 + below(20)));
    }
    builder.SetChain(chain);
    FillClusters(builder, chain);
    BYTES flat = Joined(builder, chain);
    const std::uint32_t size = static_cast<std::uint32_t>(flat.size());
    MountBuilt(builder);
    {
      CBuilt file(Fs(), chain[0], size);
      ASSERT_EQ(Mapped(*file), chain);
      for (unsigned int i = 0; i < 60; ++i) {
        const unsigned int pos = below(4) == 0 ? below(60) * builder.ClusterBytes() : below(size);
        const unsigned int len =
            below(2) == 0 ? below(size - pos + 1) : std::min(size - pos, below(3 * builder.ClusterBytes()));
        const bool write = below(2) == 0;
        SCOPED_TRACE(::testing::Message() << len << " bytes at " << pos);
        Medium().ClearTrace();
        BYTES buffer = CImageBuilder::Pattern(len, i + 1000 * seed);
        if (write) {
          ASSERT_EQ(file->WriteToStorage(pos, len, buffer.data()), 0);
          std::copy(buffer.begin(), buffer.end(), At(flat, pos));
        } else {
          ASSERT_EQ(file->ReadFromStorage(pos, len, buffer.data()), 0);
          ASSERT_EQ(buffer, Part(flat, pos, len));
        }
        ASSERT_EQ(Medium().Trace(), ExpectedTransfers(builder, chain, pos, len, write));
      }
    }
    const CDiskImage& image = UnmountBuilt();
    for (std::size_t i = 0; i < chain.size(); ++i) {
      ASSERT_EQ(image.ReadBytes(builder.ClusterOffset(chain[i]), builder.ClusterBytes()),
                Part(flat, i * builder.ClusterBytes(), builder.ClusterBytes()));
    }
  }
}

TEST_P(FatFileWidths, PositionBehindTheChain_FailsWithTheEarlierPartsDone) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CLUSTERS chain = {10, 20, 21};
  builder.SetChain(chain);
  FillClusters(builder, chain);
  MountBuilt(builder);
  CBuilt file(Fs(), 10, 0xFFFFFFFF);  // a size that the chain does not bear
  BYTES buffer(8192, 0x11);
  for (const long long pos : {3 * 512LL, 3 * 512LL + 1, 0xFFFFFFFFLL, 0x100000000LL, 0x200000000LL}) {
    EXPECT_EQ(file->ReadFromStorage(pos, 10, buffer.data()), FILE_CORRUPT) << pos;
    EXPECT_EQ(file->ReadFromStorage(pos, 5000, buffer.data()), FILE_CORRUPT) << pos;
  }
  EXPECT_EQ(Medium().Transfers(), 0u);
  EXPECT_EQ(buffer, BYTES(8192, 0x11));

  EXPECT_EQ(file->ReadFromStorage(100, 5000, buffer.data()), FILE_CORRUPT);
  EXPECT_EQ(Medium().Trace(), ExpectedTransfers(builder, chain, 100, 5000, false));
  EXPECT_EQ(Part(buffer, 0, 1436), Part(Joined(builder, chain), 100, 1436));
  EXPECT_EQ(Part(buffer, 1436, 1000), BYTES(1000, 0x11));

  Medium().ClearTrace();
  EXPECT_EQ(file->WriteToStorage(512, 2000, buffer.data()), FILE_CORRUPT);
  EXPECT_EQ(Medium().Trace(), ExpectedTransfers(builder, chain, 512, 2000, true));
}

TEST_P(FatFileWidths, FailingTransfer_EndsTheCallWithItsStatus) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CLUSTERS chain = {10, 12, 13, 15, 16, 17, 19};
  builder.SetChain(chain);
  MountBuilt(builder);
  CBuilt file(Fs(), 10, 7 * 512);
  for (const bool write : {false, true}) {
    const TRACE all = ExpectedTransfers(builder, chain, 7, 3500, write);
    ASSERT_EQ(all.size(), 4u);
    for (unsigned int nth = 1; nth <= 4; ++nth) {
      BYTES buffer(3500);
      Medium().ClearTrace();
      Medium().FailAt(nth, FAULT_ONCE, IO_FILTER::All, static_cast<int>(0x80000000u + nth));
      const int status =
          write ? file->WriteToStorage(7, 3500, buffer.data()) : file->ReadFromStorage(7, 3500, buffer.data());
      EXPECT_EQ(status, static_cast<int>(0x80000000u + nth));
      EXPECT_EQ(Medium().Trace(), TRACE(all.begin(), At(all, nth)));
      Medium().Heal();
    }
  }
}

TEST_P(FatFileWidths, WriteToStorage_IsCutAtTheLimitAndReadFromStorageIsNot) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CLUSTERS chain = {10, 11};
  builder.SetChain(chain);
  FillClusters(builder, chain);
  MountBuilt(builder);
  const BYTES before = Joined(builder, chain);
  {
    CBuilt file(Fs(), 10, 600);
    BYTES buffer(BLOCK);
    EXPECT_EQ(file->ReadFromStorage(590, 20, buffer.data()), 0);
    EXPECT_EQ(Part(buffer, 0, 20), Part(before, 590, 20));
    Medium().ClearTrace();
    std::fill(buffer.begin(), buffer.end(), static_cast<unsigned char>(0xEE));
    EXPECT_EQ(file->WriteToStorage(0, BLOCK, buffer.data()), 0);
    EXPECT_EQ(file->WriteToStorage(599, BLOCK, buffer.data()), 0);
    EXPECT_EQ(file->WriteToStorage(600, BLOCK, buffer.data()), 0);  // at the limit and beyond there is nothing to do
    EXPECT_EQ(file->WriteToStorage(0x40000, BLOCK, buffer.data()), 0);
    EXPECT_EQ(file->WriteToStorage(0x100000000LL, BLOCK, buffer.data()), 0);
    TRACE expected = ExpectedTransfers(builder, chain, 0, 600, true);
    const TRACE last = ExpectedTransfers(builder, chain, 599, 1, true);
    expected.insert(expected.end(), last.begin(), last.end());
    EXPECT_EQ(Medium().Trace(), expected);
  }
  const CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(image.ReadBytes(builder.ClusterOffset(10), 1024), Join(BYTES(600, 0xEE), Part(before, 600, 424)));
}

TEST_P(FatFileWidths, RootDirectory_GoesStraightToItsAreaUnlessItIsAChain) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.SetChain({3, 5});  // so that a root that grows is fragmented
  for (std::uint32_t i = 0; i < 40; ++i) builder.AddFile(CImageBuilder::Root(), "F" + std::to_string(i), {});
  const CLUSTERS chain = builder.DirectoryClusters(CImageBuilder::Root());
  const std::uint32_t area = GetParam() == 32 ? 3 * 512 : 512 * 32;
  MountBuilt(builder);
  CFatDir* root = Fs().Root();
  ASSERT_EQ(root->AllocBytes(), area);
  BYTES buffer(1300);
  Medium().ClearTrace();
  EXPECT_EQ(root->ReadFromStorage(100, 1300, buffer.data()), 0);
  const long long at = static_cast<long long>(builder.RootOffset());
  if (GetParam() == 32) {
    EXPECT_EQ(Medium().Trace(), ExpectedTransfers(builder, chain, 100, 1300, false));
  } else {
    EXPECT_EQ(Medium().Trace(), TRACE({{IO_KIND::ReadBytes, at + 100, 1300, 0}}));
    EXPECT_EQ(buffer, builder.Store().ReadBytes(builder.RootOffset() + 100, 1300));
  }
  Medium().ClearTrace();
  EXPECT_EQ(root->WriteToStorage(100, 1300, buffer.data()), 0);
  if (GetParam() == 32) {
    EXPECT_EQ(Medium().Trace(), ExpectedTransfers(builder, chain, 100, 1300, true));
  } else {
    EXPECT_EQ(Medium().Trace(), TRACE({{IO_KIND::WriteBytes, at + 100, 1300, 0}}));
    Medium().ClearTrace();
    EXPECT_EQ(root->WriteToStorage(area - 100, 1300, buffer.data()), 0);  // cut at the end of the area
    EXPECT_EQ(Medium().Trace(), TRACE({{IO_KIND::WriteBytes, at + area - 100, 100, 0}}));
    Medium().FailAt(1, FAULT_FOR_GOOD);
    EXPECT_EQ(root->ReadFromStorage(0, 10, buffer.data()), IO_ERROR);
    EXPECT_EQ(root->WriteToStorage(0, 10, buffer.data()), IO_ERROR);
    Medium().Heal();
  }
}

// ---------------------------------------------------------------- positioned access

TEST_P(FatFileWidths, ReadOfFragmentedFile_DeliversItsBytesAtEveryOffset) {
  FAT_GEOMETRY geometry = SmallVolume(GetParam());
  geometry.SectorsPerCluster = 8;
  CImageBuilder builder(geometry);
  CLUSTERS chain;
  for (std::uint32_t c = 3; chain.size() < 200; c += chain.size() % 5 == 0 ? 2u : 1u) chain.push_back(c);
  std::rotate(chain.begin(), At(chain, 70), chain.end());
  const BYTES content = Content(200 * 4096 - 1000, 3);
  builder.AddFile(CImageBuilder::Root(), "F", content, chain);
  MountBuilt(builder);
  COpened file(Fs(), "F");
  ASSERT_EQ(file.Status, 0);
  std::mt19937 random(5);
  for (unsigned int i = 0; i < 40; ++i) {
    const unsigned int pos = static_cast<unsigned int>(random() % content.size());
    const unsigned int len = static_cast<unsigned int>(random() % (2 * BLOCK));
    BYTES buffer(len, 0x11);
    unsigned int done;
    EXPECT_EQ(file->Read(pos, len, buffer.data(), &done), 0);
    const std::size_t part = std::min<std::size_t>(len, content.size() - pos);
    EXPECT_EQ(Part(buffer, 0, part), Part(content, pos, part)) << len << " at " << pos;
    EXPECT_EQ(Part(buffer, part, len - part), BYTES(len - part, 0x11)) << "nothing behind the end of the file";
  }
}

TEST_P(FatFileWidths, PositionedAccessAtOrBeyondTheSize_IsTheEndOfTheFile) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(CImageBuilder::Root(), "F", Content(700, 3));
  builder.AddFile(CImageBuilder::Root(), "EMPTY");
  MountBuilt(builder);
  COpened file(Fs(), "F");
  COpened empty(Fs(), "EMPTY");
  Medium().ClearTrace();
  BYTES buffer(100, 0x11);
  for (const long long pos : {700LL, 701LL, 1024LL, 0x100000000LL, 0x1000002BCLL, LLONG_MAX}) {
    unsigned int done = 7;
    EXPECT_EQ(file->Read(pos, 100, buffer.data(), &done), END_OF_FILE) << pos;
    EXPECT_EQ(done, 0u);
    done = 7;
    EXPECT_EQ(file->Write(pos, 100, buffer.data(), &done), END_OF_FILE) << pos;
    EXPECT_EQ(done, 0u);
    EXPECT_EQ(file->Read(pos, 0, nullptr, &done), END_OF_FILE) << pos;
  }
  unsigned int done = 7;
  EXPECT_EQ(empty->Read(0, 100, buffer.data(), &done), END_OF_FILE);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(Medium().Transfers(), 0u);
  EXPECT_EQ(buffer, BYTES(100, 0x11));
}

TEST_P(FatFileWidths, PositionedAccessBelowZero_IsTheEndOfTheFileAndTakesNoBlock) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(CImageBuilder::Root(), "F", Content(700, 3));
  MountBuilt(builder);
  COpened file(Fs(), "F");
  const unsigned int blocks = CFatFile::BLOCK_CACHE::BlocksInUse();
  BYTES buffer(BLOCK, 0x11);
  for (const long long pos : {-1LL, -10LL, -0x40000LL, -0x100000000LL, LLONG_MIN}) {
    for (unsigned int i = 0; i < 60; ++i) {
      unsigned int done = 7;
      EXPECT_EQ(file->Read(pos, BLOCK, buffer.data(), &done), END_OF_FILE) << pos;
      EXPECT_EQ(done, 0u);
      done = 7;
      EXPECT_EQ(file->Write(pos, BLOCK, buffer.data(), &done), END_OF_FILE) << pos;
      EXPECT_EQ(done, 0u);
    }
  }
  EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), blocks);
  EXPECT_EQ(ReadObject(*file, 700), Content(700, 3));
}

TEST_P(FatFileWidths, AccessOverTheEnd_IsCutToTheSize) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(CImageBuilder::Root(), "F", Content(700, 3), {10, 11});
  const BYTES slack = CImageBuilder::Pattern(324, 9);
  builder.Store().WriteBytes(builder.ClusterOffset(11) + 188, slack);
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    BYTES buffer(1000, 0x11);
    unsigned int done;
    EXPECT_EQ(file->Read(600, 1000, buffer.data(), &done), 0);
    EXPECT_EQ(done, 100u);
    EXPECT_EQ(buffer, Join(Part(Content(700, 3), 600, 100), BYTES(900, 0x11)));
    std::fill(buffer.begin(), buffer.end(), static_cast<unsigned char>(0xEE));
    EXPECT_EQ(file->Write(600, 0xFFFFFFFF, buffer.data(), &done), 0);
    EXPECT_EQ(done, 100u);
    EXPECT_EQ(file->Size(), 700u) << "writing never extends a file";
  }
  const CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(image.ReadBytes(builder.ClusterOffset(11), 512),
            Join(Join(Part(Content(700, 3), 512, 88), BYTES(100, 0xEE)), slack));
}

TEST_P(FatFileWidths, DirectoryIsAccessedUpToItsAllocation) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "D", {10, 11, 12});
  builder.AddFile(dir, "F");
  const BYTES entries = builder.Store().ReadBytes(builder.ClusterOffset(10), 3 * 512);
  MountBuilt(builder);
  COpened opened(Fs(), "D");
  ASSERT_EQ(opened.Status, 0);
  EXPECT_EQ(opened->Size(), 0u);
  EXPECT_EQ(ReadObject(*opened, 3 * 512), entries);
  BYTES buffer(100);
  unsigned int done;
  EXPECT_EQ(opened->Read(3 * 512, 100, buffer.data(), &done), END_OF_FILE);
  EXPECT_EQ(opened->Read(3 * 512 - 10, 100, buffer.data(), &done), 0);
  EXPECT_EQ(done, 10u);
}

TEST_F(FatFile, SizeLargerThanTheChain_ReadsFailBehindItAndGiveTheirBlocksBack) {
  FAT_GEOMETRY geometry = SmallVolume(16);
  geometry.SectorsPerCluster = 8;
  CImageBuilder builder(geometry);
  ENTRY_OPTIONS options;
  options.SetSize = true;
  options.Size = 0x7FFFFFFF;
  const BYTES content = Content(100 * 4096, 8);  // a block and a half
  builder.AddFile(CImageBuilder::Root(), "F", content, Range(10, 100), options);
  MountBuilt(builder);
  COpened file(Fs(), "F");
  ASSERT_EQ(file.Status, 0);
  const unsigned int blocks = CFatFile::BLOCK_CACHE::BlocksInUse();
  BYTES buffer(BLOCK);
  unsigned int done;
  for (unsigned int i = 0; i < 300; ++i) {
    ASSERT_EQ(file->Read(10LL * BLOCK + i, 10, buffer.data(), &done), FILE_CORRUPT);
    ASSERT_EQ(file->Read(BLOCK, 10, buffer.data(), &done), FILE_CORRUPT) << "the block's end lies behind the chain";
  }
  EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), blocks);
  EXPECT_EQ(file->Read(0, BLOCK, buffer.data(), &done), 0);
  EXPECT_EQ(buffer, Part(content, 0, BLOCK));
}

// ---------------------------------------------------------------- sequential access

TEST_P(FatFileWidths, SequentialReads_AdvanceByWhatIsReportedAndStopAtTheEnd) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const BYTES content = Content(1000, 3);
  builder.AddFile(CImageBuilder::Root(), "F", content);
  MountBuilt(builder);
  COpened file(Fs(), "F");
  BYTES buffer(400);
  unsigned int done = 7;
  EXPECT_EQ(file->Read(400, buffer.data(), &done), 0);
  EXPECT_EQ(done, 400u);
  EXPECT_EQ(file->Read(400, buffer.data(), &done), 0);
  EXPECT_EQ(file->Offset(), 800u);
  EXPECT_EQ(buffer, Part(content, 400, 400));
  EXPECT_EQ(file->Read(400, buffer.data(), &done), 0);
  EXPECT_EQ(done, 200u);
  EXPECT_EQ(file->Offset(), 1000u);
  done = 7;
  EXPECT_EQ(file->Read(400, buffer.data(), &done), 0) << "the end of the file is no failure here";
  EXPECT_EQ(done, 0u);
  done = 7;
  EXPECT_EQ(file->Write(400, buffer.data(), &done), 0);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(file->Offset(), 1000u);
}

TEST_P(FatFileWidths, SequentialWrites_AdvanceAndStopAtTheSize) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(CImageBuilder::Root(), "F", Content(1000, 3), {10, 11});
  MountBuilt(builder);
  {
    COpened file(Fs(), "F");
    BYTES buffer(600, 0xAB);
    unsigned int done;
    EXPECT_EQ(file->Write(600, buffer.data(), &done), 0);
    EXPECT_EQ(done, 600u);
    EXPECT_EQ(file->Write(600, buffer.data(), &done), 0);
    EXPECT_EQ(done, 400u);
    EXPECT_EQ(file->Offset(), 1000u);
  }
  EXPECT_EQ(UnmountBuilt().ReadBytes(builder.ClusterOffset(10), 1000), BYTES(1000, 0xAB));
}

class FatFileOffset : public FatFile {
 protected:
  /// A file of eight blocks, of which block 0 is cached.
  void MountLargeFile() {
    FAT_GEOMETRY geometry;
    geometry.FatBits = 16;
    geometry.SectorsPerCluster = 16;
    CImageBuilder builder(geometry);
    m_Content = Content(8 * BLOCK, 4);
    builder.AddFile(CImageBuilder::Root(), "F", m_Content);
    MountBuilt(builder);
  }
  BYTES m_Content;
};

TEST_F(FatFileOffset, TransferThatStartsInsideAnUncachedBlock_LeavesTheOffset) {
  MountLargeFile();
  COpened file(Fs(), "F");
  file->Seek(BLOCK + 10, CFatFile::SEEK_BEGIN);
  BYTES buffer(50);
  unsigned int done = 7;
  EXPECT_EQ(file->Read(50, buffer.data(), &done), 0);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(file->Offset(), BLOCK + 10);
  EXPECT_EQ(buffer, Part(m_Content, BLOCK + 10, 50));
  EXPECT_EQ(file->Read(50, buffer.data(), &done), 0);
  EXPECT_EQ(file->Offset(), BLOCK + 60) << "now the block is cached";

  file->Seek(3 * BLOCK + 10, CFatFile::SEEK_BEGIN);
  BYTES data(50, 0xCC);
  EXPECT_EQ(file->Write(50, data.data(), &done), 0);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(file->Offset(), 3 * BLOCK + 10);
  EXPECT_EQ(file->Read(50, buffer.data(), &done), 0);
  EXPECT_EQ(buffer, data);
  EXPECT_EQ(file->Offset(), 3 * BLOCK + 60);
}

TEST_F(FatFileOffset, TransferInSeveralPieces_AdvancesByMoreThanItsLength) {
  MountLargeFile();
  COpened file(Fs(), "F");
  BYTES buffer(8 * BLOCK);
  unsigned int done;
  EXPECT_EQ(file->Read(2 * BLOCK, 1, buffer.data(), &done), 0);
  file->Seek(0x40100, CFatFile::SEEK_BEGIN);
  EXPECT_EQ(file->Read(0x140010 - 0x40100, buffer.data(), &done), 0);
  EXPECT_EQ(done, 0x40000u + 2 * 0x80010u);
  EXPECT_EQ(file->Offset(), 0x40100u + 0x40000u + 2 * 0x80010u);
  EXPECT_EQ(Part(buffer, 0, 0x140010 - 0x40100), Part(m_Content, 0x40100, 0x140010 - 0x40100));
}

TEST_F(FatFileOffset, OffsetAdvancedBeyondTheSize_ReadsNothingAndIsCutByTheNextSeek) {
  MountLargeFile();
  COpened file(Fs(), "F");
  BYTES buffer(8 * BLOCK);
  unsigned int done;
  for (const unsigned int blk : {2u, 4u})
    EXPECT_EQ(file->Read(static_cast<long long>(blk) * BLOCK, 1, buffer.data(), &done), 0);
  file->Seek(BLOCK, CFatFile::SEEK_BEGIN);
  // Blocks 2 and 4 come from the cache; block 1, block 3 and blocks 5 to 7 are pieces.
  EXPECT_EQ(file->Read(7 * BLOCK, buffer.data(), &done), 0);
  EXPECT_EQ(done, 2 * BLOCK + 3 * 3 * BLOCK);
  EXPECT_EQ(file->Offset(), 12 * BLOCK);
  EXPECT_EQ(Part(buffer, 0, 7 * BLOCK), Part(m_Content, BLOCK, 7 * BLOCK));
  EXPECT_EQ(file->Read(10, buffer.data(), &done), 0);
  EXPECT_EQ(done, 0u);
  file->Seek(0, CFatFile::SEEK_CURRENT);
  EXPECT_EQ(file->Offset(), 8 * BLOCK);
}

TEST_F(FatFileOffset, FailedTransfer_LeavesTheOffset) {
  MountLargeFile();
  COpened file(Fs(), "F");
  BYTES buffer(3 * BLOCK);
  unsigned int done;
  Medium().FailAt(1, FAULT_ONCE);
  EXPECT_EQ(file->Read(3 * BLOCK, buffer.data(), &done), IO_ERROR);
  EXPECT_EQ(done, BLOCK) << "the cached block";
  EXPECT_EQ(file->Offset(), 0u);
}

// ---------------------------------------------------------------- seeking

struct SEEK_CASE {
  unsigned int Size, Start, Distance, Method, Result;
};

TEST_F(FatFile, Seek_IsCutToTheSize) {
  CImageBuilder builder(SmallVolume(16));
  builder.AddFile(CImageBuilder::Root(), "F", Content(1000, 3));
  MountBuilt(builder);
  const SEEK_CASE cases[] = {
      {3, 0, 0, 0, 0},
      {3, 1, 2, 0, 2},
      {3, 0, 3, 0, 3},
      {3, 0, 4, 0, 3},
      {3, 0, 10, 0, 3},
      {3, 0, 0xFFFFFFFF, 0, 3},
      {3, 1, 1, 1, 2},
      {3, 1, 2, 1, 3},
      {3, 2, 5, 1, 3},
      {3, 2, 0xFFFFFFFF, 1, 3},
      {3, 2, 0xFFFFFFFE, 1, 3},
      {3, 2, 0, 1, 2},
      {3, 2, 0, 2, 3},
      {3, 2, 1, 2, 2},
      {3, 2, 3, 2, 0},
      {3, 2, 5, 2, 0},
      {3, 2, 0xFFFFFFFF, 2, 0},
      {3, 2, 1, 3, 2},
      {3, 2, 0, 0xFFFFFFFF, 2},
      {0, 0, 5, 0, 0},
      {0, 0, 5, 1, 0},
      {0, 0, 5, 2, 0},
      {0xFFFFFFFF, 0xFFFFFFF0, 0x10, 1, 0xFFFFFFFF},
      {0xFFFFFFFF, 0xFFFFFFF0, 0xF, 1, 0xFFFFFFFF},
      {0xFFFFFFFF, 0xFFFFFFF0, 0xE, 1, 0xFFFFFFFE},
      {0xFFFFFFFF, 5, 0xFFFFFFFF, 0, 0xFFFFFFFF},
      {0xFFFFFFFF, 5, 0xFFFFFFFE, 2, 1},
  };
  for (const SEEK_CASE& seek : cases) {
    COpened file(Fs(), "F");
    file->Info()->FileSize.Store(0xFFFFFFFF);
    file->Seek(seek.Start, CFatFile::SEEK_BEGIN);
    file->Info()->FileSize.Store(seek.Size);
    file->Seek(seek.Distance, seek.Method);
    EXPECT_EQ(file->Offset(), seek.Result)
        << "size " << seek.Size << " from " << seek.Start << " by " << seek.Distance << " method " << seek.Method;
    file->Info()->FileSize.Store(1000);
  }
}

TEST_F(FatFile, UnknownSeekMethodBehindTheSize_StillCutsTheOffset) {
  CImageBuilder builder(SmallVolume(16));
  builder.AddFile(CImageBuilder::Root(), "F", Content(1000, 3));
  MountBuilt(builder);
  COpened file(Fs(), "F");
  file->Seek(900, CFatFile::SEEK_BEGIN);
  file->Info()->FileSize.Store(100);
  file->Seek(0, 9);
  EXPECT_EQ(file->Offset(), 100u);
  file->Info()->FileSize.Store(1000);
}

TEST_F(FatFile, SeekInADirectory_AlwaysGivesZero) {
  CImageBuilder builder(SmallVolume(16));
  builder.AddDir(CImageBuilder::Root(), "D");
  MountBuilt(builder);
  COpened dir(Fs(), "D");
  for (const unsigned int method : {0u, 1u, 2u, 3u}) {
    BYTES buffer(32);
    unsigned int done;
    EXPECT_EQ(dir->Read(32, buffer.data(), &done), 0);
    EXPECT_EQ(dir->Offset(), 32u);
    dir->Seek(10, method);
    EXPECT_EQ(dir->Offset(), 0u) << method;
  }
}

// ---------------------------------------------------------------- the directory entry

TEST_P(FatFileWidths, UpdateOfAFileInTheRoot_WritesItsWholeEntryAndNothingElse) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(CImageBuilder::Root(), "BEFORE", Content(10, 1));
  const unsigned int slot = builder.AddFile(CImageBuilder::Root(), "Long file name.txt", Content(10, 2));
  builder.AddFile(CImageBuilder::Root(), "AFTER", Content(10, 3));
  std::vector<RAW_ENTRY> expected = builder.Entries(CImageBuilder::Root());
  MountBuilt(builder);
  {
    COpened file(Fs(), "long FILE name.txt");
    ASSERT_EQ(file.Status, 0);
    for (std::size_t i = 11; i < 32; ++i) expected[slot][i] = static_cast<unsigned char>(0x40 + i);
    expected[slot][11] = 0x23;
    std::memcpy(file->Info(), expected[slot].data(), 32);
    Medium().ClearTrace();
    EXPECT_EQ(file->UpdateShortDirEnt(nullptr, nullptr), 0);
    EXPECT_EQ(Medium().Transfers(), 0u) << "the entry is changed in the directory's cached block";
    EXPECT_EQ(Fs().Root()->RefCount(), 1u);
    DENTCTX* record = Fs().Root()->LookupFile(CPath("Long file name.txt"));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(std::memcmp(&record->ShortEntry, expected[slot].data(), 32), 0);
    file->Info()->FileSize.Store(0);  // its pretended size must not be used any more
  }
  UnmountBuilt();
  CImageBuilder after(Medium().Image());
  EXPECT_EQ(after.Entries(CImageBuilder::Root()), expected);
}

TEST_P(FatFileWidths, UpdateOfAFileInASubdirectory_OpensAndClosesTheParent) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CImageBuilder::DIRECTORY outer = builder.AddDir(CImageBuilder::Root(), "OUTER");
  const CImageBuilder::DIRECTORY inner = builder.AddDir(outer, "Inner directory");
  builder.AddFile(inner, "FIRST");
  const unsigned int slot = builder.AddFile(inner, "File", Content(10, 2));
  MountBuilt(builder);
  {
    COpened parent(Fs(), "OUTER\\Inner directory");
    COpened file(Fs(), "outer\\inner DIRECTORY\\file");
    ASSERT_EQ(file.Status, 0);
    ASSERT_EQ(parent.Status, 0);
    BYTES buffer(32);
    unsigned int done;
    EXPECT_EQ(parent->Read(32, buffer.data(), &done), 0);
    EXPECT_EQ(parent->Offset(), 32u);
    file->Info()->Attribute = 0x27;
    EXPECT_EQ(file->UpdateShortDirEnt(nullptr, nullptr), 0);
    EXPECT_EQ(parent->RefCount(), 2u) << "the cache's and the handle's";
    EXPECT_EQ(parent->Offset(), 0u) << "closing resets it";
  }
  UnmountBuilt();
  CImageBuilder after(Medium().Image());
  RAW_ENTRY expected = builder.Entry(inner, slot);
  expected[11] = 0x27;
  EXPECT_EQ(after.Entry(after.AdoptDir(builder.DirectoryClusters(inner)[0]), slot), expected);
}

TEST_P(FatFileWidths, UpdateWithGivenParentAndRecord_NeedsNoPath) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "D");
  const unsigned int slot = builder.AddFile(dir, "F", Content(10, 2));
  MountBuilt(builder);
  {
    COpened parent(Fs(), "D");
    DENTCTX* record = parent.Dir()->LookupFile(CPath("F"));
    ASSERT_NE(record, nullptr);
    CBuilt file(Fs(), record);
    file->Info()->Attribute = 0x07;
    EXPECT_EQ(file->UpdateShortDirEnt(nullptr, nullptr), FILE_CORRUPT) << "it has no path";
    EXPECT_EQ(record->ShortEntry.Attribute, 0x20);
    EXPECT_EQ(file->UpdateShortDirEnt(parent.Dir(), record), 0);
    EXPECT_EQ(record->ShortEntry.Attribute, 0x07);
    EXPECT_EQ(parent->RefCount(), 2u) << "a parent that was given is not closed";
  }
  UnmountBuilt();
  CImageBuilder after(Medium().Image());
  RAW_ENTRY expected = builder.Entry(dir, slot);
  expected[11] = 0x07;
  EXPECT_EQ(after.Entry(after.AdoptDir(builder.DirectoryClusters(dir)[0]), slot), expected);
}

TEST_P(FatFileWidths, UpdateOfTheRoot_DoesNothing) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(CImageBuilder::Root(), "F");
  MountBuilt(builder);
  EXPECT_EQ(Fs().Root()->UpdateShortDirEnt(nullptr, nullptr), 0);
  Medium().ClearTrace();
  const CDiskImage& image = UnmountBuilt();
  const std::uint64_t rootBytes = builder.SlotCount(CImageBuilder::Root()) * 32u;
  for (const IO_RECORD& record : Medium().WriteTrace())
    EXPECT_FALSE(record.Touches(static_cast<long long>(builder.RootOffset()), rootBytes)) << record;
  EXPECT_EQ(CImageBuilder(Medium().Image()).Entries(CImageBuilder::Root()), builder.Entries(CImageBuilder::Root()));
  EXPECT_EQ(image.Size(), builder.Image().Size());
}

TEST_P(FatFileWidths, EntryRenamedMeanwhile_UpdateFailsAndTheRootStays) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(CImageBuilder::Root(), "OLD", Content(10, 2));
  builder.AddFile(CImageBuilder::Root(), "OTHER", Content(10, 3));
  MountBuilt(builder);
  {
    COpened file(Fs(), "OLD");
    ASSERT_EQ(Fs().RenameFile(CPath("OLD"), CPath("NEW")), 0);
    CFatDir* root = Fs().Root();
    for (unsigned int i = 0; i < 5; ++i) {
      BYTES buffer(32);
      unsigned int done;
      EXPECT_EQ(root->Read(32, buffer.data(), &done), 0);
      EXPECT_EQ(root->Offset(), 32u);
      EXPECT_EQ(file->UpdateShortDirEnt(nullptr, nullptr), FILE_CORRUPT);
      EXPECT_EQ(Fs().Root(), root);
      EXPECT_EQ(root->RefCount(), 1u);
      EXPECT_EQ(root->Offset(), 0u) << "reset as by a close";
    }
    COpened other(Fs(), "OTHER");
    EXPECT_EQ(other.Status, 0);
    EXPECT_EQ(other->UpdateShortDirEnt(nullptr, nullptr), 0);
  }
  UnmountBuilt();
  CVolumeReader reader(Medium().Image());
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_NE(reader.Find("NEW"), nullptr);
}

TEST_P(FatFileWidths, EntryInSubdirectoryRenamedMeanwhile_UpdateFailsAndTheParentIsClosed) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "D");
  builder.AddFile(dir, "OLD", Content(10, 2));
  MountBuilt(builder);
  COpened parent(Fs(), "D");
  COpened file(Fs(), "D\\OLD");
  ASSERT_EQ(Fs().RenameFile(CPath("D\\OLD"), CPath("NEW")), 0);
  for (unsigned int i = 0; i < 5; ++i) {
    CFatDir* found = nullptr;
    DENTCTX* record = nullptr;
    EXPECT_EQ(file->OpenParentDir(&found, record), FILE_CORRUPT);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(parent->RefCount(), 2u);
  }
}

TEST_F(FatFile, OpenParentDir_GivesTheRootUnreferencedAndAnotherParentReferenced) {
  CImageBuilder builder(SmallVolume(16));
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "D");
  builder.AddFile(dir, "F");
  MountBuilt(builder);
  COpened dirFile(Fs(), "D");
  COpened file(Fs(), "D\\F");
  CFatDir* parent = nullptr;
  DENTCTX* record = nullptr;
  ASSERT_EQ(dirFile->OpenParentDir(&parent, record), 0);
  EXPECT_EQ(parent, Fs().Root());
  EXPECT_EQ(parent->RefCount(), 1u);
  EXPECT_EQ(record, Fs().Root()->LookupFile(CPath("D")));

  ASSERT_EQ(file->OpenParentDir(&parent, record), 0);
  EXPECT_EQ(parent, dirFile.Get());
  EXPECT_EQ(parent->RefCount(), 3u);
  EXPECT_EQ(record, dirFile.Dir()->LookupFile(CPath("F")));
  EXPECT_FALSE(parent->Close());
}

/// Opens so many paths that everything opened before has left the open-file cache.
class FatFileEvicted : public FatFile {
 protected:
  void AddManyFiles(CImageBuilder& builder) {
    for (unsigned int i = 0; i < 160; ++i) builder.AddFile(CImageBuilder::Root(), "N" + std::to_string(i));
  }
  void OpenManyFiles() {
    for (unsigned int i = 0; i < 160; ++i) {
      COpened file(Fs(), "N" + std::to_string(i));
      ASSERT_EQ(file.Status, 0);
    }
  }
};

TEST_F(FatFileEvicted, OpenObject_KeepsItsPathAndFindsItsEntry) {
  CImageBuilder builder(SmallVolume(16));
  AddManyFiles(builder);
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "D");
  const unsigned int slot = builder.AddFile(dir, "F", Content(10, 2));
  MountBuilt(builder);
  {
    COpened file(Fs(), "D\\F");
    OpenManyFiles();
    EXPECT_EQ(file->RefCount(), 1u) << "the cache has let it go";
    EXPECT_EQ(ToUtf8Z(file->FullPathFileNameUpcase(), 260), "D\\F");
    file->Info()->Attribute = 0x02;
    EXPECT_EQ(file->UpdateShortDirEnt(nullptr, nullptr), 0);
  }
  UnmountBuilt();
  CImageBuilder after(Medium().Image());
  EXPECT_EQ(after.Entry(after.AdoptDir(builder.DirectoryClusters(dir)[0]), slot)[11], 0x02);
}

TEST_F(FatFileEvicted, ParentThatIsGone_FailsWithTheStatusOfOpeningIt) {
  CImageBuilder builder(SmallVolume(16));
  AddManyFiles(builder);
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "D");
  builder.AddFile(dir, "F", Content(10, 2));
  MountBuilt(builder);
  COpened file(Fs(), "D\\F");
  OpenManyFiles();
  ASSERT_EQ(Fs().RenameFile(CPath("D"), CPath("E")), 0);
  EXPECT_EQ(file->UpdateShortDirEnt(nullptr, nullptr), NOT_FOUND);
  EXPECT_EQ(Fs().Root()->RefCount(), 1u);
}

TEST_F(FatFileEvicted, ParentThatCannotBeRead_FailsWithTheStatusOfOpeningIt) {
  CImageBuilder builder(SmallVolume(16));
  AddManyFiles(builder);
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "D");
  builder.AddFile(dir, "F", Content(10, 2));
  MountBuilt(builder);
  COpened file(Fs(), "D\\F");
  OpenManyFiles();
  EvictAllBlocks();
  Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads);
  EXPECT_EQ(file->UpdateShortDirEnt(nullptr, nullptr), FILE_CORRUPT);
  EXPECT_TRUE(Medium().Fired());
  EXPECT_EQ(file->UpdateShortDirEnt(nullptr, nullptr), 0);
}

TEST_F(FatFile, BlockOfTheParentCannotBeLoaded_UpdateReturnsTheStatus) {
  CImageBuilder builder(SmallVolume(16));
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "D");
  builder.AddFile(dir, "F", Content(10, 2));
  MountBuilt(builder);
  COpened file(Fs(), "D\\F");
  EvictAllBlocks();
  Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads, static_cast<int>(0xC0000999u));
  EXPECT_EQ(file->UpdateShortDirEnt(nullptr, nullptr), static_cast<int>(0xC0000999u));
  Medium().ClearTrace();
  EXPECT_EQ(file->UpdateShortDirEnt(nullptr, nullptr), 0);
  // The block is loaded before it is changed; the write waits.
  EXPECT_EQ(Medium().Trace(),
            TRACE({{IO_KIND::ReadBytes,
                    static_cast<long long>(builder.ClusterOffset(builder.DirectoryClusters(dir)[0])), 512, 0}}));
}

TEST_F(FatFile, EntryCannotBeWritten_ItsRecordHasTheNewBytesAllTheSame) {
  CImageBuilder builder(SmallVolume(16));
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "D");
  const unsigned int slot = builder.AddFile(dir, "F", Content(10, 2));
  MountBuilt(builder);
  COpened parent(Fs(), "D");
  COpened file(Fs(), "D\\F");
  EvictAllBlocks();
  file->Info()->Attribute = 0x27;
  Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads);
  EXPECT_EQ(file->UpdateShortDirEnt(nullptr, nullptr), IO_ERROR);
  EXPECT_EQ(parent.Dir()->LookupFile(CPath("F"))->ShortEntry.Attribute, 0x27);
  EXPECT_EQ(parent->RefCount(), 2u) << "closed again";
  EXPECT_EQ(ReadObject(*parent, 512)[32 * slot + 11], 0x20);
}

TEST_F(FatFile, UpdateInTheRoot_LeavesTheRootsReferencesAndOffset) {
  CImageBuilder builder(SmallVolume(16));
  builder.AddFile(CImageBuilder::Root(), "F", Content(10, 2));
  MountBuilt(builder);
  COpened file(Fs(), "F");
  const CObjectRef<CFatDir> root(Fs().Root());
  BYTES buffer(32);
  unsigned int done;
  EXPECT_EQ(root->Read(32, buffer.data(), &done), 0);
  EXPECT_EQ(file->UpdateShortDirEnt(nullptr, nullptr), 0);
  EXPECT_EQ(root->RefCount(), 2u);
  EXPECT_EQ(root->Offset(), 32u);
}

// A failed look-up in the root closes nothing: the root was not opened for it.
TEST_F(FatFile, EntryInTheRootIsGone_OtherReferencesOnTheRootStay) {
  CImageBuilder builder(SmallVolume(16));
  builder.AddFile(CImageBuilder::Root(), "OLD", Content(10, 2));
  MountBuilt(builder);
  COpened file(Fs(), "OLD");
  ASSERT_EQ(Fs().RenameFile(CPath("OLD"), CPath("NEW")), 0);
  const CObjectRef<CFatDir> root(Fs().Root());
  for (unsigned int i = 0; i < 3; ++i) {
    EXPECT_EQ(file->UpdateShortDirEnt(nullptr, nullptr), FILE_CORRUPT);
    EXPECT_EQ(root->RefCount(), 2u);
  }
}

TEST_P(FatFileWidths, UpdateDotDot_WritesTheNewParentsStartCluster) {
  FAT_GEOMETRY geometry = SmallVolume(GetParam());
  if (GetParam() == 32) geometry.Clusters = 70000;
  CImageBuilder builder(geometry);
  const std::uint32_t parentCluster = GetParam() == 32 ? 66000 : 500;
  builder.AddDir(CImageBuilder::Root(), "PARENT", {parentCluster});
  builder.AddDir(CImageBuilder::Root(), "D", {10});
  const BYTES before = builder.Cluster(10);
  MountBuilt(builder);
  {
    COpened parent(Fs(), "PARENT");
    COpened dir(Fs(), "D");
    EXPECT_EQ(dir->UpdateDotDotDirEnt(parent.Dir()), 0);
  }
  BYTES expected = before;
  expected[32 + 20] = static_cast<unsigned char>(parentCluster >> 16);
  expected[32 + 21] = static_cast<unsigned char>(parentCluster >> 24);
  expected[32 + 26] = static_cast<unsigned char>(parentCluster);
  expected[32 + 27] = static_cast<unsigned char>(parentCluster >> 8);
  UnmountBuilt();
  EXPECT_EQ(Medium().Image().ReadBytes(builder.ClusterOffset(10), 512), expected);
}

TEST_P(FatFileWidths, UpdateDotDotForTheRoot_WritesTheRootsMarkAsItIs) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CImageBuilder::DIRECTORY parent = builder.AddDir(CImageBuilder::Root(), "PARENT");
  builder.AddDir(parent, "D", {50});
  MountBuilt(builder);
  {
    COpened dir(Fs(), "PARENT\\D");
    EXPECT_EQ(dir->UpdateDotDotDirEnt(Fs().Root()), 0);
  }
  UnmountBuilt();
  const std::uint64_t dotdot = builder.ClusterOffset(50) + 32;
  const std::uint32_t expected = GetParam() == 32 ? 2 : NO_CLUSTER_MARK;
  EXPECT_EQ(Medium().Image().Get16(dotdot + 20), expected >> 16);
  EXPECT_EQ(Medium().Image().Get16(dotdot + 26), expected & 0xFFFF);
}

TEST_F(FatFile, UpdateDotDotThatCannotRead_ReturnsTheStatusAndWritesNothing) {
  CImageBuilder builder(SmallVolume(16));
  builder.AddDir(CImageBuilder::Root(), "D", {50});
  MountBuilt(builder);
  COpened dir(Fs(), "D");
  EvictAllBlocks();
  Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads, static_cast<int>(0xC0000999u));
  EXPECT_EQ(dir->UpdateDotDotDirEnt(Fs().Root()), static_cast<int>(0xC0000999u));
  ASSERT_EQ(dir->SetSize(0, nullptr, nullptr), 0);
  EXPECT_EQ(dir->UpdateDotDotDirEnt(Fs().Root()), END_OF_FILE) << "a directory without a cluster";
}

// ---------------------------------------------------------------- closing and destruction

TEST_P(FatFileWidths, Close_ResetsTheOffsetAndDropsOneReferenceWithoutTransfer) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(CImageBuilder::Root(), "F", Content(1000, 3), {10, 11});
  MountBuilt(builder);
  CFatFile* first = nullptr;
  CFatFile* second = nullptr;
  ASSERT_EQ(Fs().OpenFile(CPath("F"), &first), 0);
  ASSERT_EQ(Fs().OpenFile(CPath("f"), &second), 0);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first->RefCount(), 3u);
  first->Seek(500, CFatFile::SEEK_BEGIN);
  EXPECT_EQ(WriteAt(*first, 0, BYTES(10, 0xAA)), 0);
  Medium().ClearTrace();
  EXPECT_FALSE(first->Close());
  EXPECT_EQ(second->RefCount(), 2u);
  EXPECT_EQ(second->Offset(), 0u);
  EXPECT_FALSE(second->Close());
  EXPECT_EQ(Medium().Transfers(), 0u) << "the object lives on in the cache, its data unwritten";
  UnmountBuilt();
  EXPECT_EQ(Medium().Image().ReadBytes(builder.ClusterOffset(10), 10), BYTES(10, 0xAA));
}

TEST_P(FatFileWidths, LastReference_WritesDirtyBlocksAndFreesAll) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CLUSTERS chain = {10, 11, 20};
  builder.SetChain(chain);
  MountBuilt(builder);
  const std::size_t outstanding = Memory().Outstanding();
  const unsigned int blocks = CFatFile::BLOCK_CACHE::BlocksInUse();
  {
    CBuilt file(Fs(), 10, 1400);
    file->AddRef();
    EXPECT_EQ(WriteAt(*file, 0, BYTES(1400, 0xAB)), 0);
    Medium().ClearTrace();
    EXPECT_FALSE(file->Release());
    EXPECT_EQ(Medium().Transfers(), 0u);
  }
  EXPECT_EQ(Medium().Trace(), ExpectedTransfers(builder, chain, 0, 1400, true));
  EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), blocks);
  EXPECT_LE(Memory().Outstanding(), outstanding + 1);  // the map's array is kept in stock
  EXPECT_EQ(Medium().Image().ReadBytes(builder.ClusterOffset(20), 376), BYTES(376, 0xAB));
}

TEST_P(FatFileWidths, LastReferenceOfADirectoryOrOfAnOpenedFile_FreesItsEntriesToo) {
  CImageBuilder builder(SmallVolume(GetParam()));
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "D");
  for (unsigned int i = 0; i < 12; ++i) builder.AddFile(dir, "a long name " + std::to_string(i));
  builder.AddFile(CImageBuilder::Root(), "F", CImageBuilder::Pattern(2000, 1));
  MountBuilt(builder);
  for (const char* path : {"D", "F"}) {
    std::size_t outstanding = 0;
    for (unsigned int round = 0; round < 3; ++round) {
      COpened object(Fs(), path);
      ASSERT_EQ(object.Status, 0);
      ASSERT_NE(object->DirEntCache(), nullptr);
      (void)object.Dir()->LookupFile(CPath("x"));  // a file's entries are looked at on first use
      Fs().FileCache()->Del(object.Get());
      EXPECT_EQ(object->RefCount(), 1u);
      object.Close();
      if (round == 0) outstanding = Memory().Outstanding();
      EXPECT_EQ(Memory().Outstanding(), outstanding) << path;
    }
  }
}

TEST_F(FatFile, NewKey_TakesOverItsTextAndFreesTheOneBefore) {
  MountBuilt(*std::make_unique<CImageBuilder>(SmallVolume(16)));
  CFatDir* file = new CFatDir;
  file->AddRef();
  const std::size_t outstanding = Memory().Outstanding();
  const unsigned short* text = nullptr;
  for (const char* path : {"dir\\one", "dir\\two", "three"}) {
    PATH_HASH hash;
    CPath units(path);
    hash.Calc(units);
    TriHashIdx key;
    ASSERT_TRUE(key.CopyLastUpcaseStr(hash));
    text = key.NamePtr();
    file->CloneHashIdx(key);
    EXPECT_EQ(file->PathIndexName(), text) << "the text itself, not a copy";
    EXPECT_EQ(file->FullPathFileNameUpcase(), text);
    EXPECT_TRUE(file->HashIdx().SameKey(hash.Full));
    EXPECT_EQ(CFileBase::FromHashIdx(&file->HashIdx()), file);
    EXPECT_EQ(Memory().Outstanding(), outstanding + 1);
  }
  EXPECT_EQ(ToUtf8Z(text, 260), "THREE");
  EXPECT_TRUE(file->Release()) << "the last reference: it is gone";
  EXPECT_EQ(Memory().Outstanding(), outstanding - 1);
}

TEST_P(FatFileWidths, CloseOfTheRoot_NeverDropsTheVolumesReference) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(CImageBuilder::Root(), "F", Content(10, 3));
  MountBuilt(builder);
  CFatDir* root = Fs().Root();
  BYTES buffer(32);
  unsigned int done;
  EXPECT_EQ(root->Read(32, buffer.data(), &done), 0);
  EXPECT_FALSE(root->Close());
  EXPECT_FALSE(root->Close());
  EXPECT_EQ(root->RefCount(), 1u);
  EXPECT_EQ(root->Offset(), 0u);
  root->AddRef();
  EXPECT_FALSE(root->Close());
  EXPECT_EQ(root->RefCount(), 1u);
  COpened file(Fs(), "F");
  EXPECT_EQ(file.Status, 0);
}

TEST_P(FatFileWidths, DirtyBlocks_ReachTheMediumWhenTheyAreEvicted) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(CImageBuilder::Root(), "F", Content(1000, 3), {10, 12});
  MountBuilt(builder);
  COpened file(Fs(), "F");
  EXPECT_EQ(WriteAt(*file, 100, BYTES(900, 0xCD)), 0);
  Medium().ClearTrace();
  EvictAllBlocks();
  EXPECT_EQ(Medium().WriteTrace(), ExpectedTransfers(builder, {10, 12}, 0, 1000, true));
  EXPECT_EQ(Medium().Image().ReadBytes(builder.ClusterOffset(12), 488), BYTES(488, 0xCD));
  EXPECT_EQ(ReadObject(*file, 1000), Join(Part(Content(1000, 3), 0, 100), BYTES(900, 0xCD)));
}

TEST_P(FatFileWidths, ObjectHeldAtUnmount_IsWrittenThenAndLeavesADeadShell) {
  CImageBuilder builder(SmallVolume(GetParam()));
  builder.AddFile(CImageBuilder::Root(), "F", Content(1000, 3), {10, 11});
  MountBuilt(builder);
  COpened file(Fs(), "F");
  EXPECT_EQ(WriteAt(*file, 0, BYTES(1000, 0xAA)), 0);
  UnmountBuilt();
  EXPECT_EQ(Medium().Image().ReadBytes(builder.ClusterOffset(10), 1000), BYTES(1000, 0xAA));
  EXPECT_TRUE(file->IsDead());
  EXPECT_EQ(file->RefCount(), 1u);
  EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), 0u);
  Medium().ClearTrace();
  file.Close();
  EXPECT_EQ(Medium().Transfers(), 0u);
}

TEST_F(FatFile, WriteBackFailsAtDestruction_ObjectGoesAndThePoolStaysWhole) {
  CImageBuilder builder(SmallVolume(16));
  builder.AddFile(CImageBuilder::Root(), "G", Content(1000, 4));
  builder.SetChain({10, 11});
  MountBuilt(builder);
  const unsigned int blocks = CFatFile::BLOCK_CACHE::BlocksInUse();
  for (unsigned int i = 0; i < 300; ++i) {
    CBuilt file(Fs(), 10, 1000);
    ASSERT_EQ(WriteAt(*file, 0, BYTES(10, 0xAB)), 0);
    Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Writes);
  }
  Medium().Heal();
  EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), blocks);
  EvictAllBlocks();
  COpened other(Fs(), "G");
  EXPECT_EQ(ReadObject(*other, 1000), Content(1000, 4));
}

TEST_F(FatFile, EveryTransferOfReadingAndWritingFailsInTurn_CallsFailAndNothingLeaks) {
  FAT_GEOMETRY geometry = SmallVolume(16);
  geometry.SectorsPerCluster = 8;
  CImageBuilder builder(geometry);
  CLUSTERS chain = Range(10, 40) + Range(60, 60) + Range(130, 60) + Range(200, 40);
  const BYTES content = Content(200 * 4096 - 77, 6);
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "D");
  builder.AddFile(dir, "F", content, chain);
  for (unsigned int failAt = 1;; ++failAt) {
    SCOPED_TRACE(::testing::Message() << "transfer " << failAt);
    MountBuilt(builder);
    Medium().FailAt(failAt, FAULT_ONCE);
    bool failed = false;
    {
      COpened file(Fs(), "D\\F");
      failed = file.Status < 0;
      if (!failed) {
        BYTES buffer(content.size());
        unsigned int done;
        const int status = file->Read(5, static_cast<unsigned int>(content.size()) - 5, buffer.data(), &done);
        failed = status < 0;
        if (!failed) {
          EXPECT_EQ(Part(buffer, 0, content.size() - 5), Part(content, 5, content.size() - 5));
        }
        if (!failed) failed = WriteAt(*file, 3 * BLOCK, BYTES(100, 0xEE)) < 0;
      }
    }
    const bool fired = Medium().Fired();
    EXPECT_EQ(failed, fired);
    Medium().Heal();
    UnmountBuilt();
    CVolumeReader reader(Medium().Image());
    EXPECT_EQ(reader.ProblemText(), "");
    if (!fired) {
      EXPECT_GT(failAt, 5u);
      break;
    }
  }
}

TEST_F(FatFile, EveryAllocationOfOpeningAndReadingFailsInTurn_CallsFailAndNothingLeaks) {
  FAT_GEOMETRY geometry = SmallVolume(16);
  geometry.SectorsPerCluster = 8;
  CImageBuilder builder(geometry);
  CLUSTERS chain;
  for (std::uint32_t c = 10; chain.size() < 150; c += 2) chain.push_back(c);
  const BYTES content = Content(150 * 4096 - 77, 6);
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "D");
  builder.AddFile(dir, "A file with a long name", content, chain);
  for (unsigned int failAt = 1;; ++failAt) {
    SCOPED_TRACE(::testing::Message() << "allocation " << failAt);
    MountBuilt(builder);
    bool failed = false;
    bool fired = false;
    {
      Memory().FailAt(failAt, CMemHooks::ONCE);
      COpened file(Fs(), "D\\A file with a long name");
      failed = file.Status < 0;
      BYTES buffer(content.size() + 1);
      const std::size_t odd = (reinterpret_cast<std::uintptr_t>(buffer.data()) & 1) != 0 ? 0 : 1;
      unsigned int done;
      if (!failed) {
        const int status = file->Read(0, static_cast<unsigned int>(content.size()), buffer.data() + odd, &done);
        EXPECT_TRUE(status == 0 || status == NO_MEMORY);
        failed = status < 0;
        if (!failed) {
          EXPECT_EQ(Part(buffer, odd, content.size()), content);
        }
      }
      fired = Memory().Fired();
      Memory().Heal();
      EXPECT_EQ(failed, fired);
      COpened again(Fs(), "D\\A file with a long name");
      EXPECT_EQ(again.Status, 0);
      EXPECT_EQ(ReadObject(*again, static_cast<unsigned int>(content.size())), content);
    }
    UnmountBuilt();
    if (!fired) {
      EXPECT_GT(failAt, 5u);
      break;
    }
  }
}

// ---------------------------------------------------------------- 4 GiB

class FatFileHuge : public FatFile {
 protected:
  static constexpr std::uint32_t FIRST = 100;
  static constexpr std::uint32_t CLUSTERS_OF_4_GIB = 131072;

  CImageBuilder HugeVolume(std::uint32_t clusters) {
    FAT_GEOMETRY geometry;
    geometry.FatBits = 32;
    geometry.SectorsPerCluster = 64;
    geometry.Clusters = clusters + 1000;
    CImageBuilder builder(geometry);
    builder.SetChain(Range(FIRST, clusters));
    return builder;
  }
};

TEST_F(FatFileHuge, ContiguousFileOf4GiBLessOneByte_IsReadAndWrittenToItsLastByte) {
  CImageBuilder builder = HugeVolume(CLUSTERS_OF_4_GIB);
  ENTRY_OPTIONS options;
  options.SetSize = options.SetFirstCluster = true;
  options.Size = 0xFFFFFFFF;
  options.FirstCluster = FIRST;
  builder.AddFile(CImageBuilder::Root(), "HUGE", {}, {}, options);
  const std::uint64_t start = builder.ClusterOffset(FIRST);
  builder.Store().WriteBytes(start + 0xFFFFFFF0u, CImageBuilder::Pattern(16, 5));
  builder.Store().WriteBytes(start + 0x80000000u, CImageBuilder::Pattern(3000, 6));
  MountBuilt(builder);
  {
    COpened file(Fs(), "HUGE");
    ASSERT_EQ(file.Status, 0);
    EXPECT_EQ(file->AllocBytes(), 0x100000000u);
    EXPECT_EQ(file->Limit(), 0xFFFFFFFFLL);
    BYTES buffer(4000);
    unsigned int done = 7;
    EXPECT_EQ(file->Read(0xFFFFFFF0LL, 100, buffer.data(), &done), 0);
    EXPECT_EQ(Part(buffer, 0, 15), Part(CImageBuilder::Pattern(16, 5), 0, 15));
    EXPECT_EQ(file->Read(0x80000000LL, 3000, buffer.data(), &done), 0);
    EXPECT_EQ(done, 3000u);
    EXPECT_EQ(Part(buffer, 0, 3000), CImageBuilder::Pattern(3000, 6));
    EXPECT_EQ(file->Read(0xFFFFFFFFLL, 1, buffer.data(), &done), END_OF_FILE);
    EXPECT_EQ(WriteAt(*file, 0xFFFFFFFELL, {0x5A, 0x5B}), 0);
    file->Seek(0xFFFFFFFF, CFatFile::SEEK_BEGIN);
    EXPECT_EQ(file->Offset(), 0xFFFFFFFFu);
    EXPECT_EQ(file->Read(10, buffer.data(), &done), 0);
    EXPECT_EQ(done, 0u);
  }
  UnmountBuilt();
  EXPECT_EQ(Medium().Image().Get8(start + 0xFFFFFFFEu), 0x5A);
  EXPECT_EQ(Medium().Image().Get8(start + 0xFFFFFFFFu), CImageBuilder::Pattern(16, 5)[15]) << "beyond the size";
}

TEST_F(FatFileHuge, RunOfExactly4GiB_IsTransferredByItsTrueLength) {
  CImageBuilder builder = HugeVolume(CLUSTERS_OF_4_GIB);
  const long long start = static_cast<long long>(builder.ClusterOffset(FIRST));
  MountBuilt(builder);
  CBuilt file(Fs(), FIRST, 0xFFFFFFFF);
  ASSERT_EQ(file.Status, 0);
  BYTES buffer(0x100000);
  EXPECT_EQ(file->ReadFromStorage(0, 0x90001, buffer.data()), 0);
  EXPECT_EQ(file->ReadFromStorage(5, 0x90000, buffer.data()), 0);
  EXPECT_EQ(file->WriteToStorage(0xFFFC0000LL, BLOCK, buffer.data()), 0);
  EXPECT_EQ(Medium().Trace(), TRACE({{IO_KIND::ReadBytesAligned, start, 0x90000, 0},
                                     {IO_KIND::ReadBytes, start + 0x90000, 1, 0},
                                     {IO_KIND::ReadBytes, start + 5, 0x90000, 0},
                                     {IO_KIND::WriteBytesAligned, start + 0xFFFC0000LL, 0x38000, 0},
                                     {IO_KIND::WriteBytes, start + 0xFFFF8000LL, 0x7FFF, 0}}));
}

TEST_F(FatFileHuge, FragmentsMeetAt4GiB_ATransferEndsThereWithItsFirstPartDone) {
  CImageBuilder builder = HugeVolume(CLUSTERS_OF_4_GIB);
  builder.SetChain(Range(FIRST, CLUSTERS_OF_4_GIB) + Range(FIRST + CLUSTERS_OF_4_GIB + 10, 5));
  const long long start = static_cast<long long>(builder.ClusterOffset(FIRST));
  MountBuilt(builder);
  CBuilt dir(Fs(), FIRST, 0, 0x10);
  ASSERT_EQ(dir.Status, 0);
  BYTES buffer(1000);
  EXPECT_EQ(dir->ReadFromStorage(0xFFFFFF00LL, 1000, buffer.data()), FILE_CORRUPT);
  EXPECT_EQ(dir->WriteToStorage(0xFFFFFF00LL, 1000, buffer.data()), FILE_CORRUPT);
  EXPECT_EQ(Medium().Trace(), TRACE({{IO_KIND::ReadBytes, start + 0xFFFFFF00LL, 0x100, 0},
                                     {IO_KIND::WriteBytes, start + 0xFFFFFF00LL, 0x100, 0}}));
}

TEST_F(FatFileHuge, DirectoryLongerThan4GiB_EndsThere) {
  CImageBuilder builder = HugeVolume(CLUSTERS_OF_4_GIB + 100);
  MountBuilt(builder);
  CBuilt dir(Fs(), FIRST, 0, 0x10);
  ASSERT_EQ(dir.Status, 0);
  EXPECT_EQ(dir->Limit(), (CLUSTERS_OF_4_GIB + 100LL) * 32768);
  BYTES buffer(100);
  unsigned int done;
  EXPECT_EQ(dir->Read(0xFFFFFFFFLL, 1, buffer.data(), &done), 0);
  Medium().ClearTrace();
  EXPECT_EQ(dir->Read(0x100000000LL, 10, buffer.data(), &done), FILE_CORRUPT);
  EXPECT_EQ(dir->Read(0x100000005LL, 10, buffer.data(), &done), FILE_CORRUPT);
  EXPECT_EQ(dir->Write(0x100000000LL, 10, buffer.data(), &done), FILE_CORRUPT);
  EXPECT_EQ(Medium().Transfers(), 0u);
}

}  // namespace
