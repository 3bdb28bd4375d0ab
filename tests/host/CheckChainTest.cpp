/// @file CheckChainTest.cpp
/// Defects of cluster chains: loops, breaks, shared and lost clusters, sizes.

#include <gtest/gtest.h>

#include "CheckedVolume.h"

namespace {

using fatlib::CheckReport;
constexpr CImageBuilder::DIRECTORY ROOT = CCheckedVolume::ROOT;

class CheckChain : public ::testing::TestWithParam<int> {
 protected:
  CCheckedVolume m_Volume{GetParam()};
  CImageBuilder& m_Builder = m_Volume.Builder();
  std::uint32_t m_nOnes = GetParam() == 12 ? 0xFFF : GetParam() == 16 ? 0xFFFF : 0x0FFFFFFF;
};

INSTANTIATE_TEST_SUITE_P(Fat, CheckChain, ::testing::Values(12, 16, 32), ::testing::PrintToStringParamName());

TEST_P(CheckChain, HealthyFilesAreCounted) {
  m_Builder.AddFile(ROOT, "EMPTY");
  m_Builder.AddFile(ROOT, "RUNS", CImageBuilder::Pattern(2000, 1), {50, 51, 40, 45});
  m_Volume.AddFile("WHOLE", 1024, 60, m_Builder.AddDir(ROOT, "DIR", {70}));
  m_Builder.SetFatEntry(90, m_nOnes - 8);  // the mark of a bad cluster
  const CheckReport report = m_Volume.Report();
  EXPECT_EQ(TOLD(), ToldOf(report));
  EXPECT_EQ(3u, report.files);
  EXPECT_EQ(1u, report.directories);
  EXPECT_EQ(1u, report.fragmentedFiles);
  EXPECT_EQ(4u, report.runs);  // 50-51, 40, 45; 60-61
  EXPECT_EQ(1u, report.badClusters);
  const unsigned int used = 7 + (GetParam() == 32 ? 1 : 0);
  EXPECT_EQ(used, report.usedClusters);
  EXPECT_EQ(m_Builder.Geometry().Clusters - used - 1, report.freeClusters);
}

TEST_P(CheckChain, ChainThatLeadsBackIsALoop) {
  m_Volume.AddFile("A", 2048, 50);
  m_Builder.SetFatEntry(53, 51);
  EXPECT_EQ(TOLD{"chain-loops /A 51"}, m_Volume.Check());
}

TEST_P(CheckChain, ClusterThatLeadsToItselfIsALoop) {
  m_Volume.AddFile("A", 512, 50);
  m_Builder.SetFatEntry(50, 50);
  EXPECT_EQ(TOLD{"chain-loops /A 50"}, m_Volume.Check());
}

TEST_P(CheckChain, ChainThatLeadsToNoClusterIsBroken) {
  const std::uint32_t clusters = m_Builder.Geometry().Clusters;
  for (const std::uint32_t entry : {0u, 1u, m_nOnes - 8, m_nOnes - 9, clusters + 2, m_nOnes - 15}) {
    m_Volume.AddFile("A", 1024, 50);
    m_Builder.SetFatEntry(51, entry);
    EXPECT_EQ(TOLD{"chain-broken /A 51" + (entry == 0 ? "" : " " + std::to_string(entry))}, m_Volume.Check());
    m_Volume.SetSlotByte(ROOT, 0, 0, 0);
    m_Builder.SetNextSlot(ROOT, 0);
  }
}

TEST_P(CheckChain, ValuesFromTheEndMarkOnEndAChain) {
  m_Volume.AddFile("A", 1024, 50);
  m_Builder.SetFatEntry(51, m_nOnes - 7);
  EXPECT_EQ(TOLD(), m_Volume.Check());
}

TEST_P(CheckChain, LastClusterOfTheVolumeCanBeUsed) {
  m_Volume.AddFile("A", 1024, m_Builder.Geometry().Clusters);
  EXPECT_EQ(TOLD(), m_Volume.Check());
}

TEST_P(CheckChain, ClusterOfTwoFilesIsToldWithBoth) {
  m_Volume.AddFile("A", 1536, 50);
  m_Volume.AddFile("B", 1536, 60);
  m_Builder.SetFatEntry(60, 51);
  m_Builder.SetFatEntry(61, 0);
  m_Builder.SetFatEntry(62, 0);
  EXPECT_EQ(TOLD{"cross-linked /B 51 /A"}, m_Volume.Check());
}

TEST_P(CheckChain, EachOfThreeFilesOnOneClusterNamesAnother) {
  m_Volume.AddFile("A", 512, 50);
  for (const char* name : {"B", "C"}) m_Volume.AddFile(name, 512, 50);
  EXPECT_EQ((TOLD{"cross-linked /B 50 /A", "cross-linked /C 50 /A"}), m_Volume.Check());
}

TEST_P(CheckChain, ChainThatRunsIntoALoopIsNoLoopItself) {
  m_Volume.AddFile("A", 1536, 50);
  m_Builder.SetFatEntry(52, 50);
  m_Volume.AddFile("B", 512, 60);
  m_Builder.SetFatEntry(60, 51);
  EXPECT_EQ((TOLD{"chain-loops /A 50", "cross-linked /B 51 /A"}), m_Volume.Check());
}

TEST_P(CheckChain, SizeOfACrossLinkedFileIsComparedWithTheWholeChain) {
  m_Volume.AddFile("A", 1536, 50);
  m_Volume.AddFile("B", 512, 60);
  m_Builder.SetFatEntry(60, 51);  // 60, 51, 52
  EXPECT_EQ((TOLD{"cross-linked /B 51 /A", "chain-beyond-size /B 512 3"}), m_Volume.Check());
}

TEST_P(CheckChain, FileInADirectorysClusterIsCrossLinked) {
  const CImageBuilder::DIRECTORY dir = m_Builder.AddDir(ROOT, "DIR", {70});
  m_Volume.AddFile("X", 10, 80, dir);
  ENTRY_OPTIONS options;
  options.SetFirstCluster = options.SetSize = true;
  options.FirstCluster = 70;
  options.Size = 512;
  m_Builder.AddFile(ROOT, "FILE", {}, {}, options);
  EXPECT_EQ(TOLD{"cross-linked /FILE 70 /DIR"}, m_Volume.Check());
}

// ---------------------------------------------------------------------------------------------- lost clusters

TEST_P(CheckChain, LostChainsAreToldByTheirFirstClusters) {
  m_Builder.SetChain({50, 51, 52});
  m_Builder.SetChain({62, 61, 60});
  const CheckReport report = m_Volume.Report();
  EXPECT_EQ((TOLD{"lost-chain 50 3", "lost-chain 62 3"}), ToldOf(report));
  EXPECT_EQ(6u, report.lostClusters);
}

TEST_P(CheckChain, LostLoopHasNoBeginning) {
  m_Builder.SetChain({52, 51, 50});
  m_Builder.SetFatEntry(50, 52);
  EXPECT_EQ(TOLD{"lost-chain 50 3"}, m_Volume.Check());
}

TEST_P(CheckChain, LostChainsThatMeetShareNoCount) {
  m_Builder.SetChain({50, 51, 52});
  m_Builder.SetChain({60, 61});
  m_Builder.SetFatEntry(61, 51);
  const CheckReport report = m_Volume.Report();
  EXPECT_EQ((TOLD{"lost-chain 50 3", "lost-chain 60 2"}), ToldOf(report));
  EXPECT_EQ(5u, report.lostClusters);
}

TEST_P(CheckChain, LostChainThatRunsIntoAFileEndsThere) {
  m_Volume.AddFile("A", 512, 50);
  m_Builder.SetChain({60, 61});
  m_Builder.SetFatEntry(61, 50);
  EXPECT_EQ(TOLD{"lost-chain 60 2"}, m_Volume.Check());
}

TEST_P(CheckChain, BadClustersAreNotLost) {
  m_Builder.SetFatEntry(90, m_nOnes - 8);
  EXPECT_EQ(TOLD(), m_Volume.Check());
  EXPECT_EQ(1u, m_Volume.Report().badClusters);
}

// ---------------------------------------------------------------------------------------------- sizes

TEST_P(CheckChain, SizeThatNeedsMoreClustersIsTold) {
  const unsigned int slot = m_Volume.AddFile("A", 1024, 50);
  m_Volume.Image().Set32(m_Builder.SlotOffset(ROOT, slot) + 28, 1025);
  EXPECT_EQ(TOLD{"size-beyond-chain /A 1025 2"}, m_Volume.Check());
  m_Volume.Image().Set32(m_Builder.SlotOffset(ROOT, slot) + 28, 0xFFFFFFFF);
  EXPECT_EQ(TOLD{"size-beyond-chain /A 4294967295 2"}, m_Volume.Check());
}

TEST_P(CheckChain, SizeWithoutChainIsTold) {
  const unsigned int slot = m_Builder.AddFile(ROOT, "A");
  m_Volume.Image().Set32(m_Builder.SlotOffset(ROOT, slot) + 28, 1);
  EXPECT_EQ(TOLD{"size-beyond-chain /A 1"}, m_Volume.Check());
}

TEST_P(CheckChain, SizeThatNeedsFewerClustersIsTold) {
  const unsigned int slot = m_Volume.AddFile("A", 1024, 50);
  m_Volume.Image().Set32(m_Builder.SlotOffset(ROOT, slot) + 28, 512);
  EXPECT_EQ(TOLD{"chain-beyond-size /A 512 2"}, m_Volume.Check());
  m_Volume.Image().Set32(m_Builder.SlotOffset(ROOT, slot) + 28, 0);
  EXPECT_EQ(TOLD{"chain-beyond-size /A 0 2"}, m_Volume.Check());
}

// ---------------------------------------------------------------------------------------------- first clusters

TEST_P(CheckChain, FirstClusterMustBeOneOfTheVolume) {
  const std::uint32_t clusters = m_Builder.Geometry().Clusters;
  for (const std::uint32_t first : {1u, clusters + 2, 0x10005u + (GetParam() == 32 ? 0x0FFF0000u : 0u), 0xFFFFFFFFu}) {
    CCheckedVolume volume(GetParam());
    ENTRY_OPTIONS options;
    options.SetFirstCluster = options.SetSize = true;
    options.FirstCluster = first;
    options.Size = 100;
    volume.Builder().AddFile(ROOT, "A", {}, {}, options);
    EXPECT_EQ(TOLD{"first-cluster-invalid /A " + std::to_string(first)}, volume.Check());
  }
}

TEST(CheckRoot, RootClusterMustBeOneOfTheVolume) {
  CCheckedVolume volume(32);
  for (const unsigned int boot : {0u, 6u * 512}) volume.Image().Set32(boot + 0x2C, 1);
  EXPECT_EQ((TOLD{"first-cluster-invalid / 1", "lost-chain 2 1"}), volume.Check());
}

TEST(CheckRoot, RootChainIsFollowedToo) {
  CCheckedVolume volume(32);
  volume.Builder().SetChain({2, 50});
  EXPECT_EQ(TOLD(), volume.Check());
  EXPECT_EQ(2u, volume.Report().usedClusters);
  volume.Builder().SetFatEntry(50, 2);
  EXPECT_EQ(TOLD{"chain-loops / 2"}, volume.Check());
  volume.Builder().SetFatEntry(50, 0);
  EXPECT_EQ(TOLD{"chain-broken / 50"}, volume.Check());
  volume.Builder().SetChain({2, 50});
  volume.AddFile("A", 512, 50);
  EXPECT_EQ(TOLD{"cross-linked /A 50 /"}, volume.Check());
}

}  // namespace
