/// @file VolumeTest.cpp
/// Opening, looking, closing.

#include <clocale>

#include "VolumeFixture.h"
#include "support/ImageBuilder.h"

using fatlib::Access;
using fatlib::File;
using fatlib::Status;
using fatlib::Volume;

namespace {

constexpr std::uint64_t MIB = std::uint64_t{1} << 20;

std::error_code OpenImage(Volume* volume, std::vector<unsigned char> bytes, Access mode = Access::ReadWrite,
                          bool force = false) {
  auto medium = std::make_shared<TEST_MEDIUM>();
  medium->bytes = std::move(bytes);
  medium->mode = mode;
  fatlib::VolumeOptions options;
  options.force = force;
  return volume->Open(std::make_unique<CTestDevice>(medium), options);
}

std::vector<unsigned char> Built(const FAT_GEOMETRY& geometry) {
  CImageBuilder builder(geometry);
  (void)builder.AddFile(CImageBuilder::Root(), "FILE.TXT", CImageBuilder::Bytes("content"));
  return builder.Image().ToVector();
}

FAT_GEOMETRY OneFat() {
  FAT_GEOMETRY geometry;
  geometry.NumberOfFats = 1;
  return geometry;
}

FAT_GEOMETRY Ambiguous() {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 12;
  geometry.Clusters = 4086;
  return geometry;
}

}  // namespace

TEST(Volume, FileWritten_IsReadStatAndListedAtOnceAndAfterReopening) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/Hello world.txt", "hello"));
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(test.Read("/hello WORLD.txt"), "hello");
    EXPECT_EQ(test.Stat("/hello world.TXT").size, 5u);
    EXPECT_EQ(test.Names("/"), "Hello world.txt");
    test.Reopen();
  }
  test.CloseAndCheck();
}

TEST(Volume, DeviceWithoutAVolume_IsRefused) {
  Volume volume;
  EXPECT_EQ(OpenImage(&volume, std::vector<unsigned char>(MIB)), Status::NotAVolume);
  EXPECT_EQ(OpenImage(&volume, {}), Status::NotAVolume);
  EXPECT_EQ(volume.Open(nullptr), Status::Refused);
  EXPECT_FALSE(volume.IsOpen());
}

TEST(Volume, DeviceThatCannotBeRead_SaysSo) {
  auto medium = std::make_shared<TEST_MEDIUM>();
  medium->bytes = FormattedImage({});
  medium->FailAfter(1, true);
  Volume volume;
  EXPECT_EQ(volume.Open(std::make_unique<CTestDevice>(medium)), Status::IoError);
}

TEST(Volume, VolumeThatWritingHarms_IsOpenedForReadingOnlyUnlessForced) {
  for (const FAT_GEOMETRY& geometry : {OneFat(), Ambiguous()}) {
    Volume volume;
    EXPECT_EQ(OpenImage(&volume, Built(geometry)), Status::UnsafeVolume);
    ASSERT_FALSE(OpenImage(&volume, Built(geometry), Access::ReadOnly));
    std::vector<unsigned char> bytes;
    EXPECT_FALSE(volume.ReadAll("/FILE.TXT", &bytes));
    EXPECT_EQ(bytes, CImageBuilder::Bytes("content"));
    EXPECT_FALSE(volume.Close());
    EXPECT_FALSE(OpenImage(&volume, Built(geometry), Access::ReadWrite, true));
  }
}

TEST(Volume, OneFatForced_KeepsWhatASecondWouldOverwrite) {
  CTestVolume test;
  test.Close();
  test.medium->bytes = Built(OneFat());
  fatlib::VolumeOptions options;
  options.force = true;
  test.Open(options);
  ASSERT_FALSE(test.Write("/NEW", "new"));
  test.Close();
  test.Open(options);
  EXPECT_EQ(test.Read("/FILE.TXT"), "content");
  EXPECT_EQ(test.Read("/NEW"), "new");
  test.CloseAndCheck();
}

TEST(Volume, OpenForReading_IsLeftBitForBitAndRefusesChanges) {
  CTestVolume test({32, 34 * MIB, 512, 0});
  ASSERT_FALSE(test.volume.CreateDirectory("/D"));
  ASSERT_FALSE(test.Write("/D/F", "abc"));
  test.Close();
  const std::vector<unsigned char> before = test.medium->bytes;
  test.medium->mode = Access::ReadOnly;
  test.Open();
  EXPECT_EQ(test.volume.Mode(), Access::ReadOnly);
  EXPECT_EQ(test.Read("/D/F"), "abc");
  EXPECT_EQ(test.Names("/D"), "F");
  File file;
  EXPECT_EQ(test.volume.OpenFile("/D/F", Access::ReadWrite, &file), Status::WriteProtected);
  EXPECT_EQ(test.Write("/G", ""), Status::WriteProtected);
  EXPECT_EQ(test.volume.CreateFile("/G", 0, File::Fill::Zeros, 0, nullptr), Status::WriteProtected);
  EXPECT_EQ(test.volume.CreateDirectory("/G"), Status::WriteProtected);
  EXPECT_EQ(test.volume.CreateDirectories("/G"), Status::WriteProtected);
  EXPECT_EQ(test.volume.Remove("/D/F"), Status::WriteProtected);
  EXPECT_EQ(test.volume.RemoveAll("/D"), Status::WriteProtected);
  EXPECT_EQ(test.volume.Rename("/D", "/E"), Status::WriteProtected);
  EXPECT_EQ(test.volume.SetAttributes("/D", 0), Status::WriteProtected);
  EXPECT_EQ(test.volume.SetTimes("/D", {}), Status::WriteProtected);
  EXPECT_EQ(test.volume.SetLabel(u"X"), Status::WriteProtected);
  test.Close();
  EXPECT_EQ(test.medium->bytes, before);
}

TEST(Volume, ReadingOnly_LeavesAWritableVolumeBitForBit) {
  CTestVolume test({32, 34 * MIB, 512, 0});
  ASSERT_FALSE(test.Write("/F", "abc"));
  test.Reopen();
  const std::vector<unsigned char> before = test.medium->bytes;
  EXPECT_EQ(test.Read("/F"), "abc");
  EXPECT_FALSE(test.volume.IsDirty());
  test.Close();
  EXPECT_EQ(test.medium->bytes, before);
}

TEST(Volume, Looking_DoesNotReadFiles) {
  CTestVolume test({16, 16 * MIB, 2048, 0});
  ASSERT_FALSE(test.Write("/F", std::string(4 * MIB, 'x')));
  test.Reopen();
  EXPECT_EQ(test.Stat("/F").size, 4 * MIB);
  EXPECT_EQ(test.Names("/"), "F");
  EXPECT_LT(test.medium->reads, 200u);
}

TEST(Volume, LookUpThatFails_SaysWhy) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", ""));
  fatlib::Entry entry;
  fatlib::Directory directory;
  File file;
  EXPECT_EQ(test.volume.Stat("/NONE", &entry), Status::NotFound);
  EXPECT_EQ(test.volume.Stat("/NONE/F", &entry), Status::NotFound);
  EXPECT_EQ(test.volume.Stat("/F/F", &entry), Status::NotADirectory);
  EXPECT_EQ(test.volume.List("/F", &directory), Status::NotADirectory);
  EXPECT_EQ(test.volume.OpenFile("/", Access::ReadOnly, &file), Status::IsADirectory);
  EXPECT_EQ(test.volume.OpenFile("/NONE", Access::ReadWrite, &file), Status::NotFound);
  EXPECT_FALSE(file.IsOpen());
}

TEST(Volume, Root_IsADirectoryWithoutName) {
  CTestVolume test;
  const fatlib::Entry root = test.Stat("/");
  EXPECT_TRUE(root.IsDirectory());
  EXPECT_EQ(root.Utf8Name(), "");
  EXPECT_EQ(test.volume.SetAttributes("/", 0), Status::Refused);
  EXPECT_EQ(test.volume.SetTimes("/", {}), Status::Refused);
}

TEST(Volume, Label_IsSetShownAndNoFile) {
  CTestVolume test;
  std::u16string label;
  ASSERT_FALSE(test.Write("/F", "abc"));
  ASSERT_FALSE(test.volume.SetLabel(u"My label"));
  for (int round = 0; round < 2; ++round) {
    ASSERT_FALSE(test.volume.Label(&label));
    EXPECT_EQ(label, u"MY LABEL");
    EXPECT_EQ(test.Names("/"), "F");
    test.Reopen();
  }
  EXPECT_EQ(test.volume.SetLabel(u"much too long a label"), Status::InvalidName);
  ASSERT_FALSE(test.Write("/G", "after a refused label"));
  test.CloseAndCheck();
}

TEST(Volume, Clusters_AreThoseOfTheFat) {
  CTestVolume test({16, 16 * MIB, 2048, 0});
  ASSERT_FALSE(test.Write("/F", std::string(5000, 'x')));
  ASSERT_FALSE(test.Write("/EMPTY", ""));
  std::vector<fatlib::Extent> extents;
  ASSERT_FALSE(test.volume.Clusters("/F", &extents));
  ASSERT_EQ(extents.size(), 1u);
  EXPECT_EQ(extents[0].count, 3u);
  ASSERT_FALSE(test.volume.Clusters("/EMPTY", &extents));
  EXPECT_TRUE(extents.empty());
  ASSERT_FALSE(test.volume.Clusters("/", &extents));
  EXPECT_TRUE(extents.empty());
}

TEST(Volume, RawBytesThatTheHostHasChanged_AreSeenAfterwards) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", "abc"));
  fatlib::Medium* medium;
  ASSERT_FALSE(test.volume.Raw(&medium));
  EXPECT_FALSE(test.volume.IsDirty());
  ASSERT_FALSE(medium->SetLabel(u"RAW"));
  std::u16string label;
  ASSERT_FALSE(test.volume.Label(&label));
  EXPECT_EQ(label, u"RAW");
  ASSERT_FALSE(test.Write("/G", "def"));
  EXPECT_EQ(test.Names("/"), "F G");
  test.CloseAndCheck();
}

TEST(Volume, SeveralAtOnce_DoNotGetInEachOthersWay) {
  CTestVolume first;
  CTestVolume second({12, MIB, 512, 0});
  File file;
  ASSERT_FALSE(first.volume.CreateFile("/F", 0, File::Fill::Zeros, 0, &file));
  for (unsigned int i = 0; i < 50; ++i) {
    ASSERT_FALSE(second.Write("/a long name " + std::to_string(i), std::to_string(i)));
    ASSERT_FALSE(file.Write(i, "x", 1));
    if (i % 10 == 0) {
      ASSERT_FALSE(second.volume.Sync());
    }
  }
  EXPECT_EQ(first.Read("/F"), std::string(50, 'x'));
  second.CloseAndCheck();
  ASSERT_FALSE(file.Write(50, "y", 1));
  file.Close();
  first.CloseAndCheck();
}

TEST(Volume, AllHandlesTakenByAnother_LeavesEachCallOnItsOwnVolume) {
  CTestVolume first;
  std::vector<File> files(130);
  for (std::size_t i = 0; i < files.size(); ++i) {
    ASSERT_FALSE(first.volume.CreateFile("/F" + std::to_string(i), 0, File::Fill::Zeros, 0, &files[i]));
  }
  CTestVolume second;
  std::vector<File> others(5);
  for (std::size_t i = 0; i < others.size(); ++i) {
    ASSERT_FALSE(second.volume.CreateFile("/O" + std::to_string(i), 0, File::Fill::Zeros, 0, &others[i]));
    ASSERT_FALSE(second.volume.CreateDirectory("/D" + std::to_string(i)));
    ASSERT_FALSE(files[i].Write(0, "x", 1));
  }
  EXPECT_EQ(second.Names("/"), "O0 D0 O1 D1 O2 D2 O3 D3 O4 D4");
  files.clear();
  others.clear();
  first.Reopen();
  second.Reopen();
  EXPECT_EQ(first.Read("/F3"), "x");
  EXPECT_FALSE(first.Exists("/O1"));
  EXPECT_EQ(second.Names("/"), "O0 D0 O1 D1 O2 D2 O3 D3 O4 D4");
  first.CloseAndCheck();
  second.CloseAndCheck();
}

TEST(Volume, MovedObject_TakesTheVolumeAlong) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", "abc"));
  Volume other = std::move(test.volume);
  EXPECT_TRUE(other.IsOpen());
  std::vector<unsigned char> bytes;
  EXPECT_FALSE(other.ReadAll("/F", &bytes));
  Volume third;
  third = std::move(other);
  EXPECT_FALSE(third.Close());
  EXPECT_FALSE(third.Close());
}

TEST(Volume, Closed_RefusesEverything) {
  CTestVolume test;
  test.Close();
  fatlib::Entry entry;
  fatlib::Directory directory;
  std::uint32_t clusters;
  std::vector<unsigned char> bytes;
  EXPECT_FALSE(test.volume.IsOpen());
  EXPECT_FALSE(test.volume.IsDirty());
  EXPECT_EQ(test.volume.Sync(), Status::Refused);
  EXPECT_EQ(test.volume.Stat("/", &entry), Status::Refused);
  EXPECT_EQ(test.volume.List("/", &directory), Status::Refused);
  EXPECT_EQ(test.volume.FreeClusters(&clusters), Status::Refused);
  EXPECT_EQ(test.volume.ReadAll("/F", &bytes), Status::Refused);
  EXPECT_EQ(test.Write("/F", ""), Status::Refused);
  EXPECT_EQ(test.volume.Remove("/F"), Status::Refused);
}

TEST(Volume, TimesOfTheLibrary_AreKeptWhenAskedFor) {
  CTestVolume test;
  test.Close();
  fatlib::VolumeOptions options;
  options.times = false;
  options.clock = [] { return std::timespec{315532800, 0}; };
  test.Open(options);
  ASSERT_FALSE(test.Write("/F", "abc"));
  test.Close();
  test.Open(options);
  EXPECT_GT(test.Stat("/F").times.modified.date >> 9, 2025u - 1980u);
}

TEST(Volume, DirtyUntilSynced) {
  CTestVolume test;
  EXPECT_FALSE(test.volume.IsDirty());
  ASSERT_FALSE(test.volume.CreateDirectory("/D"));
  EXPECT_TRUE(test.volume.IsDirty());
  ASSERT_FALSE(test.volume.Sync());
  EXPECT_FALSE(test.volume.IsDirty());
  EXPECT_EQ(FsckFindings(test.medium->bytes), "");
  EXPECT_EQ(test.medium->flushes, 1u);
  ASSERT_FALSE(test.volume.Sync());
  EXPECT_EQ(test.medium->flushes, 1u);
}
