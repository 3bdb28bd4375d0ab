/// @file Gpt.h
/// The GUID partition table.

#ifndef FATIMG_GPT_H
#define FATIMG_GPT_H

#include "PartitionTable.h"

namespace fatimg {

/// Looks for a table with right checksums: the first one for each size of sector, then the one in the last sector.
/// @param table  out: unchanged when there is none
/// @param found  out
/// @return a failure only when the disk cannot be read
[[nodiscard]] std::error_code ReadGpt(fatlib::Device* disk, PartitionTable* table, bool* found);

}  // namespace fatimg

#endif  // FATIMG_GPT_H
