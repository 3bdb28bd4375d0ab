/// @file CutFsckTest.cpp
/// What fsck.fat, which only looks here, says about volumes after a cut: nothing but the kinds of damage that a host is
/// told to expect.

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "durability/PowerCut.h"

namespace {

// Words in a line of fsck.fat, and the damage they stand for; with no damage they only go with other lines.
struct COMPLAINT {
  const char* Words;
  const char* Damage;
};
const COMPLAINT s_Complaints[] = {
    {"FATs differ", "FATs differ"},
    {"Reclaimed ", "lost clusters"},
    {" share clusters.", "shared clusters"},
    {"cluster chain length is", "wrong size"},
    {"Contains a free cluster", "free cluster"},
    {"entry in non-root", "old directory"},
    {"Start does ", "old directory"},
    {"Start (", "old directory"},
    {"entry in the ", "dot entries"},
    {"Using first FAT.", nullptr},
    {"Truncating ", nullptr},
    {"Auto-renaming it.", nullptr},
    {"Renamed to ", nullptr},
    {"Leaving filesystem unchanged.", nullptr},
    {"Free cluster summary uninitialized", nullptr},
    {"Warning: Filesystem is FAT32 according to", nullptr},  // with so few clusters
    {"but has only ", nullptr},
    {"This may lead to problems", nullptr},
};

class CutFsck : public CPowerCutFixture {
 protected:
  /// The damage that fsck.fat finds after the cuts of an operation. A line that is not known stands for itself.
  std::set<std::string> FindingsOf(const std::function<void()>& change) {
    std::set<std::string> findings;
    for (const CUT_VOLUME& volume : TwoFatVolumes()) {
      for (const bool forget : {false, true}) {
        const START_VOLUME& start = StartVolume(volume, forget);
        const auto whole = [&] {
          change();
          if (forget) ForgetObjects();
        };
        ForEachCut(start.Image, Record(start.Image, whole), 512, [&](const CDiskImage& left, const POWER_CUT&) {
          const std::set<std::string> found = Findings(left);
          findings.insert(found.begin(), found.end());
        });
      }
    }
    return findings;
  }

  /// What fsck.fat still finds after its repairs.
  std::set<std::string> m_Unrepaired;

  /// What is missing, of files that were not touched, after fsck.fat has repaired what each cut has left.
  std::set<std::string> MissingAfterRepair(const std::set<std::string>& touched, const std::function<void()>& change) {
    std::set<std::string> missing;
    const std::string path = TempDir() / "repaired";
    for (const CUT_VOLUME& volume : TwoFatVolumes()) {
      const START_VOLUME& start = StartVolume(volume);
      std::map<std::string, BYTES> kept = start.Files;
      for (const std::string& file : touched) kept.erase(file);
      ForEachCut(start.Image, Record(start.Image, change), 512, [&](const CDiskImage& left, const POWER_CUT&) {
        left.ToFile(path);
        EXPECT_LE(RunProcess({"fsck.fat", "-a", "-w", path}).ExitCode, 1);
        const CDiskImage repaired = CDiskImage::FromFile(path);
        for (const std::string& finding : Findings(repaired)) m_Unrepaired.insert(finding);
        const std::set<std::string> now = Missing(ViewOf(repaired), kept);
        missing.insert(now.begin(), now.end());
      });
    }
    return missing;
  }

  std::set<std::string> Findings(const CDiskImage& image) {
    const std::string path = TempDir() / "cut";
    image.ToFile(path);
    const PROCESS_RESULT result = RunProcess({"fsck.fat", "-n", path});
    std::set<std::string> findings;
    std::istringstream lines(result.Output);
    bool summary = false;
    for (std::string line; std::getline(lines, line);) {
      summary |= line.compare(0, path.size(), path) == 0;
      // The version, the summary, and names of files on lines of their own.
      if (line.empty() || line.compare(0, 9, "fsck.fat ") == 0 || line[0] == '/') continue;
      const auto known =
          std::find_if(std::begin(s_Complaints), std::end(s_Complaints),
                       [&line](const COMPLAINT& complaint) { return line.find(complaint.Words) != std::string::npos; });
      if (known == std::end(s_Complaints)) {
        findings.insert(line);
      } else if (known->Damage != nullptr) {
        findings.insert(known->Damage);
      }
    }
    EXPECT_TRUE(summary) << result.Output;
    return findings;
  }
};

using FINDINGS = std::set<std::string>;

TEST_F(CutFsck, AfterTheWholeUnmount_HasNothingToSay) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    const START_VOLUME& start = StartVolume(volume);
    CDiskImage image = start.Image;
    EXPECT_EQ(Findings(image), FINDINGS{}) << volume;
    for (const MEDIUM_WRITE& write : Record(start.Image, [] {
           MakeFile("DIR\\NEW.TXT", 3000);
           MakeDir("TARGET\\MADE");
           MakeFile("FULL\\One more than fits.txt", 10);
           Delete("OLD.TXT");
         })) {
      Replay(image, write);
    }
    EXPECT_EQ(Findings(image), FINDINGS{}) << volume;
  }
}

TEST_F(CutFsck, AfterChangesOfFiles_FindsWhatIsListed) {
  EXPECT_EQ(FindingsOf([] {
              MakeFile("NEW.TXT", 2500);
              Delete("DIR\\OLD1.TXT");
              Resize("OLD.TXT", 100);
              Move("TARGET\\OLD2.TXT", "");
            }),
            (FINDINGS{"FATs differ", "free cluster", "lost clusters", "shared clusters", "wrong size"}));
}

TEST_F(CutFsck, AfterChangesOfDirectories_FindsWhatIsListed) {
  EXPECT_EQ(
      FindingsOf([] {
        MakeDir("MADE");
        Delete("EMPTY");
      }),
      (FINDINGS{"FATs differ", "free cluster", "lost clusters", "old directory", "shared clusters", "wrong size"}));
}

TEST_F(CutFsck, AfterAMoveOfADirectory_FindsWhatIsListed) {
  EXPECT_EQ(FindingsOf([] { Move("DIR\\SUBDIR", "TARGET"); }), (FINDINGS{"dot entries", "shared clusters"}));
}

TEST_F(CutFsck, RepairAfterChangesOfFiles_KeepsFilesNobodyTouched) {
  EXPECT_EQ(MissingAfterRepair({"DIR\\OLD1.TXT", "OLD.TXT", "TARGET\\OLD2.TXT"},
                               [] {
                                 MakeFile("NEW.TXT", 2500);
                                 Delete("DIR\\OLD1.TXT");
                                 Resize("OLD.TXT", 100);
                                 Move("TARGET\\OLD2.TXT", "");
                               }),
            FINDINGS{});
  EXPECT_EQ(m_Unrepaired, FINDINGS{});
}

TEST_F(CutFsck, RepairOfANewDirectory_CanCutAFileNobodyTouched) {
  EXPECT_EQ(MissingAfterRepair({}, [] { MakeDir("DIR\\MADE"); }), FINDINGS{"TARGET\\KEEP4.TXT"});
}

}  // namespace
