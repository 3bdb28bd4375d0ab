/// @file MediumDirectoryTest.cpp
/// What a directory's slots make: names, times, slots in use, and defects.

#include <fatlib/Error.h>
#include <fatlib/FatLibIntf.h>
#include <fatlib/Medium.h>
#include <fatlib/Text.h>
#include <fatlib/XStorage.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "ImageDevice.h"
#include "support/ImageBuilder.h"

namespace {

using fatlib::Medium;
using fatlib::RawEntry;
using fatlib::SlotDefect;
using fatlib::Status;
using NAMES = std::vector<std::u16string>;
using DEFECTS = std::vector<std::pair<SlotDefect::Kind, std::uint32_t>>;

UTF16 Units(const std::u16string& text) { return UTF16(text.begin(), text.end()); }

RAW_ENTRY Deleted() {
  RAW_ENTRY entry{};
  entry[0] = 0xE5;
  return entry;
}

/// A directory "D" of a small volume, filled slot by slot behind "." and "..".
class CDirectory {
 public:
  CDirectory() : Builder(Geometry()), m_nDirectory(Builder.AddDir(CImageBuilder::Root(), "D")) {}

  static FAT_GEOMETRY Geometry() {
    FAT_GEOMETRY geometry;
    geometry.FatBits = 12;
    geometry.SectorsPerCluster = 4;
    return geometry;
  }
  void Add(const RAW_ENTRY& entry) { Builder.Append(m_nDirectory, entry); }
  void Add(const std::vector<RAW_ENTRY>& entries) { Builder.Append(m_nDirectory, entries); }
  void Short(std::string_view name, unsigned int attributes = 0x20) {
    Add(CImageBuilder::ShortEntry(CImageBuilder::ShortName11(name), attributes, 0, 0));
  }
  std::error_code Read() {
    m_pDevice = std::make_unique<CImageDevice>(Builder.Image());
    EXPECT_FALSE(m_Medium.Open(m_pDevice.get()));
    std::vector<SlotDefect> defects;
    const std::error_code error = m_Medium.ReadDirectory(Place(), &Entries, &defects, &Slots);
    Defects.clear();
    for (const SlotDefect& defect : defects) Defects.push_back({defect.kind, defect.slot});
    return error;
  }
  fatlib::DirectoryPlace Place() const { return Builder.DirectoryClusters(m_nDirectory)[0]; }
  NAMES Names() const {
    NAMES names;
    for (const RawEntry& entry : Entries) names.push_back(entry.name);
    return names;
  }
  const RawEntry& Last() const { return Entries.back(); }
  CImageDevice& Device() { return *m_pDevice; }
  Medium& Opened() { return m_Medium; }

  CImageBuilder Builder;
  std::vector<RawEntry> Entries;
  std::vector<bool> Slots;
  DEFECTS Defects;

 private:
  CImageBuilder::DIRECTORY m_nDirectory;
  std::unique_ptr<CImageDevice> m_pDevice;
  Medium m_Medium;
};

const RAW_ENTRY FILE_ENTRY = CImageBuilder::ShortEntry(CImageBuilder::ShortName("FILE", "TXT"), 0x20, 0, 0);
constexpr const char16_t* LONG_NAME = u"A name of more than 26 units";  // three pieces

std::vector<RAW_ENTRY> LongSet() { return CImageBuilder::EntrySet(Units(LONG_NAME), FILE_ENTRY); }

TEST(MediumDirectory, EntriesComeInSlotOrderWithTheirFields) {
  CDirectory directory;
  directory.Add(LongSet());
  RAW_ENTRY entry = CImageBuilder::ShortEntry(CImageBuilder::ShortName("B", "X"), 0x27, 0x00123456, 0x89ABCDEF);
  entry[13] = 150;   // 10 ms of the creation time
  entry[14] = 0x11;  // creation time and date
  entry[15] = 0x22;
  entry[16] = 0x33;
  entry[17] = 0x44;
  entry[18] = 0x55;  // access date
  entry[19] = 0x66;
  directory.Add(entry);
  EXPECT_FALSE(directory.Read());
  EXPECT_EQ(directory.Names(), (NAMES{u".", u"..", LONG_NAME, u"B.X"}));
  EXPECT_TRUE(directory.Entries[0].IsDot() && directory.Entries[1].IsDot());
  const RawEntry& named = directory.Entries[2];
  EXPECT_TRUE(named.hasLongName);
  EXPECT_EQ(named.ShortNameText(), u"FILE.TXT");
  EXPECT_EQ(named.firstSlot, 2u);
  EXPECT_EQ(named.slots, 4u);
  EXPECT_EQ(named.ShortSlot(), 5u);
  const RawEntry& last = directory.Last();
  EXPECT_EQ(last.attributes, 0x27);
  EXPECT_EQ(last.firstCluster, 0x00123456u);
  EXPECT_EQ(last.size, 0x89ABCDEFu);
  EXPECT_EQ(last.times.created.tenMilliseconds, 150);
  EXPECT_EQ(last.times.created.time, 0x2211);
  EXPECT_EQ(last.times.created.date, 0x4433);
  EXPECT_EQ(last.times.accessed.date, 0x6655);
  EXPECT_EQ(last.times.modified.date, 0x5A21);
  EXPECT_EQ(last.times.modified.time, 0x6000);
  EXPECT_TRUE(directory.Defects.empty());
}

TEST(MediumDirectory, SlotsAreInUseUnlessDeletedOrNeverUsed) {
  CDirectory directory;
  directory.Add(Deleted());
  directory.Short("A          ");
  directory.Add(Deleted());
  directory.Add(LongSet());
  EXPECT_FALSE(directory.Read());
  ASSERT_EQ(directory.Slots.size(), 64u);  // of a cluster of 2048 bytes
  const std::vector<bool> expected = {true, true, false, true, false, true, true, true, true, false};
  EXPECT_TRUE(std::equal(expected.begin(), expected.end(), directory.Slots.begin()));
  EXPECT_EQ(std::count(directory.Slots.begin(), directory.Slots.end(), true), 7);
}

TEST(MediumDirectory, NothingIsReadBehindTheEndMark) {
  CDirectory directory;
  directory.Short("A          ");
  directory.Add(RAW_ENTRY{});
  directory.Short("B          ");
  EXPECT_FALSE(directory.Read());
  EXPECT_EQ(directory.Names(), (NAMES{u".", u"..", u"A"}));
  EXPECT_FALSE(directory.Slots[4]);
}

TEST(MediumDirectory, ShortNamesAreShownInTheirCodePageAndCase) {
  CDirectory directory;
  directory.Short("\x8E\xE1      \x9A  ");
  directory.Short(
      "\x05"
      "BC     X  ");
  RAW_ENTRY lower = CImageBuilder::ShortEntry(CImageBuilder::ShortName("READ-\x8E", "TXT"), 0x20, 0, 0);
  for (const char flags : std::string("\x08\x10\x18")) {
    lower[12] = static_cast<unsigned char>(flags);
    directory.Add(lower);
  }
  EXPECT_FALSE(directory.Read());
  directory.Entries.erase(directory.Entries.begin(), directory.Entries.begin() + 2);
  EXPECT_EQ(directory.Names(),
            (NAMES{u"\u00C4\u00DF.\u00DC", u"\u03C3BC.X", u"read-\u00C4.TXT", u"READ-\u00C4.txt", u"read-\u00C4.txt"}));
  EXPECT_EQ(directory.Last().ShortNameText(), u"READ-\u00C4.TXT");
  EXPECT_EQ(directory.Entries[1].shortName[0], 0xE5);
  EXPECT_TRUE(directory.Defects.empty());
}

TEST(MediumDirectory, LongNameMayHave260Units) {
  for (const std::size_t units : {13u, 14u, 255u, 256u, 260u}) {
    CDirectory directory;
    const std::u16string name(units, u'x');
    directory.Add(CImageBuilder::EntrySet(Units(name), FILE_ENTRY));
    EXPECT_FALSE(directory.Read());
    EXPECT_EQ(directory.Last().name, name);
    EXPECT_EQ(directory.Defects.size(), units > 255 ? 1u : 0u) << units;
  }
}

TEST(MediumDirectory, LabelBitMakesALabelOfAnything) {
  CDirectory directory;
  directory.Short("LABEL      ", 0x08);
  directory.Short("BOTH       ", 0x18);
  EXPECT_FALSE(directory.Read());
  for (std::size_t i = 2; i < 4; ++i) {
    EXPECT_TRUE(directory.Entries[i].IsLabel());
    EXPECT_FALSE(directory.Entries[i].IsDirectory());
  }
  EXPECT_EQ(directory.Defects, (DEFECTS{{SlotDefect::BadAttributes, 3}}));
}

TEST(MediumDirectory, DeletedSlotInsideALongNameDoesNotEndIt) {
  CDirectory directory;
  std::vector<RAW_ENTRY> set = LongSet();
  set.insert(set.begin() + 1, Deleted());
  directory.Add(set);
  EXPECT_FALSE(directory.Read());
  EXPECT_EQ(directory.Last().name, LONG_NAME);
  EXPECT_EQ(directory.Last().firstSlot, 2u);
  EXPECT_EQ(directory.Last().ShortSlot(), 6u);
  EXPECT_EQ(directory.Defects, (DEFECTS{{SlotDefect::BadLongNameOrder, 3}}));
}

struct MALFORMED {
  const char* What;
  std::function<void(std::vector<RAW_ENTRY>&)> Change;  // of the long name's three pieces and the short entry
  DEFECTS Expected;                                     // the first slot is 2
};

TEST(MediumDirectory, MalformedLongNameLeavesItsShortEntry) {
  const MALFORMED cases[] = {
      {"no first piece",
       [](auto& set) { set.erase(set.begin()); },
       {{SlotDefect::OrphanLongName, 2}, {SlotDefect::OrphanLongName, 3}}},
      {"no last piece", [](auto& set) { set.erase(set.begin() + 2); }, {{SlotDefect::OrphanLongName, 2}}},
      {"no middle piece",
       [](auto& set) { set.erase(set.begin() + 1); },
       {{SlotDefect::OrphanLongName, 2}, {SlotDefect::BadLongNameOrder, 3}, {SlotDefect::OrphanLongName, 3}}},
      {"wrong checksum of one piece",
       [](auto& set) { set[1][13] ^= 1; },
       {{SlotDefect::OrphanLongName, 2},
        {SlotDefect::BadLongNameChecksum, 3},
        {SlotDefect::OrphanLongName, 3},
        {SlotDefect::OrphanLongName, 4}}},
      {"wrong checksum of all pieces",
       [](auto& set) {
         for (std::size_t i = 0; i < 3; ++i) set[i][13] ^= 1;
       },
       {{SlotDefect::BadLongNameChecksum, 2}}},
      {"ordinal 0",
       [](auto& set) { set[0][0] = 0x40; },
       {{SlotDefect::BadLongNameOrder, 2}, {SlotDefect::OrphanLongName, 3}, {SlotDefect::OrphanLongName, 4}}},
      {"ordinal 21",
       [](auto& set) { set[0][0] = 0x55; },
       {{SlotDefect::BadLongNameOrder, 2}, {SlotDefect::OrphanLongName, 3}, {SlotDefect::OrphanLongName, 4}}},
      {"deleted before the short entry",
       [](auto& set) { set.insert(set.begin() + 3, Deleted()); },
       {{SlotDefect::OrphanLongName, 2}}},
      {"empty", [](auto& set) { set[2][1] = set[2][2] = 0; }, {{SlotDefect::BadLongNameUnits, 2}}},
  };
  for (const MALFORMED& malformed : cases) {
    CDirectory directory;
    std::vector<RAW_ENTRY> set = LongSet();
    malformed.Change(set);
    directory.Add(set);
    directory.Short("AFTER      ");
    EXPECT_FALSE(directory.Read());
    EXPECT_EQ(directory.Names(), (NAMES{u".", u"..", u"FILE.TXT", u"AFTER"})) << malformed.What;
    EXPECT_FALSE(directory.Entries[2].hasLongName) << malformed.What;
    EXPECT_EQ(directory.Defects, malformed.Expected) << malformed.What;
  }
}

TEST(MediumDirectory, LongNameAtTheEndOfTheDirectoryIsAnOrphan) {
  CDirectory directory;
  std::vector<RAW_ENTRY> set = LongSet();
  set.pop_back();
  directory.Add(set);
  EXPECT_FALSE(directory.Read());
  EXPECT_EQ(directory.Entries.size(), 2u);
  EXPECT_EQ(directory.Defects, (DEFECTS{{SlotDefect::OrphanLongName, 2}}));
}

TEST(MediumDirectory, UnitsThatNoNameHasAreADefectOfANameThatStays) {
  for (const char16_t* name : {u"a*b", u"a\x01z"}) {
    CDirectory directory;
    directory.Add(CImageBuilder::EntrySet(Units(name), FILE_ENTRY));
    EXPECT_FALSE(directory.Read());
    EXPECT_EQ(directory.Last().name, name);
    EXPECT_EQ(directory.Defects, (DEFECTS{{SlotDefect::BadLongNameUnits, 2}}));
  }
}

TEST(MediumDirectory, BytesThatNoShortNameHasAreADefect) {
  for (const char* name : {"lower      ", " A         ", "A\x01         ", "A*         ", "..         X"}) {
    CDirectory directory;
    directory.Short(std::string_view(name).substr(0, 11));
    EXPECT_FALSE(directory.Read());
    const bool isDotDot = directory.Last().name == u"..";
    EXPECT_EQ(directory.Defects.empty(), isDotDot) << name;
  }
}

TEST(MediumDirectory, BrokenChainGivesTheEntriesBeforeIt) {
  CDirectory directory;
  for (unsigned int i = 0; i < 70; ++i) directory.Short("A          ");  // more than a cluster
  const std::vector<std::uint32_t> chain = directory.Builder.Chain(directory.Place());
  ASSERT_EQ(chain.size(), 2u);
  directory.Builder.SetFatEntry(chain[0], 0);
  EXPECT_EQ(directory.Read(), Status::DiskCorrupt);
  EXPECT_EQ(directory.Entries.size(), 64u);
  EXPECT_EQ(directory.Slots.size(), 64u);
}

TEST(MediumDirectory, FailedReadGivesTheEntriesBeforeIt) {
  CDirectory directory;
  for (unsigned int i = 0; i < 200; ++i) directory.Short("A          ");
  EXPECT_FALSE(directory.Read());
  const std::vector<std::uint32_t> chain = directory.Builder.Chain(directory.Place());
  directory.Device().FailBytes(directory.Builder.ClusterOffset(chain.back()), 1);
  EXPECT_EQ(directory.Opened().ReadDirectory(directory.Place(), &directory.Entries), Status::IoError);
  EXPECT_LT(directory.Entries.size(), 202u);
  EXPECT_GE(directory.Entries.size(), 2u);
}

TEST(MediumDirectory, SlotPositionIsWhereTheSlotLies) {
  CDirectory directory;
  for (unsigned int i = 0; i < 100; ++i) directory.Short("A          ");
  EXPECT_FALSE(directory.Read());
  const std::vector<std::uint32_t> chain = directory.Builder.Chain(directory.Place());
  std::uint64_t position = 0;
  EXPECT_FALSE(directory.Opened().SlotPosition(directory.Place(), 63, &position));
  EXPECT_EQ(position, directory.Builder.ClusterOffset(chain[0]) + 63 * 32);
  EXPECT_FALSE(directory.Opened().SlotPosition(directory.Place(), 65, &position));
  EXPECT_EQ(position, directory.Builder.ClusterOffset(chain[1]) + 32);
  EXPECT_EQ(directory.Opened().SlotPosition(directory.Place(), 128, &position), Status::InvalidParameter);
  EXPECT_FALSE(directory.Opened().SlotPosition(Medium::ROOT, 3, &position));
  EXPECT_EQ(position, directory.Builder.RootOffset() + 96);
  EXPECT_EQ(directory.Opened().SlotPosition(Medium::ROOT, 512, &position), Status::InvalidParameter);
}

// The library puts a new name into the first slots that are free together, and these must be free here too.
TEST(MediumDirectory, LibraryPutsNewNamesIntoSlotsThatAreFree) {
  CDirectory directory;
  directory.Short("A          ");
  for (unsigned int i = 0; i < 3; ++i) directory.Add(Deleted());
  directory.Add(LongSet());
  for (unsigned int i = 0; i < 4; ++i) directory.Add(Deleted());
  directory.Short("B          ");
  EXPECT_FALSE(directory.Read());
  EXPECT_TRUE(std::all_of(directory.Slots.begin() + 10, directory.Slots.begin() + 14, [](bool used) { return !used; }));

  std::vector<unsigned char> image = directory.Builder.Image().ToVector();
  Fat_LibInitialize();
  CFatMemory* storage = new CFatMemory;
  CFatFileSystem* mounted = Fat_Mount(storage, image.data());
  ASSERT_NE(mounted, nullptr);
  for (const char* path : {"D\\This name takes four slots in all", "D\\C"}) {
    Fat_CloseFile(Fat_CreateFile(CPath(path), 0, 0));
  }
  Fat_Unmount(mounted);
  ::operator delete(storage);
  Fat_LibTerminate();

  directory.Builder.Image() = CDiskImage(image);
  EXPECT_FALSE(directory.Read());
  EXPECT_EQ(directory.Names(), (NAMES{u".", u"..", u"A", u"C", LONG_NAME, u"This name takes four slots in all", u"B"}));
  EXPECT_EQ(directory.Entries[3].firstSlot, 3u);
  EXPECT_EQ(directory.Entries[5].firstSlot, 10u);
  EXPECT_EQ(directory.Entries[5].slots, 4u);
  EXPECT_TRUE(directory.Defects.empty());
}

}  // namespace
