/// @file PartitionTable.h
/// The partitions of a disk image: a master boot record with its chain of logical partitions, or a GUID partition table
/// (the first, or the one at the end when that is damaged). Nothing on the disk is trusted: any bytes give an answer.

#ifndef FATIMG_PARTITIONTABLE_H
#define FATIMG_PARTITIONTABLE_H

#include <fatlib/Device.h>

#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

namespace fatimg {

struct Partition {
  unsigned int number = 0;   ///< from 1; logical partitions from 5; in a GPT the place of the entry
  std::uint64_t offset = 0;  ///< bytes from the begin of the disk
  std::uint64_t length = 0;  ///< bytes; as the table says, which may be behind the end of the disk
  std::string type;          ///< "0c", or "c12a7328-f81f-11d2-ba4b-00a0c93ec93b"
  std::string name;          ///< UTF-8, of a GPT; empty when there is none
  bool bootable = false;

  /// An EFI system partition, by its type.
  bool IsEsp() const;
};

struct PartitionTable {
  enum Kind { None, Mbr, Gpt } kind = None;
  std::uint32_t bytesPerSector = 512;
  bool backup = false;  ///< the GPT at the end was taken, for the first one is damaged
  std::vector<Partition> partitions;

  /// Null when there is none of that number.
  const Partition* ByNumber(unsigned int number) const;
  /// By name in any letter case; by type for "esp" when no name fits.
  std::vector<const Partition*> ByName(const std::string& name) const;
};

/// @param table  out: kind None when there is no table
/// @return a failure only when the disk cannot be read
[[nodiscard]] std::error_code ReadPartitionTable(fatlib::Device* disk, PartitionTable* table);

}  // namespace fatimg

#endif  // FATIMG_PARTITIONTABLE_H
