/// @file OrderedDeviceCommitTest.cpp
/// The order in which a commit is written, case by case: whatever part of it is written, a check finds no more than
/// what a cut may leave.

#include "OrderedDeviceVolume.h"

namespace {

constexpr std::uint32_t CLUSTER_BYTES = COrdered::CLUSTER_BYTES;
constexpr std::uint32_t ROOT = COrdered::ROOT;

class OrderedCommitOf : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Fat, OrderedCommitOf, testing::Values(12, 16, 32));

TEST_P(OrderedCommitOf, FileThatGrows) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6});
  volume.Begin();
  volume.File(ROOT, 0, "A          ", {5, 6, 9, 8});
  volume.ExpectSoundCuts();
  EXPECT_GE(volume.cuts, 5u);
}

TEST_P(OrderedCommitOf, FileRemovedAndItsClustersTakenByAnother) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6, 7});
  volume.File(ROOT, 1, "B          ", {8});
  volume.Begin();
  volume.Delete(ROOT, 0);
  volume.File(ROOT, 1, "B          ", {8, 6, 5});
  volume.Free(7);
  volume.ExpectSoundCuts();
}

TEST_P(OrderedCommitOf, ChainsThatExchangeTheirEnds_WithTheSameEntries) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 4);
  volume.File(4, 2, "A          ", {5, 6, 7});
  volume.File(ROOT, 1, "B          ", {8, 9, 10});
  volume.Begin();
  volume.Chain({5, 9, 10});
  volume.Chain({8, 6, 7});
  volume.ExpectSoundCuts();
}

TEST_P(OrderedCommitOf, ChainsThatExchangeTheirEnds_InTwoSectorsOfTheFat) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6, 7});
  volume.File(ROOT, 1, "B          ", {700, 701, 702});
  volume.Begin();
  volume.Chain({5, 701, 702});
  volume.Chain({700, 6, 7});
  volume.ExpectSoundCuts();
}

TEST_P(OrderedCommitOf, FileCutAndGrownAgain_WithTheSameEntry) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6, 7});
  volume.File(ROOT, 1, "B          ", {8});
  volume.Begin();
  volume.Chain({5, 11, 12});
  volume.File(ROOT, 1, "B          ", {8, 7, 6});
  volume.ExpectSoundCuts();
}

TEST_P(OrderedCommitOf, FileWithAnotherFirstCluster_WhoseOldOnesAreTaken) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6});
  volume.File(ROOT, 1, "B          ", {8});
  volume.Begin();
  volume.File(ROOT, 0, "A          ", {10, 5});
  volume.File(ROOT, 1, "B          ", {8, 6});
  volume.ExpectSoundCuts();
}

TEST_P(OrderedCommitOf, FileWithAnotherFirstCluster_HasItsOldOnesUntilItHasThem) {
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

TEST_P(OrderedCommitOf, FileMovedToAnotherDirectory_IsNeverThereTwice) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 4);
  volume.File(ROOT, 1, "A          ", {5, 6});
  volume.Begin();
  volume.Delete(ROOT, 1);
  volume.Slot(4, 2, "A          ", 0x20, 5, 1024);
  volume.ExpectSoundCuts();
}

TEST_P(OrderedCommitOf, FileRenamedInItsSlot_IsAlwaysThere) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6});
  volume.Begin();
  volume.Slot(ROOT, 0, "B          ", 0x20, 5, 1024);
  volume.ExpectSoundCuts();
  EXPECT_EQ(volume.cuts, 1u);
}

TEST_P(OrderedCommitOf, FilesInTwoSectorsThatExchangeTheirNames_NeverHaveOneName) {
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

TEST_P(OrderedCommitOf, DirectoryMovedIntoAnother_NeverHasAWrongParent) {
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

TEST_P(OrderedCommitOf, ClusterOfARemovedDirectory_BecomesAFile) {
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

TEST_P(OrderedCommitOf, ClusterOfARemovedDirectory_BecomesAnotherDirectory) {
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

TEST_P(OrderedCommitOf, DirectoryGrowsByEntriesOfFilesThatGrow) {
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

TEST_P(OrderedCommitOf, DirectoryGrowsByAnEntry_WhoseLinkLiesFurtherOn) {
  COrdered volume(GetParam());
  volume.FullDirectory(ROOT, 0, "D          ", 4);
  volume.File(ROOT, 1, "A          ", {700});
  volume.Begin();
  volume.Chain({4, 8});
  volume.Fill(8, 0);
  volume.Delete(ROOT, 1);
  volume.medium.Forget();
  volume.File(4, 16, "A          ", {700, 701});
  volume.ExpectSoundCuts();
}

TEST_P(OrderedCommitOf, DirectoryLosesAClusterToAFile) {
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
TEST_P(OrderedCommitOf, DirectoryEndsEarlier_BehindItStayOldEntries) {
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

TEST_P(OrderedCommitOf, DirectoryGrowsOverOldEntriesBehindItsEnd) {
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

TEST_P(OrderedCommitOf, AFileBecomesADirectoryInItsSlot) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6});
  volume.Begin();
  volume.Free(6);
  volume.Directory(ROOT, 0, "A          ", 5);
  volume.ExpectSoundCuts();
}

TEST_P(OrderedCommitOf, BothCopiesOfTheFatAreEqualAfterwards) {
  COrdered volume(GetParam());
  volume.File(ROOT, 0, "A          ", {5, 6, 340, 341, 342});
  volume.Begin();
  const fatlib::Geometry& layout = volume.medium.Layout();
  const std::size_t bytes = std::size_t{layout.sectorsPerFat} * layout.bytesPerSector;
  const auto first = volume.record->bytes.begin() + static_cast<std::ptrdiff_t>(layout.FatPosition(0));
  const auto second = volume.record->bytes.begin() + static_cast<std::ptrdiff_t>(layout.FatPosition(1));
  EXPECT_TRUE(std::equal(first, first + static_cast<std::ptrdiff_t>(bytes), second));
}

// A half of the new link and a half of the old one would lead to B or C.
TEST(OrderedCommit, LinkOfFat12InTwoSectors_NeverLeadsToAnother) {
  COrdered volume(12);
  volume.mayBreak = true;
  volume.File(ROOT, 0, "A          ", {341});
  volume.File(ROOT, 1, "B          ", {0x15F});
  volume.File(ROOT, 2, "C          ", {0x1FF});
  volume.File(ROOT, 3, "D          ", {682});
  volume.Begin();
  volume.File(ROOT, 0, "A          ", {341, 0x150});
  volume.File(ROOT, 3, "D          ", {682, 0x151});
  volume.ExpectSoundCuts();
}

TEST(OrderedCommit, LinkOfFat12InTwoSectors_IsCutWithoutLeadingToAnother) {
  COrdered volume(12);
  volume.mayBreak = true;
  volume.File(ROOT, 0, "A          ", {341, 0x150});
  volume.File(ROOT, 1, "B          ", {0x15F});
  volume.File(ROOT, 2, "C          ", {0x1FF});
  volume.File(ROOT, 3, "D          ", {682, 0x151});
  volume.Begin();
  volume.File(ROOT, 0, "A          ", {341});
  volume.File(ROOT, 3, "D          ", {682});
  volume.Free(0x150);
  volume.Free(0x151);
  volume.ExpectSoundCuts();
}

}  // namespace
