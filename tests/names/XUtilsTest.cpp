/// @file XUtilsTest.cpp

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "names/XUtils.h"
#include "support/Utf16.h"

namespace {

using TEXT = std::u16string;

UTF16 Units(const TEXT& text) {
  UTF16 units(text.begin(), text.end());
  units.push_back(0);
  return units;
}

TEXT TextOf(const unsigned short* text) {
  TEXT made;
  while (*text != 0) made.push_back(static_cast<char16_t>(*text++));
  return made;
}

/// The normalised path, or nothing when the path is invalid. The buffer is exactly as large as it has to be.
std::optional<TEXT> Normalise(const TEXT& path) {
  const UTF16 source = Units(path);
  const auto buffer = std::make_unique<unsigned short[]>(260);
  if (!IsPathFileNameValid(source.data(), buffer.get())) return std::nullopt;
  return TextOf(buffer.get());
}

TEXT WithoutLeadingSpaces(const TEXT& text) {
  const std::size_t first = text.find_first_not_of(u' ');
  return first == TEXT::npos ? TEXT() : text.substr(first);
}
TEXT WithoutTrailingSpacesAndDots(const TEXT& text) {
  const std::size_t last = text.find_last_not_of(u" .");
  return last == TEXT::npos ? TEXT() : text.substr(0, last + 1);
}

/// The rules said another way: the whole text is checked first, then split at its separators, and the components are
/// cleaned one by one. The lengths are what the path holds while it is read from left to right.
std::optional<TEXT> ReferenceNormalise(const TEXT& path) {
  constexpr std::size_t LIMIT = 259;
  TEXT text = WithoutLeadingSpaces(path);
  if (text.empty()) return std::nullopt;
  if (text[0] == u'\\') text = WithoutLeadingSpaces(text.substr(1));
  if (text.empty()) return std::nullopt;
  if (text.find(u"..") != TEXT::npos) return std::nullopt;
  for (const char16_t unit : text) {
    if (unit < u' ' || TEXT(u"\"*/:<>?|\u007F").find(unit) != TEXT::npos) return std::nullopt;
  }

  std::vector<TEXT> components(1);
  for (const char16_t unit : text) {
    if (unit == u'\\') {
      components.emplace_back();
    } else {
      components.back().push_back(unit);
    }
  }
  TEXT normalised;
  for (std::size_t i = 0; i < components.size(); ++i) {
    const bool last = i + 1 == components.size();
    const TEXT read = WithoutLeadingSpaces(components[i]);
    const TEXT kept = WithoutTrailingSpacesAndDots(read);
    if (normalised.size() + read.size() > LIMIT) return std::nullopt;
    if (kept.empty() && (!last || normalised.empty())) return std::nullopt;
    if (kept.empty()) {
      normalised.pop_back();  // the separator before it
      break;
    }
    normalised += kept;
    if (last) break;
    normalised.push_back(u'\\');
    if (normalised.size() > LIMIT) return std::nullopt;
  }
  return normalised;
}

/// Calls `visit` with every text of up to `longest` units of the alphabet.
template <typename VISIT>
void ForEveryText(const TEXT& alphabet, std::size_t longest, const VISIT& visit) {
  for (std::size_t length = 0; length <= longest; ++length) {
    std::vector<std::size_t> digits(length, 0);
    for (;;) {
      TEXT text;
      for (const std::size_t digit : digits) text.push_back(alphabet[digit]);
      visit(text);
      std::size_t at = 0;
      while (at < length && ++digits[at] == alphabet.size()) digits[at++] = 0;
      if (at == length) break;
    }
  }
}

int Move(const TEXT& source, const TEXT& destination) {
  const UTF16 sourceUnits = Units(source);
  const UTF16 destinationUnits = Units(destination);
  const unsigned short* from = sourceUnits.data();
  const unsigned short* to = destinationUnits.data();
  return gIsMovedPathValid(&from, &to);
}

int MoveToRoot(const TEXT& source) {
  const UTF16 sourceUnits = Units(source);
  const unsigned short* from = sourceUnits.data();
  const unsigned short* to = nullptr;
  const int result = gIsMovedPathValid(&from, &to);
  EXPECT_EQ(to, nullptr);
  return result;
}

}  // namespace

// ----------------------------------------------------------------------------------------------------- characters

TEST(InvalidCharacters, OfLongNames_AreExactlyTheForbiddenOnes) {
  const TEXT forbidden = u"\"*/:<>?\\|\u007F";
  for (unsigned int unit = 0; unit <= 0xFFFF; ++unit) {
    const bool expected = forbidden.find(static_cast<char16_t>(unit)) != TEXT::npos;
    ASSERT_EQ(IsInvalidFatLfnChar(static_cast<unsigned short>(unit)), expected) << std::hex << unit;
  }
}

TEST(InvalidCharacters, OfShortNames_AreExactlyTheForbiddenOnes) {
  const TEXT forbidden = u" \"*+,./:;<=>?[\\]|\u007F";
  for (unsigned int unit = 0; unit <= 0xFFFF; ++unit) {
    const bool expected = forbidden.find(static_cast<char16_t>(unit)) != TEXT::npos;
    ASSERT_EQ(IsInvalidFatFnChar(static_cast<unsigned short>(unit)), expected) << std::hex << unit;
  }
}

// ---------------------------------------------------------------------------------------------------- normalising

TEST(PathValidation, NullPath_IsInvalid) {
  unsigned short buffer[260];
  EXPECT_FALSE(IsPathFileNameValid(nullptr, buffer));
}

TEST(PathValidation, EmptyPathOrSpacesOnly_IsInvalid) {
  EXPECT_EQ(Normalise(u""), std::nullopt);
  EXPECT_EQ(Normalise(u" "), std::nullopt);
  EXPECT_EQ(Normalise(u"    "), std::nullopt);
}

TEST(PathValidation, SeparatorAlone_IsInvalid) {
  EXPECT_EQ(Normalise(u"\\"), std::nullopt);
  EXPECT_EQ(Normalise(u" \\ "), std::nullopt);
}

TEST(PathValidation, TwoLeadingSeparators_AreInvalid) {
  EXPECT_EQ(Normalise(u"\\\\x"), std::nullopt);
  EXPECT_EQ(Normalise(u"\\ \\x"), std::nullopt);
}

TEST(PathValidation, TwoSeparatorsInARow_AreInvalid) {
  EXPECT_EQ(Normalise(u"a\\\\b"), std::nullopt);
  EXPECT_EQ(Normalise(u"a\\ \\b"), std::nullopt);
  EXPECT_EQ(Normalise(u"a\\\\"), std::nullopt);
}

TEST(PathValidation, PlainPath_StaysAsItIs) {
  EXPECT_EQ(Normalise(u"x"), u"x");
  EXPECT_EQ(Normalise(u"Dir\\Sub Dir\\.name.with.dots"), u"Dir\\Sub Dir\\.name.with.dots");
}

TEST(PathValidation, TrailingSeparatorDotAndSpace_AreDropped) {
  EXPECT_EQ(Normalise(u"x\\"), u"x");
  EXPECT_EQ(Normalise(u"x."), u"x");
  EXPECT_EQ(Normalise(u"x \\"), u"x");
  EXPECT_EQ(Normalise(u"x\\."), u"x");
  EXPECT_EQ(Normalise(u"x\\ . "), u"x");
  EXPECT_EQ(Normalise(u"x\\ ."), u"x");
}

TEST(PathValidation, SpacesAndDotsAroundEachComponent_AreDropped) {
  EXPECT_EQ(Normalise(u"\\ Dir . \\ name. "), u"Dir\\name");
  EXPECT_EQ(Normalise(u"  \\  a . .\\  b . . "), u"a\\b");
  EXPECT_EQ(Normalise(u"a.\\b"), u"a\\b");
}

TEST(PathValidation, LeadingDotsOfAComponent_Stay) { EXPECT_EQ(Normalise(u".a\\ .b"), u".a\\.b"); }

TEST(PathValidation, TwoDotsInARow_AreInvalidAnywhere) {
  EXPECT_EQ(Normalise(u"a..\\b"), std::nullopt);
  EXPECT_EQ(Normalise(u"a..b"), std::nullopt);
  EXPECT_EQ(Normalise(u".."), std::nullopt);
  EXPECT_EQ(Normalise(u"a\\..\\b"), std::nullopt);
  EXPECT_EQ(Normalise(u"a.."), std::nullopt);
}

TEST(PathValidation, ComponentOfDotsAndSpacesOnly_IsInvalid) {
  EXPECT_EQ(Normalise(u"."), std::nullopt);
  EXPECT_EQ(Normalise(u".\\x"), std::nullopt);
  EXPECT_EQ(Normalise(u"a\\.\\b"), std::nullopt);
  EXPECT_EQ(Normalise(u"a\\. .\\b"), std::nullopt);
}

TEST(PathValidation, ControlCharacters_AreRefusedAndUnitsFrom0x80Accepted) {
  for (unsigned int unit = 1; unit <= 0xFFFF; ++unit) {
    const TEXT path = TEXT(u"a") + static_cast<char16_t>(unit) + u"b";
    const bool forbidden = unit < 0x20 || TEXT(u"\"*/:<>?|\u007F").find(static_cast<char16_t>(unit)) != TEXT::npos;
    ASSERT_EQ(Normalise(path), forbidden ? std::nullopt : std::optional<TEXT>(path)) << std::hex << unit;
  }
}

TEST(PathValidation, ForwardSlash_IsRefused) {
  EXPECT_EQ(Normalise(u"a/b"), std::nullopt);
  EXPECT_EQ(Normalise(u"/a"), std::nullopt);
}

TEST(PathValidation, Exactly259Units_AreAcceptedAnd260Refused) {
  const TEXT longest(259, u'a');
  EXPECT_EQ(Normalise(longest), longest);
  EXPECT_EQ(Normalise(longest + u"a"), std::nullopt);
  const TEXT deep = TEXT(200, u'a') + u"\\" + TEXT(58, u'b');
  EXPECT_EQ(Normalise(deep), deep);
  EXPECT_EQ(Normalise(deep + u"b"), std::nullopt);
}

TEST(PathValidation, UnitTooManyThatWouldBeDropped_IsRefusedAllTheSame) {
  const TEXT longest(259, u'a');
  EXPECT_EQ(Normalise(longest + u" "), std::nullopt);
  EXPECT_EQ(Normalise(longest + u"."), std::nullopt);
  EXPECT_EQ(Normalise(longest + u"\\"), std::nullopt);
  EXPECT_EQ(Normalise(TEXT(259, u'a') + u" \\b"), std::nullopt);
  EXPECT_EQ(Normalise(TEXT(258, u'a') + u" "), TEXT(258, u'a'));
  EXPECT_EQ(Normalise(TEXT(258, u'a') + u"\\"), TEXT(258, u'a'));
  EXPECT_EQ(Normalise(TEXT(258, u'a') + u"\\b"), std::nullopt);
}

TEST(PathValidation, WhatIsSkippedInFrontOfAComponent_DoesNotCount) {
  const TEXT half(129, u'a');
  EXPECT_EQ(Normalise(TEXT(1000, u' ') + u"\\" + TEXT(1000, u' ') + half + u"\\" + TEXT(1000, u' ') + half),
            half + u"\\" + half);
  EXPECT_EQ(Normalise(TEXT(100, u'a') + TEXT(100, u' ') + u"\\" + TEXT(100, u'b') + TEXT(58, u' ')),
            TEXT(100, u'a') + u"\\" + TEXT(100, u'b'));
}

TEST(PathValidation, EveryShortTextOfDifficultUnits_AgreesWithTheRules) {
  ForEveryText(u"a .\\/\u001F\u0080", 6, [](const TEXT& text) {
    ASSERT_EQ(Normalise(text), ReferenceNormalise(text)) << ::testing::PrintToString(text);
  });
}

TEST(PathValidation, EveryTextOfSpacesDotsAndSeparators_AgreesWithTheRules) {
  ForEveryText(u"a .\\", 9, [](const TEXT& text) {
    ASSERT_EQ(Normalise(text), ReferenceNormalise(text)) << ::testing::PrintToString(text);
  });
}

TEST(PathValidation, RandomTextsAroundTheLimit_AgreeWithTheRules) {
  std::mt19937 random(259);
  unsigned int accepted = 0;
  constexpr unsigned int ROUNDS = 20000;
  for (unsigned int round = 0; round < ROUNDS; ++round) {
    TEXT text;
    const std::size_t length = 250 + random() % 30;
    while (text.size() < length) {
      const std::size_t dice = random() % 40;
      if (dice == 0) {
        text += TEXT(random() % 4, u' ');
      } else if (dice == 1) {
        text += u"\\";
      } else if (dice == 2) {
        text += u". ";
      } else {
        text += u"ab";
      }
    }
    const std::optional<TEXT> expected = ReferenceNormalise(text);
    if (expected) ++accepted;
    ASSERT_EQ(Normalise(text), expected) << ::testing::PrintToString(text);
  }
  // Neither answer may be the only one, or nothing was tested.
  EXPECT_GT(accepted, ROUNDS / 20);
  EXPECT_LT(accepted, ROUNDS - ROUNDS / 20);
}

TEST(PathValidation, NormalisedPath_IsNormalAlready) {
  ForEveryText(u"a .\\", 7, [](const TEXT& text) {
    if (const std::optional<TEXT> once = Normalise(text)) {
      ASSERT_EQ(Normalise(*once), once);
    }
  });
}

TEST(PathsValidation, OnePath_IsReplacedByItsNormalisedCopy) {
  const UTF16 path = Units(u" \\x. ");
  const unsigned short* first = path.data();
  ASSERT_TRUE(gIsPathFileNameValid(&first, nullptr));
  EXPECT_NE(first, path.data());
  EXPECT_EQ(TextOf(first), u"x");
}

TEST(PathsValidation, TwoPaths_HaveABufferEach) {
  const UTF16 one = Units(u"\\one");
  const UTF16 two = Units(u"\\two");
  const unsigned short* first = one.data();
  const unsigned short* second = two.data();
  ASSERT_TRUE(gIsPathFileNameValid(&first, &second));
  EXPECT_EQ(TextOf(first), u"one");
  EXPECT_EQ(TextOf(second), u"two");
}

TEST(PathsValidation, OneInvalidPath_FailsBothAndKeepsThePointers) {
  const UTF16 good = Units(u"good");
  const UTF16 bad = Units(u"b*d");
  const unsigned short* first = good.data();
  const unsigned short* second = bad.data();
  EXPECT_FALSE(gIsPathFileNameValid(&first, &second));
  EXPECT_EQ(first, good.data());
  EXPECT_EQ(second, bad.data());
  EXPECT_FALSE(gIsPathFileNameValid(&second, &first));
  EXPECT_EQ(first, good.data());
  EXPECT_EQ(second, bad.data());
}

TEST(PathsValidation, NullPaths_AreInvalid) {
  const UTF16 good = Units(u"good");
  const unsigned short* path = good.data();
  const unsigned short* none = nullptr;
  EXPECT_FALSE(gIsPathFileNameValid(&none, nullptr));
  EXPECT_FALSE(gIsPathFileNameValid(&path, &none));
  EXPECT_FALSE(gIsPathFileNameValid(nullptr, nullptr));
}

// -------------------------------------------------------------------------------------------------------- moving

TEST(MovedPath, SourceDirectlyInTheDestination_IsNothingToDo) {
  EXPECT_EQ(Move(u"a\\b", u"a"), 1);
  EXPECT_EQ(Move(u"a\\b\\c", u"a\\b"), 1);
}

TEST(MovedPath, CaseDoesNotCount) {
  EXPECT_EQ(Move(u"a\\b", u"A"), 1);
  EXPECT_EQ(Move(u"a", u"A"), -1);
  EXPECT_EQ(Move(u"\u0436\\b", u"\u0416"), 1);
  EXPECT_EQ(Move(u"\u0436", u"\u0416\\x"), -1);
}

TEST(MovedPath, SourceInTheRootMovedToTheRoot_IsNothingToDo) { EXPECT_EQ(MoveToRoot(u"a"), 1); }

TEST(MovedPath, SourceBelowADirectoryMovedToTheRoot_IsValid) {
  EXPECT_EQ(MoveToRoot(u"a\\b"), 0);
  EXPECT_EQ(MoveToRoot(u"a\\b\\c"), 0);
}

TEST(MovedPath, NoPlaceForADestination_IsTheRootToo) {
  const UTF16 inRoot = Units(u"\\a");
  const UTF16 below = Units(u"a\\b");
  const unsigned short* path = inRoot.data();
  EXPECT_EQ(gIsMovedPathValid(&path, nullptr), 1);
  EXPECT_EQ(TextOf(path), u"a");
  path = below.data();
  EXPECT_EQ(gIsMovedPathValid(&path, nullptr), 0);
}

TEST(MovedPath, LengthOfEitherPath_IsLimitedTo259Units) {
  const TEXT longest = TEXT(257, u'a') + u"\\b";
  EXPECT_EQ(Move(longest, u"c"), 0);
  EXPECT_EQ(Move(longest + u"b", u"c"), -1);
  EXPECT_EQ(Move(u"c", longest), 0);
  EXPECT_EQ(Move(u"c", longest + u"b"), -1);
  EXPECT_EQ(MoveToRoot(longest), 0);
  EXPECT_EQ(MoveToRoot(longest + u"b"), -1);
}

TEST(MovedPath, UpToAFartherAncestor_IsValid) {
  EXPECT_EQ(Move(u"a\\b\\c", u"a"), 0);
  EXPECT_EQ(Move(u"a\\b\\c\\d", u"a\\b"), 0);
}

TEST(MovedPath, OntoItself_IsInvalid) {
  EXPECT_EQ(Move(u"a", u"a"), -1);
  EXPECT_EQ(Move(u"a\\b", u"a\\b"), -1);
}

TEST(MovedPath, IntoItsOwnSubtree_IsInvalid) {
  EXPECT_EQ(Move(u"a", u"a\\b"), -1);
  EXPECT_EQ(Move(u"a\\b", u"a\\b\\c\\d"), -1);
}

TEST(MovedPath, NamesThatOnlyBeginAlike_AreDifferentDirectories) {
  EXPECT_EQ(Move(u"ab", u"abc"), 0);
  EXPECT_EQ(Move(u"abc", u"ab"), 0);
  EXPECT_EQ(Move(u"ab\\x", u"a"), 0);
}

TEST(MovedPath, ElsewhereInTheTree_IsValid) {
  EXPECT_EQ(Move(u"a\\b", u"c"), 0);
  EXPECT_EQ(Move(u"a\\b", u"a\\c"), 0);
  EXPECT_EQ(Move(u"a", u"b\\c"), 0);
}

TEST(MovedPath, PathsAreNormalisedBeforeTheyAreCompared) {
  EXPECT_EQ(Move(u"\\ a . \\b", u" a\\"), 1);
  EXPECT_EQ(Move(u"a\\b\\", u"a."), 1);
  const UTF16 source = Units(u"\\x\\y.");
  const UTF16 destination = Units(u"\\z\\");
  const unsigned short* from = source.data();
  const unsigned short* to = destination.data();
  EXPECT_EQ(gIsMovedPathValid(&from, &to), 0);
  EXPECT_EQ(TextOf(from), u"x\\y");
  EXPECT_EQ(TextOf(to), u"z");
}

TEST(MovedPath, InvalidPaths_AreRefused) {
  EXPECT_EQ(Move(u"a*", u"b"), -1);
  EXPECT_EQ(Move(u"a", u"b*"), -1);
  EXPECT_EQ(MoveToRoot(u""), -1);
  const UTF16 path = Units(u"a");
  const unsigned short* none = nullptr;
  const unsigned short* destination = path.data();
  EXPECT_EQ(gIsMovedPathValid(&none, &destination), -1);
  EXPECT_EQ(gIsMovedPathValid(&none, &none), -1);
}

TEST(MovedPath, EmptyDestinationOrSeparator_IsNotTheRoot) {
  EXPECT_EQ(Move(u"a\\b", u""), -1);
  EXPECT_EQ(Move(u"a\\b", u"\\"), -1);
}

// ------------------------------------------------------------------------------------------------------ splitting

TEST(PathSplitting, FileName_IsTheLastComponentInTheSameString) {
  const UTF16 path = Units(u"a\\bc\\name.txt");
  EXPECT_EQ(gGetFileName(path.data()), path.data() + 5);
  const UTF16 single = Units(u"name");
  EXPECT_EQ(gGetFileName(single.data()), single.data());
}

TEST(PathSplitting, FileNameBehindALastSeparator_IsEmpty) {
  const UTF16 path = Units(u"a\\");
  EXPECT_EQ(gGetFileName(path.data()), path.data() + 2);
  const UTF16 empty = Units(u"");
  EXPECT_EQ(gGetFileName(empty.data()), empty.data());
}

TEST(PathSplitting, SubPaths_AreTheComponentsInOrder) {
  const UTF16 path = Units(u"a\\bcd\\e.f");
  const unsigned short* cursor = path.data();
  PATH_BUFFER component;
  EXPECT_EQ(TextOf(gGetASubPath(cursor, component)), u"a");
  EXPECT_EQ(cursor, path.data() + 1);
  ++cursor;
  EXPECT_EQ(TextOf(gGetASubPath(cursor, component)), u"bcd");
  EXPECT_EQ(cursor, path.data() + 5);
  ++cursor;
  const unsigned short* last = gGetASubPath(cursor, component);
  EXPECT_EQ(last, component.sz);
  EXPECT_EQ(TextOf(last), u"e.f");
  EXPECT_EQ(cursor, path.data() + 9);
  EXPECT_EQ(*cursor, 0);
}

TEST(PathSplitting, SubPathAtTheEnd_IsEmptyAndTheCursorStays) {
  const UTF16 path = Units(u"");
  const unsigned short* cursor = path.data();
  PATH_BUFFER component;
  EXPECT_EQ(TextOf(gGetASubPath(cursor, component)), u"");
  EXPECT_EQ(cursor, path.data());
}

TEST(PathSplitting, SubPathsInTwoBuffers_DoNotDisturbEachOther) {
  const UTF16 outer = Units(u"outer\\x");
  const UTF16 inner = Units(u"in\\y");
  const unsigned short* outerCursor = outer.data();
  const unsigned short* innerCursor = inner.data();
  PATH_BUFFER outerComponent;
  PATH_BUFFER innerComponent;
  const unsigned short* first = gGetASubPath(outerCursor, outerComponent);
  EXPECT_EQ(TextOf(gGetASubPath(innerCursor, innerComponent)), u"in");
  EXPECT_EQ(TextOf(first), u"outer");
}

TEST(PathSplitting, SubPathLongerThanItsBuffer_IsCutAndTheCursorGoesToItsEnd) {
  const UTF16 path = Units(TEXT(1000, u'a') + u"\\b");
  const unsigned short* cursor = path.data();
  const auto component = std::make_unique<PATH_BUFFER>();
  EXPECT_EQ(TextOf(gGetASubPath(cursor, *component)), TEXT(261, u'a'));
  EXPECT_EQ(cursor, path.data() + 1000);
}

TEST(PathSplitting, ParentPath_IsCutAtTheLastSeparator) {
  const UTF16 path = Units(u"a\\bc\\name");
  PATH_BUFFER buffer;
  const unsigned short* parent = nullptr;
  const unsigned short* name = nullptr;
  gGetParentPath(path.data(), buffer, parent, name);
  EXPECT_EQ(parent, buffer.sz);
  EXPECT_EQ(TextOf(parent), u"a\\bc");
  EXPECT_EQ(name, path.data() + 5);
}

TEST(PathSplitting, PathWithoutSeparator_HasNoParent) {
  const UTF16 path = Units(u"name");
  PATH_BUFFER buffer;
  const unsigned short* parent = path.data();
  const unsigned short* name = nullptr;
  gGetParentPath(path.data(), buffer, parent, name);
  EXPECT_EQ(parent, nullptr);
  EXPECT_EQ(name, path.data());
}

TEST(PathSplitting, ParentOfTheLongestPath_IsWhole) {
  const TEXT directory(257, u'd');
  const UTF16 path = Units(directory + u"\\f");
  const auto buffer = std::make_unique<PATH_BUFFER>();
  const unsigned short* parent = nullptr;
  const unsigned short* name = nullptr;
  gGetParentPath(path.data(), *buffer, parent, name);
  EXPECT_EQ(TextOf(parent), directory);
  EXPECT_EQ(name, path.data() + 258);
}

TEST(PathSplitting, ParentLongerThanItsBuffer_IsCut) {
  const UTF16 path = Units(TEXT(1000, u'd') + u"\\f");
  const auto buffer = std::make_unique<PATH_BUFFER>();
  const unsigned short* parent = nullptr;
  const unsigned short* name = nullptr;
  gGetParentPath(path.data(), *buffer, parent, name);
  EXPECT_EQ(TextOf(parent), TEXT(261, u'd'));
  EXPECT_EQ(name, path.data() + 1001);
}
