/// @file OptionsTest.cpp
/// The command line, what is refused, and volumes that are not as they should be.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <regex>

#include "Mounted.h"

namespace fatmount_test {

namespace {

/// The options that the help text names: "-f", "--json-stats", "-o ro".
std::vector<std::string> OptionsInHelp(const std::string& help) {
  std::vector<std::string> options;
  for (std::size_t at = help.find("\n    -"); at < help.find("and of libfuse"); at = help.find("\n    -", at + 1)) {
    const bool mounting = help.compare(at + 5, 3, "-o ") == 0;
    const std::size_t end = help.find_first_of("=[, \n", at + (mounting ? 8 : 7));
    options.push_back(help.substr(at + 5, end - at - 5));
  }
  return options;
}

}  // namespace

class OptionsOf : public Images {
 protected:
  void MakeFat16() { MakeVolume(m_Image, 16000, {"-F", "16"}); }
  PROCESS_RESULT Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), FATMOUNT_PROGRAM);
    return RunProcess(arguments);
  }
  void ExpectRefusal(const std::vector<std::string>& arguments, int exit, const std::string& words) {
    const PROCESS_RESULT result = Run(arguments);
    EXPECT_EQ(exit, result.ExitCode);
    EXPECT_NE(std::string::npos, result.Output.find(words)) << result.Output;
  }
  bool IsWritable() {
    const int file = open((m_Folder + "/new").c_str(), O_WRONLY | O_CREAT, 0666);
    if (file >= 0) close(file);
    return file >= 0;
  }
};

TEST_F(OptionsOf, Help_SaysHowItIsUsed) {
  const PROCESS_RESULT result = Run({"-h"});
  EXPECT_EQ(0, result.ExitCode);
  EXPECT_NE(std::string::npos, result.Output.find("usage: fatmount"));
}

TEST_F(OptionsOf, Help_NamesWhatTheManualPageDescribes) {
  const std::vector<std::string> options = OptionsInHelp(Run({"-h"}).Output);
  const std::string page = ReadFile(FATMOUNT_SOURCE_DIR "/docs/man/fatmount.1");
  EXPECT_EQ(10u, options.size());
  for (const std::string& option : options) {
    const bool mounting = option.rfind("-o ", 0) == 0;
    const std::string described = mounting ? "Fl o Cm " + option.substr(3) : "Fl " + option.substr(1);
    EXPECT_NE(std::string::npos, page.find(described)) << described;
  }
}

TEST_F(OptionsOf, Help_NamesWhatTheShellsComplete) {
  const std::string folder = FATMOUNT_SOURCE_DIR "/tools/fatmount/completions/";
  const std::string bash = ReadFile(folder + "fatmount.bash");
  const std::string fish = ReadFile(folder + "fatmount.fish");
  const std::string zsh = ReadFile(folder + "_fatmount");
  for (const std::string& option : OptionsInHelp(Run({"-h"}).Output)) {
    const bool mounting = option.rfind("-o ", 0) == 0;
    const std::string name = option.substr(option.find_first_not_of("-", mounting ? 3 : 0));
    const std::string inFish = mounting ? " " + name + "[= )]" : (option[1] == '-' ? "-l " : "-s ") + name + " ";
    const std::string inZsh = mounting ? "'" + name + "\\[" : "['{]" + option + "[[,=]";
    EXPECT_TRUE(std::regex_search(bash, std::regex("[ ']" + (mounting ? name : option) + "[= ']"))) << option;
    EXPECT_TRUE(std::regex_search(fish, std::regex(inFish))) << option;
    EXPECT_TRUE(std::regex_search(zsh, std::regex(inZsh))) << option;
  }
}

TEST_F(OptionsOf, Version_IsSaid) {
  const PROCESS_RESULT result = Run({"-V"});
  EXPECT_EQ(0, result.ExitCode);
  EXPECT_EQ(0u, result.Output.find("fatmount 0.")) << result.Output;
}

TEST_F(OptionsOf, CommandLineThatMakesNoSense_IsRefused) {
  ExpectRefusal({}, 2, "an image and a folder are needed");
  ExpectRefusal({m_Image}, 2, "an image and a folder are needed");
  ExpectRefusal({m_Image, m_Folder, "more"}, 2, "more");
  ExpectRefusal({m_Image + ":/PATH", m_Folder}, 2, "whole volume");
  ExpectRefusal({"-o", "uid=nobody", m_Image, m_Folder}, 2, "uid");
  ExpectRefusal({"-o", "umask=9", m_Image, m_Folder}, 2, "umask");
  ExpectRefusal({"-o", "offset=1M", m_Image + "@1", m_Folder}, 2, "offset");
  MakeFat16();
  ExpectRefusal({"-o", "nonsense", m_Image, m_Folder}, 2, "nonsense");
}

TEST_F(OptionsOf, ImageThatIsNotThere_IsSaid) { ExpectRefusal({m_Image, m_Folder}, 3, "No such file"); }

TEST_F(OptionsOf, FolderThatIsNotThere_IsSaid) {
  MakeFat16();
  ExpectRefusal({m_Image, m_Folder + "/none"}, 3, "none: No such file");
}

TEST_F(OptionsOf, FileInPlaceOfTheFolder_IsSaid) {
  MakeFat16();
  ExpectRefusal({m_Image, m_Image}, 4, "no folder");
}

TEST_F(OptionsOf, ImageWithoutAVolume_IsSaid) {
  WriteHostFile(m_Image, std::vector<unsigned char>(100000));
  ExpectRefusal({m_Image, m_Folder}, 6, "no FAT volume");
}

TEST_F(OptionsOf, ImageInUse_IsRefused) {
  MakeFat16();
  const Descriptor other(m_Image, O_RDWR);
  ASSERT_EQ(0, flock(other.Get(), LOCK_EX));
  ExpectRefusal({m_Image, m_Folder}, 4, "another program");
}

TEST_F(OptionsOf, MountedImage_IsLocked) {
  MakeFat16();
  Mount mount(m_Image, m_Folder);
  ASSERT_TRUE(mount.Stands());
  const Descriptor other(m_Image, O_RDWR);
  EXPECT_EQ(EWOULDBLOCK, ErrnoOf(flock(other.Get(), LOCK_SH | LOCK_NB)));
  EXPECT_EQ(0, mount.Unmount());
  EXPECT_EQ(0, flock(other.Get(), LOCK_SH | LOCK_NB));
}

TEST_F(OptionsOf, Background_BeginsOnceTheVolumeIsMounted) {
  MakeFat16();
  const PROCESS_RESULT result = Run({m_Image, m_Folder});
  EXPECT_EQ(0, result.ExitCode);
  EXPECT_EQ("", result.Output);
  WriteFile(m_Folder + "/file.txt", "bytes");
  EXPECT_TRUE(RunProcess({"fusermount3", "-u", m_Folder}).Ok());
  const Descriptor image(m_Image, O_RDWR);
  EXPECT_EQ(0, flock(image.Get(), LOCK_EX));  // comes when everything is written
  EXPECT_EQ("bytes", OnImage(m_Image, "/file.txt"));
  EXPECT_EQ("", FsckFindings(m_Image));
}

TEST_F(OptionsOf, ReadOnly_RefusesEveryChange) {
  MakeFat16();
  (void)RunOrThrow({"sh", "-c", "echo bytes | mcopy -i \"$0\" - ::/FILE", m_Image});
  Mount mount(m_Image, m_Folder, {"-o", "ro"});
  ASSERT_TRUE(mount.Stands()) << mount.Printed();
  const std::string file = m_Folder + "/FILE";
  EXPECT_EQ(EROFS, ErrnoOf(open((m_Folder + "/new").c_str(), O_WRONLY | O_CREAT, 0666)));
  EXPECT_EQ(EROFS, ErrnoOf(open(file.c_str(), O_WRONLY)));
  EXPECT_EQ(EROFS, ErrnoOf(mkdir((m_Folder + "/new").c_str(), 0777)));
  EXPECT_EQ(EROFS, ErrnoOf(unlink(file.c_str())));
  EXPECT_EQ(EROFS, ErrnoOf(rename(file.c_str(), (m_Folder + "/new").c_str())));
  EXPECT_EQ(EROFS, ErrnoOf(truncate(file.c_str(), 1)));
  EXPECT_EQ(EROFS, ErrnoOf(chmod(file.c_str(), 0444)));
  EXPECT_EQ(0, mount.Unmount());
}

TEST_F(OptionsOf, TwoReadOnlyMounts_ArePossible) {
  MakeFat16();
  const std::string second = m_Directory / "second";
  mkdir(second.c_str(), 0755);
  const Mount one(m_Image, m_Folder, {"-o", "ro"});
  const Mount two(m_Image, second, {"-o", "ro"});
  EXPECT_TRUE(one.Stands() && two.Stands());
}

TEST_F(OptionsOf, Umask_TakesPermissionsAway) {
  MakeFat16();
  const Mount mount(m_Image, m_Folder, {"-o", "umask=0027"});
  WriteFile(m_Folder + "/file", "");
  EXPECT_EQ(0750u, StatOf(m_Folder + "/file").st_mode & 0777u);
}

TEST_F(OptionsOf, VolumeAtAnOffset_IsMounted) {
  MakeFat16();
  (void)RunOrThrow({"sh", "-c", "truncate -s 1M \"$0.disk\" && cat \"$0\" >>\"$0.disk\"", m_Image});
  for (const std::vector<std::string>& way : {std::vector<std::string>{"-o", "offset=1048576"}, {"-o", "offset=1M"}}) {
    Mount mount(m_Image + ".disk", m_Folder, way);
    ASSERT_TRUE(mount.Stands()) << mount.Printed();
    WriteFile(m_Folder + "/file.txt", way[1]);
    EXPECT_EQ(0, mount.Unmount());
    EXPECT_EQ(way[1], OnImage(m_Image + ".disk@@1M", "/file.txt"));
  }
}

TEST_F(OptionsOf, PartitionByItsNumber_IsMounted) {
  MakeFat16();
  // A master boot record with one partition of type 0E at sector 2048.
  std::vector<unsigned char> record(1048576);
  const unsigned char entry[16] = {0, 0, 0, 0, 0x0E, 0, 0, 0, 0, 8, 0, 0, 0, 0x7D, 0, 0};
  std::copy(std::begin(entry), std::end(entry), record.begin() + 446);
  record[510] = 0x55;
  record[511] = 0xAA;
  WriteHostFile(m_Image + ".disk", record);
  (void)RunOrThrow({"sh", "-c", "cat \"$0\" >>\"$0.disk\"", m_Image});
  Mount mount(m_Image + ".disk@1", m_Folder);
  ASSERT_TRUE(mount.Stands()) << mount.Printed();
  WriteFile(m_Folder + "/file.txt", "bytes");
  EXPECT_EQ(0, mount.Unmount());
  EXPECT_EQ("bytes", OnImage(m_Image + ".disk@@1M", "/file.txt"));
  ExpectRefusal({m_Image + ".disk", m_Folder}, 6, "name a partition");
  ExpectRefusal({m_Image + ".disk@2", m_Folder}, 3, "no such partition");
}

TEST_F(OptionsOf, JsonStats_CountTheWork) {
  MakeFat16();
  const std::string file = m_Directory / "stats.json";
  Mount mount(m_Image, m_Folder, {"--json-stats=" + file});
  ASSERT_TRUE(mount.Stands()) << mount.Printed();
  WriteFile(m_Folder + "/file", "some bytes");
  EXPECT_EQ(ENOENT, ErrnoOf(access((m_Folder + "/none").c_str(), F_OK)));
  EXPECT_EQ(0, mount.Unmount());
  const nlohmann::json stats = nlohmann::json::parse(ReadFile(file));
  EXPECT_EQ(1, stats["requests"]["create"]);
  EXPECT_EQ(1, stats["requests"]["write"]);
  EXPECT_EQ(10, stats["bytesWritten"]);
  EXPECT_GE(stats["commits"], 1);
  EXPECT_GE(stats["refused"], 1);
}

TEST_F(OptionsOf, JsonStatsWithoutAFile_AreOnStandardOutput) {
  MakeFat16();
  Mount mount(m_Image, m_Folder, {"--json-stats"});
  EXPECT_EQ(0, mount.Unmount());
  EXPECT_TRUE(nlohmann::json::parse(mount.Printed())["requests"].is_object()) << mount.Printed();
}

// ---------------------------------------------------------------------------------------------- unsound volumes

TEST_F(OptionsOf, DamagedVolume_IsMountedForReadingOnlyWithAMessage) {
  MakeFat16();
  (void)RunOrThrow({"sh", "-c",
                    "head -c 20000 /dev/zero >\"$0.file\" && mcopy -i \"$0\" \"$0.file\" ::/ONE && "
                    "mcopy -i \"$0\" \"$0.file\" ::/TWO",
                    m_Image});
  {
    CFileImage store(m_Image);  // both files get the first cluster of the first
    const std::uint64_t root = (store.Get16(14) + 2ull * store.Get16(22)) * 512;
    store.Set16(root + 32 + 26, store.Get16(root + 26));
  }
  Mount mount(m_Image, m_Folder);
  ASSERT_TRUE(mount.Stands()) << mount.Printed();
  EXPECT_NE(std::string::npos, mount.Printed().find("damaged: it is mounted for reading only")) << mount.Printed();
  EXPECT_EQ(EROFS, ErrnoOf(mkdir((m_Folder + "/new").c_str(), 0777)));
  EXPECT_EQ(std::string(20000, '\0'), ReadFile(m_Folder + "/ONE"));
  EXPECT_EQ(0, mount.Unmount());
}

TEST_F(OptionsOf, VolumeWithLostClusters_IsMountedWithAMessage) {
  MakeFat16();
  {
    CFileImage store(m_Image);
    for (unsigned int fat = 0; fat < 2; ++fat) {
      store.Set16((store.Get16(14) + fat * store.Get16(22)) * 512ull + 2 * 100, 0xFFFF);
    }
  }
  Mount mount(m_Image, m_Folder);
  EXPECT_NE(std::string::npos, mount.Printed().find("100")) << mount.Printed();
  EXPECT_TRUE(IsWritable());
  EXPECT_EQ(0, mount.Unmount());
}

TEST_F(OptionsOf, VolumeWithFatsThatDiffer_IsMountedAndHasEqualOnesAfterAChange) {
  MakeFat16();
  CFileImage store(m_Image);
  store.Set16((store.Get16(14) + store.Get16(22)) * 512ull + 2 * 100, 0xFFFF);
  Mount mount(m_Image, m_Folder);
  EXPECT_TRUE(IsWritable()) << mount.Printed();
  EXPECT_EQ(0, mount.Unmount());
  EXPECT_TRUE(CVolumeReader(store).FatCopiesEqual());
}

TEST_F(OptionsOf, VolumeWithOneFat_IsMountedForReadingOnlyWithAMessage) {
  MakeVolume(m_Image, 16000, {"-F", "16", "-f", "1"});
  Mount mount(m_Image, m_Folder);
  ASSERT_TRUE(mount.Stands()) << mount.Printed();
  EXPECT_NE(std::string::npos, mount.Printed().find("for reading only")) << mount.Printed();
  EXPECT_FALSE(IsWritable());
  EXPECT_EQ(0, mount.Unmount());
}

TEST_F(OptionsOf, ThirtyThousandNames_AreMadeListedAndRemoved) {
  MakeVolume(m_Image, 100000, {"-F", "32", "-s", "1"});
  Mount mount(m_Image, m_Folder);
  const std::string folder = m_Folder + "/many";
  ASSERT_EQ(0, mkdir(folder.c_str(), 0777));
  for (int i = 0; i < 30000; ++i) {
    const int file = open((folder + "/F" + std::to_string(i) + ".TXT").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
    ASSERT_GE(file, 0) << i;
    close(file);
  }
  const std::vector<std::string> names = ListOf(folder);
  EXPECT_EQ(30002u, names.size());
  EXPECT_EQ(1, std::count(names.begin(), names.end(), "F29999.TXT"));
  for (int i = 0; i < 30000; ++i) {
    ASSERT_EQ(0, unlink((folder + "/f" + std::to_string(i) + ".txt").c_str())) << i;
  }
  ASSERT_EQ(0, rmdir(folder.c_str()));
  EXPECT_EQ(0, mount.Unmount());
  EXPECT_EQ("", FsckFindings(m_Image));
}

}  // namespace fatmount_test
