/// @file PathTest.cpp
/// Paths from UTF-8 and UTF-16, and the rules of names.

#include <fatlib/Path.h>
#include <gtest/gtest.h>

namespace {

using fatlib::Path;
using fatlib::Status;
using COMPONENTS = std::vector<std::u16string>;

TEST(Path, SlashesSeparateComponents) {
  EXPECT_EQ(Path("/a/b/c.txt").Components(), (COMPONENTS{u"a", u"b", u"c.txt"}));
  EXPECT_EQ(Path("a//b/").Components(), (COMPONENTS{u"a", u"b"}));
  EXPECT_EQ(Path(u"a\\b/c").Components(), (COMPONENTS{u"a", u"b", u"c"}));
}

TEST(Path, DotsAreResolvedAndNeverLeaveTheRoot) {
  EXPECT_EQ(Path("a/./b/../c").Components(), (COMPONENTS{u"a", u"c"}));
  EXPECT_EQ(Path("../../a").Components(), (COMPONENTS{u"a"}));
  EXPECT_TRUE(Path("a/..").IsRoot());
}

TEST(Path, EmptyPathIsTheRoot) {
  for (const char* text : {"", "/", "//", "."}) {
    EXPECT_TRUE(Path(text).IsRoot()) << text;
    EXPECT_EQ(Path(text).ToUtf8(), "/");
  }
  EXPECT_EQ(Path().Name(), u"");
  EXPECT_TRUE(Path().Parent().IsRoot());
  EXPECT_FALSE(Path().Check());
}

TEST(Path, NameParentAndChildBelongTogether) {
  const Path path(
      "Docs/Gr\xC3\xBC\xC3\x9F"
      "e.txt");
  EXPECT_EQ(path.Name(), u"Gr\u00FC\u00DFe.txt");
  EXPECT_EQ(path.Parent().ToUtf8(), "/Docs");
  EXPECT_EQ((path.Parent() / path.Name()).ToUtf8(), path.ToUtf8());
}

TEST(Path, ChildIsTakenAsItIs) {
  EXPECT_EQ((Path("a") / u"b/c").Components(), (COMPONENTS{u"a", u"b/c"}));
  EXPECT_EQ((Path("a") / u"b/c").Check(), Status::InvalidName);
}

TEST(Path, EqualInAnyCase) {
  EXPECT_TRUE(Path("Docs/Read.me") == Path(u"DOCS\\READ.ME"));
  EXPECT_FALSE(Path("Docs") == Path("Docs/Read.me"));
  EXPECT_FALSE(Path("Docs") == Path("Docz"));
}

TEST(Path, IsBelowWhatItBeginsWithComponentByComponent) {
  EXPECT_TRUE(Path("a/b").IsAtOrBelow(Path("A")));
  EXPECT_TRUE(Path("a/b").IsAtOrBelow(Path("a/B")));
  EXPECT_TRUE(Path("a").IsAtOrBelow(Path()));
  EXPECT_FALSE(Path("ab").IsAtOrBelow(Path("a")));
  EXPECT_FALSE(Path("a").IsAtOrBelow(Path("a/b")));
}

TEST(Path, InvalidUtf8IsShownAndRefused) {
  const Path path("a/b\xFF\xC3(");
  EXPECT_EQ(path.Components(), (COMPONENTS{u"a", u"b\uFFFD\uFFFD("}));
  EXPECT_EQ(path.Check(), Status::InvalidName);
  EXPECT_EQ((path.Parent() / u"c").Check(), Status::InvalidName);
}

TEST(Path, NamesThatFatCannotHoldAreRefused) {
  for (const char16_t unit : std::u16string(u"\"*/:<>?\\|\x7F\x01\x1F\0", 13)) {
    EXPECT_EQ(fatlib::CheckName(std::u16string(u"a") + unit + u"b"), Status::InvalidName) << unsigned{unit};
  }
  for (const char16_t* name : {u"", u".", u"..", u" a", u"a ", u"a.", u"a..b", u"..a"}) {
    EXPECT_EQ(fatlib::CheckName(name), Status::InvalidName);
  }
}

TEST(Path, NamesThatFatCanHoldAreTaken) {
  for (const char16_t* name : {u"a", u".a", u"a.b.c", u"a b", u"+,;=[]", u"\u00E4\uFFFF", u"~!@#$%^&()_{}'"}) {
    EXPECT_FALSE(fatlib::CheckName(name));
  }
}

TEST(Path, NameOf255UnitsIsTheLongest) {
  EXPECT_FALSE(fatlib::CheckName(std::u16string(255, u'x')));
  EXPECT_EQ(fatlib::CheckName(std::u16string(256, u'x')), Status::NameTooLong);
}

TEST(Path, PathOf259UnitsIsTheLongest) {
  const Path path = Path() / std::u16string(255, u'x') / u"abc";  // with the separator
  EXPECT_FALSE(path.Check());
  EXPECT_EQ((path.Parent() / u"abcd").Check(), Status::NameTooLong);
  EXPECT_EQ((path / u"a").Check(), Status::NameTooLong);
}

}  // namespace
