/// @file WordsTest.cpp
/// Words of command files, times, patterns that exclude, and volume ids.

#include <gtest/gtest.h>

#include "DateText.h"
#include "Exclude.h"
#include "Exit.h"
#include "VolumeId.h"
#include "Words.h"

namespace fatimg {
namespace {

using Strings = std::vector<std::string>;

Strings WordsOf(const std::string& line) {
  Strings words;
  EXPECT_TRUE(SplitWords(line, &words)) << line;
  return words;
}

TEST(Words, Blanks_SeparateThem) {
  EXPECT_EQ((Strings{"a", "b", "c"}), WordsOf("  a\tb   c \r"));
  EXPECT_EQ(Strings{}, WordsOf("   "));
}

TEST(Words, Quotes_KeepBlanksAndMayBeEmpty) {
  EXPECT_EQ((Strings{"a b", "c d", "", "ef"}), WordsOf("'a b' \"c d\" '' e'f'"));
  EXPECT_EQ((Strings{"a\\b", "a\\b\"c", "it's"}), WordsOf("'a\\b' \"a\\b\\\"c\" \"it's\""));
}

TEST(Words, Backslash_KeepsAnyCharacter) { EXPECT_EQ((Strings{"a b", "#c", "\\"}), WordsOf("a\\ b \\#c \\\\")); }

TEST(Words, Comment_BeginsWithAWord) {
  EXPECT_EQ((Strings{"a", "b#c"}), WordsOf("a b#c # d 'e"));
  EXPECT_EQ((Strings{"#"}), WordsOf("'#'"));
}

TEST(Words, OpenQuoteOrEndingBackslash_IsRefused) {
  Strings words;
  for (const char* line : {"'a", "\"a", "a\\", "\"a\\\""}) EXPECT_FALSE(SplitWords(line, &words)) << line;
}

TEST(TimeText, DatesAndSeconds_AreTaken) {
  std::timespec time{};
  ASSERT_TRUE(ParseTime("2026-03-14T15:09:26", fatlib::Zone::Utc, &time));
  EXPECT_EQ(1773500966, time.tv_sec);
  ASSERT_TRUE(ParseTime("2026-03-14 15:09", fatlib::Zone::Utc, &time));
  EXPECT_EQ(1773500940, time.tv_sec);
  ASSERT_TRUE(ParseTime("2026-03-14Z", fatlib::Zone::Local, &time));
  EXPECT_EQ(1773446400, time.tv_sec);
  ASSERT_TRUE(ParseTime("@1600000000", fatlib::Zone::Utc, &time));
  EXPECT_EQ(1600000000, time.tv_sec);
}

TEST(TimeText, WhatIsNoTimeOrCannotBeStored_IsRefused) {
  std::timespec time{};
  for (const char* text : {"", "@", "@x", "2026", "2026-13-01", "2026-02-30", "2026-01-01T24:00", "2026-01-01T1:00",
                           "2026-01-01x", "1979-12-31", "@1", "@99999999999999999999"}) {
    EXPECT_FALSE(ParseTime(text, fatlib::Zone::Utc, &time)) << text;
  }
}

TEST(Exclude, PatternWithoutSlash_FitsAtAnyDepth) {
  const Exclude exclude({"*.o", "build"});
  EXPECT_TRUE(exclude("a.o"));
  EXPECT_TRUE(exclude("x/y/A.O"));
  EXPECT_TRUE(exclude("x/build"));
  EXPECT_FALSE(exclude("build/x"));
  EXPECT_FALSE(exclude("a.oo"));
}

TEST(Exclude, PatternWithSlash_FitsFromTheTop) {
  const Exclude exclude({"/notes", "a/*.o"});
  EXPECT_TRUE(exclude("notes"));
  EXPECT_FALSE(exclude("x/notes"));
  EXPECT_TRUE(exclude("a/b.o"));
  EXPECT_FALSE(exclude("x/a/b.o"));
}

TEST(Exclude, NothingAndWhatIsNotUtf8_AreUsage) {
  EXPECT_THROW(Exclude({"/"}), Failure);
  EXPECT_THROW(Exclude({"\xFF"}), Failure);
  EXPECT_FALSE(Exclude({"*"})("\xFF"));
}

TEST(VolumeId, Digits_AreTakenWithOrWithoutADash) {
  std::uint32_t id = 0;
  ASSERT_TRUE(ParseVolumeId("12aB-34Cd", &id));
  EXPECT_EQ(0x12AB34CDu, id);
  ASSERT_TRUE(ParseVolumeId("00000001", &id));
  EXPECT_EQ(1u, id);
  for (const char* text : {"", "1234", "1234-ABC", "12345-678", "1234-ABCDE", "1234-ABCG"}) {
    EXPECT_FALSE(ParseVolumeId(text, &id)) << text;
  }
}

TEST(VolumeId, Time_GivesTheHashOfItsBytes) {
  // 32-bit FNV-1a of the seconds and the nanoseconds, eight bytes each, the lowest first.
  EXPECT_EQ(0x450808B2u, VolumeIdOfTime({1600000000, 0}));
  EXPECT_NE(VolumeIdOfTime({1600000000, 0}), VolumeIdOfTime({1600000000, 1}));
}

}  // namespace
}  // namespace fatimg
