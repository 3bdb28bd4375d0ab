/// @file VolumeDamageTest.cpp
/// Entries that the library cannot reach, and damaged volumes: what can be read is read, the rest is told, and nothing
/// crashes.

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>

#include "VolumeFixture.h"
#include "support/CorpusImage.h"
#include "support/ImageBuilder.h"

using fatlib::Access;
using fatlib::File;
using fatlib::Status;

namespace {

/// Opens an image that was built.
class CBuiltVolume : public CTestVolume {
 public:
  explicit CBuiltVolume(CImageBuilder* builder) {
    Close();
    medium->bytes = builder->Image().ToVector();
    Open();
  }
};

/// Looks at everything, changes what can be changed.
void Walk(fatlib::Volume* volume, const fatlib::Path& path, unsigned int depth, unsigned int* budget) {
  fatlib::Directory directory;
  if (volume->List(path, &directory)) return;
  for (const fatlib::Entry& entry : directory) {
    if (depth == 0 || *budget == 0) return;
    --*budget;
    const fatlib::Path below = path / entry.name;
    fatlib::Entry again;
    (void)volume->Stat(below, &again);
    if (entry.IsDirectory()) {
      Walk(volume, below, depth - 1, budget);
      (void)volume->WriteAll(below / u"a new name", "new", 3);
    } else {
      File file;
      char bytes[64];
      std::size_t done;
      if (!volume->OpenFile(below, Access::ReadOnly, &file)) (void)file.Read(0, bytes, sizeof bytes, &done);
      if (*budget % 3 == 0) (void)volume->WriteAll(below, bytes, sizeof bytes);
    }
    if (*budget % 5 == 0) (void)volume->Rename(below, path / u"renamed name", true);
    if (*budget % 7 == 0) (void)volume->RemoveAll(below);
  }
}

constexpr std::uint64_t MIB = std::uint64_t{1} << 20;

/// @return false when there is no volume
bool OpenAndWalk(std::vector<unsigned char> bytes) {
  auto medium = std::make_shared<TEST_MEDIUM>();
  medium->bytes = std::move(bytes);
  fatlib::Volume volume;
  fatlib::VolumeOptions options;
  options.force = true;
  if (volume.Open(std::make_unique<CTestDevice>(medium), options)) return false;
  unsigned int budget = 200;
  Walk(&volume, {}, 4, &budget);
  (void)volume.WriteAll("/a new file in the root", "x", 1);
  (void)volume.Close();
  return true;
}

}  // namespace

TEST(VolumeDamage, NamesOnlyOtherSystemsWrite_AreListedAndReadButNotChanged) {
  CImageBuilder builder{FAT_GEOMETRY()};
  ENTRY_OPTIONS alone;
  alone.NoLongName = true;
  alone.ShortName =
      "GR\x9A\xE1"
      "E   TXT";
  const auto text = CImageBuilder::Bytes("content");
  (void)builder.AddFile(CImageBuilder::Root(), "two..dots", text);
  (void)builder.AddFile(CImageBuilder::Root(), "x", text, {}, alone);
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "dir. ");
  (void)builder.AddFile(dir, "BELOW", text);
  CBuiltVolume test(&builder);
  fatlib::Directory root;
  ASSERT_FALSE(test.volume.List("/", &root));
  ASSERT_EQ(root.size(), 3u);
  for (const fatlib::Entry& entry : root) {
    const fatlib::Path path = fatlib::Path() / entry.name;
    EXPECT_FALSE(entry.reachable) << entry.Utf8Name();
    EXPECT_EQ(test.volume.Remove(path), Status::Unreachable);
    EXPECT_EQ(test.volume.Rename(path, "/NEW"), Status::Unreachable);
    EXPECT_EQ(test.volume.SetAttributes(path, 0), Status::Unreachable);
    EXPECT_EQ(test.volume.SetTimes(path, {}), Status::Unreachable);
    if (entry.IsDirectory()) continue;
    std::vector<unsigned char> bytes;
    File file;
    EXPECT_FALSE(test.volume.ReadAll(path, &bytes));
    EXPECT_EQ(bytes, text);
    EXPECT_EQ(test.volume.OpenFile(path, Access::ReadWrite, &file), Status::Unreachable);
  }
  const fatlib::Path below = fatlib::Path() / u"dir. " / u"BELOW";
  std::vector<unsigned char> bytes;
  EXPECT_FALSE(test.volume.ReadAll(below, &bytes));
  EXPECT_EQ(bytes, text);
  EXPECT_EQ(test.volume.Remove(below), Status::Unreachable);
}

TEST(VolumeDamage, TwoEntriesOfOneName_TheFirstWins) {
  CImageBuilder builder{FAT_GEOMETRY()};
  ENTRY_OPTIONS first;
  first.ShortName = "A~1        ";
  ENTRY_OPTIONS second;
  second.ShortName = "A~2        ";
  (void)builder.AddFile(CImageBuilder::Root(), "same name", CImageBuilder::Bytes("first"), {}, first);
  (void)builder.AddFile(CImageBuilder::Root(), "Same Name", CImageBuilder::Bytes("second"), {}, second);
  CBuiltVolume test(&builder);
  EXPECT_EQ(test.Read("/same name"), "first");
  fatlib::Directory root;
  ASSERT_FALSE(test.volume.List("/", &root));
  ASSERT_EQ(root.size(), 2u);
  EXPECT_TRUE(root.begin()[0].reachable);
  EXPECT_FALSE(root.begin()[1].reachable);
}

TEST(VolumeDamage, ChainShorterThanTheSize_IsCorruptAndNotWritten) {
  CImageBuilder builder{FAT_GEOMETRY()};
  ENTRY_OPTIONS options;
  options.SetSize = true;
  options.Size = 100000;
  (void)builder.AddFile(CImageBuilder::Root(), "SHORT", CImageBuilder::Bytes("content"), {}, options);
  (void)builder.AddFile(CImageBuilder::Root(), "FINE", CImageBuilder::Bytes("fine"));
  CBuiltVolume test(&builder);
  File file;
  ASSERT_FALSE(test.volume.OpenFile("/SHORT", Access::ReadWrite, &file));
  EXPECT_EQ(file.Write(50000, "x", 1), Status::DiskCorrupt);
  char byte;
  std::size_t done;
  EXPECT_EQ(file.Read(90000, &byte, 1, &done), Status::DiskCorrupt);
  EXPECT_EQ(test.volume.Rename("/SHORT", "/OTHER"), Status::DiskCorrupt);
  EXPECT_EQ(test.Read("/FINE"), "fine");
}

TEST(VolumeDamage, DirectoryThatContainsItself_EndsTheWalk) {
  CImageBuilder builder{FAT_GEOMETRY()};
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), "LOOP");
  ENTRY_OPTIONS options;
  options.SetFirstCluster = true;
  options.FirstCluster = builder.DirectoryClusters(dir).front();
  options.Attributes = 0x10;
  (void)builder.AddFile(dir, "AGAIN", {}, {}, options);
  CBuiltVolume test(&builder);
  fatlib::Directory listed;
  EXPECT_FALSE(test.volume.List("/LOOP", &listed));
  EXPECT_EQ(test.volume.List("/LOOP/AGAIN", &listed), Status::DiskCorrupt);
  EXPECT_EQ(test.volume.RemoveAll("/LOOP"), Status::DiskCorrupt);
}

TEST(VolumeDamage, ImagesOfEveryKind_AreWalkedAndChangedWithoutHarm) {
  const CTestVolume keepsTheLibraryUp({12, MIB, 512, 0});
  unsigned int opened = 0;
  for (const auto& file : std::filesystem::directory_iterator(std::string(FATLIB_CORPUS) + "/image")) {
    SCOPED_TRACE(file.path().filename());
    if (OpenAndWalk(LoadCorpusImage(file.path()).ToVector())) ++opened;
  }
  EXPECT_GT(opened, 50u);
}

TEST(VolumeDamage, BytesThatWereOverwritten_AreWalkedAndChangedWithoutHarm) {
  CTestVolume test({12, MIB, 512, 64});
  ASSERT_FALSE(test.volume.CreateDirectories("/A directory/B/C"));
  for (unsigned int i = 0; i < 30; ++i) {
    const std::string number = std::to_string(i);
    ASSERT_FALSE(test.Write((i % 3 == 0   ? "/"
                             : i % 3 == 1 ? "/A directory/"
                                          : "/A directory/B/") +
                                number + " of many",
                            std::string(i * 300, 'x')));
  }
  ASSERT_FALSE(test.volume.Sync());
  const std::vector<unsigned char> image = test.medium->bytes;
  const char* const seedText = std::getenv("FATLIB_SEED");
  const unsigned long seed = seedText == nullptr ? 4711 : std::strtoul(seedText, nullptr, 10);
  const char* const roundsText = std::getenv("FATLIB_ROUNDS");
  const unsigned long rounds = roundsText == nullptr ? 150 : std::strtoul(roundsText, nullptr, 10);
  std::cout << "FATLIB_SEED=" << seed << "\n";
  std::mt19937 random(static_cast<unsigned int>(seed));
  for (unsigned long round = 0; round < rounds; ++round) {
    std::vector<unsigned char> damaged = image;
    for (unsigned long i = 0; i <= round % 12; ++i) {
      damaged[512 + random() % 40000] = static_cast<unsigned char>(random() >> 9);  // FATs, root, first directories
    }
    EXPECT_TRUE(OpenAndWalk(std::move(damaged))) << round;
  }
}
