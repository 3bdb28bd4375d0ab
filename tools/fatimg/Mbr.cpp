/// @file Mbr.cpp

#include "Mbr.h"

#include <cstdio>

#include "DiskBytes.h"

namespace fatimg {

namespace {

constexpr std::size_t TABLE_AT = 446;
constexpr std::size_t RECORD_BYTES = 512;  // what a record uses of its sector
constexpr unsigned int FIRST_LOGICAL = 5;
constexpr unsigned int MAX_PARTITION = 128;  // a chain of logical partitions that leads to itself ends here

struct MBR_ENTRY {
  unsigned int status;
  unsigned int type;
  std::uint64_t first;  // sectors
  std::uint64_t count;

  bool IsUsed() const { return type != 0 && count != 0; }
  bool IsExtended() const { return type == 0x05 || type == 0x0F || type == 0x85; }
};

MBR_ENTRY EntryOf(const Bytes& record, std::size_t i) {
  const std::size_t at = TABLE_AT + 16 * i;
  return {record[at], record[at + 4], Get32(record, at + 8), Get32(record, at + 12)};
}

bool IsSigned(const Bytes& record) { return record[510] == 0x55 && record[511] == 0xAA; }

// The boot sector of a volume without partitions has the same signature. Its code, where the table would be, is no
// table: a status is 0 or 80, and a used entry begins behind the record.
bool IsTable(const Bytes& record) {
  if (!IsSigned(record)) return false;
  bool used = false;
  for (std::size_t i = 0; i < 4; ++i) {
    const MBR_ENTRY entry = EntryOf(record, i);
    if (entry.status != 0 && entry.status != 0x80) return false;
    if (entry.IsUsed() && entry.first == 0) return false;
    used = used || entry.IsUsed();
  }
  return used;
}

Partition PartitionOf(const MBR_ENTRY& entry, unsigned int number, std::uint64_t base, std::uint32_t bytesPerSector) {
  Partition partition;
  partition.number = number;
  partition.offset = (base + entry.first) * bytesPerSector;
  partition.length = entry.count * bytesPerSector;
  char type[4];
  std::snprintf(type, sizeof type, "%02x", entry.type & 0xFFu);
  partition.type = type;
  partition.bootable = entry.status == 0x80;
  return partition;
}

// Each record of the chain has one partition, which begins relative to the record, and the way to the next record,
// which is relative to the extended partition.
std::error_code ReadLogical(fatlib::Device* disk, std::uint64_t extended, PartitionTable* table) {
  std::uint64_t sector = extended;
  for (unsigned int number = FIRST_LOGICAL; number <= MAX_PARTITION; ++number) {
    Bytes record(RECORD_BYTES);
    const std::error_code error = disk->Read(sector * table->bytesPerSector, record.data(), record.size());
    if (error || !IsSigned(record)) return error;
    const MBR_ENTRY own = EntryOf(record, 0);
    if (own.IsUsed() && !own.IsExtended()) {
      table->partitions.push_back(PartitionOf(own, number, sector, table->bytesPerSector));
    }
    const MBR_ENTRY next = EntryOf(record, 1);
    if (!next.IsUsed() || !next.IsExtended() || next.first == 0) return {};
    sector = extended + next.first;
  }
  return {};
}

// A record does not say how large its sectors are. A sector of 4096 bytes is taken when that leads to a boot sector and
// 512 does not.
std::error_code FindSectorSize(fatlib::Device* disk, const Bytes& record, std::uint32_t* bytesPerSector) {
  for (const std::uint32_t size : {512u, 4096u}) {
    for (std::size_t i = 0; i < 4; ++i) {
      const MBR_ENTRY entry = EntryOf(record, i);
      if (!entry.IsUsed()) continue;
      Bytes first(RECORD_BYTES);
      const std::error_code error = disk->Read(entry.first * size, first.data(), first.size());
      if (error) return error;
      if (IsSigned(first)) {
        *bytesPerSector = size;
        return {};
      }
    }
  }
  *bytesPerSector = 512;
  return {};
}

}  // namespace

std::error_code ReadMbr(fatlib::Device* disk, PartitionTable* table, bool* found, bool* protective) {
  *found = false;
  *protective = false;
  Bytes record(RECORD_BYTES);
  std::error_code error = disk->Read(0, record.data(), record.size());
  if (error || !IsTable(record)) return error;
  PartitionTable read;
  read.kind = PartitionTable::Mbr;
  error = FindSectorSize(disk, record, &read.bytesPerSector);
  if (error) return error;
  bool hasExtended = false;
  std::uint64_t extended = 0;
  for (unsigned int i = 0; i < 4; ++i) {
    const MBR_ENTRY entry = EntryOf(record, i);
    if (!entry.IsUsed()) continue;
    if (entry.type == 0xEE) *protective = true;
    if (!entry.IsExtended()) {
      read.partitions.push_back(PartitionOf(entry, i + 1, 0, read.bytesPerSector));
    } else if (!hasExtended) {
      hasExtended = true;
      extended = entry.first;
    }
  }
  if (hasExtended) error = ReadLogical(disk, extended, &read);
  if (error) return error;
  *table = read;
  *found = true;
  return {};
}

}  // namespace fatimg
