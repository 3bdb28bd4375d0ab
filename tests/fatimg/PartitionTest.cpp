/// @file PartitionTest.cpp
/// Volumes inside disk images.

#include <algorithm>

#include "FatimgRun.h"
#include "PartitionedDisk.h"

namespace fatimg_test {
namespace {

constexpr std::size_t FIRST = 2048;     // sector of the volume
constexpr std::size_t COUNT = 32768;    // its sectors: 16 MiB
constexpr std::size_t SECTORS = 36864;  // 18 MiB

/// The image's volume in the middle of a disk.
class Partitioned : public Image {
 protected:
  Partitioned() : m_Disk(SECTORS), m_DiskPath(m_Directory / "whole.img") {
    const std::vector<unsigned char> volume = ReadHostFile(m_Path);
    std::copy(volume.begin(), volume.end(), &m_Disk.At(FIRST * 512));
  }
  void Write() { WriteHostFile(m_DiskPath, m_Disk.Bytes()); }
  void SetGpt(const std::u16string& name) {
    m_Disk.SetGpt(512, {{CDisk::DATA, 40, 99, u"first"}, {CDisk::ESP, FIRST, FIRST + COUNT - 1, name}});
    Write();
  }
  /// Has sfdisk write the table, in its own words, around the volume.
  void RunSfdisk(const std::string& script) {
    Write();
    const std::string path = m_Directory / "table";
    WriteHostFile(path, {script.begin(), script.end()});
    RunOrThrow({"sh", "-c", "sfdisk --quiet --wipe never '" + m_DiskPath + "' < '" + path + "'"});
  }
  RESULT Cat(const std::string& where) const { return Fatimg({"cat", m_DiskPath + where + ":/README.TXT"}); }

  CDisk m_Disk;
  std::string m_DiskPath;
};

TEST_F(Partitioned, Mbr_ByNumberOrPlace) {
  m_Disk.SetMbr(2, {0x80, 0x0E, FIRST, COUNT});
  Write();
  for (const char* where : {"@3", "@1M", "@1048576", "@2048s", "@0x100000", "@1024K"}) {
    EXPECT_EQ("Hello world\n", Cat(where).out) << where;
  }
  EXPECT_EQ(3, Cat("@1").exit);
  EXPECT_EQ(6, Cat("@512B").exit);
}

TEST_F(Partitioned, Gpt_ByNumberNameOrType) {
  SetGpt(u"EFI System");
  for (const char* where : {"@2", "@esp", "@ESP", "@efi system"}) EXPECT_EQ("Hello world\n", Cat(where).out) << where;
  EXPECT_EQ(6, Cat("@first").exit);
  const RESULT other = Cat("@other");
  EXPECT_EQ(3, other.exit);
  EXPECT_NE(std::string::npos, other.err.find("there are: 1 first, 2 EFI System")) << other.err;
}

TEST_F(Partitioned, GptOfSfdisk_IsReadTheSame) {
  RunSfdisk(
      "label: gpt\nfirst-lba: 34\nstart=34, size=66, type=linux, name=boot\nstart=2048, size=32768, type=uefi, "
      "name=\"EFI System\"\n");
  for (const char* where : {"@2", "@esp", "@efi system"}) EXPECT_EQ("Hello world\n", Cat(where).out) << where;
  const nlohmann::json table = FatimgJson({"info", "--partitions", m_DiskPath});
  EXPECT_EQ("gpt", table["table"]);
  EXPECT_EQ("boot", table["partitions"][0]["name"]);
  EXPECT_EQ(34 * 512, table["partitions"][0]["offset"]);
}

TEST_F(Partitioned, MbrOfSfdisk_IsReadTheSame) {
  RunSfdisk("label: dos\nstart=40, size=8, type=83\nstart=2048, size=32768, type=c, bootable\n");
  EXPECT_EQ("Hello world\n", Cat("@2").out);
  EXPECT_EQ("mbr", FatimgJson({"info", "--partitions", m_DiskPath})["table"]);
}

TEST_F(Partitioned, LogicalPartitionOfSfdisk_BeginsWithFive) {
  RunSfdisk(
      "label: dos\nstart=40, size=8, type=83\nstart=100, size=36000, type=f\nstart=140, size=60, type=83\n"
      "start=2048, size=32768, type=e\n");
  EXPECT_EQ("Hello world\n", Cat("@6").out);
}

TEST_F(Partitioned, NameOfTwoPartitions_IsAUsageError) {
  SetGpt(u"FIRST");
  EXPECT_EQ(2, Cat("@first").exit);
}

TEST_F(Partitioned, WholeDisk_SaysWhichPartitionsThereAre) {
  SetGpt(u"EFI System");
  const RESULT whole = Cat("");
  EXPECT_EQ(6, whole.exit);
  EXPECT_NE(std::string::npos, whole.err.find("whole.img@N, of: 1 first, 2 EFI System")) << whole.err;
}

TEST_F(Partitioned, Info_TellsWhereTheVolumeIs) {
  SetGpt(u"EFI System");
  EXPECT_EQ(1u << 20, FatimgJson({"info", m_DiskPath + "@2"})["offset"]);
  const nlohmann::json table = FatimgJson({"info", "--partitions", m_DiskPath});
  EXPECT_EQ("gpt", table["table"]);
  ASSERT_EQ(2u, table["partitions"].size());
  EXPECT_EQ("EFI System", table["partitions"][1]["name"]);
  EXPECT_EQ(FIRST * 512, table["partitions"][1]["offset"]);
  EXPECT_EQ(COUNT * 512, table["partitions"][1]["bytes"]);
  EXPECT_EQ(3u, LinesOf(Fatimg({"info", "--partitions", m_DiskPath}).out).size());
}

TEST_F(Partitioned, MapOfAFile_CountsFromTheBeginOfTheDisk) {
  SetGpt(u"x");
  const nlohmann::json item = FatimgJson({"map", m_DiskPath + "@2:/README.TXT"})["items"][0];
  EXPECT_EQ('H', m_Disk.At(item["extents"][0]["position"].get<std::size_t>()));
}

TEST_F(Partitioned, PartitionBehindTheEnd_IsRefused) {
  m_Disk.SetMbr(0, {0, 0x0C, SECTORS + 1, 100});
  Write();
  EXPECT_NE(0, Cat("@1").exit);
}

TEST_F(Partitioned, NameWithAnAtSign_NeedsOneMore) {
  const std::string path = m_Directory / "a@b.img";
  RunOrThrow({"cp", m_Path, path});
  EXPECT_EQ("Hello world\n", Fatimg({"cat", path + "@:/README.TXT"}).out);
  EXPECT_EQ(3, Fatimg({"cat", path + ":/README.TXT"}).exit);
}

TEST_F(Partitioned, NoTable_IsSaid) {
  const RESULT result = Fatimg({"info", "--partitions", m_Path});
  EXPECT_EQ(3, result.exit);
  EXPECT_NE(std::string::npos, result.err.find("the image has no partition table"));
}

}  // namespace
}  // namespace fatimg_test
