/// @file DirectoryRoomTest.cpp

#include <fatlib/Path.h>
#include <gtest/gtest.h>

#include "DirectoryRoom.h"

namespace fatimg {
namespace {

using fatlib::SlotsOfName;

constexpr std::uint32_t IN_CLUSTER = 16;

TEST(SlotsOfName, NamesOf8And3_TakeOneInCapitals) {
  for (const char16_t* name : {u"A", u"README.TXT", u"ABCDEFGH.IJK", u"X~1"}) EXPECT_EQ(1u, SlotsOfName(name));
  for (const char16_t* name : {u"a", u"README.TXt", u"readme.txt", u"abcdefgh.ijk", u"x~1"})
    EXPECT_EQ(2u, SlotsOfName(name));
}

TEST(SlotsOfName, OtherNames_TakeOneMoreForEach13Units) {
  EXPECT_EQ(2u, SlotsOfName(u"ABCDEFGHI"));
  EXPECT_EQ(2u, SlotsOfName(u"a.html"));
  EXPECT_EQ(2u, SlotsOfName(u".abc"));
  EXPECT_EQ(2u, SlotsOfName(u"a b"));
  EXPECT_EQ(2u, SlotsOfName(u"a.b.c"));
  EXPECT_EQ(2u, SlotsOfName(u"\u00FC"));
  EXPECT_EQ(2u, SlotsOfName(u"1234567890123"));
  EXPECT_EQ(3u, SlotsOfName(u"12345678901234"));
  EXPECT_EQ(21u, SlotsOfName(std::u16string(255, u'x')));
}

TEST(DirectoryRoom, NewDirectory_GrowsByTheSlotBehindItsFirstCluster) {
  DirectoryRoom room = DirectoryRoom::OfNewDirectory(IN_CLUSTER);
  std::uint32_t clusters = 0;
  for (int i = 0; i < 14; ++i) {
    ASSERT_TRUE(room.Take(1, &clusters));
    EXPECT_EQ(0u, clusters);
  }
  ASSERT_TRUE(room.Take(1, &clusters));
  EXPECT_EQ(1u, clusters);
}

TEST(DirectoryRoom, LongName_TakesAsManyClustersAsItNeeds) {
  DirectoryRoom room = DirectoryRoom::OfNewDirectory(IN_CLUSTER);
  std::uint32_t clusters = 0;
  ASSERT_TRUE(room.Take(14, &clusters));
  ASSERT_TRUE(room.Take(21, &clusters));
  EXPECT_EQ(2u, clusters);
}

TEST(DirectoryRoom, GapThatIsLongEnough_IsTakenBeforeTheDirectoryGrows) {
  std::vector<bool> used(IN_CLUSTER, true);
  used[3] = used[4] = used[5] = false;
  DirectoryRoom room(used, IN_CLUSTER);
  std::uint32_t clusters = 0;
  ASSERT_TRUE(room.Take(2, &clusters));
  EXPECT_EQ(0u, clusters);
  ASSERT_TRUE(room.Take(2, &clusters));
  EXPECT_EQ(1u, clusters);
}

TEST(DirectoryRoom, FixedDirectory_MergesItsGapsAndEndsWhenTheyAreUsedUp) {
  std::vector<bool> used(IN_CLUSTER, true);
  used[1] = used[5] = used[9] = false;
  DirectoryRoom room(used, 0);
  std::uint32_t clusters = 0;
  EXPECT_FALSE(room.Take(4, &clusters));
  EXPECT_TRUE(room.Take(2, &clusters));
  EXPECT_TRUE(room.Take(1, &clusters));
  EXPECT_FALSE(room.Take(1, &clusters));
}

TEST(DirectoryRoom, MostSlots_AreNeverPassed) {
  DirectoryRoom room(std::vector<bool>(DirectoryRoom::MAX_SLOTS - IN_CLUSTER, true), IN_CLUSTER);
  std::uint32_t clusters = 0;
  ASSERT_TRUE(room.Take(15, &clusters));
  EXPECT_FALSE(room.Take(2, &clusters));
  EXPECT_TRUE(room.Take(1, &clusters));
}

}  // namespace
}  // namespace fatimg
