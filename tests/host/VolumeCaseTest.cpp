/// @file VolumeCaseTest.cpp
/// Names of 8.3 form in lower or mixed case: they are kept as they were written, for this face and for every other
/// reader, whatever happens before they are on the medium.

#include <fatlib/Text.h>

#include "BareLibrary.h"
#include "VolumeFixture.h"
#include "support/VolumeReader.h"

using fatlib::Access;
using fatlib::File;
using fatlib::Status;

namespace {

constexpr std::uint64_t MIB = std::uint64_t{1} << 20;

std::error_code Create(CTestVolume* test, const std::string& path) {
  return test->volume.CreateFile(path, 0, File::Fill::Zeros, 0, nullptr);
}

/// What mdir -b prints of the whole volume.
std::string Mdir(const std::vector<unsigned char>& bytes) {
  const CTempDir place;
  WriteHostFile(place / "image", bytes);
  return RunOrThrow({"mdir", "-b", "-/", "-i", place / "image", "::/"});
}

/// The slots of the root of a FAT12 volume.
const unsigned char* RootSlot(const CTestVolume& test, std::size_t slot) {
  return test.medium->bytes.data() + ToSize(test.volume.Layout().RootPosition()) + slot * 32;
}

/// Entries of a volume whose long names have units for private use.
unsigned int StandInsIn(const std::vector<unsigned char>& bytes) {
  const CDiskImage image(bytes);
  const CVolumeReader reader(image);
  unsigned int count = 0;
  for (const auto& [path, node] : reader.Tree()) {
    for (const auto unit : node.LongName) {
      if (unit >= 0xE000 && unit < 0xF900) {
        ++count;
        break;
      }
    }
  }
  return count;
}

}  // namespace

TEST(VolumeCase, LowerCaseName_HasALongNameAndItsUpperCaseAsShortName) {
  CTestVolume test({12, MIB, 512, 64});
  fatlib::VolumeOptions options;
  options.zone = fatlib::Zone::Utc;
  options.clock = [] { return std::timespec{1773500967, 0}; };  // 2026-03-14 15:09:27
  test.Close();
  test.Open(options);
  ASSERT_FALSE(Create(&test, "/readme.txt"));
  ASSERT_FALSE(test.volume.Sync());
  const unsigned char expected[64] = {0x41, 'r', 0,    'e',  0,    'a',  0,   'd',  0,    'm',  0,    0x0F, 0,
                                      0x73, 'e', 0,    '.',  0,    't',  0,   'x',  0,    't',  0,    0,    0,
                                      0,    0,   0xFF, 0xFF, 0xFF, 0xFF, 'R', 'E',  'A',  'D',  'M',  'E',  ' ',
                                      ' ',  'T', 'X',  'T',  0,    0,    100, 0x2D, 0x79, 0x6E, 0x5C, 0x6E, 0x5C,
                                      0,    0,   0x2D, 0x79, 0x6E, 0x5C, 0,   0,    0,    0,    0,    0};
  EXPECT_EQ(std::vector<unsigned char>(RootSlot(test, 0), RootSlot(test, 2)),
            std::vector<unsigned char>(expected, expected + 64));
  EXPECT_EQ(RootSlot(test, 2)[0], 0);
  test.CloseAndCheck();
}

TEST(VolumeCase, UpperCaseName_IsAShortNameAlone) {
  CTestVolume test({12, MIB, 512, 64});
  ASSERT_FALSE(Create(&test, "/README.TXT"));
  ASSERT_FALSE(Create(&test, "/A-1"));
  ASSERT_FALSE(test.volume.Sync());
  EXPECT_EQ(std::string(RootSlot(test, 0), RootSlot(test, 0) + 11), "README  TXT");
  EXPECT_EQ(std::string(RootSlot(test, 1), RootSlot(test, 1) + 11), "A-1        ");
  test.CloseAndCheck();
}

TEST(VolumeCase, LowerCaseNames_AreKeptForAllReaders) {
  for (const int bits : {12, 16, 32}) {
    CTestVolume test({bits, (bits == 32 ? 36 : bits == 16 ? 8 : 1) * MIB, 512, 0});
    ASSERT_FALSE(test.volume.CreateDirectories("/src/Sub.Dir"));
    ASSERT_FALSE(test.Write("/src/Makefile", "all:"));
    ASSERT_FALSE(test.Write("/src/Sub.Dir/a.c", "int a;"));
    ASSERT_FALSE(test.Write("/src/UPPER.C", "u"));
    EXPECT_EQ(test.Names("/src"), "Sub.Dir Makefile UPPER.C");
    EXPECT_EQ(fatlib::ToUtf8(test.Stat("/SRC/MAKEFILE").shortName), "MAKEFILE");
    test.CloseAndCheck();
    EXPECT_EQ(Mdir(test.medium->bytes),
              "::/src/\n::/src/Sub.Dir/\n::/src/Makefile\n::/src/UPPER.C\n::/src/Sub.Dir/a.c\n");
    const CTempDir place;
    WriteHostFile(place / "image", test.medium->bytes);
    EXPECT_EQ(RunOrThrow({"mtype", "-i", place / "image", "::/src/Makefile"}), "all:");
    EXPECT_NE(RunOrThrow({"7z", "l", place / "image"}).find("src/Sub.Dir/a.c\n"), std::string::npos);
    test.Open();
    EXPECT_EQ(test.Names("/src"), "Sub.Dir Makefile UPPER.C");
    EXPECT_EQ(test.Read("/SRC/sub.dir/A.C"), "int a;");
    test.Close();
  }
}

TEST(VolumeCase, BeforeSync_NamesAreAsTheyWillBe) {
  CTestVolume test;
  ASSERT_FALSE(test.volume.CreateDirectory("/lib"));
  File file;
  ASSERT_FALSE(test.volume.CreateFile("/lib/new.c", 3, File::Fill::Zeros, 0, &file));
  ASSERT_FALSE(file.Write(0, "abc", 3));
  EXPECT_EQ(Create(&test, "/LIB/NEW.C"), Status::NameExists);
  EXPECT_EQ(test.Names("/"), "lib");
  EXPECT_EQ(test.Names("/Lib"), "new.c");
  EXPECT_EQ(test.Read("/LIB/New.c"), "abc");
  ASSERT_FALSE(test.volume.Sync());
  ASSERT_FALSE(file.Write(3, "def", 3));
  EXPECT_EQ(test.Read("/lib/new.c"), "abcdef");
  test.CloseAndCheck();
}

TEST(VolumeCase, CaseOnlyRename_IsKept) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/a.txt", "a"));
  for (const char* name : {"/A.txt", "/A.TXT", "/a.TXT", "/A.Txt", "/a.txt"}) {
    for (const bool synced : {false, true}) {
      ASSERT_FALSE(test.volume.Rename("/a.txt", name)) << name;
      EXPECT_EQ("/" + test.Names("/"), name);
      EXPECT_EQ(test.Read(name), "a");
      if (!synced) {
        ASSERT_FALSE(test.volume.Rename(name, "/a.TXT"));
        continue;
      }
      ASSERT_FALSE(test.volume.Sync());
      EXPECT_EQ(Mdir(test.medium->bytes), std::string("::") + name + "\n");
    }
  }
  test.CloseAndCheck();
}

// The library remembers the names that an entry had since it was mounted: some of these renames make it mount anew.
TEST(VolumeCase, CaseOnlyRenamesInAnyOrder_AreKept) {
  const std::vector<std::string> spellings = {"abc.d", "ABC.D", "Abc.d"};
  CTestVolume test({12, MIB, 512, 64});
  for (unsigned int order = 0; order < 3 * 3 * 3 * 3 * 3; ++order) {
    std::string name = spellings[order % 3];
    ASSERT_FALSE(Create(&test, "/" + name));
    for (unsigned int rest = order / 3, i = 0; i < 4; ++i, rest /= 3) {
      const std::string other = spellings[rest % 3];
      const std::error_code error = test.volume.Rename("/" + name, "/" + other);
      ASSERT_FALSE(error) << order << ": " << name << " to " << other << ": " << error.message();
      ASSERT_EQ(test.Names("/"), other) << order;
      name = other;
    }
    if (order % 2 == 0) {
      ASSERT_FALSE(test.volume.Sync());
    }
    ASSERT_EQ(test.Names("/"), name) << order;
    ASSERT_FALSE(test.volume.Remove("/" + name));
  }
  ASSERT_FALSE(Create(&test, "/abc.d"));
  test.CloseAndCheck();
}

TEST(VolumeCase, CaseOnlyRename_OfANameStillToBeWritten_TakesNoTransfer) {
  CTestVolume test({12, MIB, 512, 16});
  for (unsigned int i = 0; i < 14; ++i) ASSERT_FALSE(Create(&test, "/F" + std::to_string(i)));
  ASSERT_FALSE(Create(&test, "/last"));
  const std::uint64_t before = test.medium->Transfers();
  EXPECT_FALSE(test.volume.Rename("/last", "/Last"));
  EXPECT_EQ(test.medium->Transfers(), before);
  test.Reopen();
  EXPECT_TRUE(test.Exists("/LAST"));
  EXPECT_NE(test.Names("/").find(" Last"), std::string::npos);
  test.CloseAndCheck();
}

TEST(VolumeCase, NearlyFullFixedRoot_IsToldBeforeAnythingChanges) {
  CTestVolume test({12, MIB, 512, 16});
  for (unsigned int i = 0; i < 15; ++i) ASSERT_FALSE(Create(&test, "/F" + std::to_string(i)));
  EXPECT_EQ(Create(&test, "/g"), Status::DiskFull);
  EXPECT_FALSE(test.volume.Rename("/F3", "/f3"));
  EXPECT_EQ(test.volume.Rename("/F4", "/f4"), Status::DiskFull);
  EXPECT_FALSE(test.volume.Rename("/f3", "/F3"));
  EXPECT_FALSE(Create(&test, "/G"));
  test.CloseAndCheck();
}

TEST(VolumeCase, ReplacingRename_TakesTheNewNamesCase) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/old.txt", "old"));
  ASSERT_FALSE(test.Write("/tmp.1", "new"));
  ASSERT_FALSE(test.volume.Rename("/tmp.1", "/Old.txt", true));
  EXPECT_EQ(test.Names("/"), "Old.txt");
  test.Reopen();
  EXPECT_EQ(test.Names("/"), "Old.txt");
  EXPECT_EQ(test.Read("/old.txt"), "new");
  test.CloseAndCheck();
}

TEST(VolumeCase, MovedBeforeSync_IsKept) {
  CTestVolume test;
  ASSERT_FALSE(test.volume.CreateDirectories("/one/two"));
  ASSERT_FALSE(test.Write("/one/two/file.c", "1"));
  ASSERT_FALSE(test.volume.Rename("/one/two", "/two"));
  ASSERT_FALSE(test.volume.Rename("/two/file.c", "/one/file.c"));
  ASSERT_FALSE(test.volume.Rename("/one", "/two/One"));
  EXPECT_EQ(test.Read("/two/One/file.c"), "1");
  test.CloseAndCheck();
  EXPECT_EQ(Mdir(test.medium->bytes), "::/two/\n::/two/One/\n::/two/One/file.c\n");
}

TEST(VolumeCase, ShortNameThatAnotherEntryHas_IsTakenFromIt) {
  CTestVolume test;
  ASSERT_FALSE(Create(&test, "/a long name of a file.text"));
  ASSERT_FALSE(test.volume.Sync());
  const std::string taken = fatlib::ToUtf8(test.Stat("/a long name of a file.text").shortName);
  std::string lower = taken;
  for (char& c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  ASSERT_FALSE(Create(&test, "/" + lower));
  EXPECT_EQ(fatlib::ToUtf8(test.Stat("/" + lower).shortName), taken);
  EXPECT_NE(fatlib::ToUtf8(test.Stat("/a long name of a file.text").shortName), taken);
  test.CloseAndCheck();
  EXPECT_NE(Mdir(test.medium->bytes).find("::/" + lower + "\n"), std::string::npos);
}

TEST(VolumeCase, NamesOfPrivateUseUnits_AreNoNamesOfOtherEntries) {
  const std::u16string units = u"\xE041\xE02E\xE043";  // what stands for "a.c" at first
  CTestVolume test;
  ASSERT_FALSE(Create(&test, "/a.c"));
  ASSERT_FALSE(test.volume.CreateFile(fatlib::Path() / units, 0, File::Fill::Zeros, 0, nullptr));
  ASSERT_FALSE(test.volume.Remove("/a.c"));
  ASSERT_FALSE(Create(&test, "/A.c"));
  ASSERT_FALSE(test.volume.Rename("/A.c", "/b.c"));
  ASSERT_FALSE(test.volume.Rename("/b.c", "/a.c"));
  EXPECT_EQ(test.Names("/"), "a.c " + fatlib::ToUtf8(units));
  test.Reopen();
  EXPECT_EQ(test.Names("/"), "a.c " + fatlib::ToUtf8(units));
  test.CloseAndCheck();
}

TEST(VolumeCase, RemovedBeforeSync_LeavesNothing) {
  CTestVolume test;
  ASSERT_FALSE(test.volume.CreateDirectory("/dir"));
  ASSERT_FALSE(test.Write("/dir/x", "x"));
  ASSERT_FALSE(test.volume.RemoveAll("/dir"));
  ASSERT_FALSE(Create(&test, "/dir"));
  EXPECT_FALSE(test.Stat("/dir").IsDirectory());
  test.CloseAndCheck();
  EXPECT_EQ(Mdir(test.medium->bytes), "::/dir\n");
}

TEST(VolumeCase, WithoutTimes_NamesAreKept) {
  CTestVolume test;
  test.Close();
  fatlib::VolumeOptions options;
  options.times = false;
  test.Open(options);
  ASSERT_FALSE(Create(&test, "/file.c"));
  test.CloseAndCheck();
  EXPECT_EQ(Mdir(test.medium->bytes), "::/file.c\n");
}

TEST(VolumeCase, CFunctions_FindTheNameInAnyCaseAndListItAsWritten) {
  std::vector<unsigned char> bytes;
  {
    CTestVolume test;
    ASSERT_FALSE(test.volume.CreateDirectory("/etc"));
    ASSERT_FALSE(test.Write("/etc/Config.ini", "x"));
    test.Close();
    bytes = test.medium->bytes;
  }
  const CBareVolume library(&bytes);
  EXPECT_TRUE(CBareVolume::Exists(u"ETC\\CONFIG.INI"));
  WIN_FIND_DATA data;
  const int find = Fat_FindFirstFile(CBarePath(u"etc"), &data);
  ASSERT_GE(find, 0);
  std::u16string names;
  do {
    for (const unsigned short* unit = data.cFileName; *unit != 0; ++unit) names += static_cast<char16_t>(*unit);
    names += u' ';
  } while (Fat_FindNextFile(find, &data) != 0);
  EXPECT_NE(names.find(u"Config.ini "), std::u16string::npos) << fatlib::ToUtf8(names);
  EXPECT_EQ(Fat_CloseFindHandle(find), 1u);
}

TEST(VolumeCase, ThousandsInOneDirectory_TakeFewTransfersAtSync) {
  CTestVolume test({32, 36 * MIB, 512, 0});
  ASSERT_FALSE(test.volume.CreateDirectory("/many"));
  for (unsigned int i = 0; i < 3000; ++i) ASSERT_FALSE(Create(&test, "/many/f" + std::to_string(i) + ".txt"));
  const std::uint64_t before = test.medium->writes;
  ASSERT_FALSE(test.volume.Sync());
  EXPECT_LT(test.medium->writes - before, 400u);
  EXPECT_EQ(StandInsIn(test.medium->bytes), 0u);
  EXPECT_TRUE(test.Exists("/many/F2999.TXT"));
  test.CloseAndCheck();
}

// Whatever write of a Sync fails, the name is not lost while the volume is open: the next Sync writes it.
TEST(VolumeCase, FailedSync_IsMadeUpForByTheNext) {
  for (const int bits : {12, 32}) {
    unsigned int madeUpFor = 0;
    bool fired = true;
    for (std::uint64_t transfer = 1; fired; ++transfer) {
      CTestVolume test({bits, (bits == 32 ? 34 : 1) * MIB, 512, 0});
      ASSERT_FALSE(test.volume.CreateDirectory("/dir"));
      ASSERT_FALSE(test.volume.Sync());
      ASSERT_FALSE(Create(&test, "/dir/name.txt"));
      ASSERT_FALSE(Create(&test, "/dir/other.c"));
      test.medium->FailAfter(transfer, false);
      const std::error_code synced = test.volume.Sync();
      fired = test.medium->fired;
      test.medium->Heal();
      EXPECT_TRUE(fired || !synced) << transfer;
      EXPECT_TRUE(synced || !test.medium->firedOnWrite) << transfer;  // a read may be made again
      const std::string names = test.Names("/dir");
      // What the library could not write is gone; what it has written has its name.
      EXPECT_TRUE(names == "name.txt other.c" || names.empty()) << transfer << names;
      if (synced && !names.empty()) ++madeUpFor;
      EXPECT_FALSE(test.volume.Sync()) << transfer;
      EXPECT_FALSE(test.volume.IsDirty());
      EXPECT_EQ(StandInsIn(test.medium->bytes), 0u) << transfer;
      EXPECT_FALSE(test.volume.Close());
    }
    EXPECT_GE(madeUpFor, 3u);
  }
}
