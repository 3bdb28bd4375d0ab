/// @file RawSlotsTest.cpp
/// The bytes of a regular file that is taken for a directory: they are those the file had when it was opened, whatever
/// happens to the file or to the blocks of its cache meanwhile.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "directory/RawSlots.h"
#include "filesystem/FatFileSystem.h"
#include "support/LibFixture.h"

namespace {

constexpr unsigned int BLOCK = 0x40000;
constexpr unsigned int SLOT_BYTES = 32;

// A file of `blocks` blocks whose slots are all used; the first slot of each block names a file "Fnnnnnnn".
std::vector<unsigned char> DirectoryLikeBytes(unsigned int blocks) {
  std::vector<unsigned char> bytes(std::size_t{blocks} * BLOCK, 0xE5);
  for (unsigned int block = 0; block < blocks; ++block) {
    char name[16];
    std::snprintf(name, sizeof(name), "F%07u   ", block);
    const auto entry = CImageBuilder::ShortEntry(CImageBuilder::ShortName11(name), 0x20, 0, 0);
    std::memcpy(&bytes[std::size_t{block} * BLOCK], entry.data(), SLOT_BYTES);
  }
  return bytes;
}

std::string Below(unsigned int block) {
  char path[40];
  std::snprintf(path, sizeof(path), "FILE\\F%07u", block);
  return path;
}

class RawSlots : public CLibFixture {
 protected:
  void OpenFileOf(unsigned int blocks) {
    FAT_GEOMETRY geometry;
    geometry.FatBits = 32;
    geometry.SectorsPerCluster = 8;
    geometry.Clusters = 70000;
    CImageBuilder builder(geometry);
    builder.AddFile(CImageBuilder::Root(), "FILE", DirectoryLikeBytes(blocks));
    builder.AddFile(CImageBuilder::Root(), "BIG", std::vector<unsigned char>(std::size_t{66} << 20, 0));
    m_pFileSystem = Mount(BACKEND::Medium, builder.Image());
    ASSERT_NE(m_pFileSystem, nullptr);
    m_nFile = Fat_OpenFile(CPath("FILE"));
    ASSERT_GE(m_nFile, 0);
  }
  void TearDown() override {
    EXPECT_EQ(Fat_CloseFile(m_nFile), 1u);
    CLibFixture::TearDown();
  }

  // Reads so much of another file that the pool drops every block it had.
  static void PushEverythingOut() {
    const int big = Fat_OpenFile(CPath("BIG"));
    ASSERT_GE(big, 0);
    (void)ReadAll(big);
    EXPECT_EQ(Fat_CloseFile(big), 1u);
  }

  CFatFileSystem* m_pFileSystem = nullptr;
  int m_nFile = -1;
};

TEST_F(RawSlots, FileOpenedAndLeftAlone_IsLookedThroughWhereItLies) {
  OpenFileOf(3);
  for (unsigned int block = 0; block < 3; ++block) EXPECT_TRUE(Exists(Below(block))) << block;
  EXPECT_FALSE(Exists(Below(3)));
}

TEST_F(RawSlots, FileOverwrittenAfterOpening_ShowsTheEntriesItHadThen) {
  OpenFileOf(3);
  std::vector<unsigned char> junk(3 * BLOCK, 0xE5);
  unsigned int done = 0;
  ASSERT_EQ(Fat_WriteFileEx(m_nFile, 0, 3 * BLOCK, junk.data(), &done), 1u);
  for (unsigned int block = 0; block < 3; ++block) EXPECT_TRUE(Exists(Below(block))) << block;
  EXPECT_EQ(ReadAll(m_nFile), junk);
}

TEST_F(RawSlots, BlocksPushedOutOfThePool_EntriesAreStillThere) {
  OpenFileOf(3);
  PushEverythingOut();
  for (unsigned int block = 0; block < 3; ++block) EXPECT_TRUE(Exists(Below(block))) << block;
}

TEST_F(RawSlots, OneByteOfTheLastBlockChanged_OnlyThatBlockIsCopied) {
  OpenFileOf(8);
  unsigned char byte = 'X';
  unsigned int done = 0;
  const std::size_t before = Memory().OutstandingBytes();
  ASSERT_EQ(Fat_WriteFileEx(m_nFile, 7 * BLOCK, 1, &byte, &done), 1u);
  EXPECT_EQ(Memory().OutstandingBytes() - before, BLOCK);
  EXPECT_TRUE(Exists(Below(7)));
}

TEST_F(RawSlots, FileOfManyBlocks_TheFirst65536SlotsCount) {
  OpenFileOf(9);
  PushEverythingOut();
  EXPECT_TRUE(Exists(Below(7)));
  EXPECT_FALSE(Exists(Below(8)));
}

TEST_F(RawSlots, NoMemoryForTheCopy_WriteSucceedsAndNothingIsFoundBelow) {
  OpenFileOf(2);
  unsigned char byte = 'X';
  unsigned int done = 0;
  Memory().FailAt(1, CMemHooks::FOR_GOOD);
  EXPECT_EQ(Fat_WriteFileEx(m_nFile, 0, 1, &byte, &done), 1u);
  EXPECT_TRUE(Memory().Fired());
  Memory().Heal();
  EXPECT_FALSE(Exists(Below(0)));
  EXPECT_FALSE(Exists(Below(1)));
  EXPECT_EQ(ReadAt(m_nFile, 0, 1), std::vector<unsigned char>{'X'});
}

TEST_F(RawSlots, UnmountedWithBlocksInUse_NothingIsCopied) {
  OpenFileOf(8);
  const std::size_t before = Memory().OutstandingBytes();
  Memory().ResetPeak();
  EXPECT_TRUE(Unmount(m_pFileSystem));
  EXPECT_LT(Memory().PeakBytes(), before + 2 * BLOCK);  // the copy of the FAT takes somewhat more than a block
}

}  // namespace
