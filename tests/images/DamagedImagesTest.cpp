// Small damaged volumes, one defect each, and what the library must answer to them. The images are the corpus from
// which the fuzzers start (fuzz/corpus, written by fuzz/MakeCorpus.cpp): a name here is the name of a file there.

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>

#include "filesystem/FatFileSystem.h"
#include "support/CorpusImage.h"
#include "support/LibFixture.h"

namespace {

constexpr unsigned int SECTOR = 512;

// The bytes of every healthy file: the alphabet over and over.
std::vector<unsigned char> Letters(std::size_t count) {
  std::vector<unsigned char> bytes(count);
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>('a' + i % 26);
  return bytes;
}

// Cluster size in bytes by the boot sector.
unsigned int ClusterBytes(const CDiskImage& image) { return image.Get16(11) * image.Get8(13); }

// The volume's size by the boot sector.
std::uint64_t VolumeBytes(const CDiskImage& image) {
  const std::uint64_t total = image.Get16(19) != 0 ? image.Get16(19) : image.Get32(32);
  return total * image.Get16(11);
}

std::vector<std::string> Names(const std::vector<LISTED>& listed) {
  std::vector<std::string> names;
  for (const LISTED& entry : listed) names.push_back(entry.Name());
  return names;
}

using NAMES = std::vector<std::string>;

struct NAMED {
  std::string Name;
};
std::ostream& operator<<(std::ostream& out, const NAMED& named) { return out << named.Name; }

// The name of a corpus file as part of a test's name.
std::string TestName(const ::testing::TestParamInfo<NAMED>& info) {
  std::string name = info.param.Name;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

// "name-fat12", "name-fat16" and "name-fat32" for every name.
std::vector<NAMED> OnAllWidths(const std::vector<std::string>& names) {
  std::vector<NAMED> all;
  for (const std::string& name : names) {
    for (const char* width : {"-fat12", "-fat16", "-fat32"}) all.push_back({name + width});
  }
  return all;
}

class CDamagedImage : public CLibFixture, public ::testing::WithParamInterface<NAMED> {
 protected:
  // Mounts the parameter's image in the folder, on memory: every transfer beyond the volume's end fails.
  void MountImage(const std::string& folder) {
    m_Image = LoadCorpusImage(folder + "/" + GetParam().Name);
    if (m_Image.Size() < VolumeBytes(m_Image)) m_Image.Resize(VolumeBytes(m_Image));
    m_pMounted = Mount(BACKEND::Memory, &m_Image);
    ASSERT_NE(m_pMounted, nullptr);
  }
  // The same for one without parameter.
  void MountNamed(const std::string& name) {
    m_Image = LoadCorpusImage(name);
    m_pMounted = Mount(BACKEND::Memory, &m_Image);
    ASSERT_NE(m_pMounted, nullptr) << name;
  }

  static void ExpectFile(unsigned int clusterBytes) {
    EXPECT_EQ(ReadPath("FILE.BIN"), Letters(clusterBytes < SECTOR ? 3 * clusterBytes : 1500));
  }
  // What no damage touches.
  static void ExpectOther(unsigned int clusterBytes) {
    EXPECT_EQ(ReadPath("Other file.txt"), Letters(clusterBytes < SECTOR ? 2 * clusterBytes : 600));
  }
  static void ExpectDir() {
    EXPECT_EQ(ReadPath("DIR\\SUB.TXT"), Letters(100));
    EXPECT_TRUE(Exists("DIR\\Nested"));
  }
  // The volume still takes new files, and gives back what was written after the next mount.
  void ExpectWritable() {
    EXPECT_TRUE(WritePath("A new file.txt", Letters(1000)));
    EXPECT_TRUE(Unmount(m_pMounted));
    m_pMounted = Mount(BACKEND::Memory, &m_Image);
    ASSERT_NE(m_pMounted, nullptr);
    EXPECT_EQ(ReadPath("A new file.txt"), Letters(1000));
  }

  CDiskImage m_Image;
  CFatFileSystem* m_pMounted = nullptr;
};

// ---------------------------------------------------------------------------------------------- files

class FileWithBrokenChain : public CDamagedImage {};

TEST_P(FileWithBrokenChain, CannotBeOpened_AndNothingElseSuffers) {
  MountImage("image");
  EXPECT_FALSE(Exists("FILE.BIN"));
  ExpectOther(SECTOR);
  ExpectDir();
  ExpectWritable();
}

INSTANTIATE_TEST_SUITE_P(Corpus, FileWithBrokenChain,
                         ::testing::ValuesIn(OnAllWidths({
                             "chain-loops-on-itself",
                             "chain-of-two-loops",
                             "chain-loops-at-its-end",
                             "link-to-0",
                             "link-to-1",
                             "link-to-bad",
                             "link-to-reserved",
                             "link-out-of-range",
                             "start-at-1",
                             "start-out-of-range",
                             "start-at-0-with-a-size",
                             "size-beyond-chain",
                             "size-far-beyond-chain",
                         })),
                         TestName);
// The top bits of a FAT32 entry make its value an end mark: the chain is shorter than the size.
INSTANTIATE_TEST_SUITE_P(TopBits, FileWithBrokenChain, ::testing::Values(NAMED{"link-with-top-bits-fat32"}), TestName);

TEST_P(FileWithBrokenChain, CannotBeDeletedRenamedListedOrSized) {
  MountImage("image");
  EXPECT_EQ(Fat_DeleteFile(CPath("FILE.BIN")), 0u);
  WIN_FIND_DATA data;
  EXPECT_EQ(Fat_FindFirstFile(CPath("FILE.BIN"), &data), -1);
  EXPECT_EQ(Fat_CreateFile(CPath("FILE.BIN"), 0, 0), -1);
  EXPECT_EQ(Fat_OpenFile(CPath("FILE.BIN\\X")), -1);
  ExpectOther(SECTOR);
}

class HarmlessDamage : public CDamagedImage {};

TEST_P(HarmlessDamage, LeavesEveryFileReadable) {
  MountImage("image");
  ExpectFile(SECTOR);
  ExpectOther(SECTOR);
  ExpectDir();
  ExpectWritable();
}

INSTANTIATE_TEST_SUITE_P(Corpus, HarmlessDamage,
                         ::testing::ValuesIn(OnAllWidths({
                             "healthy",
                             "chains-cross-linked",
                             "link-to-lowest-end-mark",
                             "directory-contains-itself",
                             "directory-contains-its-parent",
                             "directory-without-cluster",
                             "directory-in-a-file",
                             "file-in-a-directory",
                         })),
                         TestName);

class OneImageOnAllWidths : public CDamagedImage {};

using CrossLinkedFiles = OneImageOnAllWidths;
TEST_P(CrossLinkedFiles, ShareTheBytesOfTheirCommonClusters) {
  MountImage("image");
  const int handle = Fat_OpenFile(CPath("FILE.BIN"));
  ASSERT_GE(handle, 0);
  unsigned char bytes[] = {'S', 'H', 'A', 'R', 'E', 'D'};
  unsigned int done = 0;
  EXPECT_EQ(Fat_WriteFileEx(handle, SECTOR, sizeof(bytes), bytes, &done), 1u);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  EXPECT_TRUE(Unmount(m_pMounted));
  ASSERT_NE(Mount(BACKEND::Memory, &m_Image), nullptr);
  std::vector<unsigned char> expected = Letters(600);
  std::copy(std::begin(bytes), std::end(bytes), expected.begin() + SECTOR);
  EXPECT_EQ(ReadPath("Other file.txt"), expected);
}
INSTANTIATE_TEST_SUITE_P(Corpus, CrossLinkedFiles, ::testing::ValuesIn(OnAllWidths({"chains-cross-linked"})), TestName);

class LinkToLastCluster : public CDamagedImage {};
TEST_P(LinkToLastCluster, IsFollowed) {
  MountImage("image");
  std::vector<unsigned char> expected = Letters(1024);
  expected.resize(1500);
  EXPECT_EQ(ReadPath("FILE.BIN"), expected);
}
INSTANTIATE_TEST_SUITE_P(Corpus, LinkToLastCluster, ::testing::ValuesIn(OnAllWidths({"link-to-last-cluster"})),
                         TestName);

// The number that stands for the fixed root directory: no chain is looked for, and the size counts as 0.
class FileThatStartsAtAllOnes : public CDamagedImage {};
TEST_P(FileThatStartsAtAllOnes, OpensEmpty) {
  MountImage("image");
  EXPECT_EQ(ReadPath("FILE.BIN"), std::vector<unsigned char>());
  ExpectOther(SECTOR);
  ExpectDir();
  EXPECT_EQ(Fat_DeleteFile(CPath("FILE.BIN")), 1u);
  ExpectWritable();
  EXPECT_FALSE(Exists("FILE.BIN"));
}
INSTANTIATE_TEST_SUITE_P(Corpus, FileThatStartsAtAllOnes, ::testing::ValuesIn(OnAllWidths({"start-at-all-ones"})),
                         TestName);

class SizeBelowChain : public CDamagedImage {};
TEST_P(SizeBelowChain, BoundsReading_AndTheRestStaysAllocated) {
  MountImage("image");
  EXPECT_EQ(ReadPath("FILE.BIN"), Letters(100));
  const int handle = Fat_OpenFile(CPath("FILE.BIN"));
  EXPECT_EQ(Fat_SetFileSize(handle, 1500), 1u);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  // The block was loaded up to the old size: what was never loaded reads as zero.
  std::vector<unsigned char> expected = Letters(100);
  expected.resize(1500);
  EXPECT_EQ(ReadPath("FILE.BIN"), expected);
}
INSTANTIATE_TEST_SUITE_P(Corpus, SizeBelowChain, ::testing::ValuesIn(OnAllWidths({"size-below-chain"})), TestName);

using FreeClusterWithTopBits = CDamagedImage;
TEST_F(FreeClusterWithTopBits, IsNeverAllocated) {
  MountNamed("image/free-cluster-with-top-bits-fat32");
  const int handle = Fat_CreateFile(CPath("NEW"), 1, 0);
  ASSERT_GE(handle, 0);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  EXPECT_TRUE(Unmount(m_pMounted));
  const CImageBuilder builder(m_Image);
  EXPECT_EQ(builder.FatEntry(3), 0xF0000000u);
  EXPECT_EQ(builder.FatEntry(4), 0x0FFFFFFFu);
}

// ---------------------------------------------------------------------------------------------- directories

class DirectoryWithBrokenChain : public CDamagedImage {};
TEST_P(DirectoryWithBrokenChain, CannotBeEntered_AndNothingElseSuffers) {
  MountImage("image");
  EXPECT_FALSE(Exists("DIR"));
  EXPECT_FALSE(Exists("DIR\\SUB.TXT"));
  EXPECT_EQ(Fat_CreateFile(CPath("DIR\\NEW"), 0, 0), -1);
  EXPECT_EQ(Fat_DeleteFile(CPath("DIR")), 0u);
  EXPECT_EQ(Fat_MoveFile(CPath("FILE.BIN"), CPath("DIR")), 0u);
  ExpectFile(SECTOR);
  ExpectOther(SECTOR);
}
INSTANTIATE_TEST_SUITE_P(Corpus, DirectoryWithBrokenChain,
                         ::testing::ValuesIn(OnAllWidths({"directory-chain-loops", "directory-chain-leaves-volume"})),
                         TestName);

class DirectoryThatContainsItself : public CDamagedImage {};
TEST_P(DirectoryThatContainsItself, IsEnteredAsOftenAsThePathSays) {
  MountImage("image");
  std::string path = "DIR";
  for (unsigned int depth = 0; depth < 51; ++depth, path += "\\SELF") {
    if (depth % 10 == 0) {
      EXPECT_EQ(Names(List(path)), (NAMES{"SUB.TXT", "Nested", "SELF"})) << depth;
    }
  }
  EXPECT_EQ(ReadPath("DIR\\SELF\\SELF\\SUB.TXT"), Letters(100));
  EXPECT_EQ(Fat_DeleteFile(CPath("DIR\\SELF")), 0u) << "it is not empty";
  EXPECT_EQ(Fat_MoveFile(CPath("DIR"), CPath("DIR\\SELF")), 0u);
}
INSTANTIATE_TEST_SUITE_P(Corpus, DirectoryThatContainsItself,
                         ::testing::ValuesIn(OnAllWidths({"directory-contains-itself"})), TestName);

class DirectoryThatContainsItsParent : public CDamagedImage {};
TEST_P(DirectoryThatContainsItsParent, IsEnteredAsOftenAsThePathSays) {
  MountImage("image");
  EXPECT_EQ(Names(List("DIR\\Nested")), NAMES{"UP"});
  EXPECT_EQ(Names(List("DIR\\Nested\\UP")), (NAMES{"SUB.TXT", "Nested"}));
  EXPECT_EQ(ReadPath("DIR\\Nested\\UP\\Nested\\UP\\SUB.TXT"), Letters(100));
}
INSTANTIATE_TEST_SUITE_P(Corpus, DirectoryThatContainsItsParent,
                         ::testing::ValuesIn(OnAllWidths({"directory-contains-its-parent"})), TestName);

class DirectoryWithoutCluster : public CDamagedImage {};
TEST_P(DirectoryWithoutCluster, OpensEmpty_AndGrowsForItsFirstEntry) {
  MountImage("image");
  EXPECT_TRUE(Exists("EMPTY"));
  WIN_FIND_DATA data;
  EXPECT_EQ(Fat_FindFirstFile(CPath("EMPTY"), &data), -1);
  EXPECT_TRUE(WritePath("EMPTY\\NEW.TXT", Letters(10)));
  EXPECT_EQ(Names(List("EMPTY")), NAMES{"NEW.TXT"});
  EXPECT_TRUE(Unmount(m_pMounted));
  ASSERT_NE(Mount(BACKEND::Memory, &m_Image), nullptr);
  EXPECT_EQ(ReadPath("EMPTY\\NEW.TXT"), Letters(10));
}
INSTANTIATE_TEST_SUITE_P(Corpus, DirectoryWithoutCluster,
                         ::testing::ValuesIn(OnAllWidths({"directory-without-cluster"})), TestName);

class DirectoryInAFile : public CDamagedImage {};
TEST_P(DirectoryInAFile, ReadsTheFilesBytesAsEntries) {
  MountImage("image");
  const int handle = Fat_OpenFile(CPath("FILEDIR"));
  EXPECT_EQ(Fat_IsDir(handle), 1u);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  // Every slot of letters is an entry, but for those whose attribute letter has the label's bit.
  std::size_t entries = 0;
  for (unsigned int slot = 0; slot * 32 < 1500; ++slot) {
    if ((('a' + (slot * 32 + 11) % 26) & 0x08) == 0) ++entries;
  }
  EXPECT_EQ(List("FILEDIR", true).size(), entries);
}
INSTANTIATE_TEST_SUITE_P(Corpus, DirectoryInAFile, ::testing::ValuesIn(OnAllWidths({"directory-in-a-file"})), TestName);

class FileInADirectory : public CDamagedImage {};
TEST_P(FileInADirectory, ReadsTheDirectorysEntriesAsBytes) {
  MountImage("image");
  const std::vector<unsigned char> bytes = ReadPath("DIRFILE");
  ASSERT_EQ(bytes.size(), 512u);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 11), ".          ");
  EXPECT_EQ(std::string(bytes.begin() + 64, bytes.begin() + 75), "SUB     TXT");
}
INSTANTIATE_TEST_SUITE_P(Corpus, FileInADirectory, ::testing::ValuesIn(OnAllWidths({"file-in-a-directory"})), TestName);

using DenseDirectory = CDamagedImage;
TEST_F(DenseDirectory, OfOneNameOnly_IsListedInFull) {
  MountNamed("image/directory-dense-with-one-name");
  WIN_FIND_DATA data;
  const int search = Fat_FindFirstFile(CPath("DENSE"), &data);
  ASSERT_GE(search, 0);
  unsigned int entries = 1;
  while (Fat_FindNextFile(search, &data) != 0) ++entries;
  EXPECT_EQ(entries, 900u * 128u);
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
  EXPECT_TRUE(Exists("DENSE\\SAME"));
  EXPECT_EQ(Fat_CreateFile(CPath("DENSE\\NEW"), 0, 0), -1) << "a directory may not grow beyond 65,536 slots";
}

TEST_F(DenseDirectory, ThatContainsItself_IsEntered) {
  MountNamed("image/directory-dense-contains-itself");
  EXPECT_EQ(List("DENSE\\DENSE\\DENSE", true).size(), 120u * 128u);
}

// ---------------------------------------------------------------------------------------------- boot sector and
// geometry

class RefusedVolume : public CDamagedImage {};

TEST_P(RefusedVolume, IsNotMounted_AndNothingIsWritten) {
  CMedium medium(LoadCorpusImage("mount/" + GetParam().Name));
  CFatFileSystem* mounted = MountMedium(medium);
  EXPECT_EQ(mounted, nullptr);
  EXPECT_EQ(medium.Writes(), 0u);
  if (mounted != nullptr) {
    EXPECT_TRUE(Unmount(mounted));  // while the medium is there
  }
  EXPECT_EQ(Fat_OpenFile(CPath("FILE.BIN")), -1);
}

INSTANTIATE_TEST_SUITE_P(BootSector, RefusedVolume,
                         ::testing::Values(NAMED{"boot-signature-wrong"}, NAMED{"boot-jump-wrong"},
                                           NAMED{"boot-sector-64-bytes"}, NAMED{"boot-sector-768-bytes"},
                                           NAMED{"boot-sector-8192-bytes"}, NAMED{"boot-sectors-per-cluster-0"},
                                           NAMED{"boot-sectors-per-cluster-3"}, NAMED{"boot-reserved-sectors-0"},
                                           NAMED{"boot-fats-0"}, NAMED{"boot-root-entries-0"}, NAMED{"boot-total-0"},
                                           NAMED{"boot-media-0x12"}, NAMED{"boot-media-0xFA"}, NAMED{"boot-fat-size-0"},
                                           NAMED{"boot-fat32-version-1"}, NAMED{"boot-mirroring-off"},
                                           NAMED{"medium-of-0-bytes"}, NAMED{"medium-of-128-bytes"}),
                         TestName);
INSTANTIATE_TEST_SUITE_P(Geometry, RefusedVolume,
                         ::testing::Values(NAMED{"total-below-overhead-fat12"}, NAMED{"total-below-overhead-fat16"},
                                           NAMED{"total-below-overhead-fat32"},
                                           NAMED{"total-below-overhead-large-clusters"}, NAMED{"clusters-65527-fat16"},
                                           NAMED{"clusters-above-fat32-limit"}),
                         TestName);
// Of a volume without clusters the root has none to lie in either.
INSTANTIATE_TEST_SUITE_P(Root, RefusedVolume,
                         ::testing::Values(NAMED{"root-cluster-1"}, NAMED{"root-cluster-last"},
                                           NAMED{"root-cluster-out-of-range"}, NAMED{"root-chain-loops"},
                                           NAMED{"root-chain-is-free"}, NAMED{"root-chain-leaves-volume"},
                                           NAMED{"total-equals-overhead-fat32"}),
                         TestName);

class ReadableVolume : public CDamagedImage {};

TEST_P(ReadableVolume, IsMounted_AndItsFilesAreRead) {
  MountImage("mount");
  const unsigned int clusterBytes = ClusterBytes(m_Image);
  ExpectFile(clusterBytes);
  ExpectOther(clusterBytes);
  ExpectDir();
}

TEST_P(ReadableVolume, HasTheFreeClustersThatItsFatStates) {
  MountImage("mount");
  CImageBuilder builder(m_Image);
  const CFatTable& table = *m_pMounted;
  for (std::uint32_t cluster = 2; cluster < m_pMounted->MaxFileClusters() + 2; ++cluster) {
    ASSERT_EQ(table.Bitmap().TestBit(cluster), builder.FatEntry(cluster) != 0) << cluster;
  }
}

INSTANTIATE_TEST_SUITE_P(BootSector, ReadableVolume,
                         ::testing::Values(NAMED{"boot-jump-0x49"}, NAMED{"boot-mirroring-off-on-fat16"},
                                           NAMED{"boot-total-beyond-medium"}, NAMED{"one-fat"}, NAMED{"three-fats"},
                                           NAMED{"sector-128-bytes"}, NAMED{"sector-1024-bytes"},
                                           NAMED{"sector-4096-bytes"}, NAMED{"root-entries-20"}),
                         TestName);
INSTANTIATE_TEST_SUITE_P(ClusterCount, ReadableVolume,
                         ::testing::Values(NAMED{"clusters-4085"}, NAMED{"clusters-4086"}, NAMED{"clusters-4087"},
                                           NAMED{"clusters-65524-fat16"}, NAMED{"clusters-65525-fat16"},
                                           NAMED{"clusters-65526-fat16"}, NAMED{"clusters-65524-fat32"},
                                           NAMED{"clusters-65525-fat32"}, NAMED{"clusters-65526-fat32"}),
                         TestName);
INSTANTIATE_TEST_SUITE_P(FatShorterThanClusters, ReadableVolume,
                         ::testing::Values(NAMED{"fat-shorter-than-clusters-fat12"},
                                           NAMED{"fat-shorter-than-clusters-fat16"},
                                           NAMED{"fat-shorter-than-clusters-fat32"}),
                         TestName);
INSTANTIATE_TEST_SUITE_P(FsInfo, ReadableVolume,
                         ::testing::Values(NAMED{"fsinfo-lead-signature-wrong"},
                                           NAMED{"fsinfo-structure-signature-wrong"},
                                           NAMED{"fsinfo-trail-signature-wrong"}, NAMED{"fsinfo-counts-wrong"},
                                           NAMED{"fsinfo-sector-0"}, NAMED{"fsinfo-sector-beyond-volume"}),
                         TestName);

class EmptyVolume : public CDamagedImage {};

TEST_P(EmptyVolume, IsMounted_AndHasNoFiles) {
  // On a device: what lies behind the end of the medium reads as zeros.
  CMedium medium(LoadCorpusImage("mount/" + GetParam().Name));
  CFatFileSystem* mounted = MountMedium(medium);
  ASSERT_NE(mounted, nullptr);
  EXPECT_FALSE(Exists("FILE.BIN"));
  EXPECT_FALSE(Exists("DIR"));
  Memory().FailAbove(512u << 20);  // the copying of a large FAT at unmount, which may be left out
  EXPECT_TRUE(Unmount(mounted));
  Memory().Heal();
}

INSTANTIATE_TEST_SUITE_P(Corpus, EmptyVolume,
                         ::testing::Values(NAMED{"root-cluster-0"}, NAMED{"root-cluster-all-ones"},
                                           NAMED{"total-equals-overhead-fat12"}, NAMED{"total-equals-overhead-fat16"},
                                           NAMED{"medium-of-512-bytes"}, NAMED{"medium-of-1024-bytes"},
                                           NAMED{"clusters-1-fat32"}, NAMED{"clusters-16-million-fat32"},
                                           NAMED{"clusters-at-fat32-limit"}, NAMED{"fat-of-4-gigabytes"}),
                         TestName);

using VolumeWithoutClusters = CDamagedImage;
TEST_F(VolumeWithoutClusters, TakesEmptyFilesOnly) {
  MountNamed("mount/total-equals-overhead-fat12");
  const int handle = Fat_CreateFile(CPath("NEW"), 0, 0);
  EXPECT_GE(handle, 0);
  EXPECT_EQ(Fat_SetFileSize(handle, 1), 0u);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  EXPECT_EQ(Fat_CreateFile(CPath("NEW2"), 1, 0), -1);
  EXPECT_EQ(Fat_CreateDir(CPath("NEWDIR"), 0), 0u);
}

class FsInfoSector : public CDamagedImage {};
TEST_P(FsInfoSector, WithAWrongSignature_IsLeftAsItIs) {
  MountImage("mount");
  const CDiskImage before = m_Image;
  EXPECT_TRUE(Unmount(m_pMounted));
  EXPECT_EQ(CDiskImage::Differences(before, m_Image), std::vector<std::uint64_t>());
}
INSTANTIATE_TEST_SUITE_P(Corpus, FsInfoSector,
                         ::testing::Values(NAMED{"fsinfo-lead-signature-wrong"},
                                           NAMED{"fsinfo-structure-signature-wrong"},
                                           NAMED{"fsinfo-trail-signature-wrong"}, NAMED{"fsinfo-sector-0"},
                                           NAMED{"fsinfo-sector-beyond-volume"}),
                         TestName);

using FsInfoCounts = CDamagedImage;
TEST_F(FsInfoCounts, ThatAreWrong_BecomeUnknown) {
  MountNamed("mount/fsinfo-counts-wrong");
  EXPECT_TRUE(Unmount(m_pMounted));
  const std::uint64_t sector = std::uint64_t{m_Image.Get16(48)} * SECTOR;
  EXPECT_EQ(m_Image.Get32(sector + 488), 0xFFFFFFFFu);
  EXPECT_EQ(m_Image.Get32(sector + 492), 0xFFFFFFFFu);
}

// ---------------------------------------------------------------------------------------------- directory slots

std::string LettersText(std::size_t count) {
  const std::vector<unsigned char> letters = Letters(count);
  return std::string(letters.begin(), letters.end());
}

struct SLOTS_CASE {
  const char* Name;
  std::vector<std::string> Listed;  // "long name|SHORT.EXT" of every entry, in order
};
std::ostream& operator<<(std::ostream& out, const SLOTS_CASE& test) { return out << test.Name; }

class DirectorySlots : public CLibFixture, public ::testing::WithParamInterface<SLOTS_CASE> {
 protected:
  // A healthy volume whose directory D holds the slots of a corpus file behind its "." and "..".
  static CDiskImage MakeVolume(const std::string& name) {
    FAT_GEOMETRY geometry;
    geometry.FatBits = 12;
    CImageBuilder builder(geometry);
    const std::vector<std::uint8_t> bytes = ReadCorpusFile("directory/" + name);
    std::vector<std::uint32_t> clusters;
    for (std::size_t at = 1; at < bytes.size() + 2 * 32; at += SECTOR) {
      clusters.push_back(3 + static_cast<std::uint32_t>(clusters.size()));
    }
    const CImageBuilder::DIRECTORY directory = builder.AddDir(CImageBuilder::Root(), "D", clusters);
    std::vector<RAW_ENTRY> entries(bytes.size() / 32);
    for (std::size_t i = 0; i < entries.size(); ++i) {
      std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(1 + i * 32), 32, entries[i].begin());
    }
    (void)builder.Append(directory, entries);
    builder.WriteClusters({100, 101}, Letters(1000));
    builder.SetChain({100, 101});
    builder.WriteClusters({200, 202}, Letters(700));
    builder.SetChain({200, 202});
    return builder.Image();
  }

  static std::vector<std::string> Listing() {
    std::vector<std::string> listing;
    for (const LISTED& entry : List("D")) listing.push_back(entry.LongName + "|" + entry.ShortName);
    return listing;
  }
};

std::string SlotsTestName(const ::testing::TestParamInfo<SLOTS_CASE>& info) {
  std::string name = info.param.Name;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

TEST_P(DirectorySlots, AreListedAsFarAsTheyAreWellFormed) {
  CDiskImage image = MakeVolume(GetParam().Name);
  CFatFileSystem* mounted = Mount(BACKEND::Memory, &image);
  ASSERT_NE(mounted, nullptr);
  EXPECT_EQ(Listing(), GetParam().Listed);
  // What is listed is found under that name, and what was damaged takes up its slots but no more.
  const auto& listed = GetParam().Listed;
  if (std::count(listed.begin(), listed.end(), "|AFTER") == 1) {
    EXPECT_EQ(ReadPath("D\\AFTER"), Letters(700));
  }
  if (std::count(listed.begin(), listed.end(), "|TARGET.TXT") == 1) {
    EXPECT_EQ(ReadPath("D\\TARGET.TXT"), Letters(1000));
  }
  const std::string longName = LettersText(30);
  EXPECT_EQ(Exists("D\\" + longName), std::count(listed.begin(), listed.end(), longName + "|TARGET.TXT") == 1);
  EXPECT_TRUE(WritePath("D\\A new name beside.txt", Letters(50)));
  EXPECT_TRUE(Unmount(mounted));
  ASSERT_NE(Mount(BACKEND::Memory, image), nullptr);
  if (!listed.empty()) {
    EXPECT_EQ(ReadPath("D\\A new name beside.txt"), Letters(50));
  }
}

const std::string FULL = LettersText(30) + "|TARGET.TXT";
const std::string SHORT = "|TARGET.TXT";
const std::string AFTER = "|AFTER";

INSTANTIATE_TEST_SUITE_P(
    LongNameRun, DirectorySlots,
    ::testing::Values(
        SLOTS_CASE{"healthy", {FULL, AFTER}}, SLOTS_CASE{"order-swapped", {SHORT, AFTER}},
        SLOTS_CASE{"order-ascending", {SHORT, AFTER}}, SLOTS_CASE{"piece-repeated", {SHORT, AFTER}},
        SLOTS_CASE{"piece-missing", {SHORT, AFTER}}, SLOTS_CASE{"first-piece-missing", {SHORT, AFTER}},
        SLOTS_CASE{"last-piece-missing", {SHORT, AFTER}}, SLOTS_CASE{"last-flag-missing", {SHORT, AFTER}},
        SLOTS_CASE{"last-flag-on-every-piece", {FULL, AFTER}}, SLOTS_CASE{"ordinal-0", {SHORT, AFTER}},
        SLOTS_CASE{"ordinal-21", {SHORT, AFTER}}, SLOTS_CASE{"ordinal-63", {SHORT, AFTER}},
        SLOTS_CASE{"checksum-of-all-wrong", {SHORT, AFTER}}, SLOTS_CASE{"checksum-of-one-piece-wrong", {SHORT, AFTER}},
        SLOTS_CASE{"short-entry-missing", {AFTER}}, SLOTS_CASE{"short-entry-deleted", {AFTER}},
        SLOTS_CASE{"pieces-after-the-short-entry", {SHORT, AFTER}},
        SLOTS_CASE{"piece-deleted-in-between", {FULL, AFTER}}, SLOTS_CASE{"deleted-before-short-entry", {SHORT, AFTER}},
        SLOTS_CASE{"type-not-zero", {FULL, AFTER}}, SLOTS_CASE{"cluster-field-not-zero", {FULL, AFTER}},
        // The piece reads as a short entry, its units as name bytes.
        SLOTS_CASE{"attribute-of-a-piece-wrong", {"|\x02n", SHORT, AFTER}},
        SLOTS_CASE{"attribute-with-more-bits", {SHORT, AFTER}},
        SLOTS_CASE{"early-terminator", {LettersText(13) + SHORT, AFTER}},
        SLOTS_CASE{"empty-last-piece", {LettersText(26) + SHORT, AFTER}}, SLOTS_CASE{"one-empty-piece", {SHORT, AFTER}},
        SLOTS_CASE{"label-in-between", {SHORT, AFTER}}, SLOTS_CASE{"label-after-run", {AFTER}},
        SLOTS_CASE{"zero-entry-in-between", {}}, SLOTS_CASE{"orphans-only", {AFTER}}),
    SlotsTestName);

INSTANTIATE_TEST_SUITE_P(
    LongName, DirectorySlots,
    ::testing::Values(SLOTS_CASE{"name-of-13-units", {LettersText(13) + SHORT, AFTER}},
                      SLOTS_CASE{"name-of-14-units", {LettersText(14) + SHORT, AFTER}},
                      SLOTS_CASE{"name-of-255-units", {LettersText(255) + SHORT, AFTER}},
                      SLOTS_CASE{"name-of-256-units", {LettersText(256) + SHORT, AFTER}},
                      SLOTS_CASE{"name-of-257-units", {LettersText(257) + SHORT, AFTER}},
                      SLOTS_CASE{"name-of-258-units", {LettersText(258) + SHORT, AFTER}},
                      SLOTS_CASE{"name-of-259-units", {LettersText(259) + SHORT, AFTER}},
                      SLOTS_CASE{"name-of-260-units", {LettersText(260) + SHORT, AFTER}},
                      SLOTS_CASE{"name-of-21-pieces", {SHORT, AFTER}},
                      SLOTS_CASE{"name-with-lone-high-surrogate", {ToUtf8(UTF16{'a', 0xD800, 'b'}) + SHORT, AFTER}},
                      SLOTS_CASE{"name-with-lone-low-surrogate", {ToUtf8(UTF16{0xDC00, 'b'}) + SHORT, AFTER}},
                      SLOTS_CASE{"name-with-reversed-surrogates", {ToUtf8(UTF16{'a', 0xDE00, 0xD83D}) + SHORT, AFTER}},
                      SLOTS_CASE{"name-with-forbidden-units", {"a*?\\\x01/:" + SHORT, AFTER}},
                      SLOTS_CASE{"name-of-spaces-and-dots", {" . .." + SHORT, AFTER}},
                      SLOTS_CASE{"names-that-are-equal", {LettersText(20) + SHORT, LettersText(20) + SHORT, AFTER}}),
    SlotsTestName);

INSTANTIATE_TEST_SUITE_P(
    ShortEntry, DirectorySlots,
    ::testing::Values(SLOTS_CASE{"short-name-of-spaces", {"|", AFTER}},
                      SLOTS_CASE{"short-name-with-zero-bytes", {"|AB.TXT", AFTER}},
                      SLOTS_CASE{"short-name-begins-with-05",
                                 {"|\x05"
                                  "BCDEFG.TXT",
                                  AFTER}},
                      SLOTS_CASE{"short-name-in-lower-case", {"|lower.txt", AFTER}},
                      SLOTS_CASE{"short-name-of-dots-only", {"|.  .  .", AFTER}},
                      SLOTS_CASE{"dot-entries-again", {AFTER}}, SLOTS_CASE{"attributes-all-set", {"|ALL2", AFTER}},
                      SLOTS_CASE{"directory-with-a-size", {"|SIZED", AFTER}},
                      SLOTS_CASE{"chains-of-all-kinds",
                                 {"|ZERO", "|ONE", "|SELF", "|FREE", "|FAR", "|ROOT", "|LARGE", "|EMPTY", AFTER}}),
    SlotsTestName);

class DamagedSlots : public DirectorySlots {};

TEST_F(DamagedSlots, EntriesWithoutAUsableChain_CannotBeOpened) {
  const CDiskImage image = MakeVolume("chains-of-all-kinds");
  ASSERT_NE(Mount(BACKEND::Memory, image), nullptr);
  for (const char* name : {"ZERO", "ONE", "FREE", "FAR", "ROOT", "LARGE"})
    EXPECT_FALSE(Exists(std::string("D\\") + name)) << name;
  EXPECT_TRUE(Exists("D\\SELF\\SELF\\AFTER"));
  EXPECT_TRUE(Exists("D\\EMPTY"));
}

TEST_F(DamagedSlots, NameOf260Units_FillsItsFieldAndNothingElse) {
  const CDiskImage image = MakeVolume("name-of-260-units");
  ASSERT_NE(Mount(BACKEND::Memory, image), nullptr);
  WIN_FIND_DATA data;
  const int search = Fat_FindFirstFile(CPath("D"), &data);
  ASSERT_GE(search, 0);
  EXPECT_EQ(Fat_FindNextFile(search, &data), 1u);
  EXPECT_EQ(Fat_FindNextFile(search, &data), 1u);
  EXPECT_EQ(data.cFileName[259], 'a' + 259 % 26);
  EXPECT_EQ(ToUtf8Z(data.cAlternateFileName, 14), "TARGET.TXT");
  EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
}

TEST_F(DamagedSlots, EqualNames_OpenTheFirst_AndTheSecondAfterItsDeletion) {
  CDiskImage image = MakeVolume("names-that-are-equal");
  CFatFileSystem* mounted = Mount(BACKEND::Memory, &image);
  ASSERT_NE(mounted, nullptr);
  const std::string name = "D\\" + LettersText(20);
  EXPECT_EQ(Fat_DeleteFile(CPath(name)), 1u);
  EXPECT_EQ(Listing(), (NAMES{LettersText(20) + SHORT, AFTER}));
  EXPECT_TRUE(Unmount(mounted));
  // The first is deleted on the medium, the second stands.
  const std::uint64_t slots = CImageBuilder(image).ClusterOffset(3) + 2 * 32;
  EXPECT_EQ(image.Get8(slots), 0xE5u);
  EXPECT_EQ(image.Get8(slots + 3 * 32), 0x42u);
}

TEST_F(DamagedSlots, NamesThatNoPathCanHold_AreListedAndCannotBeOpened) {
  for (const char* file : {"name-with-forbidden-units", "name-of-spaces-and-dots"}) {
    const CDiskImage image = MakeVolume(file);
    CFatFileSystem* mounted = Mount(BACKEND::Memory, image);
    ASSERT_NE(mounted, nullptr);
    EXPECT_FALSE(Exists("D\\" + List("D").at(0).LongName)) << file;
    EXPECT_FALSE(Exists("D\\TARGET.TXT")) << "the short name of an entry with a long name opens nothing";
    EXPECT_TRUE(Unmount(mounted));
  }
}

TEST_F(DamagedSlots, DirectoryWithoutAFreeSlot_GrowsForANewName) {
  CDiskImage image = MakeVolume("full");
  CFatFileSystem* mounted = Mount(BACKEND::Memory, &image);
  ASSERT_NE(mounted, nullptr);
  EXPECT_EQ(List("D").size(), 63u);
  for (unsigned int i = 0; i < 20; ++i) EXPECT_TRUE(WritePath("D\\MORE" + std::to_string(i), Letters(5)));
  EXPECT_TRUE(Unmount(mounted));
  ASSERT_NE(Mount(BACKEND::Memory, image), nullptr);
  EXPECT_EQ(List("D").size(), 83u);
  EXPECT_EQ(ReadPath("D\\MORE19"), Letters(5));
}

TEST_F(DamagedSlots, HolesInADirectory_AreFilledByShortNames) {
  const CDiskImage image = MakeVolume("every-other-slot-deleted");
  ASSERT_NE(Mount(BACKEND::Memory, image), nullptr);
  EXPECT_EQ(List("D").size(), 32u);
  EXPECT_TRUE(WritePath("D\\NEW", Letters(5)));
  EXPECT_EQ(List("D").at(0).ShortName, "NEW") << "the first hole is the first slot behind the dot entries";
}

}  // namespace
