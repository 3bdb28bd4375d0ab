/// @file DirEntCacheTest.cpp
/// The entries of a directory in memory, held against a second parser that is written here from the description of the
/// format: a plain walk over an array of 32-byte slots, without blocks, without laziness.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "directory/DirEntCache.h"
#include "filesystem/FatFileSystem.h"
#include "names/UpCase.h"
#include "support/LibFixture.h"

namespace {

using SLOTS = std::vector<RAW_ENTRY>;
using BYTES = std::vector<unsigned char>;

constexpr unsigned int BLOCK_SLOTS = 0x40000 / 32;  // slots in one block of the file cache

// ---------------------------------------------------------------------------------------------- the second parser

struct EXPECTED_RECORD {
  RAW_ENTRY Entry;
  unsigned int ShortIdx;
  unsigned int LongCount;
  UTF16 Key;  // up to the first zero unit

  unsigned int FirstSlot() const { return ShortIdx - LongCount; }
};

UTF16 UpToZero(const UTF16& units) { return UTF16(units.begin(), std::find(units.begin(), units.end(), 0)); }

/// The 11 name bytes as five pairs and a last byte.
UTF16 ShortKey(const RAW_ENTRY& entry) {
  UTF16 key;
  for (std::size_t i = 0; i < 10; i += 2) key.push_back(static_cast<unsigned short>(entry[i] + 256 * entry[i + 1]));
  key.push_back(entry[10]);
  return UpToZero(key);
}

UTF16 Upcased(UTF16 text) {
  for (unsigned short& unit : text) unit = gUnicodeUpcase(unit);
  return text;
}

/// Reads slots one after the other until one that was never used, or the end.
class CPlainParser {
 public:
  /// @param allSlots  slots of the directory; those that `slots` does not have count as never used
  CPlainParser(const SLOTS& slots, std::size_t allSlots) : m_Slots(slots), m_Used(allSlots, false) {
    m_Label.fill(' ');
    for (m_i = 0; Fetch();) {
      if (Type() != DELETED && !Examine()) break;
      ++m_i;
    }
  }

  const std::vector<EXPECTED_RECORD>& Records() const { return m_Records; }
  const std::vector<bool>& Used() const { return m_Used; }
  const SHORT_NAME& Label() const { return m_Label; }

 private:
  enum KIND { DELETED, LONG, LABEL, SHORT };

  // False when slot m_i ends the directory. Marks it used.
  bool Fetch() {
    if (m_i >= m_Slots.size() || m_Slots[m_i][0] == 0) return false;
    if (Type() != DELETED) m_Used[m_i] = true;
    return true;
  }

  KIND Type() const {
    const RAW_ENTRY& entry = m_Slots[m_i];
    if (entry[0] == 0xE5) return DELETED;
    if (entry[11] == 0x0F) return LONG;
    return (entry[11] & 0x08) != 0 ? LABEL : SHORT;
  }

  // Copies the units of the piece in slot m_i up to its first zero. @return how many
  unsigned int CopyPiece(std::size_t at) {
    static constexpr std::size_t s_Places[13] = {1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30};
    unsigned int n = 0;
    for (const std::size_t place : s_Places) {
      const unsigned int unit = m_Slots[m_i][place] + 256u * m_Slots[m_i][place + 1];
      if (unit == 0) break;
      m_Name[at + n++] = static_cast<unsigned short>(unit);
    }
    return n;
  }

  static unsigned int Checksum(const RAW_ENTRY& entry) {
    unsigned int sum = 0;
    for (std::size_t i = 0; i < 11; ++i) sum = ((sum >> 1) + (sum % 2 != 0 ? 128 : 0) + entry[i]) % 256;
    return sum;
  }

  // Deals with the entry in slot m_i and those that belong to it. @return false when the directory ended
  bool Examine() {
    for (;;) {
      if (Type() != LONG) {
        AddPlain();
        return true;
      }
      const unsigned int count = m_Slots[m_i][0] & 0x3Fu;
      if ((m_Slots[m_i][0] & 0x40) == 0 || count == 0 || count > 20) return true;
      m_Name.assign(262, 0);
      const unsigned int checksum = m_Slots[m_i][13];
      const unsigned int total = CopyPiece(13 * (count - 1)) + 13 * (count - 1);
      if (total == 0) return true;
      bool broken = false;
      for (unsigned int r = count - 1; r > 0 && !broken;) {
        ++m_i;
        if (!Fetch()) return false;
        if (Type() == DELETED) continue;
        if (Type() != LONG || (m_Slots[m_i][0] & 0x3Fu) != r || m_Slots[m_i][13] != checksum) {
          broken = true;
        } else {
          --r;
          CopyPiece(13 * r);
        }
      }
      if (broken) continue;
      ++m_i;
      if (!Fetch()) return false;
      if (Type() == DELETED) return true;
      if (Type() == LONG) continue;
      if (Type() == SHORT && Checksum(m_Slots[m_i]) == checksum) {
        m_Name.resize(total);
        m_Records.push_back({m_Slots[m_i], m_i, count, UpToZero(m_Name)});
      } else {
        AddPlain();
      }
      return true;
    }
  }

  void AddPlain() {
    if (Type() == LABEL) {
      std::copy_n(m_Slots[m_i].begin(), 11, m_Label.begin());
    } else {
      m_Records.push_back({m_Slots[m_i], m_i, 0, ShortKey(m_Slots[m_i])});
    }
  }

  const SLOTS& m_Slots;
  std::vector<bool> m_Used;
  SHORT_NAME m_Label{};
  std::vector<EXPECTED_RECORD> m_Records;
  unsigned int m_i = 0;
  UTF16 m_Name;
};

// ---------------------------------------------------------------------------------------------- looking at a cache

std::vector<DENTCTX*> Enumerate(CDirEntCache& cache) {
  std::vector<DENTCTX*> records;
  DENTCTX* record = nullptr;
  while (cache.GetDirEntCtxPtr(record)) records.push_back(record);
  EXPECT_EQ(record, nullptr);
  return records;
}

UTF16 KeyOf(const DENTCTX& record) { return UTF16(record.NamePtr(), record.NamePtr() + record.NameChars()); }

RAW_ENTRY RawOf(const DENTCTX& record) {
  RAW_ENTRY raw;
  std::memcpy(raw.data(), &record.ShortEntry, raw.size());
  return raw;
}

std::vector<bool> UsedSlots(CDirEntCache& cache) {
  std::vector<bool> used(cache.Slots(), true);
  unsigned int first = 0;
  EXPECT_EQ(cache.FindFreeSlots(1, first), 0);
  unsigned int start = 0;
  for (unsigned int from = 0; from < used.size(); from = start) {
    const unsigned int length = cache.NextFreeRun(from, start);
    if (length == 0) break;
    for (const unsigned int end = start + length; start < end; ++start) used.at(start) = false;
  }
  return used;
}

/// The records found by name, as positions in the list of records.
void ExpectLookups(CDirEntCache& cache, const std::vector<DENTCTX*>& records) {
  std::map<UTF16, DENTCTX*> firstOfKey;
  for (DENTCTX* record : records) firstOfKey.emplace(Upcased(KeyOf(*record)), record);
  for (DENTCTX* record : records) {
    if (record->NameChars() == 0) continue;
    DENTCTX* const expected = firstOfKey.at(Upcased(KeyOf(*record)));
    ASSERT_EQ(cache.FindByName(record->NamePtr()), expected) << "slot " << record->nShortIdx;
    if (record->nLongCount == 0) {
      ASSERT_EQ(cache.FindByShortName(record->ShortEntry.Name), expected) << "slot " << record->nShortIdx;
    }
  }
}

void ExpectCache(CDirEntCache& cache, const CPlainParser& expected) {
  ASSERT_EQ(cache.Slots(), expected.Used().size());
  const std::vector<DENTCTX*> records = Enumerate(cache);
  ASSERT_EQ(records.size(), expected.Records().size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    const EXPECTED_RECORD& record = expected.Records()[i];
    ASSERT_EQ(records[i]->nShortIdx, record.ShortIdx);
    ASSERT_EQ(records[i]->nLongCount, record.LongCount) << "slot " << record.ShortIdx;
    ASSERT_EQ(records[i]->FirstSlot(), record.FirstSlot()) << "slot " << record.ShortIdx;
    ASSERT_EQ(KeyOf(*records[i]), record.Key) << "slot " << record.ShortIdx;
    ASSERT_EQ(RawOf(*records[i]), record.Entry) << "slot " << record.ShortIdx;
  }
  ASSERT_TRUE(std::equal(expected.Label().begin(), expected.Label().end(), cache.VolumeLabel()));
  ASSERT_EQ(cache.FreeSlots(),
            static_cast<std::size_t>(std::count(expected.Used().begin(), expected.Used().end(), false)));
  ASSERT_EQ(UsedSlots(cache), expected.Used());
  ExpectLookups(cache, records);
}

// ---------------------------------------------------------------------------------------------- making directories

RAW_ENTRY Short(const std::string& eleven, unsigned int attributes = 0x20) {
  return CImageBuilder::ShortEntry(CImageBuilder::ShortName11(eleven), attributes, 0, 0);
}

SLOTS Set(const std::string& name, const std::string& eleven) {
  return CImageBuilder::EntrySet(ToUtf16(name), Short(eleven));
}

RAW_ENTRY Deleted(RAW_ENTRY entry = {}) {
  entry[0] = 0xE5;
  return entry;
}

SLOTS Join(const std::vector<SLOTS>& parts) {
  SLOTS slots;
  for (const SLOTS& part : parts) slots.insert(slots.end(), part.begin(), part.end());
  return slots;
}

CDirEnt EntryOf(const RAW_ENTRY& raw) {
  CDirEnt entry;
  std::memcpy(&entry, raw.data(), raw.size());
  return entry;
}

BYTES BytesOf(const SLOTS& slots) {
  BYTES bytes;
  for (const RAW_ENTRY& slot : slots) bytes.insert(bytes.end(), slot.begin(), slot.end());
  return bytes;
}

/// The slots of a file's bytes; the last one is filled up with zeros.
SLOTS SlotsOf(BYTES bytes) {
  bytes.resize((bytes.size() + 31) / 32 * 32);
  SLOTS slots(bytes.size() / 32);
  for (std::size_t i = 0; i < slots.size(); ++i) std::memcpy(slots[i].data(), bytes.data() + 32 * i, 32);
  return slots;
}

/// Directories as no system writes them, and as every system does.
class CRandomSlots {
 public:
  explicit CRandomSlots(unsigned int seed) : m_Random(seed) {}

  /// At least `count` slots.
  SLOTS Make(std::size_t count) {
    SLOTS slots;
    while (slots.size() < count) {
      const SLOTS piece = Piece();
      slots.insert(slots.end(), piece.begin(), piece.end());
    }
    return slots;
  }
  unsigned int Below(unsigned int n) { return static_cast<unsigned int>(m_Random() % n); }
  /// A complete set of a long name.
  SLOTS ValidSet() { return CImageBuilder::EntrySet(Name(1 + Below(Below(4) == 0 ? 260 : 40)), ShortOnly()); }

 private:
  static constexpr unsigned char LAST = 0x40;

  // From a small alphabet, so that names repeat, also in another case; now and then any unit.
  UTF16 Name(unsigned int units) {
    static constexpr unsigned short s_Units[] = {'a', 'A', 'b', 'B', '.', ' ', 0x430, 0x410, 0xFFFF};
    if (Below(3) == 0) units = 1 + units % 2;
    UTF16 name;
    for (unsigned int i = 0; i < units; ++i) {
      name.push_back(Below(20) == 0 ? static_cast<unsigned short>(1 + Below(0xFFFF)) : s_Units[Below(9)]);
    }
    return name;
  }

  RAW_ENTRY ShortOnly() {
    static constexpr unsigned int s_Attributes[] = {0x20, 0x10, 0x00, 0x07, 0x31, 0xFF & ~0x08u};
    SHORT_NAME name;
    name.fill(' ');
    const unsigned int used = 1 + Below(Below(2) == 0 ? 2 : 11);
    for (unsigned int i = 0; i < used; ++i) name[i] = static_cast<unsigned char>("abAB~1"[Below(6)]);
    if (Below(10) == 0) name[Below(11)] = static_cast<unsigned char>(Below(256));
    if (name[0] == 0 || name[0] == 0xE5) name[0] = 0x05;
    return CImageBuilder::ShortEntry(name, s_Attributes[Below(6)], Below(0x20000), Below(0x7FFFFFFF));
  }

  RAW_ENTRY Label() {
    RAW_ENTRY label = ShortOnly();
    label[11] = static_cast<unsigned char>(Below(2) == 0 ? 0x08 : 0x08 | (0x10 << Below(2)));
    return label;
  }

  RAW_ENTRY Random() {
    RAW_ENTRY entry;
    for (unsigned char& byte : entry) byte = static_cast<unsigned char>(Below(256));
    return entry;
  }

  // Any ordinal, any checksum, any text.
  RAW_ENTRY LongPiece() {
    RAW_ENTRY entry = Random();
    entry[0] = static_cast<unsigned char>(Below(64) | Below(2) << 6);
    if (entry[0] == 0) entry[0] = Below(2) == 0 ? 1 : LAST;
    entry[11] = 0x0F;
    if (Below(2) == 0) entry[1] = entry[2] = 0;
    return entry;
  }

  SLOTS Piece() {
    SLOTS set = ValidSet();
    const std::size_t any = Below(static_cast<unsigned int>(set.size()));
    const std::size_t piece = any + 1 == set.size() ? 0 : any;  // not the short entry
    const auto at = [&set](std::size_t i) { return set.begin() + static_cast<std::ptrdiff_t>(i); };
    switch (Below(19)) {
      case 0:
        return {ShortOnly()};
      case 1:
        return SLOTS(1 + Below(3), Deleted(Random()));
      case 2:
        return {LongPiece()};
      case 3:  // a piece of another run, or a run of another entry
        set[piece][13] = static_cast<unsigned char>(set[piece][13] + 1 + Below(255));
        return set;
      case 4:
        set.back()[Below(8) + 1] ^= 0x01;
        return set;
      case 5:
        set.erase(at(any));
        return set;
      case 6:  // gaps, also right before the short entry
        for (unsigned int n = 1 + Below(3); n > 0; --n)
          set.insert(at(Below(static_cast<unsigned int>(set.size()))), Deleted(Random()));
        return set;
      case 7:
        set.insert(std::prev(set.end()), Deleted(Random()));
        return set;
      case 8: {  // a piece that ends early, perhaps at once
        static constexpr std::size_t s_Places[] = {1, 3, 9, 14, 24, 28, 30};
        const std::size_t place = s_Places[Below(7)];
        set[piece][place] = set[piece][place + 1] = 0;
        return set;
      }
      case 9:
        set.insert(at(any), Label());
        return set;
      case 10:
        set.back() = Label();
        return set;
      case 11:
        return {Label()};
      case 12: {
        RAW_ENTRY entry = Random();
        if (entry[0] == 0) entry[0] = 1;
        return {entry};
      }
      case 13: {  // more pieces than a name may have
        const RAW_ENTRY shortEntry = ShortOnly();
        return CImageBuilder::EntrySet(UTF16(13 * (21 + Below(42)), 'x'), shortEntry);
      }
      case 14:
        set[piece][0] ^= LAST;
        return set;
      case 15:
        set.resize(any + 1);
        return set;
      case 16:
        if (Below(12) != 0) return set;
        set.insert(at(any), RAW_ENTRY{});  // the end; what follows is never seen
        return set;
      default:
        return set;
    }
  }

  std::mt19937 m_Random;
};

FAT_GEOMETRY Geometry(unsigned int bits, unsigned int sectorsPerCluster, unsigned int clusters) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = bits;
  geometry.SectorsPerCluster = sectorsPerCluster;
  geometry.Clusters = clusters;
  return geometry;
}

/// Puts a directory with exactly these slots into the root.
CImageBuilder::DIRECTORY AddRawDir(CImageBuilder& builder, const std::string& name, const SLOTS& slots) {
  const CImageBuilder::DIRECTORY dir = builder.AddDir(CImageBuilder::Root(), name);
  builder.SetNextSlot(dir, 0);
  builder.SetEntry(dir, 1, RAW_ENTRY{});
  builder.SetEntry(dir, 0, RAW_ENTRY{});
  builder.Append(dir, slots);
  return dir;
}

/// A mounted volume, and its objects by path.
class DirEntCacheLoad : public CLibFixture {
 protected:
  void TearDown() override {
    m_Open.clear();
    CLibFixture::TearDown();
  }
  /// The object at a path, held open until Release; null when it cannot be opened.
  CFatDir* Open(CFatFileSystem* fileSystem, const std::string& path) {
    CFatFile* file = nullptr;
    if (fileSystem->OpenFile(CPath(path), &file) < 0) return nullptr;
    m_Open.push_back(file);
    return static_cast<CFatDir*>(file);
  }
  void Release() {
    for (CFatFile* file : m_Open) CFatFileSystem::CloseFile(file);
    m_Open.clear();
  }
  /// The cache of a directory with these slots, and the rest of its last cluster never used.
  CDirEntCache& Load(const SLOTS& slots, const FAT_GEOMETRY& geometry = Geometry(16, 1, 0)) {
    CImageBuilder builder(geometry);
    AddRawDir(builder, "D", slots);
    CFatDir* dir = Open(Mount(BACKEND::Memory, builder.Image()), "D");
    EXPECT_NE(dir, nullptr);
    CDirEntCache* cache = dir == nullptr ? nullptr : dir->DirEntCache();
    Release();
    static CDirEntCache s_None;
    return cache == nullptr ? s_None : *cache;
  }

 private:
  std::vector<CFatFile*> m_Open;
};

std::vector<std::string> NamesOf(CDirEntCache& cache) {
  std::vector<std::string> names;
  for (const DENTCTX* record : Enumerate(cache)) {
    names.push_back(record->nLongCount != 0
                        ? ToUtf8(KeyOf(*record))
                        : std::string(record->ShortEntry.Name, record->ShortEntry.Name + SHORT_NAME_SIZE));
  }
  return names;
}

using NAMES = std::vector<std::string>;

}  // namespace

// ------------------------------------------------------------------------------------------------ loading

TEST_F(DirEntCacheLoad, EverySlotUsedAndNoEndMarker_LoadsSuccessfully) {
  SLOTS slots;
  for (int i = 0; i < 16; ++i) slots.push_back(Short("FILE" + std::to_string(10 + i) + "     "));
  CDirEntCache& cache = Load(slots);
  EXPECT_EQ(cache.Slots(), 16u);
  EXPECT_EQ(cache.FreeSlots(), 0u);
  EXPECT_EQ(Enumerate(cache).size(), 16u);
}

TEST_F(DirEntCacheLoad, RunInterruptedByDeletedEntry_LoadsWithItsFullName) {
  SLOTS slots = Set("a name of two pieces", "ANAMEO~1   ");
  slots.insert(slots.begin() + 1, Deleted());
  CDirEntCache& cache = Load(slots);
  ASSERT_EQ(NamesOf(cache), NAMES{"a name of two pieces"});
  DENTCTX* record = Enumerate(cache)[0];
  EXPECT_EQ(record->nShortIdx, 3u);
  EXPECT_EQ(record->nLongCount, 2u);
  // So the set of the record takes in the gap and misses the first piece.
  EXPECT_EQ(record->FirstSlot(), 1u);
  const std::vector<bool> used = UsedSlots(cache);
  EXPECT_EQ(std::vector<bool>(used.begin(), used.begin() + 5), (std::vector<bool>{true, false, true, true, false}));
}

TEST_F(DirEntCacheLoad, DeletedEntryBetweenRunAndShortEntry_LoadsShortOnly) {
  SLOTS slots = Set("long name", "LONGNA~1   ");
  slots.insert(slots.end() - 1, Deleted());
  CDirEntCache& cache = Load(slots);
  EXPECT_EQ(NamesOf(cache), NAMES{"LONGNA~1   "});
  EXPECT_EQ(cache.FindByName(CPath("long name")), nullptr);
}

TEST_F(DirEntCacheLoad, ChecksumOfAnotherEntry_LoadsShortOnlyAndTheRunStaysUsed) {
  SLOTS slots = Set("a name of two pieces", "ANAMEO~1   ");
  slots.back()[0] = 'B';
  CDirEntCache& cache = Load(slots);
  ASSERT_EQ(NamesOf(cache), NAMES{"BNAMEO~1   "});
  EXPECT_EQ(Enumerate(cache)[0]->nLongCount, 0u);
  EXPECT_EQ(Enumerate(cache)[0]->nShortIdx, 2u);
  EXPECT_EQ(cache.FreeSlots(), 13u);
}

TEST_F(DirEntCacheLoad, PieceWithoutLastFlagAtTheStart_IsSkippedAndStaysUsed) {
  SLOTS slots = Set("long name", "LONGNA~1   ");
  slots[0][0] = 1;
  CDirEntCache& cache = Load(slots);
  EXPECT_EQ(NamesOf(cache), NAMES{"LONGNA~1   "});
  EXPECT_EQ(cache.FreeSlots(), 14u);
}

// The last piece holds one unit: a name of 261 units would just fit into the memory of one of 260.
TEST_F(DirEntCacheLoad, OrdinalAboveTwenty_IsSkipped) {
  for (const unsigned int pieces : {20u, 21u, 40u, 63u}) {
    const SLOTS slots = CImageBuilder::EntrySet(UTF16(13 * (pieces - 1) + 1, 'x'), Short("X~1        "));
    CDirEntCache& cache = Load(slots);
    ASSERT_EQ(Enumerate(cache).size(), 1u) << pieces;
    EXPECT_EQ(Enumerate(cache)[0]->nLongCount, pieces == 20 ? 20u : 0u) << pieces;
    EXPECT_EQ(Enumerate(cache)[0]->nShortIdx, pieces);
    EXPECT_TRUE(UsedSlots(cache)[0]);
  }
}

TEST_F(DirEntCacheLoad, VolumeLabelOfTheRoot_FillsTheLabelAndIsNotEnumerated) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    CImageBuilder builder(Geometry(bits, 1, 0));
    builder.AddFile(CImageBuilder::Root(), "BEFORE");
    builder.AddLabel(CImageBuilder::Root(), "MY VOLUME");
    builder.AddFile(CImageBuilder::Root(), "BEHIND");
    CFatFileSystem* fileSystem = Mount(BACKEND::Memory, builder.Image());
    ASSERT_NE(fileSystem, nullptr);
    CDirEntCache& cache = *fileSystem->Root()->DirEntCache();
    EXPECT_EQ(std::string(cache.VolumeLabel(), cache.VolumeLabel() + 11), "MY VOLUME  ");
    EXPECT_EQ(NamesOf(cache), (NAMES{"BEFORE     ", "BEHIND     "}));
    EXPECT_EQ(cache.FindByShortName(Enumerate(cache)[0]->ShortEntry.Name), Enumerate(cache)[0]);
    EXPECT_EQ(cache.Slots() - cache.FreeSlots(), 3u);
    EXPECT_TRUE(Unmount(fileSystem));
  }
}

TEST_F(DirEntCacheLoad, NoLabelEntry_LabelIsElevenSpaces) {
  CDirEntCache& cache = Load({Short("NAME       ")});
  EXPECT_EQ(std::string(cache.VolumeLabel(), cache.VolumeLabel() + 11), "           ");
}

TEST_F(DirEntCacheLoad, LabelAfterACompleteRun_IsALabelAndNoRecord) {
  SLOTS slots = Set("long name", "LONGNA~1   ");
  slots.back()[11] = 0x08;  // the checksum still fits
  CDirEntCache& cache = Load(slots);
  EXPECT_EQ(NamesOf(cache), NAMES{});
  EXPECT_EQ(std::string(cache.VolumeLabel(), cache.VolumeLabel() + 11), "LONGNA~1   ");
}

TEST_F(DirEntCacheLoad, LabelInsideARun_BreaksIt) {
  SLOTS slots = Set("a name of two pieces", "ANAMEO~1   ");
  slots.insert(slots.begin() + 1, Short("THE LABEL  ", 0x28));
  CDirEntCache& cache = Load(slots);
  EXPECT_EQ(NamesOf(cache), NAMES{"ANAMEO~1   "});
  EXPECT_EQ(std::string(cache.VolumeLabel(), cache.VolumeLabel() + 11), "THE LABEL  ");
}

TEST_F(DirEntCacheLoad, SeveralLabels_TheLastOneIsKept) {
  CDirEntCache& cache = Load({Short("FIRST LABEL", 0x08), Short("NAME       "), Short("LAST LABEL ", 0x28)});
  EXPECT_EQ(NamesOf(cache), NAMES{"NAME       "});
  EXPECT_EQ(std::string(cache.VolumeLabel(), cache.VolumeLabel() + 11), "LAST LABEL ");
  EXPECT_EQ(cache.FreeSlots(), 13u) << "labels take up their slots";
}

TEST_F(DirEntCacheLoad, LastPieceWithOrdinalZero_IsSkippedAndStaysUsed) {
  SLOTS slots = Set("long name", "LONGNA~1   ");
  slots[0][0] = 0x40;
  CDirEntCache& cache = Load(slots);
  EXPECT_EQ(NamesOf(cache), NAMES{"LONGNA~1   "});
  EXPECT_EQ(cache.FreeSlots(), 14u);
}

TEST_F(DirEntCacheLoad, FlagOfTheLastPieceInsideARun_IsNotLookedAt) {
  SLOTS slots = Set("a name of two pieces", "ANAMEO~1   ");
  slots[1][0] = 0x41;
  EXPECT_EQ(NamesOf(Load(slots)), NAMES{"a name of two pieces"});
}

TEST_F(DirEntCacheLoad, PieceOutOfOrderOrOfAnotherChecksum_BreaksTheRunAndStaysUsed) {
  const SLOTS whole = Set("a name of three pieces, if not four", "ANAMEO~1   ");
  ASSERT_EQ(whole.size(), 4u);
  for (const std::size_t piece : {1u, 2u}) {
    SLOTS checksum = whole;
    ++checksum[piece][13];
    SLOTS order = whole;
    order[piece][0] = 3;
    SLOTS missing = whole;
    missing.erase(missing.begin() + static_cast<std::ptrdiff_t>(piece));
    for (const SLOTS& slots : {checksum, order, missing}) {
      CDirEntCache& cache = Load(slots);
      EXPECT_EQ(NamesOf(cache), NAMES{"ANAMEO~1   "}) << piece;
      EXPECT_EQ(Enumerate(cache)[0]->nLongCount, 0u);
      EXPECT_EQ(cache.FreeSlots(), 16 - slots.size());
    }
  }
}

TEST_F(DirEntCacheLoad, EndMarkerInsideARunOrBehindIt_EndsTheDirectory) {
  const SLOTS whole = Set("a name of two pieces", "ANAMEO~1   ");
  for (const std::size_t end : {1u, 2u}) {
    SLOTS slots = whole;
    slots.insert(slots.begin() + static_cast<std::ptrdiff_t>(end), RAW_ENTRY{});
    CDirEntCache& cache = Load(Join({{Short("BEFORE     ")}, slots}));
    EXPECT_EQ(NamesOf(cache), NAMES{"BEFORE     "}) << end;
    EXPECT_EQ(cache.FreeSlots(), 15 - end);
  }
}

TEST_F(DirEntCacheLoad, EntryThatBreaksARun_StartsOneOfItsOwn) {
  SLOTS torn = Set("a name of two pieces", "ANAMEO~1   ");
  torn.resize(1);
  CDirEntCache& cache = Load(Join({torn, Set("whole", "WHOLE~1    ")}));
  EXPECT_EQ(NamesOf(cache), NAMES{"whole"});
}

TEST_F(DirEntCacheLoad, RunAfterACompleteRun_IsExaminedAfresh) {
  SLOTS lonely = Set("lonely", "LONELY~1   ");
  lonely.pop_back();
  CDirEntCache& cache = Load(Join({lonely, Set("whole", "WHOLE~1    ")}));
  EXPECT_EQ(NamesOf(cache), NAMES{"whole"});
  EXPECT_EQ(cache.FreeSlots(), 13u);
}

TEST_F(DirEntCacheLoad, OnlyPieceIsEmpty_IsAStray) {
  SLOTS slots = Set("x", "X~1        ");
  slots[0][1] = slots[0][2] = 0;
  CDirEntCache& cache = Load(slots);
  EXPECT_EQ(NamesOf(cache), NAMES{"X~1        "});
}

TEST_F(DirEntCacheLoad, LastPieceIsEmpty_NameIsThatOfThePiecesBefore) {
  SLOTS slots = Set("thirteen unitX", "THIRTE~1   ");
  slots[0][1] = slots[0][2] = 0;
  EXPECT_EQ(NamesOf(Load(slots)), NAMES{"thirteen unit"});
}

TEST_F(DirEntCacheLoad, MiddlePieceEndsEarly_NameEndsThereWithoutBytesOfAnotherName) {
  SLOTS first = CImageBuilder::EntrySet(UTF16(39, 'z'), Short("Z~1        "));
  SLOTS second = CImageBuilder::EntrySet(UTF16(39, 'y'), Short("Y~1        "));
  second[1][14] = second[1][15] = 0;  // unit 5 of the middle piece
  EXPECT_EQ(NamesOf(Load(Join({first, second}))), (NAMES{std::string(39, 'z'), std::string(18, 'y')}));
}

TEST_F(DirEntCacheLoad, NamesOf256To260Units_LoadWhole) {
  for (unsigned int units = 256; units <= 260; ++units) {
    CDirEntCache& cache = Load(CImageBuilder::EntrySet(UTF16(units, 'n'), Short("N~1        ")));
    EXPECT_EQ(NamesOf(cache), NAMES{std::string(units, 'n')});
  }
}

TEST_F(DirEntCacheLoad, DirectoryEndsInsideARun_NothingIsMadeOfIt) {
  SLOTS slots(15, Short("SAME       "));
  slots.push_back(CImageBuilder::LongEntries(ToUtf16("torn off"), 1)[0]);
  CDirEntCache& cache = Load(slots);
  EXPECT_EQ(Enumerate(cache).size(), 15u);
  EXPECT_EQ(cache.FreeSlots(), 0u);
}

TEST_F(DirEntCacheLoad, FirstByteFive_IsTakenAsItStands) {
  EXPECT_EQ(NamesOf(Load({Short("\x05NAME      ")})), NAMES{"\x05NAME      "});
}

TEST_F(DirEntCacheLoad, SlotsBehindTheEndMarker_AreFreeAndUnseen) {
  SLOTS slots = {Short("SEEN       "), RAW_ENTRY{}, Short("UNSEEN     ")};
  CDirEntCache& cache = Load(slots);
  EXPECT_EQ(NamesOf(cache), NAMES{"SEEN       "});
  EXPECT_EQ(cache.FreeSlots(), 15u);
}

TEST_F(DirEntCacheLoad, EqualNames_TheFirstOneIsFound) {
  CDirEntCache& cache = Load(Join({Set("Same Name", "SAMENA~1   "), Set("SAME NAME", "SAMENA~2   ")}));
  ASSERT_EQ(Enumerate(cache).size(), 2u);
  EXPECT_EQ(cache.FindByName(CPath("same name")), Enumerate(cache)[0]);
}

TEST_F(DirEntCacheLoad, OddBytesInAShortName_FoldInPairs) {
  // 41 FF and 21 FF are U+FF41 and U+FF21, one letter in two cases.
  CDirEntCache& cache = Load({Short("\x41\xFFREST     "), Short("\x21\xFFREST     ")});
  ASSERT_EQ(Enumerate(cache).size(), 2u);
  EXPECT_EQ(cache.FindByShortName(Enumerate(cache)[1]->ShortEntry.Name), Enumerate(cache)[0]);
}

TEST_F(DirEntCacheLoad, ZeroBytesInAShortName_KeyEndsAtTheFirstZeroUnit) {
  RAW_ENTRY entry = Short("AB         ");
  entry[4] = entry[5] = 0;
  CDirEntCache& cache = Load({entry});
  ASSERT_EQ(Enumerate(cache).size(), 1u);
  EXPECT_EQ(KeyOf(*Enumerate(cache)[0]), (UTF16{'A' + 256 * 'B', 0x2020}));
  entry[9] = 'Z';
  EXPECT_EQ(cache.FindByShortName(EntryOf(entry).Name), Enumerate(cache)[0]);
}

// Directories and, with the very same bytes, regular files. A cache of a file is filled when it is first asked.
TEST_F(DirEntCacheLoad, RandomSlots_LoadAsThePlainParserReadsThem) {
  constexpr unsigned int PER_IMAGE = 200;
  for (unsigned int image = 0; image < 12; ++image) {
    CImageBuilder builder(Geometry(image % 3 == 0 ? 32 : 16, 1u << image % 4, 20000));
    const unsigned int clusterSlots = builder.ClusterBytes() / 32;
    const CImageBuilder::DIRECTORY top = builder.AddDir(CImageBuilder::Root(), "TOP");
    std::vector<SLOTS> contents;
    std::vector<BYTES> files;
    for (unsigned int i = 0; i < PER_IMAGE; ++i) {
      CRandomSlots random(image * 1000 + i);
      SLOTS slots = random.Make(1 + random.Below(60));
      if (i % 5 == 0) {  // a directory without any slot that was never used, as far as its content allows
        slots.resize(std::max<std::size_t>(1, slots.size() / clusterSlots) * clusterSlots, Short("FILLER     "));
      }
      contents.push_back(slots);
      AddRawDir(builder, "D" + std::to_string(i), slots);
      BYTES bytes = BytesOf(slots);
      if (i % 3 != 0) bytes.resize(bytes.size() - random.Below(32));
      files.push_back(bytes);
      builder.AddFile(top, "F" + std::to_string(i), bytes);
    }
    CFatFileSystem* fileSystem = Mount(BACKEND::Memory, builder.Image());
    ASSERT_NE(fileSystem, nullptr);
    for (unsigned int i = 0; i < PER_IMAGE; ++i) {
      SCOPED_TRACE("image " + std::to_string(image) + ", number " + std::to_string(i));
      const auto slotsOf = [clusterSlots](std::size_t slots) {
        return (slots + clusterSlots - 1) / clusterSlots * clusterSlots;
      };
      CFatDir* dir = Open(fileSystem, "D" + std::to_string(i));
      ASSERT_NE(dir, nullptr);
      ASSERT_NO_FATAL_FAILURE(ExpectCache(*dir->DirEntCache(), CPlainParser(contents[i], slotsOf(contents[i].size()))));
      CFatDir* file = Open(fileSystem, "TOP\\F" + std::to_string(i));
      ASSERT_NE(file, nullptr);
      const SLOTS slots = SlotsOf(files[i]);
      ASSERT_NO_FATAL_FAILURE(ExpectCache(*file->DirEntCache(), CPlainParser(slots, slotsOf(slots.size()))));
      Release();
    }
    EXPECT_TRUE(Unmount(fileSystem));
  }
}

// 20 pieces and a short entry, starting 1 to 20 slots before the second block of the file cache.
TEST_F(DirEntCacheLoad, RunCrossesABlock_LoadsAsThePlainParserReadsIt) {
  CImageBuilder builder(Geometry(16, 64, 5000));
  std::vector<SLOTS> contents;
  for (unsigned int before = 1; before <= 20; ++before) {
    CRandomSlots random(before);
    SLOTS slots = random.Make(100);
    for (RAW_ENTRY& slot : slots) slot[0] = slot[0] == 0 ? static_cast<unsigned char>(0xE5) : slot[0];
    slots.resize(BLOCK_SLOTS - before, Short("FILLER     "));
    const SLOTS crossing = CImageBuilder::EntrySet(UTF16(255, 'c'), Short("CROSSING   "));
    slots.insert(slots.end(), crossing.begin(), crossing.end());
    const SLOTS more = random.Make(300);
    slots.insert(slots.end(), more.begin(), more.end());
    contents.push_back(slots);
    AddRawDir(builder, "D" + std::to_string(before), slots);
    builder.AddFile(CImageBuilder::Root(), "F" + std::to_string(before), BytesOf(slots));
  }
  CFatFileSystem* fileSystem = Mount(BACKEND::Memory, builder.Image());
  ASSERT_NE(fileSystem, nullptr);
  for (unsigned int before = 1; before <= 20; ++before) {
    SCOPED_TRACE(before);
    for (const char* kind : {"D", "F"}) {
      CFatDir* object = Open(fileSystem, kind + std::to_string(before));
      ASSERT_NE(object, nullptr);
      const CPlainParser expected(contents[before - 1], ToSize(object->AllocBytes() / 32));
      ASSERT_NO_FATAL_FAILURE(ExpectCache(*object->DirEntCache(), expected));
      EXPECT_NE(object->DirEntCache()->FindByName(CPath(UTF16(255, 'C'))), nullptr);
    }
  }
  Release();
}

// ------------------------------------------------------------------------------------------------ what is read

namespace {

/// A directory or file of three blocks with the end marker in its second one.
class DirEntCacheReads : public DirEntCacheLoad {
 protected:
  DirEntCacheReads() : m_Builder(Geometry(16, 64, 5000)) {
    SLOTS slots(3 * BLOCK_SLOTS, Short("FILLER     "));
    slots[BLOCK_SLOTS + 5] = RAW_ENTRY{};
    m_Dir = m_Builder.DirectoryClusters(AddRawDir(m_Builder, "D", slots));
    m_Builder.AddFile(CImageBuilder::Root(), "F", BytesOf(slots));
  }
  /// The bytes read of the first object's clusters in the order they were read: (offset in the object, length).
  std::vector<std::pair<long long, unsigned long long>> ReadsOf(const CMedium& medium,
                                                                std::uint32_t firstCluster) const {
    std::vector<std::pair<long long, unsigned long long>> reads;
    const long long start = static_cast<long long>(m_Builder.ClusterOffset(firstCluster));
    for (const IO_RECORD& record : medium.ReadTrace()) {
      if (record.Touches(start, 3 * 0x40000)) reads.push_back({record.Offset - start, record.Length});
    }
    return reads;
  }
  std::uint32_t FirstClusterOf(const char* name) const {
    return name[0] == 'D' ? m_Dir.front() : m_Dir.back() + 1;  // the file was put right behind the directory
  }

  CMedium& NewMedium() {
    m_pMedium = std::make_unique<CMedium>(m_Builder.Image());
    return *m_pMedium;
  }

  CImageBuilder m_Builder;
  std::vector<std::uint32_t> m_Dir;
  std::unique_ptr<CMedium> m_pMedium;  // outlives the unmounting at the end of a test
};

}  // namespace

TEST_F(DirEntCacheReads, EndMarkerInTheSecondBlock_ReadsTwoBlocksAndNoMore) {
  using READS = std::vector<std::pair<long long, unsigned long long>>;
  for (const char* name : {"D", "F"}) {
    CMedium& medium = NewMedium();
    CFatFileSystem* fileSystem = MountMedium(medium);
    medium.ClearTrace();
    CFatDir* object = Open(fileSystem, name);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(ReadsOf(medium, FirstClusterOf(name)), (READS{{0, 0x40000}, {0x40000, 0x40000}})) << name << "\n"
                                                                                                << medium.TraceText();
    EXPECT_EQ(medium.Writes(), 0u);
    medium.ClearTrace();
    EXPECT_EQ(Enumerate(*object->DirEntCache()).size(), BLOCK_SLOTS + 5);
    EXPECT_NE(object->LookupFile(CPath("filler")), nullptr);
    EXPECT_EQ(medium.Transfers(), 0u) << "after the load nothing is read again";
    Release();
    EXPECT_TRUE(Unmount(fileSystem));
  }
}

TEST_F(DirEntCacheReads, ReadFailsInTheSecondBlock_ObjectIsNotBuilt) {
  for (const char* name : {"D", "F"}) {
    CMedium& medium = NewMedium();
    CFatFileSystem* fileSystem = MountMedium(medium);
    const std::size_t before = Memory().OutstandingBytes();
    medium.FailRange(static_cast<long long>(m_Builder.ClusterOffset(FirstClusterOf(name))) + 0x40000, 1);
    CFatFile* file = nullptr;
    EXPECT_EQ(fileSystem->OpenFile(CPath(name), &file), STATUS_FILE_CORRUPT);
    EXPECT_TRUE(medium.Fired());
    EXPECT_LE(Memory().OutstandingBytes(), before + 4096) << "what was read stays nowhere";
    medium.Heal();
    ASSERT_NE(Open(fileSystem, name), nullptr);
    Release();
    EXPECT_TRUE(Unmount(fileSystem));
  }
}

TEST_F(DirEntCacheReads, ReadFailsInTheSecondBlock_EntriesOfTheFirstStay) {
  CMedium& medium = NewMedium();
  CFatFileSystem* fileSystem = MountMedium(medium);
  DENTCTX* record = fileSystem->Root()->LookupFile(CPath("D"));
  ASSERT_NE(record, nullptr);
  CFatDir* dir = static_cast<CFatDir*>(CFatFileSystem::CreateDirObj(fileSystem, record, false));
  ASSERT_NE(dir, nullptr);
  medium.FailRange(static_cast<long long>(m_Builder.ClusterOffset(m_Dir.front())) + 0x40000, 1);
  EXPECT_EQ(dir->LoadAllDirEnts(), STATUS_IO_ERROR);
  EXPECT_EQ(Enumerate(*dir->DirEntCache()).size(), BLOCK_SLOTS);
  medium.Heal();
  EXPECT_EQ(dir->LoadAllDirEnts(), STATUS_SUCCESS);
  EXPECT_EQ(Enumerate(*dir->DirEntCache()).size(), BLOCK_SLOTS + 5);
  EXPECT_TRUE(dir->Close());
}

// ------------------------------------------------------------------------------------------------ regular files

TEST_F(DirEntCacheLoad, EmptyRegularFile_HasNoSlots) {
  CImageBuilder builder(Geometry(16, 1, 0));
  builder.AddFile(CImageBuilder::Root(), "EMPTY");
  CFatDir* file = Open(Mount(BACKEND::Memory, builder.Image()), "EMPTY");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->DirEntCache()->Slots(), 0u);
  EXPECT_EQ(file->DirEntCache()->FreeSlots(), 0u);
  EXPECT_EQ(Enumerate(*file->DirEntCache()).size(), 0u);
  EXPECT_EQ(file->LookupFile(CPath("x")), nullptr);
  Release();
}

TEST_F(DirEntCacheLoad, RegularFileOfOneByte_IsOneShortNameOfThatByte) {
  CImageBuilder builder(Geometry(16, 1, 0));
  builder.AddFile(CImageBuilder::Root(), "ONE", {'Q'});
  CFatDir* file = Open(Mount(BACKEND::Memory, builder.Image()), "ONE");
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(Enumerate(*file->DirEntCache()).size(), 1u);
  RAW_ENTRY expected{};
  expected[0] = 'Q';
  EXPECT_EQ(RawOf(*Enumerate(*file->DirEntCache())[0]), expected);
  EXPECT_EQ(KeyOf(*Enumerate(*file->DirEntCache())[0]), UTF16{'Q'});
  Release();
}

// Of a dense file only the first 65,536 slots are kept, and nothing is made of them before they are asked for.
TEST_F(DirEntCacheLoad, LargeDenseRegularFile_TakesBoundedMemory) {
  CImageBuilder builder(Geometry(16, 64, 5000));
  builder.AddFile(CImageBuilder::Root(), "DENSE", BYTES(24u << 20, 'A'));
  CFatFileSystem* fileSystem = Mount(BACKEND::Memory, builder.Image());
  const std::size_t before = Memory().OutstandingBytes();
  Memory().ResetPeak();
  CFatDir* file = Open(fileSystem, "DENSE");
  ASSERT_NE(file, nullptr);
  EXPECT_LE(Memory().PeakBytes(), before + (2u << 20) + (64u << 10));
  EXPECT_EQ(file->DirEntCache()->Slots(), 65536u);
  const std::vector<DENTCTX*> records = Enumerate(*file->DirEntCache());
  ASSERT_EQ(records.size(), 65536u);
  EXPECT_EQ(records.back()->nShortIdx, 65535u);
  EXPECT_EQ(file->DirEntCache()->FindByShortName(records.back()->ShortEntry.Name), records.front());
  EXPECT_LE(Memory().PeakBytes(), before + (16u << 20));
  Release();
}

TEST_F(DirEntCacheLoad, RegularFileBeyond65536Slots_KeepsTheRecordsOfTheFirstOnes) {
  CImageBuilder builder(Geometry(16, 64, 5000));
  CRandomSlots random(77);
  SLOTS slots;
  while (slots.size() < 65536 + 500) {
    const SLOTS piece = random.ValidSet();
    slots.insert(slots.end(), piece.begin(), piece.end());
  }
  builder.AddFile(CImageBuilder::Root(), "F", BytesOf(slots));
  CFatDir* file = Open(Mount(BACKEND::Memory, builder.Image()), "F");
  ASSERT_NE(file, nullptr);
  slots.resize(65536);
  ExpectCache(*file->DirEntCache(), CPlainParser(slots, 65536));
  Release();
}

// What is not kept counts as used: no entry is written over it.
TEST_F(DirEntCacheLoad, RegularFileBeyond65536UsedSlots_TakesNoEntry) {
  CImageBuilder builder(Geometry(16, 64, 5000));
  builder.AddFile(CImageBuilder::Root(), "DENSE", BYTES(3u << 20, 'A'));
  CFatFileSystem* fileSystem = Mount(BACKEND::Memory, builder.Image());
  CFatDir* file = Open(fileSystem, "DENSE");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->DirEntCache()->FreeSlots(), 0u);
  unsigned int first = 0;
  EXPECT_EQ(file->AllocDirEntsByBitmap(1, &first), STATUS_DISK_FULL);
  EXPECT_EQ(file->Size(), 3u << 20);
  Release();
}

TEST_F(DirEntCacheLoad, MemoryRunsOutWhileARegularFileIsLookedAt_ALaterTrySucceeds) {
  CImageBuilder builder(Geometry(16, 1, 0));
  CRandomSlots random(5);
  SLOTS slots;
  for (int i = 0; i < 12; ++i) {
    const SLOTS piece = random.ValidSet();
    slots.insert(slots.end(), piece.begin(), piece.end());
  }
  builder.AddFile(CImageBuilder::Root(), "F", BytesOf(slots));
  CFatFileSystem* fileSystem = Mount(BACKEND::Memory, builder.Image());
  unsigned int failAt = 1;
  for (bool fired = true; fired; ++failAt) {
    SCOPED_TRACE(failAt);
    CFatDir* file = Open(fileSystem, "F");
    ASSERT_NE(file, nullptr);
    Memory().FailAt(failAt, CMemHooks::ONCE);
    const unsigned int seen = file->DirEntCache()->Slots();
    fired = Memory().Fired();
    Memory().Heal();
    const CPlainParser expected(slots, ToSize(file->AllocBytes() / 32));
    EXPECT_TRUE(seen == 0 || seen == expected.Used().size()) << seen;
    ASSERT_NO_FATAL_FAILURE(ExpectCache(*file->DirEntCache(), expected));
    Release();
    fileSystem->FileCache()->Del(file);
  }
  EXPECT_GT(failAt, 12u);
}

// ------------------------------------------------------------------------------------------------ memory runs out

TEST_F(DirEntCacheLoad, MemoryRunsOutAnywhereInALoad_FailsCleanlyAndSucceedsLater) {
  CImageBuilder builder(Geometry(16, 1, 0));
  CRandomSlots random(8);
  SLOTS slots;
  for (int i = 0; i < 12; ++i) {
    const SLOTS piece = random.ValidSet();
    slots.insert(slots.end(), piece.begin(), piece.end());
  }
  AddRawDir(builder, "D", slots);
  CFatFileSystem* fileSystem = Mount(BACKEND::Memory, builder.Image());
  CFatDir* dir = Open(fileSystem, "D");
  ASSERT_NE(dir, nullptr);
  const CPlainParser expected(slots, ToSize(dir->AllocBytes() / 32));
  unsigned int failAt = 1;
  for (bool fired = true; fired; ++failAt) {
    SCOPED_TRACE(failAt);
    Memory().FailAt(failAt, CMemHooks::ONCE);
    const int status = dir->LoadAllDirEnts();
    fired = Memory().Fired();
    Memory().Heal();
    if (status < 0) {
      EXPECT_EQ(status, STATUS_NO_MEMORY);
      // What was read before stays: a beginning of the whole.
      const std::vector<DENTCTX*> records = Enumerate(*dir->DirEntCache());
      ASSERT_LE(records.size(), expected.Records().size());
      for (std::size_t i = 0; i < records.size(); ++i) EXPECT_EQ(KeyOf(*records[i]), expected.Records()[i].Key);
      ASSERT_EQ(dir->LoadAllDirEnts(), STATUS_SUCCESS);
    } else {
      EXPECT_FALSE(fired && failAt == 1);
    }
    ASSERT_NO_FATAL_FAILURE(ExpectCache(*dir->DirEntCache(), expected));
  }
  EXPECT_GT(failAt, 12u);
  Release();
}

TEST_F(DirEntCacheLoad, MemoryRunsOutAnywhereInAnOpen_FailsCleanlyAndSucceedsLater) {
  CImageBuilder builder(Geometry(16, 1, 0));
  AddRawDir(builder, "D", Join({Set("one long name", "ONELON~1   "), Set("another long name", "ANOTHE~1   ")}));
  unsigned int failAt = 1;
  for (bool fired = true; fired; ++failAt) {
    CFatFileSystem* fileSystem = Mount(BACKEND::Memory, builder.Image());
    ASSERT_NE(fileSystem, nullptr);
    Memory().FailAt(failAt, CMemHooks::ONCE);
    const int handle = Fat_OpenFile(CPath("D\\one long name"));
    fired = Memory().Fired();
    Memory().Heal();
    const int again = Fat_OpenFile(CPath("D\\one long name"));
    EXPECT_GE(again, 0) << failAt;
    EXPECT_EQ(Fat_CloseFile(again), 1u);
    if (handle >= 0) {
      EXPECT_EQ(Fat_CloseFile(handle), 1u);
    }
    EXPECT_TRUE(Unmount(fileSystem));
  }
  EXPECT_GT(failAt, 8u);
}

// ------------------------------------------------------------------------------------------------ records and slots

namespace {

/// A cache without a volume.
class DirEntCacheRecords : public ::testing::Test {
 protected:
  DirEntCacheRecords() : m_pCache(new CDirEntCache) {}
  void TearDown() override {
    delete m_pCache;
    EXPECT_EQ(m_Memory.Outstanding(), 0u);
    EXPECT_EQ(m_Memory.UnknownFrees(), 0u);
  }
  DENTCTX* AddShort(const std::string& eleven, unsigned int slot) {
    DENTCTX* record = nullptr;
    EXPECT_EQ(m_pCache->AddShortDirEnt(EntryOf(Short(eleven)), slot, record), STATUS_SUCCESS);
    EXPECT_EQ(m_pCache->MarkUsed(slot, 1), STATUS_SUCCESS);
    return record;
  }
  DENTCTX* AddLong(const std::string& name, unsigned int shortSlot, unsigned int count) {
    DENTCTX* record = nullptr;
    EXPECT_EQ(m_pCache->AddLongDirEnt(EntryOf(Short("LONG~1     ")), shortSlot, count, CPath(name), record),
              STATUS_SUCCESS);
    EXPECT_EQ(m_pCache->MarkUsed(shortSlot - count, count + 1), STATUS_SUCCESS);
    return record;
  }
  using RECORDS = std::vector<DENTCTX*>;

  CMemHooks m_Memory;
  CDirEntCache* m_pCache;
};

}  // namespace

TEST_F(DirEntCacheRecords, NewCache_HasNoSlotsNoRecordsAndABlankLabel) {
  EXPECT_EQ(m_pCache->Slots(), 0u);
  EXPECT_EQ(m_pCache->FreeSlots(), 0u);
  EXPECT_EQ(Enumerate(*m_pCache), RECORDS{});
  EXPECT_EQ(m_pCache->FindByName(CPath("x")), nullptr);
  EXPECT_EQ(std::string(m_pCache->VolumeLabel(), m_pCache->VolumeLabel() + 11), "           ");
  unsigned int first = 7;
  EXPECT_EQ(m_pCache->FindFreeSlots(1, first), STATUS_SUCCESS);
  EXPECT_EQ(first, CBitmap::NOT_FOUND);
}

TEST_F(DirEntCacheRecords, InitDotDirEnts_EnumerationYieldsDotThenDotDot) {
  const CDirEnt dots[2] = {EntryOf(Short(".          ", 0x10)), EntryOf(Short("..         ", 0x10))};
  ASSERT_EQ(m_pCache->InitDotDirEnts(2048, dots), STATUS_SUCCESS);
  EXPECT_EQ(NamesOf(*m_pCache), (NAMES{".          ", "..         "}));
  EXPECT_EQ(m_pCache->Slots(), 64u);
  std::vector<bool> used(64, false);
  used[0] = used[1] = true;
  EXPECT_EQ(UsedSlots(*m_pCache), used);
  const RECORDS records = Enumerate(*m_pCache);
  EXPECT_EQ(records[0]->nShortIdx, 0u);
  EXPECT_EQ(records[1]->nShortIdx, 1u);
  EXPECT_EQ(m_pCache->FindByShortName(dots[1].Name), records[1]);
}

TEST_F(DirEntCacheRecords, LongSet_IsKeyedByItsLongNameAndPlacedAtItsFirstSlot) {
  ASSERT_EQ(m_pCache->Grow(16), STATUS_SUCCESS);
  DENTCTX* record = AddLong("A Long Name.txt", 5, 2);
  EXPECT_EQ(record->nShortIdx, 5u);
  EXPECT_EQ(record->nLongCount, 2u);
  EXPECT_EQ(record->FirstSlot(), 3u);
  EXPECT_EQ(ToUtf8(KeyOf(*record)), "A Long Name.txt") << "in the case it was written with";
  EXPECT_EQ(m_pCache->FindByName(CPath("a lONG nAME.tXT")), record);
  EXPECT_EQ(m_pCache->FindByShortName(record->ShortEntry.Name), nullptr) << "not by its alias";
}

TEST_F(DirEntCacheRecords, ShortSet_IsKeyedByItsElevenBytes) {
  ASSERT_EQ(m_pCache->Grow(16), STATUS_SUCCESS);
  DENTCTX* record = AddShort("README  TXT", 4);
  const UTF16 key = {0x4552, 0x4441, 0x454D, 0x2020, 0x5854, 'T'};
  EXPECT_EQ(KeyOf(*record), (UTF16{0x4552, 0x4441, 0x454D, 0x2020, 0x5854, 0x54}));
  EXPECT_EQ(m_pCache->FindByName(CPath(key)), record);
  EXPECT_EQ(m_pCache->FindByShortName(record->ShortEntry.Name), record);
  EXPECT_EQ(m_pCache->FindByName(CPath("README.TXT")), nullptr);
}

TEST_F(DirEntCacheRecords, Enumeration_GoesInSlotOrderWhateverTheOrderOfAdding) {
  ASSERT_EQ(m_pCache->Grow(64), STATUS_SUCCESS);
  DENTCTX* late = AddShort("LATE       ", 63);
  DENTCTX* middle = AddLong("middle", 10, 3);
  DENTCTX* early = AddShort("EARLY      ", 0);
  EXPECT_EQ(Enumerate(*m_pCache), (RECORDS{early, middle, late}));
}

TEST_F(DirEntCacheRecords, EnumerationFromARecordThatWasTakenOut_GoesOnBehindItsPlace) {
  ASSERT_EQ(m_pCache->Grow(64), STATUS_SUCCESS);
  AddShort("FIRST      ", 2);
  DENTCTX* gone = AddLong("gone", 5, 1);
  DENTCTX* next = AddShort("NEXT       ", 6);
  m_pCache->RemoveDirEnts(gone);
  DENTCTX* record = gone;
  EXPECT_TRUE(m_pCache->GetDirEntCtxPtr(record));
  EXPECT_EQ(record, next);
  CDirEntCache::FreeDent(gone);
}

TEST_F(DirEntCacheRecords, RemovedRecord_IsNotFoundButItsSlotsStayUsed) {
  ASSERT_EQ(m_pCache->Grow(16), STATUS_SUCCESS);
  DENTCTX* record = AddLong("name", 4, 1);
  m_pCache->RemoveDirEnts(record);
  EXPECT_EQ(Enumerate(*m_pCache), RECORDS{});
  EXPECT_EQ(m_pCache->FindByName(CPath("name")), nullptr);
  EXPECT_EQ(m_pCache->FreeSlots(), 14u);
  m_pCache->InsertDirEnts(record);
  EXPECT_EQ(Enumerate(*m_pCache), RECORDS{record});
  EXPECT_EQ(m_pCache->FindByName(CPath("name")), record);
}

TEST_F(DirEntCacheRecords, RecordOfAnotherCache_GoesInAfterAReservation) {
  CDirEntCache other;
  ASSERT_EQ(other.Grow(128), STATUS_SUCCESS);
  ASSERT_EQ(m_pCache->Grow(16), STATUS_SUCCESS);
  DENTCTX* record = AddLong("traveller", 4, 1);
  m_pCache->RemoveDirEnts(record);
  ASSERT_EQ(other.ReserveInsert(), STATUS_SUCCESS);
  ASSERT_EQ(other.ReserveSlots(99), STATUS_SUCCESS);
  record->nShortIdx = 100;
  m_Memory.FailAt(1, CMemHooks::FOR_GOOD);
  other.InsertDirEnts(record);
  m_Memory.Heal();
  EXPECT_EQ(Enumerate(other), RECORDS{record});
  EXPECT_EQ(other.FindByName(CPath("TRAVELLER")), record);
}

// Two records claim one slot after a set was skipped by a re-indexing, or after a creation that failed halfway.
TEST_F(DirEntCacheRecords, TwoRecordsInOneSlot_TheLaterOneIsListedBothAreFoundAndFreed) {
  ASSERT_EQ(m_pCache->Grow(16), STATUS_SUCCESS);
  DENTCTX* ghost = AddShort("GHOST      ", 3);
  DENTCTX* newcomer = AddShort("NEWCOMER   ", 3);
  EXPECT_EQ(Enumerate(*m_pCache), RECORDS{newcomer});
  EXPECT_EQ(m_pCache->FindByShortName(ghost->ShortEntry.Name), ghost);
  EXPECT_EQ(m_pCache->FindByShortName(newcomer->ShortEntry.Name), newcomer);
  m_pCache->RemoveDirEnts(ghost);
  CDirEntCache::FreeDent(ghost);
  EXPECT_EQ(Enumerate(*m_pCache), RECORDS{}) << "the slot is emptied, whoever was in it";
  EXPECT_EQ(m_pCache->FindByShortName(newcomer->ShortEntry.Name), newcomer);
}

TEST_F(DirEntCacheRecords, PinnedRecord_OutlivesItsFreeing) {
  ASSERT_EQ(m_pCache->Grow(16), STATUS_SUCCESS);
  DENTCTX* record = AddShort("PINNED     ", 3);
  DENTCTX* next = AddShort("NEXT       ", 9);
  CDirEntCache::Pin(record);
  CDirEntCache::Pin(record);
  m_pCache->RemoveDirEnts(record);
  CDirEntCache::FreeDent(record);
  EXPECT_EQ(record->nShortIdx, 3u);
  DENTCTX* step = record;
  EXPECT_TRUE(m_pCache->GetDirEntCtxPtr(step));
  EXPECT_EQ(step, next);
  CDirEntCache::Unpin(record);
  EXPECT_EQ(record->nShortIdx, 3u) << "one search is still there";
  EXPECT_NE(AddShort("OTHER      ", 4), record);
  CDirEntCache::Unpin(record);
  EXPECT_EQ(AddShort("ANOTHER    ", 5), record) << "now its memory is free";
}

TEST_F(DirEntCacheRecords, PinnedRecord_OutlivesItsCache) {
  ASSERT_EQ(m_pCache->Grow(16), STATUS_SUCCESS);
  DENTCTX* record = AddShort("PINNED     ", 3);
  CDirEntCache::Pin(record);
  delete m_pCache;
  m_pCache = nullptr;
  EXPECT_EQ(record->nShortIdx, 3u);
  EXPECT_EQ(m_Memory.Outstanding(), 1u);
  CDirEntCache::Unpin(record);
}

TEST_F(DirEntCacheRecords, UnpinnedRecordInACache_StaysThere) {
  ASSERT_EQ(m_pCache->Grow(16), STATUS_SUCCESS);
  DENTCTX* record = AddShort("PINNED     ", 3);
  CDirEntCache::Pin(record);
  CDirEntCache::Unpin(record);
  EXPECT_EQ(Enumerate(*m_pCache), RECORDS{record});
}

// ---- growing

TEST_F(DirEntCacheRecords, Grow_AddsFreeSlotsAndKeepsTheRest) {
  ASSERT_EQ(m_pCache->Grow(4), STATUS_SUCCESS);
  DENTCTX* record = AddShort("NAME       ", 3);
  ASSERT_EQ(m_pCache->Grow(10), STATUS_SUCCESS);
  EXPECT_EQ(m_pCache->Slots(), 10u);
  EXPECT_EQ(m_pCache->FreeSlots(), 9u);
  EXPECT_EQ(Enumerate(*m_pCache), RECORDS{record});
  DENTCTX* behind = AddShort("BEHIND     ", 9);
  EXPECT_EQ(Enumerate(*m_pCache), (RECORDS{record, behind}));
}

TEST_F(DirEntCacheRecords, GrowToFewerSlots_CutsTheMapButNoRecord) {
  ASSERT_EQ(m_pCache->Grow(32), STATUS_SUCCESS);
  DENTCTX* near = AddShort("NEAR       ", 1);
  DENTCTX* far = AddShort("FAR        ", 30);
  ASSERT_EQ(m_pCache->Grow(16), STATUS_SUCCESS);
  EXPECT_EQ(m_pCache->Slots(), 16u);
  EXPECT_EQ(m_pCache->FreeSlots(), 15u);
  EXPECT_EQ(Enumerate(*m_pCache), (RECORDS{near, far}));
  ASSERT_EQ(m_pCache->Grow(0), STATUS_SUCCESS);
  EXPECT_EQ(m_pCache->Slots(), 0u);
  EXPECT_EQ(m_pCache->FreeSlots(), 0u);
  EXPECT_EQ(Enumerate(*m_pCache), (RECORDS{near, far}));
  ASSERT_EQ(m_pCache->Grow(32), STATUS_SUCCESS);
  EXPECT_EQ(m_pCache->FreeSlots(), 32u) << "slots that come back are free";
}

TEST_F(DirEntCacheRecords, FullMapCutAndGrownAgain_TheLowestSlotThatCameBackIsFound) {
  ASSERT_EQ(m_pCache->Grow(32), STATUS_SUCCESS);
  ASSERT_EQ(m_pCache->MarkUsed(0, 32), STATUS_SUCCESS);
  ASSERT_EQ(m_pCache->Grow(16), STATUS_SUCCESS);
  ASSERT_EQ(m_pCache->Grow(64), STATUS_SUCCESS);
  unsigned int first = 0;
  EXPECT_EQ(m_pCache->FindFreeSlots(3, first), STATUS_SUCCESS);
  EXPECT_EQ(first, 16u);
}

TEST_F(DirEntCacheRecords, RecordBehindTheCutMap_IsStillListed) {
  ASSERT_EQ(m_pCache->Grow(64), STATUS_SUCCESS);
  ASSERT_EQ(m_pCache->Grow(16), STATUS_SUCCESS);
  DENTCTX* record = AddShort("BEHIND     ", 60);
  EXPECT_EQ(Enumerate(*m_pCache), RECORDS{record}) << "the slot table never shrinks";
  EXPECT_EQ(m_pCache->FreeSlots(), 16u);
}

TEST_F(DirEntCacheRecords, SlotsTheDirectoryDoesNotHave_AreIgnored) {
  ASSERT_EQ(m_pCache->Grow(8), STATUS_SUCCESS);
  EXPECT_EQ(m_pCache->MarkUsed(6, 100), STATUS_SUCCESS);
  EXPECT_EQ(m_pCache->MarkUsed(8, 1), STATUS_SUCCESS);
  EXPECT_EQ(m_pCache->MarkUsed(0xFFFFFFFF, 1), STATUS_SUCCESS);
  EXPECT_EQ(m_pCache->FreeSlots(), 6u);
  m_pCache->MarkFree(7, 100);
  EXPECT_EQ(m_pCache->FreeSlots(), 7u);
}

// Every operation on the used slots against a plain array, in random order.
TEST_F(DirEntCacheRecords, RandomMarksAndSearches_AgreeWithAPlainArray) {
  std::mt19937 random(4);
  const auto below = [&random](unsigned int n) { return static_cast<unsigned int>(random() % n); };
  std::vector<bool> used;
  for (unsigned int step = 0; step < 20000; ++step) {
    const unsigned int first = below(300);
    const unsigned int count = below(25);
    if (step % 500 == 0) {
      const unsigned int slots = below(300);
      ASSERT_EQ(m_pCache->Grow(slots), STATUS_SUCCESS);
      used.resize(slots, false);
    } else if (below(2) == 0) {
      ASSERT_EQ(m_pCache->MarkUsed(first, count), STATUS_SUCCESS);
      for (unsigned int i = first; i < first + count && i < used.size(); ++i) used[i] = true;
    } else {
      m_pCache->MarkFree(first, count);
      for (unsigned int i = first; i < first + count && i < used.size(); ++i) used[i] = false;
    }
    const unsigned int wanted = 1 + below(22);
    unsigned int expected = 0;
    for (unsigned int run = 0, i = 0; i < used.size() && run < wanted; ++i) {
      run = used[i] ? 0 : run + 1;
      expected = i + 1 - run;
      if (i + 1 == used.size() && run < wanted) expected = CBitmap::NOT_FOUND;
    }
    if (used.empty()) expected = CBitmap::NOT_FOUND;
    unsigned int found = 0;
    ASSERT_EQ(m_pCache->FindFreeSlots(wanted, found), STATUS_SUCCESS);
    ASSERT_EQ(found, expected) << "step " << step;
    ASSERT_EQ(m_pCache->FreeSlots(), static_cast<std::size_t>(std::count(used.begin(), used.end(), false)));
    if (step % 100 == 0) {
      ASSERT_EQ(UsedSlots(*m_pCache), used);
    }
  }
}

// ---- following moves

TEST_F(DirEntCacheRecords, SetRightBehindAMovedOne_IsPassedOver) {
  ASSERT_EQ(m_pCache->Grow(16), STATUS_SUCCESS);
  DENTCTX* moved = AddLong("moved", 5, 1);
  DENTCTX* skipped = AddLong("skipped", 7, 1);
  DENTCTX* third = AddShort("THIRD      ", 9);
  m_pCache->MoveUsedEntriesForward(4, 6, 2);
  EXPECT_EQ(moved->nShortIdx, 3u);
  EXPECT_EQ(skipped->nShortIdx, 7u) << "its entries went to slots 4 and 5 all the same";
  EXPECT_EQ(third->nShortIdx, 7u);
  EXPECT_EQ(Enumerate(*m_pCache), (RECORDS{moved, skipped}));
  EXPECT_EQ(moved->FirstSlot(), 2u);
}

TEST_F(DirEntCacheRecords, SetTwoSlotsBehindAMovedOne_IsFollowed) {
  ASSERT_EQ(m_pCache->Grow(16), STATUS_SUCCESS);
  DENTCTX* first = AddShort("FIRST      ", 4);
  ASSERT_EQ(m_pCache->MarkUsed(5, 1), STATUS_SUCCESS);  // a stray
  DENTCTX* second = AddShort("SECOND     ", 6);
  m_pCache->MoveUsedEntriesForward(4, 3, 1);
  EXPECT_EQ(first->nShortIdx, 1u);
  EXPECT_EQ(second->nShortIdx, 3u);
}

TEST_F(DirEntCacheRecords, RandomMoves_IndexAsStepByStep) {
  constexpr unsigned int SLOTS_IN_ALL = 96;
  for (unsigned int seed = 0; seed < 400; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&random](unsigned int n) { return static_cast<unsigned int>(random() % n); };
    CDirEntCache cache;
    ASSERT_EQ(cache.Grow(SLOTS_IN_ALL), STATUS_SUCCESS);
    std::vector<DENTCTX*> table(SLOTS_IN_ALL, nullptr);
    std::vector<DENTCTX*> all;
    std::map<DENTCTX*, unsigned int> shortIdx;
    for (unsigned int slot = below(4); slot + 4 < SLOTS_IN_ALL; slot += below(3) == 0 ? 1 + below(3) : 0) {
      const unsigned int count = below(3);
      DENTCTX* record = nullptr;
      const std::string name = "n" + std::to_string(slot);
      ASSERT_EQ(cache.AddLongDirEnt(EntryOf(Short("LONG~1     ")), slot + count, count, CPath(name), record), 0);
      table[slot] = record;
      shortIdx[record] = slot + count;
      all.push_back(record);
      slot += count + 1;
    }
    for (unsigned int move = 0; move < 12; ++move) {
      const unsigned int target = below(SLOTS_IN_ALL - 2);
      const unsigned int first = target + 1 + below(SLOTS_IN_ALL - target - 1);
      const unsigned int count = below(SLOTS_IN_ALL - first + 1);
      const unsigned int delta = first - target;
      unsigned int i = first;
      while (i < first + count) {
        if (table[i] != nullptr) {
          DENTCTX* record = table[i];
          table[i - delta] = record;
          table[i] = nullptr;
          i = shortIdx[record] + 1;
          shortIdx[record] -= delta;
        }
        ++i;
      }
      cache.MoveUsedEntriesForward(first, count, target);
      for (DENTCTX* record : all) ASSERT_EQ(record->nShortIdx, shortIdx[record]) << "move " << move;
      // The listing goes from a record's slot to the one behind its short entry.
      std::vector<DENTCTX*> listed;
      for (unsigned int slot = 0; slot < SLOTS_IN_ALL;) {
        if (table[slot] == nullptr) {
          ++slot;
        } else {
          listed.push_back(table[slot]);
          slot = shortIdx[table[slot]] + 1;
        }
        if (listed.size() > SLOTS_IN_ALL) break;
      }
      DENTCTX* record = nullptr;
      for (std::size_t n = 0; n <= listed.size() && n <= SLOTS_IN_ALL; ++n) {
        const bool more = cache.GetDirEntCtxPtr(record);
        ASSERT_EQ(more, n < listed.size()) << "move " << move << ", number " << n;
        if (more) {
          ASSERT_EQ(record, listed[n]) << "move " << move << ", number " << n;
        }
      }
    }
  }
}

// ---- memory

namespace {

/// What a cache shows of itself.
struct SHOWN {
  unsigned int Slots;
  unsigned int Free;
  std::vector<DENTCTX*> Records;
  std::vector<bool> Used;
};
bool operator==(const SHOWN& a, const SHOWN& b) {
  return a.Slots == b.Slots && a.Free == b.Free && a.Records == b.Records && a.Used == b.Used;
}
SHOWN Show(CDirEntCache& cache) { return {cache.Slots(), cache.FreeSlots(), Enumerate(cache), UsedSlots(cache)}; }

}  // namespace

// An operation is repeated with its first, second, ... allocation failing until it succeeds; a failure changes nothing.
TEST_F(DirEntCacheRecords, MemoryRunsOutInAnyOperation_ChangesNothing) {
  unsigned int failures = 0;
  const auto insist = [this, &failures](const auto& operation) {
    for (unsigned int failAt = 1;; ++failAt) {
      const SHOWN before = Show(*m_pCache);
      const std::size_t blocks = m_Memory.Outstanding();
      m_Memory.FailAt(failAt, CMemHooks::ONCE);
      const int status = operation();
      m_Memory.Heal();
      if (status >= 0) return;
      ++failures;
      ASSERT_EQ(status, STATUS_NO_MEMORY);
      ASSERT_TRUE(Show(*m_pCache) == before);
      ASSERT_LE(m_Memory.Outstanding(), blocks + 2) << "room for pointers may stay, records may not";
    }
  };
  const CDirEnt dots[2] = {EntryOf(Short(".          ", 0x10)), EntryOf(Short("..         ", 0x10))};
  for (unsigned int slots = 16; slots <= 4096; slots *= 2) {
    insist([this, slots] { return m_pCache->Grow(slots); });
    DENTCTX* record = nullptr;
    const std::string name = "a name for " + std::to_string(slots);
    insist([&] { return m_pCache->AddLongDirEnt(dots[0], slots - 1, 3, CPath(name), record); });
    insist([&] { return m_pCache->MarkUsed(slots - 4, 4); });
    insist([&] { return m_pCache->AddShortDirEnt(dots[1], slots / 2, record); });
    insist([&] { return m_pCache->MarkUsed(slots / 2, 1); });
    insist([&] { return m_pCache->ReserveInsert(); });
    insist([&] { return m_pCache->ReserveSlots(slots - 3); });
    EXPECT_EQ(m_pCache->FindByName(CPath(name))->nShortIdx, slots - 1);
  }
  EXPECT_GT(failures, 10u);
}

TEST_F(DirEntCacheRecords, MemoryRunsOutInASearchForFreeSlots_StatusAndNothingElse) {
  ASSERT_EQ(m_pCache->Grow(1000), STATUS_SUCCESS);
  ASSERT_EQ(m_pCache->MarkUsed(0, 3), STATUS_SUCCESS);
  m_Memory.FailAt(1, CMemHooks::FOR_GOOD);
  unsigned int first = 77;
  const int status = m_pCache->FindFreeSlots(2, first);
  m_Memory.Heal();
  EXPECT_EQ(status, STATUS_NO_MEMORY);
  EXPECT_EQ(first, 77u);
  EXPECT_EQ(m_pCache->FindFreeSlots(2, first), STATUS_SUCCESS);
  EXPECT_EQ(first, 3u);
}

TEST_F(DirEntCacheRecords, MemoryRunsOutWhileADirectoryIsSetUp_FailsOrSucceedsWhole) {
  const CDirEnt dots[2] = {EntryOf(Short(".          ", 0x10)), EntryOf(Short("..         ", 0x10))};
  unsigned int failAt = 1;
  for (int status = STATUS_NO_MEMORY; status < 0; ++failAt) {
    CDirEntCache cache;
    m_Memory.FailAt(failAt, CMemHooks::ONCE);
    status = cache.InitDotDirEnts(4096, dots);
    m_Memory.Heal();
    EXPECT_TRUE(status == STATUS_NO_MEMORY || status == STATUS_SUCCESS);
    if (status >= 0) {
      EXPECT_EQ(NamesOf(cache), (NAMES{".          ", "..         "}));
    }
  }
  EXPECT_GT(failAt, 3u);
}

// The slot table and the map take memory as slots are used, not from the size of the directory.
// Two long-name entries and the short one for each; the bytes that malloc adds are counted too.
TEST_F(DirEntCacheRecords, NamesOf24Units_TakeAtMost160BytesEachIn32Bits) {
  constexpr unsigned int ENTRIES = 20000;
  constexpr std::size_t MALLOC_BYTES = 16;
  ASSERT_EQ(m_pCache->Grow(3 * ENTRIES), STATUS_SUCCESS);
  for (unsigned int i = 0; i < ENTRIES; ++i) {
    const std::string number = std::to_string(100000 + i);
    ASSERT_NE(AddLong("Twenty-four units " + number, 3 * i + 2, 2), nullptr);
  }
  const std::size_t bytes = m_Memory.OutstandingBytes() + m_Memory.Outstanding() * MALLOC_BYTES;
  EXPECT_LE(bytes / ENTRIES, sizeof(void*) == 4 ? 160u : 220u);
  EXPECT_LE(m_Memory.Outstanding(), ENTRIES / 10) << "many records share an allocation";
}

TEST_F(DirEntCacheRecords, HugeDirectoryWithFewEntries_TakesLittleMemory) {
  ASSERT_EQ(m_pCache->Grow(1u << 27), STATUS_SUCCESS);
  AddShort("FIRST      ", 0);
  AddShort("SECOND     ", 1);
  EXPECT_EQ(m_pCache->FreeSlots(), (1u << 27) - 2);
  EXPECT_LE(m_Memory.OutstandingBytes(), 4096u);
}
