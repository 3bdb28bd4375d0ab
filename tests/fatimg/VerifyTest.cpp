/// @file VerifyTest.cpp
/// verify: differences between a tree of the host and one of an image.

#include "FatimgRun.h"

namespace fatimg_test {
namespace {

class Verify : public Image {
 protected:
  std::string Tree(const std::string& name = "") const { return m_Directory / ("tree" + name); }
  std::string Difference() const {
    const nlohmann::json json = FatimgJson({"verify", Tree(), m_Path}, 1);
    EXPECT_EQ(false, json["equal"]);
    EXPECT_EQ(1u, json["differences"].size()) << json.dump();
    return json["differences"].empty() ? "" : json["differences"][0].value("difference", "");
  }
};

TEST_F(Verify, EqualTrees_AreEqual) {
  const nlohmann::json json = FatimgJson({"verify", Tree(), m_Path});
  EXPECT_EQ(true, json["equal"]);
  EXPECT_EQ(5, json["files"]);
  EXPECT_EQ(3, json["directories"]);
  EXPECT_EQ(105015, json["bytes"]);
  const RESULT text = Fatimg({"verify", Tree("/Docs"), In("/DOCS")});
  EXPECT_EQ(0, text.exit) << text.err;
  EXPECT_EQ("2 files, 2 directories, 100003 bytes compared\n", text.out);
}

TEST_F(Verify, SingleFiles_CanBeCompared) {
  EXPECT_EQ(0, Fatimg({"verify", Tree("/README.TXT"), In("/README.TXT")}).exit);
  EXPECT_EQ(1, Fatimg({"verify", Tree("/README.TXT"), In("/A long name.text")}).exit);
}

TEST_F(Verify, OtherBytes_AreFound) {
  WriteHostFile(Tree("/README.TXT"), {'H', 'e', 'l', 'l', 'o', ' ', 'W', 'o', 'r', 'l', 'd', '\n'});
  EXPECT_EQ("bytes", Difference());
  const RESULT text = Fatimg({"verify", Tree(), m_Path});
  EXPECT_NE(std::string::npos, text.out.find("/README.TXT: the first different byte is 6\n")) << text.out;
}

TEST_F(Verify, OtherSize_IsFound) {
  WriteHostFile(Tree("/README.TXT"), {'H'});
  EXPECT_EQ("size", Difference());
}

TEST_F(Verify, FileOnlyOnTheHost_IsFound) {
  WriteHostFile(Tree("/more"), {});
  EXPECT_EQ("missing", Difference());
}

TEST_F(Verify, FileOnlyInTheImage_IsFound) {
  RunOrThrow({"rm", Tree("/HIDDEN.SYS")});
  EXPECT_EQ("extra", Difference());
}

TEST_F(Verify, FileInPlaceOfADirectory_IsFound) {
  RunOrThrow({"rm", Tree("/HIDDEN.SYS")});
  RunOrThrow({"mkdir", Tree("/HIDDEN.SYS")});
  EXPECT_EQ("type", Difference());
}

TEST_F(Verify, LetterCaseOfNames_DoesNotMatter) {
  RunOrThrow({"mv", Tree("/README.TXT"), Tree("/ReadMe.txt")});
  EXPECT_EQ(0, Fatimg({"verify", Tree(), m_Path}).exit);
}

TEST_F(Verify, Exclude_AppliesToBothSides) {
  WriteHostFile(Tree("/Docs/more.o"), {});
  RunOrThrow({"rm", Tree("/HIDDEN.SYS")});
  EXPECT_EQ(0, Fatimg({"verify", "--exclude", "*.o", "--exclude", "/hidden.sys", Tree(), m_Path}).exit);
}

TEST_F(Verify, Times_AreComparedWhenThatIsWanted) {
  RunOrThrow({"touch", "-d", "2026-03-14T15:09:26", Tree("/README.TXT")});
  EXPECT_EQ(1, Fatimg({"verify", "--times", Tree("/README.TXT"), In("/README.TXT")}, {"TZ=UTC-9"}).exit);
  RunOrThrow({"touch", "-d", "2026-03-14T15:09:28", Tree("/README.TXT")});
  const RESULT result = Fatimg({"verify", "--times", Tree("/README.TXT"), In("/README.TXT")}, {"TZ="});
  EXPECT_EQ(1, result.exit);
  EXPECT_NE(std::string::npos, result.out.find("15:09:28 on the host")) << result.out;
}

TEST_F(Verify, NoHostTree_IsNotFound) {
  EXPECT_EQ(3, Fatimg({"verify", Tree("/none"), m_Path}).exit);
  EXPECT_EQ(3, Fatimg({"verify", Tree(), In("/none")}).exit);
}

}  // namespace
}  // namespace fatimg_test
