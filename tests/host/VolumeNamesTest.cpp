/// @file VolumeNamesTest.cpp
/// Making, removing and renaming: what each refusal is, and that it changes nothing.

#include "VolumeFixture.h"

using fatlib::Access;
using fatlib::File;
using fatlib::Status;

namespace {

std::error_code Create(CTestVolume* test, const std::string& path) {
  return test->volume.CreateFile(path, 0, File::Fill::Zeros, 0, nullptr);
}

/// /D/F, /D/SUB/X, /EMPTY, /G
void MakeTree(CTestVolume* test) {
  ASSERT_FALSE(test->volume.CreateDirectories("/D/SUB"));
  ASSERT_FALSE(test->volume.CreateDirectory("/EMPTY"));
  ASSERT_FALSE(test->Write("/D/F", "f"));
  ASSERT_FALSE(test->Write("/D/SUB/X", "x"));
  ASSERT_FALSE(test->Write("/G", "g"));
}

}  // namespace

TEST(VolumeNames, Create_SaysWhatIsInTheWay) {
  CTestVolume test;
  MakeTree(&test);
  EXPECT_EQ(Create(&test, "/"), Status::NameExists);
  EXPECT_EQ(Create(&test, "/d/f"), Status::NameExists);
  EXPECT_EQ(Create(&test, "/d/sub"), Status::NameExists);
  EXPECT_EQ(test.volume.CreateDirectory("/g"), Status::NameExists);
  EXPECT_EQ(Create(&test, "/NONE/F"), Status::NotFound);
  EXPECT_EQ(Create(&test, "/G/F"), Status::NotADirectory);
  EXPECT_EQ(Create(&test, "/D/a:b"), Status::InvalidName);
  EXPECT_EQ(Create(&test, "/D/dot."), Status::InvalidName);
  EXPECT_EQ(Create(&test, "/D/two..dots"), Status::InvalidName);
  EXPECT_EQ(Create(&test, std::string("/D/\xFF")), Status::InvalidName);
  EXPECT_EQ(Create(&test, "/D/" + std::string(256, 'x')), Status::NameTooLong);
  EXPECT_EQ(test.volume.CreateFile("/H", 0, File::Fill::Zeros, fatlib::DIRECTORY, nullptr), Status::InvalidParameter);
  EXPECT_EQ(test.volume.CreateDirectory("/H", fatlib::LABEL), Status::InvalidParameter);
  EXPECT_FALSE(Create(&test, "/D/" + std::string(255, 'x')));
  test.CloseAndCheck();
}

TEST(VolumeNames, CreateDirectories_MakesWhatIsMissing) {
  CTestVolume test;
  EXPECT_FALSE(test.volume.CreateDirectories("/"));
  EXPECT_FALSE(test.volume.CreateDirectories("/one/two words/three"));
  EXPECT_FALSE(test.volume.CreateDirectories("/ONE/two words/four"));
  EXPECT_EQ(test.Names("/one/two words"), "three four");
  ASSERT_FALSE(test.Write("/one/F", ""));
  EXPECT_EQ(test.volume.CreateDirectories("/one/F/deeper"), Status::NotADirectory);
  EXPECT_EQ(test.volume.CreateDirectories("/one/F"), Status::NotADirectory);
  test.CloseAndCheck();
}

TEST(VolumeNames, Remove_SaysWhyNot) {
  CTestVolume test;
  MakeTree(&test);
  EXPECT_EQ(test.volume.Remove("/"), Status::Refused);
  EXPECT_EQ(test.volume.Remove("/NONE"), Status::NotFound);
  EXPECT_EQ(test.volume.Remove("/G/X"), Status::NotADirectory);
  EXPECT_EQ(test.volume.Remove("/D"), Status::NotEmpty);
  EXPECT_FALSE(test.volume.Remove("/EMPTY"));
  EXPECT_FALSE(test.volume.Remove("/G"));
  EXPECT_EQ(test.Names("/"), "D");
  test.CloseAndCheck();
}

TEST(VolumeNames, RemoveAll_CountsAndGivesTheClustersBack) {
  CTestVolume test;
  std::uint32_t before;
  ASSERT_FALSE(test.volume.FreeClusters(&before));
  MakeTree(&test);
  std::uint64_t removed;
  EXPECT_FALSE(test.volume.RemoveAll("/D", &removed));
  EXPECT_EQ(removed, 4u);
  EXPECT_EQ(test.Names("/"), "EMPTY G");
  EXPECT_FALSE(test.volume.RemoveAll("/", &removed));
  EXPECT_EQ(removed, 2u);
  EXPECT_EQ(test.Names("/"), "");
  std::uint32_t after;
  ASSERT_FALSE(test.volume.FreeClusters(&after));
  EXPECT_EQ(after, before);
  test.CloseAndCheck();
}

TEST(VolumeNames, Rename_SaysWhatIsInTheWay) {
  CTestVolume test;
  MakeTree(&test);
  EXPECT_EQ(test.volume.Rename("/", "/X"), Status::Refused);
  EXPECT_EQ(test.volume.Rename("/G", "/"), Status::Refused);
  EXPECT_EQ(test.volume.Rename("/NONE", "/X"), Status::NotFound);
  EXPECT_EQ(test.volume.Rename("/G", "/NONE/G"), Status::NotFound);
  EXPECT_EQ(test.volume.Rename("/G", "/D/F/G"), Status::NotADirectory);
  EXPECT_EQ(test.volume.Rename("/G", "/D/F"), Status::NameExists);
  EXPECT_EQ(test.volume.Rename("/G", "/EMPTY", true), Status::IsADirectory);
  EXPECT_EQ(test.volume.Rename("/EMPTY", "/G", true), Status::NotADirectory);
  EXPECT_EQ(test.volume.Rename("/EMPTY", "/D", true), Status::NotEmpty);
  EXPECT_EQ(test.volume.Rename("/D", "/D/SUB/D"), Status::Refused);
  EXPECT_EQ(test.volume.Rename("/D", "/D/E"), Status::Refused);
  EXPECT_EQ(test.volume.Rename("/G", "/a?b"), Status::InvalidName);
  EXPECT_EQ(test.volume.Rename("/G", "/" + std::string(256, 'x')), Status::NameTooLong);
  EXPECT_EQ(test.Names("/"), "D EMPTY G");
  EXPECT_EQ(test.Names("/D"), "SUB F");
  test.CloseAndCheck();
}

TEST(VolumeNames, Rename_ToItselfDoesNothing) {
  CTestVolume test;
  MakeTree(&test);
  ASSERT_FALSE(test.volume.Sync());
  EXPECT_FALSE(test.volume.Rename("/G", "/G"));
  EXPECT_FALSE(test.volume.Rename("/d/sub", "/d/SUB", true));
  EXPECT_FALSE(test.volume.IsDirty());
}

TEST(VolumeNames, Rename_KeepsTimesAttributesAndBytes) {
  CTestVolume test;
  MakeTree(&test);
  fatlib::Times times;
  times.created = times.modified = {0x4A21, 0x6000, 0};
  times.accessed.date = 0x4A22;
  ASSERT_FALSE(test.volume.SetTimes("/G", times));
  ASSERT_FALSE(test.volume.SetAttributes("/G", fatlib::READ_ONLY | fatlib::SYSTEM));
  ASSERT_FALSE(test.volume.Rename("/G", "/D/SUB/another name"));
  for (int round = 0; round < 2; ++round) {
    const fatlib::Entry entry = test.Stat("/D/SUB/another name");
    EXPECT_TRUE(entry.times == times);
    EXPECT_EQ(entry.attributes, fatlib::READ_ONLY | fatlib::SYSTEM);
    EXPECT_EQ(test.Read("/D/SUB/another name"), "g");
    test.Reopen();
  }
  test.CloseAndCheck();
}

TEST(VolumeNames, MoveWhereTheOldNameIsTaken_TakesTheNewName) {
  CTestVolume test;
  MakeTree(&test);
  ASSERT_FALSE(test.Write("/D/G", "other"));
  ASSERT_FALSE(test.Write("/H", "h"));
  ASSERT_FALSE(test.volume.Rename("/G", "/D/H"));
  EXPECT_EQ(test.Read("/D/H"), "g");
  EXPECT_EQ(test.Read("/D/G"), "other");
  EXPECT_EQ(test.Read("/H"), "h");
  test.CloseAndCheck();
}

TEST(VolumeNames, DirectoryInUse_IsMovedWithAllThatIsInIt) {
  CTestVolume test;
  MakeTree(&test);
  ASSERT_FALSE(test.volume.Rename("/D/SUB", "/EMPTY/moved and renamed"));
  ASSERT_FALSE(test.Write("/EMPTY/moved and renamed/Y", "y"));
  EXPECT_EQ(test.Read("/EMPTY/moved and renamed/X"), "x");
  ASSERT_FALSE(test.volume.Rename("/EMPTY/moved and renamed", "/SUB"));
  EXPECT_EQ(test.Names("/SUB"), "X Y");
  test.CloseAndCheck();
}

TEST(VolumeNames, FullVolume_StillRenamesAndMovesWhereThereIsRoom) {
  CTestVolume test({12, std::uint64_t{1} << 20, 512, 0});
  MakeTree(&test);
  std::uint32_t clusters;
  ASSERT_FALSE(test.volume.FreeClusters(&clusters));
  ASSERT_FALSE(test.Write("/FILL", std::string(std::size_t{clusters} * 512, 'x')));
  EXPECT_FALSE(test.volume.Rename("/G", "/D/a longer name than before"));
  EXPECT_EQ(test.volume.Rename("/FILL", "/D/" + std::string(200, 'n')), Status::DiskFull);
  EXPECT_EQ(test.volume.CreateDirectory("/NEW"), Status::DiskFull);
  EXPECT_EQ(test.Names("/D"), "SUB F a longer name than before");
  EXPECT_EQ(test.Stat("/FILL").size, clusters * 512);
  test.CloseAndCheck();
}

TEST(VolumeNames, FullFixedRoot_IsToldBeforeAnythingChanges) {
  CTestVolume test({12, std::uint64_t{1} << 20, 512, 16});
  for (unsigned int i = 0; i < 16; ++i) ASSERT_FALSE(Create(&test, "/F" + std::to_string(i)));
  EXPECT_EQ(Create(&test, "/G"), Status::DiskFull);
  EXPECT_EQ(test.volume.Rename("/F3", "/a long name"), Status::DiskFull);
  EXPECT_FALSE(test.volume.Rename("/F3", "/G"));
  EXPECT_FALSE(test.volume.Remove("/F7"));
  EXPECT_FALSE(test.volume.Remove("/F9"));
  EXPECT_FALSE(Create(&test, "/a+b"));
  test.CloseAndCheck();
}

TEST(VolumeNames, DirectoryAtItsLimit_IsFull) {
  CTestVolume test({16, std::uint64_t{32} << 20, 2048, 0});
  ASSERT_FALSE(test.volume.CreateDirectory("/D"));
  const std::string name(240, 'n');
  unsigned int made = 0;
  std::error_code error;
  for (; !error && made < 4000; ++made) error = Create(&test, "/D/" + name + std::to_string(made));
  EXPECT_EQ(error, Status::DiskFull);
  EXPECT_EQ(made - 1, (65536u - 2) / 20);
  EXPECT_FALSE(Create(&test, "/D/SHORT"));
  fatlib::Directory listed;
  ASSERT_FALSE(test.volume.List("/D", &listed));
  EXPECT_EQ(listed.size(), made);
  test.CloseAndCheck();
}

TEST(VolumeNames, ThousandsWithACommonBeginning_ComeBackFromTheMedium) {
  CTestVolume test({16, std::uint64_t{32} << 20, 2048, 0});
  ASSERT_FALSE(test.volume.CreateDirectory("/D"));
  for (unsigned int i = 0; i < 3000; ++i) ASSERT_FALSE(Create(&test, "/D/a common beginning " + std::to_string(i)));
  test.Reopen();
  for (unsigned int i = 3000; i < 3300; ++i) ASSERT_FALSE(Create(&test, "/D/a common beginning " + std::to_string(i)));
  for (unsigned int i = 0; i < 3300; i += 3)
    ASSERT_FALSE(test.volume.Remove("/D/a common beginning " + std::to_string(i)));
  fatlib::Directory listed;
  ASSERT_FALSE(test.volume.List("/D", &listed));
  EXPECT_EQ(listed.size(), 2200u);
  test.CloseAndCheck();
}
