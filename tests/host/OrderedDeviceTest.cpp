/// @file OrderedDeviceTest.cpp
/// What passes, what is kept, and what becomes of it. Volumes here are changed byte by byte, as no careful program
/// would, to have each case by itself.

#include "OrderedDeviceFixture.h"

using fatlib::Access;
using fatlib::Defect;
using fatlib::Medium;
using fatlib::OrderedDevice;
using fatlib::Status;

namespace {

constexpr std::uint32_t CLUSTER_BYTES = 512;

/// A volume that is written directly.
class COrdered {
 public:
  explicit COrdered(int width) : bits(width), record(std::make_shared<RECORD>()) {
    record->bytes = FormattedImage({bits, bits == 12 ? 1u << 20 : bits == 16 ? 3u << 20 : 36u << 20, CLUSTER_BYTES, 0});
    Open();
  }

  void Open() {
    ASSERT_FALSE(OrderedDevice::Open(std::make_unique<CRecordingDevice>(record), &device));
    medium = {};
    ASSERT_FALSE(medium.Open(device.get()));
  }

  std::uint32_t End() const { return bits == 12 ? 0xFFF : bits == 16 ? 0xFFFF : 0x0FFFFFFF; }

  /// Links clusters to a chain.
  void Chain(const std::vector<std::uint32_t>& clusters) {
    for (std::size_t i = 0; i < clusters.size(); ++i) {
      EXPECT_FALSE(medium.SetFatEntry(clusters[i], i + 1 < clusters.size() ? clusters[i + 1] : End()));
    }
  }
  void Free(std::uint32_t cluster) { EXPECT_FALSE(medium.SetFatEntry(cluster, 0)); }

  void Slot(std::uint32_t place, std::uint32_t slot, const std::string& name11, unsigned int attributes,
            std::uint32_t cluster, std::uint32_t size) {
    std::vector<unsigned char> bytes(32);
    std::copy(name11.begin(), name11.end(), bytes.begin());
    bytes[11] = static_cast<unsigned char>(attributes);
    bytes[20] = static_cast<unsigned char>(cluster >> 16);
    bytes[26] = static_cast<unsigned char>(cluster);
    bytes[27] = static_cast<unsigned char>(cluster >> 8);
    for (unsigned int i = 0; i < 4; ++i) bytes[28 + i] = static_cast<unsigned char>(size >> (8 * i));
    std::uint64_t position = 0;
    ASSERT_FALSE(medium.SlotPosition(place, slot, &position));
    ASSERT_FALSE(device->Write(position, bytes.data(), bytes.size()));
  }
  void Delete(std::uint32_t place, std::uint32_t slot, unsigned char mark = 0xE5) {
    std::uint64_t position = 0;
    ASSERT_FALSE(medium.SlotPosition(place, slot, &position));
    ASSERT_FALSE(device->Write(position, &mark, 1));
  }
  /// A file of as many bytes as its clusters hold.
  void File(std::uint32_t place, std::uint32_t slot, const std::string& name11,
            const std::vector<std::uint32_t>& clusters) {
    Chain(clusters);
    Slot(place, slot, name11, 0x20, clusters.empty() ? 0 : clusters[0], Bytes(clusters.size()));
  }
  static std::uint32_t Bytes(std::size_t clusters) { return static_cast<std::uint32_t>(clusters) * CLUSTER_BYTES; }
  /// An empty directory.
  void Directory(std::uint32_t place, std::uint32_t slot, const std::string& name11, std::uint32_t cluster) {
    Chain({cluster});
    Fill(cluster, 0);
    Slot(cluster, 0, ".          ", 0x10, cluster, 0);
    Slot(cluster, 1, "..         ", 0x10, place, 0);
    Slot(place, slot, name11, 0x10, cluster, 0);
  }
  void Fill(std::uint32_t cluster, unsigned char byte) {
    const std::vector<unsigned char> bytes(CLUSTER_BYTES, byte);
    ASSERT_FALSE(device->Write(medium.Layout().ClusterPosition(cluster), bytes.data(), bytes.size()));
  }

  /// What has been written until now is the state from which a commit starts.
  void Begin() {
    ASSERT_FALSE(medium.WriteFsInfo());
    ASSERT_FALSE(device->Flush());
    before = record->bytes;
    ASSERT_EQ(TextOf(ReportOf(&before)), "");
    record->log.clear();
  }
  /// Commits; at each cut only lost clusters, clusters too many and copies that differ are found.
  void ExpectSoundCuts() {
    ASSERT_FALSE(medium.WriteFsInfo());
    std::vector<unsigned char> current(record->bytes.size());
    ASSERT_FALSE(device->Read(0, current.data(), current.size()));
    ASSERT_FALSE(device->Flush());
    EXPECT_TRUE(record->bytes == current);
    EXPECT_EQ(device->HeldBytes(), 0u);
    EXPECT_EQ(TextOf(ReportOf(&current)), "");
    cuts = 0;
    std::vector<unsigned char> image = before;
    for (const RECORDED_WRITE& write : record->log) {
      for (const RECORDED_WRITE& sector : SectorsOf(write, medium.Layout().bytesPerSector)) {
        Apply(sector, &image);
        ExpectSound(&image);
        ++cuts;
      }
    }
  }
  void ExpectSound(std::vector<unsigned char>* image) const {
    const fatlib::CheckReport report = ReportOf(image);
    for (const Defect& defect : report.defects) {
      const bool allowed = defect.kind == Defect::LostChain || defect.kind == Defect::ChainBeyondSize ||
                           defect.kind == Defect::FatCopiesDiffer || defect.kind == Defect::FsInfoWrongCount;
      EXPECT_TRUE(allowed) << "cut " << cuts << "\n" << TextOf(report);
    }
  }

  int bits;
  std::shared_ptr<RECORD> record;
  std::unique_ptr<OrderedDevice> device;
  Medium medium;
  std::vector<unsigned char> before;
  unsigned int cuts = 0;
};

class OrderedDeviceOf : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Fat, OrderedDeviceOf, testing::Values(12, 16, 32));

constexpr std::uint32_t ROOT = Medium::ROOT;

// ---------------------------------------------------------------------------------------------- opening

TEST(OrderedDevice, NoVolume_IsRefused) {
  std::unique_ptr<OrderedDevice> device;
  auto base = std::make_unique<fatlib::MemoryImage>(std::vector<unsigned char>(65536));
  EXPECT_EQ(OrderedDevice::Open(std::move(base), &device), Status::NotAVolume);
  EXPECT_EQ(device, nullptr);
}

TEST_P(OrderedDeviceOf, DirectoryThatLeadsToItself_IsRefused) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 5);
  EXPECT_FALSE(volume.medium.SetFatEntry(5, 5));
  EXPECT_FALSE(volume.device->Flush());
  std::unique_ptr<OrderedDevice> device;
  EXPECT_EQ(OrderedDevice::Open(std::make_unique<CRecordingDevice>(volume.record), &device), Status::DiskCorrupt);
}

TEST_P(OrderedDeviceOf, ReadOnlyBase_IsNotWritten) {
  COrdered volume(GetParam());
  volume.record->mode = Access::ReadOnly;
  volume.Open();
  const unsigned char byte = 1;
  EXPECT_EQ(volume.device->Write(0, &byte, 1), Status::WriteProtected);
  EXPECT_FALSE(volume.device->Flush());
  EXPECT_EQ(volume.device->Mode(), Access::ReadOnly);
}

// ---------------------------------------------------------------------------------------------- what is kept

TEST_P(OrderedDeviceOf, BytesOfFiles_PassAtOnce) {
  COrdered volume(GetParam());
  volume.Fill(9, 0x5A);
  EXPECT_EQ(volume.device->HeldBytes(), 0u);
  EXPECT_EQ(volume.record->bytes[volume.medium.Layout().ClusterPosition(9)], 0x5A);
}

TEST_P(OrderedDeviceOf, FatsAndDirectories_AreKeptUntilFlush) {
  COrdered volume(GetParam());
  volume.Begin();
  volume.File(ROOT, 0, "A          ", {5, 6});
  EXPECT_TRUE(volume.record->bytes == volume.before);
  EXPECT_EQ(volume.device->HeldBytes(), 3 * 512u);
  EXPECT_FALSE(volume.device->Flush());
  EXPECT_EQ(volume.device->HeldBytes(), 0u);
  EXPECT_EQ(TreeOf(&volume.record->bytes).size(), 1u);
}

TEST_P(OrderedDeviceOf, DirectoryMadeByACommit_IsKeptFromThenOn) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 5);
  volume.Begin();
  volume.File(5, 2, "A          ", {6});
  EXPECT_TRUE(volume.record->bytes == volume.before);
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, ClustersOfARemovedDirectory_PassAfterTheCommit) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 5);
  volume.Begin();
  volume.Delete(ROOT, 0);
  volume.Free(5);
  volume.ExpectSoundCuts();
  volume.Fill(5, 0x77);
  EXPECT_EQ(volume.device->HeldBytes(), 0u);
}

TEST_P(OrderedDeviceOf, SectorThatEqualsTheBaseAgain_IsDropped) {
  COrdered volume(GetParam());
  volume.Begin();
  volume.File(ROOT, 0, "A          ", {5});
  volume.Delete(ROOT, 0);
  EXPECT_NE(volume.device->HeldBytes(), 0u);
  EXPECT_FALSE(volume.device->Write(0, volume.before.data(), volume.before.size()));
  EXPECT_EQ(volume.device->HeldBytes(), 0u);
}

TEST_P(OrderedDeviceOf, NothingKept_OnlyFlushes) {
  COrdered volume(GetParam());
  volume.Begin();
  volume.Fill(9, 1);
  volume.record->log.clear();
  EXPECT_FALSE(volume.device->Flush());
  ASSERT_EQ(volume.record->log.size(), 1u);
  EXPECT_TRUE(volume.record->log[0].IsFlush());
}

TEST_P(OrderedDeviceOf, WriteOverEverything_IsSplit) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 7);
  volume.Begin();
  const std::uint64_t from = volume.medium.Layout().ClusterPosition(5) + 100;
  const std::vector<unsigned char> bytes(5 * CLUSTER_BYTES, 0x33);
  EXPECT_FALSE(volume.device->Write(from, bytes.data(), bytes.size()));
  EXPECT_EQ(volume.device->HeldBytes(), 512u);
  std::vector<unsigned char> read(bytes.size());
  EXPECT_FALSE(volume.device->Read(from, read.data(), read.size()));
  EXPECT_TRUE(read == bytes);
}

// ---------------------------------------------------------------------------------------------- commits

TEST_P(OrderedDeviceOf, FileThatGrows) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6});
  volume.Begin();
  volume.File(ROOT, 0, "A          ", {5, 6, 9, 8});
  volume.ExpectSoundCuts();
  EXPECT_GE(volume.cuts, 5u);
}

TEST_P(OrderedDeviceOf, FileRemovedAndItsClustersTakenByAnother) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6, 7});
  volume.File(ROOT, 1, "B          ", {8});
  volume.Begin();
  volume.Delete(ROOT, 0);
  volume.File(ROOT, 1, "B          ", {8, 6, 5});
  volume.Free(7);
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, ChainsThatExchangeTheirEnds_WithTheSameEntries) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 4);
  volume.File(4, 2, "A          ", {5, 6, 7});
  volume.File(ROOT, 1, "B          ", {8, 9, 10});
  volume.Begin();
  volume.Chain({5, 9, 10});
  volume.Chain({8, 6, 7});
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, ChainsThatExchangeTheirEnds_InTwoSectorsOfTheFat) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6, 7});
  volume.File(ROOT, 1, "B          ", {700, 701, 702});
  volume.Begin();
  volume.Chain({5, 701, 702});
  volume.Chain({700, 6, 7});
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, FileCutAndGrownAgain_WithTheSameEntry) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6, 7});
  volume.File(ROOT, 1, "B          ", {8});
  volume.Begin();
  volume.Chain({5, 11, 12});
  volume.File(ROOT, 1, "B          ", {8, 7, 6});
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, FileWithAnotherFirstCluster_WhoseOldOnesAreTaken) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6});
  volume.File(ROOT, 1, "B          ", {8});
  volume.Begin();
  volume.File(ROOT, 0, "A          ", {10, 5});
  volume.File(ROOT, 1, "B          ", {8, 6});
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, FileWithAnotherFirstCluster_HasItsOldOnesUntilItHasThem) {
  COrdered volume(GetParam());
  volume.Fill(5, 'o');
  volume.Fill(10, 'n');
  volume.File(ROOT, 0, "A          ", {5});
  volume.Begin();
  volume.File(ROOT, 0, "A          ", {10});
  volume.Free(5);
  volume.ExpectSoundCuts();
  std::vector<unsigned char> image = volume.before;
  for (const RECORDED_WRITE& write : volume.record->log) {
    Apply(write, &image);
    const std::vector<unsigned char> bytes = TreeOf(&image)["/A"];
    ASSERT_EQ(bytes.size(), CLUSTER_BYTES);
    EXPECT_TRUE(bytes[0] == 'o' || bytes[0] == 'n');
  }
}

TEST_P(OrderedDeviceOf, FileMovedToAnotherDirectory_IsNeverThereTwice) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 4);
  volume.File(ROOT, 1, "A          ", {5, 6});
  volume.Begin();
  volume.Delete(ROOT, 1);
  volume.Slot(4, 2, "A          ", 0x20, 5, 1024);
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, FileRenamedInItsSlot_IsAlwaysThere) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6});
  volume.Begin();
  volume.Slot(ROOT, 0, "B          ", 0x20, 5, 1024);
  volume.ExpectSoundCuts();
  EXPECT_EQ(volume.cuts, 1u);
}

TEST_P(OrderedDeviceOf, FilesInTwoSectorsThatExchangeTheirNames_NeverHaveOneName) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5});
  for (std::uint32_t slot = 1; slot < 16; ++slot) volume.Slot(ROOT, slot, "\xE5          ", 0x20, 0, 0);
  if (GetParam() == 32) volume.Chain({2, 3});
  volume.File(ROOT, 16, "B          ", {6});
  volume.Begin();
  volume.Slot(ROOT, 0, "B          ", 0x20, 5, 512);
  volume.Slot(ROOT, 16, "A          ", 0x20, 6, 512);
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, DirectoryMovedIntoAnother_NeverHasAWrongParent) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 4);
  volume.Directory(ROOT, 1, "E          ", 5);
  volume.File(5, 2, "A          ", {6});
  volume.Begin();
  volume.Delete(ROOT, 1);
  volume.Slot(5, 1, "..         ", 0x10, 4, 0);
  volume.Slot(4, 2, "E          ", 0x10, 5, 0);
  volume.ExpectSoundCuts();
  // The commit has noticed: the directory is still known as one.
  volume.before = volume.record->bytes;
  volume.record->log.clear();
  volume.Slot(5, 3, "C          ", 0x20, 0, 0);
  EXPECT_TRUE(volume.record->bytes == volume.before);
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, ClusterOfARemovedDirectory_BecomesAFile) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 4);
  volume.File(4, 2, "A          ", {6});
  volume.Begin();
  volume.Delete(4, 2);
  volume.Delete(ROOT, 0);
  volume.Fill(4, 'f');
  volume.File(ROOT, 1, "F          ", {6, 4});
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, ClusterOfARemovedDirectory_BecomesAnotherDirectory) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 4);
  volume.File(4, 2, "A          ", {6});
  volume.Directory(ROOT, 1, "E          ", 7);
  volume.Begin();
  volume.Delete(ROOT, 0);
  volume.Directory(7, 2, "N          ", 4);
  volume.File(4, 2, "B          ", {6, 9});
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, DirectoryGrowsByEntriesOfFilesThatGrow) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 4);
  for (std::uint32_t slot = 2; slot < 16; ++slot)
    volume.Slot(4, slot, "X" + std::to_string(10 + slot) + "        ", 0x20, 0, 0);
  volume.File(ROOT, 1, "A          ", {5});
  volume.Begin();
  volume.Chain({4, 8});
  volume.Fill(8, 0);
  volume.Delete(ROOT, 1);
  volume.medium.Forget();
  volume.File(4, 16, "A          ", {5, 9});
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, DirectoryGrowsByAnEntry_WhoseLinkLiesFurtherOn) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 4);
  for (std::uint32_t slot = 2; slot < 16; ++slot) {
    volume.Slot(4, slot, "X" + std::to_string(10 + slot) + "        ", 0x20, 0, 0);
  }
  volume.File(ROOT, 1, "A          ", {700});
  volume.Begin();
  volume.Chain({4, 8});
  volume.Fill(8, 0);
  volume.Delete(ROOT, 1);
  volume.medium.Forget();
  volume.File(4, 16, "A          ", {700, 701});
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, DirectoryLosesAClusterToAFile) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 4);
  volume.Chain({4, 8});
  volume.Fill(8, 0);
  for (std::uint32_t slot = 2; slot < 16; ++slot)
    volume.Slot(4, slot, "X" + std::to_string(10 + slot) + "        ", 0x20, 0, 0);
  volume.File(4, 16, "A          ", {5});
  volume.File(ROOT, 1, "B          ", {6});
  volume.Begin();
  volume.Slot(4, 15, "A          ", 0x20, 5, 512);
  volume.Chain({4});
  volume.Fill(8, 'f');
  volume.File(ROOT, 1, "B          ", {6, 8});
  volume.ExpectSoundCuts();
}

// The library and others leave what lies behind the end of a directory as it is.
TEST_P(OrderedDeviceOf, DirectoryEndsEarlier_BehindItStayOldEntries) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 8);
  volume.Chain({8, 4});
  volume.Fill(4, 0);
  for (std::uint32_t slot = 2; slot < 16; ++slot)
    volume.Slot(8, slot, "X" + std::to_string(10 + slot) + "        ", 0x20, 0, 0);
  volume.File(8, 16, "A          ", {5});
  volume.Begin();
  volume.Slot(8, 2, "A          ", 0x20, 5, 512);
  volume.Delete(8, 3, 0);
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, DirectoryGrowsOverOldEntriesBehindItsEnd) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 4);
  volume.Chain({4, 8});
  volume.Fill(8, 'x');
  for (std::uint32_t slot = 2; slot < 15; ++slot)
    volume.Slot(4, slot, "X" + std::to_string(10 + slot) + "        ", 0x20, 0, 0);
  volume.Begin();
  volume.Fill(8, 0);
  volume.File(4, 15, "A          ", {5});
  volume.File(4, 16, "B          ", {6});
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, AFileBecomesADirectoryInItsSlot) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6});
  volume.Begin();
  volume.Free(6);
  volume.Directory(ROOT, 0, "A          ", 5);
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, BothCopiesOfTheFatAreEqualAfterwards) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6, 340, 341, 342});
  volume.Begin();
  const fatlib::Geometry& layout = volume.medium.Layout();
  const std::size_t bytes = std::size_t{layout.sectorsPerFat} * layout.bytesPerSector;
  const auto first = volume.record->bytes.begin() + static_cast<std::ptrdiff_t>(layout.FatPosition(0));
  const auto second = volume.record->bytes.begin() + static_cast<std::ptrdiff_t>(layout.FatPosition(1));
  EXPECT_TRUE(std::equal(first, first + static_cast<std::ptrdiff_t>(bytes), second));
}

// ---------------------------------------------------------------------------------------------- failures

/// Several things of which each phase has some.
void ChangeMuch(COrdered* volume) {
  volume->File(ROOT, 1, "A          ", {5, 11, 12});
  volume->Delete(ROOT, 2);
  volume->File(ROOT, 4, "C          ", {13, 9, 7, 6});
  volume->Delete(ROOT, 3);
  volume->Slot(20, 1, "..         ", 0x10, 4, 0);
  volume->Slot(4, 2, "E          ", 0x10, 20, 0);
  volume->File(20, 2, "N          ", {8, 10});
}

void MakeMuch(COrdered* volume) {
  volume->Directory(ROOT, 0, "D          ", 4);
  volume->File(ROOT, 1, "A          ", {5, 6, 7});
  volume->File(ROOT, 2, "B          ", {8, 9, 10});
  volume->Directory(ROOT, 3, "E          ", 20);
  volume->Begin();
}

TEST_P(OrderedDeviceOf, AnyWriteFails_TheNextFlushBringsAll) {
  for (std::uint64_t failAt = 1;; ++failAt) {
    SCOPED_TRACE(failAt);
    COrdered volume(GetParam());
    MakeMuch(&volume);
    ChangeMuch(&volume);
    std::vector<unsigned char> current(volume.record->bytes.size());
    ASSERT_FALSE(volume.device->Read(0, current.data(), current.size()));
    volume.record->failAt = volume.record->writes + failAt;
    const std::error_code error = volume.device->Flush();
    if (!error) {
      EXPECT_GT(failAt, 8u);
      break;
    }
    EXPECT_EQ(error, Status::IoError);
    volume.ExpectSound(&volume.record->bytes);
    std::vector<unsigned char> read(current.size());
    ASSERT_FALSE(volume.device->Read(0, read.data(), read.size()));
    EXPECT_TRUE(read == current);
    volume.Fill(30, 'w');  // what is written meanwhile is kept, too
    ASSERT_FALSE(volume.device->Read(0, current.data(), current.size()));
    volume.before = volume.record->bytes;
    volume.record->log.clear();
    volume.ExpectSoundCuts();
    EXPECT_TRUE(volume.record->bytes == current || GetParam() == 32);
  }
}

}  // namespace
