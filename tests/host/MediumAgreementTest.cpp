/// @file MediumAgreementTest.cpp
/// A medium's directories read directly against the library's listing of them: on healthy volumes that the library has
/// filled, and on the damaged ones from which the fuzzers start (fuzz/corpus).

#include <fatlib/Error.h>
#include <fatlib/FatLibIntf.h>
#include <fatlib/Medium.h>
#include <fatlib/Path.h>
#include <fatlib/Text.h>
#include <fatlib/XStorage.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <ostream>

#include "ImageDevice.h"
#include "support/CorpusImage.h"
#include "support/ImageBuilder.h"
#include "support/Process.h"

namespace {

using fatlib::Medium;
using fatlib::RawEntry;

/// What both sides say of an entry.
struct LISTED {
  std::u16string LongName;
  std::u16string ShortName;
  unsigned int Attributes = 0;
  std::uint32_t Size = 0;

  bool operator==(const LISTED& other) const {
    return LongName == other.LongName && ShortName == other.ShortName && Attributes == other.Attributes &&
           Size == other.Size;
  }
};

std::ostream& operator<<(std::ostream& out, const LISTED& entry) {
  return out << fatlib::ToUtf8(entry.LongName) << " [" << fatlib::ToUtf8(entry.ShortName) << "] " << entry.Attributes
             << " " << entry.Size;
}

std::u16string Units(const unsigned short* units, std::size_t most) {
  const unsigned short* end = std::find(units, units + most, 0);
  return std::u16string(units, end);
}

// A short name with such bytes is shown as the locale of the process has it, or not at all.
bool IsAscii(const RawEntry& entry) {
  return std::all_of(entry.shortName.begin(), entry.shortName.end(), [](int byte) { return byte < 0x80; });
}

LISTED Listed(const RawEntry& entry) {
  LISTED out;
  if (entry.hasLongName) out.LongName = entry.name;
  if (IsAscii(entry)) out.ShortName = entry.ShortNameText();
  out.Attributes = entry.attributes;
  out.Size = entry.size;
  return out;
}

LISTED Listed(const WIN_FIND_DATA& data) {
  LISTED out;
  out.LongName = Units(data.cFileName, 260);
  out.ShortName = Units(data.cAlternateFileName, 14);
  // 05 at the front, which stands for E5, is shown as it is.
  if (!std::all_of(out.ShortName.begin(), out.ShortName.end(), [](int unit) { return unit < 0x80 && unit != 5; })) {
    out.ShortName.clear();
  }
  out.Attributes = data.dwFileAttributes;
  out.Size = data.nFileSizeLow;
  return out;
}

/// One image, seen by the library as a file, and by a Medium in memory.
class CTwoViews {
 public:
  explicit CTwoViews(const CDiskImage& image) : m_Device(image), m_Path(m_Directory / "image") {
    image.ToFile(m_Path);
    Fat_LibInitialize();
    m_pStorage = new CFatPartition;
    m_pMounted = Fat_Mount(m_pStorage, m_Path.data());
  }
  ~CTwoViews() {
    if (m_pMounted != nullptr) Fat_Unmount(m_pMounted);
    Fat_LibTerminate();
    if (m_pMounted != nullptr) ::operator delete(m_pStorage);
  }
  CTwoViews(const CTwoViews&) = delete;
  CTwoViews& operator=(const CTwoViews&) = delete;

  bool IsMounted() const { return m_pMounted != nullptr; }
  std::error_code OpenMedium() { return m_Medium.Open(&m_Device); }

  /// Compares every directory that a path of the library leads to. @return how many
  unsigned int CompareAll() {
    m_nDirectories = 0;
    m_nLeft = 300;
    Compare(fatlib::Path(), Medium::ROOT, 0);
    return m_nDirectories;
  }

 private:
  static std::vector<LISTED> ListByLibrary(std::u16string path) {
    std::vector<LISTED> entries;
    std::vector<unsigned short> units(path.begin(), path.end());
    units.push_back(0);
    WIN_FIND_DATA data;
    const int search = Fat_FindFirstFile(units.data(), &data);
    if (search == -1) return entries;
    do {
      entries.push_back(Listed(data));
    } while (Fat_FindNextFile(search, &data) != 0);
    Fat_CloseFindHandle(search);
    return entries;
  }

  static std::u16string LibraryPath(const fatlib::Path& path) {
    std::u16string text;
    for (const std::u16string& component : path.Components()) {
      if (!text.empty()) text += u'\\';
      text += component;
    }
    return text;
  }

  // Whether the library finds just this entry under its name. @param names  how many entries have each name
  static bool IsReachable(const RawEntry& entry, const std::map<std::u16string, unsigned int>& names) {
    return !entry.IsLabel() && !fatlib::CheckName(entry.name) && names.at(fatlib::UpCase(entry.name)) == 1 &&
           (entry.hasLongName || (IsAscii(entry) && fatlib::UpCase(entry.name) == entry.ShortNameText()));
  }

  // A directory entry with these numbers is for the library one without clusters, and one whose bytes are the root's.
  static bool HasPlace(const RawEntry& entry) { return entry.firstCluster != 0 && entry.firstCluster != 0xFFFFFFFF; }

  void Compare(const fatlib::Path& path, fatlib::DirectoryPlace place, unsigned int depth) {
    if (m_nLeft == 0 || depth > 6) return;
    std::vector<RawEntry> entries;
    const std::error_code error = m_Medium.ReadDirectory(place, &entries);
    if (depth != 0) {
      ++m_nDirectories;
      std::vector<LISTED> expected;
      for (const RawEntry& entry : entries) {
        if (!entry.IsLabel() && !error) expected.push_back(Listed(entry));
      }
      EXPECT_EQ(ListByLibrary(LibraryPath(path)), expected) << path.ToUtf8() << ": " << error.message();
    }
    if (error) return;  // the library does not open it
    std::map<std::u16string, unsigned int> names;
    for (const RawEntry& entry : entries) ++names[fatlib::UpCase(entry.name)];
    for (const RawEntry& entry : entries) {
      const fatlib::Path below = path / entry.name;
      if (!IsReachable(entry, names) || below.Check() || m_nLeft == 0) continue;
      --m_nLeft;
      if (!entry.IsDirectory()) {
        CompareFile(below, entry);
      } else if (HasPlace(entry)) {
        Compare(below, entry.firstCluster, depth + 1);
      }
    }
  }

  // What the library has opened under that name must be this entry; it opens no file with a broken chain
  // (nor one that is shorter than its size).
  void CompareFile(const fatlib::Path& path, const RawEntry& entry) {
    const std::u16string text = LibraryPath(path);
    std::vector<unsigned short> units(text.begin(), text.end());
    units.push_back(0);
    const int handle = Fat_OpenFile(units.data());
    std::vector<fatlib::Extent> extents;
    const std::error_code error = m_Medium.Chain(entry.firstCluster, &extents);
    const bool ordinary = entry.firstCluster != 0xFFFFFFFF;
    EXPECT_TRUE(!ordinary || handle == -1 || !error) << path.ToUtf8() << ": " << error.message();
    if (handle == -1) return;
    WIN_FIND_DATA data;
    ASSERT_NE(Fat_GetFileAttribute(handle, &data), 0u);
    EXPECT_TRUE(!ordinary || Listed(data) == Listed(entry)) << path.ToUtf8();
    Fat_CloseFile(handle);
  }

  CImageDevice m_Device;
  CTempDir m_Directory;
  std::string m_Path;
  Medium m_Medium;
  CFatPartition* m_pStorage;
  CFatFileSystem* m_pMounted;
  unsigned int m_nDirectories = 0;
  unsigned int m_nLeft = 0;  // how many more entries are looked at: directories may contain each other
};

std::vector<std::filesystem::path> FilesOf(const char* folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& file : std::filesystem::directory_iterator(std::string(FATLIB_CORPUS) + "/" + folder)) {
    files.push_back(file.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

TEST(MediumAgreement, DamagedImagesListAsTheLibraryListsThem) {
  unsigned int directories = 0;
  for (const std::filesystem::path& file : FilesOf("image")) {
    SCOPED_TRACE(file.filename());
    CTwoViews views(LoadCorpusImage(file));
    ASSERT_FALSE(views.OpenMedium());
    if (views.IsMounted()) directories += views.CompareAll();
  }
  EXPECT_GT(directories, 150u);
}

// A mount fails for more reasons than a boot sector; those are listed.
TEST(MediumAgreement, BootSectorsAreRefusedAsTheLibraryRefusesThem) {
  const std::vector<std::string> otherReasons = {
      "root-chain-is-free",        "root-chain-leaves-volume", "root-chain-loops",           "root-cluster-1",
      "root-cluster-out-of-range", "root-cluster-last",        "total-equals-overhead-fat32"};
  unsigned int refused = 0;
  for (const std::filesystem::path& file : FilesOf("mount")) {
    SCOPED_TRACE(file.filename());
    CTwoViews views(LoadCorpusImage(file));
    const std::error_code error = views.OpenMedium();
    if (views.IsMounted()) {
      EXPECT_FALSE(error) << error.message();
      if (!error) views.CompareAll();
      continue;
    }
    ++refused;
    const std::string name = file.filename();
    const bool other = std::any_of(otherReasons.begin(), otherReasons.end(), [&name](const std::string& reason) {
      return name.compare(0, reason.size(), reason) == 0;
    });
    EXPECT_TRUE(other || error == fatlib::Status::NotAVolume) << error.message();
  }
  EXPECT_GT(refused, 15u);
}

TEST(MediumAgreement, DamagedDirectoriesListAsTheLibraryListsThem) {
  for (const std::filesystem::path& file : FilesOf("directory")) {
    SCOPED_TRACE(file.filename());
    std::vector<std::uint8_t> slots = ReadCorpusFile(file);
    slots.erase(slots.begin());  // says where a fuzzer puts them
    FAT_GEOMETRY geometry;
    geometry.FatBits = 12;
    geometry.SectorsPerCluster = 4;
    CImageBuilder builder(geometry);
    builder.AddFile(CImageBuilder::Root(), "FILE.BIN", CImageBuilder::Pattern(5000, 1));
    const auto directory = builder.AddDir(CImageBuilder::Root(), "DIR");
    slots.resize(slots.size() / 32 * 32);
    for (std::size_t at = 0; at < slots.size(); at += 32) {
      RAW_ENTRY entry;
      std::copy_n(slots.begin() + static_cast<std::ptrdiff_t>(at), 32, entry.begin());
      builder.Append(directory, entry);
    }
    CTwoViews views(builder.Image());
    ASSERT_TRUE(views.IsMounted());
    ASSERT_FALSE(views.OpenMedium());
    EXPECT_GE(views.CompareAll(), 1u);
  }
}

}  // namespace
