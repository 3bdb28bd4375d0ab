/// @file NamesTest.cpp
/// mv, mkdir, rm, touch, truncate, attr and label, looked at with mtools.

#include "ChangedImage.h"

namespace fatimg_test {
namespace {

using Mv = ChangedImage;

TEST_F(Mv, File_IsRenamedOrMovedIntoADirectory) {
  const std::string text = Text("/A long name.text");
  Run(0, {"mv", In("/A long name.text"), In("/Another long name.text")});
  Run(0, {"mv", In("/Another long name.text"), In("/README.TXT"), In("/Docs/Sub")});
  EXPECT_EQ(text, Text("/Docs/Sub/Another long name.text"));
  EXPECT_EQ("Hello world\n", Text("/Docs/Sub/README.TXT"));
  EXPECT_FALSE(Exists("/README.TXT"));
}

TEST_F(Mv, LetterCase_CanBeAllThatChanges) {
  Run(0, {"mv", In("/A long name.text"), In("/A LONG name.text")});
  EXPECT_NE(std::string::npos, Tree().find("A LONG name.text"));
  Run(0, {"mv", In("/docs"), In("/DOCS")});
  EXPECT_TRUE(Exists("/Docs/Sub/DEEP.BIN"));
}

TEST_F(Mv, ExistingFile_IsRefusedLeftOrReplaced) {
  Run(4, {"mv", In("/A long name.text"), In("/README.TXT")});
  Run(0, {"mv", "-n", In("/A long name.text"), In("/README.TXT")});
  EXPECT_EQ("Hello world\n", Text("/README.TXT"));
  const std::string text = Text("/A long name.text");
  Run(0, {"mv", "--force", In("/A long name.text"), In("/README.TXT")});
  EXPECT_EQ(text, Text("/README.TXT"));
}

TEST_F(Mv, DirectoryIntoItselfAndTheRoot_AreRefused) {
  Run(4, {"mv", In("/Docs"), In("/Docs/Sub/Docs")});
  Run(4, {"mv", In("/"), In("/Docs/root")});
  Run(3, {"mv", In("/nothing"), In("/Docs")});
  Run(2, {"mv", In("/Docs")});
}

TEST_F(Mv, DirectoryOutOfAnother_KeepsItsFiles) {
  Run(0, {"mv", In("/Docs/Sub"), In("/")});
  EXPECT_TRUE(Exists("/Sub/DEEP.BIN"));
}

using Mkdir = ChangedImage;

TEST_F(Mkdir, Directory_IsMadeWithParentsWhenAskedFor) {
  Run(0, {"mkdir", In("/new")});
  Run(3, {"mkdir", In("/a/b/c")});
  Run(0, {"mkdir", "-p", In("/a/b/c"), In("/a/b"), In("/Docs")});
  EXPECT_TRUE(Exists("/a/b/c"));
  Run(4, {"mkdir", In("/new")});
}

TEST_F(Mkdir, NameThatNoVolumeHolds_IsRefused) {
  Run(4, {"mkdir", In("/what?")});
  Run(4, {"mkdir", In("/" + std::string(256, 'x'))});
  Run(0, {"mkdir", In("/" + std::string(255, 'x'))});
}

using Rm = ChangedImage;

TEST_F(Rm, FilesAndTrees_Go) {
  Run(0, {"rm", In("/*.text"), In("/README.TXT")});
  Run(4, {"rm", In("/Docs")});
  Run(0, {"rm", "-r", In("/Docs"), In("/HIDDEN.SYS")});
  EXPECT_FALSE(Exists("/Docs"));
  EXPECT_FALSE(Exists("/README.TXT"));
}

TEST_F(Rm, MissingFile_IsAFailureUnlessForced) {
  Run(3, {"rm", In("/nothing")});
  Run(0, {"rm", "--force", In("/nothing")});
  Run(1, {"rm", In("/nothing"), In("/README.TXT")});
  EXPECT_FALSE(Exists("/README.TXT"));
}

TEST_F(Rm, Root_IsRefused) { Run(4, {"rm", "-r", In("/")}); }

TEST_F(Rm, DryRun_ChangesNothing) {
  const std::vector<unsigned char> before = ImageBytes();
  Run(0, {"rm", "-r", "--dry-run", In("/*")});
  EXPECT_TRUE(before == ImageBytes());
}

using Touch = ChangedImage;

TEST_F(Touch, Time_IsThatOfTheDateOrOfAnotherFile) {
  Run(0, {"touch", "-d", "2001-02-03T04:05:06", In("/Docs")});
  EXPECT_NE(std::string::npos, RunOrThrow({"mdir", "-i", m_Path, "::/"}).find("2001-02-03   4:05"));
  Run(0, {"touch", "-r", In("/README.TXT"), In("/A long name.text")});
  EXPECT_NE(std::string::npos, RunOrThrow({"mdir", "-i", m_Path, "::/A long name.text"}).find("2026-03-14  15:09"));
  Run(0, {"touch", "-r", m_Directory / "tree/README.TXT", In("/Docs/Sub/DEEP.BIN")}, {"TZ=UTC"});
  Run(2, {"touch", "-d", "yesterday", In("/README.TXT")});
  Run(2, {"touch", "-d", "1979-12-31", In("/README.TXT")});
}

TEST_F(Touch, MissingFile_IsMadeEmpty) {
  Run(0, {"touch", "-c", In("/not made")});
  EXPECT_FALSE(Exists("/not made"));
  Run(0, {"touch", In("/new file.text")});
  EXPECT_EQ("", Text("/new file.text"));
}

using Truncate = ChangedImage;

TEST_F(Truncate, Size_IsSetAndGrowthReadsAsZeros) {
  Run(0, {"truncate", "-s", "5", In("/README.TXT")});
  EXPECT_EQ("Hello", Text("/README.TXT"));
  Run(0, {"truncate", "--size=+3", In("/README.TXT")});
  EXPECT_EQ(std::string("Hello\0\0\0", 8), Text("/README.TXT"));
  Run(0, {"truncate", "--size=-7", In("/README.TXT")});
  EXPECT_EQ("H", Text("/README.TXT"));
  Run(5, {"truncate", "-s", "20M", In("/README.TXT")});
  Run(2, {"truncate", "-s", "much", In("/README.TXT")});
  EXPECT_EQ("H", Text("/README.TXT"));
}

using Attr = ChangedImage;

TEST_F(Attr, Attributes_AreSetClearedAndShown) {
  Run(0, {"attr", "+rs", "-h", "-a", In("/HIDDEN.SYS")});
  Run(0, {"attr", In("/HIDDEN.SYS"), In("/README.TXT")});
  EXPECT_EQ("r-s- " + In("/HIDDEN.SYS") + "\n---a " + In("/README.TXT") + "\n", m_Output);
  EXPECT_EQ("  S R ", RunOrThrow({"mattrib", "-i", m_Path, "::/HIDDEN.SYS"}).substr(3, 6));
  Run(2, {"attr", "+x", In("/README.TXT")});
}

TEST_F(Attr, Json_NamesTheAttributes) {
  const nlohmann::json json = FatimgJson({"attr", In("/HIDDEN.SYS")});
  EXPECT_EQ((nlohmann::json{"hidden", "archive"}), json["entries"][0]["attributes"]);
}

using Label = ChangedImage;

TEST_F(Label, Label_IsShownSetAndRemoved) {
  Run(0, {"label", m_Path});
  EXPECT_EQ("DATA\n", m_Output);
  Run(0, {"label", m_Path, "new name"});
  EXPECT_NE(std::string::npos, RunOrThrow({"mlabel", "-s", "-i", m_Path, "::"}).find("NEW NAME"));
  Run(2, {"label", m_Path, "twelve chars"});
  Run(0, {"label", "--remove", m_Path});
  EXPECT_NE(std::string::npos, RunOrThrow({"mlabel", "-s", "-i", m_Path, "::"}).find("no label"));
}

}  // namespace
}  // namespace fatimg_test
