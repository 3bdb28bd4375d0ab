/// @file PowerCutTest.cpp
/// Every operation, cut at every write and inside every write, on FAT12, FAT16 and FAT32, with two FATs and with one,
/// once with everything written by the unmount and once with the library having forgotten its objects before. Each
/// image that a cut leaves is looked at by the library and by a reader that shares nothing with it: files that the
/// operation did not touch must be there byte for byte, and what is damaged must be of the kinds listed here.
///
/// On a volume with one FAT the unmount copies the FAT over what lies behind it, cut or no cut. From that write on only
/// this is asked: mounting, listing and reading end.

#include <gtest/gtest.h>

#include <algorithm>

#include "durability/PowerCut.h"
#include "support/VolumeReader.h"

namespace {

struct CHANGE {
  std::function<void()> Make;
  std::vector<std::string> Touched;  // files, and directories with all that is in them
  DAMAGES Allowed;                   // the damage that cuts leave, all of it and nothing else
};

class PowerCut : public CPowerCutFixture {
 protected:
  void SetUp() override {
    CPowerCutFixture::SetUp();
    m_Clock = std::make_unique<CFixedClock>(1700000000);
  }
  void TearDown() override {
    RecordProperty("cuts", static_cast<int>(m_Count.Replayed));
    RecordProperty("images", static_cast<int>(m_Count.Different));
    m_Clock.reset();
    CPowerCutFixture::TearDown();
  }

  void ExpectOnlyTheTouchedAtRisk(const CHANGE& change) {
    DAMAGES seen;
    for (const CUT_VOLUME& volume : AllVolumes()) {
      for (const bool forget : {false, true}) {
        SCOPED_TRACE(::testing::Message() << volume << (forget ? ", objects forgotten before the unmount" : ""));
        const START_VOLUME& start = StartVolume(volume, forget);
        const std::vector<MEDIUM_WRITE> writes = Record(start.Image, [&] {
          change.Make();
          if (forget) ForgetObjects();
        });
        ASSERT_FALSE(writes.empty());
        Judge(start, Untouched(start, change.Touched), volume.Fats == 1, writes, seen);
        if (HasFatalFailure()) return;
      }
    }
    EXPECT_EQ(ToText(seen), ToText(change.Allowed));
  }

 private:
  static std::map<std::string, BYTES> Untouched(const START_VOLUME& start, const std::vector<std::string>& touched) {
    std::map<std::string, BYTES> files = start.Files;
    for (const std::string& path : touched) {
      for (auto file = files.begin(); file != files.end();) {
        const bool hit = file->first == path || file->first.compare(0, path.size() + 1, path + "\\") == 0;
        file = hit ? files.erase(file) : std::next(file);
      }
    }
    EXPECT_FALSE(files.empty());
    return files;
  }

  void Judge(const START_VOLUME& start, const std::map<std::string, BYTES>& kept, bool oneFat,
             const std::vector<MEDIUM_WRITE>& writes, DAMAGES& seen) {
    // Where a second FAT would be written over something else.
    std::size_t spoilt = writes.size() + 1;
    for (std::size_t i = 0; oneFat && i < writes.size(); ++i) {
      if (writes[i].Offset == start.FatOffset() + start.FatBytes() && writes[i].Bytes.size() == start.FatBytes()) {
        spoilt = i;
      }
    }
    ASSERT_EQ(spoilt < writes.size(), oneFat);
    const CUT_COUNT count = ForEachCut(
        start.Image, writes, start.Geometry.BytesPerSector, [&](const CDiskImage& left, const POWER_CUT& cut) {
          SCOPED_TRACE(::testing::Message() << cut);
          const LIBRARY_VIEW view = ViewOf(left);
          const bool afterwards = cut.Writes > spoilt || (cut.Writes == spoilt && cut.Tear != TEAR::None);
          if (afterwards) return;
          EXPECT_TRUE(view.Mounted);
          EXPECT_EQ(Missing(view, kept), std::set<std::string>{});
          EXPECT_EQ(MissingForReader(left, kept), std::set<std::string>{});
          std::string text;
          const DAMAGES damages = DamageOf(left, &text);
          EXPECT_EQ(damages.count(DAMAGE::Other), 0u) << text;
          seen.insert(damages.begin(), damages.end());
        });
    m_Count.Replayed += count.Replayed;
    m_Count.Different += count.Different;
  }

  std::unique_ptr<CFixedClock> m_Clock;
  CUT_COUNT m_Count;
};

// ---------------------------------------------------------------- files

TEST_F(PowerCut, CreatedFile_LeavesItOrItsEntryOrItsClusters) {
  ExpectOnlyTheTouchedAtRisk(
      {[] {
         MakeFile("NEW.TXT", 1300);
         MakeFile("DIR\\New file with a long name.txt", 700);
         MakeFile("A file in the root, with a name so long that it takes the slots of two sectors.txt", 9);
       },
       {},
       {DAMAGE::FatsDiffer, DAMAGE::LostClusters, DAMAGE::FreeCluster, DAMAGE::WrongSize, DAMAGE::TornName}});
}

TEST_F(PowerCut, OverwrittenFile_NeverHarmsAnother) {
  ExpectOnlyTheTouchedAtRisk({[] {
                                Overwrite("OLD.TXT", 91);
                                Overwrite("DIR\\OLD1.TXT", 92);
                              },
                              {"OLD.TXT", "DIR\\OLD1.TXT"},
                              {}});
}

TEST_F(PowerCut, GrownFile_NeverHarmsAnother) {
  ExpectOnlyTheTouchedAtRisk({[] {
                                Resize("OLD.TXT", 5000);
                                Overwrite("OLD.TXT", 91);
                                Resize("DIR\\OLD1.TXT", 2049);
                                Resize("FULL\\FILLER10.TXT", 100);
                              },
                              {"OLD.TXT", "DIR\\OLD1.TXT", "FULL\\FILLER10.TXT"},
                              {DAMAGE::FatsDiffer, DAMAGE::LostClusters, DAMAGE::FreeCluster, DAMAGE::WrongSize}});
}

TEST_F(PowerCut, ShrunkFile_NeverHarmsAnother) {
  ExpectOnlyTheTouchedAtRisk({[] {
                                Resize("OLD.TXT", 0);
                                Resize("DIR\\OLD1.TXT", 513);
                                Resize("TARGET\\OLD2.TXT", 0);
                              },
                              {"OLD.TXT", "DIR\\OLD1.TXT", "TARGET\\OLD2.TXT"},
                              {DAMAGE::FatsDiffer, DAMAGE::LostClusters, DAMAGE::FreeCluster, DAMAGE::WrongSize}});
}

TEST_F(PowerCut, RenamedFile_NeverHarmsAnother) {
  ExpectOnlyTheTouchedAtRisk({[] {
                                Rename("OLD.TXT", "Renamed to something long.txt");
                                Rename("DIR\\OLD1.TXT", "Renamed to something long, in its directory.txt");
                              },
                              {"OLD.TXT", "DIR\\OLD1.TXT"},
                              {DAMAGE::LostClusters}});
}

TEST_F(PowerCut, MovedFile_NeverHarmsAnother) {
  ExpectOnlyTheTouchedAtRisk({[] {
                                Move("OLD.TXT", "TARGET");
                                Move("DIR\\OLD1.TXT", "TARGET");
                                Move("FULL\\FILLER10.TXT", "");
                              },
                              {"OLD.TXT", "DIR\\OLD1.TXT", "FULL\\FILLER10.TXT"},
                              {DAMAGE::LostClusters, DAMAGE::SharedCluster, DAMAGE::WrongSize}});
}

TEST_F(PowerCut, DeletedFile_NeverHarmsAnother) {
  ExpectOnlyTheTouchedAtRisk({[] {
                                Delete("OLD.TXT");
                                Delete("DIR\\OLD1.TXT");
                                Delete("FULL\\FILLER10.TXT");
                              },
                              {"OLD.TXT", "DIR\\OLD1.TXT", "FULL\\FILLER10.TXT"},
                              {DAMAGE::FatsDiffer, DAMAGE::LostClusters, DAMAGE::FreeCluster, DAMAGE::WrongSize}});
}

// ---------------------------------------------------------------- directories

TEST_F(PowerCut, CreatedDirectory_NeverHarmsAFile) {
  ExpectOnlyTheTouchedAtRisk({[] {
                                MakeDir("MADE");
                                MakeDir("DIR\\Made with a long name");
                                MakeDir("TARGET\\Made\\On the way");
                              },
                              {},
                              {DAMAGE::FatsDiffer, DAMAGE::LostClusters, DAMAGE::FreeCluster, DAMAGE::SharedCluster,
                               DAMAGE::WrongSize, DAMAGE::ForeignDir}});
}

TEST_F(PowerCut, DeletedDirectory_NeverHarmsAFile) {
  ExpectOnlyTheTouchedAtRisk({[] { Delete("EMPTY"); }, {}, {DAMAGE::FatsDiffer, DAMAGE::LostClusters}});
}

TEST_F(PowerCut, RenamedDirectory_HarmsNothingOutsideOfIt) {
  ExpectOnlyTheTouchedAtRisk({[] {
                                Rename("FULL", "Full and renamed");
                                Rename("DIR\\SUBDIR", "A sub-directory with a longer name");
                              },
                              {"FULL", "DIR\\SUBDIR"},
                              {DAMAGE::LostClusters}});
}

TEST_F(PowerCut, MovedDirectory_HarmsNothingOutsideOfIt) {
  ExpectOnlyTheTouchedAtRisk({[] {
                                Move("DIR\\SUBDIR", "TARGET");
                                Move("FULL", "TARGET");
                              },
                              {"FULL", "DIR\\SUBDIR"},
                              {DAMAGE::LostClusters, DAMAGE::SharedCluster, DAMAGE::ForeignDir}});
}

TEST_F(PowerCut, MovedDirectoryThatWasOpenedBefore_HarmsNothingOutsideOfIt) {
  ExpectOnlyTheTouchedAtRisk({[] {
                                EXPECT_TRUE(Exists("DIR\\SUBDIR\\KEEP2.TXT"));
                                Move("DIR\\SUBDIR", "");
                              },
                              {"DIR\\SUBDIR"},
                              {DAMAGE::LostClusters, DAMAGE::SharedCluster, DAMAGE::ForeignDir}});
}

TEST_F(PowerCut, DirectoryThatGrows_KeepsItsFiles) {
  ExpectOnlyTheTouchedAtRisk(
      {[] { MakeFile("FULL\\The seventeenth.txt", 1000); },
       {},
       {DAMAGE::FatsDiffer, DAMAGE::LostClusters, DAMAGE::SharedCluster, DAMAGE::WrongSize, DAMAGE::ForeignDir}});
}

// ---------------------------------------------------------------- whole sessions

TEST_F(PowerCut, UnmountWithoutAChange_HarmsNothing) {
  ExpectOnlyTheTouchedAtRisk({[] {}, {}, {}});
}

TEST_F(PowerCut, UnmountAfterReading_HarmsNothing) {
  ExpectOnlyTheTouchedAtRisk({[] { EXPECT_EQ(ReadPath("OLD.TXT").size(), 1200u); }, {}, {}});
}

TEST_F(PowerCut, SessionOfEverything_NeverHarmsWhatItDidNotTouch) {
  ExpectOnlyTheTouchedAtRisk({[] {
                                Delete("OLD.TXT");
                                MakeFile("REUSE.TXT", 2500);  // in the clusters of the deleted file
                                MakeDir("TARGET\\DEEP");
                                Move("DIR\\OLD1.TXT", "TARGET\\DEEP");
                                MakeFile("TARGET\\DEEP\\More.txt", 600);
                                Delete("EMPTY");
                                MakeFile("FULL\\Growth.txt", 100);
                                Delete("FULL\\FILLER10.TXT");
                                Rename("FULL\\FILLER11.TXT", "A long name in place of a short one.txt");
                                Resize("REUSE.TXT", 100);
                              },
                              {"OLD.TXT", "DIR\\OLD1.TXT", "FULL\\FILLER10.TXT", "FULL\\FILLER11.TXT"},
                              {DAMAGE::FatsDiffer, DAMAGE::LostClusters, DAMAGE::FreeCluster, DAMAGE::SharedCluster,
                               DAMAGE::WrongSize, DAMAGE::ForeignDir}});
}

// A FAT of four cache blocks is written while mounted, block by block, ahead of the directories.
TEST_F(PowerCut, FatOfFourBlocks_NeverHarmsAnotherFile) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 32;
  geometry.Clusters = 4 * 65536 - 2;
  CImageBuilder builder(geometry);
  std::map<std::string, BYTES> kept;
  const auto keep = [&](const std::string& name, const std::vector<std::uint32_t>& clusters) {
    kept[name] = CImageBuilder::Pattern(1500, clusters[0]);
    builder.AddFile(CImageBuilder::Root(), name, kept[name], clusters);
  };
  keep("KEEP1.TXT", {1000, 70000, 140000});
  keep("KEEP2.TXT", {200000, 3000, 65535});
  constexpr unsigned int SIZE = (4 * 65536 - 2000) * 512;
  const std::vector<MEDIUM_WRITE> writes = Record(builder.Image(), [] {
    for (const char* path : {"FIRST.BIN", "SECOND.BIN"}) {
      const int handle = Fat_CreateFile(CPath(path), SIZE, 0);
      ASSERT_GE(handle, 0);
      EXPECT_EQ(Fat_SetFileSize(handle, SIZE / 2), 1u);
      EXPECT_EQ(Fat_CloseFile(handle), 1u);
      Delete(path);
    }
    MakeFile("THIRD.BIN", 3000);
  });
  ASSERT_GT(writes.size(), 12u);
  CDiskImage left = builder.Image();
  for (std::size_t i = 0; i < writes.size(); ++i) {
    Replay(left, writes[i]);
    EXPECT_EQ(Missing(ViewOf(left), kept), std::set<std::string>{}) << POWER_CUT{i + 1, TEAR::None, 0};
    EXPECT_EQ(MissingForReader(left, kept), std::set<std::string>{}) << POWER_CUT{i + 1, TEAR::None, 0};
  }
  EXPECT_EQ(ViewOf(left).Files.at("THIRD.BIN"), CImageBuilder::Pattern(3000, 77));
  EXPECT_EQ(DamageOf(left), DAMAGES{});
}

}  // namespace
