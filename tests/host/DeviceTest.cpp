/// @file DeviceTest.cpp
/// Image files, images in memory, and overlays.

#include <fatlib/Device.h>
#include <fatlib/Error.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "ImageDevice.h"
#include "support/Process.h"

namespace {

using fatlib::Access;
using fatlib::Device;
using fatlib::ImageFile;
using fatlib::Status;
using BYTES = std::vector<unsigned char>;

BYTES Pattern(std::size_t size) {
  BYTES bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + i / 251 + 1);
  return bytes;
}

BYTES ReadAll(Device& device, std::uint64_t position, std::size_t size) {
  BYTES bytes(size, 0xAA);
  EXPECT_FALSE(device.Read(position, bytes.data(), size));
  return bytes;
}

std::error_code WriteAll(Device& device, std::uint64_t position, const BYTES& bytes) {
  return device.Write(position, bytes.data(), bytes.size());
}

class ImageFileTest : public ::testing::Test {
 protected:
  ImageFileTest() : m_Path(m_Directory / "image") { WriteHostFile(m_Path, Pattern(10000)); }

  std::error_code Open(Access access, std::uint64_t offset = 0, std::uint64_t length = 0) {
    ImageFile::Options options;
    options.access = access;
    options.offset = offset;
    options.length = length;
    return ImageFile::Open(m_Path, options, &m_pFile);
  }
  std::uint64_t FileSize() const {
    struct stat64 about = {};
    EXPECT_EQ(stat64(m_Path.c_str(), &about), 0);
    return static_cast<std::uint64_t>(about.st_size);
  }

  CTempDir m_Directory;
  std::string m_Path;
  std::unique_ptr<ImageFile> m_pFile;
};

TEST_F(ImageFileTest, ReadsItsBytesAndZerosBehindThem) {
  ASSERT_FALSE(Open(Access::ReadOnly));
  EXPECT_EQ(m_pFile->Size(), 10000u);
  BYTES expected = Pattern(10000);
  expected.resize(10010);
  EXPECT_EQ(ReadAll(*m_pFile, 9000, 1010), BYTES(expected.begin() + 9000, expected.end()));
  EXPECT_EQ(ReadAll(*m_pFile, 1ull << 40, 10), BYTES(10));
  EXPECT_EQ(ReadAll(*m_pFile, UINT64_MAX, 10), BYTES(10));
}

TEST_F(ImageFileTest, WritesReachTheFile) {
  ASSERT_FALSE(Open(Access::ReadWrite));
  EXPECT_FALSE(WriteAll(*m_pFile, 5000, BYTES(100, 0x5A)));
  EXPECT_FALSE(m_pFile->Flush());
  BYTES expected = Pattern(10000);
  std::fill_n(expected.begin() + 5000, 100, static_cast<unsigned char>(0x5A));
  EXPECT_EQ(ReadHostFile(m_Path), expected);
}

TEST_F(ImageFileTest, ReadOnlyRefusesToWrite) {
  ASSERT_FALSE(Open(Access::ReadOnly));
  EXPECT_EQ(m_pFile->Mode(), Access::ReadOnly);
  EXPECT_EQ(WriteAll(*m_pFile, 0, BYTES(1)), Status::WriteProtected);
  EXPECT_FALSE(m_pFile->Flush());
  EXPECT_EQ(ReadHostFile(m_Path), Pattern(10000));
}

TEST_F(ImageFileTest, PartBeginsAtItsOffsetAndEndsAtItsLength) {
  ASSERT_FALSE(Open(Access::ReadWrite, 1000, 2000));
  EXPECT_EQ(m_pFile->Size(), 2000u);
  const BYTES all = Pattern(10000);
  BYTES expected(all.begin() + 1000, all.begin() + 3000);
  expected.resize(2100);
  EXPECT_EQ(ReadAll(*m_pFile, 0, 2100), expected);
  EXPECT_EQ(WriteAll(*m_pFile, 1990, BYTES(11)), Status::IoError);
  EXPECT_EQ(WriteAll(*m_pFile, UINT64_MAX, BYTES(11)), Status::IoError);
  EXPECT_EQ(ReadHostFile(m_Path), all);
  EXPECT_FALSE(WriteAll(*m_pFile, 1990, BYTES(10)));
}

TEST_F(ImageFileTest, PartOutsideTheFileIsRefused) {
  EXPECT_EQ(Open(Access::ReadOnly, 10001), Status::InvalidParameter);
  EXPECT_EQ(Open(Access::ReadOnly, 5000, 5001), Status::InvalidParameter);
  EXPECT_EQ(Open(Access::ReadOnly, 5000, UINT64_MAX), Status::InvalidParameter);
  EXPECT_EQ(m_pFile, nullptr);
  EXPECT_FALSE(Open(Access::ReadOnly, 5000, 5000));
}

TEST_F(ImageFileTest, WriteBehindTheEndMakesAWholeFileLonger) {
  ASSERT_FALSE(Open(Access::ReadWrite, 1000));
  EXPECT_EQ(m_pFile->Size(), 9000u);
  EXPECT_FALSE(WriteAll(*m_pFile, 20000, BYTES(5, 0x77)));
  EXPECT_EQ(m_pFile->Size(), 20005u);
  EXPECT_EQ(FileSize(), 21005u);
  EXPECT_EQ(ReadAll(*m_pFile, 19999, 7), (BYTES{0, 0x77, 0x77, 0x77, 0x77, 0x77, 0}));
}

TEST_F(ImageFileTest, PositionsBeyond4GigabytesAreReached) {
  ASSERT_FALSE(Open(Access::ReadWrite));
  EXPECT_FALSE(WriteAll(*m_pFile, (5ull << 30) + 3, BYTES{1, 2, 3}));
  EXPECT_EQ(FileSize(), (5ull << 30) + 6);
  EXPECT_EQ(ReadAll(*m_pFile, (5ull << 30) + 2, 5), (BYTES{0, 1, 2, 3, 0}));
}

TEST_F(ImageFileTest, MissingFileGivesTheSystemsReason) {
  ImageFile::Options options;
  EXPECT_EQ(ImageFile::Open(m_Directory / "none", options, &m_pFile), std::errc::no_such_file_or_directory);
  EXPECT_EQ(ImageFile::Open(m_Directory.Path(), options, &m_pFile), std::errc::is_a_directory);
  options.access = Access::ReadOnly;
  EXPECT_EQ(ImageFile::Open(m_Directory.Path(), options, &m_pFile), std::errc::is_a_directory);
}

TEST_F(ImageFileTest, PipesAndDevicesOfCharactersAreRefusedAtOnce) {
  ASSERT_EQ(mkfifo((m_Directory / "pipe").c_str(), 0600), 0);
  ImageFile::Options options;
  options.access = Access::ReadOnly;
  EXPECT_EQ(ImageFile::Open(m_Directory / "pipe", options, &m_pFile), Status::OpenFailed);
  EXPECT_EQ(ImageFile::Open("/dev/zero", options, &m_pFile), Status::OpenFailed);
}

TEST_F(ImageFileTest, WriterLocksOthersOut) {
  ASSERT_FALSE(Open(Access::ReadWrite));
  ImageFile::Options options;
  options.access = Access::ReadOnly;
  std::unique_ptr<ImageFile> second;
  EXPECT_EQ(ImageFile::Open(m_Path, options, &second), Status::Locked);
  EXPECT_EQ(ImageFile::Create(m_Path, 100, &second), Status::Locked);
  EXPECT_EQ(FileSize(), 10000u);
  options.lock = false;
  EXPECT_FALSE(ImageFile::Open(m_Path, options, &second));
  m_pFile.reset();
  options.lock = true;
  EXPECT_FALSE(ImageFile::Open(m_Path, options, &second));
}

TEST_F(ImageFileTest, ReadersShareTheLock) {
  ASSERT_FALSE(Open(Access::ReadOnly));
  ImageFile::Options options;
  options.access = Access::ReadOnly;
  std::unique_ptr<ImageFile> second;
  EXPECT_FALSE(ImageFile::Open(m_Path, options, &second));
  options.access = Access::ReadWrite;
  std::unique_ptr<ImageFile> third;
  EXPECT_EQ(ImageFile::Open(m_Path, options, &third), Status::Locked);
}

TEST_F(ImageFileTest, NewFileIsZerosOfThatSize) {
  std::unique_ptr<ImageFile> made;
  ASSERT_FALSE(ImageFile::Create(m_Directory / "new", 7ull << 30, &made));
  EXPECT_EQ(made->Size(), 7ull << 30);
  EXPECT_EQ(made->Mode(), Access::ReadWrite);
  EXPECT_EQ(ReadAll(*made, (7ull << 30) - 4, 8), BYTES(8));
  EXPECT_EQ(WriteAll(*made, (7ull << 30) - 4, BYTES(8)), Status::IoError);
  struct stat64 about = {};
  ASSERT_EQ(stat64((m_Directory / "new").c_str(), &about), 0);
  EXPECT_LT(about.st_blocks, 100) << "not sparse";
}

TEST_F(ImageFileTest, ExistingFileIsEmptied) {
  ASSERT_FALSE(ImageFile::Create(m_Path, 5000, &m_pFile));
  EXPECT_EQ(ReadAll(*m_pFile, 0, 5000), BYTES(5000));
  EXPECT_EQ(FileSize(), 5000u);
}

TEST_F(ImageFileTest, FileThatCannotBeMadeLeavesNothing) {
  std::unique_ptr<ImageFile> made;
  EXPECT_EQ(ImageFile::Create(m_Directory / "huge", UINT64_MAX, &made), std::errc::file_too_large);
  EXPECT_NE(access((m_Directory / "huge").c_str(), F_OK), 0);
  EXPECT_EQ(ImageFile::Create(m_Directory / "none/new", 1, &made), std::errc::no_such_file_or_directory);
  EXPECT_EQ(made, nullptr);
}

TEST(MemoryImage, ReadsAndWritesItsBytesAndNoOthers) {
  fatlib::MemoryImage image(Pattern(100));
  EXPECT_EQ(image.Size(), 100u);
  EXPECT_FALSE(WriteAll(image, 98, BYTES{1, 2}));
  EXPECT_EQ(ReadAll(image, 97, 5), (BYTES{Pattern(100)[97], 1, 2, 0, 0}));
  EXPECT_EQ(ReadAll(image, UINT64_MAX - 3, 3), BYTES(3));
  EXPECT_EQ(WriteAll(image, 99, BYTES{1, 2}), Status::IoError);
  EXPECT_EQ(WriteAll(image, 1ull << 32, BYTES{1}), Status::IoError);
  EXPECT_EQ(image.Bytes()[99], 2);
}

TEST(Overlay, ChangesAreSeenAndTheOtherDeviceStays) {
  auto base = std::make_unique<fatlib::MemoryImage>(Pattern(20000));
  fatlib::MemoryImage* below = base.get();
  fatlib::Overlay overlay(std::move(base));
  EXPECT_EQ(overlay.Mode(), Access::ReadWrite);
  EXPECT_EQ(overlay.Size(), 20000u);
  EXPECT_FALSE(WriteAll(overlay, 4090, BYTES(12, 0x5A)));
  EXPECT_FALSE(overlay.Flush());
  BYTES expected = Pattern(20000);
  std::fill_n(expected.begin() + 4090, 12, static_cast<unsigned char>(0x5A));
  EXPECT_EQ(ReadAll(overlay, 0, 20000), expected);
  EXPECT_EQ(below->Bytes(), Pattern(20000));
}

TEST(Overlay, RandomWritesReadAsInAPlainImage) {
  std::mt19937 random(1);
  fatlib::Overlay overlay(std::make_unique<fatlib::MemoryImage>(Pattern(50000)));
  BYTES model = Pattern(50000);
  for (unsigned int i = 0; i < 500; ++i) {
    const std::size_t position = random() % 50000;
    const std::size_t size = std::min<std::size_t>(random() % 9000, 50000 - position);
    if (random() % 2 == 0) {
      const BYTES bytes(size, static_cast<unsigned char>(random()));
      std::copy(bytes.begin(), bytes.end(), model.begin() + static_cast<std::ptrdiff_t>(position));
      ASSERT_FALSE(WriteAll(overlay, position, bytes));
    } else {
      const auto from = model.begin() + static_cast<std::ptrdiff_t>(position);
      ASSERT_EQ(ReadAll(overlay, position, size), BYTES(from, from + static_cast<std::ptrdiff_t>(size))) << i;
    }
  }
}

TEST(Overlay, WriteBehindTheEndIsKept) {
  fatlib::Overlay overlay(std::make_unique<fatlib::MemoryImage>(Pattern(100)));
  EXPECT_FALSE(WriteAll(overlay, 1ull << 40, BYTES{1, 2}));
  EXPECT_EQ(overlay.Size(), (1ull << 40) + 2);
  EXPECT_EQ(ReadAll(overlay, (1ull << 40) - 1, 4), (BYTES{0, 1, 2, 0}));
  EXPECT_EQ(WriteAll(overlay, UINT64_MAX, BYTES{1, 2}), Status::IoError);
}

TEST(Overlay, FailureOfTheOtherDeviceIsReported) {
  auto base = std::make_unique<CImageDevice>(100000);
  base->FailBytes(50000, 10);
  fatlib::Overlay overlay(std::move(base));
  BYTES bytes(10);
  EXPECT_EQ(overlay.Read(50000, bytes.data(), 10), Status::IoError);
  EXPECT_EQ(WriteAll(overlay, 49999, BYTES{1}), Status::IoError);
  EXPECT_FALSE(WriteAll(overlay, 20000, BYTES{1}));
}

}  // namespace
