/// @file CheckDirectoryTest.cpp
/// Defects of directories and their entries.

#include <gtest/gtest.h>

#include "CheckedVolume.h"

namespace {

using DIRECTORY = CImageBuilder::DIRECTORY;
constexpr DIRECTORY ROOT = CCheckedVolume::ROOT;

// A FAT12 volume with a directory DIR in cluster 70, which has a directory SUB in cluster 71.
class CheckDirectory : public ::testing::Test {
 protected:
  void SetDate(DIRECTORY directory, unsigned int slot, unsigned int at, unsigned int value) {
    m_Volume.Image().Set16(m_Builder.SlotOffset(directory, slot) + at, value);
  }
  unsigned int AddNamed(const char* elevenBytes, unsigned int attributes = 0x20) {
    return m_Builder.Append(m_Dir,
                            CImageBuilder::ShortEntry(CImageBuilder::ShortName11(elevenBytes), attributes, 0, 0));
  }

  CCheckedVolume m_Volume{12};
  CImageBuilder& m_Builder = m_Volume.Builder();
  DIRECTORY m_Dir = m_Builder.AddDir(ROOT, "DIR", {70});
  DIRECTORY m_Sub = m_Builder.AddDir(m_Dir, "SUB", {71});
};

TEST_F(CheckDirectory, HealthyDirectoriesAndNamesHaveNoDefect) {
  m_Builder.AddFile(m_Sub, "A long name.text");
  m_Builder.AddFile(m_Sub, "Größe, 漢字 😀.txt");
  m_Builder.AddFile(m_Sub, std::string(255, 'x'));
  AddNamed(
      "\x05"
      "BC     TXT");
  AddNamed("A B     C D");
  AddNamed("\x80\xFF      TXT");
  EXPECT_EQ(TOLD(), m_Volume.Check());
}

TEST_F(CheckDirectory, DirectoryWithASizeIsTold) {
  m_Volume.Image().Set32(m_Builder.SlotOffset(ROOT, 0) + 28, 512);
  EXPECT_EQ(TOLD{"directory-has-size /DIR 512"}, m_Volume.Check());
}

TEST_F(CheckDirectory, DirectoryWithoutClusterIsTold) {
  AddNamed("NONE       ", 0x10);
  EXPECT_EQ(TOLD{"empty-directory-chain /DIR/NONE"}, m_Volume.Check());
}

TEST_F(CheckDirectory, DirectoryOutsideTheVolumeIsTold) {
  m_Builder.Append(m_Dir, CImageBuilder::ShortEntry(CImageBuilder::ShortName("FAR"), 0x10, 4000, 0));
  EXPECT_EQ(TOLD{"first-cluster-invalid /DIR/FAR 4000"}, m_Volume.Check());
}

TEST_F(CheckDirectory, DirectoryWithABrokenChainIsLookedIntoAsFarAsItGoes) {
  m_Builder.SetFatEntry(70, 0);
  m_Volume.SetSlotByte(m_Sub, 1, 26, 9);
  EXPECT_EQ((TOLD{"chain-broken /DIR 70", "dot-dot-wrong /DIR/SUB 9"}), m_Volume.Check());
}

// ---------------------------------------------------------------------------------------------- "." and ".."

TEST_F(CheckDirectory, DotsMustBeThere) {
  m_Volume.SetSlotByte(m_Sub, 0, 0, 'X');
  EXPECT_EQ((TOLD{"dot-missing /DIR/SUB", "cross-linked /DIR/SUB/X 71 /DIR/SUB"}), m_Volume.Check());
  m_Volume.SetSlotByte(m_Sub, 0, 0, 0xE5);
  EXPECT_EQ((TOLD{"dot-missing /DIR/SUB"}), m_Volume.Check());
  m_Volume.SetSlotByte(m_Sub, 1, 0, 0xE5);
  EXPECT_EQ((TOLD{"dot-missing /DIR/SUB", "dot-dot-missing /DIR/SUB"}), m_Volume.Check());
  m_Volume.SetSlotByte(m_Sub, 0, 0, '.');
  EXPECT_EQ((TOLD{"dot-dot-missing /DIR/SUB"}), m_Volume.Check());
}

TEST_F(CheckDirectory, EmptyDirectoryLacksBothDots) {
  m_Volume.SetSlotByte(m_Sub, 0, 0, 0);
  EXPECT_EQ((TOLD{"dot-missing /DIR/SUB", "dot-dot-missing /DIR/SUB"}), m_Volume.Check());
}

TEST_F(CheckDirectory, DotsMustNameTheDirectoryAndItsParent) {
  m_Volume.SetSlotByte(m_Sub, 0, 26, 70);
  EXPECT_EQ(TOLD{"dot-wrong /DIR/SUB 70"}, m_Volume.Check());
  m_Volume.SetSlotByte(m_Sub, 0, 26, 71);
  m_Volume.SetSlotByte(m_Sub, 1, 26, 0);
  EXPECT_EQ(TOLD{"dot-dot-wrong /DIR/SUB"}, m_Volume.Check());
  m_Volume.SetSlotByte(m_Sub, 1, 26, 70);
  m_Volume.SetSlotByte(m_Dir, 1, 26, 70);  // must be 0: the parent is the root
  EXPECT_EQ(TOLD{"dot-dot-wrong /DIR 70"}, m_Volume.Check());
}

TEST_F(CheckDirectory, DotsMustBeDirectories) {
  m_Volume.SetSlotByte(m_Sub, 0, 11, 0x20);
  m_Volume.SetSlotByte(m_Sub, 1, 11, 0x20);
  EXPECT_EQ((TOLD{"dot-wrong /DIR/SUB 71", "dot-dot-wrong /DIR/SUB 70"}), m_Volume.Check());
}

TEST_F(CheckDirectory, DotsElsewhereAreNoNames) {
  AddNamed(".          ", 0x10);
  m_Builder.Append(ROOT, CImageBuilder::ShortEntry(CImageBuilder::ShortName11("..         "), 0x10, 0, 0));
  EXPECT_EQ((TOLD{"bad-short-name /.. 1", "bad-short-name /DIR/. 3"}), m_Volume.Check());
}

// The root's cluster number in ".." is as wrong as any other.
TEST_F(CheckDirectory, DotDotOfTheRootIsZeroOnFat32Too) {
  CCheckedVolume volume(32);
  const DIRECTORY dir = volume.Builder().AddDir(ROOT, "DIR", {70});
  EXPECT_EQ(TOLD(), volume.Check());
  volume.SetSlotByte(dir, 1, 26, 2);
  EXPECT_EQ(TOLD{"dot-dot-wrong /DIR 2"}, volume.Check());
}

// ---------------------------------------------------------------------------------------------- directories in loops

TEST_F(CheckDirectory, DirectoryThatContainsItselfEndsThere) {
  m_Builder.Append(m_Dir, CImageBuilder::ShortEntry(CImageBuilder::ShortName("SELF"), 0x10, 70, 0));
  EXPECT_EQ(TOLD{"cross-linked /DIR/SELF 70 /DIR"}, m_Volume.Check());
}

TEST_F(CheckDirectory, DirectoryThatContainsItsParentEndsThere) {
  m_Builder.Append(m_Sub, CImageBuilder::ShortEntry(CImageBuilder::ShortName("UP"), 0x10, 70, 0));
  EXPECT_EQ(TOLD{"cross-linked /DIR/SUB/UP 70 /DIR"}, m_Volume.Check());
}

TEST_F(CheckDirectory, DirectoryThatContainsTheRootEndsThere) {
  CCheckedVolume volume(32);
  const DIRECTORY dir = volume.Builder().AddDir(ROOT, "DIR", {70});
  volume.Builder().Append(dir, CImageBuilder::ShortEntry(CImageBuilder::ShortName("ROOT"), 0x10, 2, 0));
  EXPECT_EQ(TOLD{"cross-linked /DIR/ROOT 2 /"}, volume.Check());
}

TEST_F(CheckDirectory, DirectoryOnAFilesBytesIsNotReadAsOne) {
  m_Builder.AddFile(ROOT, "FILE", CImageBuilder::Bytes(std::string(512, 'a')), {50});
  m_Builder.Append(ROOT, CImageBuilder::ShortEntry(CImageBuilder::ShortName("NODIR"), 0x10, 50, 0));
  EXPECT_EQ((TOLD{"cross-linked /NODIR 50 /FILE", "dot-missing /NODIR", "dot-dot-missing /NODIR"}), m_Volume.Check());
}

TEST_F(CheckDirectory, DirectoryThatAFileSharesIsReadAllTheSame) {
  m_Builder.AddFile(m_Sub, "X", CImageBuilder::Pattern(100, 1), {80});
  CCheckedVolume volume(12);
  ENTRY_OPTIONS options;
  options.SetFirstCluster = options.SetSize = true;
  options.FirstCluster = 70;
  options.Size = 512;
  volume.Builder().AddFile(ROOT, "FILE", {}, {}, options);
  volume.AddFile("X", 100, 80, volume.Builder().AddDir(ROOT, "DIR", {70}));
  EXPECT_EQ(TOLD{"cross-linked /DIR 70 /FILE"}, volume.Check());  // and no lost cluster
}

// ---------------------------------------------------------------------------------------------- entries

TEST_F(CheckDirectory, BadShortNamesAreTold) {
  for (const char* name :
       {"lower   TXT", " SPACE  TXT", "A/B     TXT", "A\x01      TXT", "A       T.T", ".A         "}) {
    CCheckedVolume volume(12);
    volume.Builder().Append(ROOT, CImageBuilder::ShortEntry(CImageBuilder::ShortName11(name), 0x20, 0, 0));
    const fatlib::CheckReport report = volume.Report();
    ASSERT_EQ(1u, report.defects.size()) << name;
    EXPECT_EQ(fatlib::Defect::BadShortName, report.defects[0].kind) << name;
  }
}

TEST_F(CheckDirectory, BadAttributesAreTold) {
  AddNamed("A          ", 0x60);
  AddNamed("B          ", 0xA0);
  EXPECT_EQ((TOLD{"bad-attributes /DIR/A 3", "bad-attributes /DIR/B 4"}), m_Volume.Check());
}

TEST_F(CheckDirectory, LongNameWithoutEntryIsTold) {
  m_Builder.Append(m_Dir, CImageBuilder::LongEntries(ToUtf16("nobody"), 0x11));
  EXPECT_EQ(TOLD{"orphan-long-name /DIR 3"}, m_Volume.Check());
}

TEST_F(CheckDirectory, LongNameOfADeletedEntryIsTold) {
  const unsigned int slot = m_Builder.AddFile(m_Dir, "A long name.text");
  m_Volume.SetSlotByte(m_Dir, slot, 0, 0xE5);
  EXPECT_EQ(TOLD{"orphan-long-name /DIR 3"}, m_Volume.Check());
}

TEST_F(CheckDirectory, LongNameWithAnotherChecksumIsTold) {
  const unsigned int slot = m_Builder.AddFile(m_Dir, "Long name");
  m_Volume.SetSlotByte(m_Dir, slot - 1, 13, 0x77);
  EXPECT_EQ(TOLD{"bad-long-name /DIR 3"}, m_Volume.Check());
}

TEST_F(CheckDirectory, LongNameWithAForbiddenUnitIsTold) {
  const unsigned int slot = m_Builder.AddFile(m_Dir, "Long name");
  m_Volume.SetSlotByte(m_Dir, slot - 1, 3, '/');
  EXPECT_EQ(TOLD{"bad-long-name /DIR/L/ng name 3"}, m_Volume.Check());
}

TEST_F(CheckDirectory, LongNameInTheWrongOrderIsTold) {
  const unsigned int slot = m_Builder.AddFile(m_Dir, "A long name.text");  // pieces 2 and 1
  m_Volume.SetSlotByte(m_Dir, slot - 1, 0, 3);
  EXPECT_EQ((TOLD{"orphan-long-name /DIR 3", "bad-long-name /DIR 4", "orphan-long-name /DIR 4"}), m_Volume.Check());
}

TEST_F(CheckDirectory, TwoEntriesWithOneShortNameAreTold) {
  AddNamed("A       TXT");
  AddNamed("A       TXT");
  EXPECT_EQ(TOLD{"duplicate-short-name /DIR/A.TXT 4 /DIR/A.TXT"}, m_Volume.Check());
}

TEST_F(CheckDirectory, TwoEntriesWithOneLongNameAreTold) {
  ENTRY_OPTIONS first;
  first.ShortName = "LONGNA~1   ";
  ENTRY_OPTIONS second;
  second.ShortName = "LONGNA~2   ";
  m_Builder.AddFile(m_Dir, "Long name", {}, {}, first);
  m_Builder.AddFile(m_Dir, "LONG NAME", {}, {}, second);
  EXPECT_EQ(TOLD{"duplicate-long-name /DIR/LONG NAME 6 /DIR/Long name"}, m_Volume.Check());
}

TEST_F(CheckDirectory, LongNameThatIsAnothersShortNameIsTold) {
  AddNamed("LONGNA~1   ");
  ENTRY_OPTIONS options;
  options.ShortName = "OTHER      ";
  options.ForceLongName = true;
  m_Builder.AddFile(m_Dir, "longna~1", {}, {}, options);
  EXPECT_EQ(TOLD{"duplicate-long-name /DIR/longna~1 5 /DIR/LONGNA~1"}, m_Volume.Check());
}

TEST_F(CheckDirectory, SameNamesInDifferentDirectoriesAreNone) {
  m_Builder.AddFile(m_Dir, "A.TXT");
  m_Builder.AddFile(m_Sub, "A.TXT");
  m_Builder.AddFile(ROOT, "A.TXT");
  EXPECT_EQ(TOLD(), m_Volume.Check());
}

TEST_F(CheckDirectory, DatesAndTimesMustBeSome) {
  const unsigned int slot = m_Builder.AddFile(m_Dir, "A");
  const auto told = [&](unsigned int at, unsigned int value) {
    const unsigned int old = m_Volume.Image().Get16(m_Builder.SlotOffset(m_Dir, slot) + at);
    SetDate(m_Dir, slot, at, value);
    const TOLD defects = m_Volume.Check();
    SetDate(m_Dir, slot, at, old);
    return defects;
  };
  const TOLD bad = {"bad-stamp /DIR/A 3"};
  for (const unsigned int date : {16u, 18u, 24u}) {
    EXPECT_EQ(bad, told(date, 0x5A01)) << "month 0";
    EXPECT_EQ(bad, told(date, 0x5BA1)) << "month 13";
    EXPECT_EQ(bad, told(date, 0x5A20)) << "day 0";
    EXPECT_EQ(bad, told(date, 0x5A5D)) << "29 February 2025";
    EXPECT_EQ(TOLD(), told(date, 0x585D)) << "29 February 2024";
    EXPECT_EQ(TOLD(), told(date, 0)) << "none";
  }
  for (const unsigned int time : {14u, 22u}) {
    EXPECT_EQ(bad, told(time, 24u << 11));
    EXPECT_EQ(bad, told(time, 60u << 5));
    EXPECT_EQ(bad, told(time, 30));
    EXPECT_EQ(TOLD(), told(time, 0xBF7D)) << "23:59:58";
  }
  EXPECT_EQ(bad, told(12, 200u << 8)) << "hundredths";
  EXPECT_EQ(TOLD(), told(12, 199u << 8));
}

TEST_F(CheckDirectory, LabelsAreForTheRootAndOne) {
  CCheckedVolume volume(12, u"LABEL");
  volume.Builder().Append(ROOT, CImageBuilder::ShortEntry(CImageBuilder::ShortName("AGAIN"), 0x08, 0, 0));
  const DIRECTORY dir = volume.Builder().AddDir(ROOT, "DIR");
  volume.Builder().Append(dir, CImageBuilder::ShortEntry(CImageBuilder::ShortName("BELOW"), 0x08, 0, 0));
  EXPECT_EQ((TOLD{"second-label /AGAIN 1", "label-not-in-root /DIR/BELOW 2"}), volume.Check());
}

}  // namespace
