/// @file TextTest.cpp
/// UTF-8 and UTF-16 both ways, and the comparison of names.

#include <fatlib/FatLibIntf.h>
#include <fatlib/Text.h>
#include <fatlib/XStorage.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ImageBuilder.h"

namespace {

using fatlib::FromUtf8;
using fatlib::ToUtf8;

struct PAIR {
  std::u16string Units;
  std::string Utf8;
};

// The first and last code point of each length, and what lies around surrogates.
const PAIR PAIRS[] = {
    {u"", ""},
    {std::u16string(1, 0), std::string(1, '\0')},
    {u"\x7F", "\x7F"},
    {u"\x80", "\xC2\x80"},
    {u"\u07FF", "\xDF\xBF"},
    {u"\u0800", "\xE0\xA0\x80"},
    {u"\uD7FF", "\xED\x9F\xBF"},
    {u"\uE000", "\xEE\x80\x80"},
    {u"\uFFFF", "\xEF\xBF\xBF"},
    {u"\U00010000", "\xF0\x90\x80\x80"},
    {u"\U0010FFFF", "\xF4\x8F\xBF\xBF"},
    {u"Gr\u00FC\u00DFe.txt",
     "Gr\xC3\xBC\xC3\x9F"
     "e.txt"},
    {{0xD800}, "\xED\xA0\x80"},
    {{0xDFFF}, "\xED\xBF\xBF"},
    {{0xDC00, 0xD800}, "\xED\xB0\x80\xED\xA0\x80"},
    {{0xD800, 0xD800, 0xDC00}, "\xED\xA0\x80\xF0\x90\x80\x80"},
};

TEST(Text, UnitsAndBytesBecomeEachOther) {
  for (const PAIR& pair : PAIRS) {
    EXPECT_EQ(ToUtf8(pair.Units), pair.Utf8);
    std::u16string units = u"before";
    EXPECT_TRUE(FromUtf8(pair.Utf8, &units)) << pair.Utf8;
    EXPECT_EQ(units, pair.Units) << pair.Utf8;
  }
}

TEST(Text, AnySequenceOfSurrogatesComesBack) {
  const char16_t choices[] = {u'a', 0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xE000};
  for (unsigned int n = 0; n < 6 * 6 * 6 * 6; ++n) {
    const std::u16string units = {choices[n % 6], choices[n / 6 % 6], choices[n / 36 % 6], choices[n / 216]};
    std::u16string back;
    ASSERT_TRUE(FromUtf8(ToUtf8(units), &back)) << n;
    ASSERT_EQ(back, units) << n;
  }
}

TEST(Text, BytesThatAreNotUtf8AreRefused) {
  const std::string invalid[] = {
      "\x80",                      // begins in the middle
      "\xC3",                      // ends too early
      "a\xE2\x82",                 // the same
      "\xC3(",                     // no continuation
      "\xC0\x80",                  // two bytes for one
      "\xE0\x80\xAF",              // three bytes for one
      "\xF0\x8F\xBF\xBF",          // four bytes for three
      "\xF4\x90\x80\x80",          // behind U+10FFFF
      "\xF8\x88\x80\x80\x80",      // five bytes
      "\xFF",                      // never a byte of UTF-8
      "\xED\xA0\x80\xED\xB0\x80",  // a pair of surrogates one by one
  };
  for (const std::string& bytes : invalid) {
    std::u16string units = u"before";
    EXPECT_FALSE(FromUtf8(bytes, &units)) << bytes;
    EXPECT_EQ(units, u"before");
  }
}

TEST(Text, UpperCaseTakesUnitForUnit) {
  EXPECT_EQ(fatlib::UpCase(u"Gr\u00FC\u00DFe \u03B1\u0431\uFF41"), u"GR\u00DC\u00DFE \u0391\u0411\uFF21");
  EXPECT_EQ(fatlib::UpCase(u"\U00010428"), u"\U00010428");  // a letter outside the table's range
}

TEST(Text, NamesAreTheSameInAnyCase) {
  EXPECT_TRUE(fatlib::SameName(u"Read Me.TXT", u"rEAD mE.txt"));
  EXPECT_TRUE(fatlib::SameName(u"", u""));
  EXPECT_FALSE(fatlib::SameName(u"abc", u"abcd"));
  EXPECT_FALSE(fatlib::SameName(u"abc", u"abd"));
}

// One file for each unit that has an upper case: the library must open it under the upper-case name, and no other.
TEST(Text, UpperCaseIsThatOfTheLibrary) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 12;
  CImageBuilder builder(geometry);
  const auto directory = builder.AddDir(CImageBuilder::Root(), "D");
  std::vector<std::uint32_t> clusters(1, builder.DirectoryClusters(directory)[0]);
  std::vector<std::u16string> names;
  for (unsigned int unit = 0x80; unit < 0x10000; ++unit) {
    const std::u16string name(1, static_cast<char16_t>(unit));
    if (fatlib::UpCase(name) != name) names.push_back(name + u" long enough");
  }
  ASSERT_GT(names.size(), 600u);
  for (const std::u16string& name : names) builder.AddFile(directory, ToUtf8(name));
  std::vector<unsigned char> image = builder.Image().ToVector();

  Fat_LibInitialize();
  CFatMemory* storage = new CFatMemory;
  CFatFileSystem* mounted = Fat_Mount(storage, image.data());
  ASSERT_NE(mounted, nullptr);
  for (const std::u16string& name : names) {
    const std::u16string path = u"D\\" + fatlib::UpCase(name);
    std::vector<unsigned short> units(path.begin(), path.end());
    units.push_back(0);
    WIN_FIND_DATA data;
    const int handle = Fat_OpenFile(units.data());
    ASSERT_NE(handle, -1) << ToUtf8(path);
    EXPECT_NE(Fat_GetFileAttribute(handle, &data), 0u);
    EXPECT_TRUE(fatlib::SameName(name, std::u16string(data.cFileName, data.cFileName + name.size()))) << ToUtf8(path);
    Fat_CloseFile(handle);
  }
  Fat_Unmount(mounted);
  ::operator delete(storage);
  EXPECT_EQ(Fat_LibTerminate(), 1u);
}

}  // namespace
