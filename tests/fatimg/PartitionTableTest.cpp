/// @file PartitionTableTest.cpp
/// Partition tables, made byte by byte.

#include <gtest/gtest.h>

#include <cstring>

#include "DiskBytes.h"
#include "PartitionTable.h"
#include "PartitionedDisk.h"

namespace fatimg {
namespace {

PartitionTable TableOf(const CDisk& disk) {
  fatlib::MemoryImage image(disk.Bytes());
  PartitionTable table;
  EXPECT_FALSE(ReadPartitionTable(&image, &table));
  return table;
}

TEST(Crc32OfGpt, CheckValue_IsThePublishedOne) {
  EXPECT_EQ(0xCBF43926u, Crc32(reinterpret_cast<const unsigned char*>("123456789"), 9));
}

TEST(PartitionsOfAnMbr, PrimaryEntries_KeepTheirNumbers) {
  CDisk disk(4096);
  disk.SetMbr(0, {0x80, 0x0C, 100, 200});
  disk.SetMbr(2, {0, 0xEF, 1000, 50});
  const PartitionTable table = TableOf(disk);
  EXPECT_EQ(PartitionTable::Mbr, table.kind);
  ASSERT_EQ(2u, table.partitions.size());
  EXPECT_EQ(1u, table.partitions[0].number);
  EXPECT_EQ(51200u, table.partitions[0].offset);
  EXPECT_EQ(102400u, table.partitions[0].length);
  EXPECT_EQ("0c", table.partitions[0].type);
  EXPECT_TRUE(table.partitions[0].bootable);
  EXPECT_EQ(3u, table.partitions[1].number);
  EXPECT_TRUE(table.partitions[1].IsEsp());
  EXPECT_EQ(nullptr, table.ByNumber(2));
}

TEST(PartitionsOfAnMbr, LogicalPartitions_BeginWithFive) {
  CDisk disk(4096);
  disk.SetMbr(0, {0, 0x0C, 100, 100});
  disk.SetMbr(1, {0, 0x05, 1000, 2000});
  disk.SetMbr(0, {0, 0x06, 10, 20}, 1000);
  disk.SetMbr(1, {0, 0x05, 500, 100}, 1000);  // from the begin of the extended partition
  disk.SetMbr(0, {0, 0x0B, 3, 30}, 1500);
  const PartitionTable table = TableOf(disk);
  ASSERT_EQ(3u, table.partitions.size());
  EXPECT_EQ(5u, table.partitions[1].number);
  EXPECT_EQ(1010u * 512u, table.partitions[1].offset);
  EXPECT_EQ(6u, table.partitions[2].number);
  EXPECT_EQ(1503u * 512u, table.partitions[2].offset);
}

TEST(PartitionsOfAnMbr, ChainThatLeadsToItself_Ends) {
  CDisk disk(4096);
  disk.SetMbr(0, {0, 0x0F, 1000, 2000});
  disk.SetMbr(0, {0, 0x06, 10, 20}, 1000);
  disk.SetMbr(1, {0, 0x05, 500, 100}, 1000);
  disk.SetMbr(0, {0, 0x06, 10, 20}, 1500);
  disk.SetMbr(1, {0, 0x05, 500, 100}, 1500);
  EXPECT_LE(TableOf(disk).partitions.size(), 128u);
}

TEST(PartitionsOfAnMbr, SectorsOf4096Bytes_AreFoundByTheBootSector) {
  CDisk disk(8192);
  disk.SetMbr(0, {0, 0x0C, 100, 200});
  disk.Sign(100 * 8);
  const PartitionTable table = TableOf(disk);
  EXPECT_EQ(4096u, table.bytesPerSector);
  EXPECT_EQ(409600u, table.partitions[0].offset);
}

TEST(PartitionsOfAnMbr, BootSectorOfAVolume_IsNoTable) {
  CDisk disk(100);
  disk.SetMbr(0, {0x41, 0x0C, 1, 2});  // code where the table would be
  EXPECT_EQ(PartitionTable::None, TableOf(disk).kind);
  EXPECT_EQ(PartitionTable::None, TableOf(CDisk(100)).kind);
  EXPECT_EQ(PartitionTable::None, TableOf(CDisk(0)).kind);
}

TEST(PartitionsOfAGpt, Entries_HaveTypeAndName) {
  CDisk disk(2048);
  disk.SetGpt(512, {{CDisk::ESP, 40, 99, u"EFI System"}, {CDisk::DATA, 100, 199, u"Größe"}});
  const PartitionTable table = TableOf(disk);
  EXPECT_EQ(PartitionTable::Gpt, table.kind);
  EXPECT_FALSE(table.backup);
  ASSERT_EQ(2u, table.partitions.size());
  EXPECT_EQ(40u * 512u, table.partitions[0].offset);
  EXPECT_EQ(60u * 512u, table.partitions[0].length);
  EXPECT_EQ("c12a7328-f81f-11d2-ba4b-00a0c93ec93b", table.partitions[0].type);
  EXPECT_TRUE(table.partitions[0].IsEsp());
  EXPECT_EQ("ebd0a0a2-b9e5-4433-87c0-68b6b72699c7", table.partitions[1].type);
  EXPECT_EQ("Größe", table.partitions[1].name);
}

TEST(PartitionsOfAGpt, Names_AreFoundInAnyCase) {
  CDisk disk(2048);
  disk.SetGpt(512, {{CDisk::ESP, 40, 99, u"boot"}, {CDisk::DATA, 100, 199, u"GRÖSSE"}});
  const PartitionTable table = TableOf(disk);
  ASSERT_EQ(1u, table.ByName("grösse").size());
  EXPECT_EQ(2u, table.ByName("grösse")[0]->number);
  ASSERT_EQ(1u, table.ByName("ESP").size());
  EXPECT_EQ(1u, table.ByName("ESP")[0]->number);
  EXPECT_TRUE(table.ByName("other").empty());
}

TEST(PartitionsOfAGpt, NameEsp_GoesBeforeTheType) {
  CDisk disk(2048);
  disk.SetGpt(512, {{CDisk::ESP, 40, 99, u"x"}, {CDisk::DATA, 100, 199, u"esp"}});
  const PartitionTable table = TableOf(disk);
  ASSERT_EQ(1u, table.ByName("esp").size());
  EXPECT_EQ(2u, table.ByName("esp")[0]->number);
}

TEST(PartitionsOfAGpt, SectorsOf4096Bytes_AreSeen) {
  CDisk disk(8192);
  disk.SetGpt(4096, {{CDisk::DATA, 40, 99, u"x"}});
  const PartitionTable table = TableOf(disk);
  EXPECT_EQ(4096u, table.bytesPerSector);
  ASSERT_EQ(1u, table.partitions.size());
  EXPECT_EQ(40u * 4096u, table.partitions[0].offset);
}

TEST(PartitionsOfAGpt, DamagedFirstTable_IsReplacedByTheOneAtTheEnd) {
  CDisk disk(2048);
  disk.SetGpt(512, {{CDisk::DATA, 40, 99, u"x"}});
  disk.At(512 + 60) ^= 1;
  PartitionTable table = TableOf(disk);
  EXPECT_TRUE(table.backup);
  EXPECT_EQ(1u, table.partitions.size());

  disk.At(disk.Size() - 512 + 60) ^= 1;  // now both: the protective record is all that is left
  table = TableOf(disk);
  EXPECT_EQ(PartitionTable::Mbr, table.kind);
}

TEST(PartitionsOfAGpt, DamagedEntries_AreNotTaken) {
  CDisk disk(2048);
  disk.SetGpt(512, {{CDisk::DATA, 40, 99, u"x"}});
  disk.At(2 * 512 + 40) ^= 1;  // the last sector of the partition, in the first array
  const PartitionTable table = TableOf(disk);
  EXPECT_TRUE(table.backup);
  EXPECT_EQ(60u * 512u, table.partitions[0].length);
}

TEST(PartitionsOfAGpt, RecordWithoutProtection_IsTakenInstead) {
  CDisk disk(2048);
  disk.SetGpt(512, {{CDisk::DATA, 40, 99, u"x"}});
  disk.SetMbr(0, {0, 0x0C, 100, 200});
  EXPECT_EQ(PartitionTable::Mbr, TableOf(disk).kind);
}

// Whatever the bytes are: an answer, and partitions whose position and length do not wrap.
TEST(PartitionsOfAnyDisk, ChangedBytes_GiveAnAnswer) {
  CDisk good(256);
  good.SetGpt(512, {{CDisk::ESP, 40, 99, u"x"}, {CDisk::DATA, 100, 199, u"y"}});
  good.SetMbr(1, {0, 0x05, 100, 50});
  good.SetMbr(0, {0, 0x06, 1, 2}, 100);
  unsigned int random = 20261121;
  for (int run = 0; run < 3000; ++run) {
    CDisk disk = good;
    for (int change = 0; change < 1 + run % 4; ++change) {
      random = random * 1664525u + 1013904223u;
      const std::size_t at = run % 3 == 0 ? 446 + random % 66 : random % (34 * 512);
      disk.At(at) = static_cast<unsigned char>(random >> 24);
    }
    if (run % 2 == 0) disk.Resum(512);
    for (const Partition& partition : TableOf(disk).partitions) {
      EXPECT_LE(partition.offset, partition.offset + partition.length) << run;
    }
  }
}

}  // namespace
}  // namespace fatimg
