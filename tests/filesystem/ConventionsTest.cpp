/// @file ConventionsTest.cpp
/// What holds for the library as a whole: its status values, where a volume begins, and what it never does to a host.

#include <dirent.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/stdafx.h"
#include "support/LibFixture.h"

namespace {

using BYTES = std::vector<unsigned char>;

unsigned int Threads() {
  unsigned int count = 0;
  DIR* tasks = opendir("/proc/self/task");
  for (const dirent* task = nullptr; tasks != nullptr && (task = readdir(tasks)) != nullptr;) {
    if (task->d_name[0] != '.') ++count;
  }
  if (tasks != nullptr) closedir(tasks);
  return count;
}

class Conventions : public CLibFixture {
 protected:
  static CDiskImage Volume() {
    FAT_GEOMETRY geometry;
    geometry.FatBits = 16;
    CImageBuilder builder(geometry);
    builder.AddFile(builder.AddDir(CImageBuilder::Root(), "DIR"), "File.txt", CImageBuilder::Pattern(3000, 1));
    return builder.Image();
  }
  /// A whole disk: a master boot record, and the volume behind it in the first partition.
  /// @param firstByte  of the master boot record
  static CDiskImage Partitioned(const CDiskImage& volume, unsigned int firstByte) {
    constexpr std::uint64_t START = 63;
    CDiskImage disk(volume.Size() + START * 512);
    disk.WriteBytes(START * 512, volume.ToVector());
    disk.Set8(0, firstByte);
    disk.Set8(446, 0x80);
    disk.Set8(450, 0x06);
    disk.Set32(454, static_cast<std::uint32_t>(START));
    disk.Set32(458, static_cast<std::uint32_t>(volume.Size() / 512));
    disk.Set16(510, 0xAA55);
    return disk;
  }
  /// Changes, refusals and failures of every kind.
  void Work() {
    CMedium medium(Volume());
    CFatFileSystem* fileSystem = MountMedium(medium);
    ASSERT_NE(fileSystem, nullptr);
    EXPECT_TRUE(WritePath("NEW\\A new file", CImageBuilder::Pattern(600000, 2)));
    EXPECT_EQ(Fat_RenameFile(CPath("NEW\\A new file"), CPath("Renamed")), 1u);
    EXPECT_EQ(Fat_MoveFile(CPath("DIR\\File.txt"), CPath("NEW")), 1u);
    EXPECT_EQ(Fat_DeleteFile(CPath("DIR")), 1u);
    EXPECT_EQ(Fat_OpenFile(CPath("a*b")), -1);
    EXPECT_EQ(Fat_OpenFile(CPath("MISSING")), -1);
    medium.FailAt(1, FAULT_FOR_GOOD);
    EXPECT_FALSE(Unmount(fileSystem));
    medium.Heal();
    EXPECT_EQ(Mount(BACKEND::Memory, CDiskImage(4096)), nullptr);
    Memory().FailAt(3, CMemHooks::FOR_GOOD);
    EXPECT_EQ(Mount(BACKEND::Memory, Volume()), nullptr);
    Memory().Heal();
  }
};

}  // namespace

TEST(StatusValues, AreThoseThatHostsOfDerivedStorageMeet) {
  const std::vector<std::pair<int, unsigned int>> values = {
      {STATUS_SUCCESS, 0},
      {STATUS_INVALID_PARAMETER, 0xC000000D},
      {STATUS_END_OF_FILE, 0xC0000011},
      {STATUS_NO_MEMORY, 0xC0000017},
      {STATUS_DISK_CORRUPT, 0xC0000032},
      {STATUS_DISK_FULL, 0xC000007F},
      {STATUS_REFUSED, 0xC0000098},
      {STATUS_FILE_CORRUPT, 0xC0000102},
      {STATUS_OPEN_FAILED, 0xC0000136},
      {STATUS_UNRECOGNIZED_VOLUME, 0xC000014F},
      {STATUS_NAME_EXISTS, 0xC0000183},
      {STATUS_IO_ERROR, 0xC0000185},
      {STATUS_NOT_FOUND, 0xC0000225},
  };
  for (const auto& [status, value] : values) {
    EXPECT_EQ(static_cast<unsigned int>(status), value);
    EXPECT_EQ(status < 0, value != 0) << "a failure is negative";
  }
}

TEST_F(Conventions, VolumeInsideAPartition_IsNotFound) {
  const CDiskImage volume = Volume();
  for (const unsigned int firstByte : {0x33u, 0xEBu, 0xE9u, 0xFAu}) {
    for (const BACKEND backend : {BACKEND::Memory, BACKEND::Medium}) {
      EXPECT_EQ(Mount(backend, Partitioned(volume, firstByte)), nullptr) << firstByte << BackendName(backend);
    }
  }
  EXPECT_NE(Mount(BACKEND::Medium, volume), nullptr);
}

TEST_F(Conventions, WorkRefusalsAndFailures_PrintNothing) {
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  Work();
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(out, "");
}

TEST_F(Conventions, WorkRefusalsAndFailures_StartNoThread) {
  const unsigned int before = Threads();
  ASSERT_GE(before, 1u);
  CFatFileSystem* fileSystem = Mount(BACKEND::Medium, Volume());
  ASSERT_NE(fileSystem, nullptr);
  EXPECT_EQ(ReadPath("DIR\\File.txt"), CImageBuilder::Pattern(3000, 1));
  EXPECT_TRUE(WritePath("NEW", CImageBuilder::Pattern(600000, 2)));
  EXPECT_EQ(Threads(), before) << "while a volume with unsaved data is mounted";
  EXPECT_TRUE(Unmount(fileSystem));
  Work();
  EXPECT_EQ(Threads(), before);
}

// A transfer may answer with the bytes that it moved, or with 0: both are success, all the way up.
TEST_F(Conventions, BackEndThatReturnsCountsOrZero_WorksTheSame) {
  const CFixedClock clock(1709648851);
  std::vector<CDiskImage> results;
  for (const bool counts : {true, false}) {
    CMedium medium(Volume());
    medium.ReturnCounts(counts);
    CFatFileSystem* fileSystem = MountMedium(medium);
    ASSERT_NE(fileSystem, nullptr);
    EXPECT_EQ(ReadPath("DIR\\File.txt"), CImageBuilder::Pattern(3000, 1));
    EXPECT_EQ(Fat_CreateDir(CPath("NEW"), 0), 1u);
    EXPECT_TRUE(WritePath("NEW\\F", CImageBuilder::Pattern(300000, 2)));
    EXPECT_EQ(Fat_MoveFile(CPath("DIR"), CPath("NEW")), 1u);
    const int handle = Fat_OpenFile(CPath("NEW\\F"));
    EXPECT_EQ(Fat_SetFileSize(handle, 1000), 1u);
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
    EXPECT_EQ(Fat_RenameFile(CPath("NEW\\F"), CPath("G")), 1u);
    EXPECT_TRUE(Unmount(fileSystem));
    results.push_back(medium.Image());
  }
  EXPECT_EQ(CDiskImage::Differences(results[0], results[1]), std::vector<std::uint64_t>{});
}
