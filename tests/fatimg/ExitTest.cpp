/// @file ExitTest.cpp
/// How the command ends, and what it says then.

#include <fstream>

#include "FatimgRun.h"

namespace fatimg_test {
namespace {

using Exits = Image;

TEST_F(Exits, Done_IsZero) {
  const RESULT result = Fatimg({"ls", m_Path});
  EXPECT_EQ(0, result.exit);
  EXPECT_EQ("", result.err);
}

TEST_F(Exits, UsageErrors_AreTwo) {
  EXPECT_EQ(2, Fatimg({}).exit);
  EXPECT_EQ(2, Fatimg({"nothing"}).exit);
  EXPECT_EQ(2, Fatimg({"ls", "--nothing", m_Path}).exit);
  EXPECT_EQ(2, Fatimg({"cat"}).exit);
  EXPECT_EQ(2, Fatimg({"ls", ":/X"}).exit);
  EXPECT_EQ(2, Fatimg({"ls", m_Path + "@99999999999999999999"}).exit);
  EXPECT_EQ(2, Fatimg({"info", In("/Docs")}).exit);
  EXPECT_EQ(2, Fatimg({"cat", "--json", In("/README.TXT")}).exit);
  EXPECT_EQ(2, Fatimg({"ls", "--progress", "loud", m_Path}).exit);
  const RESULT result = Fatimg({"nothing"});
  EXPECT_EQ("", result.out);
  EXPECT_EQ(0u, result.err.find("fatimg: ")) << result.err;
}

TEST_F(Exits, HelpAndVersion_AreZero) {
  EXPECT_EQ(0, Fatimg({"--help"}).exit);
  const RESULT version = Fatimg({"--version"});
  EXPECT_EQ(0, version.exit);
  EXPECT_EQ("fatimg " FATIMG_VERSION "\n", version.out);
}

TEST_F(Exits, WhatIsNotThere_IsThree) {
  const RESULT image = Fatimg({"ls", m_Directory / "none.img"});
  EXPECT_EQ(3, image.exit);
  EXPECT_EQ("fatimg: ls: " + m_Directory.Path() + "/none.img: No such file or directory\n", image.err);
  EXPECT_EQ(3, Fatimg({"stat", In("/Docs/none")}).exit);
  EXPECT_EQ(3, Fatimg({"ls", In("/README.TXT/x")}).exit);
  EXPECT_EQ(3, Fatimg({"ls", m_Path + "@1"}).exit);
}

TEST_F(Exits, LockedImage_IsFour) {
  const PROCESS_RESULT writer = RunProcess({"flock", "-x", m_Path, FATIMG_PROGRAM, "ls", m_Path});
  EXPECT_EQ(4, writer.ExitCode) << writer.Output;
  EXPECT_NE(std::string::npos, writer.Output.find("another program is working on the image"));
  const PROCESS_RESULT reader = RunProcess({"flock", "-s", m_Path, FATIMG_PROGRAM, "ls", m_Path});
  EXPECT_EQ(0, reader.ExitCode) << reader.Output;
}

TEST_F(Exits, NoVolume_IsSix) {
  WriteHostFile(m_Directory / "zeros.img", std::vector<unsigned char>(1u << 20));
  for (const char* verb : {"info", "ls", "tree", "stat", "find", "du", "df", "cat", "map", "check"}) {
    const RESULT result = Fatimg({verb, m_Directory / "zeros.img:/"});
    EXPECT_EQ(6, result.exit) << verb;
    EXPECT_EQ("fatimg: " + std::string(verb) + ": " + m_Directory.Path() + "/zeros.img: there is no FAT volume there\n",
              result.err);
  }
}

TEST_F(Exits, OutputThatCannotBeWritten_IsSeven) {
  const auto into = [this](const std::string& verb, const std::string& file) {
    return RunProcess({"sh", "-c", "exec \"$0\" " + verb + " \"$1\" >" + file, FATIMG_PROGRAM, In("/README.TXT")});
  };
  const PROCESS_RESULT full = into("cat", "/dev/full");
  EXPECT_EQ(7, full.ExitCode);
  EXPECT_EQ("fatimg: cat: standard output: No space left on device\n", full.Output);
  EXPECT_EQ(7, into("ls", "/dev/full").ExitCode);
  EXPECT_EQ(7, into("--json stat", "/dev/full").ExitCode);
}

TEST_F(Exits, ClosedPipe_EndsWithoutAWord) {
  const PROCESS_RESULT result =
      RunProcess({"bash", "-c", "\"$0\" cat \"$1\" \"$1\" \"$1\" | true; echo ${PIPESTATUS[0]}", FATIMG_PROGRAM,
                  In("/Docs/Sub/DEEP.BIN")});
  EXPECT_EQ("7\n", result.Output);
}

TEST_F(Exits, Quiet_LeavesOnlyFailures) { EXPECT_NE("", Fatimg({"-q", "ls", In("/none")}).err); }

}  // namespace
}  // namespace fatimg_test
