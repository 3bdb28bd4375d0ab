/// @file GetTest.cpp
/// get, and cp between images.

#include <filesystem>

#include "ChangedImage.h"

namespace fatimg_test {
namespace {

using Get = ChangedImage;

TEST_F(Get, Tree_IsTheOneThatWasPutThere) {
  Run(0, {"get", "-r", In("/"), m_Directory / "out"});
  const PROCESS_RESULT difference = RunProcess({"diff", "-r", m_Directory / "tree", m_Directory / "out"});
  EXPECT_TRUE(difference.Ok()) << difference.Output;
}

TEST_F(Get, Patterns_AreExpandedWithoutRegardToCase) {
  ASSERT_TRUE(std::filesystem::create_directory(m_Directory / "out"));
  Run(0, {"get", In("/*.t?xt"), In("/readme.*"), m_Directory / "out"});
  EXPECT_TRUE(std::filesystem::exists(m_Directory / "out/A long name.text"));
  EXPECT_EQ("Hello world\n", HostText("out/README.TXT"));
  Run(3, {"get", In("/*.none"), m_Directory / "out"});
}

TEST_F(Get, File_GoesToStandardOutput) {
  Run(0, {"get", In("/README.TXT"), "-"});
  EXPECT_EQ("Hello world\n", m_Output);
}

TEST_F(Get, ExistingHostFile_IsRefusedLeftOrReplaced) {
  File("mine", "mine");
  Run(4, {"get", In("/README.TXT"), m_Directory / "mine"});
  Run(0, {"get", "-n", In("/README.TXT"), m_Directory / "mine"});
  EXPECT_EQ("mine", HostText("mine"));
  Run(0, {"get", "--force", In("/README.TXT"), m_Directory / "mine"});
  EXPECT_EQ("Hello world\n", HostText("mine"));
}

TEST_F(Get, Image_StaysBitForBitAsItWas) {
  const std::vector<unsigned char> before = ImageBytes();
  Run(0, {"get", "-r", "--times", In("/"), m_Directory / "out"});
  EXPECT_TRUE(before == ImageBytes());
}

TEST_F(Get, Times_AreKeptWhenAskedFor) {
  Run(0, {"get", "--times", In("/README.TXT"), m_Directory / "kept"});
  const std::string time = RunOrThrow({"env", "TZ=Europe/Berlin", "date", "-r", m_Directory / "kept", "+%FT%T"});
  EXPECT_EQ("2026-03-14T15:09:26\n", time);
}

TEST_F(Get, DryRun_MakesNothing) {
  Run(0, {"get", "-r", "--dry-run", In("/"), m_Directory / "out"});
  EXPECT_FALSE(std::filesystem::exists(m_Directory / "out"));
}

TEST_F(Get, MissingFile_IsNotFound) { Run(3, {"get", In("/nothing"), m_Directory / "out"}); }

TEST_F(Get, DeviceAsDestination_IsWrittenTo) { Run(0, {"get", In("/README.TXT"), "/dev/null"}); }

using Cp = ChangedImage;

TEST_F(Cp, Tree_IsCopiedInsideTheImage) {
  Run(0, {"cp", "-r", In("/Docs"), In("/Other documents")});
  EXPECT_EQ(Text("/Docs/Sub/DEEP.BIN"), Text("/Other documents/Sub/DEEP.BIN"));
}

TEST_F(Cp, Attributes_AreCopied) {
  Run(0, {"cp", In("/HIDDEN.SYS"), In("/COPY.SYS")});
  Run(0, {"attr", In("/COPY.SYS")});
  EXPECT_EQ("-h-a " + In("/COPY.SYS") + "\n", m_Output);
}

TEST_F(Cp, AnotherImage_IsADestinationToo) {
  const std::string image = m_Directory / "other.img";
  RunOrThrow({"mkfs.fat", "-C", image, "4096"});
  Run(0, {"cp", "-r", In("/Docs"), image + ":/"});
  EXPECT_EQ(Text("/Docs/Sub/DEEP.BIN"), RunOrThrow({"mtype", "-i", image, "::/Docs/Sub/DEEP.BIN"}));
  RunOrThrow({"fsck.fat", "-n", image});
}

TEST_F(Cp, IntoOrOntoItself_IsRefused) {
  Run(4, {"cp", "-r", In("/Docs"), In("/Docs/Sub/again")});
  Run(4, {"cp", "-r", In("/Docs"), In("/Docs")});
  Run(4, {"cp", "--force", In("/README.TXT"), In("/readme.txt")});
  EXPECT_EQ("Hello world\n", Text("/README.TXT"));
}

}  // namespace
}  // namespace fatimg_test
