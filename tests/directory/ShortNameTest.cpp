/// @file ShortNameTest.cpp
/// The analysis of names and the invention of short ones. The counter behind the numeric tails counts on for as long as
/// the process lives: a test that depends on its value first moves it there by inventing names.

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "directory/DirEntCache.h"
#include "directory/ShortName.h"
#include "names/UpCase.h"
#include "support/ImageBuilder.h"
#include "support/Process.h"
#include "support/Utf16.h"

namespace {

constexpr unsigned int LAST_NUMBER = 99999;

/// Sets the locale of the process as long as it lives.
class CLocale {
 public:
  explicit CLocale(const char* name) : m_Saved(std::setlocale(LC_ALL, nullptr)) {
    EXPECT_NE(std::setlocale(LC_ALL, name), nullptr) << name;
  }
  ~CLocale() { std::setlocale(LC_ALL, m_Saved.c_str()); }
  CLocale(const CLocale&) = delete;
  CLocale& operator=(const CLocale&) = delete;

 private:
  std::string m_Saved;
};

// ---------------------------------------------------------------------------------------------- the reference

/// The bytes of an upper-cased unit in the locale; empty when it has none.
std::string Encode(unsigned short unit, bool utf8) {
  const unsigned int c = gUnicodeUpcase(unit);
  if (!utf8) {
    char bytes[64];
    std::mbstate_t state{};
    const std::size_t n = std::wcrtomb(bytes, static_cast<wchar_t>(c), &state);
    return n == static_cast<std::size_t>(-1) ? std::string() : std::string(bytes, n);
  }
  if (c >= 0xD800 && c < 0xE000) return {};
  std::string bytes;
  const auto put = [&bytes](unsigned int byte) {
    bytes.push_back(static_cast<char>(static_cast<unsigned char>(byte)));
  };
  if (c < 0x80) {  // "dotless i" and "long s" have upper-case forms in ASCII
    put(c);
    return bytes;
  }
  if (c < 0x800) {
    put(0xC0 + c / 64);
  } else {
    put(0xE0 + c / 4096);
    put(0x80 + c / 64 % 64);
  }
  put(0x80 + c % 64);
  return bytes;
}

struct STRICT {
  bool Valid = true;
  bool Converted = false;
  std::string Bytes;
};

STRICT StrictReference(const UTF16& units, std::size_t dstMax, bool utf8) {
  static const std::string s_Forbidden = "\"*+,./:;<=>?[\\]|";
  STRICT result;
  for (std::size_t i = 0; i < units.size() && result.Valid; ++i) {
    const unsigned short c = units[i];
    if (c >= 0x80) {
      result.Converted = true;
      const std::string bytes = Encode(c, utf8);
      result.Valid = !bytes.empty() && result.Bytes.size() + bytes.size() <= dstMax;
      if (result.Valid) result.Bytes += bytes;
    } else {
      const char letter = static_cast<char>(c);
      result.Valid = c > 0x20 && c < 0x7F && s_Forbidden.find(letter) == std::string::npos;
      result.Bytes += letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 32) : letter;
    }
    if (result.Valid && i + 1 < units.size() && result.Bytes.size() == dstMax) result.Valid = false;
  }
  return result;
}

/// What the characters 0x21 to 0x7F become; "." stands for itself and for "dropped".
const std::string LOSSY =
    "!_#$%&'()___-._0123456789______@ABCDEFGHIJKLMNOPQRSTUVWXYZ___^_`ABCDEFGHIJKLMNOPQRSTUVWXYZ{_}~_";

/// Works on a field, as the real one does: what it does not write stays. @return the bytes written
std::size_t LossyReference(std::string& field, std::size_t dstMax, const UTF16& units, bool utf8) {
  std::size_t total = 0;
  for (const unsigned short c : units) {
    if (c >= 0x80) {
      const std::string bytes = Encode(c, utf8);
      if (bytes.empty()) {
        field[total++] = '_';
      } else if (total + bytes.size() > dstMax) {
        for (std::size_t i = 0; i < bytes.size() && total + i < field.size(); ++i) field[total + i] = ' ';
        return total;
      } else {
        for (const char byte : bytes) field[total++] = byte;
      }
    } else if (c > 0x20 && LOSSY[c - 0x21u] != '.') {
      field[total++] = LOSSY[c - 0x21u];
    }
    if (total == dstMax) break;
  }
  return total;
}

// ---------------------------------------------------------------------------------------------- the code under test

constexpr char CANARY = '\x5A';

struct LOSSY_RESULT {
  std::size_t Count;
  std::string Field;
};

LOSSY_RESULT Lossy(const UTF16& units, unsigned int dstMax, std::string field) {
  std::vector<unsigned char> bytes(field.begin(), field.end());
  bytes.push_back(static_cast<unsigned char>(CANARY));
  const unsigned int n = MkShortName(bytes.data(), dstMax, static_cast<unsigned int>(field.size()), units.data(),
                                     static_cast<unsigned int>(units.size()));
  EXPECT_EQ(bytes.back(), static_cast<unsigned char>(CANARY));
  return {n, std::string(bytes.begin(), bytes.end() - 1)};
}

void ExpectStrict(const UTF16& units, unsigned int dstMax, bool utf8) {
  const STRICT expected = StrictReference(units, dstMax, utf8);
  std::vector<unsigned char> bytes(dstMax + 1, static_cast<unsigned char>(CANARY));
  bool converted = false;
  const bool valid =
      ToShortName(units.data(), static_cast<unsigned int>(units.size()), bytes.data(), dstMax, converted);
  ASSERT_EQ(valid, expected.Valid) << ToUtf8(units) << ", " << units[0] << ", at most " << dstMax;
  ASSERT_EQ(converted, expected.Converted) << ToUtf8(units);
  ASSERT_EQ(bytes.back(), static_cast<unsigned char>(CANARY));
  if (!valid) return;
  ASSERT_EQ(std::string(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(expected.Bytes.size())),
            expected.Bytes);
  for (std::size_t i = expected.Bytes.size(); i < dstMax; ++i) {
    ASSERT_EQ(bytes[i], static_cast<unsigned char>(CANARY)) << "only the bytes of the result are written";
  }
}

void ExpectLossy(const UTF16& units, unsigned int dstMax, unsigned int fieldSize, bool utf8) {
  std::string field(fieldSize, CANARY);
  const std::size_t n = LossyReference(field, dstMax, units, utf8);
  const LOSSY_RESULT result = Lossy(units, dstMax, std::string(fieldSize, CANARY));
  ASSERT_EQ(result.Count, n) << ToUtf8(units) << ", " << units[0] << ", at most " << dstMax;
  ASSERT_EQ(result.Field, field) << ToUtf8(units) << ", " << units[0] << ", at most " << dstMax;
}

DIRENT_NAME_CTX Analyse(const UTF16& units) {
  DIRENT_NAME_CTX context;
  std::memset(&context, 0xEE, sizeof context);
  UTF16 name = units;
  name.push_back(0);
  AnalyseFullFileName(name.data(), &context);
  return context;
}
DIRENT_NAME_CTX Analyse(const std::string& name) { return Analyse(ToUtf16(name)); }

std::string Eleven(const DIRENT_NAME_CTX& context) {
  return std::string(context.ShortName, context.ShortName + SHORT_NAME_SIZE);
}
std::string ElevenOf(const std::string& name) {
  const DIRENT_NAME_CTX context = Analyse(name);
  return context.HasShortName() ? Eleven(context) : "none";
}

UTF16 LongNameOf(const DIRENT_NAME_CTX& context) {
  UTF16 name;
  for (std::size_t i = 0; i <= MAX_NAME_UNITS && context.szLongName[i] != 0; ++i) name.push_back(context.szLongName[i]);
  return name;
}

/// A directory in memory, and the invention of names for it.
class CInventory {
 public:
  explicit CInventory(unsigned int slots = 64) { EXPECT_EQ(m_Cache.Grow(slots), STATUS_SUCCESS); }

  void AddShort(const std::string& eleven) {
    DENTCTX* record = nullptr;
    EXPECT_EQ(m_Cache.AddShortDirEnt(Entry(eleven), m_nNext++, record), STATUS_SUCCESS);
  }
  void AddLong(UTF16 name, const std::string& eleven) {
    DENTCTX* record = nullptr;
    name.push_back(0);
    ++m_nNext;
    EXPECT_EQ(m_Cache.AddLongDirEnt(Entry(eleven), m_nNext++, 1, name.data(), record), STATUS_SUCCESS);
  }
  int TryInvent(const std::string& name, DIRENT_NAME_CTX& context) {
    context = Analyse(name);
    return InventShortName(&m_Cache, &context);
  }
  /// The invented name: 11 bytes; behind them three zeros.
  std::string Invent(const std::string& name) {
    DIRENT_NAME_CTX context;
    EXPECT_EQ(TryInvent(name, context), STATUS_SUCCESS);
    for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(context.ShortName[SHORT_NAME_SIZE + i], 0);
    return Eleven(context);
  }
  CDirEntCache& Cache() { return m_Cache; }

 private:
  static CDirEnt Entry(const std::string& eleven) {
    CDirEnt entry{};
    std::memcpy(entry.Name, eleven.data(), SHORT_NAME_SIZE);
    entry.Attribute = ATTR_ARCHIVE;
    return entry;
  }

  CDirEntCache m_Cache;
  unsigned int m_nNext = 0;
};

/// Invents one name. @return the number in its tail
unsigned int UseOneNumber(CInventory& directory, DIRENT_NAME_CTX& context) {
  EXPECT_EQ(InventShortName(&directory.Cache(), &context), STATUS_SUCCESS);
  const std::string eleven = Eleven(context);
  return static_cast<unsigned int>(std::stoul(eleven.substr(eleven.find('~') + 1, 5)));
}
unsigned int UseOneNumber() {
  CInventory directory;
  DIRENT_NAME_CTX context = Analyse("a.b.c");
  return UseOneNumber(directory, context);
}

/// Moves the counter: the next invented name gets this number.
void MakeNext(unsigned int number) {
  const unsigned int before = number == 1 ? LAST_NUMBER : number - 1;
  CInventory directory;
  DIRENT_NAME_CTX context = Analyse("a.b.c");
  while (UseOneNumber(directory, context) != before) {
  }
}

class ShortNameCounter : public ::testing::Test {
 protected:
  CLocale m_Locale{"C"};
};

class ShortNameUtf8 : public ::testing::Test {
 protected:
  CLocale m_Locale{"C.UTF-8"};
};

class ShortNameLocales : public ::testing::TestWithParam<bool> {
 protected:
  bool Utf8() const { return GetParam(); }
  CLocale m_Locale{GetParam() ? "C.UTF-8" : "C"};
};

UTF16 RandomUnits(std::mt19937& random, std::size_t count) {
  UTF16 units;
  while (units.size() < count) {
    switch (random() % 4) {
      case 0:
        units.push_back(static_cast<unsigned short>(1 + random() % 0xFFFF));
        break;
      case 1:
        units.push_back(static_cast<unsigned short>(0x80 + random() % 0x700));
        break;
      default:
        units.push_back(static_cast<unsigned short>(0x20 + random() % 0x60));
    }
  }
  return units;
}

}  // namespace

// ------------------------------------------------------------------------------------------------ conversions

TEST_P(ShortNameLocales, EveryUnitAlone_IsConvertedStrictlyAsTheTableSays) {
  for (unsigned int unit = 1; unit <= 0xFFFF; ++unit) {
    for (const unsigned int dstMax : {1u, 2u, 3u, 8u}) {
      ASSERT_NO_FATAL_FAILURE(ExpectStrict({static_cast<unsigned short>(unit)}, dstMax, Utf8()));
    }
  }
}

TEST_P(ShortNameLocales, EveryUnitAlone_IsConvertedLossilyAsTheTableSays) {
  for (unsigned int unit = 1; unit <= 0xFFFF; ++unit) {
    for (const unsigned int dstMax : {1u, 2u, 3u, 6u}) {
      ASSERT_NO_FATAL_FAILURE(ExpectLossy({static_cast<unsigned short>(unit)}, dstMax, dstMax, Utf8()));
      ASSERT_NO_FATAL_FAILURE(ExpectLossy({static_cast<unsigned short>(unit)}, dstMax, 8, Utf8()));
    }
  }
}

TEST_P(ShortNameLocales, RandomNames_AreConvertedStrictlyAsTheReferenceDoes) {
  std::mt19937 random(1);
  for (int i = 0; i < 100000; ++i) {
    const UTF16 units = RandomUnits(random, 1 + random() % 9);
    ASSERT_NO_FATAL_FAILURE(ExpectStrict(units, static_cast<unsigned int>(1 + random() % 8), Utf8()));
  }
}

TEST_P(ShortNameLocales, RandomNames_AreConvertedLossilyAsTheReferenceDoes) {
  std::mt19937 random(2);
  for (int i = 0; i < 100000; ++i) {
    const UTF16 units = RandomUnits(random, 1 + random() % 14);
    const auto dstMax = static_cast<unsigned int>(1 + random() % 6);
    ASSERT_NO_FATAL_FAILURE(ExpectLossy(units, dstMax, dstMax + static_cast<unsigned int>(random() % 4), Utf8()));
  }
}

INSTANTIATE_TEST_SUITE_P(Locale, ShortNameLocales, ::testing::Bool(),
                         [](const auto& test) { return test.param ? "Utf8" : "C"; });

TEST(ShortNameStrict, PartThatFillsTheFieldExactly_IsValidOnlyWithoutMoreUnits) {
  const CLocale locale("C");
  unsigned char bytes[8];
  bool converted = false;
  EXPECT_TRUE(ToShortName(CPath("12345678"), 8, bytes, 8, converted));
  EXPECT_FALSE(ToShortName(CPath("123456789"), 9, bytes, 8, converted));
  EXPECT_TRUE(ToShortName(CPath("txt"), 3, bytes, 3, converted));
  EXPECT_FALSE(converted);
}

// ------------------------------------------------------------------------------------------------ analysis

TEST(ShortNameAnalysis, NamesThatFit_BecomeShortNamesAloneInUpperCase) {
  const CLocale locale("C");
  const std::map<std::string, std::string> expected = {
      {"NAME.TXT", "NAME    TXT"}, {"name.txt", "NAME    TXT"},     {"NaMe.TxT", "NAME    TXT"},
      {"a", "A          "},        {"README", "README     "},       {"12345678.123", "12345678123"},
      {"x.y", "X       Y  "},      {"!#$%&'().-@^", "!#$%&'()-@^"}, {"_`{}~1.2", "_`{}~1  2  "},
  };
  for (const auto& [name, eleven] : expected) {
    EXPECT_EQ(ElevenOf(name), eleven) << name;
    const DIRENT_NAME_CTX context = Analyse(name);
    EXPECT_EQ(context.nLongChars, 0u) << name;
    for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(context.ShortName[SHORT_NAME_SIZE + i], 0) << name;
    EXPECT_EQ(ToUtf8(LongNameOf(context)), name);
  }
}

TEST(ShortNameAnalysis, NamesThatDoNotFit_HaveNoShortNameAndKeepTheirLength) {
  const CLocale locale("C");
  for (const char* name :
       {"a.b.c", ".abc", ".profile", "123456789", "123456789.txt", "name.text", "x+y.txt", "a b", "a,b", "a;b", "a=b",
        "[a]", "name.t+t", "name.t t", "\xC3\xA9", "name.\xC3\xA9", "a..b", "."}) {
    const DIRENT_NAME_CTX context = Analyse(name);
    EXPECT_FALSE(context.HasShortName()) << name;
    EXPECT_EQ(context.nLongChars, ToUtf16(name).size()) << name;
    EXPECT_EQ(LongNameOf(context), ToUtf16(name)) << name;
  }
}

TEST(ShortNameAnalysis, LastDot_IsThePlaceOfTheLastOne) {
  const CLocale locale("C");
  EXPECT_EQ(Analyse("README").nLastDot, -1);
  EXPECT_EQ(Analyse("NAME.TXT").nLastDot, 4);
  EXPECT_EQ(Analyse("a.b.c").nLastDot, 3);
  EXPECT_EQ(Analyse(".profile").nLastDot, 0);
}

TEST(ShortNameAnalysis, LongestName_IsCopiedWholeAndTerminated) {
  const CLocale locale("C");
  for (const std::size_t units : {255u, 259u, 260u}) {
    const DIRENT_NAME_CTX context = Analyse(UTF16(units, 'n'));
    EXPECT_EQ(context.nLongChars, units);
    EXPECT_EQ(LongNameOf(context), UTF16(units, 'n'));
  }
  const DIRENT_NAME_CTX cut = Analyse(UTF16(400, 'n'));
  EXPECT_EQ(cut.nLongChars, 260u);
  EXPECT_EQ(LongNameOf(cut), UTF16(260, 'n'));
}

TEST(ShortNameAnalysis, Context_IsIndependentOfTheTextItWasMadeFrom) {
  const CLocale locale("C");
  UTF16 name = ToUtf16Z("some long name");
  DIRENT_NAME_CTX context;
  AnalyseFullFileName(name.data(), &context);
  name[0] = 'X';
  EXPECT_EQ(ToUtf8(LongNameOf(context)), "some long name");
}

TEST_F(ShortNameUtf8, ConvertedNameThatFits_HasAShortNameAndKeepsItsLongOne) {
  const DIRENT_NAME_CTX context = Analyse("\xC3\xA9t\xC3\xA9.txt");  // "été.txt"
  EXPECT_TRUE(context.HasShortName());
  EXPECT_EQ(Eleven(context), "\xC3\x89T\xC3\x89   TXT");
  EXPECT_EQ(context.nLongChars, 7u);
}

TEST_F(ShortNameUtf8, ConvertedExtension_KeepsTheLongNameToo) {
  const DIRENT_NAME_CTX context = Analyse("a.\xC3\xA9");
  EXPECT_EQ(Eleven(context), "A       \xC3\x89 ");
  EXPECT_EQ(context.nLongChars, 3u);
}

TEST_F(ShortNameUtf8, ConvertedNameOfTooManyBytes_HasNone) {
  EXPECT_FALSE(Analyse("\xE6\xBC\xA2\xE5\xAD\x97\xE8\xA1\xA8").HasShortName());  // three times three bytes
  EXPECT_FALSE(Analyse("a.\xE6\xBC\xA2x").HasShortName());
  EXPECT_TRUE(Analyse("\xE6\xBC\xA2\xE5\xAD\x97xy.\xE6\xBC\xA2").HasShortName());
}

TEST_F(ShortNameUtf8, LoneSurrogate_HasNoBytesAndRefusesTheName) {
  EXPECT_FALSE(Analyse(UTF16{'a', 0xD83D, 0xDE00}).HasShortName());
}

// The entry of such a name reads as deleted on the next mount. Only invented names are protected.
TEST_F(ShortNameUtf8, LeadingByteE5OfANameThatFits_StaysAsItIs) {
  const DIRENT_NAME_CTX context = Analyse("\xE5\xAD\x97");
  ASSERT_TRUE(context.HasShortName());
  EXPECT_EQ(context.ShortName[0], 0xE5);
}

// ------------------------------------------------------------------------------------------------ invention

// The counter of a fresh process, which only a fresh process can show: the test runs itself in one.
TEST_F(ShortNameCounter, FreshProcess_StartsAtTildeOne) {
  if (std::getenv("FATLIB_TEST_FRESH_PROCESS") != nullptr) {
    CInventory directory;
    ASSERT_EQ(directory.Invent("a.b.c"), "AB~1    C  ");
    ASSERT_EQ(directory.Invent(".profile"), "PROFIL~2   ");
    return;
  }
  ASSERT_EQ(::setenv("FATLIB_TEST_FRESH_PROCESS", "1", 1), 0);
  // The one test is the child's whole, also where this process runs a share of all tests.
  ::unsetenv("GTEST_TOTAL_SHARDS");
  ::unsetenv("GTEST_SHARD_INDEX");
  const PROCESS_RESULT child = RunProcess(
      {"/proc/self/exe", "--gtest_filter=ShortNameCounter.FreshProcess_StartsAtTildeOne", "--gtest_output="});
  ::unsetenv("FATLIB_TEST_FRESH_PROCESS");
  EXPECT_TRUE(child.Ok()) << child.Output;
  EXPECT_NE(child.Output.find("[  PASSED  ] 1 test."), std::string::npos) << child.Output;
}

TEST_F(ShortNameCounter, TwoDots_AreDroppedFromTheBase) {
  MakeNext(1);
  EXPECT_EQ(CInventory().Invent("a.b.c"), "AB~1    C  ");
}

TEST_F(ShortNameCounter, LeadingDot_SeparatesNoExtension) {
  MakeNext(1);
  EXPECT_EQ(CInventory().Invent(".profile"), "PROFIL~1   ");
}

TEST_F(ShortNameCounter, LongExtension_IsCutToThreeBytes) {
  MakeNext(1);
  EXPECT_EQ(CInventory().Invent("Long File Name.text"), "LONGFI~1TEX");
}

TEST_F(ShortNameCounter, CharactersAShortNameMayNotHold_BecomeUnderscores) {
  MakeNext(1);
  EXPECT_EQ(CInventory().Invent("x+y.txt"), "X_Y~1   TXT");
  EXPECT_EQ(CInventory().Invent("[a];b=c,d.e+f"), "_A__B_~2E_F");
}

TEST_F(ShortNameCounter, SpacesInTheExtension_AreDropped) {
  MakeNext(1);
  EXPECT_EQ(CInventory().Invent("name.a b c d"), "NAME~1  ABC");
}

TEST_F(ShortNameCounter, NoCharacterOfTheBaseIsLeft_NameIsTheTailAlone) {
  MakeNext(1);
  EXPECT_EQ(CInventory().Invent(". .abc"), "~1      ABC");
}

TEST_F(ShortNameCounter, UnitsWithoutAByteForm_BecomeUnderscores) {
  MakeNext(1);
  EXPECT_EQ(CInventory().Invent("\xD0\x9F\xD1\x80 name.\xD1\x8F"), "__NAME~1_  ");
}

TEST_F(ShortNameCounter, TenthTry_HasTwoDigitsAndABaseOfFiveBytes) {
  MakeNext(9);
  CInventory directory;
  EXPECT_EQ(directory.Invent("Long File Name.text"), "LONGFI~9TEX");
  EXPECT_EQ(directory.Invent("Long File Name.text"), "LONGF~10TEX");
}

TEST_F(ShortNameCounter, EveryNumber_FollowsTheOneBeforeAcrossAllWidthsAndTheWrap) {
  MakeNext(1);
  CInventory directory;
  DIRENT_NAME_CTX context = Analyse("abcdefghijkl.m.n");
  const DIRENT_NAME_CTX fresh = context;
  for (unsigned int i = 0; i < LAST_NUMBER + 20000; ++i) {
    const std::string digits = std::to_string(i % LAST_NUMBER + 1);
    context = fresh;
    ASSERT_EQ(InventShortName(&directory.Cache(), &context), STATUS_SUCCESS);
    ASSERT_EQ(Eleven(context), std::string("ABCDEFG").substr(0, 7 - digits.size()) + "~" + digits + "N  ");
  }
}

TEST_F(ShortNameCounter, NumberTaken_TheNextOneIsUsedAndTheCounterMovedByEachTry) {
  MakeNext(1);
  CInventory directory;
  directory.AddShort("LONGFI~1TEX");
  directory.AddShort("LONGFI~2TEX");
  EXPECT_EQ(directory.Invent("Long File Name.text"), "LONGFI~3TEX");
  EXPECT_EQ(directory.Invent("Long File Name.text"), "LONGFI~4TEX");
}

TEST_F(ShortNameCounter, NumberTakenWithAnotherExtension_IsFree) {
  MakeNext(1);
  CInventory directory;
  directory.AddShort("LONGFI~1TXT");
  EXPECT_EQ(directory.Invent("Long File Name.text"), "LONGFI~1TEX");
}

TEST_F(ShortNameCounter, OtherDirectoriesAndNames_ShareTheCounter) {
  MakeNext(5);
  CInventory one;
  CInventory other;
  EXPECT_EQ(one.Invent("first long name"), "FIRSTL~5   ");
  EXPECT_EQ(other.Invent("second long name"), "SECOND~6   ");
  EXPECT_EQ(one.Invent("third long name"), "THIRDL~7   ");
}

TEST_F(ShortNameCounter, AliasOfALongNamedEntry_IsNotLookedAt) {
  MakeNext(1);
  CInventory directory;
  directory.AddLong(ToUtf16("Long File Other.text"), "LONGFI~1TEX");
  EXPECT_EQ(directory.Invent("Long File Name.text"), "LONGFI~1TEX");
}

// The search takes any key of the directory: that of a long name too, should it be the same units.
TEST_F(ShortNameCounter, LongNameWithTheUnitsOfTheShortKey_CountsAsTaken) {
  MakeNext(1);
  CInventory directory;
  UTF16 key;
  const std::string eleven = "LONGFI~1TEX";
  for (std::size_t i = 0; i < 11; i += 2) {
    key.push_back(static_cast<unsigned short>(eleven[i] + 256 * (i + 1 < 11 ? eleven[i + 1] : 0)));
  }
  directory.AddLong(key, "OTHER      ");
  EXPECT_EQ(directory.Invent("Long File Name.text"), "LONGFI~2TEX");
}

// Bytes of a try stay where the next one does not reach.
TEST_F(ShortNameCounter, WrapInTheMiddleOfAnInvention_LeavesBytesOfTheTryBefore) {
  MakeNext(LAST_NUMBER);
  CInventory directory;
  directory.AddShort("AB~99999C  ");
  EXPECT_EQ(directory.Invent("a.b.c"), "AB~19999C  ");
  EXPECT_EQ(directory.Invent("a.b.c"), "AB~2    C  ") << "a new invention starts with blanks";
}

TEST_F(ShortNameCounter, NameWithAShortBase_GrowsItsTailWithoutMovingIt) {
  MakeNext(9);
  CInventory directory;
  directory.AddShort("AB~9    C  ");
  EXPECT_EQ(directory.Invent("a.b.c"), "AB~10   C  ");
  MakeNext(999);
  directory.AddShort("AB~999  C  ");
  EXPECT_EQ(directory.Invent("a.b.c"), "AB~1000 C  ");
}

TEST_F(ShortNameCounter, EveryNumberTaken_FailsAfterTwoRoundsAndTheCounterIsWhereItWas) {
  MakeNext(123);
  CInventory directory(1u << 17);
  for (unsigned int i = 1; i <= LAST_NUMBER; ++i) {
    std::string eleven = "AB~" + std::to_string(i);
    eleven.resize(8, ' ');
    directory.AddShort(eleven + "C  ");
  }
  DIRENT_NAME_CTX context;
  EXPECT_EQ(directory.TryInvent("a.b.c", context), STATUS_DISK_FULL);
  EXPECT_EQ(UseOneNumber(), 123u);
  // Another base finds room at once.
  EXPECT_EQ(directory.Invent("a.d.c"), "AD~124  C  ");
}

TEST_F(ShortNameCounter, OneNumberFree_IsFoundUnlessLeftoverDigitsHideIt) {
  CInventory directory(1u << 17);
  for (unsigned int i = 1; i <= LAST_NUMBER; ++i) {
    if (i == 499) continue;
    std::string eleven = "AB~" + std::to_string(i);
    eleven.resize(8, ' ');
    directory.AddShort(eleven + "C  ");
  }
  MakeNext(400);
  EXPECT_EQ(directory.Invent("a.b.c"), "AB~499  C  ");
  // From 500 on the counter wraps before it comes to 499, and that try then carries the last digits of 99999.
  DIRENT_NAME_CTX context;
  EXPECT_EQ(directory.TryInvent("a.b.c", context), STATUS_DISK_FULL);
}

TEST_F(ShortNameUtf8, LeadingByteE5OfAnInventedName_Becomes05) {
  MakeNext(1);
  EXPECT_EQ(CInventory().Invent("\xE5\xAD\x97 of any length.txt"), "\x05\xAD\x97OFA~1TXT");
}

TEST_F(ShortNameUtf8, CharacterThatWouldPassTheBase_IsLeftOutWhole) {
  MakeNext(1);
  EXPECT_EQ(CInventory().Invent("abcd\xE6\xBC\xA2\xE6\xBC\xA2"), "ABCD~1     ");
  EXPECT_EQ(CInventory().Invent("abc\xE6\xBC\xA2\xE6\xBC\xA2"), "ABC\xE6\xBC\xA2~2   ");
}

TEST_F(ShortNameUtf8, CharacterThatWouldPassTheExtension_LeavesSpaces) {
  MakeNext(1);
  EXPECT_EQ(CInventory().Invent("long name.a\xE6\xBC\xA2"), "LONGNA~1A  ");
}

// With the wider tail only one of the two characters fits, and the rest of the narrower one stays behind it.
TEST_F(ShortNameUtf8, WiderTailAfterAFailedTry_LeavesBytesOfTheTryBefore) {
  MakeNext(9);
  CInventory directory;
  directory.AddShort("\xE6\xBC\xA2\xE6\xBC\xA2~9   ");
  EXPECT_EQ(directory.Invent("\xE6\xBC\xA2\xE6\xBC\xA2\xE6\xBC\xA2"), "\xE6\xBC\xA2~10~9   ");
}

// The character that does not fit blanks all the bytes it would have taken, also those behind the new tail.
TEST_F(ShortNameUtf8, CharacterThatDoesNotFitAfterAWrap_BlanksItsBytes) {
  MakeNext(LAST_NUMBER);
  CInventory directory;
  directory.AddShort("AB~99999   ");
  EXPECT_EQ(directory.Invent("abcd\xE6\xBC\xA2\xE6\xBC\xA2"), "ABCD~1 9   ");
}

// Every name that the first round of the counter tries is taken. The second one tries new ones, since bytes of narrower
// tails are left in them by then.
TEST_F(ShortNameUtf8, FirstRoundOfNumbersTaken_SecondOneIsTried) {
  constexpr unsigned int FIRST = 10;
  const std::string name = "\xE6\xBC\xA2\xE6\xBC\xA2\xE6\xBC\xA2";
  std::string field(8, ' ');
  const auto nextTry = [&field, &name](unsigned int number) {
    const std::string digits = std::to_string(number);
    const std::size_t n = LossyReference(field, 7 - digits.size(), ToUtf16(name), true);
    field.replace(n, 1 + digits.size(), "~" + digits);
    return field + "   ";
  };
  CInventory directory(1u << 17);
  std::set<std::string> taken;
  for (unsigned int i = 0; i < LAST_NUMBER; ++i) taken.insert(nextTry((FIRST - 1 + i) % LAST_NUMBER + 1));
  for (const std::string& eleven : taken) directory.AddShort(eleven);
  const std::string expected = nextTry(FIRST);
  ASSERT_EQ(taken.count(expected), 0u);
  MakeNext(FIRST);
  EXPECT_EQ(directory.Invent(name), expected);
}
