/// @file FatDirectoryEffectsTest.cpp
/// What changes of a directory look like from outside: the exact bytes of new entries, the transfers that reach the
/// medium and their order, and entry sets that lie across two cached blocks.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "directory/DirectoryFixture.h"
#include "directory/FatDirectory.h"

namespace {

using NAMES = std::vector<std::string>;
using TRACE = std::vector<IO_RECORD>;
using DIRECTORY = CImageBuilder::DIRECTORY;

constexpr unsigned int BLOCK_SLOTS = 0x40000 / 32;

class FatDirectoryEffects : public CDirectoryFixture {
 protected:
  static bool CreateFile(const std::string& path, unsigned int size = 0) {
    const int handle = Fat_CreateFile(CPath(path), size, 0x20);
    return handle >= 0 && Fat_CloseFile(handle) == 1;
  }
  /// A directory with raw slots in the root of a volume that is being built.
  static DIRECTORY AddRawDir(CImageBuilder& builder, const std::string& name, const SLOTS& slots) {
    const DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), name);
    builder.SetNextSlot(dir, 0);
    builder.Append(dir, slots);
    return dir;
  }
  static std::uint32_t FirstClusterOf(const CImageBuilder& builder, DIRECTORY dir) {
    return builder.DirectoryClusters(dir).front();
  }
  static long long OffsetOf(const CImageBuilder& builder, DIRECTORY dir) {
    return static_cast<long long>(builder.ClusterOffset(FirstClusterOf(builder, dir)));
  }
};

class FatDirectoryEffectsWidths : public FatDirectoryEffects, public ::testing::WithParamInterface<unsigned int> {
 protected:
  unsigned int Bits() const { return GetParam(); }
};
std::string WidthName(const ::testing::TestParamInfo<unsigned int>& test) { return "Fat" + std::to_string(test.param); }
INSTANTIATE_TEST_SUITE_P(Widths, FatDirectoryEffectsWidths, ::testing::Values(12u, 16u, 32u), WidthName);

RAW_ENTRY Raw(const CDirEnt& entry) {
  RAW_ENTRY raw;
  std::copy_n(reinterpret_cast<const unsigned char*>(&entry), raw.size(), raw.begin());
  return raw;
}

}  // namespace

// ------------------------------------------------------------------------------------------------ bytes of new entries

// Every field of the directory's own entry is different from zero, so that each one copied or left out shows.
TEST_P(FatDirectoryEffectsWidths, DotEntries_TakeTheTimesAndTheClusterOfTheDirectoryAndNothingElse) {
  MountEmpty(Small(Bits()));
  ASSERT_EQ(Fat_CreateDir(CPath("D"), 0), 1u);
  CFatDir* dir = Open("D");
  ASSERT_NE(dir, nullptr);
  const CDirEnt saved = *dir->Info();
  RAW_ENTRY own;
  for (std::size_t i = 0; i < own.size(); ++i) own[i] = static_cast<unsigned char>(0xA0 + i);
  std::copy(own.begin(), own.end(), reinterpret_cast<unsigned char*>(dir->Info()));
  CDirEnt dot;
  CDirEnt dotdot;
  dir->ConstructDotDirEnt(&dot, &dotdot, 0x12345678);
  *dir->Info() = saved;

  RAW_ENTRY expected{};
  std::fill_n(expected.begin(), 11, static_cast<unsigned char>(' '));
  expected[0] = '.';
  expected[11] = 0x10;
  for (const std::size_t at : {13u, 14u, 15u, 16u, 17u, 18u, 19u, 22u, 23u, 24u, 25u}) expected[at] = own[at];
  RAW_ENTRY expectedDotDot = expected;
  for (const std::size_t at : {20u, 21u, 26u, 27u}) expected[at] = own[at];
  EXPECT_EQ(Raw(dot), expected);
  expectedDotDot[1] = '.';
  expectedDotDot[20] = 0x34;
  expectedDotDot[21] = 0x12;
  expectedDotDot[26] = 0x78;
  expectedDotDot[27] = 0x56;
  EXPECT_EQ(Raw(dotdot), expectedDotDot);
}

// Written out byte by byte: 14 units are two pieces, the last one first.
TEST_F(FatDirectoryEffects, NameOf14Units_IsOneUnitATerminatorAndElevenFillersThenThirteenUnits) {
  MountEmpty(Small(16));
  const unsigned int number = NextNumber();
  ASSERT_TRUE(CreateFile("abcdefghijk.mn"));
  const RAW_ENTRY entry = NewEntry(Invented("ABCDEFG", number, "MN"));
  unsigned int checksum = 0;
  for (std::size_t i = 0; i < 11; ++i) checksum = ((checksum % 2 * 128 + checksum / 2) + entry[i]) % 256;
  const auto sum = static_cast<unsigned char>(checksum);
  const RAW_ENTRY last = {0x42, 'n',  0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                          0x0F, 0,    sum,  0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                          0xFF, 0xFF, 0xFF, 0xFF, 0,    0,    0xFF, 0xFF, 0xFF, 0xFF};
  const RAW_ENTRY first = {0x01, 'a', 0,   'b', 0,   'c', 0,   'd', 0,   'e', 0, 0x0F, 0,   sum, 'f', 0,
                           'g',  0,   'h', 0,   'i', 0,   'j', 0,   'k', 0,   0, 0,    '.', 0,   'm', 0};
  EXPECT_EQ(SlotsOfRoot(UnmountBuilt()), Padded({last, first, entry}, 512));
}

TEST_F(FatDirectoryEffects, NameOf13Units_IsOnePieceWithoutTerminatorAndFillers) {
  MountEmpty(Small(16));
  const unsigned int number = NextNumber();
  ASSERT_TRUE(CreateFile("abcdefghijk.m"));
  const RAW_ENTRY entry = NewEntry(Invented("ABCDEFG", number, "M"));
  const unsigned char sum = CImageBuilder::Checksum(CImageBuilder::ShortName11(Invented("ABCDEFG", number, "M")));
  const RAW_ENTRY piece = {0x41, 'a', 0,   'b', 0,   'c', 0,   'd', 0,   'e', 0, 0x0F, 0,   sum, 'f', 0,
                           'g',  0,   'h', 0,   'i', 0,   'j', 0,   'k', 0,   0, 0,    '.', 0,   'm', 0};
  EXPECT_EQ(SlotsOfRoot(UnmountBuilt()), Padded({piece, entry}, 512));
}

// The number behind the "~" belongs to the process, not to a volume.
TEST_F(FatDirectoryEffects, CounterOfInventedNames_GoesOnOverUnmountAndInitialisation) {
  MountEmpty(Small(16));
  const unsigned int number = NextNumber();
  ASSERT_TRUE(CreateFile("first long name"));
  (void)UnmountBuilt();
  SetCurrentFileSystem(nullptr);
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  Fat_LibInitialize();
  MountEmpty(Small(32));
  ASSERT_TRUE(CreateFile("second long name"));
  const unsigned int next = number % 99999 + 1;
  EXPECT_EQ(SlotsOf(*Root())[2], NewEntry(Invented("SECOND", next)));
}

TEST_F(FatDirectoryEffects, NoRoomForASet_TheNumberOfItsInventedNameIsUsedUp) {
  CImageBuilder builder(Small(16, 16));
  for (int i = 0; i < 15; ++i) builder.AddFile(CImageBuilder::Root(), "F" + std::to_string(i));
  MountBuilt(builder);
  const unsigned int number = NextNumber();
  EXPECT_FALSE(CreateFile("a long name"));
  EXPECT_EQ(NextNumber(), (number + 1) % 99999 + 1);
}

// ------------------------------------------------------------------------------------------------ transfers

// The cluster is never read: its block is made in memory, and written as far as the cluster goes when it is evicted.
TEST_P(FatDirectoryEffectsWidths, NewDirectory_ReachesTheMediumWhenItsBlockIsEvicted) {
  CImageBuilder builder(Small(Bits()));
  const std::uint32_t cluster = Bits() == 32 ? 3 : 2;
  builder.Store().Fill(builder.ClusterOffset(cluster), 512, 0xEE);
  MountBuilt(builder);
  EvictAllBlocks();
  Medium().ClearTrace();
  ASSERT_EQ(Fat_CreateDir(CPath("D"), 0), 1u);
  const long long root = static_cast<long long>(builder.RootOffset());
  const long long own = static_cast<long long>(builder.ClusterOffset(cluster));
  const unsigned int rootBytes = builder.SlotCount(CImageBuilder::Root()) * 32;
  EXPECT_EQ(Medium().Trace(), (TRACE{{IO_KIND::ReadBytes, root, rootBytes, 0}})) << "the parent's block, for its entry";
  Medium().ClearTrace();
  EvictAllBlocks();
  EXPECT_EQ(Medium().Trace(), (TRACE{{IO_KIND::WriteBytes, root, rootBytes, 0}, {IO_KIND::WriteBytes, own, 512, 0}}))
      << Medium().TraceText();
  const SLOTS dots = {NewEntry(".          ", 0x10, cluster), NewEntry("..         ", 0x10, 0)};
  EXPECT_EQ(SlotsOfDir(Medium().Image(), cluster), Padded(dots, 16));
}

TEST_P(FatDirectoryEffectsWidths, ObjectsOfNewFilesAndDirectories_HaveOneReferenceAndNoPath) {
  MountEmpty(Small(Bits()));
  CFatFile* file = nullptr;
  ASSERT_EQ(Root()->CreateNewFile(CPath("a file"), 0x37, 700, &file), STATUS_SUCCESS);
  Hold(file);
  EXPECT_EQ(file->RefCount(), 1u);
  EXPECT_EQ(file->PathIndexName(), nullptr);
  EXPECT_EQ(file->DirEntCache(), nullptr);
  EXPECT_EQ(file->Size(), 700u);
  EXPECT_EQ(file->AllocBytes(), 1024u);
  EXPECT_EQ(file->Info()->Attribute, 0x27) << "never a directory";
  EXPECT_EQ(Raw(*file->Info()), SlotsOf(*Root())[1]);
  CFatDir* dir = nullptr;
  ASSERT_EQ(Root()->CreateSubDir(CPath("DIR"), 0x03, &dir), STATUS_SUCCESS);
  Hold(dir);
  EXPECT_EQ(dir->RefCount(), 1u);
  EXPECT_EQ(dir->PathIndexName(), nullptr);
  EXPECT_EQ(dir->Size(), 0u);
  EXPECT_EQ(dir->AllocBytes(), 512u);
  EXPECT_EQ(dir->Info()->Attribute, 0x13);
  EXPECT_EQ(dir->DirEntCache()->Slots(), 16u);
  EXPECT_EQ(dir->DirEntCache()->FreeSlots(), 14u);
  EXPECT_EQ(NamesOf(*dir), (NAMES{".          ", "..         "}));
}

// Growing also rewrites the directory's own entry, in its parent's cached block, although nothing of it has changed.
TEST_P(FatDirectoryEffectsWidths, GrowthOfADirectory_MakesItsParentsBlockDirtyToo) {
  CImageBuilder builder(Small(Bits()));
  const DIRECTORY outer = builder.AddDir(CImageBuilder::Root(), "OUTER");
  const DIRECTORY inner = builder.AddDir(outer, "INNER");
  for (int i = 0; i < 14; ++i) builder.AddFile(inner, "F" + std::to_string(i));
  const SLOTS outerBefore = builder.Entries(outer);
  MountBuilt(builder);
  ASSERT_TRUE(CreateFile("OUTER\\INNER\\NEW"));
  Medium().ClearTrace();
  EvictAllBlocks();
  TRACE writes = Medium().WriteTrace();
  ASSERT_EQ(writes.size(), 2u) << Medium().TraceText();
  std::sort(writes.begin(), writes.end(), [](const IO_RECORD& a, const IO_RECORD& b) { return a.Offset < b.Offset; });
  EXPECT_EQ(writes[0], (IO_RECORD{IO_KIND::WriteBytes, OffsetOf(builder, outer), 512, 0}));
  // Two clusters that lie together are one run: one aligned transfer.
  EXPECT_EQ(writes[1], (IO_RECORD{IO_KIND::WriteBytesAligned, OffsetOf(builder, inner), 1024, 0}));
  EXPECT_EQ(SlotsOfDir(Medium().Image(), FirstClusterOf(builder, outer)), outerBefore);
}

TEST_P(FatDirectoryEffectsWidths, DirectoryWithoutClusters_GetsItsFirstOneIntoItsEntry) {
  CImageBuilder builder(Small(Bits()));
  ENTRY_OPTIONS options;
  options.Attributes = 0x10;
  builder.AddFile(CImageBuilder::Root(), "D", {}, {}, options);
  MountBuilt(builder);
  CFatDir* dir = Open("D");
  ASSERT_NE(dir, nullptr);
  EXPECT_EQ(dir->DirEntCache()->Slots(), 0u);
  unsigned int first = 77;
  ASSERT_EQ(dir->AllocDirEntsByBitmap(3, &first), STATUS_SUCCESS);
  EXPECT_EQ(first, 0u);
  EXPECT_EQ(dir->AllocBytes(), 512u);
  const std::uint32_t cluster = Bits() == 32 ? 3 : 2;
  EXPECT_EQ(dir->FirstCluster(), cluster);
  EXPECT_EQ(SlotsOf(*Root())[0], NewEntry("D          ", 0x10, cluster, 0, 0x5A21, 0x6000));
}

// Shrinking leaves the map of used slots as it is: what it calls free may lie behind the end.
TEST_P(FatDirectoryEffectsWidths, FreeSlotsBehindTheEndOfAShrunkDirectory_TakeASetThatCannotBeWritten) {
  CImageBuilder builder(Small(Bits()));
  builder.AddDir(CImageBuilder::Root(), "D", {40});
  MountBuilt(builder);
  CFatDir* dir = Open("D");
  ASSERT_NE(dir, nullptr);
  ASSERT_EQ(dir->SetSize(0, nullptr, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(dir->DirEntCache()->Slots(), 16u);
  DENTCTX* record = nullptr;
  EXPECT_EQ(dir->CreateNewDirEnts(CPath("NEW"), 0x20, 0, 0, record), STATUS_END_OF_FILE);
  EXPECT_EQ(record->nShortIdx, 2u);
  EXPECT_EQ(dir->LookupFile(CPath("NEW")), record);
  EXPECT_EQ(dir->AllocBytes(), 0u);
}

TEST_P(FatDirectoryEffectsWidths, ParentsEntryCannotBeWrittenWhenADirectoryGrows_CreationFailsAndALaterOneFits) {
  CImageBuilder builder(Small(Bits()));
  const DIRECTORY outer = builder.AddDir(CImageBuilder::Root(), "OUTER");
  const DIRECTORY inner = builder.AddDir(outer, "INNER");
  for (int i = 0; i < 14; ++i) builder.AddFile(inner, "F" + std::to_string(i));
  MountBuilt(builder);
  CFatDir* dir = Open("OUTER\\INNER");
  ASSERT_NE(dir, nullptr);
  EvictAllBlocks();
  Medium().FailRange(OffsetOf(builder, outer), 512);
  DENTCTX* record = nullptr;
  EXPECT_EQ(dir->CreateNewDirEnts(CPath("NEW"), 0x20, 0, 0, record), STATUS_IO_ERROR);
  EXPECT_EQ(dir->LookupFile(CPath("NEW")), nullptr);
  Medium().Heal();
  EXPECT_EQ(dir->CreateNewDirEnts(CPath("NEW"), 0x20, 0, 0, record), STATUS_SUCCESS);
  EXPECT_EQ(dir->AllocBytes(), 1024u) << "the cluster of the first try is there";
  EXPECT_EQ(record->nShortIdx, 16u);
  CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(CVolumeReader(image).ProblemText(), "");
  EXPECT_EQ(CVolumeReader(image).LostClusters(), CLUSTERS{});
}

// ------------------------------------------------------------------------------------------------ changes

TEST_P(FatDirectoryEffectsWidths, RenamedDirectory_StaysADirectoryWithItsCluster) {
  CImageBuilder builder(Small(Bits()));
  ENTRY_OPTIONS options;
  options.Attributes = 0x06;
  const DIRECTORY d = builder.AddDir(CImageBuilder::Root(), "D", {40, 60}, options);
  builder.AddFile(d, "INSIDE", CImageBuilder::Pattern(100, 1));
  const SLOTS inside = builder.Entries(d);
  MountBuilt(builder);
  const unsigned int number = NextNumber();
  DENTCTX* record = Root()->LookupFile(CPath("D"));
  CFatFile* object = ObjectFor(record);
  ASSERT_EQ(Root()->RenameFile(object, record, CPath("new name")), STATUS_SUCCESS);
  const SLOTS set = NewSet("new name", NewEntry(Invented("NEWNAME", number), 0x16, 40));
  EXPECT_EQ(Raw(*object->Info()), set[1]) << "the object has the whole new entry";
  EXPECT_EQ(NamesOf(*Root()), NAMES{"new name"});
  CDiskImage& image = UnmountBuilt();
  const SLOTS slots = SlotsOfRoot(image);
  // One slot was freed at the front, but two in a row are free only behind it: together with it.
  EXPECT_EQ(slots, Padded(set, slots.size()));
  EXPECT_EQ(SlotsOfDir(image, 40), inside) << "its own entries are not touched";
  EXPECT_EQ(CVolumeReader(image).ProblemText(), "");
}

// The first bytes that the last deletion saved, of whatever directory, are what is put back.
TEST_F(FatDirectoryEffects, SlotsRestoredAfterAnotherDeletion_GetThatOnesFirstBytes) {
  CImageBuilder builder(Small(16));
  const DIRECTORY d = builder.AddDir(CImageBuilder::Root(), "D");
  builder.AddFile(CImageBuilder::Root(), "XYZ");
  builder.AddFile(d, "QRS");
  MountBuilt(builder);
  CFatDir* dir = Open("D");
  ASSERT_EQ(Root()->DeleteDirEnts(1, 1), STATUS_SUCCESS);
  ASSERT_EQ(dir->DeleteDirEnts(2, 1), STATUS_SUCCESS);
  ASSERT_EQ(Root()->RestoreDelDirEnts(1, 1), STATUS_SUCCESS);
  RAW_ENTRY expected = builder.Entry(CImageBuilder::Root(), 1);
  expected[0] = 'Q';
  EXPECT_EQ(SlotsOf(*Root())[1], expected);
  EXPECT_TRUE(UsedSlots(*Root())[1]);
  EXPECT_EQ(SlotsOf(*dir)[2], Deleted(builder.Entry(d, 2)));
}

TEST_P(FatDirectoryEffectsWidths, MoveIntoAFullDirectory_GrowsIt) {
  CImageBuilder builder(Small(Bits()));
  const DIRECTORY to = builder.AddDir(CImageBuilder::Root(), "TO");
  for (int i = 0; i < 14; ++i) builder.AddFile(to, "F" + std::to_string(i));
  const DIRECTORY from = builder.AddDir(CImageBuilder::Root(), "FROM");
  builder.AddFile(from, "moving file", CImageBuilder::Pattern(600, 3));
  const SLOTS set = {builder.Entry(from, 2), builder.Entry(from, 3)};
  MountBuilt(builder);
  CFatDir* target = Open("TO");
  CFatDir* source = Open("FROM");
  DENTCTX* record = source->LookupFile(CPath("moving file"));
  ASSERT_GE(source->MoveDirEntsIntoAnother(record, target), 0);
  EXPECT_EQ(target->AllocBytes(), 1024u);
  EXPECT_EQ(record->nShortIdx, 17u);
  EXPECT_EQ(SlotsOf(*target)[16], set[0]);
  EXPECT_EQ(SlotsOf(*target)[17], set[1]);
  CDiskImage& image = UnmountBuilt();
  EXPECT_EQ(CVolumeReader(image).ProblemText(), "");
  EXPECT_EQ(CVolumeReader(image).LostClusters(), CLUSTERS{});
}

// Once the gap is large enough nothing more is moved: the runs behind it stay, and so does the free slot between them.
TEST_F(FatDirectoryEffects, GapLargeEnough_LaterSlotsStayWhereTheyAre) {
  CImageBuilder builder(Small(16, 16));
  SLOTS slots;
  for (char c = 'A'; c < 'Q'; ++c) slots += NewEntry(std::string(1, c) + "          ");
  for (const std::size_t free : {1u, 3u, 6u, 9u}) slots[free] = Deleted(slots[free]);
  builder.Append(CImageBuilder::Root(), slots);
  MountBuilt(builder);
  unsigned int first = 0;
  ASSERT_EQ(Root()->AllocDirEntsByBitmap(2, &first), STATUS_SUCCESS);
  EXPECT_EQ(first, 2u);
  SLOTS expected = slots;
  expected[1] = slots[2];  // slot 2 keeps its stale copy until the new set goes over it
  EXPECT_EQ(SlotsOf(*Root()), expected);
  std::vector<bool> used(16, true);
  used[6] = used[9] = false;
  EXPECT_EQ(UsedSlots(*Root()), used);
}

// Growing a regular file does not add slots to its map, so the free ones may not suffice even when all are gathered.
TEST_F(FatDirectoryEffects, FreeSlotsOfARegularFileDoNotSuffice_CreationFailsOnceTheyAreGathered) {
  CImageBuilder builder(Small(16));
  SLOTS slots;
  for (char c = 'A'; c < 'Q'; ++c) slots += NewEntry(std::string(1, c) + "          ");
  for (const std::size_t free : {4u, 9u}) slots[free] = Deleted(slots[free]);
  BYTES bytes;
  for (const RAW_ENTRY& slot : slots) bytes.insert(bytes.end(), slot.begin(), slot.end());
  builder.AddFile(CImageBuilder::Root(), "F", bytes);
  MountBuilt(builder);
  CFatDir* file = Open("F");
  ASSERT_NE(file, nullptr);
  unsigned int first = 77;
  EXPECT_EQ(file->AllocDirEntsByBitmap(3, &first), STATUS_DISK_FULL);
  EXPECT_EQ(first, 77u);
  EXPECT_EQ(file->Size(), 512u + 32) << "grown by the slot that was missing";
  EXPECT_EQ(file->DirEntCache()->Slots(), 16u);
  // Slots 5 to 8 were slid down before it turned out that there is no free run behind slot 9.
  SLOTS expected = slots;
  std::copy(slots.begin() + 5, slots.begin() + 9, expected.begin() + 4);
  SLOTS now = SlotsOf(*file);
  now.resize(16);
  EXPECT_EQ(now, expected);
  std::vector<bool> used(16, true);
  used[8] = used[9] = false;
  EXPECT_EQ(UsedSlots(*file), used) << "nothing was given out";
  EXPECT_EQ(file->AllocDirEntsByBitmap(2, &first), STATUS_SUCCESS);
  EXPECT_EQ(first, 8u);
}

// The piece to be moved can be read, but the first of the two blocks it goes to cannot be loaded. What goes to the
// other one, which is cached, is written first.
TEST_F(FatDirectoryEffects, WriteFailsInsideACompaction_StatusIsReturnedAndTheMoveIsNotFollowed) {
  CImageBuilder builder(Coarse(16));
  SLOTS slots(BLOCK_SLOTS + 1024, Stray());
  for (unsigned int i = 0; i < slots.size(); ++i) slots[i][3] = static_cast<unsigned char>(i);  // to tell them apart
  slots[BLOCK_SLOTS + 90] = NewEntry("BEHIND     ");
  for (unsigned int slot = BLOCK_SLOTS - 2; slot < BLOCK_SLOTS + 4; ++slot) slots[slot] = Deleted(slots[slot]);
  slots[BLOCK_SLOTS + 100] = Deleted(slots[BLOCK_SLOTS + 100]);
  const DIRECTORY d = AddRawDir(builder, "D", slots);
  MountBuilt(builder);
  CFatDir* dir = Open("D");
  ASSERT_NE(dir, nullptr);
  const std::vector<bool> used = UsedSlots(*dir);
  EvictAllBlocks();
  Medium().FailRange(OffsetOf(builder, d), 512);
  unsigned int first = 77;
  EXPECT_EQ(dir->AllocDirEntsByBitmap(7, &first), STATUS_IO_ERROR);
  EXPECT_TRUE(Medium().Fired());
  Medium().Heal();
  EXPECT_EQ(first, 77u);
  SLOTS expected = slots;
  for (unsigned int i = 0; i < 62; ++i) expected[BLOCK_SLOTS + i] = slots[BLOCK_SLOTS + 6 + i];
  EXPECT_TRUE(SlotsOf(*dir) == expected);
  EXPECT_TRUE(UsedSlots(*dir) == used);
  EXPECT_EQ(dir->LookupFile(CPath("BEHIND"))->nShortIdx, BLOCK_SLOTS + 90);
}

// ------------------------------------------------------------------------------------------------ sets across two
// blocks

namespace {

/// A directory of two blocks with eight free slots around the seam, and nothing cached.
class FatDirectorySeam : public FatDirectoryEffects {
 protected:
  void SetUp() override {
    FatDirectoryEffects::SetUp();
    m_Slots.assign(BLOCK_SLOTS + 1024, Stray());
    for (unsigned int i = 0; i < 8; ++i) m_Slots[SEAM + i] = Deleted(Stray());
    m_Slots[100] = NewEntry("MOVING     ", 0x20, 0, 0, 0x4A21, 0x1234);
    m_Dir = AddRawDir(m_Builder, "D", m_Slots);
    MountBuilt(m_Builder);
    m_pDir = Open("D");
    ASSERT_NE(m_pDir, nullptr);
    EvictAllBlocks();
  }
  void Put(const SLOTS& set) { std::copy(set.begin(), set.end(), m_Slots.begin() + SEAM); }
  SLOTS OnMedium() { return SlotsOfDir(UnmountBuilt(), FirstClusterOf(m_Builder, m_Dir)); }

  static constexpr unsigned int SEAM = BLOCK_SLOTS - 3;
  const std::string m_Name = "a name of seventy-eight units, which are six full pieces and nothing besides!!";
  CImageBuilder m_Builder{Coarse(16)};
  SLOTS m_Slots;
  DIRECTORY m_Dir = 0;
  CFatDir* m_pDir = nullptr;
};

}  // namespace

TEST_F(FatDirectorySeam, NewSet_IsWrittenInBothBlocks) {
  ASSERT_EQ(m_Name.size(), 78u);
  const unsigned int number = NextNumber();
  DENTCTX* record = nullptr;
  ASSERT_EQ(m_pDir->CreateNewDirEnts(CPath(m_Name), 0x20, 5, 0, record), STATUS_SUCCESS);
  EXPECT_EQ(record->FirstSlot(), SEAM);
  Put(NewSet(m_Name, NewEntry(Invented("ANAMEO", number), 0x20, 0, 5)));
  EXPECT_TRUE(OnMedium() == m_Slots);
}

TEST_F(FatDirectorySeam, DeletedAndRestoredSet_IsChangedInBothBlocks) {
  const unsigned int number = NextNumber();
  DENTCTX* record = nullptr;
  ASSERT_EQ(m_pDir->CreateNewDirEnts(CPath(m_Name), 0x20, 5, 0, record), STATUS_SUCCESS);
  EvictAllBlocks();
  ASSERT_EQ(m_pDir->DeleteDirEnts(SEAM, 7), STATUS_SUCCESS);
  EvictAllBlocks();
  SLOTS set = NewSet(m_Name, NewEntry(Invented("ANAMEO", number), 0x20, 0, 5));
  SLOTS deleted = set;
  for (RAW_ENTRY& entry : deleted) entry = Deleted(entry);
  Put(deleted);
  EXPECT_TRUE(SlotsOf(*m_pDir) == m_Slots);
  EvictAllBlocks();
  ASSERT_EQ(m_pDir->RestoreDelDirEnts(SEAM, 7), STATUS_SUCCESS);
  Put(set);
  EXPECT_TRUE(OnMedium() == m_Slots);
}

TEST_F(FatDirectorySeam, SecondBlockCannotBeRead_DeletionChangesNothing) {
  DENTCTX* record = nullptr;
  ASSERT_EQ(m_pDir->CreateNewDirEnts(CPath(m_Name), 0x20, 5, 0, record), STATUS_SUCCESS);
  const SLOTS before = SlotsOf(*m_pDir);
  EvictAllBlocks();
  Medium().FailRange(static_cast<long long>(m_Builder.ClusterOffset(m_Builder.DirectoryClusters(m_Dir)[8])), 1);
  EXPECT_EQ(m_pDir->DeleteDirEnts(SEAM, 7), STATUS_IO_ERROR);
  EXPECT_TRUE(Medium().Fired());
  Medium().Heal();
  EXPECT_TRUE(SlotsOf(*m_pDir) == before);
  EXPECT_TRUE(UsedSlots(*m_pDir)[SEAM]);
}

TEST_F(FatDirectorySeam, SecondBlockCannotBeRead_NewSetIsWrittenInTheFirstOneAndCountsAllTheSame) {
  const unsigned int number = NextNumber();
  Medium().FailRange(static_cast<long long>(m_Builder.ClusterOffset(m_Builder.DirectoryClusters(m_Dir)[8])), 1);
  DENTCTX* record = nullptr;
  EXPECT_EQ(m_pDir->CreateNewDirEnts(CPath(m_Name), 0x20, 5, 0, record), STATUS_IO_ERROR);
  Medium().Heal();
  EXPECT_EQ(m_pDir->LookupFile(CPath(m_Name)), record);
  const SLOTS set = NewSet(m_Name, NewEntry(Invented("ANAMEO", number), 0x20, 0, 5));
  std::copy(set.begin(), set.begin() + 3, m_Slots.begin() + SEAM);
  EXPECT_TRUE(SlotsOf(*m_pDir) == m_Slots);
}
