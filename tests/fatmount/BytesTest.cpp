/// @file BytesTest.cpp
/// Reading and writing: what a person expects of any file system.

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Mounted.h"

namespace fatmount_test {

namespace {

std::string ManyNumbers(std::size_t size) {
  std::string bytes;
  for (unsigned int i = 0; bytes.size() < size; ++i) bytes += std::to_string(i * 2654435761u);
  bytes.resize(size);
  return bytes;
}

}  // namespace

class BytesOf : public Volume {};
FOR_ALL_TYPES(BytesOf);

TEST_P(BytesOf, WrittenFile_IsReadBack) {
  WriteFile(*this / "file", "some bytes");
  EXPECT_EQ("some bytes", ReadFile(*this / "file"));
}

TEST_P(BytesOf, WrittenFile_IsOnTheImageAfterUnmount) {
  WriteFile(*this / "file.txt", "some bytes");
  (void)Unmounted();
  EXPECT_EQ("some bytes", OnImage(m_Image, "/file.txt"));
}

TEST_P(BytesOf, LargeFile_IsReadBack) {
  const std::string bytes = ManyNumbers(3000000);
  WriteFile(*this / "file", bytes);
  EXPECT_TRUE(bytes == ReadFile(*this / "file"));
}

// What the kernel has of it is thrown away before each look.
TEST_P(BytesOf, LargeFile_IsReadBackFromTheImageAndFromWhatIsNotThereYet) {
  std::string bytes = ManyNumbers(1500000);
  WriteFile(*this / "file", bytes);
  const Descriptor file(*this / "file", O_RDWR);
  const auto expectRead = [&](const char* when) {
    ASSERT_EQ(0, posix_fadvise(file.Get(), 0, 0, POSIX_FADV_DONTNEED));
    EXPECT_TRUE(bytes == file.Read(0, bytes.size() + 1)) << when;
  };
  expectRead("written");
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(0, fsync(file.Get()));
    expectRead("flushed");
    bytes.replace(200000u * static_cast<unsigned int>(round), 100000, 100000, 'x');
    ASSERT_TRUE(file.Write(200000 * round, std::string(100000, 'x')));
    expectRead("overwritten");
    bytes.resize(bytes.size() - 100000);
    ASSERT_EQ(0, ftruncate(file.Get(), static_cast<off_t>(bytes.size())));
    WriteFile(*this / ("other" + std::to_string(round)), std::string(60000, 'o'));  // takes what was given up
    expectRead("cut");
    bytes += ManyNumbers(70000);
    ASSERT_TRUE(file.Write(static_cast<off_t>(bytes.size() - 70000), ManyNumbers(70000)));
    expectRead("appended");
  }
}

TEST_P(BytesOf, Append_WritesBehindTheEnd) {
  WriteFile(*this / "file", "begin");
  const Descriptor file(*this / "file", O_WRONLY | O_APPEND);
  ASSERT_EQ(4, write(file.Get(), " end", 4));
  EXPECT_EQ("begin end", ReadFile(*this / "file"));
}

TEST_P(BytesOf, AppendBySeveral_LosesNothing) {
  const Descriptor first(*this / "file", O_WRONLY | O_CREAT | O_APPEND);
  const Descriptor second(*this / "FILE", O_WRONLY | O_APPEND);
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(1, write(first.Get(), "a", 1));
    ASSERT_EQ(1, write(second.Get(), "b", 1));
  }
  const std::string bytes = ReadFile(*this / "file");
  EXPECT_EQ(200u, bytes.size());
  EXPECT_EQ("abab", bytes.substr(196));
}

TEST_P(BytesOf, WriteFarBehindTheEnd_LeavesAGapOfZeros) {
  const Descriptor file(*this / "file", O_RDWR | O_CREAT);
  ASSERT_TRUE(file.Write(0, "begin"));
  ASSERT_TRUE(file.Write(300000, "end"));
  EXPECT_EQ("begin" + std::string(299995, '\0') + "end", file.Read(0, 400000));
}

TEST_P(BytesOf, GapWhereBytesWereBefore_ReadsAsZeros) {
  WriteFile(*this / "old", std::string(200000, 'x'));
  ASSERT_EQ(0, unlink((*this / "old").c_str()));
  const Descriptor file(*this / "new", O_RDWR | O_CREAT);
  ASSERT_TRUE(file.Write(150000, "end"));
  EXPECT_EQ(std::string(150000, '\0') + "end", file.Read(0, 200000));
}

TEST_P(BytesOf, TruncateToLess_CutsTheEndOff) {
  WriteFile(*this / "file", std::string(100000, 'x'));
  ASSERT_EQ(0, truncate((*this / "file").c_str(), 10));
  EXPECT_EQ(std::string(10, 'x'), ReadFile(*this / "file"));
}

TEST_P(BytesOf, TruncateToMore_AddsZeros) {
  WriteFile(*this / "file", std::string(100000, 'x'));
  ASSERT_EQ(0, truncate((*this / "file").c_str(), 10));
  ASSERT_EQ(0, truncate((*this / "file").c_str(), 100000));
  EXPECT_EQ(std::string(10, 'x') + std::string(99990, '\0'), ReadFile(*this / "file"));
}

TEST_P(BytesOf, OpenWithTruncation_EmptiesTheFile) {
  WriteFile(*this / "file", "before");
  const Descriptor file(*this / "file", O_RDWR | O_TRUNC);
  EXPECT_EQ(0, file.Stat().st_size);
  ASSERT_TRUE(file.Write(0, "x"));
  EXPECT_EQ("x", ReadFile(*this / "file"));
}

TEST_P(BytesOf, BytesWrittenThroughAMapping_AreRead) {
  const Descriptor file(*this / "file", O_RDWR | O_CREAT);
  ASSERT_EQ(0, ftruncate(file.Get(), 10000));
  const Mapping mapping(file, 10000);
  std::memcpy(mapping.Bytes() + 5000, "mapped", 6);
  EXPECT_EQ("mapped", file.Read(5000, 6));
  EXPECT_EQ("mapped", Descriptor(*this / "FILE", O_RDONLY).Read(5000, 6));
}

TEST_P(BytesOf, BytesWritten_AreSeenThroughAMapping) {
  WriteFile(*this / "file", std::string(10000, 'x'));
  const Descriptor file(*this / "file", O_RDWR);
  const Mapping mapping(file, 10000);
  EXPECT_EQ('x', mapping.Bytes()[5000]);
  ASSERT_TRUE(Descriptor(*this / "FILE", O_RDWR).Write(5000, "new"));
  EXPECT_EQ("new", std::string(mapping.Bytes() + 5000, 3));
}

TEST_P(BytesOf, BytesWrittenThroughAMapping_AreOnTheImageAfterUnmount) {
  {
    const Descriptor file(*this / "file.txt", O_RDWR | O_CREAT);
    ASSERT_EQ(0, ftruncate(file.Get(), 6));
    const Mapping mapping(file, 6);
    std::memcpy(mapping.Bytes(), "mapped", 6);
    ASSERT_TRUE(mapping.Flush());
  }
  (void)Unmounted();
  EXPECT_EQ("mapped", OnImage(m_Image, "/file.txt"));
}

TEST_P(BytesOf, Fallocate_GrowsTheFileByZeros) {
  const Descriptor file(*this / "file", O_RDWR | O_CREAT);
  ASSERT_TRUE(file.Write(0, "x"));
  ASSERT_EQ(0, fallocate(file.Get(), 0, 0, 5000));
  EXPECT_EQ("x" + std::string(4999, '\0'), file.Read(0, 6000));
}

TEST_P(BytesOf, FallocateOfWhatFatCannotKeep_IsNotSupported) {
  const Descriptor file(*this / "file", O_RDWR | O_CREAT);
  EXPECT_EQ(EOPNOTSUPP, ErrnoOf(fallocate(file.Get(), FALLOC_FL_KEEP_SIZE, 0, 5000)));
}

// ---------------------------------------------------------------------------------------------- removed while open

TEST_P(BytesOf, RemovedOpenFile_IsReadAndWrittenUntilItIsClosed) {
  WriteFile(*this / "file", "before");
  const Descriptor file(*this / "file", O_RDWR);
  ASSERT_EQ(0, unlink((*this / "file").c_str()));
  EXPECT_FALSE(Exists(*this / "file"));
  EXPECT_EQ("before", file.Read(0, 100));
  ASSERT_TRUE(file.Write(100000, "more"));
  EXPECT_EQ("more", file.Read(100000, 100));
  EXPECT_EQ(100004, file.Stat().st_size);
  EXPECT_EQ(0u, file.Stat().st_nlink);
}

TEST_P(BytesOf, RemovedOpenFile_IsTruncated) {
  WriteFile(*this / "file", "before");
  const Descriptor file(*this / "file", O_RDWR);
  ASSERT_EQ(0, unlink((*this / "file").c_str()));
  ASSERT_EQ(0, ftruncate(file.Get(), 3));
  EXPECT_EQ("bef", file.Read(0, 100));
}

TEST_P(BytesOf, RemovedOpenFile_TakesNoRoomOnTheVolume) {
  WriteFile(*this / "keeps the directory's size", "");
  struct statvfs before {
  }, after{};
  ASSERT_EQ(0, statvfs(m_Folder.c_str(), &before));
  WriteFile(*this / "file", std::string(100000, 'x'));
  const Descriptor file(*this / "file", O_RDWR);
  ASSERT_EQ(0, unlink((*this / "file").c_str()));
  ASSERT_EQ(0, statvfs(m_Folder.c_str(), &after));
  EXPECT_EQ(before.f_bfree, after.f_bfree);
  EXPECT_EQ(std::string(100000, 'x'), file.Read(0, 200000));
}

TEST_P(BytesOf, RemovedMappedFile_KeepsItsBytes) {
  WriteFile(*this / "file", std::string(10000, 'x'));
  const Descriptor file(*this / "file", O_RDWR);
  const Mapping mapping(file, 10000);
  ASSERT_EQ(0, unlink((*this / "file").c_str()));
  EXPECT_EQ('x', mapping.Bytes()[9000]);
  mapping.Bytes()[9000] = 'y';
  ASSERT_TRUE(mapping.Flush());
  EXPECT_EQ("xyx", file.Read(8999, 3));
}

TEST_P(BytesOf, ReplacedOpenFile_KeepsItsBytesUntilItIsClosed) {
  WriteFile(*this / "old", "old bytes");
  WriteFile(*this / "new", "new bytes");
  const Descriptor old(*this / "old", O_RDWR);
  ASSERT_EQ(0, rename((*this / "new").c_str(), (*this / "old").c_str()));
  EXPECT_EQ("old bytes", old.Read(0, 100));
  EXPECT_EQ("new bytes", ReadFile(*this / "old"));
}

TEST_P(BytesOf, RenamedOpenFile_StaysUsable) {
  const Descriptor file(*this / "before", O_RDWR | O_CREAT);
  ASSERT_TRUE(file.Write(0, "one "));
  ASSERT_EQ(0, mkdir((*this / "folder").c_str(), 0777));
  ASSERT_EQ(0, rename((*this / "before").c_str(), (*this / "folder/after").c_str()));
  ASSERT_TRUE(file.Write(4, "two"));
  EXPECT_EQ("one two", file.Read(0, 100));
  EXPECT_EQ("one two", ReadFile(*this / "folder/after"));
}

TEST_P(BytesOf, FileInARenamedDirectory_StaysUsable) {
  ASSERT_EQ(0, mkdir((*this / "before").c_str(), 0777));
  const Descriptor file(*this / "before/file", O_RDWR | O_CREAT);
  ASSERT_EQ(0, rename((*this / "before").c_str(), (*this / "after").c_str()));
  ASSERT_TRUE(file.Write(0, "bytes"));
  EXPECT_EQ("bytes", ReadFile(*this / "after/file"));
}

}  // namespace fatmount_test
