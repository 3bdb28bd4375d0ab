/// @file VolumeTest.cpp
/// Opening, looking, closing.

#include "VolumeFixture.h"

using fatlib::Status;

TEST(Volume, FileWritten_IsReadStatAndListedAtOnceAndAfterReopening) {
  CTestVolume test;
  ASSERT_FALSE(test.Write("/Hello world.txt", "hello"));
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(test.Read("/hello WORLD.txt"), "hello");
    EXPECT_EQ(test.Stat("/hello world.TXT").size, 5u);
    EXPECT_EQ(test.Names("/"), "Hello world.txt");
    test.Reopen();
  }
  test.CloseAndCheck();
}
