/// @file ManualExamplesTest.cpp
/// The examples of the manual page are run as they stand there.

#include <algorithm>

#include "FatimgRun.h"
#include "PartitionedDisk.h"

namespace fatimg_test {
namespace {

constexpr std::size_t FIRST = 2048;
constexpr std::size_t SECTORS = 20480;  // of the disk, 10 MiB

class ManualExamples : public testing::Test {
 protected:
  ManualExamples() {
    WriteHostFile(m_Directory / "build/EFI/BOOT/BOOTX64.EFI", std::vector<unsigned char>(70000, 1));
    const std::string volume = m_Directory / "volume";
    RunOrThrow({"mkfs.fat", "-C", volume, "8192"});
    WriteHostFile(m_Directory / "photo", std::vector<unsigned char>(1100000, 2));
    WriteHostFile(m_Directory / "conf", {'y', '\n'});
    RunOrThrow({"mmd", "-i", volume, "::/DCIM"});
    RunOrThrow({"mcopy", "-i", volume, m_Directory / "photo", "::/DCIM/photo.jpg"});
    RunOrThrow({"mcopy", "-i", volume, m_Directory / "conf", "::/loader.conf"});
    CDisk card(SECTORS);
    const std::vector<unsigned char> bytes = ReadHostFile(volume);
    std::copy(bytes.begin(), bytes.end(), &card.At(FIRST * 512));
    CDisk firmware = card;
    card.SetMbr(0, {0, 0x0C, FIRST, 16384});
    firmware.SetGpt(512, {{CDisk::ESP, FIRST, FIRST + 16383, u"boot"}});
    WriteHostFile(m_Directory / "sdcard.img", card.Bytes());
    WriteHostFile(m_Directory / "firmware.img", firmware.Bytes());
  }

  static std::vector<std::string> Examples() {
    std::vector<std::string> examples;
    const std::vector<unsigned char> page = ReadHostFile(FATIMG_SOURCE_DIR "/docs/man/fatimg.1");
    for (const std::string& line : LinesOf(std::string(page.begin(), page.end()))) {
      if (line.rfind("fatimg ", 0) == 0) examples.push_back(line);
    }
    return examples;
  }

  CTempDir m_Directory;
};

TEST_F(ManualExamples, EachCommand_EndsWell) {
  std::string output;
  const std::vector<std::string> examples = Examples();
  EXPECT_EQ(6u, examples.size());
  for (const std::string& example : examples) {
    const PROCESS_RESULT result = RunProcess(
        {"sh", "-c", "cd \"$1\" && fatimg() { \"$0\" \"$@\"; } && " + example, FATIMG_PROGRAM, m_Directory.Path()});
    EXPECT_EQ(0, result.ExitCode) << example << "\n" << result.Output;
    output += result.Output;
  }
  EXPECT_NE(std::string::npos, output.find("/DCIM/photo.jpg\ny\n")) << output;
  EXPECT_NE(std::string::npos, output.find("1 files, 2 directories, 70000 bytes compared\n")) << output;
  RunOrThrow({"fsck.fat", "-n", m_Directory / "disk.img"});
}

}  // namespace
}  // namespace fatimg_test
