/// @file VolumeRulesTest.cpp
/// The rules that a careful host has to follow: what happens without them, by the C functions, and that Volume follows
/// them.

#include "BareLibrary.h"
#include "VolumeFixture.h"
#include "support/ImageBuilder.h"
#include "support/VolumeReader.h"

using fatlib::Access;
using fatlib::File;
using fatlib::Status;

namespace {

constexpr unsigned int BLOCK = 256 * 1024;

std::string ReaderProblems(const std::vector<unsigned char>& bytes) {
  const CDiskImage image(bytes);
  return CVolumeReader(image).ProblemText();
}

/// The number in an invented short name.
unsigned long NumberOf(const std::u16string& shortName) {
  const std::string text(shortName.begin(), shortName.end());
  return std::strtoul(text.c_str() + text.find('~') + 1, nullptr, 10);
}

/// The 11 bytes of the short name that is invented with a number.
std::string InventedName(const std::string& base, unsigned long number) {
  const std::string tail = "~" + std::to_string(number);
  std::string name = base.substr(0, 8 - tail.size()) + tail;
  name.resize(11, ' ');
  return name;
}

/// A directory whose free slots lie apart: 60 entries, every second one removed.
void MakeGaps(CTestVolume* test, const std::string& directory) {
  for (unsigned int i = 0; i < 60; ++i)
    ASSERT_FALSE(test->Write(directory + "F" + std::to_string(i), std::to_string(i)));
  for (unsigned int i = 0; i < 60; i += 2) ASSERT_FALSE(test->volume.Remove(directory + "F" + std::to_string(i)));
}

void ExpectOddFiles(CTestVolume* test, const std::string& directory) {
  for (unsigned int i = 1; i < 60; i += 2) {
    EXPECT_EQ(test->Read(directory + "F" + std::to_string(i)), std::to_string(i));
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------------- transfers and sizes

TEST(VolumeRules, ReadFromTheMiddleOfABlock_CountsExactly) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", std::string(2 * BLOCK, '\0')));
  test.Close();
  std::vector<unsigned char> buffer(1000);
  {
    const CBareVolume bare(&test.medium->bytes);
    const int handle = Fat_OpenFile(CBarePath(u"F"));
    unsigned int done;
    EXPECT_EQ(Fat_ReadFileEx(handle, BLOCK + 100, 1000, buffer.data(), &done), 1u);
    EXPECT_NE(done, 1000u);
    (void)Fat_CloseFile(handle);
  }
  test.Open();
  File file;
  std::size_t done;
  ASSERT_FALSE(test.volume.OpenFile("/F", Access::ReadOnly, &file));
  EXPECT_FALSE(file.Read(BLOCK + 100, buffer.data(), buffer.size(), &done));
  EXPECT_EQ(done, 1000u);
}

TEST(VolumeRules, GrownFile_ReadsAsZerosAndNotAsWhatTheDiskHeld) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/OLD", std::string(3000, 'o')));
  ASSERT_FALSE(test.volume.Sync());
  ASSERT_FALSE(test.volume.Remove("/OLD"));
  test.Close();
  std::vector<unsigned char> copy = test.medium->bytes;
  {
    const CBareVolume bare(&copy);
    CBareVolume::Create(u"NEW", 3000);
    EXPECT_EQ(CBareVolume::Read(u"NEW"), std::string(3000, 'o'));
  }
  test.Open();
  ASSERT_FALSE(test.volume.CreateFile("/NEW", 3000, File::Fill::Zeros, 0, nullptr));
  EXPECT_EQ(test.Read("/NEW"), std::string(3000, '\0'));
}

TEST(VolumeRules, WriteBehindTheEnd_MakesTheFileLarger) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", "abc"));
  File file;
  ASSERT_FALSE(test.volume.OpenFile("/F", Access::ReadWrite, &file));
  EXPECT_FALSE(file.Write(5, "xyz", 3));
  EXPECT_EQ(test.Read("/F"), std::string("abc\0\0xyz", 8));
}

// ---------------------------------------------------------------------------------------------- directories

TEST(VolumeRules, NameThatFindsNoRoomInOnePiece_MovesNoOtherEntry) {
  CTestVolume test({16, std::uint64_t{16} << 20, 2048, 0});
  ASSERT_FALSE(test.volume.CreateDirectory("/D"));
  MakeGaps(&test, "/D/");
  ASSERT_FALSE(test.Write("/D/a long name that needs slots", "new"));
  ASSERT_FALSE(test.volume.Remove("/D/F59"));
  ASSERT_FALSE(test.Write("/D/F59", "59"));
  ExpectOddFiles(&test, "/D/");
  test.Reopen();
  ExpectOddFiles(&test, "/D/");
  EXPECT_EQ(test.Read("/D/a long name that needs slots"), "new");
  test.CloseAndCheck();
}

// The same by the C functions: F2 is slid along, but remembered at its old place, and removing it hits the new name.
TEST(VolumeRules, NameThatFindsNoRoomInOnePiece_IsHitWithoutTheRule) {
  CTestVolume test({16, std::uint64_t{16} << 20, 2048, 0});
  ASSERT_FALSE(test.volume.CreateDirectory("/D"));
  for (unsigned int i = 0; i < 62; ++i) ASSERT_FALSE(test.Write("/D/F" + std::to_string(i), std::to_string(i)));
  test.Close();
  std::vector<unsigned char> copy = test.medium->bytes;
  {
    CBareVolume bare(&copy);
    EXPECT_EQ(Fat_DeleteFile(CBarePath(u"D\\F0")), 1u);
    EXPECT_EQ(Fat_DeleteFile(CBarePath(u"D\\F3")), 1u);
    CBareVolume::Create(u"D\\a+b");
    EXPECT_EQ(Fat_DeleteFile(CBarePath(u"D\\F2")), 1u);
    bare.Remount();
    EXPECT_FALSE(CBareVolume::Exists(u"D\\a+b"));
  }
  EXPECT_NE(FsckFindings(copy), "");
  test.Open();
  ASSERT_FALSE(test.volume.Remove("/D/F0"));
  ASSERT_FALSE(test.volume.Remove("/D/F3"));
  ASSERT_FALSE(test.Write("/D/a+b", ""));
  ASSERT_FALSE(test.volume.Remove("/D/F2"));
  test.Reopen();
  EXPECT_TRUE(test.Exists("/D/a+b"));
  test.CloseAndCheck();
}

TEST(VolumeRules, FixedRootWithGaps_TakesTheNameAndKeepsTheOthers) {
  CTestVolume test({12, std::uint64_t{1} << 20, 512, 64});
  MakeGaps(&test, "/");
  ASSERT_FALSE(test.Write("/A1", "1"));
  ASSERT_FALSE(test.Write("/another long name of some slots", "new"));
  for (unsigned int i = 1; i < 60; i += 4) ASSERT_FALSE(test.volume.Remove("/F" + std::to_string(i)));
  for (unsigned int i = 3; i < 60; i += 4) EXPECT_EQ(test.Read("/F" + std::to_string(i)), std::to_string(i));
  EXPECT_EQ(test.Read("/another long name of some slots"), "new");
  test.CloseAndCheck();
}

// The entries are slid together, which brings everything to the medium between the creation and the zeros.
TEST(VolumeRules, FileMadeInAFixedRootWithGaps_ReadsAsZeros) {
  CTestVolume test({12, std::uint64_t{1} << 20, 512, 64});
  ASSERT_FALSE(test.Write("/BEFORE", std::string(500000, 'x')));
  ASSERT_FALSE(test.volume.Sync());
  ASSERT_FALSE(test.volume.Remove("/BEFORE"));
  MakeGaps(&test, "/");
  ASSERT_FALSE(test.volume.CreateFile("/another long name, of more slots than are left at the end", 3000,
                                      File::Fill::Zeros, 0, nullptr));
  test.Close();
  test.Open();
  EXPECT_EQ(test.Read("/another long name, of more slots than are left at the end"), std::string(3000, '\0'));
}

TEST(VolumeRules, PathThroughAFile_IsRefusedAndChangesNothing) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/FILE", std::string(64, '\0')));
  test.Close();
  std::vector<unsigned char> copy = test.medium->bytes;
  {
    const CBareVolume bare(&copy);
    (void)Fat_CreateDir(CBarePath(u"FILE\\SUB"), 0);
    EXPECT_NE(CBareVolume::Read(u"FILE"), std::string(64, '\0'));
  }
  test.Open();
  EXPECT_EQ(test.volume.CreateDirectory("/FILE/SUB"), Status::NotADirectory);
  EXPECT_EQ(test.volume.CreateFile("/FILE/SUB", 0, File::Fill::Zeros, 0, nullptr), Status::NotADirectory);
  EXPECT_EQ(test.Read("/FILE"), std::string(64, '\0'));
}

// ---------------------------------------------------------------------------------------------- renaming

TEST(VolumeRules, OldNameAfterARename_IsFree) {
  CTestVolume test;
  test.Close();
  std::vector<unsigned char> copy = test.medium->bytes;
  {
    const CBareVolume bare(&copy);
    CBareVolume::Create(u"OLD");
    (void)Fat_RenameFile(CBarePath(u"OLD"), CBarePath(u"NEW"));
    EXPECT_TRUE(CBareVolume::Exists(u"OLD"));
    EXPECT_EQ(Fat_CreateFile(CBarePath(u"OLD"), 0, 0), -1);
  }
  test.Open();
  ASSERT_FALSE(test.Write("/OLD", "one"));
  ASSERT_FALSE(test.volume.Rename("/OLD", "/NEW"));
  EXPECT_FALSE(test.Exists("/OLD"));
  ASSERT_FALSE(test.Write("/OLD", "two"));
  EXPECT_EQ(test.Read("/NEW"), "one");
  EXPECT_EQ(test.Read("/OLD"), "two");
  test.CloseAndCheck();
}

TEST(VolumeRules, RenamedFileWithUnsavedData_ShowsThemUnderItsNewName) {
  CTestVolume test;
  test.Close();
  std::vector<unsigned char> copy = test.medium->bytes;
  {
    const CBareVolume bare(&copy);
    CBareVolume::Create(u"OLD");
    CBareVolume::Write(u"OLD", "data");
    (void)Fat_RenameFile(CBarePath(u"OLD"), CBarePath(u"NEW"));
    EXPECT_NE(CBareVolume::Read(u"NEW"), "data");
  }
  test.Open();
  ASSERT_FALSE(test.Write("/OLD", "data"));
  ASSERT_FALSE(test.volume.Rename("/OLD", "/NEW"));
  EXPECT_EQ(test.Read("/NEW"), "data");
}

TEST(VolumeRules, FileBelowARenamedDirectory_CanBeChangedThroughAnOpenFile) {
  CTestVolume test;
  ASSERT_FALSE(test.volume.CreateDirectory("/D"));
  ASSERT_FALSE(test.Write("/D/F", "one"));
  File file;
  ASSERT_FALSE(test.volume.OpenFile("/D/F", Access::ReadWrite, &file));
  ASSERT_FALSE(file.Write(3, " two", 4));
  ASSERT_FALSE(test.volume.Rename("/D", "/E"));
  ASSERT_FALSE(file.Write(7, " three", 6));
  EXPECT_EQ(test.Read("/E/F"), "one two three");
  EXPECT_FALSE(test.Exists("/D/F"));
  file.Close();
  test.CloseAndCheck();
}

TEST(VolumeRules, ChangeOfCaseOnly_IsMade) {
  CTestVolume test;
  test.Close();
  std::vector<unsigned char> copy = test.medium->bytes;
  {
    const CBareVolume bare(&copy);
    CBareVolume::Create(u"A long name.txt");
    EXPECT_EQ(Fat_RenameFile(CBarePath(u"A long name.txt"), CBarePath(u"a LONG name.txt")), 0u);
  }
  test.Open();
  ASSERT_FALSE(test.Write("/A long name.txt", "x"));
  ASSERT_FALSE(test.volume.Rename("/A long name.txt", "/a LONG name.txt"));
  EXPECT_EQ(test.Names("/"), "a LONG name.txt");
  EXPECT_EQ(test.Read("/A long name.txt"), "x");
  test.CloseAndCheck();
}

TEST(VolumeRules, DirectoryMovedIntoTheRoot_HasZeroAsItsParent) {
  CTestVolume test({32, std::uint64_t{40} << 20, 512, 0});
  ASSERT_FALSE(test.volume.CreateDirectories("/A/B"));
  test.Close();
  std::vector<unsigned char> copy = test.medium->bytes;
  {
    const CBareVolume bare(&copy);
    EXPECT_EQ(Fat_MoveFile(CBarePath(u"A\\B"), nullptr), 1u);
  }
  EXPECT_NE(FsckFindings(copy).find(".."), std::string::npos);
  test.Open();
  ASSERT_FALSE(test.volume.Rename("/A/B", "/B"));
  test.CloseAndCheck();
}

// ---------------------------------------------------------------------------------------------- short names

TEST(VolumeRules, InventedShortName_IsNotOneThatAnotherFileHas) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/common beginning of a name", ""));
  const std::u16string given = test.Stat("/common beginning of a name").shortName;
  test.Close();
  // An earlier run has given out the numbers that are next in this one.
  unsigned long number = NumberOf(given);
  CDiskImage image(test.medium->bytes);
  CImageBuilder builder(image);
  builder.SetNextSlot(CImageBuilder::Root(), 3);
  for (unsigned int i = 0; i < 30; ++i) {
    ENTRY_OPTIONS options;
    options.ShortName = InventedName("COMMON", ++number);
    (void)builder.AddFile(CImageBuilder::Root(), "common beginning " + std::to_string(i), {}, {}, options);
  }
  test.medium->bytes = image.ToVector();
  std::vector<unsigned char> copy = test.medium->bytes;
  {
    const CBareVolume bare(&copy);
    CBareVolume::Create(u"common beginning of another");
  }
  EXPECT_NE(ReaderProblems(copy), "");
  test.Open();
  EXPECT_EQ(NumberOf(test.Stat("/common beginning 3").shortName), NumberOf(given) + 4);
  for (unsigned int i = 100; i < 110; ++i) ASSERT_FALSE(test.Write("/common beginning " + std::to_string(i), ""));
  EXPECT_FALSE(test.volume.CreateDirectory("/common beginning of a directory"));
  ASSERT_FALSE(test.Write("/F", ""));
  EXPECT_FALSE(test.volume.Rename("/F", "/common beginning of a renamed one"));
  test.CloseAndCheck();
  EXPECT_EQ(ReaderProblems(test.medium->bytes), "");
}

TEST(VolumeRules, NameLikeAnInventedOne_GivesTheOtherANewOne) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/a long name.txt", "long"));
  const std::u16string alias = test.Stat("/a long name.txt").shortName;
  const std::string path = "/" + std::string(alias.begin(), alias.end());
  ASSERT_FALSE(test.Write(path, "short"));
  EXPECT_EQ(test.Read(path), "short");
  EXPECT_EQ(test.Read("/a long name.txt"), "long");
  EXPECT_NE(test.Stat("/a long name.txt").shortName, alias);
  test.CloseAndCheck();
}

TEST(VolumeRules, NumberThatSomebodyElseHasMovedOn_IsNotedAndStillUnique) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/a long name 1", "1"));
  std::vector<unsigned char> other = FormattedImage({});
  CFatMemory* const storage = new CFatMemory;
  CFatFileSystem* const mounted = Fat_Mount(storage, other.data());
  for (unsigned int i = 0; i < 5; ++i) CBareVolume::Create(u"another long name " + std::u16string(i, u'x'));
  EXPECT_EQ(Fat_Unmount(mounted), 1u);
  ::operator delete(storage);
  for (unsigned int i = 2; i < 9; ++i) ASSERT_FALSE(test.Write("/a long name " + std::to_string(i), ""));
  EXPECT_FALSE(test.volume.CreateDirectory("/a long name of a directory"));
  test.CloseAndCheck();
}

TEST(VolumeRules, NameBeginningWithTheDeletedMarkInUtf8_IsThereAfterReopening) {
  if (std::setlocale(LC_ALL, "C.UTF-8") == nullptr) GTEST_FAIL() << "the locale C.UTF-8 is needed";
  CTestVolume test;
  test.Close();
  std::vector<unsigned char> copy = test.medium->bytes;
  {
    CBareVolume bare(&copy, "C.UTF-8");
    CBareVolume::Create(u"\u5000A.TXT");
    bare.Remount();
    EXPECT_FALSE(CBareVolume::Exists(u"\u5000A.TXT"));
  }
  test.Open();
  ASSERT_FALSE(test.Write("/\u5000A.TXT", "x"));
  EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C.UTF-8");  // the process keeps its own
  test.Reopen();
  EXPECT_EQ(test.Read("/\u5000A.TXT"), "x");
  test.CloseAndCheck();
  (void)std::setlocale(LC_ALL, "C");
}

// ---------------------------------------------------------------------------------------------- handles

TEST(VolumeRules, FileOpenTwiceAmongManyOthers_IsOneFile) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", "one"));
  for (unsigned int i = 0; i < 200; ++i) ASSERT_FALSE(test.Write("/O" + std::to_string(i), "other"));
  File first;
  File second;
  ASSERT_FALSE(test.volume.OpenFile("/F", Access::ReadWrite, &first));
  ASSERT_FALSE(first.Write(0, "ONE", 3));
  for (unsigned int i = 0; i < 200; ++i) EXPECT_EQ(test.Read("/O" + std::to_string(i)), "other");
  ASSERT_FALSE(test.volume.OpenFile("/F", Access::ReadWrite, &second));
  char bytes[3];
  std::size_t done;
  ASSERT_FALSE(second.Read(0, bytes, 3, &done));
  EXPECT_EQ(std::string(bytes, 3), "ONE");
  ASSERT_FALSE(second.Resize(1));
  EXPECT_EQ(first.Size(), 1u);
}

TEST(VolumeRules, MoreOpenFilesThanTheLibraryHasHandles_AreAllUsable) {
  CTestVolume test;
  std::vector<File> files(400);
  for (std::size_t i = 0; i < files.size(); ++i) {
    const std::string path = "/F" + std::to_string(i);
    ASSERT_FALSE(test.volume.CreateFile(path, 0, File::Fill::Zeros, 0, &files[i]));
    ASSERT_FALSE(files[i].Write(0, path.data(), path.size()));
  }
  for (std::size_t i = 0; i < files.size(); ++i) {
    ASSERT_FALSE(files[i].Write(1, "X", 1));
    EXPECT_EQ(test.Read("/F" + std::to_string(i)), "/X" + std::to_string(i));
  }
  files.clear();
  test.CloseAndCheck();
}

// ---------------------------------------------------------------------------------------------- the medium

TEST(VolumeRules, FailedWriteThatTheLibraryKeepsToItself_IsReportedBySync) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", std::string(5000, 'x')));
  test.medium->FailAfter(1, true);
  EXPECT_EQ(test.volume.Sync(), Status::IoError);
  test.medium->Heal();
}

TEST(VolumeRules, FreeClustersOfFat32_AreWrittenAtTheEnd) {
  CTestVolume test({32, std::uint64_t{40} << 20, 512, 0});
  test.Close();
  std::vector<unsigned char> copy = test.medium->bytes;
  {
    const CBareVolume bare(&copy);
    CBareVolume::Create(u"F", 10000);
  }
  EXPECT_NE(FsckFindings(copy), "");
  test.Open();
  ASSERT_FALSE(test.Write("/F", std::string(10000, 'x')));
  test.CloseAndCheck();
}

TEST(VolumeRules, ManyMounts_DoNotAddUp) {
  CTestVolume test;
  for (unsigned int i = 0; i < 600; ++i) {
    ASSERT_FALSE(test.Write("/F", std::to_string(i)));
    ASSERT_FALSE(test.volume.Sync());
  }
  EXPECT_EQ(test.Read("/F"), "599");
  test.CloseAndCheck();
}

TEST(VolumeRules, RenameUnderAKnownPath_IsOfWhatIsThereNow) {
  for (const char* from : {"/OTHER", "/DIR"}) {
    CTestVolume test;
    ASSERT_FALSE(test.volume.CreateDirectory("/DIR"));
    ASSERT_FALSE(test.Write("/OTHER", "bcdef"));
    ASSERT_FALSE(test.Write("/FILE", "abc"));
    ASSERT_FALSE(test.volume.Rename("/FILE", "/FILE2"));
    ASSERT_FALSE(test.volume.Rename(from, "/FILE"));
    ASSERT_FALSE(test.volume.Rename("/FILE", "/THIRD"));
    EXPECT_EQ(test.Read("/FILE2"), "abc");
    test.CloseAndCheck();
  }
}
