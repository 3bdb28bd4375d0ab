/// @file FatDirectoryTest.cpp
/// What changing a directory leaves on the medium and in memory. Every byte expected here is computed in the test; the
/// clock stands still.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <list>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "directory/DirectoryFixture.h"
#include "directory/FatDirectory.h"

namespace {

using NAMES = std::vector<std::string>;
using DIRECTORY = CImageBuilder::DIRECTORY;

/// On each FAT width.
class FatDirectoryWidths : public CDirectoryFixture, public ::testing::WithParamInterface<unsigned int> {
 protected:
  unsigned int Bits() const { return GetParam(); }
};
std::string WidthName(const ::testing::TestParamInfo<unsigned int>& test) { return "Fat" + std::to_string(test.param); }
INSTANTIATE_TEST_SUITE_P(Widths, FatDirectoryWidths, ::testing::Values(12u, 16u, 32u), WidthName);

class FatDirectory : public CDirectoryFixture {};

int CreateFile(const std::string& path, unsigned int size = 0, unsigned int attributes = 0x20) {
  const int handle = Fat_CreateFile(CPath(path), size, attributes);
  if (handle >= 0) {
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
  }
  return handle;
}
bool CreateDir(const std::string& path, unsigned int attributes = 0) {
  return Fat_CreateDir(CPath(path), attributes) == 1;
}

/// A name of `units` units that has no short form.
std::string LongName(std::size_t units) {
  std::string name = "long ";
  while (name.size() < units) name.push_back(static_cast<char>('a' + name.size() % 26));
  name.resize(units);
  return name;
}

/// A directory with raw slots in the root of a volume that is being built.
DIRECTORY AddRawDir(CImageBuilder& builder, const std::string& name, const SLOTS& slots) {
  const DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), name);
  builder.SetNextSlot(dir, 0);
  builder.Append(dir, slots);
  return dir;
}

/// "." and ".." of a directory.
SLOTS Dots(std::uint32_t own, std::uint32_t parent, unsigned int date = NOW_DATE, unsigned int time = NOW_TIME) {
  return {NewEntry(".          ", 0x10, own, 0, date, time), NewEntry("..         ", 0x10, parent, 0, date, time)};
}

}  // namespace

// ------------------------------------------------------------------------------------------------ looking up

TEST_F(FatDirectory, ShortOnlyEntry_IsFoundInAnyCaseByItsShortKey) {
  CImageBuilder builder(Small(16));
  builder.AddFile(CImageBuilder::Root(), "README.TXT");
  MountBuilt(builder);
  DENTCTX* record = Root()->LookupFile(CPath("README.TXT"));
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->nLongCount, 0u);
  EXPECT_EQ(Root()->LookupFile(CPath("readme.txt")), record);
  EXPECT_EQ(Root()->LookupFile(CPath("ReadMe.Txt")), record);
  EXPECT_EQ(Root()->LookupFile(CPath("README.TX")), nullptr);
}

TEST_F(FatDirectory, InventedAlias_FindsNothing) {
  MountEmpty(Small(16));
  const unsigned int number = NextNumber();
  ASSERT_GE(CreateFile("Long File Name.text"), 0);
  std::string alias = Invented("LONGFI", number, "TEX");
  alias = alias.substr(0, alias.find(' ')).substr(0, 8) + ".TEX";
  EXPECT_EQ(Root()->LookupFile(CPath(alias)), nullptr);
  EXPECT_NE(Root()->LookupFile(CPath("long file NAME.TEXT")), nullptr);
}

TEST_F(FatDirectory, PlainShortNameStoredWithALongOne_IsFoundByTheSecondSearch) {
  CImageBuilder builder(Small(16));
  ENTRY_OPTIONS options;
  options.ShortName = "README  TXT";
  options.ForceLongName = true;
  builder.AddFile(CImageBuilder::Root(), "readme.txt", {}, {}, options);
  MountBuilt(builder);
  DENTCTX* record = Root()->LookupFile(CPath("README.TXT"));
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->nLongCount, 1u);
}

namespace {

/// A locale in which characters from 0x80 on have bytes in short names.
class FatDirectoryUtf8 : public CDirectoryFixture {
 protected:
  FatDirectoryUtf8() { ::setenv("LC_ALL", "C.UTF-8", 1); }
};

}  // namespace

TEST_F(FatDirectoryUtf8, ShortOnlyEntryWithBytesFrom80_IsNotFoundByName) {
  CImageBuilder builder(Small(16));
  ENTRY_OPTIONS options;
  options.ShortName = "\xC3\x89T\xC3\x89   TXT";
  options.NoLongName = true;
  builder.AddFile(CImageBuilder::Root(), "x", {}, {}, options);
  MountBuilt(builder);
  EXPECT_EQ(NamesOf(*Root()), NAMES{options.ShortName});
  EXPECT_EQ(Root()->LookupFile(CPath("\xC3\x89T\xC3\x89.TXT")), nullptr);
}

TEST_F(FatDirectoryUtf8, ConvertedNameThatFits_IsStoredInBothForms) {
  MountEmpty(Small(16));
  ASSERT_GE(CreateFile("\xC3\xA9t\xC3\xA9.txt"), 0);
  const SLOTS expected = NewSet("\xC3\xA9t\xC3\xA9.txt", NewEntry("\xC3\x89T\xC3\x89   TXT"));
  EXPECT_EQ(SlotsOfRoot(UnmountBuilt()), Padded(expected, 512));
}

// Only invented names are protected from looking like deleted ones.
TEST_F(FatDirectoryUtf8, ShortFormThatStartsWithE5_IsLostOnTheNextMountUnlessItWasInvented) {
  MountEmpty(Small(16));
  const unsigned int number = NextNumber();
  ASSERT_GE(CreateFile("\xE5\xAD\x97"), 0);
  ASSERT_GE(CreateFile("\xE5\xAD\x97 and more of it"), 0);
  EXPECT_TRUE(Exists("\xE5\xAD\x97"));
  MountImage(UnmountBuilt());
  EXPECT_FALSE(Exists("\xE5\xAD\x97"));
  EXPECT_TRUE(Exists("\xE5\xAD\x97 and more of it"));
  EXPECT_EQ(SlotsOf(*Root())[4], NewEntry(Invented("\x05\xAD\x97"
                                                   "AND",
                                                   number)));
}

TEST_F(FatDirectory, ObjectWithoutEntries_IsEmptyAndFindsNothing) {
  MountEmpty(Small(16));
  const int handle = Fat_CreateFile(CPath("F"), 0, 0);
  ASSERT_GE(handle, 0);
  CFatDir* file = Open("F");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->DirEntCache(), nullptr);
  EXPECT_EQ(file->LookupFile(CPath("x")), nullptr);
  EXPECT_EQ(file->FindFirst(), nullptr);
  EXPECT_TRUE(file->IsEmpty());
  unsigned int first = 0;
  EXPECT_EQ(file->AllocDirEntsByBitmap(1, &first), STATUS_DISK_FULL);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
}

TEST_P(FatDirectoryWidths, NewSubdirectory_IsEmptyUntilAnyOtherEntryExists) {
  MountEmpty(Small(Bits()));
  ASSERT_TRUE(CreateDir("D"));
  CFatDir* dir = Open("D");
  ASSERT_NE(dir, nullptr);
  EXPECT_TRUE(dir->IsEmpty());
  EXPECT_EQ(NamesOf(*dir), (NAMES{".          ", "..         "}));
  ASSERT_GE(CreateFile("D\\F"), 0);
  EXPECT_FALSE(dir->IsEmpty());
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\F")), 1u);
  EXPECT_TRUE(dir->IsEmpty());
}

TEST_F(FatDirectory, LabelsStraysAndDeletedEntries_LeaveADirectoryEmpty) {
  CImageBuilder builder(Small(16));
  AddRawDir(builder, "D",
            {NewEntry(".          ", 0x10), NewEntry("LABEL      ", 0x08), Stray(), Deleted(NewEntry("GONE       ")),
             NewEntry("..         ", 0x10)});
  AddRawDir(builder, "E", {NewEntry(".          ", 0x10), NewEntry(".         .", 0x10)});
  MountBuilt(builder);
  EXPECT_TRUE(Open("D")->IsEmpty());
  EXPECT_FALSE(Open("E")->IsEmpty()) << "all eleven bytes count";
}

// ------------------------------------------------------------------------------------------------ entry sets

TEST_P(FatDirectoryWidths, NewEntrySets_AreOnTheMediumByteForByte) {
  CImageBuilder builder(Small(Bits()));
  MountBuilt(builder);
  unsigned int number = NextNumber();
  SLOTS expected;
  const auto create = [&](const std::string& name, const std::string& base, const std::string& extension,
                          unsigned int attributes, unsigned int stored) {
    ASSERT_GE(CreateFile(name, 0, attributes), 0) << name;
    expected += NewSet(name, NewEntry(Invented(base, number++, extension), stored));
  };
  ASSERT_GE(CreateFile("README.TXT", 0, 0x20), 0);
  expected += NewEntry("README  TXT");
  ASSERT_GE(CreateFile("readme2.txt", 0, 0x07), 0);
  expected += NewEntry("README2 TXT", 0x07);
  create("x+y.txt", "X_Y", "TXT", 0x00, 0x00);
  create("thirteen unit", "THIRTE", "", 0x3F & ~0x08u, 0x27);  // never a directory
  create("fourteen units", "FOURTE", "", 0x20, 0x20);
  create("a.b.c", "AB", "C", 0x20, 0x20);
  create("\xC3\x9Cn\xC3\xAF \xE6\xBC\xA2\xF0\x9F\x98\x80.text", "_N____", "TEX", 0x20, 0x20);
  for (const std::size_t units : {1u + 13, 25u, 26u, 27u, 247u, 255u, 256u, 258u, 259u}) {
    create(LongName(units), "LONGFG", "", 0x20, 0x20);
  }
  CDiskImage& image = UnmountBuilt();
  const SLOTS slots = SlotsOfRoot(image);
  ASSERT_EQ(slots, Padded(expected, slots.size()));
  EXPECT_EQ(CVolumeReader(image).ProblemText(), "");
}

TEST_P(FatDirectoryWidths, NewSubdirectories_HaveDotEntriesAndAClearedCluster) {
  CImageBuilder builder(Small(Bits()));
  const std::uint32_t first = Bits() == 32 ? 3 : 2;
  builder.Store().Fill(builder.ClusterOffset(first), 4 * 512, 0xEE);
  MountBuilt(builder);
  const unsigned int number = NextNumber();
  ASSERT_TRUE(CreateDir("TOP", 0x02));
  m_Clock.Set(LATER);
  ASSERT_TRUE(CreateDir("TOP\\inner directory", 0x10));
  CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(SlotsOfRoot(image)[0], NewEntry("TOP        ", 0x12, first));
  SLOTS top = Dots(first, 0);
  top += NewSet("inner directory", NewEntry(Invented("INNERD", number), 0x10, first + 1, 0, LATER_DATE, LATER_TIME));
  EXPECT_EQ(SlotsOfDir(image, first), Padded(top, 16)) << "the parent is 0 for the root, on FAT32 too";
  EXPECT_EQ(SlotsOfDir(image, first + 1), Padded(Dots(first + 1, first, LATER_DATE, LATER_TIME), 16));
  EXPECT_EQ(CVolumeReader(image).ProblemText(), "");
}

// The attributes of labels and long names are taken as they are; what they make of an entry shows on the next mount.
TEST_F(FatDirectory, EntriesWithTheAttributesOfALabelOrALongName_VanishOnTheNextMount) {
  MountEmpty(Small(16));
  ASSERT_GE(CreateFile("LABEL", 0, 0x08), 0);
  ASSERT_GE(CreateFile("LFN", 0, 0x1F), 0);
  ASSERT_TRUE(CreateDir("LABELDIR", 0x08));
  ASSERT_GE(CreateFile("PLAIN"), 0);
  EXPECT_TRUE(Exists("LABEL"));
  MountImage(UnmountBuilt());
  const SLOTS expected = {NewEntry("LABEL      ", 0x08), NewEntry("LFN        ", 0x0F),
                          NewEntry("LABELDIR   ", 0x18, 2), NewEntry("PLAIN      ")};
  EXPECT_EQ(SlotsOf(*Root()), Padded(expected, 512));
  EXPECT_EQ(NamesOf(*Root()), NAMES{"PLAIN      "});
}

TEST_F(FatDirectory, Stamps_AreLocalTime) {
  const CEnvironment zone("TZ", "TST-2");
  MountEmpty(Small(16));
  ASSERT_GE(CreateFile("F"), 0);
  EXPECT_EQ(SlotsOfRoot(UnmountBuilt())[0], NewEntry("F          ", 0x20, 0, 0, NOW_DATE, NOW_TIME + (2u << 11)));
}

TEST_F(FatDirectory, ClockBefore1980_StampsZeros) {
  MountEmpty(Small(16));
  m_Clock.Set(315532799);  // the last second of 1979
  ASSERT_GE(CreateFile("OLD"), 0);
  m_Clock.Set(315532800);
  ASSERT_GE(CreateFile("NEW"), 0);
  const SLOTS slots = SlotsOfRoot(UnmountBuilt());
  EXPECT_EQ(slots[0], NewEntry("OLD        ", 0x20, 0, 0, 0, 0));
  EXPECT_EQ(slots[1], NewEntry("NEW        ", 0x20, 0, 0, 0x0021, 0));
}

TEST_P(FatDirectoryWidths, EntriesInACachedDirectory_AreWrittenByNoTransferUntilUnmount) {
  MountEmpty(Small(Bits()));
  for (int i = 0; i < 3; ++i) ASSERT_GE(CreateFile("a long name " + std::to_string(i)), 0);
  ASSERT_EQ(Fat_RenameFile(CPath("a long name 1"), CPath("another long name")), 1u);
  ASSERT_EQ(Fat_DeleteFile(CPath("a long name 0")), 1u);
  EXPECT_EQ(Medium().Transfers(), 0u) << Medium().TraceText();
}

TEST_P(FatDirectoryWidths, EntrySetInADirectoryThatIsNotCached_CostsOneReadOfItsBlock) {
  CImageBuilder builder(Small(Bits()));
  builder.AddFile(CImageBuilder::Root(), "F");
  MountBuilt(builder);
  for (const auto& change : std::vector<std::function<bool()>>{
           [] { return CreateFile(LongName(250)) >= 0; },
           [] { return Fat_DeleteFile(CPath(LongName(250))) == 1; },
           [] { return Fat_RenameFile(CPath("F"), CPath(LongName(30))) == 1; },
       }) {
    ASSERT_TRUE(change());
    EvictAllBlocks();
    Medium().ClearTrace();
    const std::string probe = "PROBE";
    ASSERT_GE(CreateFile(probe), 0);
    EXPECT_EQ(Medium().Reads(), 1u) << Medium().TraceText();
    EXPECT_EQ(Medium().Writes(), 0u) << Medium().TraceText();
    ASSERT_EQ(Fat_DeleteFile(CPath(probe)), 1u);
    EXPECT_EQ(Medium().Transfers(), 1u) << Medium().TraceText();
  }
}

TEST_F(FatDirectory, LowestRunThatIsLongEnough_IsTaken) {
  CImageBuilder builder(Small(16));
  SLOTS slots = Dots(0, 0);
  for (int i = 2; i < 16; ++i) slots += Stray();
  for (const std::size_t hole : {3u, 5u, 6u, 9u, 10u, 11u}) slots[hole] = Deleted(Stray());
  AddRawDir(builder, "D", slots);
  MountBuilt(builder);
  CFatDir* dir = Open("D");
  unsigned int first = 0;
  ASSERT_EQ(dir->AllocDirEntsByBitmap(2, &first), STATUS_SUCCESS);
  EXPECT_EQ(first, 5u);
  ASSERT_EQ(dir->AllocDirEntsByBitmap(2, &first), STATUS_SUCCESS);
  EXPECT_EQ(first, 9u);
  ASSERT_EQ(dir->AllocDirEntsByBitmap(1, &first), STATUS_SUCCESS);
  EXPECT_EQ(first, 3u);
  ASSERT_EQ(dir->AllocDirEntsByBitmap(1, &first), STATUS_SUCCESS);
  EXPECT_EQ(first, 11u);
  EXPECT_EQ(dir->DirEntCache()->FreeSlots(), 0u);
  EXPECT_EQ(SlotsOf(*dir), slots) << "finding room writes nothing";
}

TEST_F(FatDirectory, SlotBehindTheEndMarker_MakesWhatLayThereVisibleOnTheNextMount) {
  CImageBuilder builder(Small(16));
  const DIRECTORY dir = AddRawDir(builder, "D", Dots(0, 0));
  builder.SetEntry(dir, 3, NewEntry("GARBAGE    "));
  MountBuilt(builder);
  ASSERT_GE(CreateFile("D\\F"), 0);
  EXPECT_EQ(NamesOf(*Open("D")), (NAMES{".          ", "..         ", "F          "}));
  MountImage(UnmountBuilt());
  EXPECT_EQ(NamesOf(*Open("D")), (NAMES{".          ", "..         ", "F          ", "GARBAGE    "}));
}

// ------------------------------------------------------------------------------------------------ growing

// The directory lies two levels deep: its growth looks up its own parent in the middle of the creation.
TEST_P(FatDirectoryWidths, DirectoryTwoLevelsDeep_GrowsByWholeClustersAndHarmsNothing) {
  CImageBuilder builder(Small(Bits()));
  builder.Store().Fill(builder.DataOffset() + (Bits() == 32 ? 512 : 0), 500 * 512, 0xEE);
  MountBuilt(builder);
  ASSERT_TRUE(CreateDir("A\\B"));
  SLOTS expected;
  for (unsigned int i = 0; i < 40; ++i) {
    const std::string name = "F" + std::to_string(i);
    const int handle = Fat_CreateFile(CPath("A\\B\\" + name), 0, 0x20);
    ASSERT_GE(handle, 0) << i;
    // Each object knows its own path: its size goes to its own entry.
    ASSERT_EQ(Fat_SetFileSize(handle, i + 1), 1u) << i;
    ASSERT_EQ(Fat_CloseFile(handle), 1u);
    std::string eleven = name;
    eleven.resize(11, ' ');
    expected += NewEntry(eleven, 0x20, 0, i + 1);
  }
  EXPECT_EQ(NamesOf(*Open("A")), (NAMES{".          ", "..         ", "B          "}));
  EXPECT_EQ(NamesOf(*Open("A\\B")).size(), 42u);
  CDiskImage& image = UnmountBuilt();
  const CVolumeReader reader(image);
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_EQ(reader.LostClusters(), CLUSTERS{});
  const VOLUME_NODE* a = reader.Find("A");
  const VOLUME_NODE* b = reader.Find("A\\B");
  ASSERT_TRUE(a != nullptr && b != nullptr);
  EXPECT_EQ(a->Clusters.size(), 1u);
  EXPECT_EQ(b->Clusters.size(), 3u) << "42 slots in clusters of 16";
  EXPECT_EQ(SlotsOfRoot(image)[0], NewEntry("A          ", 0x10, a->FirstCluster));
  SLOTS slotsOfA = Dots(a->FirstCluster, 0);
  slotsOfA += NewEntry("B          ", 0x10, b->FirstCluster);
  EXPECT_EQ(SlotsOfDir(image, a->FirstCluster), Padded(slotsOfA, 16));
  for (unsigned int i = 0; i < 40; ++i) {
    const VOLUME_NODE* file = reader.Find("A\\B\\F" + std::to_string(i));
    ASSERT_NE(file, nullptr) << i;
    EXPECT_EQ(file->Size, i + 1);
    expected[i] = NewEntry(file->ShortName, 0x20, file->FirstCluster, i + 1);
  }
  SLOTS slotsOfB = Dots(b->FirstCluster, a->FirstCluster);
  slotsOfB += expected;
  EXPECT_EQ(SlotsOfDir(image, b->FirstCluster), Padded(slotsOfB, 48)) << "new slots read as never used";
}

TEST_P(FatDirectoryWidths, MissingDirectoriesBelowAFullOne_AreMadeUnderTheirOwnPaths) {
  CImageBuilder builder(Small(Bits()));
  const DIRECTORY a = builder.AddDir(CImageBuilder::Root(), "A");
  const DIRECTORY b = builder.AddDir(a, "B");
  for (int i = 0; i < 14; ++i) builder.AddFile(b, "FILE" + std::to_string(i));
  MountBuilt(builder);
  const int handle = Fat_CreateFile(CPath("A\\B\\new\\x\\f"), 0, 0);
  ASSERT_GE(handle, 0);
  EXPECT_EQ(Fat_SetFileSize(handle, 7), 1u);
  const int again = Fat_OpenFile(CPath("a\\b\\NEW\\X\\F"));
  ASSERT_GE(again, 0);
  unsigned int size = 0;
  EXPECT_EQ(Fat_GetFileSize(again, &size), 1u);
  EXPECT_EQ(size, 7u);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  EXPECT_EQ(Fat_CloseFile(again), 1u);
  CDiskImage& image = UnmountBuilt();
  const CVolumeReader reader(image);
  EXPECT_EQ(reader.ProblemText(), "");
  ASSERT_NE(reader.Find("A\\B\\NEW\\X\\F"), nullptr);
  EXPECT_EQ(reader.Find("A\\B\\NEW\\X\\F")->Size, 7u);
  EXPECT_EQ(reader.Tree().size(), 2u + 14u + 3u);
}

// With clusters of four slots one entry set takes several of them at once.
TEST_F(FatDirectory, SetLargerThanACluster_GrowsByAsManyAsItNeeds) {
  FAT_GEOMETRY geometry = Small(16);
  geometry.BytesPerSector = 128;
  CImageBuilder builder(geometry);
  builder.Store().Fill(builder.DataOffset(), 100 * 128, 0xEE);
  const DIRECTORY d = builder.AddDir(CImageBuilder::Root(), "D");
  MountBuilt(builder);
  const unsigned int number = NextNumber();
  const std::string name = LongName(250);  // 20 pieces
  ASSERT_GE(CreateFile("D\\" + name), 0);
  CDiskImage& image = UnmountBuilt();
  const std::uint32_t first = builder.DirectoryClusters(d).front();
  SLOTS expected = Dots(first, 0, 0x5A21, 0x6000);
  expected += NewSet(name, NewEntry(Invented("LONGFG", number)));
  // Two slots were free, 19 were missing: five clusters more.
  EXPECT_EQ(SlotsOfDir(image, first), Padded(expected, 24));
  EXPECT_EQ(CVolumeReader(image).ProblemText(), "");
}

TEST_F(FatDirectory, RootOfFat32_GrowsLikeAnyDirectory) {
  CImageBuilder builder(Small(32));
  MountBuilt(builder);
  for (int i = 0; i < 17; ++i) ASSERT_GE(CreateFile("F" + std::to_string(i)), 0) << i;
  CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(SlotsOfRoot(image).size(), 32u);
  EXPECT_EQ(SlotsOfRoot(image)[16], NewEntry("F16        "));
  EXPECT_EQ(CVolumeReader(image).ProblemText(), "");
}

namespace {
class FatDirectoryFixedRoot : public FatDirectoryWidths {};
}  // namespace
INSTANTIATE_TEST_SUITE_P(Widths, FatDirectoryFixedRoot, ::testing::Values(12u, 16u), WidthName);

TEST_P(FatDirectoryFixedRoot, EverySlotUsed_CreationFailsWithNothingWritten) {
  CImageBuilder builder(Small(Bits(), 32));
  builder.AddLabel(CImageBuilder::Root(), "LABEL");
  builder.AddDir(CImageBuilder::Root(), "D");
  for (int i = 0; i < 30; ++i) builder.AddFile(CImageBuilder::Root(), "F" + std::to_string(i));
  const CDiskImage before = builder.Image();
  MountBuilt(builder);
  const unsigned int free = Fs()->Bitmap().FreeClusters();
  CFatFile* file = nullptr;
  EXPECT_EQ(Root()->CreateNewFile(CPath("NEW"), 0, 0, &file), STATUS_DISK_FULL);
  EXPECT_EQ(Root()->CreateNewFile(CPath("new long name"), 0, 512, &file), STATUS_DISK_FULL);
  CFatDir* dir = nullptr;
  EXPECT_EQ(Root()->CreateSubDir(CPath("NEWDIR"), 0, &dir), STATUS_DISK_FULL);
  EXPECT_LT(CreateFile("NEW"), 0);
  EXPECT_FALSE(CreateDir("NEW"));
  EXPECT_EQ(Fs()->Bitmap().FreeClusters(), free) << "the directory's cluster was given back";
  EXPECT_EQ(Medium().Writes(), 0u);
  EXPECT_EQ(Root()->LookupFile(CPath("NEW")), nullptr);
  EXPECT_GE(CreateFile("D\\NEW"), 0) << "a subdirectory still has room";
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\NEW")), 1u);
  CDiskImage after = UnmountBuilt();
  EXPECT_EQ(SlotsOfRoot(after), SlotsOfRoot(builder.Store()));
  EXPECT_EQ(CVolumeReader(after).ProblemText(), "");
  EXPECT_EQ(CVolumeReader(after).LostClusters(), CLUSTERS{});
}

TEST_P(FatDirectoryFixedRoot, FewerFreeSlotsThanASetNeeds_CreationFailsButASmallerOneFits) {
  CImageBuilder builder(Small(Bits(), 32));
  for (int i = 0; i < 30; ++i) builder.AddFile(CImageBuilder::Root(), "F" + std::to_string(i));
  MountBuilt(builder);
  EXPECT_LT(CreateFile("three slots, two pieces"), 0);
  EXPECT_GE(CreateFile("two slots"), 0);
  EXPECT_LT(CreateFile("ONE"), 0);
}

namespace {

/// A directory of `used` strays and `free` deleted slots behind them, whole clusters of 16.
void AddHugeDir(CImageBuilder& builder, const std::string& name, unsigned int used, unsigned int free) {
  SLOTS slots(used, Stray());
  slots.resize(used + free, Deleted(Stray()));
  const CLUSTERS chain = builder.Allocate((used + free) / 16);
  BYTES bytes;
  for (const RAW_ENTRY& slot : slots) bytes.insert(bytes.end(), slot.begin(), slot.end());
  builder.WriteClusters(chain, bytes);
  ENTRY_OPTIONS options;
  options.Attributes = 0x10;
  options.SetFirstCluster = true;
  options.FirstCluster = chain.front();
  builder.AddFile(CImageBuilder::Root(), name, {}, {}, options);
}

}  // namespace

TEST_F(FatDirectory, LimitOf65536Slots_IsReachedExactlyAndNeverPassed) {
  FAT_GEOMETRY geometry = Small(16);
  geometry.Clusters = 20000;
  CImageBuilder builder(geometry);
  AddHugeDir(builder, "EXACT", 65520, 0);
  AddHugeDir(builder, "OVER", 65520, 0);
  AddHugeDir(builder, "FULL", 65534, 2);
  MountBuilt(builder);
  const std::string sixteen = LongName(15 * 13);
  const std::string seventeen = LongName(15 * 13 + 1);
  const unsigned int free = Fs()->Bitmap().FreeClusters();
  Medium().ClearTrace();
  EXPECT_LT(CreateFile("OVER\\" + seventeen), 0);
  EXPECT_EQ(Medium().Writes(), 0u);
  EXPECT_EQ(Open("OVER")->AllocBytes(), 65520u * 32);
  EXPECT_GE(CreateFile("EXACT\\" + sixteen), 0);
  EXPECT_EQ(Open("EXACT")->DirEntCache()->Slots(), 65536u);
  EXPECT_LT(CreateFile("EXACT\\ONE"), 0);
  EXPECT_LT(CreateFile("FULL\\three slots, two pieces"), 0);
  EXPECT_GE(CreateFile("FULL\\two slots"), 0);
  EXPECT_LT(CreateFile("FULL\\ONE"), 0);
  EXPECT_FALSE(CreateDir("FULL\\DIR"));
  EXPECT_EQ(Fs()->Bitmap().FreeClusters(), free - 1);
}

TEST_F(FatDirectory, EveryShortNameTaken_CreationFailsWithNothingWritten) {
  FAT_GEOMETRY geometry = Coarse(16);
  CImageBuilder builder(geometry);
  SLOTS slots;
  for (unsigned int i = 1; i <= 99999; ++i) {
    std::string eleven = "AB~" + std::to_string(i);
    eleven.resize(8, ' ');
    slots += NewEntry(eleven + "C  ");
  }
  AddRawDir(builder, "D", slots);
  MountBuilt(builder);
  CFatDir* dir = Open("D");
  ASSERT_NE(dir, nullptr);
  const unsigned int free = Fs()->Bitmap().FreeClusters();
  Medium().ClearTrace();
  DENTCTX* record = nullptr;
  EXPECT_EQ(dir->CreateNewDirEnts(CPath("a.b.c"), 0, 0, 0, record), STATUS_DISK_FULL);
  EXPECT_FALSE(CreateDir("D\\a.b.c"));
  EXPECT_EQ(Fs()->Bitmap().FreeClusters(), free);
  EXPECT_EQ(Medium().Writes(), 0u);
  EXPECT_EQ(dir->LookupFile(CPath("a.b.c")), nullptr);
  EXPECT_GE(CreateFile("D\\SHORT"), 0);
}

TEST_P(FatDirectoryWidths, NoClusterForTheGrowth_CreationFailsAndSucceedsOnceOneIsFree) {
  CImageBuilder builder(Small(Bits()));
  const DIRECTORY d = builder.AddDir(CImageBuilder::Root(), "D");
  for (int i = 0; i < 14; ++i) builder.AddFile(d, "F" + std::to_string(i));
  builder.AddFile(CImageBuilder::Root(), "REST", CImageBuilder::Pattern(builder.CountFree() * 512, 1));
  MountBuilt(builder);
  CFatDir* dir = Open("D");
  CFatFile* file = nullptr;
  EXPECT_EQ(dir->CreateNewFile(CPath("NEW"), 0, 0, &file), STATUS_DISK_FULL);
  EXPECT_FALSE(CreateDir("D\\NEW"));
  EXPECT_EQ(Medium().Writes(), 0u);
  EXPECT_EQ(dir->AllocBytes(), 512u);
  EXPECT_EQ(dir->DirEntCache()->Slots(), 16u);
  EXPECT_EQ(NamesOf(*dir).size(), 16u);
  Release();
  EXPECT_EQ(Fat_DeleteFile(CPath("REST")), 1u);
  EXPECT_GE(CreateFile("D\\NEW"), 0);
  CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(CVolumeReader(image).ProblemText(), "");
  EXPECT_EQ(CVolumeReader(image).LostClusters(), CLUSTERS{});
}

// ------------------------------------------------------------------------------------------------ compaction

// Slots 1, 5 and 7 are free; three are needed. Slots 2-4 go down to 1-3 and slot 6 to 4; the set is written behind
// them.
TEST_F(FatDirectory, ScatteredFreeSlots_AreGatheredFromTheFront) {
  CImageBuilder builder(Small(16, 16));
  const SLOTS b = NewSet("set b", NewEntry("SETB~9     "));
  const SLOTS before = {NewEntry("A          "),
                        Deleted(NewEntry("X          ")),
                        b[0],
                        b[1],
                        NewEntry("C          "),
                        Deleted(NewEntry("Y          ")),
                        NewEntry("D          "),
                        Deleted(NewEntry("Z          "))};
  builder.Append(CImageBuilder::Root(), before);
  SLOTS rest;
  for (char c = '0'; c < '8'; ++c) rest += NewEntry(std::string("E") + c + "         ");
  builder.Append(CImageBuilder::Root(), rest);
  MountBuilt(builder);
  const unsigned int number = NextNumber();
  ASSERT_GE(CreateFile("name of two pieces"), 0);
  SLOTS expected = {before[0], b[0], b[1], before[4], before[6]};
  expected += NewSet("name of two pieces", NewEntry(Invented("NAMEOF", number)));
  expected += rest;
  EXPECT_EQ(SlotsOf(*Root()), expected);
  EXPECT_EQ(UsedSlots(*Root()), std::vector<bool>(16, true));

  // C began right behind B, so its move was not followed: it is still believed in slot 4, where D is listed.
  NAMES listed = {"A          ", "set b", "D          ", "name of two pieces"};
  for (char c = '0'; c < '8'; ++c) listed.push_back(std::string("E") + c + "         ");
  EXPECT_EQ(NamesOf(*Root()), listed);
  EXPECT_EQ(Root()->LookupFile(CPath("set b"))->nShortIdx, 2u);
  ASSERT_NE(Root()->LookupFile(CPath("C")), nullptr);
  EXPECT_EQ(Root()->LookupFile(CPath("C"))->nShortIdx, 4u);
  EXPECT_EQ(Root()->LookupFile(CPath("D"))->nShortIdx, 4u);

  // On the medium all is well, and the next mount sees it.
  MountImage(UnmountBuilt());
  EXPECT_EQ(SlotsOf(*Root()), expected);
  EXPECT_EQ(Root()->LookupFile(CPath("C"))->nShortIdx, 3u);
}

TEST_F(FatDirectory, CompactionInAGrowingDirectory_WorksTheSame) {
  CImageBuilder builder(Small(32));
  SLOTS slots = Dots(0, 0);
  for (int i = 2; i < 16; ++i) slots += NewEntry("F" + std::string(1, static_cast<char>('A' + i)) + "         ");
  slots[3] = Deleted(slots[3]);
  const DIRECTORY d = AddRawDir(builder, "D", slots);
  MountBuilt(builder);
  const unsigned int number = NextNumber();
  // One slot is free and 17 are needed: one cluster more, and still no run of 17.
  const std::string name = LongName(16 * 13);
  ASSERT_GE(CreateFile("D\\" + name), 0);
  SLOTS expected = slots;
  expected.erase(expected.begin() + 3);
  expected += NewSet(name, NewEntry(Invented("LONGFG", number)));
  CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(SlotsOfDir(image, builder.DirectoryClusters(d).front()), expected);
}

namespace {

/// A directory of more than one block. All slots are used by strays but for those given; short entries lie where asked.
struct WIDE_DIR {
  static constexpr unsigned int SLOTS_IN_ALL = 9216;  // nine clusters of 32 KiB
  SLOTS Slots{SLOTS_IN_ALL, Stray()};

  WIDE_DIR(const std::vector<unsigned int>& free, const std::map<unsigned int, std::string>& entries) {
    for (unsigned int i = 0; i < SLOTS_IN_ALL; ++i) {
      Slots[i][1] = static_cast<unsigned char>(i);  // to tell them apart
      Slots[i][2] = static_cast<unsigned char>(i >> 8);
      Slots[i][3] = 1;
    }
    for (const unsigned int slot : free) Slots[slot] = Deleted(Slots[slot]);
    for (const auto& [slot, eleven] : entries) Slots[slot] = NewEntry(eleven);
  }
};

}  // namespace

// The read of the second block fails in the middle of the second move: what was moved before stays, in pieces of 64
// slots.
TEST_F(FatDirectory, ReadFailsInsideACompaction_CompletedMovesStayAndTheFailedOneIsNotFollowed) {
  CImageBuilder builder(Coarse(16));
  WIDE_DIR wide({10, 20, 8500}, {{15, "FIRST      "}, {100, "SECOND     "}});
  const DIRECTORY d = AddRawDir(builder, "D", wide.Slots);
  MountBuilt(builder);
  CFatDir* dir = Open("D");
  ASSERT_NE(dir, nullptr);
  EvictAllBlocks();
  Medium().FailRange(static_cast<long long>(builder.ClusterOffset(builder.DirectoryClusters(d)[8])), 1);
  unsigned int first = 0;
  EXPECT_EQ(dir->AllocDirEntsByBitmap(3, &first), STATUS_IO_ERROR);
  Medium().Heal();

  SLOTS expected = wide.Slots;
  std::copy(expected.begin() + 11, expected.begin() + 20, expected.begin() + 10);
  constexpr unsigned int MOVED = 127 * 64;  // the next piece reaches into the second block
  std::copy(wide.Slots.begin() + 21, wide.Slots.begin() + 21 + MOVED, expected.begin() + 19);
  EXPECT_EQ(SlotsOf(*dir), expected);
  std::vector<bool> used(WIDE_DIR::SLOTS_IN_ALL, true);
  used[19] = used[20] = used[8500] = false;
  EXPECT_EQ(UsedSlots(*dir), used);
  EXPECT_EQ(dir->LookupFile(CPath("FIRST"))->nShortIdx, 14u);
  EXPECT_EQ(dir->LookupFile(CPath("SECOND"))->nShortIdx, 100u);
}

TEST_F(FatDirectory, ReadFailsAtTheStartOfACompaction_NothingIsChanged) {
  CImageBuilder builder(Coarse(16));
  WIDE_DIR wide({10, 20, 30}, {{15, "FIRST      "}});
  AddRawDir(builder, "D", wide.Slots);
  MountBuilt(builder);
  CFatDir* dir = Open("D");
  ASSERT_NE(dir, nullptr);
  EvictAllBlocks();
  const std::vector<bool> used = UsedSlots(*dir);
  Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads);
  unsigned int first = 0;
  EXPECT_EQ(dir->AllocDirEntsByBitmap(3, &first), STATUS_IO_ERROR);
  EXPECT_EQ(SlotsOf(*dir), wide.Slots);
  EXPECT_EQ(UsedSlots(*dir), used);
  EXPECT_EQ(dir->LookupFile(CPath("FIRST"))->nShortIdx, 15u);
  EXPECT_EQ(dir->AllocDirEntsByBitmap(3, &first), STATUS_SUCCESS);
  EXPECT_EQ(first, 28u);
}

// A regular file used as a directory: growing it does not give it slots, and nothing in it is free.
TEST_F(FatDirectory, FullRegularFileAsParent_CreationFailsAndTheFileHasGrown) {
  CImageBuilder builder(Small(16));
  builder.AddFile(CImageBuilder::Root(), "F", BYTES(512, 'A'));
  builder.AddFile(CImageBuilder::Root(), "WALL");  // the file's next cluster is free all the same
  MountBuilt(builder);
  EXPECT_TRUE(Exists("F"));
  EXPECT_LT(CreateFile("F\\X"), 0);
  EXPECT_FALSE(CreateDir("F\\X"));
  const CFatDir* file = Open("F");
  EXPECT_EQ(file->AllocBytes(), 1536u) << "each try has added a cluster";
  EXPECT_EQ(file->Size(), 1024u + 32u);
}

TEST_F(FatDirectory, RegularFileWithFreeSlots_TakesEntriesIntoItsData) {
  CImageBuilder builder(Small(16));
  BYTES bytes(1024, 'A');
  bytes[64] = 0xE5;
  builder.AddFile(CImageBuilder::Root(), "F", bytes);
  MountBuilt(builder);
  ASSERT_GE(CreateFile("F\\X"), 0);
  CDiskImage& image = UnmountBuilt();
  const CVolumeReader reader(image);
  const RAW_ENTRY entry = NewEntry("X          ");
  std::copy(entry.begin(), entry.end(), bytes.begin() + 64);
  EXPECT_EQ(reader.Content(*reader.Find("F")), bytes);
}

// The map of used slots is cut to the new size and stays full: nothing is free, and nothing can be slid.
TEST_F(FatDirectory, DirectoryShrunkThroughItsHandle_CreationFailsUntilTheMapHasFreeSlotsAgain) {
  CImageBuilder builder(Small(16));
  const DIRECTORY d = builder.AddDir(CImageBuilder::Root(), "D");
  for (int i = 0; i < 30; ++i) builder.AddFile(d, "F" + std::to_string(i));
  MountBuilt(builder);
  const int handle = Fat_OpenFile(CPath("D"));
  ASSERT_GE(handle, 0);
  EXPECT_EQ(Fat_SetFileSize(handle, 0), 1u);
  EXPECT_LT(CreateFile("D\\X"), 0);
  EXPECT_EQ(Open("D")->AllocBytes(), 512u);
  EXPECT_GE(CreateFile("D\\X"), 0);
  EXPECT_EQ(Open("D")->LookupFile(CPath("X"))->nShortIdx, 16u);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
}

// ------------------------------------------------------------------------------------------------ a twin

namespace {

/// One directory as the rules have it: bytes, used slots, the table of records by slot, the records in the order of
/// their insertion. Names are ASCII here. Compaction and its way of following sets are spelled out step by step.
class CDirectoryTwin {
 public:
  struct RECORD {
    std::string Key;  // upper-cased long name, or '\1' and eleven bytes
    std::string Name;
    RAW_ENTRY Entry;
    unsigned int ShortIdx;
    unsigned int LongCount;
    unsigned int First() const { return ShortIdx - LongCount; }
  };

  CDirectoryTwin(SLOTS slots, unsigned int clusterSlots, unsigned int nextNumber)
      : m_Slots(std::move(slots)),
        m_Used(m_Slots.size()),
        m_Table(m_Slots.size()),
        m_nClusterSlots(clusterSlots),
        m_nNumber(nextNumber) {
    for (unsigned int i = 0; i < m_Slots.size() && m_Slots[i][0] != 0; ++i) {
      if (m_Slots[i][0] == 0xE5) continue;
      m_Used[i] = true;
      if (m_Slots[i][11] == 0x0F) continue;
      Insert(m_All.insert(m_All.end(),
                          {"\1" + std::string(m_Slots[i].begin(), m_Slots[i].begin() + 11), "", m_Slots[i], i, 0}));
    }
  }

  const SLOTS& Slots() const { return m_Slots; }
  const std::vector<bool>& Used() const { return m_Used; }
  std::vector<const RECORD*> Listed() const {
    std::vector<const RECORD*> listed;
    for (unsigned int i = 0; i < m_Table.size();) {
      if (m_Table[i] == nullptr) {
        ++i;
        continue;
      }
      if (listed.size() > m_Table.size()) break;
      listed.push_back(m_Table[i]);
      i = m_Table[i]->ShortIdx + 1;
    }
    return listed;
  }
  RECORD* Find(const std::string& name) {
    const std::string eleven = PlainShortName(name);
    RECORD* found = eleven.empty() ? nullptr : FindKey("\1" + eleven);
    return found != nullptr ? found : FindKey(Upper(name));
  }

  bool Create(const std::string& name, unsigned int attributes, unsigned int size) {
    std::string eleven = PlainShortName(name);
    const bool plain = !eleven.empty();
    const unsigned int k = plain ? 0 : static_cast<unsigned int>((name.size() + 12) / 13);
    if (!plain) eleven = Invent(name);
    unsigned int first = 0;
    if (!Allocate(k + 1, first)) return false;
    const RAW_ENTRY entry = NewEntry(eleven, attributes, 0, size);
    const SLOTS set = plain ? SLOTS{entry} : NewSet(name, entry);
    std::copy(set.begin(), set.end(), m_Slots.begin() + static_cast<std::ptrdiff_t>(first));
    Insert(m_All.insert(m_All.end(), {plain ? "\1" + eleven : Upper(name), plain ? "" : name, entry, first + k, k}));
    return true;
  }
  void Delete(RECORD* record) {
    MarkDeleted(record);
    Remove(record);
    Free(record);
  }
  bool Rename(RECORD* record, const std::string& name) {
    std::vector<unsigned char> firstBytes;
    for (unsigned int i = record->First(); i <= record->ShortIdx; ++i) firstBytes.push_back(m_Slots[i][0]);
    MarkDeleted(record);
    Remove(record);
    const unsigned int size = record->Entry[28] + 256u * record->Entry[29];
    if (Create(name, record->Entry[11], size)) {
      Free(record);
      return true;
    }
    // Back at the end of the order.
    for (auto it = m_All.begin(); it != m_All.end(); ++it) {
      if (&*it != record) continue;
      m_All.splice(m_All.end(), m_All, it);
      break;
    }
    Insert(std::prev(m_All.end()));
    for (unsigned int i = 0; i < firstBytes.size(); ++i) {
      m_Slots[record->First() + i][0] = firstBytes[i];
      m_Used[record->First() + i] = true;
    }
    return false;
  }

 private:
  static std::string Upper(std::string text) {
    for (char& c : text) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
    return text;
  }
  // The eleven bytes of a name that needs no long one, or nothing.
  static std::string PlainShortName(const std::string& name) {
    const std::size_t dot = name.find('.');
    if (name.find_first_of("+ ") != std::string::npos ||
        (dot != std::string::npos && name.find('.', dot + 1) != std::string::npos))
      return {};
    std::string base = Upper(name.substr(0, dot));
    std::string extension = dot == std::string::npos ? "" : Upper(name.substr(dot + 1));
    if (base.empty() || base.size() > 8 || extension.size() > 3) return {};
    base.resize(8, ' ');
    extension.resize(3, ' ');
    return base + extension;
  }
  static std::string Lossy(const std::string& text) {
    std::string result;
    for (const char c : Upper(text)) {
      if (c != ' ' && c != '.') result.push_back(c == '+' ? '_' : c);
    }
    return result;
  }
  std::string Invent(const std::string& name) {
    const std::size_t dot = name.rfind('.');
    const bool extended = dot != std::string::npos && dot != 0;
    const std::string base = Lossy(extended ? name.substr(0, dot) : name);
    std::string extension = extended ? Lossy(name.substr(dot + 1)).substr(0, 3) : "";
    extension.resize(3, ' ');
    std::string field(8, ' ');
    for (;;) {
      const std::string digits = std::to_string(m_nNumber);
      const std::string part = base.substr(0, 7 - digits.size()) + "~" + digits;
      field.replace(0, part.size(), part);
      m_nNumber = m_nNumber % 99999 + 1;
      if (FindKey("\1" + field + extension) == nullptr) return field + extension;
    }
  }
  RECORD* FindKey(const std::string& key) {
    for (RECORD* record : m_Names) {
      if (record->Key == key) return record;
    }
    return nullptr;
  }
  void Insert(std::list<RECORD>::iterator record) {
    m_Table[record->First()] = &*record;
    m_Names.push_back(&*record);
  }
  void Remove(RECORD* record) {
    m_Table[record->First()] = nullptr;
    m_Names.remove(record);
  }
  void Free(RECORD* record) {
    m_All.remove_if([record](const RECORD& other) { return &other == record; });
  }
  void MarkDeleted(const RECORD* record) {
    for (unsigned int i = record->First(); i <= record->ShortIdx; ++i) {
      m_Slots[i][0] = 0xE5;
      m_Used[i] = false;
    }
  }
  // The next run of free slots. @return its length, 0 for none
  unsigned int FreeRun(unsigned int from, unsigned int& start) const {
    while (from < m_Used.size() && m_Used[from]) ++from;
    start = from;
    while (from < m_Used.size() && !m_Used[from]) ++from;
    return from - start;
  }
  bool Allocate(unsigned int n, unsigned int& first) {
    const auto free = static_cast<unsigned int>(std::count(m_Used.begin(), m_Used.end(), false));
    if (n > free) {
      if (m_nClusterSlots == 0) return false;
      const std::size_t clusters = (n - free + m_nClusterSlots - 1) / m_nClusterSlots;
      m_Slots.resize(m_Slots.size() + clusters * m_nClusterSlots, RAW_ENTRY{});
      m_Used.resize(m_Slots.size(), false);
      m_Table.resize(m_Slots.size(), nullptr);
    }
    unsigned int start = 0;
    unsigned int length = 0;
    for (unsigned int from = 0; (length = FreeRun(from, start)) != 0 && length < n;) from = start + length;
    if (length >= n) {
      first = start;
    } else {
      length = FreeRun(0, start);
      unsigned int gap = start;
      for (unsigned int p = start + length; length < n;) {
        unsigned int q = 0;
        const unsigned int m = FreeRun(p, q);
        MoveDown(p, q - p, gap);
        gap += q - p;
        length += m;
        p = q + m;
      }
      first = gap;
    }
    for (unsigned int i = first; i < first + n; ++i) m_Used[i] = true;
    return true;
  }
  void MoveDown(unsigned int first, unsigned int count, unsigned int target) {
    for (unsigned int i = 0; i < count; ++i) m_Slots[target + i] = m_Slots[first + i];
    for (unsigned int i = 0; i < count; ++i) m_Used[first + i] = false;
    for (unsigned int i = 0; i < count; ++i) m_Used[target + i] = true;
    const unsigned int delta = first - target;
    for (unsigned int i = first; i < first + count; ++i) {
      RECORD* record = m_Table[i];
      if (record == nullptr) continue;
      m_Table[i - delta] = record;
      m_Table[i] = nullptr;
      i = record->ShortIdx + 1;  // and the loop steps once more
      record->ShortIdx -= delta;
    }
  }

  SLOTS m_Slots;
  std::vector<bool> m_Used;
  std::vector<RECORD*> m_Table;
  std::list<RECORD> m_All;
  std::list<RECORD*> m_Names;
  unsigned int m_nClusterSlots;  // 0: does not grow
  unsigned int m_nNumber;
};

class FatDirectoryTwin : public FatDirectoryWidths {
 protected:
  void ExpectSame(CFatDir& dir, CDirectoryTwin& twin, const NAMES& names) {
    ASSERT_EQ(SlotsOf(dir), twin.Slots());
    ASSERT_EQ(UsedSlots(dir), twin.Used());
    const auto listed = twin.Listed();
    DENTCTX* record = nullptr;
    for (std::size_t i = 0; i <= listed.size(); ++i) {
      if (i == 0) {
        record = dir.FindFirst();
      } else {
        dir.FindNext(record);
      }
      ASSERT_EQ(record != nullptr, i < listed.size()) << i;
      if (record == nullptr) break;
      ASSERT_NO_FATAL_FAILURE(ExpectRecord(*record, *listed[i]));
    }
    for (const std::string& name : names) {
      record = dir.LookupFile(CPath(name));
      const CDirectoryTwin::RECORD* expected = twin.Find(name);
      ASSERT_EQ(record != nullptr, expected != nullptr) << name;
      if (record != nullptr) {
        ASSERT_NO_FATAL_FAILURE(ExpectRecord(*record, *expected));
      }
    }
  }
  static void ExpectRecord(const DENTCTX& record, const CDirectoryTwin::RECORD& expected) {
    ASSERT_EQ(record.nShortIdx, expected.ShortIdx) << expected.Name;
    ASSERT_EQ(record.nLongCount, expected.LongCount) << expected.Name;
    ASSERT_EQ(RawOf(record.ShortEntry), expected.Entry) << expected.Name;
    if (record.nLongCount != 0) {
      ASSERT_EQ(ToUtf8(record.NamePtr(), record.NameChars()), expected.Name);
    }
  }
};
INSTANTIATE_TEST_SUITE_P(Widths, FatDirectoryTwin, ::testing::Values(12u, 16u, 32u), WidthName);

}  // namespace

// Creations, deletions and renames of one directory, whose misled records meet each other's slots more and more often.
TEST_P(FatDirectoryTwin, RandomChangesOfADirectory_LeaveTheBytesAndRecordsOfTheTwin) {
  // Bits 12 and 16: the fixed root; 32: a subdirectory that grows.
  const bool grows = Bits() == 32;
  for (unsigned int seed = 0; seed < 60; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&random](unsigned int n) { return static_cast<unsigned int>(random() % n); };
    CImageBuilder builder(Small(Bits(), seed % 2 == 0 ? 32 : 64));
    const DIRECTORY d = grows ? builder.AddDir(CImageBuilder::Root(), "D") : CImageBuilder::Root();
    MountBuilt(builder);
    CFatDir* dir = grows ? Open("D") : Root();
    ASSERT_NE(dir, nullptr);
    CDirectoryTwin twin(builder.Entries(d), grows ? 16 : 0, NextNumber());
    NAMES names;
    static const NAMES s_Stems = {"N", "n.x", "name+", "a b.c", "A.B.C", "Some longer name ", "x"};
    for (unsigned int step = 0; step < 120; ++step) {
      const unsigned int kind = below(10);
      if (kind < 5) {
        std::string name = s_Stems[below(7)];
        if (below(4) != 0) name += std::to_string(below(100));
        if (below(5) == 0) name += LongName(below(60));
        if (grows && below(20) == 0) name += LongName(180);
        if (name.find_last_of(". ") == name.size() - 1) name += "x";
        names.push_back(name);
        const unsigned int size = below(60000);
        DENTCTX* record = nullptr;
        const int status = dir->CreateNewDirEnts(CPath(name), 0x20, size, 0, record);
        ASSERT_EQ(status, twin.Create(name, 0x20, size) ? STATUS_SUCCESS : STATUS_DISK_FULL) << name;
      } else if (!names.empty()) {
        const std::string name = names[below(static_cast<unsigned int>(names.size()))];
        DENTCTX* record = dir->LookupFile(CPath(name));
        CDirectoryTwin::RECORD* twinRecord = twin.Find(name);
        ASSERT_EQ(record != nullptr, twinRecord != nullptr) << name;
        if (record == nullptr) continue;
        CFatFile* file = CFatFileSystem::CreateFileObj(Fs(), record, false);
        ASSERT_NE(file, nullptr);
        if (kind < 8) {
          EXPECT_EQ(dir->DeleteFile(file, record), STATUS_SUCCESS);
          twin.Delete(twinRecord);
        } else {
          const std::string newName = below(2) == 0 ? "R" + std::to_string(step) : LongName(10 + below(50));
          names.push_back(newName);
          const int status = dir->RenameFile(file, record, CPath(newName));
          ASSERT_EQ(status, twin.Rename(twinRecord, newName) ? STATUS_SUCCESS : STATUS_DISK_FULL) << newName;
        }
        (void)file->Close();
      }
      ASSERT_NO_FATAL_FAILURE(ExpectSame(*dir, twin, names)) << "step " << step;
    }
    CDiskImage& image = UnmountBuilt();
    const SLOTS onMedium = grows ? SlotsOfDir(image, builder.DirectoryClusters(d).front()) : SlotsOfRoot(image);
    ASSERT_EQ(onMedium, twin.Slots());
  }
}

// ------------------------------------------------------------------------------------------------ deleting

TEST_P(FatDirectoryWidths, LastEntryDeleted_LeavesE5AndNoEndMarker) {
  CImageBuilder builder(Small(Bits()));
  builder.AddFile(CImageBuilder::Root(), "FIRST");
  builder.AddFile(CImageBuilder::Root(), "the last one");
  SLOTS expected = SlotsOfRoot(builder.Store());
  MountBuilt(builder);
  ASSERT_EQ(Fat_DeleteFile(CPath("The Last One")), 1u);
  expected[1] = Deleted(expected[1]);
  expected[2] = Deleted(expected[2]);
  EXPECT_EQ(UsedSlots(*Root())[0], true);
  EXPECT_EQ(UsedSlots(*Root())[1], false);
  EXPECT_EQ(SlotsOfRoot(UnmountBuilt()), expected);
}

TEST_P(FatDirectoryWidths, DeletedFile_FreesItsClustersAndNothingElse) {
  CImageBuilder builder(Small(Bits()));
  builder.AddFile(CImageBuilder::Root(), "KEEP", CImageBuilder::Pattern(2000, 1), {20, 23, 21, 30});
  builder.AddFile(CImageBuilder::Root(), "GONE", CImageBuilder::Pattern(2500, 2), {40, 41, 22, 50, 31});
  CDiskImage expected = builder.Image();
  MountBuilt(builder);
  const unsigned int free = Fs()->Bitmap().FreeClusters();
  ASSERT_EQ(Fat_DeleteFile(CPath("GONE")), 1u);
  EXPECT_EQ(Fs()->Bitmap().FreeClusters(), free + 5);
  CDiskImage& image = UnmountBuilt();
  CImageBuilder twin(expected);
  for (const std::uint32_t cluster : {40u, 41u, 22u, 50u, 31u}) twin.SetFatEntry(cluster, 0);
  twin.SetEntry(CImageBuilder::Root(), 1, Deleted(twin.Entry(CImageBuilder::Root(), 1)));
  EXPECT_EQ(CDiskImage::Differences(image, expected), std::vector<std::uint64_t>{});
}

TEST_F(FatDirectory, RestoredSlots_AreAsTheyWereBeforeTheLastDeletion) {
  CImageBuilder builder(Small(16));
  builder.AddFile(CImageBuilder::Root(), LongName(255));
  builder.AddFile(CImageBuilder::Root(), "OTHER");
  const SLOTS before = SlotsOfRoot(builder.Store());
  MountBuilt(builder);
  ASSERT_EQ(Root()->DeleteDirEnts(0, 21), STATUS_SUCCESS);
  SLOTS deleted = before;
  for (std::size_t i = 0; i < 21; ++i) deleted[i] = Deleted(deleted[i]);
  EXPECT_EQ(SlotsOf(*Root()), deleted);
  EXPECT_EQ(Root()->DirEntCache()->FreeSlots(), 511u);
  ASSERT_EQ(Root()->RestoreDelDirEnts(0, 21), STATUS_SUCCESS);
  EXPECT_EQ(SlotsOf(*Root()), before);
  EXPECT_EQ(Root()->DirEntCache()->FreeSlots(), 490u);
}

TEST_F(FatDirectory, MoreSlotsThanASetHas_AreNeitherDeletedNorRestored) {
  CImageBuilder builder(Small(16));
  builder.AddFile(CImageBuilder::Root(), LongName(255));
  builder.AddFile(CImageBuilder::Root(), "OTHER");
  const SLOTS before = SlotsOfRoot(builder.Store());
  MountBuilt(builder);
  EXPECT_LT(Root()->DeleteDirEnts(0, 22), 0);
  EXPECT_LT(Root()->RestoreDelDirEnts(0, 22), 0);
  EXPECT_EQ(SlotsOf(*Root()), before);
}

TEST_P(FatDirectoryWidths, ReadOfTheEntriesToDeleteFails_NothingIsDone) {
  CImageBuilder builder(Small(Bits()));
  builder.AddFile(CImageBuilder::Root(), "a file", CImageBuilder::Pattern(2000, 1));
  const CDiskImage before = builder.Image();
  MountBuilt(builder);
  const unsigned int free = Fs()->Bitmap().FreeClusters();
  DENTCTX* record = Root()->LookupFile(CPath("a file"));
  CFatFile* file = ObjectFor(record);
  EvictAllBlocks();
  Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads);
  EXPECT_EQ(Root()->DeleteFile(file, record), STATUS_IO_ERROR);
  EXPECT_EQ(Root()->LookupFile(CPath("a file")), record);
  EXPECT_EQ(UsedSlots(*Root())[0], true);
  EXPECT_EQ(Fs()->Bitmap().FreeClusters(), free);
  EXPECT_EQ(SlotsOf(*Root()), SlotsOfRoot(builder.Store()));
  EXPECT_EQ(Root()->DeleteFile(file, record), STATUS_SUCCESS);
}

// The fourth changed block of the FAT makes the library write; that fails, and the deletion succeeds all the same.
TEST_F(FatDirectory, FatWriteFailsDuringADeletion_IsNotReported) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 32;
  geometry.Clusters = 4 * 65536 + 1000;
  CImageBuilder builder(geometry);
  builder.AddFile(CImageBuilder::Root(), "F", CImageBuilder::Pattern(2000, 1),
                  {100, 65536 + 100, 2 * 65536 + 100, 3 * 65536 + 100});
  MountBuilt(builder);
  const unsigned int free = Fs()->Bitmap().FreeClusters();
  Medium().FailRange(static_cast<long long>(builder.FatOffset(0)), builder.FatBytes(), IO_FILTER::Writes);
  DENTCTX* record = Root()->LookupFile(CPath("F"));
  EXPECT_EQ(Root()->DeleteFile(ObjectFor(record), record), STATUS_SUCCESS);
  EXPECT_TRUE(Medium().Fired());
  EXPECT_EQ(Fs()->Bitmap().FreeClusters(), free + 4);
  EXPECT_EQ(Root()->LookupFile(CPath("F")), nullptr);
  Medium().Heal();
  CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(CVolumeReader(image).ProblemText(), "");
  EXPECT_EQ(CVolumeReader(image).LostClusters(), CLUSTERS{});
}

// ------------------------------------------------------------------------------------------------ renaming

TEST_P(FatDirectoryWidths, Rename_ChangesTheStampsAndKeepsSizeAttributeAndCluster) {
  CImageBuilder builder(Small(Bits()));
  ENTRY_OPTIONS options;
  options.Attributes = 0x07;
  builder.AddFile(CImageBuilder::Root(), "old long name", CImageBuilder::Pattern(777, 1), {50, 60}, options);
  builder.AddFile(CImageBuilder::Root(), "OTHER");
  SLOTS expected = SlotsOfRoot(builder.Store());
  MountBuilt(builder);
  const unsigned int number = NextNumber();
  ASSERT_EQ(Fat_RenameFile(CPath("old long name"), CPath("NEW.TXT")), 1u);
  expected[0] = NewEntry("NEW     TXT", 0x07, 50, 777);
  expected[1] = Deleted(expected[1]);
  EXPECT_EQ(SlotsOf(*Root()), expected) << "into the freed slots, from the lowest on";
  m_Clock.Set(LATER);
  ASSERT_EQ(Fat_RenameFile(CPath("new.txt"), CPath("name of two pieces")), 1u);
  expected[0] = Deleted(expected[0]);
  const SLOTS set =
      NewSet("name of two pieces", NewEntry(Invented("NAMEOF", number), 0x07, 50, 777, LATER_DATE, LATER_TIME));
  std::copy(set.begin(), set.end(), expected.begin() + 3);
  CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(SlotsOfRoot(image), expected);
  const CVolumeReader reader(image);
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_EQ(reader.Content(*reader.Find("name of two pieces")), CImageBuilder::Pattern(777, 1));
}

TEST_F(FatDirectory, RenamedOpenFile_ShowsItsNewShortNameWithItsOldLongOne) {
  CImageBuilder builder(Small(16));
  builder.AddFile(CImageBuilder::Root(), "old long name");
  MountBuilt(builder);
  const int handle = Fat_OpenFile(CPath("old long name"));
  ASSERT_GE(handle, 0);
  ASSERT_EQ(Fat_RenameFile(CPath("old long name"), CPath("NEW.TXT")), 1u);
  WIN_FIND_DATA data{};
  ASSERT_EQ(Fat_GetFileAttribute(handle, &data), 1u);
  EXPECT_EQ(ToListed(data).LongName, "old long name");
  EXPECT_EQ(ToListed(data).ShortName, "NEW.TXT");
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
}

TEST_P(FatDirectoryFixedRoot, NoRoomForTheNewName_TheOldSetIsRestored) {
  CImageBuilder builder(Small(Bits(), 32));
  builder.AddFile(CImageBuilder::Root(), "old name");
  for (int i = 0; i < 30; ++i) builder.AddFile(CImageBuilder::Root(), "F" + std::to_string(i));
  const SLOTS before = SlotsOfRoot(builder.Store());
  MountBuilt(builder);
  DENTCTX* record = Root()->LookupFile(CPath("old name"));
  CFatFile* file = ObjectFor(record);
  EXPECT_EQ(Root()->RenameFile(file, record, CPath("name of two pieces")), STATUS_DISK_FULL);
  EXPECT_EQ(Fat_RenameFile(CPath("old name"), CPath("name of two pieces")), 0u);
  EXPECT_EQ(SlotsOf(*Root()), before);
  EXPECT_EQ(Root()->LookupFile(CPath("old name")), record);
  EXPECT_EQ(Root()->LookupFile(CPath("name of two pieces")), nullptr);
  EXPECT_EQ(UsedSlots(*Root()), std::vector<bool>(32, true));
  EXPECT_EQ(RawOf(*file->Info()), before[1]);
  EXPECT_EQ(SlotsOfRoot(UnmountBuilt()), before);
}

// The old set lies in the first block of the directory, room for the new one only in the second, which cannot be read.
TEST_F(FatDirectory, WriteOfTheNewSetFails_TheOldOneIsRestoredAndBothRecordsStay) {
  CImageBuilder builder(Coarse(16));
  WIDE_DIR wide({8500, 8501, 8502}, {{15, "OLD        "}});
  const DIRECTORY d = AddRawDir(builder, "D", wide.Slots);
  MountBuilt(builder);
  CFatDir* dir = Open("D");
  DENTCTX* record = dir->LookupFile(CPath("OLD"));
  CFatFile* file = ObjectFor(record);
  EvictAllBlocks();
  Medium().FailRange(static_cast<long long>(builder.ClusterOffset(builder.DirectoryClusters(d)[8])), 1);
  EXPECT_EQ(dir->RenameFile(file, record, CPath("name of two pieces")), STATUS_IO_ERROR);
  EXPECT_TRUE(Medium().Fired());
  Medium().Heal();
  EXPECT_EQ(SlotsOf(*dir), wide.Slots);
  EXPECT_EQ(dir->LookupFile(CPath("OLD")), record);
  EXPECT_EQ(record->nShortIdx, 15u);
  DENTCTX* unwritten = dir->LookupFile(CPath("name of two pieces"));
  ASSERT_NE(unwritten, nullptr);
  EXPECT_EQ(unwritten->FirstSlot(), 8500u);
  EXPECT_EQ(dir->DirEntCache()->FreeSlots(), 0u);
  EXPECT_EQ(RawOf(*file->Info()), wide.Slots[15]);
}

TEST_F(FatDirectory, OldSetCannotBeRead_RenameChangesNothing) {
  CImageBuilder builder(Small(16));
  builder.AddFile(CImageBuilder::Root(), "old name");
  MountBuilt(builder);
  DENTCTX* record = Root()->LookupFile(CPath("old name"));
  CFatFile* file = ObjectFor(record);
  EvictAllBlocks();
  Medium().FailAt(1, FAULT_ONCE);
  EXPECT_EQ(Root()->RenameFile(file, record, CPath("NEW")), STATUS_IO_ERROR);
  EXPECT_EQ(Root()->LookupFile(CPath("old name")), record);
  EXPECT_EQ(Root()->LookupFile(CPath("NEW")), nullptr);
  EXPECT_EQ(SlotsOf(*Root()), SlotsOfRoot(builder.Store()));
}

// ------------------------------------------------------------------------------------------------ creations that fail

TEST_P(FatDirectoryWidths, WriteOfANewSetFails_StatusIsReportedAndTheSetCountsAllTheSame) {
  CImageBuilder builder(Small(Bits()));
  const DIRECTORY d = builder.AddDir(CImageBuilder::Root(), "D");
  MountBuilt(builder);
  CFatDir* dir = Open("D");
  EvictAllBlocks();
  Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads);  // the block is read before it is changed
  DENTCTX* record = nullptr;
  EXPECT_EQ(dir->CreateNewDirEnts(CPath("a long name"), 0x20, 0, 0, record), STATUS_IO_ERROR);
  EXPECT_EQ(dir->LookupFile(CPath("a long name")), record);
  EXPECT_EQ(NamesOf(*dir), (NAMES{".          ", "..         ", "a long name"}));
  EXPECT_EQ(dir->DirEntCache()->FreeSlots(), 12u);
  EXPECT_EQ(SlotsOf(*dir), builder.Entries(d)) << "the medium never saw it";
}

TEST_P(FatDirectoryWidths, NoClustersForTheSize_SlotsAreDeletedButTheRecordStays) {
  CImageBuilder builder(Small(Bits()));
  builder.AddFile(CImageBuilder::Root(), "REST", CImageBuilder::Pattern((builder.CountFree() - 2) * 512, 1));
  MountBuilt(builder);
  CFatFile* file = nullptr;
  EXPECT_EQ(Root()->CreateNewFile(CPath("GHOST"), 0x20, 3 * 512, &file), STATUS_DISK_FULL);
  EXPECT_EQ(SlotsOf(*Root())[1], Deleted(NewEntry("GHOST      ")));
  EXPECT_EQ(UsedSlots(*Root())[1], false);
  DENTCTX* ghost = Root()->LookupFile(CPath("GHOST"));
  ASSERT_NE(ghost, nullptr);
  EXPECT_EQ(NamesOf(*Root()), (NAMES{"REST       ", "GHOST      "}));
  EXPECT_LT(CreateFile("GHOST"), 0) << "the name cannot be created again";
  // What is created next takes the ghost's slot, and deleting the ghost deletes it.
  ASSERT_GE(CreateFile("NEXT"), 0);
  EXPECT_EQ(NamesOf(*Root()), (NAMES{"REST       ", "NEXT       "}));
  EXPECT_EQ(SlotsOf(*Root())[1], NewEntry("NEXT       "));
  EXPECT_EQ(Root()->DeleteFile(ObjectFor(ghost), ghost), STATUS_SUCCESS);
  EXPECT_EQ(SlotsOf(*Root())[1], Deleted(NewEntry("NEXT       ")));
  EXPECT_EQ(NamesOf(*Root()), (NAMES{"REST       "}));
  EXPECT_NE(Root()->LookupFile(CPath("NEXT")), nullptr);
  Release();
  CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(CVolumeReader(image).Tree().size(), 1u);
  EXPECT_EQ(CVolumeReader(image).ProblemText(), "");
}

TEST_P(FatDirectoryWidths, SizeTooLarge_FailsLikeAFullDisk) {
  MountEmpty(Small(Bits()));
  CFatFile* file = nullptr;
  EXPECT_EQ(Root()->CreateNewFile(CPath("F"), 0x20, 0xFFFFFFFF, &file), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(SlotsOf(*Root())[0], Deleted(NewEntry("F          ")));
}

TEST_P(FatDirectoryWidths, SizedFile_HasItsClustersAndSizeInItsEntry) {
  CImageBuilder builder(Small(Bits()));
  MountBuilt(builder);
  const unsigned int number = NextNumber();
  ASSERT_GE(CreateFile("sized file", 1500), 0);
  CDiskImage& image = UnmountBuilt();
  const CVolumeReader reader(image);
  EXPECT_EQ(reader.ProblemText(), "");
  const VOLUME_NODE* file = reader.Find("sized file");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->Clusters.size(), 3u);
  EXPECT_EQ(SlotsOfRoot(image)[1], NewEntry(Invented("SIZEDF", number), 0x20, file->FirstCluster, 1500));
}

TEST_P(FatDirectoryWidths, NoClusterForADirectory_NothingIsMade) {
  CImageBuilder builder(Small(Bits()));
  builder.AddFile(CImageBuilder::Root(), "REST", CImageBuilder::Pattern(builder.CountFree() * 512, 1));
  MountBuilt(builder);
  CFatDir* dir = nullptr;
  EXPECT_EQ(Root()->CreateSubDir(CPath("D"), 0, &dir), STATUS_DISK_FULL);
  EXPECT_EQ(Root()->LookupFile(CPath("D")), nullptr);
  EXPECT_EQ(SlotsOf(*Root()), SlotsOfRoot(builder.Store()));
  EXPECT_EQ(Medium().Writes(), 0u);
}

TEST_P(FatDirectoryWidths, WriteOfADirectorysEntrySetFails_ItsClusterIsFreeAgain) {
  CImageBuilder builder(Small(Bits()));
  builder.AddDir(CImageBuilder::Root(), "TOP");
  MountBuilt(builder);
  CFatDir* top = Open("TOP");
  const unsigned int free = Fs()->Bitmap().FreeClusters();
  EvictAllBlocks();
  Medium().FailAt(1, FAULT_ONCE, IO_FILTER::Reads);
  CFatDir* dir = nullptr;
  EXPECT_EQ(top->CreateSubDir(CPath("D"), 0, &dir), STATUS_IO_ERROR);
  EXPECT_EQ(Fs()->Bitmap().FreeClusters(), free);
  CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(CVolumeReader(image).ProblemText(), "");
  EXPECT_EQ(CVolumeReader(image).LostClusters(), CLUSTERS{});
}

TEST_F(FatDirectory, FatWriteFailsBeforeADirectoryIsMade_NothingIsMade) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 32;
  geometry.Clusters = 4 * 65536 + 1000;
  CImageBuilder builder(geometry);
  builder.AddFile(CImageBuilder::Root(), "F", CImageBuilder::Pattern(1500, 1),
                  {65536 + 100, 2 * 65536 + 100, 3 * 65536 + 100});
  MountBuilt(builder);
  ASSERT_EQ(Fat_DeleteFile(CPath("F")), 1u);  // three changed blocks; the next one makes the library write
  Medium().FailRange(static_cast<long long>(builder.FatOffset(0)), builder.FatBytes(), IO_FILTER::Writes);
  const SLOTS before = SlotsOf(*Root());
  CFatDir* dir = nullptr;
  EXPECT_EQ(Root()->CreateSubDir(CPath("D"), 0, &dir), STATUS_IO_ERROR);
  EXPECT_EQ(Root()->LookupFile(CPath("D")), nullptr);
  EXPECT_EQ(SlotsOf(*Root()), before);
  Medium().Heal();
}

TEST_F(FatDirectory, NoBlockForADirectorysFirstCluster_StatusIsReportedAndTheEntryStays) {
  CImageBuilder builder(Small(16));
  MountBuilt(builder);
  FillPoolWithUnsavedData();
  (void)SlotsOf(*Root());
  FailFillerWrites();
  CFatDir* dir = nullptr;
  EXPECT_EQ(Root()->CreateSubDir(CPath("D"), 0, &dir), STATUS_IO_ERROR);
  HealFiller();
  EXPECT_EQ(dir, nullptr);
  EXPECT_EQ(SlotsOf(*Root())[0], NewEntry("D          ", 0x10, 2));
  EXPECT_NE(Root()->LookupFile(CPath("D")), nullptr);
}

TEST_F(FatDirectory, ClusterLargerThanABlock_SecondHalfOfANewDirectoryKeepsOldBytes) {
  FAT_GEOMETRY geometry = Small(16);
  geometry.BytesPerSector = 4096;
  geometry.SectorsPerCluster = 128;
  CImageBuilder builder(geometry);
  builder.Store().Fill(builder.ClusterOffset(2), 0x80000, 0xEE);
  MountBuilt(builder);
  ASSERT_TRUE(CreateDir("D"));
  EXPECT_EQ(Open("D")->DirEntCache()->Slots(), 0x80000u / 32);
  CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(image.ReadBytes(builder.ClusterOffset(2) + 64, 0x40000 - 64), BYTES(0x40000 - 64, 0));
  EXPECT_EQ(image.ReadBytes(builder.ClusterOffset(2) + 0x40000, 0x40000), BYTES(0x40000, 0xEE));
}

// ------------------------------------------------------------------------------------------------ moving

namespace {

/// A set as another system writes it, with fields that the library never sets.
SLOTS ForeignSet() {
  RAW_ENTRY entry = NewEntry("MOVING  TXT", 0x21, 77, 1234, 0x4A21, 0x1234);
  entry[12] = 0x18;
  entry[13] = 150;
  entry[18] = 0x22;
  return NewSet("Moving file.txt", entry);
}

}  // namespace

TEST_P(FatDirectoryWidths, MovedSet_KeepsItsBytesAndLeavesE5Behind) {
  CImageBuilder builder(Small(Bits()));
  const DIRECTORY to = builder.AddDir(CImageBuilder::Root(), "TO");
  const DIRECTORY from = builder.AddDir(CImageBuilder::Root(), "FROM");
  builder.AddFile(to, "THERE");
  builder.Append(from, ForeignSet());
  builder.AddFile(from, "BEHIND");
  SLOTS source = builder.Entries(from);
  SLOTS target = builder.Entries(to);
  MountBuilt(builder);
  CFatDir* fromDir = Open("FROM");
  CFatDir* toDir = Open("TO");
  DENTCTX* record = fromDir->LookupFile(CPath("moving FILE.txt"));
  ASSERT_NE(record, nullptr);
  ASSERT_EQ(fromDir->MoveDirEntsIntoAnother(record, toDir), STATUS_SUCCESS);
  EXPECT_EQ(fromDir->LookupFile(CPath("moving file.txt")), nullptr);
  EXPECT_EQ(toDir->LookupFile(CPath("moving file.txt")), record) << "the record itself goes along";
  EXPECT_EQ(record->nShortIdx, 5u);
  EXPECT_EQ(record->nLongCount, 2u);
  EXPECT_EQ(NamesOf(*fromDir), (NAMES{".          ", "..         ", "BEHIND     "}));
  EXPECT_EQ(NamesOf(*toDir), (NAMES{".          ", "..         ", "THERE      ", "Moving file.txt"}));
  EXPECT_EQ(UsedSlots(*fromDir)[2], false);
  EXPECT_EQ(UsedSlots(*toDir)[5], true);
  EXPECT_EQ(toDir->DirEntCache()->FreeSlots(), 10u);
  const SLOTS set = ForeignSet();
  std::copy(set.begin(), set.end(), target.begin() + 3);
  for (std::size_t i = 2; i < 5; ++i) source[i] = Deleted(source[i]);
  CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(SlotsOfDir(image, builder.DirectoryClusters(from).front()), source);
  EXPECT_EQ(SlotsOfDir(image, builder.DirectoryClusters(to).front()), target);
}

TEST_P(FatDirectoryFixedRoot, NoRoomInTheTarget_MoveChangesNothing) {
  CImageBuilder builder(Small(Bits(), 16));
  const DIRECTORY from = builder.AddDir(CImageBuilder::Root(), "FROM");
  builder.Append(from, ForeignSet());
  for (int i = 0; i < 13; ++i) builder.AddFile(CImageBuilder::Root(), "F" + std::to_string(i));
  MountBuilt(builder);
  CFatDir* dir = Open("FROM");
  DENTCTX* record = dir->LookupFile(CPath("Moving file.txt"));
  EXPECT_EQ(dir->MoveDirEntsIntoAnother(record, Root()), STATUS_DISK_FULL);
  EXPECT_EQ(dir->LookupFile(CPath("Moving file.txt")), record);
  EXPECT_EQ(SlotsOf(*dir), builder.Entries(from));
  EXPECT_EQ(SlotsOf(*Root()), SlotsOfRoot(builder.Store()));
  EXPECT_EQ(Root()->DirEntCache()->FreeSlots(), 2u);
}

TEST_P(FatDirectoryWidths, ReadOrWriteOfAMoveFails_TargetSlotsStayTakenAndTheSourceIsWhole) {
  for (const bool readFails : {true, false}) {
    CImageBuilder builder(Small(Bits()));
    const DIRECTORY from = builder.AddDir(CImageBuilder::Root(), "FROM");
    const DIRECTORY to = builder.AddDir(CImageBuilder::Root(), "TO");
    builder.Append(from, ForeignSet());
    MountBuilt(builder);
    CFatDir* fromDir = Open("FROM");
    CFatDir* toDir = Open("TO");
    EvictAllBlocks();
    const DIRECTORY failing = readFails ? from : to;
    Medium().FailRange(static_cast<long long>(builder.ClusterOffset(builder.DirectoryClusters(failing).front())), 512);
    DENTCTX* record = fromDir->LookupFile(CPath("Moving file.txt"));
    EXPECT_EQ(fromDir->MoveDirEntsIntoAnother(record, toDir), STATUS_IO_ERROR);
    EXPECT_TRUE(Medium().Fired());
    Medium().Heal();
    EXPECT_EQ(fromDir->LookupFile(CPath("Moving file.txt")), record);
    EXPECT_EQ(record->nShortIdx, 4u);
    EXPECT_EQ(SlotsOf(*fromDir), builder.Entries(from));
    EXPECT_EQ(SlotsOf(*toDir), builder.Entries(to));
    EXPECT_EQ(toDir->DirEntCache()->FreeSlots(), 11u);
    EXPECT_EQ(toDir->LookupFile(CPath("Moving file.txt")), nullptr);
    (void)UnmountBuilt();
  }
}

// ---- ".."

TEST_P(FatDirectoryWidths, DotDotOfAMovedDirectory_IsRewrittenStraightOnTheMedium) {
  CImageBuilder builder(Small(Bits()));
  const DIRECTORY d = builder.AddDir(CImageBuilder::Root(), "D");
  const DIRECTORY parent = builder.AddDir(CImageBuilder::Root(), "P");
  builder.AddFile(d, "INSIDE");
  SLOTS expected = builder.Entries(d);
  MountBuilt(builder);
  DENTCTX* moved = Root()->LookupFile(CPath("D"));
  CFatDir* newParent = Open("P");
  Medium().ClearTrace();
  ASSERT_GE(CFatDir::UpdateDotDotDirEnt(Fs(), moved, newParent), 0);
  const long long at = static_cast<long long>(builder.ClusterOffset(builder.DirectoryClusters(d).front()));
  EXPECT_EQ(Medium().Trace(),
            (std::vector<IO_RECORD>{{IO_KIND::ReadBytes, at, 64, 0}, {IO_KIND::WriteBytes, at, 64, 0}}))
      << Medium().TraceText();
  expected[1] = NewEntry("..         ", 0x10, builder.DirectoryClusters(parent).front(), 0, 0x5A21, 0x6000);
  EXPECT_EQ(SlotsOfDir(Medium().Image(), builder.DirectoryClusters(d).front()), expected);
}

TEST_P(FatDirectoryWidths, DotDotOfADirectoryMovedIntoTheRoot_HoldsTheRootsOwnCluster) {
  CImageBuilder builder(Small(Bits()));
  const DIRECTORY p = builder.AddDir(CImageBuilder::Root(), "P");
  const DIRECTORY d = builder.AddDir(p, "D");
  MountBuilt(builder);
  DENTCTX* moved = Open("P")->LookupFile(CPath("D"));
  ASSERT_GE(CFatDir::UpdateDotDotDirEnt(Fs(), moved, Root()), 0);
  const std::uint32_t expected = Bits() == 32 ? builder.Geometry().RootCluster : 0xFFFFFFFF;
  EXPECT_EQ(SlotsOfDir(Medium().Image(), builder.DirectoryClusters(d).front())[1],
            NewEntry("..         ", 0x10, expected, 0, 0x5A21, 0x6000));
}

TEST_P(FatDirectoryWidths, DotDotOfAFile_IsNothingToDo) {
  CImageBuilder builder(Small(Bits()));
  builder.AddFile(CImageBuilder::Root(), "F", CImageBuilder::Pattern(100, 1));
  MountBuilt(builder);
  EXPECT_EQ(CFatDir::UpdateDotDotDirEnt(Fs(), Root()->LookupFile(CPath("F")), Root()), STATUS_SUCCESS);
  EXPECT_EQ(Medium().Transfers(), 0u);
}

TEST_P(FatDirectoryWidths, DotDotOfADirectoryWithoutAClusterOfTheVolume_IsCorruptAndNothingIsTransferred) {
  const std::uint32_t clusters = Small(Bits()).Clusters;
  for (const std::uint32_t cluster : {0u, 1u, clusters + 2, 0x10000u + clusters, 0xFFFFFFFFu}) {
    CImageBuilder builder(Small(Bits()));
    ENTRY_OPTIONS options;
    options.Attributes = 0x10;
    options.SetFirstCluster = true;
    options.FirstCluster = cluster;
    builder.AddFile(CImageBuilder::Root(), "D", {}, {}, options);
    MountBuilt(builder);
    EXPECT_EQ(CFatDir::UpdateDotDotDirEnt(Fs(), Root()->LookupFile(CPath("D")), Root()), STATUS_DISK_CORRUPT)
        << cluster;
    EXPECT_EQ(Medium().Transfers(), 0u) << cluster;
    (void)UnmountBuilt();
  }
}

TEST_P(FatDirectoryWidths, TransferOfDotDotFails_StatusIsReported) {
  CImageBuilder builder(Small(Bits()));
  builder.AddDir(CImageBuilder::Root(), "D");
  for (const IO_FILTER filter : {IO_FILTER::Reads, IO_FILTER::Writes}) {
    MountBuilt(builder);
    Medium().FailAt(1, FAULT_ONCE, filter);
    EXPECT_EQ(CFatDir::UpdateDotDotDirEnt(Fs(), Root()->LookupFile(CPath("D")), Root()), STATUS_IO_ERROR);
    EXPECT_EQ(Medium().Image(), builder.Image());
    (void)UnmountBuilt();
  }
}

// ------------------------------------------------------------------------------------------------ memory and failures

namespace {

/// A change of a volume of which every step may fail. The volume has files that it must not touch.
struct CHANGE {
  const char* Name;
  std::function<bool()> Run;
  const char* Made;  // path that exists afterwards, or null
  const char* Gone;  // path that does not
};

const std::vector<CHANGE>& Changes() {
  static const std::vector<CHANGE> s_Changes = {
      {"CreateFile", [] { return CreateFile("FULL\\INNER\\a new file with a long name") >= 0; },
       "FULL\\INNER\\a new file with a long name", nullptr},
      {"CreateShortFile", [] { return CreateFile("FULL\\INNER\\NEW.TXT") >= 0; }, "FULL\\INNER\\NEW.TXT", nullptr},
      {"CreateDir", [] { return CreateDir("FULL\\INNER\\new directory"); }, "FULL\\INNER\\new directory", nullptr},
      {"CreateDirs", [] { return CreateDir("FULL\\INNER\\X\\Y"); }, "FULL\\INNER\\X\\Y", nullptr},
      {"Delete", [] { return Fat_DeleteFile(CPath("FULL\\INNER\\victim of changes")) == 1; }, nullptr,
       "FULL\\INNER\\victim of changes"},
      {"Rename", [] { return Fat_RenameFile(CPath("FULL\\INNER\\victim of changes"), CPath(LongName(100))) == 1; },
       nullptr, "FULL\\INNER\\victim of changes"},
      {"MoveFile", [] { return Fat_MoveFile(CPath("victim from the root"), CPath("FULL\\INNER")) == 1; },
       "FULL\\INNER\\victim from the root", "victim from the root"},
      {"MoveDir", [] { return Fat_MoveFile(CPath("FULL\\MOVED"), CPath("FULL\\INNER")) == 1; }, "FULL\\INNER\\MOVED",
       "FULL\\MOVED"},
  };
  return s_Changes;
}

class FatDirectoryFailures : public CDirectoryFixture,
                             public ::testing::WithParamInterface<std::tuple<unsigned int, std::size_t>> {
 protected:
  unsigned int Bits() const { return std::get<0>(GetParam()); }
  const CHANGE& Change() const { return Changes()[std::get<1>(GetParam())]; }

  void Build(CImageBuilder& builder) {
    builder.AddFile(CImageBuilder::Root(), "victim from the root", CImageBuilder::Pattern(1200, 7));
    const DIRECTORY full = builder.AddDir(CImageBuilder::Root(), "FULL");
    const DIRECTORY inner = builder.AddDir(full, "INNER");
    builder.AddDir(full, "MOVED");
    builder.AddFile(inner, "victim of changes", CImageBuilder::Pattern(1000, 8));
    for (int i = 0; i < 11; ++i) {
      builder.AddFile(inner, "KEEP" + std::to_string(i),
                      CImageBuilder::Pattern(600, 100 + static_cast<unsigned int>(i)));
    }
  }
  void ExpectUntouchedFiles(const CVolumeReader& reader) {
    for (int i = 0; i < 11; ++i) {
      const VOLUME_NODE* node = reader.Find("FULL\\INNER\\KEEP" + std::to_string(i));
      ASSERT_NE(node, nullptr) << i;
      EXPECT_EQ(reader.Content(*node), CImageBuilder::Pattern(600, 100 + static_cast<unsigned int>(i)));
    }
  }
};

std::string ChangeName(const ::testing::TestParamInfo<std::tuple<unsigned int, std::size_t>>& test) {
  return std::string(Changes()[std::get<1>(test.param)].Name) + "Fat" + std::to_string(std::get<0>(test.param));
}
INSTANTIATE_TEST_SUITE_P(Changes, FatDirectoryFailures,
                         ::testing::Combine(::testing::Values(12u, 16u, 32u), ::testing::Range<std::size_t>(0, 8)),
                         ChangeName);

}  // namespace

// One allocation after the other fails once; the change is then made again, and nothing shows that it had failed.
TEST_P(FatDirectoryFailures, AnyAllocationFails_ChangeCanBeMadeAgainAndNothingIsLost) {
  CImageBuilder builder(Small(Bits()));
  Build(builder);
  unsigned int failAt = 1;
  for (bool fired = true; fired; ++failAt) {
    SCOPED_TRACE(failAt);
    MountBuilt(builder);
    Memory().FailAt(failAt, CMemHooks::ONCE);
    bool done = Change().Run();
    fired = Memory().Fired();
    Memory().Heal();
    ASSERT_TRUE(done || fired);
    if (!done) done = Change().Run();
    EXPECT_TRUE(done) << "the second time";
    CDiskImage& image = UnmountBuilt();
    const CVolumeReader reader(image);
    EXPECT_EQ(reader.ProblemText(), "");
    EXPECT_EQ(reader.LostClusters(), CLUSTERS{});
    ASSERT_NO_FATAL_FAILURE(ExpectUntouchedFiles(reader));
    if (Change().Made != nullptr) {
      EXPECT_NE(reader.Find(Change().Made), nullptr);
    }
    if (Change().Gone != nullptr) {
      EXPECT_EQ(reader.Find(Change().Gone), nullptr);
    }
  }
  EXPECT_GT(failAt, 3u);
}

TEST_P(FatDirectoryFailures, NoAllocationSucceedsAnyMore_ChangeFailsCleanly) {
  CImageBuilder builder(Small(Bits()));
  Build(builder);
  unsigned int failAt = 1;
  for (bool fired = true; fired; ++failAt) {
    SCOPED_TRACE(failAt);
    MountBuilt(builder);
    Memory().FailAt(failAt, CMemHooks::FOR_GOOD);
    (void)Change().Run();
    fired = Memory().Fired();
    Memory().Heal();
    CDiskImage& image = UnmountBuilt();
    ASSERT_NO_FATAL_FAILURE(ExpectUntouchedFiles(CVolumeReader(image)));
  }
}

// Nothing is cached, and one transfer after the other fails, once or from then on.
TEST_P(FatDirectoryFailures, AnyTransferFails_FilesNotTouchedByTheChangeStay) {
  CImageBuilder builder(Small(Bits()));
  Build(builder);
  for (const FAULT_DURATION duration : {FAULT_ONCE, FAULT_FOR_GOOD}) {
    unsigned int failAt = 1;
    for (bool fired = true; fired; ++failAt) {
      SCOPED_TRACE(failAt);
      MountBuilt(builder);
      EvictAllBlocks();
      Medium().FailAt(failAt, duration);
      const bool done = Change().Run();
      fired = Medium().Fired();
      EXPECT_TRUE(done || fired);
      Medium().Heal();
      const bool again = Exists("FULL\\INNER\\KEEP3");
      EXPECT_TRUE(again) << "later calls answer";
      CDiskImage& image = UnmountBuilt();
      ASSERT_NO_FATAL_FAILURE(ExpectUntouchedFiles(CVolumeReader(image)));
    }
    EXPECT_GT(failAt, 3u);
  }
}

TEST_P(FatDirectoryFailures, AnyTransferOfTheUnmountFails_NothingCrashes) {
  CImageBuilder builder(Small(Bits()));
  Build(builder);
  unsigned int failAt = 1;
  for (bool fired = true; fired; ++failAt) {
    SCOPED_TRACE(failAt);
    MountBuilt(builder);
    ASSERT_TRUE(Change().Run());
    Medium().FailAt(failAt, FAULT_ONCE);
    (void)Unmount(Fs());
    fired = Medium().Fired();
    Medium().Heal();
    CVolumeReader reader(Medium().Image());
    EXPECT_NE(reader.Clusters(), 0u);
  }
}
