/// @file CommitFat.h
/// What a commit changes in a FAT. Not part of the face for hosts.

#ifndef FATLIB_COMMITFAT_H
#define FATLIB_COMMITFAT_H

#include <cstdint>
#include <vector>

#include "CommitSectors.h"
#include "Medium.h"

namespace fatlib {

/// An entry that is not what it was. Values are 12, 16 or 28 bits wide.
struct FatChange {
  std::uint32_t cluster = 0;
  std::uint32_t was = 0;
  std::uint32_t is = 0;

  bool IsAllocated() const { return was == 0; }
  bool IsFreed() const { return is == 0; }
  bool IsRelinked() const { return was != 0 && is != 0; }
};

/// Compares the entries of all clusters whose sectors are held.
/// @param before   the volume as it is on the device
/// @param after    as it is with what is held
/// @param changes  out: replaced; in the order of the clusters
[[nodiscard]] std::error_code FindFatChanges(Medium* before, Medium* after, const CommitSectors& held,
                                             std::vector<FatChange>* changes);

/// The value that ends a chain.
std::uint32_t EndOfChain(FatType type);

/// Whether an entry has parts in two sectors, as some of FAT12 have.
bool LiesInTwoSectors(const Geometry& geometry, std::uint32_t cluster);
/// For such an entry: the bits of a link that lie in the first sector, and those of the end of a chain in the second.
/// It leads to no cluster, unless the volume has more than 3,838 of them.
std::uint32_t HalfLinked(std::uint32_t cluster, std::uint32_t value);

/// Changes an entry in every copy of the FAT.
[[nodiscard]] std::error_code PutFatEntry(const Geometry& geometry, CommitSectors* sectors, std::uint32_t cluster,
                                          std::uint32_t value);

}  // namespace fatlib

#endif  // FATLIB_COMMITFAT_H
