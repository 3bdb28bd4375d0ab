/// @file DirectoryFixture.h
/// The frame of the tests that change directories: a volume on a medium that traces and fails, a clock and a time zone
/// that stand still, the entry sets that must be on the medium then, and a way to empty the block cache.

#ifndef FATLIB_TESTS_DIRECTORYFIXTURE_H
#define FATLIB_TESTS_DIRECTORYFIXTURE_H

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "directory/ShortName.h"
#include "filesystem/FatFileSystem.h"
#include "support/LibFixture.h"
#include "support/VolumeReader.h"

using SLOTS = std::vector<RAW_ENTRY>;
using BYTES = std::vector<unsigned char>;
using CLUSTERS = std::vector<std::uint32_t>;

// 2024-03-05 14:27:31 UTC, and 400 days, one hour and one second later.
constexpr std::time_t NOW = 1709648851;
constexpr unsigned int NOW_DATE = 0x5865;
constexpr unsigned int NOW_TIME = 0x736F;
constexpr std::time_t LATER = NOW + 400 * 86400 + 3601;
constexpr unsigned int LATER_DATE = 0x5A89;
constexpr unsigned int LATER_TIME = 0x7B70;

/// Sets a variable of the environment as long as it lives.
class CEnvironment {
 public:
  CEnvironment(const char* name, const char* value) : m_Name(name) {
    if (const char* old = std::getenv(name)) m_Old = std::make_unique<std::string>(old);
    ::setenv(name, value, 1);
    ::tzset();
  }
  ~CEnvironment() {
    if (m_Old != nullptr) {
      ::setenv(m_Name.c_str(), m_Old->c_str(), 1);
    } else {
      ::unsetenv(m_Name.c_str());
    }
    ::tzset();
  }
  CEnvironment(const CEnvironment&) = delete;
  CEnvironment& operator=(const CEnvironment&) = delete;

 private:
  std::string m_Name;
  std::unique_ptr<std::string> m_Old;
};

// ---------------------------------------------------------------------------------------------- entry sets

/// A short entry as the library makes it now.
inline RAW_ENTRY NewEntry(const std::string& eleven, unsigned int attributes = 0x20, std::uint32_t cluster = 0,
                          std::uint32_t size = 0, unsigned int date = NOW_DATE, unsigned int time = NOW_TIME) {
  return CImageBuilder::ShortEntry(CImageBuilder::ShortName11(eleven), attributes, cluster, size, date, time);
}
/// A long name and its short entry.
inline SLOTS NewSet(const std::string& name, const RAW_ENTRY& entry) {
  return CImageBuilder::EntrySet(ToUtf16(name), entry);
}
inline RAW_ENTRY Deleted(RAW_ENTRY entry) {
  entry[0] = 0xE5;
  return entry;
}
/// A long-name entry that belongs to nothing: its slot is used, and no record comes of it.
inline RAW_ENTRY Stray() {
  RAW_ENTRY entry{};
  entry[0] = 1;
  entry[1] = 's';
  entry[11] = 0x0F;
  return entry;
}
inline SLOTS& operator+=(SLOTS& slots, const SLOTS& more) {
  slots.insert(slots.end(), more.begin(), more.end());
  return slots;
}
inline SLOTS& operator+=(SLOTS& slots, const RAW_ENTRY& more) {
  slots.push_back(more);
  return slots;
}
/// The slots of a directory of `count` slots that starts with these.
inline SLOTS Padded(SLOTS slots, std::size_t count) {
  slots.resize(count, RAW_ENTRY{});
  return slots;
}

/// An invented name: what fits of `base`, a tail, the extension.
inline std::string Invented(const std::string& base, unsigned int number, const std::string& extension = "") {
  const std::string digits = std::to_string(number);
  std::string name = base.substr(0, 7 - digits.size()) + "~" + digits;
  name.resize(8, ' ');
  name += extension;
  name.resize(11, ' ');
  return name;
}

/// The number that the next invented name gets.
inline unsigned int NextNumber() {
  CDirEntCache cache;
  EXPECT_EQ(cache.Grow(16), STATUS_SUCCESS);
  DIRENT_NAME_CTX context;
  AnalyseFullFileName(CPath("a.b.c"), &context);
  EXPECT_EQ(InventShortName(&cache, &context), STATUS_SUCCESS);
  const std::string text(context.ShortName, context.ShortName + SHORT_BASE_SIZE);
  return static_cast<unsigned int>(std::stoul(text.substr(text.find('~') + 1))) % 99999 + 1;
}

// ---------------------------------------------------------------------------------------------- the fixture

class CDirectoryFixture : public CLibFixture {
 protected:
  static constexpr unsigned int POOL_BLOCKS = 256;
  static constexpr unsigned int BLOCK_BYTES = 0x40000;

  void TearDown() override {
    Release();
    CLibFixture::TearDown();
  }

  /// A small volume with clusters of 512 bytes.
  static FAT_GEOMETRY Small(unsigned int bits, unsigned int rootEntries = 0) {
    FAT_GEOMETRY geometry;
    geometry.FatBits = bits;
    geometry.Clusters = bits == 16 ? 4200 : 600;
    geometry.RootEntries = bits == 32 ? 0 : rootEntries;
    return geometry;
  }
  /// A volume of the width with clusters of 32 KiB.
  static FAT_GEOMETRY Coarse(unsigned int bits) {
    FAT_GEOMETRY geometry = Small(bits);
    geometry.SectorsPerCluster = 64;
    return geometry;
  }

  /// Mounts the builder's volume and forgets the transfers of mounting.
  CFatFileSystem* MountBuilt(CImageBuilder& builder) { return MountImage(builder.Image()); }
  CFatFileSystem* MountEmpty(const FAT_GEOMETRY& geometry) { return MountImage(CImageBuilder(geometry).Image()); }
  CFatFileSystem* MountImage(const CDiskImage& image) {
    m_pMedium = std::make_unique<CMedium>(image);
    m_pFs = MountMedium(*m_pMedium);
    EXPECT_NE(m_pFs, nullptr);
    m_pMedium->ClearTrace();
    return m_pFs;
  }
  CFatFileSystem* Fs() { return m_pFs; }
  CMedium& Medium() { return *m_pMedium; }
  CFatDir* Root() { return m_pFs->Root(); }
  /// @return the medium as it is then
  CDiskImage& UnmountBuilt() {
    Release();
    EXPECT_TRUE(Unmount(m_pFs));
    m_pFs = nullptr;
    return m_pMedium->Image();
  }

  /// The object of a path, held open until Release; null when it cannot be opened.
  CFatDir* Open(const std::string& path) {
    CFatFile* file = nullptr;
    if (m_pFs->OpenFile(CPath(path), &file) < 0) return nullptr;
    m_Held.push_back(file);
    return static_cast<CFatDir*>(file);
  }
  /// The same for an object made otherwise.
  template <class OBJECT>
  OBJECT* Hold(OBJECT* object) {
    if (object != nullptr) m_Held.push_back(object);
    return object;
  }
  void Release() {
    for (CFatFile* file : m_Held) CFatFileSystem::CloseFile(file);
    m_Held.clear();
  }
  /// An object for an entry of a directory, outside the cache of open objects. Its entries are not loaded.
  CFatFile* ObjectFor(DENTCTX* record) { return Hold(CFatFileSystem::CreateFileObj(m_pFs, record, false)); }

  /// Takes the whole pool for another volume: all blocks of this one are written where they are dirty, and gone.
  void EvictAllBlocks() { TouchFiller(POOL_BLOCKS, false); }
  /// The same with unsaved data: whoever takes a block afterwards makes the other volume write.
  void FillPoolWithUnsavedData() { TouchFiller(POOL_BLOCKS, true); }
  /// From now on such a write fails, and so does who needed the block.
  void FailFillerWrites() { m_pFillerMedium->FailAt(1, FAULT_FOR_GOOD, IO_FILTER::Writes); }
  void HealFiller() { m_pFillerMedium->Heal(); }

  // ---- what the medium or the object holds
  static SLOTS SlotsOfRoot(CByteStore& store) { return CImageBuilder(store).Entries(CImageBuilder::Root()); }
  static SLOTS SlotsOfDir(CByteStore& store, std::uint32_t firstCluster) {
    CImageBuilder builder(store);
    return builder.Entries(builder.AdoptDir(firstCluster));
  }
  /// The slots as the object's block cache has them.
  static SLOTS SlotsOf(CFatDir& dir) {
    SLOTS slots(static_cast<std::size_t>(dir.AllocBytes() / 32));
    for (std::size_t done = 0; done < slots.size();) {
      const std::size_t part = std::min<std::size_t>(slots.size() - done, BLOCK_BYTES / 32);
      unsigned int reported = 0;
      EXPECT_GE(dir.Read(static_cast<long long>(done) * 32, static_cast<unsigned int>(part * 32), slots[done].data(),
                         &reported),
                0);
      done += part;
    }
    return slots;
  }
  static std::vector<bool> UsedSlots(CFatDir& dir) {
    CDirEntCache& cache = *dir.DirEntCache();
    std::vector<bool> used(cache.Slots(), true);
    unsigned int first = 0;
    EXPECT_EQ(cache.FindFreeSlots(1, first), STATUS_SUCCESS);
    unsigned int start = 0;
    for (unsigned int from = 0; from < used.size(); from = start) {
      const unsigned int length = cache.NextFreeRun(from, start);
      if (length == 0) break;
      for (const unsigned int end = start + length; start < end; ++start) used.at(start) = false;
    }
    return used;
  }
  static std::vector<DENTCTX*> Records(CFatDir& dir) {
    std::vector<DENTCTX*> records;
    for (DENTCTX* record = dir.FindFirst(); record != nullptr; dir.FindNext(record)) records.push_back(record);
    return records;
  }
  static RAW_ENTRY RawOf(const CDirEnt& entry) {
    RAW_ENTRY raw;
    osMemCpy(raw.data(), &entry, DIRENT_SIZE);
    return raw;
  }
  /// Long names, or the 11 bytes of short ones, in slot order.
  static std::vector<std::string> NamesOf(CFatDir& dir) {
    std::vector<std::string> names;
    for (const DENTCTX* record : Records(dir)) {
      names.push_back(record->nLongCount != 0
                          ? ToUtf8(record->NamePtr(), record->NameChars())
                          : std::string(record->ShortEntry.Name, record->ShortEntry.Name + SHORT_NAME_SIZE));
    }
    return names;
  }

  CEnvironment m_Zone{"TZ", "UTC0"};
  CEnvironment m_Locale{"LC_ALL", "C"};  // taken by Fat_LibInitialize
  CFixedClock m_Clock{NOW};

 private:
  void TouchFiller(unsigned int blocks, bool write) {
    if (m_pFillerMedium == nullptr) {
      FAT_GEOMETRY geometry = Coarse(32);
      geometry.Clusters = 3000;
      CImageBuilder builder(geometry);
      ENTRY_OPTIONS options;
      options.SetSize = options.SetFirstCluster = true;
      options.Size = POOL_BLOCKS * BLOCK_BYTES;
      options.FirstCluster = 10;
      builder.AddFile(CImageBuilder::Root(), "FILLER", {}, {}, options);
      CLUSTERS clusters;
      for (std::uint32_t i = 0; i < options.Size / builder.ClusterBytes(); ++i) clusters.push_back(10 + i);
      builder.SetChain(clusters);
      m_pFillerMedium = std::make_unique<CMedium>(builder.Image());
      m_pFillerMedium->KeepTrace(false);
      CFatFileSystem* fileSystem = MountMedium(*m_pFillerMedium);
      ASSERT_NE(fileSystem, nullptr);
      CFatFile* file = nullptr;
      ASSERT_EQ(fileSystem->OpenFile(CPath("FILLER"), &file), STATUS_SUCCESS);
      m_pFiller = Hold(file);
      SetCurrentFileSystem(m_pFs);
    }
    for (unsigned int block = 0; block < blocks; ++block) {
      unsigned char byte = 0;
      unsigned int done = 0;
      const long long position = static_cast<long long>(block) * BLOCK_BYTES;
      // A victim whose write-back fails is the other volume's matter: the next block is tried all the same.
      (void)(write ? m_pFiller->Write(position, 1, &byte, &done) : m_pFiller->Read(position, 1, &byte, &done));
    }
  }

  std::unique_ptr<CMedium> m_pMedium;
  CFatFileSystem* m_pFs = nullptr;
  std::vector<CFatFile*> m_Held;
  std::unique_ptr<CMedium> m_pFillerMedium;
  CFatFile* m_pFiller = nullptr;
};

#endif  // FATLIB_TESTS_DIRECTORYFIXTURE_H
