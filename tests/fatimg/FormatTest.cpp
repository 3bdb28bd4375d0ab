/// @file FormatTest.cpp
/// format, looked at with fsck.fat and mtools.

#include <filesystem>

#include "FatimgRun.h"

namespace fatimg_test {
namespace {

class Format : public testing::Test {
 protected:
  std::string Run(int exit, const std::vector<std::string>& arguments) {
    const RESULT result = Fatimg(arguments);
    EXPECT_EQ(exit, result.exit) << result.err;
    return result.err;
  }
  void ExpectClean(const std::string& image) const {
    const PROCESS_RESULT check = RunProcess({"fsck.fat", "-n", image});
    EXPECT_EQ(0, check.ExitCode) << check.Output;
  }

  CTempDir m_Directory;
  std::string m_Image = m_Directory / "new.img";
};

TEST_F(Format, Size_MakesAnImageOfTheTypeThatWasAskedFor) {
  for (const auto& [type, size] : {std::pair("12", "1440K"), {"16", "32M"}, {"32", "64M"}}) {
    Run(0,
        {"format", "--force", "-F", type, "--size", size, "--label", "new disk", "--volume-id", "12AB-34CD", m_Image});
    ExpectClean(m_Image);
    const nlohmann::json info = FatimgJson({"info", m_Image});
    EXPECT_EQ(std::string("FAT") + type, info["type"]);
    EXPECT_EQ("NEW DISK", info["label"]);
    EXPECT_EQ("12AB-34CD", info["volumeId"]);
  }
}

TEST_F(Format, ClusterAndSector_AreThoseThatWereAskedFor) {
  const nlohmann::json made =
      FatimgJson({"format", "--size", "64M", "--cluster", "8K", "--sector", "4096", "--align", "64K", m_Image});
  EXPECT_EQ(8192, made["bytesPerCluster"]);
  EXPECT_EQ(4096, made["bytesPerSector"]);
  ExpectClean(m_Image);
}

TEST_F(Format, ExistingImage_IsRefusedUnlessForced) {
  Run(0, {"format", "--size", "4M", m_Image});
  const std::vector<unsigned char> before = ReadHostFile(m_Image);
  Run(4, {"format", m_Image});
  Run(4, {"format", "--size", "8M", m_Image});
  EXPECT_TRUE(before == ReadHostFile(m_Image));
  Run(0, {"format", "--force", "-F", "12", m_Image});
  EXPECT_EQ(4u << 20, std::filesystem::file_size(m_Image));
  Run(0, {"format", "--force", "--size", "8M", m_Image});
  EXPECT_EQ(8u << 20, std::filesystem::file_size(m_Image));
}

TEST_F(Format, SizeThatNoTypeFits_MakesNoFile) {
  Run(2, {"format", "-F", "32", "--size", "1M", m_Image});
  Run(2, {"format", "--size", "0", m_Image});
  Run(2, {"format", "--size", "4M", "--volume-id", "12", m_Image});
  Run(2, {"format", "--size", "4M", "--label", "much too long", m_Image});
  EXPECT_FALSE(std::filesystem::exists(m_Image));
}

TEST_F(Format, DryRun_MakesNoFile) {
  Run(0, {"format", "--dry-run", "--size", "4M", m_Image});
  EXPECT_FALSE(std::filesystem::exists(m_Image));
}

TEST_F(Format, MissingImageWithoutSize_IsNotFound) { Run(3, {"format", m_Image}); }

TEST_F(Format, Offset_LeavesWhatIsInFrontOfIt) {
  const std::vector<unsigned char> front(1u << 20, 0x5A);
  WriteHostFile(m_Image, front);
  RunOrThrow({"truncate", "-s", "9M", m_Image});
  Run(0, {"format", "-F", "16", "--label", "part", m_Image + "@1M"});
  std::vector<unsigned char> bytes = ReadHostFile(m_Image);
  EXPECT_TRUE(std::equal(front.begin(), front.end(), bytes.begin()));
  const std::vector<unsigned char> hidden(bytes.begin() + (1 << 20) + 28, bytes.begin() + (1 << 20) + 32);
  EXPECT_EQ((std::vector<unsigned char>{0, 8, 0, 0}), hidden);  // 2048 sectors of 512 bytes
  WriteHostFile(m_Directory / "part.img", std::vector<unsigned char>(bytes.begin() + (1 << 20), bytes.end()));
  ExpectClean(m_Directory / "part.img");
}

}  // namespace
}  // namespace fatimg_test
