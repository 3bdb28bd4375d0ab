/// @file HotPathsTest.cpp
/// What a host does most often takes no memory: reading, writing, seeking, and opening what is cached.

#include <gtest/gtest.h>

#include "support/LibFixture.h"

namespace {

constexpr unsigned int BLOCK = 0x40000;

class HotPaths : public CLibFixture {
 protected:
  void SetUp() override {
    CLibFixture::SetUp();
    FAT_GEOMETRY geometry;
    geometry.FatBits = 32;
    geometry.Clusters = 70000;
    CImageBuilder builder(geometry);
    const CImageBuilder::DIRECTORY directory = builder.AddDir(CImageBuilder::Root(), "Directory");
    builder.AddFile(directory, "Some file.data", std::vector<unsigned char>(4 * BLOCK, 0));
    ASSERT_NE(Mount(BACKEND::Medium, builder.Image()), nullptr);
    m_nFile = Fat_OpenFile(CPath("Directory\\Some file.data"));
    ASSERT_GE(m_nFile, 0);
    // Every block is in the cache, and has its place there.
    (void)ReadAll(m_nFile);
    Memory().ResetCount();
  }
  void TearDown() override {
    EXPECT_EQ(Memory().Allocations(), 0u);
    EXPECT_EQ(Fat_CloseFile(m_nFile), 1u);
    CLibFixture::TearDown();
  }

  int m_nFile = -1;
  unsigned char m_Buffer[2 * BLOCK] = {};
};

TEST_F(HotPaths, Reading_TakesNoMemory) {
  unsigned int done = 0;
  for (const unsigned int offset : {0u, 1u, 511u, BLOCK - 1, BLOCK, 3 * BLOCK - 5}) {
    for (const unsigned int count : {1u, 4096u, BLOCK, BLOCK + 7}) {
      EXPECT_EQ(Fat_ReadFileEx(m_nFile, offset, count, m_Buffer, &done), 1u);
    }
  }
  EXPECT_EQ(Fat_ReadFile(m_nFile, 100, m_Buffer, &done), 1u);
}

TEST_F(HotPaths, Writing_TakesNoMemory) {
  unsigned int done = 0;
  for (const unsigned int offset : {0u, 1u, 511u, BLOCK - 1, BLOCK, 3 * BLOCK - 5}) {
    for (const unsigned int count : {1u, 4096u, BLOCK, BLOCK + 7}) {
      EXPECT_EQ(Fat_WriteFileEx(m_nFile, offset, count, m_Buffer, &done), 1u);
    }
  }
  EXPECT_EQ(Fat_WriteFile(m_nFile, 100, m_Buffer, &done), 1u);
}

TEST_F(HotPaths, SeekingAndAsking_TakeNoMemory) {
  unsigned int value = 0;
  for (const unsigned int method : {0u, 1u, 2u}) EXPECT_EQ(Fat_SetFileOffset(m_nFile, 1000, method), 1u);
  EXPECT_EQ(Fat_GetFileOffset(m_nFile, &value), 1u);
  EXPECT_EQ(Fat_GetFileSize(m_nFile, &value), 1u);
  EXPECT_EQ(Fat_IsDir(m_nFile), 0u);
  WIN_FIND_DATA data;
  EXPECT_EQ(Fat_GetFileAttribute(m_nFile, &data), 1u);
}

TEST_F(HotPaths, OpeningWhatIsCached_TakesNoMemory) {
  for (const char* path : {"Directory\\Some file.data", "DIRECTORY\\SOME FILE.DATA", "Directory"}) {
    const int handle = Fat_OpenFile(CPath(path));
    ASSERT_GE(handle, 0) << path;
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
  }
}

TEST_F(HotPaths, LookingForANameThatIsNotThere_TakesNoMemory) {
  EXPECT_EQ(Fat_OpenFile(CPath("Directory\\No such file.data")), -1);
}

}  // namespace
