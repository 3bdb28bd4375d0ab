/// @file XRunsTest.cpp
/// Run maps against a flat vector that names the cluster (or marker) of every VBN, and the storage of the maps: the
/// pool of first arrays, growing and shrinking, and memory that runs out. Every test ends with all memory given back.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <ostream>
#include <random>
#include <vector>

#include "allocation/XRuns.h"
#include "support/MemHooks.h"

namespace {

constexpr unsigned HOLE = 0xFFFFFFFFu;
constexpr unsigned GAP = 0xFFFFFFFEu;
constexpr unsigned UNTOUCHED = 0xAAAAAAAAu;

struct RUN {
  unsigned Vbn;
  unsigned Lbn;
  unsigned Length;
  bool operator==(const RUN& other) const { return Vbn == other.Vbn && Lbn == other.Lbn && Length == other.Length; }
};

std::ostream& operator<<(std::ostream& out, const RUN& run) {
  return out << '{' << run.Vbn << " at " << run.Lbn << ", " << run.Length << '}';
}

std::vector<RUN> RunsOf(const CRuns& map) {
  std::vector<RUN> runs;
  RUN run;
  for (unsigned i = 1; map.GetEntry(i, &run.Vbn, &run.Lbn, &run.Length); ++i) runs.push_back(run);
  EXPECT_EQ(runs.size(), map.NumberOfRuns());
  return runs;
}

/// What the twin holds: the LBN or marker of every VBN.
using FLAT = std::vector<unsigned>;

FLAT FlatOf(const CRuns& map) {
  FLAT flat;
  for (const RUN& run : RunsOf(map)) {
    for (unsigned i = 0; i < run.Length; ++i) flat.push_back(run.Lbn > 0x7FFFFFFFu ? run.Lbn : run.Lbn + i);
  }
  return flat;
}

FLAT Stretch(unsigned lbn, unsigned count) {
  FLAT flat;
  for (unsigned i = 0; i < count; ++i) flat.push_back(lbn > 0x7FFFFFFFu ? lbn : lbn + i);
  return flat;
}

void Append(FLAT& flat, const FLAT& more) { flat.insert(flat.end(), more.begin(), more.end()); }

auto At(FLAT& flat, unsigned index) { return flat.begin() + static_cast<std::ptrdiff_t>(index); }

/// The number of contiguous stretches, which is the number of runs of a map made by appending only.
unsigned StretchesOf(const FLAT& flat) {
  unsigned stretches = 0;
  for (std::size_t i = 0; i < flat.size(); ++i) {
    const bool isMarker = flat[i] > 0x7FFFFFFFu;
    if (i == 0 || flat[i] != (isMarker ? flat[i - 1] : flat[i - 1] + 1)) ++stretches;
  }
  return stretches;
}

/// Looks one VBN up in every way there is.
void ExpectLookups(const CRuns& map, const FLAT& flat, unsigned vbn) {
  unsigned lbn = UNTOUCHED, count = UNTOUCHED, index = UNTOUCHED, startingLbn = UNTOUCHED, runLength = UNTOUCHED;
  if (vbn >= flat.size()) {
    ASSERT_FALSE(map.LookupEntry(vbn, &lbn, &count));
    ASSERT_FALSE(map.LookupEntry(vbn, &lbn, &count, &index));
    ASSERT_EQ(index, UNTOUCHED);
    ASSERT_FALSE(map.LookupEntry(vbn, &lbn, &count, &startingLbn, &runLength));
    ASSERT_EQ(lbn, UNTOUCHED);
    ASSERT_EQ(count, UNTOUCHED);
    ASSERT_EQ(startingLbn, UNTOUCHED);
    ASSERT_EQ(runLength, UNTOUCHED);
    ASSERT_FALSE(map.FindIndex(vbn, &index));
    ASSERT_EQ(index, map.NumberOfRuns() + 1);
    return;
  }
  const bool found = flat[vbn] != GAP;
  ASSERT_EQ(map.LookupEntry(vbn, &lbn, &count), found);
  ASSERT_EQ(lbn, flat[vbn]);
  ASSERT_GE(count, 1u);
  ASSERT_EQ(
      FLAT(flat.begin() + static_cast<std::ptrdiff_t>(vbn), flat.begin() + static_cast<std::ptrdiff_t>(vbn + count)),
      Stretch(lbn, count));
  unsigned lbn4, count4;
  ASSERT_EQ(map.LookupEntry(vbn, &lbn4, &count4, &index), found);
  ASSERT_EQ(lbn4, lbn);
  ASSERT_EQ(count4, count);
  unsigned lbn5, count5;
  ASSERT_EQ(map.LookupEntry(vbn, &lbn5, &count5, &startingLbn, &runLength), found);
  ASSERT_EQ(lbn5, lbn);
  ASSERT_EQ(count5, count);
  unsigned found2 = UNTOUCHED;
  ASSERT_TRUE(map.FindIndex(vbn, &found2));
  ASSERT_EQ(found2, index);
  ASSERT_LE(map.StartingVbn(index), vbn);
  ASSERT_EQ(map.EndingVbn(index), vbn + count - 1);
  ASSERT_EQ(map.NextStartingVbn(index), vbn + count);
  ASSERT_EQ(map.StartingLbn(index), startingLbn);
  ASSERT_EQ(map.LengthOfRun(index), runLength);
  ASSERT_EQ(startingLbn, flat[map.StartingVbn(index)]);
  ASSERT_EQ(map.LbnWithinRun(index, vbn), lbn);
}

void ExpectLikeTwin(const CRuns& map, const FLAT& flat) {
  ASSERT_TRUE(map.CheckMapping());
  ASSERT_EQ(map.Length(), flat.size());
  ASSERT_EQ(map.VbnBeyondEnd(), flat.size());
  ASSERT_EQ(FlatOf(map), flat);
  unsigned vbn = UNTOUCHED, lbn = UNTOUCHED;
  ASSERT_EQ(map.GetLastEntry(&vbn, &lbn), !flat.empty());
  ASSERT_EQ(vbn, flat.empty() ? UNTOUCHED : flat.size() - 1);
  ASSERT_EQ(lbn, flat.empty() ? UNTOUCHED : flat.back());
}

class Runs : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(CRuns::InitializeFirstPool());
    ASSERT_TRUE(m_Map.Initialize());
  }
  void TearDown() override {
    m_Memory.Heal();
    m_Map.Uninitialize();
    m_Other.Uninitialize();
    CRuns::UninitializeFirstPool();
    EXPECT_EQ(m_Memory.Outstanding(), 0u);
    EXPECT_EQ(m_Memory.UnknownFrees(), 0u);
  }

  /// Appends single clusters that do not touch each other, until the map has that many runs.
  static void FillTo(CRuns& map, unsigned runs) {
    while (map.NumberOfRuns() < runs) ASSERT_TRUE(map.AppendEntry(2 + 10 * map.NumberOfRuns(), 1));
  }
  /// All that a failed change may not touch.
  struct STATE {
    std::vector<RUN> Runs;
    unsigned Room;
    bool operator==(const STATE& other) const { return Runs == other.Runs && Room == other.Room; }
  };
  static STATE StateOf(const CRuns& map) { return {RunsOf(map), map.Room()}; }

  CMemHooks m_Memory;
  CRuns m_Map;
  CRuns m_Other;  // not initialised yet
};

// ------------------------------------------------------------------------------------------------------ look-ups

TEST_F(Runs, FreshMap_IsEmpty) {
  EXPECT_EQ(m_Map.NumberOfRuns(), 0u);
  EXPECT_EQ(m_Map.Length(), 0u);
  EXPECT_EQ(m_Map.VbnBeyondEnd(), 0u);
  EXPECT_EQ(m_Map.Room(), 16u);
  unsigned vbn, lbn, length;
  EXPECT_FALSE(m_Map.GetLastEntry(&vbn, &lbn));
  EXPECT_FALSE(m_Map.LookupEntry(0, &lbn, &length));
  EXPECT_FALSE(m_Map.GetEntry(0, &vbn, &lbn, &length));
  EXPECT_FALSE(m_Map.GetEntry(1, &vbn, &lbn, &length));
  EXPECT_EQ(m_Map.NextStartingVbn(0), 0u);
  EXPECT_EQ(m_Map.StartingLbn(0), 0xFFFFFFFDu);
  ExpectLookups(m_Map, {}, 0);
  ExpectLookups(m_Map, {}, 0xFFFFFFFFu);
}

TEST_F(Runs, ClustersAppendedOneByOne_ContiguousOnesShareARun) {
  for (unsigned lbn : {5u, 6u, 7u, 9u}) ASSERT_TRUE(m_Map.AppendEntry(lbn, 1));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 5, 3}, {3, 9, 1}}));
  unsigned lbn, count;
  EXPECT_TRUE(m_Map.LookupEntry(1, &lbn, &count));
  EXPECT_EQ(lbn, 6u);
  EXPECT_EQ(count, 2u);
}

TEST_F(Runs, LookupInTheMiddle_TellsItsRunToo) {
  ASSERT_TRUE(m_Map.AppendEntry(100, 10));
  ASSERT_TRUE(m_Map.AppendEntry(50, 5));
  unsigned lbn, count, index, startingLbn, runLength;
  EXPECT_TRUE(m_Map.LookupEntry(12, &lbn, &count, &index));
  EXPECT_EQ(lbn, 52u);
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(index, 2u);
  EXPECT_TRUE(m_Map.LookupEntry(9, &lbn, &count, &startingLbn, &runLength));
  EXPECT_EQ(lbn, 109u);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(startingLbn, 100u);
  EXPECT_EQ(runLength, 10u);
  unsigned vbn;
  EXPECT_TRUE(m_Map.GetLastEntry(&vbn, &lbn));
  EXPECT_EQ(vbn, 14u);
  EXPECT_EQ(lbn, 54u);
}

TEST_F(Runs, EveryVbnInEveryOrder_IsFoundLikeInAFlatVector) {
  std::mt19937 random(1);
  FLAT flat;
  for (unsigned i = 0; i < 300; ++i) {
    const auto lbn = i % 50 == 3 ? HOLE : static_cast<unsigned>(random() % 1000000);
    const auto count = static_cast<unsigned>(1 + random() % 5);
    ASSERT_TRUE(m_Map.AppendEntry(lbn, count));
    Append(flat, Stretch(lbn, count));
  }
  const auto size = static_cast<unsigned>(flat.size());
  for (unsigned vbn = 0; vbn < size + 2; ++vbn) ExpectLookups(m_Map, flat, vbn);
  for (unsigned vbn = size + 2; vbn-- > 0;) ExpectLookups(m_Map, flat, vbn);
  for (unsigned i = 0; i < 3000; ++i) ExpectLookups(m_Map, flat, static_cast<unsigned>(random() % (size + 2)));
}

TEST_F(Runs, LookupAfterTheMapWasCut_IgnoresWhereTheLastOneWas) {
  FillTo(m_Map, 10);
  unsigned lbn, count;
  ASSERT_TRUE(m_Map.LookupEntry(9, &lbn, &count));
  m_Map.Truncate(3);
  EXPECT_FALSE(m_Map.LookupEntry(9, &lbn, &count));
  EXPECT_TRUE(m_Map.LookupEntry(2, &lbn, &count));
  EXPECT_EQ(lbn, 22u);
  m_Map.Reset();
  EXPECT_FALSE(m_Map.LookupEntry(0, &lbn, &count));
  ASSERT_TRUE(m_Map.AppendEntry(7, 4));
  ASSERT_TRUE(m_Map.LookupEntry(3, &lbn, &count));
  EXPECT_EQ(lbn, 10u);
}

TEST_F(Runs, LbnWithTheTopBitSet_IsNeverOffset) {
  for (unsigned marker : {HOLE, GAP, 0x80000000u, 0x80000005u, 0xFFFFFFFDu}) {
    m_Map.Reset();
    ASSERT_TRUE(m_Map.AppendEntry(7, 1));
    ASSERT_TRUE(m_Map.AppendEntry(marker, 10));
    for (unsigned vbn = 1; vbn <= 11; ++vbn) EXPECT_EQ(m_Map.LbnWithinRun(2, vbn), marker);
    ExpectLikeTwin(m_Map, {7, marker, marker, marker, marker, marker, marker, marker, marker, marker, marker});
  }
}

TEST_F(Runs, HoleIsFound_UnmappedGapIsNot) {
  ASSERT_TRUE(m_Map.AppendEntry(HOLE, 2));
  ASSERT_TRUE(m_Map.AppendEntry(GAP, 2));
  unsigned lbn, count;
  EXPECT_TRUE(m_Map.LookupEntry(1, &lbn, &count));
  EXPECT_EQ(lbn, HOLE);
  EXPECT_EQ(count, 1u);
  EXPECT_FALSE(m_Map.LookupEntry(2, &lbn, &count));
  EXPECT_EQ(lbn, GAP);
  EXPECT_EQ(count, 2u);
}

// ------------------------------------------------------------------------------------------------------ adding

TEST_F(Runs, AddedBeyondTheEnd_TheGapIsUnmapped) {
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  ASSERT_TRUE(m_Map.AddEntry(10, 50, 2));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 20, 4}, {4, GAP, 6}, {10, 50, 2}}));
  unsigned lbn, count;
  EXPECT_FALSE(m_Map.LookupEntry(6, &lbn, &count));
  EXPECT_EQ(lbn, GAP);
}

TEST_F(Runs, AddedBeyondTheEndOfAnEmptyMap_TheGapStartsAt0) {
  ASSERT_TRUE(m_Map.AddEntry(3, 50, 2));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, GAP, 3}, {3, 50, 2}}));
}

TEST_F(Runs, AddedBeyondAGapAtTheEnd_TheGapGetsLonger) {
  ASSERT_TRUE(m_Map.AddEntry(3, GAP, 2));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, GAP, 5}}));
  ASSERT_TRUE(m_Map.AddEntry(9, 50, 2));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, GAP, 9}, {9, 50, 2}}));
}

TEST_F(Runs, BatchAppended_OnlyItsFirstRunIsMerged) {
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  const CRuns::MAPPING batch[] = {{4, 0}, {6, 24}, {8, 26}, {9, 7}};
  ASSERT_TRUE(m_Map.AddEntries(batch, 3));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 20, 6}, {6, 26, 2}, {8, 7, 1}}));
}

TEST_F(Runs, AddedOverClusters_IsRefused) {
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  ASSERT_TRUE(m_Map.AppendEntry(HOLE, 4));
  const STATE before = StateOf(m_Map);
  EXPECT_FALSE(m_Map.AddEntry(0, 70, 1));
  EXPECT_FALSE(m_Map.AddEntry(3, 70, 2));
  EXPECT_FALSE(m_Map.AddEntry(3, 70, 9));
  EXPECT_EQ(StateOf(m_Map), before);
}

TEST_F(Runs, HoleFilledInPart_KeepsItsHeadAndTail) {
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  ASSERT_TRUE(m_Map.AppendEntry(HOLE, 10));
  ASSERT_TRUE(m_Map.AppendEntry(90, 2));
  ASSERT_TRUE(m_Map.AddEntry(7, 50, 3));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 20, 4}, {4, HOLE, 3}, {7, 50, 3}, {10, HOLE, 4}, {14, 90, 2}}));
}

TEST_F(Runs, HoleFilledToContinueItsNeighbours_MergesWithThem) {
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  ASSERT_TRUE(m_Map.AppendEntry(HOLE, 10));
  ASSERT_TRUE(m_Map.AppendEntry(34, 2));
  ASSERT_TRUE(m_Map.AddEntry(4, 24, 2));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 20, 6}, {6, HOLE, 8}, {14, 34, 2}}));
  ASSERT_TRUE(m_Map.AddEntry(12, 32, 2));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 20, 6}, {6, HOLE, 6}, {12, 32, 4}}));
  ASSERT_TRUE(m_Map.AddEntry(6, 26, 6));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 20, 16}}));
}

TEST_F(Runs, HolesAndGapsFilledWithAHole_AreOneHoleWhereTheyTouch) {
  ASSERT_TRUE(m_Map.AppendEntry(HOLE, 10));
  ASSERT_TRUE(m_Map.AddEntry(3, HOLE, 2));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, HOLE, 10}}));
  ASSERT_TRUE(m_Map.AppendEntry(GAP, 6));
  ASSERT_TRUE(m_Map.AddEntry(10, HOLE, 4));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, HOLE, 14}, {14, GAP, 2}}));
  ASSERT_TRUE(m_Map.AppendEntry(HOLE, 3));
  ASSERT_TRUE(m_Map.AddEntry(14, HOLE, 2));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, HOLE, 19}}));
}

TEST_F(Runs, HoleAtTheEndFilledBeyondTheEnd_TheMapGetsLonger) {
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  ASSERT_TRUE(m_Map.AppendEntry(HOLE, 2));
  ASSERT_TRUE(m_Map.AppendEntry(GAP, 2));
  const CRuns::MAPPING batch[] = {{5, 0}, {7, 60}, {30, 70}};
  ASSERT_TRUE(m_Map.AddEntries(batch, 2));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 20, 4}, {4, HOLE, 1}, {5, 60, 2}, {7, 70, 23}}));
}

TEST_F(Runs, SeveralHolesFilledByOneRun_TakesFewerElements) {
  for (unsigned i = 0; i < 4; ++i) ASSERT_TRUE(m_Map.AppendEntry(i % 2 == 0 ? HOLE : GAP, 3));
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  ASSERT_TRUE(m_Map.AddEntry(0, 8, 12));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 8, 16}}));
}

TEST_F(Runs, ImpossibleRuns_AreRefused) {
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  const STATE before = StateOf(m_Map);
  EXPECT_FALSE(m_Map.AppendEntry(24, 0));
  EXPECT_FALSE(m_Map.AppendEntry(30, 0));
  EXPECT_FALSE(m_Map.AppendEntry(GAP, 0));
  EXPECT_FALSE(m_Map.AddEntry(9, 30, 0));
  EXPECT_FALSE(m_Map.ModifyEntry(2, 0, 30));
  EXPECT_FALSE(m_Map.AppendEntry(24, 0x7FFFFFE9u));        // passes LBN 0x7FFFFFFF
  EXPECT_FALSE(m_Map.AppendEntry(0x7FFFFFFFu, 2));         // so does this
  EXPECT_FALSE(m_Map.AppendEntry(HOLE, 0xFFFFFFFFu - 3));  // passes VBN 0xFFFFFFFE
  EXPECT_FALSE(m_Map.AddEntry(0xFFFFFFFFu, 30, 1));        // so does this
  EXPECT_FALSE(m_Map.ModifyEntry(2, 0xFFFFFFFEu, HOLE));   // and this
  const CRuns::MAPPING falling[] = {{4, 0}, {9, 60}, {8, 70}};
  EXPECT_FALSE(m_Map.AddEntries(falling, 2));
  EXPECT_FALSE(m_Map.AddEntries(falling, 0));
  EXPECT_FALSE(m_Map.AddEntries(falling, -1));
  EXPECT_EQ(StateOf(m_Map), before);
  ASSERT_TRUE(m_Map.AppendEntry(HOLE, 3));
  EXPECT_FALSE(m_Map.AppendEntry(HOLE, 0));
  EXPECT_FALSE(m_Map.AppendEntry(HOLE, 0xFFFFFFF9u));  // would pass VBN 0xFFFFFFFE by making the last run longer
  EXPECT_EQ(m_Map.Length(), 7u);
  ASSERT_TRUE(m_Map.AppendEntry(HOLE, 0xFFFFFFF0u));
  ASSERT_TRUE(m_Map.AppendEntry(50, 4));
  EXPECT_FALSE(m_Map.AppendEntry(54, 5));  // so would a run of clusters
  EXPECT_TRUE(m_Map.AppendEntry(54, 4));
  EXPECT_EQ(m_Map.Length(), 0xFFFFFFFFu);
  EXPECT_TRUE(m_Map.CheckMapping());
}

TEST_F(Runs, LargestRuns_AreTaken) {
  ASSERT_TRUE(m_Map.AppendEntry(0, 0x80000000u));
  ASSERT_TRUE(m_Map.AppendEntry(0x7FFFFFFFu, 1));
  ASSERT_FALSE(m_Map.AppendEntry(0x80000000u, 0x80000000u));
  ASSERT_TRUE(m_Map.AppendEntry(0x80000000u, 0x7FFFFFFEu));  // a marker, which continues no cluster
  EXPECT_EQ(
      RunsOf(m_Map),
      (std::vector<RUN>{{0, 0, 0x80000000u}, {0x80000000u, 0x7FFFFFFFu, 1}, {0x80000001u, 0x80000000u, 0x7FFFFFFEu}}));
  EXPECT_TRUE(m_Map.CheckMapping());
  unsigned lbn, count;
  EXPECT_TRUE(m_Map.LookupEntry(0xFFFFFFFEu, &lbn, &count));
  EXPECT_EQ(count, 1u);
  EXPECT_FALSE(m_Map.LookupEntry(0xFFFFFFFFu, &lbn, &count));
}

TEST_F(Runs, RunsOfAnotherMapAppended_TheFirstMergesIfItContinues) {
  ASSERT_TRUE(m_Other.Initialize());
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  ASSERT_TRUE(m_Other.AppendEntry(24, 2));
  ASSERT_TRUE(m_Other.AppendEntry(70, 3));
  ASSERT_TRUE(m_Map.AppendRuns(&m_Other));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 20, 6}, {6, 70, 3}}));
  EXPECT_EQ(RunsOf(m_Other), (std::vector<RUN>{{0, 24, 2}, {2, 70, 3}}));
  m_Other.Reset();
  ASSERT_TRUE(m_Map.AppendRuns(&m_Other));
  EXPECT_EQ(m_Map.Length(), 9u);
}

TEST_F(Runs, MapAppendedOrMovedToItself_IsRefused) {
  FillTo(m_Map, 3);
  const STATE before = StateOf(m_Map);
  EXPECT_FALSE(m_Map.AppendRuns(&m_Map));
  EXPECT_FALSE(m_Map.MoveTailTo(&m_Map, 1));
  EXPECT_EQ(StateOf(m_Map), before);
}

// ------------------------------------------------------------------------------------------------------ changing

TEST_F(Runs, RangeInsideARunModified_SplitsIt) {
  ASSERT_TRUE(m_Map.AppendEntry(20, 10));
  ASSERT_TRUE(m_Map.ModifyEntry(3, 2, 70));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 20, 3}, {3, 70, 2}, {5, 25, 5}}));
}

TEST_F(Runs, RangeInsideARunThatStartsAtTheSameLbn_IsLeftAlone) {
  for (unsigned lbn : {20u, HOLE}) {
    m_Map.Reset();
    ASSERT_TRUE(m_Map.AppendEntry(lbn, 10));
    const STATE before = StateOf(m_Map);
    EXPECT_FALSE(m_Map.ModifyEntry(3, 2, lbn));
    EXPECT_EQ(StateOf(m_Map), before);
  }
}

TEST_F(Runs, RangeAcrossRunsModified_CutsThem) {
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  ASSERT_TRUE(m_Map.AppendEntry(50, 4));
  ASSERT_TRUE(m_Map.AppendEntry(80, 4));
  ASSERT_TRUE(m_Map.ModifyEntry(3, 6, 200));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 20, 3}, {3, 200, 6}, {9, 81, 3}}));
  ASSERT_TRUE(m_Map.ModifyEntry(0, 4, 190));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 190, 4}, {4, 201, 5}, {9, 81, 3}}));
  ASSERT_TRUE(m_Map.ModifyEntry(9, 9, 206));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 190, 4}, {4, 201, 14}}));
  ASSERT_TRUE(m_Map.ModifyEntry(20, 1, 5));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 190, 4}, {4, 201, 14}, {18, GAP, 2}, {20, 5, 1}}));
}

TEST_F(Runs, HoleInsertedInsideARun_SplitsItAndMovesTheRestUp) {
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  ASSERT_TRUE(m_Map.AppendEntry(50, 4));
  ASSERT_TRUE(m_Map.SplitAsHole(1, 5));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 20, 1}, {1, HOLE, 5}, {6, 21, 3}, {9, 50, 4}}));
}

TEST_F(Runs, HoleInsertedBetweenRuns_IsARunOfItsOwn) {
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  ASSERT_TRUE(m_Map.AppendEntry(50, 4));
  ASSERT_TRUE(m_Map.SplitAsHole(4, 2));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 20, 4}, {4, HOLE, 2}, {6, 50, 4}}));
  ASSERT_TRUE(m_Map.SplitAsHole(0, 1));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, HOLE, 1}, {1, 20, 4}, {5, HOLE, 2}, {7, 50, 4}}));
}

TEST_F(Runs, HoleInsertedAtAHole_MakesItLonger) {
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  ASSERT_TRUE(m_Map.AppendEntry(HOLE, 2));
  ASSERT_TRUE(m_Map.AppendEntry(50, 4));
  for (unsigned vbn : {4u, 5u, 8u}) {
    ASSERT_TRUE(m_Map.SplitAsHole(vbn, 1));
    EXPECT_EQ(m_Map.NumberOfRuns(), 3u);
  }
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 20, 4}, {4, HOLE, 5}, {9, 50, 4}}));
}

TEST_F(Runs, HoleInsertedInsideAGap_LeavesAGapOnEitherSide) {
  ASSERT_TRUE(m_Map.AppendEntry(GAP, 4));
  ASSERT_TRUE(m_Map.AppendEntry(50, 1));
  ASSERT_TRUE(m_Map.SplitAsHole(1, 2));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, GAP, 1}, {1, HOLE, 2}, {3, GAP, 3}, {6, 50, 1}}));
}

TEST_F(Runs, HoleInsertedBeyondTheEndOrOfNoClusters_IsRefused) {
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  const STATE before = StateOf(m_Map);
  EXPECT_FALSE(m_Map.SplitAsHole(4, 1));
  EXPECT_FALSE(m_Map.SplitAsHole(1, 0));
  EXPECT_FALSE(m_Map.SplitAsHole(1, 0xFFFFFFFCu));
  EXPECT_EQ(StateOf(m_Map), before);
  EXPECT_TRUE(m_Map.SplitAsHole(1, 0xFFFFFFFBu));
  EXPECT_EQ(m_Map.Length(), 0xFFFFFFFFu);
}

// ------------------------------------------------------------------------------------------------------ cutting

TEST_F(Runs, TailMoved_ArrivesLastRunFirst) {
  ASSERT_TRUE(m_Other.Initialize());
  ASSERT_TRUE(m_Map.AppendEntry(10, 3));
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  ASSERT_TRUE(m_Map.MoveTailTo(&m_Other, 5));
  EXPECT_EQ(RunsOf(m_Other), (std::vector<RUN>{{0, 20, 4}, {4, 12, 1}}));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 10, 2}}));
}

TEST_F(Runs, TailOfExactlyTheLastRunMoved_LeavesTheOthers) {
  ASSERT_TRUE(m_Other.Initialize());
  ASSERT_TRUE(m_Map.AppendEntry(10, 3));
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  ASSERT_TRUE(m_Map.MoveTailTo(&m_Other, 4));
  EXPECT_EQ(RunsOf(m_Other), (std::vector<RUN>{{0, 20, 4}}));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 10, 3}}));
}

TEST_F(Runs, MoreThanThereIsMoved_MovesAll) {
  ASSERT_TRUE(m_Other.Initialize());
  ASSERT_TRUE(m_Map.AppendEntry(10, 3));
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  ASSERT_TRUE(m_Map.MoveTailTo(&m_Other, 0xFFFFFFFFu));
  EXPECT_EQ(RunsOf(m_Other), (std::vector<RUN>{{0, 20, 4}, {4, 10, 3}}));
  EXPECT_EQ(m_Map.NumberOfRuns(), 0u);
  EXPECT_EQ(m_Map.Length(), 0u);
  ASSERT_TRUE(m_Map.MoveTailTo(&m_Other, 1));
  EXPECT_EQ(m_Other.Length(), 7u);
}

TEST_F(Runs, NothingMoved_ChangesNothing) {
  ASSERT_TRUE(m_Other.Initialize());
  FillTo(m_Map, 3);
  const STATE before = StateOf(m_Map);
  ASSERT_TRUE(m_Map.MoveTailTo(&m_Other, 0));
  EXPECT_EQ(StateOf(m_Map), before);
  EXPECT_EQ(m_Other.NumberOfRuns(), 0u);
}

TEST_F(Runs, TailWithAHoleMoved_TheMarkerStays) {
  ASSERT_TRUE(m_Other.Initialize());
  ASSERT_TRUE(m_Map.AppendEntry(10, 3));
  ASSERT_TRUE(m_Map.AppendEntry(HOLE, 4));
  ASSERT_TRUE(m_Map.AppendEntry(20, 1));
  ASSERT_TRUE(m_Map.MoveTailTo(&m_Other, 3));
  EXPECT_EQ(RunsOf(m_Other), (std::vector<RUN>{{0, 20, 1}, {1, HOLE, 2}}));
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 10, 3}, {3, HOLE, 2}}));
}

TEST_F(Runs, TruncatedTo0_OnlyTheSentinelIsLeft) {
  FillTo(m_Map, 5);
  m_Map.Truncate(0);
  EXPECT_EQ(m_Map.NumberOfRuns(), 0u);
  EXPECT_EQ(m_Map.Length(), 0u);
  EXPECT_EQ(m_Map.StartingLbn(0), 0xFFFFFFFDu);
  EXPECT_TRUE(m_Map.CheckMapping());
}

TEST_F(Runs, Truncated_KeepsWhatIsBelow) {
  ASSERT_TRUE(m_Map.AppendEntry(10, 3));
  ASSERT_TRUE(m_Map.AppendEntry(20, 4));
  m_Map.Truncate(8);
  m_Map.Truncate(7);
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 10, 3}, {3, 20, 4}}));
  m_Map.Truncate(5);
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 10, 3}, {3, 20, 2}}));
  m_Map.Truncate(3);
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 10, 3}}));
  m_Map.Truncate(1);
  EXPECT_EQ(RunsOf(m_Map), (std::vector<RUN>{{0, 10, 1}}));
}

// ------------------------------------------------------------------------------------------------------ storage

TEST_F(Runs, Growing_FollowsTheSequenceOfRooms) {
  std::vector<unsigned> rooms = {m_Map.Room()};
  for (unsigned runs = 1; runs <= 6144; ++runs) {
    FillTo(m_Map, runs);
    if (m_Map.Room() == rooms.back()) continue;
    // It grows exactly when the sentinel and the runs no longer fit.
    EXPECT_EQ(runs + 1, rooms.back() + 1);
    rooms.push_back(m_Map.Room());
  }
  EXPECT_EQ(rooms, (std::vector<unsigned>{16, 32, 64, 128, 256, 512, 1024, 2048, 4096, 6144, 8192}));
  EXPECT_TRUE(m_Map.CheckMapping());
}

TEST_F(Runs, FifteenRuns_StayInThePoolAndThe16thGoesToTheHeap) {
  m_Memory.ResetCount();
  FillTo(m_Map, 15);
  EXPECT_EQ(m_Memory.Allocations(), 0u);
  EXPECT_EQ(m_Map.Room(), 16u);
  m_Memory.ResetLargest();
  FillTo(m_Map, 16);
  EXPECT_EQ(m_Memory.Allocations(), 1u);
  EXPECT_EQ(m_Memory.LargestRequest(), 32u * 8u);
  EXPECT_EQ(m_Map.Room(), 32u);
  // The pool has its block back.
  std::vector<std::unique_ptr<CRuns>> maps;
  for (unsigned i = 0; i < 16; ++i) {
    maps.push_back(std::make_unique<CRuns>());
    ASSERT_TRUE(maps.back()->Initialize());
  }
  EXPECT_EQ(m_Memory.Allocations(), 1u);
  for (auto& map : maps) map->Uninitialize();
}

TEST_F(Runs, TruncatedBelowAQuarter_ShrinksToTwiceWhatIsInUse) {
  FillTo(m_Map, 1500);
  ASSERT_EQ(m_Map.Room(), 2048u);
  m_Map.Truncate(511);  // 512 elements are a quarter, not less
  EXPECT_EQ(m_Map.Room(), 2048u);
  m_Map.Truncate(510);
  EXPECT_EQ(m_Map.Room(), 1022u);
  m_Map.Truncate(100);
  EXPECT_EQ(m_Map.Room(), 202u);
  m_Map.Truncate(3);
  EXPECT_EQ(m_Map.Room(), 16u);
  m_Map.Truncate(0);
  EXPECT_EQ(m_Map.Room(), 16u);
  EXPECT_EQ(m_Memory.OutstandingBytes() % 128, (16 * sizeof(void*) * 2 + sizeof(CLookasideList)) % 128);
  FillTo(m_Map, 16);
  EXPECT_EQ(m_Map.Room(), 32u);
}

TEST_F(Runs, TruncatedTo7Runs_ShrinksToAPoolBlock) {
  FillTo(m_Map, 40);
  ASSERT_EQ(m_Map.Room(), 64u);
  const std::size_t blocks = m_Memory.Outstanding();
  m_Map.Truncate(7);
  EXPECT_EQ(m_Map.Room(), 16u);
  EXPECT_EQ(m_Memory.Outstanding(), blocks - 1);
  EXPECT_EQ(m_Map.NumberOfRuns(), 7u);
}

TEST_F(Runs, RoomThatWasShrunk_GrowsByDoublingAgain) {
  FillTo(m_Map, 200);
  m_Map.Truncate(30);
  ASSERT_EQ(m_Map.Room(), 62u);
  FillTo(m_Map, 62);
  EXPECT_EQ(m_Map.Room(), 124u);
  EXPECT_TRUE(m_Map.CheckMapping());
}

TEST_F(Runs, Reset_KeepsTheStorage) {
  FillTo(m_Map, 100);
  m_Map.Reset();
  EXPECT_EQ(m_Map.Room(), 128u);
  EXPECT_EQ(m_Map.NumberOfRuns(), 0u);
  EXPECT_TRUE(m_Map.CheckMapping());
}

TEST_F(Runs, BatchLargerThanTheNextRoom_GrowsUntilItFits) {
  std::vector<CRuns::MAPPING> batch = {{0, 0}};
  for (unsigned i = 1; i <= 100; ++i) batch.push_back({i, 1000 - 5 * i});
  ASSERT_TRUE(m_Map.AddEntries(batch.data(), 100));
  EXPECT_EQ(m_Map.NumberOfRuns(), 100u);
  EXPECT_EQ(m_Map.Room(), 128u);
  EXPECT_TRUE(m_Map.CheckMapping());
}

/// Without storage a map is empty and takes nothing.
void ExpectWithoutStorage(CRuns& map) {
  EXPECT_EQ(map.Room(), 0u);
  EXPECT_TRUE(map.CheckMapping());
  EXPECT_EQ(map.NumberOfRuns(), 0u);
  ExpectLikeTwin(map, {});
  for (unsigned vbn : {0u, 1u, 0xFFFFFFFFu}) ExpectLookups(map, {}, vbn);
  EXPECT_FALSE(map.AppendEntry(5, 1));
  EXPECT_FALSE(map.AddEntry(0, 5, 1));
  EXPECT_FALSE(map.AddEntry(3, 5, 1));
  EXPECT_FALSE(map.ModifyEntry(0, 1, 5));
  EXPECT_FALSE(map.SplitAsHole(0, 1));
  map.Truncate(0);
  map.Truncate(5);
  map.Reset();
  CRuns other;
  EXPECT_TRUE(map.AppendRuns(&other));
  EXPECT_TRUE(map.MoveTailTo(&other, 3));
  ExpectLikeTwin(map, {});
  EXPECT_EQ(map.Room(), 0u);
}

TEST_F(Runs, MapNeverInitialised_IsEmptyAndTakesNothing) {
  CRuns map;
  ExpectWithoutStorage(map);
  map.Uninitialize();
  ExpectWithoutStorage(map);
}

TEST_F(Runs, Uninitialised_IsEmptyAndMayBeInitialisedAgain) {
  for (unsigned runs : {3u, 30u}) {
    FillTo(m_Map, runs);
    m_Map.Uninitialize();
    ExpectWithoutStorage(m_Map);
    m_Map.Uninitialize();
    ExpectWithoutStorage(m_Map);
    ASSERT_TRUE(m_Map.Initialize());
    EXPECT_EQ(m_Map.Room(), 16u);
    ExpectLikeTwin(m_Map, {});
  }
}

TEST_F(Runs, RunsAppendedToAMapWithoutStorage_FailAndLeaveTheSource) {
  FillTo(m_Map, 3);
  const STATE before = StateOf(m_Map);
  EXPECT_FALSE(m_Other.AppendRuns(&m_Map));
  EXPECT_FALSE(m_Map.MoveTailTo(&m_Other, 2));
  EXPECT_EQ(StateOf(m_Map), before);
  ExpectWithoutStorage(m_Other);
}

// ------------------------------------------------------------------------------------------------------ pool

TEST(RunsPool, InitialisedTwice_KeepsThePool) {
  CMemHooks memory;
  ASSERT_TRUE(CRuns::InitializeFirstPool());
  const std::size_t blocks = memory.Outstanding();
  ASSERT_TRUE(CRuns::InitializeFirstPool());
  EXPECT_EQ(memory.Outstanding(), blocks);
  CRuns::UninitializeFirstPool();
  EXPECT_EQ(memory.Outstanding(), 0u);
  CRuns::UninitializeFirstPool();
}

TEST(RunsPool, Pool_StartsWithSixteenBlocksOf128BytesAndGrowsByAsMany) {
  CMemHooks memory;
  ASSERT_TRUE(CRuns::InitializeFirstPool());
  const std::size_t blocks = memory.Outstanding();
  const std::size_t bytes = memory.OutstandingBytes();
  std::vector<CRuns> maps(33);
  for (unsigned i = 0; i < 33; ++i) {
    ASSERT_TRUE(maps[i].Initialize());
    const unsigned grown = i / 16 * 16;
    EXPECT_EQ(memory.Outstanding(), blocks + grown) << i;
    EXPECT_EQ(memory.OutstandingBytes(), bytes + std::size_t{128} * grown) << i;
  }
  for (CRuns& map : maps) map.Uninitialize();
  CRuns::UninitializeFirstPool();
  EXPECT_EQ(memory.Outstanding(), 0u);
}

TEST(RunsPool, ManyMapsReturned_NothingIsLeftBehind) {
  CMemHooks memory;
  ASSERT_TRUE(CRuns::InitializeFirstPool());
  std::vector<CRuns> maps(100);
  for (CRuns& map : maps) ASSERT_TRUE(map.Initialize());
  for (CRuns& map : maps) map.Uninitialize();
  CRuns::UninitializeFirstPool();
  EXPECT_EQ(memory.Outstanding(), 0u);
  EXPECT_EQ(memory.UnknownFrees(), 0u);
}

TEST(RunsPool, NoMemoryAtAnyAllocation_FailsAndLeavesNothing) {
  CMemHooks memory;
  for (unsigned failAt = 1;; ++failAt) {
    SCOPED_TRACE(failAt);
    memory.FailAt(failAt, CMemHooks::ONCE);
    const bool made = CRuns::InitializeFirstPool();
    EXPECT_EQ(made, !memory.Fired());
    if (made) break;
    EXPECT_EQ(memory.Outstanding(), 0u);
    CRuns map;
    EXPECT_FALSE(map.Initialize());
    ExpectWithoutStorage(map);
    ASSERT_LT(failAt, 100u);
  }
  CRuns::UninitializeFirstPool();
  EXPECT_EQ(memory.Outstanding(), 0u);
}

TEST(RunsPool, NoBlockLeft_MapStaysWithoutStorage) {
  CMemHooks memory;
  ASSERT_TRUE(CRuns::InitializeFirstPool());
  std::vector<CRuns> maps(16);
  for (CRuns& map : maps) ASSERT_TRUE(map.Initialize());
  CRuns one;
  memory.FailAt(1, CMemHooks::FOR_GOOD);
  EXPECT_FALSE(one.Initialize());
  ExpectWithoutStorage(one);
  one.Uninitialize();
  maps[0].Uninitialize();
  EXPECT_TRUE(one.Initialize());
  memory.Heal();
  one.Uninitialize();
  for (CRuns& map : maps) map.Uninitialize();
  CRuns::UninitializeFirstPool();
  EXPECT_EQ(memory.Outstanding(), 0u);
}

/// Blocks outlive their pool: 20 of them, which is more than one step of it.
class RunsOutlivingThePool : public testing::TestWithParam<bool> {};

INSTANTIATE_TEST_SUITE_P(Pool, RunsOutlivingThePool, testing::Bool(),
                         [](const auto& another) { return another.param ? "AnotherMade" : "None"; });

TEST_P(RunsOutlivingThePool, StillUsableAndReturnedInTheEnd) {
  CMemHooks memory;
  ASSERT_TRUE(CRuns::InitializeFirstPool());
  std::vector<CRuns> maps(20);
  for (CRuns& map : maps) {
    ASSERT_TRUE(map.Initialize());
    ASSERT_TRUE(map.AppendEntry(5, 3));
  }
  CRuns::UninitializeFirstPool();
  EXPECT_EQ(memory.Outstanding(), 20u);
  if (GetParam()) {
    ASSERT_TRUE(CRuns::InitializeFirstPool());
  }

  for (CRuns& map : maps) {
    ExpectLikeTwin(map, {5, 6, 7});
    for (unsigned i = 0; i < 20; ++i) ASSERT_TRUE(map.AppendEntry(100 - 3 * i, 1));
    EXPECT_EQ(map.Room(), 32u);
    map.Truncate(2);
    EXPECT_EQ(map.Room(), GetParam() ? 16u : 32u);  // a small array needs a pool
  }
  for (CRuns& map : maps) map.Uninitialize();
  CRuns::UninitializeFirstPool();
  EXPECT_EQ(memory.Outstanding(), 0u);
  EXPECT_EQ(memory.UnknownFrees(), 0u);
}

TEST_P(RunsOutlivingThePool, ReturnedWithoutFurtherUse_NothingIsLeftBehind) {
  CMemHooks memory;
  ASSERT_TRUE(CRuns::InitializeFirstPool());
  std::vector<CRuns> maps(50);
  for (CRuns& map : maps) ASSERT_TRUE(map.Initialize());
  CRuns::UninitializeFirstPool();
  if (GetParam()) {
    ASSERT_TRUE(CRuns::InitializeFirstPool());
  }
  for (CRuns& map : maps) map.Uninitialize();
  CRuns::UninitializeFirstPool();
  EXPECT_EQ(memory.Outstanding(), 0u);
  EXPECT_EQ(memory.UnknownFrees(), 0u);
}

// ------------------------------------------------------------------------------------------------------ out of memory

TEST_F(Runs, NoMemoryToGrow_EveryChangeFailsAndChangesNothing) {
  for (unsigned runs : {15u, 31u, 2047u, 4095u}) {
    SCOPED_TRACE(runs);
    m_Map.Reset();
    FillTo(m_Map, 5);
    ASSERT_TRUE(m_Map.AppendEntry(HOLE, 10));
    ASSERT_TRUE(m_Map.AppendEntry(1, 10));
    FillTo(m_Map, runs);
    ASSERT_EQ(m_Map.Room(), runs + 1);
    const STATE before = StateOf(m_Map);
    const unsigned end = m_Map.VbnBeyondEnd();
    m_Memory.FailAt(1, CMemHooks::FOR_GOOD);
    EXPECT_FALSE(m_Map.AppendEntry(1, 1));
    EXPECT_FALSE(m_Map.AddEntry(end + 5, 1, 1));
    EXPECT_FALSE(m_Map.AddEntry(10, 1000000, 2));
    EXPECT_FALSE(m_Map.ModifyEntry(18, 2, 1000000));
    EXPECT_FALSE(m_Map.SplitAsHole(3, 7));
    EXPECT_FALSE(m_Map.SplitAsHole(18, 7));
    EXPECT_TRUE(m_Memory.Fired());
    EXPECT_EQ(StateOf(m_Map), before);
    // What needs no new element goes on.
    EXPECT_TRUE(m_Map.SplitAsHole(5, 1));
    EXPECT_TRUE(m_Map.AppendEntry(m_Map.StartingLbn(runs) + 1, 1));
    m_Memory.Heal();
    EXPECT_TRUE(m_Map.AppendEntry(1, 1));
    EXPECT_TRUE(m_Map.CheckMapping());
  }
}

TEST_F(Runs, GapAndRunWithRoomForOneOnly_AreBothRefused) {
  FillTo(m_Map, 14);
  const STATE before = StateOf(m_Map);
  m_Memory.FailAt(1, CMemHooks::FOR_GOOD);
  EXPECT_FALSE(m_Map.AddEntry(20, 1, 1));
  EXPECT_EQ(StateOf(m_Map), before);
  EXPECT_TRUE(m_Map.AddEntry(14, 1, 1));
}

TEST_F(Runs, NoMemoryHalfWayThroughAppendingRuns_LeavesTheMapAsItWas) {
  ASSERT_TRUE(m_Other.Initialize());
  FillTo(m_Map, 10);
  ASSERT_TRUE(m_Other.AppendEntry(93, 1));  // continues the last run of the map
  FillTo(m_Other, 30);
  const std::vector<RUN> before = RunsOf(m_Map);
  m_Memory.FailAt(1, CMemHooks::FOR_GOOD);
  EXPECT_FALSE(m_Map.AppendRuns(&m_Other));
  EXPECT_TRUE(m_Memory.Fired());
  EXPECT_EQ(RunsOf(m_Map), before);
  m_Memory.FailAt(2, CMemHooks::FOR_GOOD);  // the first growth succeeds
  EXPECT_FALSE(m_Map.AppendRuns(&m_Other));
  EXPECT_EQ(RunsOf(m_Map), before);
  EXPECT_EQ(m_Other.NumberOfRuns(), 30u);
  m_Memory.Heal();
  EXPECT_TRUE(m_Map.AppendRuns(&m_Other));
  EXPECT_EQ(m_Map.NumberOfRuns(), 39u);
}

TEST_F(Runs, NoMemoryHalfWayThroughMovingATail_LeavesBothMapsAsTheyWere) {
  ASSERT_TRUE(m_Other.Initialize());
  FillTo(m_Map, 40);
  FillTo(m_Other, 10);
  const std::vector<RUN> before = RunsOf(m_Map);
  const std::vector<RUN> otherBefore = RunsOf(m_Other);
  for (unsigned failAt : {1u, 2u}) {
    m_Memory.FailAt(failAt, CMemHooks::FOR_GOOD);
    EXPECT_FALSE(m_Map.MoveTailTo(&m_Other, 30));
    EXPECT_TRUE(m_Memory.Fired());
    EXPECT_EQ(RunsOf(m_Map), before);
    EXPECT_EQ(RunsOf(m_Other), otherBefore);
  }
  m_Memory.Heal();
  EXPECT_TRUE(m_Map.MoveTailTo(&m_Other, 30));
  EXPECT_EQ(m_Map.NumberOfRuns(), 10u);
  EXPECT_EQ(m_Other.NumberOfRuns(), 40u);
}

TEST_F(Runs, NoMemoryForASmallerArray_KeepsTheLargerOne) {
  FillTo(m_Map, 200);
  m_Memory.FailAt(1, CMemHooks::FOR_GOOD);
  m_Map.Truncate(40);
  EXPECT_EQ(m_Map.Room(), 256u);
  EXPECT_EQ(m_Map.NumberOfRuns(), 40u);
  // The pool has blocks in stock: use them up.
  std::vector<CRuns> maps(16);
  for (CRuns& map : maps) ASSERT_TRUE(map.Initialize());
  m_Map.Truncate(4);
  EXPECT_EQ(m_Map.Room(), 256u);
  EXPECT_EQ(m_Map.NumberOfRuns(), 4u);
  EXPECT_TRUE(m_Map.CheckMapping());
  m_Memory.Heal();
  m_Map.Truncate(4);
  EXPECT_EQ(m_Map.Room(), 16u);
  for (CRuns& map : maps) map.Uninitialize();
}

// ------------------------------------------------------------------------------------------------------ random use

/// One step of random use on two maps and their twins. Every change is checked to do all or nothing.
class CRandomUse {
 public:
  CRandomUse(unsigned seed, CMemHooks& memory) : m_Random(seed), m_Memory(memory) {
    for (CRuns& map : m_Maps) EXPECT_TRUE(map.Initialize());
  }
  ~CRandomUse() {
    for (CRuns& map : m_Maps) map.Uninitialize();
  }

  void Step() {
    const unsigned which = Below(2);
    m_pMap = &m_Maps[which];
    m_pFlat = &m_Flats[which];
    // Memory fails now and then; a change that finds it failing must have been refused.
    const bool isShort = Below(8) == 0;
    if (isShort) m_Memory.FailAt(1, CMemHooks::FOR_GOOD);
    FLAT after = *m_pFlat;
    const bool expected = Predict(Below(12), m_Maps[1 - which], m_Flats[1 - which], after);
    const bool refusedByMemory = isShort && m_Memory.Fired();
    m_Memory.Heal();
    if (m_bDone) {
      ASSERT_TRUE(expected);
      *m_pFlat = after;
    } else {
      ASSERT_TRUE(!expected || refusedByMemory);
    }
    if (m_bDone && m_bOtherCleared) m_Flats[1 - which] = m_OtherAfter;
    for (unsigned i = 0; i < 2; ++i) {
      ExpectLikeTwin(m_Maps[i], m_Flats[i]);
      for (unsigned k = 0; k < 3; ++k)
        ExpectLookups(m_Maps[i], m_Flats[i], Below(static_cast<unsigned>(m_Flats[i].size()) + 2));
    }
  }

 private:
  unsigned Below(unsigned limit) { return static_cast<unsigned>(m_Random() % limit); }
  unsigned Size() const { return static_cast<unsigned>(m_pFlat->size()); }

  /// Small numbers so that runs continue and overlap each other often, and markers.
  unsigned RandomLbn() {
    switch (Below(8)) {
      case 0:
        return HOLE;
      case 1:
        return GAP;
      case 2:
        if (!m_pFlat->empty() && m_pFlat->back() < 0x7FFFFFFFu) return m_pFlat->back() + 1;
        return 9;
      default:
        return Below(60);
    }
  }

  /// Makes one change to the map and to `after`, its twin. @return whether the change had to succeed with memory to
  /// spare
  bool Predict(unsigned operation, CRuns& other, const FLAT& otherFlat, FLAT& after) {
    m_bOtherCleared = false;
    const unsigned lbn = RandomLbn();
    const unsigned count = 1 + Below(6);
    switch (operation) {
      case 0:
      case 1:
      case 2:
      case 3:
        Append(after, Stretch(lbn, count));
        m_bDone = m_pMap->AppendEntry(lbn, count);
        return true;
      case 4: {
        const unsigned vbn = Size() + Below(5);
        after.resize(vbn, GAP);
        Append(after, Stretch(lbn, count));
        m_bDone = m_pMap->AddEntry(vbn, lbn, count);
        return true;
      }
      case 5:
      case 6: {
        // A batch of some runs, anywhere.
        std::vector<CRuns::MAPPING> batch = {{Below(Size() + 2), 0}};
        const unsigned vbn = batch[0].NextVbn;
        FLAT stretch;
        for (unsigned i = Below(4) + 1; i > 0; --i) {
          const unsigned length = 1 + Below(4);
          const unsigned runLbn = RandomLbn();
          batch.push_back({batch.back().NextVbn + length, runLbn});
          Append(stretch, Stretch(runLbn, length));
        }
        bool isFree = true;
        for (unsigned i = vbn; i < batch.back().NextVbn && i < Size(); ++i) isFree = isFree && after[i] >= GAP;
        Overwrite(after, vbn, stretch);
        m_bDone = m_pMap->AddEntries(batch.data(), static_cast<int>(batch.size()) - 1);
        return isFree;
      }
      case 7: {
        const unsigned vbn = Below(Size() + 3);
        unsigned i = 0;
        const bool isSame = m_pMap->FindIndex(vbn, &i) && m_pMap->StartingVbn(i) < vbn &&
                            m_pMap->NextStartingVbn(i) > vbn + count && m_pMap->StartingLbn(i) == lbn;
        Overwrite(after, vbn, Stretch(lbn, count));
        m_bDone = m_pMap->ModifyEntry(vbn, count, lbn);
        return !isSame;
      }
      case 8: {
        const unsigned vbn = Below(Size() + 2);
        const bool isInside = vbn < Size();
        if (isInside) after.insert(At(after, vbn), count, HOLE);
        m_bDone = m_pMap->SplitAsHole(vbn, count);
        return isInside;
      }
      case 9: {
        const unsigned vbn = Below(4) == 0 ? Below(Size() + 1) : Size() - Below(std::min(Size(), 8u) + 1);
        after.resize(vbn);
        m_pMap->Truncate(vbn);
        m_bDone = true;
        return true;
      }
      case 10:
        if (otherFlat.size() > 400) {
          m_pMap->Reset();
          after.clear();
          m_bDone = true;
          return true;
        }
        Append(after, otherFlat);
        m_bDone = m_pMap->AppendRuns(&other);
        return true;
      default: {
        const unsigned moved = Below(12);
        m_OtherAfter = otherFlat;
        unsigned left = std::min(moved, Size());
        for (unsigned i = m_pMap->NumberOfRuns(); left != 0; --i) {
          const unsigned length = std::min(left, m_pMap->LengthOfRun(i));
          const unsigned end = m_pMap->NextStartingVbn(i);
          m_OtherAfter.insert(m_OtherAfter.end(), At(*m_pFlat, end - length), At(*m_pFlat, end));
          left -= length;
        }
        after.resize(Size() - std::min(moved, Size()));
        m_bOtherCleared = true;
        m_bDone = m_pMap->MoveTailTo(&other, moved);
        return true;
      }
    }
  }

  /// Puts the stretch at a VBN; what is skipped to get there becomes a gap.
  static void Overwrite(FLAT& flat, unsigned vbn, const FLAT& stretch) {
    if (flat.size() < vbn) flat.resize(vbn, GAP);
    const auto end = vbn + static_cast<unsigned>(stretch.size());
    if (flat.size() < end) flat.resize(end);
    std::copy(stretch.begin(), stretch.end(), At(flat, vbn));
  }

  std::mt19937 m_Random;
  CMemHooks& m_Memory;
  CRuns m_Maps[2];
  FLAT m_Flats[2];
  CRuns* m_pMap = nullptr;
  FLAT* m_pFlat = nullptr;
  FLAT m_OtherAfter;
  bool m_bOtherCleared = false;
  bool m_bDone = false;
};

TEST_F(Runs, RandomUseWithFailingMemory_StaysLikeAFlatVector) {
  for (unsigned seed = 0; seed < 20; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    CRandomUse use(seed, m_Memory);
    for (unsigned step = 0; step < 1500; ++step) {
      SCOPED_TRACE(testing::Message() << "step " << step);
      use.Step();
      if (HasFailure()) return;
    }
  }
}

TEST_F(Runs, MapMadeByAppendingOnly_HoldsOneRunForEachStretch) {
  std::mt19937 random(7);
  for (unsigned round = 0; round < 20; ++round) {
    m_Map.Reset();
    FLAT flat;
    unsigned next = 2;
    for (unsigned i = 0; i < 500; ++i) {
      if (random() % 3 == 0) next = static_cast<unsigned>(random() % 5000);
      ASSERT_TRUE(m_Map.AppendEntry(next, 1));
      flat.push_back(next++);
    }
    ExpectLikeTwin(m_Map, flat);
    EXPECT_EQ(m_Map.NumberOfRuns(), StretchesOf(flat));
  }
}

}  // namespace
