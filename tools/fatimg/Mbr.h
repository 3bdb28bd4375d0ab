/// @file Mbr.h
/// The master boot record: four partitions, one of which may hold a chain of logical ones.

#ifndef FATIMG_MBR_H
#define FATIMG_MBR_H

#include "PartitionTable.h"

namespace fatimg {

/// @param table       out: unchanged when sector 0 holds no table; extended partitions themselves are not in it
/// @param found       out: whether sector 0 holds a table
/// @param protective  out: whether the table says that a GPT is there
/// @return a failure only when the disk cannot be read
[[nodiscard]] std::error_code ReadMbr(fatlib::Device* disk, PartitionTable* table, bool* found, bool* protective);

}  // namespace fatimg

#endif  // FATIMG_MBR_H
