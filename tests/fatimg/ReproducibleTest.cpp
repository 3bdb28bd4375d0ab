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
  EXPECT_EQ("c4d771a60c102c2566a6332c98a7e2491e5c0f2a057c02e2b084e143d65a8eb6", sum);
  EXPECT_EQ(sum, Sum("12", "1440K", "America/New_York"));
}

TEST_F(Reproducible, Fat16) {
  EXPECT_EQ("655f9f1d783d963ca9beb88b59a65ad844f70a154e91eef526a749c6032b8f26", Sum("16", "16M", "Asia/Tokyo"));
}

TEST_F(Reproducible, Fat32) {
  EXPECT_EQ("648dc5ce980175fcc849254ad6177ab665f45426d76b9c3bf9b80e6acc729141", Sum("32", "40M", "Europe/Berlin"));
}

}  // namespace
}  // namespace fatimg_test
