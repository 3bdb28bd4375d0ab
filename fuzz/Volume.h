/// @file Volume.h
/// Healthy small volumes on the harness's medium, for targets whose input is only a part of one.

#ifndef FATLIB_FUZZ_VOLUME_H
#define FATLIB_FUZZ_VOLUME_H

#include <cstdint>
#include <vector>

#include "Harness.h"

/// Where the directory under test lies.
enum class DIRECTORY_PLACE { FixedRoot, RootChain, Subdirectory };

/// Formats the medium: FAT12 with 512-byte sectors and clusters and a root of 512 entries, or FAT32 (RootChain) with
/// 128-byte sectors and clusters and 65,600 of them. There are files for entries to lead to: the chains 100 to 107 and
/// 200, 202, 201.
/// @param bytes  contents of the directory; what it cannot hold is dropped. A subdirectory is "D", with "." and ".."
///               before the bytes if `dots` is set
void MakeVolume(DIRECTORY_PLACE place, const std::vector<std::uint8_t>& bytes, bool dots);

#endif  // FATLIB_FUZZ_VOLUME_H
