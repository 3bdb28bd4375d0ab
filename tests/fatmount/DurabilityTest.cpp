/// @file DurabilityTest.cpp
/// When changes are on the image, and what a program that is killed leaves there.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <random>

#include "Mounted.h"

namespace fatmount_test {

class DurabilityOf : public Volume {
 protected:
  DurabilityOf() = default;
  explicit DurabilityOf(std::vector<std::string> options) : Volume(std::move(options)) {}
  /// The image as it is now, while it is mounted.
  std::string Copied() {
    (void)RunOrThrow({"cp", m_Image, m_Directory / "copy.img"});
    return m_Directory / "copy.img";
  }
  /// A volume without a defect, with that file.
  void ExpectOnImage(const std::string& path, const std::string& bytes) {
    const std::string copy = Copied();
    EXPECT_EQ("", FsckFindings(copy));
    EXPECT_EQ(bytes, OnImage(copy, path));
    const CFileImage store(copy);
    EXPECT_TRUE(CVolumeReader(store).FatCopiesEqual());
  }
  /// Waits until something is on the image, no longer than the time that is promised and some more.
  bool ComesToImage(const std::string& path) {
    for (int tenths = 0; tenths < 150; ++tenths) {
      if (RunProcess({"mtype", "-i", Copied(), "::" + path}).Ok()) return true;
      usleep(100000);
    }
    return false;
  }
};
FOR_ALL_TYPES(DurabilityOf);

TEST_P(DurabilityOf, FileAfterFsync_IsOnTheImage) {
  const Descriptor file(*this / "file.txt", O_RDWR | O_CREAT);
  ASSERT_TRUE(file.Write(0, "some bytes"));
  ASSERT_EQ(0, fsync(file.Get()));
  ExpectOnImage("/file.txt", "some bytes");
}

TEST_P(DurabilityOf, FileAfterFdatasync_IsOnTheImage) {
  const Descriptor file(*this / "file.txt", O_RDWR | O_CREAT);
  ASSERT_TRUE(file.Write(0, "some bytes"));
  ASSERT_EQ(0, fdatasync(file.Get()));
  ExpectOnImage("/file.txt", "some bytes");
}

TEST_P(DurabilityOf, FileWrittenSynchronously_IsOnTheImage) {
  const Descriptor file(*this / "file.txt", O_RDWR | O_CREAT | O_SYNC);
  ASSERT_TRUE(file.Write(0, "some bytes"));
  ExpectOnImage("/file.txt", "some bytes");
}

TEST_P(DurabilityOf, EverythingAfterFsyncOfADirectory_IsOnTheImage) {
  ASSERT_EQ(0, mkdir((*this / "folder").c_str(), 0777));
  WriteFile(*this / "folder/file.txt", "some bytes");
  const Descriptor folder(m_Folder, O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(0, fsync(folder.Get()));
  ExpectOnImage("/folder/file.txt", "some bytes");
}

TEST_P(DurabilityOf, EverythingAfterTheCommandSync_IsOnTheImage) {
  WriteFile(*this / "file.txt", "some bytes");
  ASSERT_EQ("", RunOrThrow({"sync", m_Folder}));
  ExpectOnImage("/file.txt", "some bytes");
}

TEST_P(DurabilityOf, FileThatStaysOpen_CanBeWrittenAfterFsync) {
  const Descriptor file(*this / "file.txt", O_RDWR | O_CREAT);
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(file.Write(i * 1000, std::to_string(i)));
    ASSERT_EQ(0, fsync(file.Get()));
  }
  EXPECT_EQ("4", file.Read(4000, 10));
}

TEST_P(DurabilityOf, FileNobodyAskedFor_IsOnTheImageWithinSeconds) {
  WriteFile(*this / "file.txt", "some bytes");
  ASSERT_TRUE(ComesToImage("/file.txt"));
  ExpectOnImage("/file.txt", "some bytes");
}

TEST_P(DurabilityOf, FileAmongChangesThatDoNotEnd_IsOnTheImageWithinSeconds) {
  WriteFile(*this / "file.txt", "some bytes");
  const Descriptor busy(*this / "busy", O_RDWR | O_CREAT);
  for (int tenths = 0; tenths < 70; ++tenths) {
    ASSERT_TRUE(busy.Write(0, std::to_string(tenths)));
    usleep(100000);
  }
  EXPECT_EQ("some bytes", OnImage(Copied(), "/file.txt"));
}

TEST_P(DurabilityOf, SignalThatEndsIt_WritesEverything) {
  WriteFile(*this / "file.txt", "some bytes");
  EXPECT_EQ(0, m_pMount->Kill(SIGTERM));
  m_pMount.reset();
  EXPECT_EQ("some bytes", OnImage(m_Image, "/file.txt"));
}

TEST_P(DurabilityOf, UnchangedVolume_IsLeftBitForBit) {
  const CDiskImage before = CDiskImage::FromFile(m_Image);
  EXPECT_EQ(2u, ListOf(m_Folder).size());
  (void)Unmounted();
  EXPECT_TRUE(before == CDiskImage::FromFile(m_Image));
}

class SynchronousOf : public DurabilityOf {
 protected:
  SynchronousOf() : DurabilityOf({"-o", "sync"}) {}
};
FOR_ALL_TYPES(SynchronousOf);

TEST_P(SynchronousOf, EachChange_IsOnTheImageAtOnce) {
  WriteFile(*this / "file.txt", "some bytes");
  ExpectOnImage("/file.txt", "some bytes");
  ASSERT_EQ(0, rename((*this / "file.txt").c_str(), (*this / "other.txt").c_str()));
  ExpectOnImage("/other.txt", "some bytes");
}

class LimitedImage : public Images {};

// The limit of a process for the size of files makes writes to the last part of the image fail.
TEST_F(LimitedImage, WriteBackThatFails_IsReportedByTheNextFsyncAndSaid) {
  MakeVolume(m_Image, 16000, {"-F", "16", "-s", "4"});
  Mount mount(m_Image, m_Folder, {}, "trap '' XFSZ; ulimit -f 8000");  // of 512 bytes
  ASSERT_TRUE(mount.Stands()) << mount.Printed();
  const Descriptor file(m_Folder + "/file", O_RDWR | O_CREAT);
  ASSERT_TRUE(file.Write(0, std::string(6000000, 'x')));
  for (int tenths = 0; tenths < 150 && mount.Printed().empty(); ++tenths) usleep(100000);
  EXPECT_NE(std::string::npos, mount.Printed().find("writing back failed")) << mount.Printed();
  EXPECT_NE(0, fsync(file.Get()));
}

// ---------------------------------------------------------------------------------------------- killed

class KilledOn : public testing::TestWithParam<int> {};
FOR_ALL_TYPES(KilledOn);

namespace {

/// Works at random, with some calls of fsync, until the folder does not answer any more.
void WorkUntilItEnds(const std::string& folder, unsigned int seed) {
  std::mt19937 random(seed);
  const auto path = [&] { return folder + "/folder " + std::to_string(random() % 3); };
  for (int step = 0; step < 100000; ++step) {
    const std::string directory = path();
    const std::string file = directory + "/a file with a long name " + std::to_string(random() % 20);
    (void)mkdir(directory.c_str(), 0777);
    switch (random() % 6) {
      case 0:
        (void)unlink(file.c_str());
        break;
      case 1:
        (void)rename(file.c_str(), (path() + "/another name " + std::to_string(random() % 20)).c_str());
        break;
      case 2:
        (void)truncate(file.c_str(), static_cast<off_t>(random() % 50000));
        break;
      default: {
        const int descriptor = open(file.c_str(), O_RDWR | O_CREAT, 0666);
        if (descriptor < 0) break;
        const std::string bytes(random() % 60000, 'x');
        (void)!pwrite(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(random() % 60000));
        if (random() % 8 == 0) (void)fsync(descriptor);
        close(descriptor);
      }
    }
    struct stat status {};
    if (stat(folder.c_str(), &status) != 0) break;
  }
}

/// What may be found: lost clusters, chains that are too long, FATs and counts that differ, torn long names.
std::string Unexpected(const std::string& findings) {
  std::string unexpected;
  for (std::size_t at = 0; at < findings.size();) {
    const std::size_t end = findings.find('\n', at);
    const std::string line = findings.substr(at, end - at);
    at = end + 1;
    bool expected = line.empty() || line[0] == ' ';  // goes on from the line before
    for (const char* text :
         {"FATs differ", "Reclaim", "Free cluster summary", "Orphaned long file name", "Long filename fragment",
          "Leaving", "Unused", "Truncating file", "Auto-", "There are differences", "Dirty bit", "Not automatically",
          "Using first FAT", "/folder ", "/LOST", "Wrong checksum"}) {
      expected = expected || line.find(text) != std::string::npos;
    }
    if (!expected) unexpected += line + "\n";
  }
  for (const char* text : {"shar", "ontains a free cluster", "bad cluster", "loop", "Circular", "Bad file name"}) {
    if (findings.find(text) != std::string::npos) unexpected += findings;
  }
  return unexpected;
}

}  // namespace

TEST_P(KilledOn, VolumeAtWork_MountsAgainAndHasLostClustersAtMost) {
  const unsigned int seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  for (unsigned int round = 0; round < 4; ++round) {
    const CTempDir directory;
    const std::string image = directory / "volume.img", folder = directory / "mounted";
    mkdir(folder.c_str(), 0755);
    MakeVolume(image,
               GetParam() == 12   ? 7000
               : GetParam() == 16 ? 32000
                                  : 40000,
               {"-F", std::to_string(GetParam()), "-s", GetParam() == 32 ? "1" : "4"});
    {
      Mount mount(image, folder);
      ASSERT_TRUE(mount.Stands()) << mount.Printed();
      const pid_t killer = fork();
      if (killer == 0) {
        usleep((seed + round * 7919) % 1500000 + 100000);
        kill(mount.Process(), SIGKILL);
        _exit(0);
      }
      WorkUntilItEnds(folder, seed + round);
      EXPECT_EQ(128 + SIGKILL, mount.Kill(SIGKILL));
    }
    const std::string findings = FsckFindings(image);
    EXPECT_EQ("", Unexpected(findings)) << findings;
    Mount again(image, folder);
    ASSERT_TRUE(again.Stands()) << again.Printed();
    EXPECT_EQ(std::string::npos, again.Printed().find("for reading only")) << again.Printed();
    WriteFile(folder + "/written afterwards", "bytes");
    EXPECT_EQ(0, again.Unmount());
    (void)RunProcess({"fsck.fat", "-a", image});
    EXPECT_EQ("bytes", OnImage(image, "/written afterwards"));
  }
}

}  // namespace fatmount_test
