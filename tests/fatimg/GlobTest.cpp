/// @file GlobTest.cpp
/// Patterns for names.

#include <gtest/gtest.h>

#include "Glob.h"

namespace fatimg {
namespace {

TEST(Glob, Star_IsAnyCharacters) {
  EXPECT_TRUE(GlobMatches(u"*", u"A"));
  EXPECT_TRUE(GlobMatches(u"*", u""));
  EXPECT_TRUE(GlobMatches(u"*.txt", u"a.b.txt"));
  EXPECT_TRUE(GlobMatches(u"a*b*c", u"aXXbYYbZc"));
  EXPECT_FALSE(GlobMatches(u"a*b*c", u"aXXcYY"));
  EXPECT_FALSE(GlobMatches(u"*.txt", u"txt"));
}

TEST(Glob, LetterCase_DoesNotMatter) {
  EXPECT_TRUE(GlobMatches(u"readme.*", u"README.TXT"));
  EXPECT_TRUE(GlobMatches(u"GRÜSSE", u"grüsse"));
  EXPECT_TRUE(GlobMatches(u"[a-c]", u"B"));
  EXPECT_TRUE(GlobMatches(u"[A-C]", u"b"));
}

TEST(Glob, QuestionMark_IsOneCharacter) {
  EXPECT_TRUE(GlobMatches(u"?.c", u"a.c"));
  EXPECT_FALSE(GlobMatches(u"?.c", u".c"));
  EXPECT_FALSE(GlobMatches(u"?", u"ab"));
  EXPECT_TRUE(GlobMatches(u"?", u"\xD83D\xDE00"));  // one character in two units
}

TEST(Glob, LoneSurrogate_IsACharacterToo) {
  EXPECT_TRUE(GlobMatches(u"a?b", std::u16string{u'a', 0xD800, u'b'}));
  EXPECT_TRUE(GlobMatches(std::u16string{0xDC00, u'*'}, std::u16string{0xDC00, u'x'}));
}

TEST(Glob, Set_IsOneOfItsCharacters) {
  EXPECT_TRUE(GlobMatches(u"IMG_[0-9][0-9].jpg", u"img_07.JPG"));
  EXPECT_FALSE(GlobMatches(u"[0-9]", u"x"));
  EXPECT_TRUE(GlobMatches(u"[!0-9]", u"x"));
  EXPECT_FALSE(GlobMatches(u"[^x]", u"x"));
  EXPECT_TRUE(GlobMatches(u"[]x]", u"]"));
  EXPECT_TRUE(GlobMatches(u"[a-]", u"-"));
}

TEST(Glob, OpenSet_StandsForItself) {
  EXPECT_TRUE(GlobMatches(u"a[1", u"A[1"));
  EXPECT_TRUE(GlobMatches(u"[", u"["));
  EXPECT_TRUE(GlobMatches(u"[[]1].txt", u"[1].txt"));
}

TEST(Glob, ManyStars_TakeNoLongTime) {
  std::u16string pattern;
  for (int i = 0; i < 100; ++i) pattern += u"*a";
  EXPECT_FALSE(GlobMatches(pattern + u"b", std::u16string(255, u'a')));
}

TEST(Glob, EmptyPattern_FitsTheEmptyNameOnly) {
  EXPECT_TRUE(GlobMatches(u"", u""));
  EXPECT_FALSE(GlobMatches(u"", u"a"));
}

}  // namespace
}  // namespace fatimg
