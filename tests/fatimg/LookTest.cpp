/// @file LookTest.cpp
/// info, ls, tree, stat, find, du, df, cat, map, run on an image that mkfs.fat and mtools made.

#include <algorithm>

#include "FatimgRun.h"

namespace fatimg_test {
namespace {

using Look = Image;
using nlohmann::json;

std::vector<std::string> NamesOf(const json& list, const char* field) {
  std::vector<std::string> names;
  for (const json& item : list) names.push_back(item.value(field, ""));
  return names;
}

/// The bytes that mtools reads.
std::string TypeOf(const std::string& image, const std::string& path) {
  return RunOrThrow({"mtype", "-i", image, "::" + path});
}

TEST_F(Look, Info_TellsGeometryAndUse) {
  const json info = FatimgJson({"info", m_Path});
  EXPECT_EQ("FAT16", info["type"]);
  EXPECT_EQ("DATA", info["label"]);
  EXPECT_EQ("1234-ABCD", info["volumeId"]);
  EXPECT_EQ(16u << 20, info["bytes"]);
  EXPECT_EQ(512, info["geometry"]["bytesPerSector"]);
  EXPECT_EQ(2048, info["geometry"]["bytesPerCluster"]);
  EXPECT_EQ(2, info["geometry"]["fats"]);
  EXPECT_EQ(5, info["use"]["files"]);
  EXPECT_EQ(2, info["use"]["directories"]);
  EXPECT_EQ(56, info["use"]["usedClusters"]);  // 2 directories, files of 1, 3, 1 and 49 clusters
}

TEST_F(Look, InfoAsText_HasTheSameNumbers) {
  const RESULT result = Fatimg({"info", m_Path});
  EXPECT_EQ(0, result.exit) << result.err;
  EXPECT_NE(std::string::npos, result.out.find("FAT16"));
  EXPECT_NE(std::string::npos, result.out.find("1234-ABCD"));
  EXPECT_NE(std::string::npos, result.out.find("DATA"));
}

TEST_F(Look, Ls_IsSortedAndLeavesHiddenEntriesOut) {
  EXPECT_EQ("A long name.text\nDocs\nREADME.TXT\n", Fatimg({"ls", m_Path}).out);
  EXPECT_EQ("A long name.text\nDocs\nHIDDEN.SYS\nREADME.TXT\n", Fatimg({"ls", "-a", In("/")}).out);
}

TEST_F(Look, LsInRawOrder_IsAsOnTheMedium) {
  EXPECT_EQ("README.TXT\nA long name.text\nHIDDEN.SYS\nDocs\n", Fatimg({"ls", "-a", "--raw-order", m_Path}).out);
}

TEST_F(Look, LsOfFiles_NamesTheirPaths) {
  EXPECT_EQ("/README.TXT\n", Fatimg({"ls", In("/readme.txt")}).out);
  EXPECT_EQ("/Docs\n", Fatimg({"ls", "-d", In("/docs")}).out);
}

TEST_F(Look, LsInDetail_ShowsAttributesSizeAndTime) {
  const RESULT result = Fatimg({"ls", "-l", In("/README.TXT")});
  EXPECT_EQ("----a  12  2026-03-14 15:09:26  /README.TXT\n", result.out);
}

TEST_F(Look, LsWithShortNames_ShowsThem) {
  EXPECT_EQ("ALONGN~1.TEX\nDOCS\nREADME.TXT\n", Fatimg({"ls", "--short-names", m_Path}).out);
  const std::vector<std::string> lines = LinesOf(Fatimg({"ls", "-l", "--short-names", m_Path}).out);
  ASSERT_EQ(3u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find("ALONGN~1.TEX  A long name.text"));
}

TEST_F(Look, LsRecursive_HasAHeadingForEachDirectory) {
  EXPECT_EQ(In("/Docs") + ":\nGrüße.txt\nSub\n\n" + In("/Docs/Sub") + ":\nDEEP.BIN\n",
            Fatimg({"ls", "-R", In("/Docs")}).out);
}

TEST_F(Look, LsAsJson_HasAllFields) {
  const json list = FatimgJson({"ls", In("/Docs/..")});
  ASSERT_EQ(1u, list["listings"].size());
  EXPECT_EQ(m_Path, list["listings"][0]["image"]);
  EXPECT_EQ("/", list["listings"][0]["path"]);
  const json& entries = list["listings"][0]["entries"];
  EXPECT_EQ((std::vector<std::string>{"A long name.text", "Docs", "README.TXT"}), NamesOf(entries, "name"));
  const json& readme = entries[2];
  EXPECT_EQ("/README.TXT", readme["path"]);
  EXPECT_EQ("README.TXT", readme["shortName"]);
  EXPECT_EQ("file", readme["type"]);
  EXPECT_EQ(12, readme["size"]);
  EXPECT_EQ(json({"archive"}), readme["attributes"]);
  EXPECT_EQ("2026-03-14T15:09:26", readme["modified"]);
}

TEST_F(Look, LsOfThePartsOfMdir_AreTheSame) {
  const std::string listed = RunOrThrow({"mdir", "-b", "-a", "-i", m_Path, "::"});
  for (const std::string& name : LinesOf(Fatimg({"ls", "-a", m_Path}).out)) {
    EXPECT_NE(std::string::npos, listed.find(name)) << name;
  }
  EXPECT_EQ(LinesOf(listed).size(), LinesOf(Fatimg({"ls", "-a", m_Path}).out).size());
}

// 7-Zip lists what is in a volume too.
TEST_F(Look, Find_HasThePathsOf7Zip) {
  std::vector<std::string> expected{"/"};
  for (const std::string& line : LinesOf(RunOrThrow({"7z", "l", "-ba", "-slt", m_Path}))) {
    if (line.rfind("Path = ", 0) == 0) expected.push_back("/" + line.substr(7));
  }
  std::vector<std::string> found = LinesOf(Fatimg({"find", m_Path}).out);
  std::sort(expected.begin(), expected.end());
  std::sort(found.begin(), found.end());
  EXPECT_EQ(8u, found.size());
  EXPECT_EQ(expected, found);
}

TEST_F(Look, Globs_AreExpandedInTheImage) {
  EXPECT_EQ("/README.TXT\n", Fatimg({"ls", In("/*.txt")}).out);
  EXPECT_EQ("/Docs/Grüße.txt\n/Docs/Sub\n", Fatimg({"ls", "-d", In("/d?cs/*")}).out);
  const RESULT none = Fatimg({"ls", In("/*.none")});
  EXPECT_EQ(3, none.exit);
  EXPECT_NE(std::string::npos, none.err.find("nothing fits this pattern"));
  EXPECT_EQ(3, Fatimg({"ls", "--no-glob", In("/*.txt")}).exit);
}

TEST_F(Look, Tree_IsDrawn) {
  EXPECT_EQ(In("/Docs") + "\n├── Grüße.txt\n└── Sub\n    └── DEEP.BIN\n\n1 directories, 2 files\n",
            Fatimg({"tree", In("/Docs")}).out);
  EXPECT_EQ(In("/") + "\n└── Docs\n\n1 directories, 0 files\n", Fatimg({"tree", "-d", "-L", "1", m_Path}).out);
  EXPECT_EQ(2, Fatimg({"tree", "-L", "x", m_Path}).exit);
}

TEST_F(Look, TreeAsJson_IsNested) {
  const json tree = FatimgJson({"tree", In("/Docs")});
  EXPECT_EQ(1, tree["directories"]);
  EXPECT_EQ(2, tree["files"]);
  EXPECT_EQ("DEEP.BIN", tree["trees"][0]["children"][1]["children"][0]["name"]);
}

TEST_F(Look, Stat_TellsAllOfAFile) {
  const json item = FatimgJson({"stat", In("/docs/sub/deep.bin")})["items"][0];
  EXPECT_EQ("/Docs/Sub/DEEP.BIN", item["path"]);
  EXPECT_EQ(100000, item["size"]);
  EXPECT_EQ(49, item["clusters"]);  // of 2048 bytes
  EXPECT_EQ(49 * 2048, item["allocated"]);
  const RESULT text = Fatimg({"stat", In("/README.TXT")});
  EXPECT_NE(std::string::npos, text.out.find("modified:       2026-03-14T15:09:26")) << text.out;
}

TEST_F(Look, Find_TakesAllConditions) {
  EXPECT_EQ("/Docs/Grüße.txt\n/README.TXT\n", Fatimg({"find", m_Path, "--name", "*.TXT"}).out);
  EXPECT_EQ("/\n/Docs\n/Docs/Sub\n", Fatimg({"find", m_Path, "--type", "d"}).out);
  EXPECT_EQ("/Docs/Sub/DEEP.BIN\n", Fatimg({"find", m_Path, "--size", "+5000"}).out);
  EXPECT_EQ("/A long name.text\n", Fatimg({"find", m_Path, "--size", "5000"}).out);
  EXPECT_EQ("/README.TXT\n", Fatimg({"find", m_Path, "--size", "-1K", "--older", "2026-03-14T15:09:27", "--newer",
                                     "2026-03-14 15:09:25"})
                                 .out);
  EXPECT_EQ("", Fatimg({"find", m_Path, "--newer", "2100-01-01"}).out);
}

TEST_F(Look, FindWithZeros_EndsEachPathWithOne) {
  EXPECT_EQ(std::string("/Docs/Sub\0", 10), Fatimg({"find", "-0", m_Path, "--name", "sub"}).out);
}

TEST_F(Look, FindAsJson_HasEntries) {
  const json found = FatimgJson({"find", In("/Docs"), "--type", "f"});
  EXPECT_EQ((std::vector<std::string>{"/Docs/Grüße.txt", "/Docs/Sub/DEEP.BIN"}), NamesOf(found["entries"], "path"));
}

TEST_F(Look, FindWithWrongConditions_IsAUsageError) {
  EXPECT_EQ(2, Fatimg({"find", m_Path, "--size", "x"}).exit);
  EXPECT_EQ(2, Fatimg({"find", m_Path, "--newer", "yesterday"}).exit);
  EXPECT_EQ(2, Fatimg({"find", m_Path, "--type", "x"}).exit);
}

TEST_F(Look, Du_SumsUpClusters) {
  const std::string sub = std::to_string((1 + 49) * 2048);
  const std::string docs = std::to_string((1 + 1 + 1 + 49) * 2048);
  EXPECT_EQ(sub + "\t" + In("/Docs/Sub") + "\n" + docs + "\t" + In("/Docs") + "\n", Fatimg({"du", In("/Docs")}).out);
  EXPECT_EQ("100003\t" + In("/Docs") + "\n", Fatimg({"du", "-s", "-b", In("/Docs")}).out);
  const json item = FatimgJson({"du", "-s", m_Path})["items"][0];
  EXPECT_EQ(5, item["files"]);
  EXPECT_EQ(12 + 5000 + 3 + 100000, item["size"]);
}

TEST_F(Look, Df_CountsFreeClusters) {
  const json volume = FatimgJson({"df", m_Path})["volumes"][0];
  const json info = FatimgJson({"info", m_Path});
  EXPECT_EQ(info["use"]["freeClusters"], volume["freeClusters"]);
  // 2 directories, README.TXT 1, the long name 3, Grüße.txt 1, DEEP.BIN 49
  EXPECT_EQ(56 * 2048, volume["used"]);
  EXPECT_EQ("DATA", volume["label"]);
  EXPECT_EQ(2u, LinesOf(Fatimg({"df", "-h", m_Path}).out).size());
}

TEST_F(Look, Cat_WritesTheBytesOfFiles) {
  EXPECT_EQ("Hello world\n", Fatimg({"cat", In("/README.TXT")}).out);
  EXPECT_EQ(TypeOf(m_Path, "/Docs/Sub/DEEP.BIN") + "Hello world\n",
            Fatimg({"cat", In("/Docs/Sub/DEEP.BIN"), In("/README.TXT")}).out);
}

TEST_F(Look, CatOfADirectory_IsRefused) {
  const RESULT result = Fatimg({"cat", In("/Docs")});
  EXPECT_EQ(4, result.exit);
  EXPECT_EQ("fatimg: cat: " + In("/Docs") + ": it is a directory\n", result.err);
  EXPECT_EQ("", result.out);
}

TEST_F(Look, Map_LeadsToTheBytesInTheImage) {
  const json item = FatimgJson({"map", In("/A long name.text")})["items"][0];
  ASSERT_EQ(1u, item["extents"].size());
  const json& run = item["extents"][0];
  EXPECT_EQ(3, run["clusters"]);
  const std::vector<unsigned char> image = ReadHostFile(m_Path);
  const std::vector<unsigned char> content = Bytes(5000, 1);
  EXPECT_TRUE(std::equal(content.begin(), content.end(), image.begin() + run["position"].get<std::ptrdiff_t>()));
  EXPECT_EQ(3u, LinesOf(Fatimg({"map", In("/README.TXT")}).out).size());
}

TEST_F(Look, MapOfAFixedRoot_IsItsPlace) {
  const json run = FatimgJson({"map", In("/")})["items"][0]["extents"][0];
  const std::vector<unsigned char> image = ReadHostFile(m_Path);
  const auto at = image.begin() + run["position"].get<std::ptrdiff_t>();
  EXPECT_EQ("DATA       ", std::string(at, at + 11));
  EXPECT_EQ(512 * 32, run["bytes"]);
}

TEST_F(Look, SeveralOperands_OfWhichOneFails) {
  const RESULT result = Fatimg({"cat", In("/NONE"), In("/README.TXT")});
  EXPECT_EQ(1, result.exit);
  EXPECT_EQ("Hello world\n", result.out);
  EXPECT_EQ("fatimg: cat: " + In("/NONE") + ": there is no such file or directory\n", result.err);
}

TEST_F(Look, Failures_AreInTheJsonToo) {
  const json list = FatimgJson({"ls", In("/NONE")}, 3);
  ASSERT_EQ(1u, list["errors"].size());
  EXPECT_EQ(In("/NONE"), list["errors"][0]["path"]);
  EXPECT_EQ(3, list["errors"][0]["exit"]);
}

// The whole image and its time: no verb that looks leaves a trace.
TEST_F(Look, AllVerbs_LeaveEveryBitAsItWas) {
  RunOrThrow({"touch", "-d", "2020-01-01", m_Path});
  RunOrThrow({"chmod", "a-w", m_Path});
  const std::string sum = RunOrThrow({"sha256sum", m_Path});
  const std::string time = RunOrThrow({"stat", "-c", "%y %z %s", m_Path});
  const std::vector<std::vector<std::string>> runs{
      {"info", m_Path},        {"info", "--partitions", m_Path},
      {"ls", "-lR", m_Path},   {"tree", m_Path},
      {"stat", In("/Docs/*")}, {"find", m_Path},
      {"du", m_Path},          {"df", m_Path},
      {"cat", In("/*.TXT")},   {"map", In("/Docs/Sub/*")},
      {"check", m_Path},       {"verify", m_Directory / "tree", m_Path},
  };
  for (const std::vector<std::string>& arguments : runs) {
    (void)Fatimg(arguments);
    EXPECT_EQ(sum, RunOrThrow({"sha256sum", m_Path})) << arguments[0];
    EXPECT_EQ(time, RunOrThrow({"stat", "-c", "%y %z %s", m_Path})) << arguments[0];
  }
}

// A name with an escape sequence and a lone surrogate, put into the long-name entry by hand.
TEST_F(Look, OddNames_AreRawInAPipeAndLosslessInJson) {
  std::vector<unsigned char> image = ReadHostFile(m_Path);
  const std::vector<unsigned char> units{'A', 0, ' ', 0, 'l', 0, 'o', 0, 'n', 0};
  const auto at = std::search(image.begin(), image.end(), units.begin(), units.end());
  ASSERT_NE(image.end(), at);
  at[2] = 0x1B;
  at[4] = 0x00;
  at[5] = 0xD8;
  WriteHostFile(m_Path, image);
  EXPECT_EQ("A\x1B\xED\xA0\x80ong name.text\nDocs\nREADME.TXT\n", Fatimg({"ls", m_Path}).out);
  EXPECT_NE(std::string::npos, Fatimg({"ls", "--json", m_Path}).out.find("A\\u001b\\ud800ong name.text"));
  const std::string typescript = m_Directory / "typescript";
  RunOrThrow({"script", "-q", "-c", std::string(FATIMG_PROGRAM) + " ls -1 " + m_Path, typescript});
  const std::vector<unsigned char> shown = ReadHostFile(typescript);
  EXPECT_NE(std::string::npos, std::string(shown.begin(), shown.end()).find("A\\x1B\\uD800ong name.text"));
}

}  // namespace
}  // namespace fatimg_test
