/// @file UpCaseTest.cpp

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "names/UpCase.h"
#include "support/Utf16.h"

namespace {

// The case pairs once more, as "first-last/step+added" or, for a single unit, "unit+added"; units in hexadecimal.
constexpr char s_szCasePairs[] =
    "0061-007A/1-32 00B5+743 00E0-00F6/1-32 00F8-00FE/1-32 00FF+121 0101-012F/2-1 0131-232 0133-0137/2-1 "
    "013A-0148/2-1 014B-0177/2-1 017A-017E/2-1 017F-300 0183-0185/2-1 0188-1 018C-1 0192-1 0195+97 0199-1 "
    "019E+130 01A1-01A5/2-1 01A8-1 01AD-1 01B0-1 01B4-01B6/2-1 01B9-1 01BD-1 01BF+56 01C6-1 01C9-1 01CC-01DC/2-1 "
    "01DD-79 01DF-01EF/2-1 01F3-01F5/2-1 01F9-021F/2-1 0223-0233/2-1 0253-210 0254-206 0256-0257/1-205 0259-202 "
    "025B-203 0260-205 0263-207 0268-209 0269-211 026F-211 0272-213 0275-214 0280-218 0283-218 0288-218 "
    "028A-028B/1-217 0292-219 03AC-38 03AD-03AF/1-37 03B1-03C1/1-32 03C2-31 03C3-03CB/1-32 03CC-64 03CD-03CE/1-63 "
    "03D0-62 03D1-57 03D5-47 03D6-54 03D9-03EF/2-1 03F0-86 03F1-80 03F2+7 03F5-96 03F8-1 03FB-1 0430-044F/1-32 "
    "0450-045F/1-80 0461-0481/2-1 048B-04BF/2-1 04C2-04CE/2-1 04D1-04F5/2-1 04F9-1 0501-050F/2-1 0561-0586/1-48 "
    "1E01-1E95/2-1 1E9B-59 1EA1-1EF9/2-1 1F00-1F07/1+8 1F10-1F17/1+8 1F20-1F27/1+8 1F30-1F37/1+8 1F40-1F47/1+8 "
    "1F51-1F57/2+8 1F60-1F67/1+8 1F70-1F71/1+74 1F72-1F75/1+86 1F76-1F77/1+100 1F78-1F79/1+128 1F7A-1F7B/1+112 "
    "1F7C-1F7D/1+126 1F80-1F87/1+8 1F90-1F97/1+8 1FA0-1FA7/1+8 1FB0-1FB1/1+8 1FB3+9 1FBE-7205 1FC3+9 "
    "1FD0-1FD1/1+8 1FE0-1FE1/1+8 1FE5+7 1FF3+9 FF41-FF5A/1-32 ";

/// Every unit that changes, with its upper case.
std::map<unsigned int, unsigned int> ExpandCasePairs() {
  std::map<unsigned int, unsigned int> upper;
  std::istringstream rows(s_szCasePairs);
  for (std::string row; rows >> row;) {
    const std::size_t sign = row.find_first_of("+-", row.find('/') == std::string::npos ? 0 : row.find('/'));
    const int added = std::stoi(row.substr(sign));
    const auto first = static_cast<unsigned int>(std::stoul(row.substr(0, 4), nullptr, 16));
    unsigned int last = first;
    unsigned int step = 1;
    if (row[4] == '-' && row.find('/') != std::string::npos) {
      last = static_cast<unsigned int>(std::stoul(row.substr(5, 4), nullptr, 16));
      step = static_cast<unsigned int>(row[10] - '0');
    }
    for (unsigned int unit = first; unit <= last; unit += step) {
      upper[unit] = static_cast<unsigned int>(static_cast<int>(unit) + added);
    }
  }
  return upper;
}

unsigned short Upcase(unsigned int unit) { return gUnicodeUpcase(static_cast<unsigned short>(unit)); }

bool Equal(const char* a, const char* b, unsigned int count) {
  return gUnicodeEqual(ToUtf16Z(a).data(), ToUtf16Z(b).data(), count);
}

}  // namespace

TEST(UnicodeUpcase, Exactly680UnitsChangeAndAllOthersStay) {
  const std::map<unsigned int, unsigned int> expected = ExpandCasePairs();
  ASSERT_EQ(expected.size(), 680u);
  unsigned int changed = 0;
  for (unsigned int unit = 0; unit <= 0xFFFF; ++unit) {
    const auto pair = expected.find(unit);
    const unsigned int upper = pair == expected.end() ? unit : pair->second;
    ASSERT_EQ(Upcase(unit), upper) << std::hex << unit;
    if (Upcase(unit) != unit) ++changed;
  }
  EXPECT_EQ(changed, 680u);
}

TEST(UnicodeUpcase, UpperCaseFarFromTheLowerCase_IsFound) {
  const std::vector<std::pair<unsigned int, unsigned int>> pairs = {
      {0x00FF, 0x0178}, {0x00B5, 0x039C}, {0x0131, 0x0049}, {0x017F, 0x0053}, {0x1FBE, 0x0399}, {0xFF41, 0xFF21},
  };
  for (const auto& [lower, upper] : pairs) EXPECT_EQ(Upcase(lower), upper) << std::hex << lower;
}

TEST(UnicodeUpcase, UnitsWithoutUpperCase_Stay) {
  for (unsigned int unit : {0x00D7u, 0x00F7u, 0x0660u, 0x2170u, 0x24D0u, 0x1E96u, 0x4E2Du, 0xD83Du, 0xDE00u, 0xFFFFu}) {
    EXPECT_EQ(Upcase(unit), unit) << std::hex << unit;
  }
}

TEST(UnicodeUpcase, DigraphLetters_GoToTitleCase) {
  EXPECT_EQ(Upcase(0x01C6), 0x01C5);
  EXPECT_EQ(Upcase(0x01C9), 0x01C8);
  EXPECT_EQ(Upcase(0x01CC), 0x01CB);
  EXPECT_EQ(Upcase(0x01F3), 0x01F2);
}

TEST(UnicodeUpcase, NoOtherUnitBecomesATerminatorOrSeparator) {
  for (unsigned int unit = 1; unit <= 0xFFFF; ++unit) {
    ASSERT_NE(Upcase(unit), 0u) << std::hex << unit;
    if (unit != 0x5C) {
      ASSERT_NE(Upcase(unit), 0x5Cu) << std::hex << unit;
    }
  }
}

TEST(UnicodeEqual, OnlyTheCountedUnitsAreCompared) {
  EXPECT_TRUE(Equal("abc", "ABD", 2));
  EXPECT_FALSE(Equal("abc", "ABD", 3));
}

TEST(UnicodeEqual, NoUnits_AreEqual) { EXPECT_TRUE(Equal("a", "b", 0)); }

TEST(UnicodeEqual, DifferenceInTheFirstUnit_IsSeen) { EXPECT_FALSE(Equal("xbc", "abc", 3)); }

TEST(UnicodeEqual, TerminatorDoesNotEndTheComparison) {
  const unsigned short a[] = {'a', 0, 'b'};
  const unsigned short same[] = {'A', 0, 'B'};
  const unsigned short other[] = {'A', 0, 'C'};
  EXPECT_TRUE(gUnicodeEqual(a, same, 3));
  EXPECT_FALSE(gUnicodeEqual(a, other, 3));
}

TEST(UnicodeEqual, CaseOfOtherScripts_DoesNotCount) {
  EXPECT_TRUE(Equal("\u043f\u0440\u0438\u0432\u0435\u0442", "\u041f\u0420\u0418\u0412\u0415\u0422", 6));
  EXPECT_TRUE(Equal("\u03c3\u03c2", "\u03a3\u03a3", 2));
  EXPECT_FALSE(Equal("\u0435", "e", 1));
}
