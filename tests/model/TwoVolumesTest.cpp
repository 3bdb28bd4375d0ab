/// @file TwoVolumesTest.cpp
/// Two volumes mounted at once: paths go to the current one, handles to their own, and both end up right.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <tuple>

#include "support/LibFixture.h"
#include "support/VolumeReader.h"

namespace {

using BYTES = std::vector<unsigned char>;

class TwoVolumes : public CLibFixture, public ::testing::WithParamInterface<std::tuple<BACKEND, BACKEND>> {
 protected:
  void SetUp() override {
    CLibFixture::SetUp();
    for (std::size_t i = 0; i < 2; ++i) {
      FAT_GEOMETRY geometry;
      geometry.FatBits = i == 0 ? 12 : 32;
      geometry.Clusters = 1500;
      geometry.SectorsPerCluster = i == 0 ? 2 : 1;
      m_Images[i] = CImageBuilder(geometry).Image();
      m_FileSystems[i] = Mount(i == 0 ? std::get<0>(GetParam()) : std::get<1>(GetParam()), &m_Images[i]);
      ASSERT_NE(m_FileSystems[i], nullptr);
    }
  }

  void Use(std::size_t volume) { SetCurrentFileSystem(m_FileSystems[volume]); }
  static BYTES Content(std::size_t volume) {
    return CImageBuilder::Pattern(30000 + volume, static_cast<std::uint32_t>(volume));
  }
  // After its unmount the volume holds this tree, and nothing is wrong with it.
  void ExpectVolume(std::size_t volume, const std::map<std::string, BYTES>& files, std::size_t dirs) {
    const CVolumeReader reader(m_Images[volume]);
    EXPECT_EQ(reader.ProblemText(), "");
    EXPECT_TRUE(reader.LostClusters().empty());
    EXPECT_EQ(reader.Tree().size(), files.size() + dirs);
    for (const auto& [path, content] : files) {
      const VOLUME_NODE* node = reader.Find(path);
      ASSERT_NE(node, nullptr) << path;
      EXPECT_EQ(reader.Content(*node), content) << path;
    }
  }

  std::array<CDiskImage, 2> m_Images;
  std::array<CFatFileSystem*, 2> m_FileSystems{};
};

std::string BackendNames(const ::testing::TestParamInfo<std::tuple<BACKEND, BACKEND>>& info) {
  return BackendName(std::get<0>(info.param)) + BackendName(std::get<1>(info.param));
}

TEST_P(TwoVolumes, SamePathOnBoth_EachHandleKeepsItsVolume) {
  std::array<int, 2> handles{};
  for (std::size_t i = 0; i < 2; ++i) {
    Use(i);
    handles[i] = Fat_CreateFile(CPath("dir\\same name.txt"), static_cast<unsigned int>(Content(i).size()), 0x20);
    ASSERT_EQ(handles[i], static_cast<int>(i));
  }
  // In turns, in pieces that cross clusters, while now the one and now the other volume is current.
  unsigned int turn = 0;
  for (unsigned int at = 0; at < 31000; at += 1000) {
    for (std::size_t i = 0; i < 2; ++i) {
      Use(turn++ / 3 % 2);
      BYTES content = Content(i);
      if (at >= content.size()) continue;
      unsigned int done = 0;
      const unsigned int part = static_cast<unsigned int>(std::min<std::size_t>(1000, content.size() - at));
      EXPECT_EQ(Fat_WriteFileEx(handles[i], at, part, content.data() + at, &done), 1u);
    }
  }
  for (std::size_t i = 0; i < 2; ++i) {
    Use(1 - i);
    EXPECT_EQ(ReadAll(handles[i]), Content(i));
    EXPECT_EQ(Fat_CloseFile(handles[i]), 1u);
  }
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_TRUE(Unmount(m_FileSystems[i]));
    ExpectVolume(i, {{"DIR\\same name.txt", Content(i)}}, 1);
  }
}

TEST_P(TwoVolumes, NamesChangedOnOne_TheOtherKeepsItsOwn) {
  for (std::size_t i = 0; i < 2; ++i) {
    Use(i);
    ASSERT_TRUE(WritePath("A\\f", Content(i)));
    ASSERT_TRUE(WritePath("A\\g", Content(i)));
    ASSERT_EQ(Fat_CreateDir(CPath("B"), 0), 1u);
  }
  Use(0);
  EXPECT_EQ(Fat_DeleteFile(CPath("A\\f")), 1u);
  EXPECT_EQ(Fat_RenameFile(CPath("A\\g"), CPath("renamed")), 1u);
  EXPECT_FALSE(Exists("A\\f"));
  Use(1);
  EXPECT_EQ(ReadPath("A\\f"), Content(1));
  EXPECT_EQ(Fat_MoveFile(CPath("A\\g"), CPath("B")), 1u);
  EXPECT_TRUE(Unmount(m_FileSystems[0]));
  EXPECT_TRUE(Unmount(m_FileSystems[1]));
  ExpectVolume(0, {{"A\\RENAMED", Content(0)}}, 2);
  ExpectVolume(1, {{"A\\F", Content(1)}, {"B\\G", Content(1)}}, 2);
}

TEST_P(TwoVolumes, OneUnmounted_HandlesOfTheOtherGoOn) {
  Use(0);
  const int gone = Fat_CreateFile(CPath("gone"), 10, 0);
  Use(1);
  const int alive = Fat_CreateFile(CPath("alive"), static_cast<unsigned int>(Content(1).size()), 0);
  ASSERT_EQ(gone, 0);
  ASSERT_EQ(alive, 1);
  BYTES ten(10, 7);
  unsigned int done = 0;
  ASSERT_EQ(Fat_WriteFile(gone, 10, ten.data(), &done), 1u);
  EXPECT_TRUE(Unmount(m_FileSystems[0]));
  BYTES content = Content(1);
  EXPECT_EQ(Fat_WriteFileEx(alive, 0, static_cast<unsigned int>(content.size()), content.data(), &done), 1u);
  EXPECT_EQ(Fat_WriteFileEx(gone, 0, 10, ten.data(), &done), 0u);
  EXPECT_EQ(ReadAll(alive), content);
  EXPECT_EQ(Fat_CloseFile(gone), 1u);
  EXPECT_EQ(Fat_CloseFile(alive), 1u);
  EXPECT_TRUE(Unmount(m_FileSystems[1]));
  ExpectVolume(0, {{"GONE", ten}}, 0);
  ExpectVolume(1, {{"ALIVE", content}}, 0);
}

TEST_P(TwoVolumes, SearchesOnBoth_EachListsItsOwnDirectory) {
  for (std::size_t i = 0; i < 2; ++i) {
    Use(i);
    for (unsigned int n = 0; n < 5; ++n)
      ASSERT_TRUE(WritePath("D\\" + std::string(i + 1, 'v') + std::to_string(n), {}));
  }
  std::array<int, 2> searches{};
  std::array<WIN_FIND_DATA, 2> data{};
  for (std::size_t i = 0; i < 2; ++i) {
    Use(i);
    searches[i] = Fat_FindFirstFile(CPath("D"), &data[i]);
    ASSERT_GE(searches[i], 0);
  }
  const auto next = [&](std::size_t i) { return Fat_FindNextFile(searches[i], &data[i]) == 1; };
  ASSERT_TRUE(next(0) && next(1));  // ".."
  for (unsigned int n = 0; n < 5; ++n) {
    for (std::size_t i = 0; i < 2; ++i) {
      ASSERT_TRUE(next(i));
      EXPECT_EQ(ToListed(data[i]).ShortName, std::string(i + 1, 'V') + std::to_string(n));
    }
  }
  EXPECT_FALSE(next(0));
  EXPECT_FALSE(next(1));
  for (const int search : searches) EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
}

INSTANTIATE_TEST_SUITE_P(Backends, TwoVolumes,
                         ::testing::Values(std::make_tuple(BACKEND::Memory, BACKEND::Memory),
                                           std::make_tuple(BACKEND::Memory, BACKEND::File),
                                           std::make_tuple(BACKEND::File, BACKEND::Medium)),
                         BackendNames);

}  // namespace
