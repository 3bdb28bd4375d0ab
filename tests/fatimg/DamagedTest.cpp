/// @file DamagedTest.cpp
/// The verbs that look, on volumes that are damaged.

#include <algorithm>

#include "FatimgRun.h"
#include "support/DiskImage.h"
#include "support/VolumeReader.h"

namespace fatimg_test {
namespace {

class Damaged : public Image {
 protected:
  /// Where an entry's short entry is in the image, found by its name as stored.
  std::uint64_t EntryOf(const std::string& name11) const {
    const std::vector<unsigned char> image = ReadHostFile(m_Path);
    const auto at = std::search(image.begin(), image.end(), name11.begin(), name11.end());
    EXPECT_NE(image.end(), at);
    return static_cast<std::uint64_t>(at - image.begin());
  }
  void SetFirstCluster(const std::string& name11, unsigned int cluster) {
    CFileImage(m_Path).Set16(EntryOf(name11) + 26, cluster);
  }
  unsigned int FirstCluster(const std::string& name11) { return CFileImage(m_Path).Get16(EntryOf(name11) + 26); }
};

TEST_F(Damaged, HealthyVolume_HasNoDefects) {
  const RESULT result = Fatimg({"check", m_Path});
  EXPECT_EQ(0, result.exit);
  EXPECT_EQ(m_Path + ": 5 files, 2 directories, no defects\n", result.out);
}

TEST_F(Damaged, FatsThatDiffer_AreReported) {
  CFileImage(m_Path).Set16(512 * 4 + 2 * 1000, 0x1234);  // whatever lies there: one FAT only
  const nlohmann::json json = FatimgJson({"check", m_Path}, 6);
  ASSERT_FALSE(json["volumes"][0]["defects"].empty());
  EXPECT_NE("", json["volumes"][0]["defects"][0].value("defect", ""));
  EXPECT_EQ(6, Fatimg({"check", m_Path}).exit);
}

TEST_F(Damaged, DirectoryThatLeadsToItsParent_EndsEachWalk) {
  SetFirstCluster("SUB        ", FirstCluster("DOCS       "));
  for (const std::vector<std::string>& verb :
       std::vector<std::vector<std::string>>{{"ls", "-R"}, {"tree"}, {"find"}, {"du"}}) {
    std::vector<std::string> arguments = verb;
    arguments.push_back(m_Path);
    const RESULT result = Fatimg(arguments);
    EXPECT_TRUE(result.exit == 1 || result.exit == 6) << verb[0] << result.exit;
    EXPECT_NE(std::string::npos, result.err.find("/Docs/Sub: the volume is damaged there")) << result.err;
    EXPECT_LT(result.out.size(), 4000u);
  }
  EXPECT_EQ(6, Fatimg({"check", m_Path}).exit);
  EXPECT_EQ(1, Fatimg({"verify", m_Directory / "tree", m_Path}).exit);
}

// Two ways from a directory into itself: each component of the pattern doubles the paths.
TEST_F(Damaged, LongPatternOnDirectoriesThatLeadToThemselves_Ends) {
  const unsigned int docs = FirstCluster("DOCS       ");
  SetFirstCluster("SUB        ", docs);
  const std::uint64_t other = EntryOf("GR");
  CFileImage(m_Path).Set8(other + 11, 0x10);
  CFileImage(m_Path).Set16(other + 26, docs);
  std::string pattern = "/Docs";
  for (int i = 0; i < 24; ++i) pattern += "/*";
  const RESULT result = Fatimg({"ls", "-d", In(pattern)});
  EXPECT_TRUE(result.exit >= 0 && result.exit <= 6) << result.err;
  EXPECT_LT(LinesOf(result.out).size(), 10000u);
}

TEST_F(Damaged, FirstClusterBehindTheEnd_IsReported) {
  SetFirstCluster("DEEP    BIN", 0xFFF0);
  EXPECT_EQ(6, Fatimg({"map", In("/Docs/Sub/DEEP.BIN")}).exit);
  EXPECT_EQ(6, Fatimg({"stat", In("/Docs/Sub/DEEP.BIN")}).exit);
  EXPECT_EQ(6, Fatimg({"cat", In("/Docs/Sub/DEEP.BIN")}).exit);
  EXPECT_EQ(0, Fatimg({"ls", In("/Docs/Sub")}).exit);
}

TEST_F(Damaged, DirectoryWithoutCluster_IsReported) {
  SetFirstCluster("SUB        ", 0);
  EXPECT_EQ(6, Fatimg({"ls", In("/Docs/Sub")}).exit);
  EXPECT_EQ(0, Fatimg({"ls", In("/Docs")}).exit);
}

TEST_F(Damaged, SomeBytesChanged_GiveAnAnswer) {
  const std::vector<unsigned char> good = ReadHostFile(m_Path);
  unsigned int random = 4711;
  const std::uint64_t root = EntryOf("DATA       ");
  for (int run = 0; run < 24; ++run) {
    std::vector<unsigned char> bad = good;
    for (int change = 0; change < 8; ++change) {
      random = random * 1664525u + 1013904223u;
      const std::size_t at = run % 2 == 0 ? random % 64u : ToSize(root) + random % 512u;
      bad[at] = static_cast<unsigned char>(random >> 24);
    }
    WriteHostFile(m_Path, bad);
    const RESULT result = Fatimg({run % 3 == 0 ? "tree" : run % 3 == 1 ? "info" : "du", m_Path});
    EXPECT_TRUE(result.exit >= 0 && result.exit <= 7) << result.exit << result.err;
  }
}

}  // namespace
}  // namespace fatimg_test
