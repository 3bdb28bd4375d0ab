/// @file CheckAgreementTest.cpp
/// Check against fsck.fat: on healthy volumes of other tools, of Format and of the library, and on the damaged ones
/// from which the fuzzers start (fuzz/corpus).

#include <fatlib/FatLibIntf.h>
#include <fatlib/XStorage.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <ostream>

#include "CheckedVolume.h"
#include "support/CorpusImage.h"
#include "support/Process.h"

namespace {

namespace fs = std::filesystem;
using fatlib::CheckReport;
using BYTES = std::vector<unsigned char>;

struct FSCK {
  bool Complains;
  std::string Counts;  // its last line from the path on: "5 files, 8/1000 clusters"
};

FSCK RunFsck(const std::string& path) {
  const PROCESS_RESULT result = RunProcess({"fsck.fat", "-n", path});
  const std::size_t at = result.Output.rfind(path + ": ");
  return {result.ExitCode != 0, at == std::string::npos ? "" : result.Output.substr(at + path.size() + 2)};
}

// fsck.fat counts the root and labels as files, too; ".." and "." of each directory not.
std::string CountsOf(const CheckReport& report, std::uint64_t labels) {
  const std::uint64_t used = report.usedClusters + report.lostClusters + report.badClusters;
  return std::to_string(report.files + report.directories + labels) + " files, " + std::to_string(used) + "/" +
         std::to_string(used + report.freeClusters) + " clusters\n";
}

CheckReport CheckFile(const std::string& path) { return CheckImage(CDiskImage::FromFile(path)); }

void ExpectHealthy(const std::string& path, std::uint64_t labels) {
  const CheckReport report = CheckFile(path);
  EXPECT_EQ(TOLD(), ToldOf(report));
  const FSCK fsck = RunFsck(path);
  EXPECT_FALSE(fsck.Complains);
  EXPECT_EQ(fsck.Counts, CountsOf(report, labels));
}

// ---------------------------------------------------------------------------------------------- healthy volumes

struct MADE {
  const char* Name;
  std::uint64_t Bytes;
  std::vector<std::string> Command;  // and the path
};
std::ostream& operator<<(std::ostream& out, const MADE& made) { return out << made.Name; }
std::string TestName(const ::testing::TestParamInfo<MADE>& info) { return info.param.Name; }

class HealthyVolume : public ::testing::TestWithParam<MADE> {
 protected:
  void SetUp() override {
    CDiskImage(GetParam().Bytes).ToFile(Path());
    std::vector<std::string> command = GetParam().Command;
    command.push_back(Path());
    if (command[0] == "mformat") command.push_back("::");
    RunOrThrow(command);
  }
  std::string Path() const { return m_Directory / "image"; }
  void Fill() const {
    for (int i = 0; i < 30; ++i) {
      const std::string number = std::to_string(i);
      WriteHostFile(m_Directory / ("Top/A directory " + std::to_string(i % 7) + "/File number " + number + ".data"),
                    CImageBuilder::Pattern(static_cast<std::size_t>(i) * 777, 1));
      WriteHostFile(m_Directory / ("Top/F" + number), CImageBuilder::Pattern(static_cast<std::size_t>(i), 1));
    }
    RunOrThrow({"mcopy", "-s", "-Q", "-i", Path(), m_Directory / "Top", "::/"});
    for (const char* name : {"3", "11", "27"}) RunOrThrow({"mdel", "-i", Path(), std::string("::/Top/F") + name});
  }

 private:
  CTempDir m_Directory;
};

TEST_P(HealthyVolume, EmptyHasNoDefect) { ExpectHealthy(Path(), 0); }

TEST_P(HealthyVolume, FilledByMtoolsHasNoDefect) {
  Fill();
  ExpectHealthy(Path(), 0);
  EXPECT_EQ(57u, CheckFile(Path()).files);
  EXPECT_EQ(8u, CheckFile(Path()).directories);
}

TEST_P(HealthyVolume, LabelledByMtoolsHasNoDefect) {
  RunOrThrow({"mlabel", "-i", Path(), "::A LABEL"});
  ExpectHealthy(Path(), 1);
}

const MADE VOLUMES[] = {
    {"Floppy", 1440 * 1024, {"mkfs.fat"}},
    {"Fat12", 4 << 20, {"mkfs.fat", "-F", "12"}},
    {"Fat12Clusters8K", 16 << 20, {"mkfs.fat", "-F", "12", "-s", "16"}},
    {"Fat16", 32 << 20, {"mkfs.fat", "-F", "16"}},
    {"Fat16Sectors2048", 64 << 20, {"mkfs.fat", "-F", "16", "-S", "2048"}},
    {"Fat32", 40 << 20, {"mkfs.fat", "-F", "32", "-s", "1"}},
    {"Fat32Sectors4096", 600 << 20, {"mkfs.fat", "-F", "32", "-S", "4096", "-s", "2"}},
    {"OneFat", 8 << 20, {"mkfs.fat", "-F", "16", "-s", "1", "-f", "1"}},
    {"Mformat12", 1440 * 1024, {"mformat", "-f", "1440", "-i"}},
    {"Mformat16", 32 << 20, {"mformat", "-T", "65536", "-h", "16", "-s", "32", "-i"}},
    {"Mformat32", 100 << 20, {"mformat", "-F", "-T", "204800", "-h", "16", "-s", "32", "-i"}},
};
INSTANTIATE_TEST_SUITE_P(Tools, HealthyVolume, ::testing::ValuesIn(VOLUMES), TestName);

// ---------------------------------------------------------------------------------------------- through the library

std::vector<unsigned short> LibraryPath(const std::string& path) {
  UTF16 units = ToUtf16(path);
  units.push_back(0);
  return units;
}

// Many files and directories, some of which go again, or get another name or size.
void WorkThroughLibrary(std::string image) {
  Fat_LibInitialize();
  CFatPartition* storage = new CFatPartition;
  CFatFileSystem* volume = Fat_Mount(storage, image.data());
  ASSERT_NE(nullptr, volume);
  for (int i = 0; i < 40; ++i) {
    const std::string directory = "Directory " + std::to_string(i % 5);
    if (i < 5) {
      EXPECT_NE(0u, Fat_CreateDir(LibraryPath(directory).data(), 0));
    }
    const std::string path = directory + "\\File number " + std::to_string(i) + ".txt";
    const int file = Fat_CreateFile(LibraryPath(path).data(), static_cast<unsigned int>(i) * 1000, 0x20);
    EXPECT_NE(-1, file);
    if (i % 3 == 0) {
      EXPECT_NE(0u, Fat_SetFileSize(file, 100));
    }
    Fat_CloseFile(file);
    if (i % 4 == 0) {
      EXPECT_NE(0u, Fat_DeleteFile(LibraryPath(path).data()));
    }
  }
  EXPECT_NE(0u, Fat_Unmount(volume));
  ::operator delete(storage);
  Fat_LibTerminate();
}

TEST(HealthyVolumes, FormattedHereAndFilledByTheLibraryHaveNoDefect) {
  for (const int bits : {12, 16, 32}) {
    const CTempDir directory;
    fatlib::FormatOptions options;
    options.bits = bits;
    options.bytesPerCluster = 512;
    options.label = u"LABEL";
    CImageDevice device(bits == 12 ? 2u << 20 : bits == 16 ? 8u << 20 : 40u << 20);
    ASSERT_FALSE(Format(&device, options));
    device.Image().ToFile(directory / "image");
    WorkThroughLibrary(directory / "image");
    ExpectHealthy(directory / "image", 1);
  }
}

// ---------------------------------------------------------------------------------------------- damaged volumes

// Both ways: no image of this folder is wrong for one of them and right for the other.
TEST(CheckAgreement, DamagedImagesHaveDefectsWhereFsckComplains) {
  const CTempDir directory;
  unsigned int images = 0;
  for (const fs::directory_entry& file : fs::directory_iterator(std::string(FATLIB_CORPUS) + "/image")) {
    SCOPED_TRACE(file.path().filename());
    const CDiskImage image = LoadCorpusImage(file.path());
    const std::string path = directory / file.path().filename().string();
    image.ToFile(path);
    const CheckReport report = CheckImage(image);
    EXPECT_EQ(RunFsck(path).Complains, !report.defects.empty());
    fs::remove(path);
    ++images;
  }
  EXPECT_GE(images, 82u);
}

}  // namespace
