/// @file OrderedDeviceTest.cpp
/// What passes, what is kept, and what becomes of it when writing or reading fails.

#include <random>

#include "OrderedDeviceVolume.h"

using fatlib::Access;
using fatlib::OrderedDevice;
using fatlib::Status;

namespace {

constexpr std::uint32_t CLUSTER_BYTES = COrdered::CLUSTER_BYTES;
constexpr std::uint32_t ROOT = COrdered::ROOT;

class OrderedDeviceOf : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Fat, OrderedDeviceOf, testing::Values(12, 16, 32));

// ---------------------------------------------------------------------------------------------- opening

TEST(OrderedDevice, NoVolume_IsRefused) {
  std::unique_ptr<OrderedDevice> device;
  auto base = std::make_unique<fatlib::MemoryImage>(std::vector<unsigned char>(65536));
  EXPECT_EQ(OrderedDevice::Open(std::move(base), &device), Status::NotAVolume);
  EXPECT_EQ(device, nullptr);
}

TEST_P(OrderedDeviceOf, DirectoryThatLeadsToItself_IsRefused) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 5);
  EXPECT_FALSE(volume.medium.SetFatEntry(5, 5));
  EXPECT_FALSE(volume.device->Flush());
  std::unique_ptr<OrderedDevice> device;
  EXPECT_EQ(OrderedDevice::Open(std::make_unique<CRecordingDevice>(volume.record), &device), Status::DiskCorrupt);
}

TEST_P(OrderedDeviceOf, ReadOnlyBase_IsNotWritten) {
  COrdered volume(GetParam());
  volume.record->mode = Access::ReadOnly;
  volume.Open();
  const unsigned char byte = 1;
  EXPECT_EQ(volume.device->Write(0, &byte, 1), Status::WriteProtected);
  EXPECT_FALSE(volume.device->Flush());
  EXPECT_EQ(volume.device->Mode(), Access::ReadOnly);
}

// ---------------------------------------------------------------------------------------------- what is kept

TEST_P(OrderedDeviceOf, BytesOfFiles_PassAtOnce) {
  COrdered volume(GetParam());
  volume.Fill(9, 0x5A);
  EXPECT_EQ(volume.device->HeldBytes(), 0u);
  EXPECT_EQ(volume.record->bytes[ToSize(volume.medium.Layout().ClusterPosition(9))], 0x5A);
}

TEST_P(OrderedDeviceOf, FatsAndDirectories_AreKeptUntilFlush) {
  COrdered volume(GetParam());
  volume.Begin();
  volume.File(ROOT, 0, "A          ", {5, 6});
  EXPECT_TRUE(volume.record->bytes == volume.before);
  EXPECT_EQ(volume.device->HeldBytes(), 3 * 512u);
  EXPECT_FALSE(volume.device->Flush());
  EXPECT_EQ(volume.device->HeldBytes(), 0u);
  EXPECT_EQ(TreeOf(&volume.record->bytes).size(), 1u);
}

TEST_P(OrderedDeviceOf, DirectoryMadeByACommit_IsKeptFromThenOn) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 5);
  volume.Begin();
  volume.File(5, 2, "A          ", {6});
  EXPECT_TRUE(volume.record->bytes == volume.before);
  volume.ExpectSoundCuts();
}

TEST_P(OrderedDeviceOf, ClustersOfARemovedDirectory_PassAfterTheCommit) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 5);
  volume.Begin();
  volume.Delete(ROOT, 0);
  volume.Free(5);
  volume.ExpectSoundCuts();
  volume.Fill(5, 0x77);
  EXPECT_EQ(volume.device->HeldBytes(), 0u);
}

TEST_P(OrderedDeviceOf, SectorThatEqualsTheBaseAgain_IsDropped) {
  COrdered volume(GetParam());
  volume.Begin();
  volume.File(ROOT, 0, "A          ", {5});
  volume.Delete(ROOT, 0);
  EXPECT_NE(volume.device->HeldBytes(), 0u);
  EXPECT_FALSE(volume.device->Write(0, volume.before.data(), volume.before.size()));
  EXPECT_EQ(volume.device->HeldBytes(), 0u);
}

TEST_P(OrderedDeviceOf, NothingKept_OnlyFlushes) {
  COrdered volume(GetParam());
  volume.Begin();
  volume.Fill(9, 1);
  volume.record->log.clear();
  EXPECT_FALSE(volume.device->Flush());
  ASSERT_EQ(volume.record->log.size(), 1u);
  EXPECT_TRUE(volume.record->log[0].IsFlush());
}

TEST_P(OrderedDeviceOf, WriteOverEverything_IsSplit) {
  COrdered volume(GetParam());
  volume.Directory(ROOT, 0, "D          ", 7);
  volume.Begin();
  const std::uint64_t from = volume.medium.Layout().ClusterPosition(5) + 100;
  const std::vector<unsigned char> bytes(5 * CLUSTER_BYTES, 0x33);
  EXPECT_FALSE(volume.device->Write(from, bytes.data(), bytes.size()));
  EXPECT_EQ(volume.device->HeldBytes(), 512u);
  std::vector<unsigned char> read(bytes.size());
  EXPECT_FALSE(volume.device->Read(from, read.data(), read.size()));
  EXPECT_TRUE(read == bytes);
}

// ---------------------------------------------------------------------------------------------- failures

/// Several things of which each phase has some.
void ChangeMuch(COrdered* volume) {
  volume->File(ROOT, 1, "A          ", {5, 11, 12});
  volume->Delete(ROOT, 2);
  volume->File(ROOT, 4, "C          ", {13, 9, 7, 6});
  volume->Delete(ROOT, 3);
  volume->Slot(20, 1, "..         ", 0x10, 4, 0);
  volume->Slot(4, 2, "E          ", 0x10, 20, 0);
  volume->File(20, 2, "N          ", {8, 10});
}

void MakeMuch(COrdered* volume) {
  volume->Directory(ROOT, 0, "D          ", 4);
  volume->File(ROOT, 1, "A          ", {5, 6, 7});
  volume->File(ROOT, 2, "B          ", {8, 9, 10});
  volume->Directory(ROOT, 3, "E          ", 20);
  volume->Begin();
}

// No order is promised for what is no sound volume any more, but that it comes as it was written, and comes to an end.
TEST_P(OrderedDeviceOf, AnyBytesInFatsAndDirectories_AreWrittenAsTheyAre) {
  std::mt19937 random(7);
  COrdered volume(GetParam());
  MakeMuch(&volume);
  const std::uint64_t dataStart = volume.medium.Layout().ClusterPosition(2);
  for (unsigned int round = 0; round < (GetParam() == 32 ? 20u : 200u); ++round) {
    for (unsigned int i = 0; i < 60; ++i) {
      // Mostly the first entries of a FAT, the root, and the first clusters; seldom the boot sector.
      const std::uint64_t area = volume.medium.Layout().FatPosition(random() % 2);
      std::uint64_t position = random() % 3 == 0 ? area + random() % 128 : dataStart - 512 + random() % 12000;
      if (random() % 2000 == 0) position = 11 + random() % 60;
      const auto byte = static_cast<unsigned char>(random() % 3 == 0 ? random() : random() % 32);
      EXPECT_FALSE(volume.device->Write(position, &byte, 1));
    }
    std::vector<unsigned char> current(volume.record->bytes.size());
    ASSERT_FALSE(volume.device->Read(0, current.data(), current.size()));
    ASSERT_FALSE(volume.device->Flush());
    ASSERT_TRUE(volume.record->bytes == current) << "round " << round;
    EXPECT_EQ(volume.device->HeldBytes(), 0u);
  }
}

/// Lets one transfer of a commit fail. @return false when there are not that many
bool CommitSurvives(int bits, bool write, std::uint64_t failAt) {
  COrdered volume(bits);
  MakeMuch(&volume);
  ChangeMuch(&volume);
  std::vector<unsigned char> current(volume.record->bytes.size());
  EXPECT_FALSE(volume.device->Read(0, current.data(), current.size()));
  volume.record->failAt = write ? volume.record->writes + failAt : 0;
  volume.record->failReadAt = write ? 0 : volume.record->reads + failAt;
  const std::error_code error = volume.device->Flush();
  if (!error) return false;
  EXPECT_EQ(error, Status::IoError);
  volume.ExpectSound(&volume.record->bytes);
  std::vector<unsigned char> read(current.size());
  EXPECT_FALSE(volume.device->Read(0, read.data(), read.size()));
  EXPECT_TRUE(read == current);
  volume.Fill(30, 'w');  // what is written meanwhile is kept, too
  volume.before = volume.record->bytes;
  volume.record->log.clear();
  volume.ExpectSoundCuts();
  EXPECT_EQ(volume.record->bytes[ToSize(volume.medium.Layout().ClusterPosition(30))], 'w');
  return true;
}

TEST_P(OrderedDeviceOf, AnyWriteFails_TheNextFlushBringsAll) {
  std::uint64_t failAt = 1;
  while (CommitSurvives(GetParam(), true, failAt)) ++failAt;
  EXPECT_GT(failAt, 8u);
}

TEST_P(OrderedDeviceOf, AnyReadFails_TheNextFlushBringsAll) {
  std::uint64_t failAt = 1;
  const unsigned int step = GetParam() == 32 ? 7 : 1;  // many clusters to be checked each time
  while (CommitSurvives(GetParam(), false, failAt)) failAt += step;
  EXPECT_GT(failAt, 20u);
}

}  // namespace
