/// @file CutExceptionTest.cpp
/// What a cut can do that one would not expect: the cases in which a file that nobody touched is out of reach, harmed,
/// or shows something else, each with what does it, and what stands in their place.

#include <gtest/gtest.h>

#include <algorithm>

#include "durability/PowerCut.h"
#include "support/VolumeReader.h"

namespace {

/// Under which of two names something is.
enum class PLACE { Old, Both, Neither, New };
using PLACES = std::set<PLACE>;
std::string ToText(const PLACES& places) {
  static const char* const s_Names[] = {"Old", "Both", "Neither", "New"};
  std::string text;
  for (const PLACE place : places) text += std::string(s_Names[static_cast<int>(place)]) + " ";
  return text;
}

class CutException : public CPowerCutFixture {
 protected:
  /// Where a file, with its very bytes, is after each cut of an operation that gives it another path.
  PLACES PlacesOf(const START_VOLUME& start, const std::string& oldPath, const std::string& newPath,
                  const std::function<void()>& change) {
    PLACES places;
    const BYTES& bytes = start.Files.at(oldPath);
    ForEachCut(start.Image, Record(start.Image, change), start.Geometry.BytesPerSector,
               [&](const CDiskImage& left, const POWER_CUT& cut) {
                 const LIBRARY_VIEW view = ViewOf(left);
                 const bool atOld = Missing(view, {{oldPath, bytes}}).empty();
                 const bool atNew = Missing(view, {{newPath, bytes}}).empty();
                 EXPECT_EQ(MissingForReader(left, {{oldPath, bytes}}).empty() ||
                               MissingForReader(left, {{newPath, bytes}}).empty(),
                           atOld || atNew)
                     << cut;
                 places.insert(atOld && atNew ? PLACE::Both : atOld ? PLACE::Old : atNew ? PLACE::New : PLACE::Neither);
               });
    return places;
  }
  void ExpectPlaces(const PLACES& expected, const std::string& oldPath, const std::string& newPath,
                    const std::function<void()>& change) {
    for (const CUT_VOLUME& volume : TwoFatVolumes()) {
      SCOPED_TRACE(::testing::Message() << volume);
      EXPECT_EQ(ToText(PlacesOf(StartVolume(volume), oldPath, newPath, change)), ToText(expected));
    }
  }
};

// ---------------------------------------------------------------- one FAT

TEST_F(CutException, VolumeWithOneFat_LosesItsRootDirectoryToTheUnmountItself) {
  for (const CUT_VOLUME& volume : AllVolumes()) {
    if (volume.Fats != 1) continue;
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume);
    CDiskImage image = start.Image;
    for (const MEDIUM_WRITE& write : Record(image, [] {})) Replay(image, write);
    const std::size_t bytes = ToSize(start.FatBytes());
    EXPECT_EQ(image.ReadBytes(start.FatOffset() + bytes, bytes), image.ReadBytes(start.FatOffset(), bytes));
    EXPECT_EQ(Missing(ViewOf(image), start.Files).size(), start.Files.size());
    EXPECT_EQ(MissingForReader(image, start.Files).size(), start.Files.size());
  }
}

// ---------------------------------------------------------------- moving

TEST_F(CutException, DirectoryMovedOutOfTheRoot_CanBeInNeitherDirectory) {
  ExpectPlaces({PLACE::Old, PLACE::Neither, PLACE::New}, "FULL\\KEEP5.TXT", "TARGET\\FULL\\KEEP5.TXT",
               [] { Move("FULL", "TARGET"); });
}

TEST_F(CutException, FileMovedOutOfTheRoot_CanBeInNeitherDirectory) {
  ExpectPlaces({PLACE::Old, PLACE::Neither, PLACE::New}, "OLD.TXT", "TARGET\\OLD.TXT",
               [] { Move("OLD.TXT", "TARGET"); });
}

TEST_F(CutException, DirectoryMovedIntoTheRoot_CanBeInBothDirectories) {
  ExpectPlaces({PLACE::Old, PLACE::Both, PLACE::New}, "DIR\\SUBDIR\\KEEP2.TXT", "SUBDIR\\KEEP2.TXT",
               [] { Move("DIR\\SUBDIR", ""); });
}

TEST_F(CutException, DirectoryMovedBetweenOthers_CanBeInBothDirectories) {
  ExpectPlaces({PLACE::Old, PLACE::Both, PLACE::New}, "DIR\\SUBDIR\\KEEP2.TXT", "TARGET\\SUBDIR\\KEEP2.TXT",
               [] { Move("DIR\\SUBDIR", "TARGET"); });
}

TEST_F(CutException, TargetUsedAgainAfterTheMove_CanLeaveItInNeitherDirectory) {
  ExpectPlaces({PLACE::Old, PLACE::Neither, PLACE::New}, "DIR\\SUBDIR\\KEEP2.TXT", "TARGET\\SUBDIR\\KEEP2.TXT", [] {
    Move("DIR\\SUBDIR", "TARGET");
    EXPECT_TRUE(Exists("TARGET"));
  });
}

TEST_F(CutException, DirectoryInNeitherPlace_KeepsItsBytesInClustersThatNothingReaches) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume);
    const CVolumeReader before(start.Image);
    const std::vector<std::uint32_t> clusters = before.Find("FULL\\KEEP5.TXT")->Clusters;
    const BYTES& bytes = start.Files.at("FULL\\KEEP5.TXT");
    unsigned int neither = 0;
    ForEachCut(start.Image, Record(start.Image, [] { Move("FULL", "TARGET"); }), 512,
               [&](const CDiskImage& left, const POWER_CUT& cut) {
                 const CVolumeReader reader(left);
                 if (reader.Find("FULL") != nullptr || reader.Find("TARGET\\FULL") != nullptr) return;
                 ++neither;
                 for (const std::uint32_t cluster : clusters) {
                   const std::vector<std::uint32_t>& lost = reader.LostClusters();
                   EXPECT_NE(std::find(lost.begin(), lost.end(), cluster), lost.end()) << cut;
                 }
                 EXPECT_EQ(left.ReadBytes(reader.ClusterOffset(clusters[0]), 512),
                           BYTES(bytes.begin(), bytes.begin() + 512));
               });
    EXPECT_NE(neither, 0u);
  }
}

// ---------------------------------------------------------------- renaming

TEST_F(CutException, DirectoryRenamedIntoLaterSlots_CanHaveNoName) {
  // From the first sector of its directory to the second.
  ExpectPlaces({PLACE::Old, PLACE::Neither, PLACE::New}, "DIR\\SUBDIR\\KEEP2.TXT", "DIR\\Its new name\\KEEP2.TXT",
               [] { Rename("DIR\\SUBDIR", "Its new name"); });
}

TEST_F(CutException, DirectoryRenamedIntoEarlierSlots_CanHaveBothNames) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    START_VOLUME start = StartVolume(volume);
    start.Files.clear();
    // The first rename takes the directory to the second sector and is unmounted; the place it left lets the second
    // one bring it back to the first.
    for (const MEDIUM_WRITE& write : Record(start.Image, [] { Rename("DIR\\SUBDIR", "Its new name"); })) {
      Replay(start.Image, write);
    }
    start.Files["DIR\\Its new name\\KEEP2.TXT"] = StartVolume(volume).Files.at("DIR\\SUBDIR\\KEEP2.TXT");
    EXPECT_EQ(ToText(PlacesOf(start, "DIR\\Its new name\\KEEP2.TXT", "DIR\\BACK\\KEEP2.TXT",
                              [] { Rename("DIR\\Its new name", "BACK"); })),
              ToText(PLACES{PLACE::Old, PLACE::Both, PLACE::New}));
  }
}

TEST_F(CutException, DirectoryRenamedInItsOwnSector_HasOneName) {
  ExpectPlaces({PLACE::Old, PLACE::New}, "DIR\\SUBDIR\\KEEP2.TXT", "DIR\\SHORT\\KEEP2.TXT",
               [] { Rename("DIR\\SUBDIR", "SHORT"); });
}

// ---------------------------------------------------------------- names slid together

// A directory of two sectors in which two slots are free, but not next to each other.
struct SCATTERED {
  START_VOLUME Start;
  std::string Crossing;  // a file whose entries a new name of two slots makes slide across the sector boundary
};
SCATTERED ScatteredDirectory(const CUT_VOLUME& volume, const std::string& crossing, unsigned int slots,
                             unsigned int before) {
  SCATTERED made;
  made.Crossing = "D\\" + crossing;
  CImageBuilder builder(SmallGeometry(volume));
  made.Start.Geometry = builder.Geometry();
  const std::vector<std::uint32_t> clusters = builder.Allocate(2);
  const auto dir = builder.AddDir(CImageBuilder::Root(), "D", clusters);
  RAW_ENTRY deleted = CImageBuilder::ShortEntry(CImageBuilder::ShortName11("GONE    TXT"), 0x20, 0, 0);
  deleted[0] = 0xE5;
  builder.Append(dir, deleted);
  unsigned int used = 3;
  const auto file = [&](const std::string& name, std::size_t size) {
    const BYTES content = CImageBuilder::Pattern(size, used);
    builder.AddFile(dir, name, content);
    made.Start.Files["D\\" + name] = content;
  };
  for (; used < before; ++used) file("F" + std::to_string(100 + used) + ".TXT", used);
  file(crossing, 700);
  used += slots;
  for (; used < 24; ++used) file("F" + std::to_string(100 + used) + ".TXT", used);
  builder.Append(dir, deleted);
  for (++used; used < 32; ++used) file("F" + std::to_string(100 + used) + ".TXT", used);
  made.Start.Image = builder.Image();
  return made;
}

TEST_F(CutException, NamesSlidTogether_CanMissAFileNobodyTouchedOrShowItTwice) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const SCATTERED made = ScatteredDirectory(volume, "KEEP.TXT", 1, 16);  // the first slot of the second sector
    std::set<std::string> everMissing;
    DAMAGES seen;
    ForEachCut(made.Start.Image, Record(made.Start.Image, [] { MakeFile("D\\Two slots", 0); }), 512,
               [&](const CDiskImage& left, const POWER_CUT& cut) {
                 const std::set<std::string> missing = Missing(ViewOf(left), made.Start.Files);
                 if (cut.Tear == TEAR::None) {
                   EXPECT_TRUE(missing.empty()) << cut;
                 }
                 everMissing.insert(missing.begin(), missing.end());
                 const DAMAGES damages = DamageOf(left);
                 EXPECT_EQ(MissingForReader(left, made.Start.Files), missing) << cut;
                 seen.insert(damages.begin(), damages.end());
               });
    EXPECT_EQ(everMissing, std::set<std::string>{made.Crossing});
    EXPECT_EQ(seen.count(DAMAGE::NameTwice), 1u);
    EXPECT_EQ(seen.count(DAMAGE::SharedCluster), 1u);
  }
}

TEST_F(CutException, LongNameSlidAcrossASector_CanLeaveItsShortNameOnly) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const SCATTERED made = ScatteredDirectory(volume, "Nobody touches this long name.txt", 4, 14);
    const BYTES& bytes = made.Start.Files.at(made.Crossing);
    bool shortOnly = false;
    ForEachCut(made.Start.Image, Record(made.Start.Image, [] { MakeFile("D\\Two slots", 0); }), 512,
               [&](const CDiskImage& left, const POWER_CUT& cut) {
                 const LIBRARY_VIEW view = ViewOf(left);
                 if (Missing(view, {{made.Crossing, bytes}}).empty()) return;
                 EXPECT_NE(cut.Tear, TEAR::None);
                 for (const auto& [path, content] : view.Files) shortOnly |= content == bytes && path != made.Crossing;
               });
    EXPECT_TRUE(shortOnly);
  }
}

// ---------------------------------------------------------------- directories that grow

// A full directory whose new cluster is counted in another sector of the FAT than its old one.
START_VOLUME FullDirectoryFarFromFreeClusters(const CUT_VOLUME& volume, bool root) {
  START_VOLUME start;
  CImageBuilder builder(SmallGeometry(volume));
  start.Geometry = builder.Geometry();
  const auto dir = root ? CImageBuilder::Root() : builder.AddDir(CImageBuilder::Root(), "D");
  for (unsigned int i = root ? 0 : 2; i < 16; ++i) {
    const std::string name = "F" + std::to_string(100 + i) + ".TXT";
    const BYTES content = CImageBuilder::Pattern(40 * i, i);
    builder.AddFile(dir, name, content);
    start.Files[(root ? "" : "D\\") + name] = content;
  }
  const std::uint32_t perSector = 512 * 8 / volume.FatBits;
  for (std::uint32_t cluster = 2; cluster < perSector + 5; ++cluster) {
    if (builder.FatEntry(cluster) == 0) builder.SetFatEntry(cluster, 0x0FFFFFF7);  // bad ones: nobody's
  }
  start.Image = builder.Image();
  return start;
}

TEST_F(CutException, DirectoryWhoseGrowthTearsTheFat_IsRefusedWithAllThatIsInIt) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME start = FullDirectoryFarFromFreeClusters(volume, false);
    unsigned int refused = 0;
    ForEachCut(start.Image, Record(start.Image, [] { MakeFile("D\\NEW.TXT", 0); }), 512,
               [&](const CDiskImage& left, const POWER_CUT& cut) {
                 const LIBRARY_VIEW view = ViewOf(left);
                 EXPECT_EQ(MissingForReader(left, start.Files), std::set<std::string>{}) << cut;
                 const std::set<std::string> missing = Missing(view, start.Files);
                 if (missing.empty()) return;
                 ++refused;
                 EXPECT_EQ(missing.size(), start.Files.size()) << cut;
                 EXPECT_EQ(view.Unreadable, std::set<std::string>{"D"}) << cut;
                 // The second FAT is whole. Over the first one it brings everything back.
                 CDiskImage mended = left;
                 const std::size_t bytes = ToSize(start.FatBytes());
                 mended.WriteBytes(start.FatOffset(), left.ReadBytes(start.FatOffset() + bytes, bytes));
                 EXPECT_EQ(Missing(ViewOf(mended), start.Files), std::set<std::string>{}) << cut;
               });
    EXPECT_NE(refused, 0u);
  }
}

TEST_F(CutException, Fat32RootWhoseGrowthTearsTheFat_IsRefusedAtMount) {
  const START_VOLUME start = FullDirectoryFarFromFreeClusters({32, 2}, true);
  unsigned int refused = 0;
  ForEachCut(start.Image, Record(start.Image, [] { MakeFile("NEW.TXT", 0); }), 512,
             [&](const CDiskImage& left, const POWER_CUT& cut) {
               const LIBRARY_VIEW view = ViewOf(left);
               EXPECT_EQ(MissingForReader(left, start.Files), std::set<std::string>{}) << cut;
               if (view.Mounted) {
                 EXPECT_EQ(Missing(view, start.Files), std::set<std::string>{}) << cut;
               } else {
                 ++refused;
               }
             });
  EXPECT_NE(refused, 0u);
}

TEST_F(CutException, Fat32RootThatGrew_CanLackWhatItsNewClusterHolds) {
  START_VOLUME start = FullDirectoryFarFromFreeClusters({32, 2}, true);
  bool made = false;
  bool lacked = false;
  for (const MEDIUM_WRITE& write : Record(start.Image, [] { MakeFile("NEW.TXT", 0); })) {
    Replay(start.Image, write);
    const bool there = ViewOf(start.Image).Files.count("NEW.TXT") != 0;
    // The root is written before the FAT that leads to its new cluster.
    lacked |= !there && write.Offset >= start.FatOffset() + 2 * start.FatBytes();
    made = there;
  }
  EXPECT_TRUE(lacked);
  EXPECT_TRUE(made);
}

TEST_F(CutException, DirectoryThatGrew_CanShowOldEntriesOfItsNewCluster) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume);
    bool shown = false;
    ForEachCut(start.Image, Record(start.Image, [] { MakeFile("FULL\\The seventeenth.txt", 0); }), 512,
               [&](const CDiskImage& left, const POWER_CUT& cut) {
                 const LIBRARY_VIEW view = ViewOf(left);
                 EXPECT_EQ(Missing(view, start.Files), std::set<std::string>{}) << cut;
                 shown |= view.Files.count("FULL\\GHOST.TXT") != 0;
               });
    EXPECT_TRUE(shown);
  }
}

TEST_F(CutException, NewDirectory_CanShowWhatItsClusterHeldBefore) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume);
    bool shown = false;
    ForEachCut(
        start.Image, Record(start.Image, [] { MakeDir("MADE"); }), 512,
        [&](const CDiskImage& left, const POWER_CUT&) { shown |= ViewOf(left).Files.count("MADE\\GHOST.TXT") != 0; });
    EXPECT_TRUE(shown);
  }
}

// ---------------------------------------------------------------- what touched files can show

TEST_F(CutException, GrownFile_CanShowWhatTheDiskHeldBefore) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume);
    const BYTES& before = start.Files.at("OLD.TXT");
    bool shown = false;
    ForEachCut(start.Image,
               Record(start.Image,
                      [] {
                        Resize("OLD.TXT", 3 * 512 + 100);
                        Overwrite("OLD.TXT", 91);
                      }),
               512, [&](const CDiskImage& left, const POWER_CUT&) {
                 const LIBRARY_VIEW view = ViewOf(left);
                 const auto file = view.Files.find("OLD.TXT");
                 if (file == view.Files.end() || file->second.size() == before.size()) return;
                 shown |= file->second[3 * 512] == '.';  // the "." of an old directory
               });
    EXPECT_TRUE(shown);
  }
}

TEST_F(CutException, OverwrittenFile_IsAMixOfOldAndNewSectors) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume);
    const BYTES& before = start.Files.at("DIR\\OLD1.TXT");
    const BYTES after = CImageBuilder::Pattern(before.size(), 92);
    bool mixed = false;
    ForEachCut(start.Image, Record(start.Image, [] { Overwrite("DIR\\OLD1.TXT", 92); }), 512,
               [&](const CDiskImage& left, const POWER_CUT& cut) {
                 const LIBRARY_VIEW view = ViewOf(left);
                 ASSERT_EQ(view.Files.count("DIR\\OLD1.TXT"), 1u) << cut;
                 const BYTES& bytes = view.Files.at("DIR\\OLD1.TXT");
                 ASSERT_EQ(bytes.size(), before.size());
                 bool anyOld = false;
                 bool anyNew = false;
                 for (std::size_t at = 0; at < bytes.size(); at += 512) {
                   const std::size_t n = std::min<std::size_t>(512, bytes.size() - at);
                   const auto same = [&](const BYTES& other) {
                     return std::equal(bytes.data() + at, bytes.data() + at + n, other.data() + at);
                   };
                   EXPECT_TRUE(same(before) || same(after)) << cut;
                   anyOld |= same(before);
                   anyNew |= same(after);
                 }
                 mixed |= anyOld && anyNew;
               });
    EXPECT_TRUE(mixed);
  }
}

TEST_F(CutException, DeletedFile_CanComeBackWithTheBytesOfTheFileThatTookItsClusters) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume, true);
    const BYTES taker = CImageBuilder::Pattern(2000, 77);
    bool back = false;
    const auto change = [] {
      Delete("DIR\\OLD1.TXT");
      MakeFile("TARGET\\TAKER.TXT", 2000);
      EXPECT_TRUE(Exists("DIR"));  // the directory of the deleted file is used last, so it is written last
      ForgetObjects();
    };
    ForEachCut(start.Image, Record(start.Image, change), 512, [&](const CDiskImage& left, const POWER_CUT&) {
      const LIBRARY_VIEW view = ViewOf(left);
      const auto file = view.Files.find("DIR\\OLD1.TXT");
      back |= file != view.Files.end() && file->second == taker;
    });
    EXPECT_TRUE(back);
  }
}

TEST_F(CutException, EntryAheadOfTheFat_CannotBeOpenedAndItsClustersGoToTheNextFile) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume);
    bool met = false;
    ForEachCut(start.Image, Record(start.Image, [] { MakeFile("NEW.TXT", 512); }), 512,
               [&](const CDiskImage& left, const POWER_CUT& cut) {
                 const LIBRARY_VIEW view = ViewOf(left);
                 if (view.Unreadable.count("NEW.TXT") == 0) return;
                 met = true;
                 // Going on without a repair: the next file gets the cluster that the entry names.
                 CDiskImage used = left;
                 for (const MEDIUM_WRITE& write : Record(left, [] { MakeFile("TARGET\\NEXT.TXT", 512); })) {
                   Replay(used, write);
                 }
                 const CVolumeReader reader(used);
                 ASSERT_NE(reader.Find("NEW.TXT"), nullptr) << cut;
                 ASSERT_NE(reader.Find("TARGET\\NEXT.TXT"), nullptr) << cut;
                 EXPECT_EQ(reader.Find("NEW.TXT")->FirstCluster, reader.Find("TARGET\\NEXT.TXT")->FirstCluster) << cut;
               });
    EXPECT_TRUE(met);
  }
}

// ---------------------------------------------------------------- the FATs

TEST_F(CutException, AtEveryCut_OneOfTheTwoFatsIsWhole) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME start = FullDirectoryFarFromFreeClusters(volume, false);
    const std::vector<MEDIUM_WRITE> writes = Record(start.Image, [] { MakeFile("D\\NEW.TXT", 3000); });
    CDiskImage end = start.Image;
    for (const MEDIUM_WRITE& write : writes) Replay(end, write);
    const std::size_t bytes = ToSize(start.FatBytes());
    const BYTES before = start.Image.ReadBytes(start.FatOffset(), bytes);
    const BYTES after = end.ReadBytes(start.FatOffset(), bytes);
    unsigned int torn = 0;
    ForEachCut(start.Image, writes, 512, [&](const CDiskImage& left, const POWER_CUT& cut) {
      const BYTES first = left.ReadBytes(start.FatOffset(), bytes);
      const BYTES second = left.ReadBytes(start.FatOffset() + bytes, bytes);
      const bool firstTorn = first != before && first != after;
      const bool secondTorn = second != before && second != after;
      // Until the first one is whole the second one is as the last unmount left it.
      EXPECT_TRUE(firstTorn ? second == before : secondTorn ? first == after : true) << cut;
      torn += firstTorn || secondTorn ? 1u : 0u;
    });
    EXPECT_GE(torn, 2u);
  }
}

TEST_F(CutException, NothingMarksAVolumeAsCut) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume);
    const auto change = [] {
      MakeFile("DIR\\NEW.TXT", 3000);
      Delete("OLD.TXT");
    };
    ForEachCut(start.Image, Record(start.Image, change), 512, [&](const CDiskImage& left, const POWER_CUT& cut) {
      EXPECT_EQ(left.ReadBytes(0, 512), start.Image.ReadBytes(0, 512)) << cut;
      EXPECT_EQ(left.ReadBytes(start.FatOffset(), 3), start.Image.ReadBytes(start.FatOffset(), 3)) << cut;
      if (volume.FatBits == 32) {  // the marks are two bits of entry 1
        EXPECT_EQ(left.Get32(start.FatOffset() + 4), start.Image.Get32(start.FatOffset() + 4)) << cut;
      }
    });
  }
}

TEST_F(CutException, FsInfo_LosesItsTwoCountsFirstAndNothingElse) {
  FAT_GEOMETRY geometry = SmallGeometry({32, 2});
  geometry.FsInfoFree = 590;
  geometry.FsInfoNext = 7;
  CImageBuilder builder(geometry);
  const std::vector<MEDIUM_WRITE> writes = Record(builder.Image(), [] { MakeFile("NEW.TXT", 10); });
  ASSERT_FALSE(writes.empty());
  BYTES expected = builder.Image().ReadBytes(builder.FsInfoOffset(), 512);
  std::fill(expected.begin() + 488, expected.begin() + 496, static_cast<unsigned char>(0xFF));
  EXPECT_EQ(writes[0].Offset, builder.FsInfoOffset());
  EXPECT_EQ(writes[0].Bytes, expected);
}

// ---------------------------------------------------------------- devices that reorder

TEST_F(CutException, DeviceThatReordersWrites_StillKeepsUntouchedFiles) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume);
    std::map<std::string, BYTES> kept = start.Files;
    kept.erase("OLD.TXT");
    kept.erase("DIR\\OLD1.TXT");
    const std::vector<MEDIUM_WRITE> writes = Record(start.Image, [] {
      MakeFile("TARGET\\NEW.TXT", 500);
      Delete("OLD.TXT");
      Delete("DIR\\OLD1.TXT");
    });
    ASSERT_LE(writes.size(), 8u);
    for (unsigned int subset = 0; subset < 1u << writes.size(); ++subset) {
      CDiskImage left = start.Image;
      for (std::size_t i = 0; i < writes.size(); ++i) {
        if ((subset >> i & 1) != 0) Replay(left, writes[i]);
      }
      EXPECT_EQ(Missing(ViewOf(left), kept), std::set<std::string>{}) << "writes " << std::hex << subset;
      EXPECT_EQ(MissingForReader(left, kept), std::set<std::string>{}) << "writes " << std::hex << subset;
    }
  }
}

TEST_F(CutException, DeviceThatReordersWrites_CanLoseWhatWouldBeInBothPlaces) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume);
    const std::vector<MEDIUM_WRITE> writes = Record(start.Image, [] { Move("DIR\\SUBDIR", "TARGET"); });
    bool neither = false;
    for (std::size_t lost = 0; lost < writes.size(); ++lost) {
      CDiskImage left = start.Image;
      for (std::size_t i = 0; i < writes.size(); ++i) {
        if (i != lost) Replay(left, writes[i]);
      }
      const LIBRARY_VIEW view = ViewOf(left);
      neither |= view.Files.count("DIR\\SUBDIR\\KEEP2.TXT") == 0 && view.Files.count("TARGET\\SUBDIR\\KEEP2.TXT") == 0;
    }
    EXPECT_TRUE(neither);
  }
}

TEST_F(CutException, DeviceThatReordersWrites_CanTearBothFats) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME start = FullDirectoryFarFromFreeClusters(volume, false);
    CDiskImage left = start.Image;
    for (const MEDIUM_WRITE& write : Record(start.Image, [] { MakeFile("D\\NEW.TXT", 0); })) {
      const bool fat = write.Offset >= start.FatOffset() && write.Offset < start.FatOffset() + 2 * start.FatBytes();
      if (fat) Replay(left, write, 0, 512);  // of both the first sector only
    }
    EXPECT_EQ(ViewOf(left).Unreadable, std::set<std::string>{"D"});
    const std::size_t bytes = ToSize(start.FatBytes());
    EXPECT_EQ(left.ReadBytes(start.FatOffset(), bytes), left.ReadBytes(start.FatOffset() + bytes, bytes));
  }
}

}  // namespace
