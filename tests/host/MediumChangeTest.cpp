/// @file MediumChangeTest.cpp
/// Times, labels, longer directories, ".." and free counts, on volumes of mkfs.fat and judged by other tools.

#include <fatlib/Error.h>
#include <fatlib/Medium.h>
#include <fatlib/Path.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "ImageDevice.h"
#include "support/ImageBuilder.h"
#include "support/Process.h"
#include "support/VolumeReader.h"

namespace {

using fatlib::Medium;
using fatlib::RawEntry;
using fatlib::Status;
using STRINGS = std::vector<std::string>;

/// A volume of mkfs.fat in a file, with a directory DIR and a file in it.
class CRealVolume {
 public:
  explicit CRealVolume(unsigned int bits, const STRINGS& more = {}) : Path(m_Directory / "image") {
    const char* kilobytes = bits == 12 ? "2048" : bits == 16 ? "8192" : "40960";
    STRINGS command = {"mkfs.fat", "-C", "-F", std::to_string(bits), "-s", "1"};
    command.insert(command.end(), more.begin(), more.end());
    command.insert(command.end(), {Path, kilobytes});
    RunOrThrow(command);
    RunOrThrow({"mmd", "-i", Path, "::DIR"});
    WriteHostFile(m_Directory / "content", CImageBuilder::Pattern(5000, 3));
    RunOrThrow({"mcopy", "-i", Path, m_Directory / "content", "::DIR/Long name of a file.txt"});
  }

  Medium& Open() {
    fatlib::ImageFile::Options options;
    m_pFile.reset();  // and its lock
    EXPECT_FALSE(fatlib::ImageFile::Open(Path, options, &m_pFile));
    EXPECT_FALSE(m_Medium.Open(m_pFile.get()));
    return m_Medium;
  }
  /// What fsck.fat says against the volume; empty when it likes it.
  std::string Complaints() const {
    const PROCESS_RESULT result = RunProcess({"fsck.fat", "-n", Path});
    return result.Ok() ? "" : result.Output;
  }
  std::string Label() const { return RunOrThrow({"mlabel", "-i", Path, "-s", "::"}); }

 private:
  CTempDir m_Directory;
  std::unique_ptr<fatlib::ImageFile> m_pFile;
  Medium m_Medium;

 public:
  std::string Path;
};

RawEntry Find(Medium& medium, fatlib::DirectoryPlace place, const std::u16string& name) {
  std::vector<RawEntry> entries;
  EXPECT_FALSE(medium.ReadDirectory(place, &entries));
  for (const RawEntry& entry : entries) {
    if (entry.name == name) return entry;
  }
  ADD_FAILURE() << "not found";
  return RawEntry();
}

fatlib::Times SomeTimes() {
  fatlib::Times times;
  times.created = {0x5C6E, 0x792D, 125};  // 2026-03-14 15:09:27.25
  times.modified = {0x1F98, 0x0800, 0};   // 1995-12-24 01:00:00
  times.accessed.date = 0x5C6F;           // 2026-03-15
  return times;
}

constexpr unsigned int WIDTHS[] = {12, 16, 32};

// ---------------------------------------------------------------------------------------------- times

TEST(MediumChange, TimesAreSeenByOtherTools) {
  for (const unsigned int bits : WIDTHS) {
    CRealVolume volume(bits);
    Medium& medium = volume.Open();
    const std::uint32_t place = Find(medium, Medium::ROOT, u"DIR").firstCluster;
    const RawEntry before = Find(medium, place, u"Long name of a file.txt");
    EXPECT_FALSE(medium.SetTimes(place, before, SomeTimes()));
    EXPECT_EQ(Find(medium, place, u"Long name of a file.txt").times, SomeTimes());
    const std::string listing = RunOrThrow({"mdir", "-i", volume.Path, "::DIR"});
    EXPECT_NE(listing.find("1995-12-24   1:00"), std::string::npos) << listing;
    EXPECT_EQ(volume.Complaints(), "");
  }
}

TEST(MediumChange, TimesChangeTheirBytesOnly) {
  CRealVolume volume(16);
  const CDiskImage before = CDiskImage::FromFile(volume.Path);
  Medium& medium = volume.Open();
  const std::uint32_t place = Find(medium, Medium::ROOT, u"DIR").firstCluster;
  const RawEntry entry = Find(medium, place, u"Long name of a file.txt");
  EXPECT_FALSE(medium.SetTimes(place, entry, SomeTimes()));
  std::uint64_t position = 0;
  EXPECT_FALSE(medium.SlotPosition(place, entry.ShortSlot(), &position));
  for (const std::uint64_t offset : CDiskImage::Differences(before, CDiskImage::FromFile(volume.Path))) {
    const std::uint64_t field = offset - position;
    EXPECT_TRUE((field >= 13 && field < 20) || (field >= 22 && field < 26)) << field;
  }
}

TEST(MediumChange, EntryThatIsGoneGetsNoTimes) {
  CRealVolume volume(12);
  Medium& medium = volume.Open();
  const std::uint32_t place = Find(medium, Medium::ROOT, u"DIR").firstCluster;
  RawEntry entry = Find(medium, place, u"Long name of a file.txt");
  entry.shortName[0] = 'X';
  EXPECT_EQ(medium.SetTimes(place, entry, SomeTimes()), Status::NotFound);
  entry.firstSlot = 1000;
  EXPECT_EQ(medium.SetTimes(place, entry, SomeTimes()), Status::InvalidParameter);
}

// ---------------------------------------------------------------------------------------------- longer directories

TEST(MediumChange, LongerDirectoryIsWholeForFsck) {
  for (const unsigned int bits : WIDTHS) {
    CRealVolume volume(bits);
    Medium& medium = volume.Open();
    const std::uint32_t place = Find(medium, Medium::ROOT, u"DIR").firstCluster;
    std::uint32_t free = 0;
    EXPECT_FALSE(medium.CountFree(&free));
    EXPECT_FALSE(medium.GrowDirectory(place, 5));
    EXPECT_FALSE(medium.GrowDirectory(place, 1));
    std::uint32_t after = 0;
    EXPECT_FALSE(medium.CountFree(&after));
    EXPECT_EQ(after, free - 6);
    EXPECT_FALSE(medium.WriteFsInfo());
    std::vector<bool> slots;
    std::vector<RawEntry> entries;
    EXPECT_FALSE(medium.ReadDirectory(place, &entries, nullptr, &slots));
    EXPECT_EQ(slots.size(), 7u * 16);
    EXPECT_EQ(entries.size(), 3u);
    EXPECT_EQ(volume.Complaints(), "");
  }
}

TEST(MediumChange, NewPartOfADirectoryReadsAsNeverUsed) {
  CRealVolume volume(16);
  Medium& medium = volume.Open();
  const std::uint32_t place = Find(medium, Medium::ROOT, u"DIR").firstCluster;
  const std::vector<unsigned char> old(medium.Layout().bytesPerCluster, 0xDD);
  for (std::uint32_t cluster = place + 12; cluster < place + 40; ++cluster) {
    EXPECT_FALSE(medium.Base()->Write(medium.Layout().ClusterPosition(cluster), old.data(), old.size()));
  }
  EXPECT_FALSE(medium.GrowDirectory(place, 10));
  std::vector<fatlib::Extent> extents;
  EXPECT_FALSE(medium.Chain(place, &extents));
  CVolumeReader reader(CDiskImage::FromFile(volume.Path));
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_EQ(reader.Find("DIR")->Clusters.size(), 11u);
  std::vector<unsigned char> bytes(old.size());
  EXPECT_FALSE(medium.Base()->Read(medium.Layout().ClusterPosition(extents.back().first), bytes.data(), bytes.size()));
  EXPECT_EQ(bytes, std::vector<unsigned char>(old.size(), 0));
}

TEST(MediumChange, DirectoryThatCannotGrowStaysAsItIs) {
  CRealVolume volume(12);
  const CDiskImage before = CDiskImage::FromFile(volume.Path);
  Medium& medium = volume.Open();
  const std::uint32_t place = Find(medium, Medium::ROOT, u"DIR").firstCluster;
  EXPECT_EQ(medium.GrowDirectory(Medium::ROOT, 1), Status::DiskFull);  // a fixed root
  EXPECT_EQ(medium.GrowDirectory(place, 4029), Status::DiskFull);      // more clusters than are free
  EXPECT_EQ(medium.GrowDirectory(place, 4096), Status::DiskFull);      // more slots than a directory can have
  EXPECT_EQ(medium.GrowDirectory(place, 0xFFFFFFFF), Status::DiskFull);
  EXPECT_EQ(medium.GrowDirectory(1, 1), Status::DiskCorrupt);
  EXPECT_FALSE(medium.GrowDirectory(place, 0));
  EXPECT_EQ(CDiskImage::FromFile(volume.Path), before);
}

// Whatever call fails: the directory is either as it was or longer, and nothing but clusters is lost.
TEST(MediumChange, FailureWhileGrowingLeavesAWholeDirectory) {
  CRealVolume volume(32);
  const CDiskImage before = CDiskImage::FromFile(volume.Path);
  bool done = false;
  for (unsigned int failAt = 1; !done; ++failAt) {
    ASSERT_LT(failAt, 200u);
    CImageDevice device(before);
    Medium medium;
    ASSERT_FALSE(medium.Open(&device));
    const unsigned int calls = device.Calls();
    device.FailAt(calls + failAt);
    const std::error_code error = medium.GrowDirectory(Medium::ROOT, 3);
    done = device.Calls() < calls + failAt;
    EXPECT_EQ(!error, done) << failAt;
    medium.Forget();
    device.FailAt(0);
    std::vector<bool> slots;
    std::vector<RawEntry> entries;
    EXPECT_FALSE(medium.ReadDirectory(Medium::ROOT, &entries, nullptr, &slots)) << failAt;
    EXPECT_TRUE(slots.size() == 16 || slots.size() == 64) << slots.size();
  }
}

// ---------------------------------------------------------------------------------------------- ".."

TEST(MediumChange, DotDotNamesTheNewParent) {
  CRealVolume volume(32);
  Medium& medium = volume.Open();
  const std::uint32_t place = Find(medium, Medium::ROOT, u"DIR").firstCluster;
  EXPECT_FALSE(medium.SetDotDot(place, 0x00012345));
  EXPECT_EQ(Find(medium, place, u"..").firstCluster, 0x00012345u);
  EXPECT_NE(volume.Complaints(), "");
  EXPECT_FALSE(medium.SetDotDot(place, 0));
  EXPECT_EQ(volume.Complaints(), "");
}

TEST(MediumChange, WhatIsNoDirectoryHasNoDotDot) {
  CRealVolume volume(16);
  const CDiskImage before = CDiskImage::FromFile(volume.Path);
  Medium& medium = volume.Open();
  const std::uint32_t place = Find(medium, Medium::ROOT, u"DIR").firstCluster;
  EXPECT_EQ(medium.SetDotDot(place + 1, 0), Status::DiskCorrupt);  // the file's first cluster
  EXPECT_EQ(medium.SetDotDot(Medium::ROOT, 0), Status::InvalidParameter);
  EXPECT_EQ(medium.SetDotDot(place, 0x00FFFFFF), Status::InvalidParameter);
  EXPECT_EQ(CDiskImage::FromFile(volume.Path), before);
}

// ---------------------------------------------------------------------------------------------- the label

TEST(MediumChange, LabelIsSetChangedAndRemovedInEveryPlace) {
  for (const unsigned int bits : WIDTHS) {
    CRealVolume volume(bits);
    Medium& medium = volume.Open();
    std::u16string label = u"?";
    EXPECT_FALSE(medium.Label(&label));
    EXPECT_EQ(label, u"");
    EXPECT_FALSE(medium.SetLabel(u"First one", {0x5C6E, 0x792D, 0}));
    EXPECT_NE(volume.Label().find("Volume label is FIRST ONE"), std::string::npos) << volume.Label();
    EXPECT_EQ(volume.Complaints(), "");
    EXPECT_FALSE(medium.SetLabel(u"R\u00C9SUM\u00C9 2"));
    EXPECT_FALSE(medium.Label(&label));
    EXPECT_EQ(label, u"R\u00C9SUM\u00C9 2");
    EXPECT_EQ(medium.Layout().bootLabel, "R\x90SUM\x90 2");
    EXPECT_FALSE(medium.SetLabel(u""));
    EXPECT_NE(volume.Label().find("has no label"), std::string::npos) << volume.Label();
    EXPECT_FALSE(medium.Label(&label));
    EXPECT_EQ(label, u"");
    EXPECT_EQ(volume.Complaints(), "");
  }
}

TEST(MediumChange, LabelOfMkfsIsReadAndReplaced) {
  for (const unsigned int bits : WIDTHS) {
    CRealVolume volume(bits, {"-n", "BY MKFS"});
    Medium& medium = volume.Open();
    std::u16string label;
    EXPECT_FALSE(medium.Label(&label));
    EXPECT_EQ(label, u"BY MKFS");
    EXPECT_EQ(medium.Layout().bootLabel, "BY MKFS");
    EXPECT_FALSE(medium.SetLabel(u"ELEVENCHARS"));
    EXPECT_NE(volume.Label().find("ELEVENCHARS"), std::string::npos);
    std::vector<RawEntry> entries;
    EXPECT_FALSE(medium.ReadDirectory(Medium::ROOT, &entries));
    EXPECT_EQ(std::count_if(entries.begin(), entries.end(), [](const RawEntry& e) { return e.IsLabel(); }), 1);
    EXPECT_EQ(volume.Complaints(), "");
  }
}

TEST(MediumChange, LabelThatBeginsWithTheDeletedMarkIsStoredOtherwise) {
  CRealVolume volume(16);
  Medium& medium = volume.Open();
  EXPECT_FALSE(medium.SetLabel(u"\u03C3IGMA"));  // E5 in the code page
  std::u16string label;
  EXPECT_FALSE(medium.Label(&label));
  EXPECT_EQ(label, u"\u03C3IGMA");
}

TEST(MediumChange, ImpossibleLabelsAreRefused) {
  CRealVolume volume(16);
  const CDiskImage before = CDiskImage::FromFile(volume.Path);
  Medium& medium = volume.Open();
  for (const char16_t* label : {u"TWELVE CHARS", u"A.B", u"A*", u" A", u"\u4E00", u"A\x01"}) {
    EXPECT_EQ(medium.SetLabel(label), Status::InvalidName);
  }
  EXPECT_EQ(CDiskImage::FromFile(volume.Path), before);
}

TEST(MediumChange, LabelFindsAPlaceInARootWithoutRoom) {
  FAT_GEOMETRY geometry;
  geometry.RootEntries = 16;
  for (const unsigned int bits : {16u, 32u}) {
    geometry.FatBits = bits;
    geometry.RootEntries = bits == 32 ? 0 : 16;
    CImageBuilder builder(geometry);
    for (unsigned int i = 0; i < 16; ++i) builder.AddFile(CImageBuilder::Root(), "FILE" + std::to_string(i));
    CImageDevice device(builder.Image());
    Medium medium;
    ASSERT_FALSE(medium.Open(&device));
    const std::error_code error = medium.SetLabel(u"LABEL");
    EXPECT_EQ(error, bits == 32 ? std::error_code() : Status::DiskFull);
    CVolumeReader reader(device.Image());
    EXPECT_EQ(reader.ProblemText(), "");
    EXPECT_EQ(reader.Label(), bits == 32 ? "LABEL      " : "");
    EXPECT_EQ(reader.Tree().size(), 16u);
  }
}

TEST(MediumChange, LabelBehindTheLastEntryDoesNotUncoverWhatLiesBehind) {
  CImageBuilder builder((FAT_GEOMETRY()));
  builder.AddFile(CImageBuilder::Root(), "FILE");
  builder.SetNextSlot(CImageBuilder::Root(), 2);
  builder.AddFile(CImageBuilder::Root(), "GHOST");
  CImageDevice device(builder.Image());
  Medium medium;
  ASSERT_FALSE(medium.Open(&device));
  EXPECT_FALSE(medium.SetLabel(u"LABEL"));
  std::vector<RawEntry> entries;
  EXPECT_FALSE(medium.ReadDirectory(Medium::ROOT, &entries));
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].name, u"FILE");
  EXPECT_EQ(entries[1].name, u"LABEL");
}

// ---------------------------------------------------------------------------------------------- FSInfo

TEST(MediumChange, FsInfoGetsTheTrueCount) {
  CRealVolume volume(32);
  CFileImage file(volume.Path);
  file.Set32(512 + 488, 0xFFFFFFFF);
  Medium& medium = volume.Open();
  EXPECT_FALSE(medium.WriteFsInfo());
  std::uint32_t free = 0;
  EXPECT_FALSE(medium.CountFree(&free));
  EXPECT_EQ(file.Get32(512 + 488), free);
  EXPECT_EQ(volume.Complaints(), "");
}

TEST(MediumChange, FsInfoThatIsNoneIsLeftAlone) {
  CRealVolume volume(32);
  CFileImage file(volume.Path);
  file.Set32(512 + 488, 7);
  file.Set32(512 + 508, 7);
  EXPECT_FALSE(volume.Open().WriteFsInfo());
  EXPECT_EQ(file.Get32(512 + 488), 7u);
  CRealVolume other(16);
  const CDiskImage before = CDiskImage::FromFile(other.Path);
  EXPECT_FALSE(other.Open().WriteFsInfo());
  EXPECT_EQ(CDiskImage::FromFile(other.Path), before);
}

}  // namespace
