/// @file MediumState.h
/// What a Medium knows. Not part of the face for hosts.

#ifndef FATLIB_MEDIUMSTATE_H
#define FATLIB_MEDIUMSTATE_H

#include <array>

#include "ClusterMap.h"
#include "FatCache.h"
#include "Medium.h"

namespace fatlib {

/// A chain that was followed, and may be asked for again: reading a file in pieces, or changing the entries of one
/// directory, follows it once.
struct FollowedChain {
  bool valid = false;
  std::uint32_t first = 0;
  ClusterMap map;
  std::error_code error;  ///< why the map ends where it does
};

struct Medium::State {
  State(Device* device, const Geometry& layout) : pDevice(device), geometry(layout), fat(device, &geometry) {}

  Device* pDevice;
  Geometry geometry;
  FatCache fat;
  std::array<FollowedChain, 8> files;  // that are read at the same time
  std::size_t oldestFile = 0;
  FollowedChain directory;

  bool HasFixedRoot() const { return geometry.type != FatType::Fat32; }
  std::uint32_t FixedRootSlots() const;
  /// The chain of a directory that is not a fixed root, or of a file.
  static const FollowedChain& Follow(Medium* medium, std::uint32_t first, FollowedChain* chain);
  /// The chain of a file.
  const FollowedChain& FollowFile(Medium* medium, std::uint32_t first);
  /// The chain of a directory; that of a fixed root has no cluster.
  const FollowedChain& FollowDirectory(Medium* medium, DirectoryPlace place);
  /// How many slots a directory has.
  std::uint32_t SlotsOf(Medium* medium, DirectoryPlace place);
  void ForgetChains() {
    for (FollowedChain& file : files) file.valid = false;
    directory.valid = false;
  }
};

}  // namespace fatlib

#endif  // FATLIB_MEDIUMSTATE_H
