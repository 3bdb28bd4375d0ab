/// @file PutTest.cpp
/// put, looked at with mtools.

#include "ChangedImage.h"

namespace fatimg_test {
namespace {

using Put = ChangedImage;

TEST_F(Put, File_GoesIntoADirectoryOrGetsANewName) {
  File("a long name.text", "one");
  Run(0, {"put", m_Directory / "a long name.text", In("/Docs")});
  Run(0, {"put", m_Directory / "a long name.text", In("/Docs/other name.text")});
  EXPECT_EQ("one", Text("/Docs/a long name.text"));
  EXPECT_EQ("one", Text("/Docs/other name.text"));
}

TEST_F(Put, Tree_IsCopiedWithItsNameOrItsContents) {
  Run(0, {"put", "-r", m_Directory / "tree", In("/")});
  Run(0, {"put", "-r", m_Directory / "tree/.", In("/Docs")});
  EXPECT_EQ("Hello world\n", Text("/tree/README.TXT"));
  EXPECT_EQ(Text("/tree/Docs/Sub/DEEP.BIN"), Text("/Docs/Docs/Sub/DEEP.BIN"));
}

TEST_F(Put, DirectoryWithoutRecursion_IsAFailedItem) {
  EXPECT_EQ(
      "fatimg: put: " + (m_Directory / "tree") + ": is a directory; --recursive copies it with all that is in it\n",
      Run(4, {"put", m_Directory / "tree", In("/")}));
}

TEST_F(Put, StandardInput_BecomesAFile) {
  const PROCESS_RESULT result =
      RunProcess({"sh", "-c", "printf piped | \"$0\" put - \"$1\"", FATIMG_PROGRAM, In("/Docs/from a pipe.text")});
  EXPECT_EQ(0, result.ExitCode) << result.Output;
  EXPECT_EQ("piped", Text("/Docs/from a pipe.text"));
}

TEST_F(Put, ExistingFile_IsRefusedLeftOrReplaced) {
  File("README.TXT", "new");
  const std::vector<unsigned char> before = ImageBytes();
  EXPECT_NE(std::string::npos, Run(4, {"put", m_Directory / "README.TXT", In("/")}).find("exists"));
  Run(0, {"put", "--no-clobber", m_Directory / "README.TXT", In("/")});
  EXPECT_EQ("Hello world\n", Text("/README.TXT"));
  Run(0, {"put", "--force", m_Directory / "README.TXT", In("/readme.txt")});
  EXPECT_EQ("new", Text("/README.TXT"));
}

TEST_F(Put, PlanWithAProblem_WritesNothing) {
  File("top/good.text", "good");
  File("top/bad?", "bad");
  const std::vector<unsigned char> before = ImageBytes();
  EXPECT_NE(std::string::npos, Run(4, {"put", "-r", m_Directory / "top", In("/")}).find("top/bad?"));
  EXPECT_TRUE(before == ImageBytes());
}

TEST_F(Put, NoSpace_IsToldBeforeAnythingIsWritten) {
  RunOrThrow({"truncate", "-s", "17M", m_Directory / "big"});
  const std::vector<unsigned char> before = ImageBytes();
  EXPECT_NE(std::string::npos, Run(5, {"put", m_Directory / "big", In("/")}).find("needs 17.0 MiB"));
  EXPECT_TRUE(before == ImageBytes());
}

TEST_F(Put, FileOf4GiB_IsRefused) {
  RunOrThrow({"truncate", "-s", "4G", m_Directory / "big"});
  Run(5, {"put", m_Directory / "big", In("/")});
}

TEST_F(Put, MissingSourceOrDestination_IsNotFound) {
  Run(3, {"put", m_Directory / "nothing", In("/")});
  Run(3, {"put", m_Directory / "tree/README.TXT", In("/none/x")});
  Run(2, {"put", m_Directory / "tree/README.TXT"});
}

TEST_F(Put, SomeItemsFail_OthersAreCopied) {
  File("top/good.text", "good");
  RunOrThrow({"mkfifo", m_Directory / "top/pipe"});
  const std::string message = Run(1, {"put", "-r", m_Directory / "top", In("/")});
  EXPECT_EQ("fatimg: put: " + (m_Directory / "top/pipe") + ": is neither a file nor a directory\n", message);
  EXPECT_EQ("good", Text("/top/good.text"));
}

TEST_F(Put, Excluded_IsLeftOut) {
  for (const char* name : {"top/a.o", "top/sub/B.O", "top/sub/keep", "top/out/x"}) File(name, "x");
  Run(0, {"put", "-r", "--exclude", "*.o", "--exclude", "/out", m_Directory / "top", In("/")});
  EXPECT_EQ("::/TOP/SUB/keep\n", RunOrThrow({"mdir", "-b", "-i", m_Path, "::/TOP/SUB"}));
  EXPECT_FALSE(Exists("/top/out"));
  EXPECT_FALSE(Exists("/top/a.o"));
}

TEST_F(Put, Times_AreKeptWhenAskedFor) {
  Run(0, {"put", "--times", m_Directory / "tree/README.TXT", In("/Docs/kept name.text")}, {"TZ=UTC"});
  EXPECT_NE(std::string::npos, RunOrThrow({"mdir", "-i", m_Path, "::/Docs/kept name.text"}).find("2026-03-14"));
}

TEST_F(Put, DryRun_ChangesNothingAndSaysWhatWouldBe) {
  const std::vector<unsigned char> before = ImageBytes();
  Run(0, {"put", "-r", "--dry-run", "--json", m_Directory / "tree/.", In("/Docs")});
  const nlohmann::json json = nlohmann::json::parse(m_Output);
  EXPECT_EQ(5, json["files"]);
  EXPECT_EQ(2, json["directories"]);
  EXPECT_EQ(105015, json["bytes"]);
  EXPECT_TRUE(json["dryRun"].get<bool>());
  EXPECT_TRUE(before == ImageBytes());
}

TEST_F(Put, VolumeWithOneFat_IsRefusedUnlessForced) {
  const std::string image = m_Directory / "one.img";
  RunOrThrow({"mkfs.fat", "-C", "-f", "1", image, "4096"});
  EXPECT_NE(std::string::npos, Run(4, {"put", m_Directory / "tree/README.TXT", image + ":/"}).find("one.img"));
}

TEST_F(Put, ImageInItsOwnTree_IsNotCopiedIntoItself) {
  const std::string message = Run(1, {"put", "-r", m_Directory.Path() + "/.", In("/Docs")});
  EXPECT_NE(std::string::npos, message.find("disk.img: is the image itself"));
  EXPECT_TRUE(Exists("/Docs/tree/README.TXT"));
}

TEST_F(Put, Progress_IsToldAsJsonLines) {
  const std::string message = Run(0, {"put", "--progress=json", m_Directory / "tree/README.TXT", In("/Docs")});
  const nlohmann::json json = nlohmann::json::parse(message);
  EXPECT_EQ(12, json["progress"]["bytesDone"]);
  EXPECT_EQ(12, json["progress"]["bytesTotal"]);
}

TEST_F(Put, InterruptedWhileWaiting_LeavesTheVolumeAsItWas) {
  const std::vector<unsigned char> before = ImageBytes();
  const PROCESS_RESULT result = RunProcess(
      {"sh", "-c", "mkfifo \"$2\" && exec 3<>\"$2\" && timeout --preserve-status -s INT 1 \"$0\" put - \"$1\" <\"$2\"",
       FATIMG_PROGRAM, In("/Docs/never"), m_Path + ".in"});
  EXPECT_EQ(130, result.ExitCode) << result.Output;
  EXPECT_TRUE(before == ImageBytes());
}

}  // namespace
}  // namespace fatimg_test
