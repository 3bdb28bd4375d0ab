/// @file RealImagesTest.cpp
/// Volumes as other tools make them: mkfs.fat formats, mtools fills, and the tree of host files that mtools was given
/// is what the library must show: every path, size and byte. Each image is read on every back-end that can hold it,
/// once in whole blocks and once at odd places into odd addresses; afterwards nothing on it may have changed but
/// FSInfo's counters. A reader that shares nothing with the library must see the same tree, so that a misreading of
/// ours cannot pass for a tool's.
///
/// Left out are names that mtools stores as a short name alone in the code page of DOS ("été"): no path of the
/// interface reaches those.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "support/LibFixture.h"
#include "support/VolumeReader.h"

namespace {

namespace fs = std::filesystem;
using BYTES = std::vector<unsigned char>;

constexpr std::uint64_t KIB = 1024;
constexpr std::uint64_t MIB = 1024 * KIB;
constexpr std::uint64_t GIB = 1024 * MIB;
constexpr std::uint64_t MOST_FOR_MEMORY = 48 * MIB;

// ---------------------------------------------------------------- making images

// An image in a directory of its own, with the host files that went onto it.
class CRealImage {
 public:
  explicit CRealImage(std::uint64_t bytes) {
    CDiskImage(bytes).ToFile(Path());
    fs::create_directories(HostPath("Top"));
  }

  std::string Path() const { return m_Directory / "image"; }
  std::string HostRoot() const { return m_Directory / "host"; }
  std::string HostPath(const std::string& path) const { return HostRoot() + "/" + path; }

  void Format(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), arguments.empty() || arguments[0] == "-F" ? "mkfs.fat" : "mformat");
    arguments.push_back(arguments[0] == "mformat" ? "::" : Path());
    if (arguments[0] == "mformat") arguments.insert(arguments.begin() + 1, {"-i", Path()});
    RunOrThrow(arguments);
  }

  // A file of the host tree; its directories are made too.
  void Host(const std::string& path, const BYTES& content) const { WriteHostFile(HostPath(path), content); }
  void Host(const std::string& path, std::size_t size) { Host(path, CImageBuilder::Pattern(size, ++m_nSeed)); }
  // Copies files or whole directories of the host tree into a directory of the image ("" is the root).
  void Copy(const std::vector<std::string>& paths, const std::string& into = "") const {
    std::vector<std::string> command = {"mcopy", "-s", "-Q", "-i", Path()};
    for (const std::string& path : paths) command.push_back(HostPath(path));
    command.push_back("::/" + into);
    RunOrThrow(command);
  }
  // Deletes a file on the image and on the host.
  void Delete(const std::string& path) const {
    RunOrThrow({"mdel", "-i", Path(), "::/" + path});
    fs::remove(HostPath(path));
  }
  // Tells the formatted volume's FSInfo where the next tool shall look for free clusters.
  void SetNextFree(std::uint64_t byteOffset) const {
    CFileImage file(Path());
    const CImageBuilder volume(file);
    const std::uint64_t cluster = (byteOffset - volume.DataOffset()) / volume.ClusterBytes() + 2;
    file.Set32(volume.FsInfoOffset() + 492, static_cast<std::uint32_t>(cluster));
  }

 private:
  CTempDir m_Directory;
  std::uint32_t m_nSeed = 100;
};

// Sizes around clusters and cache blocks, names short and long, and depth. `big` bytes go into the largest file.
void AddCommonTree(CRealImage& image, std::size_t big) {
  image.Host("ROOT.TXT", 700);
  image.Host("A file in the root.bin", 5000);
  image.Host("Top/README.TXT", 1234);
  image.Host("Top/lower.txt", 10);
  image.Host("Top/UPPER.low", 11);
  image.Host("Top/NODOT", 12);
  image.Host("Top/Mixed Case Name.Text", 512);
  image.Host("Top/two.dots.gz", 513);
  image.Host("Top/.profile", 14);
  image.Host("Top/x[1]+y;z=1, etc.txt", 15);
  image.Host("Top/exactly13char", 16);
  image.Host("Top/and fourteen c", 17);
  image.Host("Top/" + std::string(200, 'n') + ".long", 18);
  image.Host("Top/EMPTY", BYTES());
  image.Host("Top/an empty file too", BYTES());
  image.Host("Top/ONE", 1);
  image.Host("Top/32K", 32 * KIB);
  image.Host("Top/32K+1 bytes.bin", 32 * KIB + 1);
  image.Host("Top/big.bin", big);
  image.Host("Top/zeros.bin", BYTES(3000, 0));
  fs::create_directories(image.HostPath("Top/An empty directory"));
  std::string deep = "Top";
  for (int level = 1; level <= 8; ++level) {
    deep += level % 2 == 0 ? "/LEVEL" + std::to_string(level) : "/A long directory name " + std::to_string(level);
    image.Host(deep + "/file on this level.dat", static_cast<std::size_t>(level) * 100);
  }
  image.Copy({"ROOT.TXT", "A file in the root.bin", "Top"});
}

void AddUnicodeNames(CRealImage& image) {
  const std::vector<std::string> names = {"Привет, мир.txt",
                                          "ЗАГЛАВНЫЕ БУКВЫ",
                                          "Ελληνικά γράμματα.md",
                                          "漢字のファイル名.txt",
                                          "简体中文.doc",
                                          "한국어 이름.hwp",
                                          "Größe und Maß.txt",
                                          "ｆｕｌｌｗｉｄｔｈ　ＳＰＡＣＥ.txt",
                                          "עברית.txt",
                                          "العربية مع مسافات.txt",
                                          "ไทย.txt",
                                          "ǅ ﬁ ligature ŉ.txt",
                                          "a\u0301 combining",
                                          "Ԁԁ ℵ ⅷ ⓩ symbols.txt"};
  std::uint32_t seed = 0;
  for (const std::string& name : names) {
    const std::string directory = "Top/" + name + " directory";
    image.Host("Top/" + name, CImageBuilder::Pattern(300 + seed, seed));
    image.Host(directory + "/" + name, CImageBuilder::Pattern(400 + seed, seed + 50));
    ++seed;
  }
  image.Copy({"Top"});
}

// mtools cuts a character beyond U+FFFF to 16 bits, so these names are put on the volume here, from the host tree.
void AddSurrogateNames(CRealImage& image) {
  const std::vector<std::string> names = {"😀.txt", "a😀b😃c", "𝔘𝔫𝔦𝔠𝔬𝔡𝔢 letters.txt", "𠀀𠀁𠀂.漢", "twelve units😀", "🏁"};
  CFileImage file(image.Path());
  CImageBuilder builder(file);
  const CImageBuilder::DIRECTORY top = builder.AddDir(CImageBuilder::Root(), "Top");
  std::uint32_t seed = 0;
  for (const std::string& name : names) {
    ++seed;
    const BYTES content = CImageBuilder::Pattern(1000 + seed * 777, seed);
    image.Host("Top/" + name, content);
    builder.AddFile(top, name, content);
    const BYTES below = CImageBuilder::Pattern(100, seed + 50);
    image.Host("Top/" + name + " 📁/" + name, below);
    builder.AddFile(builder.AddDir(top, name + " 📁"), name, below);
  }
}

void AddManyLongNames(CRealImage& image) {
  // The number comes first: names that begin alike would make mtools try thousands of aliases for each.
  for (int i = 10000; i < 15000; ++i) {
    const std::string text = std::to_string(i);
    image.Host("Top/Many/" + text + " is one of five thousand long names.text", CImageBuilder::Bytes(text));
  }
  image.Copy({"Top"});
}

// Fills the volume with small files, deletes every other one, and puts large files into the holes.
void AddFragments(CRealImage& image) {
  std::vector<std::string> names;
  for (int i = 100; i < 480; ++i) {
    names.push_back("Top/" + std::to_string(i) + " filler.bin");
    image.Host(names.back(), 4000 + static_cast<std::size_t>(i) * 20);
  }
  image.Copy({"Top"});
  for (std::size_t i = 0; i < names.size(); i += 2) image.Delete(names[i]);
  image.Host("Top/fragmented one.bin", 700000);
  image.Host("Top/fragmented two.bin", 900001);
  image.Copy({"Top/fragmented one.bin", "Top/fragmented two.bin"}, "Top");
}

// One file that crosses 4 GiB, and a directory with all its files behind 5 GiB.
void AddPastFourGiB(CRealImage& image) {
  image.SetNextFree(4 * GIB - 300 * KIB);
  image.Host("crosses 4 GiB.bin", 700 * KIB);
  image.Copy({"crosses 4 GiB.bin"});
  image.SetNextFree(5 * GIB);
  image.Host("Top/a far file.bin", 2 * MIB + 5);
  image.Host("Top/Inner directory/far too.txt", 999);
  image.Host("Top/SHORT.TXT", 60);
  image.Copy({"Top"});
}

struct REAL_IMAGE {
  const char* Name;
  std::uint64_t Bytes;
  std::vector<std::string> Format;  // arguments of mkfs.fat when they begin with -F, else of mformat
  std::function<void(CRealImage&)> Fill;
  // What the image was chosen for, so that a tool which silently makes another one is noticed.
  unsigned int FatBits;
  unsigned int ClusterBytes;
  unsigned int Fats = 2;
  std::function<void(const CVolumeReader&)> Check = [](const CVolumeReader&) {};
};
void PrintTo(const REAL_IMAGE& image, std::ostream* out) { *out << image.Name; }

std::function<void(CRealImage&)> CommonTree(std::size_t big) {
  return [big](CRealImage& image) { AddCommonTree(image, big); };
}

std::size_t Pieces(const std::vector<std::uint32_t>& clusters) {
  std::size_t pieces = clusters.empty() ? 0 : 1;
  for (std::size_t i = 1; i < clusters.size(); ++i) pieces += clusters[i] != clusters[i - 1] + 1 ? 1u : 0u;
  return pieces;
}

const VOLUME_NODE& NodeOf(const CVolumeReader& reader, const std::string& path) {
  static const VOLUME_NODE s_Missing;
  const VOLUME_NODE* node = reader.Find(path);
  EXPECT_NE(node, nullptr) << path;
  return node == nullptr ? s_Missing : *node;
}

void CheckFragments(const CVolumeReader& reader) {
  EXPECT_GT(Pieces(NodeOf(reader, "Top\\fragmented one.bin").Clusters), 20u);
  EXPECT_GT(Pieces(NodeOf(reader, "Top\\fragmented two.bin").Clusters), 20u);
  EXPECT_GT(Pieces(NodeOf(reader, "Top").Clusters), 1u);
}

void CheckPastFourGiB(const CVolumeReader& reader) {
  const std::vector<std::uint32_t>& crossing = NodeOf(reader, "crosses 4 GiB.bin").Clusters;
  ASSERT_FALSE(crossing.empty());
  EXPECT_LT(reader.ClusterOffset(crossing.front()), 4 * GIB - 100 * KIB);
  EXPECT_GT(reader.ClusterOffset(crossing.back()), 4 * GIB + 100 * KIB);
  for (const char* path : {"Top", "Top\\a far file.bin", "Top\\Inner directory\\far too.txt", "Top\\SHORT.TXT"}) {
    const std::vector<std::uint32_t>& clusters = NodeOf(reader, path).Clusters;
    ASSERT_FALSE(clusters.empty()) << path;
    EXPECT_GT(reader.ClusterOffset(*std::min_element(clusters.begin(), clusters.end())), 5 * GIB - MIB) << path;
  }
}

// ---------------------------------------------------------------- reading them

std::string AsciiUpper(std::string text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return text;
}

std::string Joined(const std::string& directory, const std::string& name) {
  return directory.empty() ? name : directory + "\\" + name;
}

class RealImages : public CLibFixture, public ::testing::WithParamInterface<REAL_IMAGE> {
 protected:
  using CHECK_FILE = void (*)(int handle, const BYTES& expected);

  // Compares a directory of the volume with one of the host, with all below it.
  void CompareDirectory(const std::string& path, const fs::path& host, CHECK_FILE check) {
    SCOPED_TRACE(path);
    std::map<std::string, fs::path> missing;       // by name
    std::map<std::string, std::string> shortForm;  // the name that an entry without a long name stands for
    for (const fs::directory_entry& entry : fs::directory_iterator(host)) {
      const std::string name = entry.path().filename().string();
      missing[name] = entry.path();
      shortForm[AsciiUpper(name)] = name;
    }
    const std::vector<LISTED> entries = List(path, true);
    ASSERT_GE(entries.size(), 2u);
    EXPECT_EQ(entries[0].Name(), ".");
    EXPECT_EQ(entries[1].Name(), "..");
    for (std::size_t i = 2; i < entries.size(); ++i) {
      const std::string name = entries[i].LongName.empty() ? shortForm[entries[i].ShortName] : entries[i].LongName;
      const auto found = missing.find(name);
      if (found == missing.end()) {
        ADD_FAILURE() << "listed, but not copied there: " << entries[i].Name();
        continue;
      }
      const fs::path hostPath = found->second;
      missing.erase(found);
      const bool directory = fs::is_directory(hostPath);
      EXPECT_EQ(entries[i].IsDir(), directory) << name;
      EXPECT_EQ(entries[i].Size, directory ? 0 : fs::file_size(hostPath)) << name;
      if (directory) {
        ++m_nDirectories;
        CompareDirectory(Joined(path, entries[i].Name()), hostPath, check);
      } else {
        CompareFile(Joined(path, entries[i].Name()), hostPath, check);
      }
    }
    for (const auto& entry : missing) ADD_FAILURE() << "copied there, but not listed: " << entry.first;
  }

  void CompareFile(const std::string& path, const fs::path& host, CHECK_FILE check) {
    SCOPED_TRACE(path);
    const BYTES expected = ReadHostFile(host.string());
    const int handle = Fat_OpenFile(CPath(path));
    ASSERT_GE(handle, 0);
    unsigned int size = 0;
    EXPECT_EQ(Fat_GetFileSize(handle, &size), 1u);
    EXPECT_EQ(size, expected.size());
    EXPECT_EQ(Fat_IsDir(handle), 0u);
    if (size == expected.size()) check(handle, expected);
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
    ++m_nFiles;
  }

  // Files of the root, which cannot be listed, by their path, and Top by listing.
  void CompareTree(const fs::path& host, CHECK_FILE check) {
    m_nFiles = m_nDirectories = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(host)) {
      const std::string name = entry.path().filename().string();
      if (entry.is_directory()) {
        ++m_nDirectories;
        CompareDirectory(name, entry.path(), check);
      } else {
        CompareFile(name, entry.path(), check);
      }
    }
    std::size_t files = 0;
    std::size_t directories = 0;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(host)) {
      ++(entry.is_directory() ? directories : files);
    }
    EXPECT_EQ(m_nFiles, files);
    EXPECT_EQ(m_nDirectories, directories);
  }

  static void CheckInBlocks(int handle, const BYTES& expected) {
    EXPECT_TRUE(ReadAll(handle) == expected);
    unsigned char byte = 0;
    unsigned int reported = 7;
    EXPECT_EQ(Fat_ReadFileEx(handle, static_cast<long long>(expected.size()), 1, &byte, &reported), 0u);
  }

  // Parts that begin and end anywhere, delivered to odd addresses; then all of it by the handle's own offset.
  static void CheckInOddPieces(int handle, const BYTES& expected) {
    const long long size = static_cast<long long>(expected.size());
    const auto part = [&](long long offset, unsigned int count) {
      if (offset < 0 || offset >= size) return;
      const std::size_t end = ToSize(static_cast<unsigned long long>(std::min<long long>(size, offset + count)));
      BYTES buffer(count + 2, 0xA5);
      unsigned int reported = 0;
      EXPECT_EQ(Fat_ReadFileEx(handle, offset, count, buffer.data() + 1, &reported), 1u) << offset;
      const std::size_t length = end - ToSize(static_cast<unsigned long long>(offset));
      EXPECT_TRUE(std::equal(buffer.begin() + 1, buffer.begin() + 1 + static_cast<std::ptrdiff_t>(length),
                             expected.begin() + static_cast<std::ptrdiff_t>(offset)))
          << count << " bytes at " << offset;
      EXPECT_EQ(buffer.front(), 0xA5);
      EXPECT_EQ(buffer.back(), 0xA5);
    };
    part(size - 1, 1);
    part(size / 2 + 1, 1);
    part(0x3FFFF, 2);
    part(0x80001, 0x7FFFE);
    part(size / 3, 100003);
    part(0, 1);
    part(511, 514);
    part(size - 5, 100);
    part(1, static_cast<unsigned int>(expected.size()));
    constexpr unsigned int STEP = 77777;
    BYTES piece(STEP);
    for (std::size_t offset = 0; offset < expected.size(); offset += STEP) {
      unsigned int reported = 0;
      EXPECT_EQ(Fat_SetFileOffset(handle, static_cast<unsigned int>(offset), 0), 1u);
      EXPECT_EQ(Fat_ReadFile(handle, STEP, piece.data(), &reported), 1u);
      const std::size_t length = std::min<std::size_t>(STEP, expected.size() - offset);
      EXPECT_TRUE(std::equal(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(length),
                             expected.begin() + static_cast<std::ptrdiff_t>(offset)))
          << "from " << offset;
    }
  }

  // The independent reader's tree against the host's.
  static void CompareReader(const CVolumeReader& reader, const fs::path& host) {
    EXPECT_EQ(reader.ProblemText(), "");
    std::size_t count = 0;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(host)) {
      ++count;
      std::string path = entry.path().lexically_relative(host).string();
      std::replace(path.begin(), path.end(), '/', '\\');
      const VOLUME_NODE* node = reader.Find(path);
      if (node == nullptr) {
        // A short name in lower case is kept as upper case and a flag.
        const std::size_t name = path.rfind('\\') + 1;
        node = reader.Find(path.substr(0, name) + AsciiUpper(path.substr(name)));
      }
      if (node == nullptr) {
        ADD_FAILURE() << "the reader misses " << path;
      } else if (!entry.is_directory()) {
        EXPECT_EQ(node->Hash, CVolumeReader::HashOf(ReadHostFile(entry.path().string()))) << path;
      }
    }
    EXPECT_EQ(reader.Tree().size(), count);
  }

 private:
  std::size_t m_nFiles = 0;
  std::size_t m_nDirectories = 0;
};

TEST_P(RealImages, PathsSizesAndContents_AreThoseOfTheHostTree) {
  const REAL_IMAGE& real = GetParam();
  CRealImage made(real.Bytes);
  ASSERT_NO_THROW({
    made.Format(real.Format);
    real.Fill(made);
  });
  const CDiskImage image = CDiskImage::FromFile(made.Path());
  const CVolumeReader reader(image);
  ASSERT_EQ(reader.FatBits(), real.FatBits);
  ASSERT_EQ(reader.ClusterBytes(), real.ClusterBytes);
  ASSERT_EQ(image.Get8(16), real.Fats);
  real.Check(reader);
  CompareReader(reader, made.HostRoot());

  std::vector<BACKEND> backends = {BACKEND::File, BACKEND::Medium};
  if (real.Bytes <= MOST_FOR_MEMORY) backends.push_back(BACKEND::Memory);
  for (const BACKEND backend : backends) {
    SCOPED_TRACE(BackendName(backend));
    for (const CHECK_FILE check : {&CheckInBlocks, &CheckInOddPieces}) {
      SCOPED_TRACE(check == &CheckInBlocks ? "in blocks" : "in odd pieces");
      CDiskImage copy = image;
      CMedium medium(image);
      CFatFileSystem* fileSystem = backend == BACKEND::Medium ? MountMedium(medium) : Mount(backend, &copy);
      ASSERT_NE(fileSystem, nullptr);
      CompareTree(made.HostRoot(), check);
      EXPECT_EQ(medium.Writes(), 0u) << medium.TraceText();
      EXPECT_EQ(medium.OutOfRange(), 0u);
      ASSERT_TRUE(Unmount(fileSystem));
      if (backend == BACKEND::Medium) copy = medium.Image();
      // Unmounting copies the first FAT over the second. A volume without a second one loses what lies there.
      if (real.Fats == 1) continue;
      std::vector<std::uint64_t> changed = CDiskImage::Differences(image, copy);
      if (real.FatBits == 32) {
        const std::uint64_t counters = std::uint64_t{image.Get16(48)} * image.Get16(11) + 488;
        EXPECT_EQ(copy.Get32(counters), 0xFFFFFFFFu);
        EXPECT_EQ(copy.Get32(counters + 4), 0xFFFFFFFFu);
        changed.erase(std::remove_if(changed.begin(), changed.end(),
                                     [counters](std::uint64_t at) { return at >= counters && at < counters + 8; }),
                      changed.end());
      }
      EXPECT_EQ(changed, std::vector<std::uint64_t>{}) << "reading has changed the volume";
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Made, RealImages,
    ::testing::Values(
        REAL_IMAGE{"Fat12Floppy1440K", 1440 * KIB, {"-F", "12"}, CommonTree(600 * KIB), 12, 512},
        REAL_IMAGE{"Fat12Floppy720KByMformat", 720 * KIB, {"-f", "720"}, CommonTree(270 * KIB), 12, 1024},
        REAL_IMAGE{"Fat12Sectors4096", 12 * MIB, {"-F", "12", "-S", "4096", "-s", "1"}, CommonTree(3 * MIB), 12, 4096},
        REAL_IMAGE{"Fat12OneFat", 8 * MIB, {"-F", "12", "-f", "1", "-s", "8"}, CommonTree(2 * MIB), 12, 4096, 1},
        REAL_IMAGE{"Fat16Sectors512", 16 * MIB, {"-F", "16", "-s", "1"}, CommonTree(5 * MIB + 3), 16, 512},
        REAL_IMAGE{"Fat16Sectors1024", 24 * MIB, {"-F", "16", "-S", "1024", "-s", "2"}, CommonTree(4 * MIB), 16, 2048},
        REAL_IMAGE{"Fat16Sectors4096", 36 * MIB, {"-F", "16", "-S", "4096", "-s", "1"}, CommonTree(4 * MIB), 16, 4096},
        REAL_IMAGE{"Fat16Clusters64K", 400 * MIB, {"-F", "16", "-s", "128"}, CommonTree(3 * MIB), 16, 65536},
        REAL_IMAGE{"Fat16OneFat", 16 * MIB, {"-F", "16", "-f", "1", "-s", "2"}, CommonTree(2 * MIB), 16, 1024, 1},
        REAL_IMAGE{"Fat16ThreeFats", 16 * MIB, {"-F", "16", "-f", "3", "-s", "2"}, CommonTree(2 * MIB), 16, 1024, 3},
        REAL_IMAGE{"Fat16Fragmented", 4 * MIB, {"-F", "16", "-s", "1"}, AddFragments, 16, 512, 2, CheckFragments},
        REAL_IMAGE{"Fat32OneSectorPerCluster", 40 * MIB, {"-F", "32", "-s", "1"}, CommonTree(5 * MIB), 32, 512},
        REAL_IMAGE{"Fat32Sectors2048", 200 * MIB, {"-F", "32", "-S", "2048", "-s", "1"}, CommonTree(3 * MIB), 32, 2048},
        REAL_IMAGE{"Fat32Clusters64K", 5 * GIB, {"-F", "32", "-s", "128"}, CommonTree(3 * MIB), 32, 65536},
        REAL_IMAGE{
            "Fat32Clusters512K", 40 * GIB, {"-F", "32", "-S", "4096", "-s", "128"}, CommonTree(3 * MIB), 32, 524288},
        REAL_IMAGE{"Fat32OneFat", 40 * MIB, {"-F", "32", "-f", "1", "-s", "1"}, CommonTree(2 * MIB), 32, 512, 1},
        REAL_IMAGE{"Fat32FiveThousandLongNames", 44 * MIB, {"-F", "32", "-s", "1"}, AddManyLongNames, 32, 512},
        REAL_IMAGE{"Fat16UnicodeNames", 16 * MIB, {"-F", "16", "-s", "4"}, AddUnicodeNames, 16, 2048},
        REAL_IMAGE{"Fat32SurrogatePairs", 40 * MIB, {"-F", "32", "-s", "1"}, AddSurrogateNames, 32, 512},
        REAL_IMAGE{
            "Fat32PastFourGiB", 6 * GIB, {"-F", "32", "-s", "8"}, AddPastFourGiB, 32, 4096, 2, CheckPastFourGiB}),
    [](const ::testing::TestParamInfo<REAL_IMAGE>& image) { return std::string(image.param.Name); });

}  // namespace
