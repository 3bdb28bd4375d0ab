/// @file FileTest.cpp
/// Open files: reading, writing, sizes, and what becomes of them when the file goes or the volume is closed.

#include <numeric>

#include "VolumeFixture.h"

using fatlib::Access;
using fatlib::ARCHIVE;
using fatlib::File;
using fatlib::Status;

namespace {

constexpr std::uint64_t MIB = std::uint64_t{1} << 20;

std::string Pattern(std::size_t count) {
  std::string text(count, 0);
  for (std::size_t i = 0; i < count; ++i) text[i] = static_cast<char>('a' + i % 23 + i / 4096 % 3);
  return text;
}

File Opened(CTestVolume* test, const std::string& path, Access access = Access::ReadWrite) {
  File file;
  const std::error_code error = test->volume.OpenFile(path, access, &file);
  EXPECT_FALSE(error) << error.message();
  return file;
}

std::string ReadAt(File* file, std::uint64_t offset, std::size_t count) {
  std::string text(count, '?');
  std::size_t done;
  const std::error_code error = file->Read(offset, text.data(), count, &done);
  return error ? "error: " + error.message() : text.substr(0, done);
}

}  // namespace

TEST(File, ReadOverManyBlocks_GivesEveryByte) {
  CTestVolume test({16, 16 * MIB, 2048, 0});
  const std::string text = Pattern(3 * 262144 + 12345);
  ASSERT_FALSE(test.Write("/F", text));
  test.Reopen();
  File file = Opened(&test, "/F");
  for (const std::size_t offset : {0u, 1u, 262143u, 262144u, 500000u, 786431u}) {
    EXPECT_EQ(ReadAt(&file, offset, 600001), text.substr(offset, 600001)) << offset;
  }
}

// The library reads whole blocks of 256 KiB.
TEST(File, LargeReadOfAnUnchangedFile_ReadsFromTheDeviceWhatIsAskedForAndNoMore) {
  CTestVolume test({32, 64 * MIB, 512, 0});
  const std::string text = Pattern(600000);
  ASSERT_FALSE(test.Write("/F", text));
  test.Reopen();
  File file = Opened(&test, "/F");
  EXPECT_EQ(ReadAt(&file, 0, 65536), text.substr(0, 65536));  // also the directory and the FAT
  const std::uint64_t before = test.medium->bytesRead;
  EXPECT_EQ(ReadAt(&file, 100001, 131072), text.substr(100001, 131072));
  EXPECT_EQ(ReadAt(&file, 500000, 131072), text.substr(500000));
  EXPECT_EQ(test.medium->bytesRead - before, 131072u + 100000u);
  EXPECT_EQ(ReadAt(&file, 100001, 65535), text.substr(100001, 65535));
  EXPECT_GE(test.medium->bytesRead - before, 131072u + 100000u + 262144u);
}

TEST(File, LargeReadBetweenChanges_GivesWhatWasWrittenLast) {
  CTestVolume test({16, 16 * MIB, 2048, 0});
  std::string text = Pattern(300000);
  ASSERT_FALSE(test.Write("/F", text));
  ASSERT_FALSE(test.volume.Sync());
  File file = Opened(&test, "/F");
  const auto change = [&](std::size_t at, const std::string& bytes) {
    EXPECT_FALSE(file.Write(at, bytes.data(), bytes.size()));
    text.resize(std::max(text.size(), at + bytes.size()));
    text.replace(at, bytes.size(), bytes);
  };
  const auto resize = [&](std::size_t size) {
    EXPECT_FALSE(file.Resize(size));
    text.resize(size);
  };
  for (int round = 0; round < 4; ++round) {
    const auto expectRead = [&](const char* when) { EXPECT_TRUE(ReadAt(&file, 0, MIB) == text) << round << when; };
    expectRead("unchanged");
    change(static_cast<std::size_t>(round) * 70000, "changed in round " + std::to_string(round));
    expectRead("overwritten");
    resize(200000 - static_cast<std::size_t>(round) * 10000);
    ASSERT_FALSE(test.Write("/OTHER" + std::to_string(round), Pattern(50000)));  // takes what was given up
    expectRead("cut");
    resize(300000);
    expectRead("grown");
    change(350000, "behind the end");
    expectRead("written behind the end");
    ASSERT_FALSE(test.volume.Sync());
  }
  test.CloseAndCheck();
}

TEST(File, LargeReadOfWhatTookTheClustersOfAnother_GivesItsOwnBytes) {
  CTestVolume test({12, 4 * MIB, 2048, 0});
  for (int round = 0; round < 3; ++round) {
    const std::string text = Pattern(3000000 - static_cast<std::size_t>(round) * 100000);  // most of the volume
    ASSERT_FALSE(test.Write("/F", text));
    ASSERT_FALSE(test.volume.Sync());
    File file = Opened(&test, "/F");
    EXPECT_TRUE(ReadAt(&file, 0, text.size()) == text) << round;
    file.Close();
    ASSERT_FALSE(test.volume.Remove("/F"));
  }
}

TEST(File, LargeReadThatFails_TellsHowMuchWasRead) {
  CTestVolume test({16, 16 * MIB, 2048, 0});
  ASSERT_FALSE(test.Write("/F", Pattern(100000)));
  ASSERT_FALSE(test.Write("/G", Pattern(2048)));
  File growing = Opened(&test, "/F");
  ASSERT_FALSE(growing.Write(100000, Pattern(100000).data(), 100000));  // behind /G
  growing.Close();
  test.Reopen();
  File file = Opened(&test, "/F");
  EXPECT_EQ(ReadAt(&file, 0, 200000).size(), 200000u);
  std::string bytes(200000, 0);
  std::size_t done = 0;
  test.medium->FailAfter(2, false);
  EXPECT_EQ(file.Read(0, bytes.data(), bytes.size(), &done), Status::IoError);
  EXPECT_EQ(done, 100352u);  // 49 clusters lie together
  test.medium->Heal();
  EXPECT_EQ(ReadAt(&file, 0, 200000).size(), 200000u);
}

TEST(File, ReadAtAndBehindTheEnd_GivesWhatIsThere) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", "abcdef"));
  File file = Opened(&test, "/F");
  EXPECT_EQ(ReadAt(&file, 4, 10), "ef");
  EXPECT_EQ(ReadAt(&file, 6, 10), "");
  EXPECT_EQ(ReadAt(&file, std::uint64_t{1} << 40, 10), "");
  EXPECT_EQ(ReadAt(&file, 0, 0), "");
}

TEST(File, WriteInPieces_IsReadBackWhole) {
  CTestVolume test({16, 16 * MIB, 2048, 0});
  const std::string text = Pattern(700001);
  ASSERT_FALSE(test.volume.CreateFile("/F", 0, File::Fill::Zeros, 0, nullptr));
  File file = Opened(&test, "/F");
  for (std::size_t at = 0; at < text.size(); at += 9973) {
    ASSERT_FALSE(file.Write(at, text.data() + at, std::min<std::size_t>(9973, text.size() - at)));
  }
  EXPECT_EQ(file.Size(), text.size());
  EXPECT_TRUE(test.Read("/F") == text);
  file.Close();
  test.CloseAndCheck();
}

TEST(File, WriteOfNothing_ChangesNothing) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", "abc"));
  File file = Opened(&test, "/F");
  EXPECT_FALSE(file.Write(100, "", 0));
  EXPECT_EQ(file.Size(), 3u);
}

TEST(File, Resize_CutsAndFillsWithZeros) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", Pattern(9000)));
  File file = Opened(&test, "/F");
  ASSERT_FALSE(file.Resize(5000));
  ASSERT_FALSE(file.Resize(9000));
  EXPECT_EQ(test.Read("/F"), Pattern(9000).substr(0, 5000) + std::string(4000, '\0'));
  ASSERT_FALSE(file.Resize(0));
  EXPECT_EQ(test.Read("/F"), "");
  file.Close();
  test.CloseAndCheck();
}

TEST(File, ResizeWithoutFilling_KeepsTheOldBytesAndTheSize) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", "abc"));
  File file = Opened(&test, "/F");
  ASSERT_FALSE(file.Resize(70000, File::Fill::Nothing));
  EXPECT_EQ(file.Size(), 70000u);
  EXPECT_EQ(ReadAt(&file, 0, 3), "abc");
}

TEST(File, TooLarge_IsRefusedBeforeAnythingChanges) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", "abc"));
  File file = Opened(&test, "/F");
  EXPECT_EQ(file.Resize(std::uint64_t{1} << 32), Status::FileTooLarge);
  EXPECT_EQ(file.Write(0xFFFFFFF0u, "abc", 3), Status::FileTooLarge);
  EXPECT_EQ(file.Write(~std::uint64_t{0}, "abc", 3), Status::FileTooLarge);
  EXPECT_EQ(test.volume.CreateFile("/G", 0xFFFFFFFFu, File::Fill::Nothing, 0, nullptr), Status::FileTooLarge);
  EXPECT_EQ(test.Read("/F"), "abc");
  EXPECT_FALSE(test.Exists("/G"));
}

TEST(File, FullVolume_IsToldBeforeAnythingChanges) {
  CTestVolume test({12, MIB, 512, 0});
  ASSERT_FALSE(test.Write("/F", "abc"));
  std::uint32_t before;
  ASSERT_FALSE(test.volume.FreeClusters(&before));
  File file = Opened(&test, "/F");
  EXPECT_EQ(file.Resize(2 * MIB), Status::DiskFull);
  const std::string large(2 * MIB, 'x');
  EXPECT_EQ(file.Write(3, large.data(), large.size()), Status::DiskFull);
  EXPECT_EQ(test.Write("/G", large), Status::DiskFull);
  EXPECT_EQ(test.volume.CreateFile("/H", 2 * MIB, File::Fill::Nothing, 0, nullptr), Status::DiskFull);
  std::uint32_t after;
  ASSERT_FALSE(test.volume.FreeClusters(&after));
  EXPECT_EQ(after, before);
  EXPECT_EQ(test.Names("/"), "F");
  EXPECT_EQ(test.Read("/F"), "abc");
}

TEST(File, LastFreeCluster_CanBeUsed) {
  CTestVolume test({12, MIB, 512, 0});
  std::uint32_t clusters;
  ASSERT_FALSE(test.volume.FreeClusters(&clusters));
  EXPECT_FALSE(test.Write("/F", std::string(std::size_t{clusters} * 512, 'x')));
  ASSERT_FALSE(test.volume.FreeClusters(&clusters));
  EXPECT_EQ(clusters, 0u);
  EXPECT_EQ(test.Write("/G", "x"), Status::DiskFull);
  EXPECT_FALSE(test.Write("/EMPTY", ""));
  test.CloseAndCheck();
}

TEST(File, WriteSetsTheArchiveAttributeAndTheTime) {
  CTestVolume test;
  test.Close();
  std::timespec now{1767225600, 0};
  fatlib::VolumeOptions options;
  options.zone = fatlib::Zone::Utc;
  options.clock = [&now] { return now; };
  test.Open(options);
  ASSERT_FALSE(test.volume.CreateFile("/F", 10, File::Fill::Zeros, fatlib::HIDDEN, nullptr));
  now.tv_sec += 86400;
  File file = Opened(&test, "/F");
  EXPECT_EQ(test.Stat("/F").attributes, fatlib::HIDDEN);
  ASSERT_FALSE(file.Write(0, "x", 1));
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(test.Stat("/F").attributes, fatlib::HIDDEN | ARCHIVE);
    EXPECT_EQ(ToIso8601(test.Stat("/F").times.modified), "2026-01-02T00:00:00");
    EXPECT_EQ(ToIso8601(test.Stat("/F").times.created, true), "2026-01-01");
    file.Close();
    test.Close();
    test.Open(options);
  }
}

TEST(File, OpenForReading_RefusesChanges) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", "abc"));
  File file = Opened(&test, "/F", Access::ReadOnly);
  EXPECT_EQ(file.Write(0, "x", 1), Status::Refused);
  EXPECT_EQ(file.Resize(0), Status::Refused);
  EXPECT_EQ(test.Read("/F"), "abc");
}

TEST(File, RemovedFile_IsNotFoundThroughOpenObjects) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", "abc"));
  File file = Opened(&test, "/F");
  char byte;
  std::size_t done;
  ASSERT_FALSE(test.volume.Remove("/F"));
  EXPECT_EQ(file.Read(0, &byte, 1, &done), Status::NotFound);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(file.Write(0, "x", 1), Status::NotFound);
  EXPECT_EQ(file.Resize(5), Status::NotFound);
  EXPECT_EQ(file.Size(), 0u);
  ASSERT_FALSE(test.Write("/F", "another"));
  EXPECT_EQ(file.Write(0, "x", 1), Status::NotFound);
  EXPECT_EQ(test.Read("/F"), "another");
}

TEST(File, RenamedMovedAndReplacedFile_StaysOpenUnlessItIsReplaced) {
  CTestVolume test;
  ASSERT_FALSE(test.volume.CreateDirectory("/D"));
  ASSERT_FALSE(test.Write("/F", "abc"));
  ASSERT_FALSE(test.Write("/D/G", "target"));
  File file = Opened(&test, "/F");
  File target = Opened(&test, "/D/G");
  ASSERT_FALSE(file.Write(0, "ABC", 3));
  ASSERT_FALSE(test.volume.Rename("/F", "/D/G", true));
  EXPECT_EQ(ReadAt(&file, 0, 10), "ABC");
  ASSERT_FALSE(file.Write(3, "D", 1));
  EXPECT_EQ(test.Read("/D/G"), "ABCD");
  EXPECT_EQ(target.Resize(0), Status::NotFound);
  file.Close();
  test.CloseAndCheck();
}

TEST(File, SyncInTheMiddle_ChangesNothingForOpenFiles) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", "abc"));
  File file = Opened(&test, "/F");
  ASSERT_FALSE(file.Write(3, "def", 3));
  ASSERT_FALSE(file.Flush());
  EXPECT_FALSE(test.volume.IsDirty());
  EXPECT_EQ(test.medium->flushes, 1u);
  ASSERT_FALSE(file.Write(6, "ghi", 3));
  EXPECT_TRUE(test.volume.IsDirty());
  EXPECT_EQ(ReadAt(&file, 0, 100), "abcdefghi");
}

TEST(File, OutlivesItsVolume_AndIsRefusedThen) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", "abc"));
  File file = Opened(&test, "/F");
  ASSERT_FALSE(file.Write(0, "x", 1));
  test.Close();
  char byte;
  std::size_t done;
  EXPECT_TRUE(file.IsOpen());
  EXPECT_EQ(file.Read(0, &byte, 1, &done), Status::Refused);
  EXPECT_EQ(file.Write(0, "x", 1), Status::Refused);
  EXPECT_EQ(file.Resize(0), Status::Refused);
  EXPECT_EQ(file.Flush(), Status::Refused);
  EXPECT_EQ(file.Size(), 0u);
}

TEST(File, NeverOpened_IsRefused) {
  File file;
  char byte;
  std::size_t done;
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(file.Read(0, &byte, 1, &done), Status::Refused);
  EXPECT_EQ(file.Flush(), Status::Refused);
  file.Close();
}

TEST(File, Moved_TakesTheOpenFileAlong) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/F", "abc"));
  ASSERT_FALSE(test.Write("/G", "def"));
  File first = Opened(&test, "/F");
  File second = Opened(&test, "/G");
  second = std::move(first);
  EXPECT_EQ(ReadAt(&second, 0, 3), "abc");
}

TEST(File, ProgressOfWholeFiles_CountsToTheEndAndCanStop) {
  CTestVolume test({16, 16 * MIB, 2048, 0});
  const std::string text = Pattern(5 * MIB + 1);
  std::vector<std::uint64_t> seen;
  const auto watch = [&seen, &text](std::uint64_t done, std::uint64_t total) {
    EXPECT_EQ(total, text.size());
    seen.push_back(done);
    return true;
  };
  ASSERT_FALSE(test.volume.WriteAll("/F", text.data(), text.size(), watch));
  EXPECT_EQ(seen.front(), 0u);
  EXPECT_EQ(seen.back(), text.size());
  EXPECT_GT(seen.size(), 3u);
  std::vector<unsigned char> bytes;
  ASSERT_FALSE(test.volume.ReadAll("/F", &bytes, watch));
  EXPECT_EQ(seen.back(), text.size());
  const auto stop = [](std::uint64_t done, std::uint64_t) { return done < MIB; };
  EXPECT_EQ(test.volume.ReadAll("/F", &bytes, stop), Status::Cancelled);
  EXPECT_EQ(test.volume.WriteAll("/G", text.data(), text.size(), stop), Status::Cancelled);
  EXPECT_FALSE(test.Exists("/G"));
  test.CloseAndCheck();
}
