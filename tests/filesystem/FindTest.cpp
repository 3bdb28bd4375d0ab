/// @file FindTest.cpp
/// Listing a directory: the record that each entry becomes, the order, the wrap at the end, and what a search does when
/// the directory changes under it.

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "filesystem/FatFileSystem.h"
#include "support/LibFixture.h"
#include "support/VolumeReader.h"

namespace {

using NAMES = std::vector<std::string>;
constexpr int NO_HANDLE = -1;
constexpr unsigned int FILE_NAME_UNITS = 260;

// ---------------------------------------------------------------------------------------------- the record

static_assert(sizeof(WIN_FTIME) == 8 && sizeof(WIN_FIND_DATA) == 592 && alignof(WIN_FIND_DATA) == 4);
static_assert(offsetof(WIN_FTIME, dwLowDateTime) == 0 && offsetof(WIN_FTIME, dwHighDateTime) == 4);
static_assert(offsetof(WIN_FIND_DATA, dwFileAttributes) == 0);
static_assert(offsetof(WIN_FIND_DATA, ftCreationTime) == 4);
static_assert(offsetof(WIN_FIND_DATA, ftLastAccessTime) == 12);
static_assert(offsetof(WIN_FIND_DATA, ftLastWriteTime) == 20);
static_assert(offsetof(WIN_FIND_DATA, nFileSizeHigh) == 28);
static_assert(offsetof(WIN_FIND_DATA, nFileSizeLow) == 32);
static_assert(offsetof(WIN_FIND_DATA, dwReserved0) == 36);
static_assert(offsetof(WIN_FIND_DATA, dwReserved1) == 40);
static_assert(offsetof(WIN_FIND_DATA, cFileName) == 44);
static_assert(offsetof(WIN_FIND_DATA, cAlternateFileName) == 564);
static_assert(sizeof(WIN_FIND_DATA::cFileName) == 520 && sizeof(WIN_FIND_DATA::cAlternateFileName) == 28);

/// A record with guards around it; every byte is 0xA5 at first.
struct GUARDED {
  unsigned char Before[64];
  WIN_FIND_DATA Data;
  unsigned char After[64];

  GUARDED() { std::memset(this, 0xA5, sizeof *this); }
  bool GuardsHold() const {
    const GUARDED fresh;
    return std::memcmp(Before, fresh.Before, sizeof Before) == 0 && std::memcmp(After, fresh.After, sizeof After) == 0;
  }
};

/// Takes a locale for as long as it lives.
class CLocale {
 public:
  explicit CLocale(const char* name) : m_Old(std::setlocale(LC_ALL, nullptr)) {
    EXPECT_NE(std::setlocale(LC_ALL, name), nullptr) << name;
  }
  ~CLocale() { std::setlocale(LC_ALL, m_Old.c_str()); }
  CLocale(const CLocale&) = delete;
  CLocale& operator=(const CLocale&) = delete;

 private:
  std::string m_Old;
};

/// The 11 bytes given as a literal, zeros included.
template <std::size_t N>
SHORT_NAME Eleven(const char (&text)[N]) {
  static_assert(N == 12, "a short name has 11 bytes");
  SHORT_NAME name{};
  std::transform(text, text + 11, name.begin(), [](char c) { return static_cast<unsigned char>(c); });
  return name;
}

/// What FillFindName makes of a short name.
UTF16 Alternate(const SHORT_NAME& name) {
  GUARDED record;
  CFatFileSystem::FillFindName(0, nullptr, name.data(), &record.Data);
  EXPECT_TRUE(record.GuardsHold());
  EXPECT_EQ(record.Data.cFileName[0], 0);
  EXPECT_EQ(record.Data.cFileName[1], 0xA5A5);
  UTF16 units;
  for (const unsigned short unit : record.Data.cAlternateFileName) {
    if (unit == 0) return units;
    units.push_back(unit);
  }
  ADD_FAILURE() << "no terminator";
  return units;
}

struct SHORT_NAME_CASE {
  SHORT_NAME Bytes;
  const char* Text;
};

TEST(FillFindName, ShortNames_BecomeBaseDotExtension) {
  const CLocale locale("C");
  const SHORT_NAME_CASE cases[] = {
      {Eleven("README  TXT"), "README.TXT"}, {Eleven("MAKEFILE   "), "MAKEFILE"},
      {Eleven("A       B  "), "A.B"},        {Eleven("ABCDEFGHIJK"), "ABCDEFGH.IJK"},
      {Eleven("A          "), "A"},          {Eleven("A B C   D E"), "A B C.D E"},
      {Eleven("  A      B "), "  A. B"},     {Eleven(".          "), "."},
      {Eleven("..         "), ".."},         {Eleven("LONGFI~1TEX"), "LONGFI~1.TEX"},
      {Eleven("lower   txt"), "lower.txt"},  // the case of the bytes is kept
  };
  for (const SHORT_NAME_CASE& c : cases) EXPECT_EQ(ToUtf8(Alternate(c.Bytes)), c.Text);
}

TEST(FillFindName, BlankBase_EndsAtTheStartOfTheField) {
  const CLocale locale("C");
  EXPECT_EQ(ToUtf8(Alternate(Eleven("           "))), "");
  EXPECT_EQ(ToUtf8(Alternate(Eleven("        TXT"))), ".TXT");
  EXPECT_EQ(ToUtf8(Alternate(Eleven("          T"))), ".  T");
}

TEST(FillFindName, ZeroByteInAPart_EndsIt) {
  const CLocale locale("C");
  EXPECT_EQ(ToUtf8(Alternate(Eleven("AB\0CD   TXT"))), "AB.TXT");
  EXPECT_EQ(ToUtf8(Alternate(Eleven("ABC     T\0X"))), "ABC.T");
  EXPECT_EQ(ToUtf8(Alternate(Eleven("\0BC     TXT"))), ".TXT");
  EXPECT_EQ(ToUtf8(Alternate(Eleven("A  \0    \0XT"))), "A");
  EXPECT_EQ(ToUtf8(Alternate(SHORT_NAME{})), "");
}

TEST(FillFindName, LeadByte05_IsNotTranslated) {
  for (const char* name : {"C", "C.UTF-8"}) {
    const CLocale locale(name);
    EXPECT_EQ(Alternate(Eleven("\005BC     TXT")), (UTF16{5, 'B', 'C', '.', 'T', 'X', 'T'}));
  }
}

TEST(FillFindName, BytesOfTheLocale_BecomeItsCharacters) {
  const CLocale locale("C.UTF-8");
  EXPECT_EQ(Alternate(Eleven("\xC3\x84"
                             "BC    TXT")),
            (UTF16{0xC4, 'B', 'C', '.', 'T', 'X', 'T'}));
  EXPECT_EQ(Alternate(Eleven("\xE6\xBC\xA2\xE5\xAD\x97  \xD0\x9F"
                             "Z")),
            (UTF16{0x6F22, 0x5B57, '.', 0x41F, 'Z'}));
  // A character beyond 16 bits is cut to its low half.
  EXPECT_EQ(Alternate(Eleven("\xF0\x9F\x98\x80       ")), (UTF16{0xF600}));
}

TEST(FillFindName, BytesInvalidInTheLocale_GiveNoShortName) {
  const SHORT_NAME badBase = Eleven(
      "\xC4"
      "BC     TXT");
  const SHORT_NAME badExtension = Eleven("ABC     T\xFF ");
  const SHORT_NAME splitCharacter = Eleven(
      "ABCDEFG\xC3\x84"
      "AB");
  for (const char* name : {"C", "C.UTF-8"}) {
    const CLocale locale(name);
    for (const SHORT_NAME& bytes : {badBase, badExtension, splitCharacter}) {
      wchar_t wide[12];
      const std::string base(bytes.begin(), bytes.begin() + 8);
      const std::string extension(bytes.begin() + 8, bytes.end());
      constexpr std::size_t INVALID = static_cast<std::size_t>(-1);
      ASSERT_TRUE(std::mbstowcs(wide, base.c_str(), 8) == INVALID ||
                  std::mbstowcs(wide, extension.c_str(), 3) == INVALID);
      EXPECT_EQ(Alternate(bytes), UTF16{}) << name;
    }
  }
  const CLocale locale("C");
  EXPECT_EQ(Alternate(Eleven("\xC3\x84"
                             "BC    TXT")),
            UTF16{});  // valid elsewhere only
}

TEST(FillFindName, BytesInvalidInTheLocale_LeaveTheLongName) {
  const CLocale locale("C.UTF-8");
  const UTF16 name = ToUtf16("Long");
  GUARDED record;
  CFatFileSystem::FillFindName(4, name.data(),
                               Eleven("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"
                                      "TXT")
                                   .data(),
                               &record.Data);
  EXPECT_EQ(ToUtf8Z(record.Data.cFileName, FILE_NAME_UNITS), "Long");
  EXPECT_EQ(record.Data.cAlternateFileName[0], 0);
}

TEST(FillFindName, LongNamesOfEveryLength_AreCopiedAndTerminated) {
  UTF16 name(FILE_NAME_UNITS);
  for (unsigned int i = 0; i < FILE_NAME_UNITS; ++i) name[i] = static_cast<unsigned short>(0x3000 + i);
  for (unsigned int count = 0; count <= FILE_NAME_UNITS; ++count) {
    const std::vector<unsigned short> exact(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(count));
    GUARDED record;
    CFatFileSystem::FillFindName(count, exact.data(), Eleven("README  TXT").data(), &record.Data);
    ASSERT_TRUE(record.GuardsHold());
    ASSERT_TRUE(std::equal(exact.begin(), exact.end(), record.Data.cFileName)) << count;
    if (count < FILE_NAME_UNITS) {
      ASSERT_EQ(record.Data.cFileName[count], 0) << count;
    }
    if (count + 1 < FILE_NAME_UNITS) {
      ASSERT_EQ(record.Data.cFileName[count + 1], 0xA5A5) << count;
    }
    ASSERT_EQ(ToUtf8Z(record.Data.cAlternateFileName, 14), "README.TXT") << count;
  }
}

TEST(FillFindName, FieldsBeforeTheNames_AreNotTouched) {
  GUARDED record;
  const GUARDED fresh;
  CFatFileSystem::FillFindName(0, nullptr, Eleven("README  TXT").data(), &record.Data);
  EXPECT_EQ(std::memcmp(&record.Data, &fresh.Data, offsetof(WIN_FIND_DATA, cFileName)), 0);
}

// ---------------------------------------------------------------------------------------------- frames

FAT_GEOMETRY Geometry(unsigned int bits) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = bits;
  return geometry;
}

/// A volume to be built by the test and mounted on a medium that counts.
class Find : public CLibFixture {
 protected:
  explicit Find(unsigned int bits = 16) : m_Builder(Geometry(bits)) {}

  void MountBuilt() {
    m_pMedium = std::make_unique<CMedium>(m_Builder.Image());
    m_pFileSystem = MountMedium(*m_pMedium);
    ASSERT_NE(m_pFileSystem, nullptr);
    m_pMedium->ClearTrace();
  }

  static constexpr CImageBuilder::DIRECTORY ROOT = CImageBuilder::Root();

  /// The name in a record; "" when there is none.
  static std::string Name(const WIN_FIND_DATA& data) { return ToListed(data).Name(); }
  /// Starts a search. @return its handle; the first name goes to `name`
  static int First(const std::string& path, std::string& name) {
    WIN_FIND_DATA data{};
    const int search = Fat_FindFirstFile(CPath(path), &data);
    name = search == NO_HANDLE ? "" : Name(data);
    return search;
  }
  /// The next name, or "" at the end.
  static std::string Next(int search) {
    WIN_FIND_DATA data{};
    return Fat_FindNextFile(search, &data) == 1 ? Name(data) : "";
  }
  /// Steps to a name. Fails the test when it does not come.
  static int SearchAt(const std::string& path, const std::string& wanted) {
    std::string name;
    const int search = First(path, name);
    EXPECT_NE(search, NO_HANDLE);
    while (!name.empty() && name != wanted) name = Next(search);
    EXPECT_EQ(name, wanted);
    return search;
  }
  /// The names from where the search stands to the end.
  static NAMES Rest(int search) {
    NAMES names;
    for (std::string name = Next(search); !name.empty(); name = Next(search)) names.push_back(name);
    return names;
  }
  static NAMES All(const std::string& path) {
    NAMES names;
    for (const LISTED& listed : List(path, true)) names.push_back(listed.Name());
    return names;
  }
  static void CloseFind(int search) { EXPECT_EQ(Fat_CloseFindHandle(search), 1u); }
  /// Opens and closes as many other files as push everything else out of the cache of open files.
  void AddFillers() {
    const CImageBuilder::DIRECTORY fill = m_Builder.AddDir(ROOT, "FILL");
    for (int i = 0; i < 160; ++i) m_Builder.AddFile(fill, "F" + std::to_string(i));
  }
  static void OpenFillers() {
    for (int i = 0; i < 160; ++i) ASSERT_TRUE(Exists("FILL\\F" + std::to_string(i)));
  }

  CImageBuilder m_Builder;
  std::unique_ptr<CMedium> m_pMedium;
  CFatFileSystem* m_pFileSystem = nullptr;
};

/// Directory D with four files, an empty directory, and fillers.
class FindInD : public Find {
 protected:
  FindInD() : m_nDir(m_Builder.AddDir(ROOT, "D")) {
    for (const char* name : {"A", "B", "C", "E"}) m_Builder.AddFile(m_nDir, name, CImageBuilder::Pattern(10, 1));
    m_Builder.AddDir(ROOT, "OTHER");
    AddFillers();
  }
  void SetUp() override {
    Find::SetUp();
    MountBuilt();
  }
  const CImageBuilder::DIRECTORY m_nDir;
};

// ---------------------------------------------------------------------------------------------- entries

/// Adds entries straight to a directory without "." and "..", which is listed from its first entry on.
class FindEntries : public Find {
 protected:
  FindEntries() : m_nDir(m_Builder.AddDir(ROOT, "D")) { m_Builder.SetNextSlot(m_nDir, 0); }
  ~FindEntries() override = default;

  /// The records of D.
  std::vector<WIN_FIND_DATA> Records() {
    MountBuilt();
    std::vector<WIN_FIND_DATA> records;
    GUARDED record;
    const int search = Fat_FindFirstFile(CPath("D"), &record.Data);
    if (search == NO_HANDLE) return records;
    do {
      records.push_back(record.Data);
      record = GUARDED();
    } while (Fat_FindNextFile(search, &record.Data) == 1);
    CloseFind(search);
    return records;
  }
  /// Clears the two entries that every directory is made with.
  void ClearDots() {
    for (unsigned int slot = 0; slot < 2; ++slot) m_Builder.SetEntry(m_nDir, slot, RAW_ENTRY{});
  }
  const CImageBuilder::DIRECTORY m_nDir;
};

TEST_F(FindEntries, OnlyAShortName_GivesAnEmptyLongName) {
  ClearDots();
  m_Builder.AddFile(m_nDir, "README.TXT", CImageBuilder::Pattern(700, 1));
  const std::vector<WIN_FIND_DATA> records = Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].cFileName[0], 0);
  EXPECT_EQ(ToUtf8Z(records[0].cAlternateFileName, 14), "README.TXT");
}

TEST_F(FindEntries, NoExtension_GivesNoDot) {
  ClearDots();
  m_Builder.Append(m_nDir, CImageBuilder::ShortEntry(Eleven("MAKEFILE   "), 0x20, 0, 0));
  m_Builder.Append(m_nDir, CImageBuilder::ShortEntry(Eleven("A       B  "), 0x20, 0, 0));
  const std::vector<WIN_FIND_DATA> records = Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(ToUtf8Z(records[0].cAlternateFileName, 14), "MAKEFILE");
  EXPECT_EQ(ToUtf8Z(records[1].cAlternateFileName, 14), "A.B");
}

TEST_F(FindEntries, LongName_ComesWithItsCaseAndTheShortName) {
  ClearDots();
  ENTRY_OPTIONS options;
  options.ShortName = "README~1TXT";
  m_Builder.AddFile(m_nDir, "Read Me.txt", {}, {}, options);
  const std::vector<WIN_FIND_DATA> records = Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(ToUtf8Z(records[0].cFileName, FILE_NAME_UNITS), "Read Me.txt");
  EXPECT_EQ(ToUtf8Z(records[0].cAlternateFileName, 14), "README~1.TXT");
}

TEST_F(FindEntries, EveryEntry_GivesAttributesSizeAndTheOneTime) {
  ClearDots();
  // Each stamp with its own date and time, of which none must show.
  for (const unsigned int attributes : {0x00u, 0x01u, 0x27u, 0x80u, 0xE7u}) {
    const std::string name = "F" + std::to_string(attributes);
    RAW_ENTRY entry = CImageBuilder::ShortEntry(CImageBuilder::ShortName(name), attributes, 0, 0xFFFFFF00u + attributes,
                                                0x21 * attributes, 0x1234 + attributes);
    m_Builder.Append(m_nDir, entry);
  }
  const std::vector<WIN_FIND_DATA> records = Records();
  ASSERT_EQ(records.size(), 5u);
  for (const WIN_FIND_DATA& record : records) {
    EXPECT_EQ(Name(record), "F" + std::to_string(record.dwFileAttributes));
    EXPECT_EQ(record.nFileSizeLow, 0xFFFFFF00u + record.dwFileAttributes);
    EXPECT_EQ(record.nFileSizeHigh, 0u);
    EXPECT_EQ(record.dwReserved0, 0xA5A5A5A5u);
    EXPECT_EQ(record.dwReserved1, 0xA5A5A5A5u);
    for (const WIN_FTIME& time : {record.ftCreationTime, record.ftLastAccessTime, record.ftLastWriteTime}) {
      EXPECT_EQ(static_cast<unsigned long long>(time.dwHighDateTime) << 32 | time.dwLowDateTime, 116444735990000000ull);
    }
  }
}

TEST_F(FindEntries, LabelDeletedAndStrayEntries_AreNotListed) {
  ClearDots();
  m_Builder.AddFile(m_nDir, "FIRST");
  m_Builder.Append(m_nDir, CImageBuilder::ShortEntry(Eleven("A LABEL    "), 0x08, 0, 0));
  RAW_ENTRY deleted = CImageBuilder::ShortEntry(Eleven("GONE       "), 0x20, 0, 0);
  deleted[0] = 0xE5;
  m_Builder.Append(m_nDir, deleted);
  m_Builder.Append(m_nDir, CImageBuilder::LongEntries(ToUtf16("a stray long name"), 0x77));
  m_Builder.AddFile(m_nDir, "LAST");
  m_Builder.Append(m_nDir, RAW_ENTRY{});
  m_Builder.AddFile(m_nDir, "BEHIND");
  MountBuilt();
  EXPECT_EQ(All("D"), (NAMES{"FIRST", "LAST"}));
}

TEST_F(FindEntries, NameOf260Units_FillsItsFieldWithoutTerminator) {
  ClearDots();
  UTF16 name(FILE_NAME_UNITS, 'n');
  const SHORT_NAME shortName = Eleven("NNNNNN~1   ");
  m_Builder.Append(m_nDir, CImageBuilder::EntrySet(name, CImageBuilder::ShortEntry(shortName, 0x20, 0, 7)));
  name.resize(259);
  m_Builder.Append(m_nDir, CImageBuilder::EntrySet(name, CImageBuilder::ShortEntry(Eleven("NNNNNN~2   "), 0x20, 0, 8)));
  const std::vector<WIN_FIND_DATA> records = Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(std::count(std::begin(records[0].cFileName), std::end(records[0].cFileName), 'n'), 260);
  EXPECT_EQ(ToUtf8Z(records[0].cAlternateFileName, 14), "NNNNNN~1");
  EXPECT_EQ(std::count(std::begin(records[1].cFileName), std::end(records[1].cFileName), 'n'), 259);
  EXPECT_EQ(records[1].cFileName[259], 0);
  EXPECT_EQ(ToUtf8Z(records[1].cAlternateFileName, 14), "NNNNNN~2");
}

TEST_F(FindEntries, FileOpenedByAPathOf259Units_ShowsTheSameNames) {
  ClearDots();
  const std::string name(257, 'n');  // "D\" and the name are 259 units
  m_Builder.AddFile(m_nDir, name);
  const std::vector<WIN_FIND_DATA> records = Records();
  ASSERT_EQ(records.size(), 1u);
  const int file = Fat_OpenFile(CPath("D\\" + name));
  ASSERT_NE(file, NO_HANDLE);
  GUARDED record;
  EXPECT_EQ(Fat_GetFileAttribute(file, &record.Data), 1u);
  EXPECT_EQ(std::memcmp(&record.Data, &records[0], sizeof(WIN_FIND_DATA)), 0);
  EXPECT_EQ(Fat_CloseFile(file), 1u);
}

TEST_F(FindEntries, DirectoryWithoutAnEntry_FailsLikeAMissingOne) {
  ClearDots();
  MountBuilt();
  WIN_FIND_DATA data{};
  EXPECT_EQ(Fat_FindFirstFile(CPath("D"), &data), NO_HANDLE);
  EXPECT_EQ(Fat_FindFirstFile(CPath("MISSING"), &data), NO_HANDLE);
  EXPECT_EQ(Fat_DeleteFile(CPath("D")), 1u);  // no reference was left on it
}

TEST_F(FindEntries, DirectoryWithALabelOnly_FailsLikeAMissingOne) {
  ClearDots();
  m_Builder.Append(m_nDir, CImageBuilder::ShortEntry(Eleven("A LABEL    "), 0x08, 0, 0));
  EXPECT_TRUE(Records().empty());
}

TEST_F(FindEntries, NewDirectory_HoldsDotAndDotDotFirst) {
  MountBuilt();
  EXPECT_EQ(Fat_CreateDir(CPath("N"), 0x02), 1u);
  EXPECT_TRUE(WritePath("N\\FILE", {}));
  const std::vector<LISTED> listed = List("N", true);
  ASSERT_EQ(listed.size(), 3u);
  EXPECT_EQ(listed[0].ShortName, ".");
  EXPECT_EQ(listed[1].ShortName, "..");
  EXPECT_EQ(listed[2].ShortName, "FILE");
  EXPECT_TRUE(listed[0].IsDir() && listed[1].IsDir());
}

TEST_F(FindEntries, TwoClustersOfLongNames_ComeInTheirOrder) {
  NAMES expected = {".", ".."};
  m_Builder.SetNextSlot(m_nDir, 2);
  for (int i = 0; i < 30; ++i) {
    expected.push_back("Long name number " + std::to_string(i));
    m_Builder.AddFile(m_nDir, expected.back());
  }
  MountBuilt();
  EXPECT_EQ(All("D"), expected);
}

// ---------------------------------------------------------------------------------------------- stepping

TEST_F(FindInD, AtTheEnd_FalseAndThenTheFirstEntryAgain) {
  std::string name;
  const int search = First("D", name);
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(name, ".") << round;
    EXPECT_EQ(Rest(search), (NAMES{"..", "A", "B", "C", "E"})) << round;
    name = Next(search);
  }
  CloseFind(search);
}

TEST_F(FindInD, TwoEntries_SecondThenFalseThenTheFirstAgain) {
  std::string name;
  const int search = First("OTHER", name);
  EXPECT_EQ(name, ".");
  EXPECT_EQ(Next(search), "..");
  EXPECT_EQ(Next(search), "");
  EXPECT_EQ(Next(search), ".");
  CloseFind(search);
}

TEST_F(FindInD, AtTheEnd_TheRecordIsNotTouched) {
  const int search = SearchAt("D", "E");
  GUARDED record;
  const GUARDED fresh;
  EXPECT_EQ(Fat_FindNextFile(search, &record.Data), 0u);
  EXPECT_EQ(std::memcmp(&record, &fresh, sizeof record), 0);
  CloseFind(search);
}

TEST_F(FindInD, Stepping_MakesNoTransfer) {
  const int search = SearchAt("D", ".");
  m_pMedium->ClearTrace();
  EXPECT_EQ(Rest(search).size(), 5u);
  EXPECT_EQ(m_pMedium->Transfers(), 0u);
  CloseFind(search);
}

TEST_F(FindInD, TwoSearches_StepOnTheirOwn) {
  const int one = SearchAt("D", "A");
  const int two = SearchAt("D", "C");
  EXPECT_EQ(Next(one), "B");
  EXPECT_EQ(Next(two), "E");
  EXPECT_EQ(Next(one), "C");
  EXPECT_EQ(Next(two), "");
  EXPECT_EQ(Next(one), "E");
  CloseFind(one);
  CloseFind(two);
}

TEST_F(FindInD, PathInAnyForm_FindsTheDirectory) {
  for (const char* path : {"D", "d", "\\D", "D\\", "D.", " D "}) EXPECT_EQ(All(path).size(), 6u) << path;
}

// ---------------------------------------------------------------------------------------------- references

/// The object of a path without a reference of the caller's.
CFatFile* Peek(CFatFileSystem* fileSystem, const char* path) {
  CFatFile* file = nullptr;
  if (fileSystem->OpenFile(CPath(path), &file) < 0) return nullptr;
  (void)file->Release();
  return file;
}

TEST_F(FindInD, PathOfAFile_GivesNullAndLeavesNoReference) {
  WIN_FIND_DATA data{};
  EXPECT_EQ(m_pFileSystem->FindFirstFile(CPath("D\\A"), &data), nullptr);
  EXPECT_EQ(Peek(m_pFileSystem, "D\\A")->RefCount(), 1u);
  EXPECT_EQ(Fat_FindFirstFile(CPath("D\\A"), &data), NO_HANDLE);
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\A")), 1u);
}

TEST_F(FindInD, OpenSearch_HoldsOneReferenceUntilItIsClosed) {
  WIN_FIND_DATA data{};
  FIND_CTX* search = m_pFileSystem->FindFirstFile(CPath("D"), &data);
  ASSERT_NE(search, nullptr);
  EXPECT_EQ(search->m_pDir->RefCount(), 2u);
  EXPECT_EQ(Fat_DeleteFile(CPath("D")), 0u);
  EXPECT_EQ(Fat_MoveFile(CPath("D"), CPath("OTHER")), 0u);
  CFatFileSystem::CloseFindCtx(search);
  EXPECT_EQ(Peek(m_pFileSystem, "D")->RefCount(), 1u);
}

TEST_F(FindInD, SearchClosed_DirectoryCanBeDeleted) {
  const int search = SearchAt("D", "A");
  for (const char* path : {"D\\A", "D\\B", "D\\C", "D\\E"}) EXPECT_EQ(Fat_DeleteFile(CPath(path)), 1u);
  EXPECT_EQ(Fat_DeleteFile(CPath("D")), 0u);
  CloseFind(search);
  EXPECT_EQ(Fat_DeleteFile(CPath("D")), 1u);
}

TEST_F(FindInD, DirectoryEvicted_SearchGoesOn) {
  const int search = SearchAt("D", "A");
  OpenFillers();
  PATH_HASH hash;
  EXPECT_EQ(m_pFileSystem->FileCache()->Find(CPath("D"), hash), nullptr);
  EXPECT_EQ(Rest(search), (NAMES{"B", "C", "E"}));
  CloseFind(search);
}

TEST_F(FindInD, ManySearchesFailed_NothingIsTaken) {
  WIN_FIND_DATA data{};
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(Fat_FindFirstFile(CPath("D\\A"), &data), NO_HANDLE);
    EXPECT_EQ(Fat_FindFirstFile(CPath("D\\MISSING"), &data), NO_HANDLE);
  }
  const int search = SearchAt("D", ".");
  EXPECT_EQ(search, 0);
  CloseFind(search);
}

// ---------------------------------------------------------------------------------------------- the root

class FindRoot : public Find, public ::testing::WithParamInterface<unsigned int> {
 protected:
  FindRoot() : Find(GetParam()) {}
  NAMES RootNames() {
    NAMES names;
    WIN_FIND_DATA data{};
    FIND_CTX* search = m_pFileSystem->FindFirstFile(nullptr, &data);
    if (search == nullptr) return names;
    do names.push_back(Name(data));
    while (CFatFileSystem::FindNextFile(search, &data));
    CFatFileSystem::CloseFindCtx(search);
    return names;
  }
};

TEST_P(FindRoot, WithoutAPath_ListsTheRootButNotTheLabel) {
  m_Builder.AddLabel(ROOT, "VOLUME");
  m_Builder.AddFile(ROOT, "FILE");
  m_Builder.AddDir(ROOT, "A directory");
  MountBuilt();
  EXPECT_EQ(RootNames(), (NAMES{"FILE", "A directory"}));
}

TEST_P(FindRoot, ListedAgainAndAgain_TheRootKeepsItsReference) {
  m_Builder.AddFile(ROOT, "FILE");
  MountBuilt();
  WIN_FIND_DATA data{};
  FIND_CTX* open = m_pFileSystem->FindFirstFile(nullptr, &data);
  ASSERT_NE(open, nullptr);
  EXPECT_EQ(m_pFileSystem->Root()->RefCount(), 2u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(RootNames(), NAMES{"FILE"});
  CFatFileSystem::CloseFindCtx(open);
  EXPECT_EQ(m_pFileSystem->Root()->RefCount(), 1u);
  EXPECT_TRUE(WritePath("NEW", {}));
  EXPECT_EQ(RootNames(), (NAMES{"FILE", "NEW"}));
  EXPECT_TRUE(Unmount(m_pFileSystem));
}

TEST_P(FindRoot, EmptyRoot_GivesNullAndKeepsItsReference) {
  m_Builder.AddLabel(ROOT, "VOLUME");
  MountBuilt();
  WIN_FIND_DATA data{};
  for (int i = 0; i < 3; ++i) EXPECT_EQ(m_pFileSystem->FindFirstFile(nullptr, &data), nullptr);
  EXPECT_EQ(m_pFileSystem->Root()->RefCount(), 1u);
}

TEST_P(FindRoot, UnmountedWhileListed_TheSearchCanBeClosed) {
  m_Builder.AddFile(ROOT, "FILE");
  MountBuilt();
  WIN_FIND_DATA data{};
  FIND_CTX* search = m_pFileSystem->FindFirstFile(nullptr, &data);
  ASSERT_NE(search, nullptr);
  EXPECT_TRUE(WritePath("NEW", {}));
  EXPECT_TRUE(Unmount(m_pFileSystem));
  m_pMedium->ClearTrace();
  CFatFileSystem::CloseFindCtx(search);
  EXPECT_EQ(m_pMedium->Transfers(), 0u);
  EXPECT_NE(CVolumeReader(m_pMedium->Image()).Find("NEW"), nullptr);
}

TEST_P(FindRoot, ThroughTheInterface_CannotBeListed) {
  m_Builder.AddFile(ROOT, "FILE");
  MountBuilt();
  WIN_FIND_DATA data{};
  EXPECT_EQ(Fat_FindFirstFile(nullptr, &data), NO_HANDLE);
  for (const char* path : {"", "\\", " ", ".", "\\ "}) EXPECT_EQ(Fat_FindFirstFile(CPath(path), &data), NO_HANDLE);
}

INSTANTIATE_TEST_SUITE_P(Widths, FindRoot, ::testing::Values(12u, 16u, 32u),
                         [](const ::testing::TestParamInfo<unsigned int>& bits) {
                           return "Fat" + std::to_string(bits.param);
                         });

// ---------------------------------------------------------------------------------------------- changes under a search

TEST_F(FindInD, EntryDeletedUnderTheSearch_TheNextOneFollows) {
  const int search = SearchAt("D", "B");
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\B")), 1u);
  EXPECT_EQ(Rest(search), (NAMES{"C", "E"}));
  CloseFind(search);
  EXPECT_EQ(All("D"), (NAMES{".", "..", "A", "C", "E"}));
}

TEST_F(FindInD, EveryEntryDeletedAsItIsListed_NoneIsSkipped) {
  std::string name;
  NAMES deleted;
  const int search = First("D", name);
  for (; !name.empty(); name = Next(search)) {
    if (name[0] == '.') continue;
    EXPECT_EQ(Fat_DeleteFile(CPath("D\\" + name)), 1u) << name;
    deleted.push_back(name);
  }
  EXPECT_EQ(deleted, (NAMES{"A", "B", "C", "E"}));
  EXPECT_EQ(Next(search), ".");
  EXPECT_EQ(Next(search), "..");
  EXPECT_EQ(Next(search), "");
  CloseFind(search);
}

TEST_F(FindInD, SearchClosedOnADeletedEntry_NothingIsLeft) {
  const int search = SearchAt("D", "B");
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\B")), 1u);
  CloseFind(search);
}

TEST_F(FindInD, TwoSearchesOnADeletedEntry_BothGoOn) {
  const int one = SearchAt("D", "B");
  const int two = SearchAt("D", "B");
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\B")), 1u);
  EXPECT_EQ(Next(one), "C");
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\C")), 1u);
  EXPECT_EQ(Next(two), "E");
  EXPECT_EQ(Next(one), "E");
  CloseFind(one);
  CloseFind(two);
}

TEST_F(FindInD, LastEntryDeletedUnderTheSearch_TheEndFollowsAndThenTheFirst) {
  const int search = SearchAt("D", "E");
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\E")), 1u);
  EXPECT_EQ(Next(search), "");
  EXPECT_EQ(Next(search), ".");
  CloseFind(search);
}

TEST_F(FindInD, EntriesDeletedBeforeAndBehind_OnlyThoseBehindAreMissed) {
  const int search = SearchAt("D", "B");
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\A")), 1u);
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\C")), 1u);
  EXPECT_EQ(Rest(search), NAMES{"E"});
  CloseFind(search);
}

TEST_F(FindInD, FileCreatedInTheDeletedPlace_IsPassedOver) {
  const int search = SearchAt("D", "B");
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\B")), 1u);
  EXPECT_TRUE(WritePath("D\\NEW", {}));
  EXPECT_EQ(All("D"), (NAMES{".", "..", "A", "NEW", "C", "E"}));
  EXPECT_EQ(Rest(search), (NAMES{"C", "E"}));
  CloseFind(search);
}

TEST_F(FindInD, FilesCreatedBeforeAndBehind_OnlyThoseBehindAreSeen) {
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\A")), 1u);
  const int search = SearchAt("D", "B");
  EXPECT_TRUE(WritePath("D\\BEFORE", {}));
  EXPECT_TRUE(WritePath("D\\BEHIND", {}));
  EXPECT_EQ(All("D"), (NAMES{".", "..", "BEFORE", "B", "C", "E", "BEHIND"}));
  EXPECT_EQ(Rest(search), (NAMES{"C", "E", "BEHIND"}));
  CloseFind(search);
}

TEST_F(FindInD, SoManyFilesCreatedThatTheDirectoryGrows_AllAreSeen) {
  const int search = SearchAt("D", "E");
  NAMES created;
  for (int i = 0; i < 60; ++i) {
    created.push_back("N" + std::to_string(i));
    ASSERT_TRUE(WritePath("D\\" + created.back(), {}));
  }
  EXPECT_EQ(Rest(search), created);
  CloseFind(search);
}

TEST_F(FindInD, EntryRenamedUnderTheSearch_TheNextPlaceFollows) {
  // The new name takes more slots, so it goes behind the others, where it is seen again.
  const int search = SearchAt("D", "B");
  EXPECT_EQ(Fat_RenameFile(CPath("D\\B"), CPath("A longer name")), 1u);
  EXPECT_EQ(Rest(search), (NAMES{"C", "E", "A longer name"}));
  CloseFind(search);
}

TEST_F(FindInD, EntryRenamedInItsPlaceUnderTheSearch_IsNotSeenAgain) {
  const int search = SearchAt("D", "B");
  EXPECT_EQ(Fat_RenameFile(CPath("D\\B"), CPath("BB")), 1u);
  EXPECT_EQ(All("D"), (NAMES{".", "..", "A", "BB", "C", "E"}));
  EXPECT_EQ(Rest(search), (NAMES{"C", "E"}));
  CloseFind(search);
}

TEST_F(FindInD, EntryMovedAwayUnderTheSearch_ItsNewPlaceCounts) {
  // It lands in slot 2 of the other directory, behind the dots, so the search goes on at slot 3.
  const int search = SearchAt("D", "C");
  EXPECT_EQ(Fat_MoveFile(CPath("D\\C"), CPath("OTHER")), 1u);
  EXPECT_EQ(All("OTHER"), (NAMES{".", "..", "C"}));
  EXPECT_EQ(Rest(search), (NAMES{"B", "E"}));
  CloseFind(search);
}

TEST_F(FindInD, EntryMovedToADirectoryThatIsThenEvicted_SearchGoesOn) {
  const int search = SearchAt("D", "C");
  EXPECT_EQ(Fat_MoveFile(CPath("D\\C"), CPath("OTHER")), 1u);
  OpenFillers();
  PATH_HASH hash;
  EXPECT_EQ(m_pFileSystem->FileCache()->Find(CPath("OTHER"), hash), nullptr);
  EXPECT_EQ(Rest(search), (NAMES{"B", "E"}));
  CloseFind(search);
}

TEST_F(FindInD, EntryMovedAndThenDeletedThere_SearchGoesOn) {
  const int search = SearchAt("D", "C");
  EXPECT_EQ(Fat_MoveFile(CPath("D\\C"), CPath("OTHER")), 1u);
  EXPECT_EQ(Fat_DeleteFile(CPath("OTHER\\C")), 1u);
  EXPECT_EQ(Rest(search), (NAMES{"B", "E"}));
  CloseFind(search);
}

TEST_F(FindInD, DirectoryEvictedAndOpenedAgain_SearchSeesItAsItWas) {
  // The search holds the first object; the paths below now lead to a second one.
  const int search = SearchAt("D", "A");
  OpenFillers();
  EXPECT_EQ(Fat_DeleteFile(CPath("D\\C")), 1u);
  EXPECT_EQ(Rest(search), (NAMES{"B", "C", "E"}));
  CloseFind(search);
}

TEST_F(FindInD, RenameThatFails_LeavesTheSearchOnTheEntry) {
  const int search = SearchAt("D", "B");
  EXPECT_EQ(Fat_RenameFile(CPath("D\\B"), CPath("C")), 0u);
  EXPECT_EQ(Fat_RenameFile(CPath("D\\B"), CPath("b")), 0u);
  EXPECT_EQ(Rest(search), (NAMES{"C", "E"}));
  CloseFind(search);
}

/// A directory of 16 slots: ".", "..", a free slot, A, a free slot, and B0 to B10 up to the end.
class FindWhileCompacted : public Find {
 protected:
  FindWhileCompacted() {
    const CImageBuilder::DIRECTORY dir = m_Builder.AddDir(ROOT, "D");
    RAW_ENTRY deleted{};
    deleted[0] = 0xE5;
    m_Builder.Append(dir, deleted);
    m_Builder.AddFile(dir, "A");
    m_Builder.Append(dir, deleted);
    for (int i = 0; i <= 10; ++i) m_Builder.AddFile(dir, "B" + std::to_string(i));
    EXPECT_EQ(m_Builder.NextSlot(dir), 16u);
  }
};

TEST_F(FindWhileCompacted, EntrySlidForwardUnderTheSearch_ItsNewPlaceCounts) {
  MountBuilt();
  const int search = SearchAt("D", "A");
  // Two slots are asked for and two are free, but apart: A slides from slot 3 to 2, and the new set takes 3 and 4.
  EXPECT_TRUE(WritePath("D\\New name", {}));
  EXPECT_EQ(Next(search), "New name");
  EXPECT_EQ(Next(search), "B0");
  CloseFind(search);
  EXPECT_TRUE(Unmount(m_pFileSystem));
  const CVolumeReader reader(m_pMedium->Image());
  EXPECT_EQ(reader.ProblemText(), "");
  ASSERT_NE(reader.Find("D\\New name"), nullptr);
  EXPECT_EQ(reader.Find("D\\New name")->FirstSlot, 3u);
}

TEST_F(FindWhileCompacted, SearchBehindTheCompactedPart_IsNotDisturbed) {
  MountBuilt();
  const int search = SearchAt("D", "B5");
  EXPECT_TRUE(WritePath("D\\New name", {}));
  EXPECT_EQ(Rest(search), (NAMES{"B6", "B7", "B8", "B9", "B10"}));
  CloseFind(search);
}

}  // namespace
