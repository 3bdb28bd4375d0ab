/// @file PartitionTable.cpp

#include "PartitionTable.h"

#include <fatlib/Text.h>

#include "Gpt.h"
#include "Mbr.h"

namespace fatimg {

bool Partition::IsEsp() const { return type == "c12a7328-f81f-11d2-ba4b-00a0c93ec93b" || type == "ef"; }

const Partition* PartitionTable::ByNumber(unsigned int number) const {
  for (const Partition& partition : partitions) {
    if (partition.number == number) return &partition;
  }
  return nullptr;
}

std::vector<const Partition*> PartitionTable::ByName(const std::string& name) const {
  std::vector<const Partition*> found;
  std::u16string wanted;
  if (!fatlib::FromUtf8(name, &wanted)) return found;
  for (const Partition& partition : partitions) {
    std::u16string own;
    if (fatlib::FromUtf8(partition.name, &own) && fatlib::SameName(own, wanted)) found.push_back(&partition);
  }
  if (!found.empty() || !fatlib::SameName(wanted, u"esp")) return found;
  for (const Partition& partition : partitions) {
    if (partition.IsEsp()) found.push_back(&partition);
  }
  return found;
}

std::error_code ReadPartitionTable(fatlib::Device* disk, PartitionTable* table) {
  *table = PartitionTable();
  bool hasMbr = false;
  bool protective = false;
  PartitionTable mbr;
  std::error_code error = ReadMbr(disk, &mbr, &hasMbr, &protective);
  if (error) return error;
  // A record with partitions of its own is newer than a GPT that it does not protect.
  if (hasMbr && !protective) {
    *table = mbr;
    return {};
  }
  bool hasGpt = false;
  error = ReadGpt(disk, table, &hasGpt);
  if (!error && !hasGpt && hasMbr) *table = mbr;
  return error;
}

}  // namespace fatimg
