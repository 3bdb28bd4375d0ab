/// @file ReproducibleTest.cpp
/// Images of --reproducible are the same on every machine: their sums are written down here, and the 32-bit and the
/// 64-bit build must both come to them.

#include "FatimgRun.h"

namespace fatimg_test {
namespace {

class Reproducible : public testing::Test {
 protected:
  Reproducible() {
    for (const char* name : {"tree/b/Long file name.text", "tree/b/Long file name 2.text", "tree/A.TXT",
                             "tree/c/\xC3\xA4\xE4\xB8\x80.bin", "tree/c/empty"}) {
      const std::string text = name;
      WriteHostFile(m_Directory / name, std::vector<unsigned char>(text.begin(), text.end()));
    }
    RunOrThrow({"touch", "-d", "2001-02-03T04:05:06Z", m_Directory / "tree/A.TXT"});
  }

  std::string Sum(const std::string& type, const std::string& size, const std::string& zone) {
    const std::string image = m_Directory / "disk.img";
    const std::string script = "format --force -F " + type + " --size " + size +
                               " --label REPRO\n"
                               "put -r --times " +
                               (m_Directory / "tree") +
                               "/. :/\n"
                               "mkdir :/made\n"
                               "mv ':/b/Long file name.text' ':/made/Another long name.text'\n"
                               "rm :/c/empty\n"
                               "attr +r :/A.TXT\n";
    WriteHostFile(m_Directory / "script", std::vector<unsigned char>(script.begin(), script.end()));
    const RESULT result = Fatimg({"run", "--reproducible", image, m_Directory / "script"},
                                 {"SOURCE_DATE_EPOCH=1600000000", "TZ=" + zone});
    EXPECT_EQ(0, result.exit) << result.err;
    RunOrThrow({"fsck.fat", "-n", image});
    return RunOrThrow({"sha256sum", image}).substr(0, 64);
  }

  CTempDir m_Directory;
};

TEST_F(Reproducible, Fat12) {
  const std::string sum = Sum("12", "1440K", "UTC");
  EXPECT_EQ("eb414a19551a9400d9ca65b6380ccc20b18046d9d22ff612f33d698c96674938", sum);
  EXPECT_EQ(sum, Sum("12", "1440K", "America/New_York"));
}

TEST_F(Reproducible, Fat16) {
  EXPECT_EQ("ace37f4783b854b877eb4553a3eda88b894b359bed9d3f5e246e67032262325c", Sum("16", "16M", "Asia/Tokyo"));
}

TEST_F(Reproducible, Fat32) {
  EXPECT_EQ("d05f9b4f3d67e127e00b820c561ed35164c3816a0279d79b8d5990c5340be113", Sum("32", "40M", "Europe/Berlin"));
}

}  // namespace
}  // namespace fatimg_test
