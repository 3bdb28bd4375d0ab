/// @file RunTest.cpp
/// run: many commands in one mount.

#include <filesystem>

#include "ChangedImage.h"

namespace fatimg_test {
namespace {

class Script : public ChangedImage {
 protected:
  std::string RunScript(int exit, const std::string& text, const std::vector<std::string>& options = {}) {
    File("script", text);
    std::vector<std::string> arguments{"run"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.insert(arguments.end(), {m_Path, m_Directory / "script"});
    return Run(exit, arguments);
  }
};

TEST_F(Script, Commands_SeeWhatThoseBeforeThemDid) {
  RunScript(0,
            "# a comment, and an empty line\n\n"
            "mkdir -p ':/new one/sub'   # behind a command\n"
            "mv :/README.TXT \":/new one/sub/\"\n"
            "ls -1 :/new\\ one/sub\n"
            "cat ':/new one/sub/README.TXT'\n");
  EXPECT_EQ("README.TXT\nHello world\n", m_Output);
  EXPECT_EQ("Hello world\n", Text("/new one/sub/README.TXT"));
}

TEST_F(Script, FirstFailure_StopsAndIsNamedWithItsLine) {
  const std::string message = RunScript(3, "mkdir :/one\nrm :/nothing\nmkdir :/two\n");
  EXPECT_NE(std::string::npos, message.find("script:2: stopped here: rm :/nothing")) << message;
  EXPECT_TRUE(Exists("/one"));
  EXPECT_FALSE(Exists("/two"));
}

TEST_F(Script, LineThatMakesNoSense_IsUsage) {
  EXPECT_NE(std::string::npos, RunScript(2, "mkdir ':/x\n").find("script:1: a quote is not closed"));
  EXPECT_NE(std::string::npos, RunScript(2, "no-such-verb\n").find("script:1"));
  EXPECT_NE(std::string::npos, RunScript(2, "run x y\n").find("script:1"));
  EXPECT_NE(std::string::npos, RunScript(2, "rm --dry-run :/README.TXT\n").find("script:1"));
  EXPECT_TRUE(Exists("/README.TXT"));
}

TEST_F(Script, StandardInput_IsReadWhenThereIsNoFile) {
  const PROCESS_RESULT result =
      RunProcess({"sh", "-c", "echo 'mkdir :/piped' | \"$0\" run \"$1\"", FATIMG_PROGRAM, m_Path});
  EXPECT_EQ(0, result.ExitCode) << result.Output;
  EXPECT_TRUE(Exists("/piped"));
}

TEST_F(Script, Format_CanBeginAnImageThatIsThenFilled) {
  File("script", "format -F 32 --size 64M --label NEW\nput -r " + (m_Directory / "tree") + "/. :/\n");
  const std::string image = m_Directory / "new.img";
  Run(0, {"run", image, m_Directory / "script"});
  RunOrThrow({"fsck.fat", "-n", image});
  EXPECT_EQ("Hello world\n", RunOrThrow({"mtype", "-i", image, "::/README.TXT"}));
}

TEST_F(Script, DryRun_DoesEverythingInMemory) {
  const std::string image = m_Directory / "new.img";
  File("script", "format -F 16 --size 16M\nput -r " + (m_Directory / "tree") + "/. :/\nls -1 :/\n");
  Run(0, {"run", "--dry-run", image, m_Directory / "script"});
  EXPECT_EQ("A long name.text\nDocs\nHIDDEN.SYS\nREADME.TXT\n", m_Output);
  EXPECT_FALSE(std::filesystem::exists(image));
  const std::vector<unsigned char> before = ImageBytes();
  RunScript(0, "rm -r :/Docs\nmkdir :/Docs\n", {"--dry-run"});
  EXPECT_TRUE(before == ImageBytes());
}

TEST_F(Script, Interrupted_LeavesWhatWasDoneOnACleanVolume) {
  const PROCESS_RESULT result = RunProcess({"sh", "-c",
                                            "mkfifo \"$2\" && exec 3<>\"$2\" && echo 'mkdir :/done' >&3 && "
                                            "timeout --preserve-status -s TERM 2 \"$0\" run \"$1\" <\"$2\"",
                                            FATIMG_PROGRAM, m_Path, m_Path + ".in"});
  EXPECT_EQ(143, result.ExitCode) << result.Output;
  EXPECT_TRUE(Exists("/done"));
}

}  // namespace
}  // namespace fatimg_test
